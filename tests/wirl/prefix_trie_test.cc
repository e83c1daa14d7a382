#include "wirl/prefix_trie.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace Wirl {
namespace {

IpGenAddr addr(std::string_view text) {
    return IpGenAddr::parse(text).value();
}
IpGenPrefix prefix(std::string_view text) {
    return IpGenPrefix::parse(text).value();
}
std::string match(const PrefixTrie& t, std::string_view a) {
    auto m = t.longestMatch(addr(a));
    return m ? m->str() : "none";
}

TEST(PrefixTrieTest, LongestMatchPerFamily) {
    struct Case {
        AddressFamily family;
        std::vector<const char*> prefixes;
        const char* addr;
        const char* expected;
    };
    const Case cases[] = {
        {AddressFamily::ipv4, {}, "239.1.2.3", "none"},
        {AddressFamily::ipv4, {"239.1.0.0/16"}, "239.1.2.3", "239.1.0.0/16"},
        {AddressFamily::ipv4, {"239.1.0.0/16"}, "239.2.0.1", "none"},
        // The longer prefix wins whatever the order of insertion.
        {AddressFamily::ipv4,
         {"239.1.2.0/24", "224.0.0.0/4", "239.1.0.0/16"},
         "239.1.2.3",
         "239.1.2.0/24"},
        {AddressFamily::ipv4,
         {"239.1.2.0/24", "224.0.0.0/4", "239.1.0.0/16"},
         "239.1.3.3",
         "239.1.0.0/16"},
        {AddressFamily::ipv4,
         {"239.1.2.0/24", "224.0.0.0/4", "239.1.0.0/16"},
         "238.0.0.1",
         "224.0.0.0/4"},
        {AddressFamily::ipv4, {"0.0.0.0/0", "239.1.2.3/32"}, "239.1.2.3", "239.1.2.3/32"},
        {AddressFamily::ipv4, {"0.0.0.0/0", "239.1.2.3/32"}, "239.1.2.4", "0.0.0.0/0"},
        // Bits beyond a byte boundary: /13 covers 239.0.0.0 - 239.7.255.255.
        {AddressFamily::ipv4, {"239.0.0.0/13"}, "239.7.255.255", "239.0.0.0/13"},
        {AddressFamily::ipv4, {"239.0.0.0/13"}, "239.8.0.0", "none"},
        {AddressFamily::ipv6,
         {"ff00::/8", "ff3e::/32", "ff3e::8000:0/97"},
         "ff3e::8000:1",
         "ff3e::8000:0/97"},
        {AddressFamily::ipv6, {"ff00::/8", "ff3e::/32", "ff3e::8000:0/97"}, "ff3e::1", "ff3e::/32"},
        {AddressFamily::ipv6, {"ff00::/8", "ff3e::/32"}, "ff05::1", "ff00::/8"},
        {AddressFamily::ipv6, {"ff3e::1/128"}, "ff3e::1", "ff3e::1/128"},
        // An address of the other family matches nothing.
        {AddressFamily::ipv6, {"::/0"}, "239.1.2.3", "none"},
    };
    for (const auto& c : cases) {
        PrefixTrie t(c.family);
        for (const char* p : c.prefixes) t.insert(prefix(p));
        EXPECT_EQ(match(t, c.addr), c.expected) << c.addr;
    }
}

TEST(PrefixTrieTest, EraseKeepsTheOtherPrefixesOfALength) {
    PrefixTrie t(AddressFamily::ipv4);
    EXPECT_TRUE(t.insert(prefix("239.1.0.0/16")));
    EXPECT_FALSE(t.insert(prefix("239.1.9.9/16")));  // the same block
    EXPECT_TRUE(t.insert(prefix("239.2.0.0/16")));
    EXPECT_TRUE(t.insert(prefix("239.0.0.0/8")));
    EXPECT_EQ(t.size(), 3u);

    EXPECT_TRUE(t.erase(prefix("239.1.0.0/16")));
    EXPECT_FALSE(t.erase(prefix("239.1.0.0/16")));
    EXPECT_EQ(match(t, "239.1.0.1"), "239.0.0.0/8");
    // /16 is still present through 239.2.0.0/16.
    EXPECT_EQ(match(t, "239.2.0.1"), "239.2.0.0/16");
    EXPECT_TRUE(t.erase(prefix("239.2.0.0/16")));
    EXPECT_EQ(match(t, "239.2.0.1"), "239.0.0.0/8");
    EXPECT_EQ(t.size(), 1u);
    EXPECT_THROW(t.insert(prefix("ff3e::/32")), std::invalid_argument);
}

TEST(PrefixTrieTest, PrefixesComeBackInAddressOrder) {
    const std::vector<std::pair<AddressFamily, std::vector<std::string>>> cases = {
        {AddressFamily::ipv4, {"0.0.0.0/0", "224.0.0.0/4", "239.1.0.0/16", "239.1.2.3/32"}},
        {AddressFamily::ipv6, {"ff00::/8", "ff3e::/32", "ff3e::1:2/128", "ff3e::8000:0/97"}},
    };
    for (const auto& [family, sorted] : cases) {
        PrefixTrie t(family);
        for (auto it = sorted.rbegin(); it != sorted.rend(); ++it) t.insert(prefix(*it));
        std::vector<std::string> out;
        for (const auto& p : t.prefixes()) out.push_back(p.str());
        EXPECT_EQ(out, sorted);
        for (const auto& p : sorted) EXPECT_TRUE(t.contains(prefix(p))) << p;
        EXPECT_FALSE(
            t.contains(prefix(family == AddressFamily::ipv4 ? "239.1.0.0/17" : "ff3e::/33")));
    }
}

// Random inserts and erases against a scan over every prefix held.
TEST(PrefixTrieTest, AgreesWithAScanUnderRandomChanges) {
    std::mt19937 rng(7);
    PrefixTrie t(AddressFamily::ipv4);
    std::vector<IpGenPrefix> held;
    auto randomAddr = [&] { return IpGenAddr::v4(0xef000000u | (rng() & 0x00ff0f0fu)); };
    for (int step = 0; step < 2000; ++step) {
        const IpGenPrefix p(randomAddr(), 8 + rng() % 25);
        const auto it = std::find(held.begin(), held.end(), p);
        if (rng() % 3 == 0) {
            EXPECT_EQ(t.erase(p), it != held.end());
            if (it != held.end()) held.erase(it);
        } else {
            EXPECT_EQ(t.insert(p), it == held.end());
            if (it == held.end()) held.push_back(p);
        }
        const IpGenAddr a = randomAddr();
        std::optional<IpGenPrefix> best;
        for (const auto& h : held) {
            if (h.contains(a) && (!best || h.length() > best->length())) best = h;
        }
        ASSERT_EQ(t.longestMatch(a), best) << "step " << step << " addr " << a;
        ASSERT_EQ(t.size(), held.size());
    }
}

}  // namespace
}  // namespace Wirl
