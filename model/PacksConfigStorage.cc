#include "model/PacksConfigStorage.h"

#include "storage/PacksStore.h"

namespace FerritCore {

Error PacksConfigStorage::writeConfig(const std::string& text, Durability durability) {
    Error error;
    PacksStore::instance().writeConfig(text, error, durability);
    return error;
}

void PacksConfigStorage::removeFolder(const Folder& folder) {
    Folder::removeFile(folder, false);
}

void PacksConfigStorage::wipeInstalled() {
    Folder::removeFile(Folder::disk("apps/"), true);
    PacksStore::instance().clear();
}

uint64_t PacksConfigStorage::dataVersion() {
    return PacksStore::instance().dataVersion();
}

std::string PacksConfigStorage::readConfig(Error& error) {
    return PacksStore::instance().readConfig(error);
}

}  // namespace FerritCore
