#include "pimsm/assert/assert_sg_sm.h"

#include "cask/assert.h"
#include "cask/trace.h"
#include "pimsm/route/status.h"
#include "platform/vxlan_status.h"

namespace Routing::Pim::SparseMode {

using Routing::Pim::RouteKey;
using RhoIntf = AssertSm::RhoIntf;

namespace {

bool isState(const Intf& i, AssertState s) {
    return i.assertInfo().assertState == s;
}

// RPF_interface(RP(G)) of the group of `r`.
Wirl::IntfId rpfIntfRp(const Route& r) {
    const Route* wc = r.wc();
    return wc ? wc->iif() : Wirl::IntfId();
}

}  // namespace

AssertSgSm::AssertSgSm(const VrfContext& ctx) : AssertSm(ctx, false, "AssertSgSm") {
    if (in_.rxAssertMessageInfo) rxWatcher_.notifierIs(in_.rxAssertMessageInfo);
    if (in_.mrtMessageInfo) dataWatcher_.notifierIs(in_.mrtMessageInfo);
}

AssertSgSm::~AssertSgSm() {
    dataWatcher_.notifierIs(nullptr);
    rxWatcher_.notifierIs(nullptr);
}

void AssertSgSm::handleSgRoute(const RouteKey& key) {
    handleRoute(key, in_.localStatus->sgRoute().raw(key));
}

void AssertSgSm::handleWcRoute(const RouteKey& key) {
    wcFanOut_.handleWcRoute(key);
}

void AssertSgSm::handleRouteReactor(const RouteKey& key, bool added) {
    if (added) {
        wcFanOut_.sgAdded(key);
    } else {
        wcFanOut_.sgRemoved(key);
    }
}

void AssertSgSm::handleWcChange(const Wirl::IpGenAddr& group, const WcChange&) {
    // Its coming and going, joins, receivers, asserts and RPF_interface(RP(G))
    // (lost_assert(*,G), AssertTrackingDesired(S,G,I)) are terms of CouldAssert(S,G,I).
    doReviewGroup(group);
}

void AssertSgSm::doReviewGroup(const Wirl::IpGenAddr& group) {
    Busy busy(*this);
    wcFanOut_.forEachSg(group, [this](RhoRoute& rr) { doMaybeChangeAssertStateAll(rr); });
}

// --- predicates ------------------------------------------------------------------------------

bool AssertSgSm::couldAssertSgRpf(const Intf& i) const {
    const Route& r = *i.route();
    if (!in_.mcastVxlanStatus || !in_.mcastVxlanStatus->vxlanIntf(i.intfId())) return false;
    const auto groups = in_.status->source(r.key().source());
    if (!groups || !groups->memberHas(r.key().group())) return false;
    if (i.intfId() != r.iif() || !r.spTree()) return false;
    if (!i.iAmDr()) return false;
    if (i.localReceiverExclude()) return false;
    const Intf* w = i.wcIntf();
    return i.localReceiverInclude() || (w && w->localReceiverInclude());
}

bool AssertSgSm::couldAssertSgRpt(const Route& route, Wirl::IntfId intf) const {
    if (!route.spTree() || intf == route.iif()) return false;
    const Route* wc = route.wc();
    const Intf* w = wc ? wc->routeIntfRaw(intf) : nullptr;
    return w && (w->joinsWc() || w->includeWc()) && !w->lostAssertWc();
}

bool AssertSgSm::isInferiorAssertSgRpf(const Intf& i, const AssertMetric& rx) const {
    const AssertMetric mine = i.sptAssertMetric();
    CASK_VRF_TRACE(8, vrfName(), "AssertSgSm::isInferiorAssertSgRpf mine {} foreign {}", mine.str(),
                   rx.str());
    if (mine.isInfinite()) return false;
    return mine < rx;
}

bool AssertSgSm::isAcceptableAssertSgRpf(const Intf& i, const AssertMetric& rx) const {
    if (rx.isInfinite()) return false;
    return rx < i.sptAssertMetric();
}

bool AssertSgSm::couldAssert(const Intf& i) const {
    return i.couldAssertSg() || couldAssertSgRpf(i);
}

bool AssertSgSm::assertTrackingDesired(const Intf& i) const {
    return i.assertTrackingDesiredSg() || couldAssertSgRpf(i);
}

AssertMetric AssertSgSm::myMetric(const Intf& i) const {
    return couldAssertSgRpf(i) ? i.sptAssertMetric() : i.myAssertMetricSg();
}

bool AssertSgSm::joinEntryOfKind(const Routing::Pim::JoinPruneMessageInfo& m) const {
    return !m.sourceFlags.wildcard && !m.sourceFlags.rpt;
}

// --- received Asserts --------------------------------------------------------------------------

void AssertSgSm::doPuntAssert() {
    in_.rxAssertMessageInfo->wcRxCountInc();
}

void AssertSgSm::doPuntData() {
    in_.mrtMessageInfo->wcRxCountInc();
}

void AssertSgSm::handleRxAssert() {
    const Routing::Pim::AssertMessageInfo& info = *in_.rxAssertMessageInfo;
    const Routing::Pim::AssertMessage& msg = info.message();
    const Wirl::IntfId intf = info.intfId();
    if (!msg.source.isSet()) {
        CASK_VRF_TRACE(7, vrfName(),
                       "AssertSgSm::handleRxAssert(), Punting to (*,G) assert state machine");
        doPuntAssert();
        return;
    }
    Busy busy(*this);
    const AssertMetric rx = msg.assertMetric();
    const RouteKey key = msg.key();
    Route* route = in_.localStatus->sgRoute().raw(key);
    if (!route) {
        CASK_VRF_TRACE(7, vrfName(), "AssertSgSm::handleRxAssert({}), No sgRoute info", key);
        if (rx.rptBit) {
            CASK_VRF_TRACE(7, vrfName(),
                           "AssertSgSm::handleRxAssert({}) RPT bit is set. Punting to (*,G) "
                           "assert state machine",
                           key);
            doPuntAssert();
        }
        return;
    }
    Intf* i = route->routeIntfRaw(intf);
    if (!i) {
        // An interface without (S,G) state still takes part: through the (*,G) terms it
        // inherits, or as the RPF interface toward S or the RP whose RPF' the winner decides.
        const bool tracking =
            (intf == route->iif() && route->joinDesiredSg()) ||
            (intf == rpfIntfRp(*route) && route->joinDesiredWc() && !route->spTree());
        const bool could = couldAssertSgRpt(*route, intf);
        if (rx.rptBit && !could) {
            CASK_VRF_TRACE(7, vrfName(),
                           "AssertSgSm::handleRxAssert(), CouldAssert(S,G,Rpt,I) is False, "
                           "punting to (*,G) assert state machine");
            doPuntAssert();
            return;
        }
        if (!could && !tracking) {
            CASK_VRF_TRACE(7, vrfName(),
                           "AssertSgSm::handleRxAssert({}), Punting to (*,G) assert state machine",
                           key);
            doPuntAssert();
            return;
        }
        CASK_VRF_TRACE(7, vrfName(),
                       "AssertSgSm::handleRxAssert(), Creating OIF for route {} interface {}", key,
                       intf);
        i = route->routeIntfIs(intf).get();
        if (!i) return;  // the interface limit refused it (traced and counted there)
    }
    const bool onRpf = couldAssertSgRpf(*i);
    const bool could = i->couldAssertSg();
    switch (i->assertInfo().assertState) {
        case AssertState::assertNoInfo: {
            const bool inferior =
                onRpf ? isInferiorAssertSgRpf(*i, rx) : could && i->isInferiorAssertSg(rx);
            const bool acceptable =
                onRpf ? isAcceptableAssertSgRpf(*i, rx) : i->isAcceptableAssertSg(rx);
            if (!rx.rptBit && (could || onRpf) && inferior) {
                doA1(rhoIntfIs(*route, *i), key, onRpf ? " Assert on RPF, EDGE1" : " EDGE1");
            } else if (rx.rptBit && could) {
                doA1(rhoIntfIs(*route, *i), key, " EDGE2");
            } else if (!rx.rptBit && acceptable && (onRpf || i->assertTrackingDesiredSg())) {
                doA6(rhoIntfIs(*route, *i), rx, onRpf ? " Assert on RPF, EDGE4" : " EDGE4");
            } else if (!could && !onRpf) {
                CASK_VRF_TRACE(7, vrfName(),
                               "AssertSgSm::handleRxAssert({}), Punting to (*,G) assert state "
                               "machine",
                               key);
                doPuntAssert();
            }
            return;
        }
        case AssertState::iAmAssertWinner: {
            RhoIntf& rho = rhoIntfIs(*route, *i);
            const bool inferior = onRpf ? isInferiorAssertSgRpf(*i, rx) : i->isInferiorAssertSg(rx);
            if (inferior) {
                doA3(rho, key, " EDGE2");
                CASK_VRF_TRACE(7, vrfName(),
                               "AssertSgSm::handleRxAssert({}) assertState is still "
                               "iAmAssertWinner ",
                               key);
            } else if (onRpf ? rx < i->sptAssertMetric() : i->isPreferredAssertSg(rx)) {
                doA2(rho, rx, " EDGE3");
            }
            return;
        }
        case AssertState::iAmAssertLoser: {
            RhoIntf& rho = rhoIntfIs(*route, *i);
            const AssertMetric winner = i->assertInfo().winnerMetric;
            const bool fromWinner = rx.address == winner.address;
            const bool inferior = onRpf ? isInferiorAssertSgRpf(*i, rx) : i->isInferiorAssertSg(rx);
            if (i->isPreferredAssertSg(rx)) {
                doA2(rho, rx, " EDGE1");
            } else if (onRpf ? isAcceptableAssertSgRpf(*i, rx)
                             : i->isAcceptableAssertSg(rx) && fromWinner) {
                doA2(rho, rx, " EDGE2");
            } else if (inferior && !winner.isInfinite() && fromWinner) {
                doA5(rho, " EDGE3");
            }
            return;
        }
    }
}

// --- data on an outgoing interface -------------------------------------------------------------

void AssertSgSm::handleRxData() {
    const Routing::Gmp::Tidal::RouteIntfKey& ri = in_.mrtMessageInfo->routeIntf();
    const RouteKey key = ri.routeKey;
    const Wirl::IntfId intf = ri.intf;
    Route* route = in_.localStatus->sgRoute().raw(key);
    if (!route) {
        CASK_VRF_TRACE(7, vrfName(),
                       "AssertSgSm::handleRxData({}), Punt to WcAssertSm, no S,G route", key);
        doPuntData();
        return;
    }
    Busy busy(*this);
    Intf* i = route->routeIntfRaw(intf);
    if (!i) {
        if (!couldAssertSgRpt(*route, intf)) {
            CASK_VRF_TRACE(7, vrfName(),
                           "AssertSgSm::handleRxData({}), Punt to WcAssertSm, no (S,G,I) state for "
                           "interface {}",
                           key, intf);
            doPuntData();
            return;
        }
        CASK_VRF_TRACE(7, vrfName(),
                       "AssertSgSm::handleRxData(), Creating OIF for route {} interface {}", key,
                       intf);
        i = route->routeIntfIs(intf).get();
        if (!i) return;
    }
    if (!i->couldAssertSg() && !couldAssertSgRpf(*i)) {
        CASK_VRF_TRACE(7, vrfName(),
                       "AssertSgSm::handleRxData({}), Punting to WcAssertSm, couldAssert is False "
                       "for interface {}",
                       key, intf);
        doPuntData();
        return;
    }
    if (!i->pimIntf()) {
        CASK_VRF_TRACE(7, vrfName(),
                       "AssertSgSm::handleRxData({}), Ignoring message, no Pim neighbor for "
                       "interface {}",
                       key, intf);
        return;
    }
    if (!isState(*i, AssertState::assertNoInfo)) {
        CASK_VRF_TRACE(7, vrfName(),
                       "AssertSgSm::handleRxData({}), Ignoring message, assert state for interface "
                       "{} is: {}",
                       key, intf, i->assertInfo().assertState);
        return;
    }
    // RFC 7761 4.6.1: data on an interface this router forwards onto means another router
    // forwards the same flow there too; this router asserts first.
    doA1(rhoIntfIs(*route, *i), key, " EDGE3");
}

// --- A6 ----------------------------------------------------------------------------------------

void AssertSgSm::doA6(RhoIntf& rho, const AssertMetric& rx, const char* label) {
    Intf& i = rho.intf();
    CASK_ASSERT(isState(i, AssertState::assertNoInfo),
                "i->assertInfo().assertState() == assertNoInfo_");
    Route& r = rho.routeSm().route();
    const RouteKey key = r.key();
    rho.doChangeAssertState(AssertState::iAmAssertLoser, rx,
                            traceText(6, "AssertSgSm::doA6({}, {}){}, Winner metric: {}, ", key,
                                      i.intfId(), label, MetricText{rx}));
    i.lastAssertActionIs(6);
    // RFC 7761 4.6.1 A6: losing on RPF_interface(S) while joined means the data arrives on the
    // source tree: set the SPT bit so that the (S,G,rpt) prune follows.
    if (i.intfId() == r.iif() && r.upJoinState() == UpJoinState::upJoined) {
        CASK_VRF_TRACE(6, vrfName(), "AssertSgSm: Setting SPT bit on route {}", key);
        r.spTreeReached();
    }
}

Cask::Ptr<AssertSgSm> assertSgSmFactory(const VrfContext& ctx) {
    auto sm = Cask::make<AssertSgSm>(ctx);
    sm->handleInitialized();
    return sm;
}

}  // namespace Routing::Pim::SparseMode
