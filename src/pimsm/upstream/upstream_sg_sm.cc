#include "pimsm/upstream/upstream_sg_sm.h"

#include <string>
#include <vector>

#include <fmt/format.h>

#include "cask/trace.h"
#include "pimsm/common/vrf_inputs.h"
#include "pimsm/upstream/shared_tree.h"
#include "pimsm/upstream/upstream_rx.h"
#include "pimsm/upstream/upstream_wc_sm.h"
#include "platform/mfib_table.h"

namespace Routing::Pim::SparseMode {

using Kind = JoinPruneEntry::Kind;

namespace {

// AssertWinner(S,G,I) when this router lost the (S,G) assert on I, else
// nothing. The assert (S,G) machine keeps Intf::assertInfo; while nothing
// writes it, the state stays NoInfo and RPF'(S,G) is the unicast RPF.
Wirl::IpGenAddr lostAssertWinner(const Route& route, Wirl::IntfId intf) {
    const Intf* rec = route.routeIntfRaw(intf);
    if (!rec || rec->assertInfo().assertState != AssertState::iAmAssertLoser) return {};
    return rec->assertWinner();
}

// Remembers the route whose join state is changing for the length of a scope.
class JoinChange {
public:
    JoinChange(const Route*& slot, const Route& route) : slot_(slot), saved_(slot) {
        slot_ = &route;
    }
    ~JoinChange() { slot_ = saved_; }
    JoinChange(const JoinChange&) = delete;
    JoinChange& operator=(const JoinChange&) = delete;

private:
    const Route*& slot_;
    const Route* saved_;
};

}  // namespace

UpstreamSgSm::UpstreamSgSm(const VrfContext& in)
    : in_(requireInputs(in, "UpstreamSgSm", &VrfContext::localStatus, &VrfContext::status,
                        &VrfContext::pimStatus, &VrfContext::joinPruneStatus)),
      writer_(*in.joinPruneStatus, in.vrfName),
      forwardBits_("UpstreamSgSm", in_.vrfName) {
    route_.reserve(in_.routeCapacity);
    LocalStatus::Notifiee::notifierIs(in_.localStatus);
    rxWatcher_.watch(in_.joinPruneRxStatus);
}

UpstreamSgSm::~UpstreamSgSm() = default;

void UpstreamSgSm::handleInitialized() {
    CASK_VRF_TRACE(6, in_.vrfName, "UpstreamSgSm::handleInitialized()");
    const LocalStatus& ls = *in_.localStatus;
    // Routes first: a route taken up writes its Join at its RPF' now, so
    // what the sweep below finds elsewhere is left from the earlier run.
    route_.sweep(ls.wcRoute(), [this](const RouteKey& key) { handleWcRoute(key); });
    route_.sweep(ls.sgRoute(), [this](const RouteKey& key) { handleSgRoute(key); });

    auto joinedThere = [&](const NeighborKey& nk, const Route& r) {
        if (r.upJoinState() != UpJoinState::upJoined) return false;
        for (const Rpf& rpf : {r.rpf(), r.prevRpf(), backupRpf(r)}) {
            if (rpf.hasNeighbor() && rpf.intf == nk.intf && rpf.neighbor == nk.address) {
                return true;
            }
        }
        return false;
    };
    const auto joins =
        writer_.periodicSweep(Kind::joined, [&](const NeighborKey& nk, const JoinPruneEntry& e) {
            const Route* r = ls.sgRoute().raw(e.key);
            return !r || !joinedThere(nk, *r);
        });
    for (const auto& [nk, e] : joins) {
        if (ls.sgRouteHas(e.key)) {
            CASK_VRF_TRACE(
                7, in_.vrfName,
                "UpstreamSgSm::handleInitialized(), Deleting periodic join for changed RPF {} for "
                "neighbor {}",
                e.key, nk.address);
        } else {
            CASK_VRF_TRACE(
                7, in_.vrfName,
                "UpstreamSgSm::handleInitialized(), Deleting periodic join for deleted route {} "
                "for neighbor {}",
                e.key, nk.address);
        }
    }
    const auto prunes = writer_.periodicSweep(
        Kind::pruned,
        [&](const NeighborKey&, const JoinPruneEntry& e) { return !ls.sgRouteHas(e.key); });
    for (const auto& [nk, e] : prunes) {
        CASK_VRF_TRACE(7, in_.vrfName,
                       "UpstreamSgSm::handleInitialized(), Deleting periodic prune for deleted "
                       "route {} for neighbor {}",
                       e.key, nk.address);
    }
    initializedIs(true);
}

void UpstreamSgSm::handleSgRoute(const RouteKey& key) {
    Route* route = in_.localStatus->sgRoute().raw(key);
    if (RhoRoute* rho = route_.update(key, route, *this)) {
        CASK_VRF_TRACE(6, in_.vrfName, "UpstreamSgSm::handleSgRoute({}), route added", key);
        wcFanOut_.sgAdded(key);
        rho->handleRouteInit();
    }
}

void UpstreamSgSm::handleWcRoute(const RouteKey& key) {
    wcFanOut_.handleWcRoute(key);
}

void UpstreamSgSm::handleWcChange(const Wirl::IpGenAddr& group, const WcChange& change) {
    // Without an interface (the (*,G) route came or went, or RPF_interface(RP(G))
    // moved), lost_assert(*,G) and lost_assert(S,G,rpt) may change on any.
    handleWcIntf(group, change.intf);
}

void UpstreamSgSm::handleWcIntf(const Wirl::IpGenAddr& group, Wirl::IntfId intf) {
    wcFanOut_.forEachSg(group, [&](RhoRoute& rho) {
        Route& r = rho.route();
        if (intf.isNull()) {
            // The (*,G) route came, went or moved: a route not joined toward
            // its source may leave the shared tree, and gets RPF'(S,G) back.
            if (r.upJoinState() != UpJoinState::upJoined) rho.doEvalRpfPrimeSg();
            rho.doUpdateForwardBits();
        } else {
            doMaybeSetForwardBit(intf, r);
            doMaybeSetFastForwardBit(intf, r);
        }
        doEvalJoinDesiredSg(r);
    });
}

Rpf UpstreamSgSm::backupRpf(const Route& route) {
    if (!route.umhFrr() || route.isDuplicateRpf()) return Rpf{};
    return route.rpfFrr();
}

Wirl::IntfId UpstreamSgSm::findAcceptingIntfId(const Route& route) const {
    if (in_.mfibTidal) {
        const auto* record = in_.mfibTidal->route(Routing::Multicast::Fib::convertKey(route.key()));
        if (record && !record->iif().isNull() && !record->iif().isRegister()) return record->iif();
    }
    return route.mbrIif();
}

RpfInfo UpstreamSgSm::rpfPrimeSg(Route& route) {
    const RouteKey& key = route.key();
    CASK_VRF_TRACE(7, in_.vrfName, "UpstreamSgSm::rpfPrimeSg({}) rpf lookup {}", key, key.source());
    RpfInfo info;
    if (in_.rpfTable) {
        if (auto lookup = in_.rpfTable->doLookup(key.source())) info = *lookup;
    }
    // After a restart the unicast routes may not be back while the
    // forwarding plane still accepts the route's traffic on an interface:
    // RPF stays there until the unicast table answers.
    if (!info.rpf.resolved() && route.hwRecovered()) {
        const Wirl::IntfId accepting = findAcceptingIntfId(route);
        CASK_VRF_TRACE(7, in_.vrfName, "UpstreamSgSm::rpfPrimeSg({}), acceptingIntfId: {}", key,
                       accepting);
        if (auto extracted = PimRpfTable::rpfInfoFromIntfId(accepting, *in_.pimStatus)) {
            CASK_VRF_TRACE(7, in_.vrfName, "UpstreamSgSm::rpfPrimeSg({}), extractedRpfInfo: {}",
                           key, extracted->rpf.str());
            info = *extracted;
            CASK_VRF_TRACE(7, in_.vrfName, "UpstreamSgSm::rpfPrimeSg({}), NSF RPF resolved", key);
            route.nsfRpfResolvedIs(true);
        }
    }
    if (!info.rpf.resolved()) {
        CASK_VRF_TRACE(7, in_.vrfName, "UpstreamSgSm::rpfPrimeSg({}), No RPF info for source {}",
                       key, key.source());
        return info;
    }
    Rpf& rpf = info.rpf;
    CASK_VRF_TRACE(8, in_.vrfName,
                   "UpstreamSgSm::rpfPrimeSg() rpfAttached {} for route {} rpfPrefix {} rpfIntfId "
                   "{} rpf.rpfNeighbor {} rpfFrr {}",
                   info.attached, key, info.prefix, rpf.intf, rpf.neighbor, backupRpf(route).str());
    // RFC 7761 4.1.5: having lost the assert on the RPF interface, the
    // winner is the upstream neighbour.
    const Wirl::IpGenAddr winner = lostAssertWinner(route, rpf.intf);
    if (winner.isSet()) {
        rpf.neighbor = winner;
        CASK_VRF_TRACE(7, in_.vrfName, "UpstreamSgSm::rpfPrimeSg{}: I am assert loser, RPF {}", key,
                       rpf.str());
    } else if (!rpf.hasNeighbor()) {
        // A directly connected source: nobody upstream to join.
        return info;
    }
    // A Join goes only to a known PIM neighbour, whose Join/Prune entry
    // exists; the assert winner is held to the same rule.
    if (rpf.intf.isRegister() || !in_.pimStatus->intfRaw(rpf.intf) ||
        !in_.pimStatus->neighborExists(rpf.intf, rpf.neighbor)) {
        CASK_VRF_TRACE(7, in_.vrfName,
                       "UpstreamSgSm::rpfPrimeSg{}: No Pim enabled intf or neighbor for RPF {}",
                       key, rpf.str());
        rpf.neighbor = Wirl::IpGenAddr();
    }
    return info;
}

void UpstreamSgSm::doEvalJoinDesiredSg(Route& route) {
    if (joinChanging_ == &route) return;
    const RouteKey key = route.key();
    const bool desiredSg = route.joinDesiredSg();
    const bool viaFastFailover = !desiredSg && joinDesiredSgFastFailover(route);
    const bool desired = desiredSg || viaFastFailover;
    const UpJoinState state = route.upJoinState();
    CASK_VRF_TRACE(8, in_.vrfName,
                   "UpstreamSgSm::doEvalJoinDesiredSg({}) KAT expired: {}, Null Immediate Olist: "
                   "{}, Null Inherited Olist: {}, Switching: {} FastFailoverIntfs: {}",
                   key, route.katExpired(), route.nullImmediateOlistSg(),
                   route.nullInheritedOlistSg(), route.switching(), viaFastFailover);
    if (state == UpJoinState::upNotJoined && desired) {
        const JoinChange guard(joinChanging_, route);
        CASK_VRF_TRACE(7, in_.vrfName,
                       "UpstreamSgSm::doEvalJoinDesiredSg(): JoinDesired{} is True, UpJoinState: "
                       "{} --> {}",
                       key, state, UpJoinState::upJoined);
        if (viaFastFailover) {
            CASK_VRF_TRACE(7, in_.vrfName,
                           "UpstreamSgSm::doEvalJoinDesiredSg(): JoinDesired {} is true due to "
                           "fast failover feature. ",
                           key);
        }
        // The route starts its move to the shortest-path tree.
        route.spTreeIs(false);
        CASK_VRF_TRACE(7, in_.vrfName,
                       "UpstreamSgSm::doEvalJoinDesiredSg({}), setting switching to True", key);
        route.switchingIs(true);
        const RpfInfo info = rpfPrimeSg(route);
        CASK_VRF_TRACE(7, in_.vrfName, "UpstreamSgSm::doEvalJoinDesiredSg({}) updateRpf to {}", key,
                       info.rpf.str());
        route.umh()->doUpdateRpf(info.rpf);
        route.umh()->rpfAttachedIs(info.attached);
        // The backup upstream (" updateRpf for rpfFrr ") is fast failover's.
        // Announced by handleUpJoinState, which sends the join.
        route.upJoinStateIs(UpJoinState::upJoined);
    } else if (state == UpJoinState::upJoined && !desired) {
        const JoinChange guard(joinChanging_, route);
        CASK_VRF_TRACE(7, in_.vrfName,
                       "UpstreamSgSm::doEvalJoinDesiredSg(): JoinDesired{} is False, UpJoinState: "
                       "{} --> {}",
                       key, state, UpJoinState::upNotJoined);
        CASK_EVENT("UpstreamSgSm: Route{}, flags: {}, upJoined --> upNotJoined", key,
                   route.routeFlagsStr());
        const Rpf rpf = route.rpf();
        doPrevRpfNeighborCleanup(key, rpf);
        const Rpf backup = backupRpf(route);
        if (backup.hasNeighbor() && !sameNeighbor(backup, rpf) && joinWrittenAt(backup, key)) {
            doPrevRpfNeighborCleanup(key, backup);
        }
        if (route.prevRpf().hasNeighbor()) {
            const Rpf prev = route.prevRpf();
            route.umh()->prevRpfIs(Rpf{});
            if (!sameNeighbor(prev, rpf)) doPrevRpfNeighborCleanup(key, prev);
        }
        route.iifSwitchStateIs(IifSwitchState::iifSwitchIdle);
        route.spTreeIs(false);
        route.switchingIs(false);
        route.umh()->rpfAttachedIs(false);
        route.upJoinStateIs(UpJoinState::upNotJoined);
    }
}

bool UpstreamSgSm::joinWrittenAt(const Rpf& rpf, const RouteKey& key) const {
    if (!rpf.hasNeighbor()) return false;
    const JoinPruneNeighbor* nbr = writer_.neighbor(rpf.intf, rpf.neighbor);
    return nbr && writer_.has(*nbr, JoinPruneSet::periodic, JoinPruneEntry::of(Kind::joined, key));
}

void UpstreamSgSm::doRpfNeighborJoin(const RouteKey& key, Wirl::IntfId intf,
                                     const Wirl::IpGenAddr& neighbor) {
    if (!neighbor.isSet() || intf.isRegister()) return;
    JoinPruneNeighbor& nbr = writer_.rpfNeighbor(intf, neighbor);
    const JoinPruneEntry join = JoinPruneEntry::of(Kind::joined, key);
    CASK_VRF_TRACE(7, in_.vrfName,
                   "UpstreamSgSm::doRpfNeighborJoin({}), RPF change: Sending triggered join to rpf "
                   "neighbor {}",
                   key, neighbor);
    // Replaces a Prune(S,G) of the source still waiting to go to it.
    writer_.entryIs(nbr, JoinPruneSet::triggered, join);
    CASK_VRF_TRACE(8, in_.vrfName,
                   "UpstreamSgSm::doRpfNeighborJoin({}), RPF change: Adding periodic join for rpf "
                   "neighbor {}intfId : {}",
                   key, neighbor, intf);
    writer_.entryIs(nbr, JoinPruneSet::periodic, join);
}

void UpstreamSgSm::doPrevRpfNeighborCleanup(const RouteKey& key, const Rpf& prevRpf) {
    if (!prevRpf.hasNeighbor()) return;
    const auto& neighbor = prevRpf.neighbor;
    JoinPruneNeighbor* nbr = writer_.neighbor(prevRpf.intf, neighbor);
    if (!nbr) {
        // Its entry went with the neighbour, and nothing can be sent to it.
        CASK_VRF_TRACE(7, in_.vrfName, "UpstreamSgSm::doPrevRpfNeighborCleanup({}), Neighbor down",
                       key);
        return;
    }
    const JoinPruneEntry join = JoinPruneEntry::of(Kind::joined, key);
    // Removing a Join removes its suppression mark with it.
    CASK_VRF_TRACE(8, in_.vrfName,
                   "UpstreamSgSm::doPrevRpfNeighborCleanup(), RPF'(S,G) change: Deleting periodic "
                   "join for route {} for neighbor {}interface {}",
                   key, neighbor, prevRpf.intf);
    writer_.entryDel(*nbr, JoinPruneSet::periodic, join);
    CASK_VRF_TRACE(8, in_.vrfName,
                   "UpstreamSgSm::doPrevRpfNeighborCleanup(), Deleting pending triggered join for "
                   "route {} for neighbor {}",
                   key, neighbor);
    writer_.entryDel(*nbr, JoinPruneSet::triggered, join);
    CASK_VRF_TRACE(8, in_.vrfName,
                   "UpstreamSgSm::doPrevRpfNeighborCleanup(), Deleting pending override join for "
                   "route {} for neighbor {}",
                   key, neighbor);
    writer_.entryDel(*nbr, JoinPruneSet::override_, join);
    if (in_.pimStatus->activeNeighborHas(NeighborKey{prevRpf.intf, neighbor})) {
        CASK_VRF_TRACE(7, in_.vrfName,
                       "UpstreamSgSm::doPrevRpfNeighborCleanup(), Sending triggered prune for "
                       "route {} to neighbor {} on Interface {}",
                       key, neighbor, prevRpf.intf);
        writer_.entryIs(*nbr, JoinPruneSet::triggered, JoinPruneEntry::of(Kind::pruned, key));
    }
    CASK_VRF_TRACE(8, in_.vrfName, "UpstreamSgSm::doPrevRpfNeighborCleanup({}) prevRpfNeighbor {}",
                   key, neighbor);
}

void UpstreamSgSm::doMaybeSetForwardBit(Wirl::IntfId id, Route& route) {
    Intf* intf = route.routeIntfRaw(id);
    // On the shared tree the upstream (S,G,rpt) machine keeps the bits.
    if (!intf || onSharedTree(route, in_.rpfTable)) return;
    // Neither the incoming interface nor the backup incoming one forwards.
    forwardBits_.forward(
        *intf, route.key(),
        id != route.iif() && id != backupRpf(route).intf && intf->inheritedOlistSg());
}

void UpstreamSgSm::doMaybeSetFastForwardBit(Wirl::IntfId id, Route& route) {
    Intf* intf = route.routeIntfRaw(id);
    if (!intf || onSharedTree(route, in_.rpfTable)) return;
    // The backup list exists only with a backup upstream, and never holds
    // the backup upstream's own interface.
    const bool eligible = route.umhFrr() && id != route.rpfFrr().intf;
    forwardBits_.fastForward(*intf, route.key(), eligible,
                             id != route.iif() && intf->inheritedOlistSg());
}

const Rpf* UpstreamSgSm::rxRpf(const Route& route, const JoinPruneMessageInfo& m) {
    const Rpf* backup = route.umhFrr() ? &route.umhFrr()->rpf() : nullptr;
    return rpfAddressedBy({&route.rpf(), &route.prevRpf(), backup}, m);
}

bool UpstreamSgSm::ignoreRxJoinPrune(const JoinPruneMessageInfo& m) const {
    const Route* route = m.riKey.isWc() ? nullptr : in_.localStatus->sgRoute().raw(m.riKey);
    static constexpr RxTexts texts{
        .otherKind = ", Message for (*,G)",
        .noRoute = ", No route",
        .notActive = ", Not in joined state",
        .notUpstream = ", Message not to RPF'(S,G) or prev RPF'(S,G) or RpfFrr ",
    };
    const std::string reason = rxIgnoreReason(
        in_, texts, m, m.sourceFlags.isStarG() || m.riKey.isWc(), m.riKey, route,
        [](const Route& r) { return r.upJoinState() == UpJoinState::upJoined; },
        [&](const Route& r) { return rxRpf(r, m) != nullptr; });
    if (reason.empty()) return false;
    const Rpf rpf = route ? route->rpf() : Rpf{};
    CASK_VRF_TRACE(7, in_.vrfName,
                   "UpstreamSgSm::ignoreRxJoinPrune() Rpf: {} Msg: {} Neigh: {} MsgNeigh: {}{}",
                   rpf.str(), m.riKey, rpf.neighbor, m.upstreamNeighbor, reason);
    return true;
}

void UpstreamSgSm::handleRxJoin() {
    const JoinPruneMessageInfo m = rxEntry(in_, "UpstreamSgSm", true);
    // A Join(S,G,rpt) says nothing about the shortest-path tree.
    if (m.sourceFlags.rpt && !m.sourceFlags.isStarG()) {
        CASK_VRF_TRACE(7, in_.vrfName, "UpstreamSgSm::handleRxJoin({}), Message for (S,G,rpt)",
                       m.riKey);
        ignoredRxJoinsInc();
        return;
    }
    if (ignoreRxJoinPrune(m)) {
        ignoredRxJoinsInc();
        return;
    }
    const Route& route = *in_.localStatus->sgRoute().raw(m.riKey);
    const Rpf& rpf = *rxRpf(route, m);
    JoinPruneNeighbor* nbr = writer_.neighbor(rpf.intf, rpf.neighbor);
    const JoinPruneEntry joined = JoinPruneEntry::of(Kind::joined, m.riKey);
    if (const char* why = unsuppressedBecause(nbr, m.riKey.group(), &joined)) {
        CASK_VRF_TRACE(7, in_.vrfName, "UpstreamSgSm::handleRxJoin({}){}", m.riKey, why);
        ignoredRxJoinsInc();
        return;
    }
    // RFC 7761 4.5.5, see Join(S,G) to RPF'(S,G): the packet side holds
    // this router's periodic Join back for its suppression period.
    CASK_VRF_TRACE(7, in_.vrfName, "UpstreamSgSm::handleRxJoin({}), Suppressing join", m.riKey);
    writer_.entryIs(*nbr, JoinPruneSet::periodic,
                    JoinPruneEntry::of(Kind::joinSuppressed, m.riKey));
}

void UpstreamSgSm::handleRxPrune() {
    const JoinPruneMessageInfo m = rxEntry(in_, "UpstreamSgSm", false);
    // RFC 7761 4.5.5: a Prune(S,G) or Prune(S,G,rpt) to RPF'(S,G) is
    // overridden alike.
    if (ignoreRxJoinPrune(m)) {
        ignoredRxPrunesInc();
        return;
    }
    const Route& route = *in_.localStatus->sgRoute().raw(m.riKey);
    JoinPruneNeighbor* nbr = overrideNeighbor(in_, "UpstreamSgSm", writer_, *rxRpf(route, m), m);
    if (!nbr) {
        ignoredRxPrunesInc();
        return;
    }
    CASK_VRF_TRACE(7, in_.vrfName, "UpstreamSgSm::handleRxPrune({}), Sending override join",
                   m.riKey);
    writer_.entryIs(*nbr, JoinPruneSet::override_, JoinPruneEntry::of(Kind::joined, m.riKey));
}

Cask::Ptr<UpstreamSgSm> upstreamSgSmFactory(const VrfContext& in) {
    auto sm = Cask::make<UpstreamSgSm>(in);
    sm->handleInitialized();
    return sm;
}

}  // namespace Routing::Pim::SparseMode
