// Clean process-wide state for configuration tests, with helpers to build documents.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "access/ResourceIndex.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "runtime/Environment.h"
#include "runtime/Proxy.h"
#include "runtime/Settings.h"
#include "runtime/Telemetry.h"
#include "runtime/TaskRunner.h"
#include "storage/Statistics.h"
#include "update/BuiltinConfig.h"
#include "update/FConfig.h"
#include "update/SCache.h"

namespace FerritTest {

using namespace FerritCore;

// Records what a commit writes and deletes.
class RecordingStorage : public ConfigStorage {
public:
    Error writeConfig(const std::string& text) override {
        writes.push_back(text);
        if (failWrites) return Error(1104, "write failed");
        ++storedWrites;
        return Error();
    }
    void removeFolder(const Folder& folder) override { removedFolders.push_back(folder.relative()); }
    void wipeInstalled() override { ++wipes; }

    std::vector<std::string> writes;
    int storedWrites = 0;
    std::vector<std::string> removedFolders;
    int wipes = 0;
    bool failWrites = false;
};

// Accepts a signature exactly when it equals "sig:" followed by the MD5.
class SigningProxy : public Proxy {
public:
    bool verifySignature(const std::string& md5Hex, const std::string& signature) override {
        asked.push_back(md5Hex);
        return signature == "sig:" + md5Hex;
    }
    void sendEvent(const PerfRecord& record) override { events.push_back(record.name()); }
    std::vector<std::string> asked;
    std::vector<std::string> events;
};

class UpdateFixture : public ::testing::Test {
protected:
    void SetUp() override {
        Environment::instance().resetForTesting();
        SCache::reset();
        Settings::reset();
        ResourceIndexPool::reset();
        Statistics::clear();
        TaskRunner::clear();
        storage_ = std::make_shared<RecordingStorage>();
        SCache::setStorage(storage_);
        BuiltinConfig::setAssetReader(nullptr);
    }
    void TearDown() override {
        SCache::setStorage(nullptr);
        BuiltinConfig::setAssetReader(nullptr);
        TaskRunner::clear();
        SCache::reset();
        ResourceIndexPool::reset();
        Environment::instance().resetForTesting();
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
    std::shared_ptr<RecordingStorage> storage_;
};

}  // namespace FerritTest
