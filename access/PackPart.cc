#include "access/PackPart.h"

#include <charconv>
#include <cinttypes>

#include "access/ResponseMemory.h"
#include "access/UpdateRequester.h"
#include "base/Digest.h"
#include "base/Environment.h"
#include "base/Errors.h"
#include "base/Http.h"
#include "base/LogTags.h"
#include "base/Proxy.h"
#include "base/Telemetry.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "model/SCache.h"
#include "runtime/Settings.h"
#include "runtime/TaskRunner.h"
#include "storage/Statistics.h"

namespace FerritCore {
namespace {

constexpr double kVisitUpdateDelayMs = 5000.0;

// Asks for a newer version a little later, so that the read in progress is not slowed.
void postVisitUpdate(const std::string& packName) {
    TaskRunner::post([packName] { requestUpdate(packName, kTriggerVisitUpdate); },
                     kVisitUpdateDelayMs);
}

// Forgets the installation of a fixed-URL app pack whose files are gone.
void postForgetInstall(const std::string& packName, uint64_t installedSeq) {
    if (!Environment::instance().isMainProcess()) return;
    TaskRunner::post([packName, installedSeq] {
        SCache::mutate([&](FConfig& config) {
            PackPtr old = config.find(packName);
            // Another process may have installed a new version since: that one is not lost.
            if (!old || old->installedSeq == 0 || old->installedSeq != installedSeq) return;
            auto pack = std::make_shared<Pack>(*old);
            pack->installedSeq = 0;
            pack->installedBaseSeq = 0;
            pack->installedSize = 0;
            pack->installTime = 0;
            config.put(std::move(pack));
        });
    });
}

// The folder of resources of a fixed-URL app pack must hold something.
Error checkResourcesFolder(const Pack& pack) {
    const Folder resources = pack.resourcesFolder();
    if (!resources.isEmpty()) return Error();
    postForgetInstall(pack.name, pack.installedSeq);
    return Errors::filesNotFound(resources);
}

char typeLetter(const Pack& pack) {
    switch (pack.packType()) {
        case kPackTypeACache:
            return 'A';
        case kPackTypeSCache:
            return 'S';
        case kPackTypeFerrit:
            return 'F';
        default:
            return 'D';
    }
}

// A file is served only as its signed list states it. An empty file is content when the list
// names it empty, and damage otherwise (the read's own 1103); a file of another length than the
// list's is treated as a missing one (3109), so that the pack is installed again and the host goes
// to the network meanwhile. `content` is emptied when the file is refused.
// `fileOf` gives the file's folder, which a hit does not otherwise need and which is made only
// when the file is refused.
template <typename FileOf>
void checkContent(const std::string& matchText, const ResourceRecord& record, const FileOf& fileOf,
                  std::string& content, Error& error) {
    if (Errors::isNoData(error) && record.isEmptyFile()) error.clear();
    if (error || record.fits(content.size())) return;
    const Folder& file = fileOf();
    MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, LogTag::kRead)
        .event("sizeMismatch")
        .append("path", file.describe())
        .append("size", static_cast<uint64_t>(content.size()))
        .append("expected", record.size);
    error = Errors::packFileNotFound(matchText, file);
    content.clear();
}

}  // namespace

void postReinstall(const Pack& damaged) {
    if (!Environment::instance().isMainProcess()) return;
    TaskRunner::post([packName = damaged.name, installedSeq = damaged.installedSeq] {
        SCache::mutate([&](FConfig& config) {
            PackPtr old = config.find(packName);
            // The transaction starts from what is stored: when another process has installed
            // another version meanwhile, the damage was that of the version it replaced.
            if (!old || old->installedSeq != installedSeq) return;
            auto pack = std::make_shared<Pack>(*old);
            pack->setStatus(kPackStatusNeedReinstall);
            if (pack->status != old->status) config.put(std::move(pack));
        });
    });
}

// ---- PackMatch ----

