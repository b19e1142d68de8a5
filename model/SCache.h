// SCache: owner of the current configuration snapshot and of the transaction through which every
// change to it passes. current() is lock-free apart from the atomic snapshot load and may be
// called on any thread; mutate() may run on any thread and is serialised by a recursive mutex.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "base/Durability.h"
#include "base/Folder.h"
#include "base/Published.h"
#include "ferritcore/Error.h"
#include "model/FConfig.h"

namespace FerritCore {

// Where committed documents and removed packs go. writeConfig and removeFolder run on the worker,
// in the commit that a transaction posts there; wipeInstalled runs inside the transaction that
// changes the service environment, on whatever thread made it (a push message arrives on the
// host's); dataVersion and readConfig run on any thread.
class ConfigStorage {
  public:
    virtual ~ConfigStorage() = default;
    // Stores the serialised document under the key "config" of the packs store and, once it is
    // stored, deletes the older copy "config/fconfig.config", which is never read again. Durable:
    // on the disk when this returns.
    virtual Error writeConfig(const std::string& text, Durability durability) = 0;
    // Deletes an installed pack's folder, best effort.
    virtual void removeFolder(const Folder& folder) = 0;
    // Deletes "apps/" and the content of the packs store (the service environment changed).
    virtual void wipeInstalled() = 0;

    // Other processes may share the root and commit to the same store. What moves whenever one of
    // them commits (any thread, cheap: no disk read while nothing changed); 0 when this storage
    // cannot tell, and then the document is never reloaded.
    virtual uint64_t dataVersion() { return 0; }
    // The stored document's text, or empty with `error` set (1101 when nothing is stored); best
    // with JSON::kInPlaceSpare bytes of spare capacity, which let the parse read it in place.
    virtual std::string readConfig(Error& error) {
        error.clear();
        return {};
    }
};

class SCache {
  public:
    // The present document; never null (an empty document before anything was loaded).
    static FConfigPtr current();
    // A read of the present document that stays the same for as long as it lives, and that
    // writes nothing that other threads read (see Published): what the request path reads
    // through. Belongs to the thread that made it.
    class Snapshot : public Published<const FConfig>::Reader {
      public:
        Snapshot();
    };
    // Copies the current document, lets `change` edit the copy, rebuilds the indexes and swaps
    // the copy in atomically. In the main process, a change that set `dirty` or removed records
    // posts the commit to the task runner. Returns the new document. `change` must not block on
    // the network. A Durable commit is on the disk before any task posted after this call runs:
    // what a change needs when something is deleted on the strength of it (a replaced version).
    // `committed`, when given, is called on the worker with the commit's outcome once it has run
    // (at once, with no error, when there is nothing for this process to commit).
    using Committed = std::function<void(const Error& error)>;
    static FConfigPtr mutate(const std::function<void(FConfig&)>& change,
                             Durability durability = Durability::Ordinary,
                             Committed committed = {});
    // Publishes `document` as it is (the load at start-up), indexes rebuilt. `loadedAt` is the
    // storage's dataVersion() taken before the document was read from it; without one, the
    // version at this call is taken: from then on refresh() reloads what another process commits.
    static void publish(std::shared_ptr<FConfig> document,
                        std::optional<uint64_t> loadedAt = std::nullopt);

    // When another process has committed to the storage since this one last loaded from it (a
    // version installed, a pack removed), reads the stored document and publishes it in place of
    // the present one: the built-in packs stay as this process loaded them, and the resource
    // indexes of packs whose installed version changed are dropped. True when a new document was
    // published. While nothing changed it costs one look at the storage's dataVersion(), which is
    // why callers ask only where a request already failed (a miss, a missing file, a stale pack)
    // and at each update trigger, never on a hit. Nothing is reloaded while a commit of this
    // process is still pending, so that a change made here is never replaced by an older stored
    // one before it is written. Any thread.
    static bool refresh();
    // How many documents refresh() has published. A request that failed compares it with the
    // value from before its lookup: when it moved, the lookup ran on an older document and is
    // worth one more try even if this thread's refresh() found nothing new.
    static uint64_t reloadCount();
    // The storage's dataVersion() now; 0 without storage.
    static uint64_t storedVersion();
    // Whether a document has been put in place in this process (the load at start-up, or any
    // change): before that, current() is an empty document that says nothing of what is installed.
    static bool loaded();

    // Writes a committed document and deletes the folders of its removed records: what the posted
    // commit task runs. Failures are logged and returned; the document stays in memory and the
    // next dirty commit writes it again.
    static Error commit(const FConfig& document, Durability durability = Durability::Ordinary);
    // Asks the storage to delete everything installed (see ConfigStorage::wipeInstalled).
    static void wipeInstalled();
    // Set once at start-up; without one, commits are only kept in memory.
    static void setStorage(std::shared_ptr<ConfigStorage> storage);
};

}  // namespace FerritCore
