#include "marl/Json.h"

// RapidJSON 1.1.0 computes `nullptr + n` on the first push onto each of its empty internal
// stacks, which clang's pointer-overflow check reports on every parse and every write although
// no platform we build for misbehaves. The check is turned off for RapidJSON's own functions
// only, and RapidJSON is compiled into a namespace of this file so that the linker never mixes
// these copies with ones another file built with the check.
#define RAPIDJSON_NAMESPACE ferritJsonRapid
#define RAPIDJSON_NAMESPACE_BEGIN namespace ferritJsonRapid {
#define RAPIDJSON_NAMESPACE_END }
#if defined(__clang__)
#pragma clang attribute push(__attribute__((no_sanitize("pointer-overflow"))), apply_to = function)
#endif
#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#if defined(__clang__)
#pragma clang attribute pop
#endif

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <numeric>

namespace MarlLogger::json {
namespace {

namespace rj = ::ferritJsonRapid;

using Members = std::vector<std::pair<std::string, JSON>>;

constexpr int64_t kInt64Max = std::numeric_limits<int64_t>::max();
constexpr int64_t kInt64Min = std::numeric_limits<int64_t>::min();
constexpr uint64_t kUInt64Max = std::numeric_limits<uint64_t>::max();
// 2^63 and 2^64 are exact in a double; comparing against them keeps the casts below defined.
constexpr double kTwoTo63 = 9223372036854775808.0;
constexpr double kTwoTo64 = 18446744073709551616.0;

// Values that readers return by reference for the wrong type. Never destroyed, so that a log
// written during static destruction still finds them.
const JSON& nullValue() {
    static const JSON* value = new JSON();
    return *value;
}
const JSONArray& emptyArray() {
    static const JSONArray* value = new JSONArray();
    return *value;
}
const JSONObject& emptyObject() {
    static const JSONObject* value = new JSONObject();
    return *value;
}

int64_t doubleToInt64(double d) {
    if (std::isnan(d)) return 0;
    if (d >= kTwoTo63) return kInt64Max;
    if (d < -kTwoTo63) return kInt64Min;
    return static_cast<int64_t>(d);
}

uint64_t doubleToUInt64(double d) {
    if (std::isnan(d) || d <= 0) return 0;
    if (d >= kTwoTo64) return kUInt64Max;
    return static_cast<uint64_t>(d);
}

int32_t clampInt32(int64_t v) {
    return static_cast<int32_t>(std::clamp<int64_t>(v, std::numeric_limits<int32_t>::min(),
                                                    std::numeric_limits<int32_t>::max()));
}

uint32_t clampUInt32(uint64_t v) {
    return static_cast<uint32_t>(std::min<uint64_t>(v, std::numeric_limits<uint32_t>::max()));
}

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

// Reads the decimal number at the start of `text` ([+-]digits[.digits][(e|E)[+-]digits]) and
// rounds it correctly; false when there is no digit. An overflow reads as an infinity and an
// underflow as 0, as strtod would have it. Scanning by hand keeps out blanks, hex, "inf" and
// "nan", which from_chars would take, and yields the magnitude that from_chars does not
// report when it gives up on an out-of-range value.
bool readDecimal(std::string_view text, double* out) {
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
        size_t j = i + 1;
        bool negativeExponent = false;
        if (j < text.size() && (text[j] == '+' || text[j] == '-')) {
            negativeExponent = text[j++] == '-';
        }
        if (j < text.size() && isDigit(text[j])) {
            int64_t exponent = 0;
            for (; j < text.size() && isDigit(text[j]); ++j)
                exponent = std::min<int64_t>(exponent * 10 + (text[j] - '0'), 1'000'000'000);
            magnitude += negativeExponent ? -exponent : exponent;
            i = j;
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

// Numbers compare by value whatever their stored kind, so that 1 read back from text as an
// integer equals the 1.0 or unsigned 1 it was written from.
bool numbersEqual(const JSON& a, const JSON& b) {
    if (a.type() == Type::Double || b.type() == Type::Double) {
        if (a.type() == Type::Double && b.type() == Type::Double) {
            const double x = a.doubleValue();
            const double y = b.doubleValue();
            // NaN equals NaN here: a value compares equal to its own decoded copy.
            return x == y || (std::isnan(x) && std::isnan(y));
        }
        const JSON& d = a.type() == Type::Double ? a : b;
        const JSON& i = a.type() == Type::Double ? b : a;
        const double value = d.doubleValue();
        if (!std::isfinite(value) || std::trunc(value) != value) return false;
        if (i.type() == Type::Int) {
            return value >= -kTwoTo63 && value < kTwoTo63 &&
                   static_cast<int64_t>(value) == i.int64Value();
        }
        return value >= 0 && value < kTwoTo64 && static_cast<uint64_t>(value) == i.uint64Value();
    }
    // Int holds every value that fits in int64, UInt only larger ones.
    return a.type() == b.type() && a.uint64Value() == b.uint64Value() &&
           a.int64Value() == b.int64Value();
}

// Leaves one member per key: the first position with the last value, as set() would.
void dropDuplicateKeys(Members& members) {
    const size_t n = members.size();
    if (n < 2) return;
    if (n <= 8) {
        bool duplicate = false;
        for (size_t i = 1; i < n && !duplicate; ++i)
            for (size_t j = 0; j < i && !duplicate; ++j)
                duplicate = members[i].first == members[j].first;
        if (!duplicate) return;
    }
    std::vector<uint32_t> order(n);
    std::iota(order.begin(), order.end(), 0u);
    std::stable_sort(order.begin(), order.end(),
                     [&](uint32_t a, uint32_t b) { return members[a].first < members[b].first; });
    std::vector<bool> drop(n, false);
    bool any = false;
    for (size_t start = 0; start < n;) {
        size_t end = start + 1;
        while (end < n && members[order[end]].first == members[order[start]].first) ++end;
        if (end - start > 1) {
            // Stable sort keeps equal keys in input order: the first is the position to keep,
            // the last holds the value to keep.
            members[order[start]].second = std::move(members[order[end - 1]].second);
            for (size_t k = start + 1; k < end; ++k) drop[order[k]] = true;
            any = true;
        }
        start = end;
    }
    if (!any) return;
    size_t out = 0;
    for (size_t i = 0; i < n; ++i) {
        if (drop[i]) continue;
        if (out != i) members[out] = std::move(members[i]);
        ++out;
    }
    members.resize(out);
}

// ---- Text -------------------------------------------------------------------------------

using TextWriter = rj::Writer<rj::StringBuffer>;

rj::SizeType sizeOf(std::string_view text) {
    return static_cast<rj::SizeType>(text.size());
}

void writeDouble(TextWriter& writer, double d) {
    // The writer refuses NaN and infinities only after it has written the separator, which
    // would leave broken text; null is the one valid spelling JSON has for them.
    if (std::isfinite(d)) {
        writer.Double(d);
    } else {
        writer.Null();
    }
}

void writeValue(TextWriter& writer, const JSON& value) {
    switch (value.type()) {
        case Type::Null:
            writer.Null();
            break;
        case Type::Bool:
            writer.Bool(value.boolValue());
            break;
        case Type::Int:
            writer.Int64(value.int64Value());
            break;
        case Type::UInt:
            writer.Uint64(value.uint64Value());
            break;
        case Type::Double:
            writeDouble(writer, value.doubleValue());
            break;
        case Type::String: {
            const std::string_view s = value.stringViewValue();
            writer.String(s.data(), sizeOf(s));
            break;
        }
        case Type::Array:
            writer.StartArray();
            for (const JSON& element : value.arrayValue()) writeValue(writer, element);
            writer.EndArray();
            break;
        case Type::Object:
            writer.StartObject();
            for (const auto& [key, member] : value.objectValue()) {
                writer.Key(key.data(), sizeOf(key));
                writeValue(writer, member);
            }
            writer.EndObject();
            break;
    }
}

// Builds values from the parser's events on an explicit stack, so that neither the parser nor
// the conversion recurses, and refuses to open a container beyond JSON::kMaxDepth.
class TextBuilder : public rj::BaseReaderHandler<rj::UTF8<>, TextBuilder> {
  public:
    enum class Failure { None, TooDeep, TooBig };

    bool Null() { return add(JSON()); }
    bool Bool(bool b) { return add(JSON(b)); }
    // The parser has checked the grammar of the number; it arrives here as text.
    bool RawNumber(const char* s, rj::SizeType length, bool) {
        const std::string_view text(s, length);
        const char* end = s + length;
        if (text.find_first_of(".eE") == std::string_view::npos) {
            if (text[0] == '-') {
                int64_t i;
                if (std::from_chars(s, end, i).ec == std::errc()) return add(JSON(i));
            } else {
                uint64_t u;
                if (std::from_chars(s, end, u).ec == std::errc()) return add(JSON(u));
            }
        }
        // Beyond the integer types, or a fraction or an exponent.
        double d = 0;
        readDecimal(text, &d);
        if (std::isinf(d)) {
            failure_ = Failure::TooBig;
            return false;
        }
        return add(JSON(d));
    }
    bool String(const char* s, rj::SizeType length, bool) {
        return add(JSON(std::string(s, length)));
    }
    bool Key(const char* s, rj::SizeType length, bool) {
        frames_.back().key.assign(s, length);
        return true;
    }
    bool StartObject() { return open(true); }
    bool EndObject(rj::SizeType) { return close(); }
    bool StartArray() { return open(false); }
    bool EndArray(rj::SizeType) { return close(); }

    Failure failure() const { return failure_; }
    JSON takeRoot() { return std::move(root_); }

  private:
    struct Frame {
        bool isObject;
        JSONArray elements;
        Members members;
        std::string key;
    };

    bool open(bool isObject) {
        if (frames_.size() >= static_cast<size_t>(JSON::kMaxDepth)) {
            failure_ = Failure::TooDeep;
            return false;
        }
        frames_.push_back(Frame{isObject, {}, {}, {}});
        return true;
    }

    bool close() {
        Frame& frame = frames_.back();
        JSON value = frame.isObject ? JSON(JSONObject(std::move(frame.members)))
                                    : JSON(std::move(frame.elements));
        frames_.pop_back();
        return add(std::move(value));
    }

    bool add(JSON value) {
        if (frames_.empty()) {
            root_ = std::move(value);
        } else if (Frame& frame = frames_.back(); frame.isObject) {
            frame.members.emplace_back(std::move(frame.key), std::move(value));
        } else {
            frame.elements.push_back(std::move(value));
        }
        return true;
    }

    std::vector<Frame> frames_;
    JSON root_;
    Failure failure_ = Failure::None;
};

// ---- Binary -----------------------------------------------------------------------------

// Lengths and counts this large cannot be written; toBinary() then gives up.
constexpr uint64_t kMaxBinaryLength = 0xFFFFFFFFull;

void putBig(std::string& out, uint64_t v, int bytes) {
    for (int shift = (bytes - 1) * 8; shift >= 0; shift -= 8)
        out.push_back(static_cast<char>((v >> shift) & 0xFF));
}

void putHead(std::string& out, uint8_t tag, uint64_t v, int bytes) {
    out.push_back(static_cast<char>(tag));
    putBig(out, v, bytes);
}

void putUnsigned(std::string& out, uint64_t v) {
    if (v < 0x80) {
        out.push_back(static_cast<char>(v));
    } else if (v <= 0xFF) {
        putHead(out, 0xcc, v, 1);
    } else if (v <= 0xFFFF) {
        putHead(out, 0xcd, v, 2);
    } else if (v <= 0xFFFFFFFF) {
        putHead(out, 0xce, v, 4);
    } else {
        putHead(out, 0xcf, v, 8);
    }
}

void putSigned(std::string& out, int64_t v) {
    if (v >= 0) {
        putUnsigned(out, static_cast<uint64_t>(v));
    } else if (v >= -32) {
        out.push_back(static_cast<char>(static_cast<uint8_t>(v)));
    } else if (v >= -128) {
        putHead(out, 0xd0, static_cast<uint8_t>(v), 1);
    } else if (v >= -32768) {
        putHead(out, 0xd1, static_cast<uint16_t>(v), 2);
    } else if (v >= std::numeric_limits<int32_t>::min()) {
        putHead(out, 0xd2, static_cast<uint32_t>(v), 4);
    } else {
        putHead(out, 0xd3, static_cast<uint64_t>(v), 8);
    }
}

// The three sizes of a string, array or map header: fix form, 16-bit and 32-bit.
bool putLength(std::string& out, uint64_t n, uint8_t fix, uint64_t fixLimit, uint8_t tag16,
               uint8_t tag32, uint8_t tag8 = 0) {
    if (n > kMaxBinaryLength) return false;
    if (n < fixLimit) {
        out.push_back(static_cast<char>(fix | n));
    } else if (tag8 != 0 && n <= 0xFF) {
        putHead(out, tag8, n, 1);
    } else if (n <= 0xFFFF) {
        putHead(out, tag16, n, 2);
    } else {
        putHead(out, tag32, n, 4);
    }
    return true;
}

bool putString(std::string& out, std::string_view s) {
    if (!putLength(out, s.size(), 0xa0, 32, 0xda, 0xdb, 0xd9)) return false;
    out.append(s);
    return true;
}

bool putValue(std::string& out, const JSON& value) {
    switch (value.type()) {
        case Type::Null:
            out.push_back(static_cast<char>(0xc0));
            return true;
        case Type::Bool:
            out.push_back(static_cast<char>(value.boolValue() ? 0xc3 : 0xc2));
            return true;
        case Type::Int:
            putSigned(out, value.int64Value());
            return true;
        case Type::UInt:
            putUnsigned(out, value.uint64Value());
            return true;
        case Type::Double: {
            uint64_t bits;
            const double d = value.doubleValue();
            std::memcpy(&bits, &d, sizeof bits);
            putHead(out, 0xcb, bits, 8);
            return true;
        }
        case Type::String:
            return putString(out, value.stringViewValue());
        case Type::Array: {
            const JSONArray& elements = value.arrayValue();
            if (!putLength(out, elements.size(), 0x90, 16, 0xdc, 0xdd)) return false;
            for (const JSON& element : elements)
                if (!putValue(out, element)) return false;
            return true;
        }
        case Type::Object: {
            const JSONObject& object = value.objectValue();
            if (!putLength(out, object.size(), 0x80, 16, 0xde, 0xdf)) return false;
            for (const auto& [key, member] : object)
                if (!putString(out, key) || !putValue(out, member)) return false;
            return true;
        }
    }
    return false;
}

// Decodes the binary form on an explicit stack. Every declared length is checked against the
// bytes left before anything is allocated, and reservations are capped, so that memory follows
// the input actually present rather than what a header claims.
class BinaryReader {
  public:
    explicit BinaryReader(std::string_view bytes) : bytes_(bytes) {}

    JSON read(std::string* error) {
        JSON result = readAll();
        if (!error_.empty()) {
            if (error) *error = std::move(error_);
            return JSON();
        }
        return result;
    }

  private:
    // Containers larger than this grow as their elements actually arrive.
    static constexpr size_t kMaxReserve = 1024;

    struct Frame {
        bool isObject;
        uint64_t remaining;  // elements, or members, still to read
        JSONArray elements;
        Members members;
        std::string key;
        bool haveKey = false;
    };

    size_t left() const { return bytes_.size() - pos_; }

    bool fail(std::string message, size_t at) {
        if (error_.empty()) error_ = std::move(message) + " at offset " + std::to_string(at);
        return false;
    }

    bool take(int n, uint64_t* out) {
        if (left() < static_cast<size_t>(n)) return fail("truncated", pos_);
        uint64_t v = 0;
        for (int i = 0; i < n; ++i) v = v << 8 | static_cast<uint8_t>(bytes_[pos_++]);
        *out = v;
        return true;
    }

    // A length for `count` items of at least `minBytes` bytes each.
    bool checkLength(uint64_t count, uint64_t minBytes, size_t headerAt) {
        if (count > left() / minBytes) {
            return fail("truncated: length " + std::to_string(count) + " exceeds the " +
                            std::to_string(left()) + " bytes left",
                        headerAt);
        }
        return true;
    }

    bool readString(uint64_t length, size_t at, JSON* out) {
        if (!checkLength(length, 1, at)) return false;
        *out = JSON(bytes_.substr(pos_, static_cast<size_t>(length)));
        pos_ += static_cast<size_t>(length);
        return true;
    }

    bool openContainer(bool isObject, uint64_t count, size_t at, JSON* out, bool* opened) {
        if (!checkLength(count, isObject ? 2 : 1, at)) return false;
        if (count == 0) {
            *out = isObject ? JSON(JSONObject()) : JSON(JSONArray());
            return true;
        }
        if (frames_.size() >= static_cast<size_t>(JSON::kMaxDepth)) {
            return fail("nesting deeper than " + std::to_string(JSON::kMaxDepth) + " levels", at);
        }
        frames_.push_back(Frame{isObject, count, {}, {}, {}});
        const size_t reserve = static_cast<size_t>(std::min<uint64_t>(count, kMaxReserve));
        if (isObject) {
            frames_.back().members.reserve(reserve);
        } else {
            frames_.back().elements.reserve(reserve);
        }
        *opened = true;
        return true;
    }

    // Reads one item: a scalar into `out`, or the header of a non-empty container, which is
    // pushed as a frame (`opened`).
    bool readItem(JSON* out, bool* opened) {
        const size_t at = pos_;
        uint64_t tag;
        if (!take(1, &tag)) return false;
        uint64_t v;
        if (tag <= 0x7f) {
            *out = JSON(static_cast<int64_t>(tag));
            return true;
        }
        if (tag >= 0xe0) {
            *out = JSON(static_cast<int64_t>(static_cast<int8_t>(tag)));
            return true;
        }
        if (tag >= 0xa0 && tag <= 0xbf) return readString(tag & 0x1f, at, out);
        if (tag >= 0x90 && tag <= 0x9f) return openContainer(false, tag & 0x0f, at, out, opened);
        if (tag >= 0x80 && tag <= 0x8f) return openContainer(true, tag & 0x0f, at, out, opened);
        switch (tag) {
            case 0xc0:
                *out = JSON();
                return true;
            case 0xc2:
                *out = JSON(false);
                return true;
            case 0xc3:
                *out = JSON(true);
                return true;
            case 0xc4:
            case 0xd9:
                return take(1, &v) && readString(v, at, out);
            case 0xc5:
            case 0xda:
                return take(2, &v) && readString(v, at, out);
            case 0xc6:
            case 0xdb:
                return take(4, &v) && readString(v, at, out);
            case 0xca: {
                if (!take(4, &v)) return false;
                const uint32_t bits = static_cast<uint32_t>(v);
                float f;
                std::memcpy(&f, &bits, sizeof f);
                *out = JSON(static_cast<double>(f));
                return true;
            }
            case 0xcb: {
                if (!take(8, &v)) return false;
                double d;
                std::memcpy(&d, &v, sizeof d);
                *out = JSON(d);
                return true;
            }
            case 0xcc:
                return take(1, &v) && (*out = JSON(v), true);
            case 0xcd:
                return take(2, &v) && (*out = JSON(v), true);
            case 0xce:
                return take(4, &v) && (*out = JSON(v), true);
            case 0xcf:
                return take(8, &v) && (*out = JSON(v), true);
            case 0xd0:
                return take(1, &v) && (*out = JSON(int64_t{static_cast<int8_t>(v)}), true);
            case 0xd1:
                return take(2, &v) && (*out = JSON(int64_t{static_cast<int16_t>(v)}), true);
            case 0xd2:
                return take(4, &v) && (*out = JSON(int64_t{static_cast<int32_t>(v)}), true);
            case 0xd3:
                return take(8, &v) && (*out = JSON(static_cast<int64_t>(v)), true);
            case 0xdc:
                return take(2, &v) && openContainer(false, v, at, out, opened);
            case 0xdd:
                return take(4, &v) && openContainer(false, v, at, out, opened);
            case 0xde:
                return take(2, &v) && openContainer(true, v, at, out, opened);
            case 0xdf:
                return take(4, &v) && openContainer(true, v, at, out, opened);
            default:
                break;
        }
        static constexpr char kHex[] = "0123456789abcdef";
        const char name[] = {'0', 'x', kHex[tag >> 4], kHex[tag & 0xf], '\0'};
        return fail(std::string("unsupported type ") + name, at);
    }

    JSON readAll() {
        if (bytes_.empty()) {
            fail("empty input", 0);
            return JSON();
        }
        JSON root;
        for (;;) {
            const size_t at = pos_;
            JSON value;
            bool opened = false;
            if (!readItem(&value, &opened)) return JSON();
            if (opened) continue;
            // Place the finished value, closing every container it completes.
            for (;;) {
                if (frames_.empty()) {
                    root = std::move(value);
                    break;
                }
                Frame& frame = frames_.back();
                if (frame.isObject && !frame.haveKey) {
                    if (!value.isString()) {
                        fail("map key is not a string", at);
                        return JSON();
                    }
                    frame.key.assign(value.stringViewValue());
                    frame.haveKey = true;
                    break;
                }
                if (frame.isObject) {
                    frame.members.emplace_back(std::move(frame.key), std::move(value));
                    frame.haveKey = false;
                } else {
                    frame.elements.push_back(std::move(value));
                }
                if (--frame.remaining != 0) break;
                value = frame.isObject ? JSON(JSONObject(std::move(frame.members)))
                                       : JSON(std::move(frame.elements));
                frames_.pop_back();
            }
            if (frames_.empty()) break;
        }
        if (pos_ != bytes_.size()) {
            fail(std::to_string(bytes_.size() - pos_) + " trailing bytes", pos_);
            return JSON();
        }
        return root;
    }

    std::string_view bytes_;
    size_t pos_ = 0;
    std::vector<Frame> frames_;
    std::string error_;
};

}  // namespace

// ---- JSONObject -------------------------------------------------------------------------

JSONObject::JSONObject(const std::map<std::string, JSON>& map) : members_(map.begin(), map.end()) {}

JSONObject::JSONObject(std::initializer_list<std::pair<std::string, JSON>> pairs)
    : members_(pairs) {
    dropDuplicateKeys(members_);
}

JSONObject::JSONObject(std::vector<std::pair<std::string, JSON>> pairs)
    : members_(std::move(pairs)) {
    dropDuplicateKeys(members_);
}

const JSON* JSONObject::find(std::string_view key) const {
    for (const auto& member : members_)
        if (member.first == key) return &member.second;
    return nullptr;
}

JSON* JSONObject::find(std::string_view key) {
    for (auto& member : members_)
        if (member.first == key) return &member.second;
    return nullptr;
}

void JSONObject::set(std::string key, JSON value) {
    if (JSON* existing = find(key)) {
        *existing = std::move(value);
    } else {
        members_.emplace_back(std::move(key), std::move(value));
    }
}

bool JSONObject::erase(std::string_view key) {
    for (auto it = members_.begin(); it != members_.end(); ++it) {
        if (it->first == key) {
            members_.erase(it);
            return true;
        }
    }
    return false;
}

bool JSONObject::operator==(const JSONObject& other) const {
    const size_t n = members_.size();
    if (n != other.members_.size()) return false;
    // Objects written and read back keep their order, so the walk in step almost always decides.
    size_t i = 0;
    while (i < n && members_[i].first == other.members_[i].first) {
        if (!(members_[i].second == other.members_[i].second)) return false;
        ++i;
    }
    if (i == n) return true;
    // Keys are unique, so the remaining members match when both sides sorted by key agree.
    using Member = const std::pair<std::string, JSON>*;
    auto sorted = [i, n](const Members& members) {
        std::vector<Member> out;
        out.reserve(n - i);
        for (size_t k = i; k < n; ++k) out.push_back(&members[k]);
        std::sort(out.begin(), out.end(), [](Member a, Member b) { return a->first < b->first; });
        return out;
    };
    const std::vector<Member> mine = sorted(members_);
    const std::vector<Member> theirs = sorted(other.members_);
    for (size_t k = 0; k < mine.size(); ++k) {
        if (mine[k]->first != theirs[k]->first || !(mine[k]->second == theirs[k]->second))
            return false;
    }
    return true;
}

// ---- JSON -------------------------------------------------------------------------------

JSON::JSON(bool value) : type_(Type::Bool), bool_(value) {}
JSON::JSON(int32_t value) : type_(Type::Int), int_(value) {}
JSON::JSON(int64_t value) : type_(Type::Int), int_(value) {}
JSON::JSON(uint32_t value) : type_(Type::Int), int_(value) {}
JSON::JSON(uint64_t value) {
    if (value <= static_cast<uint64_t>(kInt64Max)) {
        type_ = Type::Int;
        int_ = static_cast<int64_t>(value);
    } else {
        type_ = Type::UInt;
        uint_ = value;
    }
}
JSON::JSON(double value) : type_(Type::Double), double_(value) {}
JSON::JSON(const char* value) {
    if (value != nullptr) {
        type_ = Type::String;
        string_ = new std::string(value);
    }
}
JSON::JSON(std::string value) : type_(Type::String), string_(new std::string(std::move(value))) {}
JSON::JSON(std::string_view value) : type_(Type::String), string_(new std::string(value)) {}
JSON::JSON(JSONArray value) : type_(Type::Array), array_(new JSONArray(std::move(value))) {}
JSON::JSON(JSONObject value) : type_(Type::Object), object_(new JSONObject(std::move(value))) {}
JSON::JSON(const std::map<std::string, JSON>& value)
    : type_(Type::Object), object_(new JSONObject(value)) {}

JSON::JSON(const JSON& other) : type_(other.type_) {
    switch (type_) {
        case Type::Null:
            break;
        case Type::Bool:
            bool_ = other.bool_;
            break;
        case Type::Int:
            int_ = other.int_;
            break;
        case Type::UInt:
            uint_ = other.uint_;
            break;
        case Type::Double:
            double_ = other.double_;
            break;
        case Type::String:
            string_ = new std::string(*other.string_);
            break;
        case Type::Array:
            array_ = new JSONArray(*other.array_);
            break;
        case Type::Object:
            object_ = new JSONObject(*other.object_);
            break;
    }
}

JSON::JSON(JSON&& other) noexcept : type_(other.type_) {
    // Every member of the union is trivially copyable; copying the widest copies any of them.
    static_assert(sizeof(uint_) >= sizeof(string_) && sizeof(uint_) >= sizeof(double_));
    std::memcpy(static_cast<void*>(&uint_), static_cast<const void*>(&other.uint_), sizeof uint_);
    other.type_ = Type::Null;
}

JSON& JSON::operator=(const JSON& other) {
    // Copy first: `other` may live inside this value.
    if (this != &other) *this = JSON(other);
    return *this;
}

JSON& JSON::operator=(JSON&& other) noexcept {
    if (this == &other) return *this;
    // Take `other` out before releasing ours: it may be one of our own elements.
    JSON taken(std::move(other));
    reset();
    type_ = taken.type_;
    std::memcpy(static_cast<void*>(&uint_), static_cast<const void*>(&taken.uint_), sizeof uint_);
    taken.type_ = Type::Null;
    return *this;
}

JSON::~JSON() {
    reset();
}

void JSON::reset() {
    switch (type_) {
        case Type::String:
            delete string_;
            break;
        case Type::Array:
            delete array_;
            break;
        case Type::Object:
            delete object_;
            break;
        default:
            break;
    }
    type_ = Type::Null;
}

const JSON& JSON::null() {
    return nullValue();
}

JSON JSON::parse(std::string_view text, std::string* error) {
    TextBuilder builder;
    rj::Reader reader;
    rj::MemoryStream stream(text.data(), text.size());
    // Numbers are taken as text and converted here with correct rounding: that is what full
    // precision asks for, and RapidJSON 1.1.0's own full-precision conversion misreads an
    // all-zero mantissa with a large exponent ("0e52").
    constexpr unsigned kFlags = rj::kParseIterativeFlag | rj::kParseNumbersAsStringsFlag;
    const rj::ParseResult result = reader.Parse<kFlags>(stream, builder);
    if (result.IsError()) {
        if (error) {
            std::string words;
            switch (builder.failure()) {
                case TextBuilder::Failure::TooDeep:
                    words = "Nesting is deeper than " + std::to_string(kMaxDepth) + " levels.";
                    break;
                case TextBuilder::Failure::TooBig:
                    words = rj::GetParseError_En(rj::kParseErrorNumberTooBig);
                    break;
                case TextBuilder::Failure::None:
                    words = rj::GetParseError_En(result.Code());
                    break;
            }
            *error = words + " at offset " + std::to_string(result.Offset());
        }
        return JSON();
    }
    // The stream reads a NUL byte as the end of the text; anything after it is still trailing.
    if (stream.Tell() != text.size()) {
        if (error) {
            *error = std::string(rj::GetParseError_En(rj::kParseErrorDocumentRootNotSingular)) +
                     " at offset " + std::to_string(stream.Tell());
        }
        return JSON();
    }
    return builder.takeRoot();
}

JSON JSON::parseBinary(std::string_view bytes, std::string* error) {
    return BinaryReader(bytes).read(error);
}

std::string JSON::toBinary() const {
    std::string out;
    if (!putValue(out, *this)) out.clear();
    return out;
}

std::string JSON::toString() const {
    rj::StringBuffer buffer;
    TextWriter writer(buffer);
    writeValue(writer, *this);
    return std::string(buffer.GetString(), buffer.GetSize());
}

const JSON& JSON::operator[](std::string_view key) const {
    if (type_ != Type::Object) return nullValue();
    const JSON* value = object_->find(key);
    return value ? *value : nullValue();
}

const JSON& JSON::operator[](size_t index) const {
    if (type_ != Type::Array || index >= array_->size()) return nullValue();
    return (*array_)[index];
}

void JSON::set(std::string key, JSON value) {
    if (type_ == Type::Null) {
        object_ = new JSONObject();
        type_ = Type::Object;
    }
    if (type_ == Type::Object) object_->set(std::move(key), std::move(value));
}

void JSON::push(JSON value) {
    if (type_ == Type::Null) {
        array_ = new JSONArray();
        type_ = Type::Array;
    }
    if (type_ == Type::Array) array_->push_back(std::move(value));
}

size_t JSON::size() const {
    if (type_ == Type::Array) return array_->size();
    if (type_ == Type::Object) return object_->size();
    return 0;
}

bool JSON::boolValue() const {
    switch (type_) {
        case Type::Bool:
            return bool_;
        case Type::Int:
            return int_ != 0;
        case Type::UInt:
            return uint_ != 0;
        case Type::Double:
            return double_ != 0 && !std::isnan(double_);
        case Type::String:
            return coerceDouble(*string_) != 0;
        default:
            return false;
    }
}

int64_t JSON::int64Value() const {
    switch (type_) {
        case Type::Bool:
            return bool_ ? 1 : 0;
        case Type::Int:
            return int_;
        case Type::UInt:
            return kInt64Max;  // UInt holds only values above the int64 range
        case Type::Double:
            return doubleToInt64(double_);
        case Type::String:
            return coerceInt(*string_);
        default:
            return 0;
    }
}

uint64_t JSON::uint64Value() const {
    switch (type_) {
        case Type::Bool:
            return bool_ ? 1 : 0;
        case Type::Int:
            return int_ < 0 ? 0 : static_cast<uint64_t>(int_);
        case Type::UInt:
            return uint_;
        case Type::Double:
            return doubleToUInt64(double_);
        case Type::String:
            return coerceUInt(*string_);
        default:
            return 0;
    }
}

int32_t JSON::int32Value() const {
    return clampInt32(int64Value());
}

uint32_t JSON::uint32Value() const {
    return clampUInt32(uint64Value());
}

double JSON::doubleValue() const {
    switch (type_) {
        case Type::Bool:
            return bool_ ? 1 : 0;
        case Type::Int:
            return static_cast<double>(int_);
        case Type::UInt:
            return static_cast<double>(uint_);
        case Type::Double:
            return double_;
        case Type::String:
            return coerceDouble(*string_);
        default:
            return 0;
    }
}

double JSON::doubleValueOr(double fallback) const {
    return isNumber() || isBool() || isString() ? doubleValue() : fallback;
}

std::string JSON::stringValue() const {
    char buffer[32];
    std::to_chars_result end{};
    switch (type_) {
        case Type::String:
            return *string_;
        case Type::Bool:
            return bool_ ? "true" : "false";
        case Type::Int:
            end = std::to_chars(buffer, buffer + sizeof buffer, int_);
            break;
        case Type::UInt:
            end = std::to_chars(buffer, buffer + sizeof buffer, uint_);
            break;
        case Type::Double:
            end = std::to_chars(buffer, buffer + sizeof buffer, double_);
            break;
        default:
            return std::string();
    }
    return std::string(buffer, end.ptr);
}

std::string_view JSON::stringViewValue() const {
    return type_ == Type::String ? std::string_view(*string_) : std::string_view();
}

const JSONArray& JSON::arrayValue() const {
    return type_ == Type::Array ? *array_ : emptyArray();
}

const JSONObject& JSON::objectValue() const {
    return type_ == Type::Object ? *object_ : emptyObject();
}

bool JSON::operator==(const JSON& other) const {
    if (isNumber() && other.isNumber()) return numbersEqual(*this, other);
    if (type_ != other.type_) return false;
    switch (type_) {
        case Type::Null:
            return true;
        case Type::Bool:
            return bool_ == other.bool_;
        case Type::String:
            return *string_ == *other.string_;
        case Type::Array:
            return *array_ == *other.array_;
        case Type::Object:
            return *object_ == *other.object_;
        default:
            return false;
    }
}

// ---- JSONStringer -----------------------------------------------------------------------

struct JSONStringer::Impl {
    rj::StringBuffer buffer;
    TextWriter writer{buffer};
    // What is open, innermost last: true for an object. The writer asserts on misuse; these
    // let the stringer drop a misplaced call instead.
    std::vector<bool> open;
    bool keyDue = false;  // inside an object, a key comes next
    bool rootDone = false;

    bool valueAllowed() const {
        if (open.empty()) return !rootDone;
        return !open.back() || !keyDue;
    }
    void valueWritten() {
        if (open.empty()) {
            rootDone = true;
        } else if (open.back()) {
            keyDue = true;
        }
    }
    void push(bool isObject) {
        open.push_back(isObject);
        keyDue = isObject;
    }
    void pop() {
        open.pop_back();
        valueWritten();
    }
};

JSONStringer::JSONStringer() : impl_(std::make_unique<Impl>()) {}

JSONStringer::~JSONStringer() = default;

JSONStringer& JSONStringer::object() {
    if (impl_->valueAllowed()) {
        impl_->writer.StartObject();
        impl_->push(true);
    }
    return *this;
}

JSONStringer& JSONStringer::endObject() {
    if (!impl_->open.empty() && impl_->open.back() && impl_->keyDue) {
        impl_->writer.EndObject();
        impl_->pop();
    }
    return *this;
}

JSONStringer& JSONStringer::array() {
    if (impl_->valueAllowed()) {
        impl_->writer.StartArray();
        impl_->push(false);
    }
    return *this;
}

JSONStringer& JSONStringer::endArray() {
    if (!impl_->open.empty() && !impl_->open.back()) {
        impl_->writer.EndArray();
        impl_->pop();
    }
    return *this;
}

JSONStringer& JSONStringer::key(std::string_view name) {
    if (!impl_->open.empty() && impl_->open.back() && impl_->keyDue) {
        impl_->writer.Key(name.data(), sizeOf(name));
        impl_->keyDue = false;
    }
    return *this;
}

JSONStringer& JSONStringer::value(std::nullptr_t) {
    return value(JSON::null());
}
JSONStringer& JSONStringer::value(bool v) {
    return value(JSON(v));
}
JSONStringer& JSONStringer::value(int32_t v) {
    return value(JSON(v));
}
JSONStringer& JSONStringer::value(int64_t v) {
    return value(JSON(v));
}
JSONStringer& JSONStringer::value(uint32_t v) {
    return value(JSON(v));
}
JSONStringer& JSONStringer::value(uint64_t v) {
    return value(JSON(v));
}
JSONStringer& JSONStringer::value(double v) {
    return value(JSON(v));
}

JSONStringer& JSONStringer::value(std::string_view v) {
    if (impl_->valueAllowed()) {
        impl_->writer.String(v.data(), sizeOf(v));
        impl_->valueWritten();
    }
    return *this;
}

JSONStringer& JSONStringer::value(const JSON& v) {
    if (impl_->valueAllowed()) {
        writeValue(impl_->writer, v);
        impl_->valueWritten();
    }
    return *this;
}

JSONStringer& JSONStringer::beforeValue(std::string_view rawJson) {
    if (!impl_->valueAllowed()) return *this;
    // Empty text would leave a hole between separators.
    if (rawJson.empty()) {
        impl_->writer.Null();
    } else {
        impl_->writer.RawValue(rawJson.data(), rawJson.size(), rj::kObjectType);
    }
    impl_->valueWritten();
    return *this;
}

std::string JSONStringer::result() const {
    return std::string(impl_->buffer.GetString(), impl_->buffer.GetSize());
}

// ---- Coercion ---------------------------------------------------------------------------

namespace {

// Reads an optional sign and the digits after it, saturating at `limit`. Returns false when
// there is no digit at all.
bool readDigits(std::string_view text, bool* negative, uint64_t limit, uint64_t* magnitude) {
    size_t i = 0;
    *negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) *negative = text[i++] == '-';
    if (i >= text.size() || !isDigit(text[i])) return false;
    uint64_t v = 0;
    for (; i < text.size() && isDigit(text[i]); ++i) {
        const uint64_t digit = static_cast<uint64_t>(text[i] - '0');
        v = v > (limit - digit) / 10 ? limit : v * 10 + digit;
    }
    *magnitude = v;
    return true;
}

}  // namespace

int64_t coerceInt(std::string_view text) {
    int word;
    if (readWord(text, &word)) return word;
    bool negative;
    uint64_t magnitude;
    const uint64_t limit = static_cast<uint64_t>(kInt64Max);
    // Up to 2^63 so that the most negative value reads exactly.
    if (!readDigits(text, &negative, limit + 1, &magnitude)) return 0;
    if (negative) return magnitude > limit ? kInt64Min : -static_cast<int64_t>(magnitude);
    return static_cast<int64_t>(std::min(magnitude, limit));
}

uint64_t coerceUInt(std::string_view text) {
    int word;
    if (readWord(text, &word)) return static_cast<uint64_t>(word);
    bool negative;
    uint64_t magnitude;
    if (!readDigits(text, &negative, kUInt64Max, &magnitude)) return 0;
    return negative ? 0 : magnitude;
}

double coerceDouble(std::string_view text) {
    int word;
    if (readWord(text, &word)) return word;
    double value;
    return readDecimal(text, &value) ? value : 0;
}

}  // namespace MarlLogger::json
