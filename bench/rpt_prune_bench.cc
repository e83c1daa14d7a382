#include "rpt_prune_bench.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <absl/container/flat_hash_map.h>
#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "alloc_count.h"
#include "cask/reactor_map.h"
#include "cask/trace.h"
#include "driver/scenario.h"
#include "pimsm/route/status.h"
#include "pimsm/upstream/upstream_sg_rpt_sm.h"
#include "platform/join_prune.h"
#include "platform/mfib_table.h"
#include "platform/mrt_upcall.h"
#include "scenario_parts.h"

namespace Bench {

namespace {

namespace SM = ::Routing::Pim::SparseMode;
using Routing::Pim::RouteKey;

// Sources 10.128.0.1, 10.128.0.2, ...: all inside 10.128.0.0/9, reached through Ethernet3.
constexpr std::uint32_t firstSource = 0x0a800001u;
constexpr std::size_t maxSources = 0x007ffffeu;
constexpr std::size_t defaultSources = 100000;
// The host's join comes at 1 s, once the VRF, its neighbours and the RP are known.
constexpr Cask::Seconds joinAt = 1;
// Loop time a phase may take. Joins, prunes and forwarding need no timer longer than a few
// seconds; this leaves room for a periodic round.
constexpr Cask::Seconds virtualLimit = 300;
constexpr int floorRuns = 3;

// RFC 7761 4.9.5 with IPv4 addresses: an encoded group (8 bytes) and the two 16-bit source counts
// per group; an encoded source is 8 bytes. A message carries a 20-byte IP header, the 4-byte PIM
// header, the encoded upstream neighbour (6), a reserved byte, the group count (1) and the hold
// time (2).
constexpr std::size_t groupHeaderBytes = 8 + 2 + 2;
constexpr std::size_t encodedSourceBytes = 8;
constexpr std::size_t messageOverheadBytes = 20 + 4 + 6 + 1 + 1 + 2;

Wirl::IpGenAddr source(std::size_t i) {
    return Wirl::IpGenAddr::v4(firstSource + std::uint32_t(i));
}
const Wirl::IntfId host("Ethernet1");
const Wirl::IntfId rpSide("Ethernet2");
const Wirl::IntfId sourceSide("Ethernet3");

// The router of examples/spt-prune-shared-tree.yaml, its sources widened to a /9.
Driver::Scenario lastHopScenario() {
    Driver::VrfSpec v;
    v.name = L3::VrfName::defaultVrf();
    v.rps.push_back({prefix("224.0.0.0/4"), addr("10.0.0.1")});
    v.interfaces.push_back(interfaceSpec("Ethernet1", "10.1.0.1", true));
    v.interfaces.push_back(interfaceSpec("Ethernet2", "10.2.0.1", false));
    v.interfaces.push_back(interfaceSpec("Ethernet3", "10.3.0.1", false));
    v.neighbors.push_back({rpSide, addr("10.2.0.2")});
    v.neighbors.push_back({sourceSide, addr("10.3.0.2")});
    v.routes.push_back({prefix("10.0.0.0/24"), rpSide, addr("10.2.0.2")});
    v.routes.push_back({prefix("10.128.0.0/9"), sourceSide, addr("10.3.0.2")});
    Driver::Scenario s;
    s.file = "rpt-prune";
    s.family = Wirl::AddressFamily::ipv4;
    s.vrfs.push_back(std::move(v));
    return s;
}

// Packets a group's message needs at a given MTU when every packet repeats the group header and
// the (*,G) Join beside its share of the prunes.
std::size_t packetsFor(std::size_t mtu, std::size_t prunes) {
    const std::size_t perPacket =
        (mtu - messageOverheadBytes - groupHeaderBytes) / encodedSourceBytes - 1;
    return prunes == 0 ? 1 : (prunes + perPacket - 1) / perPacket;
}

// The bare cost of the output: N prunes written into a fresh group record's (S,G,rpt) source set,
// best of `floorRuns`; also what one entry keeps on the heap.
std::pair<double, double> floorOf(std::size_t n, const Wirl::IpGenAddr& group) {
    double best = 0;
    double bytes = 0;
    for (int run = 0; run < floorRuns; ++run) {
        const double h = heapBytes();
        auto gd = Cask::make<Routing::Pim::JoinPruneGroupData>(group);
        const auto t0 = WallClock::now();
        for (std::size_t i = 0; i < n; ++i) gd->prunedRptSourceIs(source(i));
        const double s = seconds(WallClock::now() - t0);
        if (gd->prunedRptSourceSize() != n) throw std::runtime_error("floor: prunes lost");
        bytes = (heapBytes() - h) / double(n);
        best = run == 0 ? s : std::min(best, s);
    }
    return {best, bytes};
}

// Heap bytes per entry of the machine's map of where each periodic Prune stands, built alone
// with the same key and value types.
double prevRpBytesPerEntry(std::size_t n, const Wirl::IpGenAddr& group) {
    struct KeyHash {
        std::size_t operator()(const RouteKey& k) const { return k.hash(); }
    };
    const double h = heapBytes();
    absl::flat_hash_map<RouteKey, Routing::Pim::NeighborKey, KeyHash> m;
    const Routing::Pim::NeighborKey nbr{rpSide, addr("10.2.0.2")};
    for (std::size_t i = 0; i < n; ++i) m.emplace(RouteKey(source(i), group), nbr);
    return (heapBytes() - h) / double(n);
}

// Runs loop turns until `done`, jumping the virtual clock to the next timer when nothing is due.
// `afterTurn` stands in for the packet side, before each check of `done`; its time is returned
// apart.
template <class Done, class AfterTurn>
double runPhase(Cask::EventLoop& loop, const char* phase, RptPruneResult* res, Done&& done,
                AfterTurn&& afterTurn) {
    const Cask::Seconds since = loop.now();
    double packetSideSeconds = 0;
    for (;;) {
        // Work done before the first turn (records written from outside are handled as they
        // are written) may already have queued messages.
        const auto t0 = WallClock::now();
        afterTurn();
        packetSideSeconds += seconds(WallClock::now() - t0);
        if (done()) break;
        const auto t1 = WallClock::now();
        const bool ran = loop.runOnce();
        const auto t2 = WallClock::now();
        if (ran) {
            if (res) {
                ++res->turns;
                res->longestTurnSeconds = std::max(res->longestTurnSeconds, seconds(t2 - t1));
            }
            continue;
        }
        const Cask::Seconds next = loop.nextExpiry();
        if (next - since > virtualLimit) {
            throw std::runtime_error(fmt::format(
                "{}: the loop {} after {:.1f} s of loop time", phase,
                next == Cask::never ? "went idle" : "ran out of time", loop.now() - since));
        }
        loop.clock().waitUntil(next);
    }
    return packetSideSeconds;
}

}  // namespace

RptPruneResult runRptPrune(std::size_t n) {
    if (n == 0 || n > maxSources) {
        throw std::invalid_argument(fmt::format("sources must be 1 to {}", maxSources));
    }
    const auto group = addr("239.1.1.1");
    BenchVrf bench(lastHopScenario(), BenchVrf::Clock::loop);
    auto& loop = bench.loop;
    auto config = bench.runner.db().config(bench.vrf);
    if (!config) throw std::runtime_error("the VRF has no configuration");
    config->drSwitchIs(SM::Config::DrSwitchThresh::immediate);
    bench.open(joinAt, [](SM::ContainerSm& c) {
        return c.joinPruneStatus() && c.upstreamSgRptSm() && c.status();
    });
    auto& fib = bench.table;
    auto& members = bench.members;
    auto& upcalls = bench.upcalls;
    auto* c = bench.container;
    auto* jp = c->joinPruneStatus();
    auto* rptSm = c->upstreamSgRptSm();
    auto* toRp = jp->neighbor(rpSide, addr("10.2.0.2"));
    auto* toSources = jp->neighbor(sourceSide, addr("10.3.0.2"));
    if (!toRp || !toSources) throw std::runtime_error("no Join/Prune entry for a neighbour");
    auto periodicGroup = [group](const Routing::Pim::JoinPruneNeighbor* nbr) {
        return nbr->periodic().joinPruneGroupData(group);
    };

    // The host's membership: the (*,G) Join to 10.2.0.2.
    const Routing::Gmp::Tidal::RouteIntfKey member{RouteKey::wc(group), host};
    members->membershipIs(member, {member, Routing::Gmp::Tidal::FilterMode::include});
    auto sendTriggered = [&] {
        for (const auto& [key, nbr] : jp->neighbor()) nbr->triggeredSent();
    };
    runPhase(
        loop, "the (*,G) join", nullptr,
        [&] {
            const auto* gd = periodicGroup(toRp);
            return gd && gd->wcSourceData(addr("10.0.0.1")).join;
        },
        sendTriggered);

    RptPruneResult res;
    res.sources = n;
    const double heapStart = heapBytes();

    // Setup: a first packet from each source down the shared tree.
    const auto setupStart = WallClock::now();
    for (std::size_t i = 0; i < n; ++i) {
        upcalls->upcallPush(
            {Routing::Pim::MrtUpcall::Kind::noCache, RouteKey(source(i), group), 0, rpSide});
    }
    const double setupPacketSide = runPhase(
        loop, "joining the source trees", nullptr,
        [&] {
            // Each route joined, and its forwarding record (with the (*,G) one) written.
            const auto* gd = periodicGroup(toSources);
            return gd && gd->joinedSourceSize() == n && fib->routeSize() == n + 1;
        },
        sendTriggered);
    res.setupSeconds = seconds(WallClock::now() - setupStart) - setupPacketSide;
    const double heapSetup = heapBytes();

    // Measured: packets from each source on Ethernet3, reported as the driver's `data` event
    // does: a wrong-interface report while the forwarding record takes the source from another
    // interface, a packet count otherwise (the record already takes it from Ethernet3 once the
    // route has joined the source tree).
    std::vector<bool> triggered(n, false);
    auto sendAndCount = [&] {
        if (const auto* gd = toRp->pendingTriggered().joinPruneGroupData(group)) {
            if (gd->prunedRptSourceSize()) ++res.triggeredMessages;
            for (const auto& s : gd->prunedRptSource()) {
                const std::size_t i = s.v4HostOrder() - firstSource;
                if (i < n && !triggered[i]) {
                    triggered[i] = true;
                    ++res.triggeredPrunes;
                }
            }
        }
        sendTriggered();
    };
    using Kind = Routing::Pim::MrtUpcall::Kind;
    const auto pruneStart = WallClock::now();
    for (std::size_t i = 0; i < n; ++i) {
        const RouteKey key(source(i), group);
        const auto* record = fib->route(Routing::Multicast::Fib::convertKey(key));
        if (!record) throw std::runtime_error(fmt::format("{} has no forwarding record", key));
        const auto t0 = WallClock::now();
        if (record->iif() != sourceSide) {
            upcalls->upcallPush({Kind::wrongVif, key, 0, sourceSide});
            ++res.wrongVifReports;
        } else {
            upcalls->activityIs(key, upcalls->activity(key) + 1);
            ++res.activityReports;
        }
        res.longestReportSeconds =
            std::max(res.longestReportSeconds, seconds(WallClock::now() - t0));
    }
    const double prunePacketSide = runPhase(
        loop, "pruning off the shared tree", &res,
        [&] {
            const auto* gd = periodicGroup(toRp);
            return gd && gd->prunedRptSourceSize() == n;
        },
        sendAndCount);
    res.pruneSeconds = seconds(WallClock::now() - pruneStart) - prunePacketSide;
    const double heapDone = heapBytes();

    // The end state, source by source.
    const auto* periodic = periodicGroup(toRp);
    for (std::size_t i = 0; i < n; ++i) {
        const RouteKey key(source(i), group);
        const auto route = c->status()->route(key);
        if (!route || !route->spTree() ||
            route->umh()->upRptState() != SM::UpRptState::upRptPruned) {
            throw std::runtime_error(fmt::format("{} is not pruned off the shared tree", key));
        }
        if (!periodic->prunedRptSourceHas(source(i))) {
            throw std::runtime_error(fmt::format("{} has no periodic Prune(S,G,rpt)", key));
        }
    }
    if (res.triggeredPrunes != n) {
        throw std::runtime_error(
            fmt::format("{} triggered Prune(S,G,rpt) sent for {} sources", res.triggeredPrunes, n));
    }
    if (!periodic->wcSourceData(addr("10.0.0.1")).join) {
        throw std::runtime_error("the periodic message lost its (*,G) Join");
    }

    // The periodic message of the group.
    for (const auto& [rp, wc] : periodic->wcSourceData()) {
        if (wc.join) {
            ++res.periodicJoins;
        } else {
            ++res.periodicPrunes;
        }
    }
    res.periodicJoins += periodic->joinedSourceSize() + periodic->joinedRptSourceSize();
    res.periodicPrunes += periodic->prunedSourceSize() + periodic->prunedRptSourceSize();
    res.periodicBytes =
        groupHeaderBytes + encodedSourceBytes * (res.periodicJoins + res.periodicPrunes);
    res.packets9000 = packetsFor(9000, periodic->prunedRptSourceSize());
    res.packets1500 = packetsFor(1500, periodic->prunedRptSourceSize());

    // Heap.
    const double dn = double(n);
    res.heapAgentPerRoute = (heapDone - heapStart) / dn;
    res.heapSetupPerRoute = (heapSetup - heapStart) / dn;
    res.heapPruneGrowthPerRoute = (heapDone - heapSetup) / dn;
    using RhoPool = Cask::ReactorPool<SM::UpstreamSgRptSm::RhoRoute>;
    const auto& pool = RhoPool::instance();
    res.heapRptReactorsPerRoute =
        (double(pool.chunks() * RhoPool::blockSize * RhoPool::blocksPerChunk) +
         double(rptSm->routeMap().indexFootprint())) /
        dn;
    const auto [floorSeconds, bytesPerPrune] = floorOf(n, group);
    res.floorSeconds = floorSeconds;
    res.heapPeriodicPrunePerRoute = bytesPerPrune;
    res.heapRptPrevRpPerRoute = prevRpBytesPerEntry(n, group);
    std::size_t sentCopy = 0;
    if (const auto* gd = toRp->sentTriggered().joinPruneGroupData(group)) {
        sentCopy = gd->prunedRptSourceSize();
    }
    res.heapSentTriggeredPerRoute = double(sentCopy) * bytesPerPrune / dn;
    res.heapRptMachinePerRoute =
        res.heapRptReactorsPerRoute + res.heapRptPrevRpPerRoute + res.heapPeriodicPrunePerRoute;
    res.prunesPerSecond = dn / res.pruneSeconds;
    res.floorRatio = res.floorSeconds > 0 ? res.pruneSeconds / res.floorSeconds : 0;
    return res;
}

nlohmann::ordered_json toJson(const RptPruneResult& r) {
    nlohmann::ordered_json j;
    j["sources"] = r.sources;
    j["setup_seconds"] = r.setupSeconds;
    j["prune_seconds"] = r.pruneSeconds;
    j["prunes_per_second"] = r.prunesPerSecond;
    j["floor_seconds"] = r.floorSeconds;
    j["prune_to_floor_ratio"] = r.floorRatio;
    j["longest_turn_seconds"] = r.longestTurnSeconds;
    j["longest_report_seconds"] = r.longestReportSeconds;
    j["wrong_vif_reports"] = r.wrongVifReports;
    j["activity_reports"] = r.activityReports;
    j["turns"] = r.turns;
    j["triggered_prunes"] = r.triggeredPrunes;
    j["triggered_messages"] = r.triggeredMessages;
    j["periodic_joins"] = r.periodicJoins;
    j["periodic_prunes"] = r.periodicPrunes;
    j["periodic_group_bytes"] = r.periodicBytes;
    j["periodic_packets_9000"] = r.packets9000;
    j["periodic_packets_1500"] = r.packets1500;
    auto& heap = j["heap_bytes_per_route"];
    heap["agent"] = r.heapAgentPerRoute;
    heap["setup"] = r.heapSetupPerRoute;
    heap["prune_growth"] = r.heapPruneGrowthPerRoute;
    heap["rpt_machine"] = r.heapRptMachinePerRoute;
    heap["rpt_reactors"] = r.heapRptReactorsPerRoute;
    heap["rpt_prev_rp"] = r.heapRptPrevRpPerRoute;
    heap["periodic_prune"] = r.heapPeriodicPrunePerRoute;
    heap["sent_triggered_copy"] = r.heapSentTriggeredPerRoute;
    return j;
}

std::string toText(const RptPruneResult& r) {
    const std::pair<std::string, std::string> rows[] = {
        {"sources", fmt::format("{}", r.sources)},
        {"setup (first packets, source trees joined)", fmt::format("{:.3f} s", r.setupSeconds)},
        {"prune phase", fmt::format("{:.3f} s", r.pruneSeconds)},
        {"(S,G,rpt) prunes/s", fmt::format("{:.0f}", r.prunesPerSecond)},
        {"floor (prunes into a source set, best of 3)",
         fmt::format("{:.3f} ms", r.floorSeconds * 1e3)},
        {"prune phase / floor", fmt::format("{:.1f}x", r.floorRatio)},
        {"longest event-loop turn", fmt::format("{:.3f} ms", r.longestTurnSeconds * 1e3)},
        {"longest packet report", fmt::format("{:.3f} ms", r.longestReportSeconds * 1e3)},
        {"packet reports (wrong interface / count)",
         fmt::format("{} / {}", r.wrongVifReports, r.activityReports)},
        {"event-loop turns", fmt::format("{}", r.turns)},
        {"triggered Prune(S,G,rpt) sent",
         fmt::format("{} in {} messages", r.triggeredPrunes, r.triggeredMessages)},
        {"periodic message for the group",
         fmt::format("{} joins, {} prunes, {} bytes", r.periodicJoins, r.periodicPrunes,
                     r.periodicBytes)},
        {"  packets at MTU 9000 / 1500", fmt::format("{} / {}", r.packets9000, r.packets1500)},
        {"heap bytes/route, agent", fmt::format("{:.0f}", r.heapAgentPerRoute)},
        {"  setup (routes joined to the source tree)", fmt::format("{:.0f}", r.heapSetupPerRoute)},
        {"  growth of the prune phase", fmt::format("{:.0f}", r.heapPruneGrowthPerRoute)},
        {"  (S,G,rpt) machine", fmt::format("{:.0f}", r.heapRptMachinePerRoute)},
        {"    reactors and index", fmt::format("{:.0f}", r.heapRptReactorsPerRoute)},
        {"    periodic Prune position", fmt::format("{:.0f}", r.heapRptPrevRpPerRoute)},
        {"    periodic Prune entry", fmt::format("{:.0f}", r.heapPeriodicPrunePerRoute)},
        {"  last triggered message (display copy)",
         fmt::format("{:.0f}", r.heapSentTriggeredPerRoute)},
    };
    std::size_t width = 0;
    std::size_t valueWidth = 0;
    for (const auto& [name, value] : rows) {
        width = std::max(width, name.size());
        valueWidth = std::max(valueWidth, value.size());
    }
    std::string out;
    for (const auto& [name, value] : rows) {
        out += fmt::format("{:<{}}{:>{}}\n", name, width + 2, value, valueWidth);
    }
    return out;
}

int rptPruneMain(int argc, char** argv) {
    CLI::App app{"N sources pruned off one group's shared tree once their source tree delivers",
                 "pimsm-bench rpt-prune"};
    std::size_t sources = defaultSources;
    bool json = false;
    app.add_option("--sources", sources, "sources sending to the group")
        ->check(CLI::Range(std::size_t(1), maxSources));
    app.add_flag("--json", json, "print the figures as JSON");
    CLI11_PARSE(app, argc, argv);
    RptPruneResult r;
    try {
        r = runRptPrune(sources);
    } catch (const std::exception& e) {
        fmt::print(stderr, "rpt-prune FAILED: {}\n", e.what());
        return 1;
    }
    fmt::print("{}", json ? toJson(r).dump(2) + "\n" : toText(r));
    return 0;
}

}  // namespace Bench
