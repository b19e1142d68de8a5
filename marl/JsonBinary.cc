// The binary form of JSON values: JSON::toBinary, JSON::parseBinary and parseBinaryEvents, in the
// MessagePack layout. It owes nothing to RapidJSON; with the text parser it shares only the
// container both fill on their own stack. Its reader takes bytes from anywhere, so it checks every
// length against the input before it allocates.
#include "marl/Json.h"
#include "marl/JsonBinaryEvents.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "marl/JsonInternal.h"
#include "support/Ascii.h"

namespace MarlLogger::json {
namespace {

// Lengths and counts this large cannot be written; toBinary() then gives up.
constexpr uint64_t kMaxBinaryLength = 0xFFFFFFFFull;

void putBig(std::string& out, uint64_t v, int bytes) {
    for (int shift = (bytes - 1) * 8; shift >= 0; shift -= 8)
        out.push_back(static_cast<char>((v >> shift) & 0xFF));
}

void putHead(std::string& out, uint8_t tag, uint64_t v, int bytes) {
    out.push_back(static_cast<char>(tag));
    putBig(out, v, bytes);
}

void putUnsigned(std::string& out, uint64_t v) {
    if (v < 0x80) {
        out.push_back(static_cast<char>(v));
    } else if (v <= 0xFF) {
        putHead(out, 0xcc, v, 1);
    } else if (v <= 0xFFFF) {
        putHead(out, 0xcd, v, 2);
    } else if (v <= 0xFFFFFFFF) {
        putHead(out, 0xce, v, 4);
    } else {
        putHead(out, 0xcf, v, 8);
    }
}

void putSigned(std::string& out, int64_t v) {
    if (v >= 0) {
        putUnsigned(out, static_cast<uint64_t>(v));
    } else if (v >= -32) {
        out.push_back(static_cast<char>(static_cast<uint8_t>(v)));
    } else if (v >= -128) {
        putHead(out, 0xd0, static_cast<uint8_t>(v), 1);
    } else if (v >= -32768) {
        putHead(out, 0xd1, static_cast<uint16_t>(v), 2);
    } else if (v >= std::numeric_limits<int32_t>::min()) {
        putHead(out, 0xd2, static_cast<uint32_t>(v), 4);
    } else {
        putHead(out, 0xd3, static_cast<uint64_t>(v), 8);
    }
}

// The three sizes of a string, array or map header: fix form, 16-bit and 32-bit.
bool putLength(std::string& out, uint64_t n, uint8_t fix, uint64_t fixLimit, uint8_t tag16,
               uint8_t tag32, uint8_t tag8 = 0) {
    if (n > kMaxBinaryLength) return false;
    if (n < fixLimit) {
        out.push_back(static_cast<char>(fix | n));
    } else if (tag8 != 0 && n <= 0xFF) {
        putHead(out, tag8, n, 1);
    } else if (n <= 0xFFFF) {
        putHead(out, tag16, n, 2);
    } else {
        putHead(out, tag32, n, 4);
    }
    return true;
}

bool putString(std::string& out, std::string_view s) {
    if (!putLength(out, s.size(), 0xa0, 32, 0xda, 0xdb, 0xd9)) return false;
    out.append(s);
    return true;
}

bool putValue(std::string& out, const JSON& value) {
    switch (value.type()) {
        case Type::Null:
            out.push_back(static_cast<char>(0xc0));
            return true;
        case Type::Bool:
            out.push_back(static_cast<char>(value.boolValue() ? 0xc3 : 0xc2));
            return true;
        case Type::Int:
            putSigned(out, value.int64Value());
            return true;
        case Type::UInt:
            putUnsigned(out, value.uint64Value());
            return true;
        case Type::Double: {
            uint64_t bits;
            const double d = value.doubleValue();
            std::memcpy(&bits, &d, sizeof bits);
            putHead(out, 0xcb, bits, 8);
            return true;
        }
        case Type::String:
            return putString(out, value.stringViewValue());
        case Type::Array: {
            const JSONArray& elements = value.arrayValue();
            if (!putLength(out, elements.size(), 0x90, 16, 0xdc, 0xdd)) return false;
            for (const JSON& element : elements)
                if (!putValue(out, element)) return false;
            return true;
        }
        case Type::Object: {
            const JSONObject& object = value.objectValue();
            if (!putLength(out, object.size(), 0x80, 16, 0xde, 0xdf)) return false;
            for (const auto& [key, member] : object)
                if (!putString(out, key) || !putValue(out, member)) return false;
            return true;
        }
    }
    return false;
}

// Walks the binary form on an explicit stack and hands each item to `Sink`, which either builds
// values (parseBinary) or relays events (parseBinaryEvents): one reader, so both accept and refuse
// the same bytes in the same words. Every declared length is checked against the bytes left
// before anything is allocated. A Sink has open(isObject, count), close(isObject), key(view),
// string(view) and scalar(JSON), each returning false to stop the walk.
template <typename Sink>
class BinaryWalker {
  public:
    BinaryWalker(std::string_view bytes, Sink& sink) : bytes_(bytes), sink_(sink) {}

