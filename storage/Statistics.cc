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
#include "storage/ConfigStore.h"
#include "support/Mutex.h"

namespace FerritCore {
namespace {

struct PackStat {
    std::atomic<double> accessCount{0.0};
    std::atomic<double> prefetchCount{0.0};
    std::atomic<double> lastTime{0.0};  // clock of the last counted access; 0 after loading
};

struct Table {
    Mutex lock;
    // An entry, once made, stays where it is until the table is emptied.
    StringMap<std::unique_ptr<PackStat>> entries GUARDED_BY(lock);
    // Moves on when entries go: what a thread found before is then looked up again.
    std::atomic<uint64_t> generation{1};
    // Set once the stored entries are in the map; every lookup waits for it.
    std::atomic<bool> loaded{false};
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

void ensureLoaded(Table& t) {
    if (t.loaded.load(std::memory_order_acquire)) return;
    // Opened before the lock is taken: a first open reports through the proxy, which is never
    // called with a lock held.
    ConfigStore& store = ConfigStore::instance();
    MutexLock guard(t.lock);
    if (t.loaded.load(std::memory_order_relaxed)) return;
    load(t, store);
    t.loaded.store(true, std::memory_order_release);
}

// Writes the entry; a failure is ignored: memory stays right and the next change writes again.
void store(const std::string& name, const PackStat& stat) {
    static_cast<void>(ConfigStore::instance().put(
        Statistics::kKeyPrefix + name,
        MarlLogger::json::JSONObject{
            {kStoredAccess, stat.accessCount.load(std::memory_order_relaxed)},
            {kStoredPrefetch, stat.prefetchCount.load(std::memory_order_relaxed)}}));
}

Table& table() {
    static Table* const instance = ProcessState::create<Table>([](Table& t) {
        MutexLock guard(t.lock);
        t.entries.clear();
        t.generation.fetch_add(1, std::memory_order_acq_rel);
        t.loaded.store(false, std::memory_order_release);
    });
    ensureLoaded(*instance);
    return *instance;
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
    PackStat& stat = entryOf(table(), name);
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
    if (counted && isMainProcess()) store(name, stat);
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
    PackStat& stat = entryOf(table(), pack);
    addTo(stat.prefetchCount, kAccessWeight);
    if (isMainProcess()) store(pack, stat);
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
    {
        Table& t = table();
        MutexLock guard(t.lock);
        ConfigStore& configStore = ConfigStore::instance();
        for (const auto& [name, stat] : t.entries) {
            const double prefetch = stat->prefetchCount.load(std::memory_order_relaxed);
            if (prefetch > 0.0)
                prefetched.push_back(
                    {name, prefetch, stat->accessCount.load(std::memory_order_relaxed)});
            decayCounter(stat->accessCount);
            decayCounter(stat->prefetchCount);
            if (stat->accessCount.load(std::memory_order_relaxed) <= 0.0 &&
                stat->prefetchCount.load(std::memory_order_relaxed) <= 0.0) {
                configStore.remove(kKeyPrefix + name);
            } else {
                store(name, *stat);
            }
        }
    }
    // Sent after the walk: the proxy is never called with the lock held.
    for (const Noted& noted : prefetched) {
        PerfRecord record("Ferrit.Prefetch");
        record.setDimension("packName", noted.name);
        record.setMeasure("prefetchCount", noted.prefetchCount);
        record.setMeasure("accessCount", noted.accessCount);
        sendEvent(record);
    }
}

}  // namespace FerritCore
