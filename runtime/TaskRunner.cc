#include "runtime/TaskRunner.h"

#include <mutex>
#include <queue>
#include <vector>

#include "marl/Clock.h"

namespace FerritCore {
namespace {

struct Entry {
    double due;
    unsigned long long order;
    TaskRunner::Task task;
};

// Earliest due first; equal times keep the order of posting.
struct Later {
    bool operator()(const Entry& a, const Entry& b) const {
        return a.due != b.due ? a.due > b.due : a.order > b.order;
    }
};

struct Queue {
    std::mutex mutex;
    std::priority_queue<Entry, std::vector<Entry>, Later> heap;  // guarded by mutex
    unsigned long long nextOrder = 0;                            // guarded by mutex
};

Queue& queue() {
    static Queue* instance = new Queue();  // lives until the process ends
    return *instance;
}

}  // namespace

void TaskRunner::post(Task task, double delayMs) {
    if (!task) return;
    Queue& q = queue();
    const double due = MRLCurrentClock() + (delayMs > 0 ? delayMs : 0);
    std::lock_guard<std::mutex> lock(q.mutex);
    q.heap.push(Entry{due, q.nextOrder++, std::move(task)});
}

size_t TaskRunner::runDue() {
    Queue& q = queue();
    size_t ran = 0;
    for (;;) {
        Task task;
        {
            std::lock_guard<std::mutex> lock(q.mutex);
            if (q.heap.empty() || q.heap.top().due > MRLCurrentClock()) break;
            task = std::move(const_cast<Entry&>(q.heap.top()).task);
            q.heap.pop();
        }
        task();  // never under the lock: a task may post more
        ++ran;
    }
    return ran;
}

size_t TaskRunner::pendingCount() {
    Queue& q = queue();
    std::lock_guard<std::mutex> lock(q.mutex);
    return q.heap.size();
}

void TaskRunner::clear() {
    Queue& q = queue();
    std::lock_guard<std::mutex> lock(q.mutex);
    q.heap = {};
}

}  // namespace FerritCore
