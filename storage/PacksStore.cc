#include "storage/PacksStore.h"

#include <atomic>

#include "access/Errors.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "runtime/Telemetry.h"

namespace FerritCore {

PacksStore::PacksStore() : SeriesStore(kName, KeyValueStore::Options::forPacks()) {}

namespace {
// Set once the instance exists, so that resetForTesting can tell a first use of its own, which
// has just opened and reported, from a reset of an instance made earlier.
std::atomic<bool> created{false};
}  // namespace

PacksStore& PacksStore::instance() {
    static PacksStore* const store = [] {
        auto* made = new PacksStore();
        made->openAndReport();
        created.store(true);
        return made;
    }();
    return *store;
}

void PacksStore::resetForTesting() {
    const bool existed = created.load();
    PacksStore& store = instance();
    if (!existed) return;
    store.close();
    store.openAndReport();
}

void PacksStore::openAndReport() {
    const double start = MRLCurrentClock();
    const int first = open();
    const double elapsed = MRLCurrentClock() - start;

    PerfRecord record(statisticsEvent());
    if (first != 0) record.setError(Errors::initStorageFailed(name(), first));
    record.setMeasure("time", elapsed);
    sendEvent(record);

    auto log = MarlLogger::Log::build(
        first == 0 ? MarlLogger::MRLLevelInfo : MarlLogger::MRLLevelWarning, tag());
    if (!log.active()) return;
    log.event("load").append("name", name()).append("time", elapsed);
    if (first != 0) log.error(Errors::initStorageFailed(name(), first));
}

std::string PacksStore::readConfig(Error& error) const {
    std::string text;
    if (get(kConfigKey, text, error)) return text;
    if (!Errors::isFileMissing(error)) return text;
    return Folder::readFile(legacyConfigFile(), error);
}

bool PacksStore::writeConfig(const std::string& text, Error& error) {
    if (!put(kConfigKey, text, error)) return false;
    // Only under a real root: with none, the file's path would be relative to the working
    // directory. A file that is already gone is what was wanted.
    if (rootPath().size() > 1) Folder::removeFile(legacyConfigFile(), false);
    return true;
}

}  // namespace FerritCore
