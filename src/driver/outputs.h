#pragma once
// What `show` and `expect` see: the agent's state as rows of data, one
// array of objects per output, in a stable order (VRF, then key). The text
// and JSON reports print these; expectations compare against them.

#include <cstdint>

#include <nlohmann/json.hpp>

#include "cask/trace.h"
#include "driver/scenario.h"

namespace Driver {

class Runner;

// Rows of one output over all VRFs of the scenario.
nlohmann::ordered_json vrfOutput(Runner& runner, const Scenario& scenario, Output what);

// The ring's lines added since `seen` (which is advanced), as
// {"time", "level", "text"} rows.
nlohmann::ordered_json traceLines(const Cask::TraceRing& ring, std::uint64_t& seen);

}  // namespace Driver