PackMatch::PackMatch(const FConfig& config, PackPtr packPtr, bool pinnedMatch)
    : name(packPtr->name),
      configVersion(config.version),
      pinned(pinnedMatch),
      pack(std::move(packPtr)) {
    const Pack& p = *pack;
    if (p.installedSeq == 0) {
        error = p.status == kPackStatusEliminated ? Errors::eliminated(p.name)
                                                  : Errors::notInstalled(p.name);
    } else if (p.packType() != kPackTypeSCache && p.subType == kSubTypePlain && !pinned &&
               p.installedSeq < p.minSeq) {
        error = Errors::seqTooLow(p.name, p.installedSeq, p.minSeq);
    } else if (p.minSeq != 0 &&
               p.isOutOfDate(config.lastUpdate,
                             Settings::current()->configOutOfDateIntervalValue())) {
        error = Errors::outOfDate(p.name, p.updateTime);
    }
    if (error) {
        // The pack cannot serve as it is: ask for it now.
        followUp_ = FollowUp::kUpdate;
        return;
    }
    if (p.packType() == kPackTypeACache && p.subType == kSubTypeFixedUrl) {
        error = checkResourcesFolder(p);
        return;
    }
    const bool needsUpdate = p.installedSeq < p.seq;
    index = ResourceIndexPool::get(pack);
    if (index->error()) {
        error = index->error();
        followUp_ = FollowUp::kReinstall;
        return;
    }
    if (p.packType() == kPackTypeACache) {
        error = checkResourcesFolder(p);
        if (error) return;
    }
    if (needsUpdate) followUp_ = FollowUp::kVisitUpdate;
}

void PackMatch::requestFollowUp() {
    const FollowUp followUp = followUp_;
    followUp_ = FollowUp::kNone;
    switch (followUp) {
        case FollowUp::kNone:
            return;
        case FollowUp::kUpdate:
            requestUpdate(pack->name, kTriggerVisit);
            return;
        case FollowUp::kReinstall:
            postReinstall(*pack);
            return;
        case FollowUp::kVisitUpdate:
            postVisitUpdate(pack->name);
            return;
    }
}

PackMatch::PackMatch(std::string matchName, Error matchError)
    : name(std::move(matchName)), error(std::move(matchError)) {}

const std::string& PackMatch::info() {
    if (!info_.empty()) return info_;
    if (!pack) {
        info_.append("D:").append(name).append("@0");
    } else if (pack->subType == kSubTypeFixedUrl) {
        info_ = "H:" + pack->appName();
    } else {
        info_.push_back(typeLetter(*pack));
        info_.push_back(':');
        info_.append(pack->name);
        if (pack->subType != kSubTypeFixedSeq) {
            info_.push_back('@');
            info_.append(std::to_string(pack->installedSeq));
        }
    }
    return info_;
}

// ---- PackPart ----

PackPart::PackPart(std::shared_ptr<RequestContext> contextPtr, std::string partUrl,
                   std::shared_ptr<PackMatch> packMatch)
    : ResourcePart(std::move(contextPtr), std::move(partUrl), packMatch->info()),
      match(std::move(packMatch)),
      createTime_(match->readyTime > 0 ? match->readyTime : MRLCurrentClock()) {
    const bool main = Environment::instance().isMainProcess();
    if (match->error) {
        error = match->error;
    } else if (isOnDemand() && !main) {
        error = Errors::subProcessUpdateDisabled();
    } else if (!match->index) {
        // A pack served without a resource list (a fixed-URL app) has no record for any URL.
        error = Errors::notFerritPackResource(name);
    } else {
        record = match->index->find(url);
        if (record) {
            // An on-demand file is never there before its module is loaded. A file of a folder
            // that the index holds open is checked by opening it, and read from that open.
            // The held folder's open refuses a name that would leave it; the name is checked
            // here only when nothing opened, before a path is made of it (once on a hit).
            const OpenDirectory* directory = match->index->directory();
            if (directory != nullptr) opened_ = HeldFile(directory->openFile(record->path));
            if (!opened_.isOpen()) {
                if (Error refused = OpenDirectory::checkName(record->path))
                    error = std::move(refused);
            }
            if (!error && !isOnDemand() && !opened_.isOpen() && !file().exists()) {
                error = Errors::packFileNotFound(name, file());
                postReinstall(*match->pack);
            }
        } else {
            error = Errors::notFerritPackResource(name);
            const Pack& p = *match->pack;
            const uint32_t type = p.packType();
            if (p.installedSeq < p.seq && (type == kPackTypeDefault || type == kPackTypeFerrit ||
                                           (type == kPackTypeACache && p.subType == kSubTypePlain)))
                postVisitUpdate(p.name);
        }
    }
    if (!match->name.empty()) {
        const bool versioned =
            match->pinned && match->pack && match->pack->subType == kSubTypePlain;
        firstVisit =
            versioned
                ? Statistics::addAccess(Pack::pinnedName(match->name, match->pack->installedSeq),
                                        &accessCount_, 1.0, createTime_)
                : Statistics::addAccess(match->name, &accessCount_, 1.0, createTime_);
    }
}

