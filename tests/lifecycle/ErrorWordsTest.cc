// What a host reads when something goes wrong on the way it takes with the library: start-up in
// the wrong order, the configuration request and its answers, the files of a pack. Each message
// must be readable without the source: a code or a number is followed by what it means, and no
// bare negative number or "Unknown error" stands in for a reason.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "base/Environment.h"
#include "base/Errors.h"
#include "base/FileUtil.h"
#include "base/Folder.h"
#include "ferritcore/Access.h"
#include "lifecycle/Setup.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "model/FConfig.h"
#include "model/ResourceIndex.h"
#include "model/SCache.h"
#include "runtime/Network.h"
#include "runtime/Settings.h"
#include "runtime/TaskRunner.h"
#include "tests/FakeProxy.h"
#include "tests/TestUtil.h"
#include "update/PackInstaller.h"

namespace FerritTest {
namespace {

using namespace FerritCore;

const char* kFirstUrl = "https://cfg.test/fconfig/key/1.0/0~0/~";
const char* kMissUrl = "https://site.test/app/main.js";

// A message a host can read without the source.
::testing::AssertionResult readable(const Error& error) {
    const std::string& message = error.message();
    if (!error) return ::testing::AssertionFailure() << "no error";
    // Letters, not only names and numbers: at least one word of three letters outside quotes.
    static const std::regex quoted("\"[^\"]*\"");
    static const std::regex word("[A-Za-z]{3,}");
    if (!std::regex_search(std::regex_replace(message, quoted, ""), word))
        return ::testing::AssertionFailure()
               << error.code() << " \"" << message << "\" has no words";
    if (message.find("Unknown error") != std::string::npos)
        return ::testing::AssertionFailure() << "\"" << message << "\" has no reason";
    // A negative number standing on its own, as an unexplained status or return value prints;
    // the "-" inside a name ("x-1.js") is not one.
    static const std::regex negative(R"((^|[\s:(,])-\d)");
    if (std::regex_search(message, negative))
        return ::testing::AssertionFailure() << "\"" << message << "\" has a bare negative number";
    // A code or a status that ends the message ("failed: 8", "phase: 1", "status code 65535")
    // says nothing of what it means; a number that words introduce ("at offset 18") is no code.
    static const std::regex endsInNumber(R"((:|code)\s*\d+\s*$)");
    if (std::regex_search(message, endsInNumber))
        return ::testing::AssertionFailure() << "\"" << message << "\" ends in a bare code";
    return ::testing::AssertionSuccess();
}

class ErrorWordsTest : public ProcessTest {
  protected:
    void SetUp() override {
        ProcessTest::SetUp();
        HostDefaults defaults;
        defaults.configPrefix = "https://cfg.test/";
        Settings::setDefaults(defaults);
    }

    static Error miss() { return Access::getResource(ResourceRequest(kMissUrl, ""))->error; }

