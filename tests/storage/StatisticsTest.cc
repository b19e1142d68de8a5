// Access statistics on a real configuration store: the window, both name forms, prefetches,
// loading, the decay and its record, and what a sub-process may not do.
#include "storage/Statistics.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <string>
#include <thread>
#include <vector>

#include "base/Environment.h"
#include "runtime/TaskRunner.h"
#include "storage/ConfigStore.h"
#include "tests/storage/StoreFixture.h"

namespace FerritTest {
namespace {

using FerritCore::ConfigStore;
using FerritCore::Statistics;
using FerritCore::TaskRunner;

class StatisticsTest : public StoreFixture {
  protected:
    void TearDown() override {
        Statistics::setWriteHookForTesting(nullptr);
        StoreFixture::TearDown();
    }
    double now() { return MRLCurrentClock(); }
    bool stored(const std::string& name) {
        return ConfigStore::instance().contains(std::string(Statistics::kKeyPrefix) + name);
    }
    MarlLogger::json::JSON storedValue(const std::string& name) {
        return ConfigStore::instance()
            .get(std::string(Statistics::kKeyPrefix) + name)
            .valueOr(MarlLogger::json::JSON());
    }
};

TEST_F(StatisticsTest, AccessesWithinTheWindowCountOnce) {
    Statistics::addAccess("shop", nullptr, 1.0);
    clock_->advance(2999);
    Statistics::addAccess("shop", nullptr, 1.0);
    EXPECT_DOUBLE_EQ(Statistics::accessValue("shop"), 1.0);
}

TEST_F(StatisticsTest, AccessesBeyondTheWindowCountTwice) {
    Statistics::addAccess("shop", nullptr, 1.0);
    clock_->advance(3001);
    Statistics::addAccess("shop", nullptr, 1.0);
    EXPECT_DOUBLE_EQ(Statistics::accessValue("shop"), 2.0);
}

TEST_F(StatisticsTest, AccessAtExactlyTheWindowCountsOnce) {
    Statistics::addAccess("shop", nullptr, 1.0);
    clock_->advance(Statistics::kRepeatWindowMs);
    Statistics::addAccess("shop", nullptr, 1.0);
    EXPECT_DOUBLE_EQ(Statistics::accessValue("shop"), 1.0);
}

TEST_F(StatisticsTest, FirstAccessReturnsTrueOnlyOnce) {
    EXPECT_TRUE(Statistics::addAccess("shop", nullptr, 1.0));
    clock_->advance(5000);
    EXPECT_FALSE(Statistics::addAccess("shop", nullptr, 1.0));
}

TEST_F(StatisticsTest, FirstAccessAfterRestartReturnsTrueAgain) {
    EXPECT_TRUE(Statistics::addAccess("shop", nullptr, 1.0));
    restart();
    EXPECT_DOUBLE_EQ(Statistics::accessValue("shop"), 1.0) << "the count was stored";
    EXPECT_TRUE(Statistics::addAccess("shop", nullptr, 1.0)) << "lastTime is not stored";
    EXPECT_DOUBLE_EQ(Statistics::accessValue("shop"), 2.0);
}

TEST_F(StatisticsTest, VersionedNameAlsoCountsOnTheBareName) {
    double count = 0;
    Statistics::addAccess("shop@12", &count, 1.0);
    EXPECT_DOUBLE_EQ(count, 1.0);
    EXPECT_DOUBLE_EQ(Statistics::accessValue("shop@12"), 1.0);
    EXPECT_DOUBLE_EQ(Statistics::accessValue("shop"), 1.0);
    clock_->advance(4000);
    Statistics::addAccess("shop@13", nullptr, 1.0);
    EXPECT_DOUBLE_EQ(Statistics::accessValue("shop@13"), 1.0);
    EXPECT_DOUBLE_EQ(Statistics::accessValue("shop"), 2.0) << "the bare name spans versions";
    EXPECT_DOUBLE_EQ(Statistics::accessValue("shop@12"), 1.0);
}

TEST_F(StatisticsTest, OutValueHoldsTheCountOfTheGivenName) {
    Statistics::addAccess("shop", nullptr, 5.0);
    double count = 0;
    clock_->advance(4000);
    Statistics::addAccess("shop@1", &count, 1.0);
    EXPECT_DOUBLE_EQ(count, 1.0);
}

TEST_F(StatisticsTest, UnknownNameHasNoEntryAndZeroValue) {
    EXPECT_FALSE(Statistics::hasEntry("nobody"));
    EXPECT_DOUBLE_EQ(Statistics::accessValue("nobody"), 0.0);
    Statistics::addAccess("somebody", nullptr, 1.0);
    EXPECT_TRUE(Statistics::hasEntry("somebody"));
}

TEST_F(StatisticsTest, InstallCreditAloneIsNotUsed) {
    Statistics::addAccess("fresh", nullptr, Statistics::kInstallCredit);
    EXPECT_FALSE(Statistics::isUsed("fresh"));
    Statistics::addAccess("read", nullptr, std::nextafter(Statistics::kInstallCredit, 1.0));
    EXPECT_TRUE(Statistics::isUsed("read"));
}

TEST_F(StatisticsTest, PrefetchCountsOnTheBareNameWithoutWindow) {
    Statistics::addPrefetch("shop@4");
    Statistics::addPrefetch("shop@4");
    TaskRunner::runDue();
    EXPECT_FALSE(Statistics::hasEntry("shop@4"));
    const MarlLogger::json::JSON value = storedValue("shop");
    EXPECT_DOUBLE_EQ(value["p"].doubleValue(), 2.0);
    EXPECT_DOUBLE_EQ(value["c"].doubleValue(), 0.0);
}

TEST_F(StatisticsTest, EntriesAreStoredAsAccessAndPrefetch) {
    Statistics::addAccess("shop", nullptr, 2.5);
    TaskRunner::runDue();
    const MarlLogger::json::JSON value = storedValue("shop");
    ASSERT_TRUE(value.isObject());
    EXPECT_DOUBLE_EQ(value["c"].doubleValue(), 2.5);
    EXPECT_DOUBLE_EQ(value["p"].doubleValue(), 0.0);
}

TEST_F(StatisticsTest, LoadingSkipsAnEntryThatDoesNotRead) {
    {
        ASSERT_FALSE(ConfigStore::instance().put(
            "statistics/good", MarlLogger::json::JSONObject{{"c", 4.0}, {"p", 1.0}}));
        ASSERT_FALSE(
            ConfigStore::instance().put("statistics/bad", MarlLogger::json::JSON("garbage")));
    }
    restart();
    EXPECT_DOUBLE_EQ(Statistics::accessValue("good"), 4.0);
    EXPECT_FALSE(Statistics::hasEntry("bad"));
}

TEST_F(StatisticsTest, ToJsonListsEveryEntry) {
    Statistics::addAccess("b", nullptr, 2.0);
    Statistics::addPrefetch("a");
    const MarlLogger::json::JSON json = Statistics::toJson();
    EXPECT_DOUBLE_EQ(json["b"]["accessCount"].doubleValue(), 2.0);
    EXPECT_DOUBLE_EQ(json["a"]["prefetchCount"].doubleValue(), 1.0);
}

TEST_F(StatisticsTest, DecayFollowsTheLogarithmToZero) {
    Statistics::addAccess("one", nullptr, 1.0);
    const double expected[] = {0.6931471805599453, 0.5265890341390446, 0.423035857164402, 0.0};
    for (double value : expected) {
        Statistics::decay();
        EXPECT_NEAR(Statistics::accessValue("one"), value, 1e-12);
    }
}

TEST_F(StatisticsTest, DecayTakesThreeToZeroInFiveRunsAndHundredInSeven) {
    Statistics::addAccess("three", nullptr, 3.0);
    Statistics::addAccess("hundred", nullptr, 100.0);
    for (int run = 1; run <= 7; ++run) {
        Statistics::decay();
        EXPECT_EQ(Statistics::accessValue("three") == 0.0, run >= 5) << "run " << run;
        EXPECT_EQ(Statistics::accessValue("hundred") == 0.0, run >= 7) << "run " << run;
    }
}

TEST_F(StatisticsTest, DecayedToZeroLeavesNoKeyAndIsUnknownAfterRestart) {
    Statistics::addAccess("gone", nullptr, 0.3);
    TaskRunner::runDue();
    ASSERT_TRUE(stored("gone"));
    Statistics::decay();
    EXPECT_FALSE(stored("gone"));
    EXPECT_TRUE(Statistics::hasEntry("gone")) << "the entry stays in memory";
    restart();
    EXPECT_FALSE(Statistics::hasEntry("gone"));
}

TEST_F(StatisticsTest, DecaySendsPrefetchRecordWithValuesBeforeDecay) {
    Statistics::addAccess("shop", nullptr, 3.0);
    Statistics::addPrefetch("shop");
    Statistics::addAccess("plain", nullptr, 3.0);
    proxy_->clearRecords();
    Statistics::decay();
    const auto records = proxy_->named("Ferrit.Prefetch");
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].dimensions.at("packName"), "shop");
    EXPECT_DOUBLE_EQ(records[0].measures.at("prefetchCount"), 1.0);
    EXPECT_DOUBLE_EQ(records[0].measures.at("accessCount"), 3.0);
    EXPECT_NEAR(Statistics::accessValue("shop"), std::log(4.0), 1e-12);
}

