#pragma once
// The Join/Prune exchange between the agent's upstream machines and the PIM
// packet side of one VRF.
//
// Outgoing: `JoinPruneStatus` holds, per upstream neighbour, the contents of
// the Join/Prune messages to send to it, as three `JoinPruneData` sets: the
// periodic set (sent on every periodic Join/Prune), the pending triggered
// set and the pending override set (sent once, after the override delay).
// The upstream machines write contents only; the packet side owns every
// message timer and, having sent the pending sets, empties them with
// `pendingSent`.
// `JoinPruneNeighborSm` keeps one neighbour entry per PIM neighbour.
//
// Incoming: `JoinPruneRxStatus` carries the last decoded Join and Prune
// entry (`JoinPruneMessageInfo`) and the last whole decoded message
// (`JoinPruneMessage`); each one is announced, even when equal to the
// previous one, because every received message is an event. Received
// prunes waiting to take effect are remembered in `JoinPruneStatus::rxPrune`.
//
// `JoinPruneWriter` (join_prune_writer.h) is the one way the machines change
// the outgoing sets.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include <absl/container/btree_map.h>
#include <boost/container/flat_map.hpp>
#include <boost/container/small_vector.hpp>

#include "cask/collection.h"
#include "cask/lazy_set.h"
#include "platform/membership.h"
#include "platform/route_key.h"
#include "wirl/intf_id.h"
#include "wirl/ip_gen_addr.h"

namespace Routing::Pim {

// The (*,G) entry of a group's message part, keyed by the RP address.
struct WcSourceData {
    bool join = false;  // false: prune
    // Another router's Join(*,G) to the same neighbour was seen: the packet
    // side holds back this router's own periodic (*,G) Join (RFC 7761 4.5.4).
    bool wcSuppressed = false;
    bool operator==(const WcSourceData&) const = default;
};

// One group's part of a Join/Prune message.
class JoinPruneGroupData : public Cask::Record<JoinPruneGroupData> {
public:
    class Notifiee : public Cask::NotifieeOf<JoinPruneGroupData> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleWcSourceData(const Wirl::IpGenAddr&) {}
        virtual void handleJoinedSource(const Wirl::IpGenAddr&) {}
        virtual void handlePrunedSource(const Wirl::IpGenAddr&) {}
        virtual void handleJoinedRptSource(const Wirl::IpGenAddr&) {}
        virtual void handlePrunedRptSource(const Wirl::IpGenAddr&) {}
        virtual void handleJoinSuppressSource(const Wirl::IpGenAddr&) {}
        virtual void handlePeriodicPrunedRptGroupData() {}
    };
    // One group's sources of one kind; empty sets cost a pointer, since most
    // group records carry only a (*,G) entry.
    using SourceSet = Cask::LazyKeySet<Wirl::IpGenAddr>;

    explicit JoinPruneGroupData(const Wirl::IpGenAddr& group) : group_(group) {}
    const Wirl::IpGenAddr& group() const { return group_; }

    // (*,G) entries by RP. Re-writing an entry with the same join flag keeps
    // its suppression; changing the flag starts unsuppressed.
    CASK_COLLECTION_COMMON(wcSourceData, WcSourceData, Wirl::IpGenAddr)
    WcSourceData wcSourceData(const Wirl::IpGenAddr& rp) const { return wcSourceData_.get(rp); }
    void wcSourceDataIs(const Wirl::IpGenAddr& rp, bool join);
    // Sets `wcSuppressed` of an existing entry; false when there is none.
    bool wcSuppressedIs(const Wirl::IpGenAddr& rp, bool suppressed);

    // (S,G) joins and prunes, (S,G,rpt) joins and prunes, suppressed (S,G)
    // joins. The same accessors as a record's key sets; the five sets live in
    // one block allocated with the group's first source and freed with its
    // last, so a group record holding only a (*,G) entry pays one pointer.
#define JOIN_PRUNE_SOURCE_SET(name, Name)                                     \
    const SourceSet& name() const {                                           \
        return sources_ ? sources_->name##_ : noSources().name##_;            \
    }                                                                         \
    bool name##Has(const Wirl::IpGenAddr& s) const {                          \
        return name().has(s);                                                 \
    }                                                                         \
    std::size_t name##Size() const {                                          \
        return name().size();                                                 \
    }                                                                         \
    void name##Is(const Wirl::IpGenAddr& s) {                                 \
        sourcesIs().name##_.is(*this, s, &Notifiee::handle##Name);            \
    }                                                                         \
    void name##Del(const Wirl::IpGenAddr& s) {                                \
        if (!sources_) return;                                                \
        sources_->name##_.del(*this, s, &Notifiee::handle##Name);             \
        sourcesDelIfEmpty();                                                  \
    }                                                                         \
    void name##DelAll() {                                                     \
        const std::vector<Wirl::IpGenAddr> all(name().begin(), name().end()); \
        for (const auto& s : all) name##Del(s);                               \
    }                                                                         \
    void name##Notify(const Wirl::IpGenAddr& s) {                             \
        notify(&Notifiee::handle##Name, s);                                   \
    }
    JOIN_PRUNE_SOURCE_SET(joinedSource, JoinedSource)
    JOIN_PRUNE_SOURCE_SET(prunedSource, PrunedSource)
    JOIN_PRUNE_SOURCE_SET(joinedRptSource, JoinedRptSource)
    JOIN_PRUNE_SOURCE_SET(prunedRptSource, PrunedRptSource)
    JOIN_PRUNE_SOURCE_SET(joinSuppressSource, JoinSuppressSource)
