#pragma once
// A scenario: the platform inputs an agent starts from and the timed events
// applied to it, as read from a YAML file (see docs/scenario-format.md).
//
// Loading validates everything before anything runs: unknown or duplicate
// keys, YAML aliases, bad addresses, numbers that are not finite or out of
// range, events for unknown VRFs or interfaces, and time going backwards are
// errors that name the file, line and column.

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "wirl/address_family.h"
#include "wirl/intf_id.h"
#include "wirl/ip_gen_addr.h"
#include "wirl/ip_gen_prefix.h"
#include "wirl/vrf_name.h"

namespace Driver {

// "file:line:column: what is wrong", or "file: what is wrong" when the
// fault has no place in the text (the file cannot be read, it is empty).
// The parts are kept for machine-readable reports.
class ScenarioError : public std::runtime_error {
public:
    // line and column count from 1; 0 means no place.
    ScenarioError(std::string file, int line, int column, std::string message);

    const std::string& file() const { return file_; }
    int line() const { return line_; }
    int column() const { return column_; }
    const std::string& message() const { return message_; }

private:
    std::string file_;
    int line_;
    int column_;
    std::string message_;
};

// Limits on what a scenario may ask for. Times are virtual seconds; the
// file and node limits keep hostile input from exhausting memory.
inline constexpr double maxScenarioTime = 1'000'000;
inline constexpr std::size_t maxScenarioBytes = 8u << 20;
inline constexpr std::size_t maxScenarioNodes = 1u << 18;
inline constexpr int maxScenarioDepth = 64;
inline constexpr std::size_t maxInterfaceName = 100;

struct InterfaceSpec {
    Wirl::IntfId name;
    Wirl::IpGenPrefix address;  // this router's address and mask on it
    Wirl::IpGenAddr addr;       // the address alone
    bool dr = true;
    double overrideInterval = 2.5;
    unsigned assertTimeout = 180;
    unsigned assertOverrideInterval = 3;
};

struct NeighborSpec {
    Wirl::IntfId interface;
    Wirl::IpGenAddr address;
    unsigned genId = 1;
};

struct UnicastRouteSpec {
    Wirl::IpGenPrefix prefix;
    Wirl::IntfId interface;
    Wirl::IpGenAddr nextHop;  // default: directly attached
    unsigned preference = 1;
    unsigned metric = 1;
};

struct RpSpec {
    Wirl::IpGenPrefix groups;
    Wirl::IpGenAddr address;
};

struct VrfSpec {
    L3::VrfName name;
    std::optional<std::vector<Wirl::IpGenPrefix>> ssmRange;
    std::vector<RpSpec> rps;
    std::vector<Wirl::IpGenAddr> localAddresses;  // addresses of this router (RP role)
    std::vector<InterfaceSpec> interfaces;
    std::vector<NeighborSpec> neighbors;
    std::vector<UnicastRouteSpec> routes;

