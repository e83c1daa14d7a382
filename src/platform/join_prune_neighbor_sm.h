#pragma once
// JoinPruneNeighborSm: the one owner of the neighbour entries of a VRF's
// JoinPruneStatus. It keeps exactly one entry per PIM neighbour that
// Routing::Pim::Status lists on a PIM interface: the entry is created when
// the neighbour appears and removed (with everything queued for it) when the
// neighbour or its interface goes.
// Watches: the PIM interfaces and neighbours of Routing::Pim::Status.
// Writes:  JoinPruneStatus neighbour entries (their only writer).
//
// The upstream machines rely on it: a neighbour that RPF may choose is a
// known PIM neighbour, so its entry exists, and a missing entry for such a
// neighbour is an internal error. They never create or remove entries.

#include <memory>
#include <unordered_map>

#include "platform/join_prune.h"
#include "platform/pim_status.h"

namespace Routing::Pim {

class JoinPruneNeighborSm : public Status::Notifiee {
public:
    JoinPruneNeighborSm(Cask::Ptr<Status> pimStatus, Cask::Ptr<JoinPruneStatus> joinPruneStatus);
    ~JoinPruneNeighborSm() override;
    JoinPruneNeighborSm(const JoinPruneNeighborSm&) = delete;
    JoinPruneNeighborSm& operator=(const JoinPruneNeighborSm&) = delete;

    void handleIntf(Wirl::IntfId intf) override;
    void handleNeighbor(Wirl::IntfId intf, const Wirl::IpGenAddr& address);

private:
    // Watches the neighbours of one PIM interface.
    class IntfWatcher : public PimIntfStatus::Notifiee {
    public:
        IntfWatcher(JoinPruneNeighborSm& owner, PimIntfStatus& intf)
            : PimIntfStatus::Notifiee(&intf), owner_(owner), intf_(intf.intfId()) {}
        void handleNeighbor(const Wirl::IpGenAddr& a) override { owner_.handleNeighbor(intf_, a); }

    private:
        JoinPruneNeighborSm& owner_;
        Wirl::IntfId intf_;
    };

    void doRemoveIntf(Wirl::IntfId intf);

    Cask::Ptr<Status> pimStatus_;
    Cask::Ptr<JoinPruneStatus> joinPruneStatus_;
    std::unordered_map<Wirl::IntfId, std::unique_ptr<IntfWatcher>, Cask::KeyHash> intf_;
};

std::unique_ptr<JoinPruneNeighborSm> joinPruneNeighborSmFactory(
    Cask::Ptr<Status> pimStatus, Cask::Ptr<JoinPruneStatus> joinPruneStatus);

}  // namespace Routing::Pim
