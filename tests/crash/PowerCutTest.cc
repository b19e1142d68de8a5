// Durability of a pack install, tested by simulated power cuts in the manner of a fault-injection
// file system: every change that the install makes to the disk goes through a layer that remembers
// what was made durable and what was not, and at a cut point the machine goes off: from then on
// every change and every sync is refused. The process state is then shut down, what was not
// synced is lost from the real files, and the system starts again on the same root as a host would
// after the power comes back.
//
// What a cut loses, in one of three modes that the points take in turn:
//   drop       file data written since its last fdatasync is gone (a new file is empty, a
//              rewritten one has its earlier bytes), and so is every directory entry (a file
//              created, a link, a directory made, a rename or an exchange) whose directory was
//              not fsynced after it; a sync of the whole file system (syncfs) keeps them all;
//   truncate   the entries are kept, and the unsynced data is cut to half its length;
//   zero-fill  the entries are kept, and the unsynced data reads as zeros at its full length.
// The database's own files go through a VFS shim that keeps the pre-image of each unsynced write
// or truncation of the database and its write-ahead log: drop takes them all back, truncate takes
// back the later half (a log cut short), zero-fill zeroes each unsynced write. The shared-memory
// index is deleted at the restart, as a reboot does; the database rebuilds it. A removal is taken
// as durable at once: the worst case for whoever still needed what was removed.
//
// After the restart every URL of the pack must be served byte for byte as the old version or as the
// new one, all of them as the same version: never zero-filled, short or mixed. And once the commit
// that names the new version has returned, the new version must be what the restart finds.
//
//   power_cut_test                        FERRIT_POWER_CUT_POINTS points (default 70) for each of
//                                         three installs: an app's (always full) on the disk, and
//                                         a full and an incremental one in the packed store (210
//                                         in all)
//   FERRIT_POWER_CUT_FILES=N              files in each version of the pack (default 48)
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/FileUtil.h"
#include "base/Folder.h"
#include "base/ProcessState.h"
#include "ferritcore/ResourceResponse.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "model/PacksConfigStorage.h"
#include "model/SCache.h"
#include "runtime/TaskRunner.h"
#include "storage/PacksStore.h"
#include "tests/crash/CrashScenario.h"

namespace fs = std::filesystem;
using namespace FerritCore;
using namespace FerritCrash;

namespace {

constexpr const char* kPointsVariable = "FERRIT_POWER_CUT_POINTS";
constexpr int kDefaultPoints = 70;
constexpr const char* kFilesVariable = "FERRIT_POWER_CUT_FILES";
constexpr int kDefaultFiles = 48;
constexpr size_t kBytesPerFile = 2000;
constexpr uint64_t kSeed = 20261124;
constexpr uint64_t kNewSeq = 2;

// ---- The four installs ------------------------------------------------------------------------

// An app lives on the disk under "apps/"; a plain pack lives in the packed store.
// An app has no increments: its every version is a full one.
const Scenario kDiskFull{"diskFull", "app", kPackTypeACache, false};
const Scenario kPackedFull{"packedFull", "shop", kPackTypeFerrit, false};
const Scenario kPackedIncremental{"packedIncremental", "shop", kPackTypeFerrit, true};

FerritTest::SiteFiles version(int which) {
    return siteVersion(which, fromEnvironment(kFilesVariable, kDefaultFiles), kBytesPerFile, kSeed);
}

// ---- The machine's power ----------------------------------------------------------------------

enum class Loss { Drop, Truncate, ZeroFill };

const char* lossName(Loss loss) {
    switch (loss) {
        case Loss::Drop:
            return "drop";
        case Loss::Truncate:
            return "truncate";
        case Loss::ZeroFill:
            return "zero-fill";
    }
    return "";
}

// A directory entry changed and not yet durable: it becomes durable when the directory that holds
// its new name (by inode, whatever the directory is called by then) is fsynced.
struct EntryChange {
    enum Kind { Create, MakeDirectory, Link, Rename, Exchange } kind;
    ino_t fromDirectory = 0;
    std::string fromName;
    ino_t toDirectory = 0;
    std::string toName;
};

// One unsynced change of a database file: a write (with the bytes it replaced and the size before
// it) or a truncation (with the bytes it cut off).
struct DatabaseChange {
    bool truncation = false;
    int64_t offset = 0;
    int64_t length = 0;
    int64_t sizeBefore = 0;
    std::string before;
};

class Power {
  public:
    // Starts to watch a run on `root`: nothing is unsynced yet, and no cut is set.
    void watch(const std::string& root) {
        root_ = root;
        watching_ = true;
        off_ = false;
        steps_ = 0;
        cutAt_ = 0;
        data_.clear();
        entries_.clear();
        database_.clear();
    }
    void stopWatching() {
        watching_ = false;
        off_ = false;
    }
    bool watching() const { return watching_; }
    bool off() const { return off_; }
    int64_t steps() const { return steps_; }
    // The machine goes off just before the `step`th change or sync from now.
    void cutBefore(int64_t step) { cutAt_ = steps_ + step; }

