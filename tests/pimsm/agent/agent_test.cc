// The agent frame and the per-VRF root: a VRF's life from absent through
// pre-initialized and running and back, tear-down by the loss of each input,
// namespaces, restart news and the redundancy role.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "cask/clock.h"
#include "cask/event_loop.h"
#include "cask/trace.h"
#include "pimsm/agent/agent.h"
#include "pimsm/agent/root_sm.h"
#include "pimsm/downstream/downstream_wc_sg_sm.h"
#include "pimsm/forwarding/mfib_sm.h"
#include "pimsm/membership/gmp_sm.h"
#include "pimsm/route/route_review_sm.h"
#include "pimsm/upstream/upstream_sg_sm.h"
#include "pimsm/upstream/upstream_wc_sm.h"

namespace {

using namespace Routing::Pim::SparseMode;
using L3::VrfName;
using Platform::StateDb;

// Writes every input a VRF needs to run, as the other parts of the system
// would publish them.
void publishVrf(StateDb& db, const VrfName& vrf, const std::string& ns) {
    auto local = Cask::make<Platform::VrfStatusLocal>();
    local->networkNamespaceIs(Wirl::NamespaceName(ns));
    db.namespace_Is(Wirl::NamespaceName(ns));
    db.staticRpConfigIs(vrf, Cask::make<Platform::RpMapping>());
    db.configIs(vrf, Cask::make<Config>(db.family()));
    db.clearConfigIs(vrf, Cask::make<Routing::Pim::ClearMrouteConfig>());
    db.bsrCrpStatusIs(vrf, Cask::make<Platform::BsrCrpStatus>());
    db.discoveredSgIs(vrf, Cask::make<Platform::DiscoveredSgStatus>());
    db.vifStatusIs(vrf, Cask::make<Platform::VifStatus>());
    db.mribVrfStatusIs(vrf, Cask::make<Platform::MribVrfStatus>());
    db.rpConfigIs(vrf, Cask::make<Platform::RpMapping>());
    db.hwMfibStatusIs(vrf, Cask::make<Platform::HwMfibStatus>());
    db.pimEnabledVrfIs(vrf);
    db.vrfStatusLocalIs(vrf, local);
}

class AgentTest : public ::testing::Test {
protected:
    AgentTest() : loop(clock), db(Wirl::AddressFamily::ipv4) {
        Cask::trace().clear();
        Cask::trace().levelIs(8);
        db.mcastBoundaryStatusIs(Cask::make<Routing::McastBoundary::Status>());
    }
    ~AgentTest() override { Cask::trace().levelIs(4); }
    RootSm& root() { return *agent->rootSm(); }
    void start() { agent = std::make_unique<Agent4>(db, loop); }

