// The content cache: two tiers, lazily loaded entries, CRC checks, owners and their references,
// validation by agreeing bodies, the consistency pass, and damage behind the cache's back.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "base/Digest.h"
#include "base/Errors.h"
#include "marl/Json.h"
#include "runtime/Settings.h"
#include "storage/Cache.h"
#include "storage/ModuleCache.h"
#include "tests/storage/CacheFixture.h"

namespace FerritTest {

namespace Errors = FerritCore::Errors;
namespace {

using FerritCore::Cache;
using FerritCore::CachedResource;
using FerritCore::Error;
using FerritCore::Settings;
using FerritCore::Digest::md5Hex;
using MarlLogger::json::JSON;

constexpr const char* kOwner = "ModuleCache";
constexpr const char* kOther = "UniApp";
constexpr const char* kUrl = "static.example.com/m/a.js";

class CacheTest : public CacheFixture {
  protected:
    Cache& cache() { return Cache::instance(); }

    bool write(const std::string& url, const CachedResource& resource, Error& error,
               const std::string& owner = kOwner) {
        return cache().write(url, owner, resource, error);
    }
    void mustWrite(const std::string& url, const CachedResource& resource,
                   const std::string& owner = kOwner) {
        Error error;
        ASSERT_TRUE(write(url, resource, error, owner)) << error.message();
    }
    std::string readBody(const std::string& url, Error& error) {
        auto resource = cache().read(url, kOwner, error);
        return resource ? resource->body : std::string("<none>");
    }
    bool largeFileExists(const std::string& url) {
        return std::filesystem::exists(path("cache_large/" + md5Hex(url)));
    }
};

// --- Tiers ------------------------------------------------------------------------------------

TEST_F(CacheTest, BodyOfExactlyTheThresholdIsSmallAndOneByteMoreIsLarge) {
    const std::string small(Cache::kLargeThreshold, 's');
    const std::string large(Cache::kLargeThreshold + 1, 'l');
    mustWrite("h/small.js", resourceOf(small));
    mustWrite("h/large.js", resourceOf(large));

    EXPECT_TRUE(cache().contains("res/h/small.js"));
    EXPECT_FALSE(largeFileExists("h/small.js"));
    EXPECT_FALSE(cache().contains("res/h/large.js"));
    EXPECT_TRUE(largeFileExists("h/large.js"));
    EXPECT_TRUE(cache().contains("meta/h/large.js"));

    Error error;
    EXPECT_EQ(readBody("h/small.js", error), small);
    EXPECT_FALSE(error);
    EXPECT_EQ(readBody("h/large.js", error), large);
    EXPECT_FALSE(error);
    EXPECT_EQ(cache().totalSize(), static_cast<int64_t>(small.size() + large.size()));
}

TEST_F(CacheTest, RewriteFromLargeToSmallRemovesTheFile) {
    mustWrite(kUrl, resourceOf(std::string(Cache::kLargeThreshold + 10, 'l'), 1000));
    ASSERT_TRUE(largeFileExists(kUrl));
    mustWrite(kUrl, resourceOf("small again", 2000));
    EXPECT_FALSE(largeFileExists(kUrl));
    EXPECT_TRUE(cache().contains(std::string("res/") + kUrl));
    Error error;
    EXPECT_EQ(readBody(kUrl, error), "small again");
    EXPECT_EQ(cache().totalSize(), 11);
}

TEST_F(CacheTest, RewriteFromSmallToLargeRemovesTheResKey) {
    mustWrite(kUrl, resourceOf("small first", 1000));
    const std::string large(Cache::kLargeThreshold + 10, 'l');
    mustWrite(kUrl, resourceOf(large, 2000));
    EXPECT_FALSE(cache().contains(std::string("res/") + kUrl));
    EXPECT_TRUE(largeFileExists(kUrl));
    Error error;
    EXPECT_EQ(readBody(kUrl, error), large);
    EXPECT_EQ(cache().totalSize(), static_cast<int64_t>(large.size()));
}

// --- Dates and validation ---------------------------------------------------------------------

TEST_F(CacheTest, SameBodyWithLaterDateChangesOnlyTheMeta) {
    CachedResource first = resourceOf("module body", 1000);
    mustWrite(kUrl, first);
    const std::string storedBefore = rawValue(std::string("res/") + kUrl);

    CachedResource again = resourceOf("module body", 5000);
    again.trigger = 8;  // would show if the body document were written again
    mustWrite(kUrl, again);

    EXPECT_EQ(rawValue(std::string("res/") + kUrl), storedBefore);
    Error error;
    auto read = cache().read(kUrl, kOwner, error);
    ASSERT_NE(read, nullptr) << error.message();
    EXPECT_EQ(read->trigger, 6u);
    EXPECT_EQ(read->date, 5000);
    EXPECT_TRUE(read->validated);  // two fetches agreed
}

TEST_F(CacheTest, ValidatedEntryThatIsNotOlderKeepsItsContent) {
    CachedResource verified = resourceOf("verified", 5000);
    verified.validated = true;
    mustWrite(kUrl, verified);
    Error error;
    EXPECT_TRUE(write(kUrl, resourceOf("something else", 5000), error));
    EXPECT_FALSE(error);
    EXPECT_EQ(readBody(kUrl, error), "verified");
}

TEST_F(CacheTest, ForceOverwriteReplacesAValidatedEntry) {
    CachedResource verified = resourceOf("verified", 5000);
    verified.validated = true;
    mustWrite(kUrl, verified);
    CachedResource forced = resourceOf("forced", 1000);
    forced.forceOverwrite = true;
    mustWrite(kUrl, forced);
    Error error;
    EXPECT_EQ(readBody(kUrl, error), "forced");
}

TEST_F(CacheTest, DifferentBodyIsStoredAndReportedWithItsFirstDifference) {
    mustWrite(kUrl, resourceOf("function a() { return 1; }", 1000));
    Error error;
    EXPECT_TRUE(write(kUrl, resourceOf("function a() { return 2; }", 2000), error));
    EXPECT_EQ(error.code(), Errors::kRequestVerify);
    EXPECT_EQ(error.message(), std::string("cache verify failed: \"") + kUrl +
                                   "\" @22 content \"1; }\" not equal to other \"2; }\"");
    EXPECT_EQ(readBody(kUrl, error), "function a() { return 2; }");
}

TEST_F(CacheTest, ComparisonNamesTheMissingOrExtraTailAndDifferentDigests) {
    Error error;
    mustWrite("h/grow.js", resourceOf("abc", 1000));
    EXPECT_TRUE(write("h/grow.js", resourceOf("abcdef", 2000), error));
    EXPECT_EQ(error.message(),
              "cache verify failed: \"h/grow.js\" size 3 < other 6, missing \"def\"");

    mustWrite("h/shrink.js", resourceOf("abcdef", 1000));
    EXPECT_TRUE(write("h/shrink.js", resourceOf("abc", 2000), error));
    EXPECT_EQ(error.message(),
              "cache verify failed: \"h/shrink.js\" size 6 > other 3, extra \"def\"");

    CachedResource oldText = resourceOf("same", 1000);
    oldText.md5 = "aaaa";
    mustWrite("h/md5.js", oldText);
    CachedResource newText = resourceOf("same", 2000);
    newText.md5 = "bbbb";
    EXPECT_TRUE(write("h/md5.js", newText, error));
    EXPECT_EQ(error.message(),
              "cache verify failed: \"h/md5.js\" md5 aaaa not equal to other bbbb");
}

TEST_F(CacheTest, ComparisonQuotesAtMostFortyCharacters) {
    mustWrite(kUrl, resourceOf(std::string(100, 'a'), 1000));
    Error error;
    EXPECT_TRUE(write(kUrl, resourceOf(std::string(100, 'b'), 2000), error));
    EXPECT_EQ(error.message(), std::string("cache verify failed: \"") + kUrl + "\" @0 content \"" +
                                   std::string(40, 'a') + "\" not equal to other \"" +
                                   std::string(40, 'b') + "\"");
}

// --- CRC --------------------------------------------------------------------------------------

TEST_F(CacheTest, FlippedByteGivesAMissWith1102AndTheEntryIsGone) {
    const std::string body = "console.log('this body will be damaged');";
    mustWrite(kUrl, resourceOf(body));
    mustWrite("h/other.js", resourceOf("kept"));
    ASSERT_EQ(cache().totalSize(), static_cast<int64_t>(body.size() + 4));
    flipStoredByte(std::string("res/") + kUrl, body);

    Error error;
    EXPECT_EQ(cache().read(kUrl, kOwner, error), nullptr);
    EXPECT_EQ(error.code(), Errors::kFileRead);
    EXPECT_EQ(error.message().rfind(std::string("read cache \"") + kUrl + "\" failed: CRC &ul", 0),
              0u)
        << error.message();
    EXPECT_EQ(cache().totalSize(), 4);
    EXPECT_FALSE(cache().contains(std::string("meta/") + kUrl));
    EXPECT_FALSE(cache().contains(std::string("res/") + kUrl));
    EXPECT_TRUE(cache().metaJson(kUrl).isNull());

    // The next read is a clean miss, and the store keeps working.
    EXPECT_EQ(cache().read(kUrl, kOwner, error), nullptr);
    EXPECT_EQ(error.code(), Errors::kFileNotExists);
    EXPECT_EQ(readBody("h/other.js", error), "kept");
    mustWrite(kUrl, resourceOf(body));
    EXPECT_EQ(readBody(kUrl, error), body);
}

TEST_F(CacheTest, FlippedByteInALargeFileIsAMissToo) {
    std::string body(Cache::kLargeThreshold + 100, 'x');
    body.replace(1000, 12, "damaged here");
    mustWrite(kUrl, resourceOf(body));
    const std::string file = path("cache_large/" + md5Hex(kUrl));
    std::string bytes;
    {
        std::ifstream in(file, std::ios::binary);
        bytes.assign(std::istreambuf_iterator<char>(in), {});
    }
    const size_t at = bytes.find("damaged here");
    ASSERT_NE(at, std::string::npos);
    bytes[at] = 'D';
    std::ofstream(file, std::ios::binary | std::ios::trunc) << bytes;

    Error error;
    EXPECT_EQ(cache().read(kUrl, kOwner, error), nullptr);
    EXPECT_EQ(error.code(), Errors::kFileRead);
    EXPECT_FALSE(std::filesystem::exists(file));
    EXPECT_EQ(cache().totalSize(), 0);
}

TEST_F(CacheTest, ResourceWithCrcZeroIsNeverChecked) {
    const std::string body = "a body stored without a CRC";
    CachedResource resource = resourceOf(body);
    resource.crc = 0;
    mustWrite(kUrl, resource);
    flipStoredByte(std::string("res/") + kUrl, body);
    Error error;
    auto read = cache().read(kUrl, kOwner, error);
    ASSERT_NE(read, nullptr) << error.message();
    EXPECT_NE(read->body, body);
    EXPECT_EQ(read->body.size(), body.size());
}

TEST_F(CacheTest, NoCrcCheckRunsWithCacheCrcDisabled) {
    const std::string body = "a body read without its check";
    mustWrite(kUrl, resourceOf(body));
    flipStoredByte(std::string("res/") + kUrl, body);
    Settings::change([](Settings& s) { s.cacheCRCEnabled = false; });
    Error error;
    auto read = cache().read(kUrl, kOwner, error);
    ASSERT_NE(read, nullptr) << error.message();
    EXPECT_NE(read->body, body);
    // Switched on again, the same bytes are refused.
    Settings::change([](Settings& s) { s.cacheCRCEnabled = true; });
    EXPECT_EQ(cache().read(kUrl, kOwner, error), nullptr);
    EXPECT_EQ(error.code(), Errors::kFileRead);
}

// --- Owners -----------------------------------------------------------------------------------

TEST_F(CacheTest, WithTwoOwnersRemovingOneKeepsTheContentAndRemovingTheSecondDeletesIt) {
    const std::string large(Cache::kLargeThreshold + 1, 'z');
    mustWrite(kUrl, resourceOf(large), kOwner);
    mustWrite(kUrl, resourceOf(large), kOther);

    cache().removeReference(kUrl, kOwner);
    Error error;
    auto read = cache().read(kUrl, "", error);
    ASSERT_NE(read, nullptr) << error.message();
    EXPECT_EQ(read->body, large);
    EXPECT_TRUE(largeFileExists(kUrl));

    cache().removeReference(kUrl, kOther);
    EXPECT_EQ(cache().read(kUrl, "", error), nullptr);
    EXPECT_EQ(error.code(), Errors::kFileNotExists);
    EXPECT_FALSE(largeFileExists(kUrl));
    EXPECT_FALSE(cache().contains(std::string("meta/") + kUrl));
    EXPECT_EQ(cache().totalSize(), 0);
    EXPECT_EQ(cache().get("config").valueOr(JSON())["s"].int64Value(), 0);
}

TEST_F(CacheTest, ReadAddsItsOwnerAndExpiresIsTheLargestReference) {
    mustWrite(kUrl, resourceOf("body", 0, 5000), kOwner);
    Error error;
    auto read = cache().read(kUrl, kOther, error);
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(read->expires, 5000);
    cache().touch(kUrl, kOther, 9000);
    EXPECT_EQ(cache().metaJson(kUrl)["e"].doubleValue(), 9000);
    // A lower expiry does not lower it.
    cache().touch(kUrl, kOther, 10);
    EXPECT_EQ(cache().metaJson(kUrl)["e"].doubleValue(), 9000);
    // Removing kOwner leaves the content to kOther, which the read added.
    cache().removeReference(kUrl, kOwner);
    EXPECT_NE(cache().read(kUrl, "", error), nullptr);
}

TEST_F(CacheTest, NeverExpiringReferenceEndsTheSearch) {
    mustWrite(kUrl, resourceOf("body", 0, CachedResource::kNeverExpires), kOwner);
    mustWrite(kUrl, resourceOf("body", 0, 5000), kOther);
    Error error;
    auto read = cache().read(kUrl, "", error);
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(read->expires, CachedResource::kNeverExpires);
}

TEST_F(CacheTest, MetaJsonShowsSizeExpiryAndValidation) {
    EXPECT_TRUE(cache().metaJson(kUrl).isNull());
    CachedResource resource = resourceOf("twelve bytes", 0, 777);
    resource.validated = true;
    mustWrite(kUrl, resource);
    const JSON meta = cache().metaJson(kUrl);
    EXPECT_EQ(meta["s"].int64Value(), 12);
    EXPECT_EQ(meta["e"].doubleValue(), 777);
    EXPECT_TRUE(meta["v"].boolValue());
}

// --- Failed writes ----------------------------------------------------------------------------

TEST_F(CacheTest, FailedWriteWithAnExistingEntryLeavesTheOldBodyReadable) {
    // A small body whose large rewrite cannot be stored: "cache_large/" is a file.
    mustWrite("h/small.js", resourceOf("old small body", 1000));
    std::filesystem::remove_all(path("cache_large"));
    std::ofstream(path("cache_large")) << "not a folder";
    Error error;
    EXPECT_FALSE(
        write("h/small.js", resourceOf(std::string(Cache::kLargeThreshold + 1, 'n'), 2000), error));
    EXPECT_TRUE(error);
    EXPECT_EQ(readBody("h/small.js", error), "old small body");
    EXPECT_FALSE(error);
    EXPECT_EQ(cache().totalSize(), 14);
}

TEST_F(CacheTest, FailedRewriteOfALargeBodyLeavesTheOldFileWhole) {
    const std::string old(Cache::kLargeThreshold + 1, 'o');
    mustWrite(kUrl, resourceOf(old, 1000));
    // The new file is written beside the old one first; make that impossible.
    std::filesystem::create_directories(path("cache_large/" + md5Hex(kUrl) + ".tmp"));
    Error error;
    EXPECT_FALSE(
        write(kUrl, resourceOf(std::string(Cache::kLargeThreshold + 2, 'n'), 2000), error));
    EXPECT_EQ(error.code(), Errors::kFileWrite);
    EXPECT_EQ(readBody(kUrl, error), old);
    EXPECT_EQ(cache().totalSize(), static_cast<int64_t>(old.size()));
}

// --- Damage behind the cache's back -----------------------------------------------------------

TEST_F(CacheTest, MetadataOfTheWrongTypeIsDroppedWith1102) {
    mustWrite(kUrl, resourceOf("body"));
    Error error;
    ASSERT_FALSE(cache().put(std::string("meta/") + kUrl, JSON("not an object")));
    restart();
    EXPECT_EQ(cache().read(kUrl, kOwner, error), nullptr);
    EXPECT_EQ(error.code(), Errors::kFileRead);
    EXPECT_EQ(error.message(),
              std::string("read store \"cache/meta/") + kUrl + "\" failed: invalid type string");
    EXPECT_FALSE(cache().contains(std::string("meta/") + kUrl));
    EXPECT_FALSE(cache().contains(std::string("res/") + kUrl));
    EXPECT_EQ(cache().read(kUrl, kOwner, error), nullptr);
    EXPECT_EQ(error.code(), Errors::kFileNotExists);
}

TEST_F(CacheTest, BodyDocumentOfTheWrongTypeIsAMiss) {
    mustWrite(kUrl, resourceOf("body"));
    Error error;
    ASSERT_FALSE(cache().put(std::string("res/") + kUrl, JSON(42)));
    EXPECT_EQ(cache().read(kUrl, kOwner, error), nullptr);
    EXPECT_EQ(error.code(), Errors::kFileRead);
    EXPECT_EQ(error.message(),
              std::string("read store \"cache/res/") + kUrl + "\" failed: invalid type int");
    EXPECT_EQ(cache().totalSize(), 0);
}

TEST_F(CacheTest, BodyWithNulBytesReadsWhole) {
    const std::string body("\0a\0\0b\xff\0", 7);
    CachedResource resource = resourceOf(body);
    resource.headers = {{"Content-Type", std::string("x\0y", 3)}, {"ETag", "\"e\""}};
    mustWrite(kUrl, resource);
    Error error;
    auto read = cache().read(kUrl, kOwner, error);
    ASSERT_NE(read, nullptr) << error.message();
    EXPECT_EQ(read->body, body);
    EXPECT_EQ(read->crc, FerritCore::Digest::crc32(body));
    EXPECT_EQ(read->md5, md5Hex(body));
    EXPECT_EQ(read->trigger, 6u);
    EXPECT_EQ(read->headers, resource.headers);
    EXPECT_FALSE(error);
}

TEST_F(CacheTest, EmptyBodyReadsAsEmpty) {
    mustWrite(kUrl, resourceOf(""));
    Error error;
    auto read = cache().read(kUrl, kOwner, error);
    ASSERT_NE(read, nullptr) << error.message();
    EXPECT_EQ(read->body, "");
    EXPECT_EQ(read->md5, md5Hex(""));
    EXPECT_EQ(read->headers.at("Content-Type"), "application/javascript");
}

TEST_F(CacheTest, BodyDocumentIsReadAsItsValuesWouldBe) {
    // Written by hand: the last of repeated members counts, numbers and text are read leniently.
    mustWrite(kUrl, resourceOf("body"));
    const JSON document = MarlLogger::json::JSONObject{
        {"c", JSON(42)},
        {"r", JSON("not a number")},
        {"m", JSON(7)},
        {"h",
         JSON(MarlLogger::json::JSONObject{
             {"A", JSON(1)}, {"B", JSON(JSON::parse("[1,{}]"))}, {"C", JSON(/*value=*/true)}})},
        {"t", JSON("12")},
        {"x", JSON(JSON::parse("{\"c\":1,\"h\":[]}"))}};
    std::string bytes = document.toBinary();
    // The document above holds "c" as a number; a second "c", as text, comes after it.
    bytes[0] = static_cast<char>(static_cast<uint8_t>(bytes[0]) + 1);
    bytes += JSON("c").toBinary() + JSON(std::string("late\0body", 9)).toBinary();
    auto raw = rawCache();
    ASSERT_EQ(raw->insert(std::string("res/") + kUrl, bytes), 0);

    Error error;
    auto read = cache().read(kUrl, kOwner, error);
    ASSERT_NE(read, nullptr) << error.message();
    EXPECT_EQ(read->body, std::string("late\0body", 9));
    EXPECT_EQ(read->crc, 0u);
    EXPECT_EQ(read->md5, "7");
    EXPECT_EQ(read->trigger, 12u);
    const FerritCore::HeaderMap expected = {{"A", "1"}, {"B", ""}, {"C", "true"}};
    EXPECT_EQ(read->headers, expected);
}

TEST_F(CacheTest, BodyDocumentWithoutTextContentIsAMissNamingItsType) {
    mustWrite(kUrl, resourceOf("body"));
    const std::string key = std::string("res/") + kUrl;
    struct Case {
        JSON document;
        const char* type;
    } cases[] = {
        {JSON(MarlLogger::json::JSONObject{{"r", JSON(1)}}), "null"},
        {JSON::parse("{\"c\":\"text\",\"c\":[1]}"), "array"},
        {JSON::parse("{\"c\":{\"c\":\"x\"}}"), "object"},
        {JSON::parse("[\"c\"]"), "array"},
        {JSON("just text"), "string"},
    };
    for (const Case& c : cases) {
        mustWrite(kUrl, resourceOf("body"));
        ASSERT_FALSE(cache().put(key, c.document));
        Error error;
        EXPECT_EQ(cache().read(kUrl, kOwner, error), nullptr) << c.type;
        EXPECT_EQ(error.message(), std::string("read store \"cache/res/") + kUrl +
                                       "\" failed: invalid type " + c.type);
        EXPECT_FALSE(cache().contains(key));
    }
}

TEST_F(CacheTest, UndecodableBodyIsAMissInTheDecodersWords) {
    mustWrite(kUrl, resourceOf("body"));
    const std::string key = std::string("res/") + kUrl;
    auto raw = rawCache();
    // A map of one member whose key is a number.
    ASSERT_EQ(raw->insert(key, std::string("\x81\x01\xa1x", 4)), 0);
    Error error;
    EXPECT_EQ(cache().read(kUrl, kOwner, error), nullptr);
    EXPECT_EQ(error.code(), Errors::kFileRead);
    EXPECT_EQ(error.message(), std::string("deserialize store \"cache/res/") + kUrl +
                                   "\" failed: map key is not a string at offset 1");
    EXPECT_FALSE(cache().contains(key));
    EXPECT_EQ(cache().totalSize(), 0);
}

TEST_F(CacheTest, BadCrcOfASixteenKilobyteBodyStillDrops) {
    std::string body(size_t{16} * 1024, 'q');
    body.replace(8000, 6, "marker");
    mustWrite(kUrl, resourceOf(body));
    flipStoredByte(std::string("res/") + kUrl, "marker");
    Error error;
    EXPECT_EQ(cache().read(kUrl, kOwner, error), nullptr);
    EXPECT_EQ(error.code(), Errors::kFileRead);
    // The flip turns "marker" into "marKer"; the message names the CRC of what was read.
    std::string read = body;
    read.replace(8000, 6, "marKer");
    EXPECT_EQ(error.message(), std::string("read cache \"") + kUrl +
                                   "\" failed: CRC &ul not equal to expected " +
                                   std::to_string(FerritCore::Digest::crc32(read)) + "l");
    EXPECT_FALSE(cache().contains(std::string("res/") + kUrl));
    EXPECT_EQ(cache().totalSize(), 0);
}

TEST_F(CacheTest, LargeFileDeletedBehindTheCacheIsACleanMiss) {
    mustWrite(kUrl, resourceOf(std::string(Cache::kLargeThreshold + 1, 'd')));
    std::filesystem::remove(path("cache_large/" + md5Hex(kUrl)));
    Error error;
    EXPECT_EQ(cache().read(kUrl, kOwner, error), nullptr);
    EXPECT_EQ(error.code(), Errors::kFileNotExists);
    EXPECT_EQ(cache().totalSize(), 0);
    EXPECT_FALSE(cache().contains(std::string("meta/") + kUrl));
}

TEST_F(CacheTest, LargeFileTruncatedBehindTheCacheIsACleanMiss) {
    mustWrite(kUrl, resourceOf(std::string(Cache::kLargeThreshold + 1, 't')));
    std::filesystem::resize_file(path("cache_large/" + md5Hex(kUrl)), 1000);
    Error error;
    EXPECT_EQ(cache().read(kUrl, kOwner, error), nullptr);
    EXPECT_EQ(error.code(), Errors::kFileRead);
    EXPECT_EQ(error.message().rfind(std::string("deserialize store \"cache_large/") + kUrl, 0), 0u)
        << error.message();
    EXPECT_FALSE(std::filesystem::exists(path("cache_large/" + md5Hex(kUrl))));
}

// --- Start-up, sync, clear --------------------------------------------------------------------

TEST_F(CacheTest, EntriesSurviveARestartAndAreParsedAtFirstUse) {
    mustWrite("h/a.js", resourceOf("aaaa"));
    mustWrite("h/b.js", resourceOf(std::string(Cache::kLargeThreshold + 1, 'b')));
    restart();
    proxy_->clearRecords();
    EXPECT_EQ(cache().entryCount(), 2u);
    EXPECT_EQ(cache().totalSize(), static_cast<int64_t>(4 + Cache::kLargeThreshold + 1));
    Error error;
    EXPECT_EQ(readBody("h/a.js", error), "aaaa");
    EXPECT_EQ(readBody("h/b.js", error).size(), Cache::kLargeThreshold + 1);
}

TEST_F(CacheTest, OpeningSendsTheInitRecord) {
    mustWrite("h/a.js", resourceOf("aaaa"));
    mustWrite("h/b.js", resourceOf(std::string(Cache::kLargeThreshold + 1, 'b')));
    restart();
    proxy_->clearRecords();
    (void)cache();
    const auto records = proxy_->named("Ferrit.CacheInit");
    ASSERT_EQ(records.size(), 1u);
    const auto& measures = records[0].measures;
    EXPECT_EQ(measures.at("resCount"), 2);
    EXPECT_EQ(measures.at("resSize"), 4 + Cache::kLargeThreshold + 1);
    EXPECT_GT(measures.at("largeDiskSize"), Cache::kLargeThreshold);
    EXPECT_GT(measures.at("smallDiskSize"), 0);
    for (const char* key :
         {"UniAppCount", "UniAppSize", "ModuleCacheCount", "ModuleCacheSize", "time"}) {
        EXPECT_EQ(measures.count(key), 1u) << key;
    }
    EXPECT_EQ(records[0].dimensions.count("errorCode"), 0u);
}

TEST_F(CacheTest, DamagedDatabaseIsReplacedAndReportedAtOpening) {
    mustWrite(kUrl, resourceOf("body"));
    restart();
    std::ofstream(databaseFile("cache"), std::ios::binary | std::ios::trunc)
        << std::string(8192, 'g');
    proxy_->clearRecords();
    EXPECT_TRUE(cache().isOpen());
    const auto records = proxy_->named("Ferrit.CacheInit");
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].dimensions.at("errorCode"), std::to_string(Errors::kInitStorageFailed));
    Error error;
    EXPECT_EQ(cache().read(kUrl, kOwner, error), nullptr);
    mustWrite(kUrl, resourceOf("body"));
    EXPECT_EQ(readBody(kUrl, error), "body");
}

