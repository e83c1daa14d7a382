// The downstream (*,G)/(S,G) join state machine, driven with received Join/Prune entries on a
// whole VRF (RFC 7761 4.5.1, 4.5.2): the join state table with its timers, the filtering of
// entries, the PruneEcho, the RPF change and the hand-over of state after a restart.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cask/random.h"
#include "cask/trace.h"
#include "pimsm/test_vrf.h"

namespace Routing::Pim::SparseMode::Testing {
namespace {

using Routing::Pim::JoinPruneMessageInfo;
using enum JoinState;

constexpr Cask::Seconds overrideInterval = 2.5;  // the PIM interface's default
constexpr Cask::Seconds maxJitter = 1.0;         // jitter is added, below this

Wirl::AddressRangeSet rangeOf(const IpGenAddr& a) {
    Wirl::AddressRangeSet set(a.family());
    set.add(Wirl::IpGenPrefix::hostPrefix(a));
    return set;
}

// The two-upstream layout (RP 10.9.9.9 and the sources behind up1) with two downstream routers
// A and B on d1, where this router is 10.0.3.5.
struct Downstream {
    TestVrf vrf{TestVrf::Layout::twoUpstreamsIAmDr};
    const IpGenAddr me = ip("10.0.3.5");
    const IpGenAddr a = ip("10.0.3.2"), b = ip("10.0.3.3");
    const IpGenAddr rp = ip("10.9.9.9");
    const IntfId d1{"d1"}, up1{"up1"};
    const RouteKey wcKey = wc("239.1.1.1");
    const RouteKey sgKey = sg("10.1.0.7", "239.1.1.1");

    explicit Downstream(bool secondNeighbor = true) {
        vrf.neighborIs("d1", a);
        if (secondNeighbor) vrf.neighborIs("d1", b);
        Cask::random().seedIs(7);
    }

    DownstreamWcSgSm& sm() const { return vrf.downstreamWcSgSm(); }
    // A Join or Prune entry from A on d1 addressed to this router.
    JoinPruneMessageInfo entry(const RouteKey& key, std::uint16_t holdTime = 210) const {
        JoinPruneMessageInfo m;
        m.riKey = key;
        m.sourceFlags.wildcard = m.sourceFlags.rpt = key.isWc();
        m.sender = a;
        m.upstreamNeighbor = me;
        if (key.isWc()) m.wcSource = rp;
        m.intf = d1;
        m.holdTime = holdTime;
        return m;
    }
    void join(const JoinPruneMessageInfo& m) { vrf.rx().rxJoinIs(m); }
    void prune(const JoinPruneMessageInfo& m) { vrf.rx().rxPruneIs(m); }
    void runTo(Cask::Seconds t) { vrf.loop.runUntil(t); }

