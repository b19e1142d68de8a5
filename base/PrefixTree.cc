#include "base/PrefixTree.h"

#include <optional>

#include "base/Http.h"

namespace FerritCore {

PrefixNode* PrefixNode::child(char c) const {
    for (const auto& [first, node] : children)
        if (first == c) return node.get();
    return nullptr;
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
    PrefixNode* node = root_.get();
    size_t pos = 0;
    while (pos < prefix.size()) {
        const char first = prefix[pos];
        PrefixNode* next = node->child(first);
        std::string_view rest = prefix.substr(pos + 1);
        if (next == nullptr) {
            auto leaf = std::make_unique<PrefixNode>();
            leaf->text.assign(rest);
            next = leaf.get();
            node->children.emplace_back(first, std::move(leaf));
            node = next;
            pos = prefix.size();
            break;
        }
        // Length of the common run of the edge text and the rest of the prefix.
        size_t common = 0;
        while (common < next->text.size() && common < rest.size() &&
               next->text[common] == rest[common])
            ++common;
        if (common < next->text.size()) {
            // Split the edge: `next` keeps the tail below a new node holding the common run.
            auto middle = std::make_unique<PrefixNode>();
            middle->text = next->text.substr(0, common);
            const char tailFirst = next->text[common];
            for (auto& entry : node->children) {
                if (entry.first != first) continue;
                std::unique_ptr<PrefixNode> tail = std::move(entry.second);
                tail->text.erase(0, common + 1);
                middle->children.emplace_back(tailFirst, std::move(tail));
                entry.second = std::move(middle);
                next = entry.second.get();
                break;
            }
        }
        node = next;
        pos += 1 + common;
    }
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

    const PrefixNode* node = root_.get();
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
