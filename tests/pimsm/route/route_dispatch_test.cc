// The route as the dispatcher of its interfaces' and upstreams' changes:
// what reaches the route's watchers, and handlers that remove the interface
// or drop the route during a delivery.
#include <gtest/gtest.h>

#include <functional>
#include <utility>
#include <vector>

#include "pimsm/route/route.h"

namespace {

using namespace Routing::Pim::SparseMode;
using Routing::Pim::RouteKey;
using Routing::Pim::Rpf;

const Wirl::IntfId eth1("Ethernet1"), eth2("Ethernet2");

Cask::Ptr<Route> makeRoute() {
    return Cask::make<Route>(RouteKey::wc(*Wirl::IpGenAddr::parse("239.1.1.1")), nullptr, 0.0);
}

// Records what the route passes on; `onIntf` runs after recording.
struct Watcher : Route::Notifiee {
    using Route::Notifiee::Notifiee;
    std::vector<std::pair<Wirl::IntfId, IntfAttr>> intf;
    std::vector<std::pair<bool, UmhAttr>> umh;
    std::function<void(Intf&)> onIntf;
    void handleIntfAttr(Intf& i, IntfAttr a) override {
        intf.emplace_back(i.intfId(), a);
        if (onIntf) onIntf(i);
    }
    void handleUmhAttr(UpstreamInfo& u, UmhAttr a) override { umh.emplace_back(u.frr(), a); }
};

TEST(RouteDispatch, InterfaceChangesReachTheRouteWatchersWithInterfaceAndAttribute) {
    const std::vector<std::pair<IntfAttr, std::function<void(Intf&)>>> cases = {
        {IntfAttr::localMembership, [](Intf& i) { i.localMembershipIs(true); }},
        {IntfAttr::localReceiverInclude, [](Intf& i) { i.localReceiverIncludeIs(true); }},
        {IntfAttr::localReceiverExclude, [](Intf& i) { i.localReceiverExcludeIs(true); }},
        {IntfAttr::forward, [](Intf& i) { i.forwardIs(true); }},
        {IntfAttr::fastForward, [](Intf& i) { i.fastForwardIs(true); }},
        {IntfAttr::joinState, [](Intf& i) { i.joinStateIs(JoinState::joined); }},
        {IntfAttr::rptState, [](Intf& i) { i.rptStateIs(RptState::rptPruned); }},
        {IntfAttr::assertInfo,
         [](Intf& i) {
             i.assertInfoIs(AssertInfo{AssertState::iAmAssertWinner, {}});
         }},
        {IntfAttr::changeFlags,
         [](Intf& i) { i.changeFlagsIs(IntfChangeFlags{IntfChangeFlags::Bit::intfStatus}); }},
    };
    for (const auto& [attr, set] : cases) {
        SCOPED_TRACE(int(attr));
        auto r = makeRoute();
        r->routeIntfIs(eth1);
        Intf& i2 = *r->routeIntfIs(eth2);
        Watcher a(r.get()), b(r.get());
        set(i2);
        set(i2);  // unchanged: nothing
        const std::vector<std::pair<Wirl::IntfId, IntfAttr>> want = {{eth2, attr}};
        EXPECT_EQ(a.intf, want);
        EXPECT_EQ(b.intf, want);
    }
}

TEST(RouteDispatch, OnlyRecordsTheRouteHoldsArePassedOn) {
    auto r = makeRoute();
    Watcher w(r.get());
    auto removed = r->routeIntfIs(eth1);
    r->routeIntfDel(eth1);
    removed->joinStateIs(JoinState::joined);
    removed->lastAssertActionIs(3);  // not an attribute the route passes on
    EXPECT_TRUE(w.intf.empty());

    r->umh()->rpfIs(Rpf{eth2, *Wirl::IpGenAddr::parse("10.0.0.2"), 1, 1});
    auto frr = Cask::make<UpstreamInfo>(r.get(), true);
    frr->rpIs(*Wirl::IpGenAddr::parse("10.9.9.9"));  // not installed yet
    r->umhFrrIs(frr);
    frr->rpfIs(Rpf{eth1, *Wirl::IpGenAddr::parse("10.0.0.1"), 1, 1});
    r->umhFrrIs(nullptr);
    frr->prevRpfIs(Rpf{eth1, {}, 1, 1});  // replaced: no longer the route's
    r->umh()->doUpdateRptState(UpRptState::upRptPruned);
    const std::vector<std::pair<bool, UmhAttr>> want = {
        {false, UmhAttr::rpf}, {true, UmhAttr::rpf}, {false, UmhAttr::upRptState}};
    EXPECT_EQ(w.umh, want);
}

TEST(RouteDispatch, FormerRpfIsWhereRpfPointedBeforeItsLastChange) {
    auto r = makeRoute();
    const Rpf a{eth1, *Wirl::IpGenAddr::parse("10.0.0.1"), 1, 1};
    const Rpf b{eth2, *Wirl::IpGenAddr::parse("10.0.0.2"), 5, 7};
    r->umh()->rpfIs(a);
    r->umh()->rpfIs(b);
    r->umh()->rpfIs(b);  // unchanged: keeps a
    EXPECT_EQ(r->umh()->formerRpf().intf, a.intf);
    EXPECT_EQ(r->umh()->formerRpf().neighbor, a.neighbor);
}

TEST(RouteDispatch, AHandlerMayRemoveTheInterfaceOrDropTheRoute) {
    {
        // The first watcher removes the interface: the second hears nothing.
        auto r = makeRoute();
        Intf* i = r->routeIntfIs(eth1).get();
        Watcher first(r.get()), second(r.get());
        first.onIntf = [&](Intf& x) { r->routeIntfDel(x.intfId()); };
        i->joinStateIs(JoinState::joined);  // the last reference goes meanwhile
        EXPECT_EQ(first.intf.size(), 1u);
        EXPECT_TRUE(second.intf.empty());
        EXPECT_FALSE(r->routeIntfHas(eth1));
    }
    {
        // The first watcher drops the last reference to the route.
        auto r = makeRoute();
        Cask::Ptr<Intf> i = r->routeIntfIs(eth1);
        Watcher first(r.get()), second(r.get());
        first.onIntf = [&](Intf&) { r.reset(); };
        i->joinStateIs(JoinState::joined);
        EXPECT_EQ(first.intf.size(), 1u);
        EXPECT_TRUE(second.intf.empty());
        EXPECT_EQ(i->route(), nullptr);
        i->joinStateIs(JoinState::noInfo);  // no route to pass it to
        EXPECT_EQ(first.notifier(), nullptr);
    }
}

}  // namespace
