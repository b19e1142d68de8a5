#include "lifecycle/DevInspector.h"

#include <algorithm>
#include <forward_list>
#include <functional>
#include <map>
#include <vector>

#include "access/Resource.h"
#include "base/Environment.h"
#include "base/Errors.h"
#include "base/Folder.h"
#include "base/LogTags.h"
#include "base/Telemetry.h"
#include "ferritcore/Access.h"
#include "lifecycle/Setup.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "model/ResourceIndex.h"
#include "model/SCache.h"
#include "runtime/Settings.h"
#include "runtime/TaskRunner.h"
#include "runtime/TimeMarks.h"
#include "storage/Cache.h"
#include "storage/ConfigStore.h"
#include "storage/ModuleCache.h"
#include "storage/PacksStore.h"
#include "storage/Statistics.h"
#include "storage/UniApp.h"
#include "update/Cleanup.h"
#include "update/Preload.h"
#include "update/Preview.h"
#include "update/UpdateConfig.h"
#include "update/UpdatePack.h"

namespace FerritCore {
namespace {

using MarlLogger::InspectorCommandContext;
using MarlLogger::json::JSON;
using MarlLogger::json::JSONObject;
using Context = std::shared_ptr<InspectorCommandContext>;
using Handler = std::function<void(const JSON& params, Context context)>;

// The mark under which the time of the last clearing is kept across restarts.
constexpr const char* kLastClearMark = "lastClear";

// Every reply goes through here, so that a handler is a plain function of its parameters.
void reply(const Context& context, bool success, JSON data = JSON(JSONObject())) {
    if (success) {
        context->callbackSuccess(std::move(data));
    } else {
        context->callbackFailed(std::move(data));
    }
}

void replyError(const Context& context, const Error& error) {
    reply(context, /*success=*/false,
          JSONObject{{"code", error.code()}, {"message", error.message()}});
}

// The folder where installed packs live on the disk, and, in this layout, the second root too.
Folder packFolder() {
    return Folder::disk("apps/");
}

uint64_t totalDiskSize() {
    return ConfigStore::instance().diskSize() + Cache::instance().diskSize() +
           PacksStore::instance().diskSize() + packFolder().diskSize();
}

JSON countAndSize(uint64_t count, uint64_t size) {
    return JSONObject{{"count", count}, {"size", size}};
}

JSON errorJSON(const Error& error) {
    return JSONObject{{"code", error.code()}, {"message", error.message()}};
}

// ---- The handlers.

void info(const JSON&, Context context) {
    reply(context, /*success=*/true, Setup::statusReport());
}

void isEnabled(const JSON&, Context context) {
    reply(context, /*success=*/true,
          JSONObject{{"enabled", !Environment::instance().isDisabledByDeveloper()}});
}

void setEnabled(const JSON& params, Context context) {
    Environment::instance().setDeveloperDisabled(params["enabled"].boolValue() ? 0 : 1);
    reply(context, /*success=*/true);
}

void config(const JSON&, Context context) {
    reply(context, /*success=*/true, Settings::current()->toJSON());
}

void fconfig(const JSON&, Context context) {
    reply(context, /*success=*/true, JSON::parse(SCache::current()->serialize()));
}

// The matcher's two tables: which pack each referrer URL names, and each pack's prefixes.
void indexes(const JSON&, Context context) {
    const FConfigPtr current = SCache::current();
    std::map<std::string, JSON> urls;
    for (const auto& [url, place] : current->urlIndex())
        urls[std::string(url)] = current->routedName(place);
    std::map<std::string, JSON> prefixes;
    for (const auto& [name, pack] : current->packs()) {
        for (const std::string& prefix : pack->prefixes) prefixes[prefix] = name;
    }
    reply(context, /*success=*/true,
          JSONObject{{"urlIndex", JSON(urls)}, {"prefixIndex", JSON(prefixes)}});
}

void statistics(const JSON&, Context context) {
    reply(context, /*success=*/true, Statistics::toJson());
}

void readDiskFileList(const JSON& params, Context context) {
    const PackPtr pack = SCache::current()->find(params["packName"].stringViewValue());
    if (!pack) {
        reply(context, /*success=*/true);
        return;
    }
    Folder::listFilesAsync(pack->installedFolder(), [context](std::forward_list<Folder> files) {
        std::vector<std::string> paths;
        for (const Folder& file : files) paths.push_back(file.describe());
        std::sort(paths.begin(), paths.end());
        reply(context, /*success=*/true, JSONObject{{"files", JSON(paths)}});
    });
}

void getURLList(const JSON& params, Context context) {
    const PackPtr pack = SCache::current()->find(params["packName"].stringViewValue());
    if (!pack) {
        reply(context, /*success=*/false,
              JSONObject{{"message", Errors::devToolConfigNotFound().message()}});
        return;
    }
    const ResourceIndexPtr index = ResourceIndexPool::get(*pack);
    if (!index || index->error()) {
        const Error error = index ? index->error() : Errors::resourceListNotFound(pack->name);
        reply(context, /*success=*/false, JSONObject{{"message", error.message()}});
        return;
    }
    reply(context, /*success=*/true, JSONObject{{"urls", JSON(index->urls())}});
}

// What the matcher decides for a URL, without reading it.
void getURLInfo(const JSON& params, Context context) {
    HeaderMap header;
    const std::string referrer = params["referrer"].stringValue();
    const std::string accept = params["accept"].stringValue();
    if (!referrer.empty()) header["Referer"] = referrer;
    if (!accept.empty()) header["Accept"] = accept;
    const ResourceRequest request(params["url"].stringValue(), header);
    const std::shared_ptr<Resource> resource = Access::match(request, kPolicySync);
    JSON parts = JSON(MarlLogger::json::JSONArray());
    for (const auto& part : resource->parts) {
        JSON entry = JSONObject{{"url", part->url}, {"name", part->name}};
        if (part->error) entry.set("error", errorJSON(part->error));
        parts.push(std::move(entry));
    }
    JSON report = JSONObject{{"url", request.url},
                             {"referrer", request.referrer},
                             {"accept", accept},
                             {"isCombo", resource->isCombo},
                             {"isSCacheHit", resource->isSCacheHit},
                             {"is404", resource->is404},
                             {"matchTime", resource->matchTime},
                             {"parts", std::move(parts)}};
    if (resource->error) report.set("error", errorJSON(resource->error));
    reply(context, /*success=*/true, std::move(report));
    // The probe is a request like any other, reported as one.
    resource->finish();
}

void clearCommand(const JSON&, Context context) {
    DevInspector::clear();
    reply(context, /*success=*/true);
}

// The latest finished pack updates of this process, oldest first, whatever started them: the form
// each installed and why a form was given up.
JSON packUpdates() {
    JSON packs = JSON(MarlLogger::json::JSONArray());
    for (const UpdateOutcome& outcome : UpdatePack::recentOutcomes()) {
        JSON entry = JSONObject{{"name", outcome.name}, {"seq", outcome.seq}};
        if (!outcome.form.empty()) entry.set("form", outcome.form);
        if (!outcome.patchRefused.empty()) entry.set("patchRefused", outcome.patchRefused);
        if (!outcome.incrRefused.empty()) entry.set("incrRefused", outcome.incrRefused);
        if (!outcome.error.empty()) entry.set("error", outcome.error);
        packs.push(std::move(entry));
    }
    return packs;
}

// Checks the configuration now; once the check ends, answers with the latest finished pack
// updates of this process (not those the check queued, which run after it).
void update(const JSON&, Context context) {
    UpdateConfig::instance().start(
        kTriggerDebugTool, "0",
        [context](const Error& error) {
            if (error) {
                replyError(context, error);
            } else {
                JSON packs = packUpdates();
                // A process that updated no pack answers as it always did.
                if (packs.arrayValue().empty()) {
                    reply(context, /*success=*/true);
                } else {
                    reply(context, /*success=*/true, JSONObject{{"packs", std::move(packs)}});
                }
            }
        },
        0);
}

// Installs a preview: "packName" and its platform id "seq"; answers when the install ends.
void previewPack(const JSON& params, Context context) {
    Preview::install(
        params["packName"].stringValue(), params["seq"].uint64Value(),
        [context](bool success, const JSON& result) { reply(context, success, result); });
}

void size(const JSON&, Context context) {
    reply(context, /*success=*/true, DevInspector::sizeReport());
}

// The module cache's list as it is kept, with its limits: what stays and in which order.
void moduleCacheMeta(const JSON&, Context context) {
    HotList& list = ModuleCache::instance().list();
    JSON dump = list.toJSON();
    dump.set("count", list.count());
    dump.set("size", list.totalSize());
    dump.set("maxSize", list.maxSize());
    dump.set("hotCount", list.hotCount());
    reply(context, /*success=*/true, std::move(dump));
}

// Runs on the worker, where every other change of the configuration and the pack folders runs.
void cleanup(const JSON&, Context context) {
    TaskRunner::post([context] {
        std::vector<std::string> names;
        for (const PackPtr& pack : Cleanup::runCleanup(kCleanupDebugTool))
            names.push_back(pack->name);
        reply(context, /*success=*/true, JSONObject{{"cleanedApps", JSON(names)}});
    });
}

// The command table, built once.
const std::vector<std::pair<const char*, Handler>>& commandTable() {
    static const auto* const table = new std::vector<std::pair<const char*, Handler>>{
        {"info", info},
        {"isEnabled", isEnabled},
        {"setEnabled", setEnabled},
        {"config", config},
        {"fconfig", fconfig},
        {"indexes", indexes},
        // Spelled so on purpose: tools call it by this name.
        {"statisitcs", statistics},
        {"readDiskFileList", readDiskFileList},
        {"getURLList", getURLList},
        {"getURLInfo", getURLInfo},
        {"clear", clearCommand},
        {"update", update},
        {"cleanup", cleanup},
        {"previewPack", previewPack},
        {"size", size},
        {"moduleCacheMeta", moduleCacheMeta},
    };
    return *table;
}

}  // namespace

void DevInspector::registerAgent() {
    MarlLogger::Inspector::registerAgent(kAgentName, std::make_shared<DevInspector>());
}

void DevInspector::registerCommands() {
    MarlLogger::Inspector::registerCommand(kPrefetchCommand,
                                           [](const JSON& params, Context context) {
                                               // The keys are the URLs, in the object's order;
                                               // their values mean nothing.
                                               std::vector<std::string> urls;
                                               for (const auto& [key, value] : params.objectValue())
                                                   urls.push_back(key);
                                               Access::prefetch(urls);
                                               reply(context, /*success=*/true);
                                           });
    for (const auto& [name, handler] : commandTable())
        MarlLogger::Inspector::registerCommand(std::string(kCommandPrefix) + name, handler);
}

void DevInspector::clear() {
    if (!Environment::instance().isMainProcess()) {
        MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, LogTag::kRoot)
            .event("Clear")
            .error(Errors::subProcessClearDisabled());
        return;
    }
    PerfRecord record("Ferrit.CacheClear");
    const double now = MRLCurrentTime();
    const double last = TimeMarks::exchangeMark(kLastClearMark, now);
    record.setMeasure("interval", last == 0 ? 0 : now - last);
    record.setMeasure("originDiskSize", static_cast<double>(totalDiskSize()));

