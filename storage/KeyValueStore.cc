#include "storage/KeyValueStore.h"

#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "support/Ascii.h"
#include "support/Mutex.h"

namespace FerritCore {
namespace {

// A write-ahead log longer than this is checkpointed into the database by the next commit, and
// is cut back to this length after a checkpoint: readers scan the log's index on every read
// transaction, so a short log keeps gets fast, and the file does not stay large after a burst.
constexpr int64_t kWalBytes = 4 * 1024 * 1024;

// What "PRAGMA auto_vacuum" answers for a file laid out for incremental vacuum.
// What `PRAGMA auto_vacuum` and `PRAGMA page_count` answer.
constexpr std::string_view kFullVacuum = "1";
constexpr std::string_view kNoPages = "0";
// SQLite's page size when none is set.
constexpr int64_t kDefaultPageSize = 4096;

// Keys fetched per round of an enumeration: enough to amortise the lock and the statement, few
// enough that an early stop wastes little.
constexpr size_t kEnumerateBatch = 256;

// SQLite binds a null pointer as SQL NULL even with length 0; an empty key or value must be a
// zero-length blob, or it would neither compare nor satisfy NOT NULL.
const char* blobData(std::string_view bytes) {
    return bytes.data() != nullptr ? bytes.data() : "";
}

int bindBlob(sqlite3_stmt* statement, int index, std::string_view bytes) {
    return sqlite3_bind_blob64(statement, index, blobData(bytes), bytes.size(), SQLITE_STATIC);
}

// Resets a statement when a scope ends, so that it releases its read transaction at once. The
// bindings are left: they point into the caller's memory, but every use binds all of them anew
// before stepping.
class ResetOnExit {
  public:
    explicit ResetOnExit(sqlite3_stmt* statement) : statement_(statement) {}
    ~ResetOnExit() { sqlite3_reset(statement_); }
    ResetOnExit(const ResetOnExit&) = delete;
    ResetOnExit& operator=(const ResetOnExit&) = delete;

  private:
    sqlite3_stmt* statement_;
};

// Runs a statement that returns no rows the caller needs.
int runToEnd(sqlite3_stmt* statement) {
    int rc;
    do {
        rc = sqlite3_step(statement);
    } while (rc == SQLITE_ROW);
    return rc == SQLITE_DONE ? SQLITE_OK : rc;
}

int execute(sqlite3* db, const char* sql) {
    return sqlite3_exec(db, sql, nullptr, nullptr, nullptr);
}

// One-row pragmas that answer with a value: the first column as text, or an error status.
int queryText(sqlite3* db, const char* sql, std::string& result) {
    sqlite3_stmt* statement = nullptr;
    int rc = sqlite3_prepare_v2(db, sql, -1, &statement, nullptr);
    if (rc != SQLITE_OK) return rc;
    rc = sqlite3_step(statement);
    if (rc == SQLITE_ROW) {
        const unsigned char* text = sqlite3_column_text(statement, 0);
        result = text != nullptr ? reinterpret_cast<const char*>(text) : "";
        rc = SQLITE_OK;
    } else if (rc == SQLITE_DONE) {
        result.clear();
        rc = SQLITE_OK;
    }
    sqlite3_finalize(statement);
    return rc;
}

// One write transaction, rolled back unless committed. IMMEDIATE takes the write lock at the
// start, so that a busy store fails before anything is done rather than at the commit.
class WriteTransaction {
  public:
    explicit WriteTransaction(sqlite3* db) : db_(db), status_(execute(db, "BEGIN IMMEDIATE")) {}
    ~WriteTransaction() {
        if (status_ == SQLITE_OK && !committed_) execute(db_, "ROLLBACK");
    }
    WriteTransaction(const WriteTransaction&) = delete;
    WriteTransaction& operator=(const WriteTransaction&) = delete;
    int status() const { return status_; }
    int commit() {
        const int rc = execute(db_, "COMMIT");
        committed_ = rc == SQLITE_OK;
        return rc;
    }

