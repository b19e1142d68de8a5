// SeriesStore: named string values, kept as they are in one Store. The packs store is the one
// instance: the global configuration and the files of packs that live in the store.
//
// A value that cannot be read gives an error in the storage's words: 9997 while the store is
// closed, 1102 when the read fails, 1101 when the key is missing. Threading: any thread (see
// Store).
#pragma once

#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "base/Folder.h"
#include "ferritcore/Error.h"
#include "storage/KeyValueStore.h"
#include "storage/Store.h"
#include "support/ErrorOr.h"
#include "support/Mutex.h"

namespace FerritCore {

class SeriesStore : public Store {
  public:
    // `name` is the folder's name under the root without "/" ("packs"). It names the store in
    // messages, gives the log tag ("Ferrit/" and the name capitalised: "Ferrit/Packs") and the
    // statistics event ("FTS_" and the name). Nothing is opened until open().
    SeriesStore(std::string name, KeyValueStore::Options options);

    // As Store::open, and the folder() that follows the root as it is now.
    int open();
    // The same as open(): what a caller uses to pick up a new root or a replaced folder.
    int reopen() { return open(); }

    // The value, or 9997 when closed, 1102 when the read fails, 1101 when the key is missing.
    // `spare` bytes of capacity are left past the value (see KeyValueStore::get).
    ErrorOr<std::string> get(std::string_view key, size_t spare = 0) const;
    // No error once the value is stored; otherwise 9997 or 1104. Durable: on the disk when it
    // returns, with every put before it.
    Error put(std::string_view key, std::string_view value,
              Durability durability = Durability::Ordinary);
    // Stores every pair in one transaction: all of them, or none with 9997 or 1104 (about the
    // first key).
    Error putAll(const std::vector<std::pair<std::string, std::string>>& entries);
    // As putAll, with each value's checked MD5 (see KeyValueStore::insertAllChecked).
    Error putChecked(const std::vector<KeyValueStore::CheckedValue>& entries);
    // Copies, in one transaction, every key below `from` to the same rest below `to`, unless the
    // new key is there already or `skip` names the rest; the result is the length copied. 9997 or
    // 1104 (about `to`), and then nothing is copied.
    ErrorOr<uint64_t> copyPrefix(std::string_view from, std::string_view to,
                                 const std::unordered_set<std::string>& skip);
    // Deletes everything, compacts, and logs "clear" with "name".
    void clear();

    const std::string& name() const { return name_; }
    const std::string& statisticsEvent() const { return statisticsEvent_; }
    // The store's folder as the root was when it was last opened (Disk, name + "/").
    Folder folder() const;

  private:
    const std::string name_;
    const std::string statisticsEvent_;

    mutable Mutex mutex_;
    Folder folder_ GUARDED_BY(mutex_);
};

}  // namespace FerritCore
