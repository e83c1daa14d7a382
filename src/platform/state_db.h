#pragma once
// StateDb: the in-process stand-in for the operating system's state
// database and shared-memory tables, for one address family. Other parts of
// the system (VRF manager, configuration, PIM neighbour side, unicast
// routing, kernel, hardware, restart manager) publish here; the agent's
// root machine watches it and the VRF's machines read and write the records
// in it. Tests and the scenario driver play the other parts by writing it.
//
// Every VRF-indexed input is one collection of this record, so one watcher
// sees a change to any of them with the VRF it concerns. The agent's
// "mounts" (namespace status, shared-memory tables) are recorded by path in
// `mount`, so what the agent mounted and unmounted can be seen.

#include <string>

#include "cask/collection.h"
#include "platform/access_list.h"
#include "platform/group_ranges.h"
#include "platform/mcast_boundary.h"
#include "platform/membership.h"
#include "platform/mfib_records.h"
#include "platform/mfib_table.h"
#include "platform/mroute_clear.h"
#include "platform/mrt_upcall.h"
#include "platform/pim_status.h"
#include "platform/register_status.h"
#include "platform/rp_local.h"
#include "platform/vrf_records.h"
#include "platform/vxlan_status.h"
#include "wirl/address_family.h"
#include "wirl/namespace_name.h"
#include "wirl/vrf_name.h"

namespace Platform {

class StateDb : public Cask::Record<StateDb> {
public:
    using Vrf = L3::VrfName;
    class Notifiee : public Cask::NotifieeOf<StateDb> {
    public:
        using NotifieeOf::NotifieeOf;
        // Inputs, per VRF.
        virtual void handleVrfStatusLocal(const Vrf&) {}
        virtual void handlePimEnabledVrf(const Vrf&) {}
        virtual void handleConfig(const Vrf&) {}
        virtual void handleClearConfig(const Vrf&) {}
        virtual void handlePimStatus(const Vrf&) {}
        virtual void handleBsrCrpStatus(const Vrf&) {}
        virtual void handleDiscoveredSg(const Vrf&) {}
        virtual void handleVifStatus(const Vrf&) {}
        virtual void handleMribVrfStatus(const Vrf&) {}
        virtual void handleStaticRpConfig(const Vrf&) {}
        virtual void handleRpConfig(const Vrf&) {}
        virtual void handleHwMfibStatus(const Vrf&) {}
        virtual void handleNsfStatus(const Vrf&) {}
        virtual void handleFibReady(const Vrf&) {}
        virtual void handleMembershipTable(const Vrf&) {}
        virtual void handleSsmConvertConfig(const Vrf&) {}
        virtual void handleRpLocalStatus(const Vrf&) {}
        virtual void handleMfibConfig(const Vrf&) {}
        virtual void handleFastFailoverIntfs(const Vrf&) {}
        virtual void handleMcastVxlanStatus(const Vrf&) {}
        virtual void handleGroupFilterStatus(const Vrf&) {}
        virtual void handleFrrFilterStatus(const Vrf&) {}
        virtual void handleRegisterStatus(const Vrf&) {}
        virtual void handleMrtUpcall(const Vrf&) {}
        // Inputs for the whole address family.
        virtual void handleMcastBoundaryStatus() {}
        virtual void handleAclConfig() {}
        virtual void handleNamespace(const Wirl::NamespaceName&) {}
        virtual void handleStandby() {}
        virtual void handleOption(const std::string&) {}
        // Written by the agent.
        virtual void handleStaticRpStatus(const Vrf&) {}
        virtual void handleRegisterConfig(const Vrf&) {}
        virtual void handleMfibTable(const Vrf&) {}
        virtual void handleMount(const std::string&) {}
    };

    explicit StateDb(Wirl::AddressFamily family) : family_(family) {}
    Wirl::AddressFamily family() const { return family_; }