  private:
    sqlite3* db_;
    int status_;
    bool committed_ = false;
};

}  // namespace

bool KeyValueStore::isTransient(int status) {
    switch (status & 0xFF) {
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
        case SQLITE_NOMEM:
        case SQLITE_INTERRUPT:
        case SQLITE_FULL:
            return true;
        default:
            return false;
    }
}

KeyValueStore::Options KeyValueStore::Options::forPacks() {
    Options options;
    options.cacheBytes = 4194304;
    // 3: a file's bytes live once in a content table under the MD5 they were checked against,
    // and every version's row names them there; a store of format 2 is migrated at open.
    options.formatVersion = 3;
    options.sharedContent = true;
    options.migratesFrom = 2;
    // Pack files and the configuration document are kilobytes to megabytes. At 4 KiB pages a
    // 2 KiB value already spills to an overflow page and a get costs 15-17 us; 16 KiB pages
    // keep such values inline, halve the get, and make the range delete of a removed pack's
    // files five times faster.
    options.pageSize = 16384;
    // Packed files are read on the host's request path, where a memory-mapped read halves the
    // get again (to ~4 us). The map only reserves address space; the file's pages stay in the
    // kernel's page cache, shared with every process that opens the store.
    options.mmapBytes = 256LL * 1024 * 1024;
    return options;
}

KeyValueStore::Options KeyValueStore::Options::forConfig() {
    Options options;
    options.cacheBytes = 1048576;
    options.formatVersion = 2;
    // Statistics, time marks, hot lists and registrations are tens to hundreds of bytes and are
    // rewritten often. Each commit appends whole pages to the log, so small pages keep every
    // write small; no value here is large enough to spill.
    options.pageSize = 4096;
    // Read when a subsystem loads, not per request: the page cache is enough, and the store
    // stays free of the SIGBUS exposure that a mapped file has when the disk fails.
    options.mmapBytes = 0;
    return options;
}

KeyValueStore::Options KeyValueStore::Options::forCache() {
    // Resource bodies up to 3 MiB plus their metadata, read per request: the values and the
    // reads of the packs store, so its layout and tuning. A cached body is written once, under
    // its URL, and never by two versions: nothing to share.
    Options options = forPacks();
    options.formatVersion = 2;
    options.sharedContent = false;
    options.migratesFrom = 0;
    return options;
}

struct KeyValueStore::Statements {
    enum Slot {
        kGet,
        kContains,
        kInsert,
        kInsertContent,
        kInsertNaming,
        kRemove,
        kRemoveRange,
        kRemoveFrom,
        kClear,
        kInsertIfAbsent,
        kRowsFrom,
        // Key enumeration: starting at a bound (inclusive) or after the last key of the previous
        // batch (exclusive), with an upper bound or running to the end.
        kKeysFrom,
        kKeysAfter,
        kKeysFromToEnd,
        kKeysAfterToEnd,
        kDataVersion,
        kSlots
    };

    // Each statement's text, null where the layout has none (the content statements of a store
    // without shared content), and the statement once prepared.
    const char* sql[kSlots] = {};
    sqlite3_stmt* prepared[kSlots] = {};
    bool shared = false;

    ~Statements() {
        for (sqlite3_stmt* statement : prepared) sqlite3_finalize(statement);
    }

    // The statement of `slot`, prepared at its first use: a start reads one value of a store and
    // writes none, and preparing every statement at open cost as much as that read (the upserts
    // compile the content triggers).
    int use(sqlite3* db, Slot slot, sqlite3_stmt*& statement) {
        statement = prepared[slot];
        if (statement != nullptr) return SQLITE_OK;
        if (sql[slot] == nullptr) return SQLITE_MISUSE;
        const int rc = sqlite3_prepare_v3(db, sql[slot], -1, SQLITE_PREPARE_PERSISTENT,
                                          &prepared[slot], nullptr);
        statement = prepared[slot];
        return rc;
    }

