#include "FileProxy.h"
#include "support/Mutex.h"

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

#include "base/Errors.h"
#include "base/Folder.h"
#include "base/Telemetry.h"
#include "tools/common/Ed25519Key.h"

namespace FerritTools {
namespace {

// Writes `bytes` to `path`; 0, or the errno of the first failure (closing included, which is where
// a full disk may first show).
int writeWhole(const std::string& path, const std::string& bytes) {
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) return errno;
    int failed = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size() ? 0 : errno;
    if (std::fclose(file) != 0 && failed == 0) failed = errno;
    return failed;
}

// The library names files relative to its root.
FerritCore::Folder diskFolderOf(const std::string& path) {
    const std::string& root = FerritCore::rootPath();
    std::string_view relative = path;
    if (!root.empty() && relative.starts_with(root)) {
        relative.remove_prefix(root.size());
        while (relative.starts_with("/")) relative.remove_prefix(1);
    }
    return FerritCore::Folder::disk(relative);
}

}  // namespace

std::shared_ptr<FileProxy> FileProxy::open(const std::string& publicKeyPem, std::string& error) {
    std::unique_ptr<Ed25519Key> key = Ed25519Key::loadPublic(publicKeyPem, error);
    if (!key) return nullptr;
    return std::shared_ptr<FileProxy>(new FileProxy(std::move(key)));
}

FileProxy::FileProxy(std::unique_ptr<Ed25519Key> key) : key_(std::move(key)) {}

FileProxy::~FileProxy() = default;

bool FileProxy::verifySignature(const std::string& md5Hex, const std::string& signature) {
    return key_->verify(md5Hex, signature);
}

std::shared_ptr<const FerritCore::Ed25519PublicKey> FileProxy::publicKey() const {
    return key_->publicKey();
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
        FerritCore::MutexLock lock(mutex_);
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
        servedFiles_.fetch_add(1, std::memory_order_relaxed);
        servedBytes_.fetch_add(content.str().size(), std::memory_order_relaxed);
        if (request.tempFilePath.empty()) {
            response.content = content.str();
        } else if (const int failed = writeWhole(request.tempFilePath, content.str())) {
            // A host that cannot store the body says so: a short file would only be refused
            // later as bytes that do not match, hiding that the disk is full.
            completion(FerritCore::ProxyResponse(),
                       FerritCore::Errors::fileWrite(diskFolderOf(request.tempFilePath), failed));
            return;
        }
    }
    completion(std::move(response), FerritCore::Error());
}

std::vector<std::string> FileProxy::requestedUrls() const {
    FerritCore::MutexLock lock(mutex_);
    return requested_;
}

}  // namespace FerritTools
