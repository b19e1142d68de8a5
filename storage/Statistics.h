// Statistics: how much each pack has been used, as weighted access counters that every cleanup
// shrinks by a logarithm, so that a pack must keep being used to keep its rank. Any thread: one
// mutex guards the map for lookups (and for the whole of decay), the counters are atomic doubles
// changed by compare-and-swap. Entries are loaded from the configuration store at first use; only
// the main process writes them back or decays them. A change is never written on the thread that
// makes it: it marks its entry and the worker writes every marked entry in one transaction, so a
// request pays for no store write. What is marked is written at the latest when the host
// deactivates (flush) or the process state is reset.
#pragma once

#include <cstddef>
#include <string>

#include "marl/Json.h"

namespace FerritCore {

class Statistics {
  public:
    // Keys of the configuration store: kKeyPrefix + name holds {"c": access, "p": prefetch}.
    static constexpr const char* kKeyPrefix = "statistics/";
    // Repeated accesses within this many milliseconds of the clock count once.
    static constexpr double kRepeatWindowMs = 3000.0;
    // The weight of one read, and of one prefetch.
    static constexpr double kAccessWeight = 1.0;
    // What a first install credits a pack (ln 2): a fresh pack is not evicted before its first
    // use, and a pack counts as used only once more than this stands.
    static constexpr double kInstallCredit = 0.6931471805599453;
    // A decayed counter below this is worth nothing and becomes 0.0.
    static constexpr double kDecayFloor = 0.4;

    // Counts an access of `name` (a pack name, or "name@seq") with `weight`, unless one was
    // counted within kRepeatWindowMs before; a "name@seq" is also counted on "name". Stores the
    // resulting count of `name` in `accessCount` when given. True when this was the first
    // counted access of `name` in this process.
    static bool addAccess(const std::string& name, double* accessCount, double weight);
    // As above at `now` (MRLCurrentClock), for a caller that has just read the clock.
    static bool addAccess(const std::string& name, double* accessCount, double weight, double now);
    // Counts one prefetch on the pack name of `name` (the part before its last "@"), unthrottled.
    static void addPrefetch(const std::string& name);
    // Writes every change not yet written, now, on the calling thread, in one transaction; what
    // the worker does after changes. Serialised with the worker's write and with decay, so that
    // an older value never lands after a newer one. Nothing to do in a sub-process.
    static void flush();
    // Called by every write of queued changes with how many entries it writes, after their values
    // are read and before the store is written; null for none. Lets a test count writes and
    // change counters while one is under way.
    static void setWriteHookForTesting(void (*hook)(size_t entries));
    // The prefetch count, 0.0 when unknown.
    static double prefetchValue(const std::string& name);
    // The weighted count, 0.0 when unknown.
    static double accessValue(const std::string& name);
    // True when more than the install credit stands for `name`.
    static bool isUsed(const std::string& name) { return accessValue(name) > kInstallCredit; }
    static bool hasEntry(const std::string& name);
    // {name: {"accessCount", "prefetchCount"}} of every entry, in name order, for the developer
    // tool.
    static MarlLogger::json::JSON toJson();
    // Replaces every positive counter v with log(v + 1), 0.0 below kDecayFloor; an entry at 0 on
    // both counters loses its stored key but stays in memory. Writes every entry at once, with
    // the changes still queued, in one transaction. Sends "Ferrit.Prefetch" for every
    // prefetched pack with its counters from before. Main process only; a sub-process returns.
    static void decay();
};

}  // namespace FerritCore
