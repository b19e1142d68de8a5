// Ed25519PublicKey: a publisher's public key and the check of what it signed. A signed list or
// configuration document carries the Ed25519 signature of the lower-case hexadecimal MD5 text of
// its body, so `verify` is given that text, never the body itself. Immutable once made: verify
// runs on any thread at once.
#pragma once

#include <memory>
#include <string>
#include <string_view>

struct evp_pkey_st;

namespace FerritCore {

class Ed25519PublicKey {
  public:
    // The number of bytes of a raw Ed25519 public key and of a signature.
    static constexpr size_t kRawSize = 32;
    static constexpr size_t kSignatureSize = 64;
    // The number of hexadecimal characters of an id().
    static constexpr size_t kIdLength = 32;

    // What a key to parse is: text (a script string, a file's content) is PEM or base64; bytes
    // may also be the raw key or DER.
    enum class Form { Text, Bytes };

    // Reads a key in any of the forms a host may hold one: PEM text of a SubjectPublicKeyInfo
    // ("-----BEGIN PUBLIC KEY-----", as the key generator writes it), base64 of the 32 raw bytes
    // or of the DER, and as bytes also the 32 raw bytes or the DER itself. Null with `error`
    // saying why otherwise (a private key, a key of another kind, text that is no key).
    static std::shared_ptr<const Ed25519PublicKey> parse(std::string_view key, Form form,
                                                         std::string& error);
    // The public half of a key pair that OpenSSL holds (private or public); null when it is not
    // an Ed25519 key. The caller keeps its own key.
    static std::shared_ptr<const Ed25519PublicKey> fromKeyPair(evp_pkey_st* key);

    ~Ed25519PublicKey();
    Ed25519PublicKey(const Ed25519PublicKey&) = delete;
    Ed25519PublicKey& operator=(const Ed25519PublicKey&) = delete;

    // Whether `signature` (raw bytes) is this key's signature of `message`.
    bool verify(std::string_view message, std::string_view signature) const;
    // The 32 raw bytes.
    std::string raw() const;
    // PEM text of the SubjectPublicKeyInfo, the form of a public key file.
    std::string pem() const;
    // The key's name in documents that retire keys and in reports: the first 16 bytes of the
    // SHA-256 of the raw key, as 32 lower-case hexadecimal characters. Two keys never share one
    // in practice, and a name says nothing that would let anyone sign.
    std::string id() const;
    // The same name for the 32 raw bytes of a key; empty for bytes of another length.
    static std::string idOfRaw(std::string_view raw);

  private:
    explicit Ed25519PublicKey(evp_pkey_st* key) : key_(key) {}

    evp_pkey_st* key_;  // owned; only read after construction
};

}  // namespace FerritCore
