#pragma once
// GmpChangeStatus: the membership keys that changed since they were last
// decided. GmpChangeSm fills one while it works through another, so a key
// that changes many times between two reviews is decided once, and a key
// that changes during a review waits for the next one.
//
// The set is ordered so that a review cut into slices can resume at the
// first key not below its bookmark, even if that key left the set.

#include "cask/collection.h"
#include "platform/membership.h"

namespace Routing::Pim::SparseMode {

class GmpChangeStatus : public Cask::Record<GmpChangeStatus> {
public:
    class Notifiee : public Cask::NotifieeOf<GmpChangeStatus> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleChangedRouteIntf(const Routing::Gmp::Tidal::RouteIntfKey&) {}
    };

    CASK_KEY_SET(changedRouteIntf, ChangedRouteIntf, Routing::Gmp::Tidal::RouteIntfKey)
    // Removes the keys below `k`: those a review has decided.
    void changedRouteIntfDelBelow(const Routing::Gmp::Tidal::RouteIntfKey& k) {
        changedRouteIntf_.delBelow(*this, k, &Notifiee::handleChangedRouteIntf);
    }

private:
    Cask::OrderedKeySet<Routing::Gmp::Tidal::RouteIntfKey> changedRouteIntf_;
};

}  // namespace Routing::Pim::SparseMode
