// What every store of packed files gets for free: a batch written pair by pair and a copy of one
// version's files to another through get, contains and put.
#include "base/Errors.h"
#include "base/PackedFiles.h"

#include <gtest/gtest.h>

#include "tests/MemoryPackedFiles.h"

namespace FerritCore {
namespace {

class PackedFilesTest : public ::testing::Test {
  protected:
    std::string valueOf(const std::string& key) {
        std::string value;
        Error error;
        return files_.get(key, value, error) ? value : "<missing>";
    }
    FerritTest::MemoryPackedFiles files_;
};

TEST_F(PackedFilesTest, PutAllStoresEveryPairInOrder) {
    Error error;
    ASSERT_TRUE(files_.putAll({{"a/1/x", "one"}, {"a/1/y", "two"}}, error));
    EXPECT_FALSE(error);
    EXPECT_EQ(valueOf("a/1/x"), "one");
    EXPECT_EQ(valueOf("a/1/y"), "two");
}

TEST_F(PackedFilesTest, PutAllStopsAtTheFirstFailure) {
    files_.failWrites = true;
    Error error;
    EXPECT_FALSE(files_.putAll({{"a/1/x", "one"}}, error));
    EXPECT_EQ(error.code(), Errors::kFileWrite);
}

TEST_F(PackedFilesTest, CopyPrefixSkipsWhatIsThereAndWhatIsExcluded) {
    Error error;
    ASSERT_TRUE(files_.putAll(
        {{"a/1/keep", "k"}, {"a/1/gone", "g"}, {"a/1/new", "old"}, {"a/2/new", "fresh"}}, error));
    uint64_t bytes = 0;
    ASSERT_TRUE(files_.copyPrefix("a/1/", "a/2/", {"gone"}, bytes, error));
    EXPECT_EQ(valueOf("a/2/keep"), "k");
    EXPECT_EQ(valueOf("a/2/new"), "fresh");
    EXPECT_EQ(valueOf("a/2/gone"), "<missing>");
    EXPECT_EQ(bytes, 1u);
}

}  // namespace
}  // namespace FerritCore
