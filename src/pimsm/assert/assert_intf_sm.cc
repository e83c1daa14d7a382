#include "pimsm/assert/assert_intf_sm.h"

#include "cask/assert.h"
#include "cask/trace.h"
#include "pimsm/common/vrf_inputs.h"
#include "pimsm/route/local_status.h"
#include "pimsm/route/route.h"
#include "platform/pim_status.h"

namespace Routing::Pim::SparseMode {

// --- AssertPeriodicTimerSm ------------------------------------------------------------------

AssertPeriodicTimerSm::AssertPeriodicTimerSm(const VrfContext& ctx, AssertIntfSm& intfSm)
    : PeriodicTimerSm(*ctx.loop), ctx_(ctx), intfSm_(intfSm) {}

Cask::Seconds AssertPeriodicTimerSm::interval() const {
    const auto* pimIntf = ctx_.pimStatus->intfRaw(intfSm_.intfId());
    if (!pimIntf) {
        CASK_VRF_TRACE(4, ctx_.vrfName, "AssertPeriodicTimerSm::interval({}), null pimIntf ",
                       intfSm_.intfId());
    }
    CASK_ASSERT(pimIntf, "pimIntf");
    const Cask::Seconds interval = static_cast<Cask::Seconds>(pimIntf->assertTimeout()) -
                                   static_cast<Cask::Seconds>(pimIntf->assertOverrideInterval());
    CASK_ASSERT(interval > 0, "interval > 0");
    return interval;
}

std::size_t AssertPeriodicTimerSm::numberOfMessages() const {
    const auto* intfStatus = ctx_.assertStatus->intf(intfSm_.intfId());
    if (!intfStatus) {
        CASK_VRF_TRACE(4, ctx_.vrfName,
                       "AssertPeriodicTimerSm::numberOfMessages({}), null intfStatus ",
                       intfSm_.intfId());
    }
    CASK_ASSERT(intfStatus, "intfStatus");
    return intfStatus->assertWinnerSize();
}

void AssertPeriodicTimerSm::handlePeriodicTimerExpiry() {
    const Wirl::IntfId intf = intfSm_.intfId();
    const std::size_t max = maxMessagesPerExpiry();
    CASK_VRF_TRACE(7, ctx_.vrfName,
                   "AssertPeriodicTimerSm::handlePeriodicTimerExpiry({}), Max winner messages per "
                   "interval {}",
                   intf, max);
    const auto& winners = intfSm_.intfStatus().assertWinner();
    auto it = winners.begin();
    if (!assertWinnerBookmark_.isNull()) {
        CASK_VRF_TRACE(7, ctx_.vrfName,
                       "AssertPeriodicTimerSm::handlePeriodicTimerExpiry({}), Resuming from the "
                       "last bookmarked key {}",
                       intf, assertWinnerBookmark_);
        it = winners.lowerBound(assertWinnerBookmark_);
    }
    std::size_t handled = 0;
    for (; it != winners.end() && handled < max; ++handled) {
        const RouteKey key = *it;
        ++it;  // sending changes no key set, but read the next key first
        // The metric this router won with; a winner route always has one,
        // but fall back to the metric it would assert with now.
        AssertMetric metric = AssertMetric::infinite();
        if (const Route* route = ctx_.localStatus->route(key)) {
            if (const Intf* ri = route->routeIntfRaw(intf)) {
                metric = ri->assertInfo().winnerMetric;
                if (metric.isInfinite()) {
                    metric = key.isWc() ? ri->myAssertMetricWc() : ri->myAssertMetricSg();
                }
            }
        }
        if (metric.isInfinite()) {
            // An infinite metric would cancel the assert this router won.
            CASK_VRF_TRACE(7, ctx_.vrfName,
                           "AssertPeriodicTimerSm::handlePeriodicTimerExpiry({}), no winner "
                           "metric for {}, skipped",
                           intf, key);
            continue;
        }
        intfSm_.sendAssertMessage(key, metric);
    }
    if (it != winners.end()) {
        CASK_VRF_TRACE(7, ctx_.vrfName,
                       "AssertPeriodicTimerSm::handlePeriodicTimerExpiry(): Suspending winner "
                       "messages after {}. Handled {} winner messages. Saving the next key to be "
                       "handled {}",
                       intf, handled, *it);
        assertWinnerBookmark_ = *it;
        doReschedulePeriodicTimer();
        return;
    }
    CASK_VRF_TRACE(7, ctx_.vrfName,
                   "AssertPeriodicTimerSm::handlePeriodicTimerExpiry(): Finished winner messages "
                   "on {}",
                   intf);
    assertWinnerBookmark_ = RouteKey();
    doFinishRound();
}

// --- AssertIntfSm ---------------------------------------------------------------------------

AssertIntfSm::AssertIntfSm(const VrfContext& ctx, Routing::Pim::IntfStatus& intfStatus,
                           Cask::Seconds loopQuantum, std::function<void(Wirl::IntfId)> idle)
    : Routing::Pim::IntfStatus::Notifiee(&intfStatus),
      ctx_(requireInputs(ctx, "AssertIntfSm", &VrfContext::assertStatus, &VrfContext::txMessageInfo,
                         &VrfContext::pimStatus, &VrfContext::localStatus)),
      intfStatus_(intfStatus),
      loopQuantum_(loopQuantum),
      idle_(std::move(idle)) {
    handleInitialized();
}

void AssertIntfSm::handleInitialized() {
    CASK_VRF_TRACE(6, ctx_.vrfName, "AssertIntfSm::handleInitialized({})", intfId());
    assertCancelTimer_ =
        std::make_unique<Cask::Timer>(*ctx_.loop, [this] { handleAssertCancelTimerExpiry(); });
    assertCancelBookmark_ = RouteKey();
    assertPeriodicTimerSm_ = std::make_unique<AssertPeriodicTimerSm>(ctx_, *this);
    assertPeriodicTimerSm_->handleInitialized();
    // Requests made before the machine existed.
    doUpdateAssertCancelTimer();
    doUpdatePeriodicTimer();
}

void AssertIntfSm::handleAssertWinner(const RouteKey& key) {
    CASK_VRF_TRACE(6, ctx_.vrfName, "AssertIntfSm::handleAssertWinner({}, {})", intfId(), key);
    doUpdatePeriodicTimer();
    if (intfStatus_.idle()) idle_(intfId());
}

void AssertIntfSm::handleAssertCancel(const RouteKey& key) {
    if (!intfStatus_.assertCancelHas(key)) {
        // A sent cancel leaving the set.
        if (intfStatus_.idle()) idle_(intfId());
        return;
    }
    CASK_VRF_TRACE(6, ctx_.vrfName, "AssertIntfSm::handleAssertCancel({}, {})", intfId(), key);
    doUpdateAssertCancelTimer();
}

void AssertIntfSm::handlePimIntf() {
    if (ctx_.pimStatus->intfRaw(intfId())) {
        doUpdatePeriodicTimer();
    } else {
        // Without the interface's PIM status there is no assert period.
        assertPeriodicTimerSm_->doStopPeriodicTimer();
    }
}

void AssertIntfSm::sendTriggeredWinnerAssert() {
    CASK_VRF_TRACE(6, ctx_.vrfName, "AssertIntfSm::sendTriggeredWinnerAssert({})", intfId());
    sendAssertMessage(intfStatus_.triggeredWinnerKey(), intfStatus_.triggeredWinnerMetric());
}

void AssertIntfSm::doUpdateAssertCancelTimer() {
    if (assertCancelTimer_->timeMin() != Cask::never) return;  // already armed
    assertCancelTimer_->timeMinIs(intfStatus_.assertCancelSize() ? ctx_.loop->now() : Cask::never);
}

void AssertIntfSm::doUpdatePeriodicTimer() {
    if (!ctx_.pimStatus->intfRaw(intfId())) return;
    assertPeriodicTimerSm_->doUpdatePeriodicTimer();
}

void AssertIntfSm::handleAssertCancelTimerExpiry() {
    const Cask::Seconds deadline = ctx_.loop->now() + loopQuantum_;
    const auto& cancels = intfStatus_.assertCancel();
    auto it = assertCancelBookmark_.isNull() ? cancels.begin()
                                             : cancels.lowerBound(assertCancelBookmark_);
    std::size_t sent = 0;
    while (it != cancels.end()) {
        if (!(ctx_.loop->now() < deadline)) {
            assertCancelBookmark_ = *it;
            CASK_VRF_TRACE(7, ctx_.vrfName,
                           "AssertIntfSm::handleAssertCancelTimerExpiry({}), sent {}, resuming at "
                           "{} next turn",
                           intfId(), sent, assertCancelBookmark_);
            assertCancelTimer_->timeMinIs(ctx_.loop->now());
            return;
        }
        const RouteKey key = *it;
        sendAssertMessage(key, AssertMetric::infinite());
        ++sent;
        // Removal announces the key; the walk goes on at the next one.
        intfStatus_.assertCancelDel(key);
        it = cancels.lowerBound(key);
    }
    assertCancelBookmark_ = RouteKey();
    CASK_VRF_TRACE(7, ctx_.vrfName, "AssertIntfSm::handleAssertCancelTimerExpiry({}), sent {}",
                   intfId(), sent);
    doUpdateAssertCancelTimer();
}

void AssertIntfSm::sendAssertMessage(const RouteKey& key, const AssertMetric& metric) {
    CASK_VRF_TRACE(7, ctx_.vrfName, "AssertIntfSm::sendAssertMessage( {}, {} ) on {}", key,
                   metric.str(), intfId());
    ctx_.txMessageInfo->send(intfId(), Routing::Pim::AssertMessage::of(key, metric),
                             ctx_.loop->now());
}

}  // namespace Routing::Pim::SparseMode
