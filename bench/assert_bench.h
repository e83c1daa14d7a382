#pragma once
// The assert benchmark, `pimsm-bench asserts [--keys N] [--json]`: one IPv4 VRF in which this
// router is DR on a LAN (Ethernet1, shared with one other router, 10.1.0.2) and forwards N SSM
// (S,G) routes of one source onto it, each joined by a local host and on the source tree (hosts
// on a second LAN, Ethernet3, join them too, so that losing on Ethernet1 prunes nothing). Then,
// through the agent's received-assert door (AssertMessageSm::handleRxMessage):
// - N inferior Asserts from the other router, one per route: this router wins every one (A1);
// - one full round of the periodic winner Asserts for the N winners on Ethernet1, spread by the
//   interface's periodic timer over assertTimeout - assertOverrideInterval;
// - N preferred Asserts from the other router: this router loses every one (A2).
// Each figure is printed beside a floor, the cost of the bare loop over the same keys doing the
// least the work needs (writing the same messages into a fresh record), and the heap that assert
// state costs per route.
//
// Time runs on the steady clock with idle waits skipped, so every figure is wall time spent
// working and the loop's turns last as long as they would in a real run.

#include <cstddef>
#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

namespace Bench {

// N received Asserts of one kind.
struct RxAssertFigures {
    double handlerSeconds = 0;  // the N handleRxMessage calls
    double settledSeconds = 0;  // the calls, then loop turns until no work is due
    std::uint64_t settleTurns = 0;
    double longestSettleTurnSeconds = 0;
    double floorSeconds = 0;  // the messages recorded in a fresh record, their routes found
};

struct AssertBenchResult {
    std::size_t keys = 0;
    double setupSeconds = 0;  // memberships and first data until every route could assert

    RxAssertFigures win;   // inferior Asserts: assertNoInfo -> winner
    RxAssertFigures lose;  // preferred Asserts: winner -> loser

    // One round of periodic winner Asserts.
    double intervalSeconds = 0;  // assertTimeout - assertOverrideInterval
    std::size_t perExpiryMax = 0;
    std::uint64_t walkAsserts = 0;
    std::uint64_t walkTurns = 0;
    double walkSeconds = 0;  // wall time of the turns that sent them
    // The walk's own time: from the first to the last Assert of each turn, which times all but
    // one Assert of the turn (spanAsserts of them) and leaves out other work due in the turn.
    double walkSpanSeconds = 0;
    std::uint64_t walkSpanAsserts = 0;
    double walkLoopSeconds = 0;  // loop time from the round's first expiry to its last
    double longestWalkTurnSeconds = 0;
    double longestExpirySeconds = 0;  // first to last Assert of one turn
    std::uint64_t mostAssertsInTurn = 0;
    double turnBudgetSeconds = 0;  // the loop's slice quantum
    double walkFloorSeconds = 0;   // the same Asserts written into a fresh transmit record

    // Heap growth per route, from no assert state.
    double heapWinnerPerRoute = 0;
    double heapLoserPerRoute = 0;
};

// Runs the benchmark once. Throws std::runtime_error when the agent does not reach the state
// each step expects (every route able to assert, every route a winner, one periodic Assert per
// winner in the round, every route a loser to the other router).
AssertBenchResult runAssertBench(std::size_t keys);

nlohmann::ordered_json toJson(const AssertBenchResult& r);
std::string toTable(const AssertBenchResult& r);

// The `asserts` subcommand; argv[0] is the subcommand's name. Returns the exit status.
int assertsMain(int argc, char** argv);

}  // namespace Bench
