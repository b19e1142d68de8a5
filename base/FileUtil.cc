#include "base/FileUtil.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cwchar>

#include "base/Errors.h"
#include "base/StorageState.h"

namespace FerritCore {
namespace {

bool isSeparator(char c) {
    return c == '/' || c == '\\';
}

// errno of the call that just failed; never 0, so that a failure is never read as success.
int lastError() {
    return errno != 0 ? errno : EIO;
}

// Hands a failed change of the disk to the process's storage state, which tells a medium or a
// folder that cannot be written (read-only, full, no permission) from a failure of one file.
int noted(int result, std::string_view path) {
    if (result > 0) StorageState::noteWriteFailure(result, path);
    return result;
}

// What a call that cannot be made answers, as the system would: every result is an errno value
// whose text says what went wrong, never a bare -1 that a message prints as "Unknown error -1".
// An empty path names nothing, as open("") says; a null stream or a negative descriptor is no
// stream; write() with no bytes has nothing to write (an empty file is writeEmptyFile's).
constexpr int kNoPath = ENOENT;
constexpr int kNoStream = EBADF;
constexpr int kNothingToWrite = ENODATA;

// Whether canonicalize would give the path back unchanged: no backslash, and no piece between
// two separators that is empty, "." or "..". The first piece and the text after the last
// separator never change. Paths built by Folder nearly always pass, so the hot path neither
// allocates nor copies.
bool isCanonical(std::string_view path) {
    size_t previous = std::string_view::npos;
    for (size_t i = 0; i < path.size(); ++i) {
        const char c = path[i];
        if (c == '\\') return false;
        if (c != '/') continue;
        if (previous != std::string_view::npos) {
            const std::string_view piece = path.substr(previous + 1, i - previous - 1);
            if (piece.empty() || piece == "." || piece == "..") return false;
        }
        previous = i;
    }
    return true;
}

std::string canonicalizeSlow(std::string_view path) {
    std::vector<std::string_view> pieces;
    size_t start = 0;
    for (size_t i = 0; i <= path.size(); ++i) {
        if (i == path.size() || isSeparator(path[i])) {
            pieces.push_back(path.substr(start, i - start));
            start = i + 1;
        }
    }
    const bool leading = !path.empty() && isSeparator(path.front());
    std::vector<std::string_view> kept;
    kept.reserve(pieces.size());
    kept.push_back(leading ? std::string_view("/") : pieces.front());
    for (size_t i = 1; i + 1 < pieces.size(); ++i) {
        const std::string_view piece = pieces[i];
        if (piece.empty() || piece == ".") continue;
        if (piece == ".." && kept.size() >= 2 && kept.back() != "..") {
            kept.pop_back();
            continue;
        }
        kept.push_back(piece);
    }
    if (pieces.size() >= 2) kept.push_back(pieces.back());
    std::string result;
    result.reserve(path.size());
    for (size_t i = 0; i < kept.size(); ++i) {
        // The leading "/" is a piece of its own: the next piece follows it without another one.
        if (i > 0 && !(i == 1 && leading)) result.push_back('/');
        result.append(kept[i]);
    }
    return result;
}

// The canonical form of a path, without a copy when it is canonical already.
class CanonicalPath {
  public:
    explicit CanonicalPath(const std::string& path) : path_(&path) {
        if (!isCanonical(path)) {
            owned_ = canonicalizeSlow(path);
            path_ = &owned_;
        }
    }
    const std::string& str() const { return *path_; }

