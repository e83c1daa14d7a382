#pragma once
// GrowingTable: an abseil hash table (flat or node map or set) that grows
// a little at a time once it is large.
//
// An abseil table grows by rehashing every entry in one step. For a table
// of routes that is a whole loop turn at a million entries, and the VRF's
// route-scale tables all fill up in the same burst of joins. Here, once the
// table has `incrementalFrom` slots or more and the next insert would make
// it rehash, the entries stay where they are in the old table, a new table
// twice the size takes the inserts, and each insert moves `movesPerInsert`
// entries across. Lookups look in both tables; iteration visits the old
// table's entries first, each entry once. The old table is freed when its
// last entry has moved or been removed. Small tables grow the ordinary way.
//
// Removals count toward "full": abseil leaves a tombstone where an entry
// was removed, which takes room as an entry does, so without counting them
// abseil would rehash in one step under churn before this table noticed.
//
// Iterators follow abseil's rules: any insert may invalidate them, a
// removal invalidates only the removed entry's. Records that a node table
// holds stay at their address as they move.

#include <cstddef>
#include <iterator>
#include <memory>
#include <type_traits>
#include <utility>

namespace Cask {

template <class Table>
class GrowingTable {
public:
    using key_type = typename Table::key_type;
    using value_type = typename Table::value_type;
    using size_type = std::size_t;

    static constexpr std::size_t incrementalFrom = 4095;  // capacity
    static constexpr std::size_t movesPerInsert = 2;

    template <bool Const>
    class Iter {
        using Owner = std::conditional_t<Const, const GrowingTable, GrowingTable>;
        using It =
            std::conditional_t<Const, typename Table::const_iterator, typename Table::iterator>;

    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = typename Table::value_type;
        using difference_type = std::ptrdiff_t;
        // A set's entries are constant even through its mutable iterators.
        using reference = decltype(*std::declval<It>());
        using pointer = std::remove_reference_t<reference>*;

        Iter() = default;
        Iter(Owner* owner, It it, bool inOld) : owner_(owner), it_(it), inOld_(inOld) {}
        template <bool C = Const, class = std::enable_if_t<C>>
        Iter(const Iter<false>& o) : owner_(o.owner_), it_(o.it_), inOld_(o.inOld_) {}

        reference operator*() const { return *it_; }
        pointer operator->() const { return &*it_; }
        Iter& operator++() {
            ++it_;
            if (inOld_ && it_ == owner_->growth_->old.end()) {
                inOld_ = false;
                it_ = owner_->set_.begin();
            }
            return *this;
        }
        Iter operator++(int) {
            Iter before = *this;
            ++*this;
            return before;
        }
        // Iterators of different tables never compare their abseil
        // iterators: abseil checks that they come from one table.
        friend bool operator==(const Iter& a, const Iter& b) {
            return a.inOld_ == b.inOld_ && a.it_ == b.it_;
        }

    private:
        friend class GrowingTable;
        template <bool>
        friend class Iter;
        Owner* owner_ = nullptr;
        It it_{};
        bool inOld_ = false;
    };
    using iterator = Iter<false>;
    using const_iterator = Iter<true>;

    GrowingTable() = default;
    GrowingTable(GrowingTable&& o) noexcept = default;
    GrowingTable& operator=(GrowingTable&& o) noexcept = default;
    GrowingTable(const GrowingTable& o) : set_(o.set_), erased_(o.erased_) {
        if (o.growth_) {
            for (const auto& e : o.growth_->old) set_.insert(e);
        }
    }
    GrowingTable& operator=(const GrowingTable& o) {
        if (this != &o) *this = GrowingTable(o);
        return *this;
    }

    size_type size() const { return set_.size() + (growth_ ? growth_->old.size() : 0); }
    bool empty() const { return size() == 0; }
    // Slots of both tables.
    size_type capacity() const { return set_.capacity() + (growth_ ? growth_->old.capacity() : 0); }
    bool growing() const { return growth_ != nullptr; }

    iterator begin() {
        if (growth_) return iterator(this, growth_->old.begin(), true);
        return iterator(this, set_.begin(), false);
    }
    const_iterator begin() const {
        if (growth_) return const_iterator(this, growth_->old.begin(), true);
        return const_iterator(this, set_.begin(), false);
    }
    iterator end() { return iterator(this, set_.end(), false); }
    const_iterator end() const { return const_iterator(this, set_.end(), false); }

