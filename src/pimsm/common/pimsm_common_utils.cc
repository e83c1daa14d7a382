#include "pimsm/common/pimsm_common_utils.h"

#include "cask/assert.h"
#include "cask/random.h"

namespace Routing::Pim::SparseMode {

double randomDelay(double x) {
    double r = Cask::random().uniform();
    CASK_ASSERT(r <= 1.0, "r <= 1.0");
    if (r < 0.1) r += 0.1;
    return x * r;
}

}  // namespace Routing::Pim::SparseMode
