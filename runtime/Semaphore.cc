#include "runtime/Semaphore.h"

#include <chrono>
#include <limits>

#include "support/Mutex.h"

namespace FerritCore {

void Semaphore::signal() {
    MutexLock lock(mutex_);
    // Saturates: a latch that is signalled four billion times without a wait must still release
    // the next wait rather than wrap to 0.
    if (count_ != std::numeric_limits<uint32_t>::max()) ++count_;
    changed_.signal();
}

void Semaphore::wait() {
    MutexLock lock(mutex_);
    while (count_ < target_) changed_.wait(mutex_);
    consume();
}

bool Semaphore::wait(uint32_t milliseconds) {
    MutexLock lock(mutex_);
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    while (count_ < target_) {
        if (!changed_.waitUntil(mutex_, deadline) && count_ < target_) return false;
    }
    consume();
    return true;
}

void Semaphore::consume() {
    mutex_.assertHeld();
    if (autoReset_) {
        count_ = 0;
    } else {
        // The count stays reached, so the next waiter may go too: pass the wake-up on, since a
        // signal wakes only one.
        changed_.signal();
    }
}

void Semaphore::reset() {
    MutexLock lock(mutex_);
    count_ = 0;
}

void Semaphore::reset(uint32_t target) {
    MutexLock lock(mutex_);
    target_ = target;
    count_ = 0;
    // A target of 0 is met at once: let the waiters see it.
    changed_.signalAll();
}

uint32_t Semaphore::count() const {
    MutexLock lock(mutex_);
    return count_;
}

}  // namespace FerritCore
