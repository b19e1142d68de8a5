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

using Fields = std::vector<std::pair<std::string, std::string>>;

Fields dimensionsOf(const PerfRecord& record) {
    Fields out;
    for (const auto& [key, value] : record.dimensions()) out.emplace_back(key, value);
    return out;
}

// A record built again in the thread's slot holds what a fresh one would: the session as it is
// now, and none of the previous build's entries or their tails.
TEST_F(TelemetryTest, ReusedRecordHoldsOnlyWhatThisBuildSet) {
    ReusedRecord::Slot slot;
    Environment::instance().setSessionName("a-rather-long-session-name-of-the-first-run");
    {
        ReusedRecord record(slot, "Ferrit.Long");
        record->copyDimension("appName", "a-pack-with-a-name-longer-than-fifteen");
        record->copyDimension("extra", "only-in-the-first");
        record->setError(Errors::notInstalled("shop"));
        record->setMeasure("time", 5.0);
    }
    Environment::instance().setSessionName("s2");
    ReusedRecord record(slot, "X");
    record->copyDimension("appName", "p");
    record->setMeasure("count", 1.0);
    EXPECT_EQ(record->name(), "X");
    EXPECT_EQ(dimensionsOf(*record), (Fields{{"sessionID", "s2"}, {"appName", "p"}}));
    ASSERT_EQ(record->measures().size(), 1u);
    EXPECT_EQ(record->measures().at("count"), 1.0);
    PerfRecord fresh("X");
    fresh.setDimension("appName", "p");
    EXPECT_EQ(dimensionsOf(*record), dimensionsOf(fresh));
}

// A record built while the thread's record is out (a proxy that makes a request from inside
// sendEvent) is one of its own and leaves the outer one as it was.
TEST_F(TelemetryTest, NestedReusedRecordLeavesTheOuterAlone) {
    ReusedRecord::Slot slot;
    ReusedRecord outer(slot, "Outer");
    outer->copyDimension("k", "outer");
    {
        ReusedRecord inner(slot, "Inner");
        inner->copyDimension("k", "inner");
        EXPECT_NE(&*inner, &*outer);
    }
    EXPECT_EQ(outer->name(), "Outer");
    EXPECT_EQ(outer->dimensions().at("k"), "outer");
}

// An error's code is written as std::to_string writes it.
TEST_F(TelemetryTest, ErrorCodeIsTheDecimalNumber) {
    const Error error = Errors::notInstalled("shop");
    ASSERT_NE(error.code(), 0);
    PerfRecord record("x");
    record.setError(error);
    EXPECT_EQ(record.dimensions().at("errorCode"), std::to_string(error.code()));
    EXPECT_EQ(record.dimensions().at("errorMsg"), error.message());
}

}  // namespace
}  // namespace FerritCore
