#pragma once
// What the upstream machines ((*,G), (S,G) and (S,G,rpt)) share when they
// hear a Join or Prune that another router on the upstream LAN sent toward
// their upstream neighbour: join suppression and prune override, RFC 7761
// 4.5.4, 4.5.5 and 4.5.7.
//
// Watches: nothing itself; the machine's JoinPruneRxWatcher calls it.
// Writes: nothing; it decides and traces, the machine writes the
// suppression or the override through its Join/Prune writer.
//
// Every machine checks a received entry in the same order: the entry is of
// the machine's kind, the sender is a PIM neighbour, the route is there, the
// route is in the state the machine acts in, and the entry is addressed to
// one of the route's upstream neighbours. Each machine words the reasons
// itself (`RxTexts`), since operators read them in its traces.

#include <initializer_list>
#include <string>

#include <absl/functional/function_ref.h>

#include "pimsm/common/vrf_context.h"
#include "pimsm/route/route.h"
#include "platform/join_prune.h"
#include "platform/join_prune_writer.h"

namespace Routing::Pim::SparseMode {

// A machine's wording of the reasons it ignores a received entry.
struct RxTexts {
    const char* otherKind;    // the entry is not of the machine's kind
    const char* noRoute;      // no route; "{}" names the route key
    const char* notActive;    // the route is not in the state the machine acts in
    const char* notUpstream;  // the entry goes to none of the route's upstream neighbours
};

// The entry a machine's handleRxJoin (`join`) or handleRxPrune received,
// traced on arrival as "<machine>::handleRxJoin(<key>) on <intf> from
// <sender>".
Routing::Pim::JoinPruneMessageInfo rxEntry(const VrfContext& in, const char* machine, bool join);

// The first reason, in the order above, to ignore entry `m` about route
// `key` (`route`, null when absent); empty when the machine acts on it.
// `active` and `addressed` are asked only of a route that is there, in that
// order.
std::string rxIgnoreReason(const VrfContext& in, const RxTexts& texts,
                           const Routing::Pim::JoinPruneMessageInfo& m, bool otherKind,
                           const Routing::Pim::RouteKey& key, const Route* route,
                           absl::FunctionRef<bool(const Route&)> active,
                           absl::FunctionRef<bool(const Route&)> addressed);

// The one of a route's upstream neighbours (null entries skipped) that
// entry `m` is addressed to: same interface, same neighbour address.
const Routing::Pim::Rpf* rpfAddressedBy(std::initializer_list<const Routing::Pim::Rpf*> upstreams,
                                        const Routing::Pim::JoinPruneMessageInfo& m);

// Why a heard Join cannot suppress this router's periodic Join at `nbr`
// (null: the neighbour is down): the trace's reason, or null when the
// neighbour's periodic record of `group` holds `entry` (null: no entry the
// Join could name).
const char* unsuppressedBecause(const Routing::Pim::JoinPruneNeighbor* nbr,
                                const Wirl::IpGenAddr& group,
                                const Routing::Pim::JoinPruneEntry* entry);

// The Join/Prune entry of the neighbour a heard Prune is to be overridden
// at; null, traced "<machine>::handleRxPrune(<key>), Neighbor down", when
// the neighbour is gone.
Routing::Pim::JoinPruneNeighbor* overrideNeighbor(const VrfContext& in, const char* machine,
                                                  const Routing::Pim::JoinPruneWriter& writer,
                                                  const Routing::Pim::Rpf& rpf,
                                                  const Routing::Pim::JoinPruneMessageInfo& m);

}  // namespace Routing::Pim::SparseMode
