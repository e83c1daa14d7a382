// pimsm: runs the agent on a scenario and shows what it did.
//
//   pimsm run [SCENARIO.yaml] [--json] [--trace LEVEL] [--until T] [--seed N] [--check]
//   pimsm --version
//
// Without a file it runs the bundled example (a last-hop router); without a
// command it prints its help.
// Exit codes: 0 done, 1 an expectation failed (with --check), 2 the
// scenario or a command-line value could not be used (nothing ran).

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <iostream>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <string>
#include <string_view>

#include <fmt/format.h>
#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

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
    Driver::RunOptions options;
    options.traceLevel = traceLevel;
    options.seed = seed;
    options.until = until;
    Driver::Runner runner(scenario, options);
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

// A command-line value that cannot be used; reported like a scenario fault
// but without a place.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

double parseUntil(const std::string& text) {
    double v = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
    if (ec != std::errc{} || end != text.data() + text.size() || !std::isfinite(v) || v < 0 ||
        v > Driver::maxScenarioTime) {
        throw UsageError(fmt::format("--until: '{}' is not a time from 0 to {} seconds", text,
                                     Driver::maxScenarioTime));
    }
    return v;
}

std::uint64_t parseSeed(const std::string& text) {
    std::uint64_t v = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
    if (ec != std::errc{} || end != text.data() + text.size() || text.empty()) {
        throw UsageError(fmt::format("--seed: '{}' is not a whole number from 0 to {}", text,
                                     std::numeric_limits<std::uint64_t>::max()));
    }
    return v;
}

// The levels the agent writes lines at (4 notable events, 6 handler entry,
// 7 and 8 detail) and 0 for none; any other number would keep the same
// lines as a neighbouring level and only suggest a difference.
constexpr int traceLevels[] = {0, 4, 6, 7, 8};

int parseTraceLevel(const std::string& text) {
    int v = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
    const bool known =
        std::find(std::begin(traceLevels), std::end(traceLevels), v) != std::end(traceLevels);
    if (ec != std::errc{} || end != text.data() + text.size() || !known) {
        throw UsageError(fmt::format(
            "--trace: '{}' is not a trace level (0 none, 4 notable events, 6 handler entry, "
            "7 and 8 detail)",
            text));
    }
    return v;
}

// Every refusal exits with 2. With --json the fault is also a JSON object on
// standard output, for tools that read only that.
int refuse(bool json, const std::string& file, int line, int column, const std::string& message,
           const std::string& text) {
    std::cerr << text << '\n';
    if (json) {
        nlohmann::ordered_json where = nlohmann::ordered_json::object();
        where["file"] = file.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(file);
        where["line"] = line > 0 ? nlohmann::ordered_json(line) : nlohmann::ordered_json();
        where["column"] = column > 0 ? nlohmann::ordered_json(column) : nlohmann::ordered_json();
        where["message"] = message;
        std::cout << nlohmann::ordered_json{{"error", where}}.dump(2) << '\n';
    }
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"pimsm: a PIM sparse-mode routing agent on an in-process platform"};
    app.require_subcommand(0, 1);
    app.set_version_flag("--version", std::string("pimsm ") + PIMSM_VERSION);
    app.footer(
        "Examples:\n"
        "  pimsm run                          the bundled example (a last-hop router)\n"
        "  pimsm run examples/rp.yaml --json  one JSON document for scripts\n"
        "  pimsm run FILE.yaml --check        exit 1 when an expectation fails\n"
        "Run 'pimsm run --help' for the options of a run.");
    auto* runCmd = app.add_subcommand("run", "run an agent on a scenario and show what it did");
    std::string file, traceText = "4", untilText, seedText = "1";
    bool json = false, check = false;
    runCmd->add_option("scenario", file, "scenario file (default: the bundled last-hop example)");
    runCmd->add_flag("--json", json, "print one JSON document instead of tables");
    runCmd->add_option("--trace", traceText,
                       "trace level to keep: 4 notable events (default), 6 handler entry, 7 and 8 "
                       "detail, 0 none");
    runCmd->add_option("--until", untilText, "run at least until this time (seconds)");
    runCmd->add_option("--seed", seedText, "seed of the random jitter");
    runCmd->add_flag("--check", check, "exit with 1 when an expectation fails");
    runCmd->footer(
        "Outputs a scenario can show or expect: routes, membership, rp, neighbors, interfaces,\n"
        "join-prune, downstream, forwarding, asserts, sent, register, counters, spt-threshold,\n"
        "trace, events (docs/outputs.md lists their fields).");
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        // --json may not have been read yet when parsing stopped.
        for (int i = 1; i < argc; ++i) json = json || std::string_view(argv[i]) == "--json";
        return refuse(json, "", 0, 0, e.what(), std::string("pimsm: ") + e.what());
    }
    if (!runCmd->parsed()) {
        // No command: say what the program can do rather than run something.
        std::cout << app.help();
        return 0;
    }
    try {
        const int traceLevel = parseTraceLevel(traceText);
        const double until = untilText.empty() ? -1 : parseUntil(untilText);
        const std::uint64_t seed = parseSeed(seedText);
        return run(file, json, traceLevel, until, seed, check);
    } catch (const Driver::ScenarioError& e) {
        return refuse(json, e.file(), e.line(), e.column(), e.message(), e.what());
    } catch (const UsageError& e) {
        return refuse(json, "", 0, 0, e.what(), std::string("pimsm: ") + e.what());
    } catch (const std::exception& e) {
        return refuse(json, file, 0, 0, e.what(), std::string("pimsm: ") + e.what());
    }
}
