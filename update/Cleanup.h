// Cleanup: the regular pass that keeps the disk within its budgets. This part owns its timer:
// one repeating task under the mark "cleanup", so that its rhythm outlives restarts. Any thread.
#pragma once

#include <functional>

namespace FerritCore {

class Cleanup {
  public:
    // Creates the timer at the first call; a later call only changes its interval.
    static void arm(double intervalMs);
    // What a tick runs. Until the eviction pass is attached, a tick is only logged.
    static void setRunner(std::function<void(int trigger)> runner);
};

}  // namespace FerritCore
