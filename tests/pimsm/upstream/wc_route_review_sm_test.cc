#include "pimsm/upstream/wc_route_review_sm.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cask/event_loop.h"
#include "upstream_fixture.h"

namespace Routing::Pim::SparseMode::Testing {
namespace {

using Set = UpstreamFixture::Set;

Wirl::IpGenPrefix prefix(std::string_view s) {
    return *Wirl::IpGenPrefix::parse(s);
}

// Joined (*,G) routes in three ranges, all toward the fixture's RP through
// up1: 239.1.0.0/16 and 238.0.0.0/8 have their own mapping, 239.2.x falls
// under the fixture's 239.0.0.0/8.
struct ReviewFixture : UpstreamFixture {
    static constexpr int perRange = 40;
    const IpGenAddr rp2 = ip("10.9.9.10");  // also through up1
    Cask::EventLoop loop{clock};
    std::unique_ptr<WcRouteReviewSm> review;

    ReviewFixture() {
        rpMapping->rpIs(prefix("239.1.0.0/16"), rp);
        rpMapping->rpIs(prefix("238.0.0.0/8"), rp);
        for (const char* base : {"239.1.0.", "238.1.0.", "239.2.0."}) {
            for (int i = 0; i < perRange; ++i) addJoinedRoute(ip(fmt::format("{}{}", base, i)));
        }
        ctx.loop = &loop;
        review = std::make_unique<WcRouteReviewSm>(ctx, *sm);
        review->review().itemsPerSliceIs(8);
    }
    void addJoinedRoute(const IpGenAddr& g) {
        const RouteKey k = RouteKey::wc(g);
        auto r = status.routeIs(k);
        ls->wcRouteIs(k, r);
        r->routeIntfIs(d1)->localReceiverIncludeIs(true);
    }
    // The RP the periodic Join at nbr1 names for the group ("" for none).
    std::string joinedRp(const IpGenAddr& g) const {
        const auto* gd = jp->neighbor(up1, nbr1)->periodic().joinPruneGroupData(g);
        if (!gd || gd->wcSourceData().size() != 1) return gd ? "several" : "";
        return gd->wcSourceData().begin()->first.str();
    }
    int countJoinedTo(const char* base, const IpGenAddr& to) const {
        int n = 0;
        for (int i = 0; i < perRange; ++i)
            n += joinedRp(ip(fmt::format("{}{}", base, i))) == to.str();
        return n;
    }
};

TEST(WcRouteReviewSm, ReviewsOnlyTheChangedRangeInSlicesAndTakesLaterChangesNext) {
    ReviewFixture f;
    ASSERT_EQ(f.countJoinedTo("239.1.0.", f.rp), ReviewFixture::perRange);

    f.rpMapping->rpIs(prefix("239.1.0.0/16"), f.rp2);
    EXPECT_EQ(f.countJoinedTo("239.1.0.", f.rp2), 0) << "applied at once, not by the review";

    // Turn by turn: never more than a slice of routes moves in one turn.
    int turns = 0, moved = 0;
    bool changedMidReview = false;
    auto busy = [&] { return f.review->review().inProgress() || f.review->review().pending(); };
    while (busy() && turns < 100) {
        f.clock.advanceTo(f.loop.nextExpiry());
        f.loop.runOnce();
        ++turns;
        const int now = f.countJoinedTo("239.1.0.", f.rp2);
        EXPECT_LE(now - moved, 8);
        moved = now;
        if (!changedMidReview && f.review->review().inProgress()) {
            // A second range changes while the first is under review: it
            // waits for the next review instead of being lost or mixed in.
            changedMidReview = true;
            f.rpMapping->rpIs(prefix("238.0.0.0/8"), f.rp2);
            EXPECT_EQ(f.review->pendingRanges().size(), 1u);
        }
    }
    ASSERT_TRUE(changedMidReview);
    EXPECT_EQ(f.countJoinedTo("239.1.0.", f.rp2), ReviewFixture::perRange);
    EXPECT_EQ(f.countJoinedTo("238.1.0.", f.rp2), ReviewFixture::perRange);
    // The group under the unchanged 239.0.0.0/8 mapping was not even visited.
    EXPECT_EQ(f.countJoinedTo("239.2.0.", f.rp), ReviewFixture::perRange);
    EXPECT_EQ(f.review->groupsVisited(), 2u * ReviewFixture::perRange);
    EXPECT_EQ(f.review->routesReviewed(), 2u * ReviewFixture::perRange);
    EXPECT_GE(turns, 2 * ReviewFixture::perRange / 8);
    EXPECT_TRUE(Cask::trace().contains("WcRouteReviewSm: Suspending review at: 239.1.0.16"));

    // A more specific range with the RP its groups have already: visited,
    // none handed over.
    f.rpMapping->rpIs(prefix("239.2.0.0/16"), f.rp);
    f.loop.runUntil(f.clock.now() + 1);
    EXPECT_EQ(f.countJoinedTo("239.2.0.", f.rp), ReviewFixture::perRange);
    EXPECT_EQ(f.review->groupsVisited(), 3u * ReviewFixture::perRange);
    EXPECT_EQ(f.review->routesReviewed(), 2u * ReviewFixture::perRange);
}

// The upstream side of one route, per kind of mapping change: where the
// Join goes and which RP it names, and what the old neighbour gets.
TEST(WcRouteReviewSm, HandleRpChangeMovesTheJoinToTheNewRp) {
    struct Case {
        const char* name;
        const char* newRp;  // "" withdraws the mapping
        bool viaUp2;        // the new RP is reached through up2
        const char *nbr1Periodic, *nbr1Triggered, *nbr2Periodic;
    };
    const Case cases[] = {
        {"same neighbour", "10.9.9.10", false, "join 10.9.9.10", "join 10.9.9.10", ""},
        {"other neighbour", "10.8.8.8", true, "", "prune 10.8.8.8", "join 10.8.8.8"},
        {"withdrawn", "", false, "", "", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        UpstreamFixture f;
        f.table->routeIs({prefix("10.8.8.0/24"), f.up2, f.nbr2, 110, 20, false});
        f.receiverIs(true);
        auto* n1 = f.jp->neighbor(f.up1, f.nbr1);
        n1->pendingSent();
        auto describe = [&](const IpGenAddr& n, Set s) {
            std::string out;
            const JoinPruneGroupData* gd = f.groupData(n, s);
            if (!gd) return out;
            for (const auto& [addr, d] : gd->wcSourceData()) {
                out += fmt::format("{}{} {}", out.empty() ? "" : ", ", d.join ? "join" : "prune",
                                   addr);
            }
            return out;
        };
        if (*c.newRp) {
            f.rpMapping->rpIs(prefix("239.0.0.0/8"), ip(c.newRp));
        } else {
            f.rpMapping->rpDel(prefix("239.0.0.0/8"));
        }
        ASSERT_TRUE(f.sm->rpChanged(f.route()));
        f.sm->handleRpChange(f.route());
        EXPECT_FALSE(f.sm->rpChanged(f.route()));
        EXPECT_EQ(describe(f.nbr1, Set::periodic), c.nbr1Periodic);
        EXPECT_EQ(describe(f.nbr1, Set::triggered), c.nbr1Triggered);
        EXPECT_EQ(describe(f.nbr2, Set::periodic), c.nbr2Periodic);
        EXPECT_EQ(f.route().rpf().neighbor, c.viaUp2 ? f.nbr2 : *c.newRp ? f.nbr1 : IpGenAddr());
    }
}

// A Join toward the former RP still waiting in the triggered set is dropped
// when the Join toward the new RP is written: one RP per group.
TEST(WcRouteReviewSm, PendingJoinTowardTheFormerRpIsNotSentBesideTheNewOne) {
    UpstreamFixture f;
    f.receiverIs(true);  // triggered Join toward 10.9.9.9, not yet sent
    ASSERT_EQ(f.entry(f.nbr1, Set::triggered), "join");
    const IpGenAddr rp2 = ip("10.9.9.10");
    f.rpMapping->rpIs(prefix("239.0.0.0/8"), rp2);
    f.sm->handleRpChange(f.route());
    const JoinPruneGroupData* gd = f.groupData(f.nbr1, Set::triggered);
    ASSERT_NE(gd, nullptr);
    EXPECT_EQ(gd->wcSourceData().size(), 1u);
    EXPECT_TRUE(gd->wcSourceDataHas(rp2));
}

}  // namespace
}  // namespace Routing::Pim::SparseMode::Testing
