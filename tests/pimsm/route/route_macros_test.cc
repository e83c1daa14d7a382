// The RFC 7761 route macros (olists, JoinDesired, PruneDesired, lost_assert, CouldAssert,
// AssertTrackingDesired, assert metrics), as tables of cases. Every expected value below is
// worked out by hand from the RFC 7761 definitions, not from the code under test.
#include <gtest/gtest.h>

#include <compare>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "pimsm/route/route_fixture.h"

namespace {

using namespace Routing::Pim::SparseMode;
using Testing::RouteFixture;
using Wirl::AddressFamily;

constexpr AddressFamily families[] = {AddressFamily::ipv4, AddressFamily::ipv6};

// The interfaces (in interface order) for which `pred` holds on `route`'s records; an
// interface the route has no record for is left out.
std::string members(const Route& route, bool (Intf::*pred)() const) {
    std::string out;
    for (auto name : RouteFixture::intfNames) {
        const Intf* i = route.routeIntfRaw(Wirl::IntfId(name));
        if (!i || !(i->*pred)()) continue;
        if (!out.empty()) out += ' ';
        out += name;
    }
    return out;
}

bool listed(const std::string& list, std::string_view name) {
    std::istringstream in(list);
    for (std::string w; in >> w;) {
        if (w == name) return true;
    }
    return false;
}

std::string walkSg(const Route& r) {
    std::string out;
    r.forEachInheritedOlistSg([&](Wirl::IntfId i) { out += (out.empty() ? "" : " ") + i.name(); });
    return out;
}

std::string walkSgRpt(const Route& r) {
    std::string out;
    r.forEachInheritedOlistSgRpt(
        [&](Wirl::IntfId i) { out += (out.empty() ? "" : " ") + i.name(); });
    return out;
}

using Setup = std::function<void(RouteFixture&)>;

// --- olists, JoinDesired, PruneDesired ------------------------------------------------------

struct OlistCase {
    const char* name;
    Setup set;
    std::string immediateWc, immediateSg, inheritedSgRpt, inheritedSg;
    bool pruneDesiredSgRpt;
};

// Winner metrics on an (S,G) assert that do / do not beat spt_assert_metric(S,I).
AssertMetric strongSpt(const RouteFixture& f, const char* intf) {
    return {false, RouteFixture::srcPref - 10, 1000, f.peer(intf, RouteFixture::lowHost)};
}
AssertMetric weakSpt(const RouteFixture& f, const char* intf) {
    return {false, RouteFixture::srcPref, RouteFixture::srcMetric + 1,
            f.peer(intf, RouteFixture::highHost)};
}
AssertMetric rptWinner(const RouteFixture& f, const char* intf) {
    return {true, RouteFixture::rpPref, RouteFixture::rpMetric,
            f.peer(intf, RouteFixture::highHost)};
}

const std::vector<OlistCase> olistCases = {
    {"no state", [](RouteFixture&) {}, "", "", "", "", false},
    {"(*,G) Join and Prune-Pending are both joins",
     [](RouteFixture& f) {
         f.wc("d1").joinStateIs(JoinState::joined);
         f.wc("d2").joinStateIs(JoinState::prunePending);
     },
     "d1 d2", "", "d1 d2", "d1 d2", false},
    {"(S,G) joins alone: no RPT join, so no (S,G,rpt) prune even with the SPT bit",
     [](RouteFixture& f) {
         f.sgRoute->spTreeIs(true);
         f.sg("d1").joinStateIs(JoinState::joined);
         f.sg("d3").joinStateIs(JoinState::prunePending);
     },
     "", "d1 d3", "", "d1 d3", false},
    {"(S,G,rpt) Prune and PruneTmp prune, Prune-Pending does not",
     [](RouteFixture& f) {
         for (auto d : {"d1", "d2", "d3"}) f.wc(d).joinStateIs(JoinState::joined);
         f.sg("d1").rptStateIs(RptState::rptPruned);
         f.sg("d2").rptStateIs(RptState::rptPruneTmp);
         f.sg("d3").rptStateIs(RptState::rptPrunePending);
     },
     "d1 d2 d3", "", "d3", "d3", false},
    {"(S,G,rpt) Prune-Pending-Tmp does not prune",
     [](RouteFixture& f) {
         f.wc("d2").joinStateIs(JoinState::joined);
         f.sg("d2").rptStateIs(RptState::rptPrunePendingTmp);
     },
     "d2", "", "d2", "d2", false},
    {"every (*,G) join pruned for S: inherited_olist(S,G,rpt) null, PruneDesired",
     [](RouteFixture& f) {
         f.wc("d1").joinStateIs(JoinState::joined);
         f.sg("d1").rptStateIs(RptState::rptPruned);
     },
     "d1", "", "", "", true},
    {"(S,G,rpt) pruned but (S,G) joined on the same interface",
     [](RouteFixture& f) {
         f.wc("d1").joinStateIs(JoinState::joined);
         f.sg("d1").joinStateIs(JoinState::joined);
         f.sg("d1").rptStateIs(RptState::rptPruned);
     },
     "d1", "d1", "", "d1", true},
    {"(*,G) local include counts on a DR only",
     [](RouteFixture& f) {
         f.wc("d1").localReceiverIncludeIs(true);
         f.wc("d3").localReceiverIncludeIs(true);
     },
     "d1", "", "d1", "d1", false},
    {"(*,G) local include on a non-DR that won the (*,G) assert",
     [](RouteFixture& f) {
         f.wc("d3").localReceiverIncludeIs(true);
         f.wc("d3").assertInfoIs(RouteFixture::winner(f.rptMetric("d3")));
     },
     "d3", "", "d3", "d3", false},
    {"(S,G) local include on a DR, and on a non-DR that won the (S,G) assert",
     [](RouteFixture& f) {
         f.sg("d2").localReceiverIncludeIs(true);
         f.sg("d3").localReceiverIncludeIs(true);
         f.sg("d3").assertInfoIs(RouteFixture::winner(f.sptMetric("d3")));
     },
     "", "d2 d3", "", "d2 d3", false},
    {"(S,G) local exclude removes pim_include(*,G) only, not joins(*,G)",
     [](RouteFixture& f) {
         f.wc("d1").localReceiverIncludeIs(true);
         f.wc("d2").localReceiverIncludeIs(true);
         f.wc("d2").joinStateIs(JoinState::joined);
         f.sg("d1").localReceiverExcludeIs(true);
         f.sg("d2").localReceiverExcludeIs(true);
     },
     "d1 d2", "", "d2", "d2", false},
    {"pim_exclude(S,G) on a non-DR follows the (*,G) assert winner",
     [](RouteFixture& f) {
         f.wc("d3").localReceiverIncludeIs(true);
         f.wc("d3").assertInfoIs(RouteFixture::winner(f.rptMetric("d3")));
         f.sg("d3").localReceiverExcludeIs(true);
     },
     "d3", "", "", "", true},
    {"(*,G) assert loser: out of joins and pim_include, even on a DR",
     [](RouteFixture& f) {
         f.wc("d1").joinStateIs(JoinState::joined);
         f.wc("d1").assertInfoIs(RouteFixture::loser(rptWinner(f, "d1")));
         f.wc("d2").localReceiverIncludeIs(true);
         f.wc("d2").assertInfoIs(RouteFixture::loser(rptWinner(f, "d2")));
     },
     "", "", "", "", false},
    {"(*,G) assert loser keeps (S,G) joins",
     [](RouteFixture& f) {
         f.wc("d1").joinStateIs(JoinState::joined);
         f.wc("d1").assertInfoIs(RouteFixture::loser(rptWinner(f, "d1")));
         f.sg("d1").joinStateIs(JoinState::joined);
     },
     "", "d1", "", "d1", false},
    {"no assert is lost on RPF_interface(RP(G)), (*,G) nor (S,G,rpt)",
     [](RouteFixture& f) {
         f.wc("up_rp").joinStateIs(JoinState::joined);
         f.wc("up_rp").assertInfoIs(RouteFixture::loser(rptWinner(f, "up_rp")));
         f.sg("up_rp").assertInfoIs(RouteFixture::loser(strongSpt(f, "up_rp")));
     },
     "up_rp", "", "up_rp", "up_rp", false},
    {"(S,G) loser to a winner better than spt_assert_metric: out of both olists",
     [](RouteFixture& f) {
         f.wc("d1").joinStateIs(JoinState::joined);
         f.sg("d1").joinStateIs(JoinState::joined);
         f.sg("d1").assertInfoIs(RouteFixture::loser(strongSpt(f, "d1")));
         f.sg("d2").localReceiverIncludeIs(true);
         f.sg("d2").assertInfoIs(RouteFixture::loser(strongSpt(f, "d2")));
     },
     "d1", "", "", "", true},
    {"(S,G) loser to a winner worse than spt_assert_metric keeps (S,G) join and include",
     [](RouteFixture& f) {
         f.wc("d1").joinStateIs(JoinState::joined);
         f.sg("d1").joinStateIs(JoinState::joined);
         f.sg("d1").assertInfoIs(RouteFixture::loser(weakSpt(f, "d1")));
         f.sg("d2").localReceiverIncludeIs(true);
         f.sg("d2").assertInfoIs(RouteFixture::loser(weakSpt(f, "d2")));
     },
     "d1", "d1 d2", "", "d1 d2", true},
    {"(S,G) loser on RPF_interface(S) without the SPT bit loses it from the RPT olist",
     [](RouteFixture& f) {
         f.wc("up_s").joinStateIs(JoinState::joined);
         f.sg("up_s").assertInfoIs(RouteFixture::loser(strongSpt(f, "up_s")));
     },
     "up_s", "", "", "", true},
    {"(S,G) loser on RPF_interface(S) with the SPT bit keeps it; RPF' differ: PruneDesired",
     [](RouteFixture& f) {
         f.sgRoute->spTreeIs(true);
         f.wc("up_s").joinStateIs(JoinState::joined);
         f.sg("up_s").assertInfoIs(RouteFixture::loser(strongSpt(f, "up_s")));
     },
     "up_s", "", "up_s", "up_s", true},
    {"SPT bit, RPF'(*,G) == RPF'(S,G): no PruneDesired",
     [](RouteFixture& f) {
         f.sgRoute->spTreeIs(true);
         f.sgRoute->umh()->doUpdateRpf(f.wcRoute->rpf());
         f.wc("d1").joinStateIs(JoinState::joined);
     },
     "d1", "", "d1", "d1", false},
    {"SPT bit, same RPF' neighbour reached with another preference and metric",
     [](RouteFixture& f) {
         f.sgRoute->spTreeIs(true);
         auto rpf = f.wcRoute->rpf();
         rpf.preference = RouteFixture::srcPref;
         rpf.metric = RouteFixture::srcMetric;
         f.sgRoute->umh()->doUpdateRpf(rpf);
         f.wc("d1").joinStateIs(JoinState::joined);
     },
     "d1", "", "d1", "d1", false},
    {"SPT bit, RPF'(*,G) != RPF'(S,G) with a non-null olist: PruneDesired",
     [](RouteFixture& f) {
         f.sgRoute->spTreeIs(true);
         f.wc("d1").joinStateIs(JoinState::joined);
         f.sg("d2").joinStateIs(JoinState::joined);
     },
     "d1", "d2", "d1", "d1 d2", true},
};

void checkOlists(RouteFixture& f, const OlistCase& c, bool everyRecord) {
    const Route& wc = *f.wcRoute;
    Route& sg = *f.sgRoute;
    if (everyRecord) {
        // The (*,G) terms read on an (S,G) interface are the (*,G) route's.
        EXPECT_EQ(members(wc, &Intf::immediateOlistWc), c.immediateWc);
        EXPECT_EQ(members(sg, &Intf::immediateOlistWc), c.immediateWc);
        EXPECT_EQ(members(sg, &Intf::immediateOlistSg), c.immediateSg);
        EXPECT_EQ(members(sg, &Intf::inheritedOlistSgRpt), c.inheritedSgRpt);
        EXPECT_EQ(members(sg, &Intf::inheritedOlistSg), c.inheritedSg);
    }
    EXPECT_EQ(walkSg(sg), c.inheritedSg);
    EXPECT_EQ(walkSgRpt(sg), c.inheritedSgRpt);
    EXPECT_EQ(wc.nullImmediateOlistWc(), c.immediateWc.empty());
    EXPECT_EQ(sg.nullImmediateOlistSg(), c.immediateSg.empty());
    EXPECT_EQ(sg.nullInheritedOlistSgRpt(), c.inheritedSgRpt.empty());
    EXPECT_EQ(sg.nullInheritedOlistSg(), c.inheritedSg.empty());
    EXPECT_EQ(wc.joinDesiredWc(), !c.immediateWc.empty());
    EXPECT_EQ(sg.rptJoinDesiredWc(), !c.immediateWc.empty());
    EXPECT_EQ(sg.pruneDesiredSgRpt(), c.pruneDesiredSgRpt);
    // JoinDesired(S,G): immediate olist, or the keepalive timer running and an inherited one.
    ASSERT_TRUE(sg.katExpired());
    EXPECT_EQ(sg.joinDesiredSg(), !c.immediateSg.empty()) << "keepalive not running";
    sg.katExpiredIs(false);
    EXPECT_EQ(sg.joinDesiredSg(), !c.immediateSg.empty() || !c.inheritedSg.empty())
        << "keepalive running";
    sg.katExpiredIs(true);
}

TEST(RouteMacros, OlistsJoinDesiredAndPruneDesired) {
    for (auto family : families) {
        for (const auto& c : olistCases) {
            SCOPED_TRACE(testing::Message() << Wirl::familyName(family) << ": " << c.name);
            RouteFixture f(family);
            c.set(f);
            {
                SCOPED_TRACE("only the records the case made");
                checkOlists(f, c, false);
            }
            f.addAllRecords();
            SCOPED_TRACE("a record on every interface");
            checkOlists(f, c, true);
        }
    }
}

TEST(RouteMacros, WithoutAStarGRouteOnlyTheSgTermsCount) {
    RouteFixture f(AddressFamily::ipv6);
    f.sgRoute->spTreeIs(true);
    f.wc("d1").joinStateIs(JoinState::joined);  // the (*,G) route is about to be unregistered
    f.sg("d2").joinStateIs(JoinState::joined);
    f.sg("d3").localReceiverExcludeIs(true);
    f.forgetWcRoute();
    const Route& sg = *f.sgRoute;
    ASSERT_EQ(sg.wc(), nullptr);
    EXPECT_FALSE(sg.rpfWc().resolved());
    EXPECT_EQ(walkSg(sg), "d2");
    EXPECT_EQ(walkSgRpt(sg), "");
    EXPECT_TRUE(sg.nullInheritedOlistSgRpt());
    EXPECT_FALSE(sg.rptJoinDesiredWc());
    EXPECT_FALSE(sg.pruneDesiredSgRpt());
    EXPECT_TRUE(sg.joinDesiredSg());
    f.addAllRecords();
    EXPECT_EQ(members(sg, &Intf::inheritedOlistSg), "d2");
    EXPECT_EQ(members(sg, &Intf::couldAssertSg), "d2");
}

// --- lost_assert ----------------------------------------------------------------------------

// An assert offer made by host `host` of the interface's subnet (lo and hi are below and
// above my own address).
struct Offer {
    bool rpt;
    std::uint32_t pref, metric;
    unsigned host;
};
constexpr unsigned lo = RouteFixture::lowHost, hi = RouteFixture::highHost;
constexpr auto sp = RouteFixture::srcPref, sm = RouteFixture::srcMetric;
constexpr auto rp = RouteFixture::rpPref, rm = RouteFixture::rpMetric;

AssertMetric offer(const RouteFixture& f, std::string_view intf, const Offer& o) {
    return {o.rpt, o.pref, o.metric, f.peer(intf, o.host)};
}

TEST(RouteMacros, LostAssertSgOnlyWhenTheWinnerBeatsSptAssertMetric) {
    using enum AssertState;
    struct Case {
        const char* name;
        const char* intf;
        bool spt;
        AssertState state;
        Offer winner;
        bool lostSg, lostSgRpt;
    };
    const std::vector<Case> cases = {
        {"no assert state", "d1", false, assertNoInfo, {}, false, false},
        {"I am the winner", "d1", false, iAmAssertWinner, {false, sp, sm, 5}, false, false},
        {"better preference", "d1", false, iAmAssertLoser, {false, sp - 1, sm + 9, lo}, true, true},
        {"same preference, lower metric",
         "d1",
         false,
         iAmAssertLoser,
         {false, sp, sm - 1, lo},
         true,
         true},
        {"tie won on the higher address",
         "d1",
         false,
         iAmAssertLoser,
         {false, sp, sm, hi},
         true,
         true},
        {"tie, winner's address below mine",
         "d1",
         false,
         iAmAssertLoser,
         {false, sp, sm, lo},
         false,
         true},
        {"worse metric", "d1", false, iAmAssertLoser, {false, sp, sm + 1, hi}, false, true},
        {"RPT bit set", "d1", false, iAmAssertLoser, {true, 1, 1, hi}, false, true},
        {"RPF_interface(S), no SPT bit",
         "up_s",
         false,
         iAmAssertLoser,
         {false, 1, 1, hi},
         false,
         true},
        {"RPF_interface(S), SPT bit",
         "up_s",
         true,
         iAmAssertLoser,
         {false, 1, 1, hi},
         false,
         false},
        {"RPF_interface(RP(G))", "up_rp", false, iAmAssertLoser, {false, 1, 1, hi}, true, false},
    };
    for (auto family : families) {
        for (const auto& c : cases) {
            SCOPED_TRACE(testing::Message() << Wirl::familyName(family) << ": " << c.name);
            RouteFixture f(family);
            f.sgRoute->spTreeIs(c.spt);
            Intf& i = f.sg(c.intf);
            i.assertInfoIs(AssertInfo{c.state, offer(f, c.intf, c.winner)});
            EXPECT_EQ(i.lostAssertSg(), c.lostSg);
            EXPECT_EQ(i.lostAssertSgRpt(), c.lostSgRpt);
            EXPECT_FALSE(i.lostAssertWc());  // no (*,G) assert state anywhere
        }
    }
}

// --- CouldAssert, AssertTrackingDesired, my_assert_metric -----------------------------------

struct AssertCase {
    const char* name;
    Setup set;
    std::string couldAssertSg, couldAssertWc, trackingSg, trackingWc;
};

const std::vector<AssertCase> assertCases = {
    {"no state", [](RouteFixture&) {}, "", "", "", ""},
    {"(*,G) join, no SPT bit: track on RPF_interface(RP(G)) too",
     [](RouteFixture& f) { f.wc("d1").joinStateIs(JoinState::joined); }, "", "d1", "d1 up_rp",
     "d1 up_rp"},
    {"(*,G) join, SPT bit and keepalive: track on RPF_interface(S) instead",
     [](RouteFixture& f) {
         f.sgRoute->spTreeIs(true);
         f.sgRoute->katExpiredIs(false);
         f.wc("d1").joinStateIs(JoinState::joined);
     },
     "d1", "d1", "d1 up_s", "d1 up_rp"},
    {"SPT bit: (S,G,rpt) prune, (S,G) join, (*,G) assert loser",
     [](RouteFixture& f) {
         f.sgRoute->spTreeIs(true);
         f.wc("d1").joinStateIs(JoinState::joined);
         f.sg("d1").rptStateIs(RptState::rptPruned);
         f.sg("d2").joinStateIs(JoinState::joined);
         f.wc("d3").joinStateIs(JoinState::joined);
         f.wc("d3").assertInfoIs(RouteFixture::loser(rptWinner(f, "d3")));
     },
     "d2", "d1 d3", "d2 up_s", "d1 d3 up_rp"},
    {"local include: on a DR or as assert winner only",
     [](RouteFixture& f) {
         f.sg("d1").localReceiverIncludeIs(true);
         f.sg("d3").localReceiverIncludeIs(true);
         f.sg("d3").assertInfoIs(RouteFixture::winner(f.sptMetric("d3")));
         f.wc("d2").localReceiverIncludeIs(true);
         f.wc("d3").localReceiverIncludeIs(true);  // not DR, no (*,G) assert won
     },
     "", "d2", "d1 d2 d3 up_rp up_s", "d2 up_rp"},
    {"a DR with (*,G) receivers keeps tracking the (*,G) assert it lost",
     [](RouteFixture& f) {
         f.wc("d2").localReceiverIncludeIs(true);
         f.wc("d2").assertInfoIs(RouteFixture::loser(rptWinner(f, "d2")));
     },
     "", "", "", "d2"},
    {"SPT bit: local exclude and (S,G) include",
     [](RouteFixture& f) {
         f.sgRoute->spTreeIs(true);
         f.wc("d1").localReceiverIncludeIs(true);
         f.sg("d1").localReceiverExcludeIs(true);
         f.sg("d2").localReceiverIncludeIs(true);
     },
     "d2", "d1", "d2 up_s", "d1 up_rp"},
    {"joins on RPF_interface(S): no (S,G) assert there, a (*,G) one",
     [](RouteFixture& f) {
         f.sgRoute->spTreeIs(true);
         f.wc("up_s").joinStateIs(JoinState::joined);
         f.sg("up_s").joinStateIs(JoinState::joined);
     },
     "", "up_s", "up_s", "up_rp up_s"},
};

TEST(RouteMacros, CouldAssertTrackingAndMyAssertMetric) {
    for (auto family : families) {
        for (const auto& c : assertCases) {
            SCOPED_TRACE(testing::Message() << Wirl::familyName(family) << ": " << c.name);
            RouteFixture f(family);
            c.set(f);
            f.addAllRecords();
            const Route& wc = *f.wcRoute;
            const Route& sg = *f.sgRoute;
            EXPECT_EQ(members(sg, &Intf::couldAssertSg), c.couldAssertSg);
            EXPECT_EQ(members(sg, &Intf::couldAssertWc), c.couldAssertWc);
            EXPECT_EQ(members(wc, &Intf::couldAssertWc), c.couldAssertWc);
            EXPECT_EQ(members(sg, &Intf::assertTrackingDesiredSg), c.trackingSg);
            EXPECT_EQ(members(wc, &Intf::assertTrackingDesiredWc), c.trackingWc);
            for (auto name : RouteFixture::intfNames) {
                SCOPED_TRACE(name);
                const Intf& s = f.sg(name);
                const Intf& w = f.wc(name);
                EXPECT_EQ(s.sptAssertMetric(), f.sptMetric(name));
                EXPECT_EQ(s.rptAssertMetric(), f.rptMetric(name));
                const auto rptOrInfinite =
                    listed(c.couldAssertWc, name) ? f.rptMetric(name) : AssertMetric::infinite();
                EXPECT_EQ(s.myAssertMetricSg(),
                          listed(c.couldAssertSg, name) ? f.sptMetric(name) : rptOrInfinite);
                EXPECT_EQ(w.myAssertMetricWc(), rptOrInfinite);
            }
        }
    }
}

// Received asserts against my metric on d1 (or the winner's, once I lost) and on d3, where
// I could not assert and my metric is the infinite one.
TEST(RouteMacros, ReceivedAssertAgainstMyMetricAndTheWinner) {
    struct Case {
        const char* name;
        bool wc;  // the (*,G) assert machine's view, else the (S,G) one's
        const char* intf;
        bool lost;  // I lost to {sp - 10, sm} (S,G) or {rp - 10, rm} (*,G)
        Offer rx;
        bool preferred, inferior, acceptable;
    };
    const std::vector<Case> cases = {
        {"(S,G) lower metric", false, "d1", false, {false, sp, sm - 1, lo}, true, false, true},
        {"(S,G) higher metric", false, "d1", false, {false, sp, sm + 1, hi}, false, true, false},
        {"(S,G) tie, higher address", false, "d1", false, {false, sp, sm, hi}, true, false, true},
        {"(S,G) tie, lower address", false, "d1", false, {false, sp, sm, lo}, false, true, false},
        {"(S,G) RPT bit set", false, "d1", false, {true, 1, 1, hi}, false, true, false},
        {"(S,G) lost: better than mine only",
         false,
         "d1",
         true,
         {false, sp - 5, sm, hi},
         false,
         false,
         true},
        {"(S,G) lost: better than the winner",
         false,
         "d1",
         true,
         {false, sp - 20, sm, hi},
         true,
         false,
         true},
        {"(S,G) lost: worse than mine",
         false,
         "d1",
         true,
         {false, sp + 1, sm, hi},
         false,
         true,
         false},
        {"(S,G) my metric infinite", false, "d3", false, {true, 500, 500, lo}, true, false, true},
        {"(*,G) SPT-bit offer beats my RPT metric",
         true,
         "d1",
         false,
         {false, 500, 500, lo},
         true,
         false,
         true},
        {"(*,G) lower preference",
         true,
         "d1",
         false,
         {true, rp - 1, rm + 9, lo},
         true,
         false,
         true},
        {"(*,G) tie, lower address", true, "d1", false, {true, rp, rm, lo}, false, true, false},
        {"(*,G) lost: better than mine only",
         true,
         "d1",
         true,
         {true, rp - 5, rm, hi},
         false,
         false,
         true},
        {"(*,G) lost: better than the winner",
         true,
         "d1",
         true,
         {true, rp - 20, rm, hi},
         true,
         false,
         true},
        {"(*,G) my metric infinite", true, "d3", false, {true, 500, 500, lo}, true, false, true},
    };
    for (auto family : families) {
        for (const auto& c : cases) {
            SCOPED_TRACE(testing::Message() << Wirl::familyName(family) << ": " << c.name);
            RouteFixture f(family);
            // d1: CouldAssert(S,G) and CouldAssert(*,G); d3: neither.
            f.sgRoute->spTreeIs(true);
            f.wc("d1").joinStateIs(JoinState::joined);
            f.addAllRecords();
            const auto rx = offer(f, c.intf, c.rx);
            Intf& i = c.wc ? f.wc(c.intf) : f.sg(c.intf);
            if (c.lost) {
                const Offer w = c.wc ? Offer{true, rp - 10, rm, lo} : Offer{false, sp - 10, sm, lo};
                i.assertInfoIs(RouteFixture::loser(offer(f, c.intf, w)));
            }
            EXPECT_EQ(c.wc ? i.isPreferredAssertWc(rx) : i.isPreferredAssertSg(rx), c.preferred);
            EXPECT_EQ(c.wc ? i.isInferiorAssertWc(rx) : i.isInferiorAssertSg(rx), c.inferior);
            EXPECT_EQ(c.wc ? i.isAcceptableAssertWc(rx) : i.isAcceptableAssertSg(rx), c.acceptable);
        }
    }
}

// --- AssertMetric order -----------------------------------------------------------------------

TEST(AssertMetric, OrderRptBitPreferenceMetricThenHigherAddress) {
    auto a4 = [](const char* s) { return *Wirl::IpGenAddr::parse(s); };
    using O = std::strong_ordering;
    struct Case {
        const char* name;
        AssertMetric a, b;
        O expected;  // a <=> b; less means a is preferred
    };
    const AssertMetric inf = AssertMetric::infinite();
    const std::vector<Case> cases = {
        {"RPT bit clear beats set",
         {false, 200, 200, a4("10.0.0.1")},
         {true, 1, 1, a4("10.0.0.9")},
         O::less},
        {"lower preference beats lower metric",
         {true, 10, 900, a4("10.0.0.1")},
         {true, 11, 1, a4("10.0.0.9")},
         O::less},
        {"lower metric", {false, 10, 20, a4("10.0.0.1")}, {false, 10, 21, a4("10.0.0.9")}, O::less},
        {"higher address wins a tie",
         {false, 10, 20, a4("10.0.0.1")},
         {false, 10, 20, a4("10.0.0.9")},
         O::greater},
        {"higher IPv6 address wins a tie",
         {false, 10, 20, a4("2001:db8::1:0")},
         {false, 10, 20, a4("2001:db8::ff")},
         O::less},
        {"equal", {true, 10, 20, a4("2001:db8::1")}, {true, 10, 20, a4("2001:db8::1")}, O::equal},
        {"worst real metric beats infinite",
         {true, AssertMetric::infinitePreference, AssertMetric::infiniteMetric, a4("0.0.0.1")},
         inf,
         O::less},
        {"real IPv6 metric beats infinite", {true, 7, 7, a4("2001:db8::1")}, inf, O::less},
        {"infinite equals infinite", inf, AssertMetric{}, O::equal},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_TRUE((c.a <=> c.b) == c.expected);
        EXPECT_TRUE((c.b <=> c.a) == (0 <=> (c.a <=> c.b)));
        EXPECT_EQ(c.a == c.b, c.expected == O::equal);
    }
    EXPECT_TRUE(inf.isInfinite());
    EXPECT_FALSE((AssertMetric{true, 7, 7, a4("10.0.0.1")}).isInfinite());
}

}  // namespace
