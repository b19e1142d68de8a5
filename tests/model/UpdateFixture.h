// Clean process-wide state for configuration tests, with helpers to build documents.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "base/Environment.h"
#include "base/Errors.h"
#include "base/Proxy.h"
#include "base/Telemetry.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "model/BuiltinConfig.h"
#include "model/FConfig.h"
#include "model/ResourceIndex.h"
#include "model/SCache.h"
#include "runtime/Settings.h"
#include "runtime/TaskRunner.h"
#include "storage/Statistics.h"
#include "tests/FakeProxy.h"
#include "tests/TestUtil.h"

namespace FerritTest {

using namespace FerritCore;

// Records what a commit writes and deletes.
class RecordingStorage : public ConfigStorage {
  public:
    Error writeConfig(const std::string& text, Durability durability) override {
        writes.push_back(text);
        durabilities.push_back(durability);
        if (failWrites) return Error(Errors::kFileWrite, "write failed");
        ++storedWrites;
        return Error();
    }
    void removeFolder(const Folder& folder) override {
        removedFolders.push_back(folder.relative());
    }
    void wipeInstalled() override { ++wipes; }

    std::vector<std::string> writes;
    // How each write was asked to be kept, in the order of `writes`.
    std::vector<Durability> durabilities;
    int storedWrites = 0;
    std::vector<std::string> removedFolders;
    int wipes = 0;
    bool failWrites = false;
};

// A fresh process with a private root, whose configuration commits go to a recording storage.
class UpdateFixture : public ProcessTest {
  protected:
    void SetUp() override {
        ProcessTest::SetUp();
        SCache::setStorage(storage_);
    }

    // Parses an unsigned document; fails the test on error.
    static std::shared_ptr<FConfig> doc(const std::string& text) {
        Error error;
        auto config = FConfig::parse(text, "test", error, false);
        EXPECT_FALSE(error) << error.message() << " in " << text;
        return config;
    }
    // Merges `text` into the current document through a transaction.
    static FConfigPtr mergeText(const std::string& text) {
        auto document = doc(text);
        if (!document) return SCache::current();
        return SCache::mutate([&](FConfig& config) { config.merge(*document); });
    }

    MarlLogger::ScopedManualClock clock_;
    MarlLogger::ScopedCapture logs_;
    std::shared_ptr<RecordingStorage> storage_ = std::make_shared<RecordingStorage>();
};

}  // namespace FerritTest
