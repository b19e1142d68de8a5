// The content cache against the floors of what it is built on, in the same run:
// - Cache::read of a 16 KiB small entry (lookup, the body document out of the database, decoded,
//   CRC-checked) against a raw SQLite prepared get of the same stored bytes on the same file;
// - HotList::touch of a known URL on lists of 1,000 and 100,000 nodes against one unordered_map
//   find among as many URL keys;
// - splitCombo of an aggregate URL of 25 files against one pass of URL normalisation (the key
//   form) over the same text.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "FloorReporter.h"
#include "access/ComboRule.h"
#include "base/Digest.h"
#include "base/Folder.h"
#include "base/Url.h"
#include "marl/Log.h"
#include "storage/Cache.h"
#include "storage/HotList.h"
#include "storage/KeyValueStore.h"

using namespace FerritCore;

namespace {

constexpr int kEntries = 256;
constexpr size_t kBodyBytes = 16 * 1024;
constexpr int kComboFiles = 25;
// Enough distinct probes that neither side runs from one warm cache line.
constexpr size_t kProbes = 8192;
constexpr uint32_t kSeed = 20261123;

std::string& benchRoot() {
    static std::string* root = [] {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "ferrit-cache-bench-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) std::abort();
        auto* made = new std::string(pattern + "/");
        std::atexit([] { std::filesystem::remove_all(benchRoot()); });
        return made;
    }();
    return *root;
}

std::string urlOf(int i) {
    return "static.example.com/lib/" + std::to_string(i) + "/module.js";
}

// The cache filled once with small entries, and a raw connection on its database file.
struct CacheWorld {
    std::vector<std::string> urls;
    std::vector<std::string> keys;  // "res/" + url
    sqlite3* raw = nullptr;
    sqlite3_stmt* rawGet = nullptr;
};

CacheWorld& cacheWorld() {
    static CacheWorld* world = [] {
        auto* w = new CacheWorld();
        MarlLogger::Log::setLevel(1);
        setRootPath(benchRoot());
        Cache& cache = Cache::instance();
        std::mt19937 random(kSeed);
        for (int i = 0; i < kEntries; ++i) {
            CachedResource resource;
            std::string body(kBodyBytes, ' ');
            for (char& c : body) c = static_cast<char>('a' + random() % 26);
            // A real CRC, so that every read checks it as a read in the field does.
            resource.crc = Digest::crc32(body);
            resource.md5 = Digest::md5Hex(body);
            resource.body = std::move(body);
            resource.date = 1;
            resource.expires = 1e15;
            Error error;
            w->urls.push_back(urlOf(i));
            if (!cache.write(w->urls.back(), "Bench", resource, error)) std::abort();
            w->keys.push_back(Cache::kResourcePrefix + w->urls.back());
        }
        cache.compact();
        const KeyValueStore::Options options = KeyValueStore::Options::forCache();
        const std::string file = cache.path() + "/" + KeyValueStore::kFileName;
        if (sqlite3_open_v2(file.c_str(), &w->raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX,
                            nullptr) != SQLITE_OK) {
            std::abort();
        }
        // The store's own connection settings, so that only what lies above them differs.
        const std::string pragmas = "PRAGMA synchronous=NORMAL;PRAGMA cache_size=-" +
                                    std::to_string(options.cacheBytes / 1024) +
                                    ";PRAGMA mmap_size=" + std::to_string(options.mmapBytes) + ";";
        sqlite3_exec(w->raw, pragmas.c_str(), nullptr, nullptr, nullptr);
        sqlite3_prepare_v3(w->raw, "SELECT v FROM kv WHERE k = ?1", -1, SQLITE_PREPARE_PERSISTENT,
                           &w->rawGet, nullptr);
        return w;
    }();
    return *world;
}

// Floor: a prepared SELECT of the stored body document and a copy of its bytes out.
void BM_RawSqliteGet(benchmark::State& state) {
    CacheWorld& w = cacheWorld();
    std::string out;
    size_t i = 0;
    for (auto _ : state) {
        const std::string& key = w.keys[i++ % w.keys.size()];
        sqlite3_bind_blob(w.rawGet, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
        if (sqlite3_step(w.rawGet) != SQLITE_ROW) state.SkipWithError("raw get found nothing");
        out.assign(static_cast<const char*>(sqlite3_column_blob(w.rawGet, 0)),
                   static_cast<size_t>(sqlite3_column_bytes(w.rawGet, 0)));
        sqlite3_reset(w.rawGet);
        benchmark::DoNotOptimize(out.data());
    }
}

// A read as ModuleCache makes it, owner already known: the body, checked, as a CachedResource.
void BM_CacheRead(benchmark::State& state) {
    CacheWorld& w = cacheWorld();
    size_t i = 0;
    for (auto _ : state) {
        Error error;
        std::unique_ptr<CachedResource> got =
            Cache::instance().read(w.urls[i++ % w.urls.size()], "Bench", error);
        if (!got) state.SkipWithError(error.message().c_str());
        benchmark::DoNotOptimize(got.get());
    }
    state.SetLabel("vs:BM_RawSqliteGet");
}

// Keys of a list or map of `count` URLs, and the order in which they are probed.
struct Keys {
    std::vector<std::string> urls;
    std::vector<uint32_t> probes;
};

const Keys& keysOf(int64_t count) {
    static std::unordered_map<int64_t, Keys>* made = new std::unordered_map<int64_t, Keys>();
    auto found = made->find(count);
    if (found != made->end()) return found->second;
    Keys& keys = (*made)[count];
    for (int64_t i = 0; i < count; ++i)
        keys.urls.push_back("static.example.com/m/" + std::to_string(i * 7919) + "/index.js");
    std::mt19937 random(kSeed);
    for (size_t i = 0; i < kProbes; ++i)
        keys.probes.push_back(static_cast<uint32_t>(random() % static_cast<uint32_t>(count)));
    return keys;
}

// Floor: one find of a known key in an unordered_map of as many URL keys.
void BM_UnorderedMapFind(benchmark::State& state) {
    const Keys& keys = keysOf(state.range(0));
    std::unordered_map<std::string, int> map;
    for (size_t i = 0; i < keys.urls.size(); ++i) map.emplace(keys.urls[i], static_cast<int>(i));
    size_t i = 0;
    for (auto _ : state) {
        auto found = map.find(keys.urls[keys.probes[i++ % kProbes]]);
        benchmark::DoNotOptimize(found);
    }
}

// A hit on a known node: found, counted, and nothing to evict.
void BM_HotListTouch(benchmark::State& state) {
    const Keys& keys = keysOf(state.range(0));
    HotList list(INT64_MAX, 100, nullptr);
    for (const std::string& url : keys.urls) list.touch(url, 1, false);
    size_t i = 0;
    for (auto _ : state) {
        const bool added = list.touch(keys.urls[keys.probes[i++ % kProbes]], 1, true);
        benchmark::DoNotOptimize(added);
    }
    state.SetLabel("vs:BM_UnorderedMapFind");
}

std::string comboUrl() {
    std::string url = "https://static.example.com/mods/??";
    for (int i = 0; i < kComboFiles; ++i) {
        if (i > 0) url.push_back(',');
        url.append("lib/widget-" + std::to_string(i) + "/index.js");
    }
    return url;
}

// Floor: the key form of the same text, made in a buffer that is kept.
void BM_NormaliseUrl(benchmark::State& state) {
    const std::string url = comboUrl();
    std::string key;
    for (auto _ : state) {
        Url::keyInto(url, key);
        benchmark::DoNotOptimize(key.data());
    }
}

void BM_SplitCombo(benchmark::State& state) {
    const std::string url = comboUrl();
    const ComboRule* rule = comboRuleFor("static.example.com/mods/??a.js");
    std::vector<std::string> urls;
    for (auto _ : state) {
        urls.clear();
        if (!splitCombo(url, rule, urls)) state.SkipWithError("not split");
        benchmark::DoNotOptimize(urls.data());
    }
    state.SetLabel("vs:BM_NormaliseUrl");
}

}  // namespace

BENCHMARK(BM_RawSqliteGet);
BENCHMARK(BM_CacheRead);
BENCHMARK(BM_UnorderedMapFind)->Arg(1000)->Arg(100000);
BENCHMARK(BM_HotListTouch)->Arg(1000)->Arg(100000);
BENCHMARK(BM_NormaliseUrl);
BENCHMARK(BM_SplitCombo);

FERRIT_BENCHMARK_MAIN();
