#include "storage/MetaStore.h"

#include "base/Errors.h"
#include "base/Folder.h"
#include "base/Telemetry.h"
#include "marl/Log.h"

namespace FerritCore {

using MarlLogger::json::JSON;

namespace {

// A get copies the stored bytes into a buffer of its thread before decoding them, so that the
// common small read allocates nothing but the decoded value. A buffer that grew for a large value
// is given back instead of being kept for the thread's lifetime.
constexpr size_t kKeptBufferBytes = 64 * 1024;

std::string_view withoutTrailingSlash(std::string_view text) {
    while (!text.empty() && text.back() == '/') text.remove_suffix(1);
    return text;
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

void sendStorageFailure(const std::string& path, int status) {
    PerfRecord record("Ferrit.Storage");
    record.setDimension("path", path);
    record.setDimension("errorCode", std::to_string(status));
    sendEvent(record);
}

MetaStore::MetaStore(std::string directory, std::string tag, KeyValueStore::Options options)
    : directory_(std::move(directory)), tag_(std::move(tag)), connection_(options) {}

MetaStore::~MetaStore() = default;

int MetaStore::open() {
    return connection_.open(path());
}

void MetaStore::close() {
    connection_.close();
}

std::shared_ptr<KeyValueStore> MetaStore::handle(int* status) const {
    return connection_.handle(status);
}

int MetaStore::status() const {
    return connection_.status();
}

bool MetaStore::isOpen() const {
    return connection_.isOpen();
}

std::string MetaStore::path() const {
    return storeFolderPath(directory_);
}

JSON MetaStore::get(std::string_view key, Error& error) const {
    int status = 0;
    const std::shared_ptr<KeyValueStore> db = handle(&status);
    if (!db) {
        error = Errors::initStoreFailed(directory_, status);
        return JSON();
    }
    thread_local std::string buffer;
    bool found = false;
    const int rc = db->get(key, buffer, found);
    if (rc != 0) {
        error = Errors::storeRead(directory_, key, rc);
        return JSON();
    }
    if (!found) {
        error = Errors::storeNotExists(directory_, key);
        return JSON();
    }
    std::string reason;
    JSON value = JSON::parseBinary(buffer, &reason);
    if (buffer.capacity() > kKeptBufferBytes) std::string().swap(buffer);
    if (!reason.empty()) {
        error = Errors::storeDeserialize(directory_, key, reason);
        return JSON();
    }
    error.clear();
    return value;
}

bool MetaStore::put(std::string_view key, const JSON& value, Error& error) {
    int status = 0;
    const std::shared_ptr<KeyValueStore> db = handle(&status);
    if (!db) {
        error = Errors::initStoreFailed(directory_, status);
        return false;
    }
    const std::string bytes = value.toBinary();
    // The binary form cannot express a string, array or object longer than 2^32 - 1 and gives
    // nothing; storing nothing would later read as a decoding failure, so it is refused now.
    const int rc = bytes.empty() ? SQLITE_TOOBIG : db->insert(key, bytes);
    if (rc != 0) {
        error = Errors::storeWrite(directory_, key, rc);
        return false;
    }
    error.clear();
    return true;
}

bool MetaStore::contains(std::string_view key) const {
    const std::shared_ptr<KeyValueStore> db = handle(nullptr);
    return db && db->contains(key);
}

void MetaStore::logDeleteFailure(std::string_view key, int status) const {
    auto log = MarlLogger::Log::build(MarlLogger::MRLLevelWarning, tag_);
    if (!log.active()) return;
    log.event("delete").error(
        Errors::storageDelete(std::string(withoutTrailingSlash(directory_)), key, status));
}

void MetaStore::remove(std::string_view key) {
    const std::shared_ptr<KeyValueStore> db = handle(nullptr);
    if (!db) return;
    const int rc = db->erase(key);
    if (rc != 0) logDeleteFailure(key, rc);
}

void MetaStore::removeByPrefix(std::string_view prefix) {
    const std::shared_ptr<KeyValueStore> db = handle(nullptr);
    if (!db) return;
    const KeyRange range = prefixRange(prefix);
    const int rc = prefix.empty() ? db->clear() : db->eraseRange(range.begin(), range.end());
    if (rc != 0) logDeleteFailure(prefix, rc);
}

void MetaStore::enumerate(std::string_view prefix,
                          const std::function<bool(std::string_view key)>& visit,
                          bool withKey) const {
    const std::shared_ptr<KeyValueStore> db = handle(nullptr);
    if (!db || !visit) return;
    const KeyRange range = prefixRange(prefix);
    const int rc = db->enumerateKeys(range.begin(), range.end(), [&](std::string_view key) {
        return visit(withKey ? key : std::string_view());
    });
    if (rc != 0) {
        auto log = MarlLogger::Log::build(MarlLogger::MRLLevelWarning, tag_);
        if (log.active()) log.event("enumerate").append("prefix", prefix).append("status", rc);
    }
}

void MetaStore::clear() {
    const std::shared_ptr<KeyValueStore> db = handle(nullptr);
    if (!db) return;
    const int rc = db->clear();
    if (rc != 0) logDeleteFailure(std::string_view(), rc);
    compact();
}

void MetaStore::compact() {
    const std::shared_ptr<KeyValueStore> db = handle(nullptr);
    if (!db) return;
    const int rc = db->compact();
    // Busy means that another process is reading: nothing is lost, the next compaction goes on.
    if (rc != 0) {
        auto log = MarlLogger::Log::build(MarlLogger::MRLLevelWarning, tag_);
        if (log.active()) log.event("compact").append("status", rc);
    }
}

uint64_t MetaStore::diskSize() const {
    const std::string folder = path();
    return folder.empty() ? 0 : KeyValueStore::diskSize(folder);
}

}  // namespace FerritCore
