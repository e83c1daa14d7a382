// The RFC 7761 macros (sections 4.1.5, 4.5, 4.6) as derived values of Route
// and Intf. Each is a direct transcription of the RFC's definition; the
// comments give the definition being computed.
//
// Conventions:
// - On an (S,G) route's Intf the (S,G) terms read the Intf itself and the
//   (*,G) terms read the (*,G) route's Intf on the same interface
//   (`wcIntf`); on a (*,G) route's Intf both are the same record and (S,G)
//   terms are empty.
// - RPF_interface(S) is the (S,G) route's `iif`, RPF_interface(RP(G)) the
//   (*,G) route's. The machines store RPF' (assert-adjusted) in `umh.rpf`,
//   whose interface is always the RPF interface.
// - AssertWinner(X,G,I) == me is "I am assert winner"; AssertWinner != NULL
//   and != me is "I am assert loser".

#include "cask/assert.h"
#include "pimsm/route/local_status.h"
#include "pimsm/route/route.h"
#include "platform/pim_status.h"

namespace Routing::Pim::SparseMode {

namespace {

bool isLoser(const Intf* i) {
    return i && i->assertInfo().assertState == AssertState::iAmAssertLoser;
}
bool isWinner(const Intf* i) {
    return i && i->assertInfo().assertState == AssertState::iAmAssertWinner;
}
bool inJoins(JoinState s) {
    return s == JoinState::joined || s == JoinState::prunePending;
}

// RPF_interface(RP(G)) for any route of the group.
Wirl::IntfId rpfIntfRp(const Route& r) {
    const Route* wc = r.wc();
    return wc ? wc->iif() : Wirl::IntfId();
}

bool sameUpstream(const Routing::Pim::Rpf& a, const Routing::Pim::Rpf& b) {
    return a.intf == b.intf && a.neighbor == b.neighbor;
}

}  // namespace

// --- Intf ------------------------------------------------------------------

const Routing::Pim::PimIntfStatus* Intf::pimIntf() const {
    CASK_ASSERT(route_, "intf->route()");
    auto* ctx = route_->context();
    return ctx && ctx->pimStatus ? ctx->pimStatus->intfRaw(intfId_) : nullptr;
}

bool Intf::iAmDr() const {
    auto* p = pimIntf();
    return p && p->iAmDr();
}

const Intf* Intf::wcIntf() const {
    CASK_ASSERT(route_, "intf->route()");
    if (route_->isWc()) return this;
    const Route* wc = route_->wc();
    return wc ? wc->routeIntfRaw(intfId_) : nullptr;
}

Wirl::IpGenAddr Intf::assertWinner() const {
    switch (assertInfo_.assertState) {
        case AssertState::iAmAssertWinner: {
            auto* p = pimIntf();
            return p ? p->usedAddr() : Wirl::IpGenAddr();
        }
        case AssertState::iAmAssertLoser:
            return assertInfo_.winnerMetric.address;
        case AssertState::assertNoInfo:
            break;
    }
    return Wirl::IpGenAddr();
}

// joins(S,G) = { I : DownstreamJPState(S,G,I) is Join or Prune-Pending }
bool Intf::joinsSg() const {
    return !route_->isWc() && inJoins(joinState_);
}

// joins(*,G) = { I : DownstreamJPState(*,G,I) is Join or Prune-Pending }
bool Intf::joinsWc() const {
    const Intf* w = wcIntf();
    return w && inJoins(w->joinState_);
}

// prunes(S,G,rpt) = { I : DownstreamJPState(S,G,rpt,I) is Prune or PruneTmp }
bool Intf::prunesSgRpt() const {
    return !route_->isWc() &&
           (rptState_ == RptState::rptPruned || rptState_ == RptState::rptPruneTmp);
}

// lost_assert(*,G,I): false on RPF_interface(RP(G)); else AssertWinner(*,G,I)
// is someone else.
bool Intf::lostAssertWc() const {
    if (intfId_ == rpfIntfRp(*route_)) return false;
    return isLoser(wcIntf());
}

// lost_assert(S,G,rpt,I): false on RPF_interface(RP(G)), and on
// RPF_interface(S) once the SPT bit is set; else AssertWinner(S,G,I) is
// someone else.
bool Intf::lostAssertSgRpt() const {
    if (route_->isWc()) return false;
    if (intfId_ == rpfIntfRp(*route_)) return false;
    if (intfId_ == route_->iif() && route_->spTree()) return false;
    return isLoser(this);
}

// lost_assert(S,G,I): false on RPF_interface(S); else AssertWinner(S,G,I) is
// someone else and its metric beats spt_assert_metric(S,I).
bool Intf::lostAssertSg() const {
    if (route_->isWc()) return false;
    if (intfId_ == route_->iif()) return false;
    return isLoser(this) && assertInfo_.winnerMetric < sptAssertMetric();
}

// pim_include(*,G) = { I : ((I_am_DR(I) AND NOT lost_assert(*,G,I))
//                           OR AssertWinner(*,G,I) == me)
//                          AND local_receiver_include(*,G,I) }
bool Intf::includeWc() const {
    const Intf* w = wcIntf();
    if (!w || !w->localReceiverInclude_) return false;
    return (iAmDr() && !lostAssertWc()) || isWinner(w);
}

// pim_include(S,G): as above with the (S,G) assert state and receivers.
bool Intf::includeSg() const {
    if (route_->isWc() || !localReceiverInclude_) return false;
    return (iAmDr() && !lostAssertSg()) || isWinner(this);
}

// pim_exclude(S,G) = { I : ((I_am_DR(I) AND NOT lost_assert(*,G,I))
//                           OR AssertWinner(*,G,I) == me)
//                          AND local_receiver_exclude(S,G,I) }
bool Intf::excludeSg() const {
    if (route_->isWc() || !localReceiverExclude_) return false;
    return (iAmDr() && !lostAssertWc()) || isWinner(wcIntf());
}

// immediate_olist(*,G) = joins(*,G) (+) pim_include(*,G) (-) lost_assert(*,G)
// With lost_assert(*,G,I) out, pim_include(*,G) reduces to its receiver and
// DR-or-winner terms; an interface with neither joins nor receivers is left
// before any assert or DR lookup.
bool Intf::immediateOlistWc() const {
    const Intf* w = wcIntf();
    if (!w) return false;
    const bool joins = inJoins(w->joinState_);
    if (!joins && !w->localReceiverInclude_) return false;
    if (lostAssertWc()) return false;
    return joins || iAmDr() || isWinner(w);
}

// immediate_olist(S,G) = joins(S,G) (+) pim_include(S,G) (-) lost_assert(S,G)
bool Intf::immediateOlistSg() const {
    return (joinsSg() || includeSg()) && !lostAssertSg();
}

// inherited_olist(S,G,rpt) = ( joins(*,G) (-) prunes(S,G,rpt) )
//                        (+) ( pim_include(*,G) (-) pim_exclude(S,G) )
//                        (-) ( lost_assert(*,G) (+) lost_assert(S,G,rpt) )
bool Intf::inheritedOlistSgRpt() const {
    if (route_->isWc()) return false;
    bool in = (joinsWc() && !prunesSgRpt()) || (includeWc() && !excludeSg());
    return in && !lostAssertWc() && !lostAssertSgRpt();
}

// inherited_olist(S,G) = inherited_olist(S,G,rpt) (+) immediate_olist(S,G)
bool Intf::inheritedOlistSg() const {
    return inheritedOlistSgRpt() || immediateOlistSg();
}

// CouldAssert(S,G,I) = SPTbit(S,G) AND RPF_interface(S) != I AND
//   I in ( ( joins(*,G) (-) prunes(S,G,rpt) ) (+) ( pim_include(*,G) (-)
//   pim_exclude(S,G) ) (-) lost_assert(*,G) (+) joins(S,G) (+) pim_include(S,G) )
bool Intf::couldAssertSg() const {
    if (route_->isWc() || !route_->spTree() || intfId_ == route_->iif()) return false;
    bool fromWc =
        ((joinsWc() && !prunesSgRpt()) || (includeWc() && !excludeSg())) && !lostAssertWc();
    return fromWc || joinsSg() || includeSg();
}

// CouldAssert(*,G,I) = I in ( joins(*,G) (+) pim_include(*,G) )
//                      AND RPF_interface(RP(G)) != I
bool Intf::couldAssertWc() const {
    return (joinsWc() || includeWc()) && intfId_ != rpfIntfRp(*route_);
}

// AssertTrackingDesired(S,G,I) =
//     I in ( ( joins(*,G) (-) prunes(S,G,rpt) ) (+) ( pim_include(*,G) (-)
//            pim_exclude(S,G) ) (-) lost_assert(*,G) (+) joins(S,G) )
//  OR (local_receiver_include(S,G,I) AND (I_am_DR(I) OR AssertWinner(S,G,I) == me))
//  OR (RPF_interface(S) == I AND JoinDesired(S,G))
//  OR (RPF_interface(RP(G)) == I AND JoinDesired(*,G) AND NOT SPTbit(S,G))
bool Intf::assertTrackingDesiredSg() const {
    if (route_->isWc()) return false;
    bool fromWc =
        ((joinsWc() && !prunesSgRpt()) || (includeWc() && !excludeSg())) && !lostAssertWc();
    if (fromWc || joinsSg()) return true;
    if (localReceiverInclude_ && (iAmDr() || isWinner(this))) return true;
    if (intfId_ == route_->iif() && route_->joinDesiredSg()) return true;
    return intfId_ == rpfIntfRp(*route_) && route_->joinDesiredWc() && !route_->spTree();
}

// AssertTrackingDesired(*,G,I) = CouldAssert(*,G,I)
//  OR (local_receiver_include(*,G,I) AND (I_am_DR(I) OR AssertWinner(*,G,I) == me))
//  OR (RPF_interface(RP(G)) == I AND RPTJoinDesired(G))
bool Intf::assertTrackingDesiredWc() const {
    if (couldAssertWc()) return true;
    const Intf* w = wcIntf();
    if (w && w->localReceiverInclude_ && (iAmDr() || isWinner(w))) return true;
    return intfId_ == rpfIntfRp(*route_) && route_->rptJoinDesiredWc();
}

// spt_assert_metric(S,I) = {0, MRIB.pref(S), MRIB.metric(S), my_ip(I)}
AssertMetric Intf::sptAssertMetric() const {
    auto* p = pimIntf();
    const auto& rpf = route_->rpf();
    return AssertMetric{false, rpf.preference, rpf.metric, p ? p->usedAddr() : Wirl::IpGenAddr()};
}

// rpt_assert_metric(G,I) = {1, MRIB.pref(RP(G)), MRIB.metric(RP(G)), my_ip(I)}
AssertMetric Intf::rptAssertMetric() const {
    auto* p = pimIntf();
    const Route* wc = route_->wc();
    Routing::Pim::Rpf rpf = wc ? wc->rpf() : Routing::Pim::Rpf{};
    return AssertMetric{true, rpf.preference, rpf.metric, p ? p->usedAddr() : Wirl::IpGenAddr()};
}

// my_assert_metric(S,G,I) = spt_assert_metric(S,I) if CouldAssert(S,G,I),
//   rpt_assert_metric(G,I) if CouldAssert(*,G,I), infinite otherwise.
AssertMetric Intf::myAssertMetricSg() const {
    if (couldAssertSg()) return sptAssertMetric();
    if (couldAssertWc()) return rptAssertMetric();
    return AssertMetric::infinite();
}

AssertMetric Intf::myAssertMetricWc() const {
    return couldAssertWc() ? rptAssertMetric() : AssertMetric::infinite();
}

bool Intf::isPreferredAssertSg(const AssertMetric& rx) const {
    const AssertMetric ref = isLoser(this) ? assertInfo_.winnerMetric : myAssertMetricSg();
    return rx < ref;
}

bool Intf::isPreferredAssertWc(const AssertMetric& rx) const {
    const Intf* w = wcIntf();
    const AssertMetric ref = isLoser(w) ? w->assertInfo_.winnerMetric : myAssertMetricWc();
    return rx < ref;
}

bool Intf::isInferiorAssertSg(const AssertMetric& rx) const {
    return myAssertMetricSg() < rx;
}
bool Intf::isInferiorAssertWc(const AssertMetric& rx) const {
    return myAssertMetricWc() < rx;
}
bool Intf::isAcceptableAssertSg(const AssertMetric& rx) const {
    return rx < myAssertMetricSg();
}
bool Intf::isAcceptableAssertWc(const AssertMetric& rx) const {
    return rx < myAssertMetricWc();
}

// --- Route -----------------------------------------------------------------

// RPF'(*,G), as the group's (*,G) route holds it.
Routing::Pim::Rpf Route::rpfWc() const {
    const Route* wc = this->wc();
    return wc ? wc->rpf() : Routing::Pim::Rpf{};
}

bool Route::nullImmediateOlistWc() const {
    const Route* wc = this->wc();
    if (!wc) return true;
    for (const auto& [id, intf] : wc->routeIntf_) {
        if (intf->immediateOlistWc()) return false;
    }
    return true;
}

bool Route::nullImmediateOlistSg() const {
    if (isWc()) return true;
    for (const auto& [id, intf] : routeIntf_) {
        if (intf->immediateOlistSg()) return false;
    }
    return true;
}

bool Route::nullInheritedOlistSgRpt() const {
    if (isWc()) return true;
    return !walkInherited(false, [](Wirl::IntfId) { return true; });
}

bool Route::nullInheritedOlistSg() const {
    if (isWc()) return true;
    return !walkInherited(true, [](Wirl::IntfId) { return true; });
}

// JoinDesired(*,G) = immediate_olist(*,G) != NULL, for the group of any route.
bool Route::joinDesiredWc() const {
    return !nullImmediateOlistWc();
}

// RPTJoinDesired(G) = JoinDesired(*,G) (RFC 7761 has no (*,*,RP) term).
bool Route::rptJoinDesiredWc() const {
    return joinDesiredWc();
}

// JoinDesired(S,G) = immediate_olist(S,G) != NULL
//     OR (KeepaliveTimer(S,G) running AND inherited_olist(S,G) != NULL)
bool Route::joinDesiredSg() const {
    if (isWc()) return false;
    if (!nullImmediateOlistSg()) return true;
    return keepaliveRunning() && !nullInheritedOlistSg();
}

// PruneDesired(S,G,rpt) = RPTJoinDesired(G) AND ( inherited_olist(S,G,rpt) == NULL
//     OR (SPTbit(S,G) AND RPF'(*,G) != RPF'(S,G)) )
bool Route::pruneDesiredSgRpt() const {
    if (isWc() || !rptJoinDesiredWc()) return false;
    if (nullInheritedOlistSgRpt()) return true;
    return spTree() && !sameUpstream(rpfWc(), rpf());
}

bool Route::hasSgState() const {
    if (isWc()) return false;
    for (const auto& [id, i] : routeIntf_) {
        if (i->joinState() != JoinState::noInfo || i->rptState() != RptState::rptNoInfo ||
            i->localReceiverInclude() || i->localReceiverExclude()) {
            return true;
        }
    }
    return false;
}

bool Route::isDuplicateRpf() const {
    return umhFrr_ && umh_->rpf().resolved() && sameUpstream(umhFrr_->rpf(), umh_->rpf());
}

}  // namespace Routing::Pim::SparseMode
