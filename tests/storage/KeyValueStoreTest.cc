#include "storage/KeyValueStore.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/storage/StoreFixture.h"

namespace FerritCore {
namespace {

using FerritTest::rawQuery;

class KeyValueStoreTest : public FerritTest::StoreFixture {
  protected:
    std::string folder(const std::string& name = "kv") const {
        return (temp_.path() / name).string();
    }

    std::unique_ptr<KeyValueStore> openStore(
        const KeyValueStore::Options& options = KeyValueStore::Options::forConfig(),
        const std::string& name = "kv") {
        std::unique_ptr<KeyValueStore> store;
        EXPECT_EQ(KeyValueStore::open(folder(name), options, &store), 0);
        return store;
    }

    static std::vector<std::string> keysOf(KeyValueStore& store, KeyValueStore::Key from,
                                           KeyValueStore::Key to) {
        std::vector<std::string> keys;
        EXPECT_EQ(store.enumerateKeys(from, to,
                                      [&](std::string_view key) {
                                          keys.emplace_back(key);
                                          return false;
                                      }),
                  0);
        return keys;
    }

    static std::string valueOf(KeyValueStore& store, std::string_view key) {
        std::string value;
        bool found = false;
        EXPECT_EQ(store.get(key, value, found), 0);
        return found ? value : "<missing>";
    }
};

// Two connections on one database stand for two processes on one root: each sees the other's
// commits in its data version, and never its own.
TEST_F(KeyValueStoreTest, DataVersionMovesOnlyWithAnotherConnectionsCommit) {
    auto mine = openStore(KeyValueStore::Options::forPacks());
    auto other = openStore(KeyValueStore::Options::forPacks());
    ASSERT_TRUE(mine && other);
    uint64_t start = 0, now = 0;
    ASSERT_EQ(mine->dataVersion(start), 0);
    EXPECT_NE(start, 0u);

    ASSERT_EQ(mine->insert("config", "one"), 0);
    ASSERT_EQ(mine->dataVersion(now), 0);
    EXPECT_EQ(now, start) << "its own commit";
    ASSERT_EQ(mine->dataVersion(now), 0);
    EXPECT_EQ(now, start) << "nothing committed in between";

    ASSERT_EQ(other->insert("config", "two"), 0);
    ASSERT_EQ(mine->dataVersion(now), 0);
    EXPECT_NE(now, start) << "the other connection's commit";
    EXPECT_EQ(valueOf(*mine, "config"), "two");

    // The other side sees this one's commits the same way.
    uint64_t otherStart = 0, otherNow = 0;
    ASSERT_EQ(other->dataVersion(otherStart), 0);
    ASSERT_EQ(mine->eraseRange(KeyValueStore::Key::minKey(), KeyValueStore::Key::maxKey()), 0);
    ASSERT_EQ(other->dataVersion(otherNow), 0);
    EXPECT_NE(otherNow, otherStart);
}

TEST_F(KeyValueStoreTest, OpenCreatesFolderAndDatabaseWhenMissing) {
    auto store = openStore(KeyValueStore::Options::forConfig(), "a/b/kv");
    ASSERT_TRUE(store);
    EXPECT_TRUE(
        std::filesystem::is_regular_file(folder("a/b/kv") + "/" + KeyValueStore::kFileName));
    EXPECT_EQ(store->path(), folder("a/b/kv"));
}

TEST_F(KeyValueStoreTest, OpenOfEmptyPathFails) {
    std::unique_ptr<KeyValueStore> store;
    EXPECT_NE(KeyValueStore::open("", KeyValueStore::Options::forConfig(), &store), 0);
    EXPECT_FALSE(store);
}

TEST_F(KeyValueStoreTest, GetReturnsInsertedBytesExactly) {
    auto store = openStore();
    const std::string key("k\0\xFF\x80", 4);
    const std::string value("v\0\x01\xFE\xFF", 5);
    ASSERT_EQ(store->insert(key, value), 0);
    EXPECT_EQ(valueOf(*store, key), value);
}

TEST_F(KeyValueStoreTest, GetOfMissingKeySucceedsWithNothingFound) {
    auto store = openStore();
    std::string value = "stale";
    bool found = true;
    EXPECT_EQ(store->get("nope", value, found), 0);
    EXPECT_FALSE(found);
    EXPECT_TRUE(value.empty());
}

TEST_F(KeyValueStoreTest, VisitHandsOverTheStoredBytesOrNothing) {
    auto store = openStore();
    const std::string value("v\0\x01\xFE\xFF", 5);
    ASSERT_EQ(store->insert("k", value), 0);
    ASSERT_EQ(store->insert("empty", ""), 0);
    std::string seen = "unset";
    int calls = 0;
    bool found = false;
    auto reader = [&](std::string_view bytes) {
        seen.assign(bytes);
        ++calls;
    };
    EXPECT_EQ(store->visit("k", reader, found), 0);
    EXPECT_TRUE(found);
    EXPECT_EQ(seen, value);
    EXPECT_EQ(store->visit("empty", reader, found), 0);
    EXPECT_TRUE(found);
    EXPECT_EQ(seen, "");
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(store->visit("nope", reader, found), 0);
    EXPECT_FALSE(found);
    EXPECT_EQ(calls, 2);
    // The statement is reset after each visit: the store goes on working.
    EXPECT_EQ(valueOf(*store, "k"), value);
}

TEST_F(KeyValueStoreTest, InsertReplacesTheValueOfAnExistingKey) {
    auto store = openStore();
    ASSERT_EQ(store->insert("k", "one"), 0);
    ASSERT_EQ(store->insert("k", "two"), 0);
    EXPECT_EQ(valueOf(*store, "k"), "two");
    EXPECT_EQ(keysOf(*store, KeyValueStore::Key::minKey(), KeyValueStore::Key::maxKey()).size(),
              1u);
}

TEST_F(KeyValueStoreTest, EmptyKeyAndEmptyValueAreStoredAsBytes) {
    auto store = openStore();
    ASSERT_EQ(store->insert("", ""), 0);
    EXPECT_TRUE(store->contains(""));
    EXPECT_EQ(valueOf(*store, ""), "");
    ASSERT_EQ(store->insert("e", std::string_view()), 0);
    EXPECT_EQ(valueOf(*store, "e"), "");
}

TEST_F(KeyValueStoreTest, ContainsAnswersForPresentAndMissingKeys) {
    auto store = openStore();
    ASSERT_EQ(store->insert("a", "1"), 0);
    EXPECT_TRUE(store->contains("a"));
    EXPECT_FALSE(store->contains("b"));
    EXPECT_FALSE(store->contains(std::string_view("a\0", 2)));
}

TEST_F(KeyValueStoreTest, EraseDeletesOneKeyAndMissingKeyIsSuccess) {
    auto store = openStore();
    ASSERT_EQ(store->insert("a", "1"), 0);
    ASSERT_EQ(store->insert("ab", "2"), 0);
    EXPECT_EQ(store->erase("a"), 0);
    EXPECT_FALSE(store->contains("a"));
    EXPECT_TRUE(store->contains("ab"));
    EXPECT_EQ(store->erase("a"), 0);
}

TEST_F(KeyValueStoreTest, LargeValueRoundTrips) {
    auto store = openStore(KeyValueStore::Options::forCache());
    std::string value(3 * 1024 * 1024 + 17, '\0');
    for (size_t i = 0; i < value.size(); ++i) value[i] = static_cast<char>((i * 131) & 0xFF);
    ASSERT_EQ(store->insert("big", value), 0);
    EXPECT_EQ(valueOf(*store, "big"), value);
}

TEST_F(KeyValueStoreTest, KeysCompareAsUnsignedBytes) {
    auto store = openStore();
    for (const char* key : {"\xFF", "\x80", "\x7F", "a", "A", "a\xFF", "a\x01", ""})
        ASSERT_EQ(store->insert(key, "v"), 0);
    const std::vector<std::string> expected = {"",      "A",    "a",    "a\x01",
                                               "a\xFF", "\x7F", "\x80", "\xFF"};
    EXPECT_EQ(keysOf(*store, KeyValueStore::Key::minKey(), KeyValueStore::Key::maxKey()), expected);
}

TEST_F(KeyValueStoreTest, RangeIsHalfOpen) {
    auto store = openStore();
    for (const char* key : {"a", "b", "c", "d"}) ASSERT_EQ(store->insert(key, "v"), 0);
    EXPECT_EQ(keysOf(*store, "b", "d"), (std::vector<std::string>{"b", "c"}));
    ASSERT_EQ(store->eraseRange("b", "d"), 0);
    EXPECT_EQ(keysOf(*store, KeyValueStore::Key::minKey(), KeyValueStore::Key::maxKey()),
              (std::vector<std::string>{"a", "d"}));
}

TEST_F(KeyValueStoreTest, EmptyOrInvertedRangeTouchesNothing) {
    auto store = openStore();
    for (const char* key : {"a", "b", "c"}) ASSERT_EQ(store->insert(key, "v"), 0);
    EXPECT_TRUE(keysOf(*store, "c", "a").empty());
    EXPECT_TRUE(keysOf(*store, "b", "b").empty());
    EXPECT_TRUE(keysOf(*store, KeyValueStore::Key::maxKey(), KeyValueStore::Key::maxKey()).empty());
    EXPECT_EQ(store->eraseRange("c", "a"), 0);
    EXPECT_EQ(store->eraseRange(KeyValueStore::Key::maxKey(), KeyValueStore::Key::maxKey()), 0);
    EXPECT_EQ(keysOf(*store, KeyValueStore::Key::minKey(), KeyValueStore::Key::maxKey()).size(),
              3u);
}

TEST_F(KeyValueStoreTest, EraseFromMinToMaxDeletesEverything) {
    auto store = openStore();
    for (const char* key : {"", "a", "\xFF\xFF\xFF"}) ASSERT_EQ(store->insert(key, "v"), 0);
    ASSERT_EQ(store->eraseRange(KeyValueStore::Key::minKey(), KeyValueStore::Key::maxKey()), 0);
    EXPECT_TRUE(keysOf(*store, KeyValueStore::Key::minKey(), KeyValueStore::Key::maxKey()).empty());
}

TEST_F(KeyValueStoreTest, KeyWithFFDirectlyAfterPrefixLiesOutsidePrefixRange) {
    auto store = openStore();
    for (const char* key : {"p", "p/", "p\xFE", "p\xFF", "p\xFFx", "q"})
        ASSERT_EQ(store->insert(key, "v"), 0);
    const KeyRange range = prefixRange("p");
    EXPECT_EQ(keysOf(*store, range.begin(), range.end()),
              (std::vector<std::string>{"p", "p/", "p\xFE"}));
    ASSERT_EQ(store->eraseRange(range.begin(), range.end()), 0);
    EXPECT_EQ(keysOf(*store, KeyValueStore::Key::minKey(), KeyValueStore::Key::maxKey()),
              (std::vector<std::string>{"p\xFF", "p\xFFx", "q"}));
}

TEST_F(KeyValueStoreTest, PrefixEndingInFFHasItsOwnRange) {
    auto store = openStore();
    for (const char* key : {"a\xFE", "a\xFF", "a\xFF\x01", "a\xFF\xFE", "a\xFF\xFF", "b"}) {
        ASSERT_EQ(store->insert(key, "v"), 0);
    }
    const KeyRange range = prefixRange("a\xFF");
    EXPECT_EQ(range.to, "a\xFF\xFF");
    EXPECT_EQ(keysOf(*store, range.begin(), range.end()),
              (std::vector<std::string>{"a\xFF", "a\xFF\x01", "a\xFF\xFE"}));
}

TEST_F(KeyValueStoreTest, EmptyPrefixRangeRunsFromMinToMax) {
    const KeyRange range = prefixRange("");
    EXPECT_EQ(range.begin(), KeyValueStore::Key::minKey());
    EXPECT_TRUE(range.end().isMax());
}

TEST_F(KeyValueStoreTest, EnumerateStopsWhenVisitReturnsTrue) {
    auto store = openStore();
    for (const char* key : {"a", "b", "c", "d"}) ASSERT_EQ(store->insert(key, "v"), 0);
    std::vector<std::string> seen;
    EXPECT_EQ(store->enumerateKeys(KeyValueStore::Key::minKey(), KeyValueStore::Key::maxKey(),
                                   [&](std::string_view key) {
                                       seen.emplace_back(key);
                                       return key == "b";
                                   }),
              0);
    EXPECT_EQ(seen, (std::vector<std::string>{"a", "b"}));
}

TEST_F(KeyValueStoreTest, EnumerateCrossesBatchesInOrder) {
    auto store = openStore();
    std::vector<std::string> expected;
    for (int i = 0; i < 1000; ++i) {
        char key[16];
        std::snprintf(key, sizeof(key), "k%05d", i);
        expected.emplace_back(key);
        ASSERT_EQ(store->insert(key, "v"), 0);
    }
    EXPECT_EQ(keysOf(*store, KeyValueStore::Key::minKey(), KeyValueStore::Key::maxKey()), expected);
    const KeyRange range = prefixRange("k003");
    EXPECT_EQ(keysOf(*store, range.begin(), range.end()).size(), 100u);
}

TEST_F(KeyValueStoreTest, EnumerateVisitorMayDeleteAndReadTheStore) {
    auto store = openStore();
    for (int i = 0; i < 600; ++i)
        ASSERT_EQ(store->insert("k" + std::to_string(1000 + i), std::to_string(i)), 0);
    int visited = 0;
    EXPECT_EQ(store->enumerateKeys(KeyValueStore::Key::minKey(), KeyValueStore::Key::maxKey(),
                                   [&](std::string_view key) {
                                       ++visited;
                                       EXPECT_NE(valueOf(*store, key), "<missing>");
                                       EXPECT_EQ(store->erase(key), 0);
                                       return false;
                                   }),
              0);
    EXPECT_EQ(visited, 600);
    EXPECT_TRUE(keysOf(*store, KeyValueStore::Key::minKey(), KeyValueStore::Key::maxKey()).empty());
}

TEST_F(KeyValueStoreTest, ClearDeletesEverything) {
    auto store = openStore();
    for (const char* key : {"a", "b"}) ASSERT_EQ(store->insert(key, "v"), 0);
    ASSERT_EQ(store->clear(), 0);
    EXPECT_FALSE(store->contains("a"));
    EXPECT_TRUE(keysOf(*store, KeyValueStore::Key::minKey(), KeyValueStore::Key::maxKey()).empty());
}

TEST_F(KeyValueStoreTest, CompactGivesFreePagesBackAndEmptiesTheLog) {
    auto store = openStore();
    const std::string value(4000, 'x');
    for (int i = 0; i < 500; ++i) ASSERT_EQ(store->insert("k" + std::to_string(i), value), 0);
    ASSERT_EQ(store->compact(), 0);
    const std::string file = folder() + "/" + KeyValueStore::kFileName;
    const auto full = std::filesystem::file_size(file);
    ASSERT_EQ(store->clear(), 0);
    ASSERT_EQ(store->compact(), 0);
    EXPECT_LT(std::filesystem::file_size(file), full / 10);
    EXPECT_EQ(std::filesystem::file_size(file + "-wal"), 0u);
}

TEST_F(KeyValueStoreTest, ValuesSurviveCloseAndReopen) {
    {
        auto store = openStore();
        ASSERT_EQ(store->insert("k", "v"), 0);
    }
    auto store = openStore();
    EXPECT_EQ(valueOf(*store, "k"), "v");
}

// Every start opens the stores: an open that wrote would pay a commit's syncs each time.
TEST_F(KeyValueStoreTest, ReopenOfALaidOutStoreWritesNothing) {
    openStore(KeyValueStore::Options::forPacks(), "packs").reset();
    const std::string file = folder("packs") + "/" + KeyValueStore::kFileName;
    auto store = openStore(KeyValueStore::Options::forPacks(), "packs");
    ASSERT_TRUE(store);
    std::error_code missing;
    const uintmax_t logged = std::filesystem::file_size(file + "-wal", missing);
    EXPECT_TRUE(missing || logged == 0) << logged << " bytes in the log";
    store.reset();
    EXPECT_EQ(rawQuery(file, "PRAGMA auto_vacuum"), "2");
    EXPECT_EQ(rawQuery(file, "PRAGMA page_size"), "16384");
}

// Full vacuum becomes incremental in place, once: the next open finds nothing to change.
TEST_F(KeyValueStoreTest, StoreWithFullVacuumTurnsIncrementalOnce) {
    openStore(KeyValueStore::Options::forPacks(), "packs").reset();
    const std::string file = folder("packs") + "/" + KeyValueStore::kFileName;
    static_cast<void>(rawQuery(file, "PRAGMA auto_vacuum=FULL"));
    ASSERT_EQ(rawQuery(file, "PRAGMA auto_vacuum"), "1");
    openStore(KeyValueStore::Options::forPacks(), "packs").reset();
    EXPECT_EQ(rawQuery(file, "PRAGMA auto_vacuum"), "2");
    EXPECT_EQ(rawQuery(file, "PRAGMA page_size"), "16384");
}

TEST_F(KeyValueStoreTest, DatabaseIsLaidOutAsTheOptionsSay) {
    openStore(KeyValueStore::Options::forPacks(), "packs").reset();
    openStore(KeyValueStore::Options::forConfig(), "config").reset();
    const std::string packs = folder("packs") + "/" + KeyValueStore::kFileName;
    const std::string config = folder("config") + "/" + KeyValueStore::kFileName;
    EXPECT_EQ(rawQuery(packs, "PRAGMA page_size"), "16384");
    EXPECT_EQ(rawQuery(config, "PRAGMA page_size"), "4096");
    EXPECT_EQ(rawQuery(packs, "PRAGMA journal_mode"), "wal");
    EXPECT_EQ(rawQuery(packs, "PRAGMA auto_vacuum"), "2");
    EXPECT_EQ(rawQuery(packs, "PRAGMA user_version"), "3");
    EXPECT_NE(
        rawQuery(packs, "SELECT sql FROM sqlite_schema WHERE name = 'kv'").find("WITHOUT ROWID"),
        std::string::npos);
}

TEST_F(KeyValueStoreTest, DatabaseOfAnotherFormatVersionDoesNotOpen) {
    openStore().reset();
    KeyValueStore::Options other = KeyValueStore::Options::forConfig();
    other.formatVersion = 3;
    std::unique_ptr<KeyValueStore> store;
    EXPECT_EQ(KeyValueStore::open(folder(), other, &store), SQLITE_FORMAT);
    EXPECT_FALSE(store);
}

TEST_F(KeyValueStoreTest, FileThatIsNoDatabaseFailsToOpen) {
    std::filesystem::create_directories(folder());
    std::ofstream(folder() + "/" + KeyValueStore::kFileName) << std::string(8192, 'g');
    std::unique_ptr<KeyValueStore> store;
    EXPECT_EQ(KeyValueStore::open(folder(), KeyValueStore::Options::forConfig(), &store),
              SQLITE_NOTADB);
    EXPECT_FALSE(store);
}

TEST_F(KeyValueStoreTest, OpenOrReplaceRecreatesAFailedStoreAndReturnsTheFirstStatus) {
    std::filesystem::create_directories(folder());
    std::ofstream(folder() + "/" + KeyValueStore::kFileName) << std::string(8192, 'g');
    std::unique_ptr<KeyValueStore> store;
    int last = -1;
    EXPECT_EQ(
        KeyValueStore::openOrReplace(folder(), KeyValueStore::Options::forConfig(), &store, &last),
        SQLITE_NOTADB);
    EXPECT_EQ(last, 0);
    ASSERT_TRUE(store);
    EXPECT_FALSE(store->contains("anything"));
    EXPECT_EQ(store->insert("k", "v"), 0);
}

TEST_F(KeyValueStoreTest, RemoveDeletesTheWholeFolder) {
    openStore().reset();
    std::ofstream(folder() + "/other") << "x";
    EXPECT_EQ(KeyValueStore::remove(folder()), 0);
    EXPECT_FALSE(std::filesystem::exists(folder()));
    EXPECT_EQ(KeyValueStore::remove(folder()), 0);
}

TEST_F(KeyValueStoreTest, DiskSizeCountsEveryFileOfTheFolder) {
    auto store = openStore();
    ASSERT_EQ(store->insert("k", std::string(10000, 'x')), 0);
    uint64_t expected = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder()))
        expected += entry.file_size();
    EXPECT_GT(expected, 10000u);
    EXPECT_EQ(KeyValueStore::diskSize(folder()), expected);
    EXPECT_EQ(KeyValueStore::diskSize(folder("missing")), 0u);
}

