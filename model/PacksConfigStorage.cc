#include "model/PacksConfigStorage.h"

#include "marl/Json.h"
#include "runtime/WorkerCheck.h"
#include "storage/PacksStore.h"

namespace FerritCore {

Error PacksConfigStorage::writeConfig(const std::string& text, Durability durability) {
    assertOnWorker();
    return PacksStore::instance().writeConfig(text, durability);
}

void PacksConfigStorage::removeFolder(const Folder& folder) {
    assertOnWorker();
    Folder::removeFile(folder, Removal::kGone);
}

void PacksConfigStorage::wipeInstalled() {
    Folder::removeFile(Folder::disk("apps/"), Removal::kRecreate);
    PacksStore::instance().clear();
}

uint64_t PacksConfigStorage::dataVersion() {
    return PacksStore::instance().dataVersion();
}

std::string PacksConfigStorage::readConfig(Error& error) {
    ErrorOr<std::string> stored =
        PacksStore::instance().readConfig(MarlLogger::json::JSON::kInPlaceSpare);
    error = stored.error();
    return std::move(stored).valueOr(std::string());
}

}  // namespace FerritCore
