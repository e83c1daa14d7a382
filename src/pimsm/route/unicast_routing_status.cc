#include "pimsm/route/unicast_routing_status.h"

namespace Routing::Pim::SparseMode {

Routing::Unicast::RouteTable* UnicastRoutingStatus::rpfTable() const {
    const bool v4 = family_ == Wirl::AddressFamily::ipv4;
    const Table* order[] = {v4 ? &mribStatus_ : &mrib6Status_,
                            v4 ? &mribShadowStatus_ : &mrib6ShadowStatus_,
                            v4 ? &uribShadowStatus_ : &urib6ShadowStatus_};
    for (const Table* t : order) {
        if (*t) return t->get();
    }
    return nullptr;
}

Cask::Ptr<UnicastRoutingStatus> unicastRoutingStatusFactory(Wirl::AddressFamily family) {
    return Cask::make<UnicastRoutingStatus>(family);
}

}  // namespace Routing::Pim::SparseMode
