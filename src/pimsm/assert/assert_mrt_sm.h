#pragma once
// AssertMrtSm: hands the forwarding plane's data upcalls to the assert
// machines (RFC 7761 4.6: "an (S,G) data packet arrives on interface I").
// A packet that arrived on the wrong interface of a known route (wrong VIF:
// possibly an outgoing interface, where a parallel forwarder exists) goes
// to the (S,G) machine as `MrtMessageInfo.rxCount`; a packet the forwarding
// plane had no entry for (no-cache) goes to the (*,G) machine as
// `wcRxCount`. It only looks at the upcalls: SgRouteSm still takes every
// one from the queue.
// Watches: MrtUpcallStatus (its per-kind counters).
// Writes:  MrtMessageInfo.

#include <memory>

#include "pimsm/common/vrf_context.h"
#include "platform/assert_status.h"
#include "platform/mrt_upcall.h"

namespace Routing::Pim::SparseMode {

class AssertMrtSm : public Routing::Pim::MrtUpcallStatus::Notifiee {
public:
    explicit AssertMrtSm(const VrfContext& ctx);

    void handleWrongVifCount() override { handleWrongVifMessage(); }
    void handleNoCacheCount() override { handleNoCacheMessage(); }
    void handleWrongVifMessage();
    void handleNoCacheMessage();

private:
    const VrfContext& ctx_;
};

std::unique_ptr<AssertMrtSm> assertMrtSmFactory(const VrfContext& ctx);

}  // namespace Routing::Pim::SparseMode
