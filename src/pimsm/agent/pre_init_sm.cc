#include "pimsm/agent/pre_init_sm.h"

#include "cask/trace.h"
#include "pimsm/agent/root_sm.h"

namespace Routing::Pim::SparseMode {

StaticRpCandidateSm::StaticRpCandidateSm(const L3::VrfName& vrf, Platform::StateDb& db)
    : vrf_(vrf), db_(db), status_(Cask::make<Platform::RpMapping>()) {
    db_.staticRpStatusIs(vrf_, status_);
    if (auto config = db_.staticRpConfig(vrf_)) {
        notifierIs(config.get());
        for (const auto& [groups, rp] : config->rp()) handleRp(groups);
    }
}

StaticRpCandidateSm::~StaticRpCandidateSm() {
    if (db_.staticRpStatus(vrf_) == status_) db_.staticRpStatusDel(vrf_);
}

bool StaticRpCandidateSm::valid(const Wirl::IpGenPrefix& groups, const Wirl::IpGenAddr& rp) const {
    const auto family = db_.family();
    return groups.family() == family && groups.addr().isMulticast() &&
           groups.last().isMulticast() && rp.family() == family && rp.isUnicast();
}

void StaticRpCandidateSm::handleRp(const Wirl::IpGenPrefix& groups) {
    auto* config = notifier();
    if (!config || !config->rpHas(groups)) {
        status_->rpDel(groups);
        return;
    }
    const Wirl::IpGenAddr rp = config->rp(groups);
    if (!valid(groups, rp)) {
        ++invalidMappings_;
        CASK_VRF_TRACE(4, vrf_, "StaticRpCandidateSm::handleRp( {} ), ignoring invalid RP {}",
                       groups, rp);
        status_->rpDel(groups);
        return;
    }
    CASK_VRF_TRACE(7, vrf_, "StaticRpCandidateSm::handleRp( {} ), RP {}", groups, rp);
    status_->rpIs(groups, rp);
}

PreInitSm::PreInitSm(const L3::VrfName& vrf, RootSm& root)
    : vrf_(vrf), staticRpCandidateSm_(std::make_unique<StaticRpCandidateSm>(vrf, root.db())) {}

}  // namespace Routing::Pim::SparseMode
