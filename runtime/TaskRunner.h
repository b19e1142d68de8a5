// TaskRunner: the system's one thread of its own and the queues that feed it. Background work is
// a callable posted here; tasks run one at a time on the worker, those without a delay in the
// order of posting and ahead of delayed ones, delayed ones by due time and then by id.
//
// Threading: post, postOnce, cancel, cancelOnce and postRepeating may be called from any thread,
// tasks included. Posters never wait for the worker; no lock is held while a task runs. Nothing
// catches an exception that leaves a task: it ends the process, so a task must not throw.
//
// Ownership: a task owns a copy of its callable. The process-wide runner (shared()) is created at
// its first use and never destroyed; its worker runs until the process ends.
//
// Two modes. A Worker runner starts its named thread at the first post, and the thread sleeps
// until the next due time or a post to an empty queue, with no periodic wake-up. A Manual runner
// has no thread: its tasks run only inside runDue(), on the calling thread, under whatever clock is
// installed, which is how tests drive background work deterministically.
//
// A delayed task is due at an absolute time of the wall clock (MRLCurrentTime), and so is each
// repetition of a repeating timer: the clock whose readings the timers' marks keep across restarts.
// A wall clock set forward therefore brings delayed work forward, and one set back holds it back.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "runtime/RepeatingTimer.h"
#include "runtime/Semaphore.h"
#include "support/Mutex.h"

namespace FerritCore {

// Ids start at 1; 0 means "no task" wherever an id is held.
using TaskId = uint64_t;

class TaskRunner {
  public:
    using Callable = std::function<void()>;
    enum class Mode { Worker, Manual };

    // The name of the process's worker thread. Linux keeps the first 15 bytes of a thread name.
    static constexpr const char* kSharedName = "com.tarvos.ferrit";

    // A Worker runner starts its thread at the first post; a Manual one never does.
    TaskRunner(std::string name, Mode mode);
    // Stops the worker after the task it is running, waits for it to leave, and drops every task
    // that has not run, without running it. Must not be called from a task of this runner.
    ~TaskRunner();
    TaskRunner(const TaskRunner&) = delete;
    TaskRunner& operator=(const TaskRunner&) = delete;

    // ---- The process's runner. These are what the rest of the system calls.

    // Created at first use under a thread-safe guard; never destroyed.
    static TaskRunner& shared();
    // Chooses the mode of the process's runner. Takes effect only while its worker has not been
    // started; returns false once it has. Test binaries choose Manual before any test runs.
    static bool setSharedMode(Mode mode);

    static TaskId post(Callable callable, double delayMs = 0) {
        return shared().postTask(std::move(callable), delayMs);
    }
    static void postOnce(std::atomic<TaskId>& holder, Callable callable, double delayMs) {
        shared().postTaskOnce(holder, std::move(callable), delayMs);
    }
    static void cancel(TaskId id) { shared().cancelTask(id); }
    static void cancelOnce(std::atomic<TaskId>& holder) { shared().cancelTaskOnce(holder); }
    static std::shared_ptr<RepeatingTimer> postRepeating(Callable callable, double intervalMs,
                                                         std::string markName = {}) {
        return shared().postRepeatingTask(std::move(callable), intervalMs, std::move(markName));
    }
    static size_t runDue() { return shared().runDueTasks(); }
    static size_t pendingCount() { return shared().pendingTasks(); }
    static void clear() { shared().dropTasks(); }

    // ---- This runner.

