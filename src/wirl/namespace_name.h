// NamespaceName: the name of a network namespace the agent runs or opens sockets in.
// Bounded like L3::VrfName, with its own limit; an over-long name is refused rather than
// truncated so that two namespaces can never be confused.
#pragma once

#include <compare>
#include <cstddef>
#include <iosfwd>
#include <string>
#include <string_view>

#include <fmt/format.h>

namespace Wirl {

class NamespaceName {
public:
    static constexpr std::size_t maxLength = 150;

    NamespaceName() = default;
    // Throws std::length_error if `name` is longer than maxLength bytes.
    explicit NamespaceName(std::string_view name);

    const std::string& str() const { return name_; }
    bool empty() const { return name_.empty(); }

    auto operator<=>(const NamespaceName& other) const = default;
    bool operator==(const NamespaceName& other) const = default;

    std::size_t hash() const { return std::hash<std::string>{}(name_); }

private:
    std::string name_;
};

std::ostream& operator<<(std::ostream& os, const NamespaceName& ns);

}  // namespace Wirl

template <>
struct std::hash<Wirl::NamespaceName> {
    std::size_t operator()(const Wirl::NamespaceName& ns) const noexcept { return ns.hash(); }
};

template <>
struct fmt::formatter<Wirl::NamespaceName> : fmt::formatter<std::string_view> {
    template <typename FormatContext>
    auto format(const Wirl::NamespaceName& ns, FormatContext& ctx) const {
        return fmt::formatter<std::string_view>::format(ns.str(), ctx);
    }
};
