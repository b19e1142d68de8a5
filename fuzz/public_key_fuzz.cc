// The publisher's public key as a host hands it over, on arbitrary bytes, read as text and as
// bytes: none may crash; a key that is read has its 32 raw bytes, reads back from its own PEM and
// raw forms to the same key, and never verifies an empty signature.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/Ed25519PublicKey.h"

using namespace FerritCore;

namespace {

void check(std::string_view input, Ed25519PublicKey::Form form) {
    std::string error;
    const auto key = Ed25519PublicKey::parse(input, form, error);
    if (!key) {
        if (error.empty()) __builtin_trap();  // a refusal always says why
        return;
    }
    const std::string raw = key->raw();
    if (raw.size() != Ed25519PublicKey::kRawSize) __builtin_trap();
    const auto fromPem = Ed25519PublicKey::parse(key->pem(), Ed25519PublicKey::Form::Text, error);
    const auto fromRaw = Ed25519PublicKey::parse(raw, Ed25519PublicKey::Form::Bytes, error);
    if (!fromPem || !fromRaw || fromPem->raw() != raw || fromRaw->raw() != raw) __builtin_trap();
    if (key->verify("d41d8cd98f00b204e9800998ecf8427e", std::string_view())) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    check(input, Ed25519PublicKey::Form::Text);
    check(input, Ed25519PublicKey::Form::Bytes);
    return 0;
}
