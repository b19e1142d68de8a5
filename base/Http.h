// HTTP semantics: fixed header names, the few request and response headers the system
// understands, content types, and dates. Pure functions; any thread.
#pragma once

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "ferritcore/ResourceRequest.h"

namespace FerritCore::Http {

// The fixed header names, built once on first use, in this order.
enum HeaderId {
    kAccept,
    kAccessControlAllowOrigin,
    kAccessControlExposeHeaders,
    kCacheControl,
    kContentMD5,
    kContentType,
    kDate,
    kETag,
    kExpires,
    kIfModifiedSince,
    kIfNoneMatch,
    kLastModified,
    kReferer,
    kVia,
    kVary,
    kHeaderCount,
};
const std::array<std::string, kHeaderCount>& headerNames();
inline const std::string& headerName(HeaderId id) {
    return headerNames()[id];
}

inline constexpr std::string_view kFerritControl = "X-Ferrit-Control";
inline constexpr std::string_view kFerritInfo = "X-Ferrit-Info";

// The value of the header whose name equals `name` without regard to case; empty when absent.
std::string_view headerValue(const HeaderMap& header, std::string_view name);
// Removes every header whose name equals `name` without regard to case.
void removeHeader(HeaderMap& header, std::string_view name);
// Does nothing when `value` is empty; otherwise stores it under `name` as written.
void setHeader(HeaderMap& header, std::string_view name, std::string_view value);

// "X-Ferrit-Control" (any case of the name) is exactly "disabled" (case-sensitive value).
bool isDisabled(const HeaderMap& header);

// Expiry in milliseconds since the epoch from "Cache-Control" (max-age) or, only when that is
// absent, "Expires"; 0 for none, "no-store" or "no-cache".
unsigned long long parseExpires(const HeaderMap& header);

struct AcceptType {
    std::string_view type;  // trimmed; views into the text given to parseAccept
    double quality = 1.0;
};
// Splits an Accept value (already lower-cased by the caller) and sorts it by quality, highest
// first. The views point into `text`, which must outlive the result.
std::vector<AcceptType> parseAccept(std::string_view text);
// An empty list or an empty content type is accepted. "*/*" counts only when it is the single
// entry; "type/*" accepts by prefix; anything else must equal the type exactly.
bool accepts(const std::vector<AcceptType>& acceptTypes, std::string_view contentType);

// The content type for the text after the last "/" or "."; empty when unknown.
std::string_view mimeView(std::string_view path);
inline std::string mimeFor(std::string_view path) {
    return std::string(mimeView(path));
}

// IMF-fixdate, e.g. "Sun, 06 Nov 1994 08:49:37 GMT", of a wall time in milliseconds.
std::string httpDate(double epochMs);
// Parses IMF-fixdate, the obsolete RFC 850 form and asctime; false when none fits.
bool parseHttpDate(std::string_view text, long long* epochSeconds);

}  // namespace FerritCore::Http
