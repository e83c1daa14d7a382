// MfibSm: forwarding records, interface indexes and their reference counts,
// the wait list, restart and repair of a stored table, deferred builds.
#include <optional>
#include <random>

#include <gtest/gtest.h>

#include "cask/trace.h"
#include "pimsm/test_vrf.h"

namespace Routing::Pim::SparseMode::Testing {
namespace {

// A VRF whose interfaces are made on first use as PIM interfaces on which
// this router (10.0.0.5) is DR, with a neighbour 10.0.0.2, so a local
// receiver on one puts it in the (*,G) immediate olist. Group n has its own
// RP, 10.99.x.y, so each (*,G) route's RPF interface can be moved alone
// through that RP's unicast route. The helpers that change something run the
// turn's deferred builds, so a test reads the table as the turn left it.
struct MfibVrf : TestVrf {
    MfibVrf() : sm(&mfibSm()), table(&mfibTable()) {}

    static IpGenAddr group(unsigned n) {
        return IpGenAddr::v4(0xef010000u + n);  // 239.1.x.y
    }
    static RouteKey wcKey(unsigned n) { return RouteKey::wc(group(n)); }
    static Routing::Multicast::Fib::IpGenRouteKey fibKey(const RouteKey& k) {
        return Routing::Multicast::Fib::convertKey(k);
    }

    // The (*,G) route of group `n` with its RPF toward the RP on `rpfIntf`.
    Route& wcRoute(unsigned n, const std::string& rpfIntf) {
        rpTowardIs(group(n), rpfIntf);
        Route& route = this->route(wcKey(n));
        flush();
        return route;
    }
    Route& sgRoute(unsigned source, unsigned n, const std::string& rpfIntf) {
        const IpGenAddr s = IpGenAddr::v4(0xc0000200u + source);  // 192.0.2.x
        pimIntfOf(rpfIntf);
        unicastRouteIs(IpGenPrefix::hostPrefix(s), rpfIntf, nbr, 1, 1);
        Route& route = this->route(RouteKey(s, group(n)));
        flush();
        return route;
    }
    void rpfIs(const Route& route, const std::string& intf) {
        rpTowardIs(route.key().group(), intf);
        flush();
    }
    // The group's RP, reached through `intf`.
    void rpTowardIs(const IpGenAddr& g, const std::string& intf) {
        const IpGenAddr rp = IpGenAddr::v4(0x0a630000u | (g.v4HostOrder() & 0xffffu));
        rpIs(IpGenPrefix::hostPrefix(g), rp);
        pimIntfOf(intf);
        unicastRouteIs(IpGenPrefix::hostPrefix(rp), intf, nbr, 1, 1);
    }
    void receiverIs(Route& route, const std::string& intf, bool on) {
        pimIntfOf(intf);
        route.routeIntfIs(IntfId(intf))->localReceiverIncludeIs(on);
        flush();
    }
    void forgetRoute(const RouteKey& key) {
        removeRoute(key);
        flush();
    }

    // A second forwarding stage started over the VRF as it is now, writing
    // `table` and handing out indexes below `poolLimit`: what a restarted
    // agent's stage meets when the routes it holds are back before it starts.
    // `record`, `hasOif` and `expectConsistent` read it from then on.
    void stageIs(Cask::Ptr<TMF::Status> t, std::uint32_t poolLimit = TMF::OifIndex::count) {
        VrfContext c = ctx();
        c.mfibTidal = t.get();
        stage = std::make_unique<MfibSm>(c);
        stage->oifIndexFreePoolLimitIs(poolLimit);
        stage->handleInit();
        sm = stage.get();
        table = t;
        flush();
    }

    const TMF::Route* record(const RouteKey& key) const { return table->route(fibKey(key)); }
    bool hasOif(const RouteKey& key, const std::string& intf) const {
        const TMF::Route* r = record(key);
        return r && r->oif(sm->intfOifIndex(IntfId(intf)));
    }

