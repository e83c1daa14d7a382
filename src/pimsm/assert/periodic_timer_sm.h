#pragma once
// PeriodicTimerSm: repeats a set of messages once per interval, spread over
// the interval instead of sent in one burst.
//
// A derived machine says how long the interval is (`interval`), how long to
// wait before the first expiry of a round (`holdTime`), and how many
// messages a round has (`numberOfMessages`); it sends at each expiry
// (`handlePeriodicTimerExpiry`) at most `maxMessagesPerExpiry()` of them,
// keeping its own bookmark, and then either asks for the next expiry of the
// round (`doReschedulePeriodicTimer`) or, having reached the end, starts the
// next round (`doFinishRound`).
//
// Scheduling: n messages are spread over E = min(n, interval / minSpacing)
// expiries `interval / E` apart, each sending at most ceil(n / E). A round
// starts `interval` after the previous one started (or now, if that is
// already past), so every message repeats once per interval even when a
// round finishes early.

#include <cstddef>

#include "cask/clock.h"
#include "cask/event_loop.h"
#include "cask/timer.h"

namespace Routing::Pim {

class PeriodicTimerSm {
public:
    // The closest two expiries of a round may be.
    static constexpr Cask::Seconds minSpacing = 1.0;

    struct Schedule {
        std::size_t expiries = 0;             // per interval; 0: nothing to send
        std::size_t maxPerExpiry = 0;         // messages per expiry
        Cask::Seconds spacing = Cask::never;  // between two expiries
        bool operator==(const Schedule&) const = default;
    };
    static Schedule scheduleFor(Cask::Seconds interval, std::size_t messages);

    explicit PeriodicTimerSm(Cask::EventLoop& loop);
    virtual ~PeriodicTimerSm() = default;
    PeriodicTimerSm(const PeriodicTimerSm&) = delete;
    PeriodicTimerSm& operator=(const PeriodicTimerSm&) = delete;

    virtual Cask::Seconds interval() const = 0;
    virtual Cask::Seconds holdTime() const = 0;
    virtual std::size_t numberOfMessages() const = 0;
    virtual void handlePeriodicTimerExpiry() = 0;

    // The most messages the current expiry may send.
    std::size_t maxMessagesPerExpiry() const {
        const std::size_t n = numberOfMessages();
        return n ? scheduleFor(interval(), n).maxPerExpiry : 0;
    }

    // Starts a round unless one is running (then brings its next expiry
    // forward if more messages need closer expiries); nothing to send:
    // nothing armed.
    void doUpdatePeriodicTimer();
    // The next expiry of the running round.
    void doReschedulePeriodicTimer();
    // The round reached its last message: the next one starts one interval
    // after this one did.
    void doFinishRound();
    // No more expiries; the next round may start at once.
    void doStopPeriodicTimer();

    Cask::Seconds periodicTimerTime() const { return timer_.timeMin(); }
    Cask::Seconds roundStart() const { return roundStart_; }
    Cask::EventLoop& loop() const { return loop_; }

private:
    Cask::EventLoop& loop_;
    Cask::Timer timer_;
    Cask::Seconds roundStart_ = -Cask::never;
    Cask::Seconds nextRoundStart_ = -Cask::never;
    Cask::Seconds lastExpiry_ = -Cask::never;  // or the round's start
};

}  // namespace Routing::Pim
