#include "platform/join_prune.h"

#include <algorithm>

#include "cask/assert.h"

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

bool JoinPruneGroupData::Sources::empty() const {
    return joinedSource_.empty() && prunedSource_.empty() && joinedRptSource_.empty() &&
           prunedRptSource_.empty() && joinSuppressSource_.empty();
}

const JoinPruneGroupData::Sources& JoinPruneGroupData::noSources() {
    static const Sources none;
    return none;
}

JoinPruneGroupData::Sources& JoinPruneGroupData::sourcesIs() {
    if (!sources_) sources_ = std::make_unique<Sources>();
    return *sources_;
}

void JoinPruneGroupData::sourcesDelIfEmpty() {
    if (sources_ && sources_->empty()) sources_.reset();
}

bool JoinPruneGroupData::empty() const {
    return wcSourceData_.empty() && (!sources_ || sources_->empty());
}

JoinPruneGroupData& JoinPruneData::joinPruneGroupDataIs(const Wirl::IpGenAddr& group) {
    return *joinPruneGroupData_.findOrIs(
        *this, group, [&] { return Cask::make<JoinPruneGroupData>(group); },
        &Notifiee::handleJoinPruneGroupData);
}

void JoinPruneData::joinPruneGroupDataDelIfEmpty(const Wirl::IpGenAddr& group) {
    auto* g = joinPruneGroupData_.raw(group);
    if (g && g->empty()) joinPruneGroupDataDel(group);
}

Cask::Ptr<JoinPruneGroupData> JoinPruneGroupData::clone() const {
    auto copy = Cask::make<JoinPruneGroupData>(group_);
    for (const auto& [rp, d] : wcSourceData_) {
        copy->wcSourceData_.is(*copy, rp, d, &Notifiee::handleWcSourceData);
    }
    if (sources_) copy->sources_ = std::make_unique<Sources>(*sources_);
    copy->periodicPrunedRptGroupData_ = periodicPrunedRptGroupData_;
    return copy;
}

void JoinPruneData::joinPruneGroupDataCopyIs(const JoinPruneData& other) {
    joinPruneGroupDataDelAll();
    for (const auto& [group, gd] : other.joinPruneGroupData()) {
        joinPruneGroupData_.is(*this, group, gd->clone(), &Notifiee::handleJoinPruneGroupData,
                               "null _joinPruneGroupData parameter to mutator for "
                               "Routing::Pim::JoinPruneData::joinPruneGroupData not allowed");
    }
}

std::vector<const JoinPruneGroupData*> JoinPruneData::groupsInOrder() const {
    std::vector<const JoinPruneGroupData*> out;
    out.reserve(joinPruneGroupData_.size());
    for (const auto& [group, gd] : joinPruneGroupData_) out.push_back(gd.get());
    return out;
}

namespace {

void moveSent(JoinPruneData& pending, JoinPruneData& sent) {
    if (pending.joinPruneGroupData().empty()) return;
    sent.joinPruneGroupDataCopyIs(pending);
    pending.joinPruneGroupDataDelAll();
}

}  // namespace

void JoinPruneNeighbor::pendingSent() {
    triggeredSent();
    overrideSent();
}

void JoinPruneNeighbor::triggeredSent() {
    moveSent(*pendingTriggered_, *sentTriggered_);
}

void JoinPruneNeighbor::overrideSent() {
    moveSent(*pendingOverride_, *sentOverride_);
}

void JoinPruneStatus::pendingSent() {
    for (const auto& [key, nbr] : neighbor_) nbr->pendingSent();
    pruneEchoesSent();
}

void JoinPruneStatus::pruneEchoesSent() {
    for (const auto& [intf, echo] : pruneEcho_) {
        if (echo->joinPruneGroupData().empty()) continue;
        auto& sent = sentPruneEcho_[intf];
        if (!sent) sent = Cask::make<JoinPruneData>();
        sent->joinPruneGroupDataCopyIs(*echo);
    }
    pruneEcho_.clear();
}

JoinPruneData& JoinPruneStatus::pruneEchoIs(Wirl::IntfId intf) {
    auto& echo = pruneEcho_[intf];
    if (!echo) echo = Cask::make<JoinPruneData>();
    notify(&Notifiee::handlePruneEcho, intf);
    return *echo;
}

void JoinPruneMessage::forEachEntry(
    const std::function<void(bool join, const JoinPruneMessageInfo&)>& f) const {
    CASK_ASSERT(data, "joinPruneMessageData");
    JoinPruneMessageInfo m;
    m.sender = sender;
    m.upstreamNeighbor = upstreamNeighbor;
    m.intf = intf;
    m.holdTime = holdTime;
    for (const JoinPruneGroupData* gd : data->groupsInOrder()) {
        const Wirl::IpGenAddr& group = gd->group();
        m.sourceFlags = Packet::SourceFlags{true, true, true};
        m.riKey = RouteKey::wc(group);
        for (bool join : {true, false}) {
            for (const auto& [rp, d] : gd->wcSourceData()) {
                if (d.join != join) continue;
                m.wcSource = rp;
                f(join, m);
            }
        }
        m.wcSource = Wirl::IpGenAddr();
        const std::pair<Packet::SourceFlags, const JoinPruneGroupData::SourceSet*> kinds[] = {
            {Packet::SourceFlags{true, false, false}, &gd->joinedSource()},
            {Packet::SourceFlags{true, false, false}, &gd->prunedSource()},
            {Packet::SourceFlags{true, false, true}, &gd->joinedRptSource()},
            {Packet::SourceFlags{true, false, true}, &gd->prunedRptSource()}};
        for (std::size_t i = 0; i < std::size(kinds); ++i) {
            m.sourceFlags = kinds[i].first;
            for (const auto& source : *kinds[i].second) {
                m.riKey = RouteKey(source, group);
                f(i % 2 == 0, m);
            }
        }
    }
}

void JoinPruneRxStatus::joinPruneMessageIs(JoinPruneMessage m) {
    CASK_ASSERT(m.data, "joinPruneMessageData");
    joinPruneMessage_ = std::move(m);
    increment(joinPruneMessageCount_, &Notifiee::handleJoinPruneMessage);
}

void JoinPruneRxStatus::messageReceived(const JoinPruneMessage& m) {
    joinPruneMessageIs(m);
    m.forEachEntry([this](bool join, const JoinPruneMessageInfo& e) {
        if (join) {
            rxJoinIs(e);
        } else {
            rxPruneIs(e);
        }
    });
}

}  // namespace Routing::Pim
