#include "model/ResourceIndex.h"

#include <algorithm>
#include <set>

#include <atomic>
#include <mutex>

#include "base/AssetProvider.h"
#include "base/Digest.h"
#include "base/Errors.h"
#include "base/FileUtil.h"
#include "base/ProcessState.h"
#include "base/Proxy.h"
#include "base/StringMap.h"
#include "base/Url.h"
#include "model/KeyTrust.h"
#include "support/Mutex.h"

namespace FerritCore {

using MarlLogger::json::JSON;

namespace {

// The key of a record that states the file's length; lists written before it have none.
constexpr std::string_view kSizeKey = "size";

// A size is a whole number of bytes; anything else in a signed list is a publisher's fault that
// would make every read of the file look damaged.
bool readSize(const JSON& value, uint64_t& size) {
    switch (value.type()) {
        case MarlLogger::json::Type::UInt:
            size = value.uint64Value();
            return size != ResourceRecord::kUnknownSize;
        case MarlLogger::json::Type::Int:
            if (value.int64Value() < 0) return false;
            size = value.uint64Value();
            return true;
        default:
            return false;
    }
}

// A built-in pack's folder, when the host's raw files are plain files on the disk: held open as an
// installed pack's is, so that a hit costs one open relative to it instead of a stat and an open
// of the whole path through the asset operations. Null otherwise, and for a folder whose name
// would leave the raw-file folder.
std::unique_ptr<OpenDirectory> openAssetFolder(const Folder& folder) {
    std::string path = Assets::diskPath();
    if (path.empty() || folder.relative().empty() || OpenDirectory::checkName(folder.relative()))
        return nullptr;
    if (path.back() != '/') path.push_back('/');
    return OpenDirectory::open(path.append(folder.relative()));
}

}  // namespace

ResourceIndex::ResourceIndex(std::string name, Error error)
    : name_(std::move(name)), error_(std::move(error)) {}

ResourceIndex::ResourceIndex(std::string name, const Folder& folder)
    : name_(std::move(name)), hasFolder_(true), folder_(folder) {
    // The increment goes in first, so that the full list never brings back what it removed.
    if (!loadFile(folder.childOf(kIncrementIndexFileName), /*increment=*/true)) return;
    if (!loadFile(folder.childOf(kIndexFileName), /*increment=*/false)) return;
    // Files of the pack are then found and read relative to its folder, held open for as long as
    // the index lives.
    if (folder.kind() == FolderKind::Disk) directory_ = OpenDirectory::open(folder.absolute());
}

ResourceIndex::ResourceIndex(std::string name, const EntryReader& zip, bool allowMissingMd5)
    : name_(std::move(name)) {
    const Folder source = Folder::disk(name_ + ".zip/" + std::string(kIndexFileName));
    if (!zip) {
        fail(Errors::fileNotExists(source));
        return;
    }
    Error error;
    const std::string text = zip(std::string(kIndexFileName), error);
    if (error) {
        fail(std::move(error));
        return;
    }
    JSON table;
    if (!parseSigned(source, text, table, error)) {
        fail(std::move(error));
        return;
    }
    addEntries(table, allowMissingMd5, source);
}

ResourceIndex::ResourceIndex(std::string name, const JSON& table, const Folder& files)
    : name_(std::move(name)) {
    const Folder source = Folder::disk("SCacheConfig/" + name_ + "/" + std::string(kIndexFileName));
    if (!table.isObject() && !table.isNull()) {
        fail(Errors::fileDeserialization(source, "not an object"));
        return;
    }
    if (!addEntries(table, /*allowMissingMd5=*/false, source)) return;
    if (files.kind() == FolderKind::Asset) directory_ = openAssetFolder(files);
}

bool ResourceIndex::parseSigned(const Folder& folder, std::string_view text, JSON& table,
                                Error& error) {
    table = JSON();
    const size_t separator = text.find("||");
    if (separator == std::string_view::npos) {
        error = Errors::fileDeserialization(folder, "Token || not found");
        return false;
    }
    const std::string_view body = text.substr(0, separator);
    const size_t bar = text.find('|', separator + 2);
    if (bar == std::string_view::npos) {
        error = Errors::fileDeserialization(folder, "Token | not found");
        return false;
    }
    // Text that does not decode gives no signature bytes; the proxy refuses those.
    std::string signature;
    if (!Digest::base64Decode(text.substr(bar + 1), signature)) signature.clear();
    const std::string md5 = Digest::md5Hex(body);
    // The keys that sign configuration documents sign lists too: a successor's list verifies, and
    // a retired key's no longer does.
    if (KeyTrust::instance().signerOf(md5, signature).empty()) {
        error = Errors::fileVerifySignature(folder, md5);
        return false;
    }
    std::string reason;
    JSON parsed = JSON::parse(body, &reason);
    if (!parsed.isObject()) {
        error = Errors::fileDeserialization(folder, reason.empty() ? "not an object" : reason);
        return false;
    }
    table = std::move(parsed);
    error.clear();
    return true;
}

void ResourceIndex::fail(Error error) {
    error_ = std::move(error);
    records_.clear();
    removed_.clear();
}

bool ResourceIndex::loadFile(const Folder& file, bool increment) {
    Error error;
    const std::string text = Folder::readFile(file, error);
    if (error) {
        // A pack that was never updated incrementally has no increment.
        if (increment) return true;
        fail(std::move(error));
        return false;
    }
    JSON table;
    if (!parseSigned(file, text, table, error)) {
        fail(std::move(error));
        return false;
    }
    return addEntries(table, increment, file);
}

bool ResourceIndex::addEntries(const JSON& table, bool allowMissingMd5, const Folder& source) {
    std::string keyBuffer;
    records_.reserve(records_.size() + 2 * table.size());
    for (const auto& [path, entry] : table.objectValue()) {
        auto record = std::make_shared<ResourceRecord>();
        record->path = path;
        Url::trimLeadingSlash(record->path);
        if (climbsOut(record->path)) {
            fail(Errors::fileDeserialization(source,
                                             "path \"" + record->path + "\" leaves the pack"));
            return false;
        }
        record->md5 = entry["v"].stringValue();
        if (record->md5.empty()) {
            if (!allowMissingMd5) {
                fail(Errors::fileDeserialization(source,
                                                 "MD5 for \"" + record->path + "\" not found"));
                return false;
            }
            removed_.insert(record->path);
            continue;
        }
        if (removed_.count(record->path) != 0) continue;
        if (const JSON* size = entry.objectValue().find(kSizeKey)) {
            if (!readSize(*size, record->size)) {
                fail(Errors::fileDeserialization(
                    source, "size for \"" + record->path + "\" is not a count of bytes"));
                return false;
            }
        }
        record->url = entry["url"].stringValue();
        for (const auto& [headerName, headerValue] : entry["header"].objectValue())
            record->header.emplace(headerName, headerValue.stringValue());
        // By URL, or by the path without its "res/" folder when the record names no URL.
        if (!record->url.empty()) {
            Url::keyInto(record->url, keyBuffer);
        } else {
            Url::keyInto(record->path.size() > 4 ? std::string_view(record->path).substr(4)
                                                 : std::string_view(),
                         keyBuffer);
        }
        std::shared_ptr<const ResourceRecord> shared = record;
        if (!keyBuffer.empty()) records_.tryEmplace(keyBuffer, shared);
        records_.tryEmplace(record->path, std::move(shared));
    }
    return true;
}

std::shared_ptr<const ResourceRecord> ResourceIndex::find(std::string_view url) const {
    if (url.size() >= 1 && url[0] == '/' && !(url.size() > 1 && url[1] == '/'))
        url.remove_prefix(1);
    const auto* record = records_.find(url);
    return record == nullptr ? nullptr : *record;
}

std::vector<std::string> ResourceIndex::urls() const {
    std::set<std::string> unique;
    for (const auto& [key, record] : records_) {
        if (!record->url.empty()) unique.insert(record->url);
    }
    return std::vector<std::string>(unique.begin(), unique.end());
}

Error ResourceRecord::check(const Folder& file, std::string_view content) const {
    if (content.empty() && !isEmptyFile()) return Errors::fileNoData(file);
    if (!fits(content.size())) return Errors::fileVerifySize(file, content.size(), size);
    const std::string digest = Digest::md5Hex(content);
    if (digest != md5) return Errors::fileVerifyMd5(file, digest, md5);
    return Error();
}

Error ResourceRecord::checkDigest(const Folder& file, uint64_t length,
                                  const std::string& md5Hex) const {
    if (length == 0 && !isEmptyFile()) return Errors::fileNoData(file);
    if (!fits(length)) return Errors::fileVerifySize(file, length, size);
    if (md5Hex != md5) return Errors::fileVerifyMd5(file, md5Hex, md5);
    return Error();
}

std::vector<const ResourceRecord*> ResourceIndex::filesInPathOrder() const {
    std::vector<const ResourceRecord*> files;
    files.reserve(records_.size() / 2 + 1);
    for (const auto& [key, record] : records_) {
        // Each record is entered twice; its path entry is the one that names a file.
        if (key == record->path) files.push_back(record.get());
    }
    // The table's own order is its hash's: in path order, the first failure named is the same on
    // every build.
    std::sort(files.begin(), files.end(),
              [](const ResourceRecord* a, const ResourceRecord* b) { return a->path < b->path; });
    return files;
}

void ResourceIndex::forEachFile(
    const std::function<void(const ResourceRecord& record)>& visit) const {
    for (const ResourceRecord* record : filesInPathOrder()) visit(*record);
}

bool ResourceIndex::verifyFiles(const Folder& folder, Error& error) const {
    if (error_) {
        error = error_;
        return false;
    }
    error.clear();
    for (const ResourceRecord* record : filesInPathOrder()) {
        const Folder file = folder.childOf(record->path);
        std::string content = Folder::readFile(file, error);
        if (Errors::isNoData(error)) error.clear();  // the record says whether empty is right
        if (!error) error = record->check(file, content);
        if (error) return false;
    }
    return true;
}

namespace {

// What this thread found in the pool, by pack name, while the pool's generation stays the same:
// a request finds its pack's index without taking the pool's lock. A thread lets go of indexes the
// pool dropped at its next lookup.
// An index with the installation it was read for. Another process may install a new version
// under the same name: a lookup for a record of another installation loads that one's index
// rather than serving the files of a folder that may be gone.
struct PooledIndex {
    ResourceIndexPtr index;
    uint64_t installedSeq = 0;
    bool isPacks = false;

