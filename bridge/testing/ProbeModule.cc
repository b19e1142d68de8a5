// A test-only module, ferritcore_probe.node, that shows what the bridge's decoders make of a
// script value, and what its encoder makes of a response, so that the Node tests can check
// conversions the core never reports back (which response headers a configuration request keeps,
// the two readings of "traceId", the forms a response's header and bytes cross in). Never shipped.
#include <node_api.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bridge/BridgeProxy.h"
#include "bridge/HostLog.h"
#include "bridge/HostValues.h"
#include "bridge/Napi.h"
#include "marl/Log.h"

namespace FerritCore {
namespace {

void set(napi_env env, napi_value object, const char* key, napi_value value) {
    if (value != nullptr) napi_set_named_property(env, object, key, value);
}

napi_value newObject(napi_env env) {
    napi_value object = nullptr;
    napi_create_object(env, &object);
    return object;
}

napi_value headerObject(napi_env env, const HeaderMap& header) {
    napi_value object = newObject(env);
    // Names as script strings, so that one with a NUL comes back whole.
    for (const auto& [name, value] : header) {
        napi_value key = NAPI::toString(env, name);
        napi_value text = NAPI::toString(env, value);
        if (key != nullptr && text != nullptr) napi_set_property(env, object, key, text);
    }
    return object;
}

// (response, wantHeaders) -> {statusCode, header, content}
napi_value decodeResponse(napi_env env, napi_callback_info info) {
    const auto args = NAPI::getArgs(env, info, 2);
    napi_value value = args.empty() ? NAPI::undefined(env) : args[0];
    bool wantHeaders = false;
    if (args.size() >= 2) napi_get_value_bool(env, args[1], &wantHeaders);
    const ProxyResponse response = decodeProxyResponse(env, value, wantHeaders);
    napi_value object = newObject(env);
    set(env, object, "statusCode", NAPI::toInt32(env, response.statusCode));
    set(env, object, "header", headerObject(env, response.header));
    set(env, object, "content", NAPI::toString(env, response.content));
    return object;
}

// (error) -> {code, message}
napi_value decodeError(napi_env env, napi_callback_info info) {
    const Error error = decodeProxyError(env, NAPI::firstArg(env, info));
    napi_value object = newObject(env);
    set(env, object, "code", NAPI::toInt32(env, error.code()));
    set(env, object, "message", NAPI::toString(env, error.message()));
    return object;
}

// (response) -> {code, message}: whether its status counts as an HTTP status
napi_value checkStatus(napi_env env, napi_callback_info info) {
    const Error error = checkProxyStatus(env, NAPI::firstArg(env, info));
    napi_value object = newObject(env);
    set(env, object, "code", NAPI::toInt32(env, error.code()));
    set(env, object, "message", NAPI::toString(env, error.message()));
    return object;
}

// (request) -> {url, referrer, parentId, type, packName, packVersion, header}
napi_value decodeResourceRequest(napi_env env, napi_callback_info info) {
    const ResourceRequest request = decodeRequest(env, NAPI::firstArg(env, info));
    napi_value object = newObject(env);
    set(env, object, "url", NAPI::toString(env, request.url));
    set(env, object, "referrer", NAPI::toString(env, request.referrer));
    set(env, object, "parentId", NAPI::toString(env, request.parentId));
    set(env, object, "type", NAPI::toInt32(env, request.type));
    set(env, object, "packName", NAPI::toString(env, request.packName));
    set(env, object, "packVersion", NAPI::toString(env, request.packVersion));
    set(env, object, "header", headerObject(env, request.header()));
    return object;
}

// (md5, header, bytes, inEngineMemory) -> the response object the natives give the host, for a
// response with that MD5, header (its string members) and bytes (toData). With inEngineMemory the
// bytes are placed in the engine's memory as a synchronous hit's read places them; without, they
// are the response's own and the object gets a copy.
napi_value encodeResourceResponse(napi_env env, napi_callback_info info) {
    const auto args = NAPI::getArgs(env, info, 4);
    if (args.size() < 4) return nullptr;
    std::string bytes = NAPI::toData(env, args[2]).value_or(std::string());
    const bool inEngineMemory = NAPI::readBool(env, args[3]).value_or(false);
    EngineMemory memory(env);
    auto response = std::make_unique<ResourceResponse>(nullptr, std::string());
    response->md5 = NAPI::toString(env, args[0]).value_or(std::string());
    response->header = readStringMembers(env, args[1]);
    if (inEngineMemory && !bytes.empty()) {
        char* placed = memory.allocate(bytes.size());
        if (placed == nullptr) return nullptr;
        std::copy(bytes.begin(), bytes.end(), placed);
        memory.setFilled(placed, bytes.size());
    } else {
        response->data = std::move(bytes);
    }
    return encodeResponse(env, nullptr, std::move(response), &memory);
}

// (descriptor) -> {name, info, traceId, progressId}
napi_value decodePack(napi_env env, napi_callback_info info) {
    const PackRequest request = decodePackRequest(env, NAPI::firstArg(env, info));
    napi_value object = newObject(env);
    set(env, object, "name", NAPI::toString(env, request.name));
    set(env, object, "info", NAPI::toString(env, request.info));
    set(env, object, "traceId", NAPI::toString(env, request.traceId));
    set(env, object, "progressId", NAPI::toInt32(env, static_cast<int32_t>(request.progressId)));
    return object;
}

// keepPosting(object): a thread that posts empty tasks to a bridge over `object` until the bridge
// refuses, as the library's worker does while the host's process ends. Answers at once; the
// environment is then free to go away under the thread.
napi_value keepPosting(napi_env env, napi_callback_info info) {
    std::shared_ptr<NAPI::Bridge> bridge = NAPI::Bridge::create(env, NAPI::firstArg(env, info));
    if (!bridge) return nullptr;
    // Kept until the process ends, as the library keeps its bridge: nothing may destroy it on
    // the thread after the environment is gone.
    static auto* kept = new std::vector<std::shared_ptr<NAPI::Bridge>>();
    kept->push_back(bridge);
    std::thread([raw = bridge.get()] {
        while (raw->postJSTask([](napi_env) {})) std::this_thread::yield();
    }).detach();
    return nullptr;
}

// keepLogging(callback): hands the log to `callback` and starts threads that write entries until
// the process ends, as the library's worker and work pool do while the host's process ends.
napi_value keepLogging(napi_env env, napi_callback_info info) {
    if (!HostLogSink::install(env, NAPI::firstArg(env, info))) return nullptr;
    MarlLogger::Log::setLevel(MarlLogger::MRLLevelVerbose);
    constexpr int kWriters = 2;
    for (int i = 0; i < kWriters; ++i) {
        std::thread([i] {
            for (uint64_t n = 0;; ++n) {
                MarlLogger::LogBuilder(MarlLogger::MRLLevelInfo, "Probe/Log")
                    .event("entry")
                    .append("writer", i)
                    .append("n", n);
                std::this_thread::yield();
            }
        }).detach();
    }
    return nullptr;
}

napi_value Init(napi_env env, napi_value exports) {
    const napi_property_descriptor functions[] = {
        NAPI::method("decodeProxyResponse", decodeResponse),
        NAPI::method("decodeProxyError", decodeError),
        NAPI::method("checkProxyStatus", checkStatus),
        NAPI::method("decodeRequest", decodeResourceRequest),
        NAPI::method("decodePackRequest", decodePack),
        NAPI::method("encodeResponse", encodeResourceResponse),
        NAPI::method("keepPosting", keepPosting),
        NAPI::method("keepLogging", keepLogging),
    };
    napi_define_properties(env, exports, std::size(functions), functions);
    return exports;
}

}  // namespace
}  // namespace FerritCore

NAPI_MODULE(ferritcore_probe, FerritCore::Init)
