#include "base/Errors.h"
#include "storage/SeriesStore.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "base/PackedFiles.h"
#include "storage/PacksStore.h"
#include "tests/storage/StoreFixture.h"

namespace FerritCore {
namespace {

class SeriesStoreTest : public FerritTest::StoreFixture {
  protected:
    void SetUp() override {
        StoreFixture::SetUp();
        store_ = std::make_unique<SeriesStore>("series", KeyValueStore::Options::forPacks());
        ASSERT_EQ(store_->open(), 0);
    }
    void TearDown() override {
        store_.reset();
        StoreFixture::TearDown();
    }

    void put(std::string_view key, std::string_view value) {
        const Error error = store_->put(key, value);
        ASSERT_FALSE(error) << error.message();
    }

    std::vector<std::string> keys(std::string_view prefix) {
        std::vector<std::string> found;
        store_->enumerate(prefix, [&](std::string_view key) {
            found.emplace_back(key);
            return false;
        });
        return found;
    }

    std::unique_ptr<SeriesStore> store_;
};

TEST_F(SeriesStoreTest, NamesTagAndStatisticsEventComeFromTheName) {
    EXPECT_EQ(store_->name(), "series");
    EXPECT_EQ(store_->tag(), "Ferrit/Series");
    EXPECT_EQ(store_->statisticsEvent(), "FTS_series");
    EXPECT_EQ(store_->folder(), Folder::disk("series/"));
    EXPECT_TRUE(std::filesystem::is_regular_file(databaseFile("series")));
}

TEST_F(SeriesStoreTest, PutThenGetReturnsTheStringExactly) {
    const std::string value("a\0b\xFF", 4);
    EXPECT_FALSE(store_->put("app/1/index.html", value));
    const ErrorOr<std::string> read = store_->get("app/1/index.html");
    ASSERT_TRUE(read.ok());
    EXPECT_FALSE(read.error());
    EXPECT_EQ(*read, value);
}

TEST_F(SeriesStoreTest, GetOfMissingKeyIs1101WithStorageWords) {
    const ErrorOr<std::string> read = store_->get("a/b");
    EXPECT_FALSE(read.ok());
    EXPECT_EQ(read.error().code(), Errors::kFileNotExists);
    EXPECT_EQ(read.error().message(), "Storage \"series/a/b\" not exists");
}

TEST_F(SeriesStoreTest, ClosedStoreAnswers9997WithStorageWords) {
    put("k", "v");
    store_->close();
    const ErrorOr<std::string> read = store_->get("k");
    EXPECT_FALSE(read.ok());
    EXPECT_EQ(read.error().code(), Errors::kInitStorageFailed);
    EXPECT_EQ(read.error().message(), "Initialize storage \"series\" failed: -1 (store is closed)");
    EXPECT_EQ(store_->put("k", "w").code(), Errors::kInitStorageFailed);
    EXPECT_FALSE(store_->contains("k"));
    store_->remove("k");
    store_->removeByPrefix("");
    store_->clear();
    store_->compact();
    EXPECT_TRUE(keys("").empty());
    ASSERT_EQ(store_->reopen(), 0);
    EXPECT_TRUE(store_->contains("k"));
}

TEST_F(SeriesStoreTest, RemoveByPrefixTakesEveryKeyThatExtendsThePath) {
    for (const char* key : {"a/b", "a/bc", "a/b/c", "a/a", "b"}) put(key, "v");
    store_->removeByPrefix("a/b");
    EXPECT_EQ(keys(""), (std::vector<std::string>{"a/a", "b"}));
}

TEST_F(SeriesStoreTest, RemoveByPrefixWithEmptyPrefixClearsEverything) {
    for (const char* key : {"a", "b", "\xFF"}) put(key, "v");
    store_->removeByPrefix("");
    EXPECT_TRUE(keys("").empty());
}

TEST_F(SeriesStoreTest, KeyWithFFDirectlyAfterThePrefixLiesOutsideTheRange) {
    for (const char* key : {"n/1/", "n/1/x", "n/1/\xFF", "n/1/\xFFy"}) put(key, "v");
    EXPECT_EQ(keys("n/1/"), (std::vector<std::string>{"n/1/", "n/1/x"}));
}

TEST_F(SeriesStoreTest, EnumerateWalksThePrefixInOrderAndStops) {
    for (const char* key : {"p/3", "p/1", "p/2", "q/1"}) put(key, "v");
    EXPECT_EQ(keys("p/"), (std::vector<std::string>{"p/1", "p/2", "p/3"}));
    int calls = 0;
    store_->enumerate("p/", [&](std::string_view) { return ++calls == 1; });
    EXPECT_EQ(calls, 1);
}

TEST_F(SeriesStoreTest, RemoveDeletesOneKey) {
    put("a", "1");
    put("ab", "2");
    store_->remove("a");
    EXPECT_FALSE(store_->contains("a"));
    EXPECT_TRUE(store_->contains("ab"));
}

TEST_F(SeriesStoreTest, ClearEmptiesTheStoreAndLogsClearWithName) {
    MarlLogger::ScopedCapture capture;
    for (int i = 0; i < 40; ++i) put("k" + std::to_string(i), std::string(20000, 'x'));
    store_->compact();
    const uint64_t full = store_->diskSize();
    store_->clear();
    EXPECT_TRUE(keys("").empty());
    const auto entry = capture->last("clear", "Ferrit/Series");
    ASSERT_EQ(entry.event, "clear");
    EXPECT_EQ(entry.field("name"), MarlLogger::json::JSON("series"));
    EXPECT_FALSE(entry.hasError);
    EXPECT_LT(store_->diskSize(), full / 4);
}

TEST_F(SeriesStoreTest, ReopenKeepsTheValues) {
    put("k", "v");
    ASSERT_EQ(store_->reopen(), 0);
    EXPECT_EQ(store_->get("k").valueOr(""), "v");
}

// --- PacksStore -----------------------------------------------------------------------------

class PacksStoreTest : public FerritTest::StoreFixture {
  protected:
    void writeLegacy(const std::string& text) {
        std::filesystem::create_directories(root() + "config");
        std::ofstream(root() + "config/fconfig.config", std::ios::binary) << text;
    }
    bool legacyExists() const { return std::filesystem::exists(root() + "config/fconfig.config"); }
};

TEST_F(PacksStoreTest, OpensPacksUnderTheRootAndReportsLoad) {
    MarlLogger::ScopedCapture capture;
    PacksStore& store = PacksStore::instance();
    EXPECT_TRUE(store.isOpen());
    EXPECT_EQ(store.tag(), "Ferrit/Packs");
    EXPECT_TRUE(std::filesystem::is_regular_file(databaseFile("packs")));

    const auto records = proxy_->named("FTS_packs");
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].dimensions.count("errorCode"), 0u);
    EXPECT_EQ(records[0].measures.at("time"), 0.0);
    const auto load = capture->last("load", "Ferrit/Packs");
    ASSERT_EQ(load.event, "load");
    EXPECT_EQ(load.field("name"), MarlLogger::json::JSON("packs"));
    EXPECT_TRUE(load.has("time"));
    EXPECT_FALSE(load.hasError);
}

