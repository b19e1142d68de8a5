#include "base/ProcessState.h"

#include <mutex>
#include <vector>

#include "support/Mutex.h"

namespace FerritCore::ProcessState {
namespace {

struct Registry {
    Mutex mutex;
    std::vector<std::function<void()>> resets GUARDED_BY(mutex);
};

Registry& registry() {
    static Registry* instance = new Registry();  // lives until the process ends
    return *instance;
}

}  // namespace

void onReset(std::function<void()> reset) {
    Registry& r = registry();
    MutexLock lock(r.mutex);
    r.resets.push_back(std::move(reset));
}

void resetForTesting() {
    Registry& r = registry();
    std::vector<std::function<void()>> resets;
    {
        MutexLock lock(r.mutex);
        resets = r.resets;
    }
    // Outside the lock: a reset may create (and so register) a piece it depends on.
    for (auto it = resets.rbegin(); it != resets.rend(); ++it) (*it)();
}

}  // namespace FerritCore::ProcessState