    bool walk(std::string* error) {
        if (walkAll()) return true;
        if (error) *error = std::move(error_);
        return false;
    }

  private:
    struct Frame {
        uint64_t remaining;  // elements, or members, still to read
        bool isObject;
        bool haveKey;
    };
    // Frames held in place before the stack spills to the heap: a record nests a level or two,
    // and a read that allocates only what it returns must not pay for its own stack.
    static constexpr size_t kInlineFrames = 8;

    size_t left() const { return bytes_.size() - pos_; }
    size_t depth() const { return inlineDepth_ + spilled_.size(); }
    Frame& top() { return spilled_.empty() ? inline_[inlineDepth_ - 1] : spilled_.back(); }
    void push(Frame frame) {
        if (spilled_.empty() && inlineDepth_ < kInlineFrames) {
            inline_[inlineDepth_++] = frame;
        } else {
            spilled_.push_back(frame);
        }
    }
    void pop() {
        if (spilled_.empty()) {
            --inlineDepth_;
        } else {
            spilled_.pop_back();
        }
    }
    // Inside a container that stands where a key is due: it is read (its own errors come
    // first, as when it was built) and then refused, so nothing of it reaches the sink.
    bool muted() const { return mutedAt_ != 0; }

    bool fail(std::string message, size_t at) {
        if (error_.empty()) error_ = std::move(message) + " at offset " + std::to_string(at);
        return false;
    }

    bool take(int n, uint64_t* out) {
        if (left() < static_cast<size_t>(n)) return fail("truncated", pos_);
        uint64_t v = 0;
        for (int i = 0; i < n; ++i) v = v << 8 | static_cast<uint8_t>(bytes_[pos_++]);
        *out = v;
        return true;
    }

    // A length for `count` items of at least `minBytes` bytes each.
    bool checkLength(uint64_t count, uint64_t minBytes, size_t headerAt) {
        if (count > left() / minBytes) {
            return fail("truncated: length " + std::to_string(count) + " exceeds the " +
                            std::to_string(left()) + " bytes left",
                        headerAt);
        }
        return true;
    }

    bool stopped(size_t at) { return fail("stopped by the handler", at); }

    // Whether the next item is a member's key.
    bool keyDue() {
        if (depth() == 0) return false;
        const Frame& frame = top();
        return frame.isObject && !frame.haveKey;
    }

    bool string(uint64_t length, size_t at) {
        if (!checkLength(length, 1, at)) return false;
        const std::string_view text = bytes_.substr(pos_, static_cast<size_t>(length));
        pos_ += static_cast<size_t>(length);
        if (keyDue()) {
            if (!muted() && !sink_.key(text)) return stopped(at);
            top().haveKey = true;
            return true;
        }
        if (!muted() && !sink_.string(text)) return stopped(at);
        return placed(at);
    }

    bool scalar(const JSON& value, size_t at) {
        if (keyDue()) return fail("map key is not a string", at);
        if (!muted() && !sink_.scalar(value)) return stopped(at);
        return placed(at);
    }

