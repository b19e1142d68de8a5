#include "access/ReadGroup.h"

#include "access/AggregateRequest.h"
#include "access/ComboRule.h"
#include "base/LogTags.h"
#include "marl/Clock.h"
#include "marl/Log.h"

namespace FerritCore {

ReadGroup::ReadGroup(std::vector<std::shared_ptr<ResourcePart>> parts,
                     std::shared_ptr<RequestContext> context)
    : parts(std::move(parts)),
      context(std::move(context)),
      remaining(static_cast<int32_t>(this->parts.size())) {
    crcs.resize(this->parts.size());
}

// The aggregate request being filled, and the indices of the parts it carries.
struct ReadGroup::PendingBatch {
    std::unique_ptr<AggregateRequest> request;
    std::vector<int32_t> indices;
};

void ReadGroup::run(Callback callback) {
    callback_ = std::move(callback);
    std::shared_ptr<ReadGroup> self = shared_from_this();
    const PartCompletion completion = [self](const std::shared_ptr<ResourcePart>& part) {
        self->partFinished(1, part->error);
    };
    PendingBatch batch{newBatch(), {}};
    // Only a part that fails to read ends the loop. A failure that arrives through a completion
    // (a batch whose request failed before send() returned, say) has already answered the group,
    // but the parts after it still go on: their batches are sent, and their answers fill the cache
    // for the next visit.
    for (size_t i = 0; i < parts.size(); ++i) {
        if (!start(i, batch, completion)) break;
    }
    // What was gathered goes out even after a failure: the answer fills the cache for next time.
    if (batch.request && !batch.request->empty()) send(*batch.request, std::move(batch.indices));
    checkFinished();
}

std::unique_ptr<AggregateRequest> ReadGroup::newBatch() const {
    // Files that no local source holds share aggregate requests when the request has a rule for
    // them; otherwise each part fetches alone.
    const ComboRule* rule = context->comboRule;
    return rule != nullptr ? std::make_unique<AggregateRequest>(*rule, context->traceId())
                           : nullptr;
}

bool ReadGroup::start(size_t i, PendingBatch& batch, const PartCompletion& completion) {
    ResourcePart& part = *parts[i];
    switch (part.read()) {
        case ReadStatus::Done: {
            localCount.fetch_add(1);
            // -1 means the group has answered, and stays so.
            int32_t left = remaining.load();
            while (left > 0 && !remaining.compare_exchange_weak(left, left - 1)) {
            }
            return true;
        }
        case ReadStatus::Failed:
            partFinished(1, part.error);
            return false;
        case ReadStatus::NeedAsync:
            localCount.fetch_add(1);
            goAsync();
            part.readAsync(completion);
            return true;
        case ReadStatus::NeedAggregate:
            remoteCount.fetch_add(1);
            goAsync();
            if (!batch.request) {
                part.readAsync(completion);
                return true;
            }
            pendingIndices.push_back(static_cast<int32_t>(i));
            batch.indices.push_back(static_cast<int32_t>(i));
            if (batch.request->add(part.url)) {
                send(*batch.request, std::move(batch.indices));
                batch = PendingBatch{newBatch(), {}};
            }
            return true;
        case ReadStatus::NeedFetch:
            remoteCount.fetch_add(1);
            goAsync();
            part.readAsync(completion);
            return true;
    }
    return true;
}

void ReadGroup::goAsync() {
    if (type != "async") type = "async";
}

void ReadGroup::send(AggregateRequest& batch, std::vector<int32_t> indices) {
    const std::string origin(context->origin());
    const std::string url = batch.requestUrl(origin);
    const double start = MRLCurrentClock();
    batch.send(origin, [self = shared_from_this(), url, indices = std::move(indices), start](
                           HeaderMap header, std::vector<std::string> pieces, Error error) {
        self->deliver(url, indices, header, pieces, error, start);
    });
}

void ReadGroup::deliver(const std::string& url, const std::vector<int32_t>& indices,
                        const HeaderMap& header, const std::vector<std::string>& pieces,
                        const Error& error, double start) {
    if (error) {
        MarlLogger::LogBuilder log(MarlLogger::MRLLevelWarning, LogTag::kAggregateRequest);
        if (log.active())
            log.event("response").append("url", url).append("count", indices.size()).error(error);
        partFinished(1, error);
        return;
    }
    // Each part takes its piece. A refusal (a digest that differs, say) is counted for the log and
    // fails neither its neighbours nor the answer: the batch as a whole arrived.
    uint64_t refused = 0;
    for (size_t i = 0; i < indices.size() && i < pieces.size(); ++i) {
        Error refusal;
        if (!parts[static_cast<size_t>(indices[i])]->accept(header, pieces[i], refusal)) ++refused;
    }
    MarlLogger::LogBuilder log(MarlLogger::MRLLevelInfo, LogTag::kAggregateRequest);
    if (log.active()) {
        log.event("response", context->traceId())
            .append("url", url)
            .append("count", indices.size())
            .append("refused", refused)
            .append("time", MRLCurrentClock() - start);
    }
    log.done();
    partFinished(static_cast<int32_t>(indices.size()), Error());
}

void ReadGroup::partFinished(int32_t n, const Error& error) {
    if (remaining.load() < 1) return;
    if (error) {
        if (remaining.exchange(-1) >= 1) {
            Callback callback = std::move(callback_);
            callback_ = nullptr;
            if (callback) callback(std::string(), error);
        }
        return;
    }
    remaining.fetch_sub(n);
    checkFinished();
}

void ReadGroup::checkFinished() {
    int32_t expected = 0;
    if (!remaining.compare_exchange_strong(expected, -1)) return;
    Callback callback = std::move(callback_);
    callback_ = nullptr;
    if (!callback) return;
    std::string data;
    if (parts.size() > 1) {
        uint64_t total = 0;
        for (const auto& part : parts) total += part->size();
        data.reserve(total);
    }
    for (size_t i = 0; i < parts.size(); ++i) parts[i]->appendTo(data, crcs[i]);
    callback(data, Error());
}

}  // namespace FerritCore