    // Counts one change or sync; false when the machine is off (then nothing may happen).
    bool step() {
        if (!watching_) return true;
        if (off_) return false;
        if (++steps_ == cutAt_) off_ = true;
        return !off_;
    }
    bool below(const std::string& path) const {
        return watching_ && path.compare(0, root_.size(), root_) == 0;
    }

    // ---- Files
    // ----------------------------------------------------------------------------------- Before a
    // file is opened to be written: its bytes as they were, if it has no unsynced ones.
    void beforeWrite(const std::string& path, bool& created) {
        struct stat info;
        created = ::stat(path.c_str(), &info) != 0;
        if (!created && data_.count(info.st_ino) == 0) data_[info.st_ino] = readAll(path);
    }
    void afterCreate(const std::string& path) {
        struct stat info;
        if (::stat(path.c_str(), &info) != 0) return;
        data_[info.st_ino] = std::string();
        entries_.push_back({EntryChange::Create, 0, {}, directoryOf(path), nameOf(path)});
    }
    void entryChanged(EntryChange::Kind kind, const std::string& from, const std::string& to) {
        EntryChange change{kind, 0, {}, directoryOf(to), nameOf(to)};
        if (!from.empty()) {
            change.fromDirectory = directoryOf(from);
            change.fromName = nameOf(from);
        }
        entries_.push_back(std::move(change));
    }
    void dataSynced(int fd) {
        struct stat info;
        if (::fstat(fd, &info) == 0) data_.erase(info.st_ino);
    }
    // A sync of the whole file system: nothing written so far can be lost any more.
    void everythingSynced() {
        data_.clear();
        entries_.clear();
        database_.clear();
    }
    void directorySynced(int fd) {
        struct stat info;
        if (::fstat(fd, &info) != 0) return;
        std::erase_if(entries_,
                      [&](const EntryChange& change) { return change.toDirectory == info.st_ino; });
    }

    // ---- The database's files ------------------------------------------------------------------
    void databaseChanged(const std::string& path, DatabaseChange change) {
        database_[path].push_back(std::move(change));
    }
    void databaseSynced(const std::string& path) { database_.erase(path); }

    // After the process state is shut down: loses what the cut took, from the real files.
    void applyLoss(Loss loss) {
        const bool keepEntries = loss != Loss::Drop;
        if (!keepEntries) {
            for (auto it = entries_.rbegin(); it != entries_.rend(); ++it) undo(*it);
        }
        std::map<ino_t, fs::path> files;
        walk([&](const fs::path& path, const struct stat& info) {
            if (S_ISREG(info.st_mode)) files.emplace(info.st_ino, path);
        });
        for (const auto& [inode, before] : data_) {
            auto found = files.find(inode);
            if (found == files.end()) continue;
            const std::string now = readAll(found->second);
            switch (loss) {
                case Loss::Drop:
                    writeAll(found->second, before);
                    break;
                case Loss::Truncate:
                    writeAll(found->second, now.substr(0, now.size() / 2));
                    break;
                case Loss::ZeroFill:
                    writeAll(found->second, std::string(now.size(), '\0'));
                    break;
            }
        }
        for (const auto& [path, changes] : database_) loseDatabaseChanges(path, changes, loss);
        // A reboot empties the shared-memory index; the database rebuilds it from the log.
        walk([&](const fs::path& path, const struct stat&) {
            if (path.string().ends_with("-shm")) fs::remove(path);
        });
        lostFiles_ += data_.size();
        lostEntries_ += keepEntries ? 0 : entries_.size();
        for (const auto& [path, changes] : database_) lostDatabaseWrites_ += changes.size();
    }
    void clearCounts() { lostFiles_ = lostEntries_ = lostDatabaseWrites_ = 0; }
    size_t lostFiles_ = 0, lostEntries_ = 0, lostDatabaseWrites_ = 0;

