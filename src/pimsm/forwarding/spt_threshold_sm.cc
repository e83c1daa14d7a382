#include "pimsm/forwarding/spt_threshold_sm.h"

#include "cask/assert.h"
#include "cask/trace.h"
#include "pimsm/common/vrf_inputs.h"

namespace Routing::Pim::SparseMode {

const char* drSwitchThreshName(DrSwitchThresh t) {
    return t == DrSwitchThresh::never ? "never" : "immediate";
}

SptThresholdInfo::SptThresholdInfo(Wirl::AddressFamily family, const L3::VrfName& vrf)
    : vrf_(vrf), trieI_(family), trieN_(family) {}

bool SptThresholdInfo::sptThreshold(const Wirl::IpGenAddr& group, const Config& config) const {
    std::optional<Wirl::IpGenPrefix> match;
    bool result;
    if (config.drSwitch() != DrSwitchThresh::never) {
        match = trieN_.longestMatch(group);
        CASK_VRF_TRACE(8, vrf_, "SptThresholdInfo::sptThreshold(): lookup trie-never {}", group);
        result = !match;
    } else {
        match = trieI_.longestMatch(group);
        CASK_VRF_TRACE(8, vrf_, "SptThresholdInfo::sptThreshold(): lookup trie-immediate {}",
                       group);
        result = match.has_value();
    }
    if (!match) {
        CASK_VRF_TRACE(8, vrf_, "SptThresholdInfo::sptThreshold(): LPM for {} returned NULL prefix",
                       group);
    } else {
        CASK_VRF_TRACE(8, vrf_, "SptThresholdInfo::sptThreshold(): LPM for {} returned {}", group,
                       *match);
    }
    CASK_VRF_TRACE(8, vrf_, "SptThresholdInfo::sptThreshold(): {} spt switch {}", group, result);
    return result;
}

void aclToPrefix(const Acl::AclConfig* aclConfig, DrSwitchAcl& acl, const L3::VrfName& vrf,
                 Wirl::AddressFamily family) {
    acl.grpPrefix.clear();
    if (family != Wirl::AddressFamily::ipv4 && family != Wirl::AddressFamily::ipv6) {
        CASK_VRF_TRACE(4, vrf, "aclToPrefix(): Unsupported address family {}",
                       Wirl::familyName(family));
        return;
    }
    // A list named by the configuration but not defined permits nothing.
    if (!aclConfig || !aclConfig->aclHas(acl.name)) return;
    acl.grpPrefix = aclConfig->acl(acl.name).permittedGroups(family).prefixes();
}

SptThresholdSm::SptThresholdSm(const VrfContext& ctx)
    : ctx_(requireInputs(ctx, "SptThresholdSm", &VrfContext::config, &VrfContext::aclConfig,
                         &VrfContext::sptThresholdInfo)) {
    notifierIs(ctx.config);
    aclWatcher_.notifierIs(ctx.aclConfig);
}

void SptThresholdSm::handleDrSwitch() {
    CASK_VRF_TRACE(6, ctx_.vrfName, "SptThresholdSm::handleDrSwitch(): default {}",
                   drSwitchThreshName(ctx_.config->drSwitch()));
    // The tries stay; which of them answers changes.
    ctx_.sptThresholdInfo->sptConfigChangedInc();
}

void SptThresholdSm::handleDrSwitchAcl(const std::string& name) {
    CASK_VRF_TRACE(6, ctx_.vrfName, "SptThresholdSm::handleDrSwitchAcl({})", name);
    const Config& config = *ctx_.config;
    auto it = drSwitchAcl_.find(name);
    if (config.drSwitchAclHas(name)) {
        if (it == drSwitchAcl_.end()) {
            CASK_VRF_TRACE(7, ctx_.vrfName,
                           "SptThresholdSm::handleDrSwitchAcl(): create drSwitchAcl {}", name);
            it = drSwitchAcl_.emplace(name, DrSwitchAcl{name, DrSwitchThresh::immediate, {}}).first;
        } else {
            doWithdraw(it->second);
        }
        DrSwitchAcl& acl = it->second;
        acl.threshold = config.drSwitchAcl(name);
        aclToPrefix(ctx_.aclConfig, acl, ctx_.vrfName, ctx_.family);
        for (const auto& p : acl.grpPrefix) updateTrie(p, true, acl.threshold);
    } else if (it != drSwitchAcl_.end()) {
        doWithdraw(it->second);
        drSwitchAcl_.erase(it);
        CASK_VRF_TRACE(7, ctx_.vrfName,
                       "SptThresholdSm::handleDrSwitchAcl(): delete drSwitchAcl {}", name);
    } else {
        CASK_VRF_TRACE(7, ctx_.vrfName,
                       "SptThresholdSm::handleDrSwitchAcl(): drSwitchAcl doesn't have {}", name);
        return;  // nothing changed
    }
    ctx_.sptThresholdInfo->sptConfigChangedInc();
}

void SptThresholdSm::handleDrSwitchAcl() {
    // The configured names, then the ones that went meanwhile.
    std::vector<std::string> names;
    for (const auto& [name, threshold] : ctx_.config->drSwitchAcl()) names.push_back(name);
    for (const auto& [name, acl] : drSwitchAcl_) {
        if (!ctx_.config->drSwitchAclHas(name)) names.push_back(name);
    }
    for (const auto& name : names) handleDrSwitchAcl(name);
}

void SptThresholdSm::handleAclConfig(const std::string& name) {
    // Lists no exception of this VRF uses are not ours.
    if (!drSwitchAcl_.count(name)) return;
    CASK_VRF_TRACE(6, ctx_.vrfName, "SptThresholdSm::handleAclConfig({})", name);
    handleDrSwitchAcl(name);
}

void SptThresholdSm::handleAclConfig() {
    std::vector<std::string> names;
    for (const auto& [name, acl] : drSwitchAcl_) names.push_back(name);
    for (const auto& name : names) handleAclConfig(name);
}

void SptThresholdSm::doWithdraw(const DrSwitchAcl& acl) {
    for (const auto& p : acl.grpPrefix) updateTrie(p, false, acl.threshold);
}

void SptThresholdSm::updateTrie(const Wirl::IpGenPrefix& prefix, bool add,
                                DrSwitchThresh threshold) {
    SptThresholdInfo& info = *ctx_.sptThresholdInfo;
    const bool never = threshold == DrSwitchThresh::never;
    PrefixRefCount& rc = never ? *info.prefixRCN() : *info.prefixRCI();
    const char* trieName = drSwitchThreshName(threshold);
    if (add) {
        rc.counterInc(prefix);
        if (rc.counter(prefix) == 1) {
            info.trie(threshold).insert(prefix);
            CASK_VRF_TRACE(7, ctx_.vrfName,
                           "SptThresholdSm::updateTrie(): add prefix {} to trie-{}", prefix,
                           trieName);
        }
    } else {
        if (never) {
            CASK_ASSERT(info.prefixRCN()->counter(prefix), "prefixRCN()->counter( prefix )");
        } else {
            CASK_ASSERT(info.prefixRCI()->counter(prefix), "prefixRCI()->counter( prefix )");
        }
        rc.counterDec(prefix);
        if (rc.counter(prefix) == 0) {
            rc.counterDel(prefix);
            info.trie(threshold).erase(prefix);
            CASK_VRF_TRACE(7, ctx_.vrfName,
                           "SptThresholdSm::updateTrie(): del prefix {} from trie-{}", prefix,
                           trieName);
            return;
        }
    }
    CASK_VRF_TRACE(8, ctx_.vrfName, "SptThresholdSm::updateTrie(): {} counter {} for prefix {}",
                   never ? "trieN" : "trieI", rc.counter(prefix), prefix);
}

std::unique_ptr<SptThresholdSm> sptThresholdSmFactory(const VrfContext& ctx) {
    auto sm = std::make_unique<SptThresholdSm>(ctx);
    sm->handleDrSwitchAcl();
    ctx.sptThresholdInfo->initializedIs(true);
    return sm;
}

}  // namespace Routing::Pim::SparseMode
