// The JSON value type: JSON and JSONObject, their construction, copying, lookups, lenient typed
// readers and equality. Reading and writing text, the binary form, the streaming writer and the
// coercion of strings each live in a file of their own (JsonText.cc, JsonBinary.cc,
// JsonStringer.cc, JsonCoerce.cc), so that this one holds only what a value is and how it reads.
#include "marl/Json.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <numeric>

namespace MarlLogger::json {
namespace {

using Members = std::vector<std::pair<std::string, JSON>>;

constexpr int64_t kInt64Max = std::numeric_limits<int64_t>::max();
constexpr int64_t kInt64Min = std::numeric_limits<int64_t>::min();
constexpr uint64_t kUInt64Max = std::numeric_limits<uint64_t>::max();
// 2^63 and 2^64 are exact in a double; comparing against them keeps the casts below defined.
constexpr double kTwoTo63 = 9223372036854775808.0;
constexpr double kTwoTo64 = 18446744073709551616.0;

// The empty value of each kind that readers return by reference for the wrong type. Never
// destroyed, so that a log written during static destruction still finds them.
template <typename T>
const T& emptyValue() {
    static const T* value = new T();
    return *value;
}

int64_t doubleToInt64(double d) {
    if (std::isnan(d)) return 0;
    if (d >= kTwoTo63) return kInt64Max;
    if (d < -kTwoTo63) return kInt64Min;
    return static_cast<int64_t>(d);
}

uint64_t doubleToUInt64(double d) {
    if (std::isnan(d) || d <= 0) return 0;
    if (d >= kTwoTo64) return kUInt64Max;
    return static_cast<uint64_t>(d);
}

int32_t clampInt32(int64_t v) {
    return static_cast<int32_t>(std::clamp<int64_t>(v, std::numeric_limits<int32_t>::min(),
                                                    std::numeric_limits<int32_t>::max()));
}

uint32_t clampUInt32(uint64_t v) {
    return static_cast<uint32_t>(std::min<uint64_t>(v, std::numeric_limits<uint32_t>::max()));
}

// The lenient words every coercion knows before it reads digits: 0 for "", "0" and "false",
// 1 for "1" and "true", nothing for any other text.
// Numbers compare by value whatever their stored kind, so that 1 read back from text as an
// integer equals the 1.0 or unsigned 1 it was written from.
bool numbersEqual(const JSON& a, const JSON& b) {
    if (a.type() == Type::Double || b.type() == Type::Double) {
        if (a.type() == Type::Double && b.type() == Type::Double) {
            const double x = a.doubleValue();
            const double y = b.doubleValue();
            // NaN equals NaN here: a value compares equal to its own decoded copy.
            return x == y || (std::isnan(x) && std::isnan(y));
        }
        const JSON& d = a.type() == Type::Double ? a : b;
        const JSON& i = a.type() == Type::Double ? b : a;
        const double value = d.doubleValue();
        if (!std::isfinite(value) || std::trunc(value) != value) return false;
        if (i.type() == Type::Int) {
            return value >= -kTwoTo63 && value < kTwoTo63 &&
                   static_cast<int64_t>(value) == i.int64Value();
        }
        return value >= 0 && value < kTwoTo64 && static_cast<uint64_t>(value) == i.uint64Value();
    }
    // Int holds every value that fits in int64, UInt only larger ones.
    return a.type() == b.type() && a.uint64Value() == b.uint64Value() &&
           a.int64Value() == b.int64Value();
}

// Leaves one member per key: the first position with the last value, as set() would.
void dropDuplicateKeys(Members& members) {
    const size_t n = members.size();
    if (n < 2) return;
    if (n <= 8) {
        bool duplicate = false;
        for (size_t i = 1; i < n && !duplicate; ++i)
            for (size_t j = 0; j < i && !duplicate; ++j)
                duplicate = members[i].first == members[j].first;
        if (!duplicate) return;
    }
    std::vector<uint32_t> order(n);
    std::iota(order.begin(), order.end(), 0u);
    std::stable_sort(order.begin(), order.end(),
                     [&](uint32_t a, uint32_t b) { return members[a].first < members[b].first; });
    std::vector<bool> drop(n, false);
    bool any = false;
    for (size_t start = 0; start < n;) {
        size_t end = start + 1;
        while (end < n && members[order[end]].first == members[order[start]].first) ++end;
        if (end - start > 1) {
            // Stable sort keeps equal keys in input order: the first is the position to keep,
            // the last holds the value to keep.
            members[order[start]].second = std::move(members[order[end - 1]].second);
            for (size_t k = start + 1; k < end; ++k) drop[order[k]] = true;
            any = true;
        }
        start = end;
    }
    if (!any) return;
    size_t out = 0;
    for (size_t i = 0; i < n; ++i) {
        if (drop[i]) continue;
        if (out != i) members[out] = std::move(members[i]);
        ++out;
    }
    members.resize(out);
}

}  // namespace

// ---- JSONObject -------------------------------------------------------------------------

JSONObject::JSONObject(const std::map<std::string, JSON>& map) : members_(map.begin(), map.end()) {}

JSONObject::JSONObject(std::initializer_list<std::pair<std::string, JSON>> pairs)
    : members_(pairs) {
    dropDuplicateKeys(members_);
}

JSONObject::JSONObject(std::vector<std::pair<std::string, JSON>> pairs)
    : members_(std::move(pairs)) {
    dropDuplicateKeys(members_);
}

const JSON* JSONObject::find(std::string_view key) const {
    for (const auto& member : members_)
        if (member.first == key) return &member.second;
    return nullptr;
}

JSON* JSONObject::find(std::string_view key) {
    for (auto& member : members_)
        if (member.first == key) return &member.second;
    return nullptr;
}

void JSONObject::set(std::string key, JSON value) {
    if (JSON* existing = find(key)) {
        *existing = std::move(value);
    } else {
        members_.emplace_back(std::move(key), std::move(value));
    }
}

bool JSONObject::erase(std::string_view key) {
    for (auto it = members_.begin(); it != members_.end(); ++it) {
        if (it->first == key) {
            members_.erase(it);
            return true;
        }
    }
    return false;
}

bool JSONObject::operator==(const JSONObject& other) const {
    const size_t n = members_.size();
    if (n != other.members_.size()) return false;
    // Objects written and read back keep their order, so the walk in step almost always decides.
    size_t i = 0;
    while (i < n && members_[i].first == other.members_[i].first) {
        if (!(members_[i].second == other.members_[i].second)) return false;
        ++i;
    }
    if (i == n) return true;
    // Keys are unique, so the remaining members match when both sides sorted by key agree.
    using Member = const std::pair<std::string, JSON>*;
    auto sorted = [i, n](const Members& members) {
        std::vector<Member> out;
        out.reserve(n - i);
        for (size_t k = i; k < n; ++k) out.push_back(&members[k]);
        std::sort(out.begin(), out.end(), [](Member a, Member b) { return a->first < b->first; });
        return out;
    };
    const std::vector<Member> mine = sorted(members_);
    const std::vector<Member> theirs = sorted(other.members_);
    for (size_t k = 0; k < mine.size(); ++k) {
        if (mine[k]->first != theirs[k]->first || !(mine[k]->second == theirs[k]->second))
            return false;
    }
    return true;
}

// ---- JSON -------------------------------------------------------------------------------

JSON::JSON(bool value) : type_(Type::Bool), bool_(value) {}
JSON::JSON(int32_t value) : type_(Type::Int), int_(value) {}
JSON::JSON(int64_t value) : type_(Type::Int), int_(value) {}
JSON::JSON(uint32_t value) : type_(Type::Int), int_(value) {}
JSON::JSON(uint64_t value) {
    if (value <= static_cast<uint64_t>(kInt64Max)) {
        type_ = Type::Int;
        int_ = static_cast<int64_t>(value);
    } else {
        type_ = Type::UInt;
        uint_ = value;
    }
}
JSON::JSON(double value) : type_(Type::Double), double_(value) {}
JSON::JSON(const char* value) {
    if (value != nullptr) {
        type_ = Type::String;
        string_ = new std::string(value);
    }
}
JSON::JSON(std::string value) : type_(Type::String), string_(new std::string(std::move(value))) {}
JSON::JSON(std::string_view value) : type_(Type::String), string_(new std::string(value)) {}
JSON::JSON(JSONArray value) : type_(Type::Array), array_(new JSONArray(std::move(value))) {}
JSON::JSON(JSONObject value) : type_(Type::Object), object_(new JSONObject(std::move(value))) {}
JSON::JSON(const std::map<std::string, JSON>& value)
    : type_(Type::Object), object_(new JSONObject(value)) {}

JSON::JSON(const JSON& other) : type_(other.type_) {
    switch (type_) {
        case Type::Null:
            break;
        case Type::Bool:
            bool_ = other.bool_;
            break;
        case Type::Int:
            int_ = other.int_;
            break;
        case Type::UInt:
            uint_ = other.uint_;
            break;
        case Type::Double:
            double_ = other.double_;
            break;
        case Type::String:
            string_ = new std::string(*other.string_);
            break;
        case Type::Array:
            array_ = new JSONArray(*other.array_);
            break;
        case Type::Object:
            object_ = new JSONObject(*other.object_);
            break;
    }
}

JSON::JSON(JSON&& other) noexcept : type_(other.type_) {
    // Every member of the union is trivially copyable; copying the widest copies any of them.
    static_assert(sizeof(uint_) >= sizeof(string_) && sizeof(uint_) >= sizeof(double_));
    std::memcpy(static_cast<void*>(&uint_), static_cast<const void*>(&other.uint_), sizeof uint_);
    other.type_ = Type::Null;
}

JSON& JSON::operator=(const JSON& other) {
    // Copy first: `other` may live inside this value.
    if (this != &other) *this = JSON(other);
    return *this;
}

JSON& JSON::operator=(JSON&& other) noexcept {
    if (this == &other) return *this;
    // Take `other` out before releasing ours: it may be one of our own elements.
    JSON taken(std::move(other));
    reset();
    type_ = taken.type_;
    std::memcpy(static_cast<void*>(&uint_), static_cast<const void*>(&taken.uint_), sizeof uint_);
    taken.type_ = Type::Null;
    return *this;
}

JSON::~JSON() {
    reset();
}

void JSON::reset() {
    switch (type_) {
        case Type::String:
            delete string_;
            break;
        case Type::Array:
            delete array_;
            break;
        case Type::Object:
            delete object_;
            break;
        default:
            break;
    }
    type_ = Type::Null;
}

const JSON& JSON::null() {
    return emptyValue<JSON>();
}

const JSON& JSON::operator[](std::string_view key) const {
    if (type_ != Type::Object) return emptyValue<JSON>();
    const JSON* value = object_->find(key);
    return value ? *value : emptyValue<JSON>();
}

const JSON& JSON::operator[](size_t index) const {
    if (type_ != Type::Array || index >= array_->size()) return emptyValue<JSON>();
    return (*array_)[index];
}

void JSON::set(std::string key, JSON value) {
    if (type_ == Type::Null) {
        object_ = new JSONObject();
        type_ = Type::Object;
    }
    if (type_ == Type::Object) object_->set(std::move(key), std::move(value));
}

void JSON::push(JSON value) {
    if (type_ == Type::Null) {
        array_ = new JSONArray();
        type_ = Type::Array;
    }
    if (type_ == Type::Array) array_->push_back(std::move(value));
}

size_t JSON::size() const {
    if (type_ == Type::Array) return array_->size();
    if (type_ == Type::Object) return object_->size();
    return 0;
}

bool JSON::boolValue() const {
    switch (type_) {
        case Type::Bool:
            return bool_;
        case Type::Int:
            return int_ != 0;
        case Type::UInt:
            return uint_ != 0;
        case Type::Double:
            return double_ != 0 && !std::isnan(double_);
        case Type::String:
            return coerceDouble(*string_) != 0;
        default:
            return false;
    }
}

int64_t JSON::int64Value() const {
    switch (type_) {
        case Type::Bool:
            return bool_ ? 1 : 0;
        case Type::Int:
            return int_;
        case Type::UInt:
            return kInt64Max;  // UInt holds only values above the int64 range
        case Type::Double:
            return doubleToInt64(double_);
        case Type::String:
            return coerceInt(*string_);
        default:
            return 0;
    }
}

uint64_t JSON::uint64Value() const {
    switch (type_) {
        case Type::Bool:
            return bool_ ? 1 : 0;
        case Type::Int:
            return int_ < 0 ? 0 : static_cast<uint64_t>(int_);
        case Type::UInt:
            return uint_;
        case Type::Double:
            return doubleToUInt64(double_);
        case Type::String:
            return coerceUInt(*string_);
        default:
            return 0;
    }
}

int32_t JSON::int32Value() const {
    return clampInt32(int64Value());
}

uint32_t JSON::uint32Value() const {
    return clampUInt32(uint64Value());
}

double JSON::doubleValue() const {
    switch (type_) {
        case Type::Bool:
            return bool_ ? 1 : 0;
        case Type::Int:
            return static_cast<double>(int_);
        case Type::UInt:
            return static_cast<double>(uint_);
        case Type::Double:
            return double_;
        case Type::String:
            return coerceDouble(*string_);
        default:
            return 0;
    }
}

double JSON::doubleValueOr(double fallback) const {
    return isNumber() || isBool() || isString() ? doubleValue() : fallback;
}

std::string JSON::stringValue() const {
    char buffer[32];
    std::to_chars_result end{};
    switch (type_) {
        case Type::String:
            return *string_;
        case Type::Bool:
            return bool_ ? "true" : "false";
        case Type::Int:
            end = std::to_chars(buffer, buffer + sizeof buffer, int_);
            break;
        case Type::UInt:
            end = std::to_chars(buffer, buffer + sizeof buffer, uint_);
            break;
        case Type::Double:
            end = std::to_chars(buffer, buffer + sizeof buffer, double_);
            break;
        default:
            return std::string();
    }
    return std::string(buffer, end.ptr);
}

std::string_view JSON::stringViewValue() const {
    return type_ == Type::String ? std::string_view(*string_) : std::string_view();
}

const JSONArray& JSON::arrayValue() const {
    return type_ == Type::Array ? *array_ : emptyValue<JSONArray>();
}

const JSONObject& JSON::objectValue() const {
    return type_ == Type::Object ? *object_ : emptyValue<JSONObject>();
}

bool JSON::operator==(const JSON& other) const {
    if (isNumber() && other.isNumber()) return numbersEqual(*this, other);
    if (type_ != other.type_) return false;
    switch (type_) {
        case Type::Null:
            return true;
        case Type::Bool:
            return bool_ == other.bool_;
        case Type::String:
            return *string_ == *other.string_;
        case Type::Array:
            return *array_ == *other.array_;
        case Type::Object:
            return *object_ == *other.object_;
        default:
            return false;
    }
}

}  // namespace MarlLogger::json
