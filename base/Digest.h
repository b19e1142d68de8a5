// Digests and encodings shared by every verifier: MD5 as lower-case hexadecimal, base64 decoding
// and CRC-32. Pure functions over OpenSSL and zlib; any thread.
#pragma once

#include <string>
#include <string_view>

namespace FerritCore::Digest {

// The MD5 of `data` as 32 lower-case hexadecimal characters.
std::string md5Hex(std::string_view data);
// Decodes standard base64 (blanks and line breaks are skipped). False on any other character or
// a broken length; `out` then holds nothing useful.
bool base64Decode(std::string_view text, std::string& out);
// CRC-32 (zlib's polynomial) of `data`.
unsigned crc32(std::string_view data);

}  // namespace FerritCore::Digest
