// FileUtil: the low-level file primitives beneath Folder. Each returns 0 or an errno value, and
// -1 for an empty path or a null stream. Every primitive other than rename canonicalises its
// path first, and every one that touches the disk tries once more, with the path recoded
// through wide characters, when its first attempt fails and the recoding gives other, non-empty
// bytes; the errno of the last attempt is what is reported. No state and no lock: any thread, the
// file system is the only arbiter.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

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

    // fopen with `mode`; `*file` is null on failure.
    static int open(const std::string& path, const char* mode, FILE** file);
    // Appends everything up to end of file, in blocks of 256 bytes.
    static int readAll(FILE* file, std::string& out);
    // One fread of `size` bytes appended to `out`; a short read at end of file is success.
    static int readSize(FILE* file, size_t size, std::string& out);
    // One fwrite. Empty data returns -1 and writes nothing.
    static int write(FILE* file, std::string_view data);
    // By stat; `size` is untouched on failure.
    static int fileSize(const std::string& path, uint64_t& size);
    // Mode "rb" and readAll; `out` receives the content.
    static int readFile(const std::string& path, std::string& out);
    // open, fstat, one read of the size, close: the read of the hot path. Same contract as
    // readFile; a file whose size fstat does not report is read to its end. `out` is appended
    // to, and left as it was on failure.
    static int readWhole(const std::string& path, std::string& out);
    // readWhole in two halves, for a reader that asks whether a file is there long before it
    // reads it: the open tells both, so that the pair costs what one read does. `file` holds the
    // descriptor (or -1), the size and whether it is a directory; the caller either passes it to
    // readOpened or closes it.
    struct OpenFile {
        int fd = -1;
        uint64_t size = 0;
        bool directory = false;
    };
    static int openForRead(const std::string& path, OpenFile& file);
    // Reads the file to its end (the size that the open found, in one call when it is known) and
    // closes it, whatever happens; `file.fd` is -1 afterwards. A directory gives EISDIR.
    static int readOpened(OpenFile& file, std::string& out);
    // Closes a file that will not be read; nothing for -1.
    static void closeOpened(OpenFile& file);
    // Mode "wb+": truncates, then writes. A failed write leaves the truncated file.
    static int writeFile(const std::string& path, std::string_view data);
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

}  // namespace FerritCore
