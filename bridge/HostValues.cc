#include "bridge/HostValues.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <iterator>
#include <optional>
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
    map.reserve(count);
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

// The response object: "data", "md5", "header", "error", "is404", in that order. The MD5 and the
// header cross as one text, the MD5 then a name and a value per header, each after a NUL; cut
// with indexOf, which makes no array of the pieces as split would.
constexpr const char* kResponseObject = R"((function (data, error, is404, packed) {
  'use strict';
  const header = {};
  let at = packed.indexOf('\0');
  const md5 = at < 0 ? packed : packed.slice(0, at);
  while (at >= 0) {
    const value = packed.indexOf('\0', at + 1);
    const end = packed.indexOf('\0', value + 1);
    header[packed.slice(at + 1, value)] = end < 0 ? packed.slice(value + 1) : packed.slice(value + 1, end);
    at = end;
  }
  return { data: data, md5: md5, header: header, error: error, is404: is404 };
}))";
// The same object for a response whose MD5, names or values hold a NUL of their own, which the
// one text cannot tell apart from its separators: the MD5, then the names and values in pairs.
constexpr const char* kResponseObjectPairs = R"((function (data, error, is404, md5) {
  'use strict';
  const header = {};
  for (let i = 4; i + 1 < arguments.length; i += 2) header[arguments[i]] = arguments[i + 1];
  return { data: data, md5: md5, header: header, error: error, is404: is404 };
}))";
constexpr size_t kResponseFixedArguments = 4;

constexpr char kSeparator = '\0';

// The header as one text, each name and value after a NUL, or empty when a NUL in one of them
// would cut it in the wrong place.
std::optional<std::string> headerText(const HeaderMap& header) {
    size_t size = 0;
    for (const auto& [name, value] : header) size += name.size() + value.size() + 2;
    std::string text;
    text.reserve(size);
    for (const auto& [name, value] : header)
        text.append(1, kSeparator).append(name).append(1, kSeparator).append(value);
    if (std::count(text.begin(), text.end(), kSeparator) !=
        static_cast<std::ptrdiff_t>(2 * header.size()))
        return std::nullopt;
    return text;
}

// The MD5 and the header as the one text the response object's script cuts, or empty when a NUL
// in one of them would cut it in the wrong place.
std::optional<std::string> packedHeader(const ResourceResponse& response) {
    if (response.md5.find(kSeparator) != std::string::npos) return std::nullopt;
    std::optional<std::string> header = headerText(response.header);
    if (header) header->insert(0, response.md5);
    return header;
}

// The arguments of the pairs script after the first three: the MD5 and the header's names and
// values in pairs. False with the engine's error raised when a text could not be made.
bool unpackedArguments(napi_env env, const ResourceResponse& response,
                       std::vector<napi_value>& arguments) {
    arguments.reserve(kResponseFixedArguments + 2 * response.header.size());
    napi_value md5 = NAPI::toString(env, response.md5);
    if (md5 == nullptr) return false;
    arguments.push_back(md5);
    for (const auto& [name, value] : response.header) {
        napi_value nameText = NAPI::toString(env, name);
        napi_value valueText = nameText != nullptr ? NAPI::toString(env, value) : nullptr;
        if (valueText == nullptr) return false;
        arguments.push_back(nameText);
        arguments.push_back(valueText);
    }
    return true;
}

// The request object's fields: "url", "traceId", "packName", "packVersion", then the header's
// string members (own and inherited, enumerable, as for...in lists them) in name, value pairs. A
// getter that throws reads as absent, and a header whose names cannot be listed has none, just as
// reading the fields one by one would make them. They come as one text: "traceId" as a 32-bit
// number (0 when it is none), then each field after a NUL, empty when it is no string; a field
// that holds a NUL of its own cannot be told apart that way, and the fields then come as an array
// of the values as they are.
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
  let text = String(typeof fields[1] === 'number' ? fields[1] | 0 : 0);
  for (let i = 0; i < fields.length; ++i) {
    const field = fields[i];
    if (typeof field !== 'string') {
      text += '\0';
    } else if (field.indexOf('\0') >= 0) {
      return fields;
    } else {
      text += '\0' + field;
    }
  }
  return text;
}))";
enum RequestField : uint32_t {
    kRequestUrl,
    kRequestTraceId,
    kRequestPackName,
    kRequestPackVersion,
    kRequestFixedFields
};

// The request from the reader's text: the type, then the fixed fields and the header's names and
// values, each after a NUL.
ResourceRequest requestFromText(std::string_view text) {
    constexpr char kSeparator = '\0';
    // Whether a separator follows the last piece taken.
    bool more = true;
    // The next piece of `text`, which loses it and its separator.
    const auto next = [&text, &more]() {
        const size_t end = text.find(kSeparator);
        const std::string_view piece = text.substr(0, end);
        more = end != std::string_view::npos;
        text.remove_prefix(more ? end + 1 : text.size());
        return piece;
    };
    const std::string_view typeText = next();
    int32_t type = 0;
    if (std::from_chars(typeText.data(), typeText.data() + typeText.size(), type).ec != std::errc())
        type = 0;
    std::string_view field[kRequestFixedFields];
    for (std::string_view& piece : field) piece = more ? next() : std::string_view();
    HeaderMap header;
    while (more) {
        const std::string_view name = next();
        if (!more) break;
        header[std::string(name)] = std::string(next());
    }
    ResourceRequest request(std::string(field[kRequestUrl]), header);
    request.parentId.assign(field[kRequestTraceId]);
    request.type = type;
    request.packName.assign(field[kRequestPackName]);
    request.packVersion.assign(field[kRequestPackVersion]);
    return request;
}

// The byte length of an ArrayBuffer, or 0 when it is none.
size_t byteLength(napi_value value, napi_env env) {
    void* data = nullptr;
    size_t length = 0;
    if (napi_get_arraybuffer_info(env, value, &data, &length) != napi_ok) return 0;
    return length;
}

}  // namespace

namespace {

napi_value readRequestFields(napi_env env, napi_value value) {
    // One call of a compiled script reads every field, where reading each from here costs the
    // engine a name lookup and an exception guard apiece; they cross as one text, read in one
    // call, where an array would cost a call per element and another per text.
    napi_value reader = requestFieldsReader(env);
    napi_value fields = nullptr;
    if (reader == nullptr ||
        napi_call_function(env, NAPI::undefined(env), reader, 1, &value, &fields) != napi_ok) {
        NAPI::clearException(env);
        return nullptr;
    }
    return fields;
}

}  // namespace

napi_value requestFieldsReader(napi_env env) {
    return NAPI::scriptFunction(env, NAPI::Script::RequestFields, kRequestFields);
}

ResourceRequest decodeRequestFields(napi_env env, napi_value fields) {
    if (fields == nullptr) return ResourceRequest(std::string(), std::string());
    if (std::optional<std::string> text = NAPI::toString(env, fields))
        return requestFromText(*text);
    uint32_t count = 0;
    if (napi_get_array_length(env, fields, &count) != napi_ok || count < kRequestFixedFields) {
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

ResourceRequest decodeRequest(napi_env env, napi_value value) {
    if (!NAPI::isObject(env, value)) return ResourceRequest(std::string(), std::string());
    return decodeRequestFields(env, readRequestFields(env, value));
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
    // Up to this size a plain ArrayBuffer, zero-filled, costs less than a Buffer: the fill is
    // cheaper than the Buffer's view and prototype and the two calls that find its ArrayBuffer.
    constexpr size_t kZeroFilledUpTo = size_t{32} * 1024;
    void* data = nullptr;
    napi_value buffer = nullptr;
    if (size <= kZeroFilledUpTo) {
        if (napi_create_arraybuffer(env_, size, &data, &buffer) == napi_ok && data != nullptr) {
            buffer_ = buffer;
            return static_cast<char*>(data);
        }
        NAPI::clearException(env_);
        return nullptr;
    }
    // Above it, a Buffer: its memory is not zero-filled, an ArrayBuffer's is, and the read
    // overwrites every byte, so filling them first would only cost a pass over the whole answer.
    // The Buffer's own ArrayBuffer is what crosses, when it is exactly the answer's memory.
    napi_value view = nullptr;
    size_t offset = 0;
    size_t length = 0;
    if (napi_create_buffer(env_, size, &data, &view) == napi_ok && data != nullptr &&
        napi_get_typedarray_info(env_, view, nullptr, &length, nullptr, &buffer, &offset) ==
            napi_ok &&
        offset == 0 && length == size && byteLength(buffer, env_) == size) {
        buffer_ = buffer;
        return static_cast<char*>(data);
    }
    NAPI::clearException(env_);
    // An engine whose Buffers are slices of a larger block: an ArrayBuffer of its own.
    if (napi_create_arraybuffer(env_, size, &data, &buffer) != napi_ok || data == nullptr) {
        NAPI::clearException(env_);
        return nullptr;
    }
    buffer_ = buffer;
    return static_cast<char*>(data);
}

namespace {

// The response's bytes as an ArrayBuffer, undefined when there are none. Null with the engine's
// error raised, and the response finished with 9995, when the engine could not give the memory.
napi_value responseData(napi_env env, ResourceResponse& response, const EngineMemory* memory) {
    // The bytes live in memory that the engine allocated and frees by itself. An external buffer
    // over the response's own bytes would keep the response until the engine ran the buffer's
    // finaliser, which it does only on a later turn of its event loop: a script that makes many
    // calls without yielding would hold every response of the run.
    if (memory != nullptr && memory->filled() && memory->buffer() != nullptr)
        return memory->buffer();
    if (response.data.empty()) return NAPI::undefined(env);
    const std::string& bytes = response.data;
    void* copy = nullptr;
    napi_value data = nullptr;
    if (napi_create_arraybuffer(env, bytes.size(), &copy, &data) != napi_ok) {
        response.setFinished(Errors::napiFailed(static_cast<int>(napi_generic_failure)));
        NAPI::throwLastError(env);
        return nullptr;
    }
    std::memcpy(copy, bytes.data(), bytes.size());
    return data;
}

}  // namespace

napi_value encodeResponse(napi_env env, NAPI::Bridge* bridge,
                          std::unique_ptr<ResourceResponse> response, const EngineMemory* memory) {
    ResourceResponse* const raw = response.get();
    napi_value data = responseData(env, *raw, memory);
    if (data == nullptr) return nullptr;

    // One call of a compiled script builds the object and its header: an object literal takes a
    // ready-made shape, where setting the properties one by one from here costs a lookup each.
    napi_status status = napi_generic_failure;
    napi_value result = nullptr;
    std::optional<std::string> packed = packedHeader(*raw);
    napi_value factory =
        packed ? NAPI::scriptFunction(env, NAPI::Script::ResponseObject, kResponseObject)
               : NAPI::scriptFunction(env, NAPI::Script::ResponseObjectPairs, kResponseObjectPairs);
    napi_value error = factory != nullptr ? encodeError(env, bridge, raw->error) : nullptr;
    napi_value is404 = error != nullptr ? NAPI::toBool(env, raw->is404) : nullptr;
    if (is404 != nullptr) {
        if (packed) {
            // The usual answer: four arguments, one text made, whatever the header holds.
            napi_value arguments[kResponseFixedArguments] = {data, error, is404,
                                                             NAPI::toString(env, *packed)};
            if (arguments[kResponseFixedArguments - 1] != nullptr)
                status = napi_call_function(env, NAPI::undefined(env), factory,
                                            kResponseFixedArguments, arguments, &result);
        } else {
            std::vector<napi_value> arguments{data, error, is404};
            if (unpackedArguments(env, *raw, arguments))
                status = napi_call_function(env, NAPI::undefined(env), factory, arguments.size(),
                                            arguments.data(), &result);
        }
    }
    if (status != napi_ok) {
        raw->setFinished(Errors::napiFailed(static_cast<int>(status)));
        NAPI::throwLastError(env);
        return nullptr;
    }
    raw->setFinished(Error());
    return result;
}

namespace {

// What the door remembers for one slot of the package's entry point: the header text of the last
// hit it sent there in full.
struct HitSlot {
    // False until a header is sent in full, and after a hit that the script may not have taken.
    bool known = false;
    std::string header;
};

// The slot's memory, made at its first hit and freed with it; null when the engine refuses.
HitSlot* hitSlot(napi_env env, napi_value slot) {
    void* data = nullptr;
    if (napi_unwrap(env, slot, &data) == napi_ok && data != nullptr)
        return static_cast<HitSlot*>(data);
    NAPI::clearException(env);
    auto made = std::make_unique<HitSlot>();
    const auto free = [](napi_env, void* held, void*) { delete static_cast<HitSlot*>(held); };
    if (napi_wrap(env, slot, made.get(), free, nullptr, nullptr) != napi_ok) {
        NAPI::clearException(env);
        return nullptr;
    }
    return made.release();
}

// The first character of a hit's text: is404 in its low bit, and whether the header is the one
// last sent in full to the same slot (and left out) in the next.
char hitLead(bool is404, bool sameHeader) {
    return static_cast<char>('0' + (is404 ? 1 : 0) + (sameHeader ? 2 : 0));
}

}  // namespace

napi_value encodeHit(napi_env env, NAPI::Bridge* bridge, std::unique_ptr<ResourceResponse> response,
                     const EngineMemory& memory, napi_value slot) {
    // A failure, and a header that the one text cannot carry, take the whole object as before:
    // neither is the path that a page's loads take.
    std::optional<std::string> header;
    if (!response->error && response->md5.find(kSeparator) == std::string::npos)
        header = headerText(response->header);
    if (!header) return encodeResponse(env, bridge, std::move(response), &memory);
    napi_value data = responseData(env, *response, &memory);
    if (data == nullptr) return nullptr;
    // Hits in a row mostly carry the same header (it changes with the pack, the type and the
    // second of "Date"): comparing it here is cheap, where cutting it into an object in script
    // costs more than the rest of the script's side together.
    HitSlot* const last = hitSlot(env, slot);
    const bool same = last != nullptr && last->known && last->header == *header;
    std::string text(1, hitLead(response->is404, same));
    text.append(response->md5);
    if (!same) {
        text.append(*header);
        if (last != nullptr) {
            last->header = std::move(*header);
            last->known = true;
        }
    }
    napi_value result = NAPI::toString(env, text);
    const napi_status status =
        result != nullptr ? napi_set_element(env, slot, 0, data) : napi_generic_failure;
    if (status != napi_ok) {
        // The script makes no object of this hit, so it keeps no header to repeat.
        if (last != nullptr) last->known = false;
        response->setFinished(Errors::napiFailed(static_cast<int>(status)));
        NAPI::throwLastError(env);
        return nullptr;
    }
    response->setFinished(Error());
    return result;
}

}  // namespace FerritCore