    PooledIndex(ResourceIndexPtr i, const Pack& pack)
        : index(std::move(i)), installedSeq(pack.installedSeq), isPacks(pack.isPacks) {}
    bool describes(const Pack& pack) const {
        return installedSeq == pack.installedSeq && isPacks == pack.isPacks;
    }
};

// A per-thread cache in front of the lookup by name, keyed by the record's identity (its address
// and its owner), so that a request neither hashes the name nor walks a bucket and a node. A slot
// holds a weak reference to the record: the same address under another owner is another record, and
// the memory of a record made with its owner is not given to another while the slot remembers it.
class FoundByRecord {
    struct Slot {
        const Pack* pack = nullptr;
        std::weak_ptr<const Pack> owner;
        ResourceIndexPtr index;
        uint64_t installedSeq = 0;
        bool isPacks = false;
    };

  public:
    const ResourceIndexPtr* find(const PackPtr& pack) const {
        if (slots_.empty()) return nullptr;
        const size_t mask = slots_.size() - 1;
        for (size_t i = slotOf(pack.get()); slots_[i].pack != nullptr; i = (i + 1) & mask) {
            const Slot& slot = slots_[i];
            if (slot.pack != pack.get()) continue;
            const bool same = !slot.owner.owner_before(pack) && !pack.owner_before(slot.owner);
            return same && slot.installedSeq == pack->installedSeq && slot.isPacks == pack->isPacks
                       ? &slot.index
                       : nullptr;
        }
        return nullptr;
    }
    // `named` bounds the table: every snapshot's records have new addresses, so slots of records
    // no longer in use pile up; past twice the names (and a few) it starts again.
    void put(const PackPtr& pack, ResourceIndexPtr index, size_t named) {
        if ((used_ + 1) * 2 > slots_.size()) {
            if (used_ >= 2 * named + 64) clear();
            if ((used_ + 1) * 2 > slots_.size()) grow();
        }
        Slot& slot = slotFor(pack.get());
        slot.pack = pack.get();
        slot.owner = pack;
        slot.index = std::move(index);
        slot.installedSeq = pack->installedSeq;
        slot.isPacks = pack->isPacks;
    }
    void clear() {
        slots_.clear();
        used_ = 0;
    }

