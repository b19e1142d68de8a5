#include "update/UpdatePack.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <deque>
#include <new>

#include "base/Environment.h"
#include "base/Errors.h"
#include "base/LogTags.h"
#include "base/ProcessState.h"
#include "base/Proxy.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "model/ResourceIndex.h"
#include "model/SCache.h"
#include "runtime/Network.h"
#include "runtime/Settings.h"
#include "runtime/TaskRunner.h"
#include "runtime/WorkerCheck.h"
#include "storage/Statistics.h"
#include "update/Cleanup.h"
#include "update/StretchSource.h"
#include "update/TaskPool.h"
#include "update/UpdateTarget.h"

namespace FerritCore {

using MarlLogger::json::JSON;

namespace {

template <typename... Args>
std::shared_ptr<UpdatePack> makeTask(Args&&... args) {
    void* memory = TaskPool::take();
    UpdatePack* task = nullptr;
    try {
        task = new (memory) UpdatePack(std::forward<Args>(args)...);
    } catch (...) {
        TaskPool::giveBack(memory);
        throw;
    }
    return std::shared_ptr<UpdatePack>(task, [](UpdatePack* done) {
        done->~UpdatePack();
        TaskPool::giveBack(done);
    });
}

const char* typeWord(const Pack& pack) {
    switch (pack.packType()) {
        case kPackTypeACache:
            return "ACache";
        case kPackTypeFerrit:
            return "Ferrit";
        case kPackTypeSCache:
            return "SCache";
        default:
            return "Default";
    }
}

std::string decimal(uint64_t value) {
    return std::to_string(value);
}

void addTempPath(std::vector<Folder>& paths, const Folder& folder) {
    for (const Folder& path : paths)
        if (path == folder) return;
    paths.push_back(folder);
}

// The latest finished runs, for the inspector: the worker writes, a tool's thread reads.
struct RecentOutcomes {
    Mutex mutex;
    std::deque<UpdateOutcome> outcomes GUARDED_BY(mutex);
};

RecentOutcomes& recentOutcomeList() {
    // A test's reset empties it: each test starts as a process that updated nothing.
    static RecentOutcomes* const list = ProcessState::create<RecentOutcomes>([](RecentOutcomes& r) {
        MutexLock lock(r.mutex);
        r.outcomes.clear();
    });
    return *list;
}

void removeTempPath(std::vector<Folder>& paths, const Folder& folder) {
    for (auto it = paths.begin(); it != paths.end(); ++it) {
        if (*it == folder) {
            paths.erase(it);
            return;
        }
    }
}

}  // namespace

// ---- Names and policies -----------------------------------------------------------------------

const char* updateStateName(UpdateState state) {
    switch (state) {
        case UpdateState::Invalid:
            return "Invalid";
        case UpdateState::NeedUpdate:
            return "NeedUpdate";
        case UpdateState::UpToDate:
            return "UpToDate";
        case UpdateState::UpdateFinished:
            return "UpdateFinished";
    }
    return "Invalid";
}

const UpdatePolicy& UpdatePolicy::forTrigger(UpdateTrigger trigger) {
    // A read is waiting: everything that could hold it back is skipped.
    static constexpr UpdatePolicy kVisit{true, true, true, true, true, true, false};
    static constexpr UpdatePolicy kPrefetch{true, false, false, false, false, false, true};
    static constexpr UpdatePolicy kOther{};
    switch (trigger) {
        case kTriggerVisit:
        case kTriggerPreview:
            return kVisit;
        case kTriggerPrefetch:
            return kPrefetch;
        default:
            return kOther;
    }
}

double UpdatePack::packScore(const Pack& pack) {
    // A pack ranks in the queue as it ranks against eviction: the packs kept are the ones fetched.
    return Cleanup::evictionScore(pack, Statistics::accessValue(pack.name));
}

bool UpdatePack::isHot(const Pack& pack) {
    const std::string key = pack.subType == kSubTypeFixedSeq
                                ? pack.name
                                : Pack::pinnedName(pack.name, pack.installedSeq);
    return Statistics::accessValue(key) > kHotScore;
}

void UpdatePack::setRandomSource(RandomSource source) {
    StretchSource::set(std::move(source));
}

size_t UpdatePack::spareCount() {
    return TaskPool::spareCount();
}

// ---- Construction -----------------------------------------------------------------------------

std::shared_ptr<UpdatePack> UpdatePack::create(const std::string& name, const JSON& info,
                                               UpdateTrigger trigger) {
    return makeTask(name, info, trigger);
}

std::shared_ptr<UpdatePack> UpdatePack::createSeq(const std::string& name, uint64_t seq) {
    return makeTask(name, seq);
}

UpdatePack::UpdatePack(const std::string& name, const JSON& info, UpdateTrigger trigger)
    : name_(name),
      requestedName_(name),
      trigger_(trigger),
      concurrent_(trigger == kTriggerVisit),
      policy_(&UpdatePolicy::forTrigger(trigger)),
      perf_("Ferrit.AppUpdate") {
    resolve(info);
    evaluate();
    noteTarget();
    const char* suffix = "";
    if (pack_ && pack_->subType == kSubTypeFixedSeq) suffix = "-Seq";
    if (pack_ && pack_->subType == kSubTypeFixedUrl) suffix = "-URL";
    rate(suffix, policy_->boostScore ? kBoostScore : 0.0);
}

UpdatePack::UpdatePack(const std::string& name, uint64_t seq)
    : name_(Pack::pinnedName(name, seq)),
      requestedName_(name),
      trigger_(kTriggerVisit),
      concurrent_(true),
      policy_(&UpdatePolicy::forTrigger(kTriggerVisit)),
      perf_("Ferrit.AppUpdate") {
    pack_ = UpdateTarget::resolvePinned(*SCache::current(), name_, requestedName_, seq);
    evaluate();
    noteTarget();
    rate(nullptr, kFixedSeqScore);
}

UpdatePack::~UpdatePack() = default;

void UpdatePack::resolve(const JSON& info) {
    Target target = UpdateTarget::resolve(*SCache::current(), requestedName_, info);
    pack_ = std::move(target.pack);
    name_ = std::move(target.name);
}

void UpdatePack::rate(const char* suffix, double bonus) {
    if (pack_) perf_.setDimension("appName", pack_->appName());
    perf_.setDimension("trigger", triggerName(trigger_));
    if (!runnable_) {
        // The verdict of the construction is final for a listener added now.
        if (error_) {
            RecursiveLock lock(listenersMutex_);
            ended_ = true;
        }
        return;
    }
    score_ = packScore(*pack_) + bonus;
    perf_.setDimension("packType", suffix != nullptr ? std::string(typeWord(*pack_)) + suffix
                                                     : std::string("SCache-Seq"));
}

void UpdatePack::evaluate() {
    const FConfigPtr config = SCache::current();
    Verdict verdict =
        UpdateTarget::evaluate(*config, pack_, TaskAsk{name_, requestedName_, trigger_, *policy_});
    state_ = verdict.state;
    runnable_ = verdict.runnable;
    pack_ = std::move(verdict.pack);
    if (verdict.error) error_ = std::move(*verdict.error);
}

// ---- Listeners --------------------------------------------------------------------------------

void UpdatePack::addListener(Listener listener) {
    if (!listener) return;
    Error ended;
    {
        RecursiveLock lock(listenersMutex_);
        if (!ended_) {
            listeners_.push_back(std::move(listener));
            return;
        }
        ended = error_;
    }
    listener(ended);
}

void UpdatePack::absorb(const UpdatePack& other) {
    score_ = std::max(score_, other.score_);
    if (parentId_.empty()) parentId_ = other.parentId_;
    concurrent_ = concurrent_ || other.concurrent_;
    // The configuration moved on since this task was made: the later request wants the newer
    // version, and one download of it answers both. A fixed version ("name@seq") has one
    // sequence for its name, so only a plain task of the same record moves.
    if (other.pack_ && pack_ && other.pack_->name == pack_->name &&
        pack_->subType != kSubTypeFixedSeq && other.pack_->subType != kSubTypeFixedSeq &&
        other.targetSeq() > targetSeq()) {
        pack_ = other.pack_;
        noteTarget();
    }
}

void UpdatePack::noteTarget() {
    targetSeq_.store(pack_ ? pack_->seq : 0, std::memory_order_release);
}

void UpdatePack::endRun(Error error) {
    state_ = UpdateState::UpdateFinished;
    runnable_ = false;
    error_ = std::move(error);
    tellListeners();
}

void UpdatePack::tellListeners() {
    std::vector<Listener> listeners;
    Error error;
    {
        RecursiveLock lock(listenersMutex_);
        ended_ = true;
        listeners.swap(listeners_);
        error = error_;
    }
    for (const Listener& listener : listeners) listener(error);
}

// ---- start ------------------------------------------------------------------------------------

void UpdatePack::start() {
    assertOnWorker();
    if (state_ == UpdateState::UpdateFinished) {
        tellListeners();
        return;
    }
    // A task may wait in the queue while another process on the root installs the same pack:
    // what that one installed makes this one up to date.
    SCache::refresh();
    evaluate();
    noteTarget();
    if (state_ != UpdateState::NeedUpdate) {
        tellListeners();
        return;
    }
    {
        RecursiveLock lock(listenersMutex_);
        ended_ = false;
    }
    announce();
    if (!pack_->needsConfig()) {
        // The record names its zip itself: the configuration stage ends as it begins.
        perf_.stage("configLoaded");
        requestResource();
        return;
    }
    requestConfig();
}

void UpdatePack::announce() {
    perf_.stage("waitingTime");
    run_.oldSeq = pack_->installedSeq;
    perf_.setDimension("oldSeq", decimal(run_.oldSeq));
    run_.runId = MRLGenerateID(TracePrefix::kPack);
    MarlLogger::LogBuilder log(MarlLogger::MRLLevelInfo, LogTag::kUpdatePack);
    if (log.active()) {
        log.event("start", parentId_)
            .id(run_.runId)
            .append("name", name_)
            .append("oldSeq", run_.oldSeq)
            .append("oldBaseSeq", pack_->installedBaseSeq)
            .append("newSeq", pack_->seq)
            .append("newBaseSeq", pack_->baseSeq)
            .append("status", packStatusName(pack_->status))
            .append("trigger", triggerName(trigger_));
    }
    log.done();
}

// ---- The pack configuration -------------------------------------------------------------------

void UpdatePack::requestConfig() {
    assertOnWorker();
    char tail[32];
    std::snprintf(tail, sizeof(tail), "%" PRIu64, pack_ ? pack_->seq : 0);
    const int32_t env = Environment::instance().env();
    const std::string prefix = Settings::current()->configPrefixFor(env);
    if (prefix.empty()) {
        fail(Errors::noServerAddress("configuration server", Settings::configPrefixKey(env)));
        return;
    }
    run_.url = prefix + "packconfig/" + requestedName_ + "/" + tail;
    MarlLogger::LogBuilder(MarlLogger::MRLLevelInfo, LogTag::kUpdatePack)
        .event("requestConfig", parentId_)
        .id(run_.runId)
        .append("url", run_.url);
    run_.awaiting = Awaiting::Config;
    std::shared_ptr<UpdatePack> self = shared_from_this();
    Network::requestConfig(run_.url, run_.runId, [self](std::string body, Error error) {
        self->onConfig(std::move(body), std::move(error));
    });
}

void UpdatePack::onConfig(std::string body, Error error) {
    assertOnWorker();
    if (run_.awaiting != Awaiting::Config) return;  // a second answer
    run_.awaiting = Awaiting::Nothing;
    if (!takeConfig(body, std::move(error))) return;
    // The record now has its flags, which the network's check reads.
    if (!policy_->ignoreNetwork && !UpdateTarget::networkAllows(*pack_, error_)) {
        finished();
        return;
    }
    requestResource();
}

bool UpdatePack::takeConfig(const std::string& body, Error error) {
    if (error) {
        fail(std::move(error));
        return false;
    }
    std::shared_ptr<FConfig> document =
        FConfig::parse(body, run_.url, error, /*checkSignature=*/true);
    if (!document) {
        fail(std::move(error));
        return false;
    }
    PackPtr record = document->find(requestedName_);
    if (!record) {
        fail(Errors::packNameMismatch(run_.url, requestedName_));
        return false;
    }
    auto merged = record->clone();
    if (merged->trigger == 0) merged->trigger = static_cast<uint32_t>(trigger_);
    const FConfigPtr config =
        SCache::mutate([&](FConfig& copy) { copy.mergePack(std::move(merged)); });
    perf_.stage("configLoaded");
    PackPtr fresh = config->find(name_);
    MarlLogger::LogBuilder log(fresh ? MarlLogger::MRLLevelInfo : MarlLogger::MRLLevelWarning,
                               LogTag::kUpdatePack);
    log.event("configUpdated", parentId_).id(run_.runId);
    if (!fresh) {
        error = Errors::packDeleted(name_);
        log.error(error).done();
        fail(std::move(error));
        return false;
    }
    pack_ = fresh;
    noteTarget();
    log.append("url", run_.url).append("newSeq", pack_->seq).append("newBaseSeq", pack_->baseSeq);
    return true;
}

// ---- Download ---------------------------------------------------------------------------------

void UpdatePack::requestResource() {
    assertOnWorker();
    run_.incremental = !run_.fullOnly && pack_->canUpdateIncrementally();
    run_.form = UpdateForm::Full;
    // Read once: whether a patch may be asked for and the address agree on it.
    const uint32_t payloadKind = UpdatePackWork::payloadKind(*pack_);
    if (run_.incremental) {
        const bool patched = !run_.patchRefused && UpdatePackWork::mayPatch(*pack_, payloadKind);
        run_.form = patched ? UpdateForm::Patched : UpdateForm::Incremental;
    }
    perf_.setDimension("newSeq", decimal(pack_->seq));
    perf_.setDimension("incr", run_.incremental ? "true" : "false");
    if (!mayDownload()) return;
    run_.download = UpdatePackWork::planDownload(*pack_, name_, run_.form, payloadKind);
    if (run_.download.error) {
        fail(run_.download.error);
        return;
    }
    addTempPath(run_.tempPaths, run_.download.tempFolder);
    run_.url = run_.download.url;
    perf_.setDimension("fileURL", run_.url);
    MarlLogger::LogBuilder(MarlLogger::MRLLevelInfo, LogTag::kUpdatePack)
        .event("requestResource", parentId_)
        .id(run_.runId)
        .append("url", run_.url);
    run_.awaiting = Awaiting::Zip;
    std::shared_ptr<UpdatePack> self = shared_from_this();
    Network::requestPack(
        run_.url, run_.download.zipFile, run_.runId, 0,
        [self](uint64_t length, Error error) { self->onZip(length, std::move(error)); });
}

bool UpdatePack::mayDownload() {
    // A pack delivered with the app lives in its raw files, which nothing can write.
    if (pack_->isBuiltIn()) {
        fail(Errors::invalidType(name_));
        return false;
    }
    if (!Cleanup::mayInstall(*pack_, trigger_)) {
        runnable_ = false;
        fail(Errors::tooManyApps());
        return false;
    }
    return true;
}

void UpdatePack::onZip(uint64_t expectedSize, Error error) {
    assertOnWorker();
    if (run_.awaiting != Awaiting::Zip) return;  // a second answer
    run_.awaiting = Awaiting::Nothing;
    perf_.stage("fileLoaded");
    const uint64_t size = run_.download.zipFile.diskSize();
    perf_.setMeasure("fileSize", static_cast<double>(size));
    perf_.setMeasure("expectedSize", static_cast<double>(expectedSize));
    MarlLogger::LogBuilder log(MarlLogger::MRLLevelInfo, LogTag::kUpdatePack);
    log.event("resourceUpdated", parentId_)
        .id(run_.runId)
        .append("url", run_.url)
        .append("size", size);
    if (error) log.error(error);
    log.done();
    if (refuseForm(error)) return;
    if (error) {
        fail(std::move(error));
        return;
    }
    if (pack_->subType == kSubTypeFixedUrl && pack_->packType() == kPackTypeACache) {
        installRaw();
    } else {
        install();
    }
}

// ---- Install ----------------------------------------------------------------------------------

UpdatePackWork::Job UpdatePack::job() const {
    return UpdatePackWork::Job{pack_,
                               name_,
                               requestedName_,
                               trigger_,
                               run_.incremental,
                               run_.download.payloadKind,
                               run_.download.tempFolder,
                               run_.download.zipFile,
                               run_.form == UpdateForm::Patched,
                               pack_->installedFolder()};
}

void UpdatePack::takeUnpacked(const Unpacked& unpacked) {
    if (!unpacked.began) return;
    if (unpacked.pendingTarget) addTempPath(run_.tempPaths, *unpacked.pendingTarget);
    run_.isPacks = unpacked.isPacks;
    run_.installedSize = unpacked.installedSize;
}

void UpdatePack::installRaw() {
    assertOnWorker();
    UpdatePackWork work(job(), perf_);
    const Unpacked unpacked = work.unpackRaw();
    if (unpacked.began) run_.installedSize = unpacked.installedSize;
    if (unpacked.error) {
        fail(unpacked.error);
        return;
    }
    run_.isPacks = false;
    takePublished(UpdatePackWork::persistRaw(job(), run_.installedSize));
    if (run_.oldSeq != 0 && run_.oldSeq != pack_->seq)
        run_.retiredFolder = pack_->installedFolder();
    ResourceIndexPool::remove(name_);
    perf_.setDimension("form", updateFormName(UpdateForm::Full));
    perf_.stage("updateFinished");
    finished();
}

void UpdatePack::install() {
    assertOnWorker();
    const Folder installed = pack_->installedFolder();
    UpdatePackWork work(job(), perf_);
    const Unpacked unpacked = work.unpack();
    takeUnpacked(unpacked);
    if (refuseForm(unpacked.error)) return;
    if (unpacked.error) {
        fail(unpacked.error);
        return;
    }
    if (!completeVersion(work, installed)) return;
    // The version is complete: one step makes it the folder that the record will name.
    if (Error error = work.publish()) {
        fail(std::move(error));
        return;
    }
    if (unpacked.pendingTarget) removeTempPath(run_.tempPaths, *unpacked.pendingTarget);
    takePublished(UpdatePackWork::persist(job(), run_.installedSize, run_.isPacks));
    // The replaced version goes, unless a record of its own keeps it.
    if (run_.oldSeq != 0 && run_.oldSeq != pack_->seq && !run_.persisted.persistOld)
        run_.retiredFolder = installed;
    // Readers load the new list at their next match.
    ResourceIndexPool::remove(requestedName_);
    if (name_ != requestedName_) ResourceIndexPool::remove(name_);
    perf_.setDimension("form", updateFormName(run_.form));
    // Only the form that installed: a refused patched attempt says nothing of what this run held.
    if (run_.form == UpdateForm::Patched)
        perf_.setMeasure("patchMemory", static_cast<double>(unpacked.patchMemory));
    perf_.stage("updateFinished");
    finished();
}

bool UpdatePack::completeVersion(UpdatePackWork& work, const Folder& installed) {
    if (!run_.incremental) {
        Error missing = work.missingFile();
        if (!missing) return true;
        fail(std::move(missing));
        return false;
    }
    const Kept kept = work.copyKept(installed);
    run_.installedSize += kept.bytes;
    // A file the plain increment keeps as well would refuse it too: the full zip is next then.
    if (kept.incrementBringsIt && refuseForm(kept.refused)) return false;
    if (kept.refused) {
        refuseIncrement(kept.refused);
        return false;
    }
    if (kept.error) {
        fail(kept.error);
        return false;
    }
    return true;
}

void UpdatePack::refuseIncrement(Error why) {
    MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, LogTag::kUpdatePack)
        .event("incrementRefused", parentId_)
        .id(run_.runId)
        .append("url", run_.url)
        .append("message",
                "the installed version does not hold what the increment keeps; "
                "fetching the full zip")
        .error(why);
    perf_.setDimension("incrRefused", why.message());
    run_.incrRefusedWhy = why.message();
    dropForm();
    run_.fullOnly = true;
    requestResource();
}

