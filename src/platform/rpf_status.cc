#include "platform/rpf_status.h"

#include <utility>

namespace Routing::Pim {

template <class Change>
void RpfConfig::deliver(const RouteKey& k, Change&& change) {
    // A watcher may drop the last reference to the record while it is told;
    // keep it alive until the previous value is put back.
    const Cask::Ptr<RpfConfig> self(this);
    RpfConfigInfo outer = std::exchange(before_, rpfConfigInfo_.get(k));
    change();
    before_ = std::move(outer);
}

void RpfConfig::rpfConfigInfoIs(const RouteKey& k, RpfConfigInfo v) {
    deliver(k, [&] { rpfConfigInfo_.is(*this, k, std::move(v), &Notifiee::handleRpfConfigInfo); });
}

void RpfConfig::rpfConfigInfoDel(const RouteKey& k) {
    deliver(k, [&] { rpfConfigInfo_.del(*this, k, &Notifiee::handleRpfConfigInfo); });
}

void RpfStatus::rpfRouteChangedIs(std::vector<RouteKey> routes) {
    rpfRouteChangedRoute_ = std::move(routes);
    increment(rpfRouteChangedCount_, &Notifiee::handleRpfRouteChangedCount);
}

}  // namespace Routing::Pim
