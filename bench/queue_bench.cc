// One run of the update queue's start over 5,000 stale records with a limit of 30 (making and
// evaluating a task for each record, merging the runnable ones into the heap, and trimming it to
// the 30 best), against the floor of building 5,000 scored items, each with its own name, and
// partially sorting the 30 best to the front.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "FloorReporter.h"
#include "base/Environment.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "model/FConfig.h"
#include "model/SCache.h"
#include "runtime/Settings.h"
#include "runtime/TaskRunner.h"
#include "storage/Statistics.h"
#include "update/UpdateQueue.h"

using namespace FerritCore;

namespace {

constexpr size_t kLimit = 30;

void prepare(int records) {
    static bool once = [] {
        MarlLogger::Log::setLevel(0);
        TaskRunner::setSharedMode(TaskRunner::Mode::Manual);
        Environment::instance().setNetworkStatusValue(NetworkStatus::kUnrestricted);
        Settings::change([](Settings& settings) { settings.downloadLimit = kLimit; });
        return true;
    }();
    (void)once;
    SCache::mutate([&](FConfig& config) {
        config.clearPacks();
        for (int i = 0; i < records; ++i) {
            auto pack = std::make_shared<Pack>();
            pack->name = "pack" + std::to_string(i);
            pack->flags = 0x50 | static_cast<uint32_t>(i % 8);
            pack->seq = 2;
            pack->baseSeq = 2;
            pack->installedSeq = 1;
            pack->installedBaseSeq = 1;
            pack->updateTime = MRLCurrentTime();
            pack->prefixes = {"https://cdn.example.com/p" + std::to_string(i) + "/"};
            config.put(pack);
            Statistics::addAccess(pack->name, nullptr, 1.0 + (i * 7919) % records);
        }
    });
    TaskRunner::clear();
}

void BM_QueueStart(benchmark::State& state) {
    const int records = static_cast<int>(state.range(0));
    prepare(records);
    for (auto _ : state) {
        UpdateQueue::start(kTriggerTimer);
        benchmark::DoNotOptimize(UpdateQueue::normalCount());
        TaskRunner::clear();
    }
    if (UpdateQueue::normalCount() != kLimit) state.SkipWithError("the heap was not trimmed");
    state.SetLabel("vs:BM_ScoredItemsFloor");
}

struct Scored {
    std::string name;
    double score;
};

void BM_ScoredItemsFloor(benchmark::State& state) {
    const int records = static_cast<int>(state.range(0));
    for (auto _ : state) {
        std::vector<std::shared_ptr<Scored>> items;
        items.reserve(static_cast<size_t>(records));
        for (int i = 0; i < records; ++i)
            items.push_back(std::make_shared<Scored>(
                Scored{"pack" + std::to_string(i), 0.1 * (i % 8) + (i * 7919) % records}));
        std::partial_sort(items.begin(), items.begin() + kLimit, items.end(),
                          [](const auto& a, const auto& b) { return a->score > b->score; });
        items.resize(kLimit);
        benchmark::DoNotOptimize(items.data());
    }
}

}  // namespace

BENCHMARK(BM_ScoredItemsFloor)->Arg(5000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_QueueStart)->Arg(5000)->Unit(benchmark::kMicrosecond);

FERRIT_BENCHMARK_MAIN();
