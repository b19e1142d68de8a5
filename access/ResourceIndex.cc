#include "access/ResourceIndex.h"

#include <mutex>
#include <unordered_map>

#include "access/Errors.h"
#include "access/Url.h"

namespace FerritCore {

using MarlLogger::json::JSON;

ResourceIndex::ResourceIndex(std::string name, Error error) : name_(std::move(name)), error_(std::move(error)) {}

ResourceIndex::ResourceIndex(std::string name, const JSON& table) : name_(std::move(name)) {
    addEntries(table, false, Folder::disk("SCacheConfig/" + name_ + "/app-res.hvc"));
}

bool ResourceIndex::addEntries(const JSON& table, bool allowMissingMd5, const Folder& source) {
    std::string keyBuffer;
    for (const auto& [path, entry] : table.objectValue()) {
        auto record = std::make_shared<ResourceRecord>();
        record->path = path;
        Url::trimLeadingSlash(record->path);
        record->url = entry["url"].stringValue();
        record->md5 = entry["v"].stringValue();
        for (const auto& [headerName, headerValue] : entry["header"].objectValue())
            record->header.emplace(headerName, headerValue.stringValue());
        if (record->md5.empty()) {
            if (!allowMissingMd5) {
                error_ = Errors::fileDeserialization(source, "MD5 for \"" + record->path + "\" not found");
                records_.clear();
                removed_.clear();
                return false;
            }
            removed_.insert(record->path);
            continue;
        }
        if (removed_.count(record->path) != 0) continue;
        // By URL, or by the path without its "res/" folder when the record names no URL.
        if (!record->url.empty()) {
            Url::keyInto(record->url, keyBuffer);
        } else {
            Url::keyInto(record->path.size() > 4 ? std::string_view(record->path).substr(4) : std::string_view(),
                         keyBuffer);
        }
        std::shared_ptr<const ResourceRecord> shared = record;
        if (!keyBuffer.empty()) records_.emplace(keyBuffer, shared);
        records_.emplace(record->path, shared);
    }
    return true;
}

std::shared_ptr<const ResourceRecord> ResourceIndex::find(std::string_view url) const {
    if (url.size() >= 1 && url[0] == '/' && !(url.size() > 1 && url[1] == '/')) url.remove_prefix(1);
    auto it = records_.find(url);
    return it == records_.end() ? nullptr : it->second;
}

namespace {

struct Pool {
    std::recursive_mutex mutex;
    std::unordered_map<std::string, ResourceIndexPtr> loaded;    // guarded by mutex
    std::unordered_map<std::string, ResourceIndexPtr> embedded;  // guarded by mutex
    ResourceIndexPool::Loader loader;                            // guarded by mutex
};

Pool& pool() {
    static Pool* instance = new Pool();  // lives until the process ends
    return *instance;
}

}  // namespace

ResourceIndexPtr ResourceIndexPool::get(const Pack& pack) {
    Pool& p = pool();
    std::lock_guard<std::recursive_mutex> lock(p.mutex);
    if (pack.packType() == kPackTypeSCache && pack.subType != 1 && pack.status != kPackStatusPreview) {
        auto it = p.embedded.find(pack.name);
        if (it != p.embedded.end()) return it->second;
        return std::make_shared<const ResourceIndex>(pack.name, Errors::resourceListNotFound(pack.name));
    }
    auto it = p.loaded.find(pack.name);
    if (it != p.loaded.end()) return it->second;
    ResourceIndexPtr index = p.loader ? p.loader(pack) : nullptr;
    if (!index) index = std::make_shared<const ResourceIndex>(pack.name, Errors::resourceListNotFound(pack.name));
    p.loaded.emplace(pack.name, index);
    return index;
}

void ResourceIndexPool::set(const std::string& name, ResourceIndexPtr index) {
    if (name.empty() || !index) return;
    Pool& p = pool();
    std::lock_guard<std::recursive_mutex> lock(p.mutex);
    p.embedded[name] = std::move(index);
}

void ResourceIndexPool::remove(const std::string& name) {
    Pool& p = pool();
    std::lock_guard<std::recursive_mutex> lock(p.mutex);
    p.loaded.erase(name);
}

void ResourceIndexPool::clear() {
    Pool& p = pool();
    std::lock_guard<std::recursive_mutex> lock(p.mutex);
    p.loaded.clear();
}

void ResourceIndexPool::reset() {
    Pool& p = pool();
    std::lock_guard<std::recursive_mutex> lock(p.mutex);
    p.loaded.clear();
    p.embedded.clear();
}

void ResourceIndexPool::setLoader(Loader loader) {
    Pool& p = pool();
    std::lock_guard<std::recursive_mutex> lock(p.mutex);
    p.loader = std::move(loader);
}

}  // namespace FerritCore
