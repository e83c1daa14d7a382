// Random sequences of received Join/Prune messages and timer runs, checked
// against a small reference model of RFC 7761's downstream machines: the
// (*,G) and (S,G) join state (4.5.1, 4.5.2: NoInfo, Join, Prune-Pending) and
// the (S,G,rpt) prune state (4.5.3: NoInfo, Prune, Prune-Pending and the
// temporary states of a message carrying Join(*,G)).
//
// The model keeps the deadlines it expects. The agent adds a small jitter to
// (*,G)/(S,G) expiry and works through (S,G,rpt) entries in a review a few
// milliseconds after a message, so near a deadline the two may disagree for
// a moment: nothing is sent and nothing compared while the clock is inside
// such a window. Everywhere else the states must be equal.
//
// Environment: PIMSM_DOWNSTREAM_SEEDS (default 40) seeds from 1.

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "cask/clock.h"
#include "pimsm/test_vrf.h"
#include "platform/join_prune.h"

namespace Routing::Pim::SparseMode::Testing {
namespace {

constexpr Cask::Seconds never = Cask::never;
// Upper bound of the jitter added to a (*,G)/(S,G) expiry, and of the delay
// before a queued message's (S,G,rpt) entries take effect.
constexpr Cask::Seconds jitterBound = 1.5;
constexpr Cask::Seconds reviewBound = 0.5;
constexpr Cask::Seconds overrideInterval = 3;
constexpr std::uint16_t holdForever = 0xffff;

struct Port {
    const char* intf;
    const char* me;
    std::vector<const char*> neighbors;
};
// d1 is a LAN with two downstream routers (prune-pending lasts the override
// interval); d2 has one (prune-pending ends at once).
const Port ports[] = {{"d1", "10.0.3.5", {"10.0.3.2", "10.0.3.3"}},
                      {"d2", "10.0.4.5", {"10.0.4.2"}}};
const char* const groups[] = {"239.1.1.1", "239.1.1.2"};
const char* const sources[] = {"10.1.0.1", "10.1.0.2"};
const char* const rp = "10.9.9.9";

enum class Ds { noInfo, joined, prunePending };
enum class Rpt { noInfo, pruned, prunePending };

struct DsEntry {
    Ds state = Ds::noInfo;
    Cask::Seconds et = never, ppt = never;
};
struct RptEntry {
    Rpt state = Rpt::noInfo;
    Cask::Seconds et = never, ppt = never;
};
using Slot = std::pair<RouteKey, std::string>;  // route, interface

// One group's part of a message.
struct GroupPart {
    int group = 0;
    int wc = 0;  // 0 none, 1 Join(*,G), 2 Prune(*,G)
    bool wrongRp = false;
    std::set<int> joinSg, pruneSg, joinRpt, pruneRpt;
};

class Model {
public:
    std::map<Slot, DsEntry> ds;
    std::map<Slot, RptEntry> rpt;

    // Runs the model's timers due by `now`, in deadline order.
    void runTimers(Cask::Seconds now) {
        // An expired entry keeps its deadlines, so that `unsettled` still
        // sees the moment it expired.
        for (auto& [slot, e] : ds) {
            if (e.state == Ds::prunePending && e.ppt <= now) e.state = Ds::noInfo;
            if (e.state != Ds::noInfo && e.et <= now) e.state = Ds::noInfo;
        }
        for (auto& [slot, e] : rpt) {
            if (e.state == Rpt::prunePending && e.ppt <= now && e.ppt < e.et) {
                e.state = Rpt::pruned;
            }
            if (e.state != Rpt::noInfo && e.et <= now) e.state = Rpt::noInfo;
        }
    }

    void message(Cask::Seconds now, const Port& p, std::uint16_t hold,
                 const std::vector<GroupPart>& parts) {
        const Cask::Seconds until = hold == holdForever ? never : now + hold;
        const Cask::Seconds ppt = p.neighbors.size() > 1 ? now + overrideInterval : now;
        for (const GroupPart& g : parts) {
            const auto group = ip(groups[g.group]);
            if (g.wc == 1 && !g.wrongRp) join(ds[{RouteKey::wc(group), p.intf}], until);
            if (g.wc == 2) prune(ds[{RouteKey::wc(group), p.intf}], ppt);
            for (int s : g.joinSg) join(ds[{RouteKey(ip(sources[s]), group), p.intf}], until);
            for (int s : g.pruneSg) prune(ds[{RouteKey(ip(sources[s]), group), p.intf}], ppt);
            // RFC 7761 4.5.3: a Join(*,G) moves the group's Prune and
            // Prune-Pending states to their temporary forms; a Prune(S,G,rpt)
            // in the same message restores them, and the end of the message
            // clears whatever is still temporary.
            std::set<int> tmp;
            if (g.wc == 1) {
                for (int s = 0; s < 2; ++s) {
                    auto it = rpt.find({RouteKey(ip(sources[s]), group), p.intf});
                    if (it != rpt.end() && it->second.state != Rpt::noInfo) tmp.insert(s);
                }
            }
            for (int s : g.joinRpt) {
                rpt[{RouteKey(ip(sources[s]), group), p.intf}] = RptEntry{};
                tmp.erase(s);
            }
            for (int s : g.pruneRpt) {
                RptEntry& e = rpt[{RouteKey(ip(sources[s]), group), p.intf}];
                const bool wasTmp = tmp.erase(s) > 0;
                if (e.state == Rpt::noInfo) {
                    e = RptEntry{Rpt::prunePending, until, ppt};
                } else if (e.state == Rpt::pruned) {
                    e.et = std::max(e.et, until);
                } else if (!wasTmp) {
                    // A repeated Prune while pending ends the wait at once.
                    e.state = Rpt::pruned;
                    e.ppt = never;
                    e.et = std::max(e.et, until);
                } else {
                    e.et = std::max(e.et, until);
                }
            }
            for (int s : tmp) rpt[{RouteKey(ip(sources[s]), group), p.intf}] = RptEntry{};
        }
    }

