#include "bridge/HostLog.h"

#include <cstdio>
#include <string>
#include <string_view>
#include <utility>

#include "base/LogTags.h"
#include "support/Mutex.h"

namespace FerritCore {

struct HostLogSink::Backlog {
    Mutex mutex;
    size_t queued GUARDED_BY(mutex) = 0;     // posted, not yet delivered
    uint64_t dropped GUARDED_BY(mutex) = 0;  // lost since the last "logDropped"
};

namespace {

// One entry on its way to the script thread.
struct Delivery {
    std::shared_ptr<HostLogSink::Backlog> backlog;
    std::string text;
};

// The entry that says how many were lost, as the log would have written it.
std::string droppedText(uint64_t count) {
    MarlLogger::LogEntry entry;
    entry.level = MarlLogger::MRLLevelWarning;
    entry.tag = std::string(LogTag::kBridge);
    entry.event = "logDropped";
    entry.fields.set("count", MarlLogger::json::JSON(count));
    return entry.toJSONLine();
}

void writeStderr(std::string_view text) {
    std::string line(text);
    line.push_back('\n');
    std::fwrite(line.data(), 1, line.size(), stderr);
}

// Calls the host's function with one text. What it throws is dropped: telling it through the log
// would only hand it back to the same function.
void callWith(napi_env env, napi_value function, const std::string& text) {
    napi_value argument = NAPI::toString(env, text);
    napi_value result = nullptr;
    if (argument == nullptr ||
        napi_call_function(env, NAPI::undefined(env), function, 1, &argument, &result) != napi_ok)
        NAPI::clearException(env);
}

// Script thread: one entry to the host's function, then, once the backlog is empty, the count of
// what was lost. During the environment's teardown `env` is null: the entry goes to stderr.
void deliver(napi_env env, napi_value function, void*, void* data) {
    std::unique_ptr<Delivery> delivery(static_cast<Delivery*>(data));
    const bool reachable = env != nullptr && function != nullptr;
    if (reachable) {
        callWith(env, function, delivery->text);
    } else {
        writeStderr(delivery->text);
    }
    uint64_t dropped = 0;
    {
        HostLogSink::Backlog& backlog = *delivery->backlog;
        MutexLock lock(backlog.mutex);
        --backlog.queued;
        if (backlog.queued == 0) dropped = std::exchange(backlog.dropped, 0);
    }
    if (dropped == 0) return;
    if (reachable) {
        callWith(env, function, droppedText(dropped));
    } else {
        writeStderr(droppedText(dropped));
    }
}

// The sink that install() put in place, kept until it is replaced (never destroyed at exit, while
// the library's threads may still write to it).
struct Installed {
    Mutex mutex;
    std::shared_ptr<HostLogSink> sink GUARDED_BY(mutex);
};

Installed& installed() {
    static Installed* const instance = new Installed();
    return *instance;
}

}  // namespace

std::shared_ptr<HostLogSink> HostLogSink::create(napi_env env, napi_value callback) {
    if (!NAPI::isFunction(env, callback)) return nullptr;
    std::shared_ptr<HostLogSink> sink(new HostLogSink());
    sink->backlog_ = std::make_shared<Backlog>();
    if (!sink->function_.create(env, callback, "ferritcore.log", deliver)) return nullptr;
    // The log must not keep the host's process alive: its end is the host's to decide.
    sink->function_.unref(env);
    return sink;
}

HostLogSink::~HostLogSink() {
    close();
}

bool HostLogSink::post(std::string text) {
    auto* delivery = new Delivery{backlog_, std::move(text)};
    if (function_.call(delivery)) return true;
    delete delivery;
    return false;
}

void HostLogSink::write(const MarlLogger::LogEntry& entry) {
    std::string text = entry.toJSONLine();
    {
        // Posted under the lock, so that the count of what was lost lands exactly where the loss
        // happened, between the entries before it and after it.
        MutexLock lock(backlog_->mutex);
        if (backlog_->queued >= kBacklogLimit) {
            ++backlog_->dropped;
            return;
        }
        if (backlog_->dropped != 0) {
            if (!post(droppedText(backlog_->dropped))) {
                writeStderr(droppedText(backlog_->dropped));
            } else {
                ++backlog_->queued;
            }
            backlog_->dropped = 0;
        }
        if (post(text)) {
            ++backlog_->queued;
            return;
        }
    }
    // The script thread is gone or this sink was closed: the entry is not lost for that.
    writeStderr(text);
}

void HostLogSink::close() {
    function_.release();
}

bool HostLogSink::install(napi_env env, napi_value callback) {
    std::shared_ptr<HostLogSink> sink = create(env, callback);
    if (!sink) return false;
    MarlLogger::Log::setSink(sink);
    std::shared_ptr<HostLogSink> previous;
    {
        MutexLock lock(installed().mutex);
        previous = std::exchange(installed().sink, std::move(sink));
    }
    if (previous) previous->close();
    return true;
}

void HostLogSink::restoreStderr() {
    MarlLogger::Log::setSink(nullptr);
    std::shared_ptr<HostLogSink> previous;
    {
        MutexLock lock(installed().mutex);
        previous = std::exchange(installed().sink, nullptr);
    }
    if (previous) previous->close();
}

}  // namespace FerritCore
