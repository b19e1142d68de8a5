// ZipFile: reads one zip archive held in memory, by entry name or entry by entry, and unpacks it
// into a folder. Not thread-safe: the archive handle has one cursor, so an object belongs to one
// thread at a time; different objects may be used on different threads.
//
// Archives come from the network, so every entry is checked before anything is inflated: an entry
// name that could leave the target folder (absolute, a ".." piece, a backslash, a NUL byte), a
// symbolic link or other special file, an encrypted entry, a name given twice, and a recorded
// size that the compressed bytes cannot produce or that passes kMaxEntrySize are refused with
// 2207, and no entry of such an archive reaches a callback. So is a deflated entry above
// kRatioFreeSize whose recorded size passes the setting "maxInflationRatio" times its compressed
// size: a bomb is refused before a byte of it is inflated. Content is never inflated past its
// recorded size, and its CRC-32 is checked before it is handed on (whole), or before the end of
// its stream is (in pieces).
//
// Content is inflated in one call straight from the archive's bytes into a buffer of its recorded
// size; an entry for which that does not give exactly the recorded bytes with the recorded CRC-32
// is read again through zlib's stream, whose verdict (or content) is the one that counts.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "base/Folder.h"
#include "ferritcore/Error.h"

struct zlib_filefunc64_def_s;
struct libdeflate_decompressor;

namespace FerritCore {

// The table of file functions through which minizip reads memory instead of a file. Its file name
// is "%p+%lu", the buffer's address and length, which the open function parses back. The state
// behind each opened stream is four words: base, size, high-water mark and position.
//   open:  parses the name; create mode (ZLIB_FILEFUNC_MODE_CREATE, 8) starts the high-water mark
//          at 0, any other mode at size. An unparsable name opens nothing.
//   read:  copies at most the bytes left below the high-water mark (all of size when reading).
//   write: copies at most the bytes left below size and raises the high-water mark; only create
//          mode over a writable buffer may write.
//   seek:  origin 0 (start), 1 (current) or 2 (end, that is the high-water mark); a target beyond
//          size returns 1 and moves nothing; a target beyond the high-water mark zero-fills the
//          gap (a writable buffer again); any other origin returns -1.
//   tell:  the position. close: frees the state.
namespace ZipMemoryIo {
// The file name that stands for `size` bytes at `base`.
std::string nameOf(const void* base, unsigned long size);
// Fills every function of `table`, opaque pointer null.
void fill(zlib_filefunc64_def_s& table);
}  // namespace ZipMemoryIo

class ZipFile {
  public:
    // Called with each entry's name and whole content; false ends the walk at once.
    using EntryCallback = std::function<bool(const std::string& name, std::string content)>;

    // The largest content one entry may have: far beyond any resource of a web pack, and within
    // the int count that one minizip read returns.
    static constexpr uint64_t kMaxEntrySize = 512ull << 20;
    // Deflate produces at most 1032 bytes per compressed byte (a 258-byte match in two bits); a
    // recorded size above that, plus kDeflateSlack for the stream's own framing, is a lie.
    static constexpr uint64_t kMaxDeflateRatio = 1032;
    static constexpr uint64_t kDeflateSlack = 1024;
    // Entries that declare at most this many bytes are exempt from "maxInflationRatio": a small
    // file of one repeated byte passes any ratio and does no harm.
    static constexpr uint64_t kRatioFreeSize = 1u << 20;
    // Streamed content comes in pieces of at most this many bytes, apart from the entries that
    // come whole.
    static constexpr size_t kChunkSize = 64u << 10;
    // A streamed entry of at most this many bytes comes whole, in one piece: inflating it in one
    // call runs 2-3 times faster than zlib's stream, and the buffer it takes stays this small.
    static constexpr uint64_t kWholeSize = 4u << 20;

    // Receives entries in pieces, so that no large entry is ever whole in memory.
    struct EntryStream {
        // An entry begins, with its recorded size; false ends the walk.
        std::function<bool(const std::string& name, uint64_t size)> begin;
        // The next piece of its content; false ends the walk.
        std::function<bool(std::string_view piece)> write;
        // Every byte came, exactly the recorded size, and the CRC-32 matched; false ends the walk.
        std::function<bool()> end;
    };

    // A closed archive; every operation on it fails with 2207.
    ZipFile() = default;
    ~ZipFile();
    ZipFile(ZipFile&& other) noexcept;
    ZipFile& operator=(ZipFile&& other) noexcept;
    ZipFile(const ZipFile&) = delete;
    ZipFile& operator=(const ZipFile&) = delete;

    // Opens the archive in `archive`, which the caller keeps alive and unchanged for the life of
    // the result. `source` names the archive in messages only. On failure the result is closed
    // and `error` is 2207 "Open zip file failed: %d"; success clears `error`.
    static ZipFile open(const Folder& source, std::string_view archive, Error& error);
    // Reads the archive file, opens it and extracts it into `target`: the total of extractTo, or
    // 0 with `error` set (the read's own 11xx error when the file cannot be read).
    static uint64_t unpackFile(const Folder& archive, const Folder& target, Error& error);

