#include <gtest/gtest.h>

#include "base/Digest.h"
#include "base/Errors.h"
#include "base/Url.h"
#include "model/FConfig.h"
#include "tests/model/UpdateFixture.h"

namespace FerritTest {

namespace Errors = FerritCore::Errors;
namespace {

constexpr double kHour = 3600000.0;

class FConfigTest : public UpdateFixture {
  protected:
    // Installs `text` as the current document.
    static void seed(const std::string& text) { SCache::publish(doc(text)); }
    static PackPtr pack(const std::string& name) { return SCache::current()->find(name); }
};

TEST_F(FConfigTest, EmptyDocumentHasDefaults) {
    auto config = doc(R"({"v": "5"})");
    ASSERT_NE(config, nullptr);
    EXPECT_EQ(config->version, "5");
    EXPECT_EQ(config->scacheVersion, "0");
    EXPECT_EQ(config->delay, 60000.0);
    EXPECT_EQ(config->env, 2u);
    EXPECT_EQ(config->lastUpdate, MRLCurrentTime()) << "0 on parsing means now";
    EXPECT_EQ(config->lastFullUpdate, 0.0);
    EXPECT_TRUE(config->packs().empty());
}

TEST_F(FConfigTest, VersionWithFractionKeepsIntegerPart) {
    EXPECT_EQ(doc(R"({"v": "1700000000000.75"})")->version, "1700000000000");
    EXPECT_EQ(doc(R"({"v": 1700000000000})")->version, "1700000000000");
}

TEST_F(FConfigTest, EmptyVersionIsServerError) {
    Environment::instance().setFlag(1);
    Error error;
    EXPECT_EQ(FConfig::parse(R"({"v": ""})", "https://c/f", error, false), nullptr);
    EXPECT_EQ(error.code(), Errors::kServerError);
    EXPECT_EQ(error.message(),
              "https://c/f server error, phase: 1 (set up, first configuration update "
              "not finished, updating not started)");
}

TEST_F(FConfigTest, FullDocumentSetsLastFullUpdate) {
    auto config = doc(R"({"v": "5", "i": 4294967295, "lastUpdate": 1000})");
    EXPECT_TRUE(config->isFull());
    EXPECT_EQ(config->lastFullUpdate, 1000.0);
}

TEST_F(FConfigTest, RoundTripWithEveryKeySet) {
    const std::string text =
        R"({"v":"7","i":4294967295,"scacheVersion":"3","delay":1234.5,"env":1,"clientVersion":"2.0",)"
        R"("locale":"en","lastUpdate":1700000000000,"lastFullUpdate":1690000000000,"packs":{)"
        R"("a":{"s":5,"f":65616,"b":4,"t":1700000000000.5,"m":9,"c":"aa","ci":"bb","cp":"cc","p":["https://a/x/"],)"
        R"("r":["https://a/i.html"],"g":2,"updateTime":1700000000001,"installedSeq":4,"installedBaseSeq":3,)"
        R"("installedSize":1024,"installTime":1700000000002,"trigger":6,"subType":2,"zipURL":"https://z/a.zip",)"
        R"("status":1,"isOnDemand":true,"isPacks":true},"b@3":{"s":3,"subType":1}}})";
    auto first = doc(text);
    const std::string once = first->serialize();
    auto second = doc(once);
    EXPECT_EQ(second->serialize(), once);
    EXPECT_EQ(second->version, "7");
    EXPECT_EQ(second->env, 1u);
    EXPECT_EQ(second->locale, "en");
    EXPECT_EQ(second->delay, 1234.5);
    ASSERT_EQ(second->packs().size(), 2u);
    EXPECT_EQ(second->find("a")->installedSize, 1024u);
    EXPECT_EQ(second->find("a")->zipURL, "https://z/a.zip");
    EXPECT_TRUE(second->find("a")->isOnDemand);
    EXPECT_EQ(second->find("b@3")->subType, 1u);
}

// A stored document says which environment, client version and locale it was fetched for, even
// when they equal the running values: read back after the host changed them, it must not pass for
// a document of the new ones.
TEST_F(FConfigTest, StoredDocumentKeepsWhatItWasFetchedFor) {
    Environment::instance().setApp("key", "1.0");
    Environment::instance().setLocaleValue("zh_CN");
    auto fetched = std::make_shared<FConfig>();
    fetched->version = "9";
    const std::string stored = fetched->serialize();
    Environment::instance().setEnvValue(1);
    Environment::instance().setApp("key", "2.0");
    Environment::instance().setLocaleValue("en_US");
    auto loaded = doc(stored);
    EXPECT_EQ(loaded->env, 2u);
    EXPECT_EQ(loaded->clientVersion, "1.0");
    EXPECT_EQ(loaded->locale, "zh_CN");
}

// A document fetched before the host set any locale was fetched for none: once the host sets one,
// the stored copy must differ from it, so that the next update asks for a full document.
TEST_F(FConfigTest, StoredDocumentKeepsAnEmptyLocale) {
    auto fetched = std::make_shared<FConfig>();
    fetched->version = "9";
    const std::string stored = fetched->serialize();
    Environment::instance().setLocaleValue("en_US");
    EXPECT_EQ(doc(stored)->locale, "");
}

TEST_F(FConfigTest, NullEmptyObjectAndNumberRecordsAreDeletions) {
    auto config = doc(R"({"v":"1","packs":{"a":null,"b":{},"c":5,"d":"x","e":[1]}})");
    for (const char* name : {"a", "b", "c", "d", "e"}) {
        ASSERT_NE(config->find(name), nullptr) << name;
        EXPECT_EQ(config->find(name)->status, kPackStatusDeleted) << name;
    }
}

TEST_F(FConfigTest, RefusedRecordsAreReportedAndLeftOut) {
    auto proxy = std::make_shared<FakeProxy>();
    Environment::instance().setProxy(proxy);
    auto config = doc(R"({"v":"1","packs":{"type":{"f":32},"gray":{"g":3},"status":{"status":5},)"
                      R"("url":{"subType":2},"good":{"s":1}}})");
    EXPECT_EQ(config->packs().size(), 1u);
    EXPECT_NE(config->find("good"), nullptr);
    EXPECT_EQ(proxy->events.size(), 4u);
    EXPECT_EQ(proxy->events[0], "Ferrit.ConfigDiskError");
    auto entry = logs_->last("invalidPack", "Ferrit/FConfig");
    EXPECT_FALSE(entry.field("packName").stringValue().empty());
    EXPECT_FALSE(entry.field("configContent").stringValue().empty());
}

TEST_F(FConfigTest, MemberWithAtBecomesFixedSequence) {
    EXPECT_EQ(doc(R"({"v":"1","packs":{"foo@12":{"s":12}}})")->find("foo@12")->subType, 1u);
}

TEST_F(FConfigTest, LegacyACacheTypeIsRead) {
    auto p =
        doc(R"({"v":"1","packs":{"a":{"f":64,"ACacheType":2,"zipURL":"https://z"}}})")->find("a");
    EXPECT_EQ(p->subType, 2u);
    EXPECT_EQ(p->legacySubType, 0u);
}

TEST_F(FConfigTest, PreviewWithoutZipUrlReadsNormal) {
    EXPECT_EQ(doc(R"({"v":"1","packs":{"a":{"status":3}}})")->find("a")->status, 0u);
}

TEST_F(FConfigTest, GarbageAndDeepNestingGive1007) {
    Error error;
    std::string garbage(10 << 20, '\0');
    for (size_t i = 0; i < garbage.size(); ++i)
        garbage[i] = static_cast<char>((i * 2654435761u) >> 13);
    EXPECT_EQ(FConfig::parse(garbage, "g", error, false), nullptr);
    EXPECT_EQ(error.code(), Errors::kRequestDeserialization);
    // The parser's words and where it stopped (the garbage begins with a NUL byte).
    EXPECT_EQ(error.message(),
              "request \"g\" deserialization failed: The document is empty. at offset 0");
    const std::string deep = std::string(100000, '[') + std::string(100000, ']');
    EXPECT_EQ(FConfig::parse(deep, "d", error, false), nullptr);
    EXPECT_EQ(error.code(), Errors::kRequestDeserialization);
    const std::string deepPack = R"({"v":"1","packs":{"a":)" + std::string(100000, '{');
    EXPECT_EQ(FConfig::parse(deepPack, "d", error, false), nullptr);
    EXPECT_EQ(error.code(), Errors::kRequestDeserialization);
    EXPECT_EQ(FConfig::parse("[1,2]", "a", error, false), nullptr);
    EXPECT_EQ(error.code(), Errors::kRequestDeserialization);
    EXPECT_EQ(FConfig::parse("", "e", error, false), nullptr);
    EXPECT_EQ(error.code(), Errors::kRequestDeserialization);
}

TEST_F(FConfigTest, NumberBeyondDoubleIs1007) {
    Error error;
    EXPECT_EQ(FConfig::parse(R"({"v":"1","packs":{"a":{"t":1e400}}})", "n", error, false), nullptr);
    EXPECT_EQ(error.code(), Errors::kRequestDeserialization);
}

TEST_F(FConfigTest, InvalidBase64SignatureFailsWithoutAskingTheProxy) {
    auto proxy = std::make_shared<FakeProxy>();
    Environment::instance().setProxy(proxy);
    Error error;
    EXPECT_EQ(FConfig::parse(R"({"v":"1"}||@@)", "u", error, true), nullptr);
    EXPECT_EQ(error.code(), Errors::kRequestVerify);
    EXPECT_TRUE(proxy->verified.empty());
}

TEST_F(FConfigTest, SignedDocumentVerifiesThroughProxy) {
    auto proxy = std::make_shared<FakeProxy>();
    Environment::instance().setProxy(proxy);
    const std::string body = R"({"v":"9"})";
    Error error;
    auto config = FConfig::parse(FakeProxy::sign(body), "u", error, true);
    ASSERT_NE(config, nullptr) << error.message();
    EXPECT_EQ(config->version, "9");

    EXPECT_EQ(FConfig::parse(body + "||" + "AAAA", "u", error, true), nullptr);
    EXPECT_EQ(error.code(), Errors::kRequestVerify);
    EXPECT_EQ(error.message(),
              "request \"u\" verify failed: MD5 is \"" + Digest::md5Hex(body) + "\"");
}

TEST_F(FConfigTest, MissingSeparatorIs1007NoSignature) {
    Error error;
    EXPECT_EQ(FConfig::parse(R"({"v":"9"})", "u", error, true), nullptr);
    EXPECT_EQ(error.code(), Errors::kRequestDeserialization);
    EXPECT_EQ(error.message(), "request \"u\" deserialization failed: no signature");
}

TEST_F(FConfigTest, EmptySignatureStillAsksTheProxy) {
    auto proxy = std::make_shared<FakeProxy>();
    Environment::instance().setProxy(proxy);
    Error error;
    EXPECT_EQ(FConfig::parse(R"({"v":"9"}||)", "u", error, true), nullptr);
    ASSERT_EQ(proxy->verified.size(), 1u);
    EXPECT_EQ(proxy->verified[0], Digest::md5Hex(R"({"v":"9"})"));
    EXPECT_EQ(error.code(), Errors::kRequestVerify);
}

TEST_F(FConfigTest, LastSeparatorSplitsSignature) {
    auto proxy = std::make_shared<FakeProxy>();
    Environment::instance().setProxy(proxy);
    Error error;
    FConfig::parse(R"({"v":"a||b"}||AAAA)", "u", error, true);
    ASSERT_EQ(proxy->verified.size(), 1u);
    EXPECT_EQ(proxy->verified[0], Digest::md5Hex(R"({"v":"a||b"})"));
}

TEST_F(FConfigTest, NoProxyFailsVerification) {
    Error error;
    EXPECT_EQ(FConfig::parse(R"({"v":"9"}||AAAA)", "u", error, true), nullptr);
    EXPECT_EQ(error.code(), Errors::kRequestVerify);
}

// ---- merge ----

TEST_F(FConfigTest, EqualSequenceWithUnknownBaseTakesIncomingRecord) {
    seed(R"({"v":"1","packs":{"a":{"s":3,"installedSeq":3,"c":"old"}}})");
    mergeText(R"({"v":"2","packs":{"a":{"s":3,"b":2,"c":"new"}}})");
    EXPECT_EQ(pack("a")->md5, "new");
    EXPECT_EQ(pack("a")->baseSeq, 2u);
    EXPECT_EQ(pack("a")->installedSeq, 3u) << "installed fields carry over";
}

TEST_F(FConfigTest, OlderOrEqualKnownSequenceOnlyTouchesUpdateTime) {
    seed(R"({"v":"1","packs":{"a":{"s":3,"b":2,"c":"old","updateTime":1000}}})");
    auto after = mergeText(R"({"v":"2","packs":{"a":{"s":3,"b":2,"c":"new","updateTime":2000}}})");
    EXPECT_EQ(pack("a")->md5, "old");
    EXPECT_EQ(pack("a")->updateTime, 2000.0);
    EXPECT_TRUE(after->dirty);
}

TEST_F(FConfigTest, OlderUpdateTimeChangesNothing) {
    seed(R"({"v":"1","packs":{"a":{"s":3,"b":2,"updateTime":3000}}})");
    const PackPtr before = pack("a");
    auto document = doc(R"({"v":"1","packs":{"a":{"s":2,"b":1,"updateTime":2000}}})");
    SCache::mutate([&](FConfig& config) {
        config.mergePack(document->find("a"));
        EXPECT_FALSE(config.dirty);
    });
    EXPECT_EQ(pack("a"), before);
}

TEST_F(FConfigTest, FullDocumentKeepsRecentGrayAndDropsOldGray) {
    const double now = MRLCurrentTime();
    seed(R"({"v":"1","packs":{"recent":{"s":1,"g":2,"t":)" + std::to_string(now - 2 * kHour) +
         R"(},"old":{"s":1,"g":2,"t":)" + std::to_string(now - 25 * kHour) +
         R"(},"plain":{"s":1}}})");
    mergeText(R"({"v":"2","i":4294967295,"packs":{}})");
    EXPECT_NE(pack("recent"), nullptr);
    EXPECT_EQ(pack("old"), nullptr);
    EXPECT_EQ(pack("plain"), nullptr);
    auto removes = logs_->all("remove", "Ferrit/FConfig");
    ASSERT_EQ(removes.size(), 2u);
    EXPECT_EQ(removes[0].field("reason").stringValue(), "Not in full fconfig");
    EXPECT_EQ(removes[0].level, 2);
}

TEST_F(FConfigTest, FullDocumentKeepsAppAssetAndPreviewPacks) {
    seed(
        R"({"v":"1","packs":{"app":{"f":64},"asset":{"f":96},"preview":{"status":3,"zipURL":"https://z"}}})");
    mergeText(R"({"v":"2","i":4294967295})");
    EXPECT_NE(pack("app"), nullptr);
    EXPECT_NE(pack("asset"), nullptr);
    EXPECT_NE(pack("preview"), nullptr);
}

TEST_F(FConfigTest, PartialDocumentRemovesNothing) {
    seed(R"({"v":"1","packs":{"a":{"s":1},"b":{"s":1}}})");
    mergeText(R"({"v":"2","i":0,"packs":{"c":{"s":1}}})");
    EXPECT_NE(pack("a"), nullptr);
    EXPECT_NE(pack("b"), nullptr);
    EXPECT_NE(pack("c"), nullptr);
}

TEST_F(FConfigTest, NullMemberRemovesExistingPackAsDeleted) {
    seed(R"({"v":"1","packs":{"a":{"s":1,"installedSeq":1}}})");
    auto after = mergeText(R"({"v":"2","packs":{"a":null,"ghost":null}})");
    EXPECT_EQ(pack("a"), nullptr);
    EXPECT_EQ(pack("ghost"), nullptr);
    EXPECT_EQ(after->removed.size(), 1u);
    EXPECT_EQ(logs_->last("remove").field("reason").stringValue(), "Deleted");
    TaskRunner::runDue();
    ASSERT_EQ(storage_->removedFolders.size(), 1u);
    EXPECT_EQ(storage_->removedFolders[0], "apps/a/1/");
}

TEST_F(FConfigTest, UnsupportedTypeRemovesExistingPack) {
    seed(R"({"v":"1","packs":{"a":{"s":1}}})");
    auto document = doc(R"({"v":"2"})");
    auto unsupported = std::make_shared<Pack>();
    unsupported->name = "a";
    unsupported->flags = 0x30;
    document->store(unsupported);
    SCache::mutate([&](FConfig& config) { config.merge(*document); });
    EXPECT_EQ(pack("a"), nullptr);
    EXPECT_EQ(logs_->last("remove").field("reason").stringValue(), "PackType not supported");
}

TEST_F(FConfigTest, RollbackOfFirstGrayRemovesPackAndRecord) {
    seed(R"({"v":"1","packs":{"a":{"s":4,"g":2,"installedSeq":4}}})");
    auto after = mergeText(R"({"v":"2","packs":{"a":{"s":0,"g":1}}})");
    EXPECT_EQ(pack("a"), nullptr);
    EXPECT_EQ(after->removed.size(), 1u);
    EXPECT_EQ(logs_->last("remove").field("reason").stringValue(), "Rollback first gray");
}

TEST_F(FConfigTest, RollbackGrayDropsInstalledFilesAndKeepsReleasedRecord) {
    seed(R"({"v":"1","packs":{"a":{"s":4,"g":2,"installedSeq":4,"installedSize":9}}})");
    auto after = mergeText(R"({"v":"2","packs":{"a":{"s":3,"g":1}}})");
    ASSERT_NE(pack("a"), nullptr);
    EXPECT_EQ(pack("a")->seq, 3u);
    EXPECT_EQ(pack("a")->installedSeq, 0u);
    EXPECT_EQ(pack("a")->installedSize, 0u);
    EXPECT_EQ(after->removed.size(), 1u);
    EXPECT_EQ(logs_->last("remove").field("reason").stringValue(), "Rollback gray");
}

TEST_F(FConfigTest, DamageAndEvictionOutliveNewConfiguration) {
    seed(
        R"({"v":"1","packs":{"damaged":{"s":1,"installedSeq":1,"status":1},"evicted":{"s":1,"status":2},)"
        R"("resident":{"s":1,"f":9,"status":2}}})");
    mergeText(
        R"({"v":"2","packs":{"damaged":{"s":2},"evicted":{"s":2},"resident":{"s":2,"f":9}}})");
    EXPECT_EQ(pack("damaged")->status, 1u);
    EXPECT_EQ(pack("evicted")->status, 2u);
    EXPECT_EQ(pack("resident")->status, 0u);
}

TEST_F(FConfigTest, NewRecordKeepsTriggerAndPrefixesWhenItCarriesNone) {
    seed(R"({"v":"1","packs":{"a":{"s":1,"trigger":6,"p":["https://a/x/"]}}})");
    mergeText(R"({"v":"2","packs":{"a":{"s":2}}})");
    EXPECT_EQ(pack("a")->trigger, 6u);
    ASSERT_EQ(pack("a")->prefixes.size(), 1u);
    mergeText(R"({"v":"3","packs":{"a":{"s":3,"p":["https://a/y/"]}}})");
    EXPECT_EQ(pack("a")->prefixes[0], "https://a/y/");
}

TEST_F(FConfigTest, VersionOnlyMovesForward) {
    seed(R"({"v":"10"})");
    mergeText(R"({"v":"9"})");
    EXPECT_EQ(SCache::current()->version, "10");
    mergeText(R"({"v":"11","i":4294967295,"lastFullUpdate":5})");
    EXPECT_EQ(SCache::current()->version, "11");
    EXPECT_EQ(SCache::current()->lastFullUpdate, 5.0);
}

TEST_F(FConfigTest, ChangeOfEnvironmentWipesAppsEvenWithSamePacks) {
    seed(R"({"v":"1","env":1,"packs":{"a":{"s":1,"installedSeq":1}}})");
    auto after = mergeText(R"({"v":"2","env":2,"packs":{"a":{"s":1}}})");
    EXPECT_EQ(storage_->wipes, 1);
    ASSERT_NE(pack("a"), nullptr);
    EXPECT_EQ(pack("a")->installedSeq, 0u) << "the old installation is gone with apps/";
    EXPECT_EQ(after->scacheVersion, "0");
}

TEST_F(FConfigTest, SetInstalledCreditsFirstInstallAndClearsDamage) {
    seed(R"({"v":"1","packs":{"a":{"s":2,"status":2}}})");
    SCache::mutate([](FConfig& config) {
        config.setInstalled("a", kTriggerVisit, 2, 1, 100, /*isPacks=*/true);
    });
    auto p = pack("a");
    EXPECT_EQ(p->installedSeq, 2u);
    EXPECT_EQ(p->installedBaseSeq, 1u);
    EXPECT_EQ(p->installedSize, 100u);
    EXPECT_EQ(p->installTime, MRLCurrentTime());
    EXPECT_TRUE(p->isPacks);
    EXPECT_EQ(p->trigger, 6u);
    EXPECT_EQ(p->status, 0u);
    EXPECT_DOUBLE_EQ(Statistics::accessValue("a"), 0.6931471805599453);
    SCache::mutate([](FConfig& config) {
        config.setInstalled("a", kTriggerTimer, 3, 2, 100, /*isPacks=*/true);
    });
    EXPECT_EQ(pack("a")->trigger, 6u) << "a timer install keeps the trigger";
    EXPECT_DOUBLE_EQ(Statistics::accessValue("a"), 0.6931471805599453) << "credit only once";
}

TEST_F(FConfigTest, SetInstalledKeepsAppsOutOfThePackedStore) {
    seed(R"({"v":"1","packs":{"app":{"f":64},"asset":{"f":96}}})");
    SCache::mutate([](FConfig& config) {
        config.setInstalled("app", kTriggerVisit, 1, 0, 1, /*isPacks=*/true);
        config.setInstalled("asset", kTriggerVisit, 1, 0, 1, /*isPacks=*/true);
        config.setInstalled("ghost", kTriggerVisit, 1, 0, 1, /*isPacks=*/true);
    });
    EXPECT_FALSE(pack("app")->isPacks);
    EXPECT_FALSE(pack("asset")->isPacks);
    EXPECT_EQ(pack("ghost"), nullptr);
}

TEST_F(FConfigTest, SetStatusClonesOnlyOnChange) {
    seed(R"({"v":"1","packs":{"a":{"s":1,"installedSeq":1}}})");
    const PackPtr before = pack("a");
    SCache::mutate([](FConfig& config) { config.setStatus("a", 1); });
    EXPECT_EQ(pack("a")->status, 1u);
    EXPECT_EQ(before->status, 0u) << "a published record never changes";
}

TEST_F(FConfigTest, FixedSequenceAssetCopiesAreNotIndexed) {
    seed(R"({"v":"1","packs":{"a@2":{"s":2,"f":96,"p":["https://a/"],"r":["https://a/i.html"]}}})");
    EXPECT_TRUE(SCache::current()->urlIndex().empty());
    EXPECT_TRUE(SCache::current()->prefixTree().empty());
}

TEST_F(FConfigTest, SameClaimGoesToSmallestName) {
    seed(
        R"({"v":"1","packs":{"b":{"p":["https://a/"],"r":["https://a/i"]},"a":{"p":["https://a/"],"r":["https://a/i"]}}})");
    EXPECT_EQ(SCache::current()->urlPackName("//a/i"), "a");
    EXPECT_EQ(SCache::current()->prefixTree().lookup("//a/x", ""), "a");
}

TEST_F(FConfigTest, SameTypedClaimGoesToSmallestNameAndAnEmptyTypeIsNoType) {
    seed(
        R"({"v":"1","packs":{"d":{"p":["https://a/#Image/WebP"]},"c":{"p":["https://a/#image/webp"]},)"
        R"("z":{"p":["https://a/"]},"y":{"p":["https://b/#"]},"x":{"p":["https://b/"]}}})");
    const PrefixTree& tree = SCache::current()->prefixTree();
    EXPECT_EQ(tree.lookup("//a/i.webp", "image/webp"), "c");
    EXPECT_EQ(tree.lookup("//a/i.webp", "text/html"), "z");
    EXPECT_EQ(tree.lookup("//b/i.webp", "image/webp"), "x") << "\"#\" names no type";
}

}  // namespace
}  // namespace FerritTest
