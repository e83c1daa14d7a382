// Scenario loading (every problem named with file:line:column before
// anything runs) and the comparison behind `expect`.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
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

// Each text is refused with a message that starts with the one given.
void expectRefused(const std::vector<std::pair<std::string, std::string>>& cases) {
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
    expectRefused(cases);
}

// Values at the edge of each range are refused one step past it, at the
// place of the value, before anything is converted.
TEST(Scenario, ValuesOutOfRangeAreRefused) {
    const std::string nb = "    neighbors: [{interface: Ethernet1, address: 10.1.0.2}]\n";
    const std::string rx =
        "events:\n  - at: 1\n    rx-join-prune: {interface: Ethernet1, from: 10.1.0.2, "
        "upstream-neighbor: 10.1.0.1, entry: sg, action: join, group: 239.1.1.1, source: "
        "10.9.9.9, hold-time: ";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {head + "        override-interval: -0.5\n", "t.yaml:7:28: override-interval must be"},
        {head + "        override-interval: 65.536\n", "t.yaml:7:28: override-interval must be"},
        {head + "        override-interval: .NaN\n", "t.yaml:7:28: '.NaN' is not a finite"},
        {head + "        assert-timeout: 0\n", "t.yaml:7:25: assert-timeout must be at least 1"},
        {head + "        assert-timeout: 65536\n", "t.yaml:7:25: assert-timeout must be a whole"},
        {head + "        assert-timeout: -1\n", "t.yaml:7:25: assert-timeout must be a whole"},
        {head + "        assert-override-interval: 180\n", "t.yaml:5:9: assert-override-interval"},
        {head + nb + rx + "65536}\n", "t.yaml:10:160: hold-time must be a whole number"},
        {head + nb + rx + "-1}\n", "t.yaml:10:160: hold-time must be a whole number"},
        {head + "    neighbors: [{interface: Ethernet1, address: 10.1.0.2, gen-id: 1e10}]\n",
         "t.yaml:7:67: gen-id must be"},
        {head +
             "    routes: [{prefix: 10.0.0.0/8, interface: Ethernet1, preference: 2147483648}]\n",
         "t.yaml:7:69: preference must be"},
        {head + "events:\n  - {at: -inf, show: routes}\n", "t.yaml:8:10: '-inf' is not a finite"},
        {head + "events:\n  - {at: 1000000.5, show: routes}\n", "t.yaml:8:10: at must be from 0"},
        {head + "events:\n  - {at: 12abc, show: routes}\n", "t.yaml:8:10: '12abc' is not a number"},
        {head + "until: 1e999\n", "t.yaml:7:8: '1e999' is out of range"},
    };
    expectRefused(cases);
}

TEST(Scenario, ValuesAtTheirLimitsAreKept) {
    auto s = Driver::parseScenario(
        head +
            "        override-interval: 65.535\n        assert-timeout: 65535\n"
            "        assert-override-interval: 65534\n"
            "    neighbors: [{interface: Ethernet1, address: 10.1.0.2, gen-id: 4294967295}]\n"
            "    routes: [{prefix: 10.0.0.0/8, interface: Ethernet1, preference: 2147483647, "
            "metric: 4294967295}]\n"
            "events:\n  - at: 1000000\n    rx-join-prune: {interface: Ethernet1, from: 10.1.0.2, "
            "upstream-neighbor: 10.1.0.1, entry: sg, action: join, group: 239.1.1.1, source: "
            "10.9.9.9, hold-time: 65535}\n",
        "t.yaml");
    const auto& v = s.vrfs.at(0);
    EXPECT_EQ(v.interfaces.at(0).overrideInterval, 65.535);
    EXPECT_EQ(v.interfaces.at(0).assertTimeout, 65535u);
    EXPECT_EQ(v.interfaces.at(0).assertOverrideInterval, 65534u);
    EXPECT_EQ(v.neighbors.at(0).genId, 4294967295u);
    EXPECT_EQ(v.routes.at(0).preference, 2147483647u);
    EXPECT_EQ(v.routes.at(0).metric, 4294967295u);
    EXPECT_EQ(s.events.at(0).holdTime, 65535u);
    EXPECT_EQ(s.until, 1000000);
}

