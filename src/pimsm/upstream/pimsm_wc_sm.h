#pragma once
// PimsmWcSm: decides whether the agent programs (*,G) routes into the
// forwarding hardware as (*,G) entries. That needs the hardware to say it
// supports them (`HwMfibStatus::multicastStarGSupported`), and is done for
// IPv4 only; the answer is `AgentStatus::wcProgrammingSupported`, kept in
// step with the hardware flag. One per address family.
// Watches: HwMfibStatus::multicastStarGSupported.
// Writes:  AgentStatus::wcProgrammingSupported.

#include <memory>

#include "cask/collection.h"
#include "pimsm/upstream/agent_status.h"
#include "platform/vrf_records.h"
#include "wirl/address_family.h"

namespace Routing::Pim::SparseMode {

class PimsmWcSm : public Platform::HwMfibStatus::Notifiee {
public:
    PimsmWcSm(Wirl::AddressFamily family, Cask::Ptr<Platform::HwMfibStatus> hwStatus,
              Cask::Ptr<AgentStatus> agentStatus);
    PimsmWcSm(const PimsmWcSm&) = delete;
    PimsmWcSm& operator=(const PimsmWcSm&) = delete;

    // Start-up: takes the hardware flag as it is.
    void handleInitialized() { handleMulticastStarGSupported(); }
    void handleMulticastStarGSupported() override;

private:
    Wirl::AddressFamily family_;
    Cask::Ptr<Platform::HwMfibStatus> hwStatus_;
    Cask::Ptr<AgentStatus> agentStatus_;
};

// Creates the machine and runs its start-up.
std::unique_ptr<PimsmWcSm> pimsmWcSmFactory(Wirl::AddressFamily family,
                                            Cask::Ptr<Platform::HwMfibStatus> hwStatus,
                                            Cask::Ptr<AgentStatus> agentStatus);

}  // namespace Routing::Pim::SparseMode
