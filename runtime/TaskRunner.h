// TaskRunner: where background work is posted. Tasks run one at a time in order of due time, then
// of posting. This version keeps the queue and runs due tasks when asked (runDue), which is what
// tests drive deterministically under the injectable clock; the worker thread drives the same
// queue in production. post() is safe from any thread.
#pragma once

#include <cstddef>
#include <functional>

namespace FerritCore {

class TaskRunner {
public:
    using Task = std::function<void()>;

    // Queues `task` to run `delayMs` milliseconds of the monotonic clock from now.
    static void post(Task task, double delayMs = 0);
    // Runs every task whose time has come, including tasks that those tasks post for now, in
    // order; returns how many ran.
    static size_t runDue();
    // Tasks waiting, due or not.
    static size_t pendingCount();
    // Drops every waiting task (tests).
    static void clear();
};

}  // namespace FerritCore
