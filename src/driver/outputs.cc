#include "driver/outputs.h"

#include <algorithm>
#include <map>

#include <fmt/format.h>

#include "driver/runner.h"
#include "pimsm/agent/root_sm.h"

namespace Driver {

using namespace Routing::Pim::SparseMode;
using Json = nlohmann::ordered_json;

namespace {

// The route's set flags by name, in declaration order.
std::string flagWords(const Route& r) {
    static const char* const names[] = {"rpt",           "wc",   "spt",         "switching",
                                        "iif-switching", "mbr",  "kat-expired", "marked",
                                        "may-advertise", "msdp", "anycast",     "dr-discovered",
                                        "oif-register"};
    std::string out;
    for (unsigned b = 0; b < Route::routeFlagCount; ++b) {
        if (!(r.routeFlags() & (1u << b))) continue;
        if (!out.empty()) out += ' ';
        out += names[b];
    }
    if (r.programmable()) out += out.empty() ? "programmable" : " programmable";
    return out.empty() ? "-" : out;
}

// Why an interface is in a route's outgoing list.
std::string why(const Route& r, const Intf* i) {
    std::vector<std::string> reasons;
    if (r.isWc()) {
        if (i->joinsWc()) reasons.push_back("join");
        if (i->includeWc()) reasons.push_back("local");
    } else if (i) {
        if (i->joinsSg()) reasons.push_back("join");
        if (i->includeSg()) reasons.push_back("local");
        if (i->inheritedOlistSgRpt()) reasons.push_back("inherited");
    } else {
        reasons.push_back("inherited");
    }
    return fmt::format("{}", fmt::join(reasons, "+"));
}

Json routeRow(const L3::VrfName& vrf, const Route& r) {
    Json oifs = Json::array();
    Json reasons = Json::array();
    auto add = [&](Wirl::IntfId id) {
        oifs.push_back(id.name());
        reasons.push_back(fmt::format("{} ({})", id.name(), why(r, r.routeIntfRaw(id))));
    };
    if (r.isWc()) {
        for (const auto& [id, intf] : r.routeIntf()) {
            if (intf->immediateOlistWc()) add(id);
        }
    } else {
        r.forEachInheritedOlistSg(add);
    }
    const auto& rpf = r.rpf();
    Json row;
    row["vrf"] = vrf.str();
    row["route"] = r.key().str();
    row["flags"] = flagWords(r);
    row["iif"] = rpf.resolved() ? rpf.intf.name() : "-";
    row["rpf-neighbor"] = rpf.hasNeighbor() ? rpf.neighbor.str() : "-";
    row["upstream"] = enumName(r.upJoinState());
    // An (S,G) route's upstream state on the shared tree (RFC 7761 4.5.7).
    row["upstream-rpt"] = r.isWc() ? "-" : enumName(r.umh()->upRptState());
    row["oifs"] = oifs;
    row["why"] = reasons;
    // The data-driven state of an (S,G) route ("-" for a (*,G) route): the
    // SPT bit, the keepalive timer, and whether the register tunnel is in
    // the olist ("pending" until that was decided).
    const bool sg = !r.isWc();
    row["spt"] = sg ? (r.spTree() ? "true" : "false") : "-";
    row["keepalive"] = !sg ? "-" : r.katExpired() ? "expired" : "running";
    row["register"] = !sg                         ? "-"
                      : !r.registerOifEvaluated() ? "pending"
                      : r.oifRegister()           ? "oif"
                                                  : "no-oif";
    return row;
}

// A timer deadline in loop seconds, "-" when it is not running.
std::string deadline(Cask::Seconds at) {
    return at == Cask::never ? "-" : fmt::format("{:.3f}", at);
}

// One row per route and interface with assert state: the state, the
// winner's address and metric, and the last action taken.
void assertRows(const L3::VrfName& vrf, const ContainerSm& c, Json& rows) {
    for (const auto& [key, route] : c.status()->route()) {
        for (const auto& [id, intf] : route->routeIntf()) {
            const auto& info = intf->assertInfo();
            if (info.assertState == AssertState::assertNoInfo) continue;
            Json row;
            row["vrf"] = vrf.str();
            row["route"] = key.str();
            row["interface"] = id.name();
            row["state"] = enumName(info.assertState);
            row["winner"] = intf->assertWinner().str();
            row["winner-metric"] = info.winnerMetric.str();
            row["last-action"] = intf->lastAssertAction()
                                     ? fmt::format("A{}", intf->lastAssertAction())
                                     : std::string("-");
            const AssertSm& sm = key.isWc() ? static_cast<const AssertSm&>(*c.assertWcSm())
                                            : static_cast<const AssertSm&>(*c.assertSgSm());
            const auto* rho = sm.rhoRoute(key);
            const auto* rhoIntf = rho ? rho->rhoIntf(id) : nullptr;
            row["timer"] =
                deadline(rhoIntf ? rhoIntf->timerDeadline(IntfTimer::expiry) : Cask::never);
            rows.push_back(row);
        }
    }
}

// Every Assert handed to the packet side, oldest first (the record keeps
// the last few thousand).
void sentRows(const L3::VrfName& vrf, const ContainerSm& c, Json& rows) {
    for (const auto& s : c.txMessageInfo()->sent()) {
        Json row;
        row["vrf"] = vrf.str();
        row["time"] = fmt::format("{:.3f}", s.time);
        row["interface"] = s.intf.name();
        row["message"] = s.cancel ? "AssertCancel" : "Assert";
        row["route"] = s.key.str();
        // What the message carries: the address is the sender's own.
        row["metric"] = s.metric.isInfinite()
                            ? std::string("infinite")
                            : fmt::format("rpt {} pref {} metric {}", int(s.metric.rptBit),
                                          s.metric.metricPreference, s.metric.metric);
        rows.push_back(row);
    }
}

// CouldRegister per route, and the routes for which Register-Stops may be
// sent, from the VRF's register configuration.
void registerRows(const L3::VrfName& vrf, const ContainerSm& c, Json& rows) {
    const auto* rc = c.registerConfig();
    if (!rc) return;
    std::map<Routing::Pim::RouteKey, Json> byKey;
    auto row = [&](const Routing::Pim::RouteKey& k) -> Json& {
        Json& r = byKey[k];
        if (r.is_null()) {
            r["vrf"] = vrf.str();
            r["route"] = k.str();
            r["could-register"] = "-";
            r["register-stop"] = false;
        }
        return r;
    };
    for (const auto& [k, active] : rc->couldRegisterSg()) {
        row(k)["could-register"] = active ? "active" : "inactive";
    }
    for (const auto& k : rc->couldSendRegisterStop()) row(k)["register-stop"] = true;
    for (auto& [k, r] : byKey) rows.push_back(std::move(r));
}

Json countersRow(const L3::VrfName& vrf, const ContainerSm& c) {
    const auto& ls = *c.localStatus();
    Json row;
    row["vrf"] = vrf.str();
    row["routes"] = c.status()->routeSize();
    row["wc-routes"] = ls.wcRouteSize();
    row["sg-routes"] = ls.sgRouteSize();
    row["marked-for-deletion"] = ls.toBeDeletedRouteSize();
    row["switching"] = ls.switchingRouteSize();
    row["clear-requests-done"] = ls.numClearMroutes();
    row["routes-refused"] = c.status()->context().routesRefused;
    row["intfs-refused"] = c.status()->context().routeIntfsRefused;
    row["ignored-rx-joins"] = c.upstreamWcSm()->ignoredRxJoins();
    row["ignored-rx-prunes"] = c.upstreamWcSm()->ignoredRxPrunes();
    // Entries from downstream routers that the downstream machines refused:
    // (*,G)/(S,G) Joins and Prunes, and whole messages (or a group's part of
    // one) the (S,G,rpt) machine dropped.
    const auto& ds = *c.downstreamWcSgSm();
    const auto& rpt = *c.downstreamSgRptSm();
    row["ignored-downstream-joins"] = ds.ignoredRxJoins();
    row["ignored-downstream-prunes"] = ds.ignoredRxPrunes();
    row["ignored-rpt-messages"] = rpt.ignoredNonNeighbor() + rpt.ignoredNotAddressed();
    row["ignored-rpt-groups"] = rpt.ignoredSsmGroup() + rpt.ignoredBidirGroup();
    row["ignored-link-local"] = c.gmpSm()->ignoredLinkLocal();
    std::uint64_t wrongVif = 0;
    for (const auto& [key, n] : ls.wrongVifCount()) wrongVif += n;
    row["wrong-vif"] = wrongVif;
    return row;
}

// One row per (upstream neighbour, message set, group) with something in it.
// The triggered and override rows show what was last sent from those sets.
void joinPruneRows(const L3::VrfName& vrf, const ContainerSm& c, Json& rows) {
    using Routing::Pim::JoinPruneData;
    for (const auto& [nbr, entry] : c.joinPruneStatus()->neighbor()) {
        const std::pair<const char*, const JoinPruneData*> sets[] = {
            {"periodic", &entry->periodic()},
            {"triggered", &entry->sentTriggered()},
            {"override", &entry->sentOverride()}};
        for (const auto& [set, data] : sets) {
            for (const auto* g : data->groupsInOrder()) {
                const auto& group = g->group();
                Json joins = Json::array();
                Json prunes = Json::array();
                for (const auto& [rp, wc] : g->wcSourceData()) {
                    std::string e =
                        fmt::format("(*) rp {}{}", rp, wc.wcSuppressed ? " suppressed" : "");
                    (wc.join ? joins : prunes).push_back(e);
                }
                for (const auto& s : g->joinedSource()) joins.push_back(s.str());
                for (const auto& s : g->joinedRptSource()) joins.push_back(s.str() + " rpt");
                for (const auto& s : g->prunedSource()) prunes.push_back(s.str());
                for (const auto& s : g->prunedRptSource()) prunes.push_back(s.str() + " rpt");
                // A triggered or override (*,G) Join carries the group's
                // periodic (S,G,rpt) Prunes.
                if (const auto* pr = g->periodicPrunedRptGroupData().get()) {
                    for (const auto& s : pr->prunedRptSource()) {
                        if (!g->prunedRptSourceHas(s)) prunes.push_back(s.str() + " rpt");
                    }
                }
                if (joins.empty() && prunes.empty()) continue;
                Json row;
                row["vrf"] = vrf.str();
                row["neighbor"] = fmt::format("{} on {}", nbr.address, nbr.intf);
                row["set"] = set;
                row["group"] = group.str();
                row["joins"] = joins;
                row["prunes"] = prunes;
                rows.push_back(row);
            }
        }
    }
    // The PruneEchoes last handed to the packet side, per interface: Prunes
    // addressed to this router itself.
    for (const auto& [intf, echo] : c.joinPruneStatus()->sentPruneEchoes()) {
        for (const auto* g : echo->groupsInOrder()) {
            Json prunes = Json::array();
            for (const auto& [rp, wc] : g->wcSourceData()) {
                prunes.push_back(fmt::format("(*) rp {}", rp));
            }
            for (const auto& s : g->prunedSource()) prunes.push_back(s.str());
            Json row;
            row["vrf"] = vrf.str();
            row["neighbor"] = fmt::format("self on {}", intf);
            row["set"] = "prune-echo";
            row["group"] = g->group().str();
            row["joins"] = Json::array();
            row["prunes"] = prunes;
            rows.push_back(row);
        }
    }
}

// One row per route and interface with downstream state: the (*,G)/(S,G)
// join state and the (S,G,rpt) prune state with their expiry and
// prune-pending deadlines, and whether a received Prune is remembered for
// its PruneEcho.
void downstreamRows(const L3::VrfName& vrf, const ContainerSm& c, Json& rows) {
    const auto& remembered = c.joinPruneStatus()->rxPrune();
    auto timers = [](const auto* rho, Json& row, const char* expiry, const char* pending) {
        row[expiry] = deadline(rho ? rho->timerDeadline(IntfTimer::expiry) : Cask::never);
        row[pending] = deadline(rho ? rho->timerDeadline(IntfTimer::prunePending) : Cask::never);
    };
    for (const auto& [key, route] : c.status()->route()) {
        for (const auto& [id, intf] : route->routeIntf()) {
            const bool joinState = intf->joinState() != JoinState::noInfo;
            const bool rptState = intf->rptState() != RptState::rptNoInfo;
            if (!joinState && !rptState) continue;
            Json row;
            row["vrf"] = vrf.str();
            row["route"] = key.str();
            row["interface"] = id.name();
            row["join-state"] = joinState ? enumName(intf->joinState()) : "-";
            const auto* ds = c.downstreamWcSgSm()->downstreamRouteSm(key);
            timers(ds ? ds->rhoIntf(id) : nullptr, row, "expiry", "prune-pending");
            row["rpt-state"] = rptState ? enumName(intf->rptState()) : "-";
            const auto* rpt = key.isWc() ? nullptr : c.downstreamSgRptSm()->rhoRoute(key);
            timers(rpt ? rpt->rhoIntf(id) : nullptr, row, "rpt-expiry", "rpt-prune-pending");
            row["remembered-prune"] = remembered.has(Routing::Gmp::Tidal::RouteIntfKey{key, id});
            rows.push_back(row);
        }
    }
}

// The switchover default, each exception with the prefixes its list yields,
// and the two tries the group decision reads.
Json sptThresholdRow(const L3::VrfName& vrf, const ContainerSm& c) {
    auto prefixes = [](const Wirl::PrefixTrie& t) {
        Json out = Json::array();
        for (const auto& p : t.prefixes()) out.push_back(p.str());
        return out;
    };
    Json lists = Json::array();
    for (const auto& [name, acl] : c.sptThresholdSm()->drSwitchAcl()) {
        lists.push_back(fmt::format("{} ({}): {}", name, drSwitchThreshName(acl.threshold),
                                    acl.grpPrefix.empty()
                                        ? std::string("-")
                                        : fmt::format("{}", fmt::join(acl.grpPrefix, " "))));
    }
    const auto& info = *c.sptThresholdInfo();
    Json row;
    row["vrf"] = vrf.str();
    row["default"] = drSwitchThreshName(c.context().config->drSwitch());
    row["access-lists"] = lists;
    row["trie-immediate"] = prefixes(info.trieImmediate());
    row["trie-never"] = prefixes(info.trieNever());
    row["changes"] = info.sptConfigChanged();
    return row;
}

std::string fibFlagWords(const ::Tidal::Multicast::Fib::Route& r) {
    using F = ::Tidal::Multicast::Fib::Route;
    const std::pair<F::Flag, const char*> names[] = {
        {F::toCpu, "to-cpu"},
        {F::iifRegister, "iif-register"},
        {F::oifRegister, "oif-register"},
        {F::noRpf, "no-rpf"},
        {F::skipKernelProgramming, "skip-kernel"},
        {F::notifyProgrammable, "notify-programmable"}};
    std::vector<std::string> words;
    for (const auto& [f, name] : names) {
        if (r.flag(f)) words.push_back(name);
    }
    return words.empty() ? "-" : fmt::format("{}", fmt::join(words, " "));
}

void forwardingRows(const L3::VrfName& vrf, const ContainerSm& c, Json& rows) {
    const auto& table = *c.mfibTidal();
    // The table is a hash map: list its records in route-key order.
    std::vector<const ::Tidal::Multicast::Fib::Route*> records;
    for (const auto& [key, r] : table.route()) records.push_back(&r);
    std::sort(records.begin(), records.end(), [](auto* a, auto* b) {
        return Routing::Multicast::Fib::convertKey(a->key()) <
               Routing::Multicast::Fib::convertKey(b->key());
    });
    for (const auto* r : records) {
        Json oifs = Json::array();
        for (auto index : r->oifIteratorConst()) {
            auto entry = table.oifIndexIntf(index);
            oifs.push_back(entry.intf.isNull() ? fmt::format("#{}", index.value())
                                               : entry.intf.name());
        }
        Json row;
        row["vrf"] = vrf.str();
        row["route"] = Routing::Multicast::Fib::convertKey(r->key()).str();
        row["iif"] = r->iif().isNull() ? "-" : r->iif().name();
        // The backup incoming interface of upstream fast failover.
        row["iif-frr"] = r->iifFrr().isNull() ? "-" : r->iifFrr().name();
        row["oifs"] = oifs;
        row["flags"] = fibFlagWords(*r);
        rows.push_back(row);
    }
}

}  // namespace

Json vrfOutput(Runner& runner, const Scenario& scenario, Output what) {
    Json rows = Json::array();
    auto* root = runner.agent().rootSm();
    for (const auto& v : scenario.vrfs) {
        auto* c = root ? root->containerSm().raw(v.name) : nullptr;
        if (!c) continue;  // the VRF is not running: it has nothing to show
        switch (what) {
            case Output::routes:
                for (const auto& [key, route] : c->status()->route()) {
                    rows.push_back(routeRow(v.name, *route));
                }
                break;
            case Output::counters:
                rows.push_back(countersRow(v.name, *c));
                break;
            case Output::sptThreshold:
                rows.push_back(sptThresholdRow(v.name, *c));
                break;
            case Output::joinPrune:
                joinPruneRows(v.name, *c, rows);
                break;
            case Output::forwarding:
                forwardingRows(v.name, *c, rows);
                break;
            case Output::register_:
                registerRows(v.name, *c, rows);
                break;
            case Output::downstream:
                downstreamRows(v.name, *c, rows);
                break;
            case Output::asserts:
                assertRows(v.name, *c, rows);
                break;
            case Output::sent:
                sentRows(v.name, *c, rows);
                break;
            default:
                break;
        }
    }
    return rows;
}

Json traceLines(const Cask::TraceRing& ring, std::uint64_t& seen) {
    Json rows = Json::array();
    for (const auto& l : ring.lines()) {
        if (l.seq < seen) continue;
        Json row;
        row["time"] = fmt::format("{:.3f}", l.time);
        row["level"] = l.level;
        row["text"] = l.text;
        rows.push_back(row);
    }
    seen = ring.total();
    return rows;
}

}  // namespace Driver
