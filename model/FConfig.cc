#include "model/FConfig.h"

#include <algorithm>
#include <charconv>
#include <vector>

#include "base/Digest.h"
#include "base/Environment.h"
#include "base/Errors.h"
#include "base/LogTags.h"
#include "base/Proxy.h"
#include "base/Telemetry.h"
#include "base/Url.h"
#include "marl/Clock.h"
#include "marl/Json.h"
#include "marl/Log.h"
#include "model/BuiltinConfig.h"
#include "model/Rollout.h"
#include "model/SCache.h"
#include "storage/Statistics.h"
#include "support/Ascii.h"

namespace FerritCore {

using MarlLogger::json::JSON;
using MarlLogger::json::JSONStringer;

namespace {

// A gray release younger than this survives a full document that no longer lists it, so that a
// device in the gray group keeps what it installed while the release is judged.
constexpr double kGrayGraceMs = 86400000.0;

const std::shared_ptr<const MatchTables>& emptyTables() {
    static const auto* tables =
        new std::shared_ptr<const MatchTables>(std::make_shared<const MatchTables>());
    return *tables;
}

const std::shared_ptr<const std::vector<PackPtr>>& emptyRouted() {
    static const auto* routed = new std::shared_ptr<const std::vector<PackPtr>>(
        std::make_shared<const std::vector<PackPtr>>());
    return *routed;
}

void logRemove(MarlLogger::MRLLevel level, const std::string& name, const char* reason) {
    MarlLogger::LogBuilder(level, LogTag::kFConfig)
        .event("remove")
        .append("name", name)
        .append("reason", reason);
}

// Whether two records enter the same prefixes and referrers into the tables.
bool routesAlike(const Pack& x, const Pack& y) {
    return x.prefixes == y.prefixes && x.referrers == y.referrers && x.packType() == y.packType() &&
           x.subType == y.subType;
}

// Whether each pair of records routes alike. The records lie all over the heap, so each step
// fetches the pair, their lists and their text a few places ahead, in that order, while this
// one is compared.
template <typename Pairs>
bool pairsRouteAlike(const Pairs& pairs) {
    constexpr size_t kFetchAhead = 4;
    const size_t count = pairs.size();
    for (size_t i = 0; i < count; ++i) {
        if (i + 3 * kFetchAhead < count) {
            __builtin_prefetch(&*pairs[i + 3 * kFetchAhead].first);
            __builtin_prefetch(&*pairs[i + 3 * kFetchAhead].second);
        }
        if (i + 2 * kFetchAhead < count) {
            for (const Pack* later :
                 {&*pairs[i + 2 * kFetchAhead].first, &*pairs[i + 2 * kFetchAhead].second})
                __builtin_prefetch(later->prefixes.data());
        }
        if (i + kFetchAhead < count) {
            for (const Pack* soon :
                 {&*pairs[i + kFetchAhead].first, &*pairs[i + kFetchAhead].second})
                for (const std::string& text : soon->prefixes) __builtin_prefetch(text.data());
        }
        if (!routesAlike(*pairs[i].first, *pairs[i].second)) return false;
    }
    return true;
}

// Whether no record's prefixes or referrers differ between two maps of records. `changed`
// receives each record of `a` that is not the very record of `b`.
bool sameRouting(const StringMap<PackPtr>& a, const StringMap<PackPtr>& b,
                 std::vector<const PackPtr*>& changed) {
    if (a.size() != b.size()) return false;
    std::vector<std::pair<const Pack*, const Pack*>> pairs;
    pairs.reserve(a.size());
    for (const auto& [name, pack] : a) {
        auto other = b.find(name);
        if (other == b.end()) return false;
        if (pack.get() == other->second.get()) continue;
        pairs.emplace_back(pack.get(), other->second.get());
        changed.push_back(&pack);
    }
    return pairsRouteAlike(pairs);
}

}  // namespace

std::string normalizeVersion(std::string_view version) {
    const size_t dot = version.find('.');
    if (dot != std::string_view::npos) version = version.substr(0, dot);
    return version.empty() ? std::string("0") : std::string(version);
}

uint64_t versionNumber(std::string_view version) {
    uint64_t value = 0;
    const auto result = std::from_chars(version.data(), version.data() + version.size(), value);
    return result.ec == std::errc() ? value : 0;
}

uint64_t wholeMilliseconds(double ms) {
    constexpr double kLimit = 18446744073709549568.0;  // the largest double below 2^64
    return ms > 0 && ms <= kLimit ? static_cast<uint64_t>(ms) : 0;
}

FConfig::FConfig() : tables_(emptyTables()), routed_(emptyRouted()) {
    const Environment& environment = Environment::instance();
    env = static_cast<uint32_t>(environment.env());
    clientVersion = environment.appVersion();
    locale = environment.locale();
}

FConfig FConfig::copyForChange() const {
    FConfig copy;
    copy.version = version;
    copy.fullMark = fullMark;
    copy.scacheVersion = scacheVersion;
    copy.delay = delay;
    copy.env = env;
    copy.clientVersion = clientVersion;
    copy.locale = locale;
    copy.lastUpdate = lastUpdate;
    copy.lastFullUpdate = lastFullUpdate;
    copy.issued = issued;
    copy.expires = expires;
    copy.packs_ = packs_;
    copy.tablesFit_ = tablesFit_;
    copy.replaced_ = replaced_;
    copy.tables_ = tables_;
    copy.routed_ = routed_;
    return copy;
}

bool FConfig::verifySignature(std::string_view& body, const std::string& origin, Error& error,
                              std::string* signer, KeyStatements* statements) {
    const size_t separator = body.rfind("||");
    if (separator == std::string_view::npos) {
        error = Errors::requestDeserialization(origin, "no signature");
        return false;
    }
    std::string signature;
    const bool decoded = Digest::base64Decode(body.substr(separator + 2), signature);
    body = body.substr(0, separator);
    const std::string md5 = Digest::md5Hex(body);
    // What a document says about keys is read from its tokens, up to the end of that member (a
    // publisher writes it first); a document that names no keys is not read here at all.
    KeyStatements said;
    if (body.find(std::string("\"") + KeyTrust::kMember + "\"") != std::string_view::npos)
        said = KeyStatements::readDocument(body);
    const std::string by =
        decoded ? KeyTrust::instance().signerOf(md5, signature, said) : std::string();
    if (by.empty()) {
        error = Errors::requestVerifySignature(origin, md5);
        return false;
    }
    if (signer != nullptr) *signer = by;
    if (statements != nullptr) *statements = std::move(said);
    return true;
}

void FConfig::reportRefused(const std::string& name, const JSON& value) {
    PerfRecord record("Ferrit.ConfigDiskError");
    record.setDimension("packName", name);
    record.setDimension("configContent", value.toString());
    MarlLogger::LogBuilder log(MarlLogger::MRLLevelWarning, LogTag::kFConfig);
    if (log.active()) {
        log.event("invalidPack");
        logRecord(record, log);
    }
    sendEvent(record);
}

void FConfig::readPacks(const JSON& object, StringMap<PackPtr>& out) {
    out.reserve(out.size() + object.size());
    for (const auto& [name, record] : object.objectValue()) {
        auto pack = std::make_shared<Pack>();
        pack->name = name;
        if (record.isObject() && record.size() > 0) {
            pack->readJSON(record);
            if (!pack->validate()) {
                reportRefused(name, record);
                continue;
            }
        } else {
            // null, {} or a scalar: the server says this pack is to go.
            pack->status = kPackStatusDeleted;
        }
        out[name] = std::move(pack);
    }
}

std::shared_ptr<FConfig> FConfig::parse(std::string_view text, const std::string& origin,
                                        Error& error, bool checkSignature) {
    auto config = std::make_shared<FConfig>();
    if (checkSignature &&
        !verifySignature(text, origin, error, &config->signer, &config->keyStatements))
        return nullptr;
    std::string reason;
    if (!config->read(text, reason)) {
        // The parser's words and offset, or what was wrong with a document that parsed.
        error = Errors::requestDeserialization(origin, reason);
        return nullptr;
    }
    if (!config->finishParse(origin, error)) return nullptr;
    return config;
}

std::shared_ptr<FConfig> FConfig::parseStored(std::string text, Error& error,
                                              const std::function<std::string()>& reread) {
    static const std::string kOrigin = "local";
    auto config = std::make_shared<FConfig>();
    std::string reason;
    if (!config->readInPlace(text, reason, reread)) {
        error = Errors::requestDeserialization(kOrigin, reason);
        return nullptr;
    }
    if (!config->finishParse(kOrigin, error)) return nullptr;
    return config;
}

bool FConfig::finishParse(const std::string& origin, Error& error) {
    if (version.empty()) {
        error = Errors::serverError(origin, static_cast<int>(Environment::instance().flags()));
        return false;
    }
    version = normalizeVersion(version);
    if (lastUpdate == 0) lastUpdate = MRLCurrentTime();
    if (isFull() && lastFullUpdate == 0) lastFullUpdate = lastUpdate;
    // The matcher's tables are built when a document is published (SCache::publish or a
    // transaction): a fetched document that is only merged never needs its own.
    error.clear();
    return true;
}

std::string FConfig::serialize() const {
    JSONStringer out;
    out.object();
    if (version != "0") out.key("v").value(version);
    if (fullMark != 0) out.key("i").value(fullMark);
    if (scacheVersion != "0") out.key("scacheVersion").value(scacheVersion);
    if (delay != 60000.0) out.key("delay").value(delay);
    // The defaults of these three are the running values, which may differ at the next start: a
    // stored document always says what it was fetched for, an empty locale or version included.
    out.key("env").value(env);
    out.key("clientVersion").value(clientVersion);
    out.key("locale").value(locale);
    if (lastUpdate != 0) out.key("lastUpdate").value(lastUpdate);
    if (lastFullUpdate != 0) out.key("lastFullUpdate").value(lastFullUpdate);
    if (issued != 0) out.key("issued").value(issued);
    if (expires != 0) out.key("expires").value(expires);
    if (!packs_.empty()) {
        std::vector<const Pack*> sorted;
        sorted.reserve(packs_.size());
        for (const auto& [name, pack] : packs_) sorted.push_back(pack.get());
        std::sort(sorted.begin(), sorted.end(),
                  [](const Pack* a, const Pack* b) { return a->name < b->name; });
        out.key("packs").object();
        for (const Pack* pack : sorted) {
            out.key(pack->name);
            pack->writeJSON(out);
        }
        out.endObject();
    }
    out.endObject();
    return out.result();
}

namespace {

// A record in rollout, resolved for a device outside the share, that releases the version the
// device holds marked gray: the device holds the released version, so the record only clears the
// mark, and the gray rollback stays for devices on another version. True when it took the record
// so; false leaves it to mergePack. Records without rollout keys never come here: their gray
// rules stay as they are.
bool keepReleasedGray(FConfig& config, const Pack& resolved) {
    PackPtr old = config.find(resolved.name);
    // Only a device outside the share, told the very version it holds marked gray.
    if (!old || old->grayState() != kGrayStateGray || resolved.grayState() == kGrayStateGray ||
        resolved.seq == 0 || resolved.seq != old->seq || resolved.status == kPackStatusDeleted)
        return false;
    // The device took this version while it was in rollout, and it has been released since (a
    // promotion, or another channel's release): a rollout's sequence is always a new build, so
    // the same sequence is the same files. What it holds is the released version; the gray
    // rollback that the record's mark asks of gray devices is not for it, and would throw the
    // files away to download them again whole. Its record loses the gray mark, as a device that
    // took the version released holds it, and keeps what is installed.
    std::shared_ptr<Pack> released = old->clone();
    released->gray = (old->gray & ~kGrayStateMask) | kGrayStateNormal;
    if (resolved.updateTime > released->updateTime) released->updateTime = resolved.updateTime;
    config.put(std::move(released));
    return true;
}

}  // namespace

void FConfig::mergeResolved(PackPtr pack, std::optional<std::string>& installId) {
    const bool inRollout = pack && pack->inRollout();
    // The device's identifier is read from the root only when a record needs it: a document
    // without a rollout touches nothing new, and its records are not walked a second time.
    if (inRollout && !installId) installId = Rollout::installId();
    PackPtr resolved = resolveRollout(std::move(pack), inRollout ? *installId : std::string());
    if (resolved && !(inRollout && keepReleasedGray(*this, *resolved)))
        mergePack(std::move(resolved));
}

void FConfig::merge(const FConfig& document) {
    mergeFields(document);
    std::optional<std::string> installId;
    for (const auto& [name, pack] : document.packs_) mergeResolved(pack, installId);
}

void FConfig::merge(FConfig&& document) {
    mergeFields(document);
    std::optional<std::string> installId;
    // Each record goes over with the document's reference only, so mergePack edits it in place
    // instead of copying it.
    for (auto& [name, pack] : document.packs_) mergeResolved(std::move(pack), installId);
    document.clearPacks();
}

void FConfig::merge(const FConfig& document, std::string_view installId) {
    mergeFields(document);
    std::optional<std::string> given(installId);
    for (const auto& [name, pack] : document.packs_) mergeResolved(pack, given);
}

void FConfig::merge(FConfig&& document, std::string_view installId) {
    mergeFields(document);
    std::optional<std::string> given(installId);
    for (auto& [name, pack] : document.packs_) mergeResolved(std::move(pack), given);
    document.clearPacks();
}

PackPtr FConfig::resolveRollout(PackPtr p, std::string_view installId) const {
    if (!p || !p->inRollout()) return p;
    std::shared_ptr<Pack> n = p->clone();
    n->rolloutSeq = 0;
    n->rolloutShare = 0;
    n->rolloutTime = 0;
    if (Rollout::inCohort(installId, p->name, p->rolloutShare)) {
        // Exactly what a gray-group device would be sent: the gray and rollback rules of
        // mergePack then hold for it as they stand.
        n->seq = p->rolloutSeq;
        n->publishTime = p->rolloutTime;
        n->baseSeq = 0;
        n->md5.clear();
        n->incrMd5.clear();
        n->patchMd5.clear();
        n->gray = (p->gray & ~kGrayStateMask) | kGrayStateGray;
        // A first rollout marks the record deleted for devices that do not know these keys: to
        // them the pack does not exist yet. The version in rollout does.
        if (n->status == kPackStatusDeleted) n->status = kPackStatusNormal;
        return n;
    }
    if (p->seq == 0) {
        // Nothing is released yet. Only a device that holds the gray version (it left the share,
        // or the rollout was taken back) takes the record, as the released record of sequence 0
        // that the first-gray rollback rule removes the pack for; to any other the pack does not
        // exist yet.
        PackPtr old = find(p->name);
        if (!old || old->grayState() != kGrayStateGray) return nullptr;
        if (n->status == kPackStatusDeleted) n->status = kPackStatusNormal;
    }
    return n;
}

void FConfig::mergeFields(const FConfig& document) {
    const Environment& environment = Environment::instance();
    if (env != static_cast<uint32_t>(environment.env())) {
        // Everything installed belongs to another service environment: start again from nothing.
        clearPacks();
        removed.clear();
        version = "0";
        fullMark = 0;
        delay = 60000.0;
        lastUpdate = 0;
        lastFullUpdate = 0;
        issued = 0;
        expires = 0;
        scacheVersion = "0";
        env = static_cast<uint32_t>(environment.env());
        SCache::wipeInstalled();
        // A failed load logs itself; the document then goes on without built-in packs.
        static_cast<void>(BuiltinConfig::load(*this));
        dirty = true;
    }
    if (env != document.env || clientVersion != document.clientVersion ||
        locale != document.locale || lastUpdate != document.lastUpdate ||
        fullMark != document.fullMark)
        dirty = true;
    env = document.env;
    clientVersion = document.clientVersion;
    locale = document.locale;
    lastUpdate = document.lastUpdate;
    fullMark = document.fullMark;

    // What the publisher signed last only rises: a document that does not say (a push message)
    // leaves it. It never passes the device's clock by more than the skew clocks are allowed, and
    // a stamp kept from before that held (a document signed far ahead) gives way to any later one.
    const double ceiling = MRLCurrentTime() + kIssuedSkewMs;
    const double stamp = std::min(document.issued, ceiling);
    if (document.issued != 0 && (stamp >= issued || issued > ceiling)) {
        if (issued != stamp || expires != document.expires) dirty = true;
        issued = stamp;
        expires = document.expires;
    }

    if (versionNumber(document.version) >= versionNumber(version)) {
        if (version != document.version) dirty = true;
        version = document.version;
        if (document.isFull()) {
            if (lastFullUpdate != document.lastFullUpdate) dirty = true;
            lastFullUpdate = document.lastFullUpdate;
        }
    }

    if (document.isFull()) {
        const double now = MRLCurrentTime();
        std::vector<std::string> gone;
        for (const auto& [name, pack] : packs_) {
            if (document.packs_.count(name) != 0) continue;
            const uint32_t type = pack->packType();
            if (type == kPackTypeACache || type == kPackTypeSCache ||
                pack->status == kPackStatusPreview)
                continue;
            if (pack->grayState() == 2 && pack->publishTime >= now - kGrayGraceMs) continue;
            gone.push_back(name);
        }
        for (const auto& name : gone) {
            logRemove(MarlLogger::MRLLevelWarning, name, "Not in full fconfig");
            remove(name);
        }
    }
}

void FConfig::mergePack(PackPtr p) {
    const bool supported = p->status == kPackStatusDeleted ? false : p->isSupported();
    // The slot found here is the one a taken record goes to: one lookup of the name, not two.
    const auto slot = packs_.find(p->name);
    if (slot == packs_.end() || !slot->second) {
        if (supported) put(std::move(p));
        return;
    }
    PackPtr old = slot->second;
    if (!supported) {
        logRemove(MarlLogger::MRLLevelInfo, p->name,
                  p->isSupported() ? "Deleted" : "PackType not supported");
        remove(p->name);
        return;
    }
    const bool newer = p->seq > old->seq || (p->seq == old->seq && old->baseSeq == 0);
    const bool rollback = p->grayState() == 1 && old->grayState() == 2;
    if (!newer && !rollback && p->status != kPackStatusPreview) {
        if (p->updateTime > old->updateTime) {
            auto touched = old->clone();
            touched->updateTime = p->updateTime;
            put(std::move(touched));
        }
        return;
    }
    if (rollback && p->seq == 0) {
        logRemove(MarlLogger::MRLLevelInfo, p->name, "Rollback first gray");
        remove(p->name);
        return;
    }
    const bool keepPrefixes = p->prefixes.empty();
    // A record that nobody else holds (one taken from a document being consumed) is edited in
    // place: it was made mutable and has never been published.
    std::shared_ptr<Pack> n =
        p.use_count() == 1 ? std::const_pointer_cast<Pack>(std::move(p)) : p->clone();
    if (rollback) {
        // The gray version's files go; the pack downloads again at the released sequence.
        logRemove(MarlLogger::MRLLevelInfo, n->name, "Rollback gray");
        removed.insert(old);
    } else {
        n->installedSeq = old->installedSeq;
        n->installedBaseSeq = old->installedBaseSeq;
        n->installedSize = old->installedSize;
        n->isPacks = old->isPacks;
        n->installTime = old->installTime;
    }
    // Damage and eviction outlive a new configuration; eviction of a resident pack does not.
    if ((n->status != kPackStatusPreview && old->status == kPackStatusNeedReinstall) ||
        (old->status == kPackStatusEliminated && !n->isResident()))
        n->setStatus(old->status);
    n->trigger = old->trigger;
    if (keepPrefixes) n->prefixes = old->prefixes;
    replaceIn(slot, std::move(n));
    dirty = true;
}

PackPtr FConfig::find(std::string_view name) const {
    auto it = packs_.find(name);
    return it == packs_.end() ? nullptr : it->second;
}

void FConfig::replaceIn(StringMap<PackPtr>::iterator slot, PackPtr pack) {
    // The pair is compared at the rebuild, a few records ahead of each other: their texts lie
    // all over the heap, and comparing here waited on memory for each.
    if (tablesFit_) {
        if (slot->second)
            replaced_.emplace_back(slot->second, pack);
        else
            tablesFit_ = false;
    }
    slot->second = std::move(pack);
}

void FConfig::store(PackPtr pack) {
    if (!pack) return;
    const auto [slot, added] = packs_.try_emplace(pack->name);
    if (added) tablesFit_ = false;
    replaceIn(slot, std::move(pack));
}

void FConfig::put(PackPtr pack) {
    if (!pack) return;
    store(std::move(pack));
    dirty = true;
}

bool FConfig::erase(std::string_view name) {
    auto it = packs_.find(name);
    if (it == packs_.end()) return false;
    packs_.erase(it);
    tablesFit_ = false;
    return true;
}

void FConfig::clearPacks() {
    packs_.clear();
    tablesFit_ = false;
}

bool FConfig::remove(std::string_view name) {
    auto it = packs_.find(name);
    if (it == packs_.end()) return false;
    removed.insert(it->second);
    packs_.erase(it);
    tablesFit_ = false;
    dirty = true;
    return true;
}

void FConfig::setStatus(std::string_view name, uint32_t status) {
    PackPtr old = find(name);
    if (!old) return;
    auto pack = old->clone();
    pack->setStatus(status);
    if (pack->status != old->status) put(std::move(pack));
}

void FConfig::setInstalled(std::string_view name, UpdateTrigger trigger, uint64_t seq,
                           uint64_t baseSeq, uint64_t size, bool isPacks) {
    PackPtr old = find(name);
    if (!old) return;
    auto pack = old->clone();
    // A first install earns the credit that keeps a fresh pack from being evicted at once.
    if (pack->installedSeq == 0)
        Statistics::addAccess(pack->name, nullptr, Statistics::kInstallCredit);
    if (triggerIgnoresPriority(trigger))
        pack->trigger = static_cast<uint32_t>(triggerCode(trigger));
    pack->installedSeq = seq;
    pack->installedBaseSeq = baseSeq;
    pack->installedSize = size;
    pack->installTime = MRLCurrentTime();
    pack->isPacks = (pack->isBuiltIn() || pack->packType() == kPackTypeACache) ? false : isPacks;
    if (pack->status == kPackStatusNeedReinstall || pack->status == kPackStatusEliminated)
        pack->status = kPackStatusNormal;
    put(std::move(pack));
}

namespace {

// Where two packs claim the same prefix (for the same type) or the same referrer, the smallest
// name wins, so that the tables do not depend on the order of the map.
void claim(std::string& holder, std::string_view name) {
    if (holder.empty() || name < holder) holder.assign(name);
}

// The matcher's tables in the making, with the list of routed records that goes with them.
struct TableBuilder {
    std::shared_ptr<MatchTables> tables = std::make_shared<MatchTables>();
    std::shared_ptr<std::vector<PackPtr>> routed = std::make_shared<std::vector<PackPtr>>();
    std::string keyBuffer;
    std::string accept;

