#pragma once
// SptThresholdSm: the per-group shortest-path-tree switchover policy of a
// VRF. The configuration gives a default threshold (`Config::drSwitch`) and
// exceptions, each an access list of groups with its own threshold
// (`Config::drSwitchAcl`); the machine turns the lists into group prefixes
// and keeps them in two prefix tries, one per threshold, which
// `SptThresholdInfo::sptThreshold` consults for the last-hop router's
// switch to the source tree (RFC 7761 4.2.1, SwitchToSptDesired).
// Watches: Config drSwitch and drSwitchAcl, the family's Acl::AclConfig lists.
// Writes:  SptThresholdInfo (tries, their reference counts, sptConfigChanged, initialized).

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "cask/collection.h"
#include "pimsm/common/vrf_context.h"
#include "platform/access_list.h"
#include "platform/group_ranges.h"
#include "wirl/prefix_trie.h"
#include "wirl/vrf_name.h"

namespace Routing::Pim::SparseMode {

using DrSwitchThresh = Config::DrSwitchThresh;

// "immediate" or "never".
const char* drSwitchThreshName(DrSwitchThresh t);

// How many access lists put each prefix into one trie.
class PrefixRefCount : public Cask::Record<PrefixRefCount> {
public:
    class Notifiee : public Cask::NotifieeOf<PrefixRefCount> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleCounter(const Wirl::IpGenPrefix&) {}
    };
    CASK_VALUE_MAP(counter, Counter, Wirl::IpGenPrefix, std::uint32_t)
    void counterInc(const Wirl::IpGenPrefix& p) { counterIs(p, counter(p) + 1); }
    void counterDec(const Wirl::IpGenPrefix& p) { counterIs(p, counter(p) - 1); }

private:
    Cask::ValueMap<Wirl::IpGenPrefix, std::uint32_t> counter_;
};

class SptThresholdInfo : public Cask::Record<SptThresholdInfo> {
public:
    class Notifiee : public Cask::NotifieeOf<SptThresholdInfo> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleSptConfigChanged() {}
        virtual void handleInitialized() {}
    };
    SptThresholdInfo(Wirl::AddressFamily family, const L3::VrfName& vrf);

    // Group prefixes whose threshold is "immediately" / "never".
    const Wirl::PrefixTrie& trieImmediate() const { return trieI_; }
    const Wirl::PrefixTrie& trieNever() const { return trieN_; }
    Wirl::PrefixTrie& trie(DrSwitchThresh t) {
        return t == DrSwitchThresh::never ? trieN_ : trieI_;
    }
    PrefixRefCount* prefixRCI() const { return prefixRCI_.get(); }
    PrefixRefCount* prefixRCN() const { return prefixRCN_.get(); }

    // Moves after every change that can change an answer (either trie, the
    // default); readers re-evaluate their routes then.
    CASK_COUNTER(std::uint64_t, sptConfigChanged, SptConfigChanged)
    CASK_ATTR(bool, initialized, Initialized)

    // Does `group` switch to the source tree? Only the trie of the
    // threshold that is not the default is consulted: with the default
    // "immediately" a group switches unless a "never" list holds it, with
    // the default "never" only when an "immediately" list holds it.
    bool sptThreshold(const Wirl::IpGenAddr& group, const Config& config) const;

private:
    L3::VrfName vrf_;
    Wirl::PrefixTrie trieI_, trieN_;
    Cask::Ptr<PrefixRefCount> prefixRCI_ = Cask::make<PrefixRefCount>();
    Cask::Ptr<PrefixRefCount> prefixRCN_ = Cask::make<PrefixRefCount>();
    std::uint64_t sptConfigChanged_ = 0;
    bool initialized_ = false;
};

// One configured exception: its threshold and the group prefixes its
// access list yields now.
struct DrSwitchAcl {
    std::string name;
    DrSwitchThresh threshold = DrSwitchThresh::immediate;
    std::vector<Wirl::IpGenPrefix> grpPrefix;
};

// Fills `acl.grpPrefix` from its access list: the fewest prefixes covering
// exactly the groups the list permits (see platform/access_list.h); none
// when the list is not defined.
void aclToPrefix(const Acl::AclConfig* aclConfig, DrSwitchAcl& acl, const L3::VrfName& vrf,
                 Wirl::AddressFamily family);

class SptThresholdSm : public Config::Notifiee {
public:
    // Reads config and aclConfig, writes sptThresholdInfo (all required).
    explicit SptThresholdSm(const VrfContext& ctx);

    void handleDrSwitch() override;
    // The exception `name` appeared, changed threshold or went.
    void handleDrSwitchAcl(const std::string& name) override;
    void handleDrSwitchAcl();
    // The rules of access list `name` changed: recompute the exception using it.
    void handleAclConfig(const std::string& name);
    void handleAclConfig();

    // Adds or withdraws one list's claim on `prefix` in the trie of `threshold`.
    void updateTrie(const Wirl::IpGenPrefix& prefix, bool add, DrSwitchThresh threshold);

    const std::map<std::string, DrSwitchAcl>& drSwitchAcl() const { return drSwitchAcl_; }

private:
    class AclWatcher : public Acl::AclConfig::Notifiee {
    public:
        explicit AclWatcher(SptThresholdSm& owner) : owner_(owner) {}
        void handleAcl(const std::string& name) override { owner_.handleAclConfig(name); }

    private:
        SptThresholdSm& owner_;
    };

    void doWithdraw(const DrSwitchAcl& acl);

    const VrfContext& ctx_;
    std::map<std::string, DrSwitchAcl> drSwitchAcl_;
    AclWatcher aclWatcher_{*this};
};

// Creates the machine, reads the whole configuration and sets
// SptThresholdInfo::initialized.
std::unique_ptr<SptThresholdSm> sptThresholdSmFactory(const VrfContext& ctx);

}  // namespace Routing::Pim::SparseMode
