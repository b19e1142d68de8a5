#include "base/Telemetry.h"

#include "base/Environment.h"
#include "base/Proxy.h"
#include "marl/Clock.h"

namespace FerritCore {

const char* triggerName(UpdateTrigger trigger) {
    static const char* const kNames[] = {"Unknown",  "Startup", "Unknown",   "Active",
                                         "Timer",    "Push",    "Visit",     "VisitUpdate",
                                         "Prefetch", "Preview", "DebugTool", "ChangeEnv"};
    const int code = triggerCode(trigger);
    if (code < triggerCode(kTriggerStartup) || code > triggerCode(kTriggerChangeEnv))
        return "Unknown";
    return kNames[code];
}

PerfRecord::PerfRecord(std::string name) : name_(std::move(name)) {
    dimensions_.set("sessionID", Environment::instance().sessionName());
}

void PerfRecord::setError(const Error& error) {
    dimensions_.set("errorCode", std::to_string(error.code()));
    dimensions_.set("errorMsg", error.message());
}

StagedRecord::StagedRecord(std::string name)
    : PerfRecord(std::move(name)), lastTime_(MRLCurrentClock()) {}

void StagedRecord::stage(const std::string& name) {
    const double now = MRLCurrentClock();
    setMeasure(name, now - lastTime_);
    lastTime_ = now;
}

void sendEvent(const PerfRecord& record) {
    ProxyCalls::sendEvent(record);
}

void logRecord(const PerfRecord& record, MarlLogger::LogBuilder& builder) {
    const auto& dimensions = record.dimensions();
    if (const std::string* code = dimensions.find("errorCode")) {
        const std::string* message = dimensions.find("errorMsg");
        builder.error(std::string_view(*code),
                      message ? std::string_view(*message) : std::string_view());
    }
    for (const auto& [key, value] : dimensions) {
        if (key == "sessionID" || key == "errorCode" || key == "errorMsg") continue;
        builder.append(key, value);
    }
    for (const auto& [key, value] : record.measures()) builder.append(key, value);
}

}  // namespace FerritCore
