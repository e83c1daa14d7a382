#pragma once
// RouteCountSm: publishes three gauges of a VRF's route table in the route
// status the agent shares with other processes: routes whose RPF is
// unresolved, routes marked for deletion, and routes switching their
// incoming interface. Each handler writes the whole size of the set it
// watches, so a lost notification is repaired by the next one; the machine
// keeps no state of its own.
// Watches: LocalStatus (routes marked for deletion, switching), RpfStatus (unresolved).
// Writes:  the route counts other processes read (VrfContext::routeCounts).

#include <memory>

#include "pimsm/common/vrf_context.h"
#include "pimsm/route/local_status.h"
#include "platform/route_counters.h"
#include "platform/rpf_status.h"
#include "wirl/vrf_name.h"

namespace Routing::Pim::SparseMode {

class RouteCountSm : public LocalStatus::Notifiee {
public:
    // Reads localStatus and rpfStatus, writes routeCounts (all required).
    explicit RouteCountSm(const VrfContext& ctx);

    // Machine created (or LocalStatus initialized): writes all three counts.
    void handleInitialized() override;
    void handleUnresolvedRoute(const Routing::Pim::RouteKey& key);
    void handleToBeDeletedRoute(const Routing::Pim::RouteKey& key) override;
    void handleSwitchingRoute(const Routing::Pim::RouteKey& key) override;

private:
    class RpfStatusWatcher : public Routing::Pim::RpfStatus::Notifiee {
    public:
        explicit RpfStatusWatcher(RouteCountSm& owner) : owner_(owner) {}
        void handleUnresolvedRoute(const Routing::Pim::RouteKey& key) override {
            owner_.handleUnresolvedRoute(key);
        }

    private:
        RouteCountSm& owner_;
    };

    void doWrite(Tidal::RouteCounterKind kind, std::size_t count);

    L3::VrfName vrfName_;
    Cask::Ptr<LocalStatus> localStatus_;
    Cask::Ptr<Routing::Pim::RpfStatus> rpfStatus_;
    Cask::Ptr<Tidal::Status> tidalStatus_;
    RpfStatusWatcher rpfStatusWatcher_{*this};
};

// Creates the machine and writes the initial counts.
std::unique_ptr<RouteCountSm> routeCountSmFactory(const VrfContext& ctx);

}  // namespace Routing::Pim::SparseMode
