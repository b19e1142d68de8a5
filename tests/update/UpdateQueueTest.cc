// The update queue: which tasks it keeps, in what order they start, how duplicates merge, and what
// pausing and readers' holds do. Most tests run task doubles that stay running until the test
// ends them, made through the queue's factory from real records; the last ones run real installs
// through the test proxy.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/Errors.h"
#include "runtime/Network.h"
#include "storage/Statistics.h"
#include "tests/update/InstallFixture.h"
#include "update/UpdateQueue.h"

namespace FerritTest {
namespace {

using namespace FerritCore;
using MarlLogger::json::JSON;

// A task whose run the test ends by hand: start() only notes that it began.
class HeldTask : public UpdatePack {
  public:
    HeldTask(const std::string& name, const JSON& info, UpdateTrigger trigger,
             std::vector<std::string>* log)
        : UpdatePack(name, info, trigger), log_(log) {}
    void start() override { log_->push_back(name()); }
    void finish(Error error = Error()) { endRun(std::move(error)); }

  private:
    std::vector<std::string>* log_;
};

class HeldFactory : public UpdatePackFactory {
  public:
    UpdatePackPtr create(const std::string& name, const JSON& info,
                         UpdateTrigger trigger) override {
        auto task = std::make_shared<HeldTask>(name, info, trigger, &started);
        made.push_back(task);
        return task;
    }
    UpdatePackPtr createSeq(const std::string& name, uint64_t seq) override {
        return UpdatePack::createSeq(name, seq);
    }
    // The last task made for `name`.
    std::shared_ptr<HeldTask> last(const std::string& name) const {
        for (auto it = made.rbegin(); it != made.rend(); ++it)
            if ((*it)->name() == name) return *it;
        return nullptr;
    }
    std::vector<std::shared_ptr<HeldTask>> made;
    std::vector<std::string> started;  // names, in the order their tasks started
};

class UpdateQueueTest : public InstallFixture {
  protected:
    void SetUp() override {
        InstallFixture::SetUp();
        factory_ = std::make_shared<HeldFactory>();
        UpdateQueue::setFactory(factory_);
    }

    // An installed pack with a newer version configured: every trigger finds it runnable.
    static std::shared_ptr<Pack> stale(const std::string& name, uint32_t priority = 0) {
        auto p = record(name, kPackTypeFerrit, 2, 2, priority);
        p->installedSeq = 1;
        p->installedBaseSeq = 1;
        return p;
    }
    // `count` stale packs "p0".."p<count-1>", each visited a different number of times so that
    // no two share a score, with priorities that vary too.
    void putStale(size_t count) {
        std::vector<std::shared_ptr<Pack>> packs;
        for (size_t i = 0; i < count; ++i) {
            const std::string name = "p" + std::to_string(i);
            packs.push_back(stale(name, static_cast<uint32_t>((i * 5) % 8)));
            Statistics::addAccess(name, nullptr, 1.0 + static_cast<double>((i * 7919) % count));
        }
        put(packs);
    }
    // The names of the `limit` best of `tasks`, best first.
    static std::vector<std::string> best(std::vector<std::shared_ptr<HeldTask>> tasks,
                                         size_t limit) {
        std::sort(tasks.begin(), tasks.end(),
                  [](const auto& a, const auto& b) { return a->score() > b->score(); });
        std::vector<std::string> names;
        for (size_t i = 0; i < std::min(limit, tasks.size()); ++i)
            names.push_back(tasks[i]->name());
        return names;
    }
    // "story" installed at 3, with `seq` configured.
    void putStory(uint64_t seq) {
        auto p = record("story", kPackTypeFerrit, seq, seq);
        p->installedSeq = 3;
        p->installedBaseSeq = 3;
        put({p});
    }
    UpdatePackPtr task(const std::string& name, UpdateTrigger trigger) {
        return factory_->create(name, JSON(), trigger);
    }
    // Adds a task; the returned flag tells whether its listener was called, and with what.
    struct Outcome {
        bool called = false;
        Error error;
    };
    std::shared_ptr<Outcome> add(const UpdatePackPtr& t) {
        auto outcome = std::make_shared<Outcome>();
        UpdateQueue::add(t, [outcome](const Error& error) {
            outcome->called = true;
            outcome->error = error;
        });
        return outcome;
    }

