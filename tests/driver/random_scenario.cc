#include "driver/random_scenario.h"

#include <random>

#include <fmt/format.h>

#include "wirl/ip_gen_addr.h"
#include "wirl/ip_gen_prefix.h"

namespace PimsmTest {

namespace {

Wirl::IpGenAddr addr(const std::string& text) {
    return *Wirl::IpGenAddr::parse(text);
}
Wirl::IpGenPrefix prefix(const std::string& text) {
    return *Wirl::IpGenPrefix::parse(text);
}

// The addresses one family's scenarios draw from. Interface k (1-based) has
// the subnet of `intfAddr(k)` and neighbours `nbrAddr(k, 2)` and
// `nbrAddr(k, 3)`.
struct Pool {
    bool ipv6;
    std::vector<std::string> rps;       // [1] may be made a local address
    std::vector<std::string> rpRanges;  // nested, so the longest match matters
    std::vector<std::string> groups;    // incl. link-local and SSM-range groups
    std::vector<std::string> sources;
    std::vector<std::string> uribPrefixes;
    std::vector<std::string> ssmRange;  // when configured (default range kept in it)

    std::string intfPrefix(int k) const {
        return ipv6 ? fmt::format("2001:db8:{}::1/64", k) : fmt::format("10.{}.0.1/24", k);
    }
    std::string intfAddr(int k) const {
        return ipv6 ? fmt::format("2001:db8:{}::1", k) : fmt::format("10.{}.0.1", k);
    }
    std::string nbrAddr(int k, int n) const {
        return ipv6 ? fmt::format("fe80::{}:{}", k, n) : fmt::format("10.{}.0.{}", k, n);
    }
};

const Pool& pool(bool ipv6) {
    static const Pool v4{false,
                         {"192.0.2.1", "192.0.2.2", "198.51.100.9"},
                         {"224.0.0.0/4", "239.0.0.0/8", "239.1.0.0/16"},
                         {"239.1.1.1", "239.1.2.3", "239.2.2.2", "225.1.1.1", "224.0.0.5",
                          "224.0.0.251", "232.1.1.1", "239.232.0.1"},
                         {"172.16.1.10", "172.16.2.20", "10.1.0.50"},
                         {"192.0.2.0/24", "192.0.2.0/28", "198.51.100.0/24", "172.16.0.0/16",
                          "172.16.2.0/24", "0.0.0.0/0"},
                         {"232.0.0.0/8", "239.232.0.0/16"}};
    static const Pool v6{true,
                         {"2001:db8:ff::1", "2001:db8:ff::2", "2001:db8:ee::9"},
                         {"ff00::/8", "ff0e::/16", "ff0e:1::/32"},
                         {"ff0e:1::1", "ff0e:1::2:3", "ff0e::2:2", "ff05::1:1", "ff02::5",
                          "ff02::1:3", "ff3e::1:1", "ff0e:232::1"},
                         {"2001:db8:99::10", "2001:db8:98::20", "2001:db8:1::50"},
                         {"2001:db8:ff::/48", "2001:db8:ff::/64", "2001:db8:ee::/48",
                          "2001:db8:90::/44", "2001:db8:98::/48", "::/0"},
                         {"ff3e::/32", "ff0e:232::/32"}};
    return ipv6 ? v6 : v4;
}

// YAML plain scalars may not start with ':'.
std::string q(const std::string& s) {
    return s.starts_with(":") ? "\"" + s + "\"" : s;
}

class Generator {
public:
    explicit Generator(std::uint64_t seed) : rng_(seed) { out_.seed = seed; }

    RandomScenario run() {
        topology();
        const int events = 20 + static_cast<int>(below(61));
        std::int64_t ms = 1000;
        std::int64_t batchMs = -1;  // time of the batch being written
        for (int i = 0; i < events; ++i) {
            ms += gap();
            if (ms != batchMs) {
                if (batchMs >= 0) checkpoint(batchMs, false);  // after the previous batch
                if (batchMs >= 0 && ms - batchMs >= quietGapMs) checkpoint(ms, true);
                batchMs = ms;
            }
            event(ms);
        }
        checkpoint(batchMs, false);
        const std::int64_t end = batchMs + settleMs;
        checkpoint(end, true, true);
        out_.until = static_cast<double>(end) / 1000;
        return std::move(out_);
    }

