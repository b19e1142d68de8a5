#include "storage/ConfigStore.h"

#include <atomic>

#include "access/Errors.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "runtime/LogTags.h"
#include "runtime/Telemetry.h"

namespace FerritCore {

ConfigStore::ConfigStore()
    : MetaStore(kDirectory, std::string(LogTag::kConfig), KeyValueStore::Options::forConfig()) {}

namespace {
// Set once the instance exists, so that resetForTesting can tell a first use of its own, which
// has just opened and reported, from a reset of an instance made earlier.
std::atomic<bool> created{false};
}  // namespace

ConfigStore& ConfigStore::instance() {
    static ConfigStore* const store = [] {
        auto* made = new ConfigStore();
        made->openAndReport();
        created.store(true);
        return made;
    }();
    return *store;
}

void ConfigStore::resetForTesting() {
    const bool existed = created.load();
    ConfigStore& store = instance();
    if (!existed) return;
    store.close();
    store.openAndReport();
}

void ConfigStore::openAndReport() {
    const double start = MRLCurrentClock();
    const int first = open();
    const double elapsed = MRLCurrentClock() - start;

    PerfRecord record("Ferrit.ConfigInit");
    // The store may work although its first open failed: the report says what was lost.
    if (first != 0) record.setError(Errors::initStoreFailed(directory(), first));
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
