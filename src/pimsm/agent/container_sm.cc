#include "pimsm/agent/container_sm.h"

#include "cask/trace.h"

namespace Routing::Pim::SparseMode {

// Keeps the VRF's unicast routing status in step with the tables the
// unicast routing side publishes for it.
class ContainerSm::MribWatcher : public Platform::MribVrfStatus::Notifiee {
public:
    MribWatcher(Platform::MribVrfStatus* mrib, UnicastRoutingStatus& out)
        : Platform::MribVrfStatus::Notifiee(mrib), out_(out) {
        handleUrib();
        handleMrib();
    }
    void handleUrib() override {
        if (out_.family() == Wirl::AddressFamily::ipv4) {
            out_.uribShadowStatusIs(notifier()->urib());
        } else {
            out_.urib6ShadowStatusIs(notifier()->urib());
        }
    }
    void handleMrib() override {
        if (out_.family() == Wirl::AddressFamily::ipv4) {
            out_.mribStatusIs(notifier()->mrib());
        } else {
            out_.mrib6StatusIs(notifier()->mrib());
        }
    }

private:
    UnicastRoutingStatus& out_;
};

ContainerSm::ContainerSm(const L3::VrfName& vrf, const ParamsContainer& pc,
                         Cask::Ptr<Platform::RegisterConfig> registerConfig,
                         MfibDirWriter& mfibDirWriter,
                         MrouteEventMonConfigSm& mrouteEventMonConfigSm)
    : vrf_(vrf),
      pc_(pc),
      registerConfig_(std::move(registerConfig)),
      mfibDirWriter_(mfibDirWriter),
      mrouteEventMonConfigSm_(mrouteEventMonConfigSm) {
    handleInitialized();
}

ContainerSm::~ContainerSm() {
    // Machines first (they watch the records), then the records, in the
    // reverse of the order they were made.
    mribWatcher_.reset();
    mfibDirWriter_.tableUnmount(vrf_);
}

std::string ContainerSm::tidalPath(const char* table) const {
    return "tidal/pim/" + vrf_.str() + "/sparsemode/" + table;
}

// The one place that says what a VRF is made of, in the order it is made.
void ContainerSm::handleInitialized() {
    CASK_TRACE(6, "<Vrf:{}>ContainerSm::handleInitialized()", vrf_);
    auto& db = pc_.db;

    // The VRF's route status, linked to its PIM interface status; the
    // shared-memory route table it publishes; the forwarding table.
    pimStatus_ = db.pimStatus(vrf_);
    if (!pimStatus_) {
        // No PIM interface was published for the VRF yet: start from an
        // empty status that the PIM neighbour side fills in.
        pimStatus_ = Cask::make<Routing::Pim::Status>();
        db.pimStatusIs(vrf_, pimStatus_);
    }
    status_ = std::make_unique<Status>(pc_.loop.clock(), RouteContext{pimStatus_.get(), nullptr});
    db.mountIs(tidalPath("status"));
    mfibDirWriter_.tableMount(vrf_);

    // RPF inputs; the group and fast-failover filters of the family.
    unicastRoutingStatus_ = unicastRoutingStatusFactory(pc_.family);
    mribWatcher_ =
        std::make_unique<MribWatcher>(db.mribVrfStatus(vrf_).get(), *unicastRoutingStatus_);
    groupFilterStatus_ = Cask::make<Routing::Pim::GroupFilterStatus>(pc_.family);
    frrFilterStatus_ = Cask::make<FrrFilterStatus>(pc_.family);

    // LocalStatus, linked to the route status and the two filters.
    localStatus_ = localStatusFactory(pc_.family);
    status_->contextLocalStatusIs(localStatus_.get());

    // The membership table the membership protocol writes for the VRF.
    gmpTidalStatus_ = db.membershipTable(vrf_);
    if (!gmpTidalStatus_) {
        gmpTidalStatus_ = Cask::make<Routing::Gmp::Tidal::Status>();
        db.membershipTableIs(vrf_, gmpTidalStatus_);
    }

    // Register and advertised-source status; the SSM range in force.
    db.mountIs(tidalPath("register"));
    db.mountIs(tidalPath("advertisedSg"));
    ssmGroupInfo_ = Cask::make<SsmGroupInfo>(pc_.family);

    // Ready.
    initializedIs(true);
}

}  // namespace Routing::Pim::SparseMode
