#include "base/Folder.h"

#include <utility>

#include "base/ProcessState.h"

namespace FerritCore {
namespace {

bool isSeparator(char c) {
    return c == '/' || c == '\\';
}

// Set once during setup, before any other thread builds a Folder, and read without a lock
// afterwards. Never destroyed, so that a Folder built by a late static destructor still finds it.
std::string& rootStorage() {
    static std::string* const root =
        ProcessState::create<std::string>([](std::string& r) { r.clear(); });
    return *root;
}

}  // namespace

const char* folderKindName(FolderKind kind) {
    switch (kind) {
        case FolderKind::Disk:
            return "Disk";
        case FolderKind::Asset:
            return "Asset";
        case FolderKind::OnDemand:
            return "OnDemand";
        case FolderKind::Packed:
            return "Packed";
    }
    return "Unknown";
}

namespace {

// Already in normal form: no backslash and no run of slashes. Paths built by the system itself
// nearly always are, so the common case is one scan and one copy.
bool isNormal(std::string_view path) {
    for (size_t i = 0; i < path.size(); ++i) {
        const char c = path[i];
        if (c == '\\') return false;
        if (c == '/' && i + 1 < path.size() && path[i + 1] == '/') return false;
    }
    return true;
}

}  // namespace

std::string normalizePath(std::string_view path) {
    if (isNormal(path)) return std::string(path);
    std::string result;
    result.reserve(path.size() + 1);
    // A leading backslash counts as a leading separator too: after normalisation the two
    // spellings of a path must be the same value.
    if (!path.empty() && isSeparator(path.front())) result.push_back('/');
    size_t start = 0;
    bool lastPieceEmpty = true;
    while (start <= path.size()) {
        size_t end = start;
        while (end < path.size() && !isSeparator(path[end])) ++end;
        const std::string_view piece = path.substr(start, end - start);
        lastPieceEmpty = piece.empty();
        if (!piece.empty()) {
            result.append(piece);
            result.push_back('/');
        }
        start = end + 1;
    }
    // Every piece was written with a "/" after it; only a path that ended in a separator keeps
    // its trailing one, because that is what marks a directory.
    if (!lastPieceEmpty) result.pop_back();
    return result;
}

const std::string& rootPath() {
    return rootStorage();
}

void setRootPath(std::string_view path) {
    std::string& root = rootStorage();
    root.assign(path);
    if (root.empty() || root.back() != '/') root.push_back('/');
}

Folder::Folder(FolderKind kind, std::string_view module, std::string_view relative)
    : kind_(kind), module_(module), relative_(normalizePath(relative)) {
    // normalizePath collapses runs, so at most one leading "/" is left to remove.
    if (!relative_.empty() && relative_.front() == '/') relative_.erase(0, 1);
    absolute_ = kind_ == FolderKind::Disk ? rootPath() + relative_ : relative_;
}

Folder Folder::disk(std::string_view relative) {
    return Folder(FolderKind::Disk, {}, relative);
}

Folder Folder::asset(std::string_view relative) {
    return Folder(FolderKind::Asset, {}, relative);
}

Folder Folder::onDemand(std::string_view module, std::string_view relative) {
    return Folder(FolderKind::OnDemand, module, relative);
}

Folder Folder::packed(std::string_view relative) {
    return Folder(FolderKind::Packed, {}, relative);
}

Folder::Folder(FolderKind kind, std::string module, std::string relative, std::string absolute)
    : kind_(kind),
      module_(std::move(module)),
      relative_(std::move(relative)),
      absolute_(std::move(absolute)) {}

Folder Folder::childOf(std::string_view name) const {
    // The parent is normal already; a child name in normal form that needs no slash fixing joins
    // without another pass over the whole path.
    const bool parentEndsInSlash = relative_.empty() || relative_.back() == '/';
    if (parentEndsInSlash && !name.empty() && name.front() != '/' && isNormal(name)) {
        std::string relative;
        relative.reserve(relative_.size() + name.size());
        relative.append(relative_).append(name);
        std::string absolute;
        if (kind_ == FolderKind::Disk) {
            absolute.reserve(absolute_.size() + name.size());
            absolute.append(absolute_).append(name);
        } else {
            absolute = relative;
        }
        return Folder(kind_, module_, std::move(relative), std::move(absolute));
    }
    std::string joined = relative_;
    const bool parentSlash = !joined.empty() && joined.back() == '/';
    const bool nameSlash = !name.empty() && name.front() == '/';
    if (parentSlash && nameSlash) {
        name.remove_prefix(1);
    } else if (!parentSlash && !nameSlash && !joined.empty()) {
        // An empty parent is the top of its kind: adding a "/" there would make the child's
        // path begin with one, which a relative path never does.
        joined.push_back('/');
    }
    joined.append(name);
    // Through the constructor, so that the child is normalised like any other Folder.
    return Folder(kind_, module_, joined);
}

std::string Folder::baseName() const {
    std::string_view path = relative_;
    if (!path.empty() && path.back() == '/') path.remove_suffix(1);
    const size_t slash = path.rfind('/');
    if (slash != std::string_view::npos) path.remove_prefix(slash + 1);
    return std::string(path);
}

std::string Folder::describe() const {
    switch (kind_) {
        case FolderKind::Packed:
            return "/Packs/" + relative_;
        case FolderKind::OnDemand:
            return "/OnDemand(" + module_ + ")/" + relative_;
        case FolderKind::Asset:
            return "/Asset/" + relative_;
        case FolderKind::Disk:
            break;
    }
    // A root of at most "/" means setup never gave one: say so, since such a path can't be
    // found where the reader of the message would look.
    if (rootPath().size() <= 1) return "(EMPTY)" + relative_;
    return relative_;
}

size_t Folder::hash() const {
    const size_t h = std::hash<std::string>{}(relative_);
    return (static_cast<size_t>(kind_) + (h << 6) + (h >> 2) + 0x9e3779b9) ^ h;
}

}  // namespace FerritCore