    // --- per-VRF inputs ----------------------------------------------------
    // The VRFs that exist, with their namespace.
    CASK_RECORD_MAP(vrfStatusLocal, VrfStatusLocal, Vrf, VrfStatusLocal, "Platform::StateDb")
    // VRFs in which PIM sparse mode is enabled (the global PIM status).
    CASK_KEY_SET(pimEnabledVrf, PimEnabledVrf, Vrf)
    CASK_RECORD_MAP(config, Config, Vrf, Routing::Pim::SparseMode::Config, "Platform::StateDb")
    CASK_RECORD_MAP(clearConfig, ClearConfig, Vrf, Routing::Pim::ClearMrouteConfig,
                    "Platform::StateDb")
    CASK_RECORD_MAP(pimStatus, PimStatus, Vrf, Routing::Pim::Status, "Platform::StateDb")
    CASK_RECORD_MAP(bsrCrpStatus, BsrCrpStatus, Vrf, BsrCrpStatus, "Platform::StateDb")
    CASK_RECORD_MAP(discoveredSg, DiscoveredSg, Vrf, DiscoveredSgStatus, "Platform::StateDb")
    CASK_RECORD_MAP(vifStatus, VifStatus, Vrf, VifStatus, "Platform::StateDb")
    CASK_RECORD_MAP(mribVrfStatus, MribVrfStatus, Vrf, MribVrfStatus, "Platform::StateDb")
    CASK_RECORD_MAP(staticRpConfig, StaticRpConfig, Vrf, RpMapping, "Platform::StateDb")
    CASK_RECORD_MAP(rpConfig, RpConfig, Vrf, RpMapping, "Platform::StateDb")
    CASK_RECORD_MAP(hwMfibStatus, HwMfibStatus, Vrf, HwMfibStatus, "Platform::StateDb")
    CASK_RECORD_MAP(nsfStatus, NsfStatus, Vrf, NsfStatus, "Platform::StateDb")
    // The forwarding plane is ready for the VRF (after a restart).
    CASK_VALUE_MAP(fibReady, FibReady, Vrf, bool)
    // Shared-memory membership table of each VRF (written by IGMP / MLD).
    CASK_RECORD_MAP(membershipTable, MembershipTable, Vrf, Routing::Gmp::Tidal::Status,
                    "Platform::StateDb")
    // Groups whose (*,G) memberships stand for (S,G) memberships (optional).
    CASK_RECORD_MAP(ssmConvertConfig, SsmConvertConfig, Vrf,
                    Routing::Pim::SparseMode::SsmConvertConfig, "Platform::StateDb")

    // This router's own addresses that are RP addresses.
    CASK_RECORD_MAP(rpLocalStatus, RpLocalStatus, Vrf, Routing::Pim::RpLocalStatus,
                    "Platform::StateDb")

    // The forwarding side's configuration (requests to rewrite every
    // forwarding entry) and the interfaces it runs upstream fast failover on.
    CASK_RECORD_MAP(mfibConfig, MfibConfig, Vrf, Routing::Multicast::Fib::Config,
                    "Platform::StateDb")
    CASK_RECORD_MAP(fastFailoverIntfs, FastFailoverIntfs, Vrf,
                    Routing::Multicast::Fib::SparseModeStatus, "Platform::StateDb")
    // Interfaces that carry multicast over VXLAN (written by the VXLAN side).
    CASK_RECORD_MAP(mcastVxlanStatus, McastVxlanStatus, Vrf, Routing::Multicast::VxlanStatus,
                    "Platform::StateDb")
    // Groups run in bidirectional mode, which sparse mode leaves alone, and
    // groups whose routes keep a fast-failover backup upstream.
    CASK_RECORD_MAP(groupFilterStatus, GroupFilterStatus, Vrf, Routing::Pim::GroupFilterStatus,
                    "Platform::StateDb")
    CASK_RECORD_MAP(frrFilterStatus, FrrFilterStatus, Vrf,
                    Routing::Pim::SparseMode::FrrFilterStatus, "Platform::StateDb")

    // The register process's wishes per (S,G) route, and what the
    // forwarding plane reports about data packets.
    CASK_RECORD_MAP(registerStatus, RegisterStatus, Vrf, Routing::Pim::SparseMode::RegisterStatus,
                    "Platform::StateDb")
    CASK_RECORD_MAP(mrtUpcall, MrtUpcall, Vrf, Routing::Pim::MrtUpcallStatus, "Platform::StateDb")

