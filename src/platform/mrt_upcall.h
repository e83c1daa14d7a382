#pragma once
// MrtUpcallStatus: what the forwarding plane of a VRF reports about data
// packets, as the kernel's multicast routing socket delivers it:
// - upcalls, in arrival order: a packet for which no forwarding entry
//   exists (no-cache, the first packet of a flow) or one that arrived on an
//   interface other than its entry's incoming interface (wrong VIF), each
//   with the route key, the upcall's flags and the arrival interface;
// - activity: per forwarding entry, the packets it has forwarded so far (a
//   count that only grows); a change means the flow is alive.
//
// An upcall is announced twice: first as a queue entry (`handleUpcall`, for
// the one reader that pops the queue), then, once that reader is done, by
// a counter per kind with the upcall kept as the last of its kind
// (`handleNoCacheCount`, `handleWrongVifCount`), for readers that only
// look.

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
    bool operator==(const MrtUpcall&) const = default;
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
        virtual void handleNoCacheCount() {}
        virtual void handleWrongVifCount() {}
    };
    const Cask::Queue<MrtUpcall>& upcall() const { return upcall_; }
    // Queues `u` and announces it to the queue's reader, then counts it and
    // announces it by kind.
    void upcallPush(MrtUpcall u) {
        upcall_.push(u);
        notify(&Notifiee::handleUpcall);
        if (u.kind == MrtUpcall::Kind::noCache) {
            lastNoCache_ = u;
            increment(noCacheCount_, &Notifiee::handleNoCacheCount);
        } else {
            lastWrongVif_ = u;
            increment(wrongVifCount_, &Notifiee::handleWrongVifCount);
        }
    }
    const MrtUpcall& upcallFront() const { return upcall_.front(); }
    void upcallPop() { upcall_.pop(); }
    std::size_t upcallSize() const { return upcall_.size(); }

    // Upcalls pushed so far, per kind, and the last one of each kind.
    std::uint32_t noCacheCount() const { return noCacheCount_; }
    std::uint32_t wrongVifCount() const { return wrongVifCount_; }
    const MrtUpcall& lastNoCache() const { return lastNoCache_; }
    const MrtUpcall& lastWrongVif() const { return lastWrongVif_; }
    CASK_VALUE_MAP(activity, Activity, RouteKey, std::uint64_t)

private:
    Cask::Queue<MrtUpcall> upcall_;
    std::uint32_t noCacheCount_ = 0;
    std::uint32_t wrongVifCount_ = 0;
    MrtUpcall lastNoCache_;
    MrtUpcall lastWrongVif_;
    Cask::ValueMap<RouteKey, std::uint64_t, std::map<RouteKey, std::uint64_t>> activity_;
};

}  // namespace Routing::Pim
