// The text helpers of support/ (a header-only layer without a test binary of its own).
#include <gtest/gtest.h>

#include <string>

#include "support/Ascii.h"

namespace FerritCore::Ascii {
namespace {

TEST(AsciiTest, LowerChangesOnlyAsciiCapitals) {
    std::string text = "AbZ-09\xC3\x89@[`{";
    lowerInPlace(text);
    EXPECT_EQ(text, "abz-09\xC3\x89@[`{");
}

TEST(AsciiTest, CaseBlindComparisonNeedsEqualLength) {
    EXPECT_TRUE(equalsIgnoreCase("Content-Type", "content-TYPE"));
    EXPECT_FALSE(equalsIgnoreCase("Content-Type", "content-types"));
    EXPECT_FALSE(equalsIgnoreCase("@", "`"));
    EXPECT_TRUE(startsWithIgnoreCase("Max-Age=5", "max-age="));
    EXPECT_FALSE(startsWithIgnoreCase("max", "max-age="));
}

TEST(AsciiTest, HexWritesEachByteHighHalfFirst) {
    EXPECT_EQ(hex(std::string_view("\x00\x0F\xA5\xFF", 4)), "000fa5ff");
    EXPECT_EQ(hex(std::string_view()), "");
}

TEST(AsciiTest, AlphaNumericIsLettersAndDigitsOnly) {
    for (char c : std::string("azAZ09")) EXPECT_TRUE(isAlphaNumeric(c)) << c;
    for (char c : std::string("-_.~/@[`{\x80")) EXPECT_FALSE(isAlphaNumeric(c)) << c;
}

}  // namespace
}  // namespace FerritCore::Ascii
