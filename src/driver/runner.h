#pragma once
// Runner: builds an agent of the scenario's address family on an
// in-process state database and virtual time, publishes the scenario's
// initial state, applies its events in time order and hands every `show`
// and `expect` to a Report.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "cask/clock.h"
#include "cask/event_loop.h"
#include "driver/scenario.h"
#include "pimsm/agent/agent.h"
#include "platform/route_key.h"
#include "platform/state_db.h"

namespace Driver {

struct RunOptions {
    int traceLevel = 4;  // lines kept in the trace ring
    std::uint64_t seed = 1;
    double until = -1;  // run at least until here (< 0: the scenario's)
    // The loop's clock; null: the runner's own virtual clock. Must outlive the runner.
    Cask::Clock* clock = nullptr;
    // Agent options ("maxRoutes", "maxRouteIntfs") published before the agent starts.
    std::vector<std::pair<std::string, std::string>> agentOptions;
};

// Receives what the scenario asks to see or to check, in time order.
class Report {
public:
    virtual ~Report() = default;
    virtual void show(double at, Output what, const nlohmann::ordered_json& data) = 0;
    // Returns whether `expected` matched.
    virtual bool expect(double at, const std::string& where, Output what,
                        const nlohmann::ordered_json& expected,
                        const nlohmann::ordered_json& actual) = 0;
};

class Runner {
public:
    Runner(const Scenario& scenario, RunOptions options);
    ~Runner();

    // Runs the whole scenario; returns the number of failed expectations.
    int run(Report& report);

    // The current value of one output, over all VRFs of the scenario.
    nlohmann::ordered_json output(Output what);

    Routing::Pim::SparseMode::Agent& agent() const { return *agent_; }
    Platform::StateDb& db() { return db_; }
    Cask::EventLoop& loop() { return loop_; }
    // When the neighbour last came up (was published while absent), in loop
    // seconds; negative for a neighbour that is not up.
    double neighborSince(const L3::VrfName& vrf, Wirl::IntfId intf,
                         const Wirl::IpGenAddr& address) const;

private:
    void publish(const VrfSpec& vrf);
    void apply(const Event& ev);
    void publishNeighbor(const L3::VrfName& vrf, Wirl::IntfId intf, const Wirl::IpGenAddr& a,
                         unsigned genId);
    void packetSide();

    // When each neighbour's pending override contents were first seen.
    using OverrideKey = std::pair<std::string, Routing::Pim::NeighborKey>;

    const Scenario& scenario_;
    RunOptions options_;
    Cask::VirtualClock virtualClock_;
    Cask::Clock& clock_;
    Cask::EventLoop loop_;
    Platform::StateDb db_;
    std::unique_ptr<Routing::Pim::SparseMode::Agent> agent_;
    std::map<std::tuple<L3::VrfName, Wirl::IntfId, Wirl::IpGenAddr>, double> neighborSince_;
    std::uint64_t traceSeen_ = 0;  // trace lines already shown
    std::uint64_t eventsSeen_ = 0;
    std::map<OverrideKey, Cask::Seconds> overrideSince_;
};

}  // namespace Driver
