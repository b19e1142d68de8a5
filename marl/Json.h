// JSON value type over RapidJSON, with lenient typed readers and a compact binary form.
// Values are plain data: not thread-safe to mutate, safe to read from many threads.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace MarlLogger::json {

// Int holds every integer that fits in int64_t, whatever type it was built from; UInt holds only
// larger ones.
enum class Type { Null, Bool, Int, UInt, Double, String, Array, Object };

class JSON;
class JSONEvents;

// An object keeps its members in insertion order; lookups are linear, which is what the small
// objects of logs and records want. Duplicate keys from parsing (or from the list constructors)
// keep the last value at the position of the first. Equality ignores member order.
class JSONObject {
  public:
    JSONObject() = default;
    JSONObject(const std::map<std::string, JSON>& map);
    JSONObject(std::initializer_list<std::pair<std::string, JSON>> pairs);
    JSONObject(std::vector<std::pair<std::string, JSON>> pairs);

    // Null when absent.
    const JSON* find(std::string_view key) const;
    JSON* find(std::string_view key);
    // Replaces an existing member or appends a new one.
    void set(std::string key, JSON value);
    bool erase(std::string_view key);
    // Defined below JSON: the vector's size() and empty() need JSON complete.
    size_t size() const;
    bool empty() const;
    auto begin() const { return members_.begin(); }
    auto end() const { return members_.end(); }
    const std::vector<std::pair<std::string, JSON>>& members() const { return members_; }
    bool operator==(const JSONObject& other) const;

  private:
    std::vector<std::pair<std::string, JSON>> members_;
};

using JSONArray = std::vector<JSON>;

class JSON {
  public:
    JSON() = default;  // null
    JSON(std::nullptr_t) {}
    JSON(bool value);
    JSON(int32_t value);
    JSON(int64_t value);
    JSON(uint32_t value);
    JSON(uint64_t value);
    JSON(long long value) : JSON(static_cast<int64_t>(value)) {}
    JSON(unsigned long long value) : JSON(static_cast<uint64_t>(value)) {}
    JSON(double value);
    JSON(const char* value);
    JSON(std::string value);
    JSON(std::string_view value);
    JSON(JSONArray value);
    JSON(JSONObject value);
    JSON(const std::map<std::string, JSON>& value);
    template <typename T>
    JSON(const std::vector<T>& values) : JSON(JSONArray(values.begin(), values.end())) {}

    JSON(const JSON& other);
    JSON(JSON&& other) noexcept;
    JSON& operator=(const JSON& other);
    JSON& operator=(JSON&& other) noexcept;
    ~JSON();

    // Parses JSON text. On failure returns null and, when `error` is given, fills it with the
    // parser's words and the offset. Nesting deeper than kMaxDepth fails instead of recursing.
    static JSON parse(std::string_view text, std::string* error = nullptr);
    // Parses JSON text without building values: `events` receives each token in order, with the
    // same checks and number conversion as parse(). Stops when a handler returns false. False
    // on any failure, with `error` filled as parse() fills it; tokens already delivered stand.
    static bool parseEvents(std::string_view text, JSONEvents& events,
                            std::string* error = nullptr);
    // Bytes of spare capacity past the end of a text given to parseEventsInPlace that let it read
    // the text without copying it.
    static constexpr size_t kInPlaceSpare = 16;
    // As parseEvents, reading `text` where it lies rather than from a copy: a text of megabytes
    // read straight from storage is not copied once more. The parser writes into it, and it
    // holds unspecified bytes afterwards; without kInPlaceSpare bytes of spare capacity it grows
    // once.
    static bool parseEventsInPlace(std::string& text, JSONEvents& events,
                                   std::string* error = nullptr);
    // Decodes the binary form. On failure returns null and fills `error`; never crashes.
    // Also reads float32 and bin 8/16/32 (as strings); map keys must be strings; trailing bytes
    // are an error.
    static JSON parseBinary(std::string_view bytes, std::string* error = nullptr);
    // Compact, length-prefixed (MessagePack layout); strings hold any bytes unescaped. Empty
    // when a string, array or object is longer than 2^32 - 1, which the layout cannot express.
    std::string toBinary() const;
    // Compact JSON text. NaN and infinities are written as null.
    std::string toString() const;

    static constexpr int kMaxDepth = 512;
    static const JSON& null();

    Type type() const { return type_; }
    bool isNull() const { return type_ == Type::Null; }
    bool isBool() const { return type_ == Type::Bool; }
    bool isNumber() const {
        return type_ == Type::Int || type_ == Type::UInt || type_ == Type::Double;
    }
    bool isString() const { return type_ == Type::String; }
    bool isArray() const { return type_ == Type::Array; }
    bool isObject() const { return type_ == Type::Object; }

