// The upstream (S,G) machine: joins toward the source, RPF'(S,G) and its
// moves, the forwarding bits of (S,G) routes, join suppression and prune
// override, start-up cleanup.
#include "pimsm/upstream/upstream_sg_sm.h"

#include <cstdio>
#include <functional>
#include <vector>

#include <gtest/gtest.h>

#include "cask/trace.h"
#include "pimsm/test_vrf.h"
#include "platform/mfib_table.h"

namespace Routing::Pim::SparseMode::Testing {
namespace {

using Routing::Pim::JoinPruneEntry;
using Routing::Pim::JoinPruneMessageInfo;
using Routing::Pim::JoinPruneSet;
using Routing::Pim::JoinPruneWriter;
using Kind = JoinPruneEntry::Kind;

// The two-upstream layout with this router DR everywhere, and the source
// 10.8.8.8 reached through "up1" (next hop 10.0.1.2) until a test moves its
// unicast route; the route review hands the (S,G) route that move at once.
// Receivers sit on "d1". The machine under test is the VRF's own.
struct Sg {
    TestVrf vrf{TestVrf::Layout::twoUpstreamsIAmDr};
    const IpGenAddr source = ip("10.8.8.8");
    const IpGenAddr group = ip("239.1.1.1");
    const IpGenAddr nbr1 = ip("10.0.1.2"), nbr2 = ip("10.0.2.2");
    const IntfId up1{"up1"}, up2{"up2"}, d1{"d1"};
    const RouteKey key = sg("10.8.8.8", "239.1.1.1");
    const RouteKey wcKey = wc("239.1.1.1");

    Sg() { sourceVia("up1", nbr1); }

