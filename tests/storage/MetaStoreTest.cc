#include "base/Errors.h"
#include "storage/MetaStore.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/LogTags.h"
#include "storage/ConfigStore.h"
#include "tests/storage/StoreFixture.h"

namespace FerritCore {
namespace {

using MarlLogger::json::JSON;
using MarlLogger::json::JSONObject;

class MetaStoreTest : public FerritTest::StoreFixture {
  protected:
    void SetUp() override {
        StoreFixture::SetUp();
        store_ = std::make_unique<MetaStore>("meta/", "Ferrit/Meta",
                                             KeyValueStore::Options::forConfig());
        ASSERT_EQ(store_->open(), 0);
    }
    void TearDown() override {
        store_.reset();
        StoreFixture::TearDown();
    }

    // Stores raw bytes under `key` through a second connection, bypassing the JSON encoder.
    void putRaw(std::string_view key, std::string_view bytes) {
        std::unique_ptr<KeyValueStore> raw;
        ASSERT_EQ(KeyValueStore::open(store_->path(), KeyValueStore::Options::forConfig(), &raw),
                  0);
        ASSERT_EQ(raw->insert(key, bytes), 0);
    }

    std::vector<std::string> keys(std::string_view prefix) {
        std::vector<std::string> found;
        store_->enumerate(prefix, [&](std::string_view key) {
            found.emplace_back(key);
            return false;
        });
        return found;
    }

    void put(std::string_view key, const JSON& value) {
        const Error error = store_->put(key, value);
        ASSERT_FALSE(error) << error.message();
    }

