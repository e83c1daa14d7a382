#include "cask/review_timer.h"

#include <algorithm>
#include <utility>

#include "cask/assert.h"

namespace Cask {

ReviewTimer::ReviewTimer(EventLoop& loop, Seconds fillInterval, std::uint32_t credits,
                         Seconds minDelay, Seconds maxDelay, std::function<void()> onReview)
    : minDelay_(minDelay),
      maxDelay_(maxDelay),
      capacity_(credits),
      rate_(credits / fillInterval),
      credits_(credits),
      refilledAt_(loop.now()),
      timer_(loop, std::move(onReview)) {
    CASK_ASSERT(fillInterval > 0 && credits >= 1, "review bucket without credits or refill");
    CASK_ASSERT(minDelay >= 0 && minDelay <= maxDelay, "review delays out of order");
}

double ReviewTimer::creditsAt(Seconds now) const {
    return std::min(capacity_, credits_ + (now - refilledAt_) * rate_);
}

double ReviewTimer::credits() const {
    return creditsAt(timer_.loop().now());
}

void ReviewTimer::doUpdateNextReview() {
    if (reviewPending()) return;
    const Seconds now = timer_.loop().now();
    const double c = creditsAt(now);
    Seconds at;
    if (c >= 1) {
        at = now + minDelay_ + (maxDelay_ - minDelay_) * (1 - c / capacity_);
    } else {
        at = now + std::max(minDelay_, (1 - c) / rate_);
    }
    credits_ = c - 1;
    refilledAt_ = now;
    timer_.timeMinIs(at);
}

}  // namespace Cask
