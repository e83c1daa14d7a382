#pragma once
// GmpFixture: one VRF's GmpSm on virtual time with every input it reads, in
// either family. A stand-in for the route reactor registers the routes of
// the route status in LocalStatus. `group(true, n)` is in the default SSM
// range (232/8, ff3e::/32), `group(false, n)` outside it.

#include <string>

#include <fmt/format.h>

#include "cask/trace.h"
#include "pimsm/membership/gmp_sm.h"
#include "platform/pim_status.h"

namespace Routing::Pim::SparseMode::Testing {

using Routing::Gmp::Tidal::FilterMode;
using Routing::Gmp::Tidal::RouteIntfKey;
using Wirl::IpGenAddr;

class RouteRegistrar : public Status::Notifiee {
public:
    RouteRegistrar(Status& status, LocalStatus& ls) : ls_(ls) { notifierIs(&status); }
    void handleRoute(const RouteKey& k) override {
        auto r = notifier()->route(k);
        if (k.isWc())
            r ? ls_.wcRouteIs(k, r) : ls_.wcRouteDel(k);
        else
            r ? ls_.sgRouteIs(k, r) : ls_.sgRouteDel(k);
    }

private:
    LocalStatus& ls_;
};

class GmpFixture {
public:
    explicit GmpFixture(Wirl::AddressFamily family) : family(family), registrar(*status, *ls) {
        Cask::trace().levelIs(8);
        Cask::eventLog().clear();
        Cask::eventLog().levelIs(4);
        Cask::trace().clear();
        Cask::eventLog().clear();
        ctx.vrfName = L3::VrfName("red");
        ctx.loop = &loop;
        ctx.config = config.get();
        ctx.status = status.get();
        ctx.membership = table.get();
        ctx.localStatus = ls.get();
        ctx.ssmGroupInfo = ssmInfo.get();
        ctx.groupFilterStatus = filter.get();
        ctx.mcastBoundaryStatus = boundary.get();
        ctx.ssmConvertConfig = convert.get();
        gmp = gmpSmFactory(ctx);
    }
    ~GmpFixture() { Cask::trace().levelIs(4); }

    bool v4() const { return family == Wirl::AddressFamily::ipv4; }
    static IpGenAddr addr(const std::string& text) { return *IpGenAddr::parse(text); }
    IpGenAddr group(bool ssm, unsigned n = 1) const {
        return addr(v4() ? fmt::format("{}.1.{}.{}", ssm ? 232 : 239, n / 256, n % 256)
                         : fmt::format("{}::1:{:x}", ssm ? "ff3e" : "ff0e", n));
    }
    IpGenAddr source(unsigned n = 1) const {
        return addr(v4() ? fmt::format("10.0.0.{}", n) : fmt::format("2001:db8::{:x}", n));
    }
    IpGenAddr any() const { return IpGenAddr::zero(family); }
    static RouteIntfKey key(const IpGenAddr& s, const IpGenAddr& g, const char* intf = "e1") {
        return {RouteKey(s, g), Wirl::IntfId(intf)};
    }
    void join(const RouteIntfKey& k, FilterMode mode = FilterMode::include) {
        table->membershipIs(k, {k, mode});
    }
    void leave(const RouteIntfKey& k) { table->membershipDel(k); }
    void settle() { loop.runUntilIdle(); }

    // The include and exclude flags of k's Intf; "none" without one.
    std::string flags(const RouteIntfKey& k) const {
        auto route = status->route(k.routeKey);
        const Intf* i = route ? route->routeIntfRaw(k.intf) : nullptr;
        return i ? fmt::format("include {} exclude {}", int(i->localReceiverInclude()),
                               int(i->localReceiverExclude()))
                 : "none";
    }
    // How often k was decided.
    static std::size_t decisions(const RouteIntfKey& k) {
        return Cask::trace().count(fmt::format("doUpdateMembership{} {},", k.routeKey, k.intf));
    }

    Wirl::AddressFamily family;
    Cask::VirtualClock clock;
    Cask::EventLoop loop{clock};
    Routing::Pim::Status pim;
    Cask::Ptr<Config> config = Cask::make<Config>(family);
    Cask::Ptr<LocalStatus> ls = localStatusFactory(family);
    Cask::Ptr<Status> status = Cask::make<Status>(clock, RouteContext{&pim, ls.get()});
    Cask::Ptr<SsmGroupInfo> ssmInfo = Cask::make<SsmGroupInfo>(family);
    Cask::Ptr<Routing::Pim::GroupFilterStatus> filter =
        Cask::make<Routing::Pim::GroupFilterStatus>(family);
    Cask::Ptr<Routing::McastBoundary::Status> boundary =
        Cask::make<Routing::McastBoundary::Status>();
    Cask::Ptr<SsmConvertConfig> convert = Cask::make<SsmConvertConfig>();
    Cask::Ptr<Routing::Gmp::Tidal::Status> table = Cask::make<Routing::Gmp::Tidal::Status>();
    RouteRegistrar registrar;
    VrfContext ctx;
    Cask::Ptr<GmpSm> gmp;
};

inline Wirl::AddressRangeSet rangeOf(const IpGenAddr& a) {
    Wirl::AddressRangeSet set(a.family());
    set.add(Wirl::IpGenPrefix::hostPrefix(a));
    return set;
}

}  // namespace Routing::Pim::SparseMode::Testing
