#pragma once
// RouteReviewSm: the one place where changes that concern many routes are
// applied to routes, one per VRF.
// Watches: Status.route, the change set, the SSM range, the group and fast-failover filters,
//          clear requests, RPF status, PIM interfaces and neighbours, boundaries.
// Writes:  route deletion and resurrection, Route::changeFlags / routeChanged,
//          Route::umhFrr, removal of interface records, numClearMroutes.
//
// Its watchers and other machines only record what changed, as flags in
// `localStatus.changeSet`, and ask for a review (`doUpdateReviewTimer`). The
// review walks every route in key order in slices of at most
// `reviewQuantum` (resuming at `reviewBookmark` on a later turn of the loop),
// applies the recorded changes, deletes or resurrects the routes marked for
// deletion, and hands each route whose upstream was touched a set of change
// flags (`changeFlags` + `routeChanged`). A new review swaps the change sets:
// what it consumes becomes `reviewChangeSet` and producers get a fresh
// `changeSet`, so a change made during a review waits for the next one.
//
// It also creates and destroys the per-route reactors (RouteSm) as routes
// enter and leave the route status.
//
// An SSM range change marks only the routes of groups the range did not
// cover at the previous review: (S,G) routes of groups that were SSM already
// are valid SSM routes and stay.
//
// Interface changes count against a route's upstream only when the
// IntfChange has a flag set: an entry recorded just so that the review
// removes interface records marked `toBeDeleted` touches no upstream.

#include <cstddef>
#include <map>
#include <memory>
#include <unordered_map>

#include "cask/clock.h"
#include "cask/collection.h"
#include "cask/event_loop.h"
#include "cask/reactor_map.h"
#include "cask/sliced_review.h"
#include "pimsm/common/vrf_context.h"
#include "pimsm/route/local_status.h"
#include "pimsm/route/route_sm.h"
#include "pimsm/route/status.h"
#include "platform/group_ranges.h"
#include "platform/mcast_boundary.h"
#include "platform/membership.h"
#include "platform/message_counters.h"
#include "platform/mfib_records.h"
#include "platform/mroute_clear.h"
#include "platform/pim_status.h"
#include "platform/rpf_status.h"
#include "platform/vxlan_status.h"
#include "wirl/vrf_name.h"

namespace Routing::Pim::SparseMode {

class RouteReviewSm : public Status::Notifiee {
public:
    // The routes' reactors, in the VRF's route directory.
    using RouteSmMap = Cask::ReactorMap<Routing::Pim::RouteKey, RouteSm, Cask::SharedIndex>;

    static constexpr Cask::Seconds defaultMinDelay = 0.01;
    static constexpr Cask::Seconds defaultMaxDelay = 0.05;
    static constexpr Cask::Seconds defaultReviewQuantum = 0.1;

    // Reads from the context: loop, config, status, localStatus, rpfConfig,
    // rpfStatus and pimStatus (required); the others may be absent while the
    // VRF has no such input.
    explicit RouteReviewSm(const VrfContext& ctx);
    ~RouteReviewSm() override;
    RouteReviewSm(const RouteReviewSm&) = delete;
    RouteReviewSm& operator=(const RouteReviewSm&) = delete;

    const L3::VrfName& vrfName() const { return in_.vrfName; }
    Cask::EventLoop& loop() const { return *in_.loop; }
    Config& config() const { return *in_.config; }
    Status& status() const { return *in_.status; }
    LocalStatus& localStatus() const { return *in_.localStatus; }
    Routing::Pim::RpfConfig& rpfConfig() const { return *in_.rpfConfig; }
    Routing::Pim::RpfStatus& rpfStatus() const { return *in_.rpfStatus; }
    Routing::Pim::Status& pimStatus() const { return *in_.pimStatus; }

    // The review timer's delays are read when the machine is initialized.
    Cask::Seconds minDelay() const { return minDelay_; }
    void minDelayIs(Cask::Seconds d) { minDelay_ = d; }
    Cask::Seconds maxDelay() const { return maxDelay_; }
    void maxDelayIs(Cask::Seconds d) { maxDelay_ = d; }
    Cask::Seconds reviewQuantum() const { return reviewQuantum_; }
    void reviewQuantumIs(Cask::Seconds q) {
        reviewQuantum_ = q;
        if (review_) review_->quantumIs(q);
    }
    // While set, interface records that lose their state are kept.
    bool preserveRouteIntf() const { return preserveRouteIntf_; }
    void preserveRouteIntfIs(bool v) { preserveRouteIntf_ = v; }
    // The null key while no review is in progress.
    const Routing::Pim::RouteKey& reviewBookmark() const;
    Routing::Pim::Tidal::MessageCounters* pimCounters() const { return pimCounters_.get(); }
    void pimCountersIs(Cask::Ptr<Routing::Pim::Tidal::MessageCounters> c) {
        pimCounters_ = std::move(c);
    }
    bool initialized() const { return initialized_; }
    Cask::ReviewTimer* reviewTimer() const { return review_ ? &review_->timer() : nullptr; }

