// Links against libferritcore.so alone: the public classes must be usable through it.
#include <gtest/gtest.h>

#include "ferritcore/Access.h"
#include "ferritcore/Error.h"

namespace FerritCore {
namespace {

// The library's code for a URL that nothing serves. This test sees only the public headers, which
// pass the library's codes through without naming them.
constexpr int32_t kNotFerritResource = 3001;

TEST(ExportTest, EmptyUrlThroughSharedLibraryGives3001) {
    auto response = Access::getResource(ResourceRequest("", ""));
    ASSERT_NE(response, nullptr);
    EXPECT_EQ(response->error.code(), kNotFerritResource);
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
