// The packs store keeps a file's bytes once, under the MD5 they were checked against, and every
// version that has the file names them: what these tests pin down is that a copy between versions
// writes no bytes, that bytes go exactly when the last row naming them goes (never before, never
// later), that no row can name bytes that are not there, and that a store of the earlier format
// migrates at open in one step, a kill at any write of it leaving the old format or the new.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/Digest.h"
#include "storage/KeyValueStore.h"
#include "tests/storage/StoreFixture.h"

namespace FerritCore {
namespace {

using FerritTest::rawQuery;
using Checked = KeyValueStore::CheckedValue;

// The layout of the earlier format: one table of keys and their bytes.
KeyValueStore::Options previousFormat() {
    KeyValueStore::Options options = KeyValueStore::Options::forPacks();
    options.formatVersion = 2;
    options.sharedContent = false;
    options.migratesFrom = 0;
    return options;
}

class SharedContentTest : public FerritTest::StoreFixture {
  protected:
    void SetUp() override {
        FerritTest::StoreFixture::SetUp();
        ASSERT_EQ(KeyValueStore::open(folder(), KeyValueStore::Options::forPacks(), &store_), 0);
    }
    std::string folder() const { return (temp_.path() / "packs").string(); }
    std::string file() const { return folder() + "/" + KeyValueStore::kFileName; }

    static std::string valueOf(KeyValueStore& store, std::string_view key) {
        std::string value;
        bool found = false;
        EXPECT_EQ(store.get(key, value, found), 0);
        return found ? value : "<missing>";
    }
    std::string valueOf(std::string_view key) { return valueOf(*store_, key); }
    // A handle on the store that only reads, as a process on a read-only disk has; null (with a
    // failure recorded) when it cannot be opened.
    std::unique_ptr<KeyValueStore> openReader() {
        std::unique_ptr<KeyValueStore> reader;
        EXPECT_EQ(KeyValueStore::open(folder(), KeyValueStore::Options::forPacks(), &reader,
                                      KeyValueStore::Access::ReadOnly),
                  0);
        return reader;
    }
    std::string contents() { return rawQuery(file(), "SELECT count(*) FROM content"); }
    // Content that no row names: what a missed release would leave.
    std::string orphans() {
        return rawQuery(file(),
                        "SELECT count(*) FROM content WHERE NOT EXISTS "
                        "(SELECT 1 FROM kv WHERE kv.c = content.h)");
    }

    // Version 1 of a pack: three files checked against their MD5, the list as plain bytes.
    void installFirst() {
        ASSERT_EQ(store_->insertAllChecked({{"p/1/a.js", a_, md5A_},
                                            {"p/1/b.css", b_, md5B_},
                                            {"p/1/c.png", c_, md5C_},
                                            {"p/1/list", "the list", ""}}),
                  0);
    }

