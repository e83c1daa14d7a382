#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <unordered_set>
#include <vector>

#include "wirl/intf_id.h"
#include "wirl/namespace_name.h"
#include "wirl/vrf_name.h"

namespace Wirl {
namespace {

TEST(IntfIdTest, InterningGivesOneIdPerName) {
    std::string name = "Ethernet7";
    IntfId a(name);
    name[8] = '8';  // the table must have copied the text, not kept a view of ours
    IntfId b(name);
    EXPECT_NE(a, b);
    EXPECT_EQ(a, IntfId("Ethernet7"));
    EXPECT_EQ(a.name(), "Ethernet7");
    EXPECT_EQ(b.name(), "Ethernet8");
    EXPECT_EQ(&a.name(), &IntfId("Ethernet7").name());

    EXPECT_TRUE(IntfId().isNull());
    EXPECT_EQ(IntfId(""), IntfId());
    EXPECT_EQ(IntfId("Register0"), IntfId::register0());
    EXPECT_TRUE(IntfId("Register0").isRegister());
    EXPECT_FALSE(IntfId::null0().isRegister());
    EXPECT_EQ(IntfId::null0().name(), "Null0");
    EXPECT_TRUE(IntfId("Vlan10").hasPrefix("Vlan"));
    EXPECT_FALSE(IntfId("Loopback0").hasPrefix("Vlan"));

    std::unordered_set<IntfId> set{a, b, IntfId("Ethernet7")};
    EXPECT_EQ(set.size(), 2u);
    EXPECT_EQ(fmt::format("{}", b), "Ethernet8");
}

TEST(IntfIdTest, OrdersByNameNotByInterningOrder) {
    // Interned in reverse, so ids run opposite to the name order.
    std::vector<IntfId> intfs{IntfId("zz-Vlan300"), IntfId("zz-Vlan200"), IntfId("zz-Ethernet9"),
                              IntfId("zz-Ethernet10")};
    std::sort(intfs.begin(), intfs.end());
    std::vector<std::string> names;
    for (const auto& i : intfs) names.push_back(i.name());
    EXPECT_EQ(names, (std::vector<std::string>{"zz-Ethernet10", "zz-Ethernet9", "zz-Vlan200",
                                               "zz-Vlan300"}));
    EXPECT_TRUE(IntfId() < IntfId("a"));
    EXPECT_FALSE(IntfId("zz-Vlan300") < IntfId("zz-Vlan300"));
}

TEST(BoundedNameTest, RefusesOverlongNamesWithExactText) {
    EXPECT_EQ(L3::VrfName(std::string(100, 'v')).str().size(), 100u);
    try {
        L3::VrfName(std::string(101, 'v'));
        ADD_FAILURE() << "101-byte VRF name accepted";
    } catch (const std::length_error& e) {
        EXPECT_STREQ(e.what(), "VrfName::bytes > VrfName::maxLength not allowed");
    }
    EXPECT_EQ(NamespaceName(std::string(150, 'n')).str().size(), 150u);
    try {
        NamespaceName(std::string(151, 'n'));
        ADD_FAILURE() << "151-byte namespace name accepted";
    } catch (const std::length_error& e) {
        EXPECT_STREQ(e.what(), "NamespaceName::bytes > 150 not allowed");
    }
}

TEST(BoundedNameTest, DefaultVrf) {
    EXPECT_EQ(L3::VrfName::defaultVrf(), L3::VrfName("default"));
    EXPECT_TRUE(L3::VrfName("default").isDefault());
    EXPECT_FALSE(L3::VrfName().isDefault());
    EXPECT_FALSE(L3::VrfName("red").isDefault());
}

}  // namespace
}  // namespace Wirl
