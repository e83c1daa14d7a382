#pragma once
// DownstreamSgRptSm: the downstream (S,G,rpt) prune state of one VRF (RFC 7761 4.5.3). Per (S,G)
// route and interface it keeps what downstream routers ask with Prune(S,G,rpt) entries: the
// interface's `rptState` (rptNoInfo, rptPrunePending, rptPruned) with its prune-pending and
// expiry timers. `prunesSgRpt` and inherited_olist(S,G,rpt) of the route follow from it.
// Watches: whole received Join/Prune messages, LocalStatus.sgRoute (only for routes that carry
//          (S,G,rpt) state here), those routes' interfaces, Routing::Pim::Status.outputClogged.
// Writes:  Intf::rptState and lastRptPruneReceived of (S,G) routes (their only writer); (S,G)
//          routes and their Intf records when a Prune(S,G,rpt) names one that does not exist.
//
// Received messages are queued (`rxJoinPruneInfo`) and worked through by a sliced review, one
// entry at a time: the message, then per group its start (the (*,G) Join), its Join(S,G,rpt)
// and Prune(S,G,rpt) sources and its end. The bookmark (group, interface, step, source) lets a
// slice resume at the exact entry; while the output is congested no slice runs.
//
// A Join(*,G) does not clear the group's pruned interfaces at once: it marks them (RFC 7761's
// PruneTmp and Prune-Pending-Tmp), a Prune(S,G,rpt) later in the same group entry takes the mark
// back, and only the interfaces still marked at the group's end go to rptNoInfo. The marks live
// in the review, not in the Intf, so the usual periodic "Join(*,G) + Prune(S,G,rpt)" never makes
// a pruned interface flap, even when a slice ends inside the group.
//
// Memory: most (S,G) routes never see a Prune(S,G,rpt), so a route has a reactor here only while
// one of its interfaces is out of rptNoInfo; the per-interface reactor exists only then too.

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <vector>

#include "cask/collection.h"
#include "cask/queue.h"
#include "cask/reactor_map.h"
#include "cask/sliced_review.h"
#include "cask/timer.h"
#include "pimsm/common/intf_state_sm.h"
#include "pimsm/common/join_prune_rx_watcher.h"
#include "pimsm/common/vrf_context.h"
#include "pimsm/route/local_status.h"
#include "pimsm/route/route.h"
#include "platform/join_prune.h"
#include "platform/pim_status.h"
#include "wirl/vrf_name.h"

namespace Routing::Pim::SparseMode {

// One received Join/Prune message waiting for review. Its contents are shared with the packet
// side and never changed; the groups are listed once, in order, for the review's walk.
struct RxJoinPruneInfo {
    Wirl::IntfId intf;
    Wirl::IpGenAddr sender;
    Wirl::IpGenAddr upstreamNeighbor;
    std::uint16_t holdTime = 0;
    Cask::Ptr<Routing::Pim::JoinPruneData> data;
    std::vector<const Routing::Pim::JoinPruneGroupData*> groups;

    explicit RxJoinPruneInfo(const Routing::Pim::JoinPruneMessage& m);
};

// Where the review of a message stands. Within a message the interface is fixed; the group's
// entries come in step order: start, Join(S,G,rpt) sources, Prune(S,G,rpt) sources, end.
struct RptReviewKey {
    enum class Step : std::uint8_t { message, groupStart, rptJoin, rptPrune, groupEnd };
    Wirl::IpGenAddr group;
    Wirl::IntfId intf;
    Step step = Step::message;
    Wirl::IpGenAddr source;
    bool operator==(const RptReviewKey&) const = default;
    std::strong_ordering operator<=>(const RptReviewKey&) const = default;
};

class DownstreamSgRptSm : public Cask::Record<DownstreamSgRptSm>, public LocalStatus::Notifiee {
public:
    class Notifiee : public Cask::NotifieeOf<DownstreamSgRptSm> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleRxJoinPruneInfo() {}
        virtual void handleIgnoredNonNeighbor() {}
        virtual void handleIgnoredNotAddressed() {}
        virtual void handleIgnoredSsmGroup() {}
        virtual void handleIgnoredBidirGroup() {}
        virtual void handleInitialized() {}
    };

