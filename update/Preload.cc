#include "update/Preload.h"

#include <cinttypes>
#include <cstdio>
#include <map>
#include <memory>
#include <vector>

#include "base/AssetProvider.h"
#include "base/Environment.h"
#include "base/Errors.h"
#include "base/Folder.h"
#include "base/LogTags.h"
#include "base/ProcessState.h"
#include "base/Telemetry.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "model/FConfig.h"
#include "model/ResourceIndex.h"
#include "model/SCache.h"
#include "runtime/Settings.h"
#include "storage/ConfigStore.h"
#include "storage/ZipFile.h"
#include "update/PackInstaller.h"

namespace FerritCore {

struct PreloadReset {
    static void reset(Preload& preload) {
        RecursiveLock lock(preload.mutex_);
        preload.files_.clear();
    }
};

namespace {

// Names inside a pack's folder of the zip that are not resources.
constexpr std::string_view kListName = kIndexFileName;
constexpr std::string_view kInfoName = "app-info.hvc";

// One pack of the plan: its record, the folder of its new version, the bytes copied into it, its
// signed list from the zip, and the installer that stages its files.
struct PlannedPack {
    PackPtr pack;
    // "<rootName>/<seq>/": the prefix of the pack's entries in the zip.
    std::string prefix;
    uint64_t size = 0;
    // Null when the zip holds no list for the pack; then no file of it can be vouched for.
    std::unique_ptr<ResourceIndex> index;
    std::unique_ptr<PackInstaller> installer;
};
using Plan = std::map<std::string, PlannedPack>;

std::string decimal(uint64_t value) {
    char text[32];
    std::snprintf(text, sizeof(text), "%" PRIu64, value);
    return text;
}

void logDropped(const std::string& path, const Folder& folder, const Error& error) {
    MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, LogTag::kPreload)
        .event("copy")
        .append("origin", path)
        .append("target", folder.describe())
        .error(error);
}

// The packs of the zip's configuration that this device lacks at their sequence, each with its
// signed list read from the zip and an installer that stages it below `work`.
Plan makePlan(ZipFile& zip, const Folder& work, Error& error) {
    Plan plan;
    const std::string text = zip.readEntry(Preload::kConfigEntry, error);
    if (error) return plan;
    std::shared_ptr<FConfig> document =
        FConfig::parse(text, "preload", error, /*checkSignature=*/true);
    if (!document) return plan;
    const FConfigPtr current = SCache::current();
    for (const auto& [name, pack] : document->packs()) {
        if (!pack || !pack->isSupported() || pack->status == kPackStatusDeleted || pack->seq == 0)
            continue;
        const PackPtr held = current->find(name);
        if (held && held->installedSeq >= pack->seq) continue;
        const std::string relative = pack->rootName() + "/" + decimal(pack->seq) + "/";
        if (climbsOut(relative) || pack->rootName().find('/') != std::string::npos) continue;
        const Folder folder = pack->packType() == kPackTypeACache ? Folder::disk("apps/" + relative)
                                                                  : Folder::packed(relative);
        PlannedPack planned{pack, relative, 0, nullptr, nullptr};
        const std::string listEntry = relative + std::string(kListName);
        if (zip.hasEntry(listEntry)) {
            planned.index = std::make_unique<ResourceIndex>(
                name,
                [&zip, &relative](const std::string& entry, Error& e) {
                    return zip.readEntry(relative + entry, e);
                },
                false);
            if (planned.index->error()) {
                logDropped(listEntry, folder, planned.index->error());
                continue;
            }
        }
        planned.installer =
            std::make_unique<PackInstaller>(folder, work.childOf(pack->rootName() + "/"));
        planned.installer->begin();
        plan.emplace(name, std::move(planned));
    }
    return plan;
}

// Copies one zip entry into its pack's new version, as its list vouches for it; a pack whose
// entry cannot be vouched for or written leaves the plan. Always goes on with the walk.
void copy(Plan& plan, const std::string& path, const std::string& content) {
    if (path.empty() || path.back() == '/') return;
    const size_t slash = path.find('/');
    if (slash == std::string::npos) return;
    auto it = plan.find(path.substr(0, slash));
    if (it == plan.end()) return;
    PlannedPack& planned = it->second;
    PackInstaller& installer = *planned.installer;
    if (path.compare(0, planned.prefix.size(), planned.prefix) != 0) {
        MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, LogTag::kPreload)
            .event("copy")
            .append("message",
                    "filePath \"" + path + "\" not have prefix \"" + planned.prefix + "\"")
            .append("folder", installer.target().describe());
        return;
    }
    const std::string rest = path.substr(planned.prefix.size());
    if (rest == kInfoName) return;
    Error error;
    if (rest != kListName) {
        std::shared_ptr<const ResourceRecord> record =
            planned.index ? planned.index->find(rest) : nullptr;
        error = record && record->path == rest ? record->check(Folder::asset(path), content)
                                               : Errors::preloadNotFound(Folder::asset(path));
    }
    if (!error) error = installer.writeFile(rest, content);
    if (error) {
        logDropped(path, installer.target().childOf(rest), error);
        if (installer.hasPendingTarget()) Folder::removeFile(installer.target(), Removal::kGone);
        plan.erase(it);
        return;
    }
    planned.size += content.size();
}

