// MetaStore get and put of 2 KiB values against the floor of raw SQLite prepared statements on
// the same table of the same database file, in the same run. Argument 0 is the tuning of the
// shared configuration store (4 KiB pages, no memory map), 1 that of the packs store and the
// cache (16 KiB pages, memory map).
//
// BM_PackedFileGet: the read of a packed file (16 KiB) from the packs store, argument 0 a row that
// holds its bytes (a store of the earlier format), 1 a row that names bytes shared between
// versions, read through the join.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "FloorReporter.h"
#include "base/Digest.h"
#include "base/Folder.h"
#include "marl/Json.h"
#include "marl/Log.h"
#include "storage/KeyValueStore.h"
#include "storage/MetaStore.h"

using namespace FerritCore;
using MarlLogger::json::JSON;
using MarlLogger::json::JSONObject;

namespace {

constexpr int kKeys = 1000;
constexpr size_t kValueBytes = 2048;

KeyValueStore::Options tuning(int64_t which) {
    return which == 0 ? KeyValueStore::Options::forConfig() : KeyValueStore::Options::forPacks();
}

// One store per tuning, filled once: a MetaStore and, on the same database file, a raw
// connection set up as the store sets up its own.
struct Setup {
    std::unique_ptr<MetaStore> store;
    sqlite3* raw = nullptr;
    sqlite3_stmt* rawGet = nullptr;
    sqlite3_stmt* rawPut = nullptr;
    std::vector<std::string> keys;
    JSON value;
    std::string encoded;
};

std::string& benchRoot() {
    static std::string* root = [] {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "ferrit-store-bench-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) std::abort();
        auto* made = new std::string(pattern + "/");
        std::atexit([] { std::filesystem::remove_all(benchRoot()); });
        return made;
    }();
    return *root;
}

Setup& setup(int64_t which) {
    static Setup* setups[2] = {nullptr, nullptr};
    if (setups[which] != nullptr) return *setups[which];
    auto* s = new Setup();
    MarlLogger::Log::setLevel(1);
    setRootPath(benchRoot());
    const KeyValueStore::Options options = tuning(which);
    s->store = std::make_unique<MetaStore>(which == 0 ? "bench_config/" : "bench_packs/",
                                           "Ferrit/Bench", options);
    if (s->store->open() != 0) std::abort();
    // About 2 KiB once encoded: one string member and a number, as a small cached body with its
    // metadata would be.
    s->value = JSON(
        JSONObject{{"c", JSON(1700000000000.0)}, {"b", JSON(std::string(kValueBytes - 20, 'x'))}});
    s->encoded = s->value.toBinary();
    for (int i = 0; i < kKeys; ++i) {
        s->keys.push_back("res/https://cdn.example.com/app/" + std::to_string(i) + ".js");
        if (s->store->put(s->keys.back(), s->value)) std::abort();
    }
    s->store->compact();

    const std::string file = s->store->path() + "/" + KeyValueStore::kFileName;
    if (sqlite3_open_v2(file.c_str(), &s->raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX,
                        nullptr) != SQLITE_OK) {
        std::abort();
    }
    // The same connection settings as the store's own, so that only the wrapper differs.
    const std::string pragmas =
        "PRAGMA synchronous=NORMAL;PRAGMA cache_size=-" +
        std::to_string(options.cacheBytes / 1024) +
        ";PRAGMA mmap_size=" + std::to_string(options.mmapBytes) +
        ";PRAGMA wal_autocheckpoint=" + std::to_string(4 * 1024 * 1024 / options.pageSize) +
        ";PRAGMA journal_size_limit=" + std::to_string(4 * 1024 * 1024) + ";";
    sqlite3_exec(s->raw, pragmas.c_str(), nullptr, nullptr, nullptr);
    sqlite3_prepare_v3(s->raw, "SELECT v FROM kv WHERE k = ?1", -1, SQLITE_PREPARE_PERSISTENT,
                       &s->rawGet, nullptr);
    sqlite3_prepare_v3(s->raw, "INSERT OR REPLACE INTO kv(k, v) VALUES(?1, ?2)", -1,
                       SQLITE_PREPARE_PERSISTENT, &s->rawPut, nullptr);
    setups[which] = s;
    return *s;
}

// Floor: a prepared SELECT by key and a copy of the blob out, nothing else.
void BM_RawGet(benchmark::State& state) {
    Setup& s = setup(state.range(0));
    std::string out;
    size_t i = 0;
    for (auto _ : state) {
        const std::string& key = s.keys[i++ % s.keys.size()];
        sqlite3_bind_blob(s.rawGet, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
        if (sqlite3_step(s.rawGet) != SQLITE_ROW) state.SkipWithError("raw get found nothing");
        const void* blob = sqlite3_column_blob(s.rawGet, 0);
        out.assign(static_cast<const char*>(blob),
                   static_cast<size_t>(sqlite3_column_bytes(s.rawGet, 0)));
        sqlite3_reset(s.rawGet);
        benchmark::DoNotOptimize(out.data());
    }
}

// Floor: a prepared INSERT OR REPLACE of bytes already encoded, in its own transaction.
void BM_RawPut(benchmark::State& state) {
    Setup& s = setup(state.range(0));
    size_t i = 0;
    for (auto _ : state) {
        const std::string& key = s.keys[i++ % s.keys.size()];
        sqlite3_bind_blob(s.rawPut, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
        sqlite3_bind_blob(s.rawPut, 2, s.encoded.data(), static_cast<int>(s.encoded.size()),
                          SQLITE_STATIC);
        if (sqlite3_step(s.rawPut) != SQLITE_DONE) state.SkipWithError("raw put failed");
        sqlite3_reset(s.rawPut);
    }
}

// A get as every caller makes it: the stored bytes decoded into a JSON value.
void BM_MetaStoreGet(benchmark::State& state) {
    Setup& s = setup(state.range(0));
    size_t i = 0;
    for (auto _ : state) {
        ErrorOr<JSON> value = s.store->get(s.keys[i++ % s.keys.size()]);
        if (!value.ok()) state.SkipWithError(value.error().message().c_str());
        benchmark::DoNotOptimize(value);
    }
    state.SetLabel("vs:BM_RawGet");
}

// A put as every caller makes it: a JSON value encoded, then stored.
void BM_MetaStorePut(benchmark::State& state) {
    Setup& s = setup(state.range(0));
    size_t i = 0;
    for (auto _ : state) {
        const Error error = s.store->put(s.keys[i++ % s.keys.size()], s.value);
        if (error) state.SkipWithError(error.message().c_str());
    }
    state.SetLabel("vs:BM_RawPut");
}

// Packs stores of both formats, each with the same files.
constexpr size_t kFileBytes = 16384;

KeyValueStore& packedFiles(int64_t shared) {
    static KeyValueStore* stores[2] = {nullptr, nullptr};
    if (stores[shared] != nullptr) return *stores[shared];
    KeyValueStore::Options options = KeyValueStore::Options::forPacks();
    if (shared == 0) {
        options.formatVersion = 2;
        options.sharedContent = false;
        options.migratesFrom = 0;
    }
    std::unique_ptr<KeyValueStore> store;
    const std::string path = benchRoot() + (shared != 0 ? "files_shared" : "files_plain");
    if (KeyValueStore::open(path, options, &store) != 0) std::abort();
    std::vector<std::string> values;
    std::vector<std::string> md5s;
    std::vector<std::string> keys;
    for (int i = 0; i < kKeys; ++i) {
        keys.push_back("shop/1/res/js/" + std::to_string(i) + ".js");
        values.emplace_back(kFileBytes, static_cast<char>('a' + i % 26));
        values.back().replace(0, std::to_string(i).size(), std::to_string(i));
        md5s.push_back(Digest::md5Hex(values.back()));
    }
    std::vector<KeyValueStore::CheckedValue> entries;
    entries.reserve(kKeys);
    for (int i = 0; i < kKeys; ++i) entries.push_back({keys[i], values[i], md5s[i]});
    if (store->insertAllChecked(entries) != 0 || store->compact() != 0) std::abort();
    stores[shared] = store.release();
    return *stores[shared];
}

void BM_PackedFileGet(benchmark::State& state) {
    KeyValueStore& store = packedFiles(state.range(0));
    std::vector<std::string> keys;
    keys.reserve(kKeys);
    for (int i = 0; i < kKeys; ++i) keys.push_back("shop/1/res/js/" + std::to_string(i) + ".js");
    std::string out;
    size_t i = 0;
    for (auto _ : state) {
        bool found = false;
        if (store.get(keys[i++ % keys.size()], out, found) != 0 || out.size() != kFileBytes)
            state.SkipWithError("packed get failed");
        benchmark::DoNotOptimize(out.data());
    }
}

}  // namespace

BENCHMARK(BM_PackedFileGet)->Arg(0)->Arg(1);
BENCHMARK(BM_RawGet)->Arg(0)->Arg(1);
BENCHMARK(BM_MetaStoreGet)->Arg(0)->Arg(1);
BENCHMARK(BM_RawPut)->Arg(0)->Arg(1);
BENCHMARK(BM_MetaStorePut)->Arg(0)->Arg(1);

FERRIT_BENCHMARK_MAIN();
