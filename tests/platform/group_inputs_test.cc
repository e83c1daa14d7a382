// Group-range inputs and the membership table: the SSM test with default and
// configured ranges, the bidirectional filter, and absent memberships.
#include <gtest/gtest.h>

#include "platform/group_ranges.h"
#include "platform/mcast_boundary.h"
#include "platform/membership.h"

namespace {

using Wirl::IpGenAddr;
using Wirl::IpGenPrefix;

IpGenAddr addr(const char* s) {
    return *IpGenAddr::parse(s);
}

TEST(GroupInputs, SsmGroupUsesTheConfiguredRangeElseTheDefault) {
    using Routing::Pim::SparseMode::Config;
    using Routing::Pim::SparseMode::SsmGroupInfo;
    Config c4(Wirl::AddressFamily::ipv4), c6(Wirl::AddressFamily::ipv6);
    SsmGroupInfo s4(Wirl::AddressFamily::ipv4), s6(Wirl::AddressFamily::ipv6);
    EXPECT_TRUE(s4.ssmGroup(addr("232.1.1.1"), c4));
    EXPECT_FALSE(s4.ssmGroup(addr("239.1.1.1"), c4));
    EXPECT_TRUE(s6.ssmGroup(addr("ff3e::8000:1"), c6));
    EXPECT_FALSE(s6.ssmGroup(addr("ff0e::1"), c6));

    Wirl::AddressRangeSet custom(Wirl::AddressFamily::ipv4);
    custom.add(*IpGenPrefix::parse("239.232.0.0/16"));
    c4.ssmRangeIs(custom);
    EXPECT_FALSE(s4.ssmGroup(addr("232.1.1.1"), c4));
    EXPECT_TRUE(s4.ssmGroup(addr("239.232.9.9"), c4));
}

TEST(GroupInputs, BidirRangesAreNotPermittedAndBoundariesFilterPerInterface) {
    Routing::Pim::GroupFilterStatus f(Wirl::AddressFamily::ipv4);
    Wirl::AddressRangeSet bidir(Wirl::AddressFamily::ipv4);
    bidir.add(*IpGenPrefix::parse("239.100.0.0/16"));
    f.bidirRangeIs(bidir);
    EXPECT_FALSE(f.permitGroup(IpGenPrefix::hostPrefix(addr("239.100.1.1"))));
    EXPECT_FALSE(f.permitGroup(*IpGenPrefix::parse("239.0.0.0/8")));  // overlaps
    EXPECT_TRUE(f.permitGroup(IpGenPrefix::hostPrefix(addr("239.1.1.1"))));

    Routing::McastBoundary::Status b;
    auto eth1 = Cask::make<Routing::McastBoundary::IntfBoundary>(Wirl::IntfId("eth1"),
                                                                 Wirl::AddressFamily::ipv4);
    eth1->groupsIs(bidir);
    b.intfIs(eth1->intf(), eth1);
    EXPECT_TRUE(b.filters(Wirl::IntfId("eth1"), addr("239.100.2.2")));
    EXPECT_FALSE(b.filters(Wirl::IntfId("eth2"), addr("239.100.2.2")));
}

TEST(GroupInputs, AbsentMembershipReadsAsTheDefaultRecord) {
    using namespace Routing::Gmp::Tidal;
    Status table;
    RouteIntfKey key{Routing::Pim::RouteKey::wc(addr("239.1.1.1")), Wirl::IntfId("eth1")};
    EXPECT_TRUE(table.membership(key).isDefault());
    table.membershipIs(key, Membership{key, FilterMode::include});
    EXPECT_EQ(table.membership(key).filterMode, FilterMode::include);
    EXPECT_FALSE(table.membership(key).isDefault());
}

}  // namespace
