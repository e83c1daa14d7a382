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

#include "alloc_count.h"
#include "cask/trace.h"
#include "driver/scenario.h"
#include "pimsm/route/local_status.h"
#include "pimsm/route/route_review_sm.h"
#include "pimsm/route/status.h"
#include "platform/join_prune.h"
#include "platform/membership.h"
#include "platform/mfib_table.h"
#include "platform/mrt_upcall.h"
#include "scenario_parts.h"

namespace Bench {

namespace {

namespace TMF = ::Tidal::Multicast::Fib;
namespace SM = ::Routing::Pim::SparseMode;

// Groups 239.0.0.1, 239.0.0.2, ...: administratively scoped (RFC 2365), so outside the default
// SSM range and mapped to the static RP.
constexpr std::uint32_t firstGroup = 0xef000001u;
// SSM joins use 232.0.0.1, 232.0.0.2, ... (the default SSM range) and one source, reached like
// the RP through Ethernet2.
constexpr std::uint32_t firstSsmGroup = 0xe8000001u;
constexpr std::string_view ssmSource = "10.99.0.10";
constexpr std::size_t maxRoutes = 0x00ffffffu;  // up to 239.255.255.255 (232.255.255.255)
// The example's join comes at 1 s: by then the VRF is up and the neighbour and RP are known.
constexpr Cask::Seconds joinsAt = 1;
// Loop time after the joins by which every record must be there. Joins, Join/Prune and
// forwarding need no timer longer than a few seconds; this leaves room for a periodic round.
constexpr Cask::Seconds virtualLimit = 300;
constexpr auto progressEvery = std::chrono::milliseconds(500);
constexpr int floorRuns = 3;  // the floor is the best of these

Wirl::IpGenAddr group(std::size_t i, bool ssm = false) {
    return Wirl::IpGenAddr::v4((ssm ? firstSsmGroup : firstGroup) + std::uint32_t(i));
}
// The route key of the i-th join.
Routing::Pim::RouteKey joinKey(std::size_t i, Joins joins) {
    switch (joins) {
        case Joins::ssm:
            return Routing::Pim::RouteKey(addr(ssmSource), group(i, true));
        case Joins::firstPacket:
            return Routing::Pim::RouteKey(addr(ssmSource), group(i));
        default:
            return Routing::Pim::RouteKey::wc(group(i));
    }
}
bool sgJoins(Joins joins) {
    return joins == Joins::ssm || joins == Joins::firstPacket;
}
constexpr std::size_t groupsPerMessage = 100;

// The last-hop router of examples/last-hop.yaml, without its events.
Driver::Scenario lastHopScenario() {
    Driver::VrfSpec v;
    v.name = L3::VrfName::defaultVrf();
    v.rps.push_back({prefix("224.0.0.0/4"), addr("10.0.0.1")});
    v.interfaces.push_back(interfaceSpec("Ethernet1", "10.1.0.1", true));
    v.interfaces.push_back(interfaceSpec("Ethernet2", "10.2.0.1", false));
    v.neighbors.push_back({Wirl::IntfId("Ethernet2"), addr("10.2.0.2")});
    // A downstream router on the host interface, the sender of downstream joins.
    v.neighbors.push_back({Wirl::IntfId("Ethernet1"), addr("10.1.0.2")});
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

// Counts, as records are written, the groups that have a record, and the records written more
// than once (a transient record committed before the final one shows up there). Whether each
// record is the right one is checked once the run is over, outside the timed window, so the
// watch costs the agent's time no table lookup. Progress is reported from here rather than
// between loop turns, since one turn may commit everything.
class CommitWatch : public TMF::Status::Notifiee {
public:
    CommitWatch(TMF::Status& table, std::size_t routes, Wirl::IntfId iif, Wirl::IntfId oif,
                const Progress& progress, Joins joins)
        : Notifiee(&table),
          joins_(joins),
          ssm_(sgJoins(joins)),
          written_(routes, false),
          iif_(iif),
          oif_(oif),
          progress_(progress),
          reported_(WallClock::now()) {}

    std::size_t committed() const { return committed_; }
    std::size_t rewrites() const { return rewrites_; }
    WallClock::time_point completedAt() const { return completedAt_; }

    // Whether `r` comes in on the RP's (or the source's) interface and, but for first-packet
    // records, carries the host interface's bit.
    bool correct(const TMF::Route* r) const {
        if (!r || r->key().wildcard() == ssm_ || r->iif() != iif_) return false;
        if (joins_ == Joins::firstPacket) return true;
        for (auto index : r->oifIteratorConst()) {
            if (notifier()->oifIndexIntf(index).intf == oif_) return true;
        }
        return false;
    }

    void handleRoute(const TMF::IpGenRouteKey& key) override {
        if (key.wildcard() == ssm_ || key.group().family() != Wirl::AddressFamily::ipv4) return;
        const std::size_t i =
            key.group().v4HostOrder() - (joins_ == Joins::ssm ? firstSsmGroup : firstGroup);
        if (i >= written_.size()) return;
        if (written_[i]) {
            ++rewrites_;
            return;
        }
        written_[i] = true;
        if (++committed_ == written_.size()) completedAt_ = WallClock::now();
        if (progress_ && ++sinceCheck_ == checkEvery) {
            sinceCheck_ = 0;
            const auto now = WallClock::now();
            if (now - reported_ >= progressEvery) {
                progress_(committed_, written_.size());
                reported_ = now;
            }
        }
    }

private:
    Joins joins_;
    bool ssm_;  // (S,G) records are counted
    std::vector<bool> written_;
    std::size_t committed_ = 0;
    std::size_t rewrites_ = 0;
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

// What the agent's own records of N routes weigh on the heap: the same records built alone,
// one kind after the other, each measured as the heap growth it caused. The rest of the agent's
// heap is the machines' per-route state (reactors, watchers, queues, Join/Prune contents).
std::vector<HeapShare> heapShares(std::size_t routes, const std::vector<TMF::Route>& records,
                                  double agentBytes, Joins joins) {
    std::vector<HeapShare> out;
    const double n = double(routes);
    double accounted = 0;
    auto share = [&](std::string what, double before) {
        const double perRoute = (heapBytes() - before) / n;
        accounted += perRoute;
        out.push_back({std::move(what), perRoute});
    };
    const Wirl::IntfId host("Ethernet1");
    {
        Cask::VirtualClock clock;
        auto ls = SM::localStatusFactory(Wirl::AddressFamily::ipv4);
        auto status = Cask::make<SM::Status>(clock, SM::RouteContext{nullptr, ls.get()});
        auto key = [joins](std::size_t i) { return joinKey(i, joins); };
        double h = heapBytes();
        for (std::size_t i = 0; i < routes; ++i) status->routeIs(key(i));
        share("route records and route status", h);
        h = heapBytes();
        for (std::size_t i = 0; i < routes; ++i) status->route(key(i))->routeIntfIs(host);
        share("interface records", h);
        h = heapBytes();
        for (std::size_t i = 0; i < routes; ++i) {
            if (sgJoins(joins)) {
                ls->sgRouteIs(key(i), status->route(key(i)));
            } else {
                ls->wcRouteIs(key(i), status->route(key(i)));
            }
        }
        share("route index", h);
        out.back().what = "route index ((*,G) or (S,G))";
        h = heapBytes();
        for (std::size_t i = 0; i < routes; ++i) status->groupIs(key(i).group());
        share("routes-per-group index", h);
    }
    {
        auto table = Cask::make<TMF::Status>();
        const double h = heapBytes();
        for (const auto& r : records) table->routeIs(r);
        share("forwarding records", h);
    }
    out.push_back({"machines (the rest)", agentBytes / n - accounted});
    return out;
}

}  // namespace

const char* joinsName(Joins j) {
    switch (j) {
        case Joins::membership:
            return "(*,G)";
        case Joins::ssm:
            return "SSM (S,G)";
        case Joins::downstream:
            return "downstream (*,G)";
        case Joins::firstPacket:
            return "first packet";
    }
    return "?";
}

namespace {

// The downstream neighbour's Join(*,G) for every group, `groupsPerMessage` to a message.
std::vector<Routing::Pim::JoinPruneMessage> downstreamMessages(std::size_t routes) {
    std::vector<Routing::Pim::JoinPruneMessage> out;
    for (std::size_t first = 0; first < routes; first += groupsPerMessage) {
        Routing::Pim::JoinPruneMessage m;
        m.sender = addr("10.1.0.2");
        m.intf = Wirl::IntfId("Ethernet1");
        m.upstreamNeighbor = addr("10.1.0.1");
        for (std::size_t i = first; i < std::min(routes, first + groupsPerMessage); ++i) {
            m.data->joinPruneGroupDataIs(group(i)).wcSourceDataIs(addr("10.0.0.1"), true);
        }
        out.push_back(std::move(m));
    }
    return out;
}

// What a turn may take: the reviews' time quantum, plus 5 ms for the item that ends past it.
constexpr double turnBudget = Routing::Pim::SparseMode::RouteReviewSm::defaultReviewQuantum + 0.005;

// Runs the loop until `done()` holds, jumping over idle time; counts the turns that did
// something and their longest wall time. Throws when the loop goes idle or past the limit first.
template <class Done, class Stuck>
void runLoop(Cask::EventLoop& loop, Cask::Seconds since, EndToEndResult& res, double& longest,
             Done&& done, Stuck&& stuck) {
    while (!done()) {
        const auto t0 = WallClock::now();
        const bool ran = loop.runOnce();
        const auto t1 = WallClock::now();
        if (ran) {
            ++res.turns;
            longest = std::max(longest, seconds(t1 - t0));
            if (seconds(t1 - t0) > turnBudget) ++res.turnsOverBudget;
            continue;
        }
        // Nothing due: jump to the next timer, unless none comes in time.
        const Cask::Seconds next = loop.nextExpiry();
        if (next - since > virtualLimit) throw std::runtime_error(stuck(next));
        loop.clock().waitUntil(next);
    }
}

}  // namespace

EndToEndResult runEndToEnd(std::size_t routes, bool realTime, const Progress& progress, Joins joins,
                           bool sized) {
    if (routes == 0 || routes > maxRoutes) {
        throw std::invalid_argument(fmt::format("routes must be 1 to {}", maxRoutes));
    }
    const Wirl::IntfId host("Ethernet1");
    const Wirl::IntfId upstream("Ethernet2");
    const double heapStart = heapBytes();
    BenchVrf bench(lastHopScenario(), realTime ? BenchVrf::Clock::skipping : BenchVrf::Clock::loop,
                   sized ? routes : 0);
    bench.open(joinsAt);
    const double heapOpened = heapBytes();
    auto& loop = bench.loop;
    auto& table = bench.table;
    auto& members = bench.members;
    auto& upcalls = bench.upcalls;
    auto* container = bench.container;
    CommitWatch watch(*table, routes, upstream, host, progress, joins);
    const auto messages =
        joins == Joins::downstream ? downstreamMessages(routes) : decltype(downstreamMessages(0)){};

    EndToEndResult res;
    res.routes = routes;
    res.realTime = realTime;
    res.joins = joins;
    res.maxRoutes = sized ? routes : 0;
    const double rssBefore = residentBytes();
    const double heapBefore = heapBytes();
    res.startupHeapBytes = heapOpened - heapStart;
    if (progress) progress(0, routes);
    const auto start = WallClock::now();
    switch (joins) {
        case Joins::membership:
        case Joins::ssm:
            for (std::size_t i = 0; i < routes; ++i) {
                const Routing::Gmp::Tidal::RouteIntfKey key{joinKey(i, joins), host};
                members->membershipIs(key, {key, Routing::Gmp::Tidal::FilterMode::include});
            }
            break;
        case Joins::downstream:
            for (const auto& m : messages) container->rxJoinPrune()->messageReceived(m);
            break;
        case Joins::firstPacket:
            for (std::size_t i = 0; i < routes; ++i) {
                upcalls->upcallPush(
                    {Routing::Pim::MrtUpcall::Kind::noCache, joinKey(i, joins), 0, upstream});
            }
            break;
    }
    const double heapMembers = heapBytes();
    runLoop(
        loop, joinsAt, res, res.longestTurnSeconds, [&] { return watch.committed() >= routes; },
        [&](Cask::Seconds next) {
            return fmt::format(
                "the loop {} after {:.1f} s of loop time with only {} of {} groups having a "
                "{} record from {} to {}",
                next == Cask::never ? "went idle" : "ran out of time", loop.now() - joinsAt,
                watch.committed(), routes, sgJoins(joins) ? "(S,G)" : "(*,G)", upstream.name(),
                host.name());
        });
    res.agentSeconds = seconds(watch.completedAt() - start);
    res.rewrittenRecords = watch.rewrites();
    const double heapDone = heapBytes();
    res.peakRssKiB = peakRssKiB();
    res.rssGrowthBytes = residentBytes() - rssBefore;
    // Memberships stay in their table; messages and upcalls are consumed (and an upcall is
    // handled as it is pushed), so for those the whole growth is the agent's.
    const bool inputKept = joins == Joins::membership || joins == Joins::ssm;
    const double heapInput = inputKept ? heapMembers : heapBefore;
    res.heapMembershipPerRoute = (heapInput - heapBefore) / double(routes);
    res.heapAgentPerRoute = (heapDone - heapInput) / double(routes);
    res.virtualSeconds = loop.now() - joinsAt;
    if (progress) progress(routes, routes);

    if (joins == Joins::downstream) {
        // The neighbour restarts and sends everything again: absorbed once no work is due
        // within a second of loop time (only periodic timers remain).
        const Cask::Seconds resentAt = loop.now();
        const auto t0 = WallClock::now();
        for (const auto& m : messages) container->rxJoinPrune()->messageReceived(m);
        runLoop(
            loop, resentAt, res, res.resendLongestTurnSeconds,
            [&] { return loop.nextExpiry() > loop.now() + 1; },
            [&](Cask::Seconds) { return std::string("the resent joins were never absorbed"); });
        res.resendSeconds = seconds(WallClock::now() - t0);
        // Joins the agent already holds change no record: each one is checked below.
        if (watch.rewrites() != res.rewrittenRecords) {
            throw std::runtime_error(fmt::format("the resend rewrote {} forwarding records",
                                                 watch.rewrites() - res.rewrittenRecords));
        }
    }

    // The watch saw every record arrive; check the table itself holds them, and keep them for
    // the floor.
    std::vector<TMF::Route> records;
    records.reserve(routes);
    for (std::size_t i = 0; i < routes; ++i) {
        const auto* r = table->route(Routing::Multicast::Fib::convertKey(joinKey(i, joins)));
        if (!watch.correct(r)) {
            throw std::runtime_error(
                fmt::format("{} has no correct forwarding record", joinKey(i, joins)));
        }
        records.push_back(*r);
    }
    if (table->routeSize() != routes) {
        throw std::runtime_error(
            fmt::format("{} forwarding records for {} groups", table->routeSize(), routes));
    }
    res.floorSeconds = floorSeconds(records);
    res.heapBreakdown = heapShares(routes, records, heapDone - heapInput, joins);
    res.routesPerSecond = double(routes) / res.agentSeconds;
    res.bytesPerRoute = res.rssGrowthBytes / double(routes);
    res.floorRatio = res.floorSeconds > 0 ? res.agentSeconds / res.floorSeconds : 0;
    return res;
}

nlohmann::ordered_json toJson(const EndToEndResult& r) {
    nlohmann::ordered_json j;
    j["routes"] = r.routes;
    j["real_time"] = r.realTime;
    const char* const joinsKey[] = {"any-source-wc", "ssm-sg", "downstream-wc", "first-packet"};
    j["joins"] = joinsKey[int(r.joins)];
    j["max_routes"] = r.maxRoutes;
    j["startup_heap_bytes"] = r.startupHeapBytes;
    j["routes_per_second"] = r.routesPerSecond;
    j["agent_seconds"] = r.agentSeconds;
    j["peak_rss_kib"] = r.peakRssKiB;
    j["rss_growth_bytes"] = r.rssGrowthBytes;
    j["bytes_per_route"] = r.bytesPerRoute;
    j["heap_membership_bytes_per_route"] = r.heapMembershipPerRoute;
    j["heap_agent_bytes_per_route"] = r.heapAgentPerRoute;
    auto& shares = j["heap_agent_breakdown"];
    shares = nlohmann::ordered_json::object();
    for (const auto& s : r.heapBreakdown) shares[s.what] = s.bytesPerRoute;
    j["longest_turn_seconds"] = r.longestTurnSeconds;
    j["turns"] = r.turns;
    j["turns_over_budget"] = r.turnsOverBudget;
    j["turn_budget_seconds"] = turnBudget;
    j["virtual_seconds"] = r.virtualSeconds;
    j["floor_seconds"] = r.floorSeconds;
    j["records_rewritten"] = r.rewrittenRecords;
    j["agent_to_floor_ratio"] = r.floorRatio;
    if (r.joins == Joins::downstream) {
        j["resend_seconds"] = r.resendSeconds;
        j["resend_longest_turn_seconds"] = r.resendLongestTurnSeconds;
    }
    return j;
}

std::string toTable(const std::vector<EndToEndResult>& results) {
    using Row = std::pair<std::string, std::function<std::string(const EndToEndResult&)>>;
    std::vector<Row> rows = {
        {"routes (host joins)", [](auto& r) { return fmt::format("{}", r.routes); }},
        {"joins", [](auto& r) { return std::string(joinsName(r.joins)); }},
        {"clock", [](auto& r) { return std::string(r.realTime ? "real" : "virtual"); }},
        {"maxRoutes (indexes sized at start)",
         [](auto& r) {
             return r.maxRoutes ? fmt::format("{}", r.maxRoutes) : std::string("none");
         }},
        {"routes/s", [](auto& r) { return fmt::format("{:.0f}", r.routesPerSecond); }},
        {"agent time", [](auto& r) { return fmt::format("{:.3f} s", r.agentSeconds); }},
        {"floor (records into table)",
         [](auto& r) { return fmt::format("{:.3f} ms", r.floorSeconds * 1e3); }},
        {"agent time / floor", [](auto& r) { return fmt::format("{:.1f}x", r.floorRatio); }},
        {"records written more than once",
         [](auto& r) { return fmt::format("{}", r.rewrittenRecords); }},
    };
    if (results.size() > 1) {
        // Against the first run of the same kind of join.
        rows.push_back({"routes/s, first / this", [&results](auto& r) {
                            for (const auto& first : results) {
                                if (first.joins == r.joins)
                                    return fmt::format("{:.2f}x",
                                                       first.routesPerSecond / r.routesPerSecond);
                            }
                            return std::string("-");
                        }});
    }
    const std::vector<Row> rest = {
        {"peak memory (maxrss)",
         [](auto& r) { return fmt::format("{:.1f} MiB", double(r.peakRssKiB) / 1024); }},
        {"RSS growth",
         [](auto& r) { return fmt::format("{:.1f} MiB", r.rssGrowthBytes / (1024 * 1024)); }},
        {"bytes/route (RSS)", [](auto& r) { return fmt::format("{:.0f}", r.bytesPerRoute); }},
        {"heap at start-up, per route",
         [](auto& r) { return fmt::format("{:.0f}", r.startupHeapBytes / double(r.routes)); }},
        {"heap bytes/route, agent",
         [](auto& r) { return fmt::format("{:.0f}", r.heapAgentPerRoute); }},
        {"heap bytes/route, membership",
         [](auto& r) { return fmt::format("{:.0f}", r.heapMembershipPerRoute); }},
    };
    rows.insert(rows.end(), rest.begin(), rest.end());
    if (!results.empty()) {
        for (std::size_t k = 0; k < results.front().heapBreakdown.size(); ++k) {
            rows.push_back({"  " + results.front().heapBreakdown[k].what, [k](auto& r) {
                                return k < r.heapBreakdown.size()
                                           ? fmt::format("{:.0f}", r.heapBreakdown[k].bytesPerRoute)
                                           : std::string("-");
                            }});
        }
    }
    const std::vector<Row> loopRows = {
        {"longest event-loop turn",
         [](auto& r) { return fmt::format("{:.3f} ms", r.longestTurnSeconds * 1e3); }},
        {"event-loop turns", [](auto& r) { return fmt::format("{}", r.turns); }},
        {"turns over the quantum + 5 ms",
         [](auto& r) { return fmt::format("{}", r.turnsOverBudget); }},
        {"loop time", [](auto& r) { return fmt::format("{:.3f} s", r.virtualSeconds); }},
        {"neighbour resend absorbed in",
         [](auto& r) {
             return r.joins == Joins::downstream ? fmt::format("{:.3f} s", r.resendSeconds)
                                                 : std::string("-");
         }},
        {"longest turn during resend",
         [](auto& r) {
             return r.joins == Joins::downstream
                        ? fmt::format("{:.3f} ms", r.resendLongestTurnSeconds * 1e3)
                        : std::string("-");
         }},
    };
    rows.insert(rows.end(), loopRows.begin(), loopRows.end());
    std::size_t nameWidth = 0;
    for (const auto& [name, value] : rows) nameWidth = std::max(nameWidth, name.size());
    std::string out;
    for (const auto& [name, value] : rows) {
        out += fmt::format("{:<{}}", name, nameWidth + 2);
        for (const auto& r : results) out += fmt::format("{:>18}", value(r));
        out += '\n';
    }
    return out;
}

int endToEndMain(int argc, char** argv) {
    CLI::App app{"N host joins applied at once, run until every group has its forwarding record",
                 "pimsm-bench end-to-end"};
    std::vector<std::size_t> routes{10000};
    bool json = false;
    bool realTime = false;
    app.add_option("--routes", routes,
                   "host joins (one group each) to apply; several values run one after the other")
        ->check(CLI::Range(std::size_t(1), maxRoutes));
    app.add_flag("--real-time", realTime,
                 "run the loop on the steady clock (idle waits skipped), so reviews slice their "
                 "work as in a real run");
    bool ssm = false;
    bool downstream = false;
    bool firstPacket = false;
    app.add_flag("--ssm", ssm,
                 "also run SSM (S,G) include joins toward one source, each beside the (*,G) run "
                 "of the same size");
    app.add_flag("--downstream", downstream,
                 "also run Join(*,G) from a downstream neighbour (100 groups a message) and its "
                 "full resend after a restart, beside the (*,G) run");
    app.add_flag("--first-packet", firstPacket,
                 "also run one source's first packet to each group (cache misses), beside the "
                 "(*,G) run");
    bool sized = false;
    app.add_flag("--sized", sized,
                 "run the agent with its route limit (maxRoutes) set to the number of joins, so "
                 "it sizes its route indexes at start-up instead of growing them");
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
    std::vector<EndToEndResult> results;
    for (const std::size_t n : routes) {
        try {
            results.push_back(runEndToEnd(n, realTime, progress, Joins::membership, sized));
            if (ssm) results.push_back(runEndToEnd(n, realTime, progress, Joins::ssm, sized));
            if (downstream) {
                results.push_back(runEndToEnd(n, realTime, progress, Joins::downstream, sized));
            }
            if (firstPacket) {
                results.push_back(runEndToEnd(n, realTime, progress, Joins::firstPacket, sized));
            }
        } catch (const std::exception& e) {
            if (tty) fmt::print(stderr, "\n");
            fmt::print(stderr, "end-to-end FAILED: {}\n", e.what());
            return 1;
        }
        if (tty) fmt::print(stderr, "\n");
    }
    if (json) {
        auto out = nlohmann::ordered_json::array();
        for (const auto& r : results) out.push_back(toJson(r));
        fmt::print("{}\n", (results.size() == 1 ? out.front() : out).dump(2));
    } else {
        fmt::print("{}", toTable(results));
    }
    return 0;
}

}  // namespace Bench
