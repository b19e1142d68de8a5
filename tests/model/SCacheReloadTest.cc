// The configuration as another process on the same root leaves it: documents committed to the
// packs store behind this process's back, through a second connection to the same database, as
// another process's commits arrive.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "model/PacksConfigStorage.h"
#include "storage/KeyValueStore.h"
#include "storage/PacksStore.h"
#include "tests/model/UpdateFixture.h"

namespace FerritTest {
namespace {

class SCacheReloadTest : public ProcessTest {
  protected:
    void SetUp() override {
        ProcessTest::SetUp();
        SCache::setStorage(std::make_shared<PacksConfigStorage>());
        ASSERT_TRUE(PacksStore::instance().isOpen());
        ASSERT_EQ(KeyValueStore::open(PacksStore::instance().path(),
                                      KeyValueStore::Options::forPacks(), &other_),
                  0);
    }
    void TearDown() override {
        other_.reset();
        ProcessTest::TearDown();
    }

    // A document of one pack, `name`, configured at `seq` and installed at `installedSeq`.
    static std::shared_ptr<FConfig> document(const std::string& version, const std::string& name,
                                             uint64_t seq, uint64_t installedSeq) {
        auto config = std::make_shared<FConfig>();
        config->version = version;
        auto pack = std::make_shared<Pack>();
        pack->name = name;
        pack->flags = kPackTypeFerrit;
        pack->seq = seq;
        pack->baseSeq = seq;
        pack->installedSeq = installedSeq;
        pack->installedBaseSeq = installedSeq;
        pack->installTime = 1000.0 * static_cast<double>(installedSeq);
        pack->prefixes = {"https://shop.test/app/"};
        config->store(pack);
        return config;
    }
    // What another process commits.
    void commitElsewhere(const FConfig& config) {
        ASSERT_EQ(other_->insert(PacksStore::kConfigKey, config.serialize()), 0);
    }
    static uint64_t installedSeq(const std::string& name) {
        const PackPtr pack = SCache::current()->find(name);
        return pack ? pack->installedSeq : 0;
    }

