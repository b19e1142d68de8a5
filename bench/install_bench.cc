// The install of a 2,000-entry pack of about 30 MB (web text and images from a fixed seed), against
// two floors measured in the same run: `unzip -q` of the same zip into a fresh folder, and a bare
// loop that reads the zip from memory with minizip, takes each entry's MD5 and writes it to a file.
// Ours is the whole install from the downloaded file on: reading it, its MD5, the signed list, the
// MD5 of every entry, the writes, the move into place and the committed swap.
//
//   BM_InstallFull         an app pack, into a new folder under "apps/"
//   BM_InstallFullPacked   a plain pack, into the packed store
//   BM_InstallIncremental  the increment of a plain pack with 5% of its files changed: the
//                          changed files written, the rest copied inside the store
//
// Nothing is deleted during the run: every iteration installs a new version into a new folder (or
// key range), the floors unpack into new folders, and the replaced versions are never deleted
// (their deletion waits on a clock that the benchmark holds still), because deleting a large tree
// just before a timed write slows that write on this kind of machine. The whole root goes at exit.
#include <benchmark/benchmark.h>
#include <minizip/unzip.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <unordered_set>

#include "FloorReporter.h"
#include "base/Digest.h"
#include "base/Environment.h"
#include "base/FileUtil.h"
#include "base/Folder.h"
#include "base/PackedFiles.h"
#include "base/Proxy.h"
#include "base/Telemetry.h"
#include "lifecycle/Services.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "model/PacksConfigStorage.h"
#include "model/SCache.h"
#include "runtime/Settings.h"
#include "runtime/TaskRunner.h"
#include "storage/PacksStore.h"
#include "storage/ZipFile.h"
#include "tests/SyntheticSite.h"
#include "tools/pack/PackBuilder.h"
#include "update/UpdateQueue.h"

using namespace FerritCore;
namespace fs = std::filesystem;