    bool container(bool isObject, uint64_t count, size_t at) {
        if (!checkLength(count, isObject ? 2 : 1, at)) return false;
        if (count == 0) {
            if (keyDue()) return fail("map key is not a string", at);
            if (!muted() && (!sink_.open(isObject, 0) || !sink_.close(isObject)))
                return stopped(at);
            return placed(at);
        }
        if (depth() >= static_cast<size_t>(JSON::kMaxDepth)) {
            return fail("nesting deeper than " + std::to_string(JSON::kMaxDepth) + " levels", at);
        }
        if (!muted()) {
            if (keyDue()) {
                mutedAt_ = depth() + 1;
            } else if (!sink_.open(isObject, count)) {
                return stopped(at);
            }
        }
        push(Frame{count, isObject, false});
        return true;
    }

    // A value read at `at` is complete: it counts in its container, and closes every container
    // it completes.
    bool placed(size_t at) {
        while (depth() != 0) {
            Frame& frame = top();
            frame.haveKey = false;
            if (--frame.remaining != 0) return true;
            const bool isObject = frame.isObject;
            const bool silent = muted();
            pop();
            if (mutedAt_ > depth()) mutedAt_ = 0;
            if (!silent && !sink_.close(isObject)) return stopped(at);
            // Only a container read where a key was due gets here with a key due.
            if (keyDue()) return fail("map key is not a string", at);
        }
        done_ = true;
        return true;
    }

    bool readItem() {
        const size_t at = pos_;
        uint64_t tag = 0;
        if (!take(1, &tag)) return false;
        if (tag <= 0x7f) return scalar(JSON(static_cast<int64_t>(tag)), at);
        if (tag >= 0xe0) return scalar(JSON(static_cast<int64_t>(static_cast<int8_t>(tag))), at);
        if (tag >= 0xa0 && tag <= 0xbf) return string(tag & 0x1f, at);
        if (tag >= 0x90 && tag <= 0x9f) return container(/*isObject=*/false, tag & 0x0f, at);
        if (tag >= 0x80 && tag <= 0x8f) return container(/*isObject=*/true, tag & 0x0f, at);
        return readTagged(tag, at);
    }

    // The items whose tag is followed by a length or a value.
    bool readTagged(uint64_t tag, size_t at) {
        uint64_t v = 0;
        switch (tag) {
            case 0xc0:
                return scalar(JSON(), at);
            case 0xc2:
                return scalar(JSON(/*value=*/false), at);
            case 0xc3:
                return scalar(JSON(/*value=*/true), at);
            case 0xc4:
            case 0xd9:
                return take(1, &v) && string(v, at);
            case 0xc5:
            case 0xda:
                return take(2, &v) && string(v, at);
            case 0xc6:
            case 0xdb:
                return take(4, &v) && string(v, at);
            case 0xdc:
                return take(2, &v) && container(/*isObject=*/false, v, at);
            case 0xdd:
                return take(4, &v) && container(/*isObject=*/false, v, at);
            case 0xde:
                return take(2, &v) && container(/*isObject=*/true, v, at);
            case 0xdf:
                return take(4, &v) && container(/*isObject=*/true, v, at);
            default:
                return readNumber(tag, at);
        }
    }

