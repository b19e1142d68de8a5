#include "storage/Store.h"

#include <sqlite3.h>

#include <unordered_set>

#include "base/Errors.h"
#include "base/FileUtil.h"
#include "base/Folder.h"
#include "base/StorageState.h"
#include "base/Telemetry.h"
#include "marl/Log.h"

namespace FerritCore {
namespace {

std::string_view withoutTrailingSlash(std::string_view text) {
    while (!text.empty() && text.back() == '/') text.remove_suffix(1);
    return text;
}

// The record of a store whose first open failed: the folder and the database's status.
void sendStorageFailure(const std::string& path, int status) {
    PerfRecord record("Ferrit.Storage");
    record.setDimension("path", path);
    record.setDimension("errorCode", std::to_string(status));
    sendEvent(record);
}

// The stores that opened for reading only, which resumeWriting() reopens. Stores of the process
// are never destroyed; a test's own store leaves the set when it is.
struct ReadOnlyStores {
    Mutex mutex;
    std::unordered_set<Store*> stores GUARDED_BY(mutex);
};

ReadOnlyStores& readOnlyStores() {
    static ReadOnlyStores* const instance = new ReadOnlyStores();
    return *instance;
}

void trackReadOnly(Store* store, bool readOnly) {
    ReadOnlyStores& registry = readOnlyStores();
    MutexLock lock(registry.mutex);
    if (readOnly) {
        registry.stores.insert(store);
    } else {
        registry.stores.erase(store);
    }
}

// Why a store could not open for writing, when the reason is the medium or the folder rather than
// the database: a probe file written in the folder (or, before the folder exists, in its parent)
// fails with a read-only file system, no space or no permission. A full disk may still take the
// probe's one byte while refusing the database's pages: SQLite's own "full" says so.
StorageState::Cause writeFault(const std::string& folder, int status) {
    std::string where = folder;
    if (!FileUtil::isDirectory(where)) {
        const size_t slash = where.find_last_of('/');
        where = slash == std::string::npos ? std::string() : where.substr(0, slash);
    }
    const StorageState::Cause cause = StorageState::causeOf(StorageState::probe(where));
    if (cause != StorageState::Cause::None) return cause;
    if ((status & 0xFF) == SQLITE_FULL) return StorageState::Cause::DiskFull;
    return StorageState::Cause::None;
}

}  // namespace

std::string storeStatusText(int status) {
    if (status == -1) return "store is closed";
    return sqlite3_errstr(status);
}

Error withStatusText(const Error& error, int status) {
    return Error(error.code(), error.message() + " (" + storeStatusText(status) + ")");
}

std::string storeFolderPath(std::string_view directory) {
    const std::string& root = rootPath();
    // A root of "/" is what an unset root reads as once a test has restored it; nothing is
    // created at the top of the file system either way.
    if (root.size() <= 1) return std::string();
    std::string path = root;
    path.append(withoutTrailingSlash(directory));
    return path;
}

Store::Store(std::string folderName, std::string tag, KeyValueStore::Options options)
    : folderName_(std::move(folderName)), tag_(std::move(tag)), options_(options) {}

Store::~Store() {
    trackReadOnly(this, /*readOnly=*/false);
}

std::string Store::path() const {
    return storeFolderPath(folderName_);
}

int Store::open() {
    close();
    const std::string folder = path();
    std::unique_ptr<KeyValueStore> opened;
    int first = SQLITE_CANTOPEN;
    int last = SQLITE_CANTOPEN;
    bool readOnly = false;
    if (!folder.empty()) {
        first = KeyValueStore::open(folder, options_, &opened);
        last = first;
        if (first != 0) {
            // A medium that refuses writes says nothing about the database, which may hold every
            // installed file: it is read as it is, never removed.
            const StorageState::Cause cause = writeFault(folder, first);
            if (cause != StorageState::Cause::None) {
                StorageState::enterReadOnly(cause, folder);
                last =
                    KeyValueStore::open(folder, options_, &opened, KeyValueStore::Access::ReadOnly);
                // Also when even reading fails: the store waits, whole, for writing to work.
                readOnly = true;
            } else {
                KeyValueStore::openOrReplace(folder, options_, &opened, &last);
            }
        }
    }
    if (first != 0) sendStorageFailure(folder, first);
    trackReadOnly(this, readOnly);
    MutexLock lock(mutex_);
    db_ = std::move(opened);
    status_ = db_ ? 0 : last;
    readOnly_ = readOnly;
    return first;
}

bool Store::reopenWritable() {
    {
        MutexLock lock(mutex_);
        if (!readOnly_) return true;
    }
    const std::string folder = path();
    if (folder.empty()) return false;
    // Writing works again under the root, so a database that still does not open is damaged
    // and is replaced, as at any open; a full disk (transient) is never a reason to replace.
    std::unique_ptr<KeyValueStore> opened;
    int last = SQLITE_CANTOPEN;
    KeyValueStore::openOrReplace(folder, options_, &opened, &last);
    if (last != 0) return false;
    std::shared_ptr<KeyValueStore> old;
    {
        // The reading handle goes once the calls still using it return; readers never find the
        // store closed in between.
        MutexLock lock(mutex_);
        old = std::move(db_);
        db_ = std::move(opened);
        status_ = 0;
        readOnly_ = false;
    }
    auto log = MarlLogger::Log::build(MarlLogger::MRLLevelInfo, tag_);
    if (log.active()) log.event("reopen").append("path", folder).append("access", "read-write");
    return true;
}

bool Store::resumeWriting() {
    if (StorageState::writable()) return true;
    const std::string& root = rootPath();
    if (root.size() <= 1 || StorageState::probe(root) != 0) return false;
    ReadOnlyStores& registry = readOnlyStores();
    MutexLock lock(registry.mutex);
    for (auto it = registry.stores.begin(); it != registry.stores.end();) {
        if (!(*it)->reopenWritable()) return false;
        it = registry.stores.erase(it);
    }
    StorageState::markWritable();
    return true;
}

void Store::close() {
    trackReadOnly(this, /*readOnly=*/false);
    std::shared_ptr<KeyValueStore> old;
    {
        MutexLock lock(mutex_);
        old.swap(db_);
        status_ = -1;
        readOnly_ = false;
    }
    // The database closes when the last call still using it returns, outside the lock.
}

std::shared_ptr<KeyValueStore> Store::handle(int* status) const {
    MutexLock lock(mutex_);
    if (status != nullptr) *status = status_;
    return db_;
}

int Store::status() const {
    MutexLock lock(mutex_);
    return status_;
}

bool Store::isOpen() const {
    MutexLock lock(mutex_);
    return db_ != nullptr;
}

bool Store::isReadOnly() const {
    MutexLock lock(mutex_);
    return readOnly_;
}

bool Store::writesPaused(std::string_view key, Error* error) const {
    if (StorageState::writable() && !isReadOnly()) return false;
    if (error != nullptr) {
        std::string state = StorageState::describe();
        // A store can read only while the state has turned writable again but this store has
        // not yet been reopened: the next trigger reopens it.
        if (StorageState::writable()) state = "read-only until the next update";
        *error = Errors::storageWritePaused(folderName_, key, state);
    }
    return true;
}

bool Store::contains(std::string_view key) const {
    const std::shared_ptr<KeyValueStore> db = handle(nullptr);
    return db && db->contains(key);
}

void Store::logDeleteFailure(std::string_view key, int status) const {
    auto log = MarlLogger::Log::build(MarlLogger::MRLLevelWarning, tag_);
    if (!log.active()) return;
    log.event("delete").error(
        withStatusText(Errors::storageDelete(folderName_, key, status), status));
}

void Store::remove(std::string_view key) {
    const std::shared_ptr<KeyValueStore> db = handle(nullptr);
    if (!db || writesPaused(key, nullptr)) return;
    const int rc = db->erase(key);
    if (rc != 0) logDeleteFailure(key, rc);
}

void Store::removeByPrefix(std::string_view prefix) {
    const std::shared_ptr<KeyValueStore> db = handle(nullptr);
    if (!db || writesPaused(prefix, nullptr)) return;
    const KeyRange range = prefixRange(prefix);
    const int rc = prefix.empty() ? db->clear() : db->eraseRange(range.begin(), range.end());
    if (rc != 0) logDeleteFailure(prefix, rc);
}

int Store::eraseAll() {
    const std::shared_ptr<KeyValueStore> db = handle(nullptr);
    if (!db) return 0;
    if (writesPaused(std::string_view(), nullptr)) return SQLITE_READONLY;
    return db->clear();
}

void Store::enumerate(std::string_view prefix,
                      const std::function<bool(std::string_view key)>& visit) const {
    const std::shared_ptr<KeyValueStore> db = handle(nullptr);
    if (!db || !visit) return;
    const KeyRange range = prefixRange(prefix);
    const int rc = db->enumerateKeys(range.begin(), range.end(), visit);
    if (rc != 0) {
        auto log = MarlLogger::Log::build(MarlLogger::MRLLevelWarning, tag_);
        if (log.active())
            log.event("enumerate")
                .append("prefix", prefix)
                .append("status", rc)
                .append("cause", storeStatusText(rc));
    }
}

void Store::compact() {
    const std::shared_ptr<KeyValueStore> db = handle(nullptr);
    if (!db || writesPaused(std::string_view(), nullptr)) return;
    const int rc = db->compact();
    // Busy means that another process is reading: nothing is lost, the next compaction goes on.
    if (rc != 0) {
        auto log = MarlLogger::Log::build(MarlLogger::MRLLevelWarning, tag_);
        if (log.active())
            log.event("compact").append("status", rc).append("cause", storeStatusText(rc));
    }
}

uint64_t Store::diskSize() const {
    const std::string folder = path();
    return folder.empty() ? 0 : KeyValueStore::diskSize(folder);
}

}  // namespace FerritCore