namespace {

constexpr int kEntries = 2000;
constexpr size_t kSiteBytes = 30u << 20;
constexpr uint64_t kSeed = 7;
constexpr double kChangedFraction = 0.05;
constexpr int kIterations = 5;
constexpr uint64_t kBudgetBytes = uint64_t{64} << 30;
constexpr const char* kSite = "https://bench.example.com/app/";
constexpr const char* kZipPrefix = "https://dl.bench/";
constexpr const char* kAppZipPrefix = "https://app.bench/";

// Accepts every signature the test key made, drops records, and "downloads" a pack by linking
// the file the server would send to where the install expects it: the download is not timed.
class BenchProxy : public Proxy {
  public:
    bool verifySignature(const std::string& md5Hex, const std::string& signature) override {
        return signature == "bench:" + md5Hex;
    }
    void sendEvent(const PerfRecord&) override {}
    void sendRequest(const ProxyRequest& request, ProxyCompletion completion) override {
        const std::string& source = request.url.find("/i/") != std::string::npos ? increment : full;
        ProxyResponse response;
        response.statusCode = 200;
        if (FileUtil::link(source, request.tempFilePath) != 0) {
            std::error_code ignored;
            fs::copy_file(source, request.tempFilePath, ignored);
        }
        completion(std::move(response), Error());
    }
    std::string full;
    std::string increment;
};

struct World {
    fs::path root;
    std::string zipPath;
    std::string zipMd5;
    std::string incrementMd5;
    uint64_t zipBytes = 0;
    uint64_t siteBytes = 0;
    std::shared_ptr<BenchProxy> proxy;
    uint64_t nextSeq = 1;
    int floorRuns = 0;
    MarlLogger::ManualClock clock;
};

std::string readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// Every iteration keeps the version it replaced (nothing is deleted while timing), so the packs'
// budgets would be spent after a few versions: the budget is not what is measured.
void liftBudgets() {
    Settings::change([](Settings& settings) {
        settings.ferritSizeLimit = kBudgetBytes;
        settings.acacheSizeLimit = kBudgetBytes;
    });
}

// Set once the world exists, so that the exit removes only what was made.
World* made = nullptr;

World& world() {
    static World* const instance = [] {
        auto* w = new World();
        MarlLogger::Log::setLevel(1);
        // Background work runs when the benchmark drives it; replaced versions wait for a clock
        // that does not move.
        TaskRunner::setSharedMode(TaskRunner::Mode::Manual);
        MarlLogger::setTimeSource(&w->clock);
        w->root = fs::temp_directory_path() / ("ferrit-install-bench-" + std::to_string(getpid()));
        fs::remove_all(w->root);
        fs::create_directories(w->root / "fixtures");
        // unzip makes only the last folder of its target.
        fs::create_directories(w->root / "floor-unzip");

        FerritTools::PackOptions options;
        options.urlPrefix = kSite;
        options.signer = [](const std::string& md5, std::string& signature, std::string&) {
            signature = "bench:" + md5;
            return true;
        };
        options.level = 6;
        FerritTools::PackContent one, two;
        one.files = FerritTest::SyntheticSite::make(kEntries, kSiteBytes, kSeed);
        two.files = FerritTest::SyntheticSite::nextVersion(one.files, kChangedFraction, kSeed + 1);
        for (const auto& [path, content] : one.files) w->siteBytes += content.size();
        std::string zip, increment, error;
        if (!FerritTools::buildPack(one, options, zip, error) ||
            !FerritTools::buildIncrement(one, two, options, increment, error)) {
            std::fprintf(stderr, "install_bench: %s\n", error.c_str());
            std::exit(1);
        }
        w->zipPath = (w->root / "fixtures/pack.zip").string();
        std::ofstream(w->zipPath, std::ios::binary) << zip;
        std::ofstream(w->root / "fixtures/increment.zip", std::ios::binary) << increment;
        w->zipMd5 = Digest::md5Hex(zip);
        w->incrementMd5 = Digest::md5Hex(increment);
        w->zipBytes = zip.size();

        w->proxy = std::make_shared<BenchProxy>();
        w->proxy->full = w->zipPath;
        w->proxy->increment = (w->root / "fixtures/increment.zip").string();
        Environment::instance().setProxy(w->proxy);
        Environment::instance().setNetworkStatusValue(NetworkStatus::kUnrestricted);
        Services::wire();
        initFolders((w->root / "app").string());
        HostDefaults defaults;
        defaults.zipPrefix = kZipPrefix;
        defaults.acacheZipPrefix = kAppZipPrefix;
        Settings::setDefaults(defaults);
        liftBudgets();
        std::printf("pack: %d entries, %.1f MB of files, %.1f MB zipped; %.1f MB increment\n",
                    kEntries, w->siteBytes / 1048576.0, zip.size() / 1048576.0,
                    increment.size() / 1048576.0);
        made = w;
        return w;
    }();
    return *instance;
}

// Runs every task that is due, and what those post.
void drive() {
    while (TaskRunner::runDue() > 0) {
    }
}

// Configures version `seq` of `name` with base `baseSeq`, keeping what is installed.
void configure(const std::string& name, uint32_t type, uint64_t seq, uint64_t baseSeq) {
    const World& w = world();
    SCache::mutate([&](FConfig& config) {
        PackPtr old = config.find(name);
        auto pack = old ? old->clone() : std::make_shared<Pack>();
        pack->name = name;
        pack->flags = type | kPriorityAutoInstall;
        pack->seq = seq;
        pack->baseSeq = baseSeq;
        pack->md5 = w.zipMd5;
        pack->incrMd5 = w.incrementMd5;
        pack->prefixes = {kSite};
        pack->updateTime = MRLCurrentTime();
        config.version = std::to_string(seq);
        config.put(std::move(pack));
    });
    drive();
}

bool install(const std::string& name, benchmark::State& state) {
    Error result(-1, "never completed");
    UpdateQueue::request(name, kTriggerTimer, [&](const Error& error) { result = error; });
    drive();
    if (result) state.SkipWithError(result.message().c_str());
    return !result;
}

void report(benchmark::State& state, const char* floors) {
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * world().siteBytes));
    state.SetLabel(floors);
}

// ---- Floors -----------------------------------------------------------------------------------

void BM_UnzipFloor(benchmark::State& state) {
    World& w = world();
    for (auto _ : state) {
        state.PauseTiming();
        const fs::path target = w.root / "floor-unzip" / std::to_string(w.floorRuns++);
        const std::string command = "unzip -q -o '" + w.zipPath + "' -d '" + target.string() + "'";
        state.ResumeTiming();
        if (std::system(command.c_str()) != 0) {
            state.SkipWithError("unzip failed");
            break;
        }
    }
    report(state, "");
}

