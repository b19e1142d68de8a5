// Performance records: structured measurements delivered through Proxy::sendEvent, and the
// helpers that write them to the log. A record belongs to the task that builds it; no locking.
#pragma once

#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "ferritcore/Error.h"
#include "marl/Log.h"

namespace FerritCore {

// "Startup", "Active", "Timer", "Push", "Visit", "VisitUpdate", "Prefetch", "Preview",
// "DebugTool", "ChangeEnv"; "Unknown" for 2 and anything outside 1..11.
const char* triggerName(int trigger);

enum UpdateTrigger : int {
    kTriggerNone = 0,  // work that no trigger started, such as the pack reader's reads
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

// The few named values of a record, in insertion order, each key once. Records are built on every
// request that a proxy will see, so a flat vector (one allocation, no per-entry node) serves them
// better than a node-based hash map.
template <typename V>
class RecordFields {
  public:
    explicit RecordFields(size_t capacity) { entries_.reserve(capacity); }
    void set(const std::string& key, V value) {
        for (auto& entry : entries_) {
            if (entry.first == key) {
                entry.second = std::move(value);
                return;
            }
        }
        entries_.emplace_back(key, std::move(value));
    }
    // Null when absent.
    const V* find(std::string_view key) const {
        for (const auto& entry : entries_)
            if (entry.first == key) return &entry.second;
        return nullptr;
    }
    size_t count(std::string_view key) const { return find(key) ? 1 : 0; }
    // The value; a default value when absent.
    const V& at(std::string_view key) const {
        static const V absent{};
        const V* value = find(key);
        return value ? *value : absent;
    }
    size_t size() const { return entries_.size(); }
    auto begin() const { return entries_.begin(); }
    auto end() const { return entries_.end(); }
    operator std::unordered_map<std::string, V>() const {
        return {entries_.begin(), entries_.end()};
    }

  private:
    std::vector<std::pair<std::string, V>> entries_;
};

class PerfRecord {
  public:
    // Takes "sessionID" from the environment's session name (empty before setup).
    explicit PerfRecord(std::string name);
    virtual ~PerfRecord() = default;

    const std::string& name() const { return name_; }
    const RecordFields<std::string>& dimensions() const { return dimensions_; }
    const RecordFields<double>& measures() const { return measures_; }

    void setDimension(const std::string& key, std::string value) {
        dimensions_.set(key, std::move(value));
    }
    void setMeasure(const std::string& key, double value) { measures_.set(key, value); }
    // "errorCode" (the number as text) and "errorMsg".
    void setError(const Error& error);

  private:
    std::string name_;
    RecordFields<std::string> dimensions_{8};
    RecordFields<double> measures_{16};
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
