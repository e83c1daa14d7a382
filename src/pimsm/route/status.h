#pragma once
// Status: the VRF's sparse-mode route status, the one place routes are
// created (`routeIs`) and removed (`routeDel`, by the route review only).
// The route reactor registers each route it finds here into LocalStatus.
//
// It owns the RouteContext every route of the VRF reads its derived values
// through, and walks in key order so that a review suspended at a key can
// resume there even if that route was removed in between.
//
// The route reactor also keeps here the indexes other machines look routes
// up by: the number of routes per group, each source's groups and each
// group's sources (of (S,G) routes: a (*,G) route has no source), and the
// number of (*,G) and (S,G) routes.

#include <cstdint>
#include <functional>
#include <vector>

#include <absl/container/btree_map.h>
#include <absl/functional/function_ref.h>

#include "cask/clock.h"
#include "cask/collection.h"
#include "pimsm/route/route.h"
#include "platform/route_key.h"

namespace Routing::Pim::SparseMode {

// The groups of one source, or the sources of one group, of the (S,G) routes.
class AddrSet : public Cask::Record<AddrSet> {
public:
    class Notifiee : public Cask::NotifieeOf<AddrSet> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleMember(const Wirl::IpGenAddr&) {}
    };
    explicit AddrSet(const Wirl::IpGenAddr& addr) : addr_(addr) {}
    // The source (or group) whose set this is.
    const Wirl::IpGenAddr& addr() const { return addr_; }
    CASK_KEY_SET(member, Member, Wirl::IpGenAddr)

private:
    Wirl::IpGenAddr addr_;
    Cask::OrderedKeySet<Wirl::IpGenAddr> member_;
};

class Status : public Cask::Record<Status> {
public:
    class Notifiee : public Cask::NotifieeOf<Status> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleRoute(const Routing::Pim::RouteKey&) {}
        virtual void handleInitialized() {}
        virtual void handleGroup(const Wirl::IpGenAddr&) {}
        virtual void handleSource(const Wirl::IpGenAddr&) {}
        virtual void handleGroupSource(const Wirl::IpGenAddr&) {}
        virtual void handleWcRouteCount() {}
        virtual void handleSgRouteCount() {}
    };

    Status(const Cask::Clock& clock, RouteContext context) : clock_(clock), context_(context) {}

    const RouteContext& context() const { return context_; }
    // Links the VRF's LocalStatus, which is created after this record; set
    // before any route exists.
    void contextLocalStatusIs(const LocalStatus* ls) { context_.localStatus = ls; }
    void contextLimitsIs(std::uint32_t maxRoutes, std::uint32_t maxRouteIntfs) {
        context_.maxRoutes = maxRoutes;
        context_.maxRouteIntfs = maxRouteIntfs;
    }

    CASK_COLLECTION_COMMON(route, Route, Routing::Pim::RouteKey)
    Cask::Ptr<Route> route(const Routing::Pim::RouteKey& k) const { return route_.get(k); }
    // The keys of the group's (S,G) routes, in source order: a copy, so the
    // caller may change routes while it walks them.
    std::vector<Routing::Pim::RouteKey> sgKeysOfGroup(const Wirl::IpGenAddr& group) const;
    // The route of `key`, created (flags for its kind set, creation time
    // now) when absent; null (traced and counted in the context) when the
    // VRF already holds the most routes the agent allows.
    Cask::Ptr<Route> routeIs(const Routing::Pim::RouteKey& key);
    // Same, with `prepare` run on a new route before it is inserted (and so
    // before any watcher hears of it): its creator's state comes with it.
    // `prepare` is borrowed for the call: a creator's lambda costs no copy.
    Cask::Ptr<Route> routeIs(const Routing::Pim::RouteKey& key,
                             absl::FunctionRef<void(Route&)> prepare);

    // Set once the routes of an earlier run have all been read back.
    CASK_ATTR(bool, initialized, Initialized)

    // Routes per group: `groupIs` counts one more route of the group,
    // `groupDel` one fewer; a group without routes has no entry.
    const auto& group() const { return group_; }
    std::uint32_t group(const Wirl::IpGenAddr& g) const { return group_.get(g); }
    bool groupHas(const Wirl::IpGenAddr& g) const { return group_.has(g); }
    std::size_t groupSize() const { return group_.size(); }
    void groupIs(const Wirl::IpGenAddr& g);
    void groupDel(const Wirl::IpGenAddr& g);

    // Source index: each source of an (S,G) route with its groups, and the
    // group-to-source map: each group of an (S,G) route with its sources.
    // `...Add` and `...Remove` keep both sides; an empty set is removed.
    CASK_RECORD_MAP(source, Source, Wirl::IpGenAddr, AddrSet, "Routing::Pim::SparseMode::Status")
    CASK_RECORD_MAP(groupSource, GroupSource, Wirl::IpGenAddr, AddrSet,
                    "Routing::Pim::SparseMode::Status")
    void sourceGroupAdd(const Wirl::IpGenAddr& source, const Wirl::IpGenAddr& group);
    void sourceGroupRemove(const Wirl::IpGenAddr& source, const Wirl::IpGenAddr& group);

    CASK_ATTR(std::uint32_t, wcRouteCount, WcRouteCount)
    CASK_ATTR(std::uint32_t, sgRouteCount, SgRouteCount)

private:
    const Cask::Clock& clock_;
    RouteContext context_;
    // In key order, so that a group's routes are one range. A B-tree holds
    // the entries in its nodes, without a tree node of its own per route;
    // entries move as others are inserted (the routes themselves do not).
    Cask::RecordMapOf<Routing::Pim::RouteKey, Route,
                      Cask::WideBtreeMap<Routing::Pim::RouteKey, Cask::Ptr<Route>>>
        route_;
    bool initialized_ = false;
    // In group order, like the routes: a burst of new groups appends.
    Cask::OrderedValueMap<Wirl::IpGenAddr, std::uint32_t> group_;
    Cask::RecordMap<Wirl::IpGenAddr, AddrSet> source_;
    Cask::RecordMap<Wirl::IpGenAddr, AddrSet> groupSource_;
    std::uint32_t wcRouteCount_ = 0;
    std::uint32_t sgRouteCount_ = 0;
};

}  // namespace Routing::Pim::SparseMode
