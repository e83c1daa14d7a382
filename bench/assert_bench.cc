#include "assert_bench.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "alloc_count.h"
#include "cask/trace.h"
#include "driver/scenario.h"
#include "pimsm/agent/container_sm.h"
#include "pimsm/route/local_status.h"
#include "platform/assert_status.h"
#include "platform/membership.h"
#include "platform/mfib_table.h"
#include "platform/mrt_upcall.h"
#include "scenario_parts.h"

namespace Bench {

namespace {

namespace SM = ::Routing::Pim::SparseMode;
namespace Pim = ::Routing::Pim;

// Groups 232.0.0.1, 232.0.0.2, ... of the default SSM range, all from one source reached through
// Ethernet2.
constexpr std::uint32_t firstGroup = 0xe8000001u;
constexpr std::size_t maxKeys = 0x00fffffeu;
constexpr std::string_view sourceText = "10.99.0.10";
constexpr std::string_view otherRouterText = "10.1.0.2";
// This router's metric toward the source; the other router offers one worse and one better.
constexpr unsigned myPreference = 110;
constexpr unsigned myMetric = 20;
constexpr unsigned worsePreference = 120;
constexpr unsigned betterPreference = 100;
constexpr Cask::Seconds startAt = 1;       // the VRF is up and the neighbours known
constexpr Cask::Seconds setupLimit = 300;  // loop time the routes may take to be ready
constexpr int floorRuns = 3;               // a floor is the best of these
const Wirl::IntfId lan("Ethernet1");
const Wirl::IntfId upstream("Ethernet2");
// A second LAN with receivers, which this router alone serves: losing on Ethernet1 leaves the
// routes joined, so the loser's heap is the assert state rather than the pruned routes.
const Wirl::IntfId otherLan("Ethernet3");

Pim::RouteKey key(std::size_t i) {
    return Pim::RouteKey(addr(sourceText), Wirl::IpGenAddr::v4(firstGroup + std::uint32_t(i)));
}

Driver::Scenario lanScenario() {
    Driver::VrfSpec v;
    v.name = L3::VrfName::defaultVrf();
    v.interfaces.push_back(interfaceSpec("Ethernet1", "10.1.0.1", true));
    v.interfaces.push_back(interfaceSpec("Ethernet2", "10.2.0.1", false));
    v.interfaces.push_back(interfaceSpec("Ethernet3", "10.3.0.1", true));
    v.neighbors.push_back({lan, addr(otherRouterText)});
    v.neighbors.push_back({upstream, addr("10.2.0.2")});
    v.routes.push_back(
        {prefix("10.99.0.0/16"), upstream, addr("10.2.0.2"), myPreference, myMetric});
    v.routes.push_back(
        {prefix("10.1.0.0/24"), lan, Wirl::IpGenAddr::zero(Wirl::AddressFamily::ipv4)});
    v.routes.push_back(
        {prefix("10.2.0.0/24"), upstream, Wirl::IpGenAddr::zero(Wirl::AddressFamily::ipv4)});
    v.routes.push_back(
        {prefix("10.3.0.0/24"), otherLan, Wirl::IpGenAddr::zero(Wirl::AddressFamily::ipv4)});
    Driver::Scenario s;
    s.file = "asserts";
    s.family = Wirl::AddressFamily::ipv4;
    s.vrfs.push_back(std::move(v));
    return s;
}

// The other router's Assert for the i-th route with `preference`.
Pim::AssertMessage assertFrom(std::size_t i, unsigned preference) {
    Pim::AssertMessage m;
    const Pim::RouteKey k = key(i);
    m.group = k.group();
    m.source = k.source();
    m.rpt = false;
    m.metricPreference = preference;
    m.metric = myMetric;
    m.sender = addr(otherRouterText);
    return m;
}

// Counts the Asserts handed to the packet side and when the first and last of a turn went.
class TxWatch : public Pim::IO::MessageInfo::Notifiee {
public:
    explicit TxWatch(Pim::IO::MessageInfo& tx) : Notifiee(&tx) {}
    void handleCount() override {
        const auto now = WallClock::now();
        if (turnCount_++ == 0) first_ = now;
        last_ = now;
        ++total_;
    }
    void newTurn() { turnCount_ = 0; }
    std::uint64_t turnCount() const { return turnCount_; }
    double turnSpan() const { return turnCount_ ? seconds(last_ - first_) : 0; }
    std::uint64_t total() const { return total_; }

private:
    std::uint64_t turnCount_ = 0;
    std::uint64_t total_ = 0;
    WallClock::time_point first_;
    WallClock::time_point last_;
};

// Runs turns, jumping over idle time, until `done()` holds whenever nothing is due; throws past
// `limit` of loop time.
template <class Done>
void runUntil(Cask::EventLoop& loop, Cask::Seconds limit, const char* what, Done&& done) {
    const Cask::Seconds start = loop.now();
    for (;;) {
        while (loop.runOnce()) {
        }
        if (done()) return;
        const Cask::Seconds next = loop.nextExpiry();
        if (next == Cask::never || next - start > limit) {
            throw std::runtime_error(
                fmt::format("{} after {:.1f} s of loop time", what, loop.now() - start));
        }
        loop.clock().waitUntil(next);
    }
}

const SM::Intf* lanIntf(const SM::LocalStatus& ls, std::size_t i) {
    const SM::Route* r = ls.sgRoute().raw(key(i));
    return r ? r->routeIntfRaw(lan) : nullptr;
}

// Feeds `messages` through the received-assert door, then runs turns until nothing is due.
RxAssertFigures receive(Cask::EventLoop& loop, SM::AssertMessageSm& door,
                        const std::vector<Pim::AssertMessage>& messages) {
    RxAssertFigures f;
    const auto t0 = WallClock::now();
    for (const auto& m : messages) door.handleRxMessage(m, lan);
    const auto t1 = WallClock::now();
    for (;;) {
        const auto s = WallClock::now();
        if (!loop.runOnce()) break;
        f.longestSettleTurnSeconds =
            std::max(f.longestSettleTurnSeconds, seconds(WallClock::now() - s));
        ++f.settleTurns;
    }
    f.handlerSeconds = seconds(t1 - t0);
    f.settledSeconds = seconds(WallClock::now() - t0);
    return f;
}

// The least a received Assert needs: recorded in the message record, its route interface found.
double rxFloor(const SM::LocalStatus& ls, const std::vector<Pim::AssertMessage>& messages) {
    double best = 0;
    for (int run = 0; run < floorRuns; ++run) {
        auto info = Cask::make<Pim::AssertMessageInfo>();
        std::size_t found = 0;
        const auto t0 = WallClock::now();
        for (const auto& m : messages) {
            info->messageIs(m);
            info->intfIdIs(lan);
            info->rxCountInc();
            const SM::Route* r = ls.sgRoute().raw(m.key());
            if (r && r->routeIntfRaw(lan)) ++found;
        }
        const double s = seconds(WallClock::now() - t0);
        if (found != messages.size()) throw std::runtime_error("floor: routes missing");
        best = run == 0 ? s : std::min(best, s);
    }
    return best;
}

// The least a periodic round needs: one Assert per winner key into a fresh transmit record.
double walkFloor(const Pim::IntfStatus& status, const Pim::AssertMetric& metric) {
    double best = 0;
    for (int run = 0; run < floorRuns; ++run) {
        auto tx = Cask::make<Pim::IO::MessageInfo>();
        const auto t0 = WallClock::now();
        for (const Pim::RouteKey& k : status.assertWinner()) {
            tx->send(lan, Pim::AssertMessage::of(k, metric), 0);
        }
        const double s = seconds(WallClock::now() - t0);
        if (tx->count() != status.assertWinnerSize()) throw std::runtime_error("floor: lost");
        best = run == 0 ? s : std::min(best, s);
    }
    return best;
}

}  // namespace

AssertBenchResult runAssertBench(std::size_t keys) {
    if (keys == 0 || keys > maxKeys) {
        throw std::invalid_argument(fmt::format("keys must be 1 to {}", maxKeys));
    }
    BenchVrf bench(lanScenario(), BenchVrf::Clock::skipping);
    bench.open(startAt, [](SM::ContainerSm& c) { return c.assertMessageSm() != nullptr; });
    auto& loop = bench.loop;
    auto& table = bench.table;
    auto& members = bench.members;
    auto& upcalls = bench.upcalls;
    auto* container = bench.container;
    const SM::LocalStatus& ls = *container->localStatus();
    SM::AssertMessageSm& door = *container->assertMessageSm();
    Pim::IO::MessageInfo& tx = *container->txMessageInfo();

    AssertBenchResult res;
    res.keys = keys;

    // Hosts on both LANs join every (S,G); the first packets from the source put each route on
    // the source tree, after which this router could assert on the LAN for all of them.
    const auto setupStart = WallClock::now();
    for (const Wirl::IntfId intf : {lan, otherLan}) {
        for (std::size_t i = 0; i < keys; ++i) {
            const Routing::Gmp::Tidal::RouteIntfKey k{key(i), intf};
            members->membershipIs(k, {k, Routing::Gmp::Tidal::FilterMode::include});
        }
    }
    runUntil(loop, setupLimit, "the joined routes have no forwarding record", [&] {
        for (std::size_t i = 0; i < keys; ++i) {
            const auto* r = table->route(Routing::Multicast::Fib::convertKey(key(i)));
            if (!r || r->iif() != upstream) return false;
        }
        return true;
    });
    for (std::size_t i = 0; i < keys; ++i) {
        upcalls->activityIs(key(i), upcalls->activity(key(i)) + 1);
    }
    runUntil(loop, setupLimit, "the routes could not assert on the LAN", [&] {
        for (std::size_t i = 0; i < keys; ++i) {
            const SM::Intf* in = lanIntf(ls, i);
            if (!in || !in->couldAssertSg()) return false;
        }
        return true;
    });
    res.setupSeconds = seconds(WallClock::now() - setupStart);

    std::vector<Pim::AssertMessage> worse, better;
    worse.reserve(keys);
    better.reserve(keys);
    for (std::size_t i = 0; i < keys; ++i) {
        worse.push_back(assertFrom(i, worsePreference));
        better.push_back(assertFrom(i, betterPreference));
    }
    TxWatch watch(tx);

    // Inferior Asserts: each makes this router the winner and answers with one Assert.
    tx.sentDelAll();
    const double heapNone = double(heapBytesInUse());
    const std::uint64_t sentBefore = watch.total();
    res.win = receive(loop, door, worse);
    for (std::size_t i = 0; i < keys; ++i) {
        const SM::Intf* in = lanIntf(ls, i);
        if (!in || in->assertInfo().assertState != SM::AssertState::iAmAssertWinner) {
            throw std::runtime_error(fmt::format("{} is not the assert winner", key(i)));
        }
    }
    const Pim::IntfStatus* status = container->assertStatus()->intf(lan);
    if (!status || status->assertWinnerSize() != keys) {
        throw std::runtime_error("the winners are not all listed for periodic Asserts");
    }
    if (watch.total() - sentBefore < keys) {
        throw std::runtime_error(
            fmt::format("{} triggered Asserts for {} wins", watch.total() - sentBefore, keys));
    }
    tx.sentDelAll();
    res.heapWinnerPerRoute = (double(heapBytesInUse()) - heapNone) / double(keys);
    res.win.floorSeconds = rxFloor(ls, worse);

    // The periodic walk: skip to the end of the round under way, then time one whole round.
    SM::AssertIntfSm* intfSm = door.assertIntfSm(lan);
    if (!intfSm) throw std::runtime_error("no assert machine on the LAN");
    auto& periodic = intfSm->assertPeriodicTimerSm();
    res.intervalSeconds = periodic.interval();
    res.perExpiryMax = periodic.maxMessagesPerExpiry();
    res.turnBudgetSeconds = SM::AssertMessageSm::loopQuantum;
    {
        bool measuring = false;
        bool done = false;
        Cask::Seconds firstExpiry = 0;
        const Cask::Seconds start = loop.now();
        while (!done) {
            watch.newTurn();
            const auto t0 = WallClock::now();
            const bool ran = loop.runOnce();
            const double turn = seconds(WallClock::now() - t0);
            if (!ran) {
                const Cask::Seconds next = loop.nextExpiry();
                if (next == Cask::never || next - start > 3 * res.intervalSeconds) {
                    throw std::runtime_error(
                        "the periodic winner Asserts did not complete a round");
                }
                loop.clock().waitUntil(next);
                continue;
            }
            if (watch.turnCount() == 0) continue;
            if (measuring) {
                if (res.walkTurns == 0) firstExpiry = loop.now();
                ++res.walkTurns;
                res.walkAsserts += watch.turnCount();
                res.walkSeconds += turn;
                res.walkSpanSeconds += watch.turnSpan();
                res.walkSpanAsserts += watch.turnCount() - 1;
                res.walkLoopSeconds = loop.now() - firstExpiry;
                res.longestWalkTurnSeconds = std::max(res.longestWalkTurnSeconds, turn);
                res.longestExpirySeconds = std::max(res.longestExpirySeconds, watch.turnSpan());
                res.mostAssertsInTurn = std::max(res.mostAssertsInTurn, watch.turnCount());
            }
            if (periodic.assertWinnerBookmark().isNull()) {
                done = measuring;
                measuring = true;
            }
        }
        if (res.walkAsserts != keys) {
            throw std::runtime_error(fmt::format(
                "one round sent {} periodic Asserts for {} winners", res.walkAsserts, keys));
        }
    }
    const SM::Intf* first = lanIntf(ls, 0);
    res.walkFloorSeconds = walkFloor(*status, first->assertInfo().winnerMetric);

    // Preferred Asserts: each makes this router the loser to the other router.
    tx.sentDelAll();
    const double heapWinners = double(heapBytesInUse());
    res.lose = receive(loop, door, better);
    for (std::size_t i = 0; i < keys; ++i) {
        const SM::Intf* in = lanIntf(ls, i);
        if (!in || in->assertInfo().assertState != SM::AssertState::iAmAssertLoser ||
            in->assertInfo().winnerMetric.address != addr(otherRouterText)) {
            throw std::runtime_error(fmt::format("{} did not lose to {}", key(i), otherRouterText));
        }
        if (in->route()->upJoinState() != SM::UpJoinState::upJoined) {
            throw std::runtime_error(fmt::format("{} left the source tree", key(i)));
        }
    }
    if (status->assertWinnerSize() != 0) {
        throw std::runtime_error("losers are still listed for periodic Asserts");
    }
    tx.sentDelAll();
    res.heapLoserPerRoute =
        res.heapWinnerPerRoute + (double(heapBytesInUse()) - heapWinners) / double(keys);
    res.lose.floorSeconds = rxFloor(ls, better);
    return res;
}

namespace {

double rate(std::size_t n, double s) {
    return s > 0 ? double(n) / s : 0;
}

nlohmann::ordered_json rxJson(std::size_t keys, const RxAssertFigures& f) {
    nlohmann::ordered_json j;
    j["handled_per_second"] = rate(keys, f.handlerSeconds);
    j["settled_per_second"] = rate(keys, f.settledSeconds);
    j["floor_per_second"] = rate(keys, f.floorSeconds);
    j["handler_seconds"] = f.handlerSeconds;
    j["settled_seconds"] = f.settledSeconds;
    j["floor_seconds"] = f.floorSeconds;
    j["handler_to_floor_ratio"] = f.floorSeconds > 0 ? f.handlerSeconds / f.floorSeconds : 0;
    j["settle_turns"] = f.settleTurns;
    j["longest_settle_turn_seconds"] = f.longestSettleTurnSeconds;
    return j;
}

}  // namespace

nlohmann::ordered_json toJson(const AssertBenchResult& r) {
    nlohmann::ordered_json j;
    j["keys"] = r.keys;
    j["setup_seconds"] = r.setupSeconds;
    j["rx_inferior_win"] = rxJson(r.keys, r.win);
    j["rx_preferred_lose"] = rxJson(r.keys, r.lose);
    auto& w = j["periodic_winner_round"];
    w["asserts_per_second"] = rate(r.walkSpanAsserts, r.walkSpanSeconds);
    w["asserts_per_second_whole_turns"] = rate(r.walkAsserts, r.walkSeconds);
    w["floor_per_second"] = rate(r.walkAsserts, r.walkFloorSeconds);
    w["walk_to_floor_ratio"] =
        r.walkSpanSeconds > 0 && r.walkFloorSeconds > 0
            ? rate(r.walkAsserts, r.walkFloorSeconds) / rate(r.walkSpanAsserts, r.walkSpanSeconds)
            : 0;
    w["asserts"] = r.walkAsserts;
    w["turns"] = r.walkTurns;
    w["interval_seconds"] = r.intervalSeconds;
    w["loop_seconds_first_to_last_expiry"] = r.walkLoopSeconds;
    w["walk_seconds"] = r.walkSeconds;
    w["walk_span_seconds"] = r.walkSpanSeconds;
    w["floor_seconds"] = r.walkFloorSeconds;
    w["longest_turn_seconds"] = r.longestWalkTurnSeconds;
    w["longest_expiry_seconds"] = r.longestExpirySeconds;
    w["turn_budget_seconds"] = r.turnBudgetSeconds;
    w["most_asserts_in_turn"] = r.mostAssertsInTurn;
    w["per_expiry_max"] = r.perExpiryMax;
    j["heap_bytes_per_route_winner"] = r.heapWinnerPerRoute;
    j["heap_bytes_per_route_loser"] = r.heapLoserPerRoute;
    return j;
}

std::string toTable(const AssertBenchResult& r) {
    struct Row {
        std::string name, measured, floor, ratio;
    };
    auto perSecond = [](double v) { return fmt::format("{:.0f}/s", v); };
    auto ms = [](double s) { return fmt::format("{:.3f} ms", s * 1e3); };
    auto times = [](double a, double b) { return b > 0 ? fmt::format("{:.1f}x", a / b) : "-"; };
    std::vector<Row> rows;
    auto rx = [&](const char* title, const RxAssertFigures& f) {
        rows.push_back({title, "", "", ""});
        rows.push_back({"  handled (handleRxMessage)", perSecond(rate(r.keys, f.handlerSeconds)),
                        perSecond(rate(r.keys, f.floorSeconds)),
                        times(f.handlerSeconds, f.floorSeconds)});
        rows.push_back(
            {"  settled (until no work is due)", perSecond(rate(r.keys, f.settledSeconds)),
             perSecond(rate(r.keys, f.floorSeconds)), times(f.settledSeconds, f.floorSeconds)});
        rows.push_back({"  turns to settle, longest",
                        fmt::format("{}, {}", f.settleTurns, ms(f.longestSettleTurnSeconds)), "",
                        ""});
    };
    rx("received Asserts, inferior (this router wins)", r.win);
    rx("received Asserts, preferred (this router loses)", r.lose);
    rows.push_back({"periodic winner Asserts, one round", "", "", ""});
    const double walkRate = rate(r.walkSpanAsserts, r.walkSpanSeconds);
    const double walkFloorRate = rate(r.walkAsserts, r.walkFloorSeconds);
    rows.push_back({"  Asserts sent (the walk's own time)",
                    walkRate > 0 ? perSecond(walkRate) : "-", perSecond(walkFloorRate),
                    times(walkFloorRate, walkRate)});
    rows.push_back(
        {"  Asserts sent (whole turns)", perSecond(rate(r.walkAsserts, r.walkSeconds)), "", ""});
    rows.push_back({"  Asserts, turns", fmt::format("{}, {}", r.walkAsserts, r.walkTurns), "", ""});
    rows.push_back({"  interval, first to last expiry",
                    fmt::format("{:.0f} s, {:.1f} s", r.intervalSeconds, r.walkLoopSeconds), "",
                    ""});
    rows.push_back({"  longest turn (with work due beside it) / budget",
                    ms(r.longestWalkTurnSeconds), ms(r.turnBudgetSeconds), ""});
    rows.push_back({"  longest expiry (first to last Assert)", ms(r.longestExpirySeconds), "", ""});
    rows.push_back({"  most Asserts in a turn / per-expiry max",
                    fmt::format("{}", r.mostAssertsInTurn), fmt::format("{}", r.perExpiryMax), ""});
    rows.push_back({"heap bytes per route of assert state", "", "", ""});
    rows.push_back({"  winner", fmt::format("{:.0f}", r.heapWinnerPerRoute), "", ""});
    rows.push_back({"  loser", fmt::format("{:.0f}", r.heapLoserPerRoute), "", ""});
    std::size_t width = 0;
    for (const Row& row : rows) width = std::max(width, row.name.size());
    std::string out = fmt::format("{} (S,G) routes on one LAN interface, setup {:.2f} s\n", r.keys,
                                  r.setupSeconds);
    out += fmt::format("{:<{}}{:>16}{:>16}{:>10}\n", "", width + 2, "measured", "floor", "/ floor");
    for (const Row& row : rows) {
        out += fmt::format("{:<{}}{:>16}{:>16}{:>10}\n", row.name, width + 2, row.measured,
                           row.floor, row.ratio);
    }
    return out;
}

int assertsMain(int argc, char** argv) {
    CLI::App app{
        "N (S,G) routes this router asserts for on one LAN: received Asserts won and "
        "lost, and one round of periodic winner Asserts",
        "pimsm-bench asserts"};
    std::size_t keys = 100000;
    bool json = false;
    app.add_option("--keys", keys, "(S,G) routes, one group each")
        ->check(CLI::Range(std::size_t(1), maxKeys));
    app.add_flag("--json", json, "print the figures as JSON");
    CLI11_PARSE(app, argc, argv);
    try {
        const AssertBenchResult r = runAssertBench(keys);
        fmt::print("{}", json ? toJson(r).dump(2) + "\n" : toTable(r));
    } catch (const std::exception& e) {
        fmt::print(stderr, "asserts FAILED: {}\n", e.what());
        return 1;
    }
    return 0;
}

}  // namespace Bench