    const Intf* intf(const RouteKey& key, IntfId id) const {
        auto r = vrf.status().route(key);
        return r ? r->routeIntfRaw(id) : nullptr;
    }
    JoinState state(const RouteKey& key) const {
        const Intf* i = intf(key, d1);
        return i ? i->joinState() : noInfo;
    }
    // What the PruneEcho pending on d1 holds for the key's group, entry by entry.
    std::string echo(const RouteKey& key) const {
        const auto* data = vrf.joinPrune().pruneEcho(d1);
        const auto* group = data ? data->joinPruneGroupData(key.group()) : nullptr;
        if (!group) return "";
        std::string out;
        for (const auto& [addr, wcData] : group->wcSourceData()) {
            out += fmt::format("wc-{} {};", wcData.join ? "join" : "prune", addr);
        }
        for (const auto& s : group->prunedSource()) out += fmt::format("sg-prune {};", s);
        return out;
    }
    bool prunePendingRemembered(const RouteKey& key) const {
        return vrf.joinPrune().rxPruneHas({key, d1});
    }
};

// One step of a join state scenario at a time (seconds from the start): an entry from A or B, or
// only letting time pass; then the join state expected on d1.
struct Step {
    enum Kind { joinA, joinB, pruneA, pruneB, wait } kind;
    Cask::Seconds at;
    JoinState expect;
    std::uint16_t holdTime = 210;
};

struct TransitionCase {
    const char* name;
    bool secondNeighbor;
    std::vector<Step> steps;
    bool echoed;  // a PruneEcho was written by the end
};

void runSteps(Downstream& f, const RouteKey& key, const TransitionCase& c) {
    const Cask::Seconds t0 = f.vrf.loop.now();
    for (const Step& s : c.steps) {
        SCOPED_TRACE(testing::Message() << "step at " << s.at);
        f.runTo(t0 + s.at);
        JoinPruneMessageInfo m = f.entry(key, s.holdTime);
        if (s.kind == Step::joinB || s.kind == Step::pruneB) m.sender = f.b;
        if (s.kind == Step::joinA || s.kind == Step::joinB) f.join(m);
        if (s.kind == Step::pruneA || s.kind == Step::pruneB) f.prune(m);
        f.vrf.flush();
        EXPECT_EQ(f.state(key), s.expect);
        // The Prune is remembered exactly while the interface is prune-pending.
        EXPECT_EQ(f.prunePendingRemembered(key), s.expect == prunePending);
    }
}

TEST(DownstreamWcSgSm, JoinStateTransitions) {
    using enum Step::Kind;
    const Cask::Seconds pp = overrideInterval;
    const TransitionCase cases[] = {
        {"join", true, {{joinA, 0, joined}, {wait, 100, joined}}, false},
        {"prune waits the override interval, then echoes",
         true,
         {{joinA, 0, joined},
          {pruneA, 10, prunePending},
          {wait, 10 + pp - 0.01, prunePending},
          {wait, 10 + pp, noInfo}},
         true},
        {"another router's join overrides within the interval",
         true,
         {{joinA, 0, joined},
          {pruneA, 10, prunePending},
          {joinB, 11, joined},
          {wait, 10 + 2 * pp, joined}},
         false},
        {"a second prune does not restart the prune-pending timer",
         true,
         {{joinA, 0, joined},
          {pruneA, 10, prunePending},
          {pruneB, 11, prunePending},
          {wait, 10 + pp, noInfo}},
         true},
        {"a single neighbour's prune takes effect at once, without echo",
         false,
         {{joinA, 0, joined}, {pruneA, 10, noInfo}},
         false},
        {"prune without join state changes nothing",
         true,
         {{joinA, 0, joined},
          {pruneA, 1, prunePending},
          {wait, 5, noInfo},
          {pruneA, 6, noInfo},
          {wait, 20, noInfo}},
         true},
        {"the expiry timer ends a join after its hold time",
         true,
         {{joinA, 0, joined}, {wait, 210, joined}, {wait, 210 + maxJitter, noInfo}},
         false},
        {"the expiry timer runs on in prune-pending",
         true,
         {{joinA, 0, joined, 5}, {pruneA, 4, prunePending}, {wait, 5 + maxJitter, noInfo}},
         false},
        {"a longer hold time extends the expiry",
         true,
         {{joinA, 0, joined},
          {joinA, 100, joined, 200},
          {wait, 300, joined},
          {wait, 300 + maxJitter, noInfo}},
         false},
        {"a shorter hold time keeps the later expiry",
         true,
         {{joinA, 0, joined},
          {joinA, 100, joined, 50},
          {wait, 200, joined},
          {wait, 210 + maxJitter, noInfo}},
         false},
        {"hold time 0xffff never expires, and a later finite one does not shorten it",
         true,
         {{joinA, 0, joined, 0xffff}, {joinA, 10, joined, 30}, {wait, 100000, joined}},
         false},
        {"a join after expiry starts afresh with its own hold time",
         true,
         {{joinA, 0, joined, 20},
          {wait, 21, noInfo},
          {joinA, 30, joined, 10},
          {wait, 40 + maxJitter, noInfo}},
         false},
    };
    for (const RouteKey& key : {wc("239.1.1.1"), sg("10.1.0.7", "239.1.1.1")}) {
        for (const TransitionCase& c : cases) {
            SCOPED_TRACE(fmt::format("{}: {}", key, c.name));
            Downstream f(c.secondNeighbor);
            runSteps(f, key, c);
            EXPECT_EQ(f.echo(key) != "", c.echoed);
        }
    }
}

TEST(DownstreamWcSgSm, JoinCreatesRouteAndInterfaceAndTraces) {
    for (const RouteKey& key : {wc("239.1.1.1"), sg("10.1.0.7", "239.1.1.1")}) {
        SCOPED_TRACE(fmt::format("{}", key));
        Downstream f;
        ASSERT_FALSE(f.vrf.has(key));
        f.runTo(42);
        f.join(f.entry(key));
        ASSERT_TRUE(f.vrf.has(key));
        const Intf* i = f.intf(key, f.d1);
        ASSERT_NE(i, nullptr);
        EXPECT_EQ(i->joinState(), joined);
        EXPECT_EQ(i->lastJoinReceived(), 42);
        EXPECT_TRUE(i->initialized());
        EXPECT_TRUE(f.vrf.status().route(key)->initialized());
        EXPECT_EQ(f.vrf.status().route(key)->routeIntfSize(), 1u);
        const std::string k = fmt::format("{}", key);
        EXPECT_TRUE(Cask::eventLog().contains("DownstreamWcSgSm: Creating route " + k));
        EXPECT_TRUE(Cask::eventLog().contains("DownstreamWcSgSm: Add interface d1 to route" + k));
        EXPECT_TRUE(
            Cask::eventLog().contains("DownstreamWcSgSm: Rx join on interface d1 for route" + k +
                                      ", flags: , join state: noInfo --> joined "));
        f.prune(f.entry(key));
        EXPECT_TRUE(
            Cask::eventLog().contains("DownstreamWcSgSm: Rx prune on interface d1 for route" + k +
                                      ", flags: , join state: joined --> prunePending "));
        f.runTo(100);
        EXPECT_TRUE(Cask::eventLog().contains(
            "DownstreamWcSgSm: Prune pending timer expired on interface d1 on route" + k +
            ", flags: , join state: prunePending --> noInfo "));
        EXPECT_EQ(f.sm().ignoredRxJoins() + f.sm().ignoredRxPrunes(), 0u);
    }
}

TEST(DownstreamWcSgSm, JoinKeepsARouteMarkedForDeletion) {
    // The route lost its last interface and waits for the route review to remove it.
    Downstream f;
    f.vrf.join({f.wcKey, f.d1});
    f.vrf.settle();
    const Cask::Ptr<Route> route = f.vrf.status().route(f.wcKey);
    ASSERT_TRUE(route);
    route->markedForDeletionIs(true);
    f.join(f.entry(f.wcKey));
    f.runTo(f.vrf.loop.now() + 10);
    EXPECT_EQ(f.vrf.status().route(f.wcKey), route);
    EXPECT_EQ(f.state(f.wcKey), joined);
}

TEST(DownstreamWcSgSm, IgnoredEntriesAreCountedAndCreateNothing) {
    struct Case {
        const char* name;
        std::function<void(Downstream&, JoinPruneMessageInfo&)> spoil;
        const char* trace;
        bool joinOnly;  // a Prune with the same fault is not refused for it
        // Refused input is counted; (S,G,rpt) entries are another machine's.
        bool counted = true;
    };
    const Case cases[] = {
        {"(S,G,rpt) entry",
         [](Downstream&, JoinPruneMessageInfo& m) {
             if (m.riKey.isWc()) m.riKey = RouteKey(ip("10.1.0.99"), m.riKey.group());
             m.sourceFlags.wildcard = false;
             m.sourceFlags.rpt = true;
         },
         ", Message is (S,G,rpt)", false, false},
        {"addressed to another router",
         [](Downstream&, JoinPruneMessageInfo& m) { m.upstreamNeighbor = ip("10.0.3.9"); },
         "does not match address on received interface", false},
        {"received on a non-PIM interface",
         [](Downstream&, JoinPruneMessageInfo& m) { m.intf = IntfId("e9"); }, "non-PIM interface",
         false},
        {"sender is no PIM neighbour",
         [](Downstream&, JoinPruneMessageInfo& m) { m.sender = ip("10.0.3.77"); },
         "non-neighbor 10.0.3.77", false},
        {"bidirectional group",
         [](Downstream& f, JoinPruneMessageInfo& m) {
             f.vrf.groupFilter().bidirRangeIs(rangeOf(m.riKey.group()));
         },
         "ignoring bidirectional group", false},
        {"(*,G) in the SSM range",
         [](Downstream& f, JoinPruneMessageInfo& m) { m = f.entry(wc("232.1.1.1")); },
         "in SSM range", false},
        {"Join(*,G) toward another RP",
         [](Downstream&, JoinPruneMessageInfo& m) { m.wcSource = ip("10.8.8.8"); },
         "does not match RP(G)", true},
        {"Join(*,G) for a group without RP",
         [](Downstream& f, JoinPruneMessageInfo& m) { m = f.entry(wc("225.1.1.1")); },
         "does not match RP(G)", true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Downstream f;
        // Another route is joined on d1 already: refused Prunes must leave it alone.
        f.join(f.entry(f.wcKey));
        f.join(f.entry(f.sgKey));
        const std::size_t routes = f.vrf.status().routeSize();

        JoinPruneMessageInfo m = f.entry(wc("239.2.2.2"));
        c.spoil(f, m);
        Cask::trace().clear();
        f.join(m);
        EXPECT_EQ(f.sm().ignoredRxJoins(), c.counted ? 1u : 0u);
        EXPECT_TRUE(Cask::trace().contains(c.trace));
        EXPECT_EQ(f.vrf.status().routeSize(), routes);
        EXPECT_FALSE(f.vrf.has(m.riKey) && f.intf(m.riKey, m.intf));

        // The same fault in a Prune for each joined route.
        for (const RouteKey& key : {f.wcKey, f.sgKey}) {
            JoinPruneMessageInfo p = f.entry(key);
            c.spoil(f, p);
            if (c.joinOnly) continue;
            Cask::trace().clear();
            const auto before = f.sm().ignoredRxPrunes();
            f.prune(p);
            EXPECT_EQ(f.sm().ignoredRxPrunes(), before + (c.counted ? 1 : 0));
            EXPECT_TRUE(Cask::trace().contains(c.trace));
        }
        EXPECT_EQ(f.state(f.wcKey), joined);
        EXPECT_EQ(f.state(f.sgKey), joined);
    }
}

TEST(DownstreamWcSgSm, PruneWithoutRouteOrInterfaceIsCounted) {
    Downstream f;
    f.prune(f.entry(f.wcKey));
    EXPECT_EQ(f.sm().ignoredRxPrunes(), 1u);
    EXPECT_FALSE(f.vrf.has(f.wcKey));
    // A route with a local receiver on d2 only: no state on d1.
    f.vrf.join({f.wcKey, IntfId("d2")});
    f.vrf.settle();
    ASSERT_TRUE(f.vrf.has(f.wcKey));
    f.prune(f.entry(f.wcKey));
    EXPECT_EQ(f.sm().ignoredRxPrunes(), 2u);
    EXPECT_EQ(f.intf(f.wcKey, f.d1), nullptr);
    // With a local receiver on d1 the interface exists in noInfo: a Prune is valid and idle.
    f.vrf.join({f.wcKey, f.d1});
    f.vrf.settle();
    ASSERT_NE(f.intf(f.wcKey, f.d1), nullptr);
    f.prune(f.entry(f.wcKey));
    EXPECT_EQ(f.sm().ignoredRxPrunes(), 2u);
    EXPECT_EQ(f.state(f.wcKey), noInfo);
    EXPECT_FALSE(f.prunePendingRemembered(f.wcKey));
}

TEST(DownstreamWcSgSm, PruneEchoCarriesThePrunedEntry) {
    Downstream f;
    const RouteKey sg2 = sg("10.1.0.8", "239.1.1.1");
    for (const RouteKey& key : {f.wcKey, f.sgKey, sg2}) {
        f.join(f.entry(key));
        f.prune(f.entry(key));
    }
    f.runTo(overrideInterval);
    EXPECT_EQ(f.echo(f.wcKey), "wc-prune 10.9.9.9;sg-prune 10.1.0.7;sg-prune 10.1.0.8;");
    EXPECT_FALSE(f.prunePendingRemembered(f.wcKey));
    // The packet side sends it once.
    f.vrf.joinPrune().pendingSent();
    EXPECT_EQ(f.echo(f.wcKey), "");
}

TEST(DownstreamWcSgSm, RpfMovingOntoThePrunedInterfaceDropsThePruneEcho) {
    // The (S,G) Prune arrives on up2, where this router is 10.0.2.5 and has two neighbours.
    Downstream f;
    const IntfId up2{"up2"};
    f.vrf.neighborIs("up2", ip("10.0.2.3"));
    JoinPruneMessageInfo m = f.entry(f.sgKey);
    m.intf = up2;
    m.sender = ip("10.0.2.2");
    m.upstreamNeighbor = ip("10.0.2.5");
    f.join(m);
    f.prune(m);
    ASSERT_TRUE(f.vrf.joinPrune().rxPruneHas({f.sgKey, up2}));
    // An RPF change elsewhere keeps it.
    const Cask::Ptr<Route> held = f.vrf.status().route(f.sgKey);
    Route& route = *held;
    ASSERT_EQ(route.rpf().intf, f.up1);
    f.vrf.unicastRouteIs(prefix("10.1.0.0/16"), "up1", ip("10.0.1.3"));
    f.vrf.flush();
    EXPECT_TRUE(f.vrf.joinPrune().rxPruneHas({f.sgKey, up2}));
    f.vrf.unicastRouteIs(prefix("10.1.0.0/16"), "up2", ip("10.0.2.2"));
    f.vrf.flush();
    ASSERT_EQ(route.rpf().intf, up2);
    EXPECT_FALSE(f.vrf.joinPrune().rxPruneHas({f.sgKey, up2}));
    EXPECT_TRUE(Cask::trace().contains(" Deleting pruneEcho for (10.1.0.7, 239.1.1.1)"));
    f.runTo(overrideInterval + 1);
    EXPECT_EQ(f.vrf.joinPrune().pruneEcho(up2), nullptr);
    // The prune took effect (the route review may have removed the idle interface since).
    const Intf* i = route.routeIntfRaw(up2);
    EXPECT_TRUE(!i || i->joinState() == noInfo);
}

TEST(DownstreamWcSgSm, DownstreamJoinMakesTheRouterJoinTowardTheRp) {
    Downstream f;
    f.join(f.entry(f.wcKey, 30));
    f.vrf.flush();
    const Cask::Ptr<Route> held = f.vrf.status().route(f.wcKey);
    Route& route = *held;
    EXPECT_EQ(route.upJoinState(), UpJoinState::upJoined);
    EXPECT_TRUE(route.routeIntf(f.d1)->forward());
    const auto* nbr = f.vrf.joinPrune().neighbor(f.up1, ip("10.0.1.2"));
    ASSERT_NE(nbr, nullptr);
    const auto* group = nbr->periodic().joinPruneGroupData(f.wcKey.group());
    ASSERT_NE(group, nullptr);
    EXPECT_TRUE(group->wcSourceDataHas(f.rp) && group->wcSourceData(f.rp).join);
    // The downstream join expires: so does the upstream one.
    f.runTo(30 + maxJitter);
    EXPECT_EQ(route.upJoinState(), UpJoinState::upNotJoined);
    const Intf* d1 = route.routeIntfRaw(f.d1);
    EXPECT_TRUE(!d1 || !d1->forward());
    EXPECT_EQ(nbr->periodic().joinPruneGroupData(f.wcKey.group()), nullptr);
}

TEST(DownstreamWcSgSm, InterfaceReactorsExistOnlyWhileThereIsJoinState) {
    Downstream f;
    // A route with local receivers only costs this machine nothing; its first Join brings the
    // route reactor, which stays once the join state is gone.
    f.vrf.join({f.wcKey, f.d1});
    f.vrf.join({f.wcKey, IntfId("d2")});
    f.vrf.settle();
    EXPECT_EQ(f.sm().downstreamRouteSm(f.wcKey), nullptr);
    f.join(f.entry(f.wcKey, 20));
    const DownstreamRouteSm* rsm = f.sm().downstreamRouteSm(f.wcKey);
    ASSERT_NE(rsm, nullptr);
    EXPECT_EQ(rsm->intfMap().size(), 1u);
    const Cask::Seconds t0 = f.vrf.loop.now();
    f.runTo(t0 + 20 + maxJitter);
    EXPECT_EQ(f.state(f.wcKey), noInfo);
    ASSERT_EQ(f.sm().downstreamRouteSm(f.wcKey), rsm);
    EXPECT_EQ(rsm->intfMap().size(), 0u);
    // A route reactor with its index and one small interface index stays within its budget.
    EXPECT_LE(sizeof(DownstreamRouteSm) + 2 * sizeof(void*), 64u);
}

TEST(DownstreamWcSgSm, StateFoundAfterRestartIsRearmedOrExpired) {
    struct Case {
        const char* name;
        JoinState found;
        Cask::Seconds lastJoinAgo;  // 0: no Join known
        Cask::Seconds stillAt;      // still in `found` at this time after the take-over
        Cask::Seconds goneBy;       // noInfo by then
    };
    const Case cases[] = {
        {"joined, recent join", joined, 100, 110, 110 + maxJitter},
        {"joined, join long gone", joined, 500, -1, 0},
        {"joined, no join known", joined, 0, -1, 0},
        {"prune-pending", prunePending, 10, 0, overrideInterval + maxJitter},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Downstream f;
        f.runTo(1000);
        const Cask::Seconds t0 = f.vrf.loop.now();
        f.vrf.route(f.wcKey, {}, [&](Route& r) {
            auto i = r.routeIntfIs(f.d1);
            i->joinStateIs(c.found);
            if (c.lastJoinAgo) i->lastJoinReceivedIs(t0 - c.lastJoinAgo);
            r.initializedIs(true);
        });
        ASSERT_NE(f.intf(f.wcKey, f.d1), nullptr);
        EXPECT_TRUE(f.intf(f.wcKey, f.d1)->initialized());
        if (c.stillAt >= 0) {
            f.runTo(t0 + c.stillAt);
            EXPECT_EQ(f.state(f.wcKey), c.found);
        }
        f.runTo(t0 + c.goneBy);
        EXPECT_EQ(f.state(f.wcKey), noInfo);
    }
}

}  // namespace
}  // namespace Routing::Pim::SparseMode::Testing
