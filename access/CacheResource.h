// CacheResource: the resource part that a content cache (ModuleCache or UniApp) answers, the
// abstract parent of ModuleCacheResource and UniAppResource. It reads its cached copy when it can
// (a copy not yet validated is then fetched again in the background, off the request's path),
// otherwise it needs the network: alone when the copy has expired (with the copy's validators),
// or in an aggregate request with other files. What the network delivers is checked against its
// "Content-MD5", kept as the part's content, and handed to the cache by the subclass.
//
// Threading: built and first read on the matching thread; completions (fetches, the delivery of an
// aggregate answer, background validations) run on other threads, one at a time for a given part.
// The cached copy is behind the part's lock, since a background validation may replace it while
// the request reads it.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "access/Resource.h"
#include "storage/Cache.h"
#include "support/Mutex.h"

namespace FerritCore {

class CacheResource : public ResourcePart {
  public:
    // `label` names the cache that answers (the owner in Cache).
    CacheResource(std::shared_ptr<RequestContext> context, std::string url, std::string name,
                  std::string label);

    // The cached copy's body length, MD5 and kept headers; 0 and empty without a copy.
    uint64_t size() const override;
    std::string md5() const override;
    HeaderMap header() const override;
    // Done with a usable copy; otherwise NeedFetch for an expired copy (3115) and NeedAggregate for
    // anything else. `error` holds why there is no usable copy.
    ReadStatus read() override;
    // Calls back at once with a usable copy; otherwise fetches this URL alone (with the expired
    // copy's validators) and calls back when that ends, with `error` set on failure.
    void readAsync(std::function<void(std::shared_ptr<ResourcePart>)> callback) override;
    // Takes a body delivered for this URL: checked against "Content-MD5" when the subclass asks
    // for it (1010 on a difference: refused, and the part has no content), then kept and stored.
    // False also when storing failed; the body is then still this part's content.
    bool accept(const HeaderMap& header, const std::string& content, Error& error) override;
    void appendTo(std::string& out, unsigned& crc) override;

    // Loads the cached copy on first use; false (with `error`) when there is no usable one.
    virtual bool readCached() = 0;
    // Whether a delivered body is checked against its "Content-MD5".
    virtual bool shouldCheckMD5() const = 0;
    // Hands a delivered body to the cache; `record` may be adjusted first. Does nothing here.
    virtual void storeResponse(const HeaderMap& header, CachedResource& record, Error& error);
    // Logs what went wrong with a delivered body.
    virtual void logUpdate(int level, const Error& error) = 0;

    // The copy that this part holds, or null.
    std::shared_ptr<const CachedResource> cached() const;

    const std::string label;

  protected:
    void setCached(std::shared_ptr<const CachedResource> resource);
    // The URL that fetches this part: the request's scheme before the part's URL.
    std::string fetchUrl() const;
    // Sends "Ferrit.CacheVisit" with the part's error and the times of `resource` (0 without).
    void sendVisit(const CachedResource* resource) const;

  private:
    using Callback = std::function<void(std::shared_ptr<ResourcePart>)>;

    // Clock readings (MRLCurrentClock) of one fetch: when it was decided, when its task began,
    // when the request went out and when the answer came.
    struct FetchTimes {
        double decided = 0;
        double started = 0;
        double sent = 0;
        double received = 0;
    };

    // accept(), telling whether the body became the part's content. With `ownError` the part's
    // own error says whether it has content; a background validation leaves it alone. A body
    // that was stored sends "Ferrit.CacheUpdate" with the times of its fetch.
    bool take(const HeaderMap& header, const std::string& content, Error& error, bool ownError,
              const FetchTimes& times);
    void sendUpdate(const FetchTimes& times, size_t downloadSize, size_t resourceSize) const;
    void fetch(bool revalidate, Callback callback);
    // Fetches a copy that no MD5 check has vouched for, on the worker, so that the request that
    // found it is not slowed; the answer replaces the stored copy.
    void validateLater();
    bool cachedIsValidated() const;

    mutable Mutex lock_;
    std::shared_ptr<const CachedResource> cached_ GUARDED_BY(lock_);
};

// The names the read flow knows the cache parts by.
using CachePart = CacheResource;

}  // namespace FerritCore
