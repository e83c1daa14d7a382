// The scenario events that play the forwarding, VXLAN and group-filter
// sides: how they are read and refused, and the effects that no output
// column shows (seen in the trace).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "driver/runner.h"
#include "driver/scenario.h"

namespace {

using Json = nlohmann::ordered_json;

const std::string head = R"(agent: ipv4
vrfs:
  - name: default
    interfaces:
      - {name: Ethernet1, address: 10.1.0.1/24}
      - {name: Ethernet2, address: 10.2.0.1/24}
events:
  - at: 1
)";

TEST(PlatformInputs, BadBodiesAreRefusedWithTheirPlace) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"    bidir-ranges: [10.0.0.0/8]\n", "t.yaml:9:20: '10.0.0.0/8' is not a multicast group"},
        {"    bidir-ranges: [224.0.0.0/3]\n", "t.yaml:9:20: '224.0.0.0/3' is not a multicast"},
        {"    fast-failover-ranges: [ff0e::/16]\n", "t.yaml:9:28: 'ff0e::/16' is not an ipv4"},
        {"    bidir-ranges: 239.0.0.0/8\n",
         "t.yaml:9:19: bidir-ranges takes a list of groups or a mapping (vrf, groups)"},
        {"    fast-failover-ranges: {vrf: default}\n",
         "t.yaml:9:27: fast-failover-ranges needs 'groups'"},
        {"    fast-failover-ranges: {vrf: red, groups: []}\n", "t.yaml:9:33: unknown VRF red"},
        {"    fast-failover-intfs: [Ethernet9]\n",
         "t.yaml:9:27: interface Ethernet9 is not an interface of VRF default"},
        {"    vxlan-intfs: [Ethernet1, Ethernet1]\n",
         "t.yaml:9:30: interface Ethernet1 is listed twice"},
        {"    vxlan-intfs: {interfaces: [Ethernet1], colour: red}\n",
         "t.yaml:9:44: unknown key 'colour' in vxlan-intfs"},
        {"    clear-forwarding: [default]\n",
         "t.yaml:9:23: clear-forwarding takes a mapping (vrf) or nothing"},
        {"    clear-forwarding: {group: 239.1.1.1}\n",
         "t.yaml:9:24: unknown key 'group' in a forwarding clear"},
    };
    for (const auto& [body, message] : cases) {
        SCOPED_TRACE(message);
        try {
            Driver::parseScenario(head + body, "t.yaml");
            FAIL() << "accepted";
        } catch (const Driver::ScenarioError& e) {
            EXPECT_EQ(std::string(e.what()).rfind(message, 0), 0u) << e.what();
        }
    }
}

TEST(PlatformInputs, ListsAreReadInBothForms) {
    auto s = Driver::parseScenario(head +
                                       "    bidir-ranges: {vrf: default, groups: [239.1.0.0/16, "
                                       "239.2.0.0/16]}\n  - at: 2\n    vxlan-intfs: []\n"
                                       "  - at: 3\n    fast-failover-intfs: [Ethernet2]\n",
                                   "t.yaml");
    ASSERT_EQ(s.events.size(), 3u);
    EXPECT_EQ(s.events[0].groups.size(), 2u);
    EXPECT_EQ(s.events[0].groups[1].str(), "239.2.0.0/16");
    EXPECT_TRUE(s.events[1].interfaces.empty());
    ASSERT_EQ(s.events[2].interfaces.size(), 1u);
    EXPECT_EQ(s.events[2].interfaces[0].name(), "Ethernet2");
}

class NoReport : public Driver::Report {
public:
    void show(double, Driver::Output, const Json&) override {}
    bool expect(double, const std::string&, Driver::Output, const Json&, const Json&) override {
        return true;
    }
};

// Fast-failover and VXLAN interface changes change no output; they reach
// the route review of the running agent, once per interface added or
// removed.
TEST(PlatformInputs, InterfaceSetsReachTheRouteReview) {
    auto s = Driver::parseScenario(head +
                                       "    fast-failover-intfs: [Ethernet2]\n"
                                       "  - at: 2\n    vxlan-intfs: [Ethernet1, Ethernet2]\n"
                                       "  - at: 3\n    vxlan-intfs: [Ethernet2]\n"
                                       "  - at: 4\n    fast-failover-intfs: []\n",
                                   "t.yaml");
    Driver::RunOptions options;
    options.traceLevel = 6;
    Driver::Runner runner(s, options);
    NoReport report;
    runner.run(report);
    std::vector<std::string> seen;
    for (const auto& line : runner.output(Driver::Output::trace)) {
        const auto text = line["text"].get<std::string>();
        for (const char* what : {"fast failover changed", "multicast vxlan status changed"}) {
            if (text.find(what) != std::string::npos) seen.push_back(text);
        }
    }
    const std::vector<std::string> expected = {
        "<Vrf:default>RouteSm: Interface Ethernet2 fast failover changed",
        "<Vrf:default>RouteSm: Interface Ethernet1 multicast vxlan status changed",
        "<Vrf:default>RouteSm: Interface Ethernet2 multicast vxlan status changed",
        "<Vrf:default>RouteSm: Interface Ethernet1 multicast vxlan status changed",
        "<Vrf:default>RouteSm: Interface Ethernet2 fast failover changed",
    };
    EXPECT_EQ(seen, expected);
}

}  // namespace
