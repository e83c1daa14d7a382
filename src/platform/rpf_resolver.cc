#include "platform/rpf_resolver.h"

#include <algorithm>

namespace Routing::Pim {

namespace {
bool holds(const std::array<Wirl::IpGenAddr, 3>& addrs, const Wirl::IpGenAddr& a) {
    return std::find(addrs.begin(), addrs.end(), a) != addrs.end();
}
}  // namespace

RpfResolver::RpfResolver(Cask::Ptr<RpfConfig> config, Cask::Ptr<RpfStatus> status)
    : config_(std::move(config)), status_(std::move(status)) {
    configWatcher_.notifierIs(config_.get());
    std::vector<RouteKey> keys;
    keys.reserve(config_->rpfConfigInfoSize());
    config_->forEachRoute([&](const RouteKey& key, const RpfConfigInfo&) { keys.push_back(key); });
    for (const auto& key : keys) doUpdateRoute(key, Addrs{});
}

void RpfResolver::tableIs(Cask::Ptr<Routing::Unicast::RouteTable> table) {
    if (table == table_) return;
    table_ = std::move(table);
    tableWatcher_.notifierIs(table_.get());
    if (resolved_.empty()) return;
    doReResolve(resolved_.begin()->first, resolved_.rbegin()->first);
}

Rpf RpfResolver::resolve(const Wirl::IpGenAddr& addr) const {
    if (!table_) return Rpf{};
    auto r = table_->lookup(addr);
    if (!r) return Rpf{};
    return Rpf{r->intf, r->nextHop, r->preference, r->metric};
}

void RpfResolver::doUpdateRoute(const RouteKey& key, const Addrs& before) {
    const RpfConfigInfo* info = config_->rpfConfigInfoFind(key);
    const Addrs now = info ? info->addresses() : Addrs{};
    // A burst of new routes asks for the same addresses (a group range's RP
    // and the neighbour toward it): a new route making the request handled
    // last, with no result changed since, only needs its own listing.
    if (info && last_.changes == changes_ && last_.addrs == now && before == Addrs{}) {
        if (last_.targetResolved) {
            status_->unresolvedRouteDel(key);
        } else {
            status_->unresolvedRouteIs(key);
        }
        return;
    }

    // Bring the indexes up to date first and publish afterwards, so that a
    // watcher reacting to the status may change the configuration again.
    std::vector<Wirl::IpGenAddr> dropped, added;
    for (const auto& a : before) {
        if (!a.isSet() || holds(now, a)) continue;
        if (!config_->addressUsed(a) && resolved_.erase(a)) {
            dropped.push_back(a);
            ++changes_;
        }
    }
    for (const auto& a : now) {
        if (!a.isSet() || holds(before, a)) continue;
        if (resolved_.contains(a)) continue;
        const Rpf rpf = resolve(a);
        resolved_.emplace(a, rpf);
        ++changes_;
        if (rpf.resolved()) added.push_back(a);
    }
    // Every address of the request is tracked now. Publishing below may
    // change the configuration again, and with it the results.
    if (info) {
        auto it = resolved_.find(info->target);
        last_ = Last{now, it != resolved_.end() && it->second.resolved(), changes_};
    }
    for (const auto& a : dropped) {
        if (!resolved_.contains(a)) status_->rpfDel(a);
    }
    for (const auto& a : added) {
        auto it = resolved_.find(a);
        if (it != resolved_.end() && it->second.resolved()) status_->rpfIs(a, it->second);
    }
    // A watcher of what was published may have changed the configuration.
    if (dropped.empty() && added.empty()) {
        doUpdateUnresolved(key, info);
    } else {
        doUpdateUnresolved(key);
    }
}

void RpfResolver::doReResolve(const Wirl::IpGenAddr& first, const Wirl::IpGenAddr& last) {
    std::vector<std::pair<Wirl::IpGenAddr, Rpf>> moved;
    std::vector<RouteKey> routes;
    for (auto it = resolved_.lower_bound(first); it != resolved_.end() && it->first <= last; ++it) {
        const Rpf rpf = resolve(it->first);
        if (rpf == it->second) continue;
        it->second = rpf;
        ++changes_;
        moved.emplace_back(it->first, rpf);
        config_->forEachRouteUsing(it->first, [&](const RouteKey& key) { routes.push_back(key); });
    }
    if (moved.empty()) return;
    for (const auto& [a, rpf] : moved) {
        if (rpf.resolved()) {
            status_->rpfIs(a, rpf);
        } else {
            status_->rpfDel(a);
        }
    }
    std::sort(routes.begin(), routes.end());
    routes.erase(std::unique(routes.begin(), routes.end()), routes.end());
    for (const auto& key : routes) doUpdateUnresolved(key);
    status_->rpfRouteChangedIs(std::move(routes));
}

void RpfResolver::doUpdateUnresolved(const RouteKey& key) {
    doUpdateUnresolved(key, config_->rpfConfigInfoFind(key));
}

void RpfResolver::doUpdateUnresolved(const RouteKey& key, const RpfConfigInfo* info) {
    if (!info) {
        status_->unresolvedRouteDel(key);
        return;
    }
    auto it = resolved_.find(info->target);
    if (it != resolved_.end() && it->second.resolved()) {
        status_->unresolvedRouteDel(key);
    } else {
        status_->unresolvedRouteIs(key);
    }
}

}  // namespace Routing::Pim
