// IpGenAddr: an IPv4 or IPv6 address held by value. It is the key type of the route
// tables (sources, groups, RPs, neighbors), so it is trivially copyable, 17 bytes, never
// allocates, and has a cheap, well-spread hash. IPv4 addresses use the first four bytes
// (network order) and keep the other twelve zero, which lets comparison and hashing treat
// both families alike.
#pragma once

#include <array>
#include <bit>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstring>
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
    std::uint32_t v4HostOrder() const {
        if (family_ != AddressFamily::ipv4) return 0;
        return std::uint32_t{bytes_[0]} << 24 | std::uint32_t{bytes_[1]} << 16 |
               std::uint32_t{bytes_[2]} << 8 | std::uint32_t{bytes_[3]};
    }

    // Dotted quad for IPv4; RFC 5952 canonical text for IPv6 (IPv4-mapped addresses in
    // mixed notation, "::ffff:1.2.3.4"); "<unknown>" for ipunknown.
    std::string str() const;

    bool isMulticast() const;  // 224.0.0.0/4, ff00::/8
    bool isUnicast() const;    // see the .cc for what is excluded
    // 0.0.0.0, ::. Inline: it tells a (*,G) key from an (S,G) one.
    bool isUnspecified() const {
        return family_ != AddressFamily::ipunknown && word(0) == 0 && word(8) == 0;
    }
    // Names an address: of a known family and not unspecified.
    bool isSet() const { return family_ != AddressFamily::ipunknown && !isUnspecified(); }
    bool isLinkLocalMulticast() const;  // 224.0.0.0/24; ff01::/16, ff02::/16 (any flags)
    bool isLoopback() const;            // 127.0.0.0/8, ::1

    // Family first, then the bytes, i.e. numeric order within a family. Addresses key every
    // route table, so comparison and hashing are inline: two 64-bit words each.
    [[gnu::always_inline]] std::strong_ordering operator<=>(const IpGenAddr& other) const {
        if (family_ != other.family_) return family_ <=> other.family_;
        // Network-order bytes compare as big-endian words.
        const std::uint64_t a0 = bigEndianWord(0), b0 = other.bigEndianWord(0);
        if (a0 != b0) return a0 <=> b0;
        return bigEndianWord(8) <=> other.bigEndianWord(8);
    }
    [[gnu::always_inline]] bool operator==(const IpGenAddr& other) const {
        return family_ == other.family_ && word(0) == other.word(0) && word(8) == other.word(8);
    }

    std::size_t hash() const { return static_cast<std::size_t>(fmix64(folded())); }
    // The address folded into one word, not yet mixed: keys made of several addresses fold
    // each, combine the words and mix once. The family seeds it, which keeps 0.0.0.0 and ::
    // (equal bytes) apart.
    std::uint64_t folded() const {
        const std::uint64_t seed =
            0x9e3779b97f4a7c15ULL * (static_cast<std::uint64_t>(family_) + 1);
        return word(0) ^ ((word(8) ^ seed) * 0xc2b2ae3d27d4eb4fULL);
    }

    // The address with all but its first `length` bits cleared (network order); the prefix
    // key of every longest-match probe, so two masked words rather than a byte loop.
    IpGenAddr masked(unsigned length) const {
        auto keep = [](unsigned bits) -> std::uint64_t {
            return bits == 0 ? 0 : bits >= 64 ? ~0ULL : ~0ULL << (64 - bits);
        };
        IpGenAddr out = *this;
        out.storeBigEndianWord(0, bigEndianWord(0) & keep(length));
        out.storeBigEndianWord(8, bigEndianWord(8) & keep(length > 64 ? length - 64 : 0));
        return out;
    }

    // fmix64 from MurmurHash3: a cheap full avalanche, so the low bits that bucket indexing
    // uses depend on every input bit.
    static constexpr std::uint64_t fmix64(std::uint64_t k) {
        k ^= k >> 33;
        k *= 0xff51afd7ed558ccdULL;
        k ^= k >> 33;
        k *= 0xc4ceb9fe1a85ec53ULL;
        k ^= k >> 33;
        return k;
    }

private:
    // Eight bytes from `at`, in memory order and in network order.
    std::uint64_t word(std::size_t at) const {
        std::uint64_t w;
        std::memcpy(&w, bytes_.data() + at, sizeof w);
        return w;
    }
    std::uint64_t bigEndianWord(std::size_t at) const {
        const std::uint64_t w = word(at);
        if constexpr (std::endian::native == std::endian::little) {
            return __builtin_bswap64(w);
        } else {
            return w;
        }
    }

    void storeBigEndianWord(std::size_t at, std::uint64_t w) {
        if constexpr (std::endian::native == std::endian::little) w = __builtin_bswap64(w);
        std::memcpy(bytes_.data() + at, &w, sizeof w);
    }

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
