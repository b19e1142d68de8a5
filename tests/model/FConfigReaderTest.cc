#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "model/FConfig.h"
#include "tests/model/TreeConfigReader.h"
#include "tests/model/UpdateFixture.h"

namespace FerritTest {
namespace {

class FConfigReaderTest : public UpdateFixture {
  protected:
    void SetUp() override {
        UpdateFixture::SetUp();
        Environment::instance().setProxy(proxy);
    }

    std::shared_ptr<FakeProxy> proxy = std::make_shared<FakeProxy>();

    static void expectAgrees(const std::string& text) {
        Error error;
        auto parsed = FConfig::parse(text, "test", error, false);
        EXPECT_TRUE(agreesWithTree(parsed.get(), text))
            << text << "\n parsed: " << (parsed ? parsed->serialize() : "null") << "\n tree:   "
            << (readThroughTree(text) ? readThroughTree(text)->serialize() : "null");
    }
};

TEST_F(FConfigReaderTest, ReadsEveryFieldAsTheTreeReaderDoes) {
    expectAgrees(R"({"v":"17.5","i":4294967295,"scacheVersion":"9","delay":"30000","env":1,)"
                 R"("clientVersion":"2.1","locale":"fr","lastUpdate":5,"lastFullUpdate":4,)"
                 R"("packs":{"a":{"s":3,"f":"80","b":2,"t":1.5,"m":true,"c":"x","ci":7,"cp":"y",)"
                 R"("p":["https://a/x/",5,true,null],"r":["https://a/i.html"],"g":"2",)"
                 R"("updateTime":9,"installedSeq":1,"installedBaseSeq":1,"installedSize":10,)"
                 R"("installTime":8,"trigger":3,"zipURL":"u","status":"1","isOnDemand":1,)"
                 R"("isPacks":"true","unknown":{"deep":[1,{"x":2}]}}}})");
}

TEST_F(FConfigReaderTest, ContainerWhereAScalarIsWantedReadsAsZero) {
    expectAgrees(R"({"v":"1","delay":{"a":1},"locale":[1],"packs":{"a":{"s":[4],"c":{"x":"y"},)"
                 R"("p":{"k":"https://a/"},"r":"https://a/i.html","f":{}}}})");
    expectAgrees(R"({"v":"1","packs":{"a":{"s":1,"p":[["https://a/"],{"k":1},"https://b/"]}}})");
}

TEST_F(FConfigReaderTest, RecordThatIsNotANonEmptyObjectMarksThePackDeleted) {
    expectAgrees(R"({"v":"1","packs":{"a":null,"b":{},"c":3,"d":"x","e":[1,{"s":2}],"f":true}})");
    auto config = doc(R"({"v":"1","packs":{"a":null,"b":{},"c":[{"s":1}]}})");
    ASSERT_EQ(config->packs().size(), 3u);
    for (const auto& [name, pack] : config->packs()) EXPECT_EQ(pack->status, kPackStatusDeleted);
}

TEST_F(FConfigReaderTest, DuplicateKeysKeepTheLastValue) {
    expectAgrees(R"({"v":"1","v":"2","packs":{"a":{"s":1,"s":5,"p":["https://a/"],"p":[]}}})");
    expectAgrees(R"({"v":"1","packs":{"a":{"s":1},"a":{"s":2,"f":80}}})");
    expectAgrees(R"({"v":"1","packs":{"a":{"s":1},"a":null}})");
    expectAgrees(R"({"v":"1","packs":{"a":{"s":1,"f":32},"a":{"s":2}}})");
    expectAgrees(R"({"v":"1","packs":{"a":{"s":2}},"x":1,"packs":{"b":{"s":3}}})");
    expectAgrees(R"({"v":"1","packs":{"a":{"s":2}},"packs":5})");
    expectAgrees(R"({"v":"1","packs":{"a":{"s":2}},"packs":[{"a":{"s":2}}]})");
}

TEST_F(FConfigReaderTest, OnlyTheLastRecordOfANameIsJudgedAndReported) {
    auto config = doc(R"({"v":"1","packs":{"a":{"f":32},"a":{"s":2}}})");
    EXPECT_EQ(config->find("a")->seq, 2u);
    EXPECT_TRUE(proxy->events.empty()) << "the refused first record was replaced, not judged";

    config = doc(R"({"v":"1","packs":{"a":{"s":2},"a":{"f":32,"s":3}}})");
    EXPECT_EQ(config->find("a"), nullptr);
    ASSERT_EQ(proxy->events.size(), 1u);
    EXPECT_EQ(proxy->events[0], "Ferrit.ConfigDiskError");
    auto entry = logs_->last("invalidPack", "Ferrit/FConfig");
    EXPECT_EQ(entry.field("packName").stringValue(), "a");
    EXPECT_EQ(entry.field("configContent").stringValue(), R"({"f":32,"s":3})");
}

// A stored document read in place gives what a copy gives; its refused record is reported from
// the text read again, since the parse rewrote the one it had.
TEST_F(FConfigReaderTest, StoredDocumentReadInPlaceReportsRefusedRecordsFromASecondRead) {
    std::string text =
        R"({"v":"3.1","i":4294967295,"packs":{"a":{"s":2,"p":["https://a/\u0078/"]},)"
        R"("b":{"f":32,"s":3}}})";
    Error error;
    int reads = 0;
    auto stored = FConfig::parseStored(std::string(text), error, [&] {
        ++reads;
        return text;
    });
    ASSERT_NE(stored, nullptr) << error.message();
    auto copied = FConfig::parse(text, "local", error, /*checkSignature=*/false);
    ASSERT_NE(copied, nullptr);
    EXPECT_EQ(stored->serialize(), copied->serialize());
    EXPECT_EQ(stored->find("a")->prefixes, std::vector<std::string>{"https://a/x/"});
    EXPECT_EQ(reads, 1);
    auto entry = logs_->last("invalidPack", "Ferrit/FConfig");
    EXPECT_EQ(entry.field("packName").stringValue(), "b");
    EXPECT_EQ(entry.field("configContent").stringValue(), R"({"f":32,"s":3})");

    // A document without a refused record is read once.
    reads = 0;
    ASSERT_NE(FConfig::parseStored(R"({"v":"4","packs":{"a":{"s":1}}})", error,
                                   [&] {
                                       ++reads;
                                       return std::string();
                                   }),
              nullptr);
    EXPECT_EQ(reads, 0);
    EXPECT_EQ(FConfig::parseStored(R"({"v":"4",)", error, nullptr), nullptr);
    EXPECT_TRUE(error);
}

TEST_F(FConfigReaderTest, RefusedRecordsOfAReplacedPacksMemberAreNotReported) {
    auto config = doc(R"({"v":"1","packs":{"a":{"f":32}},"packs":{"b":{"s":1}}})");
    EXPECT_EQ(config->packs().size(), 1u);
    EXPECT_TRUE(proxy->events.empty());
}

TEST_F(FConfigReaderTest, RootThatIsNotAnObjectFails) {
    for (const char* text : {"[1,2]", "\"x\"", "5", "null", "[{\"v\":\"1\"}]"}) {
        Error error;
        EXPECT_EQ(FConfig::parse(text, "test", error, false), nullptr) << text;
        EXPECT_TRUE(error) << text;
    }
}

TEST_F(FConfigReaderTest, BrokenTextFailsWithoutKeepingWhatWasRead) {
    for (const char* text :
         {R"({"v":"1","packs":{"a":{"s":1}})", R"({"v":"1","packs":{"a":{"s":1e999}}})",
          R"({"v":"1"} x)", R"({"v":"1","packs":{"a":{"s":1,}}})"}) {
        Error error;
        EXPECT_EQ(FConfig::parse(text, "test", error, false), nullptr) << text;
        EXPECT_TRUE(error) << text;
        EXPECT_TRUE(agreesWithTree(nullptr, text)) << text;
    }
}

TEST_F(FConfigReaderTest, DeepNestingInAnUnknownMemberIsPassedOver) {
    std::string deep;
    for (int i = 0; i < 400; ++i) deep += "[";
    for (int i = 0; i < 400; ++i) deep += "]";
    expectAgrees(R"({"v":"1","x":)" + deep + R"(,"packs":{"a":{"s":1,"y":)" + deep + "}}}");
    std::string tooDeep;
    for (int i = 0; i < 600; ++i) tooDeep += "[";
    for (int i = 0; i < 600; ++i) tooDeep += "]";
    Error error;
    EXPECT_EQ(FConfig::parse(R"({"v":"1","x":)" + tooDeep + "}", "test", error, false), nullptr);
}

TEST_F(FConfigReaderTest, MergingADocumentTakenOverMatchesMergingACopy) {
    const std::string base = R"({"v":"1","i":4294967295,"packs":{"a":{"s":1,"f":80,"b":1,)"
                             R"("p":["https://a/"]},"b":{"s":1,"p":["https://b/"]},"c":{"s":4}}})";
    const std::string next = R"({"v":"2","i":4294967295,"packs":{"a":{"s":2,"f":80,"b":1},)"
                             R"("b":{"s":1},"c":{"s":5,"g":1},"d":{"s":1}}})";
    SCache::publish(doc(base));
    SCache::mutate([](FConfig& config) {
        config.setInstalled("a", kTriggerNone, 1, 1, 10, /*isPacks=*/true);
    });

    FConfig copied = SCache::current()->copyForChange();
    auto document = doc(next);
    copied.merge(*document);
    EXPECT_EQ(document->packs().size(), 4u) << "a merge of a copy leaves the document whole";

    FConfig taken = SCache::current()->copyForChange();
    auto consumed = doc(next);
    const Pack* record = consumed->find("a").get();
    taken.merge(std::move(*consumed));
    EXPECT_TRUE(consumed->packs().empty());
    EXPECT_EQ(taken.find("a").get(), record) << "the record itself was taken over";
    EXPECT_EQ(taken.find("a")->installedSeq, 1u);
    EXPECT_EQ(taken.find("a")->prefixes, std::vector<std::string>{"https://a/"});
    EXPECT_EQ(taken.serialize(), copied.serialize());
}

TEST_F(FConfigReaderTest, RecordHeldElsewhereIsCopiedNotEdited) {
    SCache::publish(doc(R"({"v":"1","packs":{"a":{"s":1,"p":["https://a/"]}}})"));
    auto document = doc(R"({"v":"2","packs":{"a":{"s":2}}})");
    const PackPtr held = document->find("a");
    FConfig config = SCache::current()->copyForChange();
    config.merge(std::move(*document));
    EXPECT_TRUE(held->prefixes.empty()) << "a record someone else holds is never edited";
    EXPECT_NE(config.find("a").get(), held.get());
    EXPECT_EQ(config.find("a")->prefixes, std::vector<std::string>{"https://a/"});
}

}  // namespace
}  // namespace FerritTest
