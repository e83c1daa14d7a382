#include "platform/assert_status.h"

#include <gtest/gtest.h>

#include "platform/mrt_upcall.h"

namespace Routing::Pim {
namespace {

Wirl::IpGenAddr ip(std::string_view s) {
    return *Wirl::IpGenAddr::parse(s);
}

// The Assert built for a key and metric, and what a cancel is (RFC 7761
// 4.6: RPT bit set, preference 0x7fffffff, metric 0xffffffff).
TEST(AssertMessage, BuiltFromKeyAndMetric) {
    struct Case {
        RouteKey key;
        AssertMetric metric;
        bool cancel;
    };
    const RouteKey sg(ip("10.1.1.1"), ip("239.1.1.1"));
    const RouteKey wc = RouteKey::wc(ip("239.1.1.1"));
    const std::vector<Case> cases = {
        {sg, AssertMetric{false, 110, 20, ip("10.0.0.1")}, false},
        {wc, AssertMetric{true, 1, 2, ip("10.0.0.1")}, false},
        {sg, AssertMetric::infinite(), true},
        {wc, AssertMetric::infinite(), true},
        {sg, AssertMetric{true, AssertMetric::infinitePreference, 7, {}}, false},
        {sg,
         AssertMetric{false, AssertMetric::infinitePreference, AssertMetric::infiniteMetric, {}},
         false},
    };
    for (const Case& c : cases) {
        const AssertMessage m = AssertMessage::of(c.key, c.metric);
        EXPECT_EQ(m.group, c.key.group());
        EXPECT_EQ(m.source, c.key.source());
        EXPECT_EQ(m.key(), c.key);
        EXPECT_EQ(m.rpt, c.metric.rptBit);
        EXPECT_EQ(m.metricPreference, c.metric.metricPreference);
        EXPECT_EQ(m.metric, c.metric.metric);
        EXPECT_EQ(m.isCancel(), c.cancel) << m.str();
    }
    const AssertMessage cancel = AssertMessage::cancel(sg);
    EXPECT_TRUE(cancel.rpt);
    EXPECT_EQ(cancel.metricPreference, 0x7fffffffu);
    EXPECT_EQ(cancel.metric, 0xffffffffu);
}

struct Counter : AssertStatus::Notifiee {
    using AssertStatus::Notifiee::Notifiee;
    void handleIntf(Wirl::IntfId) override { ++n; }
    int n = 0;
};

TEST(AssertStatus, IntfIsCreatesOnceAndIdleFollowsTheSets) {
    auto status = Cask::make<AssertStatus>();
    Counter counter(status.get());
    const Wirl::IntfId i("eth1");
    IntfStatus& a = status->intfIs(i);
    IntfStatus& b = status->intfIs(i);
    EXPECT_EQ(&a, &b);
    EXPECT_EQ(counter.n, 1);
    EXPECT_TRUE(a.idle());
    const RouteKey k(ip("10.1.1.1"), ip("239.1.1.1"));
    a.assertWinnerIs(k);
    EXPECT_FALSE(a.idle());
    a.assertWinnerDel(k);
    a.assertCancelIs(k);
    EXPECT_FALSE(a.idle());
    a.assertCancelDel(k);
    EXPECT_TRUE(a.idle());
    a.triggeredWinnerIs(k, AssertMetric{false, 1, 2, {}});
    a.triggeredWinnerIs(k, AssertMetric{false, 1, 2, {}});
    EXPECT_EQ(a.triggeredWinnerCount(), 2u);
    status->intfDel(i);
    EXPECT_EQ(status->intf(i), nullptr);
    EXPECT_EQ(counter.n, 2);
}

// The sent log keeps the newest `logLimit` Asserts, oldest first, and each
// send is one count.
TEST(MessageInfo, SentLogIsBounded) {
    auto tx = Cask::make<IO::MessageInfo>();
    const Wirl::IntfId i("eth1");
    const std::size_t total = IO::MessageInfo::logLimit + 5;
    for (std::size_t n = 0; n < total; ++n) {
        const RouteKey k(ip("10.1.1.1"), ip(fmt::format("239.1.{}.{}", n / 250, n % 250 + 1)));
        tx->send(i, n % 2 ? AssertMessage::cancel(k) : AssertMessage::of(k, {false, 1, 2, {}}),
                 static_cast<double>(n));
    }
    EXPECT_EQ(tx->count(), total);
    ASSERT_EQ(tx->sent().size(), IO::MessageInfo::logLimit);
    EXPECT_EQ(tx->sent().front().time, 5.0);
    EXPECT_EQ(tx->sent().back().time, static_cast<double>(total - 1));
    EXPECT_EQ(tx->sent().front().cancel, true);  // n = 5
    EXPECT_EQ(tx->sent().back().cancel, false);  // n = total - 1, even
    EXPECT_EQ(tx->sent().back().key, tx->assertMessage().key());
}

// Upcalls: the queue's reader hears of each first, then the per-kind
// counters announce it with the upcall kept as the last of its kind.
struct UpcallOrder : MrtUpcallStatus::Notifiee {
    using MrtUpcallStatus::Notifiee::Notifiee;
    void handleUpcall() override {
        log += "q";
        while (notifier()->upcallSize()) notifier()->upcallPop();  // the reader takes it
    }
    void handleNoCacheCount() override { log += "n"; }
    void handleWrongVifCount() override { log += "w"; }
    std::string log;
};

TEST(MrtUpcallStatus, CountsByKindAfterTheQueueReader) {
    auto s = Cask::make<MrtUpcallStatus>();
    UpcallOrder order(s.get());
    const RouteKey k(ip("10.1.1.1"), ip("239.1.1.1"));
    s->upcallPush({MrtUpcall::Kind::noCache, k, 0, Wirl::IntfId("a")});
    s->upcallPush({MrtUpcall::Kind::wrongVif, k, 0, Wirl::IntfId("b")});
    s->upcallPush({MrtUpcall::Kind::wrongVif, k, 0, Wirl::IntfId("c")});
    EXPECT_EQ(order.log, "qnqwqw");
    EXPECT_EQ(s->noCacheCount(), 1u);
    EXPECT_EQ(s->wrongVifCount(), 2u);
    EXPECT_EQ(s->lastNoCache().intf, Wirl::IntfId("a"));
    EXPECT_EQ(s->lastWrongVif().intf, Wirl::IntfId("c"));
    EXPECT_EQ(s->upcallSize(), 0u);
}

}  // namespace
}  // namespace Routing::Pim
