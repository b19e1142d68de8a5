// FileUtil: the low-level file primitives beneath Folder. Each returns 0 or an errno value, never
// anything else, so that every failure has a text: ENOENT for an empty path, EBADF for a null
// stream or a negative descriptor. Every primitive other than rename canonicalises its
// path first, and every one that touches the disk tries once more, with the path recoded
// through wide characters, when its first attempt fails and the recoding gives other, non-empty
// bytes; the errno of the last attempt is what is reported. No state and no lock: any thread, the
// file system is the only arbiter.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

#include "ferritcore/Error.h"

namespace FerritCore {

// Retries a system call that a signal interrupted.
template <typename F>
auto retryOnInterrupt(F call) {
    decltype(call()) result;
    do {
        result = call();
    } while (result < 0 && errno == EINTR);
    return result;
}

// Whether `path` has a ".." piece (either separator), which could name something outside the
// folder it is joined to.
bool climbsOut(std::string_view path);

class FileUtil {
  public:
    // Splits at "/" and "\\" (a leading separator is kept as a first piece "/"); the first piece
    // and the text after the last separator pass untouched; of the others, empty pieces and "."
    // are dropped, and ".." removes the piece before it when at least two pieces are kept and
    // the last kept is not itself ".." (so "a/../b" stays as it is); rejoined with "/".
    static std::string canonicalize(std::string_view path);
    // The path after a round trip through wide characters in the current locale; empty when
    // either conversion fails.
    static std::string recode(const std::string& path);

    // fopen with `mode`; `*file` is null on failure. A null `file` gives EINVAL.
    static int open(const std::string& path, const char* mode, FILE** file);
    // Appends everything up to end of file, in blocks of 256 bytes.
    static int readAll(FILE* file, std::string& out);
    // One fread of `size` bytes appended to `out`; a short read at end of file is success.
    static int readSize(FILE* file, size_t size, std::string& out);
    // One fwrite. Empty data returns ENODATA and writes nothing.
    static int write(FILE* file, std::string_view data);
    // By stat; `size` is untouched on failure.
    static int fileSize(const std::string& path, uint64_t& size);
    // Mode "rb" and readAll; `out` receives the content.
    static int readFile(const std::string& path, std::string& out);
    // open, fstat, one read of the size, close: the read of the hot path. Same contract as
    // readFile; a file whose size fstat does not report is read to its end. `out` is appended
    // to, and left as it was on failure.
    static int readWhole(const std::string& path, std::string& out);
    // Reads an open descriptor to its end after fstat: the size it reports in one call (a
    // short read at end of file is success), or, when it reports none, until end of file. A
    // directory gives EISDIR; with `linkedOnly`, a file that has no link left (removed or replaced
    // since it was opened) gives ESTALE and nothing is read. The descriptor stays open. `out` is
    // appended to, and left as it was on failure.
    static int readDescriptor(int fd, std::string& out, bool linkedOnly = false);
    // Appends at most `count` bytes read from an open descriptor to `out`, in as few reads as the
    // system allows; a short read at end of file is success. 0 or an errno; `out` is left as it
    // was on failure.
    static int appendRead(int fd, std::string& out, size_t count);
    // Mode "wb+": truncates, then writes. A failed write leaves the truncated file.
    static int writeFile(const std::string& path, std::string_view data);
    // Creates `path` as an empty file, or empties it: the write of a file whose content is known
    // to be nothing, which writeFile refuses.
    static int writeEmptyFile(const std::string& path);
    // Mode "ab+".
    static int appendFile(const std::string& path, std::string_view data);
    static bool isFile(const std::string& path);
    static bool isDirectory(const std::string& path);
    static int remove(const std::string& path);
    // Not canonicalised: both names are taken as given.
    static int rename(const std::string& from, const std::string& to);
    // A second name for a file (a hard link); both names are taken as given, as for rename.
    static int link(const std::string& from, const std::string& to);
    // Swaps two existing paths in one atomic step (renameat2 with RENAME_EXCHANGE), so that a
    // reader finds one or the other at each name, never neither. Both names are taken as given.
    // EINVAL or ENOSYS when the file system cannot.
    static int exchange(const std::string& a, const std::string& b);
    // mkdir with mode 0700.
    static int makeDirectory(const std::string& path);
    // At each "/" or "\\" creates the prefix up to it when that is not a directory; stops at the
    // first failure and returns it. Text after the last separator is not created, so a
    // directory path must end in a separator.
    static int makeDirectories(const std::string& path);
    static int removeDirectory(const std::string& path);
    // Removes what lies below, recursing into directories, then the directory itself. Failures
    // below are ignored; returns an error only when the directory could not be read at all.
    static int removeTree(const std::string& path);
    // Entries joined to `path` (with one "/" between), "." and ".." left out, directories with a
    // trailing "/". `names` is cleared first.
    static int listDirectory(const std::string& path, std::vector<std::string>& names);