  private:
    const std::string* path_;
    std::string owned_;
};

std::string wideRoundTrip(const std::string& path) {
    std::mbstate_t state{};
    const char* source = path.c_str();
    const size_t wideLength = std::mbsrtowcs(nullptr, &source, 0, &state);
    if (wideLength == static_cast<size_t>(-1)) return {};
    std::wstring wide(wideLength, L'\0');
    state = std::mbstate_t{};
    source = path.c_str();
    if (std::mbsrtowcs(wide.data(), &source, wide.size(), &state) != wideLength) return {};
    state = std::mbstate_t{};
    const wchar_t* wideSource = wide.c_str();
    const size_t narrowLength = std::wcsrtombs(nullptr, &wideSource, 0, &state);
    if (narrowLength == static_cast<size_t>(-1)) return {};
    std::string narrow(narrowLength, '\0');
    state = std::mbstate_t{};
    wideSource = wide.c_str();
    if (std::wcsrtombs(narrow.data(), &wideSource, narrow.size(), &state) != narrowLength)
        return {};
    return narrow;
}

// Replaced only by ScopedRecoder, before other threads run.
std::function<std::string(const std::string&)>& recoder() {
    static auto* current = new std::function<std::string(const std::string&)>(wideRoundTrip);
    return *current;
}

// Set by crash tests only, before other threads run.
FileUtil::StepHook stepHook = nullptr;

FileUtil::Calls systemCalls;
// Replaced by power-cut tests only, before other threads run.
FileUtil::Calls* calls = &systemCalls;

// Whether an fopen mode changes the file: creates, truncates or appends.
bool writesWith(const char* mode) {
    for (const char* c = mode; *c != '\0'; ++c) {
        if (*c == 'w' || *c == 'a' || *c == '+') return true;
    }
    return false;
}

inline void step() {
    if (stepHook != nullptr) stepHook();
}

// Runs `attempt` on the canonical path and, when that fails, once more on the recoded path. A
// recoding that gives the same bytes back is not tried again: the second attempt could only
// repeat the first.
template <typename F>
int withRetry(const std::string& path, F attempt) {
    if (path.empty()) return kNoPath;
    const CanonicalPath canonical(path);
    const int result = attempt(canonical.str());
    if (result == 0) return 0;
    const std::string recoded = recoder()(canonical.str());
    if (recoded.empty() || recoded == canonical.str()) return result;
    return attempt(recoded);
}

// Visits each entry of a directory but "." and "..", with its path joined to the one that opened
// and whether it is a directory (a link is never followed). `opened` receives that path, ending in
// "/". Returns 0, or the errno of opening the directory.
template <typename F>
int forEachEntry(const std::string& path, std::string& opened, F visit) {
    DIR* dir = nullptr;
    const int status = withRetry(path, [&](const std::string& p) {
        dir = ::opendir(p.c_str());
        if (dir == nullptr) return lastError();
        opened = p;
        return 0;
    });
    if (status != 0) return status;
    if (opened.back() != '/') opened.push_back('/');
    while (dirent* entry = ::readdir(dir)) {
        const std::string_view name(entry->d_name);
        if (name == "." || name == "..") continue;
        std::string child = opened;
        child.append(name);
        bool directory = entry->d_type == DT_DIR;
        if (entry->d_type == DT_UNKNOWN) {
            // Some file systems do not fill the type in.
            struct stat info;
            directory = ::lstat(child.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
        }
        visit(std::move(child), directory);
    }
    ::closedir(dir);
    return 0;
}

int statPath(const std::string& path, struct stat& info) {
    return withRetry(path, [&](const std::string& p) {
        return ::stat(p.c_str(), &info) == 0 ? 0 : lastError();
    });
}

}  // namespace

bool climbsOut(std::string_view path) {
    size_t start = 0;
    for (size_t i = 0; i <= path.size(); ++i) {
        if (i == path.size() || path[i] == '/' || path[i] == '\\') {
            if (path.substr(start, i - start) == "..") return true;
            start = i + 1;
        }
    }
    return false;
}

std::string FileUtil::canonicalize(std::string_view path) {
    if (isCanonical(path)) return std::string(path);
    return canonicalizeSlow(path);
}

std::string FileUtil::recode(const std::string& path) {
    return recoder()(path);
}

int FileUtil::open(const std::string& path, const char* mode, FILE** file) {
    if (file == nullptr) return EINVAL;
    *file = nullptr;
    if (mode == nullptr) return EINVAL;
    const bool writes = writesWith(mode);
    const int result = withRetry(path, [&](const std::string& p) {
        *file = writes ? calls->openForWrite(p.c_str(), mode) : std::fopen(p.c_str(), mode);
        return *file != nullptr ? 0 : lastError();
    });
    return writes ? noted(result, path) : result;
}

int FileUtil::readAll(FILE* file, std::string& out) {
    if (file == nullptr) return kNoStream;
    char block[256];
    for (;;) {
        const size_t n = std::fread(block, 1, sizeof(block), file);
        out.append(block, n);
        if (n < sizeof(block)) break;
    }
    return std::ferror(file) ? lastError() : 0;
}

int FileUtil::readSize(FILE* file, size_t size, std::string& out) {
    if (file == nullptr) return kNoStream;
    const size_t before = out.size();
    out.resize(before + size);
    const size_t n = std::fread(out.data() + before, 1, size, file);
    out.resize(before + n);
    return n < size && std::ferror(file) ? lastError() : 0;
}

int FileUtil::write(FILE* file, std::string_view data) {
    if (file == nullptr) return kNoStream;
    if (data.empty()) return kNothingToWrite;
    step();
    const size_t n = calls->write(file, data.data(), data.size());
    return n == data.size() ? 0 : lastError();
}

int FileUtil::fileSize(const std::string& path, uint64_t& size) {
    struct stat info;
    const int result = statPath(path, info);
    if (result == 0) size = static_cast<uint64_t>(info.st_size);
    return result;
}

int FileUtil::readFile(const std::string& path, std::string& out) {
    FILE* file = nullptr;
    int result = open(path, "rb", &file);
    if (result != 0) return result;
    result = readAll(file, out);
    std::fclose(file);
    return result;
}

int FileUtil::readWhole(const std::string& path, std::string& out) {
    int fd = -1;
    const int opened = withRetry(path, [&](const std::string& p) {
        fd = retryOnInterrupt([&] { return ::open(p.c_str(), O_RDONLY | O_CLOEXEC); });
        return fd >= 0 ? 0 : lastError();
    });
    if (opened != 0) return opened;
    const int result = readDescriptor(fd, out);
    ::close(fd);
    return result;
}

int FileUtil::readDescriptor(int fd, std::string& out, bool linkedOnly) {
    struct stat info;
    if (::fstat(fd, &info) != 0) return lastError();
    if (S_ISDIR(info.st_mode)) return EISDIR;
    if (linkedOnly && info.st_nlink == 0) return ESTALE;
    // Installed files do not change, so the size from fstat is read in one call, and a short
    // read at end of file is success. Files that report no size are read to their end.
    const size_t before = out.size();
    const size_t expected = info.st_size > 0 ? static_cast<size_t>(info.st_size) : 0;
    if (expected > 0) return appendRead(fd, out, expected);
    out.resize(before + 4096);
    size_t used = before;
    for (;;) {
        if (used == out.size()) out.resize(out.size() * 2);
        const ssize_t n =
            retryOnInterrupt([&] { return ::read(fd, out.data() + used, out.size() - used); });
        if (n < 0) {
            const int result = lastError();
            out.resize(before);
            return result;
        }
        if (n == 0) break;
        used += static_cast<size_t>(n);
    }
    out.resize(used);
    return 0;
}

int FileUtil::appendRead(int fd, std::string& out, size_t count) {
    const size_t before = out.size();
    int result = 0;
    auto fill = [&](char* buffer, size_t size) {
        size_t used = before;
        while (used < size) {
            const ssize_t n =
                retryOnInterrupt([&] { return ::read(fd, buffer + used, size - used); });
            if (n < 0) {
                result = lastError();
                return before;
            }
            if (n == 0) break;
            used += static_cast<size_t>(n);
        }
        return used;
    };
#if defined(__cpp_lib_string_resize_and_overwrite)
    // Where the library allows it, the read fills the buffer without its being zeroed first.
    out.resize_and_overwrite(before + count, fill);
#else
    out.resize(before + count);
    out.resize(fill(out.data(), out.size()));
#endif
    return result;
}

int FileUtil::writeFile(const std::string& path, std::string_view data) {
    step();
    FILE* file = nullptr;
    int result = open(path, "wb+", &file);
    if (result != 0) return result;
    result = write(file, data);
    if (std::fclose(file) != 0 && result == 0) result = lastError();
    return noted(result, path);
}

int FileUtil::writeEmptyFile(const std::string& path) {
    step();
    FILE* file = nullptr;
    int result = open(path, "wb+", &file);
    if (result != 0) return result;
    return noted(std::fclose(file) != 0 ? lastError() : 0, path);
}

int FileUtil::appendFile(const std::string& path, std::string_view data) {
    step();
    FILE* file = nullptr;
    int result = open(path, "ab+", &file);
    if (result != 0) return result;
    result = write(file, data);
    if (std::fclose(file) != 0 && result == 0) result = lastError();
    return noted(result, path);
}

bool FileUtil::isFile(const std::string& path) {
    struct stat info;
    return statPath(path, info) == 0 && !S_ISDIR(info.st_mode);
}

bool FileUtil::isDirectory(const std::string& path) {
    struct stat info;
    return statPath(path, info) == 0 && S_ISDIR(info.st_mode);
}

int FileUtil::remove(const std::string& path) {
    step();
    return noted(withRetry(path,
                           [](const std::string& p) {
                               return calls->remove(p.c_str()) == 0 ? 0 : lastError();
                           }),
                 path);
}

int FileUtil::rename(const std::string& from, const std::string& to) {
    if (from.empty() || to.empty()) return kNoPath;
    step();
    if (calls->rename(from.c_str(), to.c_str()) == 0) return 0;
    const int result = lastError();
    const std::string recodedFrom = recoder()(from);
    const std::string recodedTo = recoder()(to);
    if (recodedFrom.empty() || recodedTo.empty() || (recodedFrom == from && recodedTo == to))
        return noted(result, to);
    return noted(calls->rename(recodedFrom.c_str(), recodedTo.c_str()) == 0 ? 0 : lastError(), to);
}

int FileUtil::link(const std::string& from, const std::string& to) {
    if (from.empty() || to.empty()) return kNoPath;
    step();
    return noted(calls->link(from.c_str(), to.c_str()) == 0 ? 0 : lastError(), to);
}

int FileUtil::exchange(const std::string& a, const std::string& b) {
    if (a.empty() || b.empty()) return kNoPath;
    step();
    return noted(calls->exchange(a.c_str(), b.c_str()) == 0 ? 0 : lastError(), a);
}

int FileUtil::makeDirectory(const std::string& path) {
    step();
    return noted(withRetry(path,
                           [](const std::string& p) {
                               return calls->makeDirectory(p.c_str(), 0700) == 0 ? 0 : lastError();
                           }),
                 path);
}

int FileUtil::makeDirectories(const std::string& path) {
    if (path.empty()) return kNoPath;
    const CanonicalPath canonical(path);
    const std::string& p = canonical.str();
    for (size_t i = 1; i < p.size(); ++i) {
        if (!isSeparator(p[i])) continue;
        const std::string prefix = p.substr(0, i);
        if (isDirectory(prefix)) continue;
        const int result = makeDirectory(prefix);
        if (result != 0) return result;
    }
    return 0;
}

int FileUtil::removeDirectory(const std::string& path) {
    step();
    return withRetry(path, [](const std::string& p) {
        return calls->removeDirectory(p.c_str()) == 0 ? 0 : lastError();
    });
}

int FileUtil::removeTree(const std::string& path) {
    std::string base;
    const int opened = forEachEntry(path, base, [](std::string child, bool directory) {
        if (directory) {
            removeTree(child);
        } else {
            step();
            calls->remove(child.c_str());
        }
    });
    if (opened != 0) return opened;
    step();
    calls->removeDirectory(base.c_str());
    return 0;
}

int FileUtil::listDirectory(const std::string& path, std::vector<std::string>& names) {
    names.clear();
    std::string base;
    return forEachEntry(path, base, [&](std::string child, bool directory) {
        if (directory) child.push_back('/');
        names.push_back(std::move(child));
    });
}

int FileUtil::syncFile(const std::string& path) {
    int fd = -1;
    const int opened = withRetry(path, [&](const std::string& p) {
        fd = retryOnInterrupt([&] { return ::open(p.c_str(), O_RDONLY | O_CLOEXEC); });
        return fd >= 0 ? 0 : lastError();
    });
    if (opened != 0) return opened;
    const int result = syncDescriptor(fd);
    ::close(fd);
    return noted(result, path);
}

int FileUtil::startWriteback(const std::string& path) {
    int fd = -1;
    const int opened = withRetry(path, [&](const std::string& p) {
        fd = retryOnInterrupt([&] { return ::open(p.c_str(), O_RDONLY | O_CLOEXEC); });
        return fd >= 0 ? 0 : lastError();
    });
    if (opened != 0) return opened;
    const int result = ::sync_file_range(fd, 0, 0, SYNC_FILE_RANGE_WRITE) == 0 ? 0 : lastError();
    ::close(fd);
    return result;
}

int FileUtil::syncDescriptor(int fd) {
    if (fd < 0) return kNoStream;
    step();
    return retryOnInterrupt([&] { return calls->syncData(fd); }) == 0 ? 0 : lastError();
}

int FileUtil::syncDirectory(const std::string& path) {
    int fd = -1;
    const int opened = withRetry(path, [&](const std::string& p) {
        fd =
            retryOnInterrupt([&] { return ::open(p.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
        return fd >= 0 ? 0 : lastError();
    });
    if (opened != 0) return opened;
    step();
    const int result =
        retryOnInterrupt([&] { return calls->syncDirectory(fd); }) == 0 ? 0 : lastError();
    ::close(fd);
    return noted(result, path);
}

FileUtil::FileSystemSync::FileSystemSync(const std::string& directory) {
    const int opened = withRetry(directory, [&](const std::string& p) {
        fd_ =
            retryOnInterrupt([&] { return ::open(p.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
        return fd_ >= 0 ? 0 : lastError();
    });
    if (opened != 0) openError_ = noted(opened, directory);
}

FileUtil::FileSystemSync::~FileSystemSync() {
    if (fd_ >= 0) ::close(fd_);
}

namespace {

// Whether this kernel's syncfs reports write-back failures (Linux 5.8 and later).
bool syncfsReportsFailures() {
    static const bool reports = [] {
        struct utsname name;
        if (::uname(&name) != 0) return false;
        unsigned major = 0, minor = 0;
        if (std::sscanf(name.release, "%u.%u", &major, &minor) != 2) return false;
        constexpr unsigned kMajor = 5, kMinor = 8;
        return major > kMajor || (major == kMajor && minor >= kMinor);
    }();
    return reports;
}

}  // namespace

bool FileUtil::FileSystemSync::usable() const {
    return fd_ >= 0 && syncfsReportsFailures();
}

int FileUtil::FileSystemSync::sync() {
    if (fd_ < 0) return openError_ != 0 ? openError_ : kNoStream;
    step();
    return retryOnInterrupt([&] { return calls->syncFileSystem(fd_); }) == 0 ? 0 : lastError();
}

FILE* FileUtil::Calls::openForWrite(const char* path, const char* mode) {
    return std::fopen(path, mode);
}

size_t FileUtil::Calls::write(FILE* file, const void* data, size_t size) {
    return std::fwrite(data, 1, size, file);
}

int FileUtil::Calls::rename(const char* from, const char* to) {
    return std::rename(from, to);
}

int FileUtil::Calls::exchange(const char* a, const char* b) {
    return ::renameat2(AT_FDCWD, a, AT_FDCWD, b, RENAME_EXCHANGE);
}

int FileUtil::Calls::link(const char* from, const char* to) {
    return ::link(from, to);
}

int FileUtil::Calls::makeDirectory(const char* path, mode_t mode) {
    return ::mkdir(path, mode);
}

int FileUtil::Calls::remove(const char* path) {
    return std::remove(path);
}

int FileUtil::Calls::removeDirectory(const char* path) {
    return ::rmdir(path);
}

int FileUtil::Calls::syncData(int fd) {
    return ::fdatasync(fd);
}

int FileUtil::Calls::syncDirectory(int fd) {
    return ::fsync(fd);
}

int FileUtil::Calls::syncFileSystem(int fd) {
    return ::syncfs(fd);
}

void FileUtil::setCalls(Calls* replacement) {
    calls = replacement != nullptr ? replacement : &systemCalls;
}

void FileUtil::setStepHook(StepHook hook) {
    stepHook = hook;
}

FileUtil::ScopedRecoder::ScopedRecoder(std::function<std::string(const std::string&)> replacement)
    : previous_(std::move(recoder())) {
    recoder() = std::move(replacement);
}

FileUtil::ScopedRecoder::~ScopedRecoder() {
    recoder() = std::move(previous_);
}

// ---- OpenDirectory ----

namespace {
std::atomic<int> heldDirectories{0};
}  // namespace

std::unique_ptr<OpenDirectory> OpenDirectory::open(const std::string& path) {
    if (path.empty()) return nullptr;
    // Taken before the open, so that racing openers never hold more than the limit.
    if (heldDirectories.fetch_add(1, std::memory_order_acq_rel) >= kMaxHeld) {
        heldDirectories.fetch_sub(1, std::memory_order_acq_rel);
        return nullptr;
    }
    const int fd =
        retryOnInterrupt([&] { return ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
    if (fd < 0) {
        heldDirectories.fetch_sub(1, std::memory_order_acq_rel);
        return nullptr;
    }
    return std::unique_ptr<OpenDirectory>(new OpenDirectory(fd));
}

OpenDirectory::~OpenDirectory() {
    ::close(fd_);
    heldDirectories.fetch_sub(1, std::memory_order_acq_rel);
}

int OpenDirectory::heldCount() {
    return heldDirectories.load(std::memory_order_acquire);
}

Error OpenDirectory::checkName(std::string_view relative) {
    // A NUL would end the name early at the system call: "..\0x" would open "..".
    if (relative.empty() || relative.front() == '/' ||
        relative.find('\0') != std::string_view::npos || climbsOut(relative))
        return Errors::nameLeavesFolder(relative);
    return Error();
}

bool OpenDirectory::hasFile(const std::string& relative) const {
    if (checkName(relative)) return false;
    struct stat info;
    return ::fstatat(fd_, relative.c_str(), &info, 0) == 0 && !S_ISDIR(info.st_mode);
}

int OpenDirectory::openFile(const std::string& relative) const {
    if (checkName(relative)) {
        errno = EACCES;
        return -1;
    }
    return retryOnInterrupt([&] { return ::openat(fd_, relative.c_str(), O_RDONLY | O_CLOEXEC); });
}

int OpenDirectory::readFile(const std::string& relative, std::string& out) const {
    const int fd = openFile(relative);
    if (fd < 0) return lastError();
    const int result = FileUtil::readDescriptor(fd, out);
    ::close(fd);
    return result;
}

// ---- HeldFile ----

HeldFile& HeldFile::operator=(HeldFile&& other) noexcept {
    if (this != &other) {
        close();
        fd_ = other.fd_;
        other.fd_ = -1;
    }
    return *this;
}

int HeldFile::readAndClose(std::string& out) {
    if (fd_ < 0) return EBADF;
    const int result = FileUtil::readDescriptor(fd_, out, /*linkedOnly=*/true);
    close();
    return result;
}

int HeldFile::readIntoAndClose(const std::function<char*(size_t)>& allocate, size_t& size) {
    if (fd_ < 0) return EBADF;
    struct stat info;
    if (::fstat(fd_, &info) != 0) return lastError();
    if (S_ISDIR(info.st_mode)) return EISDIR;
    if (info.st_nlink == 0) return ESTALE;
    if (info.st_size <= 0) return ENODATA;
    const auto expected = static_cast<size_t>(info.st_size);
    char* const memory = allocate(expected);
    if (memory == nullptr) return ENOMEM;
    // pread leaves the offset where it was, for readAndClose after a failure.
    size_t used = 0;
    while (used < expected) {
        const ssize_t n = retryOnInterrupt(
            [&] { return ::pread(fd_, memory + used, expected - used, static_cast<off_t>(used)); });
        if (n < 0) return lastError();
        if (n == 0) return EIO;
        used += static_cast<size_t>(n);
    }
    close();
    size = expected;
    return 0;
}

void HeldFile::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

}  // namespace FerritCore
