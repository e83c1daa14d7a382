#pragma once
// ReactorDirectory: one index shared by the reactor maps of machines that
// follow the same keys, in place of a hash index per map.
//
// Every machine that follows a VRF's routes keeps a reactor per route. With
// an index each, a new route costs one insert (and, as the indexes grow,
// one move) per machine, each a cache miss of its own. In a directory the
// key has one block with a slot per map: a new route costs one insert for
// all of them, and once the first machine has found the block the others
// find it in cache.
//
// A map takes a slot when it is made (`SharedIndex`, below) and gives it
// back when it goes; at most `slots` maps share one directory. Reactors
// derive from `Base`, which supplies `reactorKey()`: a block reads its key
// through the reactor of its first filled slot, so the key is not stored
// twice. A block lives while any of its slots is filled.
//
// Cost per key: the block (a pointer per slot, the key's hash and a count)
// and one slot of the index (a pointer and a control byte); the maps share
// it.

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include <absl/container/flat_hash_set.h>

#include "cask/assert.h"
#include "cask/collection.h"
#include "cask/growing_table.h"

namespace Cask {

template <class Key, class Base>
class ReactorDirectory {
public:
    static constexpr std::size_t slots = 6;

    ReactorDirectory() = default;
    ReactorDirectory(const ReactorDirectory&) = delete;
    ReactorDirectory& operator=(const ReactorDirectory&) = delete;
    ~ReactorDirectory() {
        for (Block* b : set_) delete b;
    }

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
    std::size_t mapCount() const { return std::size_t(__builtin_popcount(taken_)); }

    Base* find(const Key& k, std::size_t s) const {
        const Block* b = block(k);
        return b ? b->slot[s] : nullptr;
    }
    // Puts `r` in slot `s` of its key's block, which must be free.
    void insert(std::size_t s, Base* r) {
        if (Block* b = block(r->reactorKey())) {
            b->slot[s] = r;
            ++b->used;
            return;
        }
        auto* b = new Block;
        b->slot[s] = r;
        b->hash = narrow(KeyHash{}(r->reactorKey()));
        b->used = 1;
        set_.insert(b);
        last_ = b;
    }
    // Empties slot `s` of `r`'s key, which holds `r`.
    void erase(std::size_t s, Base* r) {
        Block* b = block(r->reactorKey());
        if (b->used == 1) {
            set_.erase(b);  // while the block can still name its key
            if (last_ == b) last_ = nullptr;
            delete b;
            return;
        }
        b->slot[s] = nullptr;
        --b->used;
    }
    // Calls `f(reactor)` for every reactor in slot `s`: a walk of every key.
    template <class F>
    void forEach(std::size_t s, F&& f) const {
        for (const Block* b : set_) {
            if (b->slot[s]) f(b->slot[s]);
        }
    }
    // Room for `n` keys, so that growing to that many never rehashes.
    void reserve(std::size_t n) { set_.reserve(n); }
    std::size_t keys() const { return set_.size(); }
    std::size_t capacity() const { return set_.capacity(); }
    // Heap bytes: blocks and index.
    std::size_t footprint() const {
        return set_.size() * sizeof(Block) + set_.capacity() * (sizeof(Block*) + 1);
    }

private:
    // The key's hash, kept in 32 bits of the block's padding: the table
    // rehashes a block without reading its reactors, and a 32-bit hash is
    // ample for any number of routes a VRF holds.
    static std::uint32_t narrow(std::size_t h) { return std::uint32_t(h ^ (h >> 32)); }
    static std::size_t widen(std::uint32_t h) { return std::size_t(h) * 0x9e3779b97f4a7c15ULL; }

    struct Block {
        std::array<Base*, slots> slot{};
        std::uint32_t hash = 0;
        std::uint8_t used = 0;
        // The key as the reactors give it (a reference, or a value).
        decltype(auto) key() const {
            for (Base* r : slot) {
                if (r) return r->reactorKey();
            }
            CASK_ASSERT(false, "reactor directory: empty block");
            return slot[0]->reactorKey();  // not reached
        }
    };
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(const Block* b) const { return widen(b->hash); }
        std::size_t operator()(const Key& k) const { return widen(narrow(KeyHash{}(k))); }
    };
    struct Eq {
        using is_transparent = void;
        bool operator()(const Block* a, const Block* b) const { return a == b; }
        bool operator()(const Block* a, const Key& k) const { return a->key() == k; }
        bool operator()(const Key& k, const Block* a) const { return a->key() == k; }
    };

    // The key's block, or null. A change of a route is announced to each
    // machine in turn, and each looks its reactor up by the same key: the
    // block found last answers all but the first without hashing the key.
    Block* block(const Key& k) const {
        if (last_ && last_->key() == k) return last_;
        auto it = set_.find(k);
        if (it == set_.end()) return nullptr;
        last_ = *it;
        return last_;
    }

    GrowingTable<absl::flat_hash_set<Block*, Hash, Eq>> set_;
    mutable Block* last_ = nullptr;
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

    R* find(const Key& k) const { return static_cast<R*>(dir_->find(k, slot_)); }
    void insert(R* r) {
        dir_->insert(slot_, r);
        ++size_;
    }
    void erase(R* r) {
        dir_->erase(slot_, r);
        --size_;
    }
    void reserve(std::size_t n) {
        if (n > dir_->keys()) dir_->reserve(n);
    }
    // Empties this map's slot of every key. Reads the keys through the
    // reactors, which must still hold their records.
    void reset() {
        for (R* r : all()) dir_->erase(slot_, r);
        size_ = 0;
    }
    std::size_t size() const { return size_; }
    std::size_t capacity() const { return dir_->capacity(); }
    // This map's share of the directory.
    std::size_t footprint() const { return dir_->footprint() / dir_->mapCount(); }
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
