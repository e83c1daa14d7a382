#pragma once
// ParamsContainer: what every VRF's container shares within one address
// family: the state database, the event loop, the agent's limits, and the
// two writers the root machine creates for all VRFs.

#include <cstdint>

#include "cask/collection.h"
#include "cask/event_loop.h"
#include "platform/state_db.h"

namespace Routing::Pim::SparseMode {

// Writes the directory of shared-memory forwarding tables of one mode
// ("sparsemode"): mounts one table per VRF and unmounts it again.
class MfibDirWriter : public Cask::Record<MfibDirWriter> {
public:
    class Notifiee : public Cask::NotifieeOf<MfibDirWriter> {};
    MfibDirWriter(Platform::StateDb& db, std::string mode) : db_(db), mode_(std::move(mode)) {}
    const std::string& mode() const { return mode_; }
    std::string tablePath(const L3::VrfName& vrf) const {
        return "mfib/" + mode_ + "/" + vrf.str();
    }
    void tableMount(const L3::VrfName& vrf) { db_.mountIs(tablePath(vrf)); }
    void tableUnmount(const L3::VrfName& vrf) { db_.mountDel(tablePath(vrf)); }

private:
    Platform::StateDb& db_;
    std::string mode_;
};

// Whether route events of one table ("mroute") are to be reported to the
// event monitor, from the option "eventMonitor.<table>" ("1" enables).
class MrouteEventMonConfigSm : public Cask::Record<MrouteEventMonConfigSm>,
                               public Platform::StateDb::Notifiee {
public:
    class Notifiee : public Cask::NotifieeOf<MrouteEventMonConfigSm> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleEnabled() {}
    };
    MrouteEventMonConfigSm(Platform::StateDb& db, std::string table)
        : Platform::StateDb::Notifiee(&db), option_("eventMonitor." + table) {
        handleOption(option_);
    }
    bool enabled() const { return enabled_; }
    void handleOption(const std::string& name) override {
        if (name != option_) return;
        bool on = Platform::StateDb::Notifiee::notifier()->option(option_) == "1";
        Cask::Notifier::assign(enabled_, on, &Notifiee::handleEnabled);
    }

private:
    std::string option_;
    bool enabled_ = false;
};

struct ParamsContainer {
    Wirl::AddressFamily family;
    Platform::StateDb& db;
    Cask::EventLoop& loop;
    std::uint32_t maxRoutes;      // 0: no limit
    std::uint32_t maxRouteIntfs;  // 0: no limit
};

}  // namespace Routing::Pim::SparseMode
