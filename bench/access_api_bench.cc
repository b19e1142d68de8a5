// A pack hit of 16 KiB through the C function table (the request and response records, the
// zero-copy body, freeResponse) against Access::getResource of the same request in C++, measured in
// the same run; the ratio is what the C interface adds on the request path. Both finish their
// response the same way (setFinished with success, then delete). The request record is made once
// and reused, as an engine that keeps its records would.
#include <benchmark/benchmark.h>

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
#include "ferritcore/AccessApi.h"
#include "marl/Clock.h"
#include "marl/Json.h"
#include "marl/Log.h"
#include "model/SCache.h"
#include "runtime/TaskRunner.h"

using namespace FerritCore;
using MarlLogger::json::JSON;

namespace {

constexpr int kFiles = 64;
constexpr size_t kFileSize = 16 * 1024;
constexpr const char* kPrefix = "https://bench.example.com/app/";

// Accepts every signature and drops every record, as a host that delivers no telemetry does.
class BenchProxy : public Proxy {
  public:
    bool verifySignature(const std::string&, const std::string&) override { return true; }
    void sendEvent(const PerfRecord&) override {}
};

struct World {
    std::vector<ResourceRequest> requests;
    std::vector<FerritRequest*> records;  // the same requests as C records
};

World& world() {
    static std::unique_ptr<World> instance = [] {
        auto w = std::make_unique<World>();
        TaskRunner::setSharedMode(TaskRunner::Mode::Manual);
        const std::filesystem::path root =
            std::filesystem::temp_directory_path() / "ferrit-access-api-bench";
        std::filesystem::remove_all(root);
        Environment::instance().setProxy(std::make_shared<BenchProxy>());
        initFolders(root.string());
        const std::filesystem::path pack = root / "apps/app/1";
        std::filesystem::create_directories(pack / "res");
        std::mt19937 random(11);
        JSON table;
        const FerritAccessApi& api = *ferritcore_access_api();
        for (int i = 0; i < kFiles; ++i) {
            std::string content(kFileSize, ' ');
            for (char& c : content) c = static_cast<char>('a' + random() % 26);
            const std::string name = "f" + std::to_string(i) + ".js";
            std::ofstream(pack / "res" / name, std::ios::binary) << content;
            JSON entry;
            entry.set("url", kPrefix + name);
            entry.set("v", Digest::md5Hex(content));
            table.set("res/" + name, entry);
            const std::string url = kPrefix + name + "?v=1";
            w->requests.emplace_back(
                url, HeaderMap{{"Accept", "*/*"}, {"Referer", "https://bench.example.com/"}});
            FerritRequest* record = api.createRequest(url.c_str());
            api.addRequestHeader(record, "Accept", "*/*");
            api.addRequestHeader(record, "Referer", "https://bench.example.com/");
            w->records.push_back(record);
        }
        std::ofstream(pack / "app-res.hvc", std::ios::binary) << table.toString() << "||bench|c2ln";
        SCache::mutate([](FConfig& config) {
            auto p = std::make_shared<Pack>();
            p->name = "app";
            p->flags = kPackTypeFerrit;
            p->seq = p->installedSeq = 1;
            p->prefixes = {kPrefix};
            p->updateTime = MRLCurrentTime();
            config.lastUpdate = MRLCurrentTime();
            config.put(p);
        });
        TaskRunner::clear();
        auto first = Access::getResource(w->requests[0]);
        if (first->error)
            std::fprintf(stderr, "access_api_bench: %s\n", first->error.message().c_str());
        return w;
    }();
    return *instance;
}

void BM_AccessGetResource(benchmark::State& state) {
    MarlLogger::Log::setLevel(2);
    const std::vector<ResourceRequest>& requests = world().requests;
    size_t i = 0;
    for (auto _ : state) {
        std::unique_ptr<ResourceResponse> response =
            Access::getResource(requests[i++ % requests.size()]);
        if (response->error) state.SkipWithError(response->error.message().c_str());
        benchmark::DoNotOptimize(response->data.data());
        response->setFinished(Error());
    }
    TaskRunner::clear();
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFileSize));
}

void BM_CTableGetResource(benchmark::State& state) {
    MarlLogger::Log::setLevel(2);
    const std::vector<FerritRequest*>& records = world().records;
    const FerritAccessApi& api = *ferritcore_access_api();
    size_t i = 0;
    for (auto _ : state) {
        FerritResponse* response = api.getResource(records[i++ % records.size()]);
        const void* data = nullptr;
        size_t size = 0;
        if (api.getResponseData(response, &data, &size) != 1) state.SkipWithError("no data");
        benchmark::DoNotOptimize(data);
        api.freeResponse(response);
    }
    TaskRunner::clear();
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFileSize));
    state.SetLabel("vs:BM_AccessGetResource");
}

BENCHMARK(BM_AccessGetResource);
BENCHMARK(BM_CTableGetResource);

}  // namespace

FERRIT_BENCHMARK_MAIN();
