// Folder: the value that names any file or directory the system keeps or reads, whatever it
// really is: a file under the root, a raw resource of the app, a file of an on-demand module, or
// a value in the packs store. A plain value: any thread. The process-wide root is set once by
// initFolders and read without a lock afterwards.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

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

    // Whether the file or directory is there. On-demand files never exist before they are read.
    bool exists() const;
    // True for a non-directory; false for OnDemand; otherwise whether nothing but ".DS_Store"
    // entries lie there (a Disk path that is no directory counts as empty).
    bool isEmpty() const;
    // The whole content. A missing file is 1101, any other failure 1102; on failure the result is
    // empty and `error` says why.
    static std::string readFile(const Folder& file, Error& error);
    // Reads and calls `callback(content, error)`, possibly on another thread.
    static void readFileAsync(const Folder& file, std::function<void(std::string, Error)> callback);

    bool operator==(const Folder& other) const { return kind_ == other.kind_ && relative_ == other.relative_; }
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
