#include "pimsm/upstream/rpf_table.h"

namespace Routing::Pim::SparseMode {

std::optional<RpfLookup> PimRpfTable::doLookup(const Wirl::IpGenAddr& addr) const {
    if (!available()) return std::nullopt;
    auto route = status_->rpfTable()->lookup(addr);
    if (!route) return std::nullopt;
    RpfLookup out;
    out.rpf.intf = route->intf;
    out.rpf.neighbor = route->attached ? Wirl::IpGenAddr() : route->nextHop;
    out.rpf.preference = route->preference;
    out.rpf.metric = route->metric;
    out.prefix = route->prefix;
    out.attached = route->attached;
    return out;
}

}  // namespace Routing::Pim::SparseMode
