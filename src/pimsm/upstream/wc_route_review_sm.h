#pragma once
// WcRouteReviewSm: applies changes of the group-to-RP mapping to the (*,G)
// routes of one VRF (RFC 7761 4.5.4: RPF'(*,G) follows RP(G)).
// Watches: Platform::RpMapping (each changed group range); reads LocalStatus.wcRoute.
// Writes:  only through UpstreamWcSm::handleRpChange (RPF'(*,G), the Joins).
//
// A mapping change may concern many routes, so it is applied by a sliced
// review that visits only the groups inside the changed ranges, in group
// order, a bounded slice per turn of the loop. The review works on the
// ranges that had changed when it started; ranges changed meanwhile wait for
// the next review. To walk groups in order the machine keeps the ordered set
// of groups that have a (*,G) route (`LocalStatus.wcRoute` is unordered).

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "cask/collection.h"
#include "cask/event_loop.h"
#include "cask/sliced_review.h"
#include "pimsm/route/local_status.h"
#include "pimsm/upstream/upstream_wc_sm.h"
#include "platform/vrf_records.h"
#include "wirl/ip_gen_addr.h"
#include "wirl/ip_gen_prefix.h"

namespace Routing::Pim::SparseMode {

class WcRouteReviewSm {
public:
    // Reads the context's loop and rpMapping (which may be absent: a VRF
    // without RP mapping has nothing to watch). The records and the upstream
    // machine must outlive this machine.
    WcRouteReviewSm(const VrfContext& ctx, UpstreamWcSm& upstream);
    ~WcRouteReviewSm();
    WcRouteReviewSm(const WcRouteReviewSm&) = delete;
    WcRouteReviewSm& operator=(const WcRouteReviewSm&) = delete;

    // A group range whose RP was added, changed or withdrawn.
    void handleRp(const Wirl::IpGenPrefix& groups);

    // Routes handed to the upstream machine, and groups looked at, since start.
    std::uint64_t routesReviewed() const { return routesReviewed_; }
    std::uint64_t groupsVisited() const { return groupsVisited_; }
    // Ranges waiting for the next review.
    const std::set<Wirl::IpGenPrefix>& pendingRanges() const { return pending_; }
    Cask::SlicedReview<Wirl::IpGenAddr>& review() { return *review_; }

private:
    using RouteIter = decltype(std::declval<const LocalStatus&>().wcRoute().begin());
    class RpWatcher : public Platform::RpMapping::Notifiee {
    public:
        explicit RpWatcher(WcRouteReviewSm& owner) : owner_(owner) {}
        void handleRp(const Wirl::IpGenPrefix& groups) override { owner_.handleRp(groups); }

    private:
        WcRouteReviewSm& owner_;
    };

    // The first group at or after `it` that lies in a range under review.
    std::optional<Wirl::IpGenAddr> inRanges(RouteIter it) const;
    void doReviewGroup(const Wirl::IpGenAddr& group);

    UpstreamWcSm& upstream_;
    const L3::VrfName vrfName_;
    LocalStatus& localStatus_;
    RpWatcher rpWatcher_{*this};
    // Ranges changed since the review in progress started, and the ranges it
    // works on (sorted by first address).
    std::set<Wirl::IpGenPrefix> pending_;
    std::vector<Wirl::IpGenPrefix> working_;
    std::uint64_t routesReviewed_ = 0;
    std::uint64_t groupsVisited_ = 0;
    std::unique_ptr<Cask::SlicedReview<Wirl::IpGenAddr>> review_;
};

}  // namespace Routing::Pim::SparseMode
