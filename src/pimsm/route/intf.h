#pragma once
// Intf: one route's state on one interface (downstream join state, local
// receivers, assert state, forwarding bits), shared by every machine of the
// VRF through the route's `routeIntf` collection.
//
// Besides its stored attributes an Intf answers the RFC 7761 per-interface
// macros for its (route, interface) pair: joins, pim_include/pim_exclude,
// lost_assert, immediate and inherited olist membership, CouldAssert,
// AssertTrackingDesired and the assert metrics. They read the route, the
// group's (*,G) route (`wcIntf` is its Intf on the same interface) and the
// PIM interface status; each costs a few lookups and never allocates. See
// route_macros.cc for the definitions.

#include <cstdint>

#include "cask/collection.h"
#include "pimsm/route/assert_metric.h"
#include "pimsm/route/route_types.h"
#include "wirl/intf_id.h"

namespace Routing::Pim {
class PimIntfStatus;
}

namespace Routing::Pim::SparseMode {

class Route;

// The attributes of an Intf that its route passes on to the route's own
// watchers (`Route::Notifiee::handleIntfAttr`), so that a machine watching
// the route needs no watcher per interface.
enum class IntfAttr : std::uint8_t {
    localMembership,
    localReceiverInclude,
    localReceiverExclude,
    forward,
    fastForward,
    joinState,
    rptState,
    assertInfo,
    changeFlags,
};

class Intf : public Cask::Record<Intf> {
public:
    class Notifiee : public Cask::NotifieeOf<Intf> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleLocalMembership() {}
        virtual void handleLocalReceiverInclude() {}
        virtual void handleLocalReceiverExclude() {}
        virtual void handleForward() {}
        virtual void handleFastForward() {}
        virtual void handleJoinState() {}
        virtual void handleRptState() {}
        virtual void handleAssertInfo() {}
        virtual void handleLastAssertAction() {}
        virtual void handleRxPreferredAssert() {}
        virtual void handleRxInferiorAssert() {}
        virtual void handleLastJoinReceived() {}
        virtual void handleLastRptPruneReceived() {}
        virtual void handleAllowRpInUse() {}
        virtual void handleWcIntfChanged() {}
        virtual void handlePimIntfChanged() {}
        virtual void handleChangeFlags() {}
        virtual void handleToBeDeleted() {}
        virtual void handleInitialized() {}
    };

    Intf(Route* route, Wirl::IntfId intf, std::uint32_t ifIndex = 0)
        : route_(route), intfId_(intf), ifIndex_(ifIndex) {}

    Wirl::IntfId intfId() const { return intfId_; }
    std::uint32_t ifIndex() const { return ifIndex_; }
    // The route this interface belongs to; null once the route is gone.
    Route* route() const { return route_; }

    // Local receivers (from group membership).
    PIMSM_ROUTE_PART_ATTR(bool, localMembership, LocalMembership, IntfAttr)
    PIMSM_ROUTE_PART_ATTR(bool, localReceiverInclude, LocalReceiverInclude, IntfAttr)
    PIMSM_ROUTE_PART_ATTR(bool, localReceiverExclude, LocalReceiverExclude, IntfAttr)
    // The interface is in the outgoing list, and in the fast-failover one.
    PIMSM_ROUTE_PART_ATTR(bool, forward, Forward, IntfAttr)
    PIMSM_ROUTE_PART_ATTR(bool, fastForward, FastForward, IntfAttr)
    // Downstream states.
    PIMSM_ROUTE_PART_ATTR(JoinState, joinState, JoinState, IntfAttr)
    PIMSM_ROUTE_PART_ATTR(RptState, rptState, RptState, IntfAttr)
    // Assert state, the last action taken (1 to 6; 0 after a reset), counters.
    PIMSM_ROUTE_PART_ATTR(AssertInfo, assertInfo, AssertInfo, IntfAttr)
    CASK_ATTR(std::uint8_t, lastAssertAction, LastAssertAction)
    CASK_COUNTER(std::uint32_t, rxPreferredAssert, RxPreferredAssert)
    CASK_COUNTER(std::uint32_t, rxInferiorAssert, RxInferiorAssert)
    // Times of the last Join and the last (S,G,rpt) Prune received.
    CASK_ATTR(double, lastJoinReceived, LastJoinReceived)
    CASK_ATTR(double, lastRptPruneReceived, LastRptPruneReceived)
    CASK_ATTR(bool, allowRpInUse, AllowRpInUse)
    // Counters: the (*,G) route's interface, or the PIM interface, changed.
    CASK_COUNTER(std::uint32_t, wcIntfChanged, WcIntfChanged)
    CASK_COUNTER(std::uint32_t, pimIntfChanged, PimIntfChanged)
    PIMSM_ROUTE_PART_ATTR(IntfChangeFlags, changeFlags, ChangeFlags, IntfAttr)
    // Marked for removal by the next route review.
    CASK_ATTR(bool, toBeDeleted, ToBeDeleted)
    CASK_ATTR(bool, initialized, Initialized)

