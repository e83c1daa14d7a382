#pragma once
// JoinPruneRxWatcher: a machine's watcher on the VRF's received Join/Prune messages.
//
// The packet side hands over each decoded message whole, then entry by entry
// (`JoinPruneRxStatus::messageReceived`). A machine names the handlers it wants and the
// watcher calls them, with nothing to read: the machine reads the entry or message from the
// record itself.
//
//     JoinPruneRxWatcher<FooSm> rx_{*this, {.join = &FooSm::handleRxJoin,
//                                           .prune = &FooSm::handleRxPrune}};
//     FooSm(const VrfContext& ctx) ... { rx_.watch(ctx.joinPruneRxStatus); }
//
// A VRF without the record receives nothing: `watch(nullptr)` leaves the watcher detached.

#include "cask/assert.h"
#include "platform/join_prune.h"

namespace Routing::Pim::SparseMode {

template <class M>
class JoinPruneRxWatcher final : public Routing::Pim::JoinPruneRxStatus::Notifiee {
public:
    // Null: the machine does not hear that kind.
    struct Handlers {
        void (M::*join)() = nullptr;     // a single Join entry (`rxJoin`)
        void (M::*prune)() = nullptr;    // a single Prune entry (`rxPrune`)
        void (M::*message)() = nullptr;  // a whole message (`joinPruneMessage`)
    };

    JoinPruneRxWatcher(M& machine, Handlers handlers) : machine_(machine), handlers_(handlers) {
        CASK_ASSERT(handlers.join || handlers.prune || handlers.message,
                    "Join/Prune watcher with no handler");
    }

    // Watches `rx` from now on; null detaches.
    void watch(Routing::Pim::JoinPruneRxStatus* rx) { notifierIs(rx); }

    void handleRxJoin() override { call(handlers_.join); }
    void handleRxPrune() override { call(handlers_.prune); }
    void handleJoinPruneMessage() override { call(handlers_.message); }

private:
    void call(void (M::*handler)()) {
        if (handler) (machine_.*handler)();
    }

    M& machine_;
    Handlers handlers_;
};

}  // namespace Routing::Pim::SparseMode
