// The route review: slicing and scheduling, the alternating change sets,
// deletion and resurrection, range changes, clear requests, and the change
// flags it hands to routes.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "pimsm/test_vrf.h"

namespace {

using namespace Routing::Pim::SparseMode;
using namespace Routing::Pim::SparseMode::Testing;
using Bit = ChangeFlags::Bit;

// The route keys of the "Reviewing route" trace lines, in order.
std::vector<std::string> reviewed() {
    std::vector<std::string> out;
    for (const auto& l : Cask::trace().lines()) {
        auto at = l.text.find(": Reviewing route ");
        if (at != std::string::npos) out.push_back(l.text.substr(at + 18));
    }
    return out;
}

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
    TestVrf f{TestVrf::Layout::twoUpstreams};
    const int routes = 40;
    for (int i = 1; i <= routes; ++i) f.route(sg(fmt::format("10.1.0.{}", i), "239.1.1.1"), {"d1"});
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
        slices.push_back(reviewed().size() - before);
        before = reviewed().size();
        ASSERT_LT(slices.size(), 50u);
    } while (!f.routeReviewSm().reviewBookmark().isNull());
    // Every route costs the same clock reads (how many depends on the machines
    // that react to its flags; the runner's own boundary is tested with the
    // runner). The first slice has its turn to itself; a later one shares its
    // turn's budget with the forwarding builds the slice before it left over,
    // so it is never larger. Each route is reviewed once.
    EXPECT_EQ(before, std::size_t(routes));
    ASSERT_GE(slices.size(), 3u);
    EXPECT_GE(slices[0], 2u);
    for (std::size_t i = 1; i < slices.size(); ++i) {
        EXPECT_LE(slices[i], slices[0]) << i;
        EXPECT_GE(slices[i], 1u) << i;
    }
    EXPECT_EQ(traced("<Vrf:red>RouteReviewSm: Starting new review"), 1u);
    EXPECT_EQ(traced("<Vrf:red>RouteReviewSm: Suspending review at: "), slices.size() - 1);
    EXPECT_EQ(traced("<Vrf:red>RouteReviewSm: Resuming review at: "), slices.size() - 1);
    EXPECT_EQ(traced("<Vrf:red>RouteReviewSm: Finished review"), 1u);
}

TEST(RouteReviewSm, WaitsForStatusAndSchedulesNothingWithoutChanges) {
    TestVrf f{TestVrf::Layout::twoUpstreams};
    // As while the routes of an earlier run are still being read back.
    f.status().initializedIs(false);
    f.route(wc("239.1.1.1"), {"d1"});
    f.pimIntf("up1").usedDrIs(ip("10.0.1.5"));
    f.settle();
    EXPECT_TRUE(reviewed().empty());
    EXPECT_GE(
        traced("<Vrf:red>RouteReviewSm::doUpdateReviewTimer(): wait for all routes to be read"),
        1u);
    f.status().initializedIs(true);
    f.settle();
    EXPECT_EQ(reviewed(), (std::vector<std::string>{"(*, 239.1.1.1), change flags: "
                                                    "rpfIntfStatus|rpfDrStatus"}));
    // Nothing recorded since: asking again arms nothing.
    Cask::trace().clear();
    f.routeReviewSm().doUpdateReviewTimer();
    EXPECT_TRUE(
        Cask::trace().contains("RouteReviewSm::doUpdateReviewTimer(): changeSet is empty!!!"));
    EXPECT_EQ(f.loop.armedTimers(), 0u);
}

TEST(RouteReviewSm, ChangeDuringSuspendedReviewWaitsForExactlyOneMoreReview) {
    TestVrf f{TestVrf::Layout::twoUpstreams};
    for (int i = 1; i <= 3; ++i) f.route(sg(fmt::format("10.1.0.{}", i), "239.1.1.1"), {"d1"});
    f.routeReviewSm().reviewQuantumIs(0.5);
    f.clock.advancePerReadIs(1.0);  // one route per slice
    f.pimIntf("up1").usedDrIs(ip("10.0.1.5"));
    f.clock.advanceBy(1);
    ASSERT_TRUE(f.loop.runOnce());
    ASSERT_EQ(reviewed().size(), 1u);
    ASSERT_FALSE(f.routeReviewSm().reviewBookmark().isNull());
    f.pimIntf("up1").neighbor(ip("10.0.1.2"))->genIdIs(7);
    f.settle();
    std::vector<std::string> flags;
    for (const auto& line : reviewed()) flags.push_back(line.substr(line.find("flags: ") + 7));
    EXPECT_EQ(flags,
              (std::vector<std::string>{"rpfIntfStatus|rpfDrStatus", "rpfIntfStatus|rpfDrStatus",
                                        "rpfIntfStatus|rpfDrStatus", "rpfNbrGenId", "rpfNbrGenId",
                                        "rpfNbrGenId"}));
    EXPECT_EQ(traced("RouteReviewSm: Starting new review"), 2u);
    EXPECT_FALSE(f.routeReviewSm().reviewTimer()->timer().armed());
}

