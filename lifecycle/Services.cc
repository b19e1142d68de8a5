#include "lifecycle/Services.h"

#include <memory>

#include "access/UpdateRequester.h"
#include "base/AssetProvider.h"
#include "base/PackedFiles.h"
#include "model/PacksConfigStorage.h"
#include "model/SCache.h"
#include "runtime/TimeMarks.h"
#include "storage/ConfigStore.h"
#include "storage/PacksStore.h"
#include "update/Cleanup.h"
#include "update/QueueRequester.h"
#include "update/UpdateQueue.h"

namespace FerritCore {

void Services::wire() {
    PackedFiles::set(PacksStore::files());
    TimeMarks::setStore(ConfigStore::marks());
    SCache::setStorage(std::make_shared<PacksConfigStorage>());
    UpdateRequester::set(std::make_shared<QueueRequester>());
    Cleanup::setBusyPacks(UpdateQueue::isInUse);
}

void Services::attachAssets(const std::string& rawFileFolder) {
    if (rawFileFolder.empty()) {
        AssetProvider::set(std::make_shared<ProxyAssetProvider>());
    } else {
        AssetProvider::set(std::make_shared<RawFileProvider>(rawFileFolder));
    }
}

}  // namespace FerritCore
