#include "storage/PackedFiles.h"

#include <atomic>

#include "storage/PacksStore.h"

namespace FerritCore {
namespace {

// Never destroyed, so that a late reader during process exit still finds a valid slot.
std::atomic<std::shared_ptr<PackedFiles>>& slot() {
    static auto* instance = new std::atomic<std::shared_ptr<PackedFiles>>();
    return *instance;
}

// The files live in the packs store under their relative paths, beside its "config" key.
class PacksStoreFiles : public PackedFiles {
public:
    bool get(std::string_view key, std::string& value, Error& error) override {
        return PacksStore::instance().get(key, value, error);
    }
    bool put(std::string_view key, std::string_view value, Error& error) override {
        return PacksStore::instance().put(key, value, error);
    }
    bool contains(std::string_view key) override { return PacksStore::instance().contains(key); }
    void removeByPrefix(std::string_view prefix) override { PacksStore::instance().removeByPrefix(prefix); }
    void enumerate(std::string_view prefix, const std::function<bool(std::string_view key)>& visit) override {
        PacksStore::instance().enumerate(prefix, visit);
    }
};

}  // namespace

std::shared_ptr<PackedFiles> PackedFiles::packsStore() {
    return std::make_shared<PacksStoreFiles>();
}

std::shared_ptr<PackedFiles> PackedFiles::current() {
    return slot().load(std::memory_order_acquire);
}

void PackedFiles::set(std::shared_ptr<PackedFiles> files) {
    slot().store(std::move(files), std::memory_order_release);
}

}  // namespace FerritCore
