// The values a request becomes: RequestContext (shared per-request record), ResourcePart (one
// file-like source) and Resource (the result of matching); ReadGroup (access/ReadGroup.h) drives
// the reads of several parts.
// Resource and ResourcePart are shared between the calling thread and read completions; only
// their reference counts and a part's read holds are atomic, and each completion writes the
// fields of its own part.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/Http.h"
#include "base/LogTags.h"
#include "base/Recycled.h"
#include "base/Telemetry.h"
#include "ferritcore/Error.h"
#include "ferritcore/ResourceRequest.h"
#include "marl/Log.h"

namespace FerritCore {

struct ComboRule;
class ResponseMemory;

// How a URL match relates to the SCache packs.
enum class MatchKind : int {
    kMatchNone = 0,            // not an SCache claim
    kMatchReferrerSCache = 1,  // the referrer's pack is an SCache pack that claims this file type
    kMatchUrlSCache = 2,       // the URL itself is in an SCache pack
};
using enum MatchKind;

class RequestContext {
  public:
    // The request's URL and headers are read where they are until detach(): the request must
    // outlive the match. An "http://" URL becomes "https://" when the setting requestForceHttps
    // is on. The trace id takes `tracePrefix`.
    RequestContext(const ResourceRequest& request, UpdateTrigger trigger,
                   std::string_view tracePrefix = TracePrefix::kAccess);
    // A temporary request would be gone before the match reads it.
    RequestContext(ResourceRequest&& request, UpdateTrigger trigger,
                   std::string_view tracePrefix = TracePrefix::kAccess) = delete;
    // A context without a request (the shared context of the pack reader).
    RequestContext(UpdateTrigger trigger, std::string_view tracePrefix);

    // The end of the match: the request may go. A context whose parts read its URL or headers
    // later (keep() was asked for) holds copies; any other has answered all it was asked.
    void detach();
    // Asks for copies of the request's URL and headers to outlive the request (a part read later
    // needs them); call it during the match.
    void keep() { keep_ = true; }

    // The request's URL, as the match reads it (see the constructor); empty after detach() when
    // nothing kept it.
    std::string_view url() const {
        return request_ != nullptr && !rewritten_ ? request_->url : url_;
    }
    // The request's headers; after detach(), the copy, or none.
    const HeaderMap& header() const { return request_ != nullptr ? request_->header() : header_; }
    // The trace id, made on first use: a request that is never logged or reported never needs one.
    const std::string& traceId();

    UpdateTrigger trigger = kTriggerNone;
    const ComboRule* comboRule = nullptr;

    // Computed on first use; used by one thread at a time (the matcher, then one completion).
    std::string_view scheme();
    std::string_view origin();
    // The "Accept" header, lower-cased.
    const std::string& accept();
    const std::vector<Http::AcceptType>& acceptTypes();

  private:
    const ResourceRequest* request_ = nullptr;  // until detach()
    bool rewritten_ = false;                    // `url_` holds the URL made "https://"
    std::string url_;
    HeaderMap header_;
    bool keep_ = false;
    std::string_view tracePrefix_;
    std::string traceId_;
    std::optional<std::string> accept_;
    std::optional<std::vector<Http::AcceptType>> acceptTypes_;
};

enum class ReadStatus {
    Done = 0,           // content is in memory
    Failed = 1,         // `error` is set; the whole Resource fails
    NeedAsync = 2,      // `error` is 1108; only readAsync can get the content
    NeedAggregate = 3,  // no valid cached copy; may share one aggregate request
    NeedFetch = 4,      // the cached copy has expired; must be fetched alone
};

class ResourcePart : public std::enable_shared_from_this<ResourcePart> {
  public:
    ResourcePart(std::shared_ptr<RequestContext> context, std::string url, std::string name);
    virtual ~ResourcePart() = default;

    // True when no source holds this URL, so the matcher may try the next source.
    virtual bool isMissing() const { return true; }
    virtual uint64_t size() const = 0;
    virtual std::string md5() const { return {}; }
    virtual HeaderMap header() const { return {}; }
    // Reads synchronously where it can.
    virtual ReadStatus read() = 0;
    // Calls `callback` with this part when it is finished, on whichever thread finished it.
    virtual void readAsync(std::function<void(std::shared_ptr<ResourcePart>)> callback) = 0;
    // Takes what the network delivered; false with `error` set when refused.
    virtual bool accept(const HeaderMap& header, const std::string& content, Error& error);
    // Appends the content to `out` and stores its CRC-32 in `crc`.
    virtual void appendTo(std::string& out, unsigned& crc) = 0;
    // Hands the content over to `out` when this part is the only one and its content is needed
    // no more: a part that holds its bytes may move them instead of copying, and computes the
    // CRC-32 only when `crc` is given. The part may be left without content (size() 0).
    virtual void moveTo(std::string& out, unsigned* crc);
    // Reads as read() does, but a part that can puts its bytes straight into `memory` (and says so
    // there), keeping no content of its own. The default reads into the part as read() does.
    virtual ReadStatus readInto(ResponseMemory& /*memory*/) { return read(); }

