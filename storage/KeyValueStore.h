// KeyValueStore: an ordered map of byte keys to byte values kept in one SQLite database file
// inside the store's own folder. Every small persistent thing of the system (the packs store,
// the shared configuration store, the content cache) sits on one of these.
//
// Threading: any thread. One connection per open store, guarded by one mutex. Operations are a
// few microseconds each and the callers are the single worker plus the host's request threads,
// so contention is rare; one connection keeps one page cache within its memory budget and one
// set of prepared statements, where per-thread connections would multiply both and leak them
// with every thread that ends. Several processes may open the same store: SQLite's file locks
// arbitrate, and a busy timeout absorbs short contention.
//
// Ownership: open() hands the caller a unique_ptr; closing is destroying it.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "base/Durability.h"
#include "support/FunctionRef.h"
#include "support/Mutex.h"

namespace FerritCore {

class KeyValueStore {
  public:
    // One end of a key range. Keys compare as unsigned bytes, so that a range from a prefix to
    // the prefix followed by 0xFF holds exactly the keys that start with the prefix. A range is
    // half-open, [from, to): a key equal to `to` lies outside it. The view does not own the
    // bytes; they must outlive the call it is passed to.
    class Key {
      public:
        constexpr Key(std::string_view bytes) : bytes_(bytes) {}
        Key(const std::string& bytes) : bytes_(bytes) {}
        constexpr Key(const char* bytes) : bytes_(bytes) {}
        // The empty key: nothing sorts before it.
        static constexpr Key minKey() { return Key(std::string_view()); }
        // Past every key.
        static constexpr Key maxKey() { return Key(std::string_view(), /*max=*/true); }

        std::string_view data() const { return bytes_; }
        size_t size() const { return bytes_.size(); }
        bool isMax() const { return max_; }
        bool operator==(const Key& other) const {
            return max_ == other.max_ && bytes_ == other.bytes_;
        }

      private:
        constexpr Key(std::string_view bytes, bool max) : bytes_(bytes), max_(max) {}
        std::string_view bytes_;
        bool max_ = false;
    };

    // How one store's database is laid out and tuned. The first two numbers are the store's own
    // configuration; the rest are SQLite settings chosen for what the store holds.
    struct Options {
        // Memory budget of the connection's page cache, in bytes.
        uint32_t cacheBytes = 1048576;
        // Format version of the data, kept in the database header. A database written with
        // another version fails to open (and is thereby replaced) rather than being misread.
        uint16_t formatVersion = 2;
        // Only applies when the database is created; an existing file keeps its page size.
        int pageSize = 4096;
        // Bytes of the database file that reads may take through a memory map; 0 reads every
        // page through the page cache.
        int64_t mmapBytes = 0;
        // Milliseconds to wait for another process's lock before an operation reports busy.
        int busyTimeoutMs = 5000;
        // Values given with the MD5 their bytes were checked against are stored once under the
        // key's first segment and that MD5, and every key of that segment that has them names
        // them there (see insertAllChecked): what lets two versions of a pack share their
        // unchanged files, and no pack reach another's. A store of format `migratesFrom`
        // gains it at open, in one transaction.
        bool sharedContent = false;
        uint16_t migratesFrom = 0;

        // The packs store: the global configuration (one document of up to a few MiB) and
        // the files of packs kept in the store, read on the host's request path.
        static Options forPacks();
        // The shared configuration store: many small JSON objects written often.
        static Options forConfig();
        // The content cache: resource bodies up to 3 MiB, read on the request path.
        static Options forCache();
    };

    // Status results are SQLite's extended result codes: 0 is success.
    static constexpr int kOk = SQLITE_OK;

    ~KeyValueStore();
    KeyValueStore(const KeyValueStore&) = delete;
    KeyValueStore& operator=(const KeyValueStore&) = delete;

    // How a store is opened: for reading and writing (created when missing), or for reading
    // only, when the medium or the folder cannot be written.
    enum class Access { ReadWrite, ReadOnly };

    // Opens or creates the store whose folder is `path` (no trailing "/"), creating the folder
    // when missing. A database that does not open, or that fails its quick integrity check, is
    // reported by a non-zero status and `store` stays null; nothing is repaired or removed here.
    //
    // ReadOnly opens an existing database without writing anything: not the folder, the
    // database, nor its log and index files. A write-ahead database can be read that way while its
    // log and index files exist (SQLite keeps the index in memory when its file cannot be written);
    // after a clean close they are gone and cannot be created on a medium that refuses writes, and
    // then the whole content lies in the database file, which is opened as immutable. Writes
    // through a read-only store fail with SQLITE_READONLY.
    static int open(const std::string& path, const Options& options,
                    std::unique_ptr<KeyValueStore>* store, Access access = Access::ReadWrite);
    // Opens; when that fails, removes the folder and opens once more. A damaged store thereby
    // loses what it held and comes back empty. A transient failure (see isTransient) removes
    // nothing: the second attempt opens the store as it is. Returns the status of the first
    // attempt, so that the caller can report it although the store may now work; `finalStatus`
    // gets the status of the attempt that counts (0 exactly when `store` is set).
    static int openOrReplace(const std::string& path, const Options& options,
                             std::unique_ptr<KeyValueStore>* store, int* finalStatus);
    // Busy or locked by another process, out of memory, interrupted, or disk full: failures
    // that say nothing about the database file.
    static bool isTransient(int status);
    // Deletes the store's folder with everything in it. 0, or SQLITE_IOERR when something is
    // left. The caller must have closed its own handle on the store.
    static int remove(const std::string& path);
    // Bytes that the folder's files take on disk now (database, write-ahead log, index).
    static uint64_t diskSize(const std::string& path);
    // The name of the database file inside a store's folder.
    static constexpr const char* kFileName = "store.db";

