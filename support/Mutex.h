// Mutex, RecursiveMutex, their scoped locks and CondVar: the standard locks with clang's
// thread-safety annotations, so that the compiler checks every field marked GUARDED_BY. Each is
// as cheap as the standard type it wraps. Any thread; the usual rules of the standard types hold.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "support/ThreadAnnotations.h"

namespace FerritCore {

class CAPABILITY("mutex") Mutex {
  public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() ACQUIRE() { mutex_.lock(); }
    void unlock() RELEASE() { mutex_.unlock(); }

  private:
    friend class CondVar;
    std::mutex mutex_;
};

// A task that posts from inside a task, or a transaction that runs another, takes its lock again.
class CAPABILITY("mutex") RecursiveMutex {
  public:
    RecursiveMutex() = default;
    RecursiveMutex(const RecursiveMutex&) = delete;
    RecursiveMutex& operator=(const RecursiveMutex&) = delete;

    void lock() ACQUIRE() { mutex_.lock(); }
    void unlock() RELEASE() { mutex_.unlock(); }

  private:
    std::recursive_mutex mutex_;
};

// Holds the lock for its scope.
template <typename M>
class SCOPED_CAPABILITY ScopedLock {
  public:
    explicit ScopedLock(M& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~ScopedLock() RELEASE() { mutex_.unlock(); }
    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

  private:
    M& mutex_;
};

using MutexLock = ScopedLock<Mutex>;
using RecursiveLock = ScopedLock<RecursiveMutex>;

// A condition variable for waits under a Mutex, which the caller holds and names at every wait.
class CondVar {
  public:
    CondVar() = default;
    CondVar(const CondVar&) = delete;
    CondVar& operator=(const CondVar&) = delete;

    // Releases `mutex` while it waits, and holds it again when it returns.
    void wait(Mutex& mutex) REQUIRES(mutex) {
        std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
        changed_.wait(lock);
        lock.release();
    }
    // As wait(), until `deadline` of the steady clock; false when it passed first.
    bool waitUntil(Mutex& mutex, std::chrono::steady_clock::time_point deadline) REQUIRES(mutex) {
        std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
        const bool woken = changed_.wait_until(lock, deadline) == std::cv_status::no_timeout;
        lock.release();
        return woken;
    }
    void signal() { changed_.notify_one(); }
    void signalAll() { changed_.notify_all(); }

  private:
    std::condition_variable changed_;
};

}  // namespace FerritCore
