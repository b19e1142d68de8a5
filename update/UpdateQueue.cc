#include "update/UpdateQueue.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <set>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "access/Matcher.h"
#include "base/Environment.h"
#include "base/Errors.h"
#include "base/LogTags.h"
#include "base/ProcessState.h"
#include "base/Proxy.h"
#include "base/StorageState.h"
#include "base/Telemetry.h"
#include "base/Url.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "model/SCache.h"
#include "runtime/Network.h"
#include "runtime/Settings.h"
#include "runtime/TaskRunner.h"
#include "runtime/WorkerCheck.h"
#include "storage/PacksStore.h"
#include "storage/Statistics.h"
#include "storage/Store.h"
#include "storage/Variants.h"
#include "support/Mutex.h"

namespace FerritCore {
namespace {

// Joins a pack name and a variant value: "name~value".
constexpr char kVariantSeparator = '~';

// The heap's order: a task comes after another when its score is lower.
bool lowerScore(const UpdatePackPtr& a, const UpdatePackPtr& b) {
    return a->score() < b->score();
}

struct Running {
    UpdatePackPtr task;
    bool fromFast = false;
    // Its completion came and its removal is posted: a new request must not wait for it.
    bool finished = false;
};

// One run of the queue, from the first announce to the moment nothing is left.
struct Run {
    PerfRecord record{"Ferrit.UpdateQueue"};
    std::string id;
    double start = 0;
    uint32_t fastCount = 0;
    uint32_t fastSuccessCount = 0;
    uint32_t normalCount = 0;
    uint32_t normalSuccessCount = 0;
};

struct State {
    RecursiveMutex lock;
    std::shared_ptr<UpdatePackFactory> factory GUARDED_BY(lock);
    std::vector<UpdatePackPtr> normal GUARDED_BY(lock);
    // The names in `normal`, so that a merge looks for a duplicate only when there is one.
    std::unordered_set<std::string> normalNames GUARDED_BY(lock);
    std::vector<UpdatePackPtr> fast GUARDED_BY(lock);
    std::vector<Running> running GUARDED_BY(lock);
    std::unordered_map<std::string, uint32_t> busyPacks GUARDED_BY(lock);
    std::optional<Run> perf GUARDED_BY(lock);
    bool paused GUARDED_BY(lock) = false;
};

State& state() {
    static State* const instance = ProcessState::create<State>([](State& s) {
        RecursiveLock lock(s.lock);
        s.factory.reset();
        s.normal.clear();
        s.normalNames.clear();
        s.fast.clear();
        s.running.clear();
        s.busyPacks.clear();
        s.perf.reset();
        s.paused = false;
    });
    return *instance;
}

std::shared_ptr<UpdatePackFactory> currentFactory() {
    State& s = state();
    RecursiveLock lock(s.lock);
    if (!s.factory) s.factory = std::make_shared<UpdatePackFactory>();
    return s.factory;
}

// What merge() did with a task.
struct Merged {
    UpdatePackPtr survivor;
    // The survivor is running and has already ended.
    bool finished = false;
    // The survivor is running an older version than the task wants: its outcome does not answer
    // the task, which is added again once the survivor has ended.
    bool behind = false;
};

void completed(const std::string& name, const Error& error);

// The queue learns of a task's end before anyone else does, so that a caller that asks again from
// its own listener starts a new task instead of waiting for the one that just ended.
void watch(const UpdatePackPtr& task) {
    task->addListener([name = task->name()](const Error& error) { completed(name, error); });
}

Merged merge(State& s, const UpdatePackPtr& task, bool isFast) REQUIRES(s.lock) {
    s.lock.assertHeld();
    const std::string& name = task->name();
    for (const Running& running : s.running) {
        if (running.task->name() != name) continue;
        const bool behind = !running.finished && running.task->targetSeq() < task->targetSeq();
        return {running.task, running.finished, behind};
    }
    auto inFast = std::find_if(s.fast.begin(), s.fast.end(),
                               [&](const UpdatePackPtr& queued) { return queued->name() == name; });
    UpdatePackPtr fromNormal;
    if (s.normalNames.count(name) != 0) {
        auto it = std::find_if(s.normal.begin(), s.normal.end(),
                               [&](const UpdatePackPtr& queued) { return queued->name() == name; });
        if (it != s.normal.end() && inFast == s.fast.end()) {
            fromNormal = *it;
            s.normal.erase(it);
            std::make_heap(s.normal.begin(), s.normal.end(), lowerScore);
            s.normalNames.erase(name);
        }
    }
    if (inFast != s.fast.end()) {
        UpdatePackPtr survivor = *inFast;
        survivor->absorb(*task);
        if (isFast) {
            // To the top of the stack.
            s.fast.erase(inFast);
            s.fast.push_back(survivor);
        }
        return {survivor, false};
    }
    if (fromNormal) {
        fromNormal->absorb(*task);
        if (isFast) {
            s.fast.push_back(fromNormal);
        } else {
            s.normal.push_back(fromNormal);
            std::push_heap(s.normal.begin(), s.normal.end(), lowerScore);
            s.normalNames.insert(name);
        }
        return {fromNormal, false};
    }
    watch(task);
    if (isFast) {
        s.fast.push_back(task);
    } else {
        s.normal.push_back(task);
        std::push_heap(s.normal.begin(), s.normal.end(), lowerScore);
        s.normalNames.insert(name);
    }
    return {task, false};
}

// Adds `task` again once `running`, which installs an older version, has ended. Posted, so that
// the queue's own completion (the first listener) has marked the end, and the request takes the
// path of one made after it.
void addAfter(const UpdatePackPtr& running, UpdatePackPtr task, UpdateQueue::Listener listener) {
    running->addListener([task = std::move(task), listener = std::move(listener)](const Error&) {
        TaskRunner::post(
            [task, listener]() mutable { UpdateQueue::add(std::move(task), std::move(listener)); });
    });
}

// Opens the run's record or notes one more addition, and lets the queue run.
void announce(State& s, size_t count, UpdateTrigger trigger, size_t limit) REQUIRES(s.lock) {
    s.lock.assertHeld();
    const char* event = "add";
    if (!s.perf) {
        s.perf.emplace();
        s.perf->id = MRLGenerateID(TracePrefix::kQueue);
        s.perf->start = MRLCurrentClock();
        s.perf->record.setDimension("trigger", triggerName(trigger));
        event = "start";
    }
    MarlLogger::LogBuilder(MarlLogger::MRLLevelInfo, LogTag::kQueue)
        .event(event)
        .id(s.perf->id)
        .append("count", static_cast<uint64_t>(count))
        .append("limit", static_cast<uint64_t>(limit))
        .append("trigger", triggerName(trigger));
    TaskRunner::post([] { UpdateQueue::next(); });
}

void logNotRunnable(const UpdatePack& task) {
    MarlLogger::LogBuilder log(
        task.error() ? MarlLogger::MRLLevelWarning : MarlLogger::MRLLevelDebug,
        LogTag::kUpdatePack);
    if (!log.active()) return;
    log.event("finished", task.parentId())
        .append("name", task.name())
        .append("oldSeq", task.pack() ? task.pack()->installedSeq : 0)
        .append("status", updateStateName(task.state()));
    if (task.error()) log.error(task.error());
}

// Whether `task` waits only because the host's network status is none.
bool waitsForNetwork(const UpdatePack& task) {
    return !task.runnable() && Errors::isNetworkNotSupported(task.error()) &&
           Environment::instance().networkStatus() == NetworkStatus::kNone;
}

// Said once per trigger, at the level a host reads by default: a host that never set its network
// status sees a first install work (a visit needs no network check) and then nothing update.
void logWaitingForNetwork(UpdateTrigger trigger, size_t count) {
    MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, LogTag::kQueue)
        .event("waitingForNetwork")
        .append("trigger", triggerName(trigger))
        .append("packs", static_cast<uint64_t>(count))
        .append("message",
                "no pack downloads while the host's network status is none: the host sets it "
                "with setNetworkStatusNative (1 unrestricted, 2 slow mobile, 3 fast mobile)");
}

// Closes the run: the host learns how many tasks ended, and the record goes out when it counted
// anything.
void closeRun(State& s) REQUIRES(s.lock) {
    s.lock.assertHeld();
    const uint32_t fastCount = s.perf ? s.perf->fastCount : 0;
    const uint32_t normalCount = s.perf ? s.perf->normalCount : 0;
    ProxyCalls::onQueueFinished(fastCount + normalCount);
    if (!s.perf) return;
    Run& run = *s.perf;
    const double time = MRLCurrentClock() - run.start;
    run.record.setMeasure("time", time);
    MarlLogger::LogBuilder(MarlLogger::MRLLevelInfo, LogTag::kQueue)
        .event("finished")
        .id(run.id)
        .append("fastSuccess", static_cast<uint64_t>(run.fastSuccessCount))
        .append("fast", static_cast<uint64_t>(run.fastCount))
        .append("normalSuccess", static_cast<uint64_t>(run.normalSuccessCount))
        .append("normal", static_cast<uint64_t>(run.normalCount))
        .append("time", time);
    if (run.fastCount + run.fastSuccessCount + run.normalCount + run.normalSuccessCount > 0) {
        run.record.setMeasure("fastCount", run.fastCount);
        run.record.setMeasure("fastSuccessCount", run.fastSuccessCount);
        run.record.setMeasure("normalCount", run.normalCount);
        run.record.setMeasure("normalSuccessCount", run.normalSuccessCount);
        sendEvent(run.record);
        s.perf.reset();
    }
}

bool isBusy(State& s, const std::string& name) REQUIRES(s.lock) {
    s.lock.assertHeld();
    return s.busyPacks.count(name) != 0;
}

// The fast task that may start now, taken off the stack; null when none may.
UpdatePackPtr popFast(State& s) REQUIRES(s.lock) {
    s.lock.assertHeld();
    while (!s.fast.empty() && isBusy(s, s.fast.back()->name())) s.fast.pop_back();
    if (s.fast.empty()) return nullptr;
    const UpdatePackPtr& top = s.fast.back();
    bool fastRunning = false;
    bool allConcurrent = true;
    for (const Running& running : s.running) {
        if (!running.fromFast) continue;
        fastRunning = true;
        allConcurrent = allConcurrent && running.task->concurrent();
    }
    if (fastRunning && !(top->concurrent() && allConcurrent)) return nullptr;
    UpdatePackPtr task = top;
    s.fast.pop_back();
    return task;
}

UpdatePackPtr popNormal(State& s) REQUIRES(s.lock) {
    s.lock.assertHeld();
    while (!s.normal.empty()) {
        std::pop_heap(s.normal.begin(), s.normal.end(), lowerScore);
        UpdatePackPtr task = std::move(s.normal.back());
        s.normal.pop_back();
        s.normalNames.erase(task->name());
        if (!isBusy(s, task->name())) return task;
    }
    return nullptr;
}

void completed(const std::string& name, const Error& error) {
    {
        State& s = state();
        RecursiveLock lock(s.lock);
        bool fromFast = false;
        bool found = false;
        for (Running& running : s.running) {
            if (running.task->name() != name || running.finished) continue;
            running.finished = true;
            fromFast = running.fromFast;
            found = true;
        }
        if (found && s.perf) {
            (fromFast ? s.perf->fastCount : s.perf->normalCount) += 1;
            if (!error) (fromFast ? s.perf->fastSuccessCount : s.perf->normalSuccessCount) += 1;
        }
    }
    // Posted, so that a completion never recurses into the next start.
    TaskRunner::post([name] {
        {
            State& s = state();
            RecursiveLock lock(s.lock);
            std::erase_if(s.running,
                          [&](const Running& running) { return running.task->name() == name; });
        }
        UpdateQueue::next();
    });
}

UpdatePackPtr makeTask(UpdatePackFactory& factory, const std::string& name, UpdateTrigger trigger) {
    const size_t at = name.rfind('@');
    if (at != std::string::npos && at > 0 && !SCache::current()->find(name)) {
        uint64_t seq = 0;
        const char* begin = name.data() + at + 1;
        const char* end = name.data() + name.size();
        const auto parsed = std::from_chars(begin, end, seq);
        if (parsed.ec == std::errc() && parsed.ptr == end && seq != 0)
            return factory.createSeq(name.substr(0, at), seq);
    }
    return factory.create(name, MarlLogger::json::JSON(), trigger);
}

}  // namespace