    Cask::VirtualClock clock;
    Cask::EventLoop loop;
    StateDb db;
    std::unique_ptr<Agent4> agent;
    const VrfName red{"red"};
};

TEST_F(AgentTest, LossOfAnyInputTearsTheVrfDownAndItsReturnRebuildsIt) {
    struct Case {
        const char* trace;
        std::function<void(StateDb&, const VrfName&)> remove;
    };
    const std::vector<Case> cases = {
        {" ), not Pim enabled", [](StateDb& db, const VrfName& v) { db.pimEnabledVrfDel(v); }},
        {" ), netns doesn't exist",
         [](StateDb& db, const VrfName&) { db.namespace_Del(Wirl::NamespaceName("ns-red")); }},
        {" ), missing config or clear config",
         [](StateDb& db, const VrfName& v) { db.clearConfigDel(v); }},
        {" ), missing in bsrCrpStatusColl",
         [](StateDb& db, const VrfName& v) { db.bsrCrpStatusDel(v); }},
        {" ), missing mcastBoundaryStatus",
         [](StateDb& db, const VrfName&) { db.mcastBoundaryStatusIs(nullptr); }},
        {" ), missing in msdpDiscoveredSgColl",
         [](StateDb& db, const VrfName& v) { db.discoveredSgDel(v); }},
        {" ), missing in vifStatusColl", [](StateDb& db, const VrfName& v) { db.vifStatusDel(v); }},
        {" ), missing Mrib Status", [](StateDb& db, const VrfName& v) { db.mribVrfStatusDel(v); }},
        {" ), missing RP config", [](StateDb& db, const VrfName& v) { db.rpConfigDel(v); }},
        {" ), missing hwMfibStatus", [](StateDb& db, const VrfName& v) { db.hwMfibStatusDel(v); }},
    };
    start();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.trace);
        publishVrf(db, red, "ns-red");
        if (!db.mcastBoundaryStatus()) {
            db.mcastBoundaryStatusIs(Cask::make<Routing::McastBoundary::Status>());
        }
        auto before = root().containerSm(red);
        ASSERT_TRUE(before);
        ASSERT_TRUE(before->initialized());
        Cask::trace().clear();
        c.remove(db, red);
        EXPECT_FALSE(root().containerSmHas(red));
        EXPECT_TRUE(root().preInitSmHas(red));
        EXPECT_TRUE(Cask::trace().contains("RootSm::checkMounts( red" + std::string(c.trace)))
            << "missing trace";
        publishVrf(db, red, "ns-red");
        if (!db.mcastBoundaryStatus()) {
            db.mcastBoundaryStatusIs(Cask::make<Routing::McastBoundary::Status>());
        }
        auto after = root().containerSm(red);
        ASSERT_TRUE(after);
        EXPECT_NE(after, before);  // rebuilt from scratch
        EXPECT_TRUE(Cask::trace().contains("RootSm::checkMounts( red ), all mounts found"));
    }
    // The VRF goes away: nothing of it is left.
    db.vrfStatusLocalDel(red);
    EXPECT_FALSE(root().containerSmHas(red));
    EXPECT_FALSE(root().preInitSmHas(red));
    EXPECT_FALSE(db.registerConfigHas(red));
}

TEST_F(AgentTest, NoStaticRpConfigMeansNoPreInitAndNoContainer) {
    start();
    publishVrf(db, red, "ns-red");
    ASSERT_TRUE(root().containerSmHas(red));
    db.staticRpConfigDel(red);
    EXPECT_FALSE(root().preInitSmHas(red));
    EXPECT_FALSE(root().containerSmHas(red));
    EXPECT_TRUE(Cask::trace().contains("vrf missing in Static Rp Config"));
}

TEST_F(AgentTest, EnablingTwiceKeepsTheFirstContainer) {
    start();
    publishVrf(db, red, "ns-red");
    auto first = root().containerSm(red);
    root().handlePimEnabled(red);
    EXPECT_EQ(root().containerSm(red), first);
    EXPECT_TRUE(
        Cask::trace().contains("<Vrf:red>RootSm::handlePimEnabled(), Container already exists"));
}

TEST_F(AgentTest, OnlyNonDefaultVrfsMountAndUnmountANamespace) {
    start();
    const auto mountsAtStart = db.mountSize();
    publishVrf(db, VrfName::defaultVrf(), "default");
    ASSERT_TRUE(root().containerSmHas(VrfName::defaultVrf()));
    EXPECT_FALSE(root().namespaceNameHas(VrfName::defaultVrf()));
    EXPECT_FALSE(db.mountHas("kni/ns/ns-red/status"));

    publishVrf(db, red, "ns-red");
    EXPECT_TRUE(db.mountHas("kni/ns/ns-red/status"));
    EXPECT_TRUE(db.mountHas("tidal/pim/red/sparsemode/status"));
    EXPECT_EQ(root().namespaceName(red), Wirl::NamespaceName("ns-red"));
    db.pimEnabledVrfDel(red);
    EXPECT_FALSE(db.mountHas("kni/ns/ns-red/status"));
    EXPECT_FALSE(db.mountHas("tidal/pim/red/sparsemode/status"));
    db.pimEnabledVrfDel(VrfName::defaultVrf());
    EXPECT_EQ(db.mountSize(), mountsAtStart);  // the root's own default namespace stays
    EXPECT_TRUE(db.mountHas("kni/ns/default/status"));
}

