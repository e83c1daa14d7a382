// The sliced review runner: slice budgets, continuation on the next loop
// turn outside the rate limiter, resuming past deleted keys, requests during
// a review (again bit and swapped sets), traces, and queues as its source.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "cask/clock.h"
#include "cask/event_loop.h"
#include "cask/queue.h"
#include "cask/sliced_review.h"
#include "cask/trace.h"

namespace Cask {
namespace {

// A record owning one ordered set of ints.
class Bag : public Record<Bag> {
public:
    class Notifiee : public NotifieeOf<Bag> {
    public:
        virtual void handleItem(int) {}
    };
    CASK_KEY_SET(item, Item, int)

private:
    OrderedKeySet<int> item_;
};

// A review of a Bag on virtual time that starts as soon as it is asked for.
struct Fixture {
    explicit Fixture(int items, ReviewTiming timing = {0, 0}) {
        for (int i = 1; i <= items; ++i) bag.itemIs(i);
        SlicedReview<int>::Steps steps;
        steps.walk = orderedWalk(bag.item());
        steps.visit = [this](int k) {
            visited.push_back(k);
            clock.advanceBy(costPerItem);
            if (onVisit) onVisit(k);
        };
        steps.onStart = [this] { ++reviews; };
        steps.onSlice = [this](Seconds start, Seconds) {
            slices.emplace_back();
            sliceStarts.push_back(start);
        };
        review = std::make_unique<SlicedReview<int>>(loop, timing, ReviewTexts{"red", "Bag: "},
                                                     std::move(steps));
    }
    // Items visited per slice.
    std::vector<std::size_t> perSlice() const {
        std::vector<std::size_t> n;
        std::size_t before = 0;
        for (std::size_t end : sliceEnds) {
            n.push_back(end - before);
            before = end;
        }
        return n;
    }
    // Runs one turn at a time, noting where each slice ended, and moves the
    // clock to the next timer when nothing is due.
    void runTurns() {
        for (;;) {
            if (loop.runOnce()) {
                if (sliceEnds.size() < slices.size()) sliceEnds.push_back(visited.size());
                continue;
            }
            if (loop.nextExpiry() == never) return;
            clock.advanceTo(loop.nextExpiry());
        }
    }

