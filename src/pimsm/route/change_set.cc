#include "pimsm/route/change_set.h"

namespace Routing::Pim::SparseMode {

IntfChange& ChangeSet::intfChangeIs(Wirl::IntfId intf) {
    if (auto* existing = intfChange_.raw(intf)) return *existing;
    auto fresh = Cask::make<IntfChange>(intf);
    intfChange_.is(*this, intf, fresh, &Notifiee::handleIntfChange, "");
    return *fresh;
}

NeighborChange& ChangeSet::neighborChangeIs(const Routing::Pim::NeighborKey& key) {
    if (auto* existing = neighborChange_.raw(key)) return *existing;
    auto fresh = Cask::make<NeighborChange>(key);
    neighborChange_.is(*this, key, fresh, &Notifiee::handleNeighborChange, "");
    return *fresh;
}

void ChangeSet::clearInfoIs() {
    clearInfo_ = Cask::make<Routing::Pim::ClearInfo>();
    notify(&Notifiee::handleClearInfo);
}

void ChangeSet::clearInfoDel() {
    earlierClearInfo_.clear();
    if (!clearInfo_) return;
    clearInfo_.reset();
    notify(&Notifiee::handleClearInfo);
}

void ChangeSet::handleInitialized() {
    clearInfoIs();
    initializedIs(true);
}

namespace {

bool covers(const Routing::Pim::ClearInfo& info, const Routing::Pim::RouteKey& key) {
    using Bit = Routing::Pim::MrouteClearFlags::Bit;
    const auto f = info.flags();
    if (f.has(Bit::allRoutes)) return true;
    const bool byGroup = f.has(Bit::group), bySource = f.has(Bit::source);
    if (!byGroup && !bySource) return false;
    if (byGroup && key.group() != info.group()) return false;
    return !bySource || key.source() == info.source();
}

}  // namespace

bool ChangeSet::clearCovers(const Routing::Pim::RouteKey& key) const {
    if (clearInfo_ && covers(*clearInfo_, key)) return true;
    for (const auto& info : earlierClearInfo_) {
        if (covers(*info, key)) return true;
    }
    return false;
}

std::size_t ChangeSet::clearRequests() const {
    const bool latest = clearInfo_ && !clearInfo_->flags().empty();
    return earlierClearInfo_.size() + (latest ? 1 : 0);
}

bool ChangeSet::empty() const {
    if (!intfChange_.empty()) return false;
    if (!neighborChange_.empty()) return false;
    if (routesMarkedForDeletion_) return false;
    if (ssmConfigChanged_) return false;
    if (groupFilterStatusChanged_) return false;
    if (frrFilterStatusChanged_) return false;
    if (clearInfo_ && !clearInfo_->flags().empty()) return false;
    if (resurrectMfib_) return false;
    return true;
}

}  // namespace Routing::Pim::SparseMode
