// Scenario loading (every problem named with file:line:column before
// anything runs) and the comparison behind `expect`.
#include <gtest/gtest.h>

#include <string>

#include "driver/report.h"
#include "driver/scenario.h"

namespace {

using Driver::Output;
using Json = nlohmann::ordered_json;

const std::string head = R"(agent: ipv4
vrfs:
  - name: default
    interfaces:
      - name: Ethernet1
        address: 10.1.0.1/24
)";

TEST(Scenario, MalformedScenariosAreRefusedWithTheirPlace) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {head + "    colour: blue\n", "t.yaml:7:5: unknown key 'colour' in a VRF"},
        {head + "events:\n  - at: 1\n    join: {interface: Ethernet1, group: 239.1.1}\n",
         "t.yaml:9:41: '239.1.1' is not an IP address"},
        {head + "events:\n  - at: 1\n    join: {interface: Ethernet9, group: 239.1.1.1}\n",
         "t.yaml:9:23: interface Ethernet9 is not an interface of VRF default"},
        {head + "events:\n  - at: 2\n    show: routes\n  - at: 1\n    show: routes\n",
         "t.yaml:10:9: time goes backwards (1 after 2)"},
        {head + "events:\n  - at: 1\n    dance: {}\n", "t.yaml:9:5: unknown event 'dance'"},
        {head + "events:\n  - at: 1\n    join: {interface: Ethernet1, group: ff0e::1}\n",
         "t.yaml:9:41: 'ff0e::1' is not an ipv4 address"},
        {"agent: ipv5\nvrfs: []\n", "t.yaml:1:8: agent must be ipv4 or ipv6"},
        {head + "events: [\n", "t.yaml:8:"},
    };
    for (const auto& [text, message] : cases) {
        SCOPED_TRACE(message);
        try {
            Driver::parseScenario(text, "t.yaml");
            FAIL() << "accepted";
        } catch (const Driver::ScenarioError& e) {
            EXPECT_EQ(std::string(e.what()).rfind(message, 0), 0u) << e.what();
        }
    }
}

TEST(Scenario, EventsAreReadWithDefaults) {
    auto s = Driver::parseScenario(
        head +
            "events:\n  - at: 1.5\n    join: {interface: Ethernet1, group: 239.1.1.1, mode: "
            "exclude}\n  - at: 2\n    show: [routes, trace]\n",
        "t.yaml");
    ASSERT_EQ(s.events.size(), 2u);
    EXPECT_EQ(s.events[0].at, 1.5);
    EXPECT_FALSE(s.events[0].include);
    EXPECT_TRUE(s.events[0].source.isUnspecified());
    EXPECT_EQ(s.events[1].outputs, (std::vector<Output>{Output::routes, Output::trace}));
    EXPECT_EQ(s.until, 2);
}

TEST(Expect, RowsMatchByFirstFieldAndDifferencesAreReadable) {
    const Json actual = Json::parse(R"j([
        {"route": "(*, 239.1.1.1)", "iif": "Ethernet2", "oifs": ["Ethernet1"]},
        {"route": "(*, 239.2.2.2)", "iif": "Ethernet2", "oifs": []}])j");
    struct Case {
        const char* expected;
        std::vector<std::string> diff;
    };
    const std::vector<Case> cases = {
        {R"j([{"route": "(*, 239.1.1.1)", "oifs": ["Ethernet1"]}, {"route": "(*, 239.2.2.2)"}])j",
         {}},
        {R"j([{"route": "(*, 239.1.1.1)", "iif": "Ethernet3"}, {"route": "(*, 239.2.2.2)"}])j",
         {"  route (*, 239.1.1.1): iif", "-   expected: Ethernet3", "+   got:      Ethernet2"}},
        {R"j([{"route": "(*, 239.1.1.1)"}])j", {"+ unexpected route (*, 239.2.2.2)"}},
        {R"j([{"route": "(*, 239.1.1.1)"}, {"route": "(*, 239.2.2.2)"}, {"route": "(*, 239.3.3.3)"}])j",
         {"- missing route (*, 239.3.3.3)"}},
        {R"j([{"route": "(*, 239.1.1.1)", "oifs": []}, {"route": "(*, 239.2.2.2)"}])j",
         {"  route (*, 239.1.1.1): oifs", "-   expected: ", "+   got:      Ethernet1"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.expected);
        EXPECT_EQ(Driver::compareOutput(Output::routes, Json::parse(c.expected), actual), c.diff);
    }
}

TEST(Expect, TraceLinesMustAppearInOrder) {
    const Json lines = Json::parse(R"j([{"text": "a: one"}, {"text": "b: two"}])j");
    EXPECT_TRUE(
        Driver::compareOutput(Output::trace, Json::parse(R"j(["one", "two"])j"), lines).empty());
    EXPECT_EQ(Driver::compareOutput(Output::trace, Json::parse(R"j(["two", "one"])j"), lines),
              (std::vector<std::string>{"- missing line: one"}));
}

}  // namespace