TEST_F(AgentTest, ForwardingReadyNewsWithoutContainerOrRecoveryIsIgnored) {
    start();
    db.fibReadyIs(red, true);
    EXPECT_TRUE(Cask::trace().contains("RootSm::handleFibReady( red ), Container not started"));
    publishVrf(db, red, "ns-red");
    EXPECT_TRUE(Cask::trace().contains("RootSm::handleFibReady( red ), NSF recovery not running"));
}

TEST_F(AgentTest, RestartRequestedAtStartRunsUntilRouteRecoveryCompletes) {
    auto nsf = Cask::make<Platform::NsfStatus>();
    nsf->restartRequestedIs(true);
    nsf->pimEnabledIs(true);
    nsf->routesIs(12);
    db.nsfStatusIs(red, nsf);
    start();
    EXPECT_TRUE(root().nsfRestartingVrfHas(red));
    EXPECT_TRUE(Cask::trace().contains(
        "NSF restart status on VRF red, requested: true, routes: 12 PIM enabled: true"));
    publishVrf(db, red, "ns-red");
    EXPECT_TRUE(Cask::trace().contains("RootSm::doMaybeNsfRestart( red ), NSF restart initiated"));
    db.fibReadyIs(red, true);
    EXPECT_TRUE(Cask::trace().contains("FibReady for red is true"));
    nsf->routeRecoveryCompleteIs(true);
    EXPECT_FALSE(root().nsfRestartingVrfHas(red));
    EXPECT_TRUE(Cask::trace().contains("NSF restart completed for red"));
}

TEST_F(AgentTest, StandbyHoldsNoProtocolStateAndActiveRebuildsIt) {
    publishVrf(db, red, "ns-red");
    start();
    ASSERT_TRUE(root().containerSmHas(red));
    db.standbyIs(true);
    EXPECT_EQ(agent->rootSm(), nullptr);
    EXPECT_EQ(agent->attrLogSm(), nullptr);
    EXPECT_TRUE(Cask::trace().contains("Standby supe. Cleaning up any instance of Sm"));
    EXPECT_FALSE(db.mountHas("tidal/pim/red/sparsemode/status"));
    db.standbyIs(false);
    ASSERT_NE(agent->rootSm(), nullptr);
    EXPECT_TRUE(root().containerSmHas(red));
}

TEST_F(AgentTest, NumericOptionsAreReadAtStartAndBadValuesFallBack) {
    db.optionIs("maxRoutes", "5000");
    db.optionIs("maxRouteIntfs", "lots");
    start();
    EXPECT_EQ(root().pc().maxRoutes, 5000u);
    EXPECT_EQ(root().pc().maxRouteIntfs, 0u);
    EXPECT_TRUE(Cask::trace().contains("option maxRouteIntfs has a bad value"));
}

TEST_F(AgentTest, RouteAndInterfaceLimitsRefuseWhatIsBeyondThem) {
    db.optionIs("maxRoutes", "2");
    db.optionIs("maxRouteIntfs", "1");
    publishVrf(db, red, "ns-red");
    start();
    auto table = db.membershipTable(red);
    auto join = [&](const char* group, const char* intf) {
        Routing::Gmp::Tidal::RouteIntfKey key{
            Routing::Pim::RouteKey::wc(*Wirl::IpGenAddr::parse(group)), Wirl::IntfId(intf)};
        table->membershipIs(key, {key, Routing::Gmp::Tidal::FilterMode::include});
    };
    join("239.1.1.1", "e1");
    join("239.1.1.1", "e2");  // a second interface on the same route
    join("239.1.1.2", "e1");
    join("239.1.1.3", "e1");  // a third route
    loop.runUntil(2);
    auto* status = root().containerSm(red)->status();
    EXPECT_EQ(status->routeSize(), 2u);
    EXPECT_EQ(status->context().routesRefused, 1u);
    EXPECT_EQ(status->context().routeIntfsRefused, 1u);
    EXPECT_EQ(status->route(Routing::Pim::RouteKey::wc(*Wirl::IpGenAddr::parse("239.1.1.1")))
                  ->routeIntfSize(),
              1u);
    EXPECT_TRUE(Cask::trace().contains("route refused, the VRF has 2 routes (maxRoutes)"));
}

