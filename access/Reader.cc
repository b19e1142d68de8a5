#include "access/Reader.h"

#include "access/Matcher.h"
#include "access/UpdateRequester.h"
#include "base/Errors.h"
#include "base/LogTags.h"
#include "base/Proxy.h"
#include "base/Telemetry.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "model/SCache.h"
#include "storage/Statistics.h"

namespace FerritCore {
namespace {

// Every read through a Reader shares one context: it runs for no request of the host.
const std::shared_ptr<RequestContext>& sharedContext() {
    static auto* context = new std::shared_ptr<RequestContext>(
        std::make_shared<RequestContext>(kTriggerNone, TracePrefix::kReader));
    return *context;
}

std::shared_ptr<PackMatch> matchByName(const ReaderParams& params) {
    const double start = MRLCurrentClock();
    const FConfigPtr config = SCache::current();
    bool fallback = false;
    PackPtr pack = findByName(*config, params.name, params.info, &fallback);
    std::shared_ptr<PackMatch> match =
        pack ? std::make_shared<PackMatch>(*config, std::move(pack), !params.info.empty())
             : std::make_shared<PackMatch>(params.name, Errors::configNotFound(params.name));
    match->requestFollowUp();
    match->matchTime = MRLCurrentClock() - start;
    return match;
}

// "Ferrit.AppVisit" of a reader: "RCF" on the first visit of the pack in this process, "RC" after.
void sendVisit(PackMatch& match, double start) {
    if (match.name.empty()) return;
    const bool versioned = match.pinned && match.pack && match.pack->subType == kSubTypePlain;
    const std::string key =
        versioned ? Pack::pinnedName(match.name, match.pack->installedSeq) : match.name;
    double accessCount = 0;
    const bool first = Statistics::addAccess(key, &accessCount, 1.0);
    if (!ProxyCalls::takesEvents()) return;
    AppVisit visit;
    visit.visitType = first ? "RCF" : "RC";
    visit.error = &match.error;
    visit.time = MRLCurrentClock() - start;
    visit.accessCount = accessCount;
    sendAppVisit(match, visit);
}

}  // namespace

void Reader::load(const ReaderParams& params, Callback callback) {
    if (!callback) return;
    const std::string id = MRLGenerateID(TracePrefix::kReader);
    const double start = MRLCurrentClock();
    std::shared_ptr<PackMatch> match = matchByName(params);
    sendVisit(*match, start);
    if (!match->error) {
        MarlLogger::LogBuilder(MarlLogger::MRLLevelInfo, LogTag::kReader)
            .event("load", params.parentId)
            .id(id)
            .append("name", params.name)
            .append("time", MRLCurrentClock() - start);
        callback(std::make_shared<Reader>(std::move(match), params.name, id), Error());
        return;
    }
    MarlLogger::LogBuilder(MarlLogger::MRLLevelError, LogTag::kReader)
        .event("load", params.parentId)
        .id(id)
        .append("name", params.name)
        .append("time", MRLCurrentClock() - start)
        .error(match->error);
    // The pack cannot serve as it is: ask for it, and look once more when that ends.
    const std::string packName = match->pack ? match->pack->name : params.name;
    requestUpdate(packName, kTriggerVisit, [params, id, callback](const Error& updateError) {
        if (updateError) {
            callback(nullptr, updateError);
            return;
        }
        std::shared_ptr<PackMatch> retried = matchByName(params);
        if (retried->error) {
            callback(nullptr, retried->error);
            return;
        }
        callback(std::make_shared<Reader>(std::move(retried), params.name, id), Error());
    });
}

Reader::Reader(std::shared_ptr<PackMatch> match, std::string name, std::string parentId)
    : match_(std::move(match)), name_(std::move(name)), parentId_(std::move(parentId)) {
    heldName_ = match_ && match_->pack ? match_->pack->name : name_;
    holdPackForReading(heldName_);
}

Reader::~Reader() {
    releasePackFromReading(heldName_);
}

std::string Reader::absolutePath(const std::string& path) {
    if (path.starts_with("//")) return path;
    if (path.starts_with("/")) return "/" + path;
    return "//" + path;
}

bool Reader::exists(const std::string& path) {
    auto part = std::make_shared<PackPart>(sharedContext(), absolutePath(path), match_);
    const bool found = !part->error && part->fileExists();
    MarlLogger::LogBuilder log(MarlLogger::MRLLevelInfo, LogTag::kReader);
    if (log.active()) {
        log.event("exists", parentId_).append("path", path).append("exists", found);
        if (part->error) log.error(part->error);
    }
    part->finish();
    return found;
}

std::string Reader::read(const std::string& path, HeaderMap* header, Error& error) {
    auto part = std::make_shared<PackPart>(sharedContext(), absolutePath(path), match_);
    if (part->read() != ReadStatus::Done) {
        error = part->error;
        MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, LogTag::kReader)
            .event("read", parentId_)
            .append("path", path)
            .error(error);
        part->finish();
        return std::string();
    }
    if (header != nullptr) *header = part->header();
    error.clear();
    std::string content;
    part->moveTo(content, nullptr);
    part->finish();
    return content;
}

}  // namespace FerritCore
