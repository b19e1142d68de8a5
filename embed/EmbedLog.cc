#include "embed/EmbedLog.h"

#include <string>
#include <utility>

#include "base/LogTags.h"
#include "embed/EmbedProxy.h"
#include "support/Mutex.h"

namespace FerritCore {

struct EmbedLogSink::Backlog {
    Mutex mutex;
    size_t queued GUARDED_BY(mutex) = 0;     // posted, not yet delivered (or dropped by a close)
    uint64_t dropped GUARDED_BY(mutex) = 0;  // lost since the last "logDropped"
};

namespace {

// The entry that says how many were lost, as the log would have written it.
std::string droppedText(uint64_t count) {
    MarlLogger::LogEntry entry;
    entry.level = MarlLogger::MRLLevelWarning;
    entry.tag = std::string(LogTag::kEmbed);
    entry.event = "logDropped";
    entry.fields.set("count", MarlLogger::json::JSON(count));
    return entry.toJSONLine();
}

// The text of an entry without the newline that ends a line of the stderr sink.
std::string withoutNewline(std::string line) {
    while (!line.empty() && line.back() == '\n') line.pop_back();
    return line;
}

}  // namespace

EmbedLogSink::EmbedLogSink(std::shared_ptr<EmbedProxy> proxy)
    : proxy_(std::move(proxy)), backlog_(std::make_shared<Backlog>()) {}

void EmbedLogSink::write(const MarlLogger::LogEntry& entry) {
    {
        MutexLock lock(backlog_->mutex);
        if (backlog_->queued >= kBacklogLimit) {
            ++backlog_->dropped;
            return;
        }
        ++backlog_->queued;
    }
    const auto level = static_cast<ferritcore_log_level>(entry.level);
    // The count goes down when the entry reaches the host, or when its delivery is dropped (a
    // close), so that a host that closed does not leave the backlog full for the next one.
    struct Slot {
        // Spelled out: clang does not build an aggregate from make_shared's parentheses.
        explicit Slot(std::shared_ptr<Backlog> held) : backlog(std::move(held)) {}
        std::shared_ptr<Backlog> backlog;
        bool waiting = true;
        ~Slot() {
            if (!waiting) return;
            MutexLock lock(backlog->mutex);
            --backlog->queued;
        }
    };
    auto slot = std::make_shared<Slot>(backlog_);
    proxy_->deliver(
        [slot, level, text = withoutNewline(entry.toJSONLine())](const HostCallbacks& host) {
            if (host.onLog == nullptr) return;
            host.onLog(host.userData, level, text.c_str());
            uint64_t lost = 0;
            {
                MutexLock lock(slot->backlog->mutex);
                slot->waiting = false;
                // The backlog is drained: say what was lost meanwhile.
                if (--slot->backlog->queued == 0) std::swap(lost, slot->backlog->dropped);
            }
            if (lost > 0) {
                const std::string dropped = withoutNewline(droppedText(lost));
                host.onLog(host.userData, FERRITCORE_LOG_WARNING, dropped.c_str());
            }
        });
}

}  // namespace FerritCore
