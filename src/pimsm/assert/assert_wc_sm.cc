#include "pimsm/assert/assert_wc_sm.h"

#include "cask/trace.h"
#include "pimsm/common/vrf_inputs.h"
#include "platform/group_ranges.h"

namespace Routing::Pim::SparseMode {

using Routing::Pim::RouteKey;

AssertWcSm::AssertWcSm(const VrfContext& ctx) : AssertSm(ctx, true, "AssertWcSm") {
    requireInputs(in_, "AssertWcSm", &VrfContext::config, &VrfContext::ssmGroupInfo);
    if (in_.rxAssertMessageInfo) rxWatcher_.notifierIs(in_.rxAssertMessageInfo);
    if (in_.mrtMessageInfo) dataWatcher_.notifierIs(in_.mrtMessageInfo);
}

AssertWcSm::~AssertWcSm() {
    dataWatcher_.notifierIs(nullptr);
    rxWatcher_.notifierIs(nullptr);
}

void AssertWcSm::handleWcRoute(const RouteKey& key) {
    handleRoute(key, in_.localStatus->wcRoute().raw(key));
}

void AssertWcSm::handleRxAssert() {
    const Routing::Pim::AssertMessageInfo& info = *in_.rxAssertMessageInfo;
    const Routing::Pim::AssertMessage& msg = info.message();
    const Wirl::IntfId intf = info.intfId();
    const RouteKey key = RouteKey::wc(msg.group);
    // RFC 7761 4.8: there is no shared tree, hence no (*,G) assert, for an SSM group.
    if (in_.ssmGroupInfo->ssmGroup(msg.group, *in_.config)) {
        CASK_VRF_TRACE(7, vrfName(), "AssertWcSm::handleRxAssert({}), Ignored, group in SSM range",
                       key);
        ignoredRxAssertsInc();
        return;
    }
    if (!msg.rpt) {
        CASK_VRF_TRACE(7, vrfName(), "AssertWcSm::handleRxAssert({}) no rpt flag", key);
        return;
    }
    Route* route = in_.localStatus->wcRoute().raw(key);
    if (!route) {
        CASK_VRF_TRACE(7, vrfName(), "AssertWcSm::handleRxAssert({}), No wcRoute info", key);
        return;
    }
    Busy busy(*this);
    Intf* i = route->routeIntfRaw(intf);
    if (!i) {
        CASK_VRF_TRACE(7, vrfName(),
                       "AssertWcSm::handleRxAssert() Creating OIF for route {} interface {}", key,
                       intf);
        i = route->routeIntfIs(intf).get();
        if (!i) return;
    }
    const AssertMetric rx = msg.assertMetric();
    const RouteKey trigger(msg.source, msg.group);
    CASK_VRF_TRACE(7, vrfName(),
                   "AssertWcSm::handleRxAssert({}, {}), Assert State: {}, RX Metric: {}, Assert "
                   "tracking desired: {}, Could assert: {}",
                   key, intf, i->assertInfo().assertState, rx.str(), i->assertTrackingDesiredWc(),
                   i->couldAssertWc());
    switch (i->assertInfo().assertState) {
        case AssertState::assertNoInfo:
            if (i->isInferiorAssertWc(rx) && i->couldAssertWc()) {
                doA1(rhoIntfIs(*route, *i), trigger, " EDGE1");
            } else if (i->isAcceptableAssertWc(rx) && i->assertTrackingDesiredWc()) {
                doA2(rhoIntfIs(*route, *i), rx, " EDGE3");
            }
            return;
        case AssertState::iAmAssertWinner:
            if (i->isInferiorAssertWc(rx)) {
                doA3(rhoIntfIs(*route, *i), trigger, " EDGE2");
            } else if (i->isPreferredAssertWc(rx)) {
                doA2(rhoIntfIs(*route, *i), rx, " EDGE3");
            }
            return;
        case AssertState::iAmAssertLoser: {
            const bool fromWinner = rx.address == i->assertWinner();
            if (i->isPreferredAssertWc(rx)) {
                doA2(rhoIntfIs(*route, *i), rx, " EDGE1");
            } else if (i->isAcceptableAssertWc(rx) && fromWinner) {
                doA2(rhoIntfIs(*route, *i), rx, " EDGE2");
            } else if (i->isInferiorAssertWc(rx) && fromWinner) {
                doA5(rhoIntfIs(*route, *i), " EDGE3");
            }
            return;
        }
    }
}

void AssertWcSm::handleRxData() {
    const Routing::Gmp::Tidal::RouteIntfKey& ri = in_.mrtMessageInfo->routeIntf();
    const RouteKey key = RouteKey::wc(ri.routeKey.group());
    const Wirl::IntfId intf = ri.intf;
    Route* route = in_.localStatus->wcRoute().raw(key);
    if (!route) {
        CASK_VRF_TRACE(7, vrfName(),
                       "AssertWcSm::handleRxData({}), Ignoring message, no (*,G) state", key);
        return;
    }
    if (!route->rpf().resolved()) {
        CASK_VRF_TRACE(7, vrfName(), "AssertWcSm::handleRxData({}), Ignoring message, no RPF", key);
        return;
    }
    Intf* i = route->routeIntfRaw(intf);
    if (!i) {
        CASK_VRF_TRACE(7, vrfName(),
                       "AssertWcSm::handleRxData({}), Ignoring message, no (*,G,I) state for "
                       "interface {}",
                       key, intf);
        return;
    }
    if (!i->couldAssertWc()) {
        CASK_VRF_TRACE(7, vrfName(),
                       "AssertWcSm::handleRxData({}), Ignoring message, couldAssert is False for "
                       "interface {}",
                       key, intf);
        return;
    }
    if (i->assertInfo().assertState != AssertState::assertNoInfo) {
        CASK_VRF_TRACE(7, vrfName(),
                       "AssertWcSm::handleRxData({}), Ignoring message, assert state for interface "
                       "{} is: {}",
                       key, intf, i->assertInfo().assertState);
        return;
    }
    Busy busy(*this);
    doA1(rhoIntfIs(*route, *i), ri.routeKey, " EDGE2");
}

Cask::Ptr<AssertWcSm> assertWcSmFactory(const VrfContext& ctx) {
    auto sm = Cask::make<AssertWcSm>(ctx);
    sm->handleInitialized();
    return sm;
}

}  // namespace Routing::Pim::SparseMode
