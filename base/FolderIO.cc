// What a Folder names, read, written, listed and removed, whatever its kind: Disk through
// FileUtil, Asset and OnDemand through the asset provider, Packed through the store of packed
// files.
#include <dirent.h>

#include <cerrno>
#include <string>
#include <vector>

#include "base/AssetProvider.h"
#include "base/Errors.h"
#include "base/FileUtil.h"
#include "base/Folder.h"
#include "base/LogTags.h"
#include "base/PackedFiles.h"
#include "base/Proxy.h"
#include "base/Telemetry.h"
#include "marl/Clock.h"
#include "marl/Log.h"

namespace FerritCore {
namespace {

constexpr std::string_view kDsStore = ".DS_Store";
constexpr std::string_view kAssetPackPrefix = "Ferrit_Asset_";
constexpr std::string_view kPackConfig = "packConfig.config";

// What a Packed folder answers when no store of packed files is attached: the words of a store
// that could not be opened.
Error noPackedStore() {
    return Errors::packedStoreNotOpen();
}

// The last component of a listed path, with the trailing "/" of a directory kept.
std::string_view entryName(std::string_view entry) {
    const size_t end = entry.size() > 0 && entry.back() == '/' ? entry.size() - 1 : entry.size();
    const size_t slash = entry.rfind('/', end == 0 ? 0 : end - 1);
    if (slash == std::string_view::npos || slash >= end) return entry;
    return entry.substr(slash + 1);
}

// An empty file is an error, not an empty success.
std::string noEmptyFile(const Folder& file, std::string content, Error& error) {
    if (content.empty()) {
        error = Errors::fileNoData(file);
        return content;
    }
    error.clear();
    return content;
}

// The result of a Disk read: a missing file is 1101, any other failure 1102 with its errno.
std::string diskResult(const Folder& file, int result, std::string content, Error& error) {
    if (result != 0) {
        error = result == ENOENT ? Errors::fileNotExists(file) : Errors::fileRead(file, result);
        return std::string();
    }
    return noEmptyFile(file, std::move(content), error);
}

std::string_view lastComponent(std::string_view key) {
    const size_t slash = key.rfind('/');
    return slash == std::string_view::npos ? key : key.substr(slash + 1);
}

}  // namespace

bool Folder::exists() const {
    switch (kind_) {
        case FolderKind::Disk:
            return isDirectory() ? FileUtil::isDirectory(absolute_) : FileUtil::isFile(absolute_);
        case FolderKind::Asset:
            return Assets::hasAsset(relative_);
        case FolderKind::OnDemand:
            return false;
        case FolderKind::Packed: {
            std::shared_ptr<PackedFiles> store = PackedFiles::current();
            if (!store) return false;
            if (!isDirectory()) return store->contains(relative_);
            bool found = false;
            store->enumerate(relative_, [&](std::string_view) { return found = true; });
            return found;
        }
    }
    return false;
}

uint64_t Folder::diskSize() const {
    if (kind_ == FolderKind::OnDemand) return 0;
    if (isDirectory()) {
        uint64_t total = 0;
        for (const Folder& file : listFiles()) total += file.diskSize();
        return total;
    }
    switch (kind_) {
        case FolderKind::Disk: {
            uint64_t size = 0;
            return FileUtil::fileSize(absolute_, size) == 0 ? size : 0;
        }
        case FolderKind::Asset:
            return Assets::assetSize(relative_);
        case FolderKind::Packed: {
            std::shared_ptr<PackedFiles> store = PackedFiles::current();
            std::string value;
            Error error;
            return store && store->get(relative_, value, error) ? value.size() : 0;
        }
        case FolderKind::OnDemand:
            break;
    }
    return 0;
}

bool Folder::isEmpty() const {
    if (!isDirectory()) return true;
    switch (kind_) {
        case FolderKind::OnDemand:
            return false;
        case FolderKind::Disk: {
            // Stops at the first entry that counts: this runs on every match of an app pack.
            DIR* dir = ::opendir(absolute_.c_str());
            if (dir == nullptr) return true;
            bool empty = true;
            while (dirent* entry = ::readdir(dir)) {
                const std::string_view name(entry->d_name);
                if (name == "." || name == ".." || name == kDsStore) continue;
                empty = false;
                break;
            }
            ::closedir(dir);
            return empty;
        }
        case FolderKind::Asset:
            for (const std::string& name : Assets::listAsset(relative_))
                if (name != kDsStore) return false;
            return true;
        case FolderKind::Packed: {
            std::shared_ptr<PackedFiles> store = PackedFiles::current();
            if (!store) return true;
            bool empty = true;
            store->enumerate(relative_, [&](std::string_view key) {
                if (lastComponent(key) == kDsStore) return false;
                empty = false;
                return true;
            });
            return empty;
        }
    }
    return true;
}

std::forward_list<Folder> Folder::listChildren() const {
    std::forward_list<Folder> children;
    if (!isDirectory()) return children;
    if (kind_ == FolderKind::Disk) {
        std::vector<std::string> entries;
        if (FileUtil::listDirectory(absolute_, entries) != 0) return children;
        for (const std::string& entry : entries) {
            const std::string_view name = entryName(entry);
            if (name == kDsStore) continue;
            children.push_front(childOf(name));
        }
    } else if (kind_ == FolderKind::Asset) {
        const bool assetPack = std::string_view(relative_).starts_with(kAssetPackPrefix);
        for (const std::string& name : Assets::listAsset(relative_)) {
            // The configuration file of a built-in pack is no resource of it.
            if (assetPack && name == kPackConfig) continue;
            if (name == kDsStore) continue;
            children.push_front(childOf(name));
        }
    }
    return children;
}

std::forward_list<Folder> Folder::listFiles() const {
    std::forward_list<Folder> files;
    if (!isDirectory() || kind_ == FolderKind::OnDemand) return files;
    if (kind_ == FolderKind::Packed) {
        std::shared_ptr<PackedFiles> store = PackedFiles::current();
        if (!store) return files;
        auto tail = files.before_begin();
        store->enumerate(relative_, [&](std::string_view key) {
            tail = files.insert_after(tail, Folder::packed(key));
            return false;
        });
        return files;
    }
    files = listChildren();
    // Each directory is replaced in place by its children, and the walk goes on from the first
    // of them, so the result is depth first and holds files only.
    auto previous = files.before_begin();
    for (auto it = files.begin(); it != files.end();) {
        if (!it->isDirectory()) {
            previous = it++;
            continue;
        }
        std::forward_list<Folder> children = it->listChildren();
        files.erase_after(previous);
        files.splice_after(previous, children);
        it = std::next(previous);
    }
    return files;
}

void Folder::ensureParent() const {
    if (kind_ != FolderKind::Disk) return;
    if (isDirectory()) {
        FileUtil::makeDirectories(absolute_);
        return;
    }
    const size_t slash = absolute_.rfind('/');
    if (slash == std::string::npos) return;
    FileUtil::makeDirectories(absolute_.substr(0, slash + 1));
}

std::string Folder::readFile(const Folder& file, Error& error) {
    std::string content;
    switch (file.kind()) {
        case FolderKind::OnDemand:
            error = Errors::readAsyncOnly(file);
            return content;
        case FolderKind::Asset: {
            Error assetError;
            content = Assets::readAsset(file.relative(), assetError);
            if (!assetError) {
                error.clear();
                return content;
            }
            error = Errors::isFileMissing(assetError)
                        ? Errors::fileNotExists(file)
                        : Errors::fileRead(file, assetError.code(), assetError.message());
            return std::string();
        }
        case FolderKind::Packed: {
            std::shared_ptr<PackedFiles> store = PackedFiles::current();
            if (!store) {
                error = noPackedStore();
                return content;
            }
            Error storeError;
            if (!store->get(file.relative(), content, storeError)) {
                error = storeError ? std::move(storeError) : Errors::fileNotExists(file);
                return std::string();
            }
            break;
        }
        case FolderKind::Disk: {
            // The read of the hot path: one open, fstat, read and close (FileUtil::readFile reads
            // the same bytes in 256-byte blocks through stdio, which is slower for no gain).
            const int result = FileUtil::readWhole(file.absolute(), content);
            return diskResult(file, result, std::move(content), error);
        }
    }
    return noEmptyFile(file, std::move(content), error);
}

void Folder::readFileAsync(const Folder& file, std::function<void(std::string, Error)> callback) {
    if (!callback) return;
    if (file.kind() != FolderKind::OnDemand) {
        Error error;
        std::string content = readFile(file, error);
        callback(std::move(content), std::move(error));
        return;
    }
    // The module's files are raw files once it is loaded.
    const double start = MRLCurrentClock();
    Assets::loadModule(file.module(),
                       [file, start, callback = std::move(callback)](const Error& loadError) {
                           Error error = loadError;
                           std::string content;
                           if (!error) content = readFile(Folder::asset(file.relative()), error);
                           if (ProxyCalls::takesEvents()) {
                               PerfRecord record("Ferrit.OnDemand");
                               record.setDimension("tag", file.module());
                               record.setDimension("path", file.relative());
                               if (loadError) record.setError(loadError);
                               record.setMeasure("time", MRLCurrentClock() - start);
                               sendEvent(record);
                           }
                           callback(std::move(content), std::move(error));
                       });
}

void Folder::listFilesAsync(const Folder& folder,
                            std::function<void(std::forward_list<Folder>)> callback) {
    if (!callback) return;
    if (folder.kind() != FolderKind::OnDemand) {
        callback(folder.listFiles());
        return;
    }
    Assets::loadModule(folder.module(), [folder,
                                         callback = std::move(callback)](const Error& error) {
        std::forward_list<Folder> files;
        if (!error && folder.isDirectory()) {
            auto tail = files.before_begin();
            for (const Folder& file : Folder::asset(folder.relative()).listFiles())
                tail = files.insert_after(tail, Folder::onDemand(folder.module(), file.relative()));
        }
        callback(std::move(files));
    });
}

bool Folder::writeFile(const Folder& file, std::string_view content, Error& error) {
    switch (file.kind()) {
        case FolderKind::Asset:
        case FolderKind::OnDemand:
            error = Errors::assetReadonly(file);
            return false;
        case FolderKind::Packed: {
            std::shared_ptr<PackedFiles> store = PackedFiles::current();
            if (!store) {
                error = noPackedStore();
                return false;
            }
            return store->put(file.relative(), content, error);
        }
        case FolderKind::Disk:
            break;
    }
    const int result = FileUtil::writeFile(file.absolute(), content);
    if (result != 0) {
        error = Errors::fileWrite(file, result);
        return false;
    }
    error.clear();
    return true;
}

bool Folder::writeContent(const Folder& file, std::string_view content, Error& error) {
    if (!content.empty() || file.kind() != FolderKind::Disk) return writeFile(file, content, error);
    const int result = FileUtil::writeEmptyFile(file.absolute());
    if (result != 0) {
        error = Errors::fileWrite(file, result);
        return false;
    }
    error.clear();
    return true;
}

void Folder::renameTo(const Folder& from, const Folder& to, Error& error) {
    if (from.kind() != FolderKind::Disk || to.kind() != FolderKind::Disk) {
        error = Errors::renameDiskOnly(from, to);
        return;
    }
    to.ensureParent();
    const int result = FileUtil::rename(from.absolute(), to.absolute());
    if (result != 0) {
        error = Errors::fileWrite(to, result);
        return;
    }
    error.clear();
}

void Folder::removeFile(const Folder& folder, Removal removal) {
    switch (folder.kind()) {
        case FolderKind::Asset:
        case FolderKind::OnDemand:
            return;
        case FolderKind::Packed:
            // By key range: a file goes with every key that has its path as a prefix.
            if (std::shared_ptr<PackedFiles> store = PackedFiles::current())
                store->removeByPrefix(folder.relative());
            return;
        case FolderKind::Disk:
            break;
    }
    if (FileUtil::remove(folder.absolute()) != 0) FileUtil::removeTree(folder.absolute());
    if (removal == Removal::kRecreate) folder.ensureParent();
}

void initFolders(std::string_view root) {
    std::string path(root);
    if (path.empty() || path.back() != '/') path.push_back('/');
    setRootPath(normalizePath(path));
    initFolder(Folder::disk("apps/"));
    // What an earlier run left in "temp/" goes; the folder itself stays, since removing and
    // making it again cost two writes of the root's directory at every start. A leftover that
    // cannot go stays and is reported: the disk refuses writes, and the state says so.
    const Folder temp = Folder::disk("temp/");
    std::vector<std::string> leftovers;
    if (FileUtil::listDirectory(temp.absolute(), leftovers) == 0) {
        for (const std::string& entry : leftovers) {
            // Only a real directory is walked: a link to one is removed as the link it is, or
            // left, never followed out of the root.
            const int removed =
                entry.ends_with('/') ? FileUtil::removeTree(entry) : FileUtil::remove(entry);
            static_cast<void>(removed);
        }
    }
    initFolder(temp);
}

void initFolder(const Folder& folder) {
    if (FileUtil::isDirectory(folder.absolute())) return;
    const int result = FileUtil::makeDirectories(folder.absolute());
    if (result == 0) return;
    MarlLogger::LogBuilder(MarlLogger::MRLLevelError, LogTag::kSetup)
        .event("initFolder")
        .append("path", folder.absolute())
        .error(Errors::createFolderFailed(result));
}

}  // namespace FerritCore
