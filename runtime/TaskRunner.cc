#include "runtime/TaskRunner.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>

#include "base/LogTags.h"
#include "base/ProcessState.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "runtime/TimeMarks.h"
#include "support/Mutex.h"

namespace FerritCore {
namespace {

// Linux refuses a thread name longer than 15 bytes; keep what fits rather than none.
constexpr size_t kThreadNameMax = 15;

// Due times are absolute times of the wall clock, the clock that the timers' marks are kept in.
// A delay of 0 means "at once"; a positive one is measured from now; a negative one stays as it is,
// a due time long past. NaN would break the heap's order, and a caller who passes it meant no
// delay.
double dueTimeFor(double delayMs) {
    if (std::isnan(delayMs)) return 0;
    return delayMs > 0 ? MRLCurrentTime() + delayMs : delayMs;
}

// A time at which a task goes through the heap. A NaN (from a NaN interval) would break the heap's
// order: such a timer stops instead; 0 would mean "at once" and skip the heap, so the smallest
// positive time keeps the order.
double heapDueFor(double due) {
    if (std::isnan(due)) return std::numeric_limits<double>::infinity();
    return due == 0 ? std::numeric_limits<double>::denorm_min() : due;
}

int startThread(pthread_t* thread, void* (*entry)(void*), void* argument) {
    return pthread_create(thread, nullptr, entry, argument);
}

std::atomic<TaskRunner::ThreadStarter> threadStarter{&startThread};

}  // namespace

TaskRunner::TaskRunner(std::string name, Mode mode) : name_(std::move(name)), mode_(mode) {
    if (mode == Mode::Manual) manualHome_.store(std::this_thread::get_id());
}

TaskRunner::~TaskRunner() {
    if (threadStarted_.load(std::memory_order_acquire)) {
        enqueue(Task{nextId_.fetch_add(1), [this] { stopRequested_ = true; }, 0, nullptr, nullptr});
        lifecycleSignal_.wait();
        pthread_join(thread_, nullptr);
    }
    delayed_.clear();
    ready_.clear();
    // Destroyed after the lock is released: what a callable owns may post from its destructor.
    std::vector<Task> dropped;
    {
        MutexLock lock(lock_);
        dropped.swap(incoming_);
    }
}

TaskRunner& TaskRunner::shared() {
    static TaskRunner* const runner = [] {
        auto* made = new TaskRunner(kSharedName, Mode::Worker);  // never destroyed
        ProcessState::onReset([made] { made->dropTasks(); });
        return made;
    }();
    return *runner;
}

bool TaskRunner::setSharedMode(Mode mode) {
    TaskRunner& runner = shared();
    MutexLock lock(runner.threadMutex_);
    if (runner.threadStarted_.load(std::memory_order_acquire)) return mode == Mode::Worker;
    if (mode == Mode::Manual) runner.manualHome_.store(std::this_thread::get_id());
    runner.mode_.store(mode, std::memory_order_release);
    return true;
}

// ---- Starting the worker

void TaskRunner::setThreadStarterForTesting(ThreadStarter starter) {
    threadStarter.store(starter ? starter : &startThread, std::memory_order_release);
}

void* TaskRunner::threadEntry(void* self) {
    TaskRunner& runner = *static_cast<TaskRunner*>(self);
    if (!runner.name_.empty()) {
        const std::string name = runner.name_.substr(0, kThreadNameMax);
        pthread_setname_np(pthread_self(), name.c_str());
    }
    runner.driver_.store(std::this_thread::get_id(), std::memory_order_release);
    runner.lifecycleSignal_.signal();
    runner.mainLoop();
    runner.lifecycleSignal_.signal();
    return nullptr;
}

bool TaskRunner::ensureThread() {
    if (threadStarted_.load(std::memory_order_acquire)) return true;
    MutexLock lock(threadMutex_);
    if (threadStarted_.load(std::memory_order_relaxed)) return true;
    if (mode_.load(std::memory_order_acquire) != Mode::Worker) return false;
    const int status =
        threadStarter.load(std::memory_order_acquire)(&thread_, &TaskRunner::threadEntry, this);
    if (status != 0) {
        // The tasks stay queued and the next post tries again: a transient shortage of threads
        // must not lose work, and nothing of ours may throw.
        MarlLogger::LogBuilder(MarlLogger::MRLLevelError, LogTag::kTask)
            .event("createThread")
            .append("name", name_)
            .error(status, "thread constructor failed");
        return false;
    }
    // The worker is running before the first post returns.
    lifecycleSignal_.wait();
    threadStarted_.store(true, std::memory_order_release);
    return true;
}

// ---- Posting

void TaskRunner::enqueue(Task task) {
    if (mode_.load(std::memory_order_acquire) == Mode::Worker) ensureThread();
    posted_.fetch_add(1, std::memory_order_acq_rel);
    MutexLock lock(lock_);
    const bool wasEmpty = incoming_.empty();
    incoming_.push_back(std::move(task));
    // Never cleared, so only the first post needs the full barrier.
    if (everPosted_.load(std::memory_order_relaxed) == 0) {
        everPosted_.store(1, std::memory_order_seq_cst);
    }
    // The worker always takes the whole list, so only the change from empty needs a wake-up.
    if (wasEmpty) wakeSignal_.signal();
}

TaskId TaskRunner::postTask(Callable callable, double delayMs) {
    if (!callable) return 0;
    const TaskId id = nextId_.fetch_add(1, std::memory_order_relaxed);
    enqueue(Task{id, std::move(callable), dueTimeFor(delayMs), nullptr, nullptr});
    return id;
}

void TaskRunner::postTaskOnce(std::atomic<TaskId>& holder, Callable callable, double delayMs) {
    if (!callable || holder.load(std::memory_order_acquire) != 0) return;
    const TaskId id = nextId_.fetch_add(1, std::memory_order_relaxed);
    TaskId expected = 0;
    if (!holder.compare_exchange_strong(expected, id, std::memory_order_acq_rel)) return;
    enqueue(Task{id, std::move(callable), dueTimeFor(delayMs), nullptr, &holder});
}

void TaskRunner::releaseHolder(const Task& task) {
    if (task.holder == nullptr) return;
    TaskId expected = task.id;
    task.holder->compare_exchange_strong(expected, 0, std::memory_order_acq_rel);
}

void TaskRunner::releaseHolders(const std::vector<Task>& tasks, size_t from) {
    for (size_t i = from; i < tasks.size(); ++i) releaseHolder(tasks[i]);
}

std::shared_ptr<RepeatingTimer> TaskRunner::postRepeatingTask(Callable callable, double intervalMs,
                                                              std::string markName) {
    auto timer = std::make_shared<RepeatingTimer>(std::move(markName), intervalMs);
    postRepeatingTask(std::move(callable), timer);
    return timer;
}

void TaskRunner::postRepeatingTask(Callable callable, std::shared_ptr<RepeatingTimer> timer) {
    if (!callable || !timer) return;
    const TaskId id = nextId_.fetch_add(1, std::memory_order_relaxed);
    enqueue(Task{id, std::move(callable), 0, std::move(timer), nullptr});
}

// ---- Cancelling

void TaskRunner::cancelTask(TaskId id) {
    if (id == 0) return;
    // The callable is destroyed after the lock is released: what it owns may post in its
    // destructor, and the lock covers the list only.
    Task removed;
    {
        MutexLock lock(lock_);
        for (auto it = incoming_.begin(); it != incoming_.end(); ++it) {
            if (it->id == id) {
                removed = std::move(*it);
                incoming_.erase(it);
                break;
            }
            // The list holds ascending ids: nothing further on can match.
            if (it->id > id) break;
        }
    }
    if (removed.id != 0) {
        releaseHolder(removed);
        retired_.fetch_add(1, std::memory_order_acq_rel);
        return;
    }
    // Only the worker touches the heap, so the removal goes there as a task of its own.
    postTask([this, id] { removeDelayed(id); });
}

void TaskRunner::cancelTaskOnce(std::atomic<TaskId>& holder) {
    const TaskId id = holder.exchange(0, std::memory_order_acq_rel);
    if (id != 0) cancelTask(id);
}

void TaskRunner::removeDelayed(TaskId id) {
    auto it =
        std::find_if(delayed_.begin(), delayed_.end(), [id](const Task& t) { return t.id == id; });
    if (it == delayed_.end()) return;
    releaseHolder(*it);
    delayed_.erase(it);
    std::make_heap(delayed_.begin(), delayed_.end(), Later());
    retired_.fetch_add(1, std::memory_order_acq_rel);
}

// ---- Running

void TaskRunner::pushDelayed(Task task) {
    delayed_.push_back(std::move(task));
    std::push_heap(delayed_.begin(), delayed_.end(), Later());
}

bool TaskRunner::drain() {
    if (ready_.empty()) {
        // Lets the worker skip the lock while nothing has ever been posted.
        if (everPosted_.load(std::memory_order_acquire) == 0) return false;
        {
            MutexLock lock(lock_);
            ready_.swap(incoming_);
        }
        readyNext_ = 0;
        if (ready_.empty()) return false;
    }
    // Tasks without a delay run here, in the order of posting and before anything in the heap,
    // with no lock held, so a task may post freely.
    while (readyNext_ < ready_.size()) {
        Task& task = ready_[readyNext_++];
        if (task.dueTime != 0) {
            pushDelayed(std::move(task));
        } else {
            runTask(task);
        }
        if (stopRequested_) return true;  // the rest stays in place, to be dropped
    }
    ready_.clear();
    readyNext_ = 0;
    return true;
}

void TaskRunner::runTask(Task& task) {
    // A task counts as run, and no longer as pending, from the moment it starts: whoever it
    // signals then sees counts that already include it.
    if (!task.timer) {
        // Released before the run: what the task does may need to post it again.
        releaseHolder(task);
        retired_.fetch_add(1, std::memory_order_acq_rel);
        ranCount_.fetch_add(1, std::memory_order_acq_rel);
        task.callable();
        return;
    }
    RepeatingTimer& timer = *task.timer;
    const double now = MRLCurrentTime();
    double lastRun;
    if (!timer.markName().empty()) {
        lastRun = TimeMarks::readMark(timer.markName(), now);
        timer.adoptLastRun(lastRun);
    } else {
        lastRun = timer.lastRunTime();
        if (lastRun == 0) {
            lastRun = now;
            timer.adoptLastRun(now);
        }
    }
    // A negative difference means the clock was set back: run rather than wait it out.
    const double sinceLast = now - lastRun;
    if (sinceLast < 0 || sinceLast > timer.interval()) {
        ranCount_.fetch_add(1, std::memory_order_acq_rel);
        task.callable();
        // Measured after the run, so the time spent in it counts towards the next interval, and
        // the mark moves only after a run that returned.
        timer.setLastRunTime(MRLCurrentTime());
    }
    // The repetition's id is the counter after its increment; it may equal the next plain post's,
    // which the heap's order tolerates.
    const TaskId nextId = nextId_.fetch_add(1, std::memory_order_relaxed) + 1;
    const double due = heapDueFor(timer.lastRunTime() + timer.interval());
    Task next{nextId, std::move(task.callable), due, std::move(task.timer), nullptr};
    enqueue(std::move(next));
    retired_.fetch_add(1, std::memory_order_acq_rel);
}

void TaskRunner::runTop() {
    // The task stays at the top while it runs: nothing that it can do touches the heap, since
    // cancellations and drops arrive as tasks of their own.
    runTask(delayed_.front());
    std::pop_heap(delayed_.begin(), delayed_.end(), Later());
    delayed_.pop_back();
}

uint32_t TaskRunner::waitMillis(double dueTime, double now) {
    const double difference = dueTime - now;
    if (!(difference > 0)) return 0;
    constexpr double kMax = static_cast<double>(std::numeric_limits<uint32_t>::max());
    return difference >= kMax ? std::numeric_limits<uint32_t>::max()
                              : static_cast<uint32_t>(difference);
}

void TaskRunner::beginWait(uint32_t millis) {
    lastWaitMillis_.store(millis, std::memory_order_release);
    waitCount_.fetch_add(1, std::memory_order_acq_rel);
}

void TaskRunner::mainLoop() {
    for (;;) {
        while (drain() && !stopRequested_) {
        }
        // One reading for the whole batch: new posts are taken up only once nothing in the heap
        // is due at this time.
        const double now = MRLCurrentTime();
        for (;;) {
            if (stopRequested_) return;
            if (delayed_.empty()) {
                beginWait(kWaitForever);
                wakeSignal_.wait();
                wakeCount_.fetch_add(1, std::memory_order_acq_rel);
                break;
            }
            const Task& top = delayed_.front();
            if (top.dueTime > now) {
                const uint32_t millis = waitMillis(top.dueTime, now);
                beginWait(millis);
                wakeSignal_.wait(millis);
                wakeCount_.fetch_add(1, std::memory_order_acq_rel);
                break;
            }
            runTop();
        }
    }
}

// ---- Test and tool support

size_t TaskRunner::runDueTasks() {
    if (isRunnerThread()) return 0;
    return mode() == Mode::Manual ? runManual() : runFence();
}

size_t TaskRunner::runManual() {
    bool idle = false;
    if (!running_.compare_exchange_strong(idle, true, std::memory_order_acq_rel)) return 0;
    driver_.store(std::this_thread::get_id(), std::memory_order_release);
    const uint64_t before = ranCount_.load(std::memory_order_acquire);
    // The worker's loop without the waits: where the worker would sleep, a pass that ran nothing
    // ends the call instead.
    for (;;) {
        const uint64_t passStart = ranCount_.load(std::memory_order_acquire);
        while (drain()) {
        }
        const double now = MRLCurrentTime();
        while (!delayed_.empty() && !(delayed_.front().dueTime > now)) runTop();
        if (ranCount_.load(std::memory_order_acquire) == passStart) break;
    }
    driver_.store(std::thread::id(), std::memory_order_release);
    running_.store(false, std::memory_order_release);
    return static_cast<size_t>(ranCount_.load(std::memory_order_acquire) - before);
}

size_t TaskRunner::runFence() {
    if (!threadStarted_.load(std::memory_order_acquire)) return 0;
    size_t total = 0;
    for (;;) {
        const uint64_t before = ranCount_.load(std::memory_order_acquire);
        // Due now rather than "at once": it goes through the heap and so comes after everything
        // due by now, not before it.
        Semaphore reached;
        enqueue(Task{nextId_.fetch_add(1, std::memory_order_relaxed),
                     [&reached] { reached.signal(); }, heapDueFor(MRLCurrentTime()), nullptr,
                     nullptr});
        reached.wait();
        const uint64_t ran = ranCount_.load(std::memory_order_acquire) - before - 1;
        total += static_cast<size_t>(ran);
        if (ran == 0) return total;
    }
}

void TaskRunner::dropDelayed() {
    releaseHolders(delayed_);
    retired_.fetch_add(delayed_.size(), std::memory_order_acq_rel);
    delayed_.clear();
}

void TaskRunner::dropTasks() {
    // The callables are destroyed after the lock is released: what one owns may post from its
    // destructor.
    std::vector<Task> discarded;
    {
        MutexLock lock(lock_);
        retired_.fetch_add(incoming_.size(), std::memory_order_acq_rel);
        discarded.swap(incoming_);
    }
    // A dropped task never runs to release its holder, which would then keep every later
    // postTaskOnce on it from posting.
    releaseHolders(discarded);
    discarded.clear();
    bool nobodyRuns = false;
    {
        // Holding the thread mutex keeps a worker from starting while the lists are taken.
        MutexLock lock(threadMutex_);
        nobodyRuns = !threadStarted_.load(std::memory_order_acquire) &&
                     !running_.load(std::memory_order_acquire);
        if (nobodyRuns) {
            // Everything can go now; the callables go after the lock, as above.
            if (readyNext_ < ready_.size()) {
                retired_.fetch_add(ready_.size() - readyNext_, std::memory_order_acq_rel);
            }
            retired_.fetch_add(delayed_.size(), std::memory_order_acq_rel);
            releaseHolders(ready_, readyNext_);
            releaseHolders(delayed_);
            discarded.swap(ready_);
            readyNext_ = 0;
            discarded.insert(discarded.end(), std::make_move_iterator(delayed_.begin()),
                             std::make_move_iterator(delayed_.end()));
            delayed_.clear();
        }
    }
    if (nobodyRuns) return;
    // The heap belongs to whoever runs tasks: the drop goes there as a task, behind what has
    // already been taken up.
    if (mode() == Mode::Worker && !isRunnerThread()) {
        Semaphore dropped;
        postTask([this, &dropped] {
            dropDelayed();
            dropped.signal();
        });
        dropped.wait();
        return;
    }
    postTask([this] { dropDelayed(); });
}

std::vector<double> TaskRunner::pendingDueTimes() const {
    std::vector<double> times;
    if (mode() != Mode::Manual) return times;
    {
        MutexLock lock(lock_);
        for (const Task& task : incoming_) times.push_back(task.dueTime);
    }
    for (size_t i = readyNext_; i < ready_.size(); ++i) times.push_back(ready_[i].dueTime);
    std::vector<Task const*> heap;
    for (const Task& task : delayed_) heap.push_back(&task);
    std::sort(heap.begin(), heap.end(),
              [](const Task* a, const Task* b) { return Later()(*b, *a); });
    for (const Task* task : heap) times.push_back(task->dueTime);
    return times;
}

}  // namespace FerritCore
