#pragma once
// RegisterStatus: what the register process of a VRF asks of the agent per
// (S,G) route: the register tunnel belongs in the route's outgoing list
// (`registerOif`: the source is being registered to the RP), or explicitly
// not (`noRegisterOif`: a Register-Stop came, say). The agent reads it;
// the register process writes it.

#include "cask/collection.h"
#include "platform/route_key.h"

namespace Routing::Pim::SparseMode {

class RegisterStatus : public Cask::Record<RegisterStatus> {
public:
    class Notifiee : public Cask::NotifieeOf<RegisterStatus> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleRegisterOif(const Routing::Pim::RouteKey&) {}
        virtual void handleNoRegisterOif(const Routing::Pim::RouteKey&) {}
    };
    CASK_KEY_SET(registerOif, RegisterOif, Routing::Pim::RouteKey)
    CASK_KEY_SET(noRegisterOif, NoRegisterOif, Routing::Pim::RouteKey)

private:
    Cask::OrderedKeySet<Routing::Pim::RouteKey> registerOif_;
    Cask::OrderedKeySet<Routing::Pim::RouteKey> noRegisterOif_;
};

}  // namespace Routing::Pim::SparseMode
