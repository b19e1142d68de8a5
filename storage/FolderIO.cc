// Reading and probing what a Folder names. Disk is served here directly; the other kinds are
// reached through the asset provider and the packs store once those are attached.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "access/Errors.h"
#include "storage/Folder.h"

namespace FerritCore {
namespace {

// Retries a system call interrupted by a signal.
template <typename F>
auto retryOnInterrupt(F call) {
    decltype(call()) result;
    do {
        result = call();
    } while (result < 0 && errno == EINTR);
    return result;
}

}  // namespace

bool Folder::exists() const {
    if (kind_ != FolderKind::Disk) return false;
    struct stat info;
    if (::stat(absolute_.c_str(), &info) != 0) return false;
    return isDirectory() == S_ISDIR(info.st_mode);
}

bool Folder::isEmpty() const {
    if (!isDirectory()) return true;
    if (kind_ == FolderKind::OnDemand) return false;
    if (kind_ != FolderKind::Disk) return true;
    DIR* dir = ::opendir(absolute_.c_str());
    if (dir == nullptr) return true;
    bool empty = true;
    while (dirent* entry = ::readdir(dir)) {
        const std::string_view name(entry->d_name);
        if (name == "." || name == ".." || name == ".DS_Store") continue;
        empty = false;
        break;
    }
    ::closedir(dir);
    return empty;
}

std::string Folder::readFile(const Folder& file, Error& error) {
    std::string content;
    if (file.kind() != FolderKind::Disk) {
        error = Errors::fileReadInvalidType(file);
        return content;
    }
    const int fd = retryOnInterrupt([&] { return ::open(file.absolute().c_str(), O_RDONLY | O_CLOEXEC); });
    if (fd < 0) {
        error = errno == ENOENT ? Errors::fileNotExists(file) : Errors::fileRead(file, errno);
        return content;
    }
    struct stat info;
    if (::fstat(fd, &info) != 0) {
        error = Errors::fileRead(file, errno);
        ::close(fd);
        return content;
    }
    if (S_ISDIR(info.st_mode)) {
        error = Errors::fileRead(file, EISDIR);
        ::close(fd);
        return content;
    }
    // Pack files do not change once installed, so the size that fstat gave is read and a short
    // read at end of file is success. Files that report no size are read to their end.
    const size_t size = static_cast<size_t>(info.st_size);
    content.resize(size > 0 ? size : 4096);
    size_t used = 0;
    for (;;) {
        if (used == content.size()) {
            if (size > 0) break;
            content.resize(content.size() * 2);
        }
        const ssize_t n = retryOnInterrupt([&] { return ::read(fd, content.data() + used, content.size() - used); });
        if (n < 0) {
            error = Errors::fileRead(file, errno);
            ::close(fd);
            return std::string();
        }
        if (n == 0) break;
        used += static_cast<size_t>(n);
    }
    ::close(fd);
    content.resize(used);
    error.clear();
    return content;
}

void Folder::readFileAsync(const Folder& file, std::function<void(std::string, Error)> callback) {
    if (!callback) return;
    Error error;
    std::string content = readFile(file, error);
    callback(std::move(content), std::move(error));
}

}  // namespace FerritCore
