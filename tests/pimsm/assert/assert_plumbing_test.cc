// The assert plumbing: received Asserts, triggered winner Asserts,
// AssertCancels in time-bounded walks, periodic winner Asserts spread over
// Assert_Time - Assert_Override_Interval, per-interface machine lifetime,
// and data upcalls handed to the assert machines.
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "pimsm/test_vrf.h"

namespace Routing::Pim::SparseMode::Testing {
namespace {

using Routing::Pim::AssertMessage;
using Routing::Pim::IntfStatus;
using Routing::Pim::MrtUpcall;
using Routing::Pim::IO::SentAssert;

struct AssertVrf : TestVrf {
    AssertVrf() : TestVrf(Layout::twoUpstreamsIAmDr) {}

    const IntfId d1{"d1"}, d2{"d2"};

    IntfStatus& intfStatus(IntfId i) const { return ctx().assertStatus->intfIs(i); }
    Routing::Pim::IO::MessageInfo& tx() const { return *ctx().txMessageInfo; }
    AssertIntfSm* intfSm(IntfId i) const { return assertMessageSm().assertIntfSm(i); }
    std::vector<SentAssert> sent() const { return {tx().sent().begin(), tx().sent().end()}; }
    void advance(double dt) { loop.runUntil(clock.now() + dt); }

