// UniAppResource: a resource of a UniApp pack answered by UniApp. Its cached copy must suit the
// request: its "Content-Type" must be one the request's "Accept" takes, and every request header
// that its "Vary" names must have the value the copy was fetched with. A copy that does not suit
// is refused, and the body fetched instead replaces it whatever the dates say. Threading as
// CacheResource.
#pragma once

#include <memory>
#include <string>

#include "access/CacheResource.h"

namespace FerritCore {

class UniAppResource : public CacheResource {
  public:
    // `url` is the resource's URL without its scheme; the part's name is "U:<name>@<version>".
    UniAppResource(std::shared_ptr<RequestContext> context, std::string url,
                   const std::string& packName, const std::string& packVersion);

    // Reads UniApp once and runs the acceptance test (3116). Sends "Ferrit.CacheVisit".
    bool readCached() override;
    // "uniAppCheckMD5".
    bool shouldCheckMD5() const override;
    // Stores the body in UniApp, replacing a refused copy whatever its date.
    void storeResponse(const HeaderMap& header, CachedResource& record, Error& error) override;
    void logUpdate(int level, const Error& error) override;

    // Whether `resource` suits this request; 3116 when it does not.
    bool acceptable(const CachedResource& resource, Error& error);

    // Set once a cached copy was refused, so that the next store replaces it.
    bool forceOverwrite = false;
    const std::string packName;
};

using UniAppPart = UniAppResource;

}  // namespace FerritCore
