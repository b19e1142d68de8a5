#include "storage/Store.h"

#include <sqlite3.h>

#include "base/Errors.h"
#include "base/Folder.h"
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

}  // namespace

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

Store::~Store() = default;

std::string Store::path() const {
    return storeFolderPath(folderName_);
}

int Store::open() {
    close();
    const std::string folder = path();
    std::unique_ptr<KeyValueStore> opened;
    int last = SQLITE_CANTOPEN;
    const int first = folder.empty()
                          ? SQLITE_CANTOPEN
                          : KeyValueStore::openOrReplace(folder, options_, &opened, &last);
    if (first != 0) sendStorageFailure(folder, first);
    MutexLock lock(mutex_);
    db_ = std::move(opened);
    status_ = db_ ? 0 : last;
    return first;
}

void Store::close() {
    std::shared_ptr<KeyValueStore> old;
    {
        MutexLock lock(mutex_);
        old.swap(db_);
        status_ = -1;
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

bool Store::contains(std::string_view key) const {
    const std::shared_ptr<KeyValueStore> db = handle(nullptr);
    return db && db->contains(key);
}

void Store::logDeleteFailure(std::string_view key, int status) const {
    auto log = MarlLogger::Log::build(MarlLogger::MRLLevelWarning, tag_);
    if (!log.active()) return;
    log.event("delete").error(Errors::storageDelete(folderName_, key, status));
}

void Store::remove(std::string_view key) {
    const std::shared_ptr<KeyValueStore> db = handle(nullptr);
    if (!db) return;
    const int rc = db->erase(key);
    if (rc != 0) logDeleteFailure(key, rc);
}

void Store::removeByPrefix(std::string_view prefix) {
    const std::shared_ptr<KeyValueStore> db = handle(nullptr);
    if (!db) return;
    const KeyRange range = prefixRange(prefix);
    const int rc = prefix.empty() ? db->clear() : db->eraseRange(range.begin(), range.end());
    if (rc != 0) logDeleteFailure(prefix, rc);
}

int Store::eraseAll() {
    const std::shared_ptr<KeyValueStore> db = handle(nullptr);
    return db ? db->clear() : 0;
}

void Store::enumerate(std::string_view prefix,
                      const std::function<bool(std::string_view key)>& visit) const {
    const std::shared_ptr<KeyValueStore> db = handle(nullptr);
    if (!db || !visit) return;
    const KeyRange range = prefixRange(prefix);
    const int rc = db->enumerateKeys(range.begin(), range.end(), visit);
    if (rc != 0) {
        auto log = MarlLogger::Log::build(MarlLogger::MRLLevelWarning, tag_);
        if (log.active()) log.event("enumerate").append("prefix", prefix).append("status", rc);
    }
}

void Store::compact() {
    const std::shared_ptr<KeyValueStore> db = handle(nullptr);
    if (!db) return;
    const int rc = db->compact();
    // Busy means that another process is reading: nothing is lost, the next compaction goes on.
    if (rc != 0) {
        auto log = MarlLogger::Log::build(MarlLogger::MRLLevelWarning, tag_);
        if (log.active()) log.event("compact").append("status", rc);
    }
}

uint64_t Store::diskSize() const {
    const std::string folder = path();
    return folder.empty() ? 0 : KeyValueStore::diskSize(folder);
}

}  // namespace FerritCore