    std::shared_ptr<HeldFactory> factory_;
};

// ---- What a run keeps --------------------------------------------------------------------------

TEST_F(UpdateQueueTest, TwentyCandidatesWithALimitOfFourteenKeepTheBestWithoutLoggingTheDropped) {
    putStale(20);
    UpdateQueue::start(kTriggerStartup);
    ASSERT_EQ(factory_->made.size(), 20u);
    const std::vector<std::string> kept = best(factory_->made, 14);
    EXPECT_EQ(UpdateQueue::normalNames(), kept);
    std::vector<std::string> dropped;
    for (const auto& t : factory_->made)
        if (std::find(kept.begin(), kept.end(), t->name()) == kept.end())
            dropped.push_back(t->name());
    ASSERT_EQ(dropped.size(), 6u);
    for (const MarlLogger::LogEntry& entry : logs_->entries()) {
        if (entry.tag != "Ferrit/Queue") continue;
        for (const std::string& name : dropped)
            EXPECT_EQ(entry.toJSONLine().find("\"" + name + "\""), std::string::npos)
                << entry.toJSONLine();
    }
    const MarlLogger::LogEntry announced = logs_->last("start", "Ferrit/Queue");
    EXPECT_EQ(announced.field("count").int64Value(), 20);
    EXPECT_EQ(announced.field("limit").int64Value(), 14);
    EXPECT_EQ(announced.field("trigger").stringValue(), "Startup");
}

TEST_F(UpdateQueueTest, TimerRunUsesDownloadLimit) {
    putStale(40);
    UpdateQueue::start(kTriggerTimer);
    EXPECT_EQ(UpdateQueue::normalNames(), best(factory_->made, 30));
}

TEST_F(UpdateQueueTest, LimitOfZeroDropsEveryCandidate) {
    putStale(5);
    Settings::change([](Settings& settings) { settings.downloadLimit = 0; });
    UpdateQueue::start(kTriggerTimer);
    EXPECT_EQ(UpdateQueue::normalCount(), 0u);
    drive();
    EXPECT_TRUE(factory_->started.empty());
}

TEST_F(UpdateQueueTest, TenThousandCandidatesKeepTheLimitInScoreOrderInOnePass) {
    putStale(10000);
    logs_->clear();
    UpdateQueue::start(kTriggerTimer);
    EXPECT_EQ(UpdateQueue::normalNames(), best(factory_->made, 30));
    // One line for the run, none for the 9,970 that fell off.
    size_t queueLines = 0;
    for (const MarlLogger::LogEntry& entry : logs_->entries())
        if (entry.tag == "Ferrit/Queue") ++queueLines;
    EXPECT_EQ(queueLines, 1u);
}

TEST_F(UpdateQueueTest, NormalTasksStartOneAtATimeInScoreOrder) {
    putStale(6);
    UpdateQueue::start(kTriggerTimer);
    const std::vector<std::string> order = best(factory_->made, 6);
    for (size_t i = 0; i < order.size(); ++i) {
        drive();
        ASSERT_EQ(factory_->started.size(), i + 1);
        EXPECT_EQ(factory_->started.back(), order[i]);
        EXPECT_EQ(UpdateQueue::runningCount(), 1u);
        factory_->last(order[i])->finish();
    }
    drive();
    EXPECT_EQ(factory_->started, order);
    EXPECT_EQ(UpdateQueue::runningCount(), 0u);
}

TEST_F(UpdateQueueTest, RunThatEmptiesSendsOneRecordAndTellsTheHost) {
    putStale(3);
    UpdateQueue::start(kTriggerTimer);
    for (int i = 0; i < 3; ++i) {
        drive();
        factory_->last(factory_->started.back())
            ->finish(i == 0 ? Error(Errors::kRequestInvalidStatus, "failed") : Error());
    }
    drive();
    EXPECT_EQ(proxy_->queueFinished, (std::vector<uint32_t>{3}));
    const std::vector<FakeProxy::Record> records = proxy_->named("Ferrit.UpdateQueue");
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].measures.at("normalCount"), 3);
    EXPECT_EQ(records[0].measures.at("normalSuccessCount"), 2);
    EXPECT_EQ(records[0].measures.at("fastCount"), 0);
    EXPECT_EQ(records[0].measures.at("fastSuccessCount"), 0);
    const MarlLogger::LogEntry finished = logs_->last("finished", "Ferrit/Queue");
    EXPECT_EQ(finished.field("normal").int64Value(), 3);
    EXPECT_EQ(finished.field("normalSuccess").int64Value(), 2);
    EXPECT_TRUE(finished.has("time"));
    // The next run opens a new record.
    UpdateQueue::start(kTriggerTimer);
    EXPECT_EQ(logs_->count("start", "Ferrit/Queue"), 2u);
}

