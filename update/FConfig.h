// FConfig: the process-wide configuration document. Published snapshots are immutable and read
// without a lock; a change goes through SCache::mutate on a private copy.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "access/PrefixTree.h"
#include "update/Pack.h"

namespace FerritCore {

// Hash and equality that accept std::string_view, so that lookups need not build a string key.
struct StringHash {
    using is_transparent = void;
    size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
};
struct StringEqual {
    using is_transparent = void;
    bool operator()(std::string_view a, std::string_view b) const { return a == b; }
};
template <typename V>
using StringMap = std::unordered_map<std::string, V, StringHash, StringEqual>;

class FConfig {
public:
    FConfig() = default;
    // A copy for a transaction: document fields and the map of (shared) records; the derived
    // indexes, `dirty` and `removed` start empty.
    FConfig copyForChange() const;

    // Document fields.
    std::string version = "0";
    uint32_t fullMark = 0;
    std::string scacheVersion = "0";
    double delay = 60000.0;
    uint32_t env = 2;
    std::string clientVersion;
    std::string locale;
    double lastUpdate = 0;
    double lastFullUpdate = 0;
    StringMap<PackPtr> packs;

    // Transaction state, never serialised.
    bool dirty = false;
    std::unordered_set<PackPtr> removed;

    // Tables of the matcher, derived from `packs` by rebuildIndexes().
    StringMap<std::string> urlIndex;  // "//" form of a URL -> pack name
    PrefixTree prefixTree;

    // Rebuilds urlIndex and prefixTree from the records' referrers and prefixes. Fixed-sequence
    // copies of asset packs are left out: the plain record serves their URLs.
    void rebuildIndexes();

    // The record, or null.
    PackPtr find(std::string_view name) const;
    // Stores a record under its name and marks the document dirty.
    void put(PackPtr pack);
    // Moves the record to `removed`; false when there is none.
    bool remove(std::string_view name);
};

using FConfigPtr = std::shared_ptr<const FConfig>;

}  // namespace FerritCore
