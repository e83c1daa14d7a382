// Change notification: the cost of one attribute change delivered to ten
// watchers, and of one that changes nothing.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "cask/collection.h"

namespace {

class Counter : public Cask::Record<Counter> {
public:
    class Notifiee : public Cask::NotifieeOf<Counter> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleValue() {}
    };
    CASK_ATTR(long, value, Value)

private:
    long value_ = 0;
};

class Watcher : public Counter::Notifiee {
public:
    using Counter::Notifiee::Notifiee;
    void handleValue() override { benchmark::DoNotOptimize(++seen); }
    long seen = 0;
};

void BM_NotifyTenWatchers(benchmark::State& state) {
    auto record = Cask::make<Counter>();
    std::vector<std::unique_ptr<Watcher>> watchers;
    for (int i = 0; i < 10; ++i) watchers.push_back(std::make_unique<Watcher>(record.get()));
    long v = 0;
    for (auto _ : state) record->valueIs(++v);
    state.SetItemsProcessed(state.iterations() * 10);
}
BENCHMARK(BM_NotifyTenWatchers);

void BM_UnchangedValueNotifiesNobody(benchmark::State& state) {
    auto record = Cask::make<Counter>();
    std::vector<std::unique_ptr<Watcher>> watchers;
    for (int i = 0; i < 10; ++i) watchers.push_back(std::make_unique<Watcher>(record.get()));
    for (auto _ : state) record->valueIs(7);
}
BENCHMARK(BM_UnchangedValueNotifiesNobody);

}  // namespace
