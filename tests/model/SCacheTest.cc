#include <gtest/gtest.h>

#include <thread>

#include "base/Errors.h"
#include "base/Url.h"
#include "tests/model/UpdateFixture.h"

namespace FerritTest {

namespace Errors = FerritCore::Errors;
namespace {

class SCacheTest : public UpdateFixture {};

TEST_F(SCacheTest, DirtyTransactionCommitsOnTheWorker) {
    SCache::mutate([](FConfig& config) {
        auto p = std::make_shared<Pack>();
        p->name = "a";
        p->seq = 1;
        config.put(p);
    });
    EXPECT_TRUE(storage_->writes.empty()) << "the commit is posted, not run inline";
    TaskRunner::runDue();
    ASSERT_EQ(storage_->writes.size(), 1u);
    EXPECT_NE(storage_->writes[0].find("\"a\":{\"s\":1"), std::string::npos);
    EXPECT_EQ(storage_->storedWrites, 1);
}

TEST_F(SCacheTest, DurableTransactionAsksForADurableCommitAndOthersDoNot) {
    auto put = [](const std::string& name) {
        return [name](FConfig& config) {
            auto p = std::make_shared<Pack>();
            p->name = name;
            p->seq = 1;
            config.put(p);
        };
    };
    SCache::mutate(put("a"));
    SCache::mutate(put("b"), Durability::Durable);
    SCache::mutate(put("c"));
    TaskRunner::runDue();
    EXPECT_EQ(
        storage_->durabilities,
        (std::vector<Durability>{Durability::Ordinary, Durability::Durable, Durability::Ordinary}));
}

TEST_F(SCacheTest, CleanTransactionCommitsNothing) {
    SCache::mutate([](FConfig&) {});
    EXPECT_EQ(TaskRunner::pendingCount(), 0u);
}

TEST_F(SCacheTest, SubProcessNeverCommits) {
    Environment::instance().setMainProcess(false);
    SCache::mutate([](FConfig& config) { config.dirty = true; });
    EXPECT_EQ(TaskRunner::pendingCount(), 0u);
}

TEST_F(SCacheTest, FailedWriteIsLogged) {
    storage_->failWrites = true;
    SCache::mutate([](FConfig& config) { config.dirty = true; });
    TaskRunner::runDue();
    EXPECT_EQ(storage_->storedWrites, 0);
    EXPECT_EQ(logs_->last("commit", "Ferrit/SCache").errorCode, std::to_string(Errors::kFileWrite));
}

TEST_F(SCacheTest, PublishedSnapshotNeverChanges) {
    const FConfigPtr before = SCache::current();
    SCache::mutate([](FConfig& config) { config.version = "5"; });
    EXPECT_EQ(before->version, "0");
    EXPECT_EQ(SCache::current()->version, "5");
}

TEST_F(SCacheTest, RecordsAreSharedNotCopied) {
    SCache::mutate([](FConfig& config) {
        auto p = std::make_shared<Pack>();
        p->name = "a";
        config.put(p);
    });
    const PackPtr a = SCache::current()->find("a");
    SCache::mutate([](FConfig& config) { config.version = "2"; });
    EXPECT_EQ(SCache::current()->find("a"), a);
}

TEST_F(SCacheTest, IndexesAreSharedWhenRoutingIsUnchanged) {
    SCache::mutate([](FConfig& config) {
        auto p = std::make_shared<Pack>();
        p->name = "a";
        p->prefixes = {"https://a/"};
        p->referrers = {"https://a/page.html"};
        config.put(p);
    });
    const auto* before = &SCache::current()->prefixTree();
    const std::string pageKey = Url::key("https://a/page.html");
    SCache::mutate([](FConfig& config) { config.setStatus("a", 2); });
    EXPECT_EQ(&SCache::current()->prefixTree(), before);
    // The shared tables answer this snapshot's record, not the one they were built with.
    EXPECT_EQ(SCache::current()->routedPack("a"), SCache::current()->find("a"));
    EXPECT_EQ(SCache::current()->packForUrl(pageKey), SCache::current()->find("a"));
    SCache::mutate([](FConfig& config) {
        config.setInstalled("a", kTriggerVisit, 7, 0, 100, /*isPacks=*/false);
    });
    EXPECT_EQ(&SCache::current()->prefixTree(), before);
    ASSERT_NE(SCache::current()->packForUrl(pageKey), nullptr);
    EXPECT_EQ(SCache::current()->packForUrl(pageKey)->installedSeq, 7u);
    EXPECT_EQ(SCache::current()->routedPack("a"), SCache::current()->find("a"));
    SCache::mutate([](FConfig& config) {
        auto p = config.find("a")->clone();
        p->prefixes = {"https://b/"};
        config.put(p);
    });
    EXPECT_NE(&SCache::current()->prefixTree(), before);
    EXPECT_EQ(SCache::current()->prefixTree().lookup("//b/x", ""), "a");
    EXPECT_EQ(SCache::current()->prefixTree().lookup("//a/x", ""), "");
}

TEST_F(SCacheTest, TransactionsFromManyThreadsLoseNothing) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 50; ++i) {
                SCache::mutate([&](FConfig& config) {
                    auto p = std::make_shared<Pack>();
                    p->name = "p" + std::to_string(t) + "_" + std::to_string(i);
                    config.put(p);
                });
                (void)SCache::current()->find("p0_0");
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(SCache::current()->packs().size(), 200u);
}

}  // namespace
}  // namespace FerritTest
