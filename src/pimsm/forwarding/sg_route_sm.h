#pragma once
// SgRouteSm: the data-driven side of a VRF's (S,G) routes (RFC 7761 4.2, 4.4).
// Watches: forwarding-plane upcalls and activity, LocalStatus.sgRoute, RegisterStatus.
// Writes:  (S,G) routes on cache miss, their SPT/keepalive/register flags; RegisterConfig.
//
// A no-cache upcall (first packet of a flow without a forwarding entry)
// creates the (S,G) route; every packet report (upcall or activity of a
// forwarding entry) runs the route's forwarding rules: Update_SPTbit, the
// keepalive restart and CheckSwitchToSpt. The keepalive timer
// (Keepalive_Period, 210 s) and the inactivity of each route are checked by
// a sliced review that the inactivity timer starts every
// `inactivityInterval`; an idle route whose keepalive expired and that holds
// no other (S,G) state is marked for deletion, and unmarked if data comes
// back before the route review removes it.
//
// CouldRegister(S,G) is published per route into RegisterConfig (active or
// inactive by the expired flags), and decides, with the register process's
// RegisterStatus, whether the register tunnel is in the route's outgoing
// list (`oifRegister`). The forwarding stage programs an (S,G) route only
// once that decision was made (`registerOifEvaluated`).
//
// Route attributes it owns: spTree, katExpired, expiredFlags,
// firstInactivityTime, mbr (with umh.mbrIif), oifRegister,
// registerOifEvaluated, programmable of routes the hardware may forward
// alone, markedForDeletion of idle routes; LocalStatus.processingCacheMiss
// and wrongVifCount. A route it creates comes with the unicast RPF toward
// the source in its upstream; the upstream (S,G) machine keeps it after.
//
// `programmable` is decided for (*,G) routes too, without a reactor of
// their own: when one comes, and in the review pass that a change of its
// inputs (switchover threshold, RP mapping, the VRF's hardware permission)
// requests. A programmable (*,G) route is forwarded by the hardware alone,
// so the first packets of its sources need no (S,G) route.

#include <cstdint>
#include <memory>
#include <optional>

#include "cask/reactor_map.h"
#include "cask/sliced_review.h"
#include "cask/timer.h"
#include "pimsm/common/vrf_context.h"
#include "pimsm/route/local_status.h"
#include "pimsm/route/status.h"
#include "platform/mrt_upcall.h"
#include "platform/register_status.h"
#include "platform/vrf_records.h"

namespace Routing::Pim::SparseMode {

class SgRouteSm : public LocalStatus::Notifiee {
public:
    static constexpr Cask::Seconds keepalivePeriod = 210.0;
    // The change flag raised when a route's hardware-only programmability
    // changes.
    static constexpr std::uint32_t programmableChangeFlag = 0x2000;

    // One per (S,G) route: keeps the route's register-stop entry with its SPT
    // bit, re-decides CouldRegister when its inputs change, and holds the
    // time its keepalive timer was last restarted.
    class RhoRoute : public RouteReactor {
    public:
        RhoRoute(SgRouteSm& sm, Route& route);
        Route& route() const { return *notifier(); }

        void handleRouteInit();
        void handleDelete();
        void handleSpTree() override;
        void handleMarkedForDeletion() override { sm_.couldRegister(route()); }
        void handleExpiredFlags() override { sm_.couldRegister(route()); }
        void handleChangeFlags() override;
        void handleUmhAttr(UpstreamInfo& umh, UmhAttr attr) override;

        Cask::Seconds katStart() const { return katStart_; }
        void katStartIs(Cask::Seconds t) { katStart_ = t; }

    private:
        SgRouteSm& sm_;
        Cask::Seconds katStart_;
    };

    // Reads from the context: loop, status, localStatus, pimStatus, config and
    // registerConfig (required); registerStatus, mrtUpcall, rpfTable,
    // rpMapping, rpLocalStatus, ssmGroupInfo, groupFilterStatus,
    // mcastBoundaryStatus, mcastVxlanStatus and sptThreshold (each read as
    // "nothing" when absent).
    explicit SgRouteSm(const VrfContext& ctx);
    ~SgRouteSm() override;
    SgRouteSm(const SgRouteSm&) = delete;
    SgRouteSm& operator=(const SgRouteSm&) = delete;

    const L3::VrfName& vrfName() const { return ctx_.vrfName; }

    // --- attributes (seconds) --------------------------------------------
    Cask::Seconds registerInactiveInterval = 45.0;
    Cask::Seconds advertiseInactiveInterval = 45.0;
    Cask::Seconds minDelay = 0.01;
    Cask::Seconds maxDelay = 0.03;
    Cask::Seconds reviewQuantum = 0.1;
    // How often the inactivity review runs while (S,G) routes exist.
    Cask::Seconds inactivityInterval = 10.0;
    // The VRF lets routes that need no help from the agent be forwarded by
    // the hardware alone (HwMfibStatus::hwProgrammingAllowed).
    bool hwProgrammingAllowed() const;

