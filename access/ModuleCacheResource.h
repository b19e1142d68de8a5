// ModuleCacheResource: a module file answered by ModuleCache. Its cached copy must not have
// expired: an expired copy stays loaded only so that its validators can revalidate it, and the
// part then needs a fetch of its own. Threading as CacheResource.
#pragma once

#include <memory>
#include <string>

#include "access/CacheResource.h"

namespace FerritCore {

class ModuleCacheResource : public CacheResource {
  public:
    // `url` is the module's URL without its scheme, the key of ModuleCache.
    ModuleCacheResource(std::shared_ptr<RequestContext> context, std::string url);

    // Reads ModuleCache once; an expired copy is 3115. Sends "Ferrit.CacheVisit".
    bool readCached() override;
    // "moduleCacheCheckMD5", and this part's own flag.
    bool shouldCheckMD5() const override;
    // Takes the expiry from the answer's cache headers and stores the body in ModuleCache, which
    // refuses one that is already stale (3115).
    void storeResponse(const HeaderMap& header, CachedResource& record, Error& error) override;
    void logUpdate(int level, const Error& error) override;

    // Cleared by a caller that asks for a body whose digest it does not want checked.
    bool checkMD5 = true;
};

using ModuleCachePart = ModuleCacheResource;

}  // namespace FerritCore
