#pragma once
// The whole-agent scale benchmark, `pimsm-bench end-to-end --routes N [--routes M ...]
// [--real-time] [--ssm] [--downstream] [--first-packet] [--json]`: one IPv4 VRF of a last-hop
// router (host interface Ethernet1, RP 10.0.0.1 behind a neighbour on Ethernet2) gets N host joins
// for N distinct groups at once, and the agent's event loop runs until every group has a committed
// (*,G) forwarding record carrying Ethernet1's bit. It reports how fast that went, what it cost in
// memory (resident set growth and heap bytes, with a breakdown by kind of record), the longest
// single event-loop turn, and how it compares with the bare cost of writing the same records into a
// forwarding table (the floor). Several `--routes` values run one after the other and print side by
// side.
//
// By default time is virtual (the agent runs on the scenario driver's virtual clock), so timers
// cost no waiting and every figure is wall time spent working; but then the loop's clock does
// not move while work runs, so time-sliced reviews never suspend. With `--real-time` the loop
// reads the steady clock (idle waits are skipped), so the reviews slice their work as in a real
// run and the longest turn shows how well they do. With `--sized` the agent runs with its route
// limit (maxRoutes) set to N, so it sizes its route indexes when the VRF starts: the heap this
// takes shows as start-up heap, and no index rehashes in one long step while the routes come.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace Bench {

// Heap bytes per route kept by one kind of record, measured by building the same records alone.
struct HeapShare {
    std::string what;
    double bytesPerRoute = 0;
};

// Where the N routes come from.
enum class Joins {
    membership,   // host (*,G) memberships on Ethernet1
    ssm,          // host SSM (S,G) include memberships, one source
    downstream,   // Join(*,G) from a downstream PIM neighbour on Ethernet1, 100 groups a message
    firstPacket,  // a source's first packet per group on Ethernet2 (a cache miss each)
};
const char* joinsName(Joins j);

struct EndToEndResult {
    std::size_t routes = 0;
    bool realTime = false;
    Joins joins = Joins::membership;
    std::size_t maxRoutes = 0;    // the agent's route limit (0: none)
    double startupHeapBytes = 0;  // heap the agent held once the VRF was up, before any join
    double agentSeconds = 0;      // wall, first membership write to last record committed
    double routesPerSecond = 0;
    long peakRssKiB = 0;        // getrusage ru_maxrss at the end of the agent run
    double rssGrowthBytes = 0;  // resident set growth over the agent run
    double bytesPerRoute = 0;   // rssGrowthBytes / routes
    // Heap bytes per route still held once every record is committed: the membership table,
    // and everything the agent built from it.
    double heapMembershipPerRoute = 0;
    double heapAgentPerRoute = 0;
    // The agent's share split by kind: records built alone, then what remains (the machines).
    std::vector<HeapShare> heapBreakdown;
    double longestTurnSeconds = 0;      // wall time of the longest EventLoop::runOnce()
    std::uint64_t turns = 0;            // runOnce() calls that did something
    std::uint64_t turnsOverBudget = 0;  // of those, the ones past the quantum + 5 ms
    double virtualSeconds = 0;          // loop time the run took
    double floorSeconds = 0;            // writing the same N records into a fresh table
    double floorRatio = 0;              // agentSeconds / floorSeconds
    // Records written again after their first write, while the groups were joined (a transient
    // record committed before the final one counts here).
    std::size_t rewrittenRecords = 0;
    // Downstream joins only: the neighbour restarts and sends every Join again. Wall time until
    // no work is due within a second of loop time, and the longest turn meanwhile.
    double resendSeconds = 0;
    double resendLongestTurnSeconds = 0;
};

// Called about every half second of wall time with the number of groups committed so far.
using Progress = std::function<void(std::size_t committed, std::size_t total)>;

// Runs the benchmark once. Throws std::runtime_error when the agent does not commit a correct
// record for every group (or the VRF never comes up).
// `joins` says where the routes come from: with `ssm` each host joins (S,G) for one source and
// a group of the SSM range; with `downstream` a PIM neighbour on Ethernet1 sends Join(*,G) in
// messages of 100 groups (and, once done, sends them all again as after a restart); with
// `firstPacket` one source sends a first packet to each group. The records counted are the
// (S,G) ones toward the source for `ssm` and `firstPacket` (a first packet's record has no
// receivers, so only its incoming interface is checked), the (*,G) ones otherwise.
// With `sized`, the agent runs with maxRoutes = `routes`, so it sizes its route indexes when the
// VRF starts and none rehashes while the routes come.
EndToEndResult runEndToEnd(std::size_t routes, bool realTime = false, const Progress& progress = {},
                           Joins joins = Joins::membership, bool sized = false);

nlohmann::ordered_json toJson(const EndToEndResult& r);
// An aligned table, one figure per line and one column per result.
std::string toTable(const std::vector<EndToEndResult>& results);

// The `end-to-end` subcommand; argv[0] is the subcommand's name. Returns the exit status.
int endToEndMain(int argc, char** argv);

}  // namespace Bench
