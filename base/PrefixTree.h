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
    // The first character of each child's edge, and the child. Few per node, so a flat vector
    // searched linearly beats a hash map here.
    std::vector<std::pair<char, std::unique_ptr<PrefixNode>>> children;
    std::vector<PrefixValue> values;  // none: a pure branch

    PrefixNode* child(char c) const;
};

class PrefixTree {
  public:
    PrefixTree() : root_(std::make_unique<PrefixNode>()) {}
    PrefixTree(PrefixTree&&) noexcept = default;
    PrefixTree& operator=(PrefixTree&&) noexcept = default;

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

    std::unique_ptr<PrefixNode> root_;
    size_t size_ = 0;
};

}  // namespace FerritCore
