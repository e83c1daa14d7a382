#include "platform/join_prune_neighbor_sm.h"

#include <vector>

namespace Routing::Pim {

JoinPruneNeighborSm::JoinPruneNeighborSm(Cask::Ptr<Status> pimStatus,
                                         Cask::Ptr<JoinPruneStatus> joinPruneStatus)
    : pimStatus_(std::move(pimStatus)), joinPruneStatus_(std::move(joinPruneStatus)) {
    notifierIs(pimStatus_.get());
    for (const auto& [id, intf] : pimStatus_->intf()) handleIntf(id);
}

JoinPruneNeighborSm::~JoinPruneNeighborSm() = default;

void JoinPruneNeighborSm::handleIntf(Wirl::IntfId intf) {
    PimIntfStatus* status = pimStatus_->intfRaw(intf);
    auto it = intf_.find(intf);
    if (it != intf_.end() && (!status || it->second->notifier() != status)) {
        // Gone, or replaced by a new record whose neighbours are its own.
        doRemoveIntf(intf);
        it = intf_.end();
    }
    if (!status || it != intf_.end()) return;
    intf_.emplace(intf, std::make_unique<IntfWatcher>(*this, *status));
    for (const auto& [address, nbr] : status->neighbor()) handleNeighbor(intf, address);
}

void JoinPruneNeighborSm::handleNeighbor(Wirl::IntfId intf, const Wirl::IpGenAddr& address) {
    const NeighborKey key{intf, address};
    const bool present = pimStatus_->neighborExists(intf, address);
    if (present && !joinPruneStatus_->neighborHas(key)) {
        joinPruneStatus_->neighborIs(key, Cask::make<JoinPruneNeighbor>(key));
    } else if (!present) {
        joinPruneStatus_->neighborDel(key);
    }
}

void JoinPruneNeighborSm::doRemoveIntf(Wirl::IntfId intf) {
    intf_.erase(intf);
    std::vector<NeighborKey> gone;
    for (auto it = joinPruneStatus_->neighbor().lowerBound(NeighborKey{intf, {}});
         it != joinPruneStatus_->neighbor().end() && it->first.intf == intf; ++it) {
        gone.push_back(it->first);
    }
    for (const auto& key : gone) joinPruneStatus_->neighborDel(key);
}

std::unique_ptr<JoinPruneNeighborSm> joinPruneNeighborSmFactory(
    Cask::Ptr<Status> pimStatus, Cask::Ptr<JoinPruneStatus> joinPruneStatus) {
    return std::make_unique<JoinPruneNeighborSm>(std::move(pimStatus), std::move(joinPruneStatus));
}

}  // namespace Routing::Pim
