#pragma once
// Routing::Pim::Status: the PIM interfaces and neighbours of one VRF, as the
// PIM neighbour side of the platform publishes them (hello processing, DR
// election and interface configuration happen there, not in this agent).
//
// The agent reads it: the DR role and address of each interface feed the
// olist macros (I_am_DR(I), my_ip(I)), the neighbours decide whether an RPF
// neighbour is usable, and the override interval and assert timers are the
// interface's protocol timers. Tests and the scenario driver write it.

#include <cstdint>

#include "cask/collection.h"
#include "platform/route_key.h"
#include "wirl/intf_id.h"
#include "wirl/ip_gen_addr.h"

namespace Routing::Pim {

// One PIM neighbour on one interface.
class PimNeighborStatus : public Cask::Record<PimNeighborStatus> {
public:
    class Notifiee : public Cask::NotifieeOf<PimNeighborStatus> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleGenId() {}
        virtual void handlePortInfo() {}
    };
    explicit PimNeighborStatus(const NeighborKey& key) : key_(key) {}
    const NeighborKey& key() const { return key_; }

    // The generation ID of the neighbour's hellos; a change means it restarted.
    CASK_ATTR(std::uint32_t, genId, GenId)
    // Transport of the neighbour's Join/Prune messages (0: datagram; other
    // values name a reliable transport port).
    CASK_ATTR(std::uint32_t, portInfo, PortInfo)

private:
    NeighborKey key_;
    std::uint32_t genId_ = 0;
    std::uint32_t portInfo_ = 0;
};

// One PIM-enabled interface.
class PimIntfStatus : public Cask::Record<PimIntfStatus> {
public:
    class Notifiee : public Cask::NotifieeOf<PimIntfStatus> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleUsedAddr() {}
        virtual void handleUsedMaskLen() {}
        virtual void handleUsedDr() {}
        virtual void handleMbr() {}
        virtual void handleSourceInject() {}
        virtual void handleJoinPruneOverrideInterval() {}
        virtual void handleAssertTimeout() {}
        virtual void handleAssertOverrideInterval() {}
        virtual void handleNeighbor(const Wirl::IpGenAddr&) {}
    };
    explicit PimIntfStatus(Wirl::IntfId intf) : intfId_(intf) {}
    Wirl::IntfId intfId() const { return intfId_; }

    // This router's address on the interface (my_ip(I)) and its mask length.
    CASK_ATTR(Wirl::IpGenAddr, usedAddr, UsedAddr)
    CASK_ATTR(std::uint8_t, usedMaskLen, UsedMaskLen)
    // The elected DR's address; this router is DR when it is its own address.
    CASK_ATTR(Wirl::IpGenAddr, usedDr, UsedDr)
    bool iAmDr() const {
        return usedDr_.family() != Wirl::AddressFamily::ipunknown && usedDr_ == usedAddr_;
    }
    // The interface is a multicast border (MBR) interface.
    CASK_ATTR(bool, mbr, Mbr)
    CASK_ATTR(bool, sourceInject, SourceInject)
    // Effective_Override_Interval of RFC 7761, seconds (default 2.5).
    CASK_ATTR(double, joinPruneOverrideInterval, JoinPruneOverrideInterval)
    double usedJoinPruneOverrideIntervalInSeconds() const { return joinPruneOverrideInterval_; }
    // Assert_Time and Assert_Override_Interval, seconds.
    CASK_ATTR(std::uint32_t, assertTimeout, AssertTimeout)
    CASK_ATTR(std::uint32_t, assertOverrideInterval, AssertOverrideInterval)

    // The PIM neighbours heard on the interface, by address.
    CASK_RECORD_MAP(neighbor, Neighbor, Wirl::IpGenAddr, PimNeighborStatus,
                    "Routing::Pim::PimIntfStatus")

private:
    Wirl::IntfId intfId_;
    Wirl::IpGenAddr usedAddr_;
    std::uint8_t usedMaskLen_ = 0;
    Wirl::IpGenAddr usedDr_;
    bool mbr_ = false;
    bool sourceInject_ = false;
    double joinPruneOverrideInterval_ = 2.5;
    std::uint32_t assertTimeout_ = 180;
    std::uint32_t assertOverrideInterval_ = 3;
    Cask::RecordMap<Wirl::IpGenAddr, PimNeighborStatus> neighbor_;
};

// The PIM status of one VRF.
class Status : public Cask::Record<Status> {
public:
    class Notifiee : public Cask::NotifieeOf<Status> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleIntf(Wirl::IntfId) {}
        virtual void handleActiveNeighbor(const NeighborKey&) {}
        virtual void handleOutputClogged() {}
    };

    CASK_RECORD_MAP(intf, Intf, Wirl::IntfId, PimIntfStatus, "Routing::Pim::Status")
    // Neighbours currently up. A neighbour that went and came back is in it
    // again: the route review uses that to tell a flap from a change.
    CASK_KEY_SET(activeNeighbor, ActiveNeighbor, NeighborKey)
    // The agent's output toward the state database is congested: machines
    // that review queued input in slices stop at the next slice and resume
    // when it clears, so that nothing more is written while it lasts.
    CASK_ATTR(bool, outputClogged, OutputClogged)

    // Convenience lookups for the olist macros; null / false when absent.
    PimIntfStatus* intfRaw(Wirl::IntfId i) const { return intf_.raw(i); }
    bool iAmDr(Wirl::IntfId i) const {
        auto* s = intf_.raw(i);
        return s && s->iAmDr();
    }
    bool neighborExists(Wirl::IntfId i, const Wirl::IpGenAddr& addr) const {
        auto* s = intf_.raw(i);
        return s && s->neighborHas(addr);
    }

private:
    Cask::RecordMap<Wirl::IntfId, PimIntfStatus> intf_;
    Cask::KeySet<NeighborKey> activeNeighbor_;
    bool outputClogged_ = false;
};

}  // namespace Routing::Pim
