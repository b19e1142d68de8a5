#include "tools/publish/Publisher.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <set>

#include "base/Digest.h"
#include "marl/Json.h"
#include "model/Pack.h"
#include "tools/common/ToolFiles.h"
#include "tools/publish/CacheRules.h"

namespace FerritTools {

using MarlLogger::json::JSON;
using MarlLogger::json::JSONArray;
using MarlLogger::json::JSONObject;
namespace fs = std::filesystem;

namespace {

// In the history folder: the state of the last publish, and one list per published version of a
// pack, "<name>/<seq>.json" ({path: {"v": MD5, "size": bytes}}), from the pack's base on.
constexpr const char* kStateFile = "state.json";
constexpr const char* kListSuffix = ".json";
// Where a tree published by an earlier release kept its history, inside the tree (and so served).
constexpr const char* kInTreeHistory = ".publish";
// The folder name that the default history adds to the tree's.
constexpr const char* kHistorySuffix = ".publish";
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

// Whether `folder` is `tree` or lies below it, after resolving both.
bool isWithin(const std::string& folder, const std::string& tree) {
    std::error_code code;
    const fs::path inner = fs::weakly_canonical(fs::absolute(folder, code), code);
    const fs::path outer = fs::weakly_canonical(fs::absolute(tree, code), code);
    const fs::path relative = inner.lexically_relative(outer);
    return !relative.empty() && *relative.begin() != "..";
}

std::string listPath(const std::string& name, uint64_t seq) {
    return name + "/" + std::to_string(seq) + kListSuffix;
}

JSON listingJson(const PackListing& listing) {
    std::map<std::string, JSON> files;
    for (const auto& [path, file] : listing) {
        JSONObject record{{"v", JSON(file.md5)}};
        if (file.size >= 0) record.set("size", JSON(file.size));
        files.emplace(path, JSON(std::move(record)));
    }
    return JSON(files);
}

bool writeListing(const std::string& history, const std::string& name, uint64_t seq,
                  const PackListing& listing, std::string& error) {
    return writeBelow(history, listPath(name, seq), listingJson(listing).toString(), error);
}

// The list of a version; false when the history does not hold it whole.
bool readListing(const std::string& history, const std::string& name, uint64_t seq,
                 PackListing& listing) {
    std::string text, parseError;
    if (!readWholeFile(joinPath(history, listPath(name, seq)), text)) return false;
    const JSON document = JSON::parse(text, &parseError);
    if (!parseError.empty() || !document.isObject()) return false;
    listing.clear();
    for (const auto& [path, record] : document.objectValue()) {
        if (!record["v"].isString()) return false;
        ListedFile file{record["v"].stringValue(), -1};
        if (record["size"].isNumber()) file.size = record["size"].int64Value();
        listing.emplace(path, std::move(file));
    }
    return true;
}

// Two versions hold the same bytes at the same paths.
bool sameFiles(const PackListing& a, const PackListing& b) {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](const auto& x, const auto& y) {
               return x.first == y.first && x.second.md5 == y.second.md5;
           });
}

