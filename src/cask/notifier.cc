#include "cask/notifier.h"

#include <algorithm>

namespace Cask {

NotifieeBase::~NotifieeBase() {
    if (notifier_) notifier_->detach(this);
}

void NotifieeBase::notifierBaseIs(Notifier* n) {
    if (n == notifier_) return;
    if (notifier_) notifier_->detach(this);
    notifier_ = n;
    if (n) n->attach(this);
}

Notifier::~Notifier() {
    for (NotifieeBase* n : notifiees_) {
        if (n) n->notifier_ = nullptr;
    }
    for (Delivery* d = delivery_; d; d = d->outer) d->recordDestroyed = true;
}

void Notifier::attach(NotifieeBase* n) {
    notifiees_.push_back(n);
}

void Notifier::detach(NotifieeBase* n) {
    auto it = std::find(notifiees_.begin(), notifiees_.end(), n);
    if (it == notifiees_.end()) return;
    if (delivery_) {
        // A delivery is walking the list by index: leave a hole and compact
        // when the outermost delivery ends.
        *it = nullptr;
        ++tombstones_;
    } else {
        notifiees_.erase(it);
    }
}

void Notifier::compact() {
    std::erase(notifiees_, nullptr);
    tombstones_ = 0;
}

}  // namespace Cask
