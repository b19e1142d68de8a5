#include "update/UpdateQueue.h"

#include <mutex>

#include "access/Errors.h"
#include "marl/Log.h"
#include "runtime/Telemetry.h"
#include "runtime/LogTags.h"

namespace FerritCore {
namespace {

std::mutex gMutex;
UpdateQueue::Handler gHandler;  // guarded by gMutex

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
