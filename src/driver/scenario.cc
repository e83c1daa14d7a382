#include "driver/scenario.h"

#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include <fmt/format.h>
#include <yaml-cpp/yaml.h>
#include <nlohmann/json.hpp>

namespace Driver {

namespace {

// Reads YAML nodes of one file, turning every problem into a ScenarioError
// that points at the offending node.
class Reader {
public:
    explicit Reader(std::string file) : file_(std::move(file)) {}

    std::string where(const YAML::Node& n) const {
        const auto m = n.Mark();
        if (m.line < 0) return file_;
        return fmt::format("{}:{}:{}", file_, m.line + 1, m.column + 1);
    }
    [[noreturn]] void fail(const YAML::Node& n, const std::string& what) const {
        throw ScenarioError(where(n) + ": " + what);
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
    double number(const YAML::Node& n) const {
        try {
            return n.as<double>();
        } catch (const YAML::Exception&) {
            fail(n, fmt::format("'{}' is not a number", text(n)));
        }
    }
    unsigned count(const YAML::Node& n) const {
        double v = number(n);
        if (v < 0 || v != static_cast<unsigned>(v)) fail(n, "expected a whole number >= 0");
        return static_cast<unsigned>(v);
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
        try {
            return L3::VrfName(text(n));
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
    {"routes", Output::routes},         {"join-prune", Output::joinPrune},
    {"forwarding", Output::forwarding}, {"counters", Output::counters},
    {"trace", Output::trace},           {"events", Output::events},
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
            s_.until = r_.number(u);
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
        r_.list(n["rp"], "rp", [&](const YAML::Node& rp) { v.rps.push_back(rpSpec(rp)); });
        r_.list(n["local-addresses"], "local-addresses",
                [&](const YAML::Node& a) { v.localAddresses.push_back(r_.addr(a, fam)); });
        r_.list(n["interfaces"], "interfaces", [&](const YAML::Node& i) {
            r_.keys(i,
                    {"name", "address", "dr", "override-interval", "assert-timeout",
                     "assert-override-interval"},
                    "an interface");
            InterfaceSpec def;
            def.name = Wirl::IntfId(r_.text(r_.need(i, "name", "an interface")));
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
            if (auto o = i["override-interval"]) def.overrideInterval = r_.number(o);
            if (auto t = i["assert-timeout"]) def.assertTimeout = r_.count(t);
            if (auto t = i["assert-override-interval"]) def.assertOverrideInterval = r_.count(t);
            v.interfaces.push_back(def);
        });
        r_.list(n["neighbors"], "neighbors", [&](const YAML::Node& nb) {
            r_.keys(nb, {"interface", "address", "gen-id"}, "a neighbor");
            NeighborSpec def;
            def.interface = knownIntf(v, r_.need(nb, "interface", "a neighbor"));
            def.address = r_.addr(r_.need(nb, "address", "a neighbor"), fam);
            if (auto g = nb["gen-id"]) def.genId = r_.count(g);
            v.neighbors.push_back(def);
        });
        r_.list(n["routes"], "routes",
                [&](const YAML::Node& rt) { v.routes.push_back(routeSpec(v, rt)); });
        s_.vrfs.push_back(std::move(v));
    }

    RpSpec rpSpec(const YAML::Node& n) {
        r_.keys(n, {"group", "address"}, "an RP mapping");
        RpSpec rp;
        rp.groups = r_.prefix(r_.need(n, "group", "an RP mapping"), s_.family);
        rp.address = r_.addr(r_.need(n, "address", "an RP mapping"), s_.family);
        return rp;
    }

    UnicastRouteSpec routeSpec(const VrfSpec& v, const YAML::Node& n) {
        r_.keys(n, {"prefix", "interface", "next-hop", "preference", "metric"}, "a unicast route");
        UnicastRouteSpec rt;
        rt.prefix = r_.prefix(r_.need(n, "prefix", "a unicast route"), s_.family);
        rt.interface = knownIntf(v, r_.need(n, "interface", "a unicast route"));
        rt.nextHop = Wirl::IpGenAddr::zero(s_.family);
        if (auto nh = n["next-hop"]) rt.nextHop = r_.addr(nh, s_.family);
        if (auto p = n["preference"]) rt.preference = r_.count(p);
        if (auto m = n["metric"]) rt.metric = r_.count(m);
        return rt;
    }

    Wirl::IntfId knownIntf(const VrfSpec& v, const YAML::Node& n) {
        Wirl::IntfId id(r_.text(n));
        if (!v.interface(id)) {
            r_.fail(n,
                    fmt::format("interface {} is not an interface of VRF {}", id.name(), v.name));
        }
        return id;
    }

    const VrfSpec& eventVrf(const YAML::Node& n) {
        if (auto v = n["vrf"]) {
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
            {"show", Event::Kind::show},
            {"expect", Event::Kind::expect},
        };
        if (!n.IsMap()) r_.fail(n, "an event must be a mapping");
        Event ev;
        ev.where = r_.where(n);
        ev.at = r_.number(r_.need(n, "at", "an event"));
        if (ev.at < 0) r_.fail(n["at"], "time must be >= 0");
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
                if (auto g = b["gen-id"]) ev.genId = r_.count(g);
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
                YAML::Node body = YAML::Clone(b);
                body.remove("vrf");
                if (ev.kind == Event::Kind::rpf) {
                    ev.route = routeSpec(v, body);
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
                    YAML::Node body = YAML::Clone(b);
                    body.remove("vrf");
                    ev.rp = rpSpec(body);
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
            case Event::Kind::rxJoinPrune: {
                r_.keys(b,
                        {"vrf", "interface", "from", "upstream-neighbor", "entry", "action",
                         "group", "source", "rp", "hold-time"},
                        "a received Join/Prune");
                const char* what = "a received Join/Prune";
                const VrfSpec& v = eventVrf(b);
                ev.vrf = v.name;
                ev.interface = knownIntf(v, r_.need(b, "interface", what));
                ev.address = r_.addr(r_.need(b, "from", what), fam);
                ev.upstream = r_.addr(r_.need(b, "upstream-neighbor", what), fam);
                ev.group = r_.addr(r_.need(b, "group", what), fam);
                ev.entry = r_.text(r_.need(b, "entry", what));
                if (ev.entry != "wc" && ev.entry != "sg" && ev.entry != "sg-rpt") {
                    r_.fail(b["entry"], "entry is wc, sg or sg-rpt");
                }
                const auto action = r_.text(r_.need(b, "action", what));
                if (action != "join" && action != "prune")
                    r_.fail(b["action"], "action is join or prune");
                ev.flag = action == "join";
                ev.source = Wirl::IpGenAddr::zero(fam);
                if (ev.entry == "wc") {
                    ev.rpAddress = r_.addr(r_.need(b, "rp", what), fam);
                } else {
                    ev.source = r_.addr(r_.need(b, "source", what), fam);
                }
                if (auto h = b["hold-time"]) ev.holdTime = r_.count(h);
                return;
            }
            case Event::Kind::show: {
                auto one = [&](const YAML::Node& o) {
                    auto it = outputNames.find(r_.text(o));
                    if (it == outputNames.end()) {
                        r_.fail(o,
                                fmt::format("unknown output '{}' (routes, join-prune, forwarding, "
                                            "counters, trace, events)",
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
                if (!b.IsMap()) r_.fail(b, "expect takes a mapping of outputs");
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

Scenario parseScenario(const std::string& text, const std::string& file) {
    Reader reader(file);
    YAML::Node root;
    try {
        root = YAML::Load(text);
    } catch (const YAML::ParserException& e) {
        throw ScenarioError(
            fmt::format("{}:{}:{}: {}", file, e.mark.line + 1, e.mark.column + 1, e.msg));
    }
    Scenario s;
    s.file = file;
    if (!root || root.IsNull()) throw ScenarioError(file + ": the scenario is empty");
    Parser(reader, s).top(root);
    return s;
}

Scenario loadScenario(const std::string& path) {
    std::ifstream in(path);
    if (!in) throw ScenarioError(path + ": cannot be read");
    std::stringstream buf;
    buf << in.rdbuf();
    return parseScenario(buf.str(), path);
}

}  // namespace Driver