UpdatePackPtr UpdatePackFactory::create(const std::string& name, const MarlLogger::json::JSON& info,
                                        UpdateTrigger trigger) {
    return UpdatePack::create(name, info, trigger);
}

UpdatePackPtr UpdatePackFactory::createSeq(const std::string& name, uint64_t seq) {
    return UpdatePack::createSeq(name, seq);
}

std::shared_ptr<UpdatePackFactory> UpdateQueue::factory() {
    return currentFactory();
}

void UpdateQueue::setFactory(std::shared_ptr<UpdatePackFactory> factory) {
    State& s = state();
    RecursiveLock lock(s.lock);
    s.factory = std::move(factory);
}

void UpdateQueue::start(UpdateTrigger trigger) {
    if (!Environment::instance().isMainProcess()) {
        MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, LogTag::kQueue)
            .event("start")
            .append("trigger", triggerName(trigger))
            .error(Errors::subProcessUpdateDisabled());
        return;
    }
    if (!Store::resumeWriting()) {
        MarlLogger::LogBuilder(MarlLogger::MRLLevelDebug, LogTag::kQueue)
            .event("paused")
            .append("trigger", triggerName(trigger))
            .append("storage", StorageState::describe());
        return;
    }
    const auto settings = Settings::current();
    const size_t limit = trigger == kTriggerStartup ? settings->startupDownloadLimitValue()
                                                    : settings->downloadLimitValue();
    // Decided on what is stored, so that nothing another process installed is fetched again.
    SCache::refresh();
    const FConfigPtr config = SCache::current();
    const std::shared_ptr<UpdatePackFactory> factory = currentFactory();
    std::vector<UpdatePackPtr> kept;
    kept.reserve(config->packs().size());
    size_t waiting = 0;
    for (const auto& entry : config->packs()) {
        UpdatePackPtr task = factory->create(entry.first, MarlLogger::json::JSON(), trigger);
        if (task && task->runnable()) {
            kept.push_back(std::move(task));
        } else if (task && waitsForNetwork(*task)) {
            ++waiting;
        }
    }
    if (waiting > 0) logWaitingForNetwork(trigger, waiting);
    State& s = state();
    RecursiveLock lock(s.lock);
    for (const UpdatePackPtr& task : kept) {
        const Merged merged = merge(s, task, /*isFast=*/false);
        if (merged.behind) addAfter(merged.survivor, task, {});
    }
    if (s.normal.size() > limit) {
        // The best `limit` to the front in one pass; what falls off comes back at the next run.
        std::nth_element(
            s.normal.begin(), s.normal.begin() + static_cast<ptrdiff_t>(limit), s.normal.end(),
            [](const UpdatePackPtr& a, const UpdatePackPtr& b) { return a->score() > b->score(); });
        for (size_t i = limit; i < s.normal.size(); ++i) s.normalNames.erase(s.normal[i]->name());
        s.normal.resize(limit);
        std::make_heap(s.normal.begin(), s.normal.end(), lowerScore);
    }
    announce(s, kept.size(), trigger, limit);
}

