#pragma once
// Multicast boundaries: per interface, the group ranges that must not cross
// it. A route whose RPF interface has a boundary covering its group gets no
// traffic from there, and an interface with such a boundary is no
// outgoing interface for it.

#include <functional>
#include <utility>

#include "cask/collection.h"
#include "cask/reactor_map.h"
#include "wirl/address_range_set.h"
#include "wirl/intf_id.h"

namespace Routing::McastBoundary {

class IntfBoundary : public Cask::Record<IntfBoundary> {
public:
    class Notifiee : public Cask::NotifieeOf<IntfBoundary> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleGroups() {}
    };
    IntfBoundary(Wirl::IntfId intf, Wirl::AddressFamily family) : intf_(intf), groups_(family) {}
    Wirl::IntfId intf() const { return intf_; }
    CASK_ATTR(Wirl::AddressRangeSet, groups, Groups)

private:
    Wirl::IntfId intf_;
    Wirl::AddressRangeSet groups_;
};

class Status : public Cask::Record<Status> {
public:
    class Notifiee : public Cask::NotifieeOf<Status> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleIntf(Wirl::IntfId) {}
    };
    CASK_RECORD_MAP(intf, Intf, Wirl::IntfId, IntfBoundary, "Routing::McastBoundary::Status")
    // Does a boundary on `intf` filter `group`?
    bool filters(Wirl::IntfId intf, const Wirl::IpGenAddr& group) const {
        auto* b = intf_.raw(intf);
        return b && b->groups().contains(group);
    }

private:
    Cask::RecordMap<Wirl::IntfId, IntfBoundary> intf_;
};

// Tells `onChange(intf)` whenever the boundary of an interface appears,
// goes, or changes its groups: the one boundary watcher the machines share.
class StatusWatcher : public Status::Notifiee {
public:
    StatusWatcher(Status& status, std::function<void(Wirl::IntfId)> onChange)
        : Status::Notifiee(&status), onChange_(std::move(onChange)) {
        IntfMap::sweep(status.intf(), [this](Wirl::IntfId i) { doWatch(i); });
    }
    void handleIntf(Wirl::IntfId intf) override {
        doWatch(intf);
        onChange_(intf);
    }

private:
    class IntfWatcher : public IntfBoundary::Notifiee {
    public:
        IntfWatcher(StatusWatcher& owner, IntfBoundary& b)
            : IntfBoundary::Notifiee(&b), owner_(owner), intf_(b.intf()) {}
        Wirl::IntfId reactorKey() const { return intf_; }
        IntfBoundary* reactorRecord() const { return notifier(); }
        void handleGroups() override { owner_.onChange_(intf_); }

    private:
        StatusWatcher& owner_;
        Wirl::IntfId intf_;
    };
    using IntfMap = Cask::ReactorMap<Wirl::IntfId, IntfWatcher>;

    void doWatch(Wirl::IntfId intf) { intf_.update(intf, notifier()->intf().raw(intf), *this); }

    std::function<void(Wirl::IntfId)> onChange_;
    IntfMap intf_;
};

}  // namespace Routing::McastBoundary
