#include "update/UpdateConfig.h"

#include <cstdio>
#include <random>

#include "base/Environment.h"
#include "base/Errors.h"
#include "base/LogTags.h"
#include "base/StorageState.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "model/BuiltinConfig.h"
#include "model/FConfig.h"
#include "model/KeyTrust.h"
#include "model/SCache.h"
#include "runtime/Network.h"
#include "runtime/Settings.h"
#include "runtime/TaskRunner.h"
#include "runtime/WorkerCheck.h"
#include "storage/PacksStore.h"
#include "storage/Store.h"
#include "support/Mutex.h"

namespace FerritCore {
namespace {

// After a failed check the timer's last run is moved back by this share of the interval, so that
// the next check comes a fifth of the interval later.
constexpr double kFailedCheckBackdate = 0.8;

// Spreads the clients that follow one push over its delay.
struct DelayShare {
    Mutex mutex;
    std::mt19937_64 generator GUARDED_BY(mutex){std::random_device{}()};
    UpdateConfig::RandomSource source GUARDED_BY(mutex);
};

DelayShare& delayShare() {
    static DelayShare share;
    return share;
}

// A channel as a message names it.
std::string channelName(const std::string& channel) {
    return channel.empty() ? std::string("the default channel") : "channel \"" + channel + "\"";
}

double randomFraction() {
    DelayShare& share = delayShare();
    MutexLock lock(share.mutex);
    if (share.source) return share.source();
    return std::uniform_real_distribution<double>(0.0, 1.0)(share.generator);
}

}  // namespace

UpdateConfig& UpdateConfig::instance() {
    static UpdateConfig* const updater =
        ProcessState::create<UpdateConfig>([](UpdateConfig& u) { u.reset(); });
    return *updater;
}

void UpdateConfig::start(UpdateTrigger trigger, const std::string& version, Listener listener,
                         double delay) {
    if (!Environment::instance().isMainProcess()) {
        MarlLogger::LogBuilder(MarlLogger::MRLLevelError, LogTag::kUpdateConfig)
            .event("start")
            .append("trigger", triggerName(trigger))
            .error(Errors::subProcessUpdateDisabled());
        return;
    }
    if (listener) {
        RecursiveLock lock(listenersMutex_);
        listeners_.push_back(std::move(listener));
    }
    const double wait = delay > 0 ? randomFraction() * delay : 0;
    TaskRunner::post([this, trigger, version] { update(trigger, version); }, wait);
}

void UpdateConfig::update(UpdateTrigger trigger, const std::string& version) {
    assertOnWorker();
    // Checks run only in the foreground; queued listeners wait for the next run.
    if (busy_ || !Environment::instance().clientActive()) return;
    const double now = MRLCurrentClock();
    if (trigger == kTriggerDebugTool || trigger == kTriggerChangeEnv) {
        lastCheck_ = now;
    } else {
        if (lastCheck_ + kThrottleMs > now) return;
        lastCheck_ = now;
        // Once pushes arrive, the periodic check falls back to the slower pace.
        if (trigger == kTriggerPush && timer_)
            timer_->setInterval(Settings::current()->configBackupUpdateIntervalValue());
    }
    // Another process on the root may have fetched a newer document already.
    SCache::refresh();
    // Each trigger is also the moment to notice that writing works again. While it does not,
    // the check waits: what it fetched could not be kept. Whoever waits for this run hears why
    // now, rather than at a run that may not come while the root stays read-only.
    if (!Store::resumeWriting()) {
        const Error paused = Errors::storageWritePaused(PacksStore::kName, PacksStore::kConfigKey,
                                                        StorageState::describe());
        MarlLogger::LogBuilder(MarlLogger::MRLLevelDebug, LogTag::kUpdateConfig)
            .event("paused")
            .append("trigger", triggerName(trigger))
            .error(paused);
        tellListeners(paused);
        return;
    }
    const std::string url = checkDue(trigger, version);
    if (url.empty()) return;

    busy_ = true;
    url_ = url;
    perf_.emplace("Ferrit.ConfigUpdate");
    perf_->setDimension("trigger", triggerName(trigger));
    perf_->setDimension("originVersion", originVersion_);
    perf_->setDimension("targetVersion", targetVersion_);
    perf_->setDimension("configURL", url_);
    runId_ = MRLGenerateID(TracePrefix::kConfig);
    MarlLogger::LogBuilder(MarlLogger::MRLLevelInfo, LogTag::kUpdateConfig)
        .event("start", Environment::instance().sessionName())
        .id(runId_)
        .append("url", url_)
        .append("originVersion", originVersion_)
        .append("targetVersion", targetVersion_)
        .append("trigger", triggerName(trigger))
        .append("initial", initial_);
    const uint64_t run = ++run_;
    // Nothing is sent without a server: the run ends at once, and its end says which setting the
    // host left out.
    if (missingServerKey_ != nullptr) {
        finished("0", Errors::noServerAddress("configuration server", missingServerKey_));
        return;
    }
    Network::requestConfig(url_, runId_, [this, run](std::string body, Error error) {
        onResponse(run, std::move(body), std::move(error));
    });
}

std::string UpdateConfig::checkDue(UpdateTrigger trigger, const std::string& version) {
    assertOnWorker();
    const Environment& environment = Environment::instance();
    const FConfigPtr config = SCache::current();
    trigger_ = trigger;
    targetVersion_ = normalizeVersion(version);
    originVersion_ = normalizeVersion(config->version);
    initial_ = trigger == kTriggerStartup && originVersion_ == "0";

    const std::string runningLocale = environment.locale();
    bool requestFull = false;
    if (originVersion_ != "0") {
        if (config->env != static_cast<uint32_t>(environment.env()) ||
            config->locale != runningLocale) {
            requestFull = true;
        } else {
            const double origin = static_cast<double>(versionNumber(originVersion_));
            const double target = targetVersion_ == "0"
                                      ? MRLCurrentTime()
                                      : static_cast<double>(versionNumber(targetVersion_));
            if (origin + kFullRefreshMs <= target) {
                requestFull = true;
            } else if (config->lastFullUpdate + kFullRefreshMs < MRLCurrentTime()) {
                requestFull = true;
            } else if (origin >= target) {
                MarlLogger::LogBuilder(MarlLogger::MRLLevelInfo, LogTag::kUpdateConfig)
                    .event("upToDate", environment.sessionName())
                    .append("originVersion", originVersion_)
                    .append("targetVersion", targetVersion_)
                    .append("trigger", triggerName(trigger))
                    .append("initial", initial_);
                return {};
            }
        }
    }

    const std::string appVersion = environment.appVersion();
    const int32_t env = environment.env();
    std::string url = Settings::current()->configPrefixFor(env);
    missingServerKey_ = url.empty() ? Settings::configPrefixKey(env) : nullptr;
    url.append("fconfig/").append(environment.appKey()).append("/").append(appVersion);
    if (!config->clientVersion.empty() && config->clientVersion != appVersion)
        url.append("~").append(config->clientVersion);
    url.append("/").append(targetVersion_).append("~").append(requestFull ? "0" : originVersion_);
    url.append("/").append(runningLocale).append("~").append(config->locale);
    return url;
}

void UpdateConfig::onResponse(uint64_t run, std::string body, Error error) {
    assertOnWorker();
    if (!busy_ || run != run_) return;  // a second or stale answer
    if (perf_) {
        perf_->stage("downloaded");
        perf_->setMeasure("fileSize", static_cast<double>(body.size()));
    }
    if (error) {
        finished("0", error);
        return;
    }
    std::shared_ptr<FConfig> document = FConfig::parse(body, url_, error, /*checkSignature=*/true);
    if (!document) {
        finished("0", error);
        return;
    }
    if (Error refused = judge(*document)) {
        finished("0", refused);
        return;
    }
    KeyTrust::instance().accept(document->keyStatements, document->signer);
    const std::string version = document->version;
    SCache::mutate([&](FConfig& config) { config.merge(std::move(*document)); });
    lastSuccess_ = MRLCurrentClock();
    finished(version, Error());
}

Error UpdateConfig::judge(const FConfig& document) {
    const double now = MRLCurrentTime();
    const FConfigPtr current = SCache::current();
    const bool sameEnvironment =
        current->env == static_cast<uint32_t>(Environment::instance().env());
    // A document signed ahead of this device's clock is taken: a clock that runs behind must not
    // cost the device its updates. Its stamp is kept no further ahead than clocks may disagree
    // (FConfig::merge), and a stamp kept from further ahead holds back nothing.
    const double ceiling = now + FConfig::kIssuedSkewMs;
    const double currentIssued = current->issued > ceiling ? 0 : current->issued;
    const std::string& channel = Settings::current()->channel;
    std::string reason, message;
    char text[160];
    if (document.channel != channel) {
        // A server that serves one channel's documents at another's paths: each names its own.
        reason = "channel";
        message = "published for " + channelName(document.channel) + ", this host reads " +
                  channelName(channel);
    } else if (document.expires != 0 && document.expires <= now) {
        reason = "expired";
        std::snprintf(text, sizeof text, "expired at %.0f, now is %.0f", document.expires, now);
        message = text;
    } else if (sameEnvironment && document.issued < currentIssued) {
        reason = "older";
        std::snprintf(text, sizeof text,
                      "signed at %.0f, before the configuration this device has (signed at %.0f)",
                      document.issued, currentIssued);
        message = text;
    } else {
        return Error();
    }
    MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, LogTag::kUpdateConfig)
        .event("refused", Environment::instance().sessionName())
        .id(runId_)
        .append("reason", reason)
        .append("url", url_)
        .append("version", document.version)
        .append("issued", document.issued)
        .append("expires", document.expires)
        .append("currentIssued", current->issued)
        .append("channel", document.channel);
    MarlLogger::json::JSON refusal;
    refusal.set("reason", reason);
    refusal.set("message", message);
    refusal.set("url", url_);
    refusal.set("version", document.version);
    refusal.set("issued", wholeMilliseconds(document.issued));
    refusal.set("expires", wholeMilliseconds(document.expires));
    refusal.set("at", wholeMilliseconds(now));
    {
        MutexLock lock(refusalMutex_);
        lastRefusal_ = std::move(refusal);
    }
    return Errors::requestRefused(url_, message);
}

