// The split of an aggregate answer on arbitrary bytes: the body comes from the network, so no
// body may crash it; a split that succeeds gives exactly the files asked for, each a piece of the
// body in order, and one that fails gives 1010 and nothing. The batch's own URL is built from the
// same bytes and must keep its form.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "access/AggregateRequest.h"
#include "base/Errors.h"

using namespace FerritCore;

namespace {

void check(bool condition) {
    if (!condition) __builtin_trap();
}

constexpr uint32_t kAggregateVerifyFailed = Errors::kRequestVerify;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    // The first byte is how many files the batch asked for; the rest is the answer's body.
    const size_t expected = data[0] % 64;
    const std::string_view body(reinterpret_cast<const char*>(data + 1), size - 1);
    std::vector<std::string> pieces{"stale"};
    const Error error = AggregateRequest::splitAnswer(body, expected, pieces);
    if (error) {
        check(static_cast<uint32_t>(error.code()) == kAggregateVerifyFailed);
        check(pieces.empty());
    } else {
        check(pieces.size() == expected);
        // Joined again with the separator, the pieces are where the body begins.
        std::string joined;
        for (size_t i = 0; i < pieces.size(); ++i) {
            joined.append(pieces[i]);
            joined.append(AggregateRequest::kSeparator);
        }
        check(body.substr(0, joined.size()) == joined);
        check(body.substr(joined.size()).find(AggregateRequest::kSeparator) ==
              std::string_view::npos);
    }

    // The body's lines as the files of a batch.
    static const ComboRule kRule{"/ferrit/s/", 50, true, ".js"};
    AggregateRequest batch(kRule, "fuzz");
    size_t start = 0;
    bool full = false;
    for (size_t i = 0; i <= body.size() && !full; ++i) {
        if (i == body.size() || body[i] == '\n') {
            if (i > start) full = batch.add(std::string(body.substr(start, i - start)));
            start = i + 1;
        }
    }
    if (batch.empty()) return 0;
    check(batch.size() <= 25);
    const std::string origin = "https://static.example.com";
    const std::string url = batch.requestUrl(origin);
    check(url.starts_with(origin));
    if (batch.size() > 1) {
        check(url.compare(origin.size(), 2, "??") == 0);
        check(url.ends_with(kRule.suffix));
        const char letter = url[url.size() - kRule.suffix.size() - 1];
        check(letter >= 'a' && letter < 'a' + 23);
    }
    return 0;
}
