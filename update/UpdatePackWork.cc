#include "update/UpdatePackWork.h"

#include <cinttypes>
#include <cstdio>
#include <optional>

#include "base/Digest.h"
#include "base/Environment.h"
#include "base/Errors.h"
#include "model/ResourceIndex.h"
#include "runtime/Settings.h"
#include "runtime/WorkerCheck.h"
#include "update/Cleanup.h"
#include "update/PatchedEntries.h"
#include "update/UpdatePack.h"
#include "update/WrappedPayload.h"

namespace FerritCore {

namespace {

// The two further files of a pack zip that are not resources.
constexpr std::string_view kIndexEntry = kIndexFileName;
constexpr std::string_view kInfoEntry = "app-info.hvc";
// The download inside the run's temporary folder.
constexpr std::string_view kDownloadName = "origin.zip";
// Bits 16 and 17 of the flags, where the payload kind sits.
constexpr uint64_t kPayloadKindMask = 0x30000;

// A pack name becomes a folder name under "temp/" and "apps/": it must stay one piece.
bool isFolderSafe(const std::string& name) {
    return !name.empty() && name.find('/') == std::string::npos &&
           name.find('\\') == std::string::npos && name != "." && name != ".." &&
           name.find('\0') == std::string::npos;
}

// A pack whose record names no zip of its own is fetched from the pack server; without one
// nothing is sent, and the words say which setting the host left out.
Error serverError(const Pack& pack) {
    if (pack.status == kPackStatusPreview || pack.subType == kSubTypeFixedUrl) return Error();
    const int32_t env = Environment::instance().env();
    if (!Settings::current()->zipPrefixFor(pack.packType(), env).empty()) return Error();
    return Errors::noServerAddress("pack server", Settings::zipPrefixKey(pack.packType(), env));
}

bool hasOwnZip(const Pack& pack) {
    return pack.status == kPackStatusPreview || pack.subType == kSubTypeFixedUrl;
}

// The payload kind a download of `pack` from the pack server comes in.
uint32_t payloadKindOf(const Pack& pack, const Settings& settings) {
    // "Debug" reads the pre-release configuration, which never asks for wrapped payloads.
    if (settings.encryptionTypeValue() == 0 || Environment::instance().env() == kEnvDebug) return 0;
    return static_cast<uint32_t>(pack.flags & kPayloadKindMask);
}

// The folder of each form beside the pack's root on the pack server.
const char* formFolder(UpdateForm form) {
    switch (form) {
        case UpdateForm::Patched:
            return "/p/";
        case UpdateForm::Incremental:
            return "/i/";
        case UpdateForm::Full:
            break;
    }
    return "/";
}

void addAddress(const Pack& pack, UpdateForm form, DownloadPlan& plan) {
    if (hasOwnZip(pack)) {
        plan.url = pack.zipURL;
        return;
    }
    plan.url = Settings::current()->zipPrefixFor(pack.packType());
    plan.url.append(pack.rootName()).append(formFolder(form));
    plan.url.append(std::to_string(pack.seq));
    plan.url.append(plan.payloadKind == kWrappedPayloadKind ? ".png" : ".zip");
}

// Streams the entries of a pack zip into the new version, each to its file in pieces and checked
// against the signed list as it goes: a file whose bytes do not match is given up before the
// version could be published.
class EntryWriter {
  public:
    // `patches`, for a patched increment, takes its "patch/" entries.
    EntryWriter(PackInstaller& installer, const ResourceIndex& index, const Folder& zipFile,
                bool incremental, PatchedEntries* patches)
        : installer_(installer),
          index_(index),
          zipFile_(zipFile),
          incremental_(incremental),
          patches_(patches) {}