    bool readNumber(uint64_t tag, size_t at) {
        uint64_t v = 0;
        switch (tag) {
            case 0xca: {
                if (!take(4, &v)) return false;
                const uint32_t bits = static_cast<uint32_t>(v);
                float f;
                std::memcpy(&f, &bits, sizeof f);
                return scalar(JSON(static_cast<double>(f)), at);
            }
            case 0xcb: {
                if (!take(8, &v)) return false;
                double d;
                std::memcpy(&d, &v, sizeof d);
                return scalar(JSON(d), at);
            }
            case 0xcc:
                return take(1, &v) && scalar(JSON(v), at);
            case 0xcd:
                return take(2, &v) && scalar(JSON(v), at);
            case 0xce:
                return take(4, &v) && scalar(JSON(v), at);
            case 0xcf:
                return take(8, &v) && scalar(JSON(v), at);
            case 0xd0:
                return take(1, &v) && scalar(JSON(int64_t{static_cast<int8_t>(v)}), at);
            case 0xd1:
                return take(2, &v) && scalar(JSON(int64_t{static_cast<int16_t>(v)}), at);
            case 0xd2:
                return take(4, &v) && scalar(JSON(int64_t{static_cast<int32_t>(v)}), at);
            case 0xd3:
                return take(8, &v) && scalar(JSON(static_cast<int64_t>(v)), at);
            default:
                break;
        }
        const char name[] = {'0', 'x', FerritCore::Ascii::kLowerHexDigits[tag >> 4],
                             FerritCore::Ascii::kLowerHexDigits[tag & 0xf], '\0'};
        return fail(std::string("unsupported type ") + name, at);
    }

    bool walkAll() {
        if (bytes_.empty()) return fail("empty input", 0);
        while (!done_)
            if (!readItem()) return false;
        if (pos_ != bytes_.size())
            return fail(std::to_string(bytes_.size() - pos_) + " trailing bytes", pos_);
        return true;
    }

    std::string_view bytes_;
    Sink& sink_;
    size_t pos_ = 0;
    bool done_ = false;
    // The depth of the frame of a container read where a key was due; 0 when none is open.
    size_t mutedAt_ = 0;
    Frame inline_[kInlineFrames] = {};
    size_t inlineDepth_ = 0;
    std::vector<Frame> spilled_;
    std::string error_;
};

// Builds the values a walk delivers.
class ValueBuilder {
  public:
    // Containers larger than this grow as their elements actually arrive.
    static constexpr size_t kMaxReserve = 1024;

    bool open(bool isObject, uint64_t count) {
        open_.push_back(internal::OpenContainer{isObject, {}, {}, {}});
        const size_t reserve = static_cast<size_t>(std::min<uint64_t>(count, kMaxReserve));
        if (isObject) {
            open_.back().members.reserve(reserve);
        } else {
            open_.back().elements.reserve(reserve);
        }
        return true;
    }
    bool close(bool /*isObject*/) {
        JSON value = open_.back().close();
        open_.pop_back();
        return add(std::move(value));
    }
    bool key(std::string_view key) {
        open_.back().key.assign(key);
        return true;
    }
    bool string(std::string_view text) { return add(JSON(text)); }
    bool scalar(JSON value) { return add(std::move(value)); }

    JSON takeRoot() { return std::move(root_); }

  private:
    bool add(JSON value) {
        if (open_.empty()) {
            root_ = std::move(value);
        } else {
            open_.back().add(std::move(value));
        }
        return true;
    }

    std::vector<internal::OpenContainer> open_;
    JSON root_;
};

// Hands a walk's items to JSONEvents.
class EventSink {
  public:
    explicit EventSink(JSONEvents& events) : events_(events) {}
    bool open(bool isObject, uint64_t /*count*/) {
        return isObject ? events_.startObject() : events_.startArray();
    }
    bool close(bool isObject) { return isObject ? events_.endObject() : events_.endArray(); }
    bool key(std::string_view key) { return events_.key(key); }
    bool string(std::string_view text) { return events_.string(text); }
    bool scalar(const JSON& value) { return events_.scalar(value); }

  private:
    JSONEvents& events_;
};

}  // namespace

JSON JSON::parseBinary(std::string_view bytes, std::string* error) {
    ValueBuilder builder;
    if (!BinaryWalker<ValueBuilder>(bytes, builder).walk(error)) return JSON();
    return builder.takeRoot();
}

bool parseBinaryEvents(std::string_view bytes, JSONEvents& events, std::string* error) {
    EventSink sink(events);
    return BinaryWalker<EventSink>(bytes, sink).walk(error);
}

std::string JSON::toBinary() const {
    std::string out;
    if (!putValue(out, *this)) out.clear();
    return out;
}

}  // namespace MarlLogger::json