    // True when `now` lies where the agent and the model may differ for a
    // moment: around a deadline the model holds.
    bool unsettled(Cask::Seconds now) const {
        auto near = [now](Cask::Seconds d, Cask::Seconds after) {
            return d != never && now >= d - reviewBound - 0.01 && now <= d + after + reviewBound;
        };
        for (const auto& [slot, e] : ds) {
            if (near(e.et, jitterBound) || near(e.ppt, 0)) return true;
        }
        for (const auto& [slot, e] : rpt) {
            if (near(e.et, 0) || near(e.ppt, 0)) return true;
        }
        return false;
    }

private:
    static void join(DsEntry& e, Cask::Seconds until) {
        e.et = e.state == Ds::noInfo ? until : std::max(e.et, until);
        e.state = Ds::joined;
        e.ppt = never;
    }
    static void prune(DsEntry& e, Cask::Seconds ppt) {
        if (e.state != Ds::joined) return;
        e.state = Ds::prunePending;
        e.ppt = ppt;
    }
};

const char* name(Ds s) {
    return s == Ds::noInfo ? "noInfo" : s == Ds::joined ? "joined" : "prunePending";
}
const char* name(Rpt s) {
    return s == Rpt::noInfo ? "rptNoInfo" : s == Rpt::pruned ? "rptPruned" : "rptPrunePending";
}
Ds agentDs(JoinState s) {
    return s == JoinState::joined         ? Ds::joined
           : s == JoinState::prunePending ? Ds::prunePending
                                          : Ds::noInfo;
}
Rpt agentRpt(RptState s) {
    return s == RptState::rptPruned         ? Rpt::pruned
           : s == RptState::rptPrunePending ? Rpt::prunePending
                                            : Rpt::noInfo;
}

class Sequence {
public:
    explicit Sequence(unsigned seed) : rng_(seed) {
        vrf_.pimIntf("d1").joinPruneOverrideIntervalIs(overrideInterval);
        vrf_.pimIntf("d2").joinPruneOverrideIntervalIs(overrideInterval);
        for (const Port& p : ports) {
            for (const char* n : p.neighbors) vrf_.neighborIs(p.intf, ip(n));
        }
        vrf_.settle();
    }

    // Returns the first difference, or an empty string.
    std::string run(int steps, std::string& log) {
        for (int step = 0; step < steps; ++step) {
            const Cask::Seconds now = vrf_.loop.now();
            if (!model_.unsettled(now) && pick(3) != 0) {
                send(log);
            }
            advance(log);
            if (model_.unsettled(vrf_.loop.now())) continue;
            if (auto d = compare(); !d.empty()) return d;
        }
        return {};
    }

private:
    int pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng_); }

    std::set<int> sourceSet() {
        std::set<int> out;
        for (int s = 0; s < 2; ++s) {
            if (pick(4) == 0) out.insert(s);
        }
        return out;
    }

