// Prefetch: which packs the items lead to, what the result event says of each, and what goes into
// the queue. The queue is paused, so that the tests see what was queued without running it.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/Errors.h"
#include "storage/Statistics.h"
#include "storage/Variants.h"
#include "tests/update/InstallFixture.h"
#include "update/UpdateQueue.h"

namespace FerritTest {
namespace {

using namespace FerritCore;
using MarlLogger::json::JSON;

class PrefetchTest : public InstallFixture {
  protected:
    void SetUp() override {
        InstallFixture::SetUp();
        UpdateQueue::setPaused(true);
    }
    // An installed pack with a newer version configured, serving `prefix`.
    static std::shared_ptr<Pack> stale(const std::string& name, const std::string& prefix,
                                       std::vector<std::string> referrers = {}) {
        auto p = record(name, kPackTypeFerrit, 2, 2);
        p->installedSeq = 1;
        p->installedBaseSeq = 1;
        p->prefixes = {prefix};
        p->referrers = std::move(referrers);
        return p;
    }
    // The result logged for `item`.
    JSON resultOf(const std::string& item) {
        return logs_->last("trigger", "Ferrit/Prefetch").field("result")[item];
    }
};

TEST_F(PrefetchTest, EmptyListLogsTheEventAndQueuesNothing) {
    const JSON result = UpdateQueue::prefetch({});
    EXPECT_EQ(result.size(), 0u);
    EXPECT_EQ(logs_->count("trigger", "Ferrit/Prefetch"), 1u);
    EXPECT_EQ(logs_->count("start", "Ferrit/Queue") + logs_->count("add", "Ferrit/Queue"), 0u);
    EXPECT_EQ(UpdateQueue::normalCount() + UpdateQueue::fastCount(), 0u);
}

TEST_F(PrefetchTest, ItemMatchingBothIndexesGivesTwoResultsAndQueuesBothPacks) {
    const std::string url = "https://both.test/app/page.html";
    put({stale("byReferrer", "https://elsewhere.test/", {url}),
         stale("byPrefix", "https://both.test/app/")});
    UpdateQueue::prefetch({url});
    const JSON result = resultOf(url);
    ASSERT_EQ(result.size(), 2u) << result.toString();
    EXPECT_EQ(result[size_t{0}]["packName"].stringValue(), "byReferrer");
    EXPECT_EQ(result[size_t{1}]["packName"].stringValue(), "byPrefix");
    EXPECT_EQ(result[size_t{0}]["status"].stringValue(), "NeedUpdate");
    EXPECT_EQ(result[size_t{0}]["oldSeq"].int64Value(), 1);
    EXPECT_EQ(UpdateQueue::normalCount(), 2u);
    const MarlLogger::LogEntry announced = logs_->last("start", "Ferrit/Queue");
    EXPECT_EQ(announced.field("count").int64Value(), 2);
    EXPECT_EQ(announced.field("trigger").stringValue(), "Prefetch");
}

TEST_F(PrefetchTest, UpToDatePackGivesUpToDateAndNoTask) {
    auto p = stale("fresh", "https://fresh.test/");
    p->installedSeq = 2;
    put({p});
    UpdateQueue::prefetch({"fresh"});
    EXPECT_EQ(resultOf("fresh")["status"].stringValue(), "UpToDate");
    EXPECT_EQ(resultOf("fresh")["oldSeq"].int64Value(), 2);
    EXPECT_FALSE(!resultOf("fresh")["errorCode"].isNull());
    EXPECT_EQ(UpdateQueue::normalCount(), 0u);
}

TEST_F(PrefetchTest, EvictedPackGivesInvalidWith2101) {
    auto p = stale("gone", "https://gone.test/");
    p->status = kPackStatusEliminated;
    put({p});
    UpdateQueue::prefetch({"gone"});
    EXPECT_EQ(resultOf("gone")["status"].stringValue(), "Invalid");
    EXPECT_EQ(resultOf("gone")["errorCode"].int64Value(), Errors::kUpdateEliminated);
    EXPECT_FALSE(resultOf("gone")["errorMessage"].stringValue().empty());
    EXPECT_EQ(UpdateQueue::normalCount(), 0u);
}

TEST_F(PrefetchTest, UrlOfNoPackGivesNotFerritResource) {
    put({stale("shop", "https://shop.test/")});
    const std::string url = "https://nobody.test/x.js";
    UpdateQueue::prefetch({url});
    EXPECT_EQ(logs_->last("trigger", "Ferrit/Prefetch").field("result").toString(),
              R"({"https://nobody.test/x.js":{"status":"notFerritResource"}})");
    EXPECT_EQ(UpdateQueue::normalCount(), 0u);
}

TEST_F(PrefetchTest, PrefetchedTaskComesAheadOfOtherNormalTasksAndIsCredited) {
    put({stale("busy", "https://busy.test/"), stale("quiet", "https://quiet.test/")});
    Statistics::addAccess("busy", nullptr, 50.0);
    UpdateQueue::start(kTriggerTimer);
    EXPECT_EQ(UpdateQueue::normalNames(), (std::vector<std::string>{"busy", "quiet"}));
    UpdateQueue::prefetch({"quiet"});
    EXPECT_EQ(UpdateQueue::normalNames(), (std::vector<std::string>{"quiet", "busy"}));
    EXPECT_EQ(Statistics::prefetchValue("quiet"), 1.0);
}

TEST_F(PrefetchTest, PackNameTakesItsFirstExistingVariant) {
    Variants::instance().registerAccept("test", "dark", "image/webp");
    put({stale("theme", "https://theme.test/"), stale("theme~dark", "https://theme.test/")});
    UpdateQueue::prefetch({"theme"});
    EXPECT_EQ(resultOf("theme")["packName"].stringValue(), "theme~dark");
    EXPECT_EQ(UpdateQueue::normalNames(), (std::vector<std::string>{"theme~dark"}));
}

TEST_F(PrefetchTest, InASubProcessEveryItemGetsAnEmptyObjectAnd2004) {
    put({stale("shop", "https://shop.test/")});
    Environment::instance().setMainProcess(false);
    UpdateQueue::prefetch({"shop", "https://shop.test/a.js"});
    Environment::instance().setMainProcess(true);
    const MarlLogger::LogEntry entry = logs_->last("trigger", "Ferrit/Prefetch");
    EXPECT_EQ(entry.errorCode, std::to_string(Errors::kSubProcessDisabled));
    EXPECT_EQ(entry.field("result").toString(), R"({"shop":{},"https://shop.test/a.js":{}})");
    EXPECT_EQ(UpdateQueue::normalCount(), 0u);
}

TEST_F(PrefetchTest, PrefetchOfARunningPackWaitsForIt) {
    put({stale("shop", "https://shop.test/")});
    FakeProxy::Answer held;
    held.hold = true;
    proxy_->serve("https://dl.test/shop/2.zip", held);
    UpdateQueue::setPaused(false);
    UpdateQueue::request("shop", kTriggerTimer);
    drive();
    ASSERT_EQ(UpdateQueue::runningCount(), 1u);
    UpdateQueue::prefetch({"shop"});
    EXPECT_EQ(resultOf("shop")["status"].stringValue(), "NeedUpdate");
    EXPECT_EQ(UpdateQueue::normalCount(), 0u);
}

}  // namespace
}  // namespace FerritTest
