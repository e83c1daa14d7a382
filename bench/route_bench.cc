// Cost of inherited_olist(S,G) on an (S,G) route whose group's (*,G) route is joined on half of
// the interfaces, a few of them (S,G,rpt)-pruned: the null test that JoinDesired(S,G) and
// PruneDesired(S,G,rpt) make on every evaluation, and the full walk that builds the outgoing
// list. The second argument prunes every joined interface, so the null test has to look at
// them all before it can answer.

#include <benchmark/benchmark.h>

#include <vector>

#include <fmt/format.h>

#include "cask/clock.h"
#include "pimsm/route/local_status.h"
#include "pimsm/route/status.h"
#include "platform/pim_status.h"

namespace {

using namespace Routing::Pim::SparseMode;

Wirl::IpGenAddr v4(std::uint32_t a) {
    return Wirl::IpGenAddr::v4(a);
}

// One group on `n` interfaces: (*,G) joined on the even ones; (S,G,rpt) pruned on every
// fourth joined one, or on all of them with `pruneAll`.
class Group {
public:
    Group(int n, bool pruneAll)
        : ls_(localStatusFactory(Wirl::AddressFamily::ipv4)), status_(clock_, {&pim_, ls_.get()}) {
        wc = status_.routeIs(Routing::Pim::RouteKey::wc(v4(0xef010101)));
        sg = status_.routeIs(Routing::Pim::RouteKey(v4(0xc000020a), v4(0xef010101)));
        ls_->wcRouteIs(wc->key(), wc);
        ls_->sgRouteIs(sg->key(), sg);
        wc->umh()->doUpdateRpf(Routing::Pim::Rpf{Wirl::IntfId("up_rp"), v4(0x0a000002), 120, 20});
        sg->umh()->doUpdateRpf(Routing::Pim::Rpf{Wirl::IntfId("up_s"), v4(0x0a000102), 110, 30});
        for (int i = 0; i < n; ++i) {
            const Wirl::IntfId id(fmt::format("e{}", i));
            auto s = Cask::make<Routing::Pim::PimIntfStatus>(id);
            s->usedAddrIs(v4(0x0a010001 + (std::uint32_t(i) << 8)));
            s->usedDrIs(s->usedAddr());
            pim_.intfIs(id, s);
            if (i % 2) continue;
            wc->routeIntfIs(id)->joinStateIs(JoinState::joined);
            if (pruneAll || i % 8 == 0) sg->routeIntfIs(id)->rptStateIs(RptState::rptPruned);
        }
    }

    Cask::Ptr<Route> wc, sg;

private:
    Routing::Pim::Status pim_;
    Cask::Ptr<LocalStatus> ls_;
    Cask::VirtualClock clock_;
    Status status_;
};

void addSizes(benchmark::State& state) {
    state.counters["sizeof(Route)"] = sizeof(Route);
    state.counters["sizeof(Intf)"] = sizeof(Intf);
}

void BM_NullInheritedOlistSg(benchmark::State& state) {
    Group g(int(state.range(0)), state.range(1) != 0);
    for (auto _ : state) benchmark::DoNotOptimize(g.sg->nullInheritedOlistSg());
    addSizes(state);
}
BENCHMARK(BM_NullInheritedOlistSg)->ArgsProduct({{8, 64}, {0, 1}});

void BM_ForEachInheritedOlistSg(benchmark::State& state) {
    Group g(int(state.range(0)), state.range(1) != 0);
    std::vector<Wirl::IntfId> olist;
    olist.reserve(std::size_t(state.range(0)));
    for (auto _ : state) {
        olist.clear();
        g.sg->forEachInheritedOlistSg([&](Wirl::IntfId i) { olist.push_back(i); });
        benchmark::DoNotOptimize(olist.data());
    }
    state.counters["olist"] = double(olist.size());
    addSizes(state);
}
BENCHMARK(BM_ForEachInheritedOlistSg)->ArgsProduct({{8, 64}, {0, 1}});

}  // namespace
