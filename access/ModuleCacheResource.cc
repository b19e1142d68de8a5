#include "access/ModuleCacheResource.h"

#include "base/Errors.h"
#include "base/Http.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "runtime/Settings.h"
#include "storage/ModuleCache.h"

namespace FerritCore {

ModuleCacheResource::ModuleCacheResource(std::shared_ptr<RequestContext> context, std::string url)
    : CacheResource(std::move(context), std::move(url), ModuleCache::kName, ModuleCache::kName) {}

bool ModuleCacheResource::readCached() {
    if (error) return false;
    if (cached()) return true;
    Error readError;
    std::unique_ptr<CachedResource> resource = ModuleCache::instance().read(url, readError);
    const ModuleCache& cache = ModuleCache::instance();
    if (readError && !Errors::isFileMissing(readError)) {
        MarlLogger::LogBuilder log(MarlLogger::MRLLevelError, cache.tag());
        if (log.active()) log.event("read").append("url", url).error(readError);
    }
    if (!resource) {
        error = readError ? readError : Errors::storeNotExists(Cache::kDirectory, url);
    } else if (resource->expires < MRLCurrentTime()) {
        error = Errors::resourceExpired(resource->expires, resource->date);
        MarlLogger::LogBuilder log(MarlLogger::MRLLevelWarning, cache.tag());
        if (log.active()) log.event("read").append("url", url).error(error);
    }
    sendVisit(resource.get());
    // An expired copy stays: its validators let the fetch that follows revalidate it.
    if (resource) setCached(std::move(resource));
    return !error;
}

bool ModuleCacheResource::shouldCheckMD5() const {
    return checkMD5 && Settings::current()->moduleCacheCheckMD5Value();
}

void ModuleCacheResource::storeResponse(const HeaderMap& header, CachedResource& record,
                                        Error& error) {
    record.expires = static_cast<double>(Http::parseExpires(header));
    (void)ModuleCache::instance().update(url, record, error);
}

void ModuleCacheResource::logUpdate(int level, const Error& failure) {
    MarlLogger::LogBuilder log(level, ModuleCache::instance().tag());
    if (log.active()) log.event("update", traceId()).append("url", url).error(failure);
}

}  // namespace FerritCore
