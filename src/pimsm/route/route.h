#pragma once
// Route: one (*,G) or (S,G) multicast route of a VRF, with its (S,G,rpt)
// state when it is an (S,G) route. Shared and reference counted: every
// machine of the VRF reads and writes the same record, and nobody keeps a
// private copy of route state.
//
// Created only through the VRF's route status (`Status::routeIs`), removed
// only by the route review. Its interfaces are `Intf` records in
// `routeIntf`; its upstream is `umh` (and `umhFrr` for the fast-failover
// backup path).
//
// The route is also the one dispatcher of its interfaces' and upstreams'
// changes: an Intf or UpstreamInfo setter tells that record's own watchers
// and then the route's, through `handleIntfAttr` / `handleUmhAttr`. A
// machine thus keeps one watcher per route, whatever the number of
// interfaces. A record the route no longer holds (an interface removed, a
// replaced fast-failover upstream) is not passed on, not even to the
// watchers that remain in a delivery during which it was removed.
//
// Route flags: fifteen named flags, each with its own setter and its own
// notification (`handleRpTree`, ...) followed by `handleRouteFlags`, which
// fires on any flag change. The first thirteen live in the 32-bit
// `routeFlags` word, bits 0 to 12 in declaration order; `programmable` and
// `hwRecovered` are agent-local and kept outside it.
//
// Derived values (RFC 7761 JoinDesired, PruneDesired, null olists, RPF' of
// the (*,G) route, ...) are computed on demand from the route's records,
// the group's (*,G) route and the VRF context; see route_macros.cc.

#include <cstdint>
#include <string>

#include <boost/container/flat_map.hpp>
#include <boost/container/small_vector.hpp>

#include "cask/collection.h"
#include "cask/reactor_directory.h"
#include "pimsm/route/intf.h"
#include "pimsm/route/route_types.h"
#include "pimsm/route/upstream_info.h"
#include "platform/route_key.h"

namespace Routing::Pim {
class Status;
}

namespace Routing::Pim::SparseMode {

class LocalStatus;

// What a route needs of its VRF to compute its derived values. Owned by the
// VRF's route status; outlives every route of the VRF.
struct RouteContext {
    const Routing::Pim::Status* pimStatus = nullptr;
    const LocalStatus* localStatus = nullptr;
    // The agent's limits ("maxRoutes", "maxRouteIntfs"; 0: none) and how
    // often each refused a route or an interface.
    std::uint32_t maxRoutes = 0;
    std::uint32_t maxRouteIntfs = 0;
    mutable std::uint32_t routesRefused = 0;
    mutable std::uint32_t routeIntfsRefused = 0;
};

// Packet and byte counts read back from the forwarding plane.
struct KernelStats {
    std::uint64_t packets = 0;
    std::uint64_t bytes = 0;
    bool operator==(const KernelStats&) const = default;
};

class Route : public Cask::Record<Route> {
public:
    class Notifiee : public Cask::NotifieeOf<Route> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleRouteFlags() {}
        virtual void handleRpTree() {}
        virtual void handleWildCard() {}
        virtual void handleSpTree() {}
        virtual void handleSwitching() {}
        virtual void handleIifSwitching() {}
        virtual void handleMbr() {}
        virtual void handleKatExpired() {}
        virtual void handleMarkedForDeletion() {}
        virtual void handleMayAdvertise() {}
        virtual void handleMsdpDiscovered() {}
        virtual void handleAnycastDiscovered() {}
        virtual void handleDrDiscovered() {}
        virtual void handleOifRegister() {}
        virtual void handleProgrammable() {}
        virtual void handleHwRecovered() {}
        virtual void handleRegisterOifEvaluated() {}
        virtual void handleUmhFrr() {}
        virtual void handleWcRouteChanged() {}
        virtual void handleRouteChanged() {}
        virtual void handleUpJoinState() {}
        virtual void handleIifSwitchState() {}
        virtual void handleIifSwitchPending() {}
        virtual void handleBeginIifSwitch() {}
        virtual void handleNsfRpfResolved() {}
        virtual void handleChangeFlags() {}
        virtual void handleRouteIntf(Wirl::IntfId) {}
        virtual void handleKernelStats() {}
        virtual void handleMfibChangeCount() {}
        virtual void handleFirstInactivityTime() {}
        virtual void handleExpiredFlags() {}
        virtual void handleInitialized() {}
        // `attr` of the route's interface record `intf` changed.
        virtual void handleIntfAttr(Intf& /*intf*/, IntfAttr /*attr*/) {}
        // `attr` of the route's upstream `umh` changed, or of its
        // fast-failover upstream `umhFrr` (`umh.frr()` set).
        virtual void handleUmhAttr(UpstreamInfo& /*umh*/, UmhAttr /*attr*/) {}

