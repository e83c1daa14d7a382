#pragma once
// ContainerSm: everything that runs in one VRF in which PIM sparse mode is
// enabled. It owns the VRF's status records and every protocol machine of
// the VRF, creates them in one fixed order when it starts
// (`handleInitialized`; later machines may rely on every earlier one), and
// destroys them all with itself.

#include <memory>

#include "cask/collection.h"
#include "pimsm/agent/params_container.h"
#include "pimsm/assert/assert_message_sm.h"
#include "pimsm/assert/assert_mrt_sm.h"
#include "pimsm/assert/assert_sg_sm.h"
#include "pimsm/assert/assert_wc_sm.h"
#include "pimsm/common/vrf_context.h"
#include "pimsm/downstream/downstream_sg_rpt_sm.h"
#include "pimsm/downstream/downstream_wc_sg_sm.h"
#include "pimsm/forwarding/mfib_sm.h"
#include "pimsm/forwarding/sg_route_sm.h"
#include "pimsm/forwarding/spt_threshold_sm.h"
#include "pimsm/membership/gmp_sm.h"
#include "pimsm/route/local_status.h"
#include "pimsm/route/route_count_sm.h"
#include "pimsm/route/route_review_sm.h"
#include "pimsm/route/route_sm.h"
#include "pimsm/route/status.h"
#include "pimsm/route/unicast_routing_status.h"
#include "pimsm/upstream/agent_status.h"
#include "pimsm/upstream/pimsm_wc_sm.h"
#include "pimsm/upstream/rpf_table.h"
#include "pimsm/upstream/upstream_sg_rpt_sm.h"
#include "pimsm/upstream/upstream_sg_sm.h"
#include "pimsm/upstream/upstream_wc_sm.h"
#include "pimsm/upstream/wc_route_review_sm.h"
#include "platform/assert_status.h"
#include "platform/group_ranges.h"
#include "platform/join_prune.h"
#include "platform/join_prune_neighbor_sm.h"
#include "platform/message_counters.h"
#include "platform/route_counters.h"
#include "platform/rpf_resolver.h"
#include "platform/rpf_status.h"
#include "platform/state_db.h"

namespace Routing::Pim::SparseMode {

class ContainerSm : public Cask::Record<ContainerSm> {
public:
    class Notifiee : public Cask::NotifieeOf<ContainerSm> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleInitialized() {}
    };

    ContainerSm(const L3::VrfName& vrf, const ParamsContainer& pc,
                Cask::Ptr<Platform::RegisterConfig> registerConfig, MfibDirWriter& mfibDirWriter,
                MrouteEventMonConfigSm& mrouteEventMonConfigSm);
    ~ContainerSm();

    const L3::VrfName& vrfName() const { return vrf_; }
    Wirl::AddressFamily family() const { return pc_.family; }
    Platform::StateDb& db() const { return pc_.db; }

