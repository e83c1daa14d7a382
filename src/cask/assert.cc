#include "cask/assert.h"

#include <cstdio>
#include <cstdlib>

namespace Cask {

void assertionFailed(const char* text, const char* file, int line) {
    std::fprintf(stderr, "assertion failed: %s (%s:%d)\n", text, file, line);
    std::fflush(stderr);
    std::abort();
}

}  // namespace Cask
