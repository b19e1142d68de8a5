#include "base/Ed25519PublicKey.h"

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/sha.h>
#include <openssl/x509.h>

#include "base/Digest.h"
#include "support/Ascii.h"

namespace FerritCore {
namespace {

// How PEM text opens, and how the label of a private key ends ("PRIVATE KEY", "ENCRYPTED
// PRIVATE KEY", ...): a host that hands over its key pair's private file is told so.
constexpr std::string_view kPemBegin = "-----BEGIN ";
constexpr std::string_view kPrivateLabelEnd = "PRIVATE KEY-----";

const unsigned char* bytesOf(std::string_view text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view kBlanks = " \t\r\n";
    const size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

bool isBase64Text(std::string_view text) {
    for (char c : text) {
        if (!Ascii::isAlphaNumeric(c) && c != '+' && c != '/' && c != '=' && c != '\n' && c != '\r')
            return false;
    }
    return true;
}

EVP_PKEY* fromPem(std::string_view text) {
    BIO* bio = BIO_new_mem_buf(text.data(), static_cast<int>(text.size()));
    if (bio == nullptr) return nullptr;
    EVP_PKEY* key = PEM_read_bio_PUBKEY(bio, nullptr, nullptr, nullptr);
    BIO_free(bio);
    return key;
}

// A SubjectPublicKeyInfo in DER, with nothing after it.
EVP_PKEY* fromDer(std::string_view bytes) {
    const unsigned char* cursor = bytesOf(bytes);
    EVP_PKEY* key = d2i_PUBKEY(nullptr, &cursor, static_cast<long>(bytes.size()));
    if (key != nullptr && cursor != bytesOf(bytes) + bytes.size()) {
        EVP_PKEY_free(key);
        return nullptr;
    }
    return key;
}

EVP_PKEY* fromRaw(std::string_view bytes) {
    return EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, bytesOf(bytes), bytes.size());
}

// Raw bytes or DER, told apart by length.
EVP_PKEY* fromBytes(std::string_view bytes) {
    return bytes.size() == Ed25519PublicKey::kRawSize ? fromRaw(bytes) : fromDer(bytes);
}

}  // namespace

std::shared_ptr<const Ed25519PublicKey> Ed25519PublicKey::parse(std::string_view key, Form form,
                                                                std::string& error) {
    const std::string_view text = trimmed(key);
    EVP_PKEY* parsed = nullptr;
    if (form == Form::Bytes && key.size() == kRawSize) {
        // Raw bytes are taken as they are: blanks may be part of them.
        parsed = fromRaw(key);
    } else if (text.empty()) {
        error = "the key is empty";
        return nullptr;
    } else if (text.find(kPemBegin) != std::string_view::npos) {
        if (text.find(kPrivateLabelEnd) != std::string_view::npos) {
            error = "the PEM text holds a private key; give the public key";
            return nullptr;
        }
        parsed = fromPem(text);
        if (parsed == nullptr) error = "the PEM text holds no public key";
    } else if (std::string decoded; isBase64Text(text) && Digest::base64Decode(text, decoded)) {
        parsed = fromBytes(decoded);
        if (parsed == nullptr)
            error = "the base64 text decodes to " + std::to_string(decoded.size()) +
                    " bytes, neither the 32 bytes of a raw key nor a public key in DER";
    } else if (form == Form::Bytes) {
        parsed = fromDer(key);
        if (parsed == nullptr)
            error =
                "the key is neither PEM text, base64 text, the 32 bytes of a raw key nor a "
                "public key in DER";
    } else {
        error = "the key is neither PEM text nor base64 text";
    }
    if (parsed == nullptr) {
        if (error.empty()) error = "the key cannot be read";
        return nullptr;
    }
    if (EVP_PKEY_get_id(parsed) != EVP_PKEY_ED25519) {
        EVP_PKEY_free(parsed);
        error = "the key is not an Ed25519 key";
        return nullptr;
    }
    return std::shared_ptr<const Ed25519PublicKey>(new Ed25519PublicKey(parsed));
}

std::shared_ptr<const Ed25519PublicKey> Ed25519PublicKey::fromKeyPair(evp_pkey_st* key) {
    unsigned char raw[kRawSize];
    size_t length = sizeof(raw);
    if (key == nullptr || EVP_PKEY_get_id(key) != EVP_PKEY_ED25519 ||
        EVP_PKEY_get_raw_public_key(key, raw, &length) != 1 || length != kRawSize)
        return nullptr;
    EVP_PKEY* copy =
        fromRaw(std::string_view(reinterpret_cast<const char*>(raw), static_cast<size_t>(length)));
    if (copy == nullptr) return nullptr;
    return std::shared_ptr<const Ed25519PublicKey>(new Ed25519PublicKey(copy));
}

Ed25519PublicKey::~Ed25519PublicKey() {
    EVP_PKEY_free(key_);
}

bool Ed25519PublicKey::verify(std::string_view message, std::string_view signature) const {
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    if (context == nullptr) return false;
    // Ed25519 signs the message itself: no digest is named.
    const bool valid = EVP_DigestVerifyInit(context, nullptr, nullptr, nullptr, key_) == 1 &&
                       EVP_DigestVerify(context, bytesOf(signature), signature.size(),
                                        bytesOf(message), message.size()) == 1;
    EVP_MD_CTX_free(context);
    return valid;
}

std::string Ed25519PublicKey::raw() const {
    std::string bytes(kRawSize, '\0');
    size_t length = bytes.size();
    if (EVP_PKEY_get_raw_public_key(key_, reinterpret_cast<unsigned char*>(bytes.data()),
                                    &length) != 1)
        return {};
    bytes.resize(length);
    return bytes;
}

std::string Ed25519PublicKey::pem() const {
    BIO* bio = BIO_new(BIO_s_mem());
    if (bio == nullptr) return {};
    std::string text;
    if (PEM_write_bio_PUBKEY(bio, key_) == 1) {
        char* data = nullptr;
        const long length = BIO_get_mem_data(bio, &data);
        if (data != nullptr && length > 0) text.assign(data, static_cast<size_t>(length));
    }
    BIO_free(bio);
    return text;
}

std::string Ed25519PublicKey::id() const {
    return idOfRaw(raw());
}

std::string Ed25519PublicKey::idOfRaw(std::string_view raw) {
    if (raw.size() != kRawSize) return {};
    unsigned char digest[SHA256_DIGEST_LENGTH];
    if (EVP_Digest(raw.data(), raw.size(), digest, nullptr, EVP_sha256(), nullptr) != 1) return {};
    return Ascii::hex(digest, kIdLength / 2);
}

}  // namespace FerritCore
