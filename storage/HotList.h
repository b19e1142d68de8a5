// HotList: which cached URLs stay. A size-bounded circular list with second chances: new URLs
// join at the head while there is room, a node hit twice survives one pass of the eviction hand,
// and once the list is full newcomers join its cold part. ModuleCache and UniApp each keep one.
//
// Threading: any thread. One mutex per list, taken for each operation; the eviction callback runs
// after it is released, on the thread that caused the eviction, so that it may call into the
// content cache (whose locks must never nest inside this one) or into this list again.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "marl/Json.h"
#include "support/Mutex.h"

namespace FerritCore {

class HotList {
  public:
    // Told which URLs left the list: the total size before and after, and the URLs in the order
    // they went.
    using EvictCallback = std::function<void(int64_t originSize, int64_t newSize,
                                             const std::vector<std::string>& evicted)>;

    // A node hit this often survives the eviction hand once.
    static constexpr uint32_t kChanceThreshold = 2;

    // An empty list; `onEvict` may be empty. The hot part is `minHotCount` long until load().
    HotList(int64_t maxSize, uint64_t minHotCount, EvictCallback onEvict);
    HotList(const HotList&) = delete;
    HotList& operator=(const HotList&) = delete;

    // Records a use of `url` with the size of its content. A known URL counts a hit when
    // `countHit` is set and takes the new size; a new URL joins the list. Evicts while the list is
    // over its limit, then tells the callback. True exactly when a node was added.
    bool touch(std::string_view url, int64_t size, bool countHit);
    bool contains(std::string_view url) const;
    // Unlinks the URL without telling the callback; false when it was not there.
    bool remove(std::string_view url);
    // Empties the list; the limits stay.
    void clear();

    // Replaces the list with the serialised form {"nodes": [{"k": url, "s": size, "v": hits}]},
    // head first. The hot part becomes the larger of half the nodes and the minimum, and the node
    // at that index becomes the cold hand. Entries without a URL, and repeats, are skipped.
    void load(const MarlLogger::json::JSON& serialised);
    // The serialised form, head first.
    MarlLogger::json::JSON toJSON() const;

    uint64_t count() const;
    int64_t totalSize() const;
    int64_t maxSize() const;
    uint64_t hotCount() const;

    // For tests and the inspector: the URLs from the head on, the cold hand's URL (empty while
    // there is no cold part), and a node's hits (0 when absent).
    std::vector<std::string> urls() const;
    std::string coldHandUrl() const;
    uint32_t hits(std::string_view url) const;

  private:
    struct Node {
        const std::string* url = nullptr;  // the key of this node in `nodes_`
        int64_t size = 0;
        uint32_t hits = 1;
        Node* previous = nullptr;
        Node* next = nullptr;
    };
    struct Hash {
        using is_transparent = void;
        size_t operator()(std::string_view text) const {
            return std::hash<std::string_view>()(text);
        }
    };
    using NodeMap = std::unordered_map<std::string, Node, Hash, std::equal_to<>>;

    // Puts an unlinked node at the head; the cold hand steps back so that the hot part keeps its
    // length, and a list that just outgrew its hot part gets its tail as the cold hand.
    void pushFront(Node& node) REQUIRES(mutex_);
    // Links an unlinked node just before `before`.
    void linkBefore(Node& node, Node& before) REQUIRES(mutex_);
    void unlink(Node& node) REQUIRES(mutex_);
    // Removes tail nodes, sparing those hit often enough once, until the list is within its
    // limit; appends what went to `evicted`.
    void evict(std::vector<std::string>& evicted) REQUIRES(mutex_);
    void notify(int64_t originSize, int64_t newSize, const std::vector<std::string>& evicted) const;

    const EvictCallback onEvict_;
    mutable Mutex mutex_;
    int64_t maxSize_ GUARDED_BY(mutex_);
    uint64_t hotCount_ GUARDED_BY(mutex_);
    uint64_t minHotCount_ GUARDED_BY(mutex_);
    uint64_t count_ GUARDED_BY(mutex_) = 0;
    int64_t totalSize_ GUARDED_BY(mutex_) = 0;
    NodeMap nodes_ GUARDED_BY(mutex_);
    // head_->previous is the tail; coldHand_ is the first node of the cold part, null while the
    // list is no longer than its hot part.
    Node* head_ GUARDED_BY(mutex_) = nullptr;
    Node* coldHand_ GUARDED_BY(mutex_) = nullptr;
};

}  // namespace FerritCore
