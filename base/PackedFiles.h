// PackedFiles: what Folder needs of the store that holds the files of packs kept in the packs
// database, one value per file under its relative path. The store itself lives elsewhere; this
// interface lets Folder read and write `Packed` files without knowing it, and lets tests serve
// them from memory. Implementations must be safe to call from any thread.
//
// The process-wide instance is installed by the composition root, normally over the packs store
// (current() and set() are any thread); with none set, reads fail with the store's "not
// initialised" error, writes fail, and queries answer false or nothing.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "ferritcore/Error.h"

namespace FerritCore {

// A file to store: its key, its bytes, and the MD5 (32 lower-case hexadecimal digits) that those
// bytes were checked against while they were written, or empty when they were not.
struct CheckedFile {
    std::string key;
    std::string content;
    std::string md5;
};

class PackedFiles {
  public:
    virtual ~PackedFiles() = default;

    // The value of `key`. False with `error` set (the store's own error) when there is none or it
    // cannot be read; `value` is then unspecified.
    virtual bool get(std::string_view key, std::string& value, Error& error) = 0;
    // Stores `value` under `key`. False with `error` set on failure; success clears `error`.
    virtual bool put(std::string_view key, std::string_view value, Error& error) = 0;
    // Stores every pair as one write: all of them or, on failure, none. The default stores them
    // one by one, so that a failure there keeps those before it. False with `error` set.
    virtual bool putAll(const std::vector<std::pair<std::string, std::string>>& entries,
                        Error& error);
    // As putAll, for files that may carry their checked MD5: a store may then keep bytes that
    // several keys share once, under that MD5. The default stores the bytes under each key
    // through putAll.
    virtual bool putChecked(const std::vector<CheckedFile>& files, Error& error);
    // Copies every key below `fromPrefix` to the same rest below `toPrefix`, unless the new key
    // is there already or `skip` names the rest; `bytes` receives the total length copied. The
    // prefixes must not overlap. The default copies through get, contains and put, one by one.
    virtual bool copyPrefix(std::string_view fromPrefix, std::string_view toPrefix,
                            const std::unordered_set<std::string>& skip, uint64_t& bytes,
                            Error& error);
    virtual bool contains(std::string_view key) = 0;
    // Deletes every key from `prefix` to `prefix` followed by one byte 0xFF; an empty prefix
    // deletes everything.
    virtual void removeByPrefix(std::string_view prefix) = 0;
    // Calls `visit` with each key of that range, in key order, until it returns true.
    virtual void enumerate(std::string_view prefix,
                           const std::function<bool(std::string_view key)>& visit) = 0;

    // The process-wide store of packed files, or null.
    static std::shared_ptr<PackedFiles> current();
    // Replaces it; null detaches it.
    static void set(std::shared_ptr<PackedFiles> files);
};

}  // namespace FerritCore
