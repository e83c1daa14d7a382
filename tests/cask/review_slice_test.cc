// Sliced reviews: bounded by the quantum, resumable at a bookmark even when
// the bookmarked key disappears, and safe against removals by the visitor.
#include <gtest/gtest.h>

#include <vector>

#include "cask/clock.h"
#include "cask/review_slice.h"

namespace {

// A minimal record owning one ordered set of ints.
class Bag : public Cask::Record<Bag> {
public:
    class Notifiee : public Cask::NotifieeOf<Bag> {
    public:
        virtual void handleItem(int) {}
    };
    CASK_KEY_SET(item, Item, int)

private:
    Cask::OrderedKeySet<int> item_;
};

TEST(ReviewSlice, SlicesAreBoundedAndResumeWhereTheyStopped) {
    Bag bag;
    for (int i = 1; i <= 10; ++i) bag.itemIs(i);
    Cask::VirtualClock clock;
    clock.advancePerReadIs(0.03);  // each item "costs" 0.03 s
    int bookmark = 0;
    std::vector<std::vector<int>> slices;
    Cask::SliceResult r;
    do {
        slices.emplace_back();
        r = Cask::reviewSlice(bag.item(), bookmark, clock, 0.1,
                              [&](int k) { slices.back().push_back(k); });
    } while (r == Cask::SliceResult::suspended);
    // Start at 0 -> stop 0.1; reads at 0.03, 0.06, 0.09, 0.12: four items.
    EXPECT_EQ(slices, (std::vector<std::vector<int>>{{1, 2, 3, 4}, {5, 6, 7, 8}, {9, 10}}));
    EXPECT_EQ(bookmark, 0);
}

TEST(ReviewSlice, BookmarkedKeyRemovedBetweenSlices) {
    Bag bag;
    for (int i = 1; i <= 6; ++i) bag.itemIs(i);
    Cask::VirtualClock clock;
    clock.advancePerReadIs(1.0);  // every slice handles exactly one item
    int bookmark = 0;
    std::vector<int> seen;
    auto each = [&](int k) { seen.push_back(k); };
    EXPECT_EQ(Cask::reviewSlice(bag.item(), bookmark, clock, 0.5, each),
              Cask::SliceResult::suspended);
    EXPECT_EQ(bookmark, 2);
    bag.itemDel(2);  // the bookmarked key goes away
    bag.itemIs(100);
    Cask::reviewSlice(bag.item(), bookmark, clock, 0.5, each);
    EXPECT_EQ(seen, (std::vector<int>{1, 3}));
}

TEST(ReviewSlice, VisitorMayRemoveTheCurrentAndOtherEntries) {
    Bag bag;
    for (int i = 1; i <= 6; ++i) bag.itemIs(i);
    Cask::VirtualClock clock;
    int bookmark = 0;
    std::vector<int> seen;
    auto r = Cask::reviewSlice(bag.item(), bookmark, clock, 0.1, [&](int k) {
        seen.push_back(k);
        bag.itemDel(k);
        bag.itemDel(k + 1);
    });
    EXPECT_EQ(r, Cask::SliceResult::finished);
    EXPECT_EQ(seen, (std::vector<int>{1, 3, 5}));
    EXPECT_EQ(bag.itemSize(), 0u);
}

}  // namespace
