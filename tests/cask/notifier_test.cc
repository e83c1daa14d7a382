// Change notification and notifying collections: delivery per key, no
// delivery without change, and safety against what handlers do to watchers
// and records during a delivery.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <vector>

#include "cask/collection.h"

namespace {

// A small record with one of each kind of attribute.
class Thing : public Cask::Record<Thing> {
public:
    class Notifiee : public Cask::NotifieeOf<Thing> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleColor() {}
        virtual void handleHits() {}
        virtual void handleChild(int) {}
        virtual void handleWeight(int) {}
        virtual void handleMember(int) {}
    };
    CASK_ATTR(std::string, color, Color)
    CASK_COUNTER(unsigned, hits, Hits)
    CASK_RECORD_MAP(child, Child, int, Thing, "Test::Thing")
    CASK_VALUE_MAP(weight, Weight, int, double)
    CASK_KEY_SET(member, Member, int)
    template <class F>
    Cask::Ptr<Thing> childFindOrIs(int k, F make) {
        return child_.findOrIs(*this, k, make, &Notifiee::handleChild);
    }

private:
    std::string color_;
    unsigned hits_ = 0;
    Cask::RecordMap<int, Thing> child_;
    Cask::ValueMap<int, double> weight_;
    Cask::KeySet<int> member_;
};

// Records every handler call as a string; an optional hook runs inside it.
class Log : public Thing::Notifiee {
public:
    Log(Thing* t, std::vector<std::string>& out, std::string name = "w")
        : Thing::Notifiee(t), out_(out), name_(std::move(name)) {}
    std::function<void()> hook;

    void handleColor() override { note("color"); }
    void handleHits() override { note("hits"); }
    void handleChild(int k) override { note("child " + std::to_string(k)); }
    void handleWeight(int k) override { note("weight " + std::to_string(k)); }
    void handleMember(int k) override { note("member " + std::to_string(k)); }

private:
    void note(const std::string& what) {
        out_.push_back(name_ + ":" + what);
        if (auto h = hook) h();  // a copy: the hook may destroy this watcher
    }
    std::vector<std::string>& out_;
    std::string name_;
};

using Calls = std::vector<std::string>;

// The same kinds of collection on wide B-trees, which keep a finger on the
// entry found or inserted last.
class Shelf : public Cask::Record<Shelf> {
public:
    // Calls `read` with every announced collection ('c', 'w', 'm') and key.
    class Notifiee : public Cask::NotifieeOf<Shelf> {
    public:
        using NotifieeOf::NotifieeOf;
        std::function<void(char, int)> read;
        virtual void handleChild(int k) { read('c', k); }
        virtual void handleWeight(int k) { read('w', k); }
        virtual void handleMember(int k) { read('m', k); }
    };
    CASK_RECORD_MAP(child, Child, int, Thing, "Test::Shelf")
    CASK_VALUE_MAP(weight, Weight, int, double)
    CASK_KEY_SET(member, Member, int)
    void memberDelBelow(int k) { member_.delBelow(*this, k, &Notifiee::handleMember); }
    void weightAdd(int k, double d) {
        weight_.update(
            *this, k, [d](double w) { return w + d; }, &Notifiee::handleWeight);
    }

private:
    Cask::RecordMapOf<int, Thing, Cask::WideBtreeMap<int, Cask::Ptr<Thing>>> child_;
    Cask::OrderedValueMap<int, double> weight_;
    Cask::OrderedKeySet<int> member_;
};

TEST(Notifier, AttributesNotifyOnlyOnChangeCountersAlways) {
    auto t = Cask::make<Thing>();
    Calls calls;
    Log w(t.get(), calls);
    t->colorIs("red");
    t->colorIs("red");
    t->hitsInc();
    t->hitsInc();
    t->weightIs(1, 2.0);
    t->weightIs(1, 2.0);
    t->weightIs(1, 3.0);
    t->memberIs(5);
    t->memberIs(5);
    t->memberDel(6);  // absent: nothing to say
    t->memberDel(5);
    EXPECT_EQ(calls, (Calls{"w:color", "w:hits", "w:hits", "w:weight 1", "w:weight 1", "w:member 5",
                            "w:member 5"}));
    EXPECT_EQ(t->hits(), 2u);
    EXPECT_FALSE(t->memberHas(5));
}

