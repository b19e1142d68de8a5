// Links against libferritcore.so alone: the public classes must be usable through it.
#include <gtest/gtest.h>

#include "ferritcore/Access.h"
#include "ferritcore/Error.h"

namespace FerritCore {
namespace {

TEST(ExportTest, EmptyUrlThroughSharedLibraryGives3001) {
    auto response = Access::getResource(ResourceRequest("", ""));
    ASSERT_NE(response, nullptr);
    EXPECT_EQ(response->error.code(), 3001);
    EXPECT_EQ(response->error.message(), "Not Ferrit resource");
    EXPECT_EQ(response->header.at("X-Ferrit-Info"), ",0,3001");
}

TEST(ExportTest, ErrorFormatsThroughSharedLibrary) {
    Error e(7, "%s-%d", "x", 3);
    EXPECT_EQ(e.message(), "x-3");
    EXPECT_TRUE(static_cast<bool>(e));
}

}  // namespace
}  // namespace FerritCore