        // The dispatcher's side of the two above: calls them while the
        // route still holds the record.
        void deliverIntfAttr(Intf& intf, IntfAttr attr);
        void deliverUmhAttr(UpstreamInfo& umh, UmhAttr attr);
    };

    // The thirteen flags of the `routeFlags` word, by bit.
    enum FlagBit : unsigned {
        rpTreeBit,
        wildCardBit,
        spTreeBit,
        switchingBit,
        iifSwitchingBit,
        mbrBit,
        katExpiredBit,
        markedForDeletionBit,
        mayAdvertiseBit,
        msdpDiscoveredBit,
        anycastDiscoveredBit,
        drDiscoveredBit,
        oifRegisterBit,
        routeFlagCount
    };
    using RouteFlags = std::uint32_t;

    Route(const Routing::Pim::RouteKey& key, const RouteContext* context, double creationTime);
    ~Route();

    const Routing::Pim::RouteKey& key() const { return key_; }
    const RouteContext* context() const { return context_; }
    double creationTime() const { return creationTime_; }

    // --- route flags -----------------------------------------------------
    RouteFlags routeFlags() const { return routeFlags_; }
    // "rpTree 0 wildCard 1 spTree 0 ..." : the thirteen flags in bit order.
    std::string routeFlagsStr() const;
#define PIMSM_ROUTE_FLAG(name, Name)                                 \
    bool name() const {                                              \
        return routeFlags_ & (1u << name##Bit);                      \
    }                                                                \
    void name##Is(bool v) {                                          \
        setFlag(routeFlags_, name##Bit, v, &Notifiee::handle##Name); \
    }
    PIMSM_ROUTE_FLAG(rpTree, RpTree)
    PIMSM_ROUTE_FLAG(wildCard, WildCard)
    PIMSM_ROUTE_FLAG(spTree, SpTree)
    PIMSM_ROUTE_FLAG(switching, Switching)
    PIMSM_ROUTE_FLAG(iifSwitching, IifSwitching)
    PIMSM_ROUTE_FLAG(mbr, Mbr)
    PIMSM_ROUTE_FLAG(katExpired, KatExpired)
    PIMSM_ROUTE_FLAG(markedForDeletion, MarkedForDeletion)
    PIMSM_ROUTE_FLAG(mayAdvertise, MayAdvertise)
    PIMSM_ROUTE_FLAG(msdpDiscovered, MsdpDiscovered)
    PIMSM_ROUTE_FLAG(anycastDiscovered, AnycastDiscovered)
    PIMSM_ROUTE_FLAG(drDiscovered, DrDiscovered)
    PIMSM_ROUTE_FLAG(oifRegister, OifRegister)
#undef PIMSM_ROUTE_FLAG
    // Sets the SPT bit and clears `switching` in one write of the flag word,
    // so that no watcher sees one change without the other: each changed
    // flag is announced, then `handleRouteFlags` once.
    void spTreeReached();
    bool programmable() const {
        return localFlags_ & 1u;
    }
    void programmableIs(bool v) {
        setFlag(localFlags_, 0, v, &Notifiee::handleProgrammable);
    }
    bool hwRecovered() const {
        return localFlags_ & 2u;
    }
    void hwRecoveredIs(bool v) {
        setFlag(localFlags_, 1, v, &Notifiee::handleHwRecovered);
    }

    // --- other attributes ------------------------------------------------
    CASK_ATTR(bool, registerOifEvaluated, RegisterOifEvaluated)
    UpstreamInfo* umh() const {
        return umh_.get();
    }
    UpstreamInfo* umhFrr() const {
        return umhFrr_.get();
    }
    // Installs (or, with null, removes) the fast-failover upstream.
    void umhFrrIs(Cask::Ptr<UpstreamInfo> frr);
    CASK_COUNTER(std::uint32_t, wcRouteChanged, WcRouteChanged)
    CASK_COUNTER(std::uint32_t, routeChanged, RouteChanged)
    CASK_ATTR(UpJoinState, upJoinState, UpJoinState)
    CASK_ATTR(IifSwitchState, iifSwitchState, IifSwitchState)
    CASK_ATTR(bool, iifSwitchPending, IifSwitchPending)
    CASK_COUNTER(std::uint32_t, beginIifSwitch, BeginIifSwitch)
    CASK_ATTR(bool, nsfRpfResolved, NsfRpfResolved)
    CASK_ATTR(ChangeFlags, changeFlags, ChangeFlags)
    CASK_ATTR(KernelStats, kernelStats, KernelStats)
    CASK_COUNTER(std::uint32_t, mfibChangeCount, MfibChangeCount)
    CASK_ATTR(double, firstInactivityTime, FirstInactivityTime)
    CASK_ATTR(ExpiredFlags, expiredFlags, ExpiredFlags)
    CASK_ATTR(bool, initialized, Initialized)
    // Loop time at which the route last joined its present RPF' neighbour;
    // negative while it is joined to none. For operators: no machine
    // decides on it, so it is set without notification.
    double joinedSince() const {
        return joinedSince_;
    }
    void joinedSinceIs(double t) {
        joinedSince_ = t;
    }

    // The interfaces on which the route has state. `routeIntfIs(intf)`
    // returns the existing record or adds a fresh one; null (traced and
    // counted in the context) when the route already has the most
    // interfaces the agent allows.
    // Room for one interface in the route itself: most routes have one or
    // two, and a host join's has one, which then costs no allocation.
    using IntfMap = boost::container::small_flat_map<Wirl::IntfId, Cask::Ptr<Intf>, 1>;
    CASK_COLLECTION_COMMON(routeIntf, RouteIntf, Wirl::IntfId)
    Cask::Ptr<Intf> routeIntf(Wirl::IntfId i) const {
        return Cask::Ptr<Intf>(routeIntfRaw(i));
    }
    Intf* routeIntfRaw(Wirl::IntfId i) const {
        // A route has few interfaces: comparing ids one by one beats a
        // search in name order, whose every step compares two names.
        if (routeIntf_.size() <= scanIntfsUpTo) {
            for (const auto& [id, intf] : routeIntf_) {
                if (id == i) return intf.get();
            }
            return nullptr;
        }
        return routeIntf_.raw(i);
    }
    static constexpr std::size_t scanIntfsUpTo = 16;
    Cask::Ptr<Intf> routeIntfIs(Wirl::IntfId intf, std::uint32_t ifIndex = 0);

    // --- upstream --------------------------------------------------------
    const Routing::Pim::Rpf& rpf() const {
        return umh_->rpf();
    }
    const Routing::Pim::Rpf& prevRpf() const {
        return umh_->prevRpf();
    }
    Wirl::IntfId iif() const {
        return umh_->iif();
    }
    Wirl::IntfId mbrIif() const {
        return umh_->mbrIif();
    }
    // The backup path's RPF; unresolved without fast failover.
    Routing::Pim::Rpf rpfFrr() const {
        return umhFrr_ ? umhFrr_->rpf() : Routing::Pim::Rpf{};
    }

    // --- RFC 7761 derived values -----------------------------------------
    bool isWc() const {
        return key_.isWc();
    }
    // The group's (*,G) route (this route when it is the (*,G) route); null
    // when the group has none.
    const Route* wc() const;
    // RPF'(*,G): the RPF of the group's (*,G) route; unresolved without one.
    Routing::Pim::Rpf rpfWc() const;
    bool joinDesiredWc() const;
    bool joinDesiredWcRp() const {
        return false;
    }  // no (*,*,RP) state in RFC 7761
    bool rptJoinDesiredWc() const;
    bool joinDesiredSg() const;
    bool pruneDesiredSgRpt() const;
    bool nullImmediateOlistWc() const;
    bool nullImmediateOlistWcRp() const {
        return true;
    }  // no (*,*,RP) state
    bool nullImmediateOlistSg() const;
    bool nullInheritedOlistSgRpt() const;
    bool nullInheritedOlistSg() const;
    // The keepalive timer runs from the first data packet until it expires.
    bool keepaliveRunning() const {
        return !katExpired();
    }
    // The source was learnt from a source discovery input.
    bool discoveredSg() const {
        return msdpDiscovered() || anycastDiscovered() || drDiscovered();
    }
    // Some interface carries (S,G) or (S,G,rpt) downstream or local state.
    bool hasSgState() const;
    // The fast-failover backup path resolved to the primary path itself.
    bool isDuplicateRpf() const;

    // Calls f(IntfId) for every interface of inherited_olist(S,G,rpt) /
    // inherited_olist(S,G), including the (*,G) route's interfaces that
    // this route has no record for, each once, in interface order.
    template <class F>
    void forEachInheritedOlistSgRpt(F&& f) const;
    template <class F>
    void forEachInheritedOlistSg(F&& f) const;

private:
    friend class Intf;
    friend class UpstreamInfo;
    template <class W, class N>
    void setFlag(W& word, unsigned bit, bool v, void (N::*handler)());
    // Is `intf` (which this route has no record for) in the inherited olist?
    // On such an interface every (S,G) term is empty, so it is exactly
    // immediate_olist(*,G).
    static bool inheritedFromWcOnly(const Intf& wcIntf) {
        return wcIntf.immediateOlistWc();
    }
    // Walks the inherited olist; `visit(IntfId)` returns true to stop early.
    // Returns whether it stopped.
    template <class F>
    bool walkInherited(bool withSg, F&& visit) const;

    Routing::Pim::RouteKey key_;
    const RouteContext* context_;
    RouteFlags routeFlags_ = 0;
    std::uint8_t localFlags_ = 0;
    bool registerOifEvaluated_ = false;
    bool iifSwitchPending_ = false;
    bool nsfRpfResolved_ = false;
    bool initialized_ = false;
    UpJoinState upJoinState_ = UpJoinState::upNotJoined;
    IifSwitchState iifSwitchState_ = IifSwitchState::iifSwitchIdle;
    std::uint32_t wcRouteChanged_ = 0;
    std::uint32_t routeChanged_ = 0;
    std::uint32_t beginIifSwitch_ = 0;
    std::uint32_t mfibChangeCount_ = 0;
    ChangeFlags changeFlags_;
    ExpiredFlags expiredFlags_;
    double creationTime_;
    double firstInactivityTime_ = 0;
    double joinedSince_ = -1;
    KernelStats kernelStats_;
    Cask::Ptr<UpstreamInfo> umh_;
    Cask::Ptr<UpstreamInfo> umhFrr_;
    Cask::RecordMapOf<Wirl::IntfId, Intf, IntfMap> routeIntf_;
};

// The base of a machine's per-route reactor: the route's watcher, holding a
// reference to the route from construction to destruction, so that the
// reactor maps can read its key until it goes. The route
// is the reactor's only pointer to it, and stays watched until then.
class RouteReactor : public Route::Notifiee {
public:
    // The reactors a VRF's route directory holds (see RouteReactorDirectory).
    using DirectoryBase = RouteReactor;

