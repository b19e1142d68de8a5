#include "update/UpdateQueue.h"

#include <charconv>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "base/Environment.h"
#include "base/Errors.h"
#include "base/LogTags.h"
#include "base/ProcessState.h"
#include "base/Telemetry.h"
#include "marl/Log.h"
#include "model/SCache.h"
#include "runtime/TaskRunner.h"
#include "support/Mutex.h"
#include "update/UpdatePack.h"

namespace FerritCore {
namespace {

struct State {
    Mutex mutex;
    UpdateQueue::Controls controls GUARDED_BY(mutex);
    // One task per pack name at a time.
    std::unordered_map<std::string, UpdatePackPtr> running GUARDED_BY(mutex);
};

State& state() {
    static State* const instance = ProcessState::create<State>([](State& s) {
        MutexLock lock(s.mutex);
        s.controls = {};
        s.running.clear();
    });
    return *instance;
}

// "pack@seq" names a fixed version of "pack" when the configuration has no record of that name.
UpdatePackPtr makeTask(const std::string& name, int trigger) {
    const size_t at = name.rfind('@');
    if (at != std::string::npos && at > 0 && !SCache::current()->find(name)) {
        uint64_t seq = 0;
        const char* begin = name.data() + at + 1;
        const char* end = name.data() + name.size();
        const auto parsed = std::from_chars(begin, end, seq);
        if (parsed.ec == std::errc() && parsed.ptr == end && seq != 0)
            return UpdatePack::createSeq(name.substr(0, at), seq);
    }
    return UpdatePack::create(name, MarlLogger::json::JSON(), trigger);
}

UpdateQueue::Controls controls() {
    MutexLock lock(state().mutex);
    return state().controls;
}

void logControl(const char* what, int trigger) {
    MarlLogger::LogBuilder log(MarlLogger::MRLLevelDebug, LogTag::kQueue);
    log.event(what);
    if (trigger != 0) log.append("trigger", triggerName(trigger));
}

}  // namespace

void UpdateQueue::request(const std::string& name, int trigger, Completion completion) {
    if (!Environment::instance().isMainProcess()) {
        const Error error = Errors::subProcessUpdateDisabled();
        MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, LogTag::kQueue)
            .event("request")
            .append("name", name)
            .append("trigger", triggerName(trigger))
            .error(error);
        if (completion) completion(error);
        return;
    }
    UpdatePackPtr task = makeTask(name, trigger);
    MarlLogger::LogBuilder log(MarlLogger::MRLLevelDebug, LogTag::kQueue);
    log.event("request")
        .append("name", task->name())
        .append("trigger", triggerName(trigger))
        .append("state", updateStateName(task->state()));
    if (task->error()) log.error(task->error());
    log.done();
    if (!task->runnable()) {
        if (completion) completion(task->error());
        return;
    }
    UpdatePackPtr running;
    {
        State& s = state();
        MutexLock lock(s.mutex);
        auto it = s.running.find(task->name());
        if (it != s.running.end()) {
            running = it->second;
        } else {
            s.running.emplace(task->name(), task);
        }
    }
    if (running) {
        // The running task serves this request too.
        if (completion) running->addListener(std::move(completion));
        return;
    }
    // Listeners run in the order they were added: the name is free again before the caller
    // learns the outcome, so that a caller that asks again starts a new task.
    std::weak_ptr<UpdatePack> weak = task;
    task->addListener([weak, key = task->name()](const Error&) {
        State& s = state();
        MutexLock lock(s.mutex);
        auto it = s.running.find(key);
        if (it != s.running.end() && it->second == weak.lock()) s.running.erase(it);
    });
    if (completion) task->addListener(std::move(completion));
    TaskRunner::post([task] { task->start(); });
}

size_t UpdateQueue::runningCount() {
    State& s = state();
    MutexLock lock(s.mutex);
    return s.running.size();
}

}  // namespace FerritCore

namespace FerritCore {

void UpdateQueue::start(int trigger) {
    logControl("start", trigger);
    if (auto start = controls().start) start(trigger);
}

void UpdateQueue::pause() {
    logControl("pause", 0);
    if (auto pause = controls().pause) pause();
}

void UpdateQueue::resume() {
    logControl("resume", 0);
    if (auto resume = controls().resume) resume();
}

void UpdateQueue::setControls(Controls newControls) {
    MutexLock lock(state().mutex);
    state().controls = std::move(newControls);
}

}  // namespace FerritCore
