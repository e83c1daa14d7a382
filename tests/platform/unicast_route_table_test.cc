// Unicast route table: longest prefix match, including after removals.
#include <gtest/gtest.h>

#include "platform/unicast_route_table.h"

namespace {

using Routing::Unicast::RouteTable;
using Routing::Unicast::UnicastRoute;
using Wirl::IpGenAddr;
using Wirl::IpGenPrefix;

UnicastRoute route(const char* prefix, const char* intf) {
    return UnicastRoute{*IpGenPrefix::parse(prefix), Wirl::IntfId(intf), IpGenAddr(), 1, 1, false};
}

TEST(UnicastRouteTable, LongestPrefixMatch) {
    RouteTable t(Wirl::AddressFamily::ipv4);
    t.routeIs(route("0.0.0.0/0", "default"));
    t.routeIs(route("10.0.0.0/8", "eth8"));
    t.routeIs(route("10.1.0.0/16", "eth16"));
    const std::vector<std::pair<const char*, const char*>> cases = {
        {"10.1.2.3", "eth16"}, {"10.2.0.1", "eth8"}, {"192.0.2.1", "default"}};
    for (auto [a, intf] : cases) {
        auto r = t.lookup(*IpGenAddr::parse(a));
        ASSERT_TRUE(r) << a;
        EXPECT_EQ(r->intf.name(), intf) << a;
    }
    t.routeDel(*IpGenPrefix::parse("10.1.0.0/16"));
    EXPECT_EQ(t.lookup(*IpGenAddr::parse("10.1.2.3"))->intf.name(), "eth8");
    t.routeDel(*IpGenPrefix::parse("0.0.0.0/0"));
    EXPECT_FALSE(t.lookup(*IpGenAddr::parse("192.0.2.1")));
    EXPECT_FALSE(t.lookup(*IpGenAddr::parse("2001:db8::1")));  // other family
    EXPECT_THROW(t.routeIs(route("2001:db8::/32", "x")), std::invalid_argument);
}

TEST(UnicastRouteTable, Ipv6HostAndNetworkRoutes) {
    RouteTable t(Wirl::AddressFamily::ipv6);
    t.routeIs(route("2001:db8::/32", "net"));
    t.routeIs(route("2001:db8::1/128", "host"));
    EXPECT_EQ(t.lookup(*IpGenAddr::parse("2001:db8::1"))->intf.name(), "host");
    EXPECT_EQ(t.lookup(*IpGenAddr::parse("2001:db8::2"))->intf.name(), "net");
}

}  // namespace
