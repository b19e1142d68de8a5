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
#include "model/SCache.h"
#include "runtime/Settings.h"
#include "storage/ConfigStore.h"
#include "storage/ZipFile.h"

namespace FerritCore {

struct PreloadReset {
    static void reset(Preload& preload) {
        RecursiveLock lock(preload.mutex_);
        preload.files_.clear();
    }
};

namespace {

// One pack of the plan: its record, the folder of its new version, and the bytes copied into it.
struct PlannedPack {
    PackPtr pack;
    Folder folder;
    // "<rootName>/<seq>/": the prefix of the pack's entries in the zip.
    std::string prefix;
    uint64_t size = 0;
};
using Plan = std::map<std::string, PlannedPack>;

std::string decimal(uint64_t value) {
    char text[32];
    std::snprintf(text, sizeof(text), "%" PRIu64, value);
    return text;
}

// The packs of the zip's configuration that this device lacks at their sequence.
Plan makePlan(ZipFile& zip, Error& error) {
    Plan plan;
    const std::string text = zip.readEntry(Preload::kConfigEntry, error);
    if (error) return plan;
    std::shared_ptr<FConfig> document = FConfig::parse(text, "preload", error, true);
    if (!document) return plan;
    const FConfigPtr current = SCache::current();
    for (const auto& [name, pack] : document->packs) {
        if (!pack || !pack->isSupported() || pack->status == kPackStatusDeleted || pack->seq == 0)
            continue;
        const PackPtr held = current->find(name);
        if (held && held->installedSeq >= pack->seq) continue;
        const std::string relative = pack->rootName() + "/" + decimal(pack->seq) + "/";
        const Folder folder = pack->packType() == kPackTypeACache ? Folder::disk("apps/" + relative)
                                                                  : Folder::packed(relative);
        plan.emplace(name, PlannedPack{pack, folder, relative, 0});
    }
    return plan;
}

// Copies one zip entry into its pack's folder. Always goes on with the walk.
void copy(Plan& plan, const std::string& path, const std::string& content) {
    if (path.empty() || path.back() == '/') return;
    const size_t slash = path.find('/');
    if (slash == std::string::npos) return;
    auto it = plan.find(path.substr(0, slash));
    if (it == plan.end()) return;
    PlannedPack& planned = it->second;
    if (path.compare(0, planned.prefix.size(), planned.prefix) != 0) {
        MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, LogTag::kPreload)
            .event("copy")
            .append("message",
                    "filePath \"" + path + "\" not have prefix \"" + planned.prefix + "\"")
            .append("folder", planned.folder.describe());
        return;
    }
    const Folder target = planned.folder.childOf(path.substr(planned.prefix.size()));
    Error error;
    if (!Folder::writeFile(target, content, error)) {
        MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, LogTag::kPreload)
            .event("copy")
            .append("origin", path)
            .append("target", target.describe())
            .error(error);
        plan.erase(it);
        return;
    }
    planned.size += content.size();
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
    Error readError;
    const MarlLogger::json::JSON stored = ConfigStore::instance().get(key, readError);
    if (!readError && stored.stringValue() == version) {
        MarlLogger::LogBuilder(MarlLogger::MRLLevelInfo, LogTag::kPreload)
            .event("install")
            .append("file", file)
            .append("message", "file \"" + file + "\" already installed in " + version);
        return false;
    }
    Error writeError;
    if (!ConfigStore::instance().put(key, MarlLogger::json::JSON(version), writeError)) {
        MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, LogTag::kPreload)
            .event("install")
            .append("file", file)
            .error(writeError);
    }
    return true;
}

bool Preload::install(const std::string& file, bool checkInstalled) {
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
    if (!error) {
        ZipFile zip = ZipFile::open(Folder::asset(file), archive, error);
        Plan plan;
        if (!error) plan = makePlan(zip, error);
        if (!error && !plan.empty()) {
            Error walkError;
            zip.forEachEntry(
                [&plan](const std::string& path, std::string content) {
                    copy(plan, path, content);
                    return true;
                },
                walkError);
            // An archive that refuses an entry installs nothing.
            if (walkError) {
                error = walkError;
                plan.clear();
            }
        }
        if (!plan.empty()) {
            SCache::mutate([&](FConfig& config) {
                for (auto& [name, planned] : plan) {
                    config.mergePack(planned.pack);
                    config.setInstalled(name, kTriggerNone, planned.pack->seq,
                                        planned.pack->baseSeq, planned.size, true);
                }
            });
            installed = plan.size();
        }
    }
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
    for (const std::string& file : copy) install(file, false);
}

}  // namespace FerritCore
