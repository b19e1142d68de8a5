// Performance records: structured measurements delivered through Proxy::sendEvent, and the
// helpers that write them to the log. A record belongs to the task that builds it; no locking.
#pragma once

#include <string>
#include <unordered_map>

#include "ferritcore/Error.h"
#include "marl/Log.h"

namespace FerritCore {

// "Startup", "Active", "Timer", "Push", "Visit", "VisitUpdate", "Prefetch", "Preview",
// "DebugTool", "ChangeEnv"; "Unknown" for 2 and anything outside 1..11.
const char* triggerName(int trigger);

enum UpdateTrigger : int {
    kTriggerStartup = 1,
    kTriggerActive = 3,
    kTriggerTimer = 4,
    kTriggerPush = 5,
    kTriggerVisit = 6,
    kTriggerVisitUpdate = 7,
    kTriggerPrefetch = 8,
    kTriggerPreview = 9,
    kTriggerDebugTool = 10,
    kTriggerChangeEnv = 11,
};

class PerfRecord {
public:
    // Takes "sessionID" from the environment's session name (empty before setup).
    explicit PerfRecord(std::string name);
    virtual ~PerfRecord() = default;

    const std::string& name() const { return name_; }
    const std::unordered_map<std::string, std::string>& dimensions() const { return dimensions_; }
    const std::unordered_map<std::string, double>& measures() const { return measures_; }

    void setDimension(const std::string& key, std::string value) { dimensions_[key] = std::move(value); }
    void setMeasure(const std::string& key, double value) { measures_[key] = value; }
    // "errorCode" (the number as text) and "errorMsg".
    void setError(const Error& error);

private:
    std::string name_;
    std::unordered_map<std::string, std::string> dimensions_;
    std::unordered_map<std::string, double> measures_;
};

// A record measured in stages: each mark stores the time since the previous mark (or since
// construction) under the stage's name.
class StagedRecord : public PerfRecord {
public:
    explicit StagedRecord(std::string name);
    void stage(const std::string& name);
    double lastTime() const { return lastTime_; }

private:
    double lastTime_;
};

// Passes the record to the proxy; nothing happens without one.
void sendEvent(const PerfRecord& record);
// Writes the record to a log entry: "errorCode"/"errorMsg" as its error, every other dimension
// except "sessionID" as a string field, every measure as a double field.
void logRecord(const PerfRecord& record, MarlLogger::LogBuilder& builder);

}  // namespace FerritCore
