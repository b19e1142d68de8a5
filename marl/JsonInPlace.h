// What JsonText.cc and JsonInPlace.cc share, without RapidJSON: each compiles its own copy of the
// parser, in a namespace of its own. Any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "marl/Json.h"

namespace MarlLogger::json::internal {

// A number whose grammar the parser has checked, as JSON::parse holds it (JsonText.cc). False when
// it is too big for a double.
bool readNumber(const char* s, size_t length, JSON& out);

// The bytes that follow a text read in place, all NUL, so that a scan that loads sixteen aligned
// bytes at a time stays inside the buffer.
inline constexpr size_t kInPlacePadding = 16;

// Whether JsonInPlace.cc reads strings with the vector scan. Without one (a CPU without SSE2), its
// reading is the byte-by-byte one and takes every text, so no pass looks for the bytes it misses.
#if defined(__SSE2__)
inline constexpr bool kInPlaceVectorScan = true;
#else
inline constexpr bool kInPlaceVectorScan = false;
#endif

// JSON::parseEvents over `buffer`, a copy of `text` followed by kInPlacePadding NUL bytes that
// holds no byte from 0x1A to 0x1F when kInPlaceVectorScan, read in place with RapidJSON's vector
// string scan (JsonInPlace.cc). The same events, result and words as the byte-by-byte reading.
bool parseEventsInPlace(std::string_view text, char* buffer, JSONEvents& events,
                        std::string* error);

}  // namespace MarlLogger::json::internal
