// Performance records: structured measurements delivered through Proxy::sendEvent, and the
// helpers that write them to the log. A record belongs to the task that builds it; no locking.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "ferritcore/Error.h"
#include "marl/Log.h"

namespace FerritCore {

// What started a piece of update work. The values are those of the records and logs ("trigger"
// carries the number), so they keep their numbers; 2 is unused.
enum class UpdateTrigger : int {
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
// The names stay short at the many call sites; the type still refuses a bare int.
using enum UpdateTrigger;

// "Startup", "Active", "Timer", "Push", "Visit", "VisitUpdate", "Prefetch", "Preview",
// "DebugTool", "ChangeEnv"; "Unknown" for anything else.
const char* triggerName(UpdateTrigger trigger);
// The number that records and logs carry under "trigger".
constexpr int triggerCode(UpdateTrigger trigger) {
    return static_cast<int>(trigger);
}

// The few named values of a record, in insertion order, each key once. Records are built on every
// request that a proxy will see: the first `Inline` entries live in the record itself (no
// allocation, no per-entry node); a record with more moves them all to a vector.
template <typename V, size_t Inline>
class RecordFields {
  public:
    using Entry = std::pair<std::string, V>;

    RecordFields() = default;
    RecordFields(const RecordFields& other) { *this = other; }
    RecordFields& operator=(const RecordFields& other) {
        if (this == &other) return *this;
        count_ = 0;
        spilled_.clear();
        for (const Entry& entry : other) set(entry.first, entry.second);
        return *this;
    }

    void set(std::string_view key, V value) {
        for (Entry& entry : *this) {
            if (entry.first == key) {
                entry.second = std::move(value);
                return;
            }
        }
        if (spilled_.empty() && count_ < Inline) {
            inline_[count_].first.assign(key);
            inline_[count_].second = std::move(value);
            ++count_;
            return;
        }
        if (spilled_.empty()) {
            spilled_.reserve(2 * Inline);
            for (size_t i = 0; i < count_; ++i) spilled_.push_back(std::move(inline_[i]));
            count_ = 0;
        }
        spilled_.emplace_back(std::string(key), std::move(value));
    }
    // Sets `key` to a copy of `value`, into the buffers that an entry of a cleared record kept:
    // a record built again and again allocates only when a text outgrows what it held before.
    template <typename Text>
    void assign(std::string_view key, const Text& value) {
        for (Entry& entry : *this) {
            if (entry.first == key) {
                entry.second.assign(value);
                return;
            }
        }
        if (spilled_.empty() && count_ < Inline) {
            inline_[count_].first.assign(key);
            inline_[count_].second.assign(value);
            ++count_;
            return;
        }
        set(key, V(value));
    }
    // Forgets every entry; the entries' texts keep their buffers for the next record.
    void clear() {
        count_ = 0;
        spilled_.clear();
    }
    // Null when absent.
    const V* find(std::string_view key) const {
        for (const Entry& entry : *this)
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
    size_t size() const { return spilled_.empty() ? count_ : spilled_.size(); }
    const Entry* begin() const { return spilled_.empty() ? inline_ : spilled_.data(); }
    const Entry* end() const { return begin() + size(); }
    Entry* begin() { return spilled_.empty() ? inline_ : spilled_.data(); }
    Entry* end() { return begin() + size(); }
    operator std::unordered_map<std::string, V>() const { return {begin(), end()}; }

  private:
    Entry inline_[Inline];
    size_t count_ = 0;
    std::vector<Entry> spilled_;  // all entries, once there were more than Inline
};

class PerfRecord {
  public:
    // Takes "sessionID" from the environment's session name (empty before setup).
    explicit PerfRecord(std::string name);
    virtual ~PerfRecord() = default;

    const std::string& name() const { return name_; }
    using Dimensions = RecordFields<std::string, 10>;
    using Measures = RecordFields<double, 8>;
    const Dimensions& dimensions() const { return dimensions_; }
    const Measures& measures() const { return measures_; }

    void setDimension(std::string_view key, std::string value) {
        dimensions_.set(key, std::move(value));
    }
    // As setDimension, copying `value` into the buffer that a reused record kept.
    void copyDimension(std::string_view key, std::string_view value) {
        dimensions_.assign(key, value);
    }
    void setMeasure(std::string_view key, double value) { measures_.set(key, value); }
    // "errorCode" (the number as text) and "errorMsg".
    void setError(const Error& error);

  private:
    friend class ReusedRecord;
    // An empty record of `name`, with "sessionID" as the constructor sets it; the texts keep
    // their buffers.
    void restart(std::string_view name);

    std::string name_;
    Dimensions dimensions_;
    Measures measures_;
};

// A record that one call site builds on every request: the calling thread keeps one in `slot` and
// builds it again each time, so that its texts reuse their buffers and a hit's record allocates
// nothing. While the thread's record is out (a proxy that makes a request from sendEvent), the
// next one is built afresh.
class ReusedRecord {
  public:
    struct Slot {
        std::optional<PerfRecord> record;
        bool busy = false;
    };
    ReusedRecord(Slot& slot, std::string_view name);
    ~ReusedRecord();
    ReusedRecord(const ReusedRecord&) = delete;
    ReusedRecord& operator=(const ReusedRecord&) = delete;

    PerfRecord& operator*() { return *record_; }
    PerfRecord* operator->() { return record_; }

  private:
    Slot* slot_ = nullptr;  // null when the record is the fresh one
    std::optional<PerfRecord> fresh_;
    PerfRecord* record_;
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
