// Cost of one full route review when an interface change touches every route: the DR of the
// RPF interface all routes share flips, so each route is handed change flags and bumps its
// routeChanged. Runs on real time (SteadyClock), so slices are cut by the real reviewQuantum;
// reported per route, with the longest loop turn (one slice) and the resident memory per route.

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>

#include <fmt/format.h>

#include "cask/clock.h"
#include "cask/event_loop.h"
#include "pimsm/route/route_review_sm.h"

namespace {

using namespace Routing::Pim::SparseMode;
using Routing::Pim::RouteKey;

constexpr auto v4 = Wirl::AddressFamily::ipv4;

double residentBytes() {
    long pages = 0, resident = 0;
    if (FILE* f = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
        std::fclose(f);
    }
    return double(resident) * double(sysconf(_SC_PAGESIZE));
}

// One VRF with n (S,G) routes, 64 sources per group, all with RPF on "up1" and one downstream
// interface with a local receiver.
struct World {
    explicit World(std::size_t n) : routes(n) {
        const double before = residentBytes();
        auto up1 = Cask::make<Routing::Pim::PimIntfStatus>(Wirl::IntfId("up1"));
        up1->usedAddrIs(*Wirl::IpGenAddr::parse("10.0.1.5"));
        pim->intfIs(up1->intfId(), up1);
        localStatus->ssmGroupInfoIs(Cask::make<SsmGroupInfo>(v4));
        localStatus->groupFilterStatusIs(Cask::make<Routing::Pim::GroupFilterStatus>(v4));
        localStatus->frrFilterStatusIs(Cask::make<FrrFilterStatus>(v4));
        status->initializedIs(true);
        ctx.vrfName = L3::VrfName("bench");
        ctx.loop = &loop;
        ctx.config = config.get();
        ctx.status = status.get();
        ctx.localStatus = localStatus.get();
        ctx.rpfConfig = rpfConfig.get();
        ctx.rpfStatus = rpfStatus.get();
        ctx.pimStatus = pim.get();
        ctx.membership = membership.get();
        review = routeReviewSmFactory(ctx);
        const Routing::Pim::Rpf rpf{Wirl::IntfId("up1"), *Wirl::IpGenAddr::parse("10.0.1.2"), 110,
                                    10};
        const Wirl::IntfId d1("d1");
        for (std::uint32_t i = 0; i < n; ++i) {
            const auto group = Wirl::IpGenAddr::v4(0xef000000u + (i >> 6));  // 239.x.y.z
            const auto source = Wirl::IpGenAddr::v4(0x0a010000u + (i & 63));
            auto r = status->routeIs(RouteKey(source, group));
            r->umh()->doUpdateRpf(rpf);
            r->routeIntfIs(d1)->localReceiverIncludeIs(true);
            r->initializedIs(true);
        }
        bytesPerRoute = (residentBytes() - before) / double(n);
    }

    // Records the DR flip and makes the review due now (the rate limiter's delay is not what
    // is measured here).
    void recordChange() {
        mine = !mine;
        pim->intfRaw(Wirl::IntfId("up1"))
            ->usedDrIs(*Wirl::IpGenAddr::parse(mine ? "10.0.1.5" : "10.0.1.9"));
        review->reviewTimer()->timer().timeMinIs(loop.now());
    }

    std::size_t routes;
    Cask::SteadyClock clock;
    Cask::EventLoop loop{clock};
    Cask::Ptr<Routing::Pim::Status> pim = Cask::make<Routing::Pim::Status>();
    Cask::Ptr<LocalStatus> localStatus = localStatusFactory(v4);
    Cask::Ptr<Status> status =
        Cask::make<Status>(clock, RouteContext{pim.get(), localStatus.get()});
    Cask::Ptr<Config> config = Cask::make<Config>(v4);
    Cask::Ptr<Routing::Pim::RpfConfig> rpfConfig = Cask::make<Routing::Pim::RpfConfig>();
    Cask::Ptr<Routing::Pim::RpfStatus> rpfStatus = Cask::make<Routing::Pim::RpfStatus>();
    Cask::Ptr<Routing::Gmp::Tidal::Status> membership = Cask::make<Routing::Gmp::Tidal::Status>();
    VrfContext ctx;
    std::unique_ptr<RouteReviewSm> review;
    bool mine = false;
    double bytesPerRoute = 0;
};

// Building a million routes takes seconds: keep the world of the size last asked for.
World& world(std::size_t n) {
    static std::unique_ptr<World> w;
    if (!w || w->routes != n) {
        w.reset();
        w = std::make_unique<World>(n);
    }
    return *w;
}

void BM_FullReviewAfterIntfChange(benchmark::State& state) {
    const auto n = static_cast<std::size_t>(state.range(0));
    World& w = world(n);
    Cask::Seconds longest = 0;
    std::uint64_t slices = 0;
    for (auto _ : state) {
        state.PauseTiming();
        w.recordChange();
        const auto turnsBefore = w.loop.turns();
        state.ResumeTiming();
        w.loop.runUntilIdle();
        state.PauseTiming();
        slices += w.loop.turns() - turnsBefore;
        longest = std::max(longest, w.loop.longestTurn());
        state.ResumeTiming();
    }
    state.counters["per_route"] =
        benchmark::Counter(double(state.iterations()) * double(n),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["longest_slice_ms"] = longest * 1e3;
    state.counters["slices"] = double(slices) / double(state.iterations());
    state.counters["rss_bytes_per_route"] = w.bytesPerRoute;
}
BENCHMARK(BM_FullReviewAfterIntfChange)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

// The million-route case: slower to build, so a few iterations only.
BENCHMARK(BM_FullReviewAfterIntfChange)->Arg(1000000)->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace
