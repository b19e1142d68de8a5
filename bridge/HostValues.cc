#include "bridge/HostValues.h"

#include <cstring>
#include <iterator>
#include <vector>

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

// The response object: "data", "md5", "header", "error", "is404", in that order, with the header's
// names and values following the four fixed values in pairs.
constexpr const char* kResponseObject = R"((function (data, md5, error, is404) {
  'use strict';
  const header = {};
  for (let i = 4; i < arguments.length; i += 2) header[arguments[i]] = arguments[i + 1];
  return { data: data, md5: md5, header: header, error: error, is404: is404 };
}))";
constexpr size_t kResponseFixedArguments = 4;

// The request object's fields as one array: "url", "traceId", "packName", "packVersion" as they
// are, then the header's string members (own and inherited, enumerable, as for...in lists them)
// in name, value pairs. A getter that throws reads as absent, and a header whose names cannot be
// listed has none, just as reading the fields one by one would make them.
constexpr const char* kRequestFields = R"((function (request) {
  'use strict';
  const fields = [undefined, undefined, undefined, undefined];
  let header;
  try { fields[0] = request.url; } catch (e) {}
  try { header = request.header; } catch (e) {}
  if (typeof header === 'object' && header !== null) {
    try {
      for (const name in header) {
        let value;
        try { value = header[name]; } catch (e) { continue; }
        if (typeof value === 'string') fields.push(name, value);
      }
    } catch (e) {
      fields.length = 4;
    }
  }
  try { fields[1] = request.traceId; } catch (e) {}
  try { fields[2] = request.packName; } catch (e) {}
  try { fields[3] = request.packVersion; } catch (e) {}
  return fields;
}))";
enum RequestField : uint32_t {
    kRequestUrl,
    kRequestTraceId,
    kRequestPackName,
    kRequestPackVersion,
    kRequestFixedFields
};

}  // namespace

ResourceRequest decodeRequest(napi_env env, napi_value value) {
    if (!NAPI::isObject(env, value)) return ResourceRequest(std::string(), std::string());
    // One call of a compiled script reads every field, where reading each from here costs the
    // engine a name lookup and an exception guard apiece.
    napi_value reader = NAPI::scriptFunction(env, NAPI::Script::RequestFields, kRequestFields);
    napi_value fields = nullptr;
    uint32_t count = 0;
    if (reader == nullptr ||
        napi_call_function(env, NAPI::undefined(env), reader, 1, &value, &fields) != napi_ok ||
        napi_get_array_length(env, fields, &count) != napi_ok || count < kRequestFixedFields) {
        NAPI::clearException(env);
        return ResourceRequest(std::string(), std::string());
    }
    napi_value field[kRequestFixedFields] = {};
    for (uint32_t i = 0; i < kRequestFixedFields; ++i) {
        if (napi_get_element(env, fields, i, &field[i]) != napi_ok) field[i] = nullptr;
    }
    HeaderMap header;
    for (uint32_t i = kRequestFixedFields; i + 1 < count; i += 2) {
        napi_value name = nullptr, text = nullptr;
        if (napi_get_element(env, fields, i, &name) != napi_ok ||
            napi_get_element(env, fields, i + 1, &text) != napi_ok)
            continue;
        std::optional<std::string> key = NAPI::toString(env, name);
        std::optional<std::string> headerValue = NAPI::toString(env, text);
        if (key && headerValue) header[*key] = std::move(*headerValue);
    }
    NAPI::clearException(env);
    ResourceRequest request(NAPI::toString(env, field[kRequestUrl]).value_or(std::string()),
                            header);
    // Taken twice on purpose: the text is the trace, the number the type.
    request.parentId = NAPI::toString(env, field[kRequestTraceId]).value_or(std::string());
    request.type = NAPI::toInt32(env, field[kRequestTraceId]).value_or(0);
    request.packName = NAPI::toString(env, field[kRequestPackName]).value_or(std::string());
    request.packVersion = NAPI::toString(env, field[kRequestPackVersion]).value_or(std::string());
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

char* EngineMemory::allocate(size_t size) {
    void* data = nullptr;
    napi_value buffer = nullptr;
    if (napi_create_arraybuffer(env_, size, &data, &buffer) != napi_ok || data == nullptr) {
        NAPI::clearException(env_);
        return nullptr;
    }
    buffer_ = buffer;
    return static_cast<char*>(data);
}

napi_value encodeResponse(napi_env env, NAPI::Bridge* bridge,
                          std::unique_ptr<ResourceResponse> response, const EngineMemory* memory) {
    // The bytes live in memory that the engine allocated and frees by itself. An external buffer
    // over the response's own bytes would keep the response until the engine ran the buffer's
    // finaliser, which it does only on a later turn of its event loop: a script that makes many
    // calls without yielding would hold every response of the run.
    ResourceResponse* const raw = response.get();
    napi_value data = nullptr;
    if (memory != nullptr && memory->filled() && memory->buffer() != nullptr) {
        data = memory->buffer();
    } else if (!raw->data.empty()) {
        const std::string& bytes = raw->data;
        void* copy = nullptr;
        if (napi_create_arraybuffer(env, bytes.size(), &copy, &data) != napi_ok) {
            raw->setFinished(Errors::napiFailed(static_cast<int>(napi_generic_failure)));
            NAPI::throwLastError(env);
            return nullptr;
        }
        std::memcpy(copy, bytes.data(), bytes.size());
    } else {
        data = NAPI::undefined(env);
    }

    // One call of a compiled script builds the object and its header: an object literal takes a
    // ready-made shape, where setting the properties one by one from here costs a lookup each.
    napi_status status = napi_ok;
    napi_value result = nullptr;
    napi_value factory = NAPI::scriptFunction(env, NAPI::Script::ResponseObject, kResponseObject);
    napi_value md5 = factory != nullptr ? NAPI::toString(env, raw->md5) : nullptr;
    napi_value error = md5 != nullptr ? encodeError(env, bridge, raw->error) : nullptr;
    napi_value is404 = error != nullptr ? NAPI::toBool(env, raw->is404) : nullptr;
    if (is404 != nullptr) {
        std::vector<napi_value> arguments{data, md5, error, is404};
        arguments.reserve(kResponseFixedArguments + 2 * raw->header.size());
        for (const auto& [name, value] : raw->header) {
            napi_value nameText = NAPI::toString(env, name);
            napi_value valueText = nameText != nullptr ? NAPI::toString(env, value) : nullptr;
            if (valueText == nullptr) break;
            arguments.push_back(nameText);
            arguments.push_back(valueText);
        }
        if (arguments.size() == kResponseFixedArguments + 2 * raw->header.size())
            status = napi_call_function(env, NAPI::undefined(env), factory, arguments.size(),
                                        arguments.data(), &result);
        else
            status = napi_generic_failure;
    } else {
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
