#include "model/SCache.h"

#include <atomic>
#include <mutex>

#include "base/Environment.h"
#include "base/Errors.h"
#include "base/LogTags.h"
#include "base/ProcessState.h"
#include "base/Published.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "model/ResourceIndex.h"
#include "runtime/TaskRunner.h"
#include "support/Mutex.h"

namespace FerritCore {
namespace {

struct State {
    Published<const FConfig> current{std::make_shared<const FConfig>()};
    RecursiveMutex writers;
    std::atomic<std::shared_ptr<ConfigStorage>> storage;
    // The storage's dataVersion() when the current document was last loaded from it or found to
    // match it; 0 before anything was, and then the first look only takes it as the baseline.
    std::atomic<uint64_t> seenVersion{0};
    // Documents that refresh() published.
    std::atomic<uint64_t> reloads{0};
    // Commits posted and not yet run: while there are any, the stored document is older than
    // what this process holds, and reloading it would undo a local change.
    std::atomic<int> pendingCommits{0};
    std::atomic<bool> loaded{false};
};

State& state() {
    static State* const instance = ProcessState::create<State>([](State& s) {
        RecursiveLock lock(s.writers);
        s.current.store(std::make_shared<const FConfig>());
        s.storage.store(nullptr, std::memory_order_release);
        s.seenVersion.store(0, std::memory_order_release);
        s.reloads.store(0, std::memory_order_release);
        s.pendingCommits.store(0, std::memory_order_release);
        s.loaded.store(false, std::memory_order_release);
    });
    return *instance;
}

// A built-in pack as this process loaded it from its own asset: the stored document may hold
// another process's copy, which this process's embedded index does not describe.
bool isLoadedBuiltIn(const Pack& pack) {
    return pack.packType() == kPackTypeSCache && pack.status != kPackStatusPreview &&
           pack.subType != kSubTypeFixedSeq;
}

// Whether a cached index of the pack in `before` still describes the pack in `after`.
bool sameInstall(const Pack& before, const Pack& after) {
    return before.installedSeq == after.installedSeq && before.isPacks == after.isPacks &&
           before.installTime == after.installTime;
}

// Makes `document`, read back from storage, the successor of `previous`: the built-in packs this
// process loaded stay as they are, and the lists of packs whose install changed are let go.
// Returns how many changed.
size_t takeOver(FConfig& document, const FConfig& previous) {
    std::vector<std::string> builtIn;
    for (const auto& [name, pack] : document.packs())
        if (isLoadedBuiltIn(*pack)) builtIn.push_back(name);
    for (const std::string& name : builtIn) document.erase(name);
    for (const auto& [name, pack] : previous.packs())
        if (isLoadedBuiltIn(*pack)) document.store(pack);
    document.scacheVersion = previous.scacheVersion;
    document.rebuildIndexes(&previous);
    document.dirty = false;
    document.removed.clear();

    size_t changed = 0;
    for (const auto& [name, pack] : previous.packs()) {
        const PackPtr now = document.find(name);
        if (now && sameInstall(*pack, *now)) continue;
        ResourceIndexPool::remove(name);
        ++changed;
    }
    return changed;
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
    // A change builds on what another process committed last, not on what this one last read:
    // otherwise its commit would put back a version that the other process replaced.
    refresh();
    const FConfigPtr previous = s.current.load();
    auto copy = std::make_shared<FConfig>(previous->copyForChange());
    change(*copy);
    copy->rebuildIndexes(previous.get());
    FConfigPtr published = copy;
    if ((copy->dirty || !copy->removed.empty()) && Environment::instance().isMainProcess()) {
        s.pendingCommits.fetch_add(1, std::memory_order_acq_rel);
        TaskRunner::post([published, durability, committed = std::move(committed)] {
            const Error error = commit(*published, durability);
            state().pendingCommits.fetch_sub(1, std::memory_order_acq_rel);
            if (committed) committed(error);
        });
    } else if (committed) {
        committed(Error());
    }
    s.current.store(published);
    s.loaded.store(true, std::memory_order_release);
    return published;
}

void SCache::publish(std::shared_ptr<FConfig> document, std::optional<uint64_t> loadedAt) {
    if (!document) return;
    State& s = state();
    RecursiveLock lock(s.writers);
    document->rebuildIndexes(nullptr);
    document->dirty = false;
    document->removed.clear();
    s.current.store(std::move(document));
    s.seenVersion.store(loadedAt ? *loadedAt : storedVersion(), std::memory_order_release);
    s.loaded.store(true, std::memory_order_release);
}

uint64_t SCache::storedVersion() {
    std::shared_ptr<ConfigStorage> storage = state().storage.load(std::memory_order_acquire);
    return storage ? storage->dataVersion() : 0;
}

uint64_t SCache::reloadCount() {
    return state().reloads.load(std::memory_order_acquire);
}

bool SCache::refresh() {
    State& s = state();
    std::shared_ptr<ConfigStorage> storage = s.storage.load(std::memory_order_acquire);
    if (!storage) return false;
    uint64_t version = storage->dataVersion();
    uint64_t seen = s.seenVersion.load(std::memory_order_acquire);
    if (version == 0 || version == seen) return false;
    if (seen == 0) {
        // Nothing was loaded through this storage yet: what this process holds is the baseline.
        s.seenVersion.compare_exchange_strong(seen, version, std::memory_order_acq_rel);
        return false;
    }

    RecursiveLock lock(s.writers);
    if (s.pendingCommits.load(std::memory_order_acquire) > 0) return false;
    // Another thread may have reloaded while this one waited; and the number is taken before the
    // text, so that a commit landing in between is reloaded again rather than missed.
    version = storage->dataVersion();
    if (version == 0 || version == s.seenVersion.load(std::memory_order_acquire)) return false;
    const double start = MRLCurrentClock();
    Error error;
    std::string text = storage->readConfig(error);
    std::shared_ptr<FConfig> document;
    if (!error && !text.empty()) {
        document = FConfig::parseStored(std::move(text), error, [&storage] {
            Error ignored;
            return storage->readConfig(ignored);
        });
    }
    if (!document) {
        // Taken as seen all the same: a document that does not read would otherwise be read
        // again by every failing request until the next commit replaces it.
        s.seenVersion.store(version, std::memory_order_release);
        MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, LogTag::kSCache)
            .event("reload")
            .error(error ? error : Errors::storageNotExists("packs", "config"));
        return false;
    }

    const FConfigPtr previous = s.current.load();
    const size_t changed = takeOver(*document, *previous);
    s.current.store(document);
    s.seenVersion.store(version, std::memory_order_release);
    s.reloads.fetch_add(1, std::memory_order_acq_rel);
    MarlLogger::LogBuilder(MarlLogger::MRLLevelInfo, LogTag::kSCache)
        .event("reload")
        .append("version", document->version)
        .append("previousVersion", previous->version)
        .append("packs", static_cast<uint64_t>(document->packs().size()))
        .append("changedPacks", static_cast<uint64_t>(changed))
        .append("time", MRLCurrentClock() - start);
    return true;
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
