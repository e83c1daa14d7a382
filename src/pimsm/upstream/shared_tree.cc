#include "pimsm/upstream/shared_tree.h"

namespace Routing::Pim::SparseMode {

Routing::Pim::Rpf rpfPrimeSgRpt(const Route& route) {
    const Route* wc = route.wc();
    if (!wc) return {};
    Routing::Pim::Rpf rpf = wc->rpf();
    const Intf* onRpIntf = rpf.intf.isNull() ? nullptr : route.routeIntfRaw(rpf.intf);
    if (onRpIntf && onRpIntf->assertInfo().assertState == AssertState::iAmAssertLoser) {
        rpf.neighbor = onRpIntf->assertWinner();
    }
    return rpf;
}

bool onSharedTree(const Route& route, const PimRpfTable* rpfTable) {
    if (route.isWc() || route.upJoinState() == UpJoinState::upJoined) return false;
    const Route* wc = route.wc();
    if (!wc || !wc->rpf().hasNeighbor()) return false;
    if (rpfTable) {
        if (auto toSource = rpfTable->doLookup(route.key().source());
            toSource && toSource->attached) {
            return false;
        }
    }
    return true;
}

}  // namespace Routing::Pim::SparseMode
