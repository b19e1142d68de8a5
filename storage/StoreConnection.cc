#include "storage/StoreConnection.h"

#include <sqlite3.h>

#include "storage/MetaStore.h"
#include "support/Mutex.h"

namespace FerritCore {

int StoreConnection::open(const std::string& folder) {
    close();
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

void StoreConnection::close() {
    std::shared_ptr<KeyValueStore> old;
    {
        MutexLock lock(mutex_);
        old.swap(db_);
        status_ = -1;
    }
    // The database closes when the last call still using it returns, outside the lock.
}

std::shared_ptr<KeyValueStore> StoreConnection::handle(int* status) const {
    MutexLock lock(mutex_);
    if (status != nullptr) *status = status_;
    return db_;
}

int StoreConnection::status() const {
    MutexLock lock(mutex_);
    return status_;
}

bool StoreConnection::isOpen() const {
    MutexLock lock(mutex_);
    return db_ != nullptr;
}

}  // namespace FerritCore