    bool begin(const std::string& entry, uint64_t size) {
        record_.reset();
        patching_ = false;
        skip_ = entry == kInfoEntry;
        length_ = 0;
        if (entry.ends_with('/')) {
            skip_ = true;
            // The patches' folders name no folder of the version.
            if (PatchedEntries::isPatch(entry)) return true;
            error_ = installer_.makeDirectory(entry);
            return !error_;
        }
        if (skip_) return true;
        if (patches_ != nullptr && PatchedEntries::isPatch(entry)) {
            patching_ = true;
            error_ = patches_->begin(entry);
            return !error_;
        }
        bytes_ += size;
        if (entry == kIndexEntry) {
            error_ = installer_.beginFile(
                std::string(incremental_ ? kIncrementIndexFileName : kIndexFileName));
            return !error_;
        }
        inZip_ = zipFile_.childOf(entry);
        record_ = index_.find(entry);
        if (!record_ || record_->path != entry) {
            error_ = Errors::preloadNotFound(inZip_);
            return false;
        }
        // The recorded size is judged, as the content will be, before a byte is inflated.
        if (size == 0 && !record_->isEmptyFile()) {
            error_ = Errors::fileNoData(inZip_);
            return false;
        }
        if (!record_->fits(size)) {
            error_ = Errors::fileVerifySize(inZip_, size, record_->size);
            return false;
        }
        error_ = installer_.beginFile(entry);
        return !error_;
    }

    bool write(std::string_view piece) {
        if (skip_) return true;
        if (patching_) {
            error_ = patches_->write(piece);
            return !error_;
        }
        length_ += piece.size();
        if (record_) md5_.update(piece);
        error_ = installer_.appendFile(piece);
        return !error_;
    }

    bool end() {
        if (skip_) return true;
        if (patching_) {
            error_ = patches_->end();
            return !error_;
        }
        // The MD5 that the bytes were checked against goes with them: the packed store keeps
        // content under it, and only ever under one that was checked.
        std::string checked;
        if (record_) {
            checked = md5_.finishHex();
            error_ = record_->checkDigest(inZip_, length_, checked);
            if (error_) {
                installer_.abandonFile();
                return false;
            }
        }
        error_ = installer_.endFile(checked);
        return !error_;
    }

    // Bytes the entries record, as far as the walk went.
    uint64_t bytes() const { return bytes_; }
    const Error& error() const { return error_; }

