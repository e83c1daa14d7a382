// The route records: change sets, the null-insert refusals, route flags and
// route creation through the VRF's route status.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "cask/clock.h"
#include "pimsm/route/local_status.h"
#include "pimsm/route/status.h"

namespace {

using namespace Routing::Pim::SparseMode;
using Routing::Pim::RouteKey;
using Wirl::IpGenAddr;

IpGenAddr addr(const char* s) {
    return *IpGenAddr::parse(s);
}

TEST(ChangeSet, EmptyUntilAnySingleFieldIsSet) {
    const std::vector<std::pair<const char*, std::function<void(ChangeSet&)>>> cases = {
        {"interface change", [](ChangeSet& c) { c.intfChangeIs(Wirl::IntfId("eth1")); }},
        {"neighbor change",
         [](ChangeSet& c) {
             c.neighborChangeIs({Wirl::IntfId("eth1"), addr("10.0.0.2")});
         }},
        {"routes marked", [](ChangeSet& c) { c.routesMarkedForDeletionIs(true); }},
        {"ssm config", [](ChangeSet& c) { c.ssmConfigChangedIs(true); }},
        {"group filter", [](ChangeSet& c) { c.groupFilterStatusChangedIs(true); }},
        {"frr filter", [](ChangeSet& c) { c.frrFilterStatusChangedIs(true); }},
        {"clear flags only",
         [](ChangeSet& c) {
             c.clearInfo()->flagsIs({Routing::Pim::MrouteClearFlags::Bit::allRoutes});
         }},
        {"resurrectMfib only", [](ChangeSet& c) { c.resurrectMfibIs(true); }},
    };
    for (const auto& [name, set] : cases) {
        SCOPED_TRACE(name);
        auto c = LocalStatus::newChangeSet();
        ASSERT_TRUE(c->initialized());
        ASSERT_NE(c->clearInfo(), nullptr);
        EXPECT_TRUE(c->empty());
        set(*c);
        EXPECT_FALSE(c->empty());
    }
    // A clear request whose flags are all zero is no change.
    auto c = LocalStatus::newChangeSet();
    c->clearInfo()->groupIs(addr("239.1.1.1"));
    EXPECT_TRUE(c->empty());
}

TEST(ChangeSet, IntfChangeIsReturnsOneRecordWhoseFlagsAccumulate) {
    auto c = LocalStatus::newChangeSet();
    c->intfChangeIs(Wirl::IntfId("eth1")).drStatusChanged = true;
    c->intfChangeIs(Wirl::IntfId("eth1")).addressChanged = true;
    ASSERT_EQ(c->intfChangeSize(), 1u);
    auto rec = c->intfChange(Wirl::IntfId("eth1"));
    EXPECT_TRUE(rec->drStatusChanged);
    EXPECT_TRUE(rec->addressChanged);
    EXPECT_FALSE(rec->toBeDeleted);
    c->intfChangeDelAll();
    c->clearInfoDel();
    EXPECT_TRUE(c->empty());
}

TEST(LocalStatus, NullRoutesAreRefusedWithTheirMessages) {
    auto ls = localStatusFactory(Wirl::AddressFamily::ipv4);
    EXPECT_TRUE(ls->initialized());
    const RouteKey key(addr("10.1.1.1"), addr("232.1.1.1"));
    try {
        ls->sgRouteIs(key, nullptr);
        FAIL();
    } catch (const Cask::NullInsertError& e) {
        EXPECT_STREQ(e.what(),
                     "null _sgRoute parameter to mutator for "
                     "Routing::Pim::SparseMode::LocalStatus::sgRoute not allowed");
    }
    try {
        ls->wcRouteIs(RouteKey::wc(addr("239.1.1.1")), nullptr);
        FAIL();
    } catch (const Cask::NullInsertError& e) {
        EXPECT_STREQ(e.what(),
                     "null _wcRoute parameter to mutator for "
                     "Routing::Pim::SparseMode::LocalStatus::wcRoute not allowed");
    }
    EXPECT_EQ(ls->sgRouteSize() + ls->wcRouteSize(), 0u);
}

// Counts each flag handler and the generic route-flags handler.
struct FlagWatcher : Route::Notifiee {
    using Route::Notifiee::Notifiee;
    std::vector<std::string> calls;
    void handleRouteFlags() override { calls.push_back("routeFlags"); }
    void handleSpTree() override { calls.push_back("spTree"); }
    void handleOifRegister() override { calls.push_back("oifRegister"); }
    void handleProgrammable() override { calls.push_back("programmable"); }
};

TEST(Route, EachFlagHasItsSetterAndNotification) {
    Cask::VirtualClock clock;
    Status status(clock, RouteContext{});
    auto wc = status.routeIs(RouteKey::wc(addr("239.1.1.1")));
    auto sg = status.routeIs(RouteKey(addr("10.1.1.1"), addr("239.1.1.1")));
    EXPECT_EQ(status.routeIs(sg->key()), sg);  // created once
    EXPECT_TRUE(wc->wildCard());
    EXPECT_FALSE(wc->katExpired());
    EXPECT_FALSE(sg->wildCard());
    EXPECT_TRUE(sg->katExpired());  // no data seen yet

    FlagWatcher w(sg.get());
    sg->spTreeIs(true);
    sg->spTreeIs(true);
    sg->oifRegisterIs(true);
    sg->programmableIs(true);
    EXPECT_EQ(w.calls, (std::vector<std::string>{"spTree", "routeFlags", "oifRegister",
                                                 "routeFlags", "programmable", "routeFlags"}));
    // Thirteen flags in the word, in declaration order; programmable outside.
    EXPECT_EQ(sg->routeFlags(), (1u << Route::spTreeBit) | (1u << Route::katExpiredBit) |
                                    (1u << Route::oifRegisterBit));
    EXPECT_EQ(sg->routeFlagsStr(),
              "rpTree 0 wildCard 0 spTree 1 switching 0 iifSwitching 0 mbr 0 katExpired 1 "
              "markedForDeletion 0 mayAdvertise 0 msdpDiscovered 0 anycastDiscovered 0 "
              "drDiscovered 0 oifRegister 1");
}

TEST(Route, InterfaceRecordsOutliveTheirRouteSafely) {
    Cask::VirtualClock clock;
    Status status(clock, RouteContext{});
    const RouteKey key(addr("10.1.1.1"), addr("239.1.1.1"));
    auto route = status.routeIs(key);
    auto intf = route->routeIntfIs(Wirl::IntfId("eth1"));
    EXPECT_EQ(route->routeIntfIs(Wirl::IntfId("eth1")), intf);
    EXPECT_EQ(intf->route(), route.get());
    route.reset();
    status.routeDel(key);
    EXPECT_EQ(intf->route(), nullptr);
}

}  // namespace
