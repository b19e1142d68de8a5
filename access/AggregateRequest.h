// AggregateRequest: one batch of files that no local source holds, fetched from the network in one
// request of their own aggregate URL, whose answer is split back into one piece per file.
//
// Threading: a batch is filled on one thread (the group's run); send() may complete on any thread,
// and the callback is the only thing that runs there. The object may be destroyed once send() has
// returned: the request carries what it needs.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "access/ComboRule.h"
#include "ferritcore/Error.h"
#include "ferritcore/ResourceRequest.h"

namespace FerritCore {

class AggregateRequest {
  public:
    // What separates the pieces of an aggregate answer; the last piece is the guard file's.
    static constexpr std::string_view kSeparator = "/*! FERRIT_MODULE_SEP */";

    // The answer: the response headers (less "Content-MD5" and "ETag" for a batch of several,
    // since they describe the whole) and one piece per URL in order; or an error and nothing.
    using Callback =
        std::function<void(HeaderMap header, std::vector<std::string> pieces, Error error)>;

    // `parentId` is the trace id of the request the batch serves.
    AggregateRequest(const ComboRule& rule, std::string parentId);

    // Appends a URL (without a scheme) and adds its bytes to the running CRC. True when the batch
    // is now full.
    bool add(std::string url);
    bool empty() const { return urls_.empty(); }
    size_t size() const { return urls_.size(); }
    const std::vector<std::string>& urls() const { return urls_; }
    uint32_t crc() const { return crc_; }

    // The URL that fetches the batch from `origin` (scheme and host): for one file the file
    // itself; for several "origin??" and the path of each, separated by ",", then a last "," and
    // the guard file, the rule's path, one letter of the running CRC and the rule's suffix.
    std::string requestUrl(std::string_view origin) const;
    // Requests requestUrl(origin) as a resource; nothing without a callback. The answer of several
    // files must have exactly one piece more than the batch has URLs, or every URL of the batch
    // fails with 1010. An answer that has already expired is delivered all the same, and logged.
    void send(std::string_view origin, Callback callback);
    // The URL of the last send; empty before.
    const std::string& url() const { return url_; }

    // Splits an answer of `expected` files: exactly expected + 1 pieces, the last of which is
    // dropped. Otherwise 1010 with the counts, and `pieces` empty.
    static Error splitAnswer(std::string_view body, size_t expected,
                             std::vector<std::string>& pieces);

  private:
    ComboRule rule_;
    std::string parentId_;
    uint32_t crc_;
    std::vector<std::string> urls_;
    std::string url_;
};

}  // namespace FerritCore