    // `previousFormat`: the format a read-only handle reads a store in as it is, 0 for the
    // store's own. Prepares the get, which reads every table of the layout, so that a database
    // whose schema does not fit its format fails at open, where it can still be replaced.
    int prepare(sqlite3* db, bool sharedContent, int previousFormat = 0) {
        shared = sharedContent;
        // A handle reading the previous format keeps reading after another process migrated the
        // store, where a row naming a content holds no bytes of its own: its get then misses,
        // as a file that is not there, rather than serve an empty body as the file. The content
        // table is what the migration adds; looking it up in the schema costs a get 13%, reading
        // the version through pragma_user_version 65%.
        const char* const previousGet =
            "SELECT v FROM kv WHERE k = ?1 AND NOT EXISTS "
            "(SELECT 1 FROM sqlite_schema WHERE name = 'content')";
        // With shared content a row holds its bytes (c NULL) or names a content (v empty); a
        // read is still one statement. The upserts update a row in place rather than replace
        // it, so that the triggers that free a content no row names any more see the change.
        const bool s = sharedContent;
        sql[kGet] = s ? "SELECT coalesce(content.v, kv.v) FROM kv LEFT JOIN content "
                        "ON content.h = kv.c WHERE kv.k = ?1"
                    : previousFormat != 0 ? previousGet
                                          : "SELECT v FROM kv WHERE k = ?1";
        sql[kContains] = "SELECT 1 FROM kv WHERE k = ?1";
        sql[kInsert] = s ? "INSERT INTO kv(k, v, c) VALUES(?1, ?2, NULL) "
                           "ON CONFLICT(k) DO UPDATE SET v = excluded.v, c = NULL"
                         : "INSERT OR REPLACE INTO kv(k, v) VALUES(?1, ?2)";
        sql[kInsertContent] = s ? "INSERT INTO content(h, v) VALUES(?1, ?2) "
                                  "ON CONFLICT(h) DO UPDATE SET v = excluded.v"
                                : nullptr;
        sql[kInsertNaming] = s ? "INSERT INTO kv(k, v, c) VALUES(?1, x'', ?2) "
                                 "ON CONFLICT(k) DO UPDATE SET v = x'', c = excluded.c"
                               : nullptr;
        sql[kRemove] = "DELETE FROM kv WHERE k = ?1";
        sql[kRemoveRange] = "DELETE FROM kv WHERE k >= ?1 AND k < ?2";
        sql[kRemoveFrom] = "DELETE FROM kv WHERE k >= ?1";
        sql[kClear] = "DELETE FROM kv";
        sql[kInsertIfAbsent] = s ? "INSERT OR IGNORE INTO kv(k, v, c) VALUES(?1, ?2, ?3)"
                                 : "INSERT OR IGNORE INTO kv(k, v) VALUES(?1, ?2)";
        // length() of a blob column reads its size from the record, not its pages.
        sql[kRowsFrom] = s ? "SELECT kv.k, kv.v, kv.c, length(content.v) FROM kv LEFT JOIN "
                             "content ON content.h = kv.c WHERE kv.k >= ?1 AND kv.k < ?2 "
                             "ORDER BY kv.k"
                           : "SELECT k, v, NULL, NULL FROM kv WHERE k >= ?1 AND k < ?2 ORDER BY k";
        sql[kKeysFrom] = "SELECT k FROM kv WHERE k >= ?1 AND k < ?2 ORDER BY k LIMIT ?3";
        sql[kKeysAfter] = "SELECT k FROM kv WHERE k > ?1 AND k < ?2 ORDER BY k LIMIT ?3";
        sql[kKeysFromToEnd] = "SELECT k FROM kv WHERE k >= ?1 ORDER BY k LIMIT ?3";
        sql[kKeysAfterToEnd] = "SELECT k FROM kv WHERE k > ?1 ORDER BY k LIMIT ?3";
        sql[kDataVersion] = "PRAGMA data_version";
        sqlite3_stmt* get = nullptr;
        return use(db, kGet, get);
    }
};

KeyValueStore::KeyValueStore(std::string path, sqlite3* db, bool readOnly)
    : path_(std::move(path)),
      readOnly_(readOnly),
      db_(db),
      statements_(std::make_unique<Statements>()) {}

KeyValueStore::~KeyValueStore() {
    statements_.reset();
    // The last connection of all processes checkpoints the log into the database and deletes it.
    sqlite3_close_v2(db_);
}

namespace {

// A connection to `uri` (a "file:" name with its query) for reading only. Null on failure, with
// the status in `status`.
sqlite3* openReadOnlyConnection(const std::string& uri, int& status) {
    sqlite3* db = nullptr;
    status = sqlite3_open_v2(
        uri.c_str(), &db,
        SQLITE_OPEN_READONLY | SQLITE_OPEN_URI | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE,
        nullptr);
    if (status == SQLITE_OK) return db;
    if (db != nullptr) status = sqlite3_extended_errcode(db);
    sqlite3_close_v2(db);
    return nullptr;
}

// The file's name as the path of a "file:" URI: "?", "#" and "%" would end or escape it.
std::string uriPath(const std::string& file) {
    std::string escaped;
    escaped.reserve(file.size());
    for (const char c : file) {
        if (c == '?' || c == '#' || c == '%') {
            escaped.push_back('%');
            escaped.push_back(Ascii::kUpperHexDigits[(static_cast<unsigned char>(c) >> 4) & 0xF]);
            escaped.push_back(Ascii::kUpperHexDigits[static_cast<unsigned char>(c) & 0xF]);
        } else {
            escaped.push_back(c);
        }
    }
    return "file:" + escaped;
}

// Whether the write-ahead log holds nothing that the database file lacks: no log, or an empty one.
bool logIsEmpty(const std::string& file) {
    struct stat info;
    if (::stat((file + "-wal").c_str(), &info) != 0) return errno == ENOENT;
    return info.st_size == 0;
}

}  // namespace

int KeyValueStore::open(const std::string& path, const Options& options,
                        std::unique_ptr<KeyValueStore>* store, Access access) {
    store->reset();
    if (path.empty()) return SQLITE_CANTOPEN;
    if (access == Access::ReadOnly) {
        const std::string file = path + "/" + kFileName;
        struct stat info;
        if (::stat(file.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return SQLITE_CANTOPEN;
        // First as a reader among others, which sees what the log holds; when the log's index
        // cannot be had, and only if the log adds nothing, the database file alone as immutable.
        int rc = SQLITE_CANTOPEN;
        const std::string uri = uriPath(file);
        for (const char* query : {"?mode=ro", "?immutable=1"}) {
            if (std::string_view(query) == "?immutable=1" && !logIsEmpty(file)) break;
            sqlite3* db = openReadOnlyConnection(uri + query, rc);
            if (db == nullptr) continue;
            std::unique_ptr<KeyValueStore> opened(new KeyValueStore(path, db, /*readOnly=*/true));
            rc = opened->configureReadOnly(options);
            if (rc != SQLITE_OK) continue;
            *store = std::move(opened);
            return SQLITE_OK;
        }
        return rc;
    }
    std::error_code ignored;
    std::filesystem::create_directories(path, ignored);
    struct stat info;
    if (::stat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) return SQLITE_CANTOPEN;

    const std::string file = path + "/" + kFileName;
    sqlite3* db = nullptr;
    // The store's own mutex serialises every use of the connection, so SQLite's is not needed.
    // Extended result codes from the start, so that a failed open says why (a directory, say).
    int rc = sqlite3_open_v2(
        file.c_str(), &db,
        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE,
        nullptr);
    if (rc != SQLITE_OK) {
        if (db != nullptr) rc = sqlite3_extended_errcode(db);
        sqlite3_close_v2(db);
        return rc;
    }
    std::unique_ptr<KeyValueStore> opened(new KeyValueStore(path, db, /*readOnly=*/false));
    rc = opened->configure(options);
    if (rc != SQLITE_OK) return rc;
    *store = std::move(opened);
    return SQLITE_OK;
}

int KeyValueStore::openOrReplace(const std::string& path, const Options& options,
                                 std::unique_ptr<KeyValueStore>* store, int* finalStatus) {
    const int first = open(path, options, store);
    int last = first;
    if (first != SQLITE_OK) {
        // A lock that another process held past the busy timeout, a full disk or a lack of
        // memory says nothing about the file, which may hold another live process's data: the
        // store is tried once more as it is and otherwise stays closed for this run. Anything
        // else means that the file cannot serve, and it is replaced. The status of the removal
        // does not matter: if something is left, the second open fails and says so.
        if (!isTransient(first)) remove(path);
        last = open(path, options, store);
    }
    if (finalStatus != nullptr) *finalStatus = last;
    return first;
}

int KeyValueStore::layOut(const Options& options) {
    // Page size and incremental vacuum are fixed when the first page is written, which switching
    // to WAL does, so they come first. Incremental vacuum lets compaction give free pages back
    // without rewriting the whole file. This is also the first statement that reads the file,
    // so a file that is not a database fails here.
    std::string pages;
    int rc = queryText(db_, "PRAGMA page_count", pages);
    if (rc != SQLITE_OK) return rc;
    std::string vacuum;
    rc = queryText(db_, "PRAGMA auto_vacuum", vacuum);
    if (rc != SQLITE_OK) return rc;
    // Only a new file is laid out, and a full vacuum turned incremental, which SQLite does in
    // place: on a file laid out already the statements rewrite the header page all the same, a
    // commit with its syncs at every start. A store an older release made without vacuum keeps
    // its layout, which only a full rewrite could change.
    if (pages == kNoPages) {
        const std::string sql = "PRAGMA page_size=" + std::to_string(options.pageSize) +
                                ";PRAGMA auto_vacuum=INCREMENTAL;";
        rc = execute(db_, sql.c_str());
        if (rc != SQLITE_OK) return rc;
    } else if (vacuum == kFullVacuum) {
        rc = execute(db_, "PRAGMA auto_vacuum=INCREMENTAL;");
        if (rc != SQLITE_OK) return rc;
    }
    return SQLITE_OK;
}

int KeyValueStore::configure(const Options& options) {
    sqlite3_extended_result_codes(db_, 1);
    sqlite3_busy_timeout(db_, options.busyTimeoutMs);

    int rc = layOut(options);
    if (rc != SQLITE_OK) return rc;

    // WAL: readers never block the writer, a commit is one append, and several processes can
    // share the store.
    std::string mode;
    rc = queryText(db_, "PRAGMA journal_mode=WAL", mode);
    if (rc != SQLITE_OK) return rc;

    // synchronous=NORMAL: in WAL mode a commit is written to the log before it returns, so a
    // process that dies keeps every commit; only a power cut can roll back the last commits,
    // and it cannot corrupt the file. FULL would add an fdatasync per commit (milliseconds on
    // flash) for data that the update cycle fetches again anyway.
    const int64_t walPages =
        kWalBytes / (options.pageSize > 0 ? options.pageSize : kDefaultPageSize);
    std::string sql = "PRAGMA synchronous=NORMAL;PRAGMA cache_size=-" +
                      std::to_string(options.cacheBytes / 1024) +
                      ";PRAGMA mmap_size=" + std::to_string(options.mmapBytes) +
                      ";PRAGMA wal_autocheckpoint=" + std::to_string(walPages) +
                      ";PRAGMA journal_size_limit=" + std::to_string(kWalBytes) + ";";
    rc = execute(db_, sql.c_str());
    if (rc != SQLITE_OK) return rc;

    // A damaged file is found at open, where the caller can still replace it, rather than by
    // some later read on the request path. quick_check reads every page but skips the index
    // cross-checks of integrity_check, which the one table here does not need.
    std::string check;
    rc = queryText(db_, "PRAGMA quick_check(1)", check);
    if (rc != SQLITE_OK) return rc;
    if (check != "ok") return SQLITE_CORRUPT;

    // Keys are BLOBs so that they compare with memcmp: unsigned bytes, 0xFF last.
    rc = execute(db_,
                 "CREATE TABLE IF NOT EXISTS kv(k BLOB PRIMARY KEY NOT NULL, v BLOB NOT NULL) "
                 "WITHOUT ROWID");
    if (rc != SQLITE_OK) return rc;

    std::string version;
    rc = queryText(db_, "PRAGMA user_version", version);
    if (rc != SQLITE_OK) return rc;
    const bool migrates = options.sharedContent &&
                          (version == "0" || version == std::to_string(options.migratesFrom));
    if (migrates) {
        rc = shareContent(options);
        if (rc != SQLITE_OK) return rc;
    } else if (version == "0") {
        sql = "PRAGMA user_version=" + std::to_string(options.formatVersion);
        rc = execute(db_, sql.c_str());
        if (rc != SQLITE_OK) return rc;
    } else if (version != std::to_string(options.formatVersion)) {
        return SQLITE_FORMAT;
    }

    MutexLock lock(mutex_);
    return statements_->prepare(db_, options.sharedContent);
}

namespace {

// What a store of the previous format (or a new one) gains to share content: the column that
// names a content, the content table, the index that finds the rows naming one, and triggers
// that keep the two tables consistent whatever statement changes a row: a row cannot name a
// content that is not there, and a content goes with the last row that names it, in the same
// transaction. Adding a column rewrites no row: an existing row keeps its bytes and reads as it
// did. The content table keeps its rowid: a WITHOUT ROWID table holds a file's bytes in its key's
// B-tree, whose small cells spill a 16 KiB value over many more pages (a read took 10 us, 3.5 us
// in a rowid table).
constexpr const char* kShareContentSql =
    "ALTER TABLE kv ADD COLUMN c BLOB;"
    "CREATE TABLE content(h BLOB PRIMARY KEY NOT NULL, v BLOB NOT NULL);"
    "CREATE INDEX kv_content ON kv(c) WHERE c IS NOT NULL;"
    "CREATE TRIGGER kv_names BEFORE INSERT ON kv WHEN new.c IS NOT NULL AND NOT EXISTS "
    "(SELECT 1 FROM content WHERE h = new.c) BEGIN SELECT RAISE(ABORT, 'no such content'); END;"
    "CREATE TRIGGER kv_renames BEFORE UPDATE OF c ON kv WHEN new.c IS NOT NULL AND NOT EXISTS "
    "(SELECT 1 FROM content WHERE h = new.c) BEGIN SELECT RAISE(ABORT, 'no such content'); END;"
    "CREATE TRIGGER kv_release AFTER DELETE ON kv WHEN old.c IS NOT NULL BEGIN "
    "DELETE FROM content WHERE h = old.c AND NOT EXISTS (SELECT 1 FROM kv WHERE c = old.c); END;"
    "CREATE TRIGGER kv_rerelease AFTER UPDATE OF c ON kv WHEN old.c IS NOT NULL AND "
    "old.c IS NOT new.c BEGIN "
    "DELETE FROM content WHERE h = old.c AND NOT EXISTS (SELECT 1 FROM kv WHERE c = old.c); END;";

}  // namespace

int KeyValueStore::shareContent(const Options& options) {
    // One transaction: a power cut or a kill leaves the old format or the new one, never a
    // part of the schema. IMMEDIATE, and the version read again under the lock, because another
    // process opening the same store may have migrated it meanwhile.
    WriteTransaction transaction(db_);
    if (transaction.status() != SQLITE_OK) return transaction.status();
    std::string version;
    int rc = queryText(db_, "PRAGMA user_version", version);
    if (rc != SQLITE_OK) return rc;
    const std::string target = std::to_string(options.formatVersion);
    if (version == target) return SQLITE_OK;
    if (version != "0" && version != std::to_string(options.migratesFrom)) return SQLITE_FORMAT;
    rc = execute(db_, kShareContentSql);
    if (rc != SQLITE_OK) return rc;
    rc = execute(db_, ("PRAGMA user_version=" + target).c_str());
    if (rc != SQLITE_OK) return rc;
    return transaction.commit();
}

int KeyValueStore::configureReadOnly(const Options& options) {
    sqlite3_extended_result_codes(db_, 1);
    sqlite3_busy_timeout(db_, options.busyTimeoutMs);
    // The settings of a connection only: nothing here writes. The layout is the writer's.
    const std::string sql = "PRAGMA cache_size=-" + std::to_string(options.cacheBytes / 1024) +
                            ";PRAGMA mmap_size=" + std::to_string(options.mmapBytes) + ";";
    int rc = execute(db_, sql.c_str());
    if (rc != SQLITE_OK) return rc;
    // The first read: a damaged file, or a log that cannot be read, fails here.
    std::string check;
    rc = queryText(db_, "PRAGMA quick_check(1)", check);
    if (rc != SQLITE_OK) return rc;
    if (check != "ok") return SQLITE_CORRUPT;
    std::string version;
    rc = queryText(db_, "PRAGMA user_version", version);
    if (rc != SQLITE_OK) return rc;
    // A database that was never given its version was never written: nothing to read.
    if (version == "0") return SQLITE_CANTOPEN;
    // A store of the previous format, which only a writer migrates, is read as it is.
    const bool previous = options.sharedContent && version == std::to_string(options.migratesFrom);
    if (version != std::to_string(options.formatVersion) && !previous) return SQLITE_FORMAT;
    MutexLock lock(mutex_);
    return statements_->prepare(db_, options.sharedContent && !previous,
                                previous ? options.migratesFrom : 0);
}

int KeyValueStore::remove(const std::string& path) {
    if (path.empty()) return SQLITE_MISUSE;
    std::error_code error;
    std::filesystem::remove_all(path, error);
    if (error) return SQLITE_IOERR;
    struct stat info;
    return ::lstat(path.c_str(), &info) == 0 ? SQLITE_IOERR : SQLITE_OK;
}

uint64_t KeyValueStore::diskSize(const std::string& path) {
    uint64_t total = 0;
    std::error_code error;
    std::filesystem::recursive_directory_iterator it(path, error);
    for (; !error && it != std::filesystem::recursive_directory_iterator(); it.increment(error)) {
        std::error_code sizeError;
        if (!it->is_regular_file(sizeError)) continue;
        const uintmax_t size = it->file_size(sizeError);
        if (!sizeError) total += size;
    }
    return total;
}

bool KeyValueStore::contains(std::string_view key) {
    MutexLock lock(mutex_);
    sqlite3_stmt* statement = nullptr;
    if (statements_->use(db_, Statements::kContains, statement) != SQLITE_OK) return false;
    ResetOnExit reset(statement);
    if (bindBlob(statement, 1, key) != SQLITE_OK) return false;
    return sqlite3_step(statement) == SQLITE_ROW;
}

int KeyValueStore::dataVersion(uint64_t& version) {
    version = 0;
    MutexLock lock(mutex_);
    sqlite3_stmt* statement = nullptr;
    int rc = statements_->use(db_, Statements::kDataVersion, statement);
    if (rc != SQLITE_OK) return rc;
    ResetOnExit reset(statement);
    rc = sqlite3_step(statement);
    if (rc != SQLITE_ROW) return rc == SQLITE_DONE ? SQLITE_ERROR : rc;
    version = static_cast<uint64_t>(sqlite3_column_int64(statement, 0));
    return SQLITE_OK;
}

int KeyValueStore::get(std::string_view key, std::string& value, bool& found, size_t spare) {
    value.clear();
    return visit(
        key,
        [&](std::string_view bytes) {
            value.reserve(bytes.size() + spare);
            value.assign(bytes);
        },
        found);
}

int KeyValueStore::visit(std::string_view key, FunctionRef<void(std::string_view value)> reader,
                         bool& found) {
    found = false;
    MutexLock lock(mutex_);
    sqlite3_stmt* statement = nullptr;
    int rc = statements_->use(db_, Statements::kGet, statement);
    if (rc != SQLITE_OK) return rc;
    ResetOnExit reset(statement);
    rc = bindBlob(statement, 1, key);
    if (rc != SQLITE_OK) return rc;
    rc = sqlite3_step(statement);
    if (rc == SQLITE_DONE) return SQLITE_OK;
    if (rc != SQLITE_ROW) return rc;
    // column_blob before column_bytes: the documented order that never converts the value.
    const void* data = sqlite3_column_blob(statement, 0);
    const int size = sqlite3_column_bytes(statement, 0);
    if (data == nullptr && size > 0) return SQLITE_NOMEM;
    found = true;
    // The buffer stays valid until the statement is reset, which happens after `reader` returns.
    reader(size > 0 ? std::string_view(static_cast<const char*>(data), static_cast<size_t>(size))
                    : std::string_view());
    return SQLITE_OK;
}

int KeyValueStore::insert(std::string_view key, std::string_view value, Durability durability) {
    MutexLock lock(mutex_);
    // A durable commit syncs the log as it commits (synchronous=FULL for this one commit), which
    // also makes every earlier commit in the log durable: the files of a packed version, written
    // by ordinary commits, are on the disk once the configuration that names them is. The other
    // way, a checkpoint after an ordinary commit, copies the log into the database and syncs
    // both. Measured over the packs store's layout (a 200 KB document committed behind 0.4 MB or
    // 4 MB of ordinary commits, medians of 15 and 31 rounds, two runs): FULL 5.7-9.6 ms, the
    // checkpoint 9.3-12.4 ms, an ordinary commit 0.5-0.6 ms. Switching the setting does no I/O.
    const bool durable = durability == Durability::Durable;
    if (durable) {
        const int rc = execute(db_, "PRAGMA synchronous=FULL");
        if (rc != SQLITE_OK) return rc;
    }
    sqlite3_stmt* statement = nullptr;
    int rc = statements_->use(db_, Statements::kInsert, statement);
    if (rc == SQLITE_OK) {
        ResetOnExit reset(statement);
        rc = bindBlob(statement, 1, key);
        if (rc == SQLITE_OK) rc = bindBlob(statement, 2, value);
        if (rc == SQLITE_OK) rc = runToEnd(statement);
    }
    if (durable) {
        // Ordinary commits stay as cheap as they were.
        const int restored = execute(db_, "PRAGMA synchronous=NORMAL");
        if (rc == SQLITE_OK) rc = restored;
    }
    return rc;
}

int KeyValueStore::insertAll(const std::vector<std::pair<std::string, std::string>>& entries) {
    if (entries.empty()) return SQLITE_OK;
    MutexLock lock(mutex_);
    WriteTransaction transaction(db_);
    if (transaction.status() != SQLITE_OK) return transaction.status();
    sqlite3_stmt* statement = nullptr;
    const int prepared = statements_->use(db_, Statements::kInsert, statement);
    if (prepared != SQLITE_OK) return prepared;
    for (const auto& [key, value] : entries) {
        ResetOnExit reset(statement);
        int rc = bindBlob(statement, 1, key);
        if (rc == SQLITE_OK) rc = bindBlob(statement, 2, value);
        if (rc == SQLITE_OK) rc = runToEnd(statement);
        if (rc != SQLITE_OK) return rc;
    }
    return transaction.commit();
}

namespace {

// Whether `md5` is what a content is stored under: an MD5 as 32 lower-case hexadecimal digits.
bool isContentName(std::string_view md5) {
    if (md5.size() != 32) return false;
    for (const char c : md5) {
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
    }
    return true;
}

// What a key's shared content is scoped to: the key up to and including its first "/" (a pack's
// name, not its version), or nothing for a key without one.
std::string_view scopeOf(std::string_view key) {
    const size_t slash = key.find('/');
    return slash == std::string_view::npos || slash == 0 ? std::string_view()
                                                         : key.substr(0, slash + 1);
}

// A blob column where the statement holds it; false when SQLite could not give its bytes.
bool columnBlob(sqlite3_stmt* statement, int column, std::string_view& bytes) {
    // column_blob before column_bytes: the documented order that never converts the value.
    const void* data = sqlite3_column_blob(statement, column);
    const int size = sqlite3_column_bytes(statement, column);
    if (data == nullptr && size > 0) return false;
    bytes = data != nullptr
                ? std::string_view(static_cast<const char*>(data), static_cast<size_t>(size))
                : std::string_view();
    return true;
}

}  // namespace

int KeyValueStore::insertChecked(const CheckedValue& entry) {
    if (!statements_->shared || entry.md5.empty()) {
        sqlite3_stmt* statement = nullptr;
        int rc = statements_->use(db_, Statements::kInsert, statement);
        if (rc != SQLITE_OK) return rc;
        ResetOnExit reset(statement);
        rc = bindBlob(statement, 1, entry.key);
        if (rc == SQLITE_OK) rc = bindBlob(statement, 2, entry.value);
        return rc == SQLITE_OK ? runToEnd(statement) : rc;
    }
    if (!isContentName(entry.md5)) return SQLITE_MISUSE;
    const std::string_view scope = scopeOf(entry.key);
    if (scope.empty()) return SQLITE_MISUSE;
    // The content is named by the key's first segment and the MD5, never the MD5 alone: a pack
    // whose publisher ships an MD5-colliding twin of another pack's file overwrites only what
    // its own versions read.
    std::string name;
    name.reserve(scope.size() + entry.md5.size());
    name.append(scope).append(entry.md5);
    // Bytes just checked are written even when the name is there already: they are the same
    // bytes for every version that names them, and a reinstall thereby rewrites whatever the
    // store held, as it did when each version had its own. What is shared is never copied:
    // an increment's unchanged files are not written at all.
    {
        sqlite3_stmt* statement = nullptr;
        int rc = statements_->use(db_, Statements::kInsertContent, statement);
        if (rc != SQLITE_OK) return rc;
        ResetOnExit reset(statement);
        rc = bindBlob(statement, 1, name);
        if (rc == SQLITE_OK) rc = bindBlob(statement, 2, entry.value);
        if (rc == SQLITE_OK) rc = runToEnd(statement);
        if (rc != SQLITE_OK) return rc;
    }
    sqlite3_stmt* statement = nullptr;
    int rc = statements_->use(db_, Statements::kInsertNaming, statement);
    if (rc != SQLITE_OK) return rc;
    ResetOnExit reset(statement);
    rc = bindBlob(statement, 1, entry.key);
    if (rc == SQLITE_OK) rc = bindBlob(statement, 2, name);
    return rc == SQLITE_OK ? runToEnd(statement) : rc;
}

int KeyValueStore::insertAllChecked(const std::vector<CheckedValue>& entries) {
    if (entries.empty()) return SQLITE_OK;
    MutexLock lock(mutex_);
    WriteTransaction transaction(db_);
    if (transaction.status() != SQLITE_OK) return transaction.status();
    for (const CheckedValue& entry : entries) {
        const int rc = insertChecked(entry);
        if (rc != SQLITE_OK) return rc;
    }
    return transaction.commit();
}

int KeyValueStore::copyPrefix(std::string_view from, std::string_view to,
                              const std::unordered_set<std::string>& skip, uint64_t& bytes) {
    bytes = 0;
    if (from.empty() || to.empty() || from == to) return SQLITE_MISUSE;
    // Overlapping prefixes would let the walk meet the keys it writes.
    if (from.starts_with(to) || to.starts_with(from)) return SQLITE_MISUSE;
    const KeyRange range = prefixRange(from);
    MutexLock lock(mutex_);
    WriteTransaction transaction(db_);
    if (transaction.status() != SQLITE_OK) return transaction.status();
    sqlite3_stmt* rows = nullptr;
    sqlite3_stmt* insert = nullptr;
    int rc = statements_->use(db_, Statements::kRowsFrom, rows);
    if (rc == SQLITE_OK) rc = statements_->use(db_, Statements::kInsertIfAbsent, insert);
    if (rc != SQLITE_OK) return rc;
    ResetOnExit resetRows(rows);
    rc = bindBlob(rows, 1, range.from);
    if (rc == SQLITE_OK) rc = bindBlob(rows, 2, range.to);
    if (rc != SQLITE_OK) return rc;
    uint64_t copied = 0;
    std::string key;
    while ((rc = sqlite3_step(rows)) == SQLITE_ROW) {
        std::string_view oldKey;
        std::string_view value;
        std::string_view content;
        if (!columnBlob(rows, 0, oldKey) || !columnBlob(rows, 1, value) ||
            !columnBlob(rows, 2, content))
            return SQLITE_NOMEM;
        const std::string rest(oldKey.substr(from.size()));
        if (skip.count(rest) != 0) continue;
        key.assign(to).append(rest);
        // A row that names a content gets a new row naming the same: its bytes stay where they
        // are. A row that holds its bytes is copied whole. Both are bound where the walk holds
        // them: valid until the walk steps again, and the insert is done by then.
        const bool named = sqlite3_column_type(rows, 2) != SQLITE_NULL;
        // A copy names the content the row named: only within its scope, so that no key names a
        // content that another scope's writes can replace.
        if (named && scopeOf(oldKey) != scopeOf(key)) return SQLITE_MISUSE;
        ResetOnExit resetInsert(insert);
        rc = bindBlob(insert, 1, key);
        if (rc == SQLITE_OK) rc = bindBlob(insert, 2, value);
        if (rc == SQLITE_OK && statements_->shared)
            rc = named ? bindBlob(insert, 3, content) : sqlite3_bind_null(insert, 3);
        if (rc == SQLITE_OK) rc = runToEnd(insert);
        if (rc != SQLITE_OK) return rc;
        if (sqlite3_changes(db_) > 0)
            copied += named ? static_cast<uint64_t>(sqlite3_column_int64(rows, 3)) : value.size();
    }
    if (rc != SQLITE_DONE) return rc;
    rc = transaction.commit();
    if (rc == SQLITE_OK) bytes = copied;
    return rc;
}

int KeyValueStore::erase(std::string_view key) {
    MutexLock lock(mutex_);
    sqlite3_stmt* statement = nullptr;
    int rc = statements_->use(db_, Statements::kRemove, statement);
    if (rc != SQLITE_OK) return rc;
    ResetOnExit reset(statement);
    rc = bindBlob(statement, 1, key);
    if (rc != SQLITE_OK) return rc;
    return runToEnd(statement);
}

int KeyValueStore::eraseRange(Key from, Key to) {
    if (from.isMax()) return SQLITE_OK;
    if (!to.isMax() && to.data() <= from.data()) return SQLITE_OK;
    MutexLock lock(mutex_);
    sqlite3_stmt* statement = nullptr;
    int rc = statements_->use(db_, to.isMax() ? Statements::kRemoveFrom : Statements::kRemoveRange,
                              statement);
    if (rc != SQLITE_OK) return rc;
    ResetOnExit reset(statement);
    rc = bindBlob(statement, 1, from.data());
    if (rc == SQLITE_OK && !to.isMax()) rc = bindBlob(statement, 2, to.data());
    if (rc != SQLITE_OK) return rc;
    return runToEnd(statement);
}

int KeyValueStore::clear() {
    MutexLock lock(mutex_);
    sqlite3_stmt* statement = nullptr;
    const int rc = statements_->use(db_, Statements::kClear, statement);
    if (rc != SQLITE_OK) return rc;
    ResetOnExit reset(statement);
    return runToEnd(statement);
}

int KeyValueStore::compact() {
    MutexLock lock(mutex_);
    int rc = execute(db_, "PRAGMA incremental_vacuum");
    if (rc != SQLITE_OK) return rc;
    rc = sqlite3_wal_checkpoint_v2(db_, nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
    return rc == SQLITE_OK ? SQLITE_OK : sqlite3_extended_errcode(db_);
}

int KeyValueStore::fetchKeys(Key from, Key to, const std::string* after, size_t limit,
                             std::vector<std::string>& keys) {
    MutexLock lock(mutex_);
    const Statements::Slot slot =
        to.isMax() ? (after ? Statements::kKeysAfterToEnd : Statements::kKeysFromToEnd)
                   : (after ? Statements::kKeysAfter : Statements::kKeysFrom);
    sqlite3_stmt* statement = nullptr;
    int rc = statements_->use(db_, slot, statement);
    if (rc != SQLITE_OK) return rc;
    ResetOnExit reset(statement);
    rc = bindBlob(statement, 1, after ? std::string_view(*after) : from.data());
    if (rc == SQLITE_OK && !to.isMax()) rc = bindBlob(statement, 2, to.data());
    if (rc == SQLITE_OK) rc = sqlite3_bind_int64(statement, 3, static_cast<sqlite3_int64>(limit));
    if (rc != SQLITE_OK) return rc;
    while ((rc = sqlite3_step(statement)) == SQLITE_ROW) {
        const void* data = sqlite3_column_blob(statement, 0);
        const int size = sqlite3_column_bytes(statement, 0);
        keys.emplace_back(size > 0 && data != nullptr ? static_cast<const char*>(data) : "",
                          size > 0 && data != nullptr ? static_cast<size_t>(size) : 0);
    }
    return rc == SQLITE_DONE ? SQLITE_OK : rc;
}

int KeyValueStore::enumerateKeys(Key from, Key to,
                                 const std::function<bool(std::string_view key)>& visit) {
    if (!visit || from.isMax()) return SQLITE_OK;
    if (!to.isMax() && to.data() <= from.data()) return SQLITE_OK;
    std::vector<std::string> keys;
    keys.reserve(kEnumerateBatch);
    std::string last;
    bool resume = false;
    for (;;) {
        keys.clear();
        const int rc = fetchKeys(from, to, resume ? &last : nullptr, kEnumerateBatch, keys);
        if (rc != SQLITE_OK) return rc;
        for (const std::string& key : keys) {
            if (visit(key)) return SQLITE_OK;
        }
        if (keys.size() < kEnumerateBatch) return SQLITE_OK;
        last = std::move(keys.back());
        resume = true;
    }
}

KeyRange prefixRange(std::string_view prefix) {
    KeyRange range;
    range.from.assign(prefix);
    if (prefix.empty()) {
        range.toMax = true;
    } else {
        range.to.reserve(prefix.size() + 1);
        range.to.assign(prefix);
        range.to.push_back('\xFF');
    }
    return range;
}

}  // namespace FerritCore
