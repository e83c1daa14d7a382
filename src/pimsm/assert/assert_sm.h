#pragma once
// AssertSm: what the (S,G) and (*,G) assert machines of a VRF (RFC 7761 4.6.1, 4.6.2) have in
// common. Each keeps, per (route, interface), the assert state (assertNoInfo, iAmAssertWinner,
// iAmAssertLoser) with the winner's metric in Intf::assertInfo, the number of the last action
// taken in Intf::lastAssertAction (both written only here, each machine on the routes of its
// kind), the loser's assert timer, and the per-interface winner bookkeeping in the VRF's
// AssertStatus (periodic winners, triggered winner asserts, AssertCancels), which the assert
// plumbing turns into messages.
//
// The derived machines supply the RFC predicates of their kind (CouldAssert,
// AssertTrackingDesired, my metric, the metric comparisons) and their message handling; this
// class supplies the reactors, the actions that both tables share (A2, A4, A5), the state-only
// transitions, the loser timer, EDGE5 / EDGE8 / EDGE9 and the clean-up when an interface or a
// route goes.
//
// Watches: LocalStatus routes of its kind (only to find the reactors of routes that go), the
//          routes with assert state (flags, RPF, interfaces, change flags), PIM interfaces
//          (deletion), PIM neighbours (loss and generation ID: EDGE5), received Join entries
//          (EDGE9).
// Writes:  Intf::assertInfo, lastAssertAction, rxPreferredAssert, rxInferiorAssert; the
//          interface's IntfStatus in AssertStatus.
//
// Cost: a route that never sees an assert costs nothing here. A route reactor (RhoRoute) exists
// only while some interface of the route is assert winner or loser, and an interface reactor
// (RhoIntf, with its timer slot) only on such an interface; both go when the state returns to
// assertNoInfo.

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "cask/collection.h"
#include "cask/reactor_map.h"
#include "pimsm/common/intf_state_sm.h"
#include "pimsm/common/join_prune_rx_watcher.h"
#include "pimsm/common/vrf_context.h"
#include "pimsm/route/local_status.h"
#include "pimsm/route/route.h"
#include "platform/assert_status.h"
#include "platform/join_prune.h"
#include "platform/pim_status.h"

namespace Routing::Pim::SparseMode {

// A metric in a state-change trace line: formatted only when the line is written, so that an
// action costs no string while tracing is off.
struct MetricText {
    const AssertMetric& metric;
};

// A received Assert as the machines compare it: its (S,G), the metric it offers (the sender's
// address as the metric's address) and where it arrived.
struct RxAssert {
    Routing::Pim::RouteKey key;  // source unspecified for an Assert(*,G)
    AssertMetric metric;
    Wirl::IntfId intf;
};

class AssertSm : public Cask::Record<AssertSm>, public LocalStatus::Notifiee {
public:
    class Notifiee : public Cask::NotifieeOf<AssertSm> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleIgnoredRxAsserts() {}
    };

    class RhoRoute;

    // One interface of a route while it is assert winner or loser.
    class RhoIntf : public IntfStateSm<RhoIntf, AssertState> {
    public:
        RhoIntf(RhoRoute& route, Intf& intf);

        Wirl::IntfId reactorKey() const { return intf_->intfId(); }
        const Intf* reactorRecord() const { return intf_.get(); }
        Intf& intf() const { return *intf_; }
        RhoRoute& routeSm() const { return route_; }

        // Moves to `next`, writing `winner` as the winner metric in the same write.
        template <class... Texts>
        bool doChangeAssertState(AssertState next, const AssertMetric& winner,
                                 const Texts&... texts) {
            pending_ = winner;
            return doChangeState(next, texts...);
        }
        // (Re)arms the loser timer at now + Assert_Time of the interface; never without one.
        void resetAssertLoserTimer();
        void clearAssertLoserTimer() { doStopTimer(IntfTimer::expiry); }

    private:
        friend class IntfStateSm<RhoIntf, AssertState>;
        AssertState intfState() const { return intf_->assertInfo().assertState; }
        void intfStateIs(AssertState s) { intf_->assertInfoIs(AssertInfo{s, pending_}); }
        static const char* stateName(AssertState s) { return enumName(s); }
        void doLeaveState(AssertState old);
        void doEnterState(AssertState next);
        void handleExpiryTimer();
        void handlePrunePendingTimer() {}
        Cask::EventLoop& loop() const;
        const L3::VrfName& vrfName() const;

