// The RFC 7761 route macros (olists, JoinDesired, PruneDesired, lost_assert, CouldAssert,
// AssertTrackingDesired, assert metrics), as tables of cases. Every expected value below is
// worked out by hand from the RFC 7761 definitions, not from the code under test.
#include <gtest/gtest.h>

#include <array>
#include <compare>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "pimsm/test_vrf.h"

namespace {

using namespace Routing::Pim::SparseMode;
using Routing::Pim::RouteKey;
using Routing::Pim::Rpf;
using Wirl::AddressFamily;

// One group with a (*,G) and an (S,G) route over five PIM interfaces. "up_rp" is
// RPF_interface(RP(G)), "up_s" is RPF_interface(S), "d1".."d3" are downstream. This router is
// DR on d1 and d2 only.
//
// Addresses come in either family (10.0.N.H or 2001:db8:N::H, N the interface's subnet) so the
// same tables run over IPv4 and IPv6. My address on each interface is host 5; hosts 2 and 9
// are other routers, PIM neighbours below and above mine, so an assert tie on preference and
// metric can be won or lost on the address.
struct MacroVrf : Testing::TestVrf {
    static constexpr std::array<std::string_view, 5> intfNames = {"d1", "d2", "d3", "up_rp",
                                                                  "up_s"};
    static constexpr unsigned myHost = 5, lowHost = 2, highHost = 9;
    // MRIB preference and metric toward RP(G) and toward S.
    static constexpr std::uint32_t rpPref = 120, rpMetric = 20, srcPref = 110, srcMetric = 30;

    explicit MacroVrf(AddressFamily family) : TestVrf(family, Start::later) {
        for (unsigned n = 0; n < intfNames.size(); ++n) {
            const auto name = intfNames[n];
            // DR: me on d1 and d2, the higher neighbour elsewhere.
            intfIs(name, me(name)).usedDrIs(n < 2 ? me(name) : peer(name, highHost));
            neighborIs(name, peer(name, lowHost));
            neighborIs(name, peer(name, highHost));
        }
        // RPF'(*,G) and RPF'(S,G) through the unicast routes toward RP(G) and S.
        const auto group = *Wirl::IpGenAddr::parse(v4() ? "239.1.1.1" : "ff0e::1:1");
        const auto source = *Wirl::IpGenAddr::parse(v4() ? "192.0.2.10" : "2001:db8:ff::10");
        const auto rp = addr(99, 1);
        rpIs(Wirl::IpGenPrefix(
                 v4() ? *Wirl::IpGenAddr::parse("224.0.0.0") : *Wirl::IpGenAddr::parse("ff00::"),
                 v4() ? 4 : 8),
             rp);
        unicastRouteIs(Wirl::IpGenPrefix::hostPrefix(rp), "up_rp", peer("up_rp", lowHost), rpPref,
                       rpMetric);
        unicastRouteIs(Wirl::IpGenPrefix::hostPrefix(source), "up_s", peer("up_s", lowHost),
                       srcPref, srcMetric);
        start();
        wcRoute = &route(RouteKey::wc(group));
        sgRoute = &route(RouteKey(source, group));
        // The tables set the (S,G) route's state by hand and read the macros. The (S,G)
        // machines would act on that state (joining clears the SPT bit a case sets, an assert
        // loss moves RPF'), so the route leaves their view once registered: its RPF' stays as
        // registration made it, and it keeps its link to the (*,G) route.
        settle();
        localStatus().sgRouteDel(sgRoute->key());
        settle();
        // Registered without any join, it took its packets from the shared
        // tree; the tables read it as a route whose RPF' is RPF'(S,G).
        sgRoute->umh()->doUpdateRpf(
            Routing::Pim::Rpf{Wirl::IntfId("up_s"), peer("up_s", lowHost), srcPref, srcMetric});
    }