    std::unique_ptr<MetaStore> store_;
};

TEST_F(MetaStoreTest, PutThenGetRoundTripsTheJsonValue) {
    const JSON value(
        JSONObject{{"c", JSON(3)}, {"p", JSON(1.5)}, {"s", JSON("text")}, {"n", JSON()}});
    EXPECT_FALSE(store_->put("statistics/a", value));
    const ErrorOr<JSON> read = store_->get("statistics/a");
    ASSERT_TRUE(read.ok()) << read.error().message();
    EXPECT_EQ(*read, value);
}

TEST_F(MetaStoreTest, ArbitraryBytesInAStringRoundTripUnescaped) {
    std::string body(3 * 1024 * 1024, '\0');
    for (size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>((i * 7 + i / 251) & 0xFF);
    put("res/big", JSON(JSONObject{{"b", JSON(body)}}));
    const ErrorOr<JSON> read = store_->get("res/big");
    ASSERT_TRUE(read.ok()) << read.error().message();
    EXPECT_EQ((*read)["b"].stringViewValue(), body);
}

TEST_F(MetaStoreTest, GetOfMissingKeyIs1101NamingDirectoryAndKey) {
    const ErrorOr<JSON> read = store_->get("a/b");
    EXPECT_FALSE(read.ok());
    EXPECT_EQ(read.error().code(), Errors::kFileNotExists);
    EXPECT_EQ(read.error().message(), "store \"meta/a/b\" not exists");
}

// A key present with a value that does not parse gives 1102 with the parser's words, and the
// value stays in the database until somebody removes it.
TEST_F(MetaStoreTest, UndecodableValueIs1102WithParserWordsAndStaysStored) {
    putRaw("bad", "\xc1\xc1\xc1");
    const ErrorOr<JSON> read = store_->get("bad");
    EXPECT_FALSE(read.ok());
    const Error& error = read.error();
    EXPECT_EQ(error.code(), Errors::kFileRead);
    std::string parserWords;
    JSON::parseBinary("\xc1\xc1\xc1", &parserWords);
    ASSERT_FALSE(parserWords.empty());
    EXPECT_EQ(error.message(), "deserialize store \"meta/bad\" failed: " + parserWords);
    EXPECT_TRUE(store_->contains("bad"));
    store_->remove("bad");
    EXPECT_FALSE(store_->contains("bad"));
}

TEST_F(MetaStoreTest, RemoveByPrefixWithEmptyPrefixClearsTheWholeStore) {
    for (const char* key : {"", "a", "b/c", "\xFF"}) put(key, JSON(1));
    store_->removeByPrefix("");
    EXPECT_TRUE(keys("").empty());
}

// A key containing the byte 0xFF directly after the prefix lies outside the range.
TEST_F(MetaStoreTest, KeyWithFFDirectlyAfterThePrefixLiesOutsideTheRange) {
    for (const char* key : {"p/", "p/a", "p/\xFE", "p/\xFF", "p/\xFFz", "q"}) put(key, JSON(1));
    EXPECT_EQ(keys("p/"), (std::vector<std::string>{"p/", "p/a", "p/\xFE"}));
    store_->removeByPrefix("p/");
    EXPECT_EQ(keys(""), (std::vector<std::string>{"p/\xFF", "p/\xFFz", "q"}));
}

TEST_F(MetaStoreTest, RemoveByPrefixDeletesKeysThatExtendThePrefix) {
    for (const char* key : {"a/b", "a/bc", "a/b/d", "a/a", "a/c"}) put(key, JSON(1));
    store_->removeByPrefix("a/b");
    EXPECT_EQ(keys(""), (std::vector<std::string>{"a/a", "a/c"}));
}

TEST_F(MetaStoreTest, EnumerateWithEmptyPrefixWalksEveryKeyInOrder) {
    for (const char* key : {"b", "a", "c/d"}) put(key, JSON(1));
    EXPECT_EQ(keys(""), (std::vector<std::string>{"a", "b", "c/d"}));
}

TEST_F(MetaStoreTest, EnumerateStopsWhenTheCallbackSaysSo) {
    for (const char* key : {"k/1", "k/2", "k/3"}) put(key, JSON(1));
    int calls = 0;
    store_->enumerate("k/", [&](std::string_view) { return ++calls == 2; });
    EXPECT_EQ(calls, 2);
}

TEST_F(MetaStoreTest, EnumerateWithoutKeyFlagHandsOnEmptyKeys) {
    for (const char* key : {"k/1", "k/2"}) put(key, JSON(1));
    std::vector<std::string> seen;
    store_->enumerate(
        "k/",
        [&](std::string_view key) {
            seen.emplace_back(key);
            return false;
        },
        false);
    EXPECT_EQ(seen, (std::vector<std::string>{"", ""}));
}

TEST_F(MetaStoreTest, EnumerateCallbackMayReadAndRemoveKeys) {
    for (int i = 0; i < 300; ++i) put("s/" + std::to_string(i), JSON(i));
    int read = 0;
    store_->enumerate("s/", [&](std::string_view key) {
        if (store_->get(key).ok()) ++read;
        store_->remove(key);
        return false;
    });
    EXPECT_EQ(read, 300);
    EXPECT_TRUE(keys("s/").empty());
}

TEST_F(MetaStoreTest, ClearEmptiesTheStoreAndShrinksIt) {
    for (int i = 0; i < 200; ++i) put("k" + std::to_string(i), JSON(std::string(3000, 'x')));
    store_->compact();
    const uint64_t full = store_->diskSize();
    store_->clear();
    EXPECT_TRUE(keys("").empty());
    EXPECT_LT(store_->diskSize(), full / 4);
}

TEST_F(MetaStoreTest, DiskSizeIsTheSizeOfTheFolder) {
    put("k", JSON(std::string(5000, 'x')));
    uint64_t expected = 0;
    for (const auto& entry : std::filesystem::directory_iterator(store_->path()))
        expected += entry.file_size();
    EXPECT_EQ(store_->diskSize(), expected);
    EXPECT_GT(expected, 5000u);
}

TEST_F(MetaStoreTest, PathIsTheFolderUnderTheRootWithoutTrailingSlash) {
    EXPECT_EQ(store_->path(), root() + "meta");
    EXPECT_TRUE(std::filesystem::is_directory(root() + "meta"));
    EXPECT_EQ(store_->directory(), "meta/");
    EXPECT_EQ(store_->tag(), "Ferrit/Meta");
}

TEST_F(MetaStoreTest, VisitAnswersInTheWordsOfGet) {
    put("a", JSON("text"));
    putRaw("bad", "\xc1");
    std::string seen;
    auto decode = [&](std::string_view bytes, std::string& reason) {
        seen.assign(bytes);
        if (bytes == "\xc1") reason = "refused";
        return reason.empty();
    };
    EXPECT_FALSE(store_->visit("a", decode));
    EXPECT_EQ(seen, JSON("text").toBinary());

    const Error missing = store_->visit("none", decode);
    EXPECT_EQ(missing.code(), store_->get("none").error().code());
    EXPECT_EQ(missing.message(), store_->get("none").error().message());

    const Error bad = store_->visit("bad", decode);
    EXPECT_EQ(bad.code(), store_->get("bad").error().code());
    EXPECT_EQ(bad.message(), "deserialize store \"meta/bad\" failed: refused");

    store_->close();
    const Error closed = store_->visit("a", decode);
    EXPECT_EQ(closed.code(), store_->get("a").error().code());
    EXPECT_EQ(closed.message(), store_->get("a").error().message());
}

TEST_F(MetaStoreTest, ClosedStoreAnswers9997WithStatusMinusOne) {
    put("k", JSON(1));
    store_->close();
    EXPECT_FALSE(store_->isOpen());
    EXPECT_EQ(store_->status(), -1);
    const ErrorOr<JSON> read = store_->get("k");
    EXPECT_FALSE(read.ok());
    EXPECT_EQ(read.error().code(), Errors::kInitStorageFailed);
    EXPECT_EQ(read.error().message(), "Initialize store \"meta/\" failed: -1 (store is closed)");
    EXPECT_EQ(store_->put("k", JSON(2)).code(), Errors::kInitStorageFailed);
    EXPECT_FALSE(store_->contains("k"));
    store_->remove("k");
    store_->removeByPrefix("");
    store_->clear();
    store_->compact();
    EXPECT_TRUE(keys("").empty());
    // Nothing was deleted while closed.
    ASSERT_EQ(store_->open(), 0);
    EXPECT_TRUE(store_->contains("k"));
}

TEST_F(MetaStoreTest, ValuesSurviveReopen) {
    put("k", JSON("v"));
    ASSERT_EQ(store_->open(), 0);
    EXPECT_EQ(store_->get("k").valueOr(JSON()), JSON("v"));
}

TEST_F(MetaStoreTest, StoreDoesNotOpenWhileTheRootIsUnset) {
    setRootPath("/");
    MetaStore store("nowhere/", "Ferrit/Meta", KeyValueStore::Options::forConfig());
    EXPECT_NE(store.open(), 0);
    EXPECT_FALSE(store.isOpen());
    EXPECT_EQ(store.path(), "");
    EXPECT_FALSE(std::filesystem::exists("/nowhere"));
    EXPECT_EQ(store.get("k").error().code(), Errors::kInitStorageFailed);
}

// Readers on several threads while another closes and reopens the store: every read either
// finds the value or reports the closed store, and nothing crashes.
TEST_F(MetaStoreTest, CloseAndReopenWhileOtherThreadsRead) {
    put("k", JSON(42));
    std::atomic<bool> stop{false};
    std::atomic<int> found{0};
    std::vector<std::thread> readers;
    for (int t = 0; t < 3; ++t) {
        readers.emplace_back([&] {
            while (!stop.load()) {
                const ErrorOr<JSON> value = store_->get("k");
                if (value.ok()) {
                    EXPECT_EQ(*value, JSON(42));
                    found.fetch_add(1);
                } else {
                    EXPECT_EQ(value.error().code(), Errors::kInitStorageFailed);
                }
            }
        });
    }
    for (int i = 0; i < 20; ++i) {
        store_->close();
        ASSERT_EQ(store_->open(), 0);
    }
    // Let the readers see the open store at least once more before they stop.
    while (found.load() == 0) std::this_thread::yield();
    stop.store(true);
    for (auto& reader : readers) reader.join();
    EXPECT_GT(found.load(), 0);
}

// --- ConfigStore ----------------------------------------------------------------------------

class ConfigStoreTest : public FerritTest::StoreFixture {};

TEST_F(ConfigStoreTest, OpensConfigV2UnderTheRootAndReportsInit) {
    MarlLogger::ScopedCapture capture;
    ConfigStore& store = ConfigStore::instance();
    EXPECT_TRUE(store.isOpen());
    EXPECT_EQ(store.path(), root() + "config_v2");
    EXPECT_EQ(store.tag(), "Ferrit/Config");
    EXPECT_TRUE(std::filesystem::is_regular_file(databaseFile("config_v2")));

    const auto records = proxy_->named("Ferrit.ConfigInit");
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].dimensions.count("errorCode"), 0u);
    EXPECT_GT(records[0].measures.at("diskSize"), 0.0);
    EXPECT_EQ(records[0].measures.at("time"), 0.0);  // the manual clock did not move
    EXPECT_TRUE(proxy_->named("Ferrit.Storage").empty());

    const auto init = capture->last("init", LogTag::kConfig);
    ASSERT_EQ(init.event, "init");
    EXPECT_FALSE(init.hasError);
    EXPECT_TRUE(init.has("diskSize"));
    EXPECT_TRUE(init.has("time"));
}

TEST_F(ConfigStoreTest, InstanceIsOneObjectAcrossThreads) {
    std::vector<ConfigStore*> seen(4, nullptr);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < seen.size(); ++i)
        threads.emplace_back([&, i] { seen[i] = &ConfigStore::instance(); });
    for (auto& thread : threads) thread.join();
    for (ConfigStore* store : seen) EXPECT_EQ(store, &ConfigStore::instance());
}

TEST_F(ConfigStoreTest, RestartOpensTheStoreUnderTheRootOfTheNewProcess) {
    ASSERT_FALSE(ConfigStore::instance().put("marks/a", JSON(1.0)));
    FerritTest::TempDir other;
    restart();
    setRootPath(other.root());
    EXPECT_FALSE(ConfigStore::instance().contains("marks/a"));
    EXPECT_EQ(ConfigStore::instance().path(), other.root() + "config_v2");
    ConfigStore::instance().close();
}

}  // namespace
}  // namespace FerritCore
