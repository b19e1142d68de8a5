// ResourceIndex: the signed list of one pack's files, loaded once and shared by every match of
// the pack. Immutable after construction, so readers need no lock. ResourceIndexPool keeps one per
// pack and is safe from any thread (a recursive mutex guards its maps; an index is loaded once).
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>

#include "ferritcore/Error.h"
#include "ferritcore/ResourceRequest.h"
#include "marl/Json.h"
#include "update/FConfig.h"
#include "update/Pack.h"

namespace FerritCore {

struct ResourceRecord {
    std::string url;   // may be empty
    std::string md5;
    std::string path;  // the key in the index, leading "/" trimmed
    HeaderMap header;
};

class ResourceIndex {
public:
    // A failed index.
    ResourceIndex(std::string name, Error error);
    // From a table already parsed from an embedded configuration: an object from path to
    // {"url", "v", "header"}. Messages name it "SCacheConfig/<name>/app-res.hvc".
    ResourceIndex(std::string name, const MarlLogger::json::JSON& table);

    const std::string& name() const { return name_; }
    const Error& error() const { return error_; }
    // Trims one leading "/" and looks the rest up, by "//" URL form or by path. Null when absent.
    std::shared_ptr<const ResourceRecord> find(std::string_view url) const;
    size_t size() const { return records_.size(); }

protected:
    // Adds the entries of a parsed table. A record without "v" hides its path when
    // `allowMissingMd5` (an increment), and otherwise fails the whole index with 1107.
    bool addEntries(const MarlLogger::json::JSON& table, bool allowMissingMd5, const Folder& source);

    std::string name_;
    Error error_;
    StringMap<std::shared_ptr<const ResourceRecord>> records_;
    std::unordered_set<std::string> removed_;
};

using ResourceIndexPtr = std::shared_ptr<const ResourceIndex>;

class ResourceIndexPool {
public:
    // Builds the index of an installed pack from its folder.
    using Loader = std::function<ResourceIndexPtr(const Pack& pack)>;

    // Asset packs that are not fixed-sequence copies or previews come from `embedded` (a missing
    // one gives a failed index with 3112, not stored). Every other pack is looked up in `loaded`
    // and, on a miss, loaded from its folder and stored, even when the load failed.
    static ResourceIndexPtr get(const Pack& pack);
    // Stores an embedded index; nothing for an empty name or a null index.
    static void set(const std::string& name, ResourceIndexPtr index);
    // Drops a pack from `loaded` (after an install).
    static void remove(const std::string& name);
    // Empties `loaded`.
    static void clear();
    // Empties both maps (tests).
    static void reset();
    // Installs the folder loader; without one a loaded pack has no resource list (3112).
    static void setLoader(Loader loader);
};

}  // namespace FerritCore
