#pragma once
// Per-VRF records of the state database that the agent's root machine
// mounts to decide whether a VRF runs the protocol, and that the VRF's
// machines read once it does. Each is published by another part of the
// system (VRF manager, RP configuration, kernel, hardware, restart manager);
// tests and the scenario driver write them here.

#include <cstdint>
#include <map>

#include "cask/collection.h"
#include "platform/route_key.h"
#include "platform/unicast_route_table.h"
#include "wirl/intf_id.h"
#include "wirl/ip_gen_addr.h"
#include "wirl/ip_gen_prefix.h"
#include "wirl/namespace_name.h"
#include "wirl/vrf_name.h"

namespace Platform {

// The VRF manager's view of one VRF: the kernel network namespace it lives
// in ("default" lives in the default namespace).
class VrfStatusLocal : public Cask::Record<VrfStatusLocal> {
public:
    class Notifiee : public Cask::NotifieeOf<VrfStatusLocal> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleNetworkNamespace() {}
    };
    CASK_ATTR(Wirl::NamespaceName, networkNamespace, NetworkNamespace)

private:
    Wirl::NamespaceName networkNamespace_;
};

// Group-to-RP mappings: configured statically (StaticRpConfig), and as the
// RP candidate machine publishes them (the RP mapping the machines use).
class RpMapping : public Cask::Record<RpMapping> {
public:
    class Notifiee : public Cask::NotifieeOf<RpMapping> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleRp(const Wirl::IpGenPrefix&) {}
    };
    CASK_VALUE_MAP(rp, Rp, Wirl::IpGenPrefix, Wirl::IpGenAddr)
    // The RP of `group` by longest prefix match; the default address when
    // no mapping covers it.
    Wirl::IpGenAddr rpFor(const Wirl::IpGenAddr& group) const;

private:
    Cask::ValueMap<Wirl::IpGenPrefix, Wirl::IpGenAddr> rp_;
};

// Candidate RPs learnt by the bootstrap mechanism.
class BsrCrpStatus : public Cask::Record<BsrCrpStatus> {
public:
    class Notifiee : public Cask::NotifieeOf<BsrCrpStatus> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleCandidateRp(const Wirl::IpGenPrefix&) {}
    };
    CASK_VALUE_MAP(candidateRp, CandidateRp, Wirl::IpGenPrefix, Wirl::IpGenAddr)

private:
    Cask::ValueMap<Wirl::IpGenPrefix, Wirl::IpGenAddr> candidateRp_;
};

// Sources learnt from the inter-domain source discovery table.
class DiscoveredSgStatus : public Cask::Record<DiscoveredSgStatus> {
public:
    class Notifiee : public Cask::NotifieeOf<DiscoveredSgStatus> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleSg(const Routing::Pim::RouteKey&) {}
    };
    CASK_KEY_SET(sg, Sg, Routing::Pim::RouteKey)

private:
    Cask::KeySet<Routing::Pim::RouteKey> sg_;
};

// The kernel's multicast interfaces (VIFs) of the VRF.
class VifStatus : public Cask::Record<VifStatus> {
public:
    class Notifiee : public Cask::NotifieeOf<VifStatus> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleVif(Wirl::IntfId) {}
    };
    CASK_VALUE_MAP(vif, Vif, Wirl::IntfId, std::uint32_t)

private:
    Cask::ValueMap<Wirl::IntfId, std::uint32_t> vif_;
};

// The unicast routing tables of the VRF that RPF may use.
class MribVrfStatus : public Cask::Record<MribVrfStatus> {
public:
    using Table = Cask::Ptr<Routing::Unicast::RouteTable>;
    class Notifiee : public Cask::NotifieeOf<MribVrfStatus> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleUrib() {}
        virtual void handleMrib() {}
    };
    CASK_ATTR(Table, urib, Urib)
    CASK_ATTR(Table, mrib, Mrib)

private:
    Table urib_, mrib_;
};

// What the forwarding hardware of the VRF supports and reports.
class HwMfibStatus : public Cask::Record<HwMfibStatus> {
public:
    class Notifiee : public Cask::NotifieeOf<HwMfibStatus> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleMulticastStarGSupported() {}
        virtual void handleHwProgrammingAllowed() {}
    };
    // The hardware can program (*,G) routes.
    CASK_ATTR(bool, multicastStarGSupported, MulticastStarGSupported)
    // The VRF lets the hardware forward a route alone, without reporting its
    // packets to the agent, where the agent has no use for them.
    CASK_ATTR(bool, hwProgrammingAllowed, HwProgrammingAllowed)

private:
    bool multicastStarGSupported_ = false;
    bool hwProgrammingAllowed_ = false;
};

// Non-stop-forwarding restart status of the VRF: whether a restart that
// keeps forwarding was requested, how many routes the forwarding plane
// kept, and when recovery is done.
class NsfStatus : public Cask::Record<NsfStatus> {
public:
    class Notifiee : public Cask::NotifieeOf<NsfStatus> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleRestartRequested() {}
        virtual void handleRoutes() {}
        virtual void handlePimEnabled() {}
        virtual void handleRouteRecoveryComplete() {}
    };
    CASK_ATTR(bool, restartRequested, RestartRequested)
    CASK_ATTR(std::uint32_t, routes, Routes)
    CASK_ATTR(bool, pimEnabled, PimEnabled)
    CASK_ATTR(bool, routeRecoveryComplete, RouteRecoveryComplete)

private:
    bool restartRequested_ = false;
    std::uint32_t routes_ = 0;
    bool pimEnabled_ = false;
    bool routeRecoveryComplete_ = false;
};

// Register settings of a VRF's sparse-mode instance, kept by the agent for
// the register process: the (S,G) routes whose source this router could
// register (RFC 7761 CouldRegister), each with whether the source is still
// active, and the routes whose traffic arrives on the source tree (their SPT
// bit is set), for which an RP may send Register-Stops.
class RegisterConfig : public Cask::Record<RegisterConfig> {
public:
    class Notifiee : public Cask::NotifieeOf<RegisterConfig> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleEnabled() {}
        virtual void handleCouldRegisterSg(const Routing::Pim::RouteKey&) {}
        virtual void handleCouldSendRegisterStop(const Routing::Pim::RouteKey&) {}
    };
    CASK_ATTR(bool, enabled, Enabled)
    // Key -> the source is active (false once it has been idle too long).
    CASK_VALUE_MAP(couldRegisterSg, CouldRegisterSg, Routing::Pim::RouteKey, bool)
    CASK_KEY_SET(couldSendRegisterStop, CouldSendRegisterStop, Routing::Pim::RouteKey)

private:
    bool enabled_ = false;
    Cask::ValueMap<Routing::Pim::RouteKey, bool, std::map<Routing::Pim::RouteKey, bool>>
        couldRegisterSg_;
    Cask::OrderedKeySet<Routing::Pim::RouteKey> couldSendRegisterStop_;
};

}  // namespace Platform