    static constexpr Cask::Seconds defaultReviewQuantum = 0.1;
    static constexpr Cask::Seconds reviewMinDelay = 0.01;
    static constexpr Cask::Seconds reviewMaxDelay = 0.05;
    // A hold time of 0xffff seconds means "forever" (RFC 7761 4.9.5.1).
    static constexpr std::uint16_t holdTimeForever = 0xffff;
    // After a restart the expiry of a pruned interface is re-armed at now + restartBase +
    // randomDelay(restartJitter): the default J/P hold time, within which a downstream router
    // that still wants the prune repeats it.
    static constexpr Cask::Seconds restartBase = 210;
    static constexpr Cask::Seconds restartJitter = 10;

    class RhoRoute;

    // One interface of a route out of rptNoInfo, with its two timers.
    class RhoIntf : public IntfStateSm<RhoIntf, RptState> {
    public:
        RhoIntf(RhoRoute& route, Intf& intf);
        Wirl::IntfId reactorKey() const { return intf_->intfId(); }
        const Intf* reactorRecord() const { return intf_.get(); }
        Intf& intf() const { return *intf_; }

        // IntfStateSm hooks.
        RptState intfState() const { return intf_->rptState(); }
        void intfStateIs(RptState s) { intf_->rptStateIs(s); }
        static const char* stateName(RptState s) { return enumName(s); }
        void doLeaveState(RptState old);
        void doEnterState(RptState next);
        void handleExpiryTimer();
        void handlePrunePendingTimer();
        Cask::EventLoop& loop() const;
        const L3::VrfName& vrfName() const;

        // A Prune(S,G,rpt) with `holdTime` arrived: the expiry moves to the later of its
        // deadline and now + holdTime.
        void tweakExpiryTimer(std::uint16_t holdTime);
        // Re-arms the timers of a state found without them (after a restart).
        void handleInitialized();

    private:
        RhoRoute& route_;
        Cask::Ptr<Intf> intf_;
    };

    // One (S,G) route with (S,G,rpt) state here; hears the route's interfaces.
    class RhoRoute : public RouteReactor {
    public:
        RhoRoute(DownstreamSgRptSm& sm, Route& route) : RouteReactor(route), sm_(sm) {}
        Route& route() const { return *notifier(); }
        DownstreamSgRptSm& sm() const { return sm_; }
        void handleRouteIntf(Wirl::IntfId intf) override;
        // The interface's reactor, created when absent.
        RhoIntf& rhoIntfIs(Intf& intf);
        RhoIntf* rhoIntf(Wirl::IntfId intf) const { return intf_.get(intf); }
        std::size_t rhoIntfSize() const { return intf_.size(); }
        // Drops the interface reactors in rptNoInfo with no timer running.
        void doReleaseIdle();

    private:
        DownstreamSgRptSm& sm_;
        Cask::ReactorMap<Wirl::IntfId, RhoIntf, Cask::SmallIndex> intf_;
    };

    // Reads from the context: loop, config, status, localStatus, ssmGroupInfo,
    // groupFilterStatus, pimStatus (required); joinPruneRxStatus (absent: no messages).
    explicit DownstreamSgRptSm(const VrfContext& ctx);
    ~DownstreamSgRptSm() override;

    const L3::VrfName& vrfName() const { return in_.vrfName; }
    const VrfContext& inputs() const { return in_; }

    // Received messages waiting for review, the front one under review.
    CASK_QUEUE(rxJoinPruneInfo, RxJoinPruneInfo, RxJoinPruneInfo)
    // Messages ignored: from a sender that is not an active neighbour, addressed to another
    // router; groups ignored: in the SSM range, refused by the group filter.
    CASK_COUNTER(std::uint32_t, ignoredNonNeighbor, IgnoredNonNeighbor)
    CASK_COUNTER(std::uint32_t, ignoredNotAddressed, IgnoredNotAddressed)
    CASK_COUNTER(std::uint32_t, ignoredSsmGroup, IgnoredSsmGroup)
    CASK_COUNTER(std::uint32_t, ignoredBidirGroup, IgnoredBidirGroup)
    CASK_ATTR(bool, initialized, Initialized)

    // Start-up: the review, the watchers, and the routes already carrying (S,G,rpt) state.
    void handleInit();
    // A whole message arrived: queue it.
    void handleRxMessage();
    // Schedules a review unless one is running or due.
    void doUpdateReviewTimer();
    void handleOutputClogged();
    void handleSgRoute(const Routing::Pim::RouteKey& key) override;