    MarlLogger::ScopedManualClock clock_;
    MarlLogger::ScopedCapture logs_;
    std::shared_ptr<FakeProxy> proxy_ = std::make_shared<FakeProxy>();
};

// A proxy that asks for a URL while setProxy is still loading what the root holds: the raw-file
// lookup of the built-in configuration is one step of that load.
class AskingDuringLoadProxy : public FakeProxy {
  public:
    bool assetExists(const std::string& path) override {
        if (duringLoad.code() == 0 && !SCache::loaded()) {
            auto response = Access::getResource(ResourceRequest(kMissUrl, ""));
            duringLoad = response->error;
            is404 = response->is404;
        }
        return FakeProxy::assetExists(path);
    }
    Error duringLoad;
    bool is404 = true;
};

// A host whose requests never reach a network: the base proxy's answer.
class NoNetworkProxy : public Proxy {
  public:
    bool verifySignature(const std::string&, const std::string&) override { return false; }
    void sendEvent(const PerfRecord&) override {}
};

// Refuses every write with a full disk.
class FullDiskCalls : public FileUtil::Calls {
  public:
    size_t write(FILE*, const void*, size_t) override {
        errno = ENOSPC;
        return 0;
    }
};

class ScopedCalls {
  public:
    explicit ScopedCalls(FileUtil::Calls* calls) { FileUtil::setCalls(calls); }
    ~ScopedCalls() { FileUtil::setCalls(nullptr); }
};

std::pair<std::string, Error> fetchConfig(const std::string& url) {
    std::pair<std::string, Error> result;
    bool called = false;
    Network::requestConfig(url, "T", [&](std::string content, Error error) {
        result = {std::move(content), std::move(error)};
        called = true;
    });
    TaskRunner::runDue();
    EXPECT_TRUE(called);
    return result;
}

// ---- Start-up in the wrong order, and its early moments -------------------------------------

TEST_F(ErrorWordsTest, RequestsBeforeAndDuringStartUpSayNotSetUpYetAndStayMisses) {
    // Before anything: no proxy, nothing loaded.
    Error error = miss();
    EXPECT_EQ(error.code(), Errors::kNotFerritResource);
    EXPECT_EQ(error.message(),
              "Not Ferrit resource: not set up yet (no proxy: setProxy not called)");
    EXPECT_TRUE(readable(error));

    // setup before setProxy returns in silence; the answer stays the same.
    Setup::setup("key", "1.0", SetupMode::kHostStartsUpdate);
    EXPECT_EQ(miss().message(), error.message());

    // While setProxy loads the stored configuration.
    auto asking = std::make_shared<AskingDuringLoadProxy>();
    asking->serve(kFirstUrl, 200, FakeProxy::sign(R"({"v":"1700000000000","i":4294967295})"));
    Setup::setProxy(asking, temp_.root());
    EXPECT_EQ(asking->duringLoad.code(), Errors::kNotFerritResource);
    EXPECT_EQ(asking->duringLoad.message(),
              "Not Ferrit resource: not set up yet (the stored configuration is still loading)");
    EXPECT_FALSE(asking->is404) << "the host goes to the network";

    // Loaded, but this root never received a configuration and the host has not set up (the
    // earlier setup found no proxy and changed nothing).
    EXPECT_EQ(miss().message(), "Not Ferrit resource: not set up yet (setup not called)");

    // Set up, the first configuration request still waiting on the worker.
    Setup::setup("key", "1.0", SetupMode::kHostStartsUpdate);
    error = miss();
    EXPECT_EQ(error.code(), Errors::kNotFerritResource);
    EXPECT_EQ(error.message(),
              "Not Ferrit resource: not set up yet (the first configuration has not arrived yet)");
    auto response = Access::getResource(ResourceRequest(kMissUrl, ""));
    EXPECT_FALSE(response->is404);
    EXPECT_EQ(response->header.at("X-Ferrit-Info"), "D:@0,3001");

    // Once it has arrived, a URL that no pack serves is a plain miss.
    TaskRunner::runDue();
    ASSERT_EQ(SCache::current()->version, "1700000000000");
    EXPECT_EQ(miss().message(), "Not Ferrit resource");
}

TEST_F(ErrorWordsTest, AFirstConfigurationThatFailedLeavesPlainMisses) {
    // The first request fails (no answer served: 404); the start-up is over all the same.
    Setup::setProxy(proxy_, temp_.root());
    Setup::setup("key", "1.0", SetupMode::kHostStartsUpdate);
    TaskRunner::runDue();
    EXPECT_TRUE(Environment::instance().flags() & kConfigFirstUpdated);
    EXPECT_EQ(miss().message(), "Not Ferrit resource");
}

TEST_F(ErrorWordsTest, ASubProcessNeverWaitsForAConfigurationOfItsOwn) {
    Setup::setProxy(proxy_, temp_.root());
    Setup::setupSubProcess();
    EXPECT_EQ(miss().message(), "Not Ferrit resource");
}

// ---- The configuration request and its answers -----------------------------------------------

TEST_F(ErrorWordsTest, ConfigurationRequestFailuresSayWhatWentWrong) {
    std::vector<Error> seen;
    // No proxy yet.
    seen.push_back(fetchConfig("https://cfg.test/a").second);
    EXPECT_EQ(seen.back().code(), Errors::kProxyNotInitialized);

    Environment::instance().setProxy(proxy_);
    seen.push_back(fetchConfig("").second);
    EXPECT_EQ(seen.back().code(), Errors::kRequestInvalidUrl);

    proxy_->serve("https://cfg.test/404", 404, "gone");
    seen.push_back(fetchConfig("https://cfg.test/404").second);
    EXPECT_EQ(seen.back().message(),
              "request \"https://cfg.test/404\" invalid status code 404 (Not Found)");

    proxy_->serve("https://cfg.test/599", 599, "?");
    seen.push_back(fetchConfig("https://cfg.test/599").second);
    EXPECT_EQ(seen.back().message(),
              "request \"https://cfg.test/599\" invalid status code 599 (server error)");

    proxy_->serve("https://cfg.test/empty", 200, "");
    seen.push_back(fetchConfig("https://cfg.test/empty").second);
    EXPECT_EQ(seen.back().code(), Errors::kRequestNoData);

    // The service refuses: the phase says how far start-up had come, in words.
    Environment::instance().setFlag(kSetupDone);
    proxy_->serve("https://cfg.test/refused", 200, "{}");
    seen.push_back(fetchConfig("https://cfg.test/refused").second);
    EXPECT_EQ(seen.back().message(),
              "https://cfg.test/refused server error, phase: 1 (set up, first configuration "
              "update not finished, updating not started)");

    FakeProxy::Answer broken;
    broken.transportError = Error(ECONNRESET, std::string("socket hang up"));
    proxy_->serve("https://cfg.test/reset", broken);
    seen.push_back(fetchConfig("https://cfg.test/reset").second);
    EXPECT_EQ(seen.back().code(), Errors::kRequestFailed);

    // A host with no network at all (the base proxy).
    Environment::instance().setProxy(std::make_shared<NoNetworkProxy>());
    seen.push_back(fetchConfig("https://cfg.test/offline").second);
    EXPECT_EQ(seen.back().message(),
              "request \"https://cfg.test/offline\" failed: 101, no network access");

    for (const Error& error : seen) EXPECT_TRUE(readable(error));
}

TEST_F(ErrorWordsTest, DocumentsThatDoNotParseOrVerifySayWhy) {
    Environment::instance().setProxy(proxy_);
    std::vector<Error> seen;
    Error error;
    EXPECT_EQ(FConfig::parse(R"({"v":"1"})", "https://cfg.test/d", error, true), nullptr);
    EXPECT_EQ(error.message(),
              "request \"https://cfg.test/d\" deserialization failed: no signature");
    seen.push_back(error);

    const std::string forged = R"({"v":"1"})" + std::string("||") + FakeProxy::base64("forged");
    EXPECT_EQ(FConfig::parse(forged, "https://cfg.test/d", error, true), nullptr);
    EXPECT_EQ(error.code(), Errors::kRequestVerify);
    seen.push_back(error);

    // Signed, but cut short: the parser's words and where it stopped.
    EXPECT_EQ(
        FConfig::parse(FakeProxy::sign(R"({"v":"1","packs":{)"), "https://cfg.test/d", error, true),
        nullptr);
    EXPECT_EQ(error.code(), Errors::kRequestDeserialization);
    EXPECT_EQ(error.message(),
              "request \"https://cfg.test/d\" deserialization failed: Missing a name for object "
              "member. at offset 18");
    seen.push_back(error);

    EXPECT_EQ(FConfig::parse("[1]", "local", error, false), nullptr);
    EXPECT_EQ(error.message(), "request \"local\" deserialization failed: not an object");
    seen.push_back(error);

    for (const Error& e : seen) EXPECT_TRUE(readable(e));
}

// ---- Files: missing, unwritable, damaged -----------------------------------------------------

TEST_F(ErrorWordsTest, FileFailuresCarryTheSystemsWords) {
    std::vector<Error> seen;
    Error error;
    Folder::readFile(Folder::disk("apps/p/1/missing.js"), error);
    EXPECT_EQ(error.code(), Errors::kFileNotExists);
    seen.push_back(error);

    // Nothing to write: the primitive's refusal has its own words, not "-1, Unknown error -1".
    EXPECT_FALSE(Folder::writeFile(Folder::disk("f.txt"), "", error));
    EXPECT_EQ(error.message(), "file \"f.txt\" write failed: " + std::to_string(ENODATA) + ", " +
                                   std::strerror(ENODATA));
    seen.push_back(error);

    // A full disk under an install.
    {
        FullDiskCalls calls;
        ScopedCalls scoped(&calls);
        PackInstaller installer(Folder::disk("apps/p/2/"), Folder::disk("temp/p/"));
        installer.begin();
        error = installer.writeFile("res/a.js", "bytes");
        EXPECT_TRUE(static_cast<bool>(error));
    }
    EXPECT_EQ(error.code(), Errors::kFileWrite);
    EXPECT_NE(error.message().find("write failed: " + std::to_string(ENOSPC) + ", " +
                                   std::strerror(ENOSPC)),
              std::string::npos)
        << error.message();
    seen.push_back(error);

    // The store of packed files before any was opened.
    EXPECT_FALSE(Folder::writeFile(Folder::packed("p/1/a.js"), "x", error));
    EXPECT_EQ(error.message(), "Initialize storage \"packs\" failed: the store is not open");
    seen.push_back(error);

    // A pack's list: unsigned, or signed but not JSON.
    Environment::instance().setProxy(proxy_);
    MarlLogger::json::JSON table;
    const Folder list = Folder::disk("apps/p/1/app-res.hvc");
    EXPECT_FALSE(ResourceIndex::parseSigned(list, "{}", table, error));
    seen.push_back(error);
    EXPECT_FALSE(ResourceIndex::parseSigned(list, FakeProxy::signIndex("{\"a\":"), table, error));
    EXPECT_EQ(error.code(), Errors::kFileDeserialization);
    EXPECT_NE(error.message().find("deserialization failed: "), std::string::npos);
    seen.push_back(error);

    for (const Error& e : seen) EXPECT_TRUE(readable(e));
}

// ---- The catalogue's errors of the host's story ----------------------------------------------

TEST_F(ErrorWordsTest, CatalogueErrorsAHostMeetsAreReadable) {
    using namespace Errors;
    const Folder file = Folder::disk("apps/p/1/res/a.js");
    const std::vector<Error> story = {
        proxyNotInitialized(),
        notSetUpYet("setup not called"),
        requestInvalidUrl(""),
        requestFailed("https://x/c", ETIMEDOUT, "no answer"),
        requestInvalidStatus("https://x/c", 500),
        requestInvalidStatus("https://x/c", 0),
        requestNoData("https://x/c"),
        requestDeserialization("https://x/c", "no signature"),
        requestVerifySignature("https://x/c", "d41d8cd98f00b204e9800998ecf8427e"),
        requestVerifyMd5("https://x/p.zip", "abc", "def"),
        serverError("https://x/c", 0),
        serverError("https://x/c", kSetupDone | kConfigFirstUpdated | kUpdateStarted),
        fileNotExists(file),
        fileRead(file, EACCES),
        fileWrite(file, ENOSPC),
        fileWrite(file, EROFS),
        fileVerifySignature(file, "abc"),
        fileDeserialization(file, "not an object"),
        readAsyncOnly(file),
        createFolderFailed(EACCES),
        packNameMismatch("https://x/pc", "shop"),
        unzipFailed("shop.zip", "damaged archive"),
        unzipTempPath("/r/temp/shop/"),
        decryptFailed("shop", "no zip in the image"),
        copyFailed("a.js", EXDEV),
        notFerritPackResource("F:shop@3"),
        notInstalled("shop"),
        packFileNotFound("F:shop@3", file),
        resourceListNotFound("shop"),
        packedStoreNotOpen(),
    };
    for (const Error& error : story) EXPECT_TRUE(readable(error));
}

// The check itself catches what the host used to read.
TEST_F(ErrorWordsTest, TheReadabilityCheckRefusesBareCodes) {
    EXPECT_FALSE(readable(
        Error(Errors::kFileWrite, std::string("file \"f\" write failed: -1, Unknown error -1"))));
    EXPECT_FALSE(readable(
        Error(Errors::kInitStorageFailed, std::string("Initialize storage \"packs\" failed: 8"))));
    EXPECT_FALSE(
        readable(Error(Errors::kServerError, std::string("https://c server error, phase: 1"))));
    EXPECT_FALSE(readable(Error(Errors::kRequestInvalidStatus,
                                std::string("request \"u\" invalid status code 65535"))));
    EXPECT_FALSE(
        readable(Error(Errors::kRequestFailed, std::string("request \"u\" failed: -1, x"))));
    EXPECT_TRUE(
        readable(Error(Errors::kPackFileNotFound, std::string("F:a-1@3 file not found: a-1.js"))));
}

// ---- Quiet defaults --------------------------------------------------------------------------

// Bytes of the log lines written at `level` or more severe.
size_t bytesAt(const MarlLogger::CapturingSink& sink, MarlLogger::MRLLevel level) {
    size_t bytes = 0;
    for (const MarlLogger::LogEntry& entry : sink.entries()) {
        if (entry.level <= level) bytes += entry.toJSONLine().size() + 1;
    }
    return bytes;
}

TEST_F(ErrorWordsTest, FiveHundredMissesWriteNothingAtTheDefaultLevel) {
    Setup::setProxy(proxy_, temp_.root());
    proxy_->serve(kFirstUrl, 200, FakeProxy::sign(R"({"v":"1700000000000","i":4294967295})"));
    Setup::setup("key", "1.0", SetupMode::kHostStartsUpdate);
    TaskRunner::runDue();
    logs_->clear();
    constexpr int kMisses = 500;
    for (int i = 0; i < kMisses; ++i) {
        const Error error =
            Access::getResource(
                ResourceRequest("https://site.test/" + std::to_string(i) + ".js", ""))
                ->error;
        ASSERT_EQ(error.code(), Errors::kNotFerritResource);
    }
    const size_t atDefault = bytesAt(logs_.sink(), MarlLogger::MRLLevelWarning);
    const size_t atDebug = bytesAt(logs_.sink(), MarlLogger::MRLLevelDebug);
    std::printf("log bytes for %d misses: %zu at the default level, %zu at the debug level\n",
                kMisses, atDefault, atDebug);
    EXPECT_EQ(atDefault, 0u);
    // The misses are still there for whoever asks for them.
    EXPECT_EQ(logs_->count("match", "Ferrit/Access"), static_cast<size_t>(kMisses));
    EXPECT_EQ(logs_->last("match", "Ferrit/Access").level, MarlLogger::MRLLevelDebug);

    // At the default level nothing is gathered for a miss, let alone written.
    MarlLogger::ScopedCapture quiet(MarlLogger::MRLLevelWarning);
    Access::getResource(ResourceRequest(kMissUrl, ""));
    EXPECT_TRUE(quiet->entries().empty());
}

// A host that gives no raw-file folder answers every raw-file read with its own failure; a start
// without built-in packs is no fault, at any level that says so.
class NoRawFilesProxy : public FakeProxy {
  public:
    bool assetExists(const std::string&) override { return false; }
    std::string assetRead(const std::string&, Error& error) override {
        error = Errors::resourceManagerNotFound();
        return {};
    }
};

TEST_F(ErrorWordsTest, AStartWithoutRawFilesLogsNoError) {
    auto proxy = std::make_shared<NoRawFilesProxy>();
    proxy->serve(kFirstUrl, 200, FakeProxy::sign(R"({"v":"1700000000000","i":4294967295})"));
    Setup::setProxy(proxy, temp_.root());
    Setup::setup("key", "1.0", SetupMode::kHostStartsUpdate);
    TaskRunner::runDue();
    Setup::startUpdate();
    TaskRunner::runDue();
    for (const MarlLogger::LogEntry& entry : logs_->entries()) {
        EXPECT_GT(entry.level, MarlLogger::MRLLevelWarning) << entry.toJSONLine();
        EXPECT_NE(entry.errorCode, std::to_string(Errors::kRequestFailed)) << entry.toJSONLine();
    }
    EXPECT_EQ(logs_->last("load", "Ferrit/SCache").errorCode,
              std::to_string(Errors::kFileNotExists));
}

}  // namespace
}  // namespace FerritTest
