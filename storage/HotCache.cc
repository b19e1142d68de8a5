#include "storage/HotCache.h"

#include "base/Environment.h"
#include "base/Errors.h"
#include "base/StorageState.h"
#include "marl/Log.h"
#include "runtime/TaskRunner.h"
#include "storage/ConfigStore.h"

namespace FerritCore {
namespace {

using MarlLogger::json::JSON;
using MarlLogger::json::JSONObject;

// The member of the stored object that holds the list.
constexpr const char* kListKey = "r";

}  // namespace

HotCache::HotCache(std::string name, std::string key, std::string_view tag)
    : name_(std::move(name)),
      key_(std::move(key)),
      tag_(tag),
      // An empty list without room until the first opening replaces it.
      list_(std::make_unique<HotList>(0, 0, nullptr)) {}

HotCache::~HotCache() = default;

void HotCache::openAndReport() {
    list_ = std::make_unique<HotList>(
        maxSizeSetting(), minHotCountSetting(),
        [this](int64_t originSize, int64_t newSize, const std::vector<std::string>& urls) {
            evicted(originSize, newSize, urls);
        });
    const ErrorOr<JSON> stored = ConfigStore::instance().get(key_);
    const Error& error = stored.error();
    if (stored.ok()) list_->load((*stored)[kListKey]);
    MarlLogger::LogBuilder log(MarlLogger::MRLLevelInfo, tag_);
    if (!log.active()) return;
    log.event("load")
        .append("count", list_->count())
        .append("size", list_->totalSize())
        .append("maxSize", list_->maxSize());
    // A missing list is a first start, not a failure.
    if (error && !Errors::isFileMissing(error)) log.error(error);
}

void HotCache::close() {
    TaskRunner::cancelOnce(saveTask_);
    list_->clear();
}

void HotCache::evicted(int64_t originSize, int64_t newSize, const std::vector<std::string>& urls) {
    for (const std::string& url : urls) Cache::instance().removeReference(url, name_);
    MarlLogger::LogBuilder log(MarlLogger::MRLLevelInfo, tag_);
    if (!log.active()) return;
    log.event("evict")
        .append("originSize", originSize)
        .append("newSize", newSize)
        .append("count", static_cast<uint64_t>(urls.size()));
}

void HotCache::scheduleSave() {
    // A sub process reads what the main one writes.
    if (!Environment::instance().isMainProcess()) return;
    TaskRunner::postOnce(
        saveTask_, [this] { save(); }, kSaveDelayMs);
}

void HotCache::save() {
    // The list stays right in memory; the next change saves it once writing works.
    if (!StorageState::writable()) return;
    const Error error = ConfigStore::instance().put(key_, JSONObject{{kListKey, list_->toJSON()}});
    if (!error) return;
    MarlLogger::LogBuilder log(MarlLogger::MRLLevelWarning, tag_);
    if (log.active()) log.event("save").error(error);
}

std::unique_ptr<CachedResource> HotCache::read(std::string_view url, Error& error) {
    std::unique_ptr<CachedResource> resource = Cache::instance().read(url, name_, error);
    if (!resource) {
        list_->remove(url);
        return nullptr;
    }
    if (list_->touch(url, static_cast<int64_t>(resource->body.size()), /*countHit=*/true))
        scheduleSave();
    return resource;
}

bool HotCache::store(std::string_view url, const CachedResource& resource, Error& error) {
    if (!Cache::instance().write(url, name_, resource, error)) return false;
    if (list_->touch(url, static_cast<int64_t>(resource.body.size()), /*countHit=*/false))
        scheduleSave();
    return true;
}

void HotCache::clear() {
    list_->clear();
    scheduleSave();
}

}  // namespace FerritCore
