#include "pimsm/upstream/wc_route_review_sm.h"

#include <algorithm>

#include <fmt/format.h>

#include "cask/assert.h"
#include "cask/trace.h"

namespace Routing::Pim::SparseMode {

using Routing::Pim::RouteKey;

WcRouteReviewSm::WcRouteReviewSm(const VrfContext& ctx, UpstreamWcSm& upstream)
    : upstream_(upstream),
      vrfName_(upstream.vrfName()),
      localStatus_(*upstream.inputs().localStatus) {
    Cask::SlicedReview<Wirl::IpGenAddr>::Steps steps;
    steps.walk.first = [this](const std::optional<Wirl::IpGenAddr>& from) {
        const auto& routes = localStatus_.wcRoute();
        return inRanges(from ? routes.lowerBound(RouteKey::wc(*from)) : routes.begin());
    };
    steps.walk.next = [this](const Wirl::IpGenAddr& done) {
        return inRanges(localStatus_.wcRoute().upperBound(RouteKey::wc(done)));
    };
    steps.visit = [this](const Wirl::IpGenAddr& group) { doReviewGroup(group); };
    steps.onStart = [this] {
        working_.assign(pending_.begin(), pending_.end());
        std::sort(working_.begin(), working_.end(),
                  [](const auto& a, const auto& b) { return a.first() < b.first(); });
        pending_.clear();
        for (const auto& range : working_) {
            CASK_VRF_TRACE(7, vrfName_, "WcRouteReviewSm::doReview(), RP changed for {}", range);
        }
    };
    steps.onFinish = [this] { working_.clear(); };
    review_ = std::make_unique<Cask::SlicedReview<Wirl::IpGenAddr>>(
        *ctx.loop, Cask::ReviewTiming{},
        Cask::ReviewTexts{fmt::to_string(vrfName_), "WcRouteReviewSm: "}, std::move(steps));

    rpWatcher_.notifierIs(ctx.rpMapping);
}

WcRouteReviewSm::~WcRouteReviewSm() = default;

void WcRouteReviewSm::handleRp(const Wirl::IpGenPrefix& groups) {
    CASK_VRF_TRACE(6, vrfName_, "WcRouteReviewSm::handleRp({})", groups);
    pending_.insert(groups);
    review_->request();
}

std::optional<Wirl::IpGenAddr> WcRouteReviewSm::inRanges(RouteIter it) const {
    // Ranges are few: a scan of them per step, and a jump over the groups
    // between two ranges.
    const auto& routes = localStatus_.wcRoute();
    while (it != routes.end()) {
        const Wirl::IpGenAddr& group = it->first.group();
        const Wirl::IpGenPrefix* ahead = nullptr;
        for (const auto& range : working_) {
            if (range.contains(group)) return group;
            if (range.first() > group && !ahead) ahead = &range;  // sorted by first
        }
        if (!ahead) return std::nullopt;
        it = routes.lowerBound(RouteKey::wc(ahead->first()));
    }
    return std::nullopt;
}

void WcRouteReviewSm::doReviewGroup(const Wirl::IpGenAddr& group) {
    ++groupsVisited_;
    Route* route = localStatus_.wcRoute().raw(RouteKey::wc(group));
    CASK_ASSERT(route, "wcRouteReviewGroup");
    if (!upstream_.rpChanged(*route)) return;
    CASK_VRF_TRACE(7, vrfName_, "WcRouteReviewSm::doReviewGroup({}), RP changed", route->key());
    ++routesReviewed_;
    upstream_.handleRpChange(*route);
}

}  // namespace Routing::Pim::SparseMode