    // The place of a pack, given on its first claim: only packs that route take one.
    uint32_t placeOf(std::string_view name, const PackPtr& record) {
        const auto [place, added] =
            tables->places.tryEmplace(name, static_cast<uint32_t>(tables->names.size()));
        if (added) {
            tables->names.emplace_back(name);
            routed->push_back(record);
        }
        return *place;
    }

    // Enters the prefixes and referrers of one record.
    void add(std::string_view name, const PackPtr& record) {
        const Pack& pack = *record;
        if (pack.packType() == kPackTypeSCache && pack.subType == kSubTypeFixedSeq) return;
        for (const auto& prefix : pack.prefixes) {
            // A prefix may name, after a "#", the content type it serves: the fragment never
            // reaches a server, so it is free to carry this.
            const size_t hash = prefix.find('#');
            Url::keyInto(std::string_view(prefix).substr(0, hash), keyBuffer);
            if (keyBuffer.empty()) continue;
            PrefixValue& value = tables->prefixTree.value(keyBuffer);
            placeOf(name, record);
            if (hash == std::string::npos || hash + 1 == prefix.size()) {
                claim(value.packName, name);
                continue;
            }
            accept.assign(prefix, hash + 1);
            Ascii::lowerInPlace(accept);
            claim(value.acceptPacks[accept], name);
        }
        for (const auto& referrer : pack.referrers) {
            Url::keyInto(referrer, keyBuffer);
            if (keyBuffer.empty()) continue;
            const uint32_t place = placeOf(name, record);
            const auto [holder, added] = tables->urlIndex.tryEmplace(keyBuffer, place);
            if (!added && name < tables->names[*holder]) *holder = place;
        }
    }
};

const PackPtr& recordOf(const PackPtr* record) {
    return *record;
}
const PackPtr& recordOf(const std::pair<PackPtr, PackPtr>& change) {
    return change.second;
}

// The routed records of a snapshot that shares its tables with one whose list is `before`: the
// same names route as before, and only the records that were replaced move in, in the order
// they were stored (the last of a name is the one the map holds).
template <typename Records>
std::shared_ptr<const std::vector<PackPtr>> patchRouted(
    const MatchTables& tables, const std::shared_ptr<const std::vector<PackPtr>>& before,
    const Records& changed) {
    if (changed.empty()) return before;
    auto routed = std::make_shared<std::vector<PackPtr>>(*before);
    for (const auto& each : changed) {
        const PackPtr& record = recordOf(each);
        if (const uint32_t* place = tables.places.find(record->name)) (*routed)[*place] = record;
    }
    return routed;
}

}  // namespace

void FConfig::rebuildIndexes(const FConfig* previous) {
    // Only the tables of `previous` are taken as they stand: without it, the tables are built.
    if (previous != nullptr && tablesFit_ && tables_ == previous->tables_ &&
        pairsRouteAlike(replaced_)) {
        routed_ = patchRouted(*tables_, routed_, replaced_);
        replaced_.clear();
        return;
    }
    replaced_.clear();
    tablesFit_ = true;
    std::vector<const PackPtr*> changed;
    if (previous != nullptr && previous->tables_ &&
        sameRouting(packs_, previous->packs_, changed)) {
        tables_ = previous->tables_;
        routed_ = patchRouted(*tables_, previous->routed_, changed);
        return;
    }
    TableBuilder builder;
    builder.tables->urlIndex.reserve(packs_.size());
    // A freshly parsed document's records lie all over the heap, and the first touch of each
    // waited on memory: with the records in a list, each step fetches a record, its lists and
    // their text a few places ahead, in that order, while this one is read.
    std::vector<std::pair<std::string_view, const PackPtr*>> records;
    records.reserve(packs_.size());
    for (const auto& [name, pack] : packs_) records.emplace_back(name, &pack);
    constexpr size_t kFetchAhead = 4;
    const size_t count = records.size();
    for (size_t i = 0; i < count; ++i) {
        if (i + 3 * kFetchAhead < count)
            __builtin_prefetch(records[i + 3 * kFetchAhead].second->get());
        if (i + 2 * kFetchAhead < count) {
            const Pack* later = records[i + 2 * kFetchAhead].second->get();
            __builtin_prefetch(later->prefixes.data());
            __builtin_prefetch(later->referrers.data());
        }
        if (i + kFetchAhead < count) {
            const Pack* soon = records[i + kFetchAhead].second->get();
            for (const std::string& text : soon->prefixes) __builtin_prefetch(text.data());
            for (const std::string& text : soon->referrers) __builtin_prefetch(text.data());
        }
        builder.add(records[i].first, *records[i].second);
    }
    tables_ = std::move(builder.tables);
    routed_ = std::move(builder.routed);
}

}  // namespace FerritCore
