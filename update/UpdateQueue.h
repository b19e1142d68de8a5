// UpdateQueue: the scheduler of pack updates, which the read path reaches as its UpdateRequester.
// Any thread. Until the scheduler that downloads packs is running, a request is logged and
// answered at once with "update disabled" (2003), so that no caller waits forever.
#pragma once

#include <functional>
#include <string>

#include "ferritcore/Error.h"

namespace FerritCore {

class UpdateQueue {
  public:
    using Completion = std::function<void(const Error&)>;

    // Asks for an update of `name` with `trigger`; `completion` (may be empty) learns the outcome.
    static void request(const std::string& name, int trigger, Completion completion = {});

    // The scheduler's run controls: start a run with a trigger, pause while the client is in the
    // background, resume in the foreground. Until the scheduler is attached (setControls), each is
    // logged under "Ferrit/Queue" and has no other effect.
    struct Controls {
        std::function<void(int trigger)> start;
        std::function<void()> pause;
        std::function<void()> resume;
    };
    static void start(int trigger);
    static void pause();
    static void resume();
    static void setControls(Controls controls);
};

}  // namespace FerritCore
