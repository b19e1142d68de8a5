// A one-line change in a 7 MiB script, the case patches are for: what the file costs on the wire
// whole (deflated, as a zip entry carries it) and as a patch, and the time to make the new bytes
// on a device either way. The floor is what carrying the file whole costs there: inflating it
// and taking its MD5, which the device checks in both forms.
#include <benchmark/benchmark.h>
#include <zlib.h>

#include <random>
#include <string>

#include "FloorReporter.h"
#include "base/Digest.h"
#include "base/Folder.h"
#include "storage/Patch.h"

using namespace FerritCore;

namespace {

constexpr size_t kScriptSize = 7u << 20;

// Minified-bundle-like text from a fixed seed: identifiers, numbers and punctuation.
std::string script(size_t size) {
    static const char* const kWords[] = {"function", "return", "const",     "this",
                                         "props",    "state",  "=>",        "if(",
                                         "){",       "}",      "e.exports", "n"};
    std::mt19937_64 engine(29);
    std::string text;
    text.reserve(size + 64);
    while (text.size() < size) {
        text += kWords[engine() % std::size(kWords)];
        text += engine() % 9 == 0 ? ";\n" : ",";
        text += std::to_string(engine() % 1000000);
    }
    text.resize(size);
    return text;
}

struct World {
    std::string old = script(kScriptSize);
    std::string changed;
    std::string deflated;
    std::string patch;
    std::string expectedMd5;

    World() {
        changed = old;
        changed.insert(changed.find('\n', changed.size() / 2), "console.log(\"fixed\");");
        uLongf bound = compressBound(changed.size());
        deflated.resize(bound);
        compress2(reinterpret_cast<Bytef*>(deflated.data()), &bound,
                  reinterpret_cast<const Bytef*>(changed.data()), changed.size(), 9);
        deflated.resize(bound);
        ErrorOr<std::string> made = makePatch(old, changed);
        if (made.ok()) patch = std::move(*made);
        expectedMd5 = Digest::md5Hex(changed);
    }
};

World& world() {
    static World w;
    return w;
}

void counters(benchmark::State& state) {
    state.counters["wholeBytes"] = static_cast<double>(world().deflated.size());
    state.counters["patchBytes"] = static_cast<double>(world().patch.size());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * world().changed.size()));
}

void BM_InflateMd5Floor(benchmark::State& state) {
    World& w = world();
    std::string out(w.changed.size(), '\0');
    for (auto _ : state) {
        uLongf size = out.size();
        uncompress(reinterpret_cast<Bytef*>(out.data()), &size,
                   reinterpret_cast<const Bytef*>(w.deflated.data()), w.deflated.size());
        benchmark::DoNotOptimize(Digest::md5Hex(out));
    }
    counters(state);
}

void BM_PatchApply(benchmark::State& state) {
    World& w = world();
    std::string out;
    out.reserve(w.changed.size());
    for (auto _ : state) {
        out.clear();
        const Error error = applyPatch(w.old, w.patch, Folder::disk("bench.js"), w.changed.size(),
                                       w.expectedMd5, [&out](std::string_view piece) {
                                           out.append(piece);
                                           return Error();
                                       });
        if (error) {
            state.SkipWithError(error.message().c_str());
            break;
        }
    }
    counters(state);
    state.SetLabel("vs:BM_InflateMd5Floor");
}

void BM_PatchMake(benchmark::State& state) {
    World& w = world();
    for (auto _ : state) benchmark::DoNotOptimize(makePatch(w.old, w.changed).ok());
    counters(state);
}

}  // namespace

BENCHMARK(BM_InflateMd5Floor)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_PatchApply)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_PatchMake)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);

FERRIT_BENCHMARK_MAIN();
