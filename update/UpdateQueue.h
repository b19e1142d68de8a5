// UpdateQueue: the process-wide scheduler of pack updates. Any thread may call it; tasks start
// on the task runner's worker, one normal download at a time.
//
// Pending work lies in two lists: `normal`, a max-heap by score that one run of start() trims to
// its limit, and `fast`, a stack for tasks that a reader waits for (the last added runs first).
// A pack has at most one task queued or running: a later request merges into the one queued
// first (which takes the later one's version when that is newer), or waits for the one running
// and shares its outcome; a request for a newer version than the running one installs waits
// for it to end and is then added afresh, so that its listener hears of the newer version. Nothing
// starts while the client is in the background (setPaused), and a pack that a reader holds
// (holdPack) is never replaced: its queued task is dropped without a word, and comes back at the
// next run.
//
// The queue's lock is recursive and is never held across a task's start or a network call.
// A run of the queue, from its first task to the moment it is empty, is one "Ferrit.UpdateQueue"
// record; its end tells the host through Proxy::onQueueFinished.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/Telemetry.h"
#include "ferritcore/Error.h"
#include "marl/Json.h"
#include "update/UpdatePack.h"

namespace FerritCore {

// Makes the queue's tasks. Tests install their own to run task doubles; must be safe from any
// thread.
class UpdatePackFactory {
  public:
    virtual ~UpdatePackFactory() = default;
    virtual UpdatePackPtr create(const std::string& name, const MarlLogger::json::JSON& info,
                                 UpdateTrigger trigger);
    virtual UpdatePackPtr createSeq(const std::string& name, uint64_t seq);
};

class UpdateQueue {
  public:
    using Listener = UpdatePack::Listener;

    // The factory in use; set(null) restores the one that makes real tasks.
    static std::shared_ptr<UpdatePackFactory> factory();
    static void setFactory(std::shared_ptr<UpdatePackFactory> factory);

    // Looks at every record of the configuration, queues the runnable ones as normal tasks, keeps
    // the best "startupDownloadLimit" ("Startup") or "downloadLimit" (any other trigger) of the
    // heap and drops the rest, then lets the queue run. A sub process only logs 2004.
    static void start(UpdateTrigger trigger);
    // Queues one task: a task that is not runnable tells `listener` at once (its error, or none
    // when up to date); otherwise `listener` learns the outcome of the task that survives the
    // merge, on the worker. A task dropped for a held pack never tells its listener.
    static void add(UpdatePackPtr task, Listener listener);
    // Makes the task for `name` and `trigger` through the factory and adds it. A name "pack@seq"
    // that the configuration does not hold asks for that fixed version of "pack". A sub process
    // answers 2004 at once.
    static void request(const std::string& name, UpdateTrigger trigger, Listener listener = {});

    // Queues the packs behind `items` with the trigger "Prefetch": an item holding "/" is a URL,
    // looked up in the referrer index and then in the prefix index; any other item is a pack name,
    // replaced by its first existing variant "item~value". Logs the state of each as the event
    // "trigger" under "Ferrit/Prefetch" and returns that object: item to a list of results, each
    // {"packName", "status", "oldSeq", "errorCode"?, "errorMessage"?}, or the literal result
    // {"status":"notFerritResource"} for an item of no pack.
    static MarlLogger::json::JSON prefetch(const std::vector<std::string>& items);

    // True while the client is in the background: the lists still fill, nothing new starts.
    // Resuming lets the queue run at once.
    static void setPaused(bool paused);
    static bool paused();

    // A reader holds the pack: its queued tasks are dropped instead of started. Holds nest.
    static void holdPack(const std::string& name);
    static void releasePack(const std::string& name);
    static bool isHeld(const std::string& name);
    // True while a task of the pack whose folder is `rootName` runs, or a reader holds it: what
    // recovery must leave alone.
    static bool isInUse(std::string_view rootName);

    // Starts what may run now (posted to the worker by everything that changes the lists).
    static void next();

    // For tests and tools: the sizes of the lists, and the names of `normal` best first and of
    // `fast` in the order they would start.
    static size_t runningCount();
    static size_t normalCount();
    static size_t fastCount();
    static std::vector<std::string> normalNames();
    static std::vector<std::string> fastNames();
};

}  // namespace FerritCore
