#include "access/Reader.h"

#include <gtest/gtest.h>

#include "access/Matcher.h"
#include "base/Digest.h"
#include "base/Errors.h"
#include "base/Url.h"
#include "tests/access/AccessFixture.h"

namespace FerritTest {

namespace Errors = FerritCore::Errors;
namespace {

class ReaderTest : public AccessFixture {
  protected:
    // The app pack "shop" installed at 3: "res/a.js" with a URL, "res/css/b.css" without one.
    void installShop(uint64_t installed = 3) {
        install({pack("shop", kPackTypeACache, installed, installed, {"https://shop.com/"})});
        serveIndexes(
            {{"shop", table({{"res/a.js", "https://shop.com/a.js"}, {"res/css/b.css", ""}})}});
        writeFile("apps/shop/" + std::to_string(installed) + "/res/a.js", "shop-a");
        writeFile("apps/shop/" + std::to_string(installed) + "/res/css/b.css", "shop-b");
    }

    // Loads and returns what the callback got; fails the test when it was not called exactly once.
    std::pair<std::shared_ptr<Reader>, Error> load(const std::string& name,
                                                   const std::string& info = {}) {
        std::pair<std::shared_ptr<Reader>, Error> got;
        int calls = 0;
        Reader::load({name, info, "parent-7"},
                     [&](std::shared_ptr<Reader> reader, const Error& error) {
                         ++calls;
                         got = {std::move(reader), error};
                     });
        EXPECT_EQ(calls, 1);
        return got;
    }
};

// --- findByName -------------------------------------------------------------------------------

TEST_F(ReaderTest, ParseNameWithVersionReadsTheThreeForms) {
    NameWithVersion v;
    ASSERT_TRUE(parseNameWithVersion("A:shop@12", v));
    EXPECT_TRUE(v.hasType);
    EXPECT_EQ(v.type, kPackTypeACache);
    EXPECT_EQ(v.name, "shop");
    EXPECT_EQ(v.seq, 12u);
    ASSERT_TRUE(parseNameWithVersion("S:kit", v));
    EXPECT_EQ(v.type, kPackTypeSCache);
    EXPECT_EQ(v.seq, 0u);
    ASSERT_TRUE(parseNameWithVersion("shop@4", v));
    EXPECT_FALSE(v.hasType);
    EXPECT_EQ(v.name, "shop");
    ASSERT_TRUE(parseNameWithVersion("7", v));
    EXPECT_TRUE(v.name.empty());
    EXPECT_EQ(v.seq, 7u);
    EXPECT_FALSE(parseNameWithVersion("X:shop@1", v));
    EXPECT_FALSE(parseNameWithVersion("shop@1x", v));
    EXPECT_FALSE(parseNameWithVersion("shop@99999999999999999999999", v));
    EXPECT_FALSE(parseNameWithVersion("", v));
}

TEST_F(ReaderTest, FindByNameOfPlainName) {
    installShop();
    bool fallback = true;
    EXPECT_EQ(findByName(*SCache::current(), "shop", "", &fallback)->name, "shop");
    EXPECT_FALSE(fallback);
    EXPECT_EQ(findByName(*SCache::current(), "none", "", &fallback), nullptr);
    EXPECT_FALSE(fallback);
}

TEST_F(ReaderTest, FindByNameOfUrlLooksUpTheMd5OfItsKey) {
    const std::string url = "https://apps.com/mini.zip?x=1";
    const std::string hashed = Digest::md5Hex(Url::key(url));
    auto p = pack(hashed, kPackTypeACache, 1, 1);
    p->subType = 2;
    p->zipURL = url;
    install({p});
    EXPECT_EQ(findByName(*SCache::current(), url, "", nullptr)->name, hashed);
    EXPECT_EQ(findByName(*SCache::current(), "https://apps.com/other.zip", "", nullptr), nullptr);
}

TEST_F(ReaderTest, FindByNameOfUnknownUrlMakesAFixedUrlFallback) {
    bool fallback = false;
    PackPtr made = findByName(*SCache::current(), "https://apps.com/m.zip", "", &fallback);
    ASSERT_NE(made, nullptr);
    EXPECT_TRUE(fallback);
    EXPECT_EQ(made->name, Digest::md5Hex("//apps.com/m.zip"));
    EXPECT_EQ(made->packType(), kPackTypeACache);
    EXPECT_EQ(made->subType, 2u);
    EXPECT_EQ(made->seq, 1u);
    EXPECT_EQ(made->installedSeq, 1u);
    EXPECT_EQ(made->zipURL, "https://apps.com/m.zip");
}

TEST_F(ReaderTest, FindByNameWithVersionPrefersThePinnedCopy) {
    auto plain = pack("shop", kPackTypeACache, 3, 3);
    auto pinned = pack("shop@2", kPackTypeACache, 2, 2);
    pinned->subType = 1;
    install({plain, pinned});
    EXPECT_EQ(findByName(*SCache::current(), "shop", "A:shop@2", nullptr)->name, "shop@2");
    // The plain record answers only for the version it has installed.
    EXPECT_EQ(findByName(*SCache::current(), "shop", "A:shop@3", nullptr)->name, "shop");
    EXPECT_EQ(findByName(*SCache::current(), "shop", "A:shop@5", nullptr), nullptr);
    // The reserved sequence 0 asks for no version.
    EXPECT_EQ(findByName(*SCache::current(), "shop", "A:shop@0", nullptr)->name, "shop");
}

TEST_F(ReaderTest, FindByNameWithVersionMakesAPinnedFallbackCopy) {
    install({pack("shop", kPackTypeACache, 3, 3, {"https://shop.com/"})});
    bool fallback = false;
    PackPtr made = findByName(*SCache::current(), "shop", "A:shop@2", &fallback);
    ASSERT_NE(made, nullptr);
    EXPECT_TRUE(fallback);
    EXPECT_EQ(made->name, "shop@2");
    EXPECT_EQ(made->subType, 1u);
    EXPECT_EQ(made->installedSeq, 2u);
    EXPECT_EQ(made->installedFolder().relative(), "apps/shop/2/");
}

TEST_F(ReaderTest, FindByNameWithVersionOfOtherTypesIsThePlainRecord) {
    install({pack("app", kPackTypeFerrit, 3, 3)});
    EXPECT_EQ(findByName(*SCache::current(), "app", "F:app@2", nullptr)->name, "app");
}

// --- load -------------------------------------------------------------------------------------

TEST_F(ReaderTest, LoadWithoutCallbackDoesNothing) {
    installShop();
    Reader::load({"shop", "", ""}, nullptr);
    EXPECT_EQ(logs_->count("load", "Ferrit/Reader"), 0u);
}

TEST_F(ReaderTest, LoadOfInstalledPackGivesAReader) {
    installShop();
    auto [reader, error] = load("shop");
    ASSERT_NE(reader, nullptr);
    EXPECT_FALSE(error);
    EXPECT_EQ(reader->name(), "shop");
    EXPECT_FALSE(reader->match()->pinned);
    const auto entry = logs_->last("load", "Ferrit/Reader");
    EXPECT_EQ(entry.level, 3);
    EXPECT_EQ(entry.parentId, "parent-7");
    EXPECT_EQ(entry.id.rfind("FT_Reader_", 0), 0u);
    EXPECT_TRUE(entry.has("time"));
    EXPECT_TRUE(updates.empty());
}

TEST_F(ReaderTest, LoadSendsAppVisitFirstRcfThenRc) {
    installShop();
    load("shop");
    load("shop");
    std::vector<std::string> visits;
    for (const FakeProxy::Record& record : proxy_->named("Ferrit.AppVisit"))
        visits.push_back(record.dimensions.at("visitType"));
    EXPECT_EQ(visits, (std::vector<std::string>{"RCF", "RC"}));
}

TEST_F(ReaderTest, LoadOfUnknownPackAsksForItAndGives3101WhenStillUnknown) {
    auto [reader, error] = load("ghost");
    EXPECT_EQ(reader, nullptr);
    EXPECT_EQ(error.code(), Errors::kConfigNotFound);
    EXPECT_EQ(error.message(), "ghost config not found");
    ASSERT_EQ(updates.size(), 1u);
    EXPECT_EQ(updates[0].name, "ghost");
    EXPECT_EQ(updates[0].trigger, kTriggerVisit);
    const auto entry = logs_->last("load", "Ferrit/Reader");
    EXPECT_EQ(entry.level, 1);
    EXPECT_EQ(entry.errorCode, std::to_string(Errors::kConfigNotFound));
}

TEST_F(ReaderTest, LoadPassesTheErrorOfTheUpdateOn) {
    requester_->answer = [](const std::string&, UpdateRequester::Completion done) {
        done(Errors::networkNotSupported("shop", "None"));
    };
    auto [reader, error] = load("shop");
    EXPECT_EQ(reader, nullptr);
    EXPECT_EQ(error.code(), Errors::kNetworkNotSupported);
}

TEST_F(ReaderTest, LoadRetriesTheMatchOnceTheUpdateHasInstalledThePack) {
    install({pack("shop", kPackTypeACache, 0, 3)});
    requester_->answer = [this](const std::string&, UpdateRequester::Completion done) {
        if (!done) return;
        installShop();  // what the update would have done
        done(Error());
    };
    auto [reader, error] = load("shop");
    ASSERT_NE(reader, nullptr) << error.message();
    Error readError;
    EXPECT_EQ(reader->read("//shop.com/a.js", nullptr, readError), "shop-a");
}

TEST_F(ReaderTest, LoadWithVersionPinsTheMatch) {
    installShop(3);
    auto pinned = pack("shop@2", kPackTypeACache, 2, 2);
    pinned->subType = 1;
    install({pinned});
    writeFile("apps/shop/2/app-res.hvc",
              signedIndex(table({{"res/a.js", "https://shop.com/a.js"}})));
    writeFile("apps/shop/2/res/a.js", "shop-a-v2");
    auto [reader, error] = load("shop", "A:shop@2");
    ASSERT_NE(reader, nullptr) << error.message();
    EXPECT_TRUE(reader->match()->pinned);
    Error readError;
    EXPECT_EQ(reader->read("//shop.com/a.js", nullptr, readError), "shop-a-v2");
}

TEST_F(ReaderTest, LoadWithVersionServesAnOlderCopyLeftOnDisk) {
    installShop(3);
    writeFile("apps/shop/2/app-res.hvc",
              signedIndex(table({{"res/a.js", "https://shop.com/a.js"}})));
    writeFile("apps/shop/2/res/a.js", "shop-a-v2");
    auto [reader, error] = load("shop", "A:shop@2");
    ASSERT_NE(reader, nullptr) << error.message();
    EXPECT_EQ(reader->match()->name, "shop@2");
    Error readError;
    EXPECT_EQ(reader->read("//shop.com/a.js", nullptr, readError), "shop-a-v2");
}

// --- exists and read --------------------------------------------------------------------------

TEST_F(ReaderTest, ReadGivesBytesAndHeadersByEveryPathForm) {
    installShop();
    auto [reader, error] = load("shop");
    ASSERT_NE(reader, nullptr);
    Error readError(1, "stale");
    HeaderMap header;
    EXPECT_EQ(reader->read("//shop.com/a.js", &header, readError), "shop-a");
    EXPECT_FALSE(readError);
    EXPECT_EQ(header.at("Content-Type"), "application/x-javascript");
    // A record without a URL is found by its path below "res/", with or without a leading "/".
    EXPECT_EQ(reader->read("css/b.css", &header, readError), "shop-b");
    EXPECT_EQ(header.at("Content-Type"), "text/css;charset=UTF-8");
    EXPECT_EQ(reader->read("/css/b.css", nullptr, readError), "shop-b");
}

TEST_F(ReaderTest, ReadOfUnknownPathGives3002AndLogsRead) {
    installShop();
    auto [reader, error] = load("shop");
    ASSERT_NE(reader, nullptr);
    Error readError;
    EXPECT_EQ(reader->read("none.js", nullptr, readError), "");
    EXPECT_EQ(readError.code(), Errors::kNotFerritPackResource);
    EXPECT_EQ(readError.message(), "Not Ferrit A:shop@3 resource");
    const auto entry = logs_->last("read", "Ferrit/Reader");
    EXPECT_EQ(entry.field("path").stringValue(), "none.js");
    EXPECT_EQ(entry.errorCode, std::to_string(Errors::kNotFerritPackResource));
}

TEST_F(ReaderTest, ExistsAnswersForIndexedFilesThatAreThere) {
    installShop();
    auto [reader, error] = load("shop");
    ASSERT_NE(reader, nullptr);
    EXPECT_TRUE(reader->exists("//shop.com/a.js"));
    EXPECT_TRUE(reader->exists("css/b.css"));
    EXPECT_FALSE(reader->exists("none.js"));
    std::filesystem::remove(temp_.path() / "apps/shop/3/res/a.js");
    EXPECT_FALSE(reader->exists("//shop.com/a.js"));
    const auto entry = logs_->last("exists", "Ferrit/Reader");
    EXPECT_EQ(entry.field("path").stringValue(), "//shop.com/a.js");
    EXPECT_EQ(entry.errorCode, std::to_string(Errors::kPackFileNotFound));
}

// Each read and each question through a reader is a visit of its own, reported once.
TEST_F(ReaderTest, ReadAndExistsEachSendOneAppVisit) {
    installShop();
    auto [reader, error] = load("shop");
    ASSERT_NE(reader, nullptr);
    const size_t loaded = proxy_->named("Ferrit.AppVisit").size();
    Error readError;
    EXPECT_EQ(reader->read("//shop.com/a.js", nullptr, readError), "shop-a");
    EXPECT_EQ(proxy_->named("Ferrit.AppVisit").size(), loaded + 1);
    // A path that the pack does not know is a visit too, with its error.
    EXPECT_EQ(reader->read("none.js", nullptr, readError), "");
    EXPECT_EQ(proxy_->named("Ferrit.AppVisit").size(), loaded + 2);
    EXPECT_TRUE(reader->exists("css/b.css"));
    const auto visits = proxy_->named("Ferrit.AppVisit");
    ASSERT_EQ(visits.size(), loaded + 3);
    EXPECT_EQ(visits[loaded + 1].dimensions.at("errorCode"),
              std::to_string(Errors::kNotFerritPackResource));
    // The load was the pack's first visit; these are not.
    for (size_t i = loaded; i < visits.size(); ++i)
        EXPECT_EQ(visits[i].dimensions.at("visitType"), "N") << i;
}

TEST_F(ReaderTest, ReadOfFileGoneFromDiskGives3109AndAsksForReinstall) {
    installShop();
    auto [reader, error] = load("shop");
    ASSERT_NE(reader, nullptr);
    std::filesystem::remove(temp_.path() / "apps/shop/3/res/css/b.css");
    Error readError;
    EXPECT_EQ(reader->read("css/b.css", nullptr, readError), "");
    EXPECT_EQ(readError.code(), Errors::kPackFileNotFound);
    TaskRunner::runDue();
    EXPECT_EQ(SCache::current()->find("shop")->status, kPackStatusNeedReinstall);
}

TEST_F(ReaderTest, ReaderOfFixedUrlPackWithoutListFindsNoPath) {
    const std::string url = "https://apps.com/m.zip";
    writeFile("apps/" + Digest::md5Hex(Url::key(url)) + "/1/res/index.html", "<html>");
    auto [reader, error] = load(url);
    ASSERT_NE(reader, nullptr) << error.message();
    Error readError;
    EXPECT_EQ(reader->read("index.html", nullptr, readError), "");
    EXPECT_EQ(readError.code(), Errors::kNotFerritPackResource);
}

}  // namespace
}  // namespace FerritTest
