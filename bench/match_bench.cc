// Access::match on a synthetic configuration (20 exact URLs and 4 prefixes per pack) against the
// floor of one unordered_map lookup of the same key string among as many URL keys, for 500, 5,000
// and 50,000 packs. Each probed pack is installed as a host has it: a version folder with its
// signed resource list, read by the library's own loader, and loaded before timing starts (as
// after a pack's first request); only the probed files exist. A match checks that its file is
// there: by opening it relative to the pack's folder held open, or past the process's limit of
// held folders by its whole path. BM_ExistsFloor is one stat of the whole path, and the reporter
// also shows the match without it against the lookup.
#include <benchmark/benchmark.h>

#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "FloorReporter.h"
#include "access/Resource.h"
#include "base/Environment.h"
#include "base/Folder.h"
#include "base/Proxy.h"
#include "base/Url.h"
#include "ferritcore/Access.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "model/ResourceIndex.h"
#include "model/SCache.h"
#include "runtime/TaskRunner.h"

using namespace FerritCore;
using MarlLogger::json::JSON;

namespace {

constexpr int kUrlsPerPack = 20;
constexpr int kPrefixesPerPack = 4;
// Enough distinct probes that neither the floor nor the matcher runs from a warm cache alone.
constexpr int kProbes = 16384;

// Accepts every signature and drops every record, as a host that delivers no telemetry does.
class BenchProxy : public Proxy {
  public:
    bool verifySignature(const std::string&, const std::string&) override { return true; }
    void sendEvent(const PerfRecord&) override {}
};

struct World {
    int packs = 0;
    std::vector<std::string> exactUrls;                     // probes that hit an exact URL
    std::vector<std::string> prefixUrls;                    // probes that hit a prefix
    std::unordered_map<std::string, std::string> floorMap;  // key URL -> pack name
    std::vector<std::string> floorKeys;
    std::vector<std::string> exactFiles;  // the absolute path of each exact probe's file
    std::filesystem::path root;
};

std::string packName(int i) {
    return "pack" + std::to_string(i);
}
std::string exactUrl(int p, int u) {
    return "https://h" + std::to_string(p % 97) + ".example.com/p" + std::to_string(p) + "/page" +
           std::to_string(u) + ".html";
}
std::string prefixOf(int p, int k) {
    return "https://cdn.example.com/p" + std::to_string(p) + "/m" + std::to_string(k) + "/";
}

// The pack's signed resource list in its version folder, as an install leaves it.
void writeList(const std::filesystem::path& folder, int p) {
    JSON table;
    for (int u = 0; u < kUrlsPerPack; ++u) {
        JSON entry;
        entry.set("url", exactUrl(p, u));
        entry.set("v", "0123456789abcdef0123456789abcdef");
        table.set("res/page" + std::to_string(u) + ".html", entry);
    }
    for (int k = 0; k < kPrefixesPerPack; ++k) {
        JSON entry;
        entry.set("url", prefixOf(p, k) + "a.js");
        entry.set("v", "0123456789abcdef0123456789abcdef");
        table.set("res/m" + std::to_string(k) + "/a.js", entry);
    }
    std::ofstream(folder / "app-res.hvc", std::ios::binary) << table.toString() << "||bench|c2ln";
}

World& world(int packs) {
    static std::unique_ptr<World> current;
    if (current && current->packs == packs) return *current;
    current = std::make_unique<World>();
    World& w = *current;
    w.packs = packs;
    w.root =
        std::filesystem::temp_directory_path() / ("ferrit-match-bench-" + std::to_string(packs));
    std::filesystem::remove_all(w.root);
    setRootPath(w.root.string());

    // Background tasks (the configuration's commit) stay queued: no worker thread competes.
    TaskRunner::setSharedMode(TaskRunner::Mode::Manual);
    Environment::instance().setProxy(std::make_shared<BenchProxy>());
    SCache::mutate([&](FConfig& config) {
        config.version = "1";
        config.lastUpdate = MRLCurrentTime();
        for (int p = 0; p < packs; ++p) {
            auto pack = std::make_shared<Pack>();
            pack->name = packName(p);
            pack->flags = kPackTypeFerrit;
            pack->seq = pack->installedSeq = 1;
            pack->updateTime = MRLCurrentTime();
            for (int u = 0; u < kUrlsPerPack; ++u) pack->referrers.push_back(exactUrl(p, u));
            for (int k = 0; k < kPrefixesPerPack; ++k) pack->prefixes.push_back(prefixOf(p, k));
            config.put(pack);
        }
    });
    ResourceIndexPool::clear();

    std::mt19937 random(42);
    std::vector<bool> installed(static_cast<size_t>(packs), false);
    std::unordered_set<std::string> written;
    for (int i = 0; i < kProbes; ++i) {
        const int p = static_cast<int>(random() % static_cast<unsigned>(packs));
        const int u = static_cast<int>(random() % kUrlsPerPack);
        const int k = static_cast<int>(random() % kPrefixesPerPack);
        const std::filesystem::path folder = w.root / ("apps/" + packName(p) + "/1");
        w.exactUrls.push_back(exactUrl(p, u));
        w.prefixUrls.push_back(prefixOf(p, k) + "a.js");
        w.exactFiles.push_back((folder / ("res/page" + std::to_string(u) + ".html")).string());
        if (!installed[static_cast<size_t>(p)]) {
            installed[static_cast<size_t>(p)] = true;
            for (int k2 = 0; k2 < kPrefixesPerPack; ++k2)
                std::filesystem::create_directories(folder / ("res/m" + std::to_string(k2)));
            writeList(folder, p);
        }
        // Each file once: creating files is most of the set-up's time.
        for (const std::string& file :
             {"res/page" + std::to_string(u) + ".html", "res/m" + std::to_string(k) + "/a.js"})
            if (written.insert((folder / file).string()).second)
                std::ofstream(folder / file) << "x";
    }
    // Every probed pack's list is loaded before timing, as it is after the pack's first request.
    for (const auto& url : w.exactUrls) {
        const ResourceRequest request(url, "");
        auto resource = Access::match(request, kPolicySync);
        if (resource->error)
            std::fprintf(stderr, "match_bench: %s\n", resource->error.message().c_str());
    }
    TaskRunner::clear();
    for (int p = 0; p < packs; ++p)
        for (int u = 0; u < kUrlsPerPack; ++u)
            w.floorMap.emplace(Url::key(exactUrl(p, u)), packName(p));
    for (const auto& url : w.exactUrls) w.floorKeys.push_back(Url::key(url));
    return w;
}

void runMatch(benchmark::State& state, const std::vector<std::string>& urls) {
    MarlLogger::Log::setLevel(2);
    size_t i = 0;
    std::vector<ResourceRequest> requests;
    for (const auto& url : urls) requests.emplace_back(url, "");
    for (auto _ : state) {
        auto resource = Access::match(requests[i++ % requests.size()], kPolicySync);
        if (resource->error) state.SkipWithError(resource->error.message().c_str());
        benchmark::DoNotOptimize(resource);
        // A match ends as a request does, records and all.
        resource->finish();
    }
    TaskRunner::clear();
    state.SetLabel("vs:BM_LookupFloor|minus:BM_ExistsFloor");
}

void BM_MatchExact(benchmark::State& state) {
    runMatch(state, world(static_cast<int>(state.range(0))).exactUrls);
}
void BM_MatchPrefix(benchmark::State& state) {
    runMatch(state, world(static_cast<int>(state.range(0))).prefixUrls);
}

void BM_LookupFloor(benchmark::State& state) {
    World& w = world(static_cast<int>(state.range(0)));
    size_t i = 0;
    for (auto _ : state) {
        auto it = w.floorMap.find(w.floorKeys[i++ % w.floorKeys.size()]);
        benchmark::DoNotOptimize(it);
    }
}

// The existence check of a match alone: one stat of the same files, in the same order.
void BM_ExistsFloor(benchmark::State& state) {
    World& w = world(static_cast<int>(state.range(0)));
    size_t i = 0;
    for (auto _ : state) {
        struct stat info;
        const int rc = ::stat(w.exactFiles[i++ % w.exactFiles.size()].c_str(), &info);
        if (rc != 0) state.SkipWithError("missing file");
        benchmark::DoNotOptimize(info);
    }
}

}  // namespace

// Grouped by size, so that each synthetic world is built once.
static const bool registered = [] {
    for (int packs : {500, 5000, 50000}) {
        benchmark::RegisterBenchmark("BM_LookupFloor", BM_LookupFloor)->Arg(packs);
        benchmark::RegisterBenchmark("BM_ExistsFloor", BM_ExistsFloor)->Arg(packs);
        benchmark::RegisterBenchmark("BM_MatchExact", BM_MatchExact)->Arg(packs);
        benchmark::RegisterBenchmark("BM_MatchPrefix", BM_MatchPrefix)->Arg(packs);
    }
    return true;
}();

FERRIT_BENCHMARK_MAIN();