    // Object member, or null() when absent or when this is not an object.
    const JSON& operator[](std::string_view key) const;
    const JSON& operator[](const char* key) const { return (*this)[std::string_view(key)]; }
    // Array element, or null() when out of range or when this is not an array.
    const JSON& operator[](size_t index) const;
    // Makes this an object (when null) and sets a member; does nothing to other types.
    void set(std::string key, JSON value);
    // Makes this an array (when null) and appends; does nothing to other types.
    void push(JSON value);
    // Number of members or elements; 0 for scalars.
    size_t size() const;

    // Lenient readers. A number is taken as it is (cut to the result type), true reads 1 and
    // false 0, a string "", "0" or "false" reads 0, "1" or "true" reads 1, any other string is
    // parsed as a decimal number (0 when it does not parse), anything else reads 0.
    // Conversions saturate: out-of-range values read as the type's limits, a negative value as
    // 0 for the unsigned readers, NaN as 0; doubles are cut toward zero. A bool is true for
    // any non-zero value.
    bool boolValue() const;
    int32_t int32Value() const;
    int64_t int64Value() const;
    uint32_t uint32Value() const;
    uint64_t uint64Value() const;
    double doubleValue() const;
    // The value read as above when it is a number, bool or string; `fallback` otherwise.
    // (A string that does not parse reads 0, not the fallback.)
    double doubleValueOr(double fallback) const;
    // A string as it is; a number as decimal text; a bool as "true"/"false"; otherwise empty.
    std::string stringValue() const;
    // The string itself, or an empty view for any other type.
    std::string_view stringViewValue() const;
    // The elements or members, or an empty container for any other type.
    const JSONArray& arrayValue() const;
    const JSONObject& objectValue() const;

    // Numbers compare by value across Int, UInt and Double; NaN equals NaN so that a value
    // equals its decoded copy.
    bool operator==(const JSON& other) const;

  private:
    void reset();

    Type type_ = Type::Null;
    union {
        bool bool_;
        int64_t int_;
        uint64_t uint_;
        double double_;
        std::string* string_;
        JSONArray* array_;
        JSONObject* object_;
    };
};

inline size_t JSONObject::size() const {
    return members_.size();
}
inline bool JSONObject::empty() const {
    return members_.empty();
}

// Receives the tokens of JSON text from JSON::parseEvents, on the parsing thread. A handler
// that returns false stops the parse, which then fails.
class JSONEvents {
  public:
    virtual ~JSONEvents() = default;
    virtual bool startObject() = 0;
    virtual bool key(std::string_view key) = 0;
    virtual bool endObject() = 0;
    virtual bool startArray() = 0;
    virtual bool endArray() = 0;
    // Null, a bool or a number, as parse() would hold it.
    virtual bool scalar(const JSON& value) = 0;
    // A string, unescaped; the view lasts for the call only.
    virtual bool string(std::string_view value) = 0;
};

// Streaming writer of compact JSON text. A call that would make the text invalid (a key outside
// an object or where a value is due, a value where a key is due, a second root, an unmatched
// end) is ignored. Not thread-safe.
class JSONStringer {
  public:
    JSONStringer();
    ~JSONStringer();
    JSONStringer& object();
    JSONStringer& endObject();
    JSONStringer& array();
    JSONStringer& endArray();
    JSONStringer& key(std::string_view name);
    JSONStringer& value(std::nullptr_t);
    JSONStringer& value(bool v);
    JSONStringer& value(int32_t v);
    JSONStringer& value(int64_t v);
    JSONStringer& value(uint32_t v);
    JSONStringer& value(uint64_t v);
    JSONStringer& value(long long v) { return value(static_cast<int64_t>(v)); }
    JSONStringer& value(unsigned long long v) { return value(static_cast<uint64_t>(v)); }
    JSONStringer& value(double v);
    JSONStringer& value(std::string_view v);
    JSONStringer& value(const char* v) { return value(std::string_view(v)); }
    JSONStringer& value(const std::string& v) { return value(std::string_view(v)); }
    JSONStringer& value(const JSON& v);
    // Writes raw, already valid JSON text as the next value (not checked; empty text writes
    // null).
    JSONStringer& beforeValue(std::string_view rawJson);
    // The text so far.
    std::string result() const;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// Lenient coercion of text, shared by the readers above and by readers of documents that do not
// go through JSON values: "" "0" "false" -> 0, "1" "true" -> 1, otherwise a decimal number, 0
// when it does not parse.
// The number is read from the start of the text and stops at the first character that cannot
// continue it, as strtoll/strtod do: "12abc" reads 12, and the integer readers read "1.9" and
// "1e3" as 1. Unlike those functions, leading blanks are not skipped (" 7" reads 0), hex,
// "inf" and "nan" are not numbers, and the locale plays no part. Integers saturate at their
// limits, coerceUInt reads a negative number as 0, and coerceDouble reads an overflow as an
// infinity and an underflow as 0.
int64_t coerceInt(std::string_view text);
uint64_t coerceUInt(std::string_view text);
double coerceDouble(std::string_view text);

}  // namespace MarlLogger::json
