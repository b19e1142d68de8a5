#include "update/Cleanup.h"

#include <memory>
#include <mutex>

#include "base/LogTags.h"
#include "base/ProcessState.h"
#include "base/Telemetry.h"
#include "marl/Log.h"
#include "runtime/TaskRunner.h"
#include "support/Mutex.h"

namespace FerritCore {
namespace {

struct State {
    Mutex mutex;
    std::shared_ptr<RepeatingTimer> timer GUARDED_BY(mutex);
    std::function<void(int trigger)> runner GUARDED_BY(mutex);
    std::function<bool(int cleanupTrigger)> evictor GUARDED_BY(mutex);
};

State& state() {
    static State* const instance = ProcessState::create<State>([](State& s) {
        MutexLock lock(s.mutex);
        s.timer.reset();
        s.runner = nullptr;
        s.evictor = nullptr;
    });
    return *instance;
}

void tick() {
    std::function<void(int)> runner;
    {
        MutexLock lock(state().mutex);
        runner = state().runner;
    }
    MarlLogger::LogBuilder(MarlLogger::MRLLevelDebug, LogTag::kRoot).event("cleanupDue");
    if (runner) runner(kTriggerTimer);
}

}  // namespace

void Cleanup::arm(double intervalMs) {
    State& s = state();
    MutexLock lock(s.mutex);
    if (s.timer) {
        s.timer->setInterval(intervalMs);
        return;
    }
    s.timer = TaskRunner::postRepeating(tick, intervalMs, "cleanup");
}

void Cleanup::setRunner(std::function<void(int trigger)> runner) {
    MutexLock lock(state().mutex);
    state().runner = std::move(runner);
}

}  // namespace FerritCore

namespace FerritCore {

bool Cleanup::evictForInstall(int cleanupTrigger) {
    std::function<bool(int)> evictor;
    {
        MutexLock lock(state().mutex);
        evictor = state().evictor;
    }
    MarlLogger::LogBuilder(MarlLogger::MRLLevelInfo, LogTag::kTask)
        .event("evictForInstall")
        .append("trigger", cleanupTrigger)
        .append("attached", static_cast<bool>(evictor));
    // Run outside the lock: eviction changes the configuration and deletes folders.
    return evictor ? evictor(cleanupTrigger) : false;
}

void Cleanup::setEvictor(std::function<bool(int cleanupTrigger)> evictor) {
    MutexLock lock(state().mutex);
    state().evictor = std::move(evictor);
}

}  // namespace FerritCore