void UpdateQueue::add(UpdatePackPtr task, Listener listener) {
    if (!task) return;
    // A request is a trigger too: it resumes writing when it works again, and otherwise is
    // refused with the reason, since an install could not be kept.
    if (!Store::resumeWriting()) {
        const Error error =
            Errors::storageWritePaused(PacksStore::kName, task->name(), StorageState::describe());
        MarlLogger::LogBuilder(MarlLogger::MRLLevelDebug, LogTag::kQueue)
            .event("paused")
            .append("name", task->name())
            .append("trigger", triggerName(task->trigger()))
            .error(error);
        if (listener) listener(error);
        return;
    }
    if (task->state() != UpdateState::NeedUpdate) {
        logNotRunnable(*task);
        if (waitsForNetwork(*task)) logWaitingForNetwork(task->trigger(), 1);
        if (listener) listener(task->error());
        return;
    }
    Merged merged;
    {
        State& s = state();
        RecursiveLock lock(s.lock);
        merged = merge(s, task, task->policy().fast);
        if (merged.behind) {
            addAfter(merged.survivor, std::move(task), std::move(listener));
            return;
        }
        if (!merged.finished) {
            if (listener) merged.survivor->addListener(std::move(listener));
            announce(s, 1, task->trigger(), 0);
            return;
        }
    }
    // The task of that name has just ended: this request starts afresh once it is gone.
    TaskRunner::post([task = std::move(task), listener = std::move(listener)]() mutable {
        UpdateQueue::add(std::move(task), std::move(listener));
    });
}

