// Access::getResource (synchronous) of a pack hit, for files of 1 KiB, 16 KiB and 128 KiB, against
// the floor of a bare open, fstat, read and close of the same files into a string, measured in the
// same run. The pack is installed under a private root with a signed resource list, and a proxy is
// set (as on a real host, so that the performance records are built; a second run goes without
// one); the list is loaded before timing starts, as it is after a pack's first request.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "FloorReporter.h"
#include "base/Digest.h"
#include "base/Environment.h"
#include "base/Folder.h"
#include "base/Proxy.h"
#include "ferritcore/Access.h"
#include "marl/Clock.h"
#include "marl/Json.h"
#include "marl/Log.h"
#include "model/PacksConfigStorage.h"
#include "model/ResourceIndex.h"
#include "model/SCache.h"
#include "runtime/TaskRunner.h"

using namespace FerritCore;
using MarlLogger::json::JSON;

namespace {

constexpr int kFilesPerSize = 64;
constexpr int kSizesKiB[] = {1, 16, 128};

// Accepts every signature and drops every record, as a host that delivers no telemetry does.
class BenchProxy : public Proxy {
  public:
    bool verifySignature(const std::string&, const std::string&) override { return true; }
    void sendEvent(const PerfRecord&) override {}
};

struct World {
    std::filesystem::path root;
    // By size: the absolute paths (floor) and the requests (ours), of the same files.
    std::vector<std::string> paths[3];
    std::vector<ResourceRequest> requests[3];
};

std::string fileName(int kib, int i) {
    return "f" + std::to_string(kib) + "k_" + std::to_string(i) + ".js";
}

World& world() {
    static std::unique_ptr<World> instance = [] {
        auto w = std::make_unique<World>();
        // Background tasks (the configuration's commit) stay queued: no worker thread competes.
        TaskRunner::setSharedMode(TaskRunner::Mode::Manual);
        w->root = std::filesystem::temp_directory_path() / "ferrit-read-bench";
        std::filesystem::remove_all(w->root);
        Environment::instance().setProxy(std::make_shared<BenchProxy>());
        initFolders(w->root.string());
        const std::filesystem::path pack = w->root / "apps/app/1";
        std::filesystem::create_directories(pack / "res");
        std::mt19937 random(7);
        JSON table;
        for (int s = 0; s < 3; ++s) {
            const int kib = kSizesKiB[s];
            for (int i = 0; i < kFilesPerSize; ++i) {
                std::string content(static_cast<size_t>(kib) * 1024, ' ');
                for (char& c : content) c = static_cast<char>('a' + random() % 26);
                const std::string name = fileName(kib, i);
                std::ofstream(pack / "res" / name, std::ios::binary) << content;
                JSON entry;
                entry.set("url", "https://bench.example.com/app/" + name);
                entry.set("v", Digest::md5Hex(content));
                table.set("res/" + name, entry);
                w->paths[s].push_back((pack / "res" / name).string());
                w->requests[s].emplace_back(
                    "https://bench.example.com/app/" + name + "?v=1",
                    HeaderMap{{"Accept", "*/*"}, {"Referer", "https://bench.example.com/"}});
            }
        }
        std::ofstream(pack / "app-res.hvc", std::ios::binary) << table.toString() << "||bench|c2ln";
        SCache::mutate([](FConfig& config) {
            auto p = std::make_shared<Pack>();
            p->name = "app";
            p->flags = kPackTypeFerrit;
            p->seq = p->installedSeq = 1;
            p->prefixes = {"https://bench.example.com/app/"};
            p->updateTime = MRLCurrentTime();
            config.lastUpdate = MRLCurrentTime();
            config.put(p);
        });
        TaskRunner::clear();
        // The first request loads and verifies the list.
        auto first = Access::getResource(w->requests[0][0]);
        if (first->error) std::fprintf(stderr, "read_bench: %s\n", first->error.message().c_str());
        return w;
    }();
    return *instance;
}

int sizeIndex(int64_t kib) {
    return kib == 1 ? 0 : kib == 16 ? 1 : 2;
}

void BM_ReadFloor(benchmark::State& state) {
    const std::vector<std::string>& paths = world().paths[sizeIndex(state.range(0))];
    size_t i = 0;
    for (auto _ : state) {
        const std::string& path = paths[i++ % paths.size()];
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        struct stat info;
        ::fstat(fd, &info);
        std::string content(static_cast<size_t>(info.st_size), '\0');
        const ssize_t n = ::read(fd, content.data(), content.size());
        ::close(fd);
        if (n != info.st_size) state.SkipWithError("short read");
        benchmark::DoNotOptimize(content);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0) * 1024);
}

void runGetResource(benchmark::State& state) {
    MarlLogger::Log::setLevel(2);
    const std::vector<ResourceRequest>& requests = world().requests[sizeIndex(state.range(0))];
    size_t i = 0;
    for (auto _ : state) {
        auto response = Access::getResource(requests[i++ % requests.size()]);
        if (response->error) state.SkipWithError(response->error.message().c_str());
        benchmark::DoNotOptimize(response->data.data());
    }
    // Visits of packs are posted for later; they are not part of a request.
    TaskRunner::clear();
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0) * 1024);
    state.SetLabel("vs:BM_ReadFloor");
}

