#include "runtime/Semaphore.h"

#include <chrono>
#include <limits>

namespace FerritCore {

void Semaphore::signal() {
    std::lock_guard<std::mutex> lock(mutex_);
    // Saturates: a latch that is signalled four billion times without a wait must still release
    // the next wait rather than wrap to 0.
    if (count_ != std::numeric_limits<uint32_t>::max()) ++count_;
    changed_.notify_one();
}

void Semaphore::wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return count_ >= target_; });
    consume();
}

bool Semaphore::wait(uint32_t milliseconds) {
    std::unique_lock<std::mutex> lock(mutex_);
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    if (!changed_.wait_until(lock, deadline, [this] { return count_ >= target_; })) return false;
    consume();
    return true;
}

void Semaphore::consume() {
    if (autoReset_) {
        count_ = 0;
    } else {
        // The count stays reached, so the next waiter may go too: pass the wake-up on, since a
        // signal wakes only one.
        changed_.notify_one();
    }
}

void Semaphore::reset() {
    std::lock_guard<std::mutex> lock(mutex_);
    count_ = 0;
}

void Semaphore::reset(uint32_t target) {
    std::lock_guard<std::mutex> lock(mutex_);
    target_ = target;
    count_ = 0;
    // A target of 0 is met at once: let the waiters see it.
    changed_.notify_all();
}

uint32_t Semaphore::count() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return count_;
}

}  // namespace FerritCore
