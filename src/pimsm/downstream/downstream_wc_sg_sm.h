#pragma once
// DownstreamWcSgSm: the downstream (*,G) and (S,G) join state of one VRF (RFC 7761 4.5.1,
// 4.5.2). It takes the Join(*,G), Prune(*,G), Join(S,G) and Prune(S,G) entries that downstream
// routers address to this router, creates the routes and interfaces a Join asks for, and keeps
// per (route, interface) the downstream join state (noInfo, joined, prunePending) with its
// expiry and prune-pending timers. joins(*,G) and joins(S,G) are read from that state by the
// route's macros, so the upstream machines join toward the RP or the source and set the
// forwarding bits on their own.
// Watches: JoinPruneRxStatus (single entries; (S,G,rpt) entries belong to the (S,G,rpt)
//          machine), LocalStatus.wcRoute and sgRoute (a DownstreamRouteSm per route that has
//          had downstream join state: its interfaces, its RPF').
// Writes:  Intf::joinState (its only writer), lastJoinReceived, allowRpInUse, initialized;
//          routes and interfaces for Joins (clearing the deletion mark of a route that a
//          Join reaches before the route review removes it); remembered Prunes
//          (JoinPruneStatus::rxPrune) and PruneEchoes (JoinPruneStatus::pruneEchoIs).
//
// Cost: a route that never hears a downstream Join (one with local receivers only) costs this
// machine nothing. Its DownstreamRouteSm comes with its first Join, or with the route when it
// already carries join state (a restart), and stays until the route goes. A per-interface
// reactor (RhoIntf, with its two timers) exists only while the interface is joined or
// prune-pending; it goes when the interface returns to noInfo.

#include <cstdint>

#include "cask/collection.h"
#include "cask/reactor_map.h"
#include "pimsm/common/intf_state_sm.h"
#include "pimsm/common/join_prune_rx_watcher.h"
#include "pimsm/common/vrf_context.h"
#include "pimsm/route/local_status.h"
#include "pimsm/route/route.h"
#include "platform/join_prune.h"
#include "wirl/vrf_name.h"

namespace Routing::Pim::SparseMode {

class DownstreamWcSgSm;

// One (*,G) or (S,G) route's downstream join state, on each interface that has some.
class DownstreamRouteSm : public RouteReactor {
public:
    // One interface of the route while it is joined or prune-pending.
    class RhoIntf : public IntfStateSm<RhoIntf, JoinState> {
    public:
        RhoIntf(DownstreamRouteSm& route, Intf& intf);
        ~RhoIntf();

        Wirl::IntfId reactorKey() const { return intf_->intfId(); }
        const Intf* reactorRecord() const { return intf_.get(); }
        Intf& intf() const { return *intf_; }
        DownstreamRouteSm& routeSm() const { return route_; }

        // A Join with `holdTime` arrived; `fresh` when the interface had no join state before.
        // The expiry deadline becomes the later of the current one and now + holdTime + jitter;
        // a hold time of 0xffff never expires.
        void tweakExpiryTimer(std::uint16_t holdTime, bool fresh);
        void expiryTimerExpiry();
        void prunePendingTimerExpiry();
        // Taken over with state already on the interface (a restart): re-arms the timers.
        void handleInitialized();
        // Removed from the route's map: forgets a remembered Prune.
        void handleDelete();

    private:
        friend class IntfStateSm<RhoIntf, JoinState>;
        JoinState intfState() const { return intf_->joinState(); }
        void intfStateIs(JoinState s) { intf_->joinStateIs(s); }
        static const char* stateName(JoinState s) { return enumName(s); }
        // The join state's timers and remembered Prune follow it: prunePending runs the
        // prune-pending timer and keeps the Prune, noInfo runs no timer.
        void doLeaveState(JoinState old);
        void doEnterState(JoinState next);
        void handleExpiryTimer() { expiryTimerExpiry(); }
        void handlePrunePendingTimer() { prunePendingTimerExpiry(); }
        Cask::EventLoop& loop() const;
        const L3::VrfName& vrfName() const;

        // The record is this interface's in its route still.
        bool present() const;

        DownstreamRouteSm& route_;
        Cask::Ptr<Intf> intf_;
    };
    using IntfMap = Cask::ReactorMap<Wirl::IntfId, RhoIntf, Cask::SmallIndex>;

    DownstreamRouteSm(DownstreamWcSgSm& sm, Route& route);
    ~DownstreamRouteSm() override;

    Route& route() const { return *notifier(); }
    DownstreamWcSgSm& sm() const { return sm_; }
    RhoIntf* rhoIntf(Wirl::IntfId intf) const { return intf_.get(intf); }
    const IntfMap& intfMap() const { return intf_; }

    // Reactor created: takes over interfaces that already carry join state.
    void handleRouteInit();
    // RPF'(route) changed: no Prune can stay pending on the new RPF interface.
    void handleRpf();
    void handleUmhAttr(UpstreamInfo& umh, UmhAttr attr) override;
    void handleRouteIntf(Wirl::IntfId intf) override;
    // The route left its collection.
    void handleDelete();

