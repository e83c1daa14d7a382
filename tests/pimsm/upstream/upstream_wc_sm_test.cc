#include "pimsm/upstream/upstream_wc_sm.h"

#include <gtest/gtest.h>

#include "upstream_fixture.h"

namespace Routing::Pim::SparseMode::Testing {
namespace {

using Set = UpstreamFixture::Set;

TEST(UpstreamWcSm, AtTheRpJoinedWithoutUpstreamAndWritesNothing) {
    UpstreamFixture f;
    f.rpLocal->localRpIs(f.rp);
    f.receiverIs(true);
    EXPECT_EQ(f.route().upJoinState(), UpJoinState::upJoined);
    EXPECT_FALSE(f.route().rpf().hasNeighbor());
    EXPECT_EQ(f.route().umh()->rp(), f.rp);
    for (const auto& [k, nbr] : f.jp->neighbor()) {
        EXPECT_EQ(nbr->periodic().joinPruneGroupDataSize(), 0u) << k.str();
        EXPECT_EQ(nbr->pendingTriggered().joinPruneGroupDataSize(), 0u) << k.str();
    }
    EXPECT_TRUE(Cask::trace().contains("rpfPrimeWc: I am RP 10.9.9.9 for route (*, 239.1.1.1)"));
}

TEST(UpstreamWcSm, JoinWritesPeriodicAndTriggeredLeavePrunesOnlyAnActiveNeighbor) {
    for (bool stillActive : {true, false}) {
        SCOPED_TRACE(stillActive);
        UpstreamFixture f;
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
        f.jp->neighbor(f.up1, f.nbr1)->pendingSent();
        if (!stillActive) f.pim->activeNeighborDel(NeighborKey{f.up1, f.nbr1});
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
    UpstreamFixture f;
    f.receiverIs(true);
    f.route().routeIntfIs(f.up1)->localReceiverIncludeIs(true);
    ASSERT_EQ(f.route().iif(), f.up1);
    EXPECT_TRUE(f.route().routeIntf(f.d1)->forward());
    EXPECT_FALSE(f.route().routeIntf(f.up1)->forward());
    // Once RPF moves away from up1, its receiver is served like any other.
    f.unicastVia(f.up2, f.nbr2);
    f.changeFlags(ChangeFlags{ChangeFlags::Bit::rpfRouteChanged});
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
        UpstreamFixture f;
        const IpGenAddr winner = ip("10.0.1.3");
        f.neighborIs(f.up1, winner);
        f.receiverIs(true);
        f.jp->neighbor(f.up1, f.nbr1)->pendingSent();
        if (!c.oldActive) f.pim->activeNeighborDel(NeighborKey{f.up1, f.nbr1});
        Rpf expected;
        if (c.assertLoss) {
            AssertMetric m{true, 100, 10, winner};
            f.route().routeIntfIs(f.up1)->assertInfoIs(AssertInfo{AssertState::iAmAssertLoser, m});
            expected = Rpf{f.up1, winner, 110, 20};
            EXPECT_TRUE(Cask::trace().contains(
                "rpfPrimeWc(*, 239.1.1.1): I am assert loser, RPF up1 via 10.0.1.3"));
        } else {
            f.unicastVia(f.up2, f.nbr2);
            f.changeFlags(ChangeFlags{ChangeFlags::Bit::rpfRouteChanged});
            expected = Rpf{f.up2, f.nbr2, 110, 20};
        }
        EXPECT_EQ(f.route().rpf(), expected);
        const IntfId newIntf = expected.intf;
        const auto* moved = f.jp->neighbor(newIntf, expected.neighbor);
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
        UpstreamFixture f;
        f.receiverIs(true);
        f.jp->neighbor(f.up1, f.nbr1)->pendingSent();
        f.changeFlags(c.flags);
        EXPECT_EQ(f.entry(f.nbr1, Set::triggered), c.resent ? "join" : "");
        EXPECT_TRUE(Cask::trace().contains(c.text));
    }
}

TEST(UpstreamWcSm, JoinSuppressionPruneOverrideAndIgnoredMessages) {
    UpstreamFixture f;
    const IpGenAddr other = ip("10.0.1.7"), third = ip("10.0.1.3");
    f.neighborIs(f.up1, other);
    f.neighborIs(f.up1, third);
    f.receiverIs(true);

    f.rx->rxJoinIs(f.message(f.nbr1, other));
    EXPECT_TRUE(f.groupData(f.nbr1, Set::periodic)->wcSourceData(f.rp).wcSuppressed);
    f.rx->rxPruneIs(f.message(f.nbr1, other));
    EXPECT_EQ(f.entry(f.nbr1, Set::override_), "join");
    EXPECT_EQ(f.groupData(f.nbr1, Set::override_)->periodicPrunedRptGroupData().get(),
              f.groupData(f.nbr1, Set::periodic));
    EXPECT_EQ(f.sm->ignoredRxJoins(), 0u);
    EXPECT_EQ(f.sm->ignoredRxPrunes(), 0u);

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
        f.rx->rxJoinIs(b.m);
        f.rx->rxPruneIs(b.m);
        EXPECT_EQ(f.sm->ignoredRxJoins(), n);
        EXPECT_EQ(f.sm->ignoredRxPrunes(), n);
        EXPECT_TRUE(Cask::trace().contains(b.text));
    }
    EXPECT_EQ(f.groupData(third, Set::override_), nullptr);