bool UpdatePack::refuseForm(const Error& why) {
    if (!why || run_.form != UpdateForm::Patched) return false;
    refusePatch(why);
    return true;
}

void UpdatePack::refusePatch(const Error& why) {
    MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, LogTag::kUpdatePack)
        .event("patchRefused", parentId_)
        .id(run_.runId)
        .append("url", run_.url)
        .append("message",
                "the patched increment does not make the new version here; "
                "fetching the plain increment")
        .error(why);
    perf_.setDimension("patchRefused", why.message());
    run_.patchRefusedWhy = why.message();
    dropForm();
    run_.patchRefused = true;
    requestResource();
}

void UpdatePack::dropForm() {
    std::vector<Folder> dropped{run_.download.tempFolder};
    // A version of the packed store is written in place: its keys go too.
    const Folder target = UpdatePackWork::newVersionFolder(*pack_);
    if (target.kind() == FolderKind::Packed) dropped.push_back(target);
    for (const Folder& folder : dropped) {
        bool held = false;
        for (const Folder& path : run_.tempPaths) held = held || path == folder;
        if (!held) continue;
        Folder::removeFile(folder, Removal::kGone);
        removeTempPath(run_.tempPaths, folder);
    }
}

void UpdatePack::takePublished(Persisted persisted) {
    run_.persisted = std::move(persisted);
    run_.installed = true;
}

