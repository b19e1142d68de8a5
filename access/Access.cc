#include "ferritcore/Access.h"

#include <atomic>

#include "access/CacheMatch.h"
#include "access/Matcher.h"
#include "access/PackPart.h"
#include "access/Resource.h"
#include "access/ResponseMemory.h"
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
    MatchLog(const Resource& resource, const ResourceRequest& request, ResourcePolicy policy)
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
    ResourcePolicy policy_;
    bool active_;
    JSONObject extra_;
};

// Another process on the same root may install a new version and retire the one this process
// still reads: its files go, and its records name a folder that is empty. A failed answer is
// therefore tried again when the configuration has moved on since the lookup began, a few times at
// most, so that an installed URL never fails because the versions were swapped under it. A hit
// never asks: the look at the store costs a statement, and a hit's bytes are whole either way.
constexpr int kStaleRetries = 3;

// Most URLs that a host asks for belong to no pack (3001), and the look at the store costs about
// as much again as the whole miss (a read transaction's locks on the shared log index): such a
// miss looks at most once in this interval, so a pack that another process adds is served within
// it. Every other failure (a URL that a pack claims, a file of a retired version, a stale pack)
// looks each time.
constexpr double kUnclaimedLookIntervalMs = 50.0;
std::atomic<double> lastUnclaimedLook{-1e300};

bool worthALook(const Error& error) {
    if (!Errors::isNotFerritResource(error)) return true;
    const double now = MRLCurrentClock();
    double last = lastUnclaimedLook.load(std::memory_order_relaxed);
    if (now - last < kUnclaimedLookIntervalMs) return false;
    return lastUnclaimedLook.compare_exchange_strong(last, now, std::memory_order_relaxed);
}

// True when the lookup that began at `reloads` and failed with `error` ran on a document that is
// no longer the stored one: another thread reloaded since, or this call reloads now. `reloads`
// moves to the present.
bool configMovedOn(const Error& error, uint64_t& reloads) {
    const bool reloaded = worthALook(error) && SCache::refresh();
    const uint64_t now = SCache::reloadCount();
    const bool moved = reloaded || now != reloads;
    reloads = now;
    return moved;
}

// Reads a matched resource on the calling thread, into `memory` when it is given and the answer
// is one file; empty after a failed match.
std::string readMatched(Resource& resource, ResponseMemory* memory = nullptr) {
    return resource.error ? std::string() : resource.read(memory);
}

// The request whose asynchronous read runs on this thread inside getResource. A read that
// completes within that call can still be tried again with the request; one that completes later,
// on whichever thread, answers as it stands, since the request may be gone by then.
struct RequestInCall {
    const ResourceRequest* request = nullptr;
    uint64_t call = 0;  // which call set it, so that another call's completion never takes it
};
thread_local RequestInCall requestInCall;
thread_local uint64_t asyncCalls = 0;

// The asynchronous request, with the retries it has left after a failure on an older document.
void getResourceAsync(const ResourceRequest& request,
                      std::function<void(std::unique_ptr<ResourceResponse>)> callback,
                      uint64_t reloads, int retries) {
    std::shared_ptr<Resource> resource = Access::match(request, kPolicyAsync);
    while (resource->error && retries > 0 && configMovedOn(resource->error, reloads)) {
        --retries;
        // The failed attempt is a request of its own, and ends here.
        resource->finish();
        resource = Access::match(request, kPolicyAsync);
    }
    if (resource->error) {
        callback(std::make_unique<ResourceResponse>(resource, std::string()));
        return;
    }
    std::shared_ptr<Resource> reading = resource;
    const RequestInCall outer = requestInCall;
    const uint64_t call = ++asyncCalls;
    requestInCall = RequestInCall{&request, call};
    reading->readAsync([resource = std::move(resource), callback = std::move(callback), reloads,
                        retries, call](const std::string& data, const Error& error) mutable {
        if (error && retries > 0 && requestInCall.call == call && configMovedOn(error, reloads)) {
            resource->finish();
            const ResourceRequest& again = *requestInCall.request;
            getResourceAsync(again, std::move(callback), reloads, retries - 1);
            return;
        }
        // A failure here takes is404 from the SCache hit, not from the match: the host then
        // answers 404 for a file that an SCache pack claims but could not deliver.
        if (error) {
            callback(std::make_unique<ResourceResponse>(resource, error, resource->isSCacheHit));
        } else {
            callback(std::make_unique<ResourceResponse>(resource, data));
        }
    });
    requestInCall = outer;
}

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

