#pragma once
// What the whole-agent benchmarks share when they build their scenario and
// time it: address and prefix literals, a PIM interface with a /24, wall
// seconds, the heap in use, and the agent running the scenario with the
// default VRF's records they drive.

#include <chrono>
#include <functional>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "alloc_count.h"
#include "cask/trace.h"
#include "driver/runner.h"
#include "driver/scenario.h"
#include "pimsm/agent/container_sm.h"
#include "pimsm/agent/root_sm.h"
#include "platform/membership.h"
#include "platform/mfib_table.h"
#include "platform/mrt_upcall.h"
#include "platform/state_db.h"
#include "skipping_clock.h"
#include "wirl/ip_gen_addr.h"
#include "wirl/ip_gen_prefix.h"
#include "wirl/vrf_name.h"

namespace Bench {

using WallClock = std::chrono::steady_clock;

inline double seconds(WallClock::duration d) {
    return std::chrono::duration<double>(d).count();
}
inline Wirl::IpGenAddr addr(std::string_view text) {
    return *Wirl::IpGenAddr::parse(text);
}
inline Wirl::IpGenPrefix prefix(std::string_view text) {
    return *Wirl::IpGenPrefix::parse(text);
}
// A PIM interface with this router's address `a` on a /24; `dr`: this
// router is its DR.
inline Driver::InterfaceSpec interfaceSpec(std::string_view name, std::string_view a, bool dr) {
    Driver::InterfaceSpec i;
    i.name = Wirl::IntfId(name);
    i.addr = addr(a);
    i.address = Wirl::IpGenPrefix(i.addr, 24);
    i.dr = dr;
    return i;
}
inline double heapBytes() {
    return double(heapBytesInUse());
}

// The agent running a benchmark's scenario, traces and event log off, and the default VRF
// it drives. Made first, so that the benchmark may change inputs before the VRF starts;
// `open` then runs the loop to the benchmark's start and looks up the VRF's records.
struct BenchVrf {
    enum class Clock {
        loop,      // the runner's virtual clock: time passes only as the loop says
        skipping,  // steady time that skips idle waits (skipping_clock.h)
    };

    // `maxRoutes`: the agent's route limit (0: none), for which it sizes its route indexes.
    BenchVrf(Driver::Scenario s, Clock clock, std::size_t maxRoutes = 0)
        : scenario(std::move(s)), runner(scenario, options(clock, maxRoutes)) {
        Cask::eventLog().levelIs(0);
    }

    // Runs the loop until `at`, then finds the VRF's forwarding table, membership table,
    // upcall record and container; throws "the VRF did not come up" when one of them, or
    // what `more` asks of the container, is missing.
    void open(Cask::Seconds at,
              const std::function<bool(Routing::Pim::SparseMode::ContainerSm&)>& more = {}) {
        loop.runUntil(at);
        table = runner.db().mfibTable(vrf);
        members = runner.db().membershipTable(vrf);
        upcalls = runner.db().mrtUpcall(vrf);
        auto* root = runner.agent().rootSm();
        container = root ? root->containerSm().raw(vrf) : nullptr;
        if (!table || !members || !upcalls || !container || (more && !more(*container))) {
            throw std::runtime_error("the VRF did not come up");
        }
    }

    const Driver::Scenario scenario;  // the runner reads it for as long as it runs
    SkippingClock skipping;
    Driver::Runner runner;
    Cask::EventLoop& loop = runner.loop();
    const L3::VrfName vrf = L3::VrfName::defaultVrf();
    Cask::Ptr<Tidal::Multicast::Fib::Status> table;
    Cask::Ptr<Routing::Gmp::Tidal::Status> members;
    Cask::Ptr<Routing::Pim::MrtUpcallStatus> upcalls;
    Routing::Pim::SparseMode::ContainerSm* container = nullptr;

private:
    Driver::RunOptions options(Clock clock, std::size_t maxRoutes) {
        Driver::RunOptions o;
        o.traceLevel = 0;
        if (clock == Clock::skipping) o.clock = &skipping;
        if (maxRoutes) o.agentOptions.emplace_back("maxRoutes", std::to_string(maxRoutes));
        return o;
    }
};

}  // namespace Bench
