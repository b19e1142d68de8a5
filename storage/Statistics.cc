#include "storage/Statistics.h"

#include <atomic>
#include <map>
#include <memory>
#include <mutex>

#include "base/ProcessState.h"
#include "base/StringMap.h"
#include "marl/Clock.h"
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
};

Table& table() {
    static Table* const instance = ProcessState::create<Table>([](Table& t) {
        MutexLock guard(t.lock);
        t.entries.clear();
        t.generation.fetch_add(1, std::memory_order_acq_rel);
    });
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

}  // namespace

bool Statistics::addAccess(const std::string& name, double* accessCount, double weight) {
    return addAccess(name, accessCount, weight, MRLCurrentClock());
}

bool Statistics::addAccess(const std::string& name, double* accessCount, double weight,
                           double now) {
    Table& t = table();
    PackStat& stat = entryOf(t, name);
    // The one access of the window that moves its start counts; racing accesses lose the
    // exchange and count nothing. Inside the window nothing is written, so threads that read one
    // pack at once share its entry's cache line without bouncing it.
    double last = stat.lastTime.load(std::memory_order_acquire);
    bool first = false;
    while (last == 0.0 || now - last >= kRepeatWindowMs) {
        if (stat.lastTime.compare_exchange_weak(last, now, std::memory_order_acq_rel)) {
            first = last == 0.0;
            addTo(stat.accessCount, weight);
            break;
        }
    }
    if (accessCount != nullptr) *accessCount = stat.accessCount.load(std::memory_order_relaxed);
    return first;
}

void Statistics::addPrefetch(const std::string& name) {
    const size_t at = name.rfind('@');
    addTo(entryOf(table(), at == std::string::npos ? name : name.substr(0, at)).prefetchCount, 1.0);
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

MarlLogger::json::JSON Statistics::dump() {
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

}  // namespace FerritCore
