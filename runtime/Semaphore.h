// Semaphore: a counted event. wait() returns once `target` signals have arrived; with autoReset
// the count then drops back to 0, so that with a target of 1 any number of signals before a wait
// release that one wait and are forgotten (a latch, not a counter). The task runner's wake-up and
// lifecycle signals are such latches.
//
// Any thread may call any operation. The object must outlive every waiter.
#pragma once

#include <cstdint>
#include <mutex>

#include "support/Mutex.h"

namespace FerritCore {

class Semaphore {
  public:
    explicit Semaphore(uint32_t target = 1, bool autoReset = true)
        : target_(target), autoReset_(autoReset) {}
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;

    // Counts one signal and wakes one waiter.
    void signal();
    // Blocks until the count reaches the target; resets the count when autoReset is set.
    void wait();
    // As wait(), for at most `milliseconds` of the steady clock. True when the count was reached
    // (and then reset, with autoReset); false on time-out, leaving the count as it was.
    bool wait(uint32_t milliseconds);
    // Forgets the signals counted so far.
    void reset();
    // Forgets the signals counted so far and sets a new target.
    void reset(uint32_t target);

    // The signals counted and not yet consumed (diagnostics and tests).
    uint32_t count() const;

  private:
    // After a wait has been satisfied.
    void consume() REQUIRES(mutex_);

    mutable Mutex mutex_;
    CondVar changed_;
    uint32_t target_ GUARDED_BY(mutex_);
    uint32_t count_ GUARDED_BY(mutex_) = 0;
    const bool autoReset_;
};

}  // namespace FerritCore
