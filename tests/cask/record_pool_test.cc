#include "cask/record_pool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <random>
#include <vector>

#include "cask/record.h"

namespace {

using Cask::RecordPool;

// Live blocks never overlap and keep what was written in them, across
// allocations and frees of every size the pool serves, over many slabs;
// a freed block goes to the next allocation of its size.
TEST(RecordPool, BlocksOfMixedSizesNeverOverlapAndFreedOnesAreReused) {
    std::mt19937 rng(7);
    struct Live {
        std::size_t size;
        unsigned char fill;
    };
    std::map<const unsigned char*, Live> live;
    auto check = [](const unsigned char* p, const Live& b) {
        for (std::size_t i = 0; i < b.size; ++i) {
            if (p[i] != b.fill) return false;
        }
        return true;
    };
    for (int step = 0; step < 20000; ++step) {
        if (live.empty() || rng() % 3) {
            const std::size_t size = 1 + rng() % RecordPool::largest;
            auto* p = static_cast<unsigned char*>(RecordPool::allocate(size));
            auto next = live.lower_bound(p);
            ASSERT_TRUE(next == live.end() || p + size <= next->first) << "overlaps the next block";
            if (next != live.begin()) {
                auto prev = std::prev(next);
                ASSERT_LE(prev->first + prev->second.size, p) << "overlaps the block before";
            }
            const Live b{size, static_cast<unsigned char>(step)};
            std::memset(p, b.fill, size);
            live.emplace(p, b);
        } else {
            auto it = std::next(live.begin(), rng() % live.size());
            ASSERT_TRUE(check(it->first, it->second)) << "a block was written over";
            const std::size_t size = it->second.size;
            void* freed = const_cast<unsigned char*>(it->first);
            live.erase(it);
            RecordPool::deallocate(freed, size);
            if (rng() % 2) {
                void* again = RecordPool::allocate(size);
                EXPECT_EQ(again, freed);
                RecordPool::deallocate(again, size);
            }
        }
    }
    for (auto& [p, b] : live) {
        EXPECT_TRUE(check(p, b));
        RecordPool::deallocate(const_cast<unsigned char*>(p), b.size);
    }
}

// The pool's count of slab bytes, which the benchmarks' heap figures rely
// on, grows with each new slab by that slab's size; slabs double up to
// 2 MiB and stay at that size.
TEST(RecordPool, SlabsGrowToTwoMebibytesAndAreCounted) {
    if (!RecordPool::enabled) GTEST_SKIP() << "sanitizer builds bypass the pool";
    constexpr std::size_t block = RecordPool::largest;
    std::vector<void*> held;
    std::vector<std::size_t> steps;
    std::size_t carved = 0;
    for (std::size_t before = RecordPool::slabBytesHeld(); carved < 20u << 20; carved += block) {
        held.push_back(RecordPool::allocate(block));
        std::memset(held.back(), 0xab, block);
        if (const std::size_t now = RecordPool::slabBytesHeld(); now != before) {
            steps.push_back(now - before);
            before = now;
        }
    }
    ASSERT_GE(steps.size(), 8u);
    for (std::size_t i = 1; i < steps.size(); ++i) {
        EXPECT_EQ(steps[i], std::min(2 * steps[i - 1], std::size_t(2) << 20)) << i;
    }
    EXPECT_EQ(steps.back(), std::size_t(2) << 20);
    for (void* p : held) RecordPool::deallocate(p, block);
}

// A record class that another derives from: objects of both, held and
// released through the base, come and go without disturbing each other.
struct Base : Cask::Record<Base> {
    virtual ~Base() = default;
    std::uint64_t value = 1;
};
struct Derived : Base {
    std::uint64_t more[8] = {2, 2, 2, 2, 2, 2, 2, 2};
};

TEST(RecordPool, DerivedRecordsReleasedThroughTheirBase) {
    std::vector<Cask::Ptr<Base>> held;
    for (int i = 0; i < 1000; ++i) {
        held.push_back(i % 2 ? Cask::Ptr<Base>(Cask::make<Derived>()) : Cask::make<Base>());
    }
    for (std::size_t i = 0; i < held.size(); i += 3) held[i] = Cask::make<Derived>();
    for (std::size_t i = 1; i < held.size(); i += 3) held[i] = Cask::make<Base>();
    for (const auto& b : held) {
        ASSERT_EQ(b->value, 1u);
        if (auto* d = dynamic_cast<Derived*>(b.get())) {
            ASSERT_EQ(d->more[7], 2u);
        }
    }
}

}  // namespace
