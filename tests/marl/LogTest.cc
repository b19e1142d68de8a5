#include "marl/Log.h"

#include <gtest/gtest.h>

#include <string>

namespace MarlLogger {
namespace {

using json::JSON;

// Any error value with code() and message(), as the core's own error type has.
struct FakeError {
    enum class Code { kNotFound = 1102 };
    Code code() const { return Code::kNotFound; }
    std::string message() const { return "no such pack"; }
};

TEST(LogTest, FilteredBuilderIsInactiveAndWritesNothing) {
    ScopedCapture capture(MRLLevelWarning);
    {
        LogBuilder builder = Log::build(MRLLevelDebug, "Tag");
        EXPECT_FALSE(builder.active());
        builder.event("quiet").id("x").append("k", 1).appendJSON("j", "[1]").error(5, "m");
        builder.level(MRLLevelError);  // too late: nothing was recorded to raise
    }
    EXPECT_TRUE(capture->entries().empty());
}

TEST(LogTest, EnabledBuilderWritesWhenItEnds) {
    ScopedCapture capture(MRLLevelInfo);
    {
        LogBuilder builder = Log::build(MRLLevelInfo, "Tag");
        EXPECT_TRUE(builder.active());
        builder.event("loud", "parent-1").id("id-1").append("n", 3).append("s", "text");
        EXPECT_EQ(capture->count("loud"), 0u);
    }
    ASSERT_EQ(capture->count("loud"), 1u);
    LogEntry entry = capture->last("loud");
    EXPECT_EQ(entry.level, MRLLevelInfo);
    EXPECT_EQ(entry.tag, "Tag");
    EXPECT_EQ(entry.id, "id-1");
    EXPECT_EQ(entry.parentId, "parent-1");
    EXPECT_EQ(entry.field("n").int32Value(), 3);
    EXPECT_EQ(entry.field("s").stringValue(), "text");
    EXPECT_TRUE(entry.field("absent").isNull());
    EXPECT_TRUE(entry.has("n"));
    EXPECT_FALSE(entry.has("absent"));
}

TEST(LogTest, LevelChangedToFilteredLevelDropsEntry) {
    ScopedCapture capture(MRLLevelInfo);
    Log::build(MRLLevelInfo, "Tag").event("dropped").level(MRLLevelVerbose);
    EXPECT_EQ(capture->count("dropped"), 0u);
    Log::build(MRLLevelInfo, "Tag").event("raised").level(MRLLevelError);
    ASSERT_EQ(capture->count("raised"), 1u);
    EXPECT_EQ(capture->last("raised").level, MRLLevelError);
}

TEST(LogTest, EnabledFollowsLevel) {
    ScopedCapture capture(MRLLevelWarning);
    EXPECT_TRUE(Log::enabled(MRLLevelError));
    EXPECT_TRUE(Log::enabled(MRLLevelWarning));
    EXPECT_FALSE(Log::enabled(MRLLevelInfo));
    Log::setLevel(MRLLevelVerbose);
    EXPECT_TRUE(Log::enabled(MRLLevelVerbose));
}

TEST(LogTest, CapturingSinkFindsByEventAndTag) {
    ScopedCapture capture;
    Log::build(MRLLevelInfo, "A").event("e").append("n", 1);
    Log::build(MRLLevelInfo, "B").event("e").append("n", 2);
    Log::build(MRLLevelInfo, "A").event("other").append("n", 3);
    Log::build(MRLLevelInfo, "A").event("e").append("n", 4);

    EXPECT_EQ(capture->count("e"), 3u);
    EXPECT_EQ(capture->count("e", "A"), 2u);
    EXPECT_EQ(capture->count("e", "C"), 0u);
    EXPECT_EQ(capture->count("missing"), 0u);
    EXPECT_EQ(capture->last("e").field("n").int32Value(), 4);
    EXPECT_EQ(capture->last("e", "B").field("n").int32Value(), 2);
    EXPECT_EQ(capture->last("missing").event, "");

    std::vector<LogEntry> all = capture->all("e", "A");
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].field("n").int32Value(), 1);
    EXPECT_EQ(all[1].field("n").int32Value(), 4);
    EXPECT_EQ(capture->entries().size(), 4u);

    capture->clear();
    EXPECT_TRUE(capture->entries().empty());
}

TEST(LogTest, AppendJSONKeepsParsedValue) {
    ScopedCapture capture;
    Log::build(MRLLevelInfo, "Tag")
        .event("json")
        .appendJSON("parsed", R"({"a":[1,2],"b":"c"})")
        .appendJSON("broken", "{not json");
    LogEntry entry = capture->last("json");
    EXPECT_TRUE(entry.field("parsed").isObject());
    EXPECT_EQ(entry.field("parsed")["a"][1].int32Value(), 2);
    EXPECT_EQ(entry.field("parsed")["b"].stringValue(), "c");
    EXPECT_TRUE(entry.field("broken").isString());
    EXPECT_EQ(entry.field("broken").stringValue(), "{not json");
}

TEST(LogTest, ErrorWithNumericCode) {
    ScopedCapture capture;
    Log::build(MRLLevelError, "Tag").event("failed").error(1106, "disk full");
    LogEntry entry = capture->last("failed");
    EXPECT_TRUE(entry.hasError);
    EXPECT_EQ(entry.errorCode, "1106");
    EXPECT_EQ(entry.errorMessage, "disk full");
}

TEST(LogTest, ErrorWithTextCode) {
    ScopedCapture capture;
    Log::build(MRLLevelError, "Tag").event("failed").error("E_IO", "read failed");
    LogEntry entry = capture->last("failed");
    EXPECT_TRUE(entry.hasError);
    EXPECT_EQ(entry.errorCode, "E_IO");
    EXPECT_EQ(entry.errorMessage, "read failed");
}

