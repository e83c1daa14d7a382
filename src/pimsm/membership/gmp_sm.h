#pragma once
// GmpSm: turns the local receivers that IGMP / MLD learnt on this router's
// interfaces into routes. For each membership (S or *, G, interface) it
// creates the route and its Intf when needed and sets the Intf's
// `localReceiverInclude` / `localReceiverExclude`, from which the upstream
// and downstream machines derive RFC 7761's pim_include and pim_exclude.
// It is the only way local receivers enter the route table.
// Watches: the membership table (through GmpChangeSm), the SSM range, the group filter,
//          boundaries, the SSM conversion configuration, routes coming, going and
//          becoming initialized.
// Writes:  routes and Intf records on demand; Intf::localReceiverInclude / Exclude.
//
// One per VRF and address family. Its child GmpChangeSm feeds it the
// memberships that changed; a change of the SSM range, the group filter or
// a boundary may change every decision, so it re-decides the whole table
// in a full review, sliced like the change review. SSM conversion makes a
// (*,G) include membership stand for (S,G) include memberships of the
// sources configured for G.
//
// A withdrawn membership clears the flags but never removes an Intf or a
// route: removal belongs to the route review's mark-and-delete.

#include <memory>
#include <unordered_map>

#include "cask/event_loop.h"
#include "cask/reactor_map.h"
#include "cask/sliced_review.h"
#include "pimsm/common/vrf_context.h"
#include "pimsm/membership/gmp_change_sm.h"
#include "pimsm/route/local_status.h"
#include "pimsm/route/status.h"
#include "platform/group_ranges.h"
#include "platform/mcast_boundary.h"
#include "platform/membership.h"
#include "wirl/vrf_name.h"

namespace Routing::Pim::SparseMode {

class GmpSm : public Cask::Record<GmpSm>, public LocalStatus::Notifiee {
public:
    using RouteIntfKey = Routing::Gmp::Tidal::RouteIntfKey;

    class Notifiee : public Cask::NotifieeOf<GmpSm> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleSgRoute(const Routing::Pim::RouteKey&) {}
        virtual void handleWcRoute(const Routing::Pim::RouteKey&) {}
        virtual void handleIgnoredLinkLocal() {}
    };

    // Re-decides its route's local receivers when the route becomes
    // initialized (a route re-created by the route review, say), since its
    // flags may no longer match the membership table. Only a route announced
    // before it is initialized has one.
    class RhoRoute : public RouteReactor {
    public:
        RhoRoute(GmpSm& gmp, Route& route) : RouteReactor(route), gmp_(gmp) {}
        void handleInitialized() override;

    private:
        GmpSm& gmp_;
    };

    // Watches one conversion group's source set.
    class RhoSsmConvertGroup : public Cask::Record<RhoSsmConvertGroup>,
                               public SsmConvertGroup::Notifiee {
    public:
        RhoSsmConvertGroup(GmpSm& gmp, Cask::Ptr<SsmConvertGroup> group);
        const SsmConvertGroup& group() const { return *group_; }
        void handleSource(const Wirl::IpGenAddr& source) override;

    private:
        GmpSm& gmp_;
        Cask::Ptr<SsmConvertGroup> group_;  // kept so a removed group's sources can be read
    };

    // Watches the conversion configuration: one reactor per configured group.
    class RhoSsmConvertConfig : public Cask::Record<RhoSsmConvertConfig>,
                                public SsmConvertConfig::Notifiee {
    public:
        class Notifiee : public Cask::NotifieeOf<RhoSsmConvertConfig> {
        public:
            using NotifieeOf::NotifieeOf;
            virtual void handleSsmConvertGroup(const Wirl::IpGenAddr&) {}
        };
        RhoSsmConvertConfig(GmpSm& gmp, SsmConvertConfig& config);
        void handleGroup(const Wirl::IpGenAddr& group) override;

        CASK_RECORD_MAP(ssmConvertGroup, SsmConvertGroup, Wirl::IpGenAddr, RhoSsmConvertGroup,
                        "Routing::Pim::SparseMode::GmpSm::RhoSsmConvertConfig")

    private:
        GmpSm& gmp_;
        Cask::RecordMap<Wirl::IpGenAddr, RhoSsmConvertGroup> ssmConvertGroup_;
    };

    static constexpr Cask::Seconds defaultReviewQuantum = 0.1;
    // A full review follows configuration changes, which come in bursts:
    // wait a little so that a burst costs one review.
    static constexpr Cask::Seconds reviewMinDelay = 0.1;
    static constexpr Cask::Seconds reviewMaxDelay = 1.0;

    // Reads from the context: loop, config, status, membership, localStatus,
    // ssmGroupInfo, groupFilterStatus (required); mcastBoundaryStatus and
    // ssmConvertConfig (may be absent).
    explicit GmpSm(const VrfContext& ctx);
    ~GmpSm() override;

