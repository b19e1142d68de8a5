// The binary form of JSON values: JSON::toBinary and JSON::parseBinary, in the MessagePack
// layout. It owes nothing to RapidJSON; with the text parser it shares only the container both
// fill on their own stack. Its reader takes bytes from anywhere, so it checks every length
// against the input before it allocates.
#include "marl/Json.h"

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

// Decodes the binary form on an explicit stack. Every declared length is checked against the
// bytes left before anything is allocated, and reservations are capped, so that memory follows
// the input actually present rather than what a header claims.
class BinaryReader {
  public:
    explicit BinaryReader(std::string_view bytes) : bytes_(bytes) {}

    JSON read(std::string* error) {
        JSON result = readAll();
        if (!error_.empty()) {
            if (error) *error = std::move(error_);
            return JSON();
        }
        return result;
    }

  private:
    // Containers larger than this grow as their elements actually arrive.
    static constexpr size_t kMaxReserve = 1024;

    struct Frame : internal::OpenContainer {
        uint64_t remaining;  // elements, or members, still to read
        bool haveKey = false;
    };

    size_t left() const { return bytes_.size() - pos_; }

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

    bool readString(uint64_t length, size_t at, JSON* out) {
        if (!checkLength(length, 1, at)) return false;
        *out = JSON(bytes_.substr(pos_, static_cast<size_t>(length)));
        pos_ += static_cast<size_t>(length);
        return true;
    }

    bool openContainer(bool isObject, uint64_t count, size_t at, JSON* out, bool* opened) {
        if (!checkLength(count, isObject ? 2 : 1, at)) return false;
        if (count == 0) {
            *out = isObject ? JSON(JSONObject()) : JSON(JSONArray());
            return true;
        }
        if (frames_.size() >= static_cast<size_t>(JSON::kMaxDepth)) {
            return fail("nesting deeper than " + std::to_string(JSON::kMaxDepth) + " levels", at);
        }
        frames_.push_back(Frame{{isObject, {}, {}, {}}, count});
        const size_t reserve = static_cast<size_t>(std::min<uint64_t>(count, kMaxReserve));
        if (isObject) {
            frames_.back().members.reserve(reserve);
        } else {
            frames_.back().elements.reserve(reserve);
        }
        *opened = true;
        return true;
    }

    // Reads one item: a scalar into `out`, or the header of a non-empty container, which is
    // pushed as a frame (`opened`).
    bool readItem(JSON* out, bool* opened) {
        const size_t at = pos_;
        uint64_t tag = 0;
        if (!take(1, &tag)) return false;
        if (tag <= 0x7f) {
            *out = JSON(static_cast<int64_t>(tag));
            return true;
        }
        if (tag >= 0xe0) {
            *out = JSON(static_cast<int64_t>(static_cast<int8_t>(tag)));
            return true;
        }
        if (tag >= 0xa0 && tag <= 0xbf) return readString(tag & 0x1f, at, out);
        if (tag >= 0x90 && tag <= 0x9f)
            return openContainer(/*isObject=*/false, tag & 0x0f, at, out, opened);
        if (tag >= 0x80 && tag <= 0x8f)
            return openContainer(/*isObject=*/true, tag & 0x0f, at, out, opened);
        return readTagged(tag, at, out, opened);
    }

    // The items whose tag is followed by a length or a value.
    bool readTagged(uint64_t tag, size_t at, JSON* out, bool* opened) {
        uint64_t v = 0;
        switch (tag) {
            case 0xc0:
                *out = JSON();
                return true;
            case 0xc2:
                *out = JSON(false);
                return true;
            case 0xc3:
                *out = JSON(true);
                return true;
            case 0xc4:
            case 0xd9:
                return take(1, &v) && readString(v, at, out);
            case 0xc5:
            case 0xda:
                return take(2, &v) && readString(v, at, out);
            case 0xc6:
            case 0xdb:
                return take(4, &v) && readString(v, at, out);
            case 0xdc:
                return take(2, &v) && openContainer(/*isObject=*/false, v, at, out, opened);
            case 0xdd:
                return take(4, &v) && openContainer(/*isObject=*/false, v, at, out, opened);
            case 0xde:
                return take(2, &v) && openContainer(/*isObject=*/true, v, at, out, opened);
            case 0xdf:
                return take(4, &v) && openContainer(/*isObject=*/true, v, at, out, opened);
            default:
                return readNumber(tag, at, out);
        }
    }

    bool readNumber(uint64_t tag, size_t at, JSON* out) {
        uint64_t v = 0;
        switch (tag) {
            case 0xca: {
                if (!take(4, &v)) return false;
                const uint32_t bits = static_cast<uint32_t>(v);
                float f;
                std::memcpy(&f, &bits, sizeof f);
                *out = JSON(static_cast<double>(f));
                return true;
            }
            case 0xcb: {
                if (!take(8, &v)) return false;
                double d;
                std::memcpy(&d, &v, sizeof d);
                *out = JSON(d);
                return true;
            }
            case 0xcc:
                return take(1, &v) && (*out = JSON(v), true);
            case 0xcd:
                return take(2, &v) && (*out = JSON(v), true);
            case 0xce:
                return take(4, &v) && (*out = JSON(v), true);
            case 0xcf:
                return take(8, &v) && (*out = JSON(v), true);
            case 0xd0:
                return take(1, &v) && (*out = JSON(int64_t{static_cast<int8_t>(v)}), true);
            case 0xd1:
                return take(2, &v) && (*out = JSON(int64_t{static_cast<int16_t>(v)}), true);
            case 0xd2:
                return take(4, &v) && (*out = JSON(int64_t{static_cast<int32_t>(v)}), true);
            case 0xd3:
                return take(8, &v) && (*out = JSON(static_cast<int64_t>(v)), true);
            default:
                break;
        }
        const char name[] = {'0', 'x', FerritCore::Ascii::kLowerHexDigits[tag >> 4],
                             FerritCore::Ascii::kLowerHexDigits[tag & 0xf], '\0'};
        return fail(std::string("unsupported type ") + name, at);
    }

    JSON readAll() {
        if (bytes_.empty()) {
            fail("empty input", 0);
            return JSON();
        }
        JSON root;
        for (;;) {
            const size_t at = pos_;
            JSON value;
            bool opened = false;
            if (!readItem(&value, &opened)) return JSON();
            if (opened) continue;
            // Place the finished value, closing every container it completes.
            for (;;) {
                if (frames_.empty()) {
                    root = std::move(value);
                    break;
                }
                Frame& frame = frames_.back();
                if (frame.isObject && !frame.haveKey) {
                    if (!value.isString()) {
                        fail("map key is not a string", at);
                        return JSON();
                    }
                    frame.key.assign(value.stringViewValue());
                    frame.haveKey = true;
                    break;
                }
                frame.add(std::move(value));
                frame.haveKey = false;
                if (--frame.remaining != 0) break;
                value = frame.close();
                frames_.pop_back();
            }
            if (frames_.empty()) break;
        }
        if (pos_ != bytes_.size()) {
            fail(std::to_string(bytes_.size() - pos_) + " trailing bytes", pos_);
            return JSON();
        }
        return root;
    }

    std::string_view bytes_;
    size_t pos_ = 0;
    std::vector<Frame> frames_;
    std::string error_;
};

}  // namespace

JSON JSON::parseBinary(std::string_view bytes, std::string* error) {
    return BinaryReader(bytes).read(error);
}

std::string JSON::toBinary() const {
    std::string out;
    if (!putValue(out, *this)) out.clear();
    return out;
}

}  // namespace MarlLogger::json
