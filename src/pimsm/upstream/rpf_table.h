#pragma once
// PimRpfTable: the unicast RPF lookups of the upstream machines. Given an
// address (an RP, a source) it answers the unicast route toward it: RPF
// interface, next hop, matched prefix, whether the prefix is directly
// attached, and the route's preference and metric (which assert metrics
// carry).
//
// It reads the table UnicastRoutingStatus names for RPF (`rpfTable()`: the
// multicast RIB when present, else its shadow, else the unicast RIB's
// shadow), at the moment of the lookup, so it never holds stale answers.
// Changes of that table reach the routes through the route review's
// `rpfRouteChanged` change flag, which is computed from the same table.

#include <optional>

#include "pimsm/route/unicast_routing_status.h"
#include "platform/pim_status.h"
#include "platform/rpf.h"
#include "wirl/ip_gen_prefix.h"

namespace Routing::Pim::SparseMode {

struct RpfLookup {
    // Interface, next hop (unspecified when attached), preference, metric.
    Routing::Pim::Rpf rpf;
    Wirl::IpGenPrefix prefix;
    bool attached = false;
    bool operator==(const RpfLookup&) const = default;
};

class PimRpfTable {
public:
    explicit PimRpfTable(const UnicastRoutingStatus* status) : status_(status) {}
    // False when the VRF has no table to look in.
    bool available() const { return status_ && status_->rpfTable(); }
    // The route toward `addr`; nullopt without a table or a covering route.
    std::optional<RpfLookup> doLookup(const Wirl::IpGenAddr& addr) const;
    // What RPF can say from an interface alone, when the unicast table has
    // no route (the routes are not back yet after a restart): the PIM
    // interface, with its PIM neighbour when it has exactly one. Nullopt for
    // an interface that does not run PIM or is a pseudo-interface.
    static std::optional<RpfLookup> rpfInfoFromIntfId(Wirl::IntfId intf,
                                                      const Routing::Pim::Status& pim);

private:
    const UnicastRoutingStatus* status_;
};

}  // namespace Routing::Pim::SparseMode
