// ResourceRequest: what the host asks for. A plain value owned by the caller; not thread-safe.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "ferritcore/Export.h"

namespace FerritCore {

// HeaderMap: a request's or a response's headers, name to value. The names compare exactly, as
// written; the helpers of the library that look a header up by HTTP's rules ignore their case.
// The entries keep the order in which they were first set. Not thread-safe.
// It is one array, not a node-based map, and so unlike std::unordered_map (its type before 11.0):
// - an insert may move every entry: it invalidates all references and iterators to entries, and
//   an erase those at and after the erased one (write `it = headers.erase(it)`, never
//   `headers.erase(it++)`);
// - an entry's name is not const: renaming one to a name that is there already makes two;
// - setting a header scans the entries, so n headers cost n*n/2 comparisons to build: meant for
//   the few dozen headers an HTTP message has.
class HeaderMap {
  public:
    using key_type = std::string;
    using mapped_type = std::string;
    using value_type = std::pair<std::string, std::string>;
    using size_type = size_t;
    using iterator = std::vector<value_type>::iterator;
    using const_iterator = std::vector<value_type>::const_iterator;

    HeaderMap() = default;
    HeaderMap(std::initializer_list<value_type> entries) { insert(entries.begin(), entries.end()); }
    template <typename It>
    HeaderMap(It first, It last) {
        insert(first, last);
    }

    iterator begin() { return entries_.begin(); }
    iterator end() { return entries_.end(); }
    const_iterator begin() const { return entries_.begin(); }
    const_iterator end() const { return entries_.end(); }
    const_iterator cbegin() const { return entries_.cbegin(); }
    const_iterator cend() const { return entries_.cend(); }

    size_t size() const { return entries_.size(); }
    bool empty() const { return entries_.empty(); }
    void reserve(size_t count) { entries_.reserve(count); }
    void clear() { entries_.clear(); }

    // A request or a response has a handful of headers: a scan of one array beats hashing each
    // name, and the whole map is one allocation.
    iterator find(std::string_view name) {
        for (auto it = entries_.begin(); it != entries_.end(); ++it) {
            if (it->first == name) return it;
        }
        return entries_.end();
    }
    const_iterator find(std::string_view name) const {
        return const_cast<HeaderMap*>(this)->find(name);
    }
    size_t count(std::string_view name) const { return find(name) != end() ? 1 : 0; }
    bool contains(std::string_view name) const { return find(name) != end(); }

    std::string& operator[](std::string_view name) { return try_emplace(name).first->second; }
    // As a map's: throws std::out_of_range when the name is absent (in the caller's code, which
    // asked for it; nothing inside the library calls it).
    std::string& at(std::string_view name) {
        auto it = find(name);
        if (it == end()) throw std::out_of_range("HeaderMap::at");
        return it->second;
    }
    const std::string& at(std::string_view name) const {
        return const_cast<HeaderMap*>(this)->at(name);
    }

    // Adds the entry unless its name is there already, as a map does.
    template <typename... Value>
    std::pair<iterator, bool> try_emplace(std::string_view name, Value&&... value) {
        auto it = find(name);
        if (it != end()) return {it, false};
        entries_.emplace_back(std::piecewise_construct, std::forward_as_tuple(name),
                              std::forward_as_tuple(std::forward<Value>(value)...));
        return {std::prev(entries_.end()), true};
    }
    template <typename Name, typename Value>
    std::pair<iterator, bool> emplace(Name&& name, Value&& value) {
        auto it = find(std::string_view(name));
        if (it != end()) return {it, false};
        entries_.emplace_back(std::forward<Name>(name), std::forward<Value>(value));
        return {std::prev(entries_.end()), true};
    }
    std::pair<iterator, bool> insert(const value_type& entry) {
        return emplace(entry.first, entry.second);
    }
    std::pair<iterator, bool> insert(value_type&& entry) {
        return emplace(std::move(entry.first), std::move(entry.second));
    }
    template <typename It>
    void insert(It first, It last) {
        for (; first != last; ++first) emplace(first->first, first->second);
    }
    void insert(std::initializer_list<value_type> entries) {
        insert(entries.begin(), entries.end());
    }
    template <typename Value>
    std::pair<iterator, bool> insert_or_assign(std::string_view name, Value&& value) {
        auto [it, added] = try_emplace(name);
        it->second = std::forward<Value>(value);
        return {it, added};
    }

    iterator erase(const_iterator position) { return entries_.erase(position); }
    iterator erase(iterator position) { return entries_.erase(position); }
    size_t erase(std::string_view name) {
        auto it = find(name);
        if (it == end()) return 0;
        entries_.erase(it);
        return 1;
    }

    // Equal when both hold the same names with the same values, in any order.
    friend bool operator==(const HeaderMap& a, const HeaderMap& b) {
        if (a.size() != b.size()) return false;
        for (const auto& [name, value] : a) {
            auto it = b.find(name);
            if (it == b.end() || it->second != value) return false;
        }
        return true;
    }

  private:
    std::vector<value_type> entries_;
};

// ResourceType: 1 names a UniApp pack; anything else is the default.
constexpr int32_t kResourceTypeUniApp = 1;

class FERRIT_EXPORT ResourceRequest {
  public:
    ResourceRequest(const std::string& url, const std::string& referrer);
    // `referrer` is the "Referer" header (name compared without case). The entries "ETag" and
    // "Last-Modified" are dropped from the copy of `header`; nothing downstream may rely on them.
    ResourceRequest(const std::string& url, const HeaderMap& header);

    const HeaderMap& header() const { return header_; }
    // True only when `type` is 1 and both the pack name and version are given.
    bool isUniApp() const;

    std::string url;
    std::string referrer;
    std::string parentId;
    int32_t type = 0;
    std::string packName;
    std::string packVersion;

  private:
    HeaderMap header_;
};

}  // namespace FerritCore
