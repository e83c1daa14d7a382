#pragma once
// Clocks the event loop reads time from. Protocol code never reads the system clock: it asks its
// loop, whose clock is a SteadyClock in a real run and a VirtualClock in tests and scenarios, where
// time moves only when the driver moves it (so a 210 s expiry takes microseconds to test and every
// run is reproducible).

#include <chrono>
#include <limits>

namespace Cask {

// Seconds on the loop's monotonic clock. A double holds microseconds exactly for over a century.
using Seconds = double;
inline constexpr Seconds never = std::numeric_limits<double>::infinity();

class Clock {
public:
    virtual ~Clock();
    virtual Seconds now() const = 0;
    // Returns once now() >= t: a real clock sleeps, a virtual clock jumps there. The loop calls it
    // only with a finite t.
    virtual void waitUntil(Seconds t) = 0;
};

// Time that moves only when told to. It never moves backwards.
class VirtualClock final : public Clock {
public:
    explicit VirtualClock(Seconds start = 0) : now_(start) {}

    // Returns the time, then advances it by advancePerRead().
    Seconds now() const override;
    void waitUntil(Seconds t) override { advanceTo(t); }

    void advanceTo(Seconds t);  // t < now() (or not finite) is ignored
    void advanceBy(Seconds dt) { advanceTo(now_ + dt); }

    // Test aid: every now() call advances time by dt, so that code which slices its work by a time
    // quantum sees the quantum run out after a known number of reads.
    void advancePerReadIs(Seconds dt);
    Seconds advancePerRead() const { return advancePerRead_; }

private:
    mutable Seconds now_;
    Seconds advancePerRead_ = 0;
};

// std::chrono::steady_clock, reading 0 at construction.
class SteadyClock final : public Clock {
public:
    SteadyClock() : start_(std::chrono::steady_clock::now()) {}

    Seconds now() const override;
    void waitUntil(Seconds t) override;

private:
    std::chrono::steady_clock::time_point start_;
};

}  // namespace Cask
