// HotCache: what ModuleCache and UniApp share. Each is an owner of content in Cache and decides
// with a HotList which of its URLs stay: a read counts a hit, a stored body joins the list, and
// what the list evicts loses this owner's reference in Cache. The list is kept in ConfigStore under
// the cache's key as {"r": list}, written at most once a second by a task on the worker, and only
// by the main process.
//
// Threading: any thread; the list has its own lock, and no Cache lock is ever held while it is
// taken. Ownership: each instance is created and loads its list at first use, and lives until the
// process ends (see StoreInstance); ProcessState::resetForTesting cancels the pending save and
// forgets the list, and the next use loads it again.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "ferritcore/Error.h"
#include "marl/Json.h"
#include "storage/Cache.h"
#include "storage/HotList.h"

namespace FerritCore {

class HotCache {
  public:
    // After this delay a change of the list is written; further changes meanwhile share the write.
    static constexpr double kSaveDelayMs = 1000.0;

    virtual ~HotCache();
    HotCache(const HotCache&) = delete;
    HotCache& operator=(const HotCache&) = delete;

    // The owner name in Cache, also the value of "name" in records.
    const std::string& name() const { return name_; }
    // The key of the list in ConfigStore.
    const std::string& key() const { return key_; }
    const std::string& tag() const { return tag_; }

    bool contains(std::string_view url) const { return list_->contains(url); }
    // Cache::read under this owner. A miss takes the URL off the list; a hit counts on it, and
    // joins it when it was not there (then a save is scheduled). `error` as Cache::read gives it.
    std::unique_ptr<CachedResource> read(std::string_view url, Error& error);
    // Stores a fetched body under this owner; the rules of what may be stored are the cache's.
    // True when Cache::write stored it (`error` may then still hold its 1010).
    virtual bool update(std::string_view url, const CachedResource& resource, Error& error) = 0;
    // Empties the list (the content in Cache is the caller's matter) and schedules a save.
    void clear();

    uint64_t count() const { return list_->count(); }
    int64_t size() const { return list_->totalSize(); }
    HotList& list() { return *list_; }
    // Writes the list now (what the scheduled save runs); a failure is logged.
    void save();

  protected:
    HotCache(std::string name, std::string key, std::string_view tag);

    // Cache::write, then the list: the step both kinds share.
    bool store(std::string_view url, const CachedResource& resource, Error& error);
    // The list's limits, read from Settings when the list is loaded.
    virtual int64_t maxSizeSetting() const = 0;
    virtual uint64_t minHotCountSetting() const = 0;

    // StoreInstance's opening and closing of a subclass.
    void openAndReport();
    void close();

  private:
    void scheduleSave();
    void evicted(int64_t originSize, int64_t newSize, const std::vector<std::string>& urls);

    const std::string name_;
    const std::string key_;
    const std::string tag_;
    // Replaced at each opening, before any other thread can reach the instance.
    std::unique_ptr<HotList> list_;
    std::atomic<uint64_t> saveTask_{0};
};

}  // namespace FerritCore
