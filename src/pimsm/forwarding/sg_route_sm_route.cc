// The per-route reactor of SgRouteSm and the decisions it makes on one
// route: SwitchToSptDesired, CheckSwitchToSpt, Update_SPTbit (RFC 7761
// 4.2.2), CouldRegister (4.4) and the register tunnel in the olist.
#include <fmt/format.h>

#include "cask/trace.h"
#include "pimsm/forwarding/sg_route_sm.h"
#include "platform/group_ranges.h"
#include "platform/pim_status.h"
#include "platform/rp_local.h"

namespace Routing::Pim::SparseMode {

using Routing::Pim::RouteKey;
using Routing::Pim::Rpf;

static_assert(ChangeFlags{ChangeFlags::Bit::programmable}.value() ==
              SgRouteSm::programmableChangeFlag);

// A reactor per (S,G) route: the route's watcher (vtable and route
// pointer), the machine and the keepalive start time, 32 bytes on x86-64.
static_assert(sizeof(SgRouteSm::RhoRoute) <= 64, "SgRouteSm::RhoRoute per-route budget");

// --- RhoRoute -----------------------------------------------------------------------------

SgRouteSm::RhoRoute::RhoRoute(SgRouteSm& sm, Route& route)
    : RouteReactor(route), sm_(sm), katStart_(sm.now()) {}

void SgRouteSm::RhoRoute::handleRouteInit() {
    CASK_VRF_TRACE(6, sm_.vrfName(), "SgRouteSm::handleRouteInit({})", route().key());
    if (route().spTree()) handleSpTree();
    sm_.switchToSptDesired(route());
    sm_.couldRegister(route());
}

void SgRouteSm::RhoRoute::handleDelete() {
    const RouteKey& key = route().key();
    CASK_VRF_TRACE(6, sm_.vrfName(), "SgRouteSm::handleDelete({})", key);
    sm_.ctx_.registerConfig->couldRegisterSgDel(key);
    sm_.ctx_.registerConfig->couldSendRegisterStopDel(key);
}

void SgRouteSm::RhoRoute::handleSpTree() {
    const RouteKey& key = route().key();
    auto& rc = *sm_.ctx_.registerConfig;
    if (route().spTree()) {
        CASK_VRF_TRACE(7, sm_.vrfName(),
                       "SgRouteSm::handleSpTree(): SPT bit set - couldSendRegisterStop adding {}",
                       key);
        rc.couldSendRegisterStopIs(key);
    } else {
        CASK_VRF_TRACE(7, sm_.vrfName(),
                       "SgRouteSm::handleSpTree(): SPT bit cleared - couldSendRegisterStop "
                       "deleting {}",
                       key);
        rc.couldSendRegisterStopDel(key);
    }
}

void SgRouteSm::RhoRoute::handleChangeFlags() {
    // The route review hands over what changed under the route's upstream
    // (DR role, PIM status of the RPF interface, the unicast route).
    if (route().changeFlags().empty()) return;
    sm_.couldRegister(route());
}

void SgRouteSm::RhoRoute::handleUmhAttr(UpstreamInfo& umh, UmhAttr attr) {
    if (umh.frr()) return;
    if (attr != UmhAttr::rpf && attr != UmhAttr::rpfAttached) return;
    Route& r = route();
    if (attr == UmhAttr::rpf && r.mbr()) {
        // A border-router route keeps its border flag while its traffic
        // comes in on the border interface.
        const Wirl::IntfId mbrIif = r.mbrIif();
        const bool boundary = sm_.boundaryOn(mbrIif, r.key().group());
        if (boundary) {
            CASK_VRF_TRACE(7, sm_.vrfName(), "SgRouteSm::handleMbrRpf({}), Boundary on MBR intf {}",
                           r.key(), mbrIif);
        }
        if (boundary || (r.rpf().resolved() && r.iif() != mbrIif)) {
            CASK_VRF_TRACE(7, sm_.vrfName(),
                           "SgRouteSm::handleMbrRpf(): reset MBR flag on route {}", r.key());
            r.mbrIs(false);
            r.umh()->mbrIifIs(Wirl::IntfId());
        }
    }
    sm_.couldRegister(r);
}

// --- SwitchToSptDesired -------------------------------------------------------------------

bool SgRouteSm::switchToSptDesired(Route& route) {
    const RouteKey& key = route.key();
    const Wirl::IpGenAddr& group = key.group();
    const bool threshold = ctx_.sptThreshold ? ctx_.sptThreshold(group) : false;
    // Downstream (S,G) state asks for the source tree whatever the policy;
    // a (*,G) route has no such state of its own. The decision is traced for
    // (S,G) routes; for a (*,G) route only a change of `programmable` is.
    const bool sg = !route.isWc();
    bool result;
    if (sg && !route.nullImmediateOlistSg()) {
        CASK_VRF_TRACE(8, ctx_.vrfName, "SgRouteSm::switchToSptDesired({}) Switch due to protocol ",
                       key);
        result = true;
    } else {
        const Wirl::IpGenAddr rp =
            ctx_.rpMapping ? ctx_.rpMapping->rpFor(group) : Wirl::IpGenAddr();
        const bool rpKnown = rp.isSet();
        if (rpKnown && ctx_.rpLocalStatus && ctx_.rpLocalStatus->iAmRp(rp)) {
            if (sg) {
                CASK_VRF_TRACE(8, ctx_.vrfName, "SgRouteSm::switchToSptDesired({}) I am the RP ",
                               key);
            }
            result = true;
        } else {
            if (sg) {
                CASK_VRF_TRACE(8, ctx_.vrfName,
                               "SgRouteSm::switchToSptDesired({}) spt switchover:{}", key,
                               threshold);
            }
            result = threshold;
        }
    }
    // The hardware may forward a route alone when the agent needs none of
    // its packets: not a directly connected source (the DR registers it),
    // not a route fed or feeding the register tunnel, and not one that is
    // to switch to the source tree (its packets start the switch). For a
    // (*,G) route the last test stands for every source of the group.
    const bool hwOnlyPossible =
        route.isWc() || (!route.umh()->directlyConnected() &&
                         route.iif() != Wirl::IntfId::register0() && !route.oifRegister());
    if (hwOnlyPossible) doUpdateProgrammable(route, hwProgrammingAllowed() && !result);
    return result;
}

void SgRouteSm::doUpdateProgrammable(Route& route, bool programmable) {
    if (route.programmable() == programmable) return;
    Cask::Ptr<Route> keep(&route);
    route.programmableIs(programmable);
    const ChangeFlags before = route.changeFlags();
    ChangeFlags raised = before;
    raised.set(ChangeFlags::Bit::programmable);
    CASK_VRF_TRACE(7, ctx_.vrfName,
                   "SgRouteSm::switchToSptDesired({}) changeFlags updated {}, programmable: {}",
                   route.key(), raised, programmable);
    route.changeFlagsIs(raised);
    route.routeChangedInc();
    route.changeFlagsIs(before);
}

// CheckSwitchToSpt(S,G): data on the shared tree restarts the keepalive
// timer (and so starts the switch to the source tree) when a local receiver
// wants the source and SwitchToSptDesired(S,G) holds.
void SgRouteSm::checkSwitchToSpt(Route& route) {
    bool include = false;
    for (const auto& [id, intf] : route.routeIntf()) {
        if (intf->includeSg()) {
            include = true;
            break;
        }
    }
    if (const Route* wc = route.wc(); !include && wc) {
        for (const auto& [id, wcIntf] : wc->routeIntf()) {
            if (!wcIntf->includeWc()) continue;
            const Intf* sgIntf = route.routeIntfRaw(id);
            if (!sgIntf || !sgIntf->excludeSg()) {
                include = true;
                break;
            }
        }
    }
    if (!include || !switchToSptDesired(route)) return;
    if (route.katExpired()) {
        CASK_VRF_TRACE(6, ctx_.vrfName,
                       "SgRouteSm: Clear katExpired, switchover to SPT for route{}, flags: {}",
                       route.key(), route.routeFlagsStr());
    }
    doRestartKeepalive(route, nullptr);
}

void SgRouteSm::doRestartKeepalive(Route& route, const char* what) {
    if (RhoRoute* rho = routes_.get(route.key())) rho->katStartIs(now());
    if (!route.katExpired()) return;
    if (what) {
        CASK_VRF_TRACE(7, ctx_.vrfName, "SgRouteSm::doEvalFwdingRules({}), set katExpired to False",
                       route.key());
        CASK_VRF_TRACE(6, ctx_.vrfName, "SgRouteSm: Setting katExpired to False for {}route: {}",
                       what, route.key());
    }
    route.katExpiredIs(false);
}

// --- Update_SPTbit ------------------------------------------------------------------------

void SgRouteSm::updateSptBit(Route& route, Wirl::IntfId intfId) {
    const RouteKey& key = route.key();
    const L3::VrfName& vrf = ctx_.vrfName;
    const Rpf& rpf = route.rpf();
    if (!rpf.resolved()) {
        CASK_VRF_TRACE(8, vrf, "SgRouteSm::updateSptBit({}), RPF(S) is unknown", key);
        return;
    }
    if (route.umh()->directlyConnected()) {
        CASK_VRF_TRACE(8, vrf,
                       "SgRouteSm::updateSptBit({}), Source is directly connected, set "
                       "SPT bit",
                       key);
        if (!route.spTree()) {
            CASK_VRF_TRACE(6, vrf,
                           "SgRouteSm: Setting SPT bit on connected source {}, flags: {}, intf: {}",
                           key, route.routeFlagsStr(), intfId);
            route.spTreeIs(true);
        }
        return;
    }
    if (intfId != rpf.intf) {
        CASK_VRF_TRACE(8, vrf, "SgRouteSm::updateSptBit({}), RPF(S): {}, is not RPF_Interface(S)",
                       key, intfId);
        return;
    }
    if (route.upJoinState() != UpJoinState::upJoined) {
        CASK_VRF_TRACE(8, vrf, "SgRouteSm::updateSptBit({}), upJoinState: {}, is not upJoined", key,
                       route.upJoinState());
        return;
    }
    // RFC 7761 4.2.2, in its order.
    const Rpf rpfWc = route.rpfWc();
    const bool olistNull = route.nullInheritedOlistSgRpt();
    const bool sameUpstream =
        rpf.hasNeighbor() && rpf.intf == rpfWc.intf && rpf.neighbor == rpfWc.neighbor;
    // I_Am_Assert_Loser(S,G,iif): the assert state itself, since
    // lost_assert(S,G,I) is false by definition on RPF_interface(S).
    const Intf* in = route.routeIntfRaw(intfId);
    const bool assertLoser = in && in->assertInfo().assertState == AssertState::iAmAssertLoser;
    CASK_VRF_TRACE(
        8, vrf,
        "SgRouteSm::updateSptBit({}) rpfS {}, rpfG {}, olist {}, rpfS interface {}, rpfS "
        "neighbor {}, rpfG interface {}, rpfG neighbor {}",
        key, rpf.str(), rpfWc.str(), !olistNull, rpf.intf, rpf.neighbor, rpfWc.intf,
        rpfWc.neighbor);
    const bool set = rpf.intf != rpfWc.intf || olistNull || sameUpstream || assertLoser;
    if (!set) return;
    if (!switchToSptDesired(route)) {
        CASK_VRF_TRACE(8, vrf, "SgRouteSm::updateSptBit({}) switch to SPT not desired", key);
        return;
    }
    if (route.spTree()) return;
    CASK_VRF_TRACE(7, vrf, "SgRouteSm::updateSptBit({}), set SPT", key);
    CASK_VRF_TRACE(6, vrf, "SgRouteSm: Setting SPT bit on source {}, flags: {}, intf: {}", key,
                   route.routeFlagsStr(), intfId);
    route.spTreeIs(true);
}

// --- forwarding rules ---------------------------------------------------------------------

void SgRouteSm::doEvalFwdingRules(Route& route, Wirl::IntfId intfId) {
    Cask::Ptr<Route> keep(&route);
    route.firstInactivityTimeIs(now());
    const Wirl::IntfId rpfS = route.iif();
    // RFC 7761 4.2: the keepalive timer restarts on data from a directly
    // connected source, and on data on the source tree that is forwarded.
    if (!rpfS.isNull() && intfId == rpfS) {
        if (route.umh()->directlyConnected()) {
            doRestartKeepalive(route, "attached ");
        } else if (route.upJoinState() == UpJoinState::upJoined && !route.nullInheritedOlistSg()) {
            doRestartKeepalive(route, "");
        }
    }
    CASK_VRF_TRACE(8, ctx_.vrfName,
                   "SgRouteSm::doEvalFwdingRules({}) calling updateSptBit with "
                   "intfid {}",
                   route.key(), intfId);
    updateSptBit(route, intfId);
    const Rpf rpfWc = route.rpfWc();
    if (!route.spTree() && rpfWc.resolved() && intfId == rpfWc.intf) checkSwitchToSpt(route);
    doUpdateExpiredFlags(route);
    doMaybeMarkRouteForDeletion(route, true);
}

// --- CouldRegister and the register tunnel ------------------------------------------------

void SgRouteSm::couldRegister(Route& route) {
    const RouteKey key = route.key();
    const L3::VrfName& vrf = ctx_.vrfName;
    auto& rc = *ctx_.registerConfig;
    auto notRegistrable = [&] {
        if (rc.couldRegisterSgHas(key)) {
            CASK_VRF_TRACE(7, vrf, "SgRouteSm::couldRegister: deleting for {}", key);
            rc.couldRegisterSgDel(key);
        }
        doMaybeUpdateRegisterOif(key);
    };
    if (route.markedForDeletion()) {
        CASK_VRF_TRACE(8, vrf, "SgRouteSm::couldRegister: Marked for deletion {}", key);
        return notRegistrable();
    }
    if (ctx_.ssmGroupInfo && ctx_.config &&
        ctx_.ssmGroupInfo->ssmGroup(key.group(), *ctx_.config)) {
        CASK_VRF_TRACE(8, vrf, "SgRouteSm::couldRegister: Group in SSM range for {}", key);
        return notRegistrable();
    }
    const Rpf& rpf = route.rpf();
    if (!rpf.resolved() || rpf.intf == Wirl::IntfId::null0()) {
        CASK_VRF_TRACE(8, vrf, "SgRouteSm::couldRegister: RPF not available for {}", key);
        return notRegistrable();
    }
    const auto* pim = ctx_.pimStatus->intfRaw(rpf.intf);
    const bool isLoopbackIntf = rpf.intf.hasPrefix("Loopback");
    if (!pim && !isLoopbackIntf) {
        CASK_VRF_TRACE(8, vrf, "SgRouteSm::couldRegister: {} does not have Pim enabled for {}",
                       rpf.intf, key);
        return notRegistrable();
    }
    const bool iAmDr = pim && pim->iAmDr();
    const bool directlyConnected = route.umh()->directlyConnected();
    const ExpiredFlags expired = route.expiredFlags();
    CASK_VRF_TRACE(8, vrf,
                   "SgRouteSm::couldRegister: values for {}, iAmDr is {}, expiredFlags is {}, "
                   "directlyConnected is {}, isLoopbackIntf is {}",
                   key, iAmDr, expired, directlyConnected, isLoopbackIntf);
    // A source on a loopback without PIM has no DR to elect: this router
    // registers it.
    const bool could = directlyConnected && (pim ? iAmDr : true);
    if (!could) return notRegistrable();
    // Either inactivity bit makes the source inactive for the register
    // process.
    const bool active = !(expired.value() & 0x3u);
    CASK_VRF_TRACE(7, vrf, "SgRouteSm::couldRegister: adding for {}, {} route", key,
                   active ? "active" : "inactive");
    rc.couldRegisterSgIs(key, active);
    doMaybeUpdateRegisterOif(key);
}

void SgRouteSm::doMaybeUpdateRegisterOif(const RouteKey& key) {
    const L3::VrfName& vrf = ctx_.vrfName;
    Route* route = ctx_.localStatus->sgRoute().raw(key);
    if (!route) {
        CASK_VRF_TRACE(8, vrf, "SgRouteSm::doMaybeUpdateRegisterOif({}) route doesn't exist ", key);
        return;
    }
    Cask::Ptr<Route> keep(route);
    const auto& rc = *ctx_.registerConfig;
    const bool could = rc.couldRegisterSgHas(key);
    const bool registerOif = ctx_.registerStatus && ctx_.registerStatus->registerOifHas(key);
    const bool noRegisterOif = ctx_.registerStatus && ctx_.registerStatus->noRegisterOifHas(key);
    const std::string couldText =
        could ? fmt::format("true, route is {}", rc.couldRegisterSg(key) ? "active" : "inactive")
              : std::string("false, ");
    CASK_VRF_TRACE(8, vrf,
                   "SgRouteSm::doMaybeUpdateRegisterOif: values for {}, couldRegister is {}, "
                   "registerOif is {}, noRegisterOif is {}",
                   key, couldText, registerOif, noRegisterOif);
    const bool on = could && registerOif && !noRegisterOif;
    CASK_VRF_TRACE(8, vrf, "SgRouteSm::doMaybeUpdateRegisterOif({}), oifRegister is {} ", key, on);
    route->oifRegisterIs(on);
    if (route->registerOifEvaluated()) return;
    // Traced before the flag is set: setting it lets the forwarding stage
    // program the route.
    CASK_VRF_TRACE(6, vrf,
                   "SgRouteSm::doMaybeUpdateRegisterOif({}), Register in OIF has been "
                   "evaluated.",
                   key);
    route->registerOifEvaluatedIs(true);
}

}  // namespace Routing::Pim::SparseMode
