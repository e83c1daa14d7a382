// DownstreamRouteSm and its per-interface reactor: the join state timers, the PruneEcho, the
// RPF change and the take-over of state found after a restart.
#include <algorithm>
#include <vector>

#include "cask/assert.h"
#include "cask/trace.h"
#include "pimsm/downstream/downstream_wc_sg_sm.h"
#include "platform/pim_status.h"

namespace Routing::Pim::SparseMode {

using Routing::Pim::RouteKey;
using Routing::Pim::RxPruneInfo;
using RouteIntfKey = Routing::Gmp::Tidal::RouteIntfKey;
using RhoIntf = DownstreamRouteSm::RhoIntf;

// --- DownstreamRouteSm -------------------------------------------------------

DownstreamRouteSm::DownstreamRouteSm(DownstreamWcSgSm& sm, Route& route)
    : RouteReactor(route), sm_(sm) {}

DownstreamRouteSm::~DownstreamRouteSm() = default;

void DownstreamRouteSm::handleRouteInit() {
    // Interfaces that carry join state already were handed over (a restart): their timers are
    // gone with the reactors that ran them.
    std::vector<Cask::Ptr<Intf>> found;
    for (const auto& [id, intf] : route().routeIntf()) {
        if (intf->joinState() != JoinState::noInfo && !intf_.has(id)) found.push_back(intf);
    }
    for (const Cask::Ptr<Intf>& intf : found) {
        rhoIntfIs(*intf).handleInitialized();
        doReleaseIdle(intf->intfId());
    }
}

void DownstreamRouteSm::handleUmhAttr(UpstreamInfo& umh, UmhAttr attr) {
    if (attr == UmhAttr::rpf && !umh.frr()) handleRpf();
}

void DownstreamRouteSm::handleRpf() {
    const Wirl::IntfId rpfIntf = route().rpf().intf;
    if (rpfIntf.isNull()) return;
    const RouteIntfKey key{route().key(), rpfIntf};
    Routing::Pim::JoinPruneStatus& jps = *sm_.ctx().joinPruneStatus;
    if (!jps.rxPruneHas(key)) return;
    CASK_VRF_TRACE(7, sm_.vrfName(),
                   "DownstreamRouteSm::handleRpf(), Deleting pruneEcho for {}, on interface {}",
                   route().key(), rpfIntf);
    jps.rxPruneDel(key);
}

void DownstreamRouteSm::handleRouteIntf(Wirl::IntfId id) {
    RhoIntf* rho = intf_.get(id);
    if (rho && rho->reactorRecord() != route().routeIntfRaw(id)) {
        CASK_VRF_TRACE(7, sm_.vrfName(),
                       "DownstreamRouteSm::handleRouteIntf({}), interface {} removed",
                       route().key(), id);
        intf_.del(id);
    }
}

void DownstreamRouteSm::handleDelete() {
    intf_.delAll();
}

RhoIntf& DownstreamRouteSm::rhoIntfIs(Intf& intf) {
    CASK_ASSERT(route().routeIntfRaw(intf.intfId()) == &intf,
                "downstream interface is not its route's");
    if (RhoIntf* rho = intf_.update(intf.intfId(), &intf, *this)) return *rho;
    return *intf_.get(intf.intfId());
}

void DownstreamRouteSm::doReleaseIdle(Wirl::IntfId id) {
    RhoIntf* rho = intf_.get(id);
    if (!rho || rho->intf().joinState() != JoinState::noInfo) return;
    if (rho->timerArmed(IntfTimer::expiry) || rho->timerArmed(IntfTimer::prunePending)) return;
    intf_.del(id);
}

// --- RhoIntf -----------------------------------------------------------------

RhoIntf::RhoIntf(DownstreamRouteSm& route, Intf& intf) : route_(route), intf_(&intf) {}

RhoIntf::~RhoIntf() = default;

Cask::EventLoop& RhoIntf::loop() const {
    return *route_.sm().ctx().loop;
}

const L3::VrfName& RhoIntf::vrfName() const {
    return route_.sm().vrfName();
}

bool RhoIntf::present() const {
    return route_.route().routeIntfRaw(intf_->intfId()) == intf_.get();
}

void RhoIntf::handleDelete() {
    // Gone with its route or its interface: a Prune remembered for it can no longer take
    // effect.
    route_.sm().ctx().joinPruneStatus->rxPruneDel(
        RouteIntfKey{route_.route().key(), intf_->intfId()});
}

void RhoIntf::doLeaveState(JoinState old) {
    if (old != JoinState::prunePending) return;
    route_.sm().ctx().joinPruneStatus->rxPruneDel(
        RouteIntfKey{route_.route().key(), intf_->intfId()});
    doStopTimer(IntfTimer::prunePending);
}

void RhoIntf::doEnterState(JoinState next) {
    switch (next) {
        case JoinState::prunePending: {
            const DownstreamWcSgSm& sm = route_.sm();
            const Wirl::IntfId id = intf_->intfId();
            const Cask::Seconds delay = sm.prunePendingDelay(id);
            CASK_VRF_TRACE(7, vrfName(),
                           "DownstreamRouteSm::RhoIntf::handleJoinState({}, {}), J/P Override "
                           "Interval: {} seconds, {} neighbors",
                           route_.route().key(), id, delay, sm.neighborCount(id));
            doArmTimer(IntfTimer::prunePending, loop().now() + delay);
            break;
        }
        case JoinState::noInfo:
            doStopTimer(IntfTimer::expiry);
            break;
        case JoinState::joined:
            // The expiry timer follows the Join's hold time (tweakExpiryTimer).
            break;
    }
}

void RhoIntf::tweakExpiryTimer(std::uint16_t holdTime, bool fresh) {
    Cask::Seconds jitter = 0;
    Cask::Seconds deadline = Cask::never;
    if (holdTime != DownstreamWcSgSm::infiniteHoldTime) {
        jitter = randomDelay(DownstreamWcSgSm::expiryJitterPeriod);
        deadline = loop().now() + holdTime + jitter;
    }
    // RFC 7761 4.5.1, 4.5.2: a Join restarts the expiry timer to the larger of its remaining
    // time and the Join's hold time. A running interface without a timer never expires.
    if (!fresh) {
        const Cask::Seconds current =
            timerArmed(IntfTimer::expiry) ? timerDeadline(IntfTimer::expiry) : Cask::never;
        deadline = std::max(deadline, current);
    }
    CASK_VRF_TRACE(7, vrfName(),
                   "DownstreamRouteSm::RhoIntf::tweakExpiryTimer({}, {}), Reset expiry timer, "
                   "holdtime: {}, jitter: {}",
                   route_.route().key(), intf_->intfId(), holdTime, jitter);
    doArmTimer(IntfTimer::expiry, deadline);
}

void RhoIntf::expiryTimerExpiry() {
    DownstreamRouteSm& rsm = route_;
    const RouteKey key = rsm.route().key();
    const Wirl::IntfId id = intf_->intfId();
    if (!present()) {
        CASK_VRF_TRACE(6, vrfName(),
                       "DownstreamRouteSm::RhoIntf::expiryTimerExpiry({}, {}), Expiry timer "
                       "expired, intf missing",
                       key, id);
        rsm.doReleaseIdle(id);
        return;
    }
    doChangeState(JoinState::noInfo,
                  traceText(6,
                            "DownstreamRouteSm::RhoIntf::expiryTimerExpiry({}, {}), Expiry timer "
                            "expired, downstream join state ",
                            key, id),
                  eventText("DownstreamWcSgSm: Expiry timer expired on interface {} on route{}, "
                            "flags: , join state: ",
                            id, key)
                      .tail(" "));
    rsm.doReleaseIdle(id);  // may destroy this reactor
}

void RhoIntf::prunePendingTimerExpiry() {
    DownstreamRouteSm& rsm = route_;
    DownstreamWcSgSm& sm = rsm.sm();
    const RouteKey key = rsm.route().key();
    const Wirl::IntfId id = intf_->intfId();
    if (!present()) {
        CASK_VRF_TRACE(6, vrfName(),
                       "DownstreamRouteSm::RhoIntf::prunePendingTimerExpiry({}, {}), Prune "
                       "pending timer expired, interface missing ",
                       key, id);
        rsm.doReleaseIdle(id);
        return;
    }
    Routing::Pim::JoinPruneStatus& jps = *sm.ctx().joinPruneStatus;
    const RouteIntfKey pruneKey{key, id};
    // RFC 7761 4.5.1, 4.5.2: when the prune takes effect on a LAN, the router echoes it so that
    // a downstream router that missed the override period can still override it. With a single
    // neighbour (the Prune's sender) nobody else could.
    if (jps.rxPruneHas(pruneKey)) {
        const RxPruneInfo prune = jps.rxPrune(pruneKey);
        if (sm.neighborCount(id) > 1) {
            CASK_VRF_TRACE(7, vrfName(),
                           "DownstreamRouteSm::RhoIntf::prunePendingTimerExpiry({}, {}), Sending "
                           "PruneEcho",
                           key, id);
            Routing::Pim::JoinPruneGroupData& group =
                jps.pruneEchoIs(id).joinPruneGroupDataIs(key.group());
            if (key.isWc()) {
                group.wcSourceDataIs(prune.wcSource, false);
            } else {
                group.prunedSourceIs(key.source());
            }
        }
        jps.rxPruneDel(pruneKey);
    }
    doChangeState(JoinState::noInfo,
                  traceText(6,
                            "DownstreamRouteSm::RhoIntf::prunePendingTimerExpiry({}, {}), Prune "
                            "pending timer expired, downstream join state ",
                            key, id),
                  eventText("DownstreamWcSgSm: Prune pending timer expired on interface {} on "
                            "route{}, flags: , join state: ",
                            id, key)
                      .tail(" "));
    rsm.doReleaseIdle(id);  // may destroy this reactor
}

void RhoIntf::handleInitialized() {
    const DownstreamWcSgSm& sm = route_.sm();
    const RouteKey& key = route_.route().key();
    const Wirl::IntfId id = intf_->intfId();
    const Cask::Seconds now = loop().now();
    // The hold time of the last Join is not kept with the interface: the default one stands in.
    const double lastJoin = intf_->lastJoinReceived();
    const Cask::Seconds joinEnds = lastJoin + DownstreamWcSgSm::defaultHoldTime;
    const bool joinGone = lastJoin <= 0 || joinEnds <= now;
    switch (intf_->joinState()) {
        case JoinState::joined:
            CASK_VRF_TRACE(7, vrfName(),
                           "DownstreamRouteSm::RhoIntf::handleInitialized({}, {}), Joined ", key,
                           id);
            break;
        case JoinState::prunePending: {
            const Cask::Seconds jitter =
                doRestartTimer(IntfTimer::prunePending, sm.prunePendingDelay(id),
                               DownstreamWcSgSm::expiryJitterPeriod);
            CASK_VRF_TRACE(7, vrfName(),
                           "DownstreamRouteSm::RhoIntf::handleInitialized({}, {}), PrunePending "
                           ", jitter: {}",
                           key, id, jitter);
            break;
        }
        case JoinState::noInfo:
            CASK_VRF_TRACE(7, vrfName(),
                           "DownstreamRouteSm::RhoIntf::handleInitialized({}, {}), NoInfo ", key,
                           id);
            doStopTimer(IntfTimer::expiry);
            doStopTimer(IntfTimer::prunePending);
            intf_->initializedIs(true);
            return;
    }
    intf_->initializedIs(true);
    if (joinGone) {
        expiryTimerExpiry();  // may destroy this reactor
        return;
    }
    const Cask::Seconds jitter = randomDelay(DownstreamWcSgSm::expiryJitterPeriod);
    CASK_VRF_TRACE(7, vrfName(),
                   "DownstreamRouteSm::RhoIntf::handleInitialized({}, {}), Reset expiry timer, "
                   "holdtime: {}, jitter: {}",
                   key, id, DownstreamWcSgSm::defaultHoldTime, jitter);
    doArmTimer(IntfTimer::expiry, joinEnds + jitter);
}

}  // namespace Routing::Pim::SparseMode