        RhoRoute& route_;
        Cask::Ptr<Intf> intf_;
        AssertMetric pending_;
    };
    using IntfMap = Cask::ReactorMap<Wirl::IntfId, RhoIntf, Cask::SmallIndex>;

    // One route with assert state on some interface.
    class RhoRoute : public RouteReactor {
    public:
        RhoRoute(AssertSm& sm, Route& route);
        ~RhoRoute() override;

        Route& route() const { return *notifier(); }
        AssertSm& sm() const { return sm_; }
        RhoIntf* rhoIntf(Wirl::IntfId intf) const { return intf_.get(intf); }
        RhoIntf& rhoIntfIs(Intf& intf);
        const IntfMap& intfMap() const { return intf_; }
        // Interfaces with a reactor, in no particular order.
        std::vector<Wirl::IntfId> intfIds() const;

        void handleRouteFlags() override;
        void handleChangeFlags() override;
        void handleRouteIntf(Wirl::IntfId intf) override;
        void handleIntfAttr(Intf& intf, IntfAttr attr) override;
        void handleUmhAttr(UpstreamInfo& umh, UmhAttr attr) override;
        // The route left its collection: every interface is deleted.
        void handleDelete();
        // Drops the reactors of interfaces back in assertNoInfo.
        void doReleaseIdle();
        // The RPF interface moved from `oldIntf` to `newIntf` (EDGE8).
        void handleRpfAssert(Wirl::IntfId oldIntf, Wirl::IntfId newIntf);

    private:
        AssertSm& sm_;
        IntfMap intf_;
        // The RPF interface last seen, to tell which interface an RPF change left.
        Wirl::IntfId rpfIntf_;
    };

    ~AssertSm() override;

    const VrfContext& ctx() const { return in_; }
    const L3::VrfName& vrfName() const { return in_.vrfName; }
    // "AssertSgSm" or "AssertWcSm", for traces.
    const char* name() const { return name_; }
    bool wc() const { return wc_; }

    CASK_COUNTER(std::uint32_t, ignoredRxAsserts, IgnoredRxAsserts)

    RhoRoute* rhoRoute(const Routing::Pim::RouteKey& key) const { return route_.get(key); }
    const Cask::ReactorMap<Routing::Pim::RouteKey, RhoRoute>& routeMap() const { return route_; }

    // --- what the machine of each kind supplies -------------------------------------------
    virtual bool couldAssert(const Intf& i) const = 0;
    virtual bool assertTrackingDesired(const Intf& i) const = 0;
    // The metric this router asserts with while winner, and the one it compares with.
    virtual AssertMetric winnerMetricOf(const Intf& i) const = 0;
    virtual AssertMetric myMetric(const Intf& i) const = 0;
    // The RPF interface of the route's kind: RPF_interface(S) or RPF_interface(RP(G)).
    virtual Wirl::IntfId rpfIntfOf(const Route& r) const = 0;
    // Whether a received Join entry concerns this machine's kind.
    virtual bool joinEntryOfKind(const Routing::Pim::JoinPruneMessageInfo& m) const = 0;
    virtual Routing::Pim::RouteKey joinEntryKey(
        const Routing::Pim::JoinPruneMessageInfo& m) const = 0;

    // --- shared handlers ------------------------------------------------------------------
    void handleInitialized();
    void handleRxJoin();
    void handlePimIntf(Wirl::IntfId intf);
    void handlePimIntfDeleted(Wirl::IntfId intf);
    // The state-only transitions of one interface.
    void doMaybeChangeAssertState(RhoIntf& rho);
    void doMaybeChangeAssertStateAll(RhoRoute& rr);
    // EDGE5: a PIM neighbour went; where it was the winner, the loser state ends.
    void handleActiveNeighbor(const Routing::Pim::NeighborKey& nbr);
    // EDGE5: a PIM neighbour restarted (its generation ID changed); where it was the winner,
    // the loser state ends as for a winner that went, on any interface (the route review only
    // flags a restart of a route's RPF neighbour).
    void handleNeighborGenId(const Routing::Pim::NeighborKey& nbr);

