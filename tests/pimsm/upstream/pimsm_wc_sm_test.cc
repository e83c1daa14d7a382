#include "pimsm/upstream/pimsm_wc_sm.h"

#include <gtest/gtest.h>

#include "pimsm/test_vrf.h"
#include "pimsm/upstream/rpf_table.h"

namespace Routing::Pim::SparseMode::Testing {
namespace {

TEST(PimsmWcSm, WcProgrammingFollowsTheHardwareForIpv4Only) {
    struct Case {
        Wirl::AddressFamily family;
        bool hwAtStart;
        bool expected;
    };
    for (const Case c : {Case{Wirl::AddressFamily::ipv4, true, true},
                         Case{Wirl::AddressFamily::ipv4, false, false},
                         Case{Wirl::AddressFamily::ipv6, true, false}}) {
        SCOPED_TRACE(fmt::format("{} {}", int(c.family), c.hwAtStart));
        auto hw = Cask::make<Platform::HwMfibStatus>();
        auto agent = Cask::make<AgentStatus>();
        hw->multicastStarGSupportedIs(c.hwAtStart);
        auto sm = pimsmWcSmFactory(c.family, hw, agent);
        EXPECT_EQ(agent->wcProgrammingSupported(), c.expected);
        hw->multicastStarGSupportedIs(!c.hwAtStart);
        EXPECT_EQ(agent->wcProgrammingSupported(),
                  c.family == Wirl::AddressFamily::ipv4 && !c.hwAtStart);
    }
}

TEST(PimRpfTable, LooksUpTheRpfTableOfTheVrf) {
    auto urs = unicastRoutingStatusFactory(Wirl::AddressFamily::ipv4);
    PimRpfTable rpf(urs.get());
    EXPECT_FALSE(rpf.doLookup(ip("10.9.9.9")));  // no table yet
    auto urib = Cask::make<Routing::Unicast::RouteTable>(Wirl::AddressFamily::ipv4);
    auto mrib = Cask::make<Routing::Unicast::RouteTable>(Wirl::AddressFamily::ipv4);
    urib->routeIs(
        {*Wirl::IpGenPrefix::parse("10.0.0.0/8"), IntfId("u"), ip("10.0.1.2"), 1, 1, false});
    mrib->routeIs(
        {*Wirl::IpGenPrefix::parse("10.9.9.0/24"), IntfId("m"), ip("10.0.4.4"), 120, 7, true});
    urs->uribShadowStatusIs(urib);
    auto viaUrib = rpf.doLookup(ip("10.9.9.9"));
    ASSERT_TRUE(viaUrib);
    EXPECT_EQ(viaUrib->rpf, (Rpf{IntfId("u"), ip("10.0.1.2"), 1, 1}));
    // The multicast RIB wins; an attached prefix has no next hop.
    urs->mribStatusIs(mrib);
    auto viaMrib = rpf.doLookup(ip("10.9.9.9"));
    ASSERT_TRUE(viaMrib);
    EXPECT_EQ(viaMrib->rpf.intf, IntfId("m"));
    EXPECT_FALSE(viaMrib->rpf.hasNeighbor());
    EXPECT_TRUE(viaMrib->attached);
    EXPECT_EQ(viaMrib->prefix, *Wirl::IpGenPrefix::parse("10.9.9.0/24"));
    EXPECT_EQ(viaMrib->rpf.preference, 120u);
    EXPECT_FALSE(rpf.doLookup(ip("192.0.2.1")));
}

}  // namespace
}  // namespace Routing::Pim::SparseMode::Testing
