#pragma once
// UpstreamInfo: the upstream side of a route (its "upstream multicast hop"):
// where traffic comes from (RPF interface and neighbour), the previous RPF
// while a change is in progress, the group's RP, and the upstream (S,G,rpt)
// state. A route owns one (`umh`) and, while fast failover is enabled for
// it, a second one for the backup path (`umhFrr`, with `frr` set).
//
// Every change is passed on to the route's watchers too
// (`Route::Notifiee::handleUmhAttr`), so the machines watch the route only:
// a change of `rpf` is how they learn that RPF' moved.

#include "cask/collection.h"
#include "pimsm/route/route_types.h"
#include "platform/rpf.h"

namespace Routing::Pim::SparseMode {

class Route;

// The attributes of an UpstreamInfo, as its route passes them on.
enum class UmhAttr : std::uint8_t {
    rpf,
    prevRpf,
    mbrIif,
    rpfAttached,
    rp,
    upRptState,
};

class UpstreamInfo : public Cask::Record<UpstreamInfo> {
public:
    class Notifiee : public Cask::NotifieeOf<UpstreamInfo> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleRpf() {}
        virtual void handlePrevRpf() {}
        virtual void handleMbrIif() {}
        virtual void handleUpRptState() {}
        virtual void handleRpfAttached() {}
        virtual void handleRp() {}
    };
    UpstreamInfo(Route* route, bool frr) : route_(route), frr_(frr) {}

    // The route this is the upstream of; null once the route is gone.
    Route* route() const { return route_; }
    bool frr() const { return frr_; }

    const Routing::Pim::Rpf& rpf() const { return rpf_; }
    // Sets RPF', remembering where it pointed before (`formerRpf`).
    void rpfIs(const Routing::Pim::Rpf& v) {
        if (rpf_ == v) return;
        formerRpfIntf_ = rpf_.intf;
        formerRpfNeighbor_ = rpf_.neighbor;
        rpf_ = v;
        notifyWithRoute(&Notifiee::handleRpf, UmhAttr::rpf);
    }
    // RPF' before its last change, interface and neighbour only: where the
    // route's join went until then, and so the neighbour that the upstream
    // (*,G) machine leaves when RPF' moves. Kept here because it describes
    // the route's upstream, not one machine's view of it.
    Routing::Pim::Rpf formerRpf() const {
        Routing::Pim::Rpf r;
        r.intf = formerRpfIntf_;
        r.neighbor = formerRpfNeighbor_;
        return r;
    }
    PIMSM_ROUTE_PART_ATTR(Routing::Pim::Rpf, prevRpf, PrevRpf, UmhAttr)
    // The incoming multicast border interface, if any.
    PIMSM_ROUTE_PART_ATTR(Wirl::IntfId, mbrIif, MbrIif, UmhAttr)
    // The source (or the RP, for a (*,G) route) is directly connected.
    PIMSM_ROUTE_PART_ATTR(bool, rpfAttached, RpfAttached, UmhAttr)
    // The RP of the group, as last resolved.
    PIMSM_ROUTE_PART_ATTR(Wirl::IpGenAddr, rp, Rp, UmhAttr)
    UpRptState upRptState() const { return upRptState_; }
    UpRptState prevRptState() const { return prevRptState_; }

    Wirl::IntfId iif() const { return rpf_.intf; }
    bool directlyConnected() const { return rpfAttached_; }
    // Sets RPF' (announcing `handleRpf` when it changed).
    void doUpdateRpf(const Routing::Pim::Rpf& rpf) { rpfIs(rpf); }
    // Moves to a new upstream (S,G,rpt) state, remembering the old one.
    void doUpdateRptState(UpRptState state);

private:
    friend class Route;
    // Tells this record's watchers, then (while the route still holds this
    // record as `umh` or `umhFrr`) the route's through `handleUmhAttr`.
    void notifyWithRoute(void (Notifiee::*handler)(), UmhAttr attr);

    // Word-aligned members first, then the byte-aligned addresses and
    // flags, so that the record packs without holes (one per route).
    Route* route_;
    Routing::Pim::Rpf rpf_;
    Routing::Pim::Rpf prevRpf_;
    Wirl::IntfId mbrIif_;
    Wirl::IntfId formerRpfIntf_;
    Wirl::IpGenAddr rp_;
    Wirl::IpGenAddr formerRpfNeighbor_;
    bool frr_;
    bool rpfAttached_ = false;
    UpRptState upRptState_ = UpRptState::upRptNotJoined;
    UpRptState prevRptState_ = UpRptState::upRptNotJoined;
};

}  // namespace Routing::Pim::SparseMode