    // --- address-family-wide inputs -----------------------------------------
    CASK_ATTR(Cask::Ptr<Routing::McastBoundary::Status>, mcastBoundaryStatus, McastBoundaryStatus)
    // The family's access lists (read by the VRFs' switchover thresholds).
    CASK_ATTR(Cask::Ptr<Acl::AclConfig>, aclConfig, AclConfig)
    // Kernel network namespaces that exist.
    CASK_KEY_SET(namespace_, Namespace, Wirl::NamespaceName)
    // The supervisor this agent runs on is the standby one.
    CASK_ATTR(bool, standby, Standby)
    // Agent options ("maxRoutes", "maxRouteIntfs"), as text.
    CASK_VALUE_MAP(option, Option, std::string, std::string)

    // --- written by the agent ----------------------------------------------
    // The RP mapping in force, per VRF (from the static RP configuration).
    CASK_RECORD_MAP(staticRpStatus, StaticRpStatus, Vrf, RpMapping, "Platform::StateDb")
    CASK_RECORD_MAP(registerConfig, RegisterConfig, Vrf, RegisterConfig, "Platform::StateDb")
    // The shared-memory forwarding table of each VRF; it outlives the
    // agent's containers, so a restarted agent finds its records again.
    CASK_RECORD_MAP(mfibTable, MfibTable, Vrf, Tidal::Multicast::Fib::Status, "Platform::StateDb")
    // Paths the agent has mounted (namespace status, shared-memory tables).
    CASK_KEY_SET(mount, Mount, std::string)

private:
    Wirl::AddressFamily family_;
    Cask::RecordMap<Vrf, VrfStatusLocal> vrfStatusLocal_;
    Cask::KeySet<Vrf> pimEnabledVrf_;
    Cask::RecordMap<Vrf, Routing::Pim::SparseMode::Config> config_;
    Cask::RecordMap<Vrf, Routing::Pim::ClearMrouteConfig> clearConfig_;
    Cask::RecordMap<Vrf, Routing::Pim::Status> pimStatus_;
    Cask::RecordMap<Vrf, BsrCrpStatus> bsrCrpStatus_;
    Cask::RecordMap<Vrf, DiscoveredSgStatus> discoveredSg_;
    Cask::RecordMap<Vrf, VifStatus> vifStatus_;
    Cask::RecordMap<Vrf, MribVrfStatus> mribVrfStatus_;
    Cask::RecordMap<Vrf, RpMapping> staticRpConfig_;
    Cask::RecordMap<Vrf, RpMapping> rpConfig_;
    Cask::RecordMap<Vrf, HwMfibStatus> hwMfibStatus_;
    Cask::RecordMap<Vrf, NsfStatus> nsfStatus_;
    Cask::ValueMap<Vrf, bool> fibReady_;
    Cask::RecordMap<Vrf, Routing::Gmp::Tidal::Status> membershipTable_;
    Cask::RecordMap<Vrf, Routing::Pim::SparseMode::SsmConvertConfig> ssmConvertConfig_;
    Cask::Ptr<Routing::McastBoundary::Status> mcastBoundaryStatus_;
    Cask::Ptr<Acl::AclConfig> aclConfig_;
    Cask::KeySet<Wirl::NamespaceName> namespace__;
    bool standby_ = false;
    Cask::ValueMap<std::string, std::string> option_;
    Cask::RecordMap<Vrf, RpMapping> staticRpStatus_;
    Cask::RecordMap<Vrf, RegisterConfig> registerConfig_;
    Cask::RecordMap<Vrf, Tidal::Multicast::Fib::Status> mfibTable_;
    Cask::RecordMap<Vrf, Routing::Pim::RpLocalStatus> rpLocalStatus_;
    Cask::RecordMap<Vrf, Routing::Multicast::Fib::Config> mfibConfig_;
    Cask::RecordMap<Vrf, Routing::Multicast::Fib::SparseModeStatus> fastFailoverIntfs_;
    Cask::RecordMap<Vrf, Routing::Multicast::VxlanStatus> mcastVxlanStatus_;
    Cask::RecordMap<Vrf, Routing::Pim::GroupFilterStatus> groupFilterStatus_;
    Cask::RecordMap<Vrf, Routing::Pim::SparseMode::FrrFilterStatus> frrFilterStatus_;
    Cask::RecordMap<Vrf, Routing::Pim::SparseMode::RegisterStatus> registerStatus_;
    Cask::RecordMap<Vrf, Routing::Pim::MrtUpcallStatus> mrtUpcall_;
    Cask::KeySet<std::string> mount_;
};

}  // namespace Platform
