#include "storage/PackedFiles.h"

#include <atomic>

namespace FerritCore {
namespace {

// Never destroyed, so that a late reader during process exit still finds a valid slot.
std::atomic<std::shared_ptr<PackedFiles>>& slot() {
    static auto* instance = new std::atomic<std::shared_ptr<PackedFiles>>();
    return *instance;
}

}  // namespace

std::shared_ptr<PackedFiles> PackedFiles::current() {
    return slot().load(std::memory_order_acquire);
}

void PackedFiles::set(std::shared_ptr<PackedFiles> files) {
    slot().store(std::move(files), std::memory_order_release);
}

}  // namespace FerritCore
