#include "wirl/address_family.h"

namespace Wirl {

const char* familyName(AddressFamily family) {
    switch (family) {
        case AddressFamily::ipv4:
            return "ipv4";
        case AddressFamily::ipv6:
            return "ipv6";
        case AddressFamily::ipunknown:
            break;
    }
    return "ipunknown";
}

}  // namespace Wirl
