// Access: the front door. Answers a ResourceRequest from installed packs, or says why not.
// Any thread; takes no lock of its own (matching reads an atomic configuration snapshot).
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "ferritcore/Export.h"
#include "ferritcore/ResourceRequest.h"
#include "ferritcore/ResourceResponse.h"

namespace FerritCore {

class Resource;

// ResourcePolicy: how a request is matched.
enum ResourcePolicy : int {
    kPolicyProbe = 0,  // match only; never splits an aggregate URL
    kPolicySync = 1,
    kPolicyAsync = 2,
};

class FERRIT_EXPORT Access {
  public:
    // Synchronous: never waits on the network. A pack that can only be read asynchronously
    // fails with 1108 and the host retries through the asynchronous form.
    static std::unique_ptr<ResourceResponse> getResource(const ResourceRequest& request);
    // Asynchronous: `callback` runs once, on the calling thread for early failures and otherwise
    // on whichever thread finishes the read. An empty callback returns at once.
    static void getResource(const ResourceRequest& request,
                            std::function<void(std::unique_ptr<ResourceResponse>)> callback);
    // Queues the packs behind the URLs or pack names with the trigger "Prefetch", ahead of other
    // normal updates; the result is the log event "trigger" under "Ferrit/Prefetch". Any thread.
    static void prefetch(const std::vector<std::string>& urls);
    // The matcher. Never null.
    static std::shared_ptr<Resource> match(const ResourceRequest& request, ResourcePolicy policy);
};

}  // namespace FerritCore
