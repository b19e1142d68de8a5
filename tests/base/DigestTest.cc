// CRC-32 keeps zlib's values whatever computes it: stored bodies carry CRCs written before, and
// other parties compute them with zlib.
#include "base/Digest.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <random>
#include <string>

namespace FerritTest {
namespace {

using FerritCore::Digest::crc32;

unsigned zlibCrc(std::string_view data) {
    return static_cast<unsigned>(
        ::crc32(0L, reinterpret_cast<const Bytef*>(data.data()), static_cast<uInt>(data.size())));
}

TEST(DigestTest, Crc32OfKnownTexts) {
    EXPECT_EQ(crc32(""), 0u);
    EXPECT_EQ(crc32("hello world"), 0x0d4a1185u);
    EXPECT_EQ(crc32("123456789"), 0xcbf43926u);
    EXPECT_EQ(crc32(std::string("\0\0\0\0", 4)), 0x2144df1cu);
}

TEST(DigestTest, Crc32OfSixteenKilobytesIsZlibs) {
    std::mt19937 random(16384);
    std::string body(size_t{16} * 1024, '\0');
    for (char& c : body) c = static_cast<char>(random() % 256);
    EXPECT_EQ(crc32(body), zlibCrc(body));
    // Every length up to a few cache lines, where the fast paths hand over to the byte loop.
    for (size_t length = 0; length < 300; ++length)
        ASSERT_EQ(crc32(std::string_view(body).substr(7, length)),
                  zlibCrc(std::string_view(body).substr(7, length)))
            << length;
}

TEST(DigestTest, Crc32RunsOverPieces) {
    const std::string whole =
        "static.example.com/a.js"
        "static.example.com/b.css";
    const unsigned first = crc32(0, "static.example.com/a.js");
    EXPECT_EQ(crc32(first, "static.example.com/b.css"), crc32(whole));
    EXPECT_EQ(crc32(0, whole), crc32(whole));
    EXPECT_EQ(crc32(first, ""), first);
}

}  // namespace
}  // namespace FerritTest
