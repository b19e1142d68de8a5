#include "base/PackedFiles.h"

#include "base/ServiceSlot.h"

namespace FerritCore {

std::shared_ptr<PackedFiles> PackedFiles::current() {
    return ServiceSlot<PackedFiles>::instance().get();
}

void PackedFiles::set(std::shared_ptr<PackedFiles> files) {
    ServiceSlot<PackedFiles>::instance().set(std::move(files));
}

}  // namespace FerritCore
