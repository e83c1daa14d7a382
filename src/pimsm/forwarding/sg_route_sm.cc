#include "pimsm/forwarding/sg_route_sm.h"

#include <vector>

#include <fmt/format.h>

#include "cask/assert.h"
#include "cask/trace.h"
#include "pimsm/common/vrf_inputs.h"
#include "pimsm/forwarding/spt_threshold_sm.h"
#include "pimsm/upstream/rpf_table.h"
#include "platform/group_ranges.h"
#include "platform/mcast_boundary.h"
#include "platform/pim_status.h"
#include "platform/rp_local.h"
#include "platform/vxlan_status.h"

namespace Routing::Pim::SparseMode {

using Routing::Pim::MrtUpcall;
using Routing::Pim::RouteKey;

class SgRouteSm::UpcallWatcher : public Routing::Pim::MrtUpcallStatus::Notifiee {
public:
    UpcallWatcher(SgRouteSm& sm, Routing::Pim::MrtUpcallStatus& s)
        : Routing::Pim::MrtUpcallStatus::Notifiee(&s), sm_(sm) {}
    void handleUpcall() override { sm_.handleUpcall(); }
    void handleActivity(const RouteKey& key) override { sm_.handleActivity(key); }

private:
    SgRouteSm& sm_;
};

class SgRouteSm::RegisterWatcher : public RegisterStatus::Notifiee {
public:
    RegisterWatcher(SgRouteSm& sm, RegisterStatus& s) : RegisterStatus::Notifiee(&s), sm_(sm) {}
    void handleRegisterOif(const RouteKey& key) override { sm_.handleRegisterStatus(key); }
    void handleNoRegisterOif(const RouteKey& key) override { sm_.handleRegisterStatus(key); }

private:
    SgRouteSm& sm_;
};

// The switchover decision moved (a threshold or an access list changed):
// SwitchToSptDesired is re-evaluated over the routes.
class SgRouteSm::ThresholdWatcher : public SptThresholdInfo::Notifiee {
public:
    ThresholdWatcher(SgRouteSm& sm, SptThresholdInfo& s)
        : SptThresholdInfo::Notifiee(&s), sm_(sm) {}
    void handleSptConfigChanged() override { sm_.handleSptConfigChanged(); }

private:
    SgRouteSm& sm_;
};

// The VRF's permission to forward routes in hardware alone moved.
class SgRouteSm::HwWatcher : public Platform::HwMfibStatus::Notifiee {
public:
    HwWatcher(SgRouteSm& sm, Platform::HwMfibStatus& s)
        : Platform::HwMfibStatus::Notifiee(&s), sm_(sm) {}
    void handleHwProgrammingAllowed() override { sm_.handleSptConfigChanged(); }

private:
    SgRouteSm& sm_;
};

// A group range changed its RP: "I am the RP" may have changed for its
// groups.
class SgRouteSm::RpWatcher : public Platform::RpMapping::Notifiee {
public:
    RpWatcher(SgRouteSm& sm, Platform::RpMapping& s) : Platform::RpMapping::Notifiee(&s), sm_(sm) {}
    void handleRp(const Wirl::IpGenPrefix&) override { sm_.handleSptConfigChanged(); }

private:
    SgRouteSm& sm_;
};

SgRouteSm::SgRouteSm(const VrfContext& ctx)
    : ctx_(requireInputs(ctx, "SgRouteSm", &VrfContext::loop, &VrfContext::status,
                         &VrfContext::localStatus, &VrfContext::pimStatus,
                         &VrfContext::registerConfig)),
      inactivityTimer_(*ctx.loop, [this] {
          CASK_VRF_TRACE(7, ctx_.vrfName, "SgRouteSm::handleInactivityTimer()");
          review_->request();
      }) {
    routes_.reserve(ctx_.routeCapacity);
    doCreateReview();
}

SgRouteSm::~SgRouteSm() {
    LocalStatus::Notifiee::notifierIs(nullptr);
    routes_.clear();
}

void SgRouteSm::doCreateReview() {
    Cask::SlicedReview<RouteKey>::Steps steps;
    steps.walk = Cask::orderedWalk(ctx_.status->route());
    steps.visit = [this](const RouteKey& k) {
        if (!k.isWc()) {
            doReviewRoute(k);
        } else if (Route* wc = ctx_.localStatus->wcRoute().raw(k)) {
            doUpdateWcProgrammable(*wc);
        }
    };
    // The inactivity timer runs only between reviews.
    steps.onFinish = [this] {
        if (!review_->again()) doEnableInactivity();
    };
    Cask::ReviewTexts texts{.vrf = fmt::to_string(ctx_.vrfName), .name = "SgRouteSm::doReview"};
    texts.start = ": Starting review";
    texts.resume = ": Resuming review at {}";
    texts.suspend = ": Reached time limit";
    texts.finish = ": Finished review";
    texts.startLevel = 7;
    texts.sliceLevel = 7;
    review_ = std::make_unique<Cask::SlicedReview<RouteKey>>(
        *ctx_.loop, Cask::ReviewTiming{minDelay, maxDelay}, std::move(texts), std::move(steps));
    review_->quantumIs(reviewQuantum);
}

void SgRouteSm::handleStatusInitialized() {
    if (initialized_) return;
    CASK_VRF_TRACE(6, ctx_.vrfName, "SgRouteSm::handleStatusInitialized()");
    LocalStatus::Notifiee::notifierIs(ctx_.localStatus);
    routes_.sweep(ctx_.localStatus->sgRoute(), [this](const RouteKey& k) { handleSgRoute(k); });
    for (const auto& [k, wc] : ctx_.localStatus->wcRoute()) doUpdateWcProgrammable(*wc);
    if (ctx_.registerStatus) {
        registerWatcher_ = std::make_unique<RegisterWatcher>(*this, *ctx_.registerStatus);
    }
    if (ctx_.sptThresholdInfo) {
        thresholdWatcher_ = std::make_unique<ThresholdWatcher>(*this, *ctx_.sptThresholdInfo);
    }
    if (ctx_.hwMfibStatus) hwWatcher_ = std::make_unique<HwWatcher>(*this, *ctx_.hwMfibStatus);
    if (ctx_.rpMapping) rpWatcher_ = std::make_unique<RpWatcher>(*this, *ctx_.rpMapping);
    if (ctx_.mrtUpcall) {
        upcallWatcher_ = std::make_unique<UpcallWatcher>(*this, *ctx_.mrtUpcall);
        handleUpcall();  // reports that came before the machine
    }
    initialized_ = true;
    doEnableInactivity();
}

void SgRouteSm::handleSgRoute(const RouteKey& key) {
    Route* route = ctx_.localStatus->sgRoute().raw(key);
    if (RhoRoute* rho = routes_.update(key, route, *this)) rho->handleRouteInit();
    if (route && !inactivityTimer_.armed() && !reviewTriggered()) doEnableInactivity();
}

void SgRouteSm::handleWcRoute(const RouteKey& key) {
    if (Route* wc = ctx_.localStatus->wcRoute().raw(key)) doUpdateWcProgrammable(*wc);
}

void SgRouteSm::doUpdateWcProgrammable(Route& wc) {
    // Without the VRF's permission no route is the hardware's alone: the
    // policy need not be asked.
    if (!hwProgrammingAllowed()) return doUpdateProgrammable(wc, false);
    switchToSptDesired(wc);
}

bool SgRouteSm::hwProgrammingAllowed() const {
    return ctx_.hwMfibStatus && ctx_.hwMfibStatus->hwProgrammingAllowed();
}

void SgRouteSm::doEnableInactivity() {
    CASK_ASSERT(!review_->pending() && !review_->inProgress(),
                "SgRouteSm::doEnableInactivity(), should not have enabled inactivity when review "
                "is pending.");
    if (ctx_.localStatus->sgRouteSize() == 0) return;
    inactivityTimer_.timeMinIs(now() + inactivityInterval);
}

// --- upcalls ------------------------------------------------------------------------------

void SgRouteSm::handleUpcall() {
    // Upcalls raised while one is handled (by a machine reacting to the
    // route) wait for the loop below.
    if (handlingUpcalls_ || !ctx_.mrtUpcall) return;
    handlingUpcalls_ = true;
    auto& q = *ctx_.mrtUpcall;
    while (q.upcallSize()) {
        const MrtUpcall u = q.upcallFront();
        q.upcallPop();
        if (u.kind == MrtUpcall::Kind::noCache) {
            ++counters_.noCache;
            handleNoCache(u);
        } else {
            ++counters_.wrongVif;
            handleWrongVif(u);
        }
    }
    handlingUpcalls_ = false;
}

bool SgRouteSm::upcallIgnored(const MrtUpcall& u, const char* where) {
    const RouteKey& key = u.key;
    const Wirl::IpGenAddr& group = key.group();
    if (key.isWc() || group.family() != ctx_.localStatus->family() || !group.isMulticast() ||
        key.source().family() != group.family() || !key.source().isUnicast()) {
        CASK_VRF_TRACE(7, ctx_.vrfName, "SgRouteSm::{}({}), ignoring invalid route", where, key);
        ++counters_.ignoredInvalid;
        return true;
    }
    // The plane reports packets on the VRF's multicast interfaces: its PIM
    // interfaces, and loopbacks, where a source may sit without PIM.
    if (u.intf.isNull() || (!ctx_.pimStatus->intfRaw(u.intf) && !u.intf.hasPrefix("Loopback"))) {
        CASK_VRF_TRACE(7, ctx_.vrfName, "SgRouteSm::{}({}), ignoring unknown interface {}", where,
                       key, u.intf);
        ++counters_.ignoredUnknownIntf;
        return true;
    }
    // The group filter leaves bidirectional groups to the bidirectional
    // protocol.
    if (ctx_.groupFilterStatus &&
        !ctx_.groupFilterStatus->permitGroup(Wirl::IpGenPrefix::hostPrefix(group))) {
        CASK_VRF_TRACE(7, ctx_.vrfName, "SgRouteSm::{}({}), ignoring bidirectional group", where,
                       key);
        ++counters_.ignoredBidir;
        return true;
    }
    return false;
}

bool SgRouteSm::sourceAttached(const Wirl::IpGenAddr& source) const {
    if (!ctx_.rpfTable) return false;
    const std::optional<RpfLookup> rpf = ctx_.rpfTable->doLookup(source);
    return rpf && rpf->attached;
}

bool SgRouteSm::boundaryOn(Wirl::IntfId intf, const Wirl::IpGenAddr& group) const {
    return ctx_.mcastBoundaryStatus && ctx_.mcastBoundaryStatus->filters(intf, group);
}

bool SgRouteSm::mbrIntf(Wirl::IntfId intf) const {
    const auto* pim = ctx_.pimStatus->intfRaw(intf);
    return pim && pim->mbr();
}

Cask::Ptr<Route> SgRouteSm::doCreateRoute(const RouteKey& key, Wirl::IntfId intf, bool mbr) {
    CASK_VRF_TRACE(4, ctx_.vrfName, "SgRouteSm::handleNoCache({}), Create route.", key);
    CASK_EVENT("SgRouteSm: Create route{}", key);
    // The route comes with the unicast RPF toward the source, so the
    // machines that meet it see a route with a place in the tree. Its
    // keepalive timer is not started here: RFC 7761 4.2 starts it only for
    // a directly connected source, for data forwarded on the source tree,
    // or when CheckSwitchToSpt decides to switch, all of which the packet's
    // forwarding rules evaluate next. Starting it for every first packet
    // would make JoinDesired(S,G) true and join the source tree against a
    // "never" switchover policy.
    std::optional<RpfLookup> rpf;
    if (ctx_.rpfTable) rpf = ctx_.rpfTable->doLookup(key.source());
    return ctx_.status->routeIs(key, [&](Route& r) {
        r.firstInactivityTimeIs(now());
        if (rpf && rpf->rpf.intf != Wirl::IntfId::null0()) {
            r.umh()->rpfAttachedIs(rpf->attached);
            r.umh()->doUpdateRpf(rpf->rpf);
        }
        if (mbr) {
            CASK_VRF_TRACE(7, ctx_.vrfName, "SgRouteSm::handleNoCache({}), Create MBR route.", key);
            r.mbrIs(true);
            r.umh()->mbrIifIs(intf);
        }
    });
}

void SgRouteSm::handleNoCache(const MrtUpcall& u) {
    const RouteKey& key = u.key;
    if (upcallIgnored(u, "handleNoCache")) return;
    if (boundaryOn(u.intf, key.group())) {
        CASK_VRF_TRACE(7, ctx_.vrfName,
                       "SgRouteSm::handleNoCache({}), Ignoring cache miss, boundary filter on "
                       "interface {}",
                       key, u.intf);
        ++counters_.ignoredBoundary;
        return;
    }
    Cask::Ptr<Route> route = ctx_.status->route(key);
    const Route* wc = ctx_.localStatus->wcRoute().raw(RouteKey::wc(key.group()));
    if (wc && wc->programmable()) {
        // The hardware forwards the group's traffic on the (*,G) entry; only
        // a directly connected source still needs its route, for the DR to
        // register it (RFC 7761 4.4.1).
        if (!route && !sourceAttached(key.source())) {
            CASK_VRF_TRACE(7, ctx_.vrfName,
                           "SgRouteSm::handleNoCache(): {} is programmable, so ignoring NoCache "
                           "upcall for {}",
                           wc->key(), key);
            ++counters_.ignoredWcProgrammable;
            return;
        }
        CASK_VRF_TRACE(7, ctx_.vrfName,
                       "SgRouteSm::handleNoCache(): {} is programmable, but route exists - "
                       "processing handleNoCache.",
                       wc->key());
    }
    const bool mbr = mbrIntf(u.intf);
    if (mbr) {
        CASK_VRF_TRACE(7, ctx_.vrfName,
                       "SgRouteSm::handleNoCache({}), Received this packet on a border router.",
                       key);
    }
    ctx_.localStatus->processingCacheMissIs(key);
    if (!route) {
        route = doCreateRoute(key, u.intf, mbr);
        if (route) ++counters_.routesCreated;
    }
    if (route) {
        CASK_VRF_TRACE(6, ctx_.vrfName,
                       "SgRouteSm: No Cache received for route: {}, intf: {}, flags: {}, IIF "
                       "Switch: {}",
                       key, u.intf, u.flags, route->iifSwitching());
        if (mbr && !route->mbr()) {
            CASK_VRF_TRACE(7, ctx_.vrfName,
                           "SgRouteSm::handleNoCache({}) in MBR interface {}, add to the "
                           "collection of MBR routes ",
                           key, u.intf);
            route->umh()->mbrIifIs(u.intf);
            route->mbrIs(true);
        }
        doAdvanceIifSwitch(*route, u.intf);
        doEvalFwdingRules(*route, u.intf);
    }
    ctx_.localStatus->processingCacheMissDel(key);
}

void SgRouteSm::doAdvanceIifSwitch(Route& route, Wirl::IntfId intf) {
    // While the incoming interface moves make-before-break, the forwarding
    // entry still accepts on the old one; the first packet reported on the
    // new one (the route's RPF interface by now) shows the new path carries
    // traffic, and the switch goes on to wait for the hardware.
    if (!route.iifSwitching() || route.iifSwitchState() != IifSwitchState::iifSwitchPending ||
        intf != route.iif()) {
        return;
    }
    CASK_VRF_TRACE(6, ctx_.vrfName, "SgRouteSm::{} IIF switch, rx on new interface {}", route.key(),
                   intf);
    route.iifSwitchStateIs(IifSwitchState::iifSwitchWaitHw);
}

void SgRouteSm::handleWrongVif(const MrtUpcall& u) {
    const RouteKey& key = u.key;
    if (upcallIgnored(u, "handleWrongVif")) return;
    if (boundaryOn(u.intf, key.group())) {
        CASK_VRF_TRACE(7, ctx_.vrfName,
                       "SgRouteSm::handleWrongVif({}), Ignoring wrongVif, boundary filter on "
                       "interface {}",
                       key, u.intf);
        ++counters_.ignoredBoundary;
        return;
    }
    CASK_VRF_TRACE(6, ctx_.vrfName, "SgRouteSm: Wrong VIF received for route: {}, intf: {}", key,
                   u.intf);
    Route* route = ctx_.localStatus->sgRoute().raw(key);
    if (!route) {
        CASK_VRF_TRACE(7, ctx_.vrfName, "SgRouteSm::handleWrongVif(): Error: Route not found: {}",
                       key);
        ++counters_.ignoredNoRoute;
        return;
    }
    ctx_.localStatus->wrongVifCountIs(key, ctx_.localStatus->wrongVifCount(key) + 1);
    if (mbrIntf(u.intf) && !route->mbr()) {
        CASK_VRF_TRACE(7, ctx_.vrfName,
                       "SgRouteSm::handleWrongVif({}), wrong vif on a border router. add to the "
                       "collection of MBR routes ",
                       key);
        route->umh()->mbrIifIs(u.intf);
        route->mbrIs(true);
    }
    Cask::Ptr<Route> keep(route);
    doAdvanceIifSwitch(*route, u.intf);
    doEvalFwdingRules(*route, u.intf);
}

void SgRouteSm::handleActivity(const RouteKey& key) {
    Route* route = ctx_.localStatus->sgRoute().raw(key);
    if (!route || !ctx_.mrtUpcall->activityHas(key)) return;
    CASK_VRF_TRACE(8, ctx_.vrfName, "SgRouteSm::handleActivity({}), packets: {}", key,
                   ctx_.mrtUpcall->activity(key));
    // The entry forwarded the packets, so they arrived on its incoming
    // interface.
    Cask::Ptr<Route> keep(route);
    doEvalFwdingRules(*route, route->iif());
}

// --- the inactivity review ----------------------------------------------------------------

void SgRouteSm::doReviewRoute(const RouteKey& key) {
    Route* route = ctx_.localStatus->sgRoute().raw(key);
    if (!route) return;
    Cask::Ptr<Route> keep(route);
    if (const RhoRoute* rho = routes_.get(key);
        rho && !route->katExpired() && now() - rho->katStart() >= keepalivePeriod) {
        CASK_VRF_TRACE(6, ctx_.vrfName,
                       "SgRouteSm::doReviewRoute({}), Keepalive timer expired, set katExpired to "
                       "True",
                       key);
        route->katExpiredIs(true);
    }
    doUpdateExpiredFlags(*route);
    doMaybeMarkRouteForDeletion(*route, false);
    switchToSptDesired(*route);
    couldRegister(*route);
}

void SgRouteSm::doUpdateExpiredFlags(Route& route) {
    const Cask::Seconds idle = now() - route.firstInactivityTime();
    ExpiredFlags flags;
    flags.set(ExpiredFlags::Bit::register_, idle >= registerInactiveInterval);
    flags.set(ExpiredFlags::Bit::advertise, idle >= advertiseInactiveInterval);
    if (flags == route.expiredFlags()) return;
    CASK_VRF_TRACE(7, ctx_.vrfName,
                   "SgRouteSm::doUpdateExpiredFlags(): Expired flags for {}: "
                   "FlagString: {}",
                   route.key(), flags);
    route.expiredFlagsIs(flags);
}

void SgRouteSm::doMaybeMarkRouteForDeletion(Route& route, bool dataSeen) {
    const RouteKey key = route.key();
    const Route* wc = route.wc();
    // Without traffic, keepalive and any other (S,G) state the route has no
    // reason to exist; sources learnt from discovery are removed by it.
    const bool idle = route.katExpired() &&
                      now() - route.firstInactivityTime() >= keepalivePeriod &&
                      !route.hasSgState() && !route.discoveredSg();
    // A directly connected source's route stays while it registers.
    const bool wcInHw = wc && wc->programmable() && !route.umh()->directlyConnected();
    const bool vxlan =
        wcInHw && ctx_.mcastVxlanStatus && ctx_.mcastVxlanStatus->vxlanIntf(route.iif());
    const bool noOlist = wcInHw && route.nullImmediateOlistSg();
    if (idle || vxlan || noOlist) {
        if (route.markedForDeletion()) return;
        if (idle) {
            CASK_VRF_TRACE(6, ctx_.vrfName,
                           "SgRouteSm::doMaybeMarkRouteForDeletion({}), Marking route for "
                           "deletion, flags: {}",
                           key, route.routeFlagsStr());
        } else if (vxlan) {
            CASK_VRF_TRACE(6, ctx_.vrfName,
                           "SgRouteSm::doMaybeMarkRouteForDeletion({}), Marking route for deletion "
                           "as (*,G) in hardware and the (S,G) route is using vxlan underlay "
                           "multicast",
                           key);
        } else {
            CASK_VRF_TRACE(6, ctx_.vrfName,
                           "SgRouteSm::doMaybeMarkRouteForDeletion({}), Marking route for deletion "
                           "as (*,G) in hardware and immediate olist is empty",
                           key);
        }
        route.markedForDeletionIs(true);
        return;
    }
    // Only traffic that came back before the route review removed the route
    // takes the mark away; a route the review marked for leaving sparse mode
    // (bidirectional now) stays marked.
    if (!dataSeen || !route.markedForDeletion()) return;
    if (ctx_.groupFilterStatus &&
        !ctx_.groupFilterStatus->permitGroup(Wirl::IpGenPrefix::hostPrefix(key.group()))) {
        return;
    }
    CASK_VRF_TRACE(6, ctx_.vrfName,
                   "SgRouteSm::doMaybeMarkRouteForDeletion({}), Resetting route marked for "
                   "deletion",
                   key);
    route.markedForDeletionIs(false);
}

std::unique_ptr<SgRouteSm> sgRouteSmFactory(const VrfContext& ctx) {
    auto sm = std::make_unique<SgRouteSm>(ctx);
    sm->handleStatusInitialized();
    return sm;
}

}  // namespace Routing::Pim::SparseMode
