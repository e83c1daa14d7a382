#include "pimsm/upstream/upstream_sg_sm.h"

#include <gtest/gtest.h>

#include "platform/mfib_table.h"
#include "upstream_fixture.h"

namespace Routing::Pim::SparseMode::Testing {
namespace {

using Routing::Pim::JoinPruneEntry;
using Routing::Pim::JoinPruneSet;
using Routing::Pim::JoinPruneWriter;
using Kind = JoinPruneEntry::Kind;

// The VRF of UpstreamFixture, with the source 10.8.8.8 reached through "up1"
// (next hop 10.0.1.2) and the (S,G) machine in place of the (*,G) one.
struct SgFixture {
    UpstreamFixture f{false};
    const IpGenAddr source = ip("10.8.8.8");
    const RouteKey sg{ip("10.8.8.8"), ip("239.1.1.1")};
    Cask::Ptr<::Tidal::Multicast::Fib::Status> mfib = Cask::make<::Tidal::Multicast::Fib::Status>();
    Cask::Ptr<Route> route_;
    Cask::Ptr<UpstreamSgSm> sm;

    explicit SgFixture(bool start = true) {
        sourceVia(f.up1, f.nbr1);
        if (start) this->start();
    }
    void start() {
        f.inputs();
        f.ctx.status = &f.status;
        f.ctx.mfibTidal = mfib.get();
        sm = upstreamSgSmFactory(f.ctx);
    }
    void sourceVia(IntfId intf, const IpGenAddr& nextHop) {
        f.table->routeIs({*Wirl::IpGenPrefix::parse("10.8.8.0/24"), intf, nextHop, 110, 20, false});
    }
    // The (S,G) route, made and registered as the route reactor would;
    // `prepare` runs before any machine hears of it.
    Route& route(const std::function<void(Route&)>& prepare = {}) {
        if (!route_) {
            route_ = prepare ? f.status.routeIs(sg, prepare) : f.status.routeIs(sg);
            f.ls->sgRouteIs(sg, route_);
        }
        return *route_;
    }
    void receiverIs(bool on) { route().routeIntfIs(f.d1)->localReceiverIncludeIs(on); }
    void changeFlags(ChangeFlags flags) {
        route().changeFlagsIs(flags);
        route().changeFlagsIs(ChangeFlags{});
    }
    bool has(const IpGenAddr& n, JoinPruneSet set, Kind kind, const RouteKey& key) const {
        const auto* nbr = f.jp->neighbor(n == f.nbr2 ? f.up2 : f.up1, n);
        return nbr && JoinPruneWriter::has(*nbr, set, JoinPruneEntry::of(kind, key));
    }
    bool has(const IpGenAddr& n, JoinPruneSet set, Kind kind) const {
        return has(n, set, kind, sg);
    }
    void sent(const IpGenAddr& n) { f.jp->neighbor(n == f.nbr2 ? f.up2 : f.up1, n)->pendingSent(); }
};

constexpr auto periodic = JoinPruneSet::periodic;
constexpr auto triggered = JoinPruneSet::triggered;
constexpr auto override_ = JoinPruneSet::override_;

TEST(UpstreamSgSm, JoinTowardTheSourceAndLeavePrunesIt) {
    SgFixture s;
    s.receiverIs(true);
    Route& r = s.route();
    EXPECT_EQ(r.upJoinState(), UpJoinState::upJoined);
    EXPECT_EQ(r.rpf(), (Rpf{s.f.up1, s.f.nbr1, 110, 20}));
    EXPECT_TRUE(r.switching());
    EXPECT_FALSE(r.spTree());
    EXPECT_TRUE(s.has(s.f.nbr1, periodic, Kind::joined));
    EXPECT_TRUE(s.has(s.f.nbr1, triggered, Kind::joined));
    EXPECT_TRUE(r.routeIntf(s.f.d1)->forward());
    EXPECT_TRUE(Cask::eventLog().contains("UpstreamSgSm: Route(10.8.8.8, 239.1.1.1), flags: "));
    EXPECT_TRUE(Cask::eventLog().contains(", upNotJoined --> upJoined"));
    EXPECT_TRUE(Cask::eventLog().contains(
        "UpstreamSgSm: Add intf d1 to OIF set of route (10.8.8.8, 239.1.1.1)"));

    s.sent(s.f.nbr1);
    r.spTreeIs(true);
    s.receiverIs(false);
    EXPECT_EQ(r.upJoinState(), UpJoinState::upNotJoined);
    EXPECT_FALSE(r.switching());
    EXPECT_FALSE(r.spTree());
    EXPECT_FALSE(s.has(s.f.nbr1, periodic, Kind::joined));
    EXPECT_TRUE(s.has(s.f.nbr1, triggered, Kind::pruned));
    // The periodic record of the group held nothing else and is gone.
    EXPECT_EQ(s.f.jp->neighbor(s.f.up1, s.f.nbr1)->periodic().joinPruneGroupDataSize(), 0u);
    EXPECT_FALSE(r.routeIntf(s.f.d1)->forward());
    // RPF' stays: the route still has an incoming interface.
    EXPECT_EQ(r.iif(), s.f.up1);
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
        SgFixture s;
        const IpGenAddr winner = ip("10.0.1.3");
        s.f.neighborIs(s.f.up1, winner);
        s.receiverIs(true);
        s.sent(s.f.nbr1);
        Route& r = s.route();
        if (c.backupIsOld) {
            auto frr = Cask::make<UpstreamInfo>(&r, true);
            frr->doUpdateRpf(Rpf{s.f.up1, s.f.nbr1, 110, 20});
            r.umhFrrIs(frr);
        }
        if (!c.oldActive) s.f.pim->activeNeighborDel(NeighborKey{s.f.up1, s.f.nbr1});
        Rpf expected;
        if (c.how == Case::assertLoss) {
            AssertMetric m{false, 100, 10, winner};
            r.routeIntfIs(s.f.up1)->assertInfoIs(AssertInfo{AssertState::iAmAssertLoser, m});
            expected = Rpf{s.f.up1, winner, 110, 20};
            EXPECT_TRUE(Cask::trace().contains(
                "rpfPrimeSg(10.8.8.8, 239.1.1.1): I am assert loser, RPF up1 via 10.0.1.3"));
        } else {
            s.sourceVia(s.f.up2, s.f.nbr2);
            s.changeFlags(ChangeFlags{ChangeFlags::Bit::rpfRouteChanged});
            expected = Rpf{s.f.up2, s.f.nbr2, 110, 20};
            EXPECT_EQ(r.beginIifSwitch(), 1u);
        }
        EXPECT_EQ(r.rpf(), expected);
        const auto* moved = s.f.jp->neighbor(expected.intf, expected.neighbor);
        ASSERT_NE(moved, nullptr);
        const auto join = JoinPruneEntry::of(Kind::joined, s.sg);
        EXPECT_TRUE(JoinPruneWriter::has(*moved, periodic, join));
        EXPECT_TRUE(JoinPruneWriter::has(*moved, triggered, join));
        EXPECT_EQ(s.has(s.f.nbr1, periodic, Kind::joined), c.backupIsOld);
        EXPECT_EQ(s.has(s.f.nbr1, triggered, Kind::pruned), c.oldActive && !c.backupIsOld);
    }
}

TEST(UpstreamSgSm, PendingPruneIsReplacedByAJoinToTheSameNeighbor) {
    SgFixture s;
    s.receiverIs(true);
    s.sent(s.f.nbr1);
    s.receiverIs(false);
    ASSERT_TRUE(s.has(s.f.nbr1, triggered, Kind::pruned));
    s.receiverIs(true);
    EXPECT_TRUE(s.has(s.f.nbr1, triggered, Kind::joined));
    EXPECT_FALSE(s.has(s.f.nbr1, triggered, Kind::pruned));
    EXPECT_TRUE(s.has(s.f.nbr1, periodic, Kind::joined));
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
        SgFixture s;
        s.f.table->routeDel(*Wirl::IpGenPrefix::parse("10.8.8.0/24"));
        if (c.record) {
            ::Tidal::Multicast::Fib::Route rec(Routing::Multicast::Fib::convertKey(s.sg));
            rec.iifIs(s.f.up2);
            s.mfib->routeIs(rec);
        }
        s.route([&](Route& r) {
            r.hwRecoveredIs(c.recovered);
            r.umh()->mbrIifIs(c.mbrIif);
        });
        s.receiverIs(true);
        EXPECT_EQ(s.route().rpf(), c.expected);
        EXPECT_EQ(s.route().nsfRpfResolved(), c.expected.resolved());
        EXPECT_EQ(s.has(s.f.nbr2, periodic, Kind::joined), c.expected.resolved());
        // The unicast route comes back: it wins.
        s.sourceVia(s.f.up1, s.f.nbr1);
        s.changeFlags(ChangeFlags{ChangeFlags::Bit::rpfRouteChanged});
        EXPECT_EQ(s.route().rpf(), (Rpf{s.f.up1, s.f.nbr1, 110, 20}));
        EXPECT_TRUE(s.has(s.f.nbr1, periodic, Kind::joined));
    }
}