void BM_GetResource(benchmark::State& state) {
    runGetResource(state);
}

// The asynchronous form of the same hit: the parts of a pack are read on the calling thread and the
// callback runs there too, so the difference to the synchronous form is what the callback and the
// asynchronous bookkeeping cost.
void BM_GetResourceAsync(benchmark::State& state) {
    MarlLogger::Log::setLevel(2);
    const std::vector<ResourceRequest>& requests = world().requests[sizeIndex(state.range(0))];
    size_t i = 0;
    bool failed = false;
    for (auto _ : state) {
        Access::getResource(requests[i++ % requests.size()],
                            [&failed](std::unique_ptr<ResourceResponse> response) {
                                failed = failed || static_cast<bool>(response->error);
                                benchmark::DoNotOptimize(response->data.data());
                            });
    }
    TaskRunner::clear();
    if (failed) state.SkipWithError("an asynchronous read failed");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0) * 1024);
    state.SetLabel("vs:BM_GetResource");
}

// The same without a proxy: the two performance records of each request ("Ferrit.AppVisit" and
// "Ferrit.VisitPerf") are then not built, which shows what they cost.
void BM_GetResourceNoProxy(benchmark::State& state) {
    world();
    std::shared_ptr<Proxy> proxy = Environment::instance().proxy();
    Environment::instance().setProxy(nullptr);
    runGetResource(state);
    Environment::instance().setProxy(proxy);
}

// The floor of the threaded runs: bare reads of the same files, each thread its own.
void BM_ReadFloorThreads(benchmark::State& state) {
    const std::vector<std::string>& paths = world().paths[1];
    const size_t share = paths.size() / static_cast<size_t>(state.threads());
    size_t i = static_cast<size_t>(state.thread_index()) * share;
    for (auto _ : state) {
        const std::string& path = paths[i++ % paths.size()];
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        struct stat info;
        ::fstat(fd, &info);
        std::string content(static_cast<size_t>(info.st_size), '\0');
        const ssize_t n = ::read(fd, content.data(), content.size());
        ::close(fd);
        if (n != info.st_size) state.SkipWithError("short read");
        benchmark::DoNotOptimize(content);
    }
    state.counters["rate"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    if (state.threads() > 1) state.SetLabel("scale:BM_ReadFloorThreads/real_time/threads:1");
}

// Threads of the host read different resources at once: each thread its own files of 16 KiB. The
// counter "rate" is the requests per second of all threads together.
void BM_GetResourceThreads(benchmark::State& state) {
    MarlLogger::Log::setLevel(2);
    const std::vector<ResourceRequest>& requests = world().requests[1];
    const size_t share = requests.size() / static_cast<size_t>(state.threads());
    size_t i = static_cast<size_t>(state.thread_index()) * share;
    for (auto _ : state) {
        auto response = Access::getResource(requests[i++ % requests.size()]);
        if (response->error) state.SkipWithError(response->error.message().c_str());
        benchmark::DoNotOptimize(response->data.data());
    }
    state.counters["rate"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    if (state.threads() > 1) state.SetLabel("scale:BM_GetResourceThreads/real_time/threads:1");
}

// A miss: a URL under the pack's prefix that its list does not name (3002), and one that no pack
// serves (3001), with the configuration's storage wired as a host has it, so that a failed answer
// pays whatever it looks up before it is given.
void BM_GetResourceMiss(benchmark::State& state) {
    world();
    MarlLogger::Log::setLevel(2);
    SCache::setStorage(std::make_shared<PacksConfigStorage>());
    const ResourceRequest requests[] = {
        ResourceRequest("https://bench.example.com/app/absent.js", std::string()),
        ResourceRequest("https://elsewhere.example.com/absent.js", std::string())};
    size_t i = 0;
    for (auto _ : state) {
        auto response = Access::getResource(requests[i++ % 2]);
        if (!response->error) state.SkipWithError("a miss was served");
        benchmark::DoNotOptimize(response.get());
    }
    TaskRunner::clear();
    SCache::setStorage(nullptr);
    state.SetLabel("vs:BM_ReadFloor/1");
}

}  // namespace

static const bool registered = [] {
    for (int kib : kSizesKiB) {
        benchmark::RegisterBenchmark("BM_ReadFloor", BM_ReadFloor)->Arg(kib);
        benchmark::RegisterBenchmark("BM_GetResource", BM_GetResource)->Arg(kib);
        benchmark::RegisterBenchmark("BM_GetResourceNoProxy", BM_GetResourceNoProxy)->Arg(kib);
        benchmark::RegisterBenchmark("BM_GetResourceAsync", BM_GetResourceAsync)->Arg(kib);
    }
    benchmark::RegisterBenchmark("BM_GetResourceMiss", BM_GetResourceMiss);
    benchmark::RegisterBenchmark("BM_ReadFloorThreads", BM_ReadFloorThreads)
        ->Threads(1)
        ->Threads(2)
        ->UseRealTime();
    benchmark::RegisterBenchmark("BM_GetResourceThreads", BM_GetResourceThreads)
        ->Threads(1)
        ->Threads(2)
        ->UseRealTime();
    return true;
}();

FERRIT_BENCHMARK_MAIN();
