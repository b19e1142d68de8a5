// AssetProvider: the application's raw files (read-only resources shipped with the host) and the
// loading of on-demand modules. Folder reaches the `Asset` and `OnDemand` kinds through it.
//
// RawFileProvider is the implementation over the app's raw-file folder on the disk, the stand-in
// for the platform's resource manager: the same rules (a path ending in "/" is a directory), and
// nothing outside that folder is ever opened. Implementations must be safe from any thread.
//
// One provider is held process-wide (current() and set() are safe from any thread). The free
// functions of `Assets` copy it out first, so that a concurrent set() cannot destroy it during a
// call, and answer without one: false, empty, 0, and error 9991 for readAsset and loadModule.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "ferritcore/Error.h"

namespace FerritCore {

class AssetProvider {
  public:
    using LoadCallback = std::function<void(const Error&)>;

    virtual ~AssetProvider() = default;

    // Whether the file, or for a path ending in "/" the directory, can be opened.
    virtual bool hasAsset(const std::string& path) = 0;
    // Names of the entries of a directory; an entry that does not open as a file is a directory
    // and gets a trailing "/".
    virtual std::vector<std::string> listAsset(const std::string& path) = 0;
    // 0 when the file cannot be opened.
    virtual uint64_t assetSize(const std::string& path) = 0;
    // The whole file. A file that cannot be opened is 1101; on any failure the result is empty
    // and `error` says why; success clears `error`.
    virtual std::string readAsset(const std::string& path, Error& error) = 0;
    // Makes the on-demand module available, then calls `callback` once, on any thread.
    virtual void loadModule(const std::string& module, LoadCallback callback) = 0;
    // The folder of the disk (ending in "/") where the raw files lie as plain files, or empty
    // (the default) when they can only be reached through the operations above.
    virtual std::string diskPath() const { return {}; }

    // The process-wide provider, or null.
    static std::shared_ptr<AssetProvider> current();
    // Replaces it; null detaches it.
    static void set(std::shared_ptr<AssetProvider> provider);
};

// Serves the raw files below one folder of the disk, and loads modules through the host's
// Proxy::loadOnDemand. Paths are relative to that folder; one with a ".." piece, and one that
// would name the folder's parent, is refused (not found), so nothing outside is ever read.
class RawFileProvider : public AssetProvider {
  public:
    // `folder` is the raw-file folder; a trailing "/" is added when missing. An empty folder
    // serves nothing, as a missing resource manager does.
    explicit RawFileProvider(std::string folder);

    bool hasAsset(const std::string& path) override;
    std::vector<std::string> listAsset(const std::string& path) override;
    uint64_t assetSize(const std::string& path) override;
    std::string readAsset(const std::string& path, Error& error) override;
    void loadModule(const std::string& module, LoadCallback callback) override;
    // The raw-file folder: its files are plain files.
    std::string diskPath() const override { return folder_; }

    const std::string& folder() const { return folder_; }

  private:
    // The absolute path of `path`, or empty when it is refused.
    std::string resolve(const std::string& path) const;

    const std::string folder_;
};

// Serves raw files through the host's Proxy asset operations, for a host that reads them itself.
class ProxyAssetProvider : public AssetProvider {
  public:
    bool hasAsset(const std::string& path) override;
    std::vector<std::string> listAsset(const std::string& path) override;
    uint64_t assetSize(const std::string& path) override;
    std::string readAsset(const std::string& path, Error& error) override;
    void loadModule(const std::string& module, LoadCallback callback) override;
    // What the host's Proxy::assetDiskPath says.
    std::string diskPath() const override;
};

namespace Assets {
bool hasAsset(const std::string& path);
std::vector<std::string> listAsset(const std::string& path);
uint64_t assetSize(const std::string& path);
std::string readAsset(const std::string& path, Error& error);
// Empty without a provider.
std::string diskPath();
// Without a provider `callback` runs at once, on the calling thread, with 9991.
void loadModule(const std::string& module, AssetProvider::LoadCallback callback);
}  // namespace Assets

}  // namespace FerritCore
