// GmpSm: the decision of one membership, what it writes and leaves alone,
// bad input, the full review after configuration changes, SSM conversion,
// the route reactors and the null-insert refusals; the change review and
// the full review: coalescing, slices that resume at their bookmark, and
// changes that arrive while a review runs.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "cask/trace.h"
#include "pimsm/test_vrf.h"

namespace Routing::Pim::SparseMode::Testing {
namespace {

// A VRF in either family. `group(true, n)` is in the default SSM range
// (232/8, ff3e::/32), `group(false, n)` outside it. The route review keeps
// interface records that lose their state, so what a test sees is what
// GmpSm left (removing them is the review's part, tested with it).
struct GmpVrf : TestVrf {
    explicit GmpVrf(Wirl::AddressFamily family) : TestVrf(family) {
        routeReviewSm().preserveRouteIntfIs(true);
    }
    IpGenAddr group(bool ssm, unsigned n = 1) const {
        return ip(v4() ? fmt::format("{}.1.{}.{}", ssm ? 232 : 239, n / 256, n % 256)
                       : fmt::format("{}::1:{:x}", ssm ? "ff3e" : "ff0e", n));
    }
    IpGenAddr source(unsigned n = 1) const {
        return ip(v4() ? fmt::format("10.0.0.{}", n) : fmt::format("2001:db8::{:x}", n));
    }
    IpGenAddr any() const { return IpGenAddr::zero(family()); }
    static RouteIntfKey key(const IpGenAddr& s, const IpGenAddr& g, const char* intf = "e1") {
        return {RouteKey(s, g), IntfId(intf)};
    }
    // The include and exclude flags of k's Intf; "none" without one.
    std::string flags(const RouteIntfKey& k) const {
        auto route = status().route(k.routeKey);
        const Intf* i = route ? route->routeIntfRaw(k.intf) : nullptr;
        return i ? fmt::format("include {} exclude {}", int(i->localReceiverInclude()),
                               int(i->localReceiverExclude()))
                 : "none";
    }
    // How often k was decided.
    static std::size_t decisions(const RouteIntfKey& k) {
        return Cask::trace().count(fmt::format("doUpdateMembership{} {},", k.routeKey, k.intf));
    }
};

Wirl::AddressRangeSet rangeOf(const IpGenAddr& a) {
    Wirl::AddressRangeSet set(a.family());
    set.add(Wirl::IpGenPrefix::hostPrefix(a));
    return set;
}

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
    // that mode on the same interface. "none": no route, no Intf. reason:
    // what ignoredReason tells a reader (null: the membership counts, or
    // there is none to ignore).
    struct Case {
        bool wc;
        FilterMode own, conv;
        bool ssm;
        const char* flags;
        const char* reason;
    } const cases[] = {
        {true, inc, no, false, "include 1 exclude 0", nullptr},
        {true, inc, no, true, "none", "SSM range, any source"},
        {true, exc, no, false, "include 0 exclude 1", nullptr},
        {true, exc, no, true, "none", "SSM range, exclude mode"},
        {true, inc, inc, true, "none", "SSM range, any source"},
        {false, inc, no, false, "include 1 exclude 0", nullptr},
        {false, inc, no, true, "include 1 exclude 0", nullptr},
        {false, exc, no, false, "include 0 exclude 1", nullptr},
        {false, exc, no, true, "none", "SSM range, exclude mode"},
        {false, no, no, false, "none", nullptr},
        {false, no, inc, true, "include 1 exclude 0", nullptr},
        {false, no, inc, false, "include 1 exclude 0", nullptr},
        {false, no, exc, false, "none", nullptr},
        {false, exc, inc, false, "include 1 exclude 1", nullptr},
        {false, exc, inc, true, "include 1 exclude 0", nullptr},
    };
    for (auto family : families) {
        for (const Case& c : cases) {
            SCOPED_TRACE(fmt::format("{} wc {} own {} conv {} ssm {}", Wirl::familyName(family),
                                     c.wc, int(c.own), int(c.conv), c.ssm));
            GmpVrf fx(family);
            const auto g = fx.group(c.ssm);
            const auto k = GmpVrf::key(c.wc ? fx.any() : fx.source(1), g);
            if (c.conv != no) {
                fx.ssmConvert().groupIs(g, Cask::make<SsmConvertGroup>(g));
                fx.ssmConvert().group(g)->sourceIs(fx.source(1));
                fx.join(GmpVrf::key(fx.any(), g), c.conv);
            }
            if (c.own != no) fx.join(k, c.own);
            fx.settle();
            EXPECT_EQ(fx.flags(k), c.flags);
            EXPECT_EQ(fx.status().route(k.routeKey) != nullptr, std::string(c.flags) != "none");
            const char* reason = fx.gmpSm().ignoredReason(k);
            EXPECT_EQ(std::string(reason ? reason : "null"), c.reason ? c.reason : "null");
        }
    }
}

TEST(GmpSm, WithdrawClearsFlagsAndKeepsRouteAndInterface) {
    GmpVrf fx(Wirl::AddressFamily::ipv4);
    const auto k = GmpVrf::key(fx.any(), fx.group(false));
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
    EXPECT_TRUE(fx.status().route(k.routeKey)->initialized());
    fx.join(k, exc);
    fx.settle();
    EXPECT_EQ(fx.flags(k), "include 0 exclude 1");
    fx.leave(k);
    fx.settle();
    EXPECT_EQ(fx.flags(k), "include 0 exclude 0");
    EXPECT_TRUE(
        Cask::eventLog().contains("GmpSm: Interface e1, Route: (*, 239.1.0.1), include: "
                                  "false --> false, exclude: true --> false"));
    EXPECT_NE(fx.localStatus().wcRoute(k.routeKey), nullptr);
}

// A new route is announced with its receiver already written, so no machine
// ever sees it without an outgoing interface; it is decided once.
TEST(GmpSm, NewRouteIsAnnouncedWithItsReceiver) {
    for (bool ssm : {false, true}) {
        GmpVrf fx(Wirl::AddressFamily::ipv4);
        struct Seen : Status::Notifiee {
            std::string flags;
            GmpVrf* fx;
            RouteIntfKey key;
            void handleRoute(const RouteKey&) override { flags = fx->flags(key); }
        } seen;
        seen.fx = &fx;
        seen.key =
            ssm ? GmpVrf::key(fx.source(), fx.group(true)) : GmpVrf::key(fx.any(), fx.group(false));
        seen.notifierIs(&fx.status());
        fx.join(seen.key);
        fx.settle();
        EXPECT_EQ(seen.flags, "include 1 exclude 0") << "ssm " << ssm;
        EXPECT_EQ(GmpVrf::decisions(seen.key), 1u) << "ssm " << ssm;
        EXPECT_NE(fx.localStatus().route(seen.key.routeKey), nullptr);
    }
}

TEST(GmpSm, BadInputIsDroppedWithItsTrace) {
    for (auto family : families) {
        GmpVrf fx(family);
        const auto other = ip(fx.v4() ? "ff0e::1" : "10.0.0.1");
        const auto g = fx.group(false), bidir = fx.group(false, 2);
        fx.groupFilter().bidirRangeIs(rangeOf(bidir));
        // The key, the trace of its refusal, and the reason a reader is given.
        const std::tuple<RouteIntfKey, std::string, std::string> cases[] = {
            {GmpVrf::key(fx.any(), bidir), "ignoring bidirectional group", "bidirectional range"},
            {GmpVrf::key(fx.any(), fx.source(7)), "invalid group", "not multicast"},
            {GmpVrf::key(fx.any(), other), "invalid group", "not multicast"},
            {GmpVrf::key(fx.group(false, 9), g),
             fmt::format("invalid source: {}", fx.group(false, 9)), "invalid source"},
            {GmpVrf::key(other, g), fmt::format("invalid source: {}", other), "invalid source"},
            {GmpVrf::key(fx.any(), ip(fx.v4() ? "224.0.0.5" : "ff02::5")),
             "ignoring link-local group", "link-local group"},
        };
        for (const auto& [k, what, reason] : cases) {
            SCOPED_TRACE(k.str());
            fx.join(k);
            fx.settle();
            fx.gmpSm().doUpdateMembership(k);  // as a full review would
            EXPECT_EQ(levelOf(fmt::format("<Vrf:red>GmpSm:doUpdateMembership({}), {}",
                                          k.routeKey.group(), what)),
                      7);
            EXPECT_STREQ(fx.gmpSm().ignoredReason(k), reason.c_str());
        }
        EXPECT_EQ(fx.status().routeSize(), 0u);
    }
}

// Each change shows on keys that no membership change queued.
TEST(GmpSm, ConfigurationChangesRedecideEveryMembership) {
    for (auto family : families) {
        SCOPED_TRACE(Wirl::familyName(family));
        GmpVrf fx(family);
        const auto g = fx.group(false);
        const RouteIntfKey keys[] = {GmpVrf::key(fx.any(), g), GmpVrf::key(fx.source(2), g, "e2"),
                                     GmpVrf::key(fx.any(), fx.group(false, 2), "e3")};
        fx.groupFilter().bidirRangeIs(rangeOf(keys[2].routeKey.group()));
        fx.join(keys[0]);
        fx.join(keys[1], exc);
        fx.join(keys[2]);
        fx.settle();
        ASSERT_EQ(fx.flags(keys[1]), "include 0 exclude 1");
        ASSERT_EQ(fx.flags(keys[2]), "none");

        // (*,G) and exclude count no more: the route review removes the
        // routes of the group that became SSM, and GmpSm, deciding their
        // memberships again, does not bring them back.
        fx.config().ssmRangeIs(rangeOf(g));
        fx.settle();
        EXPECT_EQ(fx.flags(keys[0]), "none");
        EXPECT_EQ(fx.flags(keys[1]), "none");
        fx.groupFilter().bidirRangeIs(Wirl::AddressRangeSet(family));
        fx.settle();
        EXPECT_EQ(fx.flags(keys[2]), "include 1 exclude 0");

        // A boundary appears, then changes: every key is decided again each time.
        std::size_t before[3];
        for (int i = 0; i < 3; ++i) before[i] = GmpVrf::decisions(keys[i]);
        auto b = Cask::make<Routing::McastBoundary::IntfBoundary>(Wirl::IntfId("e9"), family);
        fx.boundary().intfIs(b->intf(), b);
        fx.settle();
        b->groupsIs(rangeOf(g));
        fx.settle();
        for (int i = 0; i < 3; ++i) EXPECT_EQ(GmpVrf::decisions(keys[i]), before[i] + 2);
    }
}

// A leave while the group is filtered is decided when the filter lifts: the
// table no longer holds the key, so a full review alone would miss it. (The
// route review removed the group's route when it became bidirectional.)
TEST(GmpSm, LeaveDuringABidirectionalFilterIsDecidedWhenItLifts) {
    GmpVrf fx(Wirl::AddressFamily::ipv4);
    const auto k = GmpVrf::key(fx.any(), fx.group(false));
    fx.join(k);
    fx.settle();
    ASSERT_EQ(fx.flags(k), "include 1 exclude 0");
    fx.groupFilter().bidirRangeIs(rangeOf(k.routeKey.group()));
    fx.settle();
    fx.leave(k);
    fx.settle();
    const auto before = GmpVrf::decisions(k);
    fx.groupFilter().bidirRangeIs(Wirl::AddressRangeSet(Wirl::AddressFamily::ipv4));
    fx.settle();
    EXPECT_EQ(GmpVrf::decisions(k), before + 1);
    EXPECT_EQ(fx.flags(k), "none");
}

TEST(GmpSm, ConversionSourcesComeAndGo) {
    GmpVrf fx(Wirl::AddressFamily::ipv6);
    const auto g = fx.group(true);
    const auto s1 = GmpVrf::key(fx.source(1), g), s2 = GmpVrf::key(fx.source(2), g);
    fx.join(GmpVrf::key(fx.any(), g));
    fx.join(GmpVrf::key(fx.any(), g, "e2"), exc);
    auto sources = Cask::make<SsmConvertGroup>(g);
    sources->sourceIs(fx.source(1));
    fx.ssmConvert().groupIs(g, sources);
    sources->sourceIs(fx.source(2));
    fx.settle();
    EXPECT_EQ(fx.flags(s1) + ", " + fx.flags(s2), "include 1 exclude 0, include 1 exclude 0");
    EXPECT_EQ(fx.flags(GmpVrf::key(fx.source(2), g, "e2")), "none");
    sources->sourceDel(fx.source(1));
    fx.settle();
    EXPECT_EQ(fx.flags(s1) + ", " + fx.flags(s2), "include 0 exclude 0, include 1 exclude 0");
    fx.ssmConvert().groupDel(g);
    fx.settle();
    EXPECT_EQ(fx.flags(s2), "include 0 exclude 0");
}

TEST(GmpSm, InitializedRouteHasItsReceiversRedecided) {
    GmpVrf fx(Wirl::AddressFamily::ipv4);
    const auto kept = GmpVrf::key(fx.source(1), fx.group(false));
    const auto stale = GmpVrf::key(fx.source(1), fx.group(false), "e2");
    fx.join(kept);
    // As re-created by the route review, with a receiver that left meanwhile.
    auto route = fx.status().routeIs(kept.routeKey);
    route->routeIntfIs(kept.intf)->localReceiverIncludeIs(true);
    route->routeIntfIs(stale.intf)->localReceiverIncludeIs(true);
    route->initializedIs(true);
    EXPECT_EQ(fx.flags(stale), "include 0 exclude 0");
    EXPECT_EQ(fx.flags(kept), "include 1 exclude 0");
    fx.status().routeDel(kept.routeKey);
    EXPECT_FALSE(fx.gmpSm().sgRouteHas(kept.routeKey));
}

TEST(GmpSm, NullReactorsAreRefused) {
    GmpVrf fx(Wirl::AddressFamily::ipv4);
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
    EXPECT_EQ(refusal([&] { fx.gmpSm().rhoSsmConvertConfig()->ssmConvertGroupIs(k.group(), {}); }),
              "null _ssmConvertGroup " + ns + "RhoSsmConvertConfig::ssmConvertGroup not allowed");
}

void runUntilTrace(GmpVrf& fx, std::string_view text) {
    while (!Cask::trace().contains(text)) {
        if (!fx.loop.runOnce()) fx.clock.advanceTo(fx.loop.nextExpiry());
    }
}

std::vector<RouteIntfKey> joinGroups(GmpVrf& fx, unsigned n) {
    std::vector<RouteIntfKey> keys;
    for (unsigned i = 1; i <= n; ++i) {
        keys.push_back(GmpVrf::key(fx.any(), fx.group(false, i)));
        fx.join(keys.back());
    }
    return keys;
}

// Checks that every suspension of `machine`'s review is followed by a
// resumption at the same key; returns the number of suspensions.
std::size_t checkResumes(std::string_view machine, std::string_view sep) {
    const std::string review = fmt::format("{}:doReview: ", machine);
    const std::string suspend = review + "Suspending review at: ";
    std::string expected;
    std::size_t suspensions = 0;
    for (const auto& line : Cask::trace().lines()) {
        if (line.text.find(review) == std::string::npos) continue;
        EXPECT_NE(line.text.find(expected), std::string::npos) << line.text;
        const auto at = line.text.find(suspend);
        expected = at == std::string::npos ? ""
                                           : fmt::format("Resuming review at{}{}", sep,
                                                         line.text.substr(at + suspend.size()));
        suspensions += at != std::string::npos;
    }
    return suspensions;
}

TEST(GmpChangeSm, ManyChangedKeysCompleteInSlicesResumingAtTheirBookmarks) {
    for (auto family : {Wirl::AddressFamily::ipv4, Wirl::AddressFamily::ipv6}) {
        GmpVrf fx(family);
        const auto keys = joinGroups(fx, 5000);
        fx.clock.advancePerReadIs(0.001);  // about 50 decisions per 0.1 s slice
        fx.settle();
        EXPECT_GE(checkResumes("GmpChangeSm", ": "), 20u);
        // Each key decided once, in key order across the slices.
        std::vector<std::string> decided;
        for (const auto& line : Cask::trace().lines()) {
            if (line.level == 8 && line.text.find("doUpdateMembership(") != std::string::npos) {
                decided.push_back(line.text);
            }
        }
        ASSERT_EQ(decided.size(), keys.size());
        for (std::size_t i = 0; i < keys.size(); ++i) {
            ASSERT_NE(decided[i].find(fmt::format("{} {},", keys[i].routeKey, keys[i].intf)),
                      std::string::npos);
            ASSERT_EQ(fx.flags(keys[i]), "include 1 exclude 0");
        }
    }
}

TEST(GmpChangeSm, KeyChangedDuringAReviewIsDecidedInTheNextOne) {
    GmpVrf fx(Wirl::AddressFamily::ipv4);
    const auto keys = joinGroups(fx, 500);
    fx.clock.advancePerReadIs(0.001);
    runUntilTrace(fx, "GmpChangeSm:doReview: Suspending review at: ");
    const auto fresh = GmpVrf::key(fx.source(3), fx.group(false, 1));
    fx.join(keys.front(), FilterMode::exclude);  // decided already in this review
    fx.join(fresh);                              // not part of it
    ASSERT_EQ(GmpVrf::decisions(fresh), 0u);
    runUntilTrace(fx, "GmpChangeSm:doReview: Finished review");
    EXPECT_EQ(GmpVrf::decisions(fresh), 0u);
    fx.settle();
    EXPECT_EQ(GmpVrf::decisions(keys.front()), 2u);
    EXPECT_EQ(fx.flags(keys.front()), "include 0 exclude 1");
    EXPECT_EQ(fx.flags(fresh), "include 1 exclude 0");
}

TEST(GmpChangeSm, KeyThatFlapsBetweenReviewsIsDecidedOnce) {
    GmpVrf fx(Wirl::AddressFamily::ipv6);
    const auto stays = GmpVrf::key(fx.source(1), fx.group(true));
    const auto goes = GmpVrf::key(fx.source(2), fx.group(true));
    for (int i = 0; i < 100; ++i) {
        fx.join(stays, i % 2 ? FilterMode::include : FilterMode::exclude);
        fx.join(goes);
        fx.leave(goes);
    }
    fx.settle();
    EXPECT_EQ(GmpVrf::decisions(stays), 1u);
    EXPECT_EQ(GmpVrf::decisions(goes), 1u);
    EXPECT_EQ(fx.flags(stays), "include 1 exclude 0");
    EXPECT_EQ(fx.flags(goes), "none");
}

// Keys before the bookmark were decided on the old inputs: a change during a
// full review runs it again once it has finished.
TEST(GmpSm, FullReviewRunsInSlicesAndAgainForAChangeMidReview) {
    GmpVrf fx(Wirl::AddressFamily::ipv4);
    // The groups start in the SSM range, where (*,G) memberships make no
    // route. (Starting outside it, the route review would remove the routes
    // of groups entering it before GmpSm's review reached them.)
    Wirl::AddressRangeSet all(fx.family());
    all.add(prefix("239.0.0.0/8"));
    fx.config().ssmRangeIs(all);
    const auto keys = joinGroups(fx, 300);
    fx.settle();
    ASSERT_EQ(fx.flags(keys.front()), "none");
    Cask::trace().clear();
    fx.clock.advancePerReadIs(0.001);
    fx.config().ssmRangeIs(std::nullopt);
    runUntilTrace(fx, "GmpSm:doReview: Suspending review at: ");
    EXPECT_EQ(fx.flags(keys.front()), "include 1 exclude 0");
    EXPECT_EQ(fx.flags(keys.back()), "none");  // not reached yet
    fx.config().ssmRangeIs(all);
    fx.settle();
    EXPECT_GE(checkResumes("GmpSm", " "), 2u);
    EXPECT_EQ(Cask::trace().count("GmpSm:doReview: Starting new review"), 2u);
    for (const auto& k : keys) ASSERT_EQ(fx.flags(k), "none");
}

}  // namespace
}  // namespace Routing::Pim::SparseMode::Testing
