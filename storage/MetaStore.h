// MetaStore: JSON values by key, kept in their binary form in one KeyValueStore in a folder
// under the root. The shared configuration store is one; the content cache derives from it.
//
// A store never blocks start-up and never stops the system: a database that cannot be opened is
// removed and created afresh, and a store that still cannot open answers every call with error
// 9997 (reads give the JSON null, contains gives false, deletes and compaction do nothing).
//
// Threading: any thread. The handle is swapped under a small mutex and each call works on its
// own reference to it, so close() and open() may run while other threads read; the database
// serialises the calls themselves.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "ferritcore/Error.h"
#include "marl/Json.h"
#include "storage/KeyValueStore.h"
#include "storage/StoreConnection.h"

namespace FerritCore {

class MetaStore {
  public:
    // `directory` is the folder's name under the root with its trailing "/" ("config_v2/"); it
    // also begins every key in messages, so that a key prints as a path. `tag` is the log tag.
    // Nothing is opened until open().
    MetaStore(std::string directory, std::string tag, KeyValueStore::Options options);
    virtual ~MetaStore();
    MetaStore(const MetaStore&) = delete;
    MetaStore& operator=(const MetaStore&) = delete;

    // Opens the folder under the current root (closing any open handle first); when that fails
    // the folder is removed and opened once more. Returns the status of the first attempt, 0 on
    // success; status() then holds the status of the attempt that counts. A first failure also
    // sends the record "Ferrit.Storage" with "path" and "errorCode". While the root is unset
    // nothing opens (status SQLITE_CANTOPEN): a store is never created in the working directory.
    int open();
    // Deletes the handle; later calls answer 9997 with status -1.
    void close();

    // The value, or the JSON null with `error` set: 9997 when closed, 1102 when the read fails
    // or the stored bytes do not decode (the decoder's words), 1101 when the key is missing.
    // The undecodable value stays stored until somebody removes it.
    MarlLogger::json::JSON get(std::string_view key, Error& error) const;
    // True, and `error` cleared, once the value is stored; otherwise false with 9997 or 1104.
    bool put(std::string_view key, const MarlLogger::json::JSON& value, Error& error);
    bool contains(std::string_view key) const;
    // Deletes report nothing to the caller; a failure is logged (1109) under the store's tag.
    void remove(std::string_view key);
    // Every key that starts with `prefix`; an empty prefix clears the whole store.
    void removeByPrefix(std::string_view prefix);
    // Calls `visit` for each key that starts with `prefix`, in byte order, until it returns
    // true; an empty prefix walks the whole store. Without `withKey` the key is not handed on
    // (an empty view is passed), for callers that only count. `visit` runs without any lock
    // held and may read and write this store.
    void enumerate(std::string_view prefix, const std::function<bool(std::string_view key)>& visit,
                   bool withKey = true) const;
    // Deletes everything, then compacts.
    void clear();
    // Checkpoints the log and gives free pages back to the file system.
    void compact();
    // Bytes that the store's folder takes on disk.
    virtual uint64_t diskSize() const;

    // 0 when open, -1 before open() and after close(), else the status of the failed open.
    int status() const;
    bool isOpen() const;
    const std::string& directory() const { return directory_; }
    const std::string& tag() const { return tag_; }
    // The folder's absolute path without its trailing "/"; empty while the root is unset.
    std::string path() const;

  private:
    std::shared_ptr<KeyValueStore> handle(int* status) const;
    void logDeleteFailure(std::string_view key, int status) const;

    const std::string directory_;
    const std::string tag_;

    StoreConnection connection_;
};

// The absolute path of a store folder named `directory` ("packs/" or "packs") under the current
// root, without a trailing "/"; empty while the root is unset (empty or "/").
std::string storeFolderPath(std::string_view directory);
// Sends the record "Ferrit.Storage" for a store at `path` whose first open failed with `status`.
void sendStorageFailure(const std::string& path, int status);

}  // namespace FerritCore
