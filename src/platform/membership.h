#pragma once
// The membership table: what the host-side membership protocol (IGMP for
// IPv4, MLD for IPv6) learnt on this router's interfaces, published per VRF
// and address family. Keyed by route and interface; an absent key reads as
// the default record, which means "no membership".

#include <compare>
#include <cstdint>
#include <string>

#include <fmt/format.h>

#include "cask/collection.h"
#include "platform/route_key.h"
#include "wirl/intf_id.h"

namespace Routing::Gmp::Tidal {

struct RouteIntfKey {
    Routing::Pim::RouteKey routeKey;
    Wirl::IntfId intf;

    bool isNull() const { return routeKey.isNull(); }
    std::size_t hash() const { return routeKey.hash() * 31 + intf.hash(); }
    bool operator==(const RouteIntfKey&) const = default;
    std::strong_ordering operator<=>(const RouteIntfKey&) const = default;
    std::string str() const { return fmt::format("{} on {}", routeKey, intf); }
};

// 1 means include: the receiver wants the traffic the key names. Any other
// value means exclude: it wants the group without this source.
enum class FilterMode : std::uint8_t { none = 0, include = 1, exclude = 2 };

struct Membership {
    RouteIntfKey key;
    FilterMode filterMode = FilterMode::none;
    bool operator==(const Membership&) const = default;
    bool isDefault() const { return *this == Membership{}; }
};

class Status : public Cask::Record<Status> {
public:
    class Notifiee : public Cask::NotifieeOf<Status> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleMembership(const RouteIntfKey&) {}
    };

    // Walked in key order, so a full review can resume at a bookmark.
    CASK_VALUE_MAP(membership, Membership, RouteIntfKey, Membership)

private:
    Cask::OrderedValueMap<RouteIntfKey, Membership> membership_;
};

}  // namespace Routing::Gmp::Tidal

template <>
struct fmt::formatter<Routing::Gmp::Tidal::RouteIntfKey> : fmt::formatter<std::string_view> {
    template <typename Ctx>
    auto format(const Routing::Gmp::Tidal::RouteIntfKey& k, Ctx& ctx) const {
        return fmt::formatter<std::string_view>::format(k.str(), ctx);
    }
};
