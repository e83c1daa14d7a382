// randomDelay: the factor lies in [0.1, 1.0), its [0.1, 0.2) band is twice
// as likely as any other band of width 0.1, and a seed reproduces a run.
#include <gtest/gtest.h>

#include <array>

#include "cask/random.h"
#include "pimsm/common/pimsm_common_utils.h"

namespace {

using Routing::Pim::SparseMode::randomDelay;

TEST(RandomDelay, FactorRangeAndShape) {
    Cask::random().seedIs(7);
    constexpr int draws = 200000;
    std::array<int, 10> bands{};
    for (int i = 0; i < draws; ++i) {
        double f = randomDelay(2.0) / 2.0;
        ASSERT_GE(f, 0.1);
        ASSERT_LT(f, 1.0);
        ++bands[static_cast<int>(f * 10)];
    }
    EXPECT_EQ(bands[0], 0);
    // Each band of width 0.1 expects draws/10; the first gets two of them.
    for (int b = 2; b < 10; ++b) EXPECT_NEAR(bands[b], draws / 10, draws / 100) << "band " << b;
    EXPECT_NEAR(bands[1], draws / 5, draws / 100);
}

TEST(RandomDelay, SeedReproducesTheSequence) {
    Cask::random().seedIs(42);
    double a = randomDelay(1.0), b = randomDelay(1.0);
    Cask::random().seedIs(42);
    EXPECT_EQ(randomDelay(1.0), a);
    EXPECT_EQ(randomDelay(1.0), b);
    EXPECT_NE(a, b);
}

}  // namespace
