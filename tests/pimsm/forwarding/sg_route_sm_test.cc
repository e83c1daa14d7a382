// SgRouteSm: routes from cache misses, the SPT bit, keepalive and
// inactivity, CouldRegister and the register tunnel, and the forwarding
// stage waiting for the register decision.
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "cask/clock.h"
#include "cask/event_loop.h"
#include "cask/trace.h"
#include "pimsm/forwarding/mfib_sm.h"
#include "pimsm/forwarding/sg_route_sm.h"
#include "pimsm/upstream/rpf_table.h"
#include "platform/group_ranges.h"
#include "platform/mcast_boundary.h"
#include "platform/pim_status.h"
#include "platform/rp_local.h"
#include "platform/unicast_route_table.h"

namespace Routing::Pim::SparseMode::Testing {
namespace {

using Routing::Pim::MrtUpcall;
using Routing::Pim::RouteKey;
using Routing::Pim::Rpf;
using Wirl::IntfId;
using Wirl::IpGenAddr;

IpGenAddr ip(std::string_view s) {
    return *IpGenAddr::parse(s);
}

// One IPv4 VRF: the RP 10.9.9.9 behind "up1" (neighbour 10.0.1.2), remote
// sources 10.2.0.0/16 behind "up2" (neighbour 10.0.2.2), a directly
// connected source subnet on "src", receivers on "d1". This router is DR
// everywhere. Routes of the route status are registered in LocalStatus as
// the route reactor would.
class SgFixture : public Status::Notifiee {
public:
    const IpGenAddr group = ip("239.1.1.1");
    const IpGenAddr rp = ip("10.9.9.9");
    const IpGenAddr local = ip("10.1.1.10");
    const IpGenAddr remote = ip("10.2.2.2");
    const IpGenAddr nbr1 = ip("10.0.1.2"), nbr2 = ip("10.0.2.2");
    const IntfId src{"src"}, up1{"up1"}, up2{"up2"}, d1{"d1"};

    SgFixture()
        : loop(clock),
          ls(localStatusFactory(Wirl::AddressFamily::ipv4)),
          pim(Cask::make<Routing::Pim::Status>()),
          status(Cask::make<Status>(clock, RouteContext{pim.get(), ls.get()})),
          urs(unicastRoutingStatusFactory(Wirl::AddressFamily::ipv4)),
          table(Cask::make<Routing::Unicast::RouteTable>(Wirl::AddressFamily::ipv4)),
          rpfTable(urs.get()) {
        Cask::trace().levelIs(8);
        Cask::trace().clear();
        Status::Notifiee::notifierIs(status.get());
        urs->mribStatusIs(table);
        auto prefix = [](const char* p) { return *Wirl::IpGenPrefix::parse(p); };
        table->routeIs({prefix("10.9.9.0/24"), up1, nbr1, 110, 20, false});
        table->routeIs({prefix("10.2.0.0/16"), up2, nbr2, 110, 20, false});
        table->routeIs({prefix("10.1.1.0/24"), src, IpGenAddr::zero(group.family()), 0, 0, true});
        for (auto [name, mine] : {std::pair{"src", "10.1.1.1"},
                                  {"up1", "10.0.1.5"},
                                  {"up2", "10.0.2.5"},
                                  {"d1", "10.0.3.5"}}) {
            auto s = Cask::make<Routing::Pim::PimIntfStatus>(IntfId(name));
            s->usedAddrIs(ip(mine));
            s->usedDrIs(ip(mine));
            pim->intfIs(s->intfId(), s);
        }
        rpMapping->rpIs(prefix("239.0.0.0/8"), rp);
        ctx.vrfName = L3::VrfName("red");
        ctx.family = Wirl::AddressFamily::ipv4;
        ctx.loop = &loop;
        ctx.config = config.get();
        ctx.rpMapping = rpMapping.get();
        ctx.status = status.get();
        ctx.localStatus = ls.get();
        ctx.ssmGroupInfo = ssm.get();
        ctx.groupFilterStatus = groupFilter.get();
        ctx.pimStatus = pim.get();
        ctx.rpfTable = &rpfTable;
        ctx.rpLocalStatus = rpLocal.get();
        ctx.mcastBoundaryStatus = boundary.get();
        ctx.mfibTidal = mfib.get();
        ctx.registerConfig = registerConfig.get();
        ctx.registerStatus = registerStatus.get();
        ctx.mrtUpcall = upcalls.get();
    }
    ~SgFixture() override {
        mfibSm.reset();
        sm.reset();
    }

