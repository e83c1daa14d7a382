// The upstream (*,G) machine and the RP mapping review that feeds it.
#include <string>

#include <gtest/gtest.h>

#include "cask/trace.h"
#include "pimsm/test_vrf.h"

namespace Routing::Pim::SparseMode::Testing {
namespace {

using Routing::Pim::JoinPruneGroupData;
using Routing::Pim::JoinPruneMessageInfo;

// The two-upstream layout with this router DR everywhere: the RP 10.9.9.9 is
// reached through "up1" until a test moves the unicast route to "up2".
// Receivers sit on "d1".
struct Upstream {
    TestVrf vrf{TestVrf::Layout::twoUpstreamsIAmDr};
    const IpGenAddr rp = ip("10.9.9.9");
    const IpGenAddr group = ip("239.1.1.1");
    const IpGenAddr nbr1 = ip("10.0.1.2"), nbr2 = ip("10.0.2.2");
    const IntfId up1{"up1"}, up2{"up2"}, d1{"d1"};
    const RouteKey key = wc("239.1.1.1");

    UpstreamWcSm& sm() { return vrf.upstreamWcSm(); }
    Routing::Pim::JoinPruneStatus& jp() { return vrf.joinPrune(); }
    void unicastVia(std::string_view intf, const IpGenAddr& nextHop) {
        vrf.unicastRouteIs(prefix("10.9.9.0/24"), intf, nextHop);
    }
    Route& route() { return vrf.route(key); }
    // A local receiver on d1 makes JoinDesired(*,G) true.
    void receiverIs(bool on) { route().routeIntfIs(d1)->localReceiverIncludeIs(on); }
    // Hands the route change flags the way the route review does.
    void handOver(ChangeFlags f) {
        route().changeFlagsIs(f);
        route().changeFlagsIs(ChangeFlags{});
    }

