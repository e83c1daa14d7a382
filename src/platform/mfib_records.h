#pragma once
// Records of the multicast forwarding side that the sparse-mode agent reads:
// - Fib::Config: forwarding configuration; its `clearMfibCount` counts the
//   operator's requests to write every forwarding entry again;
// - Fib::SparseModeStatus: the interfaces the forwarding plane runs upstream
//   fast failover on (`fastFailoverIntf`).

#include <cstdint>

#include "cask/collection.h"
#include "wirl/intf_id.h"

namespace Routing::Multicast::Fib {

class Config : public Cask::Record<Config> {
public:
    class Notifiee : public Cask::NotifieeOf<Config> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleClearMfibCount() {}
    };
    CASK_COUNTER(std::uint32_t, clearMfibCount, ClearMfibCount)

private:
    std::uint32_t clearMfibCount_ = 0;
};

class SparseModeStatus : public Cask::Record<SparseModeStatus> {
public:
    class Notifiee : public Cask::NotifieeOf<SparseModeStatus> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleFastFailoverIntf(Wirl::IntfId) {}
    };
    CASK_KEY_SET(fastFailoverIntf, FastFailoverIntf, Wirl::IntfId)

private:
    Cask::KeySet<Wirl::IntfId> fastFailoverIntf_;
};

}  // namespace Routing::Multicast::Fib
