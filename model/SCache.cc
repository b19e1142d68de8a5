#include "model/SCache.h"

#include <atomic>
#include <mutex>

#include "base/Environment.h"
#include "base/LogTags.h"
#include "base/ProcessState.h"
#include "base/Published.h"
#include "marl/Log.h"
#include "runtime/TaskRunner.h"
#include "support/Mutex.h"

namespace FerritCore {
namespace {

struct State {
    Published<const FConfig> current{std::make_shared<const FConfig>()};
    RecursiveMutex writers;
    std::atomic<std::shared_ptr<ConfigStorage>> storage;
    std::atomic<bool> loaded{false};
};

State& state() {
    static State* const instance = ProcessState::create<State>([](State& s) {
        RecursiveLock lock(s.writers);
        s.current.store(std::make_shared<const FConfig>());
        s.storage.store(nullptr, std::memory_order_release);
        s.loaded.store(false, std::memory_order_release);
    });
    return *instance;
}

}  // namespace

FConfigPtr SCache::current() {
    return state().current.load();
}

SCache::Snapshot::Snapshot() : Published<const FConfig>::Reader(state().current) {}

FConfigPtr SCache::mutate(const std::function<void(FConfig&)>& change, Durability durability,
                          Committed committed) {
    State& s = state();
    RecursiveLock lock(s.writers);
    const FConfigPtr previous = s.current.load();
    auto copy = std::make_shared<FConfig>(previous->copyForChange());
    change(*copy);
    copy->rebuildIndexes(previous.get());
    FConfigPtr published = copy;
    if ((copy->dirty || !copy->removed.empty()) && Environment::instance().isMainProcess()) {
        TaskRunner::post([published, durability, committed = std::move(committed)] {
            const Error error = commit(*published, durability);
            if (committed) committed(error);
        });
    } else if (committed) {
        committed(Error());
    }
    s.current.store(published);
    s.loaded.store(true, std::memory_order_release);
    return published;
}

void SCache::publish(std::shared_ptr<FConfig> document) {
    if (!document) return;
    State& s = state();
    RecursiveLock lock(s.writers);
    document->rebuildIndexes(nullptr);
    document->dirty = false;
    document->removed.clear();
    s.current.store(std::move(document));
    s.loaded.store(true, std::memory_order_release);
}

bool SCache::loaded() {
    return state().loaded.load(std::memory_order_acquire);
}

Error SCache::commit(const FConfig& document, Durability durability) {
    std::shared_ptr<ConfigStorage> storage = state().storage.load(std::memory_order_acquire);
    if (!storage) return Error();
    Error error;
    if (document.dirty) {
        error = storage->writeConfig(document.serialize(), durability);
        if (error) {
            MarlLogger::LogBuilder(MarlLogger::MRLLevelError, LogTag::kSCache)
                .event("commit")
                .append("version", document.version)
                .error(error);
        }
    }
    for (const PackPtr& pack : document.removed) storage->removeFolder(pack->installedFolder());
    return error;
}

void SCache::wipeInstalled() {
    if (std::shared_ptr<ConfigStorage> storage = state().storage.load(std::memory_order_acquire))
        storage->wipeInstalled();
}

void SCache::setStorage(std::shared_ptr<ConfigStorage> storage) {
    state().storage.store(std::move(storage), std::memory_order_release);
}

}  // namespace FerritCore