    // The VRF's records, in the order they are made.
    Status* status() const { return status_.get(); }
    Routing::Pim::Status* pimStatus() const { return pimStatus_.get(); }
    Tidal::Status* tidalStatus() const { return tidalStatus_.get(); }
    Routing::Pim::RpfConfig* rpfConfig() const { return rpfConfig_.get(); }
    Routing::Pim::RpfStatus* rpfStatus() const { return rpfStatus_.get(); }
    UnicastRoutingStatus* unicastRoutingStatus() const { return unicastRoutingStatus_.get(); }
    Routing::Pim::GroupFilterStatus* groupFilterStatus() const { return groupFilterStatus_.get(); }
    Routing::Multicast::Fib::Config* mfibConfig() const { return mfibConfig_.get(); }
    Routing::Multicast::Fib::SparseModeStatus* failoverIntfs() const {
        return failoverIntfs_.get();
    }
    Routing::Multicast::VxlanStatus* mcastVxlanStatus() const { return mcastVxlanStatus_.get(); }
    FrrFilterStatus* frrFilterStatus() const { return frrFilterStatus_.get(); }
    LocalStatus* localStatus() const { return localStatus_.get(); }
    Routing::Gmp::Tidal::Status* gmpTidalStatus() const { return gmpTidalStatus_.get(); }
    SsmGroupInfo* ssmGroupInfo() const { return ssmGroupInfo_.get(); }
    Routing::Pim::Tidal::MessageCounters* pimCounters() const { return pimCounters_.get(); }
    RouteCountSm* routeCountSm() const { return routeCountSm_.get(); }
    RouteReviewSm* routeReviewSm() const { return routeReviewSm_.get(); }
    SptThresholdInfo* sptThresholdInfo() const { return sptThresholdInfo_.get(); }
    SptThresholdSm* sptThresholdSm() const { return sptThresholdSm_.get(); }
    DownstreamSgRptSm* downstreamSgRptSm() const { return downstreamSgRptSm_.get(); }
    GmpSm* gmpSm() const { return gmpSm_.get(); }
    AssertSgSm* assertSgSm() const { return assertSgSm_.get(); }
    AssertWcSm* assertWcSm() const { return assertWcSm_.get(); }
    ::Tidal::Multicast::Fib::Status* mfibTidal() const { return mfibTidal_.get(); }
    Routing::Pim::JoinPruneStatus* joinPruneStatus() const { return joinPruneStatus_.get(); }
    Routing::Pim::JoinPruneRxStatus* rxJoinPrune() const { return rxJoinPrune_.get(); }
    Routing::Pim::AssertStatus* assertStatus() const { return assertStatus_.get(); }
    Routing::Pim::AssertMessageInfo* rxAssertMessageInfo() const {
        return rxAssertMessageInfo_.get();
    }
    Routing::Pim::IO::MessageInfo* txMessageInfo() const { return txMessageInfo_.get(); }
    Routing::Pim::MrtMessageInfo* mrtMessageInfo() const { return mrtMessageInfo_.get(); }
    AssertMessageSm* assertMessageSm() const { return assertMessageSm_.get(); }
    UpstreamSgSm* upstreamSgSm() const { return upstreamSgSm_.get(); }
    UpstreamSgRptSm* upstreamSgRptSm() const { return upstreamSgRptSm_.get(); }
    UpstreamWcSm* upstreamWcSm() const { return upstreamWcSm_.get(); }
    WcRouteReviewSm* wcRouteReviewSm() const { return wcRouteReviewSm_.get(); }
    DownstreamWcSgSm* downstreamWcSgSm() const { return downstreamWcSgSm_.get(); }
    MfibSm* mfibSm() const { return mfibSm_.get(); }
    SgRouteSm* sgRouteSm() const { return sgRouteSm_.get(); }
    Platform::RegisterConfig* registerConfig() const { return registerConfig_.get(); }
    RegisterStatus* registerStatus() const { return registerStatus_.get(); }
    Routing::Pim::MrtUpcallStatus* mrtUpcall() const { return mrtUpcall_.get(); }
    AgentStatus* agentStatus() const { return agentStatus_.get(); }

    CASK_ATTR(bool, initialized, Initialized)

    // What the VRF's machines read and write; complete once initialized.
    const VrfContext& context() const { return ctx_; }

    // Paths of the shared-memory tables the VRF publishes.
    std::string tidalPath(const char* table) const;

private:
    class MribWatcher;
    void handleInitialized();

    L3::VrfName vrf_;
    const ParamsContainer& pc_;
    Cask::Ptr<Platform::RegisterConfig> registerConfig_;
    MfibDirWriter& mfibDirWriter_;
    MrouteEventMonConfigSm& mrouteEventMonConfigSm_;
    bool initialized_ = false;
    VrfContext ctx_;
    // Records of the state database the context points to, held for the
    // container's life.
    Cask::Ptr<Config> config_;
    Cask::Ptr<Routing::Pim::ClearMrouteConfig> clearConfig_;
    Cask::Ptr<Platform::RpMapping> rpMapping_;
    Cask::Ptr<Acl::AclConfig> aclConfig_;
    Cask::Ptr<Routing::McastBoundary::Status> mcastBoundaryStatus_;
    Cask::Ptr<Platform::HwMfibStatus> hwMfibStatus_;

