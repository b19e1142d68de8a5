// UpdateQueue: the requests that reading makes for pack updates. Any thread.
// Until the scheduler that downloads packs is running, requests go to the installed handler;
// without one they are logged and answered at once with "update disabled" (2003), so that no
// caller waits forever.
#pragma once

#include <functional>
#include <string>

#include "ferritcore/Error.h"

namespace FerritCore {

class UpdateQueue {
public:
    using Completion = std::function<void(const Error&)>;
    using Handler = std::function<void(const std::string& name, int trigger, Completion completion)>;

    // Asks for an update of `name` with `trigger`; `completion` (may be empty) learns the outcome.
    static void request(const std::string& name, int trigger, Completion completion = {});
    static void setHandler(Handler handler);
};

}  // namespace FerritCore
