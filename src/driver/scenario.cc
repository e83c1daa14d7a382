#include "driver/scenario.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <map>
#include <set>
#include <sstream>
#include <string_view>

#include <fmt/format.h>
#include <yaml-cpp/eventhandler.h>
#include <yaml-cpp/yaml.h>
#include <nlohmann/json.hpp>

namespace Driver {

namespace {

std::string placed(const std::string& file, int line, int column, const std::string& message) {
    if (line <= 0) return fmt::format("{}: {}", file, message);
    return fmt::format("{}:{}:{}: {}", file, line, column, message);
}

ScenarioError errorAt(const std::string& file, const YAML::Mark& m, const std::string& message) {
    if (m.is_null() || m.line < 0) return ScenarioError(file, 0, 0, message);
    return ScenarioError(file, m.line + 1, m.column + 1, message);
}

// Walks the YAML event stream once before any node tree is built, refusing
// what the tree would hide or blow up: aliases (a few hundred bytes of
// nested aliases expand to gigabytes), duplicate keys (the tree keeps the
// first silently), keys that are not plain names, more than one document,
// deep nesting and too many nodes.
class StructureCheck : public YAML::EventHandler {
public:
    explicit StructureCheck(const std::string& file) : file_(file) {}

    void OnDocumentStart(const YAML::Mark& m) override {
        if (documents_++ > 0) throw errorAt(file_, m, "only one YAML document per file");
    }
    void OnDocumentEnd() override {}
    void OnNull(const YAML::Mark& m, YAML::anchor_t) override { node(m, nullptr); }
    void OnAlias(const YAML::Mark& m, YAML::anchor_t) override {
        throw errorAt(file_, m, "YAML aliases (*name) are not supported; write the value out");
    }
    void OnScalar(const YAML::Mark& m, const std::string&, YAML::anchor_t,
                  const std::string& value) override {
        node(m, &value);
    }
    void OnSequenceStart(const YAML::Mark& m, const std::string&, YAML::anchor_t,
                         YAML::EmitterStyle::value) override {
        open(m, false);
    }
    void OnSequenceEnd() override { frames_.pop_back(); }
    void OnMapStart(const YAML::Mark& m, const std::string&, YAML::anchor_t,
                    YAML::EmitterStyle::value) override {
        open(m, true);
    }
    void OnMapEnd() override { frames_.pop_back(); }

private:
    struct Frame {
        bool map = false;
        bool expectKey = true;
        std::set<std::string, std::less<>> keys;
    };

    // `scalar` is the text of a scalar node, null for anything else.
    void node(const YAML::Mark& m, const std::string* scalar) {
        if (++nodes_ > maxScenarioNodes) {
            throw errorAt(file_, m, fmt::format("more than {} values", maxScenarioNodes));
        }
        if (frames_.empty() || !frames_.back().map) return;
        auto& f = frames_.back();
        if (f.expectKey) {
            if (!scalar) throw errorAt(file_, m, "a key must be a plain name");
            if (!f.keys.insert(*scalar).second) {
                throw errorAt(file_, m, fmt::format("duplicate key '{}'", *scalar));
            }
        }
        f.expectKey = !f.expectKey;
    }
    void open(const YAML::Mark& m, bool map) {
        node(m, nullptr);
        if (frames_.size() >= static_cast<std::size_t>(maxScenarioDepth)) {
            throw errorAt(file_, m, fmt::format("nested deeper than {} levels", maxScenarioDepth));
        }
        frames_.emplace_back().map = map;
    }

    const std::string& file_;
    int documents_ = 0;
    std::size_t nodes_ = 0;
    std::vector<Frame> frames_;
};

// Reads YAML nodes of one file, turning every problem into a ScenarioError
// that points at the offending node.
class Reader {
public:
    explicit Reader(std::string file) : file_(std::move(file)) {}

    std::string where(const YAML::Node& n) const {
        const auto m = n.Mark();
        if (m.is_null() || m.line < 0) return file_;
        return fmt::format("{}:{}:{}", file_, m.line + 1, m.column + 1);
    }
    [[noreturn]] void fail(const YAML::Node& n, const std::string& what) const {
        throw errorAt(file_, n.Mark(), what);
    }

