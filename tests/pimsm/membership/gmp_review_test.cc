// The change review and the full review: coalescing, slices that resume at
// their bookmark, and changes that arrive while a review runs.
#include <gtest/gtest.h>

#include <vector>

#include "gmp_fixture.h"

namespace Routing::Pim::SparseMode::Testing {
namespace {

void runUntilTrace(GmpFixture& fx, std::string_view text) {
    while (!Cask::trace().contains(text)) {
        if (!fx.loop.runOnce()) fx.clock.advanceTo(fx.loop.nextExpiry());
    }
}

std::vector<RouteIntfKey> joinGroups(GmpFixture& fx, unsigned n) {
    std::vector<RouteIntfKey> keys;
    for (unsigned i = 1; i <= n; ++i) {
        keys.push_back(GmpFixture::key(fx.any(), fx.group(false, i)));
        fx.join(keys.back());
    }
    return keys;
}

// Checks that every suspension of `machine`'s review is followed by a
// resumption at the same key; returns the number of suspensions.
std::size_t checkResumes(std::string_view machine, std::string_view sep) {
    const std::string review = fmt::format("{}:doReview: ", machine);
    const std::string suspend = review + "Suspending review at: ";
    std::string expected;
    std::size_t suspensions = 0;
    for (const auto& line : Cask::trace().lines()) {
        if (line.text.find(review) == std::string::npos) continue;
        EXPECT_NE(line.text.find(expected), std::string::npos) << line.text;
        const auto at = line.text.find(suspend);
        expected = at == std::string::npos ? ""
                                           : fmt::format("Resuming review at{}{}", sep,
                                                         line.text.substr(at + suspend.size()));
        suspensions += at != std::string::npos;
    }
    return suspensions;
}

TEST(GmpChangeSm, ManyChangedKeysCompleteInSlicesResumingAtTheirBookmarks) {
    for (auto family : {Wirl::AddressFamily::ipv4, Wirl::AddressFamily::ipv6}) {
        GmpFixture fx(family);
        const auto keys = joinGroups(fx, 5000);
        fx.clock.advancePerReadIs(0.001);  // about 50 decisions per 0.1 s slice
        fx.settle();
        EXPECT_GE(checkResumes("GmpChangeSm", ": "), 20u);
        // Each key decided once, in key order across the slices.
        std::vector<std::string> decided;
        for (const auto& line : Cask::trace().lines()) {
            if (line.level == 8 && line.text.find("doUpdateMembership(") != std::string::npos) {
                decided.push_back(line.text);
            }
        }
        ASSERT_EQ(decided.size(), keys.size());
        for (std::size_t i = 0; i < keys.size(); ++i) {
            ASSERT_NE(decided[i].find(fmt::format("{} {},", keys[i].routeKey, keys[i].intf)),
                      std::string::npos);
            ASSERT_EQ(fx.flags(keys[i]), "include 1 exclude 0");
        }
    }
}

TEST(GmpChangeSm, KeyChangedDuringAReviewIsDecidedInTheNextOne) {
    GmpFixture fx(Wirl::AddressFamily::ipv4);
    const auto keys = joinGroups(fx, 500);
    fx.clock.advancePerReadIs(0.001);
    runUntilTrace(fx, "GmpChangeSm:doReview: Suspending review at: ");
    const auto fresh = GmpFixture::key(fx.source(3), fx.group(false, 1));
    fx.join(keys.front(), FilterMode::exclude);  // decided already in this review
    fx.join(fresh);                              // not part of it
    ASSERT_EQ(GmpFixture::decisions(fresh), 0u);
    runUntilTrace(fx, "GmpChangeSm:doReview: Finished review");
    EXPECT_EQ(GmpFixture::decisions(fresh), 0u);
    fx.settle();
    EXPECT_EQ(GmpFixture::decisions(keys.front()), 2u);
    EXPECT_EQ(fx.flags(keys.front()), "include 0 exclude 1");
    EXPECT_EQ(fx.flags(fresh), "include 1 exclude 0");
}

TEST(GmpChangeSm, KeyThatFlapsBetweenReviewsIsDecidedOnce) {
    GmpFixture fx(Wirl::AddressFamily::ipv6);
    const auto stays = GmpFixture::key(fx.source(1), fx.group(true));
    const auto goes = GmpFixture::key(fx.source(2), fx.group(true));
    for (int i = 0; i < 100; ++i) {
        fx.join(stays, i % 2 ? FilterMode::include : FilterMode::exclude);
        fx.join(goes);
        fx.leave(goes);
    }
    fx.settle();
    EXPECT_EQ(GmpFixture::decisions(stays), 1u);
    EXPECT_EQ(GmpFixture::decisions(goes), 1u);
    EXPECT_EQ(fx.flags(stays), "include 1 exclude 0");
    EXPECT_EQ(fx.flags(goes), "none");
}

// Keys before the bookmark were decided on the old inputs: a change during a
// full review runs it again once it has finished.
TEST(GmpSm, FullReviewRunsInSlicesAndAgainForAChangeMidReview) {
    GmpFixture fx(Wirl::AddressFamily::ipv4);
    const auto keys = joinGroups(fx, 300);
    fx.settle();
    Cask::trace().clear();
    fx.clock.advancePerReadIs(0.001);
    Wirl::AddressRangeSet all(fx.family);
    all.add(*Wirl::IpGenPrefix::parse("239.0.0.0/8"));
    fx.config->ssmRangeIs(all);
    runUntilTrace(fx, "GmpSm:doReview: Suspending review at: ");
    EXPECT_EQ(fx.flags(keys.front()), "include 0 exclude 0");
    fx.config->ssmRangeIs(std::nullopt);
    fx.settle();
    EXPECT_GE(checkResumes("GmpSm", " "), 2u);
    EXPECT_EQ(Cask::trace().count("GmpSm:doReview: Starting new review"), 2u);
    for (const auto& k : keys) ASSERT_EQ(fx.flags(k), "include 1 exclude 0");
}

}  // namespace
}  // namespace Routing::Pim::SparseMode::Testing
