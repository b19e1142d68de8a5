// Decodes arbitrary bytes as the binary JSON form. Whatever decodes must encode and decode back
// to an equal value.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "marl/Json.h"

using MarlLogger::json::JSON;

namespace {

void check(bool ok) {
    if (!ok) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    std::string error;
    const JSON value = JSON::parseBinary(bytes, &error);
    if (!error.empty()) {
        check(value.isNull());
        return 0;
    }
    const std::string encoded = value.toBinary();
    check(!encoded.empty());
    std::string again;
    const JSON back = JSON::parseBinary(encoded, &again);
    check(again.empty());
    check(back == value);
    check(back.toBinary() == encoded);
    return 0;
}
