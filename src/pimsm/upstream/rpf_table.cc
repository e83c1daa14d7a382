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

std::optional<RpfLookup> PimRpfTable::rpfInfoFromIntfId(Wirl::IntfId intf,
                                                        const Routing::Pim::Status& pim) {
    if (intf.isNull() || intf.isRegister() || intf == Wirl::IntfId::null0()) return std::nullopt;
    const Routing::Pim::PimIntfStatus* rec = pim.intfRaw(intf);
    if (!rec) return std::nullopt;
    RpfLookup out;
    out.rpf.intf = intf;
    // With several neighbours the interface alone does not say which one is
    // upstream; the route then waits for the unicast table.
    if (rec->neighborSize() == 1) out.rpf.neighbor = rec->neighbor().begin()->first;
    return out;
}

}  // namespace Routing::Pim::SparseMode
