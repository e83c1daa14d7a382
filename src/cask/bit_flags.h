#pragma once
// BitFlags: a 32-bit set of named flags, for the change and expiry flag words
// that machines hand each other.
//
//     struct ChangeFlagsTraits {
//         enum class Bit { rpfIntfStatus, rpfBoundary, ... };
//         static constexpr const char* names[] = {"rpfIntfStatus", "rpfBoundary", ...};
//     };
//     using ChangeFlags = Cask::BitFlags<ChangeFlagsTraits>;
//
// `str()` lists the set flags by name ("rpfIntfStatus|rpfNbrGenId"), or
// "none".

#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <string>

#include <fmt/format.h>

namespace Cask {

template <class Traits>
class BitFlags {
public:
    using Bit = typename Traits::Bit;

    constexpr BitFlags() = default;
    constexpr BitFlags(std::initializer_list<Bit> bits) {
        for (Bit b : bits) set(b);
    }
    static constexpr BitFlags fromValue(std::uint32_t v) {
        BitFlags f;
        f.bits_ = v;
        return f;
    }

    constexpr bool has(Bit b) const { return bits_ & mask(b); }
    constexpr bool hasAny(BitFlags o) const { return bits_ & o.bits_; }
    constexpr void set(Bit b, bool on = true) { bits_ = on ? bits_ | mask(b) : bits_ & ~mask(b); }
    constexpr void clear(Bit b) { set(b, false); }
    constexpr bool empty() const { return bits_ == 0; }
    constexpr std::uint32_t value() const { return bits_; }
    constexpr BitFlags& operator|=(BitFlags o) {
        bits_ |= o.bits_;
        return *this;
    }
    constexpr BitFlags operator|(BitFlags o) const { return fromValue(bits_ | o.bits_); }
    constexpr bool operator==(const BitFlags&) const = default;

    std::string str() const {
        if (!bits_) return "none";
        std::string out;
        for (std::size_t i = 0; i < std::size(Traits::names); ++i) {
            if (!(bits_ & (1u << i))) continue;
            if (!out.empty()) out += '|';
            out += Traits::names[i];
        }
        return out;
    }

private:
    static constexpr std::uint32_t mask(Bit b) { return 1u << static_cast<unsigned>(b); }
    std::uint32_t bits_ = 0;
};

}  // namespace Cask

template <class Traits>
struct fmt::formatter<Cask::BitFlags<Traits>> : fmt::formatter<std::string_view> {
    template <typename Ctx>
    auto format(const Cask::BitFlags<Traits>& f, Ctx& ctx) const {
        return fmt::formatter<std::string_view>::format(f.str(), ctx);
    }
};
