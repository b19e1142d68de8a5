#include "update/UpdateQueue.h"

#include <mutex>

#include "access/Errors.h"
#include "marl/Log.h"
#include "runtime/Telemetry.h"
#include "runtime/LogTags.h"

namespace FerritCore {
namespace {

std::mutex gMutex;
UpdateQueue::Handler gHandler;    // guarded by gMutex
UpdateQueue::Controls gControls;  // guarded by gMutex

UpdateQueue::Controls controls() {
    std::lock_guard<std::mutex> lock(gMutex);
    return gControls;
}

void logControl(const char* what, int trigger) {
    MarlLogger::LogBuilder log(MarlLogger::MRLLevelDebug, LogTag::kQueue);
    log.event(what);
    if (trigger != 0) log.append("trigger", triggerName(trigger));
}

}  // namespace

void UpdateQueue::request(const std::string& name, int trigger, Completion completion) {
    Handler handler;
    {
        std::lock_guard<std::mutex> lock(gMutex);
        handler = gHandler;
    }
    if (handler) {
        handler(name, trigger, std::move(completion));  // never under the lock
        return;
    }
    Error error = Errors::updateDisabled();
    MarlLogger::LogBuilder(MarlLogger::MRLLevelDebug, LogTag::kQueue)
        .event("request")
        .append("name", name)
        .append("trigger", triggerName(trigger))
        .error(error);
    if (completion) completion(error);
}

void UpdateQueue::setHandler(Handler handler) {
    std::lock_guard<std::mutex> lock(gMutex);
    gHandler = std::move(handler);
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
    std::lock_guard<std::mutex> lock(gMutex);
    gControls = std::move(newControls);
}

}  // namespace FerritCore
