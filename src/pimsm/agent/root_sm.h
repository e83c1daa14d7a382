#pragma once
// RootSm: decides, for one address family, in which VRFs the protocol runs,
// and builds and tears down everything that runs in one VRF.
//
// It watches the VRF list and the per-VRF inputs of the state database. For
// every VRF it runs `handleVrf`, which walks a VRF through its life:
//   absent -> pre-initialized (PreInitSm: the static RP configuration is
//   there, other inputs are not yet) -> running (ContainerSm: all inputs
//   are there and PIM sparse mode is enabled) -> and back.
// Losing any input tears the VRF's container down (and everything it owns);
// the VRF is rebuilt from scratch when the input returns. A failed test is
// traced with its reason; nothing about a missing input is fatal.
//
// Non-stop-forwarding restarts: VRFs whose restart was requested when the
// agent started are kept in `nsfRestartingVrf` until their route recovery
// completes (or PIM is disabled in them).

#include <cstdint>
#include <memory>

#include "cask/collection.h"
#include "cask/event_loop.h"
#include "pimsm/agent/container_sm.h"
#include "pimsm/agent/params_container.h"
#include "pimsm/agent/pre_init_sm.h"
#include "platform/state_db.h"

namespace Routing::Pim::SparseMode {

// Watches one VRF's local status (its namespace) for the root machine.
class VrfStatusLocalSm : public Cask::Record<VrfStatusLocalSm>,
                         public Platform::VrfStatusLocal::Notifiee {
public:
    class Notifiee : public Cask::NotifieeOf<VrfStatusLocalSm> {};
    VrfStatusLocalSm(Platform::VrfStatusLocal* status, RootSm& root, const L3::VrfName& vrf)
        : Platform::VrfStatusLocal::Notifiee(status), root_(root), vrf_(vrf) {}
    void handleNetworkNamespace() override;

private:
    RootSm& root_;
    L3::VrfName vrf_;
};

// Watches one VRF's restart status for the end of route recovery.
class NsfVrfStatusSm : public Cask::Record<NsfVrfStatusSm>, public Platform::NsfStatus::Notifiee {
public:
    class Notifiee : public Cask::NotifieeOf<NsfVrfStatusSm> {};
    NsfVrfStatusSm(Platform::NsfStatus* status, RootSm& root, const L3::VrfName& vrf)
        : Platform::NsfStatus::Notifiee(status), root_(root), vrf_(vrf) {}
    void handleRouteRecoveryComplete() override;

private:
    RootSm& root_;
    L3::VrfName vrf_;
};

class RootSm : public Cask::Record<RootSm> {
public:
    using Vrf = L3::VrfName;
    class Notifiee : public Cask::NotifieeOf<RootSm> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handlePreInitSm(const Vrf&) {}
        virtual void handleContainerSm(const Vrf&) {}
        virtual void handleNamespaceName(const Vrf&) {}
        virtual void handleKernelVrfIntfStatusDir(const Vrf&) {}
        virtual void handleVrfStatusLocal(const Vrf&) {}
        virtual void handleNsfVrfStatus(const Vrf&) {}
        virtual void handleNsfRestartingVrf(const Vrf&) {}
        virtual void handleInitialized() {}
    };

    RootSm(Platform::StateDb& db, Wirl::AddressFamily family, std::uint32_t maxRoutes,
           std::uint32_t maxRouteIntfs, Cask::EventLoop& loop);
    ~RootSm();

    Platform::StateDb& db() const { return pc_->db; }
    const ParamsContainer& pc() const { return *pc_; }

    CASK_RECORD_MAP(preInitSm, PreInitSm, Vrf, PreInitSm, "Routing::Pim::SparseMode::RootSm")
    CASK_RECORD_MAP(containerSm, ContainerSm, Vrf, ContainerSm, "Routing::Pim::SparseMode::RootSm")
    // The kernel network namespace of each non-default running VRF.
    CASK_VALUE_MAP(namespaceName, NamespaceName, Vrf, Wirl::NamespaceName)
    // The mounted kernel interface status of each such namespace (its path).
    CASK_VALUE_MAP(kernelVrfIntfStatusDir, KernelVrfIntfStatusDir, Vrf, std::string)
    CASK_RECORD_MAP(vrfStatusLocal, VrfStatusLocal, Vrf, VrfStatusLocalSm,
                    "Routing::Pim::SparseMode::RootSm")
    CASK_RECORD_MAP(nsfVrfStatus, NsfVrfStatus, Vrf, NsfVrfStatusSm,
                    "Routing::Pim::SparseMode::RootSm")
    CASK_KEY_SET(nsfRestartingVrf, NsfRestartingVrf, Vrf)
    CASK_ATTR(bool, initialized, Initialized)

    MfibDirWriter* mfibDirWriter() const { return mfibDirWriter_.get(); }
    MrouteEventMonConfigSm* mrouteEventMonConfigSm() const { return mrouteEventMonConfigSm_.get(); }

    // The per-VRF decision; see the class comment.
    void handleVrf(const Vrf& vrf);
    bool checkPreInitMounts(const Vrf& vrf);
    bool checkMounts(const Vrf& vrf);
    void handlePimEnabled(const Vrf& vrf);
    void handlePimDisabled(const Vrf& vrf);
    void handleFibReady(const Vrf& vrf);
    void handleVrfAdd(const Vrf& vrf);
    void handleVrfDel(const Vrf& vrf);
    void doNsfInit();
    void doMaybeNsfRestart(const Vrf& vrf);
    void doKniInit(const Wirl::NamespaceName& ns);
    void doKniUnmounts(const Wirl::NamespaceName& ns);
    void doUnmounts(const Vrf& vrf);

private:
    class DbWatcher;
    void handleInitialized();
    void doUpdateWatchers(const Vrf& vrf);

    std::unique_ptr<ParamsContainer> pc_;
    std::unique_ptr<DbWatcher> dbWatcher_;
    Cask::Ptr<MfibDirWriter> mfibDirWriter_;
    Cask::Ptr<MrouteEventMonConfigSm> mrouteEventMonConfigSm_;
    Cask::RecordMap<Vrf, PreInitSm> preInitSm_;
    Cask::RecordMap<Vrf, ContainerSm> containerSm_;
    Cask::ValueMap<Vrf, Wirl::NamespaceName> namespaceName_;
    Cask::ValueMap<Vrf, std::string> kernelVrfIntfStatusDir_;
    Cask::RecordMap<Vrf, VrfStatusLocalSm> vrfStatusLocal_;
    Cask::RecordMap<Vrf, NsfVrfStatusSm> nsfVrfStatus_;
    Cask::KeySet<Vrf> nsfRestartingVrf_;
    bool initialized_ = false;
};

Cask::Ptr<RootSm> rootSmFactory(Platform::StateDb& db, Wirl::AddressFamily family,
                                std::uint32_t maxRoutes, std::uint32_t maxRouteIntfs,
                                Cask::EventLoop& loop);

}  // namespace Routing::Pim::SparseMode
