// Route counts: the three gauges exist from creation and follow their sets.
#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "pimsm/route/route_count_sm.h"
#include "pimsm/test_vrf.h"

namespace {

using namespace Routing::Pim::SparseMode;
using Routing::Pim::RouteKey;
namespace Tidal = Routing::Pim::SparseMode::Tidal;

RouteKey key(int n) {
    return RouteKey(*Wirl::IpGenAddr::parse(fmt::format("10.1.0.{}", n)),
                    *Wirl::IpGenAddr::parse("239.1.1.1"));
}

TEST(RouteCountSm, CountersStartAtZeroAndFollowTheirSets) {
    Testing::TestVrf vrf;
    LocalStatus* ls = &vrf.localStatus();
    Routing::Pim::RpfStatus* rpf = &vrf.rpfStatus();
    Tidal::Status* tidal = vrf.ctx().routeCounts;
    const auto count = [&](Tidal::RouteCounterKind kind, const Tidal::Status& from) {
        const Tidal::RouteCounterKey k{kind, 0};
        EXPECT_TRUE(from.routeCounterHas(k));
        return from.routeCounter(k).value;
    };
    for (auto kind :
         {Tidal::unresolvedRouteCount, Tidal::toBeDeletedRouteCount, Tidal::switchingRouteCount}) {
        EXPECT_EQ(count(kind, *tidal), 0u);
    }
    EXPECT_EQ(tidal->routeCounterSize(), 3u);

    // A machine started over a set that is not empty counts what is there.
    ls->switchingRouteIs(key(9));
    auto started = Cask::make<Tidal::Status>();
    VrfContext ctx = vrf.ctx();
    ctx.routeCounts = started.get();
    auto late = routeCountSmFactory(ctx);
    EXPECT_EQ(count(Tidal::switchingRouteCount, *started), 1u);
    EXPECT_EQ(count(Tidal::unresolvedRouteCount, *started), 0u);

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
        const auto start = count(c.kind, *tidal);
        c.add(key(1));
        c.add(key(2));
        c.add(key(2));  // already there
        EXPECT_EQ(count(c.kind, *tidal), start + 2);
        c.del(key(1));
        EXPECT_EQ(count(c.kind, *tidal), start + 1);
        c.del(key(2));
        c.del(key(3));  // never there
        EXPECT_EQ(count(c.kind, *tidal), start);
    }
}

}  // namespace
