#include "access/AppRoot.h"

#include <string_view>

#include "base/Folder.h"
#include "model/SCache.h"

namespace FerritCore {
namespace {

// A ".." piece could name a file outside the pack.
bool climbs(std::string_view path) {
    size_t start = 0;
    while (start <= path.size()) {
        size_t end = path.find('/', start);
        if (end == std::string_view::npos) end = path.size();
        if (path.substr(start, end - start) == "..") return true;
        start = end + 1;
    }
    return false;
}

}  // namespace

std::string AppRoot::rootPath(const std::string& name, const std::string& path) {
    if (name.empty() || climbs(path)) return {};
    const FConfigPtr config = SCache::current();
    const PackPtr pack = config->find(name);
    if (!pack || pack->packType() != kPackTypeACache || !pack->isInstalled()) return {};
    const Folder resources = pack->resourcesFolder();
    if (resources.kind() != FolderKind::Disk || FerritCore::rootPath().empty()) return {};
    std::string_view relative = path;
    while (!relative.empty() && relative.front() == '/') relative.remove_prefix(1);
    return resources.absolute() + std::string(relative);
}

}  // namespace FerritCore
