// The per-route reactors of UpstreamSgSm: one per (S,G) route, and one per
// (*,G) route for what the group's (S,G) routes inherit from it.
#include "cask/trace.h"
#include "pimsm/upstream/shared_tree.h"
#include "pimsm/upstream/upstream_sg_sm.h"
#include "pimsm/upstream/upstream_wc_sm.h"

namespace Routing::Pim::SparseMode {

using Routing::Pim::JoinPruneEntry;
using Routing::Pim::JoinPruneSet;
using Routing::Pim::RouteKey;
using Routing::Pim::Rpf;

// --- RhoRoute ----------------------------------------------------------------

void UpstreamSgSm::RhoRoute::handleRouteInit() {
    Route& r = route();
    // RPF' is kept whatever the join state: the forwarding entry and the
    // olists need the incoming interface.
    doEvalRpfPrimeSg();
    // A route that comes joined (taken over after a restart, say) has its
    // Join written again at its current RPF'.
    if (r.upJoinState() == UpJoinState::upJoined) handleRpf();
    doUpdateForwardBits();
    sm_.doEvalJoinDesiredSg(r);
}

void UpstreamSgSm::RhoRoute::doEvalRpfPrimeSg() {
    Route& r = route();
    // On the shared tree RPF' is RPF'(S,G,rpt), which the upstream (S,G,rpt)
    // machine keeps; RPF'(S,G) is written again when the route joins.
    if (onSharedTree(r, sm_.in_.rpfTable)) return;
    CASK_VRF_TRACE(7, sm_.vrfName(), "UpstreamSgSm::doEvalRpfPrimeSg({}) join state {}", r.key(),
                   r.upJoinState());
    const RpfInfo info = sm_.rpfPrimeSg(r);
    r.umh()->doUpdateRpf(info.rpf);
    r.umh()->rpfAttachedIs(info.attached);
    // The backup upstream (doUpdateRpfFrr when it is no duplicate of the
    // primary) is computed by fast failover, which is not built yet.
}

void UpstreamSgSm::RhoRoute::doUpdateForwardBits() {
    Route& r = route();
    for (const auto& [id, intf] : r.routeIntf()) {
        sm_.doMaybeSetForwardBit(id, r);
        sm_.doMaybeSetFastForwardBit(id, r);
    }
}

void UpstreamSgSm::RhoRoute::handleUpJoinState() {
    Route& r = route();
    if (r.upJoinState() != UpJoinState::upJoined) return;
    CASK_EVENT("UpstreamSgSm: Route{}, flags: {}, upNotJoined --> upJoined", r.key(),
               r.routeFlagsStr());
    handleRpf();
    // The backup's Join (handleRpfFrr) belongs to fast failover.
    doUpdateForwardBits();
}

void UpstreamSgSm::RhoRoute::handleRpf() {
    Route& r = route();
    const RouteKey key = r.key();
    const Rpf rpf = r.rpf();
    const Rpf former = r.umh()->formerRpf();
    CASK_VRF_TRACE(6, sm_.vrfName(), "UpstreamSgSm::handleRpf({}) rpf: {} former: {}", key,
                   rpf.str(), former.str());
    // A new neighbour gets the Join; an unchanged one that has it already
    // (a metric change) is not sent another.
    if (r.upJoinState() == UpJoinState::upJoined && rpf.hasNeighbor() &&
        (!sameNeighbor(former, rpf) || !sm_.joinWrittenAt(rpf, key))) {
        sm_.doRpfNeighborJoin(key, rpf.intf, rpf.neighbor);
    }
    // An interface stops or starts being the incoming one.
    if (former.intf != rpf.intf) {
        for (Wirl::IntfId id : {former.intf, rpf.intf}) {
            if (id.isNull()) continue;
            sm_.doMaybeSetForwardBit(id, r);
            sm_.doMaybeSetFastForwardBit(id, r);
        }
    }
    // The neighbour to leave: the one an incoming-interface switch holds,
    // else the one this route's Join went to until now.
    const bool held = r.prevRpf().hasNeighbor();
    const Rpf prev = held ? r.prevRpf() : former;
    if (!prev.hasNeighbor() || sameNeighbor(prev, rpf)) return;
    // The backup upstream still receives this source's Join.
    if (sameNeighbor(prev, backupRpf(r))) return;
    // While the incoming interface is being switched, the neighbour the
    // traffic still arrives from (the one the switch holds, or RPF'(*,G) on
    // the way off the shared tree) keeps the Join: the switch prunes it once
    // traffic shows on the new interface.
    if (r.iifSwitching() && (held || sameNeighbor(prev, r.rpfWc()))) return;
    if (!held && !sm_.joinWrittenAt(prev, key)) return;
    CASK_VRF_TRACE(7, sm_.vrfName(),
                   "UpstreamSgSm:handleRpf(): Route {} cleanup prevNeighbor: {} intfId: {}", key,
                   prev.neighbor, prev.intf);
    sm_.doPrevRpfNeighborCleanup(key, prev);
}

void UpstreamSgSm::RhoRoute::handleChangeFlags() {
    using Bit = ChangeFlags::Bit;
    Route& r = route();
    const ChangeFlags flags = r.changeFlags();
    if (flags.empty()) return;  // the review clearing them
    const RouteKey key = r.key();
    CASK_VRF_TRACE(6, sm_.vrfName(),
                   "UpstreamSgSm::handleChangeFlags(), Change flags: {}, upJoinState: {} route: {}",
                   flags, r.upJoinState(), key);
    // What can move RPF'(S,G) or needs its neighbour told again. The DR,
    // border and source-injection changes belong to other machines, and the
    // backup upstream's (rpfFrr...) to fast failover.
    const ChangeFlags upstream{Bit::rpfIntfStatus,   Bit::rpfBoundary,    Bit::prevRpfIntfStatus,
                               Bit::rpfNbrStatus,    Bit::rpfNbrGenId,    Bit::prevRpfNbrStatus,
                               Bit::prevRpfNbrGenId, Bit::rpfRouteChanged};
    if (!flags.hasAny(upstream)) {
        CASK_VRF_TRACE(7, sm_.vrfName(),
                       "UpstreamSgSm::handleChangeFlags(), Ignoring change flags: {}", flags);
        return;
    }
    const bool joined = r.upJoinState() == UpJoinState::upJoined;
    // Not joined and on the shared tree: nothing was sent toward the source,
    // and RPF' follows RPF'(*,G) through the upstream (S,G,rpt) machine.
    if (!joined && onSharedTree(r, sm_.in_.rpfTable)) {
        sm_.doEvalJoinDesiredSg(r);
        return;
    }
    // A restarted neighbour lost the Join: it gets a triggered one.
    auto resend = [&](const Rpf& to, const char* which) {
        if (!joined || !to.hasNeighbor()) return;
        Routing::Pim::JoinPruneNeighbor* nbr = sm_.writer_.neighbor(to.intf, to.neighbor);
        if (!nbr) return;
        CASK_VRF_TRACE(7, sm_.vrfName(),
                       "UpstreamSgSm::handleChangeFlags(){} nbrGenId changed, send join to {} nbr "
                       "{}",
                       key, which, to.neighbor);
        sm_.writer_.entryIs(*nbr, JoinPruneSet::triggered,
                            JoinPruneEntry::of(JoinPruneEntry::Kind::joined, key));
    };
    // A restarted backup neighbour (rpfFrrNbrGenId) is fast failover's.
    if (flags.has(Bit::rpfNbrGenId)) resend(r.rpf(), "rpf");
    const Rpf old = r.rpf();
    CASK_VRF_TRACE(7, sm_.vrfName(), "UpstreamSgSm::handleChangeFlags() ChangeFlags: {} {}", key,
                   flags);
    const RpfInfo fresh = sm_.rpfPrimeSg(r);
    // A move onto the backup upstream is fast failover's switchover
    // (handleFrrSwitchover); until that is built it is an ordinary RPF'
    // change.
    if (old.resolved() && fresh.rpf.intf != old.intf) r.beginIifSwitchInc();
    r.umh()->doUpdateRpf(fresh.rpf);
    r.umh()->rpfAttachedIs(fresh.attached);
    if (flags.has(Bit::prevRpfNbrGenId)) resend(r.prevRpf(), "prevRpf");
    // A neighbour that went and came back within one review keeps its
    // place as RPF' but its Join/Prune entry was made afresh, empty.
    const Rpf& now = r.rpf();
    if (joined && now.hasNeighbor() && sameNeighbor(now, old) && !sm_.joinWrittenAt(now, key) &&
        sm_.writer_.neighbor(now.intf, now.neighbor)) {
        sm_.doRpfNeighborJoin(key, now.intf, now.neighbor);
    }
    sm_.doEvalJoinDesiredSg(r);
}

void UpstreamSgSm::RhoRoute::handleKatExpired() {
    sm_.doEvalJoinDesiredSg(route());
}

void UpstreamSgSm::RhoRoute::handleSpTree() {
    // The SPT bit decides lost_assert(S,G,rpt) on the incoming interface.
    doUpdateForwardBits();
    sm_.doEvalJoinDesiredSg(route());
}

void UpstreamSgSm::RhoRoute::handleRouteIntf(Wirl::IntfId id) {
    Route& r = route();
    sm_.doMaybeSetForwardBit(id, r);
    sm_.doMaybeSetFastForwardBit(id, r);
    sm_.doEvalJoinDesiredSg(r);
}

void UpstreamSgSm::RhoRoute::handleIntfAttr(Intf& intf, IntfAttr attr) {
    Route& r = route();
    switch (attr) {
        case IntfAttr::localMembership:
        case IntfAttr::localReceiverInclude:
        case IntfAttr::localReceiverExclude:
        case IntfAttr::joinState:
        case IntfAttr::rptState:
        case IntfAttr::changeFlags:
            break;
        case IntfAttr::assertInfo:
            // Losing or ending the assert on the RPF interface moves RPF'.
            if (intf.intfId() == r.iif()) doEvalRpfPrimeSg();
            break;
        default:
            return;
    }
    sm_.doMaybeSetForwardBit(intf.intfId(), r);
    sm_.doMaybeSetFastForwardBit(intf.intfId(), r);
    sm_.doEvalJoinDesiredSg(r);
}

void UpstreamSgSm::RhoRoute::handleUmhAttr(UpstreamInfo& umh, UmhAttr attr) {
    // Changes of the backup upstream (handleRpfFrr) are fast failover's.
    if (attr == UmhAttr::rpf && !umh.frr()) handleRpf();
}

void UpstreamSgSm::RhoRoute::handleUmhFrr() {
    // The backup interface never forwards; the backup list follows it.
    doUpdateForwardBits();
}

void UpstreamSgSm::RhoRoute::handleDelete() {
    Route& r = route();
    CASK_VRF_TRACE(6, sm_.vrfName(), "UpstreamSgSm::handleDelete({})", r.key());
    sm_.wcFanOut_.sgRemoved(r.key());
    if (r.upJoinState() != UpJoinState::upJoined) return;
    const Rpf rpf = r.rpf();
    sm_.doPrevRpfNeighborCleanup(r.key(), rpf);
    for (const Rpf& other : {r.prevRpf(), backupRpf(r)}) {
        if (!sameNeighbor(other, rpf) && sm_.joinWrittenAt(other, r.key())) {
            sm_.doPrevRpfNeighborCleanup(r.key(), other);
        }
    }
}

}  // namespace Routing::Pim::SparseMode