MarlLogger::json::JSON UpdateConfig::lastRefusal() const {
    MutexLock lock(refusalMutex_);
    return lastRefusal_;
}

void UpdateConfig::tellListeners(const Error& error) {
    std::vector<Listener> listeners;
    {
        RecursiveLock lock(listenersMutex_);
        listeners.swap(listeners_);
    }
    for (const Listener& listener : listeners) listener(error);
}

void UpdateConfig::finished(const std::string& version, const Error& error) {
    assertOnWorker();
    const double now = MRLCurrentTime();
    if (timer_) {
        if (error) {
            // A failed check is repeated after a fifth of the interval, not after all of it.
            const double retry = now - kFailedCheckBackdate * timer_->interval();
            if (retry < timer_->lastRunTime()) timer_->setLastRunTime(retry);
        } else {
            timer_->setLastRunTime(now);
        }
    }
    if (initial_) Environment::instance().setFlag(kInitialConfigFinished);

    tellListeners(error);

    if (!perf_) perf_.emplace("Ferrit.ConfigUpdate");
    perf_->stage("updated");
    perf_->setDimension("updatedVersion", version);
    if (error) perf_->setError(error);
    MarlLogger::LogBuilder log(error ? MarlLogger::MRLLevelWarning : MarlLogger::MRLLevelInfo,
                               LogTag::kUpdateConfig);
    log.event("finished", Environment::instance().sessionName())
        .id(runId_)
        .append("version", version);
    if (error) log.error(error);
    log.done();
    sendEvent(*perf_);
    perf_.reset();
    busy_ = false;
}