// ---- The end ----------------------------------------------------------------------------------

void UpdatePack::fail(Error error) {
    error_ = std::move(error);
    finished();
}

void UpdatePack::finished() {
    assertOnWorker();
    state_ = UpdateState::UpdateFinished;
    runnable_ = false;
    if (error_) perf_.setError(error_);
    logFinished();
    noteOutcome();
    for (const Folder& folder : run_.tempPaths) Folder::removeFile(folder, Removal::kGone);
    run_.tempPaths.clear();
    if (run_.retiredFolder && run_.installed) retireReplaced();
    run_.retiredFolder.reset();
    report();
    tellListeners();
}

void UpdatePack::logFinished() {
    std::vector<std::string> paths;
    paths.reserve(run_.tempPaths.size());
    for (const Folder& folder : run_.tempPaths) paths.push_back(folder.describe());
    MarlLogger::LogBuilder log(error_ ? MarlLogger::MRLLevelWarning : MarlLogger::MRLLevelInfo,
                               LogTag::kUpdatePack);
    if (log.active()) {
        log.event("finished", parentId_)
            .id(run_.runId)
            .append("name", name_)
            .append("oldSeq", run_.oldSeq)
            .append("trigger", triggerName(trigger_))
            .append("persistOld", run_.persisted.persistOld)
            .append("installedSize", run_.installedSize)
            .append("isPacks", run_.isPacks)
            .append("tempPaths", paths);
        if (pack_) log.append("newSeq", pack_->seq);
        if (error_) log.error(error_);
    }
    log.done();
}