    void keys(const YAML::Node& n, std::initializer_list<const char*> allowed,
              const char* what) const {
        if (!n.IsMap()) fail(n, fmt::format("{} must be a mapping", what));
        for (const auto& kv : n) {
            const auto key = kv.first.as<std::string>();
            bool ok = false;
            for (const char* a : allowed) ok = ok || key == a;
            if (!ok) {
                fail(kv.first, fmt::format("unknown key '{}' in {} (expected one of: {})", key,
                                           what, fmt::join(allowed, ", ")));
            }
        }
    }
    YAML::Node need(const YAML::Node& n, const char* key, const char* what) const {
        auto v = n[key];
        if (!v) fail(n, fmt::format("{} needs '{}'", what, key));
        return v;
    }
    std::string text(const YAML::Node& n) const {
        if (!n.IsScalar()) fail(n, "expected a single value");
        return n.Scalar();
    }
    // A finite decimal number. Parsed here rather than by yaml-cpp so that
    // NaN, infinities and values beyond a double are refused by name.
    double number(const YAML::Node& n) const {
        const std::string t = text(n);
        std::string_view v = t;
        // from_chars takes no '+'; YAML allows one, before a digit or '.'.
        if (v.size() > 1 && v.front() == '+' && v[1] != '-' && v[1] != '+') v.remove_prefix(1);
        double d = 0;
        const auto [end, ec] = std::from_chars(v.data(), v.data() + v.size(), d);
        if (ec == std::errc::result_out_of_range) fail(n, fmt::format("'{}' is out of range", t));
        std::string lower;
        for (char c : v) lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        const bool yamlSpecial = lower == ".inf" || lower == "-.inf" || lower == ".nan";
        if (yamlSpecial || (ec == std::errc{} && end == v.data() + v.size() && !std::isfinite(d))) {
            fail(n, fmt::format("'{}' is not a finite number", t));
        }
        if (ec != std::errc{} || end != v.data() + v.size() || v.empty()) {
            fail(n, fmt::format("'{}' is not a number", t));
        }
        return d;
    }
    // A number in [lo, hi], checked before any conversion.
    double number(const YAML::Node& n, double lo, double hi, const char* what) const {
        const double v = number(n);
        if (v < lo || v > hi) {
            fail(n, fmt::format("{} must be from {} to {} (got {})", what, lo, hi, text(n)));
        }
        return v;
    }
    // A whole number in [0, max].
    std::uint32_t count(const YAML::Node& n, std::uint32_t max, const char* what) const {
        const double v = number(n);
        if (v < 0 || v > max || v != std::floor(v)) {
            fail(n, fmt::format("{} must be a whole number from 0 to {} (got {})", what, max,
                                text(n)));
        }
        return static_cast<std::uint32_t>(v);
    }
    double time(const YAML::Node& n, const char* what) const {
        return number(n, 0, maxScenarioTime, what);
    }
    bool flag(const YAML::Node& n) const {
        try {
            return n.as<bool>();
        } catch (const YAML::Exception&) {
            fail(n, fmt::format("'{}' is not true or false", text(n)));
        }
    }
    Wirl::IpGenAddr addr(const YAML::Node& n, Wirl::AddressFamily family) const {
        auto a = Wirl::IpGenAddr::parse(text(n));
        if (!a) fail(n, fmt::format("'{}' is not an IP address", text(n)));
        if (a->family() != family) {
            fail(n, fmt::format("'{}' is not an {} address", text(n), Wirl::familyName(family)));
        }
        return *a;
    }
    Wirl::IpGenPrefix prefix(const YAML::Node& n, Wirl::AddressFamily family) const {
        auto p = Wirl::IpGenPrefix::parse(text(n));
        if (!p) fail(n, fmt::format("'{}' is not an address prefix", text(n)));
        if (p->family() != family) {
            fail(n, fmt::format("'{}' is not an {} prefix", text(n), Wirl::familyName(family)));
        }
        return *p;
    }
    L3::VrfName vrfName(const YAML::Node& n) const {
        const auto name = text(n);
        for (char c : name) {
            const auto u = static_cast<unsigned char>(c);
            if (u <= ' ' || u == 0x7f) fail(n, "a VRF name has a space or control character");
        }
        try {
            return L3::VrfName(name);
        } catch (const std::exception& e) {
            fail(n, e.what());
        }
    }
    template <class F>
    void list(const YAML::Node& n, const char* what, F&& each) const {
        if (!n) return;
        if (!n.IsSequence()) fail(n, fmt::format("{} must be a list", what));
        for (const auto& item : n) each(item);
    }

private:
    std::string file_;
};

nlohmann::ordered_json toJson(const YAML::Node& n) {
    switch (n.Type()) {
        case YAML::NodeType::Sequence: {
            auto out = nlohmann::ordered_json::array();
            for (const auto& i : n) out.push_back(toJson(i));
            return out;
        }
        case YAML::NodeType::Map: {
            auto out = nlohmann::ordered_json::object();
            for (const auto& kv : n) out[kv.first.as<std::string>()] = toJson(kv.second);
            return out;
        }
        case YAML::NodeType::Scalar:
            return n.Scalar();
        default:
            return nullptr;
    }
}

const std::map<std::string, Output> outputNames = {
    {"routes", Output::routes},
    {"join-prune", Output::joinPrune},
    {"forwarding", Output::forwarding},
    {"counters", Output::counters},
    {"register", Output::register_},
    {"spt-threshold", Output::sptThreshold},
    {"trace", Output::trace},
    {"events", Output::events},
    {"downstream", Output::downstream},
    {"asserts", Output::asserts},
    {"sent", Output::sent},
    {"membership", Output::membership},
    {"rp", Output::rp},
    {"neighbors", Output::neighbors},
    {"interfaces", Output::interfaces},
};

class Parser {
public:
    Parser(Reader& r, Scenario& s) : r_(r), s_(s) {}

