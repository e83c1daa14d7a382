#include "platform/join_prune.h"

namespace Routing::Pim {

void JoinPruneGroupData::wcSourceDataIs(const Wirl::IpGenAddr& rp, bool join) {
    WcSourceData d = wcSourceData_.get(rp);
    if (!wcSourceData_.has(rp) || d.join != join) d = WcSourceData{join, false};
    wcSourceData_.is(*this, rp, d, &Notifiee::handleWcSourceData);
}

bool JoinPruneGroupData::wcSuppressedIs(const Wirl::IpGenAddr& rp, bool suppressed) {
    if (!wcSourceData_.has(rp)) return false;
    WcSourceData d = wcSourceData_.get(rp);
    d.wcSuppressed = suppressed;
    wcSourceData_.is(*this, rp, d, &Notifiee::handleWcSourceData);
    return true;
}

bool JoinPruneGroupData::empty() const {
    return wcSourceData_.empty() && joinedSource_.empty() && prunedSource_.empty() &&
           joinedRptSource_.empty() && prunedRptSource_.empty() && joinSuppressSource_.empty();
}

JoinPruneGroupData& JoinPruneData::joinPruneGroupDataIs(const Wirl::IpGenAddr& group) {
    if (auto* existing = joinPruneGroupData_.raw(group)) return *existing;
    auto fresh = Cask::make<JoinPruneGroupData>(group);
    joinPruneGroupData_.is(*this, group, fresh, &Notifiee::handleJoinPruneGroupData,
                           "null _joinPruneGroupData parameter to mutator for "
                           "Routing::Pim::JoinPruneData::joinPruneGroupData not allowed");
    return *fresh;
}

void JoinPruneData::joinPruneGroupDataDelIfEmpty(const Wirl::IpGenAddr& group) {
    auto* g = joinPruneGroupData_.raw(group);
    if (g && g->empty()) joinPruneGroupDataDel(group);
}

}  // namespace Routing::Pim
