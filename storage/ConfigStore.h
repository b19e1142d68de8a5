// ConfigStore: the process-wide MetaStore in "config_v2/" that keeps the small shared state:
// statistics, time marks, hot lists, variant registrations, preload records.
//
// Created and opened at first use (see StoreInstance); two first users block until one has finished
// opening, which may take as long as replacing a damaged database. Any thread (see MetaStore).
#pragma once

#include <memory>

#include "runtime/TimeMarks.h"
#include "storage/MetaStore.h"
#include "storage/StoreInstance.h"

namespace FerritCore {

class ConfigStore : public MetaStore {
  public:
    static constexpr const char* kDirectory = "config_v2/";

    // The instance, opened under the root that is set at first use. After opening it sends
    // "Ferrit.ConfigInit" (the error 9997 of a failed first open, "diskSize", "time") and logs
    // "init" under "Ferrit/Config".
    static ConfigStore& instance();
    // The time marks of timers, kept in this store as numbers under "marks/<name>".
    static std::shared_ptr<MarkStore> marks();

  private:
    friend class StoreInstance<ConfigStore>;
    ConfigStore();
    void openAndReport();
};

}  // namespace FerritCore
