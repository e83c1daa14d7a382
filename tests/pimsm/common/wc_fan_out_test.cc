// WcFanOut in a VRF of the agent: a (*,G) route is watched only while the machine keeps an
// (S,G) route of its group, and every change of it reaches each of those (S,G) routes,
// including one created after the (*,G) route.
#include "pimsm/common/wc_fan_out.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "pimsm/test_vrf.h"

namespace Routing::Pim::SparseMode::Testing {
namespace {

// A machine keeping a reactor for every (S,G) route whose source it is told to keep (a machine
// may keep some of a group's routes only). Each (*,G) change it hears is logged with the
// sources it reached: "intf d1: 10.1.0.1 10.1.0.2".
class Keeper : public LocalStatus::Notifiee {
public:
    class Rho : public RouteReactor {
    public:
        Rho(Keeper& k, Route& r) : RouteReactor(r), keeper_(k) {}
        void handleDelete() { keeper_.fanOut.sgRemoved(reactorKey()); }

    private:
        Keeper& keeper_;
    };

    explicit Keeper(const VrfContext& ctx) : LocalStatus::Notifiee(ctx.localStatus), ctx_(ctx) {}
    ~Keeper() override { notifierIs(nullptr); }

    void keep(const RouteKey& k) {
        kept_.insert(k);
        handleSgRoute(k);
    }
    void drop(const RouteKey& k) {
        kept_.erase(k);
        routes.del(k);
    }
    void handleSgRoute(const RouteKey& k) override {
        Route* r = kept_.count(k) ? ctx_.localStatus->sgRoute().raw(k) : nullptr;
        if (routes.update(k, r, *this)) fanOut.sgAdded(k);
    }
    void handleWcRoute(const RouteKey& k) override { fanOut.handleWcRoute(k); }
    void handleWcChange(const IpGenAddr& group, const WcChange& c) {
        static constexpr const char* names[] = {"route", "rpf", "intf", "flags"};
        std::string line = names[int(c.what)];
        if (c.what == WcChange::What::route && !c.wc) line += " gone";
        if (!c.intf.isNull()) line += fmt::format(" {}", c.intf);
        line += ":";
        fanOut.forEachSg(group,
                         [&](Rho& rho) { line += fmt::format(" {}", rho.reactorKey().source()); });
        log.push_back(line);
    }

    // The log since the last call.
    std::vector<std::string> take() { return std::exchange(log, {}); }

private:
    const VrfContext& ctx_;
    std::set<RouteKey> kept_;

public:
    std::vector<std::string> log;
    Cask::ReactorMap<RouteKey, Rho> routes;
    WcFanOut<Keeper, Rho> fanOut{*this, ctx_, routes, {{IntfAttr::joinState}, true}};
};

using Log = std::vector<std::string>;

struct FanOut : ::testing::Test {
    TestVrf vrf;
    const IpGenAddr group = ip("239.1.1.1");
    const RouteKey wcKey = wc("239.1.1.1");
    const RouteKey s1 = sg("10.1.0.1", "239.1.1.1");
    const RouteKey s2 = sg("10.1.0.2", "239.1.1.1");
    Keeper keeper{vrf.ctx()};

