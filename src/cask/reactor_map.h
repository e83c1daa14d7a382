#pragma once
// ReactorMap: the per-key reactors a machine keeps over a keyed collection
// of records (a route per RouteKey, an interface record per IntfId, ...).
//
// The machine forwards the collection's per-key announcement to `update`:
//
//     void handleWcRoute(const RouteKey& k) {
//         if (RhoRoute* r = route_.update(k, ls.wcRoute().raw(k), *this)) r->handleRouteInit();
//     }
//
// and the map applies one rule for every machine:
// - a key with a record and no reactor gets one, built as `R(args..., record)`
//   and returned, so that the machine runs its start-up handler on it;
// - a key whose reactor serves another record than the collection holds now
//   (the record was removed, or replaced by a new one) loses its reactor: it
//   leaves the map, gets `handleDelete()` (when R has one) and is destroyed;
//   a replaced record then gets a new reactor as above;
// - an unchanged key costs one lookup and returns null.
// `sweep` runs the machine's handler over the keys already present at
// start-up (on a copy of the keys: handlers may change the collection).
//
// A reactor is out of the map before its `handleDelete` runs, so that
// handler may delete or re-create its own key: a key re-created meanwhile
// keeps its new reactor. A reactor is not destroyed while its own handler
// runs only if that handler does not remove its own key: a machine whose
// reactor handler can remove the reactor's key defers that removal.
//
// Cost per key: one reactor from a per-type pool (no per-object heap
// header), plus one index slot. The index is chosen per map:
// - HashIndex: an abseil flat hash set of reactor pointers looked up by the
//   key, which the reactor itself supplies (the key is stored once, in the
//   record); about 9 bytes per slot at a load factor of 7/16 to 7/8;
// - SmallIndex: one word while the map holds at most one reactor, a linear
//   vector beyond; for small per-record maps (a route's interfaces);
// - SharedIndex (reactor_directory.h): a slot in a directory that several
//   maps of the same keys share; for the machines that follow every route.
//   The map is made with the directory: `ReactorMap<K, R, SharedIndex>
//   map{directory}`.
//
// R supplies `reactorKey()` (the key, read from its record) and
// `reactorRecord()` (the record it serves).

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

#include <absl/container/flat_hash_set.h>

#include "cask/collection.h"
#include "cask/growing_table.h"

namespace Cask {

// Fixed-size blocks of one reactor type, carved from chunks, so that a
// reactor costs exactly its size. Blocks are reused; chunks are returned to
// the system when the program ends. Single-threaded, like everything here.
template <class R>
class ReactorPool {
public:
    static ReactorPool& instance() {
        static ReactorPool pool;
        return pool;
    }
    static constexpr std::size_t blockSize =
        ((sizeof(R) < sizeof(void*) ? sizeof(void*) : sizeof(R)) + alignof(R) - 1) &
        ~(alignof(R) - 1);
    static constexpr std::size_t blocksPerChunk = 64;

    void* get() {
        if (!free_) grow();
        Free* f = free_;
        free_ = f->next;
        ++inUse_;
        return f;
    }
    void put(void* p) {
        auto* f = static_cast<Free*>(p);
        f->next = free_;
        free_ = f;
        --inUse_;
    }
    std::size_t inUse() const { return inUse_; }
    std::size_t chunks() const { return chunks_.size(); }