    // fdatasync of the file at `path`: its data, and the size that reads it, reach the disk
    // before this returns. A file's data is not made durable by its close.
    static int syncFile(const std::string& path);
    // fdatasync of an open descriptor.
    static int syncDescriptor(int fd);
    // Starts writing the file's dirty data to the disk and returns without waiting: a hint, which
    // makes nothing durable, so that a later syncFile of many files waits for writes that are
    // already under way rather than issuing them one file at a time.
    static int startWriteback(const std::string& path);
    // fsync of a directory: the entries made, renamed into it or linked there since its last sync
    // outlive a power cut. A file's new name is durable only once the directory holding it is
    // synced, however well its data was.
    static int syncDirectory(const std::string& path);

    // One sync of a whole file system, for a run that writes many files there: every file's data
    // and every entry written on it, by this process or another, outlive a power cut once sync()
    // returns, as if each file and directory had been synced (Linux's syncfs; typically one
    // journal commit where a sync of each file costs one each). The directory is opened at
    // construction, before the run's writes: syncfs reports the write-back failures met since its
    // descriptor was opened, so a failure of a file written after that is never missed. It also
    // reports another process's failures on that file system: a run that fails for one is retried.
    class FileSystemSync {
      public:
        // Opens `directory`, on the file system to sync; a failure is kept for sync().
        explicit FileSystemSync(const std::string& directory);
        ~FileSystemSync();
        FileSystemSync(const FileSystemSync&) = delete;
        FileSystemSync& operator=(const FileSystemSync&) = delete;
        // Whether sync() can stand for the syncs of each file: the directory is open and the
        // kernel reports write-back failures through syncfs (Linux 5.8 on; before, syncfs
        // answered 0 even when a file's pages could not be written).
        bool usable() const;
        // 0, or the errno of the open or of the sync.
        int sync();

      private:
        int fd_ = -1;
        int openError_ = 0;
    };

    // The system calls beneath every primitive that changes the disk or makes a change durable
    // (create or truncate and write, rename, exchange, link, mkdir, remove, rmdir, and the syncs).
    // The default hands each straight to the system. A test installs its own to watch each change,
    // remember which are durable and refuse all of them after a simulated power cut. Each answers
    // as the system call does: 0, or -1 with errno set (openForWrite: null with errno set).
    class Calls {
      public:
        virtual ~Calls() = default;
        // fopen with a mode that creates, truncates or appends.
        virtual FILE* openForWrite(const char* path, const char* mode);
        // fwrite; a short count with errno set on failure.
        virtual size_t write(FILE* file, const void* data, size_t size);
        virtual int rename(const char* from, const char* to);
        // renameat2 with RENAME_EXCHANGE.
        virtual int exchange(const char* a, const char* b);
        virtual int link(const char* from, const char* to);
        virtual int makeDirectory(const char* path, mode_t mode);
        // remove(3): a file, or an empty directory.
        virtual int remove(const char* path);
        virtual int removeDirectory(const char* path);
        // fdatasync.
        virtual int syncData(int fd);
        // fsync of a descriptor opened on a directory.
        virtual int syncDirectory(int fd);
        // syncfs: everything written on the descriptor's file system.
        virtual int syncFileSystem(int fd);
    };
    // Installs `calls` (null: the system's). The caller keeps it alive while installed. Not
    // thread-safe: install before any other thread runs.
    static void setCalls(Calls* calls);

