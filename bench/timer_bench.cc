// Cost of the event loop's timer heap at the scale of per-route expiry timers.

#include <benchmark/benchmark.h>

#include <deque>
#include <random>
#include <vector>

#include "cask/clock.h"
#include "cask/event_loop.h"
#include "cask/timer.h"

namespace {

std::vector<Cask::Seconds> randomTimes(std::size_t n, Cask::Seconds span) {
    std::mt19937 rng(42);
    std::uniform_real_distribution<Cask::Seconds> dist(0, span);
    std::vector<Cask::Seconds> times(n);
    for (auto& t : times) t = dist(rng);
    return times;
}

// Arms n timers at random times, then runs the loop until all have fired; per-timer cost.
void BM_ArmAndFireAll(benchmark::State& state) {
    const auto n = static_cast<std::size_t>(state.range(0));
    const auto times = randomTimes(n, 1000);
    Cask::VirtualClock clock;
    Cask::EventLoop loop(clock);
    std::uint64_t fired = 0;
    std::deque<Cask::Timer> timers;
    for (std::size_t i = 0; i < n; ++i) timers.emplace_back(loop, [&fired] { ++fired; });
    for (auto _ : state) {
        const Cask::Seconds base = clock.now();
        for (std::size_t i = 0; i < n; ++i) timers[i].timeMinIs(base + times[i]);
        loop.runUntilIdle();
    }
    benchmark::DoNotOptimize(fired);
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * n));
}
BENCHMARK(BM_ArmAndFireAll)->Arg(1000)->Arg(100000)->Unit(benchmark::kMillisecond);

// Re-arms one timer among n armed ones: should grow as log n.
void BM_RearmAmongMany(benchmark::State& state) {
    const auto n = static_cast<std::size_t>(state.range(0));
    const auto times = randomTimes(n, 1000);
    Cask::VirtualClock clock;
    Cask::EventLoop loop(clock);
    std::deque<Cask::Timer> timers;
    for (std::size_t i = 0; i < n; ++i) {
        timers.emplace_back(loop, [] {});
        timers.back().timeMinIs(times[i]);
    }
    std::size_t i = 0;
    for (auto _ : state) {
        timers[i % n].timeMinIs(times[(i * 7919) % n]);
        ++i;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RearmAmongMany)->Arg(1000)->Arg(10000)->Arg(100000);

}  // namespace
