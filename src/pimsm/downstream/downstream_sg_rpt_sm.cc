#include "pimsm/downstream/downstream_sg_rpt_sm.h"

#include <algorithm>

#include "cask/assert.h"
#include "cask/trace.h"
#include "pimsm/common/pimsm_common_utils.h"
#include "pimsm/common/vrf_inputs.h"
#include "pimsm/route/status.h"
#include "platform/group_ranges.h"
#include "wirl/ip_gen_prefix.h"

namespace Routing::Pim::SparseMode {

using Routing::Pim::JoinPruneGroupData;
using Routing::Pim::RouteKey;
using Step = RptReviewKey::Step;

RxJoinPruneInfo::RxJoinPruneInfo(const Routing::Pim::JoinPruneMessage& m)
    : intf(m.intf),
      sender(m.sender),
      upstreamNeighbor(m.upstreamNeighbor),
      holdTime(m.holdTime),
      data(m.data),
      groups(m.data ? m.data->groupsInOrder() : std::vector<const JoinPruneGroupData*>{}) {}

// --- watchers ----------------------------------------------------------------

class DownstreamSgRptSm::PimWatcher : public Routing::Pim::Status::Notifiee {
public:
    PimWatcher(DownstreamSgRptSm& sm, Routing::Pim::Status& pim) : sm_(sm) { notifierIs(&pim); }
    void handleOutputClogged() override { sm_.handleOutputClogged(); }

private:
    DownstreamSgRptSm& sm_;
};

// --- RhoIntf -----------------------------------------------------------------

DownstreamSgRptSm::RhoIntf::RhoIntf(RhoRoute& route, Intf& intf) : route_(route), intf_(&intf) {}

Cask::EventLoop& DownstreamSgRptSm::RhoIntf::loop() const {
    return *route_.sm().inputs().loop;
}

const L3::VrfName& DownstreamSgRptSm::RhoIntf::vrfName() const {
    return route_.sm().vrfName();
}

void DownstreamSgRptSm::RhoIntf::doLeaveState(RptState old) {
    if (old == RptState::rptPrunePending) doStopTimer(IntfTimer::prunePending);
}

void DownstreamSgRptSm::RhoIntf::doEnterState(RptState next) {
    const RouteKey& key = route_.route().key();
    const Wirl::IntfId id = intf_->intfId();
    switch (next) {
        case RptState::rptPrunePending: {
            // RFC 7761 4.5.3: the Prune-Pending time lets another router on the LAN override the
            // prune with a Join(S,G,rpt). With only one PIM neighbour on the interface nobody
            // can, so the time is zero and the prune takes effect at once.
            const Routing::Pim::PimIntfStatus* pim = intf_->pimIntf();
            const std::size_t neighbors = pim ? pim->neighborSize() : 0;
            const Cask::Seconds override =
                pim && neighbors > 1 ? pim->usedJoinPruneOverrideIntervalInSeconds() : 0;
            CASK_VRF_TRACE(7, vrfName(),
                           "DownstreamSgRptSm::RhoIntf::handleRptState{}: Intf: {}, J/P Override "
                           "Interval: {} seconds, neighbors: {}",
                           key, id, override, neighbors);
            if (override > 0) {
                doArmTimer(IntfTimer::prunePending, loop().now() + override);
            } else {
                doChangeState(RptState::rptPruned,
                              eventText("DownstreamSgRptSm: Prune pending timer expired for intf "
                                        "{} on route {}, rptPruneState: ",
                                        id, key));
            }
            break;
        }
        case RptState::rptNoInfo:
            doStopTimer(IntfTimer::prunePending);
            doStopTimer(IntfTimer::expiry);
            route_.sm().doScheduleRelease(key);
            break;
        default:
            break;
    }
}

void DownstreamSgRptSm::RhoIntf::handlePrunePendingTimer() {
    doChangeState(RptState::rptPruned,
                  eventText("DownstreamSgRptSm: Prune pending timer expired for intf {} on route "
                            "{}, rptPruneState: ",
                            intf_->intfId(), route_.route().key()));
}

void DownstreamSgRptSm::RhoIntf::handleExpiryTimer() {
    doChangeState(RptState::rptNoInfo,
                  traceText(6, "Expiry timer expired, downstream rptPrune state "),
                  eventText("DownstreamSgRptSm: Expiry timer expired for intf {} on route {}, "
                            "rptPruneState: ",
                            intf_->intfId(), route_.route().key()));
}

void DownstreamSgRptSm::RhoIntf::tweakExpiryTimer(std::uint16_t holdTime) {
    // RFC 7761 4.5.3: the Expiry Timer is set to the later of its deadline and now + the
    // message's hold time. It is exact: the jitter is only reported.
    const Cask::Seconds jitter = randomDelay(holdTime);
    CASK_VRF_TRACE(7, vrfName(),
                   "DownstreamSgRptSm::RhoIntf::tweakExpiryTimer{} {}: Reset expiry timer, "
                   "holdtime: {}, jitter: {}",
                   route_.route().key(), intf_->intfId(), holdTime, jitter);
    // In Pruned and PrunePending a stopped expiry timer stands for a hold time of "forever".
    if (!timerArmed(IntfTimer::expiry)) return;
    const Cask::Seconds want =
        holdTime == holdTimeForever ? Cask::never : loop().now() + Cask::Seconds(holdTime);
    if (want > timerDeadline(IntfTimer::expiry)) doArmTimer(IntfTimer::expiry, want);
}

void DownstreamSgRptSm::RhoIntf::handleInitialized() {
    const RouteKey& key = route_.route().key();
    const Wirl::IntfId id = intf_->intfId();
    const L3::VrfName& vrf = vrfName();
    switch (intfState()) {
        case RptState::rptPruned: {
            const Cask::Seconds jitter =
                doRestartTimer(IntfTimer::expiry, restartBase, restartJitter);
            CASK_VRF_TRACE(7, vrf,
                           "DownstreamSgRptSm::RhoIntf::handleInitialized{} {}: RptPruned , "
                           "jitter: {}",
                           key, id, jitter);
            break;
        }
        case RptState::rptPrunePending: {
            const Routing::Pim::PimIntfStatus* pim = intf_->pimIntf();
            const Cask::Seconds override =
                pim && pim->neighborSize() > 1 ? pim->usedJoinPruneOverrideIntervalInSeconds() : 0;
            doArmTimer(IntfTimer::prunePending, loop().now() + override);
            const Cask::Seconds jitter =
                doRestartTimer(IntfTimer::expiry, restartBase, restartJitter);
            CASK_VRF_TRACE(7, vrf,
                           "DownstreamSgRptSm::RhoIntf::handleInitialized{} {}: PrunePending , "
                           "jitter: {}",
                           key, id, jitter);
            break;
        }
        default:
            CASK_VRF_TRACE(7, vrf, "DownstreamSgRptSm::RhoIntf::handleInitialized{} {}: NoInfo ",
                           key, id);
            doStopTimer(IntfTimer::prunePending);
            doStopTimer(IntfTimer::expiry);
            route_.sm().doScheduleRelease(key);
            break;
    }
}

// --- RhoRoute ----------------------------------------------------------------

void DownstreamSgRptSm::RhoRoute::handleRouteIntf(Wirl::IntfId id) {
    RhoIntf* rho = intf_.get(id);
    if (!rho || route().routeIntfRaw(id) == rho->reactorRecord()) return;
    // The interface record went (the interface is gone): its state went with it.
    rho->doStopTimer(IntfTimer::prunePending);
    rho->doStopTimer(IntfTimer::expiry);
    sm_.doScheduleRelease(route().key());
}

DownstreamSgRptSm::RhoIntf& DownstreamSgRptSm::RhoRoute::rhoIntfIs(Intf& intf) {
    if (RhoIntf* rho = intf_.get(intf.intfId())) {
        if (rho->reactorRecord() == &intf) return *rho;
    }
    return *intf_.update(intf.intfId(), &intf, *this);
}

void DownstreamSgRptSm::RhoRoute::doReleaseIdle() {
    std::vector<RhoIntf*> all;
    intf_.forEach([&](RhoIntf* r) { all.push_back(r); });
    for (RhoIntf* rho : all) {
        const bool gone = route().routeIntfRaw(rho->reactorKey()) != rho->reactorRecord();
        const bool idle = rho->intfState() == RptState::rptNoInfo &&
                          !rho->timerArmed(IntfTimer::expiry) &&
                          !rho->timerArmed(IntfTimer::prunePending);
        if (gone || idle) intf_.del(rho->reactorKey());
    }
}

// --- DownstreamSgRptSm -------------------------------------------------------

DownstreamSgRptSm::DownstreamSgRptSm(const VrfContext& in)
    : in_(requireInputs(in, "DownstreamSgRptSm", &VrfContext::loop, &VrfContext::config,
                        &VrfContext::status, &VrfContext::localStatus, &VrfContext::ssmGroupInfo,
                        &VrfContext::groupFilterStatus, &VrfContext::pimStatus)),
      releaseTimer_(*in.loop, [this] { doReleaseIdle(); }) {
    route_.reserve(in_.routeCapacity);
}

DownstreamSgRptSm::~DownstreamSgRptSm() {
    rxWatcher_.watch(nullptr);
    pimWatcher_.reset();
    notifierIs(nullptr);
    route_.clear();
}

void DownstreamSgRptSm::handleInit() {
    CASK_VRF_TRACE(6, vrfName(), "DownstreamSgRptSm::handleInit()");
    Cask::SlicedReview<RptReviewKey>::Steps steps;
    steps.walk.first = [this](const std::optional<RptReviewKey>& from) { return firstItem(from); };
    steps.walk.next = [this](const RptReviewKey& done) { return nextItem(done); };
    steps.visit = [this](const RptReviewKey& item) { doReview(item); };
    steps.onSlice = [this](Cask::Seconds, Cask::Seconds) {
        const RptReviewKey& at = review_->bookmark();
        if (at.step != Step::message) {
            CASK_VRF_TRACE(7, vrfName(),
                           "DownstreamSgRptSm::doReviewJoinPruneInfo: Resuming review at group {}, "
                           "interface: {}",
                           at.group, at.intf);
        }
        CASK_VRF_TRACE(8, vrfName(), "DownstreamSgRptSm::doReviewJoinPruneInfo: reviewQ {}",
                       rxJoinPruneInfo_.size());
    };
    Cask::ReviewTexts texts{.vrf = fmt::to_string(vrfName()), .name = "DownstreamSgRptSm: "};
    texts.resume = "Resuming new review";
    texts.suspend = "Suspending new review";
    review_ = std::make_unique<Cask::SlicedReview<RptReviewKey>>(
        *in_.loop, Cask::ReviewTiming{reviewMinDelay, reviewMaxDelay}, std::move(texts),
        std::move(steps));
    review_->quantumIs(defaultReviewQuantum);
    pimWatcher_ = std::make_unique<PimWatcher>(*this, *in_.pimStatus);
    review_->heldIs(in_.pimStatus->outputClogged());
    rxWatcher_.watch(in_.joinPruneRxStatus);
    notifierIs(in_.localStatus);
    Cask::ReactorMap<RouteKey, RhoRoute>::sweep(in_.localStatus->sgRoute(),
                                                [this](const RouteKey& k) { handleSgRoute(k); });
    initializedIs(true);
}

bool DownstreamSgRptSm::groupPermitted(const Wirl::IpGenAddr& group) const {
    return in_.groupFilterStatus->permitGroup(Wirl::IpGenPrefix::hostPrefix(group));
}

void DownstreamSgRptSm::handleRxMessage() {
    const Routing::Pim::JoinPruneMessage& m = in_.joinPruneRxStatus->joinPruneMessage();
    CASK_VRF_TRACE(6, vrfName(), "DownstreamSgRptSm::handleRxMessage(): from {} on {}", m.sender,
                   m.intf);
    rxJoinPruneInfoPush(RxJoinPruneInfo(m));
    doUpdateReviewTimer();
}

void DownstreamSgRptSm::doUpdateReviewTimer() {
    // A review under way reaches every message queued behind the one it works on.
    if (review_->inProgress() || review_->pending() || rxJoinPruneInfo_.empty()) return;
    review_->request();
}

void DownstreamSgRptSm::handleOutputClogged() {
    const bool clogged = in_.pimStatus->outputClogged();
    CASK_VRF_TRACE(6, vrfName(), "DownstreamSgRptSm::handleOutputClogged(): {}", clogged);
    review_->heldIs(clogged);
}

void DownstreamSgRptSm::handleSgRoute(const RouteKey& key) {
    Route* route = in_.localStatus->sgRoute().raw(key);
    RhoRoute* old = route_.get(key);
    if (old && route && &old->route() == route) return;
    if (old) route_.del(key);
    if (!route) return;
    // A route that comes with (S,G,rpt) state (handed over by a restart, say) gets its timers.
    std::vector<Intf*> pruned;
    for (const auto& [id, intf] : route->routeIntf()) {
        if (intf->rptState() != RptState::rptNoInfo) pruned.push_back(intf.get());
    }
    if (pruned.empty()) return;
    RhoRoute* rho = route_.update(key, route, *this);
    for (Intf* intf : pruned) rho->rhoIntfIs(*intf).handleInitialized();
}

void DownstreamSgRptSm::doScheduleRelease(const RouteKey& key) {
    if (std::find(releaseKeys_.begin(), releaseKeys_.end(), key) == releaseKeys_.end()) {
        releaseKeys_.push_back(key);
    }
    // Never from inside a reactor's own handler: after the turn's handlers are done.
    if (!releaseTimer_.armed()) releaseTimer_.timeMinIs(in_.loop->now());
}

void DownstreamSgRptSm::doReleaseIdle() {
    std::vector<RouteKey> keys;
    keys.swap(releaseKeys_);
    for (const RouteKey& k : keys) {
        RhoRoute* rho = route_.get(k);
        if (!rho) continue;
        rho->doReleaseIdle();
        if (rho->rhoIntfSize() == 0) route_.del(k);
    }
}

// --- the review's walk ---------------------------------------------------------

std::optional<RptReviewKey> DownstreamSgRptSm::firstItem(const std::optional<RptReviewKey>& from) {
    if (rxJoinPruneInfo_.empty()) return std::nullopt;
    // A bookmark is always an entry of the front message: the walk pops a message only when
    // it moves on to the next.
    if (from) return *from;
    return RptReviewKey{{}, rxJoinPruneInfo_.front().intf, Step::message, {}};
}

std::optional<RptReviewKey> DownstreamSgRptSm::groupFrom(const RxJoinPruneInfo& m,
                                                         std::size_t index) const {
    if (index >= m.groups.size()) return std::nullopt;
    return RptReviewKey{m.groups[index]->group(), m.intf, Step::groupStart, {}};
}

std::optional<RptReviewKey> DownstreamSgRptSm::nextInMessage(const RxJoinPruneInfo& m,
                                                             const RptReviewKey& done) const {
    if (done.step == Step::message) return reviewDropped_ ? std::nullopt : groupFrom(m, 0);
    const auto it = std::lower_bound(
        m.groups.begin(), m.groups.end(), done.group,
        [](const JoinPruneGroupData* g, const Wirl::IpGenAddr& a) { return g->group() < a; });
    CASK_ASSERT(it != m.groups.end() && (*it)->group() == done.group,
                "review bookmark names a group the message does not hold");
    const std::size_t index = std::size_t(it - m.groups.begin());
    const JoinPruneGroupData& g = **it;
    auto item = [&](Step step, const Wirl::IpGenAddr& source) {
        return RptReviewKey{done.group, m.intf, step, source};
    };
    auto firstPrune = [&]() -> std::optional<RptReviewKey> {
        if (!g.prunedRptSource().empty()) {
            return item(Step::rptPrune, *g.prunedRptSource().begin());
        }
        return item(Step::groupEnd, {});
    };
    switch (done.step) {
        case Step::groupStart:
            if (skippedGroup_ && *skippedGroup_ == done.group) return groupFrom(m, index + 1);
            if (!g.joinedRptSource().empty()) {
                return item(Step::rptJoin, *g.joinedRptSource().begin());
            }
            return firstPrune();
        case Step::rptJoin: {
            auto next = g.joinedRptSource().upperBound(done.source);
            if (next != g.joinedRptSource().end()) return item(Step::rptJoin, *next);
            return firstPrune();
        }
        case Step::rptPrune: {
            auto next = g.prunedRptSource().upperBound(done.source);
            if (next != g.prunedRptSource().end()) return item(Step::rptPrune, *next);
            return item(Step::groupEnd, {});
        }
        default:
            return groupFrom(m, index + 1);
    }
}

std::optional<RptReviewKey> DownstreamSgRptSm::nextItem(const RptReviewKey& done) {
    if (rxJoinPruneInfo_.empty()) return std::nullopt;
    if (auto next = nextInMessage(rxJoinPruneInfo_.front(), done)) return next;
    // The message is done: on to the next one.
    CASK_VRF_TRACE(7, vrfName(), "DownstreamSgRptSm::doReview: Finished message from {} on {}",
                   rxJoinPruneInfo_.front().sender, rxJoinPruneInfo_.front().intf);
    rxJoinPruneInfoPop();
    return firstItem(std::nullopt);
}

// --- the review's steps ----------------------------------------------------------

void DownstreamSgRptSm::doReview(const RptReviewKey& item) {
    const RxJoinPruneInfo& m = rxJoinPruneInfo_.front();
    switch (item.step) {
        case Step::message:
            doReviewJoinPruneInfo(m);
            return;
        case Step::groupStart: {
            const JoinPruneGroupData* g = m.data->joinPruneGroupData(item.group);
            CASK_ASSERT(g, "review names a group the message does not hold");
            doReviewJoinPruneGroupData(m, *g);
            return;
        }
        case Step::rptJoin:
            doReviewRxJoin(m, RouteKey(item.source, item.group));
            return;
        case Step::rptPrune:
            doReviewRxPrune(m, RouteKey(item.source, item.group), wcJoinReceived_);
            return;
        case Step::groupEnd:
            doReviewGroupEnd(m, item.group);
            return;
    }
}

void DownstreamSgRptSm::doReviewJoinPruneInfo(const RxJoinPruneInfo& m) {
    reviewDropped_ = false;
    skippedGroup_.reset();
    wcJoinReceived_ = false;
    marks_.clear();
    const L3::VrfName& vrf = vrfName();
    CASK_VRF_TRACE(7, vrf,
                   "DownstreamSgRptSm::doReviewJoinPruneInfo: Starting new review at group  {}, "
                   "interface: {}",
                   m.groups.empty() ? Wirl::IpGenAddr() : m.groups.front()->group(), m.intf);
    if (!in_.pimStatus->activeNeighborHas(Routing::Pim::NeighborKey{m.intf, m.sender})) {
        CASK_VRF_TRACE(6, vrf,
                       "DownstreamSgRptSm::doReview(): message from {} on {} ignored, not an "
                       "active PIM neighbor",
                       m.sender, m.intf);
        reviewDropped_ = true;
        ignoredNonNeighborInc();
        return;
    }
    // RFC 7761 4.5.3: only a message addressed to this router changes its downstream state.
    const Routing::Pim::PimIntfStatus* pim = in_.pimStatus->intfRaw(m.intf);
    if (!pim || pim->usedAddr() != m.upstreamNeighbor) {
        CASK_VRF_TRACE(6, vrf,
                       "DownstreamSgRptSm::doReview(): message from {} on {} ignored, addressed "
                       "to {}",
                       m.sender, m.intf, m.upstreamNeighbor);
        reviewDropped_ = true;
        ignoredNotAddressedInc();
    }
}

void DownstreamSgRptSm::doReviewJoinPruneGroupData(const RxJoinPruneInfo& m,
                                                   const JoinPruneGroupData& g) {
    const Wirl::IpGenAddr& group = g.group();
    const L3::VrfName& vrf = vrfName();
    skippedGroup_.reset();
    wcJoinReceived_ = false;
    marks_.clear();
    if (group.family() != in_.localStatus->family() || !group.isMulticast()) {
        CASK_VRF_TRACE(7, vrf, "DownstreamSgRptSm::doReviewJoinPruneGroupData({}), invalid group",
                       group);
        skippedGroup_ = group;
        return;
    }
    if (in_.ssmGroupInfo->ssmGroup(group, *in_.config)) {
        CASK_VRF_TRACE(7, vrf,
                       "DownstreamSgRptSm::doReviewJoinPruneGroupData(), Group {} in SSM range, "
                       "ignoring any (S,G,Rpt) joins/prunes",
                       group);
        skippedGroup_ = group;
        ignoredSsmGroupInc();
        return;
    }
    if (!groupPermitted(group)) {
        CASK_VRF_TRACE(7, vrf,
                       "DownstreamSgRptSm::doReviewJoinPruneGroupData({}), ignoring bidirectional "
                       "group",
                       group);
        skippedGroup_ = group;
        ignoredBidirGroupInc();
        return;
    }
    for (const auto& [rp, wc] : g.wcSourceData()) {
        if (wc.join) wcJoinReceived_ = true;
    }
    if (!wcJoinReceived_) return;
    // RFC 7761 4.5.3: a Join(*,G) moves the group's Pruned and PrunePending interfaces to their
    // temporary states; a Prune(S,G,rpt) later in the group entry takes them back, and those
    // still marked at its end return to NoInfo. The marks stay here, so the Intf keeps its state
    // (and the route its olist) while the group entry is read.
    const auto& routes = in_.status->route();
    for (auto it = routes.upperBound(RouteKey::wc(group)); it != routes.end(); ++it) {
        if (it->first.group() != group) break;
        const Intf* intf = it->second->routeIntfRaw(m.intf);
        if (!intf) continue;
        const RptState s = intf->rptState();
        if (s != RptState::rptPruned && s != RptState::rptPrunePending) continue;
        CASK_VRF_TRACE(7, vrf,
                       "DownstreamSgRptSm::doReviewJoinPruneGroupData(): (*,G) join marks route "
                       "{} on {}, rptPrune State: {}",
                       it->first, m.intf, enumName(s));
        marks_.insert(it->first.source());
    }
}

void DownstreamSgRptSm::doReviewRxJoin(const RxJoinPruneInfo& m, const RouteKey& key) {
    const L3::VrfName& vrf = vrfName();
    CASK_VRF_TRACE(7, vrf, "DownstreamSgRptSm::doReviewRxJoin{}, on interface {}", key, m.intf);
    marks_.erase(key.source());
    Cask::Ptr<Route> route = in_.status->route(key);
    if (!route) {
        CASK_VRF_TRACE(7, vrf, "DownstreamSgRptSm::doReviewRxJoin{}, ignored, no (S,G) state", key);
        return;
    }
    Intf* intf = route->routeIntfRaw(m.intf);
    if (!intf) {
        CASK_VRF_TRACE(7, vrf, "DownstreamSgRptSm::doReviewRxJoin{}, ignored, no (S,G,I) state",
                       key);
        return;
    }
    if (intf->rptState() == RptState::rptNoInfo) return;
    RhoRoute* rho = route_.get(key);
    if (!rho) rho = route_.update(key, route.get(), *this);
    rho->rhoIntfIs(*intf).doChangeState(
        RptState::rptNoInfo, eventText("DownstreamSgRptSm: Rx (S,G,Rpt) join on intf {} on route "
                                       "{}, rptPruneState: ",
                                       m.intf, key));
}

void DownstreamSgRptSm::doReviewRxPrune(const RxJoinPruneInfo& m, const RouteKey& key,
                                        bool wcJoinReceived) {
    const L3::VrfName& vrf = vrfName();
    CASK_VRF_TRACE(7, vrf, "DownstreamSgRptSm::doReviewRxPrune{}, (*,G) Join received: {}", key,
                   wcJoinReceived);
    const Wirl::IpGenAddr& source = key.source();
    if (source.family() != key.group().family() || !source.isUnicast()) {
        CASK_VRF_TRACE(7, vrf, "DownstreamSgRptSm::doReviewRxPrune{}, invalid source", key);
        return;
    }
    const bool marked = marks_.erase(source) > 0;
    auto apply = [&](Route& route) {
        Cask::Ptr<Intf> intf = route.routeIntf(m.intf);
        if (!intf) {
            CASK_VRF_TRACE(6, vrf,
                           "DownstreamSgRptSm::doReviewRxPrune: Creating OIF for route {} "
                           "interface {}",
                           key, m.intf);
            CASK_EVENT("DownstreamSgRptSm: Add interface {} to route {}, flags: ", m.intf, key);
            intf = route.routeIntfIs(m.intf);
            if (!intf) return;  // over the agent's interface limit (traced there)
        }
        intf->lastRptPruneReceivedIs(in_.loop->now());
        RhoRoute* rho = route_.get(key);
        if (!rho || &rho->route() != &route) rho = route_.update(key, &route, *this);
        RhoIntf& ri = rho->rhoIntfIs(*intf);
        const RptState old = ri.intfState();
        if (old == RptState::rptNoInfo) {
            // The expiry is set first: the state's enter action may move on to Pruned at once.
            ri.doArmTimer(IntfTimer::expiry, m.holdTime == holdTimeForever
                                                 ? Cask::never
                                                 : in_.loop->now() + Cask::Seconds(m.holdTime));
            ri.doChangeState(RptState::rptPrunePending,
                             eventText("DownstreamSgRptSm: Rx prune on interface {} for route {}, "
                                       "flags: , rpt prune state: ",
                                       m.intf, key));
        } else {
            ri.tweakExpiryTimer(m.holdTime);
            // A Prune taking back a Join(*,G)'s mark restores the state it had (RFC 7761's
            // PruneTmp -> Pruned, Prune-Pending-Tmp -> Prune-Pending).
            if (!marked && old == RptState::rptPrunePending) {
                ri.doChangeState(RptState::rptPruned,
                                 eventText("DownstreamSgRptSm: Rx prune on interface {} for route "
                                           "{}, flags: , rpt prune state: ",
                                           m.intf, key)
                                     .tail(" "));
            }
        }
        intf->initializedIs(true);
        route.initializedIs(true);
    };
    if (Cask::Ptr<Route> route = in_.status->route(key)) {
        apply(*route);
        return;
    }
    CASK_VRF_TRACE(4, vrf, "DownstreamSgRptSm::doReviewRxPrune: Creating route {}", key);
    CASK_EVENT("DownstreamSgRptSm: Creating route {}", key);
    in_.status->routeIs(key, apply);  // null over the route limit (traced there)
}

void DownstreamSgRptSm::doReviewGroupEnd(const RxJoinPruneInfo& m, const Wirl::IpGenAddr& group) {
    std::set<Wirl::IpGenAddr> marks;
    marks.swap(marks_);
    skippedGroup_.reset();
    wcJoinReceived_ = false;
    for (const Wirl::IpGenAddr& source : marks) {
        const RouteKey key(source, group);
        Cask::Ptr<Route> route = in_.status->route(key);
        Intf* intf = route ? route->routeIntfRaw(m.intf) : nullptr;
        if (!intf || intf->rptState() == RptState::rptNoInfo) continue;
        RhoRoute* rho = route_.get(key);
        if (!rho || &rho->route() != route.get()) rho = route_.update(key, route.get(), *this);
        rho->rhoIntfIs(*intf).doChangeState(
            RptState::rptNoInfo, eventText("DownstreamSgRptSm: Rx (*,G) join on intf {} for route "
                                           "{}, rptPrune State: ",
                                           m.intf, key));
    }
}

Cask::Ptr<DownstreamSgRptSm> downstreamSgRptSmFactory(const VrfContext& ctx) {
    auto sm = Cask::make<DownstreamSgRptSm>(ctx);
    sm->handleInit();
    return sm;
}

}  // namespace Routing::Pim::SparseMode
