#pragma once
// Group-range inputs of a VRF that decide which groups sparse mode handles
// and how:
// - SparseModeConfig: the VRF's sparse-mode configuration (its SSM range,
//   its shortest-path-tree switchover thresholds);
// - SsmGroupInfo: the SSM range in force and the `ssmGroup` test;
// - GroupFilterStatus: groups sparse mode must leave alone (bidirectional
//   ranges);
// - FrrFilterStatus: groups for which upstream fast failover is enabled;
// - SsmConvertConfig: groups whose (*,G) memberships are converted into
//   (S,G) memberships for a configured set of sources.

#include <cstdint>
#include <optional>
#include <string>

#include "cask/collection.h"
#include "wirl/address_range_set.h"
#include "wirl/ip_gen_addr.h"
#include "wirl/ip_gen_prefix.h"

namespace Routing::Pim::SparseMode {

class Config : public Cask::Record<Config> {
public:
    // When a last-hop router moves a group's traffic from the shared tree
    // to the source's tree: on the first packet, or never. As the VRF's
    // default, any non-zero value means immediately.
    enum class DrSwitchThresh : std::uint8_t { never = 0, immediate = 1 };

    class Notifiee : public Cask::NotifieeOf<Config> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleSsmRange() {}
        virtual void handleDrSwitch() {}
        virtual void handleDrSwitchAcl(const std::string&) {}
    };
    explicit Config(Wirl::AddressFamily family) : family_(family) {}
    Wirl::AddressFamily family() const { return family_; }
    // The configured SSM range; unset means the family's default range.
    CASK_ATTR(std::optional<Wirl::AddressRangeSet>, ssmRange, SsmRange)
    // The VRF's default switchover threshold.
    CASK_ATTR(DrSwitchThresh, drSwitch, DrSwitch)
    // Exceptions to the default: access-list name -> the threshold of the
    // groups the list permits (Acl::AclConfig holds the lists).
    CASK_VALUE_MAP(drSwitchAcl, DrSwitchAcl, std::string, DrSwitchThresh)

private:
    Wirl::AddressFamily family_;
    std::optional<Wirl::AddressRangeSet> ssmRange_;
    DrSwitchThresh drSwitch_ = DrSwitchThresh::immediate;
    Cask::ValueMap<std::string, DrSwitchThresh> drSwitchAcl_;
};

class SsmGroupInfo : public Cask::Record<SsmGroupInfo> {
public:
    class Notifiee : public Cask::NotifieeOf<SsmGroupInfo> {};
    explicit SsmGroupInfo(Wirl::AddressFamily family)
        : defaultRange_(Wirl::AddressRangeSet::defaultSsm(family)) {}
    // Is `group` in the SSM range: the configured one, else the default
    // (232.0.0.0/8 for IPv4, ff3x::/32 for IPv6)?
    bool ssmGroup(const Wirl::IpGenAddr& group, const Config& config) const {
        const auto& configured = config.ssmRange();
        return configured ? configured->contains(group) : defaultRange_.contains(group);
    }

private:
    Wirl::AddressRangeSet defaultRange_;
};

}  // namespace Routing::Pim::SparseMode

namespace Routing::Pim {

class GroupFilterStatus : public Cask::Record<GroupFilterStatus> {
public:
    class Notifiee : public Cask::NotifieeOf<GroupFilterStatus> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleBidirRange() {}
    };
    explicit GroupFilterStatus(Wirl::AddressFamily family) : bidirRange_(family) {}
    // Group ranges run in bidirectional mode.
    CASK_ATTR(Wirl::AddressRangeSet, bidirRange, BidirRange)
    // False when any group of `groups` belongs to a bidirectional range.
    bool permitGroup(const Wirl::IpGenPrefix& groups) const {
        return !bidirRange_.intersects(groups);
    }

private:
    Wirl::AddressRangeSet bidirRange_;
};

}  // namespace Routing::Pim

namespace Routing::Pim::SparseMode {

class FrrFilterStatus : public Cask::Record<FrrFilterStatus> {
public:
    class Notifiee : public Cask::NotifieeOf<FrrFilterStatus> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleFrrRange() {}
    };
    explicit FrrFilterStatus(Wirl::AddressFamily family) : frrRange_(family) {}
    // Groups whose routes keep a fast-failover backup upstream.
    CASK_ATTR(Wirl::AddressRangeSet, frrRange, FrrRange)
    bool frrEnabled(const Wirl::IpGenAddr& group) const { return frrRange_.contains(group); }

private:
    Wirl::AddressRangeSet frrRange_;
};

// One SSM-conversion group: the sources its (*,G) memberships stand for.
class SsmConvertGroup : public Cask::Record<SsmConvertGroup> {
public:
    class Notifiee : public Cask::NotifieeOf<SsmConvertGroup> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleSource(const Wirl::IpGenAddr&) {}
    };
    explicit SsmConvertGroup(const Wirl::IpGenAddr& group) : group_(group) {}
    const Wirl::IpGenAddr& group() const { return group_; }
    CASK_KEY_SET(source, Source, Wirl::IpGenAddr)

private:
    Wirl::IpGenAddr group_;
    Cask::OrderedKeySet<Wirl::IpGenAddr> source_;
};

class SsmConvertConfig : public Cask::Record<SsmConvertConfig> {
public:
    class Notifiee : public Cask::NotifieeOf<SsmConvertConfig> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleGroup(const Wirl::IpGenAddr&) {}
    };
    CASK_RECORD_MAP(group, Group, Wirl::IpGenAddr, SsmConvertGroup,
                    "Routing::Pim::SparseMode::SsmConvertConfig")

private:
    Cask::RecordMap<Wirl::IpGenAddr, SsmConvertGroup> group_;
};

}  // namespace Routing::Pim::SparseMode
