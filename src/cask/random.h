#pragma once
// The agent's source of randomness (jitter of timers), seedable so that a
// run can be reproduced exactly. It draws like drand48 (48-bit linear
// congruential generator) but keeps its own state instead of libc's.

#include <array>
#include <cstdint>

namespace Cask {

class Random {
public:
    explicit Random(std::uint64_t seed = 0) { seedIs(seed); }
    void seedIs(std::uint64_t seed);
    // Uniform in [0, 1).
    double uniform();

private:
    std::array<unsigned short, 3> state_{};
};

// The process-wide generator the machines draw from; `pimsm run --seed N`
// and tests seed it.
Random& random();

}  // namespace Cask
