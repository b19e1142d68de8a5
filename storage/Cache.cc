#include "storage/Cache.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <unordered_set>
#include <vector>

#include "base/Digest.h"
#include "base/Errors.h"
#include "base/Http.h"
#include "base/LogTags.h"
#include "base/Telemetry.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "runtime/Settings.h"
#include "storage/ModuleCache.h"
#include "storage/UniApp.h"

namespace FerritCore {
namespace {

using MarlLogger::LogBuilder;
using MarlLogger::json::JSON;
using MarlLogger::json::JSONObject;
using MarlLogger::json::Type;

// Keys of the records.
constexpr const char* kTotalKey = "s";
constexpr const char* kMetaSize = "s";
constexpr const char* kMetaDate = "d";
constexpr const char* kMetaLarge = "l";
constexpr const char* kMetaValidated = "v";
constexpr const char* kMetaReferences = "p";
constexpr const char* kBodyContent = "c";
constexpr const char* kBodyCrc = "r";
constexpr const char* kBodyMd5 = "m";
constexpr const char* kBodyHeaders = "h";
constexpr const char* kBodyTrigger = "t";

// How much of each body the comparison text quotes.
constexpr size_t kQuoted = 40;

const char* typeName(Type type) {
    switch (type) {
        case Type::Null:
            return "null";
        case Type::Bool:
            return "bool";
        case Type::Int:
            return "int";
        case Type::UInt:
            return "uint";
        case Type::Double:
            return "double";
        case Type::String:
            return "string";
        case Type::Array:
            return "array";
        case Type::Object:
            return "object";
    }
    return "unknown";
}

std::string metaKey(std::string_view url) {
    std::string key(Cache::kMetaPrefix);
    key.append(url);
    return key;
}

std::string resourceKey(std::string_view url) {
    std::string key(Cache::kResourcePrefix);
    key.append(url);
    return key;
}

int quotedLength(std::string_view text, size_t from) {
    return static_cast<int>(std::min(kQuoted, text.size() - from));
}

// The first difference between the stored body (`content`) and the one being written (`other`),
// in words for the log and the caller; empty when they agree in bytes and in MD5 text.
std::string compareBodies(std::string_view content, std::string_view other,
                          std::string_view contentMd5, std::string_view otherMd5) {
    const size_t common = std::min(content.size(), other.size());
    const auto mismatch = std::mismatch(content.begin(), content.begin() + common, other.begin());
    const size_t at = static_cast<size_t>(mismatch.first - content.begin());
    std::vector<char> buffer(256 + 2 * kQuoted + contentMd5.size() + otherMd5.size());
    int written = 0;
    if (at < common) {
        written = std::snprintf(buffer.data(), buffer.size(),
                                "@%lu content \"%.*s\" not equal to other \"%.*s\"",
                                static_cast<unsigned long>(at), quotedLength(content, at),
                                content.data() + at, quotedLength(other, at), other.data() + at);
    } else if (content.size() < other.size()) {
        written = std::snprintf(
            buffer.data(), buffer.size(), "size %lu < other %lu, missing \"%.*s\"",
            static_cast<unsigned long>(content.size()), static_cast<unsigned long>(other.size()),
            quotedLength(other, common), other.data() + common);
    } else if (content.size() > other.size()) {
        written = std::snprintf(
            buffer.data(), buffer.size(), "size %lu > other %lu, extra \"%.*s\"",
            static_cast<unsigned long>(content.size()), static_cast<unsigned long>(other.size()),
            quotedLength(content, common), content.data() + common);
    } else if (contentMd5 != otherMd5) {
        written = std::snprintf(buffer.data(), buffer.size(), "md5 %.*s not equal to other %.*s",
                                static_cast<int>(contentMd5.size()), contentMd5.data(),
                                static_cast<int>(otherMd5.size()), otherMd5.data());
    }
    return written > 0 ? std::string(buffer.data(), std::min<size_t>(written, buffer.size() - 1))
                       : std::string();
}

JSON headersJSON(const HeaderMap& headers) {
    JSONObject object;
    for (const auto& [name, value] : headers) object.set(name, JSON(value));
    return JSON(std::move(object));
}

}  // namespace

// ---- CachedResource ----

HeaderMap CachedResource::keptHeaders(const HeaderMap& response) {
    HeaderMap kept;
    for (const Http::HeaderId id : {Http::kAccessControlAllowOrigin, Http::kContentType,
                                    Http::kETag, Http::kLastModified, Http::kVary}) {
        const std::string& name = Http::headerName(id);
        Http::setHeader(kept, name, Http::headerValue(response, name));
    }
    return kept;
}

double CachedResource::dateOf(const HeaderMap& response) {
    long long seconds = 0;
    const std::string_view text = Http::headerValue(response, Http::headerName(Http::kDate));
    if (text.empty() || !Http::parseHttpDate(text, &seconds) || seconds < 1) return 0;
    return static_cast<double>(seconds) * 1000.0;
}

// ---- Cache ----

Cache::Cache()
    : MetaStore(kDirectory, std::string(LogTag::kCache), KeyValueStore::Options::forCache()) {}

Cache& Cache::instance() {
    return StoreInstance<Cache>::get();
}

Folder Cache::largeFile(std::string_view url) {
    return Folder::disk(std::string(kLargeDirectory) + Digest::md5Hex(url));
}

void Cache::openAndReport() {
    const double start = MRLCurrentClock();
    const int first = open();
    largeFolder_ = Folder::disk(kLargeDirectory);
    // Keys only: an entry is parsed at its first use.
    std::vector<std::string> urls;
    int64_t total = 0;
    if (isOpen()) {
        total = get(kConfigKey).valueOr(JSON())[kTotalKey].int64Value();
        const size_t prefix = std::string_view(kMetaPrefix).size();
        Store::enumerate(kMetaPrefix, [&](std::string_view key) {
            urls.emplace_back(key.substr(prefix));
            return false;
        });
    }
    {
        MutexLock lock(lock_);
        entries_.clear();
        for (std::string& url : urls) entries_.emplace(std::move(url), nullptr);
    }
    totalSize_.store(total, std::memory_order_release);
    largeFolder_.ensureParent();

    // The two owners decide what stays; they exist from the moment their content does.
    ModuleCache& modules = ModuleCache::instance();
    UniApp& uniApp = UniApp::instance();

    PerfRecord record("Ferrit.CacheInit");
    if (first != 0)
        record.setError(withStatusText(Errors::initStoreFailed(directory(), first), first));
    record.setMeasure("resCount", static_cast<double>(entryCount()));
    record.setMeasure("resSize", static_cast<double>(totalSize()));
    record.setMeasure("UniAppCount", static_cast<double>(uniApp.count()));
    record.setMeasure("UniAppSize", static_cast<double>(uniApp.size()));
    record.setMeasure("ModuleCacheCount", static_cast<double>(modules.count()));
    record.setMeasure("ModuleCacheSize", static_cast<double>(modules.size()));
    record.setMeasure("smallDiskSize", static_cast<double>(Store::diskSize()));
    record.setMeasure("largeDiskSize", static_cast<double>(largeDiskSize()));
    record.setMeasure("time", MRLCurrentClock() - start);
    sendEvent(record);

    auto log = MarlLogger::Log::build(
        first == 0 ? MarlLogger::MRLLevelInfo : MarlLogger::MRLLevelWarning, tag());
    if (!log.active()) return;
    log.event("init");
    logRecord(record, log);
}

void Cache::close() {
    Store::close();
    MutexLock lock(lock_);
    entries_.clear();
    totalSize_.store(0, std::memory_order_release);
}

size_t Cache::entryCount() const {
    MutexLock lock(lock_);
    return entries_.size();
}

uint64_t Cache::largeDiskSize() const {
    return Folder::disk(kLargeDirectory).diskSize();
}

uint64_t Cache::diskSize() const {
    return Store::diskSize() + largeDiskSize();
}

Cache::EntryPtr Cache::loadEntry(std::string_view url, Error& error) {
    lock_.assertHeld();
    auto found = entries_.find(url);
    if (found == entries_.end()) {
        error = Errors::storeNotExists(directory(), metaKey(url));
        return nullptr;
    }
    if (found->second) return found->second;
    const std::string key = metaKey(url);
    ErrorOr<JSON> read = get(key);
    const Error readError = read.error();
    const JSON meta = std::move(read).valueOr(JSON());
    if (meta.isObject()) {
        auto entry = std::make_shared<CacheEntry>(std::string(url));
        MutexLock entryLock(entry->lock);
        entry->size = meta[kMetaSize].int64Value();
        entry->date = meta[kMetaDate].doubleValue();
        entry->large = meta[kMetaLarge].boolValue();
        entry->validated = meta[kMetaValidated].boolValue();
        for (const auto& [owner, expiry] : meta[kMetaReferences].objectValue())
            entry->references.emplace(owner, expiry.doubleValue());
        if (entry->large) entry->fileName = Digest::md5Hex(url);
        found->second = entry;
        return entry;
    }
    // Bad metadata is dropped on first sight, with whatever it described.
    error =
        readError ? readError : Errors::storeInvalidType(directory(), key, typeName(meta.type()));
    entries_.erase(found);
    eraseStored(url);
    return nullptr;
}

Cache::EntryPtr Cache::entryForWrite(std::string_view url, bool& existed) {
    lock_.assertHeld();
    Error unknown;
    EntryPtr known = loadEntry(url, unknown);
    existed = known != nullptr;
    if (known) return known;
    auto made = std::make_shared<CacheEntry>(std::string(url));
    entries_.insert_or_assign(std::string(url), made);
    return made;
}

bool Cache::addReference(CacheEntry& entry, std::string_view owner, double expiry) {
    entry.lock.assertHeld();
    auto found = entry.references.find(owner);
    if (found == entry.references.end()) {
        entry.references.emplace(std::string(owner), expiry);
        return true;
    }
    if (expiry > found->second) {
        found->second = expiry;
        return true;
    }
    return false;
}

double Cache::largestExpiry(const CacheEntry& entry) {
    entry.lock.assertHeld();
    double largest = 0;
    for (const auto& [owner, expiry] : entry.references) {
        if (expiry >= CachedResource::kNeverExpires) return expiry;
        largest = std::max(largest, expiry);
    }
    return largest;
}

void Cache::writeMeta(const CacheEntry& entry) {
    entry.lock.assertHeld();
    JSONObject references;
    for (const auto& [owner, expiry] : entry.references) references.set(owner, JSON(expiry));
    const JSON meta = JSONObject{{kMetaSize, JSON(entry.size)},
                                 {kMetaDate, JSON(entry.date)},
                                 {kMetaLarge, JSON(entry.large)},
                                 {kMetaValidated, JSON(entry.validated)},
                                 {kMetaReferences, JSON(std::move(references))}};
    const Error error = put(metaKey(entry.url), meta);
    if (!error) return;
    LogBuilder log(MarlLogger::MRLLevelWarning, tag());
    if (log.active()) log.event("writeMeta").append("url", entry.url).error(error);
}

JSON Cache::readBody(const CacheEntry& entry, Error& error) const {
    entry.lock.assertHeld();
    if (entry.large) {
        const Folder file = largeFolder_.childOf(entry.fileName);
        const std::string bytes = Folder::readFile(file, error);
        if (error) return JSON();
        std::string reason;
        JSON document = JSON::parseBinary(bytes, &reason);
        if (!reason.empty()) {
            error = Errors::storeDeserialize(kLargeDirectory, entry.url, reason);
            return JSON();
        }
        if (!document.isObject() || !document[kBodyContent].isString()) {
            const Type type = document.isObject() ? document[kBodyContent].type() : document.type();
            error = Errors::fileReadInvalidType(file, typeName(type));
            return JSON();
        }
        return document;
    }
    const std::string key = resourceKey(entry.url);
    ErrorOr<JSON> stored = get(key);
    if (!stored.ok()) {
        error = std::move(stored).error();
        return JSON();
    }
    JSON document = std::move(stored).value();
    if (!document.isObject() || !document[kBodyContent].isString()) {
        const Type type = document.isObject() ? document[kBodyContent].type() : document.type();
        error = Errors::storeInvalidType(directory(), key, typeName(type));
        return JSON();
    }
    return document;
}

void Cache::eraseStored(std::string_view url) {
    remove(metaKey(url));
    remove(resourceKey(url));
    Folder::removeFile(largeFolder_.childOf(Digest::md5Hex(url)), Removal::kGone);
}

void Cache::addToTotal(int64_t delta) {
    if (delta != 0) totalSize_.fetch_add(delta, std::memory_order_acq_rel);
}

void Cache::saveTotal() {
    MutexLock lock(saveMutex_);
    const Error error = put(kConfigKey, JSONObject{{kTotalKey, JSON(totalSize())}});
    if (!error) return;
    LogBuilder log(MarlLogger::MRLLevelWarning, tag());
    if (log.active()) log.event("writeConfig").error(error);
}

void Cache::drop(const EntryPtr& entry, uint64_t version) {
    MutexLock cacheLock(lock_);
    MutexLock entryLock(entry->lock);
    // A writer that stored a new body since the bad one was read has repaired the entry.
    if (entry->removed || entry->version != version) return;
    entry->removed = true;
    addToTotal(-entry->size);
    entry->size = 0;
    auto found = entries_.find(entry->url);
    if (found != entries_.end() && found->second == entry) entries_.erase(found);
    eraseStored(entry->url);
}

std::unique_ptr<CachedResource> Cache::read(std::string_view url, std::string_view owner,
                                            Error& error) {
    const double start = MRLCurrentClock();
    EntryPtr entry;
    {
        MutexLock cacheLock(lock_);
        entry = loadEntry(url, error);
        if (entry && !owner.empty()) {
            MutexLock entryLock(entry->lock);
            if (addReference(*entry, owner, 0.0)) writeMeta(*entry);
        }
    }
    const double found = MRLCurrentClock();
    if (!entry) return nullptr;

    auto resource = std::make_unique<CachedResource>();
    uint64_t badVersion = 0;
    bool bad = false;
    {
        MutexLock entryLock(entry->lock);
        if (entry->removed) {
            error = Errors::storeNotExists(directory(), metaKey(url));
            return nullptr;
        }
        const JSON body = readBody(*entry, error);
        if (body.isNull()) {
            bad = true;
        } else {
            resource->crc = body[kBodyCrc].uint32Value();
            resource->md5 = body[kBodyMd5].stringValue();
            resource->trigger = body[kBodyTrigger].uint32Value();
            resource->body = body[kBodyContent].stringValue();
            for (const auto& [name, value] : body[kBodyHeaders].objectValue())
                resource->headers.emplace(name, value.stringValue());
            resource->date = entry->date;
            resource->validated = entry->validated;
            resource->expires = largestExpiry(*entry);
            if (resource->crc != 0 && Settings::current()->cacheCRCEnabledValue()) {
                const unsigned actual = Digest::crc32(resource->body);
                if (actual != resource->crc) {
                    error = Errors::cacheCrc(std::string(url), actual, resource->crc);
                    bad = true;
                }
            }
        }
        if (bad) badVersion = entry->version;
    }
    if (bad) {
        // Nothing stale is served: the entry goes, and the owner fetches the resource again.
        drop(entry, badVersion);
        return nullptr;
    }
    resource->matchTime = found - start;
    resource->readTime = MRLCurrentClock() - found;
    error.clear();
    return resource;
}

bool Cache::write(std::string_view url, std::string_view owner, const CachedResource& resource,
                  Error& error) {
    error.clear();
    ReleasableMutexLock cacheLock(lock_);
    bool existed = true;
    const EntryPtr entry = entryForWrite(url, existed);
    int64_t sizeDelta = 0;
    {
        MutexLock entryLock(entry->lock);
        const bool referenceChanged = addReference(*entry, owner, resource.expires);
        if (!resource.forceOverwrite && !(entry->date < resource.date) && entry->validated) {
            // Validated and not older: the content stays.
            if (referenceChanged) writeMeta(*entry);
            return true;
        }
        // The entry's lock is held from here on: the map may change meanwhile, this entry not.
        cacheLock.release();

        JSON current;
        if (existed && !resource.forceOverwrite) {
            Error ignored;
            current = readBody(*entry, ignored);
            if (current.isObject() && current[kBodyMd5].stringViewValue() == resource.md5) {
                // Same MD5, same body: two fetches agree, which validates it.
                entry->validated = true;
                entry->date = std::max(entry->date, resource.date);
                writeMeta(*entry);
                return true;
            }
        }
        if (current.isObject()) {
            const std::string difference =
                compareBodies(current[kBodyContent].stringViewValue(), resource.body,
                              current[kBodyMd5].stringViewValue(), resource.md5);
            if (!difference.empty()) {
                error = Errors::cacheVerify(std::string(url), difference);
                LogBuilder log(MarlLogger::MRLLevelWarning, tag());
                if (log.active()) log.event("write").append("url", url).error(error);
            }
        }

        const bool large = resource.body.size() > kLargeThreshold;
        const JSON document = JSONObject{{kBodyContent, JSON(resource.body)},
                                         {kBodyCrc, JSON(resource.crc)},
                                         {kBodyMd5, JSON(resource.md5)},
                                         {kBodyHeaders, headersJSON(resource.headers)},
                                         {kBodyTrigger, JSON(resource.trigger)}};
        Error writeError;
        const std::string fileName = large ? Digest::md5Hex(url) : std::string();
        if (large) {
            // Written beside the old file and renamed over it, so that a failed write leaves the
            // former body whole.
            largeFolder_.ensureParent();
            const Folder target = largeFolder_.childOf(fileName);
            const Folder temporary = largeFolder_.childOf(fileName + ".tmp");
            const std::string bytes = document.toBinary();
            if (bytes.empty()) {
                writeError = Errors::fileWrite(target, EFBIG);
            } else if (Folder::writeFile(temporary, bytes, writeError)) {
                Folder::renameTo(temporary, target, writeError);
            }
            if (writeError) Folder::removeFile(temporary, Removal::kGone);
        } else {
            writeError = put(resourceKey(url), document);
        }
        if (writeError) {
            error = writeError;
            return false;
        }
        // The copy in the other tier goes only once the new one is stored: a failed write keeps
        // the old body readable, and no reader sees both, since the flag changes under this lock.
        if (existed && entry->large != large) {
            if (large) {
                remove(resourceKey(url));
            } else {
                Folder::removeFile(largeFolder_.childOf(entry->fileName), Removal::kGone);
            }
        }
        entry->large = large;
        entry->fileName = fileName;
        const int64_t size = static_cast<int64_t>(resource.body.size());
        sizeDelta = size - entry->size;
        entry->size = size;
        entry->date = resource.date;
        entry->validated = resource.validated;
        ++entry->version;
        writeMeta(*entry);
    }
    if (sizeDelta != 0) {
        addToTotal(sizeDelta);
        saveTotal();
    }
    return true;
}

void Cache::touch(std::string_view url, std::string_view owner, double expiry) {
    MutexLock cacheLock(lock_);
    Error unknown;
    const EntryPtr entry = loadEntry(url, unknown);
    if (!entry) return;
    MutexLock entryLock(entry->lock);
    if (addReference(*entry, owner, expiry)) writeMeta(*entry);
}

void Cache::removeReference(std::string_view url, std::string_view owner) {
    bool emptied = false;
    {
        MutexLock cacheLock(lock_);
        Error unknown;
        const EntryPtr entry = loadEntry(url, unknown);
        if (!entry) return;
        MutexLock entryLock(entry->lock);
        auto found = entry->references.find(owner);
        const bool erased = found != entry->references.end();
        if (erased) entry->references.erase(found);
        if (!entry->references.empty()) {
            if (erased) writeMeta(*entry);
            return;
        }
        // The content lives as long as one owner does.
        entry->removed = true;
        addToTotal(-entry->size);
        entry->size = 0;
        entries_.erase(entry->url);
        eraseStored(url);
        emptied = true;
    }
    if (emptied) saveTotal();
}

JSON Cache::metaJson(std::string_view url) {
    MutexLock cacheLock(lock_);
    Error unknown;
    const EntryPtr entry = loadEntry(url, unknown);
    if (!entry) return JSON();
    MutexLock entryLock(entry->lock);
    return JSONObject{{"s", JSON(entry->size)},
                      {"e", JSON(largestExpiry(*entry))},
                      {"v", JSON(entry->validated)}};
}

void Cache::sync() {
    MutexLock cacheLock(lock_);
    std::vector<std::string> urls;
    urls.reserve(entries_.size());
    for (const auto& [url, entry] : entries_) urls.push_back(url);

    // While the cache lock is held no operation can start on an entry, and each one that was
    // under way has finished once its lock is taken here: what is checked stays so for the pass.
    std::unordered_set<std::string> smallUrls;
    std::unordered_set<std::string> fileNames;
    int64_t sum = 0;
    for (const std::string& url : urls) {
        Error unknown;
        const EntryPtr entry = loadEntry(url, unknown);
        if (!entry) continue;
        MutexLock entryLock(entry->lock);
        const bool present = !entry->references.empty() &&
                             (entry->large ? largeFolder_.childOf(entry->fileName).exists()
                                           : contains(resourceKey(url)));
        if (present) {
            sum += entry->size;
            if (entry->large) {
                fileNames.insert(entry->fileName);
            } else {
                smallUrls.insert(url);
            }
            continue;
        }
        entry->removed = true;
        entry->size = 0;
        entries_.erase(url);
        remove(metaKey(url));
    }

    std::vector<std::string> orphans;
    const size_t prefix = std::string_view(kResourcePrefix).size();
    Store::enumerate(kResourcePrefix, [&](std::string_view key) {
        if (smallUrls.count(std::string(key.substr(prefix))) == 0) orphans.emplace_back(key);
        return false;
    });
    for (const std::string& key : orphans) remove(key);
    for (const Folder& file : largeFolder_.listChildren()) {
        if (fileNames.count(file.baseName()) == 0) Folder::removeFile(file, Removal::kGone);
    }

    if (sum != totalSize()) {
        totalSize_.store(sum, std::memory_order_release);
        saveTotal();
    }
}

void Cache::clear() {
    {
        MutexLock cacheLock(lock_);
        for (const auto& [url, entry] : entries_) {
            if (!entry) continue;
            MutexLock entryLock(entry->lock);
            entry->removed = true;
        }
        entries_.clear();
        totalSize_.store(0, std::memory_order_release);
    }
    MetaStore::clear();
    Folder::removeFile(largeFolder_, Removal::kRecreate);
    ModuleCache::instance().clear();
}

}  // namespace FerritCore
