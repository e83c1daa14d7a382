#pragma once
// UnicastRoutingStatus: the unicast routing tables a VRF's RPF lookups may
// use, each possibly absent: the unicast RIB's shadow, the multicast RIB and
// its shadow, for IPv4 and for IPv6. RPF prefers the multicast RIB when it
// has a table (see the RPF table of the upstream machines).

#include "cask/collection.h"
#include "platform/unicast_route_table.h"
#include "wirl/address_family.h"

namespace Routing::Pim::SparseMode {

class UnicastRoutingStatus : public Cask::Record<UnicastRoutingStatus> {
public:
    using Table = Cask::Ptr<Routing::Unicast::RouteTable>;
    class Notifiee : public Cask::NotifieeOf<UnicastRoutingStatus> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleUribShadowStatus() {}
        virtual void handleMribStatus() {}
        virtual void handleMribShadowStatus() {}
        virtual void handleUrib6ShadowStatus() {}
        virtual void handleMrib6Status() {}
        virtual void handleMrib6ShadowStatus() {}
    };

    explicit UnicastRoutingStatus(Wirl::AddressFamily family) : family_(family) {}
    Wirl::AddressFamily family() const { return family_; }

    CASK_ATTR(Table, uribShadowStatus, UribShadowStatus)
    CASK_ATTR(Table, mribStatus, MribStatus)
    CASK_ATTR(Table, mribShadowStatus, MribShadowStatus)
    CASK_ATTR(Table, urib6ShadowStatus, Urib6ShadowStatus)
    CASK_ATTR(Table, mrib6Status, Mrib6Status)
    CASK_ATTR(Table, mrib6ShadowStatus, Mrib6ShadowStatus)

    // The table RPF reads for this family: the multicast RIB when present,
    // else its shadow, else the unicast RIB's shadow; null when none is.
    Routing::Unicast::RouteTable* rpfTable() const;

private:
    Wirl::AddressFamily family_;
    Table uribShadowStatus_, mribStatus_, mribShadowStatus_;
    Table urib6ShadowStatus_, mrib6Status_, mrib6ShadowStatus_;
};

Cask::Ptr<UnicastRoutingStatus> unicastRoutingStatusFactory(Wirl::AddressFamily family);

}  // namespace Routing::Pim::SparseMode