// Moves the history that an earlier release kept inside the tree ("<out>/.publish/": the state,
// with the newest version's digests in each pack's record, and a copy of each pack's base
// version) to `history` as lists. The versions between a pack's base and its newest are not
// known; the next version of such a pack starts a new base.
bool importInTreeHistory(const std::string& out, const std::string& history, std::string& error) {
    const fs::path old = fs::path(out) / kInTreeHistory;
    std::error_code code;
    if (!fs::exists(old, code)) return true;
    const std::string oldState = (old / kStateFile).string();
    if (fs::exists(joinPath(history, kStateFile), code)) {
        error = "both " + old.string() + " and " + history +
                " hold a publish history; remove the one that is out of date";
        return false;
    }
    std::string text;
    if (readWholeFile(oldState, text)) {
        std::string parseError;
        JSON state = JSON::parse(text, &parseError);
        if (!parseError.empty() || !state.isObject()) {
            error = "the publish state " + oldState + " is damaged";
            return false;
        }
        JSON packs(JSONObject{});
        for (const auto& [name, before] : state["packs"].objectValue()) {
            const uint64_t seq = before["seq"].uint64Value();
            const uint64_t base = before["base"].uint64Value();
            PackFiles baseFiles;
            PackListing baseListing;
            const fs::path baseCopy = old / name / std::to_string(base);
            const bool haveBase = fs::is_directory(baseCopy, code);
            if (haveBase) {
                if (!readFolder(baseCopy.string(), baseFiles, error)) return false;
                baseListing = listingOf(baseFiles);
                if (!writeListing(history, name, base, baseListing, error)) return false;
            }
            if (seq != base || !haveBase) {
                PackListing newest;
                for (const auto& [path, md5] : before["files"].objectValue()) {
                    ListedFile file{md5.stringValue(), -1};
                    const auto same = baseListing.find(path);
                    if (same != baseListing.end() && same->second.md5 == file.md5)
                        file.size = same->second.size;
                    newest.emplace(path, std::move(file));
                }
                if (!writeListing(history, name, seq, newest, error)) return false;
            }
            JSON record(JSONObject{});
            for (const auto& [key, value] : before.objectValue())
                if (key != "files") record.set(key, value);
            packs.set(name, record);
        }
        state.set("packs", packs);
        if (!writeBelow(history, kStateFile, state.toString(), error)) return false;
    }
    fs::remove_all(old, code);
    if (code) {
        error = "cannot remove " + old.string() + ": " + code.message();
        return false;
    }
    return true;
}

// Drops the lists that no later increment reads: those of a pack's versions before its base, and
// every list of a pack that left the manifest. Touches only the folders of packs that a state
// names, so that a history folder shared with other files keeps them.
void pruneHistory(const std::string& history, const JSON& before, const JSON& packs) {
    std::error_code code;
    for (const auto& [name, unused] : before.objectValue()) {
        if (!packs[name].isObject()) fs::remove_all(fs::path(history) / name, code);
    }
    for (const auto& [name, record] : packs.objectValue()) {
        const uint64_t base = record["base"].uint64Value();
        std::vector<fs::path> stale;
        for (fs::directory_iterator list(fs::path(history) / name, code), end; !code && list != end;
             list.increment(code)) {
            const fs::path file = list->path();
            if (file.extension() != kListSuffix) continue;
            const std::string stem = file.stem().string();
            if (stem.empty() || stem.size() > 19 ||
                stem.find_first_not_of("0123456789") != std::string::npos)
                continue;
            if (std::stoull(stem) < base) stale.push_back(file);
        }
        code.clear();
        for (const fs::path& file : stale) fs::remove(file, code);
    }
}

}  // namespace

