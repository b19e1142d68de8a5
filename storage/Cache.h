// Cache: the content store of single web resources by URL, apart from packs. It is the store under
// ModuleCache and UniApp, which decide what stays; several owners may reference one URL, and its
// content lives as long as one of them does. Small bodies are values in the database "cache/";
// bodies above 3145728 bytes are files under "cache_large/", each holding the same body document
// in binary JSON. Start-up loads keys only: an entry is parsed when it is first used.
//
// Threading: any thread; every operation is synchronous on the caller's thread. Two levels of
// lock: the cache lock (the map of entries) is always taken before an entry's lock, and is held
// only to find an entry, never while content is read or written; an operation that must go back
// to the cache lock releases the entry lock first. sync() holds the cache lock for its whole pass.
//
// Ownership: the instance is created and opened at first use and lives until the process ends
// (see StoreInstance); ProcessState::resetForTesting closes it, and the next use opens it again.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "base/Folder.h"
#include "ferritcore/Error.h"
#include "ferritcore/ResourceRequest.h"
#include "marl/Json.h"
#include "storage/MetaStore.h"
#include "storage/StoreInstance.h"
#include "support/Mutex.h"

namespace FerritCore {

// What a read yields and a write takes: one body with what is known about it. A plain value.
struct CachedResource {
    // An expiry that no reference can exceed; finding it ends the search for the largest.
    static constexpr double kNeverExpires = 1.7976931348623157e308;

    uint32_t crc = 0;  // CRC-32 of the body (zlib, seed 0); 0 means "never checked"
    std::string md5;   // lower-case hexadecimal MD5 of the body
    uint32_t trigger = 0;
    double date = 0;  // milliseconds; the resource's "Date"
    bool validated = false;
    double expires = 0;  // milliseconds of the wall clock
    double matchTime = 0;
    double readTime = 0;
    bool forceOverwrite = false;  // replace the content whatever the dates say
    std::string body;
    HeaderMap headers;

    // The response headers a cached copy keeps: "Access-Control-Allow-Origin", "Content-Type",
    // "ETag", "Last-Modified" and "Vary", each under its fixed name when present.
    static HeaderMap keptHeaders(const HeaderMap& response);
    // The "Date" header in milliseconds: its seconds times 1000; 0 when it is absent, does not
    // parse, or gives less than 1.
    static double dateOf(const HeaderMap& response);
};

// One URL's record. Its fields are guarded by its own lock, which is taken after the cache lock.
struct CacheEntry {
    explicit CacheEntry(std::string url) : url(std::move(url)) {}

    const std::string url;
    Mutex lock;
    int64_t size GUARDED_BY(lock) = 0;  // body length
    double date GUARDED_BY(lock) = 0;
    bool validated GUARDED_BY(lock) = false;
    std::map<std::string, double, std::less<>> references GUARDED_BY(lock);  // owner -> expiry
    bool large GUARDED_BY(lock) = false;
    std::string fileName GUARDED_BY(lock);  // under "cache_large/" while large
    // Counts the bodies stored, so that a bad read is not taken for a body written since.
    uint64_t version GUARDED_BY(lock) = 0;
    // Dropped from the cache: whoever holds the entry must look the URL up again.
    bool removed GUARDED_BY(lock) = false;
};

class Cache : public MetaStore {
  public:
    static constexpr const char* kDirectory = "cache/";
    static constexpr const char* kLargeDirectory = "cache_large/";
    static constexpr const char* kConfigKey = "config";
    static constexpr const char* kMetaPrefix = "meta/";
    static constexpr const char* kResourcePrefix = "res/";
    // Bodies up to this many bytes stay in the database; longer ones become files.
    static constexpr uint64_t kLargeThreshold = 3145728;

    // The instance, opened under the root that is set at first use. Opening loads the keys of
    // every entry, creates ModuleCache and UniApp, sends "Ferrit.CacheInit" (the 9997 of a failed
    // first open, "resCount", "resSize", "UniAppCount", "UniAppSize", "ModuleCacheCount",
    // "ModuleCacheSize", "smallDiskSize", "largeDiskSize", "time") and logs "init".
    static Cache& instance();

