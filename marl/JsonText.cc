// JSON text over RapidJSON: JSON::parse and JSON::toString, and the value writer that
// JSONStringer shares. RapidJSON checks the grammar and writes the tokens; values are built here
// on an explicit stack, and numbers are converted by our own reader, which also keeps clear of
// RapidJSON's misreading of numbers such as "0e52". Its other defect, which touches every parse
// and write, is handled where RapidJSON is included (JsonInternal.h).
#include "marl/Json.h"

#include <charconv>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#include <cmath>
#include <string>
#include <vector>

#include "marl/JsonInPlace.h"
#include "marl/JsonInternal.h"

namespace MarlLogger::json {

namespace rj = internal::rj;
using internal::sizeOf;
using internal::TextWriter;

namespace {

void writeDouble(TextWriter& writer, double d) {
    // The writer refuses NaN and infinities only after it has written the separator, which
    // would leave broken text; null is the one valid spelling JSON has for them.
    if (std::isfinite(d)) {
        writer.Double(d);
    } else {
        writer.Null();
    }
}

// Whether `text` holds a byte from 0x1A to 0x1F, which the vector string scan does not stop at.
bool hasScanBlindByte(std::string_view text) {
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    const auto* end = p + text.size();
    unsigned seen = 0;
#if defined(__SSE2__)
    // Sixteen bytes at a time: a byte minus 0x1A is at most 5 exactly for those six.
    const __m128i low = _mm_set1_epi8(0x1A);
    const __m128i span = _mm_set1_epi8(5);
    __m128i any = _mm_setzero_si128();
    for (; end - p >= 16; p += 16) {
        const __m128i shifted =
            _mm_sub_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)), low);
        any = _mm_or_si128(any, _mm_cmpeq_epi8(_mm_min_epu8(shifted, span), shifted));
    }
    seen = static_cast<unsigned>(_mm_movemask_epi8(any));
#endif
    for (; p != end; ++p) seen |= static_cast<unsigned>(static_cast<unsigned char>(*p - 0x1A) <= 5);
    return seen != 0;
}

#include "marl/JsonReading.inc"

