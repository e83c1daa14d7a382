// Route counts: the three gauges exist from creation and follow their sets.
#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "pimsm/route/route_count_sm.h"

namespace {

using namespace Routing::Pim::SparseMode;
using Routing::Pim::RouteKey;
namespace Tidal = Routing::Pim::SparseMode::Tidal;

RouteKey key(int n) {
    return RouteKey(*Wirl::IpGenAddr::parse(fmt::format("10.1.0.{}", n)),
                    *Wirl::IpGenAddr::parse("239.1.1.1"));
}

TEST(RouteCountSm, CountersStartAtZeroAndFollowTheirSets) {
    auto ls = localStatusFactory(Wirl::AddressFamily::ipv4);
    auto rpf = Cask::make<Routing::Pim::RpfStatus>();
    auto tidal = Cask::make<Tidal::Status>();
    ls->switchingRouteIs(key(9));  // present before the machine starts
    VrfContext ctx;
    ctx.vrfName = L3::VrfName("red");
    ctx.localStatus = ls.get();
    ctx.rpfStatus = rpf.get();
    ctx.routeCounts = tidal.get();
    auto sm = routeCountSmFactory(ctx);
    const auto count = [&](Tidal::RouteCounterKind kind) {
        const Tidal::RouteCounterKey k{kind, 0};
        EXPECT_TRUE(tidal->routeCounterHas(k));
        return tidal->routeCounter(k).value;
    };
    EXPECT_EQ(count(Tidal::unresolvedRouteCount), 0u);
    EXPECT_EQ(count(Tidal::toBeDeletedRouteCount), 0u);
    EXPECT_EQ(count(Tidal::switchingRouteCount), 1u);
    EXPECT_EQ(tidal->routeCounterSize(), 3u);

    struct Case {
        Tidal::RouteCounterKind kind;
        std::function<void(const RouteKey&)> add, del;
    };
    const std::vector<Case> cases = {
        {Tidal::unresolvedRouteCount, [&](auto& k) { rpf->unresolvedRouteIs(k); },
         [&](auto& k) { rpf->unresolvedRouteDel(k); }},
        {Tidal::toBeDeletedRouteCount, [&](auto& k) { ls->toBeDeletedRouteIs(k); },
         [&](auto& k) { ls->toBeDeletedRouteDel(k); }},
        {Tidal::switchingRouteCount, [&](auto& k) { ls->switchingRouteIs(k); },
         [&](auto& k) { ls->switchingRouteDel(k); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.kind);
        const auto start = count(c.kind);
        c.add(key(1));
        c.add(key(2));
        c.add(key(2));  // already there
        EXPECT_EQ(count(c.kind), start + 2);
        c.del(key(1));
        EXPECT_EQ(count(c.kind), start + 1);
        c.del(key(2));
        c.del(key(3));  // never there
        EXPECT_EQ(count(c.kind), start);
    }
}

}  // namespace