TEST_F(StatisticsTest, SubProcessCountsInMemoryWritesNothingAndNeverDecays) {
    FerritCore::Environment::instance().setMainProcess(false);
    Statistics::addAccess("shop", nullptr, 2.0);
    Statistics::addPrefetch("shop");
    EXPECT_DOUBLE_EQ(Statistics::accessValue("shop"), 2.0);
    EXPECT_EQ(TaskRunner::pendingCount(), 0u) << "nothing is queued for a write";
    TaskRunner::runDue();
    Statistics::flush();
    EXPECT_FALSE(stored("shop"));
    Statistics::decay();
    EXPECT_DOUBLE_EQ(Statistics::accessValue("shop"), 2.0);
    EXPECT_TRUE(proxy_->named("Ferrit.Prefetch").empty());
    restart();
    EXPECT_FALSE(Statistics::hasEntry("shop")) << "nor at a reset";
}

// ---- Writes on the worker

TEST_F(StatisticsTest, CountIsInMemoryAtOnceAndStoredOnlyWhenTheWorkerRuns) {
    double count = 0;
    EXPECT_TRUE(Statistics::addAccess("shop", &count, 2.0));
    EXPECT_DOUBLE_EQ(count, 2.0);
    EXPECT_DOUBLE_EQ(Statistics::accessValue("shop"), 2.0);
    EXPECT_FALSE(stored("shop")) << "nothing is written on the counting thread";
    EXPECT_EQ(TaskRunner::pendingCount(), 1u);
    TaskRunner::runDue();
    EXPECT_DOUBLE_EQ(storedValue("shop")["c"].doubleValue(), 2.0);
    EXPECT_EQ(TaskRunner::pendingCount(), 0u);
}

