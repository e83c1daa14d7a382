#pragma once
// Change notification: the one mechanism through which every record tells
// the machines that watch it what changed.
//
// A record derives from `Notifier` and declares a nested `Notifiee` class
// (deriving from `NotifieeOf<Record>`) with one virtual `handle...` method per
// attribute that can be watched; the defaults do nothing. A machine derives
// from `Record::Notifiee`, overrides the handlers it cares about and attaches
// itself with `notifierIs(record)`; its destructor detaches it.
//
// Delivery is synchronous: a setter calls every watcher's handler before it
// returns, in the order the watchers were attached. The mechanism is safe
// against the things handlers do:
// - a watcher attached during a delivery does not receive that delivery;
// - a watcher detached (or destroyed) during a delivery is not called again,
//   not even by the delivery in progress;
// - the record itself may be destroyed during a delivery: the delivery stops
//   at once and the setter must not touch the record afterwards (the helpers
//   below never do).
//
// Setters notify only when the value changes (`assign`); counters always
// notify (`increment`), which is why counters serve as events.

#include <cstddef>
#include <cstdint>
#include <utility>

namespace Cask {

class Notifier;
template <class Map>
class KeyedCollection;

// The untyped watcher side; machines use `NotifieeOf<R>` (via R::Notifiee).
class NotifieeBase {
public:
    NotifieeBase() = default;
    NotifieeBase(const NotifieeBase&) = delete;
    NotifieeBase& operator=(const NotifieeBase&) = delete;
    virtual ~NotifieeBase();

protected:
    Notifier* notifierBase() const { return notifier_; }
    void notifierBaseIs(Notifier* n);

private:
    friend class Notifier;
    template <class Map>
    class KeyedCollection;
    Notifier* notifier_ = nullptr;
};

// The watched side. Not copyable: watchers hold its address.
class Notifier {
public:
    Notifier() = default;
    Notifier(const Notifier&) = delete;
    Notifier& operator=(const Notifier&) = delete;
    ~Notifier();

    std::size_t notifieeCount() const { return size_ - tombstones_; }

protected:
    // Calls `handler(args...)` on every watcher attached when the delivery
    // starts and still attached when its turn comes. `N` is the record's
    // Notifiee class: every watcher of a record is one. Returns false when
    // the record was destroyed during the delivery.
    template <class N, class... P, class... A>
    bool notify(void (N::*handler)(P...), A&&... args);

    // Sets `field` to `value` and notifies `handler` if it changed.
    template <class T, class V, class N>
    void assign(T& field, V&& value, void (N::*handler)()) {
        if (field == value) return;
        field = std::forward<V>(value);
        notify(handler);
    }

    // Increments a counter and always notifies.
    template <class T, class N>
    void increment(T& counter, void (N::*handler)()) {
        ++counter;
        notify(handler);
    }

private:
    friend class NotifieeBase;
    template <class Map>
    friend class KeyedCollection;
    // One frame per delivery in progress on this record, innermost first, so
    // that detaching and destruction can be seen by every active delivery.
    struct Delivery {
        Delivery* outer;
        bool recordDestroyed;
    };
    void attach(NotifieeBase* n);
    void detach(NotifieeBase* n);
    void compact();

    // The watchers in attachment order: a bare array with 32-bit size and
    // capacity, since every route and interface record carries one. Its
    // capacities are odd (3, 7, 15, ...) so that the allocation fills the
    // allocator's block exactly.
    NotifieeBase** notifiees_ = nullptr;
    std::uint32_t size_ = 0;
    std::uint32_t capacity_ = 0;
    Delivery* delivery_ = nullptr;
    std::uint32_t tombstones_ = 0;
};

// Typed base of a record's Notifiee class.
template <class R>
class NotifieeOf : public NotifieeBase {
public:
    NotifieeOf() = default;
    explicit NotifieeOf(R* record) { notifierIs(record); }

    R* notifier() const { return static_cast<R*>(notifierBase()); }
    // Attaches to `record` (detaching from any previous one); nullptr detaches.
    void notifierIs(R* record) { notifierBaseIs(record); }
};

template <class N, class... P, class... A>
bool Notifier::notify(void (N::*handler)(P...), A&&... args) {
    if (size_ == 0) return true;
    Delivery frame{delivery_, false};
    delivery_ = &frame;
    // Watchers attached during the delivery land past `end` and are skipped.
    // The array may move as they do: it is indexed afresh for each watcher.
    const std::uint32_t end = size_;
    for (std::uint32_t i = 0; i < end; ++i) {
        NotifieeBase* n = notifiees_[i];
        if (!n) continue;  // detached during this delivery
        (static_cast<N*>(n)->*handler)(args...);
        if (frame.recordDestroyed) return false;  // `this` is gone
    }
    delivery_ = frame.outer;
    if (!delivery_ && tombstones_) compact();
    return true;
}

}  // namespace Cask
