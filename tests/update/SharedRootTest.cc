// A root shared with another process, played in one process: the other process's install is its
// version written to the packed store and its document committed through a second connection to
// the store's database, as another process's commits arrive. (The test with two real processes
// is tests/crash/TwoProcessTest.cc.)
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "storage/KeyValueStore.h"
#include "tests/update/InstallFixture.h"

namespace FerritTest {
namespace {

class SharedRootTest : public InstallFixture {
  protected:
    void SetUp() override {
        InstallFixture::SetUp();
        ASSERT_EQ(KeyValueStore::open(PacksStore::instance().path(),
                                      KeyValueStore::Options::forPacks(), &other_),
                  0);
    }
    void TearDown() override {
        other_.reset();
        InstallFixture::TearDown();
    }

    // What the other process leaves after installing `files` as version `seq` of "shop": the
    // version's folder, and its document with the record installed at `seq`.
    void installElsewhere(uint64_t seq, const PackFiles& files) {
        auto installed = find("shop")->clone();
        installed->seq = seq;
        installed->baseSeq = seq;
        installed->installedSeq = seq;
        installed->installedBaseSeq = seq;
        installed->isPacks = true;
        installed->installTime = MRLCurrentTime() + 1;
        ASSERT_NO_FATAL_FAILURE(writeVersion(installed->installedFolder(), files));
        FConfig document = SCache::current()->copyForChange();
        document.store(installed);
        ASSERT_EQ(other_->insert(PacksStore::kConfigKey, document.serialize()), 0);
    }
    size_t zipRequests() const {
        size_t count = 0;
        for (const ProxyRequest& request : proxy_->requests)
            if (!request.tempFilePath.empty()) ++count;
        return count;
    }

    std::unique_ptr<KeyValueStore> other_;
};

TEST_F(SharedRootTest, ReadOfARetiredVersionAnswersFromTheOneThatReplacedIt) {
    installShop();
    expectServes(version1());
    ASSERT_NO_FATAL_FAILURE(installElsewhere(2, version2()));
    PackedFiles::current()->removeByPrefix("shop/1/");  // the other process retires version 1

    expectServes(version2());
    EXPECT_EQ(SCache::reloadCount(), 1u);
    EXPECT_EQ(find("shop")->installedSeq, 2u);
    // The failed first look asked for no repair of what the other process installed.
    drive();
    EXPECT_EQ(find("shop")->status, static_cast<uint32_t>(kPackStatusNormal));
    EXPECT_EQ(find("shop")->installedSeq, 2u);
}

TEST_F(SharedRootTest, MissOfAURLThatOnlyTheNewVersionHasIsServed) {
    installShop();
    expectServes(version1());
    ASSERT_NO_FATAL_FAILURE(installElsewhere(2, version2()));
    // Version 1 is still in place: its files answer until something fails.
    const Answer added = read("js/extra.js");
    EXPECT_FALSE(added.error) << added.error.message();
    EXPECT_EQ(added.body, version2().at("js/extra.js"));
    EXPECT_EQ(find("shop")->installedSeq, 2u);
}

TEST_F(SharedRootTest, AsyncReadOfARetiredVersionAnswersFromTheNewOne) {
    installShop();
    expectServes(version1());
    ASSERT_NO_FATAL_FAILURE(installElsewhere(2, version2()));
    PackedFiles::current()->removeByPrefix("shop/1/");
    std::unique_ptr<ResourceResponse> response;
    Access::getResource(ResourceRequest(std::string(kSite) + "index.html", std::string()),
                        [&](std::unique_ptr<ResourceResponse> r) { response = std::move(r); });
    ASSERT_TRUE(response);
    EXPECT_FALSE(response->error) << response->error.message();
    EXPECT_EQ(response->data, version2().at("index.html"));
}

TEST_F(SharedRootTest, TriggerAfterAnotherProcessInstalledFetchesNothing) {
    installShop();
    // This process has heard of version 2 too, and would fetch it ...
    auto wanted = find("shop")->clone();
    wanted->seq = 2;
    wanted->baseSeq = 2;
    put({wanted});
    const size_t before = zipRequests();
    // ... but the other process installs it first.
    ASSERT_NO_FATAL_FAILURE(installElsewhere(2, version2()));
    const Error error = update("shop", kTriggerTimer);
    EXPECT_FALSE(error) << error.message();
    EXPECT_EQ(zipRequests(), before) << "version 2 downloaded again";
    EXPECT_EQ(find("shop")->installedSeq, 2u);
    expectServes(version2());
}

TEST_F(SharedRootTest, StartOfUpdatingDecidesOnWhatIsStored) {
    installShop();
    auto wanted = find("shop")->clone();
    wanted->seq = 2;
    wanted->baseSeq = 2;
    put({wanted});
    const size_t before = zipRequests();
    ASSERT_NO_FATAL_FAILURE(installElsewhere(2, version2()));
    UpdateQueue::start(kTriggerActive);
    drive();
    EXPECT_EQ(zipRequests(), before);
    EXPECT_EQ(find("shop")->installedSeq, 2u);
}

}  // namespace
}  // namespace FerritTest
