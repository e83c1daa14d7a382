#pragma once
// MfibSm: the output stage of a VRF's sparse-mode agent. For every
// programmable route it builds one forwarding record (incoming interface,
// fast-failover incoming interface, notify and fast-drop interfaces, flags
// and the outgoing-interface bitmap) and writes it into the VRF's
// forwarding table, which the forwarding plane reads.
// Watches: LocalStatus routes, each route's flags, upstreams and interfaces, clear requests.
// Writes:  the VRF's forwarding table: records, interface indexes, reference counts.
//
// It also owns the mapping from interfaces to bitmap indexes: an interface
// gets an index (lowest free first) when a record first needs it, every
// record setting the bit holds a reference, and the index returns to the
// back of the free pool when the last reference goes. When all 512 indexes
// are taken the route is written without the interface and waits on
// `routeWaitlist`; every commit hands a freed index to the oldest waiting
// route by raising a change on it.
//
// Per route it keeps one reactor (RhoSgRoute, RhoWcRoute) that marks the
// route dirty whenever the route, its upstream or one of its interfaces
// changes; RhoLocalStatus creates and removes the reactors as routes come
// and go. Dirty routes are built once each when the event loop's current
// handler chain has settled (`atEndOfTurn`), so a burst of changes to a
// route in one turn costs one build and commits no transient record.
// Without a loop (unit tests of the build) every mark builds at once. A turn
// that has already run for `buildQuantum` (measured from the turn's start)
// builds no more than one route: the rest is built on the next turns, a
// quantum at a time.
// Records left in the table by an earlier run are kept when the agent still
// holds their route (so forwarding continues across a restart) and removed
// otherwise.

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include <absl/container/btree_set.h>

#include "cask/event_loop.h"
#include "cask/reactor_map.h"
#include "pimsm/common/vrf_context.h"
#include "pimsm/route/local_status.h"
#include "pimsm/route/status.h"
#include "platform/mfib_records.h"
#include "platform/mfib_table.h"
#include "wirl/vrf_name.h"

namespace Routing::Pim::SparseMode {

namespace TMF = ::Tidal::Multicast::Fib;

class MfibSm;

// Adds `intfId` to `record`'s bitmap, giving it an index when it has none.
// Returns the index set, or the empty index when the bit was already set or
// no index was free (the route then waits).
TMF::OifIndex addTidalRouteOif(MfibSm& mfibSm, TMF::Route& record, Wirl::IntfId intfId);
// Clears `intfId`'s bit in `record`; returns its index, or the empty index
// when the interface has none.
TMF::OifIndex delTidalRouteOif(MfibSm& mfibSm, TMF::Route& record, Wirl::IntfId intfId);

class MfibSm : public Routing::Multicast::Fib::Config::Notifiee {
public:
    // Rebuilds one route's record on any change of the route, its upstream
    // or its interfaces. Shared by both kinds of route.
    class RhoRoute : public RouteReactor {
    public:
        RhoRoute(MfibSm& sm, Route& route);
        ~RhoRoute() override;
        RhoRoute(const RhoRoute&) = delete;
        RhoRoute& operator=(const RhoRoute&) = delete;

        Route* route() const { return notifier(); }
        // A record was built at least once.
        bool initialized() const { return initialized_; }

        // Any change of the route: marks it dirty.
        void handleRoute() { sm_.doMarkDirty(*this); }
        // Builds the route's record (or removes it when the route is not
        // programmable); run for a dirty route.
        virtual void doBuildRecord() = 0;
        // The route left the collection: its record goes.
        void handleDelete();
        void handleRouteIntf(Wirl::IntfId intfId) override;
        virtual void handleRpf() { handleRoute(); }
        void handleChangeFlags() override { handleRoute(); }
        void handleRouteChanged() override { handleRoute(); }
        void handleMfibChangeCount() override { handleRoute(); }
        void handleRouteFlags() override { handleRoute(); }
        void handleRegisterOifEvaluated() override { handleRoute(); }
        void handleUmhFrr() override;
        void handleIifSwitchState() override { handleRoute(); }
        // The route's interfaces and both its upstreams, through the route.
        void handleIntfAttr(Intf& intf, IntfAttr attr) override;
        void handleUmhAttr(UpstreamInfo& umh, UmhAttr attr) override;

    protected:
        // Called when one of the route's interfaces changed.
        virtual void handleIntfChanged(Wirl::IntfId intfId);
        // The record build shared by both kinds of route; `withWc` adds
        // the interfaces inherited from the group's (*,G) route.
        void doBuild(bool withWc);

        MfibSm& sm_;
        bool initialized_ = false;

    private:
        friend class MfibSm;
        // Waiting in the machine's dirty list to be built.
        bool queued_ = false;
    };

    class RhoSgRoute : public RhoRoute {
    public:
        using RhoRoute::RhoRoute;
        void doBuildRecord() override;
        void handleWcRouteChanged() override { handleRoute(); }
    };