TEST(UpstreamSgSm, ADirectlyConnectedSourceHasNobodyToJoin) {
    SgFixture s;
    s.f.table->routeIs({*Wirl::IpGenPrefix::parse("10.8.8.0/24"), s.f.up1, {}, 0, 0, true});
    s.receiverIs(true);
    EXPECT_EQ(s.route().upJoinState(), UpJoinState::upJoined);
    EXPECT_EQ(s.route().iif(), s.f.up1);
    EXPECT_FALSE(s.route().rpf().hasNeighbor());
    EXPECT_TRUE(s.route().umh()->rpfAttached());
    EXPECT_EQ(s.f.jp->neighbor(s.f.up1, s.f.nbr1)->periodic().joinPruneGroupDataSize(), 0u);
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
        SgFixture s;
        s.receiverIs(true);
        s.sent(s.f.nbr1);
        if (c.flap) {
            s.f.neighborIs(s.f.up1, s.f.nbr1, false);
            s.f.neighborIs(s.f.up1, s.f.nbr1);
            ASSERT_FALSE(s.has(s.f.nbr1, periodic, Kind::joined));
        }
        Cask::trace().clear();
        s.changeFlags(c.flags);
        EXPECT_EQ(s.has(s.f.nbr1, triggered, Kind::joined), c.resent);
        EXPECT_TRUE(s.has(s.f.nbr1, periodic, Kind::joined));
        EXPECT_TRUE(Cask::trace().contains(c.text));
    }
}