TEST_F(UpdateQueueTest, StartInASubProcessLogs2004AndQueuesNothing) {
    putStale(3);
    Environment::instance().setMainProcess(false);
    UpdateQueue::start(kTriggerTimer);
    Environment::instance().setMainProcess(true);
    EXPECT_EQ(UpdateQueue::normalCount(), 0u);
    const MarlLogger::LogEntry entry = logs_->last("start", "Ferrit/Queue");
    EXPECT_EQ(entry.errorCode, std::to_string(Errors::kSubProcessDisabled));
    EXPECT_EQ(entry.field("trigger").stringValue(), "Timer");
}

// ---- Merging -----------------------------------------------------------------------------------

TEST_F(UpdateQueueTest, VisitForAPackQueuedAsNormalMovesItToFastWithTheHigherScore) {
    putStale(3);
    UpdateQueue::start(kTriggerTimer);
    const std::shared_ptr<HeldTask> queued = factory_->last("p1");
    ASSERT_NE(queued, nullptr);
    const double normalScore = queued->score();
    clock_->advance(Statistics::kRepeatWindowMs + 1);  // past the window: it counts again
    Statistics::addAccess("p1", nullptr, 500.0);
    UpdatePackPtr visit = task("p1", kTriggerVisit);
    ASSERT_GT(visit->score(), normalScore);
    visit->setParentId("visit-trace");
    auto outcome = add(visit);
    EXPECT_EQ(UpdateQueue::fastNames(), (std::vector<std::string>{"p1"}));
    EXPECT_EQ(UpdateQueue::normalCount(), 2u);
    // The task queued first survives and takes the merge.
    EXPECT_EQ(queued->score(), visit->score());
    EXPECT_EQ(queued->parentId(), "visit-trace");
    EXPECT_TRUE(queued->concurrent());
    drive();
    EXPECT_EQ(factory_->started, (std::vector<std::string>{"p1"}));
    queued->finish();
    EXPECT_TRUE(outcome->called);
    EXPECT_FALSE(outcome->error);
}

TEST_F(UpdateQueueTest, SecondFastRequestMovesItsPackToTheTopOfTheStack) {
    putStale(3);
    UpdateQueue::setPaused(true);
    add(task("p0", kTriggerVisit));
    add(task("p1", kTriggerVisit));
    add(task("p2", kTriggerVisit));
    EXPECT_EQ(UpdateQueue::fastNames(), (std::vector<std::string>{"p2", "p1", "p0"}));
    add(task("p0", kTriggerVisit));
    EXPECT_EQ(UpdateQueue::fastNames(), (std::vector<std::string>{"p0", "p2", "p1"}));
}