// minizip from memory, the MD5 of each entry, and one write of each file.
void BM_MinizipLoopFloor(benchmark::State& state) {
    World& w = world();
    for (auto _ : state) {
        state.PauseTiming();
        const std::string target =
            (w.root / "floor-loop" / std::to_string(w.floorRuns++)).string() + "/";
        state.ResumeTiming();
        const std::string bytes = readAll(w.zipPath);
        zlib_filefunc64_def table;
        ZipMemoryIo::fill(table);
        const std::string name = ZipMemoryIo::nameOf(bytes.data(), bytes.size());
        unzFile zip = unzOpen2_64(name.c_str(), &table);
        std::unordered_set<std::string> made;
        std::string content, entry(1024, '\0');
        for (int status = unzGoToFirstFile(zip); status == UNZ_OK; status = unzGoToNextFile(zip)) {
            unz_file_info64 info;
            unzGetCurrentFileInfo64(zip, &info, entry.data(), entry.size(), nullptr, 0, nullptr, 0);
            const std::string path = target + entry.c_str();
            unzOpenCurrentFile(zip);
            content.resize(info.uncompressed_size);
            unzReadCurrentFile(zip, content.data(), static_cast<unsigned>(content.size()));
            unzCloseCurrentFile(zip);
            benchmark::DoNotOptimize(Digest::md5Hex(content));
            const std::string parent = path.substr(0, path.rfind('/') + 1);
            if (made.insert(parent).second) fs::create_directories(parent);
            FILE* file = std::fopen(path.c_str(), "wb");
            std::fwrite(content.data(), 1, content.size(), file);
            std::fclose(file);
        }
        unzClose(zip);
    }
    report(state, "");
}

// ---- Ours -------------------------------------------------------------------------------------

void BM_InstallFull(benchmark::State& state) {
    World& w = world();
    for (auto _ : state) {
        state.PauseTiming();
        configure("app", kPackTypeACache, w.nextSeq++, 1);
        state.ResumeTiming();
        if (!install("app", state)) break;
    }
    report(state, "vs:BM_UnzipFloor,BM_MinizipLoopFloor");
}

void BM_InstallFullPacked(benchmark::State& state) {
    World& w = world();
    for (auto _ : state) {
        state.PauseTiming();
        // A new base each time: nothing to update incrementally.
        const uint64_t seq = w.nextSeq++;
        configure("plain", kPackTypeFerrit, seq, seq);
        state.ResumeTiming();
        if (!install("plain", state)) break;
    }
    report(state, "vs:BM_UnzipFloor,BM_MinizipLoopFloor,BM_InstallFull");
}

// Version `base` installed in full; every iteration then applies the increment to the version
// the last one installed.
void installIncrements(benchmark::State& state, const std::string& name, uint32_t type,
                       const char* floors) {
    World& w = world();
    const uint64_t base = w.nextSeq++;
    configure(name, type, base, base);
    if (!install(name, state)) return;
    for (auto _ : state) {
        state.PauseTiming();
        configure(name, type, w.nextSeq++, base);
        state.ResumeTiming();
        if (!install(name, state)) break;
    }
    report(state, floors);
}

// Only plain packs update incrementally, into the packed store: the unchanged files are copied
// inside it.
void BM_InstallIncremental(benchmark::State& state) {
    installIncrements(state, "incr", kPackTypeFerrit,
                      "vs:BM_InstallFullPacked,BM_InstallFull,BM_UnzipFloor");
}

}  // namespace

static const bool registered = [] {
    for (auto* bench :
         {benchmark::RegisterBenchmark("BM_UnzipFloor", BM_UnzipFloor),
          benchmark::RegisterBenchmark("BM_MinizipLoopFloor", BM_MinizipLoopFloor),
          benchmark::RegisterBenchmark("BM_InstallFull", BM_InstallFull),
          benchmark::RegisterBenchmark("BM_InstallFullPacked", BM_InstallFullPacked),
          benchmark::RegisterBenchmark("BM_InstallIncremental", BM_InstallIncremental)}) {
        bench->Iterations(kIterations)->Unit(benchmark::kMillisecond)->UseRealTime();
    }
    std::atexit([] {
        std::error_code ignored;
        if (made != nullptr) fs::remove_all(made->root, ignored);
    });
    return true;
}();

FERRIT_BENCHMARK_MAIN();
