#include "cask/clock.h"

#include <cmath>
#include <thread>

#include "cask/assert.h"

namespace Cask {

Clock::~Clock() = default;

Seconds VirtualClock::now() const {
    const Seconds t = now_;
    now_ += advancePerRead_;
    return t;
}

void VirtualClock::advanceTo(Seconds t) {
    if (std::isfinite(t) && t > now_) now_ = t;
}

void VirtualClock::advancePerReadIs(Seconds dt) {
    CASK_ASSERT(dt >= 0, "a virtual clock cannot run backwards");
    advancePerRead_ = dt;
}

Seconds SteadyClock::now() const {
    return std::chrono::duration<Seconds>(std::chrono::steady_clock::now() - start_).count();
}

void SteadyClock::waitUntil(Seconds t) {
    CASK_ASSERT(std::isfinite(t), "waiting for a time that never comes");
    // sleep_for may return early on some platforms; the loop re-checks and waits again.
    const Seconds left = t - now();
    if (left > 0) std::this_thread::sleep_for(std::chrono::duration<Seconds>(left));
}

}  // namespace Cask
