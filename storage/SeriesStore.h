// SeriesStore: named string values, kept as they are in one KeyValueStore in a folder under the
// root. The packs store is the one instance: the global configuration and the files of packs
// that live in the store.
//
// Like MetaStore it never stops the system: a database that cannot be opened is removed and
// created afresh, and one that still cannot open answers every call with error 9997.
//
// Threading: any thread; the handle is swapped under a small mutex and each call works on its
// own reference to it, so reopen() may run while other threads read.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "base/Folder.h"
#include "ferritcore/Error.h"
#include "storage/KeyValueStore.h"
#include "storage/StoreConnection.h"
#include "support/Mutex.h"

namespace FerritCore {

class SeriesStore {
  public:
    // `name` is the folder's name under the root without "/" ("packs"). It names the store in
    // messages, gives the log tag ("Ferrit/" and the name capitalised: "Ferrit/Packs") and the
    // statistics event ("FTS_" and the name). Nothing is opened until open().
    SeriesStore(std::string name, KeyValueStore::Options options);
    virtual ~SeriesStore();
    SeriesStore(const SeriesStore&) = delete;
    SeriesStore& operator=(const SeriesStore&) = delete;

    // Opens the folder under the current root (closing any open handle first); when that fails
    // the folder is removed and opened once more. Returns the status of the first attempt, 0 on
    // success; a first failure also sends the record "Ferrit.Storage".
    int open();
    // The same as open(): what a caller uses to pick up a new root or a replaced folder.
    int reopen() { return open(); }
    // Deletes the handle; later calls answer 9997 with status -1.
    void close();

    // True with the value in `value`; otherwise false, `value` empty and `error` set: 9997 when
    // closed, 1102 when the read fails, 1101 when the key is missing.
    bool get(std::string_view key, std::string& value, Error& error) const;
    // True, and `error` cleared, once the value is stored; otherwise false with 9997 or 1104.
    bool put(std::string_view key, std::string_view value, Error& error);
    bool contains(std::string_view key) const;
    // Deletes report nothing to the caller; a failure is logged (1109) under the store's tag.
    void remove(std::string_view key);
    // Every key that starts with `prefix`; an empty prefix clears the whole store.
    void removeByPrefix(std::string_view prefix);
    // Calls `visit` with each key that starts with `prefix`, in byte order, until it returns
    // true; an empty prefix walks the whole store. No lock is held while `visit` runs.
    void enumerate(std::string_view prefix,
                   const std::function<bool(std::string_view key)>& visit) const;
    // Deletes everything, compacts, and logs "clear" with "name".
    void clear();
    void compact();
    // Bytes that the store's folder takes on disk.
    uint64_t diskSize() const;

    // 0 when open, -1 before open() and after close(), else the status of the failed open.
    int status() const;
    bool isOpen() const;
    const std::string& name() const { return name_; }
    const std::string& tag() const { return tag_; }
    const std::string& statisticsEvent() const { return statisticsEvent_; }
    // The store's folder as the root was when it was last opened (Disk, name + "/").
    Folder folder() const;

  private:
    std::shared_ptr<KeyValueStore> handle(int* status) const;
    void logDeleteFailure(std::string_view key, int status) const;

    const std::string name_;
    const std::string tag_;
    const std::string statisticsEvent_;
    StoreConnection connection_;

    mutable Mutex mutex_;
    Folder folder_ GUARDED_BY(mutex_);
};

}  // namespace FerritCore