std::atomic<int> writes{0};
std::atomic<size_t> written{0};
void countWrite(size_t entries) {
    writes.fetch_add(1);
    written.fetch_add(entries);
}

TEST_F(StatisticsTest, BurstOfChangesOnOnePackIsWrittenOnce) {
    writes = 0;
    written = 0;
    Statistics::setWriteHookForTesting(&countWrite);
    Statistics::addAccess("shop", nullptr, 1.0);
    for (int i = 0; i < 5; ++i) {
        clock_->advance(Statistics::kRepeatWindowMs + 1);
        Statistics::addAccess("shop", nullptr, 1.0);
        Statistics::addPrefetch("shop");
    }
    EXPECT_EQ(TaskRunner::pendingCount(), 1u) << "one task for the whole burst";
    TaskRunner::runDue();
    EXPECT_EQ(writes.load(), 1);
    EXPECT_EQ(written.load(), 1u);
    const MarlLogger::json::JSON value = storedValue("shop");
    EXPECT_DOUBLE_EQ(value["c"].doubleValue(), 6.0);
    EXPECT_DOUBLE_EQ(value["p"].doubleValue(), 5.0);
    Statistics::flush();
    EXPECT_EQ(writes.load(), 1) << "nothing is left to write";
}

TEST_F(StatisticsTest, ChangesOfManyPacksAreWrittenInOneTransaction) {
    writes = 0;
    written = 0;
    Statistics::setWriteHookForTesting(&countWrite);
    Statistics::addAccess("a@1", nullptr, 1.0);
    Statistics::addAccess("b", nullptr, 1.0);
    Statistics::addPrefetch("c@2");
    TaskRunner::runDue();
    EXPECT_EQ(writes.load(), 1);
    EXPECT_EQ(written.load(), 4u) << "a@1, a, b and c";
    EXPECT_TRUE(stored("a@1") && stored("a") && stored("b") && stored("c"));
}

// What a count made while a write is under way must reach the store with the next write.
void countDuringWrite(size_t) {
    Statistics::setWriteHookForTesting(nullptr);
    Statistics::addAccess("shop", nullptr, 1.0,
                          MRLCurrentClock() + Statistics::kRepeatWindowMs + 1);
}

TEST_F(StatisticsTest, CountDuringAWriteIsWrittenByTheNextWrite) {
    Statistics::addAccess("shop", nullptr, 1.0);
    Statistics::setWriteHookForTesting(&countDuringWrite);
    Statistics::flush();
    EXPECT_DOUBLE_EQ(storedValue("shop")["c"].doubleValue(), 1.0) << "read before the count";
    EXPECT_DOUBLE_EQ(Statistics::accessValue("shop"), 2.0);
    EXPECT_EQ(TaskRunner::pendingCount(), 1u) << "the count queued another write";
    TaskRunner::runDue();
    EXPECT_DOUBLE_EQ(storedValue("shop")["c"].doubleValue(), 2.0);
}

