// StoreInstance: the process's one instance of a store (the packs store, the shared configuration
// store, later the content cache). Created at first use and never destroyed, so that the worker
// and host threads can use it until the process ends; opened, and its opening reported, at first
// use, while other first users wait. ProcessState::resetForTesting closes it; the next use opens
// it again under the root as it is then and reports as a first use does. Any thread.
#pragma once

#include <atomic>
#include <mutex>

#include "base/ProcessState.h"
#include "support/Mutex.h"

namespace FerritCore {

// `Store` has a default constructor (which may be private, with this class a friend), close(), and
// openAndReport(), which opens under the current root and sends the store's init record.
template <typename Store>
class StoreInstance {
  public:
    static Store& get() {
        static StoreInstance* const holder = [] {
            auto* made = new StoreInstance();
            ProcessState::onReset([made] { made->close(); });
            return made;
        }();
        return holder->opened();
    }

  private:
    Store& opened() {
        // One acquire load on every use; the lock only while the store is not open.
        if (!open_.load(std::memory_order_acquire)) {
            MutexLock lock(mutex_);
            if (!open_.load(std::memory_order_relaxed)) {
                store_.openAndReport();
                open_.store(true, std::memory_order_release);
            }
        }
        return store_;
    }
    void close() {
        MutexLock lock(mutex_);
        store_.close();
        open_.store(false, std::memory_order_release);
    }

    Store store_;
    Mutex mutex_;
    std::atomic<bool> open_{false};
};

}  // namespace FerritCore
