// Mutex, RecursiveMutex, their scoped locks and CondVar: the standard locks with clang's
// thread-safety annotations, so that the compiler checks every field marked GUARDED_BY. Any
// thread; the usual rules of the standard types hold.
//
// assertHeld() is for code whose caller must hold the lock (a function marked REQUIRES, or one
// that a callback reaches under it): where contracts are checked (support/Contract.h) each lock
// remembers the thread that holds it and assertHeld() aborts on any other; elsewhere the lock is
// exactly the standard type it wraps and assertHeld() is nothing. Either way it tells clang's
// analysis that the lock is held from there on.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <type_traits>

#include "support/Contract.h"
#include "support/ThreadAnnotations.h"

namespace FerritCore {

// Which thread holds a lock, and how many times (a recursive lock is taken again by its holder).
// Only the holder writes it, between taking and releasing the lock; any thread may ask.
class LockHolder {
  public:
    void took() {
        const std::thread::id self = std::this_thread::get_id();
        if (owner_.load(std::memory_order_relaxed) == self) {
            ++depth_;
            return;
        }
        owner_.store(self, std::memory_order_relaxed);
        depth_ = 1;
    }
    void releasing() {
        if (--depth_ == 0) owner_.store(std::thread::id(), std::memory_order_relaxed);
    }
    // Sets the count aside while a wait gives the lock up, and puts it back after.
    uint32_t suspend() {
        const uint32_t depth = depth_;
        depth_ = 0;
        owner_.store(std::thread::id(), std::memory_order_relaxed);
        return depth;
    }
    void resume(uint32_t depth) {
        owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
        depth_ = depth;
    }
    void check(const char* file, int line) const {
        if (owner_.load(std::memory_order_relaxed) != std::this_thread::get_id()) {
            contractBroken("the caller must hold this lock", file, line);
        }
    }

  private:
    std::atomic<std::thread::id> owner_{};
    uint32_t depth_ = 0;
};

// The same operations where contracts are not checked, and nothing in them.
struct NoLockHolder {
    void took() {}
    void releasing() {}
    uint32_t suspend() { return 0; }
    void resume(uint32_t) {}
    void check(const char*, int) const {}
};

using LockHolderFor = std::conditional_t<kContractsChecked, LockHolder, NoLockHolder>;

// One body for both locks; `Std` is the standard lock it wraps. A recursive one serves a task that
// posts from inside a task, or a transaction that runs another, and so takes its lock again.
template <typename Std>
class CAPABILITY("mutex") BasicMutex {
  public:
    BasicMutex() = default;
    BasicMutex(const BasicMutex&) = delete;
    BasicMutex& operator=(const BasicMutex&) = delete;

    void lock() ACQUIRE() {
        mutex_.lock();
        holder_.took();
    }
    void unlock() RELEASE() {
        holder_.releasing();
        mutex_.unlock();
    }
    // The calling thread holds this lock, at least once (see above); the defaults name the caller.
    void assertHeld(const char* file = __builtin_FILE(), int line = __builtin_LINE()) const
        ASSERT_CAPABILITY(this) {
        holder_.check(file, line);
    }

  private:
    // Waits give up a plain lock only: a recursive one held twice would stay held.
    friend class CondVar;
    Std mutex_;
    [[no_unique_address]] LockHolderFor holder_;
};

using Mutex = BasicMutex<std::mutex>;
using RecursiveMutex = BasicMutex<std::recursive_mutex>;

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

// Holds the lock until release() or the end of its scope, whichever comes first: for locking hand
// over hand, where an outer lock is let go once an inner one is held, without a bare unlock() on a
// path that an early return could miss.
class SCOPED_CAPABILITY ReleasableMutexLock {
  public:
    explicit ReleasableMutexLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~ReleasableMutexLock() RELEASE() {
        if (held_) mutex_.unlock();
    }
    ReleasableMutexLock(const ReleasableMutexLock&) = delete;
    ReleasableMutexLock& operator=(const ReleasableMutexLock&) = delete;

    // Lets the lock go before the end of the scope; called at most once.
    void release() RELEASE() {
        held_ = false;
        mutex_.unlock();
    }

  private:
    Mutex& mutex_;
    bool held_ = true;
};

// A condition variable for waits under a Mutex, which the caller holds and names at every wait.
class CondVar {
  public:
    CondVar() = default;
    CondVar(const CondVar&) = delete;
    CondVar& operator=(const CondVar&) = delete;

    // Releases `mutex` while it waits, and holds it again when it returns.
    void wait(Mutex& mutex) REQUIRES(mutex) {
        const uint32_t depth = mutex.holder_.suspend();
        std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
        changed_.wait(lock);
        lock.release();
        mutex.holder_.resume(depth);
    }
    // As wait(), until `deadline` of the steady clock; false when it passed first.
    bool waitUntil(Mutex& mutex, std::chrono::steady_clock::time_point deadline) REQUIRES(mutex) {
        const uint32_t depth = mutex.holder_.suspend();
        std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
        const bool woken = changed_.wait_until(lock, deadline) == std::cv_status::no_timeout;
        lock.release();
        mutex.holder_.resume(depth);
        return woken;
    }
    void signal() { changed_.notify_one(); }
    void signalAll() { changed_.notify_all(); }

  private:
    std::condition_variable changed_;
};

}  // namespace FerritCore
