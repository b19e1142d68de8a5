#include "tools/publish/Publisher.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <set>

#include "base/Digest.h"
#include "marl/Json.h"
#include "model/Pack.h"
#include "tools/common/ToolFiles.h"

namespace FerritTools {

using MarlLogger::json::JSON;
using MarlLogger::json::JSONArray;
using MarlLogger::json::JSONObject;
namespace fs = std::filesystem;

namespace {

// Below the tree, what later runs build on; static servers serve it too, which is harmless: it
// holds the published files once more and their digests.
constexpr const char* kStateFolder = ".publish";
constexpr const char* kStateFile = ".publish/state.json";
// The origin version of a client that has no configuration yet.
constexpr const char* kNoVersion = "0";
// Priorities are the low four bits of a pack's flags.
constexpr uint32_t kPriorityMask = 0x0F;

std::string joinPath(const std::string& a, const std::string& b) {
    if (a.empty()) return b;
    return a.back() == '/' ? a + b : a + "/" + b;
}

bool writeBelow(const std::string& out, const std::string& relative, const std::string& content,
                std::string& error) {
    const fs::path path = fs::path(out) / relative;
    std::error_code code;
    fs::create_directories(path.parent_path(), code);
    if (code || !writeFileAtomically(path.string(), content)) {
        error = "cannot write " + path.string();
        return false;
    }
    return true;
}

uint64_t nowMs() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                     std::chrono::system_clock::now().time_since_epoch())
                                     .count());
}

// The digests of a version's files, by path.
JSON digestsOf(const PackFiles& files) {
    JSONObject digests;
    for (const auto& [path, content] : files)
        digests.set(path, JSON(FerritCore::Digest::md5Hex(content)));
    return JSON(std::move(digests));
}

bool sameDigests(const JSON& a, const JSON& b) {
    return a.isObject() && b.isObject() && a == b;
}

// Keeps a version's files, for the increments of later versions.
bool keepFiles(const std::string& out, const std::string& name, uint64_t seq,
               const PackFiles& files, std::string& error) {
    const std::string folder =
        std::string(kStateFolder) + "/" + name + "/" + std::to_string(seq) + "/";
    for (const auto& [path, content] : files) {
        if (!writeBelow(out, folder + path, content, error)) return false;
    }
    return true;
}

}  // namespace

bool parseManifest(const std::string& text, PublishManifest& manifest, std::string& error) {
    std::string parseError;
    const JSON document = JSON::parse(text, &parseError);
    if (!parseError.empty() || !document.isObject()) {
        error = "the manifest is not a JSON object" + (parseError.empty() ? "" : ": " + parseError);
        return false;
    }
    const JSON& app = document["app"];
    manifest.appKey = app["key"].stringValue();
    manifest.appVersion = app["version"].stringValue();
    manifest.locale = app["locale"].stringValue();
    if (manifest.appKey.empty() || manifest.appVersion.empty()) {
        error = "the manifest needs \"app\": {\"key\", \"version\"}";
        return false;
    }
    if (document["zips"].isString()) manifest.zipFolder = document["zips"].stringValue();
    if (!manifest.zipFolder.empty() && manifest.zipFolder.back() != '/') manifest.zipFolder += "/";
    manifest.version = document["version"].uint64Value();
    std::set<std::string> names;
    for (const JSON& entry : document["packs"].arrayValue()) {
        PublishPack pack;
        pack.name = entry["name"].stringValue();
        pack.folder = entry["folder"].stringValue();
        pack.prefix = entry["prefix"].stringValue();
        pack.priority = entry["priority"].uint32Value();
        if (pack.name.empty() || pack.folder.empty() || pack.prefix.empty() ||
            pack.name.find_first_of("/\\") != std::string::npos || pack.name[0] == '.') {
            error = "each pack needs a plain \"name\", a \"folder\" and a \"prefix\"";
            return false;
        }
        if (pack.priority > kPriorityMask) {
            error = "the priority of \"" + pack.name + "\" is above 15";
            return false;
        }
        if (!names.insert(pack.name).second) {
            error = "the pack \"" + pack.name + "\" is named twice";
            return false;
        }
        for (const auto& [path, fields] : entry["headers"].objectValue()) {
            for (const auto& [field, value] : fields.objectValue())
                pack.headers[path][field] = value.stringValue();
        }
        manifest.packs.push_back(std::move(pack));
    }
    if (manifest.packs.empty()) {
        error = "the manifest names no pack";
        return false;
    }
    return true;
}

