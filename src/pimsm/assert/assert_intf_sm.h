#pragma once
// AssertIntfSm: sends, on one interface, the Asserts the assert machines
// ask for in that interface's IntfStatus (RFC 7761 4.6):
// - a triggered winner Assert for each `triggeredWinnerCount` increment;
// - one AssertCancel per key put in `assertCancel` (the key leaves the set
//   once sent), in walks bounded by `loopQuantum` per loop turn that resume
//   at a bookmark;
// - the winner Asserts of every key in `assertWinner`, repeated every
//   Assert_Time - Assert_Override_Interval by its AssertPeriodicTimerSm.
// Watches: its IntfStatus; reads the interface's PIM status and each
//          winner route's assert metric.
// Writes:  the transmit record (IO::MessageInfo), and removes sent keys
//          from `assertCancel`.
//
// AssertPeriodicTimerSm: the periodic winner Asserts of one interface,
// spread over the assert period with a bookmark into `assertWinner`.

#include <functional>
#include <memory>

#include "cask/timer.h"
#include "pimsm/assert/periodic_timer_sm.h"
#include "pimsm/common/vrf_context.h"
#include "platform/assert_status.h"

namespace Routing::Pim::SparseMode {

class AssertIntfSm;

class AssertPeriodicTimerSm : public Routing::Pim::PeriodicTimerSm {
public:
    AssertPeriodicTimerSm(const VrfContext& ctx, AssertIntfSm& intfSm);

    // Assert_Time - Assert_Override_Interval of the interface (RFC 7761
    // 4.6.1: a winner re-sends its Assert when its timer reaches the
    // override interval).
    Cask::Seconds interval() const override;
    Cask::Seconds holdTime() const override { return 0; }
    std::size_t numberOfMessages() const override;
    void handlePeriodicTimerExpiry() override;

    void handleInitialized() { assertWinnerBookmark_ = RouteKey(); }
    const RouteKey& assertWinnerBookmark() const { return assertWinnerBookmark_; }

private:
    const VrfContext& ctx_;
    AssertIntfSm& intfSm_;
    RouteKey assertWinnerBookmark_;
};

class AssertIntfSm : public Routing::Pim::IntfStatus::Notifiee {
public:
    // `idle` is called (from a handler: the owner must not destroy the
    // machine inside the call) when the IntfStatus may have nothing left.
    AssertIntfSm(const VrfContext& ctx, Routing::Pim::IntfStatus& intfStatus,
                 Cask::Seconds loopQuantum, std::function<void(Wirl::IntfId)> idle);

    Wirl::IntfId intfId() const { return intfStatus_.intfId(); }
    Routing::Pim::IntfStatus& intfStatus() const { return intfStatus_; }
    Cask::Seconds loopQuantum() const { return loopQuantum_; }
    const RouteKey& assertCancelBookmark() const { return assertCancelBookmark_; }
    Cask::Seconds assertCancelTimerTime() const { return assertCancelTimer_->timeMin(); }
    AssertPeriodicTimerSm& assertPeriodicTimerSm() const { return *assertPeriodicTimerSm_; }

    void handleInitialized();
    void handleAssertWinner(const RouteKey& key) override;
    void handleAssertCancel(const RouteKey& key) override;
    void handleTriggeredWinnerCount() override { sendTriggeredWinnerAssert(); }
    // The interface's PIM status came or went: periodic Asserts need it.
    void handlePimIntf();

    void sendTriggeredWinnerAssert();
    void handleAssertCancelTimerExpiry();
    void sendAssertMessage(const RouteKey& key, const AssertMetric& metric);

    void doUpdateAssertCancelTimer();
    void doUpdatePeriodicTimer();

private:
    const VrfContext& ctx_;
    Routing::Pim::IntfStatus& intfStatus_;
    Cask::Seconds loopQuantum_;
    std::function<void(Wirl::IntfId)> idle_;
    std::unique_ptr<Cask::Timer> assertCancelTimer_;
    RouteKey assertCancelBookmark_;
    std::unique_ptr<AssertPeriodicTimerSm> assertPeriodicTimerSm_;
};

}  // namespace Routing::Pim::SparseMode