#undef JOIN_PRUNE_SOURCE_SET

    // In a triggered or override set: the periodic set's record of the same
    // group, whose (S,G,rpt) prunes go out with this record's (*,G) Join
    // (RFC 7761 4.5.6: a Join(*,G) always carries the group's
    // Prune(S,G,rpt) entries). Null in the periodic set.
    CASK_ATTR(Cask::Ptr<JoinPruneGroupData>, periodicPrunedRptGroupData, PeriodicPrunedRptGroupData)

    // Nothing to send for the group (the periodic reference counts nothing).
    bool empty() const;
    // A copy of the record's entries and periodic reference, unwatched.
    Cask::Ptr<JoinPruneGroupData> clone() const;

private:
    Wirl::IpGenAddr group_;
    // A group has one RP, so one (*,G) entry is kept in place: a route's
    // Join costs no allocation beyond the group record.
    Cask::ValueMap<Wirl::IpGenAddr, WcSourceData,
                   boost::container::small_flat_map<Wirl::IpGenAddr, WcSourceData, 1>>
        wcSourceData_;
    struct Sources {
        SourceSet joinedSource_;
        SourceSet prunedSource_;
        SourceSet joinedRptSource_;
        SourceSet prunedRptSource_;
        SourceSet joinSuppressSource_;
        bool empty() const;
    };
    static const Sources& noSources();
    Sources& sourcesIs();
    void sourcesDelIfEmpty();

    std::unique_ptr<Sources> sources_;
    Cask::Ptr<JoinPruneGroupData> periodicPrunedRptGroupData_;
};

// The contents of one kind of message to one neighbour, by group.
class JoinPruneData : public Cask::Record<JoinPruneData> {
public:
    class Notifiee : public Cask::NotifieeOf<JoinPruneData> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleJoinPruneGroupData(const Wirl::IpGenAddr&) {}
    };
    CASK_COLLECTION_COMMON(joinPruneGroupData, JoinPruneGroupData, Wirl::IpGenAddr)
    JoinPruneGroupData* joinPruneGroupData(const Wirl::IpGenAddr& group) const {
        return joinPruneGroupData_.raw(group);
    }
    // The group's record, inserted empty when absent.
    JoinPruneGroupData& joinPruneGroupDataIs(const Wirl::IpGenAddr& group);
    // Removes the group's record if nothing is left in it.
    void joinPruneGroupDataDelIfEmpty(const Wirl::IpGenAddr& group);
    // Replaces every group record by a copy of `other`'s.
    void joinPruneGroupDataCopyIs(const JoinPruneData& other);
    // The group records in group order, for output and message building.
    std::vector<const JoinPruneGroupData*> groupsInOrder() const;

private:
    // A B-tree: one neighbour's record may hold every group of the VRF, and a
    // hashed map that size would rehash all of them in one step as it grows.
    // It also keeps the groups in the order readers show and send them.
    Cask::RecordMapOf<Wirl::IpGenAddr, JoinPruneGroupData,
                      Cask::WideBtreeMap<Wirl::IpGenAddr, Cask::Ptr<JoinPruneGroupData>>>
        joinPruneGroupData_;
};

// Everything to send to one upstream neighbour.
class JoinPruneNeighbor : public Cask::Record<JoinPruneNeighbor> {
public:
    class Notifiee : public Cask::NotifieeOf<JoinPruneNeighbor> {};
    explicit JoinPruneNeighbor(const NeighborKey& key)
        : key_(key),
          periodic_(Cask::make<JoinPruneData>()),
          pendingTriggered_(Cask::make<JoinPruneData>()),
          pendingOverride_(Cask::make<JoinPruneData>()),
          sentTriggered_(Cask::make<JoinPruneData>()),
          sentOverride_(Cask::make<JoinPruneData>()) {}
    const NeighborKey& key() const { return key_; }
    JoinPruneData& periodic() const { return *periodic_; }
    JoinPruneData& pendingTriggered() const { return *pendingTriggered_; }
    JoinPruneData& pendingOverride() const { return *pendingOverride_; }

