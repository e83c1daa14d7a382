#include "platform/join_prune.h"

#include <gtest/gtest.h>

#include "platform/join_prune_neighbor_sm.h"

namespace Routing::Pim {
namespace {

Wirl::IpGenAddr ip(std::string_view s) {
    return *Wirl::IpGenAddr::parse(s);
}

TEST(JoinPruneGroupData, SuppressionSurvivesOnlyAnUnchangedFlagAndEmptyIgnoresTheReference) {
    auto periodic = Cask::make<JoinPruneGroupData>(ip("239.1.1.1"));
    auto g = Cask::make<JoinPruneGroupData>(ip("239.1.1.1"));
    const auto rp = ip("10.9.9.9");
    EXPECT_TRUE(g->empty());
    EXPECT_FALSE(g->wcSuppressedIs(rp, true));  // no entry to suppress
    g->periodicPrunedRptGroupDataIs(periodic);
    EXPECT_TRUE(g->empty());
    g->wcSourceDataIs(rp, true);
    EXPECT_TRUE(g->wcSuppressedIs(rp, true));
    g->wcSourceDataIs(rp, true);
    EXPECT_EQ(g->wcSourceData(rp), (WcSourceData{true, true}));
    g->wcSourceDataIs(rp, false);
    EXPECT_EQ(g->wcSourceData(rp), (WcSourceData{false, false}));
    EXPECT_FALSE(g->empty());
    g->wcSourceDataDel(rp);
    g->prunedRptSourceIs(ip("10.1.1.1"));
    EXPECT_FALSE(g->empty());
}

TEST(JoinPruneNeighborSm, KeepsOneEntryPerPimNeighbor) {
    auto pim = Cask::make<Status>();
    auto jp = Cask::make<JoinPruneStatus>();
    const Wirl::IntfId e1("e1"), e2("e2");
    auto intf = [&](Wirl::IntfId id) {
        auto s = Cask::make<PimIntfStatus>(id);
        pim->intfIs(id, s);
        return s;
    };
    auto nbr = [](PimIntfStatus& s, const char* a) {
        s.neighborIs(ip(a), Cask::make<PimNeighborStatus>(NeighborKey{s.intfId(), ip(a)}));
    };
    auto s1 = intf(e1);
    nbr(*s1, "10.0.1.2");  // present before the machine starts
    auto sm = joinPruneNeighborSmFactory(pim, jp);
    EXPECT_TRUE(jp->neighborHas(NeighborKey{e1, ip("10.0.1.2")}));

    auto s2 = intf(e2);
    nbr(*s2, "10.0.2.2");
    nbr(*s2, "10.0.2.3");
    EXPECT_EQ(jp->neighborSize(), 3u);
    // An entry keeps what was queued in it while the neighbour stays.
    jp->neighbor(e2, ip("10.0.2.2"))->periodic().joinPruneGroupDataIs(ip("239.1.1.1"));
    nbr(*s2, "10.0.2.2");
    EXPECT_EQ(jp->neighbor(e2, ip("10.0.2.2"))->periodic().joinPruneGroupDataSize(), 1u);

    s2->neighborDel(ip("10.0.2.3"));
    EXPECT_FALSE(jp->neighborHas(NeighborKey{e2, ip("10.0.2.3")}));
    pim->intfDel(e2);
    EXPECT_EQ(jp->neighborSize(), 1u);
    // A replaced interface record brings its own neighbours.
    auto s1b = Cask::make<PimIntfStatus>(e1);
    nbr(*s1b, "10.0.1.9");
    pim->intfIs(e1, s1b);
    EXPECT_EQ(jp->neighborSize(), 1u);
    EXPECT_TRUE(jp->neighborHas(NeighborKey{e1, ip("10.0.1.9")}));
}

}  // namespace
}  // namespace Routing::Pim
