#pragma once
// ForwardBits: how an upstream machine writes the `forward` and `fastForward`
// bits of a route's interface, with the trace lines every such write leaves.
// Each machine decides what the bits should be (immediate_olist(*,G),
// inherited_olist(S,G), ...); this writes a changed bit and says so, in the
// machine's own words:
//   "<Vrf:NAME>UpstreamSgSm::(S, G), Added eth1 to OIF set" (trace ring) and
//   "UpstreamSgSm: Add intf eth1 to OIF set of route (S, G)" (event log).
// Some machines' removal records read "of  route" with two blanks; they say
// so with `removeGap`.

#include <string_view>

#include "pimsm/route/intf.h"
#include "platform/route_key.h"
#include "wirl/vrf_name.h"

namespace Routing::Pim::SparseMode {

class ForwardBits {
public:
    ForwardBits(std::string_view machine, const L3::VrfName& vrf, bool removeGap = false)
        : machine_(machine), vrf_(vrf), removeGap_(removeGap) {}

    // Sets `forward` to `want`; nothing when it already is.
    void forward(Intf& intf, const Routing::Pim::RouteKey& key, bool want) const;
    // Sets `fastForward`: to `want` when the interface may be in the backup
    // list at all (`eligible`), else clears it as ineligible.
    void fastForward(Intf& intf, const Routing::Pim::RouteKey& key, bool eligible, bool want) const;

private:
    std::string_view machine_;
    const L3::VrfName& vrf_;
    bool removeGap_;
};

}  // namespace Routing::Pim::SparseMode