TEST_F(CacheTest, SyncDropsWhatHasNoOwnerOrNoContentAndRepairsTheTotal) {
    mustWrite("h/kept.js", resourceOf("kept"));
    mustWrite("h/large.js", resourceOf(std::string(Cache::kLargeThreshold + 1, 'l')));
    mustWrite("h/gone.js", resourceOf(std::string(Cache::kLargeThreshold + 1, 'g')));
    std::filesystem::remove(path("cache_large/" + md5Hex("h/gone.js")));
    // A body and a file that no entry names, and a total that is wrong.
    ASSERT_FALSE(cache().put("res/h/orphan.js", JSON("x")));
    std::ofstream(path("cache_large/0123456789abcdef0123456789abcdef")) << "orphan";
    ASSERT_FALSE(cache().put("config", MarlLogger::json::JSONObject{{"s", JSON(1)}}));
    restart();
    ASSERT_EQ(cache().totalSize(), 1);

    cache().sync();
    EXPECT_EQ(cache().totalSize(), static_cast<int64_t>(4 + Cache::kLargeThreshold + 1));
    EXPECT_EQ(cache().get("config").valueOr(JSON())["s"].int64Value(), cache().totalSize());
    EXPECT_FALSE(cache().contains("res/h/orphan.js"));
    EXPECT_FALSE(std::filesystem::exists(path("cache_large/0123456789abcdef0123456789abcdef")));
    EXPECT_FALSE(cache().contains("meta/h/gone.js"));
    EXPECT_EQ(cache().entryCount(), 2u);
    Error error;
    EXPECT_EQ(readBody("h/kept.js", error), "kept");
    EXPECT_TRUE(largeFileExists("h/large.js"));
}

