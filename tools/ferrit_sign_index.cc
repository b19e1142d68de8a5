// ferrit-sign-index: writes the signed resource list "app-res.hvc" of a pack folder, and makes
// the Ed25519 key pair that signs it.
//
//   ferrit-sign-index keygen PRIVATE.pem PUBLIC.pem
//   ferrit-sign-index sign --key PRIVATE.pem --url-prefix URL [--header PATH=NAME:VALUE]...
//                          [--table-out FILE] PACKDIR
//   ferrit-sign-index sign-document --key PRIVATE.pem JSONFILE OUTFILE
//
// `sign` lists every file below PACKDIR/res/ (".DS_Store" and "__MACOSX" left out), in path order,
// as
// {"res/<path>": {"url": URL + <path>, "v": <MD5 of the file>, "header": {...}}}, and writes
// PACKDIR/app-res.hvc as that JSON, "||", a token, "|", and the base64 Ed25519 signature of the
// JSON's lower-case hexadecimal MD5. --table-out also writes the bare JSON, the resource table
// that a built-in configuration embeds. Ed25519 is deterministic: the same files and key give
// the same bytes.
//
// `sign-document` writes a configuration document as a configuration endpoint serves it: the
// JSON text, "||", and the base64 Ed25519 signature of the text's lower-case hexadecimal MD5.
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "marl/Json.h"
#include "tools/ToolCommands.h"
#include "tools/common/Ed25519Key.h"
#include "tools/common/ToolFiles.h"
#include "tools/pack/PackBuilder.h"

using FerritTools::Ed25519Key;
using MarlLogger::json::JSON;
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

int keygen(const std::string& privatePath, const std::string& publicPath) {
    std::string error;
    std::unique_ptr<Ed25519Key> key = Ed25519Key::generate(error);
    if (!key) return usage(error);
    if (!key->writePrivatePem(privatePath, error) || !key->writePublicPem(publicPath, error))
        return usage(error);
    std::cout << "wrote " << privatePath << " and " << publicPath << "\n";
    return 0;
}

FerritTools::Signer signerOf(const std::string& privatePath, std::string& error) {
    std::shared_ptr<const Ed25519Key> key = Ed25519Key::loadPrivate(privatePath, error);
    return key ? FerritTools::ed25519Signer(std::move(key)) : FerritTools::Signer();
}

int sign(int argc, char** argv) {
    std::string keyPath, urlPrefix, tableOut, folder;
    FerritTools::PackContent content;
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
                content.headers[h.substr(0, equals)][h.substr(equals + 1, colon - equals - 1)] =
                    h.substr(start);
            }
        } else if (!arg.empty() && arg[0] == '-') {
            return usage("unknown option " + arg);
        } else {
            folder = arg;
        }
    }
    if (keyPath.empty() || urlPrefix.empty() || folder.empty())
        return usage("sign needs --key, --url-prefix and PACKDIR");
    std::string error, body, index;
    if (!FerritTools::readFolder((fs::path(folder) / "res").string(), content.files, error) ||
        !FerritTools::indexJson(content, urlPrefix, {}, body, error)) {
        return usage(error);
    }
    const FerritTools::Signer signer = signerOf(keyPath, error);
    if (!signer || !FerritTools::signIndex(body, kToken, signer, index, error)) return usage(error);
    const fs::path indexPath = fs::path(folder) / FerritTools::kIndexEntry;
    if (!FerritTools::writeFileAtomically(indexPath.string(), index))
        return usage("cannot write " + indexPath.string());
    if (!tableOut.empty() && !FerritTools::writeFileAtomically(tableOut, body + "\n"))
        return usage("cannot write " + tableOut);
    std::cout << "wrote " << indexPath.string() << " (" << content.files.size()
              << (content.files.size() == 1 ? " file)\n" : " files)\n");
    return 0;
}

int signDocumentCommand(int argc, char** argv) {
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
    if (!FerritTools::readWholeFile(files[0], body)) return usage("cannot read " + files[0]);
    while (!body.empty() && (body.back() == '\n' || body.back() == '\r')) body.pop_back();
    std::string parseError;
    if (JSON::parse(body, &parseError).isNull() || !parseError.empty())
        return usage(files[0] + ": " + parseError);
    std::string error, document;
    const FerritTools::Signer signer = signerOf(keyPath, error);
    if (!signer || !FerritTools::signDocument(body, signer, document, error)) return usage(error);
    if (!FerritTools::writeFileAtomically(files[1], document))
        return usage("cannot write " + files[1]);
    std::cout << "wrote " << files[1] << "\n";
    return 0;
}

}  // namespace

int FerritTools::runSignIndexTool(int argc, char** argv) {
    if (argc < 2) return usage("no command");
    const std::string command = argv[1];
    if (command == "keygen") {
        if (argc != 4) return usage("keygen takes PRIVATE.pem PUBLIC.pem");
        return keygen(argv[2], argv[3]);
    }
    if (command == "sign") return sign(argc, argv);
    if (command == "sign-document") return signDocumentCommand(argc, argv);
    return usage("unknown command " + command);
}
