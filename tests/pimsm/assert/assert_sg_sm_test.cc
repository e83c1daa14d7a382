// The (S,G) assert state machine of RFC 7761 4.6.1 on a whole VRF: every transition of its
// table driven by received Asserts, data, timers, Joins and route changes, with what it records
// for the Assert plumbing; the hand-over to the (*,G) machine; the effect of a lost assert on
// RPF'(S,G) and on the outgoing interfaces.
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "pimsm/assert/assert_test_vrf.h"
#include "platform/mfib_table.h"

namespace Routing::Pim::SparseMode::Testing {
namespace {

using enum AssertState;

// This router's spt_assert_metric on d1 is {0, 110, 20, 10.0.3.5}: the layout reaches the
// sources through up1 with preference 110 and metric 20.
struct SgVrf : AssertVrf {
    AssertSgSm& sm() const { return vrf.assertSgSm(); }

    // The (S,G) route on the source tree with L joined on d1, so CouldAssert(S,G,d1) and
    // AssertTrackingDesired(S,G,d1) hold (whatever the assert state: unlike a local receiver,
    // a Join keeps d1 in joins(S,G) when this router loses).
    // A local receiver on d2 keeps the route joined (and so on the source tree) when this
    // router loses on d1.
    Route& route() {
        vrf.join(RouteIntfKey{sgKey, d2});
        rxJoin(d1, sgKey, me);
        vrf.settle();
        Route& r = *vrf.status().route(sgKey);
        // Data arrived on the source tree (the upstream machine clears the bit when it joins).
        r.switchingIs(false);
        r.spTreeIs(true);
        return r;
    }
    void toWinner() { rxAssert(d1, sgKey, metric(false, 120, 20, w)); }
    void toLoser() { rxAssert(d1, sgKey, metric(false, 100, 20, w)); }
    AssertSm::RhoIntf* rho(IntfId id) const {
        AssertSm::RhoRoute* rr = sm().rhoRoute(sgKey);
        return rr ? rr->rhoIntf(id) : nullptr;
    }
    Cask::Seconds loserTimer(IntfId id) const {
        AssertSm::RhoIntf* r = rho(id);
        return r ? r->timerDeadline(IntfTimer::expiry) : Cask::never;
    }
    void after(Cask::Seconds dt) { vrf.loop.runUntil(vrf.loop.now() + dt); }
    // L prunes d1; the prune takes effect after the override interval.
    void prune() {
        Routing::Pim::JoinPruneMessageInfo m;
        m.riKey = sgKey;
        m.sender = l;
        m.upstreamNeighbor = me;
        m.intf = d1;
        vrf.rx().rxPruneIs(m);
        after(3);
    }
};

// When a loser's assert timer runs out: not at all, 180 s after the setup or after the event.
enum class Timer { off, fromSetup, fromEvent };

struct Row {
    const char* name;
    AssertState from;
    std::function<void(SgVrf&)> event;
    AssertState to;
    int action;               // lastAssertAction afterwards
    std::uint32_t triggered;  // triggered winner Asserts requested in all
    Timer timer;
    const char* winner;  // the winner's address while loser
};

// An (S,G) Assert on d1 from W or L, with the RPT bit, preference and metric given.
std::function<void(SgVrf&)> byW(bool rpt, std::uint32_t pref, std::uint32_t metric = 20) {
    return [=](SgVrf& f) { f.rxAssert(f.d1, f.sgKey, f.metric(rpt, pref, metric, f.w)); };
}
std::function<void(SgVrf&)> byL(bool rpt, std::uint32_t pref, std::uint32_t metric = 20) {
    return [=](SgVrf& f) { f.rxAssert(f.d1, f.sgKey, f.metric(rpt, pref, metric, f.l)); };
}

// The winner list holds the key exactly while this router is the winner, and an AssertCancel
// goes out exactly when it stops being the winner (A4).
TEST(AssertSgSm, EveryTransitionOfTheTable) {
    constexpr std::uint32_t inf = 0x7fffffff;
    using enum Timer;
    constexpr auto none = assertNoInfo, won = iAmAssertWinner, lost = iAmAssertLoser;
    const std::vector<Row> rows = {
        // assertNoInfo
        {"inferior assert: EDGE1, A1", none, byW(false, 120), won, 1, 1, off, ""},
        {"equal metric from a lower address: A1", none, byL(false, 110), won, 1, 1, off, ""},
        {"RPT assert with CouldAssert: EDGE2, A1", none, byW(true, 1, 1), won, 1, 1, off, ""},
        {"data on the outgoing interface: EDGE3, A1", none,
         [](SgVrf& f) { f.rxData(f.d1, f.sgKey); }, won, 1, 1, off, ""},
        {"acceptable assert: EDGE4, A6", none, byW(false, 100), lost, 6, 0, fromEvent, "10.0.3.9"},
        {"equal metric from a higher address: A6", none, byW(false, 110), lost, 6, 0, fromEvent,
         "10.0.3.9"},
        // iAmAssertWinner
        {"inferior assert: EDGE2, A3", won, byL(false, 130), won, 3, 2, off, ""},
        {"preferred assert: EDGE3, A2", won, byL(false, 100), lost, 2, 1, fromEvent, "10.0.3.1"},
        {"data: ignored", won, [](SgVrf& f) { f.rxData(f.d1, f.sgKey); }, won, 1, 1, off, ""},
        {"CouldAssert false: EDGE4, A4", won, [](SgVrf& f) { f.prune(); }, none, 4, 1, off, ""},
        // iAmAssertLoser, with W as the winner
        {"preferred assert: EDGE1, A2", lost, byL(false, 90), lost, 2, 0, fromEvent, "10.0.3.1"},
        {"acceptable assert from the winner: EDGE2, A2", lost, byW(false, 105), lost, 2, 0,
         fromEvent, "10.0.3.9"},
        {"acceptable assert from another router: nothing", lost, byL(false, 105), lost, 6, 0,
         fromSetup, "10.0.3.9"},
        {"inferior assert from the winner: EDGE3, A5", lost, byW(false, 120), none, 5, 0, off, ""},
        {"AssertCancel from the winner: EDGE3, A5", lost,
         [&](SgVrf& f) { f.rxAssert(f.d1, f.sgKey, f.metric(true, inf, 0xffffffff, f.w)); }, none,
         5, 0, off, ""},
        {"inferior assert from another router: nothing", lost, byL(false, 120), lost, 6, 0,
         fromSetup, "10.0.3.9"},
        {"assert timer: EDGE4, A5", lost, [](SgVrf& f) { f.after(180); }, none, 5, 0, off, ""},
        {"winner's neighbour gone: EDGE5, A5", lost, [](SgVrf& f) { f.vrf.neighborDel("d1", f.w); },
         none, 5, 0, off, ""},
        // d1 is not the RPF interface: no change flag tells of W's restart.
        {"winner restarted (new generation ID): EDGE5, A5", lost, [](SgVrf& f) { f.restart(f.w); },
         none, 5, 0, off, ""},
        {"another router restarted: nothing", lost, [](SgVrf& f) { f.restart(f.l); }, lost, 6, 0,
         fromSetup, "10.0.3.9"},
        {"tracking no longer desired: EDGE6, A5", lost, [](SgVrf& f) { f.prune(); }, none, 5, 0,
         off, ""},
        {"my metric now better: EDGE7, A5", lost,
         [](SgVrf& f) {
             f.vrf.unicastRouteIs(prefix("10.1.0.0/16"), "up1", ip("10.0.1.2"), 90, 20);
             f.vrf.settle();
         },
         none, 5, 0, off, ""},
        {"Join addressed to me: EDGE9, A5", lost, [](SgVrf& f) { f.rxJoin(f.d1, f.sgKey, f.me); },
         none, 5, 0, off, ""},
        {"Join addressed to the winner: nothing", lost,
         [](SgVrf& f) { f.rxJoin(f.d1, f.sgKey, f.w); }, lost, 6, 0, fromSetup, "10.0.3.9"},
        {"(*,G) Join addressed to me: nothing", lost,
         [](SgVrf& f) { f.rxJoin(f.d1, f.wcKey, f.me); }, lost, 6, 0, fromSetup, "10.0.3.9"},
        {"data: ignored", lost, [](SgVrf& f) { f.rxData(f.d1, f.sgKey); }, lost, 6, 0, fromSetup,
         "10.0.3.9"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(fmt::format("{}: {}", enumName(row.from), row.name));
        SgVrf f;
        f.route();
        if (row.from == iAmAssertWinner) f.toWinner();
        if (row.from == iAmAssertLoser) f.toLoser();
        ASSERT_EQ(f.state(f.sgKey, f.d1), row.from);
        const Cask::Seconds setupAt = f.vrf.loop.now();
        Cask::Ptr<Intf> i = f.vrf.status().route(f.sgKey)->routeIntf(f.d1);
        ASSERT_TRUE(i);
        f.after(10);
        const Cask::Seconds eventAt = f.vrf.loop.now();
        row.event(f);
        f.vrf.flush();
        EXPECT_EQ(i->assertInfo().assertState, row.to);
        EXPECT_EQ(i->lastAssertAction(), row.action);
        EXPECT_EQ(f.winnerListed(f.sgKey, f.d1), row.to == won);
        EXPECT_EQ(f.cancelListed(f.sgKey, f.d1), row.from == won && row.to == none);
        EXPECT_EQ(f.triggered(f.d1), row.triggered);
        EXPECT_EQ(f.assertsPunted() + f.dataPunted(), 0u);
        const Cask::Seconds expect = row.timer == Timer::off         ? Cask::never
                                     : row.timer == Timer::fromSetup ? setupAt + 180
                                                                     : eventAt + 180;
        EXPECT_EQ(f.loserTimer(f.d1), expect);
        if (row.to == iAmAssertLoser) {
            EXPECT_EQ(i->assertInfo().winnerMetric.address, ip(row.winner));
            EXPECT_EQ(i->assertWinner(), ip(row.winner));
        } else if (row.to == iAmAssertWinner) {
            EXPECT_EQ(i->assertInfo().winnerMetric, f.metric(false, 110, 20, f.me));
            EXPECT_EQ(f.status(f.d1)->triggeredWinnerKey(), f.sgKey);
            EXPECT_EQ(f.status(f.d1)->triggeredWinnerMetric(), f.metric(false, 110, 20, f.me));
        } else {
            EXPECT_TRUE(i->assertInfo().winnerMetric.isInfinite());
            // Nothing to keep: the machine holds no reactor for the route any more.
            EXPECT_EQ(f.sm().rhoRoute(f.sgKey), nullptr);
        }
    }
}

TEST(AssertSgSm, CountsPreferredAndInferiorAsserts) {
    SgVrf f;
    f.route();
    f.toWinner();
    f.rxAssert(f.d1, f.sgKey, f.metric(false, 120, 20, f.l));
    f.rxAssert(f.d1, f.sgKey, f.metric(false, 100, 20, f.l));
    f.rxAssert(f.d1, f.sgKey, f.metric(false, 90, 20, f.w));
    const Intf* i = f.intf(f.sgKey, f.d1);
    EXPECT_EQ(i->rxInferiorAssert(), 1u);
    EXPECT_EQ(i->rxPreferredAssert(), 2u);
}

// What the (S,G) machine hands to the (*,G) machine, and what it drops.
TEST(AssertSgSm, HandsOverWhatHasNoSgState) {
    struct Case {
        const char* name;
        std::function<void(SgVrf&)> event;
        std::uint32_t asserts, data;
        bool intfCreated;  // on up2
    };
    const std::vector<Case> cases = {
        {"Assert(*,G): unspecified source",
         [](SgVrf& f) { f.rxAssert(f.d1, f.wcKey, f.metric(true, 100, 20, f.w)); }, 1, 0, false},
        {"no (S,G) route, RPT bit set",
         [](SgVrf& f) { f.rxAssert(f.d1, sg("10.1.0.8", "239.1.1.1"), f.metric(true, 1, 1, f.w)); },
         1, 0, false},
        {"no (S,G) route, RPT bit clear: dropped",
         [](SgVrf& f) {
             f.rxAssert(f.d1, sg("10.1.0.8", "239.1.1.1"), f.metric(false, 1, 1, f.w));
         },
         0, 0, false},
        {"RPT bit set on an interface CouldAssert(S,G,rpt) excludes",
         [](SgVrf& f) { f.rxAssert(f.up2, f.sgKey, f.metric(true, 1, 1, f.w)); }, 1, 0, false},
        {"RPT bit clear on an interface without any state",
         [](SgVrf& f) { f.rxAssert(f.up2, f.sgKey, f.metric(false, 120, 1, f.w)); }, 1, 0, false},
        {"data without (S,G) route", [](SgVrf& f) { f.rxData(f.d1, sg("10.1.0.8", "239.1.1.1")); },
         0, 1, false},
        {"data on an interface without (S,G) state", [](SgVrf& f) { f.rxData(f.up2, f.sgKey); }, 0,
         1, false},
        {"RPT assert on an interface the (*,G) route forwards on: created",
         [](SgVrf& f) {
             f.vrf.route(f.wcKey, {"up2"});
             f.vrf.flush();
             f.rxAssert(f.up2, f.sgKey, f.metric(true, 1, 1, f.w));
         },
         0, 0, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        SgVrf f;
        f.route();
        c.event(f);
        EXPECT_EQ(f.assertsPunted(), c.asserts);
        EXPECT_EQ(f.dataPunted(), c.data);
        EXPECT_EQ(f.intf(f.sgKey, f.up2) != nullptr, c.intfCreated);
        EXPECT_EQ(f.state(f.sgKey, f.d1), assertNoInfo);
        if (c.intfCreated) {
            EXPECT_EQ(f.state(f.sgKey, f.up2), iAmAssertWinner);
        }
    }
}

// Losing on RPF_interface(S): RPF'(S,G) becomes the winner, the Join goes there, and A6 sets
// the SPT bit of the joined route; losing on the RPF interface moving away ends it (EDGE8).
TEST(AssertSgSm, LoserOnTheRpfInterfaceFollowsTheWinner) {
    SgVrf f;
    const IpGenAddr winner = ip("10.0.1.7");
    f.vrf.neighborIs("up1", winner);
    f.vrf.join(RouteIntfKey{f.sgKey, f.d1});
    f.vrf.settle();
    Route& r = *f.vrf.status().route(f.sgKey);
    ASSERT_EQ(r.upJoinState(), UpJoinState::upJoined);
    ASSERT_EQ(r.rpf().neighbor, ip("10.0.1.2"));
    r.switchingIs(true);
    ASSERT_FALSE(r.spTree());
    // A6 writes both flags at once: whoever hears of either sees both.
    struct FlagWatch : Route::Notifiee {
        using Route::Notifiee::Notifiee;
        int flagWrites = 0, halfWritten = 0;
        void check() {
            if (notifier()->spTree() == notifier()->switching()) ++halfWritten;
        }
        void handleSpTree() override { check(); }
        void handleSwitching() override { check(); }
        void handleRouteFlags() override { ++flagWrites; }
    } watch(&r);
    f.rxAssert(f.up1, f.sgKey, f.metric(false, 100, 20, winner));
    f.vrf.flush();
    EXPECT_GT(watch.flagWrites, 0);
    EXPECT_EQ(watch.halfWritten, 0);
    watch.notifierIs(nullptr);
    EXPECT_EQ(f.state(f.sgKey, f.up1), iAmAssertLoser);
    Cask::Ptr<Intf> onUp1 = r.routeIntf(f.up1);
    ASSERT_TRUE(onUp1);
    EXPECT_EQ(onUp1->lastAssertAction(), 6);
    EXPECT_EQ(r.rpf().neighbor, winner);
    EXPECT_TRUE(r.spTree());
    EXPECT_FALSE(r.switching());

    // A6 elsewhere leaves the flags alone.
    r.spTreeIs(false);
    f.rxAssert(f.d1, f.sgKey, f.metric(false, 100, 20, f.w));
    EXPECT_EQ(f.state(f.sgKey, f.d1), iAmAssertLoser);
    EXPECT_FALSE(r.spTree());

    f.vrf.unicastRouteIs(prefix("10.1.0.0/16"), "up2", ip("10.0.2.2"));
    f.vrf.settle();
    EXPECT_EQ(r.iif(), f.up2);
    EXPECT_EQ(onUp1->assertInfo().assertState, assertNoInfo);
    EXPECT_EQ(onUp1->lastAssertAction(), 5);
    EXPECT_TRUE(Cask::trace().contains("EDGE8"));
}

TEST(AssertSgSm, LosingInterfaceLeavesTheForwardingRecord) {
    SgVrf f;
    f.vrf.join(RouteIntfKey{f.sgKey, f.d1});
    f.vrf.join(RouteIntfKey{f.sgKey, f.d2});
    f.vrf.settle();
    Route& r = *f.vrf.status().route(f.sgKey);
    r.switchingIs(false);
    r.spTreeIs(true);
    f.vrf.flush();
    auto hasOif = [&](IntfId id) {
        const TMF::Route* rec =
            f.vrf.mfibTable().route(Routing::Multicast::Fib::convertKey(f.sgKey));
        return rec && rec->oif(f.vrf.mfibSm().intfOifIndex(id));
    };
    ASSERT_TRUE(hasOif(f.d1));
    ASSERT_TRUE(hasOif(f.d2));
    f.rxAssert(f.d1, f.sgKey, f.metric(false, 100, 20, f.w));
    f.vrf.flush();
    EXPECT_FALSE(f.intf(f.sgKey, f.d1)->forward());
    EXPECT_FALSE(hasOif(f.d1));
    EXPECT_TRUE(hasOif(f.d2));
    // The winner stops asserting: once the assert timer runs out the interface forwards again.
    f.after(180);
    f.vrf.flush();
    EXPECT_EQ(f.state(f.sgKey, f.d1), assertNoInfo);
    EXPECT_TRUE(hasOif(f.d1));
}

// A winner that stops asserting queues an AssertCancel for its key; winning the same key on the
// same interface again before the cancel goes drops it, or the cancel would follow the new
// winner's Assert and undo it.
TEST(AssertSgSm, WinningAgainDropsThePendingCancel) {
    struct Case {
        const char* name;
        std::function<void(SgVrf&)> stop, again;
    };
    // The SPT bit cleared: CouldAssert(S,G,d1) false, A4.
    auto couldNot = [](SgVrf& f) { f.vrf.status().route(f.sgKey)->spTreeIs(false); };
    auto could = [](SgVrf& f) { f.vrf.status().route(f.sgKey)->spTreeIs(true); };
    const std::vector<Case> cases = {
        {"inferior assert: A1", couldNot,
         [&](SgVrf& f) {
             could(f);
             f.toWinner();
         }},
        {"data on the interface: A1", couldNot,
         [&](SgVrf& f) {
             could(f);
             f.rxData(f.d1, f.sgKey);
         }},
        // The route record replaced by one that carries the winner state, joined and on the
        // source tree (what a restart hands over): the old record's going asks for a cancel,
        // the new one is the winner.
        {"route handed over as the winner", [](SgVrf& f) { f.vrf.removeRoute(f.sgKey); },
         [](SgVrf& f) {
             f.vrf.route(f.sgKey, {}, [&](Route& r) {
                 r.upJoinStateIs(UpJoinState::upJoined);
                 r.spTreeIs(true);
                 r.routeIntfIs(f.d2)->localReceiverIncludeIs(true);
                 Intf& i = *r.routeIntfIs(f.d1);
                 i.localReceiverIncludeIs(true);
                 i.assertInfoIs(AssertInfo{iAmAssertWinner, f.metric(false, 110, 20, f.me)});
             });
         }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        SgVrf f;
        f.route();
        f.toWinner();
        f.vrf.settle();
        c.stop(f);
        ASSERT_TRUE(f.status(f.d1)->assertCancelHas(f.sgKey));
        ASSERT_FALSE(f.winnerListed(f.sgKey, f.d1));
        c.again(f);
        EXPECT_EQ(f.state(f.sgKey, f.d1), iAmAssertWinner);
        EXPECT_TRUE(f.winnerListed(f.sgKey, f.d1));
        EXPECT_FALSE(f.status(f.d1)->assertCancelHas(f.sgKey));
        f.vrf.loop.runOnce();
        EXPECT_FALSE(f.cancelListed(f.sgKey, f.d1));
    }
}

// A winner whose interface or route goes sends an AssertCancel; one whose PIM interface goes
// only resets.
TEST(AssertSgSm, WinnerGoing) {
    struct Case {
        const char* name;
        std::function<void(SgVrf&)> event;
        bool cancel;
    };
    const std::vector<Case> cases = {
        {"interface record removed",
         [](SgVrf& f) { f.vrf.status().route(f.sgKey)->routeIntfDel(f.d1); }, true},
        {"route removed", [](SgVrf& f) { f.vrf.removeRoute(f.sgKey); }, true},
        {"PIM interface removed", [](SgVrf& f) { f.vrf.pim().intfDel(f.d1); }, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        SgVrf f;
        Cask::Ptr<Intf> i = f.route().routeIntf(f.d1);
        f.toWinner();
        ASSERT_TRUE(f.winnerListed(f.sgKey, f.d1));
        c.event(f);
        EXPECT_FALSE(f.winnerListed(f.sgKey, f.d1));
        EXPECT_EQ(f.cancelListed(f.sgKey, f.d1), c.cancel);
        EXPECT_EQ(f.sm().rhoRoute(f.sgKey), nullptr);
        if (!c.cancel) {
            EXPECT_EQ(i->assertInfo().assertState, assertNoInfo);
            EXPECT_EQ(i->lastAssertAction(), 0);
        }
    }
}

TEST(AssertSgSm, LoserWithoutPimConfigurationNeverTimesOut) {
    SgVrf f;
    f.route();
    f.toLoser();
    f.vrf.pim().intfDel(f.d1);
    // The PIM interface going resets the state; a loser made without one keeps no timer.
    EXPECT_EQ(f.state(f.sgKey, f.d1), assertNoInfo);
    Route& r = *f.vrf.status().route(f.sgKey);
    Intf& i = *r.routeIntf(f.d1);
    AssertSm::RhoIntf& rho = f.sm().rhoIntfIs(r, i);
    rho.doChangeAssertState(iAmAssertLoser, f.metric(false, 100, 20, f.w));
    EXPECT_EQ(rho.timerDeadline(IntfTimer::expiry), Cask::never);
}

TEST(AssertSgSmDeathTest, ActionsCheckTheirState) {
    struct Case {
        const char* name;
        AssertState in;
        std::function<void(AssertSgSm&, AssertSm::RhoIntf&)> action;
        const char* message;
    };
    const RouteKey key = sg("10.1.0.7", "239.1.1.1");
    const std::vector<Case> cases = {
        {"A1 in winner", iAmAssertWinner,
         [&](AssertSgSm& sm, AssertSm::RhoIntf& r) { sm.doA1(r, key, ""); },
         "fromAssertState == assertNoInfo\\(\\)"},
        {"A2 in no-info", assertNoInfo,
         [](AssertSgSm& sm, AssertSm::RhoIntf& r) { sm.doA2(r, AssertMetric{}, ""); },
         "oldAssertState == iAmAssertWinner\\(\\) \\|\\| oldAssertState == iAmAssertLoser\\(\\)"},
        {"A3 in loser", iAmAssertLoser,
         [&](AssertSgSm& sm, AssertSm::RhoIntf& r) { sm.doA3(r, key, ""); },
         "i->assertInfo\\(\\).assertState\\(\\) == iAmAssertWinner\\(\\)"},
        {"A4 in loser", iAmAssertLoser,
         [](AssertSgSm& sm, AssertSm::RhoIntf& r) { sm.doA4(r, ""); },
         "i->assertInfo\\(\\).assertState\\(\\) == iAmAssertWinner\\(\\)"},
        {"A5 in winner", iAmAssertWinner,
         [](AssertSgSm& sm, AssertSm::RhoIntf& r) { sm.doA5(r, ""); },
         "i->assertInfo\\(\\).assertState\\(\\) == iAmAssertLoser_"},
        {"A6 in loser", iAmAssertLoser,
         [](AssertSgSm& sm, AssertSm::RhoIntf& r) { sm.doA6(r, AssertMetric{}, ""); },
         "i->assertInfo\\(\\).assertState\\(\\) == assertNoInfo_"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_DEATH(
            {
                SgVrf f;
                Route& r = f.route();
                if (c.in == iAmAssertWinner) f.toWinner();
                if (c.in == iAmAssertLoser) f.toLoser();
                AssertSm::RhoIntf& rho = f.sm().rhoIntfIs(r, *r.routeIntf(f.d1));
                c.action(f.sm(), rho);
            },
            c.message);
    }
}

}  // namespace
}  // namespace Routing::Pim::SparseMode::Testing
