#include "access/UniAppResource.h"

#include "base/Errors.h"
#include "base/Http.h"
#include "marl/Log.h"
#include "runtime/Settings.h"
#include "storage/UniApp.h"

namespace FerritCore {

UniAppResource::UniAppResource(std::shared_ptr<RequestContext> context, std::string url,
                               const std::string& packName, const std::string& packVersion)
    : CacheResource(std::move(context), std::move(url), "U:" + packName + "@" + packVersion,
                    UniApp::kName),
      packName(packName) {}

bool UniAppResource::acceptable(const CachedResource& resource, Error& failure) {
    const std::string_view contentType =
        Http::headerValue(resource.headers, Http::headerName(Http::kContentType));
    if (!contentType.empty() && !Http::accepts(context->acceptTypes(), contentType)) {
        failure = Errors::notAcceptable(url, contentType, context->accept());
        return false;
    }
    std::string_view vary = Http::headerValue(resource.headers, Http::headerName(Http::kVary));
    while (!vary.empty()) {
        const size_t comma = vary.find(',');
        std::string_view name = vary.substr(0, comma);
        while (!name.empty() && name.front() == ' ') name.remove_prefix(1);
        while (!name.empty() && name.back() == ' ') name.remove_suffix(1);
        if (!name.empty()) {
            const std::string_view kept = Http::headerValue(resource.headers, name);
            const std::string_view asked = Http::headerValue(context->header(), name);
            if (kept != asked) {
                failure = Errors::notAcceptable(url, kept, asked);
                return false;
            }
        }
        if (comma == std::string_view::npos) break;
        vary.remove_prefix(comma + 1);
    }
    return true;
}

bool UniAppResource::readCached() {
    if (error) return false;
    if (cached()) return true;
    Error readError;
    std::unique_ptr<CachedResource> resource = UniApp::instance().read(url, readError);
    const UniApp& cache = UniApp::instance();
    if (readError && !Errors::isFileMissing(readError)) {
        MarlLogger::LogBuilder log(MarlLogger::MRLLevelError, cache.tag());
        if (log.active()) log.event("read").append("url", url).error(readError);
    }
    if (!resource) {
        error = readError ? readError : Errors::storeNotExists(Cache::kDirectory, url);
    } else if (!acceptable(*resource, error)) {
        // The copy that does not suit is replaced by the next store, whatever its date.
        forceOverwrite = true;
        MarlLogger::LogBuilder log(MarlLogger::MRLLevelError, cache.tag());
        if (log.active())
            log.event("read").append("url", url).append("name", packName).error(error);
    }
    sendVisit(resource.get());
    if (resource && !error) setCached(std::move(resource));
    return !error;
}

bool UniAppResource::shouldCheckMD5() const {
    return Settings::current()->uniAppCheckMD5Value();
}

void UniAppResource::storeResponse(const HeaderMap&, CachedResource& record, Error& error) {
    record.forceOverwrite = forceOverwrite;
    (void)UniApp::instance().update(url, record, error);
}

void UniAppResource::logUpdate(int level, const Error& failure) {
    MarlLogger::LogBuilder log(level, UniApp::instance().tag());
    if (log.active())
        log.event("update", traceId()).append("url", url).append("name", packName).error(failure);
}

}  // namespace FerritCore
