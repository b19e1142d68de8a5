// Push messages: which configuration message is followed, what a pack message merges, and what
// hostile messages cost.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "marl/Clock.h"
#include "tests/update/InstallFixture.h"
#include "update/Push.h"
#include "update/UpdateConfig.h"

namespace FerritTest {
namespace {

using namespace FerritCore;
using MarlLogger::json::JSON;

class PushTest : public InstallFixture {
  protected:
    void SetUp() override {
        InstallFixture::SetUp();
        Environment::instance().setApp("key", "1.0");
        // Past the first throttle window of the configuration check.
        clock_->advance(2 * UpdateConfig::kThrottleMs);
        put({record("shop", kPackTypeFerrit, 3, 3)});  // the document's version is "42"
    }
    // Configuration requests sent so far.
    size_t configRequests() const {
        size_t count = 0;
        for (const ProxyRequest& request : proxy_->requests)
            if (request.url.find("/fconfig/") != std::string::npos) ++count;
        return count;
    }
    // A pushed configuration: version `v`, one record `name` at `seq`, and `delay`.
    static std::string configMessage(const std::string& v, const std::string& name, uint64_t seq,
                                     double delay = 0) {
        return R"({"v":")" + v + R"(","delay":)" + std::to_string(static_cast<int>(delay)) +
               R"(,"packs":{")" + name + R"(":{"s":)" + std::to_string(seq) +
               R"(,"f":80,"p":["https://push.test/"]}}})";
    }
    static std::string packMessage(const std::string& name, uint64_t seq) {
        return R"({")" + name + R"(":{"s":)" + std::to_string(seq) +
               R"(,"f":80,"p":["https://push.test/"]}})";
    }
};

TEST_F(PushTest, ThreeMessagesTheSecondNewerDropsTheFirstAndDoesNotLookAtTheThird) {
    Push::onConfigPush({configMessage("41", "old", 1), configMessage("43", "newer", 1),
                        configMessage("44", "newest", 1)});
    EXPECT_EQ(logs_->count("fconfig", "Ferrit/Push"), 2u);
    EXPECT_EQ(find("old"), nullptr);
    ASSERT_NE(find("newer"), nullptr);
    EXPECT_EQ(find("newest"), nullptr);
    drive();
    EXPECT_EQ(configRequests(), 1u);
    EXPECT_EQ(logs_->last("fconfig", "Ferrit/Push").field("message")["v"].stringValue(), "43");
}

TEST_F(PushTest, DocumentWithDelayZeroPostsTheRequestAtOnce) {
    Push::onConfigPush({configMessage("43", "newer", 1, 0)});
    TaskRunner::runDue();  // no clock movement
    EXPECT_EQ(configRequests(), 1u);
}

TEST_F(PushTest, DocumentWithADelayWaitsForItsShare) {
    Push::onConfigPush({configMessage("43", "newer", 1, 600000)});
    clock_->advance(600001);
    drive();
    EXPECT_EQ(configRequests(), 1u);
}

TEST_F(PushTest, PushWithinThirtySecondsAfterACheckMergesAndTheStartIsRefused) {
    Push::onConfigPush({configMessage("43", "first", 1)});
    drive();
    ASSERT_EQ(configRequests(), 1u);
    clock_->advance(UpdateConfig::kThrottleMs / 2);
    Push::onConfigPush({configMessage("44", "second", 1)});
    drive();
    EXPECT_NE(find("second"), nullptr) << "the records go in at once";
    EXPECT_EQ(configRequests(), 1u) << "the check is throttled";
}

TEST_F(PushTest, NoNewerMessageDoesNothing) {
    Push::onConfigPush({configMessage("41", "old", 1), configMessage("42", "same", 1)});
    EXPECT_EQ(find("old"), nullptr);
    EXPECT_EQ(find("same"), nullptr);
    EXPECT_EQ(TaskRunner::pendingCount(), 0u);
}

TEST_F(PushTest, EmptyListsDoNothing) {
    Push::onConfigPush({});
    Push::onPackConfigPush({});
    EXPECT_EQ(logs_->count("fconfig", "Ferrit/Push") + logs_->count("packConfig", "Ferrit/Push"),
              0u);
}

TEST_F(PushTest, MessageThatIsNotJsonIsSkippedAndTheNextIsFollowed) {
    Push::onConfigPush({"not json {", configMessage("43", "newer", 1)});
    EXPECT_NE(find("newer"), nullptr);
    Push::onPackConfigPush({"not json {"});
    const MarlLogger::LogEntry entry = logs_->last("packConfig", "Ferrit/Push");
    EXPECT_EQ(entry.field("messages").stringValue(), "[not json {]");
}

TEST_F(PushTest, PackMessageWithoutAVKeyIsMergedAndWithAStringVKeyIsSkipped) {
    Push::onPackConfigPush({packMessage("fresh", 5), R"({"v":"43","packs":{}})",
                            R"({"v": "44","cart":{"s":1,"f":80,"p":["https://c.test/"]}})"});
    ASSERT_NE(find("fresh"), nullptr);
    EXPECT_EQ(find("fresh")->seq, 5u);
    EXPECT_EQ(find("cart"), nullptr);
    const MarlLogger::LogEntry entry = logs_->last("packConfig", "Ferrit/Push");
    EXPECT_EQ(entry.field("messages").toString(), "[" + packMessage("fresh", 5) + "]");
}

TEST_F(PushTest, FirstMessageNamingAPackDecidesItsRecord) {
    Push::onPackConfigPush({packMessage("fresh", 5), packMessage("fresh", 9)});
    ASSERT_NE(find("fresh"), nullptr);
    EXPECT_EQ(find("fresh")->seq, 5u);
}

TEST_F(PushTest, TenMebibyteMessageIsHandledInBoundedTime) {
    std::string huge = R"({"v":"43","padding":")" + std::string(10 * 1024 * 1024, 'x') + R"("})";
    const double start = MRLCurrentClock();
    Push::onConfigPush({huge});
    Push::onPackConfigPush({huge});
    EXPECT_EQ(MRLCurrentClock(), start) << "the manual clock does not move";
    // The configuration has no records: nothing merges, the check is asked for within its delay.
    clock_->advance(FConfig().delay + 1);
    drive();
    EXPECT_EQ(configRequests(), 1u);
}

TEST_F(PushTest, TenThousandPacksMergeInOneTransaction) {
    std::string message = "{";
    for (int i = 0; i < 10000; ++i) {
        if (i > 0) message += ",";
        message += R"("p)" + std::to_string(i) + R"(":{"s":1,"f":80,"p":["https://p.test/)" +
                   std::to_string(i) + R"(/"]})";
    }
    message += "}";
    Push::onPackConfigPush({message});
    EXPECT_NE(find("p0"), nullptr);
    EXPECT_NE(find("p9999"), nullptr);
    EXPECT_EQ(SCache::current()->packs().size(), 10001u);
}

TEST_F(PushTest, ConfigurationTestLooksForAStringV) {
    EXPECT_TRUE(Push::isConfigMessage(R"({"v":"1"})"));
    EXPECT_TRUE(Push::isConfigMessage(R"({"v": "1"})"));
    EXPECT_FALSE(Push::isConfigMessage(R"({"v":1})"));
    EXPECT_FALSE(Push::isConfigMessage(R"({"shop":{}})"));
}

}  // namespace
}  // namespace FerritTest