    void top(const YAML::Node& root) {
        r_.keys(root, {"agent", "vrfs", "events", "until"}, "the scenario");
        const auto agent = r_.text(r_.need(root, "agent", "the scenario"));
        if (agent == "ipv4") {
            s_.family = Wirl::AddressFamily::ipv4;
        } else if (agent == "ipv6") {
            s_.family = Wirl::AddressFamily::ipv6;
        } else {
            r_.fail(root["agent"], "agent must be ipv4 or ipv6");
        }
        r_.list(r_.need(root, "vrfs", "the scenario"), "vrfs",
                [&](const YAML::Node& v) { vrf(v); });
        if (s_.vrfs.empty()) r_.fail(root["vrfs"], "at least one VRF is needed");
        double last = 0;
        r_.list(root["events"], "events", [&](const YAML::Node& e) {
            Event ev = event(e);
            if (ev.at < last) {
                r_.fail(e["at"], fmt::format("time goes backwards ({} after {})", ev.at, last));
            }
            last = ev.at;
            s_.events.push_back(std::move(ev));
        });
        s_.until = last;
        if (auto u = root["until"]) {
            s_.until = r_.time(u, "until");
            if (s_.until < last) r_.fail(u, "until is before the last event");
        }
    }

private:
    void vrf(const YAML::Node& n) {
        r_.keys(n,
                {"name", "ssm-range", "rp", "local-addresses", "interfaces", "neighbors", "routes"},
                "a VRF");
        VrfSpec v;
        v.name = r_.vrfName(r_.need(n, "name", "a VRF"));
        if (s_.vrf(v.name)) r_.fail(n["name"], fmt::format("VRF {} is defined twice", v.name));
        const auto fam = s_.family;
        if (auto ssm = n["ssm-range"]) {
            v.ssmRange.emplace();
            r_.list(ssm, "ssm-range",
                    [&](const YAML::Node& p) { v.ssmRange->push_back(r_.prefix(p, fam)); });
        }
        r_.list(n["rp"], "rp", [&](const YAML::Node& rp) { v.rps.push_back(rpSpec(rp, false)); });
        r_.list(n["local-addresses"], "local-addresses",
                [&](const YAML::Node& a) { v.localAddresses.push_back(r_.addr(a, fam)); });
        r_.list(n["interfaces"], "interfaces", [&](const YAML::Node& i) {
            r_.keys(i,
                    {"name", "address", "dr", "override-interval", "assert-timeout",
                     "assert-override-interval"},
                    "an interface");
            InterfaceSpec def;
            def.name = interfaceName(r_.need(i, "name", "an interface"));
            if (v.interface(def.name)) r_.fail(i["name"], "interface defined twice");
            const auto addrNode = r_.need(i, "address", "an interface");
            const auto text = r_.text(addrNode);
            const auto slash = text.find('/');
            def.address = r_.prefix(addrNode, fam);
            if (slash == std::string::npos)
                r_.fail(addrNode, "an interface address needs a /length");
            auto a = Wirl::IpGenAddr::parse(text.substr(0, slash));
            def.addr = *a;
            if (auto d = i["dr"]) def.dr = r_.flag(d);
            // The override interval travels in milliseconds in 16 bits (RFC 7761
            // 4.9.1, LAN Prune Delay option).
            if (auto o = i["override-interval"]) {
                def.overrideInterval = r_.number(o, 0, 65.535, "override-interval");
            }
            if (auto t = i["assert-timeout"]) {
                def.assertTimeout = r_.count(t, 65535, "assert-timeout");
                if (def.assertTimeout == 0) r_.fail(t, "assert-timeout must be at least 1");
            }
            if (auto t = i["assert-override-interval"]) {
                def.assertOverrideInterval = r_.count(t, 65535, "assert-override-interval");
            }
            // The assert timer runs for the timeout less the override interval.
            if (def.assertOverrideInterval >= def.assertTimeout) {
                r_.fail(i, fmt::format("assert-override-interval ({}) must be below assert-timeout "
                                       "({})",
                                       def.assertOverrideInterval, def.assertTimeout));
            }
            v.interfaces.push_back(def);
        });
        r_.list(n["neighbors"], "neighbors", [&](const YAML::Node& nb) {
            r_.keys(nb, {"interface", "address", "gen-id"}, "a neighbor");
            NeighborSpec def;
            def.interface = knownIntf(v, r_.need(nb, "interface", "a neighbor"));
            def.address = r_.addr(r_.need(nb, "address", "a neighbor"), fam);
            if (auto g = nb["gen-id"]) def.genId = r_.count(g, 0xffffffff, "gen-id");
            v.neighbors.push_back(def);
        });
        r_.list(n["routes"], "routes",
                [&](const YAML::Node& rt) { v.routes.push_back(routeSpec(v, rt, false)); });
        s_.vrfs.push_back(std::move(v));
    }

    // In an event the body may also name the VRF.
    RpSpec rpSpec(const YAML::Node& n, bool event) {
        if (event) {
            r_.keys(n, {"vrf", "group", "address"}, "an RP mapping");
        } else {
            r_.keys(n, {"group", "address"}, "an RP mapping");
        }
        RpSpec rp;
        rp.groups = r_.prefix(r_.need(n, "group", "an RP mapping"), s_.family);
        rp.address = r_.addr(r_.need(n, "address", "an RP mapping"), s_.family);
        return rp;
    }