    // Posts `callable` to run `delayMs` milliseconds from now. A delay of 0 means at once, in the
    // order of posting; a negative delay takes the delayed path with a due time long past; a NaN
    // delay counts as 0. Returns the task's id, or 0 when the callable is empty (nothing posted).
    TaskId postTask(Callable callable, double delayMs = 0);
    // Posts only when `holder` is 0, and stores the new task's id there with a compare-and-exchange
    // from 0, so that of many racing callers one posts. The holder goes back to 0 when the task
    // begins, and when it is cancelled or dropped without running, so that a later postTaskOnce
    // posts again; one that has moved on to another id is left alone. The callable must not clear
    // it (a later post's id may be there); it must outlive the task, a cancelled one's included.
    void postTaskOnce(std::atomic<TaskId>& holder, Callable callable, double delayMs);
    // Cancels the task with this id. A task still waiting to be taken up is removed at once; a
    // delayed one is removed when the worker reaches the cancellation, which it posts. A task that
    // has run, or that the worker has already taken up without a delay, is not affected. 0 is
    // ignored. The id of a repeating task changes with every repetition: stop it through its timer.
    void cancelTask(TaskId id);
    // Swaps the holder with 0 and cancels the id it held, if any.
    void cancelTaskOnce(std::atomic<TaskId>& holder);
    // Posts a repeating task whose rhythm is the returned timer (see RepeatingTimer). Its first
    // appearance runs nothing unless its mark is older than the interval: a fresh timer runs first
    // one interval after it was posted. An empty callable gets a timer that is never scheduled.
    std::shared_ptr<RepeatingTimer> postRepeatingTask(Callable callable, double intervalMs,
                                                      std::string markName = {});
    // As above with a timer the caller made (which may override the timer's operations).
    void postRepeatingTask(Callable callable, std::shared_ptr<RepeatingTimer> timer);

    // Manual mode: runs, on the calling thread, every task that is due by the installed clock,
    // including those that these tasks post and that are due too, and returns how many callables
    // ran (the runner's own cancellation tasks included). Stops at the first pass that runs
    // nothing, so a timer that keeps coming back without being due does not spin. Returns 0 when
    // called from one of its own tasks.
    // Worker mode: waits until the worker has run every task that is due now and those they post
    // for now, and returns how many ran meanwhile. Returns 0 at once on the worker itself or when
    // the worker could not be started.
    size_t runDueTasks();
    // Tasks posted and neither run nor dropped nor cancelled: due or not, including the runner's
    // own cancellation tasks and each pending repetition of a repeating task.
    size_t pendingTasks() const {
        // Retired first: a task is posted before it retires, so the difference never goes below 0.
        const uint64_t retired = retired_.load(std::memory_order_acquire);
        return static_cast<size_t>(posted_.load(std::memory_order_acquire) - retired);
    }
    // Drops every waiting task without running it. In Worker mode, tasks that the worker has
    // already taken up still run; the call waits for the worker unless made on it.
    void dropTasks();
    // Manual mode, on the thread that drives the runner: the due times (wall-clock milliseconds; 0
    // for "at once") of the waiting tasks, not yet taken up first, then the delayed ones in order.
    // Empty in Worker mode.
    std::vector<double> pendingDueTimes() const;

    Mode mode() const { return mode_.load(std::memory_order_acquire); }
    const std::string& name() const { return name_; }
    // True on the worker, or on the thread inside runDueTasks() of a Manual runner.
    bool isRunnerThread() const {
        return driver_.load(std::memory_order_acquire) == std::this_thread::get_id();
    }
    // True where this runner's tasks, and the code that must run among them, may run: on the
    // worker; for a Manual runner, inside runDueTasks() or on the thread that made the runner (or
    // made it Manual), which stands in for the worker between runs.
    bool isWorkerContext() const {
        if (isRunnerThread()) return true;
        return mode() == Mode::Manual &&
               manualHome_.load(std::memory_order_acquire) == std::this_thread::get_id();
    }
    // How many times the worker has come back from waiting (diagnostics: it has no periodic
    // wake-up).
    uint64_t wakeCount() const { return wakeCount_.load(std::memory_order_acquire); }
    // How many waits the worker has begun; one more than wakeCount() while it is waiting.
    uint64_t waitCount() const { return waitCount_.load(std::memory_order_acquire); }
    // The milliseconds the last wait was given: the distance to the heap's top, or kWaitForever
    // with an empty heap (diagnostics).
    uint32_t lastWaitMillis() const { return lastWaitMillis_.load(std::memory_order_acquire); }
    static constexpr uint32_t kWaitForever = std::numeric_limits<uint32_t>::max();

