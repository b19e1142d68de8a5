#include "ferritcore/Access.h"

#include "access/CacheMatch.h"
#include "access/Matcher.h"
#include "access/PackPart.h"
#include "access/Resource.h"
#include "access/UpdateRequester.h"
#include "base/Environment.h"
#include "base/Errors.h"
#include "base/Http.h"
#include "base/LogTags.h"
#include "base/Recycled.h"
#include "base/Telemetry.h"
#include "base/Url.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "model/SCache.h"
#include "runtime/Settings.h"

namespace FerritCore {
namespace {

using MarlLogger::json::JSON;
using MarlLogger::json::JSONObject;

// The levels of the "match" event: a URL that a source answers, and one that nothing serves.
constexpr MarlLogger::MRLLevel kHitLevel = MarlLogger::MRLLevelInfo;
constexpr MarlLogger::MRLLevel kMissLevel = MarlLogger::MRLLevelDebug;
static_assert(kMissLevel > kHitLevel, "a miss is logged less severely than a hit");

// {"errorCode": c, "errorMsg": m} for a part with an error, {"name": n} otherwise.
JSON partInfo(const ResourcePart& part) {
    if (part.error)
        return JSONObject{{"errorCode", part.error.code()}, {"errorMsg", part.error.message()}};
    return JSONObject{{"name", part.name}};
}

// The "match" event. Its level is known only at the end (a URL that nothing serves is logged at
// a lower level), so the fields are gathered only when some level of it can be written, and the
// entry is built once, at the end. A miss is the host's everyday business, not a fault: at the
// default level (warnings) neither a hit nor a miss is gathered or written.
class MatchLog {
  public:
    MatchLog(const Resource& resource, const ResourceRequest& request, int policy)
        : resource_(resource),
          request_(request),
          policy_(policy),
          // A miss is logged at the less severe level of the two: when that is written, so is
          // the other.
          active_(MarlLogger::Log::enabled(kHitLevel)) {}

    bool active() const { return active_; }
    void add(std::string_view key, JSON value) {
        if (active_) extra_.set(std::string(key), std::move(value));
    }
    void finish(const char* how, const ResourcePart& part, bool lowerWhenNotServed) {
        if (!active_) return;
        const int level =
            lowerWhenNotServed && Errors::isNotServed(part.error) ? kMissLevel : kHitLevel;
        MarlLogger::LogBuilder log(level, resource_.logTag);
        if (!log.active()) return;
        appendRequest(log);
        log.append("match", how);
        if (!part.name.empty()) log.append("name", part.name);
        if (part.error) log.error(part.error);
        log.append("matchTime", resource_.matchTime);
    }
    // What every "match" line says of the request, before what the match found.
    void appendRequest(MarlLogger::LogBuilder& log) const {
        log.event("match", request_.parentId)
            .id(resource_.context->traceId())
            .append("url", request_.url)
            .append("referrer", request_.referrer)
            .append("accept", resource_.context->accept());
        if (policy_ == kPolicyAsync) log.append("policy", "async");
        if (request_.isUniApp())
            log.append("UniApp", request_.packName).append("UniAppVersion", request_.packVersion);
        for (const auto& [key, value] : extra_) log.append(key, value);
    }
    // The end of a match whose answer is several parts: no single name or error to tell.
    void finishCombo() {
        if (!active_) return;
        MarlLogger::LogBuilder log(kHitLevel, resource_.logTag);
        if (!log.active()) return;
        appendRequest(log);
        log.append("match", "COMBO").append("matchTime", resource_.matchTime);
    }

