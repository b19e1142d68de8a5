// ModuleCache: the owner in Cache of module files fetched one at a time or in aggregate requests,
// which the matcher serves for the URLs that it holds. A stored module must still be fresh: an
// expired one is refused, and the copy held before is let go. Any thread (see HotCache).
#pragma once

#include "storage/HotCache.h"
#include "storage/StoreInstance.h"

namespace FerritCore {

class ModuleCache : public HotCache {
  public:
    static constexpr const char* kName = "ModuleCache";
    static constexpr const char* kKey = "ModuleCache";

    // The instance, with its list loaded at first use. Its size limit is "moduleCacheMaxSizeOpt",
    // else "moduleCacheMaxSize", else 52428800 bytes; its hot part at least
    // "moduleCacheMinHotSize" (100) long.
    static ModuleCache& instance();

    // A resource whose expiry is not later than now is refused with 3115 and takes the URL off
    // the list, letting go of what was stored for it. Otherwise as HotCache::store.
    bool update(std::string_view url, const CachedResource& resource, Error& error) override;

  protected:
    int64_t maxSizeSetting() const override;
    uint64_t minHotCountSetting() const override;

  private:
    friend class StoreInstance<ModuleCache>;
    ModuleCache();
    using HotCache::close;
    using HotCache::openAndReport;
};

}  // namespace FerritCore
