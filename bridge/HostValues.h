// HostValues: the script values that cross the bridge on the request path: the host's request
// object, the descriptor of a pack update, and the response object given back. Script thread
// only.
#pragma once

#include <node_api.h>

#include <cstdint>
#include <memory>
#include <string>

#include "bridge/Napi.h"
#include "ferritcore/ResourceRequest.h"
#include "ferritcore/ResourceResponse.h"

namespace FerritCore {

// The string members of `object` (a header object of the host); members of other types are left
// out. Any thread that owns `env`.
HeaderMap readStringMembers(napi_env env, napi_value object);

// The host's request object: "url" ("" when absent), "header" (string members; "Referer" is also
// the referrer), "traceId" read twice, as text for the trace and as a number for the type (so a
// host that wants a UniApp request sends a number and has no trace id), "packName",
// "packVersion". A value that is not an object is a request with an empty URL.
ResourceRequest decodeRequest(napi_env env, napi_value value);

struct PackRequest {
    std::string name;
    std::string info;
    std::string traceId;
    uint32_t progressId = 0;
};
// The descriptor of updatePackNative: "name", "info", "traceId" (strings), "progressId" (0 when
// not a number). A value that is not an object has empty names.
PackRequest decodePackRequest(napi_env env, napi_value value);

// The error value for the host: the bridge object's createError(code, message), or, when there is
// no bridge yet or it does not answer, a plain {code, message} object. Undefined for success.
napi_value encodeError(napi_env env, NAPI::Bridge* bridge, const Error& error);

// Takes the response and makes the object of five properties: "data" (an external ArrayBuffer
// over the response's own bytes, whose finaliser frees the response; undefined when there are
// none, and the response is then freed before returning), "md5", "header", "error", "is404".
// Marks the response finished: success, or 9995 when the object could not be made. Null with the
// engine's error raised when even that failed.
napi_value encodeResponse(napi_env env, NAPI::Bridge* bridge,
                          std::unique_ptr<ResourceResponse> response);

}  // namespace FerritCore