    class RhoWcRoute : public RhoRoute {
    public:
        using RhoRoute::RhoRoute;
        void doBuildRecord() override;
        // Changes the group's (S,G) routes see: their inherited interfaces
        // and their fast-drop interface.
        void handleRpf() override { handleIntfChanged(Wirl::IntfId()); }
        void handleUpJoinState() override { handleIntfChanged(Wirl::IntfId()); }
        // The (S,G) records of the group carry it as notify-programmable.
        void handleProgrammable() override { handleIntfChanged(Wirl::IntfId()); }

    protected:
        void handleIntfChanged(Wirl::IntfId intfId) override;
    };

    // Creates and removes the per-route reactors as routes enter and leave
    // the VRF's route collections.
    class RhoLocalStatus : public LocalStatus::Notifiee {
    public:
        explicit RhoLocalStatus(MfibSm& sm) : sm_(sm) {}
        void handleSgRoute(const Routing::Pim::RouteKey& key) override;
        void handleWcRoute(const Routing::Pim::RouteKey& key) override;

    private:
        MfibSm& sm_;
    };

    // The (*,G) routes' reactors, in the VRF's route directory.
    using WcRhoMap = Cask::ReactorMap<Routing::Pim::RouteKey, RhoWcRoute, Cask::SharedIndex>;

    // The longest a turn runs before dirty routes wait for the next one.
    static constexpr Cask::Seconds buildQuantum = 0.1;

    // Reads from the context: mfibTidal and localStatus (required); status
    // (the routes the agent holds, for the restart check), mfibConfig (clear
    // requests) and loop (without one, records are built at once) may be
    // absent.
    explicit MfibSm(const VrfContext& ctx);
    ~MfibSm() override;

    const L3::VrfName& vrfName() const { return vrfName_; }
    TMF::Status& mfibTidal() const { return *mfibTidal_; }
    LocalStatus& localStatus() const { return *localStatus_; }
    bool initialized() const { return initialized_; }

    // Builds the free pool, repairs what the stored table contradicts itself
    // on (reported to the table's corruption handler), removes records no
    // route of the agent matches, and creates the reactors of the routes
    // already present. Runs once.
    void handleInit();

    // --- interface / index mapping --------------------------------------
    TMF::OifIndex intfOifIndex(Wirl::IntfId intfId) const;
    std::size_t intfOifIndexSize() const { return intfOifIndex_.size(); }
    std::size_t oifIndexFreePoolSize() const { return oifIndexFreePool_.size(); }
    bool oifIndexFreePoolInitialized() const { return oifIndexFreePoolInitialized_; }
    // Indexes 0 to limit-1 are handed out; set before the pool is built.
    std::uint32_t oifIndexFreePoolLimit() const { return oifIndexFreePoolLimit_; }
    void oifIndexFreePoolLimitIs(std::uint32_t limit);
    void oifIndexFreePoolInit();
    TMF::OifIndex createOifIndexMapping(Wirl::IntfId intfId);
    void doUpdateOifIndexRefCount(const Routing::Multicast::Fib::IpGenRouteKey& mfibKey,
                                  TMF::OifIndex oifIndex, bool increment);
    // Brings the reference counts from the table's record of the key to
    // `record`, one update per bit that changes.
    void doSyncTidalRouteRefCount(const TMF::Route& record);
    // The same, given the table's record of the key (null: none).
    void doSyncTidalRouteRefCount(const TMF::Route& record, const TMF::Route* stored);

    // --- wait list --------------------------------------------------------
    const std::deque<Routing::Pim::RouteKey>& routeWaitlist() const { return routeWaitlist_; }
    void doPlaceRouteOnWait(const Routing::Pim::RouteKey& routeKey);
    void doReviewRouteWaitlist();

    // --- records ------------------------------------------------------------
    void doCommitTidalRoute(const TMF::Route& record);
    // The same, given the table's record of the key (null: none).
    void doCommitTidalRoute(const TMF::Route& record, const TMF::Route* stored);
    void handleDelete(const Routing::Pim::RouteKey& routeKey);
    // Whether a reactor's route may have a record. The reactor maps follow LocalStatus as it
    // changes, so the route is the one LocalStatus holds under its key: no lookup is needed.
    bool isProgrammableRoute(const Route& route) const;
    // Adds / removes one interface of a route already in the table.
    void doAddTidalRouteIntf(const Routing::Pim::RouteKey& routeKey, Wirl::IntfId intfId,
                             TMF::Route::RouteFlags flags);
    void doDelTidalRouteIntf(const Routing::Pim::RouteKey& routeKey, Wirl::IntfId intfId,
                             TMF::Route::RouteFlags flags);
    // Removes every record of the VRF (and with them every reference).
    void handleClearMfib();
    void handleClearMfibCount() override { handleClearMfib(); }

    // --- flags ----------------------------------------------------------------
    void setIifRegister(const Route& route);
    void setOifRegister(const Route& route, TMF::Route::RouteFlags& flags);
    void setToCpuFlag(const Route& route, TMF::Route::RouteFlags& flags);
    void setNoRpfFlag(Wirl::IntfId iif, TMF::Route::RouteFlags& flags);