    // Every mapped index is counted once per record with its bit, both
    // mappings agree, every set bit is mapped, and no index is lost.
    void expectConsistent() const {
        std::size_t mapped = 0;
        for (const auto& [index, entry] : table->oifIndexIntf()) {
            ++mapped;
            EXPECT_LT(index.value(), sm->oifIndexFreePoolLimit());
            std::uint32_t users = 0;
            for (const auto& [key, r] : table->route()) users += r.oif(index);
            EXPECT_EQ(entry.refCount, users) << "index " << index.value();
            EXPECT_GT(entry.refCount, 0u) << "index " << index.value();
            EXPECT_EQ(sm->intfOifIndex(entry.intf), index);
        }
        for (const auto& [key, r] : table->route()) {
            for (TMF::OifIndex i : r.oifIteratorConst()) {
                EXPECT_TRUE(table->oifIndexIntfHas(i)) << key.str() << " bit " << i.value();
            }
        }
        EXPECT_EQ(sm->intfOifIndexSize(), mapped);
        EXPECT_EQ(sm->oifIndexFreePoolSize() + mapped, sm->oifIndexFreePoolLimit());
    }

    void pimIntfOf(const std::string& name) {
        if (pim().intfHas(IntfId(name))) return;
        intfIs(name, ip("10.0.0.5"), true);
        neighborIs(name, nbr);
    }

    const IpGenAddr nbr = ip("10.0.0.2");
    MfibSm* sm;
    Cask::Ptr<TMF::Status> table;
    std::unique_ptr<MfibSm> stage;
};

TEST(MfibSm, LocalReceiverProgramsWcRouteAndItsDepartureFreesTheIndex) {
    MfibVrf f;
    Route& wc = f.wcRoute(1, "up_rp");
    const RouteKey key = wc.key();
    f.receiverIs(wc, "d1", true);

    const TMF::Route* r = f.record(key);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->iif(), Wirl::IntfId("up_rp"));
    EXPECT_TRUE(f.hasOif(key, "d1"));
    EXPECT_EQ(r->oifs(), 1u);
    EXPECT_TRUE(r->flag(TMF::Route::toCpu));
    EXPECT_EQ(f.sm->intfOifIndex(Wirl::IntfId("d1")), TMF::OifIndex(0));  // lowest first
    EXPECT_TRUE(
        Cask::trace().contains("<Vrf:red>Mfib: doCommitTidalRoute(): (*, 239.1.0.1) I "
                               "up_rp FRR  N  F 0x2 I 0x1 -> d1"));
    f.expectConsistent();

    // A second group on the same interface shares the index.
    Route& wc2 = f.wcRoute(2, "up_rp");
    f.receiverIs(wc2, "d1", true);
    EXPECT_EQ(f.table->oifIndexIntf(TMF::OifIndex(0)).refCount, 2u);

    f.receiverIs(wc, "d1", false);
    EXPECT_FALSE(f.hasOif(key, "d1"));
    EXPECT_EQ(f.table->oifIndexIntf(TMF::OifIndex(0)).refCount, 1u);
    f.receiverIs(wc2, "d1", false);
    EXPECT_EQ(f.record(key)->oifs(), 0u);
    EXPECT_TRUE(f.sm->intfOifIndex(Wirl::IntfId("d1")).isNull());
    EXPECT_FALSE(f.table->oifIndexIntfHas(TMF::OifIndex(0)));
    EXPECT_TRUE(Cask::trace().contains("doUpdateOifIndexRefCount(): Freeing up oifIndex: 0"));
    f.expectConsistent();

