// AppRoot: where an installed application pack (type `app`) keeps its files, for a host that
// serves such an app itself. Any thread; reads a configuration snapshot, takes no lock.
#pragma once

#include <string>

namespace FerritCore {

class AppRoot {
  public:
    // The absolute path of `path` inside the resources of the installed pack `name`
    // ("<root>apps/<name>/<seq>/res/" followed by `path`, whose leading "/" is dropped). Empty
    // when there is no such pack, it is not of type `app`, it is not installed, its files are not
    // on the disk, or `path` has a ".." piece.
    static std::string rootPath(const std::string& name, const std::string& path);
};

}  // namespace FerritCore
