#include "storage/PacksStore.h"

#include "base/Errors.h"
#include "base/Telemetry.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "storage/StoreInstance.h"

namespace FerritCore {

PacksStore::PacksStore() : SeriesStore(kName, KeyValueStore::Options::forPacks()) {}

PacksStore& PacksStore::instance() {
    return StoreInstance<PacksStore>::get();
}

void PacksStore::openAndReport() {
    const double start = MRLCurrentClock();
    const int first = open();
    const double elapsed = MRLCurrentClock() - start;

    PerfRecord record(statisticsEvent());
    if (first != 0)
        record.setError(withStatusText(Errors::initStorageFailed(name(), first), first));
    record.setMeasure("time", elapsed);
    sendEvent(record);

    auto log = MarlLogger::Log::build(
        first == 0 ? MarlLogger::MRLLevelInfo : MarlLogger::MRLLevelWarning, tag());
    if (!log.active()) return;
    log.event("load").append("name", name()).append("time", elapsed);
    if (first != 0) log.error(withStatusText(Errors::initStorageFailed(name(), first), first));
}

namespace {

// The files live in the packs store under their relative paths, beside its "config" key.
class PacksStoreFiles : public PackedFiles {
  public:
    bool get(std::string_view key, std::string& value, Error& error) override {
        ErrorOr<std::string> stored = PacksStore::instance().get(key);
        error = stored.error();
        value = std::move(stored).valueOr(std::string());
        return !error;
    }
    bool put(std::string_view key, std::string_view value, Error& error) override {
        error = PacksStore::instance().put(key, value);
        return !error;
    }
    bool putAll(const std::vector<std::pair<std::string, std::string>>& entries,
                Error& error) override {
        error = PacksStore::instance().putAll(entries);
        return !error;
    }
    bool putChecked(const std::vector<CheckedFile>& files, Error& error) override {
        std::vector<KeyValueStore::CheckedValue> entries;
        entries.reserve(files.size());
        for (const CheckedFile& file : files) entries.push_back({file.key, file.content, file.md5});
        error = PacksStore::instance().putChecked(entries);
        return !error;
    }
    bool copyPrefix(std::string_view fromPrefix, std::string_view toPrefix,
                    const std::unordered_set<std::string>& skip, uint64_t& bytes,
                    Error& error) override {
        ErrorOr<uint64_t> copied = PacksStore::instance().copyPrefix(fromPrefix, toPrefix, skip);
        error = copied.error();
        bytes = copied.valueOr(0);
        return !error;
    }
    bool contains(std::string_view key) override { return PacksStore::instance().contains(key); }
    void removeByPrefix(std::string_view prefix) override {
        PacksStore::instance().removeByPrefix(prefix);
    }
    void enumerate(std::string_view prefix,
                   const std::function<bool(std::string_view key)>& visit) override {
        PacksStore::instance().enumerate(prefix, visit);
    }
};

}  // namespace

std::shared_ptr<PackedFiles> PacksStore::files() {
    return std::make_shared<PacksStoreFiles>();
}

ErrorOr<std::string> PacksStore::readConfig(size_t spare) const {
    ErrorOr<std::string> stored = get(kConfigKey, spare);
    if (stored.ok() || !Errors::isFileMissing(stored.error())) return stored;
    Error error;
    std::string text = Folder::readFile(legacyConfigFile(), error);
    if (error) return error;
    // Read once, at the first start after an upgrade: growing it here costs nothing that counts.
    text.reserve(text.size() + spare);
    return text;
}

Error PacksStore::writeConfig(const std::string& text, Durability durability) {
    Error error = put(kConfigKey, text, durability);
    if (error) return error;
    // Only under a real root: with none, the file's path would be relative to the working
    // directory. A file that is already gone is what was wanted.
    if (rootPath().size() > 1) Folder::removeFile(legacyConfigFile(), Removal::kGone);
    return Error();
}

uint64_t PacksStore::dataVersion() const {
    const std::shared_ptr<KeyValueStore> db = handle(nullptr);
    uint64_t version = 0;
    if (db && db->dataVersion(version) != KeyValueStore::kOk) version = 0;
    return version;
}

void PacksStore::removeInvalid(const std::function<bool(std::string_view sequencePart)>& owned,
                               std::vector<std::string>& invalidPaths) {
    std::vector<std::string> invalid;
    enumerate("", [&](std::string_view key) {
        if (key == kConfigKey) return false;
        // "<name>/<seq>/": the folder of one installed version.
        std::string_view part;
        const size_t first = key.find('/');
        if (first != std::string_view::npos) {
            const size_t second = key.find('/', first + 1);
            if (second != std::string_view::npos) part = key.substr(0, second + 1);
        }
        if (part.empty() || !owned(part)) invalid.emplace_back(key);
        return false;
    });
    for (const std::string& key : invalid) {
        remove(key);
        invalidPaths.push_back(key);
    }
    if (!invalid.empty()) compact();
}

}  // namespace FerritCore
