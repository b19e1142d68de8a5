// The task runner's post-to-run throughput against the floor of a bare mutex and condition
// variable queue handing the same std::function tasks to one thread; and a read of the current
// Settings snapshot against the floor of a plain std::atomic<std::shared_ptr> load.
//
// A batch of tasks is posted and the batch waits for its last task, which runs after all the
// others on either side since both run tasks in order; items per second are tasks run.
#include <benchmark/benchmark.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "FloorReporter.h"
#include "runtime/Semaphore.h"
#include "runtime/Settings.h"
#include "runtime/TaskRunner.h"

using namespace FerritCore;

namespace {

// The floor: what any one-consumer queue of std::function pays.
class BareQueue {
  public:
    BareQueue() : thread_([this] { run(); }) {}
    ~BareQueue() {
        post(nullptr);
        thread_.join();
    }
    // A null task stops the consumer.
    void post(std::function<void()> task) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            tasks_.push_back(std::move(task));
        }
        ready_.notify_one();
    }

  private:
    void run() {
        for (;;) {
            std::function<void()> task;
            {
                std::unique_lock<std::mutex> lock(mutex_);
                ready_.wait(lock, [this] { return !tasks_.empty(); });
                task = std::move(tasks_.front());
                tasks_.pop_front();
            }
            if (!task) return;
            task();
        }
    }

    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<std::function<void()>> tasks_;  // guarded by mutex_
    std::thread thread_;
};

// The same callable on both sides: a counter and a payload the size of a typical capture.
struct Work {
    std::atomic<uint64_t>* counter;
    std::shared_ptr<int> payload;
    void operator()() const { counter->fetch_add(1, std::memory_order_relaxed); }
};

void BM_BareQueuePost(benchmark::State& state) {
    const int batch = static_cast<int>(state.range(0));
    BareQueue queue;
    std::atomic<uint64_t> counter{0};
    auto payload = std::make_shared<int>(1);
    Semaphore done;
    for (auto _ : state) {
        for (int i = 0; i < batch; ++i) queue.post(Work{&counter, payload});
        queue.post([&done] { done.signal(); });
        done.wait();
    }
    state.SetItemsProcessed(state.iterations() * batch);
}
BENCHMARK(BM_BareQueuePost)->Arg(1000)->UseRealTime();

void BM_TaskRunnerPost(benchmark::State& state) {
    const int batch = static_cast<int>(state.range(0));
    TaskRunner runner("bench-worker", TaskRunner::Mode::Worker);
    std::atomic<uint64_t> counter{0};
    auto payload = std::make_shared<int>(1);
    Semaphore done;
    for (auto _ : state) {
        for (int i = 0; i < batch; ++i) runner.postTask(Work{&counter, payload});
        runner.postTask([&done] { done.signal(); });
        done.wait();
    }
    state.SetItemsProcessed(state.iterations() * batch);
    state.SetLabel("vs:BM_BareQueuePost");
}
BENCHMARK(BM_TaskRunnerPost)->Arg(1000)->UseRealTime();

std::atomic<std::shared_ptr<const Settings>>& floorSnapshot() {
    static auto* snapshot =
        new std::atomic<std::shared_ptr<const Settings>>(std::make_shared<const Settings>());
    return *snapshot;
}

void BM_AtomicSharedPtrLoad(benchmark::State& state) {
    auto& snapshot = floorSnapshot();
    for (auto _ : state) {
        std::shared_ptr<const Settings> s = snapshot.load(std::memory_order_acquire);
        benchmark::DoNotOptimize(s->requestForceHttpsValue());
    }
}
BENCHMARK(BM_AtomicSharedPtrLoad)->Threads(1)->Threads(2);

void BM_SettingsCurrent(benchmark::State& state) {
    for (auto _ : state) {
        std::shared_ptr<const Settings> s = Settings::current();
        benchmark::DoNotOptimize(s->requestForceHttpsValue());
    }
    state.SetLabel("vs:BM_AtomicSharedPtrLoad");
}
BENCHMARK(BM_SettingsCurrent)->Threads(1)->Threads(2);

}  // namespace

FERRIT_BENCHMARK_MAIN();
