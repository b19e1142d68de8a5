#include "marl/Log.h"

#include <cstdio>
#include <cstdlib>

#include "support/Mutex.h"

namespace MarlLogger {
namespace {

int initialLevel() {
    const char* text = std::getenv("FERRIT_LOG_LEVEL");
    if (text == nullptr || *text == '\0') return MRLLevelWarning;
    const int level = std::atoi(text);
    return level < 0 ? 0 : level;
}

std::atomic<std::shared_ptr<LogSink>>& sinkSlot() {
    static std::atomic<std::shared_ptr<LogSink>> slot{std::make_shared<StderrSink>()};
    return slot;
}

bool matches(const LogEntry& entry, std::string_view event, std::string_view tag) {
    return entry.event == event && (tag.empty() || entry.tag == tag);
}

}  // namespace

std::atomic<int> Log::activeLevel_{initialLevel()};

const json::JSON& LogEntry::field(std::string_view key) const {
    const json::JSON* value = fields.find(key);
    return value ? *value : json::JSON::null();
}

std::string LogEntry::toJSONLine() const {
    json::JSONStringer out;
    out.object().key("level").value(level).key("tag").value(tag).key("event").value(event);
    if (!id.empty()) out.key("id").value(id);
    if (!parentId.empty()) out.key("parentId").value(parentId);
    if (hasError) out.key("errorCode").value(errorCode).key("errorMsg").value(errorMessage);
    for (const auto& [key, value] : fields) out.key(key).value(value);
    out.endObject();
    return out.result();
}

void StderrSink::write(const LogEntry& entry) {
    std::string line = entry.toJSONLine();
    line.push_back('\n');
    std::fwrite(line.data(), 1, line.size(), stderr);
}

void CapturingSink::write(const LogEntry& entry) {
    FerritCore::MutexLock lock(mutex_);
    entries_.push_back(entry);
}

std::vector<LogEntry> CapturingSink::entries() const {
    FerritCore::MutexLock lock(mutex_);
    return entries_;
}

std::vector<LogEntry> CapturingSink::all(std::string_view event, std::string_view tag) const {
    FerritCore::MutexLock lock(mutex_);
    std::vector<LogEntry> out;
    for (const auto& entry : entries_)
        if (matches(entry, event, tag)) out.push_back(entry);
    return out;
}

LogEntry CapturingSink::last(std::string_view event, std::string_view tag) const {
    FerritCore::MutexLock lock(mutex_);
    for (auto it = entries_.rbegin(); it != entries_.rend(); ++it)
        if (matches(*it, event, tag)) return *it;
    return LogEntry{};
}

size_t CapturingSink::count(std::string_view event, std::string_view tag) const {
    FerritCore::MutexLock lock(mutex_);
    size_t n = 0;
    for (const auto& entry : entries_) n += matches(entry, event, tag) ? 1 : 0;
    return n;
}

void CapturingSink::clear() {
    FerritCore::MutexLock lock(mutex_);
    entries_.clear();
}

void Log::setSink(std::shared_ptr<LogSink> sink) {
    if (!sink) sink = std::make_shared<StderrSink>();
    sinkSlot().store(std::move(sink));
}

std::shared_ptr<LogSink> Log::sink() {
    return sinkSlot().load();
}

void Log::setLevel(MRLLevel level) {
    activeLevel_.store(level, std::memory_order_relaxed);
}

LogBuilder Log::build(MRLLevel level, std::string_view tag) {
    return LogBuilder(level, tag);
}

LogBuilder::LogBuilder(MRLLevel level, std::string_view tag) {
    if (!Log::enabled(level)) return;
    entry_ = std::make_unique<LogEntry>();
    entry_->level = level;
    entry_->tag = tag;
}

LogBuilder::~LogBuilder() {
    done();
}

LogBuilder& LogBuilder::level(MRLLevel level) {
    if (entry_) entry_->level = level;
    return *this;
}

LogBuilder& LogBuilder::event(std::string_view name, std::string_view parentId) {
    if (entry_) {
        entry_->event = name;
        if (!parentId.empty()) entry_->parentId = parentId;
    }
    return *this;
}

LogBuilder& LogBuilder::id(std::string_view id) {
    if (entry_) entry_->id = id;
    return *this;
}

LogBuilder& LogBuilder::parentId(std::string_view id) {
    if (entry_) entry_->parentId = id;
    return *this;
}

LogBuilder& LogBuilder::appendJSON(std::string_view key, std::string_view text) {
    if (!entry_ || key.empty()) return *this;
    std::string error;
    json::JSON value = json::JSON::parse(text, &error);
    entry_->fields.set(std::string(key), error.empty() ? std::move(value) : json::JSON(text));
    return *this;
}

LogBuilder& LogBuilder::error(int code, std::string_view message) {
    return error(std::string_view(std::to_string(code)), message);
}

LogBuilder& LogBuilder::error(std::string_view code, std::string_view message) {
    if (entry_) {
        entry_->hasError = true;
        entry_->errorCode = code;
        entry_->errorMessage = message;
    }
    return *this;
}

void LogBuilder::done() {
    if (!entry_) return;
    std::unique_ptr<LogEntry> entry = std::move(entry_);
    if (Log::enabled(entry->level)) Log::sink()->write(*entry);
}

ScopedCapture::ScopedCapture(MRLLevel level)
    : sink_(std::make_shared<CapturingSink>()),
      previousSink_(Log::sink()),
      previousLevel_(Log::level()) {
    Log::setSink(sink_);
    Log::setLevel(level);
}

ScopedCapture::~ScopedCapture() {
    Log::setSink(previousSink_);
    Log::setLevel(previousLevel_);
}

}  // namespace MarlLogger