    UnicastRouteSpec routeSpec(const VrfSpec& v, const YAML::Node& n, bool event) {
        if (event) {
            r_.keys(n, {"vrf", "prefix", "interface", "next-hop", "preference", "metric"},
                    "a unicast route");
        } else {
            r_.keys(n, {"prefix", "interface", "next-hop", "preference", "metric"},
                    "a unicast route");
        }
        UnicastRouteSpec rt;
        rt.prefix = r_.prefix(r_.need(n, "prefix", "a unicast route"), s_.family);
        rt.interface = knownIntf(v, r_.need(n, "interface", "a unicast route"));
        rt.nextHop = Wirl::IpGenAddr::zero(s_.family);
        if (auto nh = n["next-hop"]) rt.nextHop = r_.addr(nh, s_.family);
        // The top bit of an assert preference is the RPT bit.
        if (auto p = n["preference"]) rt.preference = r_.count(p, 0x7fffffff, "preference");
        if (auto m = n["metric"]) rt.metric = r_.count(m, 0xffffffff, "metric");
        return rt;
    }

    // A name for a new interface. Register0 and Null0 are the agent's own
    // pseudo-interfaces and the empty name is no interface at all.
    Wirl::IntfId interfaceName(const YAML::Node& n) {
        const auto name = r_.text(n);
        if (name.empty()) r_.fail(n, "an interface name is empty");
        if (name == Wirl::IntfId::register0().name() || name == Wirl::IntfId::null0().name()) {
            r_.fail(n, fmt::format("'{}' is reserved for the agent's pseudo-interface", name));
        }
        if (name.size() > maxInterfaceName) {
            r_.fail(n, fmt::format("an interface name is longer than {} bytes", maxInterfaceName));
        }
        for (char c : name) {
            const auto u = static_cast<unsigned char>(c);
            if (u <= ' ' || u == 0x7f) {
                r_.fail(n, "an interface name has a space or control character");
            }
        }
        return Wirl::IntfId(name);
    }

    Wirl::IntfId knownIntf(const VrfSpec& v, const YAML::Node& n) {
        Wirl::IntfId id(r_.text(n));
        if (!v.interface(id)) {
            r_.fail(n,
                    fmt::format("interface {} is not an interface of VRF {}", id.name(), v.name));
        }
        return id;
    }

    // The list of an event that replaces a set: the body itself, or its
    // `key` when the body is a mapping that names the VRF.
    YAML::Node listBody(const YAML::Node& b, const char* key, const char* event) {
        YAML::Node list;
        if (b.IsMap()) {
            r_.keys(b, {"vrf", key}, event);
            list.reset(r_.need(b, key, event));
        } else {
            list.reset(b);
        }
        if (!list.IsSequence()) {
            r_.fail(list,
                    fmt::format("{} takes a list of {} or a mapping (vrf, {})", event, key, key));
        }
        return list;
    }

    const VrfSpec& eventVrf(const YAML::Node& n) {
        if (n.IsMap() && n["vrf"]) {
            const auto v = n["vrf"];
            auto name = r_.vrfName(v);
            const VrfSpec* def = s_.vrf(name);
            if (!def) r_.fail(v, fmt::format("unknown VRF {}", name));
            return *def;
        }
        if (s_.vrfs.size() > 1) r_.fail(n, "name the VRF (the scenario has several)");
        return s_.vrfs.front();
    }

    Event event(const YAML::Node& n) {
        static const std::map<std::string, Event::Kind> kinds = {
            {"join", Event::Kind::join},
            {"leave", Event::Kind::leave},
            {"neighbor-up", Event::Kind::neighborUp},
            {"neighbor-down", Event::Kind::neighborDown},
            {"gen-id", Event::Kind::genId},
            {"dr", Event::Kind::dr},
            {"rpf", Event::Kind::rpf},
            {"rpf-withdraw", Event::Kind::rpfWithdraw},
            {"rp", Event::Kind::rp},
            {"rp-withdraw", Event::Kind::rpWithdraw},
            {"clear", Event::Kind::clear},
            {"rx-join-prune", Event::Kind::rxJoinPrune},
            {"rx-assert", Event::Kind::rxAssert},
            {"clear-forwarding", Event::Kind::clearForwarding},
            {"bidir-ranges", Event::Kind::bidirRanges},
            {"fast-failover-ranges", Event::Kind::fastFailoverRanges},
            {"fast-failover-intfs", Event::Kind::fastFailoverIntfs},
            {"vxlan-intfs", Event::Kind::vxlanIntfs},
            {"data", Event::Kind::data},
            {"register-oif", Event::Kind::registerOif},
            {"no-register-oif", Event::Kind::noRegisterOif},
            {"spt-threshold", Event::Kind::sptThreshold},
            {"hardware-programming", Event::Kind::hwProgramming},
            {"upcall", Event::Kind::upcall},
            {"show", Event::Kind::show},
            {"expect", Event::Kind::expect},
        };
        if (!n.IsMap()) r_.fail(n, "an event must be a mapping");
        Event ev;
        ev.where = r_.where(n);
        ev.at = r_.time(r_.need(n, "at", "an event"), "at");
        YAML::Node body;
        bool haveBody = false;
        for (const auto& kv : n) {
            const auto key = kv.first.as<std::string>();
            if (key == "at") continue;
            auto k = kinds.find(key);
            if (k == kinds.end()) {
                std::vector<std::string> names;
                for (const auto& [name, kind] : kinds) names.push_back(name);
                r_.fail(kv.first, fmt::format("unknown event '{}' (expected one of: {})", key,
                                              fmt::join(names, ", ")));
            }
            if (haveBody) r_.fail(kv.first, "one event per list item");
            ev.kind = k->second;
            body.reset(kv.second);
            haveBody = true;
        }
        if (!haveBody) r_.fail(n, "an event needs something to do besides 'at'");
        eventBody(ev, body);
        return ev;
    }