    // The per-route reactors.
    RouteSm* routeSm(const Routing::Pim::RouteKey& k) const { return routeSm_.get(k); }
    std::size_t routeSmSize() const { return routeSm_.size(); }
    const RouteSmMap& routeSmMap() const { return routeSm_; }
    // Creates the reactor of `route` (not yet initialized) when its key has
    // none; returns it, or null when the key has one.
    RouteSm* routeSmCreate(Route& route) { return routeSm_.update(route.key(), &route, *this); }

    // --- handlers -----------------------------------------------------------
    // Machine created (first call), or the route status became initialized.
    void handleInitialized() override;
    void handleRoute(const Routing::Pim::RouteKey& key) override;
    void handlePimIntf(Wirl::IntfId intf);
    void handleUsedDr(Wirl::IntfId intf);
    void handleMbr(Wirl::IntfId intf);
    void handleSourceInject(Wirl::IntfId intf);
    void handleAddress(Wirl::IntfId intf);
    void handleNeighbor(const Routing::Pim::NeighborKey& nbr);
    void handleNeighborGenId(const Routing::Pim::NeighborKey& nbr);
    void handleNeighborPortInfo(const Routing::Pim::NeighborKey& nbr);
    void handleFastFailoverIntf(Wirl::IntfId intf);
    void handleMcastBoundaryStatus(Wirl::IntfId intf);
    void handleMcastVxlanIntf(Wirl::IntfId intf);
    void handleSsmConfig();
    void handleGroupFilterStatus();
    void handleFrrFilterStatus();
    void handleClearMfibCount();
    void handleRoutesMarkedForDeletion();
    void handleClearRoutes();
    void handleClearCounters();
    void handleRpfRouteChange();

    // --- actions ------------------------------------------------------------
    void doUpdateReviewTimer();
    void doReviewRoute(const Routing::Pim::RouteKey& key, ChangeSet& cs);
    // Removes the route; re-creates it at once with just the interfaces on
    // which the membership table still has an include member.
    void deleteOrResurrect(const Routing::Pim::RouteKey& key);
    // A fast-failover upstream for `route`, with the RPF of its RPF target.
    Cask::Ptr<UpstreamInfo> doCreateUmhFrr(Route& route) const;
    // Gives the route a fast-failover upstream while the filter enables fast
    // failover for its group, and takes it away otherwise; says what it did,
    // so that each caller traces in its own words.
    enum class UmhFrrChange { none, created, deleted };
    UmhFrrChange doUpdateUmhFrr(Route& route) const;

private:
    class Watchers;
    class PimIntfWatcher;

    void doInitialize();
    void doCreateReview();
    void doReviewRouteIntf(Route& route, const ChangeSet& cs);
    void doReviewUmhFrr(Route& route);
    ChangeFlags doReviewUpstream(Route& route, const ChangeSet& cs);
    void doMaybeDeleteRoute(Route& route);
    void doUpdatePimIntfWatchers(Wirl::IntfId intf);

    const VrfContext& in_;
    Cask::Ptr<Routing::Pim::Tidal::MessageCounters> pimCounters_;
    Cask::Seconds minDelay_ = defaultMinDelay;
    Cask::Seconds maxDelay_ = defaultMaxDelay;
    Cask::Seconds reviewQuantum_ = defaultReviewQuantum;
    bool preserveRouteIntf_ = false;
    bool initialized_ = false;
    // The SSM range in force before and at the start of the latest review
    // that consumed an SSM range change.
    Cask::Ptr<Config> ssmBefore_;
    Cask::Ptr<Config> ssmSeen_;
    std::unique_ptr<Cask::SlicedReview<Routing::Pim::RouteKey>> review_;
    std::unique_ptr<Watchers> watchers_;
    std::map<Wirl::IntfId, std::unique_ptr<PimIntfWatcher>> pimIntf_;
    RouteSmMap routeSm_{in_.routeReactors};
};

// Creates the review and initializes it (watchers, reactors for the routes
// already in the status, the review timer).
std::unique_ptr<RouteReviewSm> routeReviewSmFactory(const VrfContext& ctx);

}  // namespace Routing::Pim::SparseMode
