// L3::VrfName: the name of a VRF (routing instance). Every per-VRF table and every
// configuration command is keyed by it. Names are bounded so that they fit the fixed-size
// fields they are copied into; an over-long name is refused at construction rather than
// truncated, since a truncated name could silently alias another VRF.
#pragma once

#include <compare>
#include <cstddef>
#include <iosfwd>
#include <string>
#include <string_view>

#include <fmt/format.h>

namespace L3 {

class VrfName {
public:
    static constexpr std::size_t maxLength = 100;

    // The empty name: no VRF chosen yet. Not the default VRF.
    VrfName() = default;
    // Throws std::length_error if `name` is longer than maxLength bytes.
    explicit VrfName(std::string_view name);

    static VrfName defaultVrf();
    bool isDefault() const;

    const std::string& str() const { return name_; }

    auto operator<=>(const VrfName& other) const = default;
    bool operator==(const VrfName& other) const = default;

    std::size_t hash() const { return std::hash<std::string>{}(name_); }

private:
    std::string name_;
};

std::ostream& operator<<(std::ostream& os, const VrfName& vrf);

}  // namespace L3

template <>
struct std::hash<L3::VrfName> {
    std::size_t operator()(const L3::VrfName& vrf) const noexcept { return vrf.hash(); }
};

template <>
struct fmt::formatter<L3::VrfName> : fmt::formatter<std::string_view> {
    template <typename FormatContext>
    auto format(const L3::VrfName& vrf, FormatContext& ctx) const {
        return fmt::formatter<std::string_view>::format(vrf.str(), ctx);
    }
};
