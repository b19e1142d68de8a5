// PackInstaller: writes the files of one new pack version and makes them the version's folder.
// Not thread-safe: one installer belongs to one task on the worker.
//
// A version on the disk ("apps/<root>/<seq>/") is staged in the run's own folder under "temp/"
// and moved into place by one rename (or, when a folder of that version is there already, by one
// atomic exchange), so that no reader and no restart ever finds half a version under "apps/": a
// process that dies while installing leaves its work under "temp/", which the next start empties.
// Before the rename, every file written is flushed and every directory of the version synced, and
// after it the folder that received it: the version is on the disk before the commit that names it,
// so that a power cut never leaves a record naming files whose bytes were lost.
// Files that an incremental update keeps are hard links to the installed version's files: an
// installed file is never rewritten in place, so the two versions may share it. Which files are
// kept is the caller's decision, made from the two versions' signed lists.
//
// A version in the packed store ("<root>/<seq>/" keys) is written in place, in batches that are
// each one transaction; readers never look there before the configuration names the version,
// and a run that finds keys of its version left by an interrupted one deletes them first.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "base/FileUtil.h"
#include "base/Folder.h"
#include "base/PackedFiles.h"
#include "ferritcore/Error.h"
#include "support/ErrorOr.h"

namespace FerritCore {

class PackInstaller {
  public:
    // Files of the packed store are written this many at a time, each batch one transaction.
    static constexpr size_t kPackedBatchFiles = 64;
    static constexpr size_t kPackedBatchBytes = 4u << 20;
    // From this many written files a Disk version is made durable by one sync of the file system
    // rather than one of each file and directory: each of those is a journal commit of its own
    // (about 3 ms here, so 2,000 files took 6 s where the one sync takes 20 ms). Below it, the
    // per-file syncs cost less than one that also waits for whatever else the system has written.
    static constexpr size_t kOneSyncFromFiles = 16;

    // `target` is the new version's folder (a Disk or Packed directory); `work` the run's own Disk
    // directory under "temp/", inside which a Disk version is staged as "new/".
    PackInstaller(Folder target, Folder work);
    ~PackInstaller();
    PackInstaller(const PackInstaller&) = delete;
    PackInstaller& operator=(const PackInstaller&) = delete;

    // Empties what the version is written to: the staging folder, or the target's range of the
    // packed store.
    void begin();

    bool isPacked() const { return target_.kind() == FolderKind::Packed; }
    const Folder& target() const { return target_; }
    // Where this run writes: the staging folder for the disk, the target itself for the store.
    const Folder& writeRoot() const { return writeRoot_; }
    // What a run that ends before publish() must delete besides its work folder: the target's
    // range of the packed store; nothing (an empty relative path of kind Disk is never returned:
    // the result's `isPacked` tells) for a staged version, which lies inside the work folder.
    bool hasPendingTarget() const { return isPacked(); }

    // `path` is relative to the version folder ("res/a/b.js", "res/a/"). A directory is made
    // (Disk) or ignored (Packed); a file is written whole. No error, or 1104 (or the store's
    // error).
    // `checkedMd5`: the MD5 (lower-case hexadecimal) that the content was checked against, or
    // empty; with one, the packed store keeps the bytes once for every version that has them.
    Error makeDirectory(const std::string& path);
    Error writeFile(const std::string& path, std::string_view content,
                    std::string_view checkedMd5 = {});
    // A file in pieces, so that a large one is never whole in memory: beginFile, appendFile for
    // each piece, endFile. A Disk file is written as the pieces come; a file of the packed store,
    // whose value is one row, is gathered and written at its end. A file given up half way
    // (abandonFile, or the installer's end) is removed. Same errors as writeFile; a piece or an
    // end with no file begun (or after one failed) is 1104. `expectedSize`, when the caller
    // knows the file's size already (and has bounded it), is reserved at once for a file of the
    // packed store: gathered by growing, it would hold up to twice the file.
    Error beginFile(const std::string& path, uint64_t expectedSize = 0);
    Error appendFile(std::string_view piece);
    Error endFile(std::string_view checkedMd5 = {});
    void abandonFile();
    // Bytes the file under way holds in memory: a packed store file's gathered pieces, none for
    // a Disk file.
    uint64_t heldBytes() const { return streamBytes_.capacity(); }
    // Whether this run has written `path`.
    bool wrote(const std::string& path) const { return written_.count(path) != 0; }

    // Copies each of `paths` (relative to the version folder) from `from`, an installed version's
    // folder, unless this run has written it already: a hard link where both lie on the disk, a
    // copy inside the store where both lie there, a read and write otherwise. `bytes` grows by
    // the size of each, as far as the copy went. The first failure: 1101 when `from` is no folder
    // at all or lacks one of the paths.
    Error copyKept(const Folder& from, const std::vector<std::string>& paths, uint64_t& bytes);

    // Writes out what is still batched and makes the written version the target folder. For
    // the disk: every written file and every directory of the version is synced, then the staging
    // folder is renamed to the target, or exchanged with a folder already there, which then lies in
    // the work folder and goes with it, and the target's parent is synced: when this returns the
    // version outlives a power cut. For the store, the version is durable with the commit that
    // names it (a Durable one). No error, or 1104.
    Error publish();

  private:
    // copyKept() from an installed version in the packed store to one there: one transaction.
    Error copyKeptInStore(const Folder& from, const std::vector<std::string>& paths,
                          uint64_t& bytes);
    // A kept file of a Disk version linked into the staged one: true once linked, false when the
    // file system cannot link it there and it must be copied.
    ErrorOr<bool> linkKept(const Folder& from, const std::string& path);
    // Makes the Disk directories that `file` needs below the staging folder, remembering them.
    Error ensureParents(const Folder& file);
    // Adds a file of the packed store to the batch, taking its content, and writes the batch out
    // when it is full.
    Error batchFile(const std::string& path, std::string content, std::string_view checkedMd5);
    // Writes the batched files of the packed store in one transaction; the batch is emptied
    // whether or not it was stored.
    Error flush();
    // Makes durable every file below a staged directory that this run wrote (not the links) and
    // then each directory, after those below it, the directory itself last: one fdatasync and
    // fsync each, or one sync of the file system from kOneSyncFromFiles files.
    Error syncStaged(const Folder& directory);

    Folder target_;
    Folder work_;
    Folder writeRoot_;
    // The staging folder's file system, held from begin() (see FileUtil::FileSystemSync).
    std::unique_ptr<FileUtil::FileSystemSync> fileSystem_;
    std::unordered_set<std::string> written_;
    std::unordered_set<std::string> madeDirectories_;
    // Files of `written_` that are links to the installed version's files.
    std::unordered_set<std::string> linked_;
    // Files of the packed store waiting for their batch: key, content, checked MD5.
    std::vector<CheckedFile> batch_;
    size_t batchBytes_ = 0;
    // The file being streamed: its path relative to the version folder, and its open stream
    // (Disk) or the bytes gathered so far (packed store).
    std::string streamPath_;
    FILE* streamFile_ = nullptr;
    std::string streamBytes_;
    bool streaming_ = false;
};

}  // namespace FerritCore
