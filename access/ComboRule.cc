#include "access/ComboRule.h"

#include <algorithm>
#include <string>
#include <unordered_map>

#include "base/Url.h"
#include "runtime/Settings.h"

#ifndef FERRIT_COMBO_HOST
#define FERRIT_COMBO_HOST "static.example.com"
#endif

namespace FerritCore {
namespace {

constexpr std::string_view kComboMark = "??";
// What the files of a batch may number: 25 at this limit.
constexpr uint32_t kComboLimit = 50;
// Files of one aggregate URL that the split makes room for at once.
constexpr size_t kReservedFiles = 64;

using RuleTable = std::unordered_map<std::string, ComboRule>;

const RuleTable& rules() {
    static const RuleTable* const table = [] {
        auto* made = new RuleTable();
        const std::string& host = comboRuleHost();
        (*made)[host + " js"] = ComboRule{"/ferrit/s/", kComboLimit, true, ".js"};
        (*made)[host + " css"] = ComboRule{"/ferrit/s/", kComboLimit, true, ".css"};
        return made;
    }();
    return *table;
}

}  // namespace

const std::string& comboRuleHost() {
    static const std::string* const host = new std::string(FERRIT_COMBO_HOST);
    return *host;
}

const ComboRule* comboRuleFor(std::string_view bareUrl) {
    if (!Settings::current()->aggregateRequestEnabledValue()) return nullptr;
    std::string key(Url::origin(bareUrl));
    key.push_back(' ');
    key.append(Url::extension(bareUrl));
    const RuleTable& table = rules();
    auto found = table.find(key);
    if (found == table.end() || !found->second.enabled) return nullptr;
    return &found->second;
}

bool splitCombo(std::string_view url, const ComboRule* rule, std::vector<std::string>& urls) {
    if (url.find(kComboMark) == std::string_view::npos) return false;
    if (rule != nullptr && !rule->path.empty() && url.find(rule->path) != std::string_view::npos)
        return false;
    // Only "#" ends the URL here: a "?" would cut the "??" itself.
    std::string_view text = url.substr(0, url.find('#'));
    text.remove_prefix(Url::schemeLength(text));
    const size_t mark = text.find(kComboMark);
    if (mark == std::string_view::npos) return false;
    std::string prefix(text.substr(0, mark));
    Url::ensureTrailingSlash(prefix);

    std::string_view rest = text.substr(mark + kComboMark.size());
    std::vector<std::string> found;
    // One file per piece at most: the list is sized once for a page's usual count, and a URL of
    // thousands of empty pieces cannot make it reserve more than it will hold.
    found.reserve(std::min(static_cast<size_t>(std::count(rest.begin(), rest.end(), ',')) + 1,
                           kReservedFiles));
    for (;;) {
        const size_t comma = rest.find(',');
        std::string_view piece = rest.substr(0, comma);
        piece = piece.substr(0, Url::terminator(piece));
        if (!piece.empty()) {
            if (piece.starts_with('/')) piece.remove_prefix(1);
            // A piece "/" after nothing names no file at all.
            if (piece.empty() && prefix.empty()) {
                if (comma == std::string_view::npos) break;
                rest.remove_prefix(comma + 1);
                continue;
            }
            std::string one;
            one.reserve(prefix.size() + piece.size());
            one.append(prefix).append(piece);
            found.push_back(std::move(one));
        }
        if (comma == std::string_view::npos) break;
        rest.remove_prefix(comma + 1);
    }
    if (found.empty()) return false;
    urls = std::move(found);
    return true;
}

}  // namespace FerritCore
