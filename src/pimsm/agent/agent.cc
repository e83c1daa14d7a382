#include "pimsm/agent/agent.h"

#include <charconv>

#include "cask/trace.h"
#include "pimsm/agent/root_sm.h"

namespace Routing::Pim::SparseMode {

Agent::Agent(Wirl::AddressFamily family, Platform::StateDb& db, Cask::EventLoop& loop)
    : family_(family), db_(db), loop_(loop) {
    redundancyStatusSm_ = std::make_unique<RedundancyStatusSm>(db, *this);
}

Agent::~Agent() {
    redundancyStatusSm_.reset();
    doCleanup();
}

void Agent::standbyModeIs(bool standby) {
    if (standby == standbyMode_ && (standby || rootSm_)) return;
    standbyMode_ = standby;
    handleStandbyMode();
}

std::uint32_t Agent::numericOption(const std::string& name, std::uint32_t fallback) const {
    if (!db_.optionHas(name)) return fallback;
    const std::string text = db_.option(name);
    std::uint32_t value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size()) {
        CASK_TRACE(4, "Agent::handleStandbyMode(): option {} has a bad value \"{}\", using {}",
                   name, text, fallback);
        return fallback;
    }
    return value;
}

void Agent::handleStandbyMode() {
    if (standbyMode_) {
        CASK_TRACE(4, "Standby supe. Cleaning up any instance of Sm");
        doCleanup();
        return;
    }
    const std::uint32_t maxRoutes = numericOption("maxRoutes", 0);
    const std::uint32_t maxRouteIntfs = numericOption("maxRouteIntfs", 0);
    CASK_TRACE(4, "Agent::handleStandbyMode(): active, maxRoutes {} maxRouteIntfs {}", maxRoutes,
               maxRouteIntfs);
    attrLogSm_ = Cask::make<PimAttrLogSm>();
    rootSm_ = rootSmFactory(db_, family_, maxRoutes, maxRouteIntfs, loop_);
}

void Agent::doCleanup() {
    rootSm_.reset();
    attrLogSm_.reset();
}

RedundancyStatusSm::RedundancyStatusSm(Platform::StateDb& db, Agent& agent)
    : Platform::StateDb::Notifiee(&db), agent_(agent) {
    handleStandby();
}

void RedundancyStatusSm::handleStandby() {
    agent_.standbyModeIs(notifier()->standby());
}

PimAttrLogSm::PimAttrLogSm() {
    Cask::eventLog().levelIs(4);
}

PimAttrLogSm::~PimAttrLogSm() {
    Cask::eventLog().clear();
    Cask::eventLog().levelIs(0);
}

}  // namespace Routing::Pim::SparseMode
