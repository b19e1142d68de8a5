#include "ferritcore/ResourceResponse.h"

#include <cmath>
#include <set>

#include "access/Resource.h"
#include "base/Http.h"
#include "ferritcore/ResourceRequest.h"
#include "marl/Clock.h"
#include "marl/Log.h"

namespace FerritCore {
namespace {

// The "Date" of a response made now. The text changes once a second while a busy host answers
// thousands of requests in it, so each thread keeps the text of the last second it formatted.
std::string currentDate() {
    struct Cached {
        double second = -1;
        std::string text;
    };
    thread_local Cached cached;
    const double now = MRLCurrentTime();
    const double second = std::floor(now / 1000.0);
    if (second != cached.second) {
        cached.text = Http::httpDate(now);
        cached.second = second;
    }
    return cached.text;
}

// "Cache-Control", "Via", "Date" and "X-Ferrit-Info" of a response built from a Resource.
HeaderMap responseHeader(const Resource& resource) {
    HeaderMap header;
    if (!resource.error && !resource.parts.empty()) {
        header = resource.parts.front()->header();
        header[Http::headerName(Http::kCacheControl)] = "no-store";
        static constexpr std::string_view kViaPrefix = "Ferrit/" FERRIT_CORE_VERSION ",";
        std::string via;
        if (resource.parts.size() == 1) {
            // Sized once: the usual answer names one part.
            const std::string& name = resource.parts.front()->name;
            via.reserve(kViaPrefix.size() + name.size());
            via.append(kViaPrefix).append(name);
        } else {
            via = kViaPrefix.substr(0, kViaPrefix.size() - 1);
            std::set<std::string_view> names;
            for (const auto& part : resource.parts) names.insert(part->name);
            for (std::string_view name : names) via.append(",").append(name);
        }
        header[Http::headerName(Http::kVia)] = std::move(via);
    }
    header[Http::headerName(Http::kDate)] = currentDate();
    const unsigned code = static_cast<unsigned>(resource.error.code());
    std::string info;
    if (resource.isCombo) {
        info = "COMBO@" + std::to_string(resource.parts.size()) + "," + std::to_string(code);
    } else {
        const std::string& first =
            resource.parts.empty() ? std::string() : resource.parts.front()->name;
        info.append(first).append(",").append(std::to_string(code));
    }
    header[std::string(Http::kFerritInfo)] = std::move(info);
    return header;
}

std::string singleMd5(const Resource& resource) {
    return resource.parts.size() == 1 ? resource.parts.front()->md5() : std::string();
}

}  // namespace

// ---- ResourceRequest ----

ResourceRequest::ResourceRequest(const std::string& url, const std::string& referrer)
    : url(url), referrer(referrer) {}

ResourceRequest::ResourceRequest(const std::string& url, const HeaderMap& header)
    : url(url),
      referrer(Http::headerValue(header, Http::headerName(Http::kReferer))),
      header_(header) {
    // Validators of a cached copy make no sense for content served from a pack.
    Http::removeHeader(header_, Http::headerName(Http::kETag));
    Http::removeHeader(header_, Http::headerName(Http::kLastModified));
}

bool ResourceRequest::isUniApp() const {
    return type == kResourceTypeUniApp && !packName.empty() && !packVersion.empty();
}

// ---- ResourceResponse ----

ResourceResponse::ResourceResponse(std::shared_ptr<Resource> resourcePtr,
                                   const std::string& content)
    : ResourceResponse(std::move(resourcePtr), std::string(content)) {}

ResourceResponse::ResourceResponse(std::shared_ptr<Resource> resourcePtr, std::string&& content)
    : data(std::move(content)), resource(std::move(resourcePtr)) {
    if (!resource) return;
    md5 = singleMd5(*resource);
    header = responseHeader(*resource);
    error = resource->error;
    is404 = resource->is404;
}

ResourceResponse::ResourceResponse(std::shared_ptr<Resource> resourcePtr, Error failure,
                                   bool notFound)
    : error(std::move(failure)), is404(notFound), resource(std::move(resourcePtr)) {
    if (!resource) return;
    md5 = singleMd5(*resource);
    header = responseHeader(*resource);
}

ResourceResponse::ResourceResponse(Error failure) : error(std::move(failure)) {
    header[std::string(Http::kFerritInfo)] = ",0," + std::to_string(error.code());
}

ResourceResponse::~ResourceResponse() {
    // A host that never calls setFinished has consumed the response by releasing it.
    if (resource) resource->finish();
}

void ResourceResponse::setFinished(Error finishError) {
    if (!resource) return;
    resource->lastTime = MRLCurrentClock();
    {
        MarlLogger::LogBuilder log(MarlLogger::MRLLevelInfo, resource->logTag);
        if (log.active()) {
            log.event("finish", resource->parentId).id(resource->context->traceId());
            if (finishError) log.error(finishError);
        }
    }
    resource->finish();
}

}  // namespace FerritCore
