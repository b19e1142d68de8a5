#include "FileProxy.h"

#include <openssl/evp.h>
#include <openssl/pem.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

#include "base/Telemetry.h"

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
    bool valid =
        EVP_DigestVerifyInit(context, nullptr, nullptr, nullptr, key_) == 1 &&
        EVP_DigestVerify(context, reinterpret_cast<const unsigned char*>(signature.data()),
                         signature.size(), reinterpret_cast<const unsigned char*>(md5Hex.data()),
                         md5Hex.size()) == 1;
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

void FileProxy::loadOnDemand(const std::string&,
                             std::function<void(const FerritCore::Error&)> completion) {
    if (completion) completion(FerritCore::Error());
}

void FileProxy::sendRequest(const FerritCore::ProxyRequest& request,
                            FerritCore::ProxyCompletion completion) {
    if (!completion) return;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        requested_.push_back(request.url);
    }
    if (servedFolder_.empty()) {
        Proxy::sendRequest(request, std::move(completion));
        return;
    }
    namespace fs = std::filesystem;
    // "scheme://host/path?query" -> "host/path"; ".." pieces never leave the served folder.
    std::string_view url = request.url;
    const size_t scheme = url.find("://");
    if (scheme != std::string_view::npos) url.remove_prefix(scheme + 3);
    url = url.substr(0, url.find_first_of("?#"));
    fs::path relative;
    for (const auto& piece : fs::path(std::string(url))) {
        if (piece == ".." || piece == "." || piece.empty() || piece == "/") continue;
        relative /= piece;
    }
    fs::path found;
    std::error_code ignored;
    if (fs::is_regular_file(fs::path(servedFolder_) / relative, ignored)) {
        found = fs::path(servedFolder_) / relative;
    } else {
        for (fs::path parent = relative.parent_path(); !parent.empty();
             parent = parent.parent_path()) {
            if (fs::is_regular_file(fs::path(servedFolder_) / parent / "index", ignored)) {
                found = fs::path(servedFolder_) / parent / "index";
                break;
            }
        }
    }
    FerritCore::ProxyResponse response;
    if (found.empty()) {
        response.statusCode = 404;
    } else {
        std::ifstream in(found, std::ios::binary);
        std::stringstream content;
        content << in.rdbuf();
        response.statusCode = 200;
        response.header["Content-Length"] = std::to_string(content.str().size());
        if (request.tempFilePath.empty()) {
            response.content = content.str();
        } else {
            std::ofstream(request.tempFilePath, std::ios::binary) << content.str();
        }
    }
    completion(std::move(response), FerritCore::Error());
}

std::vector<std::string> FileProxy::requestedUrls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requested_;
}

}  // namespace FerritTools
