#include "pimsm/route/local_status.h"

namespace Routing::Pim::SparseMode {

void LocalStatus::changeSetIs(Cask::Ptr<ChangeSet> c) {
    if (c == changeSet_) return;
    changeSet_ = std::move(c);
    notify(&Notifiee::handleChangeSet);
}

void LocalStatus::reviewChangeSetIs(Cask::Ptr<ChangeSet> c) {
    if (c == reviewChangeSet_) return;
    reviewChangeSet_ = std::move(c);
    notify(&Notifiee::handleReviewChangeSet);
}

Cask::Ptr<ChangeSet> LocalStatus::newChangeSet() {
    auto c = Cask::make<ChangeSet>();
    c->handleInitialized();
    return c;
}

Cask::Ptr<LocalStatus> localStatusFactory(Wirl::AddressFamily family) {
    auto ls = Cask::make<LocalStatus>(family);
    ls->changeSetIs(LocalStatus::newChangeSet());
    ls->reviewChangeSetIs(LocalStatus::newChangeSet());
    ls->initializedIs(true);
    return ls;
}

}  // namespace Routing::Pim::SparseMode
