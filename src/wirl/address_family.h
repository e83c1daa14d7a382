// AddressFamily: which IP version an address, prefix or range set belongs to. A
// default-constructed address has no family yet (ipunknown), which lets "no address
// configured" be told apart from the unspecified address 0.0.0.0 or ::.
#pragma once

#include <cstdint>

namespace Wirl {

// ipunknown sorts first so that unset addresses order before real ones.
enum class AddressFamily : std::uint8_t { ipunknown = 0, ipv4 = 1, ipv6 = 2 };

// "ipv4", "ipv6" or "ipunknown"; the pointer is to a string literal.
const char* familyName(AddressFamily family);

// Address width in bits: 32, 128, or 0 for ipunknown.
constexpr unsigned familyBits(AddressFamily family) {
    switch (family) {
        case AddressFamily::ipv4:
            return 32;
        case AddressFamily::ipv6:
            return 128;
        case AddressFamily::ipunknown:
            break;
    }
    return 0;
}

}  // namespace Wirl