    // --- actions --------------------------------------------------------------------------
    // A1: assertNoInfo -> winner with `metric`; `trigger` is the key the immediate Assert names.
    void doA1(RhoIntf& rho, const Routing::Pim::RouteKey& trigger, const char* label);
    void doA2(RhoIntf& rho, const AssertMetric& rx, const char* label);
    void doA3(RhoIntf& rho, const Routing::Pim::RouteKey& trigger, const char* label);
    void doA4(RhoIntf& rho, const char* label);
    void doA5(RhoIntf& rho, const char* label);

    // Winner bookkeeping: the winner metric kept current, the key among the periodic winners
    // and one triggered Assert for `trigger`.
    void doMaybeUpdateAssertWinner(RhoIntf& rho, const Routing::Pim::RouteKey& trigger);
    Routing::Pim::IntfStatus& doGetAssertIntfStatus(Wirl::IntfId intf);
    // Lists `key` among the periodic winners of `intf`, dropping an AssertCancel still waiting
    // for it; returns the interface's record.
    Routing::Pim::IntfStatus& doListWinner(const Routing::Pim::RouteKey& key, Wirl::IntfId intf);
    void doWinnerCancel(const Routing::Pim::RouteKey& key, Wirl::IntfId intf, bool cancel);

    // The reactor of (route, interface), with its route reactor, created when absent.
    RhoIntf& rhoIntfIs(Route& route, Intf& intf);

protected:
    AssertSm(const VrfContext& ctx, bool wc, const char* name);

    // A route reactor was created (`added`) or removed.
    virtual void handleRouteReactor(const Routing::Pim::RouteKey& /*key*/, bool /*added*/) {}

    // Brings the route reactor of `key` in step with the route collection: a route that went
    // loses its reactor (with the interfaces' clean-up); a new route that carries assert state
    // (taken over) gets one.
    void handleRoute(const Routing::Pim::RouteKey& key, Route* route);

    // Every entry point holds one: the reactors left idle by what it did are released when the
    // outermost one ends, so that no reactor is destroyed under a handler still running on it.
    class Busy {
    public:
        explicit Busy(AssertSm& sm) : sm_(sm) { ++sm_.depth_; }
        ~Busy();
        Busy(const Busy&) = delete;
        Busy& operator=(const Busy&) = delete;

    private:
        AssertSm& sm_;
    };
    friend class Busy;
    void doMarkIdle(const Routing::Pim::RouteKey& key) { idle_.push_back(key); }

    const VrfContext& in_;

private:
    class PimWatcher : public Routing::Pim::Status::Notifiee {
    public:
        explicit PimWatcher(AssertSm& sm) : sm_(sm) {}
        void handleIntf(Wirl::IntfId intf) override { sm_.handlePimIntf(intf); }
        void handleActiveNeighbor(const Routing::Pim::NeighborKey& nbr) override {
            sm_.handleActiveNeighbor(nbr);
        }

    private:
        AssertSm& sm_;
    };

    // The neighbours of one PIM interface, each watched for a new generation ID.
    class PimIntfWatcher;
    // Keeps the watcher of `intf` in step with its PIM interface record.
    void doWatchPimIntf(Wirl::IntfId intf);
    // A5 (EDGE5) on every loser of `nbr.intf` whose winner is `nbr.address`.
    void doEndLosersTo(const Routing::Pim::NeighborKey& nbr, const char* handler, const char* why);

    void doReleaseIdle();

    bool wc_;
    const char* name_;
    std::uint32_t ignoredRxAsserts_ = 0;
    int depth_ = 0;
    std::vector<Routing::Pim::RouteKey> idle_;
    PimWatcher pimWatcher_{*this};
    std::map<Wirl::IntfId, std::unique_ptr<PimIntfWatcher>> pimIntfWatcher_;
    JoinPruneRxWatcher<AssertSm> rxWatcher_{*this, {.join = &AssertSm::handleRxJoin}};
    Cask::ReactorMap<Routing::Pim::RouteKey, RhoRoute> route_;
};

}  // namespace Routing::Pim::SparseMode

template <>
struct fmt::formatter<Routing::Pim::SparseMode::MetricText> : fmt::formatter<std::string> {
    auto format(const Routing::Pim::SparseMode::MetricText& t, fmt::format_context& ctx) const {
        return fmt::formatter<std::string>::format(t.metric.str(), ctx);
    }
};