    void send(std::string& log) {
        const Port& p = ports[pick(2)];
        const char* from = p.neighbors[pick(int(p.neighbors.size()))];
        const std::uint16_t holds[] = {4, 7, 12, 30, holdForever};
        const std::uint16_t hold = holds[pick(5)];
        // Now and then the message is for another router on the link, or
        // comes from a router that is no neighbour: nothing changes.
        const int misfit = pick(12);
        std::vector<GroupPart> parts;
        Routing::Pim::JoinPruneMessage m;
        m.sender = ip(misfit == 0 ? "10.0.9.9" : from);
        m.intf = IntfId(p.intf);
        m.upstreamNeighbor = ip(misfit == 1 ? p.neighbors.front() : p.me);
        m.holdTime = hold;
        for (int g = 0; g < 2; ++g) {
            if (pick(3) == 0) continue;
            GroupPart part;
            part.group = g;
            part.wc = pick(3);
            part.wrongRp = part.wc == 1 && pick(8) == 0;
            part.joinSg = sourceSet();
            part.pruneSg = sourceSet();
            part.joinRpt = sourceSet();
            part.pruneRpt = sourceSet();
            // A (*,G) Join naming another RP is dropped (RFC 7761 4.5.1); it
            // comes without (S,G,rpt) entries, whose meaning would hang on it.
            if (part.wrongRp) part.joinRpt.clear(), part.pruneRpt.clear();
            // An entry and its opposite for one source never share a message.
            for (int s : part.joinSg) part.pruneSg.erase(s);
            for (int s : part.joinRpt) part.pruneRpt.erase(s);
            auto& gd = m.data->joinPruneGroupDataIs(ip(groups[g]));
            if (part.wc) gd.wcSourceDataIs(ip(part.wrongRp ? "10.9.9.8" : rp), part.wc == 1);
            for (int s : part.joinSg) gd.joinedSourceIs(ip(sources[s]));
            for (int s : part.pruneSg) gd.prunedSourceIs(ip(sources[s]));
            for (int s : part.joinRpt) gd.joinedRptSourceIs(ip(sources[s]));
            for (int s : part.pruneRpt) gd.prunedRptSourceIs(ip(sources[s]));
            if (gd.empty()) continue;
            parts.push_back(part);
        }
        if (parts.empty()) return;
        const Cask::Seconds now = vrf_.loop.now();
        log += fmt::format("{:.2f}: from {} on {} to {} hold {}:", now, m.sender, p.intf,
                           m.upstreamNeighbor, hold);
        for (const auto* gd : m.data->groupsInOrder()) {
            log += fmt::format(" [{}", gd->group());
            for (const auto& [r, d] : gd->wcSourceData())
                log += fmt::format(" {}(*) rp {}", d.join ? "J" : "P", r);
            for (const auto& s : gd->joinedSource()) log += fmt::format(" J{}", s);
            for (const auto& s : gd->prunedSource()) log += fmt::format(" P{}", s);
            for (const auto& s : gd->joinedRptSource()) log += fmt::format(" J{},rpt", s);
            for (const auto& s : gd->prunedRptSource()) log += fmt::format(" P{},rpt", s);
            log += "]";
        }
        log += "\n";
        if (misfit > 1) model_.message(now, p, hold, parts);
        vrf_.rx().messageReceived(m);
        vrf_.flush();
    }

    void advance(std::string& log) {
        const Cask::Seconds steps[] = {0.25, 0.5, 1, 2, 3.25, 5, 9};
        const Cask::Seconds to = vrf_.loop.now() + steps[pick(7)];
        vrf_.loop.runUntil(to);
        model_.runTimers(to);
        log += fmt::format("{:.2f}: time\n", to);
    }

    std::string compare() const {
        std::string out;
        auto intfOf = [this](const RouteKey& k, const std::string& i) -> const Intf* {
            const auto route = vrf_.status().route(k);
            return route ? route->routeIntfRaw(IntfId(i)) : nullptr;
        };
        // Every slot either side knows of.
        std::set<Slot> slots;
        for (const auto& [slot, e] : model_.ds) slots.insert(slot);
        for (const auto& [slot, e] : model_.rpt) slots.insert(slot);
        for (const auto& [key, route] : vrf_.status().route()) {
            for (const auto& [id, intf] : route->routeIntf()) slots.insert({key, id.name()});
        }
        for (const auto& [key, intf] : slots) {
            const Intf* i = intfOf(key, intf);
            const auto mds =
                model_.ds.count({key, intf}) ? model_.ds.at({key, intf}).state : Ds::noInfo;
            const auto mrpt =
                model_.rpt.count({key, intf}) ? model_.rpt.at({key, intf}).state : Rpt::noInfo;
            const Ds ads = i ? agentDs(i->joinState()) : Ds::noInfo;
            const Rpt arpt = i ? agentRpt(i->rptState()) : Rpt::noInfo;
            if (ads != mds) {
                out += fmt::format("{} on {}: join state {}, expected {}\n", key, intf, name(ads),
                                   name(mds));
            }
            if (!key.isWc() && arpt != mrpt) {
                out += fmt::format("{} on {}: rpt state {}, expected {}\n", key, intf, name(arpt),
                                   name(mrpt));
            }
        }
        return out;
    }

    std::mt19937 rng_;
    TestVrf vrf_{TestVrf::Layout::twoUpstreams};
    Model model_;
};

TEST(DownstreamRandomTest, StatesFollowTheReferenceModel) {
    const char* env = std::getenv("PIMSM_DOWNSTREAM_SEEDS");
    const unsigned seeds = env ? unsigned(std::strtoul(env, nullptr, 10)) : 40;
    for (unsigned seed = 1; seed <= seeds; ++seed) {
        Sequence seq(seed);
        std::string log;
        const std::string diff = seq.run(80, log);
        ASSERT_TRUE(diff.empty()) << "seed " << seed << " after:\n" << log << "differs:\n" << diff;
    }
}

}  // namespace
}  // namespace Routing::Pim::SparseMode::Testing
