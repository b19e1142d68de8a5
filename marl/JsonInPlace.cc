// JSON::parseEvents with RapidJSON's vector string scan. RapidJSON 1.1.0's scan, in its reader and
// its writer alike, takes only bytes up to 0x19 for control characters, so this file alone
// compiles it, with the reader only, in a namespace of its own that no other copy of RapidJSON
// shares; JSON::parseEvents sends here only texts without a byte from 0x1A to 0x1F, which read
// exactly as they do one byte at a time, in a buffer padded so that the aligned loads of the scan
// stay inside it.
#include <string>
#include <string_view>

#if defined(__SSE2__)
#define RAPIDJSON_SSE2
#endif
#define RAPIDJSON_NAMESPACE ferritJsonInPlace
#define RAPIDJSON_NAMESPACE_BEGIN namespace ferritJsonInPlace {
#define RAPIDJSON_NAMESPACE_END }
// As in JsonInternal.h: RapidJSON's first push onto an empty stack computes `nullptr + n`.
#if defined(__clang__)
#pragma clang attribute push(__attribute__((no_sanitize("pointer-overflow"))), apply_to = function)
#endif
#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>
#if defined(__clang__)
#pragma clang attribute pop
#endif

#include "marl/Json.h"
#include "marl/JsonInPlace.h"

namespace MarlLogger::json {

namespace rj = ::ferritJsonInPlace;

#if defined(RAPIDJSON_SSE2)
static_assert(internal::kInPlaceVectorScan, "JsonText.cc must check texts for the scan");
#else
static_assert(!internal::kInPlaceVectorScan, "without the scan no text needs checking");
#endif

namespace {

enum class Failure { None, TooDeep, TooBig };

// The same relay as JsonText.cc's, over this copy of the parser.
class EventRelay : public rj::BaseReaderHandler<rj::UTF8<>, EventRelay> {
  public:
    explicit EventRelay(JSONEvents& events) : events_(events) {}

    bool Null() { return events_.scalar(JSON::null()); }
    bool Bool(bool b) { return events_.scalar(JSON(b)); }
    bool RawNumber(const char* s, rj::SizeType length, bool) {
        JSON number;
        if (!internal::readNumber(s, length, number)) {
            failure_ = Failure::TooBig;
            return false;
        }
        return events_.scalar(number);
    }
    bool String(const char* s, rj::SizeType length, bool) {
        return events_.string(std::string_view(s, length));
    }
    bool Key(const char* s, rj::SizeType length, bool) {
        return events_.key(std::string_view(s, length));
    }
    bool StartObject() { return open() && events_.startObject(); }
    bool EndObject(rj::SizeType) {
        --depth_;
        return events_.endObject();
    }
    bool StartArray() { return open() && events_.startArray(); }
    bool EndArray(rj::SizeType) {
        --depth_;
        return events_.endArray();
    }

    Failure failure() const { return failure_; }

  private:
    bool open() {
        if (depth_ >= JSON::kMaxDepth) {
            failure_ = Failure::TooDeep;
            return false;
        }
        ++depth_;
        return true;
    }

    JSONEvents& events_;
    int depth_ = 0;
    Failure failure_ = Failure::None;
};

// The same reading and words as JsonText.cc's readText.
constexpr unsigned kReadFlags = rj::kParseIterativeFlag | rj::kParseNumbersAsStringsFlag;

template <unsigned kFlags, typename Stream, typename Handler>
bool readText(std::string_view text, Stream& stream, Handler& handler, std::string* error) {
    rj::Reader reader;
    const rj::ParseResult result = reader.Parse<kFlags>(stream, handler);
    if (result.IsError()) {
        if (error) {
            std::string words;
            switch (handler.failure()) {
                case Failure::TooDeep:
                    words =
                        "Nesting is deeper than " + std::to_string(JSON::kMaxDepth) + " levels.";
                    break;
                case Failure::TooBig:
                    words = rj::GetParseError_En(rj::kParseErrorNumberTooBig);
                    break;
                case Failure::None:
                    words = rj::GetParseError_En(result.Code());
                    break;
            }
            *error = words + " at offset " + std::to_string(result.Offset());
        }
        return false;
    }
    // The stream reads a NUL byte as the end of the text; anything after it is still trailing.
    if (stream.Tell() != text.size()) {
        if (error) {
            *error = std::string(rj::GetParseError_En(rj::kParseErrorDocumentRootNotSingular)) +
                     " at offset " + std::to_string(stream.Tell());
        }
        return false;
    }
    return true;
}

}  // namespace

bool internal::parseEventsInPlace(std::string_view text, char* buffer, JSONEvents& events,
                                  std::string* error) {
    EventRelay relay(events);
    rj::InsituStringStream stream(buffer);
    return readText<kReadFlags | rj::kParseInsituFlag>(text, stream, relay, error);
}

}  // namespace MarlLogger::json