    // --- RFC 7761 macros for this (route, interface) ---------------------
    // On an (S,G) route's interface the (S,G) terms read this record and the
    // (*,G) terms read `wcIntf()`; on a (*,G) route's interface both are it.
    bool iAmDr() const;
    const Routing::Pim::PimIntfStatus* pimIntf() const;
    // The (*,G) route's Intf on this interface (this one for a (*,G) route).
    const Intf* wcIntf() const;
    // AssertWinner(X,G,I): my address when I am the winner, the winner's
    // when I lost, the default address otherwise.
    Wirl::IpGenAddr assertWinner() const;

    bool joinsSg() const;
    bool joinsWc() const;
    bool joinsWcRp() const { return false; }  // RFC 7761 has no (*,*,RP) state
    bool prunesSgRpt() const;
    bool includeSg() const;
    bool includeWc() const;
    bool excludeSg() const;
    bool lostAssertSg() const;
    bool lostAssertWc() const;
    bool lostAssertSgRpt() const;
    bool immediateOlistSg() const;
    bool immediateOlistWc() const;
    bool immediateOlistWcRp() const { return false; }  // no (*,*,RP) state
    bool inheritedOlistSgRpt() const;
    bool inheritedOlistSg() const;
    bool couldAssertSg() const;
    bool couldAssertWc() const;
    bool assertTrackingDesiredSg() const;
    bool assertTrackingDesiredWc() const;

    AssertMetric sptAssertMetric() const;
    AssertMetric rptAssertMetric() const;
    AssertMetric myAssertMetricSg() const;
    AssertMetric myAssertMetricWc() const;
    // Compare a received assert with this interface's state: preferred is
    // better than the current winner (when I lost) or than my own metric;
    // inferior is worse than my own metric; acceptable is better than my own.
    bool isPreferredAssertSg(const AssertMetric& rx) const;
    bool isPreferredAssertWc(const AssertMetric& rx) const;
    bool isInferiorAssertSg(const AssertMetric& rx) const;
    bool isInferiorAssertWc(const AssertMetric& rx) const;
    bool isAcceptableAssertSg(const AssertMetric& rx) const;
    bool isAcceptableAssertWc(const AssertMetric& rx) const;

private:
    friend class Route;
    // Tells this record's watchers, then (while the route still holds this
    // record) the route's watchers through `handleIntfAttr`.
    void notifyWithRoute(void (Notifiee::*handler)(), IntfAttr attr);

    Route* route_;
    Wirl::IntfId intfId_;
    std::uint32_t ifIndex_;
    bool localMembership_ = false;
    bool localReceiverInclude_ = false;
    bool localReceiverExclude_ = false;
    bool forward_ = false;
    bool fastForward_ = false;
    bool allowRpInUse_ = false;
    bool toBeDeleted_ = false;
    bool initialized_ = false;
    JoinState joinState_ = JoinState::noInfo;
    RptState rptState_ = RptState::rptNoInfo;
    std::uint8_t lastAssertAction_ = 0;
    std::uint32_t rxPreferredAssert_ = 0;
    std::uint32_t rxInferiorAssert_ = 0;
    std::uint32_t wcIntfChanged_ = 0;
    std::uint32_t pimIntfChanged_ = 0;
    IntfChangeFlags changeFlags_;
    AssertInfo assertInfo_;
    double lastJoinReceived_ = 0;
    double lastRptPruneReceived_ = 0;
};

}  // namespace Routing::Pim::SparseMode