void UpdateQueue::request(const std::string& name, UpdateTrigger trigger, Listener listener) {
    if (!Environment::instance().isMainProcess()) {
        const Error error = Errors::subProcessUpdateDisabled();
        MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, LogTag::kQueue)
            .event("request")
            .append("name", name)
            .append("trigger", triggerName(trigger))
            .error(error);
        if (listener) listener(error);
        return;
    }
    SCache::refresh();
    UpdatePackPtr task = makeTask(*currentFactory(), name, trigger);
    add(std::move(task), std::move(listener));
}

void UpdateQueue::setPaused(bool paused) {
    State& s = state();
    RecursiveLock lock(s.lock);
    const bool wasPaused = s.paused;
    s.paused = paused;
    MarlLogger::LogBuilder(MarlLogger::MRLLevelDebug, LogTag::kQueue)
        .event(paused ? "pause" : "resume");
    if (wasPaused && !paused) TaskRunner::post([] { UpdateQueue::next(); });
}

bool UpdateQueue::paused() {
    State& s = state();
    RecursiveLock lock(s.lock);
    return s.paused;
}

void UpdateQueue::holdPack(const std::string& name) {
    State& s = state();
    RecursiveLock lock(s.lock);
    ++s.busyPacks[name];
}

void UpdateQueue::releasePack(const std::string& name) {
    State& s = state();
    RecursiveLock lock(s.lock);
    auto it = s.busyPacks.find(name);
    if (it == s.busyPacks.end()) return;
    if (--it->second == 0) s.busyPacks.erase(it);
}

