// Cold start: from a process with nothing loaded to the first served hit, with 5,000 packs in the
// packs store. Each iteration puts the process back as it was started (everything process-wide
// reset, outside the timing), then times what a host's start does before its first page can be
// answered: the proxy and root (which opens the store, reads the stored document, parses it into
// records and publishes it with its match tables), and the first request (which matches the URL,
// loads and verifies the hit's pack list, and reads the file). The floor is a bare RapidJSON parse
// of the same stored document, measured in the same run.
#include <benchmark/benchmark.h>
#include <rapidjson/document.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "FloorReporter.h"
#include "base/Digest.h"
#include "base/Environment.h"
#include "base/ProcessState.h"
#include "base/Proxy.h"
#include "ferritcore/Access.h"
#include "lifecycle/Setup.h"
#include "marl/Clock.h"
#include "marl/Json.h"
#include "marl/Log.h"
#include "model/FConfig.h"
#include "model/SCache.h"
#include "runtime/TaskRunner.h"
#include "storage/PacksStore.h"

using namespace FerritCore;
using MarlLogger::json::JSON;

namespace {

constexpr int kPacks = 5000;
constexpr int kFilesInHitPack = 200;
constexpr const char* kHitPack = "pack2500";

// Accepts every signature and drops every record, as a host that delivers no telemetry does.
class BenchProxy : public Proxy {
  public:
    bool verifySignature(const std::string&, const std::string&) override { return true; }
    void sendEvent(const PerfRecord&) override {}
};

struct World {
    std::filesystem::path root;
    std::string storedDocument;
    std::shared_ptr<Proxy> proxy = std::make_shared<BenchProxy>();
    std::unique_ptr<ResourceRequest> request;
};

// Puts the process back as it was started, with the settings a benchmark runs under.
void freshProcess() {
    ProcessState::resetForTesting();
    MarlLogger::Log::setLevel(MarlLogger::MRLLevelWarning);
    // Background tasks stay queued: no worker thread competes with what is timed.
    TaskRunner::setSharedMode(TaskRunner::Mode::Manual);
    // This thread's view of the configuration still holds the last run's document; a read lets
    // it go here rather than inside the next timed start, where a new process has none to free.
    SCache::Snapshot release;
}

World& world() {
    static std::unique_ptr<World> instance = [] {
        auto w = std::make_unique<World>();
        w->root = std::filesystem::temp_directory_path() / "ferrit-startup-bench";
        std::filesystem::remove_all(w->root);
        freshProcess();
        Setup::setProxy(w->proxy, w->root.string());

        // The hit's pack, installed with its signed list.
        const std::string base = std::string("https://cdn.example.com/") + kHitPack + "/";
        const std::filesystem::path version = w->root / "apps" / kHitPack / "7";
        std::filesystem::create_directories(version / "res");
        JSON table;
        for (int i = 0; i < kFilesInHitPack; ++i) {
            const std::string name = "m" + std::to_string(i) + ".js";
            const std::string content(16 * 1024, static_cast<char>('a' + i % 26));
            std::ofstream(version / "res" / name, std::ios::binary) << content;
            JSON entry;
            entry.set("url", base + name);
            entry.set("v", Digest::md5Hex(content));
            table.set("res/" + name, entry);
        }
        std::ofstream(version / "app-res.hvc", std::ios::binary) << table.toString() << "||b|c2ln";

        // The stored document: 5,000 packs of four prefixes and a referrer each, one installed.
        FConfig config;
        config.version = "1700000000001";
        config.fullMark = kFullMark;
        config.lastUpdate = config.lastFullUpdate = MRLCurrentTime();
        for (int p = 0; p < kPacks; ++p) {
            const std::string name = "pack" + std::to_string(p);
            const std::string prefix = "https://cdn.example.com/" + name + "/";
            auto pack = std::make_shared<Pack>();
            pack->name = name;
            pack->seq = 7;
            pack->baseSeq = 6;
            pack->flags = kPackTypeFerrit | static_cast<uint64_t>(p % 10);
            pack->publishTime = 1700000000000.0;
            pack->md5 = "0123456789abcdef0123456789abcdef";
            pack->incrMd5 = "fedcba9876543210fedcba9876543210";
            pack->prefixes = {prefix, prefix + "a/", prefix + "b/", prefix + "c/"};
            pack->referrers = {"https://www.example.com/" + name + "/index.html"};
            pack->updateTime = MRLCurrentTime();
            if (name == kHitPack) {
                pack->installedSeq = 7;
                pack->installedBaseSeq = 6;
                pack->installTime = MRLCurrentTime();
            }
            config.store(std::move(pack));
        }
        w->storedDocument = config.serialize();
        const Error error = PacksStore::instance().writeConfig(w->storedDocument);
        if (error) std::fprintf(stderr, "startup_bench: %s\n", error.message().c_str());
        w->request = std::make_unique<ResourceRequest>(
            base + "m100.js",
            HeaderMap{{"Accept", "*/*"}, {"Referer", "https://www.example.com/"}});
        freshProcess();
        return w;
    }();
    return *instance;
}

void BM_StoredDocumentParseFloor(benchmark::State& state) {
    const std::string& text = world().storedDocument;
    for (auto _ : state) {
        rapidjson::Document d;
        d.Parse(text.data(), text.size());
        benchmark::DoNotOptimize(d.IsObject());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

void BM_ColdStartToFirstHit(benchmark::State& state) {
    World& w = world();
    for (auto _ : state) {
        Setup::setProxy(w.proxy, w.root.string());
        auto response = Access::getResource(*w.request);
        if (response->error) state.SkipWithError(response->error.message().c_str());
        benchmark::DoNotOptimize(response->data.data());
        state.PauseTiming();
        response.reset();
        freshProcess();
        state.ResumeTiming();
    }
    state.SetLabel("vs:BM_StoredDocumentParseFloor");
}

}  // namespace

BENCHMARK(BM_StoredDocumentParseFloor)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ColdStartToFirstHit)->Unit(benchmark::kMillisecond);

FERRIT_BENCHMARK_MAIN();