void PackPart::reportVisit(std::optional<double> end) {
    if (Errors::isNotFerritResource(error) || !ProxyCalls::takesEvents()) return;
    AppVisit visit;
    visit.trigger = context ? context->trigger : kTriggerNone;
    visit.visitType = firstVisit ? "NF" : "N";
    visit.error = &error;
    visit.time = (end ? *end : MRLCurrentClock()) - createTime_;
    visit.readFileTime = readFileTime;
    visit.accessCount = accessCount_;
    sendAppVisit(*match, visit);
}

void sendAppVisit(const PackMatch& match, const AppVisit& visit) {
    // Built on every hit that a proxy sees: the thread's record is built again in place, and
    // each text is copied from where it lies (the pack's name, digits on the stack).
    thread_local ReusedRecord::Slot slot;
    ReusedRecord record(slot, "Ferrit.AppVisit");
    const Pack* pack = match.pack.get();
    record->copyDimension("appName",
                          pack != nullptr ? pack->appNameView() : std::string_view(match.name));
    char digits[24];
    const auto written =
        std::to_chars(digits, digits + sizeof(digits), pack != nullptr ? pack->installedSeq : 0);
    record->copyDimension("packSeq", std::string_view(digits, written.ptr));
    record->copyDimension("trigger", triggerName(visit.trigger));
    record->copyDimension("installed", pack != nullptr && pack->isInstalled() ? "true" : "false");
    record->copyDimension("visitType", visit.visitType);
    record->copyDimension("configVersion", match.configVersion);
    if (visit.error != nullptr && *visit.error) record->setError(*visit.error);
    record->setMeasure("time", visit.time);
    record->setMeasure("matchTime", match.matchTime);
    if (visit.readFileTime) record->setMeasure("readFileTime", *visit.readFileTime);
    record->setMeasure("accessCount", visit.accessCount);
    sendEvent(*record);
}

bool PackPart::isOnDemand() const {
    return match->pack && match->pack->isBuiltIn() && match->pack->isOnDemand;
}

HeaderMap PackPart::header() const {
    HeaderMap out;
    // Room for what the response adds too, so that the map's buckets are made once.
    out.reserve((record ? record->header.size() : 0) + 6);
    if (record) out.insert(record->header.begin(), record->header.end());
    const std::string& contentType = Http::headerName(Http::kContentType);
    if (Http::headerValue(out, contentType).empty()) {
        const std::string_view mime = Http::mimeView(
            url.empty() ? std::string_view(file().relative()) : std::string_view(url));
        if (!mime.empty()) {
            std::string value(mime);
            if (mime.starts_with("text/")) value.append(";charset=UTF-8");
            out[contentType] = std::move(value);
        }
    }
    return out;
}

const Folder& PackPart::file() const {
    if (!file_) {
        if (!record) {
            file_.emplace();
        } else if (const Folder* folder = match->index ? match->index->folder() : nullptr) {
            file_ = folder->childOf(record->path);
        } else {
            // Only an index that was not read from a folder (an embedded one) needs the pack's.
            file_ = match->pack->installedFolder().childOf(record->path);
        }
    }
    return *file_;
}

bool PackPart::fileExists() const {
    if (!record) return false;
    const OpenDirectory* directory = match->index ? match->index->directory() : nullptr;
    if (directory != nullptr && directory->hasFile(record->path)) return true;
    return file().exists();
}

bool PackPart::readFile() {
    const double start = readStart > 0 ? readStart : MRLCurrentClock();
    const auto fileOf = [this]() -> const Folder& { return file(); };
    // What the match opened is read, unless the file lost its last link since (it was removed
    // or replaced): the file is read as it is when it is read. Any failure, that one included,
    // reads the whole path again, which gives each failure its own error.
    if (opened_.readAndClose(content) != 0 || (content.empty() && !record->isEmptyFile())) {
        content = Folder::readFile(file(), error);
        checkContent(name, *record, fileOf, content, error);
    } else {
        error.clear();
        checkContent(name, *record, fileOf, content, error);
    }
    readEnd = MRLCurrentClock();
    readFileTime = readEnd - start;
    return !error;
}

ReadStatus PackPart::read() {
    if (error) return ReadStatus::Failed;
    if (isOnDemand()) {
        error = Errors::readAsyncOnly(file());
        return ReadStatus::NeedAsync;
    }
    if (readFile()) return ReadStatus::Done;
    if ((Errors::isFileMissing(error) || Errors::isPackFileNotFound(error)) && match->pack)
        postReinstall(*match->pack);
    return ReadStatus::Failed;
}