// With a route limit, the hashed per-route indexes are sized when the VRF starts: filling the VRF
// up to the limit never grows one (a growth step rehashes the whole index in one turn). The route
// directory the (*,G) machines share is a tree: it takes no room ahead and holds each route once.
TEST_F(AgentTest, RouteIndexesAreSizedForTheRouteLimit) {
    constexpr int limit = 200;
    db.optionIs("maxRoutes", std::to_string(limit));
    publishVrf(db, red, "ns-red");
    start();
    ContainerSm& c = *root().containerSm(red);
    auto sgIndex = [&] { return c.upstreamSgSm()->routeMap().indexCapacity(); };
    const std::size_t before = sgIndex();
    EXPECT_GE(before, std::size_t(limit)) << "upstream (S,G) index not sized at start";
    auto table = db.membershipTable(red);
    for (int i = 0; i < limit; ++i) {
        Routing::Gmp::Tidal::RouteIntfKey key{
            Routing::Pim::RouteKey::wc(Wirl::IpGenAddr::v4((239u << 24) + 1 + std::uint32_t(i))),
            Wirl::IntfId("e1")};
        table->membershipIs(key, {key, Routing::Gmp::Tidal::FilterMode::include});
    }
    loop.runUntil(2);
    ASSERT_EQ(c.status()->routeSize(), std::size_t(limit));
    EXPECT_EQ(sgIndex(), before) << "upstream (S,G) index grew";
    const std::vector<std::pair<const char*, std::function<std::size_t()>>> shared = {
        {"route reactors", [&] { return c.routeReviewSm()->routeSmMap().size(); }},
        {"upstream (*,G)", [&] { return c.upstreamWcSm()->routeMap().size(); }},
        {"forwarding", [&] { return c.mfibSm()->wcRhoMap().size(); }},
    };
    for (const auto& [name, size] : shared) EXPECT_EQ(size(), std::size_t(limit)) << name;
    EXPECT_EQ(c.downstreamWcSgSm()->routeMap().size(), 0u) << "host joins have no downstream state";
    EXPECT_EQ(c.gmpSm()->wcRouteMap().size(), 0u) << "routes of host joins come initialized";
    EXPECT_EQ(c.routeReviewSm()->routeSmMap().indexCapacity(), std::size_t(limit))
        << "the route directory holds one entry per route";
}

TEST_F(AgentTest, StaticRpCandidatesKeepValidMappingsOnly) {
    publishVrf(db, red, "ns-red");
    auto config = db.staticRpConfig(red);
    config->rpIs(*Wirl::IpGenPrefix::parse("239.0.0.0/8"), *Wirl::IpGenAddr::parse("10.0.0.1"));
    start();
    config->rpIs(*Wirl::IpGenPrefix::parse("10.0.0.0/8"), *Wirl::IpGenAddr::parse("10.0.0.2"));
    config->rpIs(*Wirl::IpGenPrefix::parse("224.0.0.0/4"), *Wirl::IpGenAddr::parse("239.1.1.1"));
    auto status = db.staticRpStatus(red);
    ASSERT_TRUE(status);
    EXPECT_EQ(status->rpSize(), 1u);
    EXPECT_EQ(status->rpFor(*Wirl::IpGenAddr::parse("239.2.2.2")),
              *Wirl::IpGenAddr::parse("10.0.0.1"));
    EXPECT_EQ(root().preInitSm(red)->staticRpCandidateSm()->invalidMappings(), 2u);
    config->rpDel(*Wirl::IpGenPrefix::parse("239.0.0.0/8"));
    EXPECT_EQ(status->rpSize(), 0u);
}

}  // namespace
