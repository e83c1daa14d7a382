#pragma once
// ReactorDirectory: one index shared by the reactor maps of machines that
// follow the same keys, in place of an index per map.
//
// Every machine that follows a VRF's routes keeps a reactor per route. With
// an index each, a new route costs one insert per machine, each a cache
// miss of its own. In a directory the key has one block with a slot per
// map: a new route costs one insert for all of them, and once the first
// machine has found the block the others find it in cache.
//
// The blocks sit in a B-tree in key order. Routes are made by reviews that
// walk their changes in key order, so a burst of new routes appends to one
// leaf after another, where a hash index would put each in a random place
// and keep growing; the tree never rehashes.
//
// A map takes a slot when it is made (`SharedIndex`, below) and gives it
// back when it goes; at most `slots` maps share one directory. Reactors
// derive from `Base`, which supplies `reactorKey()`. A block lives while
// any of its slots is filled.
//
// Cost per key: the key and the block (a pointer per slot) in a tree node;
// the maps that hold a reactor of the key share it.

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include <absl/container/btree_map.h>

#include "cask/assert.h"
#include "cask/collection.h"

namespace Cask {

// Counts the bytes a container holds, for footprints that read the real
// allocation rather than an estimate.
template <class T>
struct CountingAllocator {
    using value_type = T;
    std::size_t* bytes;

    explicit CountingAllocator(std::size_t* b) : bytes(b) {}
    template <class U>
    CountingAllocator(const CountingAllocator<U>& o) : bytes(o.bytes) {}
    T* allocate(std::size_t n) {
        *bytes += n * sizeof(T);
        return std::allocator<T>().allocate(n);
    }
    void deallocate(T* p, std::size_t n) {
        *bytes -= n * sizeof(T);
        std::allocator<T>().deallocate(p, n);
    }
    template <class U>
    bool operator==(const CountingAllocator<U>& o) const {
        return bytes == o.bytes;
    }
};

template <class Key, class Base>
class ReactorDirectory {
public:
    // The machines that follow every route: the route review, upstream (*,G)
    // and forwarding. A machine that makes reactors on demand keeps its own
    // index, which costs nothing for the routes it leaves alone.
    static constexpr std::size_t slots = 3;

    ReactorDirectory() = default;
    ReactorDirectory(const ReactorDirectory&) = delete;
    ReactorDirectory& operator=(const ReactorDirectory&) = delete;

    // A slot for a new map; `slots` when every slot is taken.
    std::size_t slotIs() {
        for (std::size_t s = 0; s < slots; ++s) {
            if (!(taken_ & (1u << s))) {
                taken_ |= 1u << s;
                return s;
            }
        }
        return slots;
    }
    // Gives back the slot of a map that holds no reactor any more.
    void slotDel(std::size_t s) { taken_ &= ~(1u << s); }

    Base* find(const Key& k, std::size_t s) const {
        // The machines that follow a route ask for its key in turn: the
        // finger is mostly there already, and then no call is made.
        if (atFinger(k)) return finger_->second.slot[s];
        const Block* b = block(k);
        return b ? b->slot[s] : nullptr;
    }
    // Puts `r` in slot `s` of its key's block, which must be free.
    void insert(std::size_t s, Base* r) {
        const Key& k = r->reactorKey();
        auto it = atFinger(k) ? finger_ : lowerBound(k);
        // The entries move: the new one is where the next lookup goes.
        if (it == blocks_.end() || it->first != k) finger_ = it = blocks_.try_emplace(it, k);
        it->second.slot[s] = r;
        ++filled_;
    }
    // Empties slot `s` of `r`'s key, which holds `r`.
    void erase(std::size_t s, Base* r) {
        const Key& k = r->reactorKey();
        auto it = lowerBound(k);
        CASK_ASSERT(it != blocks_.end() && it->first == k && it->second.slot[s] == r,
                    "reactor directory: erasing a reactor it does not hold");
        it->second.slot[s] = nullptr;
        --filled_;
        // The entries move: the finger goes to the entry after the removed one.
        if (it->second.empty()) finger_ = blocks_.erase(it);
    }
    // Calls `f(reactor)` for every reactor in slot `s`, in key order. `f`
    // must not change the directory.
    template <class F>
    void forEach(std::size_t s, F&& f) const {
        for (const auto& [k, b] : blocks_) {
            if (b.slot[s]) f(b.slot[s]);
        }
    }
    std::size_t keys() const { return blocks_.size(); }
    // Reactors held, over all slots.
    std::size_t filled() const { return filled_; }
    // Heap bytes: the tree's nodes.
    std::size_t footprint() const { return bytes_; }

private:
    // No count of filled slots: it would cost a word per key with padding,
    // and the block is in cache whenever it is asked.
    struct Block {
        std::array<Base*, slots> slot{};
        bool empty() const {
            for (Base* r : slot) {
                if (r) return false;
            }
            return true;
        }
    };
    using Entry = std::pair<const Key, Block>;

