#include "tools/publish/Release.h"

#include <minizip/unzip.h>

#include <algorithm>
#include <map>
#include <set>

#include "model/Pack.h"
#include "runtime/Settings.h"
#include "tools/common/ToolClock.h"
#include "tools/common/ToolFiles.h"

namespace FerritTools {

using MarlLogger::json::JSON;
using MarlLogger::json::JSONArray;
using MarlLogger::json::JSONObject;

namespace {

// In the state: the named channels' states, and each channel's releases by pack.
constexpr const char* kChannelsKey = "channels";
// The member of a named channel's global documents that says which channel they are.
constexpr const char* kChannelMember = "channel";
constexpr const char* kReleaseKey = "release";
// In the state: the packs that left the manifest, each with its last sequence.
constexpr const char* kGoneKey = "gone";
// The origin version of a client that has no configuration yet.
constexpr const char* kNoVersion = "0";
// Where a pack zip keeps its files and its signed list.
constexpr std::string_view kResourceEntryPrefix = "res/";
constexpr const char* kIndexEntryName = "app-res.hvc";
// A signed document or list: the JSON, then this, then the signature.
constexpr std::string_view kSignatureSeparator = "||";
// Priorities are the low four bits of a pack's flags.
constexpr uint64_t kPriorityMask = 0x0F;

// The channel's own part of the state: the state itself for the default channel, which kept its
// "version" and "versions" there before channels existed.
JSON channelState(const JSON& state, const std::string& channel) {
    if (channel.empty()) return state;
    const JSON& named = state[kChannelsKey][channel];
    return named.isObject() ? named : JSON(JSONObject{});
}

void setChannelState(JSON& state, const std::string& channel, const JSON& value) {
    if (channel.empty()) {
        for (const auto& [key, member] : value.objectValue()) state.set(key, member);
        return;
    }
    JSON channels = state[kChannelsKey].isObject() ? state[kChannelsKey] : JSON(JSONObject{});
    channels.set(channel, value);
    state.set(kChannelsKey, channels);
}

// The JSON part of a signed document, parsed; null when there is none.
JSON signedDocumentJson(const std::string& text) {
    const size_t separator = text.rfind(kSignatureSeparator);
    if (separator == std::string::npos) return JSON();
    std::string parseError;
    JSON document = JSON::parse(std::string_view(text).substr(0, separator), &parseError);
    return parseError.empty() ? document : JSON();
}

// What a pack's own document says of version `seq`, from the state's record of the pack.
bool versionRecord(const JSON& packState, const std::string& name, uint64_t seq, ConfigPack& out,
                   std::string& error) {
    const JSON& build = packState["builds"][std::to_string(seq)];
    out = ConfigPack();
    out.name = name;
    out.seq = seq;
    if (build.isObject()) {
        out.baseSeq = build["b"].uint64Value();
        out.md5 = build["c"].stringValue();
        out.incrMd5 = build["ci"].stringValue();
        out.patchMd5 = build["cp"].stringValue();
        out.publishTime = build["t"].doubleValue();
        out.flags = build["f"].uint64Value();
        out.prefixes.push_back(build["p"].stringValue());
        return true;
    }
    if (packState["seq"].uint64Value() == seq) {
        // A tree published before every version's record was kept: the newest one's is there.
        out.baseSeq = packState["base"].uint64Value();
        out.md5 = packState["c"].stringValue();
        out.incrMd5 = packState["ci"].stringValue();
        out.patchMd5 = packState["cp"].stringValue();
        out.publishTime = packState["t"].doubleValue();
        out.flags = FerritCore::kPackTypeFerrit | packState["priority"].uint64Value();
        out.prefixes.push_back(packState["prefix"].stringValue());
        return true;
    }
    error = "the history holds no record of version " + std::to_string(seq) + " of " + name;
    return false;
}

// Writes the pack's own document for `seq` in the channel unless one that says the same gray
// state is there: a promotion re-signs it without the gray mark.
bool writePackDocument(const JSON& packState, const std::string& name, uint64_t seq, bool gray,
                       const std::string& folder, const std::string& out,
                       const std::string& versionText, const Signer& signer,
                       std::vector<std::string>& written, std::string& error) {
    const std::string path = folder + "packconfig/" + name + "/" + std::to_string(seq);
    const uint64_t wanted = gray ? FerritCore::kGrayStateGray : FerritCore::kGrayStateNormal;
    std::string existing;
    if (readWholeFile(out + "/" + path, existing)) {
        const JSON document = signedDocumentJson(existing);
        const JSON& record = document["packs"][name];
        if (record.isObject() && record["s"].uint64Value() == seq &&
            (record["g"].uint64Value() & FerritCore::kGrayStateMask) == wanted)
            return true;
    }
    ConfigPack record;
    if (!versionRecord(packState, name, seq, record, error)) return false;
    record.gray = wanted;
    std::string document;
    if (!buildConfig(versionText, {record}, signer, document, error)) return false;
    if (!writeTreeFile(out, path, document, error)) return false;
    written.push_back(path);
    return true;
}

// The files and response headers of a published full zip of a pack.
bool readPackZip(const std::string& path, PackContent& content, std::string& error) {
    unzFile zip = unzOpen64(path.c_str());
    if (zip == nullptr) {
        error = "cannot open " + path + " (the version's full zip, which a rollback republishes)";
        return false;
    }
    bool ok = true;
    std::string index;
    for (int status = unzGoToFirstFile(zip); ok && status == UNZ_OK;
         status = unzGoToNextFile(zip)) {
        unz_file_info64 info;
        char name[4096];
        if (unzGetCurrentFileInfo64(zip, &info, name, sizeof(name), nullptr, 0, nullptr, 0) !=
                UNZ_OK ||
            unzOpenCurrentFile(zip) != UNZ_OK) {
            ok = false;
            break;
        }
        std::string data(static_cast<size_t>(info.uncompressed_size), '\0');
        const int read =
            data.empty() ? 0
                         : unzReadCurrentFile(zip, data.data(), static_cast<unsigned>(data.size()));
        if (unzCloseCurrentFile(zip) != UNZ_OK || read != static_cast<int>(data.size())) {
            ok = false;
            break;
        }
        const std::string entry(name);
        if (entry == kIndexEntryName) {
            index = std::move(data);
        } else if (entry.starts_with(kResourceEntryPrefix) && entry.back() != '/') {
            content.files.emplace(entry.substr(kResourceEntryPrefix.size()), std::move(data));
        }
    }
    unzClose(zip);
    if (!ok) {
        error = "cannot read " + path;
        return false;
    }
    // The signed list carries each file's response headers.
    const size_t separator = index.find(kSignatureSeparator);
    std::string parseError;
    const JSON list = JSON::parse(std::string_view(index).substr(0, separator), &parseError);
    if (!parseError.empty() || !list.isObject()) {
        error = path + " holds no readable list of its files";
        return false;
    }
    for (const auto& [entry, record] : list.objectValue()) {
        if (!entry.starts_with(kResourceEntryPrefix) || !record["header"].isObject()) continue;
        const std::string file = entry.substr(kResourceEntryPrefix.size());
        if (content.files.count(file) == 0) continue;
        for (const auto& [field, value] : record["header"].objectValue())
            content.headers[file][field] = value.stringValue();
    }
    return true;
}

// The state of the pack, or an error that says the tree does not publish it.
bool packStateOf(const JSON& state, const std::string& pack, std::string& error) {
    if (state["packs"][pack].isObject()) return true;
    if (goneSeq(state, pack) != 0) {
        error = "pack \"" + pack + "\" is not published: it left the manifest after version " +
                std::to_string(goneSeq(state, pack)) +
                "; add it back and `ferrit publish` to publish it again";
    } else {
        error = "pack \"" + pack + "\" is not published in this tree; `ferrit publish` it first";
    }
    return false;
}

// The other channels' global documents (`paths`, signed again) also at every version path of
// `origins` and at `newVersion`'s, where a device that leaves the channel writing `newVersion`
// for one of theirs asks: each is the full document, as at "0~0".
bool writeAtOrigins(const std::string& out, const std::vector<std::string>& paths,
                    std::set<std::string> origins, const std::string& newVersion,
                    std::string& error) {
    origins.insert(newVersion);
    // One document per channel, app, app version and locale: what lies above and below the
    // version's folder.
    std::map<std::pair<std::string, std::string>, std::string> documents;
    for (const std::string& path : paths) {
        const size_t file = path.rfind('/');
        const size_t versionFolder = path.rfind('/', file - 1);
        if (file == std::string::npos || versionFolder == std::string::npos) continue;
        documents.emplace(std::make_pair(path.substr(0, versionFolder + 1), path.substr(file)),
                          path);
    }
    for (const auto& [where, source] : documents) {
        std::string text;
        if (!readWholeFile(out + "/" + source, text)) {
            error = "cannot read " + out + "/" + source;
            return false;
        }
        for (const std::string& origin : origins) {
            const std::string path = where.first + kNoVersion + "~" + origin + where.second;
            if (path == source || std::find(paths.begin(), paths.end(), path) != paths.end())
                continue;
            if (!writeTreeFile(out, path, text, error)) return false;
        }
    }
    return true;
}

std::string describeChannel(const std::string& channel) {
    return channel.empty() ? std::string("the default channel") : "channel \"" + channel + "\"";
}

// Stores the new release, writes the channel's documents and the state.
bool release(JSON& state, const std::string& history, const PublishManifest& manifest,
             const std::string& out, const Signer& signer, ReleaseResult& result,
             std::string& error) {
    SigningPlan signing;
    if (!signingPlanOf(state, manifest, signing, error)) return false;
    setRelease(state, result.channel, result.pack, result.after);
    result.version = nextChannelVersion(state, result.channel, manifest.version);
    DocumentStamp stamp;
    if (!writeChannel(state, result.channel, manifest, out, signer, signing, result.version,
                      result.written, stamp, error))
        return false;
    result.issued = stamp.issued;
    result.expires = stamp.expires;
    return writePublishState(history, state, error);
}

}  // namespace

std::vector<std::string> channelsOf(const JSON& state) {
    std::vector<std::string> channels{std::string()};
    for (const auto& [name, unused] : state[kChannelsKey].objectValue())
        if (!name.empty()) channels.push_back(name);
    return channels;
}

std::string channelFolder(const std::string& channel) {
    return channel.empty() ? std::string() : kChannelsFolder + channel + "/";
}

bool validChannelName(const std::string& channel) {
    // The tree's own documents have no channel; a named one follows the hosts' rule.
    return channel.empty() || FerritCore::HostDefaults::isPlainChannel(channel);
}

PackRelease PackRelease::fromJSON(const JSON& value) {
    PackRelease release;
    release.seq = value["seq"].uint64Value();
    release.time = value["t"].doubleValue();
    release.graySeq = value["gray"].uint64Value();
    release.grayTime = value["grayTime"].doubleValue();
    release.share = value["share"].uint32Value();
    for (const JSON& seq : value["past"].arrayValue()) release.past.push_back(seq.uint64Value());
    return release;
}

JSON PackRelease::toJSON() const {
    JSON value(JSONObject{});
    value.set("seq", JSON(seq));
    if (time != 0) value.set("t", JSON(time));
    if (graySeq != 0) {
        value.set("gray", JSON(graySeq));
        value.set("grayTime", JSON(grayTime));
        value.set("share", JSON(share));
    }
    if (!past.empty()) value.set("past", JSON(past));
    return value;
}

PackRelease releaseOf(const JSON& state, const std::string& channel, const std::string& pack) {
    const JSON releases = channelState(state, channel)[kReleaseKey];
    if (releases.isObject()) {
        const JSON& entry = releases[pack];
        return entry.isObject() ? PackRelease::fromJSON(entry) : PackRelease();
    }
    PackRelease release;
    const JSON& record = state["packs"][pack];
    if (channel.empty() && record.isObject()) {
        // Before channels, the tree released each pack's newest version to every device.
        release.seq = record["seq"].uint64Value();
        release.time = record["t"].doubleValue();
    }
    return release;
}

void setRelease(JSON& state, const std::string& channel, const std::string& pack,
                const PackRelease& release) {
    JSON own = channelState(state, channel);
    JSON releases = own[kReleaseKey];
    if (!releases.isObject()) {
        // The first release this channel records: the default channel first writes down what an
        // earlier publish released by the old rule.
        releases = JSON(JSONObject{});
        for (const auto& [name, unused] : state["packs"].objectValue()) {
            const PackRelease earlier = releaseOf(state, channel, name);
            if (earlier.seq != 0) releases.set(name, earlier.toJSON());
        }
    }
    releases.set(pack, release.toJSON());
    JSON part(JSONObject{});
    if (channel.empty()) {
        part.set(kReleaseKey, releases);
    } else {
        part = own;
        part.set(kReleaseKey, releases);
    }
    setChannelState(state, channel, part);
}

void dropPack(JSON& state, const std::string& pack, uint64_t lastSeq) {
    // Every channel's releases, the default channel's first; a channel that never wrote its own
    // list of releases derives it from the packs, which no longer name this one.
    auto without = [&pack](const JSON& owner) {
        JSON releases(JSONObject{});
        for (const auto& [name, release] : owner[kReleaseKey].objectValue())
            if (name != pack) releases.set(name, release);
        return releases;
    };
    if (state[kReleaseKey].isObject()) state.set(kReleaseKey, without(state));
    if (state[kChannelsKey].isObject()) {
        JSON channels(JSONObject{});
        for (const auto& [name, own] : state[kChannelsKey].objectValue()) {
            JSON part = own;
            if (part[kReleaseKey].isObject()) part.set(kReleaseKey, without(own));
            channels.set(name, part);
        }
        state.set(kChannelsKey, channels);
    }
    JSON gone = state[kGoneKey].isObject() ? state[kGoneKey] : JSON(JSONObject{});
    gone.set(pack, JSON(JSONObject{{"seq", JSON(lastSeq)}}));
    state.set(kGoneKey, gone);
}

uint64_t goneSeq(const JSON& state, const std::string& pack) {
    return state[kGoneKey][pack]["seq"].uint64Value();
}

uint64_t nextChannelVersion(const JSON& state, const std::string& channel, uint64_t wanted) {
    const uint64_t previous = channelState(state, channel)["version"].uint64Value();
    return std::max({wanted, nowMs(), previous + 1});
}

bool writeChannel(JSON& state, const std::string& channel, const PublishManifest& manifest,
                  const std::string& out, const Signer& signer, const SigningPlan& signing,
                  uint64_t version, std::vector<std::string>& written, DocumentStamp& stamp,
                  std::string& error) {
    const std::string folder = channelFolder(channel);
    const std::string versionText = std::to_string(version);
    std::vector<ConfigPack> global;
    for (const auto& [name, packState] : state["packs"].objectValue()) {
        const PackRelease release = releaseOf(state, channel, name);
        if (release.seq == 0 && release.graySeq == 0) continue;
        if (release.seq != 0 && !writePackDocument(packState, name, release.seq, false, folder, out,
                                                   versionText, signer, written, error))
            return false;
        if (release.graySeq != 0 &&
            !writePackDocument(packState, name, release.graySeq, true, folder, out, versionText,
                               signer, written, error))
            return false;
        // The global record names the version without its base, so that a client asks for the
        // version's own document before it downloads.
        ConfigPack shape;
        if (!versionRecord(packState, name, release.seq != 0 ? release.seq : release.graySeq, shape,
                           error))
            return false;
        ConfigPack entry;
        entry.name = name;
        entry.seq = release.seq;
        entry.flags = shape.flags;
        entry.prefixes = shape.prefixes;
        entry.publishTime = release.time;
        if (release.graySeq != 0) {
            // The released version, marked as what follows a gray one, so that a device that
            // holds the gray version outside the share goes back to it; beside it the rollout.
            entry.gray = FerritCore::kGrayStateReleased;
            entry.rolloutSeq = release.graySeq;
            entry.rolloutShare = release.share;
            entry.rolloutTime = release.grayTime;
            // With nothing released, a device that does not know the rollout keys must see no
            // pack at all, not one of version 0: the record says the pack is deleted. A device
            // that knows them reads past it (FConfig::resolveRollout).
            if (release.seq == 0) entry.status = FerritCore::kPackStatusDeleted;
        }
        global.push_back(std::move(entry));
    }
    std::string document;
    if (!buildConfig(versionText, global, signer, document, error)) return false;
    // What devices judge the document by: when it was signed, until when it counts, its keys,
    // and for a named channel the channel, so that a document served at another channel's path
    // is refused there (the stamp of a later signature keeps it).
    stamp = nextStamp(state, manifest.validForMs, signing.documentKeys);
    std::string body = document.substr(0, document.rfind(kSignatureSeparator));
    if (!channel.empty()) {
        JSON named = JSON::parse(body);
        named.set(kChannelMember, JSON(channel));
        body = named.toString();
    }
    if (!stampDocument(body, stamp, signer, document, error)) return false;
    // Every global document of the tree carries the newest stamp, the other channels' too (signed
    // again as they are), so that the state's one expiry holds for all of them and a publish that
    // is due to sign again renews every channel.
    // Their documents are checked first: one that the tree's key did not sign was put there by
    // someone else, and signing it would vouch for it.
    std::vector<std::string> others;
    for (const std::string& path : globalDocuments(out))
        if (!path.starts_with(folder + "fconfig/")) others.push_back(path);
    if (!restampDocuments(out, others, stamp, signer, signing.treeKeys, error)) return false;
    // A client asks for ".../<app version>/<target>~<its version>/<locale>~<its locale>", target
    // 0 for "the newest": every version published before, and none, get the same full document.
    // A device that moves to another channel asks with the version of the channel it left, so
    // every channel answers at every version that any channel has published.
    JSON own = channelState(state, channel);
    std::set<std::string> origins{kNoVersion};
    for (const std::string& name : channelsOf(state)) {
        const JSON part = channelState(state, name);
        for (const JSON& v : part["versions"].arrayValue()) origins.insert(v.stringValue());
    }
    if (!writeAtOrigins(out, others, origins, versionText, error)) return false;
    const std::set<std::string> localeParts{manifest.locale + "~",
                                            manifest.locale + "~" + manifest.locale};
    const std::string base =
        folder + "fconfig/" + manifest.appKey + "/" + manifest.appVersion + "/";
    for (const std::string& origin : origins) {
        for (const std::string& locale : localeParts) {
            const std::string path = base + kNoVersion + "~" + origin + "/" + locale;
            if (!writeTreeFile(out, path, document, error)) return false;
            written.push_back(path);
        }
    }
    JSON versions(JSONArray{});
    for (const JSON& v : own["versions"].arrayValue()) versions.push(v);
    versions.push(JSON(versionText));
    JSON part(JSONObject{});
    if (!channel.empty()) part = own;
    part.set("version", JSON(version));
    part.set("versions", versions);
    setChannelState(state, channel, part);
    if (!signing.signerId.empty()) state.set("keys", signing.stateKeys);
    recordStamp(state, stamp);
    return true;
}

bool rollout(const std::string& site, const PublishManifest& manifest, const std::string& out,
             const std::string& history, const Signer& signer, const std::string& channel,
             const std::string& pack, uint32_t share, ReleaseResult& result, std::string& error) {
    result = ReleaseResult();
    result.pack = pack;
    result.channel = channel;
    if (share == 0 || share > kShareScale) {
        error = "a rollout's share is above 0% and at most 100%";
        return false;
    }
    std::string historyFolder;
    JSON state;
    if (!historyFolderFor(out, history, historyFolder, error) ||
        !readPublishState(historyFolder, state, error))
        return false;
    result.before = releaseOf(state, channel, pack);
    PublishOptions options;
    options.channel = channel;
    options.rolloutPack = pack;
    options.rolloutShare = share;
    PublishResult published;
    if (!publish(site, manifest, out, history, signer, published, error, {}, options)) return false;
    if (!readPublishState(historyFolder, state, error)) return false;
    result.after = releaseOf(state, channel, pack);
    result.version = published.version;
    result.issued = published.issued;
    result.expires = published.expires;
    for (const PublishedPack& done : published.packs) {
        result.built = result.built || done.changed;
        result.written.insert(result.written.end(), done.written.begin(), done.written.end());
    }
    result.written.insert(result.written.end(), published.configPaths.begin(),
                          published.configPaths.end());
    return true;
}

namespace {

// What a channel's name may hold, said when it holds something else.
constexpr const char* kChannelNameRule =
    "a channel's name is plain: letters, digits, \".\", \"_\", \"-\"";

// The opening of promote and rollback: a fresh result for the pack and channel, the history's
// state, and the pack's release in the channel; false with the reason when the channel's name is
// not plain or the tree does not publish the pack.
bool openRelease(const std::string& out, const std::string& history, const std::string& channel,
                 const std::string& pack, ReleaseResult& result, std::string& historyFolder,
                 JSON& state, std::string& error) {
    result = ReleaseResult();
    result.pack = pack;
    result.channel = channel;
    if (!validChannelName(channel)) {
        error = kChannelNameRule;
        return false;
    }
    if (!historyFolderFor(out, history, historyFolder, error) ||
        !readPublishState(historyFolder, state, error) || !packStateOf(state, pack, error))
        return false;
    result.before = releaseOf(state, channel, pack);
    return true;
}

struct PromotedVersion {
    uint64_t seq = 0;
    double time = 0;
};

// The version that a promotion to `channel` releases: the one in rollout there, or the one that
// `from` releases.
bool promotedVersion(const JSON& state, const PackRelease& before, const std::string& channel,
                     const std::string& from, const std::string& pack, PromotedVersion& version,
                     std::string& error) {
    if (from == channel) {
        if (before.graySeq == 0 || before.share == 0) {
            error = "no version of " + pack + " is in rollout in " + describeChannel(channel);
            return false;
        }
        version = {before.graySeq, before.grayTime};
    } else {
        const PackRelease source = releaseOf(state, from, pack);
        if (source.seq == 0) {
            error = describeChannel(from) + " releases no version of " + pack;
            return false;
        }
        version = {source.seq, source.time};
        // A device never goes back to a lower number by itself: the ones on the newer version
        // would keep it while new ones took the older, and the channel would split.
        const uint64_t newest = std::max(before.seq, before.graySeq);
        if (version.seq < newest) {
            error = describeChannel(channel) + " has version " + std::to_string(newest) + " of " +
                    pack + ", newer than the version " + std::to_string(version.seq) + " that " +
                    describeChannel(from) + " releases; to give its devices version " +
                    std::to_string(version.seq) + "'s files, `ferrit rollback --to " +
                    std::to_string(version.seq) + "` publishes them as a new version";
            return false;
        }
    }
    return true;
}

}  // namespace

bool promote(const PublishManifest& manifest, const std::string& out, const std::string& history,
             const Signer& signer, const std::string& channel, const std::string& from,
             const std::string& pack, ReleaseResult& result, std::string& error) {
    // A bad argument is named before anything is read, whatever else is missing.
    if (!validChannelName(from)) {
        error = kChannelNameRule;
        return false;
    }
    std::string historyFolder;
    JSON state;
    if (!openRelease(out, history, channel, pack, result, historyFolder, state, error))
        return false;
    PromotedVersion version;
    if (!promotedVersion(state, result.before, channel, from, pack, version, error)) return false;
    const uint64_t seq = version.seq;
    PackRelease next = result.before;
    // A version whose list a retired key signed is refused by every device.
    const std::string versionKey =
        versionSigner(state["packs"][pack], seq, state["keys"]["signer"].stringValue());
    if (keyRetired(state, versionKey)) {
        error = "version " + std::to_string(seq) + " of " + pack + " is signed with the key " +
                versionKey + ", which was retired and which devices refuse; publish a newer " +
                "version of " + pack + " first";
        return false;
    }
    if (seq == result.before.seq && result.before.graySeq == 0) {
        error = "every device of " + describeChannel(channel) + " has version " +
                std::to_string(seq) + " of " + pack + " already";
        return false;
    }
    if (next.seq != 0 && next.seq != seq) next.past.push_back(next.seq);
    next.seq = seq;
    next.time = version.time;
    next.graySeq = 0;
    next.grayTime = 0;
    next.share = 0;
    result.after = next;
    return release(state, historyFolder, manifest, out, signer, result, error);
}

bool rollback(const PublishManifest& manifest, const std::string& out, const std::string& history,
              const Signer& signer, const std::string& channel, const std::string& pack,
              uint64_t to, ReleaseResult& result, std::string& error) {
    std::string historyFolder;
    JSON state;
    if (!openRelease(out, history, channel, pack, result, historyFolder, state, error))
        return false;
    PackRelease next = result.before;
    if (to == 0 && result.before.graySeq != 0 && result.before.share != 0) {
        // The rollout is taken back: a share of no device, and the released version marked as
        // what follows a gray one, which every device that took the gray version goes back to
        // (or, when none was released, loses the pack).
        next.share = 0;
        result.after = next;
        return release(state, historyFolder, manifest, out, signer, result, error);
    }
    if (result.before.seq == 0) {
        error = describeChannel(channel) + " releases no version of " + pack + " to roll back";
        return false;
    }
    uint64_t target = to;
    if (target == 0) {
        if (result.before.past.empty()) {
            error = describeChannel(channel) + " released no version of " + pack +
                    " before version " + std::to_string(result.before.seq);
            return false;
        }
        target = result.before.past.back();
    }
    if (target == result.before.seq) {
        error = "version " + std::to_string(target) + " of " + pack + " is the released one";
        return false;
    }
    const JSON packState = state["packs"][pack];
    // A number that a publish stepped over holds zips that a run which never finished left, which
    // no document vouched for.
    bool skipped = false;
    for (size_t i = 0; i < packState["skipped"].size(); ++i)
        skipped = skipped || packState["skipped"][i].uint64Value() == target;
    if (target > packState["seq"].uint64Value() || skipped) {
        error = "no version " + std::to_string(target) + " of " + pack + " was published";
        return false;
    }
    // The earlier version's files, as its full zip in the tree holds them, become a new version:
    // its increment brings a device on any version since the base to exactly these files, so no
    // device keeps a file of what it had.
    PackContent content;
    if (!readPackZip(out + "/" + manifest.zipFolder + pack + "/" + std::to_string(target) + ".zip",
                     content, error))
        return false;
    ConfigPack earlier;
    PublishPack publishPack;
    publishPack.name = pack;
    publishPack.prefix = packState["prefix"].stringValue();
    publishPack.priority = packState["priority"].uint32Value();
    if (versionRecord(packState, pack, target, earlier, error) && !earlier.prefixes.empty())
        publishPack.prefix = earlier.prefixes.front();
    publishPack.priority = static_cast<uint32_t>(
        (earlier.flags != 0 ? earlier.flags : publishPack.priority) & kPriorityMask);
    error.clear();
    PublishedPack done;
    JSON record;
    SigningPlan signing;
    if (!signingPlanOf(state, manifest, signing, error) ||
        !buildVersion(publishPack, content, manifest.zipFolder, out, historyFolder, signer,
                      packState, signing, done, record, error))
        return false;
    JSON packs = state["packs"];
    packs.set(pack, record);
    state.set("packs", packs);
    result.built = true;
    result.written = done.written;
    // The versions released after the target leave the list: a second rollback goes further
    // back.
    auto kept = std::find(next.past.begin(), next.past.end(), target);
    next.past.erase(kept, next.past.end());
    next.seq = done.seq;
    next.time = record["t"].doubleValue();
    next.graySeq = 0;
    next.grayTime = 0;
    next.share = 0;
    result.after = next;
    return release(state, historyFolder, manifest, out, signer, result, error);
}

}  // namespace FerritTools
