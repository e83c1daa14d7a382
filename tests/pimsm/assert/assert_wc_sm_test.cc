// The (*,G) assert state machine of RFC 7761 4.6.2 on a whole VRF: its table, driven by what
// the (S,G) machine hands over (Asserts with the RPT bit for which no (S,G) state exists, data
// without a forwarding entry), by timers, Joins and receivers; SSM groups; RPF'(*,G) following
// the winner.
#include <functional>

#include <gtest/gtest.h>

#include "pimsm/assert/assert_test_vrf.h"

namespace Routing::Pim::SparseMode::Testing {
namespace {

using enum AssertState;

// This router's rpt_assert_metric on d1 is {1, 110, 20, 10.0.3.5}: the RP is reached through
// up1 with preference 110 and metric 20. Asserts name the source S = 10.1.0.7, which has no
// (S,G) route, so the (S,G) machine hands them over.
struct WcVrf : AssertVrf {
    AssertWcSm& sm() const { return vrf.assertWcSm(); }
    // L joined (*,G) on d1, so CouldAssert(*,G,d1) holds whatever the assert state; a local
    // receiver on d2 keeps the route joined when this router loses on d1.
    Route& route() {
        vrf.join(RouteIntfKey{wcKey, d2});
        rxJoin(d1, wcKey, me);
        vrf.settle();
        return *vrf.status().route(wcKey);
    }
    // L prunes d1; the prune takes effect after the override interval.
    void prune() {
        Routing::Pim::JoinPruneMessageInfo m;
        m.riKey = wcKey;
        m.sourceFlags.wildcard = m.sourceFlags.rpt = true;
        m.wcSource = ip("10.9.9.9");
        m.sender = l;
        m.upstreamNeighbor = me;
        m.intf = d1;
        vrf.rx().rxPruneIs(m);
        after(3);
    }
    void rx(const AssertMetric& m) { rxAssert(d1, sgKey, m); }
    void toWinner() { rx(metric(true, 120, 20, w)); }
    void toLoser() { rx(metric(true, 100, 20, w)); }
    Cask::Seconds loserTimer() const {
        AssertSm::RhoRoute* rr = sm().rhoRoute(wcKey);
        AssertSm::RhoIntf* r = rr ? rr->rhoIntf(d1) : nullptr;
        return r ? r->timerDeadline(IntfTimer::expiry) : Cask::never;
    }
    void after(Cask::Seconds dt) { vrf.loop.runUntil(vrf.loop.now() + dt); }
};

struct Row {
    const char* name;
    AssertState from;
    std::function<void(WcVrf&)> event;
    AssertState to;
    int action;
    std::uint32_t triggered;
    bool timerFromEvent;  // a loser's timer restarted by the event (else from the setup)
    const char* winner;
};

// An Assert with the RPT bit on d1 from W or L, metric 20 at the preference given.
std::function<void(WcVrf&)> byW(std::uint32_t pref) {
    return [=](WcVrf& f) { f.rx(f.metric(true, pref, 20, f.w)); };
}
std::function<void(WcVrf&)> byL(std::uint32_t pref) {
    return [=](WcVrf& f) { f.rx(f.metric(true, pref, 20, f.l)); };
}

// The winner list holds the key exactly while this router is the winner, and an AssertCancel
// goes out exactly when it stops being the winner (A4).
TEST(AssertWcSm, EveryTransitionOfTheTable) {
    constexpr auto none = assertNoInfo, won = iAmAssertWinner, lost = iAmAssertLoser;
    const std::vector<Row> rows = {
        {"inferior assert: EDGE1, A1", none, byW(120), won, 1, 1, false, ""},
        {"data without forwarding entry: EDGE2, A1", none,
         [](WcVrf& f) { f.rxData(f.d1, f.sgKey, true); }, won, 1, 1, false, ""},
        {"acceptable assert: EDGE3, A2", none, byW(100), lost, 2, 0, true, "10.0.3.9"},
        {"inferior assert: EDGE2, A3", won, byL(110), won, 3, 2, false, ""},
        {"preferred assert: EDGE3, A2", won, byW(110), lost, 2, 1, true, "10.0.3.9"},
        {"data: ignored", won, [](WcVrf& f) { f.rxData(f.d1, f.sgKey, true); }, won, 1, 1, false,
         ""},
        {"CouldAssert false: A4", won, [](WcVrf& f) { f.prune(); }, none, 4, 1, false, ""},
        {"preferred assert: EDGE1, A2", lost, byL(90), lost, 2, 0, true, "10.0.3.1"},
        {"acceptable assert from the winner: EDGE2, A2", lost, byW(105), lost, 2, 0, true,
         "10.0.3.9"},
        {"acceptable assert from another router: nothing", lost, byL(105), lost, 2, 0, false,
         "10.0.3.9"},
        {"inferior assert from the winner: EDGE3, A5", lost, byW(120), none, 5, 0, false, ""},
        {"assert timer: A5", lost, [](WcVrf& f) { f.after(180); }, none, 5, 0, false, ""},
        {"winner's neighbour gone: A5", lost, [](WcVrf& f) { f.vrf.neighborDel("d1", f.w); }, none,
         5, 0, false, ""},
        {"winner restarted (new generation ID): A5", lost, [](WcVrf& f) { f.restart(f.w); }, none,
         5, 0, false, ""},
        {"another router restarted: nothing", lost, [](WcVrf& f) { f.restart(f.l); }, lost, 2, 0,
         false, "10.0.3.9"},
        {"tracking no longer desired: A5", lost, [](WcVrf& f) { f.prune(); }, none, 5, 0, false,
         ""},
        {"(*,G) Join addressed to me: EDGE9, A5", lost,
         [](WcVrf& f) { f.rxJoin(f.d1, f.wcKey, f.me); }, none, 5, 0, false, ""},
        {"(S,G) Join addressed to me: nothing", lost,
         [](WcVrf& f) { f.rxJoin(f.d1, f.sgKey, f.me); }, lost, 2, 0, false, "10.0.3.9"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(fmt::format("{}: {}", enumName(row.from), row.name));
        WcVrf f;
        f.route();
        if (row.from == iAmAssertWinner) f.toWinner();
        if (row.from == iAmAssertLoser) f.toLoser();
        ASSERT_EQ(f.state(f.wcKey, f.d1), row.from);
        const Cask::Seconds setupAt = f.vrf.loop.now();
        Cask::Ptr<Intf> i = f.vrf.status().route(f.wcKey)->routeIntf(f.d1);
        ASSERT_TRUE(i);
        f.after(10);
        const Cask::Seconds eventAt = f.vrf.loop.now();
        row.event(f);
        f.vrf.flush();
        EXPECT_EQ(i->assertInfo().assertState, row.to);
        EXPECT_EQ(i->lastAssertAction(), row.action);
        EXPECT_EQ(f.winnerListed(f.wcKey, f.d1), row.to == won);
        EXPECT_EQ(f.cancelListed(f.wcKey, f.d1), row.from == won && row.to == none);
        EXPECT_EQ(f.triggered(f.d1), row.triggered);
        if (row.to == iAmAssertLoser) {
            EXPECT_EQ(i->assertWinner(), ip(row.winner));
            EXPECT_EQ(f.loserTimer(), (row.timerFromEvent ? eventAt : setupAt) + 180);
        } else {
            EXPECT_EQ(f.loserTimer(), Cask::never);
        }
        if (row.to == iAmAssertWinner) {
            const AssertMetric mine = f.metric(true, 110, 20, f.me);
            EXPECT_EQ(i->assertInfo().winnerMetric, mine);
            // The immediate Assert names the source of the packet or Assert that caused it.
            EXPECT_EQ(f.status(f.d1)->triggeredWinnerKey(), f.sgKey);
            EXPECT_EQ(f.status(f.d1)->triggeredWinnerMetric(), mine);
        }
        if (row.to == assertNoInfo) {
            EXPECT_EQ(f.sm().rhoRoute(f.wcKey), nullptr);
        }
    }
}

TEST(AssertWcSm, WhatNeverReachesTheTable) {
    struct Case {
        const char* name;
        std::function<void(WcVrf&)> event;
        std::uint32_t ignored;
        bool up2Created;
    };
    const std::vector<Case> cases = {
        {"SSM group: counted",
         [](WcVrf& f) { f.rxAssert(f.d1, wc("232.1.1.1"), f.metric(true, 120, 20, f.w)); }, 1,
         false},
        {"RPT bit clear",
         [](WcVrf& f) { f.rxAssert(f.d1, f.wcKey, f.metric(false, 120, 20, f.w)); }, 0, false},
        {"no (*,G) route",
         [](WcVrf& f) { f.rxAssert(f.d1, wc("239.2.2.2"), f.metric(true, 120, 20, f.w)); }, 0,
         false},
        {"data on an interface without (*,G,I) state",
         [](WcVrf& f) { f.rxData(f.up2, f.sgKey, true); }, 0, false},
        {"Assert on an interface without (*,G,I) state: created, nothing to assert",
         [](WcVrf& f) { f.rxAssert(f.up2, f.sgKey, f.metric(true, 120, 20, f.w)); }, 0, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        WcVrf f;
        f.route();
        c.event(f);
        EXPECT_EQ(f.sm().ignoredRxAsserts(), c.ignored);
        EXPECT_EQ(f.vrf.assertSgSm().ignoredRxAsserts(), 0u);
        EXPECT_EQ(f.state(f.wcKey, f.d1), assertNoInfo);
        EXPECT_EQ(f.intf(f.wcKey, f.up2) != nullptr, c.up2Created);
        EXPECT_EQ(f.state(f.wcKey, f.up2), assertNoInfo);
        EXPECT_EQ(f.sm().routeMap().size(), 0u);
    }
}

// Losing on RPF_interface(RP(G)) makes the winner RPF'(*,G); my better metric ends it.
TEST(AssertWcSm, LoserOnTheRpfInterfaceFollowsTheWinner) {
    WcVrf f;
    const IpGenAddr winner = ip("10.0.1.7");
    f.vrf.neighborIs("up1", winner);
    Route& r = f.route();
    ASSERT_EQ(r.rpf().neighbor, ip("10.0.1.2"));
    f.rxAssert(f.up1, f.wcKey, f.metric(true, 100, 20, winner));
    f.vrf.flush();
    EXPECT_EQ(f.state(f.wcKey, f.up1), iAmAssertLoser);
    EXPECT_EQ(r.rpf().neighbor, winner);
    // The winner stops asserting: the loser state times out and RPF' is the unicast one again.
    f.after(180);
    f.vrf.flush();
    EXPECT_EQ(f.state(f.wcKey, f.up1), assertNoInfo);
    EXPECT_EQ(r.rpf().neighbor, ip("10.0.1.2"));
}

TEST(AssertWcSmDeathTest, LoserActionChecksItsState) {
    EXPECT_DEATH(
        {
            WcVrf f;
            Route& r = f.route();
            f.toWinner();
            f.sm().doA5(f.sm().rhoIntfIs(r, *r.routeIntf(f.d1)), "");
        },
        "i->assertInfo\\(\\).assertState\\(\\) == iAmAssertLoser\\(\\)");
}

}  // namespace
}  // namespace Routing::Pim::SparseMode::Testing