    UpstreamSgSm& sm() { return vrf.upstreamSgSm(); }
    void sourceVia(std::string_view intf, const IpGenAddr& nextHop) {
        vrf.unicastRouteIs(prefix("10.8.8.0/24"), intf, nextHop);
    }
    // The (S,G) route; `prepare` runs before any machine hears of it.
    Route& route(const std::function<void(Route&)>& prepare = {}) {
        return vrf.route(key, {}, prepare);
    }
    void receiverIs(bool on) { route().routeIntfIs(d1)->localReceiverIncludeIs(on); }
    // Hands the route change flags the way the route review does.
    void handOver(ChangeFlags flags) {
        route().changeFlagsIs(flags);
        route().changeFlagsIs(ChangeFlags{});
    }
    const Routing::Pim::JoinPruneNeighbor* neighbor(const IpGenAddr& n) const {
        return vrf.joinPrune().neighbor(n == nbr2 ? up2 : up1, n);
    }
    bool has(const IpGenAddr& n, JoinPruneSet set, Kind kind, const RouteKey& k) const {
        const auto* nbr = neighbor(n);
        return nbr && JoinPruneWriter::has(*nbr, set, JoinPruneEntry::of(kind, k));
    }
    bool has(const IpGenAddr& n, JoinPruneSet set, Kind kind) const {
        return has(n, set, kind, key);
    }
    // The packet side sent what was pending for the neighbour.
    void sent(const IpGenAddr& n) {
        vrf.joinPrune().neighbor(n == nbr2 ? up2 : up1, n)->pendingSent();
    }
    JoinPruneMessageInfo message(const IpGenAddr& upstream, const IpGenAddr& sender) const {
        JoinPruneMessageInfo m;
        m.riKey = key;
        m.sender = sender;
        m.upstreamNeighbor = upstream;
        m.intf = up1;
        return m;
    }
};

constexpr auto periodic = JoinPruneSet::periodic;
constexpr auto triggered = JoinPruneSet::triggered;
constexpr auto override_ = JoinPruneSet::override_;

TEST(UpstreamSgSm, JoinTowardTheSourceAndLeavePrunesIt) {
    Sg s;
    s.receiverIs(true);
    Route& r = s.route();
    EXPECT_EQ(r.upJoinState(), UpJoinState::upJoined);
    EXPECT_EQ(r.rpf(), (Rpf{s.up1, s.nbr1, 110, 20}));
    EXPECT_TRUE(r.switching());
    EXPECT_FALSE(r.spTree());
    EXPECT_TRUE(s.has(s.nbr1, periodic, Kind::joined));
    EXPECT_TRUE(s.has(s.nbr1, triggered, Kind::joined));
    EXPECT_TRUE(r.routeIntf(s.d1)->forward());
    EXPECT_TRUE(Cask::eventLog().contains("UpstreamSgSm: Route(10.8.8.8, 239.1.1.1), flags: "));
    EXPECT_TRUE(Cask::eventLog().contains(", upNotJoined --> upJoined"));
    EXPECT_TRUE(Cask::eventLog().contains(
        "UpstreamSgSm: Add intf d1 to OIF set of route (10.8.8.8, 239.1.1.1)"));

    s.sent(s.nbr1);
    r.spTreeIs(true);
    s.receiverIs(false);
    EXPECT_EQ(r.upJoinState(), UpJoinState::upNotJoined);
    EXPECT_FALSE(r.switching());
    EXPECT_FALSE(r.spTree());
    EXPECT_FALSE(s.has(s.nbr1, periodic, Kind::joined));
    EXPECT_TRUE(s.has(s.nbr1, triggered, Kind::pruned));
    // The periodic record of the group held nothing else and is gone.
    EXPECT_EQ(s.neighbor(s.nbr1)->periodic().joinPruneGroupDataSize(), 0u);
    EXPECT_FALSE(r.routeIntf(s.d1)->forward());
    // RPF' stays: the route still has an incoming interface.
    EXPECT_EQ(r.iif(), s.up1);
}

TEST(UpstreamSgSm, RpfPrimeChangeMovesTheJoin) {
    struct Case {
        const char* name;
        enum { unicast, assertLoss } how;
        bool oldActive;
        bool backupIsOld;  // the old neighbour is the backup upstream now
    };
    for (const Case c : {Case{"unicast", Case::unicast, true, false},
                         Case{"unicast, old neighbour gone", Case::unicast, false, false},
                         Case{"unicast, old neighbour is the backup", Case::unicast, true, true},
                         Case{"assert loss", Case::assertLoss, true, false}}) {
        SCOPED_TRACE(c.name);
        Sg s;
        const IpGenAddr winner = ip("10.0.1.3");
        s.vrf.neighborIs("up1", winner);
        s.receiverIs(true);
        s.sent(s.nbr1);
        Route& r = s.route();
        if (c.backupIsOld) {
            // Fast failover for the group: the route review gives the route
            // a backup upstream where the source is reached now, and keeps
            // it there when the primary moves.
            Wirl::AddressRangeSet frr(Wirl::AddressFamily::ipv4);
            frr.add(prefix("239.1.0.0/16"));
            s.vrf.localStatus().frrFilterStatus()->frrRangeIs(frr);
            s.vrf.settle();
            ASSERT_NE(r.umhFrr(), nullptr);
            ASSERT_EQ(r.rpfFrr(), (Rpf{s.up1, s.nbr1, 110, 20}));
        }
        if (!c.oldActive) s.vrf.pim().activeNeighborDel(NeighborKey{s.up1, s.nbr1});
        Rpf expected;
        if (c.how == Case::assertLoss) {
            AssertMetric m{false, 100, 10, winner};
            r.routeIntfIs(s.up1)->assertInfoIs(AssertInfo{AssertState::iAmAssertLoser, m});
            expected = Rpf{s.up1, winner, 110, 20};
            EXPECT_TRUE(Cask::trace().contains(
                "rpfPrimeSg(10.8.8.8, 239.1.1.1): I am assert loser, RPF up1 via 10.0.1.3"));
        } else {
            s.sourceVia("up2", s.nbr2);
            expected = Rpf{s.up2, s.nbr2, 110, 20};
            EXPECT_EQ(r.beginIifSwitch(), 1u);
        }
        EXPECT_EQ(r.rpf(), expected);
        const auto* moved = s.vrf.joinPrune().neighbor(expected.intf, expected.neighbor);
        ASSERT_NE(moved, nullptr);
        const auto join = JoinPruneEntry::of(Kind::joined, s.key);
        EXPECT_TRUE(JoinPruneWriter::has(*moved, periodic, join));
        EXPECT_TRUE(JoinPruneWriter::has(*moved, triggered, join));
        EXPECT_EQ(s.has(s.nbr1, periodic, Kind::joined), c.backupIsOld);
        EXPECT_EQ(s.has(s.nbr1, triggered, Kind::pruned), c.oldActive && !c.backupIsOld);
    }
}

TEST(UpstreamSgSm, PendingPruneIsReplacedByAJoinToTheSameNeighbor) {
    Sg s;
    s.receiverIs(true);
    s.sent(s.nbr1);
    s.receiverIs(false);
    ASSERT_TRUE(s.has(s.nbr1, triggered, Kind::pruned));
    s.receiverIs(true);
    EXPECT_TRUE(s.has(s.nbr1, triggered, Kind::joined));
    EXPECT_FALSE(s.has(s.nbr1, triggered, Kind::pruned));
    EXPECT_TRUE(s.has(s.nbr1, periodic, Kind::joined));
}

TEST(UpstreamSgSm, WithoutUnicastRouteARecoveredRouteTakesItsAcceptingInterface) {
    struct Case {
        const char* name;
        bool recovered;
        bool record;  // the forwarding table has the route, accepting on up2
        Wirl::IntfId mbrIif;
        Rpf expected;
    };
    const Case cases[] = {
        {"forwarding record", true, true, {}, Rpf{IntfId("up2"), ip("10.0.2.2")}},
        {"border interface", true, false, IntfId("up2"), Rpf{IntfId("up2"), ip("10.0.2.2")}},
        {"not recovered", false, true, {}, Rpf{}},
        {"nothing accepts", true, false, {}, Rpf{}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Sg s;
        s.vrf.unicastRouteDel(prefix("10.8.8.0/24"));
        if (c.record) {
            ::Tidal::Multicast::Fib::Route rec(Routing::Multicast::Fib::convertKey(s.key));
            rec.iifIs(s.up2);
            s.vrf.mfibTable().routeIs(rec);
        }
        s.route([&](Route& r) {
            r.hwRecoveredIs(c.recovered);
            r.umh()->mbrIifIs(c.mbrIif);
        });
        s.receiverIs(true);
        EXPECT_EQ(s.route().rpf(), c.expected);
        EXPECT_EQ(s.route().nsfRpfResolved(), c.expected.resolved());
        EXPECT_EQ(s.has(s.nbr2, periodic, Kind::joined), c.expected.resolved());
        // The unicast route comes back: it wins.
        s.sourceVia("up1", s.nbr1);
        EXPECT_EQ(s.route().rpf(), (Rpf{s.up1, s.nbr1, 110, 20}));
        EXPECT_TRUE(s.has(s.nbr1, periodic, Kind::joined));
    }
}

TEST(UpstreamSgSm, ADirectlyConnectedSourceHasNobodyToJoin) {
    Sg s;
    s.vrf.connectedRouteIs(prefix("10.8.8.0/24"), "up1");
    s.receiverIs(true);
    EXPECT_EQ(s.route().upJoinState(), UpJoinState::upJoined);
    EXPECT_EQ(s.route().iif(), s.up1);
    EXPECT_FALSE(s.route().rpf().hasNeighbor());
    EXPECT_TRUE(s.route().umh()->rpfAttached());
    EXPECT_EQ(s.neighbor(s.nbr1)->periodic().joinPruneGroupDataSize(), 0u);
}

TEST(UpstreamSgSm, ChangeFlagsResendToARestartedNeighborAndIgnoreOthers) {
    using Bit = ChangeFlags::Bit;
    struct Case {
        ChangeFlags flags;
        bool flap;  // the neighbour went and came back before the review
        bool resent;
        const char* text;
    };
    for (const Case c :
         {Case{{Bit::rpfNbrGenId}, false, true, "nbrGenId changed, send join to rpf nbr"},
          Case{{Bit::rpfNbrStatus}, true, true, "RPF change: Sending triggered join"},
          Case{{Bit::rpfDrStatus}, false, false, "Ignoring change flags: rpfDrStatus"}}) {
        SCOPED_TRACE(c.text);
        Sg s;
        s.receiverIs(true);
        s.sent(s.nbr1);
        if (c.flap) {
            s.vrf.neighborDel("up1", s.nbr1);
            s.vrf.neighborIs("up1", s.nbr1);
            ASSERT_FALSE(s.has(s.nbr1, periodic, Kind::joined));
        }
        Cask::trace().clear();
        s.handOver(c.flags);
        EXPECT_EQ(s.has(s.nbr1, triggered, Kind::joined), c.resent);
        EXPECT_TRUE(s.has(s.nbr1, periodic, Kind::joined));
        EXPECT_TRUE(Cask::trace().contains(c.text));
    }
}

TEST(UpstreamSgSm, ForwardFollowsInheritedOlistButNeverTheIncomingInterface) {
    Sg s;
    Route& r = s.route();
    // The (S,G) route has records on d1 and on its incoming interface up1,
    // without state of its own there.
    r.routeIntfIs(s.d1);
    r.routeIntfIs(s.up1);
    ASSERT_EQ(r.iif(), s.up1);
    EXPECT_FALSE(r.routeIntf(s.d1)->forward());
    // A (*,G) join on d1 and a (*,G) receiver on up1: inherited by the
    // (S,G) route.
    auto wcIs = [&] {
        Route& wc = s.vrf.route(s.wcKey, {"up1"});
        wc.routeIntfIs(s.d1)->joinStateIs(JoinState::joined);
    };
    wcIs();
    EXPECT_TRUE(r.routeIntf(s.d1)->forward());
    EXPECT_FALSE(r.routeIntf(s.up1)->forward());
    // A new route's keepalive timer is not running: no data, no join.
    ASSERT_TRUE(r.katExpired());
    EXPECT_EQ(r.upJoinState(), UpJoinState::upNotJoined);
    // Data started it: KAT running and a non-null inherited olist make
    // JoinDesired(S,G).
    r.katExpiredIs(false);
    EXPECT_EQ(r.upJoinState(), UpJoinState::upJoined);
    // An (S,G,rpt) prune on d1 takes d1 out.
    r.routeIntf(s.d1)->rptStateIs(RptState::rptPruned);
    EXPECT_FALSE(r.routeIntf(s.d1)->forward());
    r.routeIntf(s.d1)->rptStateIs(RptState::rptNoInfo);
    EXPECT_TRUE(r.routeIntf(s.d1)->forward());
    // The (*,G) route goes: nothing is inherited any more.
    s.vrf.removeRoute(s.wcKey);
    EXPECT_FALSE(r.routeIntf(s.d1)->forward());
    EXPECT_EQ(r.upJoinState(), UpJoinState::upNotJoined);
    // It comes back, and RPF moves to up2: up1 is an outgoing interface
    // like any other.
    wcIs();
    EXPECT_TRUE(r.routeIntf(s.d1)->forward());
    EXPECT_FALSE(r.routeIntf(s.up1)->forward());
    s.sourceVia("up2", s.nbr2);
    ASSERT_EQ(r.iif(), s.up2);
    EXPECT_TRUE(r.routeIntf(s.up1)->forward());
}

TEST(UpstreamSgSm, JoinSuppressionPruneOverrideAndIgnoredMessages) {
    Sg s;
    const IpGenAddr other = ip("10.0.1.7"), third = ip("10.0.1.3");
    s.vrf.neighborIs("up1", other);
    s.vrf.neighborIs("up1", third);
    s.receiverIs(true);
    auto& rx = s.vrf.rx();
    rx.rxJoinIs(s.message(s.nbr1, other));
    EXPECT_TRUE(s.has(s.nbr1, periodic, Kind::joinSuppressed));
    EXPECT_TRUE(s.has(s.nbr1, periodic, Kind::joined));
    rx.rxPruneIs(s.message(s.nbr1, other));
    EXPECT_TRUE(s.has(s.nbr1, override_, Kind::joined));
    s.sent(s.nbr1);
    // A Prune(S,G,rpt) to RPF'(S,G) is overridden as well.
    JoinPruneMessageInfo rpt = s.message(s.nbr1, other);
    rpt.sourceFlags.rpt = true;
    rx.rxPruneIs(rpt);
    EXPECT_TRUE(s.has(s.nbr1, override_, Kind::joined));
    EXPECT_EQ(s.sm().ignoredRxJoins(), 0u);
    EXPECT_EQ(s.sm().ignoredRxPrunes(), 0u);

    JoinPruneMessageInfo wcMessage = s.message(s.nbr1, other);
    wcMessage.riKey = s.wcKey;
    wcMessage.sourceFlags.wildcard = wcMessage.sourceFlags.rpt = true;
    JoinPruneMessageInfo noRoute = s.message(s.nbr1, other);
    noRoute.riKey = sg("10.8.8.9", "239.1.1.1");
    struct Bad {
        const char* name;
        JoinPruneMessageInfo m;
        const char* text;
    };
    const Bad bad[] = {
        {"to another neighbour", s.message(third, other),
         "Message not to RPF'(S,G) or prev RPF'(S,G) or RpfFrr"},
        {"(*,G)", wcMessage, ", Message for (*,G)"},
        {"from a non-neighbour", s.message(s.nbr1, ip("10.0.1.99")), "Message from non-neighbor"},
        {"no route", noRoute, ", No route"},
    };
    std::uint32_t n = 0;
    for (const Bad& b : bad) {
        SCOPED_TRACE(b.name);
        ++n;
        Cask::trace().clear();
        rx.rxJoinIs(b.m);
        rx.rxPruneIs(b.m);
        EXPECT_EQ(s.sm().ignoredRxJoins(), n);
        EXPECT_EQ(s.sm().ignoredRxPrunes(), n);
        EXPECT_TRUE(Cask::trace().contains(b.text));
    }
    EXPECT_EQ(s.neighbor(third)->pendingOverride().joinPruneGroupDataSize(), 0u);
    // A Join(S,G,rpt) suppresses nothing.
    rx.rxJoinIs(rpt);
    EXPECT_EQ(s.sm().ignoredRxJoins(), n + 1);
    // Not joined: counted, and nothing is overridden.
    s.receiverIs(false);
    s.sent(s.nbr1);
    rx.rxPruneIs(s.message(s.nbr1, other));
    EXPECT_EQ(s.sm().ignoredRxPrunes(), n + 1);
    EXPECT_FALSE(s.has(s.nbr1, override_, Kind::joined));
    EXPECT_TRUE(Cask::trace().contains(", Not in joined state"));
}

// A second machine started over the VRF as it is now, as a restarted agent's
// meets the Join/Prune contents its earlier run left.
TEST(UpstreamSgSm, StartUpDropsPeriodicEntriesLeftForGoneOrMovedRoutes) {
    Sg s;
    s.receiverIs(true);  // the route is back and joined at nbr1
    const RouteKey gone = sg("10.8.8.9", "239.1.1.1");
    const RouteKey otherGroup = sg("10.8.8.9", "239.4.4.4");
    auto& jp = s.vrf.joinPrune();
    auto& at1 = jp.neighbor(s.up1, s.nbr1)->periodic();
    auto& at2 = jp.neighbor(s.up2, s.nbr2)->periodic();
    at1.joinPruneGroupDataIs(s.group).joinedSourceIs(gone.source());  // route gone
    at1.joinPruneGroupDataIs(otherGroup.group()).prunedSourceIs(otherGroup.source());
    at2.joinPruneGroupDataIs(s.group).joinedSourceIs(s.source);  // RPF' moved off nbr2
    at2.joinPruneGroupDataIs(s.group).joinSuppressSourceIs(s.source);
    Cask::trace().clear();
    const Cask::Ptr<UpstreamSgSm> restarted = upstreamSgSmFactory(s.vrf.ctx());
    EXPECT_TRUE(restarted->initialized());
    EXPECT_TRUE(s.has(s.nbr1, periodic, Kind::joined));
    EXPECT_FALSE(s.has(s.nbr1, periodic, Kind::joined, gone));
    EXPECT_FALSE(at1.joinPruneGroupDataHas(otherGroup.group()));
    EXPECT_FALSE(at2.joinPruneGroupDataHas(s.group));
    EXPECT_TRUE(Cask::trace().contains(
        "Deleting periodic join for deleted route (10.8.8.9, 239.1.1.1) for neighbor 10.0.1.2"));
    EXPECT_TRUE(Cask::trace().contains(
        "Deleting periodic join for changed RPF (10.8.8.8, 239.1.1.1) for neighbor 10.0.2.2"));
    EXPECT_TRUE(Cask::trace().contains(
        "Deleting periodic prune for deleted route (10.8.8.9, 239.4.4.4) for neighbor 10.0.1.2"));
}

TEST(UpstreamSgSm, ReactorsStayWithinTheirBudgetPerRoute) {
    Sg s;
    constexpr std::uint32_t n = 256;
    std::vector<Route*> sgRoutes, wcRoutes;
    for (std::uint32_t i = 0; i < n; ++i) {
        sgRoutes.push_back(&s.vrf.route(RouteKey(IpGenAddr::v4(0x0a080100u + i), s.group)));
        wcRoutes.push_back(&s.vrf.route(RouteKey::wc(IpGenAddr::v4(0xef020000u + i))));
    }
    // Watcher slots on the routes and their upstreams.
    auto watchers = [](const std::vector<Route*>& routes) {
        std::size_t w = 0;
        for (const Route* r : routes) w += r->notifieeCount() + r->umh()->notifieeCount();
        return w;
    };
    auto& sgPool = Cask::ReactorPool<UpstreamSgSm::RhoRoute>::instance();
    const std::size_t sgBlocks = sgPool.inUse();
    const std::size_t sgWatchers = watchers(sgRoutes), wcWatchers = watchers(wcRoutes);
    // A second machine takes up every route: what it adds is its own.
    const Cask::Ptr<UpstreamSgSm> sm = upstreamSgSmFactory(s.vrf.ctx());
    EXPECT_EQ(sgPool.inUse() - sgBlocks, n);
    const double sgBytes =
        double((sgPool.inUse() - sgBlocks) * sgPool.blockSize + sm->routeMap().indexFootprint() +
               (watchers(sgRoutes) - sgWatchers) * sizeof(void*)) /
        n;
    EXPECT_LE(sgBytes, 64.0);
    // (*,G) routes of groups without sources are not watched at all.
    EXPECT_EQ(watchers(wcRoutes), wcWatchers);
    EXPECT_EQ(sm->wcFanOut().size(), 0u);
    std::printf("UpstreamSgSm reactors, bytes per (S,G) route: %.1f\n", sgBytes);
}

}  // namespace
}  // namespace Routing::Pim::SparseMode::Testing
