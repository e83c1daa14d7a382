#include "wirl/vrf_name.h"

#include <ostream>
#include <stdexcept>

namespace L3 {

VrfName::VrfName(std::string_view name) {
    if (name.size() > maxLength) {
        throw std::length_error("VrfName::bytes > VrfName::maxLength not allowed");
    }
    name_ = name;
}

VrfName VrfName::defaultVrf() {
    return VrfName("default");
}

bool VrfName::isDefault() const {
    return name_ == "default";
}

std::ostream& operator<<(std::ostream& os, const VrfName& vrf) {
    return os << vrf.str();
}

}  // namespace L3