    template <class K>
    iterator find(const K& k) {
        return findIn(*this, k);
    }
    template <class K>
    const_iterator find(const K& k) const {
        return findIn(*this, k);
    }
    template <class K>
    bool contains(const K& k) const {
        return find(k) != end();
    }

    // Maps: inserts `key -> V(args...)` unless the key is present.
    template <class... Args>
    std::pair<iterator, bool> try_emplace(const key_type& k, Args&&... args) {
        if (auto it = beforeInsert(k); it != end()) return {it, false};
        auto [it, inserted] = set_.try_emplace(k, std::forward<Args>(args)...);
        return {iterator(this, it, false), inserted};
    }
    // Sets (and maps, given a pair): inserts `v` unless its key is present.
    template <class V>
    std::pair<iterator, bool> insert(V&& v) {
        if (auto it = beforeInsert(keyOfValue(v)); it != end()) return {it, false};
        auto [it, inserted] = set_.insert(std::forward<V>(v));
        return {iterator(this, it, false), inserted};
    }

    void erase(const_iterator pos) {
        if (!pos.inOld_) {
            set_.erase(pos.it_);
            // A smaller table rehashes itself as it grows, which drops its
            // tombstones: only count those of a table this one grows.
            if (set_.capacity() >= incrementalFrom) ++erased_;
            return;
        }
        Growth& g = *growth_;
        if (pos.it_ == typename Table::const_iterator(g.next)) ++g.next;
        g.old.erase(pos.it_);
        if (g.next == g.old.end()) growth_.reset();
    }
    void erase(iterator pos) { erase(const_iterator(pos)); }
    template <class K>
    size_type erase(const K& k) {
        auto it = find(k);
        if (it == end()) return 0;
        erase(it);
        return 1;
    }

    // Room for `n` entries in all: growing to that many never rehashes.
    void reserve(size_type n) {
        if (growth_) moveSome(growth_->old.size());
        set_.reserve(n);
    }
    void clear() {
        set_.clear();
        growth_.reset();
        erased_ = 0;
    }

private:
    struct Growth {
        Table old;
        typename Table::iterator next;
    };

    // Both tables' lookup, for the const and the mutable `find`.
    template <class Self, class K>
    static auto findIn(Self& self, const K& k) {
        using It = Iter<std::is_const_v<Self>>;
        if (auto it = self.set_.find(k); it != self.set_.end()) return It(&self, it, false);
        if (self.growth_) {
            auto& old = self.growth_->old;
            if (auto it = old.find(k); it != old.end()) return It(&self, it, true);
        }
        return self.end();
    }

    template <class V>
    static const key_type& keyOfValue(const V& v) {
        if constexpr (requires { v.first; }) {
            return v.first;
        } else {
            return v;
        }
    }

    // Whether the next insert could make the table rehash (abseil's tables
    // hold entries and tombstones up to 7/8 of their capacity).
    bool fullForNext() const {
        const std::size_t c = set_.capacity();
        return c >= incrementalFrom && set_.size() + erased_ + 1 > c - c / 8;
    }
    // Runs before an insert of `k`: moves entries along, or starts growing
    // when the table is full. Returns the entry when `k` is present already
    // outside the new table (the insert itself finds it there).
    iterator beforeInsert(const key_type& k) {
        if (!growth_ && fullForNext()) {
            if (auto it = set_.find(k); it != set_.end()) return iterator(this, it, false);
            startGrowing();
        }
        if (growth_) moveSome(movesPerInsert);
        if (growth_) {
            if (auto it = growth_->old.find(k); it != growth_->old.end()) {
                return iterator(this, it, true);
            }
        }
        return end();
    }
    void startGrowing() {
        growth_ = std::make_unique<Growth>();
        growth_->old = std::move(set_);
        set_ = Table();
        // Room for everything to move, the inserts made until it has (one
        // for every `movesPerInsert` moved) and some removals' tombstones.
        set_.reserve(growth_->old.size() * 7 / 4);
        erased_ = 0;
        growth_->next = growth_->old.begin();
    }
    void moveSome(std::size_t n) {
        Growth& g = *growth_;
        for (; n > 0 && g.next != g.old.end(); --n) set_.insert(g.old.extract(g.next++));
        if (g.next == g.old.end()) growth_.reset();
    }

    Table set_;
    // While growing: the entries still in the previous table, and the next
    // one to move.
    std::unique_ptr<Growth> growth_;
    // Removals from `set_` since it was made: at most this many tombstones.
    std::size_t erased_ = 0;
};

}  // namespace Cask
