#include "pimsm/assert/assert_mrt_sm.h"

#include "cask/assert.h"
#include "cask/trace.h"
#include "pimsm/common/vrf_inputs.h"

namespace Routing::Pim::SparseMode {

AssertMrtSm::AssertMrtSm(const VrfContext& ctx)
    : Routing::Pim::MrtUpcallStatus::Notifiee(ctx.mrtUpcall),
      ctx_(requireInputs(ctx, "AssertMrtSm", &VrfContext::mrtMessageInfo)) {}

void AssertMrtSm::handleWrongVifMessage() {
    const auto& u = notifier()->lastWrongVif();
    CASK_VRF_TRACE(6, ctx_.vrfName, "AssertMrtSm::handleWrongVifMessage({}, {})", u.key, u.intf);
    ctx_.mrtMessageInfo->routeIntfIs(Routing::Gmp::Tidal::RouteIntfKey{u.key, u.intf});
    ctx_.mrtMessageInfo->rxCountInc();
}

void AssertMrtSm::handleNoCacheMessage() {
    const auto& u = notifier()->lastNoCache();
    CASK_VRF_TRACE(6, ctx_.vrfName, "AssertMrtSm::handleNoCacheMessage({}, {})", u.key, u.intf);
    ctx_.mrtMessageInfo->routeIntfIs(Routing::Gmp::Tidal::RouteIntfKey{u.key, u.intf});
    ctx_.mrtMessageInfo->wcRxCountInc();
}

std::unique_ptr<AssertMrtSm> assertMrtSmFactory(const VrfContext& ctx) {
    return std::make_unique<AssertMrtSm>(ctx);
}

}  // namespace Routing::Pim::SparseMode
