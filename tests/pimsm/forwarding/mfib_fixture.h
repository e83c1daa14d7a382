#pragma once
// MfibFixture: one VRF's route status, LocalStatus and forwarding table, with
// a MfibSm started on demand. Interfaces are made on first use as PIM
// interfaces on which this router is DR, so a local receiver on one puts it
// in the (*,G) immediate olist.

#include <string>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "cask/clock.h"
#include "pimsm/forwarding/mfib_sm.h"
#include "platform/pim_status.h"

namespace Routing::Pim::SparseMode::Testing {

class MfibFixture {
public:
    MfibFixture()
        : ls_(localStatusFactory(Wirl::AddressFamily::ipv4)),
          status_(Cask::make<Status>(clock_, RouteContext{&pim_, ls_.get()})),
          table(Cask::make<TMF::Status>()) {}

    // With a loop, dirty routes are built at the end of the loop's turn.
    // `poolLimit` caps the indexes handed out, to exhaust them cheaply.
    void start(Cask::EventLoop* loop = nullptr, std::uint32_t poolLimit = TMF::OifIndex::count) {
        ctx_.vrfName = L3::VrfName("blue");
        ctx_.mfibTidal = table.get();
        ctx_.status = status_.get();
        ctx_.localStatus = ls_.get();
        ctx_.loop = loop;
        sm = std::make_unique<MfibSm>(ctx_);
        sm->oifIndexFreePoolLimitIs(poolLimit);
        sm->handleInit();
    }

    static Wirl::IpGenAddr group(unsigned n) {
        return Wirl::IpGenAddr::v4(0xef010000u + n);  // 239.1.x.y
    }
    static RouteKey wcKey(unsigned n) { return RouteKey::wc(group(n)); }
    static Routing::Multicast::Fib::IpGenRouteKey fibKey(const RouteKey& k) {
        return Routing::Multicast::Fib::convertKey(k);
    }

    // The (*,G) route of group `n` with its RPF toward the RP on `rpfIntf`.
    Route& wcRoute(unsigned n, const std::string& rpfIntf) {
        auto route = status_->routeIs(wcKey(n));
        rpfIs(*route, rpfIntf);
        ls_->wcRouteIs(route->key(), route);
        return *route;
    }
    Route& sgRoute(unsigned source, unsigned n, const std::string& rpfIntf) {
        auto route =
            status_->routeIs(RouteKey(Wirl::IpGenAddr::v4(0xc0000200u + source), group(n)));
        rpfIs(*route, rpfIntf);
        ls_->sgRouteIs(route->key(), route);
        return *route;
    }
    void rpfIs(Route& route, const std::string& intf) {
        pimIntf(intf);
        route.umh()->doUpdateRpf(Rpf{Wirl::IntfId(intf), Wirl::IpGenAddr::v4(0x0a000002u), 1, 1});
    }
    void receiverIs(Route& route, const std::string& intf, bool on) {
        pimIntf(intf);
        route.routeIntfIs(Wirl::IntfId(intf))->localReceiverIncludeIs(on);
    }
    void forgetRoute(const RouteKey& key) {
        if (key.isWc()) {
            ls_->wcRouteDel(key);
        } else {
            ls_->sgRouteDel(key);
        }
    }

    const TMF::Route* record(const RouteKey& key) const { return table->route(fibKey(key)); }
    bool hasOif(const RouteKey& key, const std::string& intf) const {
        const TMF::Route* r = record(key);
        return r && r->oif(sm->intfOifIndex(Wirl::IntfId(intf)));
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

private:
    void pimIntf(const std::string& name) {
        const Wirl::IntfId id(name);
        if (pim_.intfHas(id)) return;
        auto s = Cask::make<Routing::Pim::PimIntfStatus>(id);
        const auto me = Wirl::IpGenAddr::v4(0x0a000005u);
        s->usedAddrIs(me);
        s->usedDrIs(me);
        pim_.intfIs(id, s);
    }

    Routing::Pim::Status pim_;
    Cask::VirtualClock clock_;
    Cask::Ptr<LocalStatus> ls_;
    Cask::Ptr<Status> status_;

public:
    Cask::Ptr<TMF::Status> table;
    VrfContext ctx_;
    std::unique_ptr<MfibSm> sm;
};

}  // namespace Routing::Pim::SparseMode::Testing