    ~ReactorPool() {
        for (void* c : chunks_) ::operator delete(c, std::align_val_t(alignof(R)));
    }

private:
    struct Free {
        Free* next;
    };
    void grow() {
        void* c = ::operator new(blockSize* blocksPerChunk, std::align_val_t(alignof(R)));
        chunks_.push_back(c);
        auto* bytes = static_cast<unsigned char*>(c);
        for (std::size_t i = blocksPerChunk; i-- > 0;) {
            auto* f = reinterpret_cast<Free*>(bytes + i * blockSize);
            f->next = free_;
            free_ = f;
        }
    }
    Free* free_ = nullptr;
    std::size_t inUse_ = 0;
    std::vector<void*> chunks_;
};

// The hash index: reactor pointers hashed and compared by their key. A
// large index grows a few reactors at a time (see GrowingTable): rehashing a
// million reactors at once would take a whole loop turn, each hash reading
// the key through the reactor's record, and every machine's index of a
// route fills up in the same turn.
template <class R, class Key>
class HashIndex {
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(const R* r) const { return KeyHash{}(r->reactorKey()); }
        std::size_t operator()(const Key& k) const { return KeyHash{}(k); }
    };
    struct Eq {
        using is_transparent = void;
        bool operator()(const R* a, const R* b) const { return a == b; }
        bool operator()(const R* a, const Key& k) const { return a->reactorKey() == k; }
        bool operator()(const Key& k, const R* a) const { return a->reactorKey() == k; }
    };
    GrowingTable<absl::flat_hash_set<R*, Hash, Eq>> set_;

public:
    HashIndex() = default;
    HashIndex(const HashIndex&) = delete;
    HashIndex& operator=(const HashIndex&) = delete;

    R* find(const Key& k) const {
        if (set_.empty()) return nullptr;  // no hashing when nothing is held
        auto it = set_.find(k);
        return it == set_.end() ? nullptr : *it;
    }
    void insert(R* r) { set_.insert(r); }
    void erase(R* r) { set_.erase(r); }
    void reserve(std::size_t n) { set_.reserve(n); }
    void reset() { set_.clear(); }
    std::size_t size() const { return set_.size(); }
    // Heap bytes the index holds (slots and control bytes).
    std::size_t footprint() const { return set_.capacity() * (sizeof(R*) + 1); }
    std::size_t capacity() const { return set_.capacity(); }
    // The reactors still to move come first, the next one to move first of
    // all.
    template <class F>
    void forEach(F&& f) const {
        for (R* r : set_) f(r);
    }
    std::vector<R*> all() const {
        std::vector<R*> v;
        v.reserve(size());
        forEach([&](R* r) { v.push_back(r); });
        return v;
    }
};

// The small index: a single word while it holds at most one reactor.
template <class R, class Key>
class SmallIndex {
    // 0: empty; low bit clear: the one reactor; low bit set: a vector.
    std::uintptr_t word_ = 0;
    using Many = std::vector<R*>;
    Many* many() const { return reinterpret_cast<Many*>(word_ & ~std::uintptr_t(1)); }
    bool isMany() const { return word_ & 1; }

public:
    SmallIndex() = default;
    SmallIndex(const SmallIndex&) = delete;
    SmallIndex& operator=(const SmallIndex&) = delete;
    ~SmallIndex() {
        if (isMany()) delete many();
    }
    R* find(const Key& k) const {
        if (!word_) return nullptr;
        if (!isMany()) {
            R* r = reinterpret_cast<R*>(word_);
            return r->reactorKey() == k ? r : nullptr;
        }
        for (R* r : *many()) {
            if (r->reactorKey() == k) return r;
        }
        return nullptr;
    }
    void insert(R* r) {
        static_assert(alignof(R) > 1);
        if (!word_) {
            word_ = reinterpret_cast<std::uintptr_t>(r);
        } else if (!isMany()) {
            auto* m = new Many{reinterpret_cast<R*>(word_), r};
            word_ = reinterpret_cast<std::uintptr_t>(m) | 1;
        } else {
            many()->push_back(r);
        }
    }
    void erase(R* r) {
        if (!isMany()) {
            if (reinterpret_cast<R*>(word_) == r) word_ = 0;
            return;
        }
        std::erase(*many(), r);
        if (many()->size() > 1) return;
        Many* m = many();
        word_ = m->empty() ? 0 : reinterpret_cast<std::uintptr_t>(m->front());
        delete m;
    }
    void reserve(std::size_t) {}
    void reset() {
        if (isMany()) delete many();
        word_ = 0;
    }
    std::size_t size() const { return !word_ ? 0 : isMany() ? many()->size() : 1; }
    std::size_t footprint() const {
        return isMany() ? sizeof(Many) + many()->capacity() * sizeof(R*) : 0;
    }
    std::size_t capacity() const { return 0; }
    template <class F>
    void forEach(F&& f) const {
        if (!word_) return;
        if (!isMany()) {
            f(reinterpret_cast<R*>(word_));
            return;
        }
        for (R* r : *many()) f(r);
    }
    std::vector<R*> all() const {
        std::vector<R*> v;
        forEach([&](R* r) { v.push_back(r); });
        return v;
    }
};