TEST(UpstreamSgSm, ForwardFollowsInheritedOlistButNeverTheIncomingInterface) {
    SgFixture s;
    Route& r = s.route();
    // The (S,G) route has records on d1 and on its incoming interface up1,
    // without state of its own there.
    r.routeIntfIs(s.f.d1);
    r.routeIntfIs(s.f.up1);
    ASSERT_EQ(r.iif(), s.f.up1);
    EXPECT_FALSE(r.routeIntf(s.f.d1)->forward());
    // A (*,G) join on d1 and a (*,G) receiver on up1: inherited by the
    // (S,G) route.
    Cask::Ptr<Route> wc = s.f.status.routeIs(s.f.key);
    s.f.ls->wcRouteIs(s.f.key, wc);
    wc->routeIntfIs(s.f.d1)->joinStateIs(JoinState::joined);
    wc->routeIntfIs(s.f.up1)->localReceiverIncludeIs(true);
    EXPECT_TRUE(r.routeIntf(s.f.d1)->forward());
    EXPECT_FALSE(r.routeIntf(s.f.up1)->forward());
    // A new route's keepalive timer is not running: no data, no join.
    ASSERT_TRUE(r.katExpired());
    EXPECT_EQ(r.upJoinState(), UpJoinState::upNotJoined);
    // Data started it: KAT running and a non-null inherited olist make
    // JoinDesired(S,G).
    r.katExpiredIs(false);
    EXPECT_EQ(r.upJoinState(), UpJoinState::upJoined);
    // An (S,G,rpt) prune on d1 takes d1 out.
    r.routeIntf(s.f.d1)->rptStateIs(RptState::rptPruned);
    EXPECT_FALSE(r.routeIntf(s.f.d1)->forward());
    r.routeIntf(s.f.d1)->rptStateIs(RptState::rptNoInfo);
    EXPECT_TRUE(r.routeIntf(s.f.d1)->forward());
    // The (*,G) route goes: nothing is inherited any more.
    s.f.ls->wcRouteDel(s.f.key);
    EXPECT_FALSE(r.routeIntf(s.f.d1)->forward());
    EXPECT_EQ(r.upJoinState(), UpJoinState::upNotJoined);
    // It comes back, and RPF moves to up2: up1 is an outgoing interface
    // like any other.
    s.f.ls->wcRouteIs(s.f.key, wc);
    EXPECT_TRUE(r.routeIntf(s.f.d1)->forward());
    EXPECT_FALSE(r.routeIntf(s.f.up1)->forward());
    s.sourceVia(s.f.up2, s.f.nbr2);
    s.changeFlags(ChangeFlags{ChangeFlags::Bit::rpfRouteChanged});
    EXPECT_TRUE(r.routeIntf(s.f.up1)->forward());
}