    // Generated on first use with the prefix "FT_Resource".
    const std::string& traceId();

    // The end of the request for this part, called once by whoever ends the request
    // (Resource::finish, or the matcher when it drops the part); a second call does nothing. A
    // part that reports its visit does so once the request has ended it and no read holds it any
    // more, on the thread that lets go last. Destroying a part reports nothing. Called by the
    // part's owner, one thread at a time. `end`, when given, is the clock at the request's end,
    // already read: a visit reported now ends there. Without it the clock is read when the visit
    // is reported (any value, 0 included, is a reading: a test's clock may stand at 0).
    void finish(std::optional<double> end = std::nullopt);
    // Keeps the visit's report back while a read that may finish after the request still writes
    // the part; every holdForRead() is matched by one releaseAfterRead(), on any thread. A visit
    // reported by the read's release ends when it is reported.
    void holdForRead() { holds_.fetch_add(1, std::memory_order_relaxed); }
    void releaseAfterRead() { release(std::nullopt); }

    // The clock when a synchronous read of this part began and when it ended, for a reader that
    // times the same span (0 when unknown): each boundary's clock is read once.
    double readStart = 0;
    double readEnd = 0;

    std::string url;
    std::string name;  // the match text
    std::shared_ptr<RequestContext> context;
    Error error;

  protected:
    // Sends what the part reports of its visit; runs once, when the request has ended the part
    // and no read holds it. Most parts report nothing. `end` is the clock at which the visit
    // ends, or none for now.
    virtual void reportVisit(std::optional<double> /*end*/) {}

  private:
    void release(std::optional<double> end);

    std::string traceId_;
    // One hold for the request (let go by finish()) and one per read in progress.
    std::atomic<uint32_t> holds_{1};
    bool finished_ = false;  // finish() ran
};

class ReadGroup;

// What Access::match returns reports no visit by itself: the request's records go out with
// finish(), which the response made of it calls when it is finished or released.
class Resource : public std::enable_shared_from_this<Resource> {
  public:
    Resource(std::shared_ptr<RequestContext> context, std::string parentId, bool uniApp);
    // Sends nothing: a request reports its visit through finish().
    ~Resource() = default;

    Resource(const Resource&) = delete;
    Resource& operator=(const Resource&) = delete;

    // Stamps matchTime and lastTime, takes the part's error, appends the part, sets isSCacheHit
    // for kMatchUrlSCache, and is404 when kind is not kMatchNone, there is an error and
    // scache404Enabled is on.
    void addPart(std::shared_ptr<ResourcePart> part, MatchKind kind);
    // Reads every part on the calling thread; empty on any failure (then `error` is set). With
    // `memory`, the bytes of a one-part answer may go there instead (ResponseMemory::filled).
    std::string read(ResponseMemory* memory = nullptr);
    // `callback(data, error)` runs once, on whichever thread finishes last. The Resource must be
    // held by a shared pointer; the completion keeps it alive. No part of a group reports its
    // visit before the group has read it.
    void readAsync(std::function<void(const std::string& data, const Error& error)> callback);
    // Creates the group over the current parts.
    void makeGroup();
    // Stamps readTime and lastTime at the end of a read and begins its "read" event with "size"
    // and the error; the caller adds its own fields and ends it.
    // `end`, when not 0, is the clock at the end of the read, already read.
    MarlLogger::LogBuilder finishRead(double start, size_t size, const Error& readError,
                                      double end = 0);
    // The end of the request: sends "Ferrit.VisitPerf" (its time ends at `lastTime`), then ends
    // each part (ResourcePart::finish). Once: a second call does nothing. Called by whoever holds
    // the request last: the response's setFinished or release, or the code that drops a match
    // it will not answer with. Not thread-safe; no read of the request may still be running,
    // except a part's, which holds that part's report back by itself.
    void finish();
    bool finished() const { return finished_; }

    std::shared_ptr<RequestContext> context;
    std::string parentId;
    std::string logTag;
    double startTime;
    double lastTime;
    double matchTime = 0;
    double readTime = 0;
    Error error;
    // A request's one part sits in a block its thread recycles: the list of a hit costs no
    // allocation. A second part grows the list from the heap.
    using Parts = std::vector<std::shared_ptr<ResourcePart>,
                              RecycledDetail::Allocator<std::shared_ptr<ResourcePart>>>;
    Parts parts;
    bool isCombo = false;
    bool is404 = false;
    bool isSCacheHit = false;
    std::shared_ptr<ReadGroup> group;

  private:
    bool finished_ = false;
};

}  // namespace FerritCore
