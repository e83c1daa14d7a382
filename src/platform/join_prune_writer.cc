#include "platform/join_prune_writer.h"

#include <fmt/format.h>

#include "cask/assert.h"
#include "cask/trace.h"

namespace Routing::Pim {

namespace {

using Kind = JoinPruneEntry::Kind;

bool hasWcJoin(const JoinPruneGroupData& gd) {
    for (const auto& [rp, d] : gd.wcSourceData()) {
        if (d.join) return true;
    }
    return false;
}

}  // namespace

bool JoinPruneEntry::anyRp() const {
    return !rp.isSet();
}

std::string JoinPruneEntry::str() const {
    static const char* const names[] = {"wc",         "joined",    "pruned",
                                        "suppressed", "rptJoined", "rptPruned"};
    if (kind != Kind::wc) return fmt::format("{} {}", key, names[static_cast<int>(kind)]);
    if (anyRp()) return fmt::format("{} any rp", key);
    return fmt::format("{} {} rp {}", key, join ? "join" : "prune", rp);
}

JoinPruneNeighbor& JoinPruneWriter::rpfNeighbor(Wirl::IntfId intf,
                                                const Wirl::IpGenAddr& address) const {
    JoinPruneNeighbor* nbr = status_.neighbor(intf, address);
    if (!nbr) {
        CASK_VRF_TRACE(4, vrfName_,
                       "JoinPruneWriter::rpfNeighbor(), no entry for neighbor {} on {}", address,
                       intf);
    }
    CASK_ASSERT(nbr, "jpNeighbor");
    return *nbr;
}

JoinPruneData& JoinPruneWriter::set(const JoinPruneNeighbor& nbr, JoinPruneSet which) {
    switch (which) {
        case JoinPruneSet::periodic:
            return nbr.periodic();
        case JoinPruneSet::triggered:
            return nbr.pendingTriggered();
        case JoinPruneSet::override_:
            break;
    }
    return nbr.pendingOverride();
}

bool JoinPruneWriter::has(const JoinPruneNeighbor& nbr, JoinPruneSet which,
                          const JoinPruneEntry& e) {
    const JoinPruneGroupData* gd = groupData(nbr, which, e.group());
    if (!gd) return false;
    const auto& s = e.source();
    switch (e.kind) {
        case Kind::wc:
            if (e.anyRp()) return !gd->wcSourceData().empty();
            return gd->wcSourceDataHas(e.rp) && gd->wcSourceData(e.rp).join == e.join;
        case Kind::joined:
            return gd->joinedSourceHas(s);
        case Kind::pruned:
            return gd->prunedSourceHas(s);
        case Kind::joinSuppressed:
            return gd->joinSuppressSourceHas(s);
        case Kind::rptJoined:
            return gd->joinedRptSourceHas(s);
        case Kind::rptPruned:
            return gd->prunedRptSourceHas(s);
    }
    return false;
}

void JoinPruneWriter::entryIs(JoinPruneNeighbor& nbr, JoinPruneSet which,
                              const JoinPruneEntry& e) const {
    CASK_ASSERT(e.kind != Kind::wc || !e.anyRp(), "jpEntryRp");
    JoinPruneGroupData& gd = set(nbr, which).joinPruneGroupDataIs(e.group());
    const auto& s = e.source();
    switch (e.kind) {
        case Kind::wc:
            if (which == JoinPruneSet::periodic) {
                // One (*,G) entry per group: the one toward a former RP goes.
                std::vector<Wirl::IpGenAddr> former;
                for (const auto& [rp, d] : gd.wcSourceData()) {
                    if (rp != e.rp) former.push_back(rp);
                }
                for (const auto& rp : former) gd.wcSourceDataDel(rp);
            }
            gd.wcSourceDataIs(e.rp, e.join);
            break;
        case Kind::joined:
            gd.prunedSourceDel(s);
            gd.joinedSourceIs(s);
            break;
        case Kind::pruned:
            gd.joinedSourceDel(s);
            gd.joinSuppressSourceDel(s);
            gd.prunedSourceIs(s);
            break;
        case Kind::joinSuppressed:
            gd.joinSuppressSourceIs(s);
            break;
        case Kind::rptJoined:
            gd.prunedRptSourceDel(s);
            gd.joinedRptSourceIs(s);
            break;
        case Kind::rptPruned:
            gd.joinedRptSourceDel(s);
            gd.prunedRptSourceIs(s);
            break;
    }
    groupRefresh(nbr, e.group());
}

void JoinPruneWriter::wcJoinIs(JoinPruneNeighbor& nbr, const Wirl::IpGenAddr& group,
                               const Wirl::IpGenAddr& rp) const {
    // Drops the group's (*,G) entries toward other RPs: every one from the
    // periodic record, the Joins only from a pending one.
    auto dropFormer = [&](JoinPruneGroupData& gd, bool joinsOnly) {
        if (gd.wcSourceData().empty()) return;
        std::vector<Wirl::IpGenAddr> former;
        for (const auto& [other, d] : gd.wcSourceData()) {
            if (other != rp && (d.join || !joinsOnly)) former.push_back(other);
        }
        for (const auto& other : former) {
            if (joinsOnly) {
                CASK_VRF_TRACE(8, vrfName_,
                               "JoinPruneWriter::wcJoinIs(), Deleting pending join for group {} "
                               "toward former RP {} for neighbor {}",
                               group, other, nbr.key().address);
            }
            gd.wcSourceDataDel(other);
        }
    };
    JoinPruneGroupData& periodic = nbr.periodic().joinPruneGroupDataIs(group);
    dropFormer(periodic, false);
    periodic.wcSourceDataIs(rp, true);
    const Cask::Ptr<JoinPruneGroupData> periodicRef(&periodic);
    JoinPruneGroupData& triggered = nbr.pendingTriggered().joinPruneGroupDataIs(group);
    dropFormer(triggered, true);
    triggered.wcSourceDataIs(rp, true);
    triggered.periodicPrunedRptGroupDataIs(periodicRef);
    JoinPruneData& pendingOverride = nbr.pendingOverride();
    if (JoinPruneGroupData* o = pendingOverride.joinPruneGroupData(group)) {
        dropFormer(*o, true);
        o->periodicPrunedRptGroupDataIs(hasWcJoin(*o) ? periodicRef
                                                      : Cask::Ptr<JoinPruneGroupData>());
        if (o->empty()) pendingOverride.joinPruneGroupDataDel(group);
    }
}

void JoinPruneWriter::entryDel(JoinPruneNeighbor& nbr, JoinPruneSet which,
                               const JoinPruneEntry& e) const {
    JoinPruneGroupData* gd = groupData(nbr, which, e.group());
    if (!gd) return;
    const auto& s = e.source();
    switch (e.kind) {
        case Kind::wc:
            if (e.anyRp()) {
                gd->wcSourceDataDelAll();
            } else {
                gd->wcSourceDataDel(e.rp);
            }
            break;
        case Kind::joined:
            gd->joinedSourceDel(s);
            gd->joinSuppressSourceDel(s);
            break;
        case Kind::pruned:
            gd->prunedSourceDel(s);
            break;
        case Kind::joinSuppressed:
            gd->joinSuppressSourceDel(s);
            break;
        case Kind::rptJoined:
            gd->joinedRptSourceDel(s);
            break;
        case Kind::rptPruned:
            gd->prunedRptSourceDel(s);
            break;
    }
    groupRefresh(nbr, e.group());
}

void JoinPruneWriter::entryWithdraw(JoinPruneNeighbor& nbr, const JoinPruneEntry& e) const {
    for (JoinPruneSet which :
         {JoinPruneSet::periodic, JoinPruneSet::triggered, JoinPruneSet::override_}) {
        entryDel(nbr, which, e);
    }
}

bool JoinPruneWriter::wcSuppressedIs(JoinPruneNeighbor& nbr, const Wirl::IpGenAddr& group,
                                     const Wirl::IpGenAddr& rp) const {
    if (!has(nbr, JoinPruneSet::periodic, JoinPruneEntry::wcJoin(group, rp))) return false;
    return nbr.periodic().joinPruneGroupData(group)->wcSuppressedIs(rp, true);
}

void JoinPruneWriter::groupRefresh(JoinPruneNeighbor& nbr, const Wirl::IpGenAddr& group) const {
    // One lookup per set: every route's join comes through here twice.
    JoinPruneData& periodic = nbr.periodic();
    JoinPruneGroupData* groupPeriodic = periodic.joinPruneGroupData(group);
    if (groupPeriodic && groupPeriodic->empty()) {
        periodic.joinPruneGroupDataDel(group);
        groupPeriodic = nullptr;
    }
    for (JoinPruneData* pending : {&nbr.pendingTriggered(), &nbr.pendingOverride()}) {
        JoinPruneGroupData* gd = pending->joinPruneGroupData(group);
        if (!gd) continue;
        JoinPruneGroupData* target = hasWcJoin(*gd) ? groupPeriodic : nullptr;
        gd->periodicPrunedRptGroupDataIs(Cask::Ptr<JoinPruneGroupData>(target));
        if (gd->empty()) pending->joinPruneGroupDataDel(group);
    }
}

std::vector<std::pair<NeighborKey, JoinPruneEntry>> JoinPruneWriter::periodicSweep(
    JoinPruneEntry::Kind kind, const Stale& stale) const {
    std::vector<std::pair<NeighborKey, JoinPruneEntry>> removed;
    for (const auto& [nk, nbr] : status_.neighbor()) {
        const std::size_t first = removed.size();
        for (const JoinPruneGroupData* gd : nbr->periodic().groupsInOrder()) {
            const Wirl::IpGenAddr& group = gd->group();
            auto consider = [&](const JoinPruneEntry& e) {
                if (stale(nk, e)) removed.emplace_back(nk, e);
            };
            const JoinPruneGroupData::SourceSet* sources = nullptr;
            switch (kind) {
                case Kind::wc:
                    for (const auto& [rp, d] : gd->wcSourceData()) {
                        consider(JoinPruneEntry{Kind::wc, RouteKey::wc(group), rp, d.join});
                    }
                    break;
                case Kind::joined:
                    sources = &gd->joinedSource();
                    break;
                case Kind::pruned:
                    sources = &gd->prunedSource();
                    break;
                case Kind::joinSuppressed:
                    sources = &gd->joinSuppressSource();
                    break;
                case Kind::rptJoined:
                    sources = &gd->joinedRptSource();
                    break;
                case Kind::rptPruned:
                    sources = &gd->prunedRptSource();
                    break;
            }
            if (!sources) continue;
            for (const auto& s : *sources) consider(JoinPruneEntry::of(kind, RouteKey(s, group)));
        }
        // Removed after the walk: the walk must not change what it walks.
        for (std::size_t i = first; i < removed.size(); ++i) {
            entryDel(*nbr, JoinPruneSet::periodic, removed[i].second);
        }
    }
    return removed;
}

}  // namespace Routing::Pim
