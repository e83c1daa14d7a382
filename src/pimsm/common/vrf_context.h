#pragma once
// VrfContext: everything a VRF's machines read and write, in one place.
//
// `ContainerSm` builds it once, in its construction order, and hands the
// same `const VrfContext&` to every machine it makes; a machine keeps the
// reference and reads what it needs. The records belong to the container
// and outlive every machine, so the context holds plain pointers. A pointer
// is null only where the VRF has no such input (noted per field); a machine
// that requires an input says so with `requireInputs` in its constructor.
//
// Tests build a context through the real container (see the test VRF
// builder), so a machine under test sees exactly what it sees in the agent.

#include <cstddef>
#include <functional>
#include <memory>

#include "cask/event_loop.h"
#include "wirl/address_family.h"
#include "wirl/ip_gen_addr.h"
#include "wirl/vrf_name.h"

namespace Acl {
class AclConfig;
}
namespace Platform {
class RpMapping;
class RegisterConfig;
class HwMfibStatus;
}  // namespace Platform
namespace Routing::Gmp::Tidal {
class Status;
}
namespace Routing::McastBoundary {
class Status;
}
namespace Routing::Multicast {
class VxlanStatus;
}
namespace Routing::Multicast::Fib {
class Config;
class SparseModeStatus;
}  // namespace Routing::Multicast::Fib
namespace Tidal::Multicast::Fib {
class Status;
}
namespace Cask {
template <class Key, class Base>
class ReactorDirectory;
}
namespace Routing::Pim {
class RouteKey;
class Status;
class MrtUpcallStatus;
class RpfConfig;
class RpfStatus;
class GroupFilterStatus;
class ClearMrouteConfig;
class JoinPruneStatus;
class JoinPruneRxStatus;
class RpLocalStatus;
class AssertStatus;
class AssertMessageInfo;
class MrtMessageInfo;
namespace IO {
class MessageInfo;
}
}  // namespace Routing::Pim
namespace Routing::Pim::Tidal {
class MessageCounters;
}

namespace Routing::Pim::SparseMode {

class RouteReactor;
using RouteReactorDirectory = Cask::ReactorDirectory<Routing::Pim::RouteKey, RouteReactor>;
class Config;
class Status;
class LocalStatus;
class FrrFilterStatus;
class SsmGroupInfo;
class SsmConvertConfig;
class PimRpfTable;
class RegisterStatus;
class SptThresholdInfo;
namespace Tidal {
class Status;
}

struct VrfContext {
    L3::VrfName vrfName;
    Wirl::AddressFamily family = Wirl::AddressFamily::ipunknown;
    Cask::EventLoop* loop = nullptr;
    // The most routes the VRF may hold (the agent's "maxRoutes"; 0: no
    // limit). Route indexes are sized for it when they are made, so that
    // growing to the limit never rehashes one in a single long step.
    std::size_t routeCapacity = 0;
    // The index the machines that follow every route share for their
    // per-route reactors (null: each map keeps its own).
    std::shared_ptr<RouteReactorDirectory> routeReactors;

    // Configuration.
    Config* config = nullptr;
    Routing::Pim::ClearMrouteConfig* clearConfig = nullptr;
    Routing::Multicast::Fib::Config* mfibConfig = nullptr;  // null: no forwarding config
    SsmConvertConfig* ssmConvertConfig = nullptr;           // null: no SSM conversion
    Platform::RpMapping* rpMapping = nullptr;               // null: no RP mapping
    Acl::AclConfig* aclConfig = nullptr;                    // the family's access lists

    // The route table.
    Status* status = nullptr;
    LocalStatus* localStatus = nullptr;
    SsmGroupInfo* ssmGroupInfo = nullptr;
    Routing::Pim::GroupFilterStatus* groupFilterStatus = nullptr;
    FrrFilterStatus* frrFilterStatus = nullptr;
    // Which groups switch to the source tree (SptThresholdSm writes it).
    SptThresholdInfo* sptThresholdInfo = nullptr;

    // Interfaces, neighbours, unicast routing toward sources and RPs.
    Routing::Pim::Status* pimStatus = nullptr;
    Routing::Pim::RpfConfig* rpfConfig = nullptr;
    Routing::Pim::RpfStatus* rpfStatus = nullptr;
    const PimRpfTable* rpfTable = nullptr;
    const Routing::Pim::RpLocalStatus* rpLocalStatus = nullptr;
    Routing::McastBoundary::Status* mcastBoundaryStatus = nullptr;       // null: no boundaries
    Routing::Multicast::Fib::SparseModeStatus* failoverIntfs = nullptr;  // null: none
    Routing::Multicast::VxlanStatus* mcastVxlanStatus = nullptr;         // null: none

    // Local membership.
    Routing::Gmp::Tidal::Status* membership = nullptr;

    // Join/Prune messages: outgoing contents, received entries.
    Routing::Pim::JoinPruneStatus* joinPruneStatus = nullptr;
    Routing::Pim::JoinPruneRxStatus* joinPruneRxStatus = nullptr;

    // Asserts: what the assert machines want sent per interface, the last
    // received Assert, the last data upcall that matters to asserts, and
    // the transmit record the packet side sends from.
    Routing::Pim::AssertStatus* assertStatus = nullptr;
    Routing::Pim::AssertMessageInfo* rxAssertMessageInfo = nullptr;
    Routing::Pim::MrtMessageInfo* mrtMessageInfo = nullptr;
    Routing::Pim::IO::MessageInfo* txMessageInfo = nullptr;

    // Forwarding: the table written, the hardware's view, register state.
    ::Tidal::Multicast::Fib::Status* mfibTidal = nullptr;
    Platform::HwMfibStatus* hwMfibStatus = nullptr;
    Platform::RegisterConfig* registerConfig = nullptr;
    RegisterStatus* registerStatus = nullptr;  // null: no register process
    // What the forwarding plane reports about data packets (upcalls, activity).
    Routing::Pim::MrtUpcallStatus* mrtUpcall = nullptr;  // null: no data seen
    // The per-group SPT switchover threshold: true when the group is to
    // switch to the source tree. Empty: no threshold information (false).
    std::function<bool(const Wirl::IpGenAddr& group)> sptThreshold;

    Routing::Pim::Tidal::MessageCounters* pimCounters = nullptr;
    Tidal::Status* routeCounts = nullptr;  // the route gauges other processes read
};

}  // namespace Routing::Pim::SparseMode
