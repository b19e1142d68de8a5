#include "base/Digest.h"

#include <openssl/evp.h>
#include <zlib.h>

namespace FerritCore::Digest {

std::string md5Hex(std::string_view data) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    std::string hex;
    if (EVP_Digest(data.data(), data.size(), digest, &length, EVP_md5(), nullptr) != 1) return hex;
    static constexpr char kHex[] = "0123456789abcdef";
    hex.resize(static_cast<size_t>(length) * 2);
    for (unsigned int i = 0; i < length; ++i) {
        hex[2 * i] = kHex[digest[i] >> 4];
        hex[2 * i + 1] = kHex[digest[i] & 0xF];
    }
    return hex;
}

bool base64Decode(std::string_view text, std::string& out) {
    // Strip blanks first: the block decoder wants whole groups of four characters.
    std::string clean;
    clean.reserve(text.size());
    for (char c : text)
        if (c != ' ' && c != '\n' && c != '\r' && c != '\t') clean.push_back(c);
    out.clear();
    if (clean.empty()) return true;
    if (clean.size() % 4 != 0) return false;
    out.resize(clean.size() / 4 * 3);
    const int n = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                  reinterpret_cast<const unsigned char*>(clean.data()),
                                  static_cast<int>(clean.size()));
    if (n < 0) {
        out.clear();
        return false;
    }
    // The block decoder counts padding as zero bytes; drop them.
    size_t padding = 0;
    if (clean.back() == '=') ++padding;
    if (clean.size() > 1 && clean[clean.size() - 2] == '=') ++padding;
    out.resize(static_cast<size_t>(n) - padding);
    return true;
}

unsigned crc32(std::string_view data) {
    uLong crc = ::crc32(0L, Z_NULL, 0);
    // zlib takes 32-bit lengths; feed larger inputs in pieces.
    while (!data.empty()) {
        const size_t piece = data.size() > 0x40000000 ? 0x40000000 : data.size();
        crc = ::crc32(crc, reinterpret_cast<const Bytef*>(data.data()), static_cast<uInt>(piece));
        data.remove_prefix(piece);
    }
    return static_cast<unsigned>(crc);
}

}  // namespace FerritCore::Digest