TEST_F(CacheTest, ClearEmptiesTheStoreTheFilesAndModuleCache) {
    Error error;
    ASSERT_TRUE(FerritCore::ModuleCache::instance().update(kUrl, resourceOf("m", 0, 1e15), error));
    mustWrite("h/large.js", resourceOf(std::string(Cache::kLargeThreshold + 1, 'l')));
    ASSERT_EQ(FerritCore::ModuleCache::instance().count(), 1u);
    cache().clear();
    EXPECT_EQ(cache().totalSize(), 0);
    EXPECT_EQ(cache().entryCount(), 0u);
    EXPECT_FALSE(largeFileExists("h/large.js"));
    EXPECT_TRUE(std::filesystem::is_directory(path("cache_large")));
    EXPECT_EQ(FerritCore::ModuleCache::instance().count(), 0u);
    EXPECT_EQ(cache().read(kUrl, kOwner, error), nullptr);
    mustWrite(kUrl, resourceOf("after clear"));
    EXPECT_EQ(readBody(kUrl, error), "after clear");
}

TEST_F(CacheTest, HeadersKeptAreTheCachingOnes) {
    const FerritCore::HeaderMap response = {{"content-type", "text/css"},
                                            {"ETag", "\"e1\""},
                                            {"Last-Modified", "Sun, 06 Nov 1994 08:49:37 GMT"},
                                            {"Vary", "Accept"},
                                            {"Access-Control-Allow-Origin", "*"},
                                            {"Set-Cookie", "no"},
                                            {"Content-MD5", "x"}};
    const FerritCore::HeaderMap kept = CachedResource::keptHeaders(response);
    EXPECT_EQ(kept.size(), 5u);
    EXPECT_EQ(kept.at("Content-Type"), "text/css");
    EXPECT_EQ(kept.count("Set-Cookie"), 0u);
    EXPECT_EQ(CachedResource::dateOf({{"Date", "Sun, 06 Nov 1994 08:49:37 GMT"}}), 784111777000.0);
    EXPECT_EQ(CachedResource::dateOf({{"Date", "yesterday"}}), 0);
    EXPECT_EQ(CachedResource::dateOf({}), 0);
}

}  // namespace
}  // namespace FerritTest