    Wirl::IpGenAddr addr(unsigned subnet, unsigned host) const {
        return *Wirl::IpGenAddr::parse(v4() ? fmt::format("10.0.{}.{}", subnet, host)
                                            : fmt::format("2001:db8:{}::{}", subnet, host));
    }
    // Another router's address on `intf` (my_ip(I) is host `myHost`).
    Wirl::IpGenAddr peer(std::string_view intf, unsigned host) const {
        for (unsigned n = 0; n < intfNames.size(); ++n) {
            if (intfNames[n] == intf) return addr(n + 1, host);
        }
        return addr(0, host);
    }
    Wirl::IpGenAddr me(std::string_view intf) const { return peer(intf, myHost); }

    // The routes' interface records, created on first use.
    Intf& wc(std::string_view intf) { return *wcRoute->routeIntfIs(Wirl::IntfId(intf)); }
    Intf& sg(std::string_view intf) { return *sgRoute->routeIntfIs(Wirl::IntfId(intf)); }
    // Gives both routes a record on every interface: a record without state must read like
    // no record at all.
    void addAllRecords() {
        for (auto name : intfNames) {
            wc(name);
            sg(name);
        }
    }

    // spt_assert_metric(S,I), rpt_assert_metric(G,I) as RFC 7761 defines them from the RPF
    // routes above.
    AssertMetric sptMetric(std::string_view intf) const {
        return AssertMetric{false, srcPref, srcMetric, me(intf)};
    }
    AssertMetric rptMetric(std::string_view intf) const {
        return AssertMetric{true, rpPref, rpMetric, me(intf)};
    }
    static AssertInfo loser(const AssertMetric& winner) {
        return AssertInfo{AssertState::iAmAssertLoser, winner};
    }
    static AssertInfo winner(const AssertMetric& mine) {
        return AssertInfo{AssertState::iAmAssertWinner, mine};
    }

    // The group's (*,G) route leaves the VRF (SSM, or the route was removed); the test keeps
    // the record.
    void forgetWcRoute() { removeRoute(wcRoute->key()); }

