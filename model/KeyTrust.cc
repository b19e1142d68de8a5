#include "model/KeyTrust.h"

#include <sys/stat.h>

#include <algorithm>

#include "base/Digest.h"
#include "base/Errors.h"
#include "base/Folder.h"
#include "base/LogTags.h"
#include "base/Proxy.h"
#include "marl/Log.h"
#include "storage/ConfigStore.h"

namespace FerritCore {

using MarlLogger::json::JSON;
using MarlLogger::json::JSONArray;
using MarlLogger::json::JSONObject;

namespace {

// The stored set's retired ids share the name of the documents' member (KeyStatements).
constexpr const char* kRetired = KeyStatements::kRetired;
// The stored set's keys that devices trust.
constexpr const char* kTrusted = "trusted";
// In the stored set only: {ID: ID of the key that introduced it}, and whether the host's own key,
// which the host does not name, was retired.
constexpr const char* kIntroducers = "introducers";
constexpr const char* kHostRetired = "hostRetired";
// What an endorsement's statement starts with, so that it can never read as a document.
constexpr std::string_view kStatementPrefix = "ferrit successor key ";

std::shared_ptr<const Ed25519PublicKey> keyOf(std::string_view base64) {
    std::string raw;
    if (base64.empty() || !Digest::base64Decode(base64, raw) ||
        raw.size() != Ed25519PublicKey::kRawSize)
        return nullptr;
    std::string ignored;
    return Ed25519PublicKey::parse(raw, Ed25519PublicKey::Form::Bytes, ignored);
}

bool isId(const std::string& text) {
    return text.size() == Ed25519PublicKey::kIdLength &&
           text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

void logKeys(MarlLogger::MRLLevel level, const char* event, const std::string& id,
             const std::string& signer) {
    MarlLogger::LogBuilder(level, LogTag::kKeys)
        .event(event)
        .append("key", id)
        .append("signer", signer);
}

// Builds the value of one member of the document from the parser's tokens, and stops the parse
// once it is whole.
class MemberReader final : public MarlLogger::json::JSONEvents {
  public:
    explicit MemberReader(std::string_view name) : name_(name) {}

    const JSON& value() const { return value_; }

    bool startObject() override { return open(JSON(JSONObject{})); }
    bool startArray() override { return open(JSON(JSONArray{})); }
    bool endObject() override { return close(); }
    bool endArray() override { return close(); }
    bool key(std::string_view key) override {
        if (!inMember_ && depth_ == 1) {
            inMember_ = key == name_;
        } else if (inMember_) {
            keys_.back().assign(key);
        }
        return true;
    }
    bool scalar(const JSON& value) override { return inMember_ ? add(value) : true; }
    bool string(std::string_view value) override {
        return inMember_ ? add(JSON(std::string(value))) : true;
    }

  private:
    bool open(JSON container) {
        ++depth_;
        if (!inMember_) return true;
        stack_.push_back(std::move(container));
        keys_.emplace_back();
        return true;
    }
    bool close() {
        --depth_;
        if (!inMember_) return true;
        JSON done = std::move(stack_.back());
        stack_.pop_back();
        keys_.pop_back();
        return add(std::move(done));
    }
    // Puts a whole value in its container; false (which stops the parse) once the member is read.
    bool add(JSON value) {
        if (stack_.empty()) {
            value_ = std::move(value);
            return false;
        }
        if (stack_.back().isObject())
            stack_.back().set(keys_.back(), std::move(value));
        else
            stack_.back().push(std::move(value));
        return true;
    }

    std::string_view name_;
    int depth_ = 0;
    bool inMember_ = false;
    std::vector<JSON> stack_;
    std::vector<std::string> keys_;  // the pending key of each open container
    JSON value_;
};

}  // namespace

KeyStatements KeyStatements::readDocument(std::string_view text) {
    MemberReader reader(KeyTrust::kMember);
    std::string ignored;
    static_cast<void>(JSON::parseEvents(text, reader, &ignored));
    return read(reader.value());
}

KeyStatements KeyStatements::read(const JSON& keys) {
    KeyStatements statements;
    if (!keys.isObject()) return statements;
    if (keyOf(keys[kNext].stringValue())) statements.next = keys[kNext].stringValue();
    const JSON& endorsement = keys[kEndorsement];
    if (endorsement.isObject() && keyOf(endorsement[kEndorsedKey].stringValue()) &&
        endorsement[kEndorsementSignature].isString()) {
        statements.endorsedKey = endorsement[kEndorsedKey].stringValue();
        statements.endorsement = endorsement[kEndorsementSignature].stringValue();
    }
    for (const JSON& id : keys[kRetired].arrayValue()) {
        if (id.isString() && isId(id.stringValue())) statements.retired.push_back(id.stringValue());
    }
    return statements;
}

KeyTrust& KeyTrust::instance() {
    static KeyTrust* const trust = ProcessState::create<KeyTrust>([](KeyTrust& t) { t.reset(); });
    return *trust;
}

void KeyTrust::reset() {
    MutexLock lock(mutex_);
    loaded_ = false;
    trusted_.clear();
    retired_.clear();
    introducers_.clear();
    hostRetired_ = false;
    dropped_.clear();
}

std::string KeyTrust::endorsementStatement(std::string_view keyBase64) {
    std::string statement(kStatementPrefix);
    statement.append(keyBase64);
    return statement;
}

void KeyTrust::loadLocked() {
    mutex_.assertHeld();
    if (loaded_) return;
    loaded_ = true;
    static_cast<void>(mergeStoreLocked());
}

std::vector<std::shared_ptr<const Ed25519PublicKey>> KeyTrust::mergeStoreLocked() {
    std::vector<std::shared_ptr<const Ed25519PublicKey>> added;
    // A root whose configuration store was never made holds no keys: it is not made here, so
    // that checking a signature writes nothing.
    struct stat info;
    if (::stat((rootPath() + ConfigStore::kDirectory).c_str(), &info) != 0) return added;
    const ErrorOr<JSON> read = ConfigStore::instance().get(kStoreKey);
    const Error& error = read.error();
    const JSON stored = read.valueOr(JSON());
    if (error) {
        // Nothing stored is the state of every device before its first change of keys.
        if (!Errors::isFileMissing(error)) {
            MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, LogTag::kKeys)
                .event("load")
                .error(error);
        }
        return added;
    }
    for (const JSON& id : stored[kRetired].arrayValue()) {
        if (!id.isString() || !isId(id.stringValue()) || retiredLocked(id.stringValue())) continue;
        retired_.push_back(id.stringValue());
        std::erase_if(trusted_, [&](const auto& key) { return key->id() == id.stringValue(); });
    }
    if (stored[kHostRetired].isBool() && stored[kHostRetired].boolValue()) hostRetired_ = true;
    for (const auto& [id, by] : stored[kIntroducers].objectValue()) {
        if (isId(id) && by.isString()) introducers_.emplace(id, by.stringValue());
    }
    for (const JSON& text : stored[kTrusted].arrayValue()) {
        std::shared_ptr<const Ed25519PublicKey> key = keyOf(text.stringValue());
        if (!key) continue;
        const std::string id = key->id();
        if (retiredLocked(id) || trustedLocked(id) || dropped_.contains(id)) continue;
        trusted_.push_back(key);
        added.push_back(std::move(key));
    }
    return added;
}

void KeyTrust::saveLocked() {
    mutex_.assertHeld();
    JSON trusted(JSONArray{});
    for (const auto& key : trusted_) trusted.push(JSON(Digest::base64Encode(key->raw())));
    JSON retired(JSONArray{});
    for (const std::string& id : retired_) retired.push(JSON(id));
    JSON stored(JSONObject{{kTrusted, trusted}, {kRetired, retired}});
    if (!introducers_.empty()) {
        JSON introducers(JSONObject{});
        for (const auto& [id, by] : introducers_) introducers.set(id, JSON(by));
        stored.set(kIntroducers, introducers);
    }
    if (hostRetired_) stored.set(kHostRetired, JSON(true));
    if (Error error = ConfigStore::instance().put(kStoreKey, stored)) {
        MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, LogTag::kKeys)
            .event("save")
            .error(error);
    }
}

