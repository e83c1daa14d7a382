// The route reactor: registration and indexes, deletion marks for routes and
// interface records, the fast-failover upstream and the RPF request.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "pimsm/test_vrf.h"

namespace {

using namespace Routing::Pim::SparseMode;
using namespace Routing::Pim::SparseMode::Testing;

std::vector<Wirl::IpGenAddr> members(const AddrSet* set) {
    std::vector<Wirl::IpGenAddr> out;
    if (set) out.assign(set->member().begin(), set->member().end());
    return out;
}

TEST(RouteSm, AnInterfaceRecordCarriesStateWhileAnyProtocolStateIsThere) {
    struct Case {
        const char* name;
        void (*set)(Intf&);
        bool carries;
    };
    const Case cases[] = {
        {"nothing", [](Intf&) {}, false},
        {"forwarding bits only",
         [](Intf& i) {
             i.forwardIs(true);
             i.fastForwardIs(true);
         },
         false},
        {"local membership", [](Intf& i) { i.localMembershipIs(true); }, true},
        {"include receiver", [](Intf& i) { i.localReceiverIncludeIs(true); }, true},
        {"exclude receiver", [](Intf& i) { i.localReceiverExcludeIs(true); }, true},
        {"joined", [](Intf& i) { i.joinStateIs(JoinState::joined); }, true},
        {"prune pending", [](Intf& i) { i.joinStateIs(JoinState::prunePending); }, true},
        {"(S,G,rpt) pruned", [](Intf& i) { i.rptStateIs(RptState::rptPruned); }, true},
        {"(S,G,rpt) prune pending", [](Intf& i) { i.rptStateIs(RptState::rptPrunePending); }, true},
        {"assert winner",
         [](Intf& i) {
             i.assertInfoIs(AssertInfo{AssertState::iAmAssertWinner, {}});
         },
         true},
        {"assert loser",
         [](Intf& i) {
             i.assertInfoIs(AssertInfo{AssertState::iAmAssertLoser, {}});
         },
         true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Intf intf(nullptr, Wirl::IntfId("Ethernet1"));
        c.set(intf);
        EXPECT_EQ(RouteSm::intfCarriesState(intf), c.carries);
    }
}

TEST(RouteSm, RegistersRoutesInIndexesAndUndoesItOnDelete) {
    TestVrf f{TestVrf::Layout::twoUpstreams};
    const auto g1 = ip("239.1.1.1"), g2 = ip("239.2.2.2"), s1 = ip("10.1.0.1"), s2 = ip("10.1.0.2");
    for (const auto& k : {wc("239.1.1.1"), sg("10.1.0.1", "239.1.1.1"), sg("10.1.0.2", "239.1.1.1"),
                          sg("10.1.0.1", "239.2.2.2")}) {
        f.route(k, {"d1"});
    }
    auto& st = f.status();
    EXPECT_EQ(f.localStatus().wcRouteSize(), 1u);
    EXPECT_EQ(f.localStatus().sgRouteSize(), 3u);
    EXPECT_EQ(f.routeReviewSm().routeSmSize(), 4u);
    EXPECT_EQ(st.wcRouteCount(), 1u);
    EXPECT_EQ(st.sgRouteCount(), 3u);
    EXPECT_EQ(st.group(g1), 3u);
    EXPECT_EQ(st.group(g2), 1u);
    EXPECT_EQ(members(st.source(s1).get()), (std::vector{g1, g2}));
    EXPECT_EQ(members(st.groupSource(g1).get()), (std::vector{s1, s2}));
    EXPECT_FALSE(
        st.sourceHas(Wirl::IpGenAddr::zero(Wirl::AddressFamily::ipv4)));  // (*,G) has no source
    EXPECT_TRUE(f.rpfConfig().rpfConfigInfoHas(sg("10.1.0.2", "239.1.1.1")));
    EXPECT_TRUE(Cask::trace().contains(
        "<Vrf:red>RouteSm: Route(10.1.0.2, 239.1.1.1) created, flags: rpTree 0 wildCard 0"));

    st.routeDel(sg("10.1.0.2", "239.1.1.1"));  // last route of s2, one of three of g1
    EXPECT_FALSE(st.sourceHas(s2));
    EXPECT_EQ(members(st.groupSource(g1).get()), (std::vector{s1}));
    EXPECT_EQ(st.group(g1), 2u);
    EXPECT_EQ(st.sgRouteCount(), 2u);
    EXPECT_FALSE(f.localStatus().sgRouteHas(sg("10.1.0.2", "239.1.1.1")));
    EXPECT_FALSE(f.rpfConfig().rpfConfigInfoHas(sg("10.1.0.2", "239.1.1.1")));
    EXPECT_EQ(f.routeReviewSm().routeSmSize(), 3u);

    st.routeDel(sg("10.1.0.1", "239.2.2.2"));
    EXPECT_FALSE(st.groupHas(g2));
    EXPECT_FALSE(st.groupSourceHas(g2));
    EXPECT_EQ(members(st.source(s1).get()), (std::vector{g1}));
}

TEST(RouteSm, LosingTheLastInterfaceMarksOnlyWildcardRoutes) {
    const std::vector<std::pair<RouteKey, bool>> cases = {{wc("239.1.1.1"), true},
                                                          {sg("10.1.0.1", "239.1.1.1"), false}};
    for (const auto& [key, marked] : cases) {
        SCOPED_TRACE(key.str());
        TestVrf f{TestVrf::Layout::twoUpstreams};
        Route& r = f.route(key, {"d1", "d2"});
        r.routeIntfDel(IntfId("d1"));
        EXPECT_FALSE(r.markedForDeletion());  // d2 is left
        r.routeIntfDel(IntfId("d2"));
        EXPECT_EQ(r.markedForDeletion(), marked);
        EXPECT_EQ(f.localStatus().toBeDeletedRouteHas(key), marked);
        EXPECT_TRUE(Cask::trace().contains("<Vrf:red>RouteSm: no interface in  route" + key.str()));
        EXPECT_EQ(Cask::trace().contains("), marking route for deletion"), marked);
        f.settle();
        EXPECT_EQ(f.has(key), !marked);
    }
}

TEST(RouteSm, UnmarkingBeforeTheReviewKeepsTheRoute) {
    TestVrf f{TestVrf::Layout::twoUpstreams};
    const auto key = sg("10.1.0.1", "239.1.1.1");
    Route& r = f.route(key, {"d1"});
    r.markedForDeletionIs(true);
    EXPECT_TRUE(f.localStatus().toBeDeletedRouteHas(key));
    EXPECT_TRUE(f.localStatus().changeSet()->routesMarkedForDeletion());
    r.markedForDeletionIs(false);
    EXPECT_FALSE(f.localStatus().toBeDeletedRouteHas(key));
    f.settle();
    EXPECT_TRUE(f.has(key));
    EXPECT_EQ(f.status().route(key).get(), &r);
}

TEST(RouteSm, InterfaceRecordWithoutStateIsMarkedAndRemovedByTheReview) {
    struct Case {
        const char* name;
        bool preserve;
        bool keepInclude;  // an include receiver outlives the join
        bool joinAgain;    // the join comes back before the review
        bool removed;
    };
    const std::vector<Case> cases = {
        {"join ends", false, false, false, true},
        {"join ends, include remains", false, true, false, false},
        {"join comes back before the review", false, false, true, false},
        {"records preserved", true, false, false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TestVrf f{TestVrf::Layout::twoUpstreams};
        f.routeReviewSm().preserveRouteIntfIs(c.preserve);
        const auto key = wc("239.1.1.1");
        Route& r = f.route(key, {"d1"});
        Intf& d2 = *r.routeIntfIs(IntfId("d2"));
        d2.localReceiverIncludeIs(c.keepInclude);
        d2.joinStateIs(JoinState::joined);
        d2.joinStateIs(JoinState::noInfo);
        const bool marked = !c.preserve && !c.keepInclude;
        EXPECT_EQ(d2.toBeDeleted(), marked);
        EXPECT_EQ(f.localStatus().changeSet()->intfChangeHas(IntfId("d2")), marked);
        EXPECT_EQ(Cask::trace().contains("(), marking interface for deletion: d2"), marked);
        if (c.joinAgain) {
            d2.joinStateIs(JoinState::joined);
            EXPECT_FALSE(d2.toBeDeleted());
            EXPECT_TRUE(Cask::trace().contains("(), resetting marked for deletion: d2"));
        }
        f.settle();
        EXPECT_EQ(!r.routeIntfHas(IntfId("d2")), c.removed);
        EXPECT_TRUE(r.routeIntfHas(IntfId("d1")));
    }
}

TEST(RouteSm, RefusesAnotherRouteForItsKey) {
    TestVrf f{TestVrf::Layout::twoUpstreams};
    const auto key = sg("10.1.0.1", "239.1.1.1");
    Route& r = f.route(key, {"d1"});
    EXPECT_EQ(routeSmFactory(f.routeReviewSm(), Cask::Ptr<Route>(&r)),
              f.routeReviewSm().routeSm(key));
    auto other = Cask::make<Route>(key, &f.status().context(), 0.0);
    try {
        routeSmFactory(f.routeReviewSm(), other);
        FAIL() << "accepted a second route for the key";
    } catch (const ReinstantiationError& e) {
        EXPECT_EQ(std::string(e.what()),
                  fmt::format("Reinstantiating the pointer interface where constructor parameter "
                              "attribute _route has a different value of {} than the current "
                              "value of {} not allowed",
                              fmt::ptr(other.get()), fmt::ptr(&r)));
    }
}

TEST(RouteSm, FastFailoverUpstreamFollowsTheFilter) {
    TestVrf f{TestVrf::Layout::twoUpstreams};
    Wirl::AddressRangeSet frr(Wirl::AddressFamily::ipv4);
    frr.add(prefix("239.1.0.0/16"));
    f.localStatus().frrFilterStatus()->frrRangeIs(frr);
    Route& in = f.route(sg("10.1.0.1", "239.1.1.1"), {"d1"});
    Route& out = f.route(sg("10.1.0.1", "239.2.2.2"), {"d1"});
    ASSERT_NE(in.umhFrr(), nullptr);  // made at registration
    EXPECT_EQ(out.umhFrr(), nullptr);
    UpstreamInfo* first = in.umhFrr();
    RouteSm& sm = *f.routeReviewSm().routeSm(in.key());
    sm.updateUmhFrr();
    sm.updateUmhFrr();
    EXPECT_EQ(in.umhFrr(), first);
    EXPECT_EQ(Cask::trace().count("Frr enabled, create umhFrr"), 1u);
    f.localStatus().frrFilterStatus()->frrRangeIs(Wirl::AddressRangeSet(Wirl::AddressFamily::ipv4));
    in.spTreeIs(true);  // any flag change re-evaluates
    EXPECT_EQ(in.umhFrr(), nullptr);
    EXPECT_EQ(Cask::trace().count("Frr disabled, delete umhFrr"), 1u);
}

TEST(RouteSm, RpfRequestFollowsTheUpstream) {
    TestVrf f{TestVrf::Layout::twoUpstreams};
    const auto key = wc("239.1.1.1");
    Route& r = f.route(key, {"d1"});
    auto info = f.rpfConfig().rpfConfigInfo(key);
    EXPECT_EQ(info.target, ip("10.9.9.9"));  // RP(G)
    EXPECT_EQ(info.rpfNeighbor, ip("10.0.1.2"));
    f.rpIs(prefix("239.1.1.1/32"), ip("192.0.2.1"));  // not reachable: no RPF neighbour
    f.settle();
    r.umh()->prevRpfIs(f.upstream("up2"));
    info = f.rpfConfig().rpfConfigInfo(key);
    EXPECT_EQ(info.target, ip("192.0.2.1"));
    EXPECT_EQ(info.rpfNeighbor, Wirl::IpGenAddr());
    EXPECT_EQ(info.prevRpfNeighbor, ip("10.0.2.2"));
    f.status().routeDel(key);
    EXPECT_FALSE(f.rpfConfig().rpfConfigInfoHas(key));
}

// What the routes view shows as joined-for: it starts when the route joins
// a neighbour, survives a metric change toward the same neighbour, restarts
// when RPF' moves to another one, and ends when the route stops joining.
TEST(RouteSm, JoinedSinceFollowsTheJoinedNeighbor) {
    TestVrf f{TestVrf::Layout::twoUpstreamsIAmDr};
    const auto key = wc("239.1.1.1");
    f.clock.advanceBy(5);
    Route& r = f.route(key, {"d1"});
    f.settle();
    ASSERT_EQ(r.upJoinState(), UpJoinState::upJoined);
    const double joined = r.joinedSince();
    EXPECT_GE(joined, 5);
    EXPECT_LE(joined, f.clock.now());
    f.clock.advanceBy(5);
    f.unicastRouteIs(prefix("10.9.9.0/24"), "up1", ip("10.0.1.2"), 110, 99);
    f.settle();
    ASSERT_EQ(r.rpf().metric, 99u);
    EXPECT_EQ(r.joinedSince(), joined);
    f.clock.advanceBy(5);
    const double movedAt = f.clock.now();
    f.unicastRouteIs(prefix("10.9.9.0/24"), "up2", ip("10.0.2.2"));
    f.settle();
    ASSERT_EQ(r.rpf().neighbor, ip("10.0.2.2"));
    EXPECT_GE(r.joinedSince(), movedAt);
    EXPECT_LE(r.joinedSince(), f.clock.now());
    r.routeIntf(IntfId("d1"))->localReceiverIncludeIs(false);
    ASSERT_EQ(r.upJoinState(), UpJoinState::upNotJoined);
    EXPECT_LT(r.joinedSince(), 0);
}

}  // namespace
