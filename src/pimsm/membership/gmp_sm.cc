#include "pimsm/membership/gmp_sm.h"

#include <vector>

#include <boost/container/small_vector.hpp>

#include "cask/assert.h"
#include "cask/trace.h"
#include "pimsm/common/vrf_inputs.h"
#include "wirl/ip_gen_prefix.h"

namespace Routing::Pim::SparseMode {

using Routing::Gmp::Tidal::FilterMode;
using Routing::Gmp::Tidal::Membership;
using Routing::Pim::RouteKey;

// --- watchers of the inputs that call for a full review --------------------

class GmpSm::ConfigWatcher : public Config::Notifiee {
public:
    ConfigWatcher(GmpSm& gmp, Config& config) : gmp_(gmp) { notifierIs(&config); }
    void handleSsmRange() override { gmp_.handleSsmConfigChanged(); }

private:
    GmpSm& gmp_;
};

class GmpSm::GroupFilterWatcher : public Routing::Pim::GroupFilterStatus::Notifiee {
public:
    GroupFilterWatcher(GmpSm& gmp, Routing::Pim::GroupFilterStatus& status) : gmp_(gmp) {
        notifierIs(&status);
    }
    void handleBidirRange() override { gmp_.handleGroupFilterStatus(); }

private:
    GmpSm& gmp_;
};

// --- SSM conversion reactors -----------------------------------------------

GmpSm::RhoSsmConvertGroup::RhoSsmConvertGroup(GmpSm& gmp, Cask::Ptr<SsmConvertGroup> group)
    : gmp_(gmp), group_(std::move(group)) {
    notifierIs(group_.get());
}

void GmpSm::RhoSsmConvertGroup::handleSource(const Wirl::IpGenAddr& source) {
    gmp_.handleSsmConvertSource(group_->group(), source);
}

GmpSm::RhoSsmConvertConfig::RhoSsmConvertConfig(GmpSm& gmp, SsmConvertConfig& config) : gmp_(gmp) {
    notifierIs(&config);
    // The memberships of groups configured already are queued with their
    // conversions when the change machine starts: only watch them here.
    for (const auto& [group, record] : config.group()) {
        ssmConvertGroupIs(group, Cask::make<RhoSsmConvertGroup>(gmp_, record));
    }
}

void GmpSm::RhoSsmConvertConfig::handleGroup(const Wirl::IpGenAddr& group) {
    Cask::Ptr<SsmConvertGroup> current = notifier()->group(group);
    Cask::Ptr<RhoSsmConvertGroup> old = ssmConvertGroup(group);
    if (old && current && &old->group() == current.get()) return;
    if (old) {
        ssmConvertGroupDel(group);
        gmp_.handleSsmConvertGroup(group, old->group());
    }
    if (current) {
        ssmConvertGroupIs(group, Cask::make<RhoSsmConvertGroup>(gmp_, current));
        gmp_.handleSsmConvertGroup(group, *current);
    }
}

void GmpSm::RhoRoute::handleInitialized() {
    if (notifier()->initialized()) gmp_.handleRouteInit(*notifier());
}

// --- GmpSm -------------------------------------------------------------------

GmpSm::GmpSm(const VrfContext& ctx)
    : in_(requireInputs(ctx, "GmpSm", &VrfContext::loop, &VrfContext::config, &VrfContext::status,
                        &VrfContext::membership, &VrfContext::localStatus,
                        &VrfContext::ssmGroupInfo, &VrfContext::groupFilterStatus)) {}

GmpSm::~GmpSm() {
    // The child and the watchers call back into this machine: stop them
    // first. The route table's flags are left as they are.
    gmpChangeSm_.reset();
    rhoSsmConvertConfig_.reset();
    boundaryWatcher_.reset();
    groupFilterWatcher_.reset();
    configWatcher_.reset();
    notifierIs(nullptr);
    sgRoute_.clear();
    wcRoute_.clear();
}

void GmpSm::handleInit() {
    CASK_VRF_TRACE(6, vrfName(), "GmpSm:handleInit()");
    doCreateReview();
    gmpChangeSm_ = gmpChangeSmFactory(*this, *in_.membership, *in_.loop);
    configWatcher_ = std::make_unique<ConfigWatcher>(*this, *in_.config);
    groupFilterWatcher_ = std::make_unique<GroupFilterWatcher>(*this, *in_.groupFilterStatus);
    if (in_.mcastBoundaryStatus) {
        boundaryWatcher_ = std::make_unique<Routing::McastBoundary::StatusWatcher>(
            *in_.mcastBoundaryStatus, [this](Wirl::IntfId intf) { handleBoundary(intf); });
    }
    if (in_.ssmConvertConfig) {
        rhoSsmConvertConfig_ = std::make_unique<RhoSsmConvertConfig>(*this, *in_.ssmConvertConfig);
    }
    notifierIs(in_.localStatus);
    RouteMap::sweep(in_.localStatus->sgRoute(), [this](const RouteKey& k) { handleSgRoute(k); });
    RouteMap::sweep(in_.localStatus->wcRoute(), [this](const RouteKey& k) { handleWcRoute(k); });
}

bool GmpSm::groupPermitted(const Wirl::IpGenAddr& group) const {
    // A group of no family is no group: let the caller reject it as such.
    if (group.family() == Wirl::AddressFamily::ipunknown) return true;
    // No bidirectional range (the usual case): nothing to look up.
    const Routing::Pim::GroupFilterStatus& filter = *in_.groupFilterStatus;
    return filter.bidirRange().empty() || filter.permitGroup(Wirl::IpGenPrefix::hostPrefix(group));
}

bool GmpSm::ssmConverted(const RouteIntfKey& key) const {
    if (!in_.ssmConvertConfig) return false;
    const Wirl::IpGenAddr& group = key.routeKey.group();
    const SsmConvertGroup* sources = in_.ssmConvertConfig->group().raw(group);
    if (!sources) return false;
    const RouteIntfKey wcKey{RouteKey::wc(group), key.intf};
    if (in_.membership->membership(wcKey).filterMode != FilterMode::include) return false;
    return sources->sourceHas(key.routeKey.source());
}

const char* GmpSm::ignoredReason(const RouteIntfKey& key) const {
    const Wirl::IpGenAddr& group = key.routeKey.group();
    const Wirl::IpGenAddr& source = key.routeKey.source();
    if (!groupPermitted(group)) return "bidirectional range";
    if (group.family() != in_.localStatus->family() || !group.isMulticast()) return "not multicast";
    if (group.isLinkLocalMulticast()) return "link-local group";
    if (source.family() != group.family() || !(source.isUnicast() || source.isUnspecified())) {
        return "invalid source";
    }
    if (ssmConverted(key) || !in_.ssmGroupInfo->ssmGroup(group, *in_.config)) return nullptr;
    const Membership m = in_.membership->membership(key);
    if (m.isDefault()) return nullptr;
    if (m.filterMode != FilterMode::include) return "SSM range, exclude mode";
    return source.isUnspecified() ? "SSM range, any source" : nullptr;
}

void GmpSm::doUpdateMembership(const RouteIntfKey& key) {
    const Wirl::IpGenAddr& group = key.routeKey.group();
    const Wirl::IpGenAddr& source = key.routeKey.source();
    const L3::VrfName& vrf = vrfName();
    if (!groupPermitted(group)) {
        CASK_VRF_TRACE(7, vrf, "GmpSm:doUpdateMembership({}), ignoring bidirectional group", group);
        return;
    }
    if (group.family() != in_.localStatus->family() || !group.isMulticast()) {
        CASK_VRF_TRACE(7, vrf, "GmpSm:doUpdateMembership({}), invalid group", group);
        return;
    }
    if (group.isLinkLocalMulticast()) {
        // Link-local groups stay on their link: no route, no Join, no forwarding.
        CASK_VRF_TRACE(7, vrf, "GmpSm:doUpdateMembership({}), ignoring link-local group", group);
        ignoredLinkLocalInc();
        return;
    }
    if (source.family() != group.family() || !(source.isUnicast() || source.isUnspecified())) {
        CASK_VRF_TRACE(7, vrf, "GmpSm:doUpdateMembership({}), invalid source: {}", group, source);
        return;
    }

    const bool ssmConvert = ssmConverted(key);
    const bool ssm = in_.ssmGroupInfo->ssmGroup(group, *in_.config);
    bool include = false;
    bool exclude = false;
    const Membership m = in_.membership->membership(key);
    if (!m.isDefault()) {
        // In the SSM range only a source-specific include counts; outside
        // it every membership counts, as include or as exclude.
        if (m.filterMode == FilterMode::include) include = !ssm || !source.isUnspecified();
        if (!include) exclude = !ssm;
    }
    CASK_VRF_TRACE(8, vrf,
                   "GmpSm:doUpdateMembership{} {}, include: {}, exclude: {}, ssmConvert: {}",
                   key.routeKey, key.intf, include, exclude, ssmConvert);

    const bool wanted = include || exclude || ssmConvert;
    const bool newInclude = include || ssmConvert;
    // Writes the decision to the route's Intf, creating the Intf if needed.
    auto decide = [&](Route& route) {
        Cask::Ptr<Intf> intf = route.routeIntf(key.intf);
        if (!intf) {
            if (!wanted) return;
            CASK_VRF_TRACE(6, vrf, "GmpSm:doUpdateMembership(), Add interface {} to route {}",
                           key.intf, key.routeKey);
            CASK_EVENT(
                "GmpSm: Add interface {} to route{}, include: {}, exclude: {}, ssmConvert: {}",
                key.intf, key.routeKey, include, exclude, ssmConvert);
            intf = route.routeIntfIs(key.intf);
            if (!intf) return;  // over the agent's interface limit (traced there)
        } else {
            CASK_EVENT("GmpSm: Interface {}, Route: {}, include: {} --> {}, exclude: {} --> {}",
                       key.intf, key.routeKey, intf->localReceiverInclude(), newInclude,
                       intf->localReceiverExclude(), exclude);
        }
        const RouteIntfKey outer = deciding_;
        deciding_ = key;
        intf->localReceiverIncludeIs(newInclude);
        intf->localReceiverExcludeIs(exclude);
        intf->initializedIs(true);
        route.initializedIs(true);
        deciding_ = outer;
    };
    if (Cask::Ptr<Route> route = in_.status->route(key.routeKey)) {
        decide(*route);
        return;
    }
    if (!wanted) return;  // nothing to withdraw
    CASK_VRF_TRACE(4, vrf, "GmpSm:doUpdateMembership(), Create route {}", key.routeKey);
    CASK_EVENT("GmpSm: Create route{}", key.routeKey);
    // The receiver is written before the route is inserted, so the other
    // machines meet the route with its receiver: none of them acts on a route
    // without outgoing interface (no transient forwarding record). The route
    // reactor woken by the insertion must not decide this membership again.
    const RouteIntfKey outer = deciding_;
    deciding_ = key;
    in_.status->routeIs(key.routeKey, decide);  // null over the route limit (traced there)
    deciding_ = outer;
}

void GmpSm::doCreateReview() {
    Cask::SlicedReview<RouteIntfKey>::Steps steps;
    steps.walk = Cask::orderedWalk(in_.membership->membership());
    steps.visit = [this](const RouteIntfKey& k) { doUpdateMembership(k); };
    Cask::ReviewTexts texts{.vrf = fmt::to_string(vrfName()), .name = "GmpSm:doReview: "};
    texts.resume = "Resuming review at {}";
    review_ = std::make_unique<Cask::SlicedReview<RouteIntfKey>>(
        *in_.loop, Cask::ReviewTiming{reviewMinDelay, reviewMaxDelay}, std::move(texts),
        std::move(steps));
    review_->quantumIs(defaultReviewQuantum);
}

void GmpSm::doUpdateReviewTimer() {
    CASK_VRF_TRACE(8, vrfName(), "GmpSm:doUpdateReviewTimer");
    // During a review the keys before the bookmark were decided on the old
    // inputs: the review runs once more after it.
    review_->request();
}

void GmpSm::doUpdateChildReviewTimer() {
    gmpChangeSm_->doUpdateReviewTimer();
}

void GmpSm::handleBoundary(Wirl::IntfId intf) {
    CASK_VRF_TRACE(6, vrfName(), "GmpSm:handleBoundary({})", intf);
    doUpdateReviewTimer();
}

void GmpSm::handleGroupFilterStatus() {
    CASK_VRF_TRACE(6, vrfName(), "GmpSm:handleGroupFilterStatus()");
    if (gmpChangeSm_) gmpChangeSm_->handleGroupFilterChanged();
    doUpdateReviewTimer();
}

void GmpSm::handleSsmConfigChanged() {
    CASK_VRF_TRACE(6, vrfName(), "GmpSm:handleSsmConfigChanged()");
    doUpdateReviewTimer();
}

void GmpSm::handleRouteInit(Route& route) {
    CASK_VRF_TRACE(6, vrfName(), "GmpSm:handleRouteInit({})", route.key());
    // Deciding may add interfaces to the route: walk a copy.
    boost::container::small_vector<Wirl::IntfId, 4> receivers;
    for (const auto& [id, intf] : route.routeIntf()) {
        if (intf->localReceiverInclude() || intf->localReceiverExclude()) receivers.push_back(id);
    }
    for (Wirl::IntfId id : receivers) {
        const RouteIntfKey key{route.key(), id};
        if (key != deciding_) doUpdateMembership(key);
    }
}

void GmpSm::handleSsmConvertGroup(const Wirl::IpGenAddr& group, const SsmConvertGroup& sources) {
    CASK_VRF_TRACE(6, vrfName(), "GmpSm:handleSsmConvertGroup({})", group);
    for (const Wirl::IpGenAddr& source : sources.source()) handleSsmConvertSource(group, source);
}

void GmpSm::handleSsmConvertSource(const Wirl::IpGenAddr& group, const Wirl::IpGenAddr& source) {
    // Every interface with a (*,G) membership now stands, or no longer
    // stands, for (source, G) there.
    const RouteKey wc = RouteKey::wc(group);
    const RouteKey sg(source, group);
    const auto& table = in_.membership->membership();
    GmpChangeStatus& changes = *gmpChangeSm_->gmpChangeStatus();
    for (auto it = table.lowerBound(RouteIntfKey{wc, Wirl::IntfId()});
         it != table.end() && it->first.routeKey == wc; ++it) {
        CASK_VRF_TRACE(7, vrfName(), "GmpSm:handleSsmConvertSource{} handle Intf: {}", sg,
                       it->first.intf);
        changes.changedRouteIntfIs(RouteIntfKey{sg, it->first.intf});
    }
}

void GmpSm::doTrackRoute(const RouteKey& key, Route* route, RouteMap& reactors) {
    // A replaced route's watch goes with it.
    RhoRoute* watch = reactors.get(key);
    if (watch && watch->reactorRecord() == route) return;
    if (watch) reactors.del(key);
    if (!route) {
        // The route review removed a route (a clear, a deletion) that the
        // membership table may still ask for: decide its memberships again,
        // so that every receiver comes back, exclude ones included, and not
        // only those the review re-creates itself.
        doRequeueMemberships(key);
        return;
    }
    // A new or replaced route may come with receivers already decided: they
    // are decided again now. One made by a membership is initialized before
    // it is announced, so most routes cost nothing more here; the others
    // are watched until they are initialized.
    if (route->initialized()) {
        handleRouteInit(*route);
    } else {
        reactors.add(*route, *this);
    }
}

void GmpSm::doRequeueMemberships(const RouteKey& key) {
    if (!gmpChangeSm_) return;
    const auto& table = in_.membership->membership();
    GmpChangeStatus& changes = *gmpChangeSm_->gmpChangeStatus();
    for (auto it = table.lowerBound(RouteIntfKey{key, Wirl::IntfId()});
         it != table.end() && it->first.routeKey == key; ++it) {
        changes.changedRouteIntfIs(it->first);
    }
    // An (S,G) route that SSM conversion derives from (*,G) memberships.
    const SsmConvertGroup* sources =
        in_.ssmConvertConfig ? in_.ssmConvertConfig->group().raw(key.group()) : nullptr;
    if (!key.isWc() && sources && sources->sourceHas(key.source())) {
        handleSsmConvertSource(key.group(), key.source());
    }
}

void GmpSm::handleSgRoute(const RouteKey& key) {
    doTrackRoute(key, in_.localStatus->sgRoute().raw(key), sgRoute_);
}

void GmpSm::handleWcRoute(const RouteKey& key) {
    doTrackRoute(key, in_.localStatus->wcRoute().raw(key), wcRoute_);
}

Cask::Ptr<GmpSm> gmpSmFactory(const VrfContext& in) {
    auto gmp = Cask::make<GmpSm>(in);
    gmp->handleInit();
    return gmp;
}

}  // namespace Routing::Pim::SparseMode
