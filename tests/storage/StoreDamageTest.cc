// Damage and crashes, with real files and real processes: what a store finds at open when its
// folder was damaged, what it keeps when its process dies, and what two processes sharing it
// leave behind.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "base/Errors.h"
#include "base/LogTags.h"
#include "storage/ConfigStore.h"
#include "storage/MetaStore.h"
#include "storage/PacksStore.h"
#include "tests/storage/StoreFixture.h"

namespace FerritCore {
namespace {

using MarlLogger::json::JSON;
using MarlLogger::json::JSONObject;

class StoreDamageTest : public FerritTest::StoreFixture {
  protected:
    static std::string garbage(size_t size, unsigned seed) {
        std::mt19937 random(seed);
        std::string bytes(size, '\0');
        for (char& byte : bytes) byte = static_cast<char>(random() & 0xFF);
        return bytes;
    }
    static void writeFile(const std::string& path, const std::string& content) {
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
    }

    // Fills the shared store with values and closes it cleanly, so that its whole content lies
    // in the database file.
    void fillConfigStore(int count) {
        for (int i = 0; i < count; ++i) {
            ASSERT_FALSE(ConfigStore::instance().put("k/" + std::to_string(i),
                                                     JSON(std::string(1000, 'v'))));
        }
        ConfigStore::instance().close();
        ASSERT_FALSE(std::filesystem::exists(databaseFile("config_v2") + "-wal"));
    }

