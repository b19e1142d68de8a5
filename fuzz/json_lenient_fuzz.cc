// Parses arbitrary text as JSON. Whatever parses must survive every lenient reader, and its
// text form must parse back to an equal value. The event reading, which reads most texts in place
// with a vector string scan, must agree with the tree reading, which goes one byte at a time: the
// same success, the same words on a failure, the same value on a success. The reading in place,
// which rewrites the text it reads, must deliver exactly the events of the reading of a copy.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "marl/Json.h"

using MarlLogger::json::JSON;
using MarlLogger::json::JSONArray;
using MarlLogger::json::JSONEvents;
using MarlLogger::json::JSONObject;

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

// One event as it came: its kind, the text of a key or string, the value of a scalar.
struct Event {
    char kind = 0;
    std::string text;
    JSON value;
    bool operator==(const Event& other) const {
        return kind == other.kind && text == other.text && value == other.value;
    }
};

// Builds the value the events describe, as the tree reading does: a repeated key keeps the last
// value at the place of the first. Keeps every event too, copied at once: the in-place reading
// may rewrite the bytes a view pointed at once the handler returns.
class Recorder : public JSONEvents {
  public:
    bool startObject() override {
        log('{');
        return open(/*isObject=*/true);
    }
    bool key(std::string_view key) override {
        log('k', key);
        open_.back().key = std::string(key);
        return true;
    }
    bool endObject() override {
        log('}');
        return close();
    }
    bool startArray() override {
        log('[');
        return open(/*isObject=*/false);
    }
    bool endArray() override {
        log(']');
        return close();
    }
    bool scalar(const JSON& value) override {
        events_.push_back(Event{'s', {}, value});
        return place(value);
    }
    bool string(std::string_view value) override {
        log('"', value);
        return place(JSON(std::string(value)));
    }

    JSON takeRoot() { return std::move(root_); }
    const std::vector<Event>& events() const { return events_; }

  private:
    struct Container {
        bool isObject = false;
        JSONArray array;
        JSONObject object;
        std::string key;  // the pending key of an object
    };

    bool open(bool isObject) {
        open_.push_back(Container{isObject, {}, {}, {}});
        return true;
    }
    bool close() {
        check(!open_.empty());
        Container done = std::move(open_.back());
        open_.pop_back();
        return place(done.isObject ? JSON(std::move(done.object)) : JSON(std::move(done.array)));
    }
    bool place(JSON value) {
        if (open_.empty()) {
            root_ = std::move(value);
        } else if (open_.back().isObject) {
            open_.back().object.set(open_.back().key, std::move(value));
        } else {
            open_.back().array.push_back(std::move(value));
        }
        return true;
    }

    void log(char kind, std::string_view text = {}) {
        events_.push_back(Event{kind, std::string(text), JSON()});
    }

    std::vector<Container> open_;
    JSON root_;
    std::vector<Event> events_;
};

// The event reading of `text` next to the tree reading's result.
void compareEvents(std::string_view text, const JSON& value, const std::string& error) {
    Recorder recorder;
    std::string eventError;
    const bool read = JSON::parseEvents(text, recorder, &eventError);
    check(read == error.empty());
    check(eventError == error);
    if (read) check(recorder.takeRoot() == value);

    // A copy with the spare capacity the in-place reading asks for, so that it reads this very
    // buffer and does not grow it into a new one.
    std::string buffer;
    buffer.reserve(text.size() + JSON::kInPlaceSpare);
    buffer.assign(text);
    const char* const before = buffer.data();
    Recorder inPlace;
    std::string inPlaceError;
    const bool readInPlace = JSON::parseEventsInPlace(buffer, inPlace, &inPlaceError);
    check(buffer.data() == before);
    check(readInPlace == read);
    check(inPlaceError == eventError);
    check(inPlace.events() == recorder.events());
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
    compareEvents(text, value, error);
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
