#include "base/ProcessState.h"

#include <mutex>
#include <vector>

namespace FerritCore::ProcessState {
namespace {

struct Registry {
    std::mutex mutex;
    std::vector<std::function<void()>> resets;  // guarded by mutex
};

Registry& registry() {
    static Registry* instance = new Registry();  // lives until the process ends
    return *instance;
}

}  // namespace

void onReset(std::function<void()> reset) {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.resets.push_back(std::move(reset));
}

void resetForTesting() {
    Registry& r = registry();
    std::vector<std::function<void()>> resets;
    {
        std::lock_guard<std::mutex> lock(r.mutex);
        resets = r.resets;
    }
    // Outside the lock: a reset may create (and so register) a piece it depends on.
    for (auto it = resets.rbegin(); it != resets.rend(); ++it) (*it)();
}

}  // namespace FerritCore::ProcessState