  private:
    static std::string nameOf(const std::string& path) {
        std::string trimmed = path;
        while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
        return trimmed.substr(trimmed.rfind('/') + 1);
    }
    static ino_t directoryOf(const std::string& path) {
        std::string trimmed = path;
        while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
        struct stat info;
        const std::string parent = trimmed.substr(0, trimmed.rfind('/') + 1);
        return ::stat(parent.c_str(), &info) == 0 ? info.st_ino : 0;
    }

    template <typename F>
    void walk(F visit) {
        std::error_code error;
        for (fs::recursive_directory_iterator it(root_, error), end; !error && it != end;
             it.increment(error)) {
            struct stat info;
            if (::lstat(it->path().c_str(), &info) == 0) visit(it->path(), info);
        }
    }
    // Where a directory is now, by its inode.
    std::optional<fs::path> directoryNamed(ino_t inode) {
        struct stat info;
        if (::stat(root_.c_str(), &info) == 0 && info.st_ino == inode) return fs::path(root_);
        std::optional<fs::path> found;
        walk([&](const fs::path& path, const struct stat& entry) {
            if (!found && S_ISDIR(entry.st_mode) && entry.st_ino == inode) found = path;
        });
        return found;
    }

    // Takes back one entry change that no fsync made durable.
    void undo(const EntryChange& change) {
        const std::optional<fs::path> to = directoryNamed(change.toDirectory);
        if (!to) return;  // its directory went with an earlier undo
        const fs::path name = *to / change.toName;
        std::error_code ignored;
        switch (change.kind) {
            case EntryChange::Create:
            case EntryChange::Link:
            case EntryChange::MakeDirectory:
                fs::remove_all(name, ignored);
                return;
            case EntryChange::Rename: {
                const std::optional<fs::path> from = directoryNamed(change.fromDirectory);
                if (from && !fs::exists(*from / change.fromName)) {
                    fs::rename(name, *from / change.fromName, ignored);
                } else {
                    // The old name's directory is gone: what was renamed is lost with it.
                    fs::remove_all(name, ignored);
                }
                return;
            }
            case EntryChange::Exchange: {
                const std::optional<fs::path> from = directoryNamed(change.fromDirectory);
                if (!from) return;
                ::renameat2(AT_FDCWD, (*from / change.fromName).c_str(), AT_FDCWD, name.c_str(),
                            RENAME_EXCHANGE);
                return;
            }
        }
    }

    static void loseDatabaseChanges(const std::string& path,
                                    const std::vector<DatabaseChange>& changes, Loss loss) {
        if (!fs::exists(path)) return;
        std::string content = readAll(path);
        if (loss == Loss::ZeroFill) {
            for (const DatabaseChange& change : changes) {
                if (change.truncation) continue;
                const size_t from = static_cast<size_t>(change.offset);
                const size_t to =
                    std::min(content.size(), from + static_cast<size_t>(change.length));
                if (from < to) std::fill(content.begin() + from, content.begin() + to, '\0');
            }
        } else {
            // Drop takes every change back, truncate the later half (a log cut short); the
            // latest first, so that each finds the file as it left it.
            const size_t kept = loss == Loss::Truncate ? changes.size() / 2 : 0;
            for (size_t i = changes.size(); i > kept; --i) {
                const DatabaseChange& change = changes[i - 1];
                const size_t offset = static_cast<size_t>(change.offset);
                if (change.truncation) {
                    content.resize(offset);
                    content.append(change.before);
                    continue;
                }
                if (content.size() < offset + change.before.size())
                    content.resize(offset + change.before.size());
                content.replace(offset, change.before.size(), change.before);
                content.resize(static_cast<size_t>(change.sizeBefore));
            }
        }
        writeAll(path, content);
    }