    // A route on which this router won the assert on `intf` with `metric`.
    void winner(const RouteKey& key, IntfId intf, const AssertMetric& metric) {
        Route& r = route(key, {intf.name()});
        r.routeIntfRaw(intf)->assertInfoIs(AssertInfo{AssertState::iAmAssertWinner, metric});
        intfStatus(intf).assertWinnerIs(key);
    }
    static AssertMetric metric(std::uint32_t pref, std::uint32_t m) {
        return AssertMetric{false, pref, m, ip("10.0.3.5")};
    }
};

RouteKey sgN(int n) {
    return sg(fmt::format("10.1.{}.{}", n / 200, n % 200 + 1), "239.1.1.1");
}

TEST(AssertMessageSmTest, ReceivedAssertIsRecordedAndAnnouncedEveryTime) {
    AssertVrf vrf;
    auto& info = *vrf.ctx().rxAssertMessageInfo;
    AssertMessage m;
    m.group = ip("239.1.1.1");
    m.source = ip("10.1.1.1");
    m.metricPreference = 110;
    m.metric = 20;
    m.sender = ip("10.0.3.7");
    // The same message twice is two events; an interface without a machine
    // still records it.
    const std::vector<IntfId> intfs = {vrf.d1, vrf.d1, IntfId("nopim")};
    for (std::size_t i = 0; i < intfs.size(); ++i) {
        vrf.assertMessageSm().handleRxMessage(m, intfs[i]);
        EXPECT_EQ(info.rxCount(), i + 1);
        EXPECT_EQ(info.message(), m);
        EXPECT_EQ(info.intfId(), intfs[i]);
    }
    EXPECT_EQ(info.wcRxCount(), 0u);
    EXPECT_EQ(vrf.tx().count(), 0u);
}

// Each increment of triggeredWinnerCount is one Assert with the key and
// metric set before it; (*,G) Asserts carry the RPT bit of their metric.
TEST(AssertIntfSmTest, TriggeredWinnerAssertPerIncrement) {
    struct Case {
        RouteKey key;
        AssertMetric metric;
    };
    AssertVrf vrf;
    const std::vector<Case> cases = {
        {sg("10.1.1.1", "239.1.1.1"), AssertVrf::metric(110, 20)},
        {sg("10.1.1.1", "239.1.1.1"), AssertVrf::metric(110, 20)},  // same again: still sent
        {wc("239.2.2.2"), AssertMetric{true, 1, 2, ip("10.0.3.5")}},
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        vrf.intfStatus(vrf.d1).triggeredWinnerIs(cases[i].key, cases[i].metric);
        ASSERT_EQ(vrf.tx().count(), i + 1);
        const AssertMessage& m = vrf.tx().assertMessage();
        EXPECT_EQ(m.key(), cases[i].key);
        EXPECT_EQ(m.rpt, cases[i].metric.rptBit);
        EXPECT_EQ(m.metricPreference, cases[i].metric.metricPreference);
        EXPECT_EQ(m.metric, cases[i].metric.metric);
        EXPECT_EQ(vrf.tx().intfId(), vrf.d1);
        EXPECT_FALSE(vrf.sent().back().cancel);
    }
}

// RFC 7761 4.6: an AssertCancel is an Assert with the RPT bit set and the
// infinite metric preference and metric. Ten cancels requested in one go
// arm the timer once (later requests do not move it) and go out in the
// next turn, each key leaving the set.
TEST(AssertIntfSmTest, CancelsArmTheTimerOnceAndSendOneCancelEach) {
    AssertVrf vrf;
    vrf.settle();
    IntfStatus& s = vrf.intfStatus(vrf.d1);
    const double t0 = vrf.clock.now();
    std::vector<RouteKey> keys;
    for (int n = 0; n < 9; ++n) keys.push_back(sgN(n));
    keys.push_back(wc("239.1.1.1"));
    for (const RouteKey& k : keys) {
        s.assertCancelIs(k);
        EXPECT_EQ(vrf.intfSm(vrf.d1)->assertCancelTimerTime(), t0);
        vrf.clock.advanceBy(0.001);  // a re-arm would follow the clock
    }
    EXPECT_EQ(vrf.tx().count(), 0u);
    vrf.loop.runOnce();
    EXPECT_EQ(vrf.tx().count(), keys.size());
    EXPECT_EQ(s.assertCancelSize(), 0u);
    EXPECT_EQ(vrf.intfSm(vrf.d1)->assertCancelTimerTime(), Cask::never);
    std::map<RouteKey, int> seen;
    for (const SentAssert& a : vrf.sent()) {
        ++seen[a.key];
        EXPECT_TRUE(a.cancel);
        EXPECT_EQ(a.intf, vrf.d1);
    }
    for (const RouteKey& k : keys) EXPECT_EQ(seen[k], 1) << k.str();
    const AssertMessage& m = vrf.tx().assertMessage();
    EXPECT_TRUE(m.rpt);
    EXPECT_EQ(m.metricPreference, 0x7fffffffu);
    EXPECT_EQ(m.metric, 0xffffffffu);
    // Nothing more to send: the timer stays off.
    vrf.advance(10);
    EXPECT_EQ(vrf.tx().count(), keys.size());
}

// The cancel walk stops when its loop quantum is used up, saves the next
// key and resumes there on the next turn; a key added before the bookmark
// meanwhile waits for the walk to wrap.
TEST(AssertIntfSmTest, CancelWalkStopsAtQuantumAndResumesAtBookmark) {
    AssertVrf vrf;
    vrf.settle();
    IntfStatus& s = vrf.intfStatus(vrf.d1);
    for (int n = 10; n < 40; ++n) s.assertCancelIs(sgN(n));
    // Every clock read costs a fifth of the quantum: a few keys per turn.
    vrf.clock.advancePerReadIs(AssertMessageSm::loopQuantum / 5);
    vrf.loop.runOnce();
    const std::size_t first = vrf.tx().count();
    ASSERT_GT(first, 0u);
    ASSERT_LT(first, 30u);
    AssertIntfSm& sm = *vrf.intfSm(vrf.d1);
    const RouteKey bookmark = sm.assertCancelBookmark();
    EXPECT_EQ(bookmark, sgN(10 + static_cast<int>(first)));
    EXPECT_EQ(*s.assertCancel().begin(), bookmark);
    EXPECT_NE(sm.assertCancelTimerTime(), Cask::never);
    s.assertCancelIs(sgN(0));  // before the bookmark
    vrf.loop.runOnce();
    ASSERT_GT(vrf.tx().count(), first);
    EXPECT_EQ(vrf.sent()[first].key, bookmark);
    vrf.clock.advancePerReadIs(0);
    vrf.settle();
    EXPECT_EQ(vrf.tx().count(), 31u);
    EXPECT_EQ(vrf.sent().back().key, sgN(0));
    EXPECT_EQ(s.assertCancelSize(), 0u);
    EXPECT_TRUE(sm.assertCancelBookmark().isNull());
}

// Assert_Time - Assert_Override_Interval: winner Asserts repeat at that
// period, with the metric the route won with.
TEST(AssertPeriodicTimerSmTest, WinnerAssertsRepeatEveryAssertPeriod) {
    struct Case {
        std::uint32_t assertTimeout, overrideInterval;
        double period;
    };
    for (const Case& c : std::vector<Case>{{180, 3, 177}, {10, 3, 7}, {200, 50, 150}}) {
        AssertVrf vrf;
        vrf.pimIntf("d1").assertTimeoutIs(c.assertTimeout);
        vrf.pimIntf("d1").assertOverrideIntervalIs(c.overrideInterval);
        const RouteKey key = sg("10.1.1.1", "239.1.1.1");
        vrf.winner(key, vrf.d1, AssertVrf::metric(110, 20));
        EXPECT_EQ(vrf.intfSm(vrf.d1)->assertPeriodicTimerSm().interval(), c.period);
        vrf.advance(3 * c.period + 0.5);
        const auto sent = vrf.sent();
        ASSERT_EQ(sent.size(), 3u) << c.period;
        for (std::size_t i = 0; i < sent.size(); ++i) {
            EXPECT_DOUBLE_EQ(sent[i].time, (i + 1) * c.period);
            EXPECT_EQ(sent[i].key, key);
            EXPECT_EQ(sent[i].metric.metricPreference, 110u);
            EXPECT_EQ(sent[i].metric.metric, 20u);
            EXPECT_FALSE(sent[i].cancel);
        }
    }
}

TEST(PeriodicTimerSmTest, ScheduleSpreadsMessagesOverTheInterval) {
    using P = Routing::Pim::PeriodicTimerSm;
    struct Case {
        double interval;
        std::size_t messages;
        P::Schedule expected;
    };
    const std::vector<Case> cases = {
        {177, 0, {0, 0, Cask::never}}, {177, 1, {1, 1, 177}},        {177, 10, {10, 1, 17.7}},
        {177, 177, {177, 1, 1}},       {177, 178, {177, 2, 1}},      {177, 1000, {177, 6, 1}},
        {0.5, 5, {1, 5, 0.5}},         {-1, 5, {0, 0, Cask::never}},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(P::scheduleFor(c.interval, c.messages), c.expected)
            << c.interval << " " << c.messages;
    }
}

// Many winners: each expiry sends at most the per-expiry maximum, a round
// covers every key once within the period, and each key repeats exactly one
// period later even though the round finished early.
TEST(AssertPeriodicTimerSmTest, ManyWinnersSpreadWithPerExpiryMaximum) {
    AssertVrf vrf;
    constexpr int winners = 400;
    for (int n = 0; n < winners; ++n) vrf.winner(sgN(n), vrf.d1, AssertVrf::metric(110, 20));
    auto& periodic = vrf.intfSm(vrf.d1)->assertPeriodicTimerSm();
    EXPECT_EQ(periodic.maxMessagesPerExpiry(), 3u);  // ceil(400 / 177)
    vrf.advance(2 * 177 + 0.5);
    std::map<double, int> perExpiry;
    std::map<RouteKey, std::vector<double>> times;
    for (const SentAssert& a : vrf.sent()) {
        ++perExpiry[a.time];
        times[a.key].push_back(a.time);
    }
    for (const auto& [t, n] : perExpiry) EXPECT_LE(n, 3) << t;
    ASSERT_EQ(times.size(), static_cast<std::size_t>(winners));
    for (const auto& [key, ts] : times) {
        ASSERT_EQ(ts.size(), 2u) << key.str();
        EXPECT_GT(ts[0], 0);
        EXPECT_LE(ts[0], 177);
        EXPECT_DOUBLE_EQ(ts[1] - ts[0], 177) << key.str();
    }
}

TEST(AssertPeriodicTimerSmTest, NoWinnersLeftSendsNothing) {
    AssertVrf vrf;
    const RouteKey key = sg("10.1.1.1", "239.1.1.1");
    vrf.winner(key, vrf.d1, AssertVrf::metric(110, 20));
    vrf.intfStatus(vrf.d1).assertWinnerDel(key);
    EXPECT_EQ(vrf.intfSm(vrf.d1)->assertPeriodicTimerSm().numberOfMessages(), 0u);
    vrf.advance(400);
    EXPECT_EQ(vrf.tx().count(), 0u);
}

using AssertPeriodicTimerSmDeathTest = ::testing::Test;
TEST_F(AssertPeriodicTimerSmDeathTest, NonPositivePeriodStopsTheAgent) {
    EXPECT_DEATH(
        {
            AssertVrf vrf;
            vrf.pimIntf("d1").assertOverrideIntervalIs(180);
            vrf.winner(sg("10.1.1.1", "239.1.1.1"), vrf.d1, AssertVrf::metric(110, 20));
        },
        "interval > 0");
}

// An interface's machine lives while the PIM interface exists or while it
// still has something to send; then the machine and its IntfStatus go.
TEST(AssertMessageSmTest, InterfaceMachineLifetime) {
    struct Case {
        const char* name;
        bool cancelPending;
        bool removePim;
        bool aliveAfterRemoval;  // before the next turn
        bool aliveAtEnd;
    };
    const std::vector<Case> cases = {
        {"pim interface, nothing to do", false, false, true, true},
        {"pim interface gone, nothing to do", false, true, false, false},
        {"pim interface gone, a cancel to send", true, true, true, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        AssertVrf vrf;
        ASSERT_NE(vrf.intfSm(vrf.d2), nullptr);
        if (c.cancelPending) vrf.intfStatus(vrf.d2).assertCancelIs(sg("10.1.1.1", "239.1.1.1"));
        if (c.removePim) vrf.pim().intfDel(vrf.d2);
        EXPECT_EQ(vrf.intfSm(vrf.d2) != nullptr, c.aliveAfterRemoval);
        vrf.settle();
        EXPECT_EQ(vrf.intfSm(vrf.d2) != nullptr, c.aliveAtEnd);
        EXPECT_EQ(vrf.ctx().assertStatus->intf(vrf.d2) != nullptr, c.aliveAtEnd);
        EXPECT_EQ(vrf.tx().count(), c.cancelPending ? 1u : 0u);
    }
    // Requests for an interface without PIM status are sent, then dropped.
    AssertVrf vrf;
    const IntfId x{"x"};
    vrf.intfStatus(x).assertCancelIs(sg("10.1.1.1", "239.1.1.1"));
    ASSERT_NE(vrf.intfSm(x), nullptr);
    vrf.settle();
    EXPECT_EQ(vrf.tx().count(), 1u);
    EXPECT_EQ(vrf.intfSm(x), nullptr);
    EXPECT_EQ(vrf.ctx().assertStatus->intf(x), nullptr);
}

// Every upcall still reaches SgRouteSm (which empties the queue and makes
// the (S,G) route of a cache miss), and the assert machines hear of it by
// kind: wrong VIF as rxCount, no-cache as wcRxCount. A wrong-VIF packet on an
// interface without (S,G) state is handed on by the (S,G) assert machine, so
// it counts in wcRxCount too.
TEST(AssertMrtSmTest, UpcallsReachSgRouteSmAndMrtMessageInfo) {
    struct Case {
        MrtUpcall::Kind kind;
        const char* intf;
        std::uint32_t rx, wcRx;
    };
    const std::vector<Case> cases = {
        {MrtUpcall::Kind::noCache, "up1", 0, 1},
        {MrtUpcall::Kind::wrongVif, "d1", 1, 2},
        {MrtUpcall::Kind::wrongVif, "d2", 2, 3},
        {MrtUpcall::Kind::noCache, "up1", 2, 4},
    };
    AssertVrf vrf;
    auto& info = *vrf.ctx().mrtMessageInfo;
    const RouteKey key = sg("10.1.1.1", "239.1.1.1");
    for (const Case& c : cases) {
        vrf.ctx().mrtUpcall->upcallPush({c.kind, key, 0, IntfId(c.intf)});
        vrf.flush();
        EXPECT_EQ(vrf.ctx().mrtUpcall->upcallSize(), 0u);
        EXPECT_TRUE(vrf.has(key));
        EXPECT_EQ(info.rxCount(), c.rx);
        EXPECT_EQ(info.wcRxCount(), c.wcRx);
        EXPECT_EQ(info.routeIntf(), (RouteIntfKey{key, IntfId(c.intf)}));
    }
}

}  // namespace
}  // namespace Routing::Pim::SparseMode::Testing
