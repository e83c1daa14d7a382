#include "platform/vrf_records.h"

namespace Platform {

Wirl::IpGenAddr RpMapping::rpFor(const Wirl::IpGenAddr& group) const {
    // Mappings are few (a handful of group ranges), so a scan is cheapest.
    const Wirl::IpGenAddr* best = nullptr;
    unsigned bestLength = 0;
    for (const auto& [prefix, rp] : rp_) {
        if (!prefix.contains(group)) continue;
        if (!best || prefix.length() > bestLength ||
            (prefix.length() == bestLength && rp > *best)) {
            best = &rp;
            bestLength = prefix.length();
        }
    }
    return best ? *best : Wirl::IpGenAddr();
}

}  // namespace Platform
