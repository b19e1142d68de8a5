// Accept parsing and content types on arbitrary bytes: the Accept header and the paths come from
// the network, so no input may crash, read outside itself, or break the ordering promise.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/Http.h"

namespace {

void check(bool condition) {
    if (!condition) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // A copy with nothing after it, so that any read past the end is caught.
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::string_view text(input);

    // The first byte chooses where the Accept text ends and the content type begins, so that
    // both sides vary independently.
    const size_t split = size == 0 ? 0 : static_cast<size_t>(data[0]) % (size + 1);
    const std::string_view acceptText = text.substr(0, split);
    const std::string_view contentType = text.substr(split);

    const auto list = FerritCore::Http::parseAccept(acceptText);
    for (size_t i = 0; i < list.size(); ++i) {
        const auto& entry = list[i];
        check(!entry.type.empty());
        check(entry.type.data() >= acceptText.data());
        check(entry.type.data() + entry.type.size() <= acceptText.data() + acceptText.size());
        check(!std::isnan(entry.quality));
        if (i > 0) check(list[i - 1].quality >= entry.quality);
    }
    const bool accepted = FerritCore::Http::accepts(list, contentType);
    if (list.empty() || contentType.empty()) check(accepted);
    (void)FerritCore::Http::accepts(FerritCore::Http::parseAccept(text), text);

    const std::string_view mime = FerritCore::Http::mimeView(text);
    if (!mime.empty()) check(mime.find('/') != std::string_view::npos);
    check(FerritCore::Http::mimeFor(text) == mime);
    return 0;
}
