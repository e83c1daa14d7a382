// From routes to forwarding records: N (*,G) routes, each with a local
// receiver on one of 200 interfaces, are registered in a VRF whose MfibSm is
// running, and each becomes a committed record (routes per second). The
// floor is the bare cost of writing the same N records into the table; the
// second benchmark reports its own cost as a multiple of it ("xFloor").

#include <benchmark/benchmark.h>

#include <chrono>
#include <map>
#include <vector>

#include <fmt/format.h>

#include "cask/clock.h"
#include "pimsm/forwarding/mfib_sm.h"
#include "platform/pim_status.h"

namespace {

using namespace Routing::Pim::SparseMode;
namespace TMF = ::Tidal::Multicast::Fib;

constexpr unsigned intfCount = 200;

Routing::Pim::RouteKey key(std::int64_t i) {
    return Routing::Pim::RouteKey::wc(Wirl::IpGenAddr::v4(0xe8000000u + std::uint32_t(i)));
}

// Nanoseconds per record of the floor, by N, for the ratio.
std::map<std::int64_t, double>& floorNs() {
    static std::map<std::int64_t, double> m;
    return m;
}

// A VRF with N routes created (RPF and receiver set) but not yet registered.
class Vrf {
public:
    explicit Vrf(std::int64_t n)
        : ls(localStatusFactory(Wirl::AddressFamily::ipv4)),
          status(Cask::make<Status>(clock_, RouteContext{&pim_, ls.get()})),
          table(Cask::make<TMF::Status>()) {
        for (unsigned i = 0; i < intfCount; ++i) {
            auto s = Cask::make<Routing::Pim::PimIntfStatus>(Wirl::IntfId(fmt::format("e{}", i)));
            s->usedAddrIs(Wirl::IpGenAddr::v4(0x0a000005u));
            s->usedDrIs(s->usedAddr());
            pim_.intfIs(s->intfId(), s);
        }
        const Routing::Pim::Rpf rpf{Wirl::IntfId("up"), Wirl::IpGenAddr::v4(0x0a000102u), 1, 1};
        for (std::int64_t i = 0; i < n; ++i) {
            auto route = status->routeIs(key(i));
            route->umh()->doUpdateRpf(rpf);
            route->routeIntfIs(Wirl::IntfId(fmt::format("e{}", i % intfCount)))
                ->localReceiverIncludeIs(true);
            routes.push_back(route);
        }
        ctx.vrfName = L3::VrfName("bench");
        ctx.mfibTidal = table.get();
        ctx.status = status.get();
        ctx.localStatus = ls.get();
        sm = mfibSmFactory(ctx);
    }

private:
    Routing::Pim::Status pim_;
    Cask::VirtualClock clock_;

public:
    Cask::Ptr<LocalStatus> ls;
    Cask::Ptr<Status> status;
    Cask::Ptr<TMF::Status> table;
    std::vector<Cask::Ptr<Route>> routes;
    VrfContext ctx;
    std::unique_ptr<MfibSm> sm;
};

void BM_MfibFloorWriteRecords(benchmark::State& state) {
    const std::int64_t n = state.range(0);
    std::vector<TMF::Route> records;
    for (std::int64_t i = 0; i < n; ++i) {
        TMF::Route r(Routing::Multicast::Fib::convertKey(key(i)));
        r.iifIs(Wirl::IntfId("up"));
        r.oifIs(TMF::OifIndex(std::uint16_t(i % intfCount)), true);
        r.routeFlagsIs(TMF::Route::toCpu);
        records.push_back(r);
    }
    double ns = 0;
    for (auto _ : state) {
        state.PauseTiming();
        auto table = Cask::make<TMF::Status>();
        state.ResumeTiming();
        const auto t0 = std::chrono::steady_clock::now();
        for (const auto& r : records) table->routeIs(r);
        ns +=
            std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - t0).count();
        benchmark::DoNotOptimize(table->routeSize());
        state.PauseTiming();
        table.reset();
        state.ResumeTiming();
    }
    floorNs()[n] = ns / double(n * state.iterations());
    state.counters["routes/s"] =
        benchmark::Counter(double(n * state.iterations()), benchmark::Counter::kIsRate);
}

void BM_MfibRoutesToRecords(benchmark::State& state) {
    const std::int64_t n = state.range(0);
    double ns = 0;
    for (auto _ : state) {
        state.PauseTiming();
        auto vrf = std::make_unique<Vrf>(n);
        state.ResumeTiming();
        const auto t0 = std::chrono::steady_clock::now();
        for (const auto& route : vrf->routes) vrf->ls->wcRouteIs(route->key(), route);
        ns +=
            std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - t0).count();
        state.PauseTiming();
        if (vrf->table->routeSize() != std::size_t(n)) state.SkipWithError("records missing");
        vrf.reset();
        state.ResumeTiming();
    }
    const double perRoute = ns / double(n * state.iterations());
    state.counters["routes/s"] =
        benchmark::Counter(double(n * state.iterations()), benchmark::Counter::kIsRate);
    if (auto it = floorNs().find(n); it != floorNs().end() && it->second > 0) {
        state.counters["xFloor"] = perRoute / it->second;
    }
}

// The floor first, so the ratio can be taken against it.
BENCHMARK(BM_MfibFloorWriteRecords)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MfibRoutesToRecords)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace
