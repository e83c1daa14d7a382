#include "pimsm/assert/assert_message_sm.h"

#include <vector>

#include "cask/assert.h"
#include "cask/trace.h"
#include "pimsm/common/vrf_inputs.h"

namespace Routing::Pim::SparseMode {

class AssertMessageSm::PimWatcher : public Routing::Pim::Status::Notifiee {
public:
    PimWatcher(AssertMessageSm& sm, Routing::Pim::Status& s)
        : Routing::Pim::Status::Notifiee(&s), sm_(sm) {}
    void handleIntf(Wirl::IntfId intf) override { sm_.handleIntf(intf); }

private:
    AssertMessageSm& sm_;
};

class AssertMessageSm::AssertWatcher : public Routing::Pim::AssertStatus::Notifiee {
public:
    AssertWatcher(AssertMessageSm& sm, Routing::Pim::AssertStatus& s)
        : Routing::Pim::AssertStatus::Notifiee(&s), sm_(sm) {}
    void handleIntf(Wirl::IntfId intf) override { sm_.handleIntf(intf); }

private:
    AssertMessageSm& sm_;
};

AssertMessageSm::AssertMessageSm(const VrfContext& ctx)
    : ctx_(requireInputs(ctx, "AssertMessageSm", &VrfContext::loop, &VrfContext::pimStatus,
                         &VrfContext::assertStatus, &VrfContext::rxAssertMessageInfo)),
      idleTimer_(*ctx.loop, [this] { handleIdleTimerExpiry(); }) {
    pimWatcher_ = std::make_unique<PimWatcher>(*this, *ctx.pimStatus);
    assertWatcher_ = std::make_unique<AssertWatcher>(*this, *ctx.assertStatus);
    // Interfaces that came before the machine.
    std::vector<Wirl::IntfId> intfs;
    for (const auto& [intf, s] : ctx.pimStatus->intf()) intfs.push_back(intf);
    for (const auto& [intf, s] : ctx.assertStatus->intf()) intfs.push_back(intf);
    for (Wirl::IntfId intf : intfs) handleIntf(intf);
}

AssertMessageSm::~AssertMessageSm() = default;

void AssertMessageSm::handleRxMessage(const Routing::Pim::AssertMessage& message,
                                      Wirl::IntfId intf) {
    CASK_VRF_TRACE(6, ctx_.vrfName, "AssertMessageSm::handleRxMessage({}), Received on {}",
                   message.str(), intf);
    auto& info = *ctx_.rxAssertMessageInfo;
    info.messageIs(message);
    info.intfIdIs(intf);
    info.rxCountInc();
}

void AssertMessageSm::handleIntf(Wirl::IntfId intf) {
    const bool pim = ctx_.pimStatus->intfRaw(intf) != nullptr;
    Routing::Pim::IntfStatus* status = ctx_.assertStatus->intf(intf);
    auto it = intfSm_.find(intf);
    if (it != intfSm_.end() && status != &it->second->intfStatus()) {
        // The IntfStatus the machine serves was removed or replaced.
        intfSm_.erase(it);
        it = intfSm_.end();
    }
    if (it == intfSm_.end()) {
        if (!pim && !status) return;
        CASK_VRF_TRACE(6, ctx_.vrfName, "AssertMessageSm::handleIntf({}), create", intf);
        if (!status) status = &ctx_.assertStatus->intfIs(intf);  // announces: re-enters
        if (intfSm_.count(intf)) return;
        intfSm_.emplace(intf,
                        std::make_unique<AssertIntfSm>(ctx_, *status, loopQuantum,
                                                       [this](Wirl::IntfId i) { handleIdle(i); }));
        // Requests on an interface without PIM status are sent, then the
        // machine goes; one made empty goes on the next turn.
        if (!pim) handleIdle(intf);
        return;
    }
    it->second->handlePimIntf();
    if (!pim) doMaybeDeleteIntf(intf);
}

void AssertMessageSm::doMaybeDeleteIntf(Wirl::IntfId intf) {
    if (ctx_.pimStatus->intfRaw(intf)) return;
    Routing::Pim::IntfStatus* status = ctx_.assertStatus->intf(intf);
    if (status && !status->idle()) return;
    CASK_VRF_TRACE(6, ctx_.vrfName, "AssertMessageSm::doMaybeDeleteIntf({}), delete", intf);
    intfSm_.erase(intf);
    if (status) ctx_.assertStatus->intfDel(intf);
}

void AssertMessageSm::handleIdle(Wirl::IntfId intf) {
    idle_.insert(intf);
    if (idleTimer_.timeMin() == Cask::never) idleTimer_.timeMinIs(ctx_.loop->now());
}

void AssertMessageSm::handleIdleTimerExpiry() {
    const std::set<Wirl::IntfId> idle = std::move(idle_);
    idle_.clear();
    for (Wirl::IntfId intf : idle) doMaybeDeleteIntf(intf);
}

std::unique_ptr<AssertMessageSm> assertMessageSmFactory(const VrfContext& ctx) {
    return std::make_unique<AssertMessageSm>(ctx);
}

}  // namespace Routing::Pim::SparseMode
