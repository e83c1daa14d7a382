#pragma once
// UpstreamInfo: the upstream side of a route (its "upstream multicast hop"):
// where traffic comes from (RPF interface and neighbour), the previous RPF
// while a change is in progress, the group's RP, and the upstream (S,G,rpt)
// state. A route owns one (`umh`) and, while fast failover is enabled for
// it, a second one for the backup path (`umhFrr`, with `frr` set).
//
// The upstream machines watch it: a change of `rpf` is how they learn that
// RPF' moved (`handleRpf`).

#include "cask/collection.h"
#include "pimsm/route/route_types.h"
#include "platform/rpf.h"

namespace Routing::Pim::SparseMode {

class Route;

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

    CASK_ATTR(Routing::Pim::Rpf, rpf, Rpf)
    CASK_ATTR(Routing::Pim::Rpf, prevRpf, PrevRpf)
    // The incoming multicast border interface, if any.
    CASK_ATTR(Wirl::IntfId, mbrIif, MbrIif)
    // The source (or the RP, for a (*,G) route) is directly connected.
    CASK_ATTR(bool, rpfAttached, RpfAttached)
    // The RP of the group, as last resolved.
    CASK_ATTR(Wirl::IpGenAddr, rp, Rp)
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
    Route* route_;
    bool frr_;
    bool rpfAttached_ = false;
    UpRptState upRptState_ = UpRptState::upRptNotJoined;
    UpRptState prevRptState_ = UpRptState::upRptNotJoined;
    Routing::Pim::Rpf rpf_;
    Routing::Pim::Rpf prevRpf_;
    Wirl::IntfId mbrIif_;
    Wirl::IpGenAddr rp_;
};

}  // namespace Routing::Pim::SparseMode
