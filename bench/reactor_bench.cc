// `pimsm-bench reactors [--routes N]`: what each machine's per-route reactors cost, in bytes per
// route, for N (*,G) routes of one interface each (a host's receiver on Ethernet1, RPF toward a
// neighbour on Ethernet2), taken up by the real machines: the route review (RouteSm), the
// upstream (*,G) machine, the forwarding machine and membership.
//
// The reactor figure is measured, per machine, as
//   reactor blocks (the pools' bytes in use, one reactor per route)
//   + index bytes (the hash set's slots and control bytes; a one-interface map has none; for
//     the machines in the VRF's route directory, an equal share of its blocks and table among
//     the maps in it here)
//   + registrations (watcher slots added to the records' notifiee lists, 8 bytes each)
// divided by N, and printed beside the 64-byte budget. Beside it, every byte the machine
// allocated while it took up the routes (counted by the binary's allocator, alloc_count.h, at
// glibc's chunk size), which also holds work that is not reactors: LocalStatus entries, RPF
// requests, forwarding records and their indexes.

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <new>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include "alloc_count.h"
#include "cask/clock.h"
#include "cask/event_loop.h"
#include "pimsm/forwarding/mfib_sm.h"
#include "pimsm/membership/gmp_sm.h"
#include "pimsm/route/route_review_sm.h"
#include "pimsm/upstream/upstream_wc_sm.h"
#include "platform/pim_status.h"

namespace Bench {
namespace {

// Live heap bytes, each allocation at the size of its malloc chunk (usable size plus the chunk
// header), from the binary's counting allocator.
long long liveBytes() {
    return static_cast<long long>(heapBytesInUse() + heapBlocksInUse() * sizeof(std::size_t));
}

using namespace Routing::Pim::SparseMode;
using Routing::Pim::RouteKey;
constexpr auto v4 = Wirl::AddressFamily::ipv4;
constexpr double budget = 64;

Wirl::IpGenAddr ip(std::uint32_t a) {
    return Wirl::IpGenAddr::v4(a);
}

// Watcher slots on the routes' records: the route, its upstream and its interfaces.
std::size_t registrations(const Status& status) {
    std::size_t n = 0;
    for (const auto& [key, route] : status.route()) {
        n += route->notifieeCount() + route->umh()->notifieeCount();
        for (const auto& [id, intf] : route->routeIntf()) n += intf->notifieeCount();
    }
    return n;
}

template <class... R>
std::size_t poolBytes() {
    return ((Cask::ReactorPool<R>::instance().inUse() * Cask::ReactorPool<R>::blockSize) + ...);
}

struct Row {
    std::string machine;
    double reactor = 0;
    double blocks = 0, index = 0, slots = 0;
    double allocated = 0;
};

struct Vrf {
    Cask::VirtualClock clock;
    Cask::EventLoop loop{clock};
    Cask::Ptr<Routing::Pim::Status> pim = Cask::make<Routing::Pim::Status>();
    Cask::Ptr<LocalStatus> ls = localStatusFactory(v4);
    Cask::Ptr<Status> status = Cask::make<Status>(clock, RouteContext{pim.get(), ls.get()});
    Cask::Ptr<Config> config = Cask::make<Config>(v4);
    Cask::Ptr<Routing::Pim::RpfConfig> rpfConfig = Cask::make<Routing::Pim::RpfConfig>();
    Cask::Ptr<Routing::Pim::RpfStatus> rpfStatus = Cask::make<Routing::Pim::RpfStatus>();
    Cask::Ptr<Routing::Gmp::Tidal::Status> membership = Cask::make<Routing::Gmp::Tidal::Status>();
    Cask::Ptr<Routing::Pim::JoinPruneStatus> jp = Cask::make<Routing::Pim::JoinPruneStatus>();
    Cask::Ptr<TMF::Status> table = Cask::make<TMF::Status>();
    Cask::Ptr<SsmGroupInfo> ssm = Cask::make<SsmGroupInfo>(v4);
    Cask::Ptr<Routing::Pim::GroupFilterStatus> filter =
        Cask::make<Routing::Pim::GroupFilterStatus>(v4);

    // The inputs every machine reads, as the container would hand them over.
    VrfContext ctx = [this] {
        VrfContext c;
        c.vrfName = L3::VrfName("bench");
        c.loop = &loop;
        c.config = config.get();
        c.status = status.get();
        c.localStatus = ls.get();
        c.rpfConfig = rpfConfig.get();
        c.rpfStatus = rpfStatus.get();
        c.pimStatus = pim.get();
        c.membership = membership.get();
        c.joinPruneStatus = jp.get();
        c.mfibTidal = table.get();
        c.ssmGroupInfo = ssm.get();
        c.groupFilterStatus = filter.get();
        c.routeReactors = std::make_shared<RouteReactorDirectory>();
        return c;
    }();
    std::unique_ptr<RouteReviewSm> review;
    Cask::Ptr<UpstreamWcSm> upstream;
    std::unique_ptr<MfibSm> mfib;
    Cask::Ptr<GmpSm> gmp;

