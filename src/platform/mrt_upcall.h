#pragma once
// MrtUpcallStatus: what the forwarding plane of a VRF reports about data
// packets, as the kernel's multicast routing socket delivers it:
// - upcalls, in arrival order: a packet for which no forwarding entry
//   exists (no-cache, the first packet of a flow) or one that arrived on an
//   interface other than its entry's incoming interface (wrong VIF), each
//   with the route key, the upcall's flags and the arrival interface;
// - activity: per forwarding entry, the packets it has forwarded so far (a
//   count that only grows); a change means the flow is alive.

#include <cstdint>
#include <map>

#include "cask/collection.h"
#include "cask/queue.h"
#include "platform/route_key.h"
#include "wirl/intf_id.h"

namespace Routing::Pim {

struct MrtUpcall {
    enum class Kind : std::uint8_t { noCache, wrongVif };
    Kind kind = Kind::noCache;
    RouteKey key;
    std::uint32_t flags = 0;
    Wirl::IntfId intf;  // where the packet arrived
};

inline const char* enumName(MrtUpcall::Kind k) {
    return k == MrtUpcall::Kind::noCache ? "noCache" : "wrongVif";
}

class MrtUpcallStatus : public Cask::Record<MrtUpcallStatus> {
public:
    class Notifiee : public Cask::NotifieeOf<MrtUpcallStatus> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleUpcall() {}
        virtual void handleActivity(const RouteKey&) {}
    };
    CASK_QUEUE(upcall, Upcall, MrtUpcall)
    CASK_VALUE_MAP(activity, Activity, RouteKey, std::uint64_t)

private:
    Cask::Queue<MrtUpcall> upcall_;
    Cask::ValueMap<RouteKey, std::uint64_t, std::map<RouteKey, std::uint64_t>> activity_;
};

}  // namespace Routing::Pim
