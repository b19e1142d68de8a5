// ResourceIndex: the signed list of one pack's files, loaded once and shared by every match of
// the pack. Immutable after construction, so readers need no lock. ResourceIndexPool keeps one per
// pack and is safe from any thread (a recursive mutex guards its maps; an index is loaded once).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "base/FileUtil.h"
#include "base/FlatStringMap.h"
#include "base/Folder.h"
#include "ferritcore/Error.h"
#include "ferritcore/ResourceRequest.h"
#include "marl/Json.h"
#include "model/FConfig.h"
#include "model/Pack.h"

namespace FerritCore {

// The full list of a pack folder, and the increment that a later sequence installed.
inline constexpr std::string_view kIndexFileName = "app-res.hvc";
inline constexpr std::string_view kIncrementIndexFileName = "app-res-incr.hvc";

// The MD5 of no bytes: what a list names for an empty file when it states no sizes.
inline constexpr std::string_view kEmptyMd5 = "d41d8cd98f00b204e9800998ecf8427e";

struct ResourceRecord {
    // A list written before lists carried sizes states none.
    static constexpr uint64_t kUnknownSize = UINT64_MAX;

    std::string url;  // may be empty
    std::string md5;
    std::string path;  // the key in the index, leading "/" trimmed
    HeaderMap header;
    // The file's length in bytes, the list's "size"; kUnknownSize when the list states none.
    uint64_t size = kUnknownSize;

    bool hasSize() const { return size != kUnknownSize; }
    // Whether the list vouches for an empty file: a size of 0, or the MD5 of no bytes in a list
    // without sizes. Any other file that reads empty is damaged.
    bool isEmptyFile() const { return hasSize() ? size == 0 : md5 == kEmptyMd5; }
    // Whether `length` bytes can be this file: the list's size, when it states one.
    bool fits(uint64_t length) const { return !hasSize() || size == length; }
    // Whether `content` is the file that this record vouches for: empty only where the list names
    // an empty file (1103 otherwise), then the list's size and MD5 (1106). `file` names it in
    // messages.
    Error check(const Folder& file, std::string_view content) const;
    // The same judgement from the length and the MD5 of content that was never whole in memory.
    Error checkDigest(const Folder& file, uint64_t length, const std::string& md5Hex) const;
    // Whether `other` names the same bytes: the same MD5, and the same size where both state one.
    bool sameFileAs(const ResourceRecord& other) const {
        return md5 == other.md5 && (!hasSize() || !other.hasSize() || size == other.size);
    }
};

class ResourceIndex {
  public:
    // Reads one entry of a pack zip by name; empty with `error` set on failure.
    using EntryReader = std::function<std::string(const std::string& entryName, Error& error)>;

    // A failed index.
    ResourceIndex(std::string name, Error error);
    // Loads the increment, then the full list, of an installed pack's folder. A missing or empty
    // increment is no failure; a missing full list is, and so is any file that does not verify
    // or parse. Reads only the two index files.
    ResourceIndex(std::string name, const Folder& folder);
    // The full list read as the entry "app-res.hvc" of a pack zip; messages name it
    // "<name>.zip/app-res.hvc". `allowMissingMd5` for an incremental zip, whose records without
    // "v" mark removed paths.
    ResourceIndex(std::string name, const EntryReader& zip, bool allowMissingMd5);
    // From a table already parsed from an embedded configuration: an object from path to
    // {"url", "v", "header"}. Messages name it "SCacheConfig/<name>/app-res.hvc". `files`, when
    // it is a built-in pack's folder (the Asset kind) and the host's raw files are plain files on
    // the disk (Assets::diskPath), is held open as an installed pack's folder is.
    ResourceIndex(std::string name, const MarlLogger::json::JSON& table,
                  const Folder& files = Folder());

