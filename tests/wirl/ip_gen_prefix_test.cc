#include "wirl/ip_gen_prefix.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <unordered_set>

namespace Wirl {
namespace {

IpGenAddr addr(std::string_view text) {
    return IpGenAddr::parse(text).value();
}
IpGenPrefix prefix(std::string_view text) {
    return IpGenPrefix::parse(text).value();
}

struct MaskCase {
    std::string_view text, canonical, first, last;
};

TEST(IpGenPrefixTest, ParseMasksHostBits) {
    const MaskCase cases[] = {
        {"232.1.2.3/8", "232.0.0.0/8", "232.0.0.0", "232.255.255.255"},
        {"10.1.2.3/23", "10.1.2.0/23", "10.1.2.0", "10.1.3.255"},
        {"10.1.2.3/0", "0.0.0.0/0", "0.0.0.0", "255.255.255.255"},
        {"10.1.2.3", "10.1.2.3/32", "10.1.2.3", "10.1.2.3"},
        {"ff3e:1234::1/32", "ff3e:1234::/32",
         "ff3e:1234::", "ff3e:1234:ffff:ffff:ffff:ffff:ffff:ffff"},
        {"2001:db8::ffff/127", "2001:db8::fffe/127", "2001:db8::fffe", "2001:db8::ffff"},
        {"ff0f::/12", "ff00::/12", "ff00::", "ff0f:ffff:ffff:ffff:ffff:ffff:ffff:ffff"},
        {"::1", "::1/128", "::1", "::1"},
        // Masks that end inside the second half, and exactly between the halves.
        {"2001:db8:1:2:3:4:f5f5:6/100", "2001:db8:1:2:3:4:f000:0/100", "2001:db8:1:2:3:4:f000:0",
         "2001:db8:1:2:3:4:ffff:ffff"},
        {"2001:db8:1:2:3:4:5:6/64", "2001:db8:1:2::/64",
         "2001:db8:1:2::", "2001:db8:1:2:ffff:ffff:ffff:ffff"},
        {"2001:db8:1:2:3:4:5:6/63", "2001:db8:1:2::/63",
         "2001:db8:1:2::", "2001:db8:1:3:ffff:ffff:ffff:ffff"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        IpGenPrefix p = prefix(c.text);
        EXPECT_EQ(p.str(), c.canonical);
        EXPECT_EQ(fmt::format("{}", p), c.canonical);
        EXPECT_EQ(p.first(), addr(c.first));
        EXPECT_EQ(p.last(), addr(c.last));
        EXPECT_EQ(prefix(c.canonical), p);
        EXPECT_EQ(prefix(c.canonical).hash(), p.hash());
    }
    EXPECT_TRUE(prefix("1.2.3.4").isHost());
    EXPECT_EQ(IpGenPrefix::hostPrefix(addr("ff3e::1")), prefix("ff3e::1/128"));
}

TEST(IpGenPrefixTest, RejectsBadText) {
    for (std::string_view text :
         {"1.2.3.4/33", "::/129", "1.2.3/8", "1.2.3.4/", "1.2.3.4/+8", "1.2.3.4/08", "1.2.3.4/8/8",
          "1.2.3.4/ 8", "/8", "x::/8", "1.2.3.4/1000"}) {
        EXPECT_FALSE(IpGenPrefix::parse(text).has_value()) << text;
    }
    EXPECT_THROW(IpGenPrefix(addr("1.2.3.4"), 33), std::invalid_argument);
    EXPECT_THROW(IpGenPrefix(IpGenAddr(), 0), std::invalid_argument);
}

TEST(IpGenPrefixTest, Containment) {
    IpGenPrefix ssm = prefix("232.0.0.0/8");
    EXPECT_TRUE(ssm.contains(addr("232.0.0.0")));
    EXPECT_TRUE(ssm.contains(addr("232.255.255.255")));
    EXPECT_FALSE(ssm.contains(addr("231.255.255.255")));
    EXPECT_FALSE(ssm.contains(addr("233.0.0.0")));
    EXPECT_FALSE(ssm.contains(addr("::ffff:232.0.0.1")));  // other family
    EXPECT_TRUE(prefix("0.0.0.0/0").contains(addr("255.255.255.255")));
    EXPECT_FALSE(prefix("0.0.0.0/0").contains(addr("::")));
    EXPECT_TRUE(prefix("::/0").contains(addr("ff3e::1")));

    IpGenPrefix odd = prefix("10.0.0.0/13");  // boundary inside the second byte
    EXPECT_TRUE(odd.contains(addr("10.7.255.255")));
    EXPECT_FALSE(odd.contains(addr("10.8.0.0")));

    EXPECT_TRUE(ssm.contains(prefix("232.1.0.0/16")));
    EXPECT_TRUE(ssm.contains(ssm));
    EXPECT_FALSE(prefix("232.1.0.0/16").contains(ssm));
    EXPECT_FALSE(prefix("232.0.0.0/16").contains(ssm));  // same start, wider block
    EXPECT_FALSE(ssm.contains(prefix("224.0.0.0/4")));
    EXPECT_TRUE(prefix("ff30::/12").contains(prefix("ff3e::/16")));
    EXPECT_FALSE(IpGenPrefix().contains(IpGenAddr()));
}

TEST(IpGenPrefixTest, OrderAndHash) {
    EXPECT_LT(prefix("10.0.0.0/8"), prefix("10.0.0.0/16"));
    EXPECT_LT(prefix("10.0.0.0/16"), prefix("10.1.0.0/16"));
    EXPECT_LT(prefix("255.0.0.0/8"), prefix("::/0"));
    std::unordered_set<IpGenPrefix> set{prefix("10.0.0.0/8"), prefix("10.0.0.0/16"),
                                        prefix("10.9.9.9/8")};
    EXPECT_EQ(set.size(), 2u);
    EXPECT_NE(prefix("10.0.0.0/8").hash(), prefix("10.0.0.0/16").hash());
}

}  // namespace
}  // namespace Wirl
