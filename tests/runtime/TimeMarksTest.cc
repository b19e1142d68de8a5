#include "runtime/TimeMarks.h"

#include <gtest/gtest.h>

#include <map>
#include <mutex>

#include "base/Folder.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "tests/FakeMarkStore.h"
#include "tests/TestUtil.h"

namespace FerritCore {
namespace {

class TimeMarksTest : public FerritTest::ProcessTest {
  protected:
    void SetUp() override {
        ProcessTest::SetUp();
        TimeMarks::setStore(marks_);
    }
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

// Before the composition root installs a store, marks live in memory, for the process's life.
class TimeMarksWithoutStoreTest : public FerritTest::ProcessTest {};

TEST_F(TimeMarksWithoutStoreTest, MarksLiveInMemoryUntilAStoreIsInstalled) {
    EXPECT_EQ(TimeMarks::readMark("cleanup", 1000), 1000);
    EXPECT_EQ(TimeMarks::readMark("cleanup", 5000), 1000);
    EXPECT_EQ(TimeMarks::exchangeMark("cleanup", 6000), 1000);
    EXPECT_EQ(TimeMarks::readMark("cleanup", 7000), 6000);
    auto installed = std::make_shared<FakeMarkStore>();
    TimeMarks::setStore(installed);
    EXPECT_EQ(TimeMarks::readMark("cleanup", 8000), 8000) << "the installed store knew no mark";
}

}  // namespace
}  // namespace FerritCore
