#include "storage/HotList.h"

#include <algorithm>

namespace FerritCore {

using MarlLogger::json::JSON;
using MarlLogger::json::JSONArray;
using MarlLogger::json::JSONObject;

HotList::HotList(int64_t maxSize, uint64_t minHotCount, EvictCallback onEvict)
    : onEvict_(std::move(onEvict)),
      maxSize_(maxSize),
      hotCount_(minHotCount),
      minHotCount_(minHotCount) {}

void HotList::pushFront(Node& node) {
    mutex_.assertHeld();
    if (head_ == nullptr) {
        node.previous = node.next = &node;
    } else {
        linkBefore(node, *head_);
    }
    head_ = &node;
    // Everything moved one step back: the node that was last of the hot part is now the first of
    // the cold part.
    if (coldHand_ != nullptr) coldHand_ = coldHand_->previous;
    if (count_ == hotCount_ + 1) coldHand_ = head_->previous;
}

void HotList::linkBefore(Node& node, Node& before) {
    mutex_.assertHeld();
    node.next = &before;
    node.previous = before.previous;
    before.previous->next = &node;
    before.previous = &node;
}

void HotList::unlink(Node& node) {
    mutex_.assertHeld();
    if (node.next == &node) {
        head_ = nullptr;
        coldHand_ = nullptr;
    } else {
        Node* next = node.next;
        const bool wasHead = head_ == &node;
        // The node after the cold hand takes its place, unless the hand was the tail: then the
        // cold part is gone.
        if (coldHand_ == &node) coldHand_ = next == head_ && !wasHead ? nullptr : next;
        if (wasHead) head_ = next;
        node.previous->next = node.next;
        node.next->previous = node.previous;
    }
    node.previous = node.next = nullptr;
}

void HotList::evict(std::vector<std::string>& evicted) {
    mutex_.assertHeld();
    while (totalSize_ > maxSize_ && head_ != nullptr) {
        Node* tail = head_->previous;
        // A tail hit often enough gets its second chance: its hits start again from 0 and it
        // becomes the head, which in a circular list is only a step of the head back. The hot part
        // keeps its length, so the cold hand steps back too. Every spared node has 0 hits
        // afterwards, so this ends within one turn.
        while (tail->hits >= kChanceThreshold) {
            tail->hits = 0;
            head_ = tail;
            if (coldHand_ != nullptr) coldHand_ = coldHand_->previous;
            tail = head_->previous;
        }
        evicted.push_back(*tail->url);
        totalSize_ -= tail->size;
        --count_;
        unlink(*tail);
        nodes_.erase(evicted.back());
    }
    if (count_ <= hotCount_) coldHand_ = nullptr;
}

void HotList::notify(int64_t originSize, int64_t newSize,
                     const std::vector<std::string>& evicted) const {
    if (onEvict_ && !evicted.empty()) onEvict_(originSize, newSize, evicted);
}

bool HotList::touch(std::string_view url, int64_t size, bool countHit) {
    std::vector<std::string> evicted;
    int64_t originSize = 0;
    int64_t newSize = 0;
    bool added = false;
    {
        MutexLock lock(mutex_);
        auto found = nodes_.find(url);
        if (found != nodes_.end()) {
            Node& node = found->second;
            if (countHit) ++node.hits;
            if (node.size == size) return false;
            totalSize_ += size - node.size;
            node.size = size;
            if (totalSize_ <= maxSize_) return false;
            originSize = totalSize_;
            evict(evicted);
            newSize = totalSize_;
        } else {
            auto [it, inserted] = nodes_.try_emplace(std::string(url));
            Node& node = it->second;
            node.url = &it->first;
            node.size = size;
            ++count_;
            totalSize_ += size;
            added = true;
            if (totalSize_ <= maxSize_) {
                pushFront(node);
                return true;
            }
            // Full: room is made first, from what is already linked. The newcomer then joins the
            // cold part, so that it has to earn its place, or the head when there is none; a node
            // larger than the whole limit thus ends up alone and stays until the next insertion.
            originSize = totalSize_;
            evict(evicted);
            newSize = totalSize_;
            if (coldHand_ != nullptr) {
                linkBefore(node, *coldHand_);
                // A list without a hot part is all cold: its first node is the head as well.
                if (coldHand_ == head_) head_ = &node;
                coldHand_ = &node;
            } else {
                pushFront(node);
            }
        }
    }
    notify(originSize, newSize, evicted);
    return added;
}

bool HotList::contains(std::string_view url) const {
    MutexLock lock(mutex_);
    return nodes_.find(url) != nodes_.end();
}

bool HotList::remove(std::string_view url) {
    MutexLock lock(mutex_);
    auto found = nodes_.find(url);
    if (found == nodes_.end()) return false;
    Node& node = found->second;
    totalSize_ -= node.size;
    --count_;
    unlink(node);
    nodes_.erase(found);
    if (count_ <= hotCount_) coldHand_ = nullptr;
    return true;
}

void HotList::clear() {
    MutexLock lock(mutex_);
    nodes_.clear();
    head_ = nullptr;
    coldHand_ = nullptr;
    count_ = 0;
    totalSize_ = 0;
}

void HotList::load(const JSON& serialised) {
    MutexLock lock(mutex_);
    nodes_.clear();
    head_ = nullptr;
    coldHand_ = nullptr;
    count_ = 0;
    totalSize_ = 0;
    const JSONArray& stored = serialised["nodes"].arrayValue();
    std::vector<Node*> order;
    order.reserve(stored.size());
    for (const JSON& item : stored) {
        const std::string_view url = item["k"].stringViewValue();
        if (url.empty()) continue;
        auto [it, inserted] = nodes_.try_emplace(std::string(url));
        if (!inserted) continue;
        Node& node = it->second;
        node.url = &it->first;
        node.size = item["s"].int64Value();
        node.hits = item["v"].uint32Value();
        totalSize_ += node.size;
        order.push_back(&node);
    }
    count_ = order.size();
    hotCount_ = std::max<uint64_t>(count_ / 2, minHotCount_);
    for (Node* node : order) {
        if (head_ == nullptr) {
            node->previous = node->next = node;
            head_ = node;
        } else {
            linkBefore(*node, *head_);  // before the head is after the tail
        }
    }
    coldHand_ = hotCount_ < order.size() ? order[hotCount_] : nullptr;
}

JSON HotList::toJSON() const {
    MutexLock lock(mutex_);
    JSONArray nodes;
    nodes.reserve(count_);
    if (head_ != nullptr) {
        const Node* node = head_;
        do {
            nodes.push_back(JSONObject{
                {"k", JSON(*node->url)}, {"s", JSON(node->size)}, {"v", JSON(node->hits)}});
            node = node->next;
        } while (node != head_);
    }
    return JSONObject{{"nodes", JSON(std::move(nodes))}};
}

uint64_t HotList::count() const {
    MutexLock lock(mutex_);
    return count_;
}

int64_t HotList::totalSize() const {
    MutexLock lock(mutex_);
    return totalSize_;
}

int64_t HotList::maxSize() const {
    MutexLock lock(mutex_);
    return maxSize_;
}

uint64_t HotList::hotCount() const {
    MutexLock lock(mutex_);
    return hotCount_;
}

std::vector<std::string> HotList::urls() const {
    MutexLock lock(mutex_);
    std::vector<std::string> result;
    if (head_ == nullptr) return result;
    const Node* node = head_;
    do {
        result.push_back(*node->url);
        node = node->next;
    } while (node != head_);
    return result;
}

std::string HotList::coldHandUrl() const {
    MutexLock lock(mutex_);
    return coldHand_ != nullptr ? *coldHand_->url : std::string();
}

uint32_t HotList::hits(std::string_view url) const {
    MutexLock lock(mutex_);
    auto found = nodes_.find(url);
    return found == nodes_.end() ? 0 : found->second.hits;
}

}  // namespace FerritCore