bool publish(const std::string& site, const PublishManifest& manifest, const std::string& out,
             const Signer& signer, PublishResult& result, std::string& error,
             const PublishProgress& progress) {
    result = PublishResult();
    JSON state(JSONObject{});
    std::string stateText;
    if (readWholeFile(joinPath(out, kStateFile), stateText)) {
        std::string parseError;
        state = JSON::parse(stateText, &parseError);
        if (!parseError.empty() || !state.isObject()) {
            error = "the publish state " + joinPath(out, kStateFile) + " is damaged";
            return false;
        }
    }
    const uint64_t previousVersion = state["version"].uint64Value();
    const size_t total = manifest.packs.size() + 1;
    size_t step = 0;
    auto report = [&](const std::string& what) {
        if (progress) progress(what, step, total);
        ++step;
    };

    std::vector<ConfigPack> records;
    JSON packsState(JSONObject{});
    bool anyChanged = false;
    for (const PublishPack& pack : manifest.packs) {
        report("pack " + pack.name);
        PackContent content;
        content.headers = pack.headers;
        if (!readFolder(joinPath(site, pack.folder), content.files, error)) return false;
        const JSON& before = state["packs"][pack.name];
        const JSON digests = digestsOf(content.files);
        PublishedPack done;
        done.name = pack.name;
        done.seq = before["seq"].uint64Value();
        done.baseSeq = before["base"].uint64Value();
        JSON record = before;
        const bool unchanged = done.seq != 0 && sameDigests(before["files"], digests) &&
                               before["prefix"].stringValue() == pack.prefix &&
                               before["priority"].uint32Value() == pack.priority;
        ConfigPack config;
        config.name = pack.name;
        config.flags = FerritCore::kPackTypeFerrit | pack.priority;
        config.prefixes.push_back(pack.prefix);
        if (unchanged) {
            config.seq = done.seq;
            config.baseSeq = done.baseSeq;
            config.md5 = before["c"].stringValue();
            config.incrMd5 = before["ci"].stringValue();
            config.publishTime = before["t"].doubleValue();
        } else {
            anyChanged = done.changed = true;
            done.seq += 1;
            PackOptions options;
            options.urlPrefix = pack.prefix;
            options.signer = signer;
            std::string zip;
            if (!buildPack(content, options, zip, error)) return false;
            const std::string folder = manifest.zipFolder + pack.name + "/";
            const std::string full = folder + std::to_string(done.seq) + ".zip";
            if (!writeBelow(out, full, zip, error)) return false;
            done.written.push_back(full);
            config.md5 = FerritCore::Digest::md5Hex(zip);
            // The first version is the base that every later increment builds on; a client
            // on any version of the same base takes the increment to the newest.
            if (done.baseSeq == 0) {
                done.baseSeq = done.seq;
                if (!keepFiles(out, pack.name, done.seq, content.files, error)) return false;
            } else {
                PackContent base;
                const std::string baseFolder =
                    joinPath(out, std::string(kStateFolder) + "/" + pack.name + "/" +
                                      std::to_string(done.baseSeq));
                if (!readFolder(baseFolder, base.files, error)) return false;
                std::string increment;
                if (!buildIncrement(base, content, options, increment, error, &done.summary))
                    return false;
                const std::string path = folder + "i/" + std::to_string(done.seq) + ".zip";
                if (!writeBelow(out, path, increment, error)) return false;
                done.written.push_back(path);
                done.incremental = true;
                config.incrMd5 = FerritCore::Digest::md5Hex(increment);
            }
            config.seq = done.seq;
            config.baseSeq = done.baseSeq;
            config.publishTime = static_cast<double>(nowMs());
            record = JSON(JSONObject{});
            record.set("seq", JSON(done.seq));
            record.set("base", JSON(done.baseSeq));
            record.set("c", JSON(config.md5));
            record.set("ci", JSON(config.incrMd5));
            record.set("t", JSON(config.publishTime));
            record.set("prefix", JSON(pack.prefix));
            record.set("priority", JSON(pack.priority));
            record.set("files", digests);
        }
        packsState.set(pack.name, record);
        records.push_back(config);
        result.packs.push_back(std::move(done));
    }
    // A pack that left the manifest is gone from the new configuration, and clients drop it.
    for (const auto& [name, record] : state["packs"].objectValue()) {
        if (!packsState.objectValue().find(name)) anyChanged = true;
    }
    if (!anyChanged) return true;

    report("configuration");
    const uint64_t version = std::max({manifest.version, nowMs(), previousVersion + 1});
    const std::string versionText = std::to_string(version);
    // Each pack's own document carries what the download needs: the base, the zips' digests.
    for (size_t i = 0; i < records.size(); ++i) {
        PublishedPack& done = result.packs[i];
        if (!done.changed) continue;
        std::string document;
        if (!buildConfig(versionText, {records[i]}, signer, document, error)) return false;
        const std::string path = "packconfig/" + done.name + "/" + std::to_string(done.seq);
        if (!writeBelow(out, path, document, error)) return false;
        done.written.push_back(path);
    }
    // The global one names each pack's version without its base, so that a client asks for the
    // pack's own document before it downloads.
    std::vector<ConfigPack> global;
    for (const ConfigPack& record : records) {
        ConfigPack entry;
        entry.name = record.name;
        entry.seq = record.seq;
        entry.flags = record.flags;
        entry.publishTime = record.publishTime;
        entry.prefixes = record.prefixes;
        global.push_back(std::move(entry));
    }
    std::string document;
    if (!buildConfig(versionText, global, signer, document, error)) return false;
    // A client asks for ".../<app version>/<target>~<its version>/<locale>~<its locale>", target
    // 0 for "the newest": every version published before, and none, get the same full document.
    std::vector<std::string> origins{kNoVersion};
    for (const JSON& v : state["versions"].arrayValue()) origins.push_back(v.stringValue());
    std::set<std::string> localeParts{manifest.locale + "~",
                                      manifest.locale + "~" + manifest.locale};
    const std::string base = "fconfig/" + manifest.appKey + "/" + manifest.appVersion + "/";
    for (const std::string& origin : origins) {
        for (const std::string& locale : localeParts) {
            const std::string path = base + kNoVersion + "~" + origin + "/" + locale;
            if (!writeBelow(out, path, document, error)) return false;
            result.configPaths.push_back(path);
        }
    }

    JSON versions(JSONArray{});
    for (const JSON& v : state["versions"].arrayValue()) versions.push(v);
    versions.push(JSON(versionText));
    JSON newState(JSONObject{});
    newState.set("version", JSON(version));
    newState.set("versions", versions);
    newState.set("packs", packsState);
    if (!writeBelow(out, kStateFile, newState.toString(), error)) return false;
    result.version = version;
    return true;
}

}  // namespace FerritTools
