// UpdateRequester: what the read path asks of updating, which lies above it: a pack that cannot
// serve, or that has a newer version, is to be updated. The composition root installs the update
// queue here. Without one, a request is answered at once with "update disabled" (2003), so that
// no caller waits forever. Implementations must be safe from any thread.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/Telemetry.h"
#include "ferritcore/Error.h"

namespace FerritCore {

class UpdateRequester {
  public:
    using Completion = std::function<void(const Error&)>;

    virtual ~UpdateRequester() = default;
    // Asks for an update of `name` with `trigger`; `completion` (may be empty) learns the outcome,
    // on any thread.
    virtual void request(const std::string& name, UpdateTrigger trigger, Completion completion) = 0;
    // A reader holds the pack `name` for its life: no update replaces it meanwhile. Holds nest;
    // each hold is released once.
    virtual void holdPack(const std::string& name) = 0;
    virtual void releasePack(const std::string& name) = 0;
    // Queues the packs behind `items` (URLs or pack names) ahead of their turn; the outcome is a
    // log event only.
    virtual void prefetch(const std::vector<std::string>& items) = 0;

    // The installed requester, or null.
    static std::shared_ptr<UpdateRequester> current();
    static void set(std::shared_ptr<UpdateRequester> requester);
};

// Hands the request to the installed requester, or answers 2003.
void requestUpdate(const std::string& name, UpdateTrigger trigger,
                   UpdateRequester::Completion completion = {});
// Hand the hold to the installed requester; nothing without one.
void holdPackForReading(const std::string& name);
void releasePackFromReading(const std::string& name);

}  // namespace FerritCore
