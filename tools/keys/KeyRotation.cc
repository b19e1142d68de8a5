#include "tools/keys/KeyRotation.h"

#include <algorithm>
#include <ctime>
#include <filesystem>

#include "base/Digest.h"
#include "base/Ed25519PublicKey.h"
#include "model/KeyTrust.h"
#include "tools/common/ToolClock.h"
#include "tools/common/ToolFiles.h"
#include "tools/publish/Publisher.h"
#include "tools/publish/Release.h"

namespace FerritTools {

using MarlLogger::json::JSON;
using MarlLogger::json::JSONArray;
using MarlLogger::json::JSONObject;
namespace fs = std::filesystem;

namespace {

// The members of the state's "keys" and of the documents' "keys".
constexpr const char* kSigner = "signer";
constexpr const char* kSignerKey = "signerKey";
using FerritCore::KeyStatements;
constexpr const char* kNext = KeyStatements::kNext;
constexpr const char* kEndorsement = KeyStatements::kEndorsement;
constexpr const char* kEndorsedKey = KeyStatements::kEndorsedKey;
constexpr const char* kSignature = KeyStatements::kEndorsementSignature;
constexpr const char* kRetired = KeyStatements::kRetired;
// The members of a stamped document and of the state.
constexpr const char* kIssued = "issued";
constexpr const char* kExpires = "expires";
constexpr const char* kStateKeys = "keys";
// Where the global documents lie below the tree (or a channel's folder), how deep below it, and
// what a version's folder starts with and a locale's file holds.
constexpr const char* kConfigFolder = "fconfig";
constexpr size_t kDocumentDepth = 4;
constexpr std::string_view kVersionFolderPrefix = "0~";
constexpr char kPartSeparator = '~';
// What a write that did not finish leaves beside its file (writeFileAtomically).
constexpr std::string_view kTemporarySuffix = ".tmp";
constexpr uint64_t kSecondMs = 1000;
constexpr uint64_t kMinuteMs = 60 * kSecondMs;
constexpr uint64_t kHourMs = 60 * kMinuteMs;
constexpr uint64_t kDayMs = 24 * kHourMs;

std::string rawBase64(const Ed25519Key& key) {
    return FerritCore::Digest::base64Encode(key.publicKey()->raw());
}

std::string idOfBase64(const std::string& base64) {
    std::string raw;
    if (!FerritCore::Digest::base64Decode(base64, raw)) return {};
    return FerritCore::Ed25519PublicKey::idOfRaw(raw);
}

bool contains(const JSON& ids, const std::string& id) {
    for (const JSON& held : ids.arrayValue())
        if (held.stringValue() == id) return true;
    return false;
}

// A public key kept as base64 of its raw bytes; null when it is none.
std::shared_ptr<const FerritCore::Ed25519PublicKey> keyOfBase64(const std::string& base64) {
    std::string raw, parseError;
    if (base64.empty() || !FerritCore::Digest::base64Decode(base64, raw)) return nullptr;
    return FerritCore::Ed25519PublicKey::parse(raw, FerritCore::Ed25519PublicKey::Form::Bytes,
                                               parseError);
}

// A part of a path that publish writes for a global document: no hidden name, no leftover of a
// write, and below "fconfig/" "<app>/<app version>/0~<digits>/<locale>~[<locale>]".
bool isDocumentPath(const fs::path& relative) {
    std::vector<std::string> parts;
    for (const fs::path& part : relative) parts.push_back(part.string());
    if (parts.size() != kDocumentDepth) return false;
    for (const std::string& part : parts)
        if (part.empty() || part[0] == '.' || part.ends_with(kTemporarySuffix)) return false;
    const std::string& version = parts[2];
    if (!version.starts_with(kVersionFolderPrefix) ||
        version.size() == kVersionFolderPrefix.size() ||
        !std::all_of(version.begin() + kVersionFolderPrefix.size(), version.end(),
                     [](char c) { return c >= '0' && c <= '9'; }))
        return false;
    const std::string& locale = parts[3];
    const size_t separator = locale.find(kPartSeparator);
    if (separator == std::string::npos) return false;
    const std::string after = locale.substr(separator + 1);
    return after.empty() || after == locale.substr(0, separator);
}

// What the channels give their devices that `keyId` signed, or whose signer the history does
// not know: "channel \"stable\" releases shop 3, ...", empty when nothing.
std::string versionsSignedBy(const JSON& state, const std::string& keyId,
                             const std::string& previousSignerId) {
    std::string found;
    for (const std::string& channel : channelsOf(state)) {
        const std::string where =
            channel.empty() ? std::string("the default channel") : "channel \"" + channel + "\"";
        for (const auto& pack : state["packs"].objectValue()) {
            // Named, not bound: the check below captures them.
            const std::string& name = pack.first;
            const JSON& record = pack.second;
            const PackRelease release = releaseOf(state, channel, name);
            auto check = [&](uint64_t seq, const char* how) {
                if (seq == 0) return;
                const std::string signer = versionSigner(record, seq, previousSignerId);
                if (signer != keyId && !signer.empty()) return;
                found += (found.empty() ? "" : ", ") + where + " " + how + " " + name + " " +
                         std::to_string(seq) + (signer.empty() ? " (signer not recorded)" : "");
            };
            check(release.seq, "releases");
            // A rollout taken back (a share of 0) sends no device to its version.
            if (release.share != 0) check(release.graySeq, "rolls out");
        }
    }
    return found;
}

}  // namespace

std::string packSigner(const JSON& record, const std::string& previousSignerId) {
    return record[kPackSigner].isString() ? record[kPackSigner].stringValue() : previousSignerId;
}

std::string versionSigner(const JSON& record, uint64_t seq, const std::string& previousSignerId) {
    const JSON& build = record["builds"][std::to_string(seq)];
    if (build[kVersionSigner].isString()) return build[kVersionSigner].stringValue();
    if (!record[kPackSigner].isString()) return previousSignerId;
    if (record["seq"].uint64Value() == seq) return record[kPackSigner].stringValue();
    return std::string();
}

bool keyRetired(const JSON& state, const std::string& id) {
    return !id.empty() && contains(state[kStateKeys][kRetired], id);
}

bool parseDuration(const std::string& text, uint64_t& ms, std::string& error) {
    size_t digits = 0;
    while (digits < text.size() && text[digits] >= '0' && text[digits] <= '9') ++digits;
    const std::string unit = text.substr(digits);
    uint64_t scale = 0;
    if (unit.empty() || unit == "d")
        scale = kDayMs;
    else if (unit == "h")
        scale = kHourMs;
    else if (unit == "m")
        scale = kMinuteMs;
    else if (unit == "s")
        scale = kSecondMs;
    if (digits == 0 || digits > 9 || scale == 0 || std::stoull(text.substr(0, digits)) == 0) {
        error =
            "a duration is a positive count of days, or of d, h, m or s (\"30d\", \"12h\"), not "
            "\"" +
            text + "\"";
        return false;
    }
    ms = std::stoull(text.substr(0, digits)) * scale;
    return true;
}

std::string isoTime(uint64_t ms) {
    const std::time_t seconds = static_cast<std::time_t>(ms / kSecondMs);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

bool planSigning(const JSON& state, const std::string& signerId, const std::string& signerKey,
                 SigningPlan& plan, std::string& error) {
    const JSON& keys = state[kStateKeys];
    const std::string stateSigner = keys[kSigner].stringValue();
    const std::string next = keys[kNext].stringValue();
    const std::string nextId = next.empty() ? std::string() : idOfBase64(next);
    if (contains(keys[kRetired], signerId)) {
        error = "the key " + signerId + " was retired; sign with the key that followed it";
        return false;
    }
    if (!stateSigner.empty() && signerId != stateSigner && signerId != nextId) {
        error = "the tree is signed with the key " + stateSigner + ", not " + signerId +
                "; `ferrit key rotate --next` hands it to another key";
        return false;
    }
    plan = SigningPlan();
    plan.signerId = signerId;
    plan.previousSignerId = stateSigner.empty() ? signerId : stateSigner;
    plan.stateKeys = keys.isObject() ? keys : JSON(JSONObject{});
    plan.stateKeys.set(kSigner, JSON(signerId));
    // The documents on disk were signed by the state's signer (whose key the state keeps since it
    // was recorded), or by this key.
    const std::string stateSignerKey = keys[kSignerKey].stringValue();
    if (auto previous = keyOfBase64(stateSignerKey);
        previous != nullptr && previous->id() == plan.previousSignerId)
        plan.treeKeys.push_back(std::move(previous));
    if (auto own = keyOfBase64(signerKey); own != nullptr && own->id() == signerId) {
        plan.treeKeys.push_back(std::move(own));
        plan.stateKeys.set(kSignerKey, JSON(signerKey));
    } else if (stateSigner != signerId) {
        JSON without(JSONObject{});
        for (const auto& [name, value] : plan.stateKeys.objectValue())
            if (name != kSignerKey) without.set(name, value);
        plan.stateKeys = without;
    }
    plan.documentKeys = JSON(JSONObject{});
    if (!next.empty()) {
        if (signerId == nextId) {
            JSON without(JSONObject{});
            for (const auto& [name, value] : plan.stateKeys.objectValue())
                if (name != kNext) without.set(name, value);
            plan.stateKeys = without;
        } else {
            plan.documentKeys.set(kNext, JSON(next));
        }
    }
    const JSON& endorsement = plan.stateKeys[kEndorsement];
    if (endorsement.isObject() && idOfBase64(endorsement[kEndorsedKey].stringValue()) == signerId)
        plan.documentKeys.set(kEndorsement, endorsement);
    if (keys[kRetired].size() > 0) plan.documentKeys.set(kRetired, keys[kRetired]);
    return true;
}

DocumentStamp nextStamp(const JSON& state, uint64_t validForMs, JSON documentKeys) {
    DocumentStamp stamp;
    stamp.issued = std::max(nowMs(), state[kIssued].uint64Value() + 1);
    stamp.expires = validForMs == 0 ? 0 : stamp.issued + validForMs;
    stamp.keys = std::move(documentKeys);
    return stamp;
}

void recordStamp(JSON& state, const DocumentStamp& stamp) {
    state.set(kIssued, JSON(stamp.issued));
    state.set(kExpires, JSON(stamp.expires));
}

bool stampRunsOut(const JSON& state, uint64_t validForMs) {
    const uint64_t expires = state[kExpires].uint64Value();
    return expires == 0 || expires < nowMs() + validForMs / 2;
}

bool stampDocument(const std::string& json, const DocumentStamp& stamp, const Signer& signer,
                   std::string& signedDocument, std::string& error) {
    std::string parseError;
    const JSON parsed = JSON::parse(json, &parseError);
    if (!parseError.empty() || !parsed.isObject()) {
        error = "the document to sign is not a JSON object" +
                (parseError.empty() ? "" : ": " + parseError);
        return false;
    }
    // The stamp's members first, so that a reader of the text sees them at once; every other
    // member as it was, in its order.
    JSON document(JSONObject{});
    document.set(kIssued, JSON(stamp.issued));
    if (stamp.expires != 0) document.set(kExpires, JSON(stamp.expires));
    if (stamp.keys.isObject() && stamp.keys.size() > 0)
        document.set(FerritCore::KeyTrust::kMember, stamp.keys);
    for (const auto& [name, value] : parsed.objectValue()) {
        if (name == kIssued || name == kExpires || name == FerritCore::KeyTrust::kMember) continue;
        document.set(name, value);
    }
    return signDocument(document.toString(), signer, signedDocument, error);
}

std::vector<std::string> globalDocuments(const std::string& out) {
    std::vector<fs::path> folders{fs::path(out) / kConfigFolder};
    std::error_code code;
    for (fs::directory_iterator it(fs::path(out) / kChannelsFolder, code), end; !code && it != end;
         it.increment(code)) {
        if (it->is_directory() && validChannelName(it->path().filename().string()))
            folders.push_back(it->path() / kConfigFolder);
    }
    std::vector<std::string> documents;
    for (const fs::path& folder : folders) {
        for (fs::recursive_directory_iterator it(folder, code), end; !code && it != end;
             it.increment(code)) {
            if (it->is_regular_file() && isDocumentPath(fs::relative(it->path(), folder)))
                documents.push_back(fs::relative(it->path(), out).generic_string());
        }
        code.clear();
    }
    std::sort(documents.begin(), documents.end());
    return documents;
}

bool restampDocuments(
    const std::string& out, const std::vector<std::string>& paths, const DocumentStamp& stamp,
    const Signer& signer,
    const std::vector<std::shared_ptr<const FerritCore::Ed25519PublicKey>>& verifyWith,
    std::string& error) {
    std::vector<std::pair<std::string, std::string>> signedDocuments;
    for (const std::string& relative : paths) {
        const std::string path = (fs::path(out) / relative).string();
        std::string text, signedDocument;
        if (!readWholeFile(path, text)) {
            error = "cannot read " + path;
            return false;
        }
        const size_t separator = text.rfind("||");
        std::string signature;
        if (separator == std::string::npos) {
            error = path + " is not a signed document";
            return false;
        }
        // A document that the tree's key did not sign was not written by the tool: signing it
        // would vouch for whatever someone placed in the tree.
        if (!verifyWith.empty()) {
            const bool decoded =
                FerritCore::Digest::base64Decode(text.substr(separator + 2), signature);
            const std::string digest = FerritCore::Digest::md5Hex(text.substr(0, separator));
            const bool verified =
                decoded && std::any_of(verifyWith.begin(), verifyWith.end(), [&](const auto& key) {
                    return key->verify(digest, signature);
                });
            if (!verified) {
                std::string ids;
                for (const auto& key : verifyWith)
                    if (ids.find(key->id()) == std::string::npos)
                        ids += (ids.empty() ? "" : " or ") + key->id();
                error = path + " is not signed with the tree's key (" + ids +
                        "); nothing was signed again: remove it, or put back the tree's own "
                        "copy, and run again";
                return false;
            }
        }
        if (!stampDocument(text.substr(0, separator), stamp, signer, signedDocument, error)) {
            error = path + ": " + error;
            return false;
        }
        signedDocuments.emplace_back(path, std::move(signedDocument));
    }
    // Every document was read and signed before the first is replaced.
    for (const auto& [path, text] : signedDocuments) {
        if (!writeFileAtomically(path, text)) {
            error = "cannot write " + path;
            return false;
        }
    }
    return true;
}

bool rotateKeys(const RotateRequest& request, RotateResult& result, std::string& error) {
    result = RotateResult();
    if (!request.key || !request.key->hasPrivate()) {
        error = "rotate needs the private key that signs the tree now";
        return false;
    }
    if ((request.next != nullptr) == (request.retire != nullptr)) {
        error = "rotate takes either --next or --retire";
        return false;
    }
    const std::string history =
        request.history.empty() ? defaultHistoryFolder(request.out) : request.history;
    JSON state;
    if (!readPublishState(history, state, error)) return false;
    if (!state["packs"].isObject()) {
        error = "no publishing state in " + history + "; publish the tree first";
        return false;
    }
    const std::string signerId = request.key->publicKey()->id();
    SigningPlan plan;
    if (!planSigning(state, signerId, rawBase64(*request.key), plan, error)) return false;
    result.signerId = signerId;
    JSON stateKeys = plan.stateKeys;
    JSON documentKeys = plan.documentKeys;
    if (request.next) {
        const std::string nextId = request.next->publicKey()->id();
        if (nextId == signerId) {
            error = "the successor is the key that signs now";
            return false;
        }
        if (contains(stateKeys[kRetired], nextId)) {
            error = "the key " + nextId + " was retired and cannot sign again";
            return false;
        }
        if (state[kStateKeys][kSigner].stringValue() != signerId &&
            !state[kStateKeys][kSigner].stringValue().empty()) {
            error = "the tree is still signed with " + state[kStateKeys][kSigner].stringValue() +
                    "; publish with " + signerId + " first";
            return false;
        }
        const std::string next = rawBase64(*request.next);
        std::string endorsement;
        if (!request.key->sign(
                FerritCore::Digest::md5Hex(FerritCore::KeyTrust::endorsementStatement(next)),
                endorsement, error))
            return false;
        stateKeys.set(kNext, JSON(next));
        stateKeys.set(
            kEndorsement,
            JSON(JSONObject{{kEndorsedKey, JSON(next)},
                            {kSignature, JSON(FerritCore::Digest::base64Encode(endorsement))}}));
        documentKeys.set(kNext, JSON(next));
        result.nextId = nextId;
    } else {
        const std::string retireId = request.retire->publicKey()->id();
        if (state[kStateKeys][kSigner].stringValue() != signerId) {
            error = "the tree is not yet signed with " + signerId + "; publish with it first";
            return false;
        }
        if (retireId == signerId) {
            error = "the key that signs the tree cannot retire itself";
            return false;
        }
        std::string stillSigned;
        for (const auto& [name, record] : state["packs"].objectValue()) {
            if (packSigner(record, plan.previousSignerId) == retireId)
                stillSigned += (stillSigned.empty() ? "" : ", ") + name + " " +
                               std::to_string(record["seq"].uint64Value());
        }
        if (!stillSigned.empty()) {
            error = "the lists of " + stillSigned +
                    " are signed with the key to retire; publish with " + signerId + " first";
            return false;
        }
        // Every version that a channel gives its devices, released or in rollout, must verify
        // once the key is retired, or those devices refuse its list and stop serving the pack.
        const std::string needed = versionsSignedBy(state, retireId, plan.previousSignerId);
        if (!needed.empty()) {
            error =
                "devices still take versions that the key to retire signed, or that the "
                "history cannot tell: " +
                needed + "; publish or promote a newer version there with " + signerId + " first";
            return false;
        }
        JSON retired(JSONArray{});
        for (const JSON& id : stateKeys[kRetired].arrayValue()) retired.push(id);
        if (!contains(retired, retireId)) retired.push(JSON(retireId));
        stateKeys.set(kRetired, retired);
        documentKeys.set(kRetired, retired);
        result.retiredId = retireId;
    }

    const DocumentStamp stamp = nextStamp(state, request.validForMs, documentKeys);
    const std::vector<std::string> documents = globalDocuments(request.out);
    if (documents.empty()) {
        error = "no global configuration below " + request.out + "; publish the tree first";
        return false;
    }
    // A document that the signing key did not sign means a key the devices may not trust:
    // nothing is re-signed.
    if (!restampDocuments(request.out, documents, stamp, ed25519Signer(request.key),
                          {request.key->publicKey()}, error))
        return false;
    result.resigned = documents;
    state.set(kStateKeys, stateKeys);
    recordStamp(state, stamp);
    if (!writePublishState(history, state, error)) return false;
    result.stamp = stamp;
    return true;
}

}  // namespace FerritTools
