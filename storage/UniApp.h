// UniApp: the owner in Cache of the resources of UniApp packs, fetched one at a time. Unlike
// ModuleCache it stores what it is given whatever its expiry; what it refuses is decided on read,
// by the request's "Accept" and the cached "Vary". Any thread (see HotCache).
#pragma once

#include "storage/HotCache.h"
#include "storage/StoreInstance.h"

namespace FerritCore {

class UniApp : public HotCache {
  public:
    static constexpr const char* kName = "UniApp";
    static constexpr const char* kKey = "UniApp_list";

    // The instance, with its list loaded at first use. Its size limit is "uniAppMaxSize" when set,
    // 0 included (each new node then evicts), else 52428800 bytes; its hot part at least
    // "uniAppMinHotSize" (100) long.
    static UniApp& instance();

    // HotCache::store, whatever the expiry.
    bool update(std::string_view url, const CachedResource& resource, Error& error) override;

  protected:
    int64_t maxSizeSetting() const override;
    uint64_t minHotCountSetting() const override;

  private:
    friend class StoreInstance<UniApp>;
    UniApp();
    using HotCache::close;
    using HotCache::openAndReport;
};

}  // namespace FerritCore