    // The packet side sent the pending triggered and override contents:
    // each pending set that held something is copied into its `sent...`
    // record (replacing what was sent before) and emptied. The periodic
    // set stays. A (*,G) Join's reference to the periodic record is copied
    // as it is, so the copy shows the (S,G,rpt) prunes as they are now.
    void pendingSent();
    // The same for one pending set: the packet side sends the triggered set
    // at once and the override set after its override delay.
    void triggeredSent();
    void overrideSent();
    // What the packet side was last handed from each pending set, for
    // display; nothing reads it to decide anything.
    const JoinPruneData& sentTriggered() const { return *sentTriggered_; }
    const JoinPruneData& sentOverride() const { return *sentOverride_; }

private:
    NeighborKey key_;
    Cask::Ptr<JoinPruneData> periodic_;
    Cask::Ptr<JoinPruneData> pendingTriggered_;
    Cask::Ptr<JoinPruneData> pendingOverride_;
    Cask::Ptr<JoinPruneData> sentTriggered_;
    Cask::Ptr<JoinPruneData> sentOverride_;
};

namespace Packet {
// The per-source flags of a Join/Prune entry (RFC 7761 4.9.5.1).
struct SourceFlags {
    bool sparse = true;
    bool wildcard = false;  // WC bit
    bool rpt = false;       // RPT bit
    // The entry is a (*,G) entry: wildcard and RPT bits both set.
    bool isStarG() const { return wildcard && rpt; }
    bool operator==(const SourceFlags&) const = default;
};
}  // namespace Packet

// One received Join or Prune entry, decoded.
struct JoinPruneMessageInfo {
    RouteKey riKey;  // the entry's route ((*,G): zero source)
    Packet::SourceFlags sourceFlags;
    Wirl::IpGenAddr sender;            // the router that sent the message
    Wirl::IpGenAddr upstreamNeighbor;  // the neighbour the message is addressed to
    Wirl::IpGenAddr wcSource;          // the RP of a (*,G) entry
    Wirl::IntfId intf;                 // where it was received
    std::uint16_t holdTime = 210;      // seconds
    bool operator==(const JoinPruneMessageInfo&) const = default;
};

// What is remembered of a received Prune(*,G) or Prune(S,G) while its
// prune-pending period runs, so that a PruneEcho can be built when the prune
// takes effect.
struct RxPruneInfo {
    RouteKey riKey;
    Wirl::IpGenAddr upstreamNeighbor;
    Packet::SourceFlags sourceFlags;
    Wirl::IpGenAddr wcSource;
    RxPruneInfo() = default;
    explicit RxPruneInfo(const JoinPruneMessageInfo& m)
        : riKey(m.riKey),
          upstreamNeighbor(m.upstreamNeighbor),
          sourceFlags(m.sourceFlags),
          wcSource(m.wcSource) {}
    bool operator==(const RxPruneInfo&) const = default;
};

// The outgoing Join/Prune contents of a VRF, per upstream neighbour.
class JoinPruneStatus : public Cask::Record<JoinPruneStatus> {
public:
    class Notifiee : public Cask::NotifieeOf<JoinPruneStatus> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleNeighbor(const NeighborKey&) {}
        virtual void handleRxPrune(const Routing::Gmp::Tidal::RouteIntfKey&) {}
        virtual void handlePruneEcho(Wirl::IntfId) {}
    };
    CASK_RECORD_MAP(neighbor, Neighbor, NeighborKey, JoinPruneNeighbor,
                    "Routing::Pim::JoinPruneStatus")
    JoinPruneNeighbor* neighbor(Wirl::IntfId intf, const Wirl::IpGenAddr& address) const {
        return neighbor_.raw(NeighborKey{intf, address});
    }
    // Every neighbour's pending sets and every pending PruneEcho were sent
    // (`JoinPruneNeighbor::pendingSent`).
    void pendingSent();
    // Every pending PruneEcho was sent.
    void pruneEchoesSent();

    // PruneEchoes waiting to be sent, per interface (RFC 7761 4.5.2: when a
    // received Prune takes effect on a LAN, the router sends the Prune again,
    // addressed to itself, so that a router that missed the override can
    // still override it). Each is one message's contents: per group a
    // (*,G) Prune toward the RP or an (S,G) Prune. The downstream machine
    // writes them; the packet side sends them once and empties them with
    // `pendingSent`.
    JoinPruneData* pruneEcho(Wirl::IntfId intf) const {
        auto it = pruneEcho_.find(intf);
        return it == pruneEcho_.end() ? nullptr : it->second.get();
    }
    // The interface's pending PruneEcho record, created empty when absent;
    // announced (`handlePruneEcho`) so the packet side can send it.
    JoinPruneData& pruneEchoIs(Wirl::IntfId intf);
    const std::map<Wirl::IntfId, Cask::Ptr<JoinPruneData>>& pruneEchoes() const {
        return pruneEcho_;
    }
    // What the packet side was last handed per interface, for display.
    const std::map<Wirl::IntfId, Cask::Ptr<JoinPruneData>>& sentPruneEchoes() const {
        return sentPruneEcho_;
    }

    // Received prunes waiting for their prune-pending period to end, by
    // route and receiving interface.
    CASK_VALUE_MAP(rxPrune, RxPrune, Routing::Gmp::Tidal::RouteIntfKey, RxPruneInfo)

