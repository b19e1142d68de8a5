// Shared by the store tests: a private root per test, a manual clock, a proxy that records the
// performance records it is sent, and raw access to a store's database file.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "TestUtil.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "runtime/Environment.h"
#include "runtime/Proxy.h"
#include "runtime/Telemetry.h"
#include "storage/Folder.h"
#include "storage/KeyValueStore.h"

namespace FerritTest {

struct SentRecord {
    std::string name;
    std::unordered_map<std::string, std::string> dimensions;
    std::unordered_map<std::string, double> measures;
};

class RecordingProxy : public FerritCore::Proxy {
  public:
    bool verifySignature(const std::string&, const std::string&) override { return false; }
    void sendEvent(const FerritCore::PerfRecord& record) override {
        std::lock_guard<std::mutex> lock(mutex_);
        records_.push_back({record.name(), record.dimensions(), record.measures()});
    }
    std::vector<SentRecord> named(const std::string& name) const {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<SentRecord> found;
        for (const SentRecord& record : records_) {
            if (record.name == name) found.push_back(record);
        }
        return found;
    }
    void clear() {
        std::lock_guard<std::mutex> lock(mutex_);
        records_.clear();
    }

  private:
    mutable std::mutex mutex_;
    std::vector<SentRecord> records_;  // guarded by mutex_
};

// Sets a private root and a recording proxy for the test, and gives both back afterwards.
class StoreFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        savedRoot_ = FerritCore::rootPath();
        FerritCore::setRootPath(temp_.root());
        proxy_ = std::make_shared<RecordingProxy>();
        FerritCore::Environment::instance().setProxy(proxy_);
    }
    void TearDown() override {
        FerritCore::Environment::instance().setProxy(nullptr);
        FerritCore::setRootPath(savedRoot_.empty() ? "/" : savedRoot_);
    }

    std::string root() const { return temp_.root(); }
    // The database file of the store folder `name` under the root.
    std::string databaseFile(const std::string& name) const {
        return temp_.root() + name + "/" + FerritCore::KeyValueStore::kFileName;
    }

    TempDir temp_;
    MarlLogger::ScopedManualClock clock_;
    std::shared_ptr<RecordingProxy> proxy_;

  private:
    std::string savedRoot_;
};

// Runs one statement on a database file through a connection of its own and returns the first
// column of the first row as text (empty when there is none).
inline std::string rawQuery(const std::string& file, const std::string& sql) {
    sqlite3* db = nullptr;
    std::string result;
    if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK) {
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) == SQLITE_OK &&
            sqlite3_step(statement) == SQLITE_ROW && sqlite3_column_text(statement, 0) != nullptr) {
            result = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
        }
        sqlite3_finalize(statement);
    }
    sqlite3_close_v2(db);
    return result;
}

}  // namespace FerritTest
