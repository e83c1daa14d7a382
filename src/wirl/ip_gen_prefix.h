// IpGenPrefix: an address block of either family, "232.0.0.0/8" or "ff3e::/32". Group
// ranges in RP mappings, SSM and boundary configuration, and unicast routes are all given
// this way. The stored address always has its host bits cleared, so two prefixes naming
// the same block compare equal whatever text they were written as.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include "wirl/ip_gen_addr.h"

namespace Wirl {

class IpGenPrefix {
public:
    // The unknown-family prefix of length 0; contains nothing.
    IpGenPrefix() = default;
    // Clears the host bits of `addr`. Throws std::invalid_argument if `length` exceeds
    // the family's width or the address has no family.
    IpGenPrefix(const IpGenAddr& addr, unsigned length);

    // "addr/len" with a decimal length (no sign, no leading zero), or a bare address,
    // which is taken as a host prefix. Host bits may be set in the text; they are cleared.
    static std::optional<IpGenPrefix> parse(std::string_view text);
    // The /32 or /128 holding exactly `addr`.
    static IpGenPrefix hostPrefix(const IpGenAddr& addr);

    AddressFamily family() const { return addr_.family(); }
    const IpGenAddr& addr() const { return addr_; }
    unsigned length() const { return length_; }
    bool isHost() const { return length_ == familyBits(family()); }

    // Lowest and highest address in the block.
    IpGenAddr first() const { return addr_; }
    IpGenAddr last() const;

    // False whenever the families differ.
    bool contains(const IpGenAddr& addr) const;
    bool contains(const IpGenPrefix& other) const;

    std::string str() const;

    // By address, then by length (so a block sorts before the blocks it contains that
    // share its first address).
    auto operator<=>(const IpGenPrefix& other) const = default;
    bool operator==(const IpGenPrefix& other) const = default;

    std::size_t hash() const;

private:
    IpGenAddr addr_;
    std::uint8_t length_ = 0;
};

std::ostream& operator<<(std::ostream& os, const IpGenPrefix& prefix);

}  // namespace Wirl

template <>
struct std::hash<Wirl::IpGenPrefix> {
    std::size_t operator()(const Wirl::IpGenPrefix& p) const noexcept { return p.hash(); }
};

template <>
struct fmt::formatter<Wirl::IpGenPrefix> : fmt::formatter<std::string_view> {
    template <typename FormatContext>
    auto format(const Wirl::IpGenPrefix& prefix, FormatContext& ctx) const {
        return fmt::formatter<std::string_view>::format(prefix.str(), ctx);
    }
};
