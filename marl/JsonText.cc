// JSON text over RapidJSON: JSON::parse and JSON::toString, and the value writer that
// JSONStringer shares. RapidJSON checks the grammar and writes the tokens; values are built here
// on an explicit stack, and numbers are converted by our own reader, which also keeps clear of
// RapidJSON's misreading of numbers such as "0e52". Its other defect, which touches every parse
// and write, is handled where RapidJSON is included (JsonInternal.h).
#include "marl/Json.h"

#include <charconv>
#include <cmath>
#include <string>
#include <vector>

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
        internal::readDecimal(text, &d);
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

std::string JSON::toString() const {
    rj::StringBuffer buffer;
    TextWriter writer(buffer);
    internal::writeValue(writer, *this);
    return std::string(buffer.GetString(), buffer.GetSize());
}

}  // namespace MarlLogger::json
