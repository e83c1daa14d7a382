// The per-route reactors of UpstreamSgRptSm: one per (S,G) route, and one
// per (*,G) route for what the group's (S,G) routes inherit from it.
#include "cask/trace.h"
#include "pimsm/upstream/shared_tree.h"
#include "pimsm/upstream/upstream_sg_rpt_sm.h"
#include "pimsm/upstream/upstream_wc_sm.h"

namespace Routing::Pim::SparseMode {

using Routing::Pim::Rpf;

// --- RhoRoute ----------------------------------------------------------------

void UpstreamSgRptSm::RhoRoute::handleInitialized() {
    doUpdateRpf();
    doUpdateForwardBits();
    sm_.doMaybeChangeUpRptState(route());
}

void UpstreamSgRptSm::RhoRoute::doUpdateRpf() {
    Route& r = route();
    if (!onSharedTree(r, sm_.in_.rpfTable)) return;
    const Rpf rpf = rpfPrimeSgRpt(r);
    if (!sameNeighbor(rpf, r.rpfWc())) {
        CASK_VRF_TRACE(7, sm_.vrfName(),
                       "UpstreamSgRptSm::rpfPrimeSgRpt{}: I am assert loser, RPF {}", r.key(),
                       rpf.str());
    }
    r.umh()->doUpdateRpf(rpf);
}

void UpstreamSgRptSm::RhoRoute::doUpdateForwardBits() {
    Route& r = route();
    for (const auto& [id, intf] : r.routeIntf()) {
        sm_.doMaybeSetForwardBit(id, r);
        sm_.doMaybeSetFastForwardBit(id, r);
    }
}

void UpstreamSgRptSm::RhoRoute::handleUpJoinState() {
    Route& r = route();
    if (r.upJoinState() == UpJoinState::upJoined) return;
    CASK_EVENT("UpstreamSgRptSm: Route{}, flags: {}, upJoined --> upNotJoined", r.key(),
               r.routeFlagsStr());
    // Back on the shared tree: traffic comes from RPF'(S,G,rpt) again.
    doUpdateRpf();
    doUpdateForwardBits();
    sm_.doMaybeChangeUpRptState(r);
}

void UpstreamSgRptSm::RhoRoute::handleWcRouteChanged() {
    doUpdateRpf();
    doUpdateForwardBits();
    sm_.doMaybeChangeUpRptState(route());
}

void UpstreamSgRptSm::RhoRoute::handleSpTree() {
    // PruneDesired(S,G,rpt) reads the SPT bit.
    sm_.doMaybeChangeUpRptState(route());
}

void UpstreamSgRptSm::RhoRoute::handleRouteIntf(Wirl::IntfId id) {
    Route& r = route();
    sm_.doMaybeSetForwardBit(id, r);
    sm_.doMaybeSetFastForwardBit(id, r);
    sm_.doMaybeChangeUpRptState(r);
}

void UpstreamSgRptSm::RhoRoute::handleIntfAttr(Intf& intf, IntfAttr attr) {
    Route& r = route();
    switch (attr) {
        case IntfAttr::localReceiverExclude:
        case IntfAttr::localReceiverInclude:
        case IntfAttr::localMembership:
        case IntfAttr::rptState:
        case IntfAttr::changeFlags:
            break;
        case IntfAttr::assertInfo:
            // Losing the (S,G) assert on RPF_interface(RP(G)) moves
            // RPF'(S,G,rpt) to the winner.
            if (intf.intfId() == r.rpfWc().intf) doUpdateRpf();
            break;
        default:
            return;
    }
    CASK_VRF_TRACE(8, sm_.vrfName(), "UpstreamSgRptSm::handleIntf{} {} upRptState: {}", r.key(),
                   intf.intfId(), r.umh()->upRptState());
    sm_.doMaybeSetForwardBit(intf.intfId(), r);
    sm_.doMaybeSetFastForwardBit(intf.intfId(), r);
    sm_.doMaybeChangeUpRptState(r);
}

void UpstreamSgRptSm::RhoRoute::handleUmhAttr(UpstreamInfo& umh, UmhAttr attr) {
    if (attr != UmhAttr::rpf || umh.frr()) return;
    // RPF' changed, whoever wrote it: the incoming interface stops or starts
    // forwarding, and PruneDesired(S,G,rpt) compares RPF'(S,G) with
    // RPF'(*,G). RPF' itself is not written back from here: the upstream
    // (S,G) machine sets RPF'(S,G) just before the route joins.
    Route& r = route();
    const Wirl::IntfId former = umh.formerRpf().intf;
    for (Wirl::IntfId id : {former, r.iif()}) {
        if (id.isNull()) continue;
        sm_.doMaybeSetForwardBit(id, r);
        sm_.doMaybeSetFastForwardBit(id, r);
    }
    sm_.doMaybeChangeUpRptState(r);
}

void UpstreamSgRptSm::RhoRoute::handleInheritedWcIntf(Wirl::IntfId id) {
    Route& r = route();
    sm_.doMaybeSetForwardBit(id, r);
    sm_.doMaybeSetFastForwardBit(id, r);
    sm_.doMaybeChangeUpRptState(r);
}

void UpstreamSgRptSm::RhoRoute::handleDelete() {
    const Routing::Pim::RouteKey key = route().key();
    CASK_VRF_TRACE(6, sm_.vrfName(), "UpstreamSgRptSm::handleDelete({})", key);
    sm_.wcFanOut_.sgRemoved(key);
    sm_.doPeriodicPruneDel(key);
}

}  // namespace Routing::Pim::SparseMode
