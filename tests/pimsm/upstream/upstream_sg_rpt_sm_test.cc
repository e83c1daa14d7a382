// The upstream (S,G,rpt) machine (RFC 7761 4.5.7): its transitions and the
// messages they write, the periodic Prune following RPF'(*,G), overriding
// another router's Prune on the shared tree and cancelling that override,
// and an (S,G) route's incoming interface while it is on the shared tree.
#include "pimsm/upstream/upstream_sg_rpt_sm.h"

#include <string>

#include <gtest/gtest.h>

#include "pimsm/test_vrf.h"
#include "platform/mfib_table.h"

namespace Routing::Pim::SparseMode::Testing {
namespace {

using Routing::Pim::JoinPruneEntry;
using Routing::Pim::JoinPruneMessageInfo;
using Routing::Pim::JoinPruneSet;
using Routing::Pim::JoinPruneWriter;
using Kind = JoinPruneEntry::Kind;

constexpr auto periodic = JoinPruneSet::periodic;
constexpr auto triggered = JoinPruneSet::triggered;
constexpr auto override_ = JoinPruneSet::override_;

// The two-upstream layout, this router DR everywhere: the RP reached through
// up1 (neighbour 10.0.1.2), the source 10.8.8.8 through up1 too unless a
// test moves it to up2 (10.0.2.2). (*,G) receivers on d1; the (S,G) route's
// own state on d1 and d2.
struct Rpt {
    TestVrf vrf{TestVrf::Layout::twoUpstreamsIAmDr};
    const IpGenAddr nbr1 = ip("10.0.1.2"), nbr2 = ip("10.0.2.2"), other = ip("10.0.1.3");
    const IntfId up1{"up1"}, up2{"up2"}, d1{"d1"}, d2{"d2"};
    const RouteKey key = sg("10.8.8.8", "239.1.1.1");
    const RouteKey wcKey = wc("239.1.1.1");

