// ferrit-sign-index: writes the signed resource list "app-res.hvc" of a pack folder, and makes
// the Ed25519 key pair that signs it.
//
//   ferrit-sign-index keygen PRIVATE.pem PUBLIC.pem
//   ferrit-sign-index sign --key PRIVATE.pem --url-prefix URL [--header PATH=NAME:VALUE]...
//                          [--table-out FILE] PACKDIR
//   ferrit-sign-index sign-document --key PRIVATE.pem JSONFILE OUTFILE
//
// `sign` lists every file below PACKDIR/res/ (".DS_Store" left out), in path order, as
// {"res/<path>": {"url": URL + <path>, "v": <MD5 of the file>, "header": {...}}}, and writes
// PACKDIR/app-res.hvc as that JSON, "||", a token, "|", and the base64 Ed25519 signature of the
// JSON's lower-case hexadecimal MD5. --table-out also writes the bare JSON, the resource table
// that a built-in configuration embeds. Ed25519 is deterministic: the same files and key give
// the same bytes.
//
// `sign-document` writes a configuration document as a configuration endpoint serves it: the
// JSON text, "||", and the base64 Ed25519 signature of the text's lower-case hexadecimal MD5.
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "base/Digest.h"
#include "marl/Json.h"

using MarlLogger::json::JSON;
using MarlLogger::json::JSONObject;
namespace fs = std::filesystem;

namespace {

// What the index carries between its two separators; readers skip it.
constexpr const char* kToken = "ed25519";

int usage(const std::string& message) {
    std::cerr << "ferrit-sign-index: " << message << "\n"
              << "usage: ferrit-sign-index keygen PRIVATE.pem PUBLIC.pem\n"
              << "       ferrit-sign-index sign --key PRIVATE.pem --url-prefix URL [--header "
                 "PATH=NAME:VALUE]...\n"
              << "                              [--table-out FILE] PACKDIR\n";
    return 2;
}

bool readAll(const fs::path& path, std::string& out) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::ostringstream text;
    text << in.rdbuf();
    out = text.str();
    return true;
}

// Written beside the target and renamed over it, so that a reader never sees half a file.
bool writeAtomically(const fs::path& path, const std::string& content) {
    const fs::path temporary = path.string() + ".tmp";
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        if (!out) return false;
        out << content;
        if (!out.flush()) return false;
    }
    std::error_code error;
    fs::rename(temporary, path, error);
    return !error;
}

std::string base64(const std::string& bytes) {
    std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                  reinterpret_cast<const unsigned char*>(bytes.data()),
                                  static_cast<int>(bytes.size()));
    out.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return out;
}

int keygen(const std::string& privatePath, const std::string& publicPath) {
    EVP_PKEY* key = nullptr;
    EVP_PKEY_CTX* context = EVP_PKEY_CTX_new_id(EVP_PKEY_ED25519, nullptr);
    const bool made = context != nullptr && EVP_PKEY_keygen_init(context) == 1 &&
                      EVP_PKEY_keygen(context, &key) == 1;
    EVP_PKEY_CTX_free(context);
    if (!made) return usage("key generation failed");
    bool written = false;
    if (FILE* out = std::fopen(privatePath.c_str(), "wb")) {
        written = PEM_write_PrivateKey(out, key, nullptr, nullptr, 0, nullptr, nullptr) == 1;
        written = std::fclose(out) == 0 && written;
    }
    if (FILE* out = written ? std::fopen(publicPath.c_str(), "wb") : nullptr) {
        written = PEM_write_PUBKEY(out, key) == 1;
        written = std::fclose(out) == 0 && written;
    } else {
        written = false;
    }
    EVP_PKEY_free(key);
    if (!written) return usage("cannot write the key files");
    std::cout << "wrote " << privatePath << " and " << publicPath << "\n";
    return 0;
}

bool signText(const std::string& privatePath, const std::string& message, std::string& signature,
              std::string& error) {
    FILE* in = std::fopen(privatePath.c_str(), "rb");
    if (in == nullptr) {
        error = "cannot read " + privatePath;
        return false;
    }
    EVP_PKEY* key = PEM_read_PrivateKey(in, nullptr, nullptr, nullptr);
    std::fclose(in);
    if (key == nullptr || EVP_PKEY_get_id(key) != EVP_PKEY_ED25519) {
        EVP_PKEY_free(key);
        error = privatePath + " holds no Ed25519 private key";
        return false;
    }
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    size_t length = 0;
    bool signedOk =
        context != nullptr && EVP_DigestSignInit(context, nullptr, nullptr, nullptr, key) == 1 &&
        EVP_DigestSign(context, nullptr, &length,
                       reinterpret_cast<const unsigned char*>(message.data()), message.size()) == 1;
    if (signedOk) {
        signature.resize(length);
        signedOk = EVP_DigestSign(context, reinterpret_cast<unsigned char*>(signature.data()),
                                  &length, reinterpret_cast<const unsigned char*>(message.data()),
                                  message.size()) == 1;
        signature.resize(length);
    }
    EVP_MD_CTX_free(context);
    EVP_PKEY_free(key);
    if (!signedOk) error = "signing failed";
    return signedOk;
}

