#include "end_to_end.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "cask/trace.h"
#include "driver/runner.h"
#include "driver/scenario.h"
#include "platform/membership.h"
#include "platform/mfib_table.h"
#include "platform/state_db.h"

namespace Bench {

namespace {

namespace TMF = ::Tidal::Multicast::Fib;
using WallClock = std::chrono::steady_clock;

// Groups 239.0.0.1, 239.0.0.2, ...: administratively scoped (RFC 2365), so outside the default
// SSM range and mapped to the static RP.
constexpr std::uint32_t firstGroup = 0xef000001u;
constexpr std::size_t maxRoutes = 0x00ffffffu;  // up to 239.255.255.255
// The example's join comes at 1 s: by then the VRF is up and the neighbour and RP are known.
constexpr Cask::Seconds joinsAt = 1;
// Loop time after the joins by which every record must be there. Joins, Join/Prune and
// forwarding need no timer longer than a few seconds; this leaves room for a periodic round.
constexpr Cask::Seconds virtualLimit = 300;
constexpr auto progressEvery = std::chrono::milliseconds(500);
constexpr int floorRuns = 3;  // the floor is the best of these

double seconds(WallClock::duration d) {
    return std::chrono::duration<double>(d).count();
}

Wirl::IpGenAddr addr(std::string_view text) {
    return *Wirl::IpGenAddr::parse(text);
}
Wirl::IpGenPrefix prefix(std::string_view text) {
    return *Wirl::IpGenPrefix::parse(text);
}
Wirl::IpGenAddr group(std::size_t i) {
    return Wirl::IpGenAddr::v4(firstGroup + std::uint32_t(i));
}

// The last-hop router of examples/last-hop.yaml, without its events.
Driver::Scenario lastHopScenario() {
    Driver::VrfSpec v;
    v.name = L3::VrfName::defaultVrf();
    v.rps.push_back({prefix("224.0.0.0/4"), addr("10.0.0.1")});
    auto intf = [](std::string_view name, std::string_view a, bool dr) {
        Driver::InterfaceSpec i;
        i.name = Wirl::IntfId(name);
        i.addr = addr(a);
        i.address = Wirl::IpGenPrefix(i.addr, 24);
        i.dr = dr;
        return i;
    };
    v.interfaces.push_back(intf("Ethernet1", "10.1.0.1", true));
    v.interfaces.push_back(intf("Ethernet2", "10.2.0.1", false));
    v.neighbors.push_back({Wirl::IntfId("Ethernet2"), addr("10.2.0.2")});
    v.routes.push_back(
        {prefix("10.0.0.0/8"), Wirl::IntfId("Ethernet2"), addr("10.2.0.2"), 110, 20});
    v.routes.push_back({prefix("10.1.0.0/24"), Wirl::IntfId("Ethernet1"),
                        Wirl::IpGenAddr::zero(Wirl::AddressFamily::ipv4)});
    v.routes.push_back({prefix("10.2.0.0/24"), Wirl::IntfId("Ethernet2"),
                        Wirl::IpGenAddr::zero(Wirl::AddressFamily::ipv4)});
    Driver::Scenario s;
    s.file = "end-to-end";
    s.family = Wirl::AddressFamily::ipv4;
    s.vrfs.push_back(std::move(v));
    return s;
}

// Counts, as records are written, the groups whose (*,G) record comes in on the RP's interface
// and carries the host interface's bit. A record that loses either stops counting. Progress is
// reported from here rather than between loop turns, since one turn may commit everything.
class CommitWatch : public TMF::Status::Notifiee {
public:
    CommitWatch(TMF::Status& table, std::size_t routes, Wirl::IntfId iif, Wirl::IntfId oif,
                const Progress& progress)
        : Notifiee(&table),
          done_(routes, false),
          iif_(iif),
          oif_(oif),
          progress_(progress),
          reported_(WallClock::now()) {}

    std::size_t committed() const { return committed_; }
    WallClock::time_point completedAt() const { return completedAt_; }

    bool correct(const TMF::Route* r) const {
        if (!r || !r->key().wildcard() || r->iif() != iif_) return false;
        for (auto index : r->oifIteratorConst()) {
            if (notifier()->oifIndexIntf(index).intf == oif_) return true;
        }
        return false;
    }

