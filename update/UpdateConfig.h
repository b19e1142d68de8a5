// UpdateConfig: keeps the local configuration document current. It decides whether a check is due,
// builds the request URL, fetches through the Proxy, verifies the signature, parses, and merges
// into the process-wide document through a configuration transaction. It never downloads packs.
//
// Threading: start() may be called on any thread; update(), the response and finished() run on
// the task runner's worker alone, so the state of a run needs no lock. The listener list has its
// own mutex. A process-wide singleton, created at first use; main process only.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "base/ProcessState.h"
#include "base/Telemetry.h"
#include "ferritcore/Error.h"
#include "marl/Json.h"
#include "runtime/RepeatingTimer.h"
#include "support/Mutex.h"

namespace FerritCore {

class FConfig;

class UpdateConfig {
  public:
    using Listener = std::function<void(const Error& error)>;

    // Checks closer together than this are dropped, unless the developer tool or a change of
    // environment asks.
    static constexpr double kThrottleMs = 30000.0;
    // A local document older than this, or a full document older than this, asks for a full one.
    static constexpr double kFullRefreshMs = 604800000.0;

    static UpdateConfig& instance();

    // The share of a delay that start waits, in [0, 1); null restores the process's own
    // generator. Tests fix it; any thread.
    using RandomSource = std::function<double()>;
    static void setRandomSource(RandomSource source);

    // The one entry for every caller: adds `listener` (may be empty) and posts update(trigger,
    // version) after a random part of `delay`. In a sub process it only logs 2004.
    void start(UpdateTrigger trigger, const std::string& version, Listener listener, double delay);
    // The body of a check; worker only.
    void update(UpdateTrigger trigger, const std::string& version);
    // Decides whether a check is due and returns its URL; empty when the client is up to date
    // (then "upToDate" is logged). Stores trigger, targetVersion, originVersion and initial.
    std::string checkDue(UpdateTrigger trigger, const std::string& version);
    // The end of a run: moves the timer, tells and drops the listeners, reports.
    void finished(const std::string& version, const Error& error);

    // Creates the periodic check (once): every configUpdateInterval, update(4, "0").
    void startTimer();
    std::shared_ptr<RepeatingTimer> timer() const { return timer_; }
    // configUpdateInterval, or its default when the setting holds no positive value.
    static double checkInterval();

    // The load at process start: the stored document (or the older file), else the defaults,
    // then the built-in configuration; published as the current document. Never fails.
    static void loadAtStart();

    // Why the last document that verified was not taken, in this process: {"reason" ("channel",
    // "expired" or "older"), "message", "url", "version", "issued", "expires", "at"};
    // null when none was.
    MarlLogger::json::JSON lastRefusal() const;

    bool busy() const { return busy_; }
    bool initial() const { return initial_; }
    const std::string& url() const { return url_; }

  private:
    // Hands `error` to every listener waiting for a run, then drops them.
    void tellListeners(const Error& error);
    friend UpdateConfig* ProcessState::create<UpdateConfig>(void (*)(UpdateConfig&));
    UpdateConfig() = default;
    // Back to a fresh singleton (ProcessState::resetForTesting). Drops listeners without calling
    // them.
    void reset();
    void onResponse(uint64_t run, std::string body, Error error);
    // Whether a fetched document that verified may be taken: one signed for another channel than
    // the host's (a document without "channel" is the default channel's), one whose expiry has
    // passed (a stale copy replayed) and one signed before the document this device has (a
    // rollback) are refused, logged and kept for the status report; the device keeps what it has.
    // One signed ahead of the device's clock is taken, its stamp kept at most
    // FConfig::kIssuedSkewMs ahead, so that a leaked key cannot hold later documents back.
    Error judge(const FConfig& document);

    // Worker only.
    double lastCheck_ = -1e300;
    double lastSuccess_ = 0;
    bool initial_ = false;
    UpdateTrigger trigger_ = kTriggerNone;
    std::string targetVersion_ = "0";
    std::string originVersion_ = "0";
    std::string url_;
    // The host's setting that would have given this run its server, when neither it nor the build
    // did; null when the run has an address.
    const char* missingServerKey_ = nullptr;
    std::string runId_;
    bool busy_ = false;
    // Numbers the runs, so that a proxy that answers twice, or late, cannot end a run twice.
    uint64_t run_ = 0;
    std::optional<StagedRecord> perf_;
    std::shared_ptr<RepeatingTimer> timer_;

    mutable Mutex refusalMutex_;
    MarlLogger::json::JSON lastRefusal_ GUARDED_BY(refusalMutex_);

    RecursiveMutex listenersMutex_;
    std::vector<Listener> listeners_ GUARDED_BY(listenersMutex_);
};

}  // namespace FerritCore
