// SgRouteSm: routes from cache misses, the SPT bit, keepalive and
// inactivity, CouldRegister and the register tunnel, and the forwarding
// stage waiting for the register decision.
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cask/trace.h"
#include "pimsm/test_vrf.h"

namespace Routing::Pim::SparseMode::Testing {
namespace {

using Routing::Pim::MrtUpcall;
using T = Config::DrSwitchThresh;

// The two-upstream VRF (RP 10.9.9.9 behind up1, this router DR) with remote
// sources 10.2.0.0/16 behind up2 (neighbour 10.0.2.2) and a directly
// connected source subnet 10.1.1.0/24 on "src". The SPT threshold comes from
// the configuration (`drSwitch`), as the agent reads it.
struct SgVrf : TestVrf {
    explicit SgVrf(bool drOnSrc = true) : TestVrf(Layout::twoUpstreamsIAmDr, Start::later) {
        intfIs("src", ip("10.1.1.1"), true);
        if (!drOnSrc) pimIntf("src").usedDrIs(ip("10.1.1.2"));
        unicastRouteIs(prefix("10.2.0.0/16"), "up2", nbr2);
        connectedRouteIs(prefix("10.1.1.0/24"), "src");
        start();
    }

    const IpGenAddr group = ip("239.1.1.1");
    const IpGenAddr rp = ip("10.9.9.9");
    const IpGenAddr local = ip("10.1.1.10");
    const IpGenAddr remote = ip("10.2.2.2");
    const IpGenAddr nbr1 = ip("10.0.1.2"), nbr2 = ip("10.0.2.2");
    const IntfId src{"src"}, up1{"up1"}, up2{"up2"}, d1{"d1"};

    SgRouteSm& sm() const { return sgRouteSm(); }
    Platform::RegisterConfig& registerConfig() const { return *ctx().registerConfig; }
    RegisterStatus& registerStatus() const { return *ctx().registerStatus; }
    void thresholdIs(bool on) { config().drSwitchIs(on ? T::immediate : T::never); }
    void hwAllowedIs(bool on) { ctx().hwMfibStatus->hwProgrammingAllowedIs(on); }

    RouteKey key(const IpGenAddr& source) const { return RouteKey(source, group); }
    // Cache-miss and activity reports run their turn without time passing.
    void upcall(MrtUpcall::Kind kind, const RouteKey& k, IntfId intf) {
        ctx().mrtUpcall->upcallPush({kind, k, 0, intf});
        flush();
    }
    void activity(const RouteKey& k, std::uint64_t packets) {
        ctx().mrtUpcall->activityIs(k, ctx().mrtUpcall->activity(k) + packets);
        flush();
    }
    void advance(double dt) { loop.runUntil(clock.now() + dt); }

