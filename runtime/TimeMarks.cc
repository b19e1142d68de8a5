#include "runtime/TimeMarks.h"

#include <atomic>
#include <cmath>
#include <mutex>

#include "ferritcore/Error.h"
#include "marl/Json.h"
#include "marl/Log.h"
#include "runtime/LogTags.h"
#include "storage/ConfigStore.h"

namespace FerritCore {
namespace {

using MarlLogger::json::JSON;

// Marks live in the shared configuration store, so that they outlive the process. A store that
// cannot be read answers 0, which makes the mark count as absent; a failed write is logged and the
// timer keeps its rhythm in memory until the next write.
class ConfigStoreMarks : public MarkStore {
  public:
    double load(const std::string& key) override {
        Error error;
        const JSON value = ConfigStore::instance().get(key, error);
        return error ? 0 : value.doubleValue();
    }
    void store(const std::string& key, double value) override {
        Error error;
        if (ConfigStore::instance().put(key, JSON(value), error)) return;
        MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, LogTag::kTask)
            .event("writeMark")
            .append("key", key)
            .error(error);
    }
};

std::shared_ptr<MarkStore> makeDefaultStore() {
    return std::make_shared<ConfigStoreMarks>();
}

struct State {
    std::atomic<std::shared_ptr<MarkStore>> store{makeDefaultStore()};
    // Serialises the read-then-write operations so that two threads exchanging one mark each
    // see a different previous value.
    std::mutex exchange;
};

State& state() {
    static State* instance = new State();  // lives until the process ends
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
    std::lock_guard<std::mutex> lock(s.exchange);
    std::shared_ptr<MarkStore> marks = s.store.load(std::memory_order_acquire);
    const double value = marks->load(key);
    if (isUsable(value)) return value;
    marks->store(key, now);
    return now;
}

double TimeMarks::exchangeMark(std::string_view name, double now) {
    State& s = state();
    const std::string key = keyFor(name);
    std::lock_guard<std::mutex> lock(s.exchange);
    std::shared_ptr<MarkStore> marks = s.store.load(std::memory_order_acquire);
    const double value = marks->load(key);
    marks->store(key, now);
    return isUsable(value) ? value : now;
}

void TimeMarks::writeMark(std::string_view name, double value) {
    State& s = state();
    const std::string key = keyFor(name);
    std::lock_guard<std::mutex> lock(s.exchange);
    s.store.load(std::memory_order_acquire)->store(key, value);
}

void TimeMarks::setStore(std::shared_ptr<MarkStore> store) {
    state().store.store(store ? std::move(store) : makeDefaultStore(), std::memory_order_release);
}

std::shared_ptr<MarkStore> TimeMarks::store() {
    return state().store.load(std::memory_order_acquire);
}

}  // namespace FerritCore
