#include "platform/join_prune_writer.h"

#include <gtest/gtest.h>

#include <string>

namespace Routing::Pim {
namespace {

using Kind = JoinPruneEntry::Kind;
using Set = JoinPruneSet;

Wirl::IpGenAddr ip(std::string_view s) {
    return *Wirl::IpGenAddr::parse(s);
}

constexpr Set allSets[] = {Set::periodic, Set::triggered, Set::override_};

struct WriterFixture {
    WriterFixture() {
        for (const auto& k : {n1, n2}) jp->neighborIs(k, Cask::make<JoinPruneNeighbor>(k));
    }
    JoinPruneNeighbor& nbr(const NeighborKey& k = {}) const {
        return *jp->neighbor(k.intf.isNull() ? n1.intf : k.intf,
                             k.intf.isNull() ? n1.address : k.address);
    }
    // Group records across every set of every neighbour.
    std::size_t records() const {
        std::size_t n = 0;
        for (const auto& [k, e] : jp->neighbor()) {
            for (Set s : allSets) n += JoinPruneWriter::set(*e, s).joinPruneGroupDataSize();
        }
        return n;
    }
    const JoinPruneGroupData* ref(Set s) const {
        const JoinPruneGroupData* gd = JoinPruneWriter::groupData(nbr(), s, group);
        return gd ? gd->periodicPrunedRptGroupData().get() : nullptr;
    }

