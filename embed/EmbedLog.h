// EmbedLogSink: the library's log handed to a native host's log callback instead of stderr. Each
// entry becomes the JSON text that the stderr sink writes (without its newline) and is delivered
// on the callback thread, in the order written, whichever thread wrote it.
//
// A writer never waits for the host. When the host falls behind by kBacklogLimit entries, later
// entries are dropped; once the backlog is drained, one entry with the event "logDropped" and the
// field "count" says how many were lost.
//
// Threading: write() from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "marl/Log.h"

namespace FerritCore {

class EmbedProxy;

class EmbedLogSink : public MarlLogger::LogSink {
  public:
    // Entries that may wait for the host at once; more are dropped and counted.
    static constexpr size_t kBacklogLimit = 1000;

    explicit EmbedLogSink(std::shared_ptr<EmbedProxy> proxy);
    void write(const MarlLogger::LogEntry& entry) override;

    // What waits for the host, shared with the deliveries in flight.
    struct Backlog;

  private:
    std::shared_ptr<EmbedProxy> proxy_;
    std::shared_ptr<Backlog> backlog_;
};

}  // namespace FerritCore
