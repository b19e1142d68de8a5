// PacksStore: the process-wide SeriesStore in "packs/". It holds the global configuration under
// "config" and the files of packs that live in the store under "<name>/<seq>/<path>". A file
// written with the MD5 it was checked against keeps its bytes once, under the pack's name and
// that MD5, for every version of that pack that has it (see KeyValueStore::Options::sharedContent):
// an increment names the bytes of its unchanged files rather than copying them, and they go with
// the last version naming them.
//
// Created and opened at first use (see StoreInstance); two first users block until one has finished
// opening. Any thread (see SeriesStore).
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/Folder.h"
#include "base/PackedFiles.h"
#include "ferritcore/Error.h"
#include "storage/SeriesStore.h"
#include "storage/StoreInstance.h"
#include "support/ErrorOr.h"

namespace FerritCore {

class PacksStore : public SeriesStore {
  public:
    static constexpr const char* kName = "packs";
    // The key of the global configuration document.
    static constexpr const char* kConfigKey = "config";

    // The instance, opened under the root that is set at first use. After opening it sends its
    // open time (and the error 9997 of a failed first open) as the record "FTS_packs" and logs
    // "load" with "name" and "time" under "Ferrit/Packs".
    static PacksStore& instance();
    // The files of packs kept in this store, under their relative paths beside "config": what
    // the `Packed` kind of Folder reads and writes.
    static std::shared_ptr<PackedFiles> files();

    // The file that held the global configuration before the store did.
    static Folder legacyConfigFile() { return Folder::disk("config/fconfig.config"); }

    // The stored configuration text. When the store has no "config" key (1101), the older file
    // is read instead and its result stands; any other failure of the store is returned as it
    // is. `spare` bytes of capacity are left past the text, for a parser that reads it in place.
    ErrorOr<std::string> readConfig(size_t spare = 0) const;
    // Stores the text under "config"; once it is stored, the older file is deleted, so that it
    // is never read again. A failed write keeps the file: nothing is lost. Durable: the document
    // (and every file of the store written before it) is on the disk when this returns. No error
    // once it is stored.
    Error writeConfig(const std::string& text, Durability durability = Durability::Ordinary);

    // What moves whenever another process commits to the store (see KeyValueStore::dataVersion):
    // a change here means that the configuration, or the files of a packed pack, may have been
    // replaced behind this process. 0 while the store is closed or the number cannot be read.
    uint64_t dataVersion() const;

    // Deletes every key but "config" whose part up to and including its second "/" is empty or
    // not `owned`, appending each such key to `invalidPaths`; compacts when any went. The keys
    // are all read before the first is deleted.
    void removeInvalid(const std::function<bool(std::string_view sequencePart)>& owned,
                       std::vector<std::string>& invalidPaths);

  private:
    friend class StoreInstance<PacksStore>;
    PacksStore();
    void openAndReport();
};

}  // namespace FerritCore
