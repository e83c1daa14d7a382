#pragma once
// RPF requests and results of one VRF, the two halves of the exchange between
// the agent and the unicast routing side:
// - RpfConfig: per route, the addresses whose unicast route the route needs
//   (its RPF target, and its current and previous RPF neighbours);
// - RpfStatus: per address, the RPF it resolved to; the routes whose RPF
//   target has no unicast route; and a counter bumped with the routes whose
//   unicast route changed, so one notification carries a whole batch.
// The agent writes RpfConfig and reads RpfStatus; RpfResolver (or, in a full
// system, the unicast routing agent) does the opposite.

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include <absl/container/btree_map.h>
#include <absl/container/btree_set.h>

#include "cask/collection.h"
#include "platform/route_key.h"
#include "platform/rpf.h"
#include "wirl/ip_gen_addr.h"

namespace Routing::Pim {

// The addresses one route needs resolved (the route is the key it is kept
// under). Unset addresses have no family.
struct RpfConfigInfo {
    // The source of an (S,G) route, the RP of a (*,G) route; the route's RPF
    // is unresolved while this has no unicast route (or is unset).
    Wirl::IpGenAddr target;
    Wirl::IpGenAddr rpfNeighbor;
    Wirl::IpGenAddr prevRpfNeighbor;

    std::array<Wirl::IpGenAddr, 3> addresses() const {
        return {target, rpfNeighbor, prevRpfNeighbor};
    }
    bool operator==(const RpfConfigInfo&) const = default;
    // Folded per address and mixed once, as RouteKey does.
    std::size_t hash() const {
        constexpr std::uint64_t k = 0x9e3779b97f4a7c15ULL;
        return static_cast<std::size_t>(
            Wirl::IpGenAddr::fmix64(target.folded() ^ (rpfNeighbor.folded() * k + 1) ^
                                    (prevRpfNeighbor.folded() * (k * k) + 2)));
    }
};

// Routes share their requests: every (*,G) route of one RP asks for the same
// RP and upstream neighbour. Each distinct request is kept once, with the
// routes making it, so a route costs a key and a request number here, and a
// reader finds the routes asking for an address (`forEachRouteUsing`)
// through the few requests naming it, with no index of its own.
class RpfConfig : public Cask::Record<RpfConfig> {
public:
    class Notifiee : public Cask::NotifieeOf<RpfConfig> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleRpfConfigInfo(const RouteKey&) {}
    };
    // The route's request; no addresses when it has none.
    RpfConfigInfo rpfConfigInfo(const RouteKey& k) const;
    bool rpfConfigInfoHas(const RouteKey& k) const { return route_.find(k) != route_.end(); }
    // The route's request in place; null when it makes none. Valid until
    // the configuration next changes.
    const RpfConfigInfo* rpfConfigInfoFind(const RouteKey& k) const {
        // The entry written last is the one its watchers read.
        if (written_ && written_->key == k) return &request_[written_->id].info;
        auto it = route_.find(k);
        return it == route_.end() ? nullptr : &request_[it->second].info;
    }
    std::size_t rpfConfigInfoSize() const { return route_.size(); }
    void rpfConfigInfoIs(const RouteKey& k, RpfConfigInfo v);
    void rpfConfigInfoDel(const RouteKey& k);
    // While a change of an entry is being delivered: the entry as it was
    // before the change (no addresses when it was absent). A reader that
    // follows the entries needs no copy of them to know what a route no
    // longer asks for. A change made during the delivery of another is
    // delivered with its own previous value, and the outer one's is back
    // once it returns.
    const RpfConfigInfo& rpfConfigInfoBefore() const { return before_; }

    // Every route with its request, in no particular order. `f` must not
    // change the configuration.
    template <class F>
    void forEachRoute(F&& f) const {
        for (const auto& [key, id] : route_) f(key, request_[id].info);
    }
    // Whether some route asks for `a` (as its target or a neighbour).
    bool addressUsed(const Wirl::IpGenAddr& a) const;
    // Every route asking for `a`, each once. `f` must not change the
    // configuration.
    template <class F>
    void forEachRouteUsing(const Wirl::IpGenAddr& a, F&& f) const {
        for (auto it = addressRequest_.lower_bound({a, 0});
             it != addressRequest_.end() && it->first == a; ++it) {
            for (const auto& key : request_[it->second].routes) f(key);
        }
    }
    // How many distinct requests the routes make.
    std::size_t requestCount() const { return requestId_.size(); }

private:
    using RequestId = std::uint32_t;
    struct Request {
        RpfConfigInfo info;
        Cask::WideBtreeSet<RouteKey> routes;
    };

    // Runs `change` of an entry whose value was `before`, which
    // `rpfConfigInfoBefore` shows meanwhile.
    template <class Change>
    void deliver(RpfConfigInfo before, Change&& change);
    RequestId requestIs(const RpfConfigInfo& info);
    // Takes `k` off its request, dropping the request with its last route.
    void requestRouteDel(RequestId id, const RouteKey& k);

    // In key order: routes arrive in key order from the reviews that make
    // them, so new entries go to the same leaf rather than to random places.
    Cask::WideBtreeMap<RouteKey, RequestId> route_;
    std::vector<Request> request_;
    std::vector<RequestId> freeRequest_;
    Cask::HashMap<RpfConfigInfo, RequestId> requestId_;
    // (address, request naming it), for `forEachRouteUsing`; an address
    // appears once per distinct request, not once per route.
    absl::btree_set<std::pair<Wirl::IpGenAddr, RequestId>> addressRequest_;
    RpfConfigInfo before_;
    // The route written last and its request; none after a removal.
    struct Written {
        RouteKey key;
        RequestId id;
    };
    std::optional<Written> written_;
};

class RpfStatus : public Cask::Record<RpfStatus> {
public:
    class Notifiee : public Cask::NotifieeOf<RpfStatus> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleRpf(const Wirl::IpGenAddr&) {}
        virtual void handleUnresolvedRoute(const RouteKey&) {}
        virtual void handleRpfRouteChangedCount() {}
    };

    // Resolved addresses only: an absent address reads as an unresolved Rpf.
    CASK_VALUE_MAP(rpf, Rpf, Wirl::IpGenAddr, Rpf)
    // Routes whose RPF target has no unicast route.
    CASK_KEY_SET(unresolvedRoute, UnresolvedRoute, RouteKey)

    // The routes of the latest batch whose unicast route changed; valid while
    // `handleRpfRouteChangedCount` is delivered and until the next batch.
    const std::vector<RouteKey>& rpfRouteChangedRoute() const { return rpfRouteChangedRoute_; }
    std::uint32_t rpfRouteChangedCount() const { return rpfRouteChangedCount_; }
    // Publishes one batch (counts and announces even an empty one).
    void rpfRouteChangedIs(std::vector<RouteKey> routes);

private:
    Cask::ValueMap<Wirl::IpGenAddr, Rpf> rpf_;
    Cask::KeySet<RouteKey> unresolvedRoute_;
    std::vector<RouteKey> rpfRouteChangedRoute_;
    std::uint32_t rpfRouteChangedCount_ = 0;
};

}  // namespace Routing::Pim
