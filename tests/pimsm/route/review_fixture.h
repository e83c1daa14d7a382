#pragma once
// ReviewFixture: one IPv4 VRF on virtual time with every record the route
// review and the route reactors read, and the review itself. PIM interfaces
// "up1", "up2" (upstream) and "d1", "d2" (downstream) exist with my address
// 10.0.N.5; each upstream interface has a neighbour 10.0.N.2. Routes made by
// `route()` have their RPF toward up1's neighbour.

#include <memory>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "cask/clock.h"
#include "cask/event_loop.h"
#include "cask/trace.h"
#include "pimsm/route/route_review_sm.h"

namespace Routing::Pim::SparseMode::Testing {

inline Wirl::IpGenAddr ip(const std::string& s) {
    return *Wirl::IpGenAddr::parse(s);
}
inline Routing::Pim::RouteKey sg(const std::string& s, const std::string& g) {
    return {ip(s), ip(g)};
}
inline Routing::Pim::RouteKey wc(const std::string& g) {
    return Routing::Pim::RouteKey::wc(ip(g));
}
inline Wirl::IntfId intf(const char* name) {
    return Wirl::IntfId(name);
}

class ReviewFixture {
public:
    static constexpr Wirl::AddressFamily v4 = Wirl::AddressFamily::ipv4;

    explicit ReviewFixture(bool statusInitialized = true) {
        Cask::trace().levelIs(8);
        Cask::trace().clear();
        localStatus->ssmGroupInfoIs(Cask::make<SsmGroupInfo>(v4));
        localStatus->groupFilterStatusIs(Cask::make<Routing::Pim::GroupFilterStatus>(v4));
        localStatus->frrFilterStatusIs(Cask::make<FrrFilterStatus>(v4));
        const char* names[] = {"up1", "up2", "d1", "d2"};
        for (unsigned n = 0; n < 4; ++n) {
            auto rec = Cask::make<Routing::Pim::PimIntfStatus>(intf(names[n]));
            rec->usedAddrIs(ip(fmt::format("10.0.{}.5", n + 1)));
            if (n < 2) neighborIs(*rec, ip(fmt::format("10.0.{}.2", n + 1)));
            pim->intfIs(rec->intfId(), rec);
        }
        status->initializedIs(statusInitialized);
        review = routeReviewSmFactory(inputs());
    }
    ~ReviewFixture() { review.reset(); }

    const VrfContext& inputs() {
        VrfContext& in = ctx;
        in.vrfName = L3::VrfName("red");
        in.loop = &loop;
        in.config = config.get();
        in.mfibConfig = mfibConfig.get();
        in.clearConfig = clearConfig.get();
        in.status = status.get();
        in.localStatus = localStatus.get();
        in.rpfConfig = rpfConfig.get();
        in.rpfStatus = rpfStatus.get();
        in.pimStatus = pim.get();
        in.mcastBoundaryStatus = boundary.get();
        in.failoverIntfs = failoverIntfs.get();
        in.mcastVxlanStatus = vxlan.get();
        in.membership = membership.get();
        return in;
    }

    void neighborIs(Routing::Pim::PimIntfStatus& rec, const Wirl::IpGenAddr& a) {
        const Routing::Pim::NeighborKey k{rec.intfId(), a};
        rec.neighborIs(a, Cask::make<Routing::Pim::PimNeighborStatus>(k));
        pim->activeNeighborIs(k);
    }
    Routing::Pim::PimIntfStatus& pimIntf(const char* name) { return *pim->intfRaw(intf(name)); }
    Routing::Pim::Rpf upstream(const char* name) const {
        const unsigned n = std::string(name) == "up1" ? 1 : 2;
        return Routing::Pim::Rpf{intf(name), ip(fmt::format("10.0.{}.2", n)), 110, 10};
    }

    // A route with its RPF toward up1's neighbour and a record on each of
    // `intfs` with an include receiver.
    Route& route(const Routing::Pim::RouteKey& key, std::vector<const char*> intfs = {"d1"}) {
        auto r = status->routeIs(key);
        r->umh()->doUpdateRpf(upstream("up1"));
        for (auto* name : intfs) r->routeIntfIs(intf(name))->localReceiverIncludeIs(true);
        r->initializedIs(true);
        return *r;
    }
    bool has(const Routing::Pim::RouteKey& key) const { return bool(status->route(key)); }

    void settle() { loop.runUntilIdle(clock.now() + 10); }

    // The route keys of the "Reviewing route" trace lines, in order.
    std::vector<std::string> reviewed() const {
        std::vector<std::string> out;
        for (const auto& l : Cask::trace().lines()) {
            auto at = l.text.find(": Reviewing route ");
            if (at != std::string::npos) out.push_back(l.text.substr(at + 18));
        }
        return out;
    }

    Cask::VirtualClock clock;
    Cask::EventLoop loop{clock};
    Cask::Ptr<Routing::Pim::Status> pim = Cask::make<Routing::Pim::Status>();
    Cask::Ptr<LocalStatus> localStatus = localStatusFactory(v4);
    Cask::Ptr<Status> status =
        Cask::make<Status>(clock, RouteContext{pim.get(), localStatus.get()});
    Cask::Ptr<Config> config = Cask::make<Config>(v4);
    Cask::Ptr<Routing::Multicast::Fib::Config> mfibConfig =
        Cask::make<Routing::Multicast::Fib::Config>();
    Cask::Ptr<Routing::Pim::ClearMrouteConfig> clearConfig =
        Cask::make<Routing::Pim::ClearMrouteConfig>();
    Cask::Ptr<Routing::Pim::RpfConfig> rpfConfig = Cask::make<Routing::Pim::RpfConfig>();
    Cask::Ptr<Routing::Pim::RpfStatus> rpfStatus = Cask::make<Routing::Pim::RpfStatus>();
    Cask::Ptr<Routing::McastBoundary::Status> boundary =
        Cask::make<Routing::McastBoundary::Status>();
    Cask::Ptr<Routing::Multicast::Fib::SparseModeStatus> failoverIntfs =
        Cask::make<Routing::Multicast::Fib::SparseModeStatus>();
    Cask::Ptr<Routing::Multicast::VxlanStatus> vxlan =
        Cask::make<Routing::Multicast::VxlanStatus>();
    Cask::Ptr<Routing::Gmp::Tidal::Status> membership = Cask::make<Routing::Gmp::Tidal::Status>();
    VrfContext ctx;
    std::unique_ptr<RouteReviewSm> review;
};

}  // namespace Routing::Pim::SparseMode::Testing
