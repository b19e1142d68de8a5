// A compressed trie over the "//" form of URL prefixes. Built once per configuration snapshot and
// read-only afterwards, so any number of threads may look up at once; building is not thread-safe.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace FerritCore {

struct PrefixValue {
    std::string packName;  // may be empty: then only acceptPacks can answer
    std::unordered_map<std::string, std::string> acceptPacks;  // accept type -> pack name
};

struct PrefixNode {
    std::string text;  // characters this edge holds after its first one
    // The first character of each child's edge, and the child (owned by the tree). Few per node,
    // so a flat vector searched linearly beats a hash map here.
    std::vector<std::pair<char, PrefixNode*>> children;
    std::vector<PrefixValue> values;  // none: a pure branch

    PrefixNode* child(char c) const;
};

class PrefixTree {
  public:
    PrefixTree();
    // A tree moved from holds nothing and may only be assigned to or destroyed.
    PrefixTree(PrefixTree&& other) noexcept;
    PrefixTree& operator=(PrefixTree&& other) noexcept;

    // Adds a value under `prefix` (already in "//" form). Values of one prefix keep their order.
    void add(std::string_view prefix, PrefixValue value);
    // The first value under `prefix`, added empty when there is none, for a builder that fills a
    // prefix's value from several sources. Valid until the tree next changes.
    PrefixValue& value(std::string_view prefix);
    // The pack that serves `url`: the longest prefix wins; within a prefix the accept types decide,
    // by quality; a prefix that neither a type nor a default answers gives way to a shorter one.
    // A prefix matches only at a "/" boundary or as the whole URL. Empty when nothing matches.
    // `accept` is the lower-cased Accept header; it is parsed at most once, and only when needed.
    // The result views into the tree.
    std::string_view lookup(std::string_view url, std::string_view accept) const;
    bool empty() const { return root_->children.empty() && root_->values.empty(); }
    size_t size() const { return size_; }

  private:
    // The node that ends `prefix`, made (and edges split) as needed.
    PrefixNode* nodeFor(std::string_view prefix);
    // A new empty node from the current block, starting a larger block when it is full.
    PrefixNode* makeNode();

    // Nodes live in blocks that never move: a tree of thousands of prefixes costs a few dozen
    // allocations for its nodes instead of one each, and moving the tree keeps every pointer.
    std::vector<std::unique_ptr<PrefixNode[]>> blocks_;
    size_t blockSize_ = 0;
    size_t usedInBlock_ = 0;
    PrefixNode* root_ = nullptr;
    // While building: the last prefix added and the nodes on its path, each with the length of
    // the prefix it ends. Prefixes come in runs that share their start (those of one pack), so a
    // walk resumes from the deepest node the next prefix shares instead of from the root.
    std::string lastPrefix_;
    std::vector<std::pair<PrefixNode*, size_t>> lastPath_;
    size_t size_ = 0;
};

}  // namespace FerritCore
