#pragma once
// UpstreamSgRptSm: the upstream (S,G,rpt) machine of one VRF (RFC 7761
// 4.5.6, 4.5.7). For every (S,G) route it keeps the upstream (S,G,rpt)
// state (RPTNotJoined, Pruned, NotPruned) from RPTJoinDesired(G) and
// PruneDesired(S,G,rpt): it prunes a source off the shared tree toward
// RPF'(S,G,rpt) when the router takes the source from its shortest-path
// tree or wants none of it, keeps that Prune in the periodic message of the
// RPF'(*,G) neighbour (so it goes out with every (*,G) Join) and moves it
// when RPF'(*,G) moves, and overrides another router's (S,G,rpt) Prune on
// the shared tree while this router still needs the source there (the
// override is cancelled by another router's Join(S,G,rpt)).
// While an (S,G) route is carried on the shared tree (see shared_tree.h) it
// also keeps the route's RPF' (RPF'(S,G,rpt)) and its forwarding bits
// (inherited_olist(S,G,rpt)); the upstream (S,G) machine keeps them
// otherwise.
// Watches: LocalStatus.sgRoute (one RhoRoute per route: join state, RPF',
//          SPT bit, interfaces), the (*,G) route of each group it keeps (S,G)
//          routes of (WcFanOut: its interfaces and RPF' feed every (S,G) route
//          of the group), received Join/Prune entries (JoinPruneRxWatcher).
// Writes:  umh upRptState of (S,G) routes (its only writer); umh.rpf and
//          Intf::forward / fastForward of (S,G) routes on the shared tree;
//          (S,G,rpt) Join/Prune entries through JoinPruneWriter: triggered
//          Joins and Prunes, the periodic Prune at RPF'(*,G), override
//          Joins.
//
// It writes contents only: the packet side sends the periodic set with the
// (*,G) Join, and the override set after its override delay (deleting the
// entry cancels it, which stands for RFC 7761's Override Timer).

#include "cask/collection.h"
#include "cask/reactor_map.h"
#include "pimsm/common/join_prune_rx_watcher.h"
#include "pimsm/common/vrf_context.h"
#include "pimsm/common/wc_fan_out.h"
#include "pimsm/route/local_status.h"
#include "pimsm/route/status.h"
#include "pimsm/upstream/forward_bits.h"
#include "pimsm/upstream/rpf_table.h"
#include "platform/join_prune.h"
#include "platform/join_prune_writer.h"
#include "platform/pim_status.h"

namespace Routing::Pim::SparseMode {

class UpstreamSgRptSm : public Cask::Record<UpstreamSgRptSm>, public LocalStatus::Notifiee {
public:
    class Notifiee : public Cask::NotifieeOf<UpstreamSgRptSm> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleIgnoredRxJoins() {}
        virtual void handleIgnoredRxPrunes() {}
        virtual void handleInitialized() {}
    };

    // One (S,G) route.
    class RhoRoute : public RouteReactor {
    public:
        RhoRoute(UpstreamSgRptSm& sm, Route& route) : RouteReactor(route), sm_(sm) {}
        Route& route() const { return *notifier(); }

        // Reactor created: RPF', bits and state.
        void handleInitialized();
        // The route left upJoined: it falls back to the shared tree.
        void handleUpJoinState() override;
        // The group's (*,G) route came, went, or changed its RPF'.
        void handleWcRouteChanged() override;
        void handleSpTree() override;
        void handleRouteIntf(Wirl::IntfId intf) override;
        void handleIntfAttr(Intf& intf, IntfAttr attr) override;
        void handleUmhAttr(UpstreamInfo& umh, UmhAttr attr) override;
        // A (*,G) interface change that reaches what this route inherits.
        void handleInheritedWcIntf(Wirl::IntfId intf);
        // The route left `sgRoute`: its periodic Prune goes with it.
        void handleDelete();

        // On the shared tree: RPF'(S,G,rpt) into the route's upstream.
        void doUpdateRpf();
        void doUpdateForwardBits();

    private:
        UpstreamSgRptSm& sm_;
    };

    // Reads from the context: localStatus, status, pimStatus and
    // joinPruneStatus (required); rpfTable and joinPruneRxStatus (absent:
    // every source counts as remote, no message is heard).
    explicit UpstreamSgRptSm(const VrfContext& ctx);
    ~UpstreamSgRptSm() override;

    const L3::VrfName& vrfName() const { return in_.vrfName; }

