// The route review: slicing and scheduling, the alternating change sets,
// deletion and resurrection, range changes, clear requests, and the change
// flags it hands to routes.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "pimsm/route/review_fixture.h"

namespace {

using namespace Routing::Pim::SparseMode;
using namespace Routing::Pim::SparseMode::Testing;
using Routing::Pim::RouteKey;
using Bit = ChangeFlags::Bit;

std::size_t traced(const std::string& text) {
    return Cask::trace().count(text);
}

// Records the change flags a route shows while its routeChanged is announced.
class ChangeRecorder : public Route::Notifiee {
public:
    explicit ChangeRecorder(Route& r) : Route::Notifiee(&r) {}
    void handleRouteChanged() override { seen.push_back(notifier()->changeFlags()); }
    std::vector<ChangeFlags> seen;
};

TEST(RouteReviewSm, ReviewIsCutIntoQuantumSlicesOnePerLoopTurn) {
    ReviewFixture f;
    const int routes = 40;
    for (int i = 1; i <= routes; ++i) f.route(sg(fmt::format("10.1.0.{}", i), "239.1.1.1"));
    f.settle();
    Cask::trace().clear();
    f.pimIntf("up1").usedDrIs(ip("10.0.1.5"));
    f.clock.advanceBy(1);
    const double perRoute = 1.0 / 64;  // each route's clock read costs this much
    f.clock.advancePerReadIs(perRoute);
    std::vector<std::size_t> slices;
    std::size_t before = 0;
    do {
        ASSERT_TRUE(f.loop.runOnce());
        slices.push_back(f.reviewed().size() - before);
        before = f.reviewed().size();
        ASSERT_LT(slices.size(), 50u);
    } while (!f.review->reviewBookmark().isNull());
    // The slice stops after the first route that ends at or past the quantum.
    const auto full =
        static_cast<std::size_t>(std::ceil(RouteReviewSm::defaultReviewQuantum / perRoute));
    EXPECT_EQ(before, std::size_t(routes));
    ASSERT_EQ(slices.size(), (routes + full - 1) / full);
    for (std::size_t i = 0; i + 1 < slices.size(); ++i) EXPECT_EQ(slices[i], full) << i;
    EXPECT_EQ(traced("<Vrf:red>RouteReviewSm: Starting new review"), 1u);
    EXPECT_EQ(traced("<Vrf:red>RouteReviewSm: Suspending review at: "), slices.size() - 1);
    EXPECT_EQ(traced("<Vrf:red>RouteReviewSm: Resuming review at: "), slices.size() - 1);
    EXPECT_EQ(traced("<Vrf:red>RouteReviewSm: Finished review"), 1u);
}

TEST(RouteReviewSm, WaitsForStatusAndSchedulesNothingWithoutChanges) {
    ReviewFixture f(false);
    f.route(wc("239.1.1.1"));
    f.pimIntf("up1").usedDrIs(ip("10.0.1.5"));
    f.settle();
    EXPECT_TRUE(f.reviewed().empty());
    EXPECT_GE(
        traced("<Vrf:red>RouteReviewSm::doUpdateReviewTimer(): wait for all routes to be read"),
        1u);
    f.status->initializedIs(true);
    f.settle();
    EXPECT_EQ(f.reviewed(), (std::vector<std::string>{"(*, 239.1.1.1), change flags: "
                                                      "rpfIntfStatus|rpfDrStatus"}));
    // Nothing recorded since: asking again arms nothing.
    Cask::trace().clear();
    f.review->doUpdateReviewTimer();
    EXPECT_TRUE(
        Cask::trace().contains("RouteReviewSm::doUpdateReviewTimer(): changeSet is empty!!!"));
    EXPECT_EQ(f.loop.armedTimers(), 0u);
}

TEST(RouteReviewSm, ChangeDuringSuspendedReviewWaitsForExactlyOneMoreReview) {
    ReviewFixture f;
    for (int i = 1; i <= 3; ++i) f.route(sg(fmt::format("10.1.0.{}", i), "239.1.1.1"));
    f.review->reviewQuantumIs(0.5);
    f.clock.advancePerReadIs(1.0);  // one route per slice
    f.pimIntf("up1").usedDrIs(ip("10.0.1.5"));
    f.clock.advanceBy(1);
    ASSERT_TRUE(f.loop.runOnce());
    ASSERT_EQ(f.reviewed().size(), 1u);
    ASSERT_FALSE(f.review->reviewBookmark().isNull());
    f.pimIntf("up1").neighbor(ip("10.0.1.2"))->genIdIs(7);
    f.settle();
    std::vector<std::string> flags;
    for (const auto& line : f.reviewed()) flags.push_back(line.substr(line.find("flags: ") + 7));
    EXPECT_EQ(flags,
              (std::vector<std::string>{"rpfIntfStatus|rpfDrStatus", "rpfIntfStatus|rpfDrStatus",
                                        "rpfIntfStatus|rpfDrStatus", "rpfNbrGenId", "rpfNbrGenId",
                                        "rpfNbrGenId"}));
    EXPECT_EQ(traced("RouteReviewSm: Starting new review"), 2u);
    EXPECT_EQ(f.loop.armedTimers(), 0u);
}

TEST(RouteReviewSm, ResumesAfterTheBookmarkedRouteWhenItWasDeleted) {
    ReviewFixture f;
    for (int i = 1; i <= 5; ++i) f.route(sg(fmt::format("10.1.0.{}", i), "239.1.1.1"));
    f.review->reviewQuantumIs(0.5);
    f.clock.advancePerReadIs(1.0);
    f.pimIntf("up1").usedDrIs(ip("10.0.1.5"));
    f.clock.advanceBy(1);
    ASSERT_TRUE(f.loop.runOnce());
    ASSERT_EQ(f.review->reviewBookmark(), sg("10.1.0.2", "239.1.1.1"));
    f.status->routeDel(sg("10.1.0.2", "239.1.1.1"));
    f.settle();
    std::vector<std::string> keys;
    for (const auto& line : f.reviewed()) keys.push_back(line.substr(0, line.find(',', 12)));
    EXPECT_EQ(keys, (std::vector<std::string>{"(10.1.0.1, 239.1.1.1)", "(10.1.0.3, 239.1.1.1)",
                                              "(10.1.0.4, 239.1.1.1)", "(10.1.0.5, 239.1.1.1)"}));
}

TEST(RouteReviewSm, MarkedRouteIsResurrectedWithItsIncludeMembersOnly) {
    using Routing::Gmp::Tidal::FilterMode;
    struct Case {
        const char* name;
        std::vector<std::pair<const char*, FilterMode>> members;
        std::vector<const char*> after;  // empty: the route is gone
    };
    const std::vector<Case> cases = {
        {"include on d1", {{"d1", FilterMode::include}}, {"d1"}},
        {"include on both",
         {{"d1", FilterMode::include}, {"d2", FilterMode::include}},
         {"d1", "d2"}},
        {"no member", {}, {}},
        {"exclude only", {{"d2", FilterMode::exclude}}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ReviewFixture f;
        const auto key = wc("239.1.1.1");
        Route& old = f.route(key, {"d1", "d2"});
        old.routeIntfRaw(intf("d2"))->joinStateIs(JoinState::joined);
        for (auto [name, mode] : c.members) {
            const Routing::Gmp::Tidal::RouteIntfKey k{key, intf(name)};
            f.membership->membershipIs(k, {k, mode});
        }
        const Cask::Ptr<Route> keep(&old);
        old.markedForDeletionIs(true);
        EXPECT_TRUE(f.localStatus->toBeDeletedRouteHas(key));
        f.settle();
        EXPECT_FALSE(f.localStatus->toBeDeletedRouteHas(key));
        auto now = f.status->route(key);
        if (c.after.empty()) {
            EXPECT_FALSE(now);
            EXPECT_FALSE(f.localStatus->wcRouteHas(key));
            continue;
        }
        ASSERT_TRUE(now);
        EXPECT_NE(now.get(), &old);
        EXPECT_EQ(f.localStatus->wcRoute(key), now);
        EXPECT_TRUE(now->initialized());
        EXPECT_FALSE(now->markedForDeletion());
        std::vector<const char*> names;
        for (const auto& [id, i] : now->routeIntf()) {
            names.push_back(id.name().c_str());
            EXPECT_TRUE(i->localReceiverInclude() && i->initialized());
            EXPECT_EQ(i->joinState(), JoinState::noInfo);  // fresh state
        }
        EXPECT_EQ(names.size(), c.after.size());
        for (std::size_t i = 0; i < names.size() && i < c.after.size(); ++i) {
            EXPECT_STREQ(names[i], c.after[i]);
        }
        EXPECT_TRUE(Cask::trace().contains("Resurrecting route (*, 239.1.1.1)"));
    }
}

TEST(RouteReviewSm, RangeChangesDeleteOnlyTheRoutesOfNewlyExcludedGroups) {
    const auto prefix = [](const char* p) { return *Wirl::IpGenPrefix::parse(p); };
    const auto ranges = [&](std::vector<const char*> ps) {
        Wirl::AddressRangeSet s(Wirl::AddressFamily::ipv4);
        for (auto* p : ps) s.add(prefix(p));
        return s;
    };
    struct Case {
        const char* name;
        std::function<void(ReviewFixture&)> apply;
        std::set<RouteKey> gone;
    };
    const std::vector<Case> cases = {
        {"SSM range extended",
         [&](ReviewFixture& f) {
             f.config->ssmRangeIs(ranges({"232.0.0.0/8", "239.1.0.0/16"}));
         },
         {wc("239.1.1.1"), sg("10.1.0.1", "239.1.1.1")}},
        {"SSM range shrunk",
         [&](ReviewFixture& f) { f.config->ssmRangeIs(ranges({"232.0.0.0/16"})); },
         {}},
        {"SSM range extended then shrunk back",
         [&](ReviewFixture& f) {
             f.config->ssmRangeIs(ranges({"232.0.0.0/8", "239.3.0.0/16"}));
             f.settle();
             f.config->ssmRangeIs(ranges({"232.0.0.0/8"}));
         },
         {}},
        {"bidirectional range added",
         [&](ReviewFixture& f) {
             f.localStatus->groupFilterStatus()->bidirRangeIs(ranges({"239.2.0.0/16"}));
         },
         {wc("239.2.2.2")}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ReviewFixture f;
        const std::vector<RouteKey> keys = {wc("239.1.1.1"), sg("10.1.0.1", "239.1.1.1"),
                                            wc("239.2.2.2"), sg("10.1.0.1", "232.1.1.1")};
        for (const auto& k : keys) f.route(k);
        c.apply(f);
        f.settle();
        for (const auto& k : keys) EXPECT_EQ(f.has(k), !c.gone.contains(k)) << k.str();
    }
}

TEST(RouteReviewSm, SingleRouteClearActsAtOnceOthersWaitForTheReview) {
    using F = Routing::Pim::MrouteClearFlags;
    struct Case {
        const char* name;
        const char* source;  // "" for none
        const char* group;
        F flags;
        bool immediate;
        std::set<RouteKey> gone;
    };
    const auto s1g1 = sg("10.1.0.1", "239.1.1.1"), s2g2 = sg("10.1.0.2", "239.2.2.2");
    const auto g1 = wc("239.1.1.1"), g2 = wc("239.2.2.2");
    const std::vector<Case> cases = {
        {"one (S,G)", "10.1.0.1", "239.1.1.1", {F::Bit::singleRoute}, true, {s1g1}},
        {"one (*,G)", "", "239.2.2.2", {F::Bit::singleRoute}, true, {g2}},
        {"unknown route", "10.9.9.9", "239.1.1.1", {F::Bit::singleRoute}, true, {}},
        {"one group", "", "239.1.1.1", {F::Bit::group}, false, {g1, s1g1}},
        {"one source", "10.1.0.2", "", {F::Bit::source}, false, {s2g2}},
        {"everything", "", "", {F::Bit::allRoutes}, false, {g1, g2, s1g1, s2g2}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ReviewFixture f;
        for (const auto& k : {g1, g2, s1g1, s2g2}) f.route(k);
        const auto addr = [](const char* a) { return *a ? ip(a) : Wirl::IpGenAddr(); };
        f.clearConfig->clearRoutesIs(addr(c.group), addr(c.source), c.flags);
        for (const auto& k : {g1, g2, s1g1, s2g2}) {
            EXPECT_EQ(f.has(k), !(c.immediate && c.gone.contains(k)))
                << "before review " << k.str();
        }
        f.settle();
        for (const auto& k : {g1, g2, s1g1, s2g2})
            EXPECT_EQ(f.has(k), !c.gone.contains(k)) << k.str();
        EXPECT_EQ(f.localStatus->numClearMroutes(), c.immediate ? 0u : 1u);
    }
}

TEST(RouteReviewSm, TwoClearRequestsBeforeOneReviewClearExactlyWhatEachNames) {
    using F = Routing::Pim::MrouteClearFlags;
    const auto s1g1 = sg("10.1.0.1", "239.1.1.1"), s2g2 = sg("10.1.0.2", "239.2.2.2");
    const auto g1 = wc("239.1.1.1"), g2 = wc("239.2.2.2");
    ReviewFixture f;
    for (const auto& k : {g1, g2, s1g1, s2g2}) f.route(k);
    f.clearConfig->clearRoutesIs(ip("239.1.1.1"), Wirl::IpGenAddr(), {F::Bit::group});
    f.clearConfig->clearRoutesIs(Wirl::IpGenAddr(), ip("10.1.0.2"), {F::Bit::source});
    f.settle();
    EXPECT_FALSE(f.has(g1));
    EXPECT_FALSE(f.has(s1g1));
    EXPECT_FALSE(f.has(s2g2));
    EXPECT_TRUE(f.has(g2)) << "named by neither request";
    EXPECT_EQ(f.localStatus->numClearMroutes(), 2u);
}

TEST(RouteReviewSm, HandsRoutesTheChangesThatTouchTheirUpstream) {
    struct Case {
        const char* name;
        std::function<void(ReviewFixture&)> apply;
        ChangeFlags expected;
        const char* trace;
    };
    const std::vector<Case> cases = {
        {"DR on the RPF interface",
         [](ReviewFixture& f) { f.pimIntf("up1").usedDrIs(ip("10.0.1.5")); },
         {Bit::rpfIntfStatus, Bit::rpfDrStatus},
         "Became DR on up1 which is the RPF interface for (10.1.0.1, 239.1.1.1)"},
        {"RPF neighbour restarted",
         [](ReviewFixture& f) { f.pimIntf("up1").neighbor(ip("10.0.1.2"))->genIdIs(3); },
         {Bit::rpfNbrGenId},
         "Gen ID changed for RPF neighbor 10.0.1.2 for route"},
        {"RPF neighbour flapped",
         [](ReviewFixture& f) {
             auto& up1 = f.pimIntf("up1");
             up1.neighborDel(ip("10.0.1.2"));
             f.pim->activeNeighborDel({intf("up1"), ip("10.0.1.2")});
             f.neighborIs(up1, ip("10.0.1.2"));
         },
         {Bit::rpfNbrStatus},
         "Neighbor 10.0.1.2 flapped for route (10.1.0.1, 239.1.1.1)"},
        {"boundary on the RPF interface",
         [](ReviewFixture& f) {
             auto b =
                 Cask::make<Routing::McastBoundary::IntfBoundary>(intf("up1"), ReviewFixture::v4);
             Wirl::AddressRangeSet groups(ReviewFixture::v4);
             groups.add(*Wirl::IpGenPrefix::parse("239.0.0.0/8"));
             b->groupsIs(groups);
             f.boundary->intfIs(intf("up1"), b);
         },
         {Bit::rpfIntfStatus, Bit::rpfBoundary},
         "Boundary status changed for RPF interface up1"},
        {"previous RPF interface",
         [](ReviewFixture& f) { f.pimIntf("up2").usedAddrIs(ip("10.0.2.6")); },
         {Bit::prevRpfIntfStatus},
         "Status changed for prev RPF interface up2"},
        {"downstream interface only",
         [](ReviewFixture& f) { f.pimIntf("d2").usedDrIs(ip("10.0.4.5")); },
         {},
         "change flags: none"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ReviewFixture f;
        Route& r = f.route(sg("10.1.0.1", "239.1.1.1"));
        r.umh()->prevRpfIs(f.upstream("up2"));
        ChangeRecorder rec(r);
        c.apply(f);
        f.settle();
        if (c.expected.empty()) {
            EXPECT_TRUE(rec.seen.empty());
        } else {
            EXPECT_EQ(rec.seen, std::vector<ChangeFlags>{c.expected});
        }
        EXPECT_TRUE(r.changeFlags().empty());
        EXPECT_TRUE(Cask::trace().contains(c.trace));
    }
}

TEST(RouteReviewSm, RewritesForwardingEntriesAndPassesRpfRouteChanges) {
    ReviewFixture f;
    Route& a = f.route(sg("10.1.0.1", "239.1.1.1"));
    Route& b = f.route(sg("10.1.0.2", "239.1.1.1"));
    f.mfibConfig->clearMfibCountInc();
    f.settle();
    EXPECT_EQ(a.mfibChangeCount(), 1u);
    EXPECT_EQ(b.mfibChangeCount(), 1u);
    ChangeRecorder recA(a), recB(b);
    f.rpfStatus->rpfRouteChangedIs({a.key(), sg("10.9.9.9", "239.1.1.1")});
    EXPECT_EQ(recA.seen, std::vector<ChangeFlags>{ChangeFlags{Bit::rpfRouteChanged}});
    EXPECT_TRUE(recB.seen.empty());
    EXPECT_EQ(f.loop.armedTimers(), 0u);  // applied at once, no review
}

TEST(RouteReviewSm, FastFailoverFilterAddsAndRemovesBackupUpstreams) {
    ReviewFixture f;
    Route& in = f.route(sg("10.1.0.1", "239.1.1.1"));
    Route& out = f.route(sg("10.1.0.1", "239.2.2.2"));
    f.rpfStatus->rpfIs(ip("10.1.0.1"), f.upstream("up2"));
    Wirl::AddressRangeSet frr(ReviewFixture::v4);
    frr.add(*Wirl::IpGenPrefix::parse("239.1.0.0/16"));
    f.localStatus->frrFilterStatus()->frrRangeIs(frr);
    f.settle();
    ASSERT_NE(in.umhFrr(), nullptr);
    EXPECT_TRUE(in.umhFrr()->frr());
    EXPECT_EQ(in.rpfFrr(), f.upstream("up2"));
    EXPECT_EQ(out.umhFrr(), nullptr);
    f.localStatus->frrFilterStatus()->frrRangeIs(Wirl::AddressRangeSet(ReviewFixture::v4));
    f.settle();
    EXPECT_EQ(in.umhFrr(), nullptr);
}

}  // namespace
