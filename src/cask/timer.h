#pragma once
// A one-shot timer on an EventLoop, owned by the machine that uses it. Protocol timers (expiry of
// routes, hello and join/prune periods) are Timers; a periodic timer re-arms itself from its
// callback. Destroying a Timer cancels it, also from inside any callback, its own included.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <utility>

#include "cask/clock.h"
#include "cask/event_loop.h"

namespace Cask {

class Timer {
public:
    Timer(EventLoop& loop, std::function<void()> onExpiry)
        : loop_(&loop), onExpiry_(std::move(onExpiry)) {}
    ~Timer();
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    // Arms (or re-arms) the timer to fire at t; `never` disarms it. A time <= now fires on the
    // next turn. Every call takes a new place among timers that expire at the same time.
    void timeMinIs(Seconds t);
    // When the timer fires; `never` when it is not armed, which includes inside its own callback.
    Seconds timeMin() const { return timeMin_; }
    bool armed() const { return where_ != Where::none; }
    void cancel() { timeMinIs(never); }
    EventLoop& loop() const { return *loop_; }

private:
    friend class EventLoop;
    enum class Where : std::uint8_t { none, heap, deferred };

    EventLoop* loop_;
    std::function<void()> onExpiry_;
    Seconds timeMin_ = never;
    std::size_t slot_ = 0;  // index in the loop's heap or deferred list, per where_
    Where where_ = Where::none;
    bool firing_ = false;  // its callback is running
};

}  // namespace Cask
