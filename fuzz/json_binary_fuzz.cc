// Decodes arbitrary bytes as the binary JSON form. Whatever decodes must encode and decode back
// to an equal value. Read as events, the same bytes must pass or fail alike, in the same words,
// and the events must build the same value.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "marl/Json.h"
#include "marl/JsonBinaryEvents.h"

using MarlLogger::json::JSON;

namespace {

void check(bool ok) {
    if (!ok) __builtin_trap();
}

// Builds a value from events, as the value reader builds it: a repeated key keeps its last
// value at the place of its first.
class Builder : public MarlLogger::json::JSONEvents {
  public:
    bool startObject() override { return open(JSON(MarlLogger::json::JSONObject())); }
    bool startArray() override { return open(JSON(MarlLogger::json::JSONArray())); }
    bool endObject() override { return close(); }
    bool endArray() override { return close(); }
    bool key(std::string_view key) override {
        keys_.back().assign(key);
        return true;
    }
    bool scalar(const JSON& value) override { return add(value); }
    bool string(std::string_view value) override { return add(JSON(value)); }
    JSON root;

  private:
    bool open(JSON container) {
        open_.push_back(std::move(container));
        keys_.emplace_back();
        return true;
    }
    bool close() {
        JSON done = std::move(open_.back());
        open_.pop_back();
        keys_.pop_back();
        return add(std::move(done));
    }
    bool add(JSON value) {
        if (open_.empty()) {
            root = std::move(value);
        } else if (open_.back().isObject()) {
            open_.back().set(keys_.back(), std::move(value));
        } else {
            open_.back().push(std::move(value));
        }
        return true;
    }
    std::vector<JSON> open_;
    std::vector<std::string> keys_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    std::string error;
    const JSON value = JSON::parseBinary(bytes, &error);
    Builder built;
    std::string eventError;
    const bool walked = MarlLogger::json::parseBinaryEvents(bytes, built, &eventError);
    check(walked == error.empty());
    check(eventError == error);
    if (walked) check(built.root == value);
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
