// Folder: the value that names any file or directory the system keeps or reads, whatever it
// really is: a file under the root, a raw resource of the app, a file of an on-demand module, or
// a value in the packs store. A plain value: any thread. The process-wide root is set once by
// initFolders and read without a lock afterwards.
#pragma once

#include <cstdint>
#include <forward_list>
#include <functional>
#include <string>
#include <string_view>

#include "base/FileUtil.h"
#include "ferritcore/Error.h"

namespace FerritCore {

enum class FolderKind : uint32_t { Disk = 0, Asset = 1, OnDemand = 2, Packed = 3 };

// "Disk", "Asset", "OnDemand", "Packed", or "Unknown".
const char* folderKindName(FolderKind kind);

// Backslashes become slashes, runs of separators collapse, a leading and a trailing separator
// survive.
std::string normalizePath(std::string_view path);

// The process-wide root, always ending in "/", empty until set.
const std::string& rootPath();
// Sets the root (a "/" is appended when missing). Called once at start-up before any reader.
void setRootPath(std::string_view path);

class Folder;

// Sets the root (with a trailing "/", normalised), makes "apps/", and empties and remakes
// "temp/", so that nothing an earlier run left there survives. Called once at setup, before any
// other thread uses a Folder.
void initFolders(std::string_view root);
// Makes a Disk directory unless it is one already. A failure is logged ("Ferrit/Setup",
// "initFolder", 9992 and "path") and otherwise ignored: later writes fail with their own errors.
void initFolder(const Folder& folder);

// What Folder::removeFile leaves: nothing, or (for a Disk folder) the directory made again, empty,
// for the next writer.
enum class Removal { kGone, kRecreate };

class Folder {
  public:
    Folder() = default;
    static Folder disk(std::string_view relative);
    static Folder asset(std::string_view relative);
    static Folder onDemand(std::string_view module, std::string_view relative);
    static Folder packed(std::string_view relative);

    FolderKind kind() const { return kind_; }
    const std::string& module() const { return module_; }
    // Normalised, never begins with "/".
    const std::string& relative() const { return relative_; }
    // For Disk the root followed by relative; for every other kind a copy of relative.
    const std::string& absolute() const { return absolute_; }

    // Same kind and module; exactly one "/" between the parent's path and `name`.
    Folder childOf(std::string_view name) const;
    // A directory is a folder whose relative path is empty or ends in "/".
    bool isDirectory() const { return relative_.empty() || relative_.back() == '/'; }
    // Last component without a trailing "/".
    std::string baseName() const;
    // The text used in every message.
    std::string describe() const;

    // Whether the file or directory is there: Disk by stat (a file must be no directory, a
    // directory must be one), Asset through the asset provider, Packed by its key (a directory
    // when any key lies in its range). On-demand files never exist before they are read.
    bool exists() const;
    // Bytes on the disk: a directory sums its files; a Disk file its stat size (0 when absent),
    // an Asset its raw size, a Packed file the length of its value (0 on error); OnDemand 0.
    uint64_t diskSize() const;
    // True for a non-directory; false for OnDemand; otherwise whether nothing but ".DS_Store"
    // entries lie there (a Disk path that is no directory counts as empty).
    bool isEmpty() const;
    // Immediate children, in the reverse of the listing's order; empty for a non-directory, an
    // OnDemand and a Packed folder. ".DS_Store" is never listed, nor "packConfig.config" in an
    // asset folder below "Ferrit_Asset_".
    std::forward_list<Folder> listChildren() const;
    // Every file below a directory, depth first; empty for a non-directory and for OnDemand. For
    // Packed, every key of the folder's range.
    std::forward_list<Folder> listFiles() const;
    // Disk only: creates a directory path whole, or a file path up to its last "/".
    void ensureParent() const;

    // The whole content. OnDemand is 1108; a missing file 1101; any other failure 1102 (an
    // Asset's with the provider's code and message, a Packed one's as the store says); an empty
    // Disk or Packed file 1103. On failure the result is empty; success clears `error`.
    static std::string readFile(const Folder& file, Error& error);
    // Calls `callback(content, error)`: at once on the calling thread for every kind but
    // OnDemand, whose module is loaded first and whose callback runs on whichever thread the
    // load finishes. No callback, no work.
    static void readFileAsync(const Folder& file, std::function<void(std::string, Error)> callback);
    // As listFiles; for OnDemand the module is loaded first and the files of its asset folder
    // are given as OnDemand folders. No callback, no work.
    static void listFilesAsync(const Folder& folder,
                               std::function<void(std::forward_list<Folder>)> callback);
    // Asset and OnDemand: 1105. Packed: into the store. Disk: the file is truncated and written;
    // failure is 1104 (empty content fails with -1 and leaves an empty file). Creates no
    // directory: the caller runs ensureParent. Success clears `error`.
    static bool writeFile(const Folder& file, std::string_view content, Error& error);
    // As writeFile, but empty content makes an empty file rather than a failure: for content whose
    // emptiness is known to be right (a signed list names the file empty, an archive's entry has
    // no bytes).
    static bool writeContent(const Folder& file, std::string_view content, Error& error);
    // Disk to Disk only (1104 otherwise): ensureParent of `to`, then rename; failure is 1104
    // about `to`. Success clears `error`.
    static void renameTo(const Folder& from, const Folder& to, Error& error);
    // Asset and OnDemand: nothing. Packed: every key from relative to relative + 0xFF (all keys
    // for an empty relative). Disk: remove, or the whole tree; with Removal::kRecreate,
    // ensureParent brings a directory back empty. Failures are not reported.
    static void removeFile(const Folder& folder, Removal removal);

    bool operator==(const Folder& other) const {
        return kind_ == other.kind_ && relative_ == other.relative_;
    }
    size_t hash() const;

  private:
    Folder(FolderKind kind, std::string_view module, std::string_view relative);
    // From parts already in normal form.
    Folder(FolderKind kind, std::string module, std::string relative, std::string absolute);

    FolderKind kind_ = FolderKind::Disk;
    std::string module_;
    std::string relative_;
    std::string absolute_;
};

}  // namespace FerritCore

template <>
struct std::hash<FerritCore::Folder> {
    size_t operator()(const FerritCore::Folder& folder) const { return folder.hash(); }
};