// What the YAML tree would hide (duplicates, aliases, second documents) or
// what a name must not be; errors in event bodies point into the body.
TEST(Scenario, StructureAndNamesAreChecked) {
    const std::string events = head + "events:\n  - at: 1\n";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"agent: ipv4\nagent: ipv4\nvrfs: []\n", "t.yaml:2:1: duplicate key 'agent'"},
        {events + "    expect: {routes: [{route: x, oifs: [a], oifs: [b]}]}\n",
         "t.yaml:9:45: duplicate key 'oifs'"},
        {events + "    expect: {trace: &a [x]}\n  - {at: 2, expect: {trace: *a}}\n",
         "t.yaml:10:29: YAML aliases"},
        {head + "---\nagent: ipv4\n", "t.yaml:7:"},
        {"agent: ipv4\nvrfs: [{name: default, interfaces: [{name: '', address: 10.1.0.1/24}]}]\n",
         "t.yaml:2:44: an interface name is empty"},
        {"agent: ipv4\nvrfs: [{name: default, interfaces: [{name: Register0, address: "
         "10.1.0.1/24}]}]\n",
         "t.yaml:2:44: 'Register0' is reserved"},
        {"agent: ipv4\nvrfs: [{name: default, interfaces: [{name: 'Eth 1', address: "
         "10.1.0.1/24}]}]\n",
         "t.yaml:2:44: an interface name has a space"},
        {"agent: ipv4\nvrfs:\n  - name: \"default\n", "t.yaml:3:11: a VRF name has a space"},
        {events + "    rpf: {prefix: 10.0.0.0/8, interface: Ethernet1, color: red}\n",
         "t.yaml:9:53: unknown key 'color' in a unicast route"},
        {events + "    rp: {group: 224.0.0.0/4, address: 10.0.0.1.1}\n",
         "t.yaml:9:39: '10.0.0.1.1' is not an IP address"},
        {events + "    rp: [224.0.0.0/4]\n", "t.yaml:9:9: the event's body must be a mapping"},
        {events + "    join: x\n", "t.yaml:9:11: the event's body must be a mapping"},
        {head + "events:\n  - at: 1\n    show: {a: b}\n", "t.yaml:9:11: expected a single value"},
        {head + std::string("\0x", 2), "t.yaml:7:1: not a text file (NUL byte)"},
        {events + "    spt-threshold: {default: sometimes}\n",
         "t.yaml:9:30: a threshold is immediate or never"},
        {events + "    spt-threshold: {access-lists: [{name: a, threshold: never}, {name: a, "
                  "threshold: never}]}\n",
         "t.yaml:9:72: access list a is listed twice"},
        {events + "    spt-threshold: {access-lists: [{name: a, threshold: never, rules: [permit "
                  "ff3e::/16]}]}\n",
         "t.yaml:9:72: 'ff3e::/16' is not an ipv4 prefix"},
    };
    expectRefused(cases);
}

TEST(Scenario, ErrorsKeepTheirParts) {
    try {
        Driver::parseScenario(head + "until: -1\n", "t.yaml");
        FAIL() << "accepted";
    } catch (const Driver::ScenarioError& e) {
        EXPECT_EQ(e.file(), "t.yaml");
        EXPECT_EQ(e.line(), 7);
        EXPECT_EQ(e.column(), 8);
        EXPECT_EQ(e.message(), "until must be from 0 to 1000000 (got -1)");
    }
}