    // Time after the last input change by which every batched review has
    // run (each review waits at most about half a second for a credit, and
    // a change passes through at most a few reviews in a row).
    static constexpr std::int64_t quietGapMs = 2500;
    // The final settle: beyond every hold time (210 s) and review.
    static constexpr std::int64_t settleMs = 250000;

private:
    std::uint64_t below(std::uint64_t n) { return rng_() % n; }
    bool chance(unsigned percent) { return below(100) < percent; }
    template <typename T>
    const T& pick(const std::vector<T>& v) {
        return v[below(v.size())];
    }
    std::string intf() { return fmt::format("Ethernet{}", 1 + below(intfs_)); }
    int intfIndex(const std::string& name) { return std::stoi(name.substr(8)); }

    // Milliseconds to the next event: often none (a burst at one instant),
    // often well under a review delay, sometimes long enough to settle.
    std::int64_t gap() {
        const auto r = below(100);
        if (r < 35) return 0;
        if (r < 60) return 1 + static_cast<std::int64_t>(below(1000));
        if (r < 93) return 1000 + static_cast<std::int64_t>(below(9000));
        return 10000 + static_cast<std::int64_t>(below(60000));
    }

    void topology() {
        auto& m = model_;
        m.ipv6 = chance(50);
        p_ = &pool(m.ipv6);
        intfs_ = 2 + static_cast<int>(below(3));
        std::string y =
            fmt::format("agent: {}\nvrfs:\n  - name: default\n", m.ipv6 ? "ipv6" : "ipv4");
        if (chance(30)) {
            m.ssmRange = p_->ssmRange;
            y += fmt::format("    ssm-range: [{}]\n", fmt::join(m.ssmRange, ", "));
        }
        const int ranges = 1 + static_cast<int>(below(2));
        y += "    rp:\n";
        for (int i = 0; i < ranges; ++i) {
            const auto& range = p_->rpRanges[i == 0 ? below(3) : (below(2) + 1)];
            const auto rp = rpAddress();
            m.rp[range] = rp;
            y += fmt::format("      - {{group: {}, address: {}}}\n", q(range), rp);
        }
        if (chance(40)) {
            m.localAddresses.insert(p_->rps[1]);
            y += fmt::format("    local-addresses: [{}]\n", p_->rps[1]);
        }
        y += "    interfaces:\n";
        for (int k = 1; k <= intfs_; ++k) {
            const auto name = fmt::format("Ethernet{}", k);
            m.intfAddr[name] = p_->intfAddr(k);
            m.localAddresses.insert(p_->intfAddr(k));
            m.dr[name] = chance(70);
            y += fmt::format("      - {{name: {}, address: {}{}}}\n", name, p_->intfPrefix(k),
                             m.dr[name] ? "" : ", dr: false");
        }
        const int nbrs = static_cast<int>(below(4));
        if (nbrs) y += "    neighbors:\n";
        for (int i = 0; i < nbrs; ++i) {
            const auto name = intf();
            const auto a = p_->nbrAddr(intfIndex(name), 2 + static_cast<int>(below(2)));
            if (m.neighbors.contains({name, a})) continue;
            m.neighbors.insert({name, a});
            y += fmt::format("      - {{interface: {}, address: {}}}\n", name, a);
        }
        const int routes = 1 + static_cast<int>(below(4));
        y += "    routes:\n";
        for (int i = 0; i < routes; ++i) {
            const auto& pfx = i == 0 ? p_->uribPrefixes[0] : pick(p_->uribPrefixes);
            y += "      - " + routeBody(pfx) + "\n";
        }
        out_.head = y;
    }

    std::string rpAddress() {
        // Sometimes an interface address: this router is then the RP.
        if (chance(15)) return p_->intfAddr(1 + static_cast<int>(below(intfs_)));
        return pick(p_->rps);
    }

    // A unicast route for `pfx` (recorded in the model) as a YAML mapping.
    std::string routeBody(const std::string& pfx) {
        const auto name = intf();
        Model::UnicastRoute r{name, ""};
        if (!chance(25)) r.nextHop = p_->nbrAddr(intfIndex(name), 2 + static_cast<int>(below(2)));
        model_.urib[pfx] = r;
        return fmt::format("{{prefix: {}, interface: {}{}}}", q(pfx), name,
                           r.nextHop.empty() ? "" : ", next-hop: " + r.nextHop);
    }

    void add(std::int64_t ms, std::string body) {
        out_.lines.push_back({static_cast<double>(ms) / 1000, std::move(body), -1});
    }

