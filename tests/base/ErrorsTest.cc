#include "base/Errors.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

namespace FerritCore {
namespace {

struct CatalogueCase {
    const char* function;
    Error error;
    int32_t code;
    std::string message;
};

// Every function of the catalogue, with the exact code and words it must produce. Folder
// arguments use kinds whose display form does not depend on the process-wide root.
// One table, a row per code, so that a code's row is found where its neighbours are.
// NOLINTNEXTLINE(readability-function-size)
std::vector<CatalogueCase> catalogue() {
    using namespace Errors;
    const Folder asset = Folder::asset("res/a.js");
    const Folder packed = Folder::packed("pack/3/b.css");
    const Folder onDemand = Folder::onDemand("Ferrit_Asset_m", "Ferrit_Asset_m/1/");
    return {
        {"requestInvalidUrl", requestInvalidUrl("u"), 1001, "request \"u\" invalid URL"},
        {"noServerAddress", noServerAddress("configuration server", "configPrefixRelease"), 1002,
         "No server address: the host set no configuration server (configPrefixRelease)"},
        {"requestFailed", requestFailed("u", -7, "timed out"), 1003,
         "request \"u\" failed: -7, timed out"},
        {"requestInvalidStatus", requestInvalidStatus("u", 404), 1004,
         "request \"u\" invalid status code 404 (Not Found)"},
        {"requestNoData", requestNoData("u"), 1006, "request \"u\" no data"},
        {"requestDeserialization", requestDeserialization("u"), 1007,
         "request \"u\" deserialization failed"},
        {"requestDeserialization(reason)", requestDeserialization("u", "bad json"), 1007,
         "request \"u\" deserialization failed: bad json"},
        {"requestVerifySignature", requestVerifySignature("u", "abc"), 1010,
         "request \"u\" verify failed: MD5 is \"abc\""},
        {"requestVerifyMd5", requestVerifyMd5("u", "abc", "def"), 1010,
         "request \"u\" verify failed: MD5 \"abc\" different with expected \"def\""},
        {"requestRefused", requestRefused("u", "expired at 5, now is 6"), 1010,
         "request \"u\" refused: expired at 5, now is 6"},
        {"aggregateVerifyCount", aggregateVerifyCount(2, 3), 1010,
         "aggregate verify failed: resource count \"2\" not equal to expected \"3\""},
        {"cacheVerify", cacheVerify("u", "length"), 1010, "cache verify failed: \"u\" length"},
        {"fileNotExists", fileNotExists(asset), 1101, "file \"/Asset/res/a.js\" not exists"},
        {"storageNotExists", storageNotExists("cache", "k1"), 1101,
         "Storage \"cache/k1\" not exists"},
        {"storeNotExists", storeNotExists("pack:", "k1"), 1101, "store \"pack:k1\" not exists"},
        {"fileRead", fileRead(packed, ENOENT), 1102,
         "read file \"/Packs/pack/3/b.css\" failed: 2, No such file or directory"},
        {"fileReadInvalidType", fileReadInvalidType(onDemand), 1102,
         "read file \"/OnDemand(Ferrit_Asset_m)/Ferrit_Asset_m/1/\" failed: invalid type OnDemand"},
        {"nameLeavesFolder", nameLeavesFolder("//etc/x"), 1102,
         "read file \"//etc/x\" refused: the name leaves its folder"},
        {"storageRead", storageRead("cache", "k1", 5), 1102, "Storage read \"cache/k1\" failed: 5"},
        {"storeRead", storeRead("pack:", "k1", 5), 1102, "read store \"pack:k1\" failed: 5"},
        {"storeDeserialize", storeDeserialize("pack:", "k1", "truncated"), 1102,
         "deserialize store \"pack:k1\" failed: truncated"},
        {"storeInvalidType", storeInvalidType("pack:", "k1", "string"), 1102,
         "read store \"pack:k1\" failed: invalid type string"},
        // The format is kept as hosts know it: the CRC lands where "%ul" stands, followed by an
        // "l", and the expected value never shows.
        {"cacheCrc", cacheCrc("u", 123, 456), 1102,
         "read cache \"u\" failed: CRC &ul not equal to expected 123l"},
        {"fileNoData", fileNoData(asset), 1103, "file \"/Asset/res/a.js\" no data"},
        {"fileWrite", fileWrite(asset, EACCES), 1104,
         "file \"/Asset/res/a.js\" write failed: 13, Permission denied"},
        {"renameDiskOnly", renameDiskOnly(asset, packed), 1104,
         "rename from \"/Asset/res/a.js\" to \"/Packs/pack/3/b.css\" only support disk file"},
        {"storageWrite", storageWrite("cache", "k1", 5), 1104,
         "Storage \"cache/k1\" write failed: 5"},
        {"storeWrite", storeWrite("pack:", "k1", 5), 1104, "write storage \"pack:k1\" failed: 5"},
        {"storageCreateMeta", storageCreateMeta("cache", "k1", "meta"), 1104,
         "Storage \"cache/k1\" create meta \"meta\" failed"},
        {"assetReadonly", assetReadonly(asset), 1105,
         "file \"/Asset/res/a.js\" write failed: asset is readonly"},
        {"fileVerifySignature", fileVerifySignature(asset, "abc"), 1106,
         "file \"/Asset/res/a.js\" verify failed: MD5 is \"abc\""},
        {"fileVerifyMd5", fileVerifyMd5(asset, "abc", "def"), 1106,
         "file \"/Asset/res/a.js\" verify failed: MD5 \"abc\" different with expectation \"def\""},
        {"fileVerifySize", fileVerifySize(asset, 2000, 1999), 1106,
         "file \"/Asset/res/a.js\" verify failed: size 2000 different with expectation 1999"},
        {"fileDeserialization", fileDeserialization(asset), 1107,
         "file \"/Asset/res/a.js\" deserialization failed"},
        {"fileDeserialization(reason)", fileDeserialization(asset, "bad"), 1107,
         "file \"/Asset/res/a.js\" deserialization failed: bad"},
        {"readAsyncOnly", readAsyncOnly(onDemand), 1108,
         "file \"/OnDemand(Ferrit_Asset_m)/Ferrit_Asset_m/1/\" can only read asynchronous"},
        {"storageDelete", storageDelete("cache", "k1", 5), 1109,
         "Storage \"cache/k1\" delete failed: 5"},
        {"packNameMismatch", packNameMismatch("a", "b"), 1201, "a packName mismatch: b"},
        {"serverError", serverError("a", 4), 1202,
         "a server error, phase: 4 (not set up, first configuration update not finished, "
         "updating not started but left to start by itself)"},
        {"networkNotSupported", networkNotSupported("a", "cellular"), 2001,
         "a network not supported: cellular"},
        {"packUpdateDisabled", packUpdateDisabled("a"), 2002, "a update disabled"},
        {"updateDisabled", updateDisabled(), 2003, "update disabled"},
        {"subProcessUpdateDisabled", subProcessUpdateDisabled(), 2004,
         "sub process update disabled"},
        {"updateEliminated", updateEliminated("a"), 2101, "a eliminated"},
        {"packDeleted", packDeleted("a"), 2102, "a deleted"},
        {"tooManyApps", tooManyApps(), 2103, "Too many apps installed"},
        {"unzipFailed", unzipFailed("p.zip", "crc"), 2207, "unzip \"p.zip\" failed: crc"},
        {"unzipTempPath", unzipTempPath("/tmp/x"), 2208, "Unzip temp path error: /tmp/x"},
        {"patchFailed", patchFailed("a.js", "truncated"), 2209, "patch \"a.js\" failed: truncated"},
        {"decryptFailed", decryptFailed("a", "short"), 2301,
         "decrypt \"a\" using Type-A failed: short"},
        {"preloadNotFound", preloadNotFound(asset), 2406, "/Asset/res/a.js not found"},
        {"copyFailed(errno)", copyFailed("a", ENOENT), 2504,
         "copy a failed: No such file or directory"},
        {"copyFailed(message)", copyFailed("a", "disk full"), 2504, "copy a failed: disk full"},
        {"notFerritResource", notFerritResource(), 3001, "Not Ferrit resource"},
        {"notSetUpYet", notSetUpYet("setup not called"), 3001,
         "Not Ferrit resource: not set up yet (setup not called)"},
        {"notFerritPackResource", notFerritPackResource("S:p@3"), 3002,
         "Not Ferrit S:p@3 resource"},
        {"disabledByDevTool", disabledByDevTool(), 3003, "Ferrit disabled by develop tool"},
        {"disabledByHeader", disabledByHeader(), 3003,
         "Ferrit disabled by X-Ferrit-Control header"},
        {"configNotFound", configNotFound("a"), 3101, "a config not found"},
        {"notInstalled", notInstalled("a"), 3104, "a not installed"},
        {"eliminated", eliminated("a"), 3105, "a eliminated"},
        {"seqTooLow", seqTooLow("a", 3, 18446744073709551615ull), 3108,
         "a 3 less than 18446744073709551615"},
        {"packFileNotFound", packFileNotFound("S:p@3", packed), 3109,
         "S:p@3 file not found: /Packs/pack/3/b.css"},
        {"outOfDate", outOfDate("a", 1.5), 3110, "a out of date: 1.500000"},
        {"filesNotFound", filesNotFound(packed), 3111, "/Packs/pack/3/b.css files not found"},
        {"resourceListNotFound", resourceListNotFound("a"), 3112, "a resource list not found"},
        {"backupNotFound", backupNotFound("a", "https://x/y"), 3113,
         "a backup resource https://x/y not found"},
        {"outOfMemory", outOfMemory("a"), 3114, "a out of memory"},
        {"resourceExpired", resourceExpired(1.0, 2.5), 3115,
         "resource out of date, expires: 1.000000, update: 2.500000"},
        {"notAcceptable", notAcceptable("https://x/a.css", "text/css", "image/*"), 3116,
         "resource https://x/a.css \"text/css\" can not accepted by image/*"},
        {"notFerrit", notFerrit("a"), 3201, "a not Ferrit"},
        {"invalidType", invalidType("a"), 3202, "a invalid type"},
        {"proxyNotInitialized", proxyNotInitialized(), 9991, "Ferrit proxy not initialized"},
        {"createFolderFailed", createFolderFailed(), 9992, "Create Ferrit folder failed"},
        {"createFolderFailed(errno)", createFolderFailed(EACCES), 9992,
         "Create Ferrit folder failed: Permission denied"},
        {"jniFailed", jniFailed(), 9995, "JNI failed"},
        {"napiFailed", napiFailed(), 9995, "NAPI failed"},
        {"napiFailed(status)", napiFailed(9), 9995, "NAPI failed: 9"},
        {"packedStoreNotOpen", packedStoreNotOpen(), 9997,
         "Initialize storage \"packs\" failed: the store is not open"},
        {"initStorageFailed", initStorageFailed("/r/cache/", 14), 9997,
         "Initialize storage \"/r/cache/\" failed: 14"},
        {"initStoreFailed", initStoreFailed("/r/packs/", 14), 9997,
         "Initialize store \"/r/packs/\" failed: 14"},
        {"startUpdateNotCalled", startUpdateNotCalled(), 9998, "startUpdate not called"},
    };
}

TEST(ErrorsTest, EveryCatalogueFunctionGivesItsCodeAndExactMessage) {
    const std::vector<CatalogueCase> cases = catalogue();
    // One entry per function and overload of the catalogue.
    EXPECT_EQ(cases.size(), 82u);
    for (const CatalogueCase& c : cases) {
        SCOPED_TRACE(c.function);
        EXPECT_EQ(c.error.code(), c.code);
        EXPECT_EQ(c.error.message(), c.message);
        EXPECT_TRUE(static_cast<bool>(c.error));
    }
}

struct NamedCode {
    const char* name;
    Errors::Code code;
    int32_t number;
    bool (*predicate)(const Error&);
};

// The catalogue's table: each name with the number that hosts see and its predicate. The numbers
// are written out here on purpose, so that renumbering a name fails this test.
std::vector<NamedCode> namedCodes() {
    using namespace Errors;
    return {
        {"kRequestInvalidUrl", kRequestInvalidUrl, 1001, isRequestInvalidUrl},
        {"kNoServerAddress", kNoServerAddress, 1002, isNoServerAddress},
        {"kRequestFailed", kRequestFailed, 1003, isRequestFailed},
        {"kRequestInvalidStatus", kRequestInvalidStatus, 1004, isRequestInvalidStatus},
        {"kRequestNoData", kRequestNoData, 1006, isRequestNoData},
        {"kRequestDeserialization", kRequestDeserialization, 1007, isRequestDeserialization},
        {"kRequestVerify", kRequestVerify, 1010, isRequestVerify},
        {"kFileNotExists", kFileNotExists, 1101, isFileMissing},
        {"kFileRead", kFileRead, 1102, isFileRead},
        {"kNoData", kNoData, 1103, isNoData},
        {"kFileWrite", kFileWrite, 1104, isFileWrite},
        {"kAssetReadonly", kAssetReadonly, 1105, isAssetReadonly},
        {"kFileVerify", kFileVerify, 1106, isFileVerify},
        {"kFileDeserialization", kFileDeserialization, 1107, isFileDeserialization},
        {"kReadAsyncOnly", kReadAsyncOnly, 1108, isReadAsyncOnly},
        {"kStorageDelete", kStorageDelete, 1109, isStorageDelete},
        {"kPackNameMismatch", kPackNameMismatch, 1201, isPackNameMismatch},
        {"kServerError", kServerError, 1202, isServerError},
        {"kNetworkNotSupported", kNetworkNotSupported, 2001, isNetworkNotSupported},
        {"kPackUpdateDisabled", kPackUpdateDisabled, 2002, isPackUpdateDisabled},
        {"kUpdateDisabled", kUpdateDisabled, 2003, isUpdateDisabled},
        {"kSubProcessDisabled", kSubProcessDisabled, 2004, isSubProcessDisabled},
        {"kUpdateEliminated", kUpdateEliminated, 2101, isUpdateEliminated},
        {"kPackDeleted", kPackDeleted, 2102, isPackDeleted},
        {"kTooManyApps", kTooManyApps, 2103, isTooManyApps},
        {"kUnzipFailed", kUnzipFailed, 2207, isUnzipFailed},
        {"kUnzipTempPath", kUnzipTempPath, 2208, isUnzipTempPath},
        {"kPatchFailed", kPatchFailed, 2209, isPatchFailed},
        {"kDecryptFailed", kDecryptFailed, 2301, isDecryptFailed},
        {"kPreloadNotFound", kPreloadNotFound, 2406, isPreloadNotFound},
        {"kCopyFailed", kCopyFailed, 2504, isCopyFailed},
        {"kNotFerritResource", kNotFerritResource, 3001, isNotFerritResource},
        {"kNotFerritPackResource", kNotFerritPackResource, 3002, isNotFerritPackResource},
        {"kDisabled", kDisabled, 3003, isDisabled},
        {"kConfigNotFound", kConfigNotFound, 3101, isConfigNotFound},
        {"kNotInstalled", kNotInstalled, 3104, isNotInstalled},
        {"kEliminated", kEliminated, 3105, isEliminated},
        {"kSeqTooLow", kSeqTooLow, 3108, isSeqTooLow},
        {"kPackFileNotFound", kPackFileNotFound, 3109, isPackFileNotFound},
        {"kPackOutOfDate", kPackOutOfDate, 3110, isPackOutOfDate},
        {"kFilesNotFound", kFilesNotFound, 3111, isFilesNotFound},
        {"kResourceListNotFound", kResourceListNotFound, 3112, isResourceListNotFound},
        {"kBackupNotFound", kBackupNotFound, 3113, isBackupNotFound},
        {"kOutOfMemory", kOutOfMemory, 3114, isOutOfMemory},
        {"kResourceExpired", kResourceExpired, 3115, isOutOfDate},
        {"kNotAcceptable", kNotAcceptable, 3116, isNotAcceptable},
        {"kNotFerrit", kNotFerrit, 3201, isNotFerrit},
        {"kInvalidType", kInvalidType, 3202, isInvalidType},
        {"kProxyNotInitialized", kProxyNotInitialized, 9991, isProxyNotInitialized},
        {"kCreateFolderFailed", kCreateFolderFailed, 9992, isCreateFolderFailed},
        {"kHostFailed", kHostFailed, 9995, isHostFailed},
        {"kDevToolNotAvailable", kDevToolNotAvailable, 9996, isDevToolNotAvailable},
        {"kInitStorageFailed", kInitStorageFailed, 9997, isInitStorageFailed},
        {"kStartUpdateNotCalled", kStartUpdateNotCalled, 9998, isStartUpdateNotCalled},
        {"kResponseIsNull", kResponseIsNull, -1, isResponseNull},
    };
}

TEST(ErrorsTest, CodesKeepTheirNumbers) {
    const std::vector<NamedCode> names = namedCodes();
    EXPECT_EQ(names.size(), 55u);
    for (const NamedCode& n : names) {
        SCOPED_TRACE(n.name);
        EXPECT_EQ(static_cast<int32_t>(n.code), n.number);
    }
}

TEST(ErrorsTest, EveryCatalogueCodeHasAName) {
    const std::vector<NamedCode> names = namedCodes();
    for (const CatalogueCase& c : catalogue()) {
        SCOPED_TRACE(c.function);
        bool named = false;
        for (const NamedCode& n : names) named = named || n.code == c.code;
        EXPECT_TRUE(named);
    }
}

// Each predicate holds for its own code and for no other code of the catalogue, nor for no error.
TEST(ErrorsTest, EachPredicateHoldsForItsCodeOnly) {
    const std::vector<NamedCode> names = namedCodes();
    for (const NamedCode& n : names) {
        SCOPED_TRACE(n.name);
        EXPECT_FALSE(n.predicate(Error()));
        for (const NamedCode& other : names) {
            EXPECT_EQ(n.predicate(Error(other.code, std::string("x"))), other.code == n.code)
                << "with " << other.name;
        }
    }
}

TEST(ErrorsTest, TwoErrorsOfOneCodeDifferOnlyInMessageAndCompareEqual) {
    const Error devTool = Errors::disabledByDevTool();
    const Error header = Errors::disabledByHeader();
    EXPECT_NE(devTool.message(), header.message());
    EXPECT_EQ(devTool, header);
    EXPECT_FALSE(devTool == Errors::notFerritResource());
    EXPECT_EQ(Errors::requestDeserialization("a"), Errors::requestDeserialization("b", "c"));
}

// The keys that "%.*s" prints are views into larger buffers: only their own bytes may show.
TEST(ErrorsTest, PrecisionStringArgumentsPrintOnlyTheView) {
    const std::string backing = "https://x/a.csstext/css;charset=UTF-8image/*,text/*";
    const std::string_view all(backing);
    const std::string_view url = all.substr(0, 15);
    const std::string_view type = all.substr(15, 8);
    const std::string_view accept = all.substr(37, 7);
    EXPECT_EQ(Errors::notAcceptable(url, type, accept).message(),
              "resource https://x/a.css \"text/css\" can not accepted by image/*");

    const std::string_view key = all.substr(10, 5);  // "a.css", followed by more text
    EXPECT_EQ(Errors::storageNotExists("cache", key).message(),
              "Storage \"cache/a.css\" not exists");
    EXPECT_EQ(Errors::storeNotExists("p:", key).message(), "store \"p:a.css\" not exists");
    EXPECT_EQ(Errors::storageRead("cache", key, 1).message(),
              "Storage read \"cache/a.css\" failed: 1");
    EXPECT_EQ(Errors::storeRead("p:", key, 1).message(), "read store \"p:a.css\" failed: 1");
    EXPECT_EQ(Errors::storeDeserialize("p:", key, "r").message(),
              "deserialize store \"p:a.css\" failed: r");
    EXPECT_EQ(Errors::storeInvalidType("p:", key, "t").message(),
              "read store \"p:a.css\" failed: invalid type t");
    EXPECT_EQ(Errors::storageWrite("cache", key, 1).message(),
              "Storage \"cache/a.css\" write failed: 1");
    EXPECT_EQ(Errors::storeWrite("p:", key, 1).message(), "write storage \"p:a.css\" failed: 1");
    EXPECT_EQ(Errors::storageCreateMeta("cache", key, "m").message(),
              "Storage \"cache/a.css\" create meta \"m\" failed");
    EXPECT_EQ(Errors::storageDelete("cache", key, 1).message(),
              "Storage \"cache/a.css\" delete failed: 1");
}

TEST(ErrorsTest, PrecisionStringArgumentsAcceptEmptyAndLongViews) {
    EXPECT_EQ(Errors::storageNotExists("cache", std::string_view()).message(),
              "Storage \"cache/\" not exists");
    const std::string longKey(5000, 'k');
    EXPECT_EQ(Errors::storeNotExists("p:", longKey).message(),
              "store \"p:" + longKey + "\" not exists");
}

// Names are concatenated, not formatted, so a "%" in a name prints as it is.
TEST(ErrorsTest, FollowedByRowsPrintNamesVerbatim) {
    EXPECT_EQ(Errors::configNotFound("a%sb%n").message(), "a%sb%n config not found");
    EXPECT_EQ(Errors::unzipTempPath("/t/%d").message(), "Unzip temp path error: /t/%d");
    EXPECT_EQ(Errors::filesNotFound(Folder::asset("x%s/")).message(),
              "/Asset/x%s/ files not found");
}

TEST(ErrorsTest, SharedConstantsAreBuiltInTheirOrder) {
    const Error* table[] = {
        &Errors::noErrorRef(),           &Errors::proxyNotInitializedRef(),
        &Errors::notFerritResourceRef(), &Errors::disabledByDevToolRef(),
        &Errors::disabledByHeaderRef(),  &Errors::jniFailedRef(),
        &Errors::napiFailedRef(),
    };
    const int32_t codes[] = {0, 9991, 3001, 3003, 3003, 9995, 9995};
    const char* messages[] = {"",
                              "Ferrit proxy not initialized",
                              "Not Ferrit resource",
                              "Ferrit disabled by develop tool",
                              "Ferrit disabled by X-Ferrit-Control header",
                              "JNI failed",
                              "NAPI failed"};
    for (size_t i = 0; i < 7; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(table[i]->code(), codes[i]);
        EXPECT_EQ(table[i]->message(), messages[i]);
        // One static table: each constant sits right after the one before it.
        if (i > 0) {
            EXPECT_EQ(table[i], table[i - 1] + 1);
        }
    }
    EXPECT_FALSE(static_cast<bool>(Errors::noErrorRef()));
}

TEST(ErrorsTest, SharedConstantsAreTheSameObjectOnEveryCall) {
    EXPECT_EQ(&Errors::noErrorRef(), &Errors::noErrorRef());
    EXPECT_EQ(&Errors::proxyNotInitializedRef(), &Errors::proxyNotInitializedRef());
    EXPECT_EQ(&Errors::notFerritResourceRef(), &Errors::notFerritResourceRef());
    EXPECT_EQ(&Errors::disabledByDevToolRef(), &Errors::disabledByDevToolRef());
    EXPECT_EQ(&Errors::disabledByHeaderRef(), &Errors::disabledByHeaderRef());
    EXPECT_EQ(&Errors::jniFailedRef(), &Errors::jniFailedRef());
    EXPECT_EQ(&Errors::napiFailedRef(), &Errors::napiFailedRef());
}

TEST(ErrorsTest, NamedFunctionsOfSharedCodesReturnCopiesOfTheConstants) {
    const std::pair<Error, const Error*> pairs[] = {
        {Errors::proxyNotInitialized(), &Errors::proxyNotInitializedRef()},
        {Errors::notFerritResource(), &Errors::notFerritResourceRef()},
        {Errors::disabledByDevTool(), &Errors::disabledByDevToolRef()},
        {Errors::disabledByHeader(), &Errors::disabledByHeaderRef()},
        {Errors::jniFailed(), &Errors::jniFailedRef()},
        {Errors::napiFailed(), &Errors::napiFailedRef()},
    };
    for (const auto& [copy, shared] : pairs) {
        EXPECT_NE(&copy, shared);
        EXPECT_EQ(copy.code(), shared->code());
        EXPECT_EQ(copy.message(), shared->message());
    }
    // A copy changed by its owner leaves the constant alone.
    Error copy = Errors::notFerritResource();
    copy.clear();
    EXPECT_EQ(Errors::notFerritResourceRef().code(), 3001);
    EXPECT_EQ(Errors::notFerritResourceRef().message(), "Not Ferrit resource");
}

TEST(ErrorsTest, PredicatesLookOnlyAtTheCode) {
    EXPECT_TRUE(Errors::isFileMissing(Errors::fileNotExists(Folder::asset("a"))));
    EXPECT_TRUE(Errors::isFileMissing(Errors::storeNotExists("p:", "k")));
    EXPECT_FALSE(Errors::isFileMissing(Errors::fileNoData(Folder::asset("a"))));
    EXPECT_FALSE(Errors::isFileMissing(Error()));

    EXPECT_FALSE(Errors::isNotServed(Error(3000, std::string("x"))));
    EXPECT_TRUE(Errors::isNotServed(Errors::notFerritResource()));
    EXPECT_TRUE(Errors::isNotServed(Errors::notFerritPackResource("S:a")));
    EXPECT_TRUE(Errors::isNotServed(Errors::disabledByHeader()));
    EXPECT_FALSE(Errors::isNotServed(Error(3004, std::string("x"))));
    EXPECT_FALSE(Errors::isNotServed(Error()));

    EXPECT_TRUE(Errors::isOutOfDate(Errors::resourceExpired(1, 2)));
    EXPECT_FALSE(Errors::isOutOfDate(Errors::outOfDate("a", 1)));
    EXPECT_FALSE(Errors::isOutOfDate(Error()));
}

TEST(ErrorValueTest, PrintfConstructorKeepsAMessageLongerThanItsFirstBuffer) {
    const std::string text(300, 'x');
    const Error error(7, "<%s>", text.c_str());
    EXPECT_EQ(error.code(), 7);
    EXPECT_EQ(error.message().size(), 302u);
    EXPECT_EQ(error.message(), "<" + text + ">");
}

TEST(ErrorValueTest, PrintfConstructorAtTheBufferBoundary) {
    const std::string fits(255, 'a');
    EXPECT_EQ(Error(1, "%s", fits.c_str()).message(), fits);
    const std::string overflows(256, 'b');
    EXPECT_EQ(Error(1, "%s", overflows.c_str()).message(), overflows);
}

TEST(ErrorValueTest, DefaultIsNoError) {
    const Error error;
    EXPECT_FALSE(static_cast<bool>(error));
    EXPECT_EQ(error.code(), 0);
    EXPECT_TRUE(error.message().empty());
}

TEST(ErrorValueTest, NonZeroCodeWithEmptyMessageIsAnError) {
    // The empty format is the point of this check; the compiler's warning about it is not.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-zero-length"
    const Error formatted(1, "");
#pragma GCC diagnostic pop
    EXPECT_TRUE(static_cast<bool>(formatted));
    EXPECT_TRUE(formatted.message().empty());
    EXPECT_TRUE(static_cast<bool>(Error(-1, std::string())));
}

TEST(ErrorValueTest, ClearEmptiesCodeAndMessage) {
    Error error = Errors::requestNoData("u");
    ASSERT_TRUE(static_cast<bool>(error));
    error.clear();
    EXPECT_FALSE(static_cast<bool>(error));
    EXPECT_EQ(error.code(), 0);
    EXPECT_TRUE(error.message().empty());
}

}  // namespace
}  // namespace FerritCore
