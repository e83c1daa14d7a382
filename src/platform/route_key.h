#pragma once
// RouteKey: the key of a multicast route, (S,G) or (*,G).
//
// A (*,G) key has the all-zero source of the group's family. Keys order by
// group first and then source, so a table walked in key order shows each
// group's (*,G) route followed by its (S,G) routes.

#include <compare>
#include <cstddef>
#include <string>

#include <fmt/format.h>

#include "wirl/intf_id.h"
#include "wirl/ip_gen_addr.h"

namespace Routing::Pim {

class RouteKey {
public:
    RouteKey() = default;
    RouteKey(const Wirl::IpGenAddr& source, const Wirl::IpGenAddr& group)
        : source_(source), group_(group) {}
    // The (*,G) key of a group.
    static RouteKey wc(const Wirl::IpGenAddr& group) {
        return RouteKey(Wirl::IpGenAddr::zero(group.family()), group);
    }

    const Wirl::IpGenAddr& source() const { return source_; }
    const Wirl::IpGenAddr& group() const { return group_; }
    Wirl::AddressFamily family() const { return group_.family(); }
    bool isWc() const { return source_.isUnspecified(); }
    // The default key: "no route" (an empty review bookmark, for example).
    bool isNull() const { return group_.family() == Wirl::AddressFamily::ipunknown; }

    // Inline and mixed once: route tables are hashed on every lookup.
    std::size_t hash() const {
        return static_cast<std::size_t>(Wirl::IpGenAddr::fmix64(
            group_.folded() ^ (source_.folded() * 0x9e3779b97f4a7c15ULL + 0x632be59bd9b4e019ULL)));
    }
    // Always inline: tree searches compare keys at every step, and the
    // compiler kept these out of line in the larger searches.
    [[gnu::always_inline]] bool operator==(const RouteKey& o) const {
        return group_ == o.group_ && source_ == o.source_;
    }
    [[gnu::always_inline]] std::strong_ordering operator<=>(const RouteKey& o) const {
        if (auto c = group_ <=> o.group_; c != 0) return c;
        return source_ <=> o.source_;
    }

    // "(10.0.0.1, 232.1.1.1)" or "(*, 239.1.1.1)".
    std::string str() const;

private:
    Wirl::IpGenAddr source_;
    Wirl::IpGenAddr group_;
};

// A PIM neighbour: the interface and the neighbour's address on it.
struct NeighborKey {
    Wirl::IntfId intf;
    Wirl::IpGenAddr address;
    std::size_t hash() const;
    bool operator==(const NeighborKey&) const = default;
    std::strong_ordering operator<=>(const NeighborKey&) const = default;
    std::string str() const;
};

}  // namespace Routing::Pim

template <>
struct fmt::formatter<Routing::Pim::RouteKey> : fmt::formatter<std::string_view> {
    template <typename Ctx>
    auto format(const Routing::Pim::RouteKey& k, Ctx& ctx) const {
        return fmt::formatter<std::string_view>::format(k.str(), ctx);
    }
};

template <>
struct fmt::formatter<Routing::Pim::NeighborKey> : fmt::formatter<std::string_view> {
    template <typename Ctx>
    auto format(const Routing::Pim::NeighborKey& k, Ctx& ctx) const {
        return fmt::formatter<std::string_view>::format(k.str(), ctx);
    }
};