    std::unique_ptr<KeyValueStore> store_;
    const std::string a_ = std::string(40000, 'a') + "alpha";
    const std::string b_ = "beta";
    const std::string c_ = std::string("\x00\xFF\x80 binary", 10);
    const std::string md5A_ = Digest::md5Hex(a_);
    const std::string md5B_ = Digest::md5Hex(b_);
    const std::string md5C_ = Digest::md5Hex(c_);
};

TEST_F(SharedContentTest, CheckedValuesReadBackAndAreStoredOnce) {
    installFirst();
    // Another key of the pack with the same bytes names the same content.
    ASSERT_EQ(store_->insertAllChecked({{"p/7/copy.js", a_, md5A_}}), 0);
    EXPECT_EQ(valueOf("p/1/a.js"), a_);
    EXPECT_EQ(valueOf("p/1/b.css"), b_);
    EXPECT_EQ(valueOf("p/1/c.png"), c_);
    EXPECT_EQ(valueOf("p/1/list"), "the list");
    EXPECT_EQ(valueOf("p/7/copy.js"), a_);
    EXPECT_EQ(contents(), "3");
    // The rows themselves hold no bytes of a shared content.
    EXPECT_EQ(rawQuery(file(), "SELECT sum(length(v)) FROM kv WHERE c IS NOT NULL"), "0");
}

TEST_F(SharedContentTest, CopyBetweenVersionsNamesTheSameContent) {
    installFirst();
    ASSERT_EQ(store_->insertAllChecked({{"p/2/b.css", "new beta", Digest::md5Hex("new beta")}}), 0);
    const std::string pagesBefore = rawQuery(file(), "PRAGMA page_count");
    uint64_t bytes = 0;
    ASSERT_EQ(store_->copyPrefix("p/1/", "p/2/", {"c.png"}, bytes), 0);
    EXPECT_EQ(valueOf("p/2/a.js"), a_);
    EXPECT_EQ(valueOf("p/2/b.css"), "new beta");  // written by the increment: kept
    EXPECT_EQ(valueOf("p/2/c.png"), "<missing>");
    EXPECT_EQ(valueOf("p/2/list"), "the list");
    // The sizes of what the new version now has, the shared bytes included.
    EXPECT_EQ(bytes, a_.size() + std::string("the list").size());
    EXPECT_EQ(contents(), "4");
    EXPECT_EQ(rawQuery(file(), "SELECT c FROM kv WHERE k = CAST('p/2/a.js' AS BLOB)"),
              "p/" + md5A_);
    // 40 KB of shared bytes would take three pages more had they been copied.
    store_.reset();
    EXPECT_EQ(rawQuery(file(), "PRAGMA page_count"), pagesBefore);
}

// Eviction, cleanup and uninstall all delete a version's range: the content that the other version
// names stays, and what no row names any more goes in the same statement.
TEST_F(SharedContentTest, RemovingAVersionKeepsWhatAnotherNamesAndLeavesNoOrphan) {
    installFirst();
    uint64_t bytes = 0;
    ASSERT_EQ(store_->copyPrefix("p/1/", "p/2/", {"c.png"}, bytes), 0);
    const KeyRange first = prefixRange("p/1/");
    ASSERT_EQ(store_->eraseRange(first.begin(), first.end()), 0);
    EXPECT_EQ(valueOf("p/2/a.js"), a_);
    EXPECT_EQ(valueOf("p/2/b.css"), b_);
    EXPECT_EQ(contents(), "2") << "c.png went with the only version that had it";
    EXPECT_EQ(orphans(), "0");

    const KeyRange second = prefixRange("p/2/");
    ASSERT_EQ(store_->eraseRange(second.begin(), second.end()), 0);
    EXPECT_EQ(contents(), "0");
    EXPECT_EQ(rawQuery(file(), "SELECT count(*) FROM kv"), "0");
}

TEST_F(SharedContentTest, EraseAndClearReleaseContent) {
    installFirst();
    uint64_t bytes = 0;
    ASSERT_EQ(store_->copyPrefix("p/1/", "p/2/", {}, bytes), 0);
    ASSERT_EQ(store_->erase("p/1/a.js"), 0);
    EXPECT_EQ(valueOf("p/2/a.js"), a_);
    EXPECT_EQ(contents(), "3");
    ASSERT_EQ(store_->erase("p/2/a.js"), 0);
    EXPECT_EQ(contents(), "2");
    ASSERT_EQ(store_->clear(), 0);
    EXPECT_EQ(contents(), "0");
}

// A key given other bytes lets go of its content, whether the new bytes are plain or shared.
TEST_F(SharedContentTest, ReplacingAValueReleasesItsContent) {
    installFirst();
    ASSERT_EQ(store_->insert("p/1/a.js", "plain now"), 0);
    EXPECT_EQ(valueOf("p/1/a.js"), "plain now");
    EXPECT_EQ(contents(), "2");
    ASSERT_EQ(store_->insertAllChecked({{"p/1/b.css", c_, md5C_}}), 0);
    EXPECT_EQ(valueOf("p/1/b.css"), c_);
    EXPECT_EQ(contents(), "1");
    EXPECT_EQ(orphans(), "0");
}

// Bytes checked anew replace what the store held under their MD5, for every key that names it:
// a reinstall mends what went wrong with the stored bytes, as it did when each version had its
// own.
TEST_F(SharedContentTest, CheckedBytesReplaceWhatWasStoredUnderTheirMd5) {
    installFirst();
    uint64_t bytes = 0;
    ASSERT_EQ(store_->copyPrefix("p/1/", "p/2/", {}, bytes), 0);
    store_.reset();
    static_cast<void>(rawQuery(file(), "UPDATE content SET v = x'00' WHERE h = CAST('p/" + md5B_ +
                                           "' AS BLOB) RETURNING 1"));
    ASSERT_EQ(KeyValueStore::open(folder(), KeyValueStore::Options::forPacks(), &store_), 0);
    ASSERT_EQ(valueOf("p/1/b.css"), std::string(1, '\0'));
    ASSERT_EQ(store_->insertAllChecked({{"p/3/b.css", b_, md5B_}}), 0);
    EXPECT_EQ(valueOf("p/1/b.css"), b_);
    EXPECT_EQ(valueOf("p/2/b.css"), b_);
    EXPECT_EQ(contents(), "3");
}

TEST_F(SharedContentTest, NoRowNamesContentThatIsNotThere) {
    installFirst();
    // Not through the store: the database itself refuses it, whoever writes.
    const std::string missing = Digest::md5Hex("never stored");
    EXPECT_EQ(rawQuery(file(), "INSERT INTO kv(k, v, c) VALUES(x'70', x'', CAST('" + missing +
                                   "' AS BLOB)) RETURNING 1"),
              "");
    EXPECT_EQ(rawQuery(file(), "UPDATE kv SET c = CAST('" + missing + "' AS BLOB) RETURNING 1"),
              "");
    EXPECT_EQ(rawQuery(file(), "SELECT count(*) FROM kv WHERE c = CAST('" + missing + "' AS BLOB)"),
              "0");
    EXPECT_EQ(valueOf("p/1/b.css"), b_);
    // What is not an MD5 is no name for content: nothing of the batch is stored.
    EXPECT_EQ(store_->insertAllChecked({{"p/3/x", "x", Digest::md5Hex("x")}, {"p/3/y", "y", "Y"}}),
              SQLITE_MISUSE);
    EXPECT_EQ(valueOf("p/3/x"), "<missing>");
    EXPECT_EQ(contents(), "3");
}

// Content is named by its pack and its MD5: a pack whose publisher ships an MD5-colliding twin
// of another pack's file (here: other bytes given under the same MD5) replaces only what its own
// versions read.
TEST_F(SharedContentTest, PacksWithOneMd5EachServeTheirOwnBytes) {
    installFirst();
    const std::string twin = "bytes another publisher claims have the MD5 of a.js";
    ASSERT_EQ(store_->insertAllChecked({{"q/1/a.js", twin, md5A_}}), 0);
    EXPECT_EQ(valueOf("p/1/a.js"), a_);
    EXPECT_EQ(valueOf("q/1/a.js"), twin);
    EXPECT_EQ(contents(), "4");
    // Either order: the first pack's writes do not reach the second's bytes either.
    ASSERT_EQ(store_->insertAllChecked({{"p/2/a.js", a_, md5A_}}), 0);
    EXPECT_EQ(valueOf("q/1/a.js"), twin);
    // A copy would carry a name of one pack's content into another: refused, nothing copied.
    uint64_t bytes = 0;
    EXPECT_EQ(store_->copyPrefix("p/1/", "q/2/", {}, bytes), SQLITE_MISUSE);
    EXPECT_EQ(valueOf("q/2/a.js"), "<missing>");
    // A key without a pack has nothing to scope a content to.
    EXPECT_EQ(store_->insertAllChecked({{"loose", a_, md5A_}}), SQLITE_MISUSE);
    // Removing one pack leaves the other's bytes.
    const KeyRange q = prefixRange("q/");
    ASSERT_EQ(store_->eraseRange(q.begin(), q.end()), 0);
    EXPECT_EQ(valueOf("q/1/a.js"), "<missing>");
    EXPECT_EQ(valueOf("p/1/a.js"), a_);
    EXPECT_EQ(valueOf("p/2/a.js"), a_);
    EXPECT_EQ(contents(), "3");
    EXPECT_EQ(orphans(), "0");
}

// A store written in the earlier format: every value reads back the same after the migration, and
// the migrated store shares content from then on.
TEST_F(SharedContentTest, StoreOfThePreviousFormatMigratesAtOpen) {
    store_.reset();
    ASSERT_TRUE(KeyValueStore::remove(folder()) == 0);
    std::map<std::string, std::string> values{{"config", "{\"packs\":1}"},
                                              {"p/1/a.js", a_},
                                              {"p/1/c.png", c_},
                                              {std::string("p/1/\x01\xFE\x00z", 8), ""}};
    {
        std::unique_ptr<KeyValueStore> old;
        ASSERT_EQ(KeyValueStore::open(folder(), previousFormat(), &old), 0);
        for (const auto& [key, value] : values) ASSERT_EQ(old->insert(key, value), 0);
    }
    ASSERT_EQ(rawQuery(file(), "PRAGMA user_version"), "2");
    // A reader that cannot write reads the earlier format as it is.
    {
        std::unique_ptr<KeyValueStore> reader = openReader();
        ASSERT_TRUE(reader);
        EXPECT_EQ(valueOf(*reader, "p/1/a.js"), a_);
    }
    ASSERT_EQ(KeyValueStore::open(folder(), KeyValueStore::Options::forPacks(), &store_), 0);
    EXPECT_EQ(rawQuery(file(), "PRAGMA user_version"), "3");
    for (const auto& [key, value] : values) EXPECT_EQ(valueOf(key), value) << key;
    uint64_t bytes = 0;
    ASSERT_EQ(store_->insertAllChecked({{"p/2/b.css", b_, md5B_}}), 0);
    ASSERT_EQ(store_->copyPrefix("p/2/", "p/3/", {}, bytes), 0);
    EXPECT_EQ(valueOf("p/3/b.css"), b_);
    EXPECT_EQ(contents(), "1");
    // An earlier build finds a format it does not know and refuses it rather than misread it.
    std::unique_ptr<KeyValueStore> older;
    store_.reset();
    EXPECT_EQ(KeyValueStore::open(folder(), previousFormat(), &older), SQLITE_FORMAT);
}

// A handle that opened the store read-only in the previous format keeps its statements when
// another process migrates the store and installs: a row that now names its bytes elsewhere is a
// miss for it, never an empty body.
TEST_F(SharedContentTest, StaleReaderOfThePreviousFormatMissesAfterTheMigration) {
    store_.reset();
    ASSERT_TRUE(KeyValueStore::remove(folder()) == 0);
    {
        std::unique_ptr<KeyValueStore> old;
        ASSERT_EQ(KeyValueStore::open(folder(), previousFormat(), &old), 0);
        ASSERT_EQ(old->insert("p/1/list", "the list"), 0);
    }
    std::unique_ptr<KeyValueStore> reader = openReader();
    ASSERT_TRUE(reader);
    ASSERT_EQ(valueOf(*reader, "p/1/list"), "the list");

    ASSERT_EQ(KeyValueStore::open(folder(), KeyValueStore::Options::forPacks(), &store_), 0);
    ASSERT_EQ(rawQuery(file(), "PRAGMA user_version"), "3");
    ASSERT_EQ(store_->insertAllChecked({{"p/2/a.js", a_, md5A_}}), 0);
    ASSERT_EQ(rawQuery(file(), "SELECT length(v) FROM kv WHERE k = CAST('p/2/a.js' AS BLOB)"), "0");

    std::string value = "stale";
    bool found = true;
    EXPECT_EQ(reader->get("p/2/a.js", value, found), 0);
    EXPECT_FALSE(found);
    EXPECT_EQ(value, "");
    bool visited = false;
    EXPECT_EQ(reader->visit(
                  "p/2/a.js", [&](std::string_view) { visited = true; }, found),
              0);
    EXPECT_FALSE(found);
    EXPECT_FALSE(visited);
    // A new handle reads the migrated store in its own format.
    std::unique_ptr<KeyValueStore> fresh = openReader();
    ASSERT_TRUE(fresh);
    EXPECT_EQ(valueOf(*fresh, "p/2/a.js"), a_);
}

// ---- A kill at every write of the migration ---------------------------------------------------

// The default VFS, but the process ends at the `killAt`th write, truncation or sync of any of the
// database's files, as a kill would end it there. The files are the default VFS's own: only their
// methods are a copy with those three counted (one copy per kind of file the VFS makes).
constexpr int kKinds = 4;
sqlite3_vfs* realVfs = nullptr;
sqlite3_vfs killingVfs;
const sqlite3_io_methods* realMethods[kKinds] = {};
sqlite3_io_methods killingMethods[kKinds];
int writesLeft = 0;
constexpr int kKilled = 86;
constexpr int kCompleted = 87;
constexpr int kTooManyKinds = 88;

void stepOrDie() {
    if (--writesLeft == 0) ::_exit(kKilled);
}

const sqlite3_io_methods* realOf(sqlite3_file* file) {
    for (int i = 0; i < kKinds; ++i) {
        if (file->pMethods == &killingMethods[i]) return realMethods[i];
    }
    ::_exit(kTooManyKinds);
}

void installKillingVfs(int killAt) {
    writesLeft = killAt;
    realVfs = sqlite3_vfs_find(nullptr);
    killingVfs = *realVfs;
    killingVfs.zName = "ferrit-test-kill";
    killingVfs.pNext = nullptr;
    killingVfs.xOpen = [](sqlite3_vfs*, sqlite3_filename name, sqlite3_file* file, int flags,
                          int* outFlags) {
        const int rc = realVfs->xOpen(realVfs, name, file, flags, outFlags);
        if (file->pMethods == nullptr) return rc;
        int kind = 0;
        while (kind < kKinds && realMethods[kind] != nullptr && realMethods[kind] != file->pMethods)
            ++kind;
        if (kind == kKinds) ::_exit(kTooManyKinds);
        if (realMethods[kind] == nullptr) {
            realMethods[kind] = file->pMethods;
            killingMethods[kind] = *file->pMethods;
            killingMethods[kind].xWrite = [](sqlite3_file* f, const void* in, int amount,
                                             sqlite3_int64 offset) {
                stepOrDie();
                return realOf(f)->xWrite(f, in, amount, offset);
            };
            killingMethods[kind].xTruncate = [](sqlite3_file* f, sqlite3_int64 size) {
                stepOrDie();
                return realOf(f)->xTruncate(f, size);
            };
            killingMethods[kind].xSync = [](sqlite3_file* f, int syncFlags) {
                stepOrDie();
                return realOf(f)->xSync(f, syncFlags);
            };
        }
        file->pMethods = &killingMethods[kind];
        return rc;
    };
    sqlite3_vfs_register(&killingVfs, /*makeDefault=*/1);
}

// Whether the database's schema is wholly the earlier format (2) or wholly the new one (3); any
// mix is "mixed".
std::string formatOf(const std::string& file) {
    const std::string version = rawQuery(file, "PRAGMA user_version");
    const std::string columns = rawQuery(file, "SELECT count(*) FROM pragma_table_info('kv')");
    const std::string added = rawQuery(file,
                                       "SELECT count(*) FROM sqlite_schema WHERE name IN "
                                       "('content', 'kv_content', 'kv_names', 'kv_renames', "
                                       "'kv_release', 'kv_rerelease')");
    if (version == "2" && columns == "2" && added == "0") return "2";
    if (version == "3" && columns == "3" && added == "6") return "3";
    return "mixed: version " + version + ", " + columns + " columns, " + added + " objects";
}

TEST_F(SharedContentTest, KillAtAnyWriteOfTheMigrationLeavesOneFormat) {
    store_.reset();
    std::map<std::string, std::string> values;
    for (int i = 0; i < 200; ++i)
        values["p/1/file" + std::to_string(i)] = std::string(100 + i * 37, char('a' + i % 26));
    bool completed = false;
    int points = 0;
    for (int killAt = 1; !completed && killAt < 500; ++killAt) {
        ASSERT_EQ(KeyValueStore::remove(folder()), 0);
        {
            std::unique_ptr<KeyValueStore> old;
            ASSERT_EQ(KeyValueStore::open(folder(), previousFormat(), &old), 0);
            std::vector<std::pair<std::string, std::string>> entries(values.begin(), values.end());
            ASSERT_EQ(old->insertAll(entries), 0);
        }
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            installKillingVfs(killAt);
            std::unique_ptr<KeyValueStore> migrated;
            const int rc =
                KeyValueStore::open(folder(), KeyValueStore::Options::forPacks(), &migrated);
            ::_exit(rc == SQLITE_OK ? kCompleted : 1);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status));
        const int code = WEXITSTATUS(status);
        ASSERT_TRUE(code == kKilled || code == kCompleted) << "exit " << code << " at " << killAt;
        completed = code == kCompleted;
        if (!completed) ++points;
        const std::string format = formatOf(file());
        ASSERT_TRUE(format == "2" || format == "3") << format << " after a kill at " << killAt;
        if (completed) {
            EXPECT_EQ(format, "3");
        }
        // The next start migrates what is left, if anything, and every value reads back.
        ASSERT_EQ(KeyValueStore::open(folder(), KeyValueStore::Options::forPacks(), &store_), 0);
        EXPECT_EQ(formatOf(file()), "3");
        for (const auto& [key, value] : values) ASSERT_EQ(valueOf(key), value) << key;
        store_.reset();
    }
    EXPECT_TRUE(completed);
    // The migration writes at least its log and syncs it: a kill between them was tried.
    EXPECT_GE(points, 2);
}

}  // namespace
}  // namespace FerritCore
