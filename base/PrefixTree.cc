#include "base/PrefixTree.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "base/Http.h"

namespace FerritCore {

namespace {

// The first block of nodes is small, as most trees are; each next one doubles, up to this.
constexpr size_t kFirstBlock = 8;
constexpr size_t kLargestBlock = 1024;

}  // namespace

PrefixNode* PrefixNode::child(char c) const {
    for (const auto& [first, node] : children)
        if (first == c) return node;
    return nullptr;
}

PrefixTree::PrefixTree() {
    root_ = makeNode();
    lastPath_.emplace_back(root_, 0);
}

PrefixTree::PrefixTree(PrefixTree&& other) noexcept
    : blocks_(std::move(other.blocks_)),
      blockSize_(std::exchange(other.blockSize_, 0)),
      usedInBlock_(std::exchange(other.usedInBlock_, 0)),
      root_(std::exchange(other.root_, nullptr)),
      lastPrefix_(std::move(other.lastPrefix_)),
      lastPath_(std::move(other.lastPath_)),
      size_(std::exchange(other.size_, 0)) {}

PrefixTree& PrefixTree::operator=(PrefixTree&& other) noexcept {
    if (this != &other) {
        blocks_ = std::move(other.blocks_);
        blockSize_ = std::exchange(other.blockSize_, 0);
        usedInBlock_ = std::exchange(other.usedInBlock_, 0);
        root_ = std::exchange(other.root_, nullptr);
        lastPrefix_ = std::move(other.lastPrefix_);
        lastPath_ = std::move(other.lastPath_);
        size_ = std::exchange(other.size_, 0);
    }
    return *this;
}

PrefixNode* PrefixTree::makeNode() {
    if (usedInBlock_ == blockSize_) {
        blockSize_ = blockSize_ == 0 ? kFirstBlock : std::min(blockSize_ * 2, kLargestBlock);
        blocks_.push_back(std::make_unique<PrefixNode[]>(blockSize_));
        usedInBlock_ = 0;
    }
    return &blocks_.back()[usedInBlock_++];
}

void PrefixTree::add(std::string_view prefix, PrefixValue value) {
    nodeFor(prefix)->values.push_back(std::move(value));
    ++size_;
}

PrefixValue& PrefixTree::value(std::string_view prefix) {
    PrefixNode* node = nodeFor(prefix);
    if (node->values.empty()) {
        node->values.emplace_back();
        ++size_;
    }
    return node->values.front();
}

PrefixNode* PrefixTree::nodeFor(std::string_view prefix) {
    // Resume below the deepest node of the last prefix's path whose whole path this one shares;
    // the root, which ends no character, always stays.
    size_t shared = 0;
    const size_t limit = std::min(prefix.size(), lastPrefix_.size());
    while (shared < limit && prefix[shared] == lastPrefix_[shared]) ++shared;
    while (lastPath_.back().second > shared) lastPath_.pop_back();
    PrefixNode* node = lastPath_.back().first;
    size_t pos = lastPath_.back().second;
    while (pos < prefix.size()) {
        const char first = prefix[pos];
        PrefixNode* next = node->child(first);
        std::string_view rest = prefix.substr(pos + 1);
        if (next == nullptr) {
            PrefixNode* leaf = makeNode();
            leaf->text.assign(rest);
            node->children.emplace_back(first, leaf);
            node = leaf;
            pos = prefix.size();
            lastPath_.emplace_back(node, pos);
            break;
        }
        // Length of the common run of the edge text and the rest of the prefix.
        size_t common = 0;
        while (common < next->text.size() && common < rest.size() &&
               next->text[common] == rest[common])
            ++common;
        if (common < next->text.size()) {
            // Split the edge: `next` keeps the tail below a new node holding the common run.
            PrefixNode* middle = makeNode();
            middle->text = next->text.substr(0, common);
            const char tailFirst = next->text[common];
            next->text.erase(0, common + 1);
            middle->children.emplace_back(tailFirst, next);
            for (auto& entry : node->children) {
                if (entry.first != first) continue;
                entry.second = middle;
                break;
            }
            next = middle;
        }
        node = next;
        pos += 1 + common;
        lastPath_.emplace_back(node, pos);
    }
    lastPrefix_.assign(prefix);
    return node;
}

std::string_view PrefixTree::lookup(std::string_view url, std::string_view accept) const {
    if (url.empty()) return {};
    // Candidates, shortest first; URLs are short, so a fixed stack avoids allocating. Deeper
    // candidates than it holds replace the top, which keeps the longest one, the one that matters
    // most.
    constexpr size_t kMaxCandidates = 64;
    const PrefixNode* candidates[kMaxCandidates];
    size_t count = 0;

    const PrefixNode* node = root_;
    size_t pos = 0;
    while (pos < url.size()) {
        const PrefixNode* next = node->child(url[pos]);
        if (next == nullptr) break;
        const std::string_view rest = url.substr(pos + 1);
        if (rest.size() < next->text.size() || rest.compare(0, next->text.size(), next->text) != 0)
            break;
        pos += 1 + next->text.size();
        node = next;
        if (!node->values.empty() && (url[pos - 1] == '/' || pos == url.size())) {
            if (count < kMaxCandidates) {
                candidates[count++] = node;
            } else {
                candidates[kMaxCandidates - 1] = node;
            }
        }
    }

    std::optional<std::vector<Http::AcceptType>> acceptTypes;
    while (count > 0) {
        const PrefixNode* candidate = candidates[--count];
        for (const PrefixValue& value : candidate->values) {
            if (value.acceptPacks.empty()) {
                if (!value.packName.empty()) return value.packName;
                continue;
            }
            if (!acceptTypes) acceptTypes = Http::parseAccept(accept);
            for (const auto& type : *acceptTypes) {
                auto hit = value.acceptPacks.find(std::string(type.type));
                if (hit != value.acceptPacks.end()) return hit->second;
            }
            if (!value.packName.empty()) return value.packName;
        }
    }
    return {};
}

}  // namespace FerritCore
