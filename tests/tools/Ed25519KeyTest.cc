// The publisher's private key on disk: readable by its owner alone from the moment it exists.
#include "tools/common/Ed25519Key.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace FerritTools {
namespace {

namespace fs = std::filesystem;

class Ed25519KeyTest : public testing::Test {
  protected:
    void SetUp() override {
        folder_ = fs::temp_directory_path() /
                  ("ed25519-key-test-" + std::to_string(::getpid()) + "-" +
                   testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::create_directories(folder_);
        savedMask_ = ::umask(0);  // the most permissive: nothing may widen the key's mode
    }
    void TearDown() override {
        ::umask(savedMask_);
        fs::remove_all(folder_);
    }
    static mode_t modeOf(const fs::path& path) {
        struct stat info {};
        EXPECT_EQ(::stat(path.c_str(), &info), 0);
        return info.st_mode & 0777;
    }
    fs::path folder_;
    mode_t savedMask_ = 0;
};

TEST_F(Ed25519KeyTest, PrivateKeyIsOwnerOnlyUnderAPermissiveUmask) {
    std::string error;
    std::unique_ptr<Ed25519Key> key = Ed25519Key::generate(error);
    ASSERT_TRUE(key) << error;
    const fs::path path = folder_ / "key.pem";
    ASSERT_TRUE(key->writePrivatePem(path.string(), error)) << error;
    EXPECT_EQ(modeOf(path), 0600u);
    std::unique_ptr<Ed25519Key> read = Ed25519Key::loadPrivate(path.string(), error);
    ASSERT_TRUE(read) << error;
    EXPECT_TRUE(read->hasPrivate());
    for (const auto& entry : fs::directory_iterator(folder_))
        EXPECT_EQ(entry.path(), path) << "a temporary file is left";
}

// keygen checks first, then writes; a file that another process makes in between is kept.
TEST_F(Ed25519KeyTest, KeepingExistingFilesNeverReplacesOneMadeAfterTheCheck) {
    std::string error;
    std::unique_ptr<Ed25519Key> key = Ed25519Key::generate(error);
    ASSERT_TRUE(key) << error;
    const fs::path privatePath = folder_ / "key.pem";
    const fs::path publicPath = folder_ / "key.pub.pem";
    for (const fs::path& path : {privatePath, publicPath})
        std::ofstream(path) << "made by another process";
    EXPECT_FALSE(key->writePrivatePem(privatePath.string(), error, Ed25519Key::Existing::Keep));
    EXPECT_NE(error.find("File exists"), std::string::npos) << error;
    EXPECT_FALSE(key->writePublicPem(publicPath.string(), error, Ed25519Key::Existing::Keep));
    EXPECT_NE(error.find("File exists"), std::string::npos) << error;
    for (const fs::path& path : {privatePath, publicPath}) {
        std::ifstream in(path);
        const std::string text((std::istreambuf_iterator<char>(in)), {});
        EXPECT_EQ(text, "made by another process") << path;
    }
    size_t files = 0;
    for (const auto& entry : fs::directory_iterator(folder_)) files += entry.exists() ? 1 : 0;
    EXPECT_EQ(files, 2u) << "a temporary file is left";
    // A name that is free is taken.
    const fs::path fresh = folder_ / "fresh.pem";
    ASSERT_TRUE(key->writePrivatePem(fresh.string(), error, Ed25519Key::Existing::Keep)) << error;
    EXPECT_EQ(modeOf(fresh), 0600u);
}

TEST_F(Ed25519KeyTest, ReplacingAnOpenFileLeavesTheKeyOwnerOnly) {
    const fs::path path = folder_ / "key.pem";
    { std::ofstream(path) << "an older file, readable by all"; }
    fs::permissions(path, fs::perms::all);
    std::string error;
    std::unique_ptr<Ed25519Key> key = Ed25519Key::generate(error);
    ASSERT_TRUE(key) << error;
    ASSERT_TRUE(key->writePrivatePem(path.string(), error)) << error;
    EXPECT_EQ(modeOf(path), 0600u);
}

TEST_F(Ed25519KeyTest, MissingFolderFailsWithTheKeysPath) {
    std::string error;
    std::unique_ptr<Ed25519Key> key = Ed25519Key::generate(error);
    ASSERT_TRUE(key) << error;
    const fs::path path = folder_ / "no-such-folder" / "key.pem";
    EXPECT_FALSE(key->writePrivatePem(path.string(), error));
    EXPECT_NE(error.find(path.string()), std::string::npos) << error;
    EXPECT_FALSE(fs::exists(folder_ / "no-such-folder"));
}

}  // namespace
}  // namespace FerritTools
