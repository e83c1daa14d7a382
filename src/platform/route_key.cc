#include "platform/route_key.h"

namespace Routing::Pim {

namespace {
std::size_t mix(std::size_t a, std::size_t b) {
    // Boost's hash_combine constant, widened: keeps (S,G) and (G,S) apart.
    return a ^ (b + 0x9e3779b97f4a7c15ull + (a << 6) + (a >> 2));
}
}  // namespace

std::string RouteKey::str() const {
    if (isWc()) return fmt::format("(*, {})", group_);
    return fmt::format("({}, {})", source_, group_);
}

std::size_t NeighborKey::hash() const {
    return mix(intf.hash(), address.hash());
}

std::string NeighborKey::str() const {
    return fmt::format("{} on {}", address, intf);
}

}  // namespace Routing::Pim