  private:
    // Fibonacci hashing of the address, its low (aligned) bits dropped: the mask keeps bits that
    // differ between records.
    size_t slotOf(const Pack* pack) const {
        const uint64_t mixed =
            (static_cast<uint64_t>(reinterpret_cast<uintptr_t>(pack)) >> 4) * 0x9E3779B97F4A7C15ull;
        return static_cast<size_t>(mixed >> 32) & (slots_.size() - 1);
    }
    // The slot of `pack`, or the free one where it goes.
    Slot& slotFor(const Pack* pack) {
        const size_t mask = slots_.size() - 1;
        size_t i = slotOf(pack);
        while (slots_[i].pack != nullptr && slots_[i].pack != pack) i = (i + 1) & mask;
        if (slots_[i].pack == nullptr) ++used_;
        return slots_[i];
    }
    void grow() {
        std::vector<Slot> old = std::move(slots_);
        slots_ = std::vector<Slot>(old.empty() ? 64 : old.size() * 2);
        used_ = 0;
        for (Slot& slot : old)
            if (slot.pack != nullptr) slotFor(slot.pack) = std::move(slot);
    }

    std::vector<Slot> slots_;
    size_t used_ = 0;
};

struct ThreadIndexes {
    uint64_t generation = 0;
    StringMap<PooledIndex> found;
    FoundByRecord byRecord;

