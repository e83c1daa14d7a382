#include "pimsm/upstream/pimsm_wc_sm.h"

#include "cask/trace.h"

namespace Routing::Pim::SparseMode {

PimsmWcSm::PimsmWcSm(Wirl::AddressFamily family, Cask::Ptr<Platform::HwMfibStatus> hwStatus,
                     Cask::Ptr<AgentStatus> agentStatus)
    : family_(family), hwStatus_(std::move(hwStatus)), agentStatus_(std::move(agentStatus)) {
    notifierIs(hwStatus_.get());
}

void PimsmWcSm::handleMulticastStarGSupported() {
    const bool hw = hwStatus_ && hwStatus_->multicastStarGSupported();
    const bool supported = hw && family_ == Wirl::AddressFamily::ipv4;
    CASK_TRACE(6, "PimsmWcSm::handleMulticastStarGSupported() hardware: {}, supported: {}", hw,
               supported);
    agentStatus_->wcProgrammingSupportedIs(supported);
}

std::unique_ptr<PimsmWcSm> pimsmWcSmFactory(Wirl::AddressFamily family,
                                            Cask::Ptr<Platform::HwMfibStatus> hwStatus,
                                            Cask::Ptr<AgentStatus> agentStatus) {
    auto sm = std::make_unique<PimsmWcSm>(family, std::move(hwStatus), std::move(agentStatus));
    sm->handleInitialized();
    return sm;
}

}  // namespace Routing::Pim::SparseMode
