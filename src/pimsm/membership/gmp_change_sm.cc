#include "pimsm/membership/gmp_change_sm.h"

#include "cask/review_slice.h"
#include "cask/trace.h"
#include "pimsm/membership/gmp_sm.h"

namespace Routing::Pim::SparseMode {

// Every key entering the set being filled asks for a review.
class GmpChangeSm::ChangeWatcher : public GmpChangeStatus::Notifiee {
public:
    explicit ChangeWatcher(GmpChangeSm& sm) : sm_(sm) {}
    void handleChangedRouteIntf(const RouteIntfKey&) override { sm_.doUpdateReviewTimer(); }

private:
    GmpChangeSm& sm_;
};

GmpChangeSm::GmpChangeSm(GmpSm& parent, Routing::Gmp::Tidal::Status& membership,
                         Cask::EventLoop& loop)
    : parent_(parent), loop_(loop) {
    notifierIs(&membership);
}

GmpChangeSm::~GmpChangeSm() = default;

void GmpChangeSm::handleInitialized() {
    reviewTimer_ = std::make_unique<Cask::ReviewTimer>(
        loop_, Cask::ReviewTimer::defaultFillInterval, Cask::ReviewTimer::defaultCredits,
        reviewMinDelay, reviewMaxDelay, [this] { doReview(); });
    changeWatcher_ = std::make_unique<ChangeWatcher>(*this);
    changeStatusIs(Cask::make<GmpChangeStatus>());
    reviewChangeStatus_ = Cask::make<GmpChangeStatus>();
}

void GmpChangeSm::changeStatusIs(Cask::Ptr<GmpChangeStatus> fresh) {
    gmpChangeStatus_ = std::move(fresh);
    changeWatcher_->notifierIs(gmpChangeStatus_.get());
}

void GmpChangeSm::handleMembership(const RouteIntfKey& key) {
    const Wirl::IpGenAddr& group = key.routeKey.group();
    if (!parent_.groupPermitted(group)) {
        CASK_TRACE(7, "<Vrf:{}>GmpSm:handleMembership({}), ignoring bidirectional group",
                   parent_.vrfName(), group);
        return;
    }
    gmpChangeStatus_->changedRouteIntfIs(key);
    if (!key.routeKey.source().isUnspecified()) return;

    // A (*,G) change may convert into (S,G) memberships: decide those again.
    CASK_TRACE(8, "<Vrf:{}>GmpSm:handleMembership({}) changed, need to take care ssmConvert Source",
               parent_.vrfName(), key);
    const SsmConvertConfig* convert = parent_.ssmConvertConfig();
    const SsmConvertGroup* sources = convert ? convert->group().raw(group) : nullptr;
    if (!sources) return;
    for (const Wirl::IpGenAddr& source : sources->source()) {
        gmpChangeStatus_->changedRouteIntfIs(
            RouteIntfKey{Routing::Pim::RouteKey(source, group), key.intf});
    }
}

void GmpChangeSm::doReview() {
    const L3::VrfName& vrf = parent_.vrfName();
    const Cask::Seconds start = loop_.now();
    if (reviewBookmark_ == RouteIntfKey{}) {
        CASK_TRACE(6, "<Vrf:{}>GmpChangeSm:doReview: Starting new review", vrf);
        // New changes go to a fresh set while this one is worked through.
        reviewChangeStatus_ = gmpChangeStatus_;
        changeStatusIs(Cask::make<GmpChangeStatus>());
    } else {
        CASK_TRACE(6, "<Vrf:{}>GmpChangeSm:doReview: Resuming review at: {}, start: {}", vrf,
                   reviewBookmark_, start);
    }
    const auto result = Cask::reviewSlice(
        reviewChangeStatus_->changedRouteIntf(), reviewBookmark_, loop_.clock(), reviewQuantum_,
        [this](const RouteIntfKey& k) { parent_.doUpdateMembership(k); });
    if (result == Cask::SliceResult::suspended) {
        CASK_TRACE(7, "<Vrf:{}>GmpChangeSm:doReview: time exceeded", vrf);
        CASK_TRACE(6, "<Vrf:{}>GmpChangeSm:doReview: Suspending review at: {}", vrf,
                   reviewBookmark_);
        // The next slice runs on a later turn, after other work.
        reviewTimer_->timer().timeMinIs(loop_.now());
        return;
    }
    CASK_TRACE(6, "<Vrf:{}>GmpChangeSm:doReview: Finished review", vrf);
    reviewChangeStatus_ = Cask::make<GmpChangeStatus>();
    doUpdateReviewTimer();
}

void GmpChangeSm::doUpdateReviewTimer() {
    CASK_TRACE(8, "<Vrf:{}>GmpChangeSm:doUpdateReviewTimer", parent_.vrfName());
    if (reviewTimer_->reviewPending()) return;
    if (gmpChangeStatus_->changedRouteIntf().empty()) return;
    CASK_TRACE(8, "<Vrf:{}>GmpChangeSm:doUpdateReviewTimer() : scheduling next review",
               parent_.vrfName());
    reviewTimer_->doUpdateNextReview();
}

std::unique_ptr<GmpChangeSm> gmpChangeSmFactory(GmpSm& parent,
                                                Routing::Gmp::Tidal::Status& membership,
                                                Cask::EventLoop& loop) {
    auto sm = std::make_unique<GmpChangeSm>(parent, membership, loop);
    sm->handleInitialized();
    for (const auto& [key, m] : membership.membership()) sm->handleMembership(key);
    return sm;
}

}  // namespace Routing::Pim::SparseMode