    Bag bag;
    VirtualClock clock;
    EventLoop loop{clock};
    Seconds costPerItem = 0;
    std::function<void(int)> onVisit;
    std::vector<int> visited;
    std::vector<std::vector<int>> slices;
    std::vector<Seconds> sliceStarts;
    std::vector<std::size_t> sliceEnds;
    int reviews = 0;
    std::unique_ptr<SlicedReview<int>> review;
};

TEST(SlicedReview, SliceEndsAfterTheItemThatReachesItsBudget) {
    struct Case {
        const char* what;
        Seconds quantum;
        Seconds cost;
        std::size_t count;
        std::vector<std::size_t> perSlice;
    };
    const Case cases[] = {
        // An item that ends exactly at the quantum ends the slice.
        {"one item spends the quantum exactly", 0.125, 0.125, 0, {1, 1, 1, 1, 1}},
        {"two items spend it exactly", 0.125, 0.0625, 0, {2, 2, 1}},
        {"the third item goes past it", 0.125, 0.05, 0, {3, 2}},
        {"time stands still: one slice", 0.125, 0, 0, {5}},
        {"count budget", 0.125, 0, 2, {2, 2, 1}},
        {"count before time", 0.125, 0.05, 2, {2, 2, 1}},
        {"time before count", 0.125, 0.0625, 4, {2, 2, 1}},
        {"an item longer than the quantum still runs", 0.125, 1, 0, {1, 1, 1, 1, 1}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Fixture f(5);
        f.costPerItem = c.cost;
        f.review->quantumIs(c.quantum);
        f.review->itemsPerSliceIs(c.count);
        f.review->request();
        f.runTurns();
        EXPECT_EQ(f.visited, (std::vector<int>{1, 2, 3, 4, 5}));
        EXPECT_EQ(f.perSlice(), c.perSlice);
        EXPECT_FALSE(f.review->inProgress());
        EXPECT_EQ(f.reviews, 1);
    }
}

// Reviews due in one turn share the turn's budget, and end-of-turn work left
// by the previous turn counts against it: a turn stays near one quantum.
TEST(SlicedReview, SlicesOfOneTurnShareItsBudget) {
    Fixture f(5);
    f.costPerItem = 0.05;
    f.review->quantumIs(0.125);
    Bag other;
    for (int i = 1; i <= 5; ++i) other.itemIs(i);
    std::vector<int> otherVisited;
    SlicedReview<int>::Steps steps;
    steps.walk = orderedWalk(other.item());
    steps.visit = [&](int k) {
        otherVisited.push_back(k);
        f.clock.advanceBy(0.05);
    };
    SlicedReview<int> second(f.loop, ReviewTiming{0, 0}, ReviewTexts{"red", "Other: "},
                             std::move(steps));
    second.quantumIs(0.125);
    f.review->request();
    second.request();
    f.clock.advanceTo(f.loop.nextExpiry());
    ASSERT_TRUE(f.loop.runOnce());
    // Three items reach the budget; the second review gets the one item every
    // slice is owed.
    EXPECT_EQ(f.visited.size() + otherVisited.size(), 4u);
    // A turn that starts with 0.1 s of end-of-turn work leaves room for one
    // item of each.
    f.loop.atEndOfTurn([&] { f.clock.advanceBy(0.1); });
    const std::size_t before = f.visited.size() + otherVisited.size();
    ASSERT_TRUE(f.loop.runOnce());
    EXPECT_EQ(f.visited.size() + otherVisited.size() - before, 2u);
}

// The bucket decides when a review starts, never when a suspended one goes
// on: with the bucket empty, every slice still runs on the next turn at the
// same time, and the continuation takes no credit.
TEST(SlicedReview, SuspendedReviewContinuesNextTurnWithoutCredit) {
    // Two credits refilled at one per 50 s; a review starts 0.5 s after it is
    // asked for at best.
    Fixture f(4, ReviewTiming{0.5, 0.5, 100, 2});
    f.review->itemsPerSliceIs(1);
    f.bag.itemDelAll();
    for (int i = 0; i < 2; ++i) {  // two empty reviews spend the credits
        f.review->request();
        f.runTurns();
    }
    ASSERT_EQ(f.reviews, 2);
    ASSERT_LT(f.review->timer().credits(), 0.1);
    f.sliceStarts.clear();
    for (int i = 1; i <= 4; ++i) f.bag.itemIs(i);
    f.review->request();
    f.clock.advanceTo(f.loop.nextExpiry());
    const Seconds t = f.clock.now();
    ASSERT_TRUE(f.loop.runOnce());  // the first slice
    ASSERT_TRUE(f.review->inProgress());
    const double credits = f.review->timer().credits();
    EXPECT_EQ(f.review->timer().timer().timeMin(), t);
    for (int slice = 2; slice <= 4; ++slice) {
        ASSERT_TRUE(f.loop.runOnce()) << slice;
        EXPECT_EQ(f.clock.now(), t);
    }
    EXPECT_FALSE(f.review->inProgress());
    EXPECT_EQ(f.visited, (std::vector<int>{1, 2, 3, 4}));
    EXPECT_EQ(f.sliceStarts, (std::vector<Seconds>{t, t, t, t}));
    EXPECT_EQ(f.review->timer().credits(), credits);
}

TEST(SlicedReview, ResumesAtTheNextKeyWhenTheBookmarkWasDeletedAndTraces) {
    trace().levelIs(6);
    trace().clear();
    Fixture f(6);
    f.review->itemsPerSliceIs(2);
    f.review->request();
    ASSERT_TRUE(f.loop.runOnce());
    EXPECT_EQ(f.review->bookmark(), 3);
    f.bag.itemDel(3);
    f.bag.itemIs(10);
    ASSERT_TRUE(f.loop.runOnce());
    EXPECT_EQ(f.review->bookmark(), 6);
    f.runTurns();
    EXPECT_EQ(f.visited, (std::vector<int>{1, 2, 4, 5, 6, 10}));
    EXPECT_EQ(f.review->bookmark(), 0);
    std::vector<std::string> lines;
    for (const auto& l : trace().lines()) lines.push_back(l.text);
    trace().levelIs(4);
    EXPECT_EQ(lines, (std::vector<std::string>{
                         "<Vrf:red>Bag: Starting new review",
                         "<Vrf:red>Bag: Suspending review at: 3",
                         "<Vrf:red>Bag: Resuming review at: 3",
                         "<Vrf:red>Bag: Suspending review at: 6",
                         "<Vrf:red>Bag: Resuming review at: 6",
                         "<Vrf:red>Bag: Finished review",
                     }));
}

TEST(SlicedReview, VisitorMayRemoveAndAddItems) {
    Fixture f(6);
    f.onVisit = [&](int k) {
        f.bag.itemDel(k);
        f.bag.itemDel(k + 1);
        if (k == 5) f.bag.itemIs(8);
    };
    f.review->request();
    f.runTurns();
    EXPECT_EQ(f.visited, (std::vector<int>{1, 3, 5, 8}));
    EXPECT_EQ(f.bag.itemSize(), 0u);
}

TEST(SlicedReview, EmptyWalkFinishesAtOnce) {
    Fixture f(0);
    f.review->request();
    ASSERT_TRUE(f.loop.runOnce());
    EXPECT_FALSE(f.review->inProgress());
    EXPECT_EQ(f.reviews, 1);
    EXPECT_TRUE(f.visited.empty());
    EXPECT_EQ(f.loop.armedTimers(), 0u);
}

// However many requests arrive during a review, between its slices or from
// inside one, exactly one more full review follows it.
TEST(SlicedReview, RequestsDuringAReviewRunExactlyOneMore) {
    struct Case {
        const char* what;
        int requestsBetweenSlices;
        int requestsInsideSlice;
        int reviews;
    };
    const Case cases[] = {
        {"none", 0, 0, 1},
        {"one between slices", 1, 0, 2},
        {"three between slices", 3, 0, 2},
        {"from inside a slice", 0, 2, 2},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Fixture f(3);
        f.review->itemsPerSliceIs(1);
        f.onVisit = [&](int k) {
            if (f.reviews == 1 && k == 3) {
                for (int i = 0; i < c.requestsInsideSlice; ++i) f.review->request();
            }
        };
        f.review->request();
        f.review->request();  // before it starts: the same review
        f.clock.advanceTo(f.loop.nextExpiry());
        ASSERT_TRUE(f.loop.runOnce());
        for (int i = 0; i < c.requestsBetweenSlices; ++i) f.review->request();
        f.runTurns();
        EXPECT_EQ(f.reviews, c.reviews);
        EXPECT_EQ(f.visited.size(), 3u * c.reviews);
        EXPECT_EQ(f.loop.armedTimers(), 0u);
    }
}

// Producers fill the pending set; a new review takes it as its working set,
// so a key added during a review waits for the next one.
TEST(SlicedReview, SwappedSetsKeepChangesDuringAReviewForTheNext) {
    VirtualClock clock;
    EventLoop loop(clock);
    Bag sets[2];
    Bag* pending = &sets[0];
    Bag* working = &sets[1];
    std::vector<std::vector<int>> reviews;
    std::unique_ptr<SlicedReview<int>> review;
    SlicedReview<int>::Steps steps;
    steps.walk = orderedWalk([&]() -> const auto& { return working->item(); });
    steps.visit = [&](int k) {
        reviews.back().push_back(k);
        if (k == 2) {
            pending->itemIs(7);
            review->request();
        }
    };
    steps.onStart = [&] {
        reviews.emplace_back();
        std::swap(pending, working);
    };
    steps.onFinish = [&] { working->itemDelAll(); };
    review = std::make_unique<SlicedReview<int>>(loop, ReviewTiming{0, 0}, ReviewTexts{},
                                                 std::move(steps));
    review->itemsPerSliceIs(1);
    for (int k : {3, 1, 2}) pending->itemIs(k);
    review->request();
    loop.runUntilIdle();
    EXPECT_EQ(reviews, (std::vector<std::vector<int>>{{1, 2, 3}, {7}}));
}

// A record with a queue of messages, as a receiver would keep them.
class Inbox : public Record<Inbox> {
public:
    class Notifiee : public NotifieeOf<Inbox> {
    public:
        virtual void handleMessage() {}
    };
    CASK_QUEUE(message, Message, std::string)

private:
    Queue<std::string> message_;
};

// A hold set by a visitor ends the slice after that item and keeps the
// bookmark; nothing runs while held (not even a new review asked for), and
// the release continues at the bookmark on the next turn.
TEST(SlicedReview, HoldStopsTheSliceAndReleaseResumesAtTheBookmark) {
    for (bool heldBeforeStart : {false, true}) {
        SCOPED_TRACE(heldBeforeStart ? "held before the review starts" : "held by item 2");
        Fixture f(5);
        if (heldBeforeStart) {
            f.review->heldIs(true);
        } else {
            f.onVisit = [&](int k) {
                if (k == 2) f.review->heldIs(true);
            };
        }
        f.review->request();
        f.runTurns();
        const std::vector<int> beforeRelease =
            heldBeforeStart ? std::vector<int>{} : std::vector<int>{1, 2};
        EXPECT_EQ(f.visited, beforeRelease);
        EXPECT_EQ(f.review->inProgress(), !heldBeforeStart);
        if (!heldBeforeStart) {
            EXPECT_EQ(f.review->bookmark(), 3);
        }
        EXPECT_FALSE(f.review->pending());
        f.review->heldIs(false);
        f.runTurns();
        EXPECT_EQ(f.visited, (std::vector<int>{1, 2, 3, 4, 5}));
        EXPECT_FALSE(f.review->inProgress());
        EXPECT_EQ(f.reviews, 1);
    }
}

TEST(Queue, PushAnnouncesAndAQueueReviewTakesEntriesInOrder) {
    VirtualClock clock;
    EventLoop loop(clock);
    Inbox inbox;
    std::vector<std::string> seen;
    std::unique_ptr<SlicedReview<Queue<std::string>::Key>> review;
    struct Watcher : Inbox::Notifiee {
        std::function<void()> on;
        void handleMessage() override { on(); }
    } watcher;
    int announced = 0;
    watcher.on = [&] {
        ++announced;
        review->request();
    };
    watcher.notifierIs(&inbox);
    SlicedReview<Queue<std::string>::Key>::Steps steps;
    steps.walk = queueWalk(inbox.message());
    steps.visit = [&](Queue<std::string>::Key k) {
        EXPECT_EQ(k, inbox.message().frontKey());
        seen.push_back(inbox.messageFront());
        if (seen.size() == 2) inbox.messagePush("late");  // joins this review
        inbox.messagePop();
    };
    review = std::make_unique<SlicedReview<Queue<std::string>::Key>>(
        loop, ReviewTiming{0, 0}, ReviewTexts{}, std::move(steps));
    review->itemsPerSliceIs(2);
    for (const char* m : {"b", "a", "b"}) inbox.messagePush(m);
    EXPECT_EQ(inbox.messageSize(), 3u);
    EXPECT_EQ(inbox.messageFront(), "b");
    loop.runOnce();
    EXPECT_EQ(review->bookmark(), 3u);  // the third push
    loop.runUntilIdle();
    EXPECT_EQ(seen, (std::vector<std::string>{"b", "a", "b", "late"}));
    EXPECT_EQ(announced, 4);  // pushes announce, pops do not
    EXPECT_EQ(inbox.messageSize(), 0u);
    EXPECT_EQ(inbox.message().frontKey(), 5u);
}

}  // namespace
}  // namespace Cask
