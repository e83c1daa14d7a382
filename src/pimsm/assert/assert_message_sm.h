#pragma once
// AssertMessageSm: the assert machines' door to the PIM packet side of a VRF
// (RFC 7761 4.6).
// - Received Asserts enter through `handleRxMessage`, which records the
//   message and its interface in AssertMessageInfo and announces it
//   (`rxCount`); the (S,G) assert machine takes it from there.
// - It keeps one AssertIntfSm per interface that has a PIM status or
//   assert requests still to send, and removes an interface's machine and
//   its IntfStatus once the PIM interface is gone and nothing is left to
//   send (`doMaybeDeleteIntf`, run on the next loop turn so that no
//   machine is destroyed inside its own handler).
// Watches: Routing::Pim::Status interfaces, AssertStatus interfaces.
// Writes:  AssertMessageInfo (message, intfId, rxCount), AssertStatus
//          interfaces (creation for PIM interfaces, removal).

#include <map>
#include <memory>
#include <set>

#include "cask/timer.h"
#include "pimsm/assert/assert_intf_sm.h"
#include "pimsm/common/vrf_context.h"
#include "platform/assert_status.h"
#include "platform/pim_status.h"

namespace Routing::Pim::SparseMode {

class AssertMessageSm {
public:
    // How long one turn of the loop may spend sending AssertCancels on one
    // interface.
    static constexpr Cask::Seconds loopQuantum = 0.1;

    explicit AssertMessageSm(const VrfContext& ctx);
    ~AssertMessageSm();

    // A received Assert, decoded, and the interface it arrived on.
    void handleRxMessage(const Routing::Pim::AssertMessage& message, Wirl::IntfId intf);

    void handleIntf(Wirl::IntfId intf);
    void doMaybeDeleteIntf(Wirl::IntfId intf);

    AssertIntfSm* assertIntfSm(Wirl::IntfId intf) const {
        auto it = intfSm_.find(intf);
        return it == intfSm_.end() ? nullptr : it->second.get();
    }
    std::size_t assertIntfSmCount() const { return intfSm_.size(); }

private:
    class PimWatcher;
    class AssertWatcher;
    void handleIdle(Wirl::IntfId intf);
    void handleIdleTimerExpiry();

    const VrfContext& ctx_;
    std::map<Wirl::IntfId, std::unique_ptr<AssertIntfSm>> intfSm_;
    // Interfaces to check for removal on the next turn.
    std::set<Wirl::IntfId> idle_;
    Cask::Timer idleTimer_;
    std::unique_ptr<PimWatcher> pimWatcher_;
    std::unique_ptr<AssertWatcher> assertWatcher_;
};

std::unique_ptr<AssertMessageSm> assertMessageSmFactory(const VrfContext& ctx);

}  // namespace Routing::Pim::SparseMode
