// The pack reader's "name with a version" and the canonical form of file paths, on arbitrary
// bytes: neither may crash, a parsed version round-trips through its text, and canonicalising is
// idempotent and never lengthens a path.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "access/Matcher.h"
#include "base/FileUtil.h"

using namespace FerritCore;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);

    NameWithVersion parsed;
    if (parseNameWithVersion(text, parsed)) {
        if (parsed.name.size() > text.size()) __builtin_trap();
        // The sequence, written back after the name, parses to the same value.
        NameWithVersion again;
        const std::string rebuilt =
            (parsed.name.empty() ? std::string() : parsed.name + "@") + std::to_string(parsed.seq);
        if (parseNameWithVersion(rebuilt, again) && again.seq != parsed.seq) __builtin_trap();
    }

    const std::string canonical = FileUtil::canonicalize(text);
    if (canonical.size() > text.size()) __builtin_trap();
    if (FileUtil::canonicalize(canonical) != canonical) __builtin_trap();
    return 0;
}
