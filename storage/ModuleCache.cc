#include "storage/ModuleCache.h"

#include "base/Errors.h"
#include "base/LogTags.h"
#include "marl/Clock.h"
#include "runtime/Settings.h"

namespace FerritCore {

ModuleCache::ModuleCache() : HotCache(kName, kKey, LogTag::kModuleCache) {}

ModuleCache& ModuleCache::instance() {
    return StoreInstance<ModuleCache>::get();
}

int64_t ModuleCache::maxSizeSetting() const {
    return static_cast<int64_t>(Settings::current()->moduleCacheMaxSizeValue());
}

uint64_t ModuleCache::minHotCountSetting() const {
    return Settings::current()->moduleCacheMinHotSizeValue();
}

bool ModuleCache::update(std::string_view url, const CachedResource& resource, Error& error) {
    if (!(resource.expires > MRLCurrentTime())) {
        // A module that is stale on arrival is not kept, and neither is the older copy.
        if (list().remove(url)) Cache::instance().removeReference(url, name());
        error = Errors::resourceExpired(resource.expires, resource.date);
        return false;
    }
    return store(url, resource, error);
}

}  // namespace FerritCore