    explicit RouteReactor(Route& route) : Route::Notifiee(&route) { intrusive_ptr_add_ref(&route); }
    ~RouteReactor() override {
        Route* r = notifier();
        NotifieeOf::notifierIs(nullptr);
        intrusive_ptr_release(r);
    }
    RouteReactor(const RouteReactor&) = delete;
    RouteReactor& operator=(const RouteReactor&) = delete;

    const Routing::Pim::RouteKey& reactorKey() const { return notifier()->key(); }
    const Route* reactorRecord() const { return notifier(); }

private:
    // Held: detaching would release the route early.
    using NotifieeOf::notifierIs;
};

// One index of the reactors of the machines that follow every route of a
// VRF, shared by their reactor maps (`Cask::SharedIndex`). The VRF's
// container makes it; see cask/reactor_directory.h.
using RouteReactorDirectory = Cask::ReactorDirectory<Routing::Pim::RouteKey, RouteReactor>;

template <class W, class N>
void Route::setFlag(W& word, unsigned bit, bool v, void (N::*handler)()) {
    const W mask = W(1u << bit);
    if (bool(word & mask) == v) return;
    word = v ? W(word | mask) : W(word & ~mask);
    // A watcher may drop the last reference: then the route is gone and the
    // second announcement is not made.
    if (!notify(handler)) return;
    notify(&Notifiee::handleRouteFlags);
}

template <class F>
bool Route::walkInherited(bool withSg, F&& visit) const {
    const Route* wcRoute = isWc() ? nullptr : wc();
    auto wcIt = wcRoute ? wcRoute->routeIntf_.begin() : IntfMap::const_iterator();
    auto wcEnd = wcRoute ? wcRoute->routeIntf_.end() : IntfMap::const_iterator();
    // Merge this route's interfaces with the (*,G) route's, both in order.
    for (const auto& [id, intf] : routeIntf_) {
        for (; wcIt != wcEnd && wcIt->first < id; ++wcIt) {
            if (inheritedFromWcOnly(*wcIt->second) && visit(wcIt->first)) return true;
        }
        if (wcIt != wcEnd && wcIt->first == id) ++wcIt;
        if ((withSg ? intf->inheritedOlistSg() : intf->inheritedOlistSgRpt()) && visit(id)) {
            return true;
        }
    }
    for (; wcIt != wcEnd; ++wcIt) {
        if (inheritedFromWcOnly(*wcIt->second) && visit(wcIt->first)) return true;
    }
    return false;
}

template <class F>
void Route::forEachInheritedOlistSgRpt(F&& f) const {
    walkInherited(false, [&](Wirl::IntfId i) {
        f(i);
        return false;
    });
}

template <class F>
void Route::forEachInheritedOlistSg(F&& f) const {
    walkInherited(true, [&](Wirl::IntfId i) {
        f(i);
        return false;
    });
}

}  // namespace Routing::Pim::SparseMode