    static std::size_t tracePos(const std::string& text) {
        const auto lines = Cask::trace().lines();
        for (std::size_t i = 0; i < lines.size(); ++i) {
            if (lines[i].text.find(text) != std::string::npos) return i;
        }
        return lines.size();
    }
};

// Every condition of Update_SPTbit, each case one packet on one route of a
// remote source reached through the case's unicast route (RPF(RP) is up1,
// neighbour 10.0.1.2; up1 has a second neighbour 10.0.1.3).
TEST(SgRouteSmTest, UpdateSptBitConditions) {
    struct Case {
        const char* name;
        const char* source = "10.2.2.2";  // 10.3.3.3: no route; 10.1.1.10: on "src"
        const char* arrival = "up2";
        bool joined = true;
        bool byData = false;  // joined for data on the (*,G) olist, not a receiver of its own
        const char* sgIif = "up2";
        const char* sgNbr = "10.0.2.2";
        bool wcRoute = true;
        bool wcReceiver = true;  // inherited_olist(S,G,rpt) not empty
        bool assertLoser = false;
        bool threshold = true;
        bool spt = false;
    };
    const Case cases[] = {
        {.name = "rpf unknown", .source = "10.3.3.3", .spt = false},
        {.name = "connected source, any interface",
         .source = "10.1.1.10",
         .arrival = "d1",
         .spt = true},
        {.name = "not on RPF_interface(S)", .arrival = "up1", .spt = false},
        {.name = "not joined", .joined = false, .spt = false},
        {.name = "RPF(S) and RPF(RP) interfaces differ", .spt = true},
        {.name = "interfaces differ, switch not desired",
         .byData = true,
         .threshold = false,
         .spt = false},
        {.name = "same interface, other neighbour",
         .arrival = "up1",
         .sgIif = "up1",
         .sgNbr = "10.0.1.3"},
        {.name = "same interface, empty (S,G,rpt) olist",
         .arrival = "up1",
         .sgIif = "up1",
         .sgNbr = "10.0.1.3",
         .wcReceiver = false,
         .spt = true},
        {.name = "no (*,G) route", .wcRoute = false, .spt = true},
        {.name = "same RPF' neighbour",
         .arrival = "up1",
         .sgIif = "up1",
         .sgNbr = "10.0.1.2",
         .spt = true},
        {.name = "assert loser on iif",
         .arrival = "up1",
         .sgIif = "up1",
         .sgNbr = "10.0.1.3",
         .assertLoser = true,
         .spt = true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        SgVrf f;
        f.neighborIs("up1", ip("10.0.1.3"));
        f.unicastRouteIs(prefix("10.2.2.2/32"), c.sgIif, ip(c.sgNbr));
        f.thresholdIs(c.threshold);
        if (c.wcRoute) {
            Route& wc = f.route(RouteKey::wc(f.group));
            if (c.wcReceiver) wc.routeIntfIs(f.d1)->localReceiverIncludeIs(true);
        }
        // Joined toward the source for a receiver of its own on d2 (which
        // makes the switch desired), or for data running the keepalive.
        // A packet on the shared tree (up1) starts the keepalive only while
        // the switch is desired; the case's threshold applies after it.
        const RouteKey k = f.key(ip(c.source));
        if (c.byData) {
            f.thresholdIs(true);
            f.upcall(MrtUpcall::Kind::noCache, k, IntfId("up1"));
        }
        Route& sg = c.joined && !c.byData ? f.route(k, {"d2"}) : f.route(k);
        f.flush();
        f.thresholdIs(c.threshold);
        f.flush();
        ASSERT_EQ(sg.upJoinState() == UpJoinState::upJoined, c.joined);
        if (c.assertLoser) {
            sg.routeIntfIs(IntfId(c.arrival))->assertInfoIs({AssertState::iAmAssertLoser, {}});
        }
        f.sm().updateSptBit(sg, IntfId(c.arrival));
        EXPECT_EQ(sg.spTree(), c.spt);
        EXPECT_EQ(f.registerConfig().couldSendRegisterStopHas(k), c.spt);
    }
}

TEST(SgRouteSmTest, SwitchToSptDesired) {
    struct Case {
        const char* name;
        bool sgJoin;
        bool iAmRp;
        bool threshold;
        bool hasThreshold;
        bool desired;
    };
    const Case cases[] = {
        {"downstream (S,G) join, threshold never", true, false, false, true, true},
        {"this router is the RP", false, true, false, true, true},
        {"threshold immediate", false, false, true, true, true},
        {"threshold never", false, false, false, true, false},
        {"no threshold information", false, false, true, false, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        SgVrf f;
        f.thresholdIs(c.threshold);
        if (c.iAmRp) f.rpLocal().localRpIs(f.rp);
        Route& sg = f.route(f.key(f.remote));
        if (c.sgJoin) sg.routeIntfIs(f.d1)->joinStateIs(JoinState::joined);
        if (c.hasThreshold) {
            EXPECT_EQ(f.sm().switchToSptDesired(sg), c.desired);
        } else {
            // A machine whose VRF offers no threshold lookup.
            VrfContext bare = f.ctx();
            bare.sptThreshold = {};
            EXPECT_EQ(sgRouteSmFactory(bare)->switchToSptDesired(sg), c.desired);
        }
    }
}

// Hardware-only programming follows SwitchToSptDesired; each change raises
// change flag 0x2000 for one notification and bumps routeChanged.
TEST(SgRouteSmTest, ProgrammableChangeRaisesChangeFlag) {
    struct Seen : Route::Notifiee {
        using Route::Notifiee::Notifiee;
        void handleChangeFlags() override { flags.push_back(notifier()->changeFlags().value()); }
        std::vector<std::uint32_t> flags;
    };
    SgVrf f;
    f.thresholdIs(false);
    f.hwAllowedIs(true);
    Route& sg = f.route(f.key(f.remote));  // reactor: programmable already
    EXPECT_TRUE(sg.programmable());
    Seen seen(&sg);
    const auto changed = sg.routeChanged();
    f.thresholdIs(true);
    EXPECT_TRUE(f.sm().switchToSptDesired(sg));
    EXPECT_FALSE(sg.programmable());
    EXPECT_EQ(seen.flags, (std::vector<std::uint32_t>{0x2000, 0}));
    EXPECT_EQ(sg.routeChanged(), changed + 1);
    // No change, no flag.
    f.sm().switchToSptDesired(sg);
    EXPECT_EQ(seen.flags.size(), 2u);
    EXPECT_EQ(sg.routeChanged(), changed + 1);

    // A directly connected source is never forwarded by the hardware alone.
    f.thresholdIs(false);
    f.upcall(MrtUpcall::Kind::noCache, f.key(f.local), f.src);
    ASSERT_NE(f.localStatus().sgRoute().raw(f.key(f.local)), nullptr);
    EXPECT_FALSE(f.localStatus().sgRoute().raw(f.key(f.local))->programmable());
}

// A (*,G) route is the hardware's alone while the VRF permits it and no
// source of the group would start a switch (threshold, RP); it is decided
// when the route comes and again when one of those inputs moves.
TEST(SgRouteSmTest, WcProgrammableFollowsItsInputs) {
    struct Case {
        const char* name;
        bool hwAtStart;
        std::function<void(SgVrf&)> move;
        bool programmable;
    };
    const IpGenAddr me = ip("10.0.0.99");
    const Case cases[] = {
        {"as it comes", true, [](SgVrf&) {}, true},
        {"permission not given", false, [](SgVrf&) {}, false},
        {"permission given later", false, [](SgVrf& f) { f.hwAllowedIs(true); }, true},
        {"permission withdrawn", true, [](SgVrf& f) { f.hwAllowedIs(false); }, false},
        {"threshold now immediate", true, [](SgVrf& f) { f.thresholdIs(true); }, false},
        {"this router becomes the group's RP", true,
         [&](SgVrf& f) { f.rpIs(prefix("239.1.1.0/24"), me); }, false},
        {"another router becomes the group's RP", true,
         [](SgVrf& f) { f.rpIs(prefix("239.1.1.0/24"), ip("10.9.9.8")); }, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        SgVrf f;
        f.rpLocal().localRpIs(me);  // an RP address of this router, not yet the group's
        f.thresholdIs(false);
        f.hwAllowedIs(c.hwAtStart);
        Route& wc = f.route(RouteKey::wc(f.group), {"d1"});
        f.flush();
        ASSERT_EQ(wc.programmable(), c.hwAtStart);
        c.move(f);
        f.advance(1);  // the review runs after a short delay
        EXPECT_EQ(wc.programmable(), c.programmable);
    }
}

// A cache miss creates the route unless a filter or boundary stops it.
TEST(SgRouteSmTest, NoCacheFilters) {
    struct Case {
        const char* name;
        bool boundaryOnSrc;
        bool bidir;
        const char* arrival;
        bool created;
        const char* trace;
        bool mbrArrival = false;
        bool wcProgrammable = false;
        bool remote = false;  // the source is not directly connected
        // The counter of the upcalls ignored for this case's reason.
        std::uint64_t SgRouteSm::UpcallCounters::*ignored = nullptr;
    };
    using C = SgRouteSm::UpcallCounters;
    const Case cases[] = {
        {"plain", false, false, "src", true, "Create route."},
        {"boundary on arrival interface", true, false, "src", false,
         "Ignoring cache miss, boundary filter on interface", false, false, false,
         &C::ignoredBoundary},
        {"boundary elsewhere", true, false, "d1", true, "Create route."},
        {"bidirectional group", false, true, "src", false, "ignoring bidirectional group", false,
         false, false, &C::ignoredBidir},
        {"border-router interface", false, false, "src", true, "Create MBR route.", true},
        {"(*,G) forwarded by the hardware", false, false, "up1", false,
         "is programmable, so ignoring NoCache upcall for", false, true, true,
         &C::ignoredWcProgrammable},
        // The DR must still register a connected source's packets.
        {"(*,G) forwarded by the hardware, connected source", false, false, "src", true,
         "Create route.", false, true},
        {"not an interface of the VRF", false, false, "Ethernet9", false,
         "ignoring unknown interface", false, false, false, &C::ignoredUnknownIntf},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        SgVrf f;
        if (c.boundaryOnSrc) {
            auto b =
                Cask::make<Routing::McastBoundary::IntfBoundary>(f.src, Wirl::AddressFamily::ipv4);
            Wirl::AddressRangeSet groups(Wirl::AddressFamily::ipv4);
            groups.add(prefix("239.0.0.0/8"));
            b->groupsIs(groups);
            f.boundary().intfIs(f.src, b);
        }
        if (c.bidir) {
            Wirl::AddressRangeSet groups(Wirl::AddressFamily::ipv4);
            groups.add(prefix("239.1.0.0/16"));
            f.groupFilter().bidirRangeIs(groups);
        }
        if (c.mbrArrival) f.pimIntf(c.arrival).mbrIs(true);
        if (c.wcProgrammable) {
            // Forwarded by the hardware alone: never switching, permitted.
            f.thresholdIs(false);
            f.hwAllowedIs(true);
            ASSERT_TRUE(f.route(RouteKey::wc(f.group)).programmable());
        }
        const std::size_t before = f.localStatus().sgRouteSize();
        const C counted = f.sm().upcallCounters();
        f.upcall(MrtUpcall::Kind::noCache, f.key(c.remote ? f.remote : f.local), IntfId(c.arrival));
        EXPECT_EQ(f.localStatus().sgRouteSize() - before, c.created ? 1u : 0u);
        EXPECT_TRUE(Cask::trace().contains(c.trace));
        EXPECT_EQ(f.localStatus().processingCacheMissSize(), 0u);
        const C& now = f.sm().upcallCounters();
        EXPECT_EQ(now.noCache, counted.noCache + 1);
        EXPECT_EQ(now.routesCreated, counted.routesCreated + (c.created ? 1 : 0));
        if (c.ignored) {
            EXPECT_EQ(now.*c.ignored, counted.*c.ignored + 1);
        }
        if (!c.created) continue;
        const Route& r = *f.localStatus().sgRoute().raw(f.key(f.local));
        // RFC 7761 4.2: a connected source's packet starts the keepalive
        // only when it arrives on the source's own interface.
        EXPECT_EQ(r.katExpired(), IntfId(c.arrival) != f.src);
        EXPECT_EQ(r.iif(), f.src);
        EXPECT_TRUE(r.umh()->directlyConnected());
        EXPECT_TRUE(r.spTree());  // a connected source: first packet
        EXPECT_EQ(r.mbr(), c.mbrArrival);
        EXPECT_EQ(r.mbrIif(), c.mbrArrival ? IntfId(c.arrival) : IntfId());
    }
}

// The first-hop DR: CouldRegister is published, active while the source
// sends; the keepalive expires after Keepalive_Period without data, which
// marks the idle route for deletion; new data takes the mark back.
TEST(SgRouteSmTest, KeepaliveAndInactivity) {
    SgVrf f;
    const RouteKey k = f.key(f.local);
    f.upcall(MrtUpcall::Kind::noCache, k, f.src);
    // A second route of the source group with a local receiver: never idle.
    const RouteKey kept = RouteKey(ip("10.1.1.11"), f.group);
    f.upcall(MrtUpcall::Kind::noCache, kept, f.src);
    f.status().route(kept)->routeIntfIs(f.d1)->localReceiverIncludeIs(true);
    const Cask::Ptr<Route> held = f.status().route(k);
    Route& r = *held;
    EXPECT_TRUE(f.registerConfig().couldRegisterSgHas(k));
    EXPECT_TRUE(f.registerConfig().couldRegisterSg(k));

    f.advance(60);  // idle past the register and advertise intervals
    EXPECT_TRUE(r.expiredFlags().has(ExpiredFlags::Bit::register_));
    EXPECT_FALSE(f.registerConfig().couldRegisterSg(k));  // inactive
    EXPECT_TRUE(f.registerConfig().couldRegisterSgHas(k));
    EXPECT_FALSE(r.katExpired());

    f.advance(130);  // 190 s
    EXPECT_FALSE(r.katExpired());
    EXPECT_FALSE(r.markedForDeletion());
    // Past 210 s and one inactivity period; stops on the turn that marks
    // the route, before the route review removes it.
    while (!r.markedForDeletion() && f.clock.now() < 240) {
        if (!f.loop.runOnce()) f.clock.advanceBy(1);
    }
    EXPECT_GE(f.clock.now(), 210);
    EXPECT_TRUE(r.katExpired());
    EXPECT_TRUE(r.markedForDeletion());
    EXPECT_FALSE(f.registerConfig().couldRegisterSgHas(k));  // marked: not registrable
    EXPECT_FALSE(f.status().route(kept)->markedForDeletion());

    f.activity(k, 3);
    EXPECT_FALSE(r.katExpired());
    EXPECT_FALSE(r.markedForDeletion());
    EXPECT_TRUE(r.expiredFlags().empty());
    EXPECT_TRUE(f.registerConfig().couldRegisterSg(k));  // active again
}

// Not the DR on the source's interface: nothing to register, whatever the
// register process wants. The DR role moving on the source's interface
// reaches the route through the route review (the interface's DR change
// becomes the route's rpfDrStatus change flag), each way.
TEST(SgRouteSmTest, CouldRegisterFollowsTheDr) {
    SgVrf f(/*drOnSrc=*/false);
    const RouteKey k = f.key(f.local);
    f.registerStatus().registerOifIs(k);
    f.upcall(MrtUpcall::Kind::noCache, k, f.src);
    Route& r = *f.status().route(k);
    EXPECT_FALSE(f.registerConfig().couldRegisterSgHas(k));
    EXPECT_FALSE(r.oifRegister());
    EXPECT_TRUE(r.registerOifEvaluated());
    const IpGenAddr dr[] = {ip("10.1.1.1"), ip("10.1.1.2"), ip("10.1.1.1")};
    for (const IpGenAddr& who : dr) {
        SCOPED_TRACE(who.str());
        f.pimIntf("src").usedDrIs(who);
        f.advance(1);
        const bool me = who == ip("10.1.1.1");
        EXPECT_EQ(f.registerConfig().couldRegisterSgHas(k), me);
        EXPECT_EQ(r.oifRegister(), me);
    }
}

// The forwarding stage programs an (S,G) route only once the register
// decision was made, and carries the register tunnel flag it gives. A second
// stage, writing its own table, meets a route whose decision is still open.
TEST(SgRouteSmTest, ForwardingWaitsForRegisterDecision) {
    SgVrf f;
    const RouteKey k = f.key(f.local);
    f.upcall(MrtUpcall::Kind::noCache, k, f.src);
    Route& r = *f.status().route(k);
    r.registerOifEvaluatedIs(false);
    auto table = Cask::make<TMF::Status>();
    VrfContext c = f.ctx();
    c.mfibTidal = table.get();
    MfibSm stage(c);
    Cask::trace().clear();
    stage.handleInit();
    f.flush();
    const auto fibKey = Routing::Multicast::Fib::convertKey(k);
    EXPECT_EQ(table->route(fibKey), nullptr);
    EXPECT_TRUE(Cask::trace().contains("Waiting for register OIF evaluation for"));

    f.registerStatus().registerOifIs(k);  // the decision: register tunnel on
    f.flush();
    const TMF::Route* record = table->route(fibKey);
    ASSERT_NE(record, nullptr);
    EXPECT_LT(SgVrf::tracePos(", Register in OIF has been evaluated."),
              SgVrf::tracePos("Mfib: doCommitTidalRoute"));
    EXPECT_TRUE(record->flag(TMF::Route::oifRegister));
    f.registerStatus().noRegisterOifIs(k);
    f.flush();
    EXPECT_FALSE(table->route(fibKey)->flag(TMF::Route::oifRegister));
}

// A wrong-VIF report on RPF_interface(S) of a joined route sets the SPT bit
// and lets the RP be told to stop registers; an unknown route is reported.
TEST(SgRouteSmTest, WrongVif) {
    SgVrf f;
    const RouteKey k = f.key(f.remote);
    f.upcall(MrtUpcall::Kind::wrongVif, k, f.up2);
    EXPECT_TRUE(Cask::trace().contains("Error: Route not found: " + k.str()));
    EXPECT_EQ(f.status().routeSize(), 0u);

    f.route(RouteKey::wc(f.group), {"d1"});
    Route& sg = f.route(k);
    f.flush();
    // Not joined toward S: on the shared tree, from RPF'(*,G).
    EXPECT_EQ(sg.iif(), f.up1);
    // A receiver of S joins it toward S, on RPF_interface(S).
    sg.routeIntfIs(IntfId("d2"))->localReceiverIncludeIs(true);
    f.flush();
    ASSERT_EQ(sg.upJoinState(), UpJoinState::upJoined);
    EXPECT_EQ(sg.iif(), f.up2);
    f.upcall(MrtUpcall::Kind::wrongVif, k, f.up1);  // on the shared tree: no SPT
    EXPECT_FALSE(sg.spTree());
    f.upcall(MrtUpcall::Kind::wrongVif, k, f.up2);
    EXPECT_TRUE(sg.spTree());
    EXPECT_TRUE(f.registerConfig().couldSendRegisterStopHas(k));
    EXPECT_EQ(f.localStatus().wrongVifCount(k), 2u);
}

// A packet reported on the new incoming interface moves a make-before-break
// switch on to waiting for the hardware; a packet on the old interface, or a
// route not switching, changes nothing.
TEST(SgRouteSmTest, UpcallOnTheNewInterfaceAdvancesAnIifSwitch) {
    struct Case {
        const char* name;
        bool switching;
        MrtUpcall::Kind kind;
        const char* arrival;
        IifSwitchState after;
    };
    using S = IifSwitchState;
    const Case cases[] = {
        {"wrong VIF on the new interface", true, MrtUpcall::Kind::wrongVif, "up2",
         S::iifSwitchWaitHw},
        {"cache miss on the new interface", true, MrtUpcall::Kind::noCache, "up2",
         S::iifSwitchWaitHw},
        {"wrong VIF on the old interface", true, MrtUpcall::Kind::wrongVif, "up1",
         S::iifSwitchPending},
        {"not switching", false, MrtUpcall::Kind::wrongVif, "up2", S::iifSwitchPending},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        SgVrf f;
        const RouteKey k = f.key(f.remote);  // RPF up2 (new); up1 stands for the old path
        Route& r = f.route(k, {"d2"});
        f.flush();
        ASSERT_EQ(r.iif(), f.up2);
        r.iifSwitchingIs(c.switching);
        r.iifSwitchStateIs(S::iifSwitchPending);
        f.upcall(c.kind, k, IntfId(c.arrival));
        EXPECT_EQ(r.iifSwitchState(), c.after);
    }
}

}  // namespace
}  // namespace Routing::Pim::SparseMode::Testing
