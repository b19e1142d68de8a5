#include "base/AssetProvider.h"

#include "base/FileUtil.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string_view>

#include "base/Errors.h"
#include "base/Folder.h"
#include "base/Proxy.h"
#include "base/ServiceSlot.h"

namespace FerritCore {
namespace {

bool isDirectoryPath(const std::string& path) {
    return path.empty() || path.back() == '/';
}

// An open regular file, or -1.
int openFile(const std::string& absolute, struct stat* info) {
    const int fd = retryOnInterrupt([&] { return ::open(absolute.c_str(), O_RDONLY | O_CLOEXEC); });
    if (fd < 0) return -1;
    if (::fstat(fd, info) != 0 || S_ISDIR(info->st_mode)) {
        ::close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

std::shared_ptr<AssetProvider> AssetProvider::current() {
    return ServiceSlot<AssetProvider>::instance().get();
}

void AssetProvider::set(std::shared_ptr<AssetProvider> provider) {
    ServiceSlot<AssetProvider>::instance().set(std::move(provider));
}

// ---- RawFileProvider ----

RawFileProvider::RawFileProvider(std::string folder)
    : folder_(folder.empty() || folder.back() == '/' ? std::move(folder)
                                                     : std::move(folder) + "/") {}

std::string RawFileProvider::resolve(const std::string& path) const {
    if (folder_.empty() || climbsOut(path)) return {};
    std::string_view relative = path;
    // Raw-file paths are relative to the folder whatever their spelling.
    while (!relative.empty() && relative.front() == '/') relative.remove_prefix(1);
    std::string absolute;
    absolute.reserve(folder_.size() + relative.size());
    absolute.append(folder_).append(relative);
    return absolute;
}

bool RawFileProvider::hasAsset(const std::string& path) {
    const std::string absolute = resolve(path);
    if (absolute.empty()) return false;
    if (isDirectoryPath(path)) {
        DIR* dir = ::opendir(absolute.c_str());
        if (dir == nullptr) return false;
        ::closedir(dir);
        return true;
    }
    // One stat instead of open, fstat and close: a pack hit from the raw files asks this before
    // every read, and a file that is there but cannot be read fails that read instead.
    struct stat info;
    return retryOnInterrupt([&] { return ::stat(absolute.c_str(), &info); }) == 0 &&
           !S_ISDIR(info.st_mode);
}

std::vector<std::string> RawFileProvider::listAsset(const std::string& path) {
    std::vector<std::string> names;
    std::string absolute = resolve(path);
    if (absolute.empty()) return names;
    if (absolute.back() != '/') absolute.push_back('/');
    DIR* dir = ::opendir(absolute.c_str());
    if (dir == nullptr) return names;
    while (dirent* entry = ::readdir(dir)) {
        std::string name(entry->d_name);
        if (name == "." || name == "..") continue;
        // As over the resource manager: whatever does not open as a file is a directory.
        struct stat info;
        const int fd = openFile(absolute + name, &info);
        if (fd < 0) {
            name.push_back('/');
        } else {
            ::close(fd);
        }
        names.push_back(std::move(name));
    }
    ::closedir(dir);
    return names;
}

uint64_t RawFileProvider::assetSize(const std::string& path) {
    const std::string absolute = resolve(path);
    if (absolute.empty() || isDirectoryPath(path)) return 0;
    struct stat info;
    const int fd = openFile(absolute, &info);
    if (fd < 0) return 0;
    ::close(fd);
    return static_cast<uint64_t>(info.st_size);
}

std::string RawFileProvider::readAsset(const std::string& path, Error& error) {
    std::string content;
    const std::string absolute = resolve(path);
    struct stat info;
    const int fd = absolute.empty() || isDirectoryPath(path) ? -1 : openFile(absolute, &info);
    if (fd < 0) {
        error = Errors::assetNotExists();
        return content;
    }
    // One read of the whole size, as the platform reads a raw file; a short read at end of file
    // is success.
    const int failure = FileUtil::appendRead(fd, content, static_cast<size_t>(info.st_size));
    ::close(fd);
    if (failure != 0) {
        error = Errors::fileRead(Folder::asset(path), failure);
        return std::string();
    }
    error.clear();
    return content;
}

void RawFileProvider::loadModule(const std::string& module, LoadCallback callback) {
    ProxyCalls::loadOnDemand(module, std::move(callback));
}

// ---- ProxyAssetProvider ----

bool ProxyAssetProvider::hasAsset(const std::string& path) {
    return ProxyCalls::assetExists(path);
}

std::vector<std::string> ProxyAssetProvider::listAsset(const std::string& path) {
    return ProxyCalls::assetList(path);
}

uint64_t ProxyAssetProvider::assetSize(const std::string& path) {
    return ProxyCalls::assetSize(path);
}

std::string ProxyAssetProvider::readAsset(const std::string& path, Error& error) {
    return ProxyCalls::assetRead(path, error);
}

std::string ProxyAssetProvider::diskPath() const {
    return ProxyCalls::assetDiskPath();
}

void ProxyAssetProvider::loadModule(const std::string& module, LoadCallback callback) {
    ProxyCalls::loadOnDemand(module, std::move(callback));
}

// ---- Assets ----

namespace Assets {

bool hasAsset(const std::string& path) {
    return callOr(AssetProvider::current(), &AssetProvider::hasAsset, /*fallback=*/false, path);
}

std::vector<std::string> listAsset(const std::string& path) {
    return callOr(AssetProvider::current(), &AssetProvider::listAsset, std::vector<std::string>(),
                  path);
}

uint64_t assetSize(const std::string& path) {
    return callOr(AssetProvider::current(), &AssetProvider::assetSize, uint64_t{0}, path);
}

std::string readAsset(const std::string& path, Error& error) {
    std::shared_ptr<AssetProvider> provider = AssetProvider::current();
    if (!provider) error = Errors::proxyNotInitialized();
    return callOr(provider, &AssetProvider::readAsset, std::string(), path, error);
}

std::string diskPath() {
    std::shared_ptr<AssetProvider> provider = AssetProvider::current();
    return provider ? provider->diskPath() : std::string();
}

void loadModule(const std::string& module, AssetProvider::LoadCallback callback) {
    std::shared_ptr<AssetProvider> provider = AssetProvider::current();
    if (!provider) {
        if (callback) callback(Errors::proxyNotInitialized());
        return;
    }
    provider->loadModule(module, std::move(callback));
}

}  // namespace Assets

}  // namespace FerritCore