    std::string root_;
    bool watching_ = false;
    bool off_ = false;
    int64_t steps_ = 0;
    int64_t cutAt_ = 0;
    // Inode -> its bytes at its last sync (empty for a file made since).
    std::map<ino_t, std::string> data_;
    std::vector<EntryChange> entries_;
    std::map<std::string, std::vector<DatabaseChange>> database_;
};

Power power;

int refuse() {
    errno = EIO;
    return -1;
}

// FileUtil's changes, through the power.
class PowerCalls : public FileUtil::Calls {
  public:
    FILE* openForWrite(const char* path, const char* mode) override {
        if (!power.below(path)) return Calls::openForWrite(path, mode);
        if (!power.step()) {
            errno = EIO;
            return nullptr;
        }
        bool created = false;
        power.beforeWrite(path, created);
        FILE* file = Calls::openForWrite(path, mode);
        if (file != nullptr && created) power.afterCreate(path);
        return file;
    }
    size_t write(FILE* file, const void* data, size_t size) override {
        if (power.watching() && !power.step()) {
            errno = EIO;
            return 0;
        }
        return Calls::write(file, data, size);
    }
    int rename(const char* from, const char* to) override {
        if (!power.below(to)) return Calls::rename(from, to);
        if (!power.step()) return refuse();
        const int result = Calls::rename(from, to);
        if (result == 0) power.entryChanged(EntryChange::Rename, from, to);
        return result;
    }
    int exchange(const char* a, const char* b) override {
        if (!power.below(b)) return Calls::exchange(a, b);
        if (!power.step()) return refuse();
        const int result = Calls::exchange(a, b);
        if (result == 0) power.entryChanged(EntryChange::Exchange, a, b);
        return result;
    }
    int link(const char* from, const char* to) override {
        if (!power.below(to)) return Calls::link(from, to);
        if (!power.step()) return refuse();
        const int result = Calls::link(from, to);
        if (result == 0) power.entryChanged(EntryChange::Link, std::string(), to);
        return result;
    }
    int makeDirectory(const char* path, mode_t mode) override {
        if (!power.below(path)) return Calls::makeDirectory(path, mode);
        if (!power.step()) return refuse();
        const int result = Calls::makeDirectory(path, mode);
        if (result == 0) power.entryChanged(EntryChange::MakeDirectory, std::string(), path);
        return result;
    }
    int remove(const char* path) override {
        if (power.below(path) && !power.step()) return refuse();
        return Calls::remove(path);
    }
    int removeDirectory(const char* path) override {
        if (power.below(path) && !power.step()) return refuse();
        return Calls::removeDirectory(path);
    }
    // The syncs only say what is durable: the power's loss is what a cut does, so the real ones
    // would only slow the test.
    int syncData(int fd) override {
        if (!power.watching()) return 0;
        if (!power.step()) return refuse();
        power.dataSynced(fd);
        return 0;
    }
    int syncDirectory(int fd) override {
        if (!power.watching()) return 0;
        if (!power.step()) return refuse();
        power.directorySynced(fd);
        return 0;
    }
    int syncFileSystem(int) override {
        if (!power.watching()) return 0;
        if (!power.step()) return refuse();
        power.everythingSynced();
        return 0;
    }
};

PowerCalls powerCalls;

// The database's files through the power: the database, its journal and its write-ahead log are
// watched, by path.
struct ShimFile {
    WrappedFile wrapped;
    char path[512];
    bool watched;
};

ShimFile* own(sqlite3_file* file) {
    return reinterpret_cast<ShimFile*>(file);
}

void shimOpen(sqlite3_file* file, sqlite3_filename name, int flags) {
    ShimFile* shim = own(file);
    shim->path[0] = '\0';
    shim->watched =
        name != nullptr &&
        (flags & (SQLITE_OPEN_MAIN_DB | SQLITE_OPEN_WAL | SQLITE_OPEN_MAIN_JOURNAL)) != 0;
    if (shim->watched) std::snprintf(shim->path, sizeof(shim->path), "%s", name);
}

int shimDelete(const char* name) {
    if (power.below(name) && !power.step()) return SQLITE_IOERR_DELETE;
    power.databaseSynced(name);
    return SQLITE_OK;
}

bool watchedFile(sqlite3_file* file) {
    return own(file)->watched && power.below(own(file)->path);
}

int shimWrite(sqlite3_file* file, const void* data, int amount, sqlite3_int64 offset) {
    sqlite3_file* real = realOf(file);
    if (watchedFile(file)) {
        if (!power.step()) return SQLITE_IOERR_WRITE;
        DatabaseChange change;
        change.offset = offset;
        change.length = amount;
        sqlite3_int64 size = 0;
        real->pMethods->xFileSize(real, &size);
        change.sizeBefore = size;
        if (offset < size) {
            change.before.resize(
                static_cast<size_t>(std::min<sqlite3_int64>(amount, size - offset)));
            real->pMethods->xRead(real, change.before.data(),
                                  static_cast<int>(change.before.size()), offset);
        }
        power.databaseChanged(own(file)->path, std::move(change));
    }
    return real->pMethods->xWrite(real, data, amount, offset);
}

int shimTruncate(sqlite3_file* file, sqlite3_int64 size) {
    sqlite3_file* real = realOf(file);
    if (watchedFile(file)) {
        if (!power.step()) return SQLITE_IOERR_TRUNCATE;
        DatabaseChange change;
        change.truncation = true;
        change.offset = size;
        sqlite3_int64 before = 0;
        real->pMethods->xFileSize(real, &before);
        change.sizeBefore = before;
        if (before > size) {
            change.before.resize(static_cast<size_t>(before - size));
            real->pMethods->xRead(real, change.before.data(),
                                  static_cast<int>(change.before.size()), size);
        }
        power.databaseChanged(own(file)->path, std::move(change));
    }
    return real->pMethods->xTruncate(real, size);
}

int shimSync(sqlite3_file* file, int) {
    if (watchedFile(file)) {
        if (!power.step()) return SQLITE_IOERR_FSYNC;
        power.databaseSynced(own(file)->path);
    }
    // The power's loss is what a cut does; the real sync would only slow the test.
    return SQLITE_OK;
}

// Registered as the default before any store opens.
void installShimVfs() {
    VfsHooks hooks;
    hooks.name = "ferrit-power-cut";
    hooks.fileSize = static_cast<int>(sizeof(ShimFile));
    hooks.open = shimOpen;
    hooks.remove = shimDelete;
    hooks.write = shimWrite;
    hooks.truncate = shimTruncate;
    hooks.sync = shimSync;
    installVfs(hooks);
}

// The configuration's commits, noting when the one that names the new version has returned: from
// then on a cut must leave the new version.
class WatchedConfigStorage : public PacksConfigStorage {
  public:
    explicit WatchedConfigStorage(std::string name) : name_(std::move(name)) {}
    Error writeConfig(const std::string& text, Durability durability) override {
        Error error = PacksConfigStorage::writeConfig(text, durability);
        if (!error && !power.off() && namesNewVersion(text)) published = true;
        return error;
    }
    bool published = false;

