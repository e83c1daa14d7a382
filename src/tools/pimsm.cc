// pimsm: runs the agent on a scenario and shows what it did.
//
//   pimsm run [SCENARIO.yaml] [--json] [--trace LEVEL] [--until T] [--seed N] [--check]
//
// Without a file it runs the bundled example (a last-hop router).
// Exit codes: 0 done, 1 an expectation failed (with --check), 2 the
// scenario could not be used.

#include <iostream>
#include <string>

#include <CLI/CLI.hpp>

#include "driver/report.h"
#include "driver/runner.h"
#include "driver/scenario.h"

namespace Driver {
extern const char* const embeddedScenarioName;
extern const char* const embeddedScenario;
}  // namespace Driver

namespace {

int run(const std::string& file, bool json, int traceLevel, double until, std::uint64_t seed,
        bool check) {
    const Driver::Scenario scenario =
        file.empty() ? Driver::parseScenario(Driver::embeddedScenario, Driver::embeddedScenarioName)
                     : Driver::loadScenario(file);
    Driver::Runner runner(scenario, {traceLevel, seed, until});
    int failed = 0;
    if (json) {
        Driver::JsonReport report;
        failed = runner.run(report);
        std::cout << report.document().dump(2) << '\n';
    } else {
        std::cout << "scenario " << scenario.file << ": " << scenario.vrfs.size() << " VRF(s), "
                  << scenario.events.size() << " event(s), " << Wirl::familyName(scenario.family)
                  << " agent\n";
        Driver::TextReport report(std::cout);
        failed = runner.run(report);
        std::cout << "\n"
                  << (failed ? std::to_string(failed) + " expectation(s) failed"
                             : "all expectations met")
                  << ", ran until " << runner.loop().now() << "s\n";
    }
    return check && failed ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"pimsm: a PIM sparse-mode routing agent on an in-process platform"};
    app.require_subcommand(1);
    auto* runCmd = app.add_subcommand("run", "run an agent on a scenario and show what it did");
    std::string file;
    bool json = false, check = false;
    int traceLevel = 4;
    double until = -1;
    std::uint64_t seed = 1;
    runCmd->add_option("scenario", file, "scenario file (default: the bundled last-hop example)");
    runCmd->add_flag("--json", json, "print one JSON document instead of tables");
    runCmd->add_option("--trace", traceLevel, "trace level to keep (4, 6, 7, 8)");
    runCmd->add_option("--until", until, "run at least until this time (seconds)");
    runCmd->add_option("--seed", seed, "seed of the random jitter");
    runCmd->add_flag("--check", check, "exit with 1 when an expectation fails");
    CLI11_PARSE(app, argc, argv);
    try {
        return run(file, json, traceLevel, until, seed, check);
    } catch (const Driver::ScenarioError& e) {
        std::cerr << e.what() << '\n';
        return 2;
    } catch (const std::exception& e) {
        std::cerr << "pimsm: " << e.what() << '\n';
        return 2;
    }
}
