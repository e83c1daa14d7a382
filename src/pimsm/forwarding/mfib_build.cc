// MfibSm's per-route reactors: building one route's forwarding record, and
// adding and removing single interfaces of a record's bitmap.

#include "cask/assert.h"
#include "cask/trace.h"
#include "pimsm/forwarding/mfib_sm.h"

namespace Routing::Pim::SparseMode {

using Routing::Multicast::Fib::convertKey;

namespace {

// The register tunnel and the discard interface never forward from a bitmap:
// the register tunnel is the oifRegister flag, the discard interface nothing.
bool isPseudoIntf(Wirl::IntfId i) {
    return i == Wirl::IntfId::register0() || i == Wirl::IntfId::null0();
}

// The route's own olist on one interface, as the downstream, membership and
// assert state of the interface define it (RFC 7761 immediate_olist), plus
// what the upstream machines marked for forwarding.
bool inOwnOlist(const Route& route, const Intf& intf) {
    if (intf.forward()) return true;
    return route.isWc() ? intf.immediateOlistWc() : intf.immediateOlistSg();
}

}  // namespace

TMF::OifIndex addTidalRouteOif(MfibSm& mfibSm, TMF::Route& route, Wirl::IntfId intfId) {
    CASK_VRF_TRACE(8, mfibSm.vrfName(), "MfibSm::addTidalRouteOif(): Adding Oif {} route {}",
                   intfId, route.key());
    CASK_ASSERT(!intfId.isNull(), "intfId");
    CASK_ASSERT(intfId != Wirl::IntfId::register0() && intfId != Wirl::IntfId::null0(),
                "intfId != registerIntfId && intfId != null0IntfId");
    TMF::OifIndex oifIndex = mfibSm.intfOifIndex(intfId);
    if (oifIndex.isNull()) {
        oifIndex = mfibSm.createOifIndexMapping(intfId);
        if (oifIndex.isNull()) {
            mfibSm.doPlaceRouteOnWait(convertKey(route.key()));
            return TMF::OifIndex();
        }
        CASK_ASSERT(!route.oif(oifIndex), "!route.oif( oifIndex )");
    }
    CASK_ASSERT(oifIndex != TMF::OifIndex(), "oifIndex != TMF::OifIndex()");
    if (route.oif(oifIndex)) return TMF::OifIndex();
    route.oifIs(oifIndex, true);
    CASK_VRF_TRACE(8, mfibSm.vrfName(),
                   "MfibSm::addTidalRouteOif(): Set oif {} in route {} to true", oifIndex,
                   route.key());
    if (route.highestOifIndex().isNull() || oifIndex > route.highestOifIndex()) {
        route.highestOifIndexIs(oifIndex);
    }
    return oifIndex;
}

TMF::OifIndex delTidalRouteOif(MfibSm& mfibSm, TMF::Route& route, Wirl::IntfId intfId) {
    CASK_ASSERT(!intfId.isNull(), "intfId");
    CASK_ASSERT(intfId != Wirl::IntfId::null0() && intfId != Wirl::IntfId::register0(),
                "intfId != null0IntfId && intfId != registerIntfId");
    const TMF::OifIndex oifIndex = mfibSm.intfOifIndex(intfId);
    if (oifIndex.isNull()) {
        CASK_VRF_TRACE(8, mfibSm.vrfName(),
                       "MfibSm::delTidalRouteOif(): No IntfOifIndex mapping for: {}", intfId);
        return TMF::OifIndex();
    }
    CASK_ASSERT(oifIndex != TMF::OifIndex(), "oifIndex != TMF::OifIndex()");
    if (route.oif(oifIndex)) route.oifDel(oifIndex);
    return oifIndex;
}

// --- RhoRoute ------------------------------------------------------------------------

MfibSm::RhoRoute::RhoRoute(MfibSm& sm, Route& route) : RouteReactor(route), sm_(sm) {}

void MfibSm::RhoRoute::handleDelete() {
    sm_.handleDelete(route()->key());
}

MfibSm::RhoRoute::~RhoRoute() {
    // Its key stays in the dirty list, and is passed over there.
    if (queued_) --sm_.dirtyCount_;
}

void MfibSm::RhoRoute::handleRouteIntf(Wirl::IntfId intfId) {
    handleIntfChanged(intfId);
}

void MfibSm::RhoRoute::handleUmhFrr() {
    handleRoute();
}

void MfibSm::RhoRoute::handleIntfAttr(Intf& intf, IntfAttr attr) {
    switch (attr) {
        case IntfAttr::localMembership:
        case IntfAttr::localReceiverInclude:
        case IntfAttr::localReceiverExclude:
        case IntfAttr::forward:
        case IntfAttr::fastForward:
        case IntfAttr::joinState:
        case IntfAttr::rptState:
        case IntfAttr::assertInfo:
            handleIntfChanged(intf.intfId());
            break;
        default:
            break;
    }
}

void MfibSm::RhoRoute::handleUmhAttr(UpstreamInfo&, UmhAttr attr) {
    // Both upstreams: the backup path's RPF feeds the record too.
    if (attr == UmhAttr::rpf || attr == UmhAttr::prevRpf) handleRpf();
}

void MfibSm::RhoRoute::handleIntfChanged(Wirl::IntfId) {
    handleRoute();
}

void MfibSm::RhoRoute::doBuild(bool withWc) {
    const Route& route = *this->route();
    const Routing::Pim::RouteKey& key = route.key();
    const L3::VrfName& vrf = sm_.vrfName();
    // Make-before-break: while the incoming interface is being switched the
    // entry keeps accepting on the old one and reports arrivals on the new.
    Wirl::IntfId iif = route.iif();
    Wirl::IntfId switchTarget;
    if (route.iifSwitching() && route.prevRpf().resolved() && route.prevRpf().intf != iif) {
        switchTarget = iif;
        iif = route.prevRpf().intf;
    }
    // A record never lacks its incoming interface: without RPF, no record.
    if (iif.isNull()) {
        sm_.handleDelete(key);
        return;
    }
    // The record is built afresh and compared with the stored one at commit.
    TMF::Route tmpRoute(convertKey(key));
    tmpRoute.iifIs(iif);
    // The backup incoming interface of fast failover.
    if (const UpstreamInfo* frr = route.umhFrr(); frr && frr->rpf().resolved()) {
        tmpRoute.iifFrrIs(frr->iif());
        CASK_VRF_TRACE(8, vrf, "MfibSm::handleRoute({}): Update tidal route with iifFrr {}", key,
                       frr->iif());
    }
    // The stored flag word is the starting point of every flag below.
    const TMF::Route* stored = sm_.mfibTidal().route(tmpRoute.key());
    TMF::Route::RouteFlags flags = stored ? stored->routeFlags() : 0;
    // An (S,G) route inherits the outgoing interfaces of the group's (*,G)
    // route, and learns whether that route is programmable.
    const Route* wc = withWc ? route.wc() : nullptr;
    bool notifyProgrammable = false;
    // The incoming interfaces (the route's iif is one of them) leave the
    // bitmap below: they ask for no index, so a route forwarding on nothing
    // else never waits for one.
    auto incoming = [&](Wirl::IntfId id) {
        return id == iif || id == switchTarget || id == tmpRoute.iifFrr();
    };
    if (wc) {
        for (const auto& [id, intf] : wc->routeIntf()) {
            if (incoming(id) || isPseudoIntf(id) || !intf->immediateOlistWc()) continue;
            // RFC 7761 inherited_olist(S,G,rpt): an interface where the source is
            // pruned off the shared tree, excluded by a host, or where the
            // assert was lost is not inherited.
            if (const Intf* own = route.routeIntfRaw(id); own && !own->inheritedOlistSgRpt()) {
                CASK_VRF_TRACE(8, vrf, "MfibSm::handleRoute({}): Skip inherited interface {}", key,
                               id);
                continue;
            }
            CASK_VRF_TRACE(8, vrf, "MfibSm::handleRoute({}): Add inherited interface {}", key, id);
            addTidalRouteOif(sm_, tmpRoute, id);
        }
        // The hardware forwards the group on the (*,G) entry alone: it
        // tells the agent when this entry is written.
        notifyProgrammable = wc->programmable();
        if (notifyProgrammable) {
            CASK_VRF_TRACE(8, vrf,
                           "MfibSm::handleRoute(): wcRoute is programmable.            "
                           "Setting notifyProgrammable to true for {}",
                           key);
        } else {
            CASK_VRF_TRACE(8, vrf,
                           "MfibSm::handleRoute(): wcRoute is not programmable.            "
                           "Setting notifyProgrammable to false for {}",
                           key);
        }
    }
    auto setFlag = [&flags](TMF::Route::Flag f, bool on) {
        flags = on ? flags | f : flags & ~TMF::Route::RouteFlags(f);
    };
    setFlag(TMF::Route::notifyProgrammable, notifyProgrammable);
    // The route's own outgoing interfaces.
    for (const auto& [id, intf] : route.routeIntf()) {
        if (isPseudoIntf(id) || incoming(id) || !inOwnOlist(route, *intf)) continue;
        CASK_VRF_TRACE(8, vrf, "MfibSm::handleRoute({}): Add interface to oif set {}", key, id);
        addTidalRouteOif(sm_, tmpRoute, id);
    }
    // During a switch, arrivals on the new interface are reported.
    if (!switchTarget.isNull()) {
        tmpRoute.notifyIs(switchTarget);
        CASK_VRF_TRACE(8, vrf, "MfibSm::handleRoute({}): In iifSwitching state, set notify intf {}",
                       key, switchTarget);
    }
    // Data reaching an RP only through registers before the source tree
    // is up need not be in the kernel.
    const bool skipKernel = iif == Wirl::IntfId::register0() && !route.isWc() && !route.spTree();
    if (skipKernel) {
        CASK_VRF_TRACE(8, vrf, "MfibSm::handleRoute({}): Skip Programming Kernel is True", key);
    }
    setFlag(TMF::Route::skipKernelProgramming, skipKernel);
    // Once the group's shared tree is joined, packets of this source still
    // arriving down it are dropped in the fast path.
    if (wc && !route.isWc() && wc->upJoinState() == UpJoinState::upJoined && !wc->iif().isNull() &&
        !isPseudoIntf(wc->iif()) && wc->iif() != iif) {
        tmpRoute.fastdropIs(wc->iif());
        CASK_VRF_TRACE(8, vrf, "MfibSm::handleRoute({}): adding fastdrop on {}", key, wc->iif());
    } else if (!route.isWc()) {
        CASK_VRF_TRACE(8, vrf, "MfibSm::handleRoute({}): clearing fastdrop", key);
    }
    // No interface both accepts and forwards: the incoming, switch-target
    // and backup interfaces leave the outgoing set.
    sm_.setNoRpfFlag(iif, flags);
    auto dropIncoming = [&](Wirl::IntfId in) {
        if (in.isNull()) return;
        if (!isPseudoIntf(in)) delTidalRouteOif(sm_, tmpRoute, in);
        if (tmpRoute.notify() == in) {
            tmpRoute.notifyIs(Wirl::IntfId());
            setFlag(TMF::Route::skipKernelProgramming, false);
            CASK_VRF_TRACE(8, vrf, "MfibSm::handleRoute({}): Skip Programming Kernel is False",
                           key);
        }
    };
    dropIncoming(iif);
    if (!switchTarget.isNull() && !isPseudoIntf(switchTarget)) {
        delTidalRouteOif(sm_, tmpRoute, switchTarget);
    }
    dropIncoming(tmpRoute.iifFrr());
    if (!tmpRoute.fastdrop().isNull() && tmpRoute.fastdrop() == tmpRoute.notify()) {
        tmpRoute.fastdropIs(Wirl::IntfId());
    }
    // What the forwarding plane relies on.
    CASK_ASSERT(tmpRoute.iif() != Wirl::IntfId() && tmpRoute.iif() != tmpRoute.notify() &&
                    tmpRoute.iif() != tmpRoute.fastdrop(),
                "tmpRoute.iif() != Wirl::IntfId() && tmpRoute.iif() != tmpRoute.notify() && "
                "tmpRoute.iif() != tmpRoute.fastdrop()");
    CASK_ASSERT(tmpRoute.notify().isNull() || tmpRoute.notify() != tmpRoute.fastdrop(),
                "tmpRoute.notify() != tmpRoute.fastdrop()");
    CASK_ASSERT(tmpRoute.notify().isNull() || tmpRoute.iifFrr() != tmpRoute.notify(),
                "tmpRoute.iifFrr() != tmpRoute.notify()");
    // Register and to-CPU flags.
    setFlag(TMF::Route::iifRegister, iif == Wirl::IntfId::register0());
    sm_.setOifRegister(route, flags);
    sm_.setToCpuFlag(route, flags);
    tmpRoute.routeFlagsIs(flags);
    // Index reference counts follow the bits; then commit if anything changed.
    // Nothing above writes routes into the table: `stored` is still its record.
    sm_.doSyncTidalRouteRefCount(tmpRoute, stored);
    sm_.doCommitTidalRoute(tmpRoute, stored);
    initialized_ = true;
    sm_.doReviewRouteWaitlist();
}

// --- RhoSgRoute / RhoWcRoute -------------------------------------------------------------

void MfibSm::RhoSgRoute::doBuildRecord() {
    ++sm_.builds_;
    CASK_VRF_TRACE(6, sm_.vrfName(), "MfibSm::RhoSgRoute::handleRoute({}) rpf: {}", route()->key(),
                   route()->rpf().str());
    if (!sm_.isProgrammableRoute(*route())) {
        sm_.handleDelete(route()->key());
        return;
    }
    doBuild(true);
}

void MfibSm::RhoWcRoute::doBuildRecord() {
    ++sm_.builds_;
    CASK_VRF_TRACE(6, sm_.vrfName(), "MfibSm::RhoWcRoute::handleWcRoute({}) rpf: {}",
                   route()->key(), route()->rpf().str());
    if (!sm_.isProgrammableRoute(*route())) {
        sm_.handleDelete(route()->key());
        return;
    }
    doBuild(false);
}

void MfibSm::RhoWcRoute::handleIntfChanged(Wirl::IntfId intfId) {
    handleRoute();
    CASK_VRF_TRACE(7, sm_.vrfName(), "MfibSm::handleInheritedWcIntf({}, {})", route()->key(),
                   intfId);
    sm_.handleInheritedWcIntf(route()->key());
}

}  // namespace Routing::Pim::SparseMode