TEST_F(UpdateQueueTest, NormalRequestForAPackOnTheFastStackJoinsIt) {
    putStale(2);
    UpdateQueue::setPaused(true);
    auto first = add(task("p0", kTriggerVisit));
    auto second = add(task("p0", kTriggerTimer));
    EXPECT_EQ(UpdateQueue::fastNames(), (std::vector<std::string>{"p0"}));
    EXPECT_EQ(UpdateQueue::normalCount(), 0u);
    UpdateQueue::setPaused(false);
    drive();
    factory_->made.front()->finish();
    EXPECT_TRUE(first->called);
    EXPECT_TRUE(second->called);
}

TEST_F(UpdateQueueTest, DuplicateNormalRequestKeepsOneTaskWithTheHigherScore) {
    putStale(2);
    UpdateQueue::setPaused(true);
    add(task("p0", kTriggerTimer));
    const double before = factory_->made.front()->score();
    UpdatePackPtr prefetch = task("p0", kTriggerPrefetch);
    add(prefetch);
    EXPECT_EQ(UpdateQueue::normalNames(), (std::vector<std::string>{"p0"}));
    EXPECT_EQ(factory_->made.front()->score(), prefetch->score());
    EXPECT_GT(prefetch->score(), before);
    EXPECT_FALSE(factory_->made.front()->concurrent());
}

TEST_F(UpdateQueueTest, RequestForARunningPackWaitsForIt) {
    putStale(1);
    auto first = add(task("p0", kTriggerTimer));
    drive();
    auto second = add(task("p0", kTriggerVisit));
    drive();
    EXPECT_EQ(factory_->started, (std::vector<std::string>{"p0"}));
    EXPECT_EQ(UpdateQueue::fastCount(), 0u);
    factory_->made.front()->finish(Error(Errors::kRequestInvalidStatus, "failed"));
    EXPECT_EQ(first->error.code(), Errors::kRequestInvalidStatus);
    EXPECT_EQ(second->error.code(), Errors::kRequestInvalidStatus);
}

TEST_F(UpdateQueueTest, RequestFromAListenerOfTheEndedTaskStartsANewOne) {
    putStale(1);
    std::shared_ptr<Outcome> again;
    UpdateQueue::add(task("p0", kTriggerTimer),
                     [&](const Error&) { again = add(task("p0", kTriggerTimer)); });
    drive();
    factory_->made.front()->finish();
    drive();
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(factory_->started, (std::vector<std::string>{"p0", "p0"}));
    factory_->made.back()->finish();
    EXPECT_TRUE(again->called);
}

// ---- Requests for another version of a queued or running pack ---------------------------------

TEST_F(UpdateQueueTest, NewerVersionRequestedWhileAnOlderIsQueuedInstallsTheNewer) {
    putStory(4);
    UpdateQueue::setPaused(true);
    auto retry = add(task("story", kTriggerTimer));
    const std::shared_ptr<HeldTask> queued = factory_->last("story");
    ASSERT_EQ(queued->targetSeq(), 4u);
    putStory(6);
    UpdatePackPtr visit = task("story", kTriggerVisit);
    ASSERT_EQ(visit->targetSeq(), 6u);
    visit->setParentId("visit-trace");
    auto request = add(visit);
    // Still one task for the pack, now on the fast stack, and it installs 6.
    EXPECT_EQ(UpdateQueue::fastNames(), (std::vector<std::string>{"story"}));
    EXPECT_EQ(UpdateQueue::normalCount(), 0u);
    EXPECT_EQ(queued->targetSeq(), 6u);
    EXPECT_EQ(queued->pack()->seq, 6u);
    EXPECT_EQ(queued->score(), std::max(queued->score(), visit->score()));
    EXPECT_EQ(queued->parentId(), "visit-trace");
    EXPECT_TRUE(queued->concurrent());
    UpdateQueue::setPaused(false);
    drive();
    EXPECT_EQ(factory_->started, (std::vector<std::string>{"story"}));
    queued->finish();
    EXPECT_TRUE(retry->called);
    EXPECT_TRUE(request->called);
    EXPECT_FALSE(request->error);
}

