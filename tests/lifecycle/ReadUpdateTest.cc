// The read path's requests for updates, wired by the composition root to the update queue: a
// read of a pack that cannot serve asks for it at once ("Visit"), a read of a pack with a newer
// version configured asks five seconds later ("VisitUpdate"), and a file that is gone marks the
// pack for reinstall. With the worker driven by the test, each ends with the version installed.
#include <gtest/gtest.h>

#include "base/Errors.h"
#include "lifecycle/Services.h"
#include "tests/update/InstallFixture.h"

namespace FerritTest {

namespace Errors = FerritCore::Errors;
namespace {

// The delay of a read's request for a newer version.
constexpr double kVisitUpdateDelayMs = 5000.0;

class ReadUpdateTest : public InstallFixture {
  protected:
    void SetUp() override {
        InstallFixture::SetUp();
        Services::wire();
    }
    // Requests for packs that the proxy saw, in order.
    std::vector<std::string> zipRequests() const {
        std::vector<std::string> out;
        for (const ProxyRequest& request : proxy_->requests) out.push_back(request.url);
        return out;
    }
    void installShop(uint64_t seq, const PackFiles& files) {
        const std::string zip = zipOf(files);
        PackPtr old = find("shop");
        auto p =
            old ? old->clone() : record("shop", kPackTypeFerrit, seq, seq, kPriorityAutoInstall);
        p->seq = seq;
        p->baseSeq = seq;
        p->md5 = Digest::md5Hex(zip);
        put({p});
        serveFull("shop", seq, zip);
    }
};

TEST_F(ReadUpdateTest, ReadOfAnUninstalledPackAsksForItAndTheNextReadIsServed) {
    installShop(1, version1());
    const Answer first = read("index.html");
    EXPECT_EQ(first.error.code(), Errors::kNotInstalled);
    drive();
    EXPECT_EQ(zipRequests(), (std::vector<std::string>{"https://dl.test/shop/1.zip"}));
    EXPECT_EQ(find("shop")->installedSeq, 1u);
    // A visit records its trigger on the installed record.
    EXPECT_EQ(find("shop")->trigger, static_cast<uint32_t>(kTriggerVisit));
    expectServes(version1());
}

TEST_F(ReadUpdateTest, ReadOfAStalePackEndsWithTheNewVersionInstalled) {
    installShop(1, version1());
    ASSERT_FALSE(update("shop", kTriggerTimer));
    installShop(2, version2());
    proxy_->requests.clear();

    // The read is served from the installed version at once; the newer one is asked for later.
    const Answer answer = read("index.html");
    EXPECT_FALSE(answer.error) << answer.error.message();
    EXPECT_EQ(answer.body, version1().at("index.html"));
    drive();
    EXPECT_TRUE(zipRequests().empty());
    clock_->advance(kVisitUpdateDelayMs);
    drive();
    EXPECT_EQ(zipRequests(), (std::vector<std::string>{"https://dl.test/shop/2.zip"}));
    EXPECT_EQ(find("shop")->installedSeq, 2u);
    expectServes(version2());
}

TEST_F(ReadUpdateTest, ReadsOfManyFilesOfAStalePackInstallItOnce) {
    installShop(1, version1());
    ASSERT_FALSE(update("shop", kTriggerTimer));
    installShop(2, version2());
    proxy_->requests.clear();
    FakeProxy::Answer held;
    held.body = zipOf(version2());
    held.hold = true;
    proxy_->serve("https://dl.test/shop/2.zip", held);
    for (const auto& [path, content] : version1()) static_cast<void>(read(path));
    clock_->advance(kVisitUpdateDelayMs);
    drive();
    for (const auto& [path, content] : version1()) static_cast<void>(read(path));
    clock_->advance(kVisitUpdateDelayMs);
    drive();
    EXPECT_EQ(zipRequests().size(), 1u);
    proxy_->release();
    drive();
    expectServes(version2());
}

TEST_F(ReadUpdateTest, ResourceMissingFromTheOldVersionPullsTheNewOne) {
    installShop(1, version1());
    ASSERT_FALSE(update("shop", kTriggerTimer));
    installShop(2, version2());
    EXPECT_EQ(read("js/extra.js").error.code(), Errors::kNotFerritPackResource);
    clock_->advance(kVisitUpdateDelayMs);
    drive();
    EXPECT_EQ(find("shop")->installedSeq, 2u);
    EXPECT_EQ(read("js/extra.js").body, version2().at("js/extra.js"));
}

TEST_F(ReadUpdateTest, FileGoneFromTheInstalledFolderIsRepairedByAReinstall) {
    put({record("app", kPackTypeACache, 1, 1, kPriorityAutoInstall)});
    serveFull("app", 1, zipOf(version1()), kAppZipPrefix);
    ASSERT_FALSE(update("app", kTriggerTimer));
    std::filesystem::remove(temp_.path() / "apps/app/1/res/js/app.js");

    EXPECT_EQ(read("js/app.js").error.code(), Errors::kPackFileNotFound);
    drive();
    EXPECT_EQ(find("app")->status, kPackStatusNeedReinstall);
    // The next trigger reinstalls the same version over the damaged folder.
    const Error error = update("app", kTriggerTimer);
    ASSERT_FALSE(error) << error.message();
    EXPECT_EQ(find("app")->status, kPackStatusNormal);
    EXPECT_EQ(find("app")->installedSeq, 1u);
    expectServes(version1());
    settle();
    EXPECT_TRUE(tempLeft().empty());
}

TEST_F(ReadUpdateTest, ListThatNoLongerLoadsIsRepairedByAReinstall) {
    installShop(1, version1());
    ASSERT_FALSE(update("shop", kTriggerTimer));
    PackedFiles::current()->removeByPrefix("shop/1/app-res.hvc");
    ResourceIndexPool::clear();

    EXPECT_EQ(read("index.html").error.code(), Errors::kFileNotExists);
    drive();
    EXPECT_EQ(find("shop")->status, kPackStatusNeedReinstall);
    // A read that needs the pack now asks for it.
    EXPECT_FALSE(update("shop", kTriggerVisit));
    expectServes(version1());
}

}  // namespace
}  // namespace FerritTest
