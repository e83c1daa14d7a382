#pragma once
// Requests to clear multicast routes ("clear ip mroute"-style commands),
// as the configuration side publishes them and as the route review keeps
// the one pending.

#include <cstdint>
#include <string>

#include "cask/bit_flags.h"
#include "cask/collection.h"
#include "wirl/ip_gen_addr.h"

namespace Routing::Pim {

// What a clear request covers. `singleRoute` (value 8) asks for one route,
// named by source and group, to be cleared at once; the others are applied
// by the next route review.
struct MrouteClearFlagsTraits {
    enum class Bit {
        allRoutes,    // 1: every route of the VRF
        group,        // 2: the routes of one group
        source,       // 4: the routes of one source (with `group`: one (S,G))
        singleRoute,  // 8: one route, cleared immediately
    };
    static constexpr const char* names[] = {"allRoutes", "group", "source", "singleRoute"};
};
using MrouteClearFlags = Cask::BitFlags<MrouteClearFlagsTraits>;

// One clear request: which routes, by group and source, and how.
class ClearInfo : public Cask::Record<ClearInfo> {
public:
    class Notifiee : public Cask::NotifieeOf<ClearInfo> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleFlags() {}
        virtual void handleGroup() {}
        virtual void handleSource() {}
    };
    CASK_ATTR(MrouteClearFlags, flags, Flags)
    CASK_ATTR(Wirl::IpGenAddr, group, Group)
    CASK_ATTR(Wirl::IpGenAddr, source, Source)

private:
    MrouteClearFlags flags_;
    Wirl::IpGenAddr group_;
    Wirl::IpGenAddr source_;
};

// The clear commands of a VRF as the configuration side publishes them: the
// latest route-clear request (its group, source and flags; each new request
// increments `clearRoutesCount`) and a counter incremented by every request
// to clear the PIM message counters.
class ClearMrouteConfig : public Cask::Record<ClearMrouteConfig> {
public:
    class Notifiee : public Cask::NotifieeOf<ClearMrouteConfig> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleClearRoutesCount() {}
        virtual void handleClearCountersCount() {}
    };
    const Wirl::IpGenAddr& group() const { return group_; }
    const Wirl::IpGenAddr& source() const { return source_; }
    MrouteClearFlags flags() const { return flags_; }
    std::uint32_t clearRoutesCount() const { return clearRoutesCount_; }
    // Publishes a new route-clear request.
    void clearRoutesIs(const Wirl::IpGenAddr& group, const Wirl::IpGenAddr& source,
                       MrouteClearFlags flags) {
        group_ = group;
        source_ = source;
        flags_ = flags;
        increment(clearRoutesCount_, &Notifiee::handleClearRoutesCount);
    }
    CASK_COUNTER(std::uint32_t, clearCountersCount, ClearCountersCount)

private:
    Wirl::IpGenAddr group_;
    Wirl::IpGenAddr source_;
    MrouteClearFlags flags_;
    std::uint32_t clearRoutesCount_ = 0;
    std::uint32_t clearCountersCount_ = 0;
};

}  // namespace Routing::Pim
