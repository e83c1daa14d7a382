#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "cask/clock.h"
#include "cask/event_loop.h"
#include "cask/review_timer.h"

namespace Cask {
namespace {

struct Params {
    Seconds fillInterval;
    std::uint32_t credits;
    Seconds minDelay;
    Seconds maxDelay;
};

// Back-to-back cycles: one request at 0, then every review asks for the next one.
TEST(ReviewTimerTest, BackToBackReviewsSpreadAsCreditsRunOutAndRefill) {
    struct Case {
        const char* what;
        Params p;
        std::vector<Seconds> reviews;
    };
    const Case cases[] = {
        // Four credits serve four reviews at once, then one per refill period (0.25 s).
        {"no delays", {1, 4, 0, 0}, {0, 0, 0, 0, 0.25, 0.5, 0.75, 1, 1.25, 1.5}},
        // Full bucket: minDelay; then the delay grows as the bucket drains (3.4 credits at 0.1
        // give 0.1 + 0.4 * 0.15), settling where refill matches one review per 0.25 s.
        {"spread",
         {1, 4, 0.1, 0.5},
         {0.1, 0.26, 0.456, 0.6736, 0.90416, 1.142496, 1.385498, 1.631299, 1.878779, 2.127267}},
        // maxDelay below the refill period: the bucket runs dry, then one review per 0.25 s.
        {"short spread",
         {1, 4, 0.05, 0.1},
         {0.05, 0.11, 0.1795, 0.258025, 0.345124, 0.5, 0.75, 1, 1.25, 1.5}},
        // Two credits at a rate of 1/s: 0.1 and 0.2 use them; the third waits for 0.8 credit.
        {"slow refill", {2, 2, 0.1, 0.1}, {0.1, 0.2, 1, 2, 3, 4, 5, 6, 7, 8}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        VirtualClock clock;
        EventLoop loop(clock);
        std::vector<Seconds> reviews;
        ReviewTimer review(loop, c.p.fillInterval, c.p.credits, c.p.minDelay, c.p.maxDelay, [&] {
            reviews.push_back(clock.now());
            if (reviews.size() < c.reviews.size()) review.doUpdateNextReview();
        });
        review.doUpdateNextReview();
        loop.runUntilIdle();
        ASSERT_EQ(reviews.size(), c.reviews.size());
        for (std::size_t i = 0; i < reviews.size(); ++i)
            EXPECT_NEAR(reviews[i], c.reviews[i], 1e-6);
    }
}

TEST(ReviewTimerTest, PendingRequestsCoalesceAndReviewRequestsScheduleOneMore) {
    VirtualClock clock(100);
    EventLoop loop(clock);
    std::vector<Seconds> reviews;
    ReviewTimer review(loop, 1, 4, 0.2, 1, [&] {
        reviews.push_back(clock.now());
        if (reviews.size() == 1) {
            for (int i = 0; i < 3; ++i) review.doUpdateNextReview();
        }
    });
    review.doUpdateNextReview();
    EXPECT_DOUBLE_EQ(review.timer().timeMin(), 100.2);  // a lone request waits minDelay
    review.doUpdateNextReview();
    EXPECT_DOUBLE_EQ(review.timer().timeMin(), 100.2);
    EXPECT_DOUBLE_EQ(review.credits(), 3);  // only the first request took a credit
    loop.runUntilIdle();
    ASSERT_EQ(reviews.size(), 2u);
    EXPECT_FALSE(review.reviewPending());
}

TEST(ReviewTimerTest, SliceRearmTakesNoCredit) {
    VirtualClock clock;
    EventLoop loop(clock);
    int slices = 0;
    ReviewTimer review(loop, 1, 4, 0, 0, [&] {
        if (++slices < 3) review.timer().timeMinIs(clock.now());
    });
    review.doUpdateNextReview();
    loop.runUntilIdle();
    EXPECT_EQ(slices, 3);
    EXPECT_DOUBLE_EQ(review.credits(), 3);
}

// Requests at random times, far more often than the bucket allows: none is served sooner than
// minDelay, and the requests that took a credit never outrun the bucket. A credit is taken only
// when no review is pending, i.e. with c >= 0 left, so the debt never passes one credit.
TEST(ReviewTimerTest, RandomRequestsHonourMinDelayAndRate) {
    const Params p{1, 4, 0.02, 0.1};
    const double rate = p.credits / p.fillInterval;
    VirtualClock clock;
    EventLoop loop(clock);
    int reviews = 0;
    ReviewTimer review(loop, p.fillInterval, p.credits, p.minDelay, p.maxDelay, [&] { ++reviews; });
    std::mt19937 rng(7);
    std::exponential_distribution<double> gap(20);  // 20 requests/s against a rate of 4/s
    std::vector<Seconds> taken;                     // requests that scheduled a review
    Seconds t = 0;
    for (int i = 0; i < 2000; ++i) {
        t += gap(rng);
        loop.runUntil(t);
        if (review.reviewPending()) continue;
        review.doUpdateNextReview();
        taken.push_back(t);
        EXPECT_GE(review.timer().timeMin() - t, p.minDelay - 1e-9);
    }
    loop.runUntilIdle();
    EXPECT_EQ(std::size_t(reviews), taken.size());
    ASSERT_GT(taken.size(), 100u);
    for (std::size_t i = 0; i < taken.size(); ++i) {
        for (std::size_t j = i; j < taken.size(); j += 5) {
            const double window = taken[j] - taken[i];
            EXPECT_LE(double(j - i + 1), p.credits + 1 + window * rate + 1e-6);
        }
    }
}

}  // namespace
}  // namespace Cask
