#include <gtest/gtest.h>

#include <cerrno>

#include "base/Environment.h"
#include "base/Errors.h"
#include "marl/Clock.h"
#include "runtime/Network.h"
#include "runtime/Settings.h"
#include "runtime/TaskRunner.h"
#include "tests/FakeProxy.h"
#include "tests/TestUtil.h"

namespace FerritTest {
namespace {

using namespace FerritCore;

class NetworkTest : public ProcessTest {
  protected:
    void SetUp() override {
        ProcessTest::SetUp();
        proxy_ = std::make_shared<FakeProxy>();
        Environment::instance().setProxy(proxy_);
        Environment::instance().setReferer("Ferrit/" + std::string(kCoreVersion) + "_key/1.0");
    }
    // Runs a configuration request and the worker; returns what the completion got.
    std::pair<std::string, Error> config(const std::string& url) {
        std::pair<std::string, Error> got{"unset", Error()};
        Network::requestConfig(url, "T", [&](std::string content, Error error) {
            got = {std::move(content), error};
        });
        TaskRunner::runDue();
        return got;
    }
    std::pair<ProxyResponse, Error> resource(const std::string& url, const HeaderMap& header,
                                             bool allow304) {
        std::pair<ProxyResponse, Error> got;
        got.second = Error(-99, "not called");
        Network::requestResource(url, "T", header, allow304, [&](ProxyResponse r, Error e) {
            got = {std::move(r), e};
        });
        return got;
    }
    std::pair<uint64_t, Error> pack(const std::string& url, const Folder& target) {
        std::pair<uint64_t, Error> got{99, Error(-99, "not called")};
        Network::requestPack(url, target, "T", 3, [&](uint64_t length, Error e) {
            got = {length, e};
        });
        TaskRunner::runDue();
        return got;
    }