    // A number that changes whenever another connection, in this process or another, commits to
    // the database, and never with this connection's own commits: what tells a process that
    // another one has written. Only comparable with earlier results of the same store object.
    // Costs one step of a prepared statement (no disk read while nothing changed).
    int dataVersion(uint64_t& version);
    // Whether the key is there; false on any failure.
    bool contains(std::string_view key);
    // Copies the value into `value` (reusing its capacity) and sets `found`. A missing key is
    // status 0 with `found` false and `value` emptied. `spare` bytes of capacity are left past
    // the value, for a reader that works in place.
    int get(std::string_view key, std::string& value, bool& found, size_t spare = 0);
    // Hands the value to `reader` where it lies in SQLite's buffer, without copying it, and sets
    // `found`; a missing key is status 0 with `found` false and `reader` not called. The view
    // lasts for the call only, and `reader` runs under the store's lock: it must not call this
    // store.
    int visit(std::string_view key, FunctionRef<void(std::string_view value)> reader, bool& found);
    // Inserts or replaces. A Durable insert is on the disk when it returns, and with it every
    // commit before it; an Ordinary one survives the process but not a power cut.
    int insert(std::string_view key, std::string_view value,
               Durability durability = Durability::Ordinary);
    // Inserts or replaces every pair in one transaction: all of them or, on failure, none.
    int insertAll(const std::vector<std::pair<std::string, std::string>>& entries);
    // A value and the MD5 (32 lower-case hexadecimal digits) its bytes were checked against; an
    // empty `md5` when none was. Views: the bytes must outlive the call they are passed to.
    struct CheckedValue {
        std::string_view key;
        std::string_view value;
        std::string_view md5;
    };
    // As insertAll. In a store with shared content a value with an MD5 is kept once under the
    // key's scope (its part up to and including the first "/") and the MD5, and the key names
    // it; bytes already there under that name are replaced by these, which the caller checked,
    // and every key naming them reads them. SQLITE_MISUSE for an MD5 that is not one, or a key
    // with no scope.
    int insertAllChecked(const std::vector<CheckedValue>& entries);
    // In one transaction: for every key that starts with `from`, inserts its value under the key
    // with `to` in place of that prefix, unless a value is there already or `skip` holds the rest
    // of the key (what follows the prefix). `bytes` receives the total length of the values
    // copied. The prefixes must not overlap. On failure nothing is copied. A key that names a
    // shared content is copied as a new name of the same content, not its bytes, and only to a key
    // of the same scope (see insertAllChecked): SQLITE_MISUSE otherwise.
    int copyPrefix(std::string_view from, std::string_view to,
                   const std::unordered_set<std::string>& skip, uint64_t& bytes);
    // Deleting a missing key is success.
    int erase(std::string_view key);
    // Deletes every key in [from, to), in one statement.
    int eraseRange(Key from, Key to);
    int clear();
    // Moves the write-ahead log into the database, gives free pages back to the file system and
    // truncates the log. Busy when another process holds a read transaction; then nothing is
    // lost and a later compaction finishes the work.
    int compact();
    // Calls `visit` with each key in [from, to) in ascending byte order until it returns true.
    // Keys are fetched in batches and no lock is held while `visit` runs, so it may read and
    // write this store; keys inserted behind the current one are not visited.
    int enumerateKeys(Key from, Key to, const std::function<bool(std::string_view key)>& visit);

    const std::string& path() const { return path_; }
    bool readOnly() const { return readOnly_; }

  private:
    struct Statements;
    KeyValueStore(std::string path, sqlite3* db, bool readOnly);
    int configure(const Options& options);
    // Page size and vacuum mode, set only on a file that needs them.
    int layOut(const Options& options);
    int configureReadOnly(const Options& options);
    // Migrates a store of the previous format (or a new one) to shared content.
    int shareContent(const Options& options);
    int insertChecked(const CheckedValue& entry) REQUIRES(mutex_);
    // Fetches up to `limit` keys of the range that follow `after` (or start at `from` when
    // `after` is null) into `keys`, each as its own string.
    int fetchKeys(Key from, Key to, const std::string* after, size_t limit,
                  std::vector<std::string>& keys);

    const std::string path_;
    const bool readOnly_;
    Mutex mutex_;
    sqlite3* const db_ PT_GUARDED_BY(mutex_);
    std::unique_ptr<Statements> statements_ GUARDED_BY(mutex_);
};

// A key range that owns its bounds, so that it can outlive the text it was made from.
struct KeyRange {
    std::string from;
    std::string to;
    bool toMax = false;
    KeyValueStore::Key begin() const { return KeyValueStore::Key(std::string_view(from)); }
    KeyValueStore::Key end() const {
        return toMax ? KeyValueStore::Key::maxKey() : KeyValueStore::Key(std::string_view(to));
    }
};
// The range of every key that starts with `prefix`: from the prefix to the prefix followed by
// one byte 0xFF, or from the minimal to the maximal key for an empty prefix.
KeyRange prefixRange(std::string_view prefix);

}  // namespace FerritCore
