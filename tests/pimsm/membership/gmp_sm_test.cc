// GmpSm: the decision of one membership, what it writes and leaves alone,
// bad input, the full review after configuration changes, SSM conversion,
// the route reactors and the null-insert refusals.
#include <gtest/gtest.h>

#include "gmp_fixture.h"

namespace Routing::Pim::SparseMode::Testing {
namespace {

const Wirl::AddressFamily families[] = {Wirl::AddressFamily::ipv4, Wirl::AddressFamily::ipv6};
constexpr auto inc = FilterMode::include, exc = FilterMode::exclude, no = FilterMode::none;

int levelOf(std::string_view text) {
    for (const auto& line : Cask::trace().lines()) {
        if (line.text == text) return line.level;
    }
    return -1;
}

TEST(GmpSm, DecisionTable) {
    // conv: the group converts (*,G) to (S1,G), with a (*,G) membership of
    // that mode on the same interface. "none": no route, no Intf.
    struct Case {
        bool wc;
        FilterMode own, conv;
        bool ssm;
        const char* flags;
    } const cases[] = {
        {true, inc, no, false, "include 1 exclude 0"},
        {true, inc, no, true, "none"},
        {true, exc, no, false, "include 0 exclude 1"},
        {true, exc, no, true, "none"},
        {true, inc, inc, true, "none"},
        {false, inc, no, false, "include 1 exclude 0"},
        {false, inc, no, true, "include 1 exclude 0"},
        {false, exc, no, false, "include 0 exclude 1"},
        {false, exc, no, true, "none"},
        {false, no, no, false, "none"},
        {false, no, inc, true, "include 1 exclude 0"},
        {false, no, inc, false, "include 1 exclude 0"},
        {false, no, exc, false, "none"},
        {false, exc, inc, false, "include 1 exclude 1"},
        {false, exc, inc, true, "include 1 exclude 0"},
    };
    for (auto family : families) {
        for (const Case& c : cases) {
            SCOPED_TRACE(fmt::format("{} wc {} own {} conv {} ssm {}", Wirl::familyName(family),
                                     c.wc, int(c.own), int(c.conv), c.ssm));
            GmpFixture fx(family);
            const auto g = fx.group(c.ssm);
            const auto k = GmpFixture::key(c.wc ? fx.any() : fx.source(1), g);
            if (c.conv != no) {
                fx.convert->groupIs(g, Cask::make<SsmConvertGroup>(g));
                fx.convert->group(g)->sourceIs(fx.source(1));
                fx.join(GmpFixture::key(fx.any(), g), c.conv);
            }
            if (c.own != no) fx.join(k, c.own);
            fx.settle();
            EXPECT_EQ(fx.flags(k), c.flags);
            EXPECT_EQ(fx.status->route(k.routeKey) != nullptr, std::string(c.flags) != "none");
        }
    }
}

TEST(GmpSm, WithdrawClearsFlagsAndKeepsRouteAndInterface) {
    GmpFixture fx(Wirl::AddressFamily::ipv4);
    const auto k = GmpFixture::key(fx.any(), fx.group(false));
    fx.join(k);
    fx.settle();
    EXPECT_EQ(levelOf("<Vrf:red>GmpSm:doUpdateMembership(), Create route (*, 239.1.0.1)"), 4);
    EXPECT_EQ(levelOf("<Vrf:red>GmpSm:doUpdateMembership(), Add interface e1 to route "
                      "(*, 239.1.0.1)"),
              6);
    EXPECT_EQ(levelOf("<Vrf:red>GmpSm:doUpdateMembership(*, 239.1.0.1) e1, include: true, "
                      "exclude: false, ssmConvert: false"),
              8);
    EXPECT_TRUE(Cask::eventLog().contains("GmpSm: Create route(*, 239.1.0.1)"));
    EXPECT_TRUE(
        Cask::eventLog().contains("GmpSm: Add interface e1 to route(*, 239.1.0.1), "
                                  "include: true, exclude: false, ssmConvert: false"));
    EXPECT_TRUE(fx.status->route(k.routeKey)->initialized());
    fx.join(k, exc);
    fx.settle();
    EXPECT_EQ(fx.flags(k), "include 0 exclude 1");
    fx.leave(k);
    fx.settle();
    EXPECT_EQ(fx.flags(k), "include 0 exclude 0");
    EXPECT_TRUE(
        Cask::eventLog().contains("GmpSm: Interface e1, Route: (*, 239.1.0.1), include: "
                                  "false --> false, exclude: true --> false"));
    EXPECT_NE(fx.ls->wcRoute(k.routeKey), nullptr);
}

// A new route is announced with its receiver already written, so no machine
// ever sees it without an outgoing interface; it is decided once.
TEST(GmpSm, NewRouteIsAnnouncedWithItsReceiver) {
    for (bool ssm : {false, true}) {
        GmpFixture fx(Wirl::AddressFamily::ipv4);
        struct Seen : Status::Notifiee {
            std::string flags;
            GmpFixture* fx;
            RouteIntfKey key;
            void handleRoute(const RouteKey&) override { flags = fx->flags(key); }
        } seen;
        seen.fx = &fx;
        seen.key = ssm ? GmpFixture::key(fx.source(), fx.group(true))
                       : GmpFixture::key(fx.any(), fx.group(false));
        seen.notifierIs(fx.status.get());
        fx.join(seen.key);
        fx.settle();
        EXPECT_EQ(seen.flags, "include 1 exclude 0") << "ssm " << ssm;
        EXPECT_EQ(GmpFixture::decisions(seen.key), 1u) << "ssm " << ssm;
        EXPECT_NE(fx.ls->route(seen.key.routeKey), nullptr);
    }
}

TEST(GmpSm, BadInputIsDroppedWithItsTrace) {
    for (auto family : families) {
        GmpFixture fx(family);
        const auto other = GmpFixture::addr(fx.v4() ? "ff0e::1" : "10.0.0.1");
        const auto g = fx.group(false), bidir = fx.group(false, 2);
        fx.filter->bidirRangeIs(rangeOf(bidir));
        const std::pair<RouteIntfKey, std::string> cases[] = {
            {GmpFixture::key(fx.any(), bidir), "ignoring bidirectional group"},
            {GmpFixture::key(fx.any(), fx.source(7)), "invalid group"},
            {GmpFixture::key(fx.any(), other), "invalid group"},
            {GmpFixture::key(fx.group(false, 9), g),
             fmt::format("invalid source: {}", fx.group(false, 9))},
            {GmpFixture::key(other, g), fmt::format("invalid source: {}", other)},
        };
        for (const auto& [k, what] : cases) {
            SCOPED_TRACE(k.str());
            fx.join(k);
            fx.settle();
            fx.gmp->doUpdateMembership(k);  // as a full review would
            EXPECT_EQ(levelOf(fmt::format("<Vrf:red>GmpSm:doUpdateMembership({}), {}",
                                          k.routeKey.group(), what)),
                      7);
        }
        EXPECT_EQ(fx.status->routeSize(), 0u);
    }
}

// Each change shows on keys that no membership change queued.
TEST(GmpSm, ConfigurationChangesRedecideEveryMembership) {
    for (auto family : families) {
        SCOPED_TRACE(Wirl::familyName(family));
        GmpFixture fx(family);
        const auto g = fx.group(false);
        const RouteIntfKey keys[] = {GmpFixture::key(fx.any(), g),
                                     GmpFixture::key(fx.source(2), g, "e2"),
                                     GmpFixture::key(fx.any(), fx.group(false, 2), "e3")};
        fx.filter->bidirRangeIs(rangeOf(keys[2].routeKey.group()));
        fx.join(keys[0]);
        fx.join(keys[1], exc);
        fx.join(keys[2]);
        fx.settle();
        ASSERT_EQ(fx.flags(keys[1]), "include 0 exclude 1");
        ASSERT_EQ(fx.flags(keys[2]), "none");

        fx.config->ssmRangeIs(rangeOf(g));  // (*,G) and exclude count no more
        fx.settle();
        EXPECT_EQ(fx.flags(keys[0]), "include 0 exclude 0");
        EXPECT_EQ(fx.flags(keys[1]), "include 0 exclude 0");
        fx.filter->bidirRangeIs(Wirl::AddressRangeSet(family));
        fx.settle();
        EXPECT_EQ(fx.flags(keys[2]), "include 1 exclude 0");

        // A boundary appears, then changes: every key is decided again each time.
        std::size_t before[3];
        for (int i = 0; i < 3; ++i) before[i] = GmpFixture::decisions(keys[i]);
        auto b = Cask::make<Routing::McastBoundary::IntfBoundary>(Wirl::IntfId("e9"), family);
        fx.boundary->intfIs(b->intf(), b);
        fx.settle();
        b->groupsIs(rangeOf(g));
        fx.settle();
        for (int i = 0; i < 3; ++i) EXPECT_EQ(GmpFixture::decisions(keys[i]), before[i] + 2);
    }
}

// A leave while the group is filtered is decided when the filter lifts: the
// table no longer holds the key, so a full review alone would miss it.
TEST(GmpSm, LeaveDuringABidirectionalFilterIsDecidedWhenItLifts) {
    GmpFixture fx(Wirl::AddressFamily::ipv4);
    const auto k = GmpFixture::key(fx.any(), fx.group(false));
    fx.join(k);
    fx.settle();
    ASSERT_EQ(fx.flags(k), "include 1 exclude 0");
    fx.filter->bidirRangeIs(rangeOf(k.routeKey.group()));
    fx.settle();
    fx.leave(k);
    fx.settle();
    fx.filter->bidirRangeIs(Wirl::AddressRangeSet(Wirl::AddressFamily::ipv4));
    fx.settle();
    EXPECT_EQ(fx.flags(k), "include 0 exclude 0");
}

TEST(GmpSm, ConversionSourcesComeAndGo) {
    GmpFixture fx(Wirl::AddressFamily::ipv6);
    const auto g = fx.group(true);
    const auto s1 = GmpFixture::key(fx.source(1), g), s2 = GmpFixture::key(fx.source(2), g);
    fx.join(GmpFixture::key(fx.any(), g));
    fx.join(GmpFixture::key(fx.any(), g, "e2"), exc);
    auto sources = Cask::make<SsmConvertGroup>(g);
    sources->sourceIs(fx.source(1));
    fx.convert->groupIs(g, sources);
    sources->sourceIs(fx.source(2));
    fx.settle();
    EXPECT_EQ(fx.flags(s1) + ", " + fx.flags(s2), "include 1 exclude 0, include 1 exclude 0");
    EXPECT_EQ(fx.flags(GmpFixture::key(fx.source(2), g, "e2")), "none");
    sources->sourceDel(fx.source(1));
    fx.settle();
    EXPECT_EQ(fx.flags(s1) + ", " + fx.flags(s2), "include 0 exclude 0, include 1 exclude 0");
    fx.convert->groupDel(g);
    fx.settle();
    EXPECT_EQ(fx.flags(s2), "include 0 exclude 0");
}

TEST(GmpSm, InitializedRouteHasItsReceiversRedecided) {
    GmpFixture fx(Wirl::AddressFamily::ipv4);
    const auto kept = GmpFixture::key(fx.source(1), fx.group(false));
    const auto stale = GmpFixture::key(fx.source(1), fx.group(false), "e2");
    fx.join(kept);
    // As re-created by the route review, with a receiver that left meanwhile.
    auto route = fx.status->routeIs(kept.routeKey);
    route->routeIntfIs(kept.intf)->localReceiverIncludeIs(true);
    route->routeIntfIs(stale.intf)->localReceiverIncludeIs(true);
    route->initializedIs(true);
    EXPECT_EQ(fx.flags(stale), "include 0 exclude 0");
    EXPECT_EQ(fx.flags(kept), "include 1 exclude 0");
    fx.status->routeDel(kept.routeKey);
    EXPECT_FALSE(fx.gmp->sgRouteHas(kept.routeKey));
}

TEST(GmpSm, NullReactorsAreRefused) {
    GmpFixture fx(Wirl::AddressFamily::ipv4);
    auto refusal = [](auto insert) -> std::string {
        try {
            insert();
        } catch (const Cask::NullInsertError& e) {
            return e.what();
        }
        return "accepted";
    };
    const RouteKey k = RouteKey::wc(fx.group(false));
    const std::string ns = "parameter to mutator for Routing::Pim::SparseMode::GmpSm::";
    EXPECT_EQ(refusal([&] { fx.gmp->rhoSsmConvertConfig()->ssmConvertGroupIs(k.group(), {}); }),
              "null _ssmConvertGroup " + ns + "RhoSsmConvertConfig::ssmConvertGroup not allowed");
}

}  // namespace
}  // namespace Routing::Pim::SparseMode::Testing