// Paths that are not readable files are refused with the system's reason,
// without opening what could block (a FIFO) or never end (a device).
TEST(Scenario, UnreadablePathsSayWhy) {
    const auto dir = std::filesystem::temp_directory_path() /
                     ("pimsm-scenario-test-" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);
    const auto fifo = (dir / "fifo").string();
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const auto locked = (dir / "locked.yaml").string();
    std::ofstream(locked) << head;
    std::filesystem::permissions(locked, std::filesystem::perms::none);
    const auto big = (dir / "big.yaml").string();
    {
        std::ofstream out(big);
        out << "# " << std::string(Driver::maxScenarioBytes, 'x') << "\n";
    }
    std::vector<std::pair<std::string, std::string>> cases = {
        {dir.string(), ": cannot read it: Is a directory"},
        {(dir / "missing.yaml").string(), ": cannot read it: No such file or directory"},
        {fifo, ": cannot read it: not a regular file"},
        {"/dev/zero", ": cannot read it: not a regular file"},
        {big, ": larger than 8388608 bytes"},
    };
    // Root reads whatever the permissions say.
    if (::access(locked.c_str(), R_OK) != 0) {
        cases.push_back({locked, ": cannot open it: Permission denied"});
    }
    for (const auto& [path, message] : cases) {
        SCOPED_TRACE(path);
        try {
            Driver::loadScenario(path);
            ADD_FAILURE() << "accepted";
        } catch (const Driver::ScenarioError& e) {
            EXPECT_EQ(std::string(e.what()), path + message);
            EXPECT_EQ(e.line(), 0);
        }
    }
    std::filesystem::remove_all(dir);
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

// Scenario files written before the values became fields of their own keep
// passing: each earlier text form matches the structured value it stands
// for, and only that one.
TEST(Expect, EarlierTextFormsMatchTheStructuredValues) {
    struct Case {
        Output what;
        const char* actualRow;
        const char* expectedRow;
        bool matches;
    };
    const char* wcRoute = R"j({"route": "(*,239.1.1.1)", "source": "*", "group": "239.1.1.1",
        "flags": ["spt", "oif-register"], "upstream": "Joined",
        "why": [{"interface": "Ethernet1", "reasons": ["join"], "expires": 200.5}]})j";
    const char* jp = R"j({"neighbor": "10.2.0.2", "interface": "Ethernet2", "set": "periodic",
        "group": "239.1.1.1", "joins": [{"kind": "wc", "rp": "10.0.0.1", "suppressed": false},
        {"kind": "sg-rpt", "source": "10.2.0.5"}], "prunes": [{"kind": "sg", "source": "10.2.0.6"}]})j";
    const char* ds = R"j({"route": "(10.2.0.5,239.1.1.1)", "source": "10.2.0.5",
        "group": "239.1.1.1", "expiry": 212, "prune-pending": null})j";
    const char* spt = R"j({"vrf": "red", "access-lists": [{"name": "shared",
        "threshold": "never", "prefixes": []}]})j";
    const std::vector<Case> cases = {
        {Output::routes, wcRoute, R"j({"route": "(*, 239.1.1.1)"})j", true},
        {Output::routes, wcRoute, R"j({"route": "(*,239.1.1.1)"})j", true},
        {Output::routes, wcRoute, R"j({"route": "(*, 239.1.1.2)"})j", false},
        {Output::routes, wcRoute, R"j({"route": "(*, 239.1.1.1)", "upstream": "upJoined"})j", true},
        {Output::routes, wcRoute, R"j({"route": "(*, 239.1.1.1)", "upstream": "upNotJoined"})j",
         false},
        {Output::routes, wcRoute, R"j({"route": "(*, 239.1.1.1)", "flags": "spt oif-register"})j",
         true},
        {Output::routes, wcRoute, R"j({"route": "(*, 239.1.1.1)", "flags": "spt"})j", false},
        {Output::routes, wcRoute, R"j({"route": "(*, 239.1.1.1)", "why": ["Ethernet1 (join)"]})j",
         true},
        {Output::routes, wcRoute, R"j({"route": "(*, 239.1.1.1)", "why": ["Ethernet1 (local)"]})j",
         false},
        {Output::joinPrune, jp, R"j({"neighbor": "10.2.0.2 on Ethernet2", "set": "periodic"})j",
         true},
        {Output::joinPrune, jp, R"j({"neighbor": "10.2.0.2 on Ethernet3", "set": "periodic"})j",
         false},
        {Output::joinPrune, jp, R"j({"neighbor": "10.2.0.2", "interface": "Ethernet2"})j", true},
        {Output::joinPrune, jp,
         R"j({"set": "periodic", "joins": ["(*) rp 10.0.0.1", "10.2.0.5 rpt"],
              "prunes": ["10.2.0.6"]})j",
         true},
        {Output::joinPrune, jp,
         R"j({"set": "periodic", "joins": ["(*) rp 10.0.0.1 suppressed", "10.2.0.5 rpt"]})j",
         false},
        {Output::joinPrune, jp,
         R"j({"set": "periodic", "joins": ["(*) rp 10.0.0.1", "10.2.0.5"]})j", false},
        {Output::joinPrune, jp, R"j({"set": "periodic", "prunes": ["10.2.0.6 rpt"]})j", false},
        {Output::downstream, ds, R"j({"route": "(10.2.0.5, 239.1.1.1)", "expiry": "212.000"})j",
         true},
        {Output::downstream, ds, R"j({"route": "(10.2.0.5, 239.1.1.1)", "expiry": "212.5"})j",
         false},
        {Output::downstream, ds, R"j({"route": "(10.2.0.5, 239.1.1.1)", "expiry": "-"})j", false},
        {Output::downstream, ds, R"j({"route": "(10.2.0.5, 239.1.1.1)", "prune-pending": "-"})j",
         true},
        {Output::sptThreshold, spt, R"j({"access-lists": ["shared (never): -"]})j", true},
        {Output::sptThreshold, spt, R"j({"access-lists": ["shared (immediate): -"]})j", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.expectedRow);
        const Json actual = Json::array({Json::parse(c.actualRow)});
        const Json expected = Json::array({Json::parse(c.expectedRow)});
        EXPECT_EQ(Driver::compareOutput(c.what, expected, actual).empty(), c.matches);
    }
}

