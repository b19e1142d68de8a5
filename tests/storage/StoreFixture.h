// Shared by the store tests: a fresh process per test with a private root, a manual clock, the test
// proxy that records the performance records it is sent, and raw access to a store's database file.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/Environment.h"
#include "base/Folder.h"
#include "base/Proxy.h"
#include "base/Telemetry.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "storage/KeyValueStore.h"
#include "tests/FakeProxy.h"
#include "tests/TestUtil.h"

namespace FerritTest {

// A fresh process with a private root and the test proxy, which records what the stores report.
class StoreFixture : public ProcessTest {
  protected:
    void SetUp() override {
        ProcessTest::SetUp();
        FerritCore::Environment::instance().setProxy(proxy_);
    }

    // What a new process finds: everything process-wide reset, the same root and proxy.
    void restart() {
        FerritCore::ProcessState::resetForTesting();
        FerritCore::setRootPath(temp_.root());
        FerritCore::Environment::instance().setProxy(proxy_);
    }

    std::string root() const { return temp_.root(); }
    // The database file of the store folder `name` under the root.
    std::string databaseFile(const std::string& name) const {
        return temp_.root() + name + "/" + FerritCore::KeyValueStore::kFileName;
    }

    MarlLogger::ScopedManualClock clock_;
    std::shared_ptr<FakeProxy> proxy_ = std::make_shared<FakeProxy>();
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
