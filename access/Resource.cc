#include "access/Resource.h"

#include <charconv>

#include "access/ReadGroup.h"
#include "access/ResponseMemory.h"
#include "base/Digest.h"
#include "base/LogTags.h"
#include "base/Proxy.h"
#include "base/Telemetry.h"
#include "base/Url.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "runtime/Settings.h"
#include "support/Ascii.h"

namespace FerritCore {

using MarlLogger::LogBuilder;
using MarlLogger::MRLLevelInfo;

// ---- RequestContext ----

RequestContext::RequestContext(const ResourceRequest& request, UpdateTrigger trigger,
                               std::string_view tracePrefix)
    : trigger(trigger), request_(&request), tracePrefix_(tracePrefix) {
    if (request.url.starts_with("http://") && Settings::Snapshot()->requestForceHttpsValue()) {
        url_ = request.url;
        url_.insert(4, 1, 's');
        rewritten_ = true;
    }
}

RequestContext::RequestContext(UpdateTrigger trigger, std::string_view tracePrefix)
    : trigger(trigger), tracePrefix_(tracePrefix) {}

void RequestContext::detach() {
    if (request_ == nullptr) return;
    accept();  // answered from the request while it is there
    if (keep_) {
        if (!rewritten_) url_ = request_->url;
        header_ = request_->header();
    }
    request_ = nullptr;
}

const std::string& RequestContext::traceId() {
    if (traceId_.empty()) traceId_ = MRLGenerateID(tracePrefix_);
    return traceId_;
}

std::string_view RequestContext::scheme() {
    return url().substr(0, Url::schemeLength(url()));
}

std::string_view RequestContext::origin() {
    return Url::origin(url());
}

const std::string& RequestContext::accept() {
    if (!accept_) {
        std::string value(Http::headerValue(header(), Http::headerName(Http::kAccept)));
        Ascii::lowerInPlace(value);
        accept_ = std::move(value);
    }
    return *accept_;
}

const std::vector<Http::AcceptType>& RequestContext::acceptTypes() {
    if (!acceptTypes_) acceptTypes_ = Http::parseAccept(accept());
    return *acceptTypes_;
}

// ---- ResourcePart ----

ResourcePart::ResourcePart(std::shared_ptr<RequestContext> context, std::string url,
                           std::string name)
    : url(std::move(url)), name(std::move(name)), context(std::move(context)) {}

bool ResourcePart::accept(const HeaderMap&, const std::string&, Error&) {
    return true;
}

void ResourcePart::moveTo(std::string& out, unsigned* crc) {
    unsigned value = 0;
    appendTo(out, value);
    if (crc != nullptr) *crc = value;
}

const std::string& ResourcePart::traceId() {
    if (traceId_.empty()) traceId_ = MRLGenerateID(TracePrefix::kResource);
    return traceId_;
}

void ResourcePart::finish(std::optional<double> end) {
    if (finished_) return;
    finished_ = true;
    release(end);
}

void ResourcePart::release(std::optional<double> end) {
    // The last hold to go sees every write of the others: the request's and the reads'.
    if (holds_.fetch_sub(1, std::memory_order_acq_rel) == 1) reportVisit(end);
}

// ---- Resource ----

Resource::Resource(std::shared_ptr<RequestContext> context, std::string parentId, bool uniApp)
    : context(std::move(context)),
      parentId(std::move(parentId)),
      logTag(uniApp ? LogTag::kUniApp : LogTag::kAccess),
      startTime(MRLCurrentClock()),
      lastTime(startTime) {}

void Resource::finish() {
    if (finished_) return;
    finished_ = true;
    // Without a proxy that takes records, building one would only cost the request.
    if (ProxyCalls::takesEvents()) {
        // One per request: the thread's record is built again in place.
        thread_local ReusedRecord::Slot slot;
        ReusedRecord record(slot, "Ferrit.VisitPerf");
        char digits[24];
        const auto written = std::to_chars(digits, digits + sizeof(digits), parts.size());
        record->copyDimension("resourceCount", std::string_view(digits, written.ptr));
        record->copyDimension("type", group ? std::string_view(group->type) : "sync");
        record->setMeasure("matchTime", matchTime);
        record->setMeasure("readTime", readTime);
        record->setMeasure("time", lastTime - startTime);
        sendEvent(*record);
    }
    // The parts' visits end with the request: its last clock reading serves them too.
    for (const auto& part : parts) part->finish(lastTime);
}

void Resource::addPart(std::shared_ptr<ResourcePart> part, MatchKind kind) {
    const double now = MRLCurrentClock();
    matchTime = now - lastTime;
    lastTime = now;
    error = part->error;
    parts.push_back(std::move(part));
    isSCacheHit = kind == kMatchUrlSCache;
    if (kind != kMatchNone && error && Settings::current()->scache404EnabledValue()) is404 = true;
}

void Resource::makeGroup() {
    group = std::make_shared<ReadGroup>(
        std::vector<std::shared_ptr<ResourcePart>>(parts.begin(), parts.end()), context);
}

std::string Resource::read(ResponseMemory* memory) {
    std::string data;
    if (error || parts.empty()) return data;
    // The read begins where the match ended: the clock of that boundary is read once.
    const double start = lastTime;
    // The CRCs are only logged: they are computed only when the "read" event will be written.
    const bool logged = MarlLogger::Log::enabled(MRLLevelInfo);
    unsigned crc = 0;
    std::vector<unsigned> crcs;
    double end = 0;
    size_t placed = 0;  // bytes that went to `memory`
    if (parts.size() == 1) {
        ResourcePart& part = *parts.front();
        part.readStart = start;
        const ReadStatus status = memory != nullptr ? part.readInto(*memory) : part.read();
        end = part.readEnd;
        if (status != ReadStatus::Done) {
            error = part.error;
        } else if (memory != nullptr && memory->filled()) {
            // The receiver holds the bytes already; the response carries none.
            placed = memory->filledSize();
            if (logged) crc = Digest::crc32(std::string_view(memory->filledData(), placed));
        } else {
            // The only part's bytes become the response's: moved, not copied.
            part.moveTo(data, logged ? &crc : nullptr);
        }
    } else {
        for (const auto& part : parts) {
            if (part->read() != ReadStatus::Done) {
                error = part->error;
                break;
            }
        }
        if (!error) {
            uint64_t total = 0;
            for (const auto& part : parts) total += part->size();
            data.reserve(total);
            crcs.resize(parts.size());
            for (size_t i = 0; i < parts.size(); ++i) parts[i]->appendTo(data, crcs[i]);
        }
    }
    if (error) data.clear();
    LogBuilder log = finishRead(start, error ? 0 : data.size() + placed, error, end);
    if (log.active()) {
        if (crcs.empty()) {
            log.append("crc", crc);
        } else {
            log.append("crc", crcs);
        }
    }
    return data;
}

MarlLogger::LogBuilder Resource::finishRead(double start, size_t size, const Error& readError,
                                            double end) {
    const double now = end > 0 ? end : MRLCurrentClock();
    readTime = now - start;
    lastTime = now;
    LogBuilder log(MRLLevelInfo, logTag);
    if (log.active()) {
        log.event("read", parentId)
            .id(context->traceId())
            .append("size", static_cast<uint64_t>(size));
        if (readError) log.error(readError);
    }
    return log;
}

void Resource::readAsync(
    std::function<void(const std::string& data, const Error& error)> callback) {
    if (!callback) return;
    if (error || parts.empty()) {
        callback(std::string(), error);
        return;
    }
    const double start = MRLCurrentClock();
    // The completions hold the Resource: the caller may let go of it before they run.
    if (group) {
        // The answer may come, and the request end, before the group has read every part (a batch
        // refused at once): a part read after that reports its visit once the group is done.
        const std::shared_ptr<Resource> held = shared_from_this();
        for (const auto& part : parts) part->holdForRead();
        std::shared_ptr<ReadGroup> running = group;
        running->run([this, self = shared_from_this(), start, callback = std::move(callback)](
                         const std::string& data, const Error& e) {
            LogBuilder log = finishRead(start, data.size(), e);
            if (log.active())
                log.append("localCount", group->localCount.load())
                    .append("remoteCount", group->remoteCount.load())
                    .append("crc", group->crcs);
            log.done();
            callback(data, e);
        });
        for (const auto& part : parts) part->releaseAfterRead();
        return;
    }
    std::shared_ptr<ResourcePart> only = parts.front();
    only->readAsync([this, self = shared_from_this(), start,
                     callback = std::move(callback)](std::shared_ptr<ResourcePart> part) {
        std::string data;
        unsigned crc = 0;
        if (!part->error)
            part->moveTo(data, MarlLogger::Log::enabled(MRLLevelInfo) ? &crc : nullptr);
        LogBuilder log = finishRead(start, data.size(), part->error);
        if (log.active()) log.append("crc", crc).append("localCount", 1);
        log.done();
        callback(data, part->error);
    });
}

}  // namespace FerritCore
