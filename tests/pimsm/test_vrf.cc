#include "test_vrf.h"

#include <string>

#include <fmt/format.h>

#include "cask/trace.h"

namespace Routing::Pim::SparseMode::Testing {

IpGenAddr ip(std::string_view text) {
    auto a = IpGenAddr::parse(text);
    CASK_ASSERT(a.has_value(), "test address does not parse");
    return *a;
}

IpGenPrefix prefix(std::string_view text) {
    auto p = IpGenPrefix::parse(text);
    CASK_ASSERT(p.has_value(), "test prefix does not parse");
    return *p;
}

RouteKey wc(std::string_view group) {
    return RouteKey::wc(ip(group));
}

RouteKey sg(std::string_view source, std::string_view group) {
    return RouteKey(ip(source), ip(group));
}

TestVrf::TestVrf(Wirl::AddressFamily family, Start when)
    : family_(family),
      db_(family),
      params_{family, db_, loop, 0, 0},
      mfibDirWriter_(Cask::make<MfibDirWriter>(db_, "sparsemode")),
      eventMonConfig_(Cask::make<MrouteEventMonConfigSm>(db_, "mroute")),
      pim_(Cask::make<Routing::Pim::Status>()),
      config_(Cask::make<Config>(family)),
      clearConfig_(Cask::make<Routing::Pim::ClearMrouteConfig>()),
      ssmConvert_(Cask::make<SsmConvertConfig>()),
      rpMapping_(Cask::make<Platform::RpMapping>()),
      mrib_(Cask::make<Routing::Unicast::RouteTable>(family)),
      boundary_(Cask::make<Routing::McastBoundary::Status>()),
      membership_(Cask::make<Routing::Gmp::Tidal::Status>()),
      mfibTable_(Cask::make<TMF::Status>()),
      rpLocal_(Cask::make<Routing::Pim::RpLocalStatus>()),
      traceLevel_(Cask::trace().level()),
      eventLevel_(Cask::eventLog().level()) {
    Cask::trace().levelIs(8);
    Cask::trace().clear();
    Cask::eventLog().levelIs(4);
    Cask::eventLog().clear();
    db_.pimStatusIs(name, pim_);
    db_.configIs(name, config_);
    db_.clearConfigIs(name, clearConfig_);
    db_.ssmConvertConfigIs(name, ssmConvert_);
    db_.staticRpStatusIs(name, rpMapping_);
    auto mrib = Cask::make<Platform::MribVrfStatus>();
    mrib->mribIs(mrib_);
    db_.mribVrfStatusIs(name, mrib);
    db_.mcastBoundaryStatusIs(boundary_);
    db_.membershipTableIs(name, membership_);
    db_.mfibTableIs(name, mfibTable_);
    db_.rpLocalStatusIs(name, rpLocal_);
    db_.hwMfibStatusIs(name, Cask::make<Platform::HwMfibStatus>());
    if (when == Start::now) start();
}

TestVrf::TestVrf(Layout layout, Start when) : TestVrf(Wirl::AddressFamily::ipv4, Start::later) {
    const bool iAmDr = layout == Layout::twoUpstreamsIAmDr;
    const char* names[] = {"up1", "up2", "d1", "d2"};
    for (int n = 1; n <= 4; ++n) {
        intfIs(names[n - 1], ip(fmt::format("10.0.{}.5", n)), iAmDr);
        if (n <= 2) neighborIs(names[n - 1], ip(fmt::format("10.0.{}.2", n)));
    }
    rpIs(prefix("239.0.0.0/8"), ip("10.9.9.9"));
    unicastRouteIs(prefix("10.9.9.0/24"), "up1", ip("10.0.1.2"));
    unicastRouteIs(prefix("10.1.0.0/16"), "up1", ip("10.0.1.2"));
    if (when == Start::now) start();
}

TestVrf::~TestVrf() {
    container_ = nullptr;
    Cask::trace().levelIs(traceLevel_);
    Cask::eventLog().levelIs(eventLevel_);
}

void TestVrf::start() {
    CASK_ASSERT(!container_, "test VRF started twice");
    container_ = Cask::make<ContainerSm>(name, params_, Cask::make<Platform::RegisterConfig>(),
                                         *mfibDirWriter_, *eventMonConfig_);
}

Rpf TestVrf::upstream(std::string_view intf) {
    return Rpf{IntfId(intf), ip(intf == "up1" ? "10.0.1.2" : "10.0.2.2"), 110, 20};
}

Routing::Pim::PimIntfStatus& TestVrf::intfIs(std::string_view name, const IpGenAddr& me, bool dr) {
    auto rec = Cask::make<Routing::Pim::PimIntfStatus>(IntfId(name));
    rec->usedAddrIs(me);
    if (dr) rec->usedDrIs(me);
    pim_->intfIs(rec->intfId(), rec);
    return *rec;
}

Routing::Pim::PimIntfStatus& TestVrf::pimIntf(std::string_view name) const {
    auto* rec = pim_->intfRaw(IntfId(name));
    CASK_ASSERT(rec, "test PIM interface does not exist");
    return *rec;
}

Routing::Pim::PimNeighborStatus& TestVrf::neighborIs(std::string_view intf, const IpGenAddr& nbr) {
    const NeighborKey key{IntfId(intf), nbr};
    auto rec = Cask::make<Routing::Pim::PimNeighborStatus>(key);
    pimIntf(intf).neighborIs(nbr, rec);
    pim_->activeNeighborIs(key);
    return *rec;
}

void TestVrf::neighborDel(std::string_view intf, const IpGenAddr& nbr) {
    pimIntf(intf).neighborDel(nbr);
    pim_->activeNeighborDel(NeighborKey{IntfId(intf), nbr});
}

void TestVrf::unicastRouteIs(const IpGenPrefix& dest, std::string_view intf,
                             const IpGenAddr& nextHop, std::uint32_t preference,
                             std::uint32_t metric) {
    mrib_->routeIs({dest, IntfId(intf), nextHop, preference, metric, false});
}

void TestVrf::connectedRouteIs(const IpGenPrefix& dest, std::string_view intf) {
    mrib_->routeIs({dest, IntfId(intf), IpGenAddr(), 0, 0, true});
}

Route& TestVrf::route(const RouteKey& key, std::initializer_list<std::string_view> receivers,
                      const std::function<void(Route&)>& prepare) {
    Cask::Ptr<Route> r = prepare ? status().routeIs(key, prepare) : status().routeIs(key);
    CASK_ASSERT(r, "test route refused");
    for (auto intf : receivers) r->routeIntfIs(IntfId(intf))->localReceiverIncludeIs(true);
    return *r;
}

void TestVrf::flush() {
    const Cask::Seconds now = clock.now();
    while (loop.endOfTurnWork() || loop.postedWork() || loop.nextExpiry() <= now) {
        loop.runOnce();
    }
}

}  // namespace Routing::Pim::SparseMode::Testing