    using Tree = WideBtreeMap<Key, Block, 1024, std::less<Key>, CountingAllocator<Entry>>;
    using Iter = typename Tree::iterator;

    // The key's block, or null.
    Block* block(const Key& k) const {
        auto it = lowerBound(k);
        return it != blocks_.end() && it->first == k ? &it->second : nullptr;
    }

    // `k` is where the finger is.
    [[gnu::always_inline]] bool atFinger(const Key& k) const {
        return finger_ != blocks_.end() && finger_->first == k;
    }

    // Where `k` is or would go, found from the finger, which moves there. A
    // change of a route is announced to each machine in turn, and each looks
    // its reactor up by the same key; a new key is looked up, missed and
    // then inserted where the miss ended; a walk in key order asks for the
    // next key. Every insert and removal leaves the finger at a valid place,
    // as the tree's entries move.
    Iter lowerBound(const Key& k) const {
        return finger_ = lowerBoundFrom(const_cast<Tree&>(blocks_), finger_, k);
    }

    std::size_t bytes_ = 0;
    std::size_t filled_ = 0;
    Tree blocks_{CountingAllocator<Entry>(&bytes_)};
    mutable Iter finger_ = const_cast<Tree&>(blocks_).end();
    std::uint32_t taken_ = 0;
};

// A reactor map's index in a shared directory (see ReactorMap). Made with
// the directory to share; with none, or when every slot of it is taken (a
// second instance of a machine, in a test), it keeps one of its own.
template <class R, class Key>
class SharedIndex {
    using Base = typename R::DirectoryBase;
    using Directory = ReactorDirectory<Key, Base>;

public:
    explicit SharedIndex(std::shared_ptr<Directory> dir = nullptr)
        : dir_(dir ? std::move(dir) : std::make_shared<Directory>()), slot_(dir_->slotIs()) {
        if (slot_ == Directory::slots) {
            dir_ = std::make_shared<Directory>();
            slot_ = dir_->slotIs();
        }
    }
    SharedIndex(const SharedIndex&) = delete;
    SharedIndex& operator=(const SharedIndex&) = delete;
    ~SharedIndex() {
        reset();
        dir_->slotDel(slot_);
    }

    R* find(const Key& k) const {
        // A map holding nothing (a machine no route has needed yet) does not search.
        return size_ ? static_cast<R*>(dir_->find(k, slot_)) : nullptr;
    }
    void insert(R* r) {
        dir_->insert(slot_, r);
        ++size_;
    }
    void erase(R* r) {
        dir_->erase(slot_, r);
        --size_;
    }
    // The directory is a tree: it needs no room ahead, and never rehashes.
    void reserve(std::size_t) {}
    // Empties this map's slot of every key. Reads the keys through the
    // reactors, which must still hold their records.
    void reset() {
        for (R* r : all()) dir_->erase(slot_, r);
        size_ = 0;
    }
    std::size_t size() const { return size_; }
    // Keys the directory holds: a tree has room for exactly those.
    std::size_t capacity() const { return dir_->keys(); }
    // This map's share of the directory, by the reactors it holds: a key's
    // entry is shared by the maps that have a reactor for it.
    std::size_t footprint() const {
        return dir_->filled() ? dir_->footprint() * size_ / dir_->filled() : 0;
    }
    template <class F>
    void forEach(F&& f) const {
        dir_->forEach(slot_, [&](Base* b) { f(static_cast<R*>(b)); });
    }
    std::vector<R*> all() const {
        std::vector<R*> v;
        v.reserve(size_);
        forEach([&](R* r) { v.push_back(r); });
        return v;
    }

private:
    std::shared_ptr<Directory> dir_;
    std::size_t slot_;
    std::size_t size_ = 0;
};

}  // namespace Cask