ReadStatus PackPart::readInto(ResponseMemory& memory) {
    if (error || isOnDemand() || !opened_.isOpen()) return read();
    const double start = readStart > 0 ? readStart : MRLCurrentClock();
    char* placed = nullptr;
    // A size that the signed list refuses is read the usual way, which says why.
    const auto allocate = [&](size_t size) -> char* {
        if (!record->fits(size)) return nullptr;
        placed = memory.allocate(size);
        return placed;
    };
    size_t size = 0;
    if (opened_.readIntoAndClose(allocate, size) != 0) return read();
    memory.setFilled(placed, size);
    readEnd = MRLCurrentClock();
    readFileTime = readEnd - start;
    return ReadStatus::Done;
}

void PackPart::readAsync(std::function<void(std::shared_ptr<ResourcePart>)> callback) {
    if (!callback) return;
    std::shared_ptr<ResourcePart> self = shared_from_this();
    // A synchronous attempt on an on-demand pack leaves 1108 behind; that is what this call is for.
    if (error && !(isOnDemand() && Errors::isReadAsyncOnly(error))) {
        callback(self);
        return;
    }
    if (!isOnDemand()) {
        read();
        callback(self);
        return;
    }
    // On-demand files are read through the module loader, which may finish on another thread,
    // perhaps after the request has ended: the visit is reported once the read is done with the
    // part.
    holdForRead();
    callback = [inner = std::move(callback)](const std::shared_ptr<ResourcePart>& part) {
        inner(part);
        part->releaseAfterRead();
    };
    error.clear();
    const std::string readId = MRLGenerateID(TracePrefix::kRead);
    const double start = MRLCurrentClock();
    if (Settings::current()->onDemandEnabledValue()) {
        MarlLogger::LogBuilder log(MarlLogger::MRLLevelInfo, LogTag::kRead);
        if (log.active()) {
            log.event("start", context->traceId())
                .id(readId)
                .append("type", "OnDemandResource")
                .append("path", file().describe());
        }
    }
    Folder::readFileAsync(file(), [self, this, readId, start, callback = std::move(callback)](
                                      std::string data, Error e) {
        const auto fileOf = [this]() -> const Folder& { return file(); };
        readFileTime = MRLCurrentClock() - start;
        {
            MarlLogger::LogBuilder log(MarlLogger::MRLLevelInfo, LogTag::kRead);
            if (log.active()) {
                log.event("finish", context->traceId())
                    .id(readId)
                    .append("path", file().describe())
                    .append("time", readFileTime);
                if (e) log.error(e);
            }
        }
        if (!e && record) checkContent(name, *record, fileOf, data, e);
        if (!e) {
            content = std::move(data);
            error.clear();
            callback(self);
            return;
        }
        error = std::move(e);
        tryBackup(/*retry=*/false, callback);
    });
}

void PackPart::tryBackup(bool retry, Callback callback) {
    std::shared_ptr<ResourcePart> self = shared_from_this();
    const Pack& pack = *match->pack;
    const std::string backupName = Pack::pinnedName(pack.name, pack.installedSeq);
    const FConfigPtr config = SCache::current();
    std::shared_ptr<PackMatch> backup;
    if (PackPtr backupPack = config->find(backupName)) {
        backup = std::make_shared<PackMatch>(*config, std::move(backupPack), /*pinned=*/true);
        backup->requestFollowUp();
    }
    if (backup && !backup->error && backup->index) {
        std::shared_ptr<const ResourceRecord> backupRecord = backup->index->find(url);
        if (!backupRecord) {
            error = Errors::backupNotFound(name, url);
            callback(self);
            return;
        }
        const double start = MRLCurrentClock();
        const Folder backupFile = backup->pack->installedFolder().childOf(backupRecord->path);
        content = Folder::readFile(backupFile, error);
        checkContent(
            name, *backupRecord, [&]() -> const Folder& { return backupFile; }, content, error);
        readFileTime += MRLCurrentClock() - start;
        if (error) postReinstall(*backup->pack);
        callback(self);
        return;
    }
    if (retry) {
        error = backup && backup->error ? backup->error : Errors::backupNotFound(name, url);
        callback(self);
        return;
    }
    // No usable copy yet: fetch it, then try once more. The queue may answer on any thread.
    requestUpdate(backupName, kTriggerVisit, [self, this, callback](const Error& fetchError) {
        if (fetchError) {
            error = fetchError;
            callback(self);
            return;
        }
        tryBackup(/*retry=*/true, callback);
    });
}

void PackPart::appendTo(std::string& out, unsigned& crc) {
    crc = Digest::crc32(content);
    out.append(content);
}

void PackPart::moveTo(std::string& out, unsigned* crc) {
    if (crc != nullptr) *crc = Digest::crc32(content);
    if (out.empty()) {
        out = std::move(content);
    } else {
        out.append(content);
    }
    content.clear();
}

}  // namespace FerritCore