std::string defaultHistoryFolder(const std::string& out) {
    std::error_code code;
    fs::path tree = fs::weakly_canonical(fs::absolute(out, code), code);
    if (!tree.has_filename()) tree = tree.parent_path();
    if (!tree.has_filename()) return std::string();
    return (tree.parent_path() / (tree.filename().string() + kHistorySuffix)).string();
}

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
             const std::string& history, const Signer& signer, PublishResult& result,
             std::string& error, const PublishProgress& progress) {
    result = PublishResult();
    const std::string historyFolder = history.empty() ? defaultHistoryFolder(out) : history;
    if (historyFolder.empty()) {
        error = "the tree " + out + " has no folder beside it for the history; name one";
        return false;
    }
    if (isWithin(historyFolder, out)) {
        error = "the history " + historyFolder + " lies inside the tree " + out +
                ", which would serve it; name one outside";
        return false;
    }
    if (!importInTreeHistory(out, historyFolder, error)) return false;
    if (!writeCacheRules(out, manifest.zipFolder, error)) return false;
    const std::string stateFile = joinPath(historyFolder, kStateFile);
    JSON state(JSONObject{});
    std::string stateText;
    if (readWholeFile(stateFile, stateText)) {
        std::string parseError;
        state = JSON::parse(stateText, &parseError);
        if (!parseError.empty() || !state.isObject()) {
            error = "the publish state " + stateFile + " is damaged";
            return false;
        }
    }
    SigningPlan signing;
    if (!manifest.signerKeyId.empty() && !planSigning(state, manifest.signerKeyId, signing, error))
        return false;
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
        const PackListing listing = listingOf(content.files);
        PublishedPack done;
        done.name = pack.name;
        done.seq = before["seq"].uint64Value();
        done.baseSeq = before["base"].uint64Value();
        JSON record = before;
        PackListing previous;
        const bool unchanged =
            done.seq != 0 && readListing(historyFolder, pack.name, done.seq, previous) &&
            sameFiles(previous, listing) && before["prefix"].stringValue() == pack.prefix &&
            before["priority"].uint32Value() == pack.priority &&
            (signing.signerId.empty() ||
             packSigner(before, signing.previousSignerId) == signing.signerId);
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
            if (!writeImmutable(out, full, zip, error)) return false;
            done.written.push_back(full);
            config.md5 = FerritCore::Digest::md5Hex(zip);
            // The first version is the base that every later increment builds on; a client on
            // the base or any later version takes the increment to the newest, and copies what
            // it leaves out from the version it has. So the increment is built from the list of
            // every version since the base; without all of them the new version is a new base.
            // A device keeps the full list of the base beside an increment's, so a version that a
            // new key signs is a new base: no list of the old key stays in use once it retires.
            done.newKey = done.seq > 1 && !signing.signerId.empty() &&
                          packSigner(before, signing.previousSignerId) != signing.signerId;
            std::vector<PackListing> since;
            for (uint64_t seq = done.baseSeq; !done.newKey && seq != 0 && seq < done.seq; ++seq) {
                PackListing list;
                if (!readListing(historyFolder, pack.name, seq, list)) {
                    since.clear();
                    done.rebased = true;
                    break;
                }
                since.push_back(std::move(list));
            }
            if (since.empty()) {
                done.baseSeq = done.seq;
            } else {
                std::string increment;
                if (!buildIncrementSince(since, content, options, increment, error, &done.summary))
                    return false;
                const std::string path = folder + "i/" + std::to_string(done.seq) + ".zip";
                if (!writeImmutable(out, path, increment, error)) return false;
                done.written.push_back(path);
                done.incremental = true;
                config.incrMd5 = FerritCore::Digest::md5Hex(increment);
            }
            if (!writeListing(historyFolder, pack.name, done.seq, listing, error)) return false;
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
            if (!signing.signerId.empty()) record.set(kPackSigner, JSON(signing.signerId));
        }
        packsState.set(pack.name, record);
        records.push_back(config);
        result.packs.push_back(std::move(done));
    }
    // A pack that left the manifest is gone from the new configuration, and clients drop it.
    for (const auto& [name, record] : state["packs"].objectValue()) {
        if (!packsState.objectValue().find(name)) anyChanged = true;
    }
    // With no pack changed the configuration is signed again only when asked, or when devices
    // would soon stop taking it.
    if (!anyChanged) {
        if (!manifest.resign && !stampRunsOut(state, manifest.validForMs)) return true;
        result.resigned = true;
    }

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
    // What devices judge the document by: when it was signed, until when it counts, its keys.
    const DocumentStamp stamp = nextStamp(state, manifest.validForMs, signing.documentKeys);
    if (!stampDocument(document.substr(0, document.rfind("||")), stamp, signer, document, error))
        return false;
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
    if (!signing.signerId.empty())
        newState.set("keys", signing.stateKeys);
    else if (state["keys"].isObject())
        newState.set("keys", state["keys"]);
    recordStamp(newState, stamp);
    if (!writeBelow(historyFolder, kStateFile, newState.toString(), error)) return false;
    pruneHistory(historyFolder, state["packs"], packsState);
    result.version = version;
    result.issued = stamp.issued;
    result.expires = stamp.expires;
    return true;
}

}  // namespace FerritTools
