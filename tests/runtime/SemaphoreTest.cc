#include "runtime/Semaphore.h"

#include <gtest/gtest.h>

#include <thread>

namespace FerritCore {
namespace {

class SemaphoreTest : public ::testing::Test {};

// A latch: the signals before a wait release that one wait and are then forgotten.
TEST_F(SemaphoreTest, ThreeSignalsBeforeWaitReleaseThatWaitAndLeaveCountAtZero) {
    Semaphore latch(1, true);
    latch.signal();
    latch.signal();
    latch.signal();
    EXPECT_EQ(latch.count(), 3u);
    latch.wait();
    EXPECT_EQ(latch.count(), 0u);
    EXPECT_FALSE(latch.wait(0));
}

TEST_F(SemaphoreTest, TimedWaitWithoutEnoughSignalsTimesOutAndKeepsCount) {
    Semaphore semaphore(2, true);
    semaphore.signal();
    EXPECT_FALSE(semaphore.wait(1));
    EXPECT_EQ(semaphore.count(), 1u);
    semaphore.signal();
    EXPECT_TRUE(semaphore.wait(0));
    EXPECT_EQ(semaphore.count(), 0u);
}

TEST_F(SemaphoreTest, WithoutAutoResetCountStaysAfterWait) {
    Semaphore semaphore(1, false);
    semaphore.signal();
    semaphore.wait();
    EXPECT_EQ(semaphore.count(), 1u);
    EXPECT_TRUE(semaphore.wait(0));
}

TEST_F(SemaphoreTest, ResetForgetsSignals) {
    Semaphore semaphore;
    semaphore.signal();
    semaphore.reset();
    EXPECT_EQ(semaphore.count(), 0u);
    EXPECT_FALSE(semaphore.wait(0));
}

TEST_F(SemaphoreTest, ResetWithTargetSetsNewTargetAndForgetsSignals) {
    Semaphore semaphore(1, true);
    semaphore.signal();
    semaphore.reset(3);
    semaphore.signal();
    semaphore.signal();
    EXPECT_FALSE(semaphore.wait(0));
    semaphore.signal();
    EXPECT_TRUE(semaphore.wait(0));
}

TEST_F(SemaphoreTest, SignalFromAnotherThreadReleasesWaiter) {
    Semaphore ready;
    Semaphore go;
    std::thread other([&] {
        go.wait();
        ready.signal();
    });
    go.signal();
    ready.wait();
    other.join();
    EXPECT_EQ(ready.count(), 0u);
}

}  // namespace
}  // namespace FerritCore