bool KeyTrust::retiredLocked(const std::string& id) const {
    mutex_.assertHeld();
    return std::find(retired_.begin(), retired_.end(), id) != retired_.end();
}

bool KeyTrust::trustedLocked(const std::string& id) const {
    return std::any_of(trusted_.begin(), trusted_.end(),
                       [&](const auto& key) { return key->id() == id; });
}

std::vector<std::string> KeyTrust::predecessorsLocked(const std::string& id,
                                                      const std::string& root) const {
    std::vector<std::string> line;
    std::string at = id;
    while (true) {
        std::string before;
        if (const auto found = introducers_.find(at); found != introducers_.end()) {
            // The host's key too, when this device learnt it before an app was built with it.
            before = found->second;
        } else if (at != root && trustedLocked(at)) {
            // Learnt before introducers were kept: it followed the host's key.
            before = root;
        } else {
            break;
        }
        // A line that comes back on itself (a key named again by a later one) ends there.
        if (before == id || std::find(line.begin(), line.end(), before) != line.end()) break;
        line.push_back(before);
        at = before;
    }
    return line;
}

void KeyTrust::retireLocked(const std::string& id, const std::set<std::string>& kept,
                            const std::string& root, const std::string& signer) {
    retired_.push_back(id);
    std::erase_if(trusted_, [&](const auto& key) { return key->id() == id; });
    logKeys(MarlLogger::MRLLevelInfo, "retired", id, signer);
    // Every key whose line reaches `id` before it reaches a kept key goes.
    std::vector<std::string> gone;
    for (const auto& key : trusted_) {
        const std::string held = key->id();
        if (kept.contains(held)) continue;
        for (const std::string& before : predecessorsLocked(held, root)) {
            if (kept.contains(before)) break;
            if (before == id) {
                gone.push_back(held);
                break;
            }
        }
    }
    for (const std::string& held : gone) {
        std::erase_if(trusted_, [&](const auto& key) { return key->id() == held; });
        dropped_.insert(held);
        logKeys(MarlLogger::MRLLevelWarning, "dropped", held, signer);
    }
}

