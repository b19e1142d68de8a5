// UpdateTarget: which record an update task works on and whether it has work to do. Reads of the
// published configuration, the settings, the statistics and what is installed; nothing is
// written, so the task's own state changes only where the task assigns what these return.
//
// Threading: any thread (a task is judged when it is made, on the caller's thread, and again
// when it starts, on the worker).
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "base/Telemetry.h"
#include "ferritcore/Error.h"
#include "marl/Json.h"
#include "model/FConfig.h"
#include "model/Pack.h"
#include "update/UpdatePack.h"

namespace FerritCore {

// The record a task was made for, and the name the task goes by.
struct Target {
    PackPtr pack;      // null when the configuration names no such pack
    std::string name;  // the record's name, or the name asked for when there is none
};

// What a task asked for, as the judgement needs it.
struct TaskAsk {
    const std::string& name;
    const std::string& requestedName;
    UpdateTrigger trigger = kTriggerNone;
    const UpdatePolicy& policy;
};

// Where a task stands.
struct Verdict {
    UpdateState state = UpdateState::Invalid;
    bool runnable = false;
    PackPtr pack;  // the record the task works on from now on
    // Set for a fixed-sequence copy of an app whose plain record exists: the installed sequence
    // is compared with this one.
    std::optional<uint64_t> fixedSeq;
    // The task's error from now on; none leaves it as it was.
    std::optional<Error> error;
};

class UpdateTarget {
  public:
    // `requestedName` is a pack name or the URL of a fixed-URL app; `info`, a JSON pack record or
    // null, describes the version wanted. A new record (a fixed version, an app by URL) is a
    // private clone that the configuration does not hold yet.
    static Target resolve(const FConfig& config, const std::string& requestedName,
                          const MarlLogger::json::JSON& info);
    // A fixed version "name@seq" (`pinnedName`) of `requestedName`.
    static PackPtr resolvePinned(const FConfig& config, const std::string& pinnedName,
                                 const std::string& requestedName, uint64_t seq);
    // The record in the configuration, the policy, the network, the disabled periods and what
    // is installed, for a task that holds `pack` (null when it has none).
    static Verdict evaluate(const FConfig& config, const PackPtr& pack, const TaskAsk& ask);
    // Whether the download of `pack` may go on the current network; `error` is set when the
    // host should hear why, and left empty when the status is one that it should not send.
    static bool networkAllows(const Pack& pack, Error& error);
};

}  // namespace FerritCore
