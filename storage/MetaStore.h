// MetaStore: JSON values by key, kept in their binary form in one Store. The shared configuration
// store is one; the content cache derives from it.
//
// A value that cannot be read gives an error: 9997 while the store is closed,
// 1102 when the read fails or the stored bytes do not decode, 1101 when the key is missing.
// Threading: any thread (see Store).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ferritcore/Error.h"
#include "marl/Json.h"
#include "storage/KeyValueStore.h"
#include "storage/Store.h"
#include "support/ErrorOr.h"
#include "support/FunctionRef.h"

namespace FerritCore {

class MetaStore : public Store {
  public:
    // `directory` is the folder's name under the root with its trailing "/" ("config_v2/"); it
    // also begins every key in messages, so that a key prints as a path. `tag` is the log tag.
    // Nothing is opened until open().
    MetaStore(std::string directory, std::string tag, KeyValueStore::Options options);

    // The value, or 9997 when closed, 1102 when the read fails or the stored bytes do not decode
    // (the decoder's words), 1101 when the key is missing. The undecodable value stays stored
    // until somebody removes it.
    ErrorOr<MarlLogger::json::JSON> get(std::string_view key) const;
    // Hands the stored bytes of `key` to `decode` where they lie in the database's buffer, so
    // that a reader copies only what it keeps. `decode` returns false with the decoder's words in
    // `reason` when the bytes do not decode. The errors are get's, in get's words. `decode` runs
    // under the database's lock: it must not call this store, and the view lasts for the call.
    Error visit(std::string_view key,
                FunctionRef<bool(std::string_view bytes, std::string& reason)> decode) const;
    // No error once the value is stored; otherwise 9997 or 1104.
    Error put(std::string_view key, const MarlLogger::json::JSON& value);
    // Stores every pair in one transaction: all of them or, on failure, none (9997 or 1104,
    // naming the first key). Many small values written together pay for one commit.
    Error putAll(const std::vector<std::pair<std::string, MarlLogger::json::JSON>>& entries);
    using Store::enumerate;
    // As Store::enumerate; without `withKey` the key is not handed on (an empty view is passed),
    // for callers that only count.
    void enumerate(std::string_view prefix, const std::function<bool(std::string_view key)>& visit,
                   bool withKey) const;
    // Deletes everything (a failure is logged as a delete), then compacts.
    void clear();

    const std::string& directory() const { return directory_; }

  private:
    const std::string directory_;
};

}  // namespace FerritCore