    // Creates a worker thread as pthread_create does (0 or an error number). Replaceable so that
    // tests can make the creation fail; null restores pthread_create.
    using ThreadStarter = int (*)(pthread_t* thread, void* (*entry)(void*), void* argument);
    static void setThreadStarterForTesting(ThreadStarter starter);

    // The worker's wait for a task due at `dueTime` when it is `now`: the difference cut to whole
    // milliseconds, 0 when due, and at most about 49 days (the worker then waits again).
    static uint32_t waitMillis(double dueTime, double now);

  private:
    struct Task {
        TaskId id = 0;
        Callable callable;
        // Wall-clock milliseconds; 0 means run at once.
        double dueTime = 0;
        // Set for a repeating task.
        std::shared_ptr<RepeatingTimer> timer;
        // Set for a task of postTaskOnce: put back to 0 when the task begins or goes unrun.
        std::atomic<TaskId>* holder = nullptr;
    };
    // Gives the holder of a task of postTaskOnce back, unless it holds another id by now.
    static void releaseHolder(const Task& task);
    static void releaseHolders(const std::vector<Task>& tasks, size_t from = 0);
    // Heap order: a comes after b when it is due later, or equally due with a greater id.
    struct Later {
        bool operator()(const Task& a, const Task& b) const {
            return a.dueTime > b.dueTime || (a.dueTime == b.dueTime && a.id > b.id);
        }
    };

    static void* threadEntry(void* self);
    bool ensureThread();
    void mainLoop();
    void beginWait(uint32_t millis);
    void enqueue(Task task);
    bool drain();
    void runTask(Task& task);
    void runTop();
    void pushDelayed(Task task);
    void removeDelayed(TaskId id);
    void dropDelayed();
    size_t runManual();
    size_t runFence();

    const std::string name_;
    std::atomic<Mode> mode_;
    Semaphore lifecycleSignal_{1, true};  // worker started; worker left its loop
    Semaphore wakeSignal_{1, true};       // work arrived

    Mutex threadMutex_;  // serialises starting the worker and changing the mode
    pthread_t thread_ GUARDED_BY(threadMutex_){};  // valid once threadStarted_
    std::atomic<bool> threadStarted_{false};
    std::atomic<std::thread::id> driver_{};
    std::atomic<bool> running_{false};           // a Manual runDueTasks() is under way
    std::atomic<std::thread::id> manualHome_{};  // see isWorkerContext()

    // What posters write, on a cache line of its own so that the worker's counting does not
    // bounce it between cores.
    alignas(64) std::atomic<TaskId> nextId_{1};
    std::atomic<uint64_t> posted_{0};
    std::atomic<uint8_t> everPosted_{0};
    // Guards incoming_ only. Never held while a task runs or a callable is destroyed (what a
    // callable owns may post from its destructor), so a plain lock is enough.
    mutable Mutex lock_;
    std::vector<Task> incoming_ GUARDED_BY(lock_);  // ascending ids, in order of posting

    // Touched only by the thread that runs tasks (the worker, or the Manual driver), apart from
    // retired_, which a cancel or a drop on another thread also counts.
    alignas(64) std::vector<Task> ready_;
    size_t readyNext_ = 0;       // ready_[0, readyNext_) have been handled
    std::vector<Task> delayed_;  // binary heap in Later order
    bool stopRequested_ = false;
    std::atomic<uint64_t> retired_{0};  // run, dropped or cancelled; pending = posted - retired
    std::atomic<uint64_t> ranCount_{0};
    std::atomic<uint64_t> wakeCount_{0};
    std::atomic<uint64_t> waitCount_{0};
    std::atomic<uint32_t> lastWaitMillis_{0};
};

}  // namespace FerritCore