    void handleRoute(const RouteKey& k) override {
        Cask::Ptr<Route> r = status->route(k);
        if (k.isWc()) {
            r ? ls->wcRouteIs(k, r) : ls->wcRouteDel(k);
        } else {
            r ? ls->sgRouteIs(k, r) : ls->sgRouteDel(k);
        }
    }

    void start() { sm = sgRouteSmFactory(ctx); }
    void startMfib() { mfibSm = mfibSmFactory(ctx); }
    void thresholdIs(bool on) {
        ctx.sptThreshold = [on](const IpGenAddr&) { return on; };
    }

    RouteKey key(const IpGenAddr& source) const { return RouteKey(source, group); }
    void upcall(MrtUpcall::Kind kind, const RouteKey& k, IntfId intf) {
        upcalls->upcallPush({kind, k, 0, intf});
        settle();
    }
    void activity(const RouteKey& k, std::uint64_t packets) {
        upcalls->activityIs(k, upcalls->activity(k) + packets);
        settle();
    }
    void settle() { loop.runUntil(clock.now()); }
    void advance(double dt) { loop.runUntil(clock.now() + dt); }

    // A route made by hand, with its RPF'.
    Route& route(const RouteKey& k, IntfId iif, const IpGenAddr& nbr) {
        Cask::Ptr<Route> r = status->routeIs(k);
        r->umh()->doUpdateRpf(Rpf{iif, nbr, 110, 20});
        return *r;
    }
    void receiver(Route& r, IntfId intf) { r.routeIntfIs(intf)->localReceiverIncludeIs(true); }

    static std::size_t tracePos(const std::string& text) {
        const auto lines = Cask::trace().lines();
        for (std::size_t i = 0; i < lines.size(); ++i) {
            if (lines[i].text.find(text) != std::string::npos) return i;
        }
        return lines.size();
    }