bool KeyTrust::isRetired(const std::string& id) {
    MutexLock lock(mutex_);
    loadLocked();
    return retiredLocked(id);
}

std::string KeyTrust::signerOf(const std::string& md5Hex, const std::string& signature) {
    // A host that checks nothing (opened without a key, for development) takes every document
    // and list, as before keys could change: a retirement has no key of its to outrank.
    if (!ProxyCalls::checksSignatures()) return kHostSigner;
    std::vector<std::shared_ptr<const Ed25519PublicKey>> learnt;
    bool anyRetired = false;
    std::shared_ptr<const Ed25519PublicKey> host = ProxyCalls::publicKey();
    std::shared_ptr<const Ed25519PublicKey> retiredHost;
    std::string hostId;
    {
        MutexLock lock(mutex_);
        loadLocked();
        learnt = trusted_;
        anyRetired = !retired_.empty() || hostRetired_;
        if (host) {
            hostId = host->id();
            if (retiredLocked(hostId)) {
                retiredHost = std::move(host);
                host = nullptr;
            }
        }
    }
    // A host that names its key is checked with that key here, so that a signature of a learnt
    // key is not first reported as refused by the host. A host that does not name it is asked
    // only while nothing is retired: its key might be the one retired.
    if (host) {
        if (host->verify(md5Hex, signature)) return hostId;
    } else if (hostId.empty() && !anyRetired) {
        if (ProxyCalls::verifySignature(md5Hex, signature)) return kHostSigner;
    }
    for (const auto& key : learnt) {
        if (key->verify(md5Hex, signature)) return key->id();
    }
    // Another process on the root (the one that fetches documents) may have learnt a key since
    // this one read the set: what the store holds is added, which only a refusal costs. It never
    // replaces the set in memory: a store that could not be written lacks what this process
    // learnt since, its retirements first of all.
    std::vector<std::shared_ptr<const Ed25519PublicKey>> added;
    {
        MutexLock lock(mutex_);
        added = mergeStoreLocked();
    }
    for (const auto& key : added) {
        if (key->verify(md5Hex, signature)) return key->id();
    }
    // Refused: the host's own check runs once more, so that it reports the refusal in its words.
    if (host && ProxyCalls::verifySignature(md5Hex, signature)) return hostId;
    if (retiredHost && retiredHost->verify(md5Hex, signature))
        logKeys(MarlLogger::MRLLevelWarning, "refusedRetired", hostId, hostId);
    return {};
}

