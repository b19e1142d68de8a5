// JSONStringer, the streaming writer of JSON text. It writes through the same RapidJSON writer
// and value writer as JSON::toString, so both spell every value alike, and it keeps its own
// record of what is open so that a misplaced call is dropped rather than breaking the text.
#include "marl/Json.h"

#include <memory>
#include <string>
#include <vector>

#include "marl/JsonInternal.h"

namespace MarlLogger::json {

namespace rj = internal::rj;
using internal::sizeOf;

struct JSONStringer::Impl {
    rj::StringBuffer buffer;
    internal::TextWriter writer{buffer};
    // What is open, innermost last: true for an object. The writer asserts on misuse; these
    // let the stringer drop a misplaced call instead.
    std::vector<bool> open;
    bool keyDue = false;  // inside an object, a key comes next
    bool rootDone = false;

    // Inside an object and between members: where a key, or the end of the object, may come.
    bool keyAllowed() const { return !open.empty() && open.back() && keyDue; }
    bool valueAllowed() const {
        if (open.empty()) return !rootDone;
        return !open.back() || !keyDue;
    }
    void valueWritten() {
        if (open.empty()) {
            rootDone = true;
        } else if (open.back()) {
            keyDue = true;
        }
    }
    void push(bool isObject) {
        open.push_back(isObject);
        keyDue = isObject;
    }
    void pop() {
        open.pop_back();
        valueWritten();
    }
};

JSONStringer::JSONStringer() : impl_(std::make_unique<Impl>()) {}

JSONStringer::~JSONStringer() = default;

JSONStringer& JSONStringer::object() {
    if (impl_->valueAllowed()) {
        impl_->writer.StartObject();
        impl_->push(true);
    }
    return *this;
}

JSONStringer& JSONStringer::endObject() {
    if (impl_->keyAllowed()) {
        impl_->writer.EndObject();
        impl_->pop();
    }
    return *this;
}

JSONStringer& JSONStringer::array() {
    if (impl_->valueAllowed()) {
        impl_->writer.StartArray();
        impl_->push(false);
    }
    return *this;
}

JSONStringer& JSONStringer::endArray() {
    if (!impl_->open.empty() && !impl_->open.back()) {
        impl_->writer.EndArray();
        impl_->pop();
    }
    return *this;
}

JSONStringer& JSONStringer::key(std::string_view name) {
    if (impl_->keyAllowed()) {
        impl_->writer.Key(name.data(), sizeOf(name));
        impl_->keyDue = false;
    }
    return *this;
}

JSONStringer& JSONStringer::value(std::nullptr_t) {
    return value(JSON::null());
}
JSONStringer& JSONStringer::value(bool v) {
    return value(JSON(v));
}
JSONStringer& JSONStringer::value(int32_t v) {
    return value(JSON(v));
}
JSONStringer& JSONStringer::value(int64_t v) {
    return value(JSON(v));
}
JSONStringer& JSONStringer::value(uint32_t v) {
    return value(JSON(v));
}
JSONStringer& JSONStringer::value(uint64_t v) {
    return value(JSON(v));
}
JSONStringer& JSONStringer::value(double v) {
    return value(JSON(v));
}

JSONStringer& JSONStringer::value(std::string_view v) {
    if (impl_->valueAllowed()) {
        impl_->writer.String(v.data(), sizeOf(v));
        impl_->valueWritten();
    }
    return *this;
}

JSONStringer& JSONStringer::value(const JSON& v) {
    if (impl_->valueAllowed()) {
        internal::writeValue(impl_->writer, v);
        impl_->valueWritten();
    }
    return *this;
}

JSONStringer& JSONStringer::beforeValue(std::string_view rawJson) {
    if (!impl_->valueAllowed()) return *this;
    // Empty text would leave a hole between separators.
    if (rawJson.empty()) {
        impl_->writer.Null();
    } else {
        impl_->writer.RawValue(rawJson.data(), rawJson.size(), rj::kObjectType);
    }
    impl_->valueWritten();
    return *this;
}

std::string JSONStringer::result() const {
    return std::string(impl_->buffer.GetString(), impl_->buffer.GetSize());
}

}  // namespace MarlLogger::json
