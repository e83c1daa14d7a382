#include "pimsm/agent/root_sm.h"

#include "cask/trace.h"

namespace Routing::Pim::SparseMode {

// Runs the per-VRF decision whenever any per-VRF input changes.
class RootSm::DbWatcher : public Platform::StateDb::Notifiee {
public:
    DbWatcher(Platform::StateDb& db, RootSm& root)
        : Platform::StateDb::Notifiee(&db), root_(root) {}
    void handleVrfStatusLocal(const Vrf& v) override { root_.handleVrf(v); }
    void handlePimEnabledVrf(const Vrf& v) override { root_.handleVrf(v); }
    void handleConfig(const Vrf& v) override { root_.handleVrf(v); }
    void handleClearConfig(const Vrf& v) override { root_.handleVrf(v); }
    void handleBsrCrpStatus(const Vrf& v) override { root_.handleVrf(v); }
    void handleDiscoveredSg(const Vrf& v) override { root_.handleVrf(v); }
    void handleVifStatus(const Vrf& v) override { root_.handleVrf(v); }
    void handleMribVrfStatus(const Vrf& v) override { root_.handleVrf(v); }
    void handleStaticRpConfig(const Vrf& v) override { root_.handleVrf(v); }
    void handleRpConfig(const Vrf& v) override { root_.handleVrf(v); }
    void handleHwMfibStatus(const Vrf& v) override { root_.handleVrf(v); }
    void handleNsfStatus(const Vrf& v) override { root_.handleVrf(v); }
    void handleFibReady(const Vrf& v) override { root_.handleFibReady(v); }
    void handleNamespace(const Wirl::NamespaceName&) override { handleAll(); }
    void handleMcastBoundaryStatus() override { handleAll(); }

private:
    // An address-family-wide input changed: every known VRF is decided again.
    void handleAll() {
        std::vector<Vrf> vrfs;
        for (const auto& [vrf, status] : notifier()->vrfStatusLocal()) vrfs.push_back(vrf);
        for (const auto& [vrf, sm] : root_.containerSm()) vrfs.push_back(vrf);
        for (const auto& vrf : vrfs) root_.handleVrf(vrf);
    }
    RootSm& root_;
};

void VrfStatusLocalSm::handleNetworkNamespace() {
    root_.handleVrf(vrf_);
}

void NsfVrfStatusSm::handleRouteRecoveryComplete() {
    root_.handleVrf(vrf_);
}

RootSm::RootSm(Platform::StateDb& db, Wirl::AddressFamily family, std::uint32_t maxRoutes,
               std::uint32_t maxRouteIntfs, Cask::EventLoop& loop) {
    pc_ = std::make_unique<ParamsContainer>(
        ParamsContainer{family, db, loop, maxRoutes, maxRouteIntfs});
    handleInitialized();
}

RootSm::~RootSm() {
    // Stop reacting first, then remove in order: the event monitor machine,
    // the pre-initialized VRFs, the kernel interface status of the
    // namespaces, every VRF's container, the forwarding directory writer,
    // and the shared parameters.
    dbWatcher_.reset();
    vrfStatusLocalDelAll();
    nsfVrfStatusDelAll();
    mrouteEventMonConfigSm_.reset();
    preInitSmDelAll();
    for (const auto& [vrf, path] : kernelVrfIntfStatusDir_) db().mountDel(path);
    kernelVrfIntfStatusDirDelAll();
    std::vector<Vrf> running;
    for (const auto& [vrf, sm] : containerSm_) running.push_back(vrf);
    for (const auto& vrf : running) handlePimDisabled(vrf);
    mfibDirWriter_.reset();
    doKniUnmounts(Wirl::NamespaceName("default"));
}

void RootSm::handleInitialized() {
    auto& db = pc_->db;
    doKniInit(Wirl::NamespaceName("default"));
    doNsfInit();
    mfibDirWriter_ = Cask::make<MfibDirWriter>(db, "sparsemode");
    mrouteEventMonConfigSm_ = Cask::make<MrouteEventMonConfigSm>(db, "mroute");
    std::vector<Vrf> vrfs;
    for (const auto& [vrf, status] : db.vrfStatusLocal()) vrfs.push_back(vrf);
    for (const auto& vrf : db.pimEnabledVrf()) vrfs.push_back(vrf);
    for (const auto& vrf : vrfs) handleVrf(vrf);
    dbWatcher_ = std::make_unique<DbWatcher>(db, *this);
    initializedIs(true);
}

void RootSm::doUpdateWatchers(const Vrf& vrf) {
    auto& db = pc_->db;
    auto local = db.vrfStatusLocal(vrf);
    auto* watcher = vrfStatusLocal_.raw(vrf);
    if (!local) {
        vrfStatusLocalDel(vrf);
    } else if (!watcher || watcher->Platform::VrfStatusLocal::Notifiee::notifier() != local.get()) {
        vrfStatusLocalIs(vrf, Cask::make<VrfStatusLocalSm>(local.get(), *this, vrf));
    }
    auto nsf = db.nsfStatus(vrf);
    auto* nsfWatcher = nsfVrfStatus_.raw(vrf);
    if (!nsf) {
        nsfVrfStatusDel(vrf);
    } else if (!nsfWatcher || nsfWatcher->Platform::NsfStatus::Notifiee::notifier() != nsf.get()) {
        nsfVrfStatusIs(vrf, Cask::make<NsfVrfStatusSm>(nsf.get(), *this, vrf));
    }
}

void RootSm::handleVrf(const Vrf& vrf) {
    CASK_VRF_TRACE(6, vrf, "RootSm::handleVrf( {} )", vrf);
    doUpdateWatchers(vrf);
    doMaybeNsfRestart(vrf);
    if (!db().vrfStatusLocalHas(vrf)) {
        handlePimDisabled(vrf);
        preInitSmDel(vrf);
        handleVrfDel(vrf);
        return;
    }
    handleVrfAdd(vrf);
    if (!checkPreInitMounts(vrf)) {
        handlePimDisabled(vrf);
        preInitSmDel(vrf);
        return;
    }
    if (!preInitSmHas(vrf)) preInitSmIs(vrf, Cask::make<PreInitSm>(vrf, *this));
    if (!checkMounts(vrf)) {
        handlePimDisabled(vrf);
        return;
    }
    handlePimEnabled(vrf);
}

bool RootSm::checkPreInitMounts(const Vrf& vrf) {
    if (db().staticRpConfigHas(vrf)) return true;
    CASK_VRF_TRACE(7, vrf, "RootSm::checkPreInitMounts( {} ), vrf missing in Static Rp Config",
                   vrf);
    return false;
}

bool RootSm::checkMounts(const Vrf& vrf) {
    auto& db = pc_->db;
    auto namespaceExists = [&] {
        if (vrf.isDefault()) return true;
        auto local = db.vrfStatusLocal(vrf);
        return local && db.namespace_Has(local->networkNamespace());
    };
    // The tests, in order; the first that fails names the missing input.
    const std::pair<bool, const char*> tests[] = {
        {db.pimEnabledVrfHas(vrf), " ), not Pim enabled"},
        {namespaceExists(), " ), netns doesn't exist"},
        {db.configHas(vrf) && db.clearConfigHas(vrf), " ), missing config or clear config"},
        {db.bsrCrpStatusHas(vrf), " ), missing in bsrCrpStatusColl"},
        {mfibDirWriter_ && mrouteEventMonConfigSm_,
         " ), missing mfibDirWriter or mrouteEventMonConfigSm"},
        {bool(db.mcastBoundaryStatus()), " ), missing mcastBoundaryStatus"},
        {db.discoveredSgHas(vrf), " ), missing in msdpDiscoveredSgColl"},
        {db.vifStatusHas(vrf), " ), missing in vifStatusColl"},
        {db.mribVrfStatusHas(vrf), " ), missing Mrib Status"},
        {db.rpConfigHas(vrf), " ), missing RP config"},
        {db.hwMfibStatusHas(vrf), " ), missing hwMfibStatus"},
    };
    for (const auto& [ok, reason] : tests) {
        if (!ok) {
            CASK_VRF_TRACE(7, vrf, "RootSm::checkMounts( {}{}", vrf, reason);
            return false;
        }
    }
    CASK_VRF_TRACE(7, vrf, "RootSm::checkMounts( {} ), all mounts found", vrf);
    return true;
}

void RootSm::handlePimEnabled(const Vrf& vrf) {
    if (containerSmHas(vrf)) {
        CASK_VRF_TRACE(8, vrf, "RootSm::handlePimEnabled(), Container already exists");
        return;
    }
    auto& db = pc_->db;
    CASK_VRF_TRACE(4, vrf, "RootSm::handlePimEnabled(), creating container");
    if (!vrf.isDefault()) {
        const Wirl::NamespaceName ns = db.vrfStatusLocal(vrf)->networkNamespace();
        namespaceNameIs(vrf, ns);
        doKniInit(ns);
        kernelVrfIntfStatusDirIs(vrf, "kni/ns/" + ns.str() + "/devices/" + vrf.str());
        db.mountIs(kernelVrfIntfStatusDir(vrf));
    }
    auto registerConfig = Cask::make<Platform::RegisterConfig>();
    db.registerConfigIs(vrf, registerConfig);
    containerSmIs(vrf, Cask::make<ContainerSm>(vrf, *pc_, registerConfig, *mfibDirWriter_,
                                               *mrouteEventMonConfigSm_));
    handleFibReady(vrf);
}

void RootSm::handlePimDisabled(const Vrf& vrf) {
    if (!containerSmHas(vrf)) return;
    auto& db = pc_->db;
    CASK_VRF_TRACE(4, vrf, "RootSm::handlePimDisabled(), removing container");
    containerSmDel(vrf);
    if (!vrf.isDefault()) {
        if (kernelVrfIntfStatusDirHas(vrf)) db.mountDel(kernelVrfIntfStatusDir(vrf));
        kernelVrfIntfStatusDirDel(vrf);
        if (namespaceNameHas(vrf)) doKniUnmounts(namespaceName(vrf));
        namespaceNameDel(vrf);
    }
    doUnmounts(vrf);
}

void RootSm::handleVrfAdd(const Vrf& vrf) {
    auto& db = pc_->db;
    if (!db.registerConfigHas(vrf))
        db.registerConfigIs(vrf, Cask::make<Platform::RegisterConfig>());
}

void RootSm::handleVrfDel(const Vrf& vrf) {
    pc_->db.registerConfigDel(vrf);
}

void RootSm::doKniInit(const Wirl::NamespaceName& ns) {
    pc_->db.mountIs("kni/ns/" + ns.str() + "/status");
    pc_->db.mountIs("kni/ns/" + ns.str() + "/devices");
}

void RootSm::doKniUnmounts(const Wirl::NamespaceName& ns) {
    pc_->db.mountDel("kni/ns/" + ns.str() + "/status");
    pc_->db.mountDel("kni/ns/" + ns.str() + "/devices");
}

void RootSm::doUnmounts(const Vrf& vrf) {
    for (const char* table : {"status", "register", "advertisedSg"}) {
        pc_->db.mountDel("tidal/pim/" + vrf.str() + "/sparsemode/" + table);
    }
}

void RootSm::handleFibReady(const Vrf& vrf) {
    auto nsf = db().nsfStatus(vrf);
    if (!containerSmHas(vrf)) {
        CASK_VRF_TRACE(7, vrf, "RootSm::handleFibReady( {} ), Container not started", vrf);
        return;
    }
    if (!nsf || !nsfRestartingVrfHas(vrf)) {
        CASK_VRF_TRACE(7, vrf, "RootSm::handleFibReady( {} ), NSF recovery not running", vrf);
        return;
    }
    CASK_VRF_TRACE(4, vrf, "FibReady for {} is {}", vrf, db().fibReady(vrf));
    // Handing the flag to the VRF's recovered-route machine completes this
    // step; that machine does not exist yet, so recovery waits here.
}

void RootSm::doNsfInit() {
    for (const auto& [vrf, nsf] : db().nsfStatus()) {
        CASK_VRF_TRACE(4, vrf,
                       "NSF restart status on VRF {}, requested: {}, routes: {} PIM enabled: {}",
                       vrf, nsf->restartRequested(), nsf->routes(), nsf->pimEnabled());
        if (nsf->restartRequested()) nsfRestartingVrfIs(vrf);
    }
}

void RootSm::doMaybeNsfRestart(const Vrf& vrf) {
    auto& db = pc_->db;
    CASK_VRF_TRACE(6, vrf, "RootSm::doMaybeNsfRestart( vrfName {}", vrf);
    auto nsf = db.nsfStatus(vrf);
    if (!nsfRestartingVrfHas(vrf)) {
        if (!nsf) return;
        if (nsf->restartRequested()) {
            CASK_VRF_TRACE(7, vrf, "NSF restart not needed for {}", vrf);
        } else {
            CASK_VRF_TRACE(7, vrf, "Normal restart for {}. MfibReady: true", vrf);
        }
        return;
    }
    if (!nsf) {
        CASK_VRF_TRACE(4, vrf, "RootSm::doMaybeNsfRestart( {} ), NSF restart status deleted.", vrf);
        nsfRestartingVrfDel(vrf);
        return;
    }
    if (!nsf->pimEnabled()) {
        CASK_VRF_TRACE(4, vrf,
                       "RootSm::doMaybeNsfRestart( {} ), NSF restart status deleted due to Pim "
                       "disabled",
                       vrf);
        CASK_VRF_TRACE(4, vrf, "PIM disabled for {}. NSF restart disabled.", vrf);
        nsfRestartingVrfDel(vrf);
        return;
    }
    if (nsf->routeRecoveryComplete()) {
        CASK_VRF_TRACE(4, vrf, "RootSm::doMaybeNsfRestart( {} ), NSF restart completed", vrf);
        CASK_VRF_TRACE(4, vrf, "NSF restart completed for {}", vrf);
        nsfRestartingVrfDel(vrf);
        return;
    }
    CASK_VRF_TRACE(4, vrf, "RootSm::doMaybeNsfRestart( {} ), NSF restart initiated", vrf);
    CASK_VRF_TRACE(4, vrf, "NSF restart initiated for {}. MfibReady: {}", vrf, db.fibReady(vrf));
}

Cask::Ptr<RootSm> rootSmFactory(Platform::StateDb& db, Wirl::AddressFamily family,
                                std::uint32_t maxRoutes, std::uint32_t maxRouteIntfs,
                                Cask::EventLoop& loop) {
    return Cask::make<RootSm>(db, family, maxRoutes, maxRouteIntfs, loop);
}

}  // namespace Routing::Pim::SparseMode