    const NeighborKey n1{Wirl::IntfId("e1"), ip("10.0.1.2")};
    const NeighborKey n2{Wirl::IntfId("e2"), ip("10.0.2.2")};
    const Wirl::IpGenAddr group = ip("239.1.1.1");
    const Wirl::IpGenAddr rp = ip("10.9.9.9");
    const RouteKey sg{ip("10.1.1.1"), ip("239.1.1.1")};
    Cask::Ptr<JoinPruneStatus> jp = Cask::make<JoinPruneStatus>();
    JoinPruneWriter writer{*jp, L3::VrfName("red")};
};

// Every kind of entry in every set: written, deleted and withdrawn without
// touching the other sets or leaving empty records behind.
TEST(JoinPruneWriter, EachEntryKindInEachSet) {
    WriterFixture f;
    const JoinPruneEntry entries[] = {
        JoinPruneEntry::wcJoin(f.group, f.rp),          JoinPruneEntry::wcPrune(f.group, f.rp),
        JoinPruneEntry::of(Kind::joined, f.sg),         JoinPruneEntry::of(Kind::pruned, f.sg),
        JoinPruneEntry::of(Kind::joinSuppressed, f.sg), JoinPruneEntry::of(Kind::rptJoined, f.sg),
        JoinPruneEntry::of(Kind::rptPruned, f.sg)};
    for (const auto& e : entries) {
        for (Set s : allSets) {
            SCOPED_TRACE(e.str() + " in set " + std::to_string(static_cast<int>(s)));
            f.writer.entryIs(f.nbr(), s, e);
            for (Set other : allSets) {
                EXPECT_EQ(JoinPruneWriter::has(f.nbr(), other, e), other == s);
            }
            EXPECT_FALSE(JoinPruneWriter::has(*f.jp->neighbor(f.n2.intf, f.n2.address), s, e));
            EXPECT_EQ(f.records(), 1u);
            f.writer.entryDel(f.nbr(), s, e);
            EXPECT_FALSE(JoinPruneWriter::has(f.nbr(), s, e));
            EXPECT_EQ(f.records(), 0u);

            for (Set any : allSets) f.writer.entryIs(f.nbr(), any, e);
            f.writer.entryIs(f.nbr(f.n2), s, e);
            f.writer.entryWithdraw(f.nbr(), e);
            EXPECT_EQ(f.records(), 1u);  // only the other neighbour's
            f.writer.entryWithdraw(f.nbr(f.n2), e);
            EXPECT_EQ(f.records(), 0u);
        }
    }
}

// An entry and its opposite exclude each other; a Join's suppression goes
// with it; the periodic set keeps one (*,G) entry per group.
TEST(JoinPruneWriter, OppositeEntriesReplaceEachOther) {
    struct Case {
        std::vector<JoinPruneEntry> writes;
        JoinPruneEntry del;  // then deleted (kind wc with no RP: nothing)
        std::vector<JoinPruneEntry> present, absent;
        Set set = Set::triggered;
    };
    WriterFixture f;
    const auto sgE = [&](Kind k) { return JoinPruneEntry::of(k, f.sg); };
    const auto j = sgE(Kind::joined), p = sgE(Kind::pruned), js = sgE(Kind::joinSuppressed);
    const auto rj = sgE(Kind::rptJoined), rp = sgE(Kind::rptPruned);
    const auto rp2 = ip("10.9.9.8");
    const auto wcJ = JoinPruneEntry::wcJoin(f.group, f.rp),
               wcP = JoinPruneEntry::wcPrune(f.group, f.rp);
    const auto wcJ2 = JoinPruneEntry::wcJoin(f.group, rp2),
               wcP2 = JoinPruneEntry::wcPrune(f.group, rp2);
    const JoinPruneEntry none = JoinPruneEntry::wcAny(ip("239.9.9.9"));
    const Case cases[] = {
        {{p, j}, none, {j}, {p}},
        {{j, js, p}, none, {p}, {j, js}},
        {{j, js}, j, {}, {js}, Set::periodic},
        {{rp, rj}, none, {rj}, {rp}},
        {{rj, rp}, none, {rp}, {rj}},
        {{wcJ, wcP}, none, {wcP}, {wcJ}},
        // A triggered message may carry entries toward two RPs; the periodic
        // one keeps the latest only.
        {{wcP2, wcJ}, none, {wcP2, wcJ}, {}},
        {{wcJ2, wcJ}, none, {wcJ}, {wcJ2}, Set::periodic},
        // Deleting (*,G) with no RP takes every RP's entry, Join or Prune.
        {{wcP2, wcJ, j}, JoinPruneEntry::wcAny(f.group), {j}, {JoinPruneEntry::wcAny(f.group)}},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE("case " + std::to_string(i));
        const Case& c = cases[i];
        for (const auto& e : c.writes) f.writer.entryIs(f.nbr(), c.set, e);
        f.writer.entryDel(f.nbr(), c.set, c.del);
        for (const auto& e : c.present) EXPECT_TRUE(JoinPruneWriter::has(f.nbr(), c.set, e));
        for (const auto& e : c.absent) EXPECT_FALSE(JoinPruneWriter::has(f.nbr(), c.set, e));
        JoinPruneWriter::set(f.nbr(), c.set).joinPruneGroupDataDelAll();
    }
}

// A triggered or override (*,G) Join refers to the periodic record of its
// group while both exist, whichever was written first.
TEST(JoinPruneWriter, PendingJoinFollowsThePeriodicRecord) {
    WriterFixture f;
    const auto prune = JoinPruneEntry::of(Kind::rptPruned, f.sg);
    const auto join = JoinPruneEntry::wcJoin(f.group, f.rp);
    for (Set s : {Set::triggered, Set::override_}) {
        SCOPED_TRACE(static_cast<int>(s));
        f.writer.entryIs(f.nbr(), s, join);
        EXPECT_EQ(f.ref(s), nullptr);  // nothing periodic yet
        f.writer.entryIs(f.nbr(), Set::periodic, prune);
        const JoinPruneGroupData* periodic =
            JoinPruneWriter::groupData(f.nbr(), Set::periodic, f.group);
        ASSERT_NE(periodic, nullptr);
        EXPECT_EQ(f.ref(s), periodic);
        EXPECT_TRUE(periodic->prunedRptSourceHas(f.sg.source()));
        // A Prune carries no (S,G,rpt) prunes; a Join again does.
        f.writer.entryIs(f.nbr(), s, JoinPruneEntry::wcPrune(f.group, f.rp));
        EXPECT_EQ(f.ref(s), nullptr);
        f.writer.entryIs(f.nbr(), s, join);
        EXPECT_EQ(f.ref(s), periodic);
        // The periodic record empties and goes: nothing is referred to.
        f.writer.entryDel(f.nbr(), Set::periodic, prune);
        EXPECT_EQ(JoinPruneWriter::groupData(f.nbr(), Set::periodic, f.group), nullptr);
        EXPECT_EQ(f.ref(s), nullptr);
        f.writer.entryWithdraw(f.nbr(), join);
        EXPECT_EQ(f.records(), 0u);
    }
}

// The one-pass (*,G) Join leaves every set as the entry-by-entry writes do:
// the periodic Join, the former RP's pending Joins dropped, the triggered
// Join, each pending record's reference to the periodic one. Every prior
// content of the three sets is tried.
TEST(JoinPruneWriter, OnePassWcJoinMatchesTheEntryByEntryWrites) {
    const Wirl::IpGenAddr former = ip("10.8.8.8");
    // What a set holds for the group before the Join is written.
    enum Prior { none, joinFormer, pruneFormer, joinSame, pruneSame, rptOnly, joinFormerAndRpt };
    const Prior priors[] = {none,      joinFormer, pruneFormer,     joinSame,
                            pruneSame, rptOnly,    joinFormerAndRpt};
    auto prepare = [&](WriterFixture& f, Set s, Prior p) {
        auto& w = f.writer;
        const auto rpt =
            JoinPruneEntry::of(s == Set::periodic ? Kind::rptPruned : Kind::rptJoined, f.sg);
        switch (p) {
            case none:
                break;
            case joinFormer:
                w.entryIs(f.nbr(), s, JoinPruneEntry::wcJoin(f.group, former));
                break;
            case pruneFormer:
                w.entryIs(f.nbr(), s, JoinPruneEntry::wcPrune(f.group, former));
                break;
            case joinSame:
                w.entryIs(f.nbr(), s, JoinPruneEntry::wcJoin(f.group, f.rp));
                break;
            case pruneSame:
                w.entryIs(f.nbr(), s, JoinPruneEntry::wcPrune(f.group, f.rp));
                break;
            case rptOnly:
                w.entryIs(f.nbr(), s, rpt);
                break;
            case joinFormerAndRpt:
                w.entryIs(f.nbr(), s, JoinPruneEntry::wcJoin(f.group, former));
                w.entryIs(f.nbr(), s, rpt);
                break;
        }
    };
    // A set's record as text: its (*,G) entries, its sources, whether it refers to the periodic
    // record of the group.
    auto describe = [](const WriterFixture& f, Set s) {
        const JoinPruneGroupData* gd = JoinPruneWriter::groupData(f.nbr(), s, f.group);
        if (!gd) return std::string("none");
        std::string out;
        for (const auto& [rp, d] : gd->wcSourceData()) {
            out += rp.str() + (d.join ? " join; " : " prune; ");
        }
        for (const auto& src : gd->joinedRptSource()) out += "rptJoined " + src.str() + "; ";
        for (const auto& src : gd->prunedRptSource()) out += "rptPruned " + src.str() + "; ";
        const auto* periodic = JoinPruneWriter::groupData(f.nbr(), Set::periodic, f.group);
        const auto* ref = gd->periodicPrunedRptGroupData().get();
        out += ref == nullptr ? "no ref" : ref == periodic ? "ref periodic" : "ref elsewhere";
        return out;
    };
    for (Prior p0 : priors) {
        for (Prior p1 : priors) {
            for (Prior p2 : priors) {
                SCOPED_TRACE(testing::Message() << "priors " << p0 << p1 << p2);
                WriterFixture byEntry, onePass;
                for (WriterFixture* f : {&byEntry, &onePass}) {
                    prepare(*f, Set::periodic, p0);
                    prepare(*f, Set::triggered, p1);
                    prepare(*f, Set::override_, p2);
                }
                auto& w = byEntry.writer;
                w.entryIs(byEntry.nbr(), Set::periodic,
                          JoinPruneEntry::wcJoin(byEntry.group, byEntry.rp));
                for (Set s : {Set::triggered, Set::override_}) {
                    if (JoinPruneWriter::has(byEntry.nbr(), s,
                                             JoinPruneEntry::wcJoin(byEntry.group, former))) {
                        w.entryDel(byEntry.nbr(), s, JoinPruneEntry::wcJoin(byEntry.group, former));
                    }
                }
                w.entryIs(byEntry.nbr(), Set::triggered,
                          JoinPruneEntry::wcJoin(byEntry.group, byEntry.rp));
                onePass.writer.wcJoinIs(onePass.nbr(), onePass.group, onePass.rp);
                for (Set s : allSets) {
                    EXPECT_EQ(describe(onePass, s), describe(byEntry, s))
                        << "set " << static_cast<int>(s);
                }
            }
        }
    }
}

TEST(JoinPruneWriter, StartUpSweepRemovesStaleEntriesAndKeepsLiveOnes) {
    WriterFixture f;
    const auto g2 = ip("239.2.2.2");
    const RouteKey live = f.sg, gone{ip("10.1.1.2"), f.group};
    f.writer.entryIs(f.nbr(), Set::periodic, JoinPruneEntry::wcJoin(f.group, f.rp));
    f.writer.entryIs(f.nbr(f.n2), Set::periodic, JoinPruneEntry::wcJoin(g2, f.rp));
    f.writer.entryIs(f.nbr(f.n2), Set::triggered, JoinPruneEntry::wcJoin(g2, f.rp));
    for (const auto& k : {live, gone}) {
        f.writer.entryIs(f.nbr(), Set::periodic, JoinPruneEntry::of(Kind::joined, k));
        f.writer.entryIs(f.nbr(), Set::periodic, JoinPruneEntry::of(Kind::rptPruned, k));
    }
    f.writer.entryIs(f.nbr(), Set::periodic, JoinPruneEntry::of(Kind::joinSuppressed, gone));

    // (*,G): only g2's route is gone.
    auto removed = f.writer.periodicSweep(
        Kind::wc, [&](const NeighborKey&, const JoinPruneEntry& e) { return e.group() == g2; });
    ASSERT_EQ(removed.size(), 1u);
    EXPECT_EQ(removed[0].first, f.n2);
    EXPECT_EQ(removed[0].second, JoinPruneEntry::wcJoin(g2, f.rp));
    EXPECT_EQ(JoinPruneWriter::groupData(f.nbr(f.n2), Set::periodic, g2), nullptr);
    // The triggered Join stays but no longer refers to a removed record.
    const auto* trig = JoinPruneWriter::groupData(f.nbr(f.n2), Set::triggered, g2);
    ASSERT_NE(trig, nullptr);
    EXPECT_EQ(trig->periodicPrunedRptGroupData(), nullptr);
    EXPECT_TRUE(
        JoinPruneWriter::has(f.nbr(), Set::periodic, JoinPruneEntry::wcJoin(f.group, f.rp)));

    // (S,G) Joins and (S,G,rpt) Prunes of the route that is gone; its
    // suppression goes with its Join.
    auto stale = [&](const NeighborKey&, const JoinPruneEntry& e) { return e.key == gone; };
    EXPECT_EQ(f.writer.periodicSweep(Kind::joined, stale).size(), 1u);
    EXPECT_EQ(f.writer.periodicSweep(Kind::rptPruned, stale).size(), 1u);
    for (Kind k : {Kind::joined, Kind::rptPruned, Kind::joinSuppressed}) {
        EXPECT_FALSE(JoinPruneWriter::has(f.nbr(), Set::periodic, JoinPruneEntry::of(k, gone)));
    }
    for (Kind k : {Kind::joined, Kind::rptPruned}) {
        EXPECT_TRUE(JoinPruneWriter::has(f.nbr(), Set::periodic, JoinPruneEntry::of(k, live)));
    }
    // Everything stale: the records go.
    auto all = [](const NeighborKey&, const JoinPruneEntry&) { return true; };
    for (Kind k : {Kind::wc, Kind::joined, Kind::rptPruned}) f.writer.periodicSweep(k, all);
    EXPECT_EQ(f.nbr().periodic().joinPruneGroupDataSize(), 0u);
}

TEST(JoinPruneWriterDeathTest, RpfNeighborWithoutEntryIsFatal) {
    WriterFixture f;
    EXPECT_EQ(&f.writer.rpfNeighbor(f.n1.intf, f.n1.address), &f.nbr());
    EXPECT_DEATH(f.writer.rpfNeighbor(f.n1.intf, ip("10.0.1.77")), "jpNeighbor");
}

TEST(JoinPruneStatus, SentEmptiesPendingSetsKeepsPeriodicAndShowsLastSent) {
    WriterFixture f;
    const auto join = JoinPruneEntry::wcJoin(f.group, f.rp);
    const auto rptJoin = JoinPruneEntry::of(Kind::rptJoined, f.sg);
    f.writer.entryIs(f.nbr(), Set::periodic, join);
    f.writer.entryIs(f.nbr(), Set::triggered, join);
    f.writer.entryIs(f.nbr(f.n2), Set::override_, rptJoin);
    f.jp->pendingSent();
    for (const auto& k : {f.n1, f.n2}) {
        EXPECT_EQ(f.nbr(k).pendingTriggered().joinPruneGroupDataSize(), 0u);
        EXPECT_EQ(f.nbr(k).pendingOverride().joinPruneGroupDataSize(), 0u);
    }
    EXPECT_TRUE(JoinPruneWriter::has(f.nbr(), Set::periodic, join));
    const auto* sent = f.nbr().sentTriggered().joinPruneGroupData(f.group);
    ASSERT_NE(sent, nullptr);
    EXPECT_TRUE(sent->wcSourceData(f.rp).join);
    EXPECT_EQ(f.nbr().sentOverride().joinPruneGroupDataSize(), 0u);
    ASSERT_NE(f.nbr(f.n2).sentOverride().joinPruneGroupData(f.group), nullptr);
    EXPECT_TRUE(
        f.nbr(f.n2).sentOverride().joinPruneGroupData(f.group)->joinedRptSourceHas(f.sg.source()));

    // A copy: later writes do not change what was sent; nothing pending
    // keeps it; new pending contents replace it.
    f.writer.entryIs(f.nbr(), Set::triggered, JoinPruneEntry::wcPrune(f.group, f.rp));
    EXPECT_TRUE(f.nbr().sentTriggered().joinPruneGroupData(f.group)->wcSourceData(f.rp).join);
    f.jp->pendingSent();
    f.jp->pendingSent();
    EXPECT_FALSE(f.nbr().sentTriggered().joinPruneGroupData(f.group)->wcSourceData(f.rp).join);
    EXPECT_EQ(f.nbr(f.n2).sentOverride().joinPruneGroupDataSize(), 1u);
}

TEST(JoinPruneRecords, RemembersReceivedPrunesAndDecodesWholeMessages) {
    struct Watcher : JoinPruneStatus::Notifiee, JoinPruneRxStatus::Notifiee {
        using RouteIntfKey = Routing::Gmp::Tidal::RouteIntfKey;
        void handleRxPrune(const RouteIntfKey& k) override { rxPrunes.push_back(k); }
        void handleJoinPruneMessage() override { ++messages; }
        std::vector<RouteIntfKey> rxPrunes;
        int messages = 0;
    } w;
    auto jp = Cask::make<JoinPruneStatus>();
    auto rx = Cask::make<JoinPruneRxStatus>();
    w.JoinPruneStatus::Notifiee::notifierIs(jp.get());
    w.JoinPruneRxStatus::Notifiee::notifierIs(rx.get());

    JoinPruneMessageInfo m;
    m.riKey = RouteKey(ip("10.1.1.1"), ip("239.1.1.1"));
    m.upstreamNeighbor = ip("10.0.1.1");
    m.sender = ip("10.0.1.9");
    const Routing::Gmp::Tidal::RouteIntfKey k{m.riKey, Wirl::IntfId("e1")};
    jp->rxPruneIs(k, RxPruneInfo(m));
    EXPECT_EQ(jp->rxPrune(k).upstreamNeighbor, m.upstreamNeighbor);
    EXPECT_EQ(jp->rxPrune(k).riKey, m.riKey);
    jp->rxPruneDel(k);
    EXPECT_FALSE(jp->rxPruneHas(k));
    EXPECT_EQ(w.rxPrunes.size(), 2u);

    JoinPruneMessage msg;
    msg.sender = ip("10.0.1.9");
    msg.intf = Wirl::IntfId("e1");
    msg.upstreamNeighbor = ip("10.0.1.1");
    msg.holdTime = 90;
    auto& g = msg.data->joinPruneGroupDataIs(ip("239.1.1.1"));
    g.wcSourceDataIs(ip("10.9.9.9"), true);
    g.joinedSourceIs(ip("10.1.1.1"));
    g.prunedSourceIs(ip("10.1.1.2"));
    g.joinedRptSourceIs(ip("10.1.1.3"));
    g.prunedRptSourceIs(ip("10.1.1.4"));
    msg.data->joinPruneGroupDataIs(ip("239.2.2.2")).wcSourceDataIs(ip("10.9.9.9"), false);
    rx->joinPruneMessageIs(msg);
    rx->joinPruneMessageIs(msg);  // the same message again is a new event
    EXPECT_EQ(w.messages, 2);

    std::vector<std::string> got;
    rx->joinPruneMessage().forEachEntry([&](bool join, const JoinPruneMessageInfo& e) {
        EXPECT_EQ(e.holdTime, 90);
        EXPECT_EQ(e.upstreamNeighbor, msg.upstreamNeighbor);
        got.push_back(fmt::format("{} {} wc={} rpt={} rp={}", join ? "J" : "P", e.riKey,
                                  e.sourceFlags.wildcard, e.sourceFlags.rpt,
                                  e.sourceFlags.isStarG() ? e.wcSource.str() : "-"));
    });
    const std::vector<std::string> want = {
        "J (*, 239.1.1.1) wc=true rpt=true rp=10.9.9.9",
        "J (10.1.1.1, 239.1.1.1) wc=false rpt=false rp=-",
        "P (10.1.1.2, 239.1.1.1) wc=false rpt=false rp=-",
        "J (10.1.1.3, 239.1.1.1) wc=false rpt=true rp=-",
        "P (10.1.1.4, 239.1.1.1) wc=false rpt=true rp=-",
        "P (*, 239.2.2.2) wc=true rpt=true rp=10.9.9.9",
    };
    EXPECT_EQ(got, want);
}

}  // namespace
}  // namespace Routing::Pim
