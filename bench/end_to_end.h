#pragma once
// The whole-agent scale benchmark, `pimsm-bench end-to-end --routes N [--json]`: one IPv4 VRF
// of a last-hop router (host interface Ethernet1, RP 10.0.0.1 behind a neighbour on Ethernet2)
// gets N host joins for N distinct groups at once, and the agent's event loop runs until every
// group has a committed (*,G) forwarding record carrying Ethernet1's bit. It reports how fast
// that went, what it cost in memory, the longest single event-loop turn, and how it compares
// with the bare cost of writing the same records into a forwarding table (the floor).
//
// Time is virtual (the agent runs on the scenario driver's Runner), so timers cost no waiting
// and every figure below is wall time spent working.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include <nlohmann/json.hpp>

namespace Bench {

struct EndToEndResult {
    std::size_t routes = 0;
    double agentSeconds = 0;  // wall, first membership write to last record committed
    double routesPerSecond = 0;
    long peakRssKiB = 0;        // getrusage ru_maxrss at the end of the agent run
    double rssGrowthBytes = 0;  // resident set growth over the agent run
    double bytesPerRoute = 0;
    double longestTurnSeconds = 0;  // wall time of the longest EventLoop::runOnce()
    std::uint64_t turns = 0;        // runOnce() calls that did something
    double virtualSeconds = 0;      // loop time the run took
    double floorSeconds = 0;        // writing the same N records into a fresh table
    double floorRatio = 0;          // agentSeconds / floorSeconds
};

// Called about every half second of wall time with the number of groups committed so far.
using Progress = std::function<void(std::size_t committed, std::size_t total)>;

// Runs the benchmark once. Throws std::runtime_error when the agent does not commit a correct
// record for every group (or the VRF never comes up).
EndToEndResult runEndToEnd(std::size_t routes, const Progress& progress = {});

nlohmann::ordered_json toJson(const EndToEndResult& r);
// An aligned two-column table, one figure per line.
std::string toTable(const EndToEndResult& r);

// The `end-to-end` subcommand; argv[0] is the subcommand's name. Returns the exit status.
int endToEndMain(int argc, char** argv);

}  // namespace Bench
