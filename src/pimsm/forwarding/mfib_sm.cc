#include "pimsm/forwarding/mfib_sm.h"

#include <algorithm>
#include <bit>
#include <utility>

#include "cask/assert.h"
#include "cask/trace.h"
#include "pimsm/common/vrf_inputs.h"

namespace Routing::Pim::SparseMode {

using Routing::Multicast::Fib::convertKey;
using Routing::Multicast::Fib::IpGenRouteKey;

MfibSm::MfibSm(const VrfContext& ctx)
    : vrfName_(ctx.vrfName),
      mfibTidal_(ctx.mfibTidal),
      routeStatus_(ctx.status),
      localStatus_(ctx.localStatus),
      mfibConfig_(ctx.mfibConfig),
      loop_(ctx.loop),
      wcRho_(ctx.routeReactors) {
    requireInputs(ctx, "MfibSm", &VrfContext::mfibTidal, &VrfContext::localStatus);
    sgRho_.reserve(ctx.routeCapacity);
    wcRho_.reserve(ctx.routeCapacity);
    notifierIs(mfibConfig_.get());
}

MfibSm::~MfibSm() {
    // Reactors first: they refer back to this machine.
    rhoLocalStatus_.notifierIs(nullptr);
    sgRho_.clear();
    wcRho_.clear();
}

void MfibSm::handleInit() {
    if (initialized_) return;
    initialized_ = true;
    CASK_VRF_TRACE(6, vrfName_,
                   "MfibSm::"
                   "handleInit(): Size --> OifIndexFreePool: {}, IntfOifIndex collection: {}, "
                   "OifIndexIntf collection: {}",
                   oifIndexFreePool_.size(), intfOifIndex_.size(), mfibTidal_->oifIndexIntfSize());
    oifIndexFreePoolInit();
    doRepairStoredRecords();
    // Records of an earlier run: keep those whose route the agent still
    // holds, so their traffic keeps flowing while the reactors rebuild them.
    std::vector<IpGenRouteKey> stale;
    for (const auto& [key, record] : mfibTidal_->route()) {
        if (!routeHeld(convertKey(key))) stale.push_back(key);
    }
    for (const auto& key : stale) {
        CASK_VRF_TRACE(4, vrfName_,
                       "MfibSm::"
                       "handleInit(): Restarting, deleting route {} from the MFIB",
                       key);
        CASK_VRF_TRACE(7, vrfName_,
                       "MfibSm::"
                       "handleInit(): Deleting Route");
        handleDelete(convertKey(key));
    }
    rhoLocalStatus_.notifierIs(localStatus_.get());
    wcRho_.sweep(localStatus_->wcRoute(),
                 [this](const Routing::Pim::RouteKey& k) { rhoLocalStatus_.handleWcRoute(k); });
    sgRho_.sweep(localStatus_->sgRoute(),
                 [this](const Routing::Pim::RouteKey& k) { rhoLocalStatus_.handleSgRoute(k); });
}

void MfibSm::doReportCorruption(const char* where, const std::string& what) {
    CASK_VRF_TRACE(4, vrfName_, "MfibSm::{}(): Corrupt forwarding table, repairing: {}", where,
                   what);
    mfibTidal_->reportCorruption(what);
}

void MfibSm::doRepairStoredRecords() {
    // A bit whose index maps to no interface cannot be said to mean any
    // interface: it goes. A route the agent holds gets its interfaces back
    // when its reactor builds the record; the others are removed below.
    std::map<TMF::OifIndex, std::uint32_t> users;
    std::vector<TMF::Route> repaired;
    for (const auto& [key, record] : mfibTidal_->route()) {
        TMF::Route fixed = record;
        TMF::OifIndex highest;
        for (TMF::OifIndex i : record.oifIteratorConst()) {
            if (mfibTidal_->oifIndexIntfHas(i)) {
                ++users[i];
                highest = i;
                continue;
            }
            doReportCorruption("handleInit",
                               fmt::format("route {}: oif {} has no interface", key, i));
            fixed.oifDel(i);
        }
        if (fixed == record) continue;
        fixed.highestOifIndexIs(highest);
        repaired.push_back(fixed);
    }
    for (const TMF::Route& r : repaired) mfibTidal_->routeIs(r);
    // Every mapping counts the records that now set its bit; a mapping no
    // record uses returns to the pool.
    std::vector<TMF::OifIndexIntf> recount;
    for (const auto& [index, entry] : mfibTidal_->oifIndexIntf()) {
        auto it = users.find(index);
        const std::uint32_t n = it == users.end() ? 0 : it->second;
        if (n && entry.refCount == n) continue;
        doReportCorruption("handleInit",
                           fmt::format("oifIndexIntf {}: interface '{}' refCount {}, used by {}",
                                       index, entry.intf, entry.refCount, n));
        recount.push_back({index, entry.intf, n});
    }
    for (const TMF::OifIndexIntf& entry : recount) {
        if (entry.refCount) {
            mfibTidal_->oifIndexIntfIs(entry);
        } else {
            doFreeOifIndex(entry.index, entry.intf);
        }
    }
    for (const auto& [index, entry] : mfibTidal_->oifIndexIntf()) {
        refCount_[index.value()] = entry.refCount;
    }
}

bool MfibSm::routeHeld(const Routing::Pim::RouteKey& key) const {
    if (localStatus_->route(key)) return true;
    return routeStatus_ && routeStatus_->routeHas(key);
}

// --- interface / index mapping ----------------------------------------------------

TMF::OifIndex MfibSm::intfOifIndex(Wirl::IntfId intfId) const {
    auto it = intfOifIndex_.find(intfId);
    return it == intfOifIndex_.end() ? TMF::OifIndex() : it->second;
}

void MfibSm::oifIndexFreePoolLimitIs(std::uint32_t limit) {
    CASK_ASSERT(!oifIndexFreePoolInitialized_ && limit <= TMF::OifIndex::count,
                "oifIndexFreePoolLimit set before the pool is built");
    oifIndexFreePoolLimit_ = limit;
}

void MfibSm::oifIndexFreePoolInit() {
    if (oifIndexFreePoolInitialized_) return;
    oifIndexFreePoolInitialized_ = true;
    CASK_VRF_TRACE(6, vrfName_,
                   "MfibSm::"
                   "oifIndexFreePoolInit(): Initializing OifIndex Free Pool and IntfOifIndex "
                   "collection ");
    // A mapping at an index this agent never hands out is not one it made.
    std::vector<TMF::OifIndex> beyond;
    for (const auto& [index, entry] : mfibTidal_->oifIndexIntf()) {
        if (index.value() >= oifIndexFreePoolLimit_) beyond.push_back(index);
    }
    for (TMF::OifIndex index : beyond) {
        doReportCorruption(
            "oifIndexFreePoolInit",
            fmt::format("oifIndexIntf {}: interface '{}' beyond the index limit {}", index,
                        mfibTidal_->oifIndexIntf(index).intf, oifIndexFreePoolLimit_));
        mfibTidal_->oifIndexIntfDel(index);
    }
    for (std::uint16_t i = 0; i < oifIndexFreePoolLimit_; ++i) {
        const TMF::OifIndex index(i);
        auto it = mfibTidal_->oifIndexIntf().find(index);
        if (it == mfibTidal_->oifIndexIntf().end()) {
            oifIndexFreePool_.push_back(index);
            continue;
        }
        const TMF::OifIndexIntf& entry = it->second;
        // The first index found for an interface keeps it; a second one is
        // no mapping the agent made, nor is an entry naming another index.
        const bool duplicate = !entry.intf.isNull() && intfOifIndex_.contains(entry.intf);
        if (entry.intf.isNull() || duplicate || entry.index != index) {
            doReportCorruption("oifIndexFreePoolInit",
                               fmt::format("oifIndexIntf {}: interface '{}' index {}", index,
                                           entry.intf, entry.index));
            mfibTidal_->oifIndexIntfDel(index);
            oifIndexFreePool_.push_back(index);
            continue;
        }
        // The forwarding plane already holds this mapping: reuse it.
        intfOifIndex_[entry.intf] = index;
    }
    CASK_VRF_TRACE(6, vrfName_,
                   "MfibSm::"
                   "oifIndexFreePoolInit(): Done Initializing. Size -> OifIndexFreePool: {}, "
                   "IntfOifIndex collection: {}",
                   oifIndexFreePool_.size(), intfOifIndex_.size());
}

TMF::OifIndex MfibSm::createOifIndexMapping(Wirl::IntfId intfId) {
    if (oifIndexFreePool_.empty()) {
        CASK_VRF_TRACE(7, vrfName_,
                       "MfibSm::"
                       "createOifIndexMapping(): No free OifIndexes available {}",
                       intfId);
        return TMF::OifIndex();
    }
    const TMF::OifIndex index = oifIndexFreePool_.front();
    oifIndexFreePool_.pop_front();
    intfOifIndex_[intfId] = index;
    refCount_[index.value()] = 0;
    mfibTidal_->oifIndexIntfIs(TMF::OifIndexIntf{index, intfId, 0});
    freshIndexes_.push_back(index);
    return index;
}

void MfibSm::doUpdateOifIndexRefCount(const IpGenRouteKey& mfibKey, TMF::OifIndex oifIndex,
                                      bool increment) {
    std::uint32_t& count = refCount_[oifIndex.value()];
    if (increment) {
        ++count;
        CASK_VRF_TRACE(8, vrfName_,
                       "MfibSm::"
                       "doUpdateOifIndexRefCount(): Incrementing ref count intf: {}, oifIndex: {} "
                       "RefCount: {} route {}",
                       mfibTidal_->oifIndexIntf(oifIndex).intf, oifIndex, count, mfibKey);
        doMarkRefCountChanged(oifIndex);
        return;
    }
    CASK_ASSERT(count, "tmpOifIndexIntf.refCount()");
    --count;
    const Wirl::IntfId intf = mfibTidal_->oifIndexIntf(oifIndex).intf;
    CASK_VRF_TRACE(8, vrfName_,
                   "MfibSm::"
                   "doUpdateOifIndexRefCount(): Decrementing ref count intf: {}, oifIndex: {} "
                   "RefCount: {} route {}",
                   intf, oifIndex, count, mfibKey);
    if (count) {
        doMarkRefCountChanged(oifIndex);
        return;
    }
    doFreeOifIndex(oifIndex, intf);
}

void MfibSm::doMarkRefCountChanged(TMF::OifIndex oifIndex) {
    refCountChanged_[oifIndex.value() / 64] |= std::uint64_t{1} << (oifIndex.value() % 64);
    if (!batchRefCounts_) doFlushRefCounts();
}

void MfibSm::doFlushRefCounts() {
    for (unsigned w = 0; w < refCountChanged_.size(); ++w) {
        for (std::uint64_t bits = std::exchange(refCountChanged_[w], 0); bits; bits &= bits - 1) {
            const TMF::OifIndex index(std::uint16_t(w * 64 + std::countr_zero(bits)));
            TMF::OifIndexIntf entry = mfibTidal_->oifIndexIntf(index);
            CASK_ASSERT(entry.index == index, "oifIndex != TMF::OifIndex()");
            entry.refCount = refCount_[index.value()];
            mfibTidal_->oifIndexIntfIs(entry);
        }
    }
}

void MfibSm::doFreeOifIndex(TMF::OifIndex oifIndex, Wirl::IntfId intfId) {
    CASK_VRF_TRACE(7, vrfName_,
                   "MfibSm::"
                   "doUpdateOifIndexRefCount(): Freeing up oifIndex: {} intf: {}",
                   oifIndex, intfId);
    // A freed index has no entry left to write.
    refCount_[oifIndex.value()] = 0;
    refCountChanged_[oifIndex.value() / 64] &= ~(std::uint64_t{1} << (oifIndex.value() % 64));
    mfibTidal_->oifIndexIntfDel(oifIndex);
    intfOifIndex_.erase(intfId);
    oifIndexFreePool_.push_back(oifIndex);
}

void MfibSm::doSyncTidalRouteRefCount(const TMF::Route& record) {
    doSyncTidalRouteRefCount(record, mfibTidal_->route(record.key()));
}

void MfibSm::doSyncTidalRouteRefCount(const TMF::Route& record, const TMF::Route* old) {
    for (unsigned w = 0; w < TMF::Route::bitmapWords; ++w) {
        const std::uint64_t before = old ? old->oifBitmap(w) : 0;
        const std::uint64_t after = record.oifBitmap(w);
        for (std::uint64_t changed = before ^ after; changed; changed &= changed - 1) {
            const unsigned bit = std::countr_zero(changed);
            const TMF::OifIndex index(std::uint16_t(w * 64 + bit));
            doUpdateOifIndexRefCount(record.key(), index, (after >> bit) & 1u);
        }
    }
    doReleaseUnusedIndexes();
}

void MfibSm::doReleaseUnusedIndexes() {
    // An index handed out for an interface the build then dropped again
    // (the route's own iif, say) would otherwise stay taken with no user.
    for (TMF::OifIndex index : freshIndexes_) {
        auto it = mfibTidal_->oifIndexIntf().find(index);
        if (it != mfibTidal_->oifIndexIntf().end() && refCount_[index.value()] == 0) {
            doFreeOifIndex(index, it->second.intf);
        }
    }
    freshIndexes_.clear();
}

// --- wait list -----------------------------------------------------------------------

void MfibSm::doPlaceRouteOnWait(const Routing::Pim::RouteKey& routeKey) {
    if (!waiting_.insert(routeKey).second) return;
    CASK_VRF_TRACE(7, vrfName_,
                   "MfibSm::"
                   "doPlaceRouteOnWait(): Adding route key to waitlist: {}",
                   routeKey);
    routeWaitlist_.push_back(routeKey);
}

void MfibSm::doReviewRouteWaitlist() {
    if (routeWaitlist_.empty()) {
        CASK_VRF_TRACE(8, vrfName_,
                       "MfibSm::"
                       "doReviewRouteWaitlist(): No routes to review in waitlist");
        return;
    }
    // Rebuilding a waiting route commits it, and that commit lands here
    // again: the outer call serves the list, the inner ones return.
    if (reviewingWaitlist_) return;
    reviewingWaitlist_ = true;
    // Serve at most the routes waiting now, and only while an index is
    // free: a route that cannot be served goes back to the end.
    for (std::size_t n = routeWaitlist_.size(); n && !routeWaitlist_.empty(); --n) {
        if (oifIndexFreePool_.empty()) break;
        const Routing::Pim::RouteKey key = routeWaitlist_.front();
        routeWaitlist_.pop_front();
        waiting_.erase(key);
        CASK_VRF_TRACE(7, vrfName_,
                       "MfibSm::"
                       "doReviewRouteWaitlist(): Got key {} from waitlist ",
                       key);
        if (Route* route = localStatus_->route(key)) route->routeChangedInc();
    }
    reviewingWaitlist_ = false;
}

// --- records -----------------------------------------------------------------------------

void MfibSm::doCommitTidalRoute(const TMF::Route& route) {
    doCommitTidalRoute(route, mfibTidal_->route(route.key()));
}

void MfibSm::doCommitTidalRoute(const TMF::Route& route, const TMF::Route* old) {
    if (old && *old == route) return;
    CASK_ASSERT(route.iif() != Wirl::IntfId(), "route.iif() != Wirl::IntfId()");
    CASK_VRF_TRACE(8, vrfName_,
                   "MfibSm::"
                   "doCommitTidalRoute(): iif: {}  notify: {}",
                   route.iif(), route.notify());
    if (Cask::trace().on(7) && !route.oifs()) {
        CASK_VRF_TRACE(7, vrfName_,
                       "MfibSm::"
                       "doCommitTidalRoute(): Note: No oifs in route {}",
                       route.key());
    }
    mfibTidal_->routeIs(route);
    if (Cask::trace().on(7)) {
        std::string oifs;
        std::uint64_t firstWord = 0;
        for (TMF::OifIndex i : route.oifIteratorConst()) {
            if (!firstWord) firstWord = route.oifBitmap(i.value() / 64);
            oifs += fmt::format(" {}", mfibTidal_->oifIndexIntf(i).intf);
        }
        CASK_VRF_TRACE(7, vrfName_,
                       "Mfib: doCommitTidalRoute(): {} I {} FRR {} N {} F 0x{:x} I 0x{:x} ->{}",
                       route.key(), route.iif(), route.iifFrr(), route.notify(), route.routeFlags(),
                       firstWord, oifs);
    }
}

void MfibSm::handleDelete(const Routing::Pim::RouteKey& routeKey) {
    const IpGenRouteKey key = convertKey(routeKey);
    if (waiting_.erase(routeKey)) std::erase(routeWaitlist_, routeKey);
    const TMF::Route* old = mfibTidal_->route(key);
    if (!old) return;
    const bool hadOifs = old->oifs();
    if (hadOifs) {
        CASK_VRF_TRACE(7, vrfName_,
                       "MfibSm::"
                       "handleDelete(): Found OIFs. Syncing ref counts before deleting");
        doSyncTidalRouteRefCount(TMF::Route(key));
    }
    CASK_VRF_TRACE(7, vrfName_,
                   "MfibSm::"
                   "handleDelete(): Deleting route {}",
                   routeKey);
    mfibTidal_->routeDel(key);
    // Indexes freed just now serve the waiting routes at once. The record is
    // gone first, so a waiting route rebuilt here never meets its counts.
    if (hadOifs) doReviewRouteWaitlist();
}

bool MfibSm::isProgrammableRoute(const Route& route) const {
    if (!route.isWc() && !route.registerOifEvaluated()) {
        CASK_VRF_TRACE(8, vrfName_,
                       "MfibSm::"
                       "isProgrammableRoute(): Waiting for register OIF evaluation for {}",
                       route.key());
        return false;
    }
    return true;
}

void MfibSm::doAddTidalRouteIntf(const Routing::Pim::RouteKey& routeKey, Wirl::IntfId intfId,
                                 TMF::Route::RouteFlags flags) {
    const TMF::Route* old = mfibTidal_->route(convertKey(routeKey));
    if (!old) return;
    TMF::Route record = *old;
    record.routeFlagsIs(record.routeFlags() | flags);
    if (addTidalRouteOif(*this, record, intfId).isNull()) return;
    if (routeKey.isWc()) {
        CASK_VRF_TRACE(7, vrfName_, "Mfib: programming *,G route in Mfib: {}", routeKey);
    }
    doSyncTidalRouteRefCount(record);
    doCommitTidalRoute(record);
    doReviewRouteWaitlist();
}

void MfibSm::doDelTidalRouteIntf(const Routing::Pim::RouteKey& routeKey, Wirl::IntfId intfId,
                                 TMF::Route::RouteFlags flags) {
    const TMF::Route* old = mfibTidal_->route(convertKey(routeKey));
    if (!old) return;
    TMF::Route record = *old;
    record.routeFlagsIs(record.routeFlags() & ~flags);
    if (delTidalRouteOif(*this, record, intfId).isNull()) return;
    if (routeKey.isWc()) {
        CASK_VRF_TRACE(7, vrfName_, "Mfib: programming *,G route in Mfib: {}", routeKey);
    }
    doSyncTidalRouteRefCount(record);
    doCommitTidalRoute(record);
    doReviewRouteWaitlist();
}

void MfibSm::handleClearMfib() {
    CASK_VRF_TRACE(4, vrfName_,
                   "MfibSm::"
                   "handleClearMfib(): about to delete all routes");
    std::vector<IpGenRouteKey> keys;
    for (const auto& [key, record] : mfibTidal_->route()) keys.push_back(key);
    // One by one, so every reference is dropped and every index freed; no
    // waiting route is served until the table is empty. The route review
    // then writes every record again (resurrectMfib).
    const bool reviewing = std::exchange(reviewingWaitlist_, true);
    for (const auto& key : keys) handleDelete(convertKey(key));
    mfibTidal_->routeDelAll();
    reviewingWaitlist_ = reviewing;
}

// --- flags ----------------------------------------------------------------------------------

void MfibSm::setIifRegister(const Route& route) {
    const bool on = route.iif() == Wirl::IntfId::register0();
    CASK_VRF_TRACE(8, vrfName_,
                   "MfibSm::"
                   "setIifRegister({}), iifRegister: {}",
                   route.key(), on);
    const TMF::Route* old = mfibTidal_->route(convertKey(route.key()));
    if (!old) {
        CASK_VRF_TRACE(8, vrfName_,
                       "MfibSm::"
                       "setIifRegister(): Route not in mfib");
        return;
    }
    if (old->flag(TMF::Route::iifRegister) == on) return;
    TMF::Route record = *old;
    record.flagIs(TMF::Route::iifRegister, on);
    doCommitTidalRoute(record);
}

void MfibSm::setOifRegister(const Route& route, TMF::Route::RouteFlags& flags) {
    bool on = !route.isWc() && route.oifRegister();
    if (!route.isWc() && route.iifSwitching()) {
        // While the source tree is being joined the entry still follows the
        // shared tree, so it registers only while the group has one.
        const Route* wc = route.wc();
        if (!wc) {
            CASK_VRF_TRACE(8, vrfName_,
                           "MfibSm::"
                           "setOifRegister(): NULL wc in switching state {}",
                           route.key());
            return;
        }
    }
    const bool was = flags & TMF::Route::oifRegister;
    if (was == on) return;
    flags = on ? flags | TMF::Route::oifRegister
               : flags & ~TMF::Route::RouteFlags(TMF::Route::oifRegister);
    CASK_VRF_TRACE(8, vrfName_, "Mfib: Setting registerOif to {} for route: {}", on, route.key());
}

void MfibSm::setToCpuFlag(const Route& route, TMF::Route::RouteFlags& flags) {
    // The agent must see: packets arriving from the register tunnel (the RP
    // decapsulating), first packets of a directly connected source (the DR
    // registers it) and packets on the shared tree (new sources of the group
    // start their (S,G) routes).
    const bool on = route.iif() == Wirl::IntfId::register0() || route.umh()->directlyConnected() ||
                    route.isWc();
    const bool was = flags & TMF::Route::toCpu;
    if (was == on) return;
    if (on) {
        flags |= TMF::Route::toCpu;
        CASK_VRF_TRACE(8, vrfName_, "Mfib: Setting toCPU to true for route: {}", route.key());
    } else {
        flags &= ~TMF::Route::RouteFlags(TMF::Route::toCpu);
        CASK_VRF_TRACE(8, vrfName_, "Mfib: Setting toCPU for false in route: {}", route.key());
    }
}

void MfibSm::setNoRpfFlag(Wirl::IntfId iif, TMF::Route::RouteFlags& flags) {
    // A source on a loopback interface has no RPF check to pass.
    const bool on = iif.hasPrefix("Loopback");
    flags = on ? flags | TMF::Route::noRpf : flags & ~TMF::Route::RouteFlags(TMF::Route::noRpf);
}

// --- reactors ----------------------------------------------------------------------------

void MfibSm::RhoLocalStatus::handleSgRoute(const Routing::Pim::RouteKey& key) {
    Route* route = sm_.localStatus_->sgRoute().raw(key);
    if (route) {
        sm_.sgKeys_.insert(key);
    } else {
        sm_.sgKeys_.erase(key);
    }
    if (RhoSgRoute* rho = sm_.sgRho_.update(key, route, sm_)) rho->handleRoute();
}

void MfibSm::RhoLocalStatus::handleWcRoute(const Routing::Pim::RouteKey& key) {
    if (RhoWcRoute* rho = sm_.wcRho_.update(key, sm_.localStatus_->wcRoute().raw(key), sm_)) {
        rho->handleRoute();
    }
    // The group's (S,G) routes inherit from it and drop packets arriving on it.
    sm_.handleInheritedWcIntf(key);
}

void MfibSm::handleInheritedWcIntf(const Routing::Pim::RouteKey& wcKey) {
    if (sgKeys_.empty()) return;  // no (S,G) route inherits anything
    const Routing::Pim::RouteKey first(Wirl::IpGenAddr::zero(wcKey.family()), wcKey.group());
    std::vector<Routing::Pim::RouteKey> group;
    for (auto it = sgKeys_.upper_bound(first); it != sgKeys_.end(); ++it) {
        if (it->group() != wcKey.group()) break;
        group.push_back(*it);
    }
    for (const auto& key : group) {
        if (RhoSgRoute* rho = sgRho_.get(key)) doMarkDirty(*rho);
    }
}

MfibSm::RhoRoute* MfibSm::rho(const Routing::Pim::RouteKey& key) const {
    if (key.isWc()) return wcRho_.get(key);
    return sgRho_.get(key);
}

void MfibSm::doMarkDirty(RhoRoute& rho) {
    if (!loop_) {
        rho.doBuildRecord();
        return;
    }
    if (rho.queued_) return;
    rho.queued_ = true;
    ++dirtyCount_;
    const Routing::Pim::RouteKey& key = rho.route()->key();
    if (dirtyNext_ < dirty_.size() && !(dirty_.back() < key)) dirtySorted_ = false;
    dirty_.push_back(key);
    if (buildScheduled_) return;
    buildScheduled_ = true;
    loop_->atEndOfTurn([weak = std::weak_ptr<MfibSm*>(self_)] {
        if (auto self = weak.lock()) (*self)->doBuildDirty();
    });
}

void MfibSm::doBuildDirty() {
    buildScheduled_ = false;
    // The pass writes each index's reference count once, when it ends.
    batchRefCounts_ = true;
    struct EndOfPass {
        MfibSm& sm;
        ~EndOfPass() {
            sm.batchRefCounts_ = false;
            sm.doFlushRefCounts();
        }
    } endOfPass{*this};
    while (dirtyCount_ && dirtyNext_ < dirty_.size()) {
        // Routes marked by the builds join the keys still to build.
        if (!dirtySorted_) {
            std::sort(dirty_.begin() + std::ptrdiff_t(dirtyNext_), dirty_.end());
            dirtySorted_ = true;
        }
        const Routing::Pim::RouteKey key = dirty_[dirtyNext_++];
        RhoRoute* r = rho(key);
        if (!r || !r->queued_) continue;
        r->queued_ = false;
        --dirtyCount_;
        r->doBuildRecord();
        // A turn that has run for a quantum (a review slice that made many
        // routes) leaves the rest to the next turn, so that no turn runs much
        // past the quantum. One route is built per call whatever the clock
        // says, so the builds always progress. On a virtual clock the turn
        // takes no time: everything is built here.
        if (dirtyCount_ && loop_->now() - loop_->turnStart() >= buildQuantum) {
            buildScheduled_ = true;
            loop_->post([weak = std::weak_ptr<MfibSm*>(self_)] {
                if (auto self = weak.lock()) (*self)->doBuildDirty();
            });
            return;
        }
    }
    // A burst's list (a key per new route) is not kept for the next one.
    if (dirty_.capacity() > keptDirtyKeys) {
        std::vector<Routing::Pim::RouteKey>().swap(dirty_);
    } else {
        dirty_.clear();
    }
    dirtyNext_ = 0;
    dirtySorted_ = true;
}

std::unique_ptr<MfibSm> mfibSmFactory(const VrfContext& ctx) {
    auto sm = std::make_unique<MfibSm>(ctx);
    sm->handleInit();
    return sm;
}

}  // namespace Routing::Pim::SparseMode
