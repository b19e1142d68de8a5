#include "update/SCache.h"

#include <atomic>
#include <mutex>

namespace FerritCore {
namespace {

struct State {
    std::atomic<FConfigPtr> current{std::make_shared<const FConfig>()};
    std::recursive_mutex writers;
    SCache::CommitHook commit;  // guarded by writers
};

State& state() {
    static State* instance = new State();  // lives until the process ends
    return *instance;
}

}  // namespace

FConfigPtr SCache::current() { return state().current.load(std::memory_order_acquire); }

FConfigPtr SCache::mutate(const std::function<void(FConfig&)>& change) {
    State& s = state();
    std::lock_guard<std::recursive_mutex> lock(s.writers);
    auto copy = std::make_shared<FConfig>(s.current.load(std::memory_order_acquire)->copyForChange());
    change(*copy);
    copy->rebuildIndexes();
    FConfigPtr published = copy;
    if ((copy->dirty || !copy->removed.empty()) && s.commit) s.commit(published);
    s.current.store(published, std::memory_order_release);
    return published;
}

void SCache::setCommitHook(CommitHook hook) {
    State& s = state();
    std::lock_guard<std::recursive_mutex> lock(s.writers);
    s.commit = std::move(hook);
}

void SCache::reset() {
    State& s = state();
    std::lock_guard<std::recursive_mutex> lock(s.writers);
    s.current.store(std::make_shared<const FConfig>(), std::memory_order_release);
}

}  // namespace FerritCore
