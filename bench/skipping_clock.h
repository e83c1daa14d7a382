#pragma once
// Steady time that skips the idle waits: work runs on the real clock, so time slicing sees how
// long work really takes, while waiting for the next timer jumps instead of sleeping, so a
// benchmark's figures are the work alone.

#include "cask/clock.h"

namespace Bench {

class SkippingClock final : public Cask::Clock {
public:
    Cask::Seconds now() const override { return steady_.now() + skipped_; }
    void waitUntil(Cask::Seconds t) override {
        const Cask::Seconds n = now();
        if (t > n) skipped_ += t - n;
    }

private:
    Cask::SteadyClock steady_;
    Cask::Seconds skipped_ = 0;
};

}  // namespace Bench
