// A root that cannot be written: stores open for reading and keep what they hold, writes wait and
// say why, the state says why in words, and writing resumes once a probe file can be written.
// Faults come from the file layer (FileUtil::Calls) where the system's own writes meet them;
// SQLite's side is a real read-only open of real database files.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>

#include "base/Errors.h"
#include "base/FileUtil.h"
#include "base/StorageState.h"
#include "storage/ConfigStore.h"
#include "storage/KeyValueStore.h"
#include "storage/PacksStore.h"
#include "storage/Store.h"
#include "tests/storage/StoreFixture.h"

namespace FerritCore {
namespace {

using MarlLogger::json::JSON;

// Refuses, with one errno, every change of the disk under a folder while armed.
class RefusingCalls : public FileUtil::Calls {
  public:
    RefusingCalls(std::string under, int errnum) : under_(std::move(under)), errnum_(errnum) {}
    bool armed = true;

    FILE* openForWrite(const char* path, const char* mode) override {
        if (refuses(path)) return nullptr;
        return FileUtil::Calls::openForWrite(path, mode);
    }
    int makeDirectory(const char* path, mode_t mode) override {
        return refuses(path) ? -1 : FileUtil::Calls::makeDirectory(path, mode);
    }
    int rename(const char* from, const char* to) override {
        return refuses(to) ? -1 : FileUtil::Calls::rename(from, to);
    }

