// UpdateQueue: the scheduler of pack updates, which the read path reaches as its UpdateRequester.
// Any thread.
//
// What is here is the smallest queue that lets a read's request install a pack: each request
// makes one UpdatePack task and posts its start to the worker; a request for a pack whose task is
// still running waits for that task instead of starting a second one on the same folders. There
// is no ordering by score, no fast lane, no limit per run, no pause and no set of packs held by
// readers yet: start, pause and resume stay the scheduler's controls, which only log until the
// scheduler is attached.
#pragma once

#include <functional>
#include <string>

#include "ferritcore/Error.h"

namespace FerritCore {

class UpdateQueue {
  public:
    using Completion = std::function<void(const Error&)>;

    // Asks for an update of `name` with `trigger`; `completion` (may be empty) learns the outcome,
    // on the worker, or at once on the calling thread when there is nothing to run: a pack that
    // is up to date (success), one that may not be updated now (the task's error), or a sub
    // process (2004). A name "pack@seq" that the configuration does not hold asks for that fixed
    // version of "pack".
    static void request(const std::string& name, int trigger, Completion completion = {});
    // Tasks started and not yet finished.
    static size_t runningCount();

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