// Every cell of a text table is one word, so that `awk` finds column N in
// field N; lists, entries and missing values included.
TEST(Expect, TextTableCellsAreOneWordEach) {
    const Json rows = Json::parse(R"j([
        {"route": "(*,239.1.1.1)", "flags": ["wc", "spt"], "iif": null, "oifs": [],
         "why": [{"interface": "Ethernet1", "reasons": ["join", "local"], "expires": 1.5},
                 {"interface": "Ethernet4", "reasons": ["local"], "expires": null}],
         "joins": [{"kind": "wc", "rp": "10.0.0.1", "suppressed": true},
                   {"kind": "sg-rpt", "source": "10.2.0.5"}],
         "metric": {"rpt": false, "preference": 10, "metric": 20}, "uptime": 2.25}])j");
    std::ostringstream os;
    Driver::printTable(os, rows);
    std::istringstream lines(os.str());
    std::string header, line;
    std::getline(lines, header);
    std::getline(lines, line);
    std::istringstream words(line);
    std::vector<std::string> cells{std::istream_iterator<std::string>(words), {}};
    EXPECT_EQ(cells, (std::vector<std::string>{"(*,239.1.1.1)", "wc,spt", "-", "-",
                                               "Ethernet1:join+local:1.5,Ethernet4:local",
                                               "wc:10.0.0.1+suppressed,sg-rpt:10.2.0.5",
                                               "rpt=false,preference=10,metric=20", "2.25"}));
}

TEST(Expect, TraceLinesMustAppearInOrder) {
    const Json lines = Json::parse(R"j([{"text": "a: one"}, {"text": "b: two"}])j");
    EXPECT_TRUE(
        Driver::compareOutput(Output::trace, Json::parse(R"j(["one", "two"])j"), lines).empty());
    EXPECT_EQ(Driver::compareOutput(Output::trace, Json::parse(R"j(["two", "one"])j"), lines),
              (std::vector<std::string>{"- missing line: one"}));
}

}  // namespace
