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
#include "update/UpdateQueue.h"

namespace FerritCore {
namespace {

// The read path's requests go to the update queue.
class QueueRequester : public UpdateRequester {
  public:
    void request(const std::string& name, int trigger, Completion completion) override {
        UpdateQueue::request(name, trigger, std::move(completion));
    }
    void holdPack(const std::string& name) override { UpdateQueue::holdPack(name); }
    void releasePack(const std::string& name) override { UpdateQueue::releasePack(name); }
    void prefetch(const std::vector<std::string>& items) override { UpdateQueue::prefetch(items); }
};

}  // namespace

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