TEST(Notifier, CollectionsAnnouncePerKeyAfterTheChange) {
    auto t = Cask::make<Thing>();
    Calls calls;
    Log w(t.get(), calls);
    // A watcher that looks the key up sees the state after the change.
    w.hook = [&] { calls.push_back(t->child(1) ? "present" : "absent"); };
    auto c = Cask::make<Thing>();
    t->childIs(1, c);
    t->childIs(1, c);  // same record again: no change
    t->childIs(1, Cask::make<Thing>());
    t->childDel(1);
    EXPECT_EQ(calls,
              (Calls{"w:child 1", "present", "w:child 1", "present", "w:child 1", "absent"}));

    calls.clear();
    w.hook = nullptr;
    for (int k : {3, 4}) t->childIs(k, Cask::make<Thing>());
    calls.clear();
    t->childDelAll();
    std::sort(calls.begin(), calls.end());
    EXPECT_EQ(calls, (Calls{"w:child 3", "w:child 4"}));
    EXPECT_EQ(t->childSize(), 0u);
    t->childNotify(9);
    EXPECT_EQ(calls.back(), "w:child 9");
}

// Find-or-insert makes a record only for a new key, announces only that,
// leaves nothing behind when making fails, and hands back a record a watcher
// removed while told of it.
TEST(Notifier, FindOrInsertMakesAndAnnouncesOnlyNewRecords) {
    auto t = Cask::make<Thing>();
    Calls calls;
    Log w(t.get(), calls);
    int made = 0;
    auto make = [&] {
        ++made;
        return Cask::make<Thing>();
    };
    const auto first = t->childFindOrIs(1, make);
    EXPECT_EQ(t->childFindOrIs(1, make), first);
    EXPECT_EQ(made, 1);
    EXPECT_EQ(calls, (Calls{"w:child 1"}));

    EXPECT_THROW(t->childFindOrIs(2, []() -> Cask::Ptr<Thing> { throw std::bad_alloc(); }),
                 std::bad_alloc);
    EXPECT_FALSE(t->childHas(2));
    EXPECT_EQ(t->childSize(), 1u);

    w.hook = [&] { t->childDel(3); };
    const auto gone = t->childFindOrIs(3, make);
    ASSERT_TRUE(gone);
    EXPECT_FALSE(t->childHas(3));
    gone->colorIs("still here");
}

TEST(Notifier, NullInsertIsRefusedWithTheAttributeAndClassNamed) {
    auto t = Cask::make<Thing>();
    try {
        t->childIs(1, nullptr);
        FAIL() << "null insert accepted";
    } catch (const Cask::NullInsertError& e) {
        EXPECT_STREQ(e.what(),
                     "null _child parameter to mutator for Test::Thing::child not allowed");
    }
    EXPECT_EQ(t->childSize(), 0u);
}

TEST(Notifier, WatchersAreCalledInAttachOrderAndDetachOnDestruction) {
    auto t = Cask::make<Thing>();
    Calls calls;
    Log a(t.get(), calls, "a");
    {
        Log b(t.get(), calls, "b");
        t->hitsInc();
        EXPECT_EQ(t->notifieeCount(), 2u);
    }
    t->hitsInc();
    EXPECT_EQ(calls, (Calls{"a:hits", "b:hits", "a:hits"}));
    a.notifierIs(nullptr);
    t->hitsInc();
    EXPECT_EQ(calls.size(), 3u);
}

// What a handler may do to the watcher list during a delivery, and who
// must then hear the delivery in progress and the next one.
struct ReentryCase {
    const char* name;
    // Runs inside watcher "a"'s handler; may use the three watchers and the
    // record.
    std::function<void(std::unique_ptr<Log>& a, std::unique_ptr<Log>& b, std::unique_ptr<Log>& c,
                       Thing* t, Calls& calls)>
        action;
    Calls first;   // calls of the delivery during which the action ran
    Calls second;  // calls of the next delivery
};

TEST(Notifier, WatcherChangesDuringDeliveryAreSafe) {
    const std::vector<ReentryCase> cases = {
        {"later watcher destroyed",
         [](auto&, auto& b, auto&, Thing*, Calls&) { b.reset(); },
         {"a:hits", "c:hits"},
         {"a:hits", "c:hits"}},
        {"calling watcher destroys itself",
         [](auto& a, auto&, auto&, Thing*, Calls&) { a.reset(); },
         {"a:hits", "b:hits", "c:hits"},
         {"b:hits", "c:hits"}},
        {"later watcher detaches",
         [](auto&, auto&, auto& c, Thing*, Calls&) { c->notifierIs(nullptr); },
         {"a:hits", "b:hits"},
         {"a:hits", "b:hits"}},
        {"new watcher attached",
         [](auto&, auto&, auto& c, Thing* t, Calls& calls) {
             c = std::make_unique<Log>(t, calls, "d");  // replaces c: c detaches, d attaches
         },
         {"a:hits", "b:hits"},
         {"a:hits", "b:hits", "d:hits"}},
    };
    for (const auto& tc : cases) {
        SCOPED_TRACE(tc.name);
        auto t = Cask::make<Thing>();
        Calls calls;
        auto a = std::make_unique<Log>(t.get(), calls, "a");
        auto b = std::make_unique<Log>(t.get(), calls, "b");
        auto c = std::make_unique<Log>(t.get(), calls, "c");
        bool done = false;
        a->hook = [&] {
            if (done) return;
            done = true;
            tc.action(a, b, c, t.get(), calls);
        };
        t->hitsInc();
        EXPECT_EQ(calls, tc.first);
        calls.clear();
        t->hitsInc();
        EXPECT_EQ(calls, tc.second);
    }
}

