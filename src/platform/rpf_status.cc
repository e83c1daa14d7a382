#include "platform/rpf_status.h"

#include <utility>

namespace Routing::Pim {

void RpfStatus::rpfRouteChangedIs(std::vector<RouteKey> routes) {
    rpfRouteChangedRoute_ = std::move(routes);
    increment(rpfRouteChangedCount_, &Notifiee::handleRpfRouteChangedCount);
}

}  // namespace Routing::Pim
