#include "storage/Cache.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <unordered_set>
#include <vector>

#include "base/Digest.h"
#include "base/Errors.h"
#include "base/Http.h"
#include "base/LogTags.h"
#include "base/Telemetry.h"
#include "marl/Clock.h"
#include "marl/JsonBinaryEvents.h"
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

// Reads a stored body document straight into a CachedResource: the content is copied once, from
// where the stored bytes lie into `body`, and nothing else is built on the way. It reads what
// building the document and taking its members would: the last of repeated members counts, "c"
// must be a string, "r" and "t" read as lenient numbers, "m" and each header as lenient text.
// Fed by parseBinaryEvents only: it keeps a header's name across calls, which that reader's views
// of the stored bytes allow and the general events contract does not.
class BodyReader final : public MarlLogger::json::JSONEvents {
  public:
    explicit BodyReader(CachedResource& out) : out_(out) {}

    // The type of the document, and of its "c" (null when absent); valid after a whole parse.
    Type documentType() const { return documentType_; }
    Type contentType() const { return contentType_; }
    Type md5Type() const { return md5Type_; }
    // What a document that is not an object with a string "c" is refused for: the type of the
    // document, or of its "c".
    Type invalidType() const {
        return documentType_ == Type::Object ? contentType_ : documentType_;
    }

    bool startObject() override { return open(Type::Object); }
    bool startArray() override { return open(Type::Array); }
    bool endObject() override { return close(); }
    bool endArray() override { return close(); }
    bool key(std::string_view key) override {
        if (skipped_ != 0) return true;
        if (depth_ == 1) member_ = memberOf(key);
        if (depth_ == 2) header_ = key;
        return true;
    }
    bool scalar(const JSON& value) override {
        if (skipped_ != 0) return true;
        if (depth_ == 0) documentType_ = value.type();
        if (depth_ == 1) {
            member(
                value.type(), [&] { return value.uint32Value(); },
                [&] { return value.stringValue(); });
        }
        if (depth_ == 2) out_.headers.insert_or_assign(std::string(header_), value.stringValue());
        return true;
    }
    bool string(std::string_view text) override {
        if (skipped_ != 0) return true;
        if (depth_ == 0) documentType_ = Type::String;
        if (depth_ == 1) {
            // Content is by far the longest member: the one copy a read makes of it.
            if (member_ == Member::kContent) out_.body.assign(text);
            member(
                Type::String, [&] { return lenientUInt32(text); },
                [&] { return std::string(text); });
        }
        if (depth_ == 2) out_.headers.insert_or_assign(std::string(header_), std::string(text));
        return true;
    }

  private:
    enum class Member { kOther, kContent, kCrc, kMd5, kHeaders, kTrigger };

    static Member memberOf(std::string_view key) {
        if (key == kBodyContent) return Member::kContent;
        if (key == kBodyCrc) return Member::kCrc;
        if (key == kBodyMd5) return Member::kMd5;
        if (key == kBodyHeaders) return Member::kHeaders;
        if (key == kBodyTrigger) return Member::kTrigger;
        return Member::kOther;
    }

    // A string read as a number, as JSON::uint32Value reads it.
    static uint32_t lenientUInt32(std::string_view text) {
        return static_cast<uint32_t>(std::min<uint64_t>(MarlLogger::json::coerceUInt(text),
                                                        std::numeric_limits<uint32_t>::max()));
    }

    // A value of the document's member `member_`: `number` and `text` give it as a number and as
    // text, each called only for the members that keep one.
    template <typename Number, typename Text>
    void member(Type type, const Number& number, const Text& text) {
        switch (member_) {
            case Member::kContent:
                contentType_ = type;
                break;
            case Member::kCrc:
                out_.crc = number();
                break;
            case Member::kTrigger:
                out_.trigger = number();
                break;
            case Member::kMd5:
                md5Type_ = type;
                out_.md5 = text();
                break;
            case Member::kHeaders:
                // A later "h" replaces an earlier one; one that is not an object holds nothing.
                out_.headers.clear();
                break;
            case Member::kOther:
                break;
        }
    }