    // An archive with no entries at all is open too: there is nothing to read in it.
    bool isOpen() const { return handle_ != nullptr || empty_; }
    explicit operator bool() const { return isOpen(); }
    const Folder& source() const { return source_; }

    // Whether the archive has an entry named exactly `name` (case counts).
    bool hasEntry(const std::string& name);
    // The content of the entry named exactly `name` (case counts), or empty with `error` set
    // (2207). Success clears `error`.
    std::string readEntry(const std::string& name, Error& error);
    // Checks every entry, then calls `callback` for each in the archive's order, skipping those
    // whose name begins with "__MACOSX/" or ends with ".DS_Store" unread. False without a
    // callback (nothing else done), or with `error` set (2207) when an entry is refused or fails
    // to read; true when the walk ended, at the end of the list or by the callback's false.
    bool forEachEntry(const EntryCallback& callback, Error& error);
    // As forEachEntry, but each entry's content comes in pieces: in one piece up to kWholeSize
    // bytes, in pieces of at most kChunkSize bytes above. An entry that inflates to more or fewer
    // bytes than it records, or whose CRC-32 differs, ends the walk with 2207 before `end`; the
    // caller discards what it wrote of it. All three callables must be set.
    bool forEachEntryStreamed(const EntryStream& stream, Error& error);
    // The total that the entries walked (skipped ones aside) record they inflate to, after every
    // entry has been checked as forEachEntry checks them; false with `error` set (2207).
    bool declaredSize(uint64_t& total, Error& error);
    // Writes every entry below `target`, streamed to the disk in pieces: directories are made,
    // files written after their parent directory is made. Returns the total of the content lengths
    // (directories count 0), or 0 with `error` set: 2207 for the archive, or the write's own error
    // (an empty file entry is such an error: a file is never written empty). What was written
    // before a failure stays; the caller discards the target.
    uint64_t extractTo(const Folder& target, Error& error);

  private:
    // Called with each entry that a walk delivers, opened: reads or streams it and closes it.
    // False with `error` set ends the walk as failed; `go` false ends it as done.
    using EntryVisit =
        std::function<bool(const std::string& name, uint64_t size, bool& go, Error& error)>;
    // The walk that forEachEntry and forEachEntryStreamed share: checks every entry first, then
    // visits each in the archive's order, the skipped ones aside.
    bool walkEntries(const EntryVisit& visit, Error& error);
    // What the open entry records of its bytes.
    struct Current {
        unsigned long method = 0;
        uint64_t compressed = 0;
        uint32_t crc = 0;
    };
    // The whole content of the entry opened raw, checked against its recorded CRC-32: a view of
    // the archive for a stored entry, else inflated into `out`, which has room for `size` bytes.
    // False when anything is off (nothing reported): the entry is then read through zlib.
    bool wholeContent(uint64_t size, char* out, std::string_view& content);
    // Closes the entry opened raw and opens it again to inflate through zlib: false with `error`
    // set when it cannot be.
    bool reopenForStream(Error& error);
    // Streams the entry opened for zlib to `stream` in pieces, as streamCurrent.
    bool streamPieces(const std::string& name, uint64_t size, const EntryStream& stream, bool& go,
                      Error& error);
    // Reads the open entry whole and closes it: false with `error` set on any failure.
    bool readCurrent(const std::string& name, uint64_t size, std::string& content, Error& error);
    // Streams the open entry to `stream` and closes it: false with `error` set on a failure of
    // the archive; `go` false when one of the stream's callables ended the walk.
    bool streamCurrent(const std::string& name, uint64_t size, const EntryStream& stream, bool& go,
                       Error& error);
    // Walks the whole central directory and refuses the archive if any delivered entry is unsafe.
    bool checkEntries(Error& error);
    // An archive with no entries at all: valid, and walked as nothing.
    bool isEmptyArchive() const;
    // Whether `archive` is the end record of an archive of no entries and nothing else.
    static bool holdsNoEntries(std::string_view archive);
    Error failure(const std::string& reason) const;

    Folder source_;
    std::string_view archive_;  // the caller's bytes, which outlive this object
    void* handle_ = nullptr;    // the minizip handle; closed by the destructor
    libdeflate_decompressor* inflater_ =
        nullptr;          // made at the first entry; freed by the destructor
    bool empty_ = false;  // an archive of no entries, which minizip cannot open
    uint64_t archiveSize_ = 0;
    uint32_t maxRatio_ = 0;       // "maxInflationRatio" when the archive was opened
    uint64_t declaredTotal_ = 0;  // what the last full check found the entries record
    std::string chunk_;           // the buffer of streamed reads
    Current current_;
    std::unique_ptr<char[]> whole_;  // the buffer of entries streamed whole, left uninitialised
    size_t wholeCapacity_ = 0;
};

}  // namespace FerritCore
