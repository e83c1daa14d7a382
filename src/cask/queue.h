#pragma once
// A notifying first-in first-out queue: work handed from producers to a
// reviewer that takes it in arrival order (received messages waiting to be
// worked through in slices, say).
//
// Entries need not be unique; each gets a sequence number when pushed, its
// key, so that a sliced review can bookmark an entry and find it again. Keys
// start at 1 and grow by one per push; key 0 is never an entry.
//
// A record exposes a queue through the accessor family CASK_QUEUE generates:
//
//     x()            the queue itself, read only (iteration, front to back)
//     xPush(v)       appends at the back and announces `handleX()`
//     xFront()       the oldest entry (the queue must not be empty)
//     xPop()         removes the oldest entry, silently: the reviewer that
//                    pops knows, and its watcher should not ask itself for
//                    another review
//     xSize()
//
// The reviewer may change the entry at the front in place (through a
// `Cask::Ptr` value, say) while producers push behind it.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <utility>

#include "cask/assert.h"
#include "cask/notifier.h"

namespace Cask {

template <class V>
class Queue {
public:
    using Key = std::uint64_t;

    std::size_t size() const { return items_.size(); }
    bool empty() const { return items_.empty(); }
    auto begin() const { return items_.begin(); }
    auto end() const { return items_.end(); }
    const V& front() const {
        CASK_ASSERT(!items_.empty(), "front of an empty queue");
        return items_.front();
    }
    // The key of the front entry; the keys behind it follow one by one.
    Key frontKey() const { return frontKey_; }
    // The entry under `k`, or null once it was popped (or before it exists).
    const V* at(Key k) const {
        if (k < frontKey_ || k - frontKey_ >= items_.size()) return nullptr;
        return &items_[k - frontKey_];
    }
    // The first key at or after `k` still queued, if any.
    std::optional<Key> lowerBound(Key k) const {
        const Key first = k < frontKey_ ? frontKey_ : k;
        if (first - frontKey_ >= items_.size()) return std::nullopt;
        return first;
    }

    void push(V v) { items_.push_back(std::move(v)); }
    void pop() {
        CASK_ASSERT(!items_.empty(), "pop from an empty queue");
        items_.pop_front();
        ++frontKey_;
    }

private:
    std::deque<V> items_;
    Key frontKey_ = 1;
};

}  // namespace Cask

// The queue accessors for a record whose Notifiee declares
// `virtual void handle<Name>()`; the member is `<name>_`, a Cask::Queue<Value>.
#define CASK_QUEUE(name, Name, Value)          \
    const ::Cask::Queue<Value>& name() const { \
        return name##_;                        \
    }                                          \
    void name##Push(Value v) {                 \
        name##_.push(std::move(v));            \
        notify(&Notifiee::handle##Name);       \
    }                                          \
    const Value& name##Front() const {         \
        return name##_.front();                \
    }                                          \
    void name##Pop() {                         \
        name##_.pop();                         \
    }                                          \
    std::size_t name##Size() const {           \
        return name##_.size();                 \
    }