  private:
    bool namesNewVersion(const std::string& text) const {
        Error error;
        std::shared_ptr<FConfig> config = FConfig::parse(text, "test", error, false);
        if (!config) return false;
        PackPtr pack = config->find(name_);
        return pack && pack->installedSeq == kNewSeq;
    }
    std::string name_;
};

// ---- A process on a root ----------------------------------------------------------------------

bool powerOff() {
    return power.off();
}

// What the restart serves.
struct Outcome {
    Reading reading;
    std::string firstBad;
    std::string unverified;
    const char* state() const {
        if (reading.bads > 0) return "bad";
        if (reading.olds > 0 && reading.news > 0) return "mixed";
        return reading.news > 0 ? "new" : "old";
    }
};

Outcome readOutcome(const Scenario& scenario, const FerritTest::SiteFiles& one,
                    const FerritTest::SiteFiles& two) {
    Outcome outcome;
    outcome.reading = readEvery(
        one, two,
        [&](const std::string& path, const ResourceResponse& response, size_t earlierBads) {
            if (earlierBads > 0) return;
            outcome.firstBad = path + " error " + std::to_string(response.error.code()) + ", " +
                               std::to_string(response.data.size()) + " bytes";
            const auto zero = std::count(response.data.begin(), response.data.end(), '\0');
            if (!response.data.empty() && static_cast<size_t>(zero) == response.data.size())
                outcome.firstBad += " all zero";
        });
    if (const Error error = verifyInstalled(scenario)) outcome.unverified = error.message();
    return outcome;
}

class PowerCutTest : public ::testing::TestWithParam<const Scenario*> {
  protected:
    void SetUp() override {
        base_ = fs::temp_directory_path() /
                ("ferrit-power-" + std::to_string(::getpid()) + "-" + GetParam()->label);
        fs::remove_all(base_);
        one_ = version(1);
        two_ = version(2);
        ASSERT_NO_FATAL_FAILURE(writeFixtures(base_ / "fixtures", one_, two_));
        FileUtil::setCalls(&powerCalls);
        power.clearCounts();
    }
    void TearDown() override {
        power.stopWatching();
        FileUtil::setCalls(nullptr);
        ProcessState::resetForTesting();
        fs::remove_all(base_);
    }

    // Version 1 installed and version 2 configured, the process ended cleanly.
    void prepare() {
        const Scenario& scenario = *GetParam();
        MarlLogger::ScopedManualClock clock;
        start(root("template"), base_ / "fixtures", scenario);
        configure(scenario, 1, base_ / "fixtures", powerOff);
        Error error;
        updatePack(scenario, *clock, error, powerOff);
        ASSERT_FALSE(error) << error.message();
        configure(scenario, kNewSeq, base_ / "fixtures", powerOff);
        ProcessState::resetForTesting();
    }
    std::string root(const std::string& name) const { return (base_ / name).string() + "/"; }
    std::string freshRoot() {
        fs::remove_all(base_ / "root");
        fs::copy(base_ / "template", base_ / "root", fs::copy_options::recursive);
        return root("root");
    }

