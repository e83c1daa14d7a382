#pragma once
// AssertSgSm: the per-(S,G), per-interface assert state machine of RFC 7761 4.6.1 for one VRF.
// It takes received Asserts (AssertMessageInfo::rxCount) and data that arrived on an outgoing
// interface (MrtMessageInfo::rxCount); whatever is not for an (S,G) with state here it hands to
// the (*,G) machine by incrementing the record's wcRxCount, never by calling it.
//
// Besides the RFC's CouldAssert(S,G,I), which is false on RPF_interface(S), it asserts on the
// RPF interface of a source-tree route when that interface carries multicast over VXLAN and
// this router is DR there with local receivers (couldAssertSgRpf): it then compares with its
// own spt_assert_metric.
//
// Watches, beyond what AssertSm watches: AssertMessageInfo, MrtMessageInfo, and the group's
// (*,G) route while some (S,G) route of the group has assert state (WcFanOut: its joins,
// receivers, asserts and RPF decide CouldAssert(S,G,I)).
// Writes, beyond AssertSm: the SPT bit of a route whose RPF interface it loses on while joined
// (A6); (S,G) interface records that an Assert or data with the RPT bit asks for.

#include "cask/reactor_map.h"
#include "pimsm/assert/assert_sm.h"
#include "pimsm/common/wc_fan_out.h"

namespace Routing::Pim::SparseMode {

class AssertSgSm : public AssertSm {
public:
    // Reads from the context: loop, status, localStatus, pimStatus, assertStatus (required);
    // rxAssertMessageInfo, mrtMessageInfo, joinPruneRxStatus (absent: nothing received),
    // mcastVxlanStatus (absent: no interface carries VXLAN).
    explicit AssertSgSm(const VrfContext& ctx);
    ~AssertSgSm() override;

    void handleSgRoute(const Routing::Pim::RouteKey& key) override;
    void handleWcRoute(const Routing::Pim::RouteKey& key) override;
    void handleRxAssert();
    void handleRxData();

    // CouldAssert on the RPF interface (see the header comment).
    bool couldAssertSgRpf(const Intf& i) const;
    // CouldAssert(S,G,I) for an interface the (S,G) route has no record for: the SPT bit is set,
    // I is not RPF_interface(S), and I is in joins(*,G) (+) pim_include(*,G) (-)
    // lost_assert(*,G), the terms that an interface without (S,G) state inherits.
    bool couldAssertSgRpt(const Route& route, Wirl::IntfId intf) const;
    bool isInferiorAssertSgRpf(const Intf& i, const AssertMetric& rx) const;
    bool isAcceptableAssertSgRpf(const Intf& i, const AssertMetric& rx) const;

    // A6: assertNoInfo -> loser with `rx`; on the RPF interface of a joined route, the SPT bit.
    void doA6(RhoIntf& rho, const AssertMetric& rx, const char* label);

    bool couldAssert(const Intf& i) const override;
    bool assertTrackingDesired(const Intf& i) const override;
    AssertMetric winnerMetricOf(const Intf& i) const override { return i.sptAssertMetric(); }
    AssertMetric myMetric(const Intf& i) const override;
    Wirl::IntfId rpfIntfOf(const Route& r) const override { return r.iif(); }
    bool joinEntryOfKind(const Routing::Pim::JoinPruneMessageInfo& m) const override;
    Routing::Pim::RouteKey joinEntryKey(
        const Routing::Pim::JoinPruneMessageInfo& m) const override {
        return m.riKey;
    }

    // A change of the group's (*,G) route re-evaluates the group's routes with assert state.
    void handleWcChange(const Wirl::IpGenAddr& group, const WcChange& change);
    bool watchesWcRoute(const Routing::Pim::RouteKey& wcKey) const {
        return wcFanOut_.watches(wcKey.group());
    }

private:
    class RxWatcher : public Routing::Pim::AssertMessageInfo::Notifiee {
    public:
        explicit RxWatcher(AssertSgSm& sm) : sm_(sm) {}
        void handleRxCount() override { sm_.handleRxAssert(); }

    private:
        AssertSgSm& sm_;
    };
    class DataWatcher : public Routing::Pim::MrtMessageInfo::Notifiee {
    public:
        explicit DataWatcher(AssertSgSm& sm) : sm_(sm) {}
        void handleRxCount() override { sm_.handleRxData(); }

    private:
        AssertSgSm& sm_;
    };

    void handleRouteReactor(const Routing::Pim::RouteKey& key, bool added) override;
    // Re-evaluates every (S,G) route of the group that has assert state.
    void doReviewGroup(const Wirl::IpGenAddr& group);
    void doPuntAssert();
    void doPuntData();

    RxWatcher rxWatcher_{*this};
    DataWatcher dataWatcher_{*this};
    WcFanOut<AssertSgSm, RhoRoute> wcFanOut_{*this,
                                             in_,
                                             routeMap(),
                                             {IntfAttr::localReceiverInclude, IntfAttr::joinState,
                                              IntfAttr::assertInfo, IntfAttr::changeFlags}};
};

Cask::Ptr<AssertSgSm> assertSgSmFactory(const VrfContext& ctx);

}  // namespace Routing::Pim::SparseMode
