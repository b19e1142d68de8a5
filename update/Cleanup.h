// Cleanup: keeps installed packs within their size limits and the disk free of what no record
// owns. Packs are ranked by a score built from their access statistics and priority; the best that
// fit a byte budget stay, the rest are marked eliminated and their folders deleted; then recovery
// deletes every pack folder and packed key that no installed record owns. Logged under
// "Ferrit/Task"; reported as "Ferrit.Cleanup".
//
// Threading: any thread, but runs change the configuration and delete folders, so callers keep
// them on the worker: the timer's regular run is posted there, and the developer tool and pack
// updates call from tasks of the worker. Nothing here reports an error to a caller: a folder that
// cannot be deleted is found again by the next recovery.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Telemetry.h"
#include "model/FConfig.h"
#include "model/Pack.h"

namespace FerritCore {

struct Settings;

// Why a cleanup runs; printed by name, "Unknown" above kCleanupManual.
enum CleanupTrigger : uint32_t {
    kCleanupRegular = 0,    // the repeating timer
    kCleanupDebugTool = 1,  // the developer tool's "cleanup" command
    kCleanupFerrit = 2,     // a download of an ordinary pack met its size limit
    kCleanupACache = 3,     // a download of an acache pack met its size limit
    kCleanupManual = 4,     // an explicit call from the host side
};
const char* cleanupTriggerName(uint32_t trigger);

// What one run changed: packs whose content is to come back, and packs whose content went.
struct CleanupResult {
    std::vector<std::string> recovered;
    std::vector<PackPtr> cleaned;
};

// The figures of one "Ferrit.Cleanup" report that the selection fills.
struct CleanupCounts {
    double packCount = 0;
    double installedSize = 0;
    double longTermPackCount = 0;
    double longTermSize = 0;
    double accessCount = 0;
    double installedPackCount = 0;
    double accessedPackCount = 0;
    double eliminatedPackCount = 0;
    double eliminatedAccessCount = 0;
    double eliminatedSize = 0;
};

// One pack as the selection sees it, read once from the snapshot and the statistics.
struct CleanupCandidate {
    PackPtr pack;
    double access = 0;
    double score = 0;
    uint64_t size = 0;
    bool installed = false;
    bool longTerm = false;
    bool eliminated = false;  // in state 2: content removed, waiting to come back
};

// The outcome of the selection over one configuration, before anything is changed.
struct CleanupPlan {
    CleanupResult result;
    CleanupCounts ferrit;  // ordinary packs, and the eliminated acache packs as well
    CleanupCounts acache;
    size_t ferritCandidates = 0;
    size_t acacheCandidates = 0;
};

class Cleanup {
  public:
    // The interval given at each start of updating: seven days.
    static constexpr double kIntervalMs = 6.048e8;
    // The limit of a class when neither of its settings is above 0.
    static constexpr uint64_t kDefaultSizeLimit = 52428800;
    // Scores within this of each other rank as equal.
    static constexpr double kScoreTolerance = 0.001;
    // Score weights: a priority step adds a fifth of the access value, and a tenth on its own.
    static constexpr double kPriorityAccessWeight = 0.2;
    static constexpr double kPriorityWeight = 0.1;
    // Added to the score of a pack whose priority is kPriorityStartup or more.
    static constexpr double kStartupScoreBonus = 1000.0;
    // The version every report names.
    static constexpr const char* kReportCoreVersion = "10.10.0-rc.5";

    // Starts the repeating timer "cleanup" (mark "cleanup") whose callback is regularRun; a later
    // call only changes its interval. The mark carries the rhythm across restarts.
    static void scheduleCleanup(double intervalMs);
    // The timer's callback: runCleanup(kCleanupRegular), then Cache::sync, then compaction of
    // the configuration store.
    static void regularRun();
    // The whole pass: sizes, decay, selection, configuration update, folder removal, recovery,
    // compaction, log and reports. Returns the cleaned packs (empty when "cleanupEnabled" is
    // off). Any trigger but kCleanupRegular also postpones the regular run.
    static std::vector<PackPtr> runCleanup(uint32_t trigger);
    // The gate before a pack is downloaded: whether it may take room. Over the limit, a read that
    // waits for the pack (a "Visit" or "VisitUpdate") makes room by a cleanup and passes.
    static bool mayInstall(const Pack& pack, UpdateTrigger updateTrigger);
    // The bytes that a new version of `pack` may take on the disk: its class's limit less what
    // the other installed packs of the class take (never below 0). The version it replaces does
    // not count, nor do packs never evicted. A pack never evicted, and the triggers that
    // mayInstall lets through whatever the total ("Preview", "DebugTool"), get the whole limit.
    // `limit` receives the class's limit and `limitName` the setting it comes from.
    static uint64_t roomFor(const Pack& pack, UpdateTrigger updateTrigger, uint64_t& limit,
                            const char*& limitName);
    // Measures every installed pack whose size is unknown and stores the sizes in one update.
    static void fillPackSizes();

    // Recovery: deletes the keys of the packs store and the folders under "apps/" that no
    // installed record of the current configuration owns, except those of busy packs. Returns
    // the deleted paths as they are logged, which leaves out the last one.
    static std::vector<std::string> recover();
    // Recovery at start, for what a killed install left behind; skipped in a sub-process and
    // while the configuration names no pack, so that a configuration that failed to load does
    // not take every installed pack with it.
    static void recoverLeftovers();

    // Packs never evicted: records of kind 0 whose priority is over 8 or is 7, or preset packs.
    static bool isLongTerm(const Pack& pack);
    // (p * 0.2 + 1) * a + p * 0.1 by fused multiply-adds, p the priority and a the access value;
    // plus kStartupScoreBonus from priority 9.
    static double evictionScore(const Pack& pack, double accessValue);
    // The limits of each class as the settings give them now, with their fallbacks.
    static uint64_t ferritSizeLimit(const Settings& settings);
    static uint64_t acacheSizeLimit(const Settings& settings);
    // The order of the selection's heap: true when `x` lies below `y`. Long-term packs lie on
    // top, then the higher score (scores within kScoreTolerance tie), then packs not in state 2,
    // then the most recently updated.
    static bool ranksBelow(const CleanupCandidate& x, const CleanupCandidate& y);
    // The selection over `config` with the two budgets; reads statistics, changes nothing.
    static CleanupPlan plan(const FConfig& config, uint64_t ferritLimit, uint64_t acacheLimit);

    // Who is installing right now: recovery leaves the folders and keys of a pack alone while
    // `busy(rootName)` is true, for the update queue to fill. Null: no pack is busy.
    static void setBusyPacks(std::function<bool(std::string_view rootName)> busy);
};

}  // namespace FerritCore
