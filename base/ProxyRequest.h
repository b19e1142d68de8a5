// What goes out through Proxy::sendRequest and what comes back. Plain values.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "ferritcore/Error.h"
#include "ferritcore/ResourceRequest.h"

namespace FerritCore {

struct ProxyRequest {
    std::string url;           // absolute
    int32_t timeout = 0;       // seconds; 0 means none given
    std::string tempFilePath;  // where the body goes; empty: it comes back in memory
    HeaderMap header;
    std::string traceId;
    uint32_t progressId = 0;   // 0: no progress channel
    bool wantHeaders = false;  // the caller needs every response header
};

struct ProxyResponse {
    uint16_t statusCode = 0;
    HeaderMap header;
    std::string content;  // the body, when it came in memory
};

// Called exactly once, on any thread. The error says that the transport failed; HTTP failure is
// told by the status.
using ProxyCompletion = std::function<void(ProxyResponse response, Error error)>;

// The request kinds, as the header "f-refer" names them.
inline constexpr const char* kReferConfig = "ferrit_config";
inline constexpr const char* kReferResource = "ferrit_resource";
inline constexpr const char* kReferZip = "ferrit_zip";

}  // namespace FerritCore
