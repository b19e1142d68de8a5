// Cleanup: the regular pass that keeps the disk within its budgets. This part owns its timer:
// one repeating task under the mark "cleanup", so that its rhythm outlives restarts; and the
// eviction that a download meeting its size limit asks for. Any thread.
#pragma once

#include <functional>

namespace FerritCore {

// Why a cleanup runs; the two that a download asks for are told apart by the class of the pack.
enum CleanupTrigger : int {
    kCleanupRegular = 0,
    kCleanupDebugTool = 1,
    kCleanupFerrit = 2,  // an ordinary pack met its size limit
    kCleanupACache = 3,  // an app pack met its size limit
    kCleanupManual = 4,
};

class Cleanup {
  public:
    // Creates the timer at the first call; a later call only changes its interval.
    static void arm(double intervalMs);
    // What a tick runs. Until the eviction pass is attached, a tick is only logged.
    static void setRunner(std::function<void(int trigger)> runner);

    // Makes room for a pack that met its size limit (kCleanupFerrit or kCleanupACache); true when
    // the eviction ran. Until the eviction pass is attached (setEvictor), nothing is evicted and
    // the answer is false: no room was made, and the download that asked is refused.
    static bool evictForInstall(int cleanupTrigger);
    // Attaches the eviction pass; null detaches it.
    static void setEvictor(std::function<bool(int cleanupTrigger)> evictor);
};

}  // namespace FerritCore
