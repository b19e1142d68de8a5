#include "tools/publish/Publisher.h"

#include <algorithm>
#include <filesystem>
#include <set>

#include "base/Digest.h"
#include "marl/Json.h"
#include "model/Pack.h"
#include "storage/ZipFile.h"
#include "tools/common/ToolClock.h"
#include "tools/common/ToolFiles.h"
#include "tools/publish/CacheRules.h"
#include "tools/publish/Release.h"

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
    std::string reason = code ? code.message() : std::string();
    if (code || !writeFileAtomically(path.string(), content, &reason)) {
        error = cannotWrite(path.string(), reason);
        return false;
    }
    return true;
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

// Where a pack's full zip and its increment of version `seq` go, below its zip folder.
std::string versionZip(const std::string& folder, uint64_t seq) {
    return folder + std::to_string(seq) + ".zip";
}

std::string incrementZip(const std::string& folder, uint64_t seq) {
    return folder + "i/" + std::to_string(seq) + ".zip";
}

std::string patchedZip(const std::string& folder, uint64_t seq) {
    return folder + "p/" + std::to_string(seq) + ".zip";
}

bool pathExists(const std::string& out, const std::string& relative) {
    std::error_code code;
    return fs::exists(fs::path(out) / relative, code);
}

// The (path, MD5) pairs whose bytes are still to be read.
using WantedReferences = std::set<std::pair<std::string, std::string>>;

// Takes from one version's full zip, each by its name, the bytes of every wanted pair that the
// version's list has, and checks them against that MD5: a patch against other bytes would fail
// every device. A zip that is gone or damaged, or an entry that is, gives nothing; another
// version with the same MD5 may still give it. False when the zip could not be read at all.
bool takeReferences(const std::string& zipFile, const PackListing& listing,
                    WantedReferences& wanted, ReferenceFiles& references) {
    std::vector<std::pair<std::string, std::string>> here;
    for (const auto& pair : wanted) {
        const auto file = listing.find(pair.first);
        if (file != listing.end() && file->second.md5 == pair.second) here.push_back(pair);
    }
    std::string archive;
    if (here.empty() || !readWholeFile(zipFile, archive)) return false;
    FerritCore::Error error;
    FerritCore::ZipFile zip =
        FerritCore::ZipFile::open(FerritCore::Folder::disk(zipFile), archive, error);
    if (error) return false;
    for (const auto& [path, md5] : here) {
        std::string bytes = zip.readEntry(std::string(kResourcePrefix) + path, error);
        if (error || FerritCore::Digest::md5Hex(bytes) != md5) continue;
        references[path][md5] = std::move(bytes);
        wanted.erase({path, md5});
    }
    return true;
}

}  // namespace

size_t readPatchReferences(const std::string& out, const std::string& folder, uint64_t baseSeq,
                           const std::vector<PackListing>& since, const PackListing& current,
                           const std::vector<std::string>& changed, ReferenceFiles& references) {
    WantedReferences wanted;
    for (const std::string& path : changed) {
        const auto now = current.find(path);
        WantedReferences olds;
        bool everywhere = now != current.end();
        for (size_t i = 0; everywhere && i < since.size(); ++i) {
            const auto file = since[i].find(path);
            everywhere = file != since[i].end();
            if (everywhere && file->second.md5 != now->second.md5)
                olds.emplace(path, file->second.md5);
        }
        // A path some version lacks travels whole: a device there has nothing to patch.
        if (everywhere) wanted.insert(olds.begin(), olds.end());
    }
    size_t opened = 0;
    for (size_t i = 0; i < since.size() && !wanted.empty(); ++i) {
        const bool has = std::any_of(wanted.begin(), wanted.end(), [&](const auto& pair) {
            const auto file = since[i].find(pair.first);
            return file != since[i].end() && file->second.md5 == pair.second;
        });
        // A version with nothing still wanted is not read at all.
        if (has && takeReferences((fs::path(out) / versionZip(folder, baseSeq + i)).string(),
                                  since[i], wanted, references))
            ++opened;
    }
    return opened;
}

