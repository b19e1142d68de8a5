#include "bridge/HostValues.h"

#include <cstring>
#include <iterator>

#include "base/Errors.h"

namespace FerritCore {
HeaderMap readStringMembers(napi_env env, napi_value object) {
    HeaderMap map;
    if (!NAPI::isObject(env, object)) return map;
    napi_value names = nullptr;
    uint32_t count = 0;
    if (napi_get_property_names(env, object, &names) != napi_ok ||
        napi_get_array_length(env, names, &count) != napi_ok) {
        NAPI::clearException(env);
        return map;
    }
    for (uint32_t i = 0; i < count; ++i) {
        napi_value name = nullptr;
        if (napi_get_element(env, names, i, &name) != napi_ok) {
            NAPI::clearException(env);
            continue;
        }
        std::optional<std::string> key = NAPI::toString(env, name);
        if (!key) continue;
        if (std::optional<std::string> value =
                NAPI::toString(env, NAPI::getProperty(env, object, name)))
            map[*key] = std::move(*value);
    }
    return map;
}

namespace {

std::string readString(napi_env env, napi_value object, const char* key) {
    return NAPI::toString(env, NAPI::getProperty(env, object, key)).value_or(std::string());
}

// The engine learns of the bytes a buffer holds outside its heap, so that dropped buffers are
// collected as often as their weight asks, not only when the script's own heap fills.
void freeResponse(napi_env env, void*, void* hint) {
    auto* response = static_cast<ResourceResponse*>(hint);
    int64_t ignored = 0;
    napi_adjust_external_memory(env, -static_cast<int64_t>(response->data.size()), &ignored);
    delete response;
}

}  // namespace

ResourceRequest decodeRequest(napi_env env, napi_value value) {
    if (!NAPI::isObject(env, value)) return ResourceRequest(std::string(), std::string());
    ResourceRequest request(readString(env, value, "url"),
                            readStringMembers(env, NAPI::getProperty(env, value, "header")));
    // Taken twice on purpose: the text is the trace, the number the type.
    napi_value traceId = NAPI::getProperty(env, value, "traceId");
    request.parentId = NAPI::toString(env, traceId).value_or(std::string());
    request.type = NAPI::toInt32(env, traceId).value_or(0);
    request.packName = readString(env, value, "packName");
    request.packVersion = readString(env, value, "packVersion");
    return request;
}

PackRequest decodePackRequest(napi_env env, napi_value value) {
    PackRequest request;
    if (!NAPI::isObject(env, value)) return request;
    request.name = readString(env, value, "name");
    request.info = readString(env, value, "info");
    request.traceId = readString(env, value, "traceId");
    request.progressId = static_cast<uint32_t>(
        NAPI::toInt32(env, NAPI::getProperty(env, value, "progressId")).value_or(0));
    return request;
}

napi_value encodeError(napi_env env, NAPI::Bridge* bridge, const Error& error) {
    if (!error) return NAPI::undefined(env);
    napi_value code = NAPI::toInt32(env, error.code());
    napi_value message = NAPI::toString(env, error.message());
    if (code == nullptr || message == nullptr) return nullptr;
    if (bridge != nullptr) {
        napi_value made = bridge->invoke("createError", {code, message});
        if (made != nullptr) return made;
    }
    napi_value object = nullptr;
    if (napi_create_object(env, &object) != napi_ok ||
        napi_set_named_property(env, object, "code", code) != napi_ok ||
        napi_set_named_property(env, object, "message", message) != napi_ok) {
        NAPI::throwLastError(env);
        return nullptr;
    }
    return object;
}

napi_value encodeResponse(napi_env env, NAPI::Bridge* bridge,
                          std::unique_ptr<ResourceResponse> response) {
    // `owned` is whoever frees the response: this function, or the buffer's finaliser.
    ResourceResponse* const raw = response.get();
    napi_value data = nullptr;
    if (!raw->data.empty()) {
        std::string& bytes = raw->data;
        if (napi_create_external_arraybuffer(env, bytes.data(), bytes.size(), freeResponse, raw,
                                             &data) == napi_ok) {
            response.release();  // the finaliser owns it now; its bytes must not move or change
            int64_t ignored = 0;
            napi_adjust_external_memory(env, static_cast<int64_t>(bytes.size()), &ignored);
        } else {
            // An engine that refuses outside memory gets a copy.
            NAPI::clearException(env);
            void* copy = nullptr;
            if (napi_create_arraybuffer(env, bytes.size(), &copy, &data) != napi_ok) {
                NAPI::throwLastError(env);
                return nullptr;
            }
            std::memcpy(copy, bytes.data(), bytes.size());
        }
    } else {
        data = NAPI::undefined(env);
    }

    napi_status status = napi_ok;
    napi_value header = nullptr;
    if ((status = napi_create_object(env, &header)) == napi_ok) {
        for (const auto& [name, value] : raw->header) {
            napi_value text = NAPI::toString(env, value);
            if (text == nullptr) {
                status = napi_generic_failure;
                break;
            }
            if ((status = napi_set_named_property(env, header, name.c_str(), text)) != napi_ok)
                break;
        }
    }
    napi_value md5 = status == napi_ok ? NAPI::toString(env, raw->md5) : nullptr;
    napi_value error = status == napi_ok ? encodeError(env, bridge, raw->error) : nullptr;
    napi_value is404 = status == napi_ok ? NAPI::toBool(env, raw->is404) : nullptr;
    napi_value result = nullptr;
    if (status == napi_ok && md5 != nullptr && error != nullptr && is404 != nullptr) {
        const napi_property_descriptor properties[] = {
            {"data", nullptr, nullptr, nullptr, nullptr, data, napi_default_jsproperty, nullptr},
            {"md5", nullptr, nullptr, nullptr, nullptr, md5, napi_default_jsproperty, nullptr},
            {"header", nullptr, nullptr, nullptr, nullptr, header, napi_default_jsproperty,
             nullptr},
            {"error", nullptr, nullptr, nullptr, nullptr, error, napi_default_jsproperty, nullptr},
            {"is404", nullptr, nullptr, nullptr, nullptr, is404, napi_default_jsproperty, nullptr},
        };
        if ((status = napi_create_object(env, &result)) == napi_ok)
            status = napi_define_properties(env, result, std::size(properties), properties);
    } else if (status == napi_ok) {
        status = napi_generic_failure;
    }
    if (status != napi_ok) {
        raw->setFinished(Errors::napiFailed(static_cast<int>(status)));
        NAPI::throwLastError(env);
        return nullptr;
    }
    raw->setFinished(Error());
    return result;
}

}  // namespace FerritCore
