#pragma once
// JoinPruneWriter: the one way the machines of a VRF change the outgoing
// Join/Prune contents (`JoinPruneStatus`). Every machine that joins, prunes,
// suppresses or overrides writes entries through it, so the rules that keep
// the sets coherent live in one place:
//
// - Within one group record an entry and its opposite exclude each other: a
//   Join of a source replaces a Prune of it and the other way round ((S,G)
//   and (S,G,rpt) alike; a (*,G) entry per RP is either a Join or a Prune).
//   Dropping an (S,G) Join drops its suppression mark too.
// - The periodic set holds one (*,G) entry per group: writing one there
//   drops the entry toward a former RP.
// - A triggered or override record of a group that holds a (*,G) Join
//   refers to the periodic set's record of the same group
//   (`periodicPrunedRptGroupData`), so the Join carries the group's
//   (S,G,rpt) Prunes (RFC 7761 4.5.6); without a (*,G) Join it refers to
//   nothing.
// - A group record left with nothing to send is removed at once.
//
// Lookups of a neighbour that RPF chose use `rpfNeighbor`, for which a
// missing entry is an internal error: `JoinPruneNeighborSm` keeps one entry
// per PIM neighbour and RPF only chooses PIM neighbours.
//
// The writer holds no state of its own beyond the status it writes and the
// VRF name for its traces; the machines keep their own trace lines around
// the calls.

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "platform/join_prune.h"
#include "wirl/vrf_name.h"

namespace Routing::Pim {

// The three sets of a neighbour.
enum class JoinPruneSet : std::uint8_t { periodic, triggered, override_ };

// One entry of a group's part of a message.
struct JoinPruneEntry {
    enum class Kind : std::uint8_t {
        wc,              // (*,G) toward `rp`, Join or Prune (`join`)
        joined,          // Join(S,G)
        pruned,          // Prune(S,G)
        joinSuppressed,  // a periodic Join(S,G) held back (RFC 7761 4.5.7)
        rptJoined,       // Join(S,G,rpt)
        rptPruned,       // Prune(S,G,rpt)
    };
    Kind kind = Kind::wc;
    RouteKey key;  // the route; the (*,G) key for `wc`
    // `wc` only: the RP, and whether the entry is a Join. An unspecified RP
    // stands for every RP of the group (to look up or delete, not to write).
    Wirl::IpGenAddr rp;
    bool join = true;

    static JoinPruneEntry wcJoin(const Wirl::IpGenAddr& group, const Wirl::IpGenAddr& rp) {
        return {Kind::wc, RouteKey::wc(group), rp, true};
    }
    static JoinPruneEntry wcPrune(const Wirl::IpGenAddr& group, const Wirl::IpGenAddr& rp) {
        return {Kind::wc, RouteKey::wc(group), rp, false};
    }
    // Every (*,G) entry of the group, Join or Prune.
    static JoinPruneEntry wcAny(const Wirl::IpGenAddr& group) {
        return {Kind::wc, RouteKey::wc(group), {}, true};
    }
    static JoinPruneEntry of(Kind kind, const RouteKey& key) { return {kind, key, {}, true}; }

    const Wirl::IpGenAddr& group() const { return key.group(); }
    const Wirl::IpGenAddr& source() const { return key.source(); }
    bool anyRp() const;
    bool operator==(const JoinPruneEntry&) const = default;
    // "(*, 239.1.1.1) join rp 10.0.0.1", "(10.1.1.1, 239.1.1.1) rptPruned".
    std::string str() const;
};

class JoinPruneWriter {
public:
    JoinPruneWriter(JoinPruneStatus& status, L3::VrfName vrfName)
        : status_(status), vrfName_(std::move(vrfName)) {}

    JoinPruneStatus& status() const { return status_; }
    const L3::VrfName& vrfName() const { return vrfName_; }

    // The neighbour's entry, or null (a neighbour that went down).
    JoinPruneNeighbor* neighbor(Wirl::IntfId intf, const Wirl::IpGenAddr& address) const {
        return status_.neighbor(intf, address);
    }
    // The entry of a neighbour that RPF chose; fatal ("jpNeighbor") when
    // there is none.
    JoinPruneNeighbor& rpfNeighbor(Wirl::IntfId intf, const Wirl::IpGenAddr& address) const;

    static JoinPruneData& set(const JoinPruneNeighbor& nbr, JoinPruneSet which);
    static JoinPruneGroupData* groupData(const JoinPruneNeighbor& nbr, JoinPruneSet which,
                                         const Wirl::IpGenAddr& group) {
        return set(nbr, which).joinPruneGroupData(group);
    }
    // The entry is in the set. For `wc` with an RP: an entry toward it with
    // the same join flag; with no RP: any (*,G) entry of the group.
    static bool has(const JoinPruneNeighbor& nbr, JoinPruneSet which, const JoinPruneEntry& e);

    // Writes the entry (see the rules above). A `wc` entry needs an RP.
    void entryIs(JoinPruneNeighbor& nbr, JoinPruneSet which, const JoinPruneEntry& e) const;
    // Removes the entry; for `wc` the entry toward the RP (every RP when
    // none is given) whatever its join flag.
    void entryDel(JoinPruneNeighbor& nbr, JoinPruneSet which, const JoinPruneEntry& e) const;
    // A (*,G) Join toward `rp` as a router joining the shared tree writes
    // it, in one pass over the group's records: into the periodic set, in
    // place of a Join toward a former RP of the group, and into the
    // triggered set, which refers to the periodic record and so carries the
    // group's (S,G,rpt) Prunes. A pending Join toward a former RP leaves the
    // triggered and override sets: the neighbour would otherwise be joined
    // to two shared trees of the group. The same as the periodic and
    // triggered `entryIs` with those removals, at a third of the searches.
    void wcJoinIs(JoinPruneNeighbor& nbr, const Wirl::IpGenAddr& group,
                  const Wirl::IpGenAddr& rp) const;
    // Removes the entry from the periodic, triggered and override sets.
    void entryWithdraw(JoinPruneNeighbor& nbr, const JoinPruneEntry& e) const;
    // Marks the periodic (*,G) Join toward `rp` as suppressed by another
    // router's Join; false when there is no such Join.
    bool wcSuppressedIs(JoinPruneNeighbor& nbr, const Wirl::IpGenAddr& group,
                        const Wirl::IpGenAddr& rp) const;

    // Brings the group's records at the neighbour in line with the rules:
    // the periodic references of the triggered and override records, and
    // no empty record. Every write above ends with it.
    void groupRefresh(JoinPruneNeighbor& nbr, const Wirl::IpGenAddr& group) const;

    // Start-up cleanup of contents left from an earlier run: removes from
    // every neighbour's periodic set each entry of `kind` for which
    // `stale(neighbor, entry)` holds, and returns what it removed in
    // neighbour, group and entry order (for the caller's traces).
    using Stale = std::function<bool(const NeighborKey&, const JoinPruneEntry&)>;
    std::vector<std::pair<NeighborKey, JoinPruneEntry>> periodicSweep(JoinPruneEntry::Kind kind,
                                                                      const Stale& stale) const;

private:
    JoinPruneStatus& status_;
    L3::VrfName vrfName_;
};

}  // namespace Routing::Pim
