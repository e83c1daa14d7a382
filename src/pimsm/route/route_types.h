#pragma once
// The small value types of the route table: the per-interface and upstream
// states of RFC 7761's state machines, and the flag words that carry changes
// from the route review to the route machines. Every enumeration prints by
// name (`enumName`, and through fmt).

#include <cstdint>
#include <string_view>

#include <fmt/format.h>

#include "cask/bit_flags.h"

namespace Routing::Pim::SparseMode {

// Downstream (*,G) / (S,G) join state per interface (RFC 7761 4.5.1, 4.5.2).
enum class JoinState : std::uint8_t { noInfo, joined, prunePending };
// Downstream (S,G,rpt) state per interface (RFC 7761 4.5.3); the two Tmp
// states exist only while one received message is being processed.
enum class RptState : std::uint8_t {
    rptNoInfo,
    rptPruned,
    rptPrunePending,
    rptPruneTmp,
    rptPrunePendingTmp
};
// Upstream (*,G) and (S,G) state (RFC 7761 4.5.4, 4.5.5).
enum class UpJoinState : std::uint8_t { upNotJoined, upJoined };
// Upstream (S,G,rpt) state (RFC 7761 4.5.6, 4.5.7).
enum class UpRptState : std::uint8_t { upRptNotJoined, upRptPruned, upRptNotPruned };
// Per-interface assert state (RFC 7761 4.6).
enum class AssertState : std::uint8_t { assertNoInfo, iAmAssertWinner, iAmAssertLoser };
// Progress of a make-before-break switch of a route's incoming interface:
// idle; joined on the new interface and waiting for the switch timer;
// waiting for the hardware to show the new interface.
enum class IifSwitchState : std::uint8_t { iifSwitchIdle, iifSwitchPending, iifSwitchWaitHw };

const char* enumName(JoinState s);
const char* enumName(RptState s);
const char* enumName(UpJoinState s);
const char* enumName(UpRptState s);
const char* enumName(AssertState s);
const char* enumName(IifSwitchState s);

// Route change flags: why the route review handed a route to its machines.
// One flag per cause the review detects on the route's upstream (the RPF,
// previous RPF and fast-failover RPF interfaces and neighbours), plus the
// unicast RPF route changing under the route.
struct ChangeFlagsTraits {
    enum class Bit {
        rpfIntfStatus,      // the RPF interface's PIM status changed
        rpfBoundary,        // a boundary on the RPF interface now filters the group
        prevRpfIntfStatus,  // the previous RPF interface's status changed
        rpfFrrIntfStatus,   // the fast-failover RPF interface's status changed
        mbrIntfStatus,      // the incoming border interface's setting changed
        sourceInject,       // source injection changed on the border or RPF interface
        rpfDrStatus,        // this router became or stopped being DR on the RPF interface
        rpfNbrStatus,       // the RPF neighbour came, went or flapped
        rpfNbrGenId,        // the RPF neighbour restarted (new generation ID)
        prevRpfNbrStatus,   // the previous RPF neighbour came, went or flapped
        prevRpfNbrGenId,    // the previous RPF neighbour restarted
        rpfFrrNbrStatus,    // the fast-failover RPF neighbour came, went or flapped
        rpfFrrNbrGenId,     // the fast-failover RPF neighbour restarted
        programmable,       // hardware-only programming of the route was allowed or withdrawn
        rpfRouteChanged,    // the unicast route used for RPF changed
    };
    static constexpr const char* names[] = {
        "rpfIntfStatus",  "rpfBoundary",      "prevRpfIntfStatus", "rpfFrrIntfStatus",
        "mbrIntfStatus",  "sourceInject",     "rpfDrStatus",       "rpfNbrStatus",
        "rpfNbrGenId",    "prevRpfNbrStatus", "prevRpfNbrGenId",   "rpfFrrNbrStatus",
        "rpfFrrNbrGenId", "programmable",     "rpfRouteChanged",
    };
};
using ChangeFlags = Cask::BitFlags<ChangeFlagsTraits>;

// Per-interface change flags of an `Intf`: what changed on the interface
// that the interface's machines must re-evaluate.
struct IntfChangeFlagsTraits {
    enum class Bit {
        intfStatus,    // the PIM interface status changed
        drStatus,      // the DR of the interface changed
        address,       // this router's address on the interface changed
        boundary,      // a multicast boundary on the interface changed
        vxlan,         // the interface's multicast VXLAN status changed
        fastFailover,  // fast failover was enabled or disabled on the interface
    };
    static constexpr const char* names[] = {"intfStatus", "drStatus", "address",
                                            "boundary",   "vxlan",    "fastFailover"};
};
using IntfChangeFlags = Cask::BitFlags<IntfChangeFlagsTraits>;

// Which inactivity timers of an (S,G) route have expired.
struct ExpiredFlagsTraits {
    enum class Bit {
        register_,  // idle longer than the register inactivity interval
        advertise,  // idle longer than the source-advertisement interval
    };
    static constexpr const char* names[] = {"register", "advertise"};
};
using ExpiredFlags = Cask::BitFlags<ExpiredFlagsTraits>;

}  // namespace Routing::Pim::SparseMode

template <class E>
requires requires(E e) {
    Routing::Pim::SparseMode::enumName(e);
}
struct fmt::formatter<E> : fmt::formatter<std::string_view> {
    template <typename Ctx>
    auto format(E e, Ctx& ctx) const {
        return fmt::formatter<std::string_view>::format(Routing::Pim::SparseMode::enumName(e), ctx);
    }
};

// An attribute of a record that belongs to a route (an interface record, an
// upstream): its setter tells the record's own watchers, then the route's,
// naming the attribute by `Attr::name` (see `notifyWithRoute`).
#define PIMSM_ROUTE_PART_ATTR(Type, name, Name, Attr)         \
    const Type& name() const {                                \
        return name##_;                                       \
    }                                                         \
    void name##Is(const Type& v) {                            \
        if (name##_ == v) return;                             \
        name##_ = v;                                          \
        notifyWithRoute(&Notifiee::handle##Name, Attr::name); \
    }
