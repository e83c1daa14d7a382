#pragma once
// UpstreamSgSm: the upstream (S,G) machine of one VRF (RFC 7761 4.5.5). For
// every (S,G) route it decides whether the router wants to be on the
// source's shortest-path tree (JoinDesired(S,G)), finds the upstream
// neighbour toward the source (RPF'(S,G)) and keeps that neighbour's (S,G)
// Join/Prune contents in step: the periodic Join(S,G), a triggered Join when
// it starts or moves, a triggered Prune to the neighbour it leaves, the
// suppression of its periodic Join when another router joins the same
// neighbour, and an override Join when another router prunes there.
// Watches: LocalStatus.sgRoute (one RhoRoute per route: its flags, upstream,
//          interfaces and change flags), the (*,G) route of each group it keeps
//          (S,G) routes of (WcFanOut: its interfaces feed inherited_olist(S,G)),
//          received Join/Prune entries (JoinPruneRxWatcher).
// Writes:  RPF'(S,G) (`umh.rpf`, `rpfAttached`), upJoinState, the `spTree` and
//          `switching` flags on joining and leaving, `nsfRpfResolved`,
//          Intf::forward / fastForward of (S,G) routes, (S,G) Join/Prune
//          entries through JoinPruneWriter. While a route is carried on the
//          shared tree (shared_tree.h) its RPF' and bits are the upstream
//          (S,G,rpt) machine's instead.
//
// It writes contents only: the packet side owns the periodic, triggered,
// override and suppression timers.
//
// Not built yet, with their seams marked in the code: the fast-failover
// backup upstream (computing `rpfFrr`, joining toward it, switching over to
// it, and the fast-failover terms of JoinDesired). The backup RPF that the
// route already carries is read where RFC 7761's rules must not touch it
// (it never forwards, a Join still goes there, messages to it count).
// The assert (S,G) machine is not built either: RPF'(S,G) reads the assert
// state that the route's Intf carries, whoever writes it.

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
#include "wirl/vrf_name.h"

namespace Routing::Pim::SparseMode {

// The result of an RPF computation: interface, neighbour, matched prefix and
// whether the address is directly attached. Unresolved without an interface.
using RpfInfo = RpfLookup;

class UpstreamSgSm : public Cask::Record<UpstreamSgSm>, public LocalStatus::Notifiee {
public:
    class Notifiee : public Cask::NotifieeOf<UpstreamSgSm> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleIgnoredRxJoins() {}
        virtual void handleIgnoredRxPrunes() {}
        virtual void handleInitialized() {}
    };

    // One (S,G) route: its join state, RPF' and forwarding bits. Hears the
    // route's interfaces and upstream through the route.
    class RhoRoute : public RouteReactor {
    public:
        RhoRoute(UpstreamSgSm& sm, Route& route) : RouteReactor(route), sm_(sm) {}
        Route& route() const { return *notifier(); }

        // Reactor created: RPF', forwarding bits and join state.
        void handleRouteInit();
        // Every change of RPF'(S,G) (`umh.rpf`).
        void handleRpf();
        // The route entered upJoined: joins and forwarding bits.
        void handleUpJoinState() override;
        // The route review handed the route what changed under its upstream.
        void handleChangeFlags() override;
        void handleKatExpired() override;
        void handleSpTree() override;
        void handleRouteIntf(Wirl::IntfId intf) override;
        void handleIntfAttr(Intf& intf, IntfAttr attr) override;
        void handleUmhAttr(UpstreamInfo& umh, UmhAttr attr) override;
        void handleUmhFrr() override;
        // Recomputes RPF'(S,G) into the route's upstream.
        void doEvalRpfPrimeSg();
        // Forward and fast-forward bits of every interface of the route.
        void doUpdateForwardBits();
        // The route left `sgRoute`: withdraws a join still written for it.
        void handleDelete();

    private:
        UpstreamSgSm& sm_;
    };

    // Reads from the context: localStatus, status, pimStatus and
    // joinPruneStatus (required); rpfTable, mfibTidal and joinPruneRxStatus
    // (absent: no RPF, no forwarding record, no message).
    explicit UpstreamSgSm(const VrfContext& ctx);
    ~UpstreamSgSm() override;

    const L3::VrfName& vrfName() const { return in_.vrfName; }

    CASK_COUNTER(std::uint32_t, ignoredRxJoins, IgnoredRxJoins)
    CASK_COUNTER(std::uint32_t, ignoredRxPrunes, IgnoredRxPrunes)
    CASK_ATTR(bool, initialized, Initialized)

