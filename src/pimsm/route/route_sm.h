#pragma once
// RouteSm: the per-route reactor. The route review keeps one for every route
// of the VRF's route status (`routeSmFactory` when the route appears,
// `handleDelete` when it goes). It registers the route in LocalStatus and in
// the status's indexes, watches the route's interface records and upstream,
// keeps the route's fast-failover upstream and its RPF request in step with
// the route, and turns per-route events into deletion marks and change-set
// entries. It never changes other routes: fan-out goes through the review.
// Watches: its route (flags, interfaces, upstream) and each interface record's state.
// Writes:  LocalStatus.wcRoute / sgRoute, the status's indexes and counts,
//          Intf::toBeDeleted, markedForDeletion of (*,G) routes, RPF requests,
//          Route::joinedSince.
//
// When an interface record stops carrying state (see `intfCarriesState`) it
// is marked `toBeDeleted` and the next review removes it; when the route's
// last interface goes, a (*,G) route is marked for deletion. An (S,G) route
// is not: the machines that own its state (keepalive, upstream join) mark it
// when that state ends.
//
// Also here: RpfTableSm, which points the VRF's RPF resolver at the table
// UnicastRoutingStatus names for RPF.

#include <cstddef>
#include <memory>
#include <stdexcept>

#include "cask/reactor_map.h"
#include "pimsm/route/route.h"
#include "pimsm/route/unicast_routing_status.h"
#include "platform/rpf_resolver.h"

namespace Routing::Pim::SparseMode {

class RouteReviewSm;

// A reactor re-created for a key with a different route.
class ReinstantiationError : public std::logic_error {
public:
    using std::logic_error::logic_error;
};

class RouteSm : public RouteReactor {
public:
    RouteSm(RouteReviewSm& review, Route& route);
    ~RouteSm() override;
    RouteSm(const RouteSm&) = delete;
    RouteSm& operator=(const RouteSm&) = delete;

    Route* route() const { return notifier(); }
    RouteReviewSm& routeReviewSm() const { return review_; }
    // The route is registered (set by the first `handleInitialized`).
    bool initialized() const { return initialized_; }

    // An interface record keeps itself while any of these holds: local
    // membership or an include / exclude receiver, a downstream join state
    // other than NoInfo, an (S,G,rpt) state other than NoInfo, or an assert
    // state other than NoInfo. Forwarding bits and timestamps are derived
    // from those and keep nothing.
    static bool intfCarriesState(const Intf& intf);

    // Reactor created, or the route's `initialized` flag changed: registers
    // the route once.
    void handleInitialized() override;
    void handleRouteInitialized();
    void handleRouteIntf(Wirl::IntfId intf) override { handleIntf(intf); }
    void handleIntf(Wirl::IntfId intf);
    void handleRouteFlags() override;
    // The route's interfaces and upstream, through the route.
    void handleIntfAttr(Intf& intf, IntfAttr attr) override;
    void handleUmhAttr(UpstreamInfo& umh, UmhAttr attr) override;
    void handleRpf();
    void handleUpJoinState() override { doUpdateJoinedSince(false); }
    void handleRp() { doUpdateRpfConfig(); }
    void updateUmhFrr();
    void doUpdateRpfConfig();
    // Keeps the route's `joinedSince` in step with its upstream join state
    // and RPF' neighbour; `neighborMoved` restarts it while joined.
    void doUpdateJoinedSince(bool neighborMoved);
    void handleIntfChange(Intf& intf);
    // The route left the status: undoes the registration.
    void handleDelete();

private:
    RouteReviewSm& review_;
    bool initialized_ = false;
    // While the machines told of the new route settle its upstream (RP,
    // RPF, RPF'), one attribute at a time: its RPF request is written once,
    // when they are done, not once per attribute.
    bool settling_ = false;
};

// Returns the review's reactor for the route's key, creating and initializing
// it when there is none. A reactor of the same key serving another route is
// refused with ReinstantiationError.
RouteSm* routeSmFactory(RouteReviewSm& review, const Cask::Ptr<Route>& route);

// Keeps an RpfResolver on the table UnicastRoutingStatus names for RPF.
class RpfTableSm : public UnicastRoutingStatus::Notifiee {
public:
    RpfTableSm(Cask::Ptr<UnicastRoutingStatus> status, Routing::Pim::RpfResolver& resolver);
    void handleUribShadowStatus() override { doUpdateTable(); }
    void handleMribStatus() override { doUpdateTable(); }
    void handleMribShadowStatus() override { doUpdateTable(); }
    void handleUrib6ShadowStatus() override { doUpdateTable(); }
    void handleMrib6Status() override { doUpdateTable(); }
    void handleMrib6ShadowStatus() override { doUpdateTable(); }

private:
    void doUpdateTable();
    Cask::Ptr<UnicastRoutingStatus> status_;
    Routing::Pim::RpfResolver& resolver_;
};

}  // namespace Routing::Pim::SparseMode