    // The group's entry in a neighbour's set: nullptr when absent.
    enum class Set { periodic, triggered, override_ };
    const JoinPruneGroupData* groupData(const IpGenAddr& n, Set s,
                                        const IpGenAddr* g = nullptr) const {
        const auto* e = vrf.joinPrune().neighbor(n == nbr2 ? up2 : up1, n);
        if (!e) return nullptr;
        auto& set = s == Set::periodic    ? e->periodic()
                    : s == Set::triggered ? e->pendingTriggered()
                                          : e->pendingOverride();
        return set.joinPruneGroupData(g ? *g : group);
    }
    // "join", "prune" or "" for the RP's (*,G) entry.
    std::string entry(const IpGenAddr& n, Set s) const {
        const JoinPruneGroupData* gd = groupData(n, s);
        if (!gd || !gd->wcSourceDataHas(rp)) return "";
        return gd->wcSourceData(rp).join ? "join" : "prune";
    }
    JoinPruneMessageInfo message(const IpGenAddr& upstream, const IpGenAddr& sender) const {
        JoinPruneMessageInfo m;
        m.riKey = key;
        m.sourceFlags.wildcard = m.sourceFlags.rpt = true;
        m.sender = sender;
        m.upstreamNeighbor = upstream;
        m.wcSource = rp;
        m.intf = upstream == nbr2 ? up2 : up1;
        return m;
    }
};

using Set = Upstream::Set;

TEST(UpstreamWcSm, AtTheRpJoinedWithoutUpstreamAndWritesNothing) {
    Upstream f;
    f.vrf.rpLocal().localRpIs(f.rp);
    f.receiverIs(true);
    EXPECT_EQ(f.route().upJoinState(), UpJoinState::upJoined);
    EXPECT_FALSE(f.route().rpf().hasNeighbor());
    EXPECT_EQ(f.route().umh()->rp(), f.rp);
    for (const auto& [k, nbr] : f.jp().neighbor()) {
        EXPECT_EQ(nbr->periodic().joinPruneGroupDataSize(), 0u) << k.str();
        EXPECT_EQ(nbr->pendingTriggered().joinPruneGroupDataSize(), 0u) << k.str();
    }
    EXPECT_TRUE(Cask::trace().contains("rpfPrimeWc: I am RP 10.9.9.9 for route (*, 239.1.1.1)"));
}

TEST(UpstreamWcSm, JoinWritesPeriodicAndTriggeredLeavePrunesOnlyAnActiveNeighbor) {
    for (bool stillActive : {true, false}) {
        SCOPED_TRACE(stillActive);
        Upstream f;
        f.receiverIs(true);
        EXPECT_EQ(f.route().upJoinState(), UpJoinState::upJoined);
        EXPECT_EQ(f.route().rpf(), (Rpf{f.up1, f.nbr1, 110, 20}));
        EXPECT_EQ(f.entry(f.nbr1, Set::periodic), "join");
        EXPECT_EQ(f.entry(f.nbr1, Set::triggered), "join");
        // The triggered Join carries the group's periodic (S,G,rpt) prunes.
        EXPECT_EQ(f.groupData(f.nbr1, Set::triggered)->periodicPrunedRptGroupData().get(),
                  f.groupData(f.nbr1, Set::periodic));
        EXPECT_TRUE(f.route().routeIntf(f.d1)->forward());
        EXPECT_TRUE(Cask::eventLog().contains(
            "UpstreamWcSm: Add intf d1 to OIF set of route (*, 239.1.1.1)"));
        EXPECT_TRUE(Cask::eventLog().contains("upNotJoined --> upJoined"));

        // The packet side sent the triggered Join.
        f.jp().neighbor(f.up1, f.nbr1)->pendingSent();
        if (!stillActive) f.vrf.pim().activeNeighborDel(NeighborKey{f.up1, f.nbr1});
        f.receiverIs(false);
        EXPECT_EQ(f.route().upJoinState(), UpJoinState::upNotJoined);
        EXPECT_EQ(f.groupData(f.nbr1, Set::periodic), nullptr);
        EXPECT_EQ(f.entry(f.nbr1, Set::triggered), stillActive ? "prune" : "");
        EXPECT_FALSE(f.route().routeIntf(f.d1)->forward());
        EXPECT_TRUE(Cask::eventLog().contains(
            "UpstreamWcSm: Remove intf d1 from OIF set of  route (*, 239.1.1.1)"));
    }
}

TEST(UpstreamWcSm, TheIncomingInterfaceNeverForwardsEvenWithAReceiver) {
    Upstream f;
    f.receiverIs(true);
    f.route().routeIntfIs(f.up1)->localReceiverIncludeIs(true);
    ASSERT_EQ(f.route().iif(), f.up1);
    EXPECT_TRUE(f.route().routeIntf(f.d1)->forward());
    EXPECT_FALSE(f.route().routeIntf(f.up1)->forward());
    // Once RPF moves away from up1, its receiver is served like any other.
    f.unicastVia("up2", f.nbr2);
    ASSERT_EQ(f.route().iif(), f.up2);
    EXPECT_TRUE(f.route().routeIntf(f.up1)->forward());
}

TEST(UpstreamWcSm, RpfPrimeMovesTheJoinAndPrunesTheOldNeighborOnlyIfActive) {
    struct Case {
        const char* name;
        bool assertLoss;  // else a unicast change toward up2
        bool oldActive;
    };
    for (const Case c : {Case{"unicast", false, true}, Case{"unicast, old gone", false, false},
                         Case{"assert loss", true, true}}) {
        SCOPED_TRACE(c.name);
        Upstream f;
        const IpGenAddr winner = ip("10.0.1.3");
        f.vrf.neighborIs("up1", winner);
        f.receiverIs(true);
        f.jp().neighbor(f.up1, f.nbr1)->pendingSent();
        if (!c.oldActive) f.vrf.pim().activeNeighborDel(NeighborKey{f.up1, f.nbr1});
        Rpf expected;
        if (c.assertLoss) {
            AssertMetric m{true, 100, 10, winner};
            f.route().routeIntfIs(f.up1)->assertInfoIs(AssertInfo{AssertState::iAmAssertLoser, m});
            expected = Rpf{f.up1, winner, 110, 20};
            EXPECT_TRUE(Cask::trace().contains(
                "rpfPrimeWc(*, 239.1.1.1): I am assert loser, RPF up1 via 10.0.1.3"));
        } else {
            f.unicastVia("up2", f.nbr2);
            expected = Rpf{f.up2, f.nbr2, 110, 20};
        }
        EXPECT_EQ(f.route().rpf(), expected);
        const IntfId newIntf = expected.intf;
        const auto* moved = f.jp().neighbor(newIntf, expected.neighbor);
        ASSERT_NE(moved, nullptr);
        EXPECT_TRUE(moved->periodic().joinPruneGroupData(f.group)->wcSourceData(f.rp).join);
        EXPECT_TRUE(moved->pendingTriggered().joinPruneGroupData(f.group)->wcSourceData(f.rp).join);
        EXPECT_EQ(f.groupData(f.nbr1, Set::periodic), nullptr);
        EXPECT_EQ(f.entry(f.nbr1, Set::triggered), c.oldActive ? "prune" : "");
        EXPECT_TRUE(Cask::trace().contains("cleanup prevNeighbor: 10.0.1.2 intfId: up1"));
    }
}

TEST(UpstreamWcSm, ChangeFlagsResendToARestartedNeighborAndIgnoreOthers) {
    struct Case {
        ChangeFlags flags;
        bool resent;
        const char* text;
    };
    using Bit = ChangeFlags::Bit;
    for (const Case c :
         {Case{{Bit::rpfNbrGenId},
               true,
               "Sending triggered joins: (*, 239.1.1.1) "
               "intfId: up1 neighbor: 10.0.1.2"},
          Case{{Bit::mbrIntfStatus}, false, "Ignoring change flags: mbrIntfStatus"}}) {
        SCOPED_TRACE(c.text);
        Upstream f;
        f.receiverIs(true);
        f.jp().neighbor(f.up1, f.nbr1)->pendingSent();
        f.handOver(c.flags);
        EXPECT_EQ(f.entry(f.nbr1, Set::triggered), c.resent ? "join" : "");
        EXPECT_TRUE(Cask::trace().contains(c.text));
    }
}

TEST(UpstreamWcSm, JoinSuppressionPruneOverrideAndIgnoredMessages) {
    Upstream f;
    const IpGenAddr other = ip("10.0.1.7"), third = ip("10.0.1.3");
    f.vrf.neighborIs("up1", other);
    f.vrf.neighborIs("up1", third);
    f.receiverIs(true);

    f.vrf.rx().rxJoinIs(f.message(f.nbr1, other));
    EXPECT_TRUE(f.groupData(f.nbr1, Set::periodic)->wcSourceData(f.rp).wcSuppressed);
    f.vrf.rx().rxPruneIs(f.message(f.nbr1, other));
    EXPECT_EQ(f.entry(f.nbr1, Set::override_), "join");
    EXPECT_EQ(f.groupData(f.nbr1, Set::override_)->periodicPrunedRptGroupData().get(),
              f.groupData(f.nbr1, Set::periodic));
    EXPECT_EQ(f.sm().ignoredRxJoins(), 0u);
    EXPECT_EQ(f.sm().ignoredRxPrunes(), 0u);

    struct Bad {
        const char* name;
        JoinPruneMessageInfo m;
        const char* text;
    };
    JoinPruneMessageInfo sg = f.message(f.nbr1, other);
    sg.sourceFlags = {};
    JoinPruneMessageInfo noRoute = f.message(f.nbr1, other);
    noRoute.riKey = RouteKey::wc(ip("239.2.2.2"));
    const Bad bad[] = {
        {"to another neighbour", f.message(third, other),
         "Message not to RPF'(S,G) or prev RPF'(S,G)"},
        {"not (*,G)", sg, ", Message not for (*,G)"},
        {"from a non-neighbour", f.message(f.nbr1, ip("10.0.1.99")), "Message from non-neighbor"},
        {"no route", noRoute, ", No route for (*, 239.2.2.2)"},
    };
    std::uint32_t n = 0;
    for (const Bad& b : bad) {
        SCOPED_TRACE(b.name);
        ++n;
        Cask::trace().clear();
        f.vrf.rx().rxJoinIs(b.m);
        f.vrf.rx().rxPruneIs(b.m);
        EXPECT_EQ(f.sm().ignoredRxJoins(), n);
        EXPECT_EQ(f.sm().ignoredRxPrunes(), n);
        EXPECT_TRUE(Cask::trace().contains(b.text));
    }
    EXPECT_EQ(f.groupData(third, Set::override_), nullptr);

    // Not joined: counted too, and nothing is suppressed or overridden.
    f.receiverIs(false);
    f.vrf.rx().rxPruneIs(f.message(f.nbr1, other));
    EXPECT_EQ(f.sm().ignoredRxPrunes(), n + 1);
    EXPECT_TRUE(Cask::trace().contains(", Not in joined state for route to (*, 239.1.1.1)"));
}

TEST(UpstreamWcSm, LeavingDuringAnIifSwitchCleansBothNeighborsAndCancelsIt) {
    Upstream f;
    f.receiverIs(true);
    const Rpf old = f.route().rpf();
    // What a make-before-break switch leaves: joined at the new neighbour,
    // the old one held as the previous RPF.
    f.route().iifSwitchingIs(true);
    f.route().umh()->doUpdateRpf(Rpf{f.up2, f.nbr2, 110, 20});
    f.route().umh()->prevRpfIs(old);
    ASSERT_EQ(f.entry(f.nbr1, Set::periodic), "join");
    ASSERT_EQ(f.entry(f.nbr2, Set::periodic), "join");

    f.receiverIs(false);
    EXPECT_EQ(f.entry(f.nbr1, Set::periodic), "");
    EXPECT_EQ(f.entry(f.nbr2, Set::periodic), "");
    EXPECT_EQ(f.entry(f.nbr1, Set::triggered), "prune");
    EXPECT_EQ(f.entry(f.nbr2, Set::triggered), "prune");
    EXPECT_FALSE(f.route().iifSwitching());
    EXPECT_FALSE(f.route().prevRpf().resolved());
    EXPECT_TRUE(Cask::eventLog().contains("cancel iifSwitching"));
}

// A machine started over the VRF as it is: a periodic Join whose route came
// back stays, the one of a route that did not is gone when it says it is
// initialized.
TEST(UpstreamWcSm, RestartDeletesPeriodicJoinsOfVanishedRoutesBeforeInitialized) {
    Upstream f;
    f.route();  // 239.1.1.1 came back; 239.3.3.3 did not
    const IpGenAddr gone = ip("239.3.3.3");
    auto& periodic = f.jp().neighbor(f.up1, f.nbr1)->periodic();
    periodic.joinPruneGroupDataIs(f.group).wcSourceDataIs(f.rp, true);
    periodic.joinPruneGroupDataIs(gone).wcSourceDataIs(f.rp, true);

    struct Watcher : UpstreamWcSm::Notifiee {
        const Routing::Pim::JoinPruneData* set = nullptr;
        IpGenAddr group;
        bool goneAtInit = false;
        void handleInitialized() override { goneAtInit = !set->joinPruneGroupDataHas(group); }
    } watcher;
    watcher.set = &periodic;
    watcher.group = gone;
    auto sm = Cask::make<UpstreamWcSm>(f.vrf.ctx());
    watcher.notifierIs(sm.get());
    sm->handleInitialized();
    EXPECT_TRUE(sm->initialized());
    EXPECT_TRUE(watcher.goneAtInit);
    EXPECT_TRUE(periodic.joinPruneGroupDataHas(f.group));
    EXPECT_TRUE(Cask::eventLog().contains(
        "UpstreamWcSm:handleInitialized(): delete *,g join. (*, 239.3.3.3) to neighbor: 10.0.1.2 "
        "on up1"));
    watcher.notifierIs(nullptr);
}

TEST(UpstreamWcSm, MissingRpOrRpfKeepsTheJoinStateAndWritesNothing) {
    for (bool noRp : {true, false}) {
        Upstream f;
        if (noRp) {
            f.vrf.rpMapping().rpDelAll();
        } else {
            f.vrf.unicastRouteDel(prefix("10.9.9.0/24"));
        }
        f.receiverIs(true);
        EXPECT_EQ(f.route().upJoinState(), UpJoinState::upJoined);
        EXPECT_EQ(f.entry(f.nbr1, Set::periodic), "");
        EXPECT_TRUE(Cask::trace().contains("rpfPrimeWc: No RPF info for group 239.1.1.1"));
        // RPF information arrives: the RP mapping review or the RPF change
        // it causes joins.
        f.vrf.rpIs(prefix("239.0.0.0/8"), f.rp);
        f.unicastVia("up1", f.nbr1);
        f.vrf.settle();
        EXPECT_EQ(f.entry(f.nbr1, Set::periodic), "join");
    }
}

TEST(UpstreamWcSmDeathTest, JoinAtANeighborWithoutEntryIsFatal) {
    Upstream f;
    f.route();
    EXPECT_DEATH(f.sm().doRpfNeighborJoin(f.key, f.up1, ip("10.0.1.77")), "jpNeighbor");
}

// Joined (*,G) routes in three ranges, all toward the fixture's RP through
// up1: 239.1.0.0/16 and 238.0.0.0/8 have their own mapping, 239.2.x falls
// under the fixture's 239.0.0.0/8.
struct RangesFixture : Upstream {
    static constexpr int perRange = 40;
    const IpGenAddr rp2 = ip("10.9.9.10");  // also through up1

