#include "storage/SeriesStore.h"

#include <cctype>

#include "base/Errors.h"
#include "base/LogTags.h"
#include "marl/Log.h"
#include "storage/MetaStore.h"
#include "support/Mutex.h"

namespace FerritCore {
namespace {

std::string capitalised(std::string word) {
    if (!word.empty())
        word[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(word[0])));
    return word;
}

}  // namespace

SeriesStore::SeriesStore(std::string name, KeyValueStore::Options options)
    : name_(std::move(name)),
      tag_(std::string(LogTag::kRoot) + "/" + capitalised(name_)),
      statisticsEvent_("FTS_" + name_),
      connection_(options),
      folder_(Folder::disk(name_ + "/")) {}

SeriesStore::~SeriesStore() = default;

int SeriesStore::open() {
    {
        MutexLock lock(mutex_);
        folder_ = Folder::disk(name_ + "/");
    }
    return connection_.open(storeFolderPath(name_));
}

void SeriesStore::close() {
    connection_.close();
}

std::shared_ptr<KeyValueStore> SeriesStore::handle(int* status) const {
    return connection_.handle(status);
}

int SeriesStore::status() const {
    return connection_.status();
}

bool SeriesStore::isOpen() const {
    return connection_.isOpen();
}

Folder SeriesStore::folder() const {
    MutexLock lock(mutex_);
    return folder_;
}

bool SeriesStore::get(std::string_view key, std::string& value, Error& error) const {
    int status = 0;
    const std::shared_ptr<KeyValueStore> db = handle(&status);
    if (!db) {
        value.clear();
        error = Errors::initStorageFailed(name_, status);
        return false;
    }
    bool found = false;
    const int rc = db->get(key, value, found);
    if (rc != 0) {
        value.clear();
        error = Errors::storageRead(name_, key, rc);
        return false;
    }
    if (!found) {
        error = Errors::storageNotExists(name_, key);
        return false;
    }
    error.clear();
    return true;
}

bool SeriesStore::put(std::string_view key, std::string_view value, Error& error) {
    int status = 0;
    const std::shared_ptr<KeyValueStore> db = handle(&status);
    if (!db) {
        error = Errors::initStorageFailed(name_, status);
        return false;
    }
    const int rc = db->insert(key, value);
    if (rc != 0) {
        error = Errors::storageWrite(name_, key, rc);
        return false;
    }
    error.clear();
    return true;
}

bool SeriesStore::contains(std::string_view key) const {
    const std::shared_ptr<KeyValueStore> db = handle(nullptr);
    return db && db->contains(key);
}

void SeriesStore::logDeleteFailure(std::string_view key, int status) const {
    auto log = MarlLogger::Log::build(MarlLogger::MRLLevelWarning, tag_);
    if (!log.active()) return;
    log.event("delete").error(Errors::storageDelete(name_, key, status));
}

void SeriesStore::remove(std::string_view key) {
    const std::shared_ptr<KeyValueStore> db = handle(nullptr);
    if (!db) return;
    const int rc = db->erase(key);
    if (rc != 0) logDeleteFailure(key, rc);
}

void SeriesStore::removeByPrefix(std::string_view prefix) {
    const std::shared_ptr<KeyValueStore> db = handle(nullptr);
    if (!db) return;
    const KeyRange range = prefixRange(prefix);
    const int rc = prefix.empty() ? db->clear() : db->eraseRange(range.begin(), range.end());
    if (rc != 0) logDeleteFailure(prefix, rc);
}

void SeriesStore::enumerate(std::string_view prefix,
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

void SeriesStore::clear() {
    const std::shared_ptr<KeyValueStore> db = handle(nullptr);
    if (!db) return;
    const int rc = db->clear();
    compact();
    auto log = MarlLogger::Log::build(
        rc == 0 ? MarlLogger::MRLLevelInfo : MarlLogger::MRLLevelWarning, tag_);
    if (!log.active()) return;
    log.event("clear").append("name", name_);
    if (rc != 0) log.error(Errors::storageDelete(name_, std::string_view(), rc));
}

void SeriesStore::compact() {
    const std::shared_ptr<KeyValueStore> db = handle(nullptr);
    if (!db) return;
    const int rc = db->compact();
    // Busy means that another process is reading: nothing is lost, the next compaction goes on.
    if (rc != 0) {
        auto log = MarlLogger::Log::build(MarlLogger::MRLLevelWarning, tag_);
        if (log.active()) log.event("compact").append("status", rc);
    }
}

uint64_t SeriesStore::diskSize() const {
    const std::string path = storeFolderPath(name_);
    return path.empty() ? 0 : KeyValueStore::diskSize(path);
}

}  // namespace FerritCore
