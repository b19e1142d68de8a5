#include "update/UpdateQueue.h"

#include <mutex>

#include "base/Errors.h"
#include "base/LogTags.h"
#include "base/ProcessState.h"
#include "base/Telemetry.h"
#include "marl/Log.h"

namespace FerritCore {
namespace {

struct State {
    std::mutex mutex;
    UpdateQueue::Controls controls;  // guarded by mutex
};

State& state() {
    static State* const instance = ProcessState::create<State>([](State& s) {
        std::lock_guard<std::mutex> lock(s.mutex);
        s.controls = {};
    });
    return *instance;
}

UpdateQueue::Controls controls() {
    std::lock_guard<std::mutex> lock(state().mutex);
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
    std::lock_guard<std::mutex> lock(state().mutex);
    state().controls = std::move(newControls);
}

}  // namespace FerritCore