  private:
    PackInstaller& installer_;
    const ResourceIndex& index_;
    const Folder& zipFile_;
    const bool incremental_;
    PatchedEntries* const patches_;
    bool patching_ = false;
    Error error_;
    std::shared_ptr<const ResourceRecord> record_;
    Folder inZip_;
    bool skip_ = false;
    uint64_t length_ = 0;
    uint64_t bytes_ = 0;
    Digest::Md5 md5_;
};

// A fixed version takes the place of the plain record `plain`, with the configured fields of
// `pack`; the record replaces the plain one whole, as a merge would refuse an older sequence.
PackPtr takePlace(const Pack& plain, const Pack& pack) {
    auto clone = plain.clone();
    clone->seq = pack.seq;
    clone->baseSeq = pack.baseSeq;
    clone->publishTime = pack.publishTime;
    clone->flags = pack.flags;
    clone->marker = pack.marker;
    clone->md5 = pack.md5;
    clone->incrMd5 = pack.incrMd5;
    clone->patchMd5 = pack.patchMd5;
    // As a merge does: a record that carries no prefixes leaves them unchanged.
    if (!pack.prefixes.empty()) clone->prefixes = pack.prefixes;
    clone->referrers = pack.referrers;
    clone->gray = pack.gray;
    if (pack.updateTime > clone->updateTime) clone->updateTime = pack.updateTime;
    if (pack.status == kPackStatusPreview) {
        clone->status = pack.status;
        clone->zipURL = pack.zipURL;
    }
    return clone;
}

// A hot app's installed version, kept alive under a record of its own.
PackPtr oldVersion(const Pack& found, const std::string& name) {
    auto old = found.clone(Pack::pinnedName(name, found.installedSeq));
    old->seq = found.installedSeq;
    old->baseSeq = found.installedSeq;
    old->subType = kSubTypeFixedSeq;
    old->md5.clear();
    old->incrMd5.clear();
    old->patchMd5.clear();
    return old;
}

// Inside the publishing transaction: puts the record of `job` in place and returns the name
// under which the new version is installed.
std::string placeRecord(FConfig& config, const UpdatePackWork::Job& job, bool& persistOld) {
    const Pack& pack = *job.pack;
    PackPtr found = config.find(job.name);
    if (found) {
        if (found->packType() == kPackTypeACache && found->subType == kSubTypePlain &&
            found->isInstalled() && found->installedSeq != pack.seq && UpdatePack::isHot(*found)) {
            config.mergePack(oldVersion(*found, job.name));
            persistOld = true;
        }
        return job.name;
    }
    PackPtr plain;
    if (pack.packType() == kPackTypeACache && pack.subType == kSubTypeFixedSeq)
        plain = config.find(job.requestedName);
    if (plain &&
        (!plain->isInstalled() || (plain->installedSeq < pack.seq && !UpdatePack::isHot(*plain)))) {
        config.put(takePlace(*plain, pack));
        return job.requestedName;
    }
    config.mergePack(job.pack);
    return job.name;
}

// A fresh outcome for a publishing commit, and the callback that fills it.
SCache::Committed watch(std::shared_ptr<CommitOutcome>& outcome) {
    outcome = std::make_shared<CommitOutcome>();
    return [outcome](const Error& error) {
        outcome->ran = true;
        outcome->error = error;
    };
}

}  // namespace

// ---- Download ---------------------------------------------------------------------------------

const char* updateFormName(UpdateForm form) {
    switch (form) {
        case UpdateForm::Patched:
            return "patched";
        case UpdateForm::Incremental:
            return "incremental";
        case UpdateForm::Full:
            break;
    }
    return "full";
}

uint32_t UpdatePackWork::payloadKind(const Pack& pack) {
    return hasOwnZip(pack) ? 0 : payloadKindOf(pack, *Settings::current());
}

bool UpdatePackWork::mayPatch(const Pack& pack, uint32_t payloadKind) {
    return !pack.patchMd5.empty() && !hasOwnZip(pack) && payloadKind == 0;
}

DownloadPlan UpdatePackWork::planDownload(const Pack& pack, const std::string& name,
                                          UpdateForm form, uint32_t payloadKind) {
    assertOnWorker();
    DownloadPlan plan;
    plan.payloadKind = payloadKind;
    if ((plan.error = serverError(pack))) return plan;
    // Each form has its folder: a refused form's leftovers never meet the next form's download.
    char folder[64];
    std::snprintf(folder, sizeof(folder), "_%" PRIu64 "_%u/", pack.seq,
                  static_cast<unsigned>(form));
    const std::string relative = "temp/" + name + folder;
    if (!isFolderSafe(name) || !isFolderSafe(pack.rootName())) {
        plan.error = Errors::unzipTempPath(relative);
        return plan;
    }
    plan.tempFolder = Folder::disk(relative);
    Folder::removeFile(plan.tempFolder, Removal::kRecreate);
    addAddress(pack, form, plan);
    plan.zipFile = plan.tempFolder.childOf(kDownloadName);
    return plan;
}

Folder UpdatePackWork::newVersionFolder(const Pack& pack) {
    char seq[32];
    std::snprintf(seq, sizeof(seq), "%" PRIu64, pack.seq);
    const std::string relative = pack.rootName() + "/" + seq + "/";
    if (pack.packType() == kPackTypeACache) return Folder::disk("apps/" + relative);
    return Folder::packed(relative);
}

// ---- Verify and unpack ------------------------------------------------------------------------

UpdatePackWork::UpdatePackWork(Job job, StagedRecord& perf) : job_(std::move(job)), perf_(perf) {}

UpdatePackWork::~UpdatePackWork() = default;

Error UpdatePackWork::readDownload() {
    Error error;
    data_ = Folder::readFile(job_.zipFile, error);
    if (error) return error;
    UnwrapContext context{job_.pack, job_.payloadKind, std::string(), job_.zipFile};
    if (!unwrap(context, data_, error)) return error;
    perf_.stage("decrypted");
    // Fixed sequences are taken as they come.
    const Pack& pack = *job_.pack;
    const std::string& expected =
        job_.patched ? pack.patchMd5 : (job_.incremental ? pack.incrMd5 : pack.md5);
    if (expected.empty()) return Error();
    const std::string md5 = context.md5.empty() ? Digest::md5Hex(data_) : context.md5;
    if (md5 != expected && pack.subType != kSubTypeFixedSeq)
        return Errors::fileVerifyMd5(job_.zipFile, md5, expected);
    return Error();
}

Error UpdatePackWork::openZip() {
    Error error;
    zip_ = ZipFile::open(job_.zipFile, data_, error);
    if (!zip_) return error;
    // The signed list first: nothing is written for a zip whose list does not verify.
    index_ = std::make_unique<ResourceIndex>(
        job_.name, [this](const std::string& entry, Error& e) { return zip_.readEntry(entry, e); },
        job_.incremental);
    if (index_->error()) return index_->error();
    // Nothing is written for a zip that would not fit: what its entries record is checked
    // against the room the budget leaves, before the first byte goes to the disk.
    return roomError();
}

const ResourceIndex& UpdatePackWork::installedList() {
    if (!installedList_)
        installedList_ = std::make_unique<ResourceIndex>(job_.name, job_.installed);
    return *installedList_;
}

// What the patches this device will apply make: a patch's entry records its own few bytes, not
// the file's.
uint64_t UpdatePackWork::patchedBytes() {
    const ResourceIndex& installed = installedList();
    // Without a list nothing applies: the walk refuses the patches.
    if (installed.error()) return 0;
    uint64_t total = 0;
    index_->forEachFile([&](const ResourceRecord& wanted) {
        if (!wanted.hasSize()) return;
        std::shared_ptr<const ResourceRecord> held = installed.find(wanted.path);
        // The walk applies the same entry, by the same rule.
        const std::string entry = PatchedEntries::applicableEntry(held.get(), wanted);
        if (!entry.empty() && zip_.hasEntry(entry)) total += wanted.size;
    });
    return total;
}

Error UpdatePackWork::roomError() {
    uint64_t declared = 0;
    Error error;
    if (!zip_.declaredSize(declared, error)) return error;
    if (job_.patched) declared += patchedBytes();
    uint64_t limit = 0;
    const char* limitName = "";
    const uint64_t room = Cleanup::roomFor(*job_.pack, job_.trigger, limit, limitName);
    if (declared <= room) return Error();
    char cause[256];
    std::snprintf(cause, sizeof(cause),
                  "\"%s\" inflates to %" PRIu64 " bytes, above the %" PRIu64
                  " bytes left of its budget of %" PRIu64 " (\"%s\")",
                  job_.name.c_str(), declared, room, limit, limitName);
    return Errors::tooManyApps(cause);
}

Unpacked UpdatePackWork::unpack() {
    assertOnWorker();
    Unpacked result;
    if ((result.error = readDownload())) return result;
    if ((result.error = openZip())) return result;
    installer_.emplace(newVersionFolder(*job_.pack), job_.tempFolder);
    installer_->begin();
    result.began = true;
    if (installer_->hasPendingTarget()) result.pendingTarget = installer_->target();
    result.isPacks = installer_->isPacked();
    writeEntries(result);
    return result;
}

void UpdatePackWork::writeEntries(Unpacked& result) {
    std::optional<PatchedEntries> patches;
    if (job_.patched)
        patches.emplace(*installer_, *index_, installedList(), job_.installed, job_.zipFile);
    EntryWriter writer(*installer_, *index_, job_.zipFile, job_.incremental,
                       patches ? &*patches : nullptr);
    ZipFile::EntryStream stream;
    stream.begin = [&writer](const std::string& entry, uint64_t size) {
        return writer.begin(entry, size);
    };
    stream.write = [&writer](std::string_view piece) { return writer.write(piece); };
    stream.end = [&writer]() { return writer.end(); };
    Error error;
    const bool walked = zip_.forEachEntryStreamed(stream, error);
    installer_->abandonFile();
    result.installedSize = writer.bytes() + (patches ? patches->bytes() : 0);
    perf_.stage("unzipped");
    perf_.setMeasure("resSize", static_cast<double>(result.installedSize));
    if (patches) {
        result.patchMemory = patches->peakMemory();
        patchedPaths_ = patches->paths();
    }
    if (error) {
        result.error = std::move(error);
    } else if (!walked || writer.error()) {
        result.error = writer.error();
    } else if (patches) {
        result.error = patches->unresolved();
    }
}

Unpacked UpdatePackWork::unpackRaw() {
    assertOnWorker();
    installer_.emplace(newVersionFolder(*job_.pack), job_.tempFolder);
    installer_->begin();
    Unpacked result;
    data_ = Folder::readFile(job_.zipFile, result.error);
    if (!result.error) zip_ = ZipFile::open(job_.zipFile, data_, result.error);
    if (!result.error) result.error = roomError();
    if (result.error) return result;
    result.began = true;
    result.installedSize = zip_.extractTo(installer_->writeRoot().childOf("res/"), result.error);
    perf_.stage("unzipped");
    perf_.setMeasure("resSize", static_cast<double>(result.installedSize));
    if (!result.error) result.error = publish();
    return result;
}

// ---- Copy -------------------------------------------------------------------------------------

Error UpdatePackWork::missingFile() const {
    Error missing;
    index_->forEachFile([&](const ResourceRecord& record) {
        if (!missing && !installer_->wrote(record.path))
            missing = Errors::fileNotExists(job_.zipFile.childOf(record.path));
    });
    return missing;
}

Kept UpdatePackWork::copyKept(const Folder& installed) {
    assertOnWorker();
    Kept result;
    if (!installed.exists()) {
        result.error = Errors::fileNotExists(installed);
        SCache::mutate(
            [&](FConfig& config) { config.setStatus(job_.name, kPackStatusNeedReinstall); });
        return result;
    }
    // Every file that the new list names and the zip did not bring comes from the installed
    // version, and only when that version's own list vouches for the same bytes.
    std::vector<std::string> kept;
    std::string refusedPath;
    if ((result.refused = keptFiles(installed, kept, refusedPath))) {
        result.incrementBringsIt = patchedPaths_.count(refusedPath) != 0;
        return result;
    }
    result.error = installer_->copyKept(installed, kept, result.bytes);
    return result;
}

Error UpdatePackWork::keptFiles(const Folder& installed, std::vector<std::string>& kept,
                                std::string& refusedPath) {
    // The installed version as it is served (read once for the job: the patches and the budget
    // read it too), and the full list that the new version is read with (the installed folder's,
    // which goes with the kept files).
    std::optional<ResourceIndex> other;
    if (installed != job_.installed) other.emplace(job_.name, installed);
    const ResourceIndex& current = other ? *other : installedList();
    if (current.error()) return current.error();
    const ResourceIndex full(
        job_.name,
        [&installed](const std::string& entry, Error& e) {
            return Folder::readFile(installed.childOf(entry), e);
        },
        /*allowMissingMd5=*/false);
    if (full.error()) return full.error();
    kept.emplace_back(kIndexFileName);
    Error refused;
    // A file of the new version that the zip did not bring is kept when the installed list
    // names the same bytes for it.
    const auto keep = [&](const ResourceRecord& wanted) {
        if (refused || installer_->wrote(wanted.path)) return;
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
        if (refused) refusedPath = wanted.path;
    };
    // The increment's own records first: they override the full list's.
    const ResourceIndex& increment = *index_;
    increment.forEachFile(keep);
    full.forEachFile([&](const ResourceRecord& wanted) {
        if (increment.removed().count(wanted.path) != 0) return;
        std::shared_ptr<const ResourceRecord> listed = increment.find(wanted.path);
        if (!listed || listed->path != wanted.path) keep(wanted);
    });
    return refused;
}

Error UpdatePackWork::publish() {
    assertOnWorker();
    return installer_->publish();
}

// ---- Persist ----------------------------------------------------------------------------------

Persisted UpdatePackWork::persist(const Job& job, uint64_t installedSize, bool isPacks) {
    assertOnWorker();
    Persisted result;
    // Durable: the replaced version's folder is deleted on the strength of this commit, and the
    // files of a version in the packed store become durable with it.
    result.published = SCache::mutate(
        [&](FConfig& config) {
            const std::string installName = placeRecord(config, job, result.persistOld);
            config.setInstalled(installName, job.trigger, job.pack->seq, job.pack->baseSeq,
                                installedSize, isPacks);
        },
        Durability::Durable, watch(result.commit));
    return result;
}

Persisted UpdatePackWork::persistRaw(const Job& job, uint64_t installedSize) {
    assertOnWorker();
    Persisted result;
    // Durable: the replaced version's folder is deleted on the strength of this commit.
    result.published = SCache::mutate(
        [&](FConfig& config) {
            if (!config.find(job.name)) config.mergePack(job.pack);
            config.setInstalled(job.name, job.trigger, job.pack->seq, job.pack->baseSeq,
                                installedSize, /*isPacks=*/false);
        },
        Durability::Durable, watch(result.commit));
    return result;
}

}  // namespace FerritCore
