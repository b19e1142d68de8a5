#include "update/Cleanup.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "base/Environment.h"
#include "base/Folder.h"
#include "base/LogTags.h"
#include "base/ProcessState.h"
#include "base/StorageState.h"
#include "base/Telemetry.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "model/SCache.h"
#include "runtime/RepeatingTimer.h"
#include "runtime/Settings.h"
#include "runtime/TaskRunner.h"
#include "runtime/WorkerCheck.h"
#include "storage/Cache.h"
#include "storage/ConfigStore.h"
#include "storage/PacksStore.h"
#include "storage/Statistics.h"
#include "storage/Store.h"
#include "support/Mutex.h"

namespace FerritCore {
namespace {

using MarlLogger::json::JSON;

constexpr const char* kTimerMark = "cleanup";
constexpr const char* kAppsFolder = "apps/";
constexpr const char* kReportEvent = "Ferrit.Cleanup";
constexpr const char* kReportFerrit = "Ferrit";
constexpr const char* kReportACache = "ACache";
// The hash table of owned folders starts with room for this many before it grows.
constexpr size_t kOwnedBuckets = 32;
constexpr uint32_t kLongTermPriorityAbove = 8;

struct State {
    Mutex mutex;
    std::shared_ptr<RepeatingTimer> timer GUARDED_BY(mutex);
    std::function<bool(std::string_view)> busy GUARDED_BY(mutex);
};

State& state() {
    static State* const instance = ProcessState::create<State>([](State& s) {
        MutexLock lock(s.mutex);
        s.timer.reset();
        s.busy = nullptr;
    });
    return *instance;
}

std::shared_ptr<RepeatingTimer> timer() {
    MutexLock lock(state().mutex);
    return state().timer;
}

std::function<bool(std::string_view)> busyPacks() {
    MutexLock lock(state().mutex);
    return state().busy;
}

bool isACache(const Pack& pack) {
    return pack.packType() == kPackTypeACache;
}

uint64_t limitOf(const std::optional<uint64_t>& preferred, const std::optional<uint64_t>& plain) {
    if (preferred && *preferred > 0) return *preferred;
    if (plain && *plain > 0) return *plain;
    return Cleanup::kDefaultSizeLimit;
}

using Candidate = CleanupCandidate;

// The heap's order, visible to the compiler where the heap is built so that it is inlined there.
inline bool below(const Candidate& x, const Candidate& y) {
    if (x.longTerm) return false;
    if (y.longTerm) return true;
    if (std::fabs(x.score - y.score) > Cleanup::kScoreTolerance) return x.score < y.score;
    if (x.eliminated) return !y.eliminated;
    if (y.eliminated) return false;
    return x.pack->updateTime < y.pack->updateTime;
}

struct Below {
    bool operator()(const Candidate& x, const Candidate& y) const { return below(x, y); }
};

// Walks the candidates from the top of the heap, keeping what fits `budget`. A pack that does not
// fit does not stop the walk: a smaller one further down may still fit.
void select(std::vector<Candidate>& heap, uint64_t budget, CleanupResult& result,
            CleanupCounts& eliminatedInto) {
    std::make_heap(heap.begin(), heap.end(), Below());
    while (!heap.empty()) {
        std::pop_heap(heap.begin(), heap.end(), Below());
        const Candidate top = std::move(heap.back());
        heap.pop_back();
        if (top.longTerm) {
            if (top.eliminated) result.recovered.push_back(top.pack->name);
            continue;
        }
        if (top.eliminated) {
            // Coming back costs no room now: the install that follows meets the limit itself.
            if (top.access > 0) result.recovered.push_back(top.pack->name);
            continue;
        }
        if (budget >= top.size && top.access > 0) {
            budget -= top.size;
            continue;
        }
        if (top.installed) {
            eliminatedInto.eliminatedPackCount += 1;
            eliminatedInto.eliminatedAccessCount += top.access;
            eliminatedInto.eliminatedSize += static_cast<double>(top.size);
            result.cleaned.push_back(top.pack);
        }
    }
}

void count(CleanupCounts& counts, const Candidate& c) {
    counts.packCount += 1;
    counts.installedSize += static_cast<double>(c.size);
    counts.accessCount += c.access;
    if (c.access > 0) counts.accessedPackCount += 1;
    if (c.installed) {
        counts.installedPackCount += 1;
        if (c.longTerm) {
            counts.longTermPackCount += 1;
            counts.longTermSize += static_cast<double>(c.size);
        }
    }
}

PerfRecord startReport(uint32_t trigger, const char* type, double interval, double originSize) {
    PerfRecord report(kReportEvent);
    report.setDimension("trigger", cleanupTriggerName(trigger));
    report.setDimension("type", type);
    report.setDimension("coreVersion", Cleanup::kReportCoreVersion);
    report.setMeasure("interval", interval);
    report.setMeasure("originDiskSize", originSize);
    return report;
}

void fill(PerfRecord& report, const CleanupCounts& c, uint64_t sizeLimit) {
    report.setMeasure("sizeLimit", static_cast<double>(sizeLimit));
    report.setMeasure("packCount", c.packCount);
    report.setMeasure("installedSize", c.installedSize);
    report.setMeasure("longTermPackCount", c.longTermPackCount);
    report.setMeasure("longTermSize", c.longTermSize);
    report.setMeasure("accessCount", c.accessCount);
    report.setMeasure("installedPackCount", c.installedPackCount);
    report.setMeasure("accessedPackCount", c.accessedPackCount);
    report.setMeasure("eliminatedPackCount", c.eliminatedPackCount);
    report.setMeasure("eliminatedAccessCount", c.eliminatedAccessCount);
    report.setMeasure("eliminatedSize", c.eliminatedSize);
}

// The report as one field of the "cleanup" log entry.
JSON reportJson(const PerfRecord& report) {
    JSON out = JSON(MarlLogger::json::JSONObject());
    for (const auto& [key, value] : report.dimensions())
        if (key != "sessionID") out.set(key, JSON(value));
    for (const auto& [key, value] : report.measures()) out.set(key, JSON(value));
    return out;
}

uint64_t packsStoreSize() {
    return PacksStore::instance().diskSize();
}
uint64_t appsSize() {
    return Folder::disk(kAppsFolder).diskSize();
}

std::vector<std::string> recoverWith(const FConfig& config) {
    const double start = MRLCurrentClock();
    std::unordered_set<Folder> owned(kOwnedBuckets);
    for (const auto& [name, pack] : config.packs())
        if (pack->isInstalled()) owned.insert(pack->installedFolder());
    const std::function<bool(std::string_view)> busy = busyPacks();
    auto isBusy = [&](std::string_view rootName) { return busy && busy(rootName); };

    std::vector<std::string> invalidPaths;
    PacksStore::instance().removeInvalid(
        [&](std::string_view part) {
            if (isBusy(part.substr(0, part.find('/')))) return true;
            return owned.count(Folder::packed(part)) != 0;
        },
        invalidPaths);

    for (const Folder& packFolder : Folder::disk(kAppsFolder).listChildren()) {
        std::string rootName = packFolder.baseName();
        if (!rootName.empty() && rootName.back() == '/') rootName.pop_back();
        if (isBusy(rootName)) continue;
        bool holdsValid = false;
        for (const Folder& sequence : packFolder.listChildren()) {
            if (owned.count(sequence) != 0) {
                holdsValid = true;
                continue;
            }
            invalidPaths.push_back(sequence.describe());
            Folder::removeFile(sequence, Removal::kGone);
        }
        if (!holdsValid) {
            invalidPaths.push_back(packFolder.describe());
            Folder::removeFile(packFolder, Removal::kGone);
        }
    }
    // The log has always left out the last path; the path itself is gone like the others.
    if (!invalidPaths.empty()) invalidPaths.pop_back();
    MarlLogger::LogBuilder(MarlLogger::MRLLevelInfo, LogTag::kTask)
        .event("recovery")
        .append("time", MRLCurrentClock() - start)
        .append("invalidPaths", invalidPaths);
    return invalidPaths;
}

// Takes the plan's decisions into the configuration in one transaction: recovered packs are
// normal again, cleaned ones eliminated; then the cleaned packs' folders go.
void applyPlan(const CleanupResult& result) {
    if (!result.recovered.empty() || !result.cleaned.empty()) {
        SCache::mutate([&](FConfig& document) {
            for (const std::string& name : result.recovered) {
                PackPtr pack = document.find(name);
                if (pack && pack->status == kPackStatusEliminated)
                    document.setStatus(name, kPackStatusNormal);
            }
            for (const PackPtr& pack : result.cleaned)
                document.setStatus(pack->name, kPackStatusEliminated);
        });
    }
    for (const PackPtr& pack : result.cleaned)
        Folder::removeFile(pack->installedFolder(), Removal::kGone);
}

}  // namespace

const char* cleanupTriggerName(uint32_t trigger) {
    switch (trigger) {
        case kCleanupRegular:
            return "Regular";
        case kCleanupDebugTool:
            return "DebugTool";
        case kCleanupFerrit:
            return "Ferrit";
        case kCleanupACache:
            return "ACache";
        case kCleanupManual:
            return "Manual";
        default:
            return "Unknown";
    }
}

bool Cleanup::ranksBelow(const CleanupCandidate& x, const CleanupCandidate& y) {
    return below(x, y);
}

bool Cleanup::isLongTerm(const Pack& pack) {
    if (pack.subType != kSubTypePlain) return false;
    const uint32_t p = pack.priority();
    return p > kLongTermPriorityAbove || p == kPriorityResident ||
           pack.packType() == kPackTypeSCache;
}

double Cleanup::evictionScore(const Pack& pack, double accessValue) {
    const double p = pack.priority();
    double score =
        std::fma(std::fma(p, kPriorityAccessWeight, 1.0), accessValue, p * kPriorityWeight);
    if (pack.priority() >= kPriorityStartup) score += kStartupScoreBonus;
    return score;
}

uint64_t Cleanup::ferritSizeLimit(const Settings& settings) {
    return limitOf(settings.ferritSizeLimitOpt, settings.ferritSizeLimit);
}

uint64_t Cleanup::acacheSizeLimit(const Settings& settings) {
    return limitOf(settings.acacheSizeLimitOpt, settings.acacheSizeLimit);
}

void Cleanup::scheduleCleanup(double intervalMs) {
    State& s = state();
    MutexLock lock(s.mutex);
    if (s.timer) {
        s.timer->setInterval(intervalMs);
        return;
    }
    s.timer = TaskRunner::postRepeating(regularRun, intervalMs, kTimerMark);
}

void Cleanup::setBusyPacks(std::function<bool(std::string_view rootName)> busy) {
    MutexLock lock(state().mutex);
    state().busy = std::move(busy);
}

void Cleanup::regularRun() {
    assertOnWorker();
    // Cleanup deletes and compacts: it waits, as updating does, until writing works again.
    if (!Store::resumeWriting()) return;
    static_cast<void>(runCleanup(kCleanupRegular));
    Cache::instance().sync();
    ConfigStore::instance().compact();
}

void Cleanup::fillPackSizes() {
    const FConfigPtr config = SCache::current();
    std::unordered_map<std::string, uint64_t> sizes;
    for (const auto& [name, pack] : config->packs()) {
        if (!pack->isInstalled() || pack->installedSize != 0) continue;
        // Fixed-sequence preset copies share their folder with the built-in pack.
        if (pack->packType() == kPackTypeSCache && pack->subType != kSubTypePlain) continue;
        sizes.emplace(name, pack->installedFolder().diskSize());
    }
    if (sizes.empty()) return;
    SCache::mutate([&](FConfig& document) {
        for (const auto& [name, size] : sizes) {
            PackPtr old = document.find(name);
            if (!old || old->installedSize != 0 || size == 0) continue;
            auto pack = old->clone();
            pack->installedSize = size;
            document.put(std::move(pack));
        }
    });
}

CleanupPlan Cleanup::plan(const FConfig& config, uint64_t ferritLimit, uint64_t acacheLimit) {
    CleanupPlan plan;
    std::vector<Candidate> ordinary;
    std::vector<Candidate> acache;
    ordinary.reserve(config.packs().size());
    for (const auto& [name, pack] : config.packs()) {
        Candidate c;
        c.pack = pack;
        c.access = Statistics::accessValue(pack->name);
        c.size = pack->installedSize;
        c.installed = pack->isInstalled();
        c.longTerm = isLongTerm(*pack);
        c.eliminated = pack->status == kPackStatusEliminated;
        c.score = evictionScore(*pack, c.access);
        const bool candidate = c.eliminated || (c.installed && !c.longTerm);
        const bool app = isACache(*pack);
        count(app ? plan.acache : plan.ferrit, c);
        if (candidate) (app ? acache : ordinary).push_back(std::move(c));
    }
    plan.ferritCandidates = ordinary.size();
    plan.acacheCandidates = acache.size();
    select(ordinary, ferritLimit, plan.result, plan.ferrit);
    // Eliminated acache packs are counted in the ordinary report: the reports have always done so.
    select(acache, acacheLimit, plan.result, plan.ferrit);
    return plan;
}

std::vector<PackPtr> Cleanup::runCleanup(uint32_t trigger) {
    assertOnWorker();
    const std::shared_ptr<const Settings> settings = Settings::current();
    if (!settings->cleanupEnabledValue()) return {};
    if (!StorageState::writable()) return {};
    const double now = MRLCurrentTime();
    const std::shared_ptr<RepeatingTimer> repeating = timer();
    const double lastRun = repeating ? repeating->lastRunTime() : 0.0;
    // An explicit run postpones the regular one.
    if (trigger != kCleanupRegular && repeating) repeating->setLastRunTime(now);
    const double interval = lastRun > 0 ? now - lastRun : 0.0;

    fillPackSizes();

    const double start = MRLCurrentClock();
    Statistics::decay();
    PerfRecord ferritReport =
        startReport(trigger, kReportFerrit, interval, static_cast<double>(packsStoreSize()));
    PerfRecord acacheReport =
        startReport(trigger, kReportACache, interval, static_cast<double>(appsSize()));

    const FConfigPtr config = SCache::current();
    const uint64_t ferritLimit = ferritSizeLimit(*settings);
    const uint64_t acacheLimit = acacheSizeLimit(*settings);
    CleanupPlan planned = plan(*config, ferritLimit, acacheLimit);
    fill(ferritReport, planned.ferrit, ferritLimit);
    // The ordinary limit, not the acache one: the report has always named it so.
    fill(acacheReport, planned.acache, ferritLimit);
    CleanupResult& result = planned.result;

    applyPlan(result);
    recoverWith(*SCache::current());
    PacksStore::instance().compact();

    std::vector<std::string> cleanedNames;
    cleanedNames.reserve(result.cleaned.size());
    for (const PackPtr& pack : result.cleaned) cleanedNames.push_back(pack->name);
    MarlLogger::LogBuilder log(MarlLogger::MRLLevelInfo, LogTag::kTask);
    log.event("cleanup")
        .append("trigger", cleanupTriggerName(trigger))
        .append("time", MRLCurrentClock() - start)
        .append("recovered", result.recovered)
        .append("cleaned", cleanedNames);
    // What counts is whether a class had candidates, not whether anything went.
    if (planned.ferritCandidates != 0) {
        ferritReport.setMeasure("diskSize", static_cast<double>(packsStoreSize()));
        sendEvent(ferritReport);
        log.append("ferrit", reportJson(ferritReport));
    }
    if (planned.acacheCandidates != 0) {
        acacheReport.setMeasure("diskSize", static_cast<double>(appsSize()));
        sendEvent(acacheReport);
        log.append("acache", reportJson(acacheReport));
    }
    return std::move(result.cleaned);
}

std::vector<std::string> Cleanup::recover() {
    assertOnWorker();
    return recoverWith(*SCache::current());
}

void Cleanup::recoverLeftovers() {
    assertOnWorker();
    if (!Environment::instance().isMainProcess()) return;
    // Nothing is removed from a root that cannot be written: what is there keeps serving.
    if (!StorageState::writable()) return;
    const FConfigPtr config = SCache::current();
    if (config->packs().empty()) return;
    recoverWith(*config);
}

uint64_t Cleanup::roomFor(const Pack& pack, UpdateTrigger updateTrigger, uint64_t& limit,
                          const char*& limitName) {
    const bool app = isACache(pack);
    const std::shared_ptr<const Settings> settings = Settings::current();
    limit = app ? acacheSizeLimit(*settings) : ferritSizeLimit(*settings);
    limitName = app ? "acacheSizeLimit" : "ferritSizeLimit";
    if (updateTrigger == kTriggerPreview || updateTrigger == kTriggerDebugTool || isLongTerm(pack))
        return limit;
    fillPackSizes();
    uint64_t total = 0;
    const FConfigPtr config = SCache::current();
    for (const auto& [name, other] : config->packs()) {
        if (name == pack.name) continue;
        if (other->isInstalled() && !isLongTerm(*other) && isACache(*other) == app)
            total += other->installedSize;
    }
    return total >= limit ? 0 : limit - total;
}

bool Cleanup::mayInstall(const Pack& pack, UpdateTrigger updateTrigger) {
    if (pack.isInstalled()) return true;
    if (updateTrigger == kTriggerPreview || updateTrigger == kTriggerDebugTool || isLongTerm(pack))
        return true;
    fillPackSizes();
    const bool app = isACache(pack);
    const std::shared_ptr<const Settings> settings = Settings::current();
    const uint64_t limit = app ? acacheSizeLimit(*settings) : ferritSizeLimit(*settings);
    uint64_t total = 0;
    const FConfigPtr config = SCache::current();
    for (const auto& [name, other] : config->packs()) {
        if (other->isInstalled() && !isLongTerm(*other) && isACache(*other) == app)
            total += other->installedSize;
    }
    const bool fits = total < limit;
    // A read is waiting for this pack ("Visit" or "VisitUpdate"): others make room for it.
    const bool visit = updateTrigger == kTriggerVisit || updateTrigger == kTriggerVisitUpdate;
    MarlLogger::LogBuilder(MarlLogger::MRLLevelInfo, LogTag::kTask)
        .event("mayInstall")
        .append("name", pack.name)
        .append("trigger", triggerName(updateTrigger))
        .append("total", total)
        .append("limit", limit)
        .append("fits", fits);
    if (fits) return true;
    if (!visit) return false;
    static_cast<void>(runCleanup(app ? kCleanupACache : kCleanupFerrit));
    return true;
}

}  // namespace FerritCore
