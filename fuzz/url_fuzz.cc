// Every URL function and the matcher's prefix lookup on arbitrary bytes: none may crash, and the
// forms must keep their invariants.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/PrefixTree.h"
#include "base/Url.h"

using namespace FerritCore;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view s(reinterpret_cast<const char*>(data), size);
    const size_t scheme = Url::schemeLength(s);
    const size_t end = Url::terminator(s);
    if (scheme > s.size() || end > s.size()) __builtin_trap();
    const std::string_view bare = Url::bare(s);
    if (bare.size() > s.size()) __builtin_trap();
    const std::string key = Url::key(s);
    // A key is stable: keying a key gives it back.
    if (!key.empty() && key.starts_with("//") && Url::key(key) != key) __builtin_trap();
    if (Url::authorityEnd(s) > s.size()) __builtin_trap();
    if (Url::origin(s).size() + Url::pathPart(s).size() != s.size()) __builtin_trap();
    (void)Url::extension(s);
    (void)Url::isAbsolute(s);
    std::string copy(s);
    Url::trimLeadingSlash(copy);
    Url::ensureTrailingSlash(copy);

    // The first half of the input names prefixes, the second half is looked up.
    PrefixTree tree;
    const std::string_view prefixes = s.substr(0, s.size() / 2);
    size_t start = 0;
    for (size_t i = 0; i <= prefixes.size(); ++i) {
        if (i == prefixes.size() || prefixes[i] == '\n') {
            if (i > start) {
                PrefixValue value;
                value.packName = "p" + std::to_string(start);
                tree.add(prefixes.substr(start, i - start), std::move(value));
            }
            start = i + 1;
        }
    }
    const std::string_view url = s.substr(s.size() / 2);
    const std::string_view found = tree.lookup(url, "text/html, image/*;q=0.5");
    if (!found.empty() && found[0] != 'p') __builtin_trap();
    return 0;
}
