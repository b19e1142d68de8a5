#include "runtime/TaskRunner.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "marl/Clock.h"
#include "marl/Log.h"

namespace FerritCore {
namespace {

// Generous bound for real-thread tests: they wait on semaphores, never on the clock, and a
// passing run returns as soon as the worker has done its part.
constexpr uint32_t kPatienceMs = 10000;

// Records the order in which tasks ran. Only ever touched by the thread that runs tasks, or after
// a semaphore has ordered it behind them.
struct Order {
    std::mutex mutex;
    std::vector<std::string> names;
    void add(const std::string& name) {
        std::lock_guard<std::mutex> lock(mutex);
        names.push_back(name);
    }
    std::vector<std::string> get() {
        std::lock_guard<std::mutex> lock(mutex);
        return names;
    }
};

class TaskRunnerTest : public ::testing::Test {
  protected:
    TaskRunner::Callable record(const std::string& name) {
        return [this, name] { order_.add(name); };
    }

    MarlLogger::ScopedManualClock clock_;
    TaskRunner runner_{"test-manual", TaskRunner::Mode::Manual};
    Order order_;
};

// A runner with its own thread, on the real clocks.
class TaskRunnerWorkerTest : public ::testing::Test {
  protected:
    // True once the worker is inside a wait, having run everything it was given. Spins on the
    // worker's counters (no sleep), for at most kPatienceMs of the steady clock.
    bool waitUntilWaiting() {
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(kPatienceMs);
        while (runner_.waitCount() <= runner_.wakeCount()) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            std::this_thread::yield();
        }
        return true;
    }
    TaskRunner runner_{"test-worker", TaskRunner::Mode::Worker};
    Order order_;
};

// ---- Order

TEST_F(TaskRunnerTest, ZeroDelayTasksRunInOrderOfPosting) {
    runner_.postTask(record("a"));
    runner_.postTask(record("b"));
    runner_.postTask(record("c"));
    EXPECT_EQ(runner_.runDueTasks(), 3u);
    EXPECT_EQ(order_.get(), (std::vector<std::string>{"a", "b", "c"}));
}

TEST_F(TaskRunnerTest, IdsStartAtOneAndAscend) {
    EXPECT_EQ(runner_.postTask(record("a")), 1u);
    EXPECT_EQ(runner_.postTask(record("b"), 10), 2u);
    EXPECT_EQ(runner_.postTask(record("c")), 3u);
}

TEST_F(TaskRunnerTest, ZeroDelayPostRunsBeforeOverdueHeapTaskWhenSeenBySameDrain) {
    runner_.postTask(record("delayed"), 100);
    runner_.runDueTasks();  // takes the delayed task into the heap
    clock_->advance(500);   // long overdue now
    runner_.postTask(record("now"));
    runner_.runDueTasks();
    EXPECT_EQ(order_.get(), (std::vector<std::string>{"now", "delayed"}));
}

TEST_F(TaskRunnerTest, TasksWithSameDueTimeRunInAscendingIdOrder) {
    const TaskId first = runner_.postTask(record("first"), 100);
    runner_.runDueTasks();
    clock_->advance(40);
    const TaskId second = runner_.postTask(record("second"), 60);  // due at the same instant
    ASSERT_LT(first, second);
    clock_->advance(60);
    runner_.runDueTasks();
    EXPECT_EQ(order_.get(), (std::vector<std::string>{"first", "second"}));
}

TEST_F(TaskRunnerTest, DelayedTasksRunByDueTimeNotByPosting) {
    runner_.postTask(record("late"), 30);
    runner_.postTask(record("early"), 10);
    runner_.postTask(record("middle"), 20);
    clock_->advance(30);
    runner_.runDueTasks();
    EXPECT_EQ(order_.get(), (std::vector<std::string>{"early", "middle", "late"}));
}

TEST_F(TaskRunnerTest, DelayedTaskWaitsForItsTime) {
    runner_.postTask(record("a"), 100);
    clock_->advance(99.5);
    EXPECT_EQ(runner_.runDueTasks(), 0u);
    clock_->advance(0.5);
    EXPECT_EQ(runner_.runDueTasks(), 1u);
    EXPECT_EQ(order_.get(), (std::vector<std::string>{"a"}));
}

// A batch of due heap tasks shares one reading of the clock; what they post waits for the batch.
TEST_F(TaskRunnerTest, DueHeapTasksRunBeforeWorkTheyPost) {
    runner_.postTask(
        [this] {
            order_.add("a");
            runner_.postTask(record("posted by a"));
        },
        10);
    runner_.postTask(record("b"), 10);
    clock_->advance(10);
    runner_.runDueTasks();
    EXPECT_EQ(order_.get(), (std::vector<std::string>{"a", "b", "posted by a"}));
}

TEST_F(TaskRunnerTest, TaskMayPostAndItsPostRunsInSameCall) {
    runner_.postTask([this] {
        order_.add("outer");
        runner_.postTask(record("inner"));
    });
    EXPECT_EQ(runner_.runDueTasks(), 2u);
    EXPECT_EQ(order_.get(), (std::vector<std::string>{"outer", "inner"}));
}

TEST_F(TaskRunnerTest, NegativeDelayTakesDelayedPathWithDueTimeLongPast) {
    runner_.postTask(record("negative"), -5);
    runner_.postTask(record("zero"));
    EXPECT_EQ(runner_.pendingDueTimes(), (std::vector<double>{-5, 0}));
    runner_.runDueTasks();
    // The zero-delay task runs in the drain; the negative one goes through the heap after it.
    EXPECT_EQ(order_.get(), (std::vector<std::string>{"zero", "negative"}));
}

TEST_F(TaskRunnerTest, NaNDelayRunsAtOnce) {
    runner_.postTask(record("nan"), std::numeric_limits<double>::quiet_NaN());
    EXPECT_EQ(runner_.pendingDueTimes(), (std::vector<double>{0}));
    EXPECT_EQ(runner_.runDueTasks(), 1u);
}

TEST_F(TaskRunnerTest, InfiniteDelayNeverComesDue) {
    runner_.postTask(record("never"), std::numeric_limits<double>::infinity());
    clock_->advance(1e12);
    EXPECT_EQ(runner_.runDueTasks(), 0u);
    EXPECT_EQ(runner_.pendingTasks(), 1u);
}

TEST_F(TaskRunnerTest, EmptyCallableIsRefused) {
    EXPECT_EQ(runner_.postTask(TaskRunner::Callable()), 0u);
    EXPECT_EQ(runner_.pendingTasks(), 0u);
    std::atomic<TaskId> holder{0};
    runner_.postTaskOnce(holder, TaskRunner::Callable(), 10);
    EXPECT_EQ(holder.load(), 0u);
    EXPECT_EQ(runner_.pendingTasks(), 0u);
}

TEST_F(TaskRunnerTest, PendingCountCoversWaitingAndDelayedTasks) {
    runner_.postTask(record("a"));
    runner_.postTask(record("b"), 50);
    EXPECT_EQ(runner_.pendingTasks(), 2u);
    runner_.runDueTasks();
    EXPECT_EQ(runner_.pendingTasks(), 1u);
    clock_->advance(50);
    runner_.runDueTasks();
    EXPECT_EQ(runner_.pendingTasks(), 0u);
}

TEST_F(TaskRunnerTest, RunDueFromWithinTaskReturnsZero) {
    size_t nested = 99;
    runner_.postTask([&] { nested = runner_.runDueTasks(); });
    runner_.postTask(record("after"));
    EXPECT_EQ(runner_.runDueTasks(), 2u);
    EXPECT_EQ(nested, 0u);
}

// ---- Cancelling

TEST_F(TaskRunnerTest, CancelOfTaskStillIncomingRemovesItSynchronously) {
    const TaskId id = runner_.postTask(record("cancelled"), 100);
    runner_.postTask(record("kept"), 100);
    runner_.cancelTask(id);
    EXPECT_EQ(runner_.pendingTasks(), 1u);  // no cancellation task was needed
    clock_->advance(100);
    runner_.runDueTasks();
    EXPECT_EQ(order_.get(), (std::vector<std::string>{"kept"}));
}

TEST_F(TaskRunnerTest, CancelOfDelayedTaskTakesEffectOnWorker) {
    const TaskId id = runner_.postTask(record("cancelled"), 100);
    runner_.runDueTasks();  // now in the heap
    runner_.cancelTask(id);
    // The removal is itself a task: both wait for the worker.
    EXPECT_EQ(runner_.pendingTasks(), 2u);
    clock_->advance(100);
    runner_.runDueTasks();
    EXPECT_TRUE(order_.get().empty());
    EXPECT_EQ(runner_.pendingTasks(), 0u);
}

TEST_F(TaskRunnerTest, CancelOfTaskThatHasRunDoesNothing) {
    const TaskId id = runner_.postTask(record("ran"));
    runner_.postTask(record("later"), 10);
    runner_.runDueTasks();
    runner_.cancelTask(id);
    clock_->advance(10);
    runner_.runDueTasks();
    EXPECT_EQ(order_.get(), (std::vector<std::string>{"ran", "later"}));
    EXPECT_EQ(runner_.pendingTasks(), 0u);
}

TEST_F(TaskRunnerTest, CancelOfZeroDoesNothing) {
    runner_.postTask(record("a"), 10);
    runner_.cancelTask(0);
    EXPECT_EQ(runner_.pendingTasks(), 1u);
    EXPECT_EQ(runner_.pendingDueTimes().size(), 1u);
    clock_->advance(10);
    runner_.runDueTasks();
    EXPECT_EQ(order_.get(), (std::vector<std::string>{"a"}));
}

TEST_F(TaskRunnerTest, CancelOfUnknownIdDoesNothing) {
    runner_.postTask(record("a"), 10);
    runner_.runDueTasks();
    runner_.cancelTask(12345);
    clock_->advance(10);
    runner_.runDueTasks();
    EXPECT_EQ(order_.get(), (std::vector<std::string>{"a"}));
}

// ---- Once

TEST_F(TaskRunnerTest, PostOnceTwiceBeforeRunLeavesOneTaskWithDelayOfFirstCall) {
    std::atomic<TaskId> holder{0};
    runner_.postTaskOnce(holder, record("first"), 1000);
    const TaskId held = holder.load();
    EXPECT_NE(held, 0u);
    runner_.postTaskOnce(holder, record("second"), 10);
    EXPECT_EQ(holder.load(), held);
    EXPECT_EQ(runner_.pendingTasks(), 1u);
    clock_->advance(10);
    EXPECT_EQ(runner_.runDueTasks(), 0u);
    clock_->advance(990);
    runner_.runDueTasks();
    EXPECT_EQ(order_.get(), (std::vector<std::string>{"first"}));
}

TEST_F(TaskRunnerTest, PostOnceTakesEffectAgainAfterItsTaskRan) {
    std::atomic<TaskId> holder{0};
    auto save = [&] { order_.add("save"); };
    runner_.postTaskOnce(holder, save, 1000);
    clock_->advance(1000);
    runner_.runDueTasks();
    runner_.postTaskOnce(holder, save, 1000);
    clock_->advance(1000);
    runner_.runDueTasks();
    EXPECT_EQ(order_.get(), (std::vector<std::string>{"save", "save"}));
}

TEST_F(TaskRunnerTest, PostOnceHolderIsReleasedWhenItsTaskBegins) {
    std::atomic<TaskId> holder{0};
    TaskId seen = 1;
    runner_.postTaskOnce(
        holder,
        [&] {
            seen = holder.load();
            order_.add("once");
        },
        0);
    runner_.runDueTasks();
    EXPECT_EQ(seen, 0u) << "released before the callable runs";
    runner_.postTaskOnce(holder, record("again"), 0);
    runner_.runDueTasks();
    EXPECT_EQ(order_.get(), (std::vector<std::string>{"once", "again"}));
}

TEST_F(TaskRunnerTest, PostOnceTaskThatPostsItselfAgainRunsTwice) {
    std::atomic<TaskId> holder{0};
    int runs = 0;
    std::function<void()> body = [&] {
        if (++runs == 1) runner_.postTaskOnce(holder, body, 0);
    };
    runner_.postTaskOnce(holder, body, 0);
    runner_.runDueTasks();
    EXPECT_EQ(runs, 2);
    EXPECT_EQ(holder.load(), 0u);
}

TEST_F(TaskRunnerTest, DroppedPostOnceTasksReleaseTheirHolders) {
    std::atomic<TaskId> waiting{0};
    std::atomic<TaskId> delayed{0};
    runner_.postTaskOnce(delayed, record("delayed"), 1000);
    runner_.runDueTasks();  // takes the delayed one into the heap
    runner_.postTaskOnce(waiting, record("waiting"), 0);
    runner_.dropTasks();
    EXPECT_EQ(waiting.load(), 0u);
    EXPECT_EQ(delayed.load(), 0u);
    runner_.postTaskOnce(waiting, record("after"), 0);
    runner_.postTaskOnce(delayed, record("later"), 1000);
    clock_->advance(1000);
    runner_.runDueTasks();
    EXPECT_EQ(order_.get(), (std::vector<std::string>{"after", "later"}));
}

TEST_F(TaskRunnerTest, CancelledPostOnceTaskReleasesItsHolder) {
    std::atomic<TaskId> holder{0};
    runner_.postTaskOnce(holder, record("cancelled"), 1000);
    runner_.runDueTasks();
    runner_.cancelTask(holder.load());
    runner_.runDueTasks();  // the removal from the heap
    EXPECT_EQ(holder.load(), 0u);
    runner_.postTaskOnce(holder, record("posted"), 0);
    runner_.runDueTasks();
    EXPECT_EQ(order_.get(), (std::vector<std::string>{"posted"}));
}

TEST_F(TaskRunnerTest, HolderThatMovedOnIsLeftAloneByAnOlderTask) {
    std::atomic<TaskId> holder{0};
    runner_.postTaskOnce(holder, record("old"), 0);
    holder.store(0);
    runner_.postTaskOnce(holder, record("new"), 1000);
    const TaskId newer = holder.load();
    runner_.runDueTasks();  // runs "old", whose id the holder no longer has
    EXPECT_EQ(holder.load(), newer);
}

TEST_F(TaskRunnerTest, CancelOnceEmptiesHolderAndCancelsTask) {
    std::atomic<TaskId> holder{0};
    runner_.postTaskOnce(holder, record("save"), 1000);
    runner_.cancelTaskOnce(holder);
    EXPECT_EQ(holder.load(), 0u);
    EXPECT_EQ(runner_.pendingTasks(), 0u);
    clock_->advance(1000);
    runner_.runDueTasks();
    EXPECT_TRUE(order_.get().empty());
}

TEST_F(TaskRunnerTest, CancelOnceOfEmptyHolderDoesNothing) {
    std::atomic<TaskId> holder{0};
    runner_.postTask(record("a"));
    runner_.cancelTaskOnce(holder);
    EXPECT_EQ(runner_.pendingTasks(), 1u);
}

// ---- Clearing

TEST_F(TaskRunnerTest, ClearDropsWaitingTasksWithoutRunningThem) {
    auto witness = std::make_shared<int>(0);
    runner_.postTask([witness, this] { order_.add("a"); });
    runner_.postTask(record("b"), 10);
    runner_.runDueTasks();
    runner_.postTask([witness, this] { order_.add("c"); }, 5);
    runner_.dropTasks();
    EXPECT_EQ(runner_.pendingTasks(), 0u);
    EXPECT_EQ(witness.use_count(), 1);  // the dropped callable is gone
    clock_->advance(10);
    runner_.runDueTasks();
    EXPECT_EQ(order_.get(), (std::vector<std::string>{"a"}));
}

// What a dropped callable owns may post from its destructor (a guard that hands work on): the
// drop destroys callables only after it has let go of the runner's lock, so such a post is taken
// like any other, both from a task still waiting and from one in the heap.
TEST_F(TaskRunnerTest, ClearDestroysCallablesAfterReleasingTheLock) {
    struct PostsWhenDestroyed {
        PostsWhenDestroyed(TaskRunner* r, std::function<void()> t)
            : runner(r), task(std::move(t)) {}
        ~PostsWhenDestroyed() { runner->postTask(task); }
        TaskRunner* runner;
        std::function<void()> task;
    };
    runner_.postTask(record("delayed"), 10);
    runner_.runDueTasks();  // "delayed" is now in the heap
    auto inHeap = std::make_shared<PostsWhenDestroyed>(&runner_, record("b"));
    runner_.postTask([inHeap] {}, 10);
    runner_.runDueTasks();
    auto waiting = std::make_shared<PostsWhenDestroyed>(&runner_, record("a"));
    runner_.postTask([waiting] {});
    inHeap.reset();
    waiting.reset();
    runner_.dropTasks();
    EXPECT_EQ(runner_.pendingTasks(), 2u);
    runner_.runDueTasks();
    EXPECT_EQ(order_.get(), (std::vector<std::string>{"a", "b"}));
}

TEST_F(TaskRunnerTest, ClearFromWithinTaskDropsDelayedTasks) {
    runner_.postTask(record("delayed"), 10);
    runner_.runDueTasks();
    runner_.postTask([this] { runner_.dropTasks(); });
    runner_.runDueTasks();
    clock_->advance(10);
    runner_.runDueTasks();
    EXPECT_TRUE(order_.get().empty());
    EXPECT_EQ(runner_.pendingTasks(), 0u);
}

// ---- The process's runner

TEST_F(TaskRunnerTest, ProcessRunnerIsDrivenByHandInTests) {
    EXPECT_EQ(TaskRunner::shared().mode(), TaskRunner::Mode::Manual);
    TaskRunner::clear();
    bool ran = false;
    TaskRunner::post([&] { ran = true; }, 5000);
    EXPECT_EQ(TaskRunner::pendingCount(), 1u);
    clock_->advance(4999);
    EXPECT_EQ(TaskRunner::runDue(), 0u);
    EXPECT_FALSE(ran);
    clock_->advance(1);
    EXPECT_EQ(TaskRunner::runDue(), 1u);
    EXPECT_TRUE(ran);
}

TEST_F(TaskRunnerTest, ProcessRunnerKeepsManualModeUntilWorkerStarts) {
    EXPECT_TRUE(TaskRunner::setSharedMode(TaskRunner::Mode::Manual));
    EXPECT_EQ(TaskRunner::shared().name(), "com.tarvos.ferrit");
}

TEST_F(TaskRunnerTest, ProcessRunnerOperationsReachOneInstance) {
    TaskRunner::clear();
    std::atomic<TaskId> holder{0};
    int runs = 0;
    TaskRunner::postOnce(
        holder, [&] { ++runs; }, 10);
    TaskRunner::cancelOnce(holder);
    const TaskId id = TaskRunner::post([&] { ++runs; }, 10);
    TaskRunner::cancel(id);
    auto timer = TaskRunner::postRepeating([&] { ++runs; }, 100);
    ASSERT_NE(timer, nullptr);
    TaskRunner::runDue();  // first appearance: starts the rhythm
    clock_->advance(101);
    TaskRunner::runDue();
    EXPECT_EQ(runs, 1);
    TaskRunner::clear();
    EXPECT_EQ(TaskRunner::pendingCount(), 0u);
}

// ---- Due times on the wall clock

// A delayed task is due at an absolute time of the wall clock: the time its delay was posted at,
// plus the delay. Setting the wall clock forward makes it due although no time passed.
TEST_F(TaskRunnerTest, DelayedTaskIsDueAtAnAbsoluteTimeOfTheWallClock) {
    const double posted = MRLCurrentTime();
    runner_.postTask(record("later"), 1000);
    EXPECT_EQ(runner_.pendingDueTimes(), (std::vector<double>{posted + 1000}));
    runner_.runDueTasks();  // takes it up into the heap
    EXPECT_TRUE(order_.get().empty());
    clock_->setWall(posted + 999);
    runner_.runDueTasks();
    EXPECT_TRUE(order_.get().empty());
    clock_->setWall(posted + 1000);
    runner_.runDueTasks();
    EXPECT_EQ(order_.get(), std::vector<std::string>{"later"});
}

// A repetition is due at the timer's last run plus its interval, on the wall clock.
TEST_F(TaskRunnerTest, RepetitionIsDueAtLastRunPlusIntervalOfTheWallClock) {
    int runs = 0;
    auto timer = runner_.postRepeatingTask([&] { ++runs; }, 500);
    timer->setLastRunTime(MRLCurrentTime() - 200);
    runner_.runDueTasks();
    EXPECT_EQ(runs, 0);
    EXPECT_EQ(runner_.pendingDueTimes(), (std::vector<double>{timer->lastRunTime() + 500}));
    clock_->setWall(timer->lastRunTime() + 501);
    runner_.runDueTasks();
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(runner_.pendingDueTimes(), (std::vector<double>{MRLCurrentTime() + 500}));
}

// ---- The wait

TEST_F(TaskRunnerTest, WaitIsDifferenceCutToWholeMilliseconds) {
    EXPECT_EQ(TaskRunner::waitMillis(1000.5, 1000), 0u);  // less than 1 ms waits 0 ms
    EXPECT_EQ(TaskRunner::waitMillis(1001.9, 1000), 1u);
    EXPECT_EQ(TaskRunner::waitMillis(900, 1000), 0u);
    EXPECT_EQ(TaskRunner::waitMillis(std::numeric_limits<double>::infinity(), 0),
              std::numeric_limits<uint32_t>::max());
    EXPECT_EQ(TaskRunner::waitMillis(1e300, 0), std::numeric_limits<uint32_t>::max());
}

// ---- The worker thread

TEST_F(TaskRunnerWorkerTest, WorkerStartsAtFirstPostAndRunsTasksInOrder) {
    Semaphore done;
    runner_.postTask([this] { order_.add("a"); });
    runner_.postTask([this] { order_.add("b"); });
    runner_.postTask([&] { done.signal(); });
    ASSERT_TRUE(done.wait(kPatienceMs));
    EXPECT_EQ(order_.get(), (std::vector<std::string>{"a", "b"}));
}

TEST_F(TaskRunnerWorkerTest, WorkerThreadCarriesRunnerNameCutToFifteenBytes) {
    TaskRunner named(TaskRunner::kSharedName, TaskRunner::Mode::Worker);
    Semaphore done;
    std::string seen;
    bool onRunner = false;
    named.postTask([&] {
        char name[32] = {};
        pthread_getname_np(pthread_self(), name, sizeof name);
        seen = name;
        onRunner = named.isRunnerThread();
        done.signal();
    });
    ASSERT_TRUE(done.wait(kPatienceMs));
    EXPECT_EQ(seen, "com.tarvos.ferr");
    EXPECT_TRUE(onRunner);
    EXPECT_FALSE(named.isRunnerThread());
}

TEST_F(TaskRunnerWorkerTest, DelayBelowOneMillisecondWaitsZeroAndRuns) {
    Semaphore done;
    runner_.postTask([&] { done.signal(); }, 0.5);
    EXPECT_TRUE(done.wait(kPatienceMs));
}

TEST_F(TaskRunnerWorkerTest, ShorterDelayPostWakesWorkerWhichRecomputesItsWait) {
    Semaphore settled;
    runner_.postTask([this] { order_.add("far"); }, 3600000);  // an hour: the heap's top
    runner_.postTask([&] { settled.signal(); });
    ASSERT_TRUE(settled.wait(kPatienceMs));
    const uint64_t wakes = runner_.wakeCount();
    Semaphore done;
    runner_.postTask([&] { done.signal(); }, 5);
    ASSERT_TRUE(done.wait(kPatienceMs));  // long before the hour is up
    EXPECT_GT(runner_.wakeCount(), wakes);
    EXPECT_TRUE(order_.get().empty());
}

// Between bursts the worker sleeps on its wake signal with no periodic wake-up: an idle worker
// waits for the whole distance to its next due task, or without limit when none is due.
TEST_F(TaskRunnerWorkerTest, IdleWorkerDoesNotWakeUp) {
    MarlLogger::ScopedManualClock clock;  // no time passes: the wait is the whole distance
    Semaphore settled;
    runner_.postTask([&] { settled.signal(); });
    ASSERT_TRUE(settled.wait(kPatienceMs));
    ASSERT_TRUE(waitUntilWaiting());
    EXPECT_EQ(runner_.lastWaitMillis(), TaskRunner::kWaitForever);

    Semaphore again;
    runner_.postTask([] {}, 3600000);
    runner_.postTask([&] { again.signal(); });
    ASSERT_TRUE(again.wait(kPatienceMs));
    ASSERT_TRUE(waitUntilWaiting());
    EXPECT_EQ(runner_.lastWaitMillis(), 3600000u);
}

TEST_F(TaskRunnerWorkerTest, CancelOfDelayedTaskTakesEffectOnWorker) {
    Semaphore settled;
    const TaskId id = runner_.postTask([this] { order_.add("cancelled"); }, 3600000);
    runner_.postTask([&] { settled.signal(); });
    ASSERT_TRUE(settled.wait(kPatienceMs));  // the delayed task is in the heap by now
    runner_.cancelTask(id);
    runner_.runDueTasks();  // the cancellation is due now; the task is not
    EXPECT_EQ(runner_.pendingTasks(), 0u);
    EXPECT_TRUE(order_.get().empty());
}

TEST_F(TaskRunnerWorkerTest, RunDueWaitsForWorkerToRunWhatIsDueNow) {
    std::atomic<int> ran{0};
    for (int i = 0; i < 10; ++i) runner_.postTask([&] { ran.fetch_add(1); });
    runner_.postTask([&] { ran.fetch_add(100); }, 3600000);
    // Some may have run before the call; the call returns once all have.
    EXPECT_LE(runner_.runDueTasks(), 10u);
    EXPECT_EQ(ran.load(), 10);
    EXPECT_EQ(runner_.pendingTasks(), 1u);
}

TEST_F(TaskRunnerWorkerTest, ClearDropsDelayedTasksOfWorker) {
    auto witness = std::make_shared<int>(0);
    Semaphore settled;
    runner_.postTask([witness] {}, 3600000);
    runner_.postTask([&] { settled.signal(); });
    ASSERT_TRUE(settled.wait(kPatienceMs));
    runner_.dropTasks();
    EXPECT_EQ(runner_.pendingTasks(), 0u);
    EXPECT_EQ(witness.use_count(), 1);
}

TEST_F(TaskRunnerWorkerTest, DestructionDropsTasksThatHaveNotRun) {
    auto witness = std::make_shared<int>(0);
    bool ran = false;
    {
        TaskRunner runner("short-lived", TaskRunner::Mode::Worker);
        Semaphore settled;
        runner.postTask([witness, &ran] { ran = true; }, 3600000);
        runner.postTask([&] { settled.signal(); });
        ASSERT_TRUE(settled.wait(kPatienceMs));
    }
    EXPECT_FALSE(ran);
    EXPECT_EQ(witness.use_count(), 1);
}

int failToStart(pthread_t*, void* (*)(void*), void*) {
    return EAGAIN;
}

// A thread that cannot be made loses no work: the failure is logged and the next post tries again.
TEST_F(TaskRunnerWorkerTest, ThreadCreationFailureIsLoggedAndRetriedAtNextPost) {
    MarlLogger::ScopedCapture capture;
    TaskRunner runner("fails-once", TaskRunner::Mode::Worker);
    TaskRunner::setThreadStarterForTesting(&failToStart);
    std::atomic<int> ran{0};
    runner.postTask([&] { ran.fetch_add(1); });
    TaskRunner::setThreadStarterForTesting(nullptr);
    const MarlLogger::LogEntry entry = capture->last("createThread", "Ferrit/Task");
    ASSERT_EQ(entry.event, "createThread");
    EXPECT_EQ(entry.level, MarlLogger::MRLLevelError);
    EXPECT_TRUE(entry.hasError);
    EXPECT_EQ(entry.errorMessage, "thread constructor failed");
    EXPECT_EQ(entry.errorCode, std::to_string(EAGAIN));
    EXPECT_EQ(runner.pendingTasks(), 1u);
    EXPECT_EQ(runner.runDueTasks(), 0u);  // no worker yet: nothing to wait for

    Semaphore done;
    runner.postTask([&] { done.signal(); });
    ASSERT_TRUE(done.wait(kPatienceMs));
    EXPECT_EQ(ran.load(), 1);
    EXPECT_EQ(capture->count("createThread"), 1u);
}

// ---- Many threads at once (meant for the thread sanitizer as much as for the counts)

TEST_F(TaskRunnerWorkerTest, ManyThreadsPostingAndCancellingRunEachSurvivorOnce) {
    constexpr int kThreads = 8;
    constexpr int kPerThread = 300;
    std::vector<std::atomic<int>> runs(kThreads * kPerThread);
    std::vector<std::atomic<bool>> cancelled(kThreads * kPerThread);
    std::vector<std::thread> posters;
    for (int t = 0; t < kThreads; ++t) {
        posters.emplace_back([&, t] {
            std::mt19937 random(1234 + t);
            std::vector<TaskId> mine;
            for (int i = 0; i < kPerThread; ++i) {
                const int slot = t * kPerThread + i;
                const double delay = (random() % 4 == 0) ? static_cast<double>(random() % 3) : 0.0;
                mine.push_back(runner_.postTask([&runs, slot] { runs[slot].fetch_add(1); }, delay));
                if (random() % 5 == 0) {
                    const int victim = static_cast<int>(random() % mine.size());
                    cancelled[t * kPerThread + victim].store(true);
                    runner_.cancelTask(mine[victim]);
                }
                if (random() % 50 == 0)
                    runner_.postTask([&runner = runner_] { runner.postTask([] {}); });
            }
        });
    }
    for (std::thread& poster : posters) poster.join();
    // Everything posted had a delay under 3 ms: a task 50 ms out comes after all of it.
    Semaphore done;
    runner_.postTask([&] { done.signal(); }, 50);
    ASSERT_TRUE(done.wait(kPatienceMs));
    runner_.runDueTasks();
    for (size_t slot = 0; slot < runs.size(); ++slot) {
        const int count = runs[slot].load();
        EXPECT_LE(count, 1) << slot;
        if (!cancelled[slot].load()) {
            EXPECT_EQ(count, 1) << slot;
        }
    }
    EXPECT_EQ(runner_.pendingTasks(), 0u);
}

TEST_F(TaskRunnerWorkerTest, ManyThreadsRacingPostOnceOnOneHolderPostOneTask) {
    std::atomic<TaskId> holder{0};
    std::atomic<int> runs{0};
    Semaphore start(1, false);
    std::vector<std::thread> posters;
    for (int t = 0; t < 8; ++t) {
        posters.emplace_back([&] {
            start.wait();
            for (int i = 0; i < 100; ++i)
                runner_.postTaskOnce(
                    holder, [&] { runs.fetch_add(1); }, 3600000);
        });
    }
    start.signal();
    for (std::thread& poster : posters) poster.join();
    EXPECT_EQ(runner_.pendingTasks(), 1u);
    runner_.cancelTaskOnce(holder);
    runner_.runDueTasks();
    EXPECT_EQ(runner_.pendingTasks(), 0u);
    EXPECT_EQ(runs.load(), 0);
}

TEST_F(TaskRunnerTest, ManualRunnerTakesPostsFromManyThreadsWhileDriven) {
    constexpr int kThreads = 6;
    constexpr int kPerThread = 200;
    std::atomic<int> runs{0};
    std::atomic<int> cancels{0};
    std::atomic<bool> posting{true};
    std::vector<std::thread> posters;
    for (int t = 0; t < kThreads; ++t) {
        posters.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i) {
                const TaskId id = runner_.postTask([&] { runs.fetch_add(1); });
                if ((i + t) % 7 == 0) {
                    runner_.cancelTask(id);
                    cancels.fetch_add(1);
                }
            }
        });
    }
    std::thread driver([&] {
        while (posting.load()) runner_.runDueTasks();
    });
    for (std::thread& poster : posters) poster.join();
    posting.store(false);
    driver.join();
    runner_.runDueTasks();
    EXPECT_EQ(runner_.pendingTasks(), 0u);
    EXPECT_GE(runs.load(), kThreads * kPerThread - cancels.load());
    EXPECT_LE(runs.load(), kThreads * kPerThread);
}

}  // namespace
}  // namespace FerritCore