    RhoRoute* rhoRoute(const Routing::Pim::RouteKey& key) const { return route_.get(key); }
    const Cask::ReactorMap<Routing::Pim::RouteKey, RhoRoute>& routeMap() const { return route_; }
    const WcFanOut<UpstreamSgSm, RhoRoute>& wcFanOut() const { return wcFanOut_; }

    // Start-up: takes up the routes present, then drops the periodic (S,G)
    // Joins and Prunes an earlier run left for routes that are gone or that
    // joined elsewhere, then sets `initialized`.
    void handleInitialized() override;
    void handleSgRoute(const Routing::Pim::RouteKey& key) override;
    void handleWcRoute(const Routing::Pim::RouteKey& key) override;
    // A change of the group's (*,G) route changes inherited_olist(S,G) of
    // the group's (S,G) routes, and may take them on or off the shared tree.
    void handleWcChange(const Wirl::IpGenAddr& group, const WcChange& change);
    void handleRxJoin();
    void handleRxPrune();

    // RPF'(S,G) of the route (RFC 7761 4.1.5); may set `nsfRpfResolved`.
    RpfInfo rpfPrimeSg(Route& route);
    // The interface on which the route's traffic is accepted now: the
    // incoming interface of its forwarding record, else its border
    // interface; null when neither is known.
    Wirl::IntfId findAcceptingIntfId(const Route& route) const;
    // The upstream (S,G) join state machine.
    void doEvalJoinDesiredSg(Route& route);
    // Writes the triggered and periodic Join(S,G) of the route at the
    // neighbour, whose Join/Prune entry must exist.
    void doRpfNeighborJoin(const Routing::Pim::RouteKey& key, Wirl::IntfId intf,
                           const Wirl::IpGenAddr& neighbor);
    // Withdraws the route's Join(S,G) from the neighbour of `prevRpf` and
    // sends it a triggered Prune(S,G) while it is still an active neighbour.
    void doPrevRpfNeighborCleanup(const Routing::Pim::RouteKey& key,
                                  const Routing::Pim::Rpf& prevRpf);
    // forward = inherited_olist(S,G) on the interface, never on the RPF or
    // the backup RPF interface.
    void doMaybeSetForwardBit(Wirl::IntfId intf, Route& route);
    void doMaybeSetFastForwardBit(Wirl::IntfId intf, Route& route);
    // True (traced) for a received entry that does not concern a joined
    // (S,G) route's RPF', previous RPF' or backup RPF.
    bool ignoreRxJoinPrune(const Routing::Pim::JoinPruneMessageInfo& m) const;

    // The route's backup upstream when it differs from the primary one;
    // unresolved otherwise. Computing it belongs to fast failover.
    static Routing::Pim::Rpf backupRpf(const Route& route);
    // The fast-failover terms of JoinDesired(S,G): not built yet, so false.
    static bool joinDesiredSgFastFailover(const Route&) { return false; }

private:
    // The neighbour of `rpf` holds a periodic Join(S,G) for the route.
    bool joinWrittenAt(const Routing::Pim::Rpf& rpf, const Routing::Pim::RouteKey& key) const;
    // The neighbour a received entry is addressed to: RPF', the previous
    // RPF' or the backup RPF of the route.
    static const Routing::Pim::Rpf* rxRpf(const Route& route,
                                          const Routing::Pim::JoinPruneMessageInfo& m);
    // A (*,G) change on `intf` (null: on every interface) reaches the
    // group's (S,G) routes.
    void handleWcIntf(const Wirl::IpGenAddr& group, Wirl::IntfId intf);

    const VrfContext& in_;
    Routing::Pim::JoinPruneWriter writer_;
    ForwardBits forwardBits_;
    std::uint32_t ignoredRxJoins_ = 0;
    std::uint32_t ignoredRxPrunes_ = 0;
    bool initialized_ = false;
    // The route whose join state is changing: its own writes (the spTree
    // flag, RPF') must not start the change again from inside.
    const Route* joinChanging_ = nullptr;
    JoinPruneRxWatcher<UpstreamSgSm> rxWatcher_{
        *this, {.join = &UpstreamSgSm::handleRxJoin, .prune = &UpstreamSgSm::handleRxPrune}};
    Cask::ReactorMap<Routing::Pim::RouteKey, RhoRoute> route_;
    WcFanOut<UpstreamSgSm, RhoRoute> wcFanOut_{*this,
                                               in_,
                                               route_,
                                               {IntfAttr::localReceiverInclude, IntfAttr::joinState,
                                                IntfAttr::assertInfo, IntfAttr::changeFlags}};
};

// Creates the VRF's UpstreamSgSm and starts it (`handleInitialized`).
Cask::Ptr<UpstreamSgSm> upstreamSgSmFactory(const VrfContext& ctx);

}  // namespace Routing::Pim::SparseMode
