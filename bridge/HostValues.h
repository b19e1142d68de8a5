// HostValues: the script values that cross the bridge on the request path: the host's request
// object, the descriptor of a pack update, and the response object given back. Script thread
// only.
#pragma once

#include <node_api.h>

#include <cstdint>
#include <memory>
#include <string>

#include "access/ResponseMemory.h"
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
// The request from what the request reader made of the host's object: its one text (the type,
// then "url", "traceId", "packName", "packVersion" and the header's names and values, each after
// a NUL) or, when a field holds a NUL of its own, the array of those values. Anything else is a
// request with an empty URL.
ResourceRequest decodeRequestFields(napi_env env, napi_value fields);
// The request reader itself, for the package's script to call: one reader on both sides of the
// door. Null with the engine's error raised when it cannot be made.
napi_value requestFieldsReader(napi_env env);

PackRequest decodePackRequest(napi_env env, napi_value value);

// The error value for the host: the bridge object's createError(code, message), or, when there is
// no bridge yet or it does not answer, a plain {code, message} object. Undefined for success.
napi_value encodeError(napi_env env, NAPI::Bridge* bridge, const Error& error);

// Memory of the engine for the bytes of a synchronous hit: an ArrayBuffer that the engine
// allocates, counts and frees by itself like any other, with no finaliser to wait for.
class EngineMemory : public ResponseMemory {
  public:
    explicit EngineMemory(napi_env env) : env_(env) {}
    char* allocate(size_t size) override;
    // The ArrayBuffer of the last allocation, or null.
    napi_value buffer() const { return buffer_; }

  private:
    napi_env env_;
    napi_value buffer_ = nullptr;
};

// Takes the response and makes the object of five properties: "data" (an ArrayBuffer of the
// engine's own: `memory`'s when the read filled it, else a copy of the response's bytes; undefined
// when there are none), "md5", "header", "error", "is404". The response is freed before returning:
// nothing of it waits for a finaliser, so a loop that never yields to the engine's event loop
// still gives back all its memory. Marks the response finished: success, or 9995 when the object
// could not be made. Null with the engine's error raised when even that failed.
napi_value encodeResponse(napi_env env, NAPI::Bridge* bridge,
                          std::unique_ptr<ResourceResponse> response,
                          const EngineMemory* memory = nullptr);

// A hit for the package's own entry point, which makes the object itself: the bytes go to element
// 0 of `slot`, and the result is one text, "1" or "0" for is404, then the MD5 and each header's
// name and value after a NUL. A failure, or a header that holds a NUL, gives the whole object as
// encodeResponse makes it, and leaves `slot` alone. Frees and finishes the response as
// encodeResponse does.
napi_value encodeHit(napi_env env, NAPI::Bridge* bridge, std::unique_ptr<ResourceResponse> response,
                     const EngineMemory& memory, napi_value slot);

}  // namespace FerritCore
