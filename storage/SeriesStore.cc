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

bool SeriesStore::get(std::string_view key, std::string& value, Error& error) const {
    int status = 0;
    const std::shared_ptr<KeyValueStore> db = handle(&status);
    if (!db) {
        value.clear();
        error = withStatusText(Errors::initStorageFailed(name_, status), status);
        return false;
    }
    bool found = false;
    const int rc = db->get(key, value, found);
    if (rc != 0) {
        value.clear();
        error = withStatusText(Errors::storageRead(name_, key, rc), rc);
        return false;
    }
    if (!found) {
        error = Errors::storageNotExists(name_, key);
        return false;
    }
    error.clear();
    return true;
}

bool SeriesStore::put(std::string_view key, std::string_view value, Error& error,
                      Durability durability) {
    int status = 0;
    const std::shared_ptr<KeyValueStore> db = handle(&status);
    if (!db) {
        error = withStatusText(Errors::initStorageFailed(name_, status), status);
        return false;
    }
    if (writesPaused(key, &error)) return false;
    const int rc = db->insert(key, value, durability);
    if (rc != 0) {
        error = withStatusText(Errors::storageWrite(name_, key, rc), rc);
        return false;
    }
    error.clear();
    return true;
}

bool SeriesStore::putAll(const std::vector<std::pair<std::string, std::string>>& entries,
                         Error& error) {
    int status = 0;
    const std::shared_ptr<KeyValueStore> db = handle(&status);
    if (!db) {
        error = withStatusText(Errors::initStorageFailed(name_, status), status);
        return false;
    }
    if (writesPaused(entries.empty() ? std::string_view() : entries[0].first, &error)) return false;
    const int rc = db->insertAll(entries);
    if (rc != 0) {
        error =
            withStatusText(Errors::storageWrite(
                               name_, entries.empty() ? std::string_view() : entries[0].first, rc),
                           rc);
        return false;
    }
    error.clear();
    return true;
}

bool SeriesStore::copyPrefix(std::string_view from, std::string_view to,
                             const std::unordered_set<std::string>& skip, uint64_t& bytes,
                             Error& error) {
    bytes = 0;
    int status = 0;
    const std::shared_ptr<KeyValueStore> db = handle(&status);
    if (!db) {
        error = withStatusText(Errors::initStorageFailed(name_, status), status);
        return false;
    }
    if (writesPaused(to, &error)) return false;
    const int rc = db->copyPrefix(from, to, skip, bytes);
    if (rc != 0) {
        error = withStatusText(Errors::storageWrite(name_, to, rc), rc);
        return false;
    }
    error.clear();
    return true;
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
