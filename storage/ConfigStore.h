// ConfigStore: the process-wide MetaStore in "config_v2/" that keeps the small shared state:
// statistics, time marks, hot lists, variant registrations, preload records.
//
// Created and opened at first use; two first users block until one has finished opening, which
// may take as long as replacing a damaged database. Never destroyed, so that the worker and
// host threads can use it until the process ends. Any thread (see MetaStore).
#pragma once

#include "storage/MetaStore.h"

namespace FerritCore {

class ConfigStore : public MetaStore {
  public:
    static constexpr const char* kDirectory = "config_v2/";

    // The instance, opened under the root that is set at first use. After opening it sends
    // "Ferrit.ConfigInit" (the error 9997 of a failed first open, "diskSize", "time") and logs
    // "init" under "Ferrit/Config".
    static ConfigStore& instance();
    // Reopens the instance under the current root and reports as at first use. For tests, whose
    // every case has its own root; nothing else may use the store meanwhile.
    static void resetForTesting();

  private:
    ConfigStore();
    void openAndReport();
};

}  // namespace FerritCore