bool UpdateQueue::isHeld(const std::string& name) {
    State& s = state();
    RecursiveLock lock(s.lock);
    return isBusy(s, name);
}

bool UpdateQueue::isInUse(std::string_view rootName) {
    State& s = state();
    RecursiveLock lock(s.lock);
    if (isBusy(s, std::string(rootName))) return true;
    for (const Running& running : s.running) {
        const PackPtr& pack = running.task->pack();
        if (running.task->name() == rootName || (pack && pack->rootView() == rootName)) return true;
    }
    return false;
}

void UpdateQueue::next() {
    assertOnWorker();
    State& s = state();
    UpdatePackPtr task;
    bool fromFast = false;
    {
        RecursiveLock lock(s.lock);
        if (s.paused) return;
        task = popFast(s);
        fromFast = task != nullptr;
        if (!task) {
            // Normal tasks run one at a time, and only while nothing else runs.
            if (!s.running.empty()) return;
            task = popNormal(s);
        }
        if (!task) {
            closeRun(s);
            return;
        }
        s.running.push_back({task, fromFast, false});
        // Another fast task may be allowed to run beside this one (concurrent visits).
        if (fromFast && !s.fast.empty()) TaskRunner::post([] { UpdateQueue::next(); });
    }
    task->start();
}

namespace {

// The result of one item that names no pack.
MarlLogger::json::JSON notFerritResult() {
    MarlLogger::json::JSONObject result;
    result.set("status", "notFerritResource");
    return MarlLogger::json::JSON(std::move(result));
}

// One pack of a prefetch: credits it, queues its task, and tells where it stands.
MarlLogger::json::JSON prefetchPack(const std::string& name, const std::string& runId,
                                    UpdatePackFactory& factory, size_t& count) {
    Statistics::addPrefetch(name);
    UpdatePackPtr task = factory.create(name, MarlLogger::json::JSON(), kTriggerPrefetch);
    task->setParentId(runId);
    UpdateState stateNow = task->state();
    Error error = task->error();
    uint64_t oldSeq = task->pack() ? task->pack()->installedSeq : 0;
    if (stateNow == UpdateState::NeedUpdate) {
        State& s = state();
        RecursiveLock lock(s.lock);
        const Merged merged = merge(s, task, task->policy().fast);
        const UpdatePackPtr& survivor = merged.survivor;
        oldSeq = survivor->pack() ? survivor->pack()->installedSeq : 0;
        if (merged.behind) addAfter(survivor, task, {});
        if (merged.finished) {
            stateNow = UpdateState::UpdateFinished;
        } else if (survivor != task) {
            // Still queued or running: this request waits for it.
            stateNow = UpdateState::NeedUpdate;
            error.clear();
        } else {
            error.clear();
        }
        if (stateNow != UpdateState::UpdateFinished) ++count;
    }
    MarlLogger::json::JSONObject result;
    result.set("packName", name);
    result.set("status", updateStateName(stateNow));
    result.set("oldSeq", oldSeq);
    if (error) {
        result.set("errorCode", static_cast<int64_t>(error.code()));
        result.set("errorMessage", error.message());
    }
    return MarlLogger::json::JSON(std::move(result));
}

}  // namespace

