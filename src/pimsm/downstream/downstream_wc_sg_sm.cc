#include "pimsm/downstream/downstream_wc_sg_sm.h"

#include <string>

#include <fmt/format.h>

#include "cask/assert.h"
#include "cask/trace.h"
#include "pimsm/common/vrf_inputs.h"
#include "pimsm/route/status.h"
#include "platform/group_ranges.h"
#include "platform/pim_status.h"
#include "platform/vrf_records.h"
#include "wirl/ip_gen_prefix.h"

namespace Routing::Pim::SparseMode {

using Routing::Pim::JoinPruneMessageInfo;
using Routing::Pim::RouteKey;
using Routing::Pim::RxPruneInfo;
using RouteIntfKey = Routing::Gmp::Tidal::RouteIntfKey;

namespace {

// A (*,G) entry carries the WC and RPT bits; an (S,G) entry neither. An entry with the RPT bit
// alone is an (S,G,rpt) entry, and the WC bit alone means nothing in RFC 7761.
bool isWcEntry(const JoinPruneMessageInfo& m) {
    return m.sourceFlags.isStarG();
}
bool isSgEntry(const JoinPruneMessageInfo& m) {
    return !m.sourceFlags.wildcard && !m.sourceFlags.rpt;
}

}  // namespace

DownstreamWcSgSm::DownstreamWcSgSm(const VrfContext& in)
    : in_(requireInputs(in, "DownstreamWcSgSm", &VrfContext::loop, &VrfContext::status,
                        &VrfContext::localStatus, &VrfContext::pimStatus, &VrfContext::config,
                        &VrfContext::ssmGroupInfo, &VrfContext::groupFilterStatus,
                        &VrfContext::joinPruneStatus)) {
    LocalStatus::Notifiee::notifierIs(in_.localStatus);
    rxWatcher_.watch(in_.joinPruneRxStatus);
}

DownstreamWcSgSm::~DownstreamWcSgSm() {
    rxWatcher_.watch(nullptr);
    LocalStatus::Notifiee::notifierIs(nullptr);
    route_.clear();
}

void DownstreamWcSgSm::handleInitialized() {
    CASK_VRF_TRACE(6, vrfName(), "DownstreamWcSgSm::handleInitialized()");
    const LocalStatus& ls = *in_.localStatus;
    route_.sweep(ls.wcRoute(), [this](const RouteKey& k) { handleWcRoute(k); });
    route_.sweep(ls.sgRoute(), [this](const RouteKey& k) { handleSgRoute(k); });
    initializedIs(true);
}

void DownstreamWcSgSm::handleWcRoute(const RouteKey& key) {
    handleRoute(key, in_.localStatus->wcRoute().raw(key));
}

void DownstreamWcSgSm::handleSgRoute(const RouteKey& key) {
    handleRoute(key, in_.localStatus->sgRoute().raw(key));
}

void DownstreamWcSgSm::handleRoute(const RouteKey& key, Route* route) {
    // Most routes never hear a downstream Join (local receivers, say): they get no reactor
    // until one does, unless they come with join state (a restart).
    if (route && !route_.has(key) && !hasJoinState(*route)) return;
    doFollowRoute(key, route);
}

DownstreamRouteSm* DownstreamWcSgSm::doFollowRoute(const RouteKey& key, Route* route) {
    DownstreamRouteSm* rsm = route_.update(key, route, *this);
    if (rsm) {
        CASK_VRF_TRACE(7, vrfName(), "DownstreamWcSgSm::handleRoute({}), route added", key);
        rsm->handleRouteInit();
    }
    return rsm;
}

bool DownstreamWcSgSm::hasJoinState(const Route& route) {
    for (const auto& [id, intf] : route.routeIntf()) {
        if (intf->joinState() != JoinState::noInfo) return true;
    }
    return false;
}

RouteKey DownstreamWcSgSm::entryKey(const JoinPruneMessageInfo& m) {
    return isWcEntry(m) ? RouteKey::wc(m.riKey.group()) : m.riKey;
}

std::size_t DownstreamWcSgSm::neighborCount(Wirl::IntfId intf) const {
    const Routing::Pim::PimIntfStatus* pim = in_.pimStatus->intfRaw(intf);
    return pim ? pim->neighborSize() : 0;
}

Cask::Seconds DownstreamWcSgSm::prunePendingDelay(Wirl::IntfId intf) const {
    const Routing::Pim::PimIntfStatus* pim = in_.pimStatus->intfRaw(intf);
    if (!pim || pim->neighborSize() <= 1) return 0;
    return pim->usedJoinPruneOverrideIntervalInSeconds();
}

bool DownstreamWcSgSm::joinRpMatchesRpOfGroup(const JoinPruneMessageInfo& m) const {
    if (!in_.rpMapping) return false;
    const Wirl::IpGenAddr rp = in_.rpMapping->rpFor(m.riKey.group());
    if (!rp.isSet()) return false;
    return rp == m.wcSource;
}

bool DownstreamWcSgSm::ignoreRxJoinPrune(const JoinPruneMessageInfo& m, bool join) const {
    const char* handler = join ? "handleRxJoin" : "handleRxPrune";
    const Wirl::IpGenAddr& group = m.riKey.group();
    const Routing::Pim::PimIntfStatus* pim = in_.pimStatus->intfRaw(m.intf);
    std::string reason;
    if (!isWcEntry(m) && !isSgEntry(m)) {
        reason = ", Message is (S,G,rpt)";
    } else if (!pim) {
        reason = fmt::format(", Received on non-PIM interface {}", m.intf);
    } else if (pim->usedAddr() != m.upstreamNeighbor) {
        reason = fmt::format(
            "(), Upstream neighbor address for route {} does not match address on received "
            "interface",
            m.riKey);
    } else if (!pim->neighborHas(m.sender)) {
        // RFC 7761 4.5: Join/Prune messages from a router that is not a PIM neighbour are
        // dropped.
        reason = fmt::format(", Message from non-neighbor {}", m.sender);
    } else if (group.family() != in_.localStatus->family() || !group.isMulticast()) {
        reason = fmt::format(", invalid group {}", group);
    } else if (isSgEntry(m) &&
               (m.riKey.source().family() != group.family() || !m.riKey.source().isUnicast())) {
        reason = fmt::format(", invalid source {}", m.riKey.source());
    } else if (!in_.groupFilterStatus->permitGroup(Wirl::IpGenPrefix::hostPrefix(group))) {
        reason = "), ignoring bidirectional group";
    } else if (isWcEntry(m) && in_.ssmGroupInfo->ssmGroup(group, *in_.config)) {
        // RFC 7761 4.8: no shared tree in the SSM range.
        reason = fmt::format(", Group {} in SSM range, ignoring (*,G) entry", group);
    } else if (join && isWcEntry(m) && !joinRpMatchesRpOfGroup(m)) {
        reason = fmt::format(", RP {} in message does not match RP(G) {}", m.wcSource,
                             in_.rpMapping ? in_.rpMapping->rpFor(group) : Wirl::IpGenAddr());
    } else {
        return false;
    }
    CASK_VRF_TRACE(7, vrfName(), "DownstreamWcSgSm::{}({}) on {} from {}{}", handler, m.riKey,
                   m.intf, m.sender, reason);
    return true;
}

void DownstreamWcSgSm::handleRxJoin() {
    const JoinPruneMessageInfo m = in_.joinPruneRxStatus->rxJoin();
    CASK_VRF_TRACE(6, vrfName(), "DownstreamWcSgSm::handleRxJoin({}) on {} from {}, holdtime {}",
                   m.riKey, m.intf, m.sender, m.holdTime);
    if (ignoreRxJoinPrune(m, true)) {
        // (S,G,rpt) entries belong to the (S,G,rpt) machine: not refused input.
        if (isWcEntry(m) || isSgEntry(m)) ignoredRxJoinsInc();
        return;
    }
    const RouteKey key = entryKey(m);
    Cask::Ptr<Route> route = in_.status->route(key);
    if (!route) {
        CASK_VRF_TRACE(6, vrfName(), "DownstreamWcSgSm::handleRxJoin(), Creating route {}", key);
        CASK_EVENT("DownstreamWcSgSm: Creating route {}", key);
        route = in_.status->routeIs(key, [](Route& r) { r.initializedIs(true); });
        if (!route) {  // over the agent's route limit (traced there)
            ignoredRxJoinsInc();
            return;
        }
    }
    if (route->markedForDeletion()) {
        // The route had lost its last interface; the Join gives it state again before the
        // route review removes it.
        CASK_VRF_TRACE(6, vrfName(),
                       "DownstreamWcSgSm::handleRxJoin({}), resetting marked for deletion", key);
        route->markedForDeletionIs(false);
    }
    Cask::Ptr<Intf> intf = route->routeIntf(m.intf);
    if (!intf) {
        CASK_VRF_TRACE(6, vrfName(),
                       "DownstreamWcSgSm::handleRxJoin(), Creating OIF for route {} interface {}",
                       key, m.intf);
        CASK_EVENT("DownstreamWcSgSm: Add interface {} to route{}, flags: ", m.intf, key);
        intf = route->routeIntfIs(m.intf);
        if (!intf) {  // over the agent's interface limit (traced there)
            ignoredRxJoinsInc();
            return;
        }
    }
    // A route created by another machine may not be registered yet.
    route->initializedIs(true);
    DownstreamRouteSm* rsm = route_.get(key);
    if (!rsm || &rsm->route() != route.get()) {
        // The route's first Join: the route is registered by now, and gets its reactor.
        CASK_ASSERT(in_.localStatus->route(key) == route.get(),
                    "joined route has no downstream reactor");
        rsm = doFollowRoute(key, route.get());
    }

    DownstreamRouteSm::RhoIntf& rho = rsm->rhoIntfIs(*intf);
    const JoinState old = intf->joinState();
    rho.doChangeState(JoinState::joined,
                      traceText(7, "DownstreamWcSgSm::handleRxJoin({}), join state ", key),
                      eventText("DownstreamWcSgSm: Rx join on interface {} for route{}, flags: , "
                                "join state: ",
                                m.intf, key)
                          .tail(" "));
    if (key.isWc()) {
        const bool allowRp = joinUsesAllowedRp(m);
        if (allowRp && !intf->allowRpInUse()) {
            CASK_VRF_TRACE(7, vrfName(), "Mark route {} interface {} as allow-rp in use", key,
                           m.intf);
        }
        intf->allowRpInUseIs(allowRp);
    }
    intf->lastJoinReceivedIs(in_.loop->now());
    intf->initializedIs(true);
    rho.tweakExpiryTimer(m.holdTime, old == JoinState::noInfo);
}

void DownstreamWcSgSm::handleRxPrune() {
    const JoinPruneMessageInfo m = in_.joinPruneRxStatus->rxPrune();
    CASK_VRF_TRACE(6, vrfName(), "DownstreamWcSgSm::handleRxPrune({}) on {} from {}", m.riKey,
                   m.intf, m.sender);
    if (ignoreRxJoinPrune(m, false)) {
        // (S,G,rpt) entries belong to the (S,G,rpt) machine: not refused input.
        if (isWcEntry(m) || isSgEntry(m)) ignoredRxPrunesInc();
        return;
    }
    const RouteKey key = entryKey(m);
    const Route* route = in_.status->route(key).get();
    const char* why = nullptr;
    Intf* intf = route ? route->routeIntfRaw(m.intf) : nullptr;
    // A route not registered yet has no state the machines work on.
    if (!route || in_.localStatus->route(key) != route) {
        why = ", ignored, no (S,G) state";
    } else if (!intf) {
        why = ", ignored, no (S,G,I) state";
    }
    if (why) {
        CASK_VRF_TRACE(7, vrfName(), "DownstreamWcSgSm::handleRxPrune({}){}", key, why);
        ignoredRxPrunesInc();
        return;
    }
    // RFC 7761 4.5.1, 4.5.2: a Prune acts only in the Join state; in NoInfo and Prune-Pending
    // it changes nothing.
    if (intf->joinState() != JoinState::joined) {
        CASK_VRF_TRACE(7, vrfName(),
                       "DownstreamWcSgSm::handleRxPrune({}), join state {}, no change", key,
                       intf->joinState());
        return;
    }
    // Joined: the route has its reactor since its first Join.
    DownstreamRouteSm* rsm = route_.get(key);
    CASK_ASSERT(rsm && &rsm->route() == route, "joined route has no downstream reactor");
    DownstreamRouteSm::RhoIntf& rho = rsm->rhoIntfIs(*intf);
    rho.doChangeState(JoinState::prunePending,
                      traceText(7, "DownstreamWcSgSm::handleRxPrune({}), join state ", key),
                      eventText("DownstreamWcSgSm: Rx prune on interface {} for route{}, flags: , "
                                "join state: ",
                                m.intf, key)
                          .tail(" "));
    // Kept until the prune takes effect, for the PruneEcho; leaving prunePending forgets it.
    if (intf->joinState() == JoinState::prunePending) {
        in_.joinPruneStatus->rxPruneIs(RouteIntfKey{key, m.intf}, RxPruneInfo(m));
    }
}

Cask::Ptr<DownstreamWcSgSm> downstreamWcSgSmFactory(const VrfContext& ctx) {
    auto sm = Cask::make<DownstreamWcSgSm>(ctx);
    sm->handleInitialized();
    return sm;
}

}  // namespace Routing::Pim::SparseMode
