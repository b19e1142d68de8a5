#include "runtime/TimeMarks.h"

#include <gtest/gtest.h>

#include <map>
#include <mutex>

#include "marl/Clock.h"
#include "marl/Log.h"
#include "storage/ConfigStore.h"
#include "storage/Folder.h"
#include "tests/TestUtil.h"
#include "tests/runtime/FakeMarkStore.h"

namespace FerritCore {
namespace {

class TimeMarksTest : public ::testing::Test {
  protected:
    void SetUp() override { TimeMarks::setStore(marks_); }
    void TearDown() override { TimeMarks::setStore(nullptr); }
    std::shared_ptr<FakeMarkStore> marks_ = std::make_shared<FakeMarkStore>();
};

TEST_F(TimeMarksTest, ReadMarkOfAbsentMarkStoresAndReturnsNow) {
    EXPECT_EQ(TimeMarks::readMark("cleanup", 500), 500);
    EXPECT_EQ(marks_->value("marks/cleanup"), 500);
    EXPECT_EQ(TimeMarks::readMark("cleanup", 900), 500);
}

TEST_F(TimeMarksTest, ReadMarkTreatsZeroAsAbsent) {
    marks_->set("marks/a", 0);
    EXPECT_EQ(TimeMarks::readMark("a", 42), 42);
    EXPECT_EQ(marks_->value("marks/a"), 42);
}

TEST_F(TimeMarksTest, ExchangeMarkStoresNowAndReturnsPrevious) {
    marks_->set("marks/lastClear", 100);
    EXPECT_EQ(TimeMarks::exchangeMark("lastClear", 250), 100);
    EXPECT_EQ(marks_->value("marks/lastClear"), 250);
}

TEST_F(TimeMarksTest, ExchangeMarkOfAbsentMarkReturnsNow) {
    EXPECT_EQ(TimeMarks::exchangeMark("lastClear", 250), 250);
    EXPECT_EQ(marks_->value("marks/lastClear"), 250);
}

TEST_F(TimeMarksTest, ExchangeMarkOfUnusableValueReturnsNow) {
    marks_->set("marks/x", std::numeric_limits<double>::quiet_NaN());
    EXPECT_EQ(TimeMarks::exchangeMark("x", 7), 7);
}

TEST_F(TimeMarksTest, WriteMarkStoresValueUnderMarksPrefix) {
    TimeMarks::writeMark("cleanup", 123.5);
    EXPECT_EQ(marks_->value("marks/cleanup"), 123.5);
    EXPECT_EQ(marks_->writes(), 1u);
}

// The marks of the process live in the shared configuration store.
class TimeMarksStoreTest : public ::testing::Test {
  protected:
    void SetUp() override {
        savedRoot_ = rootPath();
        setRootPath(temp_.root());
        ConfigStore::resetForTesting();
        TimeMarks::setStore(nullptr);
    }
    void TearDown() override {
        ConfigStore::instance().close();
        setRootPath(savedRoot_.empty() ? "/" : savedRoot_);
    }

    FerritTest::TempDir temp_;
    MarlLogger::ScopedManualClock clock_;
    std::string savedRoot_;
};

TEST_F(TimeMarksStoreTest, MarkIsStoredAsNumberUnderMarksKey) {
    TimeMarks::writeMark("cleanup", 1234.5);
    Error error;
    const MarlLogger::json::JSON stored = ConfigStore::instance().get("marks/cleanup", error);
    ASSERT_FALSE(error) << error.message();
    EXPECT_EQ(stored.doubleValue(), 1234.5);
}

TEST_F(TimeMarksStoreTest, MarkOutlivesReopeningOfStore) {
    EXPECT_EQ(TimeMarks::readMark("cleanup", 1000), 1000);
    ConfigStore::resetForTesting();  // as a new process would open it
    EXPECT_EQ(TimeMarks::readMark("cleanup", 5000), 1000);
    EXPECT_EQ(TimeMarks::exchangeMark("cleanup", 6000), 1000);
    ConfigStore::resetForTesting();
    EXPECT_EQ(TimeMarks::readMark("cleanup", 7000), 6000);
}

TEST_F(TimeMarksStoreTest, StoreThatCannotOpenGivesNowAndLogsFailedWrite) {
    setRootPath("");
    ConfigStore::resetForTesting();
    MarlLogger::ScopedCapture logs;
    EXPECT_EQ(TimeMarks::readMark("cleanup", 1000), 1000);
    EXPECT_EQ(TimeMarks::readMark("cleanup", 2000), 2000);  // nothing was kept
    const MarlLogger::LogEntry entry = logs->last("writeMark", "Ferrit/Task");
    ASSERT_EQ(entry.event, "writeMark");
    EXPECT_EQ(entry.errorCode, "9997");
    EXPECT_EQ(entry.field("key").stringValue(), "marks/cleanup");
}

}  // namespace
}  // namespace FerritCore
