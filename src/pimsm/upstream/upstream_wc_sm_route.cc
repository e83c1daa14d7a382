// The per-route and per-interface reactors of UpstreamWcSm.
#include <fmt/format.h>

#include "cask/trace.h"
#include "pimsm/upstream/upstream_wc_sm.h"

namespace Routing::Pim::SparseMode {

using Routing::Pim::RouteKey;
using Routing::Pim::Rpf;

UpstreamWcSm::RhoRoute::RhoRoute(UpstreamWcSm& sm, Route& route) : RouteReactor(route), sm_(sm) {}

UpstreamWcSm::RhoRoute::~RhoRoute() = default;

void UpstreamWcSm::RhoRoute::handleIntfAttr(Intf& intf, IntfAttr attr) {
    switch (attr) {
        case IntfAttr::localMembership:
        case IntfAttr::localReceiverInclude:
        case IntfAttr::joinState:
        case IntfAttr::changeFlags:
            handleIntfChange(intf.intfId(), false);
            break;
        case IntfAttr::assertInfo:
            handleIntfChange(intf.intfId(), true);
            break;
        default:
            break;
    }
}

void UpstreamWcSm::RhoRoute::handleUmhAttr(UpstreamInfo& umh, UmhAttr attr) {
    if (attr == UmhAttr::rpf && !umh.frr()) handleRpf();
}

void UpstreamWcSm::RhoRoute::handleRouteInit() {
    Route& r = route();
    for (const auto& [id, intf] : r.routeIntf()) {
        sm_.doMaybeSetForwardBits(id, r);
    }
    // A route that comes joined (taken over after a restart, say) has its
    // join written again at its current RPF'.
    const bool joined = r.upJoinState() == UpJoinState::upJoined;
    if (!sm_.doEvalRpfPrimeWc(r) && joined && r.rpf().hasNeighbor()) {
        sm_.doJoinNeighbor(r.key(), r.rpf().intf, r.rpf().neighbor, r.umh()->rp());
    }
    sm_.doEvalJoinDesiredWc(r, /*rpfFresh=*/true);
}

void UpstreamWcSm::RhoRoute::handleRpf() {
    Route& r = route();
    const RouteKey key = r.key();
    const Rpf rpf = r.rpf();
    CASK_VRF_TRACE(6, sm_.vrfName(), "UpstreamWcSm::handleRpf({}) rpf: {}", key, rpf.str());
    if (r.upJoinState() == UpJoinState::upJoined && rpf.hasNeighbor()) {
        CASK_VRF_TRACE(7, sm_.vrfName(), "UpstreamWcSm:handleRpf(): Route {} join to neighbor: {}",
                       key, rpf.neighbor);
        sm_.doRpfNeighborJoin(key, rpf.intf, rpf.neighbor);
    }
    // The neighbour to leave: the one an incoming-interface switch holds,
    // else the one this route's join went to until now. While a switch is
    // under way the old neighbour keeps the join until the switch ends.
    const Rpf former = r.umh()->formerRpf();
    const Rpf prev = r.prevRpf().hasNeighbor() ? r.prevRpf() : former;
    const bool held = r.prevRpf().hasNeighbor();
    if (prev.hasNeighbor() && !sameNeighbor(prev, rpf) &&
        (held || (!r.iifSwitching() && sm_.joinWrittenAt(prev, key.group())))) {
        CASK_VRF_TRACE(7, sm_.vrfName(),
                       "UpstreamWcSm:handleRpf(): Route {} cleanup prevNeighbor: {} intfId: {}",
                       key, prev.neighbor, prev.intf);
        sm_.doPrevRpfNeighborCleanup(key, prev);
    }
    const Wirl::IntfId oldIif = former.intf;
    for (Wirl::IntfId id : {oldIif, rpf.intf}) {
        if (id.isNull()) continue;
        sm_.doMaybeSetForwardBits(id, r);
    }
}

void UpstreamWcSm::RhoRoute::handleChangeFlags() {
    using Bit = ChangeFlags::Bit;
    Route& r = route();
    const ChangeFlags flags = r.changeFlags();
    if (flags.empty()) return;  // the review clearing them
    const RouteKey key = r.key();
    CASK_VRF_TRACE(6, sm_.vrfName(),
                   "UpstreamWcSm::handleChangeFlags(), Change flags: {} route:iif: {}:{}", flags,
                   key, r.iif());
    // What can move RPF'(*,G) or needs its neighbour told again; the backup
    // upstream, border and DR changes belong to other machines.
    const ChangeFlags upstream{Bit::rpfIntfStatus,   Bit::rpfBoundary,    Bit::prevRpfIntfStatus,
                               Bit::rpfNbrStatus,    Bit::rpfNbrGenId,    Bit::prevRpfNbrStatus,
                               Bit::prevRpfNbrGenId, Bit::rpfRouteChanged};
    if (!flags.hasAny(upstream)) {
        CASK_VRF_TRACE(7, sm_.vrfName(),
                       "UpstreamWcSm::handleChangeFlags(), Ignoring change flags: {}", flags);
        return;
    }
    const Rpf old = r.rpf();
    CASK_VRF_TRACE(7, sm_.vrfName(), "UpstreamWcSm::doEvalRpfPrimeWc {}", key);
    const Rpf fresh = sm_.rpfPrimeWc(r, true);
    if (fresh.intf != old.intf && r.prevRpf().resolved()) r.beginIifSwitchInc();
    if (fresh != old) {
        r.umh()->doUpdateRpf(fresh);
    } else if (r.upJoinState() == UpJoinState::upJoined) {
        // Same neighbour, but it restarted or flapped and lost what it had.
        auto resend = [&](const Rpf& to) {
            Routing::Pim::JoinPruneNeighbor* nbr = sm_.writer_.neighbor(to.intf, to.neighbor);
            const Wirl::IpGenAddr rp = sm_.rpOf(key.group());
            if (!nbr || !to.hasNeighbor() || to.intf.isRegister() ||
                rp.family() == Wirl::AddressFamily::ipunknown) {
                return;
            }
            CASK_VRF_TRACE(
                7, sm_.vrfName(),
                "UpstreamWcSm::handleChangeFlags(), Sending triggered joins: {} intfId: {} "
                "neighbor: {}",
                key, to.intf, to.neighbor);
            sm_.doWriteJoin(*nbr, key.group(), rp);
        };
        if (flags.has(Bit::rpfNbrGenId) || flags.has(Bit::rpfNbrStatus)) resend(fresh);
        if (r.prevRpf().hasNeighbor() &&
            (flags.has(Bit::prevRpfNbrGenId) || flags.has(Bit::prevRpfNbrStatus))) {
            resend(r.prevRpf());
        }
    }
}

void UpstreamWcSm::RhoRoute::handleUmhFrr() {
    Route& r = route();
    for (const auto& [id, intf] : r.routeIntf()) sm_.doMaybeSetFastForwardBit(id, r);
}

void UpstreamWcSm::RhoRoute::handleIntf(Wirl::IntfId id) {
    Route& r = route();
    sm_.doMaybeSetForwardBits(id, r);
    sm_.doEvalJoinDesiredWc(r);
}

void UpstreamWcSm::RhoRoute::handleIntfChange(Wirl::IntfId id, bool assertChanged) {
    Route& r = route();
    sm_.doMaybeSetForwardBits(id, r);
    // Losing or ending an assert on the RPF interface moves RPF'.
    if (assertChanged && id == r.iif()) sm_.doEvalRpfPrimeWc(r);
    sm_.doEvalJoinDesiredWc(r);
}

void UpstreamWcSm::RhoRoute::handleDelete() {
    Route& r = route();
    CASK_VRF_TRACE(6, sm_.vrfName(), "UpstreamWcSm::handleDelete({})", r.key());
    if (r.upJoinState() == UpJoinState::upJoined) sm_.doPrevRpfNeighborCleanup(r.key(), r.rpf());
}

}  // namespace Routing::Pim::SparseMode