    const L3::VrfName& vrfName() const { return in_.vrfName; }
    const VrfContext& inputs() const { return in_; }
    SsmConvertConfig* ssmConvertConfig() const { return in_.ssmConvertConfig; }
    GmpChangeSm* gmpChangeSm() const { return gmpChangeSm_.get(); }

    // Decides one membership and writes the outcome to its route's Intf.
    void doUpdateMembership(const RouteIntfKey& key);
    // Asks for a full review; one asked for while a review is in progress
    // runs again from the start once that review has finished.
    void doUpdateReviewTimer();
    void doUpdateChildReviewTimer();

    // Creates the full review (none scheduled) and the child.
    void handleInit();
    void handleBoundary(Wirl::IntfId intf);
    void handleGroupFilterStatus();
    void handleSsmConfigChanged();
    // Re-decides every interface of `route` that carries a local receiver.
    void handleRouteInit(Route& route);
    // The conversion configuration of `group` appeared, went or changed
    // (`sources` as it is, or as it was when the group was removed).
    void handleSsmConvertGroup(const Wirl::IpGenAddr& group, const SsmConvertGroup& sources);
    void handleSsmConvertSource(const Wirl::IpGenAddr& group, const Wirl::IpGenAddr& source);

    // LocalStatus: keep one route reactor per route.
    void handleSgRoute(const Routing::Pim::RouteKey& key) override;
    void handleWcRoute(const Routing::Pim::RouteKey& key) override;

    // False for groups sparse mode must leave alone (bidirectional ranges).
    bool groupPermitted(const Wirl::IpGenAddr& group) const;
    // Why doUpdateMembership gives the membership `key` no receiver on its
    // route (the same tests, in the same order; kept beside it so the two
    // cannot drift apart), or null when it counts. For people reading the
    // table: nothing in the agent acts on the answer.
    const char* ignoredReason(const RouteIntfKey& key) const;

    const RouteIntfKey& reviewBookmark() const { return review_->bookmark(); }
    Cask::Seconds reviewQuantum() const { return review_->quantum(); }
    void reviewQuantumIs(Cask::Seconds q) { review_->quantumIs(q); }
    const Cask::ReviewTimer& reviewTimer() const { return review_->timer(); }
    RhoSsmConvertConfig* rhoSsmConvertConfig() const { return rhoSsmConvertConfig_.get(); }

    // Memberships of link-local groups, which are never routed.
    CASK_COUNTER(std::uint32_t, ignoredLinkLocal, IgnoredLinkLocal)

    // The route reactors, one per route of LocalStatus's collections that
    // was announced before it was initialized.
    RhoRoute* sgRoute(const Routing::Pim::RouteKey& k) const { return sgRoute_.get(k); }
    bool sgRouteHas(const Routing::Pim::RouteKey& k) const { return sgRoute_.has(k); }
    std::size_t sgRouteSize() const { return sgRoute_.size(); }
    RhoRoute* wcRoute(const Routing::Pim::RouteKey& k) const { return wcRoute_.get(k); }
    bool wcRouteHas(const Routing::Pim::RouteKey& k) const { return wcRoute_.has(k); }
    std::size_t wcRouteSize() const { return wcRoute_.size(); }
    const auto& wcRouteMap() const { return wcRoute_; }
    const auto& sgRouteMap() const { return sgRoute_; }

private:
    class ConfigWatcher;
    class GroupFilterWatcher;
    // The reactors of the routes not yet initialized: few, in an index of
    // their own.
    using RouteMap = Cask::ReactorMap<Routing::Pim::RouteKey, RhoRoute>;

    bool ssmConverted(const RouteIntfKey& key) const;
    void doCreateReview();
    void doRequeueMemberships(const Routing::Pim::RouteKey& key);
    void doTrackRoute(const Routing::Pim::RouteKey& key, Route* route, RouteMap& reactors);

    const VrfContext& in_;
    std::uint32_t ignoredLinkLocal_ = 0;
    // The membership being decided, so that the route reactor it wakes does
    // not decide it a second time.
    RouteIntfKey deciding_;
    // The full review, over the whole membership table.
    std::unique_ptr<Cask::SlicedReview<RouteIntfKey>> review_;
    RouteMap sgRoute_;
    RouteMap wcRoute_;
    std::unique_ptr<GmpChangeSm> gmpChangeSm_;
    std::unique_ptr<ConfigWatcher> configWatcher_;
    std::unique_ptr<GroupFilterWatcher> groupFilterWatcher_;
    std::unique_ptr<Routing::McastBoundary::StatusWatcher> boundaryWatcher_;
    std::unique_ptr<RhoSsmConvertConfig> rhoSsmConvertConfig_;
};

// Creates the VRF's GmpSm and its child, and starts them.
Cask::Ptr<GmpSm> gmpSmFactory(const VrfContext& ctx);

}  // namespace Routing::Pim::SparseMode
