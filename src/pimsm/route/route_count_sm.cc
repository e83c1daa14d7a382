#include "pimsm/route/route_count_sm.h"

#include <utility>

#include "cask/assert.h"
#include "cask/trace.h"
#include "pimsm/common/vrf_inputs.h"

namespace Routing::Pim::SparseMode {

RouteCountSm::RouteCountSm(const VrfContext& ctx)
    : vrfName_(ctx.vrfName),
      localStatus_(ctx.localStatus),
      rpfStatus_(ctx.rpfStatus),
      tidalStatus_(ctx.routeCounts) {
    requireInputs(ctx, "RouteCountSm", &VrfContext::localStatus, &VrfContext::rpfStatus,
                  &VrfContext::routeCounts);
    notifierIs(localStatus_.get());
    rpfStatusWatcher_.notifierIs(rpfStatus_.get());
}

void RouteCountSm::handleInitialized() {
    CASK_VRF_TRACE(6, vrfName_, "RouteCountSm::handleInitialized()");
    handleUnresolvedRoute(Routing::Pim::RouteKey{});
    handleToBeDeletedRoute(Routing::Pim::RouteKey{});
    handleSwitchingRoute(Routing::Pim::RouteKey{});
}

void RouteCountSm::handleUnresolvedRoute(const Routing::Pim::RouteKey& key) {
    CASK_VRF_TRACE(6, vrfName_, "RouteCountSm::handleUnresolvedRoute({})", key);
    doWrite(Tidal::unresolvedRouteCount, rpfStatus_->unresolvedRouteSize());
}

void RouteCountSm::handleToBeDeletedRoute(const Routing::Pim::RouteKey& key) {
    CASK_VRF_TRACE(6, vrfName_, "RouteCountSm::handleToBeDeletedRoute({})", key);
    doWrite(Tidal::toBeDeletedRouteCount, localStatus_->toBeDeletedRouteSize());
}

void RouteCountSm::handleSwitchingRoute(const Routing::Pim::RouteKey& key) {
    CASK_VRF_TRACE(6, vrfName_, "RouteCountSm::handleSwitchingRoute({})", key);
    doWrite(Tidal::switchingRouteCount, localStatus_->switchingRouteSize());
}

void RouteCountSm::doWrite(Tidal::RouteCounterKind kind, std::size_t count) {
    const Tidal::RouteCounterKey key{kind, 0};
    tidalStatus_->routeCounterIs(Tidal::RouteCounter{key, static_cast<std::uint32_t>(count)});
}

std::unique_ptr<RouteCountSm> routeCountSmFactory(const VrfContext& ctx) {
    auto sm = std::make_unique<RouteCountSm>(ctx);
    sm->handleInitialized();
    return sm;
}

}  // namespace Routing::Pim::SparseMode
