// UpdateRequester: what the read path asks of updating, which lies above it: a pack that cannot
// serve, or that has a newer version, is to be updated. The composition root installs the update
// queue here. Without one, a request is answered at once with "update disabled" (2003), so that
// no caller waits forever. Implementations must be safe from any thread.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "ferritcore/Error.h"

namespace FerritCore {

class UpdateRequester {
  public:
    using Completion = std::function<void(const Error&)>;

    virtual ~UpdateRequester() = default;
    // Asks for an update of `name` with `trigger`; `completion` (may be empty) learns the outcome,
    // on any thread.
    virtual void request(const std::string& name, int trigger, Completion completion) = 0;

    // The installed requester, or null.
    static std::shared_ptr<UpdateRequester> current();
    static void set(std::shared_ptr<UpdateRequester> requester);
};

// Hands the request to the installed requester, or answers 2003.
void requestUpdate(const std::string& name, int trigger,
                   UpdateRequester::Completion completion = {});

}  // namespace FerritCore
