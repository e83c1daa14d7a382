#pragma once
// AssertWcSm: the per-(*,G), per-interface assert state machine of RFC 7761 4.6.2 for one VRF.
// Its input is what the (S,G) machine hands over: Asserts with the RPT bit that no (S,G) state
// took (AssertMessageInfo::wcRxCount) and data without an (S,G) assert to make, including every
// packet the forwarding plane had no entry for (MrtMessageInfo::wcRxCount). Asserts for a group
// in the SSM range are counted in ignoredRxAsserts and dropped.
//
// It differs from the (S,G) machine in its predicates (CouldAssert(*,G,I),
// AssertTrackingDesired(*,G,I), rpt_assert_metric), in having no A6 (entering the loser state
// from assertNoInfo is A2), and in that its A1 and A3 send the Assert for the (S,G) of the
// packet or Assert that caused them. It never creates an interface record for data.

#include "pimsm/assert/assert_sm.h"

namespace Routing::Pim::SparseMode {

class AssertWcSm : public AssertSm {
public:
    // Reads from the context: loop, status, localStatus, pimStatus, assertStatus, config and
    // ssmGroupInfo (required); rxAssertMessageInfo, mrtMessageInfo, joinPruneRxStatus (absent:
    // nothing received).
    explicit AssertWcSm(const VrfContext& ctx);
    ~AssertWcSm() override;

    void handleWcRoute(const Routing::Pim::RouteKey& key) override;
    void handleRxAssert();
    void handleRxData();

    bool couldAssert(const Intf& i) const override { return i.couldAssertWc(); }
    bool assertTrackingDesired(const Intf& i) const override { return i.assertTrackingDesiredWc(); }
    AssertMetric winnerMetricOf(const Intf& i) const override { return i.rptAssertMetric(); }
    AssertMetric myMetric(const Intf& i) const override { return i.myAssertMetricWc(); }
    Wirl::IntfId rpfIntfOf(const Route& r) const override { return r.iif(); }
    bool joinEntryOfKind(const Routing::Pim::JoinPruneMessageInfo& m) const override {
        return m.sourceFlags.isStarG();
    }
    Routing::Pim::RouteKey joinEntryKey(
        const Routing::Pim::JoinPruneMessageInfo& m) const override {
        return Routing::Pim::RouteKey::wc(m.riKey.group());
    }

private:
    class RxWatcher : public Routing::Pim::AssertMessageInfo::Notifiee {
    public:
        explicit RxWatcher(AssertWcSm& sm) : sm_(sm) {}
        void handleWcRxCount() override { sm_.handleRxAssert(); }

    private:
        AssertWcSm& sm_;
    };
    class DataWatcher : public Routing::Pim::MrtMessageInfo::Notifiee {
    public:
        explicit DataWatcher(AssertWcSm& sm) : sm_(sm) {}
        void handleWcRxCount() override { sm_.handleRxData(); }

    private:
        AssertWcSm& sm_;
    };

    RxWatcher rxWatcher_{*this};
    DataWatcher dataWatcher_{*this};
};

Cask::Ptr<AssertWcSm> assertWcSmFactory(const VrfContext& ctx);

}  // namespace Routing::Pim::SparseMode
