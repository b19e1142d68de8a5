// Time marks kept in the shared configuration store, as the composition root installs them.
#include <gtest/gtest.h>

#include "base/Errors.h"
#include "marl/Json.h"
#include "marl/Log.h"
#include "runtime/TimeMarks.h"
#include "storage/ConfigStore.h"
#include "tests/storage/StoreFixture.h"

namespace FerritCore {
namespace {

// The marks of the process live in the shared configuration store.
class TimeMarksStoreTest : public FerritTest::StoreFixture {
  protected:
    void SetUp() override {
        StoreFixture::SetUp();
        TimeMarks::setStore(ConfigStore::marks());
    }
    // A new process, with the store installed as the composition root installs it.
    void restartWithMarks() {
        restart();
        TimeMarks::setStore(ConfigStore::marks());
    }
};

TEST_F(TimeMarksStoreTest, MarkIsStoredAsNumberUnderMarksKey) {
    TimeMarks::writeMark("cleanup", 1234.5);
    const auto stored = ConfigStore::instance().get("marks/cleanup");
    ASSERT_TRUE(stored.ok()) << stored.error().message();
    EXPECT_EQ(stored->doubleValue(), 1234.5);
}

TEST_F(TimeMarksStoreTest, MarkOutlivesReopeningOfStore) {
    EXPECT_EQ(TimeMarks::readMark("cleanup", 1000), 1000);
    restartWithMarks();
    EXPECT_EQ(TimeMarks::readMark("cleanup", 5000), 1000);
    EXPECT_EQ(TimeMarks::exchangeMark("cleanup", 6000), 1000);
    restartWithMarks();
    EXPECT_EQ(TimeMarks::readMark("cleanup", 7000), 6000);
}

TEST_F(TimeMarksStoreTest, StoreThatCannotOpenGivesNowAndLogsFailedWrite) {
    restartWithMarks();
    setRootPath("");
    MarlLogger::ScopedCapture logs;
    EXPECT_EQ(TimeMarks::readMark("cleanup", 1000), 1000);
    EXPECT_EQ(TimeMarks::readMark("cleanup", 2000), 2000);  // nothing was kept
    const MarlLogger::LogEntry entry = logs->last("writeMark", "Ferrit/Task");
    ASSERT_EQ(entry.event, "writeMark");
    EXPECT_EQ(entry.errorCode, std::to_string(Errors::kInitStorageFailed));
    EXPECT_EQ(entry.field("key").stringValue(), "marks/cleanup");
}

}  // namespace
}  // namespace FerritCore