    RangesFixture() {
        vrf.rpIs(prefix("239.1.0.0/16"), rp);
        vrf.rpIs(prefix("238.0.0.0/8"), rp);
        for (const char* base : {"239.1.0.", "238.1.0.", "239.2.0."}) {
            for (int i = 0; i < perRange; ++i) {
                vrf.route(RouteKey::wc(ip(fmt::format("{}{}", base, i))), {"d1"});
            }
        }
        vrf.settle();
        review().review().itemsPerSliceIs(8);
    }
    WcRouteReviewSm& review() { return vrf.wcRouteReviewSm(); }
    // The RP the periodic Join at nbr1 names for the group ("" for none).
    std::string joinedRp(const IpGenAddr& g) const {
        const auto* gd = vrf.joinPrune().neighbor(up1, nbr1)->periodic().joinPruneGroupData(g);
        if (!gd || gd->wcSourceData().size() != 1) return gd ? "several" : "";
        return gd->wcSourceData().begin()->first.str();
    }
    int countJoinedTo(const char* base, const IpGenAddr& to) const {
        int n = 0;
        for (int i = 0; i < perRange; ++i)
            n += joinedRp(ip(fmt::format("{}{}", base, i))) == to.str();
        return n;
    }
};

TEST(WcRouteReviewSm, ReviewsOnlyTheChangedRangeInSlicesAndTakesLaterChangesNext) {
    RangesFixture f;
    ASSERT_EQ(f.countJoinedTo("239.1.0.", f.rp), RangesFixture::perRange);
    // Setting up the ranges had the review visit them once already.
    const auto visitedBefore = f.review().groupsVisited();
    ASSERT_EQ(f.review().routesReviewed(), 0u);

    f.vrf.rpIs(prefix("239.1.0.0/16"), f.rp2);
    EXPECT_EQ(f.countJoinedTo("239.1.0.", f.rp2), 0) << "applied at once, not by the review";

    // Turn by turn: never more than a slice of routes moves in one turn.
    int turns = 0, moved = 0;
    bool changedMidReview = false;
    auto busy = [&] { return f.review().review().inProgress() || f.review().review().pending(); };
    while (busy() && turns < 100) {
        f.vrf.clock.advanceTo(f.vrf.loop.nextExpiry());
        f.vrf.loop.runOnce();
        ++turns;
        const int now = f.countJoinedTo("239.1.0.", f.rp2);
        EXPECT_LE(now - moved, 8);
        moved = now;
        if (!changedMidReview && f.review().review().inProgress()) {
            // A second range changes while the first is under review: it
            // waits for the next review instead of being lost or mixed in.
            changedMidReview = true;
            f.vrf.rpIs(prefix("238.0.0.0/8"), f.rp2);
            EXPECT_EQ(f.review().pendingRanges().size(), 1u);
        }
    }
    ASSERT_TRUE(changedMidReview);
    EXPECT_EQ(f.countJoinedTo("239.1.0.", f.rp2), RangesFixture::perRange);
    EXPECT_EQ(f.countJoinedTo("238.1.0.", f.rp2), RangesFixture::perRange);
    // The group under the unchanged 239.0.0.0/8 mapping was not even visited.
    EXPECT_EQ(f.countJoinedTo("239.2.0.", f.rp), RangesFixture::perRange);
    EXPECT_EQ(f.review().groupsVisited() - visitedBefore, 2u * RangesFixture::perRange);
    EXPECT_EQ(f.review().routesReviewed(), 2u * RangesFixture::perRange);
    EXPECT_GE(turns, 2 * RangesFixture::perRange / 8);
    EXPECT_TRUE(Cask::trace().contains("WcRouteReviewSm: Suspending review at: 239.1.0.16"));

    // A more specific range with the RP its groups have already: visited,
    // none handed over.
    f.vrf.rpIs(prefix("239.2.0.0/16"), f.rp);
    f.vrf.loop.runUntil(f.vrf.clock.now() + 1);
    EXPECT_EQ(f.countJoinedTo("239.2.0.", f.rp), RangesFixture::perRange);
    EXPECT_EQ(f.review().groupsVisited() - visitedBefore, 3u * RangesFixture::perRange);
    EXPECT_EQ(f.review().routesReviewed(), 2u * RangesFixture::perRange);
}

// The upstream side of one route, per kind of mapping change: where the
// Join goes and which RP it names, and what the old neighbour gets.
TEST(WcRouteReviewSm, HandleRpChangeMovesTheJoinToTheNewRp) {
    struct Case {
        const char* name;
        const char* newRp;  // "" withdraws the mapping
        bool viaUp2;        // the new RP is reached through up2
        const char *nbr1Periodic, *nbr1Triggered, *nbr2Periodic;
    };
    const Case cases[] = {
        {"same neighbour", "10.9.9.10", false, "join 10.9.9.10", "join 10.9.9.10", ""},
        {"other neighbour", "10.8.8.8", true, "", "prune 10.8.8.8", "join 10.8.8.8"},
        {"withdrawn", "", false, "", "", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Upstream f;
        f.vrf.unicastRouteIs(prefix("10.8.8.0/24"), "up2", f.nbr2);
        f.receiverIs(true);
        auto* n1 = f.jp().neighbor(f.up1, f.nbr1);
        n1->pendingSent();
        auto describe = [&](const IpGenAddr& n, Set s) {
            std::string out;
            const JoinPruneGroupData* gd = f.groupData(n, s);
            if (!gd) return out;
            for (const auto& [addr, d] : gd->wcSourceData()) {
                out += fmt::format("{}{} {}", out.empty() ? "" : ", ", d.join ? "join" : "prune",
                                   addr);
            }
            return out;
        };
        if (*c.newRp) {
            f.vrf.rpIs(prefix("239.0.0.0/8"), ip(c.newRp));
        } else {
            f.vrf.rpMapping().rpDel(prefix("239.0.0.0/8"));
        }
        ASSERT_TRUE(f.sm().rpChanged(f.route()));
        f.sm().handleRpChange(f.route());
        EXPECT_FALSE(f.sm().rpChanged(f.route()));
        EXPECT_EQ(describe(f.nbr1, Set::periodic), c.nbr1Periodic);
        EXPECT_EQ(describe(f.nbr1, Set::triggered), c.nbr1Triggered);
        EXPECT_EQ(describe(f.nbr2, Set::periodic), c.nbr2Periodic);
        EXPECT_EQ(f.route().rpf().neighbor, c.viaUp2 ? f.nbr2 : *c.newRp ? f.nbr1 : IpGenAddr());
    }
}

// A Join toward the former RP still waiting in the triggered set is dropped
// when the Join toward the new RP is written: one RP per group.
TEST(WcRouteReviewSm, PendingJoinTowardTheFormerRpIsNotSentBesideTheNewOne) {
    Upstream f;
    f.receiverIs(true);  // triggered Join toward 10.9.9.9, not yet sent
    ASSERT_EQ(f.entry(f.nbr1, Set::triggered), "join");
    const IpGenAddr rp2 = ip("10.9.9.10");
    f.vrf.rpIs(prefix("239.0.0.0/8"), rp2);
    f.sm().handleRpChange(f.route());
    const JoinPruneGroupData* gd = f.groupData(f.nbr1, Set::triggered);
    ASSERT_NE(gd, nullptr);
    EXPECT_EQ(gd->wcSourceData().size(), 1u);
    EXPECT_TRUE(gd->wcSourceDataHas(rp2));
}

}  // namespace
}  // namespace Routing::Pim::SparseMode::Testing
