#pragma once
// Agent: the PIM sparse-mode agent of one address family (Agent4 for IPv4,
// Agent6 for IPv6), running on the in-process state database and event
// loop.
//
// It follows the redundancy role of its supervisor: RedundancyStatusSm
// watches the state database's standby flag and sets the agent's standby
// mode. On the active supervisor `handleStandbyMode` reads the options
// "maxRoutes" and "maxRouteIntfs", creates the event-log machine and the
// root machine (the agent's timers live on the event loop it is given);
// on a standby supervisor it removes both, so a standby agent holds no
// protocol state.
//
// Options (text values in StateDb::option, read at each switch to active):
//   maxRoutes      most routes one VRF may hold; a route beyond it is
//                  refused with a trace and counted. 0 or absent: no limit.
//                  With a limit, every per-route index (route collections,
//                  machines' reactor maps, RPF requests, the forwarding
//                  table) is sized for it when the VRF starts, so that no
//                  index rehashes, in one long step, on the way to the limit.
//                  The cost up front is about one control byte per slot
//                  and index (slots are touched only when used).
//   maxRouteIntfs  most interfaces one route may have; likewise.

#include <cstdint>
#include <memory>

#include "cask/collection.h"
#include "cask/event_loop.h"
#include "platform/state_db.h"

namespace Routing::Pim::SparseMode {

class RootSm;
class PimAttrLogSm;
class RedundancyStatusSm;

class Agent {
public:
    Agent(Wirl::AddressFamily family, Platform::StateDb& db, Cask::EventLoop& loop);
    virtual ~Agent();
    Agent(const Agent&) = delete;
    Agent& operator=(const Agent&) = delete;

    Wirl::AddressFamily family() const { return family_; }
    Platform::StateDb& db() const { return db_; }
    Cask::EventLoop& loop() const { return loop_; }

    bool standbyMode() const { return standbyMode_; }
    void standbyModeIs(bool standby);
    // The root machine; null on a standby supervisor.
    RootSm* rootSm() const { return rootSm_.get(); }
    PimAttrLogSm* attrLogSm() const { return attrLogSm_.get(); }

    // Reads an unsigned option; `fallback` when absent or not a number
    // (with a trace).
    std::uint32_t numericOption(const std::string& name, std::uint32_t fallback) const;

private:
    void handleStandbyMode();
    void doCleanup();

    Wirl::AddressFamily family_;
    Platform::StateDb& db_;
    Cask::EventLoop& loop_;
    bool standbyMode_ = true;
    std::unique_ptr<RedundancyStatusSm> redundancyStatusSm_;
    Cask::Ptr<PimAttrLogSm> attrLogSm_;
    Cask::Ptr<RootSm> rootSm_;
};

class Agent4 : public Agent {
public:
    Agent4(Platform::StateDb& db, Cask::EventLoop& loop)
        : Agent(Wirl::AddressFamily::ipv4, db, loop) {}
};

class Agent6 : public Agent {
public:
    Agent6(Platform::StateDb& db, Cask::EventLoop& loop)
        : Agent(Wirl::AddressFamily::ipv6, db, loop) {}
};

// Sets the agent's standby mode from the state database's standby flag.
class RedundancyStatusSm : public Platform::StateDb::Notifiee {
public:
    RedundancyStatusSm(Platform::StateDb& db, Agent& agent);
    void handleStandby() override;

private:
    Agent& agent_;
};

// The event-log machine: while it exists the event log records the
// agent's state transitions; it clears the log when the agent goes standby.
class PimAttrLogSm : public Cask::Record<PimAttrLogSm> {
public:
    class Notifiee : public Cask::NotifieeOf<PimAttrLogSm> {};
    PimAttrLogSm();
    ~PimAttrLogSm();
};

}  // namespace Routing::Pim::SparseMode
