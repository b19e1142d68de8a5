// What the JSON sources in marl/ share and nothing else includes: RapidJSON as they build it,
// the text writer, the decimal reader and the container the two parsers fill. Any thread.
#pragma once

#include "marl/Json.h"

// RapidJSON 1.1.0 computes `nullptr + n` on the first push onto each of its empty internal
// stacks, which clang's pointer-overflow check reports on every parse and every write although
// no platform we build for misbehaves. The check is turned off for RapidJSON's own functions
// only, and RapidJSON is compiled into a namespace of our own that only this header opens, so
// that the linker never mixes these copies with ones another file built with the check.
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

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace MarlLogger::json::internal {

namespace rj = ::ferritJsonRapid;

using Members = std::vector<std::pair<std::string, JSON>>;
using TextWriter = rj::Writer<rj::StringBuffer>;

inline rj::SizeType sizeOf(std::string_view text) {
    return static_cast<rj::SizeType>(text.size());
}

// Writes `value` as compact text, NaN and infinities as null (JsonText.cc).
void writeValue(TextWriter& writer, const JSON& value);

// Reads the decimal number at the start of `text` ([+-]digits[.digits][(e|E)[+-]digits]) and
// rounds it correctly; false when there is no digit. An overflow reads as an infinity and an
// underflow as 0 (JsonCoerce.cc).
bool readDecimal(std::string_view text, double* out);

// An array or object that a parser is filling. Both parsers keep these on an explicit stack so
// that neither recurses however deep the input nests.
struct OpenContainer {
    bool isObject;
    JSONArray elements;
    Members members;
    std::string key;  // of the member whose value comes next

    void add(JSON value) {
        if (isObject) {
            members.emplace_back(std::move(key), std::move(value));
        } else {
            elements.push_back(std::move(value));
        }
    }
    // The finished value; the container is left empty.
    JSON close() {
        return isObject ? JSON(JSONObject(std::move(members))) : JSON(std::move(elements));
    }
};

}  // namespace MarlLogger::json::internal