    // The reactor of the interface, created when absent.
    RhoIntf& rhoIntfIs(Intf& intf);
    // Drops the interface's reactor once it has no state and no timer left. The reactor may be
    // the caller: call it last.
    void doReleaseIdle(Wirl::IntfId intf);

private:
    DownstreamWcSgSm& sm_;
    IntfMap intf_;
};

class DownstreamWcSgSm : public Cask::Record<DownstreamWcSgSm>, public LocalStatus::Notifiee {
public:
    // Reactors come with a route's first downstream Join: an index of their own.
    using RouteMap = Cask::ReactorMap<Routing::Pim::RouteKey, DownstreamRouteSm>;

    class Notifiee : public Cask::NotifieeOf<DownstreamWcSgSm> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleIgnoredRxJoins() {}
        virtual void handleIgnoredRxPrunes() {}
        virtual void handleInitialized() {}
    };

    // The period of the jitter added to every expiry deadline. Received entries carry no jitter
    // of their own; a small one keeps the many interfaces refreshed by one message from expiring
    // at one instant, and it is only ever added, so no interface expires before its hold time.
    static constexpr Cask::Seconds expiryJitterPeriod = 1.0;
    // The hold time assumed for a Join taken over after a restart, whose own hold time is not
    // kept: the default Join/Prune hold time (RFC 7761 4.11, 3.5 x t_periodic).
    static constexpr std::uint16_t defaultHoldTime = 210;
    static constexpr std::uint16_t infiniteHoldTime = 0xffff;

    // Reads from the context: loop, status, localStatus, pimStatus, config, ssmGroupInfo,
    // groupFilterStatus and joinPruneStatus (required); rpMapping (absent: no RP is known, so no
    // Join(*,G) is accepted) and joinPruneRxStatus (absent: nothing is received).
    explicit DownstreamWcSgSm(const VrfContext& ctx);
    ~DownstreamWcSgSm() override;

    const VrfContext& ctx() const { return in_; }
    const L3::VrfName& vrfName() const { return in_.vrfName; }

    CASK_COUNTER(std::uint32_t, ignoredRxJoins, IgnoredRxJoins)
    CASK_COUNTER(std::uint32_t, ignoredRxPrunes, IgnoredRxPrunes)
    CASK_ATTR(bool, initialized, Initialized)

    DownstreamRouteSm* downstreamRouteSm(const Routing::Pim::RouteKey& key) const {
        return route_.get(key);
    }
    const RouteMap& routeMap() const { return route_; }

    // Start-up: takes up the routes present, then sets `initialized`.
    void handleInitialized() override;
    void handleWcRoute(const Routing::Pim::RouteKey& key) override;
    void handleSgRoute(const Routing::Pim::RouteKey& key) override;
    void handleRxJoin();
    void handleRxPrune();

    // True (traced) for an entry this machine must not act on.
    bool ignoreRxJoinPrune(const Routing::Pim::JoinPruneMessageInfo& m, bool join) const;
    // RFC 7761 4.5.1: a Join(*,G) is accepted only toward the RP this router maps the group to.
    bool joinRpMatchesRpOfGroup(const Routing::Pim::JoinPruneMessageInfo& m) const;
    // A (*,G) Join accepted for an RP that configuration allows in place of RP(G). There is no
    // allowed-RP configuration yet, so no Join is.
    bool joinUsesAllowedRp(const Routing::Pim::JoinPruneMessageInfo&) const { return false; }

    // The prune-pending delay on the interface: the J/P override interval when it has more than
    // one PIM neighbour (other routers may override the Prune), zero when the Prune's sender is
    // the only one (RFC 7761 4.5.1, 4.5.2).
    Cask::Seconds prunePendingDelay(Wirl::IntfId intf) const;
    std::size_t neighborCount(Wirl::IntfId intf) const;

private:
    void handleRoute(const Routing::Pim::RouteKey& key, Route* route);
    // Brings the key's reactor in step with `route`; the reactor made, if one was.
    DownstreamRouteSm* doFollowRoute(const Routing::Pim::RouteKey& key, Route* route);
    static bool hasJoinState(const Route& route);
    // The entry's route key: (*,G) for a (*,G) entry whatever source it carries.
    static Routing::Pim::RouteKey entryKey(const Routing::Pim::JoinPruneMessageInfo& m);

    const VrfContext& in_;
    std::uint32_t ignoredRxJoins_ = 0;
    std::uint32_t ignoredRxPrunes_ = 0;
    bool initialized_ = false;
    JoinPruneRxWatcher<DownstreamWcSgSm> rxWatcher_{
        *this,
        {.join = &DownstreamWcSgSm::handleRxJoin, .prune = &DownstreamWcSgSm::handleRxPrune}};
    RouteMap route_;
};

// Creates the VRF's DownstreamWcSgSm and starts it (`handleInitialized`).
Cask::Ptr<DownstreamWcSgSm> downstreamWcSgSmFactory(const VrfContext& ctx);

}  // namespace Routing::Pim::SparseMode
