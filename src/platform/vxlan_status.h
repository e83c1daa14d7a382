#pragma once
// Routing::Multicast::VxlanStatus: per interface, whether multicast runs over
// VXLAN on it, as the VXLAN side publishes it. An interface that carries
// multicast VXLAN traffic changes how asserts and forwarding treat it.

#include "cask/collection.h"
#include "wirl/intf_id.h"

namespace Routing::Multicast {

class VxlanStatus : public Cask::Record<VxlanStatus> {
public:
    class Notifiee : public Cask::NotifieeOf<VxlanStatus> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleVxlanIntf(Wirl::IntfId) {}
    };
    CASK_VALUE_MAP(vxlanIntf, VxlanIntf, Wirl::IntfId, bool)

private:
    Cask::ValueMap<Wirl::IntfId, bool> vxlanIntf_;
};

}  // namespace Routing::Multicast