    // Re-runs the (S,G) routes of `wcKey`'s group after a (*,G) change.
    void handleInheritedWcIntf(const Routing::Pim::RouteKey& wcKey);

    // The reactor of a route, for tests; null when there is none.
    RhoRoute* rho(const Routing::Pim::RouteKey& key) const;
    RhoWcRoute* rhoWcRoute(const Routing::Pim::RouteKey& key) const { return wcRho_.get(key); }
    const WcRhoMap& wcRhoMap() const { return wcRho_; }

    // --- deferred builds ------------------------------------------------------
    // Marks a route dirty; it is built when the turn's handler chain settles.
    void doMarkDirty(RhoRoute& rho);
    // Builds every dirty route once, in key order (and routes marked dirty
    // by those builds).
    void doBuildDirty();
    std::size_t dirtyRoutes() const { return dirtyCount_; }
    // Records built so far.
    std::uint64_t builds() const { return builds_; }

private:
    friend TMF::OifIndex addTidalRouteOif(MfibSm&, TMF::Route&, Wirl::IntfId);
    friend TMF::OifIndex delTidalRouteOif(MfibSm&, TMF::Route&, Wirl::IntfId);
    friend class RhoLocalStatus;
    friend class RhoRoute;

    void doFreeOifIndex(TMF::OifIndex oifIndex, Wirl::IntfId intfId);
    // Notes that an index's reference count changed; written to the table
    // at once, or when the build pass under way ends.
    void doMarkRefCountChanged(TMF::OifIndex oifIndex);
    void doFlushRefCounts();
    // Reports an inconsistency of the stored table to its corruption
    // handler and traces it; the caller repairs it.
    void doReportCorruption(const char* where, const std::string& what);
    // At start, makes the stored records agree with the stored mapping:
    // bits without an interface are cleared and every reference count is
    // set to the number of records using the index, so the counting that
    // follows never meets a count it did not make.
    void doRepairStoredRecords();
    // Frees indexes handed out during a build that no record ended up using.
    void doReleaseUnusedIndexes();
    bool routeHeld(const Routing::Pim::RouteKey& key) const;

    L3::VrfName vrfName_;
    Cask::Ptr<TMF::Status> mfibTidal_;
    Cask::Ptr<Status> routeStatus_;
    Cask::Ptr<LocalStatus> localStatus_;
    Cask::Ptr<Routing::Multicast::Fib::Config> mfibConfig_;
    Cask::EventLoop* loop_ = nullptr;
    RhoLocalStatus rhoLocalStatus_{*this};
    Cask::ReactorMap<Routing::Pim::RouteKey, RhoSgRoute> sgRho_;
    // The (S,G) keys ordered by group then source, so that a group's (S,G)
    // routes are adjacent. B-trees here and below hold keys without a node
    // allocation each.
    absl::btree_set<Routing::Pim::RouteKey> sgKeys_;
    WcRhoMap wcRho_;
    // The dirty routes' keys, built in key order from `dirtyNext_` on. A
    // reactor is listed once while it waits (`queued_`); the key of one that
    // went meanwhile stays in the list and is passed over. Routes are mostly
    // marked in key order, so the list is sorted only when one was not.
    std::vector<Routing::Pim::RouteKey> dirty_;
    std::size_t dirtyNext_ = 0;
    bool dirtySorted_ = true;
    std::size_t dirtyCount_ = 0;  // reactors waiting
    static constexpr std::size_t keptDirtyKeys = 4096;
    bool buildScheduled_ = false;
    std::uint64_t builds_ = 0;
    // Lets a scheduled build see that the machine is gone.
    std::shared_ptr<MfibSm*> self_ = std::make_shared<MfibSm*>(this);

    std::unordered_map<Wirl::IntfId, TMF::OifIndex> intfOifIndex_;
    std::deque<TMF::OifIndex> oifIndexFreePool_;
    std::uint32_t oifIndexFreePoolLimit_ = TMF::OifIndex::count;
    bool oifIndexFreePoolInitialized_ = false;
    std::vector<TMF::OifIndex> freshIndexes_;
    // Each index's count of records setting its bit, kept here as it changes.
    // A build pass writes a changed count into the table once, when it ends,
    // instead of once per record; a count that drops to zero frees its index
    // at once, as outside a pass.
    std::array<std::uint32_t, TMF::OifIndex::count> refCount_{};
    std::array<std::uint64_t, TMF::Route::bitmapWords> refCountChanged_{};  // a bit per index
    bool batchRefCounts_ = false;
    std::deque<Routing::Pim::RouteKey> routeWaitlist_;
    Cask::HashSet<Routing::Pim::RouteKey> waiting_;
    bool reviewingWaitlist_ = false;
    bool initialized_ = false;
};

// Creates the machine, initializes it against the table's current contents
// and builds the records of the routes already present.
std::unique_ptr<MfibSm> mfibSmFactory(const VrfContext& ctx);

}  // namespace Routing::Pim::SparseMode
