#pragma once
// UpstreamWcSm: the upstream (*,G) machine of one VRF (RFC 7761 4.5.4). For
// every (*,G) route it decides whether the router wants to be on the
// group's shared tree (JoinDesired(*,G)), finds the upstream neighbour
// toward the RP (RPF'(*,G)) and keeps that neighbour's outgoing Join/Prune
// contents in step: the periodic (*,G) Join, a triggered Join when it
// starts, a triggered Prune to the neighbour it leaves, and an override Join
// when another router prunes the group from the same neighbour. It also
// keeps the `forward` / `fastForward` bits of the route's interfaces, since
// the RPF interface never forwards.
// Watches: LocalStatus.wcRoute, each route's interfaces, upstream and change flags,
//          received (*,G) Join/Prune entries.
// Writes:  RPF'(*,G), the RP and upJoinState of (*,G) routes, Intf::forward / fastForward
//          of (*,G) routes, (*,G) Join/Prune entries through JoinPruneWriter.
//
// It writes contents only: the packet side owns the periodic, triggered,
// override and suppression timers. One per VRF and address family, with one
// `RhoRoute` per route of `LocalStatus.wcRoute`, which hears the route's
// interfaces and upstream through the route.

#include <memory>
#include <unordered_map>

#include "cask/collection.h"
#include "cask/reactor_map.h"
#include "pimsm/common/join_prune_rx_watcher.h"
#include "pimsm/common/vrf_context.h"
#include "pimsm/route/local_status.h"
#include "pimsm/upstream/forward_bits.h"
#include "pimsm/upstream/rpf_table.h"
#include "platform/join_prune.h"
#include "platform/join_prune_writer.h"
#include "platform/pim_status.h"
#include "platform/rp_local.h"
#include "platform/vrf_records.h"
#include "wirl/vrf_name.h"

namespace Routing::Pim::SparseMode {

class UpstreamWcSm : public Cask::Record<UpstreamWcSm>, public LocalStatus::Notifiee {
public:
    class Notifiee : public Cask::NotifieeOf<UpstreamWcSm> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleIgnoredRxJoins() {}
        virtual void handleIgnoredRxPrunes() {}
        virtual void handleInitialized() {}
    };

    // Keeps the forwarding bits and the join decision of one route and of
    // its interfaces, whose changes reach it through the route.
    class RhoRoute : public RouteReactor {
    public:
        RhoRoute(UpstreamWcSm& sm, Route& route);
        ~RhoRoute() override;
        RhoRoute(const RhoRoute&) = delete;
        RhoRoute& operator=(const RhoRoute&) = delete;

        Route& route() const { return *notifier(); }
        UpstreamWcSm& sm() const { return sm_; }

        // Reactor created: takes up the route's interfaces and join state.
        void handleRouteInit();
        // Every change of RPF'(*,G) (`umh.rpf`).
        void handleRpf();
        // The route review handed the route what changed under its upstream.
        void handleChangeFlags() override;
        void handleRouteIntf(Wirl::IntfId intf) override { handleIntf(intf); }
        void handleUmhFrr() override;
        void handleIntfAttr(Intf& intf, IntfAttr attr) override;
        void handleUmhAttr(UpstreamInfo& umh, UmhAttr attr) override;
        void handleIntf(Wirl::IntfId intf);
        void handleIntfChange(Wirl::IntfId intf, bool assertChanged);
        // The route left `wcRoute`: withdraws a join still written for it.
        void handleDelete();

    private:
        UpstreamWcSm& sm_;
    };

    // The routes' reactors, in the VRF's route directory.
    using RouteMap = Cask::ReactorMap<Routing::Pim::RouteKey, RhoRoute, Cask::SharedIndex>;

    // Reads from the context: localStatus, pimStatus and joinPruneStatus
    // (required); rpMapping, rpfTable, rpLocalStatus, joinPruneRxStatus (each
    // read as "nothing" when absent: no RP, no RPF, not an RP, no message).
    explicit UpstreamWcSm(const VrfContext& ctx);
    ~UpstreamWcSm() override;

    const L3::VrfName& vrfName() const { return in_.vrfName; }
    const VrfContext& inputs() const { return in_; }

    CASK_COUNTER(std::uint32_t, ignoredRxJoins, IgnoredRxJoins)
    CASK_COUNTER(std::uint32_t, ignoredRxPrunes, IgnoredRxPrunes)
    CASK_ATTR(bool, initialized, Initialized)

    RhoRoute* rhoRoute(const Routing::Pim::RouteKey& key) const;
    std::size_t rhoRouteSize() const { return route_.size(); }
    const RouteMap& routeMap() const { return route_; }

