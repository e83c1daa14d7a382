#pragma once
// A VRF for the assert machines: the two-upstream layout where this router is DR everywhere,
// with two other routers on the downstream LAN d1 (W = 10.0.3.9, which outranks this router's
// 10.0.3.5 on equal metrics, and L = 10.0.3.1, which does not), and the Asserts and data
// notifications the packet side would deliver.
#include <string_view>

#include "cask/trace.h"
#include "pimsm/test_vrf.h"
#include "platform/assert_status.h"

namespace Routing::Pim::SparseMode::Testing {

struct AssertVrf {
    TestVrf vrf{TestVrf::Layout::twoUpstreamsIAmDr};
    const IpGenAddr me = ip("10.0.3.5"), w = ip("10.0.3.9"), l = ip("10.0.3.1");
    const IntfId d1{"d1"}, d2{"d2"}, up1{"up1"}, up2{"up2"};
    const RouteKey sgKey = sg("10.1.0.7", "239.1.1.1");
    const RouteKey wcKey = wc("239.1.1.1");

    AssertVrf() {
        vrf.neighborIs("d1", w);
        vrf.neighborIs("d1", l);
    }

    // A metric offered by `from`: `rpt`, preference and metric.
    static AssertMetric metric(bool rpt, std::uint32_t pref, std::uint32_t m,
                               const IpGenAddr& from) {
        return AssertMetric{rpt, pref, m, from};
    }

    void rxAssert(IntfId intf, const RouteKey& key, const AssertMetric& m) {
        Routing::Pim::AssertMessage msg;
        msg.group = key.group();
        msg.source = key.source();
        msg.rpt = m.rptBit;
        msg.metricPreference = m.metricPreference;
        msg.metric = m.metric;
        msg.sender = m.address;
        auto& info = *vrf.ctx().rxAssertMessageInfo;
        info.messageIs(msg);
        info.intfIdIs(intf);
        info.rxCountInc();
    }
    // Data of `key` arriving on `intf`: on an outgoing interface of a route (wrong VIF), or
    // without a forwarding entry (no-cache).
    void rxData(IntfId intf, const RouteKey& key, bool noCache = false) {
        auto& m = *vrf.ctx().mrtMessageInfo;
        m.routeIntfIs(RouteIntfKey{key, intf});
        if (noCache) {
            m.wcRxCountInc();
        } else {
            m.rxCountInc();
        }
    }
    // A Join entry for `key` from L on `intf`, addressed to `upstream`.
    void rxJoin(IntfId intf, const RouteKey& key, const IpGenAddr& upstream) {
        Routing::Pim::JoinPruneMessageInfo m;
        m.riKey = key;
        m.sourceFlags.wildcard = m.sourceFlags.rpt = key.isWc();
        m.sender = l;
        m.upstreamNeighbor = upstream;
        if (key.isWc()) m.wcSource = ip("10.9.9.9");
        m.intf = intf;
        vrf.rx().rxJoinIs(m);
    }

    // The neighbour `nbr` on d1 restarted: its hellos carry a new generation ID.
    void restart(const IpGenAddr& nbr) {
        auto n = vrf.pim().intfRaw(d1)->neighbor(nbr);
        n->genIdIs(n->genId() + 1);
    }

    const Intf* intf(const RouteKey& key, IntfId id) const {
        auto r = vrf.status().route(key);
        return r ? r->routeIntfRaw(id) : nullptr;
    }
    AssertState state(const RouteKey& key, IntfId id) const {
        const Intf* i = intf(key, id);
        return i ? i->assertInfo().assertState : AssertState::assertNoInfo;
    }
    const Routing::Pim::IntfStatus* status(IntfId id) const {
        return vrf.ctx().assertStatus->intf(id);
    }
    bool winnerListed(const RouteKey& key, IntfId id) const {
        auto* s = status(id);
        return s && s->assertWinnerHas(key);
    }
    // An AssertCancel for `key` on `id` is waiting or was sent.
    bool cancelListed(const RouteKey& key, IntfId id) const {
        auto* s = status(id);
        if (s && s->assertCancelHas(key)) return true;
        for (const auto& sent : vrf.ctx().txMessageInfo->sent()) {
            if (sent.cancel && sent.key == key && sent.intf == id) return true;
        }
        return false;
    }
    std::uint32_t triggered(IntfId id) const {
        auto* s = status(id);
        return s ? s->triggeredWinnerCount() : 0;
    }
    std::uint32_t assertsPunted() const { return vrf.ctx().rxAssertMessageInfo->wcRxCount(); }
    std::uint32_t dataPunted() const { return vrf.ctx().mrtMessageInfo->wcRxCount(); }
};

}  // namespace Routing::Pim::SparseMode::Testing
