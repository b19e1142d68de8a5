// Parse + merge of a full configuration document of 5,000 packs into a configuration of 5,000
// packs, against the floor of a bare RapidJSON parse of the same text; and one transaction that
// changes one record, for 500, 5,000 and 50,000 packs.
#include <benchmark/benchmark.h>
#include <rapidjson/document.h>

#include <string>

#include "FloorReporter.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "model/FConfig.h"
#include "model/SCache.h"
#include "runtime/TaskRunner.h"

using namespace FerritCore;

namespace {

std::string document(int packs, int version) {
    std::string text =
        "{\"v\":\"" + std::to_string(1700000000000LL + version) + "\",\"i\":4294967295,\"packs\":{";
    for (int p = 0; p < packs; ++p) {
        if (p) text += ",";
        const std::string n = std::to_string(p);
        text += "\"pack" + n + "\":{\"s\":" + std::to_string(10 + version) +
                ",\"f\":" + std::to_string(80 + p % 10) + ",\"b\":" + std::to_string(9 + version) +
                ",\"t\":1700000000000,\"c\":\"0123456789abcdef0123456789abcdef\"," +
                "\"ci\":\"fedcba9876543210fedcba9876543210\",\"p\":[\"https://cdn.example.com/p" +
                n + "/a/\",\"https://cdn.example.com/p" + n + "/b/\",\"https://cdn.example.com/p" +
                n + "/c/\",\"https://cdn.example.com/p" + n + "/d/\"]," +
                "\"r\":[\"https://www.example.com/p" + n + "/index.html\"],\"g\":0}";
    }
    return text + "}}";
}

void BM_RapidJsonParseFloor(benchmark::State& state) {
    const std::string text = document(static_cast<int>(state.range(0)), 1);
    for (auto _ : state) {
        rapidjson::Document d;
        d.Parse(text.data(), text.size());
        benchmark::DoNotOptimize(d.IsObject());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

void BM_ParseAndMerge(benchmark::State& state) {
    MarlLogger::Log::setLevel(1);
    const int packs = static_cast<int>(state.range(0));
    Error error;
    SCache::publish(FConfig::parse(document(packs, 0), "base", error, false));
    const std::string text = document(packs, 1);
    for (auto _ : state) {
        auto parsed = FConfig::parse(text, "bench", error, false);
        FConfig copy = SCache::current()->copyForChange();
        copy.merge(std::move(*parsed));
        copy.rebuildIndexes(SCache::current().get());
        benchmark::DoNotOptimize(copy.packs().size());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
    state.SetLabel("vs:BM_RapidJsonParseFloor");
}

void BM_ParseOnly(benchmark::State& state) {
    MarlLogger::Log::setLevel(1);
    Error error;
    const std::string text = document(static_cast<int>(state.range(0)), 1);
    for (auto _ : state) {
        auto parsed = FConfig::parse(text, "bench", error, false);
        benchmark::DoNotOptimize(parsed->packs().size());
    }
    state.SetLabel("vs:BM_RapidJsonParseFloor");
}

void BM_MergeOnly(benchmark::State& state) {
    MarlLogger::Log::setLevel(1);
    const int packs = static_cast<int>(state.range(0));
    Error error;
    SCache::publish(FConfig::parse(document(packs, 0), "base", error, false));
    auto parsed = FConfig::parse(document(packs, 1), "bench", error, false);
    for (auto _ : state) {
        FConfig copy = SCache::current()->copyForChange();
        copy.merge(*parsed);
        benchmark::DoNotOptimize(copy.packs().size());
    }
    state.SetLabel("vs:BM_RapidJsonParseFloor");
}

void BM_MutateOneRecord(benchmark::State& state) {
    MarlLogger::Log::setLevel(1);
    Error error;
    SCache::publish(
        FConfig::parse(document(static_cast<int>(state.range(0)), 0), "base", error, false));
    uint32_t status = 0;
    state.SetLabel("vs:BM_MapCopyFloor");
    for (auto _ : state) {
        status ^= 2;
        SCache::mutate([&](FConfig& config) { config.setStatus("pack7", status); });
        state.PauseTiming();
        TaskRunner::clear();  // the posted commits are not what is measured
        state.ResumeTiming();
    }
}

void BM_MapCopyFloor(benchmark::State& state) {
    Error error;
    auto config =
        FConfig::parse(document(static_cast<int>(state.range(0)), 0), "base", error, false);
    for (auto _ : state) {
        StringMap<PackPtr> copy = config->packs();
        benchmark::DoNotOptimize(copy.size());
    }
}

}  // namespace

BENCHMARK(BM_RapidJsonParseFloor)->Arg(5000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ParseAndMerge)->Arg(5000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ParseOnly)->Arg(5000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MergeOnly)->Arg(5000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MapCopyFloor)->Arg(500)->Arg(5000)->Arg(50000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_MutateOneRecord)
    ->Arg(500)
    ->Arg(5000)
    ->Arg(50000)
    ->Unit(benchmark::kMicrosecond)
    ->Iterations(200);

FERRIT_BENCHMARK_MAIN();