    // Forwarding-plane reports, and the ones ignored by reason. Bad input
    // (an invalid key, an arrival interface the VRF does not have) is
    // counted here and dropped.
    struct UpcallCounters {
        std::uint64_t noCache = 0;
        std::uint64_t wrongVif = 0;
        std::uint64_t routesCreated = 0;  // by a cache miss
        std::uint64_t ignoredInvalid = 0;
        std::uint64_t ignoredUnknownIntf = 0;
        std::uint64_t ignoredBidir = 0;
        std::uint64_t ignoredBoundary = 0;
        std::uint64_t ignoredWcProgrammable = 0;
        std::uint64_t ignoredNoRoute = 0;  // wrong VIF for a route that does not exist
    };
    const UpcallCounters& upcallCounters() const { return counters_; }

    bool initialized() const { return initialized_; }
    bool reviewTriggered() const { return review_->pending() || review_->inProgress(); }
    const Routing::Pim::RouteKey& reviewBookmark() const { return review_->bookmark(); }
    bool inactivityArmed() const { return inactivityTimer_.armed(); }
    RhoRoute* rhoRoute(const Routing::Pim::RouteKey& key) const { return routes_.get(key); }
    std::size_t rhoRouteSize() const { return routes_.size(); }

    // Takes up the routes present and starts the inactivity monitoring.
    void handleStatusInitialized();
    void handleSgRoute(const Routing::Pim::RouteKey& key) override;
    // A (*,G) route came: whether the hardware may forward it alone.
    void handleWcRoute(const Routing::Pim::RouteKey& key) override;

    // --- upcalls and activity ------------------------------------------------
    void handleUpcall();
    void handleNoCache(const Routing::Pim::MrtUpcall& u);
    void handleWrongVif(const Routing::Pim::MrtUpcall& u);
    void handleActivity(const Routing::Pim::RouteKey& key);
    // The register process changed its wish for one route.
    void handleRegisterStatus(const Routing::Pim::RouteKey& key) { doMaybeUpdateRegisterOif(key); }
    // An input of SwitchToSptDesired or of hardware-only forwarding changed
    // (the SPT threshold, an RP mapping, the VRF's hardware permission):
    // every route is looked at again.
    void handleSptConfigChanged() { review_->request(); }

    // --- decisions --------------------------------------------------------
    // SwitchToSptDesired(S,G), which also decides whether the hardware may
    // forward the route alone. For a (*,G) route it answers for the group's
    // sources without (S,G) state: the RP test and the threshold.
    bool switchToSptDesired(Route& route);
    void checkSwitchToSpt(Route& route);
    void updateSptBit(Route& route, Wirl::IntfId intfId);
    void couldRegister(Route& route);
    void doMaybeUpdateRegisterOif(const Routing::Pim::RouteKey& key);
    // The forwarding rules a packet from S to G arriving on `intfId` runs.
    // A packet on the new incoming interface of a route whose incoming
    // interface is being switched moves the switch on (iifSwitchPending to
    // iifSwitchWaitHw).
    void doAdvanceIifSwitch(Route& route, Wirl::IntfId intf);
    void doEvalFwdingRules(Route& route, Wirl::IntfId intfId);
    void doUpdateExpiredFlags(Route& route);
    // Marks an idle route for deletion; with `dataSeen` (a packet report)
    // also takes back a mark the route no longer deserves.
    void doMaybeMarkRouteForDeletion(Route& route, bool dataSeen);
    // One route in the inactivity review.
    void doReviewRoute(const Routing::Pim::RouteKey& key);

private:
    class UpcallWatcher;
    class RegisterWatcher;
    class ThresholdWatcher;
    class HwWatcher;
    class RpWatcher;

    // An upcall the machine drops before looking at routes: an invalid key,
    // an unknown arrival interface, a bidirectional group (traced, counted).
    bool upcallIgnored(const Routing::Pim::MrtUpcall& u, const char* where);
    // The unicast route toward `source` is directly attached.
    bool sourceAttached(const Wirl::IpGenAddr& source) const;
    bool boundaryOn(Wirl::IntfId intf, const Wirl::IpGenAddr& group) const;
    // The border-router handling of a packet on `intf`; true when it applies.
    bool mbrIntf(Wirl::IntfId intf) const;
    Cask::Ptr<Route> doCreateRoute(const Routing::Pim::RouteKey& key, Wirl::IntfId intf, bool mbr);
    void doRestartKeepalive(Route& route, const char* why);
    // Sets `programmable`, raising the change flag around a change.
    void doUpdateProgrammable(Route& route, bool programmable);
    // Whether the hardware may forward a (*,G) route alone.
    void doUpdateWcProgrammable(Route& wc);
    void doEnableInactivity();
    void doCreateReview();
    Cask::Seconds now() const { return ctx_.loop->now(); }

    const VrfContext& ctx_;
    Cask::ReactorMap<Routing::Pim::RouteKey, RhoRoute> routes_;
    std::unique_ptr<UpcallWatcher> upcallWatcher_;
    std::unique_ptr<RegisterWatcher> registerWatcher_;
    std::unique_ptr<ThresholdWatcher> thresholdWatcher_;
    std::unique_ptr<HwWatcher> hwWatcher_;
    std::unique_ptr<RpWatcher> rpWatcher_;
    std::unique_ptr<Cask::SlicedReview<Routing::Pim::RouteKey>> review_;
    Cask::Timer inactivityTimer_;
    UpcallCounters counters_;
    bool handlingUpcalls_ = false;
    bool initialized_ = false;
};

// Creates the VRF's SgRouteSm and starts it.
std::unique_ptr<SgRouteSm> sgRouteSmFactory(const VrfContext& ctx);

}  // namespace Routing::Pim::SparseMode