    MarlLogger::ScopedManualClock clock_;
    std::shared_ptr<FakeProxy> proxy_;
};

TEST_F(NetworkTest, ConfigRequestCarriesKindRefererAndTimeout) {
    proxy_->serve("https://c/f", 200, "{\"v\":\"1\"}");
    auto [content, error] = config("https://c/f");
    EXPECT_FALSE(error) << error.message();
    EXPECT_EQ(content, "{\"v\":\"1\"}");
    ASSERT_EQ(proxy_->requests.size(), 1u);
    const ProxyRequest& request = proxy_->requests[0];
    EXPECT_EQ(request.timeout, 10);
    EXPECT_EQ(request.header.at("f-refer"), "ferrit_config");
    EXPECT_EQ(request.header.at("Referer"), "Ferrit/" + std::string(kCoreVersion) + "_key/1.0");
    EXPECT_TRUE(request.tempFilePath.empty());
    EXPECT_FALSE(request.wantHeaders);
}

TEST_F(NetworkTest, ConfigCompletionIsPostedNotInline) {
    proxy_->serve("https://c/f", 200, "x");
    bool called = false;
    Network::requestConfig("https://c/f", "T", [&](std::string, Error) { called = true; });
    EXPECT_FALSE(called);
    TaskRunner::runDue();
    EXPECT_TRUE(called);
}

TEST_F(NetworkTest, EmptyObjectConfigIsServerErrorNotEmptyDocument) {
    Environment::instance().setFlag(1);
    proxy_->serve("https://c/f", 200, "{}");
    auto [content, error] = config("https://c/f");
    EXPECT_EQ(error.code(), Errors::kServerError);
    EXPECT_EQ(error.message(),
              "https://c/f server error, phase: 1 (set up, first configuration update "
              "not finished, updating not started)");
    EXPECT_TRUE(content.empty());
}

TEST_F(NetworkTest, ConfigEmptyBodyBadStatusAndTransport) {
    proxy_->serve("https://c/empty", 200, "");
    EXPECT_EQ(config("https://c/empty").second.code(), Errors::kRequestNoData);
    proxy_->serve("https://c/500", 500, "oops");
    auto bad = config("https://c/500").second;
    EXPECT_EQ(bad.code(), Errors::kRequestInvalidStatus);
    EXPECT_EQ(bad.message(),
              "request \"https://c/500\" invalid status code 500 (Internal Server Error)");
    EXPECT_EQ(config("https://c/304").second.code(), Errors::kRequestInvalidStatus)
        << "unknown URL answers 404";
    FakeProxy::Answer broken;
    broken.transportError = Error(7, "reset");
    proxy_->serve("https://c/t", broken);
    auto transport = config("https://c/t").second;
    EXPECT_EQ(transport.code(), Errors::kRequestFailed);
    EXPECT_EQ(transport.message(), "request \"https://c/t\" failed: 7, reset");
}

TEST_F(NetworkTest, EmptyUrlAndMissingProxyCompleteAtOnce) {
    bool called = false;
    Error got;
    Network::requestConfig("", "T", [&](std::string, Error e) {
        called = true;
        got = e;
    });
    EXPECT_TRUE(called);
    EXPECT_EQ(got.code(), Errors::kRequestInvalidUrl);
    EXPECT_EQ(got.message(), "request \"\" invalid URL");
    Environment::instance().setProxy(nullptr);
    EXPECT_EQ(resource("https://r/a", {}, false).second.code(), Errors::kProxyNotInitialized);
    called = false;
    Network::requestConfig("https://c/f", "T", [&](std::string, Error e) {
        called = true;
        got = e;
    });
    EXPECT_TRUE(called);
    EXPECT_EQ(got.code(), Errors::kProxyNotInitialized);
}

TEST_F(NetworkTest, ResourceNoContentIs1006) {
    proxy_->serve("https://r/a", 204, "");
    EXPECT_EQ(resource("https://r/a", {}, false).second.code(), Errors::kRequestNoData);
}

TEST_F(NetworkTest, NotModifiedNeedsAllow304) {
    proxy_->serve("https://r/a", 304, "");
    EXPECT_EQ(resource("https://r/a", {}, false).second.code(), Errors::kRequestInvalidStatus);
    auto [response, error] = resource("https://r/a", {}, true);
    EXPECT_FALSE(error);
    EXPECT_EQ(response.statusCode, 304);
}

TEST_F(NetworkTest, ResourceSuccessKeepsHeadersAndCompletesInline) {
    FakeProxy::Answer answer;
    answer.body = "body";
    answer.header = {{"Content-Type", "text/css"}};
    proxy_->serve("https://r/a", answer);
    auto [response, error] = resource("https://r/a", {}, false);
    EXPECT_FALSE(error);
    EXPECT_EQ(response.content, "body");
    EXPECT_EQ(response.header.at("Content-Type"), "text/css");
    EXPECT_EQ(proxy_->requests[0].timeout, 20);
    EXPECT_TRUE(proxy_->requests[0].wantHeaders);
    EXPECT_EQ(proxy_->requests[0].header.at("f-refer"), "ferrit_resource");
    EXPECT_EQ(proxy_->requests[0].header.count("Referer"), 0u);
}

TEST_F(NetworkTest, CallersReferHeaderIsKeptNotDoubled) {
    proxy_->serve("https://r/a", 200, "x");
    resource("https://r/a", {{"F-Refer", "mine"}}, false);
    const HeaderMap& sent = proxy_->requests[0].header;
    EXPECT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent.at("F-Refer"), "mine");
}

TEST_F(NetworkTest, PackGoesToTheTargetFile) {
    FakeProxy::Answer answer;
    answer.body = "zipbytes";
    answer.header = {{"Content-Length", "8"}};
    proxy_->serve("https://z/p.zip", answer);
    const Folder target = Folder::disk("temp/p/p.zip");
    std::filesystem::create_directories(temp_.path() / "temp/p");
    auto [length, error] = pack("https://z/p.zip", target);
    EXPECT_FALSE(error) << error.message();
    EXPECT_EQ(length, 8u);
    const ProxyRequest& request = proxy_->requests[0];
    EXPECT_EQ(request.tempFilePath, target.absolute());
    EXPECT_EQ(request.header.at("f-refer"), "ferrit_zip");
    EXPECT_EQ(request.progressId, 3u);
}

TEST_F(NetworkTest, PackWithoutContentLengthHasLengthZero) {
    proxy_->serve("https://z/p.zip", 200, "zip");
    std::filesystem::create_directories(temp_.path() / "temp");
    auto [length, error] = pack("https://z/p.zip", Folder::disk("temp/p.zip"));
    EXPECT_FALSE(error);
    EXPECT_EQ(length, 0u);
}

TEST_F(NetworkTest, PackWithoutFileIs1006) {
    FakeProxy::Answer answer;  // 200 with nothing written
    proxy_->serve("https://z/p.zip", answer);
    auto [length, error] = pack("https://z/p.zip", Folder::disk("temp/none.zip"));
    EXPECT_EQ(error.code(), Errors::kRequestNoData);
    EXPECT_EQ(length, 0u);
}

TEST_F(NetworkTest, PackFailuresArePosted) {
    bool called = false;
    Network::requestPack("", Folder::disk("temp/x"), "T", 0, [&](uint64_t, Error e) {
        called = true;
        EXPECT_EQ(e.code(), Errors::kRequestInvalidUrl);
    });
    EXPECT_FALSE(called);
    TaskRunner::runDue();
    EXPECT_TRUE(called);
    proxy_->serve("https://z/p.zip", 403, "");
    EXPECT_EQ(pack("https://z/p.zip", Folder::disk("temp/x")).second.code(),
              Errors::kRequestInvalidStatus);
}

TEST_F(NetworkTest, NetworkStatusGatesDownloads) {
    std::string reason;
    Environment::instance().setNetworkStatusValue(NetworkStatus::kNone);
    EXPECT_FALSE(Network::downloadAllowed(0, reason));
    EXPECT_EQ(reason, "None");
    Environment::instance().setNetworkStatusValue(NetworkStatus::kUnrestricted);
    EXPECT_TRUE(Network::downloadAllowed(0, reason));
    Environment::instance().setNetworkStatusValue(NetworkStatus::kSlowMobile);
    EXPECT_FALSE(Network::downloadAllowed(1u << 15, reason));
    EXPECT_EQ(reason, "Slow cellular");
    EXPECT_TRUE(Network::downloadAllowed(1u << 14, reason));
    Environment::instance().setNetworkStatusValue(NetworkStatus::kFastMobile);
    EXPECT_FALSE(Network::downloadAllowed(1u << 14, reason));
    EXPECT_EQ(reason, "Fast cellular");
    EXPECT_TRUE(Network::downloadAllowed(1u << 15, reason));
    Environment::instance().setNetworkStatusValue(static_cast<NetworkStatus>(7));
    EXPECT_FALSE(Network::downloadAllowed(~0ull, reason));
    EXPECT_TRUE(reason.empty());
}

// ---- Deadlines: a host that never answers ends the request itself, once.

FakeProxy::Answer never() {
    FakeProxy::Answer answer;
    answer.never = true;
    return answer;
}

FakeProxy::Answer held(uint16_t status, std::string body) {
    FakeProxy::Answer answer;
    answer.status = status;
    answer.body = std::move(body);
    answer.hold = true;
    return answer;
}

TEST_F(NetworkTest, ConfigRequestThatNeverAnswersEndsAtItsDeadline) {
    proxy_->serve("https://c/f", never());
    int calls = 0;
    Error got;
    Network::requestConfig("https://c/f", "T", [&](std::string content, Error error) {
        EXPECT_TRUE(content.empty());
        got = error;
        ++calls;
    });
    const double deadline = Settings::current()->configRequestDeadlineValue();
    clock_->advance(deadline - 1);
    TaskRunner::runDue();
    EXPECT_EQ(calls, 0);
    clock_->advance(1);
    TaskRunner::runDue();
    ASSERT_EQ(calls, 1);
    EXPECT_EQ(got.code(), Errors::kRequestFailed);
    EXPECT_EQ(got.message(), "request \"https://c/f\" failed: " + std::to_string(ETIMEDOUT) +
                                 ", no answer within 20 s");
    clock_->advance(deadline);
    TaskRunner::runDue();
    EXPECT_EQ(calls, 1);
}

TEST_F(NetworkTest, ResourceRequestThatNeverAnswersEndsAtItsDeadline) {
    proxy_->serve("https://r/a.js", never());
    int calls = 0;
    Error got;
    Network::requestResource("https://r/a.js", "T", HeaderMap(), false,
                             [&](ProxyResponse response, Error error) {
                                 EXPECT_EQ(response.statusCode, 0);
                                 got = error;
                                 ++calls;
                             });
    TaskRunner::runDue();
    EXPECT_EQ(calls, 0);
    clock_->advance(Settings::current()->resourceRequestDeadlineValue());
    TaskRunner::runDue();
    ASSERT_EQ(calls, 1);
    EXPECT_EQ(got.code(), Errors::kRequestFailed);
    EXPECT_NE(got.message().find("no answer within 30 s"), std::string::npos) << got.message();
}

TEST_F(NetworkTest, PackRequestThatNeverAnswersEndsAtItsDeadline) {
    proxy_->serve("https://z/p.zip", never());
    int calls = 0;
    Error got;
    Network::requestPack("https://z/p.zip", Folder::disk("temp/p.zip"), "T", 0,
                         [&](uint64_t length, Error error) {
                             EXPECT_EQ(length, 0u);
                             got = error;
                             ++calls;
                         });
    TaskRunner::runDue();
    EXPECT_EQ(calls, 0);
    clock_->advance(Settings::current()->packRequestDeadlineValue());
    TaskRunner::runDue();
    ASSERT_EQ(calls, 1);
    EXPECT_EQ(got.code(), Errors::kRequestFailed);
    EXPECT_NE(got.message().find("no answer within 30 s"), std::string::npos) << got.message();
}

TEST_F(NetworkTest, AnswerAfterTheDeadlineIsDropped) {
    proxy_->serve("https://c/f", held(200, "{\"v\":\"1\"}"));
    proxy_->serve("https://r/a.js", held(200, "late"));
    int configCalls = 0;
    int resourceCalls = 0;
    Network::requestConfig("https://c/f", "T", [&](std::string, Error error) {
        EXPECT_EQ(error.code(), Errors::kRequestFailed);
        ++configCalls;
    });
    Network::requestResource("https://r/a.js", "T", HeaderMap(), false,
                             [&](ProxyResponse, Error error) {
                                 EXPECT_EQ(error.code(), Errors::kRequestFailed);
                                 ++resourceCalls;
                             });
    clock_->advance(Settings::kDefaultResourceRequestDeadline);
    TaskRunner::runDue();
    EXPECT_EQ(configCalls, 1);
    EXPECT_EQ(resourceCalls, 1);
    // The host answers at last: nobody hears it.
    EXPECT_EQ(proxy_->release(), 2u);
    TaskRunner::runDue();
    EXPECT_EQ(configCalls, 1);
    EXPECT_EQ(resourceCalls, 1);
}

TEST_F(NetworkTest, AnswerInTimeCancelsTheDeadline) {
    proxy_->serve("https://c/f", held(200, "{\"v\":\"1\"}"));
    int calls = 0;
    Network::requestConfig("https://c/f", "T", [&](std::string content, Error error) {
        EXPECT_FALSE(error) << error.message();
        EXPECT_EQ(content, "{\"v\":\"1\"}");
        ++calls;
    });
    clock_->advance(Settings::current()->configRequestDeadlineValue() - 1);
    proxy_->release();
    TaskRunner::runDue();
    EXPECT_EQ(calls, 1);
    clock_->advance(1);
    TaskRunner::runDue();
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(TaskRunner::pendingCount(), 0u);
}

TEST_F(NetworkTest, DeadlinesComeFromSettings) {
    Settings::updateRemote({{"configRequestDeadline", "5000"},
                            {"resourceRequestDeadline", "0"},
                            {"packRequestDeadline", "x"}});
    EXPECT_EQ(Settings::current()->configRequestDeadlineValue(), 5000);
    // Text that does not parse and 0 mean the default, never a deadline of nothing.
    EXPECT_EQ(Settings::current()->resourceRequestDeadlineValue(),
              Settings::kDefaultResourceRequestDeadline);
    EXPECT_EQ(Settings::current()->packRequestDeadlineValue(),
              Settings::kDefaultPackRequestDeadline);
    proxy_->serve("https://c/f", never());
    Error got;
    Network::requestConfig("https://c/f", "T", [&](std::string, Error error) { got = error; });
    clock_->advance(5000);
    TaskRunner::runDue();
    EXPECT_EQ(got.code(), Errors::kRequestFailed);
    EXPECT_NE(got.message().find("no answer within 5 s"), std::string::npos) << got.message();
}

// ---- Limits.

TEST_F(NetworkTest, ConfigAboveItsSizeLimitIsRefusedBeforeParsing) {
    Settings::updateRemote({{"configMaxSize", "16"}});
    proxy_->serve("https://c/f", 200, std::string(17, ' '));
    auto [content, error] = config("https://c/f");
    EXPECT_TRUE(content.empty());
    EXPECT_EQ(error.code(), Errors::kRequestDeserialization);
    EXPECT_EQ(error.message(),
              "request \"https://c/f\" deserialization failed: 17 bytes, above the limit of 16 "
              "(\"configMaxSize\")");
    proxy_->serve("https://c/f", 200, std::string(16, ' '));
    EXPECT_FALSE(config("https://c/f").second);
}

}  // namespace
}  // namespace FerritTest