  private:
    const Resource& resource_;
    const ResourceRequest& request_;
    int policy_;
    bool active_;
    JSONObject extra_;
};

// Why a URL that nothing serves might be served once start-up has gone further, or null when
// start-up has gone far enough for a miss to be a miss. Asked on a miss only.
const char* startupPending() {
    Environment& environment = Environment::instance();
    if (!SCache::loaded()) {
        return environment.proxy() ? "the stored configuration is still loading"
                                   : "no proxy: setProxy not called";
    }
    const uint32_t flags = environment.flags();
    // A sub process reads what the main process configured, and never updates by itself.
    if (!environment.isMainProcess() || (flags & kConfigFirstUpdated)) return nullptr;
    // A configuration that this root once received says what is served, setup or not.
    if (SCache::Snapshot()->version != "0") return nullptr;
    return (flags & kSetupDone) ? "the first configuration has not arrived yet"
                                : "setup not called";
}

}  // namespace

std::shared_ptr<Resource> Access::match(const ResourceRequest& request, int policy) {
    auto context = makeRecycled<RequestContext>(request, kTriggerVisit);
    auto resource = makeRecycled<Resource>(context, request.parentId, request.isUniApp());
    MatchLog log(*resource, request, policy);
    // The request may go once the match is made.
    struct Detach {
        RequestContext& context;
        ~Detach() { context.detach(); }
    } detach{*context};

    // The URL's key becomes the part's URL; the referrer's is only looked up, in a buffer that
    // the thread keeps.
    std::string keyUrl = Url::key(context->url());
    thread_local std::string keyReferrer;
    Url::keyInto(request.referrer, keyReferrer);
    const std::string& accept = context->accept();

    // Referrer and exact URL.
    int kind = kMatchNone;
    std::shared_ptr<PackPart> part;
    if (std::shared_ptr<PackMatch> found = findByUrl(keyUrl, keyReferrer, &kind)) {
        part = makeRecycled<PackPart>(context, keyUrl, std::move(found));
        if (!part->error || !part->isMissing()) {
            // Served, or the pack knows the URL but cannot serve it: either way this is the answer.
            resource->addPart(part, kind);
            log.finish("referrer", *part, false);
            return resource;
        }
        log.add("referrerInfo", partInfo(*part));
    }

    // Prefix, unless the referrer stage built an SCache claim.
    if (!part || kind == kMatchNone) {
        std::shared_ptr<PackMatch> found = findByPrefix(keyUrl, accept);
        part = makeRecycled<PackPart>(context, std::move(keyUrl), std::move(found));
        if (!part->error) {
            resource->addPart(part, kind);
            log.finish("prefix", *part, false);
            return resource;
        }
    }

    // The remaining stages: aggregate URLs, UniApp and ModuleCache; when none answers, the prefix
    // stage's answer stands.
    log.add("prefixInfo", partInfo(*part));
    const std::shared_ptr<const Settings> settings = Settings::current();
    if (!settings->moduleCacheEnabledValue()) log.add("ModuleCache", "disabled");
    if (!settings->uniAppEnabledValue()) log.add("UniApp", "disabled");
    if (const char* how = matchCacheStages(
            *resource, request, policy, keyReferrer, *settings,
            [&log](std::string_view key, JSON value) { log.add(key, std::move(value)); })) {
        if (resource->isCombo) {
            log.finishCombo();
        } else {
            log.finish(how, *resource->parts.front(), false);
        }
        return resource;
    }

    if (Errors::isNotFerritResource(part->error)) {
        if (const char* step = startupPending()) part->error = Errors::notSetUpYet(step);
    }
    resource->addPart(part, kind);
    log.finish("prefix", *part, true);
    return resource;
}

std::unique_ptr<ResourceResponse> Access::getResource(const ResourceRequest& request) {
    if (request.url.empty())
        return std::make_unique<ResourceResponse>(Errors::notFerritResourceRef());
    if (Http::isDisabled(request.header()))
        return std::make_unique<ResourceResponse>(Errors::disabledByHeaderRef());
    std::shared_ptr<Resource> resource = match(request, kPolicySync);
    std::string data;
    if (!resource->error) data = resource->read();
    return std::make_unique<ResourceResponse>(std::move(resource), std::move(data));
}

void Access::getResource(const ResourceRequest& request,
                         std::function<void(std::unique_ptr<ResourceResponse>)> callback) {
    if (!callback) return;
    if (request.url.empty()) {
        callback(std::make_unique<ResourceResponse>(Errors::notFerritResourceRef()));
        return;
    }
    if (Http::isDisabled(request.header())) {
        callback(std::make_unique<ResourceResponse>(Errors::disabledByHeaderRef()));
        return;
    }
    std::shared_ptr<Resource> resource = match(request, kPolicyAsync);
    if (resource->error) {
        callback(std::make_unique<ResourceResponse>(resource, std::string()));
        return;
    }
    std::shared_ptr<Resource> reading = resource;
    reading->readAsync([resource = std::move(resource), callback = std::move(callback)](
                           const std::string& data, const Error& error) {
        // A failure here takes is404 from the SCache hit, not from the match: the host then
        // answers 404 for a file that an SCache pack claims but could not deliver.
        if (error) {
            callback(std::make_unique<ResourceResponse>(resource, error, resource->isSCacheHit));
        } else {
            callback(std::make_unique<ResourceResponse>(resource, data));
        }
    });
}

void Access::prefetch(const std::vector<std::string>& urls) {
    if (std::shared_ptr<UpdateRequester> requester = UpdateRequester::current()) {
        requester->prefetch(urls);
        return;
    }
    // Nothing updates in this process (nothing was wired, as before setup).
    MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, LogTag::kPrefetch)
        .event("trigger")
        .append("count", static_cast<uint64_t>(urls.size()))
        .error(Errors::updateDisabled());
}

}  // namespace FerritCore