TEST(Notifier, RecordDestroyedDuringDeliveryStopsIt) {
    auto t = Cask::make<Thing>();
    Calls calls;
    Log a(t.get(), calls, "a");
    Log b(t.get(), calls, "b");
    a.hook = [&] { t.reset(); };  // last reference: the record goes away
    Cask::Ptr<Thing> raw = t;
    raw.reset();
    t->hitsInc();
    EXPECT_EQ(calls, (Calls{"a:hits"}));
    EXPECT_EQ(a.notifier(), nullptr);
    EXPECT_EQ(b.notifier(), nullptr);
}

TEST(Notifier, NestedDeliveryOnTheSameRecord) {
    // A handler that changes the record again: the inner delivery reaches
    // everyone, and a watcher removed by the inner one is skipped by the
    // outer one.
    auto t = Cask::make<Thing>();
    Calls calls;
    auto a = std::make_unique<Log>(t.get(), calls, "a");
    auto b = std::make_unique<Log>(t.get(), calls, "b");
    a->hook = [&] {
        if (t->hits() == 1) t->colorIs("blue");
    };
    b->hook = [&] {
        if (t->hits() == 1 && calls.back() == "b:color") b.reset();
    };
    t->hitsInc();
    EXPECT_EQ(calls, (Calls{"a:hits", "a:color", "b:color"}));
}

}  // namespace

// Hashed collections move their entries as they grow: entries must survive
// growth, including growth caused by a handler during an announcement, and
// keys with a poorly spread hash (small ints hash to themselves) must still
// all be found.
TEST(Notifier, HashedCollectionsKeepEveryEntryThroughGrowth) {
    auto t = Cask::make<Thing>();
    Calls calls;
    Log w(t.get(), calls);
    constexpr int n = 5000;
    // Each announcement of a key below n adds its mirror key and removes the
    // previous one, so the map grows and shrinks while announcing.
    w.hook = [&] {
        const int k = std::stoi(calls.back().substr(std::string("w:weight ").size()));
        if (k < n) {
            t->weightIs(k + n, double(k));
            if (k > 0) t->weightDel(k - 1);
        }
    };
    for (int k = 0; k < n; ++k) t->weightIs(k, double(k) / 2);
    EXPECT_EQ(t->weightSize(), std::size_t(n) + 1);  // n mirrors and the last key
    EXPECT_EQ(t->weight(n - 1), double(n - 1) / 2);
    for (int k = 0; k < n; ++k) {
        ASSERT_EQ(t->weight(k + n), double(k)) << k;
        ASSERT_EQ(t->weightHas(k), k == n - 1) << k;
    }

    for (int k = 0; k < n; ++k) t->memberIs(k * 64);
    for (int k = 0; k < n; ++k) ASSERT_TRUE(t->memberHas(k * 64)) << k;
    EXPECT_FALSE(t->memberHas(1));
}

