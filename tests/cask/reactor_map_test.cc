#include "cask/reactor_map.h"

#include "cask/reactor_directory.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace Cask {
namespace {

struct Rec {
    int key;
};

// Logs "+k" on creation, "-k" on handleDelete, "~k" on destruction.
struct Log {
    std::string text;
    std::function<void(int)> onDelete;  // run inside handleDelete
};

template <bool WithDelete>
class Reactor {
public:
    using DirectoryBase = Reactor;
    Reactor(Log& log, Rec& rec) : log_(log), rec_(&rec) {
        log_.text += "+" + std::to_string(rec.key);
    }
    ~Reactor() { log_.text += "~" + std::to_string(rec_->key); }
    int reactorKey() const { return rec_->key; }
    const Rec* reactorRecord() const { return rec_; }
    void handleDelete() requires WithDelete {
        log_.text += "-" + std::to_string(rec_->key);
        // Runs once: taken out before it runs.
        if (auto f = std::exchange(log_.onDelete, nullptr)) f(rec_->key);
    }

private:
    Log& log_;
    Rec* rec_;
};

template <template <class, class> class Index>
void expectOneRule() {
    using R = Reactor<true>;
    Log log;
    ReactorMap<int, R, Index> map;
    Rec a{1}, b{2}, a2{1};
    R* ra = map.update(1, &a, log);
    ASSERT_NE(ra, nullptr);
    EXPECT_EQ(map.update(1, &a, log), nullptr);  // unchanged
    EXPECT_EQ(map.update(3, static_cast<Rec*>(nullptr), log), nullptr);
    map.update(2, &b, log);
    EXPECT_EQ(map.get(1), ra);
    EXPECT_EQ(map.size(), 2u);
    log.text.clear();
    // Replaced: the old reactor goes (handleDelete, destroyed), then the new one comes.
    R* ra2 = map.update(1, &a2, log);
    EXPECT_EQ(log.text, "-1~1+1");
    EXPECT_EQ(map.get(1), ra2);
    EXPECT_EQ(ra2->reactorRecord(), &a2);
    log.text.clear();
    map.update(2, static_cast<Rec*>(nullptr), log);
    EXPECT_EQ(log.text, "-2~2");
    EXPECT_EQ(map.get(2), nullptr);
    EXPECT_EQ(map.size(), 1u);
    log.text.clear();
    map.clear();  // teardown: no handleDelete
    EXPECT_EQ(log.text, "~1");
    EXPECT_EQ(map.size(), 0u);
}

TEST(ReactorMapTest, OneRuleForNewReplacedAndRemovedRecords) {
    expectOneRule<HashIndex>();
    expectOneRule<SmallIndex>();
    expectOneRule<SharedIndex>();
}

TEST(ReactorMapTest, HandleDeleteMayRecreateOrDeleteItsOwnKey) {
    using R = Reactor<true>;
    Log log;
    ReactorMap<int, R> map;
    Rec a{1}, again{1}, later{1};
    map.update(1, &a, log);
    // handleDelete re-creates the key with another record: that reactor stays, and the update
    // that removed the old one creates nothing more.
    log.onDelete = [&](int k) {
        map.update(k, &again, log);
        map.del(k);                  // and deletes it again...
        map.update(k, &again, log);  // ...and re-creates it
    };
    log.text.clear();
    EXPECT_EQ(map.update(1, &later, log), nullptr);
    EXPECT_EQ(log.text, "-1+1-1~1+1~1");
    ASSERT_NE(map.get(1), nullptr);
    EXPECT_EQ(map.get(1)->reactorRecord(), &again);
    EXPECT_EQ(map.size(), 1u);
}

TEST(ReactorMapTest, IndexesFindEveryKeyAcrossGrowthAndShrinking) {
    // The small index changes representation at one and two entries; the hash index rehashes.
    auto check = [](auto& map, auto& recs, Log& log) {
        std::map<int, bool> present;
        const int steps[] = {1, 2, 3, -2, -1, 4, -3, -4, 5, 1, -5, -1};
        for (int s : steps) {
            const int k = s > 0 ? s : -s;
            map.update(k, s > 0 ? &recs[k] : nullptr, log);
            present[k] = s > 0;
            std::size_t n = 0;
            for (auto [key, in] : present) {
                EXPECT_EQ(map.has(key), in) << "key " << key << " after step " << s;
                n += in;
            }
            EXPECT_EQ(map.size(), n);
        }
    };
    Log log;
    std::map<int, Rec> recs;
    for (int k = 1; k <= 5; ++k) recs[k] = Rec{k};
    ReactorMap<int, Reactor<false>, SmallIndex> small;
    check(small, recs, log);
    ReactorMap<int, Reactor<false>> hashed;
    check(hashed, recs, log);
    ReactorMap<int, Reactor<false>, SharedIndex> shared;
    check(shared, recs, log);
}

TEST(ReactorMapTest, MapsSharingADirectoryKeepTheirOwnReactors) {
    using R = Reactor<false>;
    using Map = ReactorMap<int, R, SharedIndex>;
    auto dir = std::make_shared<ReactorDirectory<int, R>>();
    Log log;
    std::map<int, Rec> recs;
    for (int k = 0; k < 40; ++k) recs[k] = Rec{k};
    std::vector<std::unique_ptr<Map>> maps;
    for (std::size_t i = 0; i < ReactorDirectory<int, R>::slots; ++i) {
        maps.push_back(std::make_unique<Map>(dir));
    }
    std::vector<std::set<int>> want(maps.size());
    auto check = [&](const char* when) {
        SCOPED_TRACE(when);
        std::set<int> any;
        for (std::size_t i = 0; i < maps.size(); ++i) {
            if (!maps[i]) continue;
            std::set<int> seen;
            maps[i]->forEach([&](R* r) { seen.insert(r->reactorKey()); });
            EXPECT_EQ(seen, want[i]) << "map " << i;
            EXPECT_EQ(maps[i]->size(), want[i].size()) << "map " << i;
            for (int k : want[i]) EXPECT_EQ(maps[i]->get(k)->reactorRecord(), &recs[k]);
            any.insert(want[i].begin(), want[i].end());
        }
        // A key has one block while any map holds it, none after; the
        // directory counts every reactor it holds (footprints are shared by it).
        EXPECT_EQ(dir->keys(), any.size());
        std::size_t filled = 0;
        for (std::size_t i = 0; i < maps.size(); ++i) filled += maps[i] ? want[i].size() : 0;
        EXPECT_EQ(dir->filled(), filled);
    };
    // Each map holds its own mix of keys; many keys are held by several.
    unsigned seed = 7;
    for (int step = 0; step < 2000; ++step) {
        seed = seed * 1103515245 + 12345;
        const std::size_t i = (seed >> 8) % maps.size();
        const int k = int((seed >> 16) % recs.size());
        const bool add = (seed >> 28) & 1;
        maps[i]->update(k, add ? &recs[k] : nullptr, log);
        if (add) {
            want[i].insert(k);
        } else {
            want[i].erase(k);
        }
        // Every map, asked right after the change, sees its own state of the
        // key: the directory's last-found block must not outlive a removal.
        for (std::size_t j = 0; j < maps.size(); ++j) {
            ASSERT_EQ(maps[j]->get(k) != nullptr, want[j].count(k) == 1) << step << " map " << j;
        }
    }
    check("after the updates");
    // A map that goes takes its reactors and its slot, and no other map's.
    maps[1].reset();
    want[1].clear();
    check("after a map went");
    maps[1] = std::make_unique<Map>(dir);  // its slot is free again
    maps[1]->update(3, &recs[3], log);
    want[1].insert(3);
    check("after a new map took the slot");
    // One map more than the directory has slots keeps an index of its own.
    Map extra(dir);
    extra.update(39, &recs[39], log);
    EXPECT_EQ(extra.get(39)->reactorRecord(), &recs[39]);
    check("with a map beside the directory");
    for (auto& m : maps) m->clear();
    for (auto& w : want) w.clear();
    check("after every map cleared");
}

TEST(ReactorMapTest, SweepSeesTheKeysPresentWhenItStarts) {
    std::map<int, Rec> coll{{1, {1}}, {2, {2}}};
    std::string seen;
    ReactorMap<int, Reactor<false>>::sweep(coll, [&](int k) {
        seen += std::to_string(k);
        coll.erase(2);  // the walk is over a copy of the keys
        coll.emplace(3, Rec{3});
    });
    EXPECT_EQ(seen, "12");
}

TEST(ReactorMapTest, PoolReusesBlocks) {
    using R = Reactor<false>;
    Log log;
    auto& pool = ReactorPool<R>::instance();
    const std::size_t before = pool.inUse();
    Rec a{1}, b{2};
    {
        ReactorMap<int, R> map;
        R* first = map.update(1, &a, log);
        map.update(1, static_cast<Rec*>(nullptr), log);
        EXPECT_EQ(map.update(2, &b, log), first);  // the freed block comes back
        EXPECT_EQ(pool.inUse(), before + 1);
    }
    EXPECT_EQ(pool.inUse(), before);
}

// A large hash index grows by moving reactors a few at a time into a bigger
// table. Meanwhile every key stays findable in one of the two tables,
// removals reach whichever table holds the reactor (the next one to move
// included), and a visit sees each reactor once.
TEST(ReactorMapTest, ALargeIndexGrowsWithoutLosingOrRepeatingAReactor) {
    struct Plain {
        Plain(Rec& r) : rec(&r) {}
        int reactorKey() const { return rec->key; }
        const Rec* reactorRecord() const { return rec; }
        Rec* rec;
    };
    constexpr int n = 40000;  // several doublings past the incremental threshold
    std::vector<Rec> recs(n);
    ReactorMap<int, Plain, HashIndex> map;
    std::set<int> live;
    for (int i = 0; i < n; ++i) {
        recs[i].key = i;
        map.update(i, &recs[i]);
        live.insert(i);
        // Remove some older keys as the map grows: every seventh, and now
        // and then the reactor the growing index would move next.
        if (i % 7 == 0 && i > 0) {
            map.del(i / 2);
            live.erase(i / 2);
        }
        if (i % 1000 == 999) {
            int first = -1;
            map.forEach([&](Plain* p) {
                if (first < 0) first = p->reactorKey();
            });
            map.del(first);
            live.erase(first);
            EXPECT_FALSE(map.has(first));
        }
        ASSERT_EQ(map.size(), live.size()) << "after key " << i;
    }
    EXPECT_EQ(map.size(), live.size());
    for (int i = 0; i < n; ++i) EXPECT_EQ(map.has(i), live.contains(i)) << i;
    std::multiset<int> seen;
    map.forEach([&](Plain* p) { seen.insert(p->reactorKey()); });
    EXPECT_EQ(seen, std::multiset<int>(live.begin(), live.end()));
}

}  // namespace
}  // namespace Cask
