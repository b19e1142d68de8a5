// StringMap: a hash map keyed by strings that is looked up by std::string_view, so that a lookup
// need not build a string key. A plain type: the thread rules of std::unordered_map.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace FerritCore {

// Hash and equality that accept std::string_view, so that lookups need not build a string key.
struct StringHash {
    using is_transparent = void;
    size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
};
struct StringEqual {
    using is_transparent = void;
    bool operator()(std::string_view a, std::string_view b) const { return a == b; }
};
template <typename V>
using StringMap = std::unordered_map<std::string, V, StringHash, StringEqual>;

}  // namespace FerritCore
