// Ascii: the byte-level text helpers that URLs, headers, digests, keys and configuration values
// share: ASCII letters lower-cased and compared without case, and bytes written as hexadecimal.
// Protocol text is ASCII, so none of these consults the locale (std::tolower would, and would
// change with it); bytes above 0x7F pass through unchanged. Pure; any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace FerritCore::Ascii {

inline constexpr char kLowerHexDigits[] = "0123456789abcdef";
inline constexpr char kUpperHexDigits[] = "0123456789ABCDEF";

constexpr char toLower(char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

constexpr bool isAlphaNumeric(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

inline void lowerInPlace(std::string& text) {
    for (char& c : text) c = toLower(c);
}

constexpr bool equalsIgnoreCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (toLower(a[i]) != toLower(b[i])) return false;
    }
    return true;
}

constexpr bool startsWithIgnoreCase(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() && equalsIgnoreCase(text.substr(0, prefix.size()), prefix);
}

// Each byte as two lower-case hexadecimal digits, the first for its high half.
inline std::string hex(const unsigned char* bytes, size_t count) {
    std::string text(2 * count, '0');
    for (size_t i = 0; i < count; ++i) {
        text[2 * i] = kLowerHexDigits[bytes[i] >> 4];
        text[2 * i + 1] = kLowerHexDigits[bytes[i] & 0xF];
    }
    return text;
}

inline std::string hex(std::string_view bytes) {
    return hex(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

}  // namespace FerritCore::Ascii