    // The route leaving the VRF removes its record.
    f.forgetRoute(key);
    EXPECT_FALSE(f.record(key));
}

TEST(MfibSm, RouteWhoseOnlyInterfaceIsItsIifHasAnEmptyBitmap) {
    MfibVrf f;
    Route& wc = f.wcRoute(1, "up_rp");
    f.receiverIs(wc, "up_rp", true);
    const TMF::Route* r = f.record(wc.key());
    ASSERT_TRUE(r);
    EXPECT_EQ(r->oifs(), 0u);
    EXPECT_TRUE(Cask::trace().contains(
        "<Vrf:red>MfibSm::doCommitTidalRoute(): Note: No oifs in route (*, 239.1.0.1)"));
    // The index handed out for the iif went back: nothing uses it.
    f.expectConsistent();
    EXPECT_EQ(f.sm->oifIndexFreePoolSize(), 512u);
}

TEST(MfibSm, IdenticalRecordIsNotWrittenAgain) {
    MfibVrf f;
    Route& wc = f.wcRoute(1, "up_rp");
    f.receiverIs(wc, "d1", true);
    const auto writes = f.table->routeWriteCount();
    wc.routeChangedInc();
    wc.mfibChangeCountInc();
    f.sm->doCommitTidalRoute(*f.record(wc.key()));
    f.flush();  // the rebuild the two changes asked for
    EXPECT_EQ(f.table->routeWriteCount(), writes);
    // A real change is written once.
    f.receiverIs(wc, "d2", true);
    EXPECT_EQ(f.table->routeWriteCount(), writes + 1);
}

TEST(MfibSm, ExhaustedIndexesPutTheRouteOnWaitUntilOneIsFreed) {
    MfibVrf f;
    std::vector<Route*> routes;
    for (unsigned n = 0; n < TMF::OifIndex::count; ++n) {
        routes.push_back(&f.wcRoute(n, "up_rp"));
        f.receiverIs(*routes.back(), fmt::format("e{}", n), true);
    }
    EXPECT_EQ(f.sm->oifIndexFreePoolSize(), 0u);
    Route& late = f.wcRoute(600, "up_rp");
    f.receiverIs(late, "e600", true);
    ASSERT_TRUE(f.record(late.key()));
    EXPECT_EQ(f.record(late.key())->oifs(), 0u);
    EXPECT_TRUE(f.sm->intfOifIndex(Wirl::IntfId("e600")).isNull());
    ASSERT_EQ(f.sm->routeWaitlist().size(), 1u);
    EXPECT_TRUE(
        Cask::trace().contains("createOifIndexMapping(): No free OifIndexes available e600"));
    f.expectConsistent();

    // An interface already indexed is still added while the pool is empty.
    f.receiverIs(late, "e7", true);
    EXPECT_TRUE(f.hasOif(late.key(), "e7"));

    f.receiverIs(*routes[3], "e3", false);
    EXPECT_TRUE(f.hasOif(late.key(), "e600"));
    EXPECT_EQ(f.sm->intfOifIndex(Wirl::IntfId("e600")), TMF::OifIndex(3));
    EXPECT_TRUE(f.sm->routeWaitlist().empty());
    EXPECT_TRUE(Cask::trace().contains("Got key (*, 239.1.2.88) from waitlist"));
    f.expectConsistent();
}

TEST(MfibSm, RestartKeepsMatchingRecordsWithTheirIndexesAndRemovesStaleOnes) {
    MfibVrf f;
    auto stored = Cask::make<TMF::Status>();
    // What an earlier run left: (*,G1) on d1 (index 5) and d2 (index 7),
    // (*,G2) on d2 only; the agent now holds G1 alone.
    auto old = [](unsigned n, std::initializer_list<unsigned> bits) {
        TMF::Route r(MfibVrf::fibKey(MfibVrf::wcKey(n)));
        r.iifIs(Wirl::IntfId("up_rp"));
        for (unsigned b : bits) r.oifIs(TMF::OifIndex(b), true);
        return r;
    };
    stored->routeIs(old(1, {5, 7}));
    stored->routeIs(old(2, {7}));
    stored->routeIs(old(3, {}));
    stored->oifIndexIntfIs({TMF::OifIndex(5), Wirl::IntfId("d1"), 1});
    stored->oifIndexIntfIs({TMF::OifIndex(7), Wirl::IntfId("d2"), 2});
    Route& wc = f.wcRoute(1, "up_rp");
    f.receiverIs(wc, "d1", true);
    f.receiverIs(wc, "d2", true);

    f.stageIs(stored);
    EXPECT_TRUE(f.record(wc.key()));
    EXPECT_FALSE(f.record(MfibVrf::wcKey(2)));
    EXPECT_FALSE(f.record(MfibVrf::wcKey(3)));
    EXPECT_TRUE(Cask::trace().contains(
        "<Vrf:red>MfibSm::handleInit(): Restarting, deleting route (*, 239.1.0.2) from the MFIB"));
    EXPECT_EQ(f.sm->intfOifIndex(Wirl::IntfId("d1")), TMF::OifIndex(5));
    EXPECT_EQ(f.sm->intfOifIndex(Wirl::IntfId("d2")), TMF::OifIndex(7));
    EXPECT_TRUE(f.hasOif(wc.key(), "d1"));
    EXPECT_TRUE(f.hasOif(wc.key(), "d2"));
    f.expectConsistent();
    // New interfaces still get the lowest free index.
    f.receiverIs(wc, "d3", true);
    EXPECT_EQ(f.sm->intfOifIndex(Wirl::IntfId("d3")), TMF::OifIndex(0));
}

// A table left by an earlier run that contradicts itself is reported, traced
// and repaired at start; the agent keeps running and programs the routes it
// holds as if the table had been sound. Every case holds (*,G1) with
// receivers on d1 and d2 and finds other (*,G) records of its own.
TEST(MfibSm, RestartRepairsAnInconsistentTable) {
    struct Mapping {
        unsigned key, index;
        const char* intf;
        std::uint32_t refCount;
    };
    struct Stored {
        unsigned group;
        std::vector<unsigned> bits;
    };
    struct Case {
        const char* name;
        std::uint32_t poolLimit;
        std::vector<Mapping> mappings;
        std::vector<Stored> records;
    };
    const std::vector<Case> cases = {
        {"bit without mapping", 512, {{5, 5, "d1", 1}}, {{1, {5, 9}}, {2, {9}}}},
        {"mapping beyond the index limit",
         64,
         {{5, 5, "d1", 1}, {100, 100, "d2", 2}},
         {{1, {5, 100}}, {2, {100}}}},
        {"two interfaces on one index",
         512,
         {{5, 5, "d1", 2}, {7, 5, "d2", 1}},
         {{1, {5, 7}}, {2, {5}}}},
        {"one interface on two indexes",
         512,
         {{5, 5, "d1", 1}, {7, 7, "d1", 1}},
         {{1, {5, 7}}, {2, {7}}}},
        {"reference count too low",
         512,
         {{5, 5, "d1", 1}, {7, 7, "d2", 1}},
         {{1, {5, 7}}, {2, {5}}, {3, {5, 7}}}},
        {"reference count too high",
         512,
         {{5, 5, "d1", 4}, {7, 7, "d2", 1}, {8, 8, "d3", 3}},
         {{1, {5, 7}}, {2, {5}}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        MfibVrf fx;
        Cask::trace().clear();
        Cask::trace().levelIs(4);
        auto stored = Cask::make<TMF::Status>();
        std::vector<std::string> reports;
        stored->corruptionHandlerIs([&](const std::string& what) { reports.push_back(what); });
        for (const Mapping& m : c.mappings) {
            stored->oifIndexIntfIs(TMF::OifIndex(m.key),
                                   {TMF::OifIndex(m.index), Wirl::IntfId(m.intf), m.refCount});
        }
        for (const Stored& r : c.records) {
            TMF::Route rec(MfibVrf::fibKey(MfibVrf::wcKey(r.group)));
            rec.iifIs(Wirl::IntfId("up_rp"));
            for (unsigned b : r.bits) rec.oifIs(TMF::OifIndex(b), true);
            stored->routeIs(rec);
        }
        Route& wc = fx.wcRoute(1, "up_rp");
        fx.receiverIs(wc, "d1", true);
        fx.receiverIs(wc, "d2", true);

        fx.stageIs(stored, c.poolLimit);
        EXPECT_GT(fx.table->corruptionCount(), 0u);
        EXPECT_EQ(reports.size(), fx.table->corruptionCount());
        EXPECT_TRUE(Cask::trace().contains("Corrupt forwarding table"));
        ASSERT_TRUE(fx.record(wc.key()));
        EXPECT_TRUE(fx.hasOif(wc.key(), "d1"));
        EXPECT_TRUE(fx.hasOif(wc.key(), "d2"));
        EXPECT_EQ(fx.record(wc.key())->oifs(), 2u);
        for (unsigned g = 2; g <= 3; ++g) EXPECT_FALSE(fx.record(MfibVrf::wcKey(g)));
        fx.expectConsistent();

        // The repaired counts carry on: an interface leaving frees its index.
        fx.receiverIs(wc, "d1", false);
        EXPECT_TRUE(fx.sm->intfOifIndex(Wirl::IntfId("d1")).isNull());
        fx.receiverIs(wc, "d3", true);
        EXPECT_TRUE(fx.hasOif(wc.key(), "d3"));
        fx.expectConsistent();
        Cask::trace().levelIs(8);
    }
}

// The incoming interface never forwards, so a route whose receivers sit on
// it needs no new index and is written at once even with none free.
TEST(MfibSm, ReceiverOnTheIifNeedsNoIndexWhenThePoolIsEmpty) {
    MfibVrf f;
    f.stageIs(Cask::make<TMF::Status>(), 1);
    Route& full = f.wcRoute(0, "up_rp");
    f.receiverIs(full, "e0", true);
    ASSERT_EQ(f.sm->oifIndexFreePoolSize(), 0u);
    struct Case {
        unsigned group;
        std::vector<const char*> receivers;
        unsigned oifs;
    };
    for (const Case& c : {Case{1, {"up_rp"}, 0}, Case{2, {"up_rp", "e0"}, 1}}) {
        SCOPED_TRACE(c.group);
        Route& wc = f.wcRoute(c.group, "up_rp");
        for (const char* r : c.receivers) f.receiverIs(wc, r, true);
        const TMF::Route* r = f.record(wc.key());
        ASSERT_TRUE(r);
        EXPECT_EQ(r->oifs(), c.oifs);
        EXPECT_FALSE(f.hasOif(wc.key(), "up_rp"));
        EXPECT_TRUE(f.sm->routeWaitlist().empty());
        f.expectConsistent();
    }
}

TEST(MfibSm, SgRouteWaitsForRegisterEvaluationThenInheritsAndDropsTheSharedTree) {
    MfibVrf f;
    Route& wc = f.wcRoute(1, "up_rp");
    f.receiverIs(wc, "d1", true);
    f.receiverIs(wc, "up_s", true);
    Route& sg = f.sgRoute(10, 1, "up_s");
    // The (S,G) route machine decides on the register tunnel as the route
    // appears; the record is committed only after that decision.
    f.flush();
    std::optional<std::uint64_t> evaluated, committed;
    for (const auto& line : Cask::trace().lines()) {
        if (!evaluated && line.text.find("((192.0.2.10, 239.1.0.1)), Register in OIF has been "
                                         "evaluated.") != std::string::npos)
            evaluated = line.seq;
        if (!committed &&
            line.text.find("doCommitTidalRoute(): (192.0.2.10, 239.1.0.1)") != std::string::npos)
            committed = line.seq;
    }
    ASSERT_TRUE(evaluated && committed);
    EXPECT_LT(*evaluated, *committed);

    sg.registerOifEvaluatedIs(true);
    f.flush();
    const TMF::Route* r = f.record(sg.key());
    ASSERT_TRUE(r);
    // Not joined toward S: its packets come down the shared tree, and go to
    // every (*,G) receiver, the one on RPF_interface(S) too.
    ASSERT_EQ(wc.upJoinState(), UpJoinState::upJoined);
    EXPECT_EQ(r->iif(), Wirl::IntfId("up_rp"));
    EXPECT_TRUE(f.hasOif(sg.key(), "d1"));
    EXPECT_TRUE(f.hasOif(sg.key(), "up_s"));
    EXPECT_TRUE(r->fastdrop().isNull());
    EXPECT_FALSE(r->flag(TMF::Route::notifyProgrammable));

    // Joined toward S: packets are taken on RPF_interface(S), which is not
    // inherited, and those still arriving down the shared tree are dropped.
    f.receiverIs(sg, "d2", true);
    ASSERT_EQ(sg.upJoinState(), UpJoinState::upJoined);
    r = f.record(sg.key());
    EXPECT_EQ(r->iif(), Wirl::IntfId("up_s"));
    EXPECT_TRUE(f.hasOif(sg.key(), "d1"));
    EXPECT_FALSE(f.hasOif(sg.key(), "up_s"));
    EXPECT_EQ(r->fastdrop(), Wirl::IntfId("up_rp"));

    // The (*,G) receivers leave, and so does the shared tree: nothing
    // inherited or dropped.
    f.receiverIs(wc, "d1", false);
    f.receiverIs(wc, "up_s", false);
    ASSERT_EQ(wc.upJoinState(), UpJoinState::upNotJoined);
    ASSERT_TRUE(f.record(sg.key()));
    EXPECT_EQ(f.record(sg.key())->oifs(), 1u);  // d2, its own receiver
    EXPECT_TRUE(f.record(sg.key())->fastdrop().isNull());
    // A (*,G) interface change reaches the (S,G) record.
    f.receiverIs(wc, "d3", true);
    EXPECT_TRUE(f.hasOif(sg.key(), "d3"));
    EXPECT_EQ(f.record(sg.key())->fastdrop(), Wirl::IntfId("up_rp"));
    // The record tells whether the (*,G) entry forwards alone: only while
    // the VRF lets the hardware do so and the group never switches.
    f.config().drSwitchIs(Config::DrSwitchThresh::never);
    for (const bool allowed : {true, false}) {
        f.ctx().hwMfibStatus->hwProgrammingAllowedIs(allowed);
        f.loop.runUntil(f.clock.now() + 0.1);  // the (S,G) route machine's review
        ASSERT_EQ(wc.programmable(), allowed);
        ASSERT_TRUE(f.record(sg.key()));
        EXPECT_EQ(f.record(sg.key())->flag(TMF::Route::notifyProgrammable), allowed);
    }
    f.expectConsistent();
}

TEST(MfibSm, ClearRemovesEveryRecordAndReference) {
    MfibVrf f;
    for (unsigned n = 0; n < 3; ++n) f.receiverIs(f.wcRoute(n, "up_rp"), "d1", true);
    f.mfibConfig().clearMfibCountInc();
    EXPECT_EQ(f.table->routeSize(), 0u);
    EXPECT_EQ(f.table->oifIndexIntfSize(), 0u);
    f.expectConsistent();
}

TEST(MfibSm, SingleInterfaceEdgeCases) {
    MfibVrf f;
    Route& wc = f.wcRoute(1, "up_rp");
    f.receiverIs(wc, "d1", true);
    TMF::Route r = *f.record(wc.key());
    // Already set: nothing added.
    EXPECT_TRUE(addTidalRouteOif(*f.sm, r, Wirl::IntfId("d1")).isNull());
    // Never indexed: nothing removed.
    EXPECT_TRUE(delTidalRouteOif(*f.sm, r, Wirl::IntfId("d9")).isNull());
    EXPECT_TRUE(Cask::trace().contains("delTidalRouteOif(): No IntfOifIndex mapping for: d9"));
    EXPECT_EQ(r, *f.record(wc.key()));
    f.expectConsistent();
    EXPECT_DEATH(addTidalRouteOif(*f.sm, r, Wirl::IntfId::register0()),
                 "intfId != registerIntfId && intfId != null0IntfId");
    EXPECT_DEATH(delTidalRouteOif(*f.sm, r, Wirl::IntfId::null0()),
                 "intfId != null0IntfId && intfId != registerIntfId");
}

// Reference counts equal the number of records with the bit set after every
// turn of a random walk over receivers, RPF changes and route churn, and
// every record carries exactly its receivers less its iif. With several
// changes per turn, one build pass counts index users for several records
// at once, frees an index whose last user went and maps one anew.
TEST(MfibSm, RandomChurnKeepsReferenceCountsExact) {
    Cask::trace().levelIs(4);
    for (const unsigned perTurn : {1u, 8u}) {
        SCOPED_TRACE(fmt::format("{} changes per turn", perTurn));
        MfibVrf f;
        constexpr unsigned groups = 12, intfs = 10;
        std::mt19937 rng(20240611);
        std::vector<Route*> route(groups, nullptr);
        std::vector<std::vector<bool>> rx(groups, std::vector<bool>(intfs));
        auto name = [](unsigned i) { return fmt::format("i{}", i); };
        for (unsigned i = 0; i < intfs; ++i) f.pimIntfOf(name(i));
        auto change = [&] {
            const unsigned g = rng() % groups, i = rng() % intfs;
            const unsigned op = rng() % 10;
            if (!route[g]) return;  // made between turns
            if (op < 7) {
                rx[g][i] = !rx[g][i];
                route[g]->routeIntfIs(IntfId(name(i)))->localReceiverIncludeIs(rx[g][i]);
            } else if (op < 9) {
                f.rpTowardIs(route[g]->key().group(), name(i));
            } else {
                // The route leaves with its receivers; a later turn brings it
                // back without them.
                for (unsigned k = 0; k < intfs; ++k) {
                    if (rx[g][k])
                        route[g]->routeIntf(IntfId(name(k)))->localReceiverIncludeIs(false);
                }
                f.removeRoute(route[g]->key());
                route[g] = nullptr;
            }
        };
        for (int turn = 0; turn < int(600 / perTurn); ++turn) {
            for (unsigned g = 0; g < groups; ++g) {
                if (route[g] || rng() % 2) continue;
                route[g] = &f.wcRoute(g, name(rng() % intfs));
                rx[g].assign(intfs, false);
            }
            f.loop.post([&] {
                for (unsigned n = 0; n < perTurn; ++n) change();
            });
            f.flush();
            SCOPED_TRACE(fmt::format("turn {}", turn));
            f.expectConsistent();
            for (unsigned k = 0; k < groups; ++k) {
                if (!route[k]) {
                    EXPECT_FALSE(f.record(MfibVrf::wcKey(k)));
                    continue;
                }
                for (unsigned j = 0; j < intfs; ++j) {
                    const bool want = rx[k][j] && Wirl::IntfId(name(j)) != route[k]->iif();
                    EXPECT_EQ(f.hasOif(route[k]->key(), name(j)), want) << k << " " << j;
                }
            }
            if (HasFailure()) break;
        }
    }
}

// On a loop, a route's changes in one turn are built once, when the turn's
// handler chain has settled: the route appearing and its receiver arriving
// in the same turn commit one record, with the receiver's interface.
TEST(MfibSm, ChangesOfOneTurnBuildTheRecordOnce) {
    MfibVrf f;
    f.pimIntfOf("d1");
    struct Case {
        const char* name;
        int changes;  // receiver toggles after the join, in the same turn
    };
    for (const Case& c : {Case{"join", 0}, Case{"burst", 4}}) {
        SCOPED_TRACE(c.name);
        const unsigned n = c.changes + 1;
        const std::uint64_t writes = f.table->routeWriteCount();
        const std::uint64_t builds = f.sm->builds();
        f.rpTowardIs(f.group(n), "up1");
        f.flush();
        f.loop.post([&] {
            Intf& d1 = *f.route(f.wcKey(n)).routeIntfIs(IntfId("d1"));
            d1.localReceiverIncludeIs(true);
            for (int i = 0; i < c.changes; ++i) d1.localReceiverIncludeIs(i % 2 == 1);
            EXPECT_EQ(f.sm->dirtyRoutes(), 1u);
            EXPECT_EQ(f.record(f.wcKey(n)), nullptr);  // nothing built inside the turn
        });
        f.loop.runOnce();
        EXPECT_EQ(f.sm->builds() - builds, 1u);
        EXPECT_EQ(f.table->routeWriteCount() - writes, 1u);
        EXPECT_TRUE(f.hasOif(f.wcKey(n), "d1"));
        EXPECT_EQ(f.sm->dirtyRoutes(), 0u);
    }
    // Removing a dirty route drops its pending build and its record.
    f.loop.post([&] {
        f.route(f.wcKey(1)).routeIntfIs(IntfId("d1"))->localReceiverIncludeIs(false);
        f.removeRoute(f.wcKey(1));
    });
    const std::uint64_t builds = f.sm->builds();
    f.loop.runOnce();
    EXPECT_EQ(f.sm->builds(), builds);
    EXPECT_EQ(f.record(f.wcKey(1)), nullptr);
    f.expectConsistent();
}

// A turn that already ran for the build quantum (a long review slice) builds one of its dirty
// routes and leaves the others to the next turns instead of running further. (Moving the clock
// makes the machines' own timers due in that turn too, and they may mark routes again, so the
// builds are counted for the long turn only.)
TEST(MfibSm, ALongTurnLeavesItsBuildsToTheNextTurn) {
    MfibVrf f;
    f.pimIntfOf("d1");
    for (unsigned n = 1; n <= 3; ++n) f.rpTowardIs(f.group(n), "up1");
    f.flush();
    const std::uint64_t builds = f.sm->builds();
    f.loop.post([&] {
        for (unsigned n = 1; n <= 3; ++n) {
            f.route(f.wcKey(n)).routeIntfIs(IntfId("d1"))->localReceiverIncludeIs(true);
        }
        f.clock.advanceBy(MfibSm::buildQuantum);  // the turn's work took the whole quantum
    });
    f.loop.runOnce();
    EXPECT_EQ(f.sm->builds() - builds, 1u);
    EXPECT_GE(f.sm->dirtyRoutes(), 2u);
    EXPECT_EQ(f.record(f.wcKey(3)), nullptr);
    f.flush();
    EXPECT_EQ(f.sm->dirtyRoutes(), 0u);
    for (unsigned n = 1; n <= 3; ++n) EXPECT_TRUE(f.hasOif(f.wcKey(n), "d1")) << n;
    f.expectConsistent();
}

}  // namespace
}  // namespace Routing::Pim::SparseMode::Testing