    const InterfaceSpec* interface(Wirl::IntfId i) const;
};

// What a `show` or `expect` names.
enum class Output {
    routes,
    joinPrune,
    forwarding,
    counters,
    register_,
    sptThreshold,
    downstream,
    asserts,
    sent,
    membership,
    rp,
    neighbors,
    interfaces,
    trace,
    events
};
const char* outputName(Output o);

// One switchover exception of an `spt-threshold` event: an access list and
// the threshold of the groups it permits.
struct AccessListSpec {
    struct Rule {
        bool permit = true;
        Wirl::IpGenPrefix group;
    };
    std::string name;
    bool immediate = true;
    std::optional<std::vector<Rule>> rules;  // absent: the list's rules are left as they are
};

// One group's part of a received Join/Prune message: the (*,G) Join or
// Prune (by RP), and the (S,G) and (S,G,rpt) Joins and Prunes by source.
struct JoinPruneGroupSpec {
    Wirl::IpGenAddr group;
    std::optional<Wirl::IpGenAddr> joinWc;
    std::optional<Wirl::IpGenAddr> pruneWc;
    std::vector<Wirl::IpGenAddr> joinSg;
    std::vector<Wirl::IpGenAddr> pruneSg;
    std::vector<Wirl::IpGenAddr> joinSgRpt;
    std::vector<Wirl::IpGenAddr> pruneSgRpt;
};

struct Event {
    enum class Kind {
        join,   // membership appears (include or exclude)
        leave,  // membership goes
        neighborUp,
        neighborDown,
        genId,               // a neighbour restarted
        dr,                  // this router's DR role on an interface
        rpf,                 // unicast route added or replaced
        rpfWithdraw,         // unicast route removed
        rp,                  // static RP mapping added or replaced
        rpWithdraw,          // static RP mapping removed
        clear,               // clear routes
        rxJoinPrune,         // a Join/Prune entry received from a neighbour
        rxAssert,            // an Assert received from a neighbour
        clearForwarding,     // rewrite every forwarding record
        bidirRanges,         // the bidirectional group ranges, replaced
        fastFailoverRanges,  // the groups with a fast-failover backup upstream, replaced
        fastFailoverIntfs,   // the interfaces running fast failover, replaced
        vxlanIntfs,          // the interfaces carrying multicast over VXLAN, replaced
        data,                // data packets from a source to a group arrive on an interface
        registerOif,         // the register process wants the register tunnel in a route's olist
        noRegisterOif,       // the register process wants it out (or withdraws that wish)
        sptThreshold,        // the switchover default and exceptions, replaced
        hwProgramming,       // the VRF lets the hardware forward routes alone, or stops that
        upcall,              // the forwarding plane reports a packet, as is (no checks)
        show,
        expect,
    };
    double at = 0;
    Kind kind = Kind::show;
    std::string where;  // "file:line:column" of the event, for messages
    L3::VrfName vrf;
    Wirl::IntfId interface;
    Wirl::IpGenAddr group;
    Wirl::IpGenAddr source;  // unspecified for (*,G)
    bool include = true;
    Wirl::IpGenAddr address;  // neighbour / RP / next hop
    unsigned genId = 0;
    // dr; spt-threshold: the default is immediate; hardware-programming:
    // allowed; upcall: a wrong-VIF report (else a cache miss)
    bool flag = false;
    // rx-join-prune: the message's groups with their entries, the
    // neighbour it is addressed to and the hold time; the sender is
    // `address`. A single-entry event is a message of one group.
    std::vector<JoinPruneGroupSpec> jpGroups;
    // rx-assert: the sender is `address`, the route `source` (unspecified:
    // an Assert(*,G)) and `group`; the RPT bit is `flag`.
    unsigned preference = 0;
    unsigned metric = 0;
    Wirl::IpGenAddr upstream;
    unsigned holdTime = 210;
    unsigned packets = 1;  // data
    UnicastRouteSpec route;
    RpSpec rp;
    std::vector<Wirl::IpGenPrefix> groups;    // bidir-ranges, fast-failover-ranges
    std::vector<Wirl::IntfId> interfaces;     // fast-failover-intfs, vxlan-intfs
    std::vector<AccessListSpec> accessLists;  // spt-threshold
    std::vector<Output> outputs;              // show
    std::string expectJson;                   // expect: the expected outputs, as JSON text
};

struct Scenario {
    std::string file;
    Wirl::AddressFamily family = Wirl::AddressFamily::ipv4;
    std::vector<VrfSpec> vrfs;
    std::vector<Event> events;  // in time order
    double until = 0;           // run at least until here

    const VrfSpec* vrf(const L3::VrfName& name) const;
};

// Reads and validates a scenario; throws ScenarioError. The path must name
// a readable regular file of at most maxScenarioBytes.
Scenario loadScenario(const std::string& path);
Scenario parseScenario(const std::string& text, const std::string& file);

}  // namespace Driver
