#include "base/Telemetry.h"

#include <charconv>

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

void PerfRecord::restart(std::string_view name) {
    name_.assign(name);
    dimensions_.clear();
    measures_.clear();
    dimensions_.assign("sessionID", *Environment::instance().readSessionName());
}

ReusedRecord::ReusedRecord(Slot& slot, std::string_view name) {
    if (slot.busy) {
        record_ = &fresh_.emplace(std::string(name));
        return;
    }
    slot.busy = true;
    slot_ = &slot;
    if (!slot.record) {
        record_ = &slot.record.emplace(std::string(name));
    } else {
        record_ = &*slot.record;
        record_->restart(name);
    }
}

ReusedRecord::~ReusedRecord() {
    if (slot_ != nullptr) slot_->busy = false;
}

void PerfRecord::setError(const Error& error) {
    // The code as std::to_string writes it, without a string of its own.
    char digits[24];
    const auto written = std::to_chars(digits, digits + sizeof(digits), error.code());
    dimensions_.assign("errorCode", std::string_view(digits, written.ptr));
    dimensions_.assign("errorMsg", error.message());
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
