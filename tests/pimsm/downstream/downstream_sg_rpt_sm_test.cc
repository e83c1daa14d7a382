// The downstream (S,G,rpt) machine (RFC 7761 4.5.3): Prune(S,G,rpt) and Join(S,G,rpt) per
// interface with the prune-pending and expiry timers, the Join(*,G) marks that a Prune in the
// same group entry takes back, filtering of messages, the congested output, restart re-arming.
#include "pimsm/downstream/downstream_sg_rpt_sm.h"

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cask/random.h"
#include "pimsm/test_vrf.h"
#include "wirl/address_range_set.h"

namespace Routing::Pim::SparseMode::Testing {
namespace {

using Routing::Pim::JoinPruneMessage;

// The two-upstream layout; downstream routers 10.0.3.7 (and with `neighbors` 2 also 10.0.3.8)
// on "d1", where this router is 10.0.3.5. Source 10.1.1.1, group 239.1.1.1 (RP 10.9.9.9).
struct Rpt {
    TestVrf vrf{TestVrf::Layout::twoUpstreams};
    const IntfId d1{"d1"};
    const IpGenAddr me = ip("10.0.3.5");
    const IpGenAddr down1 = ip("10.0.3.7"), down2 = ip("10.0.3.8");
    const IpGenAddr group = ip("239.1.1.1"), rp = ip("10.9.9.9");
    const IpGenAddr s1 = ip("10.1.1.1"), s2 = ip("10.1.1.2"), s3 = ip("10.1.1.3");
    const RouteKey key = sg("10.1.1.1", "239.1.1.1");

    explicit Rpt(int neighbors = 1) {
        vrf.neighborIs("d1", down1);
        if (neighbors > 1) vrf.neighborIs("d1", down2);
    }
    DownstreamSgRptSm& sm() { return vrf.downstreamSgRptSm(); }

    JoinPruneMessage message(std::uint16_t hold = 210) const {
        JoinPruneMessage m;
        m.sender = down1;
        m.intf = d1;
        m.upstreamNeighbor = me;
        m.holdTime = hold;
        return m;
    }
    void wcJoin(JoinPruneMessage& m, const IpGenAddr& g) const {
        m.data->joinPruneGroupDataIs(g).wcSourceDataIs(rp, true);
    }
    void prune(JoinPruneMessage& m, const IpGenAddr& source) const {
        m.data->joinPruneGroupDataIs(group).prunedRptSourceIs(source);
    }
    void join(JoinPruneMessage& m, const IpGenAddr& source) const {
        m.data->joinPruneGroupDataIs(group).joinedRptSourceIs(source);
    }
    // Hands the message over as the packet side does, and lets the review run (no time
    // passes beyond the review's short delay).
    void receive(const JoinPruneMessage& m) {
        vrf.rx().messageReceived(m);
        runFor(0.05);
    }
    void prune(const IpGenAddr& source, std::uint16_t hold = 210) {
        JoinPruneMessage m = message(hold);
        prune(m, source);
        receive(m);
    }
    void join(const IpGenAddr& source) {
        JoinPruneMessage m = message();
        join(m, source);
        receive(m);
    }
    void runFor(Cask::Seconds dt) { vrf.loop.runUntil(vrf.clock.now() + dt); }

