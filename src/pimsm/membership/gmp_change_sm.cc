#include "pimsm/membership/gmp_change_sm.h"

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
    // A new review takes the filled set as the one it works through; new
    // changes go to a fresh set meanwhile and start the next review.
    Cask::SlicedReview<RouteIntfKey>::Steps steps;
    steps.walk = Cask::orderedWalk([this]() -> const auto& {
        return reviewChangeStatus_->changedRouteIntf();
    });
    steps.visit = [this](const RouteIntfKey& k) { parent_.doUpdateMembership(k); };
    steps.onStart = [this] {
        reviewChangeStatus_ = gmpChangeStatus_;
        changeStatusIs(Cask::make<GmpChangeStatus>());
    };
    // The reviewed set drains a slice at a time, so that the end of the
    // review drops at most one slice's keys: freeing a million keys in one
    // turn would hold the loop well past its quantum. The keys a slice
    // decided go at the start of the next, within that slice's budget.
    steps.onSlice = [this](Cask::Seconds, Cask::Seconds) {
        if (!decidedBelowBookmark_) return;
        decidedBelowBookmark_ = false;
        reviewChangeStatus_->changedRouteIntfDelBelow(review_->bookmark());
    };
    steps.onSuspend = [this] {
        decidedBelowBookmark_ = true;
        CASK_VRF_TRACE(7, parent_.vrfName(), "GmpChangeSm:doReview: time exceeded");
    };
    steps.onFinish = [this] {
        decidedBelowBookmark_ = false;
        reviewChangeStatus_ = Cask::make<GmpChangeStatus>();
        doUpdateReviewTimer();
    };
    Cask::ReviewTexts texts{.vrf = fmt::to_string(parent_.vrfName()),
                            .name = "GmpChangeSm:doReview: "};
    texts.resume = "Resuming review at: {}, start: {}";
    review_ = std::make_unique<Cask::SlicedReview<RouteIntfKey>>(
        loop_, Cask::ReviewTiming{reviewMinDelay, reviewMaxDelay}, std::move(texts),
        std::move(steps));
    review_->quantumIs(defaultReviewQuantum);
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
        CASK_VRF_TRACE(7, parent_.vrfName(),
                       "GmpSm:handleMembership({}), ignoring bidirectional group", group);
        // Kept, so that the change (a leave, say) is decided once the
        // filter lifts: the table alone no longer shows a removed key.
        filtered_.insert(key);
        return;
    }
    gmpChangeStatus_->changedRouteIntfIs(key);
    if (!key.routeKey.source().isUnspecified()) return;

    // A (*,G) change may convert into (S,G) memberships: decide those again.
    CASK_VRF_TRACE(8, parent_.vrfName(),
                   "GmpSm:handleMembership({}) changed, need to take care ssmConvert Source", key);
    const SsmConvertConfig* convert = parent_.ssmConvertConfig();
    const SsmConvertGroup* sources = convert ? convert->group().raw(group) : nullptr;
    if (!sources) return;
    for (const Wirl::IpGenAddr& source : sources->source()) {
        gmpChangeStatus_->changedRouteIntfIs(
            RouteIntfKey{Routing::Pim::RouteKey(source, group), key.intf});
    }
}

void GmpChangeSm::handleGroupFilterChanged() {
    for (auto it = filtered_.begin(); it != filtered_.end();) {
        if (!parent_.groupPermitted(it->routeKey.group())) {
            ++it;
            continue;
        }
        gmpChangeStatus_->changedRouteIntfIs(*it);
        it = filtered_.erase(it);
    }
}

void GmpChangeSm::doUpdateReviewTimer() {
    CASK_VRF_TRACE(8, parent_.vrfName(), "GmpChangeSm:doUpdateReviewTimer");
    if (review_->pending()) return;
    if (gmpChangeStatus_->changedRouteIntf().empty()) return;
    CASK_VRF_TRACE(8, parent_.vrfName(),
                   "GmpChangeSm:doUpdateReviewTimer() : scheduling next review");
    review_->request();
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