    Vrf() {
        ls->ssmGroupInfoIs(ssm);
        ls->groupFilterStatusIs(filter);
        ls->frrFilterStatusIs(Cask::make<FrrFilterStatus>(v4));
        for (auto [name, addr] :
             {std::pair{"Ethernet1", 0x0a010005u}, {"Ethernet2", 0x0a020005u}}) {
            auto rec = Cask::make<Routing::Pim::PimIntfStatus>(Wirl::IntfId(name));
            rec->usedAddrIs(ip(addr));
            rec->usedDrIs(ip(addr));
            pim->intfIs(rec->intfId(), rec);
        }
        status->initializedIs(true);
    }
    ~Vrf() {
        gmp.reset();
        mfib.reset();
        upstream.reset();
        review.reset();
    }
};

int run(std::size_t n) {
    Vrf vrf;
    const Wirl::IntfId host("Ethernet1"), up("Ethernet2");
    for (std::size_t i = 0; i < n; ++i) {
        auto r = vrf.status->routeIs(RouteKey::wc(ip(0xef000001u + std::uint32_t(i))));
        r->umh()->doUpdateRpf(Routing::Pim::Rpf{up, ip(0x0a020002u), 1, 1});
        r->routeIntfIs(host)->localReceiverIncludeIs(true);
        r->initializedIs(true);
        // The host's membership, so that membership keeps the receiver it finds.
        const Routing::Gmp::Tidal::RouteIntfKey k{r->key(), host};
        vrf.membership->membershipIs(k, {k, Routing::Gmp::Tidal::FilterMode::include});
    }
    std::vector<Row> rows;
    std::vector<std::function<std::size_t()>> indexes;
    // Takes up the routes with one more machine and measures what it added. Index bytes are
    // read once every machine is there: the machines in the route directory share it.
    auto measure = [&](const char* name, auto make, auto blocks, auto index) {
        const long long bytes0 = liveBytes();
        const std::size_t slots0 = registrations(*vrf.status);
        const std::size_t blocks0 = blocks();
        make();
        vrf.loop.runUntilIdle(vrf.clock.now() + 1);
        Row row{name};
        row.blocks = (double(blocks()) - double(blocks0)) / double(n);
        row.slots =
            (double(registrations(*vrf.status)) - double(slots0)) * sizeof(void*) / double(n);
        row.allocated = double(liveBytes() - bytes0) / double(n);
        rows.push_back(row);
        indexes.push_back(index);
    };
    measure(
        "RouteSm (route review)", [&] { vrf.review = routeReviewSmFactory(vrf.ctx); },
        [] { return poolBytes<RouteSm>(); },
        [&] { return vrf.review->routeSmMap().indexFootprint(); });
    measure(
        "UpstreamWcSm", [&] { vrf.upstream = upstreamWcSmFactory(vrf.ctx); },
        [] { return poolBytes<UpstreamWcSm::RhoRoute>(); },
        [&] { return vrf.upstream->routeMap().indexFootprint(); });
    measure(
        "MfibSm", [&] { vrf.mfib = mfibSmFactory(vrf.ctx); },
        [] { return poolBytes<MfibSm::RhoWcRoute>(); },
        [&] { return vrf.mfib->wcRhoMap().indexFootprint(); });
    measure(
        "GmpSm", [&] { vrf.gmp = gmpSmFactory(vrf.ctx); },
        [] { return poolBytes<GmpSm::RhoRoute>(); },
        [&] {
            return vrf.gmp->wcRouteMap().indexFootprint() + vrf.gmp->sgRouteMap().indexFootprint();
        });
    for (std::size_t i = 0; i < rows.size(); ++i) {
        rows[i].index = double(indexes[i]()) / double(n);
        rows[i].reactor = rows[i].blocks + rows[i].index + rows[i].slots;
    }

    std::printf("%zu (*,G) routes, one interface each; bytes per route\n", n);
    std::printf("%-24s %9s %7s %7s %7s %7s %10s\n", "machine", "reactors", "budget", "blocks",
                "index", "watch", "allocated");
    bool within = true;
    for (const Row& r : rows) {
        std::printf("%-24s %9.1f %7.0f %7.1f %7.1f %7.1f %10.1f%s\n", r.machine.c_str(), r.reactor,
                    budget, r.blocks, r.index, r.slots, r.allocated,
                    r.reactor > budget ? "  over budget" : "");
        within = within && r.reactor <= budget;
    }
    return within ? 0 : 2;
}

}  // namespace

int reactorsMain(int argc, char** argv) {
    std::size_t n = 10000;
    for (int i = 1; i < argc; ++i) {
        const std::string_view a(argv[i]);
        if (a == "--routes" && i + 1 < argc) {
            n = std::strtoull(argv[++i], nullptr, 10);
        } else {
            std::fprintf(stderr, "usage: pimsm-bench reactors [--routes N]\n");
            return 1;
        }
    }
    if (n == 0) n = 1;
    return run(n);
}

}  // namespace Bench
