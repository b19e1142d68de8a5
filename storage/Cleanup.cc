#include "storage/Cleanup.h"

#include <memory>
#include <mutex>

#include "marl/Log.h"
#include "runtime/LogTags.h"
#include "runtime/TaskRunner.h"
#include "runtime/Telemetry.h"

namespace FerritCore {
namespace {

struct State {
    std::mutex mutex;
    std::shared_ptr<RepeatingTimer> timer;      // guarded by mutex
    std::function<void(int trigger)> runner;  // guarded by mutex
};

State& state() {
    static State* instance = new State();  // lives until the process ends
    return *instance;
}

void tick() {
    std::function<void(int)> runner;
    {
        std::lock_guard<std::mutex> lock(state().mutex);
        runner = state().runner;
    }
    MarlLogger::LogBuilder(MarlLogger::MRLLevelDebug, LogTag::kRoot).event("cleanupDue");
    if (runner) runner(kTriggerTimer);
}

}  // namespace

void Cleanup::arm(double intervalMs) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.timer) {
        s.timer->setInterval(intervalMs);
        return;
    }
    s.timer = TaskRunner::postRepeating(tick, intervalMs, "cleanup");
}

void Cleanup::setRunner(std::function<void(int trigger)> runner) {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().runner = std::move(runner);
}

void Cleanup::resetForTesting() {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().timer.reset();
    state().runner = nullptr;
}

}  // namespace FerritCore