// The stages after the prefix stage, whose part `prefixPart` did not serve: true when one of them
// answers, which ends that part and writes the "match" event.
bool answeredByCacheStages(Resource& resource, const ResourceRequest& request,
                           ResourcePolicy policy, std::string_view keyReferrer,
                           ResourcePart& prefixPart, MatchLog& log) {
    log.add("prefixInfo", partInfo(prefixPart));
    const std::shared_ptr<const Settings> settings = Settings::current();
    if (!settings->moduleCacheEnabledValue()) log.add("ModuleCache", "disabled");
    if (!settings->uniAppEnabledValue()) log.add("UniApp", "disabled");
    const char* how = matchCacheStages(
        resource, request, policy, keyReferrer, *settings,
        [&log](std::string_view key, JSON value) { log.add(key, std::move(value)); });
    if (how == nullptr) return false;
    prefixPart.finish();
    if (resource.isCombo) {
        log.finishCombo();
    } else {
        log.finish(how, *resource.parts.front(), /*lowerWhenNotServed=*/false);
    }
    return true;
}

}  // namespace

std::shared_ptr<Resource> Access::match(const ResourceRequest& request, ResourcePolicy policy) {
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
    MatchKind kind = kMatchNone;
    std::shared_ptr<PackPart> part;
    if (std::shared_ptr<PackMatch> found = findByUrl(keyUrl, keyReferrer, &kind)) {
        part = makeRecycled<PackPart>(context, keyUrl, std::move(found));
        if (!part->error || !part->isMissing()) {
            // Served, or the pack knows the URL but cannot serve it: either way this is the answer.
            resource->addPart(part, kind);
            log.finish("referrer", *part, /*lowerWhenNotServed=*/false);
            return resource;
        }
        log.add("referrerInfo", partInfo(*part));
    }

    // Prefix, unless the referrer stage built an SCache claim.
    if (!part || kind == kMatchNone) {
        // The referrer stage's part does not answer: its visit ends with it.
        if (part) part->finish();
        std::shared_ptr<PackMatch> found = findByPrefix(keyUrl, accept);
        part = makeRecycled<PackPart>(context, std::move(keyUrl), std::move(found));
        if (!part->error) {
            resource->addPart(part, kind);
            log.finish("prefix", *part, /*lowerWhenNotServed=*/false);
            return resource;
        }
    }

    // The remaining stages: aggregate URLs, UniApp and ModuleCache; when none answers, the prefix
    // stage's answer stands.
    if (answeredByCacheStages(*resource, request, policy, keyReferrer, *part, log)) return resource;

    if (Errors::isNotFerritResource(part->error)) {
        if (const char* step = startupPending()) part->error = Errors::notSetUpYet(step);
    }
    resource->addPart(part, kind);
    log.finish("prefix", *part, /*lowerWhenNotServed=*/true);
    return resource;
}

namespace {

// The synchronous form, with the bytes of a one-file answer in `memory` when it is given.
std::unique_ptr<ResourceResponse> getResourceSync(const ResourceRequest& request,
                                                  ResponseMemory* memory) {
    if (request.url.empty())
        return std::make_unique<ResourceResponse>(Errors::notFerritResourceRef());
    if (Http::isDisabled(request.header()))
        return std::make_unique<ResourceResponse>(Errors::disabledByHeaderRef());
    // One atomic load, no lock: what a later failure compares with.
    uint64_t reloads = SCache::reloadCount();
    std::shared_ptr<Resource> resource = Access::match(request, kPolicySync);
    std::string data = readMatched(*resource, memory);
    for (int retry = 0;
         resource->error && retry < kStaleRetries && configMovedOn(resource->error, reloads);
         ++retry) {
        // The failed attempt is a request of its own, and ends here.
        resource->finish();
        resource = Access::match(request, kPolicySync);
        data = readMatched(*resource, memory);
    }
    return std::make_unique<ResourceResponse>(std::move(resource), std::move(data));
}

}  // namespace

std::unique_ptr<ResourceResponse> Access::getResource(const ResourceRequest& request) {
    return getResourceSync(request, nullptr);
}

std::unique_ptr<ResourceResponse> getResourceInto(const ResourceRequest& request,
                                                  ResponseMemory& memory) {
    return getResourceSync(request, &memory);
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
    getResourceAsync(request, std::move(callback), SCache::reloadCount(), kStaleRetries);
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