    void clear() {
        byRecord.clear();
        found.clear();
    }
};
thread_local ThreadIndexes threadIndexes;

struct Pool {
    RecursiveMutex mutex;
    StringMap<PooledIndex> loaded GUARDED_BY(mutex);
    StringMap<ResourceIndexPtr> embedded GUARDED_BY(mutex);
    ResourceIndexPool::Loader loader GUARDED_BY(mutex);
    // Moves on with every change of the maps: what a thread found before is then looked up again.
    std::atomic<uint64_t> generation{1};

    void changed() { generation.fetch_add(1, std::memory_order_acq_rel); }
};

Pool& pool() {
    static Pool* const instance = ProcessState::create<Pool>([](Pool& p) {
        RecursiveLock lock(p.mutex);
        p.loaded.clear();
        p.embedded.clear();
        p.loader = nullptr;
        p.changed();
        threadIndexes.clear();  // the resetting thread's, at once
    });
    return *instance;
}

ResourceIndexPtr getLocked(Pool& p, const Pack& pack);

}  // namespace

ResourceIndexPtr ResourceIndexPool::get(const Pack& pack) {
    Pool& p = pool();
    ThreadIndexes& mine = threadIndexes;
    const uint64_t generation = p.generation.load(std::memory_order_acquire);
    if (mine.generation == generation) {
        auto it = mine.found.find(std::string_view(pack.name));
        if (it != mine.found.end() && it->second.describes(pack)) return it->second.index;
    } else {
        mine.clear();
        mine.generation = generation;
    }
    ResourceIndexPtr index = getLocked(p, pack);
    mine.found.insert_or_assign(pack.name, PooledIndex(index, pack));
    return index;
}

ResourceIndexPtr ResourceIndexPool::get(const PackPtr& pack) {
    ThreadIndexes& mine = threadIndexes;
    if (mine.generation == pool().generation.load(std::memory_order_acquire)) {
        if (const ResourceIndexPtr* seen = mine.byRecord.find(pack)) return *seen;
    }
    // Looked up by name, which also lets go of what the thread found before a change of the pool.
    ResourceIndexPtr index = get(*pack);
    mine.byRecord.put(pack, index, mine.found.size());
    return index;
}

namespace {

ResourceIndexPtr getLocked(Pool& p, const Pack& pack) {
    // Held throughout, loading included, so that one index is loaded once.
    RecursiveLock lock(p.mutex);
    if (pack.packType() == kPackTypeSCache && pack.subType != kSubTypeFixedSeq &&
        pack.status != kPackStatusPreview) {
        auto it = p.embedded.find(pack.name);
        if (it != p.embedded.end()) return it->second;
        return std::make_shared<const ResourceIndex>(pack.name,
                                                     Errors::resourceListNotFound(pack.name));
    }
    auto it = p.loaded.find(pack.name);
    if (it != p.loaded.end() && it->second.describes(pack)) return it->second.index;
    ResourceIndexPtr index;
    if (p.loader) {
        index = p.loader(pack);
        if (!index)
            index = std::make_shared<const ResourceIndex>(pack.name,
                                                          Errors::resourceListNotFound(pack.name));
    } else {
        index = std::make_shared<const ResourceIndex>(pack.name, pack.installedFolder());
    }
    p.loaded.insert_or_assign(pack.name, PooledIndex(index, pack));
    return index;
}

}  // namespace

void ResourceIndexPool::set(const std::string& name, ResourceIndexPtr index) {
    if (name.empty() || !index) return;
    Pool& p = pool();
    RecursiveLock lock(p.mutex);
    p.embedded[name] = std::move(index);
    p.changed();
}

void ResourceIndexPool::remove(const std::string& name) {
    Pool& p = pool();
    RecursiveLock lock(p.mutex);
    p.loaded.erase(name);
    p.changed();
}

void ResourceIndexPool::clear() {
    Pool& p = pool();
    RecursiveLock lock(p.mutex);
    p.loaded.clear();
    p.changed();
}

void ResourceIndexPool::setLoader(Loader loader) {
    Pool& p = pool();
    RecursiveLock lock(p.mutex);
    p.loader = std::move(loader);
    p.changed();
}

}  // namespace FerritCore
