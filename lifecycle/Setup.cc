#include "lifecycle/Setup.h"

#include <sys/stat.h>

#include <atomic>
#include <cstdio>
#include <mutex>

#include "base/Environment.h"
#include "base/Errors.h"
#include "base/Folder.h"
#include "base/LogTags.h"
#include "base/ProcessState.h"
#include "base/Proxy.h"
#include "base/StorageState.h"
#include "base/Telemetry.h"
#include "base/Url.h"
#include "lifecycle/DevInspector.h"
#include "lifecycle/Services.h"
#include "marl/Clock.h"
#include "marl/Inspector.h"
#include "marl/Log.h"
#include "model/KeyTrust.h"
#include "model/SCache.h"
#include "runtime/Network.h"
#include "runtime/Settings.h"
#include "runtime/TaskRunner.h"
#include "runtime/WorkerCheck.h"
#include "storage/Cache.h"
#include "storage/ConfigStore.h"
#include "storage/PacksStore.h"
#include "storage/Statistics.h"
#include "support/Mutex.h"
#include "update/Cleanup.h"
#include "update/Push.h"
#include "update/UpdateConfig.h"
#include "update/UpdateQueue.h"

namespace FerritCore {
namespace {

using MarlLogger::json::JSON;

struct State {
    Mutex mutex;
    double lastCompaction GUARDED_BY(mutex) = 0;  // clock, 0 before the first
    std::shared_ptr<RepeatingTimer> queueTimer GUARDED_BY(mutex);
};

State& state() {
    static State* const instance = ProcessState::create<State>([](State& s) {
        MutexLock lock(s.mutex);
        s.lastCompaction = 0;
        s.queueTimer.reset();
        MarlLogger::Inspector::clear();
    });
    return *instance;
}

// The host's work pool runs its lifecycle calls in any order and may run two at once; each runs
// whole before the next starts, so that setup finds either no proxy (and is repeated) or the
// services, folders and stored configuration that setProxy puts in place, never half of them.
// Recursive: setup and the start of updating call one another. Never held by the worker's own
// steps, which run behind the flags that these calls set.
RecursiveMutex& lifecycleMutex() {
    static RecursiveMutex* const mutex = new RecursiveMutex();
    return *mutex;
}

std::string formatSession(const char* prefix, double since) {
    char buffer[64];
    std::snprintf(buffer, sizeof(buffer), "%s%f", prefix, since);
    return buffer;
}

void logSetup(MarlLogger::MRLLevel level, const char* event,
              std::initializer_list<std::pair<const char*, std::string>> fields = {}) {
    MarlLogger::LogBuilder log(level, LogTag::kSetup);
    log.event(event, Environment::instance().sessionName());
    for (const auto& [key, value] : fields) log.append(key, value);
}

// Push messages reach the push handling, which owns what a message means.
void onPushMessage(const std::string& topic, const std::string& message) {
    MarlLogger::LogBuilder(MarlLogger::MRLLevelInfo, LogTag::kPush)
        .event("message", Environment::instance().sessionName())
        .append("topic", topic)
        .append("size", static_cast<uint64_t>(message.size()));
    if (topic == "wpb.fconfig") {
        Push::onConfigPush({message});
    } else {
        Push::onPackConfigPush({message});
    }
}

}  // namespace

void Setup::setProxy(std::shared_ptr<Proxy> proxy, const std::string& rootPath,
                     const std::string& rawFileFolder) {
    RecursiveLock lifecycle(lifecycleMutex());
    Environment::instance().setProxy(proxy);
    if (!proxy) return;
    Services::wire();
    Services::attachAssets(rawFileFolder);
    if (rootPath.empty()) {
        MarlLogger::LogBuilder(MarlLogger::MRLLevelError, LogTag::kSetup)
            .event("initFolder")
            .error(Errors::createFolderFailed());
        // Nothing stored can be read: the empty document is the loaded one, so that a request
        // answers as a miss rather than as a start-up still under way.
        if (!SCache::loaded()) SCache::publish(std::make_shared<FConfig>());
        return;
    }
    initFolders(rootPath);
    UpdateConfig::loadAtStart();
}

void Setup::setup(const std::string& appKey, const std::string& appVersion, SetupMode mode) {
    RecursiveLock lifecycle(lifecycleMutex());
    Environment& environment = Environment::instance();
    // Stored on every call, before anything is checked, so that a later call can change them.
    const std::string key = Url::escape(appKey);
    const std::string version = Url::escape(appVersion);
    environment.setApp(key, version);
    environment.setReferer("Ferrit/" + std::string(kCoreVersion) + "_" + key + "/" + version);
    if (!environment.proxy()) return;

    const bool hostStartsUpdate = mode == SetupMode::kHostStartsUpdate;
    if (!environment.setFlag(kSetupDone)) {
        // A repeated setup can still hand the start of updating to the system.
        if (!hostStartsUpdate) {
            environment.setFlag(kAutoStartAllowed);
            if (environment.flags() & kConfigFirstUpdated) startUpdate();
        }
        return;
    }
    environment.setClientActive(true);
    environment.setSessionName(formatSession("Ferrit_MAIN_", environment.activeSince()));
    environment.setMainProcess(true);
    logSetup(MarlLogger::MRLLevelInfo, "setup",
             {{"process", "main"}, {"appKey", key}, {"appVersion", version}});
    // The first post is also what starts the worker.
    TaskRunner::post([] { logSetup(MarlLogger::MRLLevelInfo, "startThread"); }, 0);
    if (!hostStartsUpdate) environment.setFlag(kAutoStartAllowed);
    // Told before the first configuration update starts, whose end is the next change.
    ProxyCalls::onStateChanged();
    UpdateConfig::instance().startTimer();
    UpdateConfig::instance().start(
        kTriggerStartup, "0", [](const Error&) { configFirstUpdated(); }, 0);
    // The registry lives in marl, below the process-wide resets; this part's state carries its
    // reset, so it must exist before anything is registered.
    static_cast<void>(state());
    DevInspector::registerAgent();
    MarlLogger::Inspector::registerInfo("FerritInfo", "Ferrit/" + std::string(kCoreVersion));
    // Folders of earlier layouts, never recreated.
    for (const char* old : {"meta/", "storage/", "module/", "UniCache_T/"})
        Folder::removeFile(Folder::disk(old), Removal::kGone);
}

void Setup::setupSubProcess() {
    RecursiveLock lifecycle(lifecycleMutex());
    Environment& environment = Environment::instance();
    if (!environment.proxy() || (environment.flags() & kSetupDone)) return;
    logSetup(MarlLogger::MRLLevelInfo, "setup", {{"process", "sub"}});
    environment.setClientActive(true);
    environment.setSessionName(formatSession("Ferrit_SUB_", environment.activeSince()));
    environment.setMainProcess(false);
}

void Setup::reloadConfig() {
    RecursiveLock lifecycle(lifecycleMutex());
    if (Environment::instance().isMainProcess()) return;
    UpdateConfig::loadAtStart();
}

void Setup::configFirstUpdated() {
    assertOnWorker();
    Environment& environment = Environment::instance();
    const bool changed = environment.setFlag(kConfigFirstUpdated);
    logSetup(MarlLogger::MRLLevelInfo, "configFirstUpdated");
    // Told before the start of updating that may follow, so that the host hears the steps in turn.
    if (changed) ProxyCalls::onStateChanged();
    if (ProxyCalls::registerPushTopic(
            "wpb.fconfig", [](const std::string& m) { onPushMessage("wpb.fconfig", m); })) {
        ProxyCalls::registerPushTopic(
            "wpb.packconfig", [](const std::string& m) { onPushMessage("wpb.packconfig", m); });
        environment.setFeatureBit(kFeaturePushRegistered);
    }
    if (environment.flags() & kAutoStartAllowed) {
        startUpdate();
    } else {
        TaskRunner::post(autoStartUpdate, kAutoStartDelayMs);
    }
}

void Setup::autoStartUpdate() {
    assertOnWorker();
    if (Environment::instance().flags() & kUpdateStarted) return;
    logSetup(MarlLogger::MRLLevelError, "autoStartUpdate");
    startUpdate();
    PerfRecord record("Ferrit.Init");
    record.setError(Errors::startUpdateNotCalled());
    sendEvent(record);
}

void Setup::startUpdate() {
    RecursiveLock lifecycle(lifecycleMutex());
    Environment& environment = Environment::instance();
    if (!environment.setFlag(kUpdateStarted)) return;
    logSetup(MarlLogger::MRLLevelInfo, "startUpdate");
    // After an initial run the queue waits for its timer.
    if (!(environment.flags() & kInitialConfigFinished)) UpdateQueue::start(kTriggerStartup);
    compactDatabases();
    Cleanup::scheduleCleanup(kCleanupIntervalMs);
    // What a killed install left under "apps/" or in the packs store goes before anything reads.
    TaskRunner::post(Cleanup::recoverLeftovers);
    const double interval = UpdateConfig::checkInterval();
    auto timer = TaskRunner::postRepeating([] { UpdateQueue::start(kTriggerTimer); }, interval);
    // The first run falls two minutes from now, not one interval.
    timer->setLastRunTime(MRLCurrentTime() - interval + 120000.0);
    {
        MutexLock lock(state().mutex);
        state().queueTimer = std::move(timer);
    }
    ProxyCalls::onStateChanged();
}

void Setup::compactDatabases() {
    const double now = MRLCurrentClock();
    {
        MutexLock lock(state().mutex);
        if (state().lastCompaction != 0 && now - state().lastCompaction < kCompactionIntervalMs)
            return;
        state().lastCompaction = now;
    }
    PacksStore::instance().compact();
    ConfigStore::instance().compact();
    // The content cache churns most of all: every module and UniApp resource comes and goes.
    Cache::instance().compact();
    MarlLogger::LogBuilder(MarlLogger::MRLLevelDebug, LogTag::kSetup)
        .event("compactDatabases")
        .append("time", MRLCurrentClock() - now);
}

void Setup::clientActived() {
    RecursiveLock lifecycle(lifecycleMutex());
    Environment& environment = Environment::instance();
    if (environment.clientActive()) return;
    environment.setClientActive(true);
    UpdateQueue::setPaused(false);
    UpdateConfig::instance().start(kTriggerActive, "0", nullptr, 0);
    MarlLogger::LogBuilder(MarlLogger::MRLLevelInfo, LogTag::kEvent)
        .event("clientActived", environment.sessionName());
}

void Setup::clientDeactived() {
    RecursiveLock lifecycle(lifecycleMutex());
    const double start = MRLCurrentClock();
    UpdateQueue::setPaused(true);
    Environment::instance().setClientActive(false);
    // A host in the background may be ended without notice: counts still queued for the worker
    // are written before it gets there.
    Statistics::flush();
    compactDatabases();
    MarlLogger::LogBuilder(MarlLogger::MRLLevelInfo, LogTag::kEvent)
        .event("clientDeactived", Environment::instance().sessionName())
        .append("time", MRLCurrentClock() - start);
}

void Setup::setEnv(int32_t env) {
    Environment& environment = Environment::instance();
    if (environment.env() == env) return;
    environment.setEnvValue(env);
    // Before the first update, the new environment simply takes effect in that update.
    if (environment.flags() & kConfigFirstUpdated)
        UpdateConfig::instance().start(kTriggerChangeEnv, "0", nullptr, 0);
}

void Setup::setLocale(const std::string& locale) {
    Environment::instance().setLocaleValue(locale);
}

void Setup::setNetworkStatus(NetworkStatus status) {
    Environment& environment = Environment::instance();
    if (environment.networkStatus() == status) return;
    environment.setNetworkStatusValue(status);
    MarlLogger::LogBuilder(MarlLogger::MRLLevelInfo, LogTag::kEvent)
        .event("networkStatus", Environment::instance().sessionName())
        .append("status", static_cast<uint32_t>(status));
}

JSON Setup::statusReport() {
    const Environment& environment = Environment::instance();
    JSON report;
    report.set("version", std::string(kCoreVersion));
    report.set("process", environment.isMainProcess() ? "main" : "sub");
    report.set("feature", environment.feature());
    JSON errors;
    if (!environment.proxy()) {
        errors.push("NO_PROXY");
    } else {
        struct stat info;
        const std::string& root = rootPath();
        if (root.size() <= 1 || ::stat(root.c_str(), &info) != 0 || !S_ISDIR(info.st_mode))
            errors.push("ROOT_NOT_EXIST");
    }
    const uint32_t flags = environment.flags();
    if (!(flags & kSetupDone)) {
        errors.push("NOT_SETUP");
    } else if (environment.isMainProcess()) {
        if (environment.appKey().empty()) {
            errors.push("NO_APPKEY");
        } else if (environment.appVersion().empty()) {
            errors.push("NO_APPVERSION");
        }
    }
    if (!(flags & kConfigFirstUpdated)) errors.push("NOT_UPDATE_CONFIG");
    if (!(flags & kUpdateStarted)) errors.push("NOT_START_UPDATE");
    // Installed packs keep serving from a root that cannot be written; updating waits.
    if (!StorageState::writable()) errors.push("STORAGE_READ_ONLY");
    if (errors.size() > 0) report.set("error", std::move(errors));
    report.set("storage", StorageState::describe());
    // What the signed configuration says of its own freshness and keys, once it says anything:
    // a device that was never sent these fields reports as before.
    const FConfigPtr config = SCache::current();
    JSON keys = KeyTrust::instance().describe();
    JSON refused = UpdateConfig::instance().lastRefusal();
    if (config->issued != 0 || config->expires != 0 || keys["trusted"].size() > 0 ||
        keys["retired"].size() > 0 || !refused.isNull()) {
        JSON signedState;
        // Whole milliseconds since the epoch, as the documents carry them.
        signedState.set("issued", wholeMilliseconds(config->issued));
        signedState.set("expires", wholeMilliseconds(config->expires));
        signedState.set("expired", config->expires != 0 && config->expires <= MRLCurrentTime());
        signedState.set("keys", std::move(keys));
        if (!refused.isNull()) signedState.set("refused", std::move(refused));
        report.set("configuration", std::move(signedState));
    }
    return report;
}

}  // namespace FerritCore