    // The body of `url`, or null: 1101 when the URL is unknown; 1102 when its metadata is not an
    // object, its body does not read or decode, or its CRC-32 differs. A URL whose record or body
    // is bad is dropped on sight, so that the next read is a clean miss. A non-empty `owner` is
    // added as a reference (expiry 0) when it is new. Success clears `error`.
    std::unique_ptr<CachedResource> read(std::string_view url, std::string_view owner,
                                         Error& error);
    // Stores `resource` for `url` under `owner` with the resource's expiry. An entry that is
    // validated and not older keeps its content unless `forceOverwrite` is set; a body with the
    // same MD5 only makes the entry validated. A body that differs from the stored one is written
    // all the same, and `error` then holds 1010 with the first difference, while the result is
    // true. False (with 9997, 1104 or a file error) when the body could not be stored; the entry
    // then keeps its former content.
    bool write(std::string_view url, std::string_view owner, const CachedResource& resource,
               Error& error);
    // Raises the expiry of `owner`'s reference (adding it when new); the metadata is written only
    // when that changed anything. Nothing for an unknown URL.
    void touch(std::string_view url, std::string_view owner, double expiry);
    // Drops `owner`'s reference; the content goes with the last one.
    void removeReference(std::string_view url, std::string_view owner);
    // {"s": size, "e": largest expiry, "v": validated} for the developer tool, or the JSON null.
    MarlLogger::json::JSON metaJson(std::string_view url);
    // The consistency pass after a cleanup: entries without an owner or without content go, then
    // bodies and files that no entry names, and the stored total is set to the sum of the sizes.
    void sync();
    // Empties the cache (and ModuleCache's list).
    void clear();

    // Database plus "cache_large/".
    uint64_t diskSize() const override;
    // Bytes of the large bodies alone.
    uint64_t largeDiskSize() const;
    // The sum of the entry sizes as this process has counted it; sync() makes it exact.
    int64_t totalSize() const { return totalSize_.load(std::memory_order_acquire); }
    // Entries known, loaded or not.
    size_t entryCount() const;

    // The file that holds the body of a large entry.
    static Folder largeFile(std::string_view url);

  private:
    friend class StoreInstance<Cache>;
    using EntryPtr = std::shared_ptr<CacheEntry>;
    struct Hash {
        using is_transparent = void;
        size_t operator()(std::string_view text) const {
            return std::hash<std::string_view>()(text);
        }
    };
    using EntryMap = std::unordered_map<std::string, EntryPtr, Hash, std::equal_to<>>;

    Cache();
    void openAndReport();
    void close();

    // The entry of `url`, parsed on first use; null with 1101 when unknown, or with 1102 when its
    // metadata is not an object (it is then dropped with its content).
    EntryPtr loadEntry(std::string_view url, Error& error) REQUIRES(lock_);
    // The entry of `url`, made and entered when unknown (`existed` false then).
    EntryPtr entryForWrite(std::string_view url, bool& existed) REQUIRES(lock_);
    // Adds `owner` with `expiry`, or raises its expiry; true when that changed anything.
    static bool addReference(CacheEntry& entry, std::string_view owner, double expiry)
        REQUIRES(entry.lock);
    static double largestExpiry(const CacheEntry& entry) REQUIRES(entry.lock);
    // Puts "meta/" + url; a failure is logged ("writeMeta") and otherwise ignored.
    void writeMeta(const CacheEntry& entry) REQUIRES(entry.lock);
    // Reads the body document into `out` (crc, md5, trigger, body and headers); false with the
    // error when it does not read or decode, or is not an object with a string "c". `md5Type`,
    // when given, receives the type "m" was stored as.
    bool readBody(const CacheEntry& entry, CachedResource& out, Error& error,
                  MarlLogger::json::Type* md5Type = nullptr) const REQUIRES(entry.lock);
    // Whether `resource` has the MD5 of the stored body: then the entry is validated (its meta
    // written) and nothing need be stored. Otherwise `error` gets the first difference (1010,
    // logged) when there is a stored body to compare with.
    bool agreesWithStored(CacheEntry& entry, const CachedResource& resource, Error& error)
        REQUIRES(entry.lock);
    // Deletes the metadata, the body and the file of `url`.
    void eraseStored(std::string_view url);
    // Takes out an entry whose body at `version` was bad: its size leaves the total, and it is
    // erased from the map and the store, unless a body was written since.
    void drop(const EntryPtr& entry, uint64_t version);
    void addToTotal(int64_t delta);
    void saveTotal();

    mutable Mutex lock_;
    EntryMap entries_ GUARDED_BY(lock_);
    std::atomic<int64_t> totalSize_{0};
    // Each save reads the total inside it, so that the last one stores the latest value whatever
    // order concurrent writers finish in.
    Mutex saveMutex_;
    // The "cache_large/" folder under the root of this opening.
    Folder largeFolder_;
};

}  // namespace FerritCore
