// Pack installs end to end: the queue makes a task, the task fetches through the test proxy, and
// the installed version is read back through Access.
#include <gtest/gtest.h>

#include "tests/update/InstallFixture.h"

namespace FerritTest {
namespace {

class PackInstallTest : public InstallFixture {};

TEST_F(PackInstallTest, FullInstallOfAPlainPackServesEveryFile) {
    const std::string zip = zipOf(version1());
    auto p = record("shop", kPackTypeFerrit, 1, 1, kPriorityAutoInstall);
    p->md5 = Digest::md5Hex(zip);
    put({p});
    serveFull("shop", 1, zip);

    const Error error = update("shop", kTriggerTimer);
    EXPECT_FALSE(error) << error.message();
    PackPtr installed = find("shop");
    ASSERT_NE(installed, nullptr);
    EXPECT_EQ(installed->installedSeq, 1u);
    EXPECT_TRUE(installed->isPacks);
    expectServes(version1());
    EXPECT_TRUE(tempLeft().empty());
}

TEST_F(PackInstallTest, FullInstallOfAnAppWritesItsFolder) {
    const std::string zip = zipOf(version1());
    auto p = record("app", kPackTypeACache, 3, 3, kPriorityAutoInstall);
    put({p});
    serveFull("app", 3, zip, kAppZipPrefix);

    const Error error = update("app", kTriggerTimer);
    EXPECT_FALSE(error) << error.message();
    EXPECT_EQ(find("app")->installedSeq, 3u);
    EXPECT_FALSE(find("app")->isPacks);
    EXPECT_EQ(readDisk("apps/app/3/res/js/app.js"), "console.log('v1');");
    EXPECT_TRUE(onDisk("apps/app/3/app-res.hvc"));
    expectServes(version1());
    EXPECT_TRUE(tempLeft().empty());
}

}  // namespace
}  // namespace FerritTest
