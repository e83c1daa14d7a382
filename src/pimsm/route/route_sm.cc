#include "pimsm/route/route_sm.h"

#include <fmt/format.h>

#include "cask/collection.h"
#include "cask/trace.h"
#include "pimsm/route/route_review_sm.h"

namespace Routing::Pim::SparseMode {

RouteSm::RouteSm(RouteReviewSm& review, Route& route) : RouteReactor(route), review_(review) {}

RouteSm::~RouteSm() = default;

bool RouteSm::intfCarriesState(const Intf& intf) {
    return intf.localMembership() || intf.localReceiverInclude() || intf.localReceiverExclude() ||
           intf.joinState() != JoinState::noInfo || intf.rptState() != RptState::rptNoInfo ||
           intf.assertInfo().assertState != AssertState::assertNoInfo;
}

void RouteSm::handleInitialized() {
    handleRouteInitialized();
}

void RouteSm::handleIntfAttr(Intf& intf, IntfAttr attr) {
    switch (attr) {
        case IntfAttr::localMembership:
        case IntfAttr::localReceiverInclude:
        case IntfAttr::localReceiverExclude:
        case IntfAttr::joinState:
        case IntfAttr::rptState:
        case IntfAttr::assertInfo:
            handleIntfChange(intf);
            break;
        default:
            break;
    }
}

void RouteSm::handleUmhAttr(UpstreamInfo& umh, UmhAttr attr) {
    if (umh.frr()) return;
    switch (attr) {
        case UmhAttr::rpf:
            handleRpf();
            break;
        case UmhAttr::prevRpf:
            doUpdateRpfConfig();
            break;
        case UmhAttr::rp:
            handleRp();
            break;
        default:
            break;
    }
}

void RouteSm::handleRpf() {
    const UpstreamInfo& umh = *route()->umh();
    const Rpf former = umh.formerRpf();
    doUpdateJoinedSince(former.intf != umh.rpf().intf || former.neighbor != umh.rpf().neighbor);
    doUpdateRpfConfig();
}

void RouteSm::doUpdateJoinedSince(bool neighborMoved) {
    Route& r = *route();
    const bool joined = r.upJoinState() == UpJoinState::upJoined && r.umh()->rpf().hasNeighbor();
    if (!joined) {
        r.joinedSinceIs(-1);
    } else if (r.joinedSince() < 0 || neighborMoved) {
        r.joinedSinceIs(review_.loop().now());
    }
}

void RouteSm::handleRouteInitialized() {
    if (initialized_) return;
    initialized_ = true;
    Route& r = *route();
    const auto& key = r.key();
    Status& status = review_.status();
    LocalStatus& ls = review_.localStatus();
    status.groupIs(key.group());
    settling_ = true;
    if (r.isWc()) {
        r.wildCardIs(true);
        ls.wcRouteIs(key, Cask::Ptr<Route>(route()));
        settling_ = false;
        status.wcRouteCountIs(status.wcRouteCount() + 1);
    } else {
        status.sourceGroupAdd(key.source(), key.group());
        ls.sgRouteIs(key, Cask::Ptr<Route>(route()));
        settling_ = false;
        status.sgRouteCountIs(status.sgRouteCount() + 1);
        CASK_VRF_TRACE(7, review_.vrfName(),
                       "RouteSm::handleRouteInitialized({}) sgRoute: {} is created in localStatus",
                       key, key);
    }
    CASK_VRF_TRACE(7, review_.vrfName(),
                   "RouteSm: Route{} created, flags: {}, (*,G) routes: {}, (S,G) routes: {}", key,
                   r.routeFlagsStr(), status.wcRouteCount(), status.sgRouteCount());
    // Start consistent: the deletion mark, the backup upstream, the RPF
    // request, and the join time of a route handed over joined.
    handleRouteFlags();
    doUpdateRpfConfig();
    doUpdateJoinedSince(false);
}

void RouteSm::handleIntf(Wirl::IntfId intf) {
    Route& r = *route();
    Intf* record = r.routeIntfRaw(intf);
    // Removals are announced only for interfaces the route had, all of
    // which this reactor watched through the route.
    if (!record) {
        CASK_VRF_TRACE(6, review_.vrfName(), "RouteSm::handleIntf({}, {}), interface deleted",
                       r.key(), intf);
        CASK_VRF_TRACE(7, review_.vrfName(), "RouteSm: Interface {} on route{} deleted", intf,
                       r.key());
    }
    if (r.routeIntfSize() != 0) return;
    CASK_VRF_TRACE(7, review_.vrfName(), "RouteSm: no interface in  route{}, flags: {}", r.key(),
                   r.routeFlagsStr());
    if (!r.wildCard() || r.markedForDeletion()) return;
    CASK_VRF_TRACE(6, review_.vrfName(), "RouteSm::handleIntf({}, {}), marking route for deletion",
                   r.key(), intf);
    CASK_VRF_TRACE(4, review_.vrfName(), "RouteSm: Marking route{} for deletion, flags: {}",
                   r.key(), r.routeFlagsStr());
    r.markedForDeletionIs(true);
}

void RouteSm::handleRouteFlags() {
    Route& r = *route();
    LocalStatus& ls = review_.localStatus();
    if (r.markedForDeletion()) {
        ls.changeSet()->routesMarkedForDeletionIs(true);
        ls.toBeDeletedRouteIs(r.key());
    } else {
        ls.toBeDeletedRouteDel(r.key());
    }
    updateUmhFrr();
}

void RouteSm::updateUmhFrr() {
    const Route& r = *route();
    switch (review_.doUpdateUmhFrr(*route())) {
        case RouteReviewSm::UmhFrrChange::created:
            CASK_VRF_TRACE(6, review_.vrfName(),
                           "RouteSm::updateUmhFrr({}): Frr enabled, create umhFrr", r.key());
            break;
        case RouteReviewSm::UmhFrrChange::deleted:
            CASK_VRF_TRACE(6, review_.vrfName(),
                           "RouteSm::updateUmhFrr({}): Frr disabled, delete umhFrr", r.key());
            break;
        case RouteReviewSm::UmhFrrChange::none:
            break;
    }
}

void RouteSm::doUpdateRpfConfig() {
    if (!initialized_ || settling_) return;
    const Route& r = *route();
    const UpstreamInfo& umh = *r.umh();
    Routing::Pim::RpfConfigInfo info;
    info.target = r.isWc() ? umh.rp() : r.key().source();
    if (umh.rpf().hasNeighbor()) info.rpfNeighbor = umh.rpf().neighbor;
    if (umh.prevRpf().hasNeighbor()) info.prevRpfNeighbor = umh.prevRpf().neighbor;
    review_.rpfConfig().rpfConfigInfoIs(r.key(), info);
}

void RouteSm::handleIntfChange(Intf& intf) {
    if (intfCarriesState(intf)) {
        if (!intf.toBeDeleted()) return;
        intf.toBeDeletedIs(false);
        CASK_VRF_TRACE(6, review_.vrfName(),
                       "RouteSm::handleIntfChange(), resetting marked for deletion: {} on route{}",
                       intf.intfId(), route()->key());
        return;
    }
    if (intf.toBeDeleted() || review_.preserveRouteIntf()) return;
    intf.toBeDeletedIs(true);
    CASK_VRF_TRACE(6, review_.vrfName(),
                   "RouteSm::handleIntfChange(), marking interface for deletion: {} on route{}",
                   intf.intfId(), route()->key());
    review_.localStatus().changeSet()->intfChangeIs(intf.intfId());
    review_.doUpdateReviewTimer();
}

void RouteSm::handleDelete() {
    if (!initialized_) return;
    initialized_ = false;
    Route& r = *route();
    const auto key = r.key();
    Status& status = review_.status();
    LocalStatus& ls = review_.localStatus();
    status.groupDel(key.group());
    review_.rpfConfig().rpfConfigInfoDel(key);
    if (r.isWc()) {
        if (status.wcRouteCount()) status.wcRouteCountIs(status.wcRouteCount() - 1);
    } else if (status.sgRouteCount()) {
        status.sgRouteCountIs(status.sgRouteCount() - 1);
    }
    CASK_VRF_TRACE(7, review_.vrfName(),
                   "RouteSm: Route{} deleted, flags: {}, (*,G) routes: {}, (S,G) routes: {}", key,
                   r.routeFlagsStr(), status.wcRouteCount(), status.sgRouteCount());
    if (r.isWc()) {
        ls.wcRouteDel(key);
    } else {
        ls.sgRouteDel(key);
        status.sourceGroupRemove(key.source(), key.group());
    }
    ls.toBeDeletedRouteDel(key);
}

RouteSm* routeSmFactory(RouteReviewSm& review, const Cask::Ptr<Route>& route) {
    if (RouteSm* existing = review.routeSm(route->key())) {
        if (existing->route() == route.get()) return existing;
        throw ReinstantiationError(fmt::format(
            "Reinstantiating the pointer interface where constructor parameter attribute _route "
            "has a different value of {} than the current value of {} not allowed",
            fmt::ptr(route.get()), fmt::ptr(existing->route())));
    }
    RouteSm* sm = review.routeSmCreate(*route);
    if (sm) sm->handleInitialized();
    return sm;
}

RpfTableSm::RpfTableSm(Cask::Ptr<UnicastRoutingStatus> status, Routing::Pim::RpfResolver& resolver)
    : UnicastRoutingStatus::Notifiee(status.get()),
      status_(std::move(status)),
      resolver_(resolver) {
    doUpdateTable();
}

void RpfTableSm::doUpdateTable() {
    resolver_.tableIs(Cask::Ptr<Routing::Unicast::RouteTable>(status_->rpfTable()));
}

}  // namespace Routing::Pim::SparseMode