    // An empty document, committed so that a restart does not bring the packs back.
    SCache::publish(std::make_shared<FConfig>());
    // Logged by the commit itself; a failure leaves the packs to the next start's recovery.
    TaskRunner::post([] { (void)SCache::commit(*SCache::current()); });
    ResourceIndexPool::clear();
    Folder::removeFile(packFolder(), Removal::kRecreate);
    PacksStore::instance().removeByPrefix("");
    Cache::instance().clear();
    // The packs shipped with the app come back at once, unless the host asked to forget them.
    Preload::instance().reinstall();

    record.setMeasure("time", MRLCurrentTime() - now);
    record.setMeasure("diskSize", static_cast<double>(totalDiskSize()));
    sendEvent(record);
    MarlLogger::LogBuilder log(MarlLogger::MRLLevelInfo, LogTag::kRoot);
    log.event("Clear", Environment::instance().sessionName());
    logRecord(record, log);
}

JSON DevInspector::sizeReport() {
    uint64_t ferritCount = 0, ferritSize = 0, scacheCount = 0, scacheSize = 0, appCount = 0,
             appSize = 0;
    const FConfigPtr current = SCache::current();
    for (const auto& [name, pack] : current->packs()) {
        // Each pack counts once: applications first, then assets, then every other kind.
        if (pack->packType() == kPackTypeACache) {
            if (pack->isInstalled()) {
                ++appCount;
                appSize += pack->installedSize;
            }
        } else if (pack->packType() == kPackTypeSCache) {
            if (pack->gray == 0) {
                ++scacheCount;
                scacheSize += pack->installedSize;
            }
        } else if (pack->isInstalled()) {
            ++ferritCount;
            ferritSize += pack->installedSize;
        }
    }
    Cache& cache = Cache::instance();
    ModuleCache& modules = ModuleCache::instance();
    UniApp& uniApp = UniApp::instance();
    // The database alone: the large files are told apart.
    JSON diskSize = JSONObject{{"small", cache.Store::diskSize()},
                               {"large", cache.largeDiskSize()},
                               {"config", ConfigStore::instance().diskSize()},
                               {"Ferrit", PacksStore::instance().diskSize()},
                               {"ACache", packFolder().diskSize()}};
    return JSONObject{
        {"diskSize", std::move(diskSize)},
        {"ModuleCache", countAndSize(modules.count(), static_cast<uint64_t>(modules.size()))},
        {"UniApp", countAndSize(uniApp.count(), static_cast<uint64_t>(uniApp.size()))},
        {"Ferrit", countAndSize(ferritCount, ferritSize)},
        {"SCache", countAndSize(scacheCount, scacheSize)},
        {"ACache", countAndSize(appCount, appSize)}};
}

}  // namespace FerritCore
