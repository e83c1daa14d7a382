#include "platform/rpf.h"

#include <fmt/format.h>

namespace Routing::Pim {

std::string Rpf::str() const {
    if (!resolved()) return "unresolved";
    if (!hasNeighbor()) return fmt::format("{}, no neighbor", intf);
    return fmt::format("{} via {}", intf, neighbor);
}

}  // namespace Routing::Pim