    // Not joined: counted too, and nothing is suppressed or overridden.
    f.receiverIs(false);
    f.rx->rxPruneIs(f.message(f.nbr1, other));
    EXPECT_EQ(f.sm->ignoredRxPrunes(), n + 1);
    EXPECT_TRUE(Cask::trace().contains(", Not in joined state for route to (*, 239.1.1.1)"));
}

TEST(UpstreamWcSm, LeavingDuringAnIifSwitchCleansBothNeighborsAndCancelsIt) {
    UpstreamFixture f;
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

TEST(UpstreamWcSm, RestartDeletesPeriodicJoinsOfVanishedRoutesBeforeInitialized) {
    UpstreamFixture f(false);
    f.route();  // 239.1.1.1 came back; 239.3.3.3 did not
    const IpGenAddr gone = ip("239.3.3.3");
    auto& periodic = f.jp->neighbor(f.up1, f.nbr1)->periodic();
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
    auto sm = Cask::make<UpstreamWcSm>(f.inputs());
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
        UpstreamFixture f;
        if (noRp) {
            f.rpMapping->rpDelAll();
        } else {
            f.table->routeDel(*Wirl::IpGenPrefix::parse("10.9.9.0/24"));
        }
        f.receiverIs(true);
        EXPECT_EQ(f.route().upJoinState(), UpJoinState::upJoined);
        EXPECT_EQ(f.entry(f.nbr1, Set::periodic), "");
        EXPECT_TRUE(Cask::trace().contains("rpfPrimeWc: No RPF info for group 239.1.1.1"));
        // RPF information arrives; the next change-flag event joins.
        f.rpMapping->rpIs(*Wirl::IpGenPrefix::parse("239.0.0.0/8"), f.rp);
        f.unicastVia(f.up1, f.nbr1);
        f.changeFlags(ChangeFlags{ChangeFlags::Bit::rpfRouteChanged});
        EXPECT_EQ(f.entry(f.nbr1, Set::periodic), "join");
    }
}

TEST(UpstreamWcSmDeathTest, JoinAtANeighborWithoutEntryIsFatal) {
    UpstreamFixture f;
    f.route();
    EXPECT_DEATH(f.sm->doRpfNeighborJoin(f.key, f.up1, ip("10.0.1.77")), "jpNeighbor");
}

}  // namespace
}  // namespace Routing::Pim::SparseMode::Testing
