// The tools' proxy answers from a served folder: a body it cannot store is reported as the write
// failure it is, not handed on as a short file that the library would only refuse later as bytes
// that do not match.
#include "tools/FileProxy.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "base/Errors.h"
#include "base/ProxyRequest.h"
#include "tools/common/Ed25519Key.h"

namespace FerritTools {
namespace {

namespace fs = std::filesystem;

class FileProxyTest : public testing::Test {
  protected:
    void SetUp() override {
        folder_ = fs::temp_directory_path() /
                  ("file-proxy-test-" + std::to_string(::getpid()) + "-" +
                   testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::create_directories(folder_ / "served/cdn.test");
        std::ofstream(folder_ / "served/cdn.test/pack.zip", std::ios::binary) << "zip bytes";
        std::string error;
        const auto key = Ed25519Key::generate(error);
        ASSERT_TRUE(key) << error;
        const std::string pem = (folder_ / "key.pub.pem").string();
        ASSERT_TRUE(key->writePublicPem(pem, error)) << error;
        proxy_ = FileProxy::open(pem, error);
        ASSERT_TRUE(proxy_) << error;
        proxy_->serveFolder((folder_ / "served").string());
    }
    void TearDown() override { fs::remove_all(folder_); }

    // Requests the served zip into `tempFilePath`; the completion's status and error.
    std::pair<int, FerritCore::Error> fetchInto(const std::string& tempFilePath) {
        FerritCore::ProxyRequest request;
        request.url = "https://cdn.test/pack.zip";
        request.tempFilePath = tempFilePath;
        std::pair<int, FerritCore::Error> out{-1, FerritCore::Error()};
        proxy_->sendRequest(
            request, [&](const FerritCore::ProxyResponse& response, FerritCore::Error error) {
                out = {response.statusCode, std::move(error)};
            });
        return out;
    }

    fs::path folder_;
    std::shared_ptr<FileProxy> proxy_;
};

TEST_F(FileProxyTest, BodyIsWrittenToTheRequestsFile) {
    const std::string target = (folder_ / "body.zip").string();
    const auto [status, error] = fetchInto(target);
    EXPECT_EQ(status, 200);
    EXPECT_FALSE(error) << error.message();
    std::ifstream in(target, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "zip bytes");
}

// /dev/full takes the open and refuses every write with ENOSPC, as a full disk does.
TEST_F(FileProxyTest, FullDiskIsAWriteFailureWithItsErrno) {
    if (!fs::exists("/dev/full")) GTEST_SKIP() << "no /dev/full";
    const auto [status, error] = fetchInto("/dev/full");
    EXPECT_TRUE(FerritCore::Errors::isFileWrite(error)) << error.message();
    EXPECT_NE(error.message().find("No space left on device"), std::string::npos)
        << error.message();
}

TEST_F(FileProxyTest, MissingFolderIsAWriteFailure) {
    const auto [status, error] = fetchInto((folder_ / "absent/body.zip").string());
    EXPECT_TRUE(FerritCore::Errors::isFileWrite(error)) << error.message();
}

}  // namespace
}  // namespace FerritTools