TEST_F(UpdateQueueTest, NewerVersionRequestedWhileAnOlderRunsIsAnsweredByTheNewer) {
    putStory(4);
    auto retry = add(task("story", kTriggerTimer));
    drive();
    const std::shared_ptr<HeldTask> running = factory_->last("story");
    ASSERT_EQ(factory_->started, (std::vector<std::string>{"story"}));
    putStory(6);
    auto request = add(task("story", kTriggerVisit));
    drive();
    // Nothing new starts while version 4 runs.
    EXPECT_EQ(factory_->started.size(), 1u);
    EXPECT_EQ(UpdateQueue::fastCount(), 0u);
    running->finish(Error(Errors::kRequestInvalidStatus, "story_4_ is damaged"));
    EXPECT_EQ(retry->error.code(), Errors::kRequestInvalidStatus);
    // Version 4's failure is not the answer to a request for 6.
    EXPECT_FALSE(request->called);
    drive();
    ASSERT_EQ(factory_->started, (std::vector<std::string>{"story", "story"}));
    const std::shared_ptr<HeldTask> newer = factory_->last("story");
    ASSERT_NE(newer, running);
    EXPECT_EQ(newer->targetSeq(), 6u);
    EXPECT_FALSE(request->called);
    newer->finish();
    EXPECT_TRUE(request->called);
    EXPECT_FALSE(request->error);
    drive();
    EXPECT_EQ(UpdateQueue::runningCount(), 0u);
}

TEST_F(UpdateQueueTest, SameVersionRequestedTwiceDownloadsOnce) {
    putStory(6);
    UpdateQueue::setPaused(true);
    auto first = add(task("story", kTriggerTimer));
    auto second = add(task("story", kTriggerVisit));
    EXPECT_EQ(UpdateQueue::fastNames(), (std::vector<std::string>{"story"}));
    EXPECT_EQ(UpdateQueue::normalCount(), 0u);
    UpdateQueue::setPaused(false);
    drive();
    const std::shared_ptr<HeldTask> running = factory_->made.front();
    EXPECT_EQ(running->targetSeq(), 6u);
    // A third request for the same version while it runs shares its outcome too.
    auto third = add(task("story", kTriggerVisit));
    drive();
    EXPECT_EQ(factory_->started, (std::vector<std::string>{"story"}));
    running->finish(Error(Errors::kRequestInvalidStatus, "failed"));
    EXPECT_EQ(first->error.code(), Errors::kRequestInvalidStatus);
    EXPECT_EQ(second->error.code(), Errors::kRequestInvalidStatus);
    EXPECT_EQ(third->error.code(), Errors::kRequestInvalidStatus);
    drive();
    EXPECT_EQ(factory_->started.size(), 1u);
    EXPECT_EQ(UpdateQueue::runningCount(), 0u);
}

TEST_F(UpdateQueueTest, TaskThatIsNotRunnableTellsItsListenerAtOnce) {
    auto p = stale("fresh");
    p->installedSeq = 2;
    put({p});
    auto outcome = add(task("fresh", kTriggerTimer));
    EXPECT_TRUE(outcome->called);
    EXPECT_FALSE(outcome->error);
    auto missing = add(task("nowhere", kTriggerVisit));
    EXPECT_TRUE(missing->called);
    EXPECT_TRUE(missing->error);
    EXPECT_EQ(logs_->last("finished", "Ferrit/UpdatePack").field("status").stringValue(),
              "Invalid");
    EXPECT_EQ(UpdateQueue::normalCount() + UpdateQueue::fastCount(), 0u);
}

// ---- The fast lane -----------------------------------------------------------------------------

TEST_F(UpdateQueueTest, TwoVisitsRunTogetherAndAPreviewWaitsForThem) {
    putStale(3);
    UpdateQueue::setPaused(true);
    auto preview = add(task("p2", kTriggerPreview));
    add(task("p0", kTriggerVisit));
    add(task("p1", kTriggerVisit));
    UpdateQueue::setPaused(false);
    drive();
    EXPECT_EQ(factory_->started, (std::vector<std::string>{"p1", "p0"}));
    EXPECT_EQ(UpdateQueue::runningCount(), 2u);
    EXPECT_EQ(UpdateQueue::fastNames(), (std::vector<std::string>{"p2"}));
    factory_->last("p1")->finish();
    drive();
    EXPECT_EQ(factory_->started.size(), 2u) << "one visit still runs";
    factory_->last("p0")->finish();
    drive();
    EXPECT_EQ(factory_->started.back(), "p2");
    factory_->last("p2")->finish();
    EXPECT_TRUE(preview->called);
}

