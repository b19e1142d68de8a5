// StoreConnection: the database handle of one store. It opens (replacing a damaged database and
// reporting the first failure), and hands each call a shared reference under a small mutex, so
// that closing never cuts short a call in progress. Any thread.
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "storage/KeyValueStore.h"
#include "support/Mutex.h"

namespace FerritCore {

class StoreConnection {
  public:
    explicit StoreConnection(KeyValueStore::Options options) : options_(options) {}

    // Opens the database in `folder` (an empty folder cannot open), removing and reopening it when
    // that fails; a failure sends "Ferrit.Storage". Returns the status of the first attempt.
    int open(const std::string& folder);
    // Drops the handle; later calls see status -1.
    void close();
    // The handle (null while closed) and, when asked, the status of the last open.
    std::shared_ptr<KeyValueStore> handle(int* status) const;
    int status() const;
    bool isOpen() const;

  private:
    const KeyValueStore::Options options_;
    mutable Mutex mutex_;
    int status_ GUARDED_BY(mutex_) = -1;
    std::shared_ptr<KeyValueStore> db_ GUARDED_BY(mutex_);  // null while closed
};

}  // namespace FerritCore
