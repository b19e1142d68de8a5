#include "access/CacheResource.h"

#include <algorithm>

#include "base/Digest.h"
#include "base/Environment.h"
#include "base/Errors.h"
#include "base/Http.h"
#include "base/Telemetry.h"
#include "base/Url.h"
#include "marl/Clock.h"
#include "runtime/Network.h"
#include "runtime/Settings.h"
#include "runtime/TaskRunner.h"
#include "support/Ascii.h"

namespace FerritCore {
namespace {

// Status of an answer that confirms the validators sent with it.
constexpr uint16_t kNotModified = 304;
// Bytes of an MD5 digest.
constexpr size_t kMd5Bytes = 16;

// The names that a "Vary" value lists, trimmed.
std::vector<std::string> varyNames(std::string_view vary) {
    std::vector<std::string> names;
    while (!vary.empty()) {
        const size_t comma = vary.find(',');
        std::string_view name = vary.substr(0, comma);
        while (!name.empty() && (name.front() == ' ' || name.front() == '\t'))
            name.remove_prefix(1);
        while (!name.empty() && (name.back() == ' ' || name.back() == '\t')) name.remove_suffix(1);
        if (!name.empty()) names.emplace_back(name);
        if (comma == std::string_view::npos) break;
        vary.remove_prefix(comma + 1);
    }
    return names;
}

bool isKeptName(std::string_view name) {
    for (const Http::HeaderId id : {Http::kAccessControlAllowOrigin, Http::kContentType,
                                    Http::kETag, Http::kLastModified, Http::kVary}) {
        if (Ascii::equalsIgnoreCase(Http::headerName(id), name)) return true;
    }
    return false;
}

// "Content-MD5" as lower-case hexadecimal, or empty when it is not base64 of 16 bytes.
std::string md5HexOf(std::string_view contentMd5) {
    std::string raw;
    if (!Digest::base64Decode(contentMd5, raw) || raw.size() != kMd5Bytes) return std::string();
    return Ascii::hex(raw);
}

}  // namespace

CacheResource::CacheResource(std::shared_ptr<RequestContext> context, std::string url,
                             std::string name, std::string label)
    : ResourcePart(std::move(context), std::move(url), std::move(name)), label(std::move(label)) {
    // The part reads the request's scheme and headers after the match, when it fetches or judges
    // a copy by "Vary": the context must keep them past the request.
    this->context->keep();
}

std::shared_ptr<const CachedResource> CacheResource::cached() const {
    MutexLock lock(lock_);
    return cached_;
}

void CacheResource::setCached(std::shared_ptr<const CachedResource> resource) {
    MutexLock lock(lock_);
    cached_ = std::move(resource);
}

bool CacheResource::cachedIsValidated() const {
    MutexLock lock(lock_);
    return cached_ && cached_->validated;
}

uint64_t CacheResource::size() const {
    MutexLock lock(lock_);
    return cached_ ? cached_->body.size() : 0;
}

std::string CacheResource::md5() const {
    MutexLock lock(lock_);
    return cached_ ? cached_->md5 : std::string();
}

HeaderMap CacheResource::header() const {
    std::shared_ptr<const CachedResource> resource = cached();
    if (!resource) return {};
    // The request values that "Vary" names are kept to judge later requests by; they are not
    // headers of the response.
    HeaderMap header = resource->headers;
    for (const std::string& name :
         varyNames(Http::headerValue(header, Http::headerName(Http::kVary)))) {
        if (!isKeptName(name)) Http::removeHeader(header, name);
    }
    return header;
}

void CacheResource::appendTo(std::string& out, unsigned& crc) {
    MutexLock lock(lock_);
    if (!cached_) {
        crc = 0;
        return;
    }
    out.append(cached_->body);
    crc = cached_->crc != 0 ? cached_->crc : Digest::crc32(cached_->body);
}

void CacheResource::storeResponse(const HeaderMap&, CachedResource&, Error&) {}

std::string CacheResource::fetchUrl() const {
    std::string_view scheme = context->scheme();
    // A request without a scheme of its own is fetched over https.
    if (scheme.empty() || scheme == "//") scheme = "https://";
    std::string result(scheme);
    result.append(url);
    return result;
}

void CacheResource::sendVisit(const CachedResource* resource) const {
    if (!Environment::instance().takesEvents()) return;
    PerfRecord record("Ferrit.CacheVisit");
    if (error) record.setError(error);
    record.setDimension("name", name);
    record.setDimension("trigger", triggerName(context->trigger));
    record.setMeasure("matchTime", resource ? resource->matchTime : 0);
    record.setMeasure("readTime", resource ? resource->readTime : 0);
    sendEvent(record);
}

ReadStatus CacheResource::read() {
    if (readCached()) {
        if (!cachedIsValidated()) validateLater();
        return ReadStatus::Done;
    }
    return Errors::isOutOfDate(error) ? ReadStatus::NeedFetch : ReadStatus::NeedAggregate;
}

void CacheResource::readAsync(std::function<void(std::shared_ptr<ResourcePart>)> callback) {
    if (!callback) return;
    if (readCached()) {
        if (!cachedIsValidated()) validateLater();
        callback(shared_from_this());
        return;
    }
    fetch(Errors::isOutOfDate(error), std::move(callback));
}

bool CacheResource::accept(const HeaderMap& header, const std::string& content, Error& error) {
    // A body delivered by a batch: the batch's own request is timed by the aggregate request,
    // so this part's update starts and ends here.
    const double now = MRLCurrentClock();
    return take(header, content, error, /*ownError=*/true, FetchTimes{now, now, now, now});
}

void CacheResource::sendUpdate(const FetchTimes& times, size_t downloadSize,
                               size_t resourceSize) const {
    if (!Environment::instance().takesEvents()) return;
    const double stored = MRLCurrentClock();
    StagedRecord record("Ferrit.CacheUpdate");
    record.setDimension("url", url);
    record.setDimension("name", name);
    record.setDimension("trigger", triggerName(context->trigger));
    // A cached resource is always fetched whole.
    record.setDimension("incr", "false");
    // No notification starts a cache update: a read does.
    record.setMeasure("notificationDelay", 0);
    record.setMeasure("queueDelay", times.started - times.decided);
    record.setMeasure("configTime", times.sent - times.started);
    record.setMeasure("downlodTime", times.received - times.sent);
    record.setMeasure("downloadSize", static_cast<double>(downloadSize));
    record.setMeasure("updateTime", stored - times.received);
    record.setMeasure("resourceSize", static_cast<double>(resourceSize));
    record.setMeasure("updateDelay", stored - times.decided);
    sendEvent(record);
}

bool CacheResource::take(const HeaderMap& header, const std::string& content, Error& failure,
                         bool ownError, const FetchTimes& times) {
    failure.clear();
    const std::string digest = Digest::md5Hex(content);
    bool verified = false;
    if (shouldCheckMD5()) {
        const std::string_view expected =
            Http::headerValue(header, Http::headerName(Http::kContentMD5));
        if (!expected.empty()) {
            // A digest that is not base64 of 16 bytes can vouch for nothing: it is a difference.
            std::string expectedHex = md5HexOf(expected);
            if (expectedHex.empty()) expectedHex = std::string(expected);
            if (expectedHex != digest) {
                failure = Errors::requestVerifyMd5(fetchUrl(), digest, expectedHex);
                if (ownError) error = failure;
                logUpdate(MarlLogger::MRLLevelError, failure);
                return false;
            }
            verified = true;
        }
    }
    auto record = std::make_shared<CachedResource>();
    record->crc = Digest::crc32(content);
    record->md5 = digest;
    record->trigger = static_cast<uint32_t>(context->trigger);
    record->date = CachedResource::dateOf(header);
    record->validated = verified;
    record->expires = static_cast<double>(Http::parseExpires(header));
    record->body = content;
    record->headers = CachedResource::keptHeaders(header);
    // A response that varies by request headers is kept with the values of the request that
    // selected it, so that a later request can be judged by them.
    for (const std::string& name :
         varyNames(Http::headerValue(record->headers, Http::headerName(Http::kVary)))) {
        if (isKeptName(name)) continue;
        Http::setHeader(record->headers, name, Http::headerValue(context->header(), name));
    }
    // Stored before it is published: the subclass may still adjust the record.
    storeResponse(header, *record, failure);
    const size_t resourceSize = record->body.size();
    setCached(std::move(record));
    if (ownError) error.clear();
    if (failure) {
        logUpdate(MarlLogger::MRLLevelError, failure);
    } else {
        sendUpdate(times, content.size(), resourceSize);
    }
    return !failure;
}

void CacheResource::fetch(bool revalidate, Callback callback) {
    std::shared_ptr<const CachedResource> current = cached();
    HeaderMap validators;
    if (revalidate && current && Settings::current()->cacheValidationEnabledValue()) {
        const std::string_view etag =
            Http::headerValue(current->headers, Http::headerName(Http::kETag));
        if (!etag.empty()) {
            Http::setHeader(validators, Http::headerName(Http::kIfNoneMatch), etag);
        } else {
            Http::setHeader(
                validators, Http::headerName(Http::kIfModifiedSince),
                Http::headerValue(current->headers, Http::headerName(Http::kLastModified)));
        }
    }
    const bool allowNotModified = !validators.empty();
    auto self = std::static_pointer_cast<CacheResource>(shared_from_this());
    const std::string target = fetchUrl();
    const double now = MRLCurrentClock();
    FetchTimes times{now, now, now, 0};
    Network::requestResource(
        target, traceId(), validators, allowNotModified,
        [self, target, current, times, callback = std::move(callback)](ProxyResponse response,
                                                                       Error failure) mutable {
            times.received = MRLCurrentClock();
            if (failure) {
                self->error = failure;
                self->logUpdate(MarlLogger::MRLLevelError, failure);
                callback(self);
                return;
            }
            if (response.statusCode == kNotModified) {
                if (!current) {
                    self->error = Errors::requestInvalidStatus(target, kNotModified);
                    callback(self);
                    return;
                }
                // The copy is confirmed: it stays, with the expiry that the answer gives it now.
                auto confirmed = std::make_shared<CachedResource>(*current);
                confirmed->expires = static_cast<double>(Http::parseExpires(response.header));
                Error stored;
                self->storeResponse(response.header, *confirmed, stored);
                if (stored) self->logUpdate(MarlLogger::MRLLevelError, stored);
                self->setCached(std::move(confirmed));
                self->error.clear();
                callback(self);
                return;
            }
            Error refusal;
            self->take(response.header, response.content, refusal, /*ownError=*/true, times);
            callback(self);
        });
}

void CacheResource::validateLater() {
    if (!Settings::current()->cacheValidationEnabledValue()) return;
    auto self = std::static_pointer_cast<CacheResource>(shared_from_this());
    // Taken now, on the request's thread, which is the one that owns the context.
    std::string target = fetchUrl();
    std::string trace = traceId();
    const double decided = MRLCurrentClock();
    TaskRunner::post([self, target = std::move(target), trace = std::move(trace), decided] {
        const double started = MRLCurrentClock();
        FetchTimes times{decided, started, MRLCurrentClock(), 0};
        Network::requestResource(target, trace, HeaderMap(), /*allow304=*/false,
                                 [self, times](ProxyResponse response, Error failure) mutable {
                                     times.received = MRLCurrentClock();
                                     if (failure) {
                                         self->logUpdate(MarlLogger::MRLLevelWarning, failure);
                                         return;
                                     }
                                     Error refusal;
                                     self->take(response.header, response.content, refusal,
                                                /*ownError=*/false, times);
                                 });
    });
}

}  // namespace FerritCore