TEST_F(PacksStoreTest, ReadConfigPrefersTheStore) {
    writeLegacy("from file");
    ASSERT_FALSE(PacksStore::instance().put("config", "from store"));
    const ErrorOr<std::string> text = PacksStore::instance().readConfig();
    EXPECT_FALSE(text.error());
    EXPECT_EQ(text.valueOr(""), "from store");
}

TEST_F(PacksStoreTest, ReadConfigFallsBackToTheOlderFileWhenTheKeyIsMissing) {
    writeLegacy("from file");
    const ErrorOr<std::string> text = PacksStore::instance().readConfig();
    EXPECT_FALSE(text.error()) << text.error().message();
    EXPECT_EQ(text.valueOr(""), "from file");
}

TEST_F(PacksStoreTest, ReadConfigWithNeitherIsTheFileError) {
    const ErrorOr<std::string> text = PacksStore::instance().readConfig();
    EXPECT_FALSE(text.ok());
    EXPECT_EQ(text.error().code(), Errors::kFileNotExists);
    EXPECT_NE(text.error().message().find("config/fconfig.config"), std::string::npos);
}

TEST_F(PacksStoreTest, ReadConfigOfAClosedStoreIs9997WithoutTheFile) {
    writeLegacy("from file");
    PacksStore::instance().close();
    const ErrorOr<std::string> text = PacksStore::instance().readConfig();
    EXPECT_FALSE(text.ok());
    EXPECT_EQ(text.error().code(), Errors::kInitStorageFailed);
}

TEST_F(PacksStoreTest, WriteConfigStoresTheTextAndDeletesTheOlderFile) {
    writeLegacy("old");
    EXPECT_FALSE(PacksStore::instance().writeConfig("new"));
    EXPECT_FALSE(legacyExists());
    EXPECT_EQ(PacksStore::instance().readConfig().valueOr(""), "new");
}

TEST_F(PacksStoreTest, FailedWriteConfigKeepsTheOlderFile) {
    writeLegacy("old");
    PacksStore::instance().close();
    EXPECT_EQ(PacksStore::instance().writeConfig("new").code(), Errors::kInitStorageFailed);
    EXPECT_TRUE(legacyExists());
}

TEST_F(PacksStoreTest, PackedFolderFilesLiveInTheStore) {
    PackedFiles::set(PacksStore::files());
    Error error;
    ASSERT_TRUE(Folder::writeFile(Folder::packed("p/1/res/a.js"), "stored", error))
        << error.message();
    ASSERT_TRUE(Folder::writeFile(Folder::packed("p/1/res/ab.js"), "also", error));
    EXPECT_TRUE(Folder::packed("p/1/res/a.js").exists());
    EXPECT_TRUE(Folder::packed("p/1/").exists());
    EXPECT_EQ(Folder::readFile(Folder::packed("p/1/res/a.js"), error), "stored");
    std::vector<std::string> listed;
    for (const Folder& file : Folder::packed("p/").listFiles()) listed.push_back(file.relative());
    EXPECT_EQ(listed, (std::vector<std::string>{"p/1/res/a.js", "p/1/res/ab.js"}));
    Folder::removeFile(Folder::packed("p/1/res/a"), Removal::kGone);
    EXPECT_FALSE(Folder::packed("p/1/").exists());
    Folder::readFile(Folder::packed("p/1/res/a.js"), error);
    EXPECT_EQ(error.code(), Errors::kFileNotExists);
    EXPECT_TRUE(std::filesystem::is_directory(temp_.path() / "packs"));
}

}  // namespace
}  // namespace FerritCore