// Most numbers of a document are plain unsigned integers of at most 19 digits, which cannot
// overflow, or times written as short decimals: both are read in one pass. The parser has checked
// the grammar, so digits, one "." and digits are all such a number holds. False leaves the number
// to readNumber's full reading.
bool readPlainNumber(const char* s, const char* end, JSON& out) {
    const bool negative = s[0] == '-';
    const char* p = negative ? s + 1 : s;
    uint64_t mantissa = 0;  // wraps past 19 digits, where it is not used
    size_t digits = 0;
    for (; p != end && *p >= '0' && *p <= '9'; ++p, ++digits)
        mantissa = mantissa * 10 + static_cast<uint64_t>(*p - '0');
    constexpr size_t kSafeIntegerDigits = 19;
    if (p == end) {
        if (negative || digits > kSafeIntegerDigits) return false;
        out = JSON(mantissa);
        return true;
    }
    if (*p != '.') return false;
    const char* fraction = ++p;
    for (; p != end && *p >= '0' && *p <= '9'; ++p, ++digits)
        mantissa = mantissa * 10 + static_cast<uint64_t>(*p - '0');
    if (p != end) return false;
    // A mantissa up to 2^53 is exact in a double and so is 10^k up to 10^22: one division of two
    // exact values rounds correctly, to what the full reader gives.
    constexpr uint64_t kExactMantissa = uint64_t{1} << 53;
    static constexpr double kPowersOfTen[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                              1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                              1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
    const size_t places = static_cast<size_t>(p - fraction);
    double d = 0;
    if (digits <= kSafeIntegerDigits && mantissa <= kExactMantissa && places <= 22) {
        d = static_cast<double>(mantissa) / kPowersOfTen[places];
    } else if (std::from_chars(negative ? s + 1 : s, end, d).ec != std::errc()) {
        // Otherwise the conversion the full reader ends in, without its scan for an exponent;
        // a failure is left to the full reader, which says what it makes of the number.
        return false;
    }
    out = JSON(negative ? -d : d);
    return true;
}

// Builds values from the parser's events on an explicit stack, so that neither the parser nor
// the conversion recurses, and refuses to open a container beyond JSON::kMaxDepth.
class TextBuilder : public rj::BaseReaderHandler<rj::UTF8<>, TextBuilder> {
  public:
    bool Null() { return add(JSON()); }
    bool Bool(bool b) { return add(JSON(b)); }
    bool RawNumber(const char* s, rj::SizeType length, bool) {
        JSON number;
        if (!internal::readNumber(s, length, number)) {
            failure_ = Failure::TooBig;
            return false;
        }
        return add(std::move(number));
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
    bool open(bool isObject) {
        if (frames_.size() >= static_cast<size_t>(JSON::kMaxDepth)) {
            failure_ = Failure::TooDeep;
            return false;
        }
        frames_.push_back(internal::OpenContainer{isObject, {}, {}, {}});
        return true;
    }

    bool close() {
        JSON value = frames_.back().close();
        frames_.pop_back();
        return add(std::move(value));
    }

    bool add(JSON value) {
        if (frames_.empty()) {
            root_ = std::move(value);
        } else {
            frames_.back().add(std::move(value));
        }
        return true;
    }

    std::vector<internal::OpenContainer> frames_;
    JSON root_;
    Failure failure_ = Failure::None;
};

}  // namespace

// The parser has checked the grammar of a number; it arrives as text and is held as an Int or
// UInt when it is an integer that fits, else as a correctly rounded double. False when it is too
// big for a double.
bool internal::readNumber(const char* s, size_t length, JSON& out) {
    const std::string_view text(s, length);
    const char* end = s + length;
    if (readPlainNumber(s, end, out)) return true;
    if (text.find_first_of(".eE") == std::string_view::npos) {
        if (text[0] == '-') {
            int64_t i;
            if (std::from_chars(s, end, i).ec == std::errc()) {
                out = JSON(i);
                return true;
            }
        } else {
            uint64_t u;
            if (std::from_chars(s, end, u).ec == std::errc()) {
                out = JSON(u);
                return true;
            }
        }
    }
    // Beyond the integer types, or a fraction or an exponent.
    double d = 0;
    internal::readDecimal(text, &d);
    if (std::isinf(d)) return false;
    out = JSON(d);
    return true;
}

void internal::writeValue(TextWriter& writer, const JSON& value) {
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

JSON JSON::parse(std::string_view text, std::string* error) {
    TextBuilder builder;
    rj::MemoryStream stream(text.data(), text.size());
    if (!readText<kReadFlags>(text, stream, builder, error)) return JSON();
    return builder.takeRoot();
}

bool JSON::parseEvents(std::string_view text, JSONEvents& events, std::string* error) {
    EventRelay relay(events);
    // Read in place from a copy: a string or number then reaches the handler where it lies,
    // where reading from the text pushed it onto the parser's stack byte by byte, which cost
    // more than the copy of the whole text.
    std::string buffer;
    buffer.reserve(text.size() + internal::kInPlacePadding);
    buffer.append(text).append(internal::kInPlacePadding, '\0');
    // RapidJSON's vector string scan takes only bytes up to 0x19 for control characters: a text
    // with a byte from 0x1A to 0x1F, which it would let through, is read one byte at a time.
    // Where no scan is compiled in, the in-place reading is that one already and the check would
    // be a pass over the text for nothing.
    if (!internal::kInPlaceVectorScan || !hasScanBlindByte(text))
        return internal::parseEventsInPlace(text, buffer.data(), events, error);
    rj::InsituStringStream stream(buffer.data());
    return readText<kReadFlags | rj::kParseInsituFlag>(text, stream, relay, error);
}

bool JSON::parseEventsInPlace(std::string& text, JSONEvents& events, std::string* error) {
    static_assert(kInPlaceSpare == internal::kInPlacePadding);
    const size_t size = text.size();
    text.append(internal::kInPlacePadding, '\0');
    // The parser checks only the length of the text against where it stopped, so the view may
    // be the very bytes that it rewrites.
    const std::string_view view(text.data(), size);
    if (!internal::kInPlaceVectorScan || !hasScanBlindByte(view))
        return internal::parseEventsInPlace(view, text.data(), events, error);
    EventRelay relay(events);
    rj::InsituStringStream stream(text.data());
    return readText<kReadFlags | rj::kParseInsituFlag>(view, stream, relay, error);
}

std::string JSON::toString() const {
    rj::StringBuffer buffer;
    TextWriter writer(buffer);
    internal::writeValue(writer, *this);
    return std::string(buffer.GetString(), buffer.GetSize());
}

}  // namespace MarlLogger::json
