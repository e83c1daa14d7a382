#include "pimsm/agent/container_sm.h"

#include "cask/trace.h"

namespace Routing::Pim::SparseMode {

// Keeps the VRF's unicast routing status in step with the tables the
// unicast routing side publishes for it.
class ContainerSm::MribWatcher : public Platform::MribVrfStatus::Notifiee {
public:
    MribWatcher(Platform::MribVrfStatus* mrib, UnicastRoutingStatus& out)
        : Platform::MribVrfStatus::Notifiee(mrib), out_(out) {
        handleUrib();
        handleMrib();
    }
    void handleUrib() override {
        if (out_.family() == Wirl::AddressFamily::ipv4) {
            out_.uribShadowStatusIs(notifier()->urib());
        } else {
            out_.urib6ShadowStatusIs(notifier()->urib());
        }
    }
    void handleMrib() override {
        if (out_.family() == Wirl::AddressFamily::ipv4) {
            out_.mribStatusIs(notifier()->mrib());
        } else {
            out_.mrib6StatusIs(notifier()->mrib());
        }
    }

private:
    UnicastRoutingStatus& out_;
};

ContainerSm::ContainerSm(const L3::VrfName& vrf, const ParamsContainer& pc,
                         Cask::Ptr<Platform::RegisterConfig> registerConfig,
                         MfibDirWriter& mfibDirWriter,
                         MrouteEventMonConfigSm& mrouteEventMonConfigSm)
    : vrf_(vrf),
      pc_(pc),
      registerConfig_(std::move(registerConfig)),
      mfibDirWriter_(mfibDirWriter),
      mrouteEventMonConfigSm_(mrouteEventMonConfigSm) {
    handleInitialized();
}

ContainerSm::~ContainerSm() {
    // Members go in the reverse of the order they were made: machines
    // before the records they watch.
    mfibDirWriter_.tableUnmount(vrf_);
}

std::string ContainerSm::tidalPath(const char* table) const {
    return "tidal/pim/" + vrf_.str() + "/sparsemode/" + table;
}

// The one place that says what a VRF is made of, in the order it is made.
void ContainerSm::handleInitialized() {
    CASK_VRF_TRACE(6, vrf_, "ContainerSm::handleInitialized()");
    auto& db = pc_.db;

    // The VRF's route status, linked to its PIM interface status; the
    // shared-memory route table it publishes; the forwarding table.
    pimStatus_ = db.pimStatus(vrf_);
    if (!pimStatus_) {
        // No PIM interface was published for the VRF yet: start from an
        // empty status that the PIM neighbour side fills in.
        pimStatus_ = Cask::make<Routing::Pim::Status>();
        db.pimStatusIs(vrf_, pimStatus_);
    }
    status_ = Cask::make<Status>(pc_.loop.clock(), RouteContext{pimStatus_.get(), nullptr});
    status_->contextLimitsIs(pc_.maxRoutes, pc_.maxRouteIntfs);
    tidalStatus_ = Cask::make<Tidal::Status>();
    db.mountIs(tidalPath("status"));
    mfibDirWriter_.tableMount(vrf_);
    mfibTidal_ = db.mfibTable(vrf_);
    if (!mfibTidal_) {
        mfibTidal_ = Cask::make<::Tidal::Multicast::Fib::Status>();
        db.mfibTableIs(vrf_, mfibTidal_);
    }
    mfibTidal_->routeCapacityIs(pc_.maxRoutes);

    // RPF inputs; the VRF's group and fast-failover filters.
    rpfConfig_ = Cask::make<Routing::Pim::RpfConfig>();
    rpfStatus_ = Cask::make<Routing::Pim::RpfStatus>();
    rpfResolver_ = std::make_unique<Routing::Pim::RpfResolver>(rpfConfig_, rpfStatus_);
    unicastRoutingStatus_ = unicastRoutingStatusFactory(pc_.family);
    mribWatcher_ =
        std::make_unique<MribWatcher>(db.mribVrfStatus(vrf_).get(), *unicastRoutingStatus_);
    rpfTableSm_ = std::make_unique<RpfTableSm>(unicastRoutingStatus_, *rpfResolver_);
    groupFilterStatus_ = db.groupFilterStatus(vrf_);
    if (!groupFilterStatus_) {
        groupFilterStatus_ = Cask::make<Routing::Pim::GroupFilterStatus>(pc_.family);
        db.groupFilterStatusIs(vrf_, groupFilterStatus_);
    }
    frrFilterStatus_ = db.frrFilterStatus(vrf_);
    if (!frrFilterStatus_) {
        frrFilterStatus_ = Cask::make<FrrFilterStatus>(pc_.family);
        db.frrFilterStatusIs(vrf_, frrFilterStatus_);
    }

    // LocalStatus, linked to the route status and the two filters.
    localStatus_ = localStatusFactory(pc_.family);
    status_->contextLocalStatusIs(localStatus_.get());
    localStatus_->groupFilterStatusIs(groupFilterStatus_);
    localStatus_->frrFilterStatusIs(frrFilterStatus_);

    // The outgoing Join/Prune contents per upstream neighbour, with the
    // neighbour side that keeps one entry per PIM neighbour.
    joinPruneStatus_ = Cask::make<Routing::Pim::JoinPruneStatus>();
    joinPruneNeighborSm_ = Routing::Pim::joinPruneNeighborSmFactory(pimStatus_, joinPruneStatus_);

    // What the assert machines want sent, per interface.
    assertStatus_ = Cask::make<Routing::Pim::AssertStatus>();

    // Received Join/Prune messages; received Asserts; the Asserts to send.
    rxJoinPrune_ = Cask::make<Routing::Pim::JoinPruneRxStatus>();
    rxAssertMessageInfo_ = Cask::make<Routing::Pim::AssertMessageInfo>();
    txMessageInfo_ = Cask::make<Routing::Pim::IO::MessageInfo>();

    // Which groups switch to the source tree, filled by SptThresholdSm.
    sptThresholdInfo_ = Cask::make<SptThresholdInfo>(pc_.family, vrf_);

    // RP mapping: this router's RP addresses; RPF lookups for the RP.
    rpLocalStatus_ = db.rpLocalStatus(vrf_);
    if (!rpLocalStatus_) {
        rpLocalStatus_ = Cask::make<Routing::Pim::RpLocalStatus>();
        db.rpLocalStatusIs(vrf_, rpLocalStatus_);
    }
    pimRpfTable_ = std::make_unique<PimRpfTable>(unicastRoutingStatus_.get());

    // Message counters.
    pimCounters_ = Cask::make<Routing::Pim::Tidal::MessageCounters>();

    // The membership table the membership protocol writes for the VRF.
    gmpTidalStatus_ = db.membershipTable(vrf_);
    if (!gmpTidalStatus_) {
        gmpTidalStatus_ = Cask::make<Routing::Gmp::Tidal::Status>();
        db.membershipTableIs(vrf_, gmpTidalStatus_);
    }

    // What the forwarding side publishes for the VRF: its configuration
    // (requests to rewrite every entry), the interfaces it runs upstream
    // fast failover on, and the interfaces carrying multicast over VXLAN.
    mfibConfig_ = db.mfibConfig(vrf_);
    if (!mfibConfig_) {
        mfibConfig_ = Cask::make<Routing::Multicast::Fib::Config>();
        db.mfibConfigIs(vrf_, mfibConfig_);
    }
    failoverIntfs_ = db.fastFailoverIntfs(vrf_);
    if (!failoverIntfs_) {
        failoverIntfs_ = Cask::make<Routing::Multicast::Fib::SparseModeStatus>();
        db.fastFailoverIntfsIs(vrf_, failoverIntfs_);
    }
    mcastVxlanStatus_ = db.mcastVxlanStatus(vrf_);
    if (!mcastVxlanStatus_) {
        mcastVxlanStatus_ = Cask::make<Routing::Multicast::VxlanStatus>();
        db.mcastVxlanStatusIs(vrf_, mcastVxlanStatus_);
    }

    // Register and advertised-source status; the SSM range in force.
    db.mountIs(tidalPath("register"));
    db.mountIs(tidalPath("advertisedSg"));
    registerStatus_ = db.registerStatus(vrf_);
    if (!registerStatus_) {
        registerStatus_ = Cask::make<RegisterStatus>();
        db.registerStatusIs(vrf_, registerStatus_);
    }
    // What the forwarding plane reports about data packets.
    mrtUpcall_ = db.mrtUpcall(vrf_);
    if (!mrtUpcall_) {
        mrtUpcall_ = Cask::make<Routing::Pim::MrtUpcallStatus>();
        db.mrtUpcallIs(vrf_, mrtUpcall_);
    }
    ssmGroupInfo_ = Cask::make<SsmGroupInfo>(pc_.family);
    localStatus_->ssmGroupInfoIs(ssmGroupInfo_);

    // Every record is made: the context the machines share.
    ctx_.vrfName = vrf_;
    ctx_.family = pc_.family;
    ctx_.loop = &pc_.loop;
    ctx_.routeCapacity = pc_.maxRoutes;
    ctx_.routeReactors = std::make_shared<RouteReactorDirectory>();
    config_ = db.config(vrf_);
    clearConfig_ = db.clearConfig(vrf_);
    ssmConvertConfig_ = db.ssmConvertConfig(vrf_);
    rpMapping_ = db.staticRpStatus(vrf_);
    aclConfig_ = db.aclConfig();
    if (!aclConfig_) {
        // No access list is configured for the family yet.
        aclConfig_ = Cask::make<Acl::AclConfig>();
        db.aclConfigIs(aclConfig_);
    }
    mcastBoundaryStatus_ = db.mcastBoundaryStatus();
    hwMfibStatus_ = db.hwMfibStatus(vrf_);
    ctx_.config = config_.get();
    ctx_.clearConfig = clearConfig_.get();
    ctx_.mfibConfig = mfibConfig_.get();
    ctx_.ssmConvertConfig = ssmConvertConfig_.get();
    ctx_.rpMapping = rpMapping_.get();
    ctx_.aclConfig = aclConfig_.get();
    ctx_.status = status_.get();
    ctx_.localStatus = localStatus_.get();
    ctx_.ssmGroupInfo = ssmGroupInfo_.get();
    ctx_.groupFilterStatus = groupFilterStatus_.get();
    ctx_.frrFilterStatus = frrFilterStatus_.get();
    ctx_.sptThresholdInfo = sptThresholdInfo_.get();
    ctx_.sptThreshold = [this](const Wirl::IpGenAddr& group) {
        return sptThresholdInfo_->sptThreshold(group, *config_);
    };
    ctx_.pimStatus = pimStatus_.get();
    ctx_.rpfConfig = rpfConfig_.get();
    ctx_.rpfStatus = rpfStatus_.get();
    ctx_.rpfTable = pimRpfTable_.get();
    ctx_.rpLocalStatus = rpLocalStatus_.get();
    ctx_.mcastBoundaryStatus = mcastBoundaryStatus_.get();
    ctx_.failoverIntfs = failoverIntfs_.get();
    ctx_.mcastVxlanStatus = mcastVxlanStatus_.get();
    ctx_.membership = gmpTidalStatus_.get();
    ctx_.joinPruneStatus = joinPruneStatus_.get();
    ctx_.joinPruneRxStatus = rxJoinPrune_.get();
    ctx_.assertStatus = assertStatus_.get();
    ctx_.rxAssertMessageInfo = rxAssertMessageInfo_.get();
    ctx_.txMessageInfo = txMessageInfo_.get();
    ctx_.mfibTidal = mfibTidal_.get();
    ctx_.hwMfibStatus = hwMfibStatus_.get();
    ctx_.registerConfig = registerConfig_.get();
    ctx_.registerStatus = registerStatus_.get();
    ctx_.mrtUpcall = mrtUpcall_.get();
    ctx_.pimCounters = pimCounters_.get();
    ctx_.routeCounts = tidalStatus_.get();

    // Route counts; the route review, which makes one route reactor per
    // route.
    routeCountSm_ = routeCountSmFactory(ctx_);
    routeReviewSm_ = routeReviewSmFactory(ctx_);
    routeReviewSm_->pimCountersIs(pimCounters_);

    // The switchover policy per group, before the machines that read it.
    sptThresholdSm_ = sptThresholdSmFactory(ctx_);

    // (S,G) routes from data: cache misses, SPT bit, keepalive, register.
    sgRouteSm_ = sgRouteSmFactory(ctx_);

    // Upstream (S,G): joins toward the sources.
    upstreamSgSm_ = upstreamSgSmFactory(ctx_);
    // Upstream (S,G,rpt): sources pruned off, or kept on, the shared tree.
    upstreamSgRptSm_ = upstreamSgRptSmFactory(ctx_);
    // Upstream (*,G): joins toward the RP.
    upstreamWcSm_ = upstreamWcSmFactory(ctx_);
    // RP mapping changes reach the (*,G) routes through a sliced review.
    wcRouteReviewSm_ = std::make_unique<WcRouteReviewSm>(ctx_, *upstreamWcSm_);
    // Data upcalls that concern the assert machines.
    mrtMessageInfo_ = Cask::make<Routing::Pim::MrtMessageInfo>();
    ctx_.mrtMessageInfo = mrtMessageInfo_.get();

    // Assert plumbing: received Asserts, per-interface sending, data upcalls.
    assertMessageSm_ = assertMessageSmFactory(ctx_);
    assertMrtSm_ = assertMrtSmFactory(ctx_);
    // Downstream (*,G) and (S,G) join state from received Join/Prune entries.
    downstreamWcSgSm_ = downstreamWcSgSmFactory(ctx_);

    // Downstream (S,G,rpt) prunes from received Join/Prune messages.
    downstreamSgRptSm_ = downstreamSgRptSmFactory(ctx_);

    // Local receivers from the membership table.
    gmpSm_ = gmpSmFactory(ctx_);

    // Assert state of (S,G) and (*,G) routes per interface.
    assertSgSm_ = assertSgSmFactory(ctx_);
    assertWcSm_ = assertWcSmFactory(ctx_);

    // Forwarding entries.
    mfibSm_ = mfibSmFactory(ctx_);

    // (*,G) programming support of the hardware.
    agentStatus_ = Cask::make<AgentStatus>();
    pimsmWcSm_ = pimsmWcSmFactory(pc_.family, db.hwMfibStatus(vrf_), agentStatus_);

    // Ready. Routes of an earlier run are not read back from the shared
    // route table (that machine does not exist yet), so the route status is
    // complete now, which lets the route review start.
    status_->initializedIs(true);
    initializedIs(true);
}

}  // namespace Routing::Pim::SparseMode
