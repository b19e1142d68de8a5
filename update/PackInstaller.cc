#include "update/PackInstaller.h"

#include <cerrno>
#include <memory>

#include "base/Errors.h"
#include "base/FileUtil.h"
#include "base/PackedFiles.h"

namespace FerritCore {
namespace {

constexpr std::string_view kStagingName = "new/";
// Where the earlier folder of the version goes when the file system cannot exchange two folders.
constexpr std::string_view kReplacedName = "replaced/";

// The absolute path of a directory without its trailing "/", as rename wants it.
std::string withoutSlash(const Folder& folder) {
    std::string path = folder.absolute();
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

// The directory part of a relative file path, with its "/"; empty at the top.
std::string parentOf(const std::string& path) {
    const size_t slash = path.rfind('/', path.size() > 1 ? path.size() - 2 : 0);
    return slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
}

// Why a file could not be linked: the file system has no links, or not between these two places.
bool linkUnsupported(int result) {
    return result == EXDEV || result == EPERM || result == EMLINK || result == ENOTSUP ||
           result == ENOSYS;
}

}  // namespace

PackInstaller::PackInstaller(Folder target, Folder work)
    : target_(std::move(target)), work_(std::move(work)) {
    writeRoot_ = isPacked() ? target_ : work_.childOf(kStagingName);
}

PackInstaller::~PackInstaller() {
    abandonFile();
}

Error PackInstaller::beginFile(const std::string& path, uint64_t expectedSize) {
    abandonFile();
    streamPath_ = path;
    streaming_ = true;
    streamBytes_.clear();
    if (isPacked()) {
        streamBytes_.reserve(expectedSize);
        return Error();
    }
    const Folder file = writeRoot_.childOf(path);
    if (Error error = ensureParents(file)) {
        streaming_ = false;
        return error;
    }
    // Created at once: a file that the list vouches for as empty gets no piece.
    const int result = FileUtil::open(file.absolute(), "wb", &streamFile_);
    if (result != 0) {
        streaming_ = false;
        return Errors::fileWrite(file, result);
    }
    return Error();
}

Error PackInstaller::appendFile(std::string_view piece) {
    // A piece after a failure has nowhere to go: the write of the file already failed.
    if (!streaming_) return Errors::fileWrite(writeRoot_.childOf(streamPath_), EBADF);
    if (piece.empty()) return Error();
    if (isPacked()) {
        streamBytes_.append(piece);
        return Error();
    }
    const int result = FileUtil::write(streamFile_, piece);
    if (result != 0) {
        Error error = Errors::fileWrite(writeRoot_.childOf(streamPath_), result);
        abandonFile();
        return error;
    }
    return Error();
}

Error PackInstaller::endFile(std::string_view checkedMd5) {
    if (!streaming_) return Errors::fileWrite(writeRoot_.childOf(streamPath_), EBADF);
    streaming_ = false;
    if (isPacked()) {
        // The gathered bytes go to the batch as they are: a file is not copied a second time.
        std::string content = std::move(streamBytes_);
        streamBytes_.clear();
        return batchFile(streamPath_, std::move(content), checkedMd5);
    }
    FILE* file = streamFile_;
    streamFile_ = nullptr;
    if (std::fclose(file) != 0) {
        const int result = errno;
        const Folder failed = writeRoot_.childOf(streamPath_);
        FileUtil::remove(failed.absolute());
        return Errors::fileWrite(failed, result);
    }
    written_.insert(streamPath_);
    return Error();
}

void PackInstaller::abandonFile() {
    if (!streaming_) return;
    streaming_ = false;
    streamBytes_.clear();
    streamBytes_.shrink_to_fit();
    if (streamFile_ != nullptr) {
        std::fclose(streamFile_);
        streamFile_ = nullptr;
        FileUtil::remove(writeRoot_.childOf(streamPath_).absolute());
    }
}

void PackInstaller::begin() {
    written_.clear();
    linked_.clear();
    madeDirectories_.clear();
    batch_.clear();
    batchBytes_ = 0;
    // An interrupted run may have left keys of this version; the staging folder is fresh in a
    // fresh work folder, but a retried run in the same one must not keep a file of the last.
    Folder::removeFile(writeRoot_, isPacked() ? Removal::kGone : Removal::kRecreate);
    if (isPacked()) return;
    madeDirectories_.insert(std::string());
    // Held before the first write, so that the sync reports a failure of any of them.
    fileSystem_ = std::make_unique<FileUtil::FileSystemSync>(work_.absolute());
}

Error PackInstaller::ensureParents(const Folder& file) {
    const std::string relative = file.relative().substr(writeRoot_.relative().size());
    const std::string parent = parentOf(relative);
    if (madeDirectories_.count(parent) != 0) return Error();
    const Folder directory = writeRoot_.childOf(parent);
    const int result = FileUtil::makeDirectories(directory.absolute());
    if (result != 0) return Errors::fileWrite(directory, result);
    // Every directory on the way is there now.
    for (std::string piece = parent; !piece.empty(); piece = parentOf(piece)) {
        if (!madeDirectories_.insert(piece).second) break;
    }
    return Error();
}

Error PackInstaller::makeDirectory(const std::string& path) {
    if (isPacked()) return Error();  // the store has keys, not directories
    const Folder directory = writeRoot_.childOf(path.ends_with('/') ? path : path + "/");
    return ensureParents(directory.childOf("x"));
}

Error PackInstaller::batchFile(const std::string& path, std::string content,
                               std::string_view checkedMd5) {
    batchBytes_ += content.size();
    batch_.push_back(
        {writeRoot_.childOf(path).relative(), std::move(content), std::string(checkedMd5)});
    written_.insert(path);
    if (batch_.size() >= kPackedBatchFiles || batchBytes_ >= kPackedBatchBytes) return flush();
    return Error();
}

Error PackInstaller::writeFile(const std::string& path, std::string_view content,
                               std::string_view checkedMd5) {
    if (isPacked()) return batchFile(path, std::string(content), checkedMd5);
    const Folder file = writeRoot_.childOf(path);
    if (Error error = ensureParents(file)) return error;
    // Every file reaches the installer vouched for by its list, an empty one included.
    const int result = content.empty() ? FileUtil::writeEmptyFile(file.absolute())
                                       : FileUtil::writeFile(file.absolute(), content);
    if (result != 0) return Errors::fileWrite(file, result);
    written_.insert(path);
    return Error();
}

Error PackInstaller::flush() {
    if (batch_.empty()) return Error();
    std::shared_ptr<PackedFiles> store = PackedFiles::current();
    if (!store) return Errors::packedStoreNotOpen();
    Error error;
    static_cast<void>(store->putChecked(batch_, error));
    batch_.clear();
    batchBytes_ = 0;
    return error;
}

Error PackInstaller::copyKeptInStore(const Folder& from, const std::vector<std::string>& paths,
                                     uint64_t& bytes) {
    if (Error error = flush()) return error;
    std::shared_ptr<PackedFiles> store = PackedFiles::current();
    if (!store) return Errors::packedStoreNotOpen();
    std::unordered_set<std::string> keep;
    for (const std::string& path : paths) {
        if (written_.count(path) == 0) keep.insert(path);
    }
    // The copy takes a set of what to leave: everything of the version that is not kept.
    std::unordered_set<std::string> skip;
    size_t found = 0;
    const size_t prefix = from.relative().size();
    store->enumerate(from.relative(), [&](std::string_view key) {
        std::string rest(key.substr(prefix));
        if (keep.count(rest) != 0) {
            ++found;
        } else {
            skip.insert(std::move(rest));
        }
        return false;
    });
    if (found != keep.size()) {
        for (const std::string& path : keep) {
            if (!store->contains(from.childOf(path).relative()))
                return Errors::fileNotExists(from.childOf(path));
        }
    }
    uint64_t copied = 0;
    Error error;
    if (!store->copyPrefix(from.relative(), target_.relative(), skip, copied, error)) return error;
    for (const std::string& path : keep) written_.insert(path);
    bytes += copied;
    return Error();
}

ErrorOr<bool> PackInstaller::linkKept(const Folder& from, const std::string& path) {
    const Folder file = from.childOf(path);
    const Folder copy = writeRoot_.childOf(path);
    if (Error error = ensureParents(copy)) return error;
    const int result = FileUtil::link(file.absolute(), copy.absolute());
    if (result == 0) {
        written_.insert(path);
        linked_.insert(path);
        return true;
    }
    if (result == ENOENT) return Errors::fileNotExists(file);
    if (!linkUnsupported(result)) return Errors::copyFailed(file.describe(), result);
    return false;
}

Error PackInstaller::copyKept(const Folder& from, const std::vector<std::string>& paths,
                              uint64_t& bytes) {
    if (!from.exists()) return Errors::fileNotExists(from);
    // Within the store one transaction copies the values without them leaving it.
    if (isPacked() && from.kind() == FolderKind::Packed) return copyKeptInStore(from, paths, bytes);
    for (const std::string& path : paths) {
        if (written_.count(path) != 0) continue;
        const Folder file = from.childOf(path);
        if (!isPacked() && from.kind() == FolderKind::Disk) {
            ErrorOr<bool> linked = linkKept(from, path);
            if (!linked.ok()) return std::move(linked).error();
            if (*linked) {
                bytes += file.diskSize();
                continue;
            }
        }
        Error error;
        std::string content = Folder::readFile(file, error);
        // The caller keeps only files that a list vouches for, an empty one included.
        if (Errors::isNoData(error)) error.clear();
        if (error) return error;
        bytes += content.size();
        if (Error written = writeFile(path, content)) return written;
    }
    return Error();
}

Error PackInstaller::syncStaged(const Folder& directory) {
    // The files this run wrote (not the links: a linked file is the installed version's, durable
    // since that version was published), and the directories, each listed after what it holds.
    std::vector<Folder> files;
    std::vector<Folder> directories;
    std::vector<Folder> pending{directory};
    std::vector<std::string> entries;
    while (!pending.empty()) {
        const Folder current = std::move(pending.back());
        pending.pop_back();
        const int listed = FileUtil::listDirectory(current.absolute(), entries);
        if (listed != 0) return Errors::fileWrite(current, listed);
        directories.push_back(current);
        for (const std::string& entry : entries) {
            const Folder child = current.childOf(entry.substr(current.absolute().size()));
            if (child.isDirectory()) {
                pending.push_back(child);
            } else if (linked_.count(child.relative().substr(writeRoot_.relative().size())) == 0) {
                files.push_back(child);
            }
        }
    }
    // A folder not held, or a kernel whose syncfs hides failures, takes the per-file way.
    if (files.size() >= kOneSyncFromFiles && fileSystem_ && fileSystem_->usable()) {
        const int result = fileSystem_->sync();
        if (result != 0) return Errors::fileWrite(directory, result);
        return Error();
    }
    // Every file's writes are started before the first wait, so that the flushes overlap: one
    // file at a time made a 2,000-file install several times slower.
    for (const Folder& file : files) FileUtil::startWriteback(file.absolute());
    for (const Folder& file : files) {
        const int result = FileUtil::syncFile(file.absolute());
        if (result != 0) return Errors::fileWrite(file, result);
    }
    // The directories' entries after their files' data, the deepest first: no name survives a
    // power cut that would lead to lost bytes.
    for (auto it = directories.rbegin(); it != directories.rend(); ++it) {
        const int result = FileUtil::syncDirectory(it->absolute());
        if (result != 0) return Errors::fileWrite(*it, result);
    }
    return Error();
}

Error PackInstaller::publish() {
    // The store's files become durable with the commit that names their version.
    if (isPacked()) return flush();
    const std::string staged = withoutSlash(writeRoot_);
    const std::string target = withoutSlash(target_);
    // In the order a power cut respects: every file's data, then every directory of the version,
    // then the folder that holds the staged version; the rename after them, and the directory
    // that receives it before the commit that names the version.
    if (Error error = syncStaged(writeRoot_)) return error;
    int synced = FileUtil::syncDirectory(work_.absolute());
    if (synced != 0) return Errors::fileWrite(work_, synced);
    // The parent of the version folder ("apps/<root>/"): the version itself must not be made.
    const std::string parent = target.substr(0, target.rfind('/') + 1);
    const bool parentExisted = FileUtil::isDirectory(parent);
    const int made = FileUtil::makeDirectories(parent);
    if (made != 0) return Errors::fileWrite(target_, made);
    // A folder made for the pack is an entry of "apps/", which must be durable too.
    if (!parentExisted) {
        const std::string grandparent = parent.substr(0, parent.rfind('/', parent.size() - 2) + 1);
        synced = FileUtil::syncDirectory(parent);
        if (synced == 0) synced = FileUtil::syncDirectory(grandparent);
        if (synced != 0) return Errors::fileWrite(target_, synced);
    }
    if (!FileUtil::isDirectory(target)) {
        int result = FileUtil::rename(staged, target);
        if (result == 0) result = FileUtil::syncDirectory(parent);
        return result != 0 ? Errors::fileWrite(target_, result) : Error();
    }
    // A folder of this version is there (a reinstall, or a run that died after its rename but
    // before its commit). Readers may be using it: the swap is one step, and the earlier folder
    // ends up in the work folder, deleted with it.
    int result = FileUtil::exchange(staged, target);
    if (result == EINVAL || result == ENOSYS) {
        const std::string replaced = withoutSlash(work_.childOf(kReplacedName));
        result = FileUtil::rename(target, replaced);
        if (result == 0) result = FileUtil::rename(staged, target);
    }
    if (result == 0) result = FileUtil::syncDirectory(parent);
    return result != 0 ? Errors::fileWrite(target_, result) : Error();
}

}  // namespace FerritCore
