#pragma once
// Rpf: where a route's traffic comes from, the result of a unicast RPF
// lookup toward a source or an RP: the incoming interface, the upstream PIM
// neighbour on it (the unspecified address when there is none, e.g. for a
// directly connected source or at the RP), and the preference and metric of
// the unicast route, which assert metrics carry.

#include <cstdint>
#include <string>

#include "wirl/intf_id.h"
#include "wirl/ip_gen_addr.h"

namespace Routing::Pim {

struct Rpf {
    static constexpr std::uint32_t infinitePreference = 0x7fffffff;
    static constexpr std::uint32_t infiniteMetric = 0xffffffff;

    Wirl::IntfId intf;
    Wirl::IpGenAddr neighbor;
    std::uint32_t preference = infinitePreference;
    std::uint32_t metric = infiniteMetric;

    bool resolved() const { return !intf.isNull(); }
    bool hasNeighbor() const { return neighbor.isSet(); }
    bool operator==(const Rpf&) const = default;
    std::string str() const;
};

}  // namespace Routing::Pim
