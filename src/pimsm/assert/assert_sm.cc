#include "pimsm/assert/assert_sm.h"

#include <algorithm>

#include "cask/assert.h"
#include "cask/trace.h"
#include "pimsm/common/vrf_inputs.h"

namespace Routing::Pim::SparseMode {

using Routing::Pim::RouteKey;
using RhoIntf = AssertSm::RhoIntf;
using RhoRoute = AssertSm::RhoRoute;

namespace {

bool isState(const Intf& i, AssertState s) {
    return i.assertInfo().assertState == s;
}

}  // namespace

// --- RhoIntf ---------------------------------------------------------------------------------

RhoIntf::RhoIntf(RhoRoute& route, Intf& intf) : route_(route), intf_(&intf) {}

Cask::EventLoop& RhoIntf::loop() const {
    return *route_.sm().ctx().loop;
}

const L3::VrfName& RhoIntf::vrfName() const {
    return route_.sm().vrfName();
}

void RhoIntf::resetAssertLoserTimer() {
    const Routing::Pim::PimIntfStatus* pim = intf_->pimIntf();
    // Without PIM configuration there is no Assert_Time: the loser stays until another event.
    const Cask::Seconds at = pim ? loop().now() + pim->assertTimeout() : Cask::never;
    CASK_VRF_TRACE(8, vrfName(), "{}::resetAssertLoserTimer({}, {}), expires at {}",
                   route_.sm().name(), route_.route().key(), intf_->intfId(), at);
    doArmTimer(IntfTimer::expiry, at);
}

void RhoIntf::doLeaveState(AssertState old) {
    if (old == AssertState::iAmAssertLoser) clearAssertLoserTimer();
}

void RhoIntf::doEnterState(AssertState next) {
    if (next == AssertState::iAmAssertLoser) resetAssertLoserTimer();
}

void RhoIntf::handleExpiryTimer() {
    AssertSm& sm = route_.sm();
    AssertSm::Busy busy(sm);
    if (intfState() != AssertState::iAmAssertLoser) return;
    CASK_VRF_TRACE(6, vrfName(), "{}::handleAssertLoserTimer({}, {})", sm.name(),
                   route_.route().key(), intf_->intfId());
    sm.doA5(*this, " EDGE4");
}

// --- RhoRoute --------------------------------------------------------------------------------

RhoRoute::RhoRoute(AssertSm& sm, Route& route)
    : RouteReactor(route), sm_(sm), rpfIntf_(route.iif()) {}

RhoRoute::~RhoRoute() = default;

RhoIntf& RhoRoute::rhoIntfIs(Intf& intf) {
    CASK_ASSERT(route().routeIntfRaw(intf.intfId()) == &intf,
                "assert interface is not its route's");
    if (RhoIntf* rho = intf_.update(intf.intfId(), &intf, *this)) return *rho;
    return *intf_.get(intf.intfId());
}

std::vector<Wirl::IntfId> RhoRoute::intfIds() const {
    std::vector<Wirl::IntfId> ids;
    intf_.forEach([&](RhoIntf* r) { ids.push_back(r->reactorKey()); });
    return ids;
}

void RhoRoute::doReleaseIdle() {
    for (Wirl::IntfId id : intfIds()) {
        RhoIntf* rho = intf_.get(id);
        if (rho && isState(rho->intf(), AssertState::assertNoInfo)) intf_.del(id);
    }
}

void RhoRoute::handleRouteFlags() {
    AssertSm::Busy busy(sm_);
    sm_.doMaybeChangeAssertStateAll(*this);
}

void RhoRoute::handleChangeFlags() {
    AssertSm::Busy busy(sm_);
    const ChangeFlags flags = route().changeFlags();
    if (flags.empty()) return;
    using Bit = ChangeFlags::Bit;
    // The RPF neighbour is the assert winner when this router lost on the RPF interface: its
    // loss or restart ends the loser state (EDGE5).
    if (flags.has(Bit::rpfNbrStatus) || flags.has(Bit::rpfNbrGenId)) {
        if (RhoIntf* rho = intf_.get(route().iif())) {
            const Intf& i = rho->intf();
            if (isState(i, AssertState::iAmAssertLoser)) {
                const Routing::Pim::PimIntfStatus* pim = i.pimIntf();
                const bool gone = !pim || !pim->neighborHas(i.assertInfo().winnerMetric.address) ||
                                  (flags.has(Bit::rpfNbrGenId) &&
                                   route().rpf().neighbor == i.assertInfo().winnerMetric.address);
                if (gone) {
                    CASK_VRF_TRACE(6, sm_.vrfName(),
                                   "{}::handleChangeFlags({}), winner {} gone or restarted",
                                   sm_.name(), route().key(), i.assertInfo().winnerMetric.address);
                    sm_.doA5(*rho, " EDGE5");
                }
            }
        }
    }
    sm_.doMaybeChangeAssertStateAll(*this);
}

void RhoRoute::handleRouteIntf(Wirl::IntfId id) {
    RhoIntf* rho = intf_.get(id);
    if (!rho || rho->reactorRecord() == route().routeIntfRaw(id)) return;
    AssertSm::Busy busy(sm_);
    const Intf& i = rho->intf();
    if (isState(i, AssertState::iAmAssertWinner)) {
        CASK_VRF_TRACE(6, sm_.vrfName(),
                       "{}::handleDelete(), delete periodic assert winner {}and send assert cancel",
                       sm_.name(), route().key());
        sm_.doWinnerCancel(route().key(), id, true);
    }
    intf_.del(id);
    sm_.doMarkIdle(route().key());
}

void RhoRoute::handleIntfAttr(Intf& intf, IntfAttr attr) {
    switch (attr) {
        case IntfAttr::assertInfo:  // this machine's own writes
        case IntfAttr::forward:
        case IntfAttr::fastForward:
        case IntfAttr::localMembership:
            return;
        case IntfAttr::changeFlags:
            if (intf.changeFlags().empty()) return;
            break;
        default:
            break;
    }
    AssertSm::Busy busy(sm_);
    sm_.doMaybeChangeAssertStateAll(*this);
}

void RhoRoute::handleUmhAttr(UpstreamInfo& umh, UmhAttr attr) {
    if (attr != UmhAttr::rpf || umh.frr()) return;
    AssertSm::Busy busy(sm_);
    const Wirl::IntfId now = route().iif();
    CASK_VRF_TRACE(6, sm_.vrfName(), "{}::handleRpf({}), RPF Intf: {} --> {}", sm_.name(),
                   route().key(), rpfIntf_, now);
    if (now != rpfIntf_) {
        const Wirl::IntfId old = rpfIntf_;
        rpfIntf_ = now;
        handleRpfAssert(old, now);
    }
    // The metric this router asserts with follows the unicast route toward the source or RP.
    for (Wirl::IntfId id : intfIds()) {
        RhoIntf* rho = intf_.get(id);
        if (!rho || !isState(rho->intf(), AssertState::iAmAssertWinner)) continue;
        const AssertMetric old = rho->intf().assertInfo().winnerMetric;
        const AssertMetric next = sm_.winnerMetricOf(rho->intf());
        if (old == next) continue;
        CASK_VRF_TRACE(7, sm_.vrfName(), "{}::handleRpf({}, {}), Old metric: {}, New metric: {}",
                       sm_.name(), route().key(), id, old.str(), next.str());
        sm_.doMaybeUpdateAssertWinner(*rho, route().key());
    }
    sm_.doMaybeChangeAssertStateAll(*this);
}

void RhoRoute::handleRpfAssert(Wirl::IntfId oldIntf, Wirl::IntfId newIntf) {
    RhoIntf* rho = intf_.get(oldIntf);
    if (!rho || !isState(rho->intf(), AssertState::iAmAssertLoser)) return;
    CASK_VRF_TRACE(6, sm_.vrfName(), "{}::handleRpfAssert({}), {} --> {}", sm_.name(),
                   route().key(), oldIntf, newIntf);
    sm_.doA5(*rho, " EDGE8");
}

void RhoRoute::handleDelete() {
    for (Wirl::IntfId id : intfIds()) {
        RhoIntf* rho = intf_.get(id);
        if (!rho || !isState(rho->intf(), AssertState::iAmAssertWinner)) continue;
        CASK_VRF_TRACE(6, sm_.vrfName(),
                       "{}::handleDelete(), delete periodic assert winner {}and send assert cancel",
                       sm_.name(), route().key());
        sm_.doWinnerCancel(route().key(), id, true);
    }
}

// --- neighbour restarts ----------------------------------------------------------------------

namespace {

class NeighborWatcher : public Routing::Pim::PimNeighborStatus::Notifiee {
public:
    NeighborWatcher(AssertSm& sm, Routing::Pim::PimNeighborStatus& nbr) : sm_(sm) {
        notifierIs(&nbr);
    }
    void handleGenId() override { sm_.handleNeighborGenId(notifier()->key()); }

private:
    AssertSm& sm_;
};

}  // namespace

class AssertSm::PimIntfWatcher : public Routing::Pim::PimIntfStatus::Notifiee {
public:
    PimIntfWatcher(AssertSm& sm, Routing::Pim::PimIntfStatus& intf) : sm_(sm) {
        notifierIs(&intf);
        for (const auto& [addr, nbr] : intf.neighbor()) {
            neighbor_[addr] = std::make_unique<NeighborWatcher>(sm, *nbr);
        }
    }
    void handleNeighbor(const Wirl::IpGenAddr& addr) override {
        Routing::Pim::PimNeighborStatus* nbr = notifier()->neighbor(addr).get();
        if (!nbr) {
            neighbor_.erase(addr);
            return;
        }
        auto& w = neighbor_[addr];
        if (!w || w->notifier() != nbr) w = std::make_unique<NeighborWatcher>(sm_, *nbr);
    }

private:
    AssertSm& sm_;
    std::map<Wirl::IpGenAddr, std::unique_ptr<NeighborWatcher>> neighbor_;
};

void AssertSm::doWatchPimIntf(Wirl::IntfId intf) {
    Routing::Pim::PimIntfStatus* pim = in_.pimStatus->intfRaw(intf);
    if (!pim) {
        pimIntfWatcher_.erase(intf);
        return;
    }
    auto& w = pimIntfWatcher_[intf];
    if (!w || w->notifier() != pim) w = std::make_unique<PimIntfWatcher>(*this, *pim);
}

// --- AssertSm --------------------------------------------------------------------------------

AssertSm::AssertSm(const VrfContext& in, bool wc, const char* name)
    : in_(requireInputs(in, name, &VrfContext::loop, &VrfContext::status, &VrfContext::localStatus,
                        &VrfContext::pimStatus, &VrfContext::assertStatus)),
      wc_(wc),
      name_(name) {
    route_.reserve(in_.routeCapacity);
    LocalStatus::Notifiee::notifierIs(in_.localStatus);
    pimWatcher_.notifierIs(in_.pimStatus);
    for (const auto& [intf, pim] : in_.pimStatus->intf()) doWatchPimIntf(intf);
    rxWatcher_.watch(in_.joinPruneRxStatus);
}

AssertSm::~AssertSm() {
    rxWatcher_.watch(nullptr);
    pimIntfWatcher_.clear();
    pimWatcher_.notifierIs(nullptr);
    LocalStatus::Notifiee::notifierIs(nullptr);
    route_.clear();
}

AssertSm::Busy::~Busy() {
    if (--sm_.depth_ == 0 && !sm_.idle_.empty()) sm_.doReleaseIdle();
}

void AssertSm::doReleaseIdle() {
    ++depth_;  // handleDelete of a released reactor may mark more
    while (!idle_.empty()) {
        const RouteKey key = idle_.back();
        idle_.pop_back();
        RhoRoute* rr = route_.get(key);
        if (!rr) continue;
        rr->doReleaseIdle();
        if (!rr->intfMap().empty()) continue;
        route_.del(key);
        handleRouteReactor(key, false);
    }
    --depth_;
}

void AssertSm::handleInitialized() {
    CASK_VRF_TRACE(6, vrfName(), "{}::handleInitialized()", name());
    const LocalStatus& ls = *in_.localStatus;
    if (wc_) {
        route_.sweep(ls.wcRoute(), [this](const RouteKey& k) { handleWcRoute(k); });
    } else {
        route_.sweep(ls.sgRoute(), [this](const RouteKey& k) { handleSgRoute(k); });
    }
}

void AssertSm::handleRoute(const RouteKey& key, Route* route) {
    Busy busy(*this);
    RhoRoute* rr = route_.get(key);
    if (rr && rr->reactorRecord() != route) {
        route_.del(key);
        handleRouteReactor(key, false);
        rr = route_.get(key);
    }
    if (!route || rr) return;
    // A route handed over with assert state (a restart): take its interfaces over.
    for (const auto& [id, intf] : route->routeIntf()) {
        const AssertState s = intf->assertInfo().assertState;
        if (s == AssertState::assertNoInfo) continue;
        RhoIntf& rho = rhoIntfIs(*route, *intf);
        if (s == AssertState::iAmAssertLoser) {
            rho.resetAssertLoserTimer();
        } else {
            doListWinner(key, id);
        }
    }
}

RhoIntf& AssertSm::rhoIntfIs(Route& route, Intf& intf) {
    RhoRoute* rr = route_.get(route.key());
    if (rr && rr->reactorRecord() != &route) {
        route_.del(route.key());
        handleRouteReactor(route.key(), false);
        rr = nullptr;
    }
    if (!rr) {
        rr = route_.update(route.key(), &route, *this);
        CASK_ASSERT(rr, "assert route reactor");
        handleRouteReactor(route.key(), true);
    }
    // Released if the action taken leaves it without state.
    doMarkIdle(route.key());
    return rr->rhoIntfIs(intf);
}

Routing::Pim::IntfStatus& AssertSm::doGetAssertIntfStatus(Wirl::IntfId intf) {
    return in_.assertStatus->intfIs(intf);
}

Routing::Pim::IntfStatus& AssertSm::doListWinner(const RouteKey& key, Wirl::IntfId intf) {
    Routing::Pim::IntfStatus& st = doGetAssertIntfStatus(intf);
    // A cancel still waiting (asked for when this router last stopped being the winner) would
    // follow the winner's Assert and undo it.
    st.assertCancelDel(key);
    st.assertWinnerIs(key);
    return st;
}

void AssertSm::doWinnerCancel(const RouteKey& key, Wirl::IntfId intf, bool cancel) {
    Routing::Pim::IntfStatus* st = in_.assertStatus->intf(intf);
    if (!st && !cancel) return;
    Routing::Pim::IntfStatus& s = st ? *st : doGetAssertIntfStatus(intf);
    s.assertWinnerDel(key);
    if (cancel) s.assertCancelIs(key);
}

void AssertSm::doMaybeUpdateAssertWinner(RhoIntf& rho, const RouteKey& trigger) {
    Intf& i = rho.intf();
    if (!isState(i, AssertState::iAmAssertWinner)) return;
    const RouteKey& key = rho.routeSm().route().key();
    const AssertMetric metric = winnerMetricOf(i);
    if (metric != i.assertInfo().winnerMetric) {
        CASK_VRF_TRACE(7, vrfName(), "{}::doMaybeUpdateAssertWinner(), Winner metric is {}", name(),
                       metric.str());
        i.assertInfoIs(AssertInfo{AssertState::iAmAssertWinner, metric});
    }
    doListWinner(key, i.intfId()).triggeredWinnerIs(trigger, metric);
}

void AssertSm::doA1(RhoIntf& rho, const RouteKey& trigger, const char* label) {
    Intf& i = rho.intf();
    const AssertState from = i.assertInfo().assertState;
    CASK_ASSERT(from == AssertState::assertNoInfo, "fromAssertState == assertNoInfo()");
    const AssertMetric metric = winnerMetricOf(i);
    const RouteKey& key = rho.routeSm().route().key();
    rho.doChangeAssertState(AssertState::iAmAssertWinner, metric,
                            traceText(6, "{}::doA1({}, {}){}, Winner metric: {}, ", name_, key,
                                      i.intfId(), label, MetricText{metric}));
    i.lastAssertActionIs(1);
    doMaybeUpdateAssertWinner(rho, trigger);
}

void AssertSm::doA2(RhoIntf& rho, const AssertMetric& rx, const char* label) {
    Intf& i = rho.intf();
    const AssertState oldAssertState = i.assertInfo().assertState;
    // The (*,G) machine has no A6: it enters the loser state from assertNoInfo with A2.
    CASK_ASSERT(oldAssertState == AssertState::iAmAssertWinner ||
                    oldAssertState == AssertState::iAmAssertLoser ||
                    (wc_ && oldAssertState == AssertState::assertNoInfo),
                "oldAssertState == iAmAssertWinner() || oldAssertState == iAmAssertLoser()");
    const RouteKey& key = rho.routeSm().route().key();
    if (oldAssertState == AssertState::iAmAssertLoser) {
        CASK_VRF_TRACE(6, vrfName(),
                       "{}::doA2({}, {}){}, Winner metric: {}, iAmAssertLoser --> iAmAssertLoser",
                       name(), key, i.intfId(), label, rx.str());
        i.assertInfoIs(AssertInfo{AssertState::iAmAssertLoser, rx});
        rho.resetAssertLoserTimer();
    } else {
        if (oldAssertState == AssertState::iAmAssertWinner) doWinnerCancel(key, i.intfId(), false);
        rho.doChangeAssertState(AssertState::iAmAssertLoser, rx,
                                traceText(6, "{}::doA2({}, {}){}, Winner metric: {}, ", name_, key,
                                          i.intfId(), label, MetricText{rx}));
    }
    i.lastAssertActionIs(2);
    i.rxPreferredAssertInc();
}

void AssertSm::doA3(RhoIntf& rho, const RouteKey& trigger, const char* label) {
    Intf& i = rho.intf();
    CASK_ASSERT(isState(i, AssertState::iAmAssertWinner),
                "i->assertInfo().assertState() == iAmAssertWinner()");
    CASK_VRF_TRACE(6, vrfName(), "{}::doA3({}, {}){}:: iAmAssertWinner --> iAmAssertWinner", name(),
                   rho.routeSm().route().key(), i.intfId(), label);
    i.lastAssertActionIs(3);
    i.rxInferiorAssertInc();
    doMaybeUpdateAssertWinner(rho, trigger);
}

void AssertSm::doA4(RhoIntf& rho, const char* label) {
    Intf& i = rho.intf();
    CASK_ASSERT(isState(i, AssertState::iAmAssertWinner),
                "i->assertInfo().assertState() == iAmAssertWinner()");
    const RouteKey& key = rho.routeSm().route().key();
    rho.doChangeAssertState(AssertState::assertNoInfo, AssertMetric::infinite(),
                            traceText(6, "{}::doA4({}, {}){}:: ", name_, key, i.intfId(), label));
    i.lastAssertActionIs(4);
    doWinnerCancel(key, i.intfId(), true);
    doMarkIdle(key);
}

void AssertSm::doA5(RhoIntf& rho, const char* label) {
    Intf& i = rho.intf();
    CASK_ASSERT(isState(i, AssertState::iAmAssertLoser),
                wc_ ? "i->assertInfo().assertState() == iAmAssertLoser()"
                    : "i->assertInfo().assertState() == iAmAssertLoser_");
    const RouteKey& key = rho.routeSm().route().key();
    rho.doChangeAssertState(AssertState::assertNoInfo, AssertMetric::infinite(),
                            traceText(6, "{}::doA5({}, {}){}:: ", name_, key, i.intfId(), label));
    i.lastAssertActionIs(5);
    doMarkIdle(key);
}

void AssertSm::doMaybeChangeAssertStateAll(RhoRoute& rr) {
    const RouteKey key = rr.route().key();
    for (Wirl::IntfId id : rr.intfIds()) {
        // An earlier interface's action may have ended this one's reactor.
        RhoRoute* now = route_.get(key);
        if (now != &rr) return;
        if (RhoIntf* rho = rr.rhoIntf(id)) doMaybeChangeAssertState(*rho);
    }
}

void AssertSm::doMaybeChangeAssertState(RhoIntf& rho) {
    Intf& i = rho.intf();
    const Route& r = rho.routeSm().route();
    switch (i.assertInfo().assertState) {
        case AssertState::assertNoInfo:
            return;
        case AssertState::iAmAssertWinner:
            if (couldAssert(i)) return;
            CASK_VRF_TRACE(6, vrfName(),
                           "{}::doMaybeChangeAssertState({}, {}), Assert state: EDGE4, Route "
                           "flags: {} RPF: {} joins: {}, include: {}",
                           name(), r.key(), i.intfId(), r.routeFlagsStr(), r.iif(),
                           wc_ ? i.joinsWc() : i.joinsSg(), wc_ ? i.includeWc() : i.includeSg());
            doA4(rho, " EDGE4");
            return;
        case AssertState::iAmAssertLoser: {
            const AssertMetric mine = myMetric(i);
            CASK_VRF_TRACE(8, vrfName(), "{}::doMaybeChangeAssertState({}, {}), My metric: {}",
                           name(), r.key(), i.intfId(), mine.str());
            if (!assertTrackingDesired(i)) {
                doA5(rho, " EDGE6");
            } else if (mine < i.assertInfo().winnerMetric) {
                doA5(rho, " EDGE7");
            }
            return;
        }
    }
}

void AssertSm::handleRxJoin() {
    const Routing::Pim::JoinPruneMessageInfo& m = in_.joinPruneRxStatus->rxJoin();
    if (!joinEntryOfKind(m)) {
        if (!wc_ && m.sourceFlags.isStarG()) {
            CASK_VRF_TRACE(8, vrfName(), "{}::handleRxJoin() wc join ", name());
        }
        return;
    }
    Busy busy(*this);
    const RouteKey key = joinEntryKey(m);
    const Routing::Pim::PimIntfStatus* pim = in_.pimStatus->intfRaw(m.intf);
    if (!pim || pim->usedAddr() != m.upstreamNeighbor) {
        CASK_VRF_TRACE(8, vrfName(),
                       "{}::handleRxJoin(), Upstream neighbor address for route {} does not "
                       "match address on received interface",
                       name(), key);
        return;
    }
    RhoRoute* rr = route_.get(key);
    if (!rr) {
        // Without a reactor the route has no assert state at all.
        CASK_VRF_TRACE(8, vrfName(), "{}::handleRxJoin({}) no route ", name(), key);
        return;
    }
    RhoIntf* rho = rr->rhoIntf(m.intf);
    if (!rho) {
        CASK_VRF_TRACE(8, vrfName(), "{}::handleRxJoin({}) no routeIntf ", name(), key);
        return;
    }
    if (!isState(rho->intf(), AssertState::iAmAssertLoser)) return;
    // RFC 7761 4.6.1, 4.6.2: a Join addressed to me on the interface I lost on means a
    // downstream router wants me to forward: give the assert up and let Join/Prune decide.
    doA5(*rho, " EDGE9");
}

void AssertSm::handlePimIntf(Wirl::IntfId intf) {
    doWatchPimIntf(intf);
    if (!in_.pimStatus->intfRaw(intf)) handlePimIntfDeleted(intf);
}

void AssertSm::handleActiveNeighbor(const Routing::Pim::NeighborKey& nbr) {
    if (in_.pimStatus->activeNeighborHas(nbr)) return;
    doEndLosersTo(nbr, "handleActiveNeighbor", "is gone");
}

void AssertSm::handleNeighborGenId(const Routing::Pim::NeighborKey& nbr) {
    // RFC 7761 4.6.1, 4.6.2: a winner that restarted has lost its assert state; the loser stops
    // deferring to it, as to a winner whose neighbour liveness timer expired.
    doEndLosersTo(nbr, "handleNeighborGenId", "restarted");
}

void AssertSm::doEndLosersTo(const Routing::Pim::NeighborKey& nbr, const char* handler,
                             const char* why) {
    Busy busy(*this);
    std::vector<RouteKey> keys;
    route_.forEach([&](RhoRoute* rr) {
        const RhoIntf* rho = rr->rhoIntf(nbr.intf);
        if (rho && isState(rho->intf(), AssertState::iAmAssertLoser) &&
            rho->intf().assertInfo().winnerMetric.address == nbr.address) {
            keys.push_back(rr->reactorKey());
        }
    });
    for (const RouteKey& key : keys) {
        RhoRoute* rr = route_.get(key);
        RhoIntf* rho = rr ? rr->rhoIntf(nbr.intf) : nullptr;
        if (!rho || !isState(rho->intf(), AssertState::iAmAssertLoser)) continue;
        CASK_VRF_TRACE(6, vrfName(), "{}::{}({}), winner {} on {} {}", name(), handler, key,
                       nbr.address, nbr.intf, why);
        doA5(*rho, " EDGE5");
    }
}

void AssertSm::handlePimIntfDeleted(Wirl::IntfId intf) {
    Busy busy(*this);
    std::vector<RouteKey> keys;
    route_.forEach([&](RhoRoute* rr) {
        if (rr->rhoIntf(intf)) keys.push_back(rr->reactorKey());
    });
    for (const RouteKey& key : keys) {
        RhoRoute* rr = route_.get(key);
        RhoIntf* rho = rr ? rr->rhoIntf(intf) : nullptr;
        if (!rho) continue;
        CASK_VRF_TRACE(6, vrfName(), "{}::handlePimIntfDeleted({}, {}), cleaning up state", name(),
                       key, intf);
        Intf& i = rho->intf();
        // No Assert can be sent on an interface that is gone; the winner stops repeating.
        if (isState(i, AssertState::iAmAssertWinner)) doWinnerCancel(key, intf, false);
        rho->doChangeAssertState(AssertState::assertNoInfo, AssertMetric::infinite());
        i.lastAssertActionIs(0);
        doMarkIdle(key);
    }
}

}  // namespace Routing::Pim::SparseMode