    Cask::Ptr<Route> wcRoute;
    Cask::Ptr<Route> sgRoute;
};

constexpr AddressFamily families[] = {AddressFamily::ipv4, AddressFamily::ipv6};

// The interfaces (in interface order) for which `pred` holds on `route`'s records; an
// interface the route has no record for is left out.
std::string members(const Route& route, bool (Intf::*pred)() const) {
    std::string out;
    for (auto name : MacroVrf::intfNames) {
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

using Setup = std::function<void(MacroVrf&)>;

// --- olists, JoinDesired, PruneDesired ------------------------------------------------------

struct OlistCase {
    const char* name;
    Setup set;
    std::string immediateWc, immediateSg, inheritedSgRpt, inheritedSg;
    bool pruneDesiredSgRpt;
};

// Winner metrics on an (S,G) assert that do / do not beat spt_assert_metric(S,I).
AssertMetric strongSpt(const MacroVrf& f, const char* intf) {
    return {false, MacroVrf::srcPref - 10, 1000, f.peer(intf, MacroVrf::lowHost)};
}
AssertMetric weakSpt(const MacroVrf& f, const char* intf) {
    return {false, MacroVrf::srcPref, MacroVrf::srcMetric + 1, f.peer(intf, MacroVrf::highHost)};
}
AssertMetric rptWinner(const MacroVrf& f, const char* intf) {
    return {true, MacroVrf::rpPref, MacroVrf::rpMetric, f.peer(intf, MacroVrf::highHost)};
}

const std::vector<OlistCase> olistCases = {
    {"no state", [](MacroVrf&) {}, "", "", "", "", false},
    {"(*,G) Join and Prune-Pending are both joins",
     [](MacroVrf& f) {
         f.wc("d1").joinStateIs(JoinState::joined);
         f.wc("d2").joinStateIs(JoinState::prunePending);
     },
     "d1 d2", "", "d1 d2", "d1 d2", false},
    {"(S,G) joins alone: no RPT join, so no (S,G,rpt) prune even with the SPT bit",
     [](MacroVrf& f) {
         f.sgRoute->spTreeIs(true);
         f.sg("d1").joinStateIs(JoinState::joined);
         f.sg("d3").joinStateIs(JoinState::prunePending);
     },
     "", "d1 d3", "", "d1 d3", false},
    {"(S,G,rpt) Prune and PruneTmp prune, Prune-Pending does not",
     [](MacroVrf& f) {
         for (auto d : {"d1", "d2", "d3"}) f.wc(d).joinStateIs(JoinState::joined);
         f.sg("d1").rptStateIs(RptState::rptPruned);
         f.sg("d2").rptStateIs(RptState::rptPruneTmp);
         f.sg("d3").rptStateIs(RptState::rptPrunePending);
     },
     "d1 d2 d3", "", "d3", "d3", false},
    {"(S,G,rpt) Prune-Pending-Tmp does not prune",
     [](MacroVrf& f) {
         f.wc("d2").joinStateIs(JoinState::joined);
         f.sg("d2").rptStateIs(RptState::rptPrunePendingTmp);
     },
     "d2", "", "d2", "d2", false},
    {"every (*,G) join pruned for S: inherited_olist(S,G,rpt) null, PruneDesired",
     [](MacroVrf& f) {
         f.wc("d1").joinStateIs(JoinState::joined);
         f.sg("d1").rptStateIs(RptState::rptPruned);
     },
     "d1", "", "", "", true},
    {"(S,G,rpt) pruned but (S,G) joined on the same interface",
     [](MacroVrf& f) {
         f.wc("d1").joinStateIs(JoinState::joined);
         f.sg("d1").joinStateIs(JoinState::joined);
         f.sg("d1").rptStateIs(RptState::rptPruned);
     },
     "d1", "d1", "", "d1", true},
    {"(*,G) local include counts on a DR only",
     [](MacroVrf& f) {
         f.wc("d1").localReceiverIncludeIs(true);
         f.wc("d3").localReceiverIncludeIs(true);
     },
     "d1", "", "d1", "d1", false},
    {"(*,G) local include on a non-DR that won the (*,G) assert",
     [](MacroVrf& f) {
         f.wc("d3").localReceiverIncludeIs(true);
         f.wc("d3").assertInfoIs(MacroVrf::winner(f.rptMetric("d3")));
     },
     "d3", "", "d3", "d3", false},
    {"(S,G) local include on a DR, and on a non-DR that won the (S,G) assert",
     [](MacroVrf& f) {
         f.sg("d2").localReceiverIncludeIs(true);
         f.sg("d3").localReceiverIncludeIs(true);
         f.sg("d3").assertInfoIs(MacroVrf::winner(f.sptMetric("d3")));
     },
     "", "d2 d3", "", "d2 d3", false},
    {"(S,G) local exclude removes pim_include(*,G) only, not joins(*,G)",
     [](MacroVrf& f) {
         f.wc("d1").localReceiverIncludeIs(true);
         f.wc("d2").localReceiverIncludeIs(true);
         f.wc("d2").joinStateIs(JoinState::joined);
         f.sg("d1").localReceiverExcludeIs(true);
         f.sg("d2").localReceiverExcludeIs(true);
     },
     "d1 d2", "", "d2", "d2", false},
    {"pim_exclude(S,G) on a non-DR follows the (*,G) assert winner",
     [](MacroVrf& f) {
         f.wc("d3").localReceiverIncludeIs(true);
         f.wc("d3").assertInfoIs(MacroVrf::winner(f.rptMetric("d3")));
         f.sg("d3").localReceiverExcludeIs(true);
     },
     "d3", "", "", "", true},
    {"(*,G) assert loser: out of joins and pim_include, even on a DR",
     [](MacroVrf& f) {
         f.wc("d1").joinStateIs(JoinState::joined);
         f.wc("d1").assertInfoIs(MacroVrf::loser(rptWinner(f, "d1")));
         f.wc("d2").localReceiverIncludeIs(true);
         f.wc("d2").assertInfoIs(MacroVrf::loser(rptWinner(f, "d2")));
     },
     "", "", "", "", false},
    {"(*,G) assert loser keeps (S,G) joins",
     [](MacroVrf& f) {
         f.wc("d1").joinStateIs(JoinState::joined);
         f.wc("d1").assertInfoIs(MacroVrf::loser(rptWinner(f, "d1")));
         f.sg("d1").joinStateIs(JoinState::joined);
     },
     "", "d1", "", "d1", false},
    {"no assert is lost on RPF_interface(RP(G)), (*,G) nor (S,G,rpt)",
     [](MacroVrf& f) {
         f.wc("up_rp").joinStateIs(JoinState::joined);
         f.wc("up_rp").assertInfoIs(MacroVrf::loser(rptWinner(f, "up_rp")));
         f.sg("up_rp").assertInfoIs(MacroVrf::loser(strongSpt(f, "up_rp")));
     },
     "up_rp", "", "up_rp", "up_rp", false},
    {"(S,G) loser to a winner better than spt_assert_metric: out of both olists",
     [](MacroVrf& f) {
         f.wc("d1").joinStateIs(JoinState::joined);
         f.sg("d1").joinStateIs(JoinState::joined);
         f.sg("d1").assertInfoIs(MacroVrf::loser(strongSpt(f, "d1")));
         f.sg("d2").localReceiverIncludeIs(true);
         f.sg("d2").assertInfoIs(MacroVrf::loser(strongSpt(f, "d2")));
     },
     "d1", "", "", "", true},
    {"(S,G) loser to a winner worse than spt_assert_metric keeps (S,G) join and include",
     [](MacroVrf& f) {
         f.wc("d1").joinStateIs(JoinState::joined);
         f.sg("d1").joinStateIs(JoinState::joined);
         f.sg("d1").assertInfoIs(MacroVrf::loser(weakSpt(f, "d1")));
         f.sg("d2").localReceiverIncludeIs(true);
         f.sg("d2").assertInfoIs(MacroVrf::loser(weakSpt(f, "d2")));
     },
     "d1", "d1 d2", "", "d1 d2", true},
    {"(S,G) loser on RPF_interface(S) without the SPT bit loses it from the RPT olist",
     [](MacroVrf& f) {
         f.wc("up_s").joinStateIs(JoinState::joined);
         f.sg("up_s").assertInfoIs(MacroVrf::loser(strongSpt(f, "up_s")));
     },
     "up_s", "", "", "", true},
    {"(S,G) loser on RPF_interface(S) with the SPT bit keeps it; RPF' differ: PruneDesired",
     [](MacroVrf& f) {
         f.sgRoute->spTreeIs(true);
         f.wc("up_s").joinStateIs(JoinState::joined);
         f.sg("up_s").assertInfoIs(MacroVrf::loser(strongSpt(f, "up_s")));
     },
     "up_s", "", "up_s", "up_s", true},
    {"SPT bit, RPF'(*,G) == RPF'(S,G): no PruneDesired",
     [](MacroVrf& f) {
         f.sgRoute->spTreeIs(true);
         f.sgRoute->umh()->doUpdateRpf(f.wcRoute->rpf());
         f.wc("d1").joinStateIs(JoinState::joined);
     },
     "d1", "", "d1", "d1", false},
    {"SPT bit, same RPF' neighbour reached with another preference and metric",
     [](MacroVrf& f) {
         f.sgRoute->spTreeIs(true);
         auto rpf = f.wcRoute->rpf();
         rpf.preference = MacroVrf::srcPref;
         rpf.metric = MacroVrf::srcMetric;
         f.sgRoute->umh()->doUpdateRpf(rpf);
         f.wc("d1").joinStateIs(JoinState::joined);
     },
     "d1", "", "d1", "d1", false},
    {"SPT bit, RPF'(*,G) != RPF'(S,G) with a non-null olist: PruneDesired",
     [](MacroVrf& f) {
         f.sgRoute->spTreeIs(true);
         f.wc("d1").joinStateIs(JoinState::joined);
         f.sg("d2").joinStateIs(JoinState::joined);
     },
     "d1", "d2", "d1", "d1 d2", true},
};

void checkOlists(MacroVrf& f, const OlistCase& c, bool everyRecord) {
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
            MacroVrf f(family);
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
    MacroVrf f(AddressFamily::ipv6);
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
constexpr unsigned lo = MacroVrf::lowHost, hi = MacroVrf::highHost;
constexpr auto sp = MacroVrf::srcPref, sm = MacroVrf::srcMetric;
constexpr auto rp = MacroVrf::rpPref, rm = MacroVrf::rpMetric;

AssertMetric offer(const MacroVrf& f, std::string_view intf, const Offer& o) {
    return {o.rpt, o.pref, o.metric, f.peer(intf, o.host)};
}

TEST(RouteMacros, LostAssertSgOnlyWhenTheWinnerBeatsSptAssertMetric) {
    constexpr auto none = AssertState::assertNoInfo, won = AssertState::iAmAssertWinner,
                   lost = AssertState::iAmAssertLoser;
    struct Case {
        const char* name;
        const char* intf;
        bool spt;
        AssertState state;
        Offer winner;
        bool lostSg, lostSgRpt;
    };
    const std::vector<Case> cases = {
        {"no assert state", "d1", false, none, {}, false, false},
        {"I am the winner", "d1", false, won, {false, sp, sm, 5}, false, false},
        {"better preference", "d1", false, lost, {false, sp - 1, sm + 9, lo}, true, true},
        {"same preference, lower metric", "d1", false, lost, {false, sp, sm - 1, lo}, true, true},
        {"tie won on the higher address", "d1", false, lost, {false, sp, sm, hi}, true, true},
        {"tie, winner's address below mine", "d1", false, lost, {false, sp, sm, lo}, false, true},
        {"worse metric", "d1", false, lost, {false, sp, sm + 1, hi}, false, true},
        {"RPT bit set", "d1", false, lost, {true, 1, 1, hi}, false, true},
        {"RPF_interface(S), no SPT bit", "up_s", false, lost, {false, 1, 1, hi}, false, true},
        {"RPF_interface(S), SPT bit", "up_s", true, lost, {false, 1, 1, hi}, false, false},
        {"RPF_interface(RP(G))", "up_rp", false, lost, {false, 1, 1, hi}, true, false},
    };
    for (auto family : families) {
        for (const auto& c : cases) {
            SCOPED_TRACE(testing::Message() << Wirl::familyName(family) << ": " << c.name);
            MacroVrf f(family);
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
    {"no state", [](MacroVrf&) {}, "", "", "", ""},
    {"(*,G) join, no SPT bit: track on RPF_interface(RP(G)) too",
     [](MacroVrf& f) { f.wc("d1").joinStateIs(JoinState::joined); }, "", "d1", "d1 up_rp",
     "d1 up_rp"},
    {"(*,G) join, SPT bit and keepalive: track on RPF_interface(S) instead",
     [](MacroVrf& f) {
         f.sgRoute->spTreeIs(true);
         f.sgRoute->katExpiredIs(false);
         f.wc("d1").joinStateIs(JoinState::joined);
     },
     "d1", "d1", "d1 up_s", "d1 up_rp"},
    {"SPT bit: (S,G,rpt) prune, (S,G) join, (*,G) assert loser",
     [](MacroVrf& f) {
         f.sgRoute->spTreeIs(true);
         f.wc("d1").joinStateIs(JoinState::joined);
         f.sg("d1").rptStateIs(RptState::rptPruned);
         f.sg("d2").joinStateIs(JoinState::joined);
         f.wc("d3").joinStateIs(JoinState::joined);
         f.wc("d3").assertInfoIs(MacroVrf::loser(rptWinner(f, "d3")));
     },
     "d2", "d1 d3", "d2 up_s", "d1 d3 up_rp"},
    {"local include: on a DR or as assert winner only",
     [](MacroVrf& f) {
         f.sg("d1").localReceiverIncludeIs(true);
         f.sg("d3").localReceiverIncludeIs(true);
         f.sg("d3").assertInfoIs(MacroVrf::winner(f.sptMetric("d3")));
         f.wc("d2").localReceiverIncludeIs(true);
         f.wc("d3").localReceiverIncludeIs(true);  // not DR, no (*,G) assert won
     },
     "", "d2", "d1 d2 d3 up_rp up_s", "d2 up_rp"},
    {"a DR with (*,G) receivers keeps tracking the (*,G) assert it lost",
     [](MacroVrf& f) {
         f.wc("d2").localReceiverIncludeIs(true);
         f.wc("d2").assertInfoIs(MacroVrf::loser(rptWinner(f, "d2")));
     },
     "", "", "", "d2"},
    {"SPT bit: local exclude and (S,G) include",
     [](MacroVrf& f) {
         f.sgRoute->spTreeIs(true);
         f.wc("d1").localReceiverIncludeIs(true);
         f.sg("d1").localReceiverExcludeIs(true);
         f.sg("d2").localReceiverIncludeIs(true);
     },
     "d2", "d1", "d2 up_s", "d1 up_rp"},
    {"joins on RPF_interface(S): no (S,G) assert there, a (*,G) one",
     [](MacroVrf& f) {
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
            MacroVrf f(family);
            c.set(f);
            f.addAllRecords();
            const Route& wc = *f.wcRoute;
            const Route& sg = *f.sgRoute;
            EXPECT_EQ(members(sg, &Intf::couldAssertSg), c.couldAssertSg);
            EXPECT_EQ(members(sg, &Intf::couldAssertWc), c.couldAssertWc);
            EXPECT_EQ(members(wc, &Intf::couldAssertWc), c.couldAssertWc);
            EXPECT_EQ(members(sg, &Intf::assertTrackingDesiredSg), c.trackingSg);
            EXPECT_EQ(members(wc, &Intf::assertTrackingDesiredWc), c.trackingWc);
            for (auto name : MacroVrf::intfNames) {
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
    // What the received assert is: preferred (and so acceptable), inferior (and not
    // acceptable), or only acceptable.
    enum Verdict { preferred, inferior, acceptable };
    struct Case {
        const char* name;
        bool wc;  // the (*,G) assert machine's view, else the (S,G) one's
        const char* intf;
        bool lost;  // I lost to {sp - 10, sm} (S,G) or {rp - 10, rm} (*,G)
        Offer rx;
        Verdict verdict;
    };
    const std::vector<Case> cases = {
        {"(S,G) lower metric", false, "d1", false, {false, sp, sm - 1, lo}, preferred},
        {"(S,G) higher metric", false, "d1", false, {false, sp, sm + 1, hi}, inferior},
        {"(S,G) tie, higher address", false, "d1", false, {false, sp, sm, hi}, preferred},
        {"(S,G) tie, lower address", false, "d1", false, {false, sp, sm, lo}, inferior},
        {"(S,G) RPT bit set", false, "d1", false, {true, 1, 1, hi}, inferior},
        {"(S,G) lost: beats mine only", false, "d1", true, {false, sp - 5, sm, hi}, acceptable},
        {"(S,G) lost: beats the winner", false, "d1", true, {false, sp - 20, sm, hi}, preferred},
        {"(S,G) lost: worse than mine", false, "d1", true, {false, sp + 1, sm, hi}, inferior},
        {"(S,G) my metric infinite", false, "d3", false, {true, 500, 500, lo}, preferred},
        {"(*,G) SPT-bit offer beats my RPT", true, "d1", false, {false, 500, 500, lo}, preferred},
        {"(*,G) lower preference", true, "d1", false, {true, rp - 1, rm + 9, lo}, preferred},
        {"(*,G) tie, lower address", true, "d1", false, {true, rp, rm, lo}, inferior},
        {"(*,G) lost: beats mine only", true, "d1", true, {true, rp - 5, rm, hi}, acceptable},
        {"(*,G) lost: beats the winner", true, "d1", true, {true, rp - 20, rm, hi}, preferred},
        {"(*,G) my metric infinite", true, "d3", false, {true, 500, 500, lo}, preferred},
    };
    for (auto family : families) {
        for (const auto& c : cases) {
            SCOPED_TRACE(testing::Message() << Wirl::familyName(family) << ": " << c.name);
            MacroVrf f(family);
            // d1: CouldAssert(S,G) and CouldAssert(*,G); d3: neither.
            f.sgRoute->spTreeIs(true);
            f.wc("d1").joinStateIs(JoinState::joined);
            f.addAllRecords();
            const auto rx = offer(f, c.intf, c.rx);
            Intf& i = c.wc ? f.wc(c.intf) : f.sg(c.intf);
            if (c.lost) {
                const Offer w = c.wc ? Offer{true, rp - 10, rm, lo} : Offer{false, sp - 10, sm, lo};
                i.assertInfoIs(MacroVrf::loser(offer(f, c.intf, w)));
            }
            EXPECT_EQ(c.wc ? i.isPreferredAssertWc(rx) : i.isPreferredAssertSg(rx),
                      c.verdict == preferred);
            EXPECT_EQ(c.wc ? i.isInferiorAssertWc(rx) : i.isInferiorAssertSg(rx),
                      c.verdict == inferior);
            EXPECT_EQ(c.wc ? i.isAcceptableAssertWc(rx) : i.isAcceptableAssertSg(rx),
                      c.verdict != inferior);
        }
    }
}

// --- AssertMetric order -----------------------------------------------------------------------

TEST(AssertMetric, OrderRptBitPreferenceMetricThenHigherAddress) {
    auto m = [](bool rpt, std::uint32_t pref, std::uint32_t metric, const char* addr) {
        return AssertMetric{rpt, pref, metric, *Wirl::IpGenAddr::parse(addr)};
    };
    using O = std::strong_ordering;
    struct Case {
        const char* name;
        AssertMetric a, b;
        O expected;  // a <=> b; less means a is preferred
    };
    const AssertMetric inf = AssertMetric::infinite();
    constexpr auto infPref = AssertMetric::infinitePreference;
    constexpr auto infMetric = AssertMetric::infiniteMetric;
    constexpr auto lt = O::less, gt = O::greater, eq = O::equal;
    const std::vector<Case> cases = {
        {"RPT bit clear", m(false, 200, 200, "10.0.0.1"), m(true, 1, 1, "10.0.0.9"), lt},
        {"preference before metric", m(true, 10, 900, "10.0.0.1"), m(true, 11, 1, "10.0.0.9"), lt},
        {"lower metric", m(false, 10, 20, "10.0.0.1"), m(false, 10, 21, "10.0.0.9"), lt},
        {"higher address", m(false, 10, 20, "10.0.0.1"), m(false, 10, 20, "10.0.0.9"), gt},
        {"IPv6 address", m(false, 1, 2, "2001:db8::1:0"), m(false, 1, 2, "2001:db8::ff"), lt},
        {"equal", m(true, 10, 20, "2001:db8::1"), m(true, 10, 20, "2001:db8::1"), eq},
        {"worst real beats infinite", m(true, infPref, infMetric, "0.0.0.1"), inf, lt},
        {"real IPv6 metric beats infinite", m(true, 7, 7, "2001:db8::1"), inf, lt},
        {"infinite equals infinite", inf, AssertMetric{}, eq},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_TRUE((c.a <=> c.b) == c.expected);
        EXPECT_TRUE((c.b <=> c.a) == (0 <=> (c.a <=> c.b)));
        EXPECT_EQ(c.a == c.b, c.expected == eq);
    }
    EXPECT_TRUE(inf.isInfinite());
    EXPECT_FALSE(m(true, 7, 7, "10.0.0.1").isInfinite());
}

}  // namespace
