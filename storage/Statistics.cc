#include "storage/Statistics.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "base/ProcessState.h"
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
    std::unordered_map<std::string, std::unique_ptr<PackStat>> entries GUARDED_BY(lock);
};

Table& table() {
    static Table* const instance = ProcessState::create<Table>([](Table& t) {
        MutexLock guard(t.lock);
        t.entries.clear();
    });
    return *instance;
}

}  // namespace

bool Statistics::addAccess(const std::string& name, double* accessCount, double weight) {
    Table& t = table();
    const double now = MRLCurrentClock();
    MutexLock guard(t.lock);
    auto& entry = t.entries[name];
    if (!entry) entry = std::make_unique<PackStat>();
    const double last = entry->lastTime.load(std::memory_order_relaxed);
    const bool first = last == 0.0;
    if (first || now - last >= kRepeatWindowMs) {
        entry->accessCount.store(entry->accessCount.load(std::memory_order_relaxed) + weight,
                                 std::memory_order_relaxed);
        entry->lastTime.store(now, std::memory_order_relaxed);
    }
    if (accessCount != nullptr) *accessCount = entry->accessCount.load(std::memory_order_relaxed);
    return first;
}

double Statistics::accessValue(const std::string& name) {
    Table& t = table();
    MutexLock guard(t.lock);
    auto it = t.entries.find(name);
    return it == t.entries.end() ? 0.0 : it->second->accessCount.load(std::memory_order_relaxed);
}

bool Statistics::hasEntry(const std::string& name) {
    Table& t = table();
    MutexLock guard(t.lock);
    return t.entries.count(name) != 0;
}

}  // namespace FerritCore