    void eventBody(Event& ev, const YAML::Node& b) {
        const auto fam = s_.family;
        // These take a list (or a mapping with `vrf`) or nothing; they check
        // their own body.
        const bool ownBody =
            ev.kind == Event::Kind::show || ev.kind == Event::Kind::clear ||
            ev.kind == Event::Kind::clearForwarding || ev.kind == Event::Kind::bidirRanges ||
            ev.kind == Event::Kind::fastFailoverRanges ||
            ev.kind == Event::Kind::fastFailoverIntfs || ev.kind == Event::Kind::vxlanIntfs;
        const bool takesMap = !ownBody;
        if (takesMap && !b.IsMap()) r_.fail(b, "the event's body must be a mapping");
        switch (ev.kind) {
            case Event::Kind::join:
            case Event::Kind::leave: {
                r_.keys(b, {"vrf", "interface", "group", "source", "mode"}, "a membership");
                const VrfSpec& v = eventVrf(b);
                ev.vrf = v.name;
                ev.interface = knownIntf(v, r_.need(b, "interface", "a membership"));
                ev.group = r_.addr(r_.need(b, "group", "a membership"), fam);
                ev.source = Wirl::IpGenAddr::zero(fam);
                if (auto s = b["source"]) ev.source = r_.addr(s, fam);
                if (auto m = b["mode"]) {
                    const auto mode = r_.text(m);
                    if (mode != "include" && mode != "exclude")
                        r_.fail(m, "mode is include or exclude");
                    ev.include = mode == "include";
                }
                return;
            }
            case Event::Kind::neighborUp:
            case Event::Kind::neighborDown:
            case Event::Kind::genId: {
                r_.keys(b, {"vrf", "interface", "address", "gen-id"}, "a neighbor event");
                const VrfSpec& v = eventVrf(b);
                ev.vrf = v.name;
                ev.interface = knownIntf(v, r_.need(b, "interface", "a neighbor event"));
                ev.address = r_.addr(r_.need(b, "address", "a neighbor event"), fam);
                ev.genId = 1;
                if (auto g = b["gen-id"]) ev.genId = r_.count(g, 0xffffffff, "gen-id");
                return;
            }
            case Event::Kind::dr: {
                r_.keys(b, {"vrf", "interface", "dr"}, "a DR event");
                const VrfSpec& v = eventVrf(b);
                ev.vrf = v.name;
                ev.interface = knownIntf(v, r_.need(b, "interface", "a DR event"));
                ev.flag = r_.flag(r_.need(b, "dr", "a DR event"));
                return;
            }
            case Event::Kind::rpf:
            case Event::Kind::rpfWithdraw: {
                const VrfSpec& v = eventVrf(b);
                ev.vrf = v.name;
                if (ev.kind == Event::Kind::rpf) {
                    ev.route = routeSpec(v, b, true);
                } else {
                    r_.keys(b, {"vrf", "prefix"}, "an RPF withdrawal");
                    ev.route.prefix = r_.prefix(r_.need(b, "prefix", "an RPF withdrawal"), fam);
                }
                return;
            }
            case Event::Kind::rp:
            case Event::Kind::rpWithdraw: {
                const VrfSpec& v = eventVrf(b);
                ev.vrf = v.name;
                if (ev.kind == Event::Kind::rp) {
                    ev.rp = rpSpec(b, true);
                } else {
                    r_.keys(b, {"vrf", "group"}, "an RP withdrawal");
                    ev.rp.groups = r_.prefix(r_.need(b, "group", "an RP withdrawal"), fam);
                }
                return;
            }
            case Event::Kind::clear: {
                if (b.IsMap()) {
                    r_.keys(b, {"vrf", "group", "source"}, "a clear command");
                } else if (!b.IsNull()) {
                    r_.fail(b, "clear takes a mapping (vrf, group, source) or nothing");
                }
                const VrfSpec& v = eventVrf(b);
                ev.vrf = v.name;
                if (b.IsMap() && b["group"]) ev.group = r_.addr(b["group"], fam);
                if (b.IsMap() && b["source"]) ev.source = r_.addr(b["source"], fam);
                return;
            }
            case Event::Kind::clearForwarding: {
                if (b.IsMap()) {
                    r_.keys(b, {"vrf"}, "a forwarding clear");
                } else if (!b.IsNull()) {
                    r_.fail(b, "clear-forwarding takes a mapping (vrf) or nothing");
                }
                ev.vrf = eventVrf(b).name;
                return;
            }
            case Event::Kind::bidirRanges:
            case Event::Kind::fastFailoverRanges: {
                const bool bidir = ev.kind == Event::Kind::bidirRanges;
                const YAML::Node list =
                    listBody(b, "groups", bidir ? "bidir-ranges" : "fast-failover-ranges");
                ev.vrf = eventVrf(b).name;
                for (const auto& item : list) {
                    auto p = r_.prefix(item, fam);
                    if (!p.first().isMulticast() || !p.last().isMulticast()) {
                        r_.fail(item,
                                fmt::format("'{}' is not a multicast group range", r_.text(item)));
                    }
                    ev.groups.push_back(p);
                }
                return;
            }
            case Event::Kind::fastFailoverIntfs:
            case Event::Kind::vxlanIntfs: {
                const bool frr = ev.kind == Event::Kind::fastFailoverIntfs;
                const YAML::Node list =
                    listBody(b, "interfaces", frr ? "fast-failover-intfs" : "vxlan-intfs");
                const VrfSpec& v = eventVrf(b);
                ev.vrf = v.name;
                std::set<std::string> seen;
                for (const auto& item : list) {
                    const auto id = knownIntf(v, item);
                    if (!seen.insert(id.name()).second) {
                        r_.fail(item, fmt::format("interface {} is listed twice", id.name()));
                    }
                    ev.interfaces.push_back(id);
                }
                return;
            }
            case Event::Kind::sptThreshold: {
                r_.keys(b, {"vrf", "default", "access-lists"}, "an SPT threshold");
                ev.vrf = eventVrf(b).name;
                ev.flag = true;
                if (auto d = b["default"]) ev.flag = immediate(d);
                std::set<std::string> seen;
                r_.list(b["access-lists"], "access-lists", [&](const YAML::Node& a) {
                    r_.keys(a, {"name", "threshold", "rules"}, "an access list");
                    AccessListSpec l;
                    const auto nameNode = r_.need(a, "name", "an access list");
                    l.name = r_.text(nameNode);
                    if (l.name.empty()) r_.fail(nameNode, "an access-list name is empty");
                    if (!seen.insert(l.name).second) {
                        r_.fail(nameNode, fmt::format("access list {} is listed twice", l.name));
                    }
                    l.immediate = immediate(r_.need(a, "threshold", "an access list"));
                    if (auto rules = a["rules"]) {
                        l.rules.emplace();
                        r_.list(rules, "rules",
                                [&](const YAML::Node& r) { l.rules->push_back(aclRule(r)); });
                    }
                    ev.accessLists.push_back(std::move(l));
                });
                return;
            }
            case Event::Kind::rxJoinPrune:
                return rxJoinPrune(ev, b);
            case Event::Kind::rxAssert:
                return rxAssert(ev, b);
            case Event::Kind::data: {
                const char* what = "a data event";
                r_.keys(b, {"vrf", "source", "group", "interface", "packets"}, what);
                const VrfSpec& v = eventVrf(b);
                ev.vrf = v.name;
                ev.interface = knownIntf(v, r_.need(b, "interface", what));
                ev.source = unicastSource(r_.need(b, "source", what));
                ev.group = multicastGroup(r_.need(b, "group", what));
                if (auto p = b["packets"]) {
                    ev.packets = r_.count(p, 0xffffffff, "packets");
                    if (!ev.packets) r_.fail(p, "packets is at least 1");
                }
                return;
            }
            case Event::Kind::hwProgramming: {
                const char* what = "a hardware-programming event";
                r_.keys(b, {"vrf", "allowed"}, what);
                ev.vrf = eventVrf(b).name;
                ev.flag = r_.flag(r_.need(b, "allowed", what));
                return;
            }
            case Event::Kind::upcall: {
                // What the plane reports is not checked against the VRF or
                // the address ranges: the agent must cope with it.
                const char* what = "an upcall";
                r_.keys(b, {"vrf", "kind", "source", "group", "interface"}, what);
                ev.vrf = eventVrf(b).name;
                const auto kind = r_.need(b, "kind", what);
                const auto k = r_.text(kind);
                if (k != "no-cache" && k != "wrong-vif")
                    r_.fail(kind, "kind is no-cache or wrong-vif");
                ev.flag = k == "wrong-vif";
                ev.source = r_.addr(r_.need(b, "source", what), fam);
                ev.group = r_.addr(r_.need(b, "group", what), fam);
                ev.interface = interfaceName(r_.need(b, "interface", what));
                return;
            }
            case Event::Kind::registerOif:
            case Event::Kind::noRegisterOif: {
                const char* what = ev.kind == Event::Kind::registerOif ? "a register-oif event"
                                                                       : "a no-register-oif event";
                r_.keys(b, {"vrf", "source", "group", "set"}, what);
                const VrfSpec& v = eventVrf(b);
                ev.vrf = v.name;
                ev.source = unicastSource(r_.need(b, "source", what));
                ev.group = multicastGroup(r_.need(b, "group", what));
                ev.flag = true;
                if (auto f = b["set"]) ev.flag = r_.flag(f);
                return;
            }
            case Event::Kind::show: {
                auto one = [&](const YAML::Node& o) {
                    auto it = outputNames.find(r_.text(o));
                    if (it == outputNames.end()) {
                        r_.fail(o,
                                fmt::format("unknown output '{}' (routes, join-prune, forwarding, "
                                            "counters, register, spt-threshold, downstream, "
                                            "asserts, sent, membership, rp, neighbors, "
                                            "interfaces, trace, events)",
                                            r_.text(o)));
                    }
                    ev.outputs.push_back(it->second);
                };
                if (b.IsSequence()) {
                    for (const auto& o : b) one(o);
                } else {
                    one(b);
                }
                return;
            }
            case Event::Kind::expect: {
                for (const auto& kv : b) {
                    auto it = outputNames.find(kv.first.as<std::string>());
                    if (it == outputNames.end()) r_.fail(kv.first, "unknown output to expect");
                    ev.outputs.push_back(it->second);
                }
                ev.expectJson = toJson(b).dump();
                return;
            }
        }
    }