  private:
    bool refuses(const char* path) {
        if (!armed || !std::string_view(path).starts_with(under_)) return false;
        errno = errnum_;
        return true;
    }
    std::string under_;
    int errnum_;
};

class ScopedCalls {
  public:
    explicit ScopedCalls(FileUtil::Calls* calls) { FileUtil::setCalls(calls); }
    ~ScopedCalls() { FileUtil::setCalls(nullptr); }
};

class ReadOnlyStoreTest : public FerritTest::StoreFixture {
  protected:
    std::string folder(const std::string& name) const { return root() + name; }
    static std::string fileBytes(const std::string& path) {
        std::ifstream in(path, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    // A store with two keys, closed cleanly: its whole content lies in the database file.
    void writeClosedStore(const std::string& path) {
        std::unique_ptr<KeyValueStore> store;
        ASSERT_EQ(KeyValueStore::open(path, KeyValueStore::Options::forPacks(), &store), 0);
        ASSERT_EQ(store->insert("a", "first"), 0);
        ASSERT_EQ(store->insert("b", std::string(40000, 'b')), 0);
        store.reset();
        ASSERT_FALSE(std::filesystem::exists(path + "/store.db-wal"));
    }
};

TEST_F(ReadOnlyStoreTest, ReadOnlyOpenOfACleanlyClosedStoreReadsAndWritesNothing) {
    const std::string path = folder("kv");
    writeClosedStore(path);
    const std::string before = fileBytes(path + "/store.db");

    std::unique_ptr<KeyValueStore> store;
    ASSERT_EQ(KeyValueStore::open(path, KeyValueStore::Options::forPacks(), &store,
                                  KeyValueStore::Access::ReadOnly),
              0);
    EXPECT_TRUE(store->readOnly());
    std::string value;
    bool found = false;
    ASSERT_EQ(store->get("b", value, found), 0);
    EXPECT_TRUE(found);
    EXPECT_EQ(value, std::string(40000, 'b'));
    EXPECT_EQ(store->insert("c", "x") & 0xFF, SQLITE_READONLY);
    store.reset();

    EXPECT_EQ(fileBytes(path + "/store.db"), before);
    // SQLite may leave an empty log where the folder can be written; it never fills it.
    const std::string log = path + "/store.db-wal";
    EXPECT_TRUE(!std::filesystem::exists(log) || std::filesystem::file_size(log) == 0);
}

TEST_F(ReadOnlyStoreTest, ReadOnlyOpenSeesWhatTheLogHolds) {
    const std::string path = folder("kv");
    std::unique_ptr<KeyValueStore> writer;
    ASSERT_EQ(KeyValueStore::open(path, KeyValueStore::Options::forPacks(), &writer), 0);
    ASSERT_EQ(writer->insert("in-log", "yes"), 0);
    ASSERT_GT(std::filesystem::file_size(path + "/store.db-wal"), 0u);

    std::unique_ptr<KeyValueStore> reader;
    ASSERT_EQ(KeyValueStore::open(path, KeyValueStore::Options::forPacks(), &reader,
                                  KeyValueStore::Access::ReadOnly),
              0);
    std::string value;
    bool found = false;
    ASSERT_EQ(reader->get("in-log", value, found), 0);
    EXPECT_TRUE(found);
    EXPECT_EQ(value, "yes");
}

TEST_F(ReadOnlyStoreTest, ReadOnlyOpenOfAMissingStoreCreatesNothing) {
    const std::string path = folder("absent");
    std::unique_ptr<KeyValueStore> store;
    EXPECT_NE(KeyValueStore::open(path, KeyValueStore::Options::forPacks(), &store,
                                  KeyValueStore::Access::ReadOnly),
              0);
    EXPECT_FALSE(store);
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(ReadOnlyStoreTest, WriteFailuresUnderTheRootTurnTheStateReadOnlyInWords) {
    EXPECT_TRUE(StorageState::writable());
    EXPECT_EQ(StorageState::describe(), "writable");
    // Another errno, or a path outside the root, says nothing about the root.
    StorageState::noteWriteFailure(EIO, root() + "apps/x");
    StorageState::noteWriteFailure(ENOSPC, "/elsewhere/x");
    EXPECT_TRUE(StorageState::writable());

    RefusingCalls calls(root(), ENOSPC);
    ScopedCalls installed(&calls);
    EXPECT_EQ(FileUtil::writeFile(root() + "some.file", "bytes"), ENOSPC);
    EXPECT_FALSE(StorageState::writable());
    EXPECT_EQ(StorageState::describe(), "read-only: disk full at root " + root());
}

TEST_F(ReadOnlyStoreTest, EachCauseHasItsWords) {
    StorageState::enterReadOnly(StorageState::Cause::ReadOnlyFileSystem, root() + "packs");
    EXPECT_EQ(StorageState::describe(),
              "read-only: root " + root() + " is on a read-only file system");
    StorageState::markWritable();
    StorageState::enterReadOnly(StorageState::Cause::PermissionDenied, root() + "packs");
    EXPECT_EQ(StorageState::describe(), "read-only: permission denied at " + root() + "packs");
    EXPECT_EQ(StorageState::causeOf(EROFS), StorageState::Cause::ReadOnlyFileSystem);
    EXPECT_EQ(StorageState::causeOf(EDQUOT), StorageState::Cause::DiskFull);
    EXPECT_EQ(StorageState::causeOf(EACCES), StorageState::Cause::PermissionDenied);
    EXPECT_EQ(StorageState::causeOf(EIO), StorageState::Cause::None);
}

TEST_F(ReadOnlyStoreTest, WritesWaitWhileReadOnlyAndSayWhy) {
    ConfigStore& store = ConfigStore::instance();
    ASSERT_FALSE(store.put("kept", JSON(1)));
    StorageState::enterReadOnly(StorageState::Cause::DiskFull, root());

    const Error error = store.put("late", JSON(2));
    EXPECT_EQ(error.code(), Errors::kFileWrite);
    EXPECT_EQ(error.message(),
              "Storage \"config_v2/late\" write paused: read-only: disk full at "
              "root " +
                  root());
    store.remove("kept");
    EXPECT_EQ(PacksStore::instance().put("k", "v").code(), Errors::kFileWrite);
    // Reads go on.
    EXPECT_EQ(store.get("kept").valueOr(JSON()), JSON(1));

    StorageState::markWritable();
    EXPECT_EQ(store.get("late").error().code(), Errors::kFileNotExists)
        << "nothing was written while paused";
    EXPECT_EQ(store.get("kept").valueOr(JSON()), JSON(1)) << "nothing was deleted while paused";
}

// A damaged database in a folder that cannot be written: before, the store was removed and
// created afresh; now nothing is removed until writing works, and then the next trigger's resume
// replaces it as any open would.
TEST_F(ReadOnlyStoreTest, DamagedStoreIsNotReplacedWhileTheFolderCannotBeWritten) {
    const std::string database = databaseFile("config_v2");
    std::filesystem::create_directories(folder("config_v2"));
    std::ofstream(database, std::ios::binary) << std::string(20000, 'x');
    RefusingCalls calls(root(), EACCES);
    ScopedCalls installed(&calls);
    restart();

    ConfigStore& store = ConfigStore::instance();
    EXPECT_FALSE(store.isOpen());
    EXPECT_TRUE(store.isReadOnly());
    EXPECT_TRUE(fileBytes(database) == std::string(20000, 'x')) << "the file was replaced";
    EXPECT_EQ(StorageState::describe(), "read-only: permission denied at " + folder("config_v2"));
    EXPECT_FALSE(Store::resumeWriting()) << "the probe still fails";

    calls.armed = false;
    EXPECT_TRUE(Store::resumeWriting());
    EXPECT_TRUE(StorageState::writable());
    EXPECT_TRUE(store.isOpen());
    EXPECT_FALSE(store.isReadOnly());
    const Error error = store.put("after", JSON(3));
    EXPECT_FALSE(error) << error.message();
}

// A full disk is never a reason to remove a store, even one that does not open.
TEST_F(ReadOnlyStoreTest, FullDiskAtOpenRemovesNothing) {
    writeClosedStore(folder("packs"));
    // SQLite does not meet the fault layer; the store's probe does. A database of another format
    // version, which would be replaced on a writable root, stands for the failed open.
    {
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open(databaseFile("packs").c_str(), &db), SQLITE_OK);
        ASSERT_EQ(sqlite3_exec(db, "PRAGMA user_version=9", nullptr, nullptr, nullptr), SQLITE_OK);
        sqlite3_close(db);
    }
    RefusingCalls calls(root(), ENOSPC);
    ScopedCalls installed(&calls);
    restart();
    PacksStore& store = PacksStore::instance();
    EXPECT_TRUE(store.isReadOnly());
    EXPECT_TRUE(std::filesystem::exists(databaseFile("packs"))) << "nothing removed on a full disk";
    EXPECT_EQ(StorageState::describe(), "read-only: disk full at root " + root());
    EXPECT_EQ(FerritTest::rawQuery(databaseFile("packs"), "PRAGMA user_version"), "9");
}

// SQLite's codes in store messages come with SQLite's words; the fixed text stays before them.
TEST_F(ReadOnlyStoreTest, StoreMessagesCarrySqlitesWords) {
    EXPECT_EQ(withStatusText(Errors::initStorageFailed("packs", SQLITE_READONLY), SQLITE_READONLY)
                  .message(),
              "Initialize storage \"packs\" failed: 8 (attempt to write a readonly database)");
    EXPECT_EQ(
        withStatusText(Errors::storeRead("config_v2/", "k", SQLITE_IOERR), SQLITE_IOERR).message(),
        "read store \"config_v2/k\" failed: 10 (disk I/O error)");
    const Error write =
        withStatusText(Errors::storageWrite("packs", "k", SQLITE_FULL), SQLITE_FULL);
    EXPECT_EQ(write.code(), Errors::kFileWrite);
    EXPECT_EQ(write.message(), "Storage \"packs/k\" write failed: 13 (database or disk is full)");
    const Error erase =
        withStatusText(Errors::storageDelete("packs", "k", SQLITE_BUSY), SQLITE_BUSY);
    EXPECT_EQ(erase.code(), Errors::kStorageDelete);
    EXPECT_EQ(erase.message(), "Storage \"packs/k\" delete failed: 5 (database is locked)");
    // A read through a real store that is not open says so too.
    PacksStore::instance().close();
    const ErrorOr<std::string> value = PacksStore::instance().get("config");
    EXPECT_FALSE(value.ok());
    EXPECT_EQ(value.error().message(), "Initialize storage \"packs\" failed: -1 (store is closed)");
}

}  // namespace
}  // namespace FerritCore