    Rpt() {
        sourceVia("up1", nbr1);
        vrf.neighborIs("up1", other);
    }
    void sourceVia(std::string_view intf, const IpGenAddr& nextHop) {
        vrf.unicastRouteIs(prefix("10.8.8.0/24"), intf, nextHop);
        vrf.settle();
    }
    Route& sgRoute() { return vrf.route(key); }
    Route& wcRoute() { return vrf.route(wcKey); }
    UpRptState state() { return sgRoute().umh()->upRptState(); }
    void wcReceiver(bool on) {
        wcRoute().routeIntfIs(d1)->localReceiverIncludeIs(on);
        vrf.flush();
    }
    void exclude(bool on) {
        sgRoute().routeIntfIs(d1)->localReceiverExcludeIs(on);
        vrf.flush();
    }
    bool has(const IpGenAddr& n, JoinPruneSet set, Kind kind) const {
        const auto* nbr = vrf.joinPrune().neighbor(n == nbr2 ? up2 : up1, n);
        return nbr && JoinPruneWriter::has(*nbr, set, JoinPruneEntry::of(kind, key));
    }
    // The packet side sent what was pending.
    void sent() {
        for (const auto& n : {nbr1, nbr2}) {
            if (auto* nbr = vrf.joinPrune().neighbor(n == nbr2 ? up2 : up1, n)) nbr->pendingSent();
        }
    }
    void receive(bool join, bool rpt, const IpGenAddr& from, const IpGenAddr& to,
                 const RouteKey& k) {
        JoinPruneMessageInfo m;
        m.riKey = k;
        m.sourceFlags.rpt = rpt;
        m.sender = from;
        m.upstreamNeighbor = to;
        m.intf = up1;
        if (join) {
            vrf.rx().rxJoinIs(m);
        } else {
            vrf.rx().rxPruneIs(m);
        }
        vrf.flush();
    }
};

// RFC 7761 4.5.7, each row from its starting state, with what is written at
// RPF'(S,G,rpt) = RPF'(*,G) = 10.0.1.2.
TEST(UpstreamSgRptSm, Transitions) {
    struct Case {
        const char* name;
        void (*setUp)(Rpt&);  // reaches the starting state
        void (*event)(Rpt&);
        UpRptState from, to;
        bool triggeredJoin, triggeredPrune, periodicPrune;
    };
    using S = UpRptState;
    const Case cases[] = {
        {"RPTNotJoined, inherited_olist non-NULL -> NotPruned", [](Rpt&) {},
         [](Rpt& t) { t.wcReceiver(true); }, S::upRptNotJoined, S::upRptNotPruned, false, false,
         false},
        {"RPTNotJoined, PruneDesired -> Pruned, nothing triggered", [](Rpt& t) { t.exclude(true); },
         [](Rpt& t) { t.wcReceiver(true); }, S::upRptNotJoined, S::upRptPruned, false, false, true},
        {"NotPruned, PruneDesired -> Pruned, triggered Prune", [](Rpt& t) { t.wcReceiver(true); },
         [](Rpt& t) { t.exclude(true); }, S::upRptNotPruned, S::upRptPruned, false, true, true},
        {"Pruned, PruneDesired false -> NotPruned, triggered Join",
         [](Rpt& t) {
             t.wcReceiver(true);
             t.exclude(true);
         },
         [](Rpt& t) { t.exclude(false); }, S::upRptPruned, S::upRptNotPruned, true, false, false},
        {"Pruned, RPTJoinDesired false -> RPTNotJoined",
         [](Rpt& t) {
             t.wcReceiver(true);
             t.exclude(true);
         },
         [](Rpt& t) { t.wcReceiver(false); }, S::upRptPruned, S::upRptNotJoined, false, false,
         false},
        {"NotPruned, RPTJoinDesired false -> RPTNotJoined", [](Rpt& t) { t.wcReceiver(true); },
         [](Rpt& t) { t.wcReceiver(false); }, S::upRptNotPruned, S::upRptNotJoined, false, false,
         false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Rpt t;
        t.sgRoute();
        c.setUp(t);
        ASSERT_EQ(t.state(), c.from);
        t.sent();
        c.event(t);
        EXPECT_EQ(t.state(), c.to);
        EXPECT_EQ(t.has(t.nbr1, triggered, Kind::rptJoined), c.triggeredJoin);
        EXPECT_EQ(t.has(t.nbr1, triggered, Kind::rptPruned), c.triggeredPrune);
        EXPECT_EQ(t.has(t.nbr1, periodic, Kind::rptPruned), c.periodicPrune);
        EXPECT_EQ(t.vrf.upstreamSgRptSm().prevRpNeighbor(t.key).intf,
                  c.periodicPrune ? t.up1 : IntfId());
    }
}

// The periodic Prune rides in the same group record as the (*,G) Join, so
// every (*,G) Join, triggered ones too, carries it.
TEST(UpstreamSgRptSm, PeriodicPruneGoesWithTheWcJoin) {
    Rpt t;
    t.sgRoute();
    t.exclude(true);
    t.wcReceiver(true);
    const auto* nbr = t.vrf.joinPrune().neighbor(t.up1, t.nbr1);
    ASSERT_NE(nbr, nullptr);
    const auto* periodicGroup = nbr->periodic().joinPruneGroupData(t.key.group());
    ASSERT_NE(periodicGroup, nullptr);
    EXPECT_TRUE(periodicGroup->wcSourceData(ip("10.9.9.9")).join);
    EXPECT_TRUE(periodicGroup->prunedRptSourceHas(t.key.source()));
    const auto* triggeredGroup = nbr->pendingTriggered().joinPruneGroupData(t.key.group());
    ASSERT_NE(triggeredGroup, nullptr);
    EXPECT_EQ(triggeredGroup->periodicPrunedRptGroupData().get(), periodicGroup);
    // The route goes: so does its Prune.
    t.vrf.removeRoute(t.key);
    t.vrf.flush();
    EXPECT_FALSE(t.has(t.nbr1, periodic, Kind::rptPruned));
}

// A source switched to its shortest-path tree through another neighbour is
// pruned off the shared tree; the periodic Prune follows RPF'(*,G) when it
// moves; falling back to the shared tree joins the source there again.
TEST(UpstreamSgRptSm, SptSwitchPrunesTheSharedTreeAndFollowsRpfWc) {
    Rpt t;
    t.sourceVia("up2", t.nbr2);
    t.wcReceiver(true);
    Route& r = t.sgRoute();
    t.vrf.flush();
    // On the shared tree: RPF' is RPF'(*,G), and the forwarding entry takes
    // S's packets there.
    EXPECT_EQ(r.upJoinState(), UpJoinState::upNotJoined);
    EXPECT_EQ(r.iif(), t.up1);
    const auto* record = t.vrf.mfibTable().route(Routing::Multicast::Fib::convertKey(t.key));
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->iif(), t.up1);
    EXPECT_EQ(t.state(), UpRptState::upRptNotPruned);

    // A receiver of S on d2 joins the source tree through up2; once its
    // packets arrive there the SPT bit is set, and PruneDesired(S,G,rpt).
    r.routeIntfIs(t.d2)->localReceiverIncludeIs(true);
    t.vrf.flush();
    ASSERT_EQ(r.upJoinState(), UpJoinState::upJoined);
    EXPECT_EQ(r.iif(), t.up2);
    t.sent();
    r.spTreeIs(true);
    t.vrf.flush();
    EXPECT_EQ(t.state(), UpRptState::upRptPruned);
    EXPECT_TRUE(t.has(t.nbr1, triggered, Kind::rptPruned));
    EXPECT_TRUE(t.has(t.nbr1, periodic, Kind::rptPruned));

    // RPF'(*,G) moves to another neighbour on up2: the periodic Prune moves.
    const IpGenAddr rpNbr = ip("10.0.2.3");
    t.vrf.neighborIs("up2", rpNbr);
    t.vrf.unicastRouteIs(prefix("10.9.9.9/32"), "up2", rpNbr);
    t.vrf.settle();
    ASSERT_EQ(t.wcRoute().rpf().neighbor, rpNbr);
    EXPECT_FALSE(t.has(t.nbr1, periodic, Kind::rptPruned));
    const auto* at = t.vrf.joinPrune().neighbor(t.up2, rpNbr);
    ASSERT_NE(at, nullptr);
    EXPECT_TRUE(JoinPruneWriter::has(*at, periodic, JoinPruneEntry::of(Kind::rptPruned, t.key)));
    EXPECT_EQ(t.vrf.upstreamSgRptSm().prevRpNeighbor(t.key).address, rpNbr);

    // The source's receiver leaves: back on the shared tree, from the new
    // RPF'(*,G), with a triggered Join(S,G,rpt) there.
    r.routeIntfIs(t.d2)->localReceiverIncludeIs(false);
    t.vrf.flush();
    EXPECT_EQ(r.upJoinState(), UpJoinState::upNotJoined);
    EXPECT_EQ(r.iif(), t.up2);
    EXPECT_EQ(r.rpf().neighbor, rpNbr);
    EXPECT_EQ(t.state(), UpRptState::upRptNotPruned);
    EXPECT_TRUE(JoinPruneWriter::has(*at, triggered, JoinPruneEntry::of(Kind::rptJoined, t.key)));
    EXPECT_FALSE(JoinPruneWriter::has(*at, periodic, JoinPruneEntry::of(Kind::rptPruned, t.key)));
}

// Another router's Prune(S,G,rpt) to RPF'(S,G,rpt) is overridden while this
// router needs S on the shared tree; another router's Join(S,G,rpt) cancels
// the override, and so does leaving the shared tree. Messages that do not
// concern a NotPruned route's RPF'(S,G,rpt) are counted and ignored.
TEST(UpstreamSgRptSm, OverrideAndItsCancellation) {
    for (const bool cancelByJoin : {true, false}) {
        SCOPED_TRACE(cancelByJoin ? "cancelled by a Join(S,G,rpt)" : "cancelled by RPTNotJoined");
        Rpt t;
        t.sgRoute();
        t.wcReceiver(true);
        t.sent();
        t.receive(false, true, t.other, t.nbr1, t.key);
        EXPECT_TRUE(t.has(t.nbr1, override_, Kind::rptJoined));
        if (cancelByJoin) {
            t.receive(true, true, t.other, t.nbr1, t.key);
        } else {
            t.wcReceiver(false);
            EXPECT_EQ(t.state(), UpRptState::upRptNotJoined);
        }
        EXPECT_FALSE(t.has(t.nbr1, override_, Kind::rptJoined));
    }

    struct Ignored {
        const char* name;
        bool join, rpt;
        const char* from;
        const char* to;
        RouteKey key;
    };
    const RouteKey k = sg("10.8.8.8", "239.1.1.1");
    for (const Ignored& c : {
             Ignored{"prune from a non-neighbour", false, true, "10.0.1.77", "10.0.1.2", k},
             Ignored{"prune to another neighbour", false, true, "10.0.1.3", "10.0.1.3", k},
             Ignored{"prune without a route", false, true, "10.0.1.3", "10.0.1.2",
                     sg("10.8.8.9", "239.1.1.1")},
             Ignored{"(*,G) prune", false, true, "10.0.1.3", "10.0.1.2", wc("239.1.1.1")},
             Ignored{"join(S,G) does not cancel", true, false, "10.0.1.3", "10.0.1.2", k},
         }) {
        SCOPED_TRACE(c.name);
        Rpt t;
        t.sgRoute();
        t.wcReceiver(true);
        t.sent();
        // For a Join, an override is pending that it must leave alone.
        if (c.join) t.receive(false, true, t.other, t.nbr1, t.key);
        const bool overridePending = t.has(t.nbr1, override_, Kind::rptJoined);
        ASSERT_EQ(overridePending, c.join);
        auto& sm = t.vrf.upstreamSgRptSm();
        const auto joinsBefore = sm.ignoredRxJoins(), prunesBefore = sm.ignoredRxPrunes();
        t.receive(c.join, c.rpt, ip(c.from), ip(c.to), c.key);
        EXPECT_EQ(t.has(t.nbr1, override_, Kind::rptJoined), overridePending);
        if (c.join) {
            EXPECT_EQ(sm.ignoredRxJoins(), joinsBefore + 1);
        } else {
            EXPECT_EQ(sm.ignoredRxPrunes(), prunesBefore + 1);
        }
    }
}

}  // namespace
}  // namespace Routing::Pim::SparseMode::Testing
