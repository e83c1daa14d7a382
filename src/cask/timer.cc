#include "cask/timer.h"

#include <cmath>

#include "cask/assert.h"

namespace Cask {

Timer::~Timer() {
    if (armed()) loop_->disarm(*this);
    // The loop holds the callback while it runs; tell it there is no timer to give it back to.
    if (firing_) loop_->firingTimerDestroyed();
}

void Timer::timeMinIs(Seconds t) {
    CASK_ASSERT(!std::isnan(t), "timer armed at NaN");
    if (t == never) {
        if (armed()) loop_->disarm(*this);
        return;
    }
    loop_->arm(*this, t);
}

}  // namespace Cask
