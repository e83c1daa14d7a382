#include "driver/outputs.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <optional>

#include <fmt/format.h>

#include "driver/runner.h"
#include "pimsm/agent/root_sm.h"
#include "pimsm/upstream/rpf_table.h"
#include "platform/rp_local.h"

namespace Driver {

using namespace Routing::Pim::SparseMode;
using Json = nlohmann::ordered_json;

namespace {

// A time in seconds, to the millisecond (loop times are sums of doubles).
Json seconds(double t) {
    return std::round(t * 1000) / 1000;
}

Json addressOrNull(const Wirl::IpGenAddr& a) {
    return a.isSet() ? Json(a.str()) : Json();
}

// The route as one word, "(*,G)" or "(S,G)", and its source ("*" for the
// shared tree) and group as fields of their own.
void putRoute(Json& row, const Routing::Pim::RouteKey& key) {
    const std::string source = key.isWc() ? std::string("*") : key.source().str();
    row["route"] = fmt::format("({},{})", source, key.group());
    row["source"] = source;
    row["group"] = key.group().str();
}

// The route's set flags by name, in declaration order.
Json flagWords(const Route& r) {
    static const char* const names[] = {"rpt",           "wc",   "spt",         "switching",
                                        "iif-switching", "mbr",  "kat-expired", "marked",
                                        "may-advertise", "msdp", "anycast",     "dr-discovered",
                                        "oif-register"};
    Json out = Json::array();
    for (unsigned b = 0; b < Route::routeFlagCount; ++b) {
        if (r.routeFlags() & (1u << b)) out.push_back(names[b]);
    }
    if (r.programmable()) out.push_back("programmable");
    return out;
}

// A timer deadline in loop seconds, null when it is not running.
Json deadline(Cask::Seconds at) {
    return at == Cask::never ? Json() : seconds(at);
}

// The RP the agent maps the group to (what the upstream (*,G) machine
// reads); unset for SSM groups, which have none.
Wirl::IpGenAddr rpOf(const ContainerSm& c, const Wirl::IpGenAddr& group) {
    const auto& ctx = c.context();
    if (ctx.ssmGroupInfo && ctx.config && ctx.ssmGroupInfo->ssmGroup(group, *ctx.config)) return {};
    return ctx.rpMapping ? ctx.rpMapping->rpFor(group) : Wirl::IpGenAddr();
}

// The unicast route the agent's RPF table gives toward an address.
std::optional<RpfLookup> rpfLookup(const ContainerSm& c, const Wirl::IpGenAddr& a) {
    const auto* table = c.context().rpfTable;
    if (!a.isSet() || !table || !table->available()) return std::nullopt;
    return table->doLookup(a);
}

// Why a route has no incoming interface or no RPF neighbour, read from the
// route's upstream record, the RP mapping and the RPF table; null when it
// has both.
Json iifReason(const ContainerSm& c, const Route& r, const Wirl::IpGenAddr& rp) {
    const auto& rpf = r.rpf();
    const auto& ctx = c.context();
    if (r.isWc()) {
        if (!rp.isSet()) return "no RP";
        if (ctx.rpLocalStatus && ctx.rpLocalStatus->iAmRp(rp)) return "this router is the RP";
        if (!rpf.resolved()) return "no route to RP";
    } else {
        if (!rpf.resolved()) return "no route to source";
        if (!rpf.hasNeighbor() && r.umh()->rpfAttached()) return "source directly connected";
    }
    if (!rpf.hasNeighbor()) return "RPF neighbour not a PIM neighbour";
    return nullptr;
}

// Why an interface is in a route's outgoing list, with the expiry of the
// downstream state behind it (null without one): the route's own Join, or
// for an inherited interface the (*,G) route's.
Json oifWhy(const ContainerSm& c, const Route& r, Wirl::IntfId id) {
    const Intf* i = r.routeIntfRaw(id);
    Json reasons = Json::array();
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
    Cask::Seconds expiry = Cask::never;
    auto timerOf = [&](const Routing::Pim::RouteKey& key) {
        const auto* ds = c.downstreamWcSgSm()->downstreamRouteSm(key);
        const auto* rho = ds ? ds->rhoIntf(id) : nullptr;
        return rho ? rho->timerDeadline(IntfTimer::expiry) : Cask::never;
    };
    expiry = timerOf(r.key());
    if (expiry == Cask::never && !r.isWc())
        expiry = timerOf(Routing::Pim::RouteKey::wc(r.key().group()));
    Json why;
    why["interface"] = id.name();
    why["reasons"] = reasons;
    const double now = c.context().loop->now();
    why["expires"] = expiry == Cask::never ? Json() : seconds(expiry - now);
    return why;
}

// The upstream join state in the RFC's words.
const char* upstreamWords(UpJoinState s) {
    return s == UpJoinState::upJoined ? "Joined" : "NotJoined";
}

// The upstream (S,G,rpt) states as RFC 7761 4.5.7 names them.
const char* upstreamRptWords(UpRptState s) {
    switch (s) {
        case UpRptState::upRptPruned:
            return "Pruned";
        case UpRptState::upRptNotPruned:
            return "NotPruned";
        case UpRptState::upRptNotJoined:
            break;
    }
    return "RPTNotJoined";
}

Json routeRow(const L3::VrfName& vrf, const ContainerSm& c, const Route& r) {
    Json oifs = Json::array();
    Json reasons = Json::array();
    auto add = [&](Wirl::IntfId id) {
        oifs.push_back(id.name());
        reasons.push_back(oifWhy(c, r, id));
    };
    if (r.isWc()) {
        for (const auto& [id, intf] : r.routeIntf()) {
            if (intf->immediateOlistWc()) add(id);
        }
    } else {
        r.forEachInheritedOlistSg(add);
    }
    const auto& rpf = r.rpf();
    const Wirl::IpGenAddr rp = rpOf(c, r.key().group());
    const auto lookup = rpfLookup(c, r.isWc() ? rp : r.key().source());
    Json row;
    row["vrf"] = vrf.str();
    putRoute(row, r.key());
    row["flags"] = flagWords(r);
    row["rp"] = addressOrNull(rp);
    row["iif"] = rpf.resolved() ? Json(rpf.intf.name()) : Json();
    row["rpf-neighbor"] = rpf.hasNeighbor() ? Json(rpf.neighbor.str()) : Json();
    row["rpf-route"] = lookup ? Json(lookup->prefix.str()) : Json();
    row["upstream"] = upstreamWords(r.upJoinState());
    // An (S,G) route's upstream state on the shared tree (RFC 7761 4.5.7).
    row["upstream-rpt"] = r.isWc() ? Json() : Json(upstreamRptWords(r.umh()->upRptState()));
    const double now = c.context().loop->now();
    // How long the route has been joined to rpf-neighbor (null: joined to
    // none).
    row["joined-for"] = r.joinedSince() < 0 ? Json() : seconds(now - r.joinedSince());
    row["uptime"] = seconds(now - r.creationTime());
    row["oifs"] = oifs;
    row["why"] = reasons;
    // The data-driven state of an (S,G) route (null for a (*,G) route): the
    // SPT bit, the keepalive timer, and whether the register tunnel is in
    // the olist ("pending" until that was decided).
    const bool sg = !r.isWc();
    row["spt"] = sg ? Json(r.spTree()) : Json();
    row["keepalive"] = !sg ? Json() : r.katExpired() ? "expired" : "running";
    row["register"] = !sg                         ? Json()
                      : !r.registerOifEvaluated() ? "pending"
                      : r.oifRegister()           ? "oif"
                                                  : "no-oif";
    row["iif-reason"] = iifReason(c, r, rp);
    return row;
}

// An assert metric as its fields; null when infinite (an AssertCancel, or
// no winner). The address is left out where it is the sender's own.
Json metricObject(const Routing::Pim::AssertMetric& m, bool withAddress) {
    if (m.isInfinite()) return nullptr;
    Json out;
    out["rpt"] = m.rptBit;
    out["preference"] = m.metricPreference;
    out["metric"] = m.metric;
    if (withAddress) out["address"] = m.address.str();
    return out;
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
            putRoute(row, key);
            row["interface"] = id.name();
            row["state"] = enumName(info.assertState);
            row["winner"] = intf->assertWinner().str();
            row["winner-metric"] = metricObject(info.winnerMetric, true);
            row["last-action"] = intf->lastAssertAction()
                                     ? Json(fmt::format("A{}", intf->lastAssertAction()))
                                     : Json();
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
        row["time"] = seconds(s.time);
        row["interface"] = s.intf.name();
        row["message"] = s.cancel ? "AssertCancel" : "Assert";
        putRoute(row, s.key);
        // What the message carries: the address is the sender's own.
        row["metric"] = metricObject(s.metric, false);
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
            putRoute(r, k);
            r["could-register"] = nullptr;
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
    // What the forwarding plane reported about data, and what of it the
    // (S,G) route machine dropped, by reason.
    const auto& up = c.sgRouteSm()->upcallCounters();
    row["no-cache-upcalls"] = up.noCache;
    row["wrong-vif-upcalls"] = up.wrongVif;
    row["routes-from-cache-miss"] = up.routesCreated;
    row["ignored-invalid-upcalls"] = up.ignoredInvalid;
    row["ignored-upcalls-unknown-interface"] = up.ignoredUnknownIntf;
    row["ignored-upcalls-bidir"] = up.ignoredBidir;
    row["ignored-upcalls-boundary"] = up.ignoredBoundary;
    row["ignored-upcalls-wc-programmable"] = up.ignoredWcProgrammable;
    row["ignored-wrong-vif-no-route"] = up.ignoredNoRoute;
    return row;
}

// One Join/Prune entry: its kind ("wc", "sg", "sg-rpt"), its RP or source,
// and whether a (*,G) Join is suppressed.
Json wcEntry(const Wirl::IpGenAddr& rp, bool suppressed) {
    Json e;
    e["kind"] = "wc";
    e["rp"] = rp.str();
    e["suppressed"] = suppressed;
    return e;
}

Json sourceEntry(const char* kind, const Wirl::IpGenAddr& source) {
    Json e;
    e["kind"] = kind;
    e["source"] = source.str();
    return e;
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
                    (wc.join ? joins : prunes).push_back(wcEntry(rp, wc.wcSuppressed));
                }
                for (const auto& s : g->joinedSource()) joins.push_back(sourceEntry("sg", s));
                for (const auto& s : g->joinedRptSource())
                    joins.push_back(sourceEntry("sg-rpt", s));
                for (const auto& s : g->prunedSource()) prunes.push_back(sourceEntry("sg", s));
                for (const auto& s : g->prunedRptSource())
                    prunes.push_back(sourceEntry("sg-rpt", s));
                // A triggered or override (*,G) Join carries the group's
                // periodic (S,G,rpt) Prunes.
                if (const auto* pr = g->periodicPrunedRptGroupData().get()) {
                    for (const auto& s : pr->prunedRptSource()) {
                        if (!g->prunedRptSourceHas(s)) prunes.push_back(sourceEntry("sg-rpt", s));
                    }
                }
                if (joins.empty() && prunes.empty()) continue;
                Json row;
                row["vrf"] = vrf.str();
                row["neighbor"] = nbr.address.str();
                row["interface"] = nbr.intf.name();
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
            for (const auto& [rp, wc] : g->wcSourceData()) prunes.push_back(wcEntry(rp, false));
            for (const auto& s : g->prunedSource()) prunes.push_back(sourceEntry("sg", s));
            Json row;
            row["vrf"] = vrf.str();
            row["neighbor"] = "self";
            row["interface"] = intf.name();
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
            putRoute(row, key);
            row["interface"] = id.name();
            row["join-state"] = joinState ? Json(enumName(intf->joinState())) : Json();
            const auto* ds = c.downstreamWcSgSm()->downstreamRouteSm(key);
            timers(ds ? ds->rhoIntf(id) : nullptr, row, "expiry", "prune-pending");
            row["rpt-state"] = rptState ? Json(enumName(intf->rptState())) : Json();
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
        Json list;
        list["name"] = name;
        list["threshold"] = drSwitchThreshName(acl.threshold);
        list["prefixes"] = Json::array();
        for (const auto& p : acl.grpPrefix) list["prefixes"].push_back(p.str());
        lists.push_back(list);
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

Json fibFlagWords(const ::Tidal::Multicast::Fib::Route& r) {
    using F = ::Tidal::Multicast::Fib::Route;
    const std::pair<F::Flag, const char*> names[] = {
        {F::toCpu, "to-cpu"},
        {F::iifRegister, "iif-register"},
        {F::oifRegister, "oif-register"},
        {F::noRpf, "no-rpf"},
        {F::skipKernelProgramming, "skip-kernel"},
        {F::notifyProgrammable, "notify-programmable"}};
    Json words = Json::array();
    for (const auto& [f, name] : names) {
        if (r.flag(f)) words.push_back(name);
    }
    return words;
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
        putRoute(row, Routing::Multicast::Fib::convertKey(r->key()));
        row["iif"] = r->iif().isNull() ? Json() : Json(r->iif().name());
        // The backup incoming interface of upstream fast failover.
        row["iif-frr"] = r->iifFrr().isNull() ? Json() : Json(r->iifFrr().name());
        row["oifs"] = oifs;
        row["flags"] = fibFlagWords(*r);
        rows.push_back(row);
    }
}

// One row per membership the membership protocol reported: what it asked
// for, and what the agent made of it. The decision is read from the route's
// interface record (the receiver flags the membership machine wrote, and the
// pim_include / pim_exclude macros over them); the reason for an ignored
// membership from the membership machine, which applies those same tests.
void membershipRows(const L3::VrfName& vrf, const ContainerSm& c, Json& rows) {
    using Routing::Gmp::Tidal::FilterMode;
    const auto& ctx = c.context();
    if (!ctx.membership) return;
    for (const auto& [key, m] : ctx.membership->membership()) {
        const auto& rk = key.routeKey;
        const Route* route = ctx.status->route(rk).get();
        const Intf* intf = route ? route->routeIntfRaw(key.intf) : nullptr;
        Json decision = "ignored";
        Json reason;
        if (intf && (intf->localReceiverInclude() || intf->localReceiverExclude())) {
            const bool include = intf->localReceiverInclude();
            decision = include ? "include" : "exclude";
            // The receiver flag is set; whether the olist takes it depends on
            // this router being the one to forward onto the link.
            const bool counted = include ? (rk.isWc() ? intf->includeWc() : intf->includeSg())
                                         : (rk.isWc() ? intf->iAmDr() : intf->excludeSg());
            if (!counted) {
                reason = intf->iAmDr() ? "lost assert" : "not DR on interface";
                decision = "ignored";
            }
        } else if (const char* why = c.gmpSm()->ignoredReason(key)) {
            reason = why;
        } else {
            // Counted, but the membership review has not reached it yet.
            decision = "pending";
        }
        Json row;
        row["vrf"] = vrf.str();
        row["interface"] = key.intf.name();
        row["source"] = rk.isWc() ? std::string("*") : rk.source().str();
        row["group"] = rk.group().str();
        row["mode"] = m.filterMode == FilterMode::include   ? "include"
                      : m.filterMode == FilterMode::exclude ? "exclude"
                                                            : "none";
        row["decision"] = decision;
        row["reason"] = reason;
        rows.push_back(row);
    }
}

// One row per RP mapping: the group range, its RP and where the mapping came
// from, whether the RP is one of this router's addresses, and the unicast
// route and PIM neighbour toward it (what a (*,G) route of the range would
// join through), with the reason when the RP cannot be joined.
void rpRows(const L3::VrfName& vrf, const ContainerSm& c, Json& rows) {
    const auto& ctx = c.context();
    if (!ctx.rpMapping) return;
    // The mapping is a hash map: list it in group-range order.
    std::map<Wirl::IpGenPrefix, Wirl::IpGenAddr> mappings;
    for (const auto& [range, rp] : ctx.rpMapping->rp()) mappings.emplace(range, rp);
    for (const auto& [range, rp] : mappings) {
        const bool iAmRp = ctx.rpLocalStatus && ctx.rpLocalStatus->iAmRp(rp);
        const auto lookup = rpfLookup(c, rp);
        Wirl::IpGenAddr neighbor;
        if (lookup) neighbor = lookup->attached ? rp : lookup->rpf.neighbor;
        const bool pimNeighbor =
            lookup && ctx.pimStatus->neighborExists(lookup->rpf.intf, neighbor);
        Json row;
        row["vrf"] = vrf.str();
        row["group-range"] = range.str();
        row["rp"] = rp.str();
        row["origin"] = "static";
        row["i-am-rp"] = iAmRp;
        row["rpf-interface"] = lookup ? Json(lookup->rpf.intf.name()) : Json();
        row["rpf-neighbor"] = lookup && pimNeighbor ? Json(neighbor.str()) : Json();
        row["rpf-route"] = lookup ? Json(lookup->prefix.str()) : Json();
        row["reachable"] = iAmRp || pimNeighbor;
        row["reason"] = iAmRp          ? Json("this router is the RP")
                        : !lookup      ? Json("no route to RP")
                        : !pimNeighbor ? Json("RPF neighbour not a PIM neighbour")
                                       : Json();
        rows.push_back(row);
    }
}

// The VRF's PIM interfaces in name order (the status keeps them hashed).
std::map<Wirl::IntfId, const Routing::Pim::PimIntfStatus*> pimIntfs(const ContainerSm& c) {
    std::map<Wirl::IntfId, const Routing::Pim::PimIntfStatus*> out;
    for (const auto& [id, intf] : c.pimStatus()->intf()) out.emplace(id, intf.get());
    return out;
}

// One row per PIM neighbour, with its generation ID and when it came up.
void neighborRows(const L3::VrfName& vrf, const Runner& runner, const ContainerSm& c, Json& rows) {
    const double now = c.context().loop->now();
    for (const auto& [id, intf] : pimIntfs(c)) {
        std::map<Wirl::IpGenAddr, const Routing::Pim::PimNeighborStatus*> neighbors;
        for (const auto& [address, n] : intf->neighbor()) neighbors.emplace(address, n.get());
        for (const auto& [address, n] : neighbors) {
            const double since = runner.neighborSince(vrf, id, address);
            Json row;
            row["vrf"] = vrf.str();
            row["interface"] = id.name();
            row["address"] = address.str();
            row["gen-id"] = n->genId();
            row["uptime"] = since < 0 ? Json() : seconds(now - since);
            rows.push_back(row);
        }
    }
}

// One row per PIM interface: this router's address, the DR, the protocol
// timers and how many neighbours were heard.
void interfaceRows(const L3::VrfName& vrf, const ContainerSm& c, Json& rows) {
    for (const auto& [id, intf] : pimIntfs(c)) {
        Json row;
        row["vrf"] = vrf.str();
        row["interface"] = id.name();
        row["address"] = fmt::format("{}/{}", intf->usedAddr(), int(intf->usedMaskLen()));
        row["dr"] = intf->iAmDr();
        row["dr-address"] = addressOrNull(intf->usedDr());
        row["override-interval"] = seconds(intf->joinPruneOverrideInterval());
        row["assert-timeout"] = intf->assertTimeout();
        row["neighbors"] = intf->neighbor().size();
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
                    rows.push_back(routeRow(v.name, *c, *route));
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
            case Output::membership:
                membershipRows(v.name, *c, rows);
                break;
            case Output::rp:
                rpRows(v.name, *c, rows);
                break;
            case Output::neighbors:
                neighborRows(v.name, runner, *c, rows);
                break;
            case Output::interfaces:
                interfaceRows(v.name, *c, rows);
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
        row["time"] = seconds(l.time);
        row["level"] = l.level;
        row["text"] = l.text;
        rows.push_back(row);
    }
    seen = ring.total();
    return rows;
}

}  // namespace Driver