    const Intf* intf(const IpGenAddr& source) const {
        Cask::Ptr<Route> r = vrf.status().route(RouteKey(source, group));
        return r ? r->routeIntfRaw(d1) : nullptr;
    }
    RptState state(const IpGenAddr& source) const {
        const Intf* i = intf(source);
        return i ? i->rptState() : RptState::rptNoInfo;
    }
    RptState state() const { return state(s1); }
};

constexpr auto noInfo = RptState::rptNoInfo;
constexpr auto pending = RptState::rptPrunePending;
constexpr auto pruned = RptState::rptPruned;

TEST(DownstreamSgRptSm, PruneCreatesTheRouteAndItsInterface) {
    Rpt f(2);
    EXPECT_FALSE(f.vrf.has(f.key));
    f.prune(f.s1);
    ASSERT_TRUE(f.vrf.has(f.key));
    const Intf* i = f.intf(f.s1);
    ASSERT_TRUE(i);
    EXPECT_EQ(i->rptState(), pending);
    EXPECT_TRUE(i->initialized());
    EXPECT_TRUE(f.vrf.status().route(f.key)->initialized());
    EXPECT_GT(i->lastRptPruneReceived(), f.vrf.clock.now() - 0.05);
    EXPECT_TRUE(
        Cask::eventLog().contains("DownstreamSgRptSm: Creating route (10.1.1.1, 239.1.1.1)"));
    EXPECT_TRUE(Cask::eventLog().contains(
        "DownstreamSgRptSm: Add interface d1 to route (10.1.1.1, 239.1.1.1), flags: "));
}

// One step of a transition case: a message (or only time passing), then the state expected.
struct Step {
    enum Kind { prune, join, wait } kind;
    double value;  // hold time of a Prune; seconds of a wait
    RptState after;
};

TEST(DownstreamSgRptSm, Transitions) {
    struct Case {
        const char* name;
        int neighbors;
        std::vector<Step> steps;
    };
    using enum Step::Kind;
    // The override interval on d1 is 2.5 s; each message takes 0.05 s to be reviewed.
    const Case cases[] = {
        {"LAN: pending for the override interval, then pruned",
         2,
         {{prune, 210, pending}, {wait, 2.3, pending}, {wait, 0.2, pruned}}},
        {"point-to-point: nobody can override, pruned at once", 1, {{prune, 210, pruned}}},
        {"a second Prune while pending prunes at once",
         2,
         {{prune, 210, pending}, {prune, 210, pruned}}},
        {"Join(S,G,rpt) clears a pending prune",
         2,
         {{prune, 210, pending}, {join, 0, noInfo}, {wait, 5, noInfo}}},
        {"Join(S,G,rpt) clears a prune", 1, {{prune, 210, pruned}, {join, 0, noInfo}}},
        {"Join(S,G,rpt) without state changes nothing", 1, {{join, 0, noInfo}}},
        {"expiry after the hold time",
         1,
         {{prune, 100, pruned}, {wait, 99.8, pruned}, {wait, 0.2, noInfo}}},
        {"expiry while still pending",
         2,
         {{prune, 2, pending}, {wait, 2.1, noInfo}, {wait, 1, noInfo}}},
        {"a shorter later hold time does not shorten the expiry",
         1,
         {{prune, 100, pruned},
          {wait, 49.95, pruned},
          {prune, 10, pruned},
          {wait, 49.8, pruned},
          {wait, 0.2, noInfo}}},
        {"a later Prune with the same hold time extends it",
         1,
         {{prune, 100, pruned},
          {wait, 49.95, pruned},
          {prune, 100, pruned},
          {wait, 99.8, pruned},
          {wait, 0.2, noInfo}}},
        {"hold time 0xffff never expires", 1, {{prune, 0xffff, pruned}, {wait, 65600, pruned}}},
        {"a later 0xffff never expires either",
         1,
         {{prune, 100, pruned}, {prune, 0xffff, pruned}, {wait, 65600, pruned}}},
        {"0xffff outlasts a later finite hold time",
         1,
         {{prune, 0xffff, pruned}, {prune, 10, pruned}, {wait, 100, pruned}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Rpt f(c.neighbors);
        int n = 0;
        for (const Step& s : c.steps) {
            SCOPED_TRACE("step " + std::to_string(n++));
            switch (s.kind) {
                case Step::prune:
                    f.prune(f.s1, std::uint16_t(s.value));
                    break;
                case Step::join:
                    f.join(f.s1);
                    break;
                case Step::wait:
                    f.runFor(s.value);
                    break;
            }
            EXPECT_EQ(f.state(), s.after) << enumName(f.state());
        }
    }
}

// Counts every write of the rptState of d1 on a route: a flap shows as two.
struct RptWrites : Route::Notifiee {
    explicit RptWrites(Route& r) : Route::Notifiee(&r) {}
    void handleIntfAttr(Intf& i, IntfAttr a) override {
        if (a == IntfAttr::rptState) states.push_back(i.rptState());
    }
    std::vector<RptState> states;
};

TEST(DownstreamSgRptSm, WcJoinMarksThatAPruneInTheSameGroupTakesBack) {
    struct Case {
        const char* name;
        int neighbors;
        std::vector<IpGenAddr> prunesInMessage;  // beside the Join(*,G)
        RptState s1After, s2After;
    };
    const IpGenAddr s1 = ip("10.1.1.1"), s2 = ip("10.1.1.2");
    const Case cases[] = {
        {"Join(*,G) with the Prunes again keeps Pruned", 1, {s1, s2}, pruned, pruned},
        {"Join(*,G) alone clears the group", 1, {}, noInfo, noInfo},
        {"only the sources pruned again stay", 1, {s2}, noInfo, pruned},
        {"PrunePending stays PrunePending, not Pruned", 2, {s1, s2}, pending, pending},
        {"PrunePending cleared by Join(*,G) alone", 2, {}, noInfo, noInfo},
    };
    // With one or two entries per slice the review suspends inside the group, between the
    // Join(*,G) that marks and the Prunes that take the marks back.
    for (std::size_t perSlice : {0, 1, 2}) {
        for (const Case& c : cases) {
            SCOPED_TRACE(std::string(c.name) + ", items per slice " + std::to_string(perSlice));
            Rpt f(c.neighbors);
            f.vrf.pimIntf("d1").joinPruneOverrideIntervalIs(50);
            f.prune(f.s1);
            f.prune(f.s2);
            const RptState before = c.neighbors > 1 ? pending : pruned;
            ASSERT_EQ(f.state(f.s1), before);
            ASSERT_EQ(f.state(f.s2), before);
            f.sm().reviewItemsPerSliceIs(perSlice);
            RptWrites w1(*f.vrf.status().route(f.key));
            const double pruneTime = f.intf(f.s1)->lastRptPruneReceived();

            f.runFor(20);
            JoinPruneMessage m = f.message(100);
            f.wcJoin(m, f.group);
            for (const IpGenAddr& s : c.prunesInMessage) f.prune(m, s);
            f.vrf.rx().messageReceived(m);
            f.runFor(0.05);

            EXPECT_FALSE(f.sm().review().inProgress());
            EXPECT_EQ(f.state(f.s1), c.s1After);
            EXPECT_EQ(f.state(f.s2), c.s2After);
            // The state of s1 was written at most once: no flap through NoInfo and back.
            if (c.s1After == before) {
                EXPECT_TRUE(w1.states.empty());
                EXPECT_GT(f.intf(f.s1)->lastRptPruneReceived(), pruneTime);
            } else {
                EXPECT_EQ(w1.states, std::vector<RptState>{noInfo});
            }
            EXPECT_TRUE(f.sm().reviewMarks().empty());
        }
    }
}

TEST(DownstreamSgRptSm, IgnoredMessagesAndGroupsChangeNothingAndAreCounted) {
    struct Case {
        const char* name;
        std::function<void(Rpt&, JoinPruneMessage&)> change;
        std::uint32_t (DownstreamSgRptSm::*counter)() const;
    };
    const Case cases[] = {
        {"sender not an active neighbour",
         [](Rpt&, JoinPruneMessage& m) { m.sender = ip("10.0.3.99"); },
         &DownstreamSgRptSm::ignoredNonNeighbor},
        {"neighbour gone", [](Rpt& f, JoinPruneMessage&) { f.vrf.neighborDel("d1", f.down1); },
         &DownstreamSgRptSm::ignoredNonNeighbor},
        {"addressed to another router",
         [](Rpt&, JoinPruneMessage& m) { m.upstreamNeighbor = ip("10.0.3.6"); },
         &DownstreamSgRptSm::ignoredNotAddressed},
        {"group in the SSM range",
         [](Rpt& f, JoinPruneMessage& m) {
             m.data = Cask::make<Routing::Pim::JoinPruneData>();
             m.data->joinPruneGroupDataIs(ip("232.1.1.1")).prunedRptSourceIs(f.s1);
         },
         &DownstreamSgRptSm::ignoredSsmGroup},
        {"bidirectional group",
         [](Rpt& f, JoinPruneMessage&) {
             Wirl::AddressRangeSet bidir(Wirl::AddressFamily::ipv4);
             bidir.add(prefix("239.0.0.0/8"));
             f.vrf.groupFilter().bidirRangeIs(bidir);
         },
         &DownstreamSgRptSm::ignoredBidirGroup},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Rpt f;
        JoinPruneMessage m = f.message();
        f.prune(m, f.s1);
        c.change(f, m);
        const std::uint32_t before = (f.sm().*c.counter)();
        f.receive(m);
        EXPECT_EQ((f.sm().*c.counter)(), before + 1);
        EXPECT_FALSE(f.vrf.has(f.key));
        EXPECT_FALSE(f.vrf.has(RouteKey(f.s1, ip("232.1.1.1"))));
        EXPECT_TRUE(f.sm().rxJoinPruneInfo().empty());
    }
}

TEST(DownstreamSgRptSm, CongestionStopsTheReviewAtItsBookmarkUntilItClears) {
    // Before the message: nothing is reviewed while the output is congested.
    {
        Rpt f;
        f.vrf.pim().outputCloggedIs(true);
        f.prune(f.s1);
        f.runFor(5);
        EXPECT_FALSE(f.vrf.has(f.key));
        EXPECT_EQ(f.sm().rxJoinPruneInfoSize(), 1u);
        f.vrf.pim().outputCloggedIs(false);
        f.runFor(0.05);
        EXPECT_EQ(f.state(), pruned);
        EXPECT_TRUE(f.sm().rxJoinPruneInfo().empty());
    }
    // During the review: creating the first route congests the output.
    {
        Rpt f;
        struct Clogger : Status::Notifiee {
            Clogger(Status& s, Routing::Pim::Status& pim) : Status::Notifiee(&s), pim(pim) {}
            void handleRoute(const RouteKey&) override { pim.outputCloggedIs(true); }
            Routing::Pim::Status& pim;
        } clogger(f.vrf.status(), f.vrf.pim());
        JoinPruneMessage m = f.message();
        for (const IpGenAddr& s : {f.s1, f.s2, f.s3}) f.prune(m, s);
        f.receive(m);
        f.runFor(5);
        EXPECT_TRUE(f.vrf.has(f.key));
        EXPECT_FALSE(f.vrf.has(RouteKey(f.s2, f.group)));
        EXPECT_TRUE(f.sm().review().inProgress());
        const RptReviewKey at = f.sm().reviewBookmark();
        EXPECT_EQ(at.group, f.group);
        EXPECT_EQ(at.intf, f.d1);
        EXPECT_EQ(at.step, RptReviewKey::Step::rptPrune);
        EXPECT_EQ(at.source, f.s2);
        clogger.notifierIs(nullptr);
        f.vrf.pim().outputCloggedIs(false);
        f.runFor(0.05);
        for (const IpGenAddr& s : {f.s1, f.s2, f.s3}) EXPECT_EQ(f.state(s), pruned);
        EXPECT_FALSE(f.sm().review().inProgress());
    }
}

TEST(DownstreamSgRptSm, PruneTakesTheInterfaceOutOfTheInheritedOlistRpt) {
    Rpt f;
    // Another router joined (*,G) on d1.
    Route& wcRoute = f.vrf.route(wc("239.1.1.1"));
    wcRoute.routeIntfIs(f.d1)->joinStateIs(JoinState::joined);
    Route& r = f.vrf.route(f.key);
    r.routeIntfIs(f.d1);
    auto inOlist = [&] {
        bool in = false;
        r.forEachInheritedOlistSgRpt([&](IntfId i) { in = in || i == f.d1; });
        return in;
    };
    EXPECT_TRUE(inOlist());
    f.prune(f.s1);
    EXPECT_TRUE(r.routeIntf(f.d1)->prunesSgRpt());
    EXPECT_FALSE(inOlist());
    f.join(f.s1);
    EXPECT_TRUE(inOlist());
}

TEST(DownstreamSgRptSm, ReactorsOnlyWhileAnInterfaceCarriesState) {
    Rpt f;
    f.vrf.route(sg("10.1.1.9", "239.1.1.1"), {"d2"});
    EXPECT_TRUE(f.sm().routeMap().empty());
    f.prune(f.s1, 10);
    ASSERT_TRUE(f.sm().rhoRoute(f.key));
    EXPECT_EQ(f.sm().rhoRoute(f.key)->rhoIntfSize(), 1u);
    f.runFor(11);
    EXPECT_EQ(f.state(), noInfo);
    EXPECT_TRUE(f.sm().routeMap().empty());
}

TEST(DownstreamSgRptSm, RestartRearmsTheTimersOfStateHandedOver) {
    struct Case {
        const char* name;
        RptState handedOver;
        Cask::Seconds stillAt;  // the state is unchanged this long after
        Cask::Seconds prunedAt;
    };
    // Expiry re-armed at 210 s + randomDelay(10 s), which lies in [1, 10); the prune-pending
    // timer at the override interval (2.5 s, two neighbours).
    const Case cases[] = {
        {"Pruned", pruned, 200, 203},
        {"PrunePending", pending, 2.4, 2.6},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Cask::random().seedIs(3);
        Rpt f(2);
        const Cask::Seconds start = f.vrf.clock.now();
        f.vrf.route(f.key, {}, [&](Route& r) { r.routeIntfIs(f.d1)->rptStateIs(c.handedOver); });
        ASSERT_TRUE(f.sm().rhoRoute(f.key));
        f.vrf.loop.runUntil(start + c.stillAt);
        EXPECT_EQ(f.state(), c.handedOver);
        f.vrf.loop.runUntil(start + c.prunedAt);
        EXPECT_EQ(f.state(), pruned);
        f.vrf.loop.runUntil(start + 210.9);
        EXPECT_EQ(f.state(), pruned);
        f.vrf.loop.runUntil(start + 220.1);
        EXPECT_EQ(f.state(), noInfo);
    }
}

}  // namespace
}  // namespace Routing::Pim::SparseMode::Testing
