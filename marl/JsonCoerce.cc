// Lenient coercion of text to numbers: coerceInt, coerceUInt and coerceDouble, which the JSON
// readers use for strings and which readers of documents that never become JSON values use
// directly. Also the correctly rounded decimal reader that JSON::parse converts numbers with,
// so that a number reads the same whether it came as JSON or as text.
#include "marl/Json.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <limits>
#include <string_view>

#include "marl/JsonInternal.h"

namespace MarlLogger::json {
namespace {

constexpr int64_t kInt64Max = std::numeric_limits<int64_t>::max();
constexpr int64_t kInt64Min = std::numeric_limits<int64_t>::min();
constexpr uint64_t kUInt64Max = std::numeric_limits<uint64_t>::max();

// The lenient words every coercion knows before it reads digits: 0 for "", "0" and "false",
// 1 for "1" and "true", nothing for any other text.
bool readWord(std::string_view text, int* out) {
    if (text.empty() || text == "0" || text == "false") {
        *out = 0;
        return true;
    }
    if (text == "1" || text == "true") {
        *out = 1;
        return true;
    }
    return false;
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// Reads an optional sign and the digits after it, saturating at `limit`. Returns how many
// characters it read: 0 when there is no digit at all.
size_t readDigits(std::string_view text, bool* negative, uint64_t limit, uint64_t* magnitude) {
    size_t i = 0;
    *negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) *negative = text[i++] == '-';
    if (i >= text.size() || !isDigit(text[i])) return 0;
    uint64_t v = 0;
    for (; i < text.size() && isDigit(text[i]); ++i) {
        const uint64_t digit = static_cast<uint64_t>(text[i] - '0');
        v = v > (limit - digit) / 10 ? limit : v * 10 + digit;
    }
    *magnitude = v;
    return i;
}

}  // namespace

// An overflow reads as an infinity and an underflow as 0, as strtod would have it. Scanning by
// hand keeps out blanks, hex, "inf" and "nan", which from_chars would take, and yields the
// magnitude that from_chars does not report when it gives up on an out-of-range value.
bool internal::readDecimal(std::string_view text, double* out) {
    size_t i = 0;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
    const size_t start = i;
    bool anyDigit = false;
    bool nonZero = false;
    int64_t magnitude = 0;  // decimal exponent of the leading non-zero digit, plus one
    for (; i < text.size() && isDigit(text[i]); ++i) {
        anyDigit = true;
        nonZero = nonZero || text[i] != '0';
        if (nonZero) ++magnitude;
    }
    if (i < text.size() && text[i] == '.') {
        ++i;
        for (; i < text.size() && isDigit(text[i]); ++i) {
            anyDigit = true;
            if (!nonZero && text[i] == '0') --magnitude;
            nonZero = nonZero || text[i] != '0';
        }
    }
    if (!anyDigit) return false;
    if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
        // Capped so that the sum below cannot overflow, far beyond any exponent a double takes.
        constexpr uint64_t kExponentLimit = 1'000'000'000;
        bool negativeExponent;
        uint64_t exponent = 0;
        const size_t length =
            readDigits(text.substr(i + 1), &negativeExponent, kExponentLimit, &exponent);
        if (length != 0) {
            const int64_t e = static_cast<int64_t>(exponent);
            magnitude += negativeExponent ? -e : e;
            i += 1 + length;
        }
    }
    double value = 0;
    const std::from_chars_result result =
        std::from_chars(text.data() + start, text.data() + i, value);
    if (result.ec == std::errc::result_out_of_range) {
        value = magnitude > 0 ? std::numeric_limits<double>::infinity() : 0.0;
    } else if (result.ec != std::errc()) {
        value = 0;
    }
    *out = negative ? -value : value;
    return true;
}

int64_t coerceInt(std::string_view text) {
    int word;
    if (readWord(text, &word)) return word;
    bool negative;
    uint64_t magnitude;
    const uint64_t limit = static_cast<uint64_t>(kInt64Max);
    // Up to 2^63 so that the most negative value reads exactly.
    if (readDigits(text, &negative, limit + 1, &magnitude) == 0) return 0;
    if (negative) return magnitude > limit ? kInt64Min : -static_cast<int64_t>(magnitude);
    return static_cast<int64_t>(std::min(magnitude, limit));
}

uint64_t coerceUInt(std::string_view text) {
    int word;
    if (readWord(text, &word)) return static_cast<uint64_t>(word);
    bool negative;
    uint64_t magnitude;
    if (readDigits(text, &negative, kUInt64Max, &magnitude) == 0) return 0;
    return negative ? 0 : magnitude;
}

double coerceDouble(std::string_view text) {
    int word;
    if (readWord(text, &word)) return word;
    double value;
    return internal::readDecimal(text, &value) ? value : 0;
}

}  // namespace MarlLogger::json
