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

}  // namespace

MetaStore::MetaStore(std::string directory, std::string tag, KeyValueStore::Options options)
    : Store(std::string(directory.substr(0, directory.find_last_not_of('/') + 1)), std::move(tag),
            options),
      directory_(std::move(directory)) {}

ErrorOr<JSON> MetaStore::get(std::string_view key) const {
    int status = 0;
    const std::shared_ptr<KeyValueStore> db = handle(&status);
    if (!db) return withStatusText(Errors::initStoreFailed(directory_, status), status);
    thread_local std::string buffer;
    bool found = false;
    const int rc = db->get(key, buffer, found);
    if (rc != 0) return withStatusText(Errors::storeRead(directory_, key, rc), rc);
    if (!found) return Errors::storeNotExists(directory_, key);
    std::string reason;
    JSON value = JSON::parseBinary(buffer, &reason);
    if (buffer.capacity() > kKeptBufferBytes) std::string().swap(buffer);
    if (!reason.empty()) return Errors::storeDeserialize(directory_, key, reason);
    return value;
}

Error MetaStore::visit(
    std::string_view key,
    FunctionRef<bool(std::string_view bytes, std::string& reason)> decode) const {
    int status = 0;
    const std::shared_ptr<KeyValueStore> db = handle(&status);
    if (!db) return withStatusText(Errors::initStoreFailed(directory_, status), status);
    bool found = false;
    std::string reason;
    bool decoded = true;
    const int rc = db->visit(
        key, [&](std::string_view bytes) { decoded = decode(bytes, reason); }, found);
    if (rc != 0) return withStatusText(Errors::storeRead(directory_, key, rc), rc);
    if (!found) return Errors::storeNotExists(directory_, key);
    if (!decoded) return Errors::storeDeserialize(directory_, key, reason);
    return Error();
}

Error MetaStore::put(std::string_view key, const JSON& value) {
    int status = 0;
    const std::shared_ptr<KeyValueStore> db = handle(&status);
    if (!db) return withStatusText(Errors::initStoreFailed(directory_, status), status);
    Error paused;
    if (writesPaused(key, &paused)) return paused;
    const std::string bytes = value.toBinary();
    // The binary form cannot express a string, array or object longer than 2^32 - 1 and gives
    // nothing; storing nothing would later read as a decoding failure, so it is refused now.
    const int rc = bytes.empty() ? SQLITE_TOOBIG : db->insert(key, bytes);
    if (rc != 0) return withStatusText(Errors::storeWrite(directory_, key, rc), rc);
    return Error();
}

Error MetaStore::putAll(const std::vector<std::pair<std::string, JSON>>& entries) {
    if (entries.empty()) return Error();
    int status = 0;
    const std::shared_ptr<KeyValueStore> db = handle(&status);
    if (!db) return withStatusText(Errors::initStoreFailed(directory_, status), status);
    const std::string_view firstKey = entries.front().first;
    Error paused;
    if (writesPaused(firstKey, &paused)) return paused;
    std::vector<std::pair<std::string, std::string>> encoded;
    encoded.reserve(entries.size());
    for (const auto& [key, value] : entries) {
        std::string bytes = value.toBinary();
        // As in put: a value the binary form cannot express is refused, here with the batch.
        if (bytes.empty()) {
            return withStatusText(Errors::storeWrite(directory_, key, SQLITE_TOOBIG),
                                  SQLITE_TOOBIG);
        }
        encoded.emplace_back(key, std::move(bytes));
    }
    const int rc = db->insertAll(encoded);
    if (rc != 0) return withStatusText(Errors::storeWrite(directory_, firstKey, rc), rc);
    return Error();
}

void MetaStore::enumerate(std::string_view prefix,
                          const std::function<bool(std::string_view key)>& visit,
                          bool withKey) const {
    if (withKey || !visit) {
        Store::enumerate(prefix, visit);
        return;
    }
    Store::enumerate(prefix, [&](std::string_view) { return visit(std::string_view()); });
}

void MetaStore::clear() {
    const int rc = eraseAll();
    if (rc != 0) logDeleteFailure(std::string_view(), rc);
    compact();
}

}  // namespace FerritCore