    // The install on a fresh copy, then the compaction of the packs store, cut before the `cut`th
    // step (0: never). Returns the steps they took; `published` says whether the commit naming
    // the new version had returned.
    int64_t install(int64_t cut, bool& published, Error& error) {
        const Scenario& scenario = *GetParam();
        MarlLogger::ScopedManualClock clock;
        const std::string where = freshRoot();
        power.watch(where);
        start(where, base_ / "fixtures", scenario);
        auto storage = std::make_shared<WatchedConfigStorage>(scenario.name);
        SCache::setStorage(storage);
        const int64_t before = power.steps();
        if (cut > 0) power.cutBefore(cut);
        updatePack(scenario, *clock, error, powerOff);
        // The next start of updating compacts the store, which syncs its log and database: a
        // commit that was not durable by itself becomes durable then, whatever it named.
        if (!power.off()) PacksStore::instance().compact();
        published = storage->published;
        const int64_t taken = power.steps() - before;
        ProcessState::resetForTesting();
        return taken;
    }

    Outcome restart() {
        power.stopWatching();
        start(root("root"), base_ / "fixtures", *GetParam());
        Outcome outcome = readOutcome(*GetParam(), one_, two_);
        ProcessState::resetForTesting();
        return outcome;
    }

    fs::path base_;
    FerritTest::SiteFiles one_, two_;
};

TEST_P(PowerCutTest, PowerCutAnywhereLeavesTheOldOrTheNewVersionWhole) {
    const Scenario& scenario = *GetParam();
    prepare();

    // Calibration: the whole install, and what it reads like afterwards.
    bool published = false;
    Error error;
    const int64_t total = install(0, published, error);
    ASSERT_FALSE(error) << error.message();
    ASSERT_TRUE(published);
    ASSERT_GT(total, 0);
    const Outcome clean = restart();
    ASSERT_STREQ(clean.state(), "new") << clean.firstBad;

    const int points = fromEnvironment(kPointsVariable, kDefaultPoints);
    std::map<std::string, int> ended;
    int cut = 0, afterPublish = 0;
    for (int i = 0; i < points; ++i) {
        const int64_t at = 1 + static_cast<int64_t>(i) * total / points;
        const Loss loss = static_cast<Loss>(i % 3);
        install(at, published, error);
        if (power.off()) ++cut;
        EXPECT_TRUE(power.off()) << "step " << at << " of " << total;
        power.applyLoss(loss);
        const Outcome reading = restart();
        const std::string state = reading.state();
        ++ended[state];
        if (published) ++afterPublish;
        const std::string where = "step " + std::to_string(at) + " of " + std::to_string(total) +
                                  ", " + lossName(loss) + ": " + reading.firstBad + " " +
                                  reading.unverified;
        EXPECT_TRUE(state == "old" || state == "new") << state << " at " << where;
        EXPECT_TRUE(reading.unverified.empty()) << where;
        if (published) {
            EXPECT_EQ(state, "new") << "the published version was lost at " << where;
        }
    }
    std::printf(
        "[ power    ] %s: %d cut points over %lld steps of the install (%d cut, %d after the "
        "commit that names the new version returned); after the restart %d served the old "
        "version, %d the new one, %d mixed, %d bad; lost: %zu unsynced files, %zu directory "
        "entries, %zu database writes\n",
        scenario.label, points, static_cast<long long>(total), cut, afterPublish, ended["old"],
        ended["new"], ended["mixed"], ended["bad"], power.lostFiles_, power.lostEntries_,
        power.lostDatabaseWrites_);
    RecordProperty("points", points);
    RecordProperty("steps", static_cast<int>(total));
}

INSTANTIATE_TEST_SUITE_P(Installs, PowerCutTest,
                         ::testing::Values(&kDiskFull, &kPackedFull, &kPackedIncremental),
                         [](const ::testing::TestParamInfo<const Scenario*>& info) {
                             return std::string(info.param->label);
                         });

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    MarlLogger::Log::setLevel(0);
    TaskRunner::setSharedMode(TaskRunner::Mode::Manual);
    installShimVfs();
    return RUN_ALL_TESTS();
}