TEST(RouteReviewSm, ResumesAfterTheBookmarkedRouteWhenItWasDeleted) {
    TestVrf f{TestVrf::Layout::twoUpstreams};
    for (int i = 1; i <= 5; ++i) f.route(sg(fmt::format("10.1.0.{}", i), "239.1.1.1"), {"d1"});
    f.routeReviewSm().reviewQuantumIs(0.5);
    f.clock.advancePerReadIs(1.0);
    f.pimIntf("up1").usedDrIs(ip("10.0.1.5"));
    f.clock.advanceBy(1);
    ASSERT_TRUE(f.loop.runOnce());
    ASSERT_EQ(f.routeReviewSm().reviewBookmark(), sg("10.1.0.2", "239.1.1.1"));
    f.status().routeDel(sg("10.1.0.2", "239.1.1.1"));
    f.settle();
    std::vector<std::string> keys;
    for (const auto& line : reviewed()) keys.push_back(line.substr(0, line.find(',', 12)));
    EXPECT_EQ(keys, (std::vector<std::string>{"(10.1.0.1, 239.1.1.1)", "(10.1.0.3, 239.1.1.1)",
                                              "(10.1.0.4, 239.1.1.1)", "(10.1.0.5, 239.1.1.1)"}));
}

TEST(RouteReviewSm, MarkedRouteIsResurrectedWithItsIncludeMembersOnly) {
    using Routing::Gmp::Tidal::FilterMode;
    struct Case {
        const char* name;
        std::vector<std::pair<const char*, FilterMode>> members;
        std::vector<const char*> after;  // empty: the route is gone
        bool resurrected;  // else deleted, and re-created by GmpSm from its memberships
    };
    const std::vector<Case> cases = {
        {"include on d1", {{"d1", FilterMode::include}}, {"d1"}, true},
        {"include on both",
         {{"d1", FilterMode::include}, {"d2", FilterMode::include}},
         {"d1", "d2"},
         true},
        {"no member", {}, {}, false},
        {"exclude only", {{"d2", FilterMode::exclude}}, {"d2"}, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TestVrf f{TestVrf::Layout::twoUpstreams};
        const auto key = wc("239.1.1.1");
        Route& old = f.route(key, {"d1", "d2"});
        old.routeIntfRaw(IntfId("d2"))->joinStateIs(JoinState::joined);
        for (auto [name, mode] : c.members) f.join({key, IntfId(name)}, mode);
        f.settle();  // the memberships are decided before the mark
        const Cask::Ptr<Route> keep(&old);
        old.markedForDeletionIs(true);
        EXPECT_TRUE(f.localStatus().toBeDeletedRouteHas(key));
        f.settle();
        EXPECT_FALSE(f.localStatus().toBeDeletedRouteHas(key));
        auto now = f.status().route(key);
        if (c.after.empty()) {
            EXPECT_FALSE(now);
            EXPECT_FALSE(f.localStatus().wcRouteHas(key));
            continue;
        }
        ASSERT_TRUE(now);
        EXPECT_NE(now.get(), &old);
        EXPECT_EQ(f.localStatus().wcRoute(key), now);
        EXPECT_TRUE(now->initialized());
        EXPECT_FALSE(now->markedForDeletion());
        std::vector<const char*> names;
        for (const auto& [id, i] : now->routeIntf()) {
            names.push_back(id.name().c_str());
            EXPECT_TRUE(i->initialized());
            EXPECT_EQ(i->localReceiverInclude(), c.resurrected);
            EXPECT_EQ(i->localReceiverExclude(), !c.resurrected);
            EXPECT_EQ(i->joinState(), JoinState::noInfo);  // fresh state
        }
        EXPECT_EQ(names.size(), c.after.size());
        for (std::size_t i = 0; i < names.size() && i < c.after.size(); ++i) {
            EXPECT_STREQ(names[i], c.after[i]);
        }
        EXPECT_EQ(Cask::trace().contains("Resurrecting route (*, 239.1.1.1)"), c.resurrected);
    }
}

TEST(RouteReviewSm, RangeChangesDeleteOnlyTheRoutesOfNewlyExcludedGroups) {
    const auto ranges = [&](std::vector<const char*> ps) {
        Wirl::AddressRangeSet s(Wirl::AddressFamily::ipv4);
        for (auto* p : ps) s.add(prefix(p));
        return s;
    };
    struct Case {
        const char* name;
        std::function<void(TestVrf&)> apply;
        std::set<RouteKey> gone;
    };
    const std::vector<Case> cases = {
        {"SSM range extended",
         [&](TestVrf& f) {
             f.config().ssmRangeIs(ranges({"232.0.0.0/8", "239.1.0.0/16"}));
         },
         {wc("239.1.1.1"), sg("10.1.0.1", "239.1.1.1")}},
        {"SSM range shrunk",
         [&](TestVrf& f) { f.config().ssmRangeIs(ranges({"232.0.0.0/16"})); },
         {}},
        {"SSM range extended then shrunk back",
         [&](TestVrf& f) {
             f.config().ssmRangeIs(ranges({"232.0.0.0/8", "239.3.0.0/16"}));
             f.settle();
             f.config().ssmRangeIs(ranges({"232.0.0.0/8"}));
         },
         {}},
        {"bidirectional range added",
         [&](TestVrf& f) {
             f.localStatus().groupFilterStatus()->bidirRangeIs(ranges({"239.2.0.0/16"}));
         },
         {wc("239.2.2.2")}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TestVrf f{TestVrf::Layout::twoUpstreams};
        const std::vector<RouteKey> keys = {wc("239.1.1.1"), sg("10.1.0.1", "239.1.1.1"),
                                            wc("239.2.2.2"), sg("10.1.0.1", "232.1.1.1")};
        for (const auto& k : keys) f.route(k, {"d1"});
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
        TestVrf f{TestVrf::Layout::twoUpstreams};
        for (const auto& k : {g1, g2, s1g1, s2g2}) f.route(k, {"d1"});
        const auto addr = [](const char* a) { return *a ? ip(a) : Wirl::IpGenAddr(); };
        f.clearConfig().clearRoutesIs(addr(c.group), addr(c.source), c.flags);
        for (const auto& k : {g1, g2, s1g1, s2g2}) {
            EXPECT_EQ(f.has(k), !(c.immediate && c.gone.contains(k)))
                << "before review " << k.str();
        }
        f.settle();
        for (const auto& k : {g1, g2, s1g1, s2g2})
            EXPECT_EQ(f.has(k), !c.gone.contains(k)) << k.str();
        EXPECT_EQ(f.localStatus().numClearMroutes(), c.immediate ? 0u : 1u);
    }
}

TEST(RouteReviewSm, TwoClearRequestsBeforeOneReviewClearExactlyWhatEachNames) {
    using F = Routing::Pim::MrouteClearFlags;
    const auto s1g1 = sg("10.1.0.1", "239.1.1.1"), s2g2 = sg("10.1.0.2", "239.2.2.2");
    const auto g1 = wc("239.1.1.1"), g2 = wc("239.2.2.2");
    TestVrf f{TestVrf::Layout::twoUpstreams};
    for (const auto& k : {g1, g2, s1g1, s2g2}) f.route(k, {"d1"});
    f.clearConfig().clearRoutesIs(ip("239.1.1.1"), Wirl::IpGenAddr(), {F::Bit::group});
    f.clearConfig().clearRoutesIs(Wirl::IpGenAddr(), ip("10.1.0.2"), {F::Bit::source});
    f.settle();
    EXPECT_FALSE(f.has(g1));
    EXPECT_FALSE(f.has(s1g1));
    EXPECT_FALSE(f.has(s2g2));
    EXPECT_TRUE(f.has(g2)) << "named by neither request";
    EXPECT_EQ(f.localStatus().numClearMroutes(), 2u);
}

TEST(RouteReviewSm, HandsRoutesTheChangesThatTouchTheirUpstream) {
    struct Case {
        const char* name;
        std::function<void(TestVrf&)> apply;
        ChangeFlags expected;
        const char* trace;
    };
    const std::vector<Case> cases = {
        {"DR on the RPF interface",
         [](TestVrf& f) { f.pimIntf("up1").usedDrIs(ip("10.0.1.5")); },
         {Bit::rpfIntfStatus, Bit::rpfDrStatus},
         "Became DR on up1 which is the RPF interface for (10.1.0.1, 239.1.1.1)"},
        {"RPF neighbour restarted",
         [](TestVrf& f) { f.pimIntf("up1").neighbor(ip("10.0.1.2"))->genIdIs(3); },
         {Bit::rpfNbrGenId},
         "Gen ID changed for RPF neighbor 10.0.1.2 for route"},
        {"RPF neighbour flapped",
         [](TestVrf& f) {
             f.neighborDel("up1", ip("10.0.1.2"));
             f.neighborIs("up1", ip("10.0.1.2"));
         },
         {Bit::rpfNbrStatus},
         "Neighbor 10.0.1.2 flapped for route (10.1.0.1, 239.1.1.1)"},
        {"boundary on the RPF interface",
         [](TestVrf& f) {
             auto b = Cask::make<Routing::McastBoundary::IntfBoundary>(IntfId("up1"),
                                                                       Wirl::AddressFamily::ipv4);
             Wirl::AddressRangeSet groups(Wirl::AddressFamily::ipv4);
             groups.add(prefix("239.0.0.0/8"));
             b->groupsIs(groups);
             f.boundary().intfIs(IntfId("up1"), b);
         },
         {Bit::rpfIntfStatus, Bit::rpfBoundary},
         "Boundary status changed for RPF interface up1"},
        {"previous RPF interface",
         [](TestVrf& f) { f.pimIntf("up2").usedAddrIs(ip("10.0.2.6")); },
         {Bit::prevRpfIntfStatus},
         "Status changed for prev RPF interface up2"},
        {"downstream interface only",
         [](TestVrf& f) { f.pimIntf("d2").usedDrIs(ip("10.0.4.5")); },
         {},
         "change flags: none"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TestVrf f{TestVrf::Layout::twoUpstreams};
        Route& r = f.route(sg("10.1.0.1", "239.1.1.1"), {"d1"});
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
    TestVrf f{TestVrf::Layout::twoUpstreams};
    Route& a = f.route(sg("10.1.0.1", "239.1.1.1"), {"d1"});
    Route& b = f.route(sg("10.1.0.2", "239.1.1.1"), {"d1"});
    f.mfibConfig().clearMfibCountInc();
    f.settle();
    EXPECT_EQ(a.mfibChangeCount(), 1u);
    EXPECT_EQ(b.mfibChangeCount(), 1u);
    ChangeRecorder recA(a), recB(b);
    // A more specific unicast route toward a's source only.
    f.unicastRouteIs(prefix("10.1.0.1/32"), "up2", ip("10.0.2.2"));
    EXPECT_EQ(recA.seen, std::vector<ChangeFlags>{ChangeFlags{Bit::rpfRouteChanged}});
    EXPECT_TRUE(recB.seen.empty());
    // Applied at once, no review.
    EXPECT_FALSE(f.routeReviewSm().reviewTimer()->timer().armed());
}

TEST(RouteReviewSm, FastFailoverFilterAddsAndRemovesBackupUpstreams) {
    TestVrf f{TestVrf::Layout::twoUpstreams};
    Route& in = f.route(sg("10.1.0.1", "239.1.1.1"), {"d1"});
    Route& out = f.route(sg("10.1.0.1", "239.2.2.2"), {"d1"});
    f.unicastRouteIs(prefix("10.1.0.0/24"), "up2", ip("10.0.2.2"));
    Wirl::AddressRangeSet frr(Wirl::AddressFamily::ipv4);
    frr.add(prefix("239.1.0.0/16"));
    f.localStatus().frrFilterStatus()->frrRangeIs(frr);
    f.settle();
    ASSERT_NE(in.umhFrr(), nullptr);
    EXPECT_TRUE(in.umhFrr()->frr());
    EXPECT_EQ(in.rpfFrr(), f.upstream("up2"));
    EXPECT_EQ(out.umhFrr(), nullptr);
    f.localStatus().frrFilterStatus()->frrRangeIs(Wirl::AddressRangeSet(Wirl::AddressFamily::ipv4));
    f.settle();
    EXPECT_EQ(in.umhFrr(), nullptr);
}

}  // namespace
