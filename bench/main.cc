// pimsm-bench: `pimsm-bench end-to-end [--routes N] [--json]` runs the whole-agent scale
// benchmark; `pimsm-bench asserts [--keys N] [--json]` the assert benchmark; `pimsm-bench
// rpt-prune [--sources N] [--json]` pruning sources off the shared tree; `pimsm-bench
// reactors [--routes N]` the per-route reactor footprint; any other
// arguments go to the Google Benchmark suite (so `--benchmark_filter=...` and a bare `pimsm-bench`
// work as usual).

#include <benchmark/benchmark.h>

#include <string_view>

#include "assert_bench.h"
#include "end_to_end.h"
#include "rpt_prune_bench.h"

namespace Bench {
int reactorsMain(int argc, char** argv);  // reactor_bench.cc
}

int main(int argc, char** argv) {
    if (argc > 1 && std::string_view(argv[1]) == "end-to-end") {
        return Bench::endToEndMain(argc - 1, argv + 1);
    }
    if (argc > 1 && std::string_view(argv[1]) == "asserts") {
        return Bench::assertsMain(argc - 1, argv + 1);
    }
    if (argc > 1 && std::string_view(argv[1]) == "rpt-prune")
        return Bench::rptPruneMain(argc - 1, argv + 1);
    if (argc > 1 && std::string_view(argv[1]) == "reactors")
        return Bench::reactorsMain(argc - 1, argv + 1);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
