#include "update/UpdatePack.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <new>
#include <random>
#include <unordered_map>

#include "base/Digest.h"
#include "base/Environment.h"
#include "base/Errors.h"
#include "base/FileUtil.h"
#include "base/LogTags.h"
#include "base/ProcessState.h"
#include "base/Proxy.h"
#include "base/Url.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "model/ResourceIndex.h"
#include "model/SCache.h"
#include "runtime/Network.h"
#include "runtime/Settings.h"
#include "runtime/TaskRunner.h"
#include "storage/Statistics.h"
#include "storage/Variants.h"
#include "storage/ZipFile.h"
#include "update/Cleanup.h"
#include "update/PackInstaller.h"
#include "update/WrappedPayload.h"

namespace FerritCore {

using MarlLogger::json::JSON;

namespace {

// The two further files of a pack zip that are not resources.
constexpr std::string_view kIndexEntry = kIndexFileName;
constexpr std::string_view kInfoEntry = "app-info.hvc";
// The download inside the run's temporary folder.
constexpr std::string_view kDownloadName = "origin.zip";
// Bits 16 and 17 of the flags, where the payload kind sits.
constexpr uint64_t kPayloadKindMask = 196608;
// The pre-release service environment, which never asks for wrapped payloads.
constexpr int32_t kEnvPreRelease = 0;
// The variant of a pack named "name~variant".
constexpr char kVariantSeparator = '~';
// Below this priority a "Startup" run leaves an uninstalled pack alone.
constexpr uint32_t kStartupPriorityFloor = 8;

// ---- The free list of task objects ------------------------------------------------------------

// Each slot holds the memory of one spare task or null. Taking is one exchange and giving back one
// compare-and-exchange from null, so no slot is ever handed out twice and no lock is taken.
struct SpareList {
    std::array<std::atomic<void*>, UpdatePack::kMaxSpareTasks> slots{};
};

void drain(SpareList& list) {
    for (std::atomic<void*>& slot : list.slots) ::operator delete(slot.exchange(nullptr));
}

SpareList& spares() {
    static SpareList* const list = ProcessState::create<SpareList>(drain);
    return *list;
}

void* takeMemory() {
    for (std::atomic<void*>& slot : spares().slots) {
        if (void* memory = slot.exchange(nullptr, std::memory_order_acquire)) return memory;
    }
    return ::operator new(sizeof(UpdatePack));
}

void giveBack(void* memory) {
    for (std::atomic<void*>& slot : spares().slots) {
        void* empty = nullptr;
        if (slot.compare_exchange_strong(empty, memory, std::memory_order_release)) return;
    }
    ::operator delete(memory);
}

template <typename... Args>
std::shared_ptr<UpdatePack> makeTask(Args&&... args) {
    void* memory = takeMemory();
    UpdatePack* task = nullptr;
    try {
        task = new (memory) UpdatePack(std::forward<Args>(args)...);
    } catch (...) {
        giveBack(memory);
        throw;
    }
    return std::shared_ptr<UpdatePack>(task, [](UpdatePack* done) {
        done->~UpdatePack();
        giveBack(done);
    });
}

// ---- The random stretch of disabled periods ---------------------------------------------------

struct RandomState {
    Mutex mutex;
    UpdatePack::RandomSource source GUARDED_BY(mutex);
    std::mt19937_64 generator GUARDED_BY(mutex){std::random_device{}()};
};

RandomState& randomState() {
    static RandomState* const state = ProcessState::create<RandomState>([](RandomState& s) {
        MutexLock lock(s.mutex);
        s.source = nullptr;
    });
    return *state;
}

uint64_t drawStretch(uint64_t maxInclusive) {
    RandomState& state = randomState();
    UpdatePack::RandomSource source;
    {
        MutexLock lock(state.mutex);
        if (!state.source) {
            return std::uniform_int_distribution<uint64_t>(0, maxInclusive)(state.generator);
        }
        source = state.source;
    }
    return source(maxInclusive);
}

// ---- Small helpers ----------------------------------------------------------------------------

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

// A pack name becomes a folder name under "temp/" and "apps/": it must stay one piece.
bool isFolderSafe(const std::string& name) {
    return !name.empty() && name.find('/') == std::string::npos &&
           name.find('\\') == std::string::npos && name != "." && name != ".." &&
           name.find('\0') == std::string::npos;
}

void addTempPath(std::vector<Folder>& paths, const Folder& folder) {
    for (const Folder& path : paths)
        if (path == folder) return;
    paths.push_back(folder);
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

const UpdatePolicy& UpdatePolicy::forTrigger(int trigger) {
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
    RandomState& state = randomState();
    MutexLock lock(state.mutex);
    state.source = std::move(source);
}

size_t UpdatePack::spareCount() {
    size_t count = 0;
    for (const std::atomic<void*>& slot : spares().slots)
        if (slot.load(std::memory_order_acquire) != nullptr) ++count;
    return count;
}

// ---- Construction -----------------------------------------------------------------------------

std::shared_ptr<UpdatePack> UpdatePack::create(const std::string& name, const JSON& info,
                                               int trigger) {
    return makeTask(name, info, trigger);
}

std::shared_ptr<UpdatePack> UpdatePack::createSeq(const std::string& name, uint64_t seq) {
    return makeTask(name, seq);
}

UpdatePack::UpdatePack(const std::string& name, const JSON& info, int trigger)
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
    resolveSeq(seq);
    evaluate();
    noteTarget();
    rate(nullptr, kFixedSeqScore);
}

UpdatePack::~UpdatePack() = default;

void UpdatePack::resolve(const JSON& info) {
    const FConfigPtr config = SCache::current();
    if (Url::isAbsolute(requestedName_)) {
        // A whole app fetched from its URL is known by the MD5 of the URL's key form, the name
        // under which a reader looks it up.
        const std::string key = Digest::md5Hex(Url::key(requestedName_));
        pack_ = config->find(key);
        if (!pack_) {
            auto clone = std::make_shared<Pack>();
            clone->name = key;
            clone->subType = kSubTypeFixedUrl;
            clone->seq = 1;
            clone->baseSeq = 1;
            clone->flags = kPackTypeACache;
            clone->zipURL = requestedName_;
            clone->updateTime = MRLCurrentTime();
            pack_ = std::move(clone);
        }
        name_ = pack_->name;
        return;
    }
    if (info.isObject() && info.size() != 0) {
        auto wanted = std::make_shared<Pack>();
        wanted->name = requestedName_;
        wanted->readJSON(info);
        if (wanted->validate()) {
            const uint64_t s = wanted->seq;
            if (wanted->packType() == kPackTypeACache && s != 0) {
                const std::string pinned = Pack::pinnedName(requestedName_, s);
                pack_ = config->find(pinned);
                if (!pack_) {
                    PackPtr plain = config->find(requestedName_);
                    if (plain && plain->installedSeq == s) {
                        pack_ = plain;
                    } else {
                        auto clone = wanted->clone(pinned);
                        clone->subType = kSubTypeFixedSeq;
                        pack_ = std::move(clone);
                    }
                }
            } else if (wanted->packType() == kPackTypeSCache && s != 0) {
                const std::string pinned = Pack::pinnedName(requestedName_, s);
                pack_ = config->find(pinned);
                if (!pack_) {
                    auto clone = wanted->clone(pinned);
                    clone->seq = s;
                    clone->baseSeq = s;
                    clone->isOnDemand = false;
                    clone->subType = kSubTypeFixedSeq;
                    pack_ = std::move(clone);
                }
            } else {
                pack_ = config->find(requestedName_);
            }
            if (pack_) name_ = pack_->name;
            return;
        }
    }
    pack_ = config->find(requestedName_);
    if (pack_) name_ = pack_->name;
}

void UpdatePack::resolveSeq(uint64_t seq) {
    const FConfigPtr config = SCache::current();
    pack_ = config->find(name_);
    if (pack_) return;
    PackPtr plain = config->find(requestedName_);
    if (!plain) return;
    auto clone = plain->clone(name_);
    clone->seq = seq;
    clone->baseSeq = seq;
    clone->isOnDemand = false;
    clone->subType = kSubTypeFixedSeq;
    clone->installedSeq = 0;
    clone->installedBaseSeq = 0;
    clone->installedSize = 0;
    clone->installTime = 0;
    clone->isPacks = false;
    pack_ = std::move(clone);
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

// ---- evaluate ---------------------------------------------------------------------------------

bool UpdatePack::networkAllows(const Pack& pack) {
    // Only the small configuration request follows: it may go on any network.
    if (pack.needsConfig()) return true;
    std::string reason;
    if (Network::downloadAllowed(pack.flags, reason)) return true;
    // A status that the host should not send stops the download without a word.
    if (!reason.empty()) error_ = Errors::networkNotSupported(pack.name, reason);
    return false;
}

void UpdatePack::evaluate() {
    const FConfigPtr config = SCache::current();
    state_ = UpdateState::Invalid;
    runnable_ = false;
    fixedSeq_.reset();

    // 1. The current record.
    PackPtr cur;
    if (pack_ && pack_->packType() == kPackTypeSCache && pack_->subType == kSubTypeFixedSeq) {
        cur = config->find(pack_->name);
    } else {
        cur = config->find(name_);
    }
    if (cur) {
        // The configuration moved on since the task was made: work on its record.
        if (pack_ && pack_->name == cur->name) pack_ = cur;
    } else if (!pack_) {
        error_ = Errors::notFerrit(requestedName_);
        return;
    } else if (pack_->packType() == kPackTypeACache && pack_->subType == kSubTypeFixedSeq) {
        cur = config->find(requestedName_);
        if (cur) {
            fixedSeq_ = pack_->seq;
        } else {
            cur = pack_;
        }
    } else {
        cur = pack_;
    }
    if (!pack_) pack_ = cur;

    // 2. Evicted.
    if (!policy_->ignoreEliminated && cur->status == kPackStatusEliminated) {
        error_ = Errors::updateEliminated(requestedName_);
        return;
    }
    // 3. Network.
    if (!policy_->ignoreNetwork && !networkAllows(*pack_)) return;
    // 4. Disabled periods.
    if (!policy_->ignoreDisabledPeriods &&
        Settings::current()->isInstallDisabled(MRLCurrentTime(), &drawStretch)) {
        error_ = Errors::packUpdateDisabled(requestedName_);
        return;
    }

    // 5. Installed.
    error_.clear();
    if (cur->isInstalled()) {
        bool need = false;
        if (cur->status == kPackStatusNeedReinstall) {
            need = true;
        } else if (cur->status == kPackStatusPreview) {
            need = trigger_ == kTriggerPreview;
        } else if (fixedSeq_) {
            need = cur->installedSeq != *fixedSeq_;
        } else {
            need = cur->seq > cur->installedSeq;
        }
        if (!need && policy_->verifyInstalled) {
            if (cur->packType() == kPackTypeACache && cur->subType == kSubTypeFixedUrl) {
                need = cur->resourcesFolder().isEmpty();
            } else {
                const ResourceIndexPtr index = ResourceIndexPool::get(*cur);
                need = !index || index->error() ||
                       (cur->packType() == kPackTypeACache && cur->resourcesFolder().isEmpty());
            }
        }
        state_ = need ? UpdateState::NeedUpdate : UpdateState::UpToDate;
        runnable_ = need;
        return;
    }

    // 6. Not installed.
    if (!policy_->ignorePriority) {
        bool goesOn = false;
        if (trigger_ == kTriggerStartup) {
            goesOn = cur->priority() > kStartupPriorityFloor;
        } else {
            goesOn = (cur->priority() & kPriorityAutoInstall) != 0 ||
                     Statistics::accessValue(cur->name) >=
                         static_cast<double>(Settings::current()->autoInstallLimitValue());
        }
        if (!goesOn) return;
    }
    const size_t tilde = cur->name.find(kVariantSeparator);
    if (tilde != std::string::npos &&
        !Variants::instance().accepts(std::string_view(cur->name).substr(tilde + 1))) {
        return;
    }
    state_ = UpdateState::NeedUpdate;
    runnable_ = true;
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
    perf_.stage("waitingTime");
    oldSeq_ = pack_->installedSeq;
    perf_.setDimension("oldSeq", decimal(oldSeq_));
    runId_ = MRLGenerateID(TracePrefix::kPack);
    MarlLogger::LogBuilder log(MarlLogger::MRLLevelInfo, LogTag::kUpdatePack);
    if (log.active()) {
        log.event("start", parentId_)
            .id(runId_)
            .append("name", name_)
            .append("oldSeq", oldSeq_)
            .append("oldBaseSeq", pack_->installedBaseSeq)
            .append("newSeq", pack_->seq)
            .append("newBaseSeq", pack_->baseSeq)
            .append("status", packStatusName(pack_->status))
            .append("trigger", triggerName(trigger_));
    }
    log.done();
    if (!pack_->needsConfig()) {
        // The record names its zip itself: the configuration stage ends as it begins.
        perf_.stage("configLoaded");
        requestResource();
        return;
    }
    requestConfig();
}

void UpdatePack::requestConfig() {
    char tail[32];
    std::snprintf(tail, sizeof(tail), "%" PRIu64, pack_ ? pack_->seq : 0);
    const int32_t env = Environment::instance().env();
    const std::string prefix = Settings::current()->configPrefixFor(env);
    if (prefix.empty()) {
        fail(Errors::noServerAddress("configuration server", Settings::configPrefixKey(env)));
        return;
    }
    url_ = prefix + "packconfig/" + requestedName_ + "/" + tail;
    MarlLogger::LogBuilder(MarlLogger::MRLLevelInfo, LogTag::kUpdatePack)
        .event("requestConfig", parentId_)
        .id(runId_)
        .append("url", url_);
    awaiting_ = Awaiting::Config;
    std::shared_ptr<UpdatePack> self = shared_from_this();
    Network::requestConfig(url_, runId_, [self](std::string body, Error error) {
        self->onConfig(std::move(body), std::move(error));
    });
}

void UpdatePack::onConfig(std::string body, Error error) {
    if (awaiting_ != Awaiting::Config) return;  // a second answer
    awaiting_ = Awaiting::Nothing;
    if (error) {
        fail(std::move(error));
        return;
    }
    std::shared_ptr<FConfig> document = FConfig::parse(body, url_, error, true);
    if (!document) {
        fail(std::move(error));
        return;
    }
    PackPtr record = document->find(requestedName_);
    if (!record) {
        fail(Errors::packNameMismatch(url_, requestedName_));
        return;
    }
    auto merged = record->clone();
    if (merged->trigger == 0) merged->trigger = static_cast<uint32_t>(trigger_);
    const FConfigPtr config =
        SCache::mutate([&](FConfig& copy) { copy.mergePack(std::move(merged)); });
    perf_.stage("configLoaded");
    PackPtr fresh = config->find(name_);
    if (!fresh) {
        error = Errors::packDeleted(name_);
        MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, LogTag::kUpdatePack)
            .event("configUpdated", parentId_)
            .id(runId_)
            .error(error);
        fail(std::move(error));
        return;
    }
    pack_ = fresh;
    noteTarget();
    MarlLogger::LogBuilder(MarlLogger::MRLLevelInfo, LogTag::kUpdatePack)
        .event("configUpdated", parentId_)
        .id(runId_)
        .append("url", url_)
        .append("newSeq", pack_->seq)
        .append("newBaseSeq", pack_->baseSeq);
    // The record now has its flags, which the network's check reads.
    if (!policy_->ignoreNetwork && !networkAllows(*pack_)) {
        finished();
        return;
    }
    requestResource();
}

// ---- Download ---------------------------------------------------------------------------------

bool UpdatePack::capacityAllows() {
    return Cleanup::mayInstall(*pack_, trigger_);
}

Folder UpdatePack::newVersionFolder() const {
    char seq[32];
    std::snprintf(seq, sizeof(seq), "%" PRIu64, pack_->seq);
    const std::string relative = pack_->rootName() + "/" + seq + "/";
    if (pack_->packType() == kPackTypeACache) return Folder::disk("apps/" + relative);
    return Folder::packed(relative);
}

void UpdatePack::requestResource() {
    incremental_ = !fullOnly_ && pack_->canUpdateIncrementally();
    perf_.setDimension("newSeq", decimal(pack_->seq));
    perf_.setDimension("incr", incremental_ ? "true" : "false");
    // A pack delivered with the app lives in its raw files, which nothing can write.
    if (pack_->isBuiltIn()) {
        fail(Errors::invalidType(name_));
        return;
    }
    if (!capacityAllows()) {
        runnable_ = false;
        fail(Errors::tooManyApps());
        return;
    }
    // A pack whose record names no zip of its own is fetched from the pack server; without one
    // nothing is sent, and the words say which setting the host left out.
    if (pack_->status != kPackStatusPreview && pack_->subType != kSubTypeFixedUrl) {
        const int32_t env = Environment::instance().env();
        if (Settings::current()->zipPrefixFor(pack_->packType(), env).empty()) {
            fail(Errors::noServerAddress("pack server",
                                         Settings::zipPrefixKey(pack_->packType(), env)));
            return;
        }
    }
    char folder[64];
    std::snprintf(folder, sizeof(folder), "_%" PRIu64 "_%d/", pack_->seq, incremental_ ? 1 : 0);
    const std::string relative = "temp/" + name_ + folder;
    if (!isFolderSafe(name_) || !isFolderSafe(pack_->rootName())) {
        fail(Errors::unzipTempPath(relative));
        return;
    }
    tempFolder_ = Folder::disk(relative);
    Folder::removeFile(tempFolder_, true);
    addTempPath(tempPaths_, tempFolder_);

    const std::shared_ptr<const Settings> settings = Settings::current();
    payloadKind_ = 0;
    if (settings->encryptionTypeValue() != 0 && Environment::instance().env() != kEnvPreRelease)
        payloadKind_ = static_cast<uint32_t>(pack_->flags & kPayloadKindMask);
    if (pack_->status == kPackStatusPreview || pack_->subType == kSubTypeFixedUrl) {
        url_ = pack_->zipURL;
        payloadKind_ = 0;
    } else {
        url_ = settings->zipPrefixFor(pack_->packType());
        url_.append(pack_->rootName()).append(incremental_ ? "/i/" : "/");
        url_.append(decimal(pack_->seq));
        url_.append(payloadKind_ == kWrappedPayloadKind ? ".png" : ".zip");
    }
    perf_.setDimension("fileURL", url_);
    MarlLogger::LogBuilder(MarlLogger::MRLLevelInfo, LogTag::kUpdatePack)
        .event("requestResource", parentId_)
        .id(runId_)
        .append("url", url_);
    zipFile_ = tempFolder_.childOf(kDownloadName);
    awaiting_ = Awaiting::Zip;
    std::shared_ptr<UpdatePack> self = shared_from_this();
    Network::requestPack(url_, zipFile_, runId_, 0, [self](uint64_t length, Error error) {
        self->onZip(length, std::move(error));
    });
}

void UpdatePack::onZip(uint64_t expectedSize, Error error) {
    if (awaiting_ != Awaiting::Zip) return;  // a second answer
    awaiting_ = Awaiting::Nothing;
    perf_.stage("fileLoaded");
    const uint64_t size = zipFile_.diskSize();
    perf_.setMeasure("fileSize", static_cast<double>(size));
    perf_.setMeasure("expectedSize", static_cast<double>(expectedSize));
    MarlLogger::LogBuilder log(MarlLogger::MRLLevelInfo, LogTag::kUpdatePack);
    log.event("resourceUpdated", parentId_).id(runId_).append("url", url_).append("size", size);
    if (error) log.error(error);
    log.done();
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

Error UpdatePack::roomError(ZipFile& zip) const {
    uint64_t declared = 0;
    Error error;
    if (!zip.declaredSize(declared, error)) return error;
    uint64_t limit = 0;
    const char* limitName = "";
    const uint64_t room = Cleanup::roomFor(*pack_, trigger_, limit, limitName);
    if (declared <= room) return Error();
    char cause[256];
    std::snprintf(cause, sizeof(cause),
                  "\"%s\" inflates to %" PRIu64 " bytes, above the %" PRIu64
                  " bytes left of its budget of %" PRIu64 " (\"%s\")",
                  name_.c_str(), declared, room, limit, limitName);
    return Errors::tooManyApps(cause);
}

void UpdatePack::installRaw() {
    PackInstaller installer(newVersionFolder(), tempFolder_);
    installer.begin();
    Error error;
    const std::string data = Folder::readFile(zipFile_, error);
    ZipFile zip;
    if (!error) zip = ZipFile::open(zipFile_, data, error);
    if (!error) error = roomError(zip);
    if (error) {
        fail(std::move(error));
        return;
    }
    installedSize_ = zip.extractTo(installer.writeRoot().childOf("res/"), error);
    perf_.stage("unzipped");
    perf_.setMeasure("resSize", static_cast<double>(installedSize_));
    if (error || !installer.publish(error)) {
        fail(std::move(error));
        return;
    }
    isPacks_ = false;
    // Durable: the replaced version's folder is deleted on the strength of this commit.
    published_ = SCache::mutate(
        [&](FConfig& config) {
            if (!config.find(name_)) config.mergePack(pack_);
            config.setInstalled(name_, static_cast<uint32_t>(trigger_), pack_->seq, pack_->baseSeq,
                                installedSize_, false);
        },
        Durability::Durable, commitWatcher());
    if (oldSeq_ != 0 && oldSeq_ != pack_->seq) retiredFolder_ = pack_->installedFolder();
    installed_ = true;
    ResourceIndexPool::remove(name_);
    perf_.stage("updateFinished");
    finished();
}

void UpdatePack::install() {
    Error error;
    // 1. The download, unwrapped in place when it is an image.
    std::string data = Folder::readFile(zipFile_, error);
    if (error) {
        fail(std::move(error));
        return;
    }
    UnwrapContext context{pack_, payloadKind_, std::string(), zipFile_};
    if (!unwrap(context, data, error)) {
        fail(std::move(error));
        return;
    }
    perf_.stage("decrypted");

    // 2. The zip's MD5; fixed sequences are taken as they come.
    const std::string& expected = incremental_ ? pack_->incrMd5 : pack_->md5;
    if (!expected.empty()) {
        const std::string md5 = context.md5.empty() ? Digest::md5Hex(data) : context.md5;
        if (md5 != expected && pack_->subType != kSubTypeFixedSeq) {
            fail(Errors::fileVerifyMd5(zipFile_, md5, expected));
            return;
        }
    }

    // 3. The signed list first: nothing is written for a zip whose list does not verify.
    ZipFile zip = ZipFile::open(zipFile_, data, error);
    if (!zip) {
        fail(std::move(error));
        return;
    }
    const ResourceIndex index(
        name_, [&zip](const std::string& entry, Error& e) { return zip.readEntry(entry, e); },
        incremental_);
    if (index.error()) {
        fail(index.error());
        return;
    }

    // Nothing is written for a zip that would not fit: what its entries record is checked
    // against the room the budget leaves, before the first byte goes to the disk.
    if (Error tooLarge = roomError(zip)) {
        fail(std::move(tooLarge));
        return;
    }

    // 4. The new version's folder.
    const Folder oldFolder = pack_->installedFolder();
    PackInstaller installer(newVersionFolder(), tempFolder_);
    installer.begin();
    if (installer.hasPendingTarget()) addTempPath(tempPaths_, installer.target());
    isPacks_ = installer.isPacked();
    installedSize_ = 0;

    // 5. Every entry, streamed to its file in pieces and checked against the list as it goes; a
    // file whose bytes do not match is given up before the version could be published.
    Error entryError;
    std::shared_ptr<const ResourceRecord> record;
    Folder inZip;
    bool skip = false;
    uint64_t length = 0;
    Digest::Md5 md5;
    ZipFile::EntryStream stream;
    stream.begin = [&](const std::string& entry, uint64_t size) {
        record.reset();
        skip = entry == kInfoEntry;
        length = 0;
        if (entry.ends_with('/')) {
            skip = true;
            return installer.makeDirectory(entry, entryError);
        }
        if (skip) return true;
        installedSize_ += size;
        if (entry == kIndexEntry) {
            return installer.beginFile(
                std::string(incremental_ ? kIncrementIndexFileName : kIndexFileName), entryError);
        }
        inZip = zipFile_.childOf(entry);
        record = index.find(entry);
        if (!record || record->path != entry) {
            entryError = Errors::preloadNotFound(inZip);
            return false;
        }
        // The recorded size is judged, as the content will be, before a byte is inflated.
        if (size == 0 && !record->isEmptyFile()) {
            entryError = Errors::fileNoData(inZip);
            return false;
        }
        if (!record->fits(size)) {
            entryError = Errors::fileVerifySize(inZip, size, record->size);
            return false;
        }
        return installer.beginFile(entry, entryError);
    };
    stream.write = [&](std::string_view piece) {
        if (skip) return true;
        length += piece.size();
        if (record) md5.update(piece);
        return installer.appendFile(piece, entryError);
    };
    stream.end = [&]() {
        if (skip) return true;
        if (record) {
            entryError = record->checkDigest(inZip, length, md5.finishHex());
            if (entryError) {
                installer.abandonFile();
                return false;
            }
        }
        return installer.endFile(entryError);
    };
    const bool walked = zip.forEachEntryStreamed(stream, error);
    installer.abandonFile();
    // 6.
    perf_.stage("unzipped");
    perf_.setMeasure("resSize", static_cast<double>(installedSize_));
    if (!walked || error || entryError) {
        fail(error ? std::move(error) : std::move(entryError));
        return;
    }

    // 7. Every file that the new list names and the zip did not bring comes from the installed
    // version, and only when that version's own list vouches for the same bytes.
    if (incremental_) {
        if (!oldFolder.exists()) {
            error = Errors::fileNotExists(oldFolder);
            SCache::mutate(
                [&](FConfig& config) { config.setStatus(name_, kPackStatusNeedReinstall); });
            fail(std::move(error));
            return;
        }
        std::vector<std::string> kept;
        Error refused = keptFiles(index, oldFolder, installer, kept);
        if (refused) {
            refuseIncrement(std::move(refused));
            return;
        }
        if (!installer.copyKept(oldFolder, kept, installedSize_, error)) {
            fail(std::move(error));
            return;
        }
    } else if (Error missing = missingFile(index, installer)) {
        fail(std::move(missing));
        return;
    }

    // 8. The version is complete: one step makes it the folder that the record will name.
    if (!installer.publish(error)) {
        fail(std::move(error));
        return;
    }
    if (installer.hasPendingTarget()) removeTempPath(tempPaths_, installer.target());
    persistOld_ = false;

    // 9. The swap.
    published_ = persist();
    installed_ = true;

    // 10. The replaced version goes, unless a record of its own keeps it.
    if (oldSeq_ != 0 && oldSeq_ != pack_->seq && !persistOld_) retiredFolder_ = oldFolder;

    // 11. Readers load the new list at their next match.
    ResourceIndexPool::remove(requestedName_);
    if (name_ != requestedName_) ResourceIndexPool::remove(name_);
    perf_.stage("updateFinished");
    finished();
}

Error UpdatePack::missingFile(const ResourceIndex& index, const PackInstaller& installer) const {
    Error missing;
    index.forEachFile([&](const ResourceRecord& record) {
        if (!missing && !installer.wrote(record.path))
            missing = Errors::fileNotExists(zipFile_.childOf(record.path));
    });
    return missing;
}

Error UpdatePack::keptFiles(const ResourceIndex& increment, const Folder& installed,
                            const PackInstaller& installer, std::vector<std::string>& kept) const {
    // The installed version as it is served, and the full list that the new version is read with
    // (the installed folder's, which goes with the kept files).
    const ResourceIndex current(name_, installed);
    if (current.error()) return current.error();
    const ResourceIndex full(
        name_,
        [&installed](const std::string& entry, Error& e) {
            return Folder::readFile(installed.childOf(entry), e);
        },
        false);
    if (full.error()) return full.error();
    kept.emplace_back(kIndexFileName);
    Error refused;
    // A file of the new version that the zip did not bring is kept when the installed list
    // names the same bytes for it.
    const auto keep = [&](const ResourceRecord& wanted) {
        if (refused || installer.wrote(wanted.path)) return;
        std::shared_ptr<const ResourceRecord> held = current.find(wanted.path);
        const Folder file = installed.childOf(wanted.path);
        if (!held || held->path != wanted.path) {
            refused = Errors::fileNotExists(file);
        } else if (held->md5 != wanted.md5) {
            refused = Errors::fileVerifyMd5(file, held->md5, wanted.md5);
        } else if (!held->sameFileAs(wanted)) {
            refused = Errors::fileVerifySize(file, held->size, wanted.size);
        } else {
            kept.push_back(wanted.path);
        }
    };
    // The increment's own records first: they override the full list's.
    increment.forEachFile(keep);
    full.forEachFile([&](const ResourceRecord& wanted) {
        if (increment.removed().count(wanted.path) != 0) return;
        std::shared_ptr<const ResourceRecord> listed = increment.find(wanted.path);
        if (!listed || listed->path != wanted.path) keep(wanted);
    });
    return refused;
}

void UpdatePack::refuseIncrement(Error why) {
    MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, LogTag::kUpdatePack)
        .event("incrementRefused", parentId_)
        .id(runId_)
        .append("url", url_)
        .append("message",
                "the installed version does not hold what the increment keeps; "
                "fetching the full zip")
        .error(why);
    perf_.setDimension("incrRefused", why.message());
    fullOnly_ = true;
    requestResource();
}

SCache::Committed UpdatePack::commitWatcher() {
    commit_ = std::make_shared<CommitOutcome>();
    return [outcome = commit_](const Error& error) {
        outcome->ran = true;
        outcome->error = error;
    };
}

FConfigPtr UpdatePack::persist() {
    // Durable: the replaced version's folder is deleted on the strength of this commit, and the
    // files of a version in the packed store become durable with it.
    return SCache::mutate(
        [&](FConfig& config) {
            std::string installName = name_;
            PackPtr found = config.find(name_);
            if (!found) {
                PackPtr plain;
                if (pack_->packType() == kPackTypeACache && pack_->subType == kSubTypeFixedSeq)
                    plain = config.find(requestedName_);
                if (plain && (!plain->isInstalled() ||
                              (plain->installedSeq < pack_->seq && !isHot(*plain)))) {
                    // The fixed version takes the place of the plain record, with its configured
                    // fields; the record replaces the plain one whole, as a merge would refuse an
                    // older sequence.
                    auto clone = plain->clone();
                    clone->seq = pack_->seq;
                    clone->baseSeq = pack_->baseSeq;
                    clone->publishTime = pack_->publishTime;
                    clone->flags = pack_->flags;
                    clone->marker = pack_->marker;
                    clone->md5 = pack_->md5;
                    clone->incrMd5 = pack_->incrMd5;
                    // As a merge does: a record that carries no prefixes leaves them unchanged.
                    if (!pack_->prefixes.empty()) clone->prefixes = pack_->prefixes;
                    clone->referrers = pack_->referrers;
                    clone->gray = pack_->gray;
                    if (pack_->updateTime > clone->updateTime)
                        clone->updateTime = pack_->updateTime;
                    if (pack_->status == kPackStatusPreview) {
                        clone->status = pack_->status;
                        clone->zipURL = pack_->zipURL;
                    }
                    config.put(std::move(clone));
                    installName = requestedName_;
                } else {
                    config.mergePack(pack_);
                }
            } else if (found->packType() == kPackTypeACache && found->subType == kSubTypePlain &&
                       found->isInstalled() && found->installedSeq != pack_->seq && isHot(*found)) {
                // A hot app keeps its old version alive under a record of its own.
                auto old = found->clone(Pack::pinnedName(name_, found->installedSeq));
                old->seq = found->installedSeq;
                old->baseSeq = found->installedSeq;
                old->subType = kSubTypeFixedSeq;
                old->md5.clear();
                old->incrMd5.clear();
                config.mergePack(std::move(old));
                persistOld_ = true;
            }
            config.setInstalled(installName, static_cast<uint32_t>(trigger_), pack_->seq,
                                pack_->baseSeq, installedSize_, isPacks_);
        },
        Durability::Durable, commitWatcher());
}

// ---- The end ----------------------------------------------------------------------------------

void UpdatePack::fail(Error error) {
    error_ = std::move(error);
    finished();
}

void UpdatePack::finished() {
    state_ = UpdateState::UpdateFinished;
    runnable_ = false;
    if (error_) perf_.setError(error_);

    std::vector<std::string> paths;
    paths.reserve(tempPaths_.size());
    for (const Folder& folder : tempPaths_) paths.push_back(folder.describe());
    MarlLogger::LogBuilder log(error_ ? MarlLogger::MRLLevelWarning : MarlLogger::MRLLevelInfo,
                               LogTag::kUpdatePack);
    if (log.active()) {
        log.event("finished", parentId_)
            .id(runId_)
            .append("name", name_)
            .append("oldSeq", oldSeq_)
            .append("trigger", triggerName(trigger_))
            .append("persistOld", persistOld_)
            .append("installedSize", installedSize_)
            .append("isPacks", isPacks_)
            .append("tempPaths", paths);
        if (pack_) log.append("newSeq", pack_->seq);
        if (error_) log.error(error_);
    }
    log.done();

    for (const Folder& folder : tempPaths_) Folder::removeFile(folder, false);
    tempPaths_.clear();
    if (retiredFolder_ && installed_) {
        // Posted after the commit of the swap, which the configuration transaction posted
        // first: the old files go only once the store names the new version on the disk. A
        // commit that failed leaves the store naming the old version, whose files a restart then
        // needs; what no record owns any more goes with the next recovery.
        Folder retired = *retiredFolder_;
        std::shared_ptr<const CommitOutcome> outcome = commit_;
        TaskRunner::post(
            [retired, outcome] {
                if (outcome && outcome->ran && !outcome->error) {
                    Folder::removeFile(retired, false);
                    return;
                }
                MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, LogTag::kUpdatePack)
                    .event("retire")
                    .append("folder", retired.describe())
                    .append("message", "kept: the store does not name the new version");
            },
            kRetiredFolderDelayMs);
    }
    retiredFolder_.reset();

    // The host hears of the new version once the commit that names it has run.
    if (installed_) {
        TaskRunner::post([name = requestedName_] { ProxyCalls::onPackUpdated(name); });
    }
    if (pack_) {
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
    tellListeners();
}

}  // namespace FerritCore
