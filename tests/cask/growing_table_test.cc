#include "cask/growing_table.h"

#include <map>
#include <random>
#include <set>

#include <absl/container/flat_hash_map.h>
#include <absl/container/node_hash_map.h>
#include <gtest/gtest.h>

namespace Cask {
namespace {

// Checks the table against the model: same size, same entries, each entry
// visited once by iteration and found by lookup.
template <class T>
void expectSame(const T& table, const std::map<int, int>& model, const char* when) {
    ASSERT_EQ(table.size(), model.size()) << when;
    std::map<int, int> seen;
    for (const auto& [k, v] : table) {
        EXPECT_TRUE(seen.emplace(k, v).second) << when << ": key " << k << " visited twice";
    }
    EXPECT_EQ(seen, model) << when;
    for (const auto& [k, v] : model) {
        auto it = table.find(k);
        ASSERT_NE(it, table.end()) << when << ": key " << k;
        EXPECT_EQ(it->second, v) << when;
    }
}

// Random inserts, replacements and removals through keys and iterators,
// across several incremental growths, against a std::map. Removals include
// the entry the growth would move next (the first one iteration visits).
template <class Table>
void runAgainstModel() {
    GrowingTable<Table> table;
    std::map<int, int> model;
    std::mt19937 rng(7);
    bool grew = false;
    for (int step = 0; step < 60000; ++step) {
        const int k = static_cast<int>(rng() % 40000);
        switch (rng() % 8) {
            case 0: {
                auto n = table.erase(k);
                EXPECT_EQ(n, model.erase(k));
                break;
            }
            case 1:
                if (!table.empty()) {
                    const int first = table.begin()->first;
                    table.erase(table.begin());
                    model.erase(first);
                    EXPECT_FALSE(table.contains(first));
                }
                break;
            default: {
                auto [it, inserted] = table.try_emplace(k, step);
                auto [mit, minserted] = model.try_emplace(k, step);
                ASSERT_EQ(inserted, minserted) << "key " << k;
                ASSERT_EQ(it->first, k);
                // An existing entry is updated through the returned iterator,
                // wherever it lives.
                if (!inserted) it->second = mit->second = -step;
            }
        }
        grew = grew || table.growing();
        if (step % 5000 == 0) expectSame(table, model, "during the run");
    }
    EXPECT_TRUE(grew) << "the run never grew incrementally";
    expectSame(table, model, "at the end");
    // A copy made while growing holds the same entries in one table.
    const GrowingTable<Table> copy(table);
    EXPECT_FALSE(copy.growing());
    expectSame(copy, model, "copy");
}

TEST(GrowingTableTest, AgreesWithAnOrderedMapThroughGrowthAndRemovals) {
    runAgainstModel<absl::flat_hash_map<int, int>>();
    runAgainstModel<absl::node_hash_map<int, int>>();
}

TEST(GrowingTableTest, NodeEntriesStayPutAndGrowthMovesAFewPerInsert) {
    GrowingTable<absl::node_hash_map<int, int>> table;
    std::vector<const int*> where;
    constexpr int n = 20000;
    int inOneStep = 0;
    int growths = 0;
    for (int i = 0; i < n; ++i) {
        const std::size_t before = table.capacity();
        const bool wasGrowing = table.growing();
        where.push_back(&table.try_emplace(i, i).first->second);
        // A large table that gains room does so by starting a new table
        // beside the old one, never by rebuilding itself in the insert.
        if (!wasGrowing && table.capacity() > before) {
            if (table.growing()) {
                ++growths;
            } else if (before >= GrowingTable<absl::node_hash_map<int, int>>::incrementalFrom) {
                ++inOneStep;
            }
        }
    }
    EXPECT_EQ(inOneStep, 0);
    EXPECT_GE(growths, 2);
    for (int i = 0; i < n; ++i) EXPECT_EQ(&table.find(i)->second, where[i]) << i;
}

}  // namespace
}  // namespace Cask