    // Opens the shared store as a process start would, and checks that the damage was reported
    // with the first status, that the store came back empty, and that it works.
    void expectConfigStoreRecoveredFrom(int firstStatus) {
        MarlLogger::ScopedCapture capture;
        restart();
        proxy_->clearRecords();
        ConfigStore& store = ConfigStore::instance();

        const std::string words =
            "Initialize store \"config_v2/\" failed: " + std::to_string(firstStatus) + " (" +
            sqlite3_errstr(firstStatus) + ")";
        const auto init = proxy_->named("Ferrit.ConfigInit");
        ASSERT_EQ(init.size(), 1u);
        EXPECT_EQ(init[0].dimensions.at("errorCode"), std::to_string(Errors::kInitStorageFailed));
        EXPECT_EQ(init[0].dimensions.at("errorMsg"), words);
        const auto storage = proxy_->named("Ferrit.Storage");
        ASSERT_EQ(storage.size(), 1u);
        EXPECT_EQ(storage[0].dimensions.at("path"), root() + "config_v2");
        EXPECT_EQ(storage[0].dimensions.at("errorCode"), std::to_string(firstStatus));
        const auto entry = capture->last("init", LogTag::kConfig);
        EXPECT_TRUE(entry.hasError);
        EXPECT_EQ(entry.errorCode, std::to_string(Errors::kInitStorageFailed));
        EXPECT_EQ(entry.errorMessage, words);

        EXPECT_TRUE(store.isOpen());
        EXPECT_EQ(store.status(), 0);
        int keys = 0;
        store.enumerate("", [&](std::string_view) {
            ++keys;
            return false;
        });
        EXPECT_EQ(keys, 0);
        const Error error = store.put("after", JSON(JSONObject{{"c", JSON(1)}}));
        EXPECT_FALSE(error) << error.message();
        const ErrorOr<JSON> after = store.get("after");
        ASSERT_TRUE(after.ok()) << after.error().message();
        EXPECT_EQ((*after)["c"], JSON(1));
    }
};

// A damaged database at start: the first open fails, the folder is removed, the second open
// succeeds; the store is empty, and the init event carries 9997 with the first status although
// the store works.
TEST_F(StoreDamageTest, DamagedDatabaseAtStartIsReplacedAndReportedWithTheFirstStatus) {
    writeFile(databaseFile("config_v2"), garbage(16384, 1));
    expectConfigStoreRecoveredFrom(SQLITE_NOTADB);
}

TEST_F(StoreDamageTest, FolderFilledWithGarbageOpensEmptyAndWorks) {
    writeFile(databaseFile("config_v2"), garbage(40000, 2));
    writeFile(databaseFile("config_v2") + "-wal", garbage(9000, 3));
    writeFile(databaseFile("config_v2") + "-shm", garbage(32768, 4));
    writeFile(root() + "config_v2/LOCK", garbage(10, 5));
    writeFile(root() + "config_v2/sub/000001.log", garbage(5000, 6));
    expectConfigStoreRecoveredFrom(SQLITE_NOTADB);
    EXPECT_FALSE(std::filesystem::exists(root() + "config_v2/sub"));
}

TEST_F(StoreDamageTest, TruncatedDatabaseOpensEmptyAndWorks) {
    fillConfigStore(400);
    const std::string file = databaseFile("config_v2");
    std::filesystem::resize_file(file, std::filesystem::file_size(file) / 2);
    expectConfigStoreRecoveredFrom(SQLITE_CORRUPT);
}

TEST_F(StoreDamageTest, DatabaseFileThatIsADirectoryOpensEmptyAndWorks) {
    std::filesystem::create_directories(databaseFile("config_v2") + "/inside");
    expectConfigStoreRecoveredFrom(SQLITE_CANTOPEN);
}

TEST_F(StoreDamageTest, StoreFolderThatIsAFileOpensEmptyAndWorks) {
    writeFile(root() + "config_v2", "not a folder");
    expectConfigStoreRecoveredFrom(SQLITE_CANTOPEN);
}

TEST_F(StoreDamageTest, DamagedPacksStoreReportsStorageWordsAndWorks) {
    writeFile(databaseFile("packs"), garbage(20000, 7));
    MarlLogger::ScopedCapture capture;
    restart();
    proxy_->clearRecords();
    PacksStore::instance();
    const std::string words =
        "Initialize storage \"packs\" failed: " + std::to_string(SQLITE_NOTADB) +
        " (file is not a database)";
    const auto records = proxy_->named("FTS_packs");
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].dimensions.at("errorCode"), std::to_string(Errors::kInitStorageFailed));
    EXPECT_EQ(records[0].dimensions.at("errorMsg"), words);
    ASSERT_EQ(proxy_->named("Ferrit.Storage").size(), 1u);
    const auto load = capture->last("load", "Ferrit/Packs");
    EXPECT_EQ(load.errorMessage, words);
    EXPECT_EQ(load.field("name"), JSON("packs"));

    EXPECT_FALSE(PacksStore::instance().writeConfig("{}"));
    EXPECT_EQ(PacksStore::instance().readConfig().valueOr(""), "{}");
}

// Two failures in a row: every operation reports 9997, reads give the JSON null, and nothing
// crashes. The root lies below a regular file, so no folder can be made there.
TEST_F(StoreDamageTest, TwoFailuresInARowAnswerEveryOperationWith9997) {
    writeFile(root() + "blocker", "file");
    setRootPath(root() + "blocker/");
    MarlLogger::ScopedCapture capture;
    proxy_->clearRecords();
    ConfigStore& store = ConfigStore::instance();
    EXPECT_FALSE(store.isOpen());
    EXPECT_EQ(store.status(), SQLITE_CANTOPEN);
    const auto init = proxy_->named("Ferrit.ConfigInit");
    ASSERT_EQ(init.size(), 1u);
    EXPECT_EQ(init[0].dimensions.at("errorCode"), std::to_string(Errors::kInitStorageFailed));

    const ErrorOr<JSON> read = store.get("k");
    EXPECT_FALSE(read.ok());
    EXPECT_EQ(read.error().code(), Errors::kInitStorageFailed);
    EXPECT_EQ(read.error().message(),
              "Initialize store \"config_v2/\" failed: " + std::to_string(SQLITE_CANTOPEN) +
                  " (unable to open database file)");
    EXPECT_EQ(store.put("k", JSON(1)).code(), Errors::kInitStorageFailed);
    EXPECT_FALSE(store.contains("k"));
    store.remove("k");
    store.removeByPrefix("k");
    store.clear();
    store.compact();
    bool called = false;
    store.enumerate("", [&](std::string_view) { return called = true; });
    EXPECT_FALSE(called);
    EXPECT_EQ(store.diskSize(), 0u);

    const ErrorOr<std::string> value = PacksStore::instance().get("config");
    EXPECT_FALSE(value.ok());
    EXPECT_EQ(value.error().code(), Errors::kInitStorageFailed);
    EXPECT_EQ(value.error().message(),
              "Initialize storage \"packs\" failed: " + std::to_string(SQLITE_CANTOPEN) +
                  " (unable to open database file)");
    const ErrorOr<std::string> text = PacksStore::instance().readConfig();
    EXPECT_FALSE(text.ok());
    EXPECT_EQ(text.error().code(), Errors::kInitStorageFailed);
    EXPECT_EQ(PacksStore::instance().writeConfig("{}").code(), Errors::kInitStorageFailed);
}

