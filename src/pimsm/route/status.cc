#include "pimsm/route/status.h"

#include "cask/trace.h"

namespace Routing::Pim::SparseMode {

Cask::Ptr<Route> Status::routeIs(const Routing::Pim::RouteKey& key) {
    return routeIs(key, [](Route&) {});
}

Cask::Ptr<Route> Status::routeIs(const Routing::Pim::RouteKey& key,
                                 absl::FunctionRef<void(Route&)> prepare) {
    if (context_.maxRoutes && route_.size() >= context_.maxRoutes) {
        if (auto existing = route_.get(key)) return existing;
        ++context_.routesRefused;
        CASK_TRACE(4, "Status::routeIs({}): route refused, the VRF has {} routes (maxRoutes)", key,
                   route_.size());
        return nullptr;
    }
    // One search of the route map, whether the route is new or not.
    return route_.findOrIs(
        *this, key,
        [&] {
            auto fresh = Cask::make<Route>(key, &context_, clock_.now());
            prepare(*fresh);
            return fresh;
        },
        &Notifiee::handleRoute);
}

void Status::groupIs(const Wirl::IpGenAddr& g) {
    group_.update(
        *this, g, [](std::uint32_t n) { return n + 1; }, &Notifiee::handleGroup);
}

void Status::groupDel(const Wirl::IpGenAddr& g) {
    const std::uint32_t n = group_.get(g);
    if (n > 1) {
        group_.is(*this, g, n - 1, &Notifiee::handleGroup);
    } else {
        group_.del(*this, g, &Notifiee::handleGroup);
    }
}

void Status::sourceGroupAdd(const Wirl::IpGenAddr& source, const Wirl::IpGenAddr& group) {
    // A new set is filled before it is inserted, so its watchers see it whole.
    if (auto s = source_.get(source)) {
        s->memberIs(group);
    } else {
        s = Cask::make<AddrSet>(source);
        s->memberIs(group);
        sourceIs(source, s);
    }
    if (auto g = groupSource_.get(group)) {
        g->memberIs(source);
    } else {
        g = Cask::make<AddrSet>(group);
        g->memberIs(source);
        groupSourceIs(group, g);
    }
}

std::vector<Routing::Pim::RouteKey> Status::sgKeysOfGroup(const Wirl::IpGenAddr& group) const {
    // Routes are ordered by group, then source: the group's (S,G) routes
    // follow its (*,G) key.
    std::vector<Routing::Pim::RouteKey> keys;
    for (auto it = route_.upperBound(Routing::Pim::RouteKey::wc(group)); it != route_.end(); ++it) {
        if (it->first.group() != group) break;
        keys.push_back(it->first);
    }
    return keys;
}

void Status::sourceGroupRemove(const Wirl::IpGenAddr& source, const Wirl::IpGenAddr& group) {
    if (auto s = source_.get(source)) {
        s->memberDel(group);
        if (s->memberSize() == 0) sourceDel(source);
    }
    if (auto g = groupSource_.get(group)) {
        g->memberDel(source);
        if (g->memberSize() == 0) groupSourceDel(group);
    }
}

}  // namespace Routing::Pim::SparseMode
