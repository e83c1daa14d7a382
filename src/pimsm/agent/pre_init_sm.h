#pragma once
// PreInitSm: what a VRF needs before its inputs are complete: the static RP
// candidate machine, which turns the VRF's static RP configuration into the
// RP mapping the VRF's machines use.
//
// StaticRpCandidateSm watches "staticRpConfig" for the VRF and writes
// "staticRpStatus": every configured group range with its RP, except
// mappings that cannot be right (a group range that is not multicast, an RP
// that is not a unicast address, either of the wrong family), which are
// traced and counted in `invalidMappings`.

#include <cstdint>
#include <memory>

#include "cask/collection.h"
#include "platform/state_db.h"

namespace Routing::Pim::SparseMode {

class RootSm;

class StaticRpCandidateSm : public Platform::RpMapping::Notifiee {
public:
    StaticRpCandidateSm(const L3::VrfName& vrf, Platform::StateDb& db);
    ~StaticRpCandidateSm() override;
    void handleRp(const Wirl::IpGenPrefix& groups) override;
    std::uint32_t invalidMappings() const { return invalidMappings_; }

private:
    bool valid(const Wirl::IpGenPrefix& groups, const Wirl::IpGenAddr& rp) const;
    L3::VrfName vrf_;
    Platform::StateDb& db_;
    Cask::Ptr<Platform::RpMapping> status_;
    std::uint32_t invalidMappings_ = 0;
};

class PreInitSm : public Cask::Record<PreInitSm> {
public:
    class Notifiee : public Cask::NotifieeOf<PreInitSm> {};
    PreInitSm(const L3::VrfName& vrf, RootSm& root);
    const L3::VrfName& vrfName() const { return vrf_; }
    StaticRpCandidateSm* staticRpCandidateSm() const { return staticRpCandidateSm_.get(); }

private:
    L3::VrfName vrf_;
    std::unique_ptr<StaticRpCandidateSm> staticRpCandidateSm_;
};

}  // namespace Routing::Pim::SparseMode