    // A received Join/Prune: a whole message (`groups`, each with its
    // entries) or one entry (`entry`, `action`, ...), which is read as a
    // message of one group with one entry.
    void rxJoinPrune(Event& ev, const YAML::Node& b) {
        const char* what = "a received Join/Prune";
        const auto fam = s_.family;
        const bool whole = bool(b["groups"]);
        if (whole) {
            r_.keys(b, {"vrf", "interface", "from", "upstream-neighbor", "hold-time", "groups"},
                    what);
        } else {
            r_.keys(b,
                    {"vrf", "interface", "from", "upstream-neighbor", "entry", "action", "group",
                     "source", "rp", "hold-time"},
                    what);
        }
        const VrfSpec& v = eventVrf(b);
        ev.vrf = v.name;
        ev.interface = knownIntf(v, r_.need(b, "interface", what));
        ev.address = r_.addr(r_.need(b, "from", what), fam);
        ev.upstream = r_.addr(r_.need(b, "upstream-neighbor", what), fam);
        if (auto h = b["hold-time"]) ev.holdTime = r_.count(h, 65535, "hold-time");
        if (whole) {
            r_.list(b["groups"], "groups",
                    [&](const YAML::Node& g) { ev.jpGroups.push_back(jpGroup(g)); });
            return;
        }
        JoinPruneGroupSpec g;
        g.group = multicastGroup(r_.need(b, "group", what));
        const auto entry = r_.text(r_.need(b, "entry", what));
        if (entry != "wc" && entry != "sg" && entry != "sg-rpt") {
            r_.fail(b["entry"], "entry is wc, sg or sg-rpt");
        }
        const auto action = r_.text(r_.need(b, "action", what));
        if (action != "join" && action != "prune") r_.fail(b["action"], "action is join or prune");
        const bool join = action == "join";
        if (entry == "wc") {
            (join ? g.joinWc : g.pruneWc) = r_.addr(r_.need(b, "rp", what), fam);
        } else {
            const auto source = unicastSource(r_.need(b, "source", what));
            auto& list =
                entry == "sg" ? (join ? g.joinSg : g.pruneSg) : (join ? g.joinSgRpt : g.pruneSgRpt);
            list.push_back(source);
        }
        ev.jpGroups.push_back(std::move(g));
    }