    CASK_COUNTER(std::uint32_t, ignoredRxJoins, IgnoredRxJoins)
    CASK_COUNTER(std::uint32_t, ignoredRxPrunes, IgnoredRxPrunes)
    CASK_ATTR(bool, initialized, Initialized)

    RhoRoute* rhoRoute(const Routing::Pim::RouteKey& key) const { return route_.get(key); }
    const Cask::ReactorMap<Routing::Pim::RouteKey, RhoRoute>& routeMap() const { return route_; }
    const WcFanOut<UpstreamSgRptSm, RhoRoute>& wcFanOut() const { return wcFanOut_; }

    // Where the source's periodic Prune(S,G,rpt) stands now; unresolved when
    // it stands nowhere.
    Routing::Pim::NeighborKey prevRpNeighbor(const Routing::Pim::RouteKey& key) const;

    // Start-up: takes up the routes present, then drops the periodic
    // (S,G,rpt) Prunes an earlier run left for routes that are gone.
    void handleInitialized() override;
    void handleSgRoute(const Routing::Pim::RouteKey& key) override;
    void handleWcRoute(const Routing::Pim::RouteKey& key) override;
    // The group's (*,G) route decides what its (S,G) routes inherit and
    // where their (S,G,rpt) messages go.
    void handleWcChange(const Wirl::IpGenAddr& group, const WcChange& change);
    void handleRxJoin();
    void handleRxPrune();

    // RPTJoinDesired(G) and PruneDesired(S,G,rpt) decide the state; the
    // triggered messages, the override and the periodic Prune follow.
    void doMaybeChangeUpRptState(Route& route);
    void doEvalRptJoinDesiredWc(Route& route);
    void doEvalPruneDesiredSgRpt(Route& route);
    // The periodic Prune(S,G,rpt) stands at the RPF'(*,G) neighbour exactly
    // while the source is pruned and RPF'(S,G,rpt) is that neighbour.
    void doMaybeUpdatePeriodicSgRptPrune(Route& route);
    // Drops a pending override Join(S,G,rpt) at RPF'(S,G,rpt).
    void doMaybeCancelOverrideTimer(const Route& route);
    // On the shared tree: forward = inherited_olist(S,G,rpt), never on the
    // RPF'(*,G) interface.
    void doMaybeSetForwardBit(Wirl::IntfId intf, Route& route);
    void doMaybeSetFastForwardBit(Wirl::IntfId intf, Route& route);
    // True (traced) for a received entry that does not concern a NotPruned
    // route's RPF'(S,G,rpt).
    bool ignoreRxJoinPrune(const Routing::Pim::JoinPruneMessageInfo& m) const;

private:
    bool sharedTree(const Route& route) const;
    void changeState(Route& route, UpRptState to);
    // Writes one (S,G,rpt) entry into a set of the neighbour of `rpf`;
    // nothing without a neighbour entry.
    void write(const Routing::Pim::Rpf& rpf, Routing::Pim::JoinPruneSet set,
               Routing::Pim::JoinPruneEntry::Kind kind, const Routing::Pim::RouteKey& key);
    void doPeriodicPruneDel(const Routing::Pim::RouteKey& key);

    const VrfContext& in_;
    Routing::Pim::JoinPruneWriter writer_;
    ForwardBits forwardBits_;
    std::uint32_t ignoredRxJoins_ = 0;
    std::uint32_t ignoredRxPrunes_ = 0;
    bool initialized_ = false;
    JoinPruneRxWatcher<UpstreamSgRptSm> rxWatcher_{
        *this, {.join = &UpstreamSgRptSm::handleRxJoin, .prune = &UpstreamSgRptSm::handleRxPrune}};
    // prevRpNeighbor / prevRpIntf: only sources whose periodic Prune is
    // written have an entry.
    Cask::HashMap<Routing::Pim::RouteKey, Routing::Pim::NeighborKey> prevRp_;
    Cask::ReactorMap<Routing::Pim::RouteKey, RhoRoute> route_;
    WcFanOut<UpstreamSgRptSm, RhoRoute> wcFanOut_{
        *this,
        in_,
        route_,
        {{IntfAttr::localReceiverInclude, IntfAttr::localMembership, IntfAttr::joinState,
          IntfAttr::assertInfo, IntfAttr::changeFlags},
         true}};
};

// Creates the VRF's UpstreamSgRptSm and starts it (`handleInitialized`).
Cask::Ptr<UpstreamSgRptSm> upstreamSgRptSmFactory(const VrfContext& ctx);

}  // namespace Routing::Pim::SparseMode
