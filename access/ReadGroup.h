// ReadGroup: drives the reads of the several parts of one request (an aggregate URL, or a part of
// ModuleCache or UniApp). Parts that read locally are counted at once; parts that need the
// network either fetch alone or, when the request carries an aggregate rule, share batched
// aggregate requests. The whole is delivered once, in part order, or the first error is.
//
// Threading: run() on the calling thread; completions arrive on whichever thread finishes a read
// or a request, and touch the group only through its atomics (the count of parts still to finish,
// which ends at -1 once the group has delivered). The group and its parts stay alive through the
// shared pointers that the completions hold.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "access/Resource.h"

namespace FerritCore {

class AggregateRequest;

class ReadGroup : public std::enable_shared_from_this<ReadGroup> {
  public:
    using Callback = std::function<void(const std::string& data, const Error& error)>;

    ReadGroup(std::vector<std::shared_ptr<ResourcePart>> parts,
              std::shared_ptr<RequestContext> context);

    // Reads every part, synchronously where it can; `callback` runs exactly once, with the data of
    // every part in order or with the first error. A part whose read() fails stops the reading of
    // those after it; a failure that a completion brings during run() (a batch refused at once)
    // does not, so later parts still form and send their batches. A part that finishes after the
    // group has delivered changes nothing. Must be held by a shared pointer.
    void run(Callback callback);

    std::vector<std::shared_ptr<ResourcePart>> parts;
    std::vector<unsigned> crcs;
    std::shared_ptr<RequestContext> context;
    std::atomic<int32_t> remaining;  // parts still to finish; -1 once delivered or failed
    std::atomic<int32_t> localCount{0};
    std::atomic<int32_t> remoteCount{0};
    // Parts that wait in an aggregate request, in the order they were added (written by run()).
    std::vector<int32_t> pendingIndices;
    // "sync" until something goes asynchronous, then "async"; set before the first asynchronous
    // step starts, so that whoever a completion hands the result to sees it.
    std::string type = "sync";

  private:
    struct PendingBatch;
    using PartCompletion = std::function<void(std::shared_ptr<ResourcePart>)>;

    std::unique_ptr<AggregateRequest> newBatch() const;
    // Starts the read of part `i`; false when it failed to read, which ends the loop.
    bool start(size_t i, PendingBatch& batch, const PartCompletion& completion);
    void goAsync();
    void partFinished(int32_t n, const Error& error);
    void checkFinished();
    // Sends a batch for the parts at `indices` and hands each its piece of the answer.
    void send(AggregateRequest& batch, std::vector<int32_t> indices);
    void deliver(const std::string& url, const std::vector<int32_t>& indices,
                 const HeaderMap& header, const std::vector<std::string>& pieces,
                 const Error& error, double start);

    Callback callback_;
};

}  // namespace FerritCore
