#include "wirl/namespace_name.h"

#include <ostream>
#include <stdexcept>

namespace Wirl {

NamespaceName::NamespaceName(std::string_view name) {
    if (name.size() > maxLength) throw std::length_error("NamespaceName::bytes > 150 not allowed");
    name_ = name;
}

std::ostream& operator<<(std::ostream& os, const NamespaceName& ns) {
    return os << ns.str();
}

}  // namespace Wirl
