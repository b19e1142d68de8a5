// Structured log events: a level (1 most severe .. 5), a tag, an event name, ids and typed
// fields, written to a pluggable sink when the builder ends. A builder whose level is filtered
// out allocates nothing and formats nothing. Any thread.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "marl/Json.h"
#include "support/Mutex.h"

namespace MarlLogger {

using MRLLevel = int;
constexpr MRLLevel MRLLevelError = 1;
constexpr MRLLevel MRLLevelWarning = 2;
constexpr MRLLevel MRLLevelInfo = 3;
constexpr MRLLevel MRLLevelDebug = 4;
constexpr MRLLevel MRLLevelVerbose = 5;

struct LogEntry {
    MRLLevel level = MRLLevelInfo;
    std::string tag;
    std::string event;
    std::string id;
    std::string parentId;
    bool hasError = false;
    std::string errorCode;
    std::string errorMessage;
    json::JSONObject fields;

    // The field, or JSON::null() when absent.
    const json::JSON& field(std::string_view key) const;
    bool has(std::string_view key) const { return fields.find(key) != nullptr; }
    // One JSON line: level, tag, event, ids, error and fields.
    std::string toJSONLine() const;
};

class LogSink {
  public:
    virtual ~LogSink() = default;
    // Called on the thread that ends the builder; must be thread-safe.
    virtual void write(const LogEntry& entry) = 0;
};

// JSON lines on stderr.
class StderrSink : public LogSink {
  public:
    void write(const LogEntry& entry) override;
};

// Keeps every entry in memory, for tests.
class CapturingSink : public LogSink {
  public:
    void write(const LogEntry& entry) override;
    std::vector<LogEntry> entries() const;
    // Entries with this event name (and tag, when given), in order.
    std::vector<LogEntry> all(std::string_view event, std::string_view tag = {}) const;
    // The last entry with this event name; an entry with an empty event name when there is none.
    LogEntry last(std::string_view event, std::string_view tag = {}) const;
    size_t count(std::string_view event, std::string_view tag = {}) const;
    void clear();

  private:
    mutable FerritCore::Mutex mutex_;
    std::vector<LogEntry> entries_ GUARDED_BY(mutex_);
};

class LogBuilder;

class Log {
  public:
    // Null restores the stderr sink.
    static void setSink(std::shared_ptr<LogSink> sink);
    static std::shared_ptr<LogSink> sink();
    // Events of this level and more severe (lower numbers) are written. The default is 2, or
    // the value of the environment variable FERRIT_LOG_LEVEL.
    static void setLevel(MRLLevel level);
    static MRLLevel level() { return activeLevel_.load(std::memory_order_relaxed); }
    static bool enabled(MRLLevel level) { return level <= Log::level(); }
    static LogBuilder build(MRLLevel level, std::string_view tag);

  private:
    static std::atomic<int> activeLevel_;
};

class LogBuilder {
  public:
    LogBuilder(MRLLevel level, std::string_view tag);
    LogBuilder(LogBuilder&& other) noexcept = default;
    LogBuilder& operator=(LogBuilder&&) = delete;
    // Writes the entry unless done() already did.
    ~LogBuilder();

    // False when the level was filtered out at construction: every call is then a no-op.
    bool active() const { return entry_ != nullptr; }
    // Changes the level; an entry whose final level is filtered out is not written.
    LogBuilder& level(MRLLevel level);
    LogBuilder& event(std::string_view name, std::string_view parentId = {});
    LogBuilder& id(std::string_view id);
    LogBuilder& parentId(std::string_view id);
    // An empty key adds nothing.
    template <typename T>
    LogBuilder& append(std::string_view key, T&& value) {
        if (entry_ && !key.empty())
            entry_->fields.set(std::string(key), json::JSON(std::forward<T>(value)));
        return *this;
    }
    // Adds raw JSON text as a field (kept as a string when it does not parse).
    LogBuilder& appendJSON(std::string_view key, std::string_view text);
    LogBuilder& error(int code, std::string_view message);
    LogBuilder& error(std::string_view code, std::string_view message);
    // Any error value with code() and message().
    template <typename E>
    auto error(const E& e) -> decltype(e.code(), e.message(), *this) {
        return error(static_cast<int>(e.code()), e.message());
    }
    // Writes the entry now; later calls do nothing.
    void done();

  private:
    std::unique_ptr<LogEntry> entry_;  // null when filtered or done
};

// Installs a CapturingSink at the most verbose level for its lifetime (tests).
class ScopedCapture {
  public:
    explicit ScopedCapture(MRLLevel level = MRLLevelVerbose);
    ~ScopedCapture();
    CapturingSink& sink() { return *sink_; }
    CapturingSink* operator->() { return sink_.get(); }

  private:
    std::shared_ptr<CapturingSink> sink_;
    std::shared_ptr<LogSink> previousSink_;
    MRLLevel previousLevel_;
};

}  // namespace MarlLogger
