#include <gtest/gtest.h>

#include <cstring>

#include "base/Errors.h"
#include "ferritcore/Access.h"
#include "ferritcore/AccessApi.h"
#include "tests/access/AccessFixture.h"

namespace FerritTest {

namespace Errors = FerritCore::Errors;
namespace {

class AccessApiTest : public AccessFixture {
  protected:
    void installAppPack() {
        install({pack("app", kPackTypeFerrit, 3, 3, {"https://h.com/app/"})});
        serveIndexes({{"app", table({{"res/app.js", "https://h.com/app/app.js"}})}});
        writeFile("apps/app/3/res/app.js", kBody);
    }

    static constexpr const char* kBody = "console.log('from the table');";
    const FerritAccessApi& api_ = *ferritcore_access_api();
};

TEST_F(AccessApiTest, TableHoldsNineFunctionsThenNull) {
    const void* const* slots = reinterpret_cast<const void* const*>(&api_);
    for (int i = 0; i < 9; ++i) EXPECT_NE(slots[i], nullptr) << i;
    EXPECT_EQ(slots[9], nullptr);
    EXPECT_EQ(ferritcore_access_api(), &api_);
}

TEST_F(AccessApiTest, FreeNullResponseAndRequestDoNothing) {
    api_.freeResponse(nullptr);
    api_.freeRequest(nullptr);
}

TEST_F(AccessApiTest, ResponseErrorOfNullAnswersOneWithMinusOne) {
    int32_t code = 0;
    const char* message = nullptr;
    EXPECT_EQ(api_.getResponseError(nullptr, &code, &message), 1);
    EXPECT_EQ(code, Errors::kResponseIsNull);
    EXPECT_STREQ(message, "response is nullptr");
    EXPECT_EQ(api_.getResponseError(nullptr, nullptr, nullptr), 1);
}

TEST_F(AccessApiTest, NullRequestGivesNotFerritResource) {
    FerritResponse* response = api_.getResource(nullptr);
    ASSERT_NE(response, nullptr);
    int32_t code = 0;
    const char* message = nullptr;
    EXPECT_EQ(api_.getResponseError(response, &code, &message), 1);
    EXPECT_EQ(code, Errors::kNotFerritResource);
    EXPECT_STREQ(message, "Not Ferrit resource");
    const void* data = reinterpret_cast<const void*>(1);
    size_t size = 1;
    EXPECT_EQ(api_.getResponseData(response, &data, &size), 0);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(size, 0u);
    api_.freeResponse(response);
}

TEST_F(AccessApiTest, ServesPackWithoutCopyingTheBody) {
    installAppPack();
    FerritRequest* request = api_.createRequest("https://h.com/app/app.js");
    api_.addRequestHeader(request, "Accept", "*/*");
    FerritResponse* response = api_.getResource(request);
    api_.freeRequest(request);  // the response does not refer to it
    EXPECT_EQ(api_.getResponseError(response, nullptr, nullptr), 0);
    const void* data = nullptr;
    size_t size = 0;
    ASSERT_EQ(api_.getResponseData(response, &data, &size), 1);
    ASSERT_EQ(size, std::strlen(kBody));
    EXPECT_EQ(std::memcmp(data, kBody, size), 0);
    // The bytes handed out are the response's own.
    EXPECT_EQ(data, reinterpret_cast<const ResourceResponse*>(response)->data.data());
    api_.freeResponse(response);
}

TEST_F(AccessApiTest, HeaderNameCaseIsIgnored) {
    installAppPack();
    FerritRequest* request = api_.createRequest("https://h.com/app/app.js");
    FerritResponse* response = api_.getResource(request);
    api_.freeRequest(request);
    const char* upper = api_.getResponseHeader(response, "CONTENT-TYPE");
    const char* lower = api_.getResponseHeader(response, "content-type");
    ASSERT_NE(upper, nullptr);
    EXPECT_EQ(upper, lower);
    EXPECT_NE(std::strstr(upper, "javascript"), nullptr);
    EXPECT_EQ(api_.getResponseHeader(response, "X-Not-There"), nullptr);
    EXPECT_EQ(api_.getResponseHeader(response, nullptr), nullptr);
    EXPECT_EQ(api_.getResponseHeader(nullptr, "Content-Type"), nullptr);
    api_.freeResponse(response);
}

TEST_F(AccessApiTest, NullArgumentsOfSettersDoNothing) {
    FerritRequest* request = api_.createRequest(nullptr);
    api_.addRequestHeader(request, nullptr, "v");
    api_.addRequestHeader(request, "n", nullptr);
    api_.addRequestHeader(nullptr, "n", "v");
    api_.setRequestReferrer(request, nullptr);
    api_.setRequestReferrer(nullptr, "https://h.com/");
    FerritResponse* response = api_.getResource(request);
    int32_t code = 0;
    EXPECT_EQ(api_.getResponseError(response, &code, nullptr), 1);
    EXPECT_EQ(code, Errors::kNotFerritResource);  // the null URL reads as the empty one
    api_.freeResponse(response);
    api_.freeRequest(request);
}

TEST_F(AccessApiTest, ReferrerServesThroughTheReferrerIndex) {
    install({pack("app", kPackTypeFerrit, 3, 3, {}, {"https://h.com/page.html"})});
    serveIndexes({{"app", table({{"res/lib.js", "https://cdn.com/lib.js"}})}});
    writeFile("apps/app/3/res/lib.js", kBody);
    FerritRequest* request = api_.createRequest("https://cdn.com/lib.js");
    api_.setRequestReferrer(request, "https://h.com/page.html");
    FerritResponse* response = api_.getResource(request);
    EXPECT_EQ(api_.getResponseError(response, nullptr, nullptr), 0);
    api_.freeResponse(response);
    // Without the referrer the URL belongs to no pack.
    FerritRequest* bare = api_.createRequest("https://cdn.com/lib.js");
    response = api_.getResource(bare);
    EXPECT_EQ(api_.getResponseError(response, nullptr, nullptr), 1);
    api_.freeResponse(response);
    api_.freeRequest(bare);
    api_.freeRequest(request);
}

TEST_F(AccessApiTest, FreeResponseMarksItFinished) {
    installAppPack();
    FerritRequest* request = api_.createRequest("https://h.com/app/app.js");
    FerritResponse* response = api_.getResource(request);
    api_.freeRequest(request);
    const size_t before = logs_->count("finish");
    api_.freeResponse(response);
    EXPECT_EQ(logs_->count("finish"), before + 1);
}

}  // namespace
}  // namespace FerritTest
