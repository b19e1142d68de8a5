// FlatStringMap: a string-keyed map for tables built once and then only read, such as a
// configuration's URL table or a pack's resource list. A plain type: the thread rules of a
// standard container (any number of readers of a map that no one changes).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace FerritCore {

// Open addressing with linear probing over slots that hold the key's hash, where its bytes lie in
// one arena, and the value: a lookup reads one slot and then the key's bytes, instead of a bucket,
// a node and a key on the heap; the capacity is a power of two, so a hash is masked, not divided.
// There is no erase: without tombstones one would need backward-shift deletion. `Hash` is for
// tests that force collisions.
template <typename V, typename Hash = std::hash<std::string_view>>
class FlatStringMap {
    struct Slot {
        uint64_t hash = 0;  // 0: empty; a stored hash always has its top bit set
        // Full widths: the arena of a table built from outside input has no bound of ours.
        size_t offset = 0;
        size_t length = 0;
        V value{};
    };

  public:
    using value_type = std::pair<std::string_view, const V&>;

    class const_iterator {
      public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = FlatStringMap::value_type;
        using difference_type = std::ptrdiff_t;
        using pointer = void;
        using reference = value_type;

        const_iterator() = default;
        value_type operator*() const { return {map_->keyOf(*slot_), slot_->value}; }
        const_iterator& operator++() {
            ++slot_;
            skipEmpty();
            return *this;
        }
        const_iterator operator++(int) {
            const_iterator before = *this;
            ++*this;
            return before;
        }
        bool operator==(const const_iterator& other) const { return slot_ == other.slot_; }
        bool operator!=(const const_iterator& other) const { return slot_ != other.slot_; }

      private:
        friend class FlatStringMap;
        const_iterator(const FlatStringMap* map, const Slot* slot) : map_(map), slot_(slot) {
            skipEmpty();
        }
        void skipEmpty() {
            const Slot* end = map_->slots_.data() + map_->slots_.size();
            while (slot_ != end && slot_->hash == 0) ++slot_;
        }

        const FlatStringMap* map_ = nullptr;
        const Slot* slot_ = nullptr;
    };

    FlatStringMap() = default;
    FlatStringMap(const FlatStringMap&) = default;
    FlatStringMap& operator=(const FlatStringMap&) = default;
    // A moved-from map is empty, its count included.
    FlatStringMap(FlatStringMap&& other) noexcept
        : slots_(std::move(other.slots_)),
          arena_(std::move(other.arena_)),
          size_(std::exchange(other.size_, 0)) {
        other.slots_.clear();
        other.arena_.clear();
    }
    FlatStringMap& operator=(FlatStringMap&& other) noexcept {
        if (this != &other) {
            slots_ = std::move(other.slots_);
            arena_ = std::move(other.arena_);
            size_ = std::exchange(other.size_, 0);
            other.slots_.clear();
            other.arena_.clear();
        }
        return *this;
    }

    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }

    // Makes room for `count` keys of `keyBytes` bytes in all without growing again.
    void reserve(size_t count, size_t keyBytes = 0) {
        if (keyBytes > 0) arena_.reserve(arena_.size() + keyBytes);
        if (count * 2 > slots_.size()) rehash(capacityFor(count));
    }

    void clear() {
        slots_.clear();
        arena_.clear();
        size_ = 0;
    }

    // The value of `key`, or null.
    const V* find(std::string_view key) const { return findSlot(key, hashOf(key)); }
    V* find(std::string_view key) {
        return const_cast<V*>(std::as_const(*this).findSlot(key, hashOf(key)));
    }
    bool contains(std::string_view key) const { return find(key) != nullptr; }

    // Adds `key` with `value` unless it is there; the value stored, and whether it was added.
    std::pair<V*, bool> tryEmplace(std::string_view key, V value) {
        const uint64_t hash = hashOf(key);
        if (V* found = const_cast<V*>(findSlot(key, hash))) return {found, false};
        if ((size_ + 1) * 2 > slots_.size()) rehash(capacityFor(size_ + 1));
        Slot& slot = freeSlot(hash);
        slot.hash = hash;
        slot.offset = arena_.size();
        slot.length = key.size();
        arena_.append(key);
        slot.value = std::move(value);
        ++size_;
        return {&slot.value, true};
    }
    // The value of `key`, added value-initialised when it is not there.
    V& operator[](std::string_view key) { return *tryEmplace(key, V{}).first; }

    const_iterator begin() const { return const_iterator(this, slots_.data()); }
    const_iterator end() const { return const_iterator(this, slots_.data() + slots_.size()); }

  private:
    // The top bit, which the mask never reaches, so that the low bits still spread keys out.
    static constexpr uint64_t kStoredBit = uint64_t{1} << 63;

    static uint64_t hashOf(std::string_view key) {
        return static_cast<uint64_t>(Hash{}(key)) | kStoredBit;
    }
    // At most half full, so that a miss ends after a few slots.
    static size_t capacityFor(size_t count) {
        size_t capacity = 16;
        while (capacity < count * 2) capacity *= 2;
        return capacity;
    }
    std::string_view keyOf(const Slot& slot) const {
        return std::string_view(arena_.data() + slot.offset, slot.length);
    }

    const V* findSlot(std::string_view key, uint64_t hash) const {
        if (slots_.empty()) return nullptr;
        const size_t mask = slots_.size() - 1;
        for (size_t i = static_cast<size_t>(hash) & mask;; i = (i + 1) & mask) {
            const Slot& slot = slots_[i];
            if (slot.hash == 0) return nullptr;
            if (slot.hash == hash && keyOf(slot) == key) return &slot.value;
        }
    }
    Slot& freeSlot(uint64_t hash) {
        const size_t mask = slots_.size() - 1;
        size_t i = static_cast<size_t>(hash) & mask;
        while (slots_[i].hash != 0) i = (i + 1) & mask;
        return slots_[i];
    }
    void rehash(size_t capacity) {
        std::vector<Slot> old = std::exchange(slots_, std::vector<Slot>(capacity));
        for (Slot& slot : old)
            if (slot.hash != 0) freeSlot(slot.hash) = std::move(slot);
    }

    std::vector<Slot> slots_;
    std::string arena_;
    size_t size_ = 0;
};

}  // namespace FerritCore