TEST_F(StatisticsTest, DecayIsNotUndoneByAQueuedWrite) {
    Statistics::addAccess("shop", nullptr, 3.0);
    Statistics::addPrefetch("shop");
    Statistics::addAccess("gone", nullptr, 0.3);
    Statistics::decay();
    EXPECT_NEAR(storedValue("shop")["c"].doubleValue(), std::log(4.0), 1e-12);
    EXPECT_FALSE(stored("gone"));
    TaskRunner::runDue();
    Statistics::flush();
    EXPECT_NEAR(storedValue("shop")["c"].doubleValue(), std::log(4.0), 1e-12)
        << "the older 3.0 must not land after the decay";
    EXPECT_NEAR(storedValue("shop")["p"].doubleValue(), std::log(2.0), 1e-12);
    EXPECT_FALSE(stored("gone")) << "nor bring back what the decay removed";
}

TEST_F(StatisticsTest, ChangesAfterADecayLandAfterIt) {
    Statistics::addAccess("shop", nullptr, 3.0);
    TaskRunner::runDue();
    Statistics::decay();
    Statistics::addPrefetch("shop");
    clock_->advance(Statistics::kRepeatWindowMs + 1);
    Statistics::addAccess("shop", nullptr, 1.0);
    TaskRunner::runDue();
    EXPECT_NEAR(storedValue("shop")["c"].doubleValue(), std::log(4.0) + 1.0, 1e-12);
    EXPECT_DOUBLE_EQ(storedValue("shop")["p"].doubleValue(), 1.0);
}

TEST_F(StatisticsTest, FlushWritesWhatIsQueuedWithoutTheWorker) {
    Statistics::addAccess("shop@3", nullptr, 1.0);
    Statistics::flush();
    EXPECT_TRUE(stored("shop@3"));
    EXPECT_TRUE(stored("shop"));
}

TEST_F(StatisticsTest, ResetWritesWhatIsQueued) {
    Statistics::addAccess("shop", nullptr, 2.0);
    Statistics::addPrefetch("shop");
    restart();
    EXPECT_DOUBLE_EQ(Statistics::accessValue("shop"), 2.0);
    EXPECT_DOUBLE_EQ(Statistics::prefetchValue("shop"), 1.0);
}

TEST_F(StatisticsTest, DroppedWriteTaskDoesNotKeepLaterCountsFromPosting) {
    Statistics::addAccess("first", nullptr, 1.0);
    TaskRunner::clear();
    EXPECT_EQ(TaskRunner::pendingCount(), 0u);
    Statistics::addAccess("second", nullptr, 1.0);
    EXPECT_EQ(TaskRunner::pendingCount(), 1u);
    TaskRunner::runDue();
    EXPECT_TRUE(stored("second"));
    EXPECT_TRUE(stored("first")) << "what the dropped task would have written is still queued";
}

// Counting threads, a thread that writes and one that decays: whatever interleaving, the store
// ends with what memory holds.
TEST_F(StatisticsTest, ManyThreadsCountingWhileWritesAndDecaysRun) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 150;
    std::atomic<int> running{kThreads};
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    const double start = now();
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([i, start, &running] {
            for (int n = 0; n < kRounds; ++n) {
                const double at = start + (Statistics::kRepeatWindowMs + 1) * (n + 1);
                Statistics::addAccess("pack" + std::to_string(n % 7) + "@" + std::to_string(i),
                                      nullptr, 1.0, at);
                if (n % 5 == 0) Statistics::addPrefetch("pack" + std::to_string(n % 3));
            }
            running.fetch_sub(1);
        });
    }
    std::thread writer([&running] {
        while (running.load() > 0) Statistics::flush();
    });
    for (int d = 0; d < 3; ++d) Statistics::decay();
    for (std::thread& thread : threads) thread.join();
    writer.join();
    TaskRunner::runDue();
    Statistics::flush();
    const MarlLogger::json::JSON all = Statistics::toJson();
    int checked = 0;
    for (int p = 0; p < 7; ++p) {
        for (const std::string& name :
             {"pack" + std::to_string(p), "pack" + std::to_string(p) + "@0"}) {
            ASSERT_TRUE(stored(name)) << name;
            EXPECT_DOUBLE_EQ(storedValue(name)["c"].doubleValue(),
                             all[name]["accessCount"].doubleValue())
                << name;
            EXPECT_DOUBLE_EQ(storedValue(name)["p"].doubleValue(),
                             all[name]["prefetchCount"].doubleValue())
                << name;
            ++checked;
        }
    }
    EXPECT_EQ(checked, 14);
}

// Threads reading one pack at once within one window count it once between them.
TEST_F(StatisticsTest, ConcurrentAccessesInOneWindowCountOnce) {
    std::vector<std::thread> threads;
    const double at = now();
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([at] {
            for (int n = 0; n < 200; ++n) Statistics::addAccess("busy@1", nullptr, 1.0, at);
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_DOUBLE_EQ(Statistics::accessValue("busy@1"), 1.0);
    EXPECT_DOUBLE_EQ(Statistics::accessValue("busy"), 1.0);
}

}  // namespace
}  // namespace FerritTest
