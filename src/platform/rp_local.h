#pragma once
// RpLocalStatus: the RP addresses that belong to this router in one VRF
// (its configured RP addresses, anycast-RP addresses included). A group
// whose RP is one of them has this router at the root of its shared tree,
// so no (*,G) Join is sent further upstream.
//
// Published by the RP configuration side; the upstream machines read it.

#include "cask/collection.h"
#include "wirl/ip_gen_addr.h"

namespace Routing::Pim {

class RpLocalStatus : public Cask::Record<RpLocalStatus> {
public:
    class Notifiee : public Cask::NotifieeOf<RpLocalStatus> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleLocalRp(const Wirl::IpGenAddr&) {}
    };
    CASK_KEY_SET(localRp, LocalRp, Wirl::IpGenAddr)
    bool iAmRp(const Wirl::IpGenAddr& rp) const { return localRp_.has(rp); }

private:
    Cask::KeySet<Wirl::IpGenAddr> localRp_;
};

}  // namespace Routing::Pim
