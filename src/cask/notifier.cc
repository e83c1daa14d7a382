#include "cask/notifier.h"

#include <algorithm>

#include "cask/record_pool.h"

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
    for (std::uint32_t i = 0; i < size_; ++i) {
        if (notifiees_[i]) notifiees_[i]->notifier_ = nullptr;
    }
    for (Delivery* d = delivery_; d; d = d->outer) d->recordDestroyed = true;
    if (notifiees_) RecordPool::give(notifiees_, capacity_ * sizeof(NotifieeBase*));
}

void Notifier::attach(NotifieeBase* n) {
    if (size_ == capacity_) {
        // Seven to start: a route is watched by four to seven machines, and
        // growing from three cost it a second allocation and a copy.
        const std::uint32_t grown = capacity_ ? 2 * capacity_ + 1 : 7;
        auto* moved = static_cast<NotifieeBase**>(RecordPool::take(grown * sizeof(NotifieeBase*)));
        std::copy(notifiees_, notifiees_ + size_, moved);
        if (notifiees_) RecordPool::give(notifiees_, capacity_ * sizeof(NotifieeBase*));
        notifiees_ = moved;
        capacity_ = grown;
    }
    notifiees_[size_++] = n;
}

void Notifier::detach(NotifieeBase* n) {
    NotifieeBase** end = notifiees_ + size_;
    NotifieeBase** it = std::find(notifiees_, end, n);
    if (it == end) return;
    if (delivery_) {
        // A delivery is walking the list by index: leave a hole and compact
        // when the outermost delivery ends.
        *it = nullptr;
        ++tombstones_;
    } else {
        std::copy(it + 1, end, it);
        --size_;
    }
}

void Notifier::compact() {
    size_ = static_cast<std::uint32_t>(std::remove(notifiees_, notifiees_ + size_, nullptr) -
                                       notifiees_);
    tombstones_ = 0;
}

}  // namespace Cask
