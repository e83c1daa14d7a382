// Membership throughput: a burst of changed memberships (include, outside the
// SSM range, one new (*,G) route each) goes through GmpChangeSm's sliced
// review into routes with their Intf and local-receiver flag set. Reports
// memberships applied per second and the longest slice (one event-loop
// turn), which the 0.1 s review quantum should bound.
//
// The loop runs on real time, except that waiting for a timer jumps instead
// of sleeping, so the figures are the work alone.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <memory>

#include "cask/clock.h"
#include "cask/event_loop.h"
#include "pimsm/membership/gmp_sm.h"
#include "platform/pim_status.h"
#include "skipping_clock.h"

namespace {

using namespace Routing::Pim::SparseMode;
using Routing::Gmp::Tidal::FilterMode;
using Routing::Gmp::Tidal::Membership;
using Routing::Gmp::Tidal::RouteIntfKey;
using Routing::Pim::RouteKey;

// Registers new routes in LocalStatus, as the route reactor does.
class Registrar : public Status::Notifiee {
public:
    Registrar(Status& s, LocalStatus& ls) : ls_(ls) { notifierIs(&s); }
    void handleRoute(const RouteKey& k) override {
        if (auto r = notifier()->route(k)) k.isWc() ? ls_.wcRouteIs(k, r) : ls_.sgRouteIs(k, r);
    }

private:
    LocalStatus& ls_;
};

struct Vrf {
    static constexpr auto family = Wirl::AddressFamily::ipv4;
    Bench::SkippingClock clock;
    Cask::EventLoop loop{clock};
    Routing::Pim::Status pim;
    Cask::Ptr<Config> config = Cask::make<Config>(family);
    Cask::Ptr<LocalStatus> ls = localStatusFactory(family);
    Cask::Ptr<Status> status = Cask::make<Status>(clock, RouteContext{&pim, ls.get()});
    Cask::Ptr<SsmGroupInfo> ssm = Cask::make<SsmGroupInfo>(family);
    Cask::Ptr<Routing::Pim::GroupFilterStatus> filter =
        Cask::make<Routing::Pim::GroupFilterStatus>(family);
    Cask::Ptr<Routing::Gmp::Tidal::Status> table = Cask::make<Routing::Gmp::Tidal::Status>();
    Registrar registrar{*status, *ls};
    VrfContext ctx = [this] {
        VrfContext c;
        c.vrfName = L3::VrfName("default");
        c.loop = &loop;
        c.config = config.get();
        c.status = status.get();
        c.membership = table.get();
        c.localStatus = ls.get();
        c.ssmGroupInfo = ssm.get();
        c.groupFilterStatus = filter.get();
        return c;
    }();
    Cask::Ptr<GmpSm> gmp = gmpSmFactory(ctx);
};

void BM_MembershipBurst(benchmark::State& state) {
    const auto n = std::uint32_t(state.range(0));
    const Wirl::IntfId intf("Ethernet1");
    std::vector<RouteIntfKey> keys;
    for (std::uint32_t i = 0; i < n; ++i) {
        // 239.0.0.0/8, outside the default SSM range.
        keys.push_back({RouteKey::wc(Wirl::IpGenAddr::v4(0xef000000u + i + 1)), intf});
    }
    double longest = 0, slices = 0;
    std::size_t routes = 0;
    for (auto _ : state) {
        state.PauseTiming();
        auto vrf = std::make_unique<Vrf>();
        state.ResumeTiming();
        for (const auto& k : keys) vrf->table->membershipIs(k, Membership{k, FilterMode::include});
        vrf->loop.runUntilIdle();
        state.PauseTiming();
        longest = std::max(longest, vrf->loop.longestTurn());
        slices += double(vrf->loop.turns());
        routes = vrf->ls->wcRouteSize();
        vrf.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(std::int64_t(state.iterations()) * n);
    state.counters["longestSlice_s"] = longest;
    state.counters["slices"] = slices / double(state.iterations());
    state.counters["routes"] = double(routes);
}
BENCHMARK(BM_MembershipBurst)->Arg(100000)->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace
