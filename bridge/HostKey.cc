#include "bridge/HostKey.h"

#include <optional>

#include "bridge/Napi.h"

namespace FerritCore {
namespace {

// The kinds of KeyObject of Node's crypto other than a public key.
constexpr const char* kKeyObjectTypeProperty = "type";
constexpr const char* kKeyObjectPublic = "public";
constexpr const char* kKeyObjectExport = "export";

HostKey invalid(std::string reason) {
    HostKey result;
    result.state = HostKey::State::Invalid;
    result.reason = std::move(reason);
    return result;
}

// The SubjectPublicKeyInfo of a KeyObject in DER, by its own export({format, type}); empty when
// it cannot give one (the exception is dropped).
std::optional<std::string> exportKeyObject(napi_env env, napi_value keyObject) {
    napi_value exporter = NAPI::getProperty(env, keyObject, kKeyObjectExport);
    if (!NAPI::isFunction(env, exporter)) return std::nullopt;
    napi_value options = nullptr;
    napi_value result = nullptr;
    const bool made =
        napi_create_object(env, &options) == napi_ok &&
        napi_set_named_property(env, options, "format", NAPI::toString(env, "der")) == napi_ok &&
        napi_set_named_property(env, options, "type", NAPI::toString(env, "spki")) == napi_ok &&
        napi_call_function(env, keyObject, exporter, 1, &options, &result) == napi_ok;
    if (!made) {
        NAPI::clearException(env);
        return std::nullopt;
    }
    return NAPI::toData(env, result);
}

}  // namespace

HostKey readHostKey(napi_env env, napi_value host) {
    napi_value value = NAPI::getProperty(env, host, kPublicKeyProperty);
    napi_valuetype type = napi_undefined;
    if (value != nullptr && napi_typeof(env, value, &type) != napi_ok) type = napi_undefined;
    if (type == napi_undefined || type == napi_null) {
        HostKey result;
        bool insecure = false;
        napi_value flag = NAPI::getProperty(env, host, kInsecureProperty);
        if (flag != nullptr && napi_get_value_bool(env, flag, &insecure) == napi_ok && insecure)
            result.state = HostKey::State::Insecure;
        else
            result.reason = "no publicKey, and insecureNoSignatureCheck is not true";
        NAPI::clearException(env);
        return result;
    }
    std::string reason;
    std::shared_ptr<const Ed25519PublicKey> key;
    if (type == napi_string) {
        const std::optional<std::string> text = NAPI::toString(env, value);
        if (!text) return invalid("the string cannot be read");
        key = Ed25519PublicKey::parse(*text, Ed25519PublicKey::Form::Text, reason);
    } else if (std::optional<std::string> bytes = NAPI::toData(env, value)) {
        key = Ed25519PublicKey::parse(*bytes, Ed25519PublicKey::Form::Bytes, reason);
    } else if (type == napi_object) {
        const std::optional<std::string> kind =
            NAPI::toString(env, NAPI::getProperty(env, value, kKeyObjectTypeProperty));
        if (kind && *kind != kKeyObjectPublic)
            return invalid("the key object is a " + *kind + " key; give the public key");
        const std::optional<std::string> der = exportKeyObject(env, value);
        if (!der) return invalid("the object is neither key text, bytes nor a public KeyObject");
        key = Ed25519PublicKey::parse(*der, Ed25519PublicKey::Form::Bytes, reason);
    } else {
        return invalid("a key is text, bytes or a KeyObject");
    }
    if (!key) return invalid(reason);
    HostKey result;
    result.state = HostKey::State::Key;
    result.key = std::move(key);
    return result;
}

const char* hostKeyStateName(HostKey::State state) {
    switch (state) {
        case HostKey::State::Key:
            return "key";
        case HostKey::State::Insecure:
            return "insecure";
        case HostKey::State::Missing:
            return "missing";
        case HostKey::State::Invalid:
            return "invalid";
    }
    return "missing";
}

}  // namespace FerritCore