MarlLogger::json::JSON UpdateQueue::prefetch(const std::vector<std::string>& items) {
    MarlLogger::json::JSONObject results;
    if (!Environment::instance().isMainProcess()) {
        for (const std::string& item : items) results.set(item, MarlLogger::json::JSONObject());
        MarlLogger::json::JSON logged(std::move(results));
        MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, LogTag::kPrefetch)
            .event("trigger")
            .append("result", logged)
            .error(Errors::subProcessUpdateDisabled());
        return logged;
    }
    const FConfigPtr config = SCache::current();
    const auto settings = Settings::current();
    const std::set<std::string> variants = Variants::instance().list();
    const std::string runId = MRLGenerateID(TracePrefix::kPrefetch);
    const std::shared_ptr<UpdatePackFactory> factory = currentFactory();
    size_t count = 0;
    for (const std::string& item : items) {
        MarlLogger::json::JSONArray found;
        if (item.find('/') != std::string::npos) {
            const std::string k = Url::key(item);
            if (PackPtr pack = packByUrl(*config, *settings, k))
                found.push_back(prefetchPack(pack->appName(), runId, *factory, count));
            const std::string_view byPrefix = config->prefixTree().lookup(k, std::string_view());
            if (PackPtr pack = byPrefix.empty() ? nullptr : config->find(byPrefix))
                found.push_back(prefetchPack(pack->appName(), runId, *factory, count));
            if (found.empty()) found.push_back(notFerritResult());
        } else {
            std::string name = item;
            for (const std::string& value : variants) {
                std::string variant = item + kVariantSeparator + value;
                if (config->find(variant)) {
                    name = std::move(variant);
                    break;
                }
            }
            found.push_back(prefetchPack(name, runId, *factory, count));
        }
        results.set(item, found.size() == 1 ? std::move(found.front())
                                            : MarlLogger::json::JSON(std::move(found)));
    }
    MarlLogger::json::JSON logged(std::move(results));
    MarlLogger::LogBuilder(MarlLogger::MRLLevelInfo, LogTag::kPrefetch)
        .event("trigger")
        .id(runId)
        .append("result", logged);
    if (count > 0) {
        State& s = state();
        RecursiveLock lock(s.lock);
        announce(s, count, kTriggerPrefetch, 0);
    }
    return logged;
}

size_t UpdateQueue::runningCount() {
    State& s = state();
    RecursiveLock lock(s.lock);
    return s.running.size();
}

size_t UpdateQueue::normalCount() {
    State& s = state();
    RecursiveLock lock(s.lock);
    return s.normal.size();
}

size_t UpdateQueue::fastCount() {
    State& s = state();
    RecursiveLock lock(s.lock);
    return s.fast.size();
}

std::vector<std::string> UpdateQueue::normalNames() {
    std::vector<UpdatePackPtr> tasks;
    {
        State& s = state();
        RecursiveLock lock(s.lock);
        tasks = s.normal;
    }
    std::sort_heap(tasks.begin(), tasks.end(), lowerScore);
    std::vector<std::string> names;
    for (auto it = tasks.rbegin(); it != tasks.rend(); ++it) names.push_back((*it)->name());
    return names;
}

std::vector<std::string> UpdateQueue::fastNames() {
    State& s = state();
    RecursiveLock lock(s.lock);
    std::vector<std::string> names;
    for (auto it = s.fast.rbegin(); it != s.fast.rend(); ++it) names.push_back((*it)->name());
    return names;
}

}  // namespace FerritCore