int sign(int argc, char** argv) {
    std::string keyPath, urlPrefix, tableOut, folder;
    std::map<std::string, std::vector<std::pair<std::string, std::string>>> headers;
    for (int i = 2; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
        if (arg == "--key" || arg == "--url-prefix" || arg == "--table-out" || arg == "--header") {
            const char* v = value();
            if (v == nullptr) return usage("missing value after " + arg);
            if (arg == "--key") keyPath = v;
            if (arg == "--url-prefix") urlPrefix = v;
            if (arg == "--table-out") tableOut = v;
            if (arg == "--header") {
                const std::string h = v;
                const size_t equals = h.find('=');
                const size_t colon = h.find(':', equals == std::string::npos ? 0 : equals);
                if (equals == std::string::npos || colon == std::string::npos)
                    return usage("a header is PATH=NAME:VALUE");
                size_t start = colon + 1;
                while (start < h.size() && h[start] == ' ') ++start;
                headers[h.substr(0, equals)].emplace_back(h.substr(equals + 1, colon - equals - 1),
                                                          h.substr(start));
            }
        } else if (!arg.empty() && arg[0] == '-') {
            return usage("unknown option " + arg);
        } else {
            folder = arg;
        }
    }
    if (keyPath.empty() || urlPrefix.empty() || folder.empty())
        return usage("sign needs --key, --url-prefix and PACKDIR");
    const fs::path resources = fs::path(folder) / "res";
    if (!fs::is_directory(resources)) return usage(resources.string() + " is no directory");

    std::vector<std::string> paths;
    for (const auto& entry : fs::recursive_directory_iterator(resources)) {
        if (!entry.is_regular_file() || entry.path().filename() == ".DS_Store") continue;
        paths.push_back(fs::relative(entry.path(), resources).generic_string());
    }
    std::sort(paths.begin(), paths.end());
    JSONObject table;
    for (const std::string& path : paths) {
        std::string content;
        if (!readAll(resources / path, content))
            return usage("cannot read " + (resources / path).string());
        JSONObject record{{"url", urlPrefix + path}, {"v", FerritCore::Digest::md5Hex(content)}};
        auto extra = headers.find(path);
        if (extra != headers.end()) {
            JSONObject header;
            for (const auto& [name, value] : extra->second) header.set(name, value);
            record.set("header", JSON(header));
        }
        table.set("res/" + path, JSON(record));
    }
    for (const auto& [path, unused] : headers)
        if (std::find(paths.begin(), paths.end(), path) == paths.end())
            return usage("--header names no file: " + path);

    const std::string body = JSON(table).toString();
    std::string signature, error;
    if (!signText(keyPath, FerritCore::Digest::md5Hex(body), signature, error)) return usage(error);
    const fs::path index = fs::path(folder) / "app-res.hvc";
    if (!writeAtomically(index, body + "||" + kToken + "|" + base64(signature)))
        return usage("cannot write " + index.string());
    if (!tableOut.empty() && !writeAtomically(tableOut, body + "\n"))
        return usage("cannot write " + tableOut);
    std::cout << "wrote " << index.string() << " (" << paths.size()
              << (paths.size() == 1 ? " file)\n" : " files)\n");
    return 0;
}

int signDocument(int argc, char** argv) {
    std::string keyPath;
    std::vector<std::string> files;
    for (int i = 2; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--key" && i + 1 < argc) {
            keyPath = argv[++i];
        } else if (!arg.empty() && arg[0] == '-') {
            return usage("unknown option " + arg);
        } else {
            files.push_back(arg);
        }
    }
    if (keyPath.empty() || files.size() != 2)
        return usage("sign-document needs --key, JSONFILE and OUTFILE");
    std::string body;
    if (!readAll(files[0], body)) return usage("cannot read " + files[0]);
    while (!body.empty() && (body.back() == '\n' || body.back() == '\r')) body.pop_back();
    std::string parseError;
    if (JSON::parse(body, &parseError).isNull() || !parseError.empty())
        return usage(files[0] + ": " + parseError);
    std::string signature, error;
    if (!signText(keyPath, FerritCore::Digest::md5Hex(body), signature, error)) return usage(error);
    if (!writeAtomically(files[1], body + "||" + base64(signature)))
        return usage("cannot write " + files[1]);
    std::cout << "wrote " << files[1] << "\n";
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return usage("no command");
    const std::string command = argv[1];
    if (command == "keygen") {
        if (argc != 4) return usage("keygen takes PRIVATE.pem PUBLIC.pem");
        return keygen(argv[2], argv[3]);
    }
    if (command == "sign") return sign(argc, argv);
    if (command == "sign-document") return signDocument(argc, argv);
    return usage("unknown command " + command);
}
