#pragma once
// AssertMetric (platform/assert_metric.h), and AssertInfo: an interface's
// assert state with the winner's metric.

#include "pimsm/route/route_types.h"
#include "platform/assert_metric.h"

namespace Routing::Pim::SparseMode {

using Routing::Pim::AssertMetric;

struct AssertInfo {
    AssertState assertState = AssertState::assertNoInfo;
    AssertMetric winnerMetric;
    bool operator==(const AssertInfo&) const = default;
};

}  // namespace Routing::Pim::SparseMode
