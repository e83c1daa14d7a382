#include "driver/outputs.h"

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
    row["oifs"] = oifs;
    row["why"] = reasons;
    return row;
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
    return row;
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
