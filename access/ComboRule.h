// Aggregate (COMBO) URLs, "prefix??a.js,b.js": the fixed table of the hosts whose aggregate URLs
// the system splits and builds, and the split itself. Pure functions over a table built once on
// first use; any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace FerritCore {

struct ComboRule {
    // Every URL that an aggregate request builds carries this path (in its guard file), so that
    // such a URL is never split again.
    std::string path;
    // A batch is full when twice its URLs plus two exceed this.
    uint32_t limit = 0;
    bool enabled = false;
    // The extension of the guard file.
    std::string suffix;
};

// The host of the static-content CDN that keys the table: a build setting.
const std::string& comboRuleHost();

// The rule kept under origin(bareUrl) + " " + extension(bareUrl); null when there is none, when it
// is not enabled, or when the setting "aggregateRequestEnabled" is off.
const ComboRule* comboRuleFor(std::string_view bareUrl);

// Splits an aggregate URL into one URL per file, each without a scheme: the text before "??" (cut
// at the first "#", with a "/" ensured at its end) followed by each piece after it that is not
// empty once cut at its own "?" or "#", less one leading "/" (so that a piece "/" names the
// prefix itself). False, with `urls` untouched, when
// the URL holds no "??", when it carries `rule`'s path (it was built by an aggregate request), or
// when no piece is left.
bool splitCombo(std::string_view url, const ComboRule* rule, std::vector<std::string>& urls);

}  // namespace FerritCore