double UpdateConfig::checkInterval() {
    // A remote value that does not parse reads 0; a timer with no interval would spin the worker.
    const double interval = Settings::current()->configUpdateIntervalValue();
    return interval > 0 ? interval : Settings::kDefaultConfigUpdateInterval;
}

void UpdateConfig::startTimer() {
    if (timer_ || !Environment::instance().isMainProcess()) return;
    timer_ = TaskRunner::postRepeating([this] { update(kTriggerTimer, "0"); }, checkInterval());
}

void UpdateConfig::loadAtStart() {
    const double start = MRLCurrentClock();
    std::shared_ptr<FConfig> document;
    // Taken before the text, so that what another process commits from here on is reloaded.
    const uint64_t loadedAt = SCache::storedVersion();
    // Read with room to be parsed in place: the document's megabytes are copied once, out of
    // the store, and not again for the parser.
    ErrorOr<std::string> stored =
        PacksStore::instance().readConfig(MarlLogger::json::JSON::kInPlaceSpare);
    Error error = stored.error();
    std::string text = std::move(stored).valueOr(std::string());
    if (!error && !text.empty()) {
        document = FConfig::parseStored(std::move(text), error, [] {
            return PacksStore::instance().readConfig().valueOr(std::string());
        });
    }
    if (!document) document = std::make_shared<FConfig>();
    if (Errors::isFileMissing(error)) error.clear();  // nothing stored yet is not a fault
    // A failed load logs itself; the document then goes on without built-in packs.
    static_cast<void>(BuiltinConfig::load(*document));
    SCache::publish(document, loadedAt);
    KeyTrust::instance().load();
    MarlLogger::LogBuilder log(MarlLogger::MRLLevelInfo, LogTag::kLoad);
    log.event("fconfig", Environment::instance().sessionName())
        .append("scacheVersion", document->scacheVersion);
    log.append("time", MRLCurrentClock() - start);
    if (error) {
        log.error(error);
    } else {
        log.append("version", document->version)
            .append("env", document->env)
            .append("locale", document->locale)
            .append("packCount", static_cast<uint64_t>(document->packs().size()));
    }
}

void UpdateConfig::setRandomSource(RandomSource source) {
    DelayShare& share = delayShare();
    MutexLock lock(share.mutex);
    share.source = std::move(source);
}

void UpdateConfig::reset() {
    setRandomSource(nullptr);
    lastCheck_ = -1e300;
    lastSuccess_ = 0;
    initial_ = false;
    trigger_ = kTriggerNone;
    targetVersion_ = originVersion_ = "0";
    url_.clear();
    missingServerKey_ = nullptr;
    runId_.clear();
    busy_ = false;
    perf_.reset();
    timer_.reset();
    {
        MutexLock refusalLock(refusalMutex_);
        lastRefusal_ = MarlLogger::json::JSON();
    }
    RecursiveLock lock(listenersMutex_);
    listeners_.clear();
}

}  // namespace FerritCore