TEST(LogTest, ErrorFromErrorValue) {
    ScopedCapture capture;
    Log::build(MRLLevelError, "Tag").event("failed").error(FakeError{});
    LogEntry entry = capture->last("failed");
    EXPECT_TRUE(entry.hasError);
    EXPECT_EQ(entry.errorCode, "1102");
    EXPECT_EQ(entry.errorMessage, "no such pack");
}

TEST(LogTest, EntryWithoutErrorHasNone) {
    ScopedCapture capture;
    Log::build(MRLLevelInfo, "Tag").event("fine");
    EXPECT_FALSE(capture->last("fine").hasError);
}

TEST(LogTest, DoneWritesOnce) {
    ScopedCapture capture;
    {
        LogBuilder builder = Log::build(MRLLevelInfo, "Tag");
        builder.event("once");
        builder.done();
        EXPECT_EQ(capture->count("once"), 1u);
        EXPECT_FALSE(builder.active());
        builder.append("late", 1);
        builder.done();
    }
    ASSERT_EQ(capture->count("once"), 1u);
    EXPECT_FALSE(capture->last("once").has("late"));
}

TEST(LogTest, MovedBuilderWritesOnce) {
    ScopedCapture capture;
    {
        LogBuilder first = Log::build(MRLLevelInfo, "Tag");
        first.event("moved");
        LogBuilder second(std::move(first));
        second.append("k", 1);
    }
    ASSERT_EQ(capture->count("moved"), 1u);
    EXPECT_EQ(capture->last("moved").field("k").int32Value(), 1);
}

TEST(LogTest, EmptyKeyAddsNothing) {
    ScopedCapture capture;
    Log::build(MRLLevelInfo, "Tag")
        .event("keys")
        .append("", 1)
        .appendJSON("", "[1]")
        .append("k", 2);
    LogEntry entry = capture->last("keys");
    EXPECT_EQ(entry.fields.size(), 1u);
    EXPECT_FALSE(entry.has(""));
}

TEST(LogTest, AppendReplacesSameKey) {
    ScopedCapture capture;
    Log::build(MRLLevelInfo, "Tag").event("twice").append("k", 1).append("k", "two");
    LogEntry entry = capture->last("twice");
    EXPECT_EQ(entry.fields.size(), 1u);
    EXPECT_EQ(entry.field("k").stringValue(), "two");
}

TEST(LogTest, ToJSONLineIsValidJSON) {
    LogEntry entry;
    entry.level = MRLLevelWarning;
    entry.tag = "Tag\"quoted";
    entry.event = "evt";
    entry.id = "id-1";
    entry.parentId = "p-1";
    entry.hasError = true;
    entry.errorCode = "7";
    entry.errorMessage = "line\nbreak";
    entry.fields.set("n", JSON(1.5));
    entry.fields.set("nan", JSON(std::numeric_limits<double>::quiet_NaN()));
    entry.fields.set("nested", JSON(json::JSONObject{{"a", JSON(json::JSONArray{JSON(1)})}}));

    const std::string line = entry.toJSONLine();
    std::string error;
    JSON parsed = JSON::parse(line, &error);
    ASSERT_TRUE(error.empty()) << error << " in " << line;
    EXPECT_EQ(parsed["level"].int32Value(), MRLLevelWarning);
    EXPECT_EQ(parsed["tag"].stringValue(), "Tag\"quoted");
    EXPECT_EQ(parsed["event"].stringValue(), "evt");
    EXPECT_EQ(parsed["id"].stringValue(), "id-1");
    EXPECT_EQ(parsed["parentId"].stringValue(), "p-1");
    EXPECT_EQ(parsed["errorCode"].stringValue(), "7");
    EXPECT_EQ(parsed["errorMsg"].stringValue(), "line\nbreak");
    EXPECT_DOUBLE_EQ(parsed["n"].doubleValue(), 1.5);
    EXPECT_TRUE(parsed["nan"].isNull());
    EXPECT_EQ(parsed["nested"]["a"][size_t{0}].int32Value(), 1);
    EXPECT_EQ(line.find('\n'), std::string::npos);
}

TEST(LogTest, ToJSONLineLeavesOutEmptyIdsAndNoError) {
    LogEntry entry;
    entry.tag = "T";
    entry.event = "e";
    JSON parsed = JSON::parse(entry.toJSONLine());
    EXPECT_TRUE(parsed.isObject());
    EXPECT_EQ(parsed.size(), 3u);
    EXPECT_TRUE(parsed["id"].isNull());
    EXPECT_TRUE(parsed["errorCode"].isNull());
}

TEST(LogTest, ScopedCaptureRestoresSinkAndLevel) {
    auto outer = std::make_shared<CapturingSink>();
    std::shared_ptr<LogSink> saved = Log::sink();
    const MRLLevel savedLevel = Log::level();
    Log::setSink(outer);
    Log::setLevel(MRLLevelError);
    {
        ScopedCapture capture(MRLLevelDebug);
        EXPECT_EQ(Log::level(), MRLLevelDebug);
        Log::build(MRLLevelDebug, "Tag").event("inner");
        EXPECT_EQ(capture->count("inner"), 1u);
    }
    EXPECT_EQ(Log::sink(), outer);
    EXPECT_EQ(Log::level(), MRLLevelError);
    EXPECT_EQ(outer->count("inner"), 0u);
    Log::setSink(saved);
    Log::setLevel(savedLevel);
}

TEST(LogTest, NullSinkRestoresStderr) {
    ScopedCapture capture;
    Log::setSink(nullptr);
    EXPECT_NE(dynamic_cast<StderrSink*>(Log::sink().get()), nullptr);
}

}  // namespace
}  // namespace MarlLogger