void UpdatePack::noteOutcome() const {
    UpdateOutcome outcome;
    outcome.name = name_;
    outcome.seq = pack_ ? pack_->seq : 0;
    if (run_.installed) outcome.form = updateFormName(run_.form);
    outcome.patchRefused = run_.patchRefusedWhy;
    outcome.incrRefused = run_.incrRefusedWhy;
    if (error_) outcome.error = error_.message();
    RecentOutcomes& list = recentOutcomeList();
    MutexLock lock(list.mutex);
    list.outcomes.push_back(std::move(outcome));
    if (list.outcomes.size() > kRecentOutcomes) list.outcomes.pop_front();
}

std::vector<UpdateOutcome> UpdatePack::recentOutcomes() {
    RecentOutcomes& list = recentOutcomeList();
    MutexLock lock(list.mutex);
    return {list.outcomes.begin(), list.outcomes.end()};
}

void UpdatePack::retireReplaced() {
    // Posted after the commit of the swap, which the configuration transaction posted first: the
    // old files go only once the store names the new version on the disk. A commit that failed
    // leaves the store naming the old version, whose files a restart then needs; what no record
    // owns any more goes with the next recovery.
    Folder retired = *run_.retiredFolder;
    std::shared_ptr<const CommitOutcome> outcome = run_.persisted.commit;
    TaskRunner::post(
        [retired, outcome] {
            if (outcome && outcome->ran && !outcome->error) {
                Folder::removeFile(retired, Removal::kGone);
                return;
            }
            MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, LogTag::kUpdatePack)
                .event("retire")
                .append("folder", retired.describe())
                .append("message", "kept: the store does not name the new version");
        },
        kRetiredFolderDelayMs);
}

void UpdatePack::report() {
    // The host hears of the new version once the commit that names it has run.
    if (run_.installed) {
        TaskRunner::post([name = requestedName_] { ProxyCalls::onPackUpdated(name); });
    }
    if (!pack_) return;
    const double now = MRLCurrentTime();
    const double publish = pack_->publishTime;
    const double notified = pack_->updateTime;
    // From publication to the device being told, from that to the version being online.
    const double online = publish > 0 && now > publish ? now - publish : 0;
    const double notification = publish > 0 && notified > publish ? notified - publish : 0;
    const double toOnline = notified > 0 && now > notified ? now - notified : 0;
    perf_.setDimension("online", decimal(static_cast<uint64_t>(online)));
    perf_.setMeasure("notificationTime", notification);
    perf_.setMeasure("publishTime", toOnline);
    sendEvent(perf_);
}

}  // namespace FerritCore
