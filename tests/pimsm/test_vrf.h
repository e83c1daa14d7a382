#pragma once
// TestVrf: one VRF of the agent for tests, built through the real
// ContainerSm on a virtual clock, so that every machine exists exactly as in
// the agent, made in the agent's order, and a machine under test sees the
// others react around it.
//
// The builder plays the other parts of the system: it publishes in its state
// database what the container reads when it starts (configuration, the RP
// mapping in force, the unicast routing tables, the PIM interface status, the
// membership table, the hardware status), and offers helpers to change those
// inputs later. Routes are created in the VRF's route status and registered
// by the real route reactor.
//
// By default the VRF starts at once; with `Start::later` a test publishes
// inputs (interfaces, neighbours, RP mapping, unicast routes, memberships)
// before the machines start, then calls `start`.

#include <functional>
#include <memory>
#include <string_view>

#include "cask/clock.h"
#include "cask/event_loop.h"
#include "pimsm/agent/container_sm.h"
#include "platform/state_db.h"
#include "platform/unicast_route_table.h"

namespace Routing::Pim::SparseMode::Testing {

using Routing::Gmp::Tidal::FilterMode;
using Routing::Gmp::Tidal::RouteIntfKey;
using Routing::Pim::NeighborKey;
using Routing::Pim::RouteKey;
using Routing::Pim::Rpf;
using Wirl::IntfId;
using Wirl::IpGenAddr;
using Wirl::IpGenPrefix;

IpGenAddr ip(std::string_view text);
IpGenPrefix prefix(std::string_view text);
RouteKey wc(std::string_view group);
RouteKey sg(std::string_view source, std::string_view group);

class TestVrf {
public:
    enum class Start { now, later };
    // IPv4 only: PIM interfaces up1, up2, d1, d2 with this router's address
    // 10.0.N.5 (N = 1..4), a neighbour 10.0.N.2 on up1 and on up2, the RP
    // 10.9.9.9 for 239.0.0.0/8 and the sources 10.1.0.0/16, both reached
    // through up1 (preference 110, metric 20). This router is DR on every
    // interface, or on none.
    enum class Layout { twoUpstreams, twoUpstreamsIAmDr };

    explicit TestVrf(Wirl::AddressFamily family = Wirl::AddressFamily::ipv4,
                     Start when = Start::now);
    explicit TestVrf(Layout layout, Start when = Start::now);
    ~TestVrf();
    TestVrf(const TestVrf&) = delete;
    TestVrf& operator=(const TestVrf&) = delete;

    // Builds the container: every record and machine of the VRF.
    void start();

    Wirl::AddressFamily family() const { return family_; }
    bool v4() const { return family_ == Wirl::AddressFamily::ipv4; }

    // --- inputs (before or after start) -------------------------------------
    // RPF toward the layout's neighbour on up1 or up2.
    static Rpf upstream(std::string_view intf);

    // A PIM interface with this router's address on it; with `dr` this router
    // is its DR, else nobody is yet.
    Routing::Pim::PimIntfStatus& intfIs(std::string_view name, const IpGenAddr& me,
                                        bool dr = false);
    Routing::Pim::PimIntfStatus& pimIntf(std::string_view name) const;
    // An active PIM neighbour on an interface made with `intfIs`, or its loss.
    Routing::Pim::PimNeighborStatus& neighborIs(std::string_view intf, const IpGenAddr& nbr);
    void neighborDel(std::string_view intf, const IpGenAddr& nbr);
    // The RP mapping in force (as the agent's RP machines publish it).
    void rpIs(const IpGenPrefix& groups, const IpGenAddr& rp) { rpMapping_->rpIs(groups, rp); }
    void rpDel(const IpGenPrefix& groups) { rpMapping_->rpDel(groups); }
    // The multicast RIB, which RPF lookups toward sources and RPs read.
    void unicastRouteIs(const IpGenPrefix& dest, std::string_view intf, const IpGenAddr& nextHop,
                        std::uint32_t preference = 110, std::uint32_t metric = 20);
    // A directly connected prefix: no next hop.
    void connectedRouteIs(const IpGenPrefix& dest, std::string_view intf);
    void unicastRouteDel(const IpGenPrefix& dest) { mrib_->routeDel(dest); }
    // The membership table IGMP / MLD write.
    void join(const RouteIntfKey& key, FilterMode mode = FilterMode::include) {
        membership_->membershipIs(key, {key, mode});
    }
    void leave(const RouteIntfKey& key) { membership_->membershipDel(key); }

    // --- routes (after start) -----------------------------------------------
    // The route of `key`, created in the route status when absent; the route
    // reactor registers it, and the upstream machines give it its RPF'.
    // `prepare` runs on a new route before any machine hears of it (what a
    // restart hands over, say). Interfaces in `receivers` then get an include
    // receiver.
    Route& route(const RouteKey& key, std::initializer_list<std::string_view> receivers = {},
                 const std::function<void(Route&)>& prepare = {});
    bool has(const RouteKey& key) const { return bool(status().route(key)); }
    // Removes a route from the route status, as the route review does.
    void removeRoute(const RouteKey& key) { status().routeDel(key); }

