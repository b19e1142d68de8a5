// The built-in configuration: the asset "Ferrit_Asset.config" that ships with the host app and
// names the packs delivered with it, each with its resource table. Loaded at start and after a
// change of service environment, inside a configuration transaction.
#pragma once

#include <functional>
#include <string>

#include "ferritcore/Error.h"
#include "model/FConfig.h"

namespace FerritCore {

class BuiltinConfig {
  public:
    // The asset's path within the app's raw files.
    static constexpr const char* kAssetPath = "Ferrit_Asset.config";

    // Brings the built-in packs into `config` (a transaction copy): sets scacheVersion, drops the
    // asset records it replaces, stores each built-in pack as installed at its own sequence and
    // hands its resource table to the resource index pool. Returns the error that stopped the load,
    // or no error; the document is left as it was on any error. The asset is read through the
    // process's asset provider, which answers 9991 when there is none.
    static Error load(FConfig& config);
};

}  // namespace FerritCore
