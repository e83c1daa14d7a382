#pragma once
// LocalStatus: the per-VRF, per-address-family container of the routes the
// machines work on. Routes enter `sgRoute` / `wcRoute` when the route
// reactor registers them (after they were created in the route status) and
// leave when the route review deletes them. It also holds the two change
// sets and the route-key sets other machines publish.

#include <cstdint>

#include "cask/collection.h"
#include "pimsm/route/change_set.h"
#include "pimsm/route/route.h"
#include "platform/group_ranges.h"
#include "platform/route_key.h"
#include "wirl/address_family.h"

namespace Routing::Pim::SparseMode {

class LocalStatus : public Cask::Record<LocalStatus> {
public:
    class Notifiee : public Cask::NotifieeOf<LocalStatus> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleSgRoute(const Routing::Pim::RouteKey&) {}
        virtual void handleWcRoute(const Routing::Pim::RouteKey&) {}
        virtual void handleSwitchingRoute(const Routing::Pim::RouteKey&) {}
        virtual void handleToBeDeletedRoute(const Routing::Pim::RouteKey&) {}
        virtual void handleWrongVifCount(const Routing::Pim::RouteKey&) {}
        virtual void handleProcessingCacheMiss(const Routing::Pim::RouteKey&) {}
        virtual void handleChangeSet() {}
        virtual void handleReviewChangeSet() {}
        virtual void handleNumClearMroutes() {}
        virtual void handleInitialized() {}
    };

    explicit LocalStatus(Wirl::AddressFamily family) : family_(family) {}
    Wirl::AddressFamily family() const { return family_; }

    // (S,G) routes, with their (S,G,rpt) state, and (*,G) routes.
    CASK_RECORD_MAP(sgRoute, SgRoute, Routing::Pim::RouteKey, Route,
                    "Routing::Pim::SparseMode::LocalStatus")
    CASK_RECORD_MAP(wcRoute, WcRoute, Routing::Pim::RouteKey, Route,
                    "Routing::Pim::SparseMode::LocalStatus")
    // Routes whose incoming-interface switch is in progress.
    CASK_KEY_SET(switchingRoute, SwitchingRoute, Routing::Pim::RouteKey)
    // Routes whose `markedForDeletion` flag is set.
    CASK_KEY_SET(toBeDeletedRoute, ToBeDeletedRoute, Routing::Pim::RouteKey)
    // Packets that arrived on a wrong incoming interface, per route.
    CASK_VALUE_MAP(wrongVifCount, WrongVifCount, Routing::Pim::RouteKey, std::uint32_t)
    // Routes whose first-packet handling is under way.
    CASK_KEY_SET(processingCacheMiss, ProcessingCacheMiss, Routing::Pim::RouteKey)
    CASK_COUNTER(std::uint32_t, numClearMroutes, NumClearMroutes)
    CASK_ATTR(bool, initialized, Initialized)

    // The change set producers write, and the one the review consumes.
    ChangeSet* changeSet() const { return changeSet_.get(); }
    ChangeSet* reviewChangeSet() const { return reviewChangeSet_.get(); }
    void changeSetIs(Cask::Ptr<ChangeSet> c);
    void reviewChangeSetIs(Cask::Ptr<ChangeSet> c);
    // A fresh, initialized, empty change set.
    static Cask::Ptr<ChangeSet> newChangeSet();

    // The VRF's group-range records, set by whoever builds the VRF. Plain
    // references: machines that react to their changes watch the records.
    SsmGroupInfo* ssmGroupInfo() const { return ssmGroupInfo_.get(); }
    void ssmGroupInfoIs(Cask::Ptr<SsmGroupInfo> p) { ssmGroupInfo_ = std::move(p); }
    Routing::Pim::GroupFilterStatus* groupFilterStatus() const { return groupFilterStatus_.get(); }
    void groupFilterStatusIs(Cask::Ptr<Routing::Pim::GroupFilterStatus> p) {
        groupFilterStatus_ = std::move(p);
    }
    FrrFilterStatus* frrFilterStatus() const { return frrFilterStatus_.get(); }
    void frrFilterStatusIs(Cask::Ptr<FrrFilterStatus> p) { frrFilterStatus_ = std::move(p); }

    // The route of a key from whichever collection holds it.
    Route* route(const Routing::Pim::RouteKey& k) const {
        return k.isWc() ? wcRoute_.raw(k) : sgRoute_.raw(k);
    }

private:
    Wirl::AddressFamily family_;
    // B-trees in key order: membership and Join/Prune reviews create routes
    // in key order, so a burst of new routes fills one leaf after another
    // instead of landing all over a hash table (and growing it as it goes).
    using RouteMap =
        Cask::RecordMapOf<Routing::Pim::RouteKey, Route,
                          Cask::WideBtreeMap<Routing::Pim::RouteKey, Cask::Ptr<Route>>>;
    RouteMap sgRoute_;
    RouteMap wcRoute_;
    Cask::KeySet<Routing::Pim::RouteKey> switchingRoute_;
    Cask::KeySet<Routing::Pim::RouteKey> toBeDeletedRoute_;
    Cask::ValueMap<Routing::Pim::RouteKey, std::uint32_t> wrongVifCount_;
    Cask::KeySet<Routing::Pim::RouteKey> processingCacheMiss_;
    std::uint32_t numClearMroutes_ = 0;
    bool initialized_ = false;
    Cask::Ptr<ChangeSet> changeSet_;
    Cask::Ptr<ChangeSet> reviewChangeSet_;
    Cask::Ptr<SsmGroupInfo> ssmGroupInfo_;
    Cask::Ptr<Routing::Pim::GroupFilterStatus> groupFilterStatus_;
    Cask::Ptr<FrrFilterStatus> frrFilterStatus_;
};

// Creates the VRF's LocalStatus: the record, then its two change sets, then
// `initialized`.
Cask::Ptr<LocalStatus> localStatusFactory(Wirl::AddressFamily family);

}  // namespace Routing::Pim::SparseMode
