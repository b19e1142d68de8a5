// Store: what every store kept in one KeyValueStore in a folder under the root shares, whatever
// its values are: opening (a database that cannot be opened is removed and created afresh, and
// the first failure is reported), a handle that closing never cuts short, and the operations whose
// results and words do not depend on the values. MetaStore (JSON values) and SeriesStore (plain
// strings) add the reads and writes, each with its own words.
//
// A store never blocks start-up and never stops the system: one that still cannot open answers
// every call as closed (contains gives false; deletes, walks and compaction do nothing).
//
// A store whose medium or folder cannot be written (a read-only file system, a full disk, no
// permission) is neither removed nor replaced: it opens for reading, so that what it holds keeps
// serving, and the process's storage state turns read-only (base/StorageState.h). While that
// state holds, writes, deletes and compaction do nothing (a write says why); resumeWriting()
// brings the stores back once writing works again.
//
// Threading: any thread. The handle is swapped under a small mutex and each call works on its own
// reference to it, so that close() and open() may run while other threads read; the database
// serialises the calls themselves.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "ferritcore/Error.h"
#include "storage/KeyValueStore.h"
#include "support/Mutex.h"

namespace FerritCore {

class Store {
  public:
    // `folderName` is the folder under the root, without "/" ("packs", "config_v2"); it names
    // the store in delete failures. `tag` is the log tag. Nothing is opened until open().
    Store(std::string folderName, std::string tag, KeyValueStore::Options options);
    virtual ~Store();
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    // Opens the folder under the current root (closing any open handle first). When that fails
    // because the folder or its medium cannot be written, it opens for reading only and nothing
    // is removed; otherwise the folder is removed and opened once more. Returns the status of the
    // first attempt, 0 on success; status() then holds the status of the attempt that counts. A
    // first failure also sends the record "Ferrit.Storage" with "path" and "errorCode". While the
    // root is unset nothing opens (status SQLITE_CANTOPEN): a store is never created in the working
    // directory.
    int open();
    // Drops the handle; later calls answer as closed, with status -1.
    void close();

    bool contains(std::string_view key) const;
    // Deletes report nothing to the caller; a failure is logged (1109) under the store's tag.
    void remove(std::string_view key);
    // Every key that starts with `prefix`; an empty prefix clears the whole store.
    void removeByPrefix(std::string_view prefix);
    // Calls `visit` with each key that starts with `prefix`, in byte order, until it returns
    // true; an empty prefix walks the whole store. `visit` runs without any lock held and may
    // read and write this store.
    void enumerate(std::string_view prefix,
                   const std::function<bool(std::string_view key)>& visit) const;
    // Checkpoints the log and gives free pages back to the file system.
    void compact();
    // Bytes that the store's folder takes on disk.
    virtual uint64_t diskSize() const;

    // 0 when open, -1 before open() and after close(), else the status of the failed open.
    int status() const;
    bool isOpen() const;
    // Waiting for writing to work: writing failed at open, so the store opened for reading only
    // (or, when even that failed, stayed closed) and nothing was removed.
    bool isReadOnly() const;

    // At each trigger of updating: while the storage state is read-only, probes whether a file can
    // be written under the root and, once it can, reopens for writing every store that opened
    // for reading only and turns the state writable. Cheap while writable (one atomic load).
    // Returns whether writing works now.
    static bool resumeWriting();
    const std::string& tag() const { return tag_; }
    // The folder's absolute path without its trailing "/"; empty while the root is unset.
    std::string path() const;

  protected:
    // The handle (null while closed) and, when asked, the status of the last open.
    std::shared_ptr<KeyValueStore> handle(int* status) const;
    // Deletes every key; the database's status (0 also when closed: nothing was there to keep).
    int eraseAll();
    // Whether writes must wait: the store reads only, or the storage state is read-only. Then
    // `error` (when given) is the refusal of a write of `key`, in words.
    bool writesPaused(std::string_view key, Error* error) const;
    void logDeleteFailure(std::string_view key, int status) const;
    const std::string& folderName() const { return folderName_; }

  private:
    // Opens again for writing after a read-only open; true when the store writes now.
    bool reopenWritable();

    const std::string folderName_;
    const std::string tag_;
    const KeyValueStore::Options options_;
    mutable Mutex mutex_;
    int status_ GUARDED_BY(mutex_) = -1;
    bool readOnly_ GUARDED_BY(mutex_) = false;
    std::shared_ptr<KeyValueStore> db_ GUARDED_BY(mutex_);  // null while closed
};

// The words of a store's status: SQLite's text for its code ("attempt to write a readonly
// database" for 8), or "store is closed" for -1.
std::string storeStatusText(int status);
// `error` with the words of `status` after it, in parentheses: the catalogue's fixed text stays,
// the cause follows ("Initialize storage \"packs\" failed: 8 (attempt to write a readonly
// database)").
Error withStatusText(const Error& error, int status);

// The absolute path of a store folder named `directory` ("packs/" or "packs") under the current
// root, without a trailing "/"; empty while the root is unset (empty or "/").
std::string storeFolderPath(std::string_view directory);

}  // namespace FerritCore
