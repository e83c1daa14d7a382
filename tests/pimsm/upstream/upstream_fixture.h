#pragma once
// UpstreamFixture: one IPv4 VRF for the upstream (*,G) machine. The RP
// 10.9.9.9 is reached through "up1" (next hop 10.0.1.2) until a test moves
// the unicast route to "up2" (next hop 10.0.2.2). Receivers sit on "d1",
// where this router is DR. PIM neighbours get their Join/Prune entries from
// the real JoinPruneNeighborSm.

#include <string_view>

#include <fmt/format.h>

#include "cask/clock.h"
#include "cask/trace.h"
#include "pimsm/route/status.h"
#include "pimsm/upstream/upstream_wc_sm.h"
#include "platform/join_prune_neighbor_sm.h"

namespace Routing::Pim::SparseMode::Testing {

using Routing::Pim::JoinPruneGroupData;
using Routing::Pim::JoinPruneMessageInfo;
using Routing::Pim::JoinPruneNeighbor;
using Routing::Pim::NeighborKey;
using Routing::Pim::RouteKey;
using Routing::Pim::Rpf;
using Wirl::IntfId;
using Wirl::IpGenAddr;

inline IpGenAddr ip(std::string_view s) {
    return *IpGenAddr::parse(s);
}

class UpstreamFixture {
public:
    const IpGenAddr rp = ip("10.9.9.9");
    const IpGenAddr group = ip("239.1.1.1");
    const IpGenAddr nbr1 = ip("10.0.1.2"), nbr2 = ip("10.0.2.2");
    const IntfId up1{"up1"}, up2{"up2"}, d1{"d1"};
    const RouteKey key = RouteKey::wc(ip("239.1.1.1"));

    explicit UpstreamFixture(bool start = true)
        : ls(localStatusFactory(Wirl::AddressFamily::ipv4)),
          pim(Cask::make<Routing::Pim::Status>()),
          status(clock, RouteContext{pim.get(), ls.get()}),
          urs(unicastRoutingStatusFactory(Wirl::AddressFamily::ipv4)),
          table(Cask::make<Routing::Unicast::RouteTable>(Wirl::AddressFamily::ipv4)),
          rpfTable(urs.get()),
          rpMapping(Cask::make<Platform::RpMapping>()),
          rpLocal(Cask::make<Routing::Pim::RpLocalStatus>()),
          jp(Cask::make<Routing::Pim::JoinPruneStatus>()),
          rx(Cask::make<Routing::Pim::JoinPruneRxStatus>()),
          nbrSm(pim, jp) {
        Cask::trace().levelIs(8);
        Cask::eventLog().clear();
        Cask::eventLog().levelIs(4);
        Cask::trace().clear();
        Cask::eventLog().clear();
        urs->mribStatusIs(table);
        rpMapping->rpIs(*Wirl::IpGenPrefix::parse("239.0.0.0/8"), rp);
        unicastVia(up1, nbr1);
        for (auto [name, mine] :
             {std::pair{"up1", "10.0.1.5"}, {"up2", "10.0.2.5"}, {"d1", "10.0.3.5"}}) {
            auto s = Cask::make<Routing::Pim::PimIntfStatus>(IntfId(name));
            s->usedAddrIs(ip(mine));
            s->usedDrIs(ip(mine));
            pim->intfIs(s->intfId(), s);
        }
        neighborIs(up1, nbr1);
        neighborIs(up2, nbr2);
        if (start) this->start();
    }

    void start() { sm = upstreamWcSmFactory(inputs()); }
    const VrfContext& inputs() {
        ctx.vrfName = L3::VrfName("red");
        ctx.localStatus = ls.get();
        ctx.pimStatus = pim.get();
        ctx.joinPruneStatus = jp.get();
        ctx.rpMapping = rpMapping.get();
        ctx.rpfTable = &rpfTable;
        ctx.rpLocalStatus = rpLocal.get();
        ctx.joinPruneRxStatus = rx.get();
        return ctx;
    }
    VrfContext ctx;

    void unicastVia(IntfId intf, const IpGenAddr& nextHop) {
        table->routeIs({*Wirl::IpGenPrefix::parse("10.9.9.0/24"), intf, nextHop, 110, 20, false});
    }
    void neighborIs(IntfId intf, const IpGenAddr& a, bool up = true) {
        auto* s = pim->intfRaw(intf);
        if (up) {
            s->neighborIs(a, Cask::make<Routing::Pim::PimNeighborStatus>(NeighborKey{intf, a}));
            pim->activeNeighborIs(NeighborKey{intf, a});
        } else {
            s->neighborDel(a);
            pim->activeNeighborDel(NeighborKey{intf, a});
        }
    }

    // The (*,G) route, created and registered as the route reactor would.
    Route& route() {
        if (!wc) {
            wc = status.routeIs(key);
            ls->wcRouteIs(key, wc);
        }
        return *wc;
    }
    // A local receiver on d1 makes JoinDesired(*,G) true.
    void receiverIs(bool on) { route().routeIntfIs(d1)->localReceiverIncludeIs(on); }
    // What the route review does to hand a route its change flags.
    void changeFlags(ChangeFlags f) {
        route().changeFlagsIs(f);
        route().changeFlagsIs(ChangeFlags{});
    }

    // The (*,G) entry for the RP in a neighbour's set: nullptr when absent.
    enum class Set { periodic, triggered, override_ };
    const JoinPruneGroupData* groupData(const IpGenAddr& n, Set s) const {
        IntfId intf = n == nbr2 ? up2 : up1;
        const JoinPruneNeighbor* e = jp->neighbor(intf, n);
        if (!e) return nullptr;
        auto& set = s == Set::periodic    ? e->periodic()
                    : s == Set::triggered ? e->pendingTriggered()
                                          : e->pendingOverride();
        return set.joinPruneGroupData(group);
    }
    // "join", "prune" or "" for the RP's (*,G) entry.
    std::string entry(const IpGenAddr& n, Set s) const {
        const JoinPruneGroupData* gd = groupData(n, s);
        if (!gd || !gd->wcSourceDataHas(rp)) return "";
        return gd->wcSourceData(rp).join ? "join" : "prune";
    }

    JoinPruneMessageInfo message(const IpGenAddr& upstream, const IpGenAddr& sender) const {
        JoinPruneMessageInfo m;
        m.riKey = key;
        m.sourceFlags.wildcard = m.sourceFlags.rpt = true;
        m.sender = sender;
        m.upstreamNeighbor = upstream;
        m.wcSource = rp;
        m.intf = upstream == nbr2 ? up2 : up1;
        return m;
    }

    Cask::VirtualClock clock;
    Cask::Ptr<LocalStatus> ls;
    Cask::Ptr<Routing::Pim::Status> pim;
    Status status;
    Cask::Ptr<UnicastRoutingStatus> urs;
    Cask::Ptr<Routing::Unicast::RouteTable> table;
    PimRpfTable rpfTable;
    Cask::Ptr<Platform::RpMapping> rpMapping;
    Cask::Ptr<Routing::Pim::RpLocalStatus> rpLocal;
    Cask::Ptr<Routing::Pim::JoinPruneStatus> jp;
    Cask::Ptr<Routing::Pim::JoinPruneRxStatus> rx;
    Routing::Pim::JoinPruneNeighborSm nbrSm;
    Cask::Ptr<Route> wc;
    Cask::Ptr<UpstreamWcSm> sm;
};

}  // namespace Routing::Pim::SparseMode::Testing