// Every file that a pack's list names must have come out of the zip, and the version is then
// made the pack's folder; a pack that fails either leaves the plan and leaves nothing behind.
void publish(Plan& plan) {
    for (auto it = plan.begin(); it != plan.end();) {
        PlannedPack& planned = it->second;
        PackInstaller& installer = *planned.installer;
        Error error;
        if (planned.index) {
            planned.index->forEachFile([&](const ResourceRecord& record) {
                if (!error && !installer.wrote(record.path))
                    error = Errors::fileNotExists(installer.target().childOf(record.path));
            });
        }
        if (!error) error = installer.publish();
        if (error) {
            logDropped(planned.prefix, installer.target(), error);
            if (installer.hasPendingTarget())
                Folder::removeFile(installer.target(), Removal::kGone);
            it = plan.erase(it);
        } else {
            ++it;
        }
    }
}

// Copies every entry of `zip` into the packs of `plan` and publishes those that came whole. An
// archive that refuses an entry installs nothing: `error` is set and the plan emptied.
void copyAll(ZipFile& zip, Plan& plan, const Preload::Progress& progress, Error& error) {
    uint64_t totalBytes = 0, files = 0, bytes = 0;
    Error sizeError;  // a zip that cannot say refuses its walk below, with the reason
    if (progress && !zip.declaredSize(totalBytes, sizeError)) totalBytes = 0;
    Error walkError;
    zip.forEachEntry(
        [&](const std::string& path, const std::string& content) {
            copy(plan, path, content);
            bytes += content.size();
            if (progress) progress(++files, bytes, totalBytes);
            return true;
        },
        walkError);
    if (walkError) {
        error = walkError;
        for (auto& [name, planned] : plan) {
            if (planned.installer->hasPendingTarget())
                Folder::removeFile(planned.installer->target(), Removal::kGone);
        }
        plan.clear();
    }
    publish(plan);
}

}  // namespace

Preload& Preload::instance() {
    static Preload* const instance = ProcessState::create<Preload>(&PreloadReset::reset);
    return *instance;
}

std::set<std::string> Preload::files() {
    RecursiveLock lock(mutex_);
    return files_;
}

bool Preload::shouldInstall(const std::string& file) {
    Error error;
    if (file.empty()) {
        error = Errors::fileNotExists(Folder::asset(file));
    } else if (!Environment::instance().isMainProcess()) {
        error = Errors::subProcessUpdateDisabled();
    }
    if (error) {
        MarlLogger::LogBuilder(MarlLogger::MRLLevelError, LogTag::kPreload)
            .event("install")
            .append("file", file)
            .error(error);
        return false;
    }
    if (Settings::current()->reinstallPreloadValue()) {
        RecursiveLock lock(mutex_);
        files_.insert(file);
    }
    const std::string key = std::string(kKeyPrefix) + file;
    const std::string version = Environment::instance().appVersion();
    const ErrorOr<MarlLogger::json::JSON> stored = ConfigStore::instance().get(key);
    if (stored.ok() && stored->stringValue() == version) {
        MarlLogger::LogBuilder(MarlLogger::MRLLevelInfo, LogTag::kPreload)
            .event("install")
            .append("file", file)
            .append("message", "file \"" + file + "\" already installed in " + version);
        return false;
    }
    if (Error writeError = ConfigStore::instance().put(key, MarlLogger::json::JSON(version))) {
        MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, LogTag::kPreload)
            .event("install")
            .append("file", file)
            .error(writeError);
    }
    return true;
}

bool Preload::install(const std::string& file, bool checkInstalled, const Progress& progress) {
    if (checkInstalled && !shouldInstall(file)) return false;
    const double start = MRLCurrentClock();
    const std::string runId = MRLGenerateID(TracePrefix::kPreload);
    MarlLogger::LogBuilder(MarlLogger::MRLLevelInfo, LogTag::kPreload)
        .event("install")
        .id(runId)
        .append("file", file);
    Error error;
    std::string archive;
    if (std::shared_ptr<AssetProvider> assets = AssetProvider::current()) {
        archive = assets->readAsset(file, error);
    } else {
        error = Errors::assetNotExists();
    }
    size_t installed = 0;
    // Each pack is staged in a folder of this run, so that no half-copied version is ever found.
    const Folder work = Folder::disk("temp/" + runId + "/");
    if (!error) {
        ZipFile zip = ZipFile::open(Folder::asset(file), archive, error);
        Plan plan;
        if (!error) plan = makePlan(zip, work, error);
        if (!error && !plan.empty()) copyAll(zip, plan, progress, error);
        if (!plan.empty()) {
            // Durable: the store already says that this app version installed the zip, so a
            // commit lost to a power cut would never be made again.
            SCache::mutate(
                [&](FConfig& config) {
                    for (auto& [name, planned] : plan) {
                        config.mergePack(planned.pack);
                        config.setInstalled(name, kTriggerNone, planned.pack->seq,
                                            planned.pack->baseSeq, planned.size, /*isPacks=*/true);
                    }
                },
                Durability::Durable);
            installed = plan.size();
        }
    }
    Folder::removeFile(work, Removal::kGone);
    MarlLogger::LogBuilder log(error ? MarlLogger::MRLLevelWarning : MarlLogger::MRLLevelInfo,
                               LogTag::kPreload);
    log.event("finished").id(runId).append("file", file).append("time", MRLCurrentClock() - start);
    log.append("packs", static_cast<uint64_t>(installed));
    if (error) log.error(error);
    return !error;
}

void Preload::reinstall() {
    RecursiveLock lock(mutex_);
    if (!Settings::current()->reinstallPreloadValue()) {
        files_.clear();
        return;
    }
    const std::set<std::string> copy = files_;
    for (const std::string& file : copy) install(file, /*checkInstalled=*/false);
}

}  // namespace FerritCore
