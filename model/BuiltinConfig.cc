#include "model/BuiltinConfig.h"

#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "base/AssetProvider.h"
#include "base/Errors.h"
#include "base/LogTags.h"
#include "marl/Clock.h"
#include "marl/Json.h"
#include "marl/Log.h"
#include "model/ResourceIndex.h"

namespace FerritCore {

using MarlLogger::json::JSON;

namespace {

void logLoad(const Error& error) {
    // A host without built-in packs simply has no such asset: that is worth an info line only.
    const MarlLogger::MRLLevel level =
        Errors::isFileMissing(error) ? MarlLogger::MRLLevelInfo : MarlLogger::MRLLevelWarning;
    MarlLogger::LogBuilder(level, LogTag::kSCache).event("load").error(error);
}

// Puts the built-in `pack` as installed at its own sequence, with `resources` as its list.
void putInstalled(FConfig& config, const Pack& pack, const JSON& resources, double now) {
    auto installed = pack.clone();
    installed->updateTime = now;
    installed->installedSeq = pack.seq;
    installed->installedBaseSeq = pack.baseSeq;
    // Its files are read relative to its folder, held open, when the raw files are on disk.
    const Folder files = installed->installedFolder();
    config.put(std::move(installed));
    ResourceIndexPool::set(pack.name,
                           std::make_shared<const ResourceIndex>(pack.name, resources, files));
}

}  // namespace

Error BuiltinConfig::load(FConfig& config) {
    const double start = MRLCurrentClock();
    const Folder file = Folder::asset(kAssetPath);
    Error error;
    // Built-in packs are optional: a host that ships none (or that gives no raw-file folder at
    // all, whose read would fail with its own words) has no such file, which is no fault.
    if (AssetProvider::current() && !Assets::hasAsset(kAssetPath)) {
        error = Errors::fileNotExists(file);
        logLoad(error);
        return error;
    }
    const std::string text = Assets::readAsset(kAssetPath, error);
    if (error) {
        logLoad(error);
        return error;
    }
    std::string reason;
    const JSON document = JSON::parse(text, &reason);
    if (!reason.empty() || !document.isObject()) {
        error = Errors::fileDeserialization(file, reason.empty() ? "not an object" : reason);
        logLoad(error);
        return error;
    }
    StringMap<PackPtr> builtin;
    FConfig::readPacks(document["packs"], builtin);
    const JSON& resources = document["resources"];
    for (const auto& [name, record] : document["packs"].objectValue()) {
        if (resources[name].isNull()) {
            error = Errors::fileDeserialization(file, "pack \"" + name + "\" resources not found");
            logLoad(error);
            return error;
        }
    }

    config.scacheVersion = document["v"].stringValue();
    std::set<std::string> previews;  // in name order, as the log lists them
    std::vector<std::string> replaced, stale;
    for (const auto& [name, pack] : config.packs()) {
        if (pack->packType() != kPackTypeSCache) continue;
        if (pack->status == kPackStatusPreview) {
            previews.insert(name);
        } else if (pack->subType != kSubTypeFixedSeq) {
            replaced.push_back(name);  // comes back from the file below
        } else {
            // A fixed-sequence copy stays while the file still lists its pack at that sequence.
            auto listed = builtin.find(pack->rootName());
            if (listed == builtin.end() || listed->second->seq != pack->seq) stale.push_back(name);
        }
    }
    for (const auto& name : replaced) config.erase(name);
    for (const auto& name : stale) config.remove(name);

    const double now = MRLCurrentTime();
    size_t count = 0;
    for (const auto& [name, pack] : builtin) {
        if (previews.count(name) != 0 || !pack->isSupported() || pack->status == kPackStatusDeleted)
            continue;
        putInstalled(config, *pack, resources[name], now);
        ++count;
    }
    config.rebuildIndexes();

    MarlLogger::LogBuilder(MarlLogger::MRLLevelInfo, LogTag::kSCache)
        .event("load")
        .append("version", config.scacheVersion)
        .append("packs", static_cast<uint64_t>(count))
        .append("previewPacks", std::vector<std::string>(previews.begin(), previews.end()))
        .append("time", MRLCurrentClock() - start);
    return Error();
}

}  // namespace FerritCore
