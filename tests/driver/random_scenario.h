#pragma once
// Random valid scenarios for the invariant test (random_sequence_test.cc).
//
// A seed gives one scenario: a topology (family, interfaces, neighbours, RP
// mappings, unicast routes, SSM range) and 20 to 80 timed events, written as
// the YAML text `pimsm run` reads, so that a failing seed can be pasted into
// a file and replayed. Alongside the text the generator keeps its own model
// of the inputs (which neighbours are up, which memberships exist, the RP
// mappings and unicast routes in force) at every checkpoint, which the test
// uses to judge the agent's outputs.

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace PimsmTest {

// The platform inputs as they stand at one moment.
struct Model {
    struct Membership {
        bool include = true;
        std::int64_t sinceMs = 0;  // when the membership table last changed
    };
    struct UnicastRoute {
        std::string intf;
        std::string nextHop;  // empty: directly attached
    };
    bool ipv6 = false;
    std::map<std::string, std::string> intfAddr;              // interface -> this router's address
    std::map<std::string, bool> dr;                           // interface -> I_am_DR
    std::set<std::pair<std::string, std::string>> neighbors;  // (interface, address) up
    std::map<std::string, std::string> rp;                    // group prefix -> RP
    std::set<std::string> localAddresses;                     // this router's addresses (I_am_RP)
    std::map<std::string, UnicastRoute> urib;                 // prefix -> route
    std::vector<std::string> ssmRange;
    // (source or "", group, interface) -> membership
    std::map<std::tuple<std::string, std::string, std::string>, Membership> members;
    // Groups whose RP(G) has changed since the start.
    std::set<std::string> rpChanged;

    // Queries with the RFC 7761 / membership rules the test checks against.
    bool linkLocal(const std::string& group) const;
    bool ssm(const std::string& group) const;
    std::optional<std::string> rpOf(const std::string& group) const;  // longest match
    const UnicastRoute* lookup(const std::string& addr) const;        // longest match
    bool iAmRp(const std::string& rpAddr) const { return localAddresses.contains(rpAddr); }
    bool neighborUp(const std::string& intf, const std::string& addr) const {
        return neighbors.contains({intf, addr});
    }
};

// A place in the event list where the test looks at the outputs.
struct Checkpoint {
    double at = 0;
    // Enough time has passed since the last input change for every
    // batched review to have run: the outputs must agree with the model.
    bool quiet = false;
    bool final = false;  // after the settle period
    Model model;
};

struct RandomScenario {
    std::uint64_t seed = 0;
    std::string head;  // agent, vrfs
    struct Line {
        double at;
        std::string body;     // the YAML event body (after "at")
        int checkpoint = -1;  // >= 0: a `show` for that checkpoint
    };
    std::vector<Line> lines;
    std::vector<Checkpoint> checkpoints;
    double until = 0;

    // The YAML with a `show` at every checkpoint (what the test runs), or
    // with the single `show` of checkpoint `only` (what a person replays).
    std::string yaml(int only = -2) const;
};

RandomScenario generateScenario(std::uint64_t seed);

}  // namespace PimsmTest
