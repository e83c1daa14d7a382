#include "cask/random.h"

#include <cstdlib>

namespace Cask {

void Random::seedIs(std::uint64_t seed) {
    // The same state layout srand48 uses: the seed in the high 32 bits and
    // 0x330E in the low 16.
    state_ = {0x330E, static_cast<unsigned short>(seed & 0xFFFF),
              static_cast<unsigned short>((seed >> 16) & 0xFFFF)};
}

double Random::uniform() {
    return erand48(state_.data());
}

Random& random() {
    static Random generator;
    return generator;
}

}  // namespace Cask
