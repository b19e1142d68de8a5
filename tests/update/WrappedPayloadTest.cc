#include "base/Errors.h"
#include "update/WrappedPayload.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "base/Digest.h"
#include "model/Pack.h"
#include "storage/ZipFile.h"
#include "tests/TestUtil.h"
#include "tools/pack/PackBuilder.h"
#include "tools/pack/ZipWriter.h"

namespace FerritTest {
namespace {

using namespace FerritCore;

constexpr const char* kFailed = "decrypt \"temp/shop_3_0/origin.zip\" using Type-A failed: ";

class WrappedPayloadTest : public ProcessTest {
  protected:
    static UnwrapContext context(uint64_t seq, uint32_t kind = kWrappedPayloadKind) {
        auto pack = std::make_shared<Pack>();
        pack->name = "shop";
        pack->seq = seq;
        UnwrapContext context;
        context.pack = pack;
        context.kind = kind;
        context.file = Folder::disk("temp/shop_3_0/origin.zip");
        return context;
    }
    static std::string zip() {
        FerritTools::ZipWriter writer;
        std::string error, archive;
        EXPECT_TRUE(writer.addFile("res/index.html", "<html>hello</html>", error));
        EXPECT_TRUE(writer.addFile("res/app.js", std::string(3000, 'j'), error));
        EXPECT_TRUE(writer.finish(archive, error)) << error;
        return archive;
    }
    static std::string wrapped(const std::string& zip, uint64_t seq) {
        std::string png, error;
        EXPECT_TRUE(FerritTools::wrapPayload(zip, seq, png, error)) << error;
        return png;
    }
    static std::string bigEndian(uint32_t value) {
        return {static_cast<char>(value >> 24), static_cast<char>(value >> 16),
                static_cast<char>(value >> 8), static_cast<char>(value)};
    }
    // Where the wrapped file's chunk data begins (behind "IEND").
    static size_t chunkData(const std::string& png) { return png.find("IEND") + 4; }
    static std::string xored(std::string bytes, unsigned char key) {
        for (char& c : bytes) c = static_cast<char>(c ^ key);
        return bytes;
    }
};

TEST_F(WrappedPayloadTest, UnwrapGivesTheZipAndItsMd5) {
    const std::string plain = zip();
    std::string data = wrapped(plain, 3);
    UnwrapContext wrap = context(3);
    Error error(1, "stale");
    ASSERT_TRUE(unwrap(wrap, data, error)) << error.message();
    EXPECT_FALSE(error);
    EXPECT_EQ(data, plain);
    EXPECT_EQ(wrap.md5, Digest::md5Hex(plain));
    ZipFile archive = ZipFile::open(wrap.file, data, error);
    EXPECT_EQ(archive.readEntry("res/index.html", error), "<html>hello</html>");
}

// A download of a ".zip" has kind 0 and is not touched; nor is any kind but the wrapped one.
TEST_F(WrappedPayloadTest, KindOtherThanWrappedLeavesTheDataAlone) {
    const std::string png = wrapped(zip(), 3);
    for (uint32_t kind : {0u, 131072u, 196608u}) {
        std::string data = png;
        UnwrapContext plain = context(3, kind);
        Error error;
        EXPECT_TRUE(unwrap(plain, data, error));
        EXPECT_FALSE(error);
        EXPECT_EQ(data, png);
        EXPECT_EQ(plain.md5, "");
    }
}

TEST_F(WrappedPayloadTest, KeyByteIsTheLowEightBitsOfTheSeq) {
    const std::string plain = zip();
    const std::string png = wrapped(plain, 0x1234);
    const size_t at = chunkData(png) + 16;
    EXPECT_EQ(png.substr(at, plain.size()), xored(plain, 0x34));
    std::string data = png;
    UnwrapContext wrap = context(0x1234);
    Error error;
    ASSERT_TRUE(unwrap(wrap, data, error)) << error.message();
    EXPECT_EQ(data, plain);
}

TEST_F(WrappedPayloadTest, Seq256And512GiveKeyByteZeroAndTheZipInTheClear) {
    const std::string plain = zip();
    for (uint64_t seq : {256u, 512u}) {
        std::string data = wrapped(plain, seq);
        EXPECT_EQ(data.substr(chunkData(data) + 16, plain.size()), plain) << seq;
        UnwrapContext wrap = context(seq);
        Error error;
        ASSERT_TRUE(unwrap(wrap, data, error)) << error.message();
        EXPECT_EQ(data, plain);
        EXPECT_EQ(wrap.md5, Digest::md5Hex(plain));
    }
}

// The first "IEND" of the file is taken for the chunk, even inside the image's own data.
TEST_F(WrappedPayloadTest, IendInTheImageDataAheadOfTheRealChunkCounts) {
    const std::string png = wrapped(zip(), 3);
    const size_t real = png.find("IEND") - 4;
    std::string text = "Comment";
    text.push_back('\0');
    text += "IEND of the story";
    std::string chunk = bigEndian(static_cast<uint32_t>(text.size())) + "tEXt" + text;
    chunk += bigEndian(Digest::crc32("tEXt" + text));
    std::string data = png.substr(0, real) + chunk + png.substr(real);
    UnwrapContext wrap = context(3);
    Error error;
    EXPECT_FALSE(unwrap(wrap, data, error));
    EXPECT_EQ(error.code(), Errors::kDecryptFailed);
    // The four bytes ahead of that "IEND" are "ent\0": a length far beyond the file.
    EXPECT_EQ(error.message(), std::string(kFailed) + "Too little data after IEND");
}

// L of exactly 16 carries an empty zip: the unwrapping succeeds, the zip stage fails.
TEST_F(WrappedPayloadTest, IendDataLengthSixteenGivesAnEmptyZipThatFailsAtTheZipStage) {
    std::string data = wrapped("", 9);
    ASSERT_EQ(data.substr(data.find("IEND") - 4, 4), bigEndian(16));
    UnwrapContext wrap = context(9);
    Error error;
    ASSERT_TRUE(unwrap(wrap, data, error)) << error.message();
    EXPECT_EQ(data, "");
    EXPECT_EQ(wrap.md5, "d41d8cd98f00b204e9800998ecf8427e");
    ZipFile archive = ZipFile::open(wrap.file, data, error);
    EXPECT_FALSE(archive);
    EXPECT_EQ(error.code(), Errors::kUnzipFailed);
}

TEST_F(WrappedPayloadTest, OrdinaryPngGivesInvalidIendDataLengthZero) {
    std::string data = FerritTools::plainPng();
    UnwrapContext wrap = context(3);
    Error error;
    EXPECT_FALSE(unwrap(wrap, data, error));
    EXPECT_EQ(error.code(), Errors::kDecryptFailed);
    EXPECT_EQ(error.message(), std::string(kFailed) + "Invalid IEND data length 0");
}

TEST_F(WrappedPayloadTest, FileWithoutIendGivesIendNotFound) {
    std::string data = "\x89PNG\r\n\x1a\n and no end chunk";
    UnwrapContext wrap = context(3);
    Error error;
    EXPECT_FALSE(unwrap(wrap, data, error));
    EXPECT_EQ(error.message(), std::string(kFailed) + "IEND not found");
}

TEST_F(WrappedPayloadTest, IendBelowPositionFourGivesTooLittleDataBefore) {
    std::string data = "abcIEND" + std::string(64, '\0');
    UnwrapContext wrap = context(3);
    Error error;
    EXPECT_FALSE(unwrap(wrap, data, error));
    EXPECT_EQ(error.message(), std::string(kFailed) + "Too little data before IEND");
    data = "abcdIEND" + std::string(64, '\0');
    EXPECT_FALSE(unwrap(wrap, data, error));
    EXPECT_NE(error.message(), std::string(kFailed) + "Too little data before IEND");
}

TEST_F(WrappedPayloadTest, DataLengthBelowSixteenIsInvalid) {
    std::string data = bigEndian(15) + "IEND" + std::string(64, 'x');
    UnwrapContext wrap = context(3);
    Error error;
    EXPECT_FALSE(unwrap(wrap, data, error));
    EXPECT_EQ(error.message(), std::string(kFailed) + "Invalid IEND data length 15");
}

TEST_F(WrappedPayloadTest, FileEndingInsideTheChunkGivesTooLittleDataAfter) {
    const std::string png = wrapped(zip(), 3);
    // Only the last byte of the CRC is missing.
    std::string data = png.substr(0, png.size() - 1);
    UnwrapContext wrap = context(3);
    Error error;
    EXPECT_FALSE(unwrap(wrap, data, error));
    EXPECT_EQ(error.message(), std::string(kFailed) + "Too little data after IEND");
    // The largest length there is cannot wrap the arithmetic around.
    data = bigEndian(0xFFFFFFFFu) + "IEND" + std::string(64, 'x');
    EXPECT_FALSE(unwrap(wrap, data, error));
    EXPECT_EQ(error.message(), std::string(kFailed) + "Too little data after IEND");
}

TEST_F(WrappedPayloadTest, WrongCrcGivesCrcNotEqualComputedFirst) {
    std::string data = wrapped(zip(), 3);
    const size_t crcAt = data.size() - 4;
    const unsigned computed = Digest::crc32(
        std::string_view(data).substr(data.find("IEND"), data.size() - 4 - data.find("IEND")));
    data[crcAt] = static_cast<char>(data[crcAt] ^ 0x01);
    const uint32_t stored = (static_cast<uint32_t>(static_cast<unsigned char>(data[crcAt])) << 24) |
                            (static_cast<unsigned char>(data[crcAt + 1]) << 16) |
                            (static_cast<unsigned char>(data[crcAt + 2]) << 8) |
                            static_cast<unsigned char>(data[crcAt + 3]);
    UnwrapContext wrap = context(3);
    Error error;
    EXPECT_FALSE(unwrap(wrap, data, error));
    EXPECT_EQ(error.message(), std::string(kFailed) + "CRC " + std::to_string(computed) +
                                   " not equal to " + std::to_string(stored));
}

// Unwrapped with another seq than it was wrapped with, the chunk is intact but the zip is not.
TEST_F(WrappedPayloadTest, WrongKeyGivesMd5NotEqualComputedFirst) {
    const std::string plain = zip();
    std::string data = wrapped(plain, 3);
    UnwrapContext wrap = context(4);
    Error error;
    EXPECT_FALSE(unwrap(wrap, data, error));
    const std::string computed = Digest::md5Hex(xored(plain, 3 ^ 4));
    EXPECT_EQ(error.message(),
              std::string(kFailed) + "MD5 " + computed + " not equal to " + Digest::md5Hex(plain));
    EXPECT_EQ(wrap.md5, computed);
}

TEST_F(WrappedPayloadTest, BytesBehindTheCrcAreIgnored) {
    const std::string plain = zip();
    std::string data = wrapped(plain, 3) + "trailing bytes, even IEND again";
    UnwrapContext wrap = context(3);
    Error error;
    ASSERT_TRUE(unwrap(wrap, data, error)) << error.message();
    EXPECT_EQ(data, plain);
}

TEST_F(WrappedPayloadTest, ContextWithoutAPackFails) {
    std::string data = wrapped(zip(), 3);
    UnwrapContext wrap = context(3);
    wrap.pack = nullptr;
    Error error;
    EXPECT_FALSE(unwrap(wrap, data, error));
    EXPECT_EQ(error.code(), Errors::kDecryptFailed);
}

// Every length of zip goes through the word-wide combining and its byte tail.
TEST_F(WrappedPayloadTest, EveryLengthOfPayloadRoundTrips) {
    std::string payload;
    for (int length = 0; length < 40; ++length) {
        std::string data = wrapped(payload, 0xA7);
        UnwrapContext wrap = context(0xA7);
        Error error;
        ASSERT_TRUE(unwrap(wrap, data, error)) << length << ": " << error.message();
        EXPECT_EQ(data, payload);
        payload.push_back(static_cast<char>(length * 37));
    }
}

}  // namespace
}  // namespace FerritTest
