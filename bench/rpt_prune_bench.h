#pragma once
// Pruning sources off the shared tree at scale, `pimsm-bench rpt-prune [--sources N] [--json]`.
// One IPv4 VRF of a last-hop router: a host on Ethernet1 joins 239.1.1.1, the RP (10.0.0.1) is
// reached through 10.2.0.2 on Ethernet2 and N sources (10.128.0.1, 10.128.0.2, ...) through
// 10.3.0.2 on Ethernet3, so RPF'(S,G) differs from RPF'(*,G); the switchover policy is immediate.
//
// Setup: each source's first packet comes down the shared tree (a cache miss on Ethernet2), so
// every (S,G) route joins its source tree toward 10.3.0.2.
// Measured: each source's packets then arrive on Ethernet3, reported as the scenario driver's
// `data` event reports them (by what the forwarding record says), the SPT bit is set and the source
// is pruned off the shared tree: a triggered Prune(S,G,rpt) and the same Prune in the periodic
// message to 10.2.0.2 beside the (*,G) Join (RFC 7761 4.5.7). The run ends when the periodic record
// of the group at 10.2.0.2 holds all N prunes.
//
// Time is virtual (the scenario driver's clock): timers cost no waiting, every figure is wall
// time spent working.

#include <cstddef>
#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

namespace Bench {

struct RptPruneResult {
    std::size_t sources = 0;
    // Setup: first packets down the shared tree until every source tree is joined.
    double setupSeconds = 0;
    // Measured phase: first packet report to the last periodic prune written, the
    // stand-in packet side excluded.
    double pruneSeconds = 0;
    double prunesPerSecond = 0;
    // Longest single piece of work of the measured phase: an EventLoop::runOnce(), or the
    // handling of one packet report (reports are handled as they are written).
    double longestTurnSeconds = 0;
    double longestReportSeconds = 0;
    // How the packets on Ethernet3 were reported: wrong-interface upcalls (the forwarding record
    // still took the source from Ethernet2) or packet counts of a record that takes it there.
    std::size_t wrongVifReports = 0;
    std::size_t activityReports = 0;
    std::uint64_t turns = 0;
    // Triggered Prune(S,G,rpt) entries the stand-in packet side sent to 10.2.0.2 (distinct
    // sources), and in how many messages.
    std::size_t triggeredPrunes = 0;
    std::size_t triggeredMessages = 0;
    // The group's periodic message to 10.2.0.2: entries and its size as RFC 7761 4.9.5 encodes
    // it, and the packets it takes when split so that each carries the (*,G) Join.
    std::size_t periodicJoins = 0;
    std::size_t periodicPrunes = 0;
    std::size_t periodicBytes = 0;
    std::size_t packets9000 = 0;
    std::size_t packets1500 = 0;
    // Heap bytes per (S,G) route: the whole agent after the measured phase (from before the
    // first packet), of which the setup's share and the pruning's growth; and the upstream
    // (S,G,rpt) machine's own structures.
    double heapAgentPerRoute = 0;
    double heapSetupPerRoute = 0;
    double heapPruneGrowthPerRoute = 0;
    double heapRptReactorsPerRoute = 0;    // the per-route reactors and their index
    double heapRptPrevRpPerRoute = 0;      // where each periodic Prune stands
    double heapPeriodicPrunePerRoute = 0;  // the entry in the periodic record
    double heapSentTriggeredPerRoute = 0;  // the display copy of the last triggered message
    double heapRptMachinePerRoute = 0;     // the three machine shares above, summed
    double floorSeconds = 0;  // N prunes into a fresh group record's source set, best of 3
    double floorRatio = 0;    // pruneSeconds / floorSeconds
};

// Runs the benchmark once. Throws std::runtime_error when a phase does not reach its end state
// (every source joined toward 10.3.0.2; every source pruned, with its SPT bit, in the periodic
// record at 10.2.0.2 and sent once as a triggered Prune).
RptPruneResult runRptPrune(std::size_t sources);

nlohmann::ordered_json toJson(const RptPruneResult& r);
std::string toText(const RptPruneResult& r);

// The `rpt-prune` subcommand; argv[0] is the subcommand's name. Returns the exit status.
int rptPruneMain(int argc, char** argv);

}  // namespace Bench
