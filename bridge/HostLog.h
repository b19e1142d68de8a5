// HostLog: the library's log handed to a script function of the host instead of stderr. Each
// entry becomes the JSON text that the stderr sink writes (without its newline) and is delivered
// on the script thread, later, in the order the entries were written, whichever thread wrote
// them; an entry written on the script thread itself is delivered after the current call returns.
//
// A writer never waits for the script thread and never keeps the host's process alive. When the
// script thread falls behind by kBacklogLimit entries, later entries are dropped; once there is
// room again (or the backlog is drained) one entry with the event "logDropped" and the field
// "count" says how many were lost. An entry that can no longer reach the script thread (it is
// shutting down) goes to stderr, so that the end of a process's log is not lost.
//
// Threading: write() from any thread; install() and restoreStderr() on the script thread.
#pragma once

#include <node_api.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "bridge/Napi.h"
#include "marl/Log.h"

namespace FerritCore {

class HostLogSink : public MarlLogger::LogSink {
  public:
    // Entries that may wait for the script thread at once; more are dropped and counted.
    static constexpr size_t kBacklogLimit = 1000;

    // Script thread: a sink over `callback`; null when it is not a function or the engine refuses.
    static std::shared_ptr<HostLogSink> create(napi_env env, napi_value callback);
    ~HostLogSink() override;

    void write(const MarlLogger::LogEntry& entry) override;
    // Any thread: stops taking entries; those already queued are still delivered.
    void close();

    // Script thread: makes a sink over `callback` the log's sink, replacing (and closing) the one
    // an earlier call installed. False when `callback` is not a function; nothing changes then.
    static bool install(napi_env env, napi_value callback);
    // Script thread: the log goes back to stderr; the installed sink, if any, is closed.
    static void restoreStderr();

    // What the backlog holds between the writers and the script thread, shared with the entries
    // in flight so that a sink closed meanwhile is not needed to deliver them.
    struct Backlog;

  private:
    HostLogSink() = default;
    // Queues `text`; false when the script thread no longer takes anything.
    bool post(std::string text);

    std::shared_ptr<Backlog> backlog_;
    NAPI::SafeThreadsafeFunction function_;
};

}  // namespace FerritCore