    // Crash tests end the process between any two changes of the file system. The hook runs just
    // before each one: a file created or truncated, its bytes written, a rename, an exchange, a
    // link, a directory made or removed, a file removed (also inside removeTree). Null, the
    // default, runs nothing. Not thread-safe: install before any other thread runs.
    using StepHook = void (*)();
    static void setStepHook(StepHook hook);

    // Replaces the wide-character recoding for the lifetime of the object, so that tests can
    // exercise the second attempt. Not thread-safe: install before any other thread runs.
    class ScopedRecoder {
      public:
        explicit ScopedRecoder(std::function<std::string(const std::string&)> recoder);
        ~ScopedRecoder();

      private:
        std::function<std::string(const std::string&)> previous_;
    };
};

// A file opened ahead of its read: asking whether a file is there and reading it then cost one
// open, as a bare read does. Move-only; closes a file that was never read. One thread at a time.
class HeldFile {
  public:
    HeldFile() = default;
    explicit HeldFile(int fd) : fd_(fd) {}
    ~HeldFile() { close(); }
    HeldFile(HeldFile&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    HeldFile& operator=(HeldFile&& other) noexcept;
    HeldFile(const HeldFile&) = delete;
    HeldFile& operator=(const HeldFile&) = delete;

    bool isOpen() const { return fd_ >= 0; }
    // Reads the file whole and closes it (readDescriptor, linked files only: one removed or
    // replaced since it was opened gives ESTALE, so that the caller reads the path as it is now).
    int readAndClose(std::string& out);
    // Reads the file whole into memory that `allocate(size)` gives for its size, and closes it; the
    // bytes land where the caller keeps them, with no copy. 0 with `size` set, or an errno: ESTALE
    // for a file removed or replaced since it was opened, ENODATA for one that reports no size
    // (readAndClose reads such a file to its end), ENOMEM when `allocate` gives null, EIO for a
    // short read. On failure the file stays open and its offset unmoved, so that readAndClose can
    // still read it; memory already given is the caller's.
    int readIntoAndClose(const std::function<char*(size_t)>& allocate, size_t& size);
    void close();

  private:
    int fd_ = -1;
};

// A directory held open, so that the files below it are found and read relative to it: one path
// walk from the directory rather than from the root, and the directory that was opened for as long
// as it is held, whatever happens to its path meanwhile. Immutable once opened: any thread.
class OpenDirectory {
  public:
    // How many directories the process holds open at most. Descriptors are the host's resource as
    // much as ours; past the limit, callers name files by their whole paths.
    static constexpr int kMaxHeld = 256;

    // The directory at `path`, or null when it cannot be opened or kMaxHeld are held already.
    static std::unique_ptr<OpenDirectory> open(const std::string& path);
    ~OpenDirectory();
    OpenDirectory(const OpenDirectory&) = delete;
    OpenDirectory& operator=(const OpenDirectory&) = delete;

    // Whether `relative` may be opened below the directory: a name that is empty, begins with "/"
    // (openat would ignore the directory and go from the file system's root) or has a ".." piece
    // would reach outside it, and is refused with 1102. Names come from lists and documents that
    // a publisher wrote; none of them may choose what this process opens.
    static Error checkName(std::string_view relative);

    // Whether `relative` names something below the directory that is no directory; false for a
    // name that checkName refuses.
    bool hasFile(const std::string& relative) const;
    // Opens `relative` below the directory and reads it whole (readDescriptor). 0 or an errno;
    // EACCES for a name that checkName refuses.
    int readFile(const std::string& relative, std::string& out) const;
    // Opens `relative` below the directory for reading: a descriptor, or -1 with errno set
    // (EACCES for a name that checkName refuses).
    int openFile(const std::string& relative) const;

    // Directories held open by the process now.
    static int heldCount();

  private:
    explicit OpenDirectory(int fd) : fd_(fd) {}
    const int fd_;
};

}  // namespace FerritCore
