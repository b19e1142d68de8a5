#include "runtime/TimeMarks.h"

#include <atomic>
#include <cmath>
#include <mutex>
#include <unordered_map>

#include "base/LogTags.h"
#include "base/ProcessState.h"
#include "base/ServiceSlot.h"
#include "ferritcore/Error.h"
#include "marl/Json.h"
#include "marl/Log.h"
#include "support/Mutex.h"

namespace FerritCore {
namespace {

using MarlLogger::json::JSON;

// Before a store is installed (the composition root installs the shared configuration store),
// marks live in memory for the life of the process.
class MemoryMarks : public MarkStore {
  public:
    double load(const std::string& key) override {
        MutexLock lock(mutex_);
        auto it = marks_.find(key);
        return it == marks_.end() ? 0 : it->second;
    }
    void store(const std::string& key, double value) override {
        MutexLock lock(mutex_);
        marks_[key] = value;
    }
    void clear() {
        MutexLock lock(mutex_);
        marks_.clear();
    }

  private:
    Mutex mutex_;
    std::unordered_map<std::string, double> marks_ GUARDED_BY(mutex_);
};

struct State {
    std::shared_ptr<MemoryMarks> memory = std::make_shared<MemoryMarks>();
    // Serialises the read-then-write operations so that two threads exchanging one mark each
    // see a different previous value.
    Mutex exchange;

    std::shared_ptr<MarkStore> store() const {
        std::shared_ptr<MarkStore> installed = ServiceSlot<MarkStore>::instance().get();
        return installed ? installed : memory;
    }
};

State& state() {
    static State* const instance = [] {
        auto* made = new State();  // lives until the process ends
        ProcessState::onReset([made] { made->memory->clear(); });
        return made;
    }();
    return *instance;
}

std::string keyFor(std::string_view name) {
    std::string key(TimeMarks::kKeyPrefix);
    key.append(name);
    return key;
}

// A mark that was never written, or that holds garbage, counts as absent.
bool isUsable(double value) {
    return value != 0 && std::isfinite(value);
}

}  // namespace

double TimeMarks::readMark(std::string_view name, double now) {
    State& s = state();
    const std::string key = keyFor(name);
    MutexLock lock(s.exchange);
    std::shared_ptr<MarkStore> marks = s.store();
    const double value = marks->load(key);
    if (isUsable(value)) return value;
    marks->store(key, now);
    return now;
}

double TimeMarks::exchangeMark(std::string_view name, double now) {
    State& s = state();
    const std::string key = keyFor(name);
    MutexLock lock(s.exchange);
    std::shared_ptr<MarkStore> marks = s.store();
    const double value = marks->load(key);
    marks->store(key, now);
    return isUsable(value) ? value : now;
}

void TimeMarks::writeMark(std::string_view name, double value) {
    State& s = state();
    const std::string key = keyFor(name);
    MutexLock lock(s.exchange);
    s.store()->store(key, value);
}

void TimeMarks::setStore(std::shared_ptr<MarkStore> store) {
    ServiceSlot<MarkStore>::instance().set(std::move(store));
}

std::shared_ptr<MarkStore> TimeMarks::store() {
    return state().store();
}

}  // namespace FerritCore
