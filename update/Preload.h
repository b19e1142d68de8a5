// Preload: installs the packs that a host application ships in a zip among its raw files, once
// per app version. Any thread (the host's work pool calls install); the packs go into the
// configuration in one transaction.
//
// The zip holds "fconfig.config", a signed configuration naming the packs, and each pack's files
// under "<rootName>/<seq>/". A pack that the device already holds at that sequence or later is
// skipped; a pack whose copy fails stays out of the transaction and uninstalled (the files written
// for it are left for cleanup). The configuration store keeps, under "preload/<file>", the app
// version of the last install, written before the install so that a failing zip is not retried
// within one app version.
#pragma once

#include <cstdint>
#include <functional>
#include <set>
#include <string>

#include "support/Mutex.h"

namespace FerritCore {

class Preload {
  public:
    // The prefix of the store keys of installed files.
    static constexpr const char* kKeyPrefix = "preload/";
    // The configuration entry of a preload zip.
    static constexpr const char* kConfigEntry = "fconfig.config";

    static Preload& instance();

    // How far an install has got: the zip's entries walked and their bytes, out of the bytes
    // its entries record (0 when that is not known). Called on the installing thread.
    using Progress = std::function<void(uint64_t files, uint64_t bytes, uint64_t totalBytes)>;

    // Installs the zip `file` of the raw files. With `checkInstalled`, does nothing (false) when
    // this app version installed it already, and remembers the file for reinstall(). True when
    // the zip was read and its packs merged without an error. `progress`, when given, hears after
    // each entry.
    bool install(const std::string& file, bool checkInstalled, const Progress& progress = {});
    // After a cache clear: installs every remembered file again, or forgets them all when
    // "reinstallPreload" is off.
    void reinstall();
    // The remembered files.
    std::set<std::string> files();

  private:
    friend struct PreloadReset;
    bool shouldInstall(const std::string& file);

    RecursiveMutex mutex_;
    std::set<std::string> files_ GUARDED_BY(mutex_);
};

}  // namespace FerritCore