TEST(UpstreamSgSm, JoinSuppressionPruneOverrideAndIgnoredMessages) {
    SgFixture s;
    const IpGenAddr other = ip("10.0.1.7"), third = ip("10.0.1.3");
    s.f.neighborIs(s.f.up1, other);
    s.f.neighborIs(s.f.up1, third);
    s.receiverIs(true);
    auto message = [&](const IpGenAddr& upstream, const IpGenAddr& sender) {
        JoinPruneMessageInfo m;
        m.riKey = s.sg;
        m.sender = sender;
        m.upstreamNeighbor = upstream;
        m.intf = s.f.up1;
        return m;
    };
    s.f.rx->rxJoinIs(message(s.f.nbr1, other));
    EXPECT_TRUE(s.has(s.f.nbr1, periodic, Kind::joinSuppressed));
    EXPECT_TRUE(s.has(s.f.nbr1, periodic, Kind::joined));
    s.f.rx->rxPruneIs(message(s.f.nbr1, other));
    EXPECT_TRUE(s.has(s.f.nbr1, override_, Kind::joined));
    s.sent(s.f.nbr1);
    // A Prune(S,G,rpt) to RPF'(S,G) is overridden as well.
    JoinPruneMessageInfo rpt = message(s.f.nbr1, other);
    rpt.sourceFlags.rpt = true;
    s.f.rx->rxPruneIs(rpt);
    EXPECT_TRUE(s.has(s.f.nbr1, override_, Kind::joined));
    EXPECT_EQ(s.sm->ignoredRxJoins(), 0u);
    EXPECT_EQ(s.sm->ignoredRxPrunes(), 0u);

    JoinPruneMessageInfo wc = message(s.f.nbr1, other);
    wc.riKey = s.f.key;
    wc.sourceFlags.wildcard = wc.sourceFlags.rpt = true;
    JoinPruneMessageInfo noRoute = message(s.f.nbr1, other);
    noRoute.riKey = RouteKey(ip("10.8.8.9"), s.f.group);
    struct Bad {
        const char* name;
        JoinPruneMessageInfo m;
        const char* text;
    };
    const Bad bad[] = {
        {"to another neighbour", message(third, other),
         "Message not to RPF'(S,G) or prev RPF'(S,G) or RpfFrr"},
        {"(*,G)", wc, ", Message for (*,G)"},
        {"from a non-neighbour", message(s.f.nbr1, ip("10.0.1.99")), "Message from non-neighbor"},
        {"no route", noRoute, ", No route"},
    };
    std::uint32_t n = 0;
    for (const Bad& b : bad) {
        SCOPED_TRACE(b.name);
        ++n;
        Cask::trace().clear();
        s.f.rx->rxJoinIs(b.m);
        s.f.rx->rxPruneIs(b.m);
        EXPECT_EQ(s.sm->ignoredRxJoins(), n);
        EXPECT_EQ(s.sm->ignoredRxPrunes(), n);
        EXPECT_TRUE(Cask::trace().contains(b.text));
    }
    EXPECT_EQ(s.f.jp->neighbor(s.f.up1, third)->pendingOverride().joinPruneGroupDataSize(), 0u);
    // A Join(S,G,rpt) suppresses nothing.
    s.f.rx->rxJoinIs(rpt);
    EXPECT_EQ(s.sm->ignoredRxJoins(), n + 1);
    // Not joined: counted, and nothing is overridden.
    s.receiverIs(false);
    s.sent(s.f.nbr1);
    s.f.rx->rxPruneIs(message(s.f.nbr1, other));
    EXPECT_EQ(s.sm->ignoredRxPrunes(), n + 1);
    EXPECT_FALSE(s.has(s.f.nbr1, override_, Kind::joined));
    EXPECT_TRUE(Cask::trace().contains(", Not in joined state"));
}

