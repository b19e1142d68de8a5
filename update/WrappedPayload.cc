#include "update/WrappedPayload.h"

#include <cstdio>
#include <cstring>
#include <string_view>

#include "base/Digest.h"
#include "base/Errors.h"
#include "support/Ascii.h"

namespace FerritCore {

namespace {

constexpr std::string_view kChunkType = "IEND";
// The chunk's data begins with the zip's MD5.
constexpr size_t kMd5Bytes = 16;

// Every reason is short: two numbers or two MD5 texts at most.
template <typename... Args>
std::string reason(const char* format, Args... args) {
    char text[128];
    std::snprintf(text, sizeof(text), format, args...);
    return text;
}

uint32_t bigEndian32(const std::string& data, size_t at) {
    const auto* p = reinterpret_cast<const unsigned char*>(data.data()) + at;
    return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
           (static_cast<uint32_t>(p[2]) << 8) | static_cast<uint32_t>(p[3]);
}

// Moves `length` bytes from `from` down to the start of `data`, each combined with `key`. The
// source lies at least kMd5Bytes ahead of the destination, so a word is read whole before any
// byte of it is overwritten.
void moveCombined(std::string& data, size_t from, size_t length, unsigned char key) {
    char* out = data.data();
    const char* in = data.data() + from;
    const uint64_t wide = 0x0101010101010101ull * key;
    size_t i = 0;
    for (; i + sizeof(uint64_t) <= length; i += sizeof(uint64_t)) {
        uint64_t word;
        std::memcpy(&word, in + i, sizeof(word));
        word ^= wide;
        std::memcpy(out + i, &word, sizeof(word));
    }
    for (; i < length; ++i) out[i] = static_cast<char>(in[i] ^ key);
}

}  // namespace

bool unwrap(UnwrapContext& context, std::string& data, Error& error) {
    if (context.kind != kWrappedPayloadKind) return true;
    auto fail = [&](const std::string& why) {
        error = Errors::decryptFailed(context.file.describe(), why);
        return false;
    };
    if (!context.pack) return fail("No pack record");

    const size_t n = data.find(kChunkType);
    if (n == std::string::npos) return fail("IEND not found");
    if (n < 4) return fail("Too little data before IEND");
    const uint64_t length = bigEndian32(data, n - 4);
    if (length < kMd5Bytes) {
        return fail(reason("Invalid IEND data length %lu", static_cast<unsigned long>(length)));
    }
    // In 64 bits: n is below the size and the length below 2^32, so nothing wraps.
    if (static_cast<uint64_t>(n) + length + 8 > data.size()) {
        return fail("Too little data after IEND");
    }
    const unsigned computedCrc =
        Digest::crc32(std::string_view(data).substr(n, static_cast<size_t>(length) + 4));
    const uint32_t storedCrc = bigEndian32(data, n + 4 + static_cast<size_t>(length));
    if (computedCrc != storedCrc) {
        return fail(reason("CRC %llu not equal to %llu",
                           static_cast<unsigned long long>(computedCrc),
                           static_cast<unsigned long long>(storedCrc)));
    }
    const std::string expected = Ascii::hex(std::string_view(data).substr(n + 4, kMd5Bytes));

    const size_t zipLength = static_cast<size_t>(length) - kMd5Bytes;
    moveCombined(data, n + 4 + kMd5Bytes, zipLength,
                 static_cast<unsigned char>(context.pack->seq & 0xFF));
    data.resize(zipLength);

    context.md5 = Digest::md5Hex(data);
    if (context.md5 != expected) {
        return fail(reason("MD5 %s not equal to %s", context.md5.c_str(), expected.c_str()));
    }
    error.clear();
    return true;
}

}  // namespace FerritCore