TEST_F(UpdateQueueTest, PreviewWaitsForRunningVisits) {
    putStale(3);
    add(task("p0", kTriggerVisit));
    drive();
    add(task("p1", kTriggerVisit));
    drive();
    EXPECT_EQ(factory_->started, (std::vector<std::string>{"p0", "p1"}));
    EXPECT_EQ(UpdateQueue::runningCount(), 2u);
    add(task("p2", kTriggerPreview));
    drive();
    EXPECT_EQ(factory_->started.size(), 2u) << "a preview is not concurrent";
    factory_->last("p0")->finish();
    drive();
    EXPECT_EQ(factory_->started.size(), 2u);
    factory_->last("p1")->finish();
    drive();
    EXPECT_EQ(factory_->started.back(), "p2");
}

TEST_F(UpdateQueueTest, NormalTaskWaitsBehindARunningFastOne) {
    putStale(2);
    add(task("p0", kTriggerVisit));
    drive();
    add(task("p1", kTriggerTimer));
    drive();
    EXPECT_EQ(factory_->started, (std::vector<std::string>{"p0"}));
    EXPECT_EQ(UpdateQueue::normalCount(), 1u);
    factory_->last("p0")->finish();
    drive();
    EXPECT_EQ(factory_->started, (std::vector<std::string>{"p0", "p1"}));
}

TEST_F(UpdateQueueTest, FastTaskStartsWhileANormalOneRuns) {
    putStale(2);
    add(task("p0", kTriggerTimer));
    drive();
    add(task("p1", kTriggerVisit));
    drive();
    EXPECT_EQ(factory_->started, (std::vector<std::string>{"p0", "p1"}));
}

// ---- Pausing -----------------------------------------------------------------------------------

TEST_F(UpdateQueueTest, WhilePausedAddFillsTheListsAndNothingStarts) {
    putStale(3);
    UpdateQueue::setPaused(true);
    UpdateQueue::start(kTriggerTimer);
    add(task("p0", kTriggerVisit));
    drive();
    EXPECT_TRUE(factory_->started.empty());
    EXPECT_EQ(UpdateQueue::fastCount(), 1u);
    EXPECT_EQ(UpdateQueue::normalCount(), 2u);
    UpdateQueue::setPaused(false);
    drive();
    EXPECT_EQ(factory_->started, (std::vector<std::string>{"p0"}));
}

TEST_F(UpdateQueueTest, PausingDoesNotStopARunningTask) {
    putStale(2);
    UpdateQueue::start(kTriggerTimer);
    drive();
    ASSERT_EQ(factory_->started.size(), 1u);
    UpdateQueue::setPaused(true);
    auto outcome = std::make_shared<Outcome>();
    factory_->last(factory_->started[0])->addListener([outcome](const Error& error) {
        outcome->called = true;
        outcome->error = error;
    });
    factory_->last(factory_->started[0])->finish();
    drive();
    EXPECT_TRUE(outcome->called);
    EXPECT_EQ(factory_->started.size(), 1u) << "the second waits for the foreground";
    UpdateQueue::setPaused(false);
    drive();
    EXPECT_EQ(factory_->started.size(), 2u);
}

// ---- Readers' holds ----------------------------------------------------------------------------

