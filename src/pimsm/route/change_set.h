#pragma once
// ChangeSet: changes that fan out over many routes, recorded where they are
// noticed and applied by the route review. Producers set flags here (never
// on other routes directly); the review consumes a whole set at once.
//
// A LocalStatus holds two: `changeSet`, which producers write, and
// `reviewChangeSet`, which the review in progress consumes, so that changes
// arriving during a review wait for the next one.

#include <vector>

#include "cask/collection.h"
#include "platform/mroute_clear.h"
#include "platform/route_key.h"
#include "wirl/intf_id.h"

namespace Routing::Pim::SparseMode {

// What changed on one interface.
class IntfChange : public Cask::Record<IntfChange> {
public:
    class Notifiee : public Cask::NotifieeOf<IntfChange> {};
    explicit IntfChange(Wirl::IntfId intf) : intfId_(intf) {}
    Wirl::IntfId intfId() const { return intfId_; }

    bool intfStatusChanged = false;      // the PIM interface status changed
    bool drStatusChanged = false;        // the DR of the interface changed
    bool addressChanged = false;         // the interface address changed
    bool toBeDeleted = false;            // the interface is gone
    bool mbrStatusChanged = false;       // the border-router setting changed
    bool sourceInjectChanged = false;    // source injection changed
    bool fastFailoverChanged = false;    // fast failover was enabled or disabled
    bool boundaryStatusChanged = false;  // a multicast boundary changed
    bool vxlanIntfChanged = false;       // the multicast VXLAN status changed

private:
    Wirl::IntfId intfId_;
};

// What changed about one PIM neighbour.
class NeighborChange : public Cask::Record<NeighborChange> {
public:
    class Notifiee : public Cask::NotifieeOf<NeighborChange> {};
    explicit NeighborChange(const Routing::Pim::NeighborKey& key) : neighborKey_(key) {}
    const Routing::Pim::NeighborKey& neighborKey() const { return neighborKey_; }

    bool neighborStatusChanged = false;  // the neighbour came or went
    bool genIdChanged = false;           // its generation ID changed

private:
    Routing::Pim::NeighborKey neighborKey_;
};

class ChangeSet : public Cask::Record<ChangeSet> {
public:
    class Notifiee : public Cask::NotifieeOf<ChangeSet> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleIntfChange(Wirl::IntfId) {}
        virtual void handleNeighborChange(const Routing::Pim::NeighborKey&) {}
        virtual void handleRoutesMarkedForDeletion() {}
        virtual void handleSsmConfigChanged() {}
        virtual void handleGroupFilterStatusChanged() {}
        virtual void handleFrrFilterStatusChanged() {}
        virtual void handleClearInfo() {}
        virtual void handleResurrectMfib() {}
        virtual void handleInitialized() {}
    };

    CASK_COLLECTION_COMMON(intfChange, IntfChange, Wirl::IntfId)
    Cask::Ptr<IntfChange> intfChange(Wirl::IntfId i) const { return intfChange_.get(i); }
    // The interface's change record, inserted (all flags false) if absent.
    IntfChange& intfChangeIs(Wirl::IntfId intf);

    CASK_COLLECTION_COMMON(neighborChange, NeighborChange, Routing::Pim::NeighborKey)
    Cask::Ptr<NeighborChange> neighborChange(const Routing::Pim::NeighborKey& k) const {
        return neighborChange_.get(k);
    }
    NeighborChange& neighborChangeIs(const Routing::Pim::NeighborKey& key);

    CASK_ATTR(bool, routesMarkedForDeletion, RoutesMarkedForDeletion)
    CASK_ATTR(bool, ssmConfigChanged, SsmConfigChanged)
    CASK_ATTR(bool, groupFilterStatusChanged, GroupFilterStatusChanged)
    CASK_ATTR(bool, frrFilterStatusChanged, FrrFilterStatusChanged)
    CASK_ATTR(bool, resurrectMfib, ResurrectMfib)
    CASK_ATTR(bool, initialized, Initialized)

    // The pending clear request; present from initialization on.
    Routing::Pim::ClearInfo* clearInfo() const { return clearInfo_.get(); }
    void clearInfoIs();   // installs a fresh, empty request
    void clearInfoDel();  // drops the request (a review consumed it)
    // Requests that came before `clearInfo` in this change set and differ
    // from it: each still clears exactly the routes it names.
    const std::vector<Cask::Ptr<Routing::Pim::ClearInfo>>& earlierClearInfo() const {
        return earlierClearInfo_;
    }
    void earlierClearInfoIs(Cask::Ptr<Routing::Pim::ClearInfo> info) {
        earlierClearInfo_.push_back(std::move(info));
    }
    // Does a pending clear request (the latest or an earlier one) cover the route?
    bool clearCovers(const Routing::Pim::RouteKey& key) const;
    // The number of pending clear requests.
    std::size_t clearRequests() const;

    // Creates the clear request, then sets `initialized`.
    void handleInitialized();

    // True only when nothing is recorded. The tests run in this order and
    // stop at the first that fails: interface changes, neighbour changes,
    // routes marked for deletion, SSM range, group filter, fast-failover
    // filter, the clear request's flags, resurrectMfib.
    bool empty() const;

private:
    Cask::RecordMap<Wirl::IntfId, IntfChange> intfChange_;
    Cask::RecordMap<Routing::Pim::NeighborKey, NeighborChange> neighborChange_;
    Cask::Ptr<Routing::Pim::ClearInfo> clearInfo_;
    std::vector<Cask::Ptr<Routing::Pim::ClearInfo>> earlierClearInfo_;
    bool routesMarkedForDeletion_ = false;
    bool ssmConfigChanged_ = false;
    bool groupFilterStatusChanged_ = false;
    bool frrFilterStatusChanged_ = false;
    bool resurrectMfib_ = false;
    bool initialized_ = false;
};

}  // namespace Routing::Pim::SparseMode
