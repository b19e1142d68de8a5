#include <gtest/gtest.h>

#include "model/Pack.h"
#include "tests/model/UpdateFixture.h"

namespace FerritTest {
namespace {

using MarlLogger::json::JSON;

class PackTest : public UpdateFixture {
  protected:
    static Pack read(const std::string& name, const std::string& json) {
        Pack pack;
        pack.name = name;
        pack.readJSON(JSON::parse(json));
        return pack;
    }
    static std::string write(const Pack& pack) {
        MarlLogger::json::JSONStringer out;
        pack.writeJSON(out);
        return out.result();
    }
};

TEST_F(PackTest, NumbersFollowTheRuleOfCoercion) {
    Pack p = read(
        "a", R"({"s": "12", "f": true, "b": "true", "m": "false", "g": "", "installedSeq": "x7",
                          "installedBaseSeq": 3.9, "trigger": "1", "status": [1], "installedSize": {"a": 1}})");
    EXPECT_EQ(p.seq, 12u);
    EXPECT_EQ(p.flags, 1u);
    EXPECT_EQ(p.baseSeq, 1u);
    EXPECT_EQ(p.marker, 0u);
    EXPECT_EQ(p.gray, 0u);
    EXPECT_EQ(p.installedSeq, 0u);
    EXPECT_EQ(p.installedBaseSeq, 3u);
    EXPECT_EQ(p.trigger, 1u);
    EXPECT_EQ(p.status, 0u);
    EXPECT_EQ(p.installedSize, 0u);
}

TEST_F(PackTest, NumbersOutOfRangeDoNotCrash) {
    Pack p = read(
        "a",
        R"({"s": 1e300, "f": -5, "t": -1e300, "trigger": 99999999999999, "g": "99999999999999999999999"})");
    EXPECT_EQ(p.flags, 0u);
    EXPECT_EQ(p.trigger, 4294967295u);
    EXPECT_TRUE(p.seq > 0);
}

TEST_F(PackTest, DefaultsAreLeftOutWhenWritten) {
    Pack p;
    p.name = "a";
    EXPECT_EQ(write(p), "{}");
    p.seq = 3;
    p.isPacks = true;
    EXPECT_EQ(write(p), R"({"s":3,"isPacks":true})");
}

TEST_F(PackTest, EveryKeyRoundTripsInOrder) {
    const std::string all =
        R"({"s":5,"f":65616,"b":4,"t":1700000000000.5,"m":9,"c":"aa","ci":"bb","cp":"cc","p":["https://a/x/"],)"
        R"("r":["https://a/i.html"],"g":2,"updateTime":1700000000001.0,"installedSeq":4,"installedBaseSeq":3,)"
        R"("installedSize":1024,"installTime":1700000000002.0,"trigger":6,"subType":2,"zipURL":"https://z/a.zip",)"
        R"("status":1,"isOnDemand":true,"isPacks":true})";
    Pack p = read("a", all);
    Pack again = read("a", write(p));
    EXPECT_EQ(write(again), write(p));
    EXPECT_EQ(write(p).substr(0, 20), R"({"s":5,"f":65616,"b")");
    EXPECT_EQ(p.payloadKind(), 1u);
    EXPECT_EQ(p.packType(), kPackTypeFerrit);
    EXPECT_EQ(p.patchMd5, "cc");
    EXPECT_NE(write(p).find(R"("ci":"bb","cp":"cc","p")"), std::string::npos);
}

TEST_F(PackTest, RecordWithoutPatchedIncrementWritesNoPatchKey) {
    Pack p = read("a", R"({"s":5,"b":4,"c":"aa","ci":"bb"})");
    EXPECT_TRUE(p.patchMd5.empty());
    EXPECT_EQ(write(p), R"({"s":5,"b":4,"c":"aa","ci":"bb"})");
}

TEST_F(PackTest, ValidateRefusesUnsupportedTypeGrayAboveTwoAndStatusAboveFour) {
    Pack p = read("a", R"({"f": 32})");
    EXPECT_FALSE(p.validate());
    p = read("a", R"({"g": 3})");
    EXPECT_FALSE(p.validate());
    p = read("a", R"({"g": 18})");  // only the low four bits count
    EXPECT_TRUE(p.validate());
    p = read("a", R"({"status": 5})");
    EXPECT_FALSE(p.validate());
}

TEST_F(PackTest, FixedUrlWithoutZipUrlIsRefused) {
    Pack p = read("a", R"({"subType": 2})");
    EXPECT_FALSE(p.validate());
    p = read("a", R"({"subType": 2, "zipURL": "https://z/a.zip"})");
    EXPECT_TRUE(p.validate());
    EXPECT_EQ(p.appName(), "https://z/a.zip");
}

TEST_F(PackTest, NameWithAtBecomesFixedSequence) {
    Pack p = read("foo@12", R"({"s": 12})");
    ASSERT_TRUE(p.validate());
    EXPECT_EQ(p.subType, 1u);
    EXPECT_EQ(p.rootName(), "foo");
    EXPECT_EQ(p.appName(), "foo");
}

TEST_F(PackTest, FixedSequenceWithoutAtBecomesPlain) {
    Pack p = read("foo", R"({"subType": 1})");
    ASSERT_TRUE(p.validate());
    EXPECT_EQ(p.subType, 0u);
}

TEST_F(PackTest, LegacySubTypeIsFoldedAndCleared) {
    Pack p = read("foo", R"({"ACacheType": 2, "zipURL": "https://z"})");
    ASSERT_TRUE(p.validate());
    EXPECT_EQ(p.subType, 2u);
    EXPECT_EQ(p.legacySubType, 0u);
    EXPECT_EQ(write(p).find("ACacheType"), std::string::npos);
}

TEST_F(PackTest, UnknownSubTypeIsRefused) {
    Pack p = read("foo", R"({"subType": 3})");
    EXPECT_FALSE(p.validate());
}

TEST_F(PackTest, PreviewWithoutZipUrlReadsNormal) {
    Pack p = read("foo", R"({"status": 3})");
    ASSERT_TRUE(p.validate());
    EXPECT_EQ(p.status, 0u);
}

TEST_F(PackTest, ValidateStampsUpdateTime) {
    Pack p = read("foo", "{}");
    ASSERT_TRUE(p.validate());
    EXPECT_EQ(p.updateTime, MRLCurrentTime());
}

TEST_F(PackTest, SetStatusRules) {
    Pack p;
    p.setStatus(1);
    EXPECT_EQ(p.status, 0u) << "not installed: no reinstall";
    p.installedSeq = 1;
    p.setStatus(1);
    EXPECT_EQ(p.status, 1u);
    p.status = 3;
    p.setStatus(2);
    EXPECT_EQ(p.status, 3u);
    p.status = 0;
    p.setStatus(2);
    EXPECT_EQ(p.status, 2u);
    p.setStatus(1);
    EXPECT_EQ(p.status, 2u) << "reinstall only from status 0";
    p.setStatus(4);
    EXPECT_EQ(p.status, 4u);
}

TEST_F(PackTest, CloneKeepsOrRenames) {
    Pack p;
    p.name = "a";
    p.seq = 2;
    EXPECT_EQ(p.clone()->name, "a");
    auto renamed = p.clone("a@2");
    EXPECT_EQ(renamed->name, "a@2");
    EXPECT_EQ(renamed->seq, 2u);
}

TEST_F(PackTest, Predicates) {
    Pack p;
    p.flags = 0x48;  // app, priority 8
    EXPECT_TRUE(p.isSupported());
    EXPECT_FALSE(p.isResident());
    p.flags = 0x47;
    EXPECT_TRUE(p.isResident());
    p.flags = 0x09;
    EXPECT_TRUE(p.isResident());
    p.flags = 0x60;
    EXPECT_TRUE(p.isResident());
    EXPECT_TRUE(p.isBuiltIn());
    p.subType = 1;
    EXPECT_FALSE(p.isBuiltIn());
    EXPECT_FALSE(p.isResident());
    p.flags = 0x30;
    EXPECT_FALSE(p.isSupported());

    Pack n;
    EXPECT_TRUE(n.needsConfig());
    n.seq = 2;
    n.baseSeq = 1;
    EXPECT_FALSE(n.needsConfig());
    n.flags = kPackTypeACache;
    n.seq = 0;
    n.subType = 2;
    EXPECT_FALSE(n.needsConfig());

    Pack i;
    i.flags = kPackTypeFerrit;
    i.installedSeq = 2;
    i.seq = 3;
    i.baseSeq = 1;
    i.installedBaseSeq = 1;
    EXPECT_TRUE(i.canUpdateIncrementally());
    i.status = 1;
    EXPECT_FALSE(i.canUpdateIncrementally());
    i.status = 0;
    i.baseSeq = 2;
    EXPECT_FALSE(i.canUpdateIncrementally());
}

TEST_F(PackTest, OutOfDateNeedsOldRecordAndOldDocument) {
    Pack p;
    p.flags = kPackTypeFerrit;
    const double day = 86400000.0;
    p.updateTime = MRLCurrentTime() - 2 * day;
    EXPECT_TRUE(p.isOutOfDate(MRLCurrentTime() - 2 * day, day));
    EXPECT_FALSE(p.isOutOfDate(MRLCurrentTime(), day));
    p.flags = kPackTypeACache;
    EXPECT_FALSE(p.isOutOfDate(MRLCurrentTime() - 2 * day, day));
}

TEST_F(PackTest, FoldersOfARecord) {
    setRootPath("/r/");
    Pack p;
    p.name = "shop";
    p.installedSeq = 7;
    p.flags = kPackTypeFerrit;
    EXPECT_EQ(p.installedFolder().absolute(), "/r/apps/shop/7/");
    EXPECT_EQ(p.resourcesFolder().relative(), "apps/shop/7/res/");
    p.isPacks = true;
    EXPECT_EQ(p.installedFolder().kind(), FolderKind::Packed);
    EXPECT_EQ(p.installedFolder().relative(), "shop/7/");
    p.flags = kPackTypeACache;
    EXPECT_EQ(p.installedFolder().kind(), FolderKind::Disk);
    p.flags = kPackTypeSCache;
    EXPECT_EQ(p.installedFolder().describe(), "/Asset/Ferrit_Asset_shop/7/");
    p.isOnDemand = true;
    EXPECT_EQ(p.installedFolder().kind(), FolderKind::OnDemand);
    EXPECT_EQ(p.installedFolder().module(), "Ferrit_Asset_shop");
    Pack pinned;
    pinned.name = "shop@3";
    pinned.subType = 1;
    pinned.installedSeq = 3;
    EXPECT_EQ(pinned.installedFolder().relative(), "apps/shop/3/");
}

// A device from before the patched increment read "cp" as this one reads any key it does not
// know: as if it were absent, and gone when the record is written back. What it fetched followed
// from the other keys alone, so a document that names a patched increment moves it as before.
TEST_F(PackTest, AKeyTheReaderDoesNotKnowChangesNothing) {
    const std::string plain = R"({"s": 3, "f": 80, "b": 1, "c": "0123456789abcdef0123456789abcdef",
                                  "ci": "fedcba9876543210fedcba9876543210", "p": ["https://a/"]})";
    std::string later = plain;
    later.insert(1, R"("zz": "fedcba98765432100123456789abcdef", "zy": {"a": [1]}, )");
    const Pack without = read("shop", plain);
    const Pack with = read("shop", later);
    EXPECT_EQ(write(with), write(without));
    EXPECT_EQ(with.incrMd5, "fedcba9876543210fedcba9876543210");
    EXPECT_TRUE(with.patchMd5.empty());

    std::string patched = plain;
    patched.insert(1, R"("cp": "00112233445566778899aabbccddeeff", )");
    const Pack known = read("shop", patched);
    EXPECT_EQ(known.patchMd5, "00112233445566778899aabbccddeeff");
    EXPECT_NE(write(known), write(without));
}

}  // namespace
}  // namespace FerritTest