// A store locked by another connection beyond the busy timeout is not damaged: it is left as it
// is, this opener stays closed, and the data is there for the next open.
TEST_F(StoreDamageTest, StoreLockedByAnotherConnectionIsNotReplaced) {
    KeyValueStore::Options options = KeyValueStore::Options::forConfig();
    options.busyTimeoutMs = 0;
    {
        MetaStore store("locked/", "Ferrit/Test", options);
        ASSERT_EQ(store.open(), 0);
        ASSERT_FALSE(store.put("kept", JSON(1)));
    }
    sqlite3* holder = nullptr;
    ASSERT_EQ(
        sqlite3_open_v2(databaseFile("locked").c_str(), &holder, SQLITE_OPEN_READWRITE, nullptr),
        SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(holder, "PRAGMA locking_mode=EXCLUSIVE;BEGIN EXCLUSIVE;", nullptr,
                           nullptr, nullptr),
              SQLITE_OK);

    MetaStore store("locked/", "Ferrit/Test", options);
    const int first = store.open();
    EXPECT_TRUE(KeyValueStore::isTransient(first)) << first;
    EXPECT_FALSE(store.isOpen());
    EXPECT_EQ(store.get("kept").error().code(), Errors::kInitStorageFailed);

    sqlite3_exec(holder, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_close_v2(holder);
    ASSERT_EQ(store.open(), 0);
    EXPECT_EQ(store.get("kept").valueOr(JSON()), JSON(1));
}

// --- Processes ------------------------------------------------------------------------------

constexpr int kChildWrites = 300;

// Child side: only the store is touched, and the process ends with _exit or a kill, never
// through the test framework.
[[noreturn]] void childExit(int code) {
    ::_exit(code);
}

TEST_F(StoreDamageTest, WritesSurviveAKillOfTheWritingProcess) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        MetaStore store("victim/", "Ferrit/Test", KeyValueStore::Options::forConfig());
        if (store.open() != 0) childExit(2);
        for (int i = 0; i < kChildWrites; ++i) {
            if (store.put("k/" + std::to_string(i), JSON(JSONObject{{"i", JSON(i)}}))) childExit(3);
        }
        ::raise(SIGKILL);
        childExit(4);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status)) << "child exited with " << WEXITSTATUS(status);
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
    // The killed process never closed the store: its commits are still in the log.
    EXPECT_GT(std::filesystem::file_size(databaseFile("victim") + "-wal"), 0u);

    MetaStore store("victim/", "Ferrit/Test", KeyValueStore::Options::forConfig());
    ASSERT_EQ(store.open(), 0);
    for (int i = 0; i < kChildWrites; ++i) {
        const ErrorOr<JSON> value = store.get("k/" + std::to_string(i));
        EXPECT_EQ(value.valueOr(JSON())["i"], JSON(i)) << value.error().message();
    }
}