    Cask::VirtualClock clock;
    Cask::EventLoop loop;
    Cask::Ptr<LocalStatus> ls;
    Cask::Ptr<Routing::Pim::Status> pim;
    Cask::Ptr<Status> status;
    Cask::Ptr<UnicastRoutingStatus> urs;
    Cask::Ptr<Routing::Unicast::RouteTable> table;
    PimRpfTable rpfTable;
    Cask::Ptr<Config> config = Cask::make<Config>(Wirl::AddressFamily::ipv4);
    Cask::Ptr<SsmGroupInfo> ssm = Cask::make<SsmGroupInfo>(Wirl::AddressFamily::ipv4);
    Cask::Ptr<Routing::Pim::GroupFilterStatus> groupFilter =
        Cask::make<Routing::Pim::GroupFilterStatus>(Wirl::AddressFamily::ipv4);
    Cask::Ptr<Platform::RpMapping> rpMapping = Cask::make<Platform::RpMapping>();
    Cask::Ptr<Routing::Pim::RpLocalStatus> rpLocal = Cask::make<Routing::Pim::RpLocalStatus>();
    Cask::Ptr<Routing::McastBoundary::Status> boundary =
        Cask::make<Routing::McastBoundary::Status>();
    Cask::Ptr<TMF::Status> mfib = Cask::make<TMF::Status>();
    Cask::Ptr<Platform::RegisterConfig> registerConfig = Cask::make<Platform::RegisterConfig>();
    Cask::Ptr<RegisterStatus> registerStatus = Cask::make<RegisterStatus>();
    Cask::Ptr<Routing::Pim::MrtUpcallStatus> upcalls = Cask::make<Routing::Pim::MrtUpcallStatus>();
    VrfContext ctx;
    std::unique_ptr<SgRouteSm> sm;
    std::unique_ptr<MfibSm> mfibSm;
};

// Every condition of Update_SPTbit, each case one packet on one route of the
// remote source (RPF_interface(S) up2 unless the case moves it).
TEST(SgRouteSmTest, UpdateSptBitConditions) {
    struct Case {
        const char* name;
        bool rpfKnown = true;
        bool attached = false;
        const char* arrival = "up2";
        bool joined = true;
        const char* sgIif = "up2";
        const char* sgNbr = "10.0.2.2";
        const char* wcIif = "up1";  // "" : no (*,G) route
        const char* wcNbr = "10.0.1.2";
        bool wcReceiver = true;  // inherited_olist(S,G,rpt) not empty
        bool assertLoser = false;
        bool threshold = true;
        bool spt = false;
    };
    const Case cases[] = {
        {.name = "rpf unknown", .rpfKnown = false, .spt = false},
        {.name = "connected source, any interface", .attached = true, .arrival = "d1", .spt = true},
        {.name = "not on RPF_interface(S)", .arrival = "up1", .spt = false},
        {.name = "not joined", .joined = false, .spt = false},
        {.name = "RPF(S) and RPF(RP) interfaces differ", .spt = true},
        {.name = "interfaces differ, switch not desired", .threshold = false, .spt = false},
        {.name = "same interface, other neighbour", .arrival = "up1", .sgIif = "up1"},
        {.name = "same interface, empty (S,G,rpt) olist",
         .arrival = "up1",
         .sgIif = "up1",
         .wcReceiver = false,
         .spt = true},
        {.name = "no (*,G) route", .wcIif = "", .spt = true},
        {.name = "same RPF' neighbour",
         .arrival = "up1",
         .sgIif = "up1",
         .sgNbr = "10.0.1.2",
         .spt = true},
        {.name = "assert loser on iif",
         .arrival = "up1",
         .sgIif = "up1",
         .assertLoser = true,
         .spt = true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        SgFixture f;
        f.thresholdIs(c.threshold);
        f.start();
        if (*c.wcIif) {
            Route& wc = f.route(RouteKey::wc(f.group), IntfId(c.wcIif), ip(c.wcNbr));
            if (c.wcReceiver) f.receiver(wc, f.d1);
        }
        const RouteKey k = f.key(f.remote);
        Route& sg = c.rpfKnown ? f.route(k, IntfId(c.sgIif), ip(c.sgNbr)) : *f.status->routeIs(k);
        sg.umh()->rpfAttachedIs(c.attached);
        if (c.joined) sg.upJoinStateIs(UpJoinState::upJoined);
        if (c.assertLoser) {
            sg.routeIntfIs(IntfId(c.arrival))->assertInfoIs({AssertState::iAmAssertLoser, {}});
        }
        f.sm->updateSptBit(sg, IntfId(c.arrival));
        EXPECT_EQ(sg.spTree(), c.spt);
        EXPECT_EQ(f.registerConfig->couldSendRegisterStopHas(k), c.spt);
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
        SgFixture f;
        if (c.hasThreshold) f.thresholdIs(c.threshold);
        if (c.iAmRp) f.rpLocal->localRpIs(f.rp);
        f.start();
        Route& sg = f.route(f.key(f.remote), f.up2, f.nbr2);
        if (c.sgJoin) sg.routeIntfIs(f.d1)->joinStateIs(JoinState::joined);
        EXPECT_EQ(f.sm->switchToSptDesired(sg), c.desired);
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
    SgFixture f;
    bool threshold = false;
    f.ctx.sptThreshold = [&](const IpGenAddr&) { return threshold; };
    f.start();
    f.sm->hwProgrammingAllowed = true;
    Route& sg = f.route(f.key(f.remote), f.up2, f.nbr2);  // reactor: programmable already
    EXPECT_TRUE(sg.programmable());
    Seen seen(&sg);
    const auto changed = sg.routeChanged();
    threshold = true;
    EXPECT_TRUE(f.sm->switchToSptDesired(sg));
    EXPECT_FALSE(sg.programmable());
    EXPECT_EQ(seen.flags, (std::vector<std::uint32_t>{0x2000, 0}));
    EXPECT_EQ(sg.routeChanged(), changed + 1);
    // No change, no flag.
    f.sm->switchToSptDesired(sg);
    EXPECT_EQ(seen.flags.size(), 2u);
    EXPECT_EQ(sg.routeChanged(), changed + 1);

    // A directly connected source is never forwarded by the hardware alone.
    threshold = false;
    f.upcall(MrtUpcall::Kind::noCache, f.key(f.local), f.src);
    ASSERT_NE(f.ls->sgRoute().raw(f.key(f.local)), nullptr);
    EXPECT_FALSE(f.ls->sgRoute().raw(f.key(f.local))->programmable());
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
    };
    const Case cases[] = {
        {"plain", false, false, "src", true, "Create route."},
        {"boundary on arrival interface", true, false, "src", false,
         "Ignoring cache miss, boundary filter on interface"},
        {"boundary elsewhere", true, false, "d1", true, "Create route."},
        {"bidirectional group", false, true, "src", false, "ignoring bidirectional group"},
        {"border-router interface", false, false, "src", true, "Create MBR route.", true},
        {"(*,G) forwarded by the hardware", false, false, "src", false,
         "is programmable, so ignoring NoCache upcall for", false, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        SgFixture f;
        f.start();
        if (c.boundaryOnSrc) {
            auto b =
                Cask::make<Routing::McastBoundary::IntfBoundary>(f.src, Wirl::AddressFamily::ipv4);
            Wirl::AddressRangeSet groups(Wirl::AddressFamily::ipv4);
            groups.add(*Wirl::IpGenPrefix::parse("239.0.0.0/8"));
            b->groupsIs(groups);
            f.boundary->intfIs(f.src, b);
        }
        if (c.bidir) {
            Wirl::AddressRangeSet groups(Wirl::AddressFamily::ipv4);
            groups.add(*Wirl::IpGenPrefix::parse("239.1.0.0/16"));
            f.groupFilter->bidirRangeIs(groups);
        }
        if (c.mbrArrival) f.pim->intfRaw(IntfId(c.arrival))->mbrIs(true);
        if (c.wcProgrammable) {
            f.route(RouteKey::wc(f.group), f.up1, f.nbr1).programmableIs(true);
        }
        const std::size_t before = f.ls->sgRouteSize();
        f.upcall(MrtUpcall::Kind::noCache, f.key(f.local), IntfId(c.arrival));
        EXPECT_EQ(f.ls->sgRouteSize() - before, c.created ? 1u : 0u);
        EXPECT_TRUE(Cask::trace().contains(c.trace));
        EXPECT_EQ(f.ls->processingCacheMissSize(), 0u);
        if (!c.created) continue;
        const Route& r = *f.ls->sgRoute().raw(f.key(f.local));
        EXPECT_FALSE(r.katExpired());
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
    SgFixture f;
    f.start();
    const RouteKey k = f.key(f.local);
    f.upcall(MrtUpcall::Kind::noCache, k, f.src);
    // A second route of the source group with a local receiver: never idle.
    const RouteKey kept = RouteKey(ip("10.1.1.11"), f.group);
    f.upcall(MrtUpcall::Kind::noCache, kept, f.src);
    f.receiver(*f.status->route(kept), f.d1);
    Route& r = *f.status->route(k);
    EXPECT_TRUE(f.registerConfig->couldRegisterSgHas(k));
    EXPECT_TRUE(f.registerConfig->couldRegisterSg(k));

    f.advance(60);  // idle past the register and advertise intervals
    EXPECT_TRUE(r.expiredFlags().has(ExpiredFlags::Bit::register_));
    EXPECT_FALSE(f.registerConfig->couldRegisterSg(k));  // inactive
    EXPECT_TRUE(f.registerConfig->couldRegisterSgHas(k));
    EXPECT_FALSE(r.katExpired());

    f.advance(130);  // 190 s
    EXPECT_FALSE(r.katExpired());
    EXPECT_FALSE(r.markedForDeletion());
    f.advance(35);  // 225 s: past 210 s and one inactivity period
    EXPECT_TRUE(r.katExpired());
    EXPECT_TRUE(r.markedForDeletion());
    EXPECT_FALSE(f.registerConfig->couldRegisterSgHas(k));  // marked: not registrable
    EXPECT_FALSE(f.status->route(kept)->markedForDeletion());

    f.activity(k, 3);
    EXPECT_FALSE(r.katExpired());
    EXPECT_FALSE(r.markedForDeletion());
    EXPECT_TRUE(r.expiredFlags().empty());
    EXPECT_TRUE(f.registerConfig->couldRegisterSg(k));  // active again
}

// Not the DR on the source's interface: nothing to register, whatever the
// register process wants.
TEST(SgRouteSmTest, CouldRegisterNeedsDr) {
    SgFixture f;
    f.pim->intfRaw(f.src)->usedDrIs(ip("10.1.1.2"));
    f.start();
    const RouteKey k = f.key(f.local);
    f.registerStatus->registerOifIs(k);
    f.upcall(MrtUpcall::Kind::noCache, k, f.src);
    EXPECT_FALSE(f.registerConfig->couldRegisterSgHas(k));
    EXPECT_FALSE(f.status->route(k)->oifRegister());
    EXPECT_TRUE(f.status->route(k)->registerOifEvaluated());
    // Becoming DR reaches the route through the route review's change flags.
    f.pim->intfRaw(f.src)->usedDrIs(ip("10.1.1.1"));
    Route& r = *f.status->route(k);
    r.changeFlagsIs(ChangeFlags{ChangeFlags::Bit::rpfDrStatus});
    r.changeFlagsIs(ChangeFlags{});
    EXPECT_TRUE(f.registerConfig->couldRegisterSgHas(k));
    EXPECT_TRUE(r.oifRegister());
}

// The forwarding stage programs an (S,G) route only once the register
// decision was made, and carries the register tunnel flag it gives.
TEST(SgRouteSmTest, ForwardingWaitsForRegisterDecision) {
    SgFixture f;
    f.startMfib();
    const RouteKey k = f.key(f.local);
    Route& r = f.route(k, f.src, IpGenAddr::zero(f.group.family()));
    r.umh()->rpfAttachedIs(true);
    f.settle();
    const auto fibKey = Routing::Multicast::Fib::convertKey(k);
    EXPECT_EQ(f.mfib->route(fibKey), nullptr);
    EXPECT_TRUE(Cask::trace().contains("Waiting for register OIF evaluation for"));

    f.start();  // takes up the route and decides
    f.settle();
    const TMF::Route* record = f.mfib->route(fibKey);
    ASSERT_NE(record, nullptr);
    EXPECT_LT(SgFixture::tracePos(", Register in OIF has been evaluated."),
              SgFixture::tracePos("Mfib: doCommitTidalRoute"));
    EXPECT_FALSE(record->flag(TMF::Route::oifRegister));

    f.registerStatus->registerOifIs(k);
    f.settle();
    EXPECT_TRUE(f.mfib->route(fibKey)->flag(TMF::Route::oifRegister));
    f.registerStatus->noRegisterOifIs(k);
    f.settle();
    EXPECT_FALSE(f.mfib->route(fibKey)->flag(TMF::Route::oifRegister));
}

// A wrong-VIF report on RPF_interface(S) of a joined route sets the SPT bit
// and lets the RP be told to stop registers; an unknown route is reported.
TEST(SgRouteSmTest, WrongVif) {
    SgFixture f;
    f.thresholdIs(true);
    f.start();
    const RouteKey k = f.key(f.remote);
    f.upcall(MrtUpcall::Kind::wrongVif, k, f.up2);
    EXPECT_TRUE(Cask::trace().contains("Error: Route not found: " + k.str()));
    EXPECT_EQ(f.status->routeSize(), 0u);

    Route& wc = f.route(RouteKey::wc(f.group), f.up1, f.nbr1);
    f.receiver(wc, f.d1);
    Route& sg = f.route(k, f.up2, f.nbr2);
    sg.upJoinStateIs(UpJoinState::upJoined);
    f.upcall(MrtUpcall::Kind::wrongVif, k, f.up1);  // on the shared tree: no SPT
    EXPECT_FALSE(sg.spTree());
    f.upcall(MrtUpcall::Kind::wrongVif, k, f.up2);
    EXPECT_TRUE(sg.spTree());
    EXPECT_TRUE(f.registerConfig->couldSendRegisterStopHas(k));
    EXPECT_EQ(f.ls->wrongVifCount(k), 2u);
}

}  // namespace
}  // namespace Routing::Pim::SparseMode::Testing