    // Watchers on the (*,G) route beside the keeper's.
    std::size_t wcWatchers() { return vrf.route(wcKey).notifieeCount(); }
};

TEST_F(FanOut, WatchesTheWcRouteOnlyWhileTheGroupHasAKeptSgRoute) {
    Route& wcRoute = vrf.route(wcKey);
    // The VRF's own upstream machines watch the (*,G) route once the group has a source.
    EXPECT_FALSE(vrf.upstreamSgSm().wcFanOut().watches(group));
    EXPECT_FALSE(vrf.upstreamSgRptSm().wcFanOut().watches(group));
    vrf.route(s1);
    vrf.route(s2);
    EXPECT_TRUE(vrf.upstreamSgSm().wcFanOut().watches(group));
    EXPECT_TRUE(vrf.upstreamSgRptSm().wcFanOut().watches(group));
    const std::size_t others = wcWatchers();
    // Routes of the group the keeper does not keep: no watch, nothing heard.
    wcRoute.routeIntfIs(IntfId("d1"));
    EXPECT_FALSE(keeper.fanOut.watches(group));
    EXPECT_EQ(wcWatchers(), others);
    EXPECT_EQ(keeper.take(), Log{});

    // Starting the watch is no event: the new (S,G) route reads the (*,G) route itself.
    keeper.keep(s1);
    EXPECT_TRUE(keeper.fanOut.watches(group));
    EXPECT_EQ(wcWatchers(), others + 1);
    EXPECT_EQ(keeper.take(), Log{});
    keeper.keep(s2);
    EXPECT_EQ(keeper.fanOut.size(), 1u);

    keeper.drop(s1);
    wcRoute.routeIntfIs(IntfId("d2"));
    EXPECT_EQ(keeper.take(), Log{"intf d2: 10.1.0.2"});
    // The last kept (S,G) route goes: so does the watch, quietly.
    vrf.removeRoute(s2);
    EXPECT_FALSE(keeper.fanOut.watches(group));
    EXPECT_EQ(wcWatchers(), others);
    wcRoute.routeIntfDel(IntfId("d2"));
    EXPECT_EQ(keeper.take(), Log{});
}

TEST_F(FanOut, EveryChangeHeardReachesEachSgRouteIncludingOneCreatedLater) {
    Route& wcRoute = vrf.route(wcKey);
    vrf.route(s1);
    keeper.keep(s1);
    // Created after the (*,G) route.
    keeper.keep(s2);
    vrf.route(s2);
    wcRoute.routeIntfIs(IntfId("d1"));
    wcRoute.umhFrrIs(Cask::make<UpstreamInfo>(&wcRoute, true));
    keeper.take();

    const std::string both = ": 10.1.0.1 10.1.0.2";
    const struct {
        const char* what;
        std::function<void()> change;
        Log heard;
    } cases[] = {
        {"an interface added", [&] { wcRoute.routeIntfIs(IntfId("d2")); }, {"intf d2" + both}},
        {"an attribute heard",
         [&] { wcRoute.routeIntf(IntfId("d1"))->joinStateIs(JoinState::joined); },
         {"intf d1" + both}},
        {"an attribute not heard",
         [&] { wcRoute.routeIntf(IntfId("d1"))->localReceiverExcludeIs(true); },
         {}},
        {"an interface removed", [&] { wcRoute.routeIntfDel(IntfId("d2")); }, {"intf d2" + both}},
        {"RPF'(*,G)", [&] { wcRoute.umh()->rpfIs(TestVrf::upstream("up2")); }, {"rpf" + both}},
        {"the fast-failover RPF", [&] { wcRoute.umhFrr()->rpfIs(TestVrf::upstream("up1")); }, {}},
        {"change flags",
         [&] { wcRoute.changeFlagsIs(ChangeFlags{ChangeFlags::Bit::rpfNbrStatus}); },
         {"flags" + both}},
    };
    for (const auto& c : cases) {
        c.change();
        // Other machines of the VRF may change the route in turn: what they cause is heard too.
        const Log log = keeper.take();
        for (const std::string& want : c.heard) {
            EXPECT_NE(std::find(log.begin(), log.end(), want), log.end()) << c.what << ": " << want;
        }
        if (c.heard.empty()) {
            EXPECT_EQ(log, Log{}) << c.what;
        }
    }
}

TEST_F(FanOut, AWcRouteThatComesOrGoesReachesTheGroup) {
    vrf.route(s1);
    keeper.keep(s1);
    EXPECT_FALSE(keeper.fanOut.watches(group));
    vrf.route(wcKey);
    EXPECT_EQ(keeper.take(), Log{"route: 10.1.0.1"});
    EXPECT_TRUE(keeper.fanOut.watches(group));
    vrf.removeRoute(wcKey);
    EXPECT_EQ(keeper.take(), Log{"route gone: 10.1.0.1"});
    EXPECT_FALSE(keeper.fanOut.watches(group));
}

// Another watcher of the route table creates an (S,G) route of the group while the (*,G)
// route is on its way to the keeper: the keeper hears of the new (S,G) route first, and the
// (*,G) route must still reach the (S,G) routes it already kept.
TEST_F(FanOut, AnSgRouteMadeBeforeTheWcRouteIsHeardDoesNotHideIt) {
    struct Maker : LocalStatus::Notifiee {
        TestVrf& vrf;
        RouteKey make;
        Maker(TestVrf& v, RouteKey k) : LocalStatus::Notifiee(&v.localStatus()), vrf(v), make(k) {}
        void handleWcRoute(const RouteKey&) override { vrf.route(make); }
    };
    vrf.route(s1);
    keeper.keep(s1);
    keeper.keep(s2);
    // Attached after the keeper, it would be heard after it: the keeper is made again.
    Maker maker(vrf, s2);
    Keeper late(vrf.ctx());
    late.keep(s1);
    late.keep(s2);
    vrf.route(wcKey);
    EXPECT_EQ(late.take(), Log{"route: 10.1.0.1 10.1.0.2"});
    EXPECT_EQ(late.fanOut.size(), 1u);
}

}  // namespace
}  // namespace Routing::Pim::SparseMode::Testing