    void checkpoint(std::int64_t ms, bool quiet, bool final = false) {
        const int index = static_cast<int>(out_.checkpoints.size());
        out_.checkpoints.push_back({static_cast<double>(ms) / 1000, quiet, final, model_});
        out_.lines.push_back(
            {static_cast<double>(ms) / 1000, "show: [routes, join-prune, forwarding]", index});
    }

    // Which existing key of a map, or nothing.
    template <typename M>
    std::optional<typename M::key_type> existing(const M& m) {
        if (m.empty()) return std::nullopt;
        auto it = m.begin();
        std::advance(it, below(m.size()));
        return *it;
    }
    template <typename M>
    std::optional<typename M::key_type> existingKey(const M& m) {
        if (m.empty()) return std::nullopt;
        auto it = m.begin();
        std::advance(it, below(m.size()));
        return it->first;
    }

    std::vector<std::optional<std::string>> rpOfEach() const {
        std::vector<std::optional<std::string>> out;
        for (const auto& g : p_->groups) out.push_back(model_.rpOf(g));
        return out;
    }
    void noteRpChanges(const std::vector<std::optional<std::string>>& before) {
        for (std::size_t i = 0; i < before.size(); ++i) {
            if (model_.rpOf(p_->groups[i]) != before[i]) model_.rpChanged.insert(p_->groups[i]);
        }
    }

    void event(std::int64_t ms) {
        auto& m = model_;
        const auto r = below(100);
        if (r < 25) {  // join
            const auto name = intf();
            const auto& g = pick(p_->groups);
            std::string src = chance(50) ? "" : pick(p_->sources);
            const bool include = src.empty() || chance(70);
            auto it = m.members.find({src, g, name});
            // Reporting the same membership again changes nothing in the table.
            if (it == m.members.end() || it->second.include != include) {
                m.members[{src, g, name}] = {include, ms};
            }
            add(ms, fmt::format("join: {{interface: {}, group: {}{}{}}}", name, g,
                                src.empty() ? "" : ", source: " + src,
                                include ? "" : ", mode: exclude"));
        } else if (r < 40) {  // leave
            std::tuple<std::string, std::string, std::string> key;
            if (auto k = existingKey(m.members); k && chance(85)) {
                key = *k;
            } else {
                key = {chance(50) ? "" : pick(p_->sources), pick(p_->groups), intf()};
            }
            m.members.erase(key);
            const auto& [src, g, name] = key;
            add(ms, fmt::format("leave: {{interface: {}, group: {}{}}}", name, g,
                                src.empty() ? "" : ", source: " + src));
        } else if (r < 48) {  // neighbor-up (new or refreshed)
            const auto name = intf();
            const auto a = p_->nbrAddr(intfIndex(name), 2 + static_cast<int>(below(2)));
            m.neighbors.insert({name, a});
            add(ms, fmt::format("neighbor-up: {{interface: {}, address: {}, gen-id: {}}}", name, a,
                                1 + below(3)));
        } else if (r < 54) {  // neighbor-down
            std::pair<std::string, std::string> n;
            if (auto k = existing(m.neighbors); k && chance(85)) {
                n = *k;
            } else {
                const auto name = intf();
                n = {name, p_->nbrAddr(intfIndex(name), 2 + static_cast<int>(below(2)))};
            }
            m.neighbors.erase(n);
            add(ms,
                fmt::format("neighbor-down: {{interface: {}, address: {}}}", n.first, n.second));
        } else if (r < 58) {  // gen-id of a neighbour that is up
            auto k = existing(m.neighbors);
            if (!k) return event(ms);
            add(ms, fmt::format("gen-id: {{interface: {}, address: {}, gen-id: {}}}", k->first,
                                k->second, 2 + below(1000)));
        } else if (r < 63) {  // DR role
            const auto name = intf();
            const bool dr = chance(20) ? m.dr[name] : !m.dr[name];
            m.dr[name] = dr;
            add(ms, fmt::format("dr: {{interface: {}, dr: {}}}", name, dr));
        } else if (r < 70) {  // RPF route added or replaced
            add(ms, "rpf: " + routeBody(pick(p_->uribPrefixes)));
        } else if (r < 73) {  // RPF route removed
            std::string pfx;
            if (auto k = existingKey(m.urib); k && chance(80)) {
                pfx = *k;
            } else {
                pfx = pick(p_->uribPrefixes);
            }
            m.urib.erase(pfx);
            add(ms, fmt::format("rpf-withdraw: {{prefix: {}}}", q(pfx)));
        } else if (r < 78) {  // RP mapping added or replaced
            const auto& range = pick(p_->rpRanges);
            const auto rp = rpAddress();
            const auto before = rpOfEach();
            m.rp[range] = rp;
            noteRpChanges(before);
            add(ms, fmt::format("rp: {{group: {}, address: {}}}", q(range), rp));
        } else if (r < 81) {  // RP mapping removed
            std::string range;
            if (auto k = existingKey(m.rp); k && chance(80)) {
                range = *k;
            } else {
                range = pick(p_->rpRanges);
            }
            const auto before = rpOfEach();
            m.rp.erase(range);
            noteRpChanges(before);
            add(ms, fmt::format("rp-withdraw: {{group: {}}}", q(range)));
        } else if (r < 86) {  // clear
            const auto kind = below(3);
            const auto& g = pick(p_->groups);
            const auto& s = pick(p_->sources);
            // A clear changes no input: the routes come back from the
            // membership table, every receiver included.
            if (kind == 0) {
                add(ms, "clear: {}");
            } else if (kind == 1) {
                add(ms, fmt::format("clear: {{group: {}}}", g));
            } else {
                add(ms, fmt::format("clear: {{group: {}, source: {}}}", g, s));
            }
        } else {  // a Join/Prune entry from another router on the link
            const auto name = intf();
            const int k = intfIndex(name);
            const int to = 2 + static_cast<int>(below(2));
            const auto from = chance(80) ? p_->nbrAddr(k, 5 - to) : p_->nbrAddr(k, 7);
            const auto& g = pick(p_->groups);
            const auto entry = below(10);
            std::string what;
            if (entry < 7) {
                auto rp = m.rpOf(g);
                what = fmt::format("entry: wc, rp: {}", rp && chance(80) ? *rp : pick(p_->rps));
            } else {
                what = fmt::format("entry: {}, source: {}", entry < 9 ? "sg" : "sg-rpt",
                                   pick(p_->sources));
            }
            add(ms,
                fmt::format("rx-join-prune: {{interface: {}, from: {}, upstream-neighbor: {}, "
                            "action: {}, group: {}, {}{}}}",
                            name, from, p_->nbrAddr(k, to), chance(50) ? "join" : "prune", g, what,
                            chance(20) ? fmt::format(", hold-time: {}", below(300)) : ""));
        }
    }

