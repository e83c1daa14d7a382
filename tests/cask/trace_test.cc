// Trace rings: level filtering without formatting cost, bounded size, order,
// and the assertion macro's output.
#include <gtest/gtest.h>

#include "cask/assert.h"
#include "cask/format_probe.h"
#include "cask/trace.h"

namespace {

TEST(Trace, LinesAboveTheLevelAreNeitherKeptNorFormatted) {
    auto& ring = Cask::trace();
    ring.clear();
    ring.levelIs(6);
    int formatted = 0;
    CASK_TRACE(8, "detail {}", Costly{&formatted});
    CASK_TRACE(7, "detail {}", Costly{&formatted});
    CASK_TRACE(6, "<Vrf:{}>RouteSm::handleIntf( {}", "red", Costly{&formatted});
    CASK_TRACE(4, "notable");
    EXPECT_EQ(formatted, 1);
    ASSERT_EQ(ring.size(), 2u);
    EXPECT_EQ(ring.lines()[0].text, "<Vrf:red>RouteSm::handleIntf( 0");
    EXPECT_EQ(ring.lines()[1].level, 4);
    ring.levelIs(4);
}

TEST(Trace, RingKeepsTheNewestLinesInOrder) {
    Cask::TraceRing ring(3);
    ring.levelIs(8);
    ring.timeSourceIs([] { return 2.5; });
    for (int i = 0; i < 5; ++i) ring.add(7, fmt::format("line {}", i));
    auto lines = ring.lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].text, "line 2");
    EXPECT_EQ(lines[2].text, "line 4");
    EXPECT_EQ(lines[2].seq, 4u);
    EXPECT_EQ(lines[0].time, 2.5);
    EXPECT_EQ(ring.dropped(), 2u);
    EXPECT_EQ(ring.count("line"), 3u);
    EXPECT_FALSE(ring.contains("line 1"));
}

TEST(AssertDeathTest, PrintsTheTextAndAborts) {
    EXPECT_DEATH(CASK_ASSERT(1 + 1 == 3, "jpNeighbor"), "assertion failed: jpNeighbor");
}

}  // namespace
