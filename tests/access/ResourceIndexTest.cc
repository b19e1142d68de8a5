#include "model/ResourceIndex.h"

#include <gtest/gtest.h>

#include "base/Digest.h"
#include "base/Errors.h"
#include "tests/MemoryPackedFiles.h"
#include "tests/access/AccessFixture.h"

namespace FerritTest {

namespace Errors = FerritCore::Errors;
namespace {

using MarlLogger::json::JSON;

class ResourceIndexTest : public AccessFixture {
  protected:
    static JSON removal(const std::string& path) {
        JSON t;
        t.set(path, JSON(MarlLogger::json::JSONObject{{"url", "https://h.com/" + path}}));
        return t;
    }
    // Built when asked: the root is set only in SetUp.
    static Folder folder() { return Folder::disk("apps/p/1/"); }
};

// --- parseSigned ------------------------------------------------------------------------------

TEST_F(ResourceIndexTest, FileWithoutDoubleBarGives1107TokenNotFound) {
    JSON table;
    Error error;
    EXPECT_FALSE(
        ResourceIndex::parseSigned(Folder::disk("x/app-res.hvc"), "{\"a\":{}}|sig", table, error));
    EXPECT_EQ(error.code(), Errors::kFileDeserialization);
    EXPECT_EQ(error.message(), "file \"x/app-res.hvc\" deserialization failed: Token || not found");
    EXPECT_TRUE(table.isNull());
}

TEST_F(ResourceIndexTest, FileWithDoubleBarButNoLaterBarGives1107) {
    JSON table;
    Error error;
    EXPECT_FALSE(ResourceIndex::parseSigned(Folder::disk("x/app-res.hvc"), "{}||token-and-no-bar",
                                            table, error));
    EXPECT_EQ(error.code(), Errors::kFileDeserialization);
    EXPECT_EQ(error.message(), "file \"x/app-res.hvc\" deserialization failed: Token | not found");
}

TEST_F(ResourceIndexTest, SignatureIsCheckedOverTheMd5OfTheBody) {
    const std::string body = "{\"res/a.js\":{\"v\":\"00\"}}";
    JSON table;
    Error error(3, "stale");
    ASSERT_TRUE(ResourceIndex::parseSigned(folder(), signedIndex(body), table, error))
        << error.message();
    EXPECT_FALSE(error);
    EXPECT_EQ(table["res/a.js"]["v"].stringValue(), "00");
    // An empty token is a token as well.
    ASSERT_TRUE(ResourceIndex::parseSigned(
        folder(), body + "|||" + FakeProxy::base64(FakeProxy::signatureOf(Digest::md5Hex(body))),
        table, error));
}

TEST_F(ResourceIndexTest, RefusedSignatureGives1106WithTheMd5) {
    const std::string body = "{}";
    JSON table;
    Error error;
    EXPECT_FALSE(ResourceIndex::parseSigned(
        folder(),
        body + "||t|" + FakeProxy::base64(FakeProxy::signatureOf(Digest::md5Hex("other"))), table,
        error));
    EXPECT_EQ(error.code(), Errors::kFileVerify);
    EXPECT_EQ(error.message(),
              "file \"apps/p/1/\" verify failed: MD5 is \"" + Digest::md5Hex(body) + "\"");
}

TEST_F(ResourceIndexTest, SignatureThatIsNotBase64IsRefused) {
    JSON table;
    Error error;
    EXPECT_FALSE(ResourceIndex::parseSigned(folder(), "{}||t|***not base64***", table, error));
    EXPECT_EQ(error.code(), Errors::kFileVerify);
}

TEST_F(ResourceIndexTest, SignedBodyThatIsNotJsonGives1107) {
    JSON table;
    Error error;
    EXPECT_FALSE(
        ResourceIndex::parseSigned(folder(), signedIndex(std::string("{\"a\":")), table, error));
    EXPECT_EQ(error.code(), Errors::kFileDeserialization);
    EXPECT_EQ(error.message(),
              "file \"apps/p/1/\" deserialization failed: Invalid value. at offset 5");
    EXPECT_FALSE(
        ResourceIndex::parseSigned(folder(), signedIndex(std::string("[1,2]")), table, error));
    EXPECT_EQ(error.code(), Errors::kFileDeserialization);
    EXPECT_TRUE(table.isNull());
}

TEST_F(ResourceIndexTest, NoProxyMakesEveryIndexFailWith1106) {
    writeFile("apps/p/1/app-res.hvc", signedIndex(table({{"res/a.js", ""}})));
    Environment::instance().setProxy(nullptr);
    ResourceIndex index("p", folder());
    EXPECT_EQ(index.error().code(), Errors::kFileVerify);
    EXPECT_EQ(index.size(), 0u);
    ResourceIndex zipped(
        "p", [](const std::string&, Error&) { return signedIndex(std::string("{}")); }, false);
    EXPECT_EQ(zipped.error().code(), Errors::kFileVerify);
}

// --- Loading from a folder --------------------------------------------------------------------

TEST_F(ResourceIndexTest, LoadsTheFullListOfAFolder) {
    writeFile("apps/p/1/app-res.hvc",
              signedIndex(table({{"res/a.js", "https://h.com/a.js"}, {"res/css/b.css", ""}})));
    ResourceIndex index("p", folder());
    ASSERT_FALSE(index.error()) << index.error().message();
    EXPECT_EQ(index.name(), "p");
    // Looked up by the "//" form of the URL, as the matcher keys it.
    ASSERT_NE(index.find("//h.com/a.js"), nullptr);
    EXPECT_EQ(index.find("//h.com/a.js")->path, "res/a.js");
    EXPECT_EQ(index.find("https://h.com/a.js"), nullptr);
    EXPECT_EQ(index.find("res/a.js")->url, "https://h.com/a.js");
    // Without a URL a record is found by its path without "res/".
    ASSERT_NE(index.find("//css/b.css"), nullptr);
    EXPECT_EQ(index.find("//css/b.css")->path, "res/css/b.css");
    EXPECT_EQ(index.size(), 4u);
}

TEST_F(ResourceIndexTest, FindOfSlashFormsAgrees) {
    JSON t;
    t.set("/a/b", JSON(MarlLogger::json::JSONObject{{"url", "//a/b"}, {"v", "11"}}));
    ResourceIndex index("p", t);
    ASSERT_NE(index.find("a/b"), nullptr);
    EXPECT_EQ(index.find("/a/b"), index.find("a/b"));
    EXPECT_EQ(index.find("a/b")->path, "a/b");
    // "//a/b" is the URL form: one slash is not taken from it.
    ASSERT_NE(index.find("//a/b"), nullptr);
    EXPECT_EQ(index.find("//a/b")->url, "//a/b");
    EXPECT_EQ(index.find("/a/c"), nullptr);
}

TEST_F(ResourceIndexTest, RecordHeadersAreKept) {
    JSON entry;
    entry.set("url", "https://h.com/a.css");
    entry.set("v", "12");
    entry.set("header", JSON(MarlLogger::json::JSONObject{{"Access-Control-Allow-Origin", "*"}}));
    JSON t;
    t.set("res/a.css", entry);
    writeFile("apps/p/1/app-res.hvc", signedIndex(t));
    ResourceIndex index("p", folder());
    ASSERT_NE(index.find("//h.com/a.css"), nullptr);
    EXPECT_EQ(index.find("//h.com/a.css")->header.at("Access-Control-Allow-Origin"), "*");
}

TEST_F(ResourceIndexTest, MissingIncrementIsNoFailureButMissingFullListIs1101) {
    ResourceIndex none("p", folder());
    EXPECT_EQ(none.error().code(), Errors::kFileNotExists);
    EXPECT_EQ(none.error().message(), "file \"apps/p/1/app-res.hvc\" not exists");
    writeFile("apps/p/1/app-res.hvc", signedIndex(table({{"res/a.js", ""}})));
    ResourceIndex full("p", folder());
    EXPECT_FALSE(full.error());
}

TEST_F(ResourceIndexTest, ZeroByteIncrementIsIgnoredAndZeroByteFullListGives1103) {
    writeFile("apps/p/1/app-res-incr.hvc", "");
    writeFile("apps/p/1/app-res.hvc", "");
    ResourceIndex index("p", folder());
    EXPECT_EQ(index.error().code(), Errors::kNoData);
    EXPECT_EQ(index.error().message(), "file \"apps/p/1/app-res.hvc\" no data");
    writeFile("apps/p/1/app-res.hvc", signedIndex(table({{"res/a.js", ""}})));
    EXPECT_FALSE(ResourceIndex("p", folder()).error());
}

TEST_F(ResourceIndexTest, IncrementRecordWithoutMd5HidesThePathInTheFullList) {
    writeFile("apps/p/1/app-res-incr.hvc", signedIndex(removal("res/old.js")));
    writeFile("apps/p/1/app-res.hvc",
              signedIndex(table({{"res/old.js", "https://h.com/old.js"}, {"res/new.js", ""}})));
    ResourceIndex index("p", folder());
    ASSERT_FALSE(index.error()) << index.error().message();
    EXPECT_EQ(index.find("res/old.js"), nullptr);
    EXPECT_EQ(index.find("//h.com/old.js"), nullptr);
    EXPECT_NE(index.find("res/new.js"), nullptr);
    EXPECT_EQ(index.removed().count("res/old.js"), 1u);
}

TEST_F(ResourceIndexTest, IncrementRecordWinsOverTheFullList) {
    JSON incr;
    incr.set("res/a.js",
             JSON(MarlLogger::json::JSONObject{{"url", "https://h.com/a.js"}, {"v", "new-md5"}}));
    JSON full;
    full.set("res/a.js",
             JSON(MarlLogger::json::JSONObject{{"url", "https://h.com/a.js"}, {"v", "old-md5"}}));
    writeFile("apps/p/1/app-res-incr.hvc", signedIndex(incr));
    writeFile("apps/p/1/app-res.hvc", signedIndex(full));
    ResourceIndex index("p", folder());
    ASSERT_NE(index.find("//h.com/a.js"), nullptr);
    EXPECT_EQ(index.find("//h.com/a.js")->md5, "new-md5");
    EXPECT_EQ(index.find("res/a.js")->md5, "new-md5");
}

TEST_F(ResourceIndexTest, FullListRecordWithoutMd5FailsTheWholeIndex) {
    JSON t = table({{"res/a.js", ""}});
    t.set("res/b.js", JSON(MarlLogger::json::JSONObject{{"url", "https://h.com/b.js"}}));
    writeFile("apps/p/1/app-res.hvc", signedIndex(t));
    ResourceIndex index("p", folder());
    EXPECT_EQ(index.error().code(), Errors::kFileDeserialization);
    EXPECT_EQ(
        index.error().message(),
        "file \"apps/p/1/app-res.hvc\" deserialization failed: MD5 for \"res/b.js\" not found");
    EXPECT_EQ(index.size(), 0u);
    EXPECT_EQ(index.find("res/a.js"), nullptr);
}

TEST_F(ResourceIndexTest, IncrementThatDoesNotVerifyFailsTheIndex) {
    writeFile("apps/p/1/app-res-incr.hvc", "{}||t|" + FakeProxy::base64("forged"));
    writeFile("apps/p/1/app-res.hvc", signedIndex(table({{"res/a.js", ""}})));
    ResourceIndex index("p", folder());
    EXPECT_EQ(index.error().code(), Errors::kFileVerify);
    EXPECT_EQ(index.error().message().find("apps/p/1/app-res-incr.hvc"), 6u);
}

TEST_F(ResourceIndexTest, TruncatedIndexFilesGiveTheirDocumentedErrors) {
    const std::string whole = signedIndex(table({{"res/a.js", "https://h.com/a.js"}}));
    // Cut inside the signature: the bytes no longer sign the body.
    writeFile("apps/p/1/app-res.hvc", whole.substr(0, whole.size() - 6));
    EXPECT_EQ(ResourceIndex("p", folder()).error().code(), Errors::kFileVerify);
    // Cut inside the body: no separator is left.
    writeFile("apps/p/1/app-res.hvc", whole.substr(0, whole.find("||") - 3));
    const ResourceIndex cut("p", folder());
    EXPECT_EQ(cut.error().code(), Errors::kFileDeserialization);
    EXPECT_NE(cut.error().message().find("Token || not found"), std::string::npos);
    // Cut right after the separator: no "|" after the token.
    writeFile("apps/p/1/app-res.hvc", whole.substr(0, whole.find("||") + 4));
    EXPECT_NE(ResourceIndex("p", folder()).error().message().find("Token | not found"),
              std::string::npos);
}

TEST_F(ResourceIndexTest, PathsThatLeaveThePackFailTheIndex) {
    for (const char* path :
         {"../../../secret.txt", "res/../../x.js", "res\\..\\..\\x.js", "/../x", ".."}) {
        SCOPED_TRACE(path);
        writeFile("apps/p/1/app-res.hvc",
                  signedIndex(table({{"res/ok.js", ""}, {path, "https://h.com/x.js"}})));
        const ResourceIndex index("p", folder());
        EXPECT_EQ(index.error().code(), Errors::kFileDeserialization);
        EXPECT_NE(index.error().message().find("leaves the pack"), std::string::npos)
            << index.error().message();
        EXPECT_EQ(index.size(), 0u);
    }
}

TEST_F(ResourceIndexTest, DotsInsideNamesAreNoClimb) {
    writeFile("apps/p/1/app-res.hvc",
              signedIndex(table({{"res/a..b.js", ""}, {"res/..hidden/c.js", ""}})));
    EXPECT_FALSE(ResourceIndex("p", folder()).error());
}

TEST_F(ResourceIndexTest, AnAssetFolderIsReadThroughTheProvider) {
    const std::filesystem::path raw = temp_.path() / "raw";
    std::filesystem::create_directories(raw / "Ferrit_Asset_kit/2");
    std::ofstream(raw / "Ferrit_Asset_kit/2/app-res.hvc", std::ios::binary)
        << signedIndex(table({{"res/k.js", ""}}));
    AssetProvider::set(std::make_shared<RawFileProvider>(raw.string()));
    ResourceIndex index("kit", Folder::asset("Ferrit_Asset_kit/2/"));
    ASSERT_FALSE(index.error()) << index.error().message();
    EXPECT_NE(index.find("//k.js"), nullptr);
}

TEST_F(ResourceIndexTest, APackedFolderIsReadFromTheStore) {
    auto store = std::make_shared<MemoryPackedFiles>();
    PackedFiles::set(store);
    Error error;
    ASSERT_TRUE(store->put("p/1/app-res.hvc", signedIndex(table({{"res/a.js", ""}})), error));
    ResourceIndex index("p", Folder::packed("p/1/"));
    ASSERT_FALSE(index.error()) << index.error().message();
    EXPECT_NE(index.find("res/a.js"), nullptr);
}

// --- The other constructors -------------------------------------------------------------------

TEST_F(ResourceIndexTest, ZipIndexReadsTheEntryAndNamesTheZipInMessages) {
    std::vector<std::string> asked;
    ResourceIndex index(
        "p",
        [&](const std::string& entry, Error& error) {
            asked.push_back(entry);
            error.clear();
            return signedIndex(removal("res/gone.js"));
        },
        true);
    EXPECT_FALSE(index.error());
    EXPECT_EQ(asked, std::vector<std::string>{"app-res.hvc"});
    EXPECT_EQ(index.removed().count("res/gone.js"), 1u);

    ResourceIndex strict(
        "p", [&](const std::string&, Error&) { return signedIndex(removal("res/gone.js")); },
        false);
    EXPECT_EQ(
        strict.error().message(),
        "file \"p.zip/app-res.hvc\" deserialization failed: MD5 for \"res/gone.js\" not found");

    ResourceIndex failing(
        "p",
        [&](const std::string&, Error& error) {
            error = Errors::unzipFailed("p.zip", "Open zip file failed: -1");
            return std::string();
        },
        false);
    EXPECT_EQ(failing.error().code(), Errors::kUnzipFailed);
}

TEST_F(ResourceIndexTest, EmbeddedTableIsNamedAfterTheOlderLayout) {
    JSON t;
    t.set("res/a.js", JSON(MarlLogger::json::JSONObject{{"url", "https://h.com/a.js"}}));
    ResourceIndex index("sc", t);
    EXPECT_EQ(index.error().message(),
              "file \"SCacheConfig/sc/app-res.hvc\" deserialization failed: MD5 for \"res/a.js\" "
              "not found");
    EXPECT_EQ(ResourceIndex("sc", JSON(3)).error().code(), Errors::kFileDeserialization);
}

TEST_F(ResourceIndexTest, FailedIndexCarriesItsError) {
    ResourceIndex index("p", Errors::resourceListNotFound("p"));
    EXPECT_EQ(index.error().message(), "p resource list not found");
    EXPECT_EQ(index.find("x"), nullptr);
}

// --- verifyFiles ------------------------------------------------------------------------------

TEST_F(ResourceIndexTest, VerifyFilesComparesEachFileWithItsRecord) {
    writeFile("apps/p/1/app-res.hvc",
              signedIndex(tableOf(
                  {{"res/a.js", "https://h.com/a.js", "alpha"}, {"res/b.css", "", "beta"}})));
    writeFile("apps/p/1/res/a.js", "alpha");
    writeFile("apps/p/1/res/b.css", "beta");
    ResourceIndex index("p", folder());
    ASSERT_FALSE(index.error()) << index.error().message();
    Error error(9, "stale");
    EXPECT_TRUE(index.verifyFiles(folder(), error));
    EXPECT_FALSE(error);

    writeFile("apps/p/1/res/b.css", "tampered");
    EXPECT_FALSE(index.verifyFiles(folder(), error));
    EXPECT_EQ(error.code(), Errors::kFileVerify);
    EXPECT_EQ(error.message(), "file \"apps/p/1/res/b.css\" verify failed: MD5 \"" +
                                   Digest::md5Hex("tampered") + "\" different with expectation \"" +
                                   Digest::md5Hex("beta") + "\"");

    std::filesystem::remove(temp_.path() / "apps/p/1/res/b.css");
    EXPECT_FALSE(index.verifyFiles(folder(), error));
    EXPECT_EQ(error.code(), Errors::kFileNotExists);
}

// --- The pool ---------------------------------------------------------------------------------

TEST_F(ResourceIndexTest, PoolLoadsAPackFromItsFolderOnce) {
    install({pack("app", kPackTypeFerrit, 3, 3, {"https://h.com/app/"})});
    serveIndexes({{"app", table({{"res/a.js", "https://h.com/app/a.js"}})}});
    const PackPtr p = SCache::current()->find("app");
    ResourceIndexPtr first = ResourceIndexPool::get(*p);
    ASSERT_FALSE(first->error()) << first->error().message();
    EXPECT_EQ(proxy_->verified.size(), 1u);
    EXPECT_EQ(ResourceIndexPool::get(*p), first);
    EXPECT_EQ(proxy_->verified.size(), 1u);
    // After an install the pack is read again.
    ResourceIndexPool::remove("app");
    EXPECT_NE(ResourceIndexPool::get(*p), first);
    EXPECT_EQ(proxy_->verified.size(), 2u);
    ResourceIndexPool::clear();
    ResourceIndexPool::get(*p);
    EXPECT_EQ(proxy_->verified.size(), 3u);
}

// A thread finds what it looked up before by the record's address; a record at the same address
// that names another pack or another installation is still given its own index.
TEST_F(ResourceIndexTest, PoolJudgesARecordByItsNameAndInstallationNotItsAddress) {
    install({pack("app", kPackTypeFerrit, 3, 3), pack("other", kPackTypeFerrit, 3, 3)});
    auto one = std::make_shared<const ResourceIndex>("app", table({{"res/x.js", ""}}));
    auto two = std::make_shared<const ResourceIndex>("other", table({{"res/y.js", ""}}));
    auto three = std::make_shared<const ResourceIndex>("app", table({{"res/z.js", ""}}));
    ResourceIndexPool::setLoader([&](const Pack& p) -> ResourceIndexPtr {
        if (p.name == "other") return two;
        return p.installedSeq == 3 ? one : three;
    });
    Pack record = *SCache::current()->find("app");
    EXPECT_EQ(ResourceIndexPool::get(record), one);
    EXPECT_EQ(ResourceIndexPool::get(record), one);
    record.name = "other";
    EXPECT_EQ(ResourceIndexPool::get(record), two);
    record.name = "app";
    EXPECT_EQ(ResourceIndexPool::get(record), one);
    record.installedSeq = 4;
    EXPECT_EQ(ResourceIndexPool::get(record), three);
    record.installedSeq = 3;
    EXPECT_EQ(ResourceIndexPool::get(record), one);
    // After a change of the pool the same record is looked up again.
    auto four = std::make_shared<const ResourceIndex>("app", table({{"res/w.js", ""}}));
    ResourceIndexPool::setLoader([&](const Pack&) { return four; });
    ResourceIndexPool::remove("app");
    EXPECT_EQ(ResourceIndexPool::get(record), four);
}

// A shared record is found again by its address; another record, even one made where a freed one
// lay, and a record whose installation changed are given their own index.
TEST_F(ResourceIndexTest, PoolFindsASharedRecordAgainOnlyWhileItIsTheSameRecord) {
    install({pack("app", kPackTypeFerrit, 3, 3), pack("other", kPackTypeFerrit, 3, 3)});
    auto one = std::make_shared<const ResourceIndex>("app", table({{"res/x.js", ""}}));
    auto two = std::make_shared<const ResourceIndex>("other", table({{"res/y.js", ""}}));
    auto three = std::make_shared<const ResourceIndex>("app", table({{"res/z.js", ""}}));
    int loads = 0;
    ResourceIndexPool::setLoader([&](const Pack& p) -> ResourceIndexPtr {
        ++loads;
        if (p.name == "other") return two;
        return p.installedSeq == 3 ? one : three;
    });
    // Made apart from its owner, so that a freed record's memory may be given to the next one.
    std::shared_ptr<Pack> record(new Pack(*SCache::current()->find("app")));
    EXPECT_EQ(ResourceIndexPool::get(PackPtr(record)), one);
    EXPECT_EQ(ResourceIndexPool::get(PackPtr(record)), one);
    EXPECT_EQ(loads, 1);
    record->installedSeq = 4;
    EXPECT_EQ(ResourceIndexPool::get(PackPtr(record)), three);
    record.reset();
    std::shared_ptr<Pack> next(new Pack(*SCache::current()->find("other")));
    next->installedSeq = 4;  // all that tells it apart, at the same address, is its name
    EXPECT_EQ(ResourceIndexPool::get(PackPtr(next)), two);
    // After a change of the pool the same record is looked up again.
    ResourceIndexPool::remove("other");
    EXPECT_EQ(ResourceIndexPool::get(PackPtr(next)), two);
    EXPECT_EQ(loads, 4);
}

TEST_F(ResourceIndexTest, PoolStoresAFailedLoad) {
    install({pack("app", kPackTypeFerrit, 3, 3)});
    const PackPtr p = SCache::current()->find("app");
    ResourceIndexPtr failed = ResourceIndexPool::get(*p);
    EXPECT_EQ(failed->error().code(), Errors::kFileNotExists);
    // Written later, the list is not seen until the pack is removed from the pool.
    serveIndexes({{"app", table({{"res/a.js", ""}})}});
    EXPECT_EQ(ResourceIndexPool::get(*p), failed);
    ResourceIndexPool::remove("app");
    EXPECT_FALSE(ResourceIndexPool::get(*p)->error());
}

TEST_F(ResourceIndexTest, PoolTakesAssetPacksFromEmbeddedAndGives3112WithoutStoring) {
    install({pack("sc", kPackTypeSCache, 1, 1)});
    const PackPtr p = SCache::current()->find("sc");
    ResourceIndexPtr missing = ResourceIndexPool::get(*p);
    EXPECT_EQ(missing->error().code(), Errors::kResourceListNotFound);
    EXPECT_EQ(missing->error().message(), "sc resource list not found");
    auto embedded = std::make_shared<const ResourceIndex>("sc", table({{"res/a.js", ""}}));
    ResourceIndexPool::set("sc", embedded);
    EXPECT_EQ(ResourceIndexPool::get(*p), embedded);
    // clear() empties only what was loaded from folders.
    ResourceIndexPool::clear();
    EXPECT_EQ(ResourceIndexPool::get(*p), embedded);
}

TEST_F(ResourceIndexTest, PoolSetIgnoresEmptyNameAndNullIndex) {
    install({pack("sc", kPackTypeSCache, 1, 1)});
    ResourceIndexPool::set("", std::make_shared<const ResourceIndex>("", table({})));
    ResourceIndexPool::set("sc", nullptr);
    EXPECT_EQ(ResourceIndexPool::get(*SCache::current()->find("sc"))->error().code(),
              Errors::kResourceListNotFound);
}

TEST_F(ResourceIndexTest, PoolLoadsPinnedAndPreviewAssetPacksFromTheirFolders) {
    auto pinned = pack("sc@4", kPackTypeSCache, 4, 4);
    pinned->subType = 1;
    auto preview = pack("pv", kPackTypeSCache, 2, 2);
    preview->status = kPackStatusPreview;
    preview->zipURL = "https://h.com/pv.zip";
    install({pinned, preview});
    writeFile("apps/sc/4/app-res.hvc", signedIndex(table({{"res/a.js", ""}})));
    writeFile("apps/pv/2/app-res.hvc", signedIndex(table({{"res/b.js", ""}})));
    EXPECT_NE(ResourceIndexPool::get(*SCache::current()->find("sc@4"))->find("res/a.js"), nullptr);
    EXPECT_NE(ResourceIndexPool::get(*SCache::current()->find("pv"))->find("res/b.js"), nullptr);
}

TEST_F(ResourceIndexTest, PoolLoaderReplacesFolderReading) {
    install({pack("app", kPackTypeFerrit, 3, 3)});
    auto built = std::make_shared<const ResourceIndex>("app", table({{"res/x.js", ""}}));
    ResourceIndexPool::setLoader([&](const Pack&) { return built; });
    EXPECT_EQ(ResourceIndexPool::get(*SCache::current()->find("app")), built);
    ResourceIndexPool::clear();
    ResourceIndexPool::setLoader([](const Pack&) { return ResourceIndexPtr(); });
    EXPECT_EQ(ResourceIndexPool::get(*SCache::current()->find("app"))->error().code(),
              Errors::kResourceListNotFound);
}

}  // namespace
}  // namespace FerritTest