    // Records, then machines, in the order they are made; members are
    // destroyed in reverse, machines first.
    Cask::Ptr<Routing::Pim::Status> pimStatus_;
    Cask::Ptr<Status> status_;
    Cask::Ptr<Tidal::Status> tidalStatus_;
    Cask::Ptr<::Tidal::Multicast::Fib::Status> mfibTidal_;
    Cask::Ptr<Routing::Pim::RpfConfig> rpfConfig_;
    Cask::Ptr<Routing::Pim::RpfStatus> rpfStatus_;
    std::unique_ptr<Routing::Pim::RpfResolver> rpfResolver_;
    Cask::Ptr<UnicastRoutingStatus> unicastRoutingStatus_;
    std::unique_ptr<MribWatcher> mribWatcher_;
    std::unique_ptr<RpfTableSm> rpfTableSm_;
    Cask::Ptr<Routing::Pim::GroupFilterStatus> groupFilterStatus_;
    Cask::Ptr<FrrFilterStatus> frrFilterStatus_;
    Cask::Ptr<LocalStatus> localStatus_;
    Cask::Ptr<Routing::Gmp::Tidal::Status> gmpTidalStatus_;
    Cask::Ptr<Routing::Pim::JoinPruneStatus> joinPruneStatus_;
    std::unique_ptr<Routing::Pim::JoinPruneNeighborSm> joinPruneNeighborSm_;
    Cask::Ptr<Routing::Pim::AssertStatus> assertStatus_;
    Cask::Ptr<Routing::Pim::JoinPruneRxStatus> rxJoinPrune_;
    Cask::Ptr<Routing::Pim::AssertMessageInfo> rxAssertMessageInfo_;
    Cask::Ptr<Routing::Pim::IO::MessageInfo> txMessageInfo_;
    Cask::Ptr<SptThresholdInfo> sptThresholdInfo_;
    Cask::Ptr<Routing::Pim::RpLocalStatus> rpLocalStatus_;
    Cask::Ptr<Routing::Multicast::Fib::Config> mfibConfig_;
    Cask::Ptr<Routing::Multicast::Fib::SparseModeStatus> failoverIntfs_;
    Cask::Ptr<Routing::Multicast::VxlanStatus> mcastVxlanStatus_;
    std::unique_ptr<PimRpfTable> pimRpfTable_;
    Cask::Ptr<Routing::Pim::Tidal::MessageCounters> pimCounters_;
    Cask::Ptr<SsmGroupInfo> ssmGroupInfo_;
    Cask::Ptr<RegisterStatus> registerStatus_;
    Cask::Ptr<Routing::Pim::MrtUpcallStatus> mrtUpcall_;
    std::unique_ptr<RouteCountSm> routeCountSm_;
    std::unique_ptr<RouteReviewSm> routeReviewSm_;
    std::unique_ptr<SgRouteSm> sgRouteSm_;
    std::unique_ptr<SptThresholdSm> sptThresholdSm_;
    Cask::Ptr<SsmConvertConfig> ssmConvertConfig_;
    Cask::Ptr<UpstreamSgSm> upstreamSgSm_;
    Cask::Ptr<UpstreamSgRptSm> upstreamSgRptSm_;
    Cask::Ptr<UpstreamWcSm> upstreamWcSm_;
    std::unique_ptr<WcRouteReviewSm> wcRouteReviewSm_;
    Cask::Ptr<Routing::Pim::MrtMessageInfo> mrtMessageInfo_;
    std::unique_ptr<AssertMessageSm> assertMessageSm_;
    std::unique_ptr<AssertMrtSm> assertMrtSm_;
    Cask::Ptr<DownstreamWcSgSm> downstreamWcSgSm_;
    Cask::Ptr<DownstreamSgRptSm> downstreamSgRptSm_;
    Cask::Ptr<GmpSm> gmpSm_;
    Cask::Ptr<AssertSgSm> assertSgSm_;
    Cask::Ptr<AssertWcSm> assertWcSm_;
    std::unique_ptr<MfibSm> mfibSm_;
    Cask::Ptr<AgentStatus> agentStatus_;
    std::unique_ptr<PimsmWcSm> pimsmWcSm_;
};

}  // namespace Routing::Pim::SparseMode
