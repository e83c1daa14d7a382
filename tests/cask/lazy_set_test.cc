#include "cask/lazy_set.h"

#include <gtest/gtest.h>

#include <vector>

namespace Cask {
namespace {

std::vector<int> items(const LazySet<int>& s) {
    return {s.begin(), s.end()};
}

TEST(LazySetTest, BehavesAsAnOrderedSetAndFreesWhenEmptied) {
    LazySet<int> s;
    EXPECT_TRUE(s.empty());
    EXPECT_EQ(s.find(3), s.end());
    EXPECT_TRUE(s.insert(3).second);
    EXPECT_TRUE(s.insert(1).second);
    EXPECT_FALSE(s.insert(3).second);
    EXPECT_EQ(items(s), (std::vector<int>{1, 3}));
    EXPECT_EQ(*s.lower_bound(2), 3);
    EXPECT_EQ(s.upper_bound(3), s.end());

    LazySet<int> copy = s;
    s.erase(s.find(1));
    s.erase(s.find(3));
    // Emptied: the tree is gone, and the copy kept its own.
    EXPECT_TRUE(s.empty());
    EXPECT_EQ(s.size(), 0u);
    EXPECT_EQ(s.begin(), s.end());
    EXPECT_EQ(items(copy), (std::vector<int>{1, 3}));
    EXPECT_TRUE(s.insert(2).second);
    EXPECT_EQ(items(s), (std::vector<int>{2}));
}

}  // namespace
}  // namespace Cask