    // Start-up: drops periodic (*,G) Joins left for routes that are gone,
    // takes up the routes present, then sets `initialized`.
    void handleInitialized() override;
    void handleWcRoute(const Routing::Pim::RouteKey& key) override;
    void handleRxJoin();
    void handleRxPrune();

    // RPF'(*,G) of the route; with `updateUmh` the RP and the RP's
    // attachment are stored in the route's upstream.
    Routing::Pim::Rpf rpfPrimeWc(Route& route, bool updateUmh);
    // Recomputes RPF'(*,G) into `umh.rpf`; returns whether it changed.
    bool doEvalRpfPrimeWc(Route& route);
    // The upstream (*,G) join state machine. `rpfFresh`: the caller has
    // just evaluated RPF'(*,G), which a join then need not evaluate again.
    void doEvalJoinDesiredWc(Route& route, bool rpfFresh = false);
    // Writes the periodic and a triggered (*,G) Join for the route at the
    // neighbour, whose Join/Prune entry must exist.
    void doRpfNeighborJoin(const Routing::Pim::RouteKey& key, Wirl::IntfId intf,
                           const Wirl::IpGenAddr& neighbor);
    // The same toward an RP and neighbour already looked up.
    void doJoinNeighbor(const Routing::Pim::RouteKey& key, Wirl::IntfId intf,
                        const Wirl::IpGenAddr& neighbor, const Wirl::IpGenAddr& rp);
    // Withdraws the route's (*,G) Join from the neighbour of `prevRpf` and
    // sends it a triggered Prune while it is still an active neighbour.
    void doPrevRpfNeighborCleanup(const Routing::Pim::RouteKey& key,
                                  const Routing::Pim::Rpf& prevRpf);
    // The group's RP mapping changed (WcRouteReviewSm): re-evaluates
    // RPF'(*,G) and the join state, and makes the Join name the new RP even
    // when RPF' stays the same neighbour (RFC 7761 4.5.4).
    void handleRpChange(Route& route);
    // The route's RP, or the RP its periodic Join names, is not the group's
    // RP now.
    bool rpChanged(const Route& route) const;
    void doMaybeSetFastForwardBit(Wirl::IntfId intf, Route& route);
    // The forward and fast-forward bits, with immediate_olist(*,G)
    // evaluated once.
    void doMaybeSetForwardBits(Wirl::IntfId intf, Route& route);
    // The fast-forward bit of `intf`, given immediate_olist(*,G) there
    // (false on the incoming interface).
    void setFastForward(Intf& intf, const Route& route, bool olist);
    // True (traced) for a received entry that does not concern a joined
    // (*,G) route's RPF' or previous RPF'.
    bool ignoreRxJoinPrune(const Routing::Pim::JoinPruneMessageInfo& m) const;

private:
    Wirl::IpGenAddr rpOf(const Wirl::IpGenAddr& group) const;
    // The neighbour of `rpf` holds a periodic (*,G) entry for the group.
    bool joinWrittenAt(const Routing::Pim::Rpf& rpf, const Wirl::IpGenAddr& group) const;
    // Writes the (*,G) Join toward `rp` into the periodic and triggered sets.
    void doWriteJoin(Routing::Pim::JoinPruneNeighbor& nbr, const Wirl::IpGenAddr& group,
                     const Wirl::IpGenAddr& rp);
    // The neighbour of a received entry: RPF' or the previous RPF'.
    static const Routing::Pim::Rpf* rxRpf(const Route& route,
                                          const Routing::Pim::JoinPruneMessageInfo& m);

    const VrfContext& in_;
    // Every change to the outgoing Join/Prune contents goes through it.
    Routing::Pim::JoinPruneWriter writer_;
    ForwardBits forwardBits_;
    std::uint32_t ignoredRxJoins_ = 0;
    std::uint32_t ignoredRxPrunes_ = 0;
    bool initialized_ = false;
    JoinPruneRxWatcher<UpstreamWcSm> rxWatcher_{
        *this, {.join = &UpstreamWcSm::handleRxJoin, .prune = &UpstreamWcSm::handleRxPrune}};
    RouteMap route_{in_.routeReactors};
};

// Creates the VRF's UpstreamWcSm and starts it (`handleInitialized`).
Cask::Ptr<UpstreamWcSm> upstreamWcSmFactory(const VrfContext& ctx);

// RFC 7761 compares RPF neighbours by interface and address.
inline bool sameNeighbor(const Routing::Pim::Rpf& a, const Routing::Pim::Rpf& b) {
    return a.intf == b.intf && a.neighbor == b.neighbor;
}

}  // namespace Routing::Pim::SparseMode
