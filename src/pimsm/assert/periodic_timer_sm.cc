#include "pimsm/assert/periodic_timer_sm.h"

#include <algorithm>
#include <cmath>

namespace Routing::Pim {

PeriodicTimerSm::Schedule PeriodicTimerSm::scheduleFor(Cask::Seconds interval,
                                                       std::size_t messages) {
    if (messages == 0 || !(interval > 0)) return Schedule{};
    const auto slots =
        std::max<std::size_t>(1, static_cast<std::size_t>(std::floor(interval / minSpacing)));
    Schedule s;
    s.expiries = std::min(messages, slots);
    s.maxPerExpiry = (messages + s.expiries - 1) / s.expiries;
    s.spacing = interval / static_cast<double>(s.expiries);
    return s;
}

PeriodicTimerSm::PeriodicTimerSm(Cask::EventLoop& loop)
    : loop_(loop), timer_(loop, [this] { handlePeriodicTimerExpiry(); }) {}

void PeriodicTimerSm::doUpdatePeriodicTimer() {
    const std::size_t n = numberOfMessages();
    if (n == 0) return;  // the interval is not even asked for
    const Schedule s = scheduleFor(interval(), n);
    if (s.expiries == 0) return;
    if (timer_.timeMin() != Cask::never) {
        // A round is running. More messages mean closer expiries: bring the
        // next one forward, so the round still ends within the interval.
        const Cask::Seconds next = std::max(lastExpiry_ + s.spacing, loop_.now());
        if (next < timer_.timeMin()) timer_.timeMinIs(next);
        return;
    }
    roundStart_ = std::max(loop_.now() + holdTime(), nextRoundStart_);
    lastExpiry_ = roundStart_;
    timer_.timeMinIs(roundStart_ + s.spacing);
}

void PeriodicTimerSm::doReschedulePeriodicTimer() {
    const std::size_t n = numberOfMessages();
    const Schedule s = n ? scheduleFor(interval(), n) : Schedule{};
    if (s.expiries == 0) {
        timer_.cancel();
        return;
    }
    lastExpiry_ = loop_.now();
    timer_.timeMinIs(lastExpiry_ + s.spacing);
}

void PeriodicTimerSm::doFinishRound() {
    nextRoundStart_ = roundStart_ + interval();
    timer_.cancel();
    doUpdatePeriodicTimer();
}

void PeriodicTimerSm::doStopPeriodicTimer() {
    timer_.cancel();
    nextRoundStart_ = -Cask::never;
}

}  // namespace Routing::Pim
