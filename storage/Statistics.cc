#include "storage/Statistics.h"

#include <atomic>
#include <cmath>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "base/Environment.h"
#include "base/LogTags.h"
#include "base/ProcessState.h"
#include "base/StringMap.h"
#include "base/Telemetry.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "runtime/TaskRunner.h"
#include "runtime/WorkerCheck.h"
#include "storage/ConfigStore.h"
#include "support/Mutex.h"

namespace FerritCore {
namespace {

struct PackStat {
    std::atomic<double> accessCount{0.0};
    std::atomic<double> prefetchCount{0.0};
    std::atomic<double> lastTime{0.0};  // clock of the last counted access; 0 after loading
    // Set from a change until the write that carries it; only the thread that sets it queues the
    // entry, so a burst of changes queues it once.
    std::atomic<bool> dirty{false};
};

// An entry waiting to be written. Entries stay where they are until the table is emptied, and
// the queue is emptied with it.
struct Pending {
    std::string name;
    PackStat* stat;
};

// What waits for the worker's write. On a cache line of its own: every count reads the table's
// generation and loaded flag, and queueing must not take that line away from the readers.
struct alignas(64) WriteQueue {
    Mutex lock;
    std::vector<Pending> entries GUARDED_BY(lock);
    // The one flush task that many counts post (see TaskRunner::postOnce).
    std::atomic<TaskId> flushTask{0};
};

struct Table {
    Mutex lock;
    // An entry, once made, stays where it is until the table is emptied.
    StringMap<std::unique_ptr<PackStat>> entries GUARDED_BY(lock);
    // Moves on when entries go: what a thread found before is then looked up again.
    std::atomic<uint64_t> generation{1};
    // Set once the stored entries are in the map; every lookup waits for it.
    std::atomic<bool> loaded{false};
    WriteQueue queue;
    // Serialises every write of the statistics keys, from reading the values to the store's
    // commit, so that a write of older values never lands after one of newer values. Held across
    // the store's I/O, which is why it is not the table's lock; no count ever takes it.
    alignas(64) Mutex writeLock;
};

constexpr const char* kStoredAccess = "c";
constexpr const char* kStoredPrefetch = "p";

bool isMainProcess() {
    return Environment::instance().isMainProcess();
}

// Reads every stored entry into the map. A value that does not read loses that entry alone.
void load(Table& t, ConfigStore& store) REQUIRES(t.lock) {
    t.lock.assertHeld();
    const double start = MRLCurrentClock();
    std::vector<std::string> keys;
    store.enumerate(Statistics::kKeyPrefix, [&](std::string_view key) {
        keys.emplace_back(key);
        return false;
    });
    const size_t prefixLength = std::string_view(Statistics::kKeyPrefix).size();
    size_t count = 0;
    for (const std::string& key : keys) {
        if (key.size() <= prefixLength) continue;
        const MarlLogger::json::JSON value = store.get(key).valueOr(MarlLogger::json::JSON());
        if (!value.isObject()) continue;
        auto stat = std::make_unique<PackStat>();
        stat->accessCount.store(value[kStoredAccess].doubleValueOr(0.0), std::memory_order_relaxed);
        stat->prefetchCount.store(value[kStoredPrefetch].doubleValueOr(0.0),
                                  std::memory_order_relaxed);
        t.entries[key.substr(prefixLength)] = std::move(stat);
        ++count;
    }
    MarlLogger::LogBuilder(MarlLogger::MRLLevelInfo, LogTag::kStatistics)
        .event("load")
        .append("time", MRLCurrentClock() - start)
        .append("count", static_cast<uint64_t>(count));
}

void writeAtReset();

void ensureLoaded(Table& t) {
    if (t.loaded.load(std::memory_order_acquire)) return;
    // Opened before the lock is taken: a first open reports through the proxy, which is never
    // called with a lock held.
    ConfigStore& store = ConfigStore::instance();
    writeAtReset();
    MutexLock guard(t.lock);
    if (t.loaded.load(std::memory_order_relaxed)) return;
    load(t, store);
    t.loaded.store(true, std::memory_order_release);
}

using WriteHook = void (*)(size_t entries);
std::atomic<WriteHook> writeHook{nullptr};

MarlLogger::json::JSON storedValue(const PackStat& stat) {
    return MarlLogger::json::JSONObject{
        {kStoredAccess, stat.accessCount.load(std::memory_order_relaxed)},
        {kStoredPrefetch, stat.prefetchCount.load(std::memory_order_relaxed)}};
}

Table& rawTable() {
    static Table* const instance = ProcessState::create<Table>([](Table& t) {
        // A write under way holds pointers to the entries that go here.
        MutexLock writing(t.writeLock);
        {
            MutexLock guard(t.queue.lock);
            t.queue.entries.clear();
        }
        // The runner drops the task at the same reset; this holder must not wait for that.
        t.queue.flushTask.store(0, std::memory_order_release);
        MutexLock guard(t.lock);
        t.entries.clear();
        t.generation.fetch_add(1, std::memory_order_acq_rel);
        t.loaded.store(false, std::memory_order_release);
    });
    return *instance;
}

Table& table() {
    Table& t = rawTable();
    ensureLoaded(t);
    return t;
}

// Writes every queued entry in one transaction. A failure is ignored: memory stays right and the
// next change writes again.
void writeQueued(Table& t) EXCLUDES(t.lock) {
    // Opened before the lock is taken: a first open reports through the proxy.
    ConfigStore& store = ConfigStore::instance();
    MutexLock writing(t.writeLock);
    std::vector<Pending> taken;
    {
        MutexLock guard(t.queue.lock);
        taken.swap(t.queue.entries);
    }
    std::vector<std::pair<std::string, MarlLogger::json::JSON>> values;
    values.reserve(taken.size());
    for (const Pending& pending : taken) {
        // Cleared before the values are read: a change that lands after this queues the entry
        // again, and the next write carries it. Already clear means a decay wrote it since.
        if (!pending.stat->dirty.exchange(false, std::memory_order_acq_rel)) continue;
        values.emplace_back(Statistics::kKeyPrefix + pending.name, storedValue(*pending.stat));
    }
    if (values.empty()) return;
    if (WriteHook hook = writeHook.load(std::memory_order_acquire)) hook(values.size());
    static_cast<void>(store.putAll(values));
}

// At a reset the configuration store resets too, and before the table does: what waits is
// written while the store is still open. Registered once, after the store exists, so that it
// runs before the store's own reset.
void writeAtReset() {
    static std::once_flag registered;
    std::call_once(registered, [] {
        ProcessState::onReset([] {
            Table& t = rawTable();
            if (t.loaded.load(std::memory_order_acquire)) writeQueued(t);
        });
    });
}

// Queues a change of `stat` for the worker's write. A sub-process reads what the main one writes
// and never writes itself.
void markChanged(Table& t, const std::string& name, PackStat& stat) {
    if (!isMainProcess()) return;
    // Set already: the entry is queued and its write reads the values after this change.
    if (stat.dirty.exchange(true, std::memory_order_acq_rel)) return;
    {
        MutexLock guard(t.queue.lock);
        t.queue.entries.push_back({name, &stat});
    }
    // The store's write, with its syncs, happens on the worker and never on the request's thread.
    TaskRunner::postOnce(
        t.queue.flushTask,
        [] {
            assertOnWorker();
            writeQueued(rawTable());
        },
        0);
}

// The entry of `name`, made when there is none. A thread remembers what it found, so that counting
// a pack it counted before takes no lock.
PackStat& entryOf(Table& t, const std::string& name) {
    struct Found {
        uint64_t generation = 0;
        StringMap<PackStat*> entries;
    };
    thread_local Found mine;
    const uint64_t generation = t.generation.load(std::memory_order_acquire);
    if (mine.generation == generation) {
        auto it = mine.entries.find(std::string_view(name));
        if (it != mine.entries.end()) return *it->second;
    } else {
        mine.entries.clear();
        mine.generation = generation;
    }
    PackStat* stat;
    {
        MutexLock guard(t.lock);
        auto& entry = t.entries[name];
        if (!entry) entry = std::make_unique<PackStat>();
        stat = entry.get();
    }
    mine.entries.emplace(name, stat);
    return *stat;
}

void addTo(std::atomic<double>& counter, double weight) {
    double value = counter.load(std::memory_order_relaxed);
    while (!counter.compare_exchange_weak(value, value + weight, std::memory_order_relaxed)) {
    }
}

// Counts on one name. Only the access that moves the window's start counts: racing accesses lose
// the exchange and count nothing. Inside the window nothing is written, so threads that read one
// pack at once share its entry's cache line without bouncing it.
bool countOn(const std::string& name, double* accessCount, double weight, double now) {
    Table& t = table();
    PackStat& stat = entryOf(t, name);
    double last = stat.lastTime.load(std::memory_order_acquire);
    bool first = false;
    bool counted = false;
    // A lastTime below 1 is an entry never counted in this process, whatever the clock reads.
    while (last < 1.0 || last + Statistics::kRepeatWindowMs < now) {
        if (stat.lastTime.compare_exchange_weak(last, now, std::memory_order_acq_rel)) {
            first = last < 1.0;
            counted = true;
            addTo(stat.accessCount, weight);
            break;
        }
    }
    if (counted) markChanged(t, name, stat);
    if (accessCount != nullptr) *accessCount = stat.accessCount.load(std::memory_order_relaxed);
    return first;
}

// log(v + 1) of a positive value, nothing below the floor.
double decayed(double value) {
    if (value <= 0.0) return value;
    const double next = std::log(value + 1.0);
    return next < Statistics::kDecayFloor ? 0.0 : next;
}

void decayCounter(std::atomic<double>& counter) {
    double value = counter.load(std::memory_order_relaxed);
    while (value > 0.0 &&
           !counter.compare_exchange_weak(value, decayed(value), std::memory_order_relaxed)) {
    }
}

}  // namespace

bool Statistics::addAccess(const std::string& name, double* accessCount, double weight) {
    return addAccess(name, accessCount, weight, MRLCurrentClock());
}

bool Statistics::addAccess(const std::string& name, double* accessCount, double weight,
                           double now) {
    const bool first = countOn(name, accessCount, weight, now);
    const size_t at = name.rfind('@');
    if (at != std::string::npos) countOn(name.substr(0, at), nullptr, weight, now);
    return first;
}

void Statistics::addPrefetch(const std::string& name) {
    const std::string pack = name.substr(0, name.rfind('@'));
    Table& t = table();
    PackStat& stat = entryOf(t, pack);
    addTo(stat.prefetchCount, kAccessWeight);
    markChanged(t, pack, stat);
}

void Statistics::setWriteHookForTesting(void (*hook)(size_t entries)) {
    writeHook.store(hook, std::memory_order_release);
}

void Statistics::flush() {
    Table& t = rawTable();
    if (t.loaded.load(std::memory_order_acquire)) writeQueued(t);
}

double Statistics::prefetchValue(const std::string& name) {
    Table& t = table();
    MutexLock guard(t.lock);
    auto it = t.entries.find(std::string_view(name));
    return it == t.entries.end() ? 0.0 : it->second->prefetchCount.load(std::memory_order_relaxed);
}

double Statistics::accessValue(const std::string& name) {
    Table& t = table();
    MutexLock guard(t.lock);
    auto it = t.entries.find(std::string_view(name));
    return it == t.entries.end() ? 0.0 : it->second->accessCount.load(std::memory_order_relaxed);
}

MarlLogger::json::JSON Statistics::toJson() {
    std::map<std::string, MarlLogger::json::JSON> entries;
    {
        Table& t = table();
        MutexLock guard(t.lock);
        for (const auto& [name, stat] : t.entries) {
            entries[name] = MarlLogger::json::JSONObject{
                {"accessCount", stat->accessCount.load(std::memory_order_relaxed)},
                {"prefetchCount", stat->prefetchCount.load(std::memory_order_relaxed)}};
        }
    }
    MarlLogger::json::JSON out = MarlLogger::json::JSON(MarlLogger::json::JSONObject());
    for (auto& [name, value] : entries) out.set(name, std::move(value));
    return out;
}

bool Statistics::hasEntry(const std::string& name) {
    Table& t = table();
    MutexLock guard(t.lock);
    return t.entries.find(std::string_view(name)) != t.entries.end();
}

void Statistics::decay() {
    if (!isMainProcess()) return;
    struct Noted {
        std::string name;
        double prefetchCount;
        double accessCount;
    };
    std::vector<Noted> prefetched;
    std::vector<std::pair<std::string, MarlLogger::json::JSON>> values;
    std::vector<std::string> gone;
    Table& t = table();
    // Opened before any lock is taken: a first open reports through the proxy.
    ConfigStore& configStore = ConfigStore::instance();
    {
        // Held from the walk to the commit: no queued write can read values before the decay and
        // land after it.
        MutexLock writing(t.writeLock);
        {
            MutexLock guard(t.lock);
            for (const auto& [name, stat] : t.entries) {
                const double prefetch = stat->prefetchCount.load(std::memory_order_relaxed);
                if (prefetch > 0.0)
                    prefetched.push_back(
                        {name, prefetch, stat->accessCount.load(std::memory_order_relaxed)});
                // This write carries every change so far; one after the clearing queues again.
                static_cast<void>(stat->dirty.exchange(false, std::memory_order_acq_rel));
                decayCounter(stat->accessCount);
                decayCounter(stat->prefetchCount);
                if (stat->accessCount.load(std::memory_order_relaxed) <= 0.0 &&
                    stat->prefetchCount.load(std::memory_order_relaxed) <= 0.0) {
                    gone.push_back(kKeyPrefix + name);
                } else {
                    values.emplace_back(kKeyPrefix + name, storedValue(*stat));
                }
            }
        }
        // As every write of these keys: a failure leaves memory right and the next change writes.
        static_cast<void>(configStore.putAll(values));
        for (const std::string& key : gone) configStore.remove(key);
    }
    // Sent after the commit: the proxy is never called with a lock held.
    for (const Noted& noted : prefetched) {
        PerfRecord record("Ferrit.Prefetch");
        record.setDimension("packName", noted.name);
        record.setMeasure("prefetchCount", noted.prefetchCount);
        record.setMeasure("accessCount", noted.accessCount);
        sendEvent(record);
    }
}

}  // namespace FerritCore
