#include "pimsm/upstream/upstream_wc_sm.h"

#include <vector>

#include <fmt/format.h>

#include "cask/trace.h"
#include "pimsm/common/vrf_inputs.h"
#include "pimsm/upstream/upstream_rx.h"

namespace Routing::Pim::SparseMode {

// --- UpstreamWcSm ------------------------------------------------------------

UpstreamWcSm::UpstreamWcSm(const VrfContext& in)
    : in_(requireInputs(in, "UpstreamWcSm", &VrfContext::localStatus, &VrfContext::pimStatus,
                        &VrfContext::joinPruneStatus)),
      writer_(*in.joinPruneStatus, in.vrfName),
      forwardBits_("UpstreamWcSm", in_.vrfName, true) {
    route_.reserve(in_.routeCapacity);
    LocalStatus::Notifiee::notifierIs(in_.localStatus);
    rxWatcher_.watch(in_.joinPruneRxStatus);
}

UpstreamWcSm::~UpstreamWcSm() = default;

UpstreamWcSm::RhoRoute* UpstreamWcSm::rhoRoute(const RouteKey& key) const {
    return route_.get(key);
}

void UpstreamWcSm::handleInitialized() {
    CASK_VRF_TRACE(6, in_.vrfName, "UpstreamWcSm::handleInitialized()");
    const LocalStatus& ls = *in_.localStatus;
    const auto removed = writer_.periodicSweep(
        JoinPruneEntry::Kind::wc,
        [&](const NeighborKey&, const JoinPruneEntry& e) { return !ls.wcRouteHas(e.key); });
    for (const auto& [nk, e] : removed) {
        CASK_VRF_TRACE(
            7, in_.vrfName,
            "UpstreamWcSm::handleInitialized(), Deleting periodic (*,G) join for deleted "
            "route {} for neighbor {} on interface {}",
            e.key, nk.address, nk.intf);
        CASK_EVENT("UpstreamWcSm:handleInitialized(): delete *,g join. {} to neighbor: {} on {}",
                   e.key, nk.address, nk.intf);
    }
    route_.sweep(ls.wcRoute(), [this](const RouteKey& key) { handleWcRoute(key); });
    initializedIs(true);
}

void UpstreamWcSm::handleWcRoute(const RouteKey& key) {
    Route* route = in_.localStatus->wcRoute().raw(key);
    const RhoRoute* old = route_.get(key);
    if (old && old->reactorRecord() == route) return;
    if (old) CASK_VRF_TRACE(6, in_.vrfName, "UpstreamWcSm::handleWcRoute({}), route deleted", key);
    if (RhoRoute* rho = route_.update(key, route, *this)) {
        CASK_VRF_TRACE(6, in_.vrfName, "UpstreamWcSm::handleWcRoute({}), route added", key);
        rho->handleRouteInit();
    }
}

Wirl::IpGenAddr UpstreamWcSm::rpOf(const Wirl::IpGenAddr& group) const {
    return in_.rpMapping ? in_.rpMapping->rpFor(group) : Wirl::IpGenAddr();
}

bool UpstreamWcSm::joinWrittenAt(const Rpf& rpf, const Wirl::IpGenAddr& group) const {
    if (!rpf.hasNeighbor()) return false;
    const JoinPruneNeighbor* nbr = writer_.neighbor(rpf.intf, rpf.neighbor);
    return nbr && writer_.has(*nbr, JoinPruneSet::periodic, JoinPruneEntry::wcAny(group));
}

Rpf UpstreamWcSm::rpfPrimeWc(Route& route, bool updateUmh) {
    const RouteKey& key = route.key();
    const Wirl::IpGenAddr rp = rpOf(key.group());
    if (!rp.isSet() || !in_.rpfTable || !in_.rpfTable->available()) {
        CASK_VRF_TRACE(7, in_.vrfName,
                       "UpstreamWcSm::rpfPrimeWc({}), rpfPrimeWc: No RPF info for group {}", key,
                       key.group());
        return Rpf{};
    }
    CASK_VRF_TRACE(7, in_.vrfName,
                   "UpstreamWcSm::rpfPrimeWc(), looking up RPF for RP {} for route {}", rp, key);
    if (updateUmh) route.umh()->rpIs(rp);
    const auto lookup = in_.rpfTable->doLookup(rp);
    if (lookup) {
        CASK_VRF_TRACE(
            8, in_.vrfName,
            "UpstreamWcSm::rpfPrimeWc() rpfAttached {} for route {} rpfPrefix {} rpfIntfId {} "
            "rpf.rpfNeighbor {}",
            lookup->attached, key, lookup->prefix, lookup->rpf.intf, lookup->rpf.neighbor);
        if (updateUmh) route.umh()->rpfAttachedIs(lookup->attached);
    }
    if (in_.rpLocalStatus && in_.rpLocalStatus->iAmRp(rp)) {
        CASK_VRF_TRACE(7, in_.vrfName,
                       "UpstreamWcSm::rpfPrimeWc({}), rpfPrimeWc: I am RP {} for route {}", key, rp,
                       key);
        // The root of the shared tree: traffic arrives by register (or on
        // the RP's own interface) and no join goes further.
        Rpf atRp = lookup ? lookup->rpf : Rpf{Wirl::IntfId::register0(), {}};
        atRp.neighbor = Wirl::IpGenAddr();
        return atRp;
    }
    if (!lookup) {
        CASK_VRF_TRACE(7, in_.vrfName,
                       "UpstreamWcSm::rpfPrimeWc({}), rpfPrimeWc: No RPF info for group {}", key,
                       key.group());
        return Rpf{};
    }
    Rpf rpf = lookup->rpf;
    // RFC 7761 4.1.5: a directly connected RP is its own RPF neighbour.
    if (lookup->attached) rpf.neighbor = rp;
    const Intf* rpfIntf = route.routeIntfRaw(rpf.intf);
    if (rpfIntf && rpfIntf->assertInfo().assertState == AssertState::iAmAssertLoser) {
        rpf.neighbor = rpfIntf->assertWinner();
        CASK_VRF_TRACE(7, in_.vrfName, "UpstreamWcSm::rpfPrimeWc{}: I am assert loser, RPF {}", key,
                       rpf.str());
    }
    // The winner of an assert is held to the same rule: a join goes only to
    // a known PIM neighbour, whose Join/Prune entry exists.
    if (rpf.intf.isRegister() || !in_.pimStatus->intfRaw(rpf.intf) ||
        !in_.pimStatus->neighborExists(rpf.intf, rpf.neighbor)) {
        CASK_VRF_TRACE(7, in_.vrfName,
                       "UpstreamWcSm::rpfPrimeWc{}: No Pim enabled intf or neighbor for RPF {}",
                       key, rpf.str());
        rpf.neighbor = Wirl::IpGenAddr();
    }
    return rpf;
}

bool UpstreamWcSm::doEvalRpfPrimeWc(Route& route) {
    CASK_VRF_TRACE(7, in_.vrfName, "UpstreamWcSm::doEvalRpfPrimeWc {}", route.key());
    const Rpf rpf = rpfPrimeWc(route, true);
    if (rpf == route.rpf()) return false;
    route.umh()->doUpdateRpf(rpf);
    return true;
}

void UpstreamWcSm::doEvalJoinDesiredWc(Route& route, bool rpfFresh) {
    const RouteKey key = route.key();
    const bool desired = route.joinDesiredWc();
    const UpJoinState state = route.upJoinState();
    if (state == UpJoinState::upNotJoined && desired) {
        CASK_VRF_TRACE(
            7, in_.vrfName,
            "UpstreamWcSm::doEvalJoinDesiredWc(): JoinDesired{} is True, UpJoinState: {}", key,
            state);
        CASK_EVENT("UpstreamWcSm: Route {}, flags: {}, upNotJoined --> upJoined", key,
                   route.routeFlagsStr());
        route.upJoinStateIs(UpJoinState::upJoined);
        // An unchanged RPF' announces nothing, so the join is sent here.
        // RPF'(*,G) has just been worked out from the group's RP and the RP's
        // unicast route, and has a neighbour only when both were found: the
        // join goes toward the RP it recorded, with no second lookup.
        if ((rpfFresh || !doEvalRpfPrimeWc(route)) && route.rpf().hasNeighbor()) {
            doJoinNeighbor(key, route.rpf().intf, route.rpf().neighbor, route.umh()->rp());
        }
    } else if (state == UpJoinState::upJoined && !desired) {
        CASK_VRF_TRACE(
            7, in_.vrfName,
            "UpstreamWcSm::doEvalJoinDesiredWc(): JoinDesired{} is False, UpJoinState: {}", key,
            state);
        CASK_EVENT("UpstreamWcSm: Route {}, flags: {}, upJoined --> upNotJoined", key,
                   route.routeFlagsStr());
        doPrevRpfNeighborCleanup(key, route.rpf());
        if (route.iifSwitching()) {
            CASK_VRF_TRACE(
                7, in_.vrfName,
                "UpstreamWcSm::doEvalJoinDesiredWc(){} JoinDesired is False, IifSwitching: {}", key,
                route.iifSwitching());
            CASK_EVENT("UpstreamWcSm: Route {}, flags: {}, cancel iifSwitching ", key,
                       route.routeFlagsStr());
            const Rpf prev = route.prevRpf();
            route.umh()->prevRpfIs(Rpf{});
            doPrevRpfNeighborCleanup(key, prev);
            route.iifSwitchingIs(false);
        }
        route.upJoinStateIs(UpJoinState::upNotJoined);
        route.umh()->doUpdateRpf(rpfPrimeWc(route, true));
    }
}

void UpstreamWcSm::doRpfNeighborJoin(const RouteKey& key, Wirl::IntfId intf,
                                     const Wirl::IpGenAddr& neighbor) {
    if (!neighbor.isSet() || intf.isRegister()) return;
    const Wirl::IpGenAddr rp = rpOf(key.group());
    if (!rp.isSet()) {
        CASK_VRF_TRACE(7, in_.vrfName,
                       "UpstreamWcSm::doRpfNeighborJoin({}), No RP found for group {}", key,
                       key.group());
        CASK_VRF_TRACE(8, in_.vrfName, "UpstreamWcSm:doRpfNeighborJoin Route {}, no RP found ",
                       key);
        return;
    }
    if (!in_.rpfTable || !in_.rpfTable->doLookup(rp)) {
        CASK_VRF_TRACE(7, in_.vrfName,
                       "UpstreamWcSm::doRpfNeighborJoin({}), No RPF info for group {}", key,
                       key.group());
        CASK_VRF_TRACE(8, in_.vrfName, "UpstreamWcSm:doRpfNeighborJoin Route {}, no rpInfo ", key);
        return;
    }
    doJoinNeighbor(key, intf, neighbor, rp);
}

void UpstreamWcSm::doJoinNeighbor(const RouteKey& key, Wirl::IntfId intf,
                                  const Wirl::IpGenAddr& neighbor, const Wirl::IpGenAddr& rp) {
    JoinPruneNeighbor& nbr = writer_.rpfNeighbor(intf, neighbor);
    CASK_VRF_TRACE(7, in_.vrfName,
                   "UpstreamWcSm:doRpfNeighborJoin Route {}, sending join to neighbor: {}", key,
                   neighbor);
    doWriteJoin(nbr, key.group(), rp);
}

void UpstreamWcSm::doWriteJoin(JoinPruneNeighbor& nbr, const Wirl::IpGenAddr& group,
                               const Wirl::IpGenAddr& rp) {
    CASK_VRF_TRACE(
        8, in_.vrfName,
        "UpstreamWcSm::doRpfNeighborJoin(), RPF change: Adding periodic join for neighbor {}",
        nbr.key().address);
    CASK_VRF_TRACE(
        8, in_.vrfName,
        "UpstreamWcSm::doRpfNeighborJoin(), RPF change: Sending triggered join to neighbor {}",
        nbr.key().address);
    writer_.wcJoinIs(nbr, group, rp);
}

bool UpstreamWcSm::rpChanged(const Route& route) const {
    const Wirl::IpGenAddr& group = route.key().group();
    const Wirl::IpGenAddr rp = rpOf(group);
    if (route.umh()->rp() != rp) return true;
    // The RP may have been taken up by another re-evaluation of RPF' (a
    // change-flag review) that left the Join naming the former RP.
    const Rpf& rpf = route.rpf();
    if (route.upJoinState() != UpJoinState::upJoined || !rpf.hasNeighbor() || !rp.isSet()) {
        return false;
    }
    const JoinPruneNeighbor* nbr = writer_.neighbor(rpf.intf, rpf.neighbor);
    return nbr &&
           JoinPruneWriter::has(*nbr, JoinPruneSet::periodic, JoinPruneEntry::wcAny(group)) &&
           !JoinPruneWriter::has(*nbr, JoinPruneSet::periodic, JoinPruneEntry::wcJoin(group, rp));
}

void UpstreamWcSm::handleRpChange(Route& route) {
    const RouteKey key = route.key();
    const Wirl::IpGenAddr rp = rpOf(key.group());
    CASK_VRF_TRACE(6, in_.vrfName, "UpstreamWcSm::handleRpChange({}) rp: {} previous rp: {}", key,
                   rp, route.umh()->rp());
    CASK_EVENT("UpstreamWcSm: Route {}, RP changed to {}", key, rp);
    // rpfPrimeWc stores only an RP it finds: a withdrawn mapping leaves none.
    if (!rp.isSet()) route.umh()->rpIs(Wirl::IpGenAddr());
    // A new RPF' announces itself: handleRpf joins the new neighbour, naming
    // the new RP, and cleans up the old one.
    if (!doEvalRpfPrimeWc(route) && route.upJoinState() == UpJoinState::upJoined) {
        const Rpf rpf = route.rpf();
        const JoinPruneNeighbor* nbr =
            rpf.hasNeighbor() ? writer_.neighbor(rpf.intf, rpf.neighbor) : nullptr;
        if (nbr && rp.isSet() &&
            !JoinPruneWriter::has(*nbr, JoinPruneSet::periodic,
                                  JoinPruneEntry::wcJoin(key.group(), rp))) {
            CASK_VRF_TRACE(
                7, in_.vrfName,
                "UpstreamWcSm::handleRpChange({}), same neighbor {}: sending join toward RP {}",
                key, rpf.neighbor, rp);
            doRpfNeighborJoin(key, rpf.intf, rpf.neighbor);
        }
    }
    doEvalJoinDesiredWc(route);
}

void UpstreamWcSm::doPrevRpfNeighborCleanup(const RouteKey& key, const Rpf& prevRpf) {
    if (!prevRpf.hasNeighbor()) return;
    const auto& neighbor = prevRpf.neighbor;
    const auto& group = key.group();
    CASK_VRF_TRACE(7, in_.vrfName,
                   "UpstreamWcSm:doPrevRpfNeighborCleanup Route {}, prevNeighbor: {}", key,
                   neighbor);
    JoinPruneNeighbor* nbr = writer_.neighbor(prevRpf.intf, neighbor);
    if (!nbr) {
        // Its entry went with the neighbour, and nothing can be sent to it.
        CASK_VRF_TRACE(7, in_.vrfName, "UpstreamWcSm::doPrevRpfNeighborCleanup({}), Neighbor down",
                       key);
        return;
    }
    const JoinPruneEntry anyWc = JoinPruneEntry::wcAny(group);
    CASK_VRF_TRACE(
        8, in_.vrfName,
        "UpstreamWcSm::doPrevRpfNeighborCleanup(), RPF'(*,G) change: Deleting periodic join for "
        "route {} for neighbor {}",
        key, neighbor);
    writer_.entryDel(*nbr, JoinPruneSet::periodic, anyWc);
    CASK_VRF_TRACE(
        8, in_.vrfName,
        "UpstreamWcSm::doPrevRpfNeighborCleanup(), Deleting pending triggered join for route {} "
        "for neighbor {}",
        key, neighbor);
    writer_.entryDel(*nbr, JoinPruneSet::triggered, anyWc);
    CASK_VRF_TRACE(
        8, in_.vrfName,
        "UpstreamWcSm::doPrevRpfNeighborCleanup(), Deleting pending override join for route {} "
        "for neighbor {}",
        key, neighbor);
    writer_.entryDel(*nbr, JoinPruneSet::override_, anyWc);

    const Wirl::IpGenAddr rp = rpOf(group);
    if (!rp.isSet()) {
        CASK_VRF_TRACE(7, in_.vrfName,
                       "UpstreamWcSm::doPrevRpfNeighborCleanup({}), No RP found for group {}", key,
                       group);
        return;
    }
    if (!in_.rpfTable || !in_.rpfTable->doLookup(rp)) {
        CASK_VRF_TRACE(7, in_.vrfName,
                       "UpstreamWcSm::doPrevRpfNeighborCleanup({}), No RPF info for group {}", key,
                       group);
        return;
    }
    if (!in_.pimStatus->activeNeighborHas(NeighborKey{prevRpf.intf, neighbor})) return;
    CASK_VRF_TRACE(
        7, in_.vrfName,
        "UpstreamWcSm::doPrevRpfNeighborCleanup(), Sending triggered prune for route {} to "
        "neighbor {}",
        key, neighbor);
    writer_.entryIs(*nbr, JoinPruneSet::triggered, JoinPruneEntry::wcPrune(group, rp));
}

void UpstreamWcSm::doMaybeSetFastForwardBit(Wirl::IntfId id, Route& route) {
    Intf* intf = route.routeIntfRaw(id);
    if (!intf) return;
    setFastForward(*intf, route, id != route.iif() && intf->immediateOlistWc());
}

void UpstreamWcSm::doMaybeSetForwardBits(Wirl::IntfId id, Route& route) {
    Intf* intf = route.routeIntfRaw(id);
    if (!intf) return;
    // The incoming interface never forwards. The forward bit is no term of
    // immediate_olist(*,G), so its watchers leave the value as it is for the
    // fast-forward bit.
    const bool olist = id != route.iif() && intf->immediateOlistWc();
    forwardBits_.forward(*intf, route.key(), olist);
    // Setting the bit announces it, and a watcher may have taken the
    // interface away.
    intf = route.routeIntfRaw(id);
    if (intf) setFastForward(*intf, route, olist);
}

void UpstreamWcSm::setFastForward(Intf& intf, const Route& route, bool olist) {
    // The backup list exists only with a backup upstream, and never holds
    // the backup upstream's own interface.
    const bool eligible = route.umhFrr() && intf.intfId() != route.rpfFrr().intf;
    forwardBits_.fastForward(intf, route.key(), eligible, olist);
}

bool UpstreamWcSm::ignoreRxJoinPrune(const JoinPruneMessageInfo& m) const {
    const RouteKey key = RouteKey::wc(m.riKey.group());
    const Route* route = in_.localStatus->wcRoute().raw(key);
    static constexpr RxTexts texts{
        .otherKind = ", Message not for (*,G)",
        .noRoute = ", No route for {}",
        .notActive = ", Not in joined state for route to {}",
        .notUpstream = ", Message not to RPF'(S,G) or prev RPF'(S,G)",
    };
    const std::string reason = rxIgnoreReason(
        in_, texts, m, !m.sourceFlags.isStarG(), key, route,
        [](const Route& r) { return r.upJoinState() == UpJoinState::upJoined; },
        [&](const Route& r) { return rxRpf(r, m) != nullptr; });
    if (reason.empty()) return false;
    const Rpf rpf = route ? route->rpf() : Rpf{};
    CASK_VRF_TRACE(7, in_.vrfName,
                   "UpstreamWcSm::ignoreRxJoinPrune() Rpf: {} Msg: {} Neigh: {} MsgNeigh: {}{}",
                   rpf.str(), m.riKey, rpf.neighbor, m.upstreamNeighbor, reason);
    return true;
}

const Rpf* UpstreamWcSm::rxRpf(const Route& route, const JoinPruneMessageInfo& m) {
    return rpfAddressedBy({&route.rpf(), &route.prevRpf()}, m);
}

void UpstreamWcSm::handleRxJoin() {
    const JoinPruneMessageInfo m = rxEntry(in_, "UpstreamWcSm", true);
    if (ignoreRxJoinPrune(m)) {
        ignoredRxJoinsInc();
        return;
    }
    const Route& route = *in_.localStatus->wcRoute().raw(RouteKey::wc(m.riKey.group()));
    const Rpf& rpf = *rxRpf(route, m);
    const auto& group = m.riKey.group();
    JoinPruneNeighbor* nbr = writer_.neighbor(rpf.intf, rpf.neighbor);
    const JoinPruneEntry entry = JoinPruneEntry::wcJoin(group, m.wcSource);
    if (const char* why = unsuppressedBecause(nbr, group, m.wcSource.isSet() ? &entry : nullptr)) {
        CASK_VRF_TRACE(7, in_.vrfName, "UpstreamWcSm::handleRxJoin({}){}", m.riKey, why);
        ignoredRxJoinsInc();
        return;
    }
    CASK_VRF_TRACE(7, in_.vrfName,
                   "UpstreamWcSm::handleRxJoin({}), Suppressing periodic join to neighbor {}",
                   m.riKey, rpf.neighbor);
    writer_.wcSuppressedIs(*nbr, group, m.wcSource);
}

void UpstreamWcSm::handleRxPrune() {
    const JoinPruneMessageInfo m = rxEntry(in_, "UpstreamWcSm", false);
    if (ignoreRxJoinPrune(m)) {
        ignoredRxPrunesInc();
        return;
    }
    const Route& route = *in_.localStatus->wcRoute().raw(RouteKey::wc(m.riKey.group()));
    const Rpf& rpf = *rxRpf(route, m);
    JoinPruneNeighbor* nbr = overrideNeighbor(in_, "UpstreamWcSm", writer_, rpf, m);
    if (!nbr) {
        ignoredRxPrunesInc();
        return;
    }
    const auto& group = m.riKey.group();
    const Wirl::IpGenAddr rp = route.umh()->rp().isSet() ? route.umh()->rp() : m.wcSource;
    const JoinPruneGroupData* groupPeriodic =
        writer_.groupData(*nbr, JoinPruneSet::periodic, group);
    CASK_VRF_TRACE(7, in_.vrfName, "UpstreamWcSm::handleRxPrune({}), Sending override join",
                   m.riKey);
    CASK_VRF_TRACE(8, in_.vrfName,
                   "UpstreamWcSm::handleRxPrune(), groupPeriodic {} for neighbor {}",
                   groupPeriodic ? "present" : "absent", rpf.neighbor);
    // Refers to the periodic record, so it carries the group's (S,G,rpt)
    // prunes.
    writer_.entryIs(*nbr, JoinPruneSet::override_, JoinPruneEntry::wcJoin(group, rp));
}

Cask::Ptr<UpstreamWcSm> upstreamWcSmFactory(const VrfContext& in) {
    auto sm = Cask::make<UpstreamWcSm>(in);
    sm->handleInitialized();
    return sm;
}

}  // namespace Routing::Pim::SparseMode
