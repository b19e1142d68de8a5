// Statistics: how much each pack has been used, as weighted access counters. Any thread; one
// mutex guards the map, counters are atomic.
#pragma once

#include <string>

#include "marl/Json.h"

namespace FerritCore {

class Statistics {
  public:
    // Repeated accesses within this many milliseconds of the clock count once.
    static constexpr double kRepeatWindowMs = 3000.0;

    // Counts an access of `name` (a pack name, or "name@seq") with `weight`, unless one was
    // counted less than kRepeatWindowMs ago. Stores the resulting count in `accessCount` when
    // given. True when this was the first counted access of the name in this process.
    static bool addAccess(const std::string& name, double* accessCount, double weight);
    // As above at `now` (MRLCurrentClock), for a caller that has just read the clock.
    static bool addAccess(const std::string& name, double* accessCount, double weight, double now);
    // Counts a prefetch of `name` (its part before the last "@"), without a repeat window.
    static void addPrefetch(const std::string& name);
    // The prefetch count, 0.0 when unknown.
    static double prefetchValue(const std::string& name);
    // The weighted count, 0.0 when unknown.
    static double accessValue(const std::string& name);
    static bool hasEntry(const std::string& name);
    // {name: {"accessCount", "prefetchCount"}} of every entry, in name order, for the developer
    // tool.
    static MarlLogger::json::JSON dump();
};

}  // namespace FerritCore
