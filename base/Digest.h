// Digests and encodings shared by every verifier: MD5 as lower-case hexadecimal, base64 decoding
// and CRC-32. Pure functions over OpenSSL and libdeflate; any thread.
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace FerritCore::Digest {

// The MD5 of `data` as 32 lower-case hexadecimal characters.
std::string md5Hex(std::string_view data);

// The MD5 of bytes that come in pieces, so that a large file is never whole in memory. Not
// thread-safe; one object per stream.
class Md5 {
  public:
    Md5();
    ~Md5();
    Md5(const Md5&) = delete;
    Md5& operator=(const Md5&) = delete;
    void update(std::string_view piece);
    // The digest of everything given so far, as md5Hex writes it; starts a new stream.
    std::string finishHex();

  private:
    struct Context;
    std::unique_ptr<Context> context_;
};
// Decodes standard base64 (blanks and line breaks are skipped). False on any other character or
// a broken length; `out` then holds nothing useful.
bool base64Decode(std::string_view text, std::string& out);
// Standard base64 with padding, on one line.
std::string base64Encode(std::string_view bytes);
// CRC-32 of `data`: zlib's polynomial and values, seed 0.
unsigned crc32(std::string_view data);
// The CRC-32 of what `crc` covered followed by `data`, as zlib's crc32(crc, data) gives it, for a
// CRC that runs over pieces; crc32(0, data) is crc32(data).
unsigned crc32(unsigned crc, std::string_view data);

}  // namespace FerritCore::Digest
