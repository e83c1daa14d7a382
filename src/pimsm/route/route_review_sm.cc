#include "pimsm/route/route_review_sm.h"

#include <utility>
#include <vector>

#include <fmt/format.h>

#include "cask/assert.h"
#include "cask/trace.h"
#include "pimsm/common/vrf_inputs.h"

namespace Routing::Pim::SparseMode {

using Routing::Pim::NeighborKey;
using Routing::Pim::RouteKey;
using Wirl::IntfId;

// --- watchers ----------------------------------------------------------------
// Each forwards the changes of one input record to the review's handlers.

namespace {

template <class R>
class Forward : public R::Notifiee {
public:
    explicit Forward(RouteReviewSm& sm) : sm_(sm) {}

protected:
    RouteReviewSm& sm_;
};

class LocalStatusWatcher : public Forward<LocalStatus> {
public:
    LocalStatusWatcher(RouteReviewSm& sm, Forward<ChangeSet>& changeSet)
        : Forward(sm), changeSet_(changeSet) {}
    void handleChangeSet() override { changeSet_.notifierIs(notifier()->changeSet()); }

private:
    Forward<ChangeSet>& changeSet_;
};

class ChangeSetWatcher : public Forward<ChangeSet> {
public:
    using Forward::Forward;
    void handleRoutesMarkedForDeletion() override {
        if (notifier()->routesMarkedForDeletion()) sm_.handleRoutesMarkedForDeletion();
    }
};

class ConfigWatcher : public Forward<Config> {
public:
    using Forward::Forward;
    void handleSsmRange() override { sm_.handleSsmConfig(); }
};

class GroupFilterWatcher : public Forward<Routing::Pim::GroupFilterStatus> {
public:
    using Forward::Forward;
    void handleBidirRange() override { sm_.handleGroupFilterStatus(); }
};

class FrrFilterWatcher : public Forward<FrrFilterStatus> {
public:
    using Forward::Forward;
    void handleFrrRange() override { sm_.handleFrrFilterStatus(); }
};

class MfibConfigWatcher : public Forward<Routing::Multicast::Fib::Config> {
public:
    using Forward::Forward;
    void handleClearMfibCount() override { sm_.handleClearMfibCount(); }
};

class ClearConfigWatcher : public Forward<Routing::Pim::ClearMrouteConfig> {
public:
    using Forward::Forward;
    void handleClearRoutesCount() override { sm_.handleClearRoutes(); }
    void handleClearCountersCount() override { sm_.handleClearCounters(); }
};

class RpfStatusWatcher : public Forward<Routing::Pim::RpfStatus> {
public:
    using Forward::Forward;
    void handleRpfRouteChangedCount() override { sm_.handleRpfRouteChange(); }
};

class PimStatusWatcher : public Forward<Routing::Pim::Status> {
public:
    using Forward::Forward;
    void handleIntf(IntfId intf) override { sm_.handlePimIntf(intf); }
    void handleActiveNeighbor(const NeighborKey& k) override { sm_.handleNeighbor(k); }
};

class FailoverWatcher : public Forward<Routing::Multicast::Fib::SparseModeStatus> {
public:
    using Forward::Forward;
    void handleFastFailoverIntf(IntfId intf) override { sm_.handleFastFailoverIntf(intf); }
};

class VxlanWatcher : public Forward<Routing::Multicast::VxlanStatus> {
public:
    using Forward::Forward;
    void handleVxlanIntf(IntfId intf) override { sm_.handleMcastVxlanIntf(intf); }
};

class NeighborWatcher : public Forward<Routing::Pim::PimNeighborStatus> {
public:
    NeighborWatcher(RouteReviewSm& sm, Routing::Pim::PimNeighborStatus* nbr) : Forward(sm) {
        notifierIs(nbr);
    }
    void handleGenId() override { sm_.handleNeighborGenId(notifier()->key()); }
    void handlePortInfo() override { sm_.handleNeighborPortInfo(notifier()->key()); }
};

template <class W, class R>
void attach(std::unique_ptr<W>& w, RouteReviewSm& sm, R* record) {
    if (!record) return;
    w = std::make_unique<W>(sm);
    w->notifierIs(record);
}

}  // namespace

class RouteReviewSm::Watchers {
public:
    std::unique_ptr<ChangeSetWatcher> changeSet;
    std::unique_ptr<LocalStatusWatcher> localStatus;
    std::unique_ptr<ConfigWatcher> config;
    std::unique_ptr<GroupFilterWatcher> groupFilter;
    std::unique_ptr<FrrFilterWatcher> frrFilter;
    std::unique_ptr<MfibConfigWatcher> mfibConfig;
    std::unique_ptr<ClearConfigWatcher> clearConfig;
    std::unique_ptr<RpfStatusWatcher> rpfStatus;
    std::unique_ptr<PimStatusWatcher> pimStatus;
    std::unique_ptr<Routing::McastBoundary::StatusWatcher> boundary;
    std::unique_ptr<FailoverWatcher> failover;
    std::unique_ptr<VxlanWatcher> vxlan;
};

// One PIM interface: its DR, border flag, source injection, address, and
// its neighbours (each with a watcher of its own).
class RouteReviewSm::PimIntfWatcher : public Forward<Routing::Pim::PimIntfStatus> {
public:
    PimIntfWatcher(RouteReviewSm& sm, Routing::Pim::PimIntfStatus* intf) : Forward(sm) {
        notifierIs(intf);
        for (const auto& [addr, nbr] : intf->neighbor()) {
            neighbor_[addr] = std::make_unique<NeighborWatcher>(sm, nbr.get());
        }
    }
    void handleUsedAddr() override { sm_.handleAddress(notifier()->intfId()); }
    void handleUsedMaskLen() override { sm_.handleAddress(notifier()->intfId()); }
    void handleUsedDr() override { sm_.handleUsedDr(notifier()->intfId()); }
    void handleMbr() override { sm_.handleMbr(notifier()->intfId()); }
    void handleSourceInject() override { sm_.handleSourceInject(notifier()->intfId()); }
    void handleNeighbor(const Wirl::IpGenAddr& addr) override {
        auto* nbr = notifier()->neighbor(addr).get();
        if (nbr) {
            auto& w = neighbor_[addr];
            if (!w || w->notifier() != nbr) w = std::make_unique<NeighborWatcher>(sm_, nbr);
        } else {
            neighbor_.erase(addr);
        }
        sm_.handleNeighbor(NeighborKey{notifier()->intfId(), addr});
    }

private:
    std::map<Wirl::IpGenAddr, std::unique_ptr<NeighborWatcher>> neighbor_;
};

// --- life cycle --------------------------------------------------------------

RouteReviewSm::RouteReviewSm(const VrfContext& ctx)
    : in_(requireInputs(ctx, "RouteReviewSm", &VrfContext::loop, &VrfContext::config,
                        &VrfContext::status, &VrfContext::localStatus, &VrfContext::rpfConfig,
                        &VrfContext::rpfStatus, &VrfContext::pimStatus)) {
    routeSm_.reserve(in_.routeCapacity);
}

RouteReviewSm::~RouteReviewSm() {
    // Reactors refer to this machine: they go first.
    routeSm_.clear();
}

std::unique_ptr<RouteReviewSm> routeReviewSmFactory(const VrfContext& ctx) {
    auto sm = std::make_unique<RouteReviewSm>(ctx);
    sm->handleInitialized();
    return sm;
}

void RouteReviewSm::handleInitialized() {
    if (!initialized_) doInitialize();
    doUpdateReviewTimer();
}

void RouteReviewSm::doInitialize() {
    doCreateReview();
    ssmBefore_ = Cask::make<Config>(in_.config->family());
    ssmSeen_ = Cask::make<Config>(in_.config->family());
    ssmSeen_->ssmRangeIs(in_.config->ssmRange());
    watchers_ = std::make_unique<Watchers>();
    Watchers& w = *watchers_;
    notifierIs(in_.status);
    w.changeSet = std::make_unique<ChangeSetWatcher>(*this);
    w.changeSet->notifierIs(in_.localStatus->changeSet());
    w.localStatus = std::make_unique<LocalStatusWatcher>(*this, *w.changeSet);
    w.localStatus->notifierIs(in_.localStatus);
    attach(w.config, *this, in_.config);
    attach(w.groupFilter, *this, in_.localStatus->groupFilterStatus());
    attach(w.frrFilter, *this, in_.localStatus->frrFilterStatus());
    attach(w.mfibConfig, *this, in_.mfibConfig);
    attach(w.clearConfig, *this, in_.clearConfig);
    attach(w.rpfStatus, *this, in_.rpfStatus);
    attach(w.pimStatus, *this, in_.pimStatus);
    if (in_.mcastBoundaryStatus) {
        w.boundary = std::make_unique<Routing::McastBoundary::StatusWatcher>(
            *in_.mcastBoundaryStatus, [this](IntfId intf) { handleMcastBoundaryStatus(intf); });
    }
    attach(w.failover, *this, in_.failoverIntfs);
    attach(w.vxlan, *this, in_.mcastVxlanStatus);
    for (const auto& [id, rec] : in_.pimStatus->intf()) doUpdatePimIntfWatchers(id);
    routeSm_.sweep(in_.status->route(), [this](const RouteKey& key) {
        if (auto route = in_.status->route(key)) routeSmFactory(*this, route);
    });
    initialized_ = true;
}

void RouteReviewSm::handleRoute(const RouteKey& key) {
    Route* route = in_.status->route().raw(key);
    RouteSm* old = routeSm(key);
    if (old && old->route() == route) return;
    if (old) CASK_VRF_TRACE(6, in_.vrfName, "RouteReviewSm::handleRoute({}), Route deleted", key);
    if (!route) {
        routeSm_.del(key);
        return;
    }
    CASK_VRF_TRACE(6, in_.vrfName, "RouteReviewSm::handleRoute({}), Route added", key);
    if (!old) {
        routeSm_.add(*route, *this)->handleInitialized();
        return;
    }
    // A replaced route's reactor goes (handleDelete) before the new one comes.
    if (RouteSm* sm = routeSm_.update(key, route, *this)) sm->handleInitialized();
}

// --- input handlers ------------------------------------------------------------

void RouteReviewSm::doUpdatePimIntfWatchers(IntfId intf) {
    auto* rec = in_.pimStatus->intfRaw(intf);
    if (!rec) {
        pimIntf_.erase(intf);
        return;
    }
    auto& w = pimIntf_[intf];
    if (!w || w->notifier() != rec) w = std::make_unique<PimIntfWatcher>(*this, rec);
}

void RouteReviewSm::handlePimIntf(IntfId intf) {
    doUpdatePimIntfWatchers(intf);
    IntfChange& c = in_.localStatus->changeSet()->intfChangeIs(intf);
    c.intfStatusChanged = true;
    // Gone: its interface records go too. Back again: they stay.
    c.toBeDeleted = !in_.pimStatus->intfHas(intf);
    CASK_VRF_TRACE(6, in_.vrfName, "RouteSm: Interface {} changed", intf);
    doUpdateReviewTimer();
}

void RouteReviewSm::handleUsedDr(IntfId intf) {
    in_.localStatus->changeSet()->intfChangeIs(intf).drStatusChanged = true;
    CASK_VRF_TRACE(6, in_.vrfName, "RouteSm: Interface {} DR status changed", intf);
    doUpdateReviewTimer();
}

void RouteReviewSm::handleMbr(IntfId intf) {
    in_.localStatus->changeSet()->intfChangeIs(intf).mbrStatusChanged = true;
    CASK_VRF_TRACE(6, in_.vrfName, "RouteSm: Interface {} MBR status changed", intf);
    auto* rec = in_.pimStatus->intfRaw(intf);
    CASK_VRF_TRACE(7, in_.vrfName, "RouteReviewSm::handleMbr() {} {}",
                   rec && rec->mbr() ? "Add mbrIntf" : "Del mbrIntf", intf);
    doUpdateReviewTimer();
}

void RouteReviewSm::handleSourceInject(IntfId intf) {
    in_.localStatus->changeSet()->intfChangeIs(intf).sourceInjectChanged = true;
    CASK_VRF_TRACE(6, in_.vrfName, "RouteSm: Interface {} source inject changed", intf);
    doUpdateReviewTimer();
}

void RouteReviewSm::handleAddress(IntfId intf) {
    in_.localStatus->changeSet()->intfChangeIs(intf).addressChanged = true;
    CASK_VRF_TRACE(6, in_.vrfName, "RouteSm: Interface {} address changed", intf);
    doUpdateReviewTimer();
}

void RouteReviewSm::handleNeighbor(const NeighborKey& nbr) {
    in_.localStatus->changeSet()->neighborChangeIs(nbr).neighborStatusChanged = true;
    CASK_VRF_TRACE(6, in_.vrfName, "RouteSm: Neighbor {} state changed", nbr);
    doUpdateReviewTimer();
}

void RouteReviewSm::handleNeighborGenId(const NeighborKey& nbr) {
    in_.localStatus->changeSet()->neighborChangeIs(nbr).genIdChanged = true;
    CASK_VRF_TRACE(6, in_.vrfName, "RouteSm: Neighbor {} Gen ID changed", nbr);
    doUpdateReviewTimer();
}

void RouteReviewSm::handleNeighborPortInfo(const NeighborKey& nbr) {
    // A new transport for the neighbour's Join/Prunes: the routes toward it
    // re-send their state as after a status change.
    in_.localStatus->changeSet()->neighborChangeIs(nbr).neighborStatusChanged = true;
    CASK_VRF_TRACE(6, in_.vrfName, "RouteSm: Neighbor {} PortInfo changed", nbr);
    doUpdateReviewTimer();
}

void RouteReviewSm::handleFastFailoverIntf(IntfId intf) {
    in_.localStatus->changeSet()->intfChangeIs(intf).fastFailoverChanged = true;
    CASK_VRF_TRACE(6, in_.vrfName, "RouteSm: Interface {} fast failover changed", intf);
    doUpdateReviewTimer();
}

void RouteReviewSm::handleMcastBoundaryStatus(IntfId intf) {
    in_.localStatus->changeSet()->intfChangeIs(intf).boundaryStatusChanged = true;
    CASK_VRF_TRACE(6, in_.vrfName, "RouteSm: Boundary status changed {}", intf);
    doUpdateReviewTimer();
}

void RouteReviewSm::handleMcastVxlanIntf(IntfId intf) {
    in_.localStatus->changeSet()->intfChangeIs(intf).vxlanIntfChanged = true;
    CASK_VRF_TRACE(6, in_.vrfName, "RouteSm: Interface {} multicast vxlan status changed", intf);
    doUpdateReviewTimer();
}

void RouteReviewSm::handleSsmConfig() {
    CASK_VRF_TRACE(6, in_.vrfName, "RouteReviewSm::handleSsmConfig()");
    in_.localStatus->changeSet()->ssmConfigChangedIs(true);
    doUpdateReviewTimer();
}

void RouteReviewSm::handleGroupFilterStatus() {
    CASK_VRF_TRACE(6, in_.vrfName, "RouteReviewSm::handleGroupFilterStatus()");
    in_.localStatus->changeSet()->groupFilterStatusChangedIs(true);
    doUpdateReviewTimer();
}

void RouteReviewSm::handleFrrFilterStatus() {
    CASK_VRF_TRACE(6, in_.vrfName, "RouteReviewSm::handleFrrFilterStatus()");
    in_.localStatus->changeSet()->frrFilterStatusChangedIs(true);
    doUpdateReviewTimer();
}

void RouteReviewSm::handleClearMfibCount() {
    CASK_VRF_TRACE(6, in_.vrfName, "RouteReviewSm::handleClearMfibCount()");
    in_.localStatus->changeSet()->resurrectMfibIs(true);
    doUpdateReviewTimer();
}

void RouteReviewSm::handleRoutesMarkedForDeletion() {
    CASK_VRF_TRACE(6, in_.vrfName, "RouteReviewSm::handleRoutesMarkedForDeletion()");
    doUpdateReviewTimer();
}

void RouteReviewSm::handleClearCounters() {
    CASK_VRF_TRACE(6, in_.vrfName, "RouteReviewSm::handleClearCounters()");
    if (pimCounters_) pimCounters_->clearAll();
}

void RouteReviewSm::handleRpfRouteChange() {
    // Copied: a reaction may publish the next batch.
    const std::vector<RouteKey> keys = in_.rpfStatus->rpfRouteChangedRoute();
    CASK_VRF_TRACE(6, in_.vrfName, "RouteReviewSm::handleRpfRouteChange() routes: {}", keys.size());
    for (const auto& key : keys) {
        auto route = in_.status->route(key);
        if (!route) continue;
        CASK_VRF_TRACE(7, in_.vrfName,
                       "RouteReviewSm::handleRpfRouteChange(): RPF route changed for route {}",
                       key);
        route->changeFlagsIs(ChangeFlags{ChangeFlags::Bit::rpfRouteChanged});
        route->routeChangedInc();
        route->changeFlagsIs(ChangeFlags{});
    }
}

// --- clear requests ------------------------------------------------------------

void RouteReviewSm::handleClearRoutes() {
    const auto& cc = *in_.clearConfig;
    auto flags = cc.flags();
    CASK_VRF_TRACE(6, in_.vrfName,
                   "RouteReviewSm::handleClearRoutes() config flags {} group {} source {}", flags,
                   cc.group(), cc.source());
    if (flags.empty()) return;
    if (flags.has(Routing::Pim::MrouteClearFlags::Bit::singleRoute)) {
        const bool wc = cc.source().family() == Wirl::AddressFamily::ipunknown;
        const RouteKey key = wc ? RouteKey::wc(cc.group()) : RouteKey(cc.source(), cc.group());
        if (!in_.status->route(key)) {
            CASK_VRF_TRACE(6, in_.vrfName, "RouteReviewSm::handleClearRoutes() route {} not found",
                           key);
            return;
        }
        deleteOrResurrect(key);
        return;
    }
    ChangeSet& cs = *in_.localStatus->changeSet();
    auto* info = cs.clearInfo();
    if (!info->flags().empty() &&
        (info->flags() != flags || info->group() != cc.group() || info->source() != cc.source())) {
        // Two different requests before one review: the earlier one is kept
        // beside the latest, so that each clears exactly what it names.
        auto earlier = Cask::make<Routing::Pim::ClearInfo>();
        earlier->groupIs(info->group());
        earlier->sourceIs(info->source());
        earlier->flagsIs(info->flags());
        cs.earlierClearInfoIs(std::move(earlier));
    }
    info->groupIs(cc.group());
    info->sourceIs(cc.source());
    info->flagsIs(flags);
    CASK_VRF_TRACE(6, in_.vrfName, "RouteReviewSm::handleClearRoutes() changeSet flags {}", flags);
    doUpdateReviewTimer();
}

// --- the review ---------------------------------------------------------------

const RouteKey& RouteReviewSm::reviewBookmark() const {
    static const RouteKey none;
    return review_ ? review_->bookmark() : none;
}

void RouteReviewSm::doUpdateReviewTimer() {
    if (!initialized_) return;
    if (review_->pending()) {
        CASK_VRF_TRACE(8, in_.vrfName, "RouteReviewSm::doUpdateReviewTimer(): review pending");
        return;
    }
    if (!in_.status->initialized()) {
        CASK_VRF_TRACE(7, in_.vrfName,
                       "RouteReviewSm::doUpdateReviewTimer(): wait for all routes to be read");
        return;
    }
    if (in_.localStatus->changeSet()->empty()) {
        CASK_VRF_TRACE(8, in_.vrfName,
                       "RouteReviewSm::doUpdateReviewTimer(): changeSet is empty!!!");
        return;
    }
    CASK_VRF_TRACE(7, in_.vrfName, "RouteReviewSm::doUpdateReviewTimer()");
    review_->request();
}

// The review walks every route with the change set it took when it started;
// producers meanwhile fill a fresh `changeSet` for the next review.
void RouteReviewSm::doCreateReview() {
    LocalStatus& ls = *in_.localStatus;
    Cask::SlicedReview<RouteKey>::Steps steps;
    steps.walk = Cask::orderedWalk(in_.status->route());
    steps.onStart = [this, &ls] {
        ls.reviewChangeSetIs(Cask::Ptr<ChangeSet>(ls.changeSet()));
        ls.changeSetIs(LocalStatus::newChangeSet());
        if (ls.reviewChangeSet()->ssmConfigChanged()) {
            ssmBefore_->ssmRangeIs(ssmSeen_->ssmRange());
            ssmSeen_->ssmRangeIs(in_.config->ssmRange());
        }
    };
    steps.onSlice = [this, &ls](Cask::Seconds start, Cask::Seconds stop) {
        if (!Cask::trace().on(8)) return;
        for (const auto& [id, c] : ls.reviewChangeSet()->intfChange()) {
            CASK_VRF_TRACE(8, in_.vrfName, "RouteReviewSm::doReview(), new interface: {}", id);
        }
        for (const auto& [k, c] : ls.reviewChangeSet()->neighborChange()) {
            CASK_VRF_TRACE(8, in_.vrfName, "RouteReviewSm::doReview(), new neighbor: {}", k);
        }
        CASK_VRF_TRACE(
            8, in_.vrfName,
            "RouteReviewSm::doReview(), start time: {}, stop time: {} review quantum: {}", start,
            stop, reviewQuantum_);
    };
    steps.visit = [this, &ls](const RouteKey& key) {
        const Cask::Ptr<ChangeSet> cs(ls.reviewChangeSet());
        doReviewRoute(key, *cs);
        if (!cs->resurrectMfib()) return;
        if (auto* route = in_.status->route(key).get()) route->mfibChangeCountInc();
    };
    steps.onFinish = [this, &ls] {
        const ChangeSet& cs = *ls.reviewChangeSet();
        if (const std::size_t cleared = cs.clearRequests()) {
            CASK_VRF_TRACE(4, in_.vrfName, "RouteReviewSm: Finished review, set clearMroutes");
            for (std::size_t i = 0; i < cleared; ++i) ls.numClearMroutesInc();
        } else {
            CASK_VRF_TRACE(4, in_.vrfName, "RouteReviewSm: Finished review");
        }
        ls.reviewChangeSetIs(LocalStatus::newChangeSet());
        doUpdateReviewTimer();
    };
    Cask::ReviewTexts texts{.vrf = fmt::to_string(in_.vrfName), .name = "RouteReviewSm: "};
    texts.finish = "";  // traced above, with what the review carried
    texts.startLevel = 4;
    // The delays pass through single precision, as the timer always took them.
    const Cask::ReviewTiming timing{static_cast<float>(minDelay_), static_cast<float>(maxDelay_)};
    review_ = std::make_unique<Cask::SlicedReview<RouteKey>>(*in_.loop, timing, std::move(texts),
                                                             std::move(steps));
    review_->quantumIs(reviewQuantum_);
}

}  // namespace Routing::Pim::SparseMode