// Ordered collections answer the finger's key, the key after it and a key
// missing right after it without a search, and bounds at the finger.
// Ascending runs of reads and writes and walks that remove what they visit
// (the patterns the finger serves), mixed with removals and clears,
// and reads of neighbouring keys from inside every announcement, must always
// read what a plain model holds.
TEST(Notifier, OrderedLookupsThroughTheFingerSeeEveryChange) {
    auto shelf = Cask::make<Shelf>();
    std::map<int, Thing*> children;
    std::map<int, double> weights;
    std::set<int> members;
    auto expectKey = [&](int k, const char* where) {
        auto c = children.find(k);
        ASSERT_EQ(shelf->child(k).get(), c == children.end() ? nullptr : c->second)
            << where << " child " << k;
        ASSERT_EQ(shelf->childHas(k), c != children.end()) << where << " child " << k;
        auto w = weights.find(k);
        ASSERT_EQ(shelf->weight(k), w == weights.end() ? 0.0 : w->second)
            << where << " weight " << k;
        ASSERT_EQ(shelf->memberHas(k), members.count(k) == 1) << where << " member " << k;
        auto keyAt = [](const auto& coll, auto it) { return it == coll.end() ? -1 : *it; };
        ASSERT_EQ(keyAt(shelf->member(), shelf->member().lowerBound(k)),
                  keyAt(members, members.lower_bound(k)))
            << where << " lower bound " << k;
        ASSERT_EQ(keyAt(shelf->member(), shelf->member().upperBound(k)),
                  keyAt(members, members.upper_bound(k)))
            << where << " upper bound " << k;
    };
    unsigned seed = 5;
    auto next = [&seed] {
        seed = seed * 1103515245 + 12345;
        return seed >> 8;
    };
    // A clear announces keys one by one: the model drops each as it goes.
    char clearing = 0;
    Shelf::Notifiee reader(shelf.get());
    reader.read = [&](char what, int k) {
        if (clearing == what && what == 'c') children.erase(k);
        if (clearing == what && what == 'w') weights.erase(k);
        if (clearing == what && what == 'm') members.erase(k);
        expectKey(k, "announced");
        expectKey(k + 1, "announced, next");
    };
    constexpr int keys = 64;
    for (int step = 0; step < 4000 && !testing::Test::HasFatalFailure(); ++step) {
        const unsigned op = next() % 16;
        if (op < 10) {
            // An ascending run: each key read, then maybe written.
            for (int k = int(next() % keys), n = 0; n < 6 && k < keys; ++n, ++k) {
                expectKey(k, "run");
                switch (next() % 4) {
                    case 0: {
                        auto fresh = Cask::make<Thing>();
                        children[k] = fresh.get();
                        shelf->childIs(k, fresh);
                        break;
                    }
                    case 1:
                        weights[k] += 1.5;
                        shelf->weightAdd(k, 1.5);
                        break;
                    case 2:
                        members.insert(k);
                        shelf->memberIs(k);
                        break;
                    default:
                        break;
                }
            }
        } else if (op < 12) {
            // A walk that removes each member it visits, as the reviews do.
            auto it = shelf->member().lowerBound(int(next() % keys));
            for (int n = 0; n < 6 && it != shelf->member().end(); ++n) {
                const int k = *it;
                members.erase(k);
                shelf->memberDel(k);
                it = shelf->member().upperBound(k);
                ASSERT_EQ(it == shelf->member().end() ? -1 : *it,
                          members.upper_bound(k) == members.end() ? -1 : *members.upper_bound(k));
            }
        } else if (op < 13) {
            // A drain of the members below a key in one step, as a review
            // does at the end of a slice: each announced once all are gone.
            const int k = int(next() % keys);
            const std::size_t gone = std::distance(members.begin(), members.lower_bound(k));
            members.erase(members.begin(), members.lower_bound(k));
            std::size_t announced = 0;
            auto read = reader.read;
            reader.read = [&](char what, int key) {
                ++announced;
                ASSERT_LT(key, k);
                read(what, key);
            };
            shelf->memberDelBelow(k);
            reader.read = read;
            ASSERT_EQ(announced, gone);
        } else if (op < 15) {
            const int k = int(next() % keys);
            children.erase(k);
            shelf->childDel(k);
            weights.erase(k);
            shelf->weightDel(k);
            members.erase(k);
            shelf->memberDel(k);
        } else {
            clearing = 'c';
            shelf->childDelAll();
            clearing = 'w';
            shelf->weightDelAll();
            clearing = 'm';
            shelf->memberDelAll();
            clearing = 0;
        }
        expectKey(int(next() % keys), "after");
    }
}

// A large hashed record map answers a repeated lookup from the record it
// found last. Random inserts, replacements and removals on a few keys (so
// the same key is asked for again and again), with every announcement
// looking up its own key and another, must always read what the map holds.
TEST(Notifier, RepeatedLookupsSeeEveryRemovalAndReplacement) {
    auto t = Cask::make<Thing>();
    Calls calls;
    Log w(t.get(), calls);
    std::map<int, Thing*> model;
    auto expectModel = [&](int k, const char* where) {
        auto it = model.find(k);
        ASSERT_EQ(t->child(k).get(), it == model.end() ? nullptr : it->second)
            << where << " key " << k;
    };
    unsigned seed = 11;
    auto next = [&seed] {
        seed = seed * 1103515245 + 12345;
        return seed >> 8;
    };
    bool deletingAll = false;
    w.hook = [&] {
        const int k = std::stoi(calls.back().substr(std::string("w:child ").size()));
        if (deletingAll) model.erase(k);  // keys go one by one, each announced
        expectModel(k, "announced");
        expectModel(int(next() % 8), "other");  // leaves another key found last
    };
    for (int step = 0; step < 3000; ++step) {
        const int k = int(next() % 8);
        expectModel(k, "before");
        switch (next() % 4) {
            case 0:
            case 1: {
                auto fresh = Cask::make<Thing>();
                model[k] = fresh.get();
                t->childIs(k, fresh);  // a new entry or a replacement
                break;
            }
            case 2:
                model.erase(k);
                t->childDel(k);
                break;
            default:
                if (step % 50 == 0) {
                    deletingAll = true;
                    t->childDelAll();
                    deletingAll = false;
                    EXPECT_TRUE(model.empty());
                }
        }
        expectModel(k, "after");
        if (testing::Test::HasFatalFailure()) return;
    }
}
