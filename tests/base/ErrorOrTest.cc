#include "support/ErrorOr.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "base/Errors.h"

namespace FerritCore {
namespace {

ErrorOr<std::string> readName(bool present) {
    if (!present) return Errors::fileNotExists(Folder::asset("name.txt"));
    return std::string("shop");
}

TEST(ErrorOrTest, HoldsTheValueAndNoError) {
    ErrorOr<std::string> name = readName(/*present=*/true);
    ASSERT_TRUE(name.ok());
    EXPECT_EQ(*name, "shop");
    EXPECT_EQ(name->size(), 4u);
    EXPECT_FALSE(static_cast<bool>(name.error()));
    EXPECT_EQ(name.valueOr("other"), "shop");
}

TEST(ErrorOrTest, HoldsTheFailureWithItsCodeAndWords) {
    ErrorOr<std::string> name = readName(/*present=*/false);
    EXPECT_FALSE(name.ok());
    EXPECT_TRUE(Errors::isFileMissing(name.error()));
    EXPECT_EQ(name.error().message(), "file \"/Asset/name.txt\" not exists");
    EXPECT_EQ(name.valueOr("other"), "other");
}

TEST(ErrorOrTest, MovesAValueThatCannotBeCopied) {
    ErrorOr<std::unique_ptr<int>> made(std::make_unique<int>(7));
    ASSERT_TRUE(made.ok());
    std::unique_ptr<int> taken = std::move(made).value();
    ASSERT_NE(taken, nullptr);
    EXPECT_EQ(*taken, 7);
}

TEST(ErrorOrTest, TakesTheFailureOut) {
    ErrorOr<int> failed(Errors::requestNoData("u"));
    const Error error = std::move(failed).error();
    EXPECT_TRUE(Errors::isRequestNoData(error));
    EXPECT_EQ(error.message(), "request \"u\" no data");
}

TEST(ErrorOrTest, CopiesKeepValueAndFailure) {
    const ErrorOr<int> value(3);
    // The copies are what is tested.
    // NOLINTNEXTLINE(performance-unnecessary-copy-initialization)
    const ErrorOr<int> copy = value;
    EXPECT_TRUE(copy.ok());
    EXPECT_EQ(*copy, 3);
    const ErrorOr<int> failure(Errors::updateDisabled());
    // NOLINTNEXTLINE(performance-unnecessary-copy-initialization)
    const ErrorOr<int> failureCopy = failure;
    EXPECT_FALSE(failureCopy.ok());
    EXPECT_TRUE(Errors::isUpdateDisabled(failureCopy.error()));
}

}  // namespace
}  // namespace FerritCore
