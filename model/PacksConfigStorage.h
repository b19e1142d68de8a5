// Where committed configuration documents go in a running process: the packs store, and the
// folders under the root. Threads as ConfigStorage says.
#pragma once

#include "model/SCache.h"

namespace FerritCore {

class PacksConfigStorage : public ConfigStorage {
  public:
    Error writeConfig(const std::string& text, Durability durability) override;
    void removeFolder(const Folder& folder) override;
    void wipeInstalled() override;
    uint64_t dataVersion() override;
    std::string readConfig(Error& error) override;
};

}  // namespace FerritCore