// Writers and readers on several threads share the one connection; every value read is one
// that was written whole.
TEST_F(KeyValueStoreTest, ConcurrentThreadsReadAndWriteConsistently) {
    auto store = openStore();
    constexpr int kThreads = 4;
    constexpr int kKeys = 200;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kKeys; ++i) {
                const std::string key = "t" + std::to_string(t) + "/" + std::to_string(i);
                EXPECT_EQ(store->insert(key, std::string(100 + i, static_cast<char>('a' + t))), 0);
                std::string value;
                bool found = false;
                EXPECT_EQ(store->get(key, value, found), 0);
                EXPECT_TRUE(found);
                EXPECT_EQ(value, std::string(100 + i, static_cast<char>('a' + t)));
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(keysOf(*store, KeyValueStore::Key::minKey(), KeyValueStore::Key::maxKey()).size(),
              static_cast<size_t>(kThreads * kKeys));
}

}  // namespace
}  // namespace FerritCore

namespace FerritCore {
namespace {

class KeyValueBatchTest : public FerritTest::StoreFixture {
  protected:
    void SetUp() override {
        FerritTest::StoreFixture::SetUp();
        ASSERT_EQ(KeyValueStore::open((temp_.path() / "kv").string(),
                                      KeyValueStore::Options::forPacks(), &store_),
                  0);
    }
    std::string valueOf(std::string_view key) {
        std::string value;
        bool found = false;
        EXPECT_EQ(store_->get(key, value, found), 0);
        return found ? value : "<missing>";
    }
    std::unique_ptr<KeyValueStore> store_;
};

TEST_F(KeyValueBatchTest, InsertAllStoresEveryPair) {
    ASSERT_EQ(store_->insertAll({{"p/1/a", "alpha"}, {"p/1/b", "beta"}, {"p/1/a", "again"}}), 0);
    EXPECT_EQ(valueOf("p/1/a"), "again");
    EXPECT_EQ(valueOf("p/1/b"), "beta");
    EXPECT_EQ(store_->insertAll({}), 0);
}

TEST_F(KeyValueBatchTest, InsertAllThatFailsStoresNothing) {
    // Another connection holds the write lock past the busy timeout: the batch fails whole.
    KeyValueStore::Options quick = KeyValueStore::Options::forPacks();
    quick.busyTimeoutMs = 1;
    std::unique_ptr<KeyValueStore> other;
    ASSERT_EQ(KeyValueStore::open((temp_.path() / "kv").string(), quick, &other), 0);
    sqlite3* raw = nullptr;
    ASSERT_EQ(sqlite3_open((temp_.path() / "kv" / KeyValueStore::kFileName).c_str(), &raw),
              SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(raw, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
    EXPECT_NE(other->insertAll({{"x/1", "one"}, {"x/2", "two"}}), 0);
    ASSERT_EQ(sqlite3_exec(raw, "ROLLBACK", nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(raw);
    EXPECT_EQ(valueOf("x/1"), "<missing>");
    EXPECT_EQ(valueOf("x/2"), "<missing>");
}

TEST_F(KeyValueBatchTest, CopyPrefixCopiesWhatIsNeitherThereNorSkipped) {
    ASSERT_EQ(store_->insertAll({{"p/1/a", "alpha"},
                                 {"p/1/b", "beta"},
                                 {"p/1/gone", "old"},
                                 {"p/2/b", "new beta"},
                                 {"p/10/z", "other version"}}),
              0);
    uint64_t bytes = 0;
    ASSERT_EQ(store_->copyPrefix("p/1/", "p/2/", {"gone"}, bytes), 0);
    EXPECT_EQ(valueOf("p/2/a"), "alpha");
    EXPECT_EQ(valueOf("p/2/b"), "new beta");  // already there: kept
    EXPECT_EQ(valueOf("p/2/gone"), "<missing>");
    EXPECT_EQ(valueOf("p/2/z"), "<missing>");  // "p/10/" is another prefix
    EXPECT_EQ(bytes, 5u);
    EXPECT_EQ(valueOf("p/1/a"), "alpha");  // the source stays
}

TEST_F(KeyValueBatchTest, CopyPrefixRefusesOverlappingPrefixes) {
    uint64_t bytes = 7;
    EXPECT_EQ(store_->copyPrefix("p/", "p/1/", {}, bytes), SQLITE_MISUSE);
    EXPECT_EQ(store_->copyPrefix("p/1/", "p/1/", {}, bytes), SQLITE_MISUSE);
    EXPECT_EQ(store_->copyPrefix("", "p/1/", {}, bytes), SQLITE_MISUSE);
    EXPECT_EQ(bytes, 0u);
}

TEST_F(KeyValueBatchTest, CopyPrefixKeepsBinaryKeysAndValuesByteForByte) {
    const std::string key("p/1/\x01\xFE\x00z", 8);
    const std::string value("\x00\xFF\x80 binary", 10);
    ASSERT_EQ(store_->insert(key, value), 0);
    uint64_t bytes = 0;
    ASSERT_EQ(store_->copyPrefix("p/1/", "q/9/", {}, bytes), 0);
    EXPECT_EQ(valueOf(std::string("q/9/\x01\xFE\x00z", 8)), value);
    EXPECT_EQ(bytes, value.size());
}

}  // namespace
}  // namespace FerritCore
