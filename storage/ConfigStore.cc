#include "storage/ConfigStore.h"

#include "base/Errors.h"
#include "base/LogTags.h"
#include "base/StorageState.h"
#include "base/Telemetry.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "storage/StoreInstance.h"

namespace FerritCore {

ConfigStore::ConfigStore()
    : MetaStore(kDirectory, std::string(LogTag::kConfig), KeyValueStore::Options::forConfig()) {}

ConfigStore& ConfigStore::instance() {
    return StoreInstance<ConfigStore>::get();
}

namespace {

using MarlLogger::json::JSON;

// A store that cannot be read answers 0, which makes the mark count as absent; a failed write is
// logged and the timer keeps its rhythm in memory until the next write.
class ConfigStoreMarks : public MarkStore {
  public:
    double load(const std::string& key) override {
        const ErrorOr<JSON> value = ConfigStore::instance().get(key);
        return value.ok() ? value->doubleValue() : 0;
    }
    void store(const std::string& key, double value) override {
        // While nothing can be written the timer keeps its rhythm in memory, without a warning
        // at every tick.
        if (!StorageState::writable()) return;
        const Error error = ConfigStore::instance().put(key, JSON(value));
        if (!error) return;
        MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, LogTag::kTask)
            .event("writeMark")
            .append("key", key)
            .error(error);
    }
};

}  // namespace

std::shared_ptr<MarkStore> ConfigStore::marks() {
    return std::make_shared<ConfigStoreMarks>();
}

void ConfigStore::openAndReport() {
    const double start = MRLCurrentClock();
    const int first = open();
    const double elapsed = MRLCurrentClock() - start;

    PerfRecord record("Ferrit.ConfigInit");
    // The store may work although its first open failed: the report says what was lost.
    if (first != 0)
        record.setError(withStatusText(Errors::initStoreFailed(directory(), first), first));
    record.setMeasure("diskSize", static_cast<double>(diskSize()));
    record.setMeasure("time", elapsed);
    sendEvent(record);

    auto log = MarlLogger::Log::build(
        first == 0 ? MarlLogger::MRLLevelInfo : MarlLogger::MRLLevelWarning, tag());
    if (!log.active()) return;
    log.event("init");
    logRecord(record, log);
}

}  // namespace FerritCore
