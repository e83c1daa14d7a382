#include "platform/unicast_route_table.h"

#include <stdexcept>

namespace Routing::Unicast {

std::optional<UnicastRoute> RouteTable::route(const Wirl::IpGenPrefix& p) const {
    auto it = route_.find(p);
    if (it == route_.end()) return std::nullopt;
    return it->second;
}

void RouteTable::routeIs(const UnicastRoute& r) {
    if (r.prefix.family() != family_) {
        throw std::invalid_argument("unicast route " + r.prefix.str() +
                                    " is not of the table's family");
    }
    const unsigned len = r.prefix.length();
    if (!route_.has(r.prefix)) {
        ++lengthCount_[len];
        lengths_.set(len);
    }
    lookupMemo_.clear();
    route_.is(*this, r.prefix, r, &Notifiee::handleRoute);
}

void RouteTable::routeDel(const Wirl::IpGenPrefix& p) {
    if (!route_.has(p)) return;
    if (--lengthCount_[p.length()] == 0) lengths_.reset(p.length());
    lookupMemo_.clear();
    route_.del(*this, p, &Notifiee::handleRoute);
}

std::optional<UnicastRoute> RouteTable::lookup(const Wirl::IpGenAddr& addr) const {
    if (addr.family() != family_) return std::nullopt;
    if (auto known = lookupMemo_.find(addr); known != lookupMemo_.end()) return known->second;
    if (lookupMemo_.size() >= lookupMemoLimit) lookupMemo_.clear();
    std::optional<UnicastRoute> found;
    for (int len = static_cast<int>(Wirl::familyBits(family_)); len >= 0; --len) {
        if (!lengths_.test(len)) continue;
        auto it = route_.find(Wirl::IpGenPrefix(addr, static_cast<std::uint8_t>(len)));
        if (it != route_.end()) {
            found = it->second;
            break;
        }
    }
    lookupMemo_.try_emplace(addr, found);
    return found;
}

}  // namespace Routing::Unicast
