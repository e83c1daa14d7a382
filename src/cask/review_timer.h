#pragma once
// The rate-limited timer with which a machine schedules "reviews": sweeps over many routes that
// apply the changes coalesced since the last sweep. The machine asks for a review whenever
// something changes; asking again while one is pending costs nothing. A token bucket decides
// when the review runs, so that a lone change is acted on promptly while a storm of changes turns
// into a bounded rate of sweeps instead of one sweep per change.
//
// The rule, exactly as implemented:
// - the bucket holds at most `credits` credits (full at construction) and refills continuously at
//   rate = credits / fillInterval per second;
// - a request at time `now` while a review is pending does nothing; otherwise, with c credits
//   available after refill:
//   - c >= 1: the review runs at now + minDelay + (maxDelay - minDelay) * (1 - c / credits), i.e.
//     after minDelay when the bucket is full, approaching maxDelay as a burst drains it;
//   - c < 1: the review runs when the next credit is there, now + (1 - c) / rate, but never
//     sooner than now + minDelay;
//   either way one credit is taken (so the bucket may go negative: a debt that refill pays).
// So a request is never served sooner than minDelay, a lone request is served after minDelay, and
// a burst gets one review per credit and then one review per refill period (fillInterval/credits).
// The timer is disarmed before onReview runs, so a request made during the review schedules
// exactly one more review.
//
// Machines use it through SlicedReview (sliced_review.h), which re-arms timer() at now to run a
// suspended review's next slice on the next turn; that bypasses the bucket and takes no credit.

#include <cstdint>
#include <functional>

#include "cask/clock.h"
#include "cask/event_loop.h"
#include "cask/timer.h"

namespace Cask {

class ReviewTimer {
public:
    static constexpr Seconds defaultFillInterval = 1.0;
    static constexpr std::uint32_t defaultCredits = 4;

    ReviewTimer(EventLoop& loop, Seconds fillInterval, std::uint32_t credits, Seconds minDelay,
                Seconds maxDelay, std::function<void()> onReview);

    bool reviewPending() const { return timer_.armed(); }
    // Asks for a review (see the rule above).
    void doUpdateNextReview();
    Timer& timer() { return timer_; }
    // Credits available now, after refill; negative while in debt.
    double credits() const;

private:
    double creditsAt(Seconds now) const;

    Seconds minDelay_;
    Seconds maxDelay_;
    double capacity_;
    double rate_;  // credits per second
    double credits_;
    Seconds refilledAt_;  // when credits_ was last brought up to date
    Timer timer_;
};

}  // namespace Cask