    bool open(Type type) {
        if (skipped_ != 0) {
            ++skipped_;
        } else if (depth_ == 0) {
            documentType_ = type;
            if (type == Type::Object) {
                depth_ = 1;
            } else {
                skipped_ = 1;
            }
        } else if (depth_ == 1) {
            member(
                type, [] { return uint32_t{0}; }, [] { return std::string(); });
            if (member_ == Member::kHeaders && type == Type::Object) {
                depth_ = 2;
            } else {
                skipped_ = 1;
            }
        } else {
            // A header whose value is a container reads as empty text.
            out_.headers.insert_or_assign(std::string(header_), std::string());
            skipped_ = 1;
        }
        return true;
    }

    bool close() {
        if (skipped_ != 0) {
            --skipped_;
        } else {
            --depth_;
        }
        return true;
    }

    CachedResource& out_;
    // 0 before the document, 1 inside it, 2 inside its "h".
    int depth_ = 0;
    // Containers open inside a value that is read as a whole (or not at all).
    int skipped_ = 0;
    Member member_ = Member::kOther;
    // Points into the stored bytes, which outlive the parse.
    std::string_view header_;
    Type documentType_ = Type::Null;
    Type contentType_ = Type::Null;
    Type md5Type_ = Type::Null;
};

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

bool Cache::readBody(const CacheEntry& entry, CachedResource& out, Error& error,
                     Type* md5Type) const {
    entry.lock.assertHeld();
    BodyReader reader(out);
    if (entry.large) {
        const Folder file = largeFolder_.childOf(entry.fileName);
        const std::string bytes = Folder::readFile(file, error);
        if (error) return false;
        std::string reason;
        if (!MarlLogger::json::parseBinaryEvents(bytes, reader, &reason)) {
            error = Errors::storeDeserialize(kLargeDirectory, entry.url, reason);
            return false;
        }
        if (reader.documentType() != Type::Object || reader.contentType() != Type::String) {
            error = Errors::fileReadInvalidType(file, typeName(reader.invalidType()));
            return false;
        }
    } else {
        // Built in a buffer of the thread: a read allocates only what it returns.
        thread_local std::string key;
        key.assign(kResourcePrefix).append(entry.url);
        // Decoded where the database holds the bytes, so that the content is copied only once.
        Error stored = visit(key, [&](std::string_view bytes, std::string& reason) {
            return MarlLogger::json::parseBinaryEvents(bytes, reader, &reason);
        });
        if (stored) {
            error = std::move(stored);
            return false;
        }
        if (reader.documentType() != Type::Object || reader.contentType() != Type::String) {
            error = Errors::storeInvalidType(directory(), key, typeName(reader.invalidType()));
            return false;
        }
    }
    if (md5Type != nullptr) *md5Type = reader.md5Type();
    return true;
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
        if (!readBody(*entry, *resource, error)) {
            bad = true;
        } else {
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

bool Cache::agreesWithStored(CacheEntry& entry, const CachedResource& resource, Error& error) {
    entry.lock.assertHeld();
    CachedResource current;
    Error ignored;
    Type md5Type = Type::Null;
    if (!readBody(entry, current, ignored, &md5Type)) return false;
    // The stored MD5 counts only when it was stored as text: a number never matches.
    const std::string_view currentMd5 =
        md5Type == Type::String ? std::string_view(current.md5) : std::string_view();
    if (currentMd5 == resource.md5) {
        // Same MD5, same body: two fetches agree, which validates it.
        entry.validated = true;
        entry.date = std::max(entry.date, resource.date);
        writeMeta(entry);
        return true;
    }
    const std::string difference =
        compareBodies(current.body, resource.body, currentMd5, resource.md5);
    if (!difference.empty()) {
        error = Errors::cacheVerify(entry.url, difference);
        LogBuilder log(MarlLogger::MRLLevelWarning, tag());
        if (log.active()) log.event("write").append("url", entry.url).error(error);
    }
    return false;
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

        if (existed && !resource.forceOverwrite && agreesWithStored(*entry, resource, error))
            return true;

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