    // A received Assert (RFC 7761 4.9.6): without `source` an Assert(*,G),
    // whose RPT bit is set; `rpt` defaults to that. An AssertCancel is the
    // RPT bit with preference 2147483647 and metric 4294967295.
    void rxAssert(Event& ev, const YAML::Node& b) {
        const char* what = "a received Assert";
        r_.keys(b, {"vrf", "interface", "from", "group", "source", "rpt", "preference", "metric"},
                what);
        const VrfSpec& v = eventVrf(b);
        ev.vrf = v.name;
        ev.interface = knownIntf(v, r_.need(b, "interface", what));
        ev.address = r_.addr(r_.need(b, "from", what), s_.family);
        ev.group = multicastGroup(r_.need(b, "group", what));
        const auto source = b["source"];
        ev.source = source ? unicastSource(source) : Wirl::IpGenAddr::zero(s_.family);
        ev.flag = b["rpt"] ? r_.flag(b["rpt"]) : !source;
        ev.preference = r_.count(r_.need(b, "preference", what), 0x7fffffff, "preference");
        ev.metric = r_.count(r_.need(b, "metric", what), 0xffffffff, "metric");
    }

    // One group's entries of a whole message.
    JoinPruneGroupSpec jpGroup(const YAML::Node& n) {
        const char* what = "a Join/Prune group";
        r_.keys(
            n,
            {"group", "join-wc", "prune-wc", "join-sg", "prune-sg", "join-sg-rpt", "prune-sg-rpt"},
            what);
        JoinPruneGroupSpec g;
        g.group = multicastGroup(r_.need(n, "group", what));
        if (auto rp = n["join-wc"]) g.joinWc = r_.addr(rp, s_.family);
        if (auto rp = n["prune-wc"]) g.pruneWc = r_.addr(rp, s_.family);
        if (g.joinWc && g.pruneWc && *g.joinWc == *g.pruneWc) {
            r_.fail(n["prune-wc"], "join-wc and prune-wc name the same RP");
        }
        const std::pair<const char*, std::vector<Wirl::IpGenAddr>*> lists[] = {
            {"join-sg", &g.joinSg},
            {"prune-sg", &g.pruneSg},
            {"join-sg-rpt", &g.joinSgRpt},
            {"prune-sg-rpt", &g.pruneSgRpt}};
        for (const auto& [key, out] : lists) {
            r_.list(n[key], key, [&](const YAML::Node& s) { out->push_back(unicastSource(s)); });
        }
        return g;
    }
    Wirl::IpGenAddr multicastGroup(const YAML::Node& n) {
        auto g = r_.addr(n, s_.family);
        if (!g.isMulticast()) r_.fail(n, "the group must be multicast");
        return g;
    }
    Wirl::IpGenAddr unicastSource(const YAML::Node& n) {
        auto s = r_.addr(n, s_.family);
        if (!s.isUnicast()) r_.fail(n, "the source must be unicast");
        return s;
    }

