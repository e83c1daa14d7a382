#include "pimsm/upstream/upstream_sg_rpt_sm.h"

#include <string>

#include <fmt/format.h>

#include "cask/trace.h"
#include "pimsm/common/vrf_inputs.h"
#include "pimsm/upstream/shared_tree.h"
#include "pimsm/upstream/upstream_rx.h"
#include "pimsm/upstream/upstream_wc_sm.h"

namespace Routing::Pim::SparseMode {

using Kind = JoinPruneEntry::Kind;

UpstreamSgRptSm::UpstreamSgRptSm(const VrfContext& in)
    : in_(requireInputs(in, "UpstreamSgRptSm", &VrfContext::localStatus, &VrfContext::status,
                        &VrfContext::pimStatus, &VrfContext::joinPruneStatus)),
      writer_(*in.joinPruneStatus, in.vrfName),
      forwardBits_("UpstreamSgRptSm", in_.vrfName, true) {
    route_.reserve(in_.routeCapacity);
    LocalStatus::Notifiee::notifierIs(in_.localStatus);
    rxWatcher_.watch(in_.joinPruneRxStatus);
}

UpstreamSgRptSm::~UpstreamSgRptSm() = default;

NeighborKey UpstreamSgRptSm::prevRpNeighbor(const RouteKey& key) const {
    auto it = prevRp_.find(key);
    return it == prevRp_.end() ? NeighborKey{} : it->second;
}

void UpstreamSgRptSm::handleInitialized() {
    CASK_VRF_TRACE(6, in_.vrfName, "UpstreamSgRptSm::handleInitialized()");
    const LocalStatus& ls = *in_.localStatus;
    route_.sweep(ls.wcRoute(), [this](const RouteKey& key) { handleWcRoute(key); });
    route_.sweep(ls.sgRoute(), [this](const RouteKey& key) { handleSgRoute(key); });
    // Routes first: a route taken up writes its periodic Prune where it
    // belongs now, so a Prune found for a missing route is an earlier run's.
    const auto stale = writer_.periodicSweep(
        Kind::rptPruned,
        [&](const NeighborKey&, const JoinPruneEntry& e) { return !ls.sgRouteHas(e.key); });
    for (const auto& [nk, e] : stale) {
        CASK_VRF_TRACE(7, in_.vrfName,
                       "UpstreamSgRptSm::handleInitialized(), Deleting periodic prune for deleted "
                       "route {}",
                       e.key);
    }
    initializedIs(true);
}

void UpstreamSgRptSm::handleSgRoute(const RouteKey& key) {
    Route* route = in_.localStatus->sgRoute().raw(key);
    if (RhoRoute* rho = route_.update(key, route, *this)) {
        wcFanOut_.sgAdded(key);
        rho->handleInitialized();
    }
}

void UpstreamSgRptSm::handleWcRoute(const RouteKey& key) {
    wcFanOut_.handleWcRoute(key);
}

void UpstreamSgRptSm::handleWcChange(const Wirl::IpGenAddr& group, const WcChange& change) {
    using What = WcChange::What;
    if (change.what == What::intf) {
        wcFanOut_.forEachSg(group, [&](RhoRoute& rho) { rho.handleInheritedWcIntf(change.intf); });
    } else if (change.what != What::changeFlags) {
        // The (*,G) route came or went, or RPF'(*,G) moved: the sources'
        // RPF'(S,G,rpt) and periodic Prunes move with it.
        wcFanOut_.forEachSg(group, [](RhoRoute& rho) { rho.handleWcRouteChanged(); });
    } else if (change.wc->changeFlags().hasAny(
                   ChangeFlags{ChangeFlags::Bit::rpfNbrStatus, ChangeFlags::Bit::rpfNbrGenId})) {
        // A restarted or returning RPF'(*,G) neighbour has a fresh, empty
        // entry: the periodic Prunes are written there again.
        wcFanOut_.forEachSg(
            group, [this](RhoRoute& rho) { doMaybeUpdatePeriodicSgRptPrune(rho.route()); });
    }
}

bool UpstreamSgRptSm::sharedTree(const Route& route) const {
    return onSharedTree(route, in_.rpfTable);
}

// --- the state machine (RFC 7761 4.5.7) --------------------------------------------------

void UpstreamSgRptSm::changeState(Route& route, UpRptState to) {
    const UpRptState from = route.umh()->upRptState();
    if (from == to) return;
    // Any change of state ends a pending override: NotPruned is the only
    // state that overrides.
    if (from == UpRptState::upRptNotPruned) doMaybeCancelOverrideTimer(route);
    route.umh()->doUpdateRptState(to);
}

void UpstreamSgRptSm::doMaybeChangeUpRptState(Route& route) {
    const RouteKey key = route.key();
    const UpRptState old = route.umh()->upRptState();
    // RPTJoinDesired(G) first: when it falls, PruneDesired(S,G,rpt) falls
    // with it, and a Pruned source must not be joined again on the way to
    // RPTNotJoined.
    doEvalRptJoinDesiredWc(route);
    doEvalPruneDesiredSgRpt(route);
    // inherited_olist(S,G,rpt) non-empty implies RPTJoinDesired(G): each of
    // its interfaces is in immediate_olist(*,G).
    if (route.umh()->upRptState() == UpRptState::upRptNotJoined &&
        !route.nullInheritedOlistSgRpt()) {
        CASK_VRF_TRACE(7, in_.vrfName,
                       "UpstreamSgRptSm::doMaybeChangeUpRptState{}(), inherited_olist -> non-NULL "
                       "Going to upRptNotPruned",
                       key);
        changeState(route, UpRptState::upRptNotPruned);
        const Rpf rpf = rpfPrimeSgRpt(route);
        if (rpf.hasNeighbor() && sameNeighbor(rpf, route.rpfWc())) {
            CASK_VRF_TRACE(7, in_.vrfName,
                           "UpstreamSgRptSm::doMaybeChangeUpRptState{}(), RPF'(S,G) == RPF'(*,G) "
                           "Adding override RPT join",
                           key);
            write(rpf, JoinPruneSet::override_, Kind::rptJoined, key);
        }
    }
    doMaybeUpdatePeriodicSgRptPrune(route);
    const UpRptState now = route.umh()->upRptState();
    if (now != old) {
        CASK_VRF_TRACE(6, in_.vrfName,
                       "UpstreamSgRptSm::doMaybeChangeUpRptState{}(), upRptState: {} --> {}", key,
                       old, now);
    }
}

void UpstreamSgRptSm::doEvalRptJoinDesiredWc(Route& route) {
    const UpRptState old = route.umh()->upRptState();
    if (route.rptJoinDesiredWc()) {
        CASK_VRF_TRACE(8, in_.vrfName, "UpstreamSgRptSm::rptJoinDesired{} is True", route.key());
        return;
    }
    CASK_VRF_TRACE(8, in_.vrfName,
                   "UpstreamSgRptSm::rptJoinDesired{} Rpt is False, UpRptState: {} --> {}",
                   route.key(), old, UpRptState::upRptNotJoined);
    changeState(route, UpRptState::upRptNotJoined);
}

void UpstreamSgRptSm::doEvalPruneDesiredSgRpt(Route& route) {
    const RouteKey key = route.key();
    const UpRptState old = route.umh()->upRptState();
    if (!route.rptJoinDesiredWc()) return;
    const bool desired = route.pruneDesiredSgRpt();
    CASK_VRF_TRACE(8, in_.vrfName,
                   "UpstreamSgRptSm::doEvalPruneDesiredSgRpt{} JoinDesiredWc {} "
                   "nullInheritedOlistSgRpt {} SPT {} WC RPF Neighbor {} RPF Neighbor {}",
                   key, route.joinDesiredWc(), route.nullInheritedOlistSgRpt(), route.spTree(),
                   route.rpfWc().neighbor, route.rpf().neighbor);
    if (old == UpRptState::upRptPruned && !desired) {
        CASK_VRF_TRACE(7, in_.vrfName,
                       "UpstreamSgRptSm::PruneDesired{} Rpt is False, UpRptState: {} --> {}", key,
                       old, UpRptState::upRptNotPruned);
        changeState(route, UpRptState::upRptNotPruned);
        // A triggered Join(S,G,rpt) puts the source back on the shared tree
        // (it replaces a triggered Prune of it still waiting).
        write(rpfPrimeSgRpt(route), JoinPruneSet::triggered, Kind::rptJoined, key);
    } else if (old != UpRptState::upRptPruned && desired) {
        CASK_VRF_TRACE(7, in_.vrfName,
                       "UpstreamSgRptSm::PruneDesired{} Rpt is True, RptState: {} --> {}", key, old,
                       UpRptState::upRptPruned);
        changeState(route, UpRptState::upRptPruned);
        // From NotPruned a triggered Prune(S,G,rpt) goes now. From
        // RPTNotJoined (RFC 7761 4.5.7, no action) nothing is sent: the
        // periodic Prune goes out with the (*,G) Join that is starting.
        if (old == UpRptState::upRptNotPruned) {
            write(rpfPrimeSgRpt(route), JoinPruneSet::triggered, Kind::rptPruned, key);
        }
    }
}

void UpstreamSgRptSm::doMaybeUpdatePeriodicSgRptPrune(Route& route) {
    const RouteKey key = route.key();
    const Rpf rpfWc = route.rpfWc();
    const bool pruned = route.umh()->upRptState() == UpRptState::upRptPruned;
    const bool wanted = pruned && rpfWc.hasNeighbor() &&
                        sameNeighbor(rpfPrimeSgRpt(route), rpfWc) &&
                        writer_.neighbor(rpfWc.intf, rpfWc.neighbor);
    const NeighborKey target{rpfWc.intf, rpfWc.neighbor};
    const JoinPruneEntry prune = JoinPruneEntry::of(Kind::rptPruned, key);
    auto it = prevRp_.find(key);
    if (it != prevRp_.end() && (!wanted || it->second != target)) {
        CASK_VRF_TRACE(
            7, in_.vrfName,
            "UpstreamSgRptSm::doMaybeUpdatePeriodicSgRptPrune{}(), RPF'(*,G): {}, Old RP "
            "neighbor: {}, PruneDesired: {}",
            key, rpfWc.neighbor, it->second.address, route.pruneDesiredSgRpt());
        doPeriodicPruneDel(key);
        it = prevRp_.end();
    }
    if (!wanted) return;
    JoinPruneNeighbor& nbr = *writer_.neighbor(rpfWc.intf, rpfWc.neighbor);
    // A neighbour that restarted has a fresh, empty entry: write again.
    if (it != prevRp_.end() && writer_.has(nbr, JoinPruneSet::periodic, prune)) return;
    CASK_VRF_TRACE(
        7, in_.vrfName,
        "UpstreamSgRptSm::doMaybeUpdatePeriodicSgRptPrune{}(), Adding periodic prune for "
        "RP neighbor {} on {}",
        key, rpfWc.neighbor, rpfWc.intf);
    writer_.entryIs(nbr, JoinPruneSet::periodic, prune);
    prevRp_.try_emplace(key).first->second = target;
}

void UpstreamSgRptSm::doPeriodicPruneDel(const RouteKey& key) {
    auto it = prevRp_.find(key);
    if (it == prevRp_.end()) return;
    const NeighborKey where = it->second;
    prevRp_.erase(it);
    if (JoinPruneNeighbor* nbr = writer_.neighbor(where.intf, where.address)) {
        writer_.entryDel(*nbr, JoinPruneSet::periodic, JoinPruneEntry::of(Kind::rptPruned, key));
    }
}

void UpstreamSgRptSm::doMaybeCancelOverrideTimer(const Route& route) {
    const Rpf rpf = rpfPrimeSgRpt(route);
    if (!rpf.hasNeighbor()) return;
    JoinPruneNeighbor* nbr = writer_.neighbor(rpf.intf, rpf.neighbor);
    const JoinPruneEntry join = JoinPruneEntry::of(Kind::rptJoined, route.key());
    if (!nbr || !writer_.has(*nbr, JoinPruneSet::override_, join)) return;
    CASK_VRF_TRACE(7, in_.vrfName,
                   "UpstreamSgRptSm::doMaybeCancelOverrideTimer{}, cancelling override RPT join to "
                   "{}",
                   route.key(), rpf.neighbor);
    writer_.entryDel(*nbr, JoinPruneSet::override_, join);
    CASK_EVENT("UpstreamSgRptSm: Cancel override RPT join for route {} to {} on {}", route.key(),
               rpf.neighbor, rpf.intf);
}

void UpstreamSgRptSm::write(const Rpf& rpf, JoinPruneSet set, Kind kind, const RouteKey& key) {
    if (!rpf.hasNeighbor() || rpf.intf.isRegister()) return;
    JoinPruneNeighbor* nbr = writer_.neighbor(rpf.intf, rpf.neighbor);
    if (!nbr) {
        CASK_VRF_TRACE(7, in_.vrfName, "UpstreamSgRptSm::write{}, no entry for neighbor {}", key,
                       rpf.neighbor);
        return;
    }
    writer_.entryIs(*nbr, set, JoinPruneEntry::of(kind, key));
}

// --- forwarding bits on the shared tree --------------------------------------------------

void UpstreamSgRptSm::doMaybeSetForwardBit(Wirl::IntfId id, Route& route) {
    Intf* intf = route.routeIntfRaw(id);
    if (!intf || !sharedTree(route)) return;
    forwardBits_.forward(*intf, route.key(),
                         id != route.rpfWc().intf && intf->inheritedOlistSgRpt());
}

void UpstreamSgRptSm::doMaybeSetFastForwardBit(Wirl::IntfId id, Route& route) {
    Intf* intf = route.routeIntfRaw(id);
    if (!intf || !sharedTree(route)) return;
    const Wirl::IntfId rpIntf = route.rpfWc().intf;
    const bool eligible = route.umhFrr() && id != rpIntf;
    forwardBits_.fastForward(*intf, route.key(), eligible,
                             id != rpIntf && intf->inheritedOlistSgRpt());
}

// --- received messages -------------------------------------------------------------------

bool UpstreamSgRptSm::ignoreRxJoinPrune(const JoinPruneMessageInfo& m) const {
    const Route* route = m.riKey.isWc() ? nullptr : in_.localStatus->sgRoute().raw(m.riKey);
    static constexpr RxTexts texts{
        .otherKind = ", (*,G)",
        .noRoute = ", No route",
        .notActive = ", Not in upRptNotPruned state",
        .notUpstream = ", Message not to RPF'(S,G,Rpt)",
    };
    Rpf rpf;
    const std::string reason = rxIgnoreReason(
        in_, texts, m, m.sourceFlags.isStarG() || m.riKey.isWc(), m.riKey, route,
        [](const Route& r) { return r.umh()->upRptState() == UpRptState::upRptNotPruned; },
        [&](const Route& r) {
            rpf = rpfPrimeSgRpt(r);
            return rpfAddressedBy({&rpf}, m) != nullptr;
        });
    if (reason.empty()) return false;
    CASK_VRF_TRACE(7, in_.vrfName,
                   "UpstreamSgRptSm::ignoreRxJoinPrune() Rpf: {} Msg: {} MsgNeigh: {}{}", rpf.str(),
                   m.riKey, m.upstreamNeighbor, reason);
    return true;
}

void UpstreamSgRptSm::handleRxJoin() {
    const JoinPruneMessageInfo m = rxEntry(in_, "UpstreamSgRptSm", true);
    // Only another router's Join(S,G,rpt) makes this router's override
    // unnecessary; a Join(S,G) says nothing about the shared tree.
    if (!m.sourceFlags.rpt && !m.riKey.isWc()) {
        CASK_VRF_TRACE(7, in_.vrfName, "UpstreamSgRptSm::handleRxJoin({}), Message for (S,G)",
                       m.riKey);
        ignoredRxJoinsInc();
        return;
    }
    if (ignoreRxJoinPrune(m)) {
        ignoredRxJoinsInc();
        return;
    }
    doMaybeCancelOverrideTimer(*in_.localStatus->sgRoute().raw(m.riKey));
}

void UpstreamSgRptSm::handleRxPrune() {
    const JoinPruneMessageInfo m = rxEntry(in_, "UpstreamSgRptSm", false);
    // RFC 7761 4.5.7: a Prune(S,G,rpt), or a Prune(S,G), to RPF'(S,G,rpt)
    // would take the source off the shared tree this router still needs.
    if (ignoreRxJoinPrune(m)) {
        ignoredRxPrunesInc();
        return;
    }
    const Route& route = *in_.localStatus->sgRoute().raw(m.riKey);
    CASK_VRF_TRACE(7, in_.vrfName, "UpstreamSgRptSm::handleRxPrune({}), Sending override RPT join",
                   m.riKey);
    CASK_EVENT("UpstreamSgRptSm: Override RPT join for route {} to {} on {}, pruned by {}", m.riKey,
               m.upstreamNeighbor, m.intf, m.sender);
    write(rpfPrimeSgRpt(route), JoinPruneSet::override_, Kind::rptJoined, m.riKey);
}

Cask::Ptr<UpstreamSgRptSm> upstreamSgRptSmFactory(const VrfContext& in) {
    auto sm = Cask::make<UpstreamSgRptSm>(in);
    sm->handleInitialized();
    return sm;
}

}  // namespace Routing::Pim::SparseMode
