#include "tools/common/Ed25519Key.h"

#include <openssl/evp.h>
#include <openssl/pem.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "tools/common/ToolFiles.h"

namespace FerritTools {

namespace {

// A private key file is its owner's alone.
constexpr mode_t kPrivateKeyMode = S_IRUSR | S_IWUSR;

const unsigned char* bytesOf(std::string_view text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

}  // namespace

std::unique_ptr<Ed25519Key> Ed25519Key::generate(std::string& error) {
    EVP_PKEY* key = nullptr;
    EVP_PKEY_CTX* context = EVP_PKEY_CTX_new_id(EVP_PKEY_ED25519, nullptr);
    const bool made = context != nullptr && EVP_PKEY_keygen_init(context) == 1 &&
                      EVP_PKEY_keygen(context, &key) == 1;
    EVP_PKEY_CTX_free(context);
    std::shared_ptr<const FerritCore::Ed25519PublicKey> publicKey =
        made ? FerritCore::Ed25519PublicKey::fromKeyPair(key) : nullptr;
    if (!publicKey) {
        EVP_PKEY_free(key);
        error = "key generation failed";
        return nullptr;
    }
    return std::unique_ptr<Ed25519Key>(new Ed25519Key(key, std::move(publicKey)));
}

std::unique_ptr<Ed25519Key> Ed25519Key::loadPrivate(const std::string& pemPath,
                                                    std::string& error) {
    FILE* in = std::fopen(pemPath.c_str(), "rb");
    if (in == nullptr) {
        error = "cannot read the private key " + pemPath;
        return nullptr;
    }
    EVP_PKEY* key = PEM_read_PrivateKey(in, nullptr, nullptr, nullptr);
    std::fclose(in);
    std::shared_ptr<const FerritCore::Ed25519PublicKey> publicKey =
        FerritCore::Ed25519PublicKey::fromKeyPair(key);
    if (!publicKey) {
        EVP_PKEY_free(key);
        error = pemPath + " holds no Ed25519 private key";
        return nullptr;
    }
    return std::unique_ptr<Ed25519Key>(new Ed25519Key(key, std::move(publicKey)));
}

std::unique_ptr<Ed25519Key> Ed25519Key::loadPublic(const std::string& pemPath, std::string& error) {
    std::string text;
    if (!readWholeFile(pemPath, text)) {
        error = "cannot read the public key " + pemPath;
        return nullptr;
    }
    std::string why;
    std::shared_ptr<const FerritCore::Ed25519PublicKey> publicKey =
        FerritCore::Ed25519PublicKey::parse(text, FerritCore::Ed25519PublicKey::Form::Bytes, why);
    if (!publicKey) {
        error = pemPath + " holds no Ed25519 public key: " + why;
        return nullptr;
    }
    return std::unique_ptr<Ed25519Key>(new Ed25519Key(nullptr, std::move(publicKey)));
}

Ed25519Key::~Ed25519Key() {
    EVP_PKEY_free(key_);
}

bool Ed25519Key::sign(std::string_view message, std::string& signature, std::string& error) const {
    if (!hasPrivate_) {
        error = "a public key cannot sign";
        return false;
    }
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    size_t length = 0;
    bool signedOk =
        context != nullptr && EVP_DigestSignInit(context, nullptr, nullptr, nullptr, key_) == 1 &&
        EVP_DigestSign(context, nullptr, &length, bytesOf(message), message.size()) == 1;
    if (signedOk) {
        signature.resize(length);
        signedOk = EVP_DigestSign(context, reinterpret_cast<unsigned char*>(signature.data()),
                                  &length, bytesOf(message), message.size()) == 1;
        signature.resize(length);
    }
    EVP_MD_CTX_free(context);
    if (!signedOk) error = "signing failed";
    return signedOk;
}

bool Ed25519Key::verify(std::string_view message, std::string_view signature) const {
    return public_->verify(message, signature);
}

bool Ed25519Key::writePrivatePem(const std::string& path, std::string& error,
                                 Existing existing) const {
    if (!hasPrivate_) {
        error = "a public key has no private half to write";
        return false;
    }
    // Created readable by its owner only, beside the target and renamed over it: the key is
    // never visible to others, not even for the moment between a write and a change of mode,
    // and a reader never sees half a key.
    // A name of this process's own, so that two processes writing one key never share it.
    const std::string temporary = path + ".tmp" + std::to_string(::getpid());
    ::unlink(temporary.c_str());
    const int descriptor =
        ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kPrivateKeyMode);
    if (descriptor < 0) {
        error = "cannot write the private key " + path + ": " + std::strerror(errno);
        return false;
    }
    bool written = false;
    if (FILE* out = ::fdopen(descriptor, "wb")) {
        written = PEM_write_PrivateKey(out, key_, nullptr, nullptr, 0, nullptr, nullptr) == 1;
        written = std::fflush(out) == 0 && ::fsync(descriptor) == 0 && written;
        written = std::fclose(out) == 0 && written;
    } else {
        ::close(descriptor);
    }
    const int code = written ? placeFile(temporary, path, existing == Existing::Replace) : errno;
    if (code == 0) return true;
    error = "cannot write the private key " + path + ": " + std::strerror(code);
    ::unlink(temporary.c_str());
    return false;
}

bool Ed25519Key::writePublicPem(const std::string& path, std::string& error,
                                Existing existing) const {
    const std::string pem = public_->pem();
    std::string reason;
    const bool written =
        !pem.empty() && (existing == Existing::Replace ? writeFileAtomically(path, pem, &reason)
                                                       : writeNewFile(path, pem, &reason));
    if (!written) error = cannotWrite("the public key " + path, reason);
    return written;
}

std::string base64Encode(std::string_view bytes) {
    std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()), bytesOf(bytes),
                                  static_cast<int>(bytes.size()));
    out.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return out;
}

}  // namespace FerritTools