    // Verifies and parses one signed index file: "<json>||<token>|<base64 signature>", the
    // signature over the lower-case hexadecimal MD5 of the JSON, by a key KeyTrust takes. A missing
    // separator is 1107, a refused signature (or no proxy) 1106, a body that is not a JSON object
    // 1107; `folder` names the file in messages. On failure `table` is null; success clears
    // `error`.
    static bool parseSigned(const Folder& folder, std::string_view text,
                            MarlLogger::json::JSON& table, Error& error);

    const std::string& name() const { return name_; }
    const Error& error() const { return error_; }
    // The folder the index was read from, whose files its paths name; null for an index that
    // was not read from a pack folder (embedded, from a zip, or failed before reading).
    const Folder* folder() const { return hasFolder_ ? &folder_ : nullptr; }
    // The pack's folder on the disk held open, through which a record's path is found and read
    // without walking from the root (an installed pack's, or a built-in one's whose raw files are
    // plain files); null for any other index, or when the process holds as many directories as it
    // may (callers then use the folder's paths).
    const OpenDirectory* directory() const { return directory_.get(); }
    // Trims one leading "/" and looks the rest up, by "//" URL form or by path. Null when absent.
    std::shared_ptr<const ResourceRecord> find(std::string_view url) const;
    // Lookup entries: each record is entered under its URL form and under its path.
    size_t size() const { return records_.size(); }
    // The URL of every record that names one, sorted, each once (the developer tool's list).
    std::vector<std::string> urls() const;
    // Paths that an increment removed.
    const std::unordered_set<std::string>& removed() const { return removed_; }
    // Calls `visit` once with each record that names a file (each is entered twice for lookups),
    // in path order.
    void forEachFile(const std::function<void(const ResourceRecord& record)>& visit) const;
    // Reads every file of the index below `folder` and compares its size and MD5 with the record.
    // A file that reads empty passes only when the list names it empty. The first failure stops:
    // false with `error` set (the read error, 1103 for a file that lost its content, or 1106 for
    // a different size or MD5).
    bool verifyFiles(const Folder& folder, Error& error) const;

  private:
    // The records that name a file, each once, in path order.
    std::vector<const ResourceRecord*> filesInPathOrder() const;
    // Adds the entries of a parsed table. A record without "v" hides its path when
    // `allowMissingMd5` (an increment), and otherwise fails the whole index with 1107; so does a
    // path with a ".." piece, which could name a file outside the pack, and a "size" that is no
    // count of bytes.
    bool addEntries(const MarlLogger::json::JSON& table, bool allowMissingMd5,
                    const Folder& source);
    // Reads, verifies and adds one index file; false when the index failed.
    bool loadFile(const Folder& file, bool increment);
    void fail(Error error);

    std::string name_;
    Error error_;
    bool hasFolder_ = false;
    Folder folder_;
    std::unique_ptr<OpenDirectory> directory_;
    FlatStringMap<std::shared_ptr<const ResourceRecord>> records_;
    std::unordered_set<std::string> removed_;
};

using ResourceIndexPtr = std::shared_ptr<const ResourceIndex>;

class ResourceIndexPool {
  public:
    // Builds the index of an installed pack instead of reading its folder.
    using Loader = std::function<ResourceIndexPtr(const Pack& pack)>;

    // Asset packs that are not fixed-sequence copies or previews come from `embedded` (a missing
    // one gives a failed index with 3112, not stored). Every other pack is looked up in `loaded`
    // and, on a miss, loaded from its installed folder and stored, even when the load failed.
    static ResourceIndexPtr get(const Pack& pack);
    // The same for a shared record; what this thread found for that very record before comes
    // back without a lookup of its name.
    static ResourceIndexPtr get(const PackPtr& pack);
    // Stores an embedded index; nothing for an empty name or a null index.
    static void set(const std::string& name, ResourceIndexPtr index);
    // Drops a pack from `loaded` (after an install).
    static void remove(const std::string& name);
    // Empties `loaded`.
    static void clear();
    // Replaces the reading of pack folders, for benchmarks and tools that build indexes in memory.
    // Null, the default, reads each pack's folder. A loader that returns null gives 3112.
    static void setLoader(Loader loader);
};

}  // namespace FerritCore