private:
    // A B-tree, in neighbour order, that remembers the record found last:
    // the upstream machines ask for the same neighbour route after route.
    Cask::RecordMapOf<NeighborKey, JoinPruneNeighbor,
                      Cask::WideBtreeMap<NeighborKey, Cask::Ptr<JoinPruneNeighbor>>>
        neighbor_;
    std::map<Wirl::IntfId, Cask::Ptr<JoinPruneData>> pruneEcho_;
    std::map<Wirl::IntfId, Cask::Ptr<JoinPruneData>> sentPruneEcho_;
    Cask::ValueMap<Routing::Gmp::Tidal::RouteIntfKey, RxPruneInfo,
                   std::map<Routing::Gmp::Tidal::RouteIntfKey, RxPruneInfo>>
        rxPrune_;
};

// A whole received Join/Prune message, decoded. Per group its record in
// `data` holds the (*,G) entries by RP (`wcSourceData`, join or prune), the
// (S,G) Joins and Prunes (`joinedSource`, `prunedSource`) and the (S,G,rpt)
// Joins and Prunes (`joinedRptSource`, `prunedRptSource`); the periodic
// reference and the suppression marks are not used. The contents are shared
// between copies and not changed once delivered.
struct JoinPruneMessage {
    Wirl::IpGenAddr sender;            // the router that sent it
    Wirl::IntfId intf;                 // where it was received
    Wirl::IpGenAddr upstreamNeighbor;  // the neighbour it is addressed to
    std::uint16_t holdTime = 210;      // seconds
    Cask::Ptr<JoinPruneData> data = Cask::make<JoinPruneData>();

    // Calls `f(join, entry)` for every entry, group by group in address
    // order: (*,G), then (S,G), then (S,G,rpt) entries, Joins before Prunes.
    void forEachEntry(const std::function<void(bool join, const JoinPruneMessageInfo&)>& f) const;
};

// Received Join/Prune messages of a VRF: single entries (`rxJoin`,
// `rxPrune`), and whole messages (`joinPruneMessage`).
class JoinPruneRxStatus : public Cask::Record<JoinPruneRxStatus> {
public:
    class Notifiee : public Cask::NotifieeOf<JoinPruneRxStatus> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleRxJoin() {}
        virtual void handleRxPrune() {}
        virtual void handleJoinPruneMessage() {}
    };
    const JoinPruneMessageInfo& rxJoin() const { return rxJoin_; }
    const JoinPruneMessageInfo& rxPrune() const { return rxPrune_; }
    // Delivers one entry (always announced); the counts number them.
    void rxJoinIs(const JoinPruneMessageInfo& m) {
        rxJoin_ = m;
        increment(rxJoinCount_, &Notifiee::handleRxJoin);
    }
    void rxPruneIs(const JoinPruneMessageInfo& m) {
        rxPrune_ = m;
        increment(rxPruneCount_, &Notifiee::handleRxPrune);
    }
    std::uint32_t rxJoinCount() const { return rxJoinCount_; }
    std::uint32_t rxPruneCount() const { return rxPruneCount_; }

    // The last whole message received; delivering one always announces.
    const JoinPruneMessage& joinPruneMessage() const { return joinPruneMessage_; }
    void joinPruneMessageIs(JoinPruneMessage m);
    // How the packet side hands over a decoded message: the whole message
    // first (the (S,G,rpt) machine queues it), then each entry as a single
    // Join or Prune, in `forEachEntry` order.
    void messageReceived(const JoinPruneMessage& m);
    std::uint32_t joinPruneMessageCount() const { return joinPruneMessageCount_; }

private:
    JoinPruneMessage joinPruneMessage_;
    std::uint32_t joinPruneMessageCount_ = 0;
    JoinPruneMessageInfo rxJoin_;
    JoinPruneMessageInfo rxPrune_;
    std::uint32_t rxJoinCount_ = 0;
    std::uint32_t rxPruneCount_ = 0;
};

}  // namespace Routing::Pim
