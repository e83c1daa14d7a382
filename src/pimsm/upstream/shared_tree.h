#pragma once
// Where an (S,G) route takes its traffic from while it is not joined toward
// its source: down the group's shared tree, from RPF'(S,G,rpt). The
// upstream (S,G) and (S,G,rpt) machines both ask, so that exactly one of
// them keeps the route's RPF' and forwarding bits at any time: the (S,G,rpt)
// machine while the route is on the shared tree, the (S,G) machine
// otherwise.

#include "pimsm/route/route.h"
#include "pimsm/upstream/rpf_table.h"
#include "platform/rpf.h"

namespace Routing::Pim::SparseMode {

// RPF'(S,G,rpt) (RFC 7761 4.1.5): RPF'(*,G), unless this router lost the
// (S,G) assert on RPF_interface(RP(G)), in which case the assert winner
// there. Unresolved without a (*,G) route.
Routing::Pim::Rpf rpfPrimeSgRpt(const Route& route);

// The (S,G) route is carried on the shared tree: it is not joined toward
// its source, the group's (*,G) route has an upstream neighbour (so this
// router is not the RP), and the source is not on an attached network (its
// packets arrive on the source's own interface, never down the shared
// tree).
bool onSharedTree(const Route& route, const PimRpfTable* rpfTable);

}  // namespace Routing::Pim::SparseMode