TEST(UpstreamSgSm, StartUpDropsPeriodicEntriesLeftForGoneOrMovedRoutes) {
    SgFixture s(false);
    const RouteKey gone(ip("10.8.8.9"), s.f.group);
    const RouteKey otherGroup(ip("10.8.8.9"), ip("239.4.4.4"));
    auto& at1 = s.f.jp->neighbor(s.f.up1, s.f.nbr1)->periodic();
    auto& at2 = s.f.jp->neighbor(s.f.up2, s.f.nbr2)->periodic();
    at1.joinPruneGroupDataIs(s.f.group).joinedSourceIs(s.source);       // kept: RPF' is nbr1
    at1.joinPruneGroupDataIs(s.f.group).joinedSourceIs(gone.source());  // route gone
    at1.joinPruneGroupDataIs(otherGroup.group()).prunedSourceIs(otherGroup.source());
    at2.joinPruneGroupDataIs(s.f.group).joinedSourceIs(s.source);  // RPF' moved off nbr2
    at2.joinPruneGroupDataIs(s.f.group).joinSuppressSourceIs(s.source);
    s.receiverIs(true);  // the route came back, before the machine starts
    s.start();
    EXPECT_TRUE(s.sm->initialized());
    EXPECT_TRUE(s.has(s.f.nbr1, periodic, Kind::joined));
    EXPECT_FALSE(s.has(s.f.nbr1, periodic, Kind::joined, gone));
    EXPECT_FALSE(at1.joinPruneGroupDataHas(otherGroup.group()));
    EXPECT_FALSE(at2.joinPruneGroupDataHas(s.f.group));
    EXPECT_TRUE(Cask::trace().contains(
        "Deleting periodic join for deleted route (10.8.8.9, 239.1.1.1) for neighbor 10.0.1.2"));
    EXPECT_TRUE(Cask::trace().contains(
        "Deleting periodic join for changed RPF (10.8.8.8, 239.1.1.1) for neighbor 10.0.2.2"));
    EXPECT_TRUE(Cask::trace().contains(
        "Deleting periodic prune for deleted route (10.8.8.9, 239.4.4.4) for neighbor 10.0.1.2"));
}

// Reactor blocks, index bytes and watcher slots per route, for n routes
// given to the machine with `add(i)`.
template <class R, class Map, class Add>
double bytesPerRoute(const Map& map, std::uint32_t n, Add add) {
    auto& pool = Cask::ReactorPool<R>::instance();
    const std::size_t before = pool.inUse();
    std::size_t watchers = 0;
    for (std::uint32_t i = 0; i < n; ++i) watchers += add(i);
    EXPECT_EQ(pool.inUse() - before, n);
    const std::size_t bytes = (pool.inUse() - before) * Cask::ReactorPool<R>::blockSize +
                              map.indexFootprint() + watchers * sizeof(void*);
    return double(bytes) / n;
}

TEST(UpstreamSgSm, ReactorsStayWithinTheirBudgetPerRoute) {
    SgFixture s;
    constexpr std::uint32_t n = 256;
    // Watcher slots this machine adds to a route and its upstream.
    auto give = [&](const RouteKey& key, bool wc) {
        auto r = s.f.status.routeIs(key);
        const std::size_t w0 = r->notifieeCount() + r->umh()->notifieeCount();
        if (wc) {
            s.f.ls->wcRouteIs(key, r);
        } else {
            s.f.ls->sgRouteIs(key, r);
        }
        return r->notifieeCount() + r->umh()->notifieeCount() - w0;
    };
    const double sg = bytesPerRoute<UpstreamSgSm::RhoRoute>(s.sm->routeMap(), n, [&](auto i) {
        return give(RouteKey(Wirl::IpGenAddr::v4(0x0a080100u + i), s.f.group), false);
    });
    const double wc = bytesPerRoute<UpstreamSgSm::RhoWcRoute>(s.sm->wcRouteMap(), n, [&](auto i) {
        return give(RouteKey::wc(Wirl::IpGenAddr::v4(0xef020000u + i)), true);
    });
    EXPECT_LE(sg, 64.0);
    EXPECT_LE(wc, 64.0);
    std::printf("UpstreamSgSm reactors, bytes per route: (S,G) %.1f, (*,G) %.1f\n", sg, wc);
}

}  // namespace
}  // namespace Routing::Pim::SparseMode::Testing