    void handleRoute(const TMF::IpGenRouteKey& key) override {
        if (!key.wildcard() || key.group().family() != Wirl::AddressFamily::ipv4) return;
        const std::size_t i = key.group().v4HostOrder() - firstGroup;
        if (i >= done_.size()) return;
        const bool ok = correct(notifier()->route(key));
        if (ok == done_[i]) return;
        done_[i] = ok;
        if (!ok) {
            --committed_;
        } else if (++committed_ == done_.size()) {
            completedAt_ = WallClock::now();
        }
        if (progress_ && ++sinceCheck_ == checkEvery) {
            sinceCheck_ = 0;
            const auto now = WallClock::now();
            if (now - reported_ >= progressEvery) {
                progress_(committed_, done_.size());
                reported_ = now;
            }
        }
    }

private:
    std::vector<bool> done_;
    std::size_t committed_ = 0;
    WallClock::time_point completedAt_;
    Wirl::IntfId iif_;
    Wirl::IntfId oif_;
    const Progress& progress_;
    WallClock::time_point reported_;
    static constexpr unsigned checkEvery = 1024;  // records between reads of the clock
    unsigned sinceCheck_ = 0;
};

double residentBytes() {
    std::ifstream statm("/proc/self/statm");
    long size = 0, resident = 0;
    statm >> size >> resident;
    return double(resident) * double(sysconf(_SC_PAGESIZE));
}

long peakRssKiB() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return u.ru_maxrss;
}

// The bare cost of the agent's output: the same records written into a fresh table.
double floorSeconds(const std::vector<TMF::Route>& records) {
    double best = 0;
    for (int run = 0; run < floorRuns; ++run) {
        auto table = Cask::make<TMF::Status>();
        const auto t0 = WallClock::now();
        for (const auto& r : records) table->routeIs(r);
        const double s = seconds(WallClock::now() - t0);
        if (table->routeSize() != records.size()) throw std::runtime_error("floor: records lost");
        best = run == 0 ? s : std::min(best, s);
    }
    return best;
}

}  // namespace

EndToEndResult runEndToEnd(std::size_t routes, const Progress& progress) {
    if (routes == 0 || routes > maxRoutes) {
        throw std::invalid_argument(fmt::format("routes must be 1 to {}", maxRoutes));
    }
    const Wirl::IntfId host("Ethernet1");
    const Wirl::IntfId upstream("Ethernet2");
    const auto scenario = lastHopScenario();
    Driver::RunOptions options;
    options.traceLevel = 0;
    Driver::Runner runner(scenario, options);
    Cask::eventLog().levelIs(0);
    auto& loop = runner.loop();
    loop.runUntil(joinsAt);

    const auto vrf = L3::VrfName::defaultVrf();
    auto table = runner.db().mfibTable(vrf);
    auto members = runner.db().membershipTable(vrf);
    if (!table || !members) throw std::runtime_error("the VRF did not come up");
    CommitWatch watch(*table, routes, upstream, host, progress);

    EndToEndResult res;
    res.routes = routes;
    const double rssBefore = residentBytes();
    if (progress) progress(0, routes);
    const auto start = WallClock::now();
    for (std::size_t i = 0; i < routes; ++i) {
        const Routing::Gmp::Tidal::RouteIntfKey key{Routing::Pim::RouteKey::wc(group(i)), host};
        members->membershipIs(key, {key, Routing::Gmp::Tidal::FilterMode::include});
    }
    while (watch.committed() < routes) {
        const auto t0 = WallClock::now();
        const bool ran = loop.runOnce();
        const auto t1 = WallClock::now();
        if (ran) {
            ++res.turns;
            res.longestTurnSeconds = std::max(res.longestTurnSeconds, seconds(t1 - t0));
        } else {
            // Nothing due: jump to the next timer, unless none comes in time.
            const Cask::Seconds next = loop.nextExpiry();
            if (next - joinsAt > virtualLimit) {
                throw std::runtime_error(fmt::format(
                    "the loop {} after {:.1f} s of loop time with only {} of {} groups having a "
                    "(*,G) record from {} to {}",
                    next == Cask::never ? "went idle" : "ran out of time", loop.now() - joinsAt,
                    watch.committed(), routes, upstream.name(), host.name()));
            }
            loop.clock().waitUntil(next);
        }
    }
    res.agentSeconds = seconds(watch.completedAt() - start);
    res.peakRssKiB = peakRssKiB();
    res.rssGrowthBytes = residentBytes() - rssBefore;
    res.virtualSeconds = loop.now() - joinsAt;
    if (progress) progress(routes, routes);

    // The watch saw every record arrive; check the table itself holds them, and keep them for
    // the floor.
    std::vector<TMF::Route> records;
    records.reserve(routes);
    for (std::size_t i = 0; i < routes; ++i) {
        const auto* r =
            table->route(Routing::Multicast::Fib::convertKey(Routing::Pim::RouteKey::wc(group(i))));
        if (!watch.correct(r)) {
            throw std::runtime_error(
                fmt::format("(*, {}) has no correct forwarding record", group(i).str()));
        }
        records.push_back(*r);
    }
    if (table->routeSize() != routes) {
        throw std::runtime_error(
            fmt::format("{} forwarding records for {} groups", table->routeSize(), routes));
    }
    res.floorSeconds = floorSeconds(records);
    res.routesPerSecond = double(routes) / res.agentSeconds;
    res.bytesPerRoute = res.rssGrowthBytes / double(routes);
    res.floorRatio = res.floorSeconds > 0 ? res.agentSeconds / res.floorSeconds : 0;
    return res;
}

