#include <gtest/gtest.h>

#include "base/Environment.h"
#include "base/Errors.h"
#include "base/Telemetry.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "tests/FakeProxy.h"
#include "tests/TestUtil.h"

namespace FerritCore {
namespace {

class TelemetryTest : public FerritTest::ProcessTest {
  protected:
    MarlLogger::ScopedManualClock clock_;
};

TEST_F(TelemetryTest, RecordBeforeSetupHasEmptySessionId) {
    PerfRecord record("Ferrit.Init");
    ASSERT_EQ(record.dimensions().count("sessionID"), 1u);
    EXPECT_EQ(record.dimensions().at("sessionID"), "");
}

TEST_F(TelemetryTest, RecordTakesSessionName) {
    Environment::instance().setSessionName("Ferrit_MAIN_5.000000");
    EXPECT_EQ(PerfRecord("x").dimensions().at("sessionID"), "Ferrit_MAIN_5.000000");
}

TEST_F(TelemetryTest, StageTwiceStoresLaterDifferenceAndStagesSumToLifetime) {
    StagedRecord record("Ferrit.ConfigUpdate");
    const double born = MRLCurrentClock();
    clock_->advance(10);
    record.stage("downloaded");
    clock_->advance(25);
    record.stage("downloaded");
    EXPECT_DOUBLE_EQ(record.measures().at("downloaded"), 25);
    clock_->advance(5);
    record.stage("updated");
    EXPECT_DOUBLE_EQ(record.measures().at("updated"), 5);
    EXPECT_DOUBLE_EQ(record.lastTime() - born, 40);
}

TEST_F(TelemetryTest, TriggerNames) {
    EXPECT_STREQ(triggerName(static_cast<UpdateTrigger>(1)), "Startup");
    EXPECT_STREQ(triggerName(static_cast<UpdateTrigger>(2)), "Unknown");
    EXPECT_STREQ(triggerName(static_cast<UpdateTrigger>(3)), "Active");
    EXPECT_STREQ(triggerName(static_cast<UpdateTrigger>(4)), "Timer");
    EXPECT_STREQ(triggerName(static_cast<UpdateTrigger>(5)), "Push");
    EXPECT_STREQ(triggerName(static_cast<UpdateTrigger>(6)), "Visit");
    EXPECT_STREQ(triggerName(static_cast<UpdateTrigger>(7)), "VisitUpdate");
    EXPECT_STREQ(triggerName(static_cast<UpdateTrigger>(8)), "Prefetch");
    EXPECT_STREQ(triggerName(static_cast<UpdateTrigger>(9)), "Preview");
    EXPECT_STREQ(triggerName(static_cast<UpdateTrigger>(10)), "DebugTool");
    EXPECT_STREQ(triggerName(static_cast<UpdateTrigger>(11)), "ChangeEnv");
    EXPECT_STREQ(triggerName(static_cast<UpdateTrigger>(0)), "Unknown");
    EXPECT_STREQ(triggerName(static_cast<UpdateTrigger>(12)), "Unknown");
    EXPECT_STREQ(triggerName(static_cast<UpdateTrigger>(-1)), "Unknown");
}

TEST_F(TelemetryTest, LogRecordLeavesSessionIdOutAndErrorAsEntryError) {
    MarlLogger::ScopedCapture capture;
    Environment::instance().setSessionName("S");
    PerfRecord record("Ferrit.AppVisit");
    record.setDimension("appName", "app");
    record.setMeasure("time", 12.5);
    record.setError(Error(Errors::kNotInstalled, "app not installed"));
    {
        MarlLogger::LogBuilder builder(MarlLogger::MRLLevelInfo, "Ferrit/Access");
        builder.event("visit");
        logRecord(record, builder);
    }
    auto entry = capture->last("visit");
    EXPECT_FALSE(entry.has("sessionID"));
    EXPECT_FALSE(entry.has("errorCode"));
    EXPECT_EQ(entry.errorCode, std::to_string(Errors::kNotInstalled));
    EXPECT_EQ(entry.errorMessage, "app not installed");
    EXPECT_EQ(entry.field("appName").stringValue(), "app");
    EXPECT_DOUBLE_EQ(entry.field("time").doubleValue(), 12.5);
}

// A record goes to the proxy that is set when it is sent; with none, nobody receives it (and the
// proxy set before learns nothing of it).
TEST_F(TelemetryTest, SendEventWithoutProxyDoesNothing) {
    auto proxy = std::make_shared<FerritTest::FakeProxy>();
    Environment::instance().setProxy(proxy);
    sendEvent(PerfRecord("first"));
    Environment::instance().setProxy(nullptr);
    sendEvent(PerfRecord("second"));
    EXPECT_EQ(proxy->events, std::vector<std::string>{"first"});
}

}  // namespace
}  // namespace FerritCore