    // The review's visitor and its steps.
    void doReview(const RptReviewKey& item);
    void doReviewJoinPruneInfo(const RxJoinPruneInfo& m);
    void doReviewJoinPruneGroupData(const RxJoinPruneInfo& m,
                                    const Routing::Pim::JoinPruneGroupData& g);
    void doReviewRxJoin(const RxJoinPruneInfo& m, const Routing::Pim::RouteKey& key);
    void doReviewRxPrune(const RxJoinPruneInfo& m, const Routing::Pim::RouteKey& key,
                         bool wcJoinReceived);
    void doReviewGroupEnd(const RxJoinPruneInfo& m, const Wirl::IpGenAddr& group);

    bool groupPermitted(const Wirl::IpGenAddr& group) const;

    const Cask::SlicedReview<RptReviewKey>& review() const { return *review_; }
    const RptReviewKey& reviewBookmark() const { return review_->bookmark(); }
    Cask::Seconds reviewQuantum() const { return review_->quantum(); }
    void reviewQuantumIs(Cask::Seconds q) { review_->quantumIs(q); }
    void reviewItemsPerSliceIs(std::size_t n) { review_->itemsPerSliceIs(n); }
    // Sources of the group under review whose Pruned / PrunePending state a Join(*,G) marked.
    const std::set<Wirl::IpGenAddr>& reviewMarks() const { return marks_; }

    RhoRoute* rhoRoute(const Routing::Pim::RouteKey& key) const { return route_.get(key); }
    const Cask::ReactorMap<Routing::Pim::RouteKey, RhoRoute>& routeMap() const { return route_; }
    // Asks for the idle reactors of the route to be dropped, once the turn's handlers are done.
    void doScheduleRelease(const Routing::Pim::RouteKey& key);

private:
    class PimWatcher;

    std::optional<RptReviewKey> firstItem(const std::optional<RptReviewKey>& from);
    std::optional<RptReviewKey> nextItem(const RptReviewKey& done);
    // The entry after `done` in the front message, if any.
    std::optional<RptReviewKey> nextInMessage(const RxJoinPruneInfo& m,
                                              const RptReviewKey& done) const;
    std::optional<RptReviewKey> groupFrom(const RxJoinPruneInfo& m, std::size_t index) const;
    void doReleaseIdle();

    const VrfContext& in_;
    Cask::Queue<RxJoinPruneInfo> rxJoinPruneInfo_;
    std::uint32_t ignoredNonNeighbor_ = 0;
    std::uint32_t ignoredNotAddressed_ = 0;
    std::uint32_t ignoredSsmGroup_ = 0;
    std::uint32_t ignoredBidirGroup_ = 0;
    bool initialized_ = false;

    // Review state of the front message: dropped as a whole, the group being skipped, the
    // group's Join(*,G) and its marks.
    bool reviewDropped_ = false;
    std::optional<Wirl::IpGenAddr> skippedGroup_;
    bool wcJoinReceived_ = false;
    std::set<Wirl::IpGenAddr> marks_;

    std::unique_ptr<Cask::SlicedReview<RptReviewKey>> review_;
    // Only whole messages: the single entries announced after them are the same message.
    JoinPruneRxWatcher<DownstreamSgRptSm> rxWatcher_{
        *this, {.message = &DownstreamSgRptSm::handleRxMessage}};
    std::unique_ptr<PimWatcher> pimWatcher_;
    Cask::ReactorMap<Routing::Pim::RouteKey, RhoRoute> route_;
    std::vector<Routing::Pim::RouteKey> releaseKeys_;
    Cask::Timer releaseTimer_;
};

// Creates the VRF's DownstreamSgRptSm and starts it (`handleInitialized`).
Cask::Ptr<DownstreamSgRptSm> downstreamSgRptSmFactory(const VrfContext& ctx);

}  // namespace Routing::Pim::SparseMode

template <>
struct fmt::formatter<Routing::Pim::SparseMode::RptReviewKey> : fmt::formatter<std::string_view> {
    template <class Ctx>
    auto format(const Routing::Pim::SparseMode::RptReviewKey& k, Ctx& ctx) const {
        return fmt::format_to(ctx.out(), "({}, {}, {})", k.group, k.intf, k.source);
    }
};