    // A switchover threshold: true for immediate, false for never.
    bool immediate(const YAML::Node& n) {
        const auto t = r_.text(n);
        if (t != "immediate" && t != "never") r_.fail(n, "a threshold is immediate or never");
        return t == "immediate";
    }

    // "permit PREFIX" or "deny PREFIX".
    AccessListSpec::Rule aclRule(const YAML::Node& n) {
        const auto t = r_.text(n);
        const auto space = t.find(' ');
        const auto action = t.substr(0, space);
        if (space == std::string::npos || (action != "permit" && action != "deny")) {
            r_.fail(n, "a rule is 'permit PREFIX' or 'deny PREFIX'");
        }
        const auto text = t.substr(space + 1);
        auto p = Wirl::IpGenPrefix::parse(text);
        if (!p) r_.fail(n, fmt::format("'{}' is not an address prefix", text));
        if (p->family() != s_.family) {
            r_.fail(n, fmt::format("'{}' is not an {} prefix", text, Wirl::familyName(s_.family)));
        }
        return {action == "permit", *p};
    }

    Reader& r_;
    Scenario& s_;
};

}  // namespace

const char* outputName(Output o) {
    switch (o) {
        case Output::routes:
            return "routes";
        case Output::joinPrune:
            return "join-prune";
        case Output::forwarding:
            return "forwarding";
        case Output::counters:
            return "counters";
        case Output::register_:
            return "register";
        case Output::sptThreshold:
            return "spt-threshold";
        case Output::downstream:
            return "downstream";
        case Output::asserts:
            return "asserts";
        case Output::sent:
            return "sent";
        case Output::membership:
            return "membership";
        case Output::rp:
            return "rp";
        case Output::neighbors:
            return "neighbors";
        case Output::interfaces:
            return "interfaces";
        case Output::trace:
            return "trace";
        case Output::events:
            return "events";
    }
    return "?";
}

const InterfaceSpec* VrfSpec::interface(Wirl::IntfId i) const {
    for (const auto& def : interfaces) {
        if (def.name == i) return &def;
    }
    return nullptr;
}

const VrfSpec* Scenario::vrf(const L3::VrfName& name) const {
    for (const auto& v : vrfs) {
        if (v.name == name) return &v;
    }
    return nullptr;
}

ScenarioError::ScenarioError(std::string file, int line, int column, std::string message)
    : std::runtime_error(placed(file, line, column, message)),
      file_(std::move(file)),
      line_(line),
      column_(column),
      message_(std::move(message)) {}

Scenario parseScenario(const std::string& text, const std::string& file) {
    if (const auto nul = text.find('\0'); nul != std::string::npos) {
        const auto before = std::string_view(text).substr(0, nul);
        const auto lineStart = before.rfind('\n');
        const int line = 1 + static_cast<int>(std::count(before.begin(), before.end(), '\n'));
        const int column =
            1 + static_cast<int>(lineStart == std::string::npos ? nul : nul - lineStart - 1);
        throw ScenarioError(file, line, column, "not a text file (NUL byte)");
    }
    Reader reader(file);
    Scenario s;
    s.file = file;
    try {
        {
            std::istringstream in(text);
            YAML::Parser parser(in);
            StructureCheck check(file);
            while (parser.HandleNextDocument(check)) {
            }
        }
        const YAML::Node root = YAML::Load(text);
        if (!root || root.IsNull()) throw ScenarioError(file, 0, 0, "the scenario is empty");
        Parser(reader, s).top(root);
    } catch (const YAML::Exception& e) {
        // Anything yaml-cpp itself refuses, and any conversion the checks
        // above did not foresee, still names its place.
        throw errorAt(file, e.mark, e.msg);
    }
    return s;
}

Scenario loadScenario(const std::string& path) {
    auto refuse = [&](const std::string& why) { return ScenarioError(path, 0, 0, why); };
    auto systemError = [&](const char* doing) {
        return refuse(fmt::format("cannot {}: {}", doing, std::strerror(errno)));
    };
    // Checked before opening: opening a FIFO would block, reading a device
    // may never end.
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) throw systemError("read it");
    if (S_ISDIR(st.st_mode)) throw refuse(fmt::format("cannot read it: {}", std::strerror(EISDIR)));
    if (!S_ISREG(st.st_mode)) throw refuse("cannot read it: not a regular file");
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) throw systemError("open it");
    std::string text;
    char buf[65536];
    for (;;) {
        const ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            const int saved = errno;
            ::close(fd);
            errno = saved;
            throw systemError("read it");
        }
        if (n == 0) break;
        text.append(buf, static_cast<std::size_t>(n));
        if (text.size() > maxScenarioBytes) {
            ::close(fd);
            throw refuse(fmt::format("larger than {} bytes", maxScenarioBytes));
        }
    }
    ::close(fd);
    return parseScenario(text, path);
}

}  // namespace Driver
