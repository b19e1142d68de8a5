#include "runtime/RepeatingTimer.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "marl/Clock.h"
#include "runtime/TaskRunner.h"
#include "runtime/TimeMarks.h"
#include "tests/FakeMarkStore.h"

namespace FerritCore {
namespace {

class RepeatingTimerTest : public ::testing::Test {
  protected:
    void SetUp() override { TimeMarks::setStore(marks_); }
    void TearDown() override { TimeMarks::setStore(nullptr); }

    // Posts a timer whose callable counts its runs and notes the wall time of each.
    std::shared_ptr<RepeatingTimer> start(double interval, const std::string& mark = {}) {
        return runner_.postRepeatingTask(
            [this] {
                ++runs_;
                runTimes_.push_back(MRLCurrentTime());
            },
            interval, mark);
    }

    MarlLogger::ScopedManualClock clock_;
    std::shared_ptr<FakeMarkStore> marks_ = std::make_shared<FakeMarkStore>();
    TaskRunner runner_{"timer-test", TaskRunner::Mode::Manual};
    int runs_ = 0;
    std::vector<double> runTimes_;
};

TEST_F(RepeatingTimerTest, FreshTimerWithoutMarkDoesNotRunAtFirstAppearanceButOneIntervalLater) {
    auto timer = start(1000);
    const double posted = MRLCurrentTime();
    runner_.runDueTasks();
    EXPECT_EQ(runs_, 0);
    EXPECT_EQ(timer->lastRunTime(), posted);
    clock_->advance(1000);
    runner_.runDueTasks();
    EXPECT_EQ(runs_, 0);  // exactly one interval is not yet due
    clock_->advance(1);
    runner_.runDueTasks();
    EXPECT_EQ(runs_, 1);
    EXPECT_EQ(timer->lastRunTime(), posted + 1001);
}

TEST_F(RepeatingTimerTest, ZeroIntervalTimerWhoseLastRunIsNowIsNotDueAndComesStraightBack) {
    auto timer = start(0);
    runner_.runDueTasks();  // first appearance: lastRun becomes now
    EXPECT_EQ(runs_, 0);
    const double now = MRLCurrentTime();
    EXPECT_EQ(runner_.pendingDueTimes(), (std::vector<double>{now}));
    // Seen again at the same instant: not due, and back with the same due time.
    runner_.runDueTasks();
    EXPECT_EQ(runs_, 0);
    EXPECT_EQ(runner_.pendingDueTimes(), (std::vector<double>{now}));
    clock_->advance(1);
    runner_.runDueTasks();
    EXPECT_EQ(runs_, 1);
}

TEST_F(RepeatingTimerTest, KeepsRunningOncePerInterval) {
    start(100);
    runner_.runDueTasks();
    for (int i = 0; i < 5; ++i) {
        clock_->advance(101);
        runner_.runDueTasks();
    }
    EXPECT_EQ(runs_, 5);
}

TEST_F(RepeatingTimerTest, NamedTimerWithMarkOlderThanIntervalRunsAtOnce) {
    marks_->set("marks/cleanup", MRLCurrentTime() - 5000);
    auto timer = start(1000, "cleanup");
    runner_.runDueTasks();
    EXPECT_EQ(runs_, 1);
    EXPECT_EQ(marks_->value("marks/cleanup"), MRLCurrentTime());
}

TEST_F(RepeatingTimerTest, NamedTimerWithYoungerMarkWaitsForRestOfInterval) {
    marks_->set("marks/cleanup", MRLCurrentTime() - 400);
    start(1000, "cleanup");
    runner_.runDueTasks();
    EXPECT_EQ(runs_, 0);
    clock_->advance(600);
    runner_.runDueTasks();
    EXPECT_EQ(runs_, 0);
    clock_->advance(1);
    runner_.runDueTasks();
    EXPECT_EQ(runs_, 1);
}

TEST_F(RepeatingTimerTest, NamedTimerWithoutMarkStoresNowAndWaitsOneInterval) {
    start(1000, "fresh");
    runner_.runDueTasks();
    EXPECT_EQ(runs_, 0);
    EXPECT_EQ(marks_->value("marks/fresh"), MRLCurrentTime());
    clock_->advance(1001);
    runner_.runDueTasks();
    EXPECT_EQ(runs_, 1);
}

// A rhythm that outlives the process: a second "process" (runner and timer) picks up the mark.
TEST_F(RepeatingTimerTest, NamedTimerKeepsRhythmAcrossRestart) {
    {
        TaskRunner first("first", TaskRunner::Mode::Manual);
        first.postRepeatingTask([this] { ++runs_; }, 1000, "daily");
        first.runDueTasks();
        clock_->advance(1001);
        first.runDueTasks();
        EXPECT_EQ(runs_, 1);
    }
    clock_->advance(300);
    TaskRunner second("second", TaskRunner::Mode::Manual);
    second.postRepeatingTask([this] { ++runs_; }, 1000, "daily");
    second.runDueTasks();
    EXPECT_EQ(runs_, 1);
    clock_->advance(700);
    second.runDueTasks();
    EXPECT_EQ(runs_, 1);
    clock_->advance(1);
    second.runDueTasks();
    EXPECT_EQ(runs_, 2);
}

TEST_F(RepeatingTimerTest, ClockSetBackCountsAsDue) {
    auto timer = start(3600000);
    timer->setLastRunTime(MRLCurrentTime());
    clock_->setWall(MRLCurrentTime() - 60000);  // the clock is set back a minute
    runner_.runDueTasks();
    EXPECT_EQ(runs_, 1);
}

TEST_F(RepeatingTimerTest, MarkIsWrittenAfterCallableReturnsWithTimeAfterRun) {
    marks_->set("marks/slow", 1);  // long ago
    runner_.postRepeatingTask([this] { clock_->advance(250); }, 1000, "slow");
    const double before = MRLCurrentTime();
    runner_.runDueTasks();
    EXPECT_EQ(marks_->value("marks/slow"), before + 250);
}

TEST_F(RepeatingTimerTest, TimeSpentInCallableCountsTowardsNextInterval) {
    auto timer = runner_.postRepeatingTask(
        [this] {
            ++runs_;
            clock_->advance(300);
        },
        1000);
    runner_.runDueTasks();
    clock_->advance(1001);
    runner_.runDueTasks();
    EXPECT_EQ(runs_, 1);
    // The next interval starts when the run returned, 300 ms after it began.
    clock_->advance(1000);
    runner_.runDueTasks();
    EXPECT_EQ(runs_, 1);
    clock_->advance(1);
    runner_.runDueTasks();
    EXPECT_EQ(runs_, 2);
}

// The start of updating sets the first run 2 minutes after now instead of one interval after.
TEST_F(RepeatingTimerTest, SetLastRunTimeAfterPostMovesFirstRun) {
    const double interval = 300000;
    auto timer = start(interval);
    timer->setLastRunTime(MRLCurrentTime() - interval + 120000);
    runner_.runDueTasks();
    EXPECT_EQ(runs_, 0);
    clock_->advance(120000);
    runner_.runDueTasks();
    EXPECT_EQ(runs_, 0);
    clock_->advance(1);
    runner_.runDueTasks();
    EXPECT_EQ(runs_, 1);
}

TEST_F(RepeatingTimerTest, SetIntervalAfterStartChangesRhythm) {
    auto timer = start(1000);
    runner_.runDueTasks();
    clock_->advance(1001);
    runner_.runDueTasks();
    ASSERT_EQ(runs_, 1);
    timer->setInterval(5000);
    clock_->advance(1001);  // the repetition already queued comes due, finds the new interval
    runner_.runDueTasks();
    EXPECT_EQ(runs_, 1);
    clock_->advance(4000);
    runner_.runDueTasks();
    EXPECT_EQ(runs_, 2);
}

TEST_F(RepeatingTimerTest, SetLastRunTimeWritesMarkOnlyForNamedTimer) {
    RepeatingTimer unnamed("", 10);
    unnamed.setLastRunTime(5);
    EXPECT_EQ(marks_->writes(), 0u);
    RepeatingTimer named("n", 10);
    named.setLastRunTime(7);
    EXPECT_EQ(named.lastRunTime(), 7);
    EXPECT_EQ(marks_->value("marks/n"), 7);
}

// A subclass sees its operations used: the runner reads the interval through it.
class FixedIntervalTimer : public RepeatingTimer {
  public:
    FixedIntervalTimer() : RepeatingTimer("", 999999) {}
    double interval() const override { return 10; }
};

TEST_F(RepeatingTimerTest, RunnerUsesTimerOperations) {
    auto timer = std::make_shared<FixedIntervalTimer>();
    runner_.postRepeatingTask([this] { ++runs_; }, timer);
    runner_.runDueTasks();
    clock_->advance(11);
    runner_.runDueTasks();
    EXPECT_EQ(runs_, 1);
}

TEST_F(RepeatingTimerTest, EmptyCallableGetsTimerThatIsNeverScheduled) {
    auto timer = runner_.postRepeatingTask(TaskRunner::Callable(), 10);
    ASSERT_NE(timer, nullptr);
    EXPECT_EQ(runner_.pendingTasks(), 0u);
}

TEST_F(RepeatingTimerTest, NaNIntervalStopsTimerInsteadOfSpinning) {
    start(std::numeric_limits<double>::quiet_NaN());
    runner_.runDueTasks();
    clock_->advance(1e9);
    EXPECT_EQ(runner_.runDueTasks(), 0u);
    EXPECT_EQ(runs_, 0);
}

}  // namespace
}  // namespace FerritCore
