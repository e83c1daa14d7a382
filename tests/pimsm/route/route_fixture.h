#pragma once
// RouteFixture: one group with a (*,G) and an (S,G) route over five PIM interfaces, for tests
// of the RFC 7761 route macros. "up_rp" is RPF_interface(RP(G)), "up_s" is RPF_interface(S),
// "d1".."d3" are downstream. This router is DR on d1 and d2 only.
//
// Addresses come in either family (10.0.N.H or 2001:db8:N::H, N the interface's subnet) so the
// same tables run over IPv4 and IPv6. My address on each interface is host 5; hosts 2 and 9
// are other routers, below and above mine, so an assert tie on preference and metric can be
// won or lost on the address.

#include <array>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include "cask/clock.h"
#include "pimsm/route/local_status.h"
#include "pimsm/route/status.h"
#include "platform/pim_status.h"

namespace Routing::Pim::SparseMode::Testing {

class RouteFixture {
public:
    static constexpr std::array<std::string_view, 5> intfNames = {"d1", "d2", "d3", "up_rp",
                                                                  "up_s"};
    static constexpr unsigned myHost = 5, lowHost = 2, highHost = 9;
    // MRIB preference and metric toward RP(G) and toward S.
    static constexpr std::uint32_t rpPref = 120, rpMetric = 20, srcPref = 110, srcMetric = 30;

    explicit RouteFixture(Wirl::AddressFamily family)
        : family_(family), ls_(localStatusFactory(family)), status_(clock_, {&pim_, ls_.get()}) {
        for (unsigned n = 0; n < intfNames.size(); ++n) {
            auto s = Cask::make<Routing::Pim::PimIntfStatus>(Wirl::IntfId(intfNames[n]));
            s->usedAddrIs(addr(n + 1, myHost));
            pim_.intfIs(s->intfId(), s);
        }
        drIs("d1", true);
        drIs("d2", true);
        drIs("d3", false);
        drIs("up_rp", false);
        drIs("up_s", false);
        const bool v4 = family == Wirl::AddressFamily::ipv4;
        const auto group = *Wirl::IpGenAddr::parse(v4 ? "239.1.1.1" : "ff0e::1:1");
        const auto source = *Wirl::IpGenAddr::parse(v4 ? "192.0.2.10" : "2001:db8:ff::10");
        wcRoute = status_.routeIs(RouteKey::wc(group));
        sgRoute = status_.routeIs(RouteKey(source, group));
        ls_->wcRouteIs(wcRoute->key(), wcRoute);
        ls_->sgRouteIs(sgRoute->key(), sgRoute);
        wcRoute->umh()->doUpdateRpf(
            Rpf{Wirl::IntfId("up_rp"), peer("up_rp", lowHost), rpPref, rpMetric});
        sgRoute->umh()->doUpdateRpf(
            Rpf{Wirl::IntfId("up_s"), peer("up_s", lowHost), srcPref, srcMetric});
    }

    Wirl::IpGenAddr addr(unsigned subnet, unsigned host) const {
        const bool v4 = family_ == Wirl::AddressFamily::ipv4;
        return *Wirl::IpGenAddr::parse(v4 ? fmt::format("10.0.{}.{}", subnet, host)
                                          : fmt::format("2001:db8:{}::{}", subnet, host));
    }
    // Another router's address on `intf` (my_ip(I) is host `myHost`).
    Wirl::IpGenAddr peer(std::string_view intf, unsigned host) const {
        return addr(subnetOf(intf), host);
    }
    Wirl::IpGenAddr me(std::string_view intf) const { return peer(intf, myHost); }

    // This router is DR on `intf`, or another router (host 9) is.
    void drIs(std::string_view intf, bool iAmDr) {
        pim_.intfRaw(Wirl::IntfId(intf))->usedDrIs(iAmDr ? me(intf) : peer(intf, highHost));
    }

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
    // routes this fixture installed.
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

    // Unregisters the (*,G) route, as when the group has none (SSM, or the route was removed).
    void forgetWcRoute() { ls_->wcRouteDel(wcRoute->key()); }

    Wirl::AddressFamily family() const { return family_; }

private:
    static unsigned subnetOf(std::string_view intf) {
        for (unsigned n = 0; n < intfNames.size(); ++n) {
            if (intfNames[n] == intf) return n + 1;
        }
        return 0;
    }

    Wirl::AddressFamily family_;
    Routing::Pim::Status pim_;
    Cask::Ptr<LocalStatus> ls_;
    Cask::VirtualClock clock_;
    Status status_;

public:
    Cask::Ptr<Route> wcRoute;
    Cask::Ptr<Route> sgRoute;
};

}  // namespace Routing::Pim::SparseMode::Testing
