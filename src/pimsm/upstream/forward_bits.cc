#include "pimsm/upstream/forward_bits.h"

#include "cask/trace.h"

namespace Routing::Pim::SparseMode {

void ForwardBits::forward(Intf& intf, const Routing::Pim::RouteKey& key, bool want) const {
    if (want == intf.forward()) return;
    const Wirl::IntfId id = intf.intfId();
    if (want) {
        CASK_VRF_TRACE(7, vrf_, "{}::{}, Added {} to OIF set", machine_, key, id);
        CASK_EVENT("{}: Add intf {} to OIF set of route {}", machine_, id, key);
    } else {
        CASK_VRF_TRACE(7, vrf_, "{}::{}, Removed {} from OIF set", machine_, key, id);
        CASK_EVENT("{}: Remove intf {} from OIF set of{} route {}", machine_, id,
                   removeGap_ ? " " : "", key);
    }
    intf.forwardIs(want);
}

void ForwardBits::fastForward(Intf& intf, const Routing::Pim::RouteKey& key, bool eligible,
                              bool want) const {
    const Wirl::IntfId id = intf.intfId();
    if (!eligible) {
        if (!intf.fastForward()) return;
        CASK_VRF_TRACE(7, vrf_, "{}::{}, Removed ineligible {} from fast forward OIF set", machine_,
                       key, id);
        CASK_EVENT("{}: Remove ineligible intf {} from fast forward OIF set of route {}", machine_,
                   id, key);
        intf.fastForwardIs(false);
        return;
    }
    if (want == intf.fastForward()) return;
    if (want) {
        CASK_VRF_TRACE(7, vrf_, "{}::{}, Added {} to fast forward OIF set", machine_, key, id);
        CASK_EVENT("{}: Add intf {} to fast forward OIF set of route {}", machine_, id, key);
    } else {
        CASK_VRF_TRACE(7, vrf_, "{}::{}, Removed {} from fast forward OIF set", machine_, key, id);
        CASK_EVENT("{}: Remove intf {} from fast forward OIF set of{} route {}", machine_, id,
                   removeGap_ ? " " : "", key);
    }
    intf.fastForwardIs(want);
}

}  // namespace Routing::Pim::SparseMode
