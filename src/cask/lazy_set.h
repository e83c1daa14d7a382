#pragma once
// LazySet: an ordered set that costs one pointer while empty. Records that
// carry several source sets of which most stay empty (a Join/Prune group
// record has five, and a (*,G) join uses none of them) would otherwise pay a
// std::set header each. The tree is allocated on the first insert and freed
// when the last key goes, so an emptied set is as cheap as a new one.
//
// It offers the part of std::set that Cask::KeySet uses; iterators of an empty
// set come from one shared empty tree, so begin() == end() holds as usual.

#include <memory>
#include <set>
#include <utility>

#include "cask/collection.h"

namespace Cask {

template <class K>
class LazySet {
public:
    using key_type = K;
    using Tree = std::set<K>;
    using iterator = typename Tree::const_iterator;
    using const_iterator = iterator;

    LazySet() = default;
    LazySet(const LazySet& o) : tree_(o.tree_ ? std::make_unique<Tree>(*o.tree_) : nullptr) {}
    LazySet& operator=(const LazySet& o) {
        if (this != &o) tree_ = o.tree_ ? std::make_unique<Tree>(*o.tree_) : nullptr;
        return *this;
    }
    LazySet(LazySet&&) noexcept = default;
    LazySet& operator=(LazySet&&) noexcept = default;

    std::size_t size() const { return tree_ ? tree_->size() : 0; }
    bool empty() const { return !tree_; }
    iterator begin() const { return tree().begin(); }
    iterator end() const { return tree().end(); }
    iterator find(const K& k) const { return tree().find(k); }
    iterator lower_bound(const K& k) const { return tree().lower_bound(k); }
    iterator upper_bound(const K& k) const { return tree().upper_bound(k); }
    void reserve(std::size_t) {}

    std::pair<iterator, bool> insert(const K& k) {
        if (!tree_) tree_ = std::make_unique<Tree>();
        return tree_->insert(k);
    }
    void erase(iterator it) {
        tree_->erase(it);
        if (tree_->empty()) tree_.reset();
    }

private:
    const Tree& tree() const {
        static const Tree none;
        return tree_ ? *tree_ : none;
    }
    std::unique_ptr<Tree> tree_;
};

template <class K>
using LazyKeySet = KeySet<K, LazySet<K>>;

}  // namespace Cask
