// IntfId: the identity of a network interface, by name ("Ethernet1", "Vlan10"). Names
// are interned in a process-wide table and an IntfId holds only the 4-byte index, so the
// per-interface state that every route entry keeps (incoming interface, outgoing lists)
// copies, compares and hashes as an integer. Ordering compares the names, so anything
// printed in interface order comes out the same whichever interface was seen first.
//
// Not thread-safe: the interning table is unsynchronised and must be used from one
// thread only.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>

#include <fmt/format.h>

namespace Wirl {

class IntfId {
public:
    // The empty name; isNull() is true.
    IntfId() = default;
    // Interns `name`; the same name always yields the same id.
    explicit IntfId(std::string_view name);

    // The register tunnel pseudo-interface (RFC 7761) used as the outgoing interface
    // of a DR that encapsulates data to the RP, and as the incoming one at the RP.
    static IntfId register0();
    // The discard interface.
    static IntfId null0();

    // Valid for the life of the process: interned names are never moved or freed.
    const std::string& name() const;
    std::uint32_t id() const { return id_; }

    bool isNull() const { return id_ == 0; }
    bool isRegister() const { return *this == register0(); }
    bool hasPrefix(std::string_view prefix) const;

    bool operator==(const IntfId& other) const { return id_ == other.id_; }
    // By name; consistent with == because distinct ids have distinct names.
    std::strong_ordering operator<=>(const IntfId& other) const {
        if (id_ == other.id_) return std::strong_ordering::equal;
        return compareNames(other);
    }

    std::size_t hash() const;

private:
    std::strong_ordering compareNames(const IntfId& other) const;

    std::uint32_t id_ = 0;
};

static_assert(sizeof(IntfId) == 4);

std::ostream& operator<<(std::ostream& os, const IntfId& intf);

}  // namespace Wirl

template <>
struct std::hash<Wirl::IntfId> {
    std::size_t operator()(const Wirl::IntfId& intf) const noexcept { return intf.hash(); }
};

template <>
struct fmt::formatter<Wirl::IntfId> : fmt::formatter<std::string_view> {
    template <typename FormatContext>
    auto format(const Wirl::IntfId& intf, FormatContext& ctx) const {
        return fmt::formatter<std::string_view>::format(intf.name(), ctx);
    }
};
