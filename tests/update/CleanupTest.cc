// Cleanup on a real root: records in the real configuration, pack folders on the disk and keys in
// the packs store, sizes measured from the disk, statistics in the configuration store.
#include "update/Cleanup.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "runtime/Settings.h"
#include "runtime/TaskRunner.h"
#include "storage/ConfigStore.h"
#include "storage/PacksStore.h"
#include "storage/Statistics.h"
#include "tests/update/InstallFixture.h"

namespace FerritTest {
namespace {

using namespace FerritCore;

class CleanupTest : public InstallFixture {
  protected:
    void SetUp() override {
        InstallFixture::SetUp();
        setLimits(1000, 1000);
    }

    static void setLimits(uint64_t ferrit, uint64_t acache) {
        Settings::change([&](Settings& s) {
            s.ferritSizeLimit = ferrit;
            s.acacheSizeLimit = acache;
        });
    }

    // An installed record whose version folder holds `size` bytes on the disk (under "apps/",
    // or as keys of the packs store when `packed`); its size is left for the measuring.
    std::shared_ptr<Pack> installed(const std::string& name, uint64_t size, uint32_t priority = 0,
                                    uint32_t type = kPackTypeFerrit, bool packed = false,
                                    uint64_t seq = 1) {
        auto p = record(name, type, seq, 1, priority);
        p->installedSeq = seq;
        p->isPacks = packed;
        const Folder blob = p->installedFolder().childOf("res/blob");
        blob.ensureParent();
        Error error;
        EXPECT_TRUE(Folder::writeFile(blob, std::string(size, 'x'), error)) << error.message();
        return p;
    }
    void access(const std::string& name, double weight) {
        Statistics::addAccess(name, nullptr, weight);
    }
    static std::vector<std::string> names(const std::vector<PackPtr>& packs) {
        std::vector<std::string> out;
        for (const PackPtr& p : packs) out.push_back(p->name);
        std::sort(out.begin(), out.end());
        return out;
    }
    static uint32_t status(const std::string& name) { return find(name)->status; }
    void mkdir(const std::string& relative) {
        std::filesystem::create_directories(temp_.path() / relative);
    }
    void touch(const std::string& relative, const std::string& content = "x") {
        std::filesystem::create_directories((temp_.path() / relative).parent_path());
        std::ofstream(temp_.path() / relative) << content;
    }
    static void putKey(const std::string& key) {
        const Error error = PacksStore::instance().put(key, "v");
        ASSERT_FALSE(error) << error.message();
    }
    static bool hasKey(const std::string& key) { return PacksStore::instance().contains(key); }
    static CleanupCandidate candidate(double score, bool eliminated, double updateTime) {
        auto p = std::make_shared<Pack>();
        p->updateTime = updateTime;
        CleanupCandidate c;
        c.pack = p;
        c.score = score;
        c.eliminated = eliminated;
        c.access = 1;
        c.installed = true;
        return c;
    }
};

// ---- Ranking -----------------------------------------------------------------------------------

TEST_F(CleanupTest, TriggerNamesPrintUnknownAboveManual) {
    EXPECT_STREQ(cleanupTriggerName(kCleanupRegular), "Regular");
    EXPECT_STREQ(cleanupTriggerName(kCleanupDebugTool), "DebugTool");
    EXPECT_STREQ(cleanupTriggerName(kCleanupFerrit), "Ferrit");
    EXPECT_STREQ(cleanupTriggerName(kCleanupACache), "ACache");
    EXPECT_STREQ(cleanupTriggerName(kCleanupManual), "Manual");
    EXPECT_STREQ(cleanupTriggerName(5), "Unknown");
}

TEST_F(CleanupTest, LongTermByPriorityTypeAndKind) {
    EXPECT_TRUE(Cleanup::isLongTerm(*record("a", kPackTypeFerrit, 1, 1, 9)));
    EXPECT_TRUE(Cleanup::isLongTerm(*record("a", kPackTypeFerrit, 1, 1, 15)));
    EXPECT_TRUE(Cleanup::isLongTerm(*record("a", kPackTypeFerrit, 1, 1, 7)));
    EXPECT_FALSE(Cleanup::isLongTerm(*record("a", kPackTypeFerrit, 1, 1, 8)));
    EXPECT_FALSE(Cleanup::isLongTerm(*record("a", kPackTypeFerrit, 1, 1, 6)));
    EXPECT_TRUE(Cleanup::isLongTerm(*record("a", kPackTypeSCache, 1, 1, 0)));
    auto pinned = record("a@3", kPackTypeFerrit, 3, 1, 9);
    pinned->subType = kSubTypeFixedSeq;
    EXPECT_FALSE(Cleanup::isLongTerm(*pinned)) << "kind 1 is never long term";
}

TEST_F(CleanupTest, ScoreWeighsAccessByPriority) {
    EXPECT_DOUBLE_EQ(Cleanup::evictionScore(*record("a", kPackTypeFerrit, 1, 1, 0), 2.0), 2.0);
    EXPECT_DOUBLE_EQ(Cleanup::evictionScore(*record("a", kPackTypeFerrit, 1, 1, 5), 2.0),
                     std::fma(std::fma(5.0, 0.2, 1.0), 2.0, 0.5));
    EXPECT_DOUBLE_EQ(Cleanup::evictionScore(*record("a", kPackTypeFerrit, 1, 1, 9), 0.0),
                     0.9 + 1000.0);
}

// Edge: scores 1.0000 and 1.0005 tie; the state decides, then the update time.
TEST_F(CleanupTest, ScoresWithinToleranceAreOrderedByStateThenUpdateTime) {
    const CleanupCandidate older = candidate(1.0005, false, 100);
    const CleanupCandidate newer = candidate(1.0000, false, 200);
    EXPECT_TRUE(Cleanup::ranksBelow(older, newer)) << "the most recently updated goes first";
    EXPECT_FALSE(Cleanup::ranksBelow(newer, older));
    const CleanupCandidate waiting = candidate(1.0005, true, 300);
    EXPECT_TRUE(Cleanup::ranksBelow(waiting, older)) << "state 2 follows the others";
    EXPECT_FALSE(Cleanup::ranksBelow(older, waiting));
    const CleanupCandidate clear = candidate(1.002, false, 0);
    EXPECT_TRUE(Cleanup::ranksBelow(newer, clear)) << "beyond the tolerance the score decides";
}

// The same tie through a whole run: room for one, and the more recently updated stays.
TEST_F(CleanupTest, TiedScoresKeepTheMostRecentlyUpdated) {
    setLimits(100, 100);
    auto older = installed("older", 100);
    older->updateTime = 1000;
    auto newer = installed("newer", 100);
    newer->updateTime = 2000;
    put({older, newer});
    access("older", std::exp(1.0005) - 1);  // decays to 1.0005
    access("newer", std::exp(1.0) - 1);     // decays to 1.0
    EXPECT_EQ(names(Cleanup::runCleanup(kCleanupManual)), (std::vector<std::string>{"older"}));
}

// ---- Selection ---------------------------------------------------------------------------------

// Edge: with no access at all, every installed pack that isn't long term goes, whatever the room.
TEST_F(CleanupTest, EveryPackAtZeroAccessIsCleanedWhateverTheLimit) {
    setLimits(1000000, 1000000);
    put({installed("a", 10), installed("b", 10), installed("app", 10, 0, kPackTypeACache),
         installed("keep", 10, 9)});
    EXPECT_EQ(names(Cleanup::runCleanup(kCleanupManual)),
              (std::vector<std::string>{"a", "app", "b"}));
    EXPECT_EQ(status("a"), kPackStatusEliminated);
    EXPECT_EQ(status("keep"), kPackStatusNormal);
}

// Edge: priorities 9 and 7 are long term and stay; 8 scores high but can go.
TEST_F(CleanupTest, PriorityNineAndSevenAreNeverCleanedButEightCanBe) {
    setLimits(10, 10);
    put({installed("nine", 500, 9), installed("seven", 500, 7), installed("eight", 500, 8)});
    access("nine", 50);
    access("seven", 50);
    access("eight", 50);
    EXPECT_EQ(names(Cleanup::runCleanup(kCleanupManual)), (std::vector<std::string>{"eight"}));
    EXPECT_TRUE(onDisk("apps/nine/1/res/blob"));
    EXPECT_TRUE(onDisk("apps/seven/1/res/blob"));
    EXPECT_FALSE(onDisk("apps/eight/1/"));
}

// Edge: a pack larger than the whole limit goes, however high its score, and a smaller one of
// lower score behind it still fits.
TEST_F(CleanupTest, PackLargerThanTheLimitIsCleanedWhileASmallerOneStays) {
    setLimits(100, 100);
    put({installed("huge", 200), installed("small", 50)});
    access("huge", 100);
    access("small", 1);
    EXPECT_EQ(names(Cleanup::runCleanup(kCleanupManual)), (std::vector<std::string>{"huge"}));
    EXPECT_EQ(status("small"), kPackStatusNormal);
}

TEST_F(CleanupTest, BudgetIsSharedDownTheListWithoutReset) {
    setLimits(100, 100);
    put({installed("first", 60), installed("second", 60), installed("third", 40)});
    access("first", 30);
    access("second", 20);
    access("third", 10);
    EXPECT_EQ(names(Cleanup::runCleanup(kCleanupManual)), (std::vector<std::string>{"second"}));
}

TEST_F(CleanupTest, EachClassHasItsOwnBudget) {
    setLimits(100, 50);
    put({installed("plain", 80), installed("app", 80, 0, kPackTypeACache)});
    access("plain", 5);
    access("app", 5);
    EXPECT_EQ(names(Cleanup::runCleanup(kCleanupManual)), (std::vector<std::string>{"app"}));
    EXPECT_FALSE(onDisk("apps/app/1/"));
    EXPECT_TRUE(onDisk("apps/plain/1/res/blob"));
}

// Edge: "ferritSizeLimitOpt" 0 falls back to "ferritSizeLimit"; both 0 give the default.
TEST_F(CleanupTest, LimitOptZeroFallsBackToLimitAndBothZeroGiveTheDefault) {
    Settings settings;
    settings.ferritSizeLimitOpt = 0;
    settings.ferritSizeLimit = 777;
    settings.acacheSizeLimitOpt = 0;
    settings.acacheSizeLimit = 888;
    EXPECT_EQ(Cleanup::ferritSizeLimit(settings), 777u);
    EXPECT_EQ(Cleanup::acacheSizeLimit(settings), 888u);
    settings.ferritSizeLimitOpt = 5;
    settings.acacheSizeLimitOpt = 6;
    EXPECT_EQ(Cleanup::ferritSizeLimit(settings), 5u);
    EXPECT_EQ(Cleanup::acacheSizeLimit(settings), 6u);
    settings.ferritSizeLimitOpt = 0;
    settings.ferritSizeLimit = 0;
    settings.acacheSizeLimitOpt = 0;
    settings.acacheSizeLimit = 0;
    EXPECT_EQ(Cleanup::ferritSizeLimit(settings), 52428800u);
    EXPECT_EQ(Cleanup::acacheSizeLimit(settings), 52428800u);
    EXPECT_EQ(Cleanup::ferritSizeLimit(Settings()), 52428800u);
}

TEST_F(CleanupTest, EliminatedPackWithAccessIsRecoveredWithoutUsingTheBudget) {
    setLimits(100, 100);
    auto back = installed("back", 100);
    back->status = kPackStatusEliminated;
    auto idle = installed("idle", 100);
    idle->status = kPackStatusEliminated;
    auto longTerm = installed("resident", 100, 9);
    longTerm->status = kPackStatusEliminated;
    put({back, idle, longTerm, installed("stays", 100)});
    access("back", 5);
    access("stays", 5);
    EXPECT_TRUE(Cleanup::runCleanup(kCleanupManual).empty());
    EXPECT_EQ(status("back"), kPackStatusNormal) << "comes back for the update cycle";
    EXPECT_EQ(status("resident"), kPackStatusNormal) << "a long-term pack always comes back";
    EXPECT_EQ(status("idle"), kPackStatusEliminated) << "nobody used it";
    EXPECT_EQ(status("stays"), kPackStatusNormal);
    const auto recovered = logs_->last("cleanup", "Ferrit/Task").field("recovered");
    EXPECT_EQ(recovered.arrayValue().size(), 2u);
}

TEST_F(CleanupTest, DisabledCleanupDoesNothing) {
    Settings::change([](Settings& s) { s.cleanupEnabled = false; });
    put({installed("a", 10)});
    EXPECT_TRUE(Cleanup::runCleanup(kCleanupManual).empty());
    EXPECT_EQ(status("a"), kPackStatusNormal);
    EXPECT_EQ(logs_->count("cleanup", "Ferrit/Task"), 0u);
}

TEST_F(CleanupTest, SizesAreMeasuredFromTheDiskInOneUpdate) {
    put({installed("a", 123), installed("b", 45, 0, kPackTypeFerrit, true)});
    Cleanup::fillPackSizes();
    EXPECT_GE(find("a")->installedSize, 123u);
    EXPECT_GE(find("b")->installedSize, 45u);
}

TEST_F(CleanupTest, CleanedPackedPackLosesItsKeys) {
    setLimits(10, 10);
    put({installed("p", 100, 0, kPackTypeFerrit, true)});
    ASSERT_FALSE(packedKeys("p/1/").empty());
    EXPECT_EQ(names(Cleanup::runCleanup(kCleanupManual)), (std::vector<std::string>{"p"}));
    EXPECT_TRUE(packedKeys("p/").empty());
}

TEST_F(CleanupTest, LogListsTriggerRecoveredAndCleaned) {
    put({installed("gone", 10)});
    static_cast<void>(Cleanup::runCleanup(kCleanupDebugTool));
    const MarlLogger::LogEntry entry = logs_->last("cleanup", "Ferrit/Task");
    EXPECT_EQ(entry.field("trigger").stringValue(), "DebugTool");
    EXPECT_TRUE(entry.has("time"));
    EXPECT_EQ(entry.field("cleaned").arrayValue().size(), 1u);
    EXPECT_EQ(entry.field("cleaned")[size_t{0}].stringValue(), "gone");
    EXPECT_TRUE(entry.field("recovered").arrayValue().empty());
    EXPECT_TRUE(entry.has("ferrit"));
    EXPECT_FALSE(entry.has("acache")) << "no acache candidates";
}

// ---- Reports -----------------------------------------------------------------------------------

TEST_F(CleanupTest, ReportsCountEveryPackOfTheirType) {
    setLimits(100, 100);
    put({installed("a", 60), installed("b", 60), installed("long", 30, 9),
         record("absent", kPackTypeFerrit, 1, 1), installed("app", 70, 0, kPackTypeACache),
         installed("app2", 70, 0, kPackTypeACache)});
    access("a", 3);
    access("b", 2);
    access("app", 3);
    access("app2", 2);
    proxy_->clearRecords();
    static_cast<void>(Cleanup::runCleanup(kCleanupManual));
    const auto records = proxy_->named("Ferrit.Cleanup");
    ASSERT_EQ(records.size(), 2u);
    const auto& ferrit = records[0];
    const auto& acache = records[1];
    EXPECT_EQ(ferrit.dimensions.at("type"), "Ferrit");
    EXPECT_EQ(ferrit.dimensions.at("trigger"), "Manual");
    EXPECT_EQ(ferrit.dimensions.at("coreVersion"), "10.10.0-rc.5");
    EXPECT_EQ(acache.dimensions.at("type"), "ACache");
    EXPECT_DOUBLE_EQ(ferrit.measures.at("packCount"), 4);
    EXPECT_DOUBLE_EQ(ferrit.measures.at("installedPackCount"), 3);
    EXPECT_DOUBLE_EQ(ferrit.measures.at("longTermPackCount"), 1);
    EXPECT_GE(ferrit.measures.at("longTermSize"), 30);
    EXPECT_DOUBLE_EQ(ferrit.measures.at("accessedPackCount"), 2);
    EXPECT_DOUBLE_EQ(ferrit.measures.at("sizeLimit"), 100);
    EXPECT_DOUBLE_EQ(acache.measures.at("packCount"), 2);
    // The eliminated acache pack is counted in the ordinary report, next to the ordinary one.
    EXPECT_DOUBLE_EQ(ferrit.measures.at("eliminatedPackCount"), 2);
    EXPECT_DOUBLE_EQ(acache.measures.at("eliminatedPackCount"), 0);
    EXPECT_NEAR(ferrit.measures.at("eliminatedAccessCount"), 2 * std::log(3.0), 1e-9);
}

// The acache report names the ordinary limit.
TEST_F(CleanupTest, ACacheReportNamesTheOrdinaryLimit) {
    setLimits(111, 222);
    put({installed("app", 10, 0, kPackTypeACache)});
    proxy_->clearRecords();
    static_cast<void>(Cleanup::runCleanup(kCleanupManual));
    const auto records = proxy_->named("Ferrit.Cleanup");
    ASSERT_EQ(records.size(), 1u) << "no ordinary candidates: no ordinary report";
    EXPECT_EQ(records[0].dimensions.at("type"), "ACache");
    EXPECT_DOUBLE_EQ(records[0].measures.at("sizeLimit"), 111);
}

TEST_F(CleanupTest, ReportIsSentForCandidatesEvenWhenNothingGoes) {
    setLimits(1000, 1000);
    put({installed("a", 10)});
    access("a", 5);
    proxy_->clearRecords();
    EXPECT_TRUE(Cleanup::runCleanup(kCleanupManual).empty());
    EXPECT_EQ(proxy_->named("Ferrit.Cleanup").size(), 1u);
}

TEST_F(CleanupTest, NoCandidatesSendNoReport) {
    put({installed("long", 10, 9), record("absent", kPackTypeFerrit, 1, 1)});
    proxy_->clearRecords();
    static_cast<void>(Cleanup::runCleanup(kCleanupManual));
    EXPECT_TRUE(proxy_->named("Ferrit.Cleanup").empty());
}

// ---- The timer ---------------------------------------------------------------------------------

TEST_F(CleanupTest, RegularRunComesOnTheTimerAfterSevenDays) {
    Cleanup::scheduleCleanup(Cleanup::kIntervalMs);
    drive();
    const size_t runs = logs_->count("cleanup", "Ferrit/Task");
    put({installed("idle", 10)});
    clock_->advance(Cleanup::kIntervalMs - 1000);
    drive();
    EXPECT_EQ(logs_->count("cleanup", "Ferrit/Task"), runs);
    EXPECT_EQ(status("idle"), kPackStatusNormal);
    clock_->advance(2000);
    drive();
    EXPECT_EQ(logs_->count("cleanup", "Ferrit/Task"), runs + 1);
    EXPECT_EQ(logs_->last("cleanup", "Ferrit/Task").field("trigger").stringValue(), "Regular");
    EXPECT_EQ(status("idle"), kPackStatusEliminated);
}

TEST_F(CleanupTest, ExplicitRunPostponesTheRegularOne) {
    Cleanup::scheduleCleanup(Cleanup::kIntervalMs);
    drive();
    clock_->advance(Cleanup::kIntervalMs / 2);
    static_cast<void>(Cleanup::runCleanup(kCleanupManual));
    const size_t runs = logs_->count("cleanup", "Ferrit/Task");
    clock_->advance(Cleanup::kIntervalMs / 2 + 1);
    drive();
    EXPECT_EQ(logs_->count("cleanup", "Ferrit/Task"), runs)
        << "seven days count from the manual run";
    clock_->advance(Cleanup::kIntervalMs / 2);
    drive();
    EXPECT_EQ(logs_->count("cleanup", "Ferrit/Task"), runs + 1);
}

// ---- The gate before a download ----------------------------------------------------------------

TEST_F(CleanupTest, MayInstallCountsOnlyInstalledPacksOfTheSameClassThatAreNotLongTerm) {
    setLimits(100, 100);
    put({installed("resident", 500, 9), installed("app", 500, 0, kPackTypeACache),
         installed("small", 50), record("new", kPackTypeFerrit, 1, 1)});
    EXPECT_TRUE(Cleanup::mayInstall(*find("new"), kTriggerTimer));
    put({installed("more", 50)});
    EXPECT_FALSE(Cleanup::mayInstall(*find("new"), kTriggerTimer));
}

TEST_F(CleanupTest, MayInstallPassesInstalledLongTermPreviewAndDebugTool) {
    setLimits(10, 10);
    put({installed("big", 500), record("new", kPackTypeFerrit, 1, 1),
         record("resident", kPackTypeFerrit, 1, 1, 7)});
    EXPECT_TRUE(Cleanup::mayInstall(*find("big"), kTriggerTimer));
    EXPECT_TRUE(Cleanup::mayInstall(*find("resident"), kTriggerTimer));
    EXPECT_TRUE(Cleanup::mayInstall(*find("new"), kTriggerPreview));
    EXPECT_TRUE(Cleanup::mayInstall(*find("new"), kTriggerDebugTool));
    EXPECT_FALSE(Cleanup::mayInstall(*find("new"), kTriggerPush));
    EXPECT_EQ(status("big"), kPackStatusNormal) << "no cleanup for those";
}

// Edge: trigger 7 behaves as 6: bit 0 is ignored.
TEST_F(CleanupTest, MayInstallWithVisitUpdateBehavesAsVisit) {
    setLimits(10, 10);
    put({installed("big", 500), installed("app", 500, 0, kPackTypeACache),
         record("new", kPackTypeFerrit, 1, 1), record("newApp", kPackTypeACache, 1, 1)});
    EXPECT_TRUE(Cleanup::mayInstall(*find("new"), kTriggerVisitUpdate));
    EXPECT_EQ(logs_->last("cleanup", "Ferrit/Task").field("trigger").stringValue(), "Ferrit");
    EXPECT_EQ(status("big"), kPackStatusEliminated);
    EXPECT_TRUE(Cleanup::mayInstall(*find("newApp"), kTriggerVisit));
    EXPECT_EQ(logs_->last("cleanup", "Ferrit/Task").field("trigger").stringValue(), "ACache");
}

// ---- Recovery ----------------------------------------------------------------------------------

// Edge: a stray sequence folder goes; its pack folder stays while another sequence is valid.
TEST_F(CleanupTest, StraySequenceFolderIsDeletedAndThePackFolderStays) {
    put({installed("shop", 10, 0, kPackTypeFerrit, false, 2)});
    touch("apps/shop/1/res/old.js");
    Cleanup::recover();
    EXPECT_FALSE(onDisk("apps/shop/1"));
    EXPECT_TRUE(onDisk("apps/shop/2/res/blob"));
}

TEST_F(CleanupTest, PackFolderWithNoRecordIsDeleted) {
    put({installed("shop", 10)});
    touch("apps/orphan/3/res/a.js");
    Cleanup::recover();
    EXPECT_FALSE(onDisk("apps/orphan"));
    EXPECT_TRUE(onDisk("apps/shop/1/res/blob"));
}

TEST_F(CleanupTest, RecordWhoseFolderIsMissingIsLeftToTheReadPath) {
    auto gone = record("gone", kPackTypeFerrit, 4, 1);
    gone->installedSeq = 4;
    put({gone, installed("shop", 10)});
    Cleanup::recover();
    EXPECT_EQ(find("gone")->installedSeq, 4u) << "recovery repairs no record";
    EXPECT_FALSE(onDisk("apps/gone"));
    EXPECT_TRUE(onDisk("apps/shop/1/res/blob"));
}

TEST_F(CleanupTest, PacksStoreKeysOfUnknownPacksAreDeleted) {
    put({installed("kept", 10, 0, kPackTypeFerrit, true)});
    putKey("unknown/1/res/a.js");
    putKey("kept/0/res/old.js");
    putKey("loose");
    Cleanup::recover();
    EXPECT_FALSE(hasKey("unknown/1/res/a.js"));
    EXPECT_FALSE(hasKey("kept/0/res/old.js"));
    EXPECT_FALSE(hasKey("loose"));
    EXPECT_TRUE(hasKey("kept/1/res/blob"));
    EXPECT_TRUE(hasKey("config")) << "the configuration is never a pack's key";
}

TEST_F(CleanupTest, FileWhereAFolderShouldBeIsDeleted) {
    put({installed("shop", 10)});
    touch("apps/stray-file");
    touch("apps/shop/stray-file");
    Cleanup::recover();
    EXPECT_FALSE(onDisk("apps/stray-file"));
    EXPECT_FALSE(onDisk("apps/shop/stray-file"));
    EXPECT_TRUE(onDisk("apps/shop/1/res/blob"));
}

TEST_F(CleanupTest, UnreadableFolderIsDeletedAndOwnedFoldersStay) {
    put({installed("shop", 10)});
    touch("apps/locked/1/res/a.js");
    ASSERT_EQ(::chmod((temp_.path() / "apps/locked").c_str(), 0), 0);
    Cleanup::recover();
    std::error_code ignored;
    std::filesystem::permissions(temp_.path() / "apps/locked", std::filesystem::perms::owner_all,
                                 ignored);
    EXPECT_TRUE(onDisk("apps/shop/1/res/blob"));
    if (::geteuid() == 0) {
        EXPECT_FALSE(onDisk("apps/locked")) << "root reads it and deletes it";
    }
    EXPECT_EQ(logs_->count("recovery", "Ferrit/Task"), 1u) << "recovery went on to its end";
}

TEST_F(CleanupTest, LastInvalidPathIsLeftOutOfTheLog) {
    put({installed("shop", 10)});
    mkdir("apps/one/1");
    const std::vector<std::string> logged = Cleanup::recover();
    EXPECT_FALSE(onDisk("apps/one")) << "deleted all the same";
    ASSERT_EQ(logged.size(), 1u);
    EXPECT_NE(logged[0].find("apps/one/1"), std::string::npos);
    EXPECT_EQ(logs_->last("recovery", "Ferrit/Task").field("invalidPaths").arrayValue().size(), 1u);
}

TEST_F(CleanupTest, EmptyConfigurationMakesEveryPackFolderInvalid) {
    touch("apps/a/1/res/x");
    touch("apps/b/2/res/y");
    Cleanup::recover();
    EXPECT_FALSE(onDisk("apps/a"));
    EXPECT_FALSE(onDisk("apps/b"));
}

TEST_F(CleanupTest, RecoveryAtStartSkipsAnEmptyConfiguration) {
    touch("apps/a/1/res/x");
    Cleanup::recoverLeftovers();
    EXPECT_TRUE(onDisk("apps/a/1/res/x"));
    put({installed("shop", 10)});
    Cleanup::recoverLeftovers();
    EXPECT_FALSE(onDisk("apps/a"));
}

TEST_F(CleanupTest, BusyPacksAreLeftAlone) {
    put({installed("shop", 10)});
    touch("apps/installing/7/res/a.js");
    putKey("installing/7/res/a.js");
    Cleanup::setBusyPacks([](std::string_view name) { return name == "installing"; });
    Cleanup::recover();
    EXPECT_TRUE(onDisk("apps/installing/7/res/a.js"));
    EXPECT_TRUE(hasKey("installing/7/res/a.js"));
    Cleanup::setBusyPacks(nullptr);
    Cleanup::recover();
    EXPECT_FALSE(onDisk("apps/installing"));
    EXPECT_FALSE(hasKey("installing/7/res/a.js"));
}

// Recovery never deletes what an installed record owns: 50 owned and 50 unowned items, on the
// disk and in the packs store, made in a shuffled order.
TEST_F(CleanupTest, RecoveryKeepsEveryOwnedItemAmongAsManyUnownedOnes) {
    std::mt19937_64 random(1505);
    std::vector<int> order(100);
    for (int i = 0; i < 100; ++i) order[i] = i;
    std::shuffle(order.begin(), order.end(), random);
    std::vector<std::shared_ptr<Pack>> owned;
    std::vector<std::string> unownedDisk, unownedKeys;
    for (int i : order) {
        const std::string name = "p" + std::to_string(i);
        const bool packed = (random() & 1) != 0;
        if (i < 50) {
            owned.push_back(installed(name, 10 + i, 0, kPackTypeFerrit, packed, 1 + i % 3));
        } else if (packed) {
            putKey(name + "/1/res/a.js");
            unownedKeys.push_back(name + "/1/res/a.js");
        } else if (i % 2 == 0) {
            touch("apps/" + name + "/1/res/a.js");
            unownedDisk.push_back("apps/" + name);
        } else {
            // A stray version beside an owned pack's folder.
            const std::string beside = "p" + std::to_string(i - 50);
            touch("apps/" + beside + "/9/res/a.js");
            unownedDisk.push_back("apps/" + beside + "/9");
        }
    }
    put(owned);
    Cleanup::recover();
    for (const auto& p : owned) {
        if (p->isPacks) {
            EXPECT_FALSE(packedKeys(p->installedFolder().relative()).empty()) << p->name;
        } else {
            EXPECT_TRUE(std::filesystem::exists(p->installedFolder().absolute() + "res/blob"))
                << p->name;
        }
    }
    for (const std::string& path : unownedDisk) EXPECT_FALSE(onDisk(path)) << path;
    for (const std::string& key : unownedKeys) EXPECT_FALSE(hasKey(key)) << key;
}

// ---- The budget --------------------------------------------------------------------------------

// 500 installed packs three times over the limit, random histories: one regular run brings the
// total under the limit, keeps every long-term pack and the best-scored packs that fit; a second
// run removes nothing.
TEST_F(CleanupTest, OneRegularRunBringsFiveHundredPacksWithinTheLimit) {
    constexpr uint64_t kLimit = 500000;
    setLimits(kLimit, kLimit);
    std::mt19937_64 random(500);
    std::vector<std::shared_ptr<Pack>> packs;
    uint64_t total = 0;
    for (int i = 0; i < 500; ++i) {
        const uint64_t size = 1000 + random() % 4000;  // averages 3000: 3x the limit over 500
        const uint32_t priority = static_cast<uint32_t>(random() % 10);
        packs.push_back(installed("pack" + std::to_string(i), size, priority));
        packs.back()->updateTime = 1000.0 + i;
        if (!Cleanup::isLongTerm(*packs.back())) total += size;
        const int accesses = static_cast<int>(random() % 6);
        if (accesses > 0) access(packs.back()->name, accesses);
    }
    ASSERT_GT(total, 2 * kLimit);
    put(packs);
    static_cast<void>(Cleanup::runCleanup(kCleanupRegular));

    // What should stay: the candidates in rank order, each kept while it fits.
    std::vector<CleanupCandidate> ranked;
    for (const auto& p : packs) {
        const PackPtr now = find(p->name);
        if (Cleanup::isLongTerm(*now)) {
            EXPECT_EQ(now->status, kPackStatusNormal) << now->name;
            continue;
        }
        CleanupCandidate c;
        c.pack = now;
        c.access = Statistics::accessValue(now->name);
        c.score = Cleanup::evictionScore(*now, c.access);
        c.size = now->installedSize;
        c.installed = true;
        ranked.push_back(c);
    }
    std::sort(ranked.begin(), ranked.end(),
              [](const CleanupCandidate& x, const CleanupCandidate& y) {
                  return Cleanup::ranksBelow(y, x);
              });
    uint64_t budget = kLimit;
    uint64_t kept = 0;
    for (const CleanupCandidate& c : ranked) {
        const bool stays = c.access > 0 && budget >= c.size;
        if (stays) {
            budget -= c.size;
            kept += c.size;
        }
        EXPECT_EQ(status(c.pack->name), stays ? kPackStatusNormal : kPackStatusEliminated)
            << c.pack->name;
        EXPECT_EQ(std::filesystem::exists(c.pack->installedFolder().absolute()), stays)
            << c.pack->name;
    }
    EXPECT_LE(kept, kLimit);
    EXPECT_GT(kept, kLimit / 2);

    EXPECT_TRUE(Cleanup::runCleanup(kCleanupRegular).empty()) << "a second run removes nothing";
}

// 200 packs installed through the queue from zips the pack kit built, with the room to hold them;
// once the limit drops to a third of what they take, one regular run brings what stays within it,
// measured on the disk, and what stays still serves.
TEST_F(CleanupTest, TwoHundredInstalledPacksAreBroughtWithinALoweredLimit) {
    constexpr int kCount = 200;
    setLimits(100000000, 100000000);
    std::mt19937_64 random(200);
    for (int i = 0; i < kCount; ++i) {
        const std::string name = "site" + std::to_string(i);
        PackFiles files = version1();
        files["blob.bin"] = std::string(500 + random() % 3000, static_cast<char>('a' + i % 26));
        const std::string zip = zipOf(files);
        auto p = record(name, kPackTypeFerrit, 1, 1, kPriorityAutoInstall);
        p->md5 = Digest::md5Hex(zip);
        put({p});
        serveFull(name, 1, zip);
        const Error error = update(name, kTriggerTimer);
        ASSERT_FALSE(error) << name << ": " << error.message();
        if (random() % 3 != 0) access(name, static_cast<double>(1 + random() % 5));
    }
    Cleanup::fillPackSizes();
    uint64_t before = 0;
    for (int i = 0; i < kCount; ++i) before += find("site" + std::to_string(i))->installedSize;
    const uint64_t limit = before / 3;
    setLimits(limit, limit);

    const std::vector<PackPtr> cleaned = Cleanup::runCleanup(kCleanupRegular);
    EXPECT_FALSE(cleaned.empty());
    uint64_t kept = 0;
    for (int i = 0; i < kCount; ++i) {
        const PackPtr p = find("site" + std::to_string(i));
        const uint64_t onDiskSize = p->installedFolder().diskSize();
        if (p->status == kPackStatusEliminated) {
            EXPECT_EQ(onDiskSize, 0u) << p->name;
        } else {
            EXPECT_GT(onDiskSize, 0u) << p->name;
            kept += onDiskSize;
        }
    }
    EXPECT_LE(kept, limit);
    EXPECT_TRUE(Cleanup::runCleanup(kCleanupRegular).empty());
}

}  // namespace
}  // namespace FerritTest
