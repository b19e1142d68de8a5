#include "update/UpdateQueue.h"

#include <mutex>

#include "base/Errors.h"
#include "base/LogTags.h"
#include "base/ProcessState.h"
#include "base/Telemetry.h"
#include "marl/Log.h"
#include "support/Mutex.h"

namespace FerritCore {
namespace {

struct State {
    Mutex mutex;
    UpdateQueue::Controls controls GUARDED_BY(mutex);
};

State& state() {
    static State* const instance = ProcessState::create<State>([](State& s) {
        MutexLock lock(s.mutex);
        s.controls = {};
    });
    return *instance;
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
    Error error = Errors::updateDisabled();
    MarlLogger::LogBuilder(MarlLogger::MRLLevelDebug, LogTag::kQueue)
        .event("request")
        .append("name", name)
        .append("trigger", triggerName(trigger))
        .error(error);
    if (completion) completion(error);
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
