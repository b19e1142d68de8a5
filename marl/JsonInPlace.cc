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

#include "marl/JsonReading.inc"

}  // namespace

bool internal::parseEventsInPlace(std::string_view text, char* buffer, JSONEvents& events,
                                  std::string* error) {
    EventRelay relay(events);
    rj::InsituStringStream stream(buffer);
    return readText<kReadFlags | rj::kParseInsituFlag>(text, stream, relay, error);
}

}  // namespace MarlLogger::json
