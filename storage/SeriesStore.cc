#include "storage/SeriesStore.h"

#include <cctype>

#include "base/Errors.h"
#include "base/LogTags.h"
#include "marl/Log.h"
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
    : Store(name, std::string(LogTag::kRoot) + "/" + capitalised(name), options),
      name_(std::move(name)),
      statisticsEvent_("FTS_" + name_),
      folder_(Folder::disk(name_ + "/")) {}

int SeriesStore::open() {
    {
        MutexLock lock(mutex_);
        folder_ = Folder::disk(name_ + "/");
    }
    return Store::open();
}

Folder SeriesStore::folder() const {
    MutexLock lock(mutex_);
    return folder_;
}

ErrorOr<std::string> SeriesStore::get(std::string_view key, size_t spare) const {
    int status = 0;
    const std::shared_ptr<KeyValueStore> db = handle(&status);
    if (!db) return withStatusText(Errors::initStorageFailed(name_, status), status);
    std::string value;
    bool found = false;
    const int rc = db->get(key, value, found, spare);
    if (rc != 0) return withStatusText(Errors::storageRead(name_, key, rc), rc);
    if (!found) return Errors::storageNotExists(name_, key);
    return value;
}

Error SeriesStore::put(std::string_view key, std::string_view value, Durability durability) {
    int status = 0;
    const std::shared_ptr<KeyValueStore> db = handle(&status);
    if (!db) return withStatusText(Errors::initStorageFailed(name_, status), status);
    Error paused;
    if (writesPaused(key, &paused)) return paused;
    const int rc = db->insert(key, value, durability);
    if (rc != 0) return withStatusText(Errors::storageWrite(name_, key, rc), rc);
    return Error();
}

Error SeriesStore::putAll(const std::vector<std::pair<std::string, std::string>>& entries) {
    int status = 0;
    const std::shared_ptr<KeyValueStore> db = handle(&status);
    if (!db) return withStatusText(Errors::initStorageFailed(name_, status), status);
    const std::string_view firstKey = entries.empty() ? std::string_view() : entries[0].first;
    Error paused;
    if (writesPaused(firstKey, &paused)) return paused;
    const int rc = db->insertAll(entries);
    if (rc != 0) return withStatusText(Errors::storageWrite(name_, firstKey, rc), rc);
    return Error();
}

Error SeriesStore::putChecked(const std::vector<KeyValueStore::CheckedValue>& entries) {
    int status = 0;
    const std::shared_ptr<KeyValueStore> db = handle(&status);
    if (!db) return withStatusText(Errors::initStorageFailed(name_, status), status);
    const std::string_view firstKey = entries.empty() ? std::string_view() : entries[0].key;
    Error paused;
    if (writesPaused(firstKey, &paused)) return paused;
    const int rc = db->insertAllChecked(entries);
    if (rc != 0) return withStatusText(Errors::storageWrite(name_, firstKey, rc), rc);
    return Error();
}

ErrorOr<uint64_t> SeriesStore::copyPrefix(std::string_view from, std::string_view to,
                                          const std::unordered_set<std::string>& skip) {
    int status = 0;
    const std::shared_ptr<KeyValueStore> db = handle(&status);
    if (!db) return withStatusText(Errors::initStorageFailed(name_, status), status);
    Error paused;
    if (writesPaused(to, &paused)) return paused;
    uint64_t bytes = 0;
    const int rc = db->copyPrefix(from, to, skip, bytes);
    if (rc != 0) return withStatusText(Errors::storageWrite(name_, to, rc), rc);
    return bytes;
}

void SeriesStore::clear() {
    if (!isOpen()) return;
    // Nothing is deleted while writes wait; the caller's next clear does it.
    if (writesPaused(std::string_view(), nullptr)) return;
    const int rc = eraseAll();
    compact();
    auto log = MarlLogger::Log::build(
        rc == 0 ? MarlLogger::MRLLevelInfo : MarlLogger::MRLLevelWarning, tag());
    if (!log.active()) return;
    log.event("clear").append("name", name_);
    if (rc != 0)
        log.error(withStatusText(Errors::storageDelete(name_, std::string_view(), rc), rc));
}

}  // namespace FerritCore
