#include "FileProxy.h"

#include <openssl/evp.h>
#include <openssl/pem.h>

#include <cstdio>
#include <iostream>

#include "runtime/Telemetry.h"

namespace FerritTools {

std::shared_ptr<FileProxy> FileProxy::open(const std::string& publicKeyPem, std::string& error) {
    FILE* file = std::fopen(publicKeyPem.c_str(), "rb");
    if (file == nullptr) {
        error = "cannot read the public key " + publicKeyPem;
        return nullptr;
    }
    EVP_PKEY* key = PEM_read_PUBKEY(file, nullptr, nullptr, nullptr);
    std::fclose(file);
    if (key == nullptr || EVP_PKEY_get_id(key) != EVP_PKEY_ED25519) {
        EVP_PKEY_free(key);
        error = publicKeyPem + " holds no Ed25519 public key";
        return nullptr;
    }
    return std::shared_ptr<FileProxy>(new FileProxy(key));
}

FileProxy::~FileProxy() {
    EVP_PKEY_free(key_);
}

bool FileProxy::verifySignature(const std::string& md5Hex, const std::string& signature) {
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    if (context == nullptr) return false;
    // Ed25519 signs the message itself: no digest is named.
    bool valid = EVP_DigestVerifyInit(context, nullptr, nullptr, nullptr, key_) == 1 &&
                 EVP_DigestVerify(context, reinterpret_cast<const unsigned char*>(signature.data()), signature.size(),
                                  reinterpret_cast<const unsigned char*>(md5Hex.data()), md5Hex.size()) == 1;
    EVP_MD_CTX_free(context);
    return valid;
}

void FileProxy::sendEvent(const FerritCore::PerfRecord& record) {
    if (!printEvents_) return;
    std::cerr << "event " << record.name();
    for (const auto& [key, value] : record.dimensions()) std::cerr << " " << key << "=" << value;
    for (const auto& [key, value] : record.measures()) std::cerr << " " << key << "=" << value;
    std::cerr << "\n";
}

void FileProxy::loadOnDemand(const std::string&, std::function<void(const FerritCore::Error&)> completion) {
    if (completion) completion(FerritCore::Error());
}

}  // namespace FerritTools