std::string KeyTrust::signerOf(const std::string& md5Hex, const std::string& signature,
                               const KeyStatements& statements) {
    std::string signer = signerOf(md5Hex, signature);
    if (!signer.empty() || statements.endorsedKey.empty()) return signer;
    const std::shared_ptr<const Ed25519PublicKey> endorsed = keyOf(statements.endorsedKey);
    if (!endorsed || isRetired(endorsed->id())) return {};
    std::string endorsement;
    if (!Digest::base64Decode(statements.endorsement, endorsement)) return {};
    const std::string statement = endorsementStatement(statements.endorsedKey);
    const std::string endorser = signerOf(Digest::md5Hex(statement), endorsement);
    if (endorser.empty() || !endorsed->verify(md5Hex, signature)) return {};
    logKeys(MarlLogger::MRLLevelInfo, "endorsed", endorsed->id(), endorser);
    return endorsed->id();
}

void KeyTrust::accept(const KeyStatements& statements, const std::string& signer) {
    // A host that checks nothing took the document whoever signed it: what it says about keys
    // would be anyone's word, and would outlive the host's next start with a key.
    if (!ProxyCalls::checksSignatures()) return;
    const std::shared_ptr<const Ed25519PublicKey> host = ProxyCalls::publicKey();
    const std::string root = host ? host->id() : std::string(kHostSigner);
    // The key that introduced each key offered: the signer, or for an endorsed key the key whose
    // endorsement verifies.
    std::vector<std::pair<std::shared_ptr<const Ed25519PublicKey>, std::string>> offered;
    if (auto next = keyOf(statements.next)) offered.emplace_back(std::move(next), signer);
    if (auto endorsed = keyOf(statements.endorsedKey)) {
        std::string endorser, endorsement;
        if (Digest::base64Decode(statements.endorsement, endorsement))
            endorser =
                signerOf(Digest::md5Hex(endorsementStatement(statements.endorsedKey)), endorsement);
        if (endorser.empty() || endorser == endorsed->id()) endorser = signer;
        offered.emplace_back(std::move(endorsed), std::move(endorser));
    }
    std::set<std::string> kept{signer};
    for (const auto& [key, by] : offered) kept.insert(key->id());

    MutexLock lock(mutex_);
    loadLocked();
    bool changed = false;
    for (auto& [key, by] : offered) {
        const std::string id = key->id();
        if (retiredLocked(id) || trustedLocked(id)) continue;
        trusted_.push_back(std::move(key));
        dropped_.erase(id);
        if (id != by) introducers_[id] = by;
        logKeys(MarlLogger::MRLLevelInfo, "trusted", id, signer);
        changed = true;
    }
    const std::vector<std::string> before = predecessorsLocked(signer, root);
    for (const std::string& id : statements.retired) {
        if (id == signer) {
            // A key that retires itself would leave the document that says so unverifiable.
            logKeys(MarlLogger::MRLLevelWarning, "retireSigner", id, signer);
            continue;
        }
        if (retiredLocked(id)) continue;
        if (std::find(before.begin(), before.end(), id) != before.end()) {
            retireLocked(id, kept, root, signer);
            changed = true;
        } else if (root == kHostSigner && !before.empty() && before.back() == kHostSigner &&
                   !trustedLocked(id) && !introducers_.contains(id)) {
            // The host does not name its key: a key this device cannot place may be that one,
            // the first of the signer's line. Only the host's check is given up, so that a key
            // that merely was not heard of yet is not refused once it is.
            if (!hostRetired_) {
                hostRetired_ = true;
                logKeys(MarlLogger::MRLLevelInfo, "retiredHost", id, signer);
                changed = true;
            }
        } else {
            // A successor, or a key of another line: a key that leaked would otherwise retire
            // the key that replaces it.
            logKeys(MarlLogger::MRLLevelWarning, "retireRefused", id, signer);
        }
    }
    if (changed) saveLocked();
}

void KeyTrust::load() {
    MutexLock lock(mutex_);
    loadLocked();
}

JSON KeyTrust::describe() {
    MutexLock lock(mutex_);
    JSON trusted(JSONArray{});
    for (const auto& key : trusted_) trusted.push(JSON(key->id()));
    JSON retired(JSONArray{});
    for (const std::string& id : retired_) retired.push(JSON(id));
    return JSON(JSONObject{{kTrusted, trusted}, {kRetired, retired}});
}

}  // namespace FerritCore
