// What every ferrit command's report promises a script: with --json, one JSON document on stdout
// that parses, whatever the exit status, and messages on stderr only.
#include "tools/common/ToolOutput.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace FerritTools {
namespace {

using MarlLogger::json::JSON;
using MarlLogger::json::JSONObject;
using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

JSON parsed(const std::string& text) {
    std::string error;
    JSON document = JSON::parse(text, &error);
    EXPECT_TRUE(error.empty()) << error << " in: " << text;
    return document;
}

TEST(ToolOutputTest, JsonSuccessWritesOneDocumentWithTheMembers) {
    CaptureStdout();
    CaptureStderr();
    int status = 0;
    {
        ToolOutput out("publish", true);
        out.text() << "configuration version 7\n";
        out.set("version", JSON(uint64_t{7}));
        out.append("packs", JSON(JSONObject{{"name", JSON("shop")}}));
        out.append("packs", JSON(JSONObject{{"name", JSON("lib")}}));
        out.note("a message for the user");
        status = out.finish();
    }
    const std::string stdoutText = GetCapturedStdout();
    const std::string stderrText = GetCapturedStderr();
    EXPECT_EQ(status, kExitSuccess);
    const JSON document = parsed(stdoutText);
    EXPECT_EQ(document["command"].stringValue(), "publish");
    EXPECT_TRUE(document["ok"].boolValue());
    EXPECT_EQ(document["exit"].int64Value(), 0);
    EXPECT_EQ(document["version"].uint64Value(), 7u);
    ASSERT_EQ(document["packs"].arrayValue().size(), 2u);
    EXPECT_EQ(document["packs"][1]["name"].stringValue(), "lib");
    EXPECT_TRUE(document["error"].isNull());
    EXPECT_EQ(stdoutText.find("configuration version"), std::string::npos);
    EXPECT_EQ(stderrText, "ferrit publish: a message for the user\n");
}

TEST(ToolOutputTest, JsonFailureStillWritesOneDocumentNamingTheError) {
    CaptureStdout();
    CaptureStderr();
    ToolOutput out("pack build", true);
    const int status = out.fail("cannot read site/");
    const int again = out.finish(kExitFailure);
    const std::string stdoutText = GetCapturedStdout();
    const std::string stderrText = GetCapturedStderr();
    EXPECT_EQ(status, kExitFailure);
    EXPECT_EQ(again, kExitFailure);
    const JSON document = parsed(stdoutText);
    EXPECT_FALSE(document["ok"].boolValue());
    EXPECT_EQ(document["exit"].int64Value(), 1);
    EXPECT_EQ(document["error"].stringValue(), "cannot read site/");
    EXPECT_EQ(stdoutText.find('\n'), stdoutText.size() - 1) << "one document, once";
    EXPECT_EQ(stderrText, "ferrit pack build: cannot read site/\n");
}

TEST(ToolOutputTest, UsageExitsTwoAndPointsAtTheCommandsHelp) {
    CaptureStdout();
    CaptureStderr();
    ToolOutput out("keygen", true);
    const int status = out.usage("keygen takes PRIVATE.pem and PUBLIC.pem");
    const std::string stdoutText = GetCapturedStdout();
    const std::string stderrText = GetCapturedStderr();
    EXPECT_EQ(status, kExitUsage);
    EXPECT_EQ(parsed(stdoutText)["exit"].int64Value(), 2);
    EXPECT_NE(stderrText.find("see: ferrit keygen --help"), std::string::npos) << stderrText;
}

TEST(ToolOutputTest, PlainTextGoesToStdoutAndNoDocument) {
    CaptureStdout();
    ToolOutput out("status", false);
    out.text() << "one line\n";
    out.set("ignored", JSON(true));
    out.finish();
    EXPECT_EQ(GetCapturedStdout(), "one line\n");
}

TEST(ToolOutputTest, TakeJsonFlagRemovesEveryOccurrence) {
    std::vector<std::string> arguments{"--json", "--key", "k.pem", "--json", "site"};
    EXPECT_TRUE(ToolOutput::takeJsonFlag(arguments));
    EXPECT_EQ(arguments, (std::vector<std::string>{"--key", "k.pem", "site"}));
    EXPECT_FALSE(ToolOutput::takeJsonFlag(arguments));
}

}  // namespace
}  // namespace FerritTools
