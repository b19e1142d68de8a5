// HostKey: what the host object says about signatures. The publisher's Ed25519 public key stands
// under "publicKey"; without one, only an explicit "insecureNoSignatureCheck": true lets the host
// open the cache, with no signature checked at all. Script thread only.
#pragma once

#include <node_api.h>

#include <memory>
#include <string>

#include "base/Ed25519PublicKey.h"

namespace FerritCore {

struct HostKey {
    enum class State {
        Key,       // a valid public key: every signature is checked with it
        Insecure,  // no key and the explicit flag: nothing is checked
        Missing,   // neither: the host may not open
        Invalid,   // a "publicKey" that is no Ed25519 public key: the host may not open
    };
    State state = State::Missing;
    std::shared_ptr<const Ed25519PublicKey> key;  // set for Key only
    std::string reason;                           // why, for Invalid

    bool opens() const { return state == State::Key || state == State::Insecure; }
};

// The property names on the host object.
inline constexpr const char* kPublicKeyProperty = "publicKey";
inline constexpr const char* kInsecureProperty = "insecureNoSignatureCheck";

// Reads the host object's key. "publicKey" may be a string (PEM text, or base64 of the raw key or
// of its DER), bytes (a Buffer, typed array or ArrayBuffer of any of those, or the 32 raw bytes,
// or DER) or a public KeyObject of Node's crypto. A key that is there but cannot be read makes the
// host Invalid even when the flag is set: a host that gave a key means to have it checked. An
// exception thrown by a getter is dropped and the property taken as absent.
HostKey readHostKey(napi_env env, napi_value host);
// "key", "insecure", "missing" or "invalid".
const char* hostKeyStateName(HostKey::State state);

}  // namespace FerritCore
