// IpGenAddr: an IPv4 or IPv6 address held by value. It is the key type of the route
// tables (sources, groups, RPs, neighbors), so it is trivially copyable, 17 bytes, never
// allocates, and has a cheap, well-spread hash. IPv4 addresses use the first four bytes
// (network order) and keep the other twelve zero, which lets comparison and hashing treat
// both families alike.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

#include <fmt/format.h>

#include "wirl/address_family.h"

namespace Wirl {

class IpGenAddr {
public:
    using Bytes = std::array<std::uint8_t, 16>;

    // The unknown-family address: not equal to 0.0.0.0 nor to ::.
    constexpr IpGenAddr() = default;

    static IpGenAddr v4(std::uint32_t hostOrder);
    static IpGenAddr v6(const Bytes& bytes);
    // Dotted quad (no leading zeros in an octet) or RFC 4291 text, with "::" and a
    // trailing dotted quad allowed. No zone index, no whitespace, no prefix length.
    static std::optional<IpGenAddr> parse(std::string_view text);
    // 0.0.0.0 or ::; the default address for ipunknown.
    static IpGenAddr zero(AddressFamily family);

    AddressFamily family() const { return family_; }
    // Network-order bytes: 4 for IPv4, 16 for IPv6, none for ipunknown.
    std::span<const std::uint8_t> bytes() const { return {bytes_.data(), familyBits(family_) / 8}; }
    // The IPv4 address as a host-order integer; 0 for any other family.
    std::uint32_t v4HostOrder() const;

    // Dotted quad for IPv4; RFC 5952 canonical text for IPv6 (IPv4-mapped addresses in
    // mixed notation, "::ffff:1.2.3.4"); "<unknown>" for ipunknown.
    std::string str() const;

    bool isMulticast() const;           // 224.0.0.0/4, ff00::/8
    bool isUnicast() const;             // see the .cc for what is excluded
    bool isUnspecified() const;         // 0.0.0.0, ::
    bool isLinkLocalMulticast() const;  // 224.0.0.0/24; ff01::/16, ff02::/16 (any flags)
    bool isLoopback() const;            // 127.0.0.0/8, ::1

    // Family first, then the bytes, i.e. numeric order within a family.
    std::strong_ordering operator<=>(const IpGenAddr& other) const;
    bool operator==(const IpGenAddr& other) const;

    std::size_t hash() const;

private:
    AddressFamily family_ = AddressFamily::ipunknown;
    Bytes bytes_{};
};

static_assert(sizeof(IpGenAddr) == 17);
static_assert(std::is_trivially_copyable_v<IpGenAddr>);

std::ostream& operator<<(std::ostream& os, const IpGenAddr& addr);

}  // namespace Wirl

template <>
struct std::hash<Wirl::IpGenAddr> {
    std::size_t operator()(const Wirl::IpGenAddr& addr) const noexcept { return addr.hash(); }
};

template <>
struct fmt::formatter<Wirl::IpGenAddr> : fmt::formatter<std::string_view> {
    template <typename FormatContext>
    auto format(const Wirl::IpGenAddr& addr, FormatContext& ctx) const {
        return fmt::formatter<std::string_view>::format(addr.str(), ctx);
    }
};
