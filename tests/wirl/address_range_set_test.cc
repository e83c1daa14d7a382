#include "wirl/address_range_set.h"

#include <gtest/gtest.h>

#include <bitset>
#include <random>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

namespace Wirl {
namespace {

IpGenAddr addr(std::string_view text) {
    return IpGenAddr::parse(text).value();
}
IpGenPrefix prefix(std::string_view text) {
    return IpGenPrefix::parse(text).value();
}

std::vector<std::string> texts(const AddressRangeSet& set) {
    std::vector<std::string> out;
    for (const auto& p : set.prefixes()) out.push_back(p.str());
    return out;
}

TEST(AddressRangeSetTest, Ipv4MembershipAtRangeEdges) {
    AddressRangeSet set(AddressFamily::ipv4);
    EXPECT_TRUE(set.empty());
    set.add(prefix("232.0.0.0/8"));
    set.add(addr("239.1.1.10"), addr("239.1.1.20"));
    const std::pair<std::string_view, bool> cases[] = {
        {"231.255.255.255", false}, {"232.0.0.0", true},   {"232.255.255.255", true},
        {"233.0.0.0", false},       {"239.1.1.9", false},  {"239.1.1.10", true},
        {"239.1.1.20", true},       {"239.1.1.21", false},
    };
    for (auto [text, in] : cases) EXPECT_EQ(set.contains(addr(text)), in) << text;
    EXPECT_TRUE(set.containsAll(prefix("232.0.0.0/8")));
    EXPECT_FALSE(set.containsAll(prefix("232.0.0.0/7")));
    EXPECT_TRUE(set.intersects(prefix("232.0.0.0/7")));
    EXPECT_FALSE(set.intersects(prefix("233.0.0.0/8")));
    EXPECT_TRUE(set.intersects(prefix("239.1.1.16/28")));
    EXPECT_FALSE(set.containsAll(prefix("239.1.1.16/28")));
    EXPECT_EQ(texts(set), (std::vector<std::string>{"232.0.0.0/8", "239.1.1.10/31", "239.1.1.12/30",
                                                    "239.1.1.16/30", "239.1.1.20/32"}));
    EXPECT_EQ(AddressRangeSet::defaultSsm(AddressFamily::ipv4).str(), "232.0.0.0/8");
}

TEST(AddressRangeSetTest, RemovalSplitsAndAdjacentRangesMerge) {
    AddressRangeSet set = AddressRangeSet::defaultSsm(AddressFamily::ipv4);
    set.remove(prefix("232.1.0.0/16"));
    EXPECT_TRUE(set.contains(addr("232.0.255.255")));
    EXPECT_FALSE(set.contains(addr("232.1.0.0")));
    EXPECT_FALSE(set.contains(addr("232.1.255.255")));
    EXPECT_TRUE(set.contains(addr("232.2.0.0")));
    EXPECT_EQ(texts(set), (std::vector<std::string>{
                              "232.0.0.0/16", "232.2.0.0/15", "232.4.0.0/14", "232.8.0.0/13",
                              "232.16.0.0/12", "232.32.0.0/11", "232.64.0.0/10", "232.128.0.0/9"}));
    EXPECT_NE(set, AddressRangeSet::defaultSsm(AddressFamily::ipv4));
    // Filling the hole back in, in two abutting halves, restores a single range.
    set.add(prefix("232.1.128.0/17"));
    set.add(addr("232.1.0.0"), addr("232.1.127.255"));
    EXPECT_EQ(set, AddressRangeSet::defaultSsm(AddressFamily::ipv4));
    set.clear();
    EXPECT_TRUE(set.empty());
    EXPECT_EQ(set.str(), "");
}

TEST(AddressRangeSetTest, Ipv6DefaultSsmIsSixteenScopedBlocks) {
    AddressRangeSet ssm = AddressRangeSet::defaultSsm(AddressFamily::ipv6);
    auto list = ssm.prefixes();
    ASSERT_EQ(list.size(), 16u);
    EXPECT_EQ(list.front(), prefix("ff30::/32"));
    EXPECT_EQ(list.back(), prefix("ff3f::/32"));
    const std::pair<std::string_view, bool> cases[] = {
        {"ff30::", true},
        {"ff3e::8000:1", true},
        {"ff35:0:ffff:ffff:ffff:ffff:ffff:ffff", true},
        {"ff3f::1", true},
        {"ff3e:1::1", false},  // outside the /32 of its scope
        {"ff2e::1", false},
        {"ff40::", false},
        {"ff2f:ffff:ffff:ffff:ffff:ffff:ffff:ffff", false},
    };
    for (auto [text, in] : cases) EXPECT_EQ(ssm.contains(addr(text)), in) << text;
    EXPECT_FALSE(ssm.contains(addr("232.1.1.1")));
    EXPECT_TRUE(ssm.containsAll(prefix("ff3e::/32")));
    EXPECT_FALSE(ssm.containsAll(prefix("ff30::/12")));
    EXPECT_TRUE(ssm.intersects(prefix("ff30::/12")));
    EXPECT_FALSE(ssm.intersects(prefix("ff3e:8000::/17")));
}

TEST(AddressRangeSetTest, WholeAddressSpaceEdges) {
    for (auto [all, top, bottom] : {std::tuple{"0.0.0.0/0", "255.255.255.255", "0.0.0.0"},
                                    {"::/0", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "::"}}) {
        SCOPED_TRACE(all);
        IpGenPrefix whole = prefix(all);
        AddressRangeSet set(whole.family());
        set.add(whole);
        EXPECT_EQ(texts(set), std::vector<std::string>{all});
        set.remove(IpGenPrefix::hostPrefix(addr(top)));
        set.remove(IpGenPrefix::hostPrefix(addr(bottom)));
        EXPECT_FALSE(set.contains(addr(top)));
        EXPECT_FALSE(set.contains(addr(bottom)));
        // Everything but the two ends takes two blocks per bit but the last.
        EXPECT_EQ(set.prefixes().size(), 2 * (familyBits(whole.family()) - 1));
        set.add(whole);
        EXPECT_EQ(texts(set), std::vector<std::string>{all});
    }
}

TEST(AddressRangeSetTest, RefusesTheOtherFamily) {
    AddressRangeSet v4(AddressFamily::ipv4);
    AddressRangeSet v6(AddressFamily::ipv6);
    EXPECT_THROW(v4.add(prefix("ff3e::/32")), std::invalid_argument);
    EXPECT_THROW(v6.add(prefix("232.0.0.0/8")), std::invalid_argument);
    EXPECT_THROW(v6.remove(prefix("232.0.0.0/8")), std::invalid_argument);
    EXPECT_THROW(v4.add(addr("1.1.1.1"), addr("::1")), std::invalid_argument);
    EXPECT_THROW(v4.add(addr("1.1.1.2"), addr("1.1.1.1")), std::invalid_argument);
    EXPECT_THROW(AddressRangeSet(AddressFamily::ipunknown), std::invalid_argument);
    EXPECT_TRUE(v4.empty() && v6.empty());
    v4.add(prefix("0.0.0.0/0"));
    EXPECT_FALSE(v4.contains(addr("::")));
    EXPECT_FALSE(v4.intersects(prefix("::/0")));
    EXPECT_NE(v4, AddressRangeSet(AddressFamily::ipv6));
}

// Random adds and removes inside 10.0.0.0/24 against a bitmap of the same addresses.
TEST(AddressRangeSetTest, AgreesWithBitmapUnderRandomEdits) {
    std::mt19937 rng(7761);
    for (int round = 0; round < 20; ++round) {
        AddressRangeSet set(AddressFamily::ipv4);
        std::bitset<256> ref;
        for (int step = 0; step < 30; ++step) {
            unsigned len = 24 + rng() % 9;
            unsigned base = (rng() % 256) & ~((1u << (32 - len)) - 1);
            IpGenPrefix p(IpGenAddr::v4(0x0a000000 + base), len);
            bool add = rng() % 3 != 0;
            add ? set.add(p) : set.remove(p);
            for (unsigned a = base; a < base + (1u << (32 - len)); ++a) ref[a] = add;
        }
        for (unsigned a = 0; a < 256; ++a) {
            ASSERT_EQ(set.contains(IpGenAddr::v4(0x0a000000 + a)), ref[a]) << a;
        }
        // The printed prefixes cover exactly the set, with no block that could merge with
        // its buddy (which would mean the list is not the shortest).
        std::bitset<256> covered;
        AddressRangeSet rebuilt(AddressFamily::ipv4);
        auto list = set.prefixes();
        for (std::size_t i = 0; i < list.size(); ++i) {
            const IpGenPrefix& p = list[i];
            for (unsigned a = p.first().v4HostOrder(); a <= p.last().v4HostOrder(); ++a) {
                EXPECT_FALSE(covered[a & 0xff]);
                covered[a & 0xff] = true;
            }
            if (i > 0) {
                EXPECT_LT(list[i - 1].last(), p.first());
                if (list[i - 1].length() == p.length() && p.length() > 0) {
                    EXPECT_FALSE(IpGenPrefix(p.first(), p.length() - 1).contains(list[i - 1]));
                }
            }
            rebuilt.add(p);
        }
        EXPECT_EQ(covered, ref);
        EXPECT_EQ(rebuilt, set);
    }
}

}  // namespace
}  // namespace Wirl
