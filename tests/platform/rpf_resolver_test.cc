// The RPF resolver: longest-prefix-match results, the unresolved set, and
// batches that name exactly the routes a unicast change affects.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include "platform/rpf_resolver.h"

namespace {

using namespace Routing::Pim;
using Routing::Unicast::RouteTable;
using Routing::Unicast::UnicastRoute;
using Wirl::IpGenAddr;

IpGenAddr ip(const char* s) {
    return *IpGenAddr::parse(s);
}
UnicastRoute via(const char* prefix, const char* intf, const char* nextHop) {
    return UnicastRoute{
        *Wirl::IpGenPrefix::parse(prefix), Wirl::IntfId(intf), ip(nextHop), 1, 10, false};
}

class Batches : public RpfStatus::Notifiee {
public:
    explicit Batches(RpfStatus& s) : RpfStatus::Notifiee(&s) {}
    void handleRpfRouteChangedCount() override {
        const auto& r = notifier()->rpfRouteChangedRoute();
        seen.emplace_back(r.begin(), r.end());
    }
    std::vector<std::set<RouteKey>> seen;
};

struct Resolver : ::testing::Test {
    Cask::Ptr<RpfConfig> config = Cask::make<RpfConfig>();
    Cask::Ptr<RpfStatus> status = Cask::make<RpfStatus>();
    Cask::Ptr<RouteTable> table = Cask::make<RouteTable>(Wirl::AddressFamily::ipv4);
    RpfResolver resolver{config, status};
    Batches batches{*status};
    const IpGenAddr group = ip("239.1.1.1");
    RouteKey key(const char* source) { return RouteKey(ip(source), group); }
    void request(const RouteKey& k, IpGenAddr target, IpGenAddr nbr = {}) {
        config->rpfConfigInfoIs(k, RpfConfigInfo{target, nbr, {}});
    }
    std::set<RouteKey> unresolved() const {
        return {status->unresolvedRoute().begin(), status->unresolvedRoute().end()};
    }
};

TEST_F(Resolver, ResolvesByLongestPrefixAndReportsOnlyAffectedRoutes) {
    table->routeIs(via("10.0.0.0/8", "eth1", "10.255.0.1"));
    table->routeIs(via("10.1.0.0/16", "eth2", "10.254.0.1"));
    resolver.tableIs(table);
    const auto k1 = key("10.1.2.3"), k2 = key("10.2.0.1"), k3 = key("192.0.2.1");
    const auto rp = RouteKey::wc(group);
    request(k1, ip("10.1.2.3"));
    request(k2, ip("10.2.0.1"));
    request(k3, ip("192.0.2.1"));
    request(rp, IpGenAddr());  // no RP known
    EXPECT_EQ(status->rpf(ip("10.1.2.3")).intf, Wirl::IntfId("eth2"));
    EXPECT_EQ(status->rpf(ip("10.2.0.1")).neighbor, ip("10.255.0.1"));
    EXPECT_FALSE(status->rpfHas(ip("192.0.2.1")));
    EXPECT_EQ(unresolved(), (std::set{k3, rp}));
    EXPECT_TRUE(batches.seen.empty());

    struct Step {
        const char* name;
        std::function<void()> change;
        std::vector<std::set<RouteKey>> batches;
        std::set<RouteKey> unresolved;
    };
    const std::vector<Step> steps = {
        {"more specific route",
         [&] { table->routeIs(via("10.1.2.0/24", "eth3", "10.253.0.1")); },
         {{k1}},
         {k3, rp}},
        {"route toward an unresolved source",
         [&] { table->routeIs(via("192.0.2.0/24", "eth4", "10.252.0.1")); },
         {{k3}},
         {rp}},
        {"route covering nothing tracked",
         [&] { table->routeIs(via("172.16.0.0/12", "eth5", "10.251.0.1")); },
         {},
         {rp}},
        {"covering route withdrawn",
         [&] { table->routeDel(*Wirl::IpGenPrefix::parse("10.0.0.0/8")); },
         {{k2}},
         {k2, rp}},
        {"another table",
         [&] { resolver.tableIs(Cask::make<RouteTable>(Wirl::AddressFamily::ipv4)); },
         {{k1, k3}},
         {k1, k2, k3, rp}},
    };
    for (const auto& s : steps) {
        SCOPED_TRACE(s.name);
        batches.seen.clear();
        s.change();
        EXPECT_EQ(batches.seen, s.batches);
        EXPECT_EQ(unresolved(), s.unresolved);
    }
}

TEST_F(Resolver, SharedAddressesAreTrackedOnceAndDroppedWithTheirLastRoute) {
    resolver.tableIs(table);
    const auto k1 = key("10.1.0.1"), k2 = key("10.1.0.2");
    request(k1, ip("10.1.0.1"), ip("10.9.0.2"));
    request(k2, ip("10.1.0.2"), ip("10.9.0.2"));
    EXPECT_EQ(resolver.trackedAddresses(), 3u);
    table->routeIs(via("10.9.0.0/16", "eth1", "0.0.0.0"));
    ASSERT_EQ(batches.seen.size(), 1u);
    EXPECT_EQ(batches.seen[0], (std::set{k1, k2}));  // both use the neighbour
    EXPECT_EQ(unresolved(), (std::set{k1, k2}));     // their sources still have no route
    config->rpfConfigInfoDel(k1);
    EXPECT_EQ(resolver.trackedAddresses(), 2u);
    EXPECT_TRUE(status->rpfHas(ip("10.9.0.2")));
    EXPECT_EQ(unresolved(), (std::set{k2}));
    config->rpfConfigInfoDel(k2);
    EXPECT_EQ(resolver.trackedAddresses(), 0u);
    EXPECT_FALSE(status->rpfHas(ip("10.9.0.2")));
    EXPECT_TRUE(unresolved().empty());
}

// Routes made one after another mostly make the same request: each is listed
// as unresolved or not by the request's result at the time it comes, also
// when the unicast table changed the result between two of them.
TEST_F(Resolver, RoutesOfOneRequestAreListedByTheResultWhenTheyCome) {
    resolver.tableIs(table);
    const IpGenAddr rp = ip("10.1.0.1"), nbr = ip("10.9.0.2");
    std::set<RouteKey> expected;
    auto join = [&](const char* source, bool resolvedNow) {
        request(key(source), rp, nbr);
        if (!resolvedNow) expected.insert(key(source));
        EXPECT_EQ(unresolved(), expected) << source;
    };
    join("192.0.2.1", false);
    join("192.0.2.2", false);
    table->routeIs(via("10.1.0.0/16", "eth1", "10.9.0.2"));
    expected.clear();
    join("192.0.2.3", true);
    join("192.0.2.4", true);
    table->routeDel(*Wirl::IpGenPrefix::parse("10.1.0.0/16"));
    expected = {key("192.0.2.1"), key("192.0.2.2"), key("192.0.2.3"), key("192.0.2.4")};
    join("192.0.2.5", false);
    EXPECT_EQ(resolver.trackedAddresses(), 2u);
}

// The resolver keeps no copy of the requests: what a route stops asking for
// comes from the value the configuration had before the change, including
// when a watcher changes the same route again while the first change is
// being delivered (before the resolver is told, or after).
TEST_F(Resolver, AddressesARouteStopsAskingForAreReleased) {
    resolver.tableIs(table);
    const auto k = key("10.1.0.1");
    request(k, ip("10.1.0.1"), ip("10.9.0.2"));
    request(k, ip("10.1.0.1"), ip("10.9.0.3"));  // RPF neighbour moved
    EXPECT_EQ(resolver.trackedAddresses(), 2u);
    request(k, ip("10.2.0.1"));
    EXPECT_EQ(resolver.trackedAddresses(), 1u);

    // Rewrites the route's request once, from inside the delivery of a change.
    struct Rewriter : RpfConfig::Notifiee {
        RouteKey key;
        RpfConfigInfo then;
        std::vector<RpfConfigInfo> before;
        void handleRpfConfigInfo(const RouteKey& k) override {
            before.push_back(notifier()->rpfConfigInfoBefore());
            if (k != key || then.target.family() == Wirl::AddressFamily::ipunknown) return;
            notifier()->rpfConfigInfoIs(k, std::exchange(then, {}));
        }
    };
    for (bool rewriterFirst : {false, true}) {
        SCOPED_TRACE(rewriterFirst ? "rewriter told first" : "resolver told first");
        auto cfg = Cask::make<RpfConfig>();
        Rewriter rewriter;
        std::optional<RpfResolver> r;
        if (!rewriterFirst) r.emplace(cfg, status);
        rewriter.notifierIs(cfg.get());
        if (rewriterFirst) r.emplace(cfg, status);
        r->tableIs(table);
        cfg->rpfConfigInfoIs(k, {ip("10.1.0.1"), ip("10.9.0.2"), {}});
        rewriter.key = k;
        rewriter.then = {ip("10.3.0.1"), {}, {}};
        rewriter.before.clear();
        cfg->rpfConfigInfoIs(k, {ip("10.2.0.1"), ip("10.9.0.2"), {}});
        EXPECT_EQ(cfg->rpfConfigInfo(k).target, ip("10.3.0.1"));
        EXPECT_EQ(r->trackedAddresses(), 1u);  // only 10.3.0.1 is still asked for
        ASSERT_EQ(rewriter.before.size(), 2u);
        EXPECT_EQ(rewriter.before[0].target, ip("10.1.0.1"));  // the first change
        EXPECT_EQ(rewriter.before[1].target, ip("10.2.0.1"));  // the rewrite
        EXPECT_EQ(cfg->rpfConfigInfoBefore(), RpfConfigInfo{});
        cfg->rpfConfigInfoDel(k);
        EXPECT_EQ(r->trackedAddresses(), 0u);
    }
}

// Routes share requests: many routes name the same addresses, a request lives
// as long as one route makes it, and a freed request is reused for another.
// Checked against a plain map of routes to what they ask for.
TEST(RpfConfigTest, SharedRequestsAgreeWithAPlainMap) {
    auto cfg = Cask::make<RpfConfig>();
    std::map<RouteKey, RpfConfigInfo> model;
    const std::vector<IpGenAddr> addrs = {IpGenAddr(),    ip("10.0.0.1"), ip("10.0.0.2"),
                                          ip("10.0.0.3"), ip("10.9.0.1"), ip("10.9.0.2"),
                                          ip("0.0.0.0")};
    std::mt19937 rng(7);
    auto pick = [&] { return addrs[rng() % addrs.size()]; };
    auto routeKey = [&] {
        return RouteKey::wc(IpGenAddr::v4(0xef000000u + std::uint32_t(rng() % 200)));
    };
    for (int step = 0; step < 20000; ++step) {
        const RouteKey k = routeKey();
        if (rng() % 3 == 0) {
            cfg->rpfConfigInfoDel(k);
            model.erase(k);
        } else {
            // Mostly the RP and neighbour everyone uses, so requests are shared.
            RpfConfigInfo info{addrs[1], addrs[4], {}};
            if (rng() % 2) info = {pick(), pick(), pick()};
            cfg->rpfConfigInfoIs(k, info);
            model[k] = info;
        }
        if (step % 97 != 0) continue;
        ASSERT_EQ(cfg->rpfConfigInfoSize(), model.size()) << "step " << step;
        std::vector<RpfConfigInfo> distinct;
        for (const auto& [key, info] : model) {
            ASSERT_EQ(cfg->rpfConfigInfo(key), info);
            if (std::find(distinct.begin(), distinct.end(), info) == distinct.end()) {
                distinct.push_back(info);
            }
        }
        EXPECT_EQ(cfg->requestCount(), distinct.size()) << "step " << step;
        for (const auto& a : addrs) {
            if (a.family() == Wirl::AddressFamily::ipunknown) continue;
            std::multiset<RouteKey> want, got;
            for (const auto& [key, info] : model) {
                const auto as = info.addresses();
                if (std::find(as.begin(), as.end(), a) != as.end()) want.insert(key);
            }
            cfg->forEachRouteUsing(a, [&](const RouteKey& key) { got.insert(key); });
            ASSERT_EQ(got, want) << "step " << step;
            EXPECT_EQ(cfg->addressUsed(a), !want.empty());
        }
    }
}

}  // namespace
