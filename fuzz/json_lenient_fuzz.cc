// Parses arbitrary text as JSON. Whatever parses must survive every lenient reader, and its
// text form must parse back to an equal value.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "marl/Json.h"

using MarlLogger::json::JSON;

namespace {

void check(bool ok) {
    if (!ok) __builtin_trap();
}

// Reads the value every way a caller can; the results only have to exist without crashing.
void readAll(const JSON& value) {
    volatile uint64_t sink = 0;
    sink = sink + value.boolValue() + static_cast<uint64_t>(value.int32Value()) +
           static_cast<uint64_t>(value.int64Value()) + value.uint32Value() + value.uint64Value();
    volatile double d = value.doubleValue() + value.doubleValueOr(1.0);
    (void)d;
    const std::string text = value.stringValue();
    check(!value.isString() || text == value.stringViewValue());
    check(value.isString() || value.stringViewValue().empty());
    check(value.size() == value.arrayValue().size() + value.objectValue().size());
}

// Visits every node without recursion: values from the parser are at most kMaxDepth deep, but
// the walk should not depend on that.
void walk(const JSON& root) {
    std::vector<const JSON*> pending{&root};
    while (!pending.empty()) {
        const JSON* value = pending.back();
        pending.pop_back();
        readAll(*value);
        for (const JSON& element : value->arrayValue()) pending.push_back(&element);
        for (const auto& [key, member] : value->objectValue()) {
            check(&(*value)[key] == &member);
            pending.push_back(&member);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    volatile double coerced = static_cast<double>(MarlLogger::json::coerceInt(text)) +
                              static_cast<double>(MarlLogger::json::coerceUInt(text)) +
                              MarlLogger::json::coerceDouble(text);
    (void)coerced;

    std::string error;
    const JSON value = JSON::parse(text, &error);
    if (!error.empty()) {
        check(value.isNull());
        return 0;
    }
    walk(value);

    const std::string written = value.toString();
    std::string again;
    const JSON back = JSON::parse(written, &again);
    check(again.empty());
    check(back == value);
    check(back.toString() == written);
    return 0;
}