TEST_F(UpdateQueueTest, TaskOfAHeldPackDisappearsWithoutAnErrorAndItsListenerIsNotCalled) {
    putStale(2);
    UpdateQueue::holdPack("p0");
    auto held = add(task("p0", kTriggerTimer));
    auto fastHeld = add(task("p1", kTriggerVisit));
    UpdateQueue::holdPack("p1");
    drive();
    EXPECT_TRUE(factory_->started.empty());
    EXPECT_EQ(UpdateQueue::normalCount() + UpdateQueue::fastCount(), 0u);
    EXPECT_FALSE(held->called);
    EXPECT_FALSE(fastHeld->called);
    EXPECT_EQ(logs_->count("finished", "Ferrit/UpdatePack"), 0u);
    // Released, the pack's next request runs.
    UpdateQueue::releasePack("p0");
    add(task("p0", kTriggerTimer));
    drive();
    EXPECT_EQ(factory_->started, (std::vector<std::string>{"p0"}));
}

TEST_F(UpdateQueueTest, HoldsNest) {
    UpdateQueue::holdPack("p0");
    UpdateQueue::holdPack("p0");
    UpdateQueue::releasePack("p0");
    EXPECT_TRUE(UpdateQueue::isHeld("p0"));
    UpdateQueue::releasePack("p0");
    EXPECT_FALSE(UpdateQueue::isHeld("p0"));
    UpdateQueue::releasePack("p0");  // one too many does nothing
    EXPECT_FALSE(UpdateQueue::isHeld("p0"));
}

TEST_F(UpdateQueueTest, APackIsInUseWhileItsTaskRunsOrAReaderHoldsIt) {
    putStale(1);
    UpdateQueue::start(kTriggerTimer);
    drive();
    ASSERT_EQ(factory_->started, (std::vector<std::string>{"p0"}));
    EXPECT_TRUE(UpdateQueue::isInUse("p0"));
    factory_->last("p0")->finish();
    drive();
    EXPECT_FALSE(UpdateQueue::isInUse("p0"));
    UpdateQueue::holdPack("p0");
    EXPECT_TRUE(UpdateQueue::isInUse("p0"));
    UpdateQueue::releasePack("p0");
    EXPECT_FALSE(UpdateQueue::isInUse("p0"));
}

// A host that never set its network status: packs wait, and each trigger says why once, in words,
// at the level a host reads by default.
TEST_F(UpdateQueueTest, NetworkStatusNoneIsToldInWordsOncePerTrigger) {
    putStale(3);
    MarlLogger::ScopedCapture logs(MarlLogger::MRLLevelWarning);
    Environment::instance().setNetworkStatusValue(NetworkStatus::kNone);
    UpdateQueue::start(kTriggerTimer);
    drive();
    ASSERT_EQ(logs->count("waitingForNetwork", "Ferrit/Queue"), 1u);
    const MarlLogger::LogEntry entry = logs->last("waitingForNetwork", "Ferrit/Queue");
    EXPECT_EQ(entry.level, MarlLogger::MRLLevelWarning);
    EXPECT_EQ(entry.field("trigger").stringValue(), "Timer");
    EXPECT_EQ(entry.field("packs").int64Value(), 3);
    EXPECT_NE(entry.field("message").stringValue().find("network status is none"),
              std::string::npos);
    EXPECT_NE(entry.field("message").stringValue().find("setNetworkStatusNative"),
              std::string::npos);
    EXPECT_TRUE(factory_->started.empty());
    UpdateQueue::start(kTriggerActive);
    drive();
    EXPECT_EQ(logs->count("waitingForNetwork", "Ferrit/Queue"), 2u);
    // A cellular network that the packs do not allow is another matter, told as before.
    Environment::instance().setNetworkStatusValue(NetworkStatus::kSlowMobile);
    UpdateQueue::start(kTriggerTimer);
    drive();
    EXPECT_EQ(logs->count("waitingForNetwork", "Ferrit/Queue"), 2u);
    Environment::instance().setNetworkStatusValue(NetworkStatus::kUnrestricted);
    UpdateQueue::start(kTriggerTimer);
    drive();
    EXPECT_EQ(logs->count("waitingForNetwork", "Ferrit/Queue"), 2u);
    EXPECT_FALSE(factory_->started.empty());
}

}  // namespace
}  // namespace FerritTest