    // --- running ------------------------------------------------------------
    // Runs the work queued for the end of the turn and posted work, without
    // letting virtual time pass: deferred builds, not timers.
    void flush();
    // Runs posted work, reviews and their timers until nothing is due within `settleHorizon` of
    // loop time: the (S,G) route machine's inactivity check repeats for as long as (S,G) routes
    // exist, so a VRF with (S,G) routes is never idle.
    static constexpr Cask::Seconds settleHorizon = 60;
    void settle() { loop.runUntilIdle(loop.now() + settleHorizon); }

    // --- the VRF ------------------------------------------------------------
    const VrfContext& ctx() const { return container_->context(); }
    Status& status() const { return *ctx().status; }
    LocalStatus& localStatus() const { return *ctx().localStatus; }
    Routing::Pim::Status& pim() const { return *pim_; }
    Config& config() const { return *config_; }
    Routing::Pim::ClearMrouteConfig& clearConfig() const { return *clearConfig_; }
    SsmConvertConfig& ssmConvert() const { return *ssmConvert_; }
    Platform::RpMapping& rpMapping() const { return *rpMapping_; }
    Routing::McastBoundary::Status& boundary() const { return *boundary_; }
    Routing::Pim::RpLocalStatus& rpLocal() const { return *rpLocal_; }
    Routing::Pim::GroupFilterStatus& groupFilter() const { return *ctx().groupFilterStatus; }
    Routing::Pim::RpfConfig& rpfConfig() const { return *ctx().rpfConfig; }
    Routing::Pim::RpfStatus& rpfStatus() const { return *ctx().rpfStatus; }
    Routing::Pim::JoinPruneStatus& joinPrune() const { return *ctx().joinPruneStatus; }
    Routing::Pim::JoinPruneRxStatus& rx() const { return *ctx().joinPruneRxStatus; }
    TMF::Status& mfibTable() const { return *mfibTable_; }
    Routing::Multicast::Fib::Config& mfibConfig() const { return *ctx().mfibConfig; }

    RouteReviewSm& routeReviewSm() const { return *container_->routeReviewSm(); }
    UpstreamSgSm& upstreamSgSm() const { return *container_->upstreamSgSm(); }
    UpstreamSgRptSm& upstreamSgRptSm() const { return *container_->upstreamSgRptSm(); }
    UpstreamWcSm& upstreamWcSm() const { return *container_->upstreamWcSm(); }
    WcRouteReviewSm& wcRouteReviewSm() const { return *container_->wcRouteReviewSm(); }
    DownstreamWcSgSm& downstreamWcSgSm() const { return *container_->downstreamWcSgSm(); }
    GmpSm& gmpSm() const { return *container_->gmpSm(); }
    DownstreamSgRptSm& downstreamSgRptSm() const { return *container_->downstreamSgRptSm(); }
    MfibSm& mfibSm() const { return *container_->mfibSm(); }
    SgRouteSm& sgRouteSm() const { return *container_->sgRouteSm(); }
    AssertSgSm& assertSgSm() const { return *container_->assertSgSm(); }
    AssertWcSm& assertWcSm() const { return *container_->assertWcSm(); }
    AssertMessageSm& assertMessageSm() const { return *container_->assertMessageSm(); }

    Cask::VirtualClock clock;
    Cask::EventLoop loop{clock};
    const L3::VrfName name{"red"};

private:
    Wirl::AddressFamily family_;
    Platform::StateDb db_;
    ParamsContainer params_;
    Cask::Ptr<MfibDirWriter> mfibDirWriter_;
    Cask::Ptr<MrouteEventMonConfigSm> eventMonConfig_;
    Cask::Ptr<Routing::Pim::Status> pim_;
    Cask::Ptr<Config> config_;
    Cask::Ptr<Routing::Pim::ClearMrouteConfig> clearConfig_;
    Cask::Ptr<SsmConvertConfig> ssmConvert_;
    Cask::Ptr<Platform::RpMapping> rpMapping_;
    Cask::Ptr<Routing::Unicast::RouteTable> mrib_;
    Cask::Ptr<Routing::McastBoundary::Status> boundary_;
    Cask::Ptr<Routing::Gmp::Tidal::Status> membership_;
    Cask::Ptr<TMF::Status> mfibTable_;
    Cask::Ptr<Routing::Pim::RpLocalStatus> rpLocal_;
    int traceLevel_, eventLevel_;
    Cask::Ptr<ContainerSm> container_;
};

}  // namespace Routing::Pim::SparseMode::Testing
