#pragma once
// The route status a VRF's sparse-mode agent publishes in shared memory for
// other processes. For now it carries the route counter table: gauges of the
// route table by kind (routes whose RPF is unresolved, routes marked for
// deletion, routes switching their incoming interface), each written as a
// whole count so that a reader never has to replay increments.

#include <compare>
#include <cstddef>
#include <cstdint>

#include "cask/collection.h"

namespace Routing::Pim::SparseMode::Tidal {

struct RouteCounterKey {
    // What is counted (see RouteCounterKind).
    std::uint32_t kind = 0;
    // Reserved for a per-kind qualifier; always 0 today.
    std::uint32_t index = 0;

    std::size_t hash() const { return (std::size_t(kind) << 32) | index; }
    bool operator==(const RouteCounterKey&) const = default;
    std::strong_ordering operator<=>(const RouteCounterKey&) const = default;
};

enum RouteCounterKind : std::uint32_t {
    unresolvedRouteCount = 0,
    toBeDeletedRouteCount = 1,
    switchingRouteCount = 2,
};

struct RouteCounter {
    RouteCounterKey key;
    std::uint32_t value = 0;
    bool operator==(const RouteCounter&) const = default;
};

class Status : public Cask::Record<Status> {
public:
    class Notifiee : public Cask::NotifieeOf<Status> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleRouteCounter(const RouteCounterKey&) {}
    };
    CASK_VALUE_MAP(routeCounter, RouteCounter, RouteCounterKey, RouteCounter)
    void routeCounterIs(const RouteCounter& c) { routeCounterIs(c.key, c); }

private:
    Cask::ValueMap<RouteCounterKey, RouteCounter> routeCounter_;
};

}  // namespace Routing::Pim::SparseMode::Tidal