    std::mt19937_64 rng_;
    const Pool* p_ = nullptr;
    int intfs_ = 2;
    Model model_;
    RandomScenario out_;
};

}  // namespace

bool Model::linkLocal(const std::string& group) const {
    // 224.0.0.0/24 and the interface- and link-local scopes ff01::/16, ff02::/16.
    const auto g = addr(group);
    if (!ipv6) return prefix("224.0.0.0/24").contains(g);
    return prefix("ff01::/16").contains(g) || prefix("ff02::/16").contains(g);
}

bool Model::ssm(const std::string& group) const {
    const auto g = addr(group);
    if (!ssmRange.empty()) {
        for (const auto& p : ssmRange) {
            if (prefix(p).contains(g)) return true;
        }
        return false;
    }
    if (!ipv6) return prefix("232.0.0.0/8").contains(g);
    const auto b = g.bytes();  // ff3x::/32
    return b[0] == 0xff && (b[1] >> 4) == 3 && b[2] == 0 && b[3] == 0;
}

std::optional<std::string> Model::rpOf(const std::string& group) const {
    std::optional<std::string> best;
    unsigned bestLen = 0;
    for (const auto& [range, rpAddr] : rp) {
        const auto p = prefix(range);
        if (p.contains(addr(group)) && (!best || p.length() > bestLen)) {
            best = rpAddr;
            bestLen = p.length();
        }
    }
    return best;
}

const Model::UnicastRoute* Model::lookup(const std::string& a) const {
    const UnicastRoute* best = nullptr;
    unsigned bestLen = 0;
    for (const auto& [pfx, route] : urib) {
        const auto p = prefix(pfx);
        if (p.contains(addr(a)) && (!best || p.length() > bestLen)) {
            best = &route;
            bestLen = p.length();
        }
    }
    return best;
}

std::string RandomScenario::yaml(int only) const {
    std::string y = head;
    y += fmt::format("until: {:.3f}\nevents:\n", until);
    for (const auto& l : lines) {
        if (l.checkpoint >= 0 && only != -2 && l.checkpoint != only) continue;
        y += fmt::format("  - at: {:.3f}\n    {}\n", l.at, l.body);
    }
    return y;
}

RandomScenario generateScenario(std::uint64_t seed) {
    return Generator(seed).run();
}

}  // namespace PimsmTest
