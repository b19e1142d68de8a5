// The split of aggregate URLs on arbitrary bytes: a URL comes from the page, so no text may crash
// it, and what it gives must keep its shape: every file is the prefix followed by a non-empty
// piece, never more files than pieces, and a refusal leaves the output untouched.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "access/ComboRule.h"

using namespace FerritCore;

namespace {

void check(bool condition) {
    if (!condition) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // An input that starts with 'R' is split under a rule, as a URL of the CDN's host would be.
    static const ComboRule kRule{"/ferrit/s/", 50, true, ".js"};
    std::string_view url(reinterpret_cast<const char*>(data), size);
    const ComboRule* rule = nullptr;
    if (!url.empty() && url.front() == 'R') {
        rule = &kRule;
        url.remove_prefix(1);
    }
    std::vector<std::string> urls{"untouched"};
    const bool split = splitCombo(url, rule, urls);
    if (!split) {
        check(urls.size() == 1 && urls.front() == "untouched");
        return 0;
    }
    check(!urls.empty());
    check(url.find("??") != std::string_view::npos);
    if (rule != nullptr) check(url.find(rule->path) == std::string_view::npos);
    // Every file came from a piece between commas, and kept no fragment.
    size_t commas = 0;
    for (const char c : url) commas += c == ',' ? 1 : 0;
    check(urls.size() <= commas + 1);
    for (const std::string& one : urls) {
        check(!one.empty());
        check(one.size() <= url.size() + 1);
        check(one.find('#') == std::string::npos);
    }
    return 0;
}
