#include "platform/rpf_status.h"

#include <iterator>
#include <utility>

namespace Routing::Pim {

namespace {
// Unset addresses of a request have no family and name nothing.
bool hasFamily(const Wirl::IpGenAddr& a) {
    return a.family() != Wirl::AddressFamily::ipunknown;
}
}  // namespace

RpfConfigInfo RpfConfig::rpfConfigInfo(const RouteKey& k) const {
    auto it = route_.find(k);
    return it == route_.end() ? RpfConfigInfo{} : request_[it->second].info;
}

bool RpfConfig::addressUsed(const Wirl::IpGenAddr& a) const {
    auto it = addressRequest_.lower_bound({a, 0});
    return it != addressRequest_.end() && it->first == a;
}

template <class Change>
void RpfConfig::deliver(RpfConfigInfo before, Change&& change) {
    // A watcher may drop the last reference to the record while it is told;
    // keep it alive until the previous value is put back.
    const Cask::Ptr<RpfConfig> self(this);
    RpfConfigInfo outer = std::exchange(before_, std::move(before));
    change();
    before_ = std::move(outer);
}

RpfConfig::RequestId RpfConfig::requestIs(const RpfConfigInfo& info) {
    // Routes made in a burst mostly share one request (a group range's RP):
    // the last route's request is alive, since that route is still on it.
    if (written_ && request_[written_->id].info == info) return written_->id;
    if (auto it = requestId_.find(info); it != requestId_.end()) return it->second;
    RequestId id;
    if (!freeRequest_.empty()) {
        id = freeRequest_.back();
        freeRequest_.pop_back();
        request_[id].info = info;
    } else {
        id = static_cast<RequestId>(request_.size());
        request_.push_back({info, {}});
    }
    requestId_.try_emplace(info, id);
    for (const auto& a : info.addresses()) {
        if (hasFamily(a)) addressRequest_.insert({a, id});
    }
    return id;
}

void RpfConfig::requestRouteDel(RequestId id, const RouteKey& k) {
    Request& r = request_[id];
    r.routes.erase(k);
    if (!r.routes.empty()) return;
    for (const auto& a : r.info.addresses()) {
        if (hasFamily(a)) addressRequest_.erase({a, id});
    }
    requestId_.erase(r.info);
    r.info = RpfConfigInfo{};
    freeRequest_.push_back(id);
}

void RpfConfig::rpfConfigInfoIs(const RouteKey& k, RpfConfigInfo v) {
    // One search at most: where the key is, or where it goes. Routes mostly
    // come in key order, so a new one goes last, which needs none.
    auto it = !route_.empty() && std::prev(route_.end())->first < k ? route_.end()
                                                                    : route_.lower_bound(k);
    const bool present = it != route_.end() && it->first == k;
    if (present && request_[it->second].info == v) return;
    deliver(present ? request_[it->second].info : RpfConfigInfo{}, [&] {
        const RequestId id = requestIs(v);
        // Routes mostly come in key order: a request's new route goes last.
        auto& routes = request_[id].routes;
        routes.insert(routes.end(), k);
        written_ = Written{k, id};
        if (!present) {
            route_.try_emplace(it, k, id);
        } else {
            const RequestId old = std::exchange(it->second, id);
            requestRouteDel(old, k);
        }
        notify(&Notifiee::handleRpfConfigInfo, k);
    });
}

void RpfConfig::rpfConfigInfoDel(const RouteKey& k) {
    auto it = route_.find(k);
    if (it == route_.end()) return;
    deliver(request_[it->second].info, [&] {
        const RequestId id = it->second;
        route_.erase(it);
        written_.reset();
        requestRouteDel(id, k);
        notify(&Notifiee::handleRpfConfigInfo, k);
    });
}

void RpfStatus::rpfRouteChangedIs(std::vector<RouteKey> routes) {
    rpfRouteChangedRoute_ = std::move(routes);
    increment(rpfRouteChangedCount_, &Notifiee::handleRpfRouteChangedCount);
}

}  // namespace Routing::Pim
