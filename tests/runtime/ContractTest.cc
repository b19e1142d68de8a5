#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "runtime/TaskRunner.h"
#include "runtime/WorkerCheck.h"
#include "support/Contract.h"
#include "support/Mutex.h"

namespace FerritCore {
namespace {

class ContractTest : public ::testing::Test {
  protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
    void TearDown() override { TaskRunner::clear(); }
};

struct Guarded {
    Mutex mutex;
    CondVar changed;
    bool waiting GUARDED_BY(mutex) = false;
    bool answered GUARDED_BY(mutex) = false;
};

// The analysis knows no recursive locks: the second take of one is made outside it, as the
// library's own are (in another function).
void lockAgain(RecursiveMutex& mutex) NO_THREAD_SAFETY_ANALYSIS {
    mutex.lock();
}
void unlockAgain(RecursiveMutex& mutex) NO_THREAD_SAFETY_ANALYSIS {
    mutex.unlock();
}

// ---- Mutex::assertHeld

TEST_F(ContractTest, AssertHeldPassesWhileTheCallerHoldsTheLock) {
    Mutex mutex;
    MutexLock lock(mutex);
    mutex.assertHeld();
}

TEST_F(ContractTest, AssertHeldWithoutTheLockAbortsWhereContractsAreChecked) {
    if (!kContractsChecked) GTEST_SKIP() << "contracts are compiled out of this build";
    Mutex mutex;
    EXPECT_DEATH(mutex.assertHeld(), "contract broken: the caller must hold this lock");
}

TEST_F(ContractTest, AssertHeldOnAThreadThatDoesNotHoldTheLockAborts) {
    if (!kContractsChecked) GTEST_SKIP() << "contracts are compiled out of this build";
    Mutex mutex;
    MutexLock lock(mutex);
    EXPECT_DEATH(std::thread([&mutex] { mutex.assertHeld(); }).join(),
                 "the caller must hold this lock");
}

TEST_F(ContractTest, RecursiveMutexIsHeldUntilItsLastUnlock) {
    if (!kContractsChecked) GTEST_SKIP() << "contracts are compiled out of this build";
    RecursiveMutex mutex;
    {
        RecursiveLock outer(mutex);
        lockAgain(mutex);
        unlockAgain(mutex);
        mutex.assertHeld();
    }
    EXPECT_DEATH(mutex.assertHeld(), "the caller must hold this lock");
}

// A wait gives the lock up: the thread that takes it meanwhile holds it, and the waiter holds it
// again when the wait returns.
TEST_F(ContractTest, CondVarWaitHandsTheLockOverAndTakesItBack) {
    Guarded shared;
    std::thread answerer([&shared] {
        MutexLock lock(shared.mutex);
        while (!shared.waiting) shared.changed.wait(shared.mutex);
        shared.mutex.assertHeld();
        shared.answered = true;
        shared.changed.signalAll();
    });
    {
        MutexLock lock(shared.mutex);
        shared.waiting = true;
        shared.changed.signalAll();
        while (!shared.answered) shared.changed.wait(shared.mutex);
        shared.mutex.assertHeld();
    }
    answerer.join();
}

TEST_F(ContractTest, LocksAreTheStandardTypesWhereContractsAreNotChecked) {
    if (kContractsChecked) GTEST_SKIP() << "this build checks contracts";
    EXPECT_EQ(sizeof(Mutex), sizeof(std::mutex));
    EXPECT_EQ(sizeof(RecursiveMutex), sizeof(std::recursive_mutex));
}

// ---- assertOnWorker

// Test binaries run the process's tasks by hand on the test's thread (tests/ManualTaskRunner.cc).
TEST_F(ContractTest, TestThreadStandsInForTheWorkerOfAManualRunner) {
    EXPECT_TRUE(isOnWorker());
    assertOnWorker();
}

TEST_F(ContractTest, AnotherThreadIsNotTheWorker) {
    bool onWorker = true;
    std::thread([&onWorker] { onWorker = isOnWorker(); }).join();
    EXPECT_FALSE(onWorker);
}

TEST_F(ContractTest, TaskOfTheProcessRunnerRunsOnTheWorker) {
    bool onWorker = false;
    TaskRunner::post([&onWorker] {
        assertOnWorker();
        onWorker = isOnWorker();
    });
    EXPECT_EQ(TaskRunner::runDue(), 1u);
    EXPECT_TRUE(onWorker);
}

TEST_F(ContractTest, CallOffTheWorkerAbortsWhereContractsAreChecked) {
    if (!kContractsChecked) GTEST_SKIP() << "contracts are compiled out of this build";
    EXPECT_DEATH(std::thread([] { assertOnWorker(); }).join(),
                 "ContractTest.cc:[0-9]+: contract broken: this runs on the worker only");
}

TEST_F(ContractTest, WorkerThreadIsTheWorkerContextOfAWorkerRunner) {
    TaskRunner runner("contract-test", TaskRunner::Mode::Worker);
    std::atomic<bool> inTask{false};
    runner.postTask([&] { inTask = runner.isWorkerContext(); });
    runner.runDueTasks();
    EXPECT_TRUE(inTask.load());
    EXPECT_FALSE(runner.isWorkerContext());
}

TEST_F(ContractTest, ManualRunnerIsDrivenFromTheThreadThatMadeItOrInsideItsRun) {
    TaskRunner runner("contract-test", TaskRunner::Mode::Manual);
    EXPECT_TRUE(runner.isWorkerContext());
    bool elsewhere = true;
    bool inTask = false;
    runner.postTask([&] { inTask = runner.isWorkerContext(); });
    std::thread([&] {
        elsewhere = runner.isWorkerContext();
        runner.runDueTasks();
    }).join();
    EXPECT_FALSE(elsewhere);
    EXPECT_TRUE(inTask);
}

}  // namespace
}  // namespace FerritCore
