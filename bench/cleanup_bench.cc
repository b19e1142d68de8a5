// Cleanup over 5,000 packs. The selection (every pack read with its statistics, scored, and the
// two budgets walked down their heaps; no disk work) against the floor of building and sorting
// 5,000 scores; and recovery over 5,000 pack folders, every one owned, against the floor of a
// bare recursive walk of the same tree. Each floor is measured in the same run.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "FloorReporter.h"
#include "base/Environment.h"
#include "base/Folder.h"
#include "model/FConfig.h"
#include "model/SCache.h"
#include "runtime/TaskRunner.h"
#include "storage/Statistics.h"
#include "update/Cleanup.h"

using namespace FerritCore;

namespace {

constexpr int kPacks = 5000;
constexpr uint64_t kLimit = 52428800;

struct World {
    std::string root;
    std::shared_ptr<FConfig> config;
    std::vector<double> access;  // of each pack, as the statistics hold it
    std::vector<uint32_t> priority;
};

// One root for the whole run: 5,000 installed packs with random sizes, priorities and histories
// (fixed seed), each with its version folder on the disk.
World& world() {
    static World* const made = [] {
        auto* w = new World;
        std::string pattern =
            (std::filesystem::temp_directory_path() / "ferrit-cleanup-bench-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) std::abort();
        w->root = pattern + "/";
        std::atexit([] { std::filesystem::remove_all(world().root); });
        initFolders(w->root);
        // Recovery runs on the worker: this thread drives the process's tasks and stands in for it.
        TaskRunner::setSharedMode(TaskRunner::Mode::Manual);
        // Counted in memory only: the bench measures the selection, not the store's writes.
        Environment::instance().setMainProcess(false);
        std::mt19937_64 random(5000);
        w->config = std::make_shared<FConfig>();
        for (int i = 0; i < kPacks; ++i) {
            auto p = std::make_shared<Pack>();
            p->name = "pack" + std::to_string(i);
            const uint32_t priority = static_cast<uint32_t>(random() % 10);
            p->flags = (i % 5 == 0 ? kPackTypeACache : kPackTypeFerrit) | priority;
            p->seq = 1;
            p->installedSeq = 1;
            p->installedSize = 5000 + random() % 30000;
            p->updateTime = 1000.0 + i;
            const double a = static_cast<double>(random() % 8);
            if (a > 0) Statistics::addAccess(p->name, nullptr, a);
            w->access.push_back(a);
            w->priority.push_back(priority);
            const std::filesystem::path blob =
                std::filesystem::path(w->root) / "apps" / p->name / "1" / "res" / "blob";
            std::filesystem::create_directories(blob.parent_path());
            std::ofstream(blob) << "x";
            w->config->put(p);
        }
        SCache::publish(w->config);
        return w;
    }();
    return *made;
}

// Floor: the scores alone, built from values at hand and sorted.
void BM_SortScores(benchmark::State& state) {
    World& w = world();
    std::vector<double> scores(kPacks);
    for (auto _ : state) {
        for (int i = 0; i < kPacks; ++i) {
            const double p = w.priority[i];
            scores[i] = (p * Cleanup::kPriorityAccessWeight + 1.0) * w.access[i] +
                        p * Cleanup::kPriorityWeight;
        }
        std::sort(scores.begin(), scores.end());
        benchmark::DoNotOptimize(scores.data());
    }
}

void BM_CleanupSelection(benchmark::State& state) {
    World& w = world();
    for (auto _ : state) {
        CleanupPlan plan = Cleanup::plan(*w.config, kLimit, kLimit);
        benchmark::DoNotOptimize(plan);
    }
    state.SetLabel("vs:BM_SortScores");
}

// Floor: every entry of the tree under "apps/" visited, nothing else.
void BM_DirectoryWalk(benchmark::State& state) {
    World& w = world();
    for (auto _ : state) {
        size_t entries = 0;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(w.root + "apps")) {
            benchmark::DoNotOptimize(entry);
            ++entries;
        }
        if (entries == 0) state.SkipWithError("empty tree");
    }
}

void BM_Recovery(benchmark::State& state) {
    world();
    for (auto _ : state) {
        std::vector<std::string> invalid = Cleanup::recover();
        if (!invalid.empty()) state.SkipWithError("recovery deleted an owned folder");
    }
    state.SetLabel("vs:BM_DirectoryWalk");
}

}  // namespace

BENCHMARK(BM_SortScores);
BENCHMARK(BM_CleanupSelection);
BENCHMARK(BM_DirectoryWalk);
BENCHMARK(BM_Recovery);

FERRIT_BENCHMARK_MAIN();