template <class Key, class R, template <class, class> class Index = HashIndex>
class ReactorMap {
public:
    ReactorMap() = default;
    // Passes `indexArgs` to the index (a SharedIndex's directory).
    template <class... A>
    requires(sizeof...(A) > 0) explicit ReactorMap(A&&... indexArgs)
        : index_(std::forward<A>(indexArgs)...) {}
    ReactorMap(const ReactorMap&) = delete;
    ReactorMap& operator=(const ReactorMap&) = delete;
    // Reactors are destroyed without `handleDelete`: the machine is going.
    ~ReactorMap() { clear(); }

    R* get(const Key& k) const { return index_.find(k); }
    bool has(const Key& k) const { return index_.find(k) != nullptr; }
    std::size_t size() const { return index_.size(); }
    bool empty() const { return index_.size() == 0; }
    // Heap bytes of the index (reactors excluded).
    std::size_t indexFootprint() const { return index_.footprint(); }
    // Slots of the index's hash table (0 for a small index): unchanged
    // while the index does not grow.
    std::size_t indexCapacity() const { return index_.capacity(); }
    // Room for `n` reactors, so that growing to that many never rehashes the
    // index (a rehash of a large index is one long step).
    void reserve(std::size_t n) { index_.reserve(n); }

    // Brings key `k` in step with `record` (null: the key is absent). Returns
    // the reactor created for it, or null when none was.
    template <class Rec, class... A>
    R* update(const Key& k, Rec* record, A&&... args) {
        if (R* old = index_.find(k)) {
            if (old->reactorRecord() == record) return nullptr;
            retire(old);
            // handleDelete may have re-created the key.
            if (!record || index_.find(k)) return nullptr;
        } else if (!record) {
            return nullptr;
        }
        return create(std::forward<A>(args)..., *record);
    }

    // Creates the reactor of `record`'s key, which the caller has just found
    // to have none: one search fewer than `update`.
    template <class Rec, class... A>
    R* add(Rec& record, A&&... args) {
        return create(std::forward<A>(args)..., record);
    }

    // Removes the reactor of `k`, with its `handleDelete`.
    void del(const Key& k) {
        if (R* old = index_.find(k)) retire(old);
    }

    // Calls `handler(key)` for every key of `collection`, as if each had just
    // been announced.
    template <class C, class F>
    static void sweep(const C& collection, F&& handler) {
        std::vector<Key> keys;
        keys.reserve(collection.size());
        for (const auto& e : collection) keys.push_back(keyOf(e));
        for (const Key& k : keys) handler(k);
    }

    // Visits every reactor (in no particular order). `f` must not change
    // the map; collect what to change first.
    template <class F>
    void forEach(F&& f) const {
        index_.forEach(f);
    }

    // Destroys every reactor, without `handleDelete`.
    // The index is emptied first and never hashes a key here, so the
    // records may already be gone.
    void clear() {
        std::vector<R*> all = index_.all();
        index_.reset();
        for (R* r : all) destroy(r);
    }
    // Removes every reactor, each with its `handleDelete`.
    void delAll() {
        for (R* r : index_.all()) {
            if (index_.find(r->reactorKey()) == r) retire(r);
        }
    }

private:
    template <class... A>
    R* create(A&&... args) {
        void* p = ReactorPool<R>::instance().get();
        R* r;
        try {
            r = ::new (p) R(std::forward<A>(args)...);
        } catch (...) {
            ReactorPool<R>::instance().put(p);
            throw;
        }
        index_.insert(r);
        return r;
    }
    void retire(R* r) {
        index_.erase(r);
        if constexpr (requires { r->handleDelete(); }) r->handleDelete();
        destroy(r);
    }
    static void destroy(R* r) {
        r->~R();
        ReactorPool<R>::instance().put(r);
    }

    Index<R, Key> index_;
};

}  // namespace Cask
