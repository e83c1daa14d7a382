#include "platform/assert_metric.h"

#include <fmt/format.h>

namespace Routing::Pim {

std::string AssertMetric::str() const {
    if (isInfinite()) return "infinite";
    return fmt::format("rpt {} pref {} metric {} addr {}", rptBit ? 1 : 0, metricPreference, metric,
                       address);
}

}  // namespace Routing::Pim