    MarlLogger::ScopedManualClock clock_;
    MarlLogger::ScopedCapture logs_;
    std::unique_ptr<KeyValueStore> other_;
};

TEST_F(SCacheReloadTest, RefreshReloadsWhatAnotherProcessCommitted) {
    SCache::publish(document("1", "shop", 1, 1));
    EXPECT_FALSE(SCache::refresh()) << "nothing committed since the load";

    commitElsewhere(*document("2", "shop", 2, 2));
    EXPECT_TRUE(SCache::refresh());
    EXPECT_EQ(installedSeq("shop"), 2u);
    EXPECT_EQ(SCache::current()->version, "2");
    EXPECT_EQ(SCache::reloadCount(), 1u);
    EXPECT_FALSE(SCache::current()->urlIndex().empty() && SCache::current()->prefixTree().empty())
        << "the matcher's tables are built";
    EXPECT_EQ(logs_->last("reload", "Ferrit/SCache").field("changedPacks").int64Value(), 1);

    EXPECT_FALSE(SCache::refresh()) << "the same commit is not reloaded twice";
    EXPECT_EQ(SCache::reloadCount(), 1u);
}

TEST_F(SCacheReloadTest, OwnCommitsAreNotReloaded) {
    SCache::publish(document("1", "shop", 1, 1));
    ASSERT_FALSE(PacksStore::instance().writeConfig(document("9", "shop", 9, 9)->serialize()));
    EXPECT_FALSE(SCache::refresh());
    EXPECT_EQ(installedSeq("shop"), 1u);
}

TEST_F(SCacheReloadTest, FirstLookWithoutALoadOnlyTakesTheBaseline) {
    // Nothing was loaded through the store yet: what is stored is not known to be newer than the
    // document in memory, and replacing that with it could lose it.
    commitElsewhere(*document("2", "other", 2, 2));
    EXPECT_FALSE(SCache::refresh());
    EXPECT_EQ(SCache::current()->find("other"), nullptr);
    commitElsewhere(*document("3", "shop", 3, 3));
    EXPECT_TRUE(SCache::refresh());
    EXPECT_EQ(installedSeq("shop"), 3u);
}

TEST_F(SCacheReloadTest, LoadTakenBeforeTheReadCatchesACommitInBetween) {
    const uint64_t before = SCache::storedVersion();
    commitElsewhere(*document("2", "shop", 2, 2));  // lands after the number, before the read
    SCache::publish(document("1", "shop", 1, 1), before);
    EXPECT_TRUE(SCache::refresh());
    EXPECT_EQ(installedSeq("shop"), 2u);
}

TEST_F(SCacheReloadTest, PendingLocalCommitIsNeverUndoneByAReload) {
    SCache::publish(document("1", "shop", 1, 1));
    SCache::mutate(
        [](FConfig& config) { config.setInstalled("shop", kTriggerVisit, 5, 5, 10, false); });
    commitElsewhere(*document("2", "shop", 2, 2));
    EXPECT_FALSE(SCache::refresh()) << "the local change is not written yet";
    EXPECT_EQ(installedSeq("shop"), 5u);
    TaskRunner::runDue();  // the commit: this process's document is now the stored one
    EXPECT_EQ(installedSeq("shop"), 5u);
}

TEST_F(SCacheReloadTest, TransactionBuildsOnWhatAnotherProcessCommitted) {
    SCache::publish(document("1", "shop", 1, 1));
    commitElsewhere(*document("2", "shop", 2, 2));
    SCache::mutate([](FConfig& config) { config.version = "3"; });
    EXPECT_EQ(installedSeq("shop"), 2u) << "not the version 1 this process loaded";
    TaskRunner::runDue();
    Error error;
    const std::string stored = PacksStore::instance().readConfig().valueOr("");
    auto written = FConfig::parse(stored, "local", error, false);
    ASSERT_TRUE(written) << error.message();
    EXPECT_EQ(written->find("shop")->installedSeq, 2u);
}

TEST_F(SCacheReloadTest, ReloadDropsTheIndexOfAPackInstalledAgain) {
    int loads = 0;
    uint64_t loadedSeq = 0;
    ResourceIndexPool::setLoader([&](const Pack& pack) {
        ++loads;
        loadedSeq = pack.installedSeq;
        return std::make_shared<const ResourceIndex>(pack.name, Error());
    });
    SCache::publish(document("1", "shop", 1, 1));
    const ResourceIndexPtr first = ResourceIndexPool::get(*SCache::current()->find("shop"));
    EXPECT_EQ(ResourceIndexPool::get(*SCache::current()->find("shop")), first);
    EXPECT_EQ(loads, 1);

    commitElsewhere(*document("2", "shop", 2, 2));
    ASSERT_TRUE(SCache::refresh());
    const ResourceIndexPtr second = ResourceIndexPool::get(*SCache::current()->find("shop"));
    EXPECT_NE(second, first);
    EXPECT_EQ(loads, 2);
    EXPECT_EQ(loadedSeq, 2u);
    ResourceIndexPool::setLoader(nullptr);
}

TEST_F(SCacheReloadTest, PoolNeverServesTheIndexOfAnotherInstallation) {
    // A thread that still holds the older document may load its index after the reload dropped
    // it; a lookup for the newer record then loads the newer index all the same.
    int loads = 0;
    ResourceIndexPool::setLoader([&](const Pack& pack) {
        ++loads;
        return std::make_shared<const ResourceIndex>(pack.name, Error());
    });
    const PackPtr one = document("1", "shop", 1, 1)->find("shop");
    const PackPtr two = document("2", "shop", 2, 2)->find("shop");
    const ResourceIndexPtr oldIndex = ResourceIndexPool::get(*one);
    const ResourceIndexPtr newIndex = ResourceIndexPool::get(*two);
    EXPECT_NE(oldIndex, newIndex);
    EXPECT_EQ(ResourceIndexPool::get(*two), newIndex);
    EXPECT_EQ(loads, 2);
    ResourceIndexPool::setLoader(nullptr);
}

TEST_F(SCacheReloadTest, BuiltInPacksStayAsThisProcessLoadedThem) {
    auto loaded = document("1", "shop", 1, 1);
    auto builtIn = std::make_shared<Pack>();
    builtIn->name = "assets";
    builtIn->flags = kPackTypeSCache;
    builtIn->seq = builtIn->installedSeq = 4;
    loaded->store(builtIn);
    loaded->scacheVersion = "7";
    SCache::publish(loaded);

    auto stored = document("2", "shop", 2, 2);
    auto othersBuiltIn = builtIn->clone();
    othersBuiltIn->seq = othersBuiltIn->installedSeq = 3;
    stored->store(othersBuiltIn);
    commitElsewhere(*stored);
    ASSERT_TRUE(SCache::refresh());
    EXPECT_EQ(installedSeq("assets"), 4u);
    EXPECT_EQ(SCache::current()->scacheVersion, "7");
    EXPECT_EQ(installedSeq("shop"), 2u);
}

TEST_F(SCacheReloadTest, StoredDocumentThatDoesNotReadKeepsThePresentOne) {
    SCache::publish(document("1", "shop", 1, 1));
    ASSERT_EQ(other_->insert(PacksStore::kConfigKey, "{not json"), 0);
    EXPECT_FALSE(SCache::refresh());
    EXPECT_EQ(installedSeq("shop"), 1u);
    const auto warning = logs_->last("reload", "Ferrit/SCache");
    EXPECT_FALSE(warning.errorCode.empty()) << "the failure says why";
    logs_->clear();
    EXPECT_FALSE(SCache::refresh()) << "not read again before the next commit";
    EXPECT_EQ(logs_->count("reload", "Ferrit/SCache"), 0u);
}

}  // namespace
}  // namespace FerritTest