namespace {

// Builds the patched increment from the same base as `increment`, against the files of each
// version since the base as its full zip holds them, and writes it beside the increment only when
// it is smaller: a device that knows patches fetches it first, so it must never cost more. `md5`
// is its MD5 when written, else empty.
bool writePatchedIncrement(const std::string& out, const std::string& folder,
                           const std::vector<PackListing>& since, const PackContent& content,
                           const PackOptions& options, const std::string& increment,
                           PublishedPack& done, std::string& md5, std::string& error) {
    // Only a file the base had and that changed can travel as a patch.
    ReferenceFiles references;
    readPatchReferences(out, folder, done.baseSeq, since, listingOf(content.files),
                        done.summary.changed, references);
    done.incrementBytes = increment.size();
    // Without a reference no path can travel as a patch: the build would only remake the plain
    // increment byte for byte, which is never written, so its size stands for it.
    if (references.empty()) {
        done.patchedBytes = increment.size();
        return true;
    }
    std::string patched;
    if (!buildIncrementSince(since, content, options, patched, error, nullptr, &references,
                             &done.patches))
        return false;
    done.patchedBytes = patched.size();
    if (patched.size() >= increment.size()) return true;
    const std::string path = patchedZip(folder, done.seq);
    if (!writeImmutable(out, path, patched, error)) return false;
    done.written.push_back(path);
    done.patched = true;
    md5 = FerritCore::Digest::md5Hex(patched);
    return true;
}

// Writes the increment from the versions `since` and the patched increment beside it; their MD5s
// go to `incrMd5` and `patchMd5` (empty when the patched one was not written).
bool writeIncrements(const std::string& out, const std::string& folder,
                     const std::vector<PackListing>& since, const PackContent& content,
                     const PackOptions& options, PublishedPack& done, std::string& incrMd5,
                     std::string& patchMd5, std::string& error) {
    std::string increment;
    if (!buildIncrementSince(since, content, options, increment, error, &done.summary))
        return false;
    const std::string path = incrementZip(folder, done.seq);
    if (!writeImmutable(out, path, increment, error)) return false;
    done.written.push_back(path);
    done.incremental = true;
    incrMd5 = FerritCore::Digest::md5Hex(increment);
    return writePatchedIncrement(out, folder, since, content, options, increment, done, patchMd5,
                                 error);
}

// The lists of the versions from `base` to `newest`, which the increment is built from; empty,
// with `rebased` set, when the history lacks one of them.
std::vector<PackListing> listsSinceBase(const std::string& history, const std::string& name,
                                        uint64_t base, uint64_t newest, bool& rebased) {
    std::vector<PackListing> since;
    for (uint64_t seq = base; seq != 0 && seq <= newest; ++seq) {
        PackListing list;
        if (!readListing(history, name, seq, list)) {
            rebased = true;
            return {};
        }
        since.push_back(std::move(list));
    }
    return since;
}

// The pack's record in the state once `done` is its newest version, with the zips' MD5s.
JSON newRecord(const PublishPack& pack, const JSON& before, const SigningPlan& signing,
               const PublishedPack& done, const std::string& md5, const std::string& incrMd5,
               const std::string& patchMd5) {
    const double publishTime = static_cast<double>(nowMs());
    const uint64_t flags = FerritCore::kPackTypeFerrit | pack.priority;
    // What a pack's own document says of each version, so that any channel can name it later.
    // The key that signed its list too, so that no key retires while a channel gives a version
    // it signed to devices.
    JSON builds = before["builds"].isObject() ? before["builds"] : JSON(JSONObject{});
    JSON build(JSONObject{{"b", JSON(done.baseSeq)},
                          {"c", JSON(md5)},
                          {"ci", JSON(incrMd5)},
                          {"t", JSON(publishTime)},
                          {"f", JSON(flags)},
                          {"p", JSON(pack.prefix)}});
    // Only when there is one: without it the record is the bytes it always was.
    if (!patchMd5.empty()) build.set("cp", JSON(patchMd5));
    if (!signing.signerId.empty()) build.set(kVersionSigner, JSON(signing.signerId));
    builds.set(std::to_string(done.seq), build);
    JSON record(JSONObject{});
    record.set("seq", JSON(done.seq));
    record.set("base", JSON(done.baseSeq));
    record.set("c", JSON(md5));
    record.set("ci", JSON(incrMd5));
    if (!patchMd5.empty()) record.set("cp", JSON(patchMd5));
    record.set("t", JSON(publishTime));
    record.set("prefix", JSON(pack.prefix));
    record.set("priority", JSON(pack.priority));
    record.set("builds", builds);
    // Numbers stepped over stay known, so that no later command takes their zips for a version.
    JSON skipped = before["skipped"].isArray() ? before["skipped"] : JSON();
    for (uint64_t seq : done.skipped) skipped.push(JSON(seq));
    if (skipped.isArray()) record.set("skipped", std::move(skipped));
    if (!signing.signerId.empty()) record.set(kPackSigner, JSON(signing.signerId));
    return record;
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

bool historyFolderFor(const std::string& out, const std::string& history, std::string& folder,
                      std::string& error) {
    folder = history.empty() ? defaultHistoryFolder(out) : history;
    if (folder.empty()) {
        error = "the tree " + out + " has no folder beside it for the history; name one";
        return false;
    }
    if (isWithin(folder, out)) {
        error = "the history " + folder + " lies inside the tree " + out +
                ", which would serve it; name one outside";
        return false;
    }
    return importInTreeHistory(out, folder, error);
}

bool readPublishState(const std::string& history, JSON& state, std::string& error) {
    const std::string stateFile = joinPath(history, kStateFile);
    state = JSON(JSONObject{});
    std::string stateText;
    if (!readWholeFile(stateFile, stateText)) return true;
    std::string parseError;
    state = JSON::parse(stateText, &parseError);
    if (!parseError.empty() || !state.isObject()) {
        error = "the publish state " + stateFile + " is damaged";
        return false;
    }
    return true;
}

bool writePublishState(const std::string& history, const JSON& state, std::string& error) {
    return writeBelow(history, kStateFile, state.toString(), error);
}

bool writeTreeFile(const std::string& out, const std::string& relative, const std::string& content,
                   std::string& error) {
    return writeBelow(out, relative, content, error);
}

bool signingPlanOf(const JSON& state, const PublishManifest& manifest, SigningPlan& plan,
                   std::string& error) {
    plan = SigningPlan();
    return manifest.signerKeyId.empty() ||
           planSigning(state, manifest.signerKeyId, manifest.signerPublicKey, plan, error);
}

bool buildVersion(const PublishPack& pack, const PackContent& content, const std::string& zipFolder,
                  const std::string& out, const std::string& history, const Signer& signer,
                  const JSON& before, const SigningPlan& signing, PublishedPack& done, JSON& record,
                  std::string& error,
                  const std::function<void(const std::string& path, uint64_t bytes)>& onFile) {
    done.name = pack.name;
    const uint64_t newest = before["seq"].uint64Value();
    done.seq = newest + 1;
    done.baseSeq = before["base"].uint64Value();
    const std::string folder = zipFolder + pack.name + "/";
    // A publish killed after writing a zip and before its documents leaves the zip unnamed by any
    // document. A cache may still have fetched it, so its path is never given other bytes: the
    // new version takes the next path that is free. A tree whose history knows nothing of the
    // pack keeps its refusal below, since there the history, not the tree, is what was lost.
    while (newest != 0 && (pathExists(out, versionZip(folder, done.seq)) ||
                           pathExists(out, incrementZip(folder, done.seq)) ||
                           pathExists(out, patchedZip(folder, done.seq)))) {
        done.skipped.push_back(done.seq);
        ++done.seq;
    }
    done.changed = true;
    PackOptions options;
    options.urlPrefix = pack.prefix;
    options.signer = signer;
    options.onFile = onFile;
    std::string zip;
    if (!buildPack(content, options, zip, error)) return false;
    options.onFile = nullptr;
    const std::string full = versionZip(folder, done.seq);
    if (!writeImmutable(out, full, zip, error)) return false;
    done.written.push_back(full);
    const std::string md5 = FerritCore::Digest::md5Hex(zip);
    done.fullBytes = zip.size();
    std::string incrMd5, patchMd5;
    // The first version is the base that every later increment builds on; a client on the base or
    // any later version takes the increment to the newest, and copies what it leaves out from the
    // version it has. So the increment is built from the list of every version since the base;
    // without all of them the new version is a new base.
    // A device keeps the full list of the base beside an increment's, so a version that a new key
    // signs is a new base: no list of the old key stays in use once it retires.
    done.newKey = done.seq > 1 && !signing.signerId.empty() &&
                  packSigner(before, signing.previousSignerId) != signing.signerId;
    const std::vector<PackListing> since =
        done.newKey ? std::vector<PackListing>()
                    : listsSinceBase(history, pack.name, done.baseSeq, newest, done.rebased);
    if (since.empty()) {
        done.baseSeq = done.seq;
    } else {
        if (!writeIncrements(out, folder, since, content, options, done, incrMd5, patchMd5, error))
            return false;
    }
    if (!writeListing(history, pack.name, done.seq, listingOf(content.files), error)) return false;
    record = newRecord(pack, before, signing, done, md5, incrMd5, patchMd5);
    return true;
}

bool publish(const std::string& site, const PublishManifest& manifest, const std::string& out,
             const std::string& history, const Signer& signer, PublishResult& result,
             std::string& error, const PublishProgress& progress, const PublishOptions& options) {
    result = PublishResult();
    if (!validChannelName(options.channel)) {
        error = "the channel \"" + options.channel +
                "\" is not a plain name (letters, digits, \".\", \"_\", \"-\")";
        return false;
    }
    std::string historyFolder;
    if (!historyFolderFor(out, history, historyFolder, error)) return false;
    if (!writeCacheRules(out, manifest.zipFolder, error)) return false;
    JSON state;
    if (!readPublishState(historyFolder, state, error)) return false;
    SigningPlan signing;
    if (!signingPlanOf(state, manifest, signing, error)) return false;
    const bool rollingOut = !options.rolloutPack.empty();
    // A rollout builds its own pack alone; the others keep what they have.
    auto builds = [&](const PublishPack& pack) {
        return !rollingOut || pack.name == options.rolloutPack;
    };
    // Every pack is read first, so that the progress knows the whole work.
    std::vector<PackContent> contents(manifest.packs.size());
    PublishStep step;
    for (size_t i = 0; i < manifest.packs.size(); ++i) {
        if (!builds(manifest.packs[i])) continue;
        if (!readFolder(joinPath(site, manifest.packs[i].folder), contents[i].files, error))
            return false;
        step.totalFiles += contents[i].files.size();
        for (const auto& [path, bytes] : contents[i].files) step.totalBytes += bytes.size();
    }
    auto report = [&](const std::string& what) {
        step.step = what;
        if (progress) progress(step);
    };

    JSON packsState(JSONObject{});
    bool anyChanged = false;
    for (size_t index = 0; index < manifest.packs.size(); ++index) {
        const PublishPack& pack = manifest.packs[index];
        // A pack added back after it left the manifest goes on after its last sequence: its old
        // zips keep their paths, which caches hold as immutable.
        const uint64_t gone = goneSeq(state, pack.name);
        const JSON before = state["packs"][pack.name].isObject() || gone == 0
                                ? state["packs"][pack.name]
                                : JSON(JSONObject{{"seq", JSON(gone)}});
        if (!builds(pack)) {
            if (state["packs"][pack.name].isObject())
                packsState.set(pack.name, state["packs"][pack.name]);
            continue;
        }
        report("pack " + pack.name);
        PackContent content;
        content.files = std::move(contents[index].files);
        content.headers = pack.headers;
        uint64_t packBytes = 0;
        for (const auto& [path, bytes] : content.files) packBytes += bytes.size();
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
        if (unchanged) {
            step.files += content.files.size();
            step.bytes += packBytes;
            report("pack " + pack.name);
        } else {
            anyChanged = true;
            auto onFile = [&](const std::string& path, uint64_t bytes) {
                ++step.files;
                step.bytes += bytes;
                report(pack.name + "/" + path);
            };
            if (!buildVersion(pack, content, manifest.zipFolder, out, historyFolder, signer, before,
                              signing, done, record, error, onFile))
                return false;
        }
        packsState.set(pack.name, record);
        result.packs.push_back(std::move(done));
    }
    if (rollingOut && result.packs.empty()) {
        error = "the manifest names no pack \"" + options.rolloutPack + "\"";
        return false;
    }
    JSON newState = state;
    newState.set("packs", packsState);
    // A pack that left the manifest is gone from the new configuration, and from every
    // channel's releases: nothing releases it, rolls it out or back any more.
    for (const auto& [name, record] : state["packs"].objectValue()) {
        if (packsState.objectValue().find(name)) continue;
        anyChanged = true;
        dropPack(newState, name, record["seq"].uint64Value());
        result.removed.push_back(name);
    }
    // One added back is no longer gone.
    if (newState["gone"].isObject()) {
        JSON gone(JSONObject{});
        for (const auto& [name, last] : newState["gone"].objectValue())
            if (!packsState[name].isObject()) gone.set(name, last);
        newState.set("gone", gone);
    }
    bool releaseChanged = false;
    for (const PublishedPack& done : result.packs) {
        const PackRelease release = releaseOf(state, options.channel, done.name);
        PackRelease next = release;
        const double time = packsState[done.name]["t"].doubleValue();
        if (rollingOut) {
            if (done.seq == release.seq) {
                error = "version " + std::to_string(done.seq) + " of " + done.name +
                        " is what every device has already; nothing to roll out";
                return false;
            }
            if (release.graySeq == done.seq && options.rolloutShare < release.share) {
                error = "a rollout only grows (" + done.name + " is at " +
                        std::to_string(release.share / kSharePerPercent) +
                        "%); `ferrit rollback` takes it back";
                return false;
            }
            next.graySeq = done.seq;
            next.grayTime = time;
            next.share = options.rolloutShare;
        } else if (done.changed || (release.seq == 0 && release.graySeq == 0)) {
            // A new version, or one this channel never had: every device takes it.
            if (release.seq != 0 && release.seq != done.seq) next.past.push_back(release.seq);
            next.seq = done.seq;
            next.time = time;
            next.graySeq = 0;
            next.grayTime = 0;
            next.share = 0;
        }
        if (next.toJSON().toString() != release.toJSON().toString()) {
            setRelease(newState, options.channel, done.name, next);
            releaseChanged = true;
        }
    }
    // With nothing changed the configuration is signed again only when asked, or when devices
    // would soon stop taking it.
    if (!anyChanged && !releaseChanged) {
        if (!manifest.resign && !stampRunsOut(state, manifest.validForMs)) return true;
        result.resigned = true;
    }

    report("configuration");
    const uint64_t version = nextChannelVersion(state, options.channel, manifest.version);
    std::vector<std::string> written;
    DocumentStamp stamp;
    if (!writeChannel(newState, options.channel, manifest, out, signer, signing, version, written,
                      stamp, error))
        return false;
    const std::string packDocuments = channelFolder(options.channel) + "packconfig/";
    for (const std::string& path : written) {
        if (!path.starts_with(packDocuments)) {
            result.configPaths.push_back(path);
            continue;
        }
        for (PublishedPack& done : result.packs)
            if (path.starts_with(packDocuments + done.name + "/")) done.written.push_back(path);
    }
    if (!writePublishState(historyFolder, newState, error)) return false;
    pruneHistory(historyFolder, state["packs"], packsState);
    result.version = version;
    result.issued = stamp.issued;
    result.expires = stamp.expires;
    return true;
}

}  // namespace FerritTools
