// QueueRequester: the read path's requests (updates, readers' holds, prefetch hints) handed to the
// update queue. The composition root installs it; tests that run the real queue install it too.
// Any thread, as UpdateQueue.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "access/UpdateRequester.h"
#include "base/Telemetry.h"
#include "update/UpdateQueue.h"

namespace FerritCore {

class QueueRequester : public UpdateRequester {
  public:
    void request(const std::string& name, UpdateTrigger trigger, Completion completion) override {
        UpdateQueue::request(name, trigger, std::move(completion));
    }
    void holdPack(const std::string& name) override { UpdateQueue::holdPack(name); }
    void releasePack(const std::string& name) override { UpdateQueue::releasePack(name); }
    void prefetch(const std::vector<std::string>& items) override { UpdateQueue::prefetch(items); }
};

}  // namespace FerritCore