TEST_F(StoreDamageTest, WritesSurviveAnExitWithoutClose) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // Leaked on purpose: the process ends without closing the store.
        auto* store = new SeriesStore("victim", KeyValueStore::Options::forPacks());
        if (store->open() != 0) childExit(2);
        for (int i = 0; i < kChildWrites; ++i) {
            if (store->put("k/" + std::to_string(i), std::to_string(i))) childExit(3);
        }
        childExit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(WEXITSTATUS(status), 0);

    SeriesStore store("victim", KeyValueStore::Options::forPacks());
    ASSERT_EQ(store.open(), 0);
    for (int i = 0; i < kChildWrites; ++i) {
        const ErrorOr<std::string> value = store.get("k/" + std::to_string(i));
        EXPECT_TRUE(value.ok()) << value.error().message();
        EXPECT_EQ(value.valueOr(""), std::to_string(i));
    }
}

// Two processes write and read one store at the same time. Each sees its own writes at once,
// the other's writes whole or not at all, and afterwards the database holds every write and
// passes a full integrity check.
TEST_F(StoreDamageTest, TwoProcessesWritingOneStoreDoNotCorruptIt) {
    MetaStore store("shared/", "Ferrit/Test", KeyValueStore::Options::forConfig());
    ASSERT_EQ(store.open(), 0);
    int go[2];
    ASSERT_EQ(::pipe(go), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::close(go[1]);
        char start = 0;
        if (::read(go[0], &start, 1) != 1) childExit(5);
        MetaStore mine("shared/", "Ferrit/Test", KeyValueStore::Options::forConfig());
        if (mine.open() != 0) childExit(2);
        for (int i = 0; i < kChildWrites; ++i) {
            const JSON value(JSONObject{
                {"who", JSON("child")}, {"i", JSON(i)}, {"pad", JSON(std::string(i, 'c'))}});
            if (mine.put("child/" + std::to_string(i), value)) childExit(3);
            if (mine.get("child/" + std::to_string(i)).valueOr(JSON()) != value) childExit(4);
            const ErrorOr<JSON> other = mine.get("parent/" + std::to_string(i));
            if (other.ok() && (*other)["who"] != JSON("parent")) childExit(6);
            if (!other.ok() && !Errors::isFileMissing(other.error())) childExit(7);
        }
        childExit(0);
    }
    ::close(go[0]);
    ASSERT_EQ(::write(go[1], "g", 1), 1);
    ::close(go[1]);
    for (int i = 0; i < kChildWrites; ++i) {
        const JSON value(JSONObject{
            {"who", JSON("parent")}, {"i", JSON(i)}, {"pad", JSON(std::string(i, 'p'))}});
        const Error error = store.put("parent/" + std::to_string(i), value);
        ASSERT_FALSE(error) << error.message();
        EXPECT_EQ(store.get("parent/" + std::to_string(i)).valueOr(JSON()), value);
        const ErrorOr<JSON> other = store.get("child/" + std::to_string(i));
        if (other.ok()) {
            EXPECT_EQ((*other)["who"], JSON("child"));
        }
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);

    for (int i = 0; i < kChildWrites; ++i) {
        const ErrorOr<JSON> child = store.get("child/" + std::to_string(i));
        EXPECT_EQ(child.valueOr(JSON())["i"], JSON(i)) << child.error().message();
        const ErrorOr<JSON> parent = store.get("parent/" + std::to_string(i));
        EXPECT_EQ(parent.valueOr(JSON())["i"], JSON(i)) << parent.error().message();
    }
    store.close();
    EXPECT_EQ(FerritTest::rawQuery(databaseFile("shared"), "PRAGMA integrity_check"), "ok");
    ASSERT_EQ(store.open(), 0);
}

}  // namespace
}  // namespace FerritCore