nlohmann::ordered_json toJson(const EndToEndResult& r) {
    nlohmann::ordered_json j;
    j["routes"] = r.routes;
    j["routes_per_second"] = r.routesPerSecond;
    j["agent_seconds"] = r.agentSeconds;
    j["peak_rss_kib"] = r.peakRssKiB;
    j["rss_growth_bytes"] = r.rssGrowthBytes;
    j["bytes_per_route"] = r.bytesPerRoute;
    j["longest_turn_seconds"] = r.longestTurnSeconds;
    j["turns"] = r.turns;
    j["virtual_seconds"] = r.virtualSeconds;
    j["floor_seconds"] = r.floorSeconds;
    j["agent_to_floor_ratio"] = r.floorRatio;
    return j;
}

std::string toTable(const EndToEndResult& r) {
    const std::pair<std::string, std::string> rows[] = {
        {"routes (host joins)", fmt::format("{}", r.routes)},
        {"routes/s", fmt::format("{:.0f}", r.routesPerSecond)},
        {"agent time", fmt::format("{:.3f} s", r.agentSeconds)},
        {"peak memory (maxrss)", fmt::format("{:.1f} MiB", double(r.peakRssKiB) / 1024)},
        {"RSS growth", fmt::format("{:.1f} MiB", r.rssGrowthBytes / (1024 * 1024))},
        {"bytes/route", fmt::format("{:.0f}", r.bytesPerRoute)},
        {"longest event-loop turn", fmt::format("{:.3f} ms", r.longestTurnSeconds * 1e3)},
        {"event-loop turns", fmt::format("{}", r.turns)},
        {"loop (virtual) time", fmt::format("{:.3f} s", r.virtualSeconds)},
        {"floor (records into table)", fmt::format("{:.3f} ms", r.floorSeconds * 1e3)},
        {"agent time / floor", fmt::format("{:.1f}x", r.floorRatio)},
    };
    std::string out;
    for (const auto& [name, value] : rows) out += fmt::format("{:<28}{:>16}\n", name, value);
    return out;
}

int endToEndMain(int argc, char** argv) {
    CLI::App app{"N host joins applied at once, run until every group has its forwarding record",
                 "pimsm-bench end-to-end"};
    std::size_t routes = 10000;
    bool json = false;
    app.add_option("--routes", routes, "host joins (one group each) to apply")
        ->check(CLI::Range(std::size_t(1), maxRoutes));
    app.add_flag("--json", json, "print the figures as JSON");
    CLI11_PARSE(app, argc, argv);

    const bool tty = isatty(STDERR_FILENO) == 1;
    Progress progress;
    if (tty) {
        progress = [](std::size_t done, std::size_t total) {
            fmt::print(stderr, "\rcommitted {}/{}", done, total);
            std::fflush(stderr);
        };
    }
    EndToEndResult result;
    try {
        result = runEndToEnd(routes, progress);
    } catch (const std::exception& e) {
        if (tty) fmt::print(stderr, "\n");
        fmt::print(stderr, "end-to-end FAILED: {}\n", e.what());
        return 1;
    }
    if (tty) fmt::print(stderr, "\n");
    fmt::print("{}", json ? toJson(result).dump(2) + "\n" : toTable(result));
    return 0;
}

}  // namespace Bench
