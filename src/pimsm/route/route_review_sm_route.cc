// The per-route part of the route review: what one route gets from the
// change set under review (doReviewRoute), deletion and
// resurrection, and the fast-failover upstream.
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "cask/trace.h"
#include "pimsm/route/route_review_sm.h"

namespace Routing::Pim::SparseMode {

using Routing::Pim::NeighborKey;
using Routing::Pim::RouteKey;
using Wirl::IntfId;

// --- one route ------------------------------------------------------------------

namespace {

const IntfChange* intfChangeOf(const ChangeSet& cs, IntfId intf) {
    if (intf.isNull()) return nullptr;
    auto it = cs.intfChange().find(intf);
    return it == cs.intfChange().end() ? nullptr : it->second.get();
}

bool anyFlag(const IntfChange& c) {
    return c.intfStatusChanged || c.drStatusChanged || c.addressChanged || c.toBeDeleted ||
           c.mbrStatusChanged || c.sourceInjectChanged || c.fastFailoverChanged ||
           c.boundaryStatusChanged || c.vxlanIntfChanged;
}

}  // namespace

void RouteReviewSm::doReviewRoute(const RouteKey& key, ChangeSet& cs) {
    const Cask::Ptr<Route> route = in_.status->route(key);
    if (!route) return;
    // A cleared or marked route is deleted (or re-created fresh).
    if (cs.clearCovers(key)) {
        CASK_VRF_TRACE(7, in_.vrfName, "RouteReviewSm::doReviewRoute({}): clearing route", key);
        deleteOrResurrect(key);
        return;
    }
    if (route->markedForDeletion()) {
        deleteOrResurrect(key);
        return;
    }
    // Interface records marked for removal go; the others hear what changed.
    doReviewRouteIntf(*route, cs);
    // The group left sparse mode (now SSM, or bidirectional).
    const auto& group = key.group();
    auto* ssm = in_.localStatus->ssmGroupInfo();
    if (cs.ssmConfigChanged() && ssm && ssm->ssmGroup(group, *in_.config) &&
        !ssm->ssmGroup(group, *ssmBefore_)) {
        CASK_VRF_TRACE(
            6, in_.vrfName,
            "RouteReviewSm::doReviewRoute({}): Marking route {} for deletion, group in SSM range",
            key, key);
        route->markedForDeletionIs(true);
    }
    auto* filter = in_.localStatus->groupFilterStatus();
    if (cs.groupFilterStatusChanged() && filter &&
        !filter->permitGroup(Wirl::IpGenPrefix::hostPrefix(group))) {
        CASK_VRF_TRACE(6, in_.vrfName,
                       "RouteReviewSm::doReviewRoute({}): Marking route {} for deletion, group is "
                       "bidirectional",
                       key, key);
        route->markedForDeletionIs(true);
    }
    // The fast-failover upstream follows the filter and the RPF interface.
    const IntfChange* rpfChange = intfChangeOf(cs, route->iif());
    if (cs.frrFilterStatusChanged() || (rpfChange && rpfChange->fastFailoverChanged)) {
        doReviewUmhFrr(*route);
    }
    // Hand the route what touched its upstream, as change flags.
    ChangeFlags flags;
    if (!cs.intfChange().empty() || !cs.neighborChange().empty()) {
        flags = doReviewUpstream(*route, cs);
    }
    CASK_VRF_TRACE(8, in_.vrfName,
                   "RouteReviewSm::doReviewRoute({}): Reviewing route {}, change flags: {}", key,
                   key, flags);
    if (!flags.empty()) {
        route->changeFlagsIs(flags);
        route->routeChangedInc();
        route->changeFlagsIs(ChangeFlags{});
    }
    // A route marked during this review (SSM, bidirectional) goes now.
    doMaybeDeleteRoute(*route);
}

void RouteReviewSm::doReviewRouteIntf(Route& route, const ChangeSet& cs) {
    if (route.routeIntfSize() == 0) return;
    std::vector<IntfId> gone;
    std::vector<std::pair<IntfId, IntfChangeFlags>> touched;
    for (const auto& [id, intf] : route.routeIntf()) {
        const IntfChange* c = intfChangeOf(cs, id);
        if (intf->toBeDeleted() || (c && c->toBeDeleted)) {
            gone.push_back(id);
            continue;
        }
        if (!c) continue;
        using Bit = IntfChangeFlags::Bit;
        IntfChangeFlags f;
        f.set(Bit::intfStatus, c->intfStatusChanged);
        f.set(Bit::drStatus, c->drStatusChanged);
        f.set(Bit::address, c->addressChanged);
        f.set(Bit::boundary, c->boundaryStatusChanged);
        f.set(Bit::vxlan, c->vxlanIntfChanged);
        f.set(Bit::fastFailover, c->fastFailoverChanged);
        if (!f.empty()) touched.emplace_back(id, f);
    }
    for (const auto id : gone) {
        CASK_VRF_TRACE(7, in_.vrfName,
                       "RouteReviewSm::doReviewRouteIntf({}): removing interface {}", route.key(),
                       id);
        route.routeIntfDel(id);
    }
    for (const auto& [id, f] : touched) {
        auto intf = route.routeIntf(id);
        if (!intf) continue;
        using Bit = IntfChangeFlags::Bit;
        const auto& k = route.key();
        if (f.has(Bit::intfStatus)) {
            CASK_VRF_TRACE(8, in_.vrfName,
                           "RouteReviewSm::doReviewRouteIntf({}): Status changed for interface {}",
                           k, id);
        }
        if (f.has(Bit::drStatus)) {
            CASK_VRF_TRACE(
                8, in_.vrfName,
                "RouteReviewSm::doReviewRouteIntf({}): DR status changed on interface {}", k, id);
        }
        if (f.has(Bit::address)) {
            CASK_VRF_TRACE(8, in_.vrfName,
                           "RouteReviewSm::doReviewRouteIntf({}): Address changed on interface {}",
                           k, id);
        }
        if (f.has(Bit::boundary)) {
            CASK_VRF_TRACE(8, in_.vrfName,
                           "RouteReviewSm::doReviewRouteIntf({}): Boundary status changed {}", k,
                           id);
        }
        if (f.has(Bit::vxlan)) {
            CASK_VRF_TRACE(
                8, in_.vrfName,
                "RouteReviewSm::doReviewRouteIntf({}): Vxlan status changed on interface {}", k,
                id);
        }
        if (f.has(Bit::fastFailover)) {
            CASK_VRF_TRACE(
                8, in_.vrfName,
                "RouteReviewSm::doReviewRouteIntf({}): Fast failover changed on interface {}", k,
                id);
        }
        intf->changeFlagsIs(f);
        intf->pimIntfChangedInc();
        intf->changeFlagsIs(IntfChangeFlags{});
    }
}

void RouteReviewSm::doReviewUmhFrr(Route& route) {
    switch (doUpdateUmhFrr(route)) {
        case UmhFrrChange::created:
            CASK_VRF_TRACE(6, in_.vrfName, "RouteReviewSm::doReviewRoute({}): create Frr for {}",
                           route.key(), route.key());
            break;
        case UmhFrrChange::deleted:
            CASK_VRF_TRACE(6, in_.vrfName, "RouteReviewSm::doReviewRoute({}): Frr disabled for {}",
                           route.key(), route.key());
            break;
        case UmhFrrChange::none:
            break;
    }
}

RouteReviewSm::UmhFrrChange RouteReviewSm::doUpdateUmhFrr(Route& route) const {
    const auto* frr = in_.localStatus->frrFilterStatus();
    const bool enabled = frr && frr->frrEnabled(route.key().group());
    if (enabled && !route.umhFrr()) {
        route.umhFrrIs(doCreateUmhFrr(route));
        return UmhFrrChange::created;
    }
    if (!enabled && route.umhFrr()) {
        route.umhFrrIs(nullptr);
        return UmhFrrChange::deleted;
    }
    return UmhFrrChange::none;
}

Cask::Ptr<UpstreamInfo> RouteReviewSm::doCreateUmhFrr(Route& route) const {
    auto frr = Cask::make<UpstreamInfo>(&route, true);
    const auto& target = route.isWc() ? route.umh()->rp() : route.key().source();
    frr->doUpdateRpf(in_.rpfStatus->rpf(target));
    return frr;
}

ChangeFlags RouteReviewSm::doReviewUpstream(Route& route, const ChangeSet& cs) {
    using Bit = ChangeFlags::Bit;
    ChangeFlags flags;
    const auto& key = route.key();
    const auto& pim = *in_.pimStatus;
    auto sourceInject = [&](IntfId i) {
        auto* rec = pim.intfRaw(i);
        return rec && rec->sourceInject();
    };
    // Interfaces: the incoming one and the border (MBR) ones.
    const IntfId iif = route.iif();
    if (const IntfChange* c = intfChangeOf(cs, iif); c && anyFlag(*c)) {
        CASK_VRF_TRACE(
            7, in_.vrfName,
            "RouteReviewSm::doReviewRoute({}): Status changed for RPF interface {} for route {}",
            key, iif, key);
        flags.set(Bit::rpfIntfStatus);
        if (c->boundaryStatusChanged && in_.mcastBoundaryStatus &&
            in_.mcastBoundaryStatus->filters(iif, key.group())) {
            CASK_VRF_TRACE(7, in_.vrfName,
                           "RouteReviewSm::doReviewRoute({}): Boundary status changed for RPF "
                           "interface {} for route {}",
                           key, iif, key);
            flags.set(Bit::rpfBoundary);
        }
        if (c->sourceInjectChanged) {
            CASK_VRF_TRACE(
                7, in_.vrfName,
                "RouteReviewSm::doReviewRoute({}): Source inject on RPF intf {} is {} for route {}",
                key, iif, sourceInject(iif), key);
            flags.set(Bit::sourceInject);
        }
        if (c->drStatusChanged) {
            if (pim.iAmDr(iif)) {
                CASK_VRF_TRACE(7, in_.vrfName,
                               "RouteReviewSm::doReviewRoute({}): Became DR on {} which is the RPF "
                               "interface for {}",
                               key, iif, key);
            } else {
                CASK_VRF_TRACE(7, in_.vrfName,
                               "RouteReviewSm::doReviewRoute({}): No longer DR on {} which is the "
                               "RPF interface for {}",
                               key, iif, key);
            }
            flags.set(Bit::rpfDrStatus);
        }
    }
    const IntfId prevIif = route.prevRpf().intf;
    if (const IntfChange* c = intfChangeOf(cs, prevIif); c && anyFlag(*c)) {
        CASK_VRF_TRACE(7, in_.vrfName,
                       "RouteReviewSm::doReviewRoute({}): Status changed for prev RPF interface {} "
                       "for route {}",
                       key, prevIif, key);
        flags.set(Bit::prevRpfIntfStatus);
    }
    const IntfId frrIif = route.rpfFrr().intf;
    if (const IntfChange* c = intfChangeOf(cs, frrIif); c && anyFlag(*c)) {
        CASK_VRF_TRACE(7, in_.vrfName,
                       "RouteReviewSm::doReviewRoute({}): IntfStatus changed for RPF FRR interface "
                       "{} for route {}",
                       key, frrIif, key);
        flags.set(Bit::rpfFrrIntfStatus);
    }
    const IntfId mbr = route.mbrIif();
    if (const IntfChange* c = intfChangeOf(cs, mbr); c && anyFlag(*c)) {
        CASK_VRF_TRACE(
            7, in_.vrfName,
            "RouteReviewSm::doReviewRoute({}): Mbr Status changed for interface {} for route {}",
            key, mbr, key);
        flags.set(Bit::mbrIntfStatus);
        if (c->sourceInjectChanged) {
            CASK_VRF_TRACE(
                7, in_.vrfName,
                "RouteReviewSm::doReviewRoute({}): Source inject on MBR intf {} is {} for route {}",
                key, mbr, sourceInject(mbr), key);
            flags.set(Bit::sourceInject);
        }
    }
    // Upstream neighbours; `flapText` names the neighbour when it is up
    // again after a change.
    auto neighbor = [&](const Routing::Pim::Rpf& rpf, Bit statusBit, Bit genIdBit,
                        const char* which, const char* flapText) {
        if (!rpf.hasNeighbor() || cs.neighborChange().empty()) return;
        const NeighborKey nk{rpf.intf, rpf.neighbor};
        auto it = cs.neighborChange().find(nk);
        if (it == cs.neighborChange().end()) return;
        const NeighborChange& c = *it->second;
        if (c.neighborStatusChanged) {
            CASK_VRF_TRACE(
                7, in_.vrfName,
                "RouteReviewSm::doReviewRoute({}): Status changed for {} neighbor {} for route {}",
                key, which, rpf.neighbor, key);
            flags.set(statusBit);
            if (pim.activeNeighborHas(nk)) {
                CASK_VRF_TRACE(7, in_.vrfName,
                               "RouteReviewSm::doReviewRoute({}): {} flapped for route {}", key,
                               fmt::format(fmt::runtime(flapText), rpf.neighbor, rpf.intf), key);
            }
        }
        if (c.genIdChanged) {
            CASK_VRF_TRACE(
                7, in_.vrfName,
                "RouteReviewSm::doReviewRoute({}): Gen ID changed for {} neighbor {} for route {}",
                key, which, rpf.neighbor, key);
            flags.set(genIdBit);
        }
    };
    neighbor(route.rpf(), Bit::rpfNbrStatus, Bit::rpfNbrGenId, "RPF", "Neighbor {}");
    neighbor(route.prevRpf(), Bit::prevRpfNbrStatus, Bit::prevRpfNbrGenId, "prev RPF",
             "Prev neighbor {} on {}");
    neighbor(route.rpfFrr(), Bit::rpfFrrNbrStatus, Bit::rpfFrrNbrGenId, "FRR RPF",
             "FRR RPF neighbor {}");
    // A route whose RPF interface has no usable neighbour (it went, or the
    // unicast next hop is not a PIM neighbour yet) hears of every neighbour
    // that comes or goes on that interface: it may be the RPF neighbour now.
    const auto& rpf = route.rpf();
    if (rpf.resolved() && !rpf.hasNeighbor()) {
        for (const auto& [nk, c] : cs.neighborChange()) {
            if (nk.intf != rpf.intf || !c->neighborStatusChanged) continue;
            CASK_VRF_TRACE(
                7, in_.vrfName,
                "RouteReviewSm::doReviewRoute({}): Status changed for RPF neighbor {} for route {}",
                key, nk.address, key);
            flags.set(Bit::rpfNbrStatus);
            break;
        }
    }
    return flags;
}

void RouteReviewSm::doMaybeDeleteRoute(Route& route) {
    if (!route.markedForDeletion()) return;
    const RouteKey key = route.key();
    if (route.discoveredSg()) {
        // Source discovery owns such a route; it is removed when its
        // discovery input ends.
        CASK_VRF_TRACE(7, in_.vrfName,
                       "RouteReviewSm::doMaybeDeleteRoute({}): kept, discovered source", key);
        return;
    }
    CASK_VRF_TRACE(6, in_.vrfName, "RouteReviewSm::doMaybeDeleteRoute({}): deleting route", key);
    in_.status->routeDel(key);
}

void RouteReviewSm::deleteOrResurrect(const RouteKey& key) {
    const auto route = in_.status->route(key);
    if (!route) return;
    std::vector<IntfId> include;
    if (in_.membership) {
        for (const auto& [id, intf] : route->routeIntf()) {
            const auto m = in_.membership->membership({key, id});
            if (m.filterMode != Routing::Gmp::Tidal::FilterMode::include) continue;
            CASK_VRF_TRACE(7, in_.vrfName,
                           "RouteReviewSm::deleteOrResurrect({}) Adding to Include: {}", key, id);
            include.push_back(id);
        }
    }
    CASK_VRF_TRACE(6, in_.vrfName, "RouteReviewSm::deleteOrResurrect({}) deleting route", key);
    in_.status->routeDel(key);
    if (include.empty()) return;
    CASK_VRF_TRACE(4, in_.vrfName, "RouteReviewSm::deleteOrResurrect({}) Resurrecting route {}",
                   key, key);
    auto fresh = in_.status->routeIs(key);
    if (!fresh) return;  // over the agent's route limit (traced there)
    for (const auto id : include) {
        auto intf = fresh->routeIntfIs(id);
        if (!intf) continue;
        intf->localReceiverIncludeIs(true);
        intf->initializedIs(true);
        CASK_VRF_TRACE(7, in_.vrfName,
                       "RouteReviewSm::deleteOrResurrect({}) Adding back to Include: {}", key, id);
    }
    fresh->initializedIs(true);
}

}  // namespace Routing::Pim::SparseMode
